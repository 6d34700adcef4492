// test_regions.cpp - the region engine and its Win32-style API against the
// boolean-mask model: random rectangles, polygons and ellipses combined by
// every mode; region data round trips; handle validation; fault sweeps.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "ombrix.h"
#include "dis/common/region.h"
#include "krn/common/memory.h"
#include "krn/windowsemul/objects.h"
#include "regions_mask.h"

using rgntest::Mask;

namespace {

const Mask kWin(-40, -40, 240, 220);

struct Shape {
    HRGN h = nullptr;
    Mask m;
    std::string what;
};

RECT randomRect(std::mt19937& rng) {
    std::uniform_int_distribution<int> c(-30, 180);
    return RECT{c(rng), c(rng), c(rng), c(rng)};
}

Shape randomShape(std::mt19937& rng) {
    Shape s;
    int kind = int(rng() % 3);
    if (kind == 0) {
        RECT r = randomRect(rng);
        s.h = CreateRectRgn(r.left, r.top, r.right, r.bottom);
        s.m = rgntest::rectMask(kWin, r);
        s.what = "rect";
    } else if (kind == 1) {
        std::uniform_int_distribution<int> c(-30, 170);
        int n = 3 + int(rng() % 10);
        std::vector<POINT> pts(static_cast<size_t>(n));
        for (auto& p : pts) p = POINT{c(rng), c(rng)};
        int mode = (rng() & 1) ? WINDING : ALTERNATE;
        s.h = CreatePolygonRgn(pts.data(), n, mode);
        s.m = rgntest::polygonMask(kWin, pts, {0}, mode == WINDING);
        s.what = "polygon";
    } else {
        RECT r = randomRect(rng);
        s.h = CreateEllipticRgn(r.left, r.top, r.right, r.bottom);
        bool ok = false;
        s.m = rgntest::maskOfHandle(kWin, s.h, &ok);  // checked against the equation elsewhere
        EXPECT_TRUE(ok);
        s.what = "ellipse";
    }
    EXPECT_NE(s.h, nullptr);
    return s;
}

OrvaRgn* payload(HRGN h) { return static_cast<OrvaRgn*>(krn::objPayload(h, krn::kObjRegion)); }

// Every query of a region handle agrees with the mask.
void expectMatches(HRGN h, const Mask& m, const std::string& ctx) {
    SCOPED_TRACE(ctx);
    OrvaRgn* r = payload(h);
    ASSERT_NE(r, nullptr);
    ASSERT_TRUE(krn::rgn::valid(r));
    bool ok = false;
    Mask got = rgntest::maskOfHandle(kWin, h, &ok);
    ASSERT_TRUE(ok) << "region data outside the window";
    ASSERT_TRUE(got == m) << got.describeDiff(m);
    for (int y = kWin.y0; y < kWin.y0 + kWin.h; y += 3)
        for (int x = kWin.x0; x < kWin.x0 + kWin.w; ++x)
            ASSERT_EQ(PtInRegion(h, x, y), m.get(x, y) ? 1 : 0) << x << "," << y;
    RECT box;
    int kind = GetRgnBox(h, &box);
    RECT mb = m.bounds();
    EXPECT_TRUE(EqualRect(&box, &mb));
    EXPECT_EQ(kind, m.count() == 0 ? NULLREGION : m.isRectangle() ? SIMPLEREGION : COMPLEXREGION);
    EXPECT_EQ(krn::rgn::area(r), m.count());
    // Data round trip: the rebuilt region has the same data. An empty
    // region's block is the bare 32-byte header, which the importer refuses
    // (it wants at least 33 bytes).
    std::vector<uint8_t> data = rgntest::regionData(h);
    if (m.count() == 0) {
        EXPECT_EQ(data.size(), 32u);
        EXPECT_EQ(ExtCreateRegion(nullptr, 32, reinterpret_cast<const RGNDATA*>(data.data())), nullptr);
        return;
    }
    HRGN back = ExtCreateRegion(nullptr, uint32_t(data.size()), reinterpret_cast<const RGNDATA*>(data.data()));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(rgntest::regionData(back), data);
    DeleteObject(back);
}

TEST(RegionsEngine, RectangleEdgeCases) {
    HRGN e = CreateRectRgn(10, 10, 10, 20);
    RECT box{1, 2, 3, 4};
    EXPECT_EQ(GetRgnBox(e, &box), NULLREGION);
    EXPECT_EQ(box.left | box.top | box.right | box.bottom, 0);
    EXPECT_EQ(GetRegionData(e, 0, nullptr), 32u);
    HRGN a = CreateRectRgn(20, 20, 10, 10), b = CreateRectRgn(10, 10, 20, 20);
    EXPECT_EQ(rgntest::regionData(a), rgntest::regionData(b));
    EXPECT_EQ(GetRegionData(a, 0, nullptr), 48u);
    EXPECT_EQ(GetRgnBox(a, &box), SIMPLEREGION);
    EXPECT_EQ(PtInRegion(a, 19, 19), 1);
    EXPECT_EQ(PtInRegion(a, 20, 15), 0);  // x = right
    EXPECT_EQ(PtInRegion(a, 15, 20), 0);  // y = bottom
    EXPECT_EQ(PtInRegion(a, 10, 10), 1);
    // A buffer that is too small receives nothing but the size is still returned.
    std::vector<uint8_t> small(47, 0xCD);
    EXPECT_EQ(GetRegionData(a, 47, reinterpret_cast<RGNDATA*>(small.data())), 48u);
    EXPECT_EQ(small, std::vector<uint8_t>(47, 0xCD));
    DeleteObject(e);
    DeleteObject(a);
    DeleteObject(b);
}

// Many small rectangles on a coarse grid: rows with many runs whose ends
// coincide or touch across the two sources, tall rectangles (repeated rows),
// sources apart vertically and horizontally, and empty sources. The sources
// are built by the rectangle importer, so the combines are checked against
// the mask without relying on themselves.
Shape rectsShape(std::mt19937& rng, int count, int dx, int dy) {
    Shape s;
    s.what = "rects";
    std::vector<RECT> rects;
    s.m = Mask(kWin.x0, kWin.y0, kWin.w, kWin.h);
    for (int i = 0; i < count; ++i) {
        int l = int(rng() % 40) * 2 + dx, t = int(rng() % 30) * 2 + dy;
        int w = 1 + int(rng() % 4) * 2, h = rng() % 4 == 0 ? 20 + int(rng() % 30) : 1 + int(rng() % 3);
        RECT r{l, t, l + w, std::min(t + h, kWin.y0 + kWin.h)};
        rects.push_back(r);
        s.m = s.m.combine(rgntest::rectMask(kWin, r), 1);
    }
    if (rects.empty()) {
        s.h = CreateRectRgn(0, 0, 0, 0);
        return s;
    }
    std::vector<uint8_t> blk(32 + 16 * rects.size());
    RGNDATAHEADER hdr{32, RDH_RECTANGLES, uint32_t(rects.size()), uint32_t(16 * rects.size()), RECT{0, 0, 0, 0}};
    std::memcpy(blk.data(), &hdr, 32);
    std::memcpy(blk.data() + 32, rects.data(), 16 * rects.size());
    s.h = ExtCreateRegion(nullptr, uint32_t(blk.size()), reinterpret_cast<const RGNDATA*>(blk.data()));
    EXPECT_NE(s.h, nullptr);
    return s;
}

// Every mode in both orders, in place and into a fresh destination, on random
// rectangles, polygons and ellipses and on many-run rectangle sets in five
// layouts (overlapping, b below a, b right of a, a empty, b empty).
TEST(RegionsEngine, CombineEveryModeMatchesMaskAlgebra) {
    std::mt19937 rng(12345);
    const int modes[5] = {RGN_AND, RGN_OR, RGN_XOR, RGN_DIFF, RGN_COPY};
    const int ops[5] = {0, 1, 2, 3, -1};
    for (int iter = 0; iter < 100; ++iter) {
        const int layout = (iter / 2) % 5;
        Shape a = iter % 2 ? randomShape(rng) : rectsShape(rng, layout == 3 ? 0 : 1 + int(rng() % 120), 0, 0);
        Shape b = iter % 2 ? randomShape(rng)
                           : rectsShape(rng, layout == 4 ? 0 : 1 + int(rng() % 120), layout == 2 ? 81 : int(rng() % 2),
                                        layout == 1 ? 110 : int(rng() % 2));
        expectMatches(a.h, a.m, "source " + a.what);
        HRGN d = CreateRectRgn(0, 0, 1, 1);
        for (int k = 0; k < 5; ++k)
            for (int swap = 0; swap < 2; ++swap) {
                const Shape& x = swap ? b : a;
                const Shape& y = swap ? a : b;
                const Mask want = ops[k] < 0 ? x.m : x.m.combine(y.m, ops[k]);
                const int kind = CombineRgn(d, x.h, y.h, modes[k]);
                EXPECT_EQ(kind, want.count() == 0 ? NULLREGION : want.isRectangle() ? SIMPLEREGION : COMPLEXREGION);
                expectMatches(d, want, x.what + " op " + std::to_string(modes[k]) + " " + y.what + " layout " +
                                           std::to_string(layout));
            }
        // The destination is also a source.
        CombineRgn(d, a.h, a.h, RGN_COPY);
        CombineRgn(d, d, b.h, RGN_XOR);
        expectMatches(d, a.m.combine(b.m, 2), "in place xor");
        CombineRgn(d, d, d, RGN_DIFF);
        expectMatches(d, Mask(kWin.x0, kWin.y0, kWin.w, kWin.h), "d minus d");
        DeleteObject(d);
        DeleteObject(a.h);
        DeleteObject(b.h);
    }
}

TEST(RegionsEngine, PolygonsMatchCentreSamplingBothFillModes) {
    std::mt19937 rng(777);
    for (int iter = 0; iter < 80; ++iter) {
        std::uniform_int_distribution<int> c(-30, 170);
        // Several figures through K_SegmentsToRegion, flags 0 starting each.
        int figures = 1 + int(rng() % 3);
        std::vector<POINT> pts;
        std::vector<uint8_t> flags;
        std::vector<size_t> starts;
        for (int f = 0; f < figures; ++f) {
            starts.push_back(pts.size());
            int n = 2 + int(rng() % 8);
            for (int i = 0; i < n; ++i) {
                // Sometimes snap to a coarse grid to provoke shared vertices and horizontal edges.
                POINT p{c(rng), c(rng)};
                if (rng() % 3 == 0) p = POINT{p.x / 20 * 20, p.y / 20 * 20};
                pts.push_back(p);
                flags.push_back(i == 0 ? 0 : 1);
            }
        }
        for (int winding = 0; winding < 2; ++winding) {
            OrvaRgn* r = nullptr;
            ASSERT_EQ(K_SegmentsToRegion(&r, pts.data(), flags.data(), int32_t(pts.size()),
                                         winding ? WINDING : ALTERNATE),
                      KS_SUCCESS);
            ASSERT_TRUE(krn::rgn::valid(r));
            HRGN h = krn::rgn::makeHandle(r);
            expectMatches(h, rgntest::polygonMask(kWin, pts, starts, winding != 0),
                          "polygon iter " + std::to_string(iter) + (winding ? " winding" : " even-odd"));
            DeleteObject(h);
        }
    }
}

TEST(RegionsEngine, PolygonSquareIsTheRectangleAndFewerThanTwoPointsAreEmpty) {
    POINT sq[4] = {{0, 0}, {10, 0}, {10, 10}, {0, 10}};
    HRGN p = CreatePolygonRgn(sq, 4, ALTERNATE), r = CreateRectRgn(0, 0, 10, 10), one = CreatePolygonRgn(sq, 1, WINDING);
    EXPECT_EQ(rgntest::regionData(p), rgntest::regionData(r));
    RECT box;
    EXPECT_EQ(GetRgnBox(one, &box), NULLREGION);
    for (HRGN h : {p, r, one}) DeleteObject(h);
}

TEST(RegionsEngine, EllipseFollowsItsEquation) {
    std::mt19937 rng(99);
    for (int iter = 0; iter < 40; ++iter) {
        RECT b = randomRect(rng);
        if (iter == 0) b = RECT{0, 0, 3000, 2000};
        HRGN h = CreateEllipticRgn(b.left, b.top, b.right, b.bottom);
        ASSERT_NE(h, nullptr);
        OrvaRgn* r = payload(h);
        ASSERT_TRUE(krn::rgn::valid(r));
        double radius = std::max(std::abs(b.right - b.left), std::abs(b.bottom - b.top)) / 2.0;
        double band = 0.15 + radius * 3e-4;  // flattening plus the cubic's own error
        int checked = 0;
        int step = iter == 0 ? 7 : 1;
        for (int y = std::min(b.top, b.bottom) - 2; y < std::max(b.top, b.bottom) + 2; y += step)
            for (int x = std::min(b.left, b.right) - 2; x < std::max(b.left, b.right) + 2; x += step) {
                int cls = rgntest::ellipseClass(b, x, y, band);
                if (cls == 0) continue;
                ++checked;
                ASSERT_EQ(PtInRegion(h, x, y), cls > 0 ? 1 : 0) << "box " << b.left << "," << b.top << ","
                                                                 << b.right << "," << b.bottom << " at " << x
                                                                 << "," << y;
            }
        // Symmetric about both axes of the box.
        if (iter == 0) {
            EXPECT_GT(checked, 100000);
            EXPECT_EQ(PtInRegion(h, 1500, 0), 1);
            EXPECT_EQ(PtInRegion(h, 1500, 1999), 1);
            EXPECT_EQ(PtInRegion(h, 0, 1000), 1);
            EXPECT_EQ(PtInRegion(h, 2999, 1000), 1);
        }
        DeleteObject(h);
    }
}

TEST(RegionsEngine, ExtCreateRegionSortsJoinsAndValidates) {
    // Unordered, overlapping rectangles give their union.
    struct {
        RGNDATAHEADER h;
        RECT r[4];
    } blk{};
    blk.h.dwSize = 32;
    blk.h.iType = RDH_RECTANGLES;
    blk.h.nCount = 4;
    blk.h.nRgnSize = 64;
    blk.r[0] = RECT{50, 40, 60, 50};
    blk.r[1] = RECT{0, 0, 10, 10};
    blk.r[2] = RECT{5, 5, 20, 12};
    blk.r[3] = RECT{3, 3, 2, 9};  // empty, skipped
    HRGN h = ExtCreateRegion(nullptr, sizeof blk, reinterpret_cast<const RGNDATA*>(&blk));
    ASSERT_NE(h, nullptr);
    Mask want = rgntest::rectMask(kWin, blk.r[0])
                    .combine(rgntest::rectMask(kWin, blk.r[1]), 1)
                    .combine(rgntest::rectMask(kWin, blk.r[2]), 1);
    expectMatches(h, want, "unordered rectangles");
    // Size rules.
    EXPECT_EQ(ExtCreateRegion(nullptr, 32, reinterpret_cast<const RGNDATA*>(&blk)), nullptr);
    EXPECT_EQ(ExtCreateRegion(nullptr, 16 * 5 - 1, reinterpret_cast<const RGNDATA*>(&blk)), nullptr);
    EXPECT_EQ(ExtCreateRegion(nullptr, 64, nullptr), nullptr);
    auto bad = blk;
    bad.h.dwSize = 28;
    EXPECT_EQ(ExtCreateRegion(nullptr, sizeof bad, reinterpret_cast<const RGNDATA*>(&bad)), nullptr);
    bad = blk;
    bad.h.iType = 2;
    EXPECT_EQ(ExtCreateRegion(nullptr, sizeof bad, reinterpret_cast<const RGNDATA*>(&bad)), nullptr);
    // A scale-and-move transform keeps rectangles; a quarter turn maps them exactly too.
    XFORM sx{2.0f, 0.0f, 0.0f, 3.0f, 5.0f, -4.0f};
    HRGN t = ExtCreateRegion(&sx, sizeof blk, reinterpret_cast<const RGNDATA*>(&blk));
    Mask wantT = rgntest::rectMask(kWin, RECT{105, 116, 125, 146})
                     .combine(rgntest::rectMask(kWin, RECT{5, -4, 25, 26}), 1)
                     .combine(rgntest::rectMask(kWin, RECT{15, 11, 45, 32}), 1);
    expectMatches(t, wantT, "scaled");
    // A 45 degree rotation of a square gives a diamond: the parallelogram path.
    struct {
        RGNDATAHEADER h;
        RECT r[1];
    } sq{};
    sq.h = blk.h;
    sq.h.nCount = 1;
    sq.r[0] = RECT{0, 0, 40, 40};
    const float c = float(std::sqrt(0.5));
    XFORM rot{c, c, -c, c, 60.0f, 10.0f};
    HRGN d = ExtCreateRegion(&rot, sizeof sq, reinterpret_cast<const RGNDATA*>(&sq));
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(PtInRegion(d, 60, 38), 1);   // centre of the diamond
    EXPECT_EQ(PtInRegion(d, 45, 12), 0);   // outside the rotated square
    uint64_t area = krn::rgn::area(payload(d));
    EXPECT_NEAR(double(area), 1600.0, 60.0);
    DeleteObject(h);
    DeleteObject(t);
    DeleteObject(d);
}

TEST(RegionsEngine, OffsetSetRectRgnAndPlacementWords) {
    HRGN h = CreateEllipticRgn(0, 0, 30, 20);
    Mask before(kWin.x0, kWin.y0, kWin.w, kWin.h);
    bool ok;
    before = rgntest::maskOfHandle(kWin, h, &ok);
    EXPECT_EQ(OffsetRgn(h, 7, -5), 1);
    Mask after = rgntest::maskOfHandle(kWin, h, &ok);
    for (int y = -30; y < 40; ++y)
        for (int x = -30; x < 60; ++x) ASSERT_EQ(after.get(x + 7, y - 5), before.get(x, y));
    EXPECT_EQ(OffsetRgn(h, INT32_MAX, 0), 0);  // would leave the 32-bit range: refused
    Mask still = rgntest::maskOfHandle(kWin, h, &ok);
    EXPECT_TRUE(still == after);
    OrvaRgn* r = payload(h);
    r->nPlacement[3] = 1234;
    EXPECT_EQ(SetRectRgn(h, 5, 5, 1, 1), 1);
    EXPECT_EQ(payload(h)->nPlacement[3], 1234);  // kept by the replacement
    expectMatches(h, rgntest::rectMask(kWin, RECT{1, 1, 5, 5}), "SetRectRgn");
    OrvaRgn* c = nullptr;
    ASSERT_EQ(K_CopyOrvaRgn(&c, payload(h)), KS_SUCCESS);
    EXPECT_EQ(c->nPlacement[3], 1234);
    K_DeleteOrvaRgn(c);
    OrvaRgn* nul = reinterpret_cast<OrvaRgn*>(1);
    EXPECT_EQ(K_CopyOrvaRgn(&nul, nullptr), KS_SUCCESS);
    EXPECT_EQ(nul, nullptr);
    HRGN other = CreateRectRgn(20, 20, 25, 25);
    EXPECT_EQ(CombineRgn(h, h, other, RGN_OR), COMPLEXREGION);
    EXPECT_EQ(payload(h)->nPlacement[3], 1234);  // kept by a combine into the handle too
    DeleteObject(other);
    DeleteObject(h);
}

TEST(RegionsEngine, KernelOperationsClipScaleMirror) {
    std::mt19937 rng(4242);
    for (int iter = 0; iter < 30; ++iter) {
        Shape s = randomShape(rng);
        OrvaRgn* r = nullptr;
        ASSERT_EQ(K_ConvertHandleToRgn(s.h, &r), KS_SUCCESS);
        RECT clip = randomRect(rng);
        if (clip.left > clip.right) std::swap(clip.left, clip.right);
        if (clip.top > clip.bottom) std::swap(clip.top, clip.bottom);
        ASSERT_EQ(K_ClipOrvaRgnRect(r, &clip), KS_SUCCESS);
        ASSERT_TRUE(krn::rgn::valid(r));
        Mask want = s.m.combine(rgntest::rectMask(kWin, clip), 0);
        for (int y = kWin.y0; y < kWin.y0 + kWin.h; ++y)
            for (int x = kWin.x0; x < kWin.x0 + kWin.w; ++x)
                ASSERT_EQ(K_IsPtInOrvaRgn(r, x, y, nullptr, nullptr), want.get(x, y) ? 1 : 0);
        // Scale by a random ratio: pixel (X, Y) in when (floor(X*d/n), floor(Y*d/n)) was.
        int xn = 1 + int(rng() % 5), xd = 1 + int(rng() % 5), yn = 1 + int(rng() % 5), yd = 1 + int(rng() % 5);
        OrvaRgn* sc = nullptr;
        ASSERT_EQ(K_CopyOrvaRgn(&sc, r), KS_SUCCESS);
        ASSERT_EQ(K_ScaleOrvaRgn(sc, xn, xd, yn, yd), KS_SUCCESS);
        ASSERT_TRUE(krn::rgn::valid(sc));
        auto fdiv = [](int a, int b) { return a >= 0 ? a / b : -((-a + b - 1) / b); };
        for (int y = -200; y < 1000; y += 1)
            for (int x = -200; x < 1000; x += 3) {
                bool w = want.get(fdiv(x * xd, xn), fdiv(y * yd, yn));
                ASSERT_EQ(K_IsPtInOrvaRgn(sc, x, y, nullptr, nullptr), w ? 1 : 0)
                    << x << "," << y << " scale " << xn << "/" << xd << " " << yn << "/" << yd;
            }
        EXPECT_EQ(K_ScaleOrvaRgn(sc, 1, 0, 1, 1), KS_INVALID_PARAMETER);
        // Mirrors and transpose against the mask.
        OrvaRgn* m = nullptr;
        ASSERT_EQ(K_CopyOrvaRgn(&m, r), KS_SUCCESS);
        ASSERT_EQ(krn::rgn::flipRows(m, 100), KS_SUCCESS);
        ASSERT_EQ(krn::rgn::reverseCols(m, 90), KS_SUCCESS);
        ASSERT_EQ(krn::rgn::transpose(m), KS_SUCCESS);
        ASSERT_TRUE(krn::rgn::valid(m));
        for (int y = -200; y < 300; ++y)
            for (int x = -200; x < 300; ++x) {
                // m(x, y) = r after flip, reverse, transpose: source pixel (89 - y, 99 - x)
                bool w = want.get(89 - y, 99 - x);
                ASSERT_EQ(K_IsPtInOrvaRgn(m, x, y, nullptr, nullptr), w ? 1 : 0) << x << "," << y;
            }
        K_DeleteOrvaRgn(m);
        K_DeleteOrvaRgn(sc);
        K_DeleteOrvaRgn(r);
        DeleteObject(s.h);
    }
}

TEST(RegionsEngine, KernelCombineKeepsIdentityAndReusesBlocks) {
    RECT ra{0, 0, 50, 40}, rb{30, 20, 90, 70}, rc{5, 5, 6, 6};
    OrvaRgn *a = nullptr, *b = nullptr, *d = nullptr;
    ASSERT_EQ(K_CreateOrvaRgnRect(&a, &ra), KS_SUCCESS);
    ASSERT_EQ(K_CreateOrvaRgnRect(&b, &rb), KS_SUCCESS);
    // A null destination receives a new region.
    ASSERT_EQ(K_CombineOrvaRgn(&d, a, b, RGN_OR), KS_SUCCESS);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(krn::rgn::area(d), 50u * 40u + 60u * 50u - 20u * 20u);
    // An existing destination is replaced in place (its blocks reused).
    OrvaRgn* same = d;
    d->nPlacement[0] = 77;
    ASSERT_EQ(K_CombineOrvaRgn(&d, a, b, RGN_XOR), KS_SUCCESS);
    EXPECT_EQ(d, same);
    EXPECT_EQ(d->nPlacement[0], 77);
    EXPECT_TRUE(krn::rgn::valid(d));
    EXPECT_EQ(krn::rgn::area(d), 50u * 40u + 60u * 50u - 2u * 20u * 20u);
    EXPECT_EQ(K_IsPtInOrvaRgn(d, 35, 25, nullptr, nullptr), 0);
    EXPECT_EQ(K_IsPtInOrvaRgn(d, 10, 10, nullptr, nullptr), 1);
    // A clip that leaves nothing empties the region.
    OrvaRgn* e = nullptr;
    RECT away{200, 200, 300, 300};
    ASSERT_EQ(K_CopyOrvaRgn(&e, d), KS_SUCCESS);
    ASSERT_EQ(K_ClipOrvaRgnRect(e, &away), KS_SUCCESS);
    EXPECT_EQ(krn::rgn::area(e), 0u);
    K_DeleteOrvaRgn(e);
    // A destination that is also a source.
    ASSERT_EQ(K_CombineOrvaRgn(&a, a, b, RGN_DIFF), KS_SUCCESS);
    EXPECT_EQ(krn::rgn::area(a), 50u * 40u - 20u * 20u);
    // A failure leaves the destination as it was, blocks and all.
    OrvaRgn* small = nullptr;
    ASSERT_EQ(K_CreateOrvaRgnRect(&small, &rc), KS_SUCCESS);
    for (long n = 0; n < 8; ++n) {
        krn::faultinject::arm(n, 1);
        int32_t st = K_CombineOrvaRgn(&small, a, b, RGN_OR);
        bool injected = krn::faultinject::injected() > 0;
        krn::faultinject::disarm();
        if (st != KS_SUCCESS) {
            EXPECT_TRUE(injected);
            EXPECT_TRUE(krn::rgn::valid(small));
            EXPECT_EQ(krn::rgn::area(small), 1u);
            EXPECT_EQ(K_IsPtInOrvaRgn(small, 5, 5, nullptr, nullptr), 1);
        } else {
            break;
        }
    }
    EXPECT_EQ(K_CombineOrvaRgn(&small, a, nullptr, RGN_OR), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CombineOrvaRgn(&small, a, b, 6), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_OffsetOrvaRgn(a, 0, 0), KS_SUCCESS);
    K_DeleteOrvaRgn(small);
    K_DeleteOrvaRgn(a);
    K_DeleteOrvaRgn(b);
    K_DeleteOrvaRgn(d);
}

// A perspective change that fails part way (an allocation in any of its
// steps) leaves the region exactly as it was.
TEST(RegionsEngine, FailedPerspectiveChangeLeavesTheRegion) {
    OrvaRgn *a = nullptr, *b = nullptr;
    RECT ra{2, 1, 9, 4}, rb{5, 3, 7, 12};
    ASSERT_EQ(K_CreateOrvaRgnRect(&a, &ra), KS_SUCCESS);
    ASSERT_EQ(K_CreateOrvaRgnRect(&b, &rb), KS_SUCCESS);
    ASSERT_EQ(K_CombineOrvaRgn(&a, a, b, RGN_XOR), KS_SUCCESS);
    auto dump = [](const OrvaRgn* r) {
        std::vector<int32_t> v{r->rcBounds.left, r->rcBounds.top, r->rcBounds.right, r->rcBounds.bottom};
        v.insert(v.end(), r->pRunData, r->pRunData + r->uRunDataSize / 4u);
        return v;
    };
    const std::vector<int32_t> before = dump(a);
    int failures = 0;
    for (int32_t to = 2; to <= 8; ++to)
        for (long n = 0; n < 12; ++n) {
            krn::faultinject::arm(n, 1);
            int32_t st = krn::rgn::perspective(a, 1, to, 10, 12);
            krn::faultinject::disarm();
            if (st == KS_SUCCESS) {
                // Undo through the inverse change, then stop this target.
                ASSERT_EQ(krn::rgn::perspective(a, to, 1, to >= 5 ? 12 : 10, to >= 5 ? 10 : 12), KS_SUCCESS);
                ASSERT_EQ(dump(a), before) << "round trip 1 -> " << to;
                break;
            }
            ++failures;
            ASSERT_TRUE(krn::rgn::valid(a));
            ASSERT_EQ(dump(a), before) << "to " << to << " failing allocation " << n;
        }
    EXPECT_GT(failures, 7);
    K_DeleteOrvaRgn(a);
    K_DeleteOrvaRgn(b);
}

TEST(RegionsEngine, PointTestReportsTheRun) {
    HRGN a = CreateRectRgn(0, 0, 10, 5), b = CreateRectRgn(20, 0, 30, 5), d = CreateRectRgn(0, 0, 0, 0);
    CombineRgn(d, a, b, RGN_OR);
    int32_t x1 = 0, x2 = 0;
    EXPECT_EQ(K_IsPtInOrvaRgn(payload(d), 25, 2, &x1, &x2), 1);
    EXPECT_EQ(x1, 20);
    EXPECT_EQ(x2, 30);
    EXPECT_EQ(K_IsPtInOrvaRgn(payload(d), 15, 2, &x1, &x2), 0);
    EXPECT_EQ(x1, -1);
    EXPECT_EQ(x2, -1);
    RECT bb;
    EXPECT_EQ(K_GetOrvaRgnBounds(payload(d), &bb), KS_SUCCESS);
    EXPECT_EQ(bb.right, 30);
    DeleteObject(a);
    DeleteObject(b);
    DeleteObject(d);
}

TEST(RegionsEngine, BadHandlesGiveZeroAndErrno22) {
    HRGN good = CreateRectRgn(0, 0, 5, 5);
    HRGN dead = CreateRectRgn(0, 0, 5, 5);
    DeleteObject(dead);
    HGLOBAL mem = K_GlobalAlloc(GMEM_MOVEABLE, 16);  // a live handle of another kind
    int local = 0;
    const HRGN bad[] = {nullptr, reinterpret_cast<HRGN>(~uintptr_t(0)), dead, static_cast<HRGN>(mem),
                        reinterpret_cast<HRGN>(&local)};
    for (HRGN b : bad) {
        RECT r{};
        WORD w = 0;
        OrvaRgn* o = nullptr;
        auto probe = [](const char* what, auto call) {
            errno = 0;
            EXPECT_EQ(call(), decltype(call())(0)) << what;
            EXPECT_EQ(errno, 22) << what;
        };
        probe("CombineRgn dst", [&] { return CombineRgn(b, good, good, RGN_OR); });
        probe("CombineRgn src1", [&] { return CombineRgn(good, b, good, RGN_OR); });
        probe("CombineRgn src2 copy", [&] { return CombineRgn(good, good, b, RGN_COPY); });
        probe("OffsetRgn", [&] { return OffsetRgn(b, 1, 1); });
        probe("GetRgnBox", [&] { return GetRgnBox(b, &r); });
        probe("GetRegionData", [&] { return GetRegionData(b, 0, nullptr); });
        probe("PtInRegion", [&] { return PtInRegion(b, 0, 0); });
        probe("SetRectRgn", [&] { return SetRectRgn(b, 0, 0, 1, 1); });
        probe("DeleteObject", [&] { return DeleteObject(b); });
        probe("GetObject", [&] { return GetObject(b, 2, &w); });
        probe("K_WinDeleteObject", [&] { return K_WinDeleteObject(b); });
        errno = 0;
        EXPECT_EQ(K_ConvertHandleToRgn(b, &o), KS_INVALID_PARAMETER);
        EXPECT_EQ(errno, 22);
    }
    // The global block is still alive and the good region untouched.
    EXPECT_NE(K_GlobalLock(mem), nullptr);
    K_GlobalUnlock(mem);
    K_GlobalFree(mem);
    // Mode 6 is not a Win32 mode: 0 and the destination keeps its region.
    HRGN d = CreateRectRgn(1, 1, 3, 3);
    EXPECT_EQ(CombineRgn(d, good, good, 6), 0);
    EXPECT_EQ(PtInRegion(d, 2, 2), 1);
    EXPECT_EQ(PtInRegion(d, 4, 4), 0);
    DeleteObject(d);
    DeleteObject(good);
    // Kernel operations refuse null arguments.
    RECT rc{0, 0, 1, 1};
    EXPECT_EQ(K_CreateOrvaRgnRect(nullptr, &rc), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_DeleteOrvaRgn(nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_OffsetOrvaRgn(nullptr, 1, 1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_ClipOrvaRgnRect(nullptr, &rc), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_IsPtInOrvaRgn(nullptr, 0, 0, nullptr, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SegmentsToRegion(nullptr, nullptr, nullptr, 0, 0), KS_INVALID_PARAMETER);
}

TEST(RegionsEngine, PaletteObjectsThroughGetObjectAndDeleteObject) {
    auto* logpal = static_cast<uint16_t*>(krn::memCalloc(4 + 4 * 16));
    logpal[0] = 0x300;
    logpal[1] = 16;
    HGDIOBJ pal = krn::objCreate(krn::kObjPalette, logpal);
    ASSERT_NE(pal, nullptr);
    WORD n = 0;
    EXPECT_EQ(GetObject(pal, 2, &n), 2);
    EXPECT_EQ(n, 16);
    HRGN r = CreateRectRgn(0, 0, 1, 1);
    errno = 0;
    EXPECT_EQ(GetObject(r, 2, &n), 0);  // not a palette
    EXPECT_EQ(errno, 22);
    long before = krn::faultinject::liveBlocks();
    EXPECT_EQ(DeleteObject(pal), 1);
    EXPECT_EQ(krn::faultinject::liveBlocks(), before - 2);  // handle and payload
    EXPECT_EQ(DeleteObject(r), 1);
}

TEST(RegionsEngine, RectangleFunctions) {
    RECT a, b, c;
    SetRect(&a, 0, 0, 10, 10);
    SetRect(&b, 5, 5, 15, 15);
    EXPECT_EQ(IntersectRect(&c, &a, &b), 1);
    RECT want{5, 5, 10, 10};
    EXPECT_TRUE(EqualRect(&c, &want));
    SetRect(&b, 10, 0, 20, 10);  // touching only
    EXPECT_EQ(IntersectRect(&c, &a, &b), 0);
    EXPECT_EQ(IsRectEmpty(&c), 1);
    EXPECT_EQ(UnionRect(&c, &a, &b), 1);
    want = RECT{0, 0, 20, 10};
    EXPECT_TRUE(EqualRect(&c, &want));
    RECT e{3, 3, 3, 9};
    EXPECT_EQ(UnionRect(&c, &a, &e), 1);
    EXPECT_TRUE(EqualRect(&c, &a));
    EXPECT_EQ(PtInRect(&a, POINT{9, 9}), 1);
    EXPECT_EQ(PtInRect(&a, POINT{10, 9}), 0);
    EXPECT_EQ(PtInRect(&a, POINT{0, 10}), 0);
    CopyRect(&b, &a);  // (InflateRect and OffsetRect: HostileRects)
    EXPECT_TRUE(EqualRect(&b, &a));
    EXPECT_EQ(SetRect(nullptr, 0, 0, 1, 1), 0);
    EXPECT_EQ(IntersectRect(nullptr, &a, &b), 0);
}

// Every allocation of a combine, polygon, ellipse and region-data import is
// failed in turn: each call fails cleanly, leaks nothing and leaves the
// destination unchanged.
TEST(RegionsEngine, AllocationFailureSweep) {
    HRGN a = CreateEllipticRgn(0, 0, 200, 150), b = CreateEllipticRgn(50, 20, 250, 200);
    HRGN d = CreateRectRgn(1, 2, 3, 4);
    std::vector<uint8_t> data = rgntest::regionData(b);
    POINT star[5] = {{50, 0}, {80, 100}, {0, 35}, {100, 35}, {20, 100}};
    for (int what = 0; what < 5; ++what) {
        bool clean = false;  // a run without any injected failure
        int failures = 0;
        for (long n = 0; n < 64 && !clean; ++n) {
            long live = krn::faultinject::liveBlocks();
            krn::faultinject::arm(n, 1);
            HRGN made = nullptr;
            int res = 0;
            switch (what) {
                case 0: res = CombineRgn(d, a, b, RGN_XOR); break;
                case 1: made = CreatePolygonRgn(star, 5, WINDING); break;
                case 2: made = CreateEllipticRgn(-5, -5, 300, 120); break;
                case 3:
                    made = ExtCreateRegion(nullptr, uint32_t(data.size()),
                                           reinterpret_cast<const RGNDATA*>(data.data()));
                    break;
                case 4: res = SetRectRgn(d, 0, 0, 1000, 1000) ? 1 : 0; break;
            }
            clean = krn::faultinject::injected() == 0;
            krn::faultinject::disarm();
            const bool failed = (what == 0 || what == 4) ? res == 0 : made == nullptr;
            if (failed) {
                ++failures;
                EXPECT_FALSE(clean) << "failed without an injected fault, what " << what;
                EXPECT_EQ(krn::faultinject::liveBlocks(), live) << "leak, what " << what << " n " << n;
                if (what == 0 || what == 4) {
                    RECT box;
                    GetRgnBox(d, &box);
                    RECT old{1, 2, 3, 4};
                    EXPECT_TRUE(EqualRect(&box, &old)) << "destination changed by a failed call";
                }
            } else {
                if (made) DeleteObject(made);
                if (what == 0 || what == 4) SetRectRgn(d, 1, 2, 3, 4);
            }
        }
        EXPECT_TRUE(clean) << "never ran clean: " << what;
        EXPECT_GT(failures, 0) << "no failure was provoked: " << what;
    }
    DeleteObject(a);
    DeleteObject(b);
    DeleteObject(d);
}

TEST(RegionsEngine, ExtremeCoordinatesAreRefusedOrExact) {
    // Taller than the engine's limit: refused, nothing leaks.
    long live = krn::faultinject::liveBlocks();
    EXPECT_EQ(CreateRectRgn(INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX), nullptr);
    POINT tall[3] = {{0, INT32_MIN}, {INT32_MAX, INT32_MAX}, {INT32_MIN, 0}};
    EXPECT_EQ(CreatePolygonRgn(tall, 3, WINDING), nullptr);
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    // Very wide but short polygons are exact: a triangle with extreme x.
    POINT wide[3] = {{INT32_MIN, 0}, {INT32_MAX, 0}, {0, 4}};
    HRGN h = CreatePolygonRgn(wide, 3, ALTERNATE);
    ASSERT_NE(h, nullptr);
    OrvaRgn* r = payload(h);
    ASSERT_TRUE(krn::rgn::valid(r));
    EXPECT_EQ(r->rcBounds.top, 0);
    EXPECT_EQ(r->rcBounds.bottom, 4);
    // Row 0: centre line y = 0.5 crosses the left edge at x = INT32_MIN * 7/8.
    int32_t x1, x2;
    EXPECT_EQ(K_IsPtInOrvaRgn(r, 0, 0, &x1, &x2), 1);
    int64_t lx = INT32_MIN + (int64_t(-int64_t(INT32_MIN)) * 1) / 8;  // x at y = 0.5 on the left edge
    EXPECT_NEAR(double(x1), double(lx), 1.0);
    DeleteObject(h);
    // Offsets that overflow are refused; the region is unchanged.
    OrvaRgn* o = nullptr;
    RECT rc{INT32_MAX - 10, 0, INT32_MAX, 2};
    ASSERT_EQ(K_CreateOrvaRgnRect(&o, &rc), KS_SUCCESS);
    EXPECT_EQ(K_OffsetOrvaRgn(o, 11, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(o->rcBounds.right, INT32_MAX);
    EXPECT_EQ(K_OffsetOrvaRgn(o, 10, 0), KS_INVALID_PARAMETER);  // right would pass INT32_MAX
    EXPECT_EQ(K_OffsetOrvaRgn(o, -10, 5), KS_SUCCESS);
    // A short region far down scales like any other: the row limit is on its height.
    RECT farDown{0, 1 << 30, 4, (1 << 30) + 3};
    OrvaRgn* f = nullptr;
    ASSERT_EQ(K_CreateOrvaRgnRect(&f, &farDown), KS_SUCCESS);
    ASSERT_EQ(K_ScaleOrvaRgn(f, 2, 1, 1, 1), KS_SUCCESS);
    EXPECT_EQ(krn::rgn::area(f), 8u * 3u);
    K_DeleteOrvaRgn(f);
    EXPECT_EQ(o->rcBounds.top, 5);
    K_DeleteOrvaRgn(o);
}

// Memory: 8 bytes per row (empty rows inside the region included, not
// exported) plus 8 per run.
TEST(RegionsEngine, MemoryIsEightBytesPerRowPlusEightPerRun) {
    HRGN a = CreateRectRgn(0, 0, 10, 2), b = CreateRectRgn(5, 6, 8, 8), d = CreateRectRgn(0, 0, 0, 0);
    EXPECT_EQ(CombineRgn(d, a, b, RGN_OR), COMPLEXREGION);
    OrvaRgn* r = payload(d);
    EXPECT_EQ(r->uRowIndexSize, 8u * 8u);  // rows 0..7 including four empty ones
    EXPECT_EQ(r->pRowIndex[3].uCount, 0u);
    EXPECT_EQ(r->uRunDataSize, 4u * 8u);   // four rows of one run
    EXPECT_EQ(GetRegionData(d, 0, nullptr), 32u + 16u * 4u);
    HRGN h = CreateEllipticRgn(0, 0, 4000, 3000);
    EXPECT_EQ(payload(h)->uRowIndexSize, 3000u * 8u);
    EXPECT_EQ(payload(h)->uRunDataSize, 3000u * 8u);  // one run per row
    SetRectRgn(b, 0, 0, 100, 100);
    CombineRgn(d, h, b, RGN_DIFF);
    r = payload(d);
    uint64_t runs = 0;
    for (uint32_t i = 0; i < r->uRowIndexSize / 8; ++i) runs += r->pRowIndex[i].uCount / 2;
    EXPECT_EQ(r->uRunDataSize, runs * 8);
    for (HRGN x : {a, b, d, h}) DeleteObject(x);
}

}  // namespace
