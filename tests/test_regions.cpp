// test_regions.cpp - the region engine and its Win32-style API against the boolean-mask model: random rectangles,
// polygons, ellipses, rectangle sets, banded shapes and long banded rows combined by every mode (also in place and at
// the ends of the 32-bit range); data round trips; kernel operations; bad handles; allocation failures.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "dis/common/region.h"
#include "krn/windowsemul/objects.h"
#include "regions_mask.h"
#include "transform_kit.h"

using rgntest::Mask;

namespace {

const Mask kWin(-40, -40, 240, 220), kLong(-7, -3, 420, 60);

struct Shape { HRGN h = nullptr; Mask m; std::string what; };

const int kModes[5] = {RGN_AND, RGN_OR, RGN_XOR, RGN_DIFF, RGN_COPY};  // the mask model's codes 0..4
int in(std::mt19937& rng, int lo, int hi) { return lo + int(rng() % uint32_t(hi - lo + 1)); }
RECT randomRect(std::mt19937& g) { return RECT{in(g, -30, 180), in(g, -30, 180), in(g, -30, 180), in(g, -30, 180)}; }
OrvaRgn* payload(HRGN h) { return static_cast<OrvaRgn*>(krn::objPayload(h, krn::kObjRegion)); }
Mask maskOf(HRGN h, const Mask& win = kWin) {
    bool ok = false;
    Mask m = rgntest::maskOfHandle(win, h, &ok);
    EXPECT_TRUE(ok) << "region data outside the window";
    return m;
}

// A rectangle, an ellipse (its mask read back: checked against its equation below) or a polygon of several figures in
// either fill mode, some points on a coarse grid, half of them with the figures apart vertically.
Shape apiShape(std::mt19937& rng) {
    const int kind = int(rng() % 3);
    if (kind == 2) {
        std::vector<POINT> pts;
        std::vector<uint8_t> flags;
        std::vector<size_t> starts;
        const bool apart = rng() & 1;
        for (int f = 0, figures = 1 + int(rng() % 3); f < figures; ++f) {
            starts.push_back(pts.size());
            for (int i = 0, n = 2 + int(rng() % 10); i < n; ++i) {
                const POINT p{in(rng, -30, 170), apart ? in(rng, 60 * f - 30, 60 * f + 10) : in(rng, -30, 170)};
                pts.push_back(rng() % 3 ? p : POINT{p.x / 20 * 20, p.y / 20 * 20});
                flags.push_back(i == 0 ? 0 : 1);
            }
        }
        const bool wind = rng() & 1;
        OrvaRgn* r = nullptr;
        const int32_t n = int32_t(pts.size());
        EXPECT_EQ(K_SegmentsToRegion(&r, pts.data(), flags.data(), n, wind ? WINDING : ALTERNATE), KS_SUCCESS);
        return Shape{krn::rgn::makeHandle(r), rgntest::polygonMask(kWin, pts, starts, wind), "polygon"};
    }
    const RECT r = randomRect(rng);
    HRGN h = (kind ? CreateEllipticRgn : CreateRectRgn)(r.left, r.top, r.right, r.bottom);
    EXPECT_NE(h, nullptr);
    return Shape{h, kind ? maskOf(h) : rgntest::rectMask(kWin, {r}), kind ? "ellipse" : "rect"};
}

// Many small rectangles on a coarse grid through the importer: rows with many runs whose ends coincide or touch, tall
// rectangles, sources moved apart.
Shape rectsShape(std::mt19937& rng, int count, int dx, int dy) {
    std::vector<RECT> rects;
    for (int i = 0; i < count; ++i) {
        int l = int(rng() % 40) * 2 + dx, t = int(rng() % 30) * 2 + dy;
        int w = 1 + int(rng() % 4) * 2, h = rng() % 4 == 0 ? 20 + int(rng() % 30) : 1 + int(rng() % 3);
        rects.push_back(RECT{l, t, l + w, std::min(t + h, kWin.y0 + kWin.h)});
    }
    return Shape{rgntest::regionOfRects(rects), rgntest::rectMask(kWin, rects), "rects"};
}

// Shapes by index arithmetic on the mask: tall bands of identical rows with many runs (the repeated-row path), stripes
// a shifted copy touches, discs, long runs over combs, empty.
Shape bandedShape(std::mt19937& rng) {
    Mask m = kWin.blank();
    const int top = in(rng, -40, 0), bottom = in(rng, top, 179), x0 = kWin.x0, x1 = kWin.x0 + kWin.w;
    const int k = int(rng() % 5), a = in(rng, 1, 5), b = in(rng, 1, 16), c = in(rng, 0, 9), d = in(rng, 0, 9);
    const double cx = in(rng, 0, 120), cy = in(rng, 0, 100), rx = in(rng, 1, 70), ry = in(rng, 1, 60);
    const int l = in(rng, x0, x0 + 90), r = in(rng, l + 1, x1);
    for (int y = kWin.y0; y < kWin.y0 + kWin.h; ++y)
        for (int x = x0; x < x1; ++x) {
            const bool band = y >= top && y < bottom;
            const double dx = (x + 0.5 - cx) / rx, dy = (y + 0.5 - cy) / ry;
            m.set(x, y, k == 0   ? band && ((x + c) / a + (y + d) / b) % 2 == 0
                        : k == 1 ? band && ((x - x0 + c) / a) % 2 == 0
                        : k == 2 ? dx * dx + dy * dy <= 1
                                 : k == 3 && band && ((x >= l && x < r) || x % 3 == 0));
        }
    return Shape{rgntest::regionOfMask(m), m, "banded " + std::to_string(k)};
}

// Long rows in bands of 1..14 rows (1 for family 0) repeating random runs and gaps of 1..6 pixels, a periodic row, an
// empty row, or two rows in turn.
Mask longRows(std::mt19937& rng, int family) {
    Mask m = kLong.blank();
    for (int y = kLong.y0; y < kLong.y0 + kLong.h;) {
        const int kind = family == 0 ? 0 : in(rng, 0, 3), h = family == 0 ? 1 : in(rng, 1, 14);
        const int period = in(rng, 4, 12), len = in(rng, 1, period - 1), phase = in(rng, 0, 11);
        std::vector<uint8_t> rows[2];
        for (std::vector<uint8_t>& r : rows) {
            r.assign(size_t(kLong.w), 0);
            for (int x = in(rng, 0, 6), g = in(rng, 1, 6); x < kLong.w; x += in(rng, 1, g))
                for (int e = std::min(kLong.w, x + in(rng, 1, 6)); x < e; ++x) r[size_t(x)] = kind != 2;
        }
        for (int k = 0; k < h && y < kLong.h + kLong.y0; ++k, ++y)
            for (int x = 0; x < kLong.w; ++x)
                m.set(kLong.x0 + x, y, kind == 1 ? (x + phase) % period < len : rows[kind == 3 ? k % 2 : 0][size_t(x)]);
    }
    return m;
}

// Every query of a region handle agrees with the mask, and its data round trips.
void expectMatches(HRGN h, const Mask& m, const std::string& ctx) {
    SCOPED_TRACE(ctx);
    OrvaRgn* r = payload(h);
    ASSERT_TRUE(r && krn::rgn::valid(r));
    const Mask got = maskOf(h, m);
    ASSERT_TRUE(got == m) << got.describeDiff(m);
    for (int y = m.y0 + int(m.count() % 4); y < m.y0 + m.h; y += 4)
        for (int x = m.x0; x < m.x0 + m.w; ++x) ASSERT_EQ(PtInRegion(h, x, y), m.get(x, y) ? 1 : 0) << x << "," << y;
    RECT box, mb = m.bounds();
    EXPECT_TRUE(GetRgnBox(h, &box) == m.kind() && EqualRect(&box, &mb) && krn::rgn::area(r) == m.count());
    // An empty region's block is the bare 32-byte header, which the importer refuses (it wants at least 33 bytes); any
    // other comes back the same.
    const std::vector<uint8_t> data = rgntest::regionData(h);
    HRGN back = ExtCreateRegion(nullptr, uint32_t(data.size()), reinterpret_cast<const RGNDATA*>(data.data()));
    EXPECT_TRUE(m.count() ? back && rgntest::regionData(back) == data : data.size() == 32u && back == nullptr);
    if (back) DeleteObject(back);
}

TEST(RegionsEngine, RectangleAndDataEdgeCases) {
    HRGN e = CreateRectRgn(10, 10, 10, 20), a = CreateRectRgn(20, 20, 10, 10), b = CreateRectRgn(10, 10, 20, 20);
    RECT box{1, 2, 3, 4};
    EXPECT_TRUE(GetRgnBox(e, &box) == NULLREGION && (box.left | box.top | box.right | box.bottom) == 0);
    std::vector<uint8_t> head(32, 0xCD);  // an empty region's data: the header alone, no rectangles
    EXPECT_EQ(GetRegionData(e, 32, reinterpret_cast<RGNDATA*>(head.data())), 32u);
    EXPECT_EQ(std::vector<uint8_t>(head.begin() + 8, head.begin() + 16), std::vector<uint8_t>(8, 0));
    EXPECT_EQ(rgntest::regionData(a), rgntest::regionData(b));
    EXPECT_TRUE(GetRegionData(a, 0, nullptr) == 48u && GetRgnBox(a, &box) == SIMPLEREGION);
    for (auto [x, y, want] : {std::tuple{19, 19, 1}, {20, 15, 0}, {15, 20, 0}, {10, 10, 1}})
        EXPECT_EQ(PtInRegion(a, x, y), want);
    std::vector<uint8_t> small(47, 0xCD);  // too small: receives nothing, the size is still returned
    EXPECT_EQ(GetRegionData(a, 47, reinterpret_cast<RGNDATA*>(small.data())), 48u);
    EXPECT_EQ(small, std::vector<uint8_t>(47, 0xCD));
    // A polygon square is the rectangle; fewer than two points are empty.
    POINT sq[4] = {{10, 10}, {20, 10}, {20, 20}, {10, 20}};
    HRGN p = CreatePolygonRgn(sq, 4, ALTERNATE), one = CreatePolygonRgn(sq, 1, WINDING);
    EXPECT_TRUE(rgntest::regionData(p) == rgntest::regionData(b) && GetRgnBox(one, &box) == NULLREGION);
    // Staggered combs of 40 runs a row (the split merge): [4k, 4k + 2) and [4k + 1, 4k + 4) meet under AND.
    Mask ma = kWin.blank(), mb = kWin.blank();
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 160; ++x) ma.set(x, y, x % 4 < 2), mb.set(x, y, x % 4 > 0);
    HRGN ca = rgntest::regionOfMask(ma), cb = rgntest::regionOfMask(mb);
    EXPECT_EQ(CombineRgn(e, ca, cb, RGN_AND), COMPLEXREGION);
    EXPECT_TRUE(maskOf(e) == ma.combine(mb, 0)) << maskOf(e).describeDiff(ma.combine(mb, 0));
    for (HRGN h : {e, a, b, p, one, ca, cb}) DeleteObject(h);
    struct { RGNDATAHEADER h; RECT r[4]; } blk{{32, RDH_RECTANGLES, 4, 64, {}},
                                               {{50, 40, 60, 50}, {0, 0, 10, 10}, {5, 5, 20, 12}, {3, 3, 2, 9}}};
    auto make = [&](const XFORM* xf, uint32_t n) { return ExtCreateRegion(xf, n, reinterpret_cast<RGNDATA*>(&blk)); };
    // Unordered, overlapping rectangles give their union (the last is empty); a scale-and-move keeps rectangles.
    HRGN h = make(nullptr, sizeof blk);
    expectMatches(h, rgntest::rectMask(kWin, {blk.r[0], blk.r[1], blk.r[2]}), "unordered rectangles");
    XFORM sx{2.0f, 0.0f, 0.0f, 3.0f, 5.0f, -4.0f};
    HRGN t = make(&sx, sizeof blk);
    expectMatches(t, rgntest::rectMask(kWin, {{105, 116, 125, 146}, {5, -4, 25, 26}, {15, 11, 45, 32}}), "scaled");
    // Size and header rules.
    auto size28 = blk, type2 = blk;
    size28.h.dwSize = 28, type2.h.iType = 2;
    for (auto [p, n] : {std::pair<const void*, uint32_t>{&blk, 32}, {&blk, 16 * 5 - 1}, {nullptr, 64},
                        {&size28, sizeof blk}, {&type2, sizeof blk}})
        EXPECT_EQ(ExtCreateRegion(nullptr, n, static_cast<const RGNDATA*>(p)), nullptr) << n;
    // A 45 degree rotation of a square gives a diamond: the parallelogram path.
    blk.h.nCount = 1;
    blk.r[0] = RECT{0, 0, 40, 40};
    const float c = float(std::sqrt(0.5));
    XFORM rot{c, c, -c, c, 60.0f, 10.0f};
    HRGN d = make(&rot, 48);
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(PtInRegion(d, 60, 38) == 1 && PtInRegion(d, 45, 12) == 0);  // the centre of the diamond; outside it
    EXPECT_NEAR(double(krn::rgn::area(payload(d))), 1600.0, 60.0);
    for (HRGN x : {h, t, d}) DeleteObject(x);
}

