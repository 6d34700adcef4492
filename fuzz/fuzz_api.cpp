// fuzz_api.cpp - the exported functions as a hostile caller uses them. The input is a script: each step picks an
// op and its arguments (hostile values or raw bytes) over a small pool of bitmap records, regions, region handles,
// global-memory blocks, lists, playbacks and buffers. The contract (check()): a call given a record with a size word
// of no layout fails; a failing call leaves every record it was given exactly as it was (bytes and a digest of its
// rows); a record left allocated passes validate(). After the script everything is freed and the live-block and
// conventional-memory counts are back. A data size above 4 MiB is only asked for with memory types that cannot take
// tiles or disk, under an 8 MiB cap. A new export is a row of kRecordCalls or kPlainCalls, or an op in kOps.
#include <algorithm>
#include <array>
#include <cstdio>
#include <span>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "krn/common/kernel.h"
#include "krn/common/memory.h"
#include "krn/common/settings.h"
#include "ombrix.h"

namespace {

[[noreturn]] void fail(const char* op, const char* what, long long status = 0) {
    std::fprintf(stderr, "fuzz_api: %s: %s (status %lld)\n", op, what, status), std::abort();
}

constexpr int kSlots = 3;       // bitmap records the script works on
constexpr int kRgns = 3;        // OrvaRgn pointers
constexpr int kHandles = 4;     // HRGN / HGLOBAL values (live, freed or foreign)
constexpr int kLists = 3;       // bitmap list handles (live or destroyed)
constexpr int kPlays = 2;       // playback handles (live or destroyed)
constexpr size_t kBuf = 4096;   // bytes of each scratch buffer
constexpr uint64_t kMaxData = 4u << 20, kCap = 8u << 20;  // the data size asked for at most, the memory cap

const int32_t kI32[] = {0, 1, -1, 2, 3, 7, 8, 16, 24, 32, 100, 255, 256, 65535, 65536,
                        INT32_MIN, INT32_MIN + 1, INT32_MAX, INT32_MAX - 1, 0x40000000, -0x40000000, 0x10000};
const int32_t kDims[] = {1, 2, 3, 7, 8, 13, 31, 32, 33, 64, 0, -1, INT32_MIN, INT32_MAX, 0x08000000, 579};
const int32_t kDepths[] = {1, 2, 4, 8, 12, 16, 24, 32, 48, 64, 0, 3, 5, 7, 9, -1, 65};
const uint32_t kSizeWords[] = {BITMAPRECORD_SIZE, BITMAPRECORD_SIZE_OLD, 0, 175, 217, 0xFFFFFFFFu, 44};
const uint32_t kMemTypes[] = {1, 1, 1, 4, 8, 9, 128, 256, 257, 260, 264, 265, 512, 768, 1024, 1025,
                              2, 0, 3, 6, 0xFFFFFFFFu};
const uint64_t kSizes[] = {0, 1, 2, 3, 4, 16, 100, 4096, 0xFFFFFFFFull, 0x100000000ull, UINT64_MAX, UINT64_MAX / 2};

uint64_t plannedSize(int32_t w, int32_t h, int32_t bpp) {
    if (bpp == 0) bpp = 8;  // a creation of depth 0 makes an 8-bit grey bitmap
    if (w <= 0 || h <= 0 || bpp < 0) return 0;
    return ((uint64_t(w) * uint64_t(bpp) + 31) / 32) * 4 * uint64_t(h);
}

struct Ctx : fuzzinput::Input {
    const char* op = "";
    BITMAPRECORD bm[kSlots], foreign;                   // the pool's records; bytes the library never made
    std::vector<uint8_t> caller[kSlots], buf[2];        // caller memory attached to a record; scratch buffers
    std::vector<std::vector<uint8_t>> keep;             // caller memory handed over later, kept to the end
    // Handles may be freed or destroyed ones: the library looks them up, they are never dereferenced here.
    OrvaRgn* rgn[kRgns] = {};
    HRGN hrgn[kHandles] = {};
    HGLOBAL glob[kHandles] = {};
    HBITMAPLIST list[kLists] = {};
    HPLAYBACK play[kPlays] = {};
    bool hrgnLive[kHandles] = {}, globLive[kHandles] = {}, listLive[kLists] = {}, playLive[kPlays] = {};
    BITMAPRECORD target[kPlays] = {};  // the target of each live playback, which must outlive it
    BITMAPRECORD alias;                // a record naming a pool record's storage, never freed
    int relabelled = -1;               // slot whose size word relabel() changed
    uint32_t relabelWord = 0, relabelTo = 0;
    RECT rect{}, box{}, rs[2], keepRect;
    POINT pt, pts[8];
    RGNXFORM xf;
    RGBQUAD pal[256];
    BITMAPDATACALLBACKS cb;
    TEMPFILEOPTIONS tempOptions, keptOptions;
    REDIRECTRECORD redir;
    GLOBALMEMORYTHRESHOLDS thresholds;
    STATUSCALLBACK status;
    void* user;
    HRGN hout = nullptr;
    uint32_t uo = 0, hsv3[3];
    int32_t io = 0, io2 = 0, allocAnswer = 1;
    uint64_t area = 0;
    uint8_t t8[256];
    char dir[64], name8[OMBRIX_TEMP_NAME_CHARS], pre8[5];
    wchar_t msg[64], lib[64], name[OMBRIX_TEMP_NAME_CHARS], pre[5];
    std::vector<uint16_t> t16;

    void forget(const void* h) {  // a handle freed through a call that may also free the other kind
        for (int k = 0; k < kHandles; ++k) hrgnLive[k] &= hrgn[k] != h, globLive[k] &= glob[k] != h;
    }
    void putHrgn(int h, HRGN v) {
        if (v && hrgnLive[h]) DeleteObject(hrgn[h]);
        if (v) hrgn[h] = v, hrgnLive[h] = true;
    }
    bool isSlot(const BITMAPRECORD* r) const { return r >= bm && r < bm + kSlots; }
    void unlabel() {  // the size word relabel() changed put back (unless a call wrote another)
        if (relabelled >= 0 && bm[relabelled].uStructSize == relabelTo) bm[relabelled].uStructSize = relabelWord;
        relabelled = -1;
    }

    // The record of slot s shown with a size word of no layout until the current call is over. Left alone:
    // records holding fields past the older layout (an older-layout call drops them, by design), and the
    // words of a layout (they would hand the library stale pointers or keep a stale data size).
    void relabel(int s) {
        BITMAPRECORD* r = &bm[s];
        const uint32_t to = pick(kSizeWords);
        if (relabelled >= 0 || r->pCallbacks || r->hListBlock || krn::recordSizeValid(to)) return;
        if ((r->uFlags & BRF_ALLOCATED) && krn::dataSize(r) != r->uSize) return;
        relabelled = s, relabelWord = r->uStructSize, r->uStructSize = relabelTo = to;
    }

    // Values: mostly from the tables or small, sometimes hostile or a raw word.
    int32_t i32() { return at(200) ? kI32[last() % std::size(kI32)] : last() < 240 ? last() - 220 : int32_t(u32()); }
    int32_t coord() { return at(160) ? int32_t(last() % 80) - 8 : i32(); }
    uint32_t u32v() { return uint32_t(i32()); }
    uint64_t size64() { return at(128) ? last() : kSizes[last() % std::size(kSizes)]; }
    // A small value below `lim` (picked with a byte below `cut`) or a hostile one.
    int32_t small(int32_t lim, uint8_t cut = 200) { return byte() < cut ? int32_t(byte() % lim) : i32(); }
    uint32_t usmall(uint32_t lim, uint8_t cut = 200) { return byte() < cut ? byte() % lim : u32v(); }
    uint32_t byteOr32(uint8_t cut) { return byte() < cut ? byte() : u32v(); }
    uint32_t sizeWord(uint8_t cut) { return byte() < cut ? BITMAPRECORD_SIZE : pick(kSizeWords); }
    template <class T> T* orNull(T* v, uint8_t above = 240) { return byte() > above ? nullptr : v; }
    uint32_t mode() { return usmall(7, 220); }
    int32_t angle() { return byte() < 200 ? int32_t(u32() % 72001) - 36000 : i32(); }
    uint32_t rotateFlags() { return byte() < 220 ? (uint32_t(byte()) & 0x3Bu) | (uint32_t(byte() % 4) << 8) : u32v(); }
    uint32_t resizeFlags() { return byte() < 220 ? uint32_t(byte()) & 0x3Fu : u32v(); }
    const RGBQUAD* fixedPal() { return byte() < 200 ? K_IntGetFixedPalette(8) : nullptr; }
    // Small target sizes, or values every call must refuse.
    int32_t targetDim() { return at(220) ? int32_t(last() % 72) + 1 : std::array{0, -1, -7, INT32_MIN}[last() % 4]; }
    // A palette count: 1..256 or a hostile value (never more than the palette holds).
    int32_t colours() { return std::min(byte() < 220 ? int32_t(byte()) + 1 : i32(), 256); }
    int32_t count256() { return std::min(small(257, 220), 256); }
    int32_t height(const BITMAPRECORD* r) {
        const int32_t h = byte() < 128 ? int32_t(byte() % 70) : pick(kDims);
        return r && isSlot(r) && plannedSize(r->nWidth, h, r->nBitsPerPixel) > kMaxData ? -1 : h;
    }
    GLOBALMEMORYTHRESHOLDS* sized() {
        return thresholds.uStructSize = at(200) ? GLOBALMEMORYTHRESHOLDS_SIZE : u32v(), &thresholds;
    }
    BITMAPDATACALLBACKS* callbacks() { return cb = {at(200) ? BITMAPDATACALLBACKS_SIZE : u32v()}, &cb; }
    // A pool record the pool made and left readable: the K_Int forms skip the record checks.
    bool made(const BITMAPRECORD* r) const { return r && isSlot(r) && krn::checkAllocated(r) == KS_SUCCESS; }
    bool laid(const BITMAPRECORD* r) const { return !r || krn::recordSizeValid(r->uStructSize); }
    void* empty() { return byte() & 1 ? REDIRECT_EMPTY : nullptr; }
    int32_t quarter() { return byte() < 200 ? int32_t(byte() % 4) * 90 : i32(); }
    // A temporary-name prefix of 0..4 input bytes (more than three, or odd characters, are refused).
    void prefix() {
        const size_t len = byte() % 5;
        for (size_t k = 0; k < 5; ++k) pre8[k] = char(k < len ? byte() : 0), pre[k] = wchar_t(uint8_t(pre8[k]));
    }
    TEMPFILEOPTIONS* options() {
        tempOptions = {byte() < 220 ? TEMPFILEOPTIONS_SIZE : u32v(), int32_t(byte() % 6) - 2, u32v(), usmall(4), {}};
        return &tempOptions;
    }
    uint16_t* table16() { return t16.resize(65536), byte() & 1 ? t16.data() : nullptr; }
    RGBQUAD* palette() { return std::ranges::generate(pal, [&] { return RGBQUAD{byte(), byte(), byte(), 0}; }), pal; }
    RGBQUAD* palOrNull() { return palette(), byte() > 230 ? nullptr : pal; }
    RECT* rectp() { return byte() >= 240 ? nullptr : &(rect = RECT{coord(), coord(), coord(), coord()}); }
    // Rectangle k from the input; a refused change of rectangle 0 must leave it as it was.
    RECT* rect4(int k) { return rs[k] = RECT{coord(), coord(), coord(), coord()}, keepRect = rs[0], &rs[k]; }
    BOOL sameIfRefused(BOOL ok) {
        return ok || !std::memcmp(&rs[0], &keepRect, sizeof keepRect) ? ok : (fail(op, "refused but changed"), 0);
    }
    POINT* point() { return &(pt = POINT{coord(), coord()}); }
    uint32_t* hsv() { return hsv3[0] = u32v(), hsv3[1] = u32v(), hsv3[2] = u32v(), hsv3; }
    // Eight points and a count of them (hostile sometimes): above 8, no call.
    uint32_t polygon() { return std::ranges::generate(pts, [&] { return POINT{coord(), coord()}; }), usmall(9, 220); }
    const RGNXFORM* xform() {
        const uint8_t b = byte();
        if (b >= 230) return nullptr;
        xf = RGNXFORM{int32_t(b % 10), 1, 1, 1, 1, 0, 0};
        if (b & 0x10) xf = RGNXFORM{i32(), i32(), i32(), i32(), i32(), i32(), i32()};
        return &xf;
    }

