// Window-level tables against the curves in double precision; windows applied to 12- and 16-bit grey bitmaps (every
// kind, kernel, sample) against arithmetic.
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "dis/common/paintutil.h"
#include "transform_kit.h"
#include "support/combine_reference.h"

using namespace storagetest;

namespace {

struct Params {
    uint32_t len;
    long startC[3], endC[3], top, low, high, minV, maxV;  // colours: red, green, blue
    int factor;
    uint32_t flags;
};

// Expected channel values of every slot of the table; -1 means "untouched".
std::vector<std::array<long, 3>> windowRef(const Params& p) {
    std::vector<std::array<long, 3>> out(p.len, {-1, -1, -1});
    const bool sign = p.flags & 0x100, alt = p.flags & 0x1000;
    const int mode = int(p.flags & 0xF), curve = int(p.flags & 0xF0);
    const long first = sign ? -long(p.len / 2) : 0, last = sign ? long((p.len - 1) / 2) : long(p.len) - 1;
    auto clampL = [](long v, long a, long b) { return v < a ? a : v > b ? b : v; };
    const long lo = clampL(clampL(p.low, p.minV, p.maxV), first, last);
    const long hi = clampL(clampL(p.high, p.minV, p.maxV), first, last);
    const double k = p.factor / 10.0;
    long s[3], e[3];
    for (int c = 0; c < 3; ++c) s[c] = mode == 1 || alt ? p.startC[c] : 0, e[c] = mode == 1 || alt ? p.endC[c] : p.top;
    auto at = [&](long i) {
        std::array<long, 3> v;
        const long d = hi - lo, u = i - lo;
        for (int c = 0; c < 3; ++c) {
            long r = s[c];
            if (d != 0 && (curve == 0x10 || p.factor == 0)) {
                r = s[c] + u * (e[c] - s[c]) / d;
            } else if (d != 0) {
                auto g = [&](double x) { return 1 / (1 + std::exp((x - (lo + hi) / 2.0) * 2 * k / d)); };
                const double t = curve == 0x20   ? (std::exp(u * k / d) - 1) / (std::exp(k) - 1)
                                 : curve == 0x30 ? std::log(u * k / d + 1) / std::log(k + 1)
                                                 : (g(i) - g(lo)) / (g(hi) - g(lo));
                r = s[c] + long(std::trunc(t * (e[c] - s[c]) + 0.000005));
            }
            v[size_t(c)] = clampL(r, 0, p.top);
        }
        return v;
    };
    auto slot = [&](long i) { return size_t(i < 0 ? i + long(p.len) : i); };
    for (long i = lo; i <= hi; ++i) out[slot(i)] = at(i);
    if (mode == 1 && !alt) {
        for (long i = first; i < lo; ++i) out[slot(i)] = at(lo);
        for (long i = hi + 1; i <= last; ++i) out[slot(i)] = at(hi);
    } else if (mode == 2) {
        for (long i = first; i < lo; ++i) out[slot(i)] = {p.startC[0], p.startC[1], p.startC[2]};
        for (long i = hi + 1; i <= last; ++i) out[slot(i)] = {p.endC[0], p.endC[1], p.endC[2]};
    }
    return out;
}

// A colour table and a grey table (the red channel) filled for p (8- or 16-bit channels by p.top), against the
// reference whole; slots the window leaves alone keep their fill. Answers how many slots were written.
template <class Q, class G>
long expectTables(const Params& p, std::vector<Q> lut, std::vector<G> grey) {
    const int sh = p.top > 255 ? 16 : 8, hb = p.top > 255 ? 15 : 11;
    const uint64_t s = p.startC[0] | uint64_t(p.startC[1]) << sh | uint64_t(p.startC[2]) << 2 * sh;
    const uint64_t e = p.endC[0] | uint64_t(p.endC[1]) << sh | uint64_t(p.endC[2]) << 2 * sh;
    const int32_t lo = p.low, hi = p.high, mn = p.minV, mx = p.maxV, f = p.factor, l0 = long(grey[0]);
    int32_t rc[2];
    if constexpr (sizeof(G) == 1) {
        rc[0] = K_WindowLevelFillLUT(lut.data(), p.len, uint32_t(s), uint32_t(e), lo, hi, 0, hb, mn, mx, f, p.flags);
        rc[1] = K_WindowLevelFillLUT2(grey.data(), p.len, p.startC[0], p.endC[0], lo, hi, 0, hb, mn, mx, f, p.flags);
    } else {
        rc[0] = K_WindowLevelFillLUTExt(lut.data(), p.len, s, e, lo, hi, 0, hb, mn, mx, f, p.flags);
        rc[1] = K_WindowLevelFillLUTExt2(grey.data(), p.len, p.startC[0], p.endC[0], lo, hi, 0, hb, mn, mx, f, p.flags);
    }
    EXPECT_TRUE(rc[0] == KS_SUCCESS && rc[1] == KS_SUCCESS);
    const auto want = windowRef(p);
    long written = 0;
    for (uint32_t i = 0; i < p.len; ++i) {
        const bool kept = want[i][0] < 0;
        const std::array<long, 5> got{lut[i].rgbRed, lut[i].rgbGreen, lut[i].rgbBlue, lut[i].rgbReserved, grey[i]};
        const std::array<long, 5> exp = kept ? std::array<long, 5>{l0, l0, l0, l0, l0}
                                             : std::array<long, 5>{want[i][0], want[i][1], want[i][2], 0, want[i][0]};
        EXPECT_EQ(got, exp) << "slot " << i << " of " << p.len << " flags " << std::hex << p.flags << std::dec
                            << " factor " << p.factor << " window " << p.low << ".." << p.high;
        if (got != exp) return written;
        written += !kept;
    }
    return written;
}

TEST(DisplayWindowTable, EveryEntryOverCurvesModesAndSignedTables) {
    struct Win { int32_t low, high, minV, maxV; } const wins[] = {
        {10, 200, -100000, 100000}, {-300, 90, -100000, 100000}, {0, 0, 0, 0}, {50, 5000, 60, 180},
        {-5000, 5000, -100000, 100000}, {-40, -3, -100, 100}, {7, 8, -1, 1000}};
    long written = 0;
    for (uint32_t len : {256u, 1000u, 4096u, 1u})
        for (const Win& w : wins)
            for (uint32_t curve : {0x10u, 0x20u, 0x30u, 0x40u})
                for (int f : {0, 1, 25, 100, -30})
                    for (uint32_t flags : {1u, 2u, 0x101u, 0x102u, 0x1001u, 0x1002u, 0x1101u, 0x1102u}) {
                        if (curve == 0x30 && f < 0) continue;  // refused: checked below
                        const Params p{len, {0x12, 0x80, 0xF0}, {0xFE, 0x20, 0}, 255, w.low, w.high, w.minV, w.maxV,
                                       f, flags | curve};
                        written += expectTables(p, std::vector<RGBQUAD>(len, {0xA5, 0xA5, 0xA5, 0xA5}),
                                                std::vector<uint8_t>(len, 0xA5));
                        if (HasFailure()) return;
                    }
    EXPECT_GT(written, 100000);
    for (uint32_t curve : {0x10u, 0x20u, 0x30u, 0x40u})  // 16-bit channels
        for (uint32_t flags : {1u, 2u, 0x101u, 0x102u, 0x1001u, 0x1002u}) {
            const Params p{65536, {0x1234, 0xFFFF, 0}, {0xFEDC, 0x10, 0x8000}, 65535, 1000, 40000, -70000, 70000,
                           37, flags | curve};
            expectTables(p, std::vector<RGBQUAD16>(p.len, {7, 7, 7, 7}), std::vector<uint16_t>(p.len, 7));
            if (HasFailure()) return;
        }
}

// ---------------------------------------------------------------- applying a window

struct Window { int32_t lowBit, highBit, low, high; uint32_t flags; };
// The 8-bit output for a raw pixel by index arithmetic: the sample bits (signed when asked), black below the window and
// white above, the line inside.
long levelRef(uint64_t raw, const Window& w) {
    const int bits = w.highBit - w.lowBit + 1;
    long s = long(raw >> w.lowBit) & ((1L << bits) - 1);
    if ((w.flags & WLFLAG_SIGNED) && (s >> (bits - 1))) s -= 1L << bits;
    const long v = s < w.low ? 0 : s > w.high ? 255 : w.high == w.low ? 0 : (s - w.low) * 255 / (long(w.high) - w.low);
    return w.flags & WL_INVERT ? 255 - v : v;
}

// The grey samples of a bitmap, read or (v given) written row by row.
std::vector<uint64_t> pixels(BITMAPRECORD* bm, const std::vector<uint64_t>* v = nullptr) {
    std::vector<uint64_t> px;
    std::vector<uint8_t> row(bm->nBytesPerLine);
    const combinetest::Format f{bm->nBitsPerPixel, ORDER_GRAY};
    for (int32_t y = 0; y < bm->nHeight; ++y) {
        EXPECT_GE(K_GetBitmapRow(bm, row.data(), y, bm->nBytesPerLine), 0);
        for (int32_t x = 0; v && x < bm->nWidth; ++x) combinetest::setRawPixel(row.data(), x, f, (*v)[px.size() + x]);
        EXPECT_TRUE(!v || K_PutBitmapRow(bm, row.data(), y, bm->nBytesPerLine) >= 0);
        for (int32_t x = 0; x < bm->nWidth; ++x) px.push_back(combinetest::rawPixel(row.data(), x, f));
    }
    return px;
}
// A grey bitmap in one block (view perspective vp) holding the samples v, or random samples (v empty, rng given).
BITMAPRECORD greyBitmap(int w, int h, int bpp, std::vector<uint64_t> v, std::mt19937* rng = nullptr, int vp = 1) {
    BITMAPRECORD bm;
    EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, w, h, bpp, ORDER_GRAY, nullptr, vp, nullptr, 0), KS_SUCCESS);
    for (size_t i = v.size(); rng && i < size_t(w) * size_t(h); ++i) v.push_back((*rng)() & ((1u << bpp) - 1));
    pixels(&bm, &v);
    return bm;
}

