// test_regions_bitmap.cpp - bitmap regions against the boolean-mask model: every setter and combine mode, the region
// transform in all 64 perspective pairs, readers, mirrors, filling through the region on every depth and storage kind,
// masks and colour regions.
#include <gtest/gtest.h>

#include "check_list.h"
#include "combine_reference.h"
#include "regions_mask.h"
#include "transform_kit.h"

using rgntest::Mask;
using storagetest::getPixel;

namespace {

struct Bitmap : tkit::Bitmap {
    Bitmap(int w, int h, int bpp, int vp = TOP_LEFT, int order = ORDER_BGR) : tkit::Bitmap(w, h, bpp, order, vp) {}
    uint8_t* access() { return K_AccessBitmap(&bm) == KS_SUCCESS ? bm.pData : nullptr; }  // rows until release()
    void release() { K_ReleaseBitmap(&bm); }
    uint8_t* row(int y) { return bm.pData + size_t(y) * bm.nBytesPerLine; }
    uint64_t area() { uint64_t a = ~0ull; return K_GetBitmapRgnArea(&bm, &a) == KS_SUCCESS ? a : ~1ull; }
    int32_t dataSize() { return K_GetBitmapRgnData(&bm, nullptr, 0, nullptr); }
};

// The bitmap's region as a mask over the window, read three ways that must agree (points, clip segments, area and
// bounds).
Mask bitmapMask(const Mask& win, BITMAPRECORD* bm) {
    Mask byPoint = win.blank(), bySeg = win.blank();
    uint32_t mx = 0;
    EXPECT_EQ(K_GetBitmapClipSegmentsMax(bm, &mx), KS_SUCCESS);
    std::vector<int32_t> segs(mx + 2, 0x7777);
    for (int y = win.y0; y < win.y0 + win.h; ++y) {
        for (int x = win.x0; x < win.x0 + win.w; ++x) byPoint.set(x, y, K_IsPtInBitmapRgn(bm, y, x) == 1);
        uint32_t n = 99;
        EXPECT_TRUE(K_GetBitmapClipSegments(bm, y, segs.data(), &n) == KS_SUCCESS && n <= mx && n % 2 == 0) << n;
        for (uint32_t i = 0; i + 1 < n; i += 2) {
            EXPECT_TRUE(segs[i] < segs[i + 1] && (i == 0 || segs[i - 1] < segs[i]));  // sorted, not touching
            for (int x = segs[i]; x < segs[i + 1]; ++x) bySeg.set(x, y, true);
        }
    }
    EXPECT_TRUE(byPoint == bySeg) << byPoint.describeDiff(bySeg);
    if (!(bm->uFlags & BRF_UNCLIPPED_RGN)) {
        uint64_t area = 0;
        RECT box, mb = byPoint.bounds();
        EXPECT_TRUE(K_GetBitmapRgnArea(bm, &area) == KS_SUCCESS && area == byPoint.count());
        EXPECT_EQ(K_GetBitmapRgnBounds(bm, nullptr, &box), KS_SUCCESS);
        EXPECT_TRUE(!K_BitmapHasRgn(bm) || EqualRect(&box, &mb));
    }
    return byPoint;
}

std::vector<uint8_t> bitmapRgnData(BITMAPRECORD* bm) {
    std::vector<uint8_t> d(size_t(std::max(0, K_GetBitmapRgnData(bm, nullptr, 0, nullptr))));
    EXPECT_EQ(K_GetBitmapRgnData(bm, nullptr, int32_t(d.size()), (RGNDATA*)d.data()), int32_t(d.size()));
    return d;
}

// Modes: 0 and, 1 set, 2 new minus current, 3 current minus new, 4 or, 5 xor, 6 the bitmap minus new; the result
// clipped to the bitmap. A random 1-bit mask (fixed palette: index 1 is white) and the colour region of a 24-bit
// picture of four colours are among the sources.
TEST(RegionsBitmap, EverySetterAndModeMatchesMaskAlgebra) {
    const int W = 90, H = 70, op[6] = {0, -1, 4, 3, 1, 2};
    const Mask win(-20, -20, 130, 130), full = rgntest::rectMask(win, {{0, 0, W, H}});  // the window covers all
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int> c(-15, 100);
    Bitmap bmp(W, H, 8), mask1(W, H, 1), pic(W, H, 24);
    Mask maskWhite = win.blank(), picRed = win.blank();
    const uint32_t colours[4] = {0x0000FF, 0x00FF00, 0xFF0000, 0x123456};
    mask1.access(), pic.access();
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const bool white = ((x / 7 + y / 5) % 3 == 0) || rng() % 11 == 0;
            const int k = (x / 9 + y / 4 + int(rng() % 2)) % 4;
            storagetest::setPixel(mask1.row(y), x, 1, white), maskWhite.set(x, y, white);
            storagetest::setPixel(pic.row(y), x, 24, colours[k]), picRed.set(x, y, k == 0);  // R in the third byte
        }
    mask1.release(), pic.release();
    Mask cur = full;  // without a region the whole bitmap stands for it
    for (int step = 0; step < 120; ++step) {
        if (step % 9 == 4) cur = K_FreeBitmapRgn(&bmp.bm) == KS_SUCCESS ? full : win.blank();
        const uint32_t mode = rng() % 7, kind = rng() % 7;
        RECT r{c(rng), c(rng), c(rng), c(rng)};
        Mask nw = win.blank();
        int32_t rc = 0;
        HRGN given = nullptr;  // a region given through a handle
        bool ok = true;
        if (kind == 0) {
            if (r.left > r.right) std::swap(r.left, r.right);
            if (r.top > r.bottom) std::swap(r.top, r.bottom);
            nw = rgntest::rectMask(win, {r});
            rc = K_SetBitmapRgnRect(&bmp.bm, nullptr, &r, mode);
        } else if (kind == 1) {  // the shapes' coordinates keep them inside the window
            HRGN e = CreateEllipticRgn(r.left, r.top, r.right, r.bottom);
            nw = rgntest::maskOfHandle(win, e, &ok);
            DeleteObject(e);
            rc = K_SetBitmapRgnEllipse(&bmp.bm, nullptr, &r, mode);
        } else if (kind == 2) {
            std::vector<POINT> pts(size_t(3 + rng() % 6));
            for (auto& p : pts) p = POINT{c(rng), c(rng)};
            const bool wind = rng() & 1;
            nw = rgntest::polygonMask(win, pts, {0}, wind);
            rc = K_SetBitmapRgnPolygon(&bmp.bm, nullptr, pts.data(), uint32_t(pts.size()), wind ? 2 : 1, mode);
        } else if (kind == 3) {  // region data of two rectangles
            given = rgntest::regionOfRects({r, RECT{c(rng), c(rng), c(rng), c(rng)}});
            nw = rgntest::maskOfHandle(win, given, &ok);
            const std::vector<uint8_t> data = rgntest::regionData(given);
            if (data.size() > 32) {
                rc = K_SetBitmapRgnData(&bmp.bm, nullptr, int32_t(data.size()), (const RGNDATA*)data.data(), mode);
                DeleteObject(given), given = nullptr;
            }
        } else if (kind == 4) {
            nw = maskWhite;
            rc = K_SetBitmapRgnFromMask(&bmp.bm, nullptr, &mask1.bm, mode);
        } else if (kind == 5) {  // the colour region of the picture
            ASSERT_EQ(K_SetBitmapRgnColor(&pic.bm, 0x0000FF, 1) | K_GetBitmapRgnHandle(&pic.bm, nullptr, &given), 1);
            nw = picRed;
        } else {  // an arbitrary pixel set
            for (int y = r.top - 10; y < r.top + 10; ++y)
                for (int x = r.left - 10; x < r.left + 10; ++x) nw.set(x, y, (x ^ y) & 4);
            given = rgntest::regionOfMask(nw);
        }
        ASSERT_TRUE(ok) << kind;
        if (given) rc = K_SetBitmapRgnHandle(&bmp.bm, nullptr, given, mode), DeleteObject(given);
        ASSERT_EQ(rc, KS_SUCCESS) << kind;
        cur = (mode == 1 ? nw : mode == 6 ? full.combine(nw, 3) : cur.combine(nw, op[mode])).combine(full, 0);
        const Mask got = bitmapMask(win, &bmp.bm);
        ASSERT_TRUE(got == cur) << step << " kind " << kind << " mode " << mode << " " << got.describeDiff(cur);
        if (step % 10 == 0) {  // the mask made from the region has the same pixels
            BITMAPRECORD mk;
            ASSERT_EQ(K_CreateMaskFromBitmapRgn(&bmp.bm, &mk, BITMAPRECORD_SIZE), KS_SUCCESS);
            EXPECT_TRUE(mk.nBitsPerPixel == 1 && K_BitmapHasRgn(&mk) == 0 && K_AccessBitmap(&mk) == KS_SUCCESS);
            for (int y = 0; y < H; ++y)
                for (int x = 0; x < W; ++x) ASSERT_EQ(getPixel(mk.pData + y * mk.nBytesPerLine, x, 1), cur.get(x, y));
            K_ReleaseBitmap(&mk), K_FreeBitmap(&mk);
        }
    }
}

