// test_display_window.cpp - window-level tables against the curves written out
// in double precision, and applying a window to 12- and 16-bit grey bitmaps of
// every storage kind against per-pixel arithmetic.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "ombrix.h"
#include "dis/common/paintutil.h"
#include "krn/common/memory.h"
#include "storage_kinds.h"

using namespace storagetest;

namespace {

struct Params {
    uint32_t len;
    long startC[3], endC[3];  // red, green, blue
    long top;
    long low, high, minV, maxV;
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
    for (int c = 0; c < 3; ++c) {
        s[c] = (mode == 1 || alt) ? p.startC[c] : 0;
        e[c] = (mode == 1 || alt) ? p.endC[c] : p.top;
    }
    auto at = [&](long i) {
        std::array<long, 3> v;
        const long d = hi - lo, u = i - lo;
        for (int c = 0; c < 3; ++c) {
            long r;
            if (d == 0) {
                r = s[c];
            } else if (curve == 0x10 || p.factor == 0) {
                r = s[c] + u * (e[c] - s[c]) / d;
            } else {
                double t;
                if (curve == 0x20) {
                    t = (std::exp(u * k / d) - 1) / (std::exp(k) - 1);
                } else if (curve == 0x30) {
                    t = std::log(u * k / d + 1) / std::log(k + 1);
                } else {
                    auto g = [&](double x) { return 1 / (1 + std::exp((x - (lo + hi) / 2.0) * 2 * k / d)); };
                    t = (g(i) - g(lo)) / (g(hi) - g(lo));
                }
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

constexpr uint8_t kUntouched = 0xA5;

TEST(DisplayWindowTable, EveryEntryOverCurvesModesAndSignedTables) {
    const uint32_t lengths[] = {256, 1000, 4096, 1};
    struct Win {
        long low, high, minV, maxV;
    };
    const Win wins[] = {{10, 200, -100000, 100000}, {-300, 90, -100000, 100000}, {0, 0, 0, 0},
                        {50, 5000, 60, 180},        {-5000, 5000, -100000, 100000}, {-40, -3, -100, 100},
                        {7, 8, -1, 1000}};
    const int factors[] = {0, 1, 25, 100, -30};
    const uint32_t curves[] = {0x10, 0x20, 0x30, 0x40};
    int checked = 0;
    for (uint32_t len : lengths)
        for (const Win& w : wins)
            for (uint32_t curve : curves)
                for (int f : factors)
                    for (uint32_t mode : {1u, 2u})
                        for (uint32_t sign : {0u, 0x100u})
                            for (uint32_t alt : {0u, 0x1000u}) {
                                if (curve == 0x30 && f < 0) continue;
                                Params p{len, {0x12, 0x80, 0xF0}, {0xFE, 0x20, 0x00}, 255, w.low, w.high,
                                         w.minV, w.maxV, f, mode | curve | sign | alt};
                                std::vector<RGBQUAD> lut(len, RGBQUAD{kUntouched, kUntouched, kUntouched, kUntouched});
                                ASSERT_EQ(K_WindowLevelFillLUT(lut.data(), len, 0xF08012, 0x0020FE, int32_t(w.low),
                                                               int32_t(w.high), 0, 11, int32_t(w.minV),
                                                               int32_t(w.maxV), f, p.flags),
                                          KS_SUCCESS);
                                std::vector<uint8_t> grey(len, kUntouched);
                                ASSERT_EQ(K_WindowLevelFillLUT2(grey.data(), len, 0x12, 0xFE, int32_t(w.low),
                                                                int32_t(w.high), 0, 11, int32_t(w.minV),
                                                                int32_t(w.maxV), f, p.flags),
                                          KS_SUCCESS);
                                const auto want = windowRef(p);
                                for (uint32_t i = 0; i < len; ++i) {
                                    const auto& e = want[i];
                                    if (e[0] < 0) {
                                        ASSERT_EQ(lut[i].rgbRed, kUntouched) << i;
                                        ASSERT_EQ(lut[i].rgbReserved, kUntouched) << i;
                                        ASSERT_EQ(grey[i], kUntouched) << i;
                                        continue;
                                    }
                                    ASSERT_EQ(lut[i].rgbRed, e[0]) << len << " f" << f << " fl" << std::hex << p.flags
                                                                   << std::dec << " i" << i << " w" << w.low;
                                    ASSERT_EQ(lut[i].rgbGreen, e[1]) << i;
                                    ASSERT_EQ(lut[i].rgbBlue, e[2]) << i;
                                    ASSERT_EQ(lut[i].rgbReserved, 0) << i;
                                    ASSERT_EQ(grey[i], e[0]) << i;  // the grey table follows the red channel
                                    ++checked;
                                }
                            }
    EXPECT_GT(checked, 100000);
}

TEST(DisplayWindowTable, SixteenBitChannels) {
    for (uint32_t curve : {0x10u, 0x20u, 0x30u, 0x40u})
        for (uint32_t mode : {1u, 2u})
            for (uint32_t extra : {0u, 0x100u, 0x1000u}) {
                const uint32_t len = 65536;
                Params p{len, {0x1234, 0xFFFF, 0}, {0xFEDC, 0x10, 0x8000}, 65535, 1000, 40000, -70000, 70000,
                         37, mode | curve | extra};
                std::vector<RGBQUAD16> lut(len, RGBQUAD16{7, 7, 7, 7});
                std::vector<uint16_t> grey(len, 7);
                const uint64_t cs = 0x1234 | (uint64_t(0xFFFF) << 16), ce = 0xFEDC | (uint64_t(0x10) << 16) |
                                                                         (uint64_t(0x8000) << 32);
                ASSERT_EQ(K_WindowLevelFillLUTExt(lut.data(), len, cs, ce, 1000, 40000, 0, 15, -70000, 70000, 37,
                                                  p.flags),
                          KS_SUCCESS);
                ASSERT_EQ(K_WindowLevelFillLUTExt2(grey.data(), len, 0x1234, 0xFEDC, 1000, 40000, 0, 15, -70000,
                                                   70000, 37, p.flags),
                          KS_SUCCESS);
                const auto want = windowRef(p);
                for (uint32_t i = 0; i < len; ++i) {
                    const long r = want[i][0] < 0 ? 7 : want[i][0];
                    const long g = want[i][1] < 0 ? 7 : want[i][1];
                    const long b = want[i][2] < 0 ? 7 : want[i][2];
                    ASSERT_EQ(lut[i].rgbRed, r) << i << std::hex << " " << p.flags;
                    ASSERT_EQ(lut[i].rgbGreen, g) << i;
                    ASSERT_EQ(lut[i].rgbBlue, b) << i;
                    ASSERT_EQ(grey[i], r) << i;
                }
            }
}

// Worked cases: a few entries computed by hand.
TEST(DisplayWindowTable, WorkedCases) {
    struct Case {
        const char* what;
        uint32_t len, start, end;
        int32_t low, high, factor;
        uint32_t flags;
        std::vector<std::pair<uint32_t, uint32_t>> entries;  // slot, 0xRRGGBB as red, green, blue
    };
    const Case cases[] = {
        {"linear grey ramp, mode 2", 256, 0, 0xFFFFFF, 0, 255, 0, 0x12, {{0, 0}, {128, 0x808080}, {255, 0xFFFFFF}}},
        // 100 * 255 / 200 = 127 (integer division).
        {"linear window 50..250", 256, 0, 0xFFFFFF, 50, 250, 0, 0x12, {{49, 0}, {150, 0x7F7F7F}, {251, 0xFFFFFF}}},
        // Mode 1 repeats the edge entries outside.
        {"mode 1 edges", 16, 0x000010, 0x0000F0, 4, 8, 0, 0x11, {{0, 0x100000}, {4, 0x100000}, {8, 0xF00000}, {15, 0xF00000}}},
        // exp: (e^(0.5 * 1) - 1) / (e - 1) = 0.3775 -> 0.3775 * 255 = 96.27 -> 96.
        {"exponential middle", 256, 0, 0xFFFFFF, 0, 200, 10, 0x22, {{100, 0x606060}}},
        // log: log(1.5) / log(2) = 0.585 -> 149.2 -> 149.
        {"logarithmic middle", 256, 0, 0xFFFFFF, 0, 200, 10, 0x32, {{100, 0x959595}}},
        // Signed: -2 is stored at 6 of an 8-entry table (indexes -4..3).
        {"signed slots", 8, 0, 0xFFFFFF, -2, 2, 0, 0x112, {{6, 0}, {0, 0x7F7F7F}, {2, 0xFFFFFF}, {4, 0}, {3, 0xFFFFFF}}},
    };
    for (const Case& k : cases) {
        std::vector<RGBQUAD> lut(k.len);
        ASSERT_EQ(K_WindowLevelFillLUT(lut.data(), k.len, k.start, k.end, k.low, k.high, 0, 15, -100000, 100000,
                                       k.factor, k.flags),
                  KS_SUCCESS)
            << k.what;
        for (auto [slot, rgb] : k.entries) {
            EXPECT_EQ(lut[slot].rgbRed, (rgb >> 16) & 0xFF) << k.what << " slot " << slot;
            EXPECT_EQ(lut[slot].rgbGreen, (rgb >> 8) & 0xFF) << k.what << " slot " << slot;
            EXPECT_EQ(lut[slot].rgbBlue, rgb & 0xFF) << k.what << " slot " << slot;
        }
    }
}

TEST(DisplayWindowTable, RefusedArguments) {
    std::vector<RGBQUAD> lut(16, RGBQUAD{1, 2, 3, 4});
    const std::vector<RGBQUAD> keep = lut;
    auto fill = [&](uint32_t flags, int32_t low = 0, int32_t high = 10, int32_t lb = 0, int32_t hb = 3,
                    int32_t mn = 0, int32_t mx = 15, int32_t factor = 5) {
        return K_WindowLevelFillLUT(lut.data(), 16, 0, 0xFFFFFF, low, high, lb, hb, mn, mx, factor, flags);
    };
    EXPECT_EQ(fill(0x13), KS_INVALID_PARAMETER);   // mode 3
    EXPECT_EQ(fill(0x250), KS_INVALID_PARAMETER);  // bad curve and sign nibble
    EXPECT_EQ(fill(0x01), KS_INVALID_PARAMETER);   // no curve
    EXPECT_EQ(fill(0x51), KS_INVALID_PARAMETER);
    EXPECT_EQ(fill(0x211), KS_INVALID_PARAMETER);
    EXPECT_EQ(fill(0x2011), KS_INVALID_PARAMETER);
    EXPECT_EQ(fill(0x10011), KS_INVALID_PARAMETER);
    EXPECT_EQ(fill(0x31, 0, 10, 0, 3, 0, 15, -1), KS_INVALID_PARAMETER);  // log with a negative factor
    EXPECT_EQ(fill(0x11, 11, 10), KS_INVALID_PARAMETER);
    EXPECT_EQ(fill(0x11, 0, 10, 4, 3), KS_INVALID_PARAMETER);
    EXPECT_EQ(fill(0x11, 0, 10, 0, 3, 16, 15), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_WindowLevelFillLUT(nullptr, 16, 0, 0, 0, 1, 0, 3, 0, 15, 0, 0x11), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_WindowLevelFillLUT2(nullptr, 16, 0, 0, 0, 1, 0, 3, 0, 15, 0, 0x11), KS_INVALID_PARAMETER);
    uint8_t g[16];
    EXPECT_EQ(K_WindowLevelFillLUT2(g, 16, 256, 0, 0, 1, 0, 3, 0, 15, 0, 0x11), KS_INVALID_PARAMETER);
    uint16_t g16[16];
    EXPECT_EQ(K_WindowLevelFillLUTExt2(g16, 16, 0, 65536, 0, 1, 0, 3, 0, 15, 0, 0x11), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_WindowLevelFillLUTExt(nullptr, 16, 0, 0, 0, 1, 0, 3, 0, 15, 0, 0x11), KS_INVALID_PARAMETER);
    EXPECT_EQ(0, std::memcmp(lut.data(), keep.data(), keep.size() * sizeof(RGBQUAD)));
    EXPECT_EQ(fill(0x21, 0, 10, 0, 3, 0, 15, -1), KS_SUCCESS);  // exp accepts a negative factor
    EXPECT_EQ(K_WindowLevelFillLUT(lut.data(), 0, 0, 0, 0, 1, 0, 3, 0, 15, 0, 0x11), KS_SUCCESS);
    // Huge factors saturate instead of producing garbage.
    for (uint32_t curve : {0x20u, 0x30u, 0x40u}) {
        ASSERT_EQ(fill(0x02 | curve, 2, 12, 0, 3, 0, 15, INT32_MAX), KS_SUCCESS);
        for (int i = 0; i < 16; ++i) EXPECT_LE(lut[size_t(i)].rgbRed, 255);
        EXPECT_EQ(lut[12].rgbRed, 255) << curve;
        EXPECT_EQ(lut[2].rgbRed, 0) << curve;
    }
}

// ---------------------------------------------------------------- applying a window

// The 8-bit output of a sample by index arithmetic: window [low, high] over
// 0..255 by the line, black below and white above (swapped when inverted).
uint8_t levelRef(long sample, long low, long high, bool invert) {
    long v;
    if (sample < low)
        v = 0;
    else if (sample > high)
        v = 255;
    else
        v = high == low ? 0 : (sample - low) * 255 / (high - low);
    return uint8_t(invert ? 255 - v : v);
}

void fillRandom(BITMAPRECORD* bm, uint32_t seed) {
    RefImage ref(bm->nWidth, bm->nHeight, bm->nBitsPerPixel);
    ref.randomize(seed);
    for (int32_t y = 0; y < bm->nHeight; ++y)
        ASSERT_GE(K_PutBitmapRow(bm, ref.row(y), y, bm->nBytesPerLine), 0);
}

std::vector<long> rawSamples(BITMAPRECORD* bm) {
    std::vector<long> s;
    std::vector<uint8_t> row(bm->nBytesPerLine);
    for (int32_t y = 0; y < bm->nHeight; ++y) {
        EXPECT_GE(K_GetBitmapRow(bm, row.data(), y, bm->nBytesPerLine), 0);
        for (int32_t x = 0; x < bm->nWidth; ++x) {
            if (bm->nBitsPerPixel == 16) {
                s.push_back(long(row[size_t(x) * 2]) | (long(row[size_t(x) * 2 + 1]) << 8));
            } else {
                const uint8_t* q = row.data() + size_t(x / 2) * 3;
                s.push_back(x % 2 ? long(q[1] >> 4) | (long(q[2]) << 4) : long(q[0]) | (long(q[1] & 15) << 8));
            }
        }
    }
    return s;
}

std::vector<uint8_t> pixels8(BITMAPRECORD* bm) {
    std::vector<uint8_t> px;
    std::vector<uint8_t> row(bm->nBytesPerLine);
    for (int32_t y = 0; y < bm->nHeight; ++y) {
        EXPECT_GE(K_GetBitmapRow(bm, row.data(), y, bm->nBytesPerLine), 0);
        px.insert(px.end(), row.begin(), row.begin() + bm->nWidth);
    }
    return px;
}

TEST(DisplayWindowLevel, EveryStorageKindAgainstPixelArithmetic) {
    for (int bpp : {16, 12})
        for (Kind kind : kindsFor(bpp)) {
            KindBitmap src(kind, 37, 11, bpp);
            ASSERT_EQ(src.rc, KS_SUCCESS) << kindName(kind);
            src.bm.nOrder = ORDER_GRAY;
            fillRandom(&src.bm, uint32_t(bpp * 7 + int(kind)));
            struct Case {
                int32_t lowBit, highBit, low, high;
                uint32_t flags;
            };
            const Case cases[] = {{0, bpp - 1, 100, 3000, 0},  {2, bpp - 3, 10, 700, WL_INVERT},
                                  {0, 11, -800, 900, WLFLAG_SIGNED}, {4, 4, 0, 1, 0},
                                  {0, bpp - 1, 5, 5, 0}};
            const std::vector<long> raw = rawSamples(&src.bm);
            for (const Case& c : cases) {
                src.bm.nLowBit = c.lowBit;
                src.bm.nHighBit = c.highBit;
                BITMAPRECORD out;
                ASSERT_EQ(K_WindowLevel(&src.bm, &out, BITMAPRECORD_SIZE, c.low, c.high, 0, c.flags), KS_SUCCESS)
                    << kindName(kind);
                EXPECT_EQ(out.nBitsPerPixel, 8);
                EXPECT_EQ(out.nWidth, 37);
                EXPECT_EQ(out.nHeight, 11);
                ASSERT_NE(out.pPalette, nullptr);
                EXPECT_EQ(out.pPalette[200].rgbGreen, 200);
                const std::vector<uint8_t> got = pixels8(&out);
                const int bits = c.highBit - c.lowBit + 1;
                for (size_t i = 0; i < raw.size(); ++i) {
                    long s = (raw[i] >> c.lowBit) & ((1L << bits) - 1);
                    if ((c.flags & WLFLAG_SIGNED) && (s >> (bits - 1))) s -= 1L << bits;
                    ASSERT_EQ(got[i], levelRef(s, c.low, c.high, c.flags & WL_INVERT))
                        << kindName(kind) << " bpp " << bpp << " pixel " << i << " sample " << s;
                }
                // The table form gives the same with a caller table.
                std::vector<RGBQUAD> lut(size_t(1) << bits);
                ASSERT_EQ(K_WindowLevelFillLUT(lut.data(), uint32_t(lut.size()), 0, 0xFFFFFF, c.low, c.high, c.lowBit,
                                               c.highBit, INT32_MIN, INT32_MAX, 0, 0x12 | (c.flags & WLFLAG_SIGNED)),
                          KS_SUCCESS);
                if (c.flags & WL_INVERT)
                    for (auto& q : lut) q = RGBQUAD{uint8_t(255 - q.rgbBlue), uint8_t(255 - q.rgbGreen),
                                                    uint8_t(255 - q.rgbRed), 0};
                BITMAPRECORD out2;
                ASSERT_EQ(K_WindowLevelExt(&src.bm, &out2, BITMAPRECORD_SIZE_OLD, lut.data(), uint32_t(lut.size()),
                                           c.lowBit, c.highBit, 0),
                          KS_SUCCESS);
                EXPECT_EQ(out2.uStructSize, BITMAPRECORD_SIZE_OLD);
                // Each pixel is the table's entry at its sample bits (the grey rule of a grey entry is itself).
                const std::vector<uint8_t> got2 = pixels8(&out2);
                const bool inside = c.low >= 0 && c.high < (1L << bits) && !(c.flags & WLFLAG_SIGNED);
                for (size_t i = 0; i < raw.size(); ++i) {
                    const size_t slot = size_t((raw[i] >> c.lowBit) & ((1L << bits) - 1));
                    ASSERT_EQ(got2[i], lut[slot].rgbRed) << kindName(kind) << " pixel " << i;
                    // A window inside the sample range needs no clamping: both forms agree.
                    if (inside) {
                        ASSERT_EQ(got2[i], got[i]) << kindName(kind) << " pixel " << i;
                    }
                }
                K_FreeBitmap(&out2);
                K_FreeBitmap(&out);
            }
        }
}

TEST(DisplayWindowLevel, CurvesMatchTheTables) {
    BITMAPRECORD src;
    // Large enough for the parallel row helper to split it into bands.
    ASSERT_EQ(K_CreateBitmap(&src, BITMAPRECORD_SIZE, 1, 700, 300, 16, ORDER_GRAY, nullptr, 1, nullptr, 0), KS_SUCCESS);
    fillRandom(&src, 5);
    const std::vector<long> raw = rawSamples(&src);
    for (uint32_t curve : {0x20u, 0x30u, 0x40u}) {
        BITMAPRECORD out;
        ASSERT_EQ(K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 9000, 50000, 42, curve), KS_SUCCESS);
        Params p{65536, {0, 0, 0}, {255, 255, 255}, 255, 9000, 50000, INT32_MIN, INT32_MAX, 42, 0x1002 | curve};
        const auto want = windowRef(p);
        const std::vector<uint8_t> got = pixels8(&out);
        for (size_t i = 0; i < raw.size(); ++i) ASSERT_EQ(got[i], want[size_t(raw[i])][0]) << i;
        K_FreeBitmap(&out);
        // The plain row kernel gives the same bytes as the one picked for this processor.
        krn::testhook::windowLevelPlainKernels(true);
        ASSERT_EQ(K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 9000, 50000, 42, curve), KS_SUCCESS);
        krn::testhook::windowLevelPlainKernels(false);
        EXPECT_EQ(pixels8(&out), got);
        K_FreeBitmap(&out);
    }
    K_FreeBitmap(&src);
}

TEST(DisplayWindowLevel, InPlaceBadInputAndFailures) {
    {  // per-thread settings and the pool exist before counting
        BITMAPRECORD warm, warmOut;
        K_CreateBitmap(&warm, BITMAPRECORD_SIZE, 1, 4, 4, 16, ORDER_GRAY, nullptr, 1, nullptr, 0);
        K_WindowLevel(&warm, &warmOut, BITMAPRECORD_SIZE, 0, 9, 0, 0);
        K_FreeBitmap(&warmOut);
        K_FreeBitmap(&warm);
    }
    const long base = krn::faultinject::liveBlocks();
    BITMAPRECORD src;
    ASSERT_EQ(K_CreateBitmap(&src, BITMAPRECORD_SIZE, 1, 20, 6, 16, ORDER_GRAY, nullptr, 4, nullptr, 0), KS_SUCCESS);
    fillRandom(&src, 9);
    const std::vector<long> raw = rawSamples(&src);
    BITMAPRECORD out, keep;
    std::memset(&out, 0x5A, sizeof out);
    keep = out;
    RGBQUAD lut[16] = {};
    EXPECT_EQ(K_WindowLevel(nullptr, &out, BITMAPRECORD_SIZE, 0, 1, 0, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_WindowLevel(&src, nullptr, BITMAPRECORD_SIZE, 0, 1, 0, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_WindowLevel(&src, &out, 100, 0, 1, 0, 0), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 2, 1, 0, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 0, 1, 0, 0x1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 0, 1, -1, 0x30), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_WindowLevelExt(&src, &out, BITMAPRECORD_SIZE, lut, 16, 0, 4, 0), KS_INVALID_LUT_LENGTH);
    EXPECT_EQ(K_WindowLevelExt(&src, &out, BITMAPRECORD_SIZE, lut, 16, 0, 16, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_WindowLevelExt(&src, &out, BITMAPRECORD_SIZE, lut, 16, 5, 4, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_WindowLevelExt(&src, &out, BITMAPRECORD_SIZE, nullptr, 16, 0, 3, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_WindowLevelExt(&src, &out, BITMAPRECORD_SIZE, lut, 16, 0, 3, 1), KS_INVALID_PARAMETER);
    src.nOrder = ORDER_BGR;
    EXPECT_EQ(K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 0, 1, 0, 0), KS_INVALID_PARAMETER);
    src.nOrder = ORDER_GRAY;
    src.uStructSize = 3;
    EXPECT_EQ(K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 0, 1, 0, 0), KS_INVALID_STRUCT_SIZE);
    src.uStructSize = BITMAPRECORD_SIZE;
    src.nHighBit = 16;
    EXPECT_EQ(K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 0, 1, 0, 0), KS_INVALID_PARAMETER);
    src.nHighBit = 15;
    BITMAPRECORD eight;
    ASSERT_EQ(K_CreateBitmap(&eight, BITMAPRECORD_SIZE, 1, 4, 4, 8, ORDER_GRAY, nullptr, 1, nullptr, 0), KS_SUCCESS);
    EXPECT_EQ(K_WindowLevel(&eight, &out, BITMAPRECORD_SIZE, 0, 1, 0, 0), KS_INVALID_BITS_PER_PIXEL);
    K_FreeBitmap(&eight);
    BITMAPRECORD unalloc;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 4, 4, 16);
    EXPECT_EQ(K_WindowLevel(&unalloc, &out, BITMAPRECORD_SIZE, 0, 1, 0, 0), KS_INVALID_BITMAP);
    EXPECT_EQ(0, std::memcmp(&out, &keep, sizeof out));

    // Every allocation failure: the status comes back, out is untouched, nothing leaks.
    const long before = krn::faultinject::liveBlocks();
    for (long n = 0;; ++n) {
        krn::faultinject::arm(n, 1);
        int32_t r = K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 0, 40000, 0, 0);
        krn::faultinject::disarm();
        if (r == KS_SUCCESS) break;
        EXPECT_LT(r, 0);
        EXPECT_EQ(0, std::memcmp(&out, &keep, sizeof out)) << n;
        EXPECT_EQ(krn::faultinject::liveBlocks(), before) << n;
        ASSERT_LT(n, 50);
    }
    K_FreeBitmap(&out);

    // In place: the source becomes the 8-bit result, with its view perspective.
    ASSERT_EQ(K_WindowLevel(&src, &src, BITMAPRECORD_SIZE, 1000, 60000, 0, 0), KS_SUCCESS);
    EXPECT_EQ(src.nBitsPerPixel, 8);
    EXPECT_EQ(src.nViewPerspective, 4);
    const std::vector<uint8_t> got = pixels8(&src);
    for (size_t i = 0; i < raw.size(); ++i) ASSERT_EQ(got[i], levelRef(raw[i], 1000, 60000, false)) << i;
    K_FreeBitmap(&src);
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

// A status callback that stops the job ends it with its answer and no result.
TEST(DisplayWindowLevel, ProgressCanStop) {
    BITMAPRECORD src;
    ASSERT_EQ(K_CreateBitmap(&src, BITMAPRECORD_SIZE, 128, 50, 40, 16, ORDER_GRAY, nullptr, 1, nullptr, 0),
              KS_SUCCESS);  // disk: the row path
    STATUSCALLBACK oldFn = nullptr;
    void* oldUser = nullptr;
    int calls = 0;
    K_SetStatusCallBack([](int32_t pct, void* u) -> int32_t { ++*static_cast<int*>(u); return pct >= 50 ? -100 : 1; },
                        &calls, &oldFn, &oldUser);
    BITMAPRECORD out{};
    EXPECT_EQ(K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 0, 100, 0, 0), KS_USER_ABORT);
    EXPECT_EQ(out.uFlags & BRF_ALLOCATED, 0u);
    EXPECT_GT(calls, 1);
    K_SetStatusCallBack(oldFn, oldUser, nullptr, nullptr);
    K_FreeBitmap(&src);
}

}  // namespace
