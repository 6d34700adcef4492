// Rotation by any angle and shear against a double-precision inverse mapping, right angles against orient_ref.h (SIMD
// against plain kernels: test_transform_fast.cpp).

#include "krn/common/rotate_any.h"
#include "orient_ref.h"
#include "transform_kit.h"

using namespace tkit;
using namespace orienttest;

namespace {

struct Bm : Bitmap {
    static int32_t orderOf(int bpp) { return bpp < 8 ? 0 : bpp <= 16 ? ORDER_GRAY : ORDER_BGR; }
    Bm(int32_t w, int32_t h, int32_t bpp, int32_t order = -1, int32_t persp = 1)
        : Bitmap(w, h, bpp, order >= 0 ? order : orderOf(bpp), persp) {}
    Bm(RefImage& img, int32_t order = -1) : Bm(img.width, img.height, img.bpp, order) { putImage(&bm, img); }
};
int channels(int bpp) { return bpp == 24 || bpp == 48 ? 3 : bpp == 32 || bpp == 64 ? 4 : 1; }
int chanBits(int bpp) { return bpp == 16 || bpp == 48 || bpp == 64 ? 16 : 8; }
uint8_t* chanAt(RefImage& img, int x, int y, int ch) {
    return img.row(y) + size_t(x) * size_t(img.bpp / 8) + size_t(ch) * size_t(chanBits(img.bpp) / 8);
}
double chan(RefImage& img, int x, int y, int ch) {
    return chanBits(img.bpp) == 16 ? double(le16(chanAt(img, x, y, ch), 0)) : double(*chanAt(img, x, y, ch));
}
void setChan(RefImage& img, int x, int y, int ch, uint32_t v) {
    uint8_t* p = chanAt(img, x, y, ch);
    if (chanBits(img.bpp) == 16) p[1] = uint8_t(v >> 8);
    p[0] = uint8_t(v);
}
// Smooth content; alpha (4th channel) varies too, so that premultiplied weighting is exercised.
RefImage smooth(int w, int h, int bpp) {
    RefImage img(w, h, bpp);
    const double top = chanBits(img.bpp) == 16 ? 65535.0 : 255.0;
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x)
            for (int ch = 0; ch < channels(img.bpp); ++ch)
                setChan(img, x, y, ch, uint32_t(std::lround(top * (ch == 3 ? 0.6 + 0.4 * std::sin(x / 11.0 + y / 13.0)
                                                   : 0.5 + 0.45 * std::sin(x / 7.0 + ch) * std::cos(y / 9.0 - ch)))));
    return img;
}

// The inverse map in double, from the table's sine and cosine: destination centre to source centre, clockwise turn by
// theta as drawn top down.
using MapFn = std::function<void(int, int, double*, double*)>;
MapFn inverse(int32_t theta, int sw, int sh, int dw, int dh) {
    const int32_t a = ((theta % 36000) + 36000) % 36000;
    const double c = K_CosValue(a) / 16384.0, s = K_SinValue(a) / 16384.0;
    return [=](int i, int j, double* x, double* y) {
        const double dx = i - (dw - 1) / 2.0, dy = j - (dh - 1) / 2.0;
        *x = (sw - 1) / 2.0 + c * dx + s * dy, *y = (sh - 1) / 2.0 - s * dx + c * dy;
    };
}

