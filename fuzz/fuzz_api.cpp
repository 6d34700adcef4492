// fuzz_api.cpp - the exported functions as a hostile caller uses them.
//
// The input is a script: each step picks a family, a function of that family
// and its arguments, over a small pool of bitmap records, regions, region
// handles, global-memory blocks and buffers. Arguments come from tables of
// hostile values (0, -1, INT_MIN, INT_MAX, huge sizes, wrong size words, null
// pointers, older-layout records, foreign and freed handles) or raw bytes.
//
// The contract checked after every call:
//   - a status-returning call that fails returns a negative status and leaves
//     every record it was given exactly as it was (record bytes and pixels,
//     compared through a digest);
//   - a record that the call left allocated passes the validity checks below
//     (the layout's sizes agree, every row can be read);
//   - after the script every object is freed, and the kernel's live-block
//     count and the conventional-memory counter are back where they started.
//
// Caps keep one bitmap small (a data size above 4 MiB is only ever requested
// with memory types that cannot take tiles or disk, under an 8 MiB cap).
//
// Extending: each family is a table of Op {name, fn}; add a function to its
// family's table, or a new table to kFamilies. An op reads its arguments
// from the Ctx helpers and calls check() around anything that takes records.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <vector>

#include "krn/common/kernel.h"
#include "krn/common/memory.h"
#include "krn/common/settings.h"
#include "ombrix.h"

namespace {

[[noreturn]] void fail(const char* op, const char* what) {
    std::fprintf(stderr, "fuzz_api: %s: %s\n", op, what);
    std::abort();
}

constexpr int kSlots = 3;       // bitmap records the script works on
constexpr int kRgns = 3;        // OrvaRgn pointers
constexpr int kHandles = 4;     // HRGN / HGLOBAL values (live, freed or foreign)
constexpr int kLists = 3;       // bitmap list handles (live or destroyed)
constexpr int kPlays = 2;       // playback handles (live or destroyed)
constexpr size_t kBuf = 4096;   // bytes of each scratch buffer
constexpr uint64_t kMaxData = 4u << 20;
constexpr int64_t kCap = 8 << 20;

const int32_t kI32[] = {0, 1, -1, 2, 3, 7, 8, 16, 24, 32, 100, 255, 256, 65535, 65536,
                        INT32_MIN, INT32_MIN + 1, INT32_MAX, INT32_MAX - 1, 0x40000000, -0x40000000, 0x10000};
const int32_t kDims[] = {1, 2, 3, 7, 8, 13, 31, 32, 33, 64, 0, -1, INT32_MIN, INT32_MAX, 0x08000000, 579};
const int32_t kDepths[] = {1, 2, 4, 8, 12, 16, 24, 32, 48, 64, 0, 3, 5, 7, 9, -1, 65};
const uint32_t kSizeWords[] = {BITMAPRECORD_SIZE, BITMAPRECORD_SIZE_OLD, 0, 175, 217, 0xFFFFFFFFu, 44};
const uint32_t kMemTypes[] = {1, 1, 1, 4, 8, 9, 128, 256, 257, 260, 264, 265, 512, 768, 1024, 1025, 2, 0, 3, 6, 0xFFFFFFFFu};
const uint64_t kSizes[] = {0, 1, 2, 3, 4, 16, 100, 4096, 0xFFFFFFFFull, 0x100000000ull, UINT64_MAX, UINT64_MAX / 2};

struct Ctx {
    const uint8_t* p;
    size_t n, i = 0;
    const char* op = "";

    BITMAPRECORD bm[kSlots];
    std::vector<uint8_t> caller[kSlots];  // caller memory attached to a record
    std::vector<std::vector<uint8_t>> keep;  // caller memory handed over later, kept to the end
    BITMAPRECORD foreign;                 // bytes the library never made
    OrvaRgn* rgn[kRgns] = {};
    HRGN hrgn[kHandles] = {};     // may hold freed handles: never dereferenced here
    bool hrgnLive[kHandles] = {};
    HGLOBAL glob[kHandles] = {};
    bool globLive[kHandles] = {};
    std::vector<uint8_t> buf[2];
    HBITMAPLIST list[kLists] = {};  // may hold destroyed handles: looked up, never dereferenced here
    bool listLive[kLists] = {};
    HPLAYBACK play[kPlays] = {};    // may hold destroyed handles
    bool playLive[kPlays] = {};
    BITMAPRECORD target[kPlays] = {};  // the target of each live playback, which must outlive it
    RECT rect{};
    int relabelled = -1;  // slot whose size word opRelabel changed
    uint32_t relabelWord = 0, relabelTo = 0;

    // A handle freed through a call that may also free the other kind.
    void forget(const void* h) {
        for (int k = 0; k < kHandles; ++k) {
            if (hrgn[k] == h) hrgnLive[k] = false;
            if (glob[k] == h) globLive[k] = false;
        }
    }

    // The record of slot s presented with another size word (the other
    // layout or none) until the current call is over. Records that hold
    // something past the older layout are left alone: an older-layout call
    // drops those fields, by design.
    void relabel(int s) {
        BITMAPRECORD* r = &bm[s];
        if (relabelled >= 0) return;
        if (r->pCallbacks || r->hListBlock || ((r->uFlags & BRF_ALLOCATED) && krn::dataSize(r) != r->uSize)) return;
        const uint32_t to = kSizeWords[byte() % (sizeof kSizeWords / sizeof kSizeWords[0])];
        // An older-layout record shown as the current layout would hand the
        // library the caller's stale bytes past the older layout (pointers
        // among them): no library can check those.
        if (r->uStructSize != BITMAPRECORD_SIZE && to == BITMAPRECORD_SIZE) return;
        // A current-layout record shown in the older layout would be changed
        // by a successful call in its older fields only, leaving the current
        // layout's data size stale: only the words of no layout are shown
        // (records that live in the older layout come from init and create).
        if (krn::recordSizeValid(to)) return;
        relabelled = s;
        relabelWord = r->uStructSize;
        r->uStructSize = relabelTo = to;
    }

    // ---- input
    bool more() const { return i < n; }
    uint8_t byte() { return i < n ? p[i++] : 0; }
    uint32_t u32() {
        uint32_t v = 0;
        for (int k = 0; k < 4; ++k) v |= uint32_t(byte()) << (8 * k);
        return v;
    }
    template <class T, size_t N>
    T pick(const T (&t)[N]) {
        return t[byte() % N];
    }
    // Mostly table values, sometimes a raw word.
    int32_t i32() {
        uint8_t b = byte();
        if (b < 200) return kI32[b % (sizeof kI32 / sizeof kI32[0])];
        if (b < 240) return int32_t(b) - 220;
        return int32_t(u32());
    }
    int32_t coord() {
        uint8_t b = byte();
        return b < 160 ? int32_t(b % 80) - 8 : i32();
    }
    uint32_t u32v() { return uint32_t(i32()); }
    uint64_t size64() {
        uint8_t b = byte();
        return b < 128 ? b : kSizes[b % (sizeof kSizes / sizeof kSizes[0])];
    }