// Rectangles and discs that share an edge: on every row one of the two runs of an XOR or a difference is empty, so
// the bounds come from the other (the merge of single runs finds them without a mask).
TEST(RegionsEngine, SharedEdgesGiveExactBounds) {
    const RECT a{0, 0, 60, 40};
    for (const RECT& b : {RECT{0, 0, 30, 40}, RECT{30, 0, 60, 40}, RECT{0, 10, 60, 30}, RECT{20, 0, 40, 40}})
        for (int disc = 0; disc < 2; ++disc)
            for (int k = 0; k < 4; ++k) {
                const auto make = disc ? CreateEllipticRgn : CreateRectRgn;
                HRGN ha = make(a.left, a.top, a.right, a.bottom), hb = make(b.left, b.top, b.right, b.bottom);
                HRGN d = CreateRectRgn(0, 0, 0, 0);
                const Mask ma = maskOf(ha, kWin), mb = maskOf(hb, kWin);
                if (disc) ASSERT_TRUE(ma.count() > 0 && mb.count() > 0);
                else ASSERT_TRUE(ma == rgntest::rectMask(kWin, {a}) && mb == rgntest::rectMask(kWin, {b}));
                CombineRgn(d, ha, hb, kModes[k]);
                expectMatches(d, ma.combine(mb, k), "shared edges, mode " + std::to_string(k));
                for (HRGN h : {ha, hb, d}) DeleteObject(h);
            }
}