// Applies the window with the row kernels asked for (0 automatic, 1 plain, 2 computed line, 3 gathers, 4 the
// 16-bit-lane line) and compares every pixel with the arithmetic.
void checkLevel(BITMAPRECORD* src, const Window& w, std::initializer_list<int> modes = {0, 1, 2, 3}) {
    src->nLowBit = w.lowBit, src->nHighBit = w.highBit;
    const std::vector<uint64_t> raw = pixels(src);
    for (int mode : modes) {
        BITMAPRECORD out;
        krn::testhook::windowLevelKernels(mode);
        const int32_t rc = K_WindowLevel(src, &out, BITMAPRECORD_SIZE, w.low, w.high, 0, w.flags);
        krn::testhook::windowLevelKernels(0);
        ASSERT_EQ(rc, KS_SUCCESS);
        EXPECT_EQ(std::vector<int32_t>({out.nBitsPerPixel, out.nWidth, out.nHeight, out.pPalette[200].rgbGreen}),
                  std::vector<int32_t>({8, src->nWidth, src->nHeight, 200}));
        const std::vector<uint64_t> got = pixels(&out);
        K_FreeBitmap(&out);
        for (size_t i = 0; i < raw.size(); ++i)
            ASSERT_EQ(long(got[i]), levelRef(raw[i], w)) << "kernels " << mode << " bpp " << src->nBitsPerPixel
                << " width " << src->nWidth << " window " << w.low << ".." << w.high << " flags " << w.flags << " raw "
                << raw[i];
    }
}