// Expected value of channel ch at destination (i, j); false when uncovered.
bool oracle(RefImage& src, const MapFn& map, int i, int j, uint32_t interp, int ch, double* out) {
    double x, y;
    map(i, j, &x, &y);
    const int W = src.width, H = src.height;
    if (!(x >= -0.5 && x < W - 0.5 && y >= -0.5 && y < H - 0.5)) return false;  // uncovered
    auto at = [&](int xx, int yy, int c) { return chan(src, std::clamp(xx, 0, W - 1), std::clamp(yy, 0, H - 1), c); };
    if (interp == ROTATE_NEAREST) return *out = at(int(std::floor(x + 0.5)), int(std::floor(y + 0.5)), ch), true;
    // Taps (x, y, weight): the 2 x 2 bilinear ones or the 4 x 4 Catmull-Rom ones.
    const int x0 = int(std::floor(x)), y0 = int(std::floor(y)), r0 = interp == ROTATE_BILINEAR ? 0 : -1;
    auto k = [&](double t) {
        t = std::fabs(t);
        if (interp == ROTATE_BILINEAR) return t < 1 ? 1 - t : 0;
        return t < 1 ? 1.5 * t * t * t - 2.5 * t * t + 1 : t < 2 ? -0.5 * t * t * t + 2.5 * t * t - 4 * t + 2 : 0;
    };
    std::vector<std::tuple<int, int, double>> taps;
    for (int r = r0; r <= 1 - r0; ++r)
        for (int q = r0; q <= 1 - r0; ++q) taps.emplace_back(x0 + q, y0 + r, k(x - (x0 + q)) * k(y - (y0 + r)));
    bool sameAlpha = true;  // premultiplied weighting only where the alpha varies
    for (auto& [tx, ty, w] : taps) sameAlpha = sameAlpha && (channels(src.bpp) != 4 || at(tx, ty, 3) == at(x0, y0, 3));
    double acc = 0, A = 0;
    for (auto& [tx, ty, w] : taps) {
        const double a = sameAlpha ? 1.0 : at(tx, ty, 3);
        acc += w * a * (ch == 3 && !sameAlpha ? 1.0 : at(tx, ty, ch));
        A += w * a;
    }
    if (ch != 3 && !sameAlpha) acc = A > 0 ? acc / A : 0;
    *out = std::clamp(acc, 0.0, chanBits(src.bpp) == 16 ? 65535.0 : 255.0);
    return true;
}

// Compares a result with the oracle: every channel within `tol` levels (of 8 bits; 16-bit channels are scaled),
// uncovered pixels equal to the fill.
void expectOracle(RefImage& src, RefImage& got, const MapFn& map, uint32_t interp, RefImage& fill, double tol) {
    const double scale = chanBits(src.bpp) == 16 ? 257.0 : 1.0;
    int bad = 0;
    for (int j = 0; j < got.height && bad < 5; ++j)
        for (int i = 0; i < got.width && bad < 5; ++i)
            for (int ch = 0; ch < channels(src.bpp); ++ch) {
                double want;
                const double have = chan(got, i, j, ch);
                if (!oracle(src, map, i, j, interp, ch, &want)) want = chan(fill, 0, 0, ch);
                if (std::fabs(have - want) > tol * scale && ++bad)
                    ADD_FAILURE() << "pixel " << i << "," << j << " ch " << ch << ": " << have << " want " << want;
            }
}

struct OracleCase {
    int bpp;
    uint32_t interp;
    int32_t angle;
    bool resize;
    int shear = 0;  // 1 horizontal, 2 vertical (with a transparent fill)
};
class RotateOracle : public ::testing::TestWithParam<OracleCase> {};