    BITMAPRECORD* rec() {
        const uint8_t b = byte();
        if (b >= 212 && b < 230) relabel(b % kSlots);  // this call sees another size word
        return b < 230 ? &bm[b % kSlots] : b < 245 ? &foreign : nullptr;
    }
    uint8_t* buffer(size_t* size) {
        return at(240) ? (*size = buf[last() & 1].size(), buf[last() & 1].data()) : (*size = 0, nullptr);
    }
    OrvaRgn** rgnSlot() { return &rgn[byte() % kRgns]; }
    OrvaRgn* rgnOrNull() { return at(240) ? rgn[last() % kRgns] : nullptr; }
    // The pool region of a slot handed to a call that takes ownership of it (freed also on failure).
    OrvaRgn* takeRgn() { return std::exchange(*rgnSlot(), nullptr); }
    // A handle of the pool's own kind, of the other kind, never a handle, a small number (0 too) or all ones.
    void* anyHandle(void* const* own, void* const* other) {
        const uint8_t b = byte();
        if (b < 220) return b < 200 ? own[b % kHandles] : other[b % kHandles];
        return b < 235 ? &foreign : reinterpret_cast<void*>(b < 245 ? uintptr_t(b - 235) : ~uintptr_t(b - 245));
    }
    HRGN handle() { return HRGN(anyHandle(reinterpret_cast<void**>(hrgn), glob)); }
    HGLOBAL ghandle() { return anyHandle(glob, reinterpret_cast<void**>(hrgn)); }
    // A region handle a call made into hout goes to a pool slot.
    int64_t keepHrgn(int64_t rc) {
        if (rc == KS_SUCCESS && hout) putHrgn(byte() % kHandles, hout);
        return hout = nullptr, rc;
    }
    // A list handle: live, destroyed, null or bytes that were never a list.
    HBITMAPLIST listHandle() { return at(225) ? list[last() % kLists] : last() < 240 ? HBITMAPLIST(&foreign) : 0; }
    // A playback handle: live, destroyed, null, or another kind of handle.
    HPLAYBACK playHandle() {
        const uint8_t b = byte();
        const void* other = b < 215 ? static_cast<void*>(list[b % kLists]) : b < 230 ? glob[b % kHandles] : &foreign;
        return b < 200 ? play[b % kPlays] : b < 245 ? HPLAYBACK(other) : nullptr;
    }

    uint8_t last_ = 0;  // at(cut): reads a byte and tells whether it is below cut; last() is that byte.
    bool at(uint8_t cut) { return (last_ = byte()) < cut; }
    uint8_t last() const { return last_; }
};

uint64_t fnv(uint64_t h, const void* p, size_t n) {
    const auto* b = static_cast<const uint8_t*>(p);
    for (size_t k = 0; k < n; ++k) h = (h ^ b[k]) * 0x100000001b3ull;
    return h;
}

// Digest of a record's bytes and, when it is allocated, of its pixels read through the row layer. The
// read itself must succeed for an allocated record.
uint64_t digest(BITMAPRECORD* r, const char* op) {
    uint64_t h = fnv(0xcbf29ce484222325ull, r, sizeof *r);
    if (!(r->uFlags & BRF_ALLOCATED) || krn::checkAllocated(r) != KS_SUCCESS) return h;
    if ((r->uFlags & BRF_USER_MEMORY && !r->pData) || r->nBytesPerLine == 0 || r->nHeight <= 0) return h;
    const BITMAPRECORD before = *r;
    std::vector<uint8_t> row(r->nBytesPerLine);
    // A bitmap of millions of rows (on disk, where the cap does not reach) is sampled: 4096 rows spread
    // over it, the first and the last among them.
    const int64_t rows = r->nHeight, step = rows > 4096 ? (rows + 4094) / 4095 : 1;
    for (int64_t yy = 0; yy < rows; yy = (yy + step < rows || yy == rows - 1) ? yy + step : rows - 1) {
        if (const int32_t rc = K_GetBitmapRow(r, row.data(), int32_t(yy), r->nBytesPerLine); rc < 0)
            fail(op, "an allocated record's row cannot be read", rc);
        h = fnv(h, row.data(), row.size());
    }
    if (std::memcmp(&before, r, sizeof before) != 0) fail(op, "reading the rows changed the record");
    return h;
}

// The validity checks of an allocated record (a size word the script broke on purpose makes it
// unreadable; a height of 0 is reachable and valid).
void validate(BITMAPRECORD* r, const char* op) {
    if (!(r->uFlags & BRF_ALLOCATED) || !krn::recordSizeValid(r->uStructSize)) return;
    if (krn::checkAllocated(r) != KS_SUCCESS) fail(op, "allocated record fails the record check");
    if (r->nWidth <= 0 || r->nHeight < 0) fail(op, "allocated record with a bad size");
    if (plannedSize(r->nWidth, 1, r->nBitsPerPixel) != r->nBytesPerLine) fail(op, "rows are not padded to 4 bytes");
    if (krn::dataSize(r) != plannedSize(r->nWidth, r->nHeight, r->nBitsPerPixel)) fail(op, "data size disagrees");
    if (krn::isCurrentLayout(r) && r->nLockCount < 0) fail(op, "negative lock count");
    if (r->nViewPerspective < 1 || r->nViewPerspective > 8) fail(op, "view perspective outside 1..8");
    (void)digest(r, op);  // every row readable
}

// Runs one call that takes records: a negative status must leave them as they were; a record left allocated
// must be valid. Any record given with a size word of no layout, except those `outputs` marks (bit k: made
// afresh by the call), must make the call fail.
template <class F> int64_t check(Ctx& c, std::initializer_list<BITMAPRECORD*> recs, F&& call, uint32_t outputs = 0) {
    bool badSize = false;
    uint64_t before[2] = {};
    BITMAPRECORD copy[2];
    for (size_t k = 0; BITMAPRECORD* r : recs) {
        badSize |= r && !(outputs >> k & 1) && !krn::recordSizeValid(r->uStructSize);
        if (r && c.isSlot(r)) copy[k] = *r, before[k] = digest(r, c.op);
        ++k;
    }
    const int64_t rc = call();
    if (badSize && rc > 0) fail(c.op, "a record with a bad size word was accepted", rc);
    for (size_t k = 0; BITMAPRECORD* r : recs) {
        if (r && c.isSlot(r) && rc < 0 && (std::memcmp(&copy[k], r, sizeof *r) || digest(r, c.op) != before[k]))
            fail(c.op, "a failing call changed its record or its pixels", rc);
        if (r && c.isSlot(r)) validate(r, c.op);
        ++k;
    }
    return rc;
}

// A slot's record freed (with what an unallocated record owns: region, palette, callbacks).
void freeSlot(Ctx& c, int s) {
    BITMAPRECORD& r = c.bm[s];
    if (c.relabelled == s) c.unlabel();
    while ((r.uFlags & BRF_ALLOCATED) && krn::isCurrentLayout(&r) && r.nLockCount > 0) K_ReleaseBitmap(&r);
    if (K_FreeBitmap(&r) != KS_SUCCESS || (r.uFlags & BRF_ALLOCATED)) fail("cleanup", "a record is not freed");
    c.caller[s].clear();
}
// A pool record made afresh: what it owns is freed first (the call would drop it, a caller's fault).
void fresh(Ctx& c, BITMAPRECORD* r) {
    if (r && c.isSlot(r)) freeSlot(c, int(r - c.bm));
    if (r == &c.foreign) K_FreeBitmap(r);
}
// A record a call makes afresh (a copy's destination): freed first unless it is the source; never garbage.
BITMAPRECORD* outRec(Ctx& c, BITMAPRECORD* src) {
    BITMAPRECORD* d = c.rec();
    if (d && d != src && c.isSlot(d)) freeSlot(c, int(d - c.bm));
    return d == &c.foreign ? nullptr : d;
}
// A call from s into d (a fresh record, or s itself: in place, or null where the call allows it).
template <class F> void into(Ctx& c, BITMAPRECORD* s, BITMAPRECORD* d, F&& call) {
    check(c, {s, d}, [&] { return call(d); }, d && d != s ? 2u : 0u);
}

int64_t beginCopy(Ctx& c, BITMAPRECORD* s) {  // the start of a copy into a record initialised for it, freed again
    BITMAPRECORD d;
    if (K_InitBitmap(&d, BITMAPRECORD_SIZE, s->nWidth, s->nHeight, s->nBitsPerPixel) != KS_SUCCESS) return 0;
    const int64_t rc = K_IntBeginCopyBitmap(&d, s, c.i32(), c.i32());
    return K_FreeBitmap(&d), rc;
}
// One row per export, named by its call text: r is a pool record, s a second one (CALL2 rows), the other
// arguments come from the Ctx helpers. A guarded row returns 0 (no call) where a call is the caller's fault.
struct RecordCall { const char* name; int64_t (*fn)(Ctx&, BITMAPRECORD*, BITMAPRECORD*); bool two; };
#define CALL_(two, ...)                                                                                       \
    {#__VA_ARGS__, [](Ctx& c, BITMAPRECORD* r, BITMAPRECORD* s) -> int64_t { return (void)c, (void)r, (void)s, \
                                                                             __VA_ARGS__; }, two}