TEST(DisplayWindowLevel, EveryStorageKindAgainstPixelArithmetic) {
    std::mt19937 rng(3);
    for (int bpp : {16, 12})
        for (Kind kind : kindsFor(bpp)) {
            SCOPED_TRACE(kindName(kind));
            KindBitmap src(kind, 37, 11, bpp);
            ASSERT_EQ(src.rc, KS_SUCCESS);
            src.bm.nOrder = ORDER_GRAY;
            std::vector<uint64_t> v(37 * 11);
            for (auto& s : v) s = rng() & ((1u << bpp) - 1);
            pixels(&src.bm, &v);
            const Window wins[] = {{0, bpp - 1, 100, 3000, 0}, {2, bpp - 3, 10, 700, WL_INVERT},
                                   {0, 11, -800, 900, WLFLAG_SIGNED}, {4, 4, 0, 1, 0}, {0, bpp - 1, 5, 5, 0}};
            for (const Window& w : wins) {
                ASSERT_NO_FATAL_FAILURE(checkLevel(&src.bm, w));
                // The table form with a caller table: each pixel is the entry at its sample bits.
                const int bits = w.highBit - w.lowBit + 1;
                std::vector<RGBQUAD> lut(size_t(1) << bits);
                ASSERT_EQ(KS_SUCCESS, K_WindowLevelFillLUT(lut.data(), uint32_t(lut.size()), 0, 0xFFFFFF, w.low, w.high,
                                      w.lowBit, w.highBit, INT32_MIN, INT32_MAX, 0, 0x12 | (w.flags & WLFLAG_SIGNED)));
                for (auto& q : lut)
                    if (w.flags & WL_INVERT) q = {uint8_t(~q.rgbBlue), uint8_t(~q.rgbGreen), uint8_t(~q.rgbRed), 0};
                BITMAPRECORD out;
                ASSERT_EQ(K_WindowLevelExt(&src.bm, &out, BITMAPRECORD_SIZE_OLD, lut.data(), uint32_t(lut.size()),
                                           w.lowBit, w.highBit, 0), KS_SUCCESS);
                EXPECT_EQ(out.uStructSize, BITMAPRECORD_SIZE_OLD);
                const std::vector<uint64_t> got = pixels(&out);
                K_FreeBitmap(&out);
                // A window inside the sample range needs no clamping: both forms agree.
                const bool inside = w.low >= 0 && w.high < (1L << bits) && !(w.flags & WLFLAG_SIGNED);
                for (size_t i = 0; i < v.size(); ++i) {
                    ASSERT_EQ(got[i], lut[(v[i] >> w.lowBit) & ((1u << bits) - 1)].rgbRed) << "pixel " << i;
                    ASSERT_TRUE(!inside || long(got[i]) == levelRef(v[i], w)) << "pixel " << i;
                }
            }
        }
}

