// colorres.cpp - colour resolution of whole bitmaps, grey conversion and the
// optimised-palette entry.
//
//   K_ColorResBitmap       any depth and order to any depth, order and palette
//   K_GrayScaleBitmap      in place to 8, 12 or 16-bit grey
//   K_CreateBitmapOptPal   the best n colours for one bitmap
//
// One call: check everything; choose the destination format and palette;
// pick one row job (deep destination through the converter; palette
// destination from indices through a 256-entry table; palette destination
// from colours through a mapper; or the dithering engine); create the
// destination in a side record; run the rows (directly on single-block
// storage, in parallel bands where rows are independent, else row by row
// through the row layer so every storage kind works); then hand the side
// record over: into pDst, or, in place, over the source after freeing it.
// A failure frees the side record, so the caller's records are as they were.
#include <algorithm>
#include <cstring>
#include <new>

#include "colorres.h"
#include "convert.h"
#include "dither.h"
#include "hooks.h"
#include "kernel.h"
#include "list.h"
#include "memory.h"
#include "palette.h"
#include "parallel.h"
#include "progress.h"

namespace krn {
namespace {

constexpr uint32_t kPaletteBits = CRF_FIXEDPALETTE | CRF_NETSCAPEPALETTE | CRF_OPTIMIZEDPALETTE | CRF_USERPALETTE;
constexpr uint32_t kOrderBits = CRF_BYTEORDERBGR | CRF_BYTEORDERGRAY | CRF_BYTEORDERROMM | CRF_BYTEORDER565;

inline int popcount(uint32_t v) noexcept { return __builtin_popcount(v); }

// ---------------------------------------------------------------- row kernels

// Packs w indices (bytes) at `bits` per pixel, most significant bit first.
void packIndices(const uint8_t* idx, uint8_t* dst, int32_t w, int bits) noexcept {
    if (bits == 8) {
        std::memcpy(dst, idx, size_t(w));
        return;
    }
    uint32_t acc = 0;
    int fill = 0;
    for (int32_t x = 0; x < w; ++x) {
        acc = (acc << bits) | idx[x];
        fill += bits;
        while (fill >= 8) {
            fill -= 8;
            *dst++ = uint8_t(acc >> fill);
        }
    }
    if (fill > 0) *dst = uint8_t(acc << (8 - fill));
}

// Unpacks w indices of `bits` per pixel into bytes.
void unpackIndices(const uint8_t* src, uint8_t* idx, int32_t w, int bits) noexcept {
    if (bits == 8) {
        std::memcpy(idx, src, size_t(w));
        return;
    }
    const uint32_t mask = (1u << bits) - 1u;
    uint64_t bit = 0;
    for (int32_t x = 0; x < w; ++x, bit += uint64_t(bits)) {
        const size_t byte = size_t(bit >> 3);
        const uint32_t two = (uint32_t(src[byte]) << 8) | (bit + uint64_t(bits) > (uint64_t(byte) + 1) * 8 ? src[byte + 1] : 0u);
        idx[x] = uint8_t((two >> (16 - int(bit & 7) - bits)) & mask);
    }
}

enum class MapKind { Fixed256, Exact, Table };

// Colour -> palette index for destinations without dithering.
struct Mapper {
    MapKind kind = MapKind::Exact;
    const RGBQUAD* pal = nullptr;
    int32_t n = 0;
    NearestIndex exact;            // Exact
    uint32_t* tree = nullptr;      // Table: colours that occur in the palette
    const uint32_t* table = nullptr;
    kvector<uint32_t> ownTable;    // the 5-5-5 table built from the palette
    int32_t black = 0, white = 0;

    Mapper() = default;
    Mapper(const Mapper&) = delete;
    Mapper& operator=(const Mapper&) = delete;
    ~Mapper() { freeColorMatchTree(tree); }