#define CALL(...) CALL_(false, __VA_ARGS__)
#define CALL2(...) CALL_(true, __VA_ARGS__)
const RecordCall kRecordCalls[] = {
    // record and memory (disk kinds on a large record would write files)
    CALL(K_AccessBitmap(r)), CALL(K_ReleaseBitmap(r)), CALL(K_ChangeBitmapHeight(r, c.height(r))),
    CALL(K_ToggleBitmapCompression(r)), CALL(K_ChangeBitmapCompression(r, c.i32())),
    CALL(K_GetBitmapMemoryInfo(r, c.orNull(&c.uo, 127), c.orNull(&c.area, 127), c.orNull(&c.io, 127),
                               c.orNull(&c.io2, 127))),
    CALL(K_SetBitmapMemoryInfo(r, r && krn::dataSize(r) > kMaxData ? (c.byte(), 1u) : c.pick(kMemTypes), c.size64())),
    CALL(K_GetBitmapDataCallbacks(r, c.orNull(c.callbacks()))),
    CALL(K_SetBitmapDataCallbacks(r, c.orNull(c.callbacks(), 200))),
    CALL(K_FillBitmap(r, c.u32v())), CALL(K_FillBitmap2(r, uint64_t(c.u32()) << 32 | c.u32())), CALL(K_ClearBitmap(r)),
    CALL(K_CreateBitmapFixedPalette(r)), CALL(K_CreateBitmapGrayPalette(r)), CALL(K_IntIsGrayScaleBitmap(r)),
    CALL(K_GetTrueColorValue(r, c.u32v(), c.orNull(&c.uo))), CALL2(K_CopyBitmapPalette(r, s)),
    CALL(K_SetBitmapPalette(r, c.palOrNull(), c.count256())),
    CALL(K_CompareBitmapToPalette(r, c.palOrNull(), c.count256())),
    CALL(K_GetBitmapColors(r, c.small(260), c.count256(), c.palOrNull())),
    CALL(K_PutBitmapColors(r, c.small(260), c.count256(), c.palOrNull())),
    CALL(K_GetBitmapPaletteEntries(r, c.palOrNull(), c.count256(), &c.io)),
    CALL2(K_CopyGrayParams(r, s)), CALL(K_CopyBitmapHandle(&c.alias, r, c.sizeWord(200))),
    CALL(c.made(r) ? beginCopy(c, r) : 0),
    CALL2(K_TranslateBitmapColor(r, s, c.u32v(), c.orNull(&c.uo))),
    CALL(K_StartDithering(r, c.fixedPal(), c.byteOr32(200))), CALL(K_StopDithering(r)),
    CALL(K_StartDitheringExt(r, c.fixedPal(), c.byteOr32(200), c.pick(kDepths), nullptr)),
    CALL(K_SetBitmapRgnRect(r, c.xform(), c.rectp(), c.mode())),
    CALL(K_SetBitmapRgnEllipse(r, c.xform(), c.rectp(), c.mode())),
    CALL(K_SetBitmapRgnHandle(r, c.xform(), c.handle(), c.mode())), CALL(K_SetBitmapRgnColor(r, c.u32v(), c.mode())),
    CALL2(K_SetBitmapRgnFromMask(r, c.xform(), s, c.mode())), CALL(K_BitmapHasRgn(r)),
    CALL(K_GetBitmapRgnArea(r, c.orNull(&c.area))), CALL(K_GetBitmapRgnBounds(r, c.xform(), c.orNull(&c.box))),
    CALL(K_IsPtInBitmapRgn(r, c.coord(), c.coord())), CALL(K_OffsetBitmapRgn(r, c.i32(), c.i32())),
    CALL(K_SizeBitmapRgn(r, c.i32(), c.i32())), CALL(K_FlipBitmapRgn(r)), CALL(K_ReverseBitmapRgn(r)),
    CALL(K_FreeBitmapRgn(r)), CALL(K_SetBitmapRgn(r, c.xform(), c.takeRgn(), c.mode())),
    CALL((c.uo = c.polygon()) <= 8 ? K_SetBitmapRgnPolygon(r, c.xform(), c.pts, c.uo, c.byte() % 4, c.mode()) : 0),
    CALL(c.keepHrgn(K_GetBitmapRgnHandle(r, c.xform(), c.orNull(&c.hout)))),
    // The destination's region pointer is cleared without being freed (destinations come without one).
    CALL2(r && r->hRgn ? 0 : K_CopyBitmapRgn(r, s, c.i32(), c.i32())),
    CALL(K_FlipBitmap(r)), CALL(K_ReverseBitmap(r)), CALL(K_IntFlipBitmap(r)), CALL(K_IntReverseBitmap(r)),
    CALL(K_FlipBitmapViewPerspective(r)), CALL(K_ReverseBitmapViewPerspective(r)),
    CALL(K_RotateBitmapViewPerspective(r, c.quarter())), CALL(c.laid(r) ? K_IntFlipBitmapViewPerspective(r) : 0),
    CALL(c.laid(r) ? K_IntReverseBitmapViewPerspective(r) : 0),
    CALL(c.laid(r) ? K_IntRotateBitmapViewPerspective(r, c.quarter()) : 0),
    CALL(K_RotateBitmap90(r, c.byte() & 1, c.small(101), c.small(101))),
    CALL(K_RotateBitmap(r, c.angle(), c.rotateFlags(), c.u32v())),
    CALL(K_ShearBitmap(r, c.angle() % 9000, c.rotateFlags(), c.u32v())),
    CALL(K_TrimBitmap(r, c.coord(), c.coord(), uint32_t(c.targetDim()), uint32_t(c.targetDim()))),
    CALL(K_ClearNegativePixels(r)), CALL2(K_CopyBitmapData(r, s)),
    CALL2(K_CombineBitmapKrn(r, c.coord(), c.coord(), c.coord(), c.coord(), s, c.coord(), c.coord(),
                             c.byte() < 230 ? uint32_t(c.u32() & 0xFFFFu) : c.u32v())),
    CALL(K_SizeBitmap(r, c.targetDim(), c.targetDim(), c.resizeFlags())),
    CALL(K_ResampleBitmap(r, c.targetDim(), c.targetDim(), c.resizeFlags())),
    CALL(K_BicubicResampleBitmap(r, c.targetDim(), c.targetDim(), c.resizeFlags())),
    CALL(K_GrayScaleBitmap(r, c.pick(kDepths))),
    CALL(K_CreateBitmapOptPal(r, c.palette(), c.colours(), c.small(8, 220), c.u32v(), &c.io)),
    CALL(K_SetPaintIntensity(r, c.i32())), CALL(K_SetPaintContrast(r, c.i32())), CALL(K_SetPaintGamma(r, c.i32())),
};

void opRecordCall(Ctx& c) {
    const RecordCall& k = c.pick(kRecordCalls);
    BITMAPRECORD *r = c.rec(), *s = k.two ? c.rec() : nullptr;
    c.op = k.name, check(c, {r, s}, [&] { return k.fn(c, r, s); });
}

// A large image may only be asked for with types that cannot spill to tiles or disk (the cap refuses it).
uint32_t safeType(uint32_t t, int32_t w, int32_t h, int32_t bpp) { return plannedSize(w, h, bpp) > kMaxData ? 265 : t; }

void opInit(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const uint32_t sw = c.pick(kSizeWords);
    const int32_t w = c.pick(kDims), h = c.pick(kDims), b = c.pick(kDepths);
    // Initialising a record that still owns something drops it: a caller's fault, not tried here.
    if (r && ((r->uFlags & BRF_ALLOCATED) || r->pPalette || r->hRgn || r->pLUT || r->pExtraData || r->pDitherState ||
              (krn::isCurrentLayout(r) && r->pCallbacks)))
        return;
    const BITMAPDATACALLBACKS* cb = c.byte() & 1 ? c.orNull(c.callbacks()) : nullptr;
    const int64_t rc = cb ? K_InitBitmapWithCallbacks(r, sw, w, h, b, cb) : K_InitBitmap(r, sw, w, h, b);
    if (rc != KS_SUCCESS && rc >= 0) fail(c.op, "odd status", rc);
    // Rows padded to 4 bytes, a data size in 64 bits, also for sizes no storage can take.
    if (rc == KS_SUCCESS && c.isSlot(r) && b > 0 &&
        (plannedSize(w, 1, b) != r->nBytesPerLine || krn::dataSize(r) != plannedSize(w, h, b)))
        fail(c.op, "row or data size is not the plain rule");
}
void opCreate(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const uint32_t sw = c.sizeWord(200);
    uint32_t t = c.pick(kMemTypes);
    const int32_t w = c.pick(kDims), h = c.pick(kDims), b = c.pick(kDepths);
    const int32_t order = c.byte() % 9 - 1, vp = c.byte() % 10;
    t = safeType(t, w, h, b), fresh(c, r);
    uint8_t* data = nullptr;
    uint64_t have = 0;
    if (t == 2) {  // caller memory of the planned size or a hostile one
        auto& mem = c.caller[r && c.isSlot(r) ? r - c.bm : 0];
        have = c.byte() & 1 ? plannedSize(w, h, b) : c.size64() % (kMaxData + 1);
        if (!r || !c.isSlot(r) || have > kMaxData) return;
        c.keep.push_back(std::exchange(mem, std::vector<uint8_t>(size_t(have), 0x5A)));  // it may still be used
        data = mem.empty() ? nullptr : mem.data();
    }
    const BITMAPDATACALLBACKS* cb = c.byte() & 1 ? c.orNull(c.callbacks()) : nullptr;
    check(c, {r}, [&] {
        return cb ? K_CreateBitmapWithCallbacks(r, sw, t, w, h, b, order, nullptr, vp, data, have, cb)
                  : K_CreateBitmap(r, sw, t, w, h, b, order, nullptr, vp, data, have);
    }, 1);
}
void opAllocate(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    uint32_t t = c.pick(kMemTypes);
    if (!r || t == 2 || (r->uFlags & BRF_ALLOCATED)) return;
    t = safeType(t, r->nWidth, r->nHeight, r->nBitsPerPixel);
    if (!krn::recordSizeValid(r->uStructSize) || krn::dataSize(r) > kMaxData) t = 265;
    check(c, {r}, [&] { return K_AllocateBitmap(r, t); });
}
void opFree(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    if (r == &c.foreign) return;  // garbage bytes: freeing them is the caller's fault
    const int64_t rc = K_FreeBitmap(r);
    if (!r || !c.isSlot(r)) return;
    if (rc < 0 && krn::checkAllocated(r) == KS_SUCCESS && !(krn::isCurrentLayout(r) && r->nLockCount > 0))
        fail(c.op, "free of an allocated record failed", rc);
    if (!(r->uFlags & BRF_ALLOCATED)) c.caller[r - c.bm].clear();
}
void opSetDataPointer(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    if (!r || !c.isSlot(r)) return;
    const uint64_t want = c.size64();
    std::vector<uint8_t> mem(size_t(want % (kMaxData + 1)), 0x33);
    check(c, {r}, [&] { return K_SetBitmapDataPointer(r, c.orNull(mem.data(), 230), want); });
    c.keep.push_back(std::move(mem));  // the record may point here or at its earlier memory: both stay alive
}
void opIntAccessRelease(Ctx& c) {  // the release hands back the status it is given: not a failing call when negative
    BITMAPRECORD* r = c.rec();
    int32_t accessed = 0, *const out = c.orNull(&accessed), status = c.i32();
    if (check(c, {r}, [&] { return K_IntAccessBitmap(r, out); }) == KS_SUCCESS)
        K_IntReleaseBitmap(r, accessed, status), c.isSlot(r) ? validate(r, c.op) : void();
}
// The same record shown with a broken size word to the next call (put back after it).
void opRelabel(Ctx& c) { c.relabel(c.byte() % kSlots); }
void opManageMemory(Ctx& c) {
    const int32_t cmd = c.byte() % 8 - 1;
    const int64_t v = int64_t(c.size64()) * (c.byte() & 1 ? -1 : 1);
    int64_t out = 0, *const pout = c.orNull(&out, 220);
    if (cmd == MANAGEMEMORY_RESERVE || cmd == MANAGEMEMORY_RELEASE) return;  // would move the counter
    if (const int64_t rc = K_ManageMemory(cmd, v, pout); rc > 0 && rc != 1 && rc != 2) fail(c.op, "odd status", rc);
    K_ManageMemory(MANAGEMEMORY_SET_CAP, kCap, nullptr);  // the script's cap stays
}