    // ---- pool
    BITMAPRECORD* rec() {
        uint8_t b = byte();
        if (b >= 212 && b < 230) relabel(b % kSlots);  // this call sees another size word
        if (b < 230) return &bm[b % kSlots];
        if (b < 245) return &foreign;
        return nullptr;
    }
    int slot() { return byte() % kSlots; }
    uint8_t* buffer(size_t* size) {
        uint8_t b = byte();
        if (b >= 240) {
            *size = 0;
            return nullptr;
        }
        auto& v = buf[b & 1];
        *size = v.size();
        return v.data();
    }
    RECT* rectp() {
        if (byte() >= 240) return nullptr;
        rect = RECT{coord(), coord(), coord(), coord()};
        return &rect;
    }
    OrvaRgn** rgnSlot() { return &rgn[byte() % kRgns]; }
    OrvaRgn* rgnOrNull() {
        uint8_t b = byte();
        return b < 240 ? rgn[b % kRgns] : nullptr;
    }
    HRGN handle() {
        uint8_t b = byte();
        if (b < 200) return hrgn[b % kHandles];
        if (b < 220) return reinterpret_cast<HRGN>(glob[b % kHandles]);  // another kind of object
        if (b < 235) return reinterpret_cast<HRGN>(&foreign);           // never a handle
        return reinterpret_cast<HRGN>(uintptr_t(b < 245 ? 0 : ~uintptr_t(0)));
    }
    HGLOBAL ghandle() {
        uint8_t b = byte();
        if (b < 200) return glob[b % kHandles];
        if (b < 220) return reinterpret_cast<HGLOBAL>(hrgn[b % kHandles]);
        if (b < 235) return reinterpret_cast<HGLOBAL>(&foreign);
        return reinterpret_cast<HGLOBAL>(uintptr_t(b < 245 ? 0 : ~uintptr_t(0)));
    }
    RGNXFORM xf;
    const RGNXFORM* xform() {
        uint8_t b = byte();
        if (b >= 230) return nullptr;
        xf = RGNXFORM{int32_t(b % 10), 1, 1, 1, 1, 0, 0};
        if (b & 0x10) xf = RGNXFORM{i32(), i32(), i32(), i32(), i32(), i32(), i32()};
        return &xf;
    }
};

// ---------------------------------------------------------------- the contract
uint64_t fnv(uint64_t h, const void* p, size_t n) {
    const auto* b = static_cast<const uint8_t*>(p);
    for (size_t k = 0; k < n; ++k) h = (h ^ b[k]) * 0x100000001b3ull;
    return h;
}

bool isSlot(const Ctx& c, const BITMAPRECORD* r) { return r >= c.bm && r < c.bm + kSlots; }

// Digest of a record's bytes and, when it is allocated, of its pixels read
// through the row layer. The read itself must succeed for an allocated record.
uint64_t digest(BITMAPRECORD* r, const char* op) {
    uint64_t h = fnv(0xcbf29ce484222325ull, r, sizeof *r);
    if (!(r->uFlags & BRF_ALLOCATED) || krn::checkAllocated(r) != KS_SUCCESS) return h;
    if (r->uFlags & BRF_USER_MEMORY && !r->pData) return h;
    if (r->nBytesPerLine == 0 || r->nHeight <= 0) return h;
    const BITMAPRECORD before = *r;
    std::vector<uint8_t> row(r->nBytesPerLine);
    for (int32_t y = 0; y < r->nHeight; ++y) {
        int32_t rc = K_GetBitmapRow(r, row.data(), y, r->nBytesPerLine);
        if (rc < 0) {
            std::fprintf(stderr, "row %d: status %d\n", y, rc);
            fail(op, "an allocated record's row cannot be read");
        }
        h = fnv(h, row.data(), row.size());
    }
    if (std::memcmp(&before, r, sizeof before) != 0) fail(op, "reading the rows changed the record");
    return h;
}

// The validity checks of an allocated record.
void validate(BITMAPRECORD* r, const char* op) {
    // (A size word the script broke on purpose makes the record unreadable.)
    if (!(r->uFlags & BRF_ALLOCATED) || !krn::recordSizeValid(r->uStructSize)) return;
    if (krn::checkAllocated(r) != KS_SUCCESS) fail(op, "allocated record fails the record check");
    // (A height of 0 is reachable through K_ChangeBitmapHeight and valid.)
    if (r->nWidth <= 0 || r->nHeight < 0) fail(op, "allocated record with a bad size");
    uint32_t bpl = 0;
    if (!krn::bytesPerLine(r->nWidth, r->nBitsPerPixel, &bpl) || bpl != r->nBytesPerLine)
        fail(op, "bytes per line disagree with width and depth");
    if (krn::dataSize(r) != uint64_t(bpl) * uint64_t(r->nHeight)) {
        std::fprintf(stderr, "size word %u, data size %llu, %u x %d, depth %d\n", r->uStructSize,
                     (unsigned long long)krn::dataSize(r), bpl, r->nHeight, r->nBitsPerPixel);
        fail(op, "data size disagrees");
    }
    if (krn::isCurrentLayout(r) && r->nLockCount < 0) fail(op, "negative lock count");
    if (r->nViewPerspective < 1 || r->nViewPerspective > 8) fail(op, "view perspective outside 1..8");
    (void)digest(r, op);  // every row readable
}

// Runs one call that takes records: a negative status must leave them as they
// were; a record left allocated must be valid.
// `outputs` marks (bit k) records the call makes afresh (their size word is
// an argument or written by the call); every other record given with a size
// word of no layout must make the call fail (-789 or an earlier refusal).
template <class F>
int64_t check(Ctx& c, std::initializer_list<BITMAPRECORD*> recs, F&& call, uint32_t outputs = 0) {
    bool badSize = false;
    {
        uint32_t k = 0;
        for (BITMAPRECORD* r : recs) {
            if (r && !(outputs >> k & 1) && !krn::recordSizeValid(r->uStructSize)) badSize = true;
            ++k;
        }
    }
    uint64_t before[4] = {};
    BITMAPRECORD copy[4];
    size_t k = 0;
    for (BITMAPRECORD* r : recs) {
        if (k == 4) break;
        if (r && isSlot(c, r)) {
            copy[k] = *r;
            before[k] = digest(r, c.op);
        }
        ++k;
    }
    const int64_t rc = call();
    if (badSize && rc > 0) {
        std::fprintf(stderr, "status %lld\n", (long long)rc);
        fail(c.op, "a record with a bad size word was accepted");
    }
    k = 0;
    for (BITMAPRECORD* r : recs) {
        if (k == 4) break;
        if (r && isSlot(c, r)) {
            if (rc < 0 && std::memcmp(&copy[k], r, sizeof *r) != 0) {
                std::fprintf(stderr, "status %lld\n", (long long)rc);
                fail(c.op, "a failing call changed its record");
            }
            if (rc < 0 && digest(r, c.op) != before[k]) fail(c.op, "a failing call changed the pixels");
            validate(r, c.op);
        }
        ++k;
    }
    return rc;
}

// A freed or never-allocated slot is re-initialised so that later calls can
// allocate it; an allocated one is freed.
void freeSlot(Ctx& c, int s) {
    BITMAPRECORD& r = c.bm[s];
    if (c.relabelled == s && r.uStructSize == c.relabelTo) {
        r.uStructSize = c.relabelWord;
        c.relabelled = -1;
    }
    while ((r.uFlags & BRF_ALLOCATED) && krn::isCurrentLayout(&r) && r.nLockCount > 0) K_ReleaseBitmap(&r);
    // Also frees what an unallocated record owns (region, palette, callbacks).
    if (K_FreeBitmap(&r) != KS_SUCCESS) fail("cleanup", "K_FreeBitmap failed");
    if (r.uFlags & BRF_ALLOCATED) fail("cleanup", "record still allocated after K_FreeBitmap");
    c.caller[s].clear();
}

bool isStatus(int64_t rc) { return rc == KS_SUCCESS || rc <= 0 || rc == 2; }

// ---------------------------------------------------------------- family: record and memory
uint64_t plannedSize(int32_t w, int32_t h, int32_t bpp) {
    if (w <= 0 || h <= 0 || bpp <= 0) return 0;
    return ((uint64_t(w) * uint64_t(bpp) + 31) / 32) * 4 * uint64_t(h);
}
// Keeps the script's allocations small: a large image may only be asked for
// with types that cannot spill to tiles or disk (and the cap refuses it).
uint32_t safeType(uint32_t t, int32_t w, int32_t h, int32_t bpp) {
    if (plannedSize(w, h, bpp) > kMaxData) return 265;
    return t;
}

void opInit(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const uint32_t sw = c.pick(kSizeWords);
    const int32_t w = c.pick(kDims), h = c.pick(kDims), b = c.pick(kDepths);
    // Initialising a record that still owns something (storage, palette,
    // region, callbacks) drops it: a caller's fault, not tried here.
    if (r && (isSlot(c, r) || r == &c.foreign) && ((r->uFlags & BRF_ALLOCATED) || r->pPalette || r->hRgn || r->pLUT || r->pExtraData || r->pDitherState ||
                              (krn::isCurrentLayout(r) && r->pCallbacks)))
        return;
    int64_t rc = K_InitBitmap(r, sw, w, h, b);
    if (rc != KS_SUCCESS && rc >= 0) fail(c.op, "odd status");
}
void opCreate(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const uint32_t sw = c.byte() < 200 ? BITMAPRECORD_SIZE : c.pick(kSizeWords);
    uint32_t t = c.pick(kMemTypes);
    const int32_t w = c.pick(kDims), h = c.pick(kDims), b = c.pick(kDepths);
    const int32_t order = c.byte() % 9 - 1, vp = c.byte() % 10;
    t = safeType(t, w, h, b);
    // Creating over a record that owns something would drop it (a caller's
    // fault): free it first.
    if (r && isSlot(c, r)) freeSlot(c, int(r - c.bm));
    if (r == &c.foreign) K_FreeBitmap(r);
    if (t == 2) {
        // Caller memory: attach a buffer of the planned size or a hostile one.
        const uint64_t need = plannedSize(w, h, b);
        auto& mem = c.caller[r && isSlot(c, r) ? r - c.bm : 0];
        const uint64_t have = c.byte() & 1 ? need : c.size64() % (kMaxData + 1);
        if (!r || !isSlot(c, r) || have > kMaxData) return;
        if (!mem.empty()) c.keep.push_back(std::move(mem));  // the record may still point there
        mem.assign(size_t(have), 0x5A);
        check(c, {r}, [&] {
            return K_CreateBitmap(r, sw, 2, w, h, b, order, nullptr, vp, mem.empty() ? nullptr : mem.data(),
                                  have);
        }, 1);
        return;
    }
    check(c, {r}, [&] { return K_CreateBitmap(r, sw, t, w, h, b, order, nullptr, vp, nullptr, 0); }, 1);
}
void opAllocate(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    uint32_t t = c.pick(kMemTypes);
    if (!r || t == 2) return;
    if (r->uFlags & BRF_ALLOCATED) return;
    t = safeType(t, r->nWidth, r->nHeight, r->nBitsPerPixel);
    if (!krn::recordSizeValid(r->uStructSize) || krn::dataSize(r) > kMaxData) t = 265;
    check(c, {r}, [&] { return K_AllocateBitmap(r, t); });
}
void opFree(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    if (r == &c.foreign) return;  // garbage bytes: freeing them is the caller's fault
    int64_t rc = K_FreeBitmap(r);
    if (rc < 0 && r && isSlot(c, r) && krn::recordSizeValid(r->uStructSize) && (r->uFlags & BRF_ALLOCATED) &&
        !(krn::isCurrentLayout(r) && r->nLockCount > 0))
        fail(c.op, "free of an allocated record failed");
    if (r && isSlot(c, r) && !(r->uFlags & BRF_ALLOCATED)) c.caller[r - c.bm].clear();
}
void opChangeHeight(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    int32_t h = c.byte() < 128 ? int32_t(c.byte() % 70) : c.pick(kDims);
    if (r && isSlot(c, r) && plannedSize(r->nWidth, h, r->nBitsPerPixel) > kMaxData) h = -1;
    check(c, {r}, [&] { return K_ChangeBitmapHeight(r, h); });
}
void opSetDataPointer(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    if (!r || !isSlot(c, r)) return;
    const int s = int(r - c.bm);
    const uint64_t want = c.size64();
    std::vector<uint8_t> fresh(size_t(want % (kMaxData + 1)), 0x33);
    const bool nullData = c.byte() > 230;
    const int64_t rc =
        check(c, {r}, [&] { return K_SetBitmapDataPointer(r, nullData ? nullptr : fresh.data(), want); });
    // The record may now point at `fresh`, or still at its earlier caller
    // memory: both stay alive until the script ends.
    (void)rc;
    (void)s;
    c.keep.push_back(std::move(fresh));
}
void opAccess(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    check(c, {r}, [&] { return K_AccessBitmap(r); });
}
void opRelease(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    check(c, {r}, [&] { return K_ReleaseBitmap(r); });
}
void opIntAccessRelease(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    int32_t accessed = 0;
    const bool nullOut = c.byte() > 240;
    const int32_t status = c.i32();
    int64_t rc = check(c, {r}, [&] { return K_IntAccessBitmap(r, nullOut ? nullptr : &accessed); });
    // The release hands back the status it is given (after releasing), so it
    // is not a failing call when that status is negative.
    if (rc == KS_SUCCESS) {
        K_IntReleaseBitmap(r, accessed, status);
        if (isSlot(c, r)) validate(r, c.op);
    }
}
void opMemoryInfo(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    uint32_t t;
    uint64_t ts;
    int32_t count, disk;
    const uint8_t mask = c.byte();
    check(c, {r}, [&] {
        return K_GetBitmapMemoryInfo(r, mask & 1 ? &t : nullptr, mask & 2 ? &ts : nullptr, mask & 4 ? &count : nullptr,
                                     mask & 8 ? &disk : nullptr);
    });
}
void opSetMemoryInfo(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    uint32_t t = c.pick(kMemTypes);
    uint64_t ts = c.size64();
    // Disk kinds on a large record would write files: only small ones move.
    if (r && krn::dataSize(r) > kMaxData) t = 1;
    check(c, {r}, [&] { return K_SetBitmapMemoryInfo(r, t, ts); });
}
void opCompression(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const int32_t mode = c.i32();
    if (c.byte() & 1) check(c, {r}, [&] { return K_ChangeBitmapCompression(r, mode); });
    else check(c, {r}, [&] { return K_ToggleBitmapCompression(r); });
}
void opRelabel(Ctx& c) {
    // The same record presented in the other layout (or with a broken size
    // word) to the next call; the size word is put back after that call.
    c.relabel(c.slot());
}
void opManageMemory(Ctx& c) {
    const int32_t cmd = c.byte() % 8 - 1;
    int64_t v = int64_t(c.size64());
    if (c.byte() & 1) v = -v;
    int64_t out = 0;
    const bool nullOut = c.byte() > 220;
    if (cmd == MANAGEMEMORY_RESERVE || cmd == MANAGEMEMORY_RELEASE) return;  // would move the counter
    int64_t rc = K_ManageMemory(cmd, v, nullOut ? nullptr : &out);
    if (!isStatus(rc)) fail(c.op, "odd status");
    K_ManageMemory(MANAGEMEMORY_SET_CAP, kCap, nullptr);  // the script's cap stays
}
void opThresholds(Ctx& c) {
    const int32_t a = c.i32(), b = c.i32(), t = c.i32(), d = c.i32(), e = c.i32();
    const uint32_t f = c.u32v();
    K_SetMemoryThresholds(a, b, t, d, e, f);
    int32_t o[5];
    const uint8_t mask = c.byte();
    K_GetMemoryThresholds(mask & 1 ? &o[0] : nullptr, mask & 2 ? &o[1] : nullptr, mask & 4 ? &o[2] : nullptr,
                          mask & 8 ? &o[3] : nullptr, mask & 16 ? &o[4] : nullptr);
    K_SetDefaultMemoryType(c.pick(kMemTypes));
    GLOBALMEMORYTHRESHOLDS g{};
    K_GetGlobalMemoryThresholds(c.byte() > 240 ? nullptr : &g);
    g.uStructSize = c.byte() < 200 ? GLOBALMEMORYTHRESHOLDS_SIZE : c.u32v();
    K_SetGlobalMemoryThresholds(c.byte() > 240 ? nullptr : &g);
}
void opDataCallbacks(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = c.byte() < 200 ? BITMAPDATACALLBACKS_SIZE : c.u32v();
    const bool get = c.byte() & 1;
    if (get) check(c, {r}, [&] { return K_GetBitmapDataCallbacks(r, c.byte() > 240 ? nullptr : &cb); });
    else check(c, {r}, [&] { return K_SetBitmapDataCallbacks(r, c.byte() > 200 ? nullptr : &cb); });
}

// ---------------------------------------------------------------- family: rows
void opRows(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    size_t size;
    uint8_t* b = c.buffer(&size);
    const uint8_t which = c.byte() % 6;
    const int32_t row = c.byte() < 200 ? int32_t(c.byte() % 70) : c.i32();
    const int32_t col = c.byte() < 200 ? int32_t(c.byte() % 70) : c.i32();
    uint32_t bytes = c.byte() < 200 ? uint32_t(c.byte()) * 8 : c.u32v();
    if (bytes > size && c.byte() < 250) bytes = uint32_t(size);  // a lying size now and then is the caller's fault
    if (bytes > size) return;
    switch (which) {
        case 0: check(c, {r}, [&] { return K_GetBitmapRow(r, b, row, bytes); }); break;
        case 1: check(c, {r}, [&] { return K_PutBitmapRow(r, b, row, bytes); }); break;
        case 2: check(c, {r}, [&] { return K_GetBitmapRowCol(r, b, row, col, bytes); }); break;
        case 3: check(c, {r}, [&] { return K_PutBitmapRowCol(r, b, row, col, bytes); }); break;
        case 4: {
            int32_t seg[8];
            const int32_t count = c.byte() % 5;
            for (int k = 0; k < 2 * count; ++k) seg[k] = c.coord();
            // The row buffer must cover the record's row: the caller's duty.
            if (!r || !b || size < (r->uFlags & BRF_ALLOCATED ? r->nBytesPerLine : 0)) return;
            check(c, {r}, [&] { return K_PutBitmapRowSegments(r, b, row, seg, count); });
            break;
        }
        default: {
            // The compressed forms on a record: work and run buffers sized by
            // the caller for nPixels (runs take at most 2 bytes per pixel + 4).
            const int32_t pixels = c.byte() < 200 ? int32_t(c.byte()) : c.i32();
            if (!b || pixels < 0 || uint64_t(pixels) / 8 + 1 > size || uint64_t(pixels) * 2 + 8 > kBuf) return;
            std::vector<uint8_t> runs(size_t(pixels) * 2 + 8);
            // The work buffer holds one row of the record (the caller's duty); a
            // record the script cannot size gets none (the library makes its own).
            const bool sized = r && isSlot(c, r) && (r->uFlags & BRF_ALLOCATED);
            std::vector<uint8_t> work(std::max<size_t>(size_t(pixels) / 8 + 8, sized ? r->nBytesPerLine : 0));
            uint8_t* const workp = sized || !r ? work.data() : nullptr;
            const bool put = c.byte() & 1;
            if (put) K_CompressRow(runs.data(), b, 0, pixels);
            const uint8_t form = c.byte() & 1;
            if (put && form) check(c, {r}, [&] { return K_PutBitmapRowColCompressed(r, workp, runs.data(), row, col, pixels); });
            else if (put) check(c, {r}, [&] { return K_PutBitmapRowCompressed(r, workp, runs.data(), row, pixels); });
            else if (form) check(c, {r}, [&] { return K_GetBitmapRowColCompressed(r, workp, runs.data(), row, col, pixels); });
            else check(c, {r}, [&] { return K_GetBitmapRowCompressed(r, workp, runs.data(), row, pixels); });
        }
    }
}
void opFill(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const uint8_t which = c.byte() % 3;
    const uint32_t colour = c.u32v();
    const uint64_t raw = uint64_t(c.u32()) << 32 | c.u32();
    if (which == 0) check(c, {r}, [&] { return K_FillBitmap(r, colour); });
    else if (which == 1) check(c, {r}, [&] { return K_FillBitmap2(r, raw); });
    else check(c, {r}, [&] { return K_ClearBitmap(r); });
}

// ---------------------------------------------------------------- family: palettes
void opPalette(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    BITMAPRECORD* s = c.rec();
    RGBQUAD pal[256];
    for (auto& q : pal) q = RGBQUAD{c.byte(), c.byte(), c.byte(), 0};
    const int32_t n = c.byte() < 200 ? int32_t(c.byte() % 257) : c.i32();
    const int32_t index = c.byte() < 200 ? int32_t(c.byte() % 260) : c.i32();
    const bool nullPal = c.byte() > 230;
    const RGBQUAD* pp = nullPal ? nullptr : pal;
    if (n > 256 || (index >= 0 && n >= 0 && int64_t(index) + n > 256 && c.byte() < 250)) return;
    uint32_t u = 0;
    switch (c.byte() % 11) {
        case 0: check(c, {r}, [&] { return K_SetBitmapPalette(r, pp, n); }); break;
        case 1: check(c, {r, s}, [&] { return K_CopyBitmapPalette(r, s); }); break;
        case 2: check(c, {r}, [&] { return K_CreateBitmapFixedPalette(r); }); break;
        case 3: check(c, {r}, [&] { return K_CreateBitmapGrayPalette(r); }); break;
        case 4: check(c, {r}, [&] { return K_GetBitmapColors(r, index, n, nullPal ? nullptr : pal); }); break;
        case 5: check(c, {r}, [&] { return K_PutBitmapColors(r, index, n, pp); }); break;
        case 6: check(c, {r}, [&] { return K_CompareBitmapToPalette(r, pp, n); }); break;
        case 7: check(c, {r}, [&] { return K_GetTrueColorValue(r, c.u32v(), c.byte() > 240 ? nullptr : &u); }); break;
        case 8: check(c, {r, s}, [&] { return K_TranslateBitmapColor(r, s, c.u32v(), c.byte() > 240 ? nullptr : &u); }); break;
        case 9: {
            int32_t count = 0;
            check(c, {r}, [&] { return K_GetBitmapPaletteEntries(r, nullPal ? nullptr : pal, n < 0 ? n : std::min(n, 256), &count); });
            break;
        }
        default: check(c, {r}, [&] { return K_IntIsGrayScaleBitmap(r); }); break;
    }
}
void opPaletteHelpers(Ctx& c) {
    RGBQUAD pal[256];
    for (auto& q : pal) q = RGBQUAD{c.byte(), c.byte(), c.byte(), 0};
    const int32_t bits = c.pick(kDepths);
    const int32_t n = c.byte() < 220 ? int32_t(c.byte() % 257) : c.i32();
    const bool nullPal = c.byte() > 230;
    if (n > 256) return;
    switch (c.byte() % 8) {
        case 0: K_GetFixedPalette(nullPal ? nullptr : pal, bits > 8 ? bits : std::min(bits, 8)); break;
        case 1: K_IntGetFixedPalette(bits); break;
        case 2: if (RGBQUAD* g = K_CreateGrayPalette(bits)) K_GlobalFree(g); break;
        case 3: if (RGBQUAD* g = K_CreateFixedPalette(bits)) K_GlobalFree(g); break;
        case 4: if (RGBQUAD* g = K_DupPalette(nullPal ? nullptr : pal, n)) K_GlobalFree(g); break;
        case 5: K_FindPaletteIndex(nullPal ? nullptr : pal, n, c.i32(), c.i32(), c.i32()); break;
        case 6: K_IsGrayScalePalette(nullPal ? nullptr : pal, n); break;
        default: {
            uint32_t* t = K_CreateUserMatchTable(nullPal ? nullptr : pal, n);
            if (t) {
                uint32_t* old = K_SetUserMatchTable(t);
                K_GetUserMatchTable();
                K_SetUserMatchTable(old);
                K_FreeUserMatchTable(t);
            }
            K_FreeUserMatchTable(nullptr);
        }
    }
}

// ---------------------------------------------------------------- family: conversion and dithering
void opConvert(Ctx& c) {
    size_t size;
    uint8_t* b = c.buffer(&size);
    const int32_t w = c.byte() < 200 ? int32_t(c.byte()) : c.i32();
    const int32_t bs = c.pick(kDepths), bd = c.pick(kDepths);
    const int32_t os = c.byte() % 9 - 1, od = c.byte() % 9 - 1;
    const uint32_t flags = c.byte() < 200 ? 0 : c.u32v();
    const int32_t lo = c.byte() % 20 - 2, hi = c.byte() % 20 - 2;
    // The buffer must hold the wider of the two rows: the caller's duty.
    const uint32_t need = K_CalcConvertSize(w, bs, w, bd);
    // (0 also answers a row beyond 32 bits: such a width is no buffer's.)
    if (!b || need > size || (need == 0 && w > 0)) {
        K_CalcConvertSize(c.i32(), c.i32(), c.i32(), c.i32());
        return;
    }
    const RGBQUAD* fixed = K_IntGetFixedPalette(8);
    if (c.byte() & 1) K_ConvertBuffer(b, w, bs, bd, os, od, nullptr, c.byte() & 1 ? fixed : nullptr);
    else K_ConvertBufferExt(b, w, bs, bd, os, od, fixed, nullptr, flags, lo, hi);
}
void opDither(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const uint8_t which = c.byte() % 4;
    const RGBQUAD* pal = c.byte() < 200 ? K_IntGetFixedPalette(8) : nullptr;
    const uint32_t colours = c.byte() < 200 ? c.byte() : c.u32v();
    if (which == 0) {
        check(c, {r}, [&] { return K_StartDithering(r, pal, colours); });
    } else if (which == 1) {
        check(c, {r}, [&] { return K_StartDitheringExt(r, pal, colours, c.pick(kDepths), nullptr); });
    } else if (which == 2) {
        // Rows of the record's width in 24 bits in and in its depth out.
        if (!r || !isSlot(c, r) || r->nWidth <= 0 || r->nWidth > 1000) return;
        std::vector<uint8_t> in(size_t(r->nWidth) * 8 + 16, 0x77), out(size_t(r->nWidth) * 8 + 16);
        check(c, {r}, [&] { return K_DitherLine(r, in.data(), out.data()); });
    } else {
        check(c, {r}, [&] { return K_StopDithering(r); });
    }
    K_DefaultDithering(c.byte() < 200 ? c.byte() % 8 : c.i32());
    K_GetDefaultDithering();
}
void opRuns(Ctx& c) {
    // The compressed-row helpers on caller buffers sized for their pixels.
    const int32_t pixels = c.byte() < 220 ? int32_t(c.byte()) * 4 : c.i32();
    const int32_t first = c.byte() % 16;
    if (pixels < 0 || pixels > 2000) {
        K_CompressRow(nullptr, nullptr, first, pixels);
        K_ExpandRow(nullptr, nullptr, first, pixels);
        return;
    }
    std::vector<uint8_t> src(size_t(pixels + first) / 8 + 8), runs(size_t(pixels) * 2 + 16), dst(src.size());
    for (auto& b : src) b = c.byte();
    int32_t len = K_CompressRow(runs.data(), src.data(), first, pixels);
    if (len > int32_t(runs.size())) fail(c.op, "compressed row longer than its bound");
    if (len >= 0) K_ExpandRow(runs.data(), dst.data(), first, pixels);
}

// ---------------------------------------------------------------- family: regions
void opOrvaRgn(Ctx& c) {
    OrvaRgn** slot = c.rgnSlot();
    switch (c.byte() % 9) {
        case 0:
            if (*slot) K_DeleteOrvaRgn(*slot), *slot = nullptr;
            K_CreateOrvaRgnRect(c.byte() > 240 ? nullptr : slot, c.rectp());
            break;
        case 1: {
            OrvaRgn* src = c.rgnOrNull();
            if (*slot == src) return;
            if (*slot) K_DeleteOrvaRgn(*slot), *slot = nullptr;
            K_CopyOrvaRgn(slot, src);
            break;
        }
        case 2: K_OffsetOrvaRgn(*slot, c.i32(), c.i32()); break;
        case 3: {
            OrvaRgn* a = c.rgnOrNull();
            OrvaRgn* b = c.rgnOrNull();
            OrvaRgn* out = nullptr;
            if (K_CombineOrvaRgn(&out, a, b, c.byte() % 8 - 1) >= 0 && out) {
                if (*slot) K_DeleteOrvaRgn(*slot);
                *slot = out;
            }
            break;
        }
        case 4: {
            int32_t x1, x2;
            K_IsPtInOrvaRgn(*slot, c.coord(), c.coord(), &x1, &x2);
            RECT b;
            K_GetOrvaRgnBounds(*slot, c.byte() > 240 ? nullptr : &b);
            break;
        }
        case 5: K_ClipOrvaRgnRect(*slot, c.rectp()); break;
        case 6: K_ScaleOrvaRgn(*slot, c.i32(), c.i32(), c.i32(), c.i32()); break;
        case 7: {
            POINT pts[8];
            uint8_t flags[8];
            const int32_t count = c.byte() < 220 ? c.byte() % 9 : c.i32();
            for (int k = 0; k < 8; ++k) pts[k] = POINT{c.coord(), c.coord()}, flags[k] = c.byte();
            if (count > 8) return;
            OrvaRgn* out = nullptr;
            if (K_SegmentsToRegion(&out, pts, flags, count, c.byte() % 4) >= 0 && out) {
                if (*slot) K_DeleteOrvaRgn(*slot);
                *slot = out;
            }
            break;
        }
        default: {
            HRGN h = c.handle();
            OrvaRgn* out = nullptr;
            if (K_ConvertHandleToRgn(h, &out) >= 0 && out) {
                if (*slot) K_DeleteOrvaRgn(*slot);
                *slot = out;
            }
        }
    }
}
void opHrgn(Ctx& c) {
    const int h = c.byte() % kHandles;
    auto put = [&](HRGN v) {
        if (!v) return;
        if (c.hrgnLive[h]) DeleteObject(c.hrgn[h]);
        c.hrgn[h] = v;
        c.hrgnLive[h] = true;
    };
    switch (c.byte() % 12) {
        case 0: put(CreateRectRgn(c.coord(), c.coord(), c.coord(), c.coord())); break;
        case 1: put(CreateEllipticRgn(c.coord(), c.coord(), c.coord(), c.coord())); break;
        case 2: {
            POINT pts[8];
            for (auto& q : pts) q = POINT{c.coord(), c.coord()};
            const int32_t count = c.byte() < 220 ? c.byte() % 9 : c.i32();
            if (count <= 8) put(CreatePolygonRgn(c.byte() > 240 ? nullptr : pts, count, c.byte() % 4));
            break;
        }
        case 3: CombineRgn(c.handle(), c.handle(), c.handle(), c.byte() % 8 - 1); break;
        case 4: OffsetRgn(c.handle(), c.i32(), c.i32()); break;
        case 5: {
            RECT b;
            GetRgnBox(c.handle(), c.byte() > 240 ? nullptr : &b);
            PtInRegion(c.handle(), c.coord(), c.coord());
            break;
        }
        case 6: {
            // Region data out and back in through ExtCreateRegion.
            HRGN src = c.handle();
            uint32_t need = GetRegionData(src, 0, nullptr);
            if (need == 0 || need > kBuf * 4) return;
            std::vector<uint8_t> data(need);
            uint32_t given = c.byte() < 230 ? need : c.u32v() % (need + 1);
            if (GetRegionData(src, given, reinterpret_cast<RGNDATA*>(data.data())) == 0) return;
            if (c.byte() & 1 && need > 40) data[c.byte() % need] ^= c.byte();  // a damaged copy
            uint32_t back = c.byte() < 230 ? need : c.u32v();
            if (back > need) back = need;
            put(ExtCreateRegion(nullptr, back, reinterpret_cast<const RGNDATA*>(data.data())));
            break;
        }
        case 7: SetRectRgn(c.handle(), c.coord(), c.coord(), c.coord(), c.coord()); break;
        case 8:
            if (c.hrgnLive[h]) {
                if (!DeleteObject(c.hrgn[h])) fail(c.op, "delete of a live region failed");
                c.hrgnLive[h] = false;  // the value stays: a freed handle from now on
            } else {
                HRGN g = c.handle();
                if (DeleteObject(g)) c.forget(g);
            }
            break;
        case 9: {
            uint8_t out[64];
            const int32_t n = c.byte() < 200 ? c.byte() % 65 : c.i32();
            if (n <= 64) GetObject(c.handle(), n, c.byte() > 240 ? nullptr : out);
            break;
        }
        case 10: {
            HRGN v = nullptr;
            if (K_WinCreateRectRgn(c.byte() > 240 ? nullptr : &v, c.coord(), c.coord(), c.coord(), c.coord()) ==
                KS_SUCCESS)
                put(v);
            break;
        }
        default:
            if (c.hrgnLive[h]) {
                K_WinDeleteObject(c.hrgn[h]);
                c.hrgnLive[h] = false;
            } else {
                HRGN g = c.handle();
                if (K_WinDeleteObject(g) == KS_SUCCESS) c.forget(g);
            }
    }
}
void opBitmapRgn(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const RGNXFORM* xf = c.xform();
    const uint32_t mode = c.byte() < 220 ? c.byte() % 7 : c.u32v();
    const int which = c.byte() % 16;
    if (std::getenv("FUZZ_API_TRACE")) std::fprintf(stderr, "  bitmap region case %d mode %u\n", which, mode);
    switch (which) {
        case 0: {
            // Ownership passes to the call (freed also on failure).
            OrvaRgn** slot = c.rgnSlot();
            OrvaRgn* g = *slot;
            *slot = nullptr;
            check(c, {r}, [&] { return K_SetBitmapRgn(r, xf, g, mode); });
            break;
        }
        case 1: check(c, {r}, [&] { return K_SetBitmapRgnRect(r, xf, c.rectp(), mode); }); break;
        case 2: check(c, {r}, [&] { return K_SetBitmapRgnEllipse(r, xf, c.rectp(), mode); }); break;
        case 3: {
            POINT pts[8];
            for (auto& q : pts) q = POINT{c.coord(), c.coord()};
            const uint32_t count = c.byte() < 220 ? c.byte() % 9 : c.u32v();
            if (count > 8) return;
            check(c, {r}, [&] { return K_SetBitmapRgnPolygon(r, xf, pts, count, c.byte() % 4, mode); });
            break;
        }
        case 4: check(c, {r}, [&] { return K_SetBitmapRgnHandle(r, xf, c.handle(), mode); }); break;
        case 5: {
            BITMAPRECORD* m = c.rec();
            check(c, {r, m}, [&] { return K_SetBitmapRgnFromMask(r, xf, m, mode); });
            break;
        }
        case 6: check(c, {r}, [&] { return K_SetBitmapRgnColor(r, c.u32v(), mode); }); break;
        case 7: {
            check(c, {r}, [&] { return K_BitmapHasRgn(r); });
            uint64_t area;
            check(c, {r}, [&] { return K_GetBitmapRgnArea(r, c.byte() > 240 ? nullptr : &area); });
            RECT b;
            check(c, {r}, [&] { return K_GetBitmapRgnBounds(r, xf, c.byte() > 240 ? nullptr : &b); });
            check(c, {r}, [&] { return K_IsPtInBitmapRgn(r, c.coord(), c.coord()); });
            break;
        }
        case 8: {
            uint32_t mx = 0;
            check(c, {r}, [&] { return K_GetBitmapClipSegmentsMax(r, &mx); });
            std::vector<int32_t> seg(size_t(std::min<uint32_t>(mx, 4096)) * 2 + 2);
            uint32_t count = uint32_t(seg.size() / 2);
            if (c.byte() > 220) count = c.byte() % 3;  // too small: refused with the needed count
            check(c, {r}, [&] { return K_GetBitmapClipSegments(r, c.coord(), seg.data(), &count); });
            break;
        }
        case 9: check(c, {r}, [&] { return K_OffsetBitmapRgn(r, c.i32(), c.i32()); }); break;
        case 10: check(c, {r}, [&] { return K_SizeBitmapRgn(r, c.i32(), c.i32()); }); break;
        case 11:
            if (c.byte() & 1) check(c, {r}, [&] { return K_FlipBitmapRgn(r); });
            else check(c, {r}, [&] { return K_ReverseBitmapRgn(r); });
            break;
        case 12: {
            HRGN v = nullptr;
            if (check(c, {r}, [&] { return K_GetBitmapRgnHandle(r, xf, c.byte() > 240 ? nullptr : &v); }) ==
                    KS_SUCCESS &&
                v) {
                const int h = c.byte() % kHandles;
                if (c.hrgnLive[h]) DeleteObject(c.hrgn[h]);
                c.hrgn[h] = v;
                c.hrgnLive[h] = true;
            }
            break;
        }
        case 13: {
            int32_t need = 0;
            check(c, {r}, [&] { need = K_GetBitmapRgnData(r, xf, 0, nullptr); return int64_t(0); });
            if (need <= 0 || need > int32_t(kBuf) * 8) return;
            std::vector<uint8_t> data(static_cast<size_t>(need) + 0);
            const int32_t given = c.byte() < 220 ? need : int32_t(c.u32v() % uint32_t(need + 1));
            check(c, {r}, [&] { return K_GetBitmapRgnData(r, xf, given, reinterpret_cast<RGNDATA*>(data.data())); });
            BITMAPRECORD* d = c.rec();
            const int32_t back = c.byte() < 220 ? need : c.i32();
            if (back > need) return;
            check(c, {d}, [&] { return K_SetBitmapRgnData(d, xf, back, reinterpret_cast<const RGNDATA*>(data.data()), mode); });
            break;
        }
        case 14: {
            BITMAPRECORD* m = c.rec();
            // The mask record is made afresh: one that owns something is freed first.
            // (A mask as large as a huge source would only slow the run down.)
            if (m == r || (r && plannedSize(r->nWidth, r->nHeight, 1) > kMaxData)) return;
            if (m && isSlot(c, m)) freeSlot(c, int(m - c.bm));
            if (m == &c.foreign) K_FreeBitmap(m);
            const uint32_t sw = c.byte() < 200 ? BITMAPRECORD_SIZE : c.pick(kSizeWords);
            check(c, {r, m}, [&] { return K_CreateMaskFromBitmapRgn(r, m, sw); }, 2);
            break;
        }
        default: {
            BITMAPRECORD* s = c.rec();
            // The destination's region pointer is cleared without being
            // freed (destinations come without one): a caller's duty.
            if (r && r->hRgn) return;
            check(c, {r, s}, [&] { return K_CopyBitmapRgn(r, s, c.i32(), c.i32()); });
            if (c.byte() & 1) check(c, {r}, [&] { return K_FreeBitmapRgn(r); });
        }
    }
}

// ---------------------------------------------------------------- family: view perspective and rectangles
void opViewPerspective(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const int32_t from = c.byte() < 200 ? c.byte() % 10 : c.i32();
    const int32_t to = c.byte() < 200 ? c.byte() % 10 : c.i32();
    const int32_t w = c.i32(), h = c.i32();
    RECT* rp = c.rectp();
    int32_t x = c.coord(), y = c.coord();
    RECT keep = rp ? *rp : RECT{};
    const int32_t kx = x, ky = y;
    int64_t rc = 0;
    bool isRect = true;
    switch (c.byte() % 7) {
        case 0: {
            int32_t f, a;
            rc = K_GetChangeViewPerspectiveParams(from, to, c.byte() > 240 ? nullptr : &f, &a);
            break;
        }
        case 1: rc = K_ChangeRectViewPerspective(from, w, h, to, rp); break;
        case 2: rc = K_ChangePointViewPerspective(from, w, h, to, &x, &y), isRect = false; break;
        case 3: rc = check(c, {r}, [&] { return K_RectToBitmap(r, to, rp); }); break;
        case 4: rc = check(c, {r}, [&] { return K_RectFromBitmap(r, to, rp); }); break;
        case 5: rc = check(c, {r}, [&] { return K_PointToBitmap(r, to, &x, &y); }), isRect = false; break;
        default: rc = check(c, {r}, [&] { return K_PointFromBitmap(r, to, &x, &y); }), isRect = false; break;
    }
    if (rc < 0 && isRect && rp && std::memcmp(rp, &keep, sizeof keep) != 0) fail(c.op, "refused but changed the rectangle");
    if (rc < 0 && !isRect && (x != kx || y != ky)) fail(c.op, "refused but changed the point");
}
void opRects(Ctx& c) {
    RECT a{c.coord(), c.coord(), c.coord(), c.coord()}, b{c.coord(), c.coord(), c.coord(), c.coord()}, d{};
    POINT p{c.coord(), c.coord()};
    const int32_t dx = c.i32(), dy = c.i32();
    const RECT keep = a;
    switch (c.byte() % 14) {
        case 0: IntersectRect(&d, &a, &b); break;
        case 1: UnionRect(&d, &a, &b); break;
        case 2:
            if (!InflateRect(&a, dx, dy) && std::memcmp(&a, &keep, sizeof a)) fail(c.op, "refused but changed");
            break;
        case 3:
            if (!OffsetRect(&a, dx, dy) && std::memcmp(&a, &keep, sizeof a)) fail(c.op, "refused but changed");
            break;
        case 4: PtInRect(&a, p), IsRectEmpty(&a), EqualRect(&a, &b), SetRectEmpty(&d), CopyRect(&d, &a); break;
        case 5: SetRect(c.byte() > 240 ? nullptr : &d, dx, dy, c.i32(), c.i32()); break;
        case 6: K_Rect_Inflate(&a, dx, dy); break;
        case 7: K_Rect_Offset(&a, dx, dy); break;
        case 8: K_Rect_Intersect(&d, &a, &b), K_Rect_IntersectsWith(&a, &b), K_Rect_Union(&d, &a, &b); break;
        case 9: K_Rect_Width(&a), K_Rect_Height(&a), K_Rect_Size(&a), K_Rect_ContainsPoint(&a, &p); break;
        case 10: K_Rect_ContainsRect(&a, &b), K_Rect_Make(dx, dy, c.i32(), c.i32()); break;
        case 11: K_Point_Offset(&p, dx, dy), K_Rect_BottomRight(&a), K_Rect_ToRectD(&a); break;
        case 12: K_Rect_IsEmpty(nullptr), K_Rect_Width(nullptr), K_Rect_Intersect(nullptr, &a, nullptr); break;
        default: K_SinValue(c.i32()), K_CosValue(c.i32()); break;
    }
}

// ---------------------------------------------------------------- family: runtime services
void opGlobal(Ctx& c) {
    const int h = c.byte() % kHandles;
    switch (c.byte() % 6) {
        case 0: {
            HGLOBAL g = K_GlobalAlloc(c.byte() < 200 ? c.byte() % 0x50 : c.u32v(), size_t(c.size64()) % (1u << 20));
            if (!g) return;
            if (c.globLive[h]) K_GlobalFree(c.glob[h]);
            c.glob[h] = g;
            c.globLive[h] = true;
            break;
        }
        case 1: {
            HGLOBAL g = c.ghandle();
            const size_t sz = size_t(c.size64());
            HGLOBAL n = K_GlobalReAlloc(g, sz > (1u << 20) && c.byte() < 250 ? sz % (1u << 20) : sz, c.u32v());
            if (n && n != g) {
                for (int k = 0; k < kHandles; ++k)
                    if (c.glob[k] == g && c.globLive[k]) c.glob[k] = n;
            }
            break;
        }
        case 2:
            if (c.globLive[h]) {
                if (K_GlobalFree(c.glob[h]) != nullptr) fail(c.op, "free of a live block failed");
                c.globLive[h] = false;
            } else {
                HGLOBAL g = c.ghandle();
                if (K_GlobalFree(g) == nullptr) c.forget(g);
            }
            break;
        case 3: {
            HGLOBAL g = c.ghandle();
            if (void* p = K_GlobalLock(g)) {
                const size_t s = K_GlobalSize(g);
                if (s) static_cast<volatile uint8_t*>(p)[s - 1] = 1;  // the whole size is usable
                K_GlobalUnlock(g);
            }
            break;
        }
        case 4: K_GlobalUnlock(c.ghandle()), K_GlobalSize(c.ghandle()); break;
        default: {
            wchar_t msg[64], lib[64];
            const uint32_t chars = c.byte() < 220 ? c.byte() % 65 : c.u32v();
            if (chars <= 64) K_GetFriendlyErrorMessage(c.i32(), c.byte() > 240 ? nullptr : msg, chars, lib);
            int32_t id, known;
            K_GetLibIdFromErrorCode(c.i32(), &id, c.byte() > 240 ? nullptr : &known);
        }
    }
}
void opMisc(Ctx& c) {
    switch (c.byte() % 8) {
        case 0: K_SetDefaultXResolution(c.i32()), K_SetDefaultYResolution(c.i32()); break;
        case 1: {
            uint32_t hsv[3] = {c.u32v(), c.u32v(), c.u32v()};
            K_HSVtoRGB2(hsv);
            K_RGBtoHSV2(c.u32v(), c.byte() > 240 ? nullptr : hsv);
            K_HSVtoRGB(c.u32v());
            K_RGBtoHSV(c.u32v());
            break;
        }
        case 2: {
            char src[32];
            wchar_t w[32];
            uint16_t u[32];
            for (auto& ch : src) ch = char(c.byte());
            src[31] = 0;  // a negative length reads up to the terminator
            const int32_t len = c.byte() < 200 ? c.byte() % 33 : c.i32();
            const uint32_t cap = c.byte() % 33;
            uint32_t written;
            if (len > 32) return;
            K_Utf8ToWide(src, len, w, cap, &written);
            K_Utf8ToUtf16(src, len, u, cap, &written);
            break;
        }
        case 3: {
            TEMPFILEOPTIONS o{};
            K_GetTempFileOptions(c.byte() > 240 ? nullptr : &o, c.byte() < 200 ? TEMPFILEOPTIONS_SIZE : c.u32v());
            char dir[64];
            const uint32_t cap = c.byte() % 65;
            K_GetTempDirectoryUtf8(c.byte() > 240 ? nullptr : dir, cap);
            break;
        }
        case 4: {
            STATUSCALLBACK f;
            void* u;
            K_GetStatusCallBack(&f, c.byte() > 240 ? nullptr : &u);
            K_GetCopyStatusCallBack(c.byte() > 240 ? nullptr : &f, &u);
            break;
        }
        case 5: {
            size_t size;
            uint8_t* b = c.buffer(&size);
            const int32_t count = c.byte() < 220 ? c.byte() : c.i32();
            const int32_t lo = c.byte() % 40 - 4, hi = c.byte() % 40 - 4;
            if (!b || count < 0 || uint64_t(count) * 4 > size) return;
            K_Gray32To16(b, b, count, lo, hi);
            K_PadPixelData(b, c.pick(kDepths) % 33, count / 8, hi, lo, c.byte() % 2);
            break;
        }
        case 6: K_GetVersionString(), K_GetProcessorCount(), K_GetCpuFeatures(); break;
        default: K_SetDefaultMemoryType(c.u32v()), K_GetDefaultMemoryType(); break;
    }
}

// ---------------------------------------------------------------- the family tables
// ---------------------------------------------------------------- family: transforms
// A record a call makes afresh (a copy's destination) is treated as output
// only: whatever it held would be dropped, a caller's fault. The slot is
// freed first unless it is also the source.
BITMAPRECORD* outRec(Ctx& c, BITMAPRECORD* src) {
    BITMAPRECORD* d = c.rec();
    if (d && d != src && isSlot(c, d)) freeSlot(c, int(d - c.bm));
    if (d == &c.foreign) return nullptr;
    return d;
}
// Small target sizes, or values every call must refuse.
int32_t targetDim(Ctx& c) {
    const uint8_t b = c.byte();
    if (b < 220) return int32_t(b % 72) + 1;
    const int32_t bad[] = {0, -1, -7, INT32_MIN};
    return bad[b % 4];
}
void opOrient(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const uint8_t which = c.byte() % 10;
    const int32_t v = c.byte() < 200 ? int32_t(c.byte() % 10) : c.i32();
    const int32_t angle = c.byte() < 200 ? int32_t(c.byte() % 4) * 90 : c.i32();
    switch (which) {
        case 0: check(c, {r}, [&] { return K_FlipBitmap(r); }); break;
        case 1: check(c, {r}, [&] { return K_ReverseBitmap(r); }); break;
        case 2: check(c, {r}, [&] { return K_IntFlipBitmap(r); }); break;
        case 3: check(c, {r}, [&] { return K_IntReverseBitmap(r); }); break;
        case 4: check(c, {r}, [&] { return K_FlipBitmapViewPerspective(r); }); break;
        case 5: check(c, {r}, [&] { return K_ReverseBitmapViewPerspective(r); }); break;
        case 6: check(c, {r}, [&] { return K_RotateBitmapViewPerspective(r, angle); }); break;
        case 7: {
            const int32_t from = c.byte() < 200 ? int32_t(c.byte() % 101) : c.i32();
            const int32_t to = c.byte() < 200 ? int32_t(c.byte() % 101) : c.i32();
            check(c, {r}, [&] { return K_RotateBitmap90(r, c.byte() & 1, from, to); });
            break;
        }
        default: {
            // In place (null destination or the source) or into a fresh record.
            BITMAPRECORD* d = c.byte() & 1 ? nullptr : outRec(c, r);
            const uint32_t sw = c.byte() < 220 ? BITMAPRECORD_SIZE : c.pick(kSizeWords);
            const uint32_t out = d && d != r ? 2u : 0u;
            check(c, {r, d}, [&] { return K_ChangeBitmapViewPerspective(d, r, sw, v); }, out);
        }
    }
}
void opBuffers(Ctx& c) {
    size_t size;
    uint8_t* b = c.buffer(&size);
    const int32_t bpp = c.pick(kDepths);
    const uint32_t w = c.byte() < 220 ? uint32_t(c.byte() % 40) : c.u32v();
    const uint32_t h = c.byte() < 220 ? uint32_t(c.byte() % 40) : c.u32v();
    // The buffers must hold the image (the caller's duty, not checkable):
    // sizes are worked out for any depth up to 64 bits, and a call whose
    // buffers would not hold its image is not made.
    const uint64_t bits = bpp > 0 && bpp <= 64 ? uint64_t(bpp) : 64;
    const uint64_t side = w > h ? w : h;
    const uint64_t need = ((side * bits + 31) / 32) * 4 * (side ? side : 1) + 64;
    const uint8_t which = c.byte() % 3;
    if (!b || need > size || need > kBuf / 2) {
        // Refusals only: a null source.
        if (which == 0) (void)K_RotateBuffer90(nullptr, b, 1, w, h, bpp);
        return;
    }
    std::vector<uint8_t> dst(size_t(need) + 64, 0);
    if (which == 0) (void)K_RotateBuffer90(b, dst.data(), c.byte() & 1, w, h, bpp);
    else if (which == 1) (void)K_RotateBuffer180(b, c.byte() & 1 ? b : dst.data(), w, h, bpp);
    else (void)K_MirrorLine(b, w, bpp);
}
void opRotateAny(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const int32_t angle = c.byte() < 200 ? int32_t(c.u32() % 72001) - 36000 : c.i32();
    uint32_t flags = c.byte() < 220 ? (uint32_t(c.byte()) & 0x3Bu) | (uint32_t(c.byte() % 4) << 8) : c.u32v();
    const uint32_t fill = c.u32v();
    const uint8_t which = c.byte() % 3;
    if (which == 0) check(c, {r}, [&] { return K_RotateBitmap(r, angle, flags, fill); });
    else if (which == 1) check(c, {r}, [&] { return K_ShearBitmap(r, angle % 9000, flags, fill); });
    else {
        int32_t w = 0, h = 0;
        (void)K_GetRotatedBitmapSize(r, angle, c.byte() & 1 ? &w : nullptr, &h);
    }
}
void opCopy(Ctx& c) {
    BITMAPRECORD* s = c.rec();
    const uint8_t which = c.byte() % 8;
    const uint32_t sw = c.byte() < 220 ? BITMAPRECORD_SIZE : c.pick(kSizeWords);
    const int32_t col = c.coord(), row = c.coord();
    const uint32_t w = uint32_t(targetDim(c)), h = uint32_t(targetDim(c));
    uint32_t mem = c.pick(kMemTypes);
    if (mem == 2) mem = 1;
    switch (which) {
        case 0: {
            BITMAPRECORD* d = outRec(c, s);
            check(c, {s, d}, [&] { return K_CopyBitmap(d, s, sw); }, d != s ? 2u : 0u);
            break;
        }
        case 1: {
            BITMAPRECORD* d = outRec(c, s);
            check(c, {s, d}, [&] { return K_CopyBitmap2(d, s, sw, mem); }, d != s ? 2u : 0u);
            break;
        }
        case 2: {
            BITMAPRECORD* d = outRec(c, s);
            check(c, {s, d}, [&] { return K_CopyBitmapRect(d, s, sw, col, row, w, h); }, d != s ? 2u : 0u);
            break;
        }
        case 3: {
            BITMAPRECORD* d = outRec(c, s);
            check(c, {s, d}, [&] { return K_CopyBitmapRect2(d, s, sw, col, row, w, h, mem); }, d != s ? 2u : 0u);
            break;
        }
        case 4: {
            BITMAPRECORD* d = outRec(c, s);
            static const uint32_t kCarry[] = {191u, 127u, 67u, 321u, 14u, 5u};
            const uint32_t carry = c.byte() < 200 ? c.pick(kCarry) : c.u32v();
            if (d == s) return;
            check(c, {s, d}, [&] { return K_DupBitmapNewDim(d, s, sw, int32_t(w), int32_t(h), carry); }, 2u);
            break;
        }
        case 5: check(c, {s}, [&] { return K_TrimBitmap(s, col, row, w, h); }); break;
        case 6: check(c, {s}, [&] { return K_ClearNegativePixels(s); }); break;
        default: {
            BITMAPRECORD* d = c.rec();
            check(c, {d, s}, [&] { return K_CopyBitmapData(d, s); });
        }
    }
}
void opCombine(Ctx& c) {
    BITMAPRECORD* d = c.rec();
    BITMAPRECORD* s = c.rec();
    const int32_t xd = c.coord(), yd = c.coord(), w = c.coord(), h = c.coord(), xs = c.coord(), ys = c.coord();
    const uint32_t flags = c.byte() < 230 ? uint32_t(c.u32() & 0xFFFFu) : c.u32v();
    check(c, {d, s}, [&] { return K_CombineBitmapKrn(d, xd, yd, w, h, s, xs, ys, flags); });
}
void opResize(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const uint8_t which = c.byte() % 6;
    const int32_t w = targetDim(c), h = targetDim(c);
    const uint32_t flags = c.byte() < 220 ? uint32_t(c.byte()) & 0x3Fu : c.u32v();
    switch (which) {
        case 0: check(c, {r}, [&] { return K_SizeBitmap(r, w, h, flags); }); break;
        case 1: check(c, {r}, [&] { return K_ResampleBitmap(r, w, h, flags); }); break;
        case 2: check(c, {r}, [&] { return K_BicubicResampleBitmap(r, w, h, flags); }); break;
        default: {
            // Into a destination record the caller prepared (its size names the target).
            BITMAPRECORD* d = c.rec();
            if (!d || d == r || d == &c.foreign) return;
            if (isSlot(c, d)) freeSlot(c, int(d - c.bm));
            const int32_t bpp = r && krn::recordSizeValid(r->uStructSize) ? r->nBitsPerPixel : 8;
            if (K_InitBitmap(d, BITMAPRECORD_SIZE, w > 0 ? w : 1, h > 0 ? h : 1, bpp) != KS_SUCCESS) return;
            if (which == 3) check(c, {r, d}, [&] { return K_ResizeBitmap(r, d, flags); }, 2u);
            else if (which == 4) check(c, {r, d}, [&] { return K_IntResizeBitmap(r, d, flags); }, 2u);
            else check(c, {r, d}, [&] { return K_BicubicResampleBitmapInt(r, d, flags); }, 2u);
        }
    }
}
void opRowResize(Ctx& c) {
    void* data = nullptr;
    const int32_t ow = targetDim(c), oh = targetDim(c), nw = targetDim(c), nh = targetDim(c);
    if (K_StartResize(ow, oh, nw, nh, &data) != KS_SUCCESS) {
        if (data) fail(c.op, "a failing start left resize data");
        return;
    }
    std::vector<uint8_t> row(size_t(72) * 8 * 2 + 64, 0x5A);
    const int32_t bpp = c.pick(kDepths);
    for (int k = 0; k < 4; ++k) {
        int32_t newWidth = 0, rows = 0;
        const int32_t r = c.byte() < 220 ? int32_t(c.byte() % 80) : c.i32();
        (void)K_Resize(row.data(), r, bpp, &newWidth, &rows, data);
    }
    if (K_StopResize(data) != KS_SUCCESS) fail(c.op, "stop failed");
    (void)K_SQRT(c.u32());
}
void opColorRes(Ctx& c) {
    BITMAPRECORD* s = c.rec();
    const uint8_t which = c.byte() % 4;
    const int32_t bpp = c.pick(kDepths);
    const uint32_t flags = c.byte() < 220 ? (c.u32() & CRF_ALLFLAGS) : c.u32v();
    RGBQUAD pal[256];
    for (auto& q : pal) q = RGBQUAD{c.byte(), c.byte(), c.byte(), 0};
    const int32_t n = c.byte() < 220 ? int32_t(c.byte()) + 1 : c.i32();
    const RGBQUAD* pp = c.byte() < 230 ? pal : nullptr;
    if (n > 256 && pp) return;  // a palette shorter than its count is the caller's fault
    if (which == 0) {
        BITMAPRECORD* d = c.byte() & 1 ? s : outRec(c, s);
        const uint32_t sw = c.byte() < 220 ? BITMAPRECORD_SIZE : c.pick(kSizeWords);
        check(c, {s, d}, [&] { return K_ColorResBitmap(s, d, bpp, flags, pp, n, sw); }, d != s ? 2u : 0u);
    } else if (which == 1) {
        check(c, {s}, [&] { return K_GrayScaleBitmap(s, bpp); });
    } else {
        int32_t used = 0;
        const int32_t reserved = c.byte() < 220 ? int32_t(c.byte() % 8) : c.i32();
        (void)check(c, {s}, [&] { return K_CreateBitmapOptPal(s, pal, n > 256 ? 256 : n, reserved, c.u32v(), &used); });
    }
}
void opDisplay(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const uint8_t which = c.byte() % 7;
    const int32_t v = c.i32();
    switch (which) {
        case 0: check(c, {r}, [&] { return K_SetPaintIntensity(r, v); }); break;
        case 1: check(c, {r}, [&] { return K_SetPaintContrast(r, v); }); break;
        case 2: check(c, {r}, [&] { return K_SetPaintGamma(r, v); }); break;
        case 3: {
            uint8_t t8[256];
            std::vector<uint16_t> t16(65536);
            (void)K_GetPaintIntensity(r);
            (void)K_GetPaintTable(r, c.byte() & 1 ? t8 : nullptr);
            (void)K_GetPaintTable16(r, c.byte() & 1 ? t16.data() : nullptr);
            break;
        }
        case 4: {
            // Table fills: the caller's table holds uLUTLength entries.
            const uint32_t len = c.byte() < 220 ? uint32_t(1) << (c.byte() % 13) : c.u32v();
            if (len > 4096) {
                (void)K_WindowLevelFillLUT(nullptr, len, 0, 0xFFFFFF, 0, 255, 0, 7, 0, 255, 0, 0);
                return;
            }
            std::vector<RGBQUAD16> t(len + 1);
            std::vector<uint16_t> g(len + 1);
            const int32_t lo = c.i32(), hi = c.i32(), lb = c.byte() % 17, hb = c.byte() % 17;
            const int32_t mn = c.i32(), mx = c.i32(), f = c.i32();
            const uint32_t fl = c.u32v();
            (void)K_WindowLevelFillLUT(reinterpret_cast<RGBQUAD*>(t.data()), len, c.u32(), c.u32(), lo, hi, lb, hb, mn, mx, f, fl);
            (void)K_WindowLevelFillLUT2(reinterpret_cast<uint8_t*>(g.data()), len, c.u32v(), c.u32v(), lo, hi, lb, hb, mn, mx, f, fl);
            (void)K_WindowLevelFillLUTExt(t.data(), len, c.u32(), c.u32(), lo, hi, lb, hb, mn, mx, f, fl);
            (void)K_WindowLevelFillLUTExt2(g.data(), len, c.u32v(), c.u32v(), lo, hi, lb, hb, mn, mx, f, fl);
            break;
        }
        default: {
            BITMAPRECORD* d = c.byte() & 1 ? r : outRec(c, r);
            const uint32_t sw = c.byte() < 220 ? BITMAPRECORD_SIZE : c.pick(kSizeWords);
            const int32_t lo = c.i32(), hi = c.i32();
            if (which == 5) {
                check(c, {r, d}, [&] { return K_WindowLevel(r, d, sw, lo, hi, c.i32(), c.u32v()); }, d != r ? 2u : 0u);
            } else {
                RGBQUAD lut[4096];
                const int32_t lb = c.byte() % 17, hb = c.byte() % 17;
                const uint32_t len = c.byte() < 220 ? uint32_t(1) << (c.byte() % 13) : c.u32v();
                if (len > 4096) return;
                check(c, {r, d}, [&] { return K_WindowLevelExt(r, d, sw, lut, len, lb, hb, c.u32v()); }, d != r ? 2u : 0u);
            }
        }
    }
}

// ---------------------------------------------------------------- family: lists and playback
// A list handle: live, destroyed, null or bytes that were never a list.
HBITMAPLIST listHandle(Ctx& c) {
    const uint8_t b = c.byte();
    if (b < 225) return c.list[b % kLists];
    if (b < 240) return reinterpret_cast<HBITMAPLIST>(&c.foreign);
    return nullptr;
}
// A record whose storage a call moved into a list: the slot lets go of it
// without freeing (the list owns it now) and starts afresh.
void handedOver(Ctx& c, BITMAPRECORD* r) {
    if (!isSlot(c, r)) return;
    const int s = int(r - c.bm);
    if (!c.caller[s].empty()) c.keep.push_back(std::move(c.caller[s]));
    c.caller[s].clear();
    std::memset(r, 0, sizeof *r);
    if (K_InitBitmap(r, BITMAPRECORD_SIZE, 8, 8, 8) != KS_SUCCESS) fail(c.op, "init of a fresh record failed");
}
// A list slot for a list a call makes: an occupied slot's list is destroyed first.
HBITMAPLIST* newListSlot(Ctx& c) {
    const int k = c.byte() % kLists;
    if (c.listLive[k] && K_DestroyBitmapList(c.list[k]) != KS_SUCCESS) fail(c.op, "destroying a live list failed");
    c.listLive[k] = false;
    return &c.list[k];
}
void opList(Ctx& c) {
    const uint8_t which = c.byte() % 12;
    const uint32_t index = c.byte() < 200 ? uint32_t(c.byte() % 6) : c.u32v();
    const uint32_t count = c.byte() < 200 ? uint32_t(c.byte() % 5) : c.u32v();
    switch (which) {
        case 0: {
            HBITMAPLIST* h = newListSlot(c);
            const int32_t rc = K_CreateBitmapList(c.byte() > 245 ? nullptr : h);
            if (rc == KS_SUCCESS) c.listLive[h - c.list] = true;
            else if (rc >= 0) fail(c.op, "create gave an odd status");
            break;
        }
        case 1: {
            const int k = c.byte() % kLists;
            const int32_t rc = K_DestroyBitmapList(c.list[k]);
            if (c.listLive[k] && rc != KS_SUCCESS) fail(c.op, "destroying a live list failed");
            if (!c.listLive[k] && c.list[k] && rc == KS_SUCCESS) fail(c.op, "a destroyed list was destroyed again");
            c.listLive[k] = false;
            break;
        }
        case 2: {
            uint32_t n = 0xABCDu;
            const int32_t rc = K_GetBitmapListCount(listHandle(c), c.byte() > 245 ? nullptr : &n);
            if (rc < 0 && n != 0xABCDu) fail(c.op, "a failing count wrote its result");
            break;
        }
        case 3: case 4: {
            // Insert (or replace): the record's storage moves into the list.
            BITMAPRECORD* r = c.rec();
            if (r == &c.foreign) return;  // its owned fields would then belong to two owners
            const HBITMAPLIST h = listHandle(c);
            int64_t rc;
            if (which == 3) {
                rc = check(c, {r}, [&] { return K_InsertBitmapListItem(h, index, r); });
            } else {
                BITMAPRECORD* old = c.byte() & 1 ? nullptr : outRec(c, r);
                if (old == r) return;
                const uint32_t oldSize = c.byte() < 220 ? BITMAPRECORD_SIZE : c.pick(kSizeWords);
                rc = check(c, {r, old}, [&] { return K_ReplaceBitmapListItem(h, index, r, old, oldSize); }, 2u);
            }
            if (rc == KS_SUCCESS) handedOver(c, r);
            break;
        }
        case 5: {
            // Take an item out into a fresh slot, or free it (null).
            BITMAPRECORD* r = c.byte() & 1 ? nullptr : outRec(c, nullptr);
            (void)check(c, {r}, [&] { return K_RemoveBitmapListItem(listHandle(c), index, r); }, 1u);
            break;
        }
        case 6: (void)K_DeleteBitmapListItems(listHandle(c), index, count); break;
        case 7: {
            // Get a copy of an item (the list keeps ownership) and set it back,
            // with frame words of the caller's choosing for the playback.
            BITMAPRECORD tmp;
            std::memset(&tmp, 0xEE, sizeof tmp);
            const BITMAPRECORD untouched = tmp;
            const HBITMAPLIST h = listHandle(c);
            const uint32_t size = c.byte() < 200 ? BITMAPRECORD_SIZE : c.pick(kSizeWords);
            const int32_t rc = K_GetBitmapListItem(h, index, c.byte() > 245 ? nullptr : &tmp, size);
            if (rc < 0) {
                if (std::memcmp(&tmp, &untouched, sizeof tmp) != 0) fail(c.op, "a failing get wrote its record");
                return;
            }
            if (size != BITMAPRECORD_SIZE) return;
            FRAME_LEFT(&tmp) = c.coord();
            FRAME_TOP(&tmp) = c.coord();
            FRAME_DELAY(&tmp) = c.byte() < 200 ? 0u : c.u32v();
            FRAME_DISPOSAL(&tmp) = c.byte() % 5;
            FRAME_TRANSPARENT_COLOR(&tmp) = c.u32v();
            const uint32_t flagBits[] = {0, BRF_FRAME_WAITINPUT, BRF_FRAME_TRANSPARENT, BRF_FRAME_ALPHAOVER};
            tmp.uFlags = (tmp.uFlags & ~(BRF_FRAME_WAITINPUT | BRF_FRAME_TRANSPARENT | BRF_FRAME_ALPHAOVER)) |
                         c.pick(flagBits);
            if (K_SetBitmapListItem(h, index, &tmp) != KS_SUCCESS) fail(c.op, "setting back a got item failed");
            break;
        }
        case 8: {
            // Deep copies into a new list; nothing is made on failure.
            HBITMAPLIST* out = newListSlot(c);
            *out = nullptr;
            const int32_t rc = K_CopyBitmapListItems(c.byte() > 245 ? nullptr : out, listHandle(c), index, count);
            if (rc == KS_SUCCESS) c.listLive[out - c.list] = true;
            else if (*out) fail(c.op, "a failing copy made a list");
            break;
        }
        case 9: {
            HBITMAPLIST src = listHandle(c);
            HBITMAPLIST* out = newListSlot(c);
            *out = nullptr;
            const int32_t rc = K_MoveBitmapListItems(c.byte() > 245 ? nullptr : out, src, index, count);
            if (rc == KS_SUCCESS) c.listLive[out - c.list] = true;
            else if (*out) fail(c.op, "a failing move made a list");
            break;
        }
        case 10: {
            RGBQUAD pal[256];
            std::memset(pal, 0xCD, sizeof pal);
            int32_t used = 0;
            const int32_t n = c.byte() < 220 ? int32_t(c.byte()) + 1 : c.i32();
            (void)K_CreateBitmapListOptPal(listHandle(c), c.byte() > 245 ? nullptr : pal, n > 256 ? 256 : n,
                                           c.byte() < 220 ? int32_t(c.byte() % 8) : c.i32(), c.u32v(), &used);
            break;
        }
        default: {
            // Setting an item to an empty record leaves the old item to the
            // caller: only an item that owns nothing is overwritten that way.
            BITMAPRECORD tmp;
            const HBITMAPLIST h = listHandle(c);
            if (K_GetBitmapListItem(h, index, &tmp, BITMAPRECORD_SIZE) != KS_SUCCESS) {
                (void)K_SetBitmapListItem(h, index, nullptr);  // refused: no such item
                return;
            }
            if (tmp.uFlags & BRF_ALLOCATED || tmp.hRgn || tmp.pPalette || tmp.pCallbacks || tmp.hListBlock) return;
            if (K_SetBitmapListItem(h, index, nullptr) != KS_SUCCESS) fail(c.op, "clearing an item failed");
        }
    }
}
// A playback handle: live, destroyed, null, or another kind of handle.
HPLAYBACK playHandle(Ctx& c) {
    const uint8_t b = c.byte();
    if (b < 200) return c.play[b % kPlays];
    if (b < 215) return reinterpret_cast<HPLAYBACK>(c.list[b % kLists]);
    if (b < 230) return reinterpret_cast<HPLAYBACK>(c.glob[b % kHandles]);
    if (b < 245) return reinterpret_cast<HPLAYBACK>(&c.foreign);
    return nullptr;
}
void destroyPlayback(Ctx& c, int k) {
    if (!c.playLive[k]) return;
    if (K_DestroyPlayback(c.play[k]) != KS_SUCCESS) fail(c.op, "destroying a live playback failed");
    c.playLive[k] = false;
    validate(&c.target[k], c.op);
    if (K_FreeBitmap(&c.target[k]) != KS_SUCCESS) fail(c.op, "freeing a playback target failed");
}
void opPlayback(Ctx& c) {
    const uint8_t which = c.byte() % 10;
    const int k = c.byte() % kPlays;
    switch (which) {
        case 0: {
            // A new playback onto a small target of its own.
            destroyPlayback(c, k);
            const int32_t depths[] = {1, 4, 8, 16, 24, 32, 48, 64};
            BITMAPRECORD& t = c.target[k];
            std::memset(&t, 0, sizeof t);
            if (K_CreateBitmap(&t, BITMAPRECORD_SIZE, 1, int32_t(c.byte() % 48) + 1, int32_t(c.byte() % 48) + 1,
                               c.pick(depths), c.byte() % 3 - 1, nullptr, c.byte() % 8 + 1, nullptr, 0) != KS_SUCCESS)
                return;
            FRAME_BACKGROUND_COLOR(&t) = c.u32v();
            HPLAYBACK h = nullptr;
            const HBITMAPLIST l = c.byte() & 1 ? nullptr : listHandle(c);
            const int32_t rc = check(c, {&t}, [&] { return K_CreatePlayback(c.byte() > 245 ? nullptr : &h, &t, l); });
            if (rc == KS_SUCCESS) {
                c.play[k] = h;
                c.playLive[k] = true;
            } else {
                if (h) fail(c.op, "a failing create made a playback");
                K_FreeBitmap(&t);
            }
            break;
        }
        case 1: {
            if (c.byte() & 1) {
                destroyPlayback(c, k);
                break;
            }
            const HPLAYBACK h = playHandle(c);
            if (K_DestroyPlayback(h) != KS_SUCCESS) break;
            // Only a live playback can be destroyed.
            int j = 0;
            while (j < kPlays && !(c.playLive[j] && c.play[j] == h)) ++j;
            if (j == kPlays) fail(c.op, "a handle that is not a live playback was destroyed");
            c.playLive[j] = false;
            if (K_FreeBitmap(&c.target[j]) != KS_SUCCESS) fail(c.op, "freeing a playback target failed");
            break;
        }
        case 2: {
            // Steps of the state machine; the target stays a valid bitmap.
            const HPLAYBACK h = playHandle(c);
            const int steps = c.byte() % 24 + 1;
            for (int s = 0; s < steps; ++s) {
                int32_t state = -1;
                if (K_ProcessPlayback(h, c.byte() > 245 ? nullptr : &state) != KS_SUCCESS) break;
                if (state >= 0 && (state < PLAYBACK_STATE_CLEAR || state > PLAYBACK_STATE_END))
                    fail(c.op, "a state outside the state machine");
                if (state == PLAYBACK_STATE_WAITINPUT || state == PLAYBACK_STATE_WAITDELAY ||
                    state == PLAYBACK_STATE_WAITBOTH)
                    K_CancelPlaybackWait(h);  // never sleep in the fuzzer
            }
            break;
        }
        case 3: {
            const int32_t rc = K_SetPlaybackIndex(playHandle(c), c.byte() < 220 ? int32_t(c.byte() % 8) - 1 : c.i32());
            (void)rc;
            break;
        }
        case 4: {
            // A frame appended: its storage moves into the playback's list.
            BITMAPRECORD* r = c.rec();
            if (r == &c.foreign) return;
            const int64_t rc = check(c, {r}, [&] { return K_AppendPlayback(playHandle(c), r); });
            if (rc == KS_SUCCESS) handedOver(c, r);
            break;
        }
        case 5: (void)K_ValidatePlaybackLines(playHandle(c), c.i32(), c.i32()); break;
        case 6: {
            RECT rc{};
            (void)K_GetPlaybackUpdateRect(playHandle(c), c.byte() > 245 ? nullptr : &rc, c.byte() & 1);
            (void)K_ClearPlaybackUpdateRect(playHandle(c));
            break;
        }
        case 7: {
            int32_t v = 0;
            uint32_t ms = 0;
            (void)K_GetPlaybackState(playHandle(c), c.byte() > 245 ? nullptr : &v);
            (void)K_GetPlaybackIndex(playHandle(c), c.byte() > 245 ? nullptr : &v);
            (void)K_GetPlaybackDelay(playHandle(c), c.byte() > 245 ? nullptr : &ms);
            break;
        }
        default: (void)K_CancelPlaybackWait(playHandle(c)); break;
    }
    for (int p = 0; p < kPlays; ++p)
        if (c.playLive[p]) validate(&c.target[p], c.op);
}

struct Op {
    const char* name;
    void (*fn)(Ctx&);
};
const Op kRecordOps[] = {{"init", opInit},
                         {"create", opCreate},
                         {"create", opCreate},
                         {"allocate", opAllocate},
                         {"free", opFree},
                         {"change height", opChangeHeight},
                         {"set data pointer", opSetDataPointer},
                         {"access", opAccess},
                         {"release", opRelease},
                         {"int access/release", opIntAccessRelease},
                         {"memory info", opMemoryInfo},
                         {"set memory info", opSetMemoryInfo},
                         {"compression", opCompression},
                         {"relabel layout", opRelabel},
                         {"manage memory", opManageMemory},
                         {"thresholds", opThresholds},
                         {"data callbacks", opDataCallbacks}};
const Op kRowOps[] = {{"rows", opRows}, {"fill", opFill}, {"compressed rows", opRuns}};
const Op kPaletteOps[] = {{"bitmap palette", opPalette}, {"palette helpers", opPaletteHelpers}};
const Op kPixelOps[] = {{"convert", opConvert}, {"dither", opDither}};
const Op kRegionOps[] = {{"orva region", opOrvaRgn}, {"region handle", opHrgn}, {"bitmap region", opBitmapRgn}};
const Op kGeometryOps[] = {{"view perspective", opViewPerspective}, {"rectangles", opRects}};
const Op kRuntimeOps[] = {{"global memory", opGlobal}, {"misc", opMisc}};
const Op kTransformOps[] = {{"orientation", opOrient},   {"buffer turns", opBuffers}, {"rotate any", opRotateAny},
                            {"copy", opCopy},           {"combine", opCombine},     {"resize", opResize},
                            {"row resizer", opRowResize}};
const Op kColourDisplayOps[] = {{"colour resolution", opColorRes}, {"display", opDisplay}};
const Op kListPlaybackOps[] = {{"lists", opList}, {"lists", opList}, {"playback", opPlayback}};

struct Family {
    const char* name;
    const Op* ops;
    size_t count;
};
#define FAMILY(name, table) {name, table, sizeof table / sizeof table[0]}
const Family kFamilies[] = {FAMILY("record", kRecordOps),     FAMILY("record", kRecordOps),
                            FAMILY("rows", kRowOps),          FAMILY("palettes", kPaletteOps),
                            FAMILY("pixels", kPixelOps),      FAMILY("regions", kRegionOps),
                            FAMILY("regions", kRegionOps),    FAMILY("geometry", kGeometryOps),
                            FAMILY("runtime", kRuntimeOps),   FAMILY("transforms", kTransformOps),
                            FAMILY("transforms", kTransformOps), FAMILY("colour and display", kColourDisplayOps),
                            FAMILY("lists and playback", kListPlaybackOps)};

struct Baseline {
    int32_t thresholds[5];
    uint32_t memType;
    int32_t xres, yres, dither;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Baseline base = [] {
        Baseline b{};
        K_GetMemoryThresholds(&b.thresholds[0], &b.thresholds[1], &b.thresholds[2], &b.thresholds[3],
                              &b.thresholds[4]);
        b.memType = K_GetDefaultMemoryType();
        b.xres = K_GetDefaultXResolution();
        b.yres = K_GetDefaultYResolution();
        b.dither = K_GetDefaultDithering();
        return b;
    }();
    // The same settings for every input, so that a finding replays.
    // Directly: the default largest image is not a value the setter takes.
    krn::ThreadSettings& ts = krn::settings();
    ts.nMemKeepFree = base.thresholds[0];
    ts.nMemLargestImage = base.thresholds[1];
    ts.nMemTileSize = base.thresholds[2];
    ts.nMemFourth = base.thresholds[3];
    ts.nMemFifth = base.thresholds[4];
    K_SetGlobalMemoryThresholds(nullptr);
    K_SetDefaultMemoryType(base.memType);
    K_SetDefaultXResolution(base.xres);
    K_SetDefaultYResolution(base.yres);
    K_DefaultDithering(base.dither);
    K_SetUserMatchTable(nullptr);
    K_ManageMemory(MANAGEMEMORY_SET_CAP, kCap, nullptr);
    int64_t counter0 = 0;
    K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter0);
    const long live0 = krn::faultinject::liveBlocks();