// Every mode in both orders into a destination with blocks of its own, the destination as a source, and the in-place
// kernel combine giving the same runs; sources (each checked against its own mask first): API shapes, rectangle sets in
// five layouts (overlapping, b below a, b right of a, a empty, b empty), banded shapes (one in ten identical), long
// banded rows (random, banded, and a shape against its own bands moved down 1..5 rows with a few pixels changed), and
// sources moved next to INT32_MAX / INT32_MIN.
TEST(RegionsEngine, CombineEveryModeMatchesMaskAlgebra) {
    std::mt19937 rng(12345);
    for (int iter = 0; iter < 660; ++iter) {
        const bool lng = iter >= 600, full = iter < 90 || lng;  // full: every query on every result
        const int layout = (iter / 3) % 5, family = lng ? 3 : (iter + 1) % 3;  // rectangle sets first
        Shape a, b;
        if (lng) {
            Mask ma = longRows(rng, iter % 3), mb = longRows(rng, iter % 3);
            const int dy = in(rng, 1, 5);
            for (int y = kLong.y0; iter % 3 == 2 && y < kLong.y0 + kLong.h; ++y)
                for (int x = kLong.x0; x < kLong.x0 + kLong.w; ++x)
                    mb.set(x, y, ma.get(x, y - dy) != (x % 17 == 0 && y % 5 == 0));
            a = Shape{rgntest::regionOfMask(ma), ma, "long"}, b = Shape{rgntest::regionOfMask(mb), mb, "long"};
        } else if (family == 1) {
            a = rectsShape(rng, layout == 3 ? 0 : 1 + int(rng() % 120), 0, 0);
            const int n = layout == 4 ? 0 : 1 + int(rng() % 120), dx = layout == 2 ? 81 : int(rng() % 2);
            b = rectsShape(rng, n, dx, layout == 1 ? 110 : int(rng() % 2));
        } else {
            a = family ? bandedShape(rng) : apiShape(rng), b = family ? bandedShape(rng) : apiShape(rng);
        }
        if (family == 2 && iter % 10 == 2) DeleteObject(b.h), b = Shape{rgntest::regionOfMask(a.m), a.m, "same"};
        for (const Shape* x : {&a, &b}) {
            if (full || family == 0) expectMatches(x->h, x->m, "source " + x->what + " " + std::to_string(iter));
            else ASSERT_TRUE(maskOf(x->h, x->m) == x->m) << x->what;
        }
        // Moved to the ends of the range: the same pixels moved.
        const bool edge = (lng || !full) && iter % 2;
        const int32_t dx = iter % 4 == 1 ? INT32_MAX - (a.m.x0 + a.m.w) : INT32_MIN - a.m.x0, dy = INT32_MIN - a.m.y0;
        ASSERT_TRUE(!edge || (OffsetRgn(a.h, dx, dy) && OffsetRgn(b.h, dx, dy)));
        HRGN d = CreateRectRgn(1, 2, 3, 4);
        for (int k = 0; k < 5; ++k)
            for (int swap = 0; swap < (full ? 2 : 1); ++swap) {
                const Shape &x = swap ? b : a, &y = swap ? a : b;
                const Mask want = k == 4 ? x.m : x.m.combine(y.m, k);
                const std::string ctx = x.what + " op" + std::to_string(k) + " " + y.what + std::to_string(iter);
                const int kind = CombineRgn(d, x.h, y.h, kModes[k]);
                ASSERT_TRUE(krn::rgn::valid(payload(d))) << ctx;
                OrvaRgn *inPlace = nullptr, *pd = payload(d);
                ASSERT_EQ(K_CopyOrvaRgn(&inPlace, payload(x.h)), KS_SUCCESS);
                ASSERT_EQ(K_CombineOrvaRgn(&inPlace, inPlace, payload(y.h), kModes[k]), KS_SUCCESS);
                const std::vector<int32_t> runs(inPlace->pRunData, inPlace->pRunData + inPlace->uRunDataSize / 4);
                EXPECT_EQ(runs, std::vector<int32_t>(pd->pRunData, pd->pRunData + pd->uRunDataSize / 4)) << ctx;
                K_DeleteOrvaRgn(inPlace);
                ASSERT_TRUE(!edge || OffsetRgn(d, -dx, -dy));
                EXPECT_EQ(kind, want.kind()) << ctx;
                if (full) expectMatches(d, want, ctx);
                else ASSERT_TRUE(maskOf(d, want) == want) << ctx << " " << want.describeDiff(maskOf(d, want));
            }
        if (full && !edge) {  // the destination is also a source
            CombineRgn(d, a.h, a.h, RGN_COPY);
            CombineRgn(d, d, b.h, RGN_XOR);
            expectMatches(d, a.m.combine(b.m, 2), "in place xor");
            CombineRgn(d, d, d, RGN_DIFF);
            expectMatches(d, a.m.blank(), "d minus d");
        }
        for (HRGN h : {d, a.h, b.h}) DeleteObject(h);
    }
}