// Edge cases and data sizes; refused arguments (no refused call sets a region).
TEST(RegionsBitmap, EdgeCasesSizesAndArgumentChecks) {
    Bitmap b(40, 30, 8), m(100, 60, 8), b10(10, 10, 8), fl(4, 4, 32);
    uint32_t mx = 0, n = 0;
    int32_t segs[2];
    uint64_t a;
    RECT r{5, 5, 16, 9}, empty{3, 3, 3, 3}, out{100, 100, 120, 120}, r2{20, 6, 25, 7};
    RGNXFORM zeroNum{1, 0, 1, 0, 1, 0, 0};  // a zero scale numerator shrinks everything to nothing
    RGNXFORM badVp{9, 1, 1, 1, 1, 0, 0}, zeroX{1, 1, 0, 1, 1, 0, 0}, zeroY{1, 1, 1, 1, 0, 0, 0};
    std::vector<uint8_t> junk(40, 0);
    BITMAPRECORD unalloc, bad = b10.bm;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 10, 10, 8);
    bad.uStructSize = 100;
    fl.bm.uFlags |= 0x100000u;  // float samples
    const int32_t S = KS_SUCCESS, P = KS_INVALID_PARAMETER, B = KS_INVALID_BITMAP, Z = KS_INVALID_STRUCT_SIZE;
    checklist::expectAll({
        IS(K_GetBitmapClipSegmentsMax(&b.bm, &mx), S), IS(mx, 2),
        IS(K_SetBitmapRgnRect(&b.bm, nullptr, &r, 0), S),  // AND with the whole bitmap
        IS(K_GetBitmapClipSegmentsMax(&b.bm, &mx), S), IS(mx, 12), IS(b.area(), 44),  // 11 wide
        IS(K_SetBitmapRgnRect(&b.bm, nullptr, &empty, 6), S), IS(b.area(), 1200),  // the bitmap minus nothing
        IS(K_SetBitmapRgnRect(&b.bm, nullptr, &empty, 1), S),  // an empty region is a region
        IS(K_BitmapHasRgn(&b.bm), 1), IS(b.area(), 0), IS(b.dataSize(), 32),
        IS(K_SetBitmapRgnData(&b.bm, nullptr, 0, nullptr, 4), S),  // data of size 0 removes it
        IS(K_BitmapHasRgn(&b.bm), 0), IS(b.dataSize(), 0),
        IS(K_SetBitmapRgnRect(&b.bm, nullptr, &out, 1), S), IS(b.area(), 0),  // wholly outside: empty
        // Region data sizes: 48 for a simple region, 16 * (runs + 2) otherwise.
        IS(K_SetBitmapRgnRect(&b.bm, nullptr, &r, 1), S), IS(b.dataSize(), 48),
        IS(K_SetBitmapRgnRect(&b.bm, nullptr, &r2, 4), S), IS(bitmapRgnData(&b.bm).size(), 16 * (4 + 1 + 2)),
        IS(K_GetBitmapRgnData(&b.bm, nullptr, -1, nullptr), KS_INVALID_PARAMETER),
        IS(K_SetBitmapRgnHandle(&b.bm, nullptr, nullptr, 3), S), IS(K_BitmapHasRgn(&b.bm), 0),  // a null handle frees
        // Without region: clip segments (0, width) for rows inside, none outside.
        IS(K_GetBitmapClipSegments(&b.bm, 3, segs, &n), S), IS(n, 2), IS(segs[1], 40),
        IS(K_GetBitmapClipSegments(&b.bm, 30, segs, &n), S), IS(n, 0),  // one row past the bottom
        IS(K_IsPtInBitmapRgn(&b.bm, 29, 39), 1), IS(K_IsPtInBitmapRgn(&b.bm, 30, 39), 0),
        IS(K_SetBitmapRgnRect(&b.bm, &zeroNum, &r, 1), S), IS(b.area(), 0)});
    checklist::expectAll({
        IS(K_SetBitmapRgnRect(nullptr, nullptr, &r, 1), B), IS(K_SetBitmapRgnRect(&b10.bm, nullptr, nullptr, 1), P),
        IS(K_SetBitmapRgnRect(&b10.bm, nullptr, &r, 7), P), IS(K_SetBitmapRgnRect(&b10.bm, &badVp, &r, 1), P),
        IS(K_SetBitmapRgnEllipse(&b10.bm, &zeroX, &r, 1), P), IS(K_SetBitmapRgnPolygon(&b10.bm, &zeroY, 0, 0, 0, 1), P),
        IS(K_SetBitmapRgnData(&b10.bm, nullptr, -1, nullptr, 1), P),
        IS(K_SetBitmapRgnData(&b10.bm, nullptr, 40, reinterpret_cast<RGNDATA*>(junk.data()), 1), KS_NO_MEMORY),
        IS(K_SetBitmapRgnFromMask(&b10.bm, nullptr, &unalloc, 1), P),
        IS(K_SetBitmapRgnFromMask(&b10.bm, nullptr, &fl.bm, 1), KS_FLOAT_NOT_SUPPORTED),
        IS(K_FillBitmap(&fl.bm, 0), KS_FLOAT_NOT_SUPPORTED), IS(K_SetBitmapRgnRect(&bad, nullptr, &r, 1), Z),
        IS(K_FreeBitmapRgn(&bad), Z), IS(K_FreeBitmapRgn(nullptr), P), IS(K_BitmapHasRgn(&bad), 0),
        IS(K_BitmapHasRgn(nullptr), 0), IS(K_IsPtInBitmapRgn(nullptr, 0, 0), 0), IS(K_IsPtInBitmapRgn(&bad, 0, 0), 0),
        IS(K_GetBitmapRgnArea(nullptr, &a), B), IS(K_GetBitmapRgnArea(&bad, &a), Z),
        IS(K_GetBitmapRgnArea(&b10.bm, nullptr), P), IS(K_GetBitmapRgnBounds(nullptr, nullptr, &r), B),
        IS(K_GetBitmapRgnBounds(&b10.bm, nullptr, nullptr), B), IS(K_CopyBitmapRgn(nullptr, &b10.bm, 0, 0), P),
        IS(K_BitmapHasRgn(&b10.bm), 0)});
    fl.bm.uFlags &= ~0x100000u;
    // Bounds mapped out: halved then moved; left/right round up, top/bottom up in perspective 1 and down after a half
    // turn (turned: 69, 27, 90, 49); no region: the bitmap.
    RECT mr{10, 11, 31, 33}, o, whole{0, 0, 100, 60};
    EXPECT_TRUE(K_GetBitmapRgnBounds(&m.bm, nullptr, &o) == KS_SUCCESS && EqualRect(&o, &whole));
    ASSERT_EQ(K_SetBitmapRgnRect(&m.bm, nullptr, &mr, 1), KS_SUCCESS);
    RGNXFORM xf{1, 1, 2, 1, 2, 5, 7};
    const RECT want[2] = {{5 + 5, 6 + 7, 16 + 5, 17 + 7}, {35 + 5, 13 + 7, 45 + 5, 24 + 7}};
    for (int k = 0; k < 2; ++k, xf.nViewPerspective = 3)
        EXPECT_TRUE(K_GetBitmapRgnBounds(&m.bm, &xf, &o) == KS_SUCCESS && EqualRect(&o, &want[k]))
            << k << ": " << o.left << "," << o.top << "," << o.right << "," << o.bottom;
}