void opRows(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    size_t size;
    uint8_t* b = c.buffer(&size);
    const uint8_t which = c.byte() % 6;
    const int32_t row = c.small(70), col = c.small(70);
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
            check(c, {r}, [&] { return K_PutBitmapRowSegments(r, b, row, seg, count); }); break;
        }
        default: {
            // The compressed forms: run buffers sized for nPixels (at most 2 bytes per pixel + 4).
            const int32_t pixels = c.byte() < 200 ? int32_t(c.byte()) : c.i32();
            if (!b || pixels < 0 || uint64_t(pixels) / 8 + 1 > size || uint64_t(pixels) * 2 + 8 > kBuf) return;
            std::vector<uint8_t> runs(size_t(pixels) * 2 + 8);
            // The work buffer holds one row of the record (the caller's duty); a record the script cannot
            // size gets none (the library makes its own).
            const bool sized = r && c.isSlot(r) && (r->uFlags & BRF_ALLOCATED);
            std::vector<uint8_t> work(std::max<size_t>(size_t(pixels) / 8 + 8, sized ? r->nBytesPerLine : 0));
            uint8_t* const wp = sized || !r ? work.data() : nullptr;
            uint8_t* const rp = runs.data();
            const bool put = c.byte() & 1;
            if (put) K_CompressRow(rp, b, 0, pixels);
            const uint8_t form = c.byte() & 1;
            if (put && form) check(c, {r}, [&] { return K_PutBitmapRowColCompressed(r, wp, rp, row, col, pixels); });
            else if (put) check(c, {r}, [&] { return K_PutBitmapRowCompressed(r, wp, rp, row, pixels); });
            else if (form) check(c, {r}, [&] { return K_GetBitmapRowColCompressed(r, wp, rp, row, col, pixels); });
            else check(c, {r}, [&] { return K_GetBitmapRowCompressed(r, wp, rp, row, pixels); });
        }
    }
}
void opRuns(Ctx& c) {  // rows as runs, mirrored or flipped as runs and expanded: the plain mirror or flip of the pixels
    const int32_t width = c.at(220) ? int32_t(c.last()) * 4 + 1 : c.i32(), rows = c.byte() % 4, first = c.byte() % 16;
    if (width < 1 || width > 1000)  // refusals only
        return (void)K_CompressRows(nullptr, nullptr, width, rows), (void)K_ExpandRow(nullptr, nullptr, first, width);
    const size_t bpl = size_t(width + 31) / 32 * 4, n = bpl * size_t(rows) + bpl;
    std::vector<uint8_t> src(n), runs(OMBRIX_COMPRESSED_ROW_MAX(width) * size_t(rows + 1)), moved(runs), got(n);
    for (auto& b : src) b = c.byte();
    const bool mirror = c.byte() & 1;
    if (K_CompressRows(runs.data(), src.data(), width, rows) != KS_SUCCESS ||
        (mirror ? K_MirrorCompressedBuffer : K_FlipCompressedBuffer)(runs.data(), moved.data(), rows) != KS_SUCCESS ||
        K_ExpandRows(moved.data(), got.data(), width, rows) != KS_SUCCESS)
        fail(c.op, "rows refused");
    auto bit = [&](const auto& v, int32_t y, int32_t x) { return v[y * bpl + x / 8] >> (7 - x % 8) & 1; };
    for (int32_t y = 0; y < rows; ++y)
        for (int32_t x = 0; x < width; ++x)
            if (bit(got, y, x) != (mirror ? bit(src, y, width - 1 - x) : bit(src, rows - 1 - y, x))) fail(c.op, "runs");
    // One row from a pixel on and back (a negative count is refused).
    if (K_CompressRow(runs.data(), src.data(), first, width - first) == KS_SUCCESS)
        K_ExpandRow(runs.data(), got.data(), first, width - first);
}
void opConvert(Ctx& c) {
    size_t size;
    uint8_t* b = c.buffer(&size);
    const int32_t w = c.byte() < 200 ? int32_t(c.byte()) : c.i32();
    const int32_t bs = c.pick(kDepths), bd = c.pick(kDepths), os = c.byte() % 9 - 1, od = c.byte() % 9 - 1;
    const uint32_t flags = c.byte() < 200 ? 0 : c.u32v();
    const int32_t lo = c.byte() % 20 - 2, hi = c.byte() % 20 - 2;
    // The buffer must hold the wider row: the caller's duty. (0 also answers a row beyond 32 bits.)
    const uint32_t need = K_CalcConvertSize(w, bs, w, bd);
    if (!b || need > size || (need == 0 && w > 0)) return (void)K_CalcConvertSize(c.i32(), c.i32(), c.i32(), c.i32());
    const RGBQUAD* fixed = K_IntGetFixedPalette(8);
    switch (c.byte() % 4) {
        case 0: K_ConvertBuffer(b, w, bs, bd, os, od, nullptr, c.byte() & 1 ? fixed : nullptr); break;
        case 1: K_ConvertBufferExt(b, w, bs, bd, os, od, fixed, nullptr, flags, lo, hi); break;
        case 2: K_ConvertBufferExt2(b, w, bs, bd, os, od, fixed, nullptr, &c.io, c.i32(), flags, lo, hi); break;
        default: K_ConvertBufferExt3(b, w, bs, bd, os, od, nullptr, fixed, c.orNull(&c.io), 0, flags, lo, hi, c.u32());
    }
}
void opDitherLine(Ctx& c) {  // rows of the record's width in 24 bits in and in its depth out
    BITMAPRECORD* r = c.rec();
    std::vector<uint8_t> in(8016, 0x77), out(8016);
    if (c.isSlot(r) && unsigned(r->nWidth - 1) < 1000) check(c, {r}, [&] { return K_DitherLine(r, &in[0], &out[0]); });
    K_DefaultDithering(c.small(8)), K_GetDefaultDithering();
}

