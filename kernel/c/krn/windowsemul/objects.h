// objects.h - emulated object handles (palettes, global memory, regions).
//
// A handle is a small zero-filled block: first word the object kind, second
// the payload. Every live handle is registered in one process-wide table, so
// a stale, foreign or garbage handle value is recognised without ever being
// dereferenced. Null and all-ones values are never valid.
//
//   objCreate(kind, payload)   new handle, nullptr when out of memory
//   objPayload(h, kind)        payload of a live handle of that kind, else nullptr
//   objKind(h)                 kind of a live handle, 0 when not a live handle
//   objSetPayload(h, kind, p)  replaces the payload; false for a bad handle
//   objDestroy(h, kind)        unregisters and frees the handle block (not the payload)
//   objCreateKeyed, objRekey   entries known by a key other than the block's address
//   objCreateFrom, objReserve  registration of a filled object; room for one more entry
#pragma once

#include <cstddef>
#include <cstdint>

struct OmbrixObject_ {
    uint32_t uKind;
    void* pPayload;
    uint32_t uLockCount;  // used by movable global memory
    uint32_t uFlags;
    size_t uBytes;        // used by movable global memory
};

namespace krn {

enum ObjKind : uint32_t {
    kObjPalette = 1,
    kObjGlobalMemory = 3,
    kObjRegion = 4,
};

OmbrixObject_* objCreate(uint32_t kind, void* payload) noexcept;
// Registers an object under a key other than its own address (a fixed global
// block is known by its data pointer). Handles passed to the functions below
// are keys.
OmbrixObject_* objCreateKeyed(const void* key, uint32_t kind, void* payload) noexcept;
// Registers a copy of `init` (kind, payload and the other words already set,
// so no thread ever sees a half-filled object) under `key`, or under its own
// address when key is null.
OmbrixObject_* objCreateFrom(const void* key, const OmbrixObject_& init) noexcept;
// Makes room for one more entry, so that the next registration or objRekey
// cannot fail for lack of table space while the caller holds the table lock.
bool objReserve() noexcept;
// Moves an entry to a new key (a fixed block that was reallocated).
bool objRekey(const void* oldKey, const void* newKey) noexcept;
void* objPayload(const void* handle, uint32_t kind) noexcept;
uint32_t objKind(const void* handle) noexcept;
bool objSetPayload(void* handle, uint32_t kind, void* payload) noexcept;
bool objDestroy(void* handle, uint32_t kind) noexcept;
// Runs fn(object) under the table lock when the handle is live and of the
// kind (kind 0 = any); returns false otherwise.
template <class F>
bool objWith(const void* handle, uint32_t kind, F&& fn);

// Internal: lock-protected lookup used by objWith.
OmbrixObject_* objLookupLocked(const void* handle, uint32_t kind) noexcept;
void objTableLock() noexcept;
void objTableUnlock() noexcept;

namespace testhook {
// Makes every growth of the handle table fail (for tests of growth under failure).
void failHandleTableGrowth(bool on) noexcept;
}

template <class F>
bool objWith(const void* handle, uint32_t kind, F&& fn) {
    objTableLock();
    OmbrixObject_* o = objLookupLocked(handle, kind);
    if (!o) {
        objTableUnlock();
        return false;
    }
    struct Unlock {
        ~Unlock() { objTableUnlock(); }
    } unlock;
    fn(o);
    return true;
}

}  // namespace krn
