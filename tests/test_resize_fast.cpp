// The fast resize kernels at every vector level against block means and pixel
// picks by index arithmetic; area reductions through the public calls.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "krn/common/convert_kernels.h"
#include "krn/common/resize.h"
#include "krn/common/resize_kernels.h"
#include "transform_kit.h"

namespace {

using storagetest::Kind;

struct LevelCap {  // caps the kernels' vector level for one scope
    explicit LevelCap(int l) { krn::resampletest::setSimdCap(l); }
    ~LevelCap() { krn::resampletest::setSimdCap(krn::conv::kSimdAvx512); }
};
// Every level the processor reaches, each once.
std::vector<int> levels() {
    std::vector<int> out;
    for (int l = krn::conv::kSimdNone; l <= krn::conv::kSimdAvx512; ++l) {
        LevelCap cap(l);
        if (krn::rsz::simdLevel() == l) out.push_back(l);
    }
    return out;
}

std::vector<uint8_t> randomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = uint8_t(rng());
    return v;
}

// The rounded mean of a bx x by block of sample k of target pixel x, rows of `stride` bytes.
uint8_t blockMean(const uint8_t* s, size_t stride, int32_t x, int32_t k, int32_t bx, int32_t by, int32_t c) {
    uint32_t sum = 0;
    for (int32_t r = 0; r < by; ++r)
        for (int32_t t = 0; t < bx; ++t) sum += s[size_t(r) * stride + size_t(x * bx + t) * size_t(c) + size_t(k)];
    const uint32_t n = uint32_t(bx * by);
    return uint8_t((sum + n / 2) / n);
}

TEST(ResizeFastKernels, DividerIsExactAtEveryRoundingEdge) {
    for (int32_t n = 1; n <= krn::rsz::kBoxMaxPixels; ++n) {
        const krn::rsz::BoxDivider div = krn::rsz::boxDivider(n);
        for (uint32_t q = 0; q <= 255; ++q)
            for (uint32_t v : {q * uint32_t(n), q * uint32_t(n) + uint32_t(n) - 1}) {  // sum + n/2 at both ends of q
                if (v < uint32_t(n) / 2 || v - uint32_t(n) / 2 > 255u * uint32_t(n)) continue;
                ASSERT_EQ(div(v - uint32_t(n) / 2), q) << "n " << n << " sum " << v - uint32_t(n) / 2;
            }
    }
}

// 2 x 2 means and halving: odd widths, source and target at odd byte
// offsets, guard bytes past the row that must stay.
TEST(ResizeFastKernels, TwoByTwoMeansAndHalvingAtEveryLevel) {
    for (int level : levels()) {
        LevelCap cap(level);
        const auto box22 = [&](int32_t c) { return krn::rsz::pickBox22(c, krn::rsz::simdLevel()); };
        const auto halve = krn::rsz::pickHalve24(krn::rsz::simdLevel());
        for (int32_t c : {1, 3, 4})
            for (int32_t n = 1; n <= 150; n += (n < 40 ? 1 : 13))
                for (int32_t off : {0, 1, 3}) {
                    const size_t stride = size_t(2 * n * c) + 5;
                    auto src = randomBytes(stride * 2 + size_t(off), uint32_t(n * 7 + c));
                    std::vector<uint8_t> dst(size_t(n * c) + size_t(off) + 64, 0xEE);
                    const uint8_t* a = src.data() + off;
                    uint8_t* d = dst.data() + off;
                    const auto fn = box22(c);
                    const int32_t done = fn ? fn(a, a + stride, d, n) : 0;
                    ASSERT_LE(done, n);
                    krn::rsz::box22Plain(a, a + stride, d, done, n, c);
                    for (int32_t x = 0; x < n; ++x)
                        for (int32_t k = 0; k < c; ++k)
                            ASSERT_EQ(d[x * c + k], blockMean(a, stride, x, k, 2, 2, c))
                                << "level " << level << " c " << c << " n " << n << " x " << x;
                    for (size_t i = size_t(n * c); i < dst.size() - size_t(off); ++i) ASSERT_EQ(d[i], 0xEE) << n;
                    if (c != 3) continue;
                    // Nearest halving of a row of 2n or 2n - 1 pixels.
                    for (int32_t oldW : {2 * n, 2 * n - 1}) {
                        std::fill(dst.begin(), dst.end(), 0xEE);
                        int32_t h = halve ? halve(a, d, n, oldW) : 0;
                        ASSERT_LE(h, n);
                        for (; h < n; ++h) std::memcpy(d + 3 * h, a + 6 * h, 3);
                        for (int32_t x = 0; x < 3 * n; ++x) ASSERT_EQ(d[x], a[6 * (x / 3) + x % 3]) << n;
                        for (size_t i = size_t(3 * n); i < dst.size() - size_t(off); ++i) ASSERT_EQ(d[i], 0xEE);
                    }
                }
    }
}

TEST(ResizeFastKernels, ColumnSumsAndMeansOfAnyBlockAtEveryLevel) {
    for (int level : levels())
        for (auto [bx, by] : {std::pair{3, 3}, {1, 4}, {5, 2}, {2, 7}, {16, 16}, {1, 257}})
            for (int32_t c : {1, 3, 4})
                for (int32_t n : {1, 5, 23}) {
                    const int32_t m = n * bx * c;
                    const size_t stride = size_t(m) + 3;
                    auto src = randomBytes(stride * size_t(by), uint32_t(bx * 100 + by + c));
                    if (by == 257) std::fill(src.begin(), src.end(), 255);  // the largest column sum
                    std::vector<uint16_t> acc(static_cast<size_t>(m));
                    for (int32_t r = 0; r < by; ++r)
                        krn::rsz::boxAddRow(src.data() + size_t(r) * stride, acc.data(), m, r == 0, level);
                    std::vector<uint8_t> d(size_t(n * c));
                    krn::rsz::boxFinishRow(acc.data(), d.data(), n, bx, c, krn::rsz::boxDivider(bx * by));
                    for (int32_t x = 0; x < n; ++x)
                        for (int32_t k = 0; k < c; ++k)
                            ASSERT_EQ(d[x * c + k], blockMean(src.data(), stride, x, k, bx, by, c))
                                << "level " << level << " block " << bx << "x" << by << " c " << c;
                }
}