// Every allocation of a setter fails in turn: the old region stays byte for byte and nothing leaks; a bad mode frees
// nothing of the caller's; a replaced region and the region of a freed bitmap are released.
TEST(RegionsBitmap, FailedSettersChangeNothingAndLeakNothing) {
    Bitmap b(120, 90, 8);
    RECT e{-10, 5, 100, 80};
    ASSERT_EQ(K_SetBitmapRgnEllipse(&b.bm, nullptr, &e, 1), KS_SUCCESS);
    const std::vector<uint8_t> before = bitmapRgnData(&b.bm);
    POINT tri[3] = {{0, 0}, {119, 40}, {30, 89}};
    RGNXFORM xf{6, 3, 2, 2, 3, 4, -7};
    for (uint32_t mode = 0; mode <= 6; ++mode)
        tkit::allocationWalk([&](tkit::Armed& armed) {  // a failure is KS_NO_MEMORY and leaks nothing
            if (armed([&] { return K_SetBitmapRgnPolygon(&b.bm, &xf, tri, 3, ALTERNATE, mode); }) != KS_SUCCESS)
                EXPECT_EQ(bitmapRgnData(&b.bm), before) << "mode " << mode << " n " << armed.n;
            else ASSERT_EQ(K_SetBitmapRgnEllipse(&b.bm, nullptr, &e, 1), KS_SUCCESS);
        });
    long live = krn::faultinject::liveBlocks();
    OrvaRgn* o = nullptr;
    RECT big{0, 0, 8, 8};
    EXPECT_TRUE(K_CreateOrvaRgnRect(&o, &big) == 1 && K_SetBitmapRgn(&b.bm, nullptr, o, 9) == KS_INVALID_PARAMETER);
    EXPECT_TRUE(krn::faultinject::liveBlocks() == live && bitmapRgnData(&b.bm) == before);  // o is not leaked
    ASSERT_EQ(K_SetBitmapRgnEllipse(&b.bm, nullptr, &e, 1), KS_SUCCESS);
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    BITMAPRECORD t;
    ASSERT_EQ(K_CreateBitmap(&t, BITMAPRECORD_SIZE, 1, 50, 50, 8, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    ASSERT_EQ(K_SetBitmapRgnEllipse(&t, nullptr, &e, 1), KS_SUCCESS);
    K_FreeBitmap(&t);
    EXPECT_TRUE(t.hRgn == nullptr && krn::faultinject::liveBlocks() == live);
}

// Where the viewed (top-left view) image's pixel (x, y) lands in the image stored in perspective vp.
POINT storedPos(int vp, int W, int H, int x, int y) {
    const POINT at[8] = {{x, y}, {W - 1 - x, y}, {W - 1 - x, H - 1 - y}, {x, H - 1 - y},
                         {y, x}, {y, W - 1 - x}, {H - 1 - y, W - 1 - x}, {H - 1 - y, x}};
    return at[vp - 1];
}

// The point and rectangle conversions agree with the orientation table (a one-pixel rectangle moves with its pixel).
// Caller coordinates go through offset, scale and the change of perspective: a bitmap pixel is in when its caller
// pixel, by the table and the nearest-neighbour scale rule, is in the caller's polygon.
TEST(RegionsBitmap, TransformInEveryPerspectivePair) {
    std::mt19937 rng(8);
    const int w = 37, h = 23;
    std::vector<POINT> pts = {{-3, 2}, {30, -4}, {41, 19}, {12, 30}, {5, 12}};
    const Mask caller = rgntest::polygonMask(Mask(-60, -60, 200, 200), pts, {0}, false);
    auto fdiv = [](int a, int d) { return a >= 0 ? a / d : -((-a + d - 1) / d); };
    for (int bvp = 1; bvp <= 8; ++bvp)
        for (int vp = 1; vp <= 8; ++vp) {
            const int sw = bvp >= 5 ? h : w, sh = bvp >= 5 ? w : h;  // stored size
            Bitmap b(sw, sh, 8, bvp), r1(sw, sh, 8, bvp), r2(sw, sh, 8, bvp);
            RGNXFORM xf{vp, 1 + int(rng() % 3), 1 + int(rng() % 2), 1 + int(rng() % 3), 1 + int(rng() % 2),
                        int(rng() % 7) - 3, int(rng() % 7) - 3};
            ASSERT_EQ(K_SetBitmapRgnPolygon(&b.bm, &xf, pts.data(), uint32_t(pts.size()), ALTERNATE, 1), KS_SUCCESS);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {  // a: stored in the bitmap's perspective, c: in the caller's
                    const POINT a = storedPos(bvp, w, h, x, y), c = storedPos(vp, w, h, x, y);
                    int px = a.x, py = a.y;
                    RECT r{a.x, a.y, a.x + 1, a.y + 1}, want{c.x, c.y, c.x + 1, c.y + 1};
                    SCOPED_TRACE(testing::Message() << "vp " << bvp << " caller " << vp << " at " << x << "," << y);
                    ASSERT_TRUE(K_ChangePointViewPerspective(bvp, sw, sh, vp, &px, &py) == 1 && px == c.x && py == c.y);
                    ASSERT_TRUE(K_ChangeRectViewPerspective(bvp, sw, sh, vp, &r) == KS_SUCCESS && EqualRect(&r, &want));
                    const int ux = fdiv(c.x * xf.nXScalarDen, xf.nXScalarNum) - xf.nXOffset;
                    const int uy = fdiv(c.y * xf.nYScalarDen, xf.nYScalarNum) - xf.nYOffset;
                    ASSERT_EQ(K_IsPtInBitmapRgn(&b.bm, a.y, a.x), caller.get(ux, uy) ? 1 : 0);
                }
            // Rectangles take the arithmetic path: same pixels as the region path.
            RECT rc{-2, 3, 25, 17};
            POINT quad[4] = {{rc.left, rc.top}, {rc.right, rc.top}, {rc.right, rc.bottom}, {rc.left, rc.bottom}};
            ASSERT_EQ(K_SetBitmapRgnRect(&r1.bm, &xf, &rc, 1), KS_SUCCESS);
            ASSERT_EQ(K_SetBitmapRgnPolygon(&r2.bm, &xf, quad, 4, ALTERNATE, 1), KS_SUCCESS);
            const Mask bw(-2, -2, sw + 4, sh + 4), m1 = bitmapMask(bw, &r1.bm), m2 = bitmapMask(bw, &r2.bm);
            ASSERT_TRUE(m1 == m2) << "bvp " << bvp << " vp " << vp << " " << m1.describeDiff(m2);
            // Mapping out: pixel q of a handle in the caller's perspective is in when the bitmap pixel it comes from
            // is; with the caller's scale and offset too, the same handle scaled, then moved.
            RGNXFORM id{vp, 1, 1, 1, 1, 0, 0};
            HRGN out = nullptr, scaled = nullptr;
            ASSERT_EQ(K_GetBitmapRgnHandle(&r1.bm, &id, &out), KS_SUCCESS);
            const int vw = (vp >= 5) == (bvp >= 5) ? sw : sh, vh = (vp >= 5) == (bvp >= 5) ? sh : sw;
            for (int y = 0; y < vh; ++y)
                for (int x = 0; x < vw; ++x) {
                    int bx = x, by = y;
                    K_ChangePointViewPerspective(vp, vw, vh, bvp, &bx, &by);
                    ASSERT_EQ(PtInRegion(out, x, y), m1.get(bx, by) ? 1 : 0) << bvp << "->" << vp;
                }
            OrvaRgn* want = nullptr;
            ASSERT_EQ(K_GetBitmapRgnHandle(&r1.bm, &xf, &scaled) | K_ConvertHandleToRgn(out, &want), KS_SUCCESS);
            ASSERT_EQ(K_ScaleOrvaRgn(want, xf.nXScalarNum, xf.nXScalarDen, xf.nYScalarNum, xf.nYScalarDen), KS_SUCCESS);
            ASSERT_EQ(K_OffsetOrvaRgn(want, xf.nXOffset, xf.nYOffset), KS_SUCCESS);
            for (int y = -5; y < 3 * vh + 5; ++y)
                for (int x = -5; x < 3 * vw + 5; ++x)
                    ASSERT_EQ(PtInRegion(scaled, x, y), K_IsPtInOrvaRgn(want, x, y, 0, 0)) << bvp << "->" << vp;
            K_DeleteOrvaRgn(want), DeleteObject(scaled), DeleteObject(out);
        }
}

TEST(RegionsBitmap, MovesMirrorsSizesAndCopies) {
    const int W = 50, H = 40;
    Bitmap b(W, H, 8), f(20, 10, 8), none(10, 10, 8), dst(30, 30, 8);
    POINT pts[4] = {{3, 2}, {40, 8}, {30, 35}, {8, 25}};
    ASSERT_EQ(K_SetBitmapRgnPolygon(&b.bm, nullptr, pts, 4, WINDING, 1), KS_SUCCESS);
    const Mask win(-5, -5, W + 10, H + 10), m0 = bitmapMask(win, &b.bm);
    const Mask m1 = K_FlipBitmapRgn(&b.bm) == KS_SUCCESS ? bitmapMask(win, &b.bm) : m0;
    const Mask m2 = K_ReverseBitmapRgn(&b.bm) == KS_SUCCESS ? bitmapMask(win, &b.bm) : m0;
    const Mask m3 = K_OffsetBitmapRgn(&b.bm, 6, -9) == KS_SUCCESS ? bitmapMask(win, &b.bm) : m0;  // clipped
    for (int y = -5; y < H + 5; ++y)
        for (int x = -5; x < W + 5; ++x) {
            const bool in = x >= 0 && x < W && y >= 0 && y < H;
            ASSERT_EQ(m1.get(x, y), in && m0.get(x, H - 1 - y));
            ASSERT_EQ(m2.get(x, y), in && m0.get(W - 1 - x, H - 1 - y));
            ASSERT_EQ(m3.get(x, y), in && m2.get(x + 9, y - 6)) << x << "," << y;
        }
    // Without a region: moved from the whole bitmap; scaled to nothing.
    EXPECT_TRUE(K_OffsetBitmapRgn(&f.bm, 3, 4) == KS_SUCCESS && f.area() == uint64_t(16 * 7));
    EXPECT_TRUE(K_SizeBitmapRgn(&f.bm, 0, 0) == KS_SUCCESS && f.area() == 0u);
    ASSERT_EQ(K_SizeBitmapRgn(&b.bm, 75, 20), KS_SUCCESS);  // nearest-neighbour scale by new : old
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 75; ++x) ASSERT_EQ(K_IsPtInBitmapRgn(&b.bm, y, x), m3.get(x * W / 75, y * H / 20) ? 1 : 0);
    EXPECT_TRUE(K_FlipBitmapRgn(&none.bm) == KS_SUCCESS && K_BitmapHasRgn(&none.bm) == 0);
    ASSERT_EQ(K_CopyBitmapRgn(&dst.bm, &b.bm, -10, 5), KS_SUCCESS);  // moved and clipped
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 30; ++x)
            ASSERT_EQ(K_IsPtInBitmapRgn(&dst.bm, y, x), K_IsPtInBitmapRgn(&b.bm, y - 5, x + 10)) << x << "," << y;
    // The destination's pointer is cleared, not freed: the old handle stays alive.
    HRGN held = dst.bm.hRgn;
    ASSERT_EQ(K_CopyBitmapRgn(&dst.bm, &none.bm, 0, 0), KS_SUCCESS);
    EXPECT_TRUE(K_BitmapHasRgn(&dst.bm) == 0 && DeleteObject(held) == 1);
}