// A region a call made into *out (read after the call) replaces the slot's.
void keepRgn(OrvaRgn** slot, int32_t rc, OrvaRgn** out) {
    if (rc >= 0 && *out) K_DeleteOrvaRgn(*slot), *slot = *out;  // (null: refused)
}
void opOrvaRgn(Ctx& c) {
    OrvaRgn** slot = c.rgnSlot();
    OrvaRgn *out = nullptr, *a, *b;
    uint8_t flags[8];
    int32_t count;
    switch (const uint8_t which = c.byte() % 5) {
        case 0: case 1:  // a new region in the slot: a rectangle, or a copy of another slot's
            if (which == 1 && (a = c.rgnOrNull()) == *slot) return;
            if (*slot) K_DeleteOrvaRgn(*slot), *slot = nullptr;
            which == 0 ? K_CreateOrvaRgnRect(c.orNull(slot), c.rectp()) : K_CopyOrvaRgn(slot, a); break;
        case 2:
            a = c.rgnOrNull(), b = c.rgnOrNull();
            keepRgn(slot, K_CombineOrvaRgn(&out, a, b, c.byte() % 8 - 1), &out); break;
        case 3:
            count = c.byte() < 220 ? c.byte() % 9 : c.i32();
            for (int k = 0; k < 8; ++k) c.pts[k] = POINT{c.coord(), c.coord()}, flags[k] = c.byte();
            if (count <= 8) keepRgn(slot, K_SegmentsToRegion(&out, c.pts, flags, count, c.byte() % 4), &out);
            break;
        default: keepRgn(slot, K_ConvertHandleToRgn(c.handle(), &out), &out);
    }
}
void opHrgn(Ctx& c) {
    const int h = c.byte() % kHandles, which = c.byte() % 7;
    HRGN v = nullptr;
    int32_t count;
    auto del = [&](HRGN g) { return which == 5 ? DeleteObject(g) != 0 : K_WinDeleteObject(g) == KS_SUCCESS; };
    switch (which) {
        case 0: c.putHrgn(h, CreateRectRgn(c.coord(), c.coord(), c.coord(), c.coord())); break;
        case 1: c.putHrgn(h, CreateEllipticRgn(c.coord(), c.coord(), c.coord(), c.coord())); break;
        case 2: if ((count = c.polygon()) <= 8) c.putHrgn(h, CreatePolygonRgn(c.orNull(c.pts), count, c.byte() % 4));
            break;
        case 3: {  // region data of any handle, in a buffer of the size asked or a smaller one, back in
            HRGN src = c.handle();
            const uint32_t need = GetRegionData(src, 0, nullptr);
            std::vector<uint8_t> data(need);
            auto* rd = reinterpret_cast<RGNDATA*>(data.data());
            if (need && need <= kBuf * 4 && GetRegionData(src, c.byte() < 230 ? need : c.u32v() % (need + 1), rd))
                c.putHrgn(h, ExtCreateRegion(nullptr, need, rd));
            break;
        }
        case 4: if (K_WinCreateRectRgn(c.orNull(&v), c.coord(), c.coord(), c.coord(), c.coord()) == 1) c.putHrgn(h, v);
            break;
        default:  // deletes (emulated and kernel form): a live handle must go (its value stays), any other is looked up
            if (c.hrgnLive[h] && !del(c.hrgn[h])) fail(c.op, "delete of a live region failed");
            if (c.hrgnLive[h]) c.hrgnLive[h] = false;
            else if (HRGN g = c.handle(); del(g)) c.forget(g);
    }
}
void opBitmapRgn(Ctx& c) {
    BITMAPRECORD *r = c.rec(), *m;
    const RGNXFORM* xf = c.xform();
    const uint32_t mode = c.mode();
    uint32_t count, mx = 0;
    int32_t need = 0;
    switch (c.byte() % 3) {
        case 0: {
            check(c, {r}, [&] { return K_GetBitmapClipSegmentsMax(r, &mx); });
            std::vector<int32_t> seg(size_t(std::min<uint32_t>(mx, 4096)) * 2 + 2);
            count = uint32_t(seg.size() / 2);
            if (c.byte() > 220) count = c.byte() % 3;  // too small: refused with the needed count
            check(c, {r}, [&] { return K_GetBitmapClipSegments(r, c.coord(), seg.data(), &count); }); break;
        }
        case 1: {
            check(c, {r}, [&] { need = K_GetBitmapRgnData(r, xf, 0, nullptr); return int64_t(0); });
            if (need <= 0 || need > int32_t(kBuf) * 8) return;
            std::vector<uint8_t> data(static_cast<size_t>(need));
            auto* rd = reinterpret_cast<RGNDATA*>(data.data());
            const int32_t given = c.byte() < 220 ? need : int32_t(c.u32v() % uint32_t(need + 1));
            check(c, {r}, [&] { return K_GetBitmapRgnData(r, xf, given, rd); });
            BITMAPRECORD* d = c.rec();
            const int32_t back = c.byte() < 220 ? need : c.i32();
            if (back <= need) check(c, {d}, [&] { return K_SetBitmapRgnData(d, xf, back, rd, mode); });
            break;
        }
        default:  // the mask record is made afresh (a mask as large as a huge source would only slow the run down)
            if ((m = c.rec()) == r || (r && plannedSize(r->nWidth, r->nHeight, 1) > kMaxData)) return;
            fresh(c, m), count = c.sizeWord(200);
            check(c, {r, m}, [&] { return K_CreateMaskFromBitmapRgn(r, m, count); }, 2);
    }
}

void opViewPerspective(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const int32_t from = c.small(10), to = c.small(10), w = c.i32(), h = c.i32();
    RECT* rp = c.rectp();
    int32_t x = c.coord(), y = c.coord(), f, a, kx = x, ky = y;
    const RECT keep = rp ? *rp : RECT{};
    int64_t rc = 0;
    switch (c.byte() % 7) {
        case 0: rc = K_GetChangeViewPerspectiveParams(from, to, c.orNull(&f), &a); break;
        case 1: rc = K_ChangeRectViewPerspective(from, w, h, to, rp); break;
        case 2: rc = K_ChangePointViewPerspective(from, w, h, to, &x, &y); break;
        case 3: rc = check(c, {r}, [&] { return K_RectToBitmap(r, to, rp); }); break;
        case 4: rc = check(c, {r}, [&] { return K_RectFromBitmap(r, to, rp); }); break;
        case 5: rc = check(c, {r}, [&] { return K_PointToBitmap(r, to, &x, &y); }); break;
        default: rc = check(c, {r}, [&] { return K_PointFromBitmap(r, to, &x, &y); }); break;
    }
    // (The point calls leave the rectangle alone, and the rectangle calls the point.)
    if (rc < 0 && ((rp && std::memcmp(rp, &keep, sizeof keep)) || x != kx || y != ky)) fail(c.op, "changed", rc);
}
void opGlobal(Ctx& c) {
    const int h = c.byte() % kHandles;
    HGLOBAL g = nullptr;
    switch (c.byte() % 4) {
        case 0:
            if (!(g = K_GlobalAlloc(c.usmall(0x50), size_t(c.size64()) % (1u << 20)))) return;
            if (c.globLive[h]) K_GlobalFree(c.glob[h]);
            c.glob[h] = g, c.globLive[h] = true; break;
        case 1: {
            g = c.ghandle();
            const size_t sz = size_t(c.size64()), want = sz > (1u << 20) && c.byte() < 250 ? sz % (1u << 20) : sz;
            HGLOBAL n = K_GlobalReAlloc(g, want, c.u32v());
            if (n && K_GlobalSize(n) != want) fail(c.op, "a moved block of another size");
            for (int k = 0; n && n != g && k < kHandles; ++k)
                if (c.glob[k] == g && c.globLive[k]) c.glob[k] = n;
            break;
        }
        case 2:
            if (c.globLive[h] && K_GlobalFree(c.glob[h]) != nullptr) fail(c.op, "free of a live block failed");
            if (c.globLive[h]) c.globLive[h] = false;
            else if (g = c.ghandle(); K_GlobalFree(g) == nullptr) c.forget(g);
            break;
        default:
            if (void* p = K_GlobalLock(g = c.ghandle())) {  // the whole size is usable
                if (const size_t s = K_GlobalSize(g)) static_cast<volatile uint8_t*>(p)[s - 1] = 1;
                K_GlobalUnlock(g);
            }
    }
}
void opMisc(Ctx& c) {
    size_t size;
    uint8_t* b = c.buffer(&size);
    const int32_t count = c.byte() < 220 ? c.byte() : c.i32(), lo = c.byte() % 40 - 4, hi = c.byte() % 40 - 4;
    if (!b || count < 0 || uint64_t(count) * 4 > size) return;
    K_Gray32To16(b, b, count, lo, hi), K_Gray32To8(b, b, count, hi, lo);
    K_PadPixelData(b, c.pick(kDepths) % 33, count / 8, hi, lo, c.byte() % 2);
}
void opMatchTable(Ctx& c) {
    RGBQUAD* pp = c.palOrNull();
    if (uint32_t* t = K_CreateUserMatchTable(pp, c.count256())) {
        uint32_t* old = K_SetUserMatchTable(t);
        K_GetUserMatchTable(), K_SetUserMatchTable(old), K_FreeUserMatchTable(t);
    }
    K_FreeUserMatchTable(nullptr);
}