// Every sample value through windows that put the line's float estimate next to whole numbers, the 16-bit-lane line at
// the edges of the windows it takes (the narrowest, 256, and widest, 65535, ending past the sample range, inverted, bit
// fields), and widths that leave every tail length.
TEST(DisplayWindowLevel, EverySampleEveryKernel) {
    for (int32_t bpp : {16, 12}) {
        const int32_t top = (1 << bpp) - 1, w = bpp == 16 ? 256 : 64, b = bpp - 1;
        std::vector<uint64_t> all(size_t(top) + 1);
        for (uint32_t v = 0; v < all.size(); ++v) all[v] = v;
        BITMAPRECORD src = greyBitmap(w, (top + 1) / w, bpp, all);
        const Window windows[] = {
            {0, b, 0, top, 0},      {0, b, 1, 2, 0},           {0, b, 7, 10, WL_INVERT},    {0, b, 100, 355, 0},
            {0, b, 99, 356, 0},     {0, b, 1000, top - 3, 0},  {0, b, -65536, -1, 0},       {0, b, top, top + 65535, 0},
            {0, b, 5, 5, 0},        {0, b, -700, 2900, WLFLAG_SIGNED}, {3, bpp - 2, -9, 40, WLFLAG_SIGNED | WL_INVERT},
            {2, b, 17, 1234, 0},    {0, b, -70000, 70000, 0}};
        for (const Window& win : windows) ASSERT_NO_FATAL_FAILURE(checkLevel(&src, win));
        const Window lane[] = {{0, 15, 0, 256, 0}, {0, 15, 1, 258, WL_INVERT}, {0, 15, 0, 65535, 0},
                               {0, 15, 3, 32771, 0}, {0, 15, 65279, 65535, 0}, {0, 15, 65535, 131070, 0},
                               {0, 15, 40000, 50001, WL_INVERT}, {4, 15, 7, 4000, 0}, {0, 11, 100, 4095, 0},
                               {2, 13, 300, 12000, WL_INVERT}};
        for (const Window& win : lane) ASSERT_NO_FATAL_FAILURE(bpp == 16 ? checkLevel(&src, win, {4}) : void());
        K_FreeBitmap(&src);
    }
    std::mt19937 rng(7);
    for (int32_t bpp : {12, 16})
        for (int32_t width : {1, 2, 15, 16, 17, 18, 19, 21, 31, 33, 34, 35, 47, 63, 65, 66, 101}) {
            BITMAPRECORD src = greyBitmap(width, 3, bpp, {}, &rng);
            ASSERT_NO_FATAL_FAILURE(checkLevel(&src, {0, bpp - 1, 300, 3000, 0}));
            ASSERT_NO_FATAL_FAILURE(checkLevel(&src, {1, bpp - 2, -50, 400, WLFLAG_SIGNED}));
            K_FreeBitmap(&src);
        }
    // The curves on an image large enough for the parallel row helper to split it into bands, against the tables; the
    // plain kernels give the same bytes.
    rng.seed(5);
    BITMAPRECORD src = greyBitmap(700, 300, 16, {}, &rng), out;
    const std::vector<uint64_t> raw = pixels(&src);
    for (uint32_t curve : {0x20u, 0x30u, 0x40u}) {
        const auto want = windowRef({65536, {}, {255, 255, 255}, 255, 9000, 50000, INT32_MIN, INT32_MAX, 42,
                                     0x1002 | curve});
        std::vector<uint64_t> got[2];
        for (bool plain : {false, true}) {
            krn::testhook::windowLevelPlainKernels(plain);
            ASSERT_EQ(K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 9000, 50000, 42, curve), KS_SUCCESS);
            krn::testhook::windowLevelPlainKernels(false);
            got[plain] = pixels(&out);
            K_FreeBitmap(&out);
        }
        for (size_t i = 0; i < raw.size(); ++i) ASSERT_EQ(long(got[0][i]), want[raw[i]][0]) << i;
        EXPECT_EQ(got[1], got[0]);
    }
    K_FreeBitmap(&src);
}