    int32_t tableIndex(int r, int g, int b) const noexcept {
        const uint32_t w = table[(uint32_t(r >> 3) << 10) | (uint32_t(g >> 3) << 5) | uint32_t(b >> 3)];
        const int32_t i = w ? int32_t(w - 1) : 0;
        return i < n ? i : n - 1;
    }
    int32_t map(int r, int g, int b) const noexcept {
        switch (kind) {
            case MapKind::Fixed256: return fixed256Index(r, g, b);
            case MapKind::Exact: return exact(r, g, b);
            case MapKind::Table: {
                const int32_t t = colorMatchTreeLookup(tree, r, g, b);
                if (t >= 0 && pal[t].rgbRed == r && pal[t].rgbGreen == g && pal[t].rgbBlue == b) {
                    if ((r | g | b) == 0) return black;
                    if ((r & g & b) == 255) return white;
                    return t;
                }
                return tableIndex(r, g, b);
            }
        }
        return 0;
    }
};

template <MapKind K>
void mapRowT(const Mapper& m, const uint8_t* bgr, uint8_t* idx, int32_t w) noexcept {
    for (int32_t x = 0; x < w; ++x, bgr += 3) {
        if constexpr (K == MapKind::Fixed256) {
            fixed256Row(bgr, idx, w);
            return;
        } else if constexpr (K == MapKind::Exact) {
            idx[x] = uint8_t(m.exact(bgr[2], bgr[1], bgr[0]));
        } else {
            idx[x] = uint8_t(m.map(bgr[2], bgr[1], bgr[0]));
        }
    }
}
using MapRowFn = void (*)(const Mapper&, const uint8_t*, uint8_t*, int32_t);

// ---------------------------------------------------------------- the plan

enum class Job { Deep, GreySmall, FromIndex, FromColor, Dither };

struct Plan {
    // source
    int32_t width = 0, height = 0;
    int32_t srcBits = 0, srcOrder = 0;
    const RGBQUAD* srcPal = nullptr;
    uint32_t srcFlags = 0;
    int32_t srcLow = -1, srcHigh = -1;
    uint32_t srcBpl = 0;
    // destination
    int32_t dstBits = 0, dstOrder = ORDER_RGB;
    bool grey = false;
    uint32_t dstBpl = 0;
    size_t dstDataBytes = 0;
    RGBQUAD pal[256]{};
    int32_t nPal = 0;
    int32_t method = 0;
    Job job = Job::Deep;
    Mapper mapper;
    MapRowFn mapRow = nullptr;
    uint8_t lut[256]{};
    size_t bufBytes = 0;
};

struct Scratch {
    kvector<uint8_t> buf, idx;
};

// One row of the non-dithering jobs: srcRow (srcBpl bytes) -> dstRow (dstBpl bytes).
int32_t runRow(const Plan& p, const uint8_t* srcRow, uint8_t* dstRow, Scratch& s) noexcept {
    uint8_t* buf = s.buf.data();
    switch (p.job) {
        case Job::Deep: {
            std::memcpy(buf, srcRow, p.srcBpl);
            int32_t rc = convertBuffer(buf, p.width, p.srcBits, p.dstBits, p.srcOrder, p.dstOrder, p.srcPal, nullptr,
                                       nullptr, p.srcFlags | (p.grey ? kConvertDstGray : 0u), p.srcLow, p.srcHigh, 0,
                                       nullptr);
            if (rc != KS_SUCCESS) return rc;
            std::memcpy(dstRow, buf, p.dstDataBytes);
            break;
        }
        case Job::GreySmall: {
            std::memcpy(buf, srcRow, p.srcBpl);
            int32_t rc = convertBuffer(buf, p.width, p.srcBits, 0, p.srcOrder, ORDER_GRAY, p.srcPal, nullptr, nullptr,
                                       p.srcFlags | kConvertDstGray, p.srcLow, p.srcHigh, 0, nullptr);
            if (rc != KS_SUCCESS) return rc;
            if (p.dstBits < 8)
                for (int32_t x = 0; x < p.width; ++x) buf[x] = uint8_t(buf[x] >> (8 - p.dstBits));
            packIndices(buf, dstRow, p.width, p.dstBits);
            break;
        }
        case Job::FromIndex: {
            uint8_t* idx = s.idx.data();
            unpackIndices(srcRow, idx, p.width, p.srcBits);
            for (int32_t x = 0; x < p.width; ++x) idx[x] = p.lut[idx[x]];
            packIndices(idx, dstRow, p.width, p.dstBits);
            break;
        }
        case Job::FromColor: {
            if (p.srcBits == 24 && p.srcOrder == ORDER_BGR) {
                // Straight from the source row; 8-bit indices straight into the destination row.
                if (p.dstBits == 8) {
                    p.mapRow(p.mapper, srcRow, dstRow, p.width);
                } else {
                    p.mapRow(p.mapper, srcRow, s.idx.data(), p.width);
                    packIndices(s.idx.data(), dstRow, p.width, p.dstBits);
                }
                break;
            }
            std::memcpy(buf, srcRow, p.srcBpl);
            {
                int32_t rc = convertRowToBGR24(buf, p.width, p.srcBits, p.srcOrder, p.srcPal, p.srcFlags, p.srcLow,
                                               p.srcHigh);
                if (rc != KS_SUCCESS) return rc;
            }
            uint8_t* idx = s.idx.data();
            p.mapRow(p.mapper, buf, idx, p.width);
            packIndices(idx, dstRow, p.width, p.dstBits);
            break;
        }
        case Job::Dither: return KS_INTERNAL;
    }
    if (p.dstDataBytes < p.dstBpl) std::memset(dstRow + p.dstDataBytes, 0, p.dstBpl - p.dstDataBytes);
    return KS_SUCCESS;
}

bool getRowCallback(const BITMAPRECORD* bm) noexcept {
    return isCurrentLayout(bm) && bm->pCallbacks && bm->pCallbacks->pfnGetRow;
}

// Pixels in one directly addressable block while accessed.
bool directPixels(const BITMAPRECORD* bm) noexcept {
    const uint32_t f = bm->uFlags;
    return bm->pData && !(f & (BRF_TILED | BRF_DISK | BRF_COMPRESSED | BRF_SUPERCOMPRESSED)) && !getRowCallback(bm);
}

// Access guard for K_AccessBitmap / K_ReleaseBitmap.
struct Access {
    BITMAPRECORD* bm = nullptr;
    int32_t open(BITMAPRECORD* b) noexcept {
        int32_t rc = K_AccessBitmap(b);
        if (rc == KS_SUCCESS) bm = b;
        return rc;
    }
    ~Access() {
        if (bm) K_ReleaseBitmap(bm);
    }
};

// Rows per call of the dithering engine on the direct path (a multiple of
// any block the engine asks for; the progress steps between calls).
constexpr int32_t kDitherChunk = 64;

// The rows through the dithering engine in blocks (whole-image runs keep
// several rows in one loop): straight from and into single-block storage,
// else through the row layer, so every storage kind works.
int32_t ditherBlocks(Plan& p, BITMAPRECORD* run, BITMAPRECORD* src, BITMAPRECORD* dst, bool direct) {
    const int32_t block = direct ? kDitherChunk : std::clamp(ditherBlockRows(run), 1, kDitherChunk);
    const size_t inBpl = size_t(p.srcBpl) + 16, outBpl = size_t(p.dstBpl) + 16;
    kvector<uint8_t> in, out;
    if (!direct) {
        in.resize(inBpl * size_t(block));
        out.resize(outBpl * size_t(block));
    }
    const uint8_t* srcRows[kDitherChunk];
    uint8_t* dstRows[kDitherChunk];
    Progress progress = Progress::status(p.height);
    int32_t rc = progress.begin();
    for (int32_t y0 = 0; y0 < p.height && rc == KS_SUCCESS; y0 += block) {
        const int32_t n = std::min(block, p.height - y0);
        for (int32_t k = 0; k < n; ++k) {
            if (direct) {
                srcRows[k] = src->pData + size_t(y0 + k) * p.srcBpl;
                dstRows[k] = dst->pData + size_t(y0 + k) * p.dstBpl;
            } else {
                rc = K_GetBitmapRow(src, in.data() + inBpl * size_t(k), y0 + k, p.srcBpl);
                if (rc < 0) return rc;
                srcRows[k] = in.data() + inBpl * size_t(k);
                dstRows[k] = out.data() + outBpl * size_t(k);
            }
            std::memset(dstRows[k], 0, p.dstBpl);
        }
        rc = ditherRows(run, srcRows, dstRows, n);
        if (rc != KS_SUCCESS) return rc;
        if (!direct) {
            for (int32_t k = 0; k < n; ++k) {
                rc = K_PutBitmapRow(dst, dstRows[k], y0 + k, p.dstBpl);
                if (rc < 0) return rc;
            }
        }
        rc = progress.step(y0 + n);
    }
    return rc;
}

int32_t runDither(Plan& p, BITMAPRECORD* src, BITMAPRECORD* dst) {
    // A record that describes the source's pixel format carries the run.
    BITMAPRECORD shadow;
    int32_t rc = K_InitBitmap(&shadow, BITMAPRECORD_SIZE, p.width, 1, p.srcBits);
    if (rc != KS_SUCCESS) return rc;
    shadow.nOrder = p.srcOrder;
    shadow.nLowBit = p.srcLow;
    shadow.nHighBit = p.srcHigh;
    shadow.pPalette = const_cast<RGBQUAD*>(p.srcPal);
    shadow.nColors = p.srcBits <= 8 ? (1 << p.srcBits) : 0;
    shadow.nDitheringMethod = p.method;
    rc = K_StartDitheringExt(&shadow, p.pal, uint32_t(p.nPal), p.dstBits, nullptr);
    if (rc == KS_SUCCESS) {
        Access a, b;
        rc = a.open(src);
        if (rc == KS_SUCCESS) rc = b.open(dst);
        const bool direct = !testhook::colorResRowPath && directPixels(src) && directPixels(dst);
        if (rc == KS_SUCCESS) rc = ditherBlocks(p, &shadow, src, dst, direct);
        K_StopDithering(&shadow);
    }
    shadow.pPalette = nullptr;
    K_FreeBitmap(&shadow);
    return rc;
}

int32_t runRows(Plan& p, BITMAPRECORD* src, BITMAPRECORD* dst) {
    if (p.job == Job::Dither) return runDither(p, src, dst);
    kvector<uint8_t> in(size_t(p.srcBpl) + 16), out(size_t(p.dstBpl) + 16);

    Access a, b;
    int32_t rc = a.open(src);
    if (rc != KS_SUCCESS) return rc;
    rc = b.open(dst);
    if (rc != KS_SUCCESS) return rc;

    ParallelOptions opt;
    opt.bytesPerRow = uint64_t(p.srcBpl) + p.dstBpl;
    if (directPixels(src) && directPixels(dst)) {
        const int32_t slots = std::max(1, parallelMaxSlots(opt));
        kvector<Scratch> scratch{size_t(slots)};
        for (Scratch& s : scratch) {
            s.buf.resize(p.bufBytes);
            s.idx.resize(size_t(p.width) + 16);
        }
        const uint8_t* sBase = src->pData;
        uint8_t* dBase = dst->pData;
        return parallelRows(
            p.height,
            [&](int32_t y0, int32_t y1, int32_t slot) -> int32_t {
                Scratch& s = scratch[size_t(slot)];
                for (int32_t y = y0; y < y1; ++y) {
                    int32_t r = runRow(p, sBase + size_t(y) * p.srcBpl, dBase + size_t(y) * p.dstBpl, s);
                    if (r != KS_SUCCESS) return r;
                }
                return KS_SUCCESS;
            },
            opt);
    }
    // Row by row through the row layer: any storage kind, any size.
    Scratch s;
    s.buf.resize(p.bufBytes);
    s.idx.resize(size_t(p.width) + 16);
    Progress progress = Progress::status(p.height);
    rc = progress.begin();
    for (int32_t y = 0; y < p.height && rc == KS_SUCCESS; ++y) {
        rc = K_GetBitmapRow(src, in.data(), y, p.srcBpl);
        if (rc < 0) return rc;
        rc = runRow(p, in.data(), out.data(), s);
        if (rc != KS_SUCCESS) return rc;
        rc = K_PutBitmapRow(dst, out.data(), y, p.dstBpl);
        if (rc < 0) return rc;
        rc = progress.step(y + 1);
    }
    return rc;
}

}  // namespace

// ---------------------------------------------------------------- colour sample

namespace {

// Distinct colours (up to a limit) in a small open-addressed set.
struct ColorSet {
    static constexpr size_t kSlots = 1024;
    uint32_t slot[kSlots];
    size_t count = 0;
    bool overflow = false;
    size_t limit;
    explicit ColorSet(size_t lim) : limit(lim) { std::fill(slot, slot + kSlots, 0xFFFFFFFFu); }
    void add(uint32_t c) noexcept {
        if (overflow) return;
        size_t h = (c * 2654435761u) >> 22;
        while (slot[h] != 0xFFFFFFFFu) {
            if (slot[h] == c) return;
            h = (h + 1) & (kSlots - 1);
        }
        if (count == limit) {
            overflow = true;
            return;
        }
        slot[h] = c;
        ++count;
    }
};

// Reads rows of any storage kind as 24-bit BGR.
struct RowReader {
    BITMAPRECORD* bm;
    int32_t bits, order, low, high;
    uint32_t flags = 0;
    const RGBQUAD* pal;
    kvector<uint8_t> buf;
    explicit RowReader(BITMAPRECORD* b)
        : bm(b), bits(b->nBitsPerPixel), order(b->nOrder), low(b->nLowBit), high(b->nHighBit),
          pal(b->nBitsPerPixel <= 8 ? bitmapColors(b) : nullptr) {
        if (bits <= 8) order = ORDER_RGB;
        if (order == ORDER_GRAY && bits > 8) flags = kConvertSrcRange;
        buf.resize(std::max<size_t>(b->nBytesPerLine, convertBufferBytes(b->nWidth, bits, 24)) + 16);
    }
    int32_t read(int32_t y, const uint8_t** bgr) {
        int32_t rc = K_GetBitmapRow(bm, buf.data(), y, bm->nBytesPerLine);
        if (rc < 0) return rc;
        if (!(bits == 24 && order == ORDER_BGR)) {
            rc = convertRowToBGR24(buf.data(), bm->nWidth, bits, order, pal, flags, low, high);
            if (rc != KS_SUCCESS) return rc;
        }
        *bgr = buf.data();
        return KS_SUCCESS;
    }
};

constexpr uint64_t kSampleTarget = uint64_t(1) << 20;

// Samples the bitmap on a grid (every pixel when it is small) into 6-bit
// cells, and decides whether it holds at most `free` distinct colours (then
// `exact` receives them, checked over every pixel).
int32_t sampleColors(BITMAPRECORD* const* bms, size_t nBms, size_t free, kvector<uint32_t>& colors,
                     kvector<uint32_t>& weights, kvector<uint32_t>& exact, bool& isExact) {
    // One grid step for all the bitmaps, so each counts by its area.
    uint64_t total = 0;
    for (size_t i = 0; i < nBms; ++i) total += uint64_t(bms[i]->nWidth) * uint64_t(bms[i]->nHeight);
    int32_t step = 1;
    while (total / (uint64_t(step) * uint64_t(step)) > kSampleTarget) ++step;
    kvector<uint32_t> count(size_t(1) << 18, 0), sr(count.size(), 0), sg(count.size(), 0), sb(count.size(), 0);
    ColorSet set(free);
    for (size_t i = 0; i < nBms; ++i) {
        BITMAPRECORD* bm = bms[i];
        RowReader reader(bm);
        for (int32_t y = step / 2; y < bm->nHeight; y += step) {
            const uint8_t* p;
            int32_t rc = reader.read(y, &p);
            if (rc != KS_SUCCESS) return rc;
            for (int32_t x = step / 2; x < bm->nWidth; x += step) {
                const uint8_t* q = p + size_t(x) * 3;
                const uint32_t cell = (uint32_t(q[2] >> 2) << 12) | (uint32_t(q[1] >> 2) << 6) | uint32_t(q[0] >> 2);
                ++count[cell];
                sr[cell] += q[2];
                sg[cell] += q[1];
                sb[cell] += q[0];
                set.add((uint32_t(q[2]) << 16) | (uint32_t(q[1]) << 8) | q[0]);
            }
        }
    }
    if (!set.overflow && step > 1) {
        // The sample has few colours: look at every pixel before promising them.
        for (size_t i = 0; i < nBms && !set.overflow; ++i) {
            BITMAPRECORD* bm = bms[i];
            RowReader reader(bm);
            for (int32_t y = 0; y < bm->nHeight && !set.overflow; ++y) {
                const uint8_t* p;
                int32_t rc = reader.read(y, &p);
                if (rc != KS_SUCCESS) return rc;
                for (int32_t x = 0; x < bm->nWidth; ++x, p += 3)
                    set.add((uint32_t(p[2]) << 16) | (uint32_t(p[1]) << 8) | p[0]);
            }
        }
    }
    isExact = !set.overflow;
    if (isExact) {
        exact.clear();
        for (uint32_t c : set.slot)
            if (c != 0xFFFFFFFFu) exact.push_back(c);
        std::sort(exact.begin(), exact.end());
        return KS_SUCCESS;
    }
    colors.clear();
    weights.clear();
    for (size_t c = 0; c < count.size(); ++c) {
        const uint32_t n = count[c];
        if (!n) continue;
        const uint32_t r = (sr[c] + n / 2) / n, g = (sg[c] + n / 2) / n, b = (sb[c] + n / 2) / n;
        colors.push_back((r << 16) | (g << 8) | b);
        weights.push_back(n);
    }
    return KS_SUCCESS;
}

// The optimised palette: nColors entries, the first `reserved` kept, the
// last kept too with `transparent`. Returns the meaningful count or a status.
int32_t optimizedPalette(BITMAPRECORD* const* bms, size_t nBms, RGBQUAD* pal, int32_t nColors, int32_t reserved,
                         bool transparent, bool refine, int32_t* used) {
    const int32_t free = nColors - reserved - (transparent ? 1 : 0);
    RGBQUAD out[256];
    std::memcpy(out, pal, sizeof(RGBQUAD) * size_t(nColors));
    for (int32_t i = reserved; i < nColors - (transparent ? 1 : 0); ++i) out[i] = RGBQUAD{0, 0, 0, 0};
    int32_t made = 0;
    if (free > 0) {
        kvector<uint32_t> colors, weights, exact;
        bool isExact = false;
        int32_t rc = sampleColors(bms, nBms, size_t(free), colors, weights, exact, isExact);
        if (rc != KS_SUCCESS) return rc;
        if (isExact) {
            for (uint32_t c : exact)
                out[reserved + made++] = RGBQUAD{uint8_t(c), uint8_t(c >> 8), uint8_t(c >> 16), 0};
        } else {
            made = buildOptimizedPalette(colors.data(), weights.data(), colors.size(), out, reserved, free, refine);
            if (made < 0) return KS_NO_MEMORY;
        }
    }
    std::memcpy(pal, out, sizeof(RGBQUAD) * size_t(nColors));
    if (used) *used = reserved + made + (transparent ? 1 : 0);
    return KS_SUCCESS;
}

}  // namespace

// ---------------------------------------------------------------- K_ColorResBitmap

int32_t colorResBitmap(BITMAPRECORD* src, BITMAPRECORD* dst, int32_t bits, uint32_t flags, const RGBQUAD* userPal,
                       int32_t nColors, uint32_t structSize) noexcept {
    return guarded([&]() -> int32_t {
        if (!src || !dst) return KS_INVALID_PARAMETER;
        int32_t rc = checkAllocated(src);
        if (rc != KS_SUCCESS) return rc;
        if (!recordSizeValid(structSize)) return KS_INVALID_STRUCT_SIZE;
        const bool inPlace = src == dst;
        if (inPlace) structSize = src->uStructSize;
        if (!bitsValid(bits)) return KS_INVALID_BITS_PER_PIXEL;
        if (flags & ~CRF_ALLFLAGS) return KS_INVALID_PARAMETER;
        if (popcount(flags & kPaletteBits) > 1 || popcount(flags & kOrderBits) > 1) return KS_INVALID_PARAMETER;
        if ((flags & CRF_NODITHERING) && (flags & CRF_DITHERMASK)) return KS_INVALID_PARAMETER;
        if (inPlace && isCurrentLayout(src) && src->nLockCount > 0) return KS_INVALID_PARAMETER;

        // The plan is large: kept off the stack, in the kernel's memory.
        struct PlanBlock {
            Plan* p = nullptr;
            ~PlanBlock() {
                if (p) {
                    p->~Plan();
                    memFree(p);
                }
            }
        } block;
        void* mem = memAlloc(sizeof(Plan));
        if (!mem) return KS_NO_MEMORY;
        block.p = new (mem) Plan;
        Plan& p = *block.p;
        p.width = src->nWidth;
        p.height = src->nHeight;
        p.srcBits = src->nBitsPerPixel;
        p.srcOrder = p.srcBits <= 8 ? ORDER_RGB : src->nOrder;
        p.srcPal = p.srcBits <= 8 ? bitmapColors(src) : nullptr;
        p.srcBpl = src->nBytesPerLine;
        if (p.srcOrder == ORDER_GRAY && p.srcBits > 8) {
            p.srcFlags = kConvertSrcRange;
            p.srcLow = src->nLowBit;
            p.srcHigh = src->nHighBit;
        }
        if (p.width < 1 || p.height < 1) return KS_INVALID_BITMAP;

        // Destination order.
        p.dstBits = bits;
        p.grey = (flags & CRF_BYTEORDERGRAY) != 0 || bits == 12;
        const uint32_t order = flags & kOrderBits;
        if (bits <= 8) {
            if (order && order != CRF_BYTEORDERGRAY) return KS_INVALID_PARAMETER;
            p.dstOrder = ORDER_RGB;
        } else {
            if (flags & kPaletteBits) return KS_INVALID_PARAMETER;
            p.dstOrder = p.grey ? ORDER_GRAY
                         : order == CRF_BYTEORDERBGR ? ORDER_BGR
                         : order == CRF_BYTEORDERROMM ? ORDER_BGRWIDE
                         : order == CRF_BYTEORDER565 ? ORDER_BGR565
                                                     : ORDER_RGB;
            const bool ok = bits == 12   ? p.grey && (order == 0 || order == CRF_BYTEORDERGRAY)
                            : bits == 16 ? p.dstOrder != ORDER_BGRWIDE
                            : bits == 32 ? p.dstOrder == ORDER_RGB || p.dstOrder == ORDER_BGR || p.grey
                            : bits == 24 || bits == 48
                                ? !p.grey && p.dstOrder != ORDER_BGR565
                                : !p.grey && (p.dstOrder == ORDER_RGB || p.dstOrder == ORDER_BGR);  // 64
            if (!ok) return KS_INVALID_PARAMETER;
        }

        // Dithering method.
        p.method = (flags & CRF_DITHERMASK) ? int32_t((flags & CRF_DITHERMASK) >> 20) - 1
                   : (flags & CRF_NODITHERING) ? 0
                                                : src->nDitheringMethod;
        if (p.method < 0 || p.method > 8) {
            if (flags & CRF_DITHERMASK) return KS_INVALID_PARAMETER;
            p.method = 0;  // a record's out-of-range method reads as none
        }

        // Palette of a 1..8-bit destination.
        const int32_t maxColors = 1 << std::min(bits, 8);
        bool optimised = false;
        uint32_t kind = 0;
        if (bits <= 8 && p.grey) {
            if (flags & kPaletteBits) return KS_INVALID_PARAMETER;
            p.nPal = maxColors;
            fillGrayRamp(p.pal, uint32_t(p.nPal));
        } else if (bits <= 8) {
            kind = flags & kPaletteBits;
            if (!kind) kind = userPal ? CRF_USERPALETTE : CRF_FIXEDPALETTE;
            if (kind == CRF_FIXEDPALETTE) {
                p.nPal = maxColors;
                std::memcpy(p.pal, fixedPalette(bits), sizeof(RGBQUAD) * size_t(maxColors));
            } else if (kind == CRF_NETSCAPEPALETTE) {
                if (bits != 8) return KS_INVALID_PARAMETER;
                p.nPal = 256;
                std::memcpy(p.pal, webPalette(), sizeof(p.pal));
            } else if (kind == CRF_USERPALETTE) {
                if (!userPal || nColors < 1 || nColors > maxColors) return KS_INVALID_PARAMETER;
                p.nPal = nColors;
                std::memcpy(p.pal, userPal, sizeof(RGBQUAD) * size_t(nColors));
                for (int32_t i = 0; i < nColors; ++i) p.pal[i].rgbReserved = 0;
            } else {
                if (nColors == 0) nColors = maxColors;
                if (nColors < 2 || nColors > maxColors) return KS_INVALID_PARAMETER;
                p.nPal = nColors;
                optimised = true;
            }
        }

        // Checks of the source format: one pixel through the converter.
        {
            alignas(8) uint8_t probe[64] = {};
            rc = convertBuffer(probe, 1, p.srcBits, 24, p.srcOrder, ORDER_BGR, p.srcPal, nullptr, nullptr, p.srcFlags,
                               p.srcLow, p.srcHigh, 0, nullptr);
            if (rc != KS_SUCCESS) return rc;
            if (bits > 8) {
                std::memset(probe, 0, sizeof(probe));
                rc = convertBuffer(probe, 1, p.srcBits, bits, p.srcOrder, p.dstOrder, p.srcPal, nullptr, nullptr,
                                   p.srcFlags | (p.grey ? kConvertDstGray : 0u), p.srcLow, p.srcHigh, 0, nullptr);
                if (rc != KS_SUCCESS) return rc;
            }
        }
        uint32_t dstBpl = 0;
        if (!bytesPerLine(p.width, bits, &dstBpl)) return KS_INVALID_DIMENSIONS;
        p.dstBpl = dstBpl;
        p.dstDataBytes = size_t((uint64_t(p.width) * uint64_t(bits) + 7) / 8);
        p.bufBytes = std::max({convertBufferBytes(p.width, p.srcBits, bits), convertBufferBytes(p.width, p.srcBits, 24),
                               size_t(p.srcBpl), size_t(p.dstBpl)}) + 16;

        // Everything is checked: now the work.
        if (optimised) {
            rc = optimizedPalette(&src, 1, p.pal, p.nPal, 0, false, true, nullptr);
            if (rc != KS_SUCCESS) return rc;
        }
        if (bits > 8) {
            p.job = Job::Deep;
        } else if (p.grey && (bits == 8 || p.method == 0)) {
            p.job = Job::GreySmall;
        } else if (p.method != 0) {
            p.job = Job::Dither;
        } else {
            Mapper& m = p.mapper;
            m.pal = p.pal;
            m.n = p.nPal;
            if (kind == CRF_FIXEDPALETTE && bits == 8) {
                m.kind = MapKind::Fixed256;
            } else if ((flags & CRF_EXACTMATCH) || kind != CRF_USERPALETTE) {
                m.kind = MapKind::Exact;
                const bool fine = p.srcBits > 8 && uint64_t(p.width) * uint64_t(p.height) >= (uint64_t(1) << 21);
                if (!m.exact.build(p.pal, p.nPal, fine)) return KS_NO_MEMORY;
            } else {
                m.kind = MapKind::Table;
                m.tree = buildColorMatchTree(p.pal, p.nPal);
                if (!m.tree) return KS_NO_MEMORY;
                m.black = findPaletteIndex(p.pal, p.nPal, 0, 0, 0);
                m.white = findPaletteIndex(p.pal, p.nPal, 255, 255, 255);
                m.table = userMatchTable();
                if (!m.table) {
                    NearestIndex exact;
                    if (!exact.build(p.pal, p.nPal)) return KS_NO_MEMORY;
                    m.ownTable.resize(USER_MATCH_TABLE_ENTRIES);
                    for (uint32_t k = 0; k < USER_MATCH_TABLE_ENTRIES; ++k)
                        m.ownTable[k] = uint32_t(exact(int((k >> 10) & 31) * 8, int((k >> 5) & 31) * 8, int(k & 31) * 8)) + 1;
                    m.table = m.ownTable.data();
                }
            }
            if (p.srcBits <= 8) {
                p.job = Job::FromIndex;
                for (int32_t i = 0; i < (1 << p.srcBits); ++i)
                    p.lut[i] = uint8_t(m.map(p.srcPal[i].rgbRed, p.srcPal[i].rgbGreen, p.srcPal[i].rgbBlue));
            } else {
                p.job = Job::FromColor;
                p.mapRow = m.kind == MapKind::Fixed256 ? &mapRowT<MapKind::Fixed256>
                           : m.kind == MapKind::Exact  ? &mapRowT<MapKind::Exact>
                                                       : &mapRowT<MapKind::Table>;
            }
        }

        // The side record.
        BITMAPRECORD side;
        rc = K_CreateBitmap(&side, structSize, 0, p.width, p.height, bits, p.grey ? ORDER_GRAY : p.dstOrder, nullptr,
                            src->nViewPerspective, nullptr, 0);
        if (rc != KS_SUCCESS) return rc;
        // Freed on every way out but success, a failed allocation's exception included.
        struct SideGuard {
            BITMAPRECORD* r;
            bool keep = false;
            ~SideGuard() {
                if (!keep) K_FreeBitmap(r);
            }
        } guard{&side};
        if (bits <= 8 && !p.grey) rc = K_SetBitmapPalette(&side, p.pal, p.nPal);
        if (rc == KS_SUCCESS) rc = runRows(p, src, &side);
        if (rc != KS_SUCCESS) return rc;
        guard.keep = true;
        side.nXResolution = src->nXResolution;
        side.nYResolution = src->nYResolution;
        side.nDitheringMethod = src->nDitheringMethod;
        std::memcpy(side.uDisplay, src->uDisplay, sizeof(side.uDisplay));
        const size_t bytes = recordBytes(structSize);
        if (inPlace) {
            // The source keeps what does not describe its pixels.
            side.hRgn = src->hRgn;
            src->hRgn = nullptr;
            side.pExtraData = src->pExtraData;
            side.uExtraDataSize = src->uExtraDataSize;
            src->pExtraData = nullptr;
            src->uExtraDataSize = 0;
            side.pOverlays = src->pOverlays;
            src->pOverlays = nullptr;
            if (isCurrentLayout(src)) {
                side.hListBlock = src->hListBlock;
                src->hListBlock = nullptr;
            }
            K_FreeBitmap(src);
        }
        std::memcpy(dst, &side, bytes);
        return KS_SUCCESS;
    });
}

namespace testhook {
bool colorResRowPath = false;
}

}  // namespace krn