TEST(RegionsEngine, EllipseFollowsItsEquation) {
    std::mt19937 rng(99);
    for (int iter = 0; iter < 40; ++iter) {
        const RECT b = iter == 0 ? RECT{0, 0, 3000, 2000} : randomRect(rng);
        HRGN h = CreateEllipticRgn(b.left, b.top, b.right, b.bottom);
        ASSERT_TRUE(h && krn::rgn::valid(payload(h)));
        const double radius = std::max(std::abs(b.right - b.left), std::abs(b.bottom - b.top)) / 2.0;
        const double band = 0.15 + radius * 3e-4;  // flattening plus the cubic's own error
        const int step = iter == 0 ? 7 : 1;
        int checked = 0;
        for (int y = std::min(b.top, b.bottom) - 2; y < std::max(b.top, b.bottom) + 2; y += step)
            for (int x = std::min(b.left, b.right) - 2; x < std::max(b.left, b.right) + 2; x += step) {
                const int cls = rgntest::ellipseClass(b, x, y, band);
                checked += cls != 0;
                ASSERT_TRUE(cls == 0 || PtInRegion(h, x, y) == (cls > 0 ? 1 : 0))
                    << "box " << b.left << "," << b.top << "," << b.right << "," << b.bottom << " at " << x << "," << y;
            }
        if (iter == 0) {  // the four extreme pixels of the big one
            EXPECT_GT(checked, 100000);
            for (POINT p : {POINT{1500, 0}, POINT{1500, 1999}, POINT{0, 1000}, POINT{2999, 1000}})
                EXPECT_EQ(PtInRegion(h, p.x, p.y), 1);
        }
        DeleteObject(h);
    }
}

