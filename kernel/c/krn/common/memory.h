// memory.h - the kernel allocator, for kernel sources: it lives in the
// common layer (common/c/kalloc.h), below everything that allocates.
#pragma once

#include "kalloc.h"