using namespace krn;

KAPI int32_t K_ColorResBitmap(BITMAPRECORD* pSrc, BITMAPRECORD* pDst, int32_t nBitsPerPixel, uint32_t uFlags,
                              const RGBQUAD* pPalette, int32_t nColors, uint32_t uStructSize) {
    return colorResBitmap(pSrc, pDst, nBitsPerPixel, uFlags, pPalette, nColors, uStructSize);
}

KAPI int32_t K_GrayScaleBitmap(BITMAPRECORD* pBitmap, int32_t nBitsPerPixel) {
    return guarded([&]() -> int32_t {
        int32_t rc = checkRecord(pBitmap);
        if (rc != KS_SUCCESS) return rc;
        if (nBitsPerPixel != 8 && nBitsPerPixel != 12 && nBitsPerPixel != 16) return KS_INVALID_BITS_PER_PIXEL;
        return colorResBitmap(pBitmap, pBitmap, nBitsPerPixel, CRF_BYTEORDERGRAY | CRF_NODITHERING, nullptr, 0,
                              pBitmap->uStructSize);
    });
}

namespace {

// The frame of both builders: arguments, then each bitmap's format through a
// one-pixel conversion, then the palette.
int32_t createOptPal(BITMAPRECORD* const* bms, size_t nBms, RGBQUAD* pal, int32_t nColors, int32_t nReserved,
                     uint32_t flags, int32_t* used) {
    if (!pal) return KS_INVALID_PARAMETER;
    if (flags & ~OPTPAL_ALLFLAGS) return KS_INVALID_PARAMETER;
    const bool transparent = (flags & OPTPAL_TRANSPARENT) != 0;
    if (nColors < 2 || nColors > 256) return KS_INVALID_PARAMETER;
    if (nReserved < 0 || nReserved + (transparent ? 1 : 0) > nColors) return KS_INVALID_PARAMETER;
    for (size_t i = 0; i < nBms; ++i) {
        BITMAPRECORD* bm = bms[i];
        if (bm->nWidth < 1 || bm->nHeight < 1) return KS_INVALID_BITMAP;
        RowReader probe(bm);
        alignas(8) uint8_t px[64] = {};
        int32_t rc = convertRowToBGR24(px, 1, probe.bits, probe.order, probe.pal, probe.flags, probe.low, probe.high);
        if (rc != KS_SUCCESS) return rc;
    }
    return optimizedPalette(bms, nBms, pal, nColors, nReserved, transparent, !(flags & OPTPAL_FAST), used);
}

}  // namespace