// A null destination receives a new region; an existing one is replaced in place (its blocks and placement words kept),
// also when it is a source; the point test reports the run it hits, -1 / -1 outside. Empty rows inside a region have
// their 8-byte index entry but are not exported.
TEST(RegionsEngine, KernelCombineIdentityRunsAndExtremes) {
    RECT ra{0, 0, 50, 40}, rb{30, 20, 90, 70}, bb, wantBox{0, 0, 90, 70};
    OrvaRgn *a = nullptr, *b = nullptr, *d = nullptr;
    ASSERT_EQ(K_CreateOrvaRgnRect(&a, &ra) | K_CreateOrvaRgnRect(&b, &rb), KS_SUCCESS);
    ASSERT_EQ(K_CombineOrvaRgn(&d, a, b, RGN_OR), KS_SUCCESS);
    ASSERT_TRUE(d && krn::rgn::area(d) == 50u * 40u + 60u * 50u - 20u * 20u);
    OrvaRgn* same = d;
    d->nPlacement[0] = 77;
    ASSERT_EQ(K_CombineOrvaRgn(&d, a, b, RGN_XOR), KS_SUCCESS);
    EXPECT_TRUE(d == same && d->nPlacement[0] == 77 && krn::rgn::area(d) == 50u * 40u + 60u * 50u - 2u * 20u * 20u);
    int32_t x[4] = {};
    EXPECT_TRUE(K_IsPtInOrvaRgn(d, 60, 25, &x[0], &x[1]) == 1 && K_IsPtInOrvaRgn(d, 35, 25, &x[2], &x[3]) == 0);
    EXPECT_EQ(std::vector<int32_t>(x, x + 4), std::vector<int32_t>({50, 90, -1, -1}));
    EXPECT_TRUE(K_GetOrvaRgnBounds(d, &bb) == KS_SUCCESS && EqualRect(&bb, &wantBox));
    EXPECT_TRUE(K_CombineOrvaRgn(&a, a, b, RGN_DIFF) == KS_SUCCESS && krn::rgn::area(a) == 50u * 40u - 20u * 20u);
    EXPECT_EQ(K_CombineOrvaRgn(&d, a, nullptr, RGN_OR), KS_INVALID_PARAMETER);
    EXPECT_TRUE(K_CombineOrvaRgn(&d, a, b, 6) == KS_INVALID_PARAMETER && K_OffsetOrvaRgn(a, 0, 0) == KS_SUCCESS);
    for (OrvaRgn* o : {a, b, d}) K_DeleteOrvaRgn(o);
    HRGN ha = CreateRectRgn(0, 0, 10, 2), hb = CreateRectRgn(5, 6, 8, 8), hd = CreateRectRgn(0, 0, 0, 0);
    EXPECT_EQ(CombineRgn(hd, ha, hb, RGN_OR), COMPLEXREGION);  // rows 2..5 empty: indexed, not exported
    EXPECT_TRUE(payload(hd)->uRowIndexSize == 8u * 8u && GetRegionData(hd, 0, nullptr) == 32u + 16u * 4u);
    for (HRGN o : {ha, hb, hd}) DeleteObject(o);
    // SetRectRgn releases the old blocks, keeps the placement words (so do copies, offsets and combines into the
    // handle, also as a source); an offset moves every pixel or, leaving the 32-bit range, is refused.
    HRGN h = CreateEllipticRgn(0, 0, 30, 20), other = CreateRectRgn(20, 20, 25, 25);
    payload(h)->nPlacement[3] = 1234;
    const long live = krn::faultinject::liveBlocks();
    EXPECT_TRUE(SetRectRgn(h, 5, 5, 1, 1) && krn::faultinject::liveBlocks() == live && OffsetRgn(h, 7, -5) == 1);
    EXPECT_TRUE(OffsetRgn(h, INT32_MAX, 0) == 0 && payload(h)->nPlacement[3] == 1234);
    expectMatches(h, rgntest::rectMask(kWin, {{8, -4, 12, 0}}), "SetRectRgn and OffsetRgn");
    OrvaRgn *c = nullptr, *nul = reinterpret_cast<OrvaRgn*>(1);
    EXPECT_TRUE(K_CopyOrvaRgn(&c, payload(h)) == KS_SUCCESS && c->nPlacement[3] == 1234 && K_DeleteOrvaRgn(c) == 1);
    EXPECT_TRUE(K_CopyOrvaRgn(&nul, nullptr) == KS_SUCCESS && nul == nullptr);
    EXPECT_TRUE(CombineRgn(h, h, other, RGN_OR) == COMPLEXREGION && payload(h)->nPlacement[3] == 1234);
    for (HRGN x : {other, h}) DeleteObject(x);
    // Extremes: taller than the engine's limit: refused, nothing leaks. Very wide but short polygons are exact; offsets
    // that overflow are refused; a short region far down scales like any other (the row limit is on its height).
    const long before = krn::faultinject::liveBlocks();
    POINT tall[3] = {{0, INT32_MIN}, {INT32_MAX, INT32_MAX}, {INT32_MIN, 0}};
    POINT wide[3] = {{INT32_MIN, 0}, {INT32_MAX, 0}, {0, 4}};
    EXPECT_TRUE(!CreateRectRgn(INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX) && !CreatePolygonRgn(tall, 3, WINDING));
    EXPECT_EQ(krn::faultinject::liveBlocks(), before);
    HRGN w = CreatePolygonRgn(wide, 3, ALTERNATE);
    ASSERT_TRUE(w && krn::rgn::valid(payload(w)) && payload(w)->rcBounds.top == 0 && payload(w)->rcBounds.bottom == 4);
    int32_t x1, x2;  // row 0's centre line y = 0.5 crosses the left edge at INT32_MIN * 7/8
    EXPECT_EQ(K_IsPtInOrvaRgn(payload(w), 0, 0, &x1, &x2), 1);
    EXPECT_NEAR(double(x1), double(INT32_MIN + int64_t(-int64_t(INT32_MIN)) / 8), 1.0);
    DeleteObject(w);
    OrvaRgn *o = nullptr, *f = nullptr;
    RECT rc{INT32_MAX - 10, 0, INT32_MAX, 2}, farDown{0, 1 << 30, 4, (1 << 30) + 3};
    ASSERT_EQ(K_CreateOrvaRgnRect(&o, &rc) | K_CreateOrvaRgnRect(&f, &farDown), KS_SUCCESS);
    EXPECT_TRUE(K_OffsetOrvaRgn(o, 11, 0) == KS_INVALID_PARAMETER && K_OffsetOrvaRgn(o, 10, 0) == KS_INVALID_PARAMETER);
    EXPECT_TRUE(o->rcBounds.right == INT32_MAX && K_OffsetOrvaRgn(o, -10, 5) == KS_SUCCESS && o->rcBounds.top == 5);
    EXPECT_TRUE(K_ScaleOrvaRgn(f, 2, 1, 1, 1) == KS_SUCCESS && krn::rgn::area(f) == 8u * 3u);
    K_DeleteOrvaRgn(f), K_DeleteOrvaRgn(o);
}

