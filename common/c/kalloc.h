// kalloc.h - the kernel allocator (the lowest layer: the standard library only).
//
// Every allocation the kernel makes (pixels, tiles, palettes, tables, regions,
// handles, work items) goes through krn::memAlloc and friends, so that one
// test hook can make the Nth allocation fail and one counter can tell how
// many blocks are live.
//
//   memAlloc / memCalloc / memRealloc / memFree   raw blocks, nullptr on failure
//   KAllocator<T>, kvector<T>                     standard containers on the same blocks
//                                                 (throw std::bad_alloc; the export guard
//                                                 turns that into KS_NO_MEMORY)
//   UniqueMem<T>                                  owning pointer freed with memFree
//   blockcache::                                  reuse of freed large blocks
//   faultinject::                                 the test hook
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>
#include <memory>

namespace krn {

void* memAlloc(size_t bytes) noexcept;
void* memCalloc(size_t bytes) noexcept;
// On failure the old block is untouched and nullptr is returned.
void* memRealloc(void* p, size_t bytes) noexcept;
void memFree(void* p) noexcept;

template <class T>
T* memAllocArray(size_t count) noexcept {
    if (count > SIZE_MAX / sizeof(T)) return nullptr;
    return static_cast<T*>(memAlloc(count * sizeof(T)));
}

struct MemDeleter {
    void operator()(void* p) const noexcept { memFree(p); }
};
template <class T>
using UniqueMem = std::unique_ptr<T, MemDeleter>;

template <class T>
struct KAllocator {
    using value_type = T;
    KAllocator() noexcept = default;
    template <class U>
    KAllocator(const KAllocator<U>&) noexcept {}
    T* allocate(size_t n) {
        if (n > SIZE_MAX / sizeof(T)) throw std::bad_alloc();
        void* p = memAlloc(n * sizeof(T));
        if (!p) throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, size_t) noexcept { memFree(p); }
    template <class U>
    bool operator==(const KAllocator<U>&) const noexcept { return true; }
};
template <class T>
using kvector = std::vector<T, KAllocator<T>>;

// Large blocks (4 MiB and more) are mapped by the allocator and a few freed
// ones are kept for reuse (see kalloc.cpp). The environment variable
// OMBRIX_BLOCK_CACHE=0 switches the reuse off.
namespace blockcache {
void setLimit(size_t bytes) noexcept;  // most bytes kept; blocks above it are returned at once
void release() noexcept;               // return every kept block to the system
size_t cachedBytes() noexcept;         // bytes kept now
long hits() noexcept;                  // requests served from kept blocks since start
bool available() noexcept;             // false in builds that keep every block on malloc
}  // namespace blockcache

namespace faultinject {
// After `countdown` successful allocations the next `repeat` allocations
// fail (repeat < 0: every later one fails). countdown < 0 disables the hook.
// The hook counts across all threads.
void arm(long countdown, long repeat = 1) noexcept;
void disarm() noexcept;
// Number of failures injected since the last arm().
long injected() noexcept;
// Blocks currently held by the kernel allocator.
long liveBlocks() noexcept;
// Called on every injected failure; a place for a debugger breakpoint.
void onInjectedFailure() noexcept;
}  // namespace faultinject

}  // namespace krn