// The fill colour in every format is the colour as the buffer converter writes it from 24 bits (12-bit grey: the 16-bit
// grey rounded to 12 bits); palette images take the nearest palette index.
TEST(RegionsBitmap, FillColourEncodingAndGreyMasks) {
    const struct { int bpp, order; } formats[] = {{16, ORDER_GRAY}, {16, ORDER_BGR}, {16, ORDER_RGB},
        {16, ORDER_RGB565}, {24, ORDER_BGR}, {32, ORDER_BGR}, {32, ORDER_RGB}, {48, ORDER_BGR}, {48, ORDER_RGB},
        {64, ORDER_BGR}, {12, ORDER_GRAY}};
    uint64_t grey16 = 0;
    for (uint32_t c : {0x204080u, 0x030000u, 0x7F3F1Fu, 0xFFFFFFu, 0x010203u, 0x06F0A0u})
        for (const auto& f : formats) {
            Bitmap fb(3, 2, f.bpp, TOP_LEFT, f.order);
            ASSERT_EQ(K_FillBitmap(&fb.bm, c), KS_SUCCESS);
            uint8_t px[8] = {uint8_t(c >> 16), uint8_t(c >> 8), uint8_t(c)};  // B, G, R
            ASSERT_EQ(K_ConvertBuffer(px, 1, 24, f.bpp, ORDER_BGR, f.order, nullptr, nullptr), KS_SUCCESS);
            const uint64_t got = getPixel(fb.access() + fb.bm.nBytesPerLine, 2, f.bpp);
            fb.release();
            if (f.bpp == 16 && f.order == ORDER_GRAY) grey16 = got;
            const uint64_t want = f.bpp == 12 ? uint64_t(std::lround(grey16 * 4095.0 / 65535)) : getPixel(px, 0, f.bpp);
            EXPECT_EQ(got, want) << f.bpp << "/" << f.order << " colour " << std::hex << c;
        }
    // Hand-checked encodings of 0x204080 (R 0x80, G 0x40, B 0x20).
    Bitmap b32(2, 1, 32), b8(2, 1, 8);
    ASSERT_TRUE(K_FillBitmap(&b32.bm, 0x204080) == KS_SUCCESS && K_FillBitmap(&b8.bm, 0x204080) == KS_SUCCESS);
    EXPECT_EQ(combinetest::rawPixel(b32.access(), 1, {32, ORDER_BGR}), 0xFF804020ull);
    EXPECT_EQ(b8.access()[1], K_FindPaletteIndex(b8.bm.pPalette, 256, 0x80, 0x40, 0x20));
    b32.release(), b8.release();
    // A record without a palette (caller memory attached to an initialised record) takes the fixed palette of its
    // depth: 1 bit, index 1 is white.
    BITMAPRECORD np;
    uint8_t bits[8] = {0xA5, 0x0F, 0, 0, 0x80, 0x01, 0, 0};
    ASSERT_TRUE(K_InitBitmap(&np, BITMAPRECORD_SIZE, 16, 2, 1) == 1 && K_SetBitmapDataPointer(&np, bits, 8) == 1);
    ASSERT_TRUE(np.pPalette == nullptr && K_SetBitmapRgnColor(&np, 0xFFFFFF, 1) == KS_SUCCESS);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 16; ++x) EXPECT_EQ(K_IsPtInBitmapRgn(&np, y, x), (bits[4 * y + x / 8] >> (7 - x % 8)) & 1);
    K_FreeBitmap(&np);
    // A 24-bit mask counts grey >= 128 as white.
    Bitmap m(20, 1, 24), t(20, 1, 8);
    for (int x = 0; x < 20; ++x) std::memset(m.access() + 3 * x, x * 13, 3), m.release();
    ASSERT_EQ(K_SetBitmapRgnFromMask(&t.bm, nullptr, &m.bm, 1), KS_SUCCESS);
    for (int x = 0; x < 20; ++x) EXPECT_EQ(K_IsPtInBitmapRgn(&t.bm, 0, x), uint8_t(x * 13) >= 128 ? 1 : 0) << x;
}