// A perspective change that fails part way (an allocation in any of its steps) leaves the region exactly as it was; a
// success undoes exactly.
TEST(RegionsEngine, FailedPerspectiveChangeLeavesTheRegion) {
    OrvaRgn *a = nullptr, *b = nullptr;
    RECT ra{2, 1, 9, 4}, rb{5, 3, 7, 12};
    ASSERT_EQ(K_CreateOrvaRgnRect(&a, &ra) | K_CreateOrvaRgnRect(&b, &rb) | K_CombineOrvaRgn(&a, a, b, RGN_XOR), 1);
    auto dump = [](const OrvaRgn* r) {
        std::vector<int32_t> v(r->pRunData, r->pRunData + r->uRunDataSize / 4u);
        return v.insert(v.end(), &r->rcBounds.left, &r->rcBounds.left + 4), v;
    };
    const std::vector<int32_t> before = dump(a);
    int failures = 0;
    for (int32_t to = 2; to <= 8; ++to)
        for (long n = 0; n < 12; ++n, ++failures) {
            krn::faultinject::arm(n, 1);
            const int32_t st = krn::rgn::perspective(a, 1, to, 10, 12);
            krn::faultinject::disarm();
            const int w = to >= 5 ? 12 : 10;
            ASSERT_TRUE(st != KS_SUCCESS || krn::rgn::perspective(a, to, 1, w, 22 - w) == KS_SUCCESS);
            ASSERT_TRUE(krn::rgn::valid(a) && dump(a) == before) << "to " << to << " failing allocation " << n;
            if (st == KS_SUCCESS) break;
        }
    EXPECT_GT(failures, 7);
    K_DeleteOrvaRgn(a), K_DeleteOrvaRgn(b);
}