// Rotations (and shears) of smooth images, nearest of random ones, against the plain inverse mapping; the uncovered
// pixels get the fill colour (a shear grows by tan(angle) times the other side).
TEST_P(RotateOracle, MatchesPlainInverseMapping) {
    const OracleCase p = GetParam();
    const int W = p.shear ? 30 : 41, H = p.shear ? 21 : 26;
    RefImage src = smooth(W, H, p.bpp);
    if (p.interp == ROTATE_NEAREST) src.randomize(uint32_t(p.bpp * 31 + p.angle));
    Bm b(src);
    const uint32_t flags = p.interp | (p.resize ? ROTATE_RESIZE : 0), fill = 0x00336699;  // r 0x99, g 0x66, b 0x33
    const uint32_t shear = flags | ROTATE_FILL_TRANSPARENT | (p.shear == 2 ? SHEAR_VERTICAL : 0);
    ASSERT_EQ(p.shear ? K_ShearBitmap(&b.bm, p.angle, shear, 0)
                      : K_RotateBitmap(&b.bm, p.angle, flags | ROTATE_NO_SHORTCUTS, fill), KS_SUCCESS);
    EXPECT_EQ(b.bm.nViewPerspective, 1);
    // The fill: grey the weighted sum; colour B, G, R (16-bit samples: both bytes), opaque.
    RefImage got = getImage(&b.bm), fillPx(1, 1, p.bpp);
    const uint8_t grey = (2 * 0x99 + 5 * 0x66 + 0x33 + 4) >> 3, bgr[] = {0x33, 0x66, 0x99};
    for (int k = 0, cb = chanBits(p.bpp) / 8; !p.shear && k < p.bpp / 8; ++k)
        fillPx.row(0)[k] = channels(p.bpp) == 1 ? grey : k / cb == 3 ? 0xFF : bgr[k / cb];
    const int32_t a = (p.angle + 36000) % 36000;
    const double t = p.shear ? double(K_SinValue(a)) / K_CosValue(a) : 0, sc = (W - 1) / 2.0, sr = (H - 1) / 2.0;
    const double dc = (got.width - 1) / 2.0, dr = (got.height - 1) / 2.0;
    const int grown = p.shear == 2 ? got.height - H : got.width - W;
    if (p.shear) { EXPECT_EQ(grown, int(std::ceil(std::fabs(t) * (p.shear == 2 ? W : H) - 1.0 / 64))); }
    const MapFn sheared = [&](int i, int j, double* x, double* y) {
        *x = sc + (i - dc) - (p.shear == 1 ? t * (j - dr) : 0), *y = sr + (j - dr) - (p.shear == 2 ? t * (i - dc) : 0);
    };
    expectOracle(src, got, p.shear ? sheared : inverse(p.angle, W, H, got.width, got.height), p.interp, fillPx,
                 p.interp == ROTATE_NEAREST ? 0 : 1);
}
const uint32_t N = ROTATE_NEAREST, L = ROTATE_BILINEAR, C = ROTATE_BICUBIC;
INSTANTIATE_TEST_SUITE_P(Table, RotateOracle,
                         ::testing::ValuesIn(std::vector<OracleCase>{
                             {8, N, 3000, true}, {24, N, -1234, false}, {32, N, 4500, true}, {64, N, 20000, true},
                             {8, L, 1000, true}, {16, L, 33000, false}, {24, L, 4500, true}, {32, L, -2500, true},
                             {32, L, 12345, false}, {48, L, 7000, true}, {64, L, -6000, true}, {8, C, 2000, true},
                             {24, C, -4000, false}, {32, C, 15000, true}, {48, C, 3000, true}, {64, C, 25000, true},
                             {32, L, 9000, false}}));
// Shears both ways (45 degrees: the growth a whole number of pixels).
INSTANTIATE_TEST_SUITE_P(Shears, RotateOracle, ::testing::ValuesIn([] {
    std::vector<OracleCase> v;
    for (int dir : {1, 2})
        for (int bpp : {8, 32})
            for (int32_t angle : {1500, -3000, 4500, 6000}) v.push_back({bpp, L, angle, true, dir});
    return v;
}()));

// Quarter and half turns equal index arithmetic at every depth, with and without the short cuts, and turn the viewed
// image clockwise in every perspective.
TEST(RotateAny, RightAnglesEqualIndexArithmetic) {
    for (int bpp : {1, 2, 4, 8, 12, 16, 24, 32, 48, 64})
        for (uint32_t flags : {ROTATE_RESIZE | ROTATE_NO_SHORTCUTS, uint32_t(ROTATE_RESIZE)})
            for (int32_t angle : {9000, -9000, 18000, -27000}) {
                SCOPED_TRACE(::testing::Message() << bpp << " bits, angle " << angle << " flags " << flags);
                Bm b(19, 7, bpp);
                const Grid g = randomGrid(19, 7, bpp, uint32_t(bpp + angle));
                b.bm.nXResolution = 300, b.bm.nYResolution = 100;
                ASSERT_TRUE(store(&b.bm, g));
                const uint32_t interp = bpp == 24 || bpp == 32 ? ROTATE_BILINEAR : ROTATE_NEAREST;
                ASSERT_EQ(K_RotateBitmap(&b.bm, angle, flags | interp, 0), KS_SUCCESS);
                Grid want = g;
                for (int t = ((angle / 9000) % 4 + 4) % 4; t > 0; --t) want = turnedCw(want);
                EXPECT_TRUE(stored(&b.bm) == want);
                EXPECT_EQ(b.bm.nXResolution, angle % 18000 ? 100 : 300) << "a quarter turn swaps the resolutions";
            }
    // In every perspective: K_RotateBitmap (left in a top view) and K_RotateBitmap90 (keeping the perspective; its
    // mirrored perspectives turn the stored pixels the other way) turn the viewed image clockwise (bTurn 0: back).
    for (int bpp : {1, 4, 8, 24, 32, 64})
        for (int32_t persp = 1; persp <= 8; ++persp)
            for (int how = 0; how < 4; ++how) {
                SCOPED_TRACE(::testing::Message() << bpp << " bits, perspective " << persp << " call " << how);
                Bm b(13, 6, bpp, -1, persp);
                const Grid g = randomGrid(13, 6, bpp, uint32_t(persp * bpp + how));
                ASSERT_TRUE(store(&b.bm, g));
                ASSERT_EQ(how < 2 ? K_RotateBitmap(&b.bm, 9000, ROTATE_RESIZE | (how ? 0 : ROTATE_NO_SHORTCUTS), 0)
                                  : K_RotateBitmap90(&b.bm, how == 2, 0, 100), KS_SUCCESS);
                const int now = b.bm.nViewPerspective;
                EXPECT_TRUE(how < 2 ? now == 1 || now == 4 : now == persp);
                const Grid seen = viewed(g, persp);
                EXPECT_TRUE(viewed(stored(&b.bm), now) == (how == 3 ? turnedCcw(seen) : turnedCw(seen)));
            }
}