void opIntoRecord(Ctx& c) {
    static const uint32_t kCarry[] = {191u, 127u, 67u, 321u, 14u, 5u};
    BITMAPRECORD* s = c.rec();
    const uint32_t sw = c.sizeWord(220);
    const int32_t col = c.coord(), row = c.coord(), w = c.targetDim(), h = c.targetDim();
    const uint32_t mem = [&] { const uint32_t t = c.pick(kMemTypes); return t == 2 ? 1u : t; }();  // (no caller memory)
    BITMAPRECORD* d;
    uint32_t carried;
    const auto copy = [&](auto call) { into(c, s, outRec(c, s), call); };
    switch (c.byte() % 7) {
        case 0: copy([&](auto* d) { return K_CopyBitmap(d, s, sw); }); break;
        case 1: copy([&](auto* d) { return K_CopyBitmap2(d, s, sw, mem); }); break;
        case 2: copy([&](auto* d) { return K_CopyBitmapRect(d, s, sw, col, row, w, h); }); break;
        case 3: copy([&](auto* d) { return K_CopyBitmapRect2(d, s, sw, col, row, w, h, mem); }); break;
        case 4:
            if ((d = outRec(c, s)) == s) return;
            carried = c.byte() < 200 ? c.pick(kCarry) : c.u32v();
            check(c, {s, d}, [&] { return K_DupBitmapNewDim(d, s, sw, w, h, carried); }, 2u); break;
        case 5: {  // in place (null destination or the source) or into a fresh record; unchecked on made ones
            const bool unchecked = c.made(s) && c.byte() < 64;
            const int32_t vp = unchecked ? c.byte() % 8 + 1 : c.small(10);
            const uint32_t carry = c.pick(kCarry);
            into(c, s, c.byte() & 1 ? nullptr : outRec(c, s), [&](auto* d) {
                return unchecked ? K_IntChangeBitmapViewPerspective(d, s, BITMAPRECORD_SIZE, vp, carry)
                                 : K_ChangeBitmapViewPerspective(d, s, sw, vp); });
            break;
        }
        default:  // into a destination record the caller prepared (its size names the target)
            if (!(d = c.rec()) || d == s || d == &c.foreign) return;
            fresh(c, d);
            const int32_t bpp = s && krn::recordSizeValid(s->uStructSize) ? s->nBitsPerPixel : 8;
            if (K_InitBitmap(d, BITMAPRECORD_SIZE, w > 0 ? w : 1, h > 0 ? h : 1, bpp) != KS_SUCCESS) return;
            const uint32_t flags = c.resizeFlags();
            int32_t (*const resize)(BITMAPRECORD*, BITMAPRECORD*, uint32_t) =
                std::array{K_ResizeBitmap, K_IntResizeBitmap, K_BicubicResampleBitmapInt}[c.byte() % 3];
            check(c, {s, d}, [&] { return resize(s, d, flags); }, 2u);
    }
}
void opBuffers(Ctx& c) {
    size_t size;
    int32_t rw = 0, rh = 0;
    (void)K_GetRotatedBitmapSize(c.rec(), c.angle(), c.byte() & 1 ? &rw : nullptr, &rh);
    uint8_t* b = c.buffer(&size);
    const int32_t bpp = c.pick(kDepths);
    const uint32_t w = c.usmall(40, 220), h = c.usmall(40, 220);
    // The buffers must hold the image (the caller's duty, not checkable): sized for any depth up to 64 bits.
    const uint64_t bits = bpp > 0 && bpp <= 64 ? uint64_t(bpp) : 64, side = std::max(w, h);
    const uint64_t need = ((side * bits + 31) / 32) * 4 * (side ? side : 1) + 64;
    const uint8_t which = c.byte() % 3;
    if (!b || side > kBuf || need > size || need > kBuf / 2)  // (a larger side would wrap the product)
        return which ? void() : (void)K_RotateBuffer90(nullptr, b, 1, w, h, bpp);  // refusals only: a null source
    std::vector<uint8_t> dst(size_t(need) + 64, 0);
    which == 0 ? K_RotateBuffer90(b, dst.data(), c.byte() & 1, w, h, bpp)
               : which == 1 ? K_RotateBuffer180(b, c.byte() & 1 ? b : dst.data(), w, h, bpp) : K_MirrorLine(b, w, bpp);
}
void opRowResize(Ctx& c) {
    void* data = nullptr;
    const int32_t ow = c.targetDim(), oh = c.targetDim(), nw = c.targetDim(), nh = c.targetDim();
    if (K_StartResize(ow, oh, nw, nh, &data) != KS_SUCCESS) return data ? fail(c.op, "left data") : void();
    std::vector<uint8_t> row(size_t(72) * 8 * 2 + 64, 0x5A);
    const int32_t bpp = c.pick(kDepths);
    int32_t newWidth = 0, rows = 0;
    for (int k = 0; k < 4; ++k) (void)K_Resize(row.data(), c.small(80, 220), bpp, &newWidth, &rows, data);
    if (K_StopResize(data) != KS_SUCCESS) fail(c.op, "stop failed");
}
void opScanLine(Ctx& c) {
    // One row by the stepping rule into buffers that hold every pixel it can reach (larger values: no call).
    const int32_t bpp = c.pick(kDepths), start = c.small(64), step = c.small(9), den = c.small(65), err = c.small(64),
                  rem = c.small(64);
    const uint32_t count = c.usmall(257), bytes = c.u32v();
    if (start > 63 || step > 8 || den > 64 || (den > 0 && (err >= den || rem >= den)) || count > 256) return;
    std::vector<uint8_t> src(20000, 0x5A), dst(20000);  // (64 + 256 * 9 + 1) pixels of 64 bits at most
    uint8_t* const d = c.byte() & 1 ? src.data() : dst.data();
    (c.byte() & 1 ? K_GetResizedScanLine : K_ReverseGetResizedScanLine)(bpp, bytes, start, step, err, rem, src.data(),
                                                                        d, count, den, c.byte() & 1);
}
void opColorRes(Ctx& c) {
    BITMAPRECORD* s = c.rec();
    const int32_t bpp = c.pick(kDepths);
    const uint32_t flags = c.byte() < 220 ? (c.u32() & CRF_ALLFLAGS) : c.u32v();
    const RGBQUAD* pp = c.palOrNull();
    const int32_t n = c.byte() < 220 ? int32_t(c.byte()) + 1 : c.i32();
    if (n > 256 && pp) return;  // a palette shorter than its count is the caller's fault
    BITMAPRECORD* d = c.byte() & 1 ? s : outRec(c, s);
    into(c, s, d, [&, sw = c.sizeWord(220)](auto* d) { return K_ColorResBitmap(s, d, bpp, flags, pp, n, sw); });
}
void opDisplay(Ctx& c) {
    BITMAPRECORD* r = c.rec();
    const uint8_t which = c.byte() % 4;
    if (which == 0)  // the getters answer values, not statuses
        return (void)(K_GetPaintIntensity(r), K_GetPaintContrast(r), K_GetPaintGamma(r),
                      K_GetPaintTable(r, c.orNull(c.t8, 127)), K_GetPaintTable16(r, c.table16()));
    // Table fills: the caller's table holds uLUTLength entries.
    const uint32_t len = c.byte() < 220 ? uint32_t(1) << (c.byte() % 13) : c.u32v();
    const int32_t lo = c.i32(), hi = c.i32(), lb = c.byte() % 17, hb = c.byte() % 17;
    if (which == 1) {
        if (len > 4096) return (void)K_WindowLevelFillLUT(nullptr, len, 0, 0xFFFFFF, 0, 255, 0, 7, 0, 255, 0, 0);
        std::vector<RGBQUAD16> t(len + 1);
        std::vector<uint16_t> g(len + 1);
        const int32_t mn = c.i32(), mx = c.i32(), f = c.i32();
        const uint32_t fl = c.u32v();
        (void)K_WindowLevelFillLUT(reinterpret_cast<RGBQUAD*>(t.data()), len, c.u32(), c.u32(), lo, hi, lb, hb, mn, mx,
                                   f, fl);
        (void)K_WindowLevelFillLUT2(reinterpret_cast<uint8_t*>(g.data()), len, c.u32v(), c.u32v(), lo, hi, lb, hb, mn,
                                    mx, f, fl);
        (void)K_WindowLevelFillLUTExt(t.data(), len, c.u32(), c.u32(), lo, hi, lb, hb, mn, mx, f, fl);
        return (void)K_WindowLevelFillLUTExt2(g.data(), len, c.u32v(), c.u32v(), lo, hi, lb, hb, mn, mx, f, fl);
    }
    BITMAPRECORD* d = c.byte() & 1 ? r : outRec(c, r);
    const uint32_t sw = c.sizeWord(220);
    RGBQUAD lut[4096];
    if (which == 2) into(c, r, d, [&](auto* d) { return K_WindowLevel(r, d, sw, lo, hi, c.i32(), c.u32v()); });
    else if (len <= 4096)
        into(c, r, d, [&](auto* d) { return K_WindowLevelExt(r, d, sw, lut, len, lb, hb, c.u32v()); });
}

// A record whose storage a call moved into a list lets go of it without freeing and starts afresh.
void handedOver(Ctx& c, BITMAPRECORD* r) {
    if (!c.isSlot(r)) return;
    c.keep.push_back(std::exchange(c.caller[r - c.bm], {}));
    std::memset(r, 0, sizeof *r);
    if (K_InitBitmap(r, BITMAPRECORD_SIZE, 8, 8, 8) != KS_SUCCESS) fail(c.op, "init of a fresh record failed");
}
// A call that makes a list into a new slot (or null): nothing is made on failure.
template <class F> void makesList(Ctx& c, F&& call) {
    const int k = c.byte() % kLists;
    if (c.listLive[k] && K_DestroyBitmapList(c.list[k]) != KS_SUCCESS) fail(c.op, "destroying a live list failed");
    c.listLive[k] = false, c.list[k] = nullptr;
    const int32_t rc = call(c.byte() > 245 ? nullptr : &c.list[k]);
    if (rc == KS_SUCCESS) c.listLive[k] = true;
    else if (c.list[k]) fail(c.op, "a failing call made a list", rc);
    else if (rc >= 0) fail(c.op, "odd status", rc);
}
void opList(Ctx& c) {
    const uint8_t which = c.byte() % 11;
    const uint32_t index = c.usmall(6), count = c.usmall(5);
    HBITMAPLIST h;
    BITMAPRECORD *r, *old, tmp, old2;
    int32_t rc, used = 0;
    uint32_t size, got = 0xABCDu;
    const uint32_t bits[] = {0, BRF_FRAME_WAITINPUT, BRF_FRAME_TRANSPARENT, BRF_FRAME_ALPHAOVER};
    switch (which) {
        case 0: makesList(c, [&](HBITMAPLIST* o) { return K_CreateBitmapList(o); }); break;
        case 1: {
            const int k = c.byte() % kLists;
            rc = K_DestroyBitmapList(c.list[k]);
            if (c.listLive[k] && rc != KS_SUCCESS) fail(c.op, "destroying a live list failed", rc);
            if (!c.listLive[k] && c.list[k] && rc == KS_SUCCESS) fail(c.op, "a destroyed list was destroyed again");
            c.listLive[k] = false; break;
        }
        case 2:
            rc = K_GetBitmapListCount(c.listHandle(), c.orNull(&got, 245));
            if (rc < 0 && got != 0xABCDu) fail(c.op, "a failing count wrote its result", rc);
            break;
        case 3:
        case 4:  // insert (or replace): the record's storage moves into the list (never the garbage record's)
            if ((r = c.rec()) == &c.foreign || (old = which == 3 || c.byte() & 1 ? nullptr : outRec(c, r)) == r) return;
            h = c.listHandle(), size = c.sizeWord(220);
            if (check(c, {r, old}, [&] {
                    return which == 3 ? K_InsertBitmapListItem(h, index, r)
                                      : K_ReplaceBitmapListItem(h, index, r, old, size); }, 2u) == KS_SUCCESS)
                handedOver(c, r);
            break;
        case 5:  // take an item out into a fresh slot, or free it (null)
            r = c.byte() & 1 ? nullptr : outRec(c, nullptr);
            check(c, {r}, [&] { return K_RemoveBitmapListItem(c.listHandle(), index, r); }, 1u); break;
        case 6:  // a copy of an item (the list keeps ownership) set back with frame words of the caller's choosing
            std::memset(&tmp, 0xEE, sizeof tmp), std::memset(&old2, 0xEE, sizeof old2);
            h = c.listHandle(), size = c.sizeWord(200);
            rc = K_GetBitmapListItem(h, index, c.orNull(&tmp, 245), size);
            if (rc < 0 && std::memcmp(&tmp, &old2, sizeof tmp)) fail(c.op, "a failing get wrote its record", rc);
            if (rc < 0 || size != BITMAPRECORD_SIZE) return;
            FRAME_LEFT(&tmp) = c.coord(), FRAME_TOP(&tmp) = c.coord(), FRAME_DISPOSAL(&tmp) = c.byte() % 5;
            FRAME_DELAY(&tmp) = c.byte() < 200 ? 0u : c.u32v(), FRAME_TRANSPARENT_COLOR(&tmp) = c.u32v();
            tmp.uFlags = (tmp.uFlags & ~(bits[1] | bits[2] | bits[3])) | c.pick(bits);
            if (K_SetBitmapListItem(h, index, &tmp) != KS_SUCCESS) fail(c.op, "setting back a got item failed");
            break;
        case 7:  // deep copies (or the items themselves) into a new list
        case 8:
            h = c.listHandle();
            makesList(c, [&](HBITMAPLIST* o) {
                return (which == 7 ? K_CopyBitmapListItems : K_MoveBitmapListItems)(o, h, index, count); });
            break;
        case 9:
            h = c.listHandle();
            (void)K_CreateBitmapListOptPal(h, c.orNull(c.pal, 245), c.colours(), c.small(8, 220), c.u32v(), &used);
            break;
        default:  // an empty record set over an item leaves the old one to the caller: only over one owning nothing
            if (K_GetBitmapListItem(h = c.listHandle(), index, &tmp, BITMAPRECORD_SIZE) != KS_SUCCESS)
                return (void)K_SetBitmapListItem(h, index, nullptr);  // refused: no such item
            if (tmp.uFlags & BRF_ALLOCATED || tmp.hRgn || tmp.pPalette || tmp.pCallbacks || tmp.hListBlock) return;
            if (K_SetBitmapListItem(h, index, nullptr) != KS_SUCCESS) fail(c.op, "clearing an item failed");
    }
}
// Playback k is over: its target, a valid bitmap to the end, is freed.
void endPlayback(Ctx& c, int k) {
    c.playLive[k] = false, validate(&c.target[k], c.op);
    if (K_FreeBitmap(&c.target[k]) != KS_SUCCESS) fail(c.op, "freeing a playback target failed");
}
void validateTargets(Ctx& c) {
    for (int p = 0; p < kPlays; ++p) if (c.playLive[p]) validate(&c.target[p], c.op);
}
void destroyPlayback(Ctx& c, int k) {
    if (!c.playLive[k]) return;
    K_DestroyPlayback(c.play[k]) == KS_SUCCESS ? endPlayback(c, k) : fail(c.op, "destroying a live playback failed");
}
void opPlayback(Ctx& c) {
    const uint8_t which = c.byte() % 4;
    const int k = c.byte() % kPlays;
    const int32_t depths[] = {1, 4, 8, 16, 24, 32, 48, 64};
    BITMAPRECORD &t = c.target[k], *r;
    HPLAYBACK h = nullptr;
    HBITMAPLIST l;
    int32_t v = 0, j = 0;
    switch (which) {
        case 0:  // a new playback onto a small target of its own
            destroyPlayback(c, k), std::memset(&t, 0, sizeof t);
            if (K_CreateBitmap(&t, BITMAPRECORD_SIZE, 1, int32_t(c.byte() % 48) + 1, int32_t(c.byte() % 48) + 1,
                               c.pick(depths), c.byte() % 3 - 1, nullptr, c.byte() % 8 + 1, nullptr, 0) != KS_SUCCESS)
                return;
            FRAME_BACKGROUND_COLOR(&t) = c.u32v(), l = c.byte() & 1 ? nullptr : c.listHandle();
            if (check(c, {&t}, [&] { return K_CreatePlayback(c.orNull(&h, 245), &t, l); }) == KS_SUCCESS)
                c.play[k] = h, c.playLive[k] = true;
            else if (h) fail(c.op, "a failing create made a playback");
            else K_FreeBitmap(&t);
            break;
        case 1:  // playback k, or a handle of any kind: only a live playback can be destroyed
            if (c.byte() & 1) destroyPlayback(c, k);
            else if (K_DestroyPlayback(h = c.playHandle()) == KS_SUCCESS) {
                while (j < kPlays && !(c.playLive[j] && c.play[j] == h)) ++j;
                j < kPlays ? endPlayback(c, j) : fail(c.op, "a handle that is not a live playback was destroyed");
            }
            break;
        case 2:  // steps of the state machine (never sleeping on a wait); the target stays a valid bitmap
            h = c.playHandle();
            for (int s = 0, steps = c.byte() % 24 + 1; s < steps; ++s) {
                if (v = -1; K_ProcessPlayback(h, c.orNull(&v, 245)) != KS_SUCCESS) break;
                if (v >= 0 && (v < PLAYBACK_STATE_CLEAR || v > PLAYBACK_STATE_END)) fail(c.op, "no such state", v);
                if (v >= PLAYBACK_STATE_WAITINPUT && v <= PLAYBACK_STATE_WAITBOTH) K_CancelPlaybackWait(h);
            }
            break;
        default:  // a frame appended: its storage moves into the playback's list
            if ((r = c.rec()) != &c.foreign && check(c, {r}, [&] { return K_AppendPlayback(c.playHandle(), r); }) == 1)
                handedOver(c, r);
    }
    validateTargets(c);
}

