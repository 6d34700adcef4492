// test_convert_misc.cpp - HSV, line-buffer sizes, padding of grey windows
// and the 32-bit grey reductions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "ombrix.h"

namespace {
uint32_t rgb(int r, int g, int b) { return uint32_t(r) | (uint32_t(g) << 8) | (uint32_t(b) << 16); }
int H(uint32_t hsv) { return int(hsv & 0xFF); }
int S(uint32_t hsv) { return int((hsv >> 8) & 0xFF); }
int V(uint32_t hsv) { return int((hsv >> 16) & 0xFF); }
}  // namespace

TEST(ConvertHsv, DocumentedColours) {
    EXPECT_EQ(K_RGBtoHSV(rgb(255, 0, 0)), rgb(0, 255, 255));
    EXPECT_EQ(H(K_RGBtoHSV(rgb(0, 255, 0))), 85);
    EXPECT_EQ(H(K_RGBtoHSV(rgb(0, 0, 255))), 171);
    EXPECT_EQ(H(K_RGBtoHSV(rgb(255, 255, 0))), 43);
    for (int v = 0; v < 256; ++v) EXPECT_EQ(K_RGBtoHSV(rgb(v, v, v)), uint32_t(v) << 16);
    EXPECT_EQ(K_HSVtoRGB(rgb(0, 255, 255)), rgb(255, 0, 0));
    for (int h = 0; h < 256; h += 7)
        for (int v = 0; v < 256; v += 5) EXPECT_EQ(K_HSVtoRGB(rgb(h, 0, v)), rgb(v, v, v));
    // The top byte of an input does not matter; the pointer forms agree.
    EXPECT_EQ(K_RGBtoHSV(0xAB000000u | rgb(10, 200, 30)), K_RGBtoHSV(rgb(10, 200, 30)));
    uint32_t out = 0;
    EXPECT_EQ(K_RGBtoHSV2(rgb(12, 34, 56), &out), KS_SUCCESS);
    EXPECT_EQ(out, K_RGBtoHSV(rgb(12, 34, 56)));
    EXPECT_EQ(K_RGBtoHSV2(rgb(1, 2, 3), nullptr), KS_INVALID_PARAMETER);
    uint32_t in = rgb(100, 200, 150);
    EXPECT_EQ(K_HSVtoRGB2(&in), K_HSVtoRGB(in));
    EXPECT_EQ(K_HSVtoRGB2(nullptr), 0u);
}

// Forward conversion against the proportional model in floating point:
// hue = (sector + share of the higher of the two upper channels) * 256 / 3.
TEST(ConvertHsv, ForwardMatchesProportionalModel) {
    int worst = 0;
    for (int r = 0; r < 256; r += 3)
        for (int g = 0; g < 256; g += 3)
            for (int b = 0; b < 256; b += 3) {
                uint32_t hsv = K_RGBtoHSV(rgb(r, g, b));
                int mn = std::min({r, g, b}), mx = std::max({r, g, b});
                ASSERT_EQ(V(hsv), mx);
                if (mx == mn) {
                    ASSERT_EQ(hsv, uint32_t(mx) << 16);
                    continue;
                }
                ASSERT_EQ(S(hsv), (mx - mn) * 255 / mx);
                double sector, t;
                if (b == mn)
                    sector = 0, t = double(g - mn) / double((r - mn) + (g - mn));
                else if (r == mn)
                    sector = 1, t = double(b - mn) / double((g - mn) + (b - mn));
                else
                    sector = 2, t = double(r - mn) / double((b - mn) + (r - mn));
                int want = int(std::floor((sector + t) * 256.0 / 3.0 + 0.5)) & 255;
                int diff = std::abs(H(hsv) - want);
                worst = std::max(worst, std::min(diff, 256 - diff));
            }
    EXPECT_LE(worst, 1);
}