// Nearest turns of 1, 2, 4 and 12-bit images equal the 8/16-bit turn of the same values, pixel for pixel (the sub-byte
// kernels against the byte ones).
TEST(RotateAny, NearestAtSubByteDepthsEqualsByteDepth) {
    for (int bpp : {1, 2, 4, 12}) {
        const int W = 23, H = 17, wide = bpp == 12 ? 16 : 8;
        RefImage s = randomImage(W, H, bpp, uint32_t(bpp)), w(W, H, wide);
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) setChan(w, x, y, 0, uint32_t(getPixel(s.row(y), x, bpp)));
        Bm small(s), big(w, bpp == 12 ? ORDER_GRAY : 0);
        for (BITMAPRECORD* bm : {&small.bm, &big.bm})
            ASSERT_EQ(K_RotateBitmap(bm, 3333, ROTATE_RESIZE, bpp == 12 ? 0 : ROTATE_FILL_INDEX(1)), KS_SUCCESS);
        RefImage gs = getImage(&small.bm), gw = getImage(&big.bm);
        ASSERT_EQ(gs.width, gw.width);
        EXPECT_EQ(firstMismatch(gs, [&](int x, int y) { return uint64_t(chan(gw, x, y, 0)); }), "") << bpp << " bits";
    }
}

TEST(RotateAny, EnlargedSizeIsTheRotatedBoundingBox) {
    const int32_t sizes[][2] = {{1, 1}, {100, 100}, {37, 5}, {4000, 3000}, {1, 999}};
    for (auto& sz : sizes)
        for (int32_t angle : {0, 1, 3000, 4500, 8999, 9000, 12345, -17000, 27001}) {
            BITMAPRECORD r;
            int32_t w = 0, h = 0;
            ASSERT_EQ(K_InitBitmap(&r, BITMAPRECORD_SIZE, sz[0], sz[1], 8), KS_SUCCESS);
            ASSERT_EQ(K_GetRotatedBitmapSize(&r, angle, &w, &h), KS_SUCCESS);
            const double t = angle * M_PI / 18000.0;
            const double ew = std::fabs(std::cos(t)) * sz[0] + std::fabs(std::sin(t)) * sz[1];
            const double eh = std::fabs(std::sin(t)) * sz[0] + std::fabs(std::cos(t)) * sz[1];
            // Within the table's precision of the box, never smaller by a pixel.
            EXPECT_TRUE(std::fabs(w - ew) <= 1.0 && std::fabs(h - eh) <= 1.0 && w >= std::ceil(ew - 0.05) &&
                        h >= std::ceil(eh - 0.05)) << sz[0] << "x" << sz[1] << " at " << angle << ": " << w << "x" << h;
            if (sz[0] * int64_t(sz[1]) >= 100000) continue;
            Bm b(sz[0], sz[1], 8);
            ASSERT_EQ(K_RotateBitmap(&b.bm, angle, ROTATE_RESIZE | ROTATE_NO_SHORTCUTS, 0), KS_SUCCESS);
            EXPECT_EQ(b.bm.nWidth * 100000 + b.bm.nHeight, w * 100000 + h);
        }
}

