// combine.cpp - K_CombineBitmapKrn: a source rectangle merged into a
// destination rectangle under a two-operand operation (docs/combine.md).
//
// Order of work: records and flag word are checked and the combine plan is
// derived before anything is touched; the rectangle is clipped to both
// bitmaps in the top-left view and mapped into each bitmap's stored
// orientation; every buffer is allocated; only then are rows combined.
// Single-block and caller-memory bitmaps without a region are combined in
// place (compute-bound operations over the parallel row helper); every other
// storage kind goes through the row layer, writing only the destination
// region's clip segments.
#include <algorithm>
#include <cstring>

#include "../../dis/common/bitmaprgn.h"
#include "combine.h"
#include "convert_kernels.h"
#include "kernel.h"
#include "memory.h"
#include "parallel.h"
#include "progress.h"
#include "storage.h"

namespace krn {

int32_t combinePlan(uint32_t flags, int32_t dstBpp, CombinePlan* out) noexcept {
    if (flags > 0xFFFFu) return KS_INVALID_PARAMETER;
    const uint32_t sop = flags & kCombineSrcMask, dop = (flags & kCombineDstMask) >> 4;
    const uint32_t op = (flags & kCombineOpMask) >> 8, rop = (flags & kCombineResMask) >> 12;
    if (sop > 3 || dop > 3 || op > 0xD || rop > 3) return KS_INVALID_PARAMETER;

    auto apply = [](uint32_t pattern, uint32_t oper) -> uint32_t {
        switch (oper) {
            case 1: return ~pattern & 0xFFu;
            case 2: return 0x00u;
            case 3: return 0xFFu;
            default: return pattern;
        }
    };
    const uint32_t s = apply(0xCC, sop), d = apply(0xAA, dop);
    uint32_t t;
    switch (op) {
        case 0x0: case 0x6: case 0xA: t = s & d; break;             // and, multiply, minimum
        case 0x1: case 0x3: case 0x9: case 0xB: case 0xD: t = s | d; break;  // or, add, average, maximum, alpha
        case 0x2: t = s ^ d; break;
        case 0x4: t = d & ~s; break;
        case 0x5: t = s & ~d; break;
        case 0x7: case 0xC: t = d; break;
        default: t = s; break;                                       // 0x8
    }
    t = apply(t & 0xFFu, rop);
    const uint16_t truth = uint16_t(t & 0x0F);
    uint16_t word = truth;
    const bool division = op == 0x7 || op == 0x8;
    if (dstBpp == 1 || op <= 0x2) word |= kPlanBitwise;
    const bool already = word & kPlanBitwise;
    if (truth == 0x0 || truth == 0xF) {
        word = uint16_t(kPlanBitwise | truth);
    } else if (truth == 0x3 || truth == 0xC) {
        if (!already && division) word |= kPlanReadSrc | kPlanReadDst;
        else word = uint16_t(kPlanBitwise | kPlanReadSrc | truth);
    } else if (truth == 0x5 || truth == 0xA) {
        if (!already && division) word |= kPlanReadSrc | kPlanReadDst;
        else word = uint16_t(kPlanBitwise | kPlanReadDst | truth);
    } else {
        word |= kPlanReadSrc | kPlanReadDst;
    }
    if (!(word & kPlanBitwise)) {
        word &= 0xFF00;
        if (op != 0xC) word |= uint16_t(op == 0xD ? uint32_t(kRowAlpha) : 0x10u + (op - 3));
        if (sop == 1) word |= kPlanInvSrc;
        if (dop == 1) word |= kPlanInvDst;
        if (rop == 1) word |= kPlanInvRes;
    }
    out->word = word;
    out->srcOp = uint8_t(sop);
    out->dstOp = uint8_t(dop);
    out->resOp = uint8_t(rop);
    return KS_SUCCESS;
}

CombineFormat combineFormat(const BITMAPRECORD* bm) noexcept {
    CombineFormat f;
    f.bpp = bm->nBitsPerPixel;
    auto greyMax = [&](int32_t depth) -> uint32_t {
        const int32_t hi = bm->nHighBit;
        if (hi >= 0 && hi < depth) return (1u << (hi + 1)) - 1;
        return (1u << depth) - 1;
    };
    switch (f.bpp) {
        case 8: case 24: f.kind = SampleKind::Bytes; f.maxSample = 255; break;
        case 32:
            f.kind = SampleKind::Bytes;
            f.maxSample = 255;
            f.alpha = bm->nOrder != ORDER_GRAY;
            break;
        case 12: f.kind = SampleKind::Grey12; f.maxSample = greyMax(12); break;
        case 16:
            if (bm->nOrder == ORDER_GRAY) {
                f.kind = SampleKind::Words;
                f.maxSample = greyMax(16);
            } else if (bm->nOrder == ORDER_RGB565) {
                f.kind = SampleKind::Rgb565;
                f.maxSample = 31;
            } else {
                f.kind = SampleKind::Rgb555;
                f.maxSample = 31;
            }
            break;
        case 48: f.kind = SampleKind::Words; f.maxSample = 65535; break;
        case 64:
            f.kind = SampleKind::Words;
            f.maxSample = 65535;
            f.alpha = true;
            break;
        default:
            f.kind = SampleKind::Bits;
            f.maxSample = f.bpp >= 1 && f.bpp <= 7 ? (1u << f.bpp) - 1 : 1u;
            break;
    }
    return f;
}

namespace {

void viewedSize(const BITMAPRECORD* bm, int64_t* w, int64_t* h) noexcept {
    *w = bm->nWidth;
    *h = bm->nHeight;
    if (bm->nViewPerspective >= 5 && bm->nViewPerspective <= 8) std::swap(*w, *h);
}

struct Accessed {
    BITMAPRECORD* bm = nullptr;
    int32_t ok = 0;
    int32_t open(BITMAPRECORD* b) noexcept {
        bm = b;
        return K_IntAccessBitmap(b, &ok);
    }
    int32_t close(int32_t status) noexcept {
        if (!bm) return status;
        int32_t r = K_IntReleaseBitmap(bm, ok, status);
        bm = nullptr;
        return r;
    }
    ~Accessed() { close(KS_SUCCESS); }
};

bool computeBound(const CombinePlan& p, const CombineFormat& f) noexcept {
    if (p.bitwise()) return false;
    const uint8_t c = p.rowCode();
    return c == kRowMul || c == kRowDivSrc || c == kRowDivDst || (c == kRowAlpha && f.alpha) ||
           f.kind != SampleKind::Bytes;
}

struct Job {
    CombinePlan plan;
    CombineFormat fmt;
    CombineRowFn fn;
    BITMAPRECORD* dst;
    BITMAPRECORD* src;         // null when the plan does not read the source
    int32_t dl, dt;            // stored destination rectangle corner
    int32_t sl, st;            // stored source rectangle corner
    uint32_t n;                // pixels per row
    int32_t rows;
    bool reverseSrc;           // source rows run bottom-up relative to the destination
    bool bottomUp;             // process rows last to first (same bitmap, overlapping)
    const uint8_t* zeroRow;    // stands in for the source when it is not read
    uint8_t* scratch;          // per slot
    size_t scratchBytes;
};

int32_t srcRowOf(const Job& j, int32_t r) noexcept { return j.reverseSrc ? j.st + j.rows - 1 - r : j.st + r; }

int32_t directBand(void* ctx, int32_t y0, int32_t y1, int32_t slot) {
    const Job& j = *static_cast<const Job*>(ctx);
    const uint32_t bpp = uint32_t(j.fmt.bpp);
    const uint64_t dbit = uint64_t(uint32_t(j.dl)) * bpp, sbit = uint64_t(uint32_t(j.sl)) * bpp;
    uint8_t* scratch = j.scratch + size_t(slot) * j.scratchBytes;
    for (int32_t r = y0; r < y1; ++r) {
        const int32_t rr = j.bottomUp ? j.rows - 1 - r : r;
        uint8_t* drow = j.dst->pData + uint64_t(uint32_t(j.dt + rr)) * j.dst->nBytesPerLine + (dbit >> 3);
        CombineRowArgs a;
        if (j.src) {
            a.src = j.src->pData + uint64_t(uint32_t(srcRowOf(j, rr))) * j.src->nBytesPerLine + (sbit >> 3);
            a.srcBit = uint32_t(sbit & 7);
        } else {
            a.src = j.zeroRow;
            a.srcBit = uint32_t(dbit & 7);
        }
        a.dst = drow;
        a.dstBit = uint32_t(dbit & 7);
        a.n = j.n;
        a.scratch = scratch;
        j.fn(j.plan, j.fmt, a);
    }
    return KS_SUCCESS;
}

// Whether reading or writing a row of bm can fail once the bitmap is
// accessed: the compressed kinds allocate as they decode and re-encode a row,
// file tiles and disk files without a mapping go through the file layer, and
// a caller's row callback may refuse. Rows in memory (single blocks, tiles in
// memory, mapped files) are copied and cannot fail.
bool rowAccessCanFail(const BITMAPRECORD* bm) noexcept {
    const uint32_t f = bm->uFlags;
    if (f & (BRF_COMPRESSED | BRF_SUPERCOMPRESSED)) return true;
    if (isCurrentLayout(bm) && bm->pCallbacks) return true;
    if (f & BRF_TILED) {
        const auto* t = reinterpret_cast<const TileTable*>(bm->pData);
        if (!t) return true;
        for (uint32_t i = 0; i < t->count; ++i)
            if (!tileView(t->tiles[i])) return true;
        return false;
    }
    if (f & BRF_DISK) {
        const auto* d = static_cast<const DiskStore*>(bm->hMemory);
        return !d || !d->map.data;
    }
    return false;
}

// The original bytes of each destination row span, kept before the row is
// written, so that a failure in a later row puts every written row back (last
// first) and the call changes nothing. Allocated with the other buffers, and
// only where a row access of either bitmap can fail and the whole journal
// fits kJournalBytes.
constexpr uint64_t kJournalBytes = 64ull << 20;
struct RowJournal {
    UniqueMem<uint8_t> bytes;
    UniqueMem<int32_t> rows;
    uint32_t span = 0;
    int32_t count = 0;