KAPI int32_t K_CreateBitmapOptPal(BITMAPRECORD* pBitmap, RGBQUAD* pPalette, int32_t nColors, int32_t nReserved,
                                  uint32_t uFlags, int32_t* pnUsed) {
    return guarded([&]() -> int32_t {
        if (!pBitmap || !pPalette) return KS_INVALID_PARAMETER;
        int32_t rc = checkAllocated(pBitmap);
        if (rc != KS_SUCCESS) return rc;
        return createOptPal(&pBitmap, 1, pPalette, nColors, nReserved, uFlags, pnUsed);
    });
}

KAPI int32_t K_CreateBitmapListOptPal(HBITMAPLIST hList, RGBQUAD* pPalette, int32_t nColors, int32_t nReserved,
                                      uint32_t uFlags, int32_t* pnUsed) {
    return guarded([&]() -> int32_t {
        if (!hList || !pPalette) return KS_INVALID_PARAMETER;
        uint32_t count = 0xFFFFFFFFu;  // stays so for a handle that is not a list
        BITMAPRECORD* items = listItems(hList, &count);
        if (count == 0xFFFFFFFFu) return KS_INVALID_PARAMETER;
        if (!items) count = 0;
        kvector<BITMAPRECORD*> bms;
        for (uint32_t i = 0; i < count; ++i) {
            int32_t rc = checkRecord(&items[i]);
            if (rc != KS_SUCCESS) return rc;
            if (items[i].uFlags & BRF_ALLOCATED) bms.push_back(&items[i]);
        }
        if (bms.empty()) return KS_INVALID_BITMAP;
        return createOptPal(bms.data(), bms.size(), pPalette, nColors, nReserved, uFlags, pnUsed);
    });
}
