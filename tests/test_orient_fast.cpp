// The tiled SIMD quarter-turn kernels at every level against the plain one:
// sizes around the micro blocks and tiles, odd offsets, guard bytes, and a
// source ending where its block ends (an over-read shows under ASan).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "krn/common/rotate.h"
#include "ombrix.h"

namespace {

constexpr size_t kGuard = 64;
constexpr uint8_t kFill = 0xA5;

struct Case {
    int bpp;
    uint32_t w, h;
    size_t srcOff, dstOff;
};

std::string describe(const Case& c, int level, int mode) {
    return ::testing::PrintToString(std::vector<size_t>{size_t(c.bpp), c.w, c.h, c.srcOff, c.dstOff, size_t(level), size_t(mode)}) +
           " (bpp, w, h, offsets, level, mode)";
}

// One block turned by the kernels of `level` and by the plain reference into
// two destinations with guards and row slack filled with kFill.
void checkCase(const Case& c, int level, std::mt19937& rng) {
    const size_t rowBytes = size_t((uint64_t(c.w) * uint64_t(c.bpp) + 7) / 8);
    const size_t ss = rowBytes + rng() % 5;  // any stride, not only 4-byte multiples
    const size_t outBytes = size_t((uint64_t(c.h) * uint64_t(c.bpp) + 7) / 8);
    const size_t ds = outBytes + rng() % 9;
    std::vector<uint8_t> src(c.srcOff + ss * (c.h - 1) + rowBytes);  // ends where the block ends
    for (auto& b : src) b = uint8_t(rng());
    const size_t dstBytes = kGuard + c.dstOff + ds * c.w + kGuard;
    for (int mode = 0; mode < 4; ++mode) {
        const bool revY = mode & 1, revX = mode & 2;
        std::vector<uint8_t> fast(dstBytes, kFill), plain(dstBytes, kFill);
        uint8_t* f = fast.data() + kGuard + c.dstOff;
        krn::turnBlockAt(level, src.data() + c.srcOff, ss, f, ds, c.w, c.h, c.bpp, revY, revX);
        krn::turnBlockPlain(src.data() + c.srcOff, ss, plain.data() + kGuard + c.dstOff, ds, c.w, c.h, c.bpp, revY,
                            revX);
        ASSERT_EQ(fast, plain) << describe(c, level, mode);
        // Nothing outside the destination rows' pixel bytes was written.
        for (size_t i = 0; i < dstBytes; ++i) {
            const size_t at = i - (kGuard + c.dstOff);
            if (i < kGuard + c.dstOff || at >= ds * c.w || at % ds >= outBytes) {
                ASSERT_EQ(fast[i], kFill) << describe(c, level, mode);
            }
        }
    }
}

class OrientFastKernels : public ::testing::TestWithParam<int> {};

TEST_P(OrientFastKernels, MatchThePlainReference) {
    const int level = GetParam();
    std::mt19937 rng(uint32_t(7 + level));
    // Sizes on both sides of the micro blocks and the tiles, and a few larger
    // blocks that hold several tiles with ragged edges.
    const uint32_t sizes[] = {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 97};
    for (int bpp : {1, 8, 16, 24, 32, 48, 64}) {
        for (uint32_t w : sizes)
            for (uint32_t h : {1u, 4u, 8u, 11u, 16u, 17u, 64u, 70u}) checkCase({bpp, w, h, rng() % 4, rng() % 4}, level, rng);
        for (const auto& wh : {std::pair{200u, 131u}, std::pair{131u, 200u}, std::pair{257u, 129u}})
            checkCase({bpp, wh.first, wh.second, rng() % 4, rng() % 4}, level, rng);
    }
}

// The row kernels of flips and mirrors at the same level: mirror against the
// plain form (bytes after the row kept), row swap against std::swap_ranges.
TEST_P(OrientFastKernels, RowKernelsMatchThePlainForms) {
    const int level = krn::setOrientSimdLevel(GetParam());
    std::mt19937 rng(uint32_t(5 + level));
    for (int bpp : {1, 8, 24, 32}) {
        for (uint32_t w : {2u, 15u, 16u, 17u, 31u, 33u, 63u, 64u, 65u, 97u, 129u, 200u, 511u}) {
            const size_t off = rng() % 4, bytes = off + size_t((uint64_t(w) * bpp + 7) / 8) + 8;
            std::vector<uint8_t> a(bytes), b;
            for (auto& x : a) x = uint8_t(rng());
            b = a;
            krn::mirrorRow(a.data() + off, w, bpp);
            krn::mirrorRowPlain(b.data() + off, w, bpp);
            ASSERT_EQ(a, b) << "mirror bpp " << bpp << " w " << w << " level " << level;
        }
    }
    for (size_t n : {0, 1, 31, 32, 127, 128, 129, 300, 1000}) {
        std::vector<uint8_t> buf(2 * n + 16), want;
        for (auto& x : buf) x = uint8_t(rng());
        want = buf;
        std::swap_ranges(want.begin() + 1, want.begin() + 1 + ptrdiff_t(n), want.begin() + 3 + ptrdiff_t(n));
        krn::swapRows(buf.data() + 1, buf.data() + 3 + n, n);
        ASSERT_EQ(buf, want) << "swap " << n << " level " << level;
    }
    krn::setOrientSimdLevel(-1);
}

INSTANTIATE_TEST_SUITE_P(Levels, OrientFastKernels, ::testing::Values(0, 1, 2),
                         [](const ::testing::TestParamInfo<int>& i) {
                             return std::string(i.param == 0 ? "NoSimd" : i.param == 1 ? "Ssse3" : "Avx2");
                         });

// The engine picks the kernel once per call: a bitmap turned at each level
// equals the same bitmap turned without SIMD, for sizes that leave partial
// tiles and partial engine chunks.
TEST(OrientFast, BitmapTurnsAgreeAtEveryLevel) {
    for (int bpp : {8, 24, 32})
        for (const auto& wh : {std::pair{301, 203}, std::pair{64, 129}, std::pair{40, 1100}}) {
            std::vector<uint8_t> turned[3];
            for (int level = 0; level < 3; ++level) {
                krn::setOrientSimdLevel(level);
                BITMAPRECORD bm;
                ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, wh.first, wh.second, bpp, 0, nullptr, 1, nullptr, 0),
                          KS_SUCCESS);
                K_AccessBitmap(&bm);
                for (size_t i = 0; i < size_t(bm.nBytesPerLine) * wh.second; ++i) bm.pData[i] = uint8_t(i * 7 + i / 13);
                K_ReleaseBitmap(&bm);
                ASSERT_EQ(K_RotateBitmap90(&bm, bpp & 8 ? 1 : 0, 0, 100), KS_SUCCESS);
                K_AccessBitmap(&bm);
                turned[level].assign(bm.pData, bm.pData + size_t(bm.nBytesPerLine) * wh.first);
                K_ReleaseBitmap(&bm);
                K_FreeBitmap(&bm);
            }
            krn::setOrientSimdLevel(-1);
            EXPECT_EQ(turned[1], turned[0]) << "bpp " << bpp << " " << wh.first << "x" << wh.second;
            EXPECT_EQ(turned[2], turned[0]) << "bpp " << bpp << " " << wh.first << "x" << wh.second;
        }
}

}  // namespace