// Tables: refused arguments (the table untouched): mode 3, bad curve and sign nibbles, no curve, log with a negative
// factor, low > high, bits and range reversed, null tables, a start or end beyond the channel. Huge factors saturate.
TEST(DisplayWindowLevel, BadInputInPlaceAndFailures) {
    std::vector<RGBQUAD> lut(16, RGBQUAD{1, 2, 3, 4});
    const std::vector<RGBQUAD> keep = lut;
    auto fill = [&](uint32_t flags, int32_t low = 0, int32_t high = 10, int32_t lb = 0, int32_t hb = 3,
                    int32_t mn = 0, int32_t mx = 15, int32_t factor = 5) {
        return K_WindowLevelFillLUT(lut.data(), 16, 0, 0xFFFFFF, low, high, lb, hb, mn, mx, factor, flags);
    };
    uint8_t g[16];
    uint16_t g16[16];
    for (int32_t rc : {fill(0x13), fill(0x250), fill(0x01), fill(0x51), fill(0x211), fill(0x2011), fill(0x10011),
                       fill(0x31, 0, 10, 0, 3, 0, 15, -1), fill(0x11, 11, 10), fill(0x11, 0, 10, 4, 3),
                       fill(0x11, 0, 10, 0, 3, 16, 15),
                       K_WindowLevelFillLUT(nullptr, 16, 0, 0, 0, 1, 0, 3, 0, 15, 0, 0x11),
                       K_WindowLevelFillLUT2(nullptr, 16, 0, 0, 0, 1, 0, 3, 0, 15, 0, 0x11),
                       K_WindowLevelFillLUT2(g, 16, 256, 0, 0, 1, 0, 3, 0, 15, 0, 0x11),
                       K_WindowLevelFillLUTExt2(g16, 16, 0, 65536, 0, 1, 0, 3, 0, 15, 0, 0x11),
                       K_WindowLevelFillLUTExt(nullptr, 16, 0, 0, 0, 1, 0, 3, 0, 15, 0, 0x11)})
        EXPECT_EQ(rc, KS_INVALID_PARAMETER);
    EXPECT_EQ(0, std::memcmp(lut.data(), keep.data(), keep.size() * sizeof(RGBQUAD)));
    EXPECT_EQ(fill(0x21, 0, 10, 0, 3, 0, 15, -1), KS_SUCCESS);  // exp accepts a negative factor
    EXPECT_EQ(K_WindowLevelFillLUT(lut.data(), 0, 0, 0, 0, 1, 0, 3, 0, 15, 0, 0x11), KS_SUCCESS);
    for (uint32_t curve : {0x20u, 0x30u, 0x40u}) {
        ASSERT_EQ(fill(0x02 | curve, 2, 12, 0, 3, 0, 15, INT32_MAX), KS_SUCCESS);
        EXPECT_EQ(lut[12].rgbRed * 1000 + lut[2].rgbRed, 255000) << curve;
    }
    std::mt19937 rng(9);
    BITMAPRECORD src = greyBitmap(20, 6, 16, {}, &rng, 4), eight = greyBitmap(4, 4, 8, std::vector<uint64_t>(16));
    const std::vector<uint64_t> raw = pixels(&src);
    tkit::Sentinel o;
    BITMAPRECORD &out = o.bm, unalloc, colour = src, badSize = src, badHigh = src;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 4, 4, 16);
    colour.nOrder = ORDER_BGR, badSize.uStructSize = 3, badHigh.nHighBit = 16;
    const int32_t P = KS_INVALID_PARAMETER, R = BITMAPRECORD_SIZE, S = KS_INVALID_STRUCT_SIZE;
    auto wl = [&](BITMAPRECORD* s, uint32_t size, int32_t lo, int32_t f, uint32_t fl) {
        return K_WindowLevel(s, &out, size, lo, 1, f, fl);
    };
    auto ext = [&](RGBQUAD* t, int l, int h, uint32_t f) { return K_WindowLevelExt(&src, &out, R, t, 16, l, h, f); };
    RGBQUAD* table = lut.data();
    for (auto [got, want] : {std::pair{wl(nullptr, R, 0, 0, 0), P}, {K_WindowLevel(&src, nullptr, R, 0, 1, 0, 0), P},
             {wl(&src, 100, 0, 0, 0), S}, {wl(&src, R, 2, 0, 0), P}, {wl(&src, R, 0, 0, 0x1), P},
             {wl(&src, R, 0, -1, 0x30), P}, {ext(table, 0, 4, 0), KS_INVALID_LUT_LENGTH}, {ext(table, 0, 16, 0), P},
             {ext(table, 5, 4, 0), P}, {ext(nullptr, 0, 3, 0), P}, {ext(table, 0, 3, 1), P},
             {wl(&colour, R, 0, 0, 0), P}, {wl(&badSize, R, 0, 0, 0), S}, {wl(&badHigh, R, 0, 0, 0), P},
             {wl(&eight, R, 0, 0, 0), KS_INVALID_BITS_PER_PIXEL}, {wl(&unalloc, R, 0, 0, 0), KS_INVALID_BITMAP}})
        EXPECT_EQ(got, want);
    EXPECT_TRUE(o.intact());
    K_FreeBitmap(&eight);
    // Every allocation failure: the status comes back, out is untouched, nothing leaks.
    tkit::allocationWalk([&](tkit::Armed& armed) {
        tkit::Sentinel d;
        const bool ok = armed([&] { return K_WindowLevel(&src, &d.bm, R, 0, 40000, 0, 0); }) == KS_SUCCESS;
        EXPECT_TRUE(ok ? K_FreeBitmap(&d.bm) == KS_SUCCESS : d.intact()) << armed.n;
    }, 1, true);
    // In place: the source becomes the 8-bit result, with its view perspective.
    ASSERT_EQ(K_WindowLevel(&src, &src, R, 1000, 60000, 0, 0), KS_SUCCESS);
    EXPECT_EQ(src.nBitsPerPixel * 10 + src.nViewPerspective, 84);
    const std::vector<uint64_t> got = pixels(&src);
    for (size_t i = 0; i < raw.size(); ++i) ASSERT_EQ(long(got[i]), levelRef(raw[i], {0, 15, 1000, 60000, 0})) << i;
    K_FreeBitmap(&src);
    // A status callback that stops the job (disk storage: the row path) ends it with its answer and no result.
    ASSERT_EQ(K_CreateBitmap(&src, R, 128, 50, 40, 16, ORDER_GRAY, nullptr, 1, nullptr, 0), KS_SUCCESS);
    tkit::StopAfter stop(2, KS_USER_ABORT);
    tkit::Sentinel stopped;
    tkit::StatusScope scope(&tkit::StopAfter::cb, &stop);
    EXPECT_TRUE(K_WindowLevel(&src, &stopped.bm, R, 0, 100, 0, 0) == KS_USER_ABORT && stopped.intact());
    K_FreeBitmap(&src);
}

}  // namespace