// Filling and colour regions go through the row layer: at every depth and on every storage kind the fill changes
// exactly the region's pixels to the raw value (padding untouched), and the colour region holds exactly the pixels of
// the colour.
TEST(RegionsBitmap, FillAndColourRegionsOnEveryStorageKind) {
    using namespace storagetest;
    CapGuard guard;
    const int W = 77, H = 41;
    const RECT e{-5, 3, 60, 38};
    Bitmap probe(W, H, 8);  // the ellipse's pixels
    ASSERT_EQ(K_SetBitmapRgnEllipse(&probe.bm, nullptr, &e, 1), KS_SUCCESS);
    const Mask inE = bitmapMask(Mask(0, 0, W, H), &probe.bm);
    for (int bpp : {1, 2, 4, 8, 12, 16, 24, 32, 48, 64}) {
        RefImage ref(W, H, bpp);
        ref.randomize(uint32_t(bpp) * 7 + 1);
        const bool colours = bpp == 1 || bpp == 8 || bpp == 24;
        // A colour to look for: a block of one raw value (24 bits: BGR bytes 00 FF 00, green).
        const uint64_t mark = bpp == 1 ? 1 : bpp == 8 ? 0xC3 : 0x00FF00;
        for (int y = 5; colours && y < 20; ++y)
            for (int x = 10; x < 40; ++x) setPixel(ref.row(y), x, bpp, mark);
        const uint64_t raw = 0x0123456789ABCDEFull & (bpp == 64 ? ~0ull : ((1ull << bpp) - 1));
        const size_t used = (size_t(W) * size_t(bpp) + 7) / 8;
        auto px = [&](const uint8_t* row, int x) { return combinetest::rawPixel(row, x, {bpp, 0}); };
        for (Kind k : kindsFor(bpp)) {
            SCOPED_TRACE(std::string(kindName(k)) + " bpp " + std::to_string(bpp));
            KindBitmap kb(k, W, H, bpp);
            ASSERT_EQ(kb.rc, KS_SUCCESS);
            for (int y = 0; y < H; ++y) ASSERT_GE(K_PutBitmapRow(&kb.bm, ref.row(y), y, ref.bpl), 0);
            auto rgb = [&](uint64_t v) {  // palette images: every index of that colour
                const RGBQUAD q = bpp == 24 ? RGBQUAD{} : kb.bm.pPalette[v];
                return bpp == 24 ? uint32_t(v) : uint32_t(q.rgbRed | q.rgbGreen << 8 | q.rgbBlue << 16);
            };
            ASSERT_TRUE(!colours || K_SetBitmapRgnColor(&kb.bm, rgb(mark), 1) == KS_SUCCESS);
            for (int y = 0; colours && y < H; ++y)
                for (int x = 0; x < W; ++x)
                    ASSERT_EQ(K_IsPtInBitmapRgn(&kb.bm, y, x), rgb(getPixel(ref.row(y), x, bpp)) == rgb(mark) ? 1 : 0);
            ASSERT_TRUE(K_SetBitmapRgnEllipse(&kb.bm, nullptr, &e, 1) == KS_SUCCESS && K_FillBitmap2(&kb.bm, raw) == 1);
            std::vector<uint8_t> row(ref.bpl);
            for (int y = 0; y < H; ++y) {
                ASSERT_GE(K_GetBitmapRow(&kb.bm, row.data(), y, ref.bpl), 0);
                for (int x = 0; x < W; ++x)
                    ASSERT_EQ(px(row.data(), x), inE.get(x, y) ? raw : px(ref.row(y), x)) << x << "," << y;
                for (size_t i = used + 1; i < ref.bpl; ++i) ASSERT_EQ(row[i], ref.row(y)[i]) << "padding byte " << i;
            }
        }
    }
}

}  // namespace