    // Keeps row y's span (from pixel col) before it is written.
    int32_t keep(BITMAPRECORD* dst, int32_t y, int32_t col) noexcept {
        if (!bytes) return KS_SUCCESS;
        const int32_t got = K_GetBitmapRowCol(dst, bytes.get() + size_t(count) * span, y, col, span);
        if (got < 0) return got;
        rows.get()[count++] = y;
        return KS_SUCCESS;
    }
    const uint8_t* last() const noexcept { return count ? bytes.get() + size_t(count - 1) * span : nullptr; }
    // Puts the kept rows back, last first, and returns the failure rc.
    int32_t fail(int32_t rc, BITMAPRECORD* dst, int32_t col) noexcept {
        for (int32_t k = count - 1; k >= 0; --k)
            K_PutBitmapRowCol(dst, bytes.get() + size_t(k) * span, rows.get()[k], col, span);
        count = 0;
        return rc;
    }
};

// Through the row layer, any storage kind, region clip segments honoured.
int32_t rowLayerLoop(const Job& j) noexcept {
    const uint32_t bpp = uint32_t(j.fmt.bpp);
    const uint64_t dbit = uint64_t(uint32_t(j.dl)) * bpp, sbit = uint64_t(uint32_t(j.sl)) * bpp;
    const uint32_t dByte0 = uint32_t(dbit >> 3);
    const uint32_t dSpan = uint32_t((dbit + uint64_t(j.n) * bpp + 7) / 8 - dByte0);
    const uint32_t sSpan = uint32_t((sbit + uint64_t(j.n) * bpp + 7) / 8 - (sbit >> 3));
    const uint32_t segMax = clipSegmentsMax(j.dst) + 2;
    UniqueMem<uint8_t> dstRow(static_cast<uint8_t*>(memCalloc(size_t(j.dst->nBytesPerLine) + 16)));
    UniqueMem<uint8_t> srcRow(static_cast<uint8_t*>(memCalloc(size_t(sSpan) + 16)));
    UniqueMem<int32_t> segs(memAllocArray<int32_t>(size_t(segMax) * 2));
    // 12-bit rows keep the odd pixel's low bits in the high nibble of the
    // middle byte, which the segment writer does not mask: this loop keeps the
    // pixels outside the segments itself and writes whole spans.
    const bool grey12 = bpp == 12;
    UniqueMem<uint8_t> orig(grey12 ? static_cast<uint8_t*>(memAlloc(size_t(dSpan) + 2)) : nullptr);
    if (!dstRow || !srcRow || !segs || (grey12 && !orig)) return KS_NO_MEMORY;
    RowJournal journal;
    journal.span = dSpan;
    if ((rowAccessCanFail(j.dst) || (j.src && rowAccessCanFail(j.src))) && uint64_t(dSpan) * uint64_t(j.rows) <= kJournalBytes) {
        journal.bytes.reset(static_cast<uint8_t*>(memAlloc(size_t(dSpan) * size_t(j.rows))));
        journal.rows.reset(memAllocArray<int32_t>(size_t(j.rows)));
        if (!journal.bytes || !journal.rows) return KS_NO_MEMORY;
    }
    int32_t* clipped = segs.get() + segMax;
    // 12-bit rows at an odd pixel keep one byte in front of the first pixel.
    uint8_t* sdata = srcRow.get() + 8;
    Progress prog = Progress::status(j.rows);
    int32_t rc = prog.begin();
    if (rc != KS_SUCCESS) return rc;
    const int32_t x0 = j.dl, x1 = j.dl + int32_t(j.n);
    for (int32_t r = 0; r < j.rows; ++r) {
        const int32_t rr = j.bottomUp ? j.rows - 1 - r : r;
        const int32_t yd = j.dt + rr;
        const uint32_t cnt = clipSegments(j.dst, yd, segs.get());
        uint32_t m = 0;
        for (uint32_t i = 0; i + 1 < cnt; i += 2) {
            const int32_t a = std::max(segs.get()[i], x0), b = std::min(segs.get()[i + 1], x1);
            if (a < b) {
                clipped[m++] = a;
                clipped[m++] = b;
            }
        }
        if (m) {
            uint8_t* drow = dstRow.get() + dByte0;
            rc = journal.keep(j.dst, yd, j.dl);
            if (rc != KS_SUCCESS) return journal.fail(rc, j.dst, j.dl);
            if (j.plan.readsDst() || grey12) {
                if (const uint8_t* kept = journal.last()) {
                    std::memcpy(drow, kept, dSpan);  // the row was just read into the journal
                } else {
                    int32_t got = K_GetBitmapRowCol(j.dst, drow, yd, j.dl, dSpan);
                    if (got < 0) return journal.fail(got, j.dst, j.dl);
                }
            }
            CombineRowArgs a;
            if (j.src) {
                int32_t got = K_GetBitmapRowCol(j.src, sdata, srcRowOf(j, rr), j.sl, sSpan);
                if (got < 0) return journal.fail(got, j.dst, j.dl);
                a.src = sdata;
                a.srcBit = uint32_t(sbit & 7);
            } else {
                a.src = j.zeroRow;
                a.srcBit = uint32_t(dbit & 7);
            }
            a.dst = drow;
            a.dstBit = uint32_t(dbit & 7);
            a.n = j.n;
            a.scratch = j.scratch;
            if (grey12) std::memcpy(orig.get() + 1, drow, dSpan);
            j.fn(j.plan, j.fmt, a);
            if (grey12) {
                // Restore the pixels between the segments; indices relative to the span's triple.
                const uint32_t par = uint32_t(j.dl & 1);
                uint8_t* base = drow - par;
                const uint8_t* obase = orig.get() + 1 - par;
                int32_t x = x0;
                for (uint32_t i = 0; i <= m; i += 2) {
                    const int32_t until = i < m ? clipped[i] : x1;
                    for (; x < until; ++x)
                        conv::write12(base, size_t(x - x0) + par, conv::read12(obase, size_t(x - x0) + par));
                    if (i < m) x = clipped[i + 1];
                }
                int32_t put = K_PutBitmapRowCol(j.dst, drow, yd, j.dl, dSpan);
                rc = put < 0 ? put : KS_SUCCESS;
            } else {
                rc = K_PutBitmapRowSegments(j.dst, dstRow.get(), yd, clipped, int32_t(m / 2));
            }
            if (rc != KS_SUCCESS) return journal.fail(rc, j.dst, j.dl);
        }
        rc = prog.step(r + 1);
        if (rc != KS_SUCCESS) return rc;
    }
    return prog.finish();
}

// A converted copy of the source, freed with the call.
struct TempRecord {
    BITMAPRECORD rec{};
    bool used = false;
    ~TempRecord() {
        if (used) K_FreeBitmap(&rec);
    }
};

int32_t reportNothing() noexcept {
    Progress p = Progress::status(1);
    int32_t rc = p.step(0);
    if (rc != KS_SUCCESS) return rc;
    return p.step(1);
}

}  // namespace

// Flags for tests and the benchmark: 0 automatic, 1 plain kernels only, 2 no
// in-place path (always the row layer), 4 one thread.
static thread_local uint32_t tCombineTestMode = 0;
uint32_t setCombineTestMode(uint32_t mode) noexcept {
    uint32_t old = tCombineTestMode;
    tCombineTestMode = mode;
    return old;
}

int32_t combineBitmap(BITMAPRECORD* pDst, int32_t nXDst, int32_t nYDst, int32_t nWidth, int32_t nHeight,
                      BITMAPRECORD* pSrc, int32_t nXSrc, int32_t nYSrc, uint32_t uFlags) noexcept {
    if (!pDst) return KS_INVALID_PARAMETER;
    if (!recordSizeValid(pDst->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (pSrc && !recordSizeValid(pSrc->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    CombinePlan plan;
    int32_t rc = combinePlan(uFlags, pDst->nBitsPerPixel, &plan);
    if (rc != KS_SUCCESS) return rc;
    if (!(pDst->uFlags & BRF_ALLOCATED) || !bitsValid(pDst->nBitsPerPixel)) return KS_INVALID_PARAMETER;
    const bool readsSrc = plan.readsSrc();
    if (readsSrc) {
        if (!pSrc || !(pSrc->uFlags & BRF_ALLOCATED)) return KS_INVALID_PARAMETER;
        if (pSrc->nBitsPerPixel != pDst->nBitsPerPixel) return KS_INVALID_BITS_PER_PIXEL;
    }
    if (nWidth < 0 || nHeight < 0) return KS_INVALID_PARAMETER;
    if (plan.nothing()) return reportNothing();

    // Clip in the top-left view: offsets i with both positions inside their bitmaps.
    int64_t wd, hd, ws = INT64_MAX / 4, hs = INT64_MAX / 4;
    viewedSize(pDst, &wd, &hd);
    int64_t xs = nXSrc, ys = nYSrc;
    if (readsSrc) viewedSize(pSrc, &ws, &hs);
    else xs = ys = 0;
    const int64_t lo = std::max<int64_t>({0, -int64_t(nXDst), -xs});
    const int64_t hi = std::min<int64_t>({nWidth, wd - nXDst, ws - xs});
    const int64_t top = std::max<int64_t>({0, -int64_t(nYDst), -ys});
    const int64_t bot = std::min<int64_t>({nHeight, hd - nYDst, hs - ys});
    if (hi <= lo || bot <= top) return KS_SUCCESS;

    RECT dr{int32_t(nXDst + lo), int32_t(nYDst + top), int32_t(nXDst + hi), int32_t(nYDst + bot)};
    RECT sr{int32_t(xs + lo), int32_t(ys + top), int32_t(xs + hi), int32_t(ys + bot)};
    rc = K_RectToBitmap(pDst, TOP_LEFT, &dr);
    if (rc != KS_SUCCESS) return rc;
    bool reverse = false;
    TempRecord converted;
    BITMAPRECORD* src = pSrc;
    if (readsSrc) {
        const int32_t vd = pDst->nViewPerspective, vs = pSrc->nViewPerspective;
        const bool flatPair = (vd == 1 || vd == 4) && (vs == 1 || vs == 4);
        if (vd != vs && !flatPair) {
            // The source turned into the destination's perspective, in a record of
            // its own (palette and perspective carried), without progress reports.
            STATUSCALLBACK cb = nullptr;
            void* user = nullptr;
            K_GetStatusCallBack(&cb, &user);
            K_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr);
            rc = K_IntChangeBitmapViewPerspective(&converted.rec, pSrc, BITMAPRECORD_SIZE, vd, DUPBITMAP_COLORS);
            K_SetStatusCallBack(cb, user, nullptr, nullptr);
            if (rc != KS_SUCCESS) return KS_NO_MEMORY;
            converted.used = true;
            src = &converted.rec;
        }
        rc = K_RectToBitmap(src, TOP_LEFT, &sr);
        if (rc != KS_SUCCESS) return rc;
        reverse = vd != src->nViewPerspective;
    }

    Job j{};
    j.plan = plan;
    j.fmt = combineFormat(pDst);
    j.dst = pDst;
    j.src = readsSrc ? src : nullptr;
    j.dl = dr.left;
    j.dt = dr.top;
    j.sl = sr.left;
    j.st = sr.top;
    j.n = uint32_t(dr.right - dr.left);
    j.rows = dr.bottom - dr.top;
    j.reverseSrc = reverse;
    j.bottomUp = readsSrc && src == pDst && sr.top < dr.top;
    const uint32_t mode = tCombineTestMode;
    j.fn = pickCombineRow(plan, j.fmt, !(mode & 1));
    if (!j.fn) return KS_INTERNAL;

    const uint64_t spanBytes = (uint64_t(j.n) * uint32_t(j.fmt.bpp) + 7) / 8 + 16;
    j.scratchBytes = combineScratchBytes(j.n, j.fmt.bpp);
    if (!j.scratchBytes) return KS_NO_MEMORY;
    UniqueMem<uint8_t> zero(static_cast<uint8_t*>(memCalloc(size_t(spanBytes))));
    if (!zero) return KS_NO_MEMORY;
    j.zeroRow = zero.get();

    Accessed da, sa;
    rc = da.open(pDst);
    if (rc != KS_SUCCESS) return da.close(rc);
    if (j.src && j.src != pDst) {
        rc = sa.open(j.src);
        if (rc != KS_SUCCESS) {
            rc = sa.close(rc);
            return da.close(rc);
        }
    }
    const bool direct = !(mode & 2) && pixelsAtData(pDst) && !bitmapRegion(pDst) &&
                        (!j.src || (j.src != pDst && pixelsAtData(j.src)));
    if (direct) {
        ParallelOptions o;
        o.progress = ParallelProgress::Status;
        o.maxThreads = (computeBound(plan, j.fmt) && !(mode & 4)) ? 0 : 1;
        o.bytesPerRow = (uint64_t(j.n) * uint32_t(j.fmt.bpp) + 7) / 8;
        const int32_t slots = std::max(1, parallelMaxSlots(o));
        UniqueMem<uint8_t> scratch(static_cast<uint8_t*>(memAlloc(j.scratchBytes * size_t(slots))));
        if (!scratch) rc = KS_NO_MEMORY;
        else {
            j.scratch = scratch.get();
            rc = parallelRows(j.rows, &directBand, &j, o);
        }
    } else {
        UniqueMem<uint8_t> scratch(static_cast<uint8_t*>(memAlloc(j.scratchBytes)));
        if (!scratch) rc = KS_NO_MEMORY;
        else {
            j.scratch = scratch.get();
            rc = rowLayerLoop(j);
        }
    }
    rc = sa.close(rc);
    return da.close(rc);
}

}  // namespace krn

KAPI int32_t K_CombineBitmapKrn(BITMAPRECORD* pDstBitmap, int32_t nXDst, int32_t nYDst, int32_t nWidth,
                                int32_t nHeight, BITMAPRECORD* pSrcBitmap, int32_t nXSrc, int32_t nYSrc,
                                uint32_t uFlags) {
    return krn::guarded([&] {
        return krn::combineBitmap(pDstBitmap, nXDst, nYDst, nWidth, nHeight, pSrcBitmap, nXSrc, nYSrc, uFlags);
    });
}
