// test_convert_swapfast.cpp - the 24-bit order swap and the 16-bit to
// 24-bit widening at every SIMD level the machine has (the converter's level
// hook) and through K_ConvertBuffer: odd widths, every start alignment
// 0..63 within a cache line, guard bytes before and after the run. The
// kernels work in place; the oracles build the expected run out of place
// (the swap by index arithmetic, the widening by the reference converter).
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "convert_reference.h"
#include "krn/common/convert_kernels.h"
#include "ombrix.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr size_t kGuard = 64;
const int kLevels[] = {krn::conv::kSimdNone, krn::conv::kSimdSsse3, krn::conv::kSimdAvx2, krn::conv::kSimdAvx512};

Bytes randomBytes(std::mt19937& rng, size_t n) {
    Bytes b(n);
    for (auto& x : b) x = uint8_t(rng());
    return b;
}

// Runs `convert` on a copy of `src` placed `align` bytes past a 64-byte
// boundary with guard bytes on both sides; the run must equal `expect` and
// the guards must be untouched.
template <class F>
void checkAligned(const Bytes& src, const Bytes& expect, size_t align, F&& convert) {
    std::vector<uint64_t> store((2 * kGuard + 128 + src.size()) / 8 + 1);
    auto* base = reinterpret_cast<uint8_t*>(store.data());
    base += (64 - reinterpret_cast<uintptr_t>(base) % 64) % 64;
    for (size_t i = 0; i < 2 * kGuard + align + src.size(); ++i) base[i] = uint8_t(0xA5 ^ i);
    uint8_t* run = base + kGuard + align;
    std::copy(src.begin(), src.end(), run);
    convert(run);
    ASSERT_TRUE(std::equal(expect.begin(), expect.end(), run)) << "alignment " << align;
    for (size_t i = 0; i < kGuard + align; ++i) ASSERT_EQ(base[i], uint8_t(0xA5 ^ i)) << "guard before, alignment " << align;
    for (size_t i = kGuard + align + src.size(); i < 2 * kGuard + align + src.size(); ++i)
        ASSERT_EQ(base[i], uint8_t(0xA5 ^ i)) << "guard after, alignment " << align;
}

// Widths around every step of the swap: the head up to the first line
// (up to 63 pixels), pairs of 32-pixel steps (which read one pixel past
// their end), single steps, the 16-pixel steps and the plain pixels.
const int kSwapWidths[] = {1, 2, 5, 16, 17, 31, 33, 47, 63, 64, 65, 66, 96, 97, 98, 127, 128, 129, 130, 161, 191, 193, 255, 257, 1001, 4001};

TEST(ConvertSwapFast, EveryLevelEveryAlignmentMatchesTheIndexOracle) {
    std::mt19937 rng(5);
    for (int width : kSwapWidths) {
        const Bytes src = randomBytes(rng, size_t(width) * 3);
        Bytes expect(src.size());
        for (size_t p = 0; p < size_t(width); ++p)
            for (size_t c = 0; c < 3; ++c) expect[3 * p + c] = src[3 * p + 2 - c];
        for (int level : kLevels) {
            SCOPED_TRACE("width " + std::to_string(width) + " level " + std::to_string(level));
            for (const auto& order : {std::pair{ORDER_BGR, ORDER_RGB}, std::pair{ORDER_RGB, ORDER_BGR}}) {
                const auto fn = krn::conv::pickDirect({24, order.first, 24, order.second}, level);
                ASSERT_NE(fn, nullptr);
                for (size_t align = 0; align < 64; ++align)
                    checkAligned(src, expect, align, [&](uint8_t* p) { fn(p, size_t(width)); });
            }
        }
        for (size_t align = 0; align < 64; ++align)
            checkAligned(src, expect, align, [&](uint8_t* p) {
                ASSERT_EQ(K_ConvertBuffer(p, width, 24, 24, ORDER_RGB, ORDER_BGR, nullptr, nullptr), KS_SUCCESS);
            });
    }
}