void opCritical(Ctx& c) {  // create, enter (nested), leave, delete in order: the documented statuses at each step
    CRITICAL_SECTION cs{};
    const int depth = c.byte() % 4;
    bool ok = K_IntEnterCriticalSection(&cs) == KS_INVALID_PARAMETER && K_IntInitializeCriticalSection(&cs) == 1;
    for (int k = 0; k < 2 * depth; ++k)
        ok = ok && (k < depth ? K_IntEnterCriticalSection(&cs) : K_IntLeaveCriticalSection(&cs)) == KS_SUCCESS;
    ok = ok && K_IntLeaveCriticalSection(&cs) == KS_INTERNAL && K_IntDeleteCriticalSection(&cs) == KS_SUCCESS;
    ok = ok && !cs.pLock && K_IntInitializeCriticalSection(nullptr) == KS_INVALID_PARAMETER;
    if (!ok || K_IntDeleteCriticalSection(nullptr) != KS_NULL_POINTER) fail(c.op, "a step gave another status");
}
// A redirected handle around a native value no table function ever sees: its table read and replaced, the
// handle released without closing. The big transfers refuse handles that are not live.
void opRedirectHandle(Ctx& c) {
    HREDIRECTFILE h = nullptr;
    void* native = nullptr;
    if (K_CreateRedirectedFileHandle(c.orNull(&h), c.orNull(&c.foreign, 127), c.orNull(&c.redir)) == KS_SUCCESS) {
        K_ExtractRedirectFunctions(h, c.orNull(&c.redir)), K_UpdateRedirectFunctions(h, c.orNull(&c.redir));
        if (K_ExtractRedirectedFileHandle(h, &native, 1) != 1 || native != &c.foreign) fail(c.op, "native lost");
    }
    const HREDIRECTFILE gone[] = {nullptr, h, HREDIRECTFILE(&c.foreign), HREDIRECTFILE(OMBRIX_INVALID_FILE)};
    if (K_RedirectedReadBig(c.pick(gone), c.t8, 1 + c.byte() % 255) != -1) fail(c.op, "read from no file");
    if (K_RedirectedWriteBig(c.pick(gone), c.t8, 1 + c.byte() % 255) != -1) fail(c.op, "write to no file");
}
// Progress comes in whole percentages; an allocation callback sees the record and its description.
int32_t percent(int32_t p, void*) { return p >= 0 && p <= 100 ? 1 : (fail("progress", "not a percentage", p), 0); }
int32_t allocated(BITMAPRECORD* r, BITMAPALLOCINFO* i, void* answer) {
    if (!r || !i || i->uStructSize != BITMAPALLOCINFO_SIZE) fail("allocation callback", "no record or description");
    return *static_cast<int32_t*>(answer);
}
const int32_t kAnswers[] = {1, 1, 1, KS_NO_MEMORY, KS_FAILURE, KS_INVALID_PARAMETER};

