// The fast paths against the plain ones: the SIMD kernels of combining, quarter turns and resizing at every level
// (guard bytes around what they write), block means by index arithmetic, and whole bitmaps with the fast path on and
// off.

#include "combine_reference.h"
#include "krn/common/combine.h"
#include "krn/common/convert_kernels.h"
#include "krn/common/resize.h"
#include "krn/common/resize_kernels.h"
#include "krn/common/rotate.h"
#include "krn/common/rotate_any.h"
#include "transform_kit.h"

using namespace tkit;
using namespace combinetest;

namespace {

constexpr size_t kGuard = 64;
constexpr uint8_t kFill = 0xA5;

std::vector<uint8_t> randomBytes(size_t n, std::mt19937& rng) {
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = uint8_t(rng());
    return v;
}

// Alpha in runs of 8-24 pixels: all opaque, all transparent, all one extreme, or random.
std::vector<uint8_t> alphaRuns(std::mt19937& rng, size_t n) {
    static const uint8_t ends[] = {0, 1, 127, 128, 254, 255};
    std::vector<uint8_t> a(n);
    for (size_t k = 0; k < n;) {
        const size_t run = 8 + rng() % 17, kind = rng() % 4;  // drawn in this order
        const uint8_t v = ends[rng() % 6];
        for (size_t j = 0; j < run && k < n; ++j, ++k)
            a[k] = kind == 3 ? uint8_t(rng()) : kind > 1 ? ends[rng() % 6] : v;
    }
    return a;
}

// The 8-bit alpha-over kernel at each SIMD level. Against the per-sample model: odd widths, unaligned sources,
// alpha in runs that take the block short cuts, each operator, guard bytes around the destination. Against the
// plain kernel: every (Sa, Da) with the colour pairs at the ends of the numerator's range (0/255 each way, 255
// over 255, neighbours of the quotient's extremes) and random ones; the pixels of an alpha pair sit in one block
// of 16, so blocks are mixed and never take a short cut except where every Sa is 0 or 255.
TEST(CombineFastAlphaOver, EveryLevelAgainstTheModelAndEveryAlphaPair) {
    const Format mf{32, ORDER_BGR};
    BITMAPRECORD rec{};
    rec.nBitsPerPixel = mf.bpp, rec.nOrder = mf.order;
    const krn::CombineFormat cf = krn::combineFormat(&rec);
    static const uint8_t fixed[][2] = {{0, 0}, {255, 255}, {255, 0}, {0, 255}, {1, 254}, {254, 1}, {255, 254},
                                       {254, 255}};
    std::mt19937 rng(2024);
    const uint32_t N = 65536 * 16;
    std::vector<uint8_t> s(4 * size_t(N)), d(4 * size_t(N)), want, got, scratch(krn::combineScratchBytes(N, 32));
    for (uint32_t k = 0; k < N; ++k) {
        for (int c = 0; c < 3; ++c) {
            s[4 * k + c] = k % 16 < 8 ? fixed[(k % 16 + c) % 8][0] : uint8_t(rng());
            d[4 * k + c] = k % 16 < 8 ? fixed[(k % 16 + c) % 8][1] : uint8_t(rng());
        }
        s[4 * k + 3] = uint8_t(k / 16 & 255), d[4 * k + 3] = uint8_t(k / 16 >> 8);
    }
    krn::CombinePlan plan;
    ASSERT_EQ(krn::combinePlan(CombineAlphaOver, 32, &plan), KS_SUCCESS);
    krn::alphaOver8Kernel(0)(plan, cf, {s.data(), 0, (want = d).data(), 0, N, scratch.data()});
    int levels = 0;
    for (int level = 1; level < 4; ++level) {
        const krn::CombineRowFn fast = krn::alphaOver8Kernel(level);
        if (!fast) continue;
        ++levels;
        fast(plan, cf, {s.data(), 0, (got = d).data(), 0, N, scratch.data()});
        const size_t k = size_t(std::mismatch(got.begin(), got.end(), want.begin()).first - got.begin()) / 4;
        EXPECT_EQ(k, N) << "level " << level << " Sa " << (k / 16 & 255) << " Da " << (k / 16 >> 8);
        for (uint32_t flags : {0x0D00u, 0x0D01u, 0x0D10u, 0x0D11u, 0x1D00u, 0x1D11u}) {
            krn::CombinePlan p;
            ASSERT_EQ(krn::combinePlan(flags, 32, &p), KS_SUCCESS);
            const Plan mp = planOf(flags, 32);
            for (uint32_t n : {1u, 7u, 8u, 9u, 15u, 17u, 63u, 129u, 1001u}) {
                const size_t off = rng() % 4;  // rows need not be aligned
                std::vector<uint8_t> row = randomBytes(4 * size_t(n) + off, rng), out(4 * n + 2 * kGuard, kFill);
                const std::vector<uint8_t> sa = alphaRuns(rng, n), da = alphaRuns(rng, n);
                uint8_t *sp = row.data() + off, *dp = out.data() + kGuard;
                for (uint32_t k = 0; k < 4 * n; ++k) dp[k] = k % 4 == 3 ? da[k / 4] : uint8_t(rng());
                for (uint32_t k = 0; k < n; ++k) sp[4 * k + 3] = sa[k];
                std::vector<uint8_t> model = out;
                for (uint32_t k = 0; k < n; ++k)
                    setRawPixel(model.data() + kGuard, int32_t(k), mf,
                                combinePixel(mp, rawPixel(sp, int32_t(k), mf), rawPixel(dp, int32_t(k), mf), mf));
                fast(p, cf, {sp, 0, dp, 0, n, scratch.data()});
                ASSERT_EQ(out, model) << "level " << level << " flags " << flags << " n " << n;
            }
        }
    }
    if (!levels) GTEST_SKIP() << "no SIMD level on this processor";
}

// One block turned by the kernels of `level` and by the plain form, into destinations whose guards and row slack hold
// kFill; the source ends where its block ends (an over-read shows under ASan). The plain form against index arithmetic:
// destination row r holds source column r (reversed: w - 1 - r), pixel c source row c (or h - 1 - c).
void checkTurn(int bpp, uint32_t w, uint32_t h, int level, std::mt19937& rng) {
    const size_t rowBytes = (size_t(w) * size_t(bpp) + 7) / 8, outBytes = (size_t(h) * size_t(bpp) + 7) / 8;
    const size_t ss = rowBytes + rng() % 5, ds = outBytes + rng() % 9, so = rng() % 4, at = kGuard + rng() % 4;
    const std::vector<uint8_t> src = randomBytes(so + ss * (h - 1) + rowBytes, rng);
    for (int mode = 0; mode < 4; ++mode) {
        const bool revY = mode & 1, revX = mode & 2;
        std::vector<uint8_t> fast(at + ds * w + kGuard, kFill), plain = fast;
        krn::turnBlockAt(level, src.data() + so, ss, fast.data() + at, ds, w, h, bpp, revY, revX);
        krn::turnBlockPlain(src.data() + so, ss, plain.data() + at, ds, w, h, bpp, revY, revX);
        ASSERT_EQ(fast, plain) << bpp << " bits " << w << "x" << h << " level " << level << " mode " << mode;
        for (size_t i = 0; i < fast.size(); ++i)  // nothing outside the rows' pixel bytes
            if (i < at || i - at >= ds * w || (i - at) % ds >= outBytes) { ASSERT_EQ(fast[i], kFill) << w << "x" << h; }
        for (uint32_t r = 0; level == 0 && r < w; ++r)
            for (uint32_t c = 0; c < h; ++c)
                ASSERT_EQ(getPixel(plain.data() + at + r * ds, int(c), bpp),
                          getPixel(src.data() + so + (revY ? h - 1 - c : c) * ss, int(revX ? w - 1 - r : r), bpp))
                    << bpp << " bits " << w << "x" << h << " mode " << mode << " at " << c << "," << r;
    }
}

// Every depth, sizes on both sides of the micro blocks and the tiles, and larger blocks of several tiles with ragged
// edges; the mirror (kernel and K_MirrorLine) at the same level against the oracle (pixels reversed, the bits after the
// last one kept), the row swap against std::swap_ranges.
TEST(OrientFastKernels, MatchThePlainReferenceAtEveryLevel) {
    for (int level : {0, 1, 2}) {
        std::mt19937 rng(uint32_t(7 + level));
        for (int bpp : allDepths()) {
            for (uint32_t w : {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 97})
                for (uint32_t h : {1u, 4u, 8u, 11u, 16u, 17u, 64u, 70u}) checkTurn(bpp, w, h, level, rng);
            for (auto [w, h] : {std::pair{200u, 131u}, {131u, 200u}, {257u, 129u}}) checkTurn(bpp, w, h, level, rng);
        }
        const int set = krn::setOrientSimdLevel(level);
        for (int bpp : allDepths())
            for (uint32_t w : {1u, 2u, 15u, 16u, 17u, 31u, 33u, 63u, 64u, 65u, 97u, 129u, 200u, 511u}) {
                const size_t off = rng() % 4;
                std::vector<uint8_t> a = randomBytes(off + (w * bpp + 7) / 8 + 8, rng), b = a, want = a;
                for (uint32_t x = 0; x < w; ++x)
                    setPixel(want.data() + off, int(x), bpp, getPixel(a.data() + off, int(w - 1 - x), bpp));
                krn::mirrorRow(a.data() + off, w, bpp);
                ASSERT_EQ(K_MirrorLine(b.data() + off, w, bpp), KS_SUCCESS);
                ASSERT_TRUE(a == want && b == want) << "mirror bpp " << bpp << " w " << w << " level " << set;
            }
        for (size_t n : {0, 1, 31, 32, 127, 128, 129, 300, 1000}) {
            std::vector<uint8_t> buf = randomBytes(2 * n + 16, rng), want = buf;
            std::swap_ranges(want.begin() + 1, want.begin() + 1 + ptrdiff_t(n), want.begin() + 3 + ptrdiff_t(n));
            krn::swapRows(buf.data() + 1, buf.data() + 3 + n, n);
            ASSERT_EQ(buf, want) << "swap " << n << " level " << set;
        }
        krn::setOrientSimdLevel(-1);
    }
}

// Rotations by any angle through the public call, plain and vector kernels, give the same stored bytes (half
// the image opaque, half random alpha: both kernel branches).
TEST(TransformFast, RotationAgreesWithThePlainKernels) {
    for (int32_t angle : {700, 4500, -13000}) {
        std::vector<uint8_t> first;
        for (bool plain : {true, false}) {
            Source src(Kind::SingleBlock, 301, 203, 32, 7);
            for (int i = 0; i < 101 * 301; ++i) src.ref.row(i / 301)[4 * (i % 301) + 3] = 255;
            ASSERT_EQ(putImage(src.bm(), src.ref), KS_SUCCESS);
            krn::testhook::forcePlainRotateKernels(plain);
            ASSERT_EQ(K_RotateBitmap(src.bm(), angle, ROTATE_BILINEAR | ROTATE_RESIZE, 0), KS_SUCCESS);
            krn::testhook::forcePlainRotateKernels(false);
            if (plain) first = getImage(src.bm()).px;
            EXPECT_EQ(getImage(src.bm()).px, first) << angle;
        }
    }
}

struct LevelCap {  // caps the resize kernels' vector level for one scope
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

// "" when the n pixels of c samples at d are the rounded means of the bx x by blocks of s (rows of `stride` bytes).
std::string blockMeans(const uint8_t* d, const uint8_t* s, size_t stride, int32_t n, int32_t bx, int32_t by,
                       int32_t c) {
    for (int32_t x = 0; x < n * c; ++x) {
        uint32_t sum = 0;
        for (int32_t t = 0; t < bx * by; ++t)  // row t / bx, column t % bx of the block
            sum += s[size_t(t / bx) * stride + size_t((x / c) * bx + t % bx) * size_t(c) + size_t(x % c)];
        if (d[x] != (sum + uint32_t(bx * by) / 2) / uint32_t(bx * by)) return "sample " + std::to_string(x);
    }
    return "";
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

// 2 x 2 means, nearest halving, and column sums of any block at every level: odd widths, source and target at odd byte
// offsets, guard bytes past the row.
TEST(ResizeFastKernels, BlockMeansAndHalvingAtEveryLevel) {
    std::mt19937 rng(3);
    for (int level : levels()) {
        LevelCap cap(level);
        const auto halve = krn::rsz::pickHalve24(krn::rsz::simdLevel());
        for (int32_t c : {1, 3, 4})
            for (int32_t n = 1; n <= 150; n += (n < 40 ? 1 : 13))
                for (int32_t off : {0, 1, 3}) {
                    SCOPED_TRACE(::testing::Message() << "level " << level << " c " << c << " n " << n << " +" << off);
                    const size_t stride = size_t(2 * n * c) + 5;
                    const std::vector<uint8_t> src = randomBytes(stride * 2 + size_t(off), rng);
                    std::vector<uint8_t> dst(size_t(n * c + off) + 64, kFill);
                    const uint8_t* a = src.data() + off;
                    uint8_t* d = dst.data() + off;
                    auto kept = [&](int32_t from) {
                        return std::all_of(d + from, dst.data() + dst.size(), [](uint8_t b) { return b == kFill; });
                    };
                    const auto fn = krn::rsz::pickBox22(c, krn::rsz::simdLevel());
                    const int32_t done = fn ? fn(a, a + stride, d, n) : 0;
                    ASSERT_LE(done, n);
                    krn::rsz::box22Plain(a, a + stride, d, done, n, c);
                    ASSERT_EQ(blockMeans(d, a, stride, n, 2, 2, c) + (kept(n * c) ? "" : " written past the row"), "");
                    for (int32_t oldW : {2 * n, 2 * n - 1}) {  // nearest halving of a row of 2n or 2n - 1 pixels
                        if (c != 3) break;
                        std::fill(dst.begin(), dst.end(), kFill);
                        int32_t h = halve ? halve(a, d, n, oldW) : 0;
                        ASSERT_LE(h, n);
                        for (; h < n; ++h) std::memcpy(d + 3 * h, a + 6 * h, 3);
                        for (int32_t x = 0; x < 3 * n; ++x) ASSERT_EQ(d[x], a[6 * (x / 3) + x % 3]) << x;
                        ASSERT_TRUE(kept(3 * n));
                    }
                }
        for (auto [bx, by] : {std::pair{3, 3}, {1, 4}, {5, 2}, {2, 7}, {16, 16}, {1, 257}})
            for (int32_t c : {1, 3, 4})
                for (int32_t n : {1, 5, 23}) {
                    const int32_t m = n * bx * c;
                    const size_t stride = size_t(m) + 3;
                    std::vector<uint8_t> src = randomBytes(stride * size_t(by), rng), d(size_t(n * c));
                    if (by == 257) std::fill(src.begin(), src.end(), 255);  // the largest column sum
                    std::vector<uint16_t> acc(static_cast<size_t>(m));
                    for (int32_t r = 0; r < by; ++r)
                        krn::rsz::boxAddRow(src.data() + size_t(r) * stride, acc.data(), m, r == 0, level);
                    krn::rsz::boxFinishRow(acc.data(), d.data(), n, bx, c, krn::rsz::boxDivider(bx * by));
                    ASSERT_EQ(blockMeans(d.data(), src.data(), stride, n, bx, by, c), "")
                        << "level " << level << " block " << bx << "x" << by << " c " << c << " n " << n;
                }
    }
}

// Whole-factor area reductions give the exact rounded block mean of the stored bytes: every storage kind, odd sizes,
// vector levels, one and all threads; and into a bottom-up destination (K_IntResizeBitmap) with the rows flipped.
TEST(ResizeFastArea, WholeFactorsGiveExactBlockMeansEverywhere) {
    const auto lv = levels();
    const struct { int32_t bpp, order; } formats[] = {{8, ORDER_GRAY}, {24, 1}, {24, ORDER_RGB}, {32, ORDER_BGR}};
    for (const auto& cs : formats)
        for (auto [bx, by] : {std::pair{2, 2}, {3, 2}, {1, 3}, {4, 4}})
            for (Kind kind : kindsFor(cs.bpp)) {
                const int32_t nw = 37, nh = 5, c = cs.bpp / 8, level = lv[size_t(bx + by + int(kind)) % lv.size()];
                SCOPED_TRACE(::testing::Message() << cs.bpp << " bits " << kindName(kind) << " block " << bx << "x"
                                                  << by << " level " << level);
                LevelCap cap(level);
                krn::resampletest::setMaxThreads(int(kind) % 2);
                Source src(kind, nw * bx, nh * by, cs.bpp, uint32_t(bx * 10 + by + cs.bpp), cs.order);
                ASSERT_EQ(src.kb.rc, KS_SUCCESS);
                if (cs.bpp == 8) { ASSERT_EQ(K_CreateBitmapGrayPalette(src.bm()), KS_SUCCESS); }
                ASSERT_EQ(K_ResampleBitmap(src.bm(), nw, nh, 0), KS_SUCCESS);
                krn::resampletest::setMaxThreads(0);
                ASSERT_EQ(src.bm()->nBitsPerPixel, cs.bpp);
                RefImage got = getImage(src.bm());
                for (int32_t y = 0; y < nh; ++y)
                    ASSERT_EQ(blockMeans(got.row(y), src.ref.row(y * by), src.ref.bpl, nw, bx, by, c), "") << y;
            }
    Source src(Kind::SingleBlock, 64, 48, 24, 9, ORDER_BGR);
    Bitmap dst(32, 24, 24, ORDER_BGR, BOTTOM_LEFT);
    ASSERT_EQ(K_IntResizeBitmap(src.bm(), &dst.bm, SIZE_RESAMPLE), KS_SUCCESS);
    RefImage got = getImage(&dst.bm);
    for (int32_t y = 0; y < 24; ++y)  // dst is top-down: its stored row y is source block row 23 - y
        ASSERT_EQ(blockMeans(got.row(y), src.ref.row(2 * (23 - y)), src.ref.bpl, 32, 2, 2, 3), "") << y;
}

}  // namespace