// A whole image as one run, twice: the swap is its own inverse.
TEST(ConvertSwapFast, WholeImageRunSwapsBackToTheOriginal) {
    std::mt19937 rng(6);
    const int width = 640 * 97 + 3;
    const Bytes src = randomBytes(rng, size_t(width) * 3);
    Bytes expect(src.size());
    for (size_t p = 0; p < size_t(width); ++p)
        for (size_t c = 0; c < 3; ++c) expect[3 * p + c] = src[3 * p + 2 - c];
    for (size_t align : {0, 1, 17, 63})
        checkAligned(src, src, align, [&](uint8_t* p) {
            ASSERT_EQ(K_ConvertBuffer(p, width, 24, 24, ORDER_BGR, ORDER_RGB, nullptr, nullptr), KS_SUCCESS);
            ASSERT_TRUE(std::equal(expect.begin(), expect.end(), p));
            ASSERT_EQ(K_ConvertBuffer(p, width, 24, 24, ORDER_RGB, ORDER_BGR, nullptr, nullptr), KS_SUCCESS);
        });
}

// 16 -> 24 from the end, at every level: short runs at every alignment and
// runs of several touch chunks (a whole image in one call) at a few.
TEST(ConvertSwapFast, Widen16To24EveryLevelMatchesTheReference) {
    const int keys[][2] = {{ORDER_BGR565, ORDER_BGR}, {ORDER_BGR565, ORDER_RGB}, {ORDER_BGR, ORDER_BGR}, {ORDER_RGB, ORDER_BGR}};
    std::mt19937 rng(7);
    for (int width : {1, 31, 32, 33, 63, 64, 65, 127, 129, 1001, 20011}) {
        for (const auto& k : keys) {
            convref::Request r;
            r.width = width, r.srcBits = 16, r.srcOrder = k[0], r.dstBits = 24, r.dstOrder = k[1];
            Bytes src = randomBytes(rng, size_t(width) * 3);
            const Bytes expect = convref::convert(r, src);
            for (int level : kLevels) {
                SCOPED_TRACE("width " + std::to_string(width) + " order " + std::to_string(k[0]) + "->" +
                             std::to_string(k[1]) + " level " + std::to_string(level));
                const auto fn = krn::conv::pickDirect({16, k[0], 24, k[1]}, level);
                ASSERT_NE(fn, nullptr);
                for (size_t align = 0; align < 64; align += width > 2000 ? 21 : 1)
                    checkAligned(src, expect, align, [&](uint8_t* p) { fn(p, size_t(width)); });
            }
        }
    }
}

// A run of more than 4 MB of destination (a whole image in one call): the
// backward walk in place touches its destination in chunks ahead of it.
TEST(ConvertSwapFast, WideningWholeImageRunsMatchTheReference) {
    std::mt19937 rng(8);
    const int keys[][4] = {{16, ORDER_BGR565, 24, ORDER_RGB}, {24, ORDER_BGR, 32, ORDER_BGR}, {24, ORDER_RGB, 32, ORDER_BGR}};
    for (const auto& k : keys) {
        const int width = 1500 * 1000 + 37;
        convref::Request r;
        r.width = width, r.srcBits = k[0], r.srcOrder = k[1], r.dstBits = k[2], r.dstOrder = k[3];
        const Bytes src = randomBytes(rng, size_t(width) * size_t(k[2] / 8));
        const Bytes expect = convref::convert(r, src);
        for (int level : kLevels) {
            SCOPED_TRACE(std::to_string(k[0]) + " -> " + std::to_string(k[2]) + " level " + std::to_string(level));
            const auto fn = krn::conv::pickDirect({k[0], k[1], k[2], k[3]}, level);
            // 16 -> 24: 0, 21, 14, 1 and 43 pixels before the first line; 24 -> 32: 0, 15 and 1.
            for (size_t align : {0, 1, 4, 22, 60, 61, 63})
                checkAligned(src, expect, align, [&](uint8_t* p) { fn(p, size_t(width)); });
        }
    }
}

}  // namespace