    static const bool trace = std::getenv("FUZZ_API_TRACE") != nullptr;
    // Keeps the input being run, for replays without libFuzzer.
    static long runs = 0;
    ++runs;
    if (static const char* dump = std::getenv("FUZZ_API_DUMP"); dump) {
        if (trace) std::fprintf(stderr, "input %ld\n", runs);
        if (FILE* f = std::fopen(dump, "wb")) {
            std::fwrite(data, 1, size, f);
            std::fclose(f);
        }
    }
    auto* c = new Ctx{data, size};
    for (auto& b : c->bm) K_InitBitmap(&b, BITMAPRECORD_SIZE, 8, 8, 8);
    // Garbage from a generator seeded by the input: the script's bytes are
    // kept for the calls.
    uint32_t x = c->u32() | 1;
    for (size_t k = 0; k < sizeof c->foreign; ++k) {
        x ^= x << 13, x ^= x >> 17, x ^= x << 5;
        reinterpret_cast<uint8_t*>(&c->foreign)[k] = uint8_t(x);
    }
    // A record the library never made: garbage everywhere but in the
    // pointers a caller owns the memory of (no library can check those), and
    // not marked allocated. Its region handle stays garbage: handles are
    // looked up, never trusted.
    c->foreign.uStructSize = c->byte() & 1 ? BITMAPRECORD_SIZE : BITMAPRECORD_SIZE_OLD;
    c->foreign.uFlags &= ~BRF_ALLOCATED;
    c->foreign.hMemory = c->foreign.pData = nullptr;
    c->foreign.pPalette = nullptr;
    c->foreign.pDitherState = c->foreign.pLUT = c->foreign.pOverlays = c->foreign.pExtraData = nullptr;
    c->foreign.hListBlock = nullptr;
    c->foreign.pCallbacks = nullptr;
    c->buf[0].assign(kBuf, 0);
    c->buf[1].assign(c->byte() * 8 + 1, 0);
    for (auto& b : c->buf[0]) b = uint8_t(c->i * 31);