// Inverse conversion: V is the largest channel, m the smallest, and the
// third channel follows the sector's proportion.
TEST(ConvertHsv, InverseMatchesProportionalModel) {
    for (int h8 = 0; h8 < 256; ++h8)
        for (int s = 1; s < 256; s += 2)
            for (int v = 0; v < 256; v += 3) {
                uint32_t c = K_HSVtoRGB(rgb(h8, s, v));
                int r = int(c & 255), g = int((c >> 8) & 255), b = int((c >> 16) & 255);
                ASSERT_EQ(c >> 24, 0u);
                int m = (255 - s) * v / 255, d = v - m;
                ASSERT_EQ(std::max({r, g, b}), v);
                ASSERT_EQ(std::min({r, g, b}), m);
                double h = double((h8 * 360) >> 8);
                // The sector's upper channel relative to the proportion.
                double share;  // middle channel's share of (middle + top) above m
                int mid;
                if (h <= 120) {
                    share = h / 120.0, mid = h <= 60 ? g : r;
                    if (h > 60) share = 1 - share;
                } else if (h <= 240) {
                    share = (h - 120) / 120.0, mid = h <= 180 ? b : g;
                    if (h > 180) share = 1 - share;
                } else {
                    share = (h - 240) / 120.0, mid = h <= 300 ? r : b;
                    if (h > 300) share = 1 - share;
                }
                // share = (mid - m) / ((mid - m) + d)  =>  mid = m + d * share / (1 - share)
                double want = m + (share >= 1 ? d : d * share / (1 - share));
                ASSERT_LE(std::abs(mid - want), 1.0) << h8 << " " << s << " " << v;
            }
}

TEST(ConvertSizes, CalcConvertSize) {
    // The largest of the rows involved: width A at depth A, width B at depth A and at depth B
    // (each rounded up to four bytes; depth 0 counts as 8).
    struct Size {
        int32_t wa, ba, wb, bb;
        uint32_t bytes;
    };
    const Size sizes[] = {{10, 24, 20, 1, 60},  {3, 0, 1, 1, 4},     {1, 1, 3, 64, 24},
                          {100, 8, 10, 8, 100}, {33, 1, 1, 48, 8},   {4999, 12, 7, 64, 7500},
                          {-1, 8, 1, 1, 0},     {0x7FFFFFFF, 64, 1, 1, 0}};  // beyond 32 bits
    for (const auto& c : sizes)
        EXPECT_EQ(K_CalcConvertSize(c.wa, c.ba, c.wb, c.bb), c.bytes) << c.wa << " " << c.ba << " " << c.wb << " " << c.bb;
}

// The padding rule seen from the window: a sample's window value w (bits
// lo..hi) is raised to at least `pad` when the window does not start at bit
// 0, and lowered to at most the largest value whose bits, with pad
// subtracted below the window, still fit (the top of a window ending at bit
// 15 is never cut); bits outside the window never change.
TEST(ConvertSizes, PadPixelDataKeepsWindowValuesInTheirBand) {
    std::mt19937 rng(8);
    int changed = 0;
    for (int hi = -2; hi <= 17; ++hi)
        for (int lo = -1; lo <= 16; ++lo)
            for (int pad : {0, 1, 3, 17, 300, 100000}) {
                // Out-of-range arguments: a high bit past 15 reads as 1, the low bit stays below it.
                const int h = hi < 0 ? 0 : hi > 15 ? 1 : hi, l = std::clamp(lo, 0, std::max(h - 1, 0));
                const int bits = h - l + 1, top = (1 << bits) - 1;
                const int p = (h == 15 && l == 0) ? 0 : std::clamp(pad, 0, (top + 1) / 4);
                const int minW = l > 0 ? p : 0, maxW = h < 15 ? top - (p >> l) : top;
                std::vector<uint16_t> a(97);
                for (auto& x : a) x = uint16_t(rng());
                a[0] = 0, a[1] = 0xFFFF;
                const std::vector<uint16_t> orig = a;
                ASSERT_EQ(K_PadPixelData(a.data(), 16, int32_t(a.size()), hi, lo, pad), KS_SUCCESS);
                for (size_t i = 0; i < a.size(); ++i) {
                    const int w0 = (orig[i] >> l) & top, w = (a[i] >> l) & top;
                    const int want = p == 0 ? w0 : std::clamp(w0, minW, maxW);
                    ASSERT_EQ(w, want) << hi << " " << lo << " " << pad << " sample " << orig[i];
                    ASSERT_EQ(a[i] & ~(top << l) & 0xFFFF, orig[i] & ~(top << l) & 0xFFFF);
                }
                changed += a != orig;
            }
    EXPECT_GT(changed, 100);
    uint16_t one = 0;
    EXPECT_EQ(K_PadPixelData(nullptr, 16, 1, 11, 0, 4), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_PadPixelData(&one, 8, 1, 11, 0, 4), KS_INVALID_PARAMETER);
    // A 12-bit window in bits 0..11 with a pad of 4 keeps values at most 4091;
    // in bits 4..15 the bottom is raised to 4 steps and the top stays.
    uint16_t top = 4095, low[2] = {0x0007, 0xFFF3};
    ASSERT_EQ(K_PadPixelData(&top, 16, 1, 11, 0, 4), KS_SUCCESS);
    EXPECT_EQ(top, 4091);
    ASSERT_EQ(K_PadPixelData(low, 16, 2, 15, 4, 4), KS_SUCCESS);
    EXPECT_EQ(low[0], 0x0047);
    EXPECT_EQ(low[1], 0xFFF3);
}