// Dead, foreign, wild and null handles give 0 and errno 22 everywhere and change nothing; palettes go through GetObject
// and DeleteObject.
TEST(RegionsEngine, BadHandlesGiveZeroAndErrno22) {
    HRGN good = CreateRectRgn(0, 0, 5, 5), dead = CreateRectRgn(0, 0, 5, 5), d = CreateRectRgn(1, 1, 3, 3);
    DeleteObject(dead);
    HGLOBAL mem = K_GlobalAlloc(GMEM_MOVEABLE, 16);  // a live handle of another kind
    int local = 0;
    auto* logpal = static_cast<uint16_t*>(krn::memCalloc(4 + 4 * 16));
    logpal[0] = 0x300, logpal[1] = 16;
    HGDIOBJ pal = krn::objCreate(krn::kObjPalette, logpal);
    WORD w = 0;
    EXPECT_TRUE(pal && GetObject(pal, 2, &w) == 2 && w == 16);
    for (HRGN b : {HRGN(nullptr), HRGN(~uintptr_t(0)), dead, HRGN(mem), reinterpret_cast<HRGN>(&local)}) {
        RECT r{};
        OrvaRgn* o = nullptr;
#define CALL(e) std::pair<const char*, std::function<long()>>{#e, [&] { return long(e); }}
        const std::pair<const char*, std::function<long()>> calls[] = {
            CALL(CombineRgn(b, good, good, RGN_OR)), CALL(CombineRgn(good, b, good, RGN_OR)),
            CALL(CombineRgn(good, good, b, RGN_COPY)), CALL(OffsetRgn(b, 1, 1)), CALL(GetRgnBox(b, &r)),
            CALL(GetRegionData(b, 0, nullptr)), CALL(PtInRegion(b, 0, 0)), CALL(SetRectRgn(b, 0, 0, 1, 1)),
            CALL(DeleteObject(b)), CALL(GetObject(b, 2, &w)), CALL(GetObject(good, 2, &w)),  // a region: no palette
            CALL(K_WinDeleteObject(b)), CALL(K_ConvertHandleToRgn(b, &o) - KS_INVALID_PARAMETER)};
#undef CALL
        for (const auto& [what, call] : calls) EXPECT_TRUE((errno = 0, call() == 0) && errno == 22) << what;
    }
    EXPECT_EQ(CombineRgn(d, good, good, 6), 0);  // not a Win32 mode
    EXPECT_NE(K_GlobalLock(mem), nullptr);  // the global block is still alive, the regions untouched
    K_GlobalUnlock(mem), K_GlobalFree(mem);
    EXPECT_TRUE(PtInRegion(d, 2, 2) == 1 && PtInRegion(d, 4, 4) == 0 && PtInRegion(good, 4, 4) == 1);
    const long before = krn::faultinject::liveBlocks();
    EXPECT_TRUE(DeleteObject(pal) == 1 && krn::faultinject::liveBlocks() == before - 2);  // handle and payload
    for (HRGN h : {d, good}) EXPECT_EQ(DeleteObject(h), 1);
    RECT rc{0, 0, 1, 1};  // kernel operations refuse null arguments
    for (int32_t st : {K_CreateOrvaRgnRect(nullptr, &rc), K_DeleteOrvaRgn(nullptr), K_OffsetOrvaRgn(nullptr, 1, 1),
                       K_ClipOrvaRgnRect(nullptr, &rc), K_IsPtInOrvaRgn(nullptr, 0, 0, nullptr, nullptr),
                       K_SegmentsToRegion(nullptr, nullptr, nullptr, 0, 0)})
        EXPECT_EQ(st, KS_INVALID_PARAMETER);
}

