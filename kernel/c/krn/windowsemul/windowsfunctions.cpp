// windowsfunctions.cpp - the kernel's own global-memory functions.
//
//   K_GlobalAlloc     fixed block (handle = data pointer) or movable block
//                     (handle = emulated object of kind 3, data through K_GlobalLock)
//   K_GlobalReAlloc   resizes; a fixed block may move, its handle is the new pointer
//   K_GlobalFree      null on success, the handle back when it is not a live block
//   K_GlobalLock / K_GlobalUnlock / K_GlobalSize
//
// Every block is registered in the object table, so any pointer can be
// checked before use: freeing a foreign pointer, a stale handle or a handle of
// another kind is refused (errno 22) instead of corrupting the heap.
#include <cerrno>
#include <cstring>

#include "../common/kernel.h"
#include "../common/memory.h"
#include "globalmem.h"
#include "objects.h"

namespace {
constexpr uint32_t kMovable = 1;

OmbrixObject_* lookupBlock(HGLOBAL h) noexcept {
    return krn::objLookupLocked(h, krn::kObjGlobalMemory);
}
}  // namespace

namespace krn {

HGLOBAL globalAlloc(uint32_t flags, size_t bytes) noexcept {
    void* data = (flags & GMEM_ZEROINIT) ? memCalloc(bytes) : memAlloc(bytes);
    if (!data) return nullptr;
    const bool movable = flags & GMEM_MOVEABLE;
    OmbrixObject_ init{};
    init.uKind = kObjGlobalMemory;
    init.pPayload = data;
    init.uFlags = movable ? kMovable : 0;
    init.uBytes = bytes;
    OmbrixObject_* o = objCreateFrom(movable ? nullptr : data, init);
    if (!o) {
        memFree(data);
        return nullptr;
    }
    return movable ? static_cast<HGLOBAL>(o) : data;
}

HGLOBAL globalFree(HGLOBAL h) noexcept {
    objTableLock();
    OmbrixObject_* o = lookupBlock(h);
    if (!o) {
        objTableUnlock();
        errno = EINVAL;
        return h;
    }
    void* data = o->pPayload;
    objDestroy(h, kObjGlobalMemory);
    objTableUnlock();
    memFree(data);
    return nullptr;
}

void* globalLock(HGLOBAL h) noexcept {
    void* result = nullptr;
    if (!objWith(h, kObjGlobalMemory, [&](OmbrixObject_* o) {
            if (o->uFlags & kMovable) ++o->uLockCount;
            result = o->pPayload;
        })) {
        errno = EINVAL;
    }
    return result;
}

bool globalUnlock(HGLOBAL h) noexcept {
    bool stillLocked = false;
    if (!objWith(h, kObjGlobalMemory, [&](OmbrixObject_* o) {
            if ((o->uFlags & kMovable) && o->uLockCount > 0) --o->uLockCount;
            stillLocked = o->uLockCount > 0;
        })) {
        errno = EINVAL;
    }
    return stillLocked;
}

size_t globalSize(HGLOBAL h) noexcept {
    size_t n = 0;
    if (!objWith(h, kObjGlobalMemory, [&](OmbrixObject_* o) { n = o->uBytes; })) errno = EINVAL;
    return n;
}

bool isGlobalBlock(HGLOBAL h) noexcept {
    return objWith(h, kObjGlobalMemory, [](OmbrixObject_*) {});
}

HGLOBAL globalReAlloc(HGLOBAL h, size_t bytes, uint32_t flags) noexcept {
    objTableLock();
    struct Unlock {
        ~Unlock() { objTableUnlock(); }
    } unlock;
    OmbrixObject_* o = lookupBlock(h);
    if (!o) {
        errno = EINVAL;
        return nullptr;
    }
    // A locked movable block may not move under its user's pointer.
    if ((o->uFlags & kMovable) && o->uLockCount > 0) return nullptr;
    const bool fixed = !(o->uFlags & kMovable);
    // A fixed block is known by its data pointer: make room for its new key
    // before the block moves, so that re-keying cannot fail after the old
    // pointer has been given up (a failed call must leave the block as it was).
    if (fixed && !objReserve()) return nullptr;
    void* data = memRealloc(o->pPayload, bytes);
    if (!data) return nullptr;
    if ((flags & GMEM_ZEROINIT) && bytes > o->uBytes)
        std::memset(static_cast<uint8_t*>(data) + o->uBytes, 0, bytes - o->uBytes);
    if (fixed && data != o->pPayload) {
        const bool moved = objRekey(o->pPayload, data);  // cannot fail: room was reserved
        (void)moved;
    }
    o->pPayload = data;
    o->uBytes = bytes;
    return (o->uFlags & kMovable) ? h : data;
}

}  // namespace krn

KAPI HGLOBAL K_GlobalAlloc(uint32_t uFlags, size_t uBytes) { return krn::globalAlloc(uFlags, uBytes); }
KAPI HGLOBAL K_GlobalReAlloc(HGLOBAL hMem, size_t uBytes, uint32_t uFlags) {
    return krn::globalReAlloc(hMem, uBytes, uFlags);
}
KAPI HGLOBAL K_GlobalFree(HGLOBAL hMem) { return hMem ? krn::globalFree(hMem) : nullptr; }
KAPI void* K_GlobalLock(HGLOBAL hMem) { return krn::globalLock(hMem); }
KAPI BOOL K_GlobalUnlock(HGLOBAL hMem) { return krn::globalUnlock(hMem) ? 1 : 0; }
KAPI size_t K_GlobalSize(HGLOBAL hMem) { return krn::globalSize(hMem); }