    for (int step = 0; step < 48 && c->more(); ++step) {
        const Family& f = kFamilies[c->byte() % (sizeof kFamilies / sizeof kFamilies[0])];
        const Op& op = f.ops[c->byte() % f.count];
        c->op = op.name;
        const size_t at = c->i;
        op.fn(*c);
        if (trace && c->relabelled >= 0) std::fprintf(stderr, "relabelled %d\n", c->relabelled);
        if (trace)
            std::fprintf(stderr, "step %d: %s (bytes %zu..%zu, first %u) live %ld\n", step, op.name, at, c->i,
                         at < size ? data[at] : 0u, krn::faultinject::liveBlocks());
        if (c->relabelled >= 0 && op.fn != opRelabel) {
            // Unless the call wrote a new size word itself (init, create).
            BITMAPRECORD& r = c->bm[c->relabelled];
            if (r.uStructSize == c->relabelTo) r.uStructSize = c->relabelWord;
            c->relabelled = -1;
        }
    }
    if (c->relabelled >= 0 && c->bm[c->relabelled].uStructSize == c->relabelTo)
        c->bm[c->relabelled].uStructSize = c->relabelWord;

    // Everything is freed and the counters are back.
    c->op = "cleanup";
    for (int k = 0; k < kPlays; ++k) destroyPlayback(*c, k);
    for (int k = 0; k < kLists; ++k)
        if (c->listLive[k] && K_DestroyBitmapList(c->list[k]) != KS_SUCCESS) fail("cleanup", "live list not destroyable");
    for (int s = 0; s < kSlots; ++s) {
        validate(&c->bm[s], "cleanup");
        if (trace)
            std::fprintf(stderr, "slot %d: size %u flags %x hRgn %p palette %p dither %p\n", s, c->bm[s].uStructSize,
                         c->bm[s].uFlags, (void*)c->bm[s].hRgn, (void*)c->bm[s].pPalette, c->bm[s].pDitherState);
        freeSlot(*c, s);
        if (trace) std::fprintf(stderr, "freed slot %d: live %ld\n", s, krn::faultinject::liveBlocks());
    }
    K_FreeBitmap(&c->foreign);  // what calls attached to it (region, palette)
    for (auto* r : c->rgn)
        if (r) K_DeleteOrvaRgn(r);
    for (int h = 0; h < kHandles; ++h) {
        if (c->hrgnLive[h] && !DeleteObject(c->hrgn[h])) fail("cleanup", "live region handle not deletable");
        if (c->globLive[h] && K_GlobalFree(c->glob[h]) != nullptr) fail("cleanup", "live block not freeable");
    }
    delete c;
    K_SetUserMatchTable(nullptr);
    int64_t counter1 = 0;
    K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter1);
    if (counter1 != counter0) {
        std::fprintf(stderr, "counter %lld -> %lld\n", (long long)counter0, (long long)counter1);
        fail("cleanup", "conventional-memory counter not back");
    }
    if (krn::faultinject::liveBlocks() != live0) {
        std::fprintf(stderr, "live blocks %ld -> %ld\n", live0, krn::faultinject::liveBlocks());
        fail("cleanup", "kernel blocks leaked");
    }
    return 0;
}
