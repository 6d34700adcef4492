// The SIMD 8-bit alpha-over kernel at each level against the plain one (and
// the plain one against the per-sample model), with guard bytes around the span.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "combine_reference.h"
#include "krn/common/combine.h"

namespace {

constexpr size_t kGuard = 64;
constexpr uint8_t kGuardByte = 0xA5;

krn::CombineFormat format32() {
    BITMAPRECORD rec{};
    rec.nBitsPerPixel = 32, rec.nOrder = ORDER_BGR;
    return krn::combineFormat(&rec);
}

// Alpha of pixel k: runs of 8-24 pixels that are all opaque, all transparent,
// all one extreme, or random.
std::vector<uint8_t> alphaRuns(std::mt19937& rng, size_t n) {
    static const uint8_t extremes[] = {0, 1, 127, 128, 254, 255};
    std::vector<uint8_t> a(n);
    for (size_t k = 0; k < n;) {
        const size_t run = 8 + rng() % 17;
        const uint32_t kind = rng() % 4;
        const uint8_t v = extremes[rng() % 6];
        for (size_t j = 0; j < run && k < n; ++j, ++k) a[k] = kind == 3 ? uint8_t(rng()) : kind == 2 ? extremes[rng() % 6] : v;
    }
    return a;
}

// Random rows of odd widths and offsets, alpha in runs that take the block
// short cuts, each operator.
TEST(CombineFastAlphaOver, RandomRowsEveryLevelAgainstPlainAndModel) {
    const krn::CombineFormat cf = format32();
    const combinetest::Format mf{32, ORDER_BGR, -1};
    std::mt19937 rng(2024);
    int levels = 0;
    for (int level = 1; level < 4; ++level) {
        const krn::CombineRowFn fast = krn::alphaOver8Kernel(level);
        if (!fast) continue;
        ++levels;
        for (uint32_t ops : {0x0000u, 0x0001u, 0x0010u, 0x0011u, 0x1000u, 0x1011u}) {
            const uint32_t flags = uint32_t(CombineAlphaOver) | ops;
            krn::CombinePlan plan;
            ASSERT_EQ(krn::combinePlan(flags, 32, &plan), KS_SUCCESS);
            const combinetest::Plan mp = combinetest::planOf(flags, 32);
            for (uint32_t n : {1u, 7u, 8u, 9u, 15u, 17u, 63u, 129u, 1001u}) {
                const size_t off = rng() % 4;  // byte offsets: rows need not be aligned
                std::vector<uint8_t> s(4 * size_t(n) + off), d(4 * size_t(n) + 2 * kGuard, kGuardByte);
                const std::vector<uint8_t> sa = alphaRuns(rng, n), da = alphaRuns(rng, n);
                uint8_t* sp = s.data() + off;
                uint8_t* dp = d.data() + kGuard;
                for (uint32_t k = 0; k < 4 * n; ++k) {
                    sp[k] = k % 4 == 3 ? sa[k / 4] : uint8_t(rng());
                    dp[k] = k % 4 == 3 ? da[k / 4] : uint8_t(rng());
                }
                std::vector<uint8_t> want = d, got = d, scratch(krn::combineScratchBytes(n, 32));
                krn::alphaOver8Kernel(0)(plan, cf, {sp, 0, want.data() + kGuard, 0, n, scratch.data()});
                fast(plan, cf, {sp, 0, got.data() + kGuard, 0, n, scratch.data()});
                ASSERT_EQ(got, want) << "level " << level << " flags " << std::hex << flags << std::dec << " n " << n;
                for (uint32_t k = 0; k < n; ++k) {
                    uint32_t sv = 0, dv = 0, wv = 0;
                    std::memcpy(&sv, sp + 4 * k, 4);
                    std::memcpy(&dv, dp + 4 * k, 4);
                    std::memcpy(&wv, want.data() + kGuard + 4 * k, 4);
                    ASSERT_EQ(wv, uint32_t(combinetest::combinePixel(mp, sv, dv, mf)))
                        << "plain kernel, flags " << std::hex << flags << " pixel " << std::dec << k;
                }
                for (size_t g = 0; g < kGuard; ++g) ASSERT_TRUE(got[g] == kGuardByte && got[got.size() - 1 - g] == kGuardByte);
            }
        }
    }
    if (!levels) GTEST_SKIP() << "no SIMD level on this processor";
}

// Every (Sa, Da) with the colour pairs at the ends of the numerator's range
// (0/255 each way, 255 over 255, neighbours of the quotient's extremes) and
// random ones; the pixels of an alpha pair sit in one block of 16, so blocks
// are mixed and never take a short cut except where every Sa is 0 or 255.
TEST(CombineFastAlphaOver, EveryAlphaPairWithExtremeColours) {
    const krn::CombineFormat cf = format32();
    krn::CombinePlan plan;
    ASSERT_EQ(krn::combinePlan(CombineAlphaOver, 32, &plan), KS_SUCCESS);
    static const uint8_t fixed[][2] = {{0, 0}, {255, 255}, {255, 0}, {0, 255}, {1, 254}, {254, 1}, {255, 254}, {254, 255}};
    std::mt19937 rng(7);
    const uint32_t n = 65536 * 16;
    std::vector<uint8_t> s(4 * size_t(n)), d(4 * size_t(n));
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t pair = k / 16, j = k % 16;
        for (int c = 0; c < 3; ++c) {
            s[4 * k + c] = j < 8 ? fixed[(j + c) % 8][0] : uint8_t(rng());
            d[4 * k + c] = j < 8 ? fixed[(j + c) % 8][1] : uint8_t(rng());
        }
        s[4 * k + 3] = uint8_t(pair & 255);
        d[4 * k + 3] = uint8_t(pair >> 8);
    }
    std::vector<uint8_t> want = d, scratch(krn::combineScratchBytes(n, 32));
    krn::alphaOver8Kernel(0)(plan, cf, {s.data(), 0, want.data(), 0, n, scratch.data()});
    int levels = 0;
    for (int level = 1; level < 4; ++level) {
        const krn::CombineRowFn fast = krn::alphaOver8Kernel(level);
        if (!fast) continue;
        ++levels;
        std::vector<uint8_t> got = d;
        fast(plan, cf, {s.data(), 0, got.data(), 0, n, scratch.data()});
        for (uint32_t k = 0; k < n; ++k)
            for (int c = 0; c < 4; ++c)
                ASSERT_EQ(got[4 * k + c], want[4 * k + c])
                    << "level " << level << " Sa " << (k / 16 & 255) << " Da " << (k / 16 >> 8) << " S "
                    << int(s[4 * k + c]) << " D " << int(d[4 * k + c]);
    }
    if (!levels) GTEST_SKIP() << "no SIMD level on this processor";
}

}  // namespace