// ---------------------------------------------------------------- through the public calls

struct Case {
    int32_t bpp, order, c;
};
const Case kCases[] = {{8, ORDER_GRAY, 1}, {24, ORDER_BGR, 3}, {24, ORDER_RGB, 3}, {32, ORDER_BGR, 4}};

// Whole-factor area reductions give the exact rounded block mean of the
// stored bytes: every storage kind, odd sizes, vector levels, one and all
// threads, rows flipped (K_ResizeBitmap between bottom-up and top-down).
TEST(ResizeFastArea, WholeFactorsGiveExactBlockMeansEverywhere) {
    const auto lv = levels();
    for (const Case& cs : kCases)
        for (auto [bx, by] : {std::pair{2, 2}, {3, 2}, {1, 3}, {4, 4}})
            for (Kind kind : storagetest::kindsFor(cs.bpp)) {
                const int32_t nw = 37, nh = 5, ow = nw * bx, oh = nh * by;
                const int level = lv[size_t(bx + by + int(kind)) % lv.size()];
                const int32_t threads = int(kind) % 2;
                LevelCap cap(level);
                krn::resampletest::setMaxThreads(threads);
                storagetest::KindBitmap kb(kind, ow, oh, cs.bpp);
                ASSERT_EQ(kb.rc, KS_SUCCESS);
                kb.bm.nOrder = cs.order;
                if (cs.bpp == 8) {
                    RGBQUAD grey[256];
                    for (int i = 0; i < 256; ++i) grey[i] = RGBQUAD{uint8_t(i), uint8_t(i), uint8_t(i), 0};
                    ASSERT_EQ(K_PutBitmapColors(&kb.bm, 0, 256, grey), 256);
                }
                storagetest::RefImage ref(ow, oh, cs.bpp);
                ref.randomize(uint32_t(bx * 10 + by + cs.bpp));
                ASSERT_EQ(tkit::putImage(&kb.bm, ref), KS_SUCCESS);
                ASSERT_EQ(K_ResampleBitmap(&kb.bm, nw, nh, 0), KS_SUCCESS);
                krn::resampletest::setMaxThreads(0);
                ASSERT_EQ(kb.bm.nBitsPerPixel, cs.bpp);
                storagetest::RefImage got = tkit::getImage(&kb.bm);
                for (int32_t y = 0; y < nh; ++y)
                    for (int32_t x = 0; x < nw; ++x)
                        for (int32_t k = 0; k < cs.c; ++k)
                            ASSERT_EQ(got.row(y)[x * cs.c + k], blockMean(ref.row(y * by), ref.bpl, x, k, bx, by, cs.c))
                                << cs.bpp << " bits " << storagetest::kindName(kind) << " block " << bx << "x" << by
                                << " level " << level << " at " << x << "," << y;
            }
}

TEST(ResizeFastArea, FlippedRowsAndFailuresChangeNothingElse) {
    storagetest::RefImage ref(64, 48, 24);
    ref.randomize(9);
    BITMAPRECORD src, dst;
    ASSERT_EQ(K_CreateBitmap(&src, BITMAPRECORD_SIZE, 1, 64, 48, 24, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
    ASSERT_EQ(tkit::putImage(&src, ref), KS_SUCCESS);
    ASSERT_EQ(K_CreateBitmap(&dst, BITMAPRECORD_SIZE, 1, 32, 24, 24, ORDER_BGR, nullptr, BOTTOM_LEFT, nullptr, 0),
              KS_SUCCESS);
    ASSERT_EQ(K_IntResizeBitmap(&src, &dst, SIZE_RESAMPLE), KS_SUCCESS);
    storagetest::RefImage got = tkit::getImage(&dst);
    for (int32_t y = 0; y < 24; ++y)  // dst is top-down: its stored row y is source block row 23 - y
        for (int32_t x = 0; x < 96; ++x)
            ASSERT_EQ(got.row(y)[x], blockMean(ref.row(2 * (23 - y)), ref.bpl, x / 3, x % 3, 2, 2, 3)) << x << "," << y;
    K_FreeBitmap(&dst);
    K_FreeBitmap(&src);
    // An allocation failing anywhere leaves the source as it was.
    const int failures = tkit::allocationWalk([&](tkit::Armed& armed) {
        BITMAPRECORD bm;
        ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 64, 48, 24, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
        ASSERT_EQ(tkit::putImage(&bm, ref), KS_SUCCESS);
        const BITMAPRECORD before = bm;
        if (armed([&] { return K_ResampleBitmap(&bm, 16, 12, 0); }) != KS_SUCCESS) {
            EXPECT_TRUE(tkit::sameBytes(before, bm));
            EXPECT_EQ(tkit::getImage(&bm).px, ref.px);
        } else {
            EXPECT_EQ(bm.nWidth, 16);
        }
        K_FreeBitmap(&bm);
    });
    EXPECT_GT(failures, 1);
}

}  // namespace