TEST(ConvertSizes, Gray32Reductions) {
    std::mt19937 rng(6);
    std::vector<uint32_t> src(301);
    for (auto& x : src) x = rng();
    src[0] = 0, src[1] = 0xFFFFFFFFu;
    for (int lo = -1; lo < 32; lo += 3)
        for (int hi = -1; hi < 32; hi += 4) {
            int l = lo < 0 ? 0 : lo, h = hi < 0 ? 31 : hi;
            std::vector<uint16_t> d16(src.size());
            std::vector<uint8_t> d8(src.size());
            int st16 = K_Gray32To16(src.data(), d16.data(), int32_t(src.size()), lo, hi);
            int st8 = K_Gray32To8(src.data(), d8.data(), int32_t(src.size()), lo, hi);
            if (l > h) {
                EXPECT_EQ(st16, KS_INVALID_PARAMETER);
                EXPECT_EQ(st8, KS_INVALID_PARAMETER);
                continue;
            }
            ASSERT_EQ(st16, KS_SUCCESS);
            ASSERT_EQ(st8, KS_SUCCESS);
            int n = h - l + 1;
            for (size_t i = 0; i < src.size(); ++i) {
                uint64_t v = (uint64_t(src[i]) >> l) & ((uint64_t(1) << n) - 1);
                uint64_t full = (uint64_t(1) << n) - 1;
                // Narrower: the top bits; wider: stretched, full scale to full scale.
                uint64_t w16 = n >= 16 ? v >> (n - 16) : v * 65535 / full;
                uint64_t w8 = n >= 8 ? v >> (n - 8) : v * 255 / full;
                ASSERT_EQ(d16[i], w16) << l << ".." << h;
                ASSERT_EQ(d8[i], w8) << l << ".." << h;
            }
            // In place gives the same result.
            std::vector<uint32_t> inplace = src;
            ASSERT_EQ(K_Gray32To16(inplace.data(), inplace.data(), int32_t(src.size()), lo, hi), KS_SUCCESS);
            ASSERT_EQ(std::memcmp(inplace.data(), d16.data(), d16.size() * 2), 0);
        }
    uint32_t one = 5;
    uint8_t out8;
    EXPECT_EQ(K_Gray32To8(nullptr, &out8, 1, -1, -1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_Gray32To8(&one, nullptr, 1, -1, -1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_Gray32To8(&one, &out8, 0, -1, -1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_Gray32To8(&one, &out8, 1, 0, 32), KS_INVALID_PARAMETER);
}
