// objects.cpp - the table of live emulated object handles.
//
// The table is an open-addressing hash set of handle addresses guarded by one
// recursive mutex. It grows through the kernel allocator; a failed growth
// makes objCreate fail cleanly.
#include "objects.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "../common/memory.h"

namespace krn {
namespace {

std::recursive_mutex& tableMutex() {
    static std::recursive_mutex m;
    return m;
}

struct Entry {
    const void* key;
    OmbrixObject_* obj;
};
struct Table {
    Entry* slots = nullptr;
    size_t capacity = 0;  // power of two
    size_t used = 0;      // live entries
    size_t tombs = 0;     // deleted markers
};
Table g_table;
const void* const kTomb = reinterpret_cast<const void*>(uintptr_t(1));
bool g_failGrowth = false;  // test hook, read and written under the table lock

size_t hashPtr(const void* p, size_t mask) {
    uint64_t x = reinterpret_cast<uintptr_t>(p);
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    return size_t(x) & mask;
}

// Null, all-ones and the deleted-slot marker are never keys: a caller's
// garbage value 1 must not find a deleted slot (whose object is gone).
bool validValue(const void* h) {
    return h != nullptr && h != kTomb && reinterpret_cast<uintptr_t>(h) != ~uintptr_t(0);
}

Entry* findSlot(const void* h) {
    if (!g_table.capacity) return nullptr;
    size_t mask = g_table.capacity - 1;
    for (size_t i = hashPtr(h, mask), n = 0; n < g_table.capacity; i = (i + 1) & mask, ++n) {
        const void* k = g_table.slots[i].key;
        if (k == nullptr) return nullptr;
        if (k == h && k != kTomb) return &g_table.slots[i];
    }
    return nullptr;
}

bool rehash(size_t newCap) {
    // The table itself is process infrastructure that lives until exit, so it
    // is not counted as a kernel block (it would look like a leak to tests).
    if (g_failGrowth) return false;
    auto* slots = static_cast<Entry*>(std::calloc(newCap, sizeof(Entry)));
    if (!slots) return false;
    size_t mask = newCap - 1;
    for (size_t i = 0; i < g_table.capacity; ++i) {
        Entry e = g_table.slots[i];
        if (e.key == nullptr || e.key == kTomb) continue;
        size_t j = hashPtr(e.key, mask);
        while (slots[j].key) j = (j + 1) & mask;
        slots[j] = e;
    }
    std::free(g_table.slots);
    g_table.slots = slots;
    g_table.capacity = newCap;
    g_table.tombs = 0;
    return true;
}

// Makes sure the next insert needs no growth.
bool reserveOne() {
    if ((g_table.used + g_table.tombs + 1) * 4 > g_table.capacity * 3) {
        size_t cap = g_table.capacity ? g_table.capacity : 64;
        while ((g_table.used + 1) * 2 > cap) cap *= 2;  // same size when tombstones dominate
        if (!rehash(cap)) return false;
    }
    return true;
}

bool insert(const void* key, OmbrixObject_* o) {
    if (!reserveOne()) return false;
    size_t mask = g_table.capacity - 1;
    size_t i = hashPtr(key, mask);
    while (g_table.slots[i].key && g_table.slots[i].key != kTomb) i = (i + 1) & mask;
    if (g_table.slots[i].key == kTomb) --g_table.tombs;
    g_table.slots[i] = Entry{key, o};
    ++g_table.used;
    return true;
}

}  // namespace

void objTableLock() noexcept { tableMutex().lock(); }
void objTableUnlock() noexcept { tableMutex().unlock(); }

OmbrixObject_* objLookupLocked(const void* handle, uint32_t kind) noexcept {
    if (!validValue(handle)) return nullptr;
    Entry* s = findSlot(handle);
    if (!s) return nullptr;
    if (kind != 0 && s->obj->uKind != kind) return nullptr;
    return s->obj;
}

OmbrixObject_* objCreate(uint32_t kind, void* payload) noexcept {
    OmbrixObject_ init{};
    init.uKind = kind;
    init.pPayload = payload;
    return objCreateFrom(nullptr, init);
}

OmbrixObject_* objCreateKeyed(const void* key, uint32_t kind, void* payload) noexcept {
    if (!validValue(key)) return nullptr;
    OmbrixObject_ init{};
    init.uKind = kind;
    init.pPayload = payload;
    return objCreateFrom(key, init);
}

OmbrixObject_* objCreateFrom(const void* key, const OmbrixObject_& init) noexcept {
    if (key && !validValue(key)) return nullptr;
    auto* o = static_cast<OmbrixObject_*>(memCalloc(sizeof(OmbrixObject_)));
    if (!o) return nullptr;
    // Every field is in place before the handle becomes visible to other threads.
    *o = init;
    std::lock_guard<std::recursive_mutex> lk(tableMutex());
    if ((key && findSlot(key)) || !insert(key ? key : o, o)) {
        memFree(o);
        return nullptr;
    }
    return o;
}

bool objReserve() noexcept {
    std::lock_guard<std::recursive_mutex> lk(tableMutex());
    return reserveOne();
}

bool objRekey(const void* oldKey, const void* newKey) noexcept {
    std::lock_guard<std::recursive_mutex> lk(tableMutex());
    if (!validValue(newKey)) return false;
    Entry* s = findSlot(oldKey);
    if (!s) return false;
    if (oldKey == newKey) return true;
    if (findSlot(newKey)) return false;
    OmbrixObject_* o = s->obj;
    if (!insert(newKey, o)) return false;  // may rehash: look the old key up again
    s = findSlot(oldKey);
    s->key = kTomb;
    s->obj = nullptr;
    --g_table.used;
    ++g_table.tombs;
    return true;
}

void* objPayload(const void* handle, uint32_t kind) noexcept {
    std::lock_guard<std::recursive_mutex> lk(tableMutex());
    OmbrixObject_* o = objLookupLocked(handle, kind);
    return o ? o->pPayload : nullptr;
}

uint32_t objKind(const void* handle) noexcept {
    std::lock_guard<std::recursive_mutex> lk(tableMutex());
    OmbrixObject_* o = objLookupLocked(handle, 0);
    return o ? o->uKind : 0;
}

bool objSetPayload(void* handle, uint32_t kind, void* payload) noexcept {
    std::lock_guard<std::recursive_mutex> lk(tableMutex());
    OmbrixObject_* o = objLookupLocked(handle, kind);
    if (!o) return false;
    o->pPayload = payload;
    return true;
}

bool objDestroy(void* handle, uint32_t kind) noexcept {
    std::lock_guard<std::recursive_mutex> lk(tableMutex());
    OmbrixObject_* o = objLookupLocked(handle, kind);
    if (!o) return false;
    Entry* s = findSlot(handle);
    s->key = kTomb;
    s->obj = nullptr;
    --g_table.used;
    ++g_table.tombs;
    std::memset(o, 0, sizeof(*o));
    memFree(o);
    return true;
}

namespace testhook {
void failHandleTableGrowth(bool on) noexcept {
    std::lock_guard<std::recursive_mutex> lk(tableMutex());
    g_failGrowth = on;
}
}  // namespace testhook

}  // namespace krn
