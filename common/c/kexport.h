// kexport.h - the export frame every exported function uses, in the common
// layer so that the common sources and the kernel share it.
//
//   KAPI       marks a function as part of the exported API
//   guarded    runs fn; exceptions become KS_NO_MEMORY / KS_INTERNAL
#pragma once

#include <new>

#include "ombrix.h"

#define KAPI extern "C" __attribute__((visibility("default")))

namespace krn {

template <class F>
inline auto guarded(F&& fn) noexcept -> decltype(fn()) {
    try {
        return fn();
    } catch (const std::bad_alloc&) {
        return static_cast<decltype(fn())>(KS_NO_MEMORY);
    } catch (...) {
        return static_cast<decltype(fn())>(KS_INTERNAL);
    }
}

}  // namespace krn