// The region turns with the pixels: a destination pixel is in the new region exactly when its nearest source pixel was
// in the old one.
TEST(RotateAny, RegionTurnsWithThePixels) {
    for (int32_t angle : {9000, 2500, -13000}) {
        const int W = 31, H = 20;
        Bm b(W, H, 24);
        const RECT e{3, 2, 25, 17};
        ASSERT_EQ(K_SetBitmapRgnEllipse(&b.bm, nullptr, &e, RGN_SET_REPLACE), KS_SUCCESS);
        const Grid inside = regionGrid(&b.bm);
        StopAfter log;  // the region's own turn silences progress, then puts the callback back
        StatusScope scope(&StopAfter::cb, &log);
        ASSERT_EQ(K_RotateBitmap(&b.bm, angle, ROTATE_RESIZE | ROTATE_NO_SHORTCUTS | ROTATE_BILINEAR, 0), KS_SUCCESS);
        STATUSCALLBACK now = nullptr;
        EXPECT_TRUE(K_GetStatusCallBack(&now, nullptr) == KS_SUCCESS && now == &StopAfter::cb && log.calls() > 0);
        const MapFn inv = inverse(angle, W, H, b.bm.nWidth, b.bm.nHeight);
        Grid want(b.bm.nWidth, b.bm.nHeight);
        for (int i = 0; i < want.w * want.h; ++i) {
            double x, y;
            inv(i % want.w, i / want.w, &x, &y);
            const int sx = int(std::floor(x + 0.5)), sy = int(std::floor(y + 0.5));
            want.v[size_t(i)] = sx >= 0 && sx < W && sy >= 0 && sy < H && inside.at(sx, sy);
        }
        EXPECT_TRUE(regionGrid(&b.bm) == want) << angle;
    }
}

// Refusals and their codes (that a refused call changes nothing: the API fuzzer's contract).
TEST(RotateAny, BadInputGetsAClearCode) {
    Bm b8(9, 5, 8), b1(9, 5, 1), b4(9, 5, 4), pal(9, 5, 8, 0), rgb565(9, 5, 16, ORDER_RGB565);
    BITMAPRECORD unalloc, badSize = b8.bm, badPersp = b8.bm, badWidth = b8.bm;  // a width the storage does not have
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 9, 5, 8);
    badSize.uStructSize = 100, badPersp.nViewPerspective = 9, badWidth.nWidth = 4000;
    const int32_t P = KS_INVALID_PARAMETER, D = KS_INVALID_BITS_PER_PIXEL;
    const auto R = K_RotateBitmap, S = K_ShearBitmap;
    const uint32_t L = ROTATE_BILINEAR, C = ROTATE_BICUBIC;
    int32_t w, h;
    const std::pair<int32_t, int32_t> cases[] = {  // (answer, wanted)
        {R(nullptr, 0, 0, 0), P}, {R(&unalloc, 100, 0, 0), P}, {R(&badSize, 100, 0, 0), KS_INVALID_STRUCT_SIZE},
        {R(&badPersp, 100, 0, 0), P}, {R(&badWidth, 100, 0, 0), P}, {S(&badWidth, 100, 0, 0), P},
        {R(&b8.bm, 36001, 0, 0), P}, {R(&b8.bm, -36001, 0, 0), P}, {R(&b8.bm, 100, 0x80000000u, 0), P},
        {R(&b8.bm, 100, 0x0300u, 0), P}, {R(&b8.bm, 100, SHEAR_VERTICAL, 0), P}, {R(&b8.bm, 100, 0, 0x02000000u), P},
        {R(&b4.bm, 100, 0, ROTATE_FILL_INDEX(16)), P}, {R(&b1.bm, 100, L, 0), D}, {R(&b4.bm, 100, C, 0), D},
        {R(&pal.bm, 100, L, 0), D}, {R(&rgb565.bm, 100, L, 0), D}, {S(nullptr, 100, 0, 0), P},
        {S(&b8.bm, SHEAR_MAX_ANGLE + 1, 0, 0), P}, {S(&b8.bm, 100, ROTATE_NO_SHORTCUTS, 0), P},
        {S(&b1.bm, 100, C, 0), D}, {K_GetRotatedBitmapSize(&b8.bm, 100, nullptr, &h), P},
        {K_GetRotatedBitmapSize(&badSize, 100, &w, &h), KS_INVALID_STRUCT_SIZE},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
    // A locked bitmap keeps its storage.
    ASSERT_EQ(K_AccessBitmap(&b8.bm), KS_SUCCESS);
    EXPECT_EQ(K_RotateBitmap(&b8.bm, 100, 0, 0), KS_INVALID_PARAMETER);
    K_ReleaseBitmap(&b8.bm), K_FreeBitmap(&unalloc);
}

}  // namespace