// Made for their refusals of hostile values under the sanitizers; a refused rectangle change leaves the
// rectangle alone, a playback target stays a valid bitmap.
struct Op { const char* name; void (*fn)(Ctx&); };
#define PLAIN(...) {#__VA_ARGS__, [](Ctx& c) { (void)c, (void)(__VA_ARGS__); }}
const Op kPlainCalls[] = {
    PLAIN(IntersectRect(&c.box, c.rect4(0), c.rect4(1))), PLAIN(UnionRect(&c.box, c.rect4(0), c.rect4(1))),
    PLAIN(c.sameIfRefused(InflateRect(c.rect4(0), c.i32(), c.i32()))),
    PLAIN(c.sameIfRefused(OffsetRect(c.rect4(0), c.i32(), c.i32()))),
    PLAIN(PtInRect(c.rect4(0), *c.point()), IsRectEmpty(c.rect4(0)), EqualRect(c.rect4(0), c.rect4(1)),
          SetRectEmpty(&c.box), CopyRect(&c.box, c.rect4(0))),
    PLAIN(SetRect(c.orNull(&c.box), c.i32(), c.i32(), c.i32(), c.i32())),
    PLAIN(K_Rect_Inflate(c.rect4(0), c.i32(), c.i32())), PLAIN(K_Rect_Offset(c.rect4(0), c.i32(), c.i32())),
    PLAIN(K_Rect_Intersect(&c.box, c.rect4(0), c.rect4(1)), K_Rect_IntersectsWith(c.rect4(0), c.rect4(1)),
          K_Rect_Union(&c.box, c.rect4(0), c.rect4(1))),
    PLAIN(K_Rect_Width(c.rect4(0)), K_Rect_Height(c.rect4(0)), K_Rect_Size(c.rect4(0)),
          K_Rect_ContainsPoint(c.rect4(0), c.point())),
    PLAIN(K_Rect_ContainsRect(c.rect4(0), c.rect4(1)), K_Rect_Make(c.i32(), c.i32(), c.i32(), c.i32())),
    PLAIN(K_Point_Offset(c.point(), c.i32(), c.i32()), K_Rect_BottomRight(c.rect4(0)), K_Rect_ToRectD(c.rect4(0))),
    PLAIN(K_Rect_IsEmpty(nullptr), K_Rect_Width(nullptr), K_Rect_Intersect(nullptr, c.rect4(0), nullptr)),
    PLAIN(K_SinValue(c.i32()), K_CosValue(c.i32()), K_SQRT(c.u32())),
    PLAIN(K_SetDefaultXResolution(c.i32()), K_SetDefaultYResolution(c.i32()), K_GetDefaultXResolution(),
          K_GetDefaultYResolution()),
    PLAIN(K_HSVtoRGB2(c.hsv()), K_RGBtoHSV2(c.u32v(), c.orNull(c.hsv3)), K_HSVtoRGB(c.u32v()), K_RGBtoHSV(c.u32v())),
    PLAIN(K_GetTempFileOptions(c.orNull(&c.tempOptions), c.byte() < 200 ? TEMPFILEOPTIONS_SIZE : c.u32v()),
          K_GetTempDirectoryUtf8(c.orNull(c.dir), c.byte() % 65)),
    PLAIN(K_GetStatusCallBack(&c.status, c.orNull(&c.user)), K_GetCopyStatusCallBack(c.orNull(&c.status), &c.user)),
    PLAIN(K_GetVersionString(), K_GetProcessorCount(), K_GetCpuFeatures()),
    PLAIN(K_SetStatusCallBack(c.orNull(&percent), nullptr, c.orNull(&c.status), c.orNull(&c.user)),
          K_SetCopyStatusCallBack(c.orNull(&percent), nullptr, c.orNull(&c.status), c.orNull(&c.user))),
    PLAIN(c.allocAnswer = c.pick(kAnswers), K_SetAllocateBitmapCallback(c.orNull(&allocated, 200), &c.allocAnswer,
                                                                         nullptr, nullptr)),
    PLAIN(K_RedirectIO(c.empty(), c.empty(), c.empty(), c.empty(), c.empty(), nullptr), K_UsesRedirectIO()),
    PLAIN(K_GetRedirectFunctions(c.orNull(&c.redir), c.sizeWord(220) == BITMAPRECORD_SIZE ? REDIRECTRECORD_SIZE : 0,
                                 c.small(5), c.byte() & 1)),
    PLAIN(K_SetRedirectFunctions(c.orNull(&c.redir), c.small(4), 0)),
    // temporary files: names that create nothing, the thread's folder only back to the default, the
    // process's options only for a moment
    PLAIN(K_GetTempDirectory(c.orNull(c.msg), c.byte() % 65), K_GetTempFileMode(), K_IntGetNetscapePalette()),
    PLAIN(c.prefix(), K_GetTempFileNameNumbered(c.orNull(c.name), c.orNull(c.pre), c.u32v()),
          K_GetTempFileNameNumberedUtf8(c.orNull(c.name8), c.orNull(c.pre8), c.u32v())),
    PLAIN(K_SetTempDirectory(c.orNull(L"")), K_SetTempDirectoryUtf8(c.byte() & 1 ? "\xC0\x80" : nullptr)),
    PLAIN(K_GetTempFileOptions(&c.keptOptions, TEMPFILEOPTIONS_SIZE), K_SetTempFileOptions(c.orNull(c.options())),
          K_SetTempFileOptions(&c.keptOptions)),
    PLAIN(K_SetDefaultMemoryType(c.byte() & 1 ? c.u32v() : c.pick(kMemTypes)), K_GetDefaultMemoryType()),
    PLAIN(K_SetMemoryThresholds(c.i32(), c.i32(), c.i32(), c.i32(), c.i32(), c.u32v())),
    PLAIN(K_GetMemoryThresholds(c.orNull(&c.io, 127), c.orNull(&c.io2, 127), c.orNull(&c.io, 127),
                                c.orNull(&c.io2, 127), c.orNull(&c.io, 127))),
    PLAIN(K_GetGlobalMemoryThresholds(c.orNull(&c.thresholds)), K_SetGlobalMemoryThresholds(c.orNull(c.sized()))),
    PLAIN(K_GlobalUnlock(c.ghandle()), K_GlobalSize(c.ghandle())),
    PLAIN((c.uo = c.usmall(65, 220)) <= 64 ? K_GetFriendlyErrorMessage(c.i32(), c.orNull(c.msg), c.uo, c.lib) : 0,
          K_GetLibIdFromErrorCode(c.i32(), &c.io, c.orNull(&c.io2))),
    PLAIN(K_GetFixedPalette(c.palOrNull(), c.pick(kDepths))), PLAIN(K_IntGetFixedPalette(c.pick(kDepths))),
    PLAIN(K_GlobalFree(K_CreateGrayPalette(c.pick(kDepths))), K_GlobalFree(K_CreateFixedPalette(c.pick(kDepths)))),
    PLAIN(K_GlobalFree(K_DupPalette(c.palOrNull(), c.count256())), K_IsGrayScalePalette(c.palOrNull(), c.count256())),
    PLAIN(K_FindPaletteIndex(c.palOrNull(), c.count256(), c.i32(), c.i32(), c.i32())),
    PLAIN(K_OffsetOrvaRgn(*c.rgnSlot(), c.i32(), c.i32()),
          K_ScaleOrvaRgn(*c.rgnSlot(), c.i32(), c.i32(), c.i32(), c.i32())),
    PLAIN(K_IsPtInOrvaRgn(*c.rgnSlot(), c.coord(), c.coord(), &c.io, &c.io2)),
    PLAIN(K_GetOrvaRgnBounds(*c.rgnSlot(), c.orNull(&c.box)), K_ClipOrvaRgnRect(*c.rgnSlot(), c.rectp())),
    PLAIN(CombineRgn(c.handle(), c.handle(), c.handle(), c.byte() % 8 - 1), OffsetRgn(c.handle(), c.i32(), c.i32())),
    PLAIN(GetRgnBox(c.handle(), c.orNull(&c.box)), PtInRegion(c.handle(), c.coord(), c.coord())),
    PLAIN(SetRectRgn(c.handle(), c.coord(), c.coord(), c.coord(), c.coord())),
    PLAIN((c.io = c.byte() < 200 ? c.byte() % 65 : c.i32()) <= 64 ? GetObject(c.handle(), c.io, c.orNull(c.t8)) : 0),
    PLAIN(K_DeleteBitmapListItems(c.listHandle(), c.usmall(6), c.usmall(5))),
    PLAIN(K_SetPlaybackIndex(c.playHandle(), c.byte() < 220 ? int32_t(c.byte() % 8) - 1 : c.i32()),
          K_ValidatePlaybackLines(c.playHandle(), c.i32(), c.i32()), K_CancelPlaybackWait(c.playHandle())),
    PLAIN(K_GetPlaybackUpdateRect(c.playHandle(), c.orNull(&c.box, 245), c.byte() & 1)),
    PLAIN(K_ClearPlaybackUpdateRect(c.playHandle()), K_GetPlaybackState(c.playHandle(), c.orNull(&c.io, 245)),
          K_GetPlaybackIndex(c.playHandle(), c.orNull(&c.io, 245)),
          K_GetPlaybackDelay(c.playHandle(), c.orNull(&c.uo, 245))),
};
void opPlainCall(Ctx& c) {
    const Op& k = c.pick(kPlainCalls);
    c.op = k.name, k.fn(c), validateTargets(c);
}

#define OP(f) {#f, f}
const Op kOps[] = {  // (listed more than once: the ops behind the most functions get more steps)
    OP(opRecordCall), OP(opRecordCall), OP(opRecordCall), OP(opRecordCall), OP(opRecordCall), OP(opPlainCall),
    OP(opPlainCall), OP(opPlainCall), OP(opInit), OP(opCreate), OP(opCreate), OP(opAllocate), OP(opFree),
    OP(opSetDataPointer), OP(opIntAccessRelease), OP(opRelabel), OP(opManageMemory), OP(opRows), OP(opRows),
    OP(opRuns), OP(opMatchTable), OP(opConvert), OP(opDitherLine), OP(opOrvaRgn), OP(opHrgn),
    OP(opHrgn), OP(opBitmapRgn), OP(opViewPerspective), OP(opGlobal), OP(opMisc), OP(opIntoRecord),
    OP(opIntoRecord), OP(opBuffers), OP(opRowResize), OP(opScanLine), OP(opCritical), OP(opRedirectHandle),
    OP(opColorRes), OP(opDisplay), OP(opList), OP(opList), OP(opPlayback)};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The same settings for every input, so that a finding replays (copied: the default largest image is not
    // a value the setter takes). What the library makes once and keeps (the resampler keeps two blocks from
    // its first enlargement) is made before the first count of live blocks.
    static const krn::ThreadSettings base = [] {
        BITMAPRECORD bm;
        if (K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 8, 8, 8, 0, nullptr, 1, nullptr, 0) == KS_SUCCESS)
            K_BicubicResampleBitmap(&bm, 72, 72, 0), K_FreeBitmap(&bm);
        return krn::settings();
    }();
    krn::settings() = base;
    K_SetGlobalMemoryThresholds(nullptr), K_ManageMemory(MANAGEMEMORY_SET_CAP, kCap, nullptr);
    int64_t counter0 = 0, counter1 = 0;
    K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter0);
    const long live0 = krn::faultinject::liveBlocks();
    static const bool trace = std::getenv("FUZZ_API_TRACE");  // prints each step; FUZZ_API_DUMP=<file> keeps the input
    if (static const char* dump = std::getenv("FUZZ_API_DUMP"); dump)
        if (FILE* f = std::fopen(dump, "wb")) std::fwrite(data, 1, size, f), std::fclose(f);
    auto* c = new Ctx{{data, size}};
    for (auto& b : c->bm) K_InitBitmap(&b, BITMAPRECORD_SIZE, 8, 8, 8);
    // A record the library never made: garbage seeded by the input, not marked allocated, but for the
    // pointers to caller-owned memory (no library can check those); its region handle stays garbage.
    BITMAPRECORD& g = c->foreign;
    uint32_t x = c->u32() | 1;
    for (uint8_t& b : std::span(reinterpret_cast<uint8_t*>(&g), sizeof g)) x ^= x << 13, x ^= x >> 17, b = x ^= x << 5;
    g.uStructSize = c->byte() & 1 ? BITMAPRECORD_SIZE : BITMAPRECORD_SIZE_OLD, g.uFlags &= ~BRF_ALLOCATED;
    g.hMemory = g.pData = nullptr, g.pDitherState = g.pLUT = g.pOverlays = g.pExtraData = nullptr;
    g.pPalette = nullptr, g.hListBlock = nullptr, g.pCallbacks = nullptr;
    c->buf[0].assign(kBuf, uint8_t(c->i * 31)), c->buf[1].assign(c->byte() * 8 + 1, 0);

    for (int step = 0; step < 48 && c->more(); ++step) {
        const Op& op = c->pick(kOps);
        const size_t at = c->i;
        c->op = op.name, op.fn(*c);
        if (trace) std::fprintf(stderr, "step %d: %s (bytes %zu..%zu)\n", step, c->op, at, c->i);
        if (op.fn != opRelabel) c->unlabel();  // (unless the call wrote a new size word itself: init, create)
    }
    c->unlabel();

    c->op = "cleanup";  // everything is freed and the counters are back
    for (int k = 0; k < kPlays; ++k) destroyPlayback(*c, k);
    for (int k = 0; k < kLists; ++k)
        if (c->listLive[k] && K_DestroyBitmapList(c->list[k]) != KS_SUCCESS) fail(c->op, "live list not destroyable");
    for (int s = 0; s < kSlots; ++s) validate(&c->bm[s], c->op), freeSlot(*c, s);
    K_FreeBitmap(&c->foreign);  // what calls attached to it (region, palette)
    for (auto* r : c->rgn) K_DeleteOrvaRgn(r);  // (null: refused)
    for (int h = 0; h < kHandles; ++h)
        if ((c->hrgnLive[h] && !DeleteObject(c->hrgn[h])) || (c->globLive[h] && K_GlobalFree(c->glob[h])))
            fail(c->op, "a live handle cannot be freed");
    K_SetUserMatchTable(nullptr), K_SetAllocateBitmapCallback(nullptr, nullptr, nullptr, nullptr);
    delete c;
    K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter1);
    if (counter1 != counter0) fail("cleanup", "conventional-memory counter not back", counter1 - counter0);
    if (const long d = krn::faultinject::liveBlocks() - live0) fail("cleanup", "kernel blocks leaked", d);
    return 0;
}