// Every allocation of each call fails in turn: the call fails cleanly, leaks nothing and leaves the destination byte
// for byte as it was; a call that succeeds despite a failure (a failed shrink) gives the right region.
TEST(RegionsEngine, AllocationFailureWalk) {
    HRGN a = CreateEllipticRgn(0, 0, 200, 150), b = CreateEllipticRgn(50, 20, 250, 200), d = CreateRectRgn(1, 2, 3, 4);
    std::mt19937 rng(3);
    Shape ba = bandedShape(rng), bb = bandedShape(rng);
    while (ba.m.count() == 0 || bb.m.count() == 0 || ba.m.kind() != COMPLEXREGION) {
        for (HRGN h : {ba.h, bb.h}) DeleteObject(h);
        ba = bandedShape(rng), bb = bandedShape(rng);
    }
    const std::vector<uint8_t> data = rgntest::regionData(b), old = rgntest::regionData(d);
    POINT star[5] = {{50, 0}, {80, 100}, {0, 35}, {100, 35}, {20, 100}};
    auto into = [&](int r) { return r ? d : nullptr; };  // the region made, or d when the call succeeded into d
    std::vector<std::pair<const char*, std::function<HRGN()>>> calls = {
        {"CombineRgn ellipses xor", [&] { return into(CombineRgn(d, a, b, RGN_XOR)); }},
        {"CreatePolygonRgn", [&] { return CreatePolygonRgn(star, 5, WINDING); }},
        {"CreateEllipticRgn", [&] { return CreateEllipticRgn(-5, -5, 300, 120); }},
        {"ExtCreateRegion", [&] { return ExtCreateRegion(nullptr, uint32_t(data.size()), (RGNDATA*)data.data()); }},
        {"SetRectRgn", [&] { return into(SetRectRgn(d, 0, 0, 1000, 1000)); }},
    };
    HRGN la = rgntest::regionOfMask(longRows(rng, 1)), lb = rgntest::regionOfMask(longRows(rng, 0));
    for (int mode : {RGN_AND, RGN_OR, RGN_XOR, RGN_DIFF}) {
        calls.push_back({"CombineRgn banded", [&, mode] { return into(CombineRgn(d, ba.h, bb.h, mode)); }});
        calls.push_back({"CombineRgn long rows", [&, mode] { return into(CombineRgn(d, la, lb, mode)); }});
    }
    auto drop = [&](HRGN h) { h == d ? void(SetRectRgn(d, 1, 2, 3, 4)) : void(DeleteObject(h)); };
    for (const auto& call : calls) {
        const auto& what = call.first;  // plain names: clang 14 cannot capture structured bindings in lambdas
        const auto& run = call.second;
        const HRGN clean = run();  // the reference result
        ASSERT_NE(clean, nullptr) << what;
        const std::vector<uint8_t> want = rgntest::regionData(clean);
        drop(clean);
        const int failures = tkit::allocationWalk([&](tkit::Armed& armed) {  // a failure leaks nothing
            HRGN made = nullptr;
            if (armed([&] { return (made = run()) ? KS_SUCCESS : KS_NO_MEMORY; }) != KS_SUCCESS) {
                EXPECT_GT(armed.injected, 0) << what << " failed without an injected fault";
                EXPECT_EQ(rgntest::regionData(d), old) << what << " changed the destination, failure " << armed.n;
            } else {
                EXPECT_EQ(rgntest::regionData(made), want) << what << " failure " << armed.n;
                drop(made);
            }
        });
        EXPECT_GT(failures, 0) << "no failure was provoked: " << what;
    }
    for (HRGN h : {a, b, d, ba.h, bb.h, la, lb}) DeleteObject(h);
    // The kernel combine into an existing region keeps it, blocks and all.
    RECT ra{0, 0, 50, 40}, rb{30, 20, 90, 70}, rc{5, 5, 6, 6};
    OrvaRgn *ka = nullptr, *kb = nullptr, *small = nullptr;
    ASSERT_EQ(K_CreateOrvaRgnRect(&ka, &ra) | K_CreateOrvaRgnRect(&kb, &rb) | K_CreateOrvaRgnRect(&small, &rc), 1);
    tkit::allocationWalk([&](tkit::Armed& armed) {
        if (armed([&] { return K_CombineOrvaRgn(&small, ka, kb, RGN_OR); }) == KS_SUCCESS) return;
        EXPECT_TRUE(armed.injected && krn::rgn::valid(small) && krn::rgn::area(small) == 1u);
        EXPECT_EQ(K_IsPtInOrvaRgn(small, 5, 5, nullptr, nullptr), 1);
    }, 1, true);
    for (OrvaRgn* x : {ka, kb, small}) K_DeleteOrvaRgn(x);
}

}  // namespace
