// test_regions_bitmap.cpp - bitmap regions against the boolean-mask model:
// every setter and combine mode, the region transform in all 64 perspective
// pairs, readers, mirrors, the unclipped flag, filling through the region,
// masks and colour regions; plus the view-perspective arithmetic.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "ombrix.h"
#include "krn/common/memory.h"
#include "regions_mask.h"
#include "storage_kinds.h"

using rgntest::Mask;

namespace {

struct Bitmap {
    BITMAPRECORD bm{};
    Bitmap(int w, int h, int bpp, int vp = TOP_LEFT, int order = ORDER_BGR) {
        EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, w, h, bpp, order, nullptr, vp,
                                 nullptr, 0),
                  KS_SUCCESS);
    }
    ~Bitmap() { K_FreeBitmap(&bm); }
    uint8_t* row(int y) { return bm.pData + size_t(y) * bm.nBytesPerLine; }
};

// The bitmap's region as a mask over the window, read three ways that must agree.
Mask bitmapMask(const Mask& win, BITMAPRECORD* bm) {
    Mask byPoint(win.x0, win.y0, win.w, win.h);
    for (int y = win.y0; y < win.y0 + win.h; ++y)
        for (int x = win.x0; x < win.x0 + win.w; ++x) byPoint.set(x, y, K_IsPtInBitmapRgn(bm, y, x) == 1);
    Mask bySeg(win.x0, win.y0, win.w, win.h);
    uint32_t mx = 0;
    EXPECT_EQ(K_GetBitmapClipSegmentsMax(bm, &mx), KS_SUCCESS);
    std::vector<int32_t> segs(mx + 2, 0x7777);
    for (int y = win.y0; y < win.y0 + win.h; ++y) {
        uint32_t n = 99;
        EXPECT_EQ(K_GetBitmapClipSegments(bm, y, segs.data(), &n), KS_SUCCESS);
        EXPECT_LE(n, mx);
        EXPECT_EQ(n % 2, 0u);
        for (uint32_t i = 0; i + 1 < n; i += 2) {
            EXPECT_LT(segs[i], segs[i + 1]);
            if (i) {
                EXPECT_LT(segs[i - 1], segs[i]);  // sorted, not touching
            }
            for (int x = segs[i]; x < segs[i + 1]; ++x) bySeg.set(x, y, true);
        }
    }
    EXPECT_TRUE(byPoint == bySeg) << byPoint.describeDiff(bySeg);
    uint64_t area = 0;
    EXPECT_EQ(K_GetBitmapRgnArea(bm, &area), KS_SUCCESS);
    if (!(bm->uFlags & BRF_UNCLIPPED_RGN)) {
        EXPECT_EQ(area, byPoint.count());
        RECT box;
        EXPECT_EQ(K_GetBitmapRgnBounds(bm, nullptr, &box), KS_SUCCESS);
        RECT mb = byPoint.bounds();
        if (K_BitmapHasRgn(bm)) {
            EXPECT_TRUE(EqualRect(&box, &mb));
        }
    }
    return byPoint;
}

HRGN regionOfMask(const Mask& m) {
    HRGN h = CreateRectRgn(0, 0, 0, 0), px = CreateRectRgn(0, 0, 0, 0);
    for (int y = m.y0; y < m.y0 + m.h; ++y)
        for (int x = m.x0; x < m.x0 + m.w; ++x)
            if (m.get(x, y)) {
                SetRectRgn(px, x, y, x + 1, y + 1);
                CombineRgn(h, h, px, RGN_OR);
            }
    DeleteObject(px);
    return h;
}

Mask applyMode(const Mask& cur, const Mask& nw, const Mask& full, uint32_t mode) {
    Mask r;
    switch (mode) {
        case 0: r = cur.combine(nw, 0); break;
        case 1: r = nw; break;
        case 2: r = cur.combine(nw, 4); break;  // new minus current
        case 3: r = cur.combine(nw, 3); break;
        case 4: r = cur.combine(nw, 1); break;
        case 5: r = cur.combine(nw, 2); break;
        default: r = full.combine(nw, 3); break;
    }
    return r.combine(full, 0);  // clipped to the bitmap
}

TEST(RegionsBitmap, EverySetterAndModeMatchesMaskAlgebra) {
    const int W = 90, H = 70;
    const Mask win(-20, -20, 130, 130);  // covers every coordinate the shapes use
    const Mask full = rgntest::rectMask(win, RECT{0, 0, W, H});
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int> c(-15, 100);
    Bitmap bmp(W, H, 8);
    // A random 1-bit mask and a 24-bit picture of four colours for the pixel-based setters.
    Bitmap mask1(W, H, 1), pic(W, H, 24);
    K_AccessBitmap(&mask1.bm);
    K_AccessBitmap(&pic.bm);
    std::memset(mask1.bm.pData, 0, size_t(mask1.bm.nBytesPerLine) * H);
    Mask maskWhite(win.x0, win.y0, win.w, win.h), picRed(win.x0, win.y0, win.w, win.h);
    const uint32_t colours[4] = {0x0000FF, 0x00FF00, 0xFF0000, 0x123456};
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            bool white = ((x / 7 + y / 5) % 3 == 0) || rng() % 11 == 0;
            if (white) mask1.row(y)[x / 8] |= uint8_t(0x80 >> (x % 8));
            maskWhite.set(x, y, white);  // fixed 1-bit palette: index 1 is white
            int k = (x / 9 + y / 4 + int(rng() % 2)) % 4;
            uint32_t cc = colours[k];
            pic.row(y)[3 * x] = uint8_t(cc >> 16);  // B
            pic.row(y)[3 * x + 1] = uint8_t(cc >> 8);
            pic.row(y)[3 * x + 2] = uint8_t(cc);
            picRed.set(x, y, k == 0);
        }
    Mask cur = full;
    bool has = false;
    for (int step = 0; step < 120; ++step) {
        uint32_t mode = uint32_t(rng() % 7);
        int kind = int(rng() % 7);
        Mask nw;
        int32_t rc = 0;
        std::string what;
        if (kind == 0) {
            RECT r{c(rng), c(rng), c(rng), c(rng)};
            if (r.left > r.right) std::swap(r.left, r.right);
            if (r.top > r.bottom) std::swap(r.top, r.bottom);
            nw = rgntest::rectMask(win, r);
            rc = K_SetBitmapRgnRect(&bmp.bm, nullptr, &r, mode);
            what = "rect";
        } else if (kind == 1) {
            RECT r{c(rng), c(rng), c(rng), c(rng)};
            HRGN e = CreateEllipticRgn(r.left, r.top, r.right, r.bottom);
            bool ok;
            nw = rgntest::maskOfHandle(win, e, &ok);
            if (!ok) {  // partly outside the window: clip the oracle's source instead
                HRGN clipR = CreateRectRgn(win.x0, win.y0, win.x0 + win.w, win.y0 + win.h);
                CombineRgn(e, e, clipR, RGN_AND);
                nw = rgntest::maskOfHandle(win, e, &ok);
                DeleteObject(clipR);
                r = RECT{0, 0, 0, 0};
                rc = K_SetBitmapRgnHandle(&bmp.bm, nullptr, e, mode);
                what = "ellipse handle";
            } else {
                rc = K_SetBitmapRgnEllipse(&bmp.bm, nullptr, &r, mode);
                what = "ellipse";
            }
            DeleteObject(e);
        } else if (kind == 2) {
            int n = 3 + int(rng() % 6);
            std::vector<POINT> pts;
            for (int i = 0; i < n; ++i) pts.push_back(POINT{c(rng), c(rng)});
            bool winding = rng() & 1;
            nw = rgntest::polygonMask(win, pts, {0}, winding);
            rc = K_SetBitmapRgnPolygon(&bmp.bm, nullptr, pts.data(), uint32_t(n), winding ? WINDING : ALTERNATE,
                                       mode);
            what = "polygon";
        } else if (kind == 3) {
            // Region data of two rectangles.
            RECT a{c(rng), c(rng), c(rng), c(rng)}, b{c(rng), c(rng), c(rng), c(rng)};
            HRGN ha = CreateRectRgn(a.left, a.top, a.right, a.bottom);
            HRGN hb = CreateRectRgn(b.left, b.top, b.right, b.bottom);
            CombineRgn(ha, ha, hb, RGN_OR);
            bool ok;
            nw = rgntest::maskOfHandle(win, ha, &ok);
            std::vector<uint8_t> data = rgntest::regionData(ha);
            if (data.size() <= 32) {
                rc = K_SetBitmapRgnHandle(&bmp.bm, nullptr, ha, mode);
            } else {
                rc = K_SetBitmapRgnData(&bmp.bm, nullptr, int32_t(data.size()),
                                        reinterpret_cast<const RGNDATA*>(data.data()), mode);
            }
            DeleteObject(ha);
            DeleteObject(hb);
            what = "data";
        } else if (kind == 4) {
            nw = maskWhite;
            rc = K_SetBitmapRgnFromMask(&bmp.bm, nullptr, &mask1.bm, mode);
            what = "mask";
        } else if (kind == 5) {
            // Colour region of the picture, given to the bitmap through a handle.
            Bitmap tmp(W, H, 24);
            K_AccessBitmap(&tmp.bm);
            std::memcpy(tmp.bm.pData, pic.bm.pData, size_t(pic.bm.nBytesPerLine) * H);
            K_ReleaseBitmap(&tmp.bm);
            ASSERT_EQ(K_SetBitmapRgnColor(&tmp.bm, 0x0000FF, 1), KS_SUCCESS);
            HRGN hr = nullptr;
            ASSERT_EQ(K_GetBitmapRgnHandle(&tmp.bm, nullptr, &hr), KS_SUCCESS);
            nw = picRed;
            rc = K_SetBitmapRgnHandle(&bmp.bm, nullptr, hr, mode);
            DeleteObject(hr);
            what = "colour";
        } else {
            // An arbitrary pixel set through a handle.
            Mask m(win.x0, win.y0, win.w, win.h);
            int cx = c(rng), cy = c(rng);
            for (int y = cy - 10; y < cy + 10; ++y)
                for (int x = cx - 10; x < cx + 10; ++x)
                    if ((x ^ y) & 4) m.set(x, y, true);
            HRGN hm = regionOfMask(m);
            nw = m;
            rc = K_SetBitmapRgnHandle(&bmp.bm, nullptr, hm, mode);
            DeleteObject(hm);
            what = "pixels";
        }
        ASSERT_EQ(rc, KS_SUCCESS) << what;
        cur = applyMode(has ? cur : full, nw, full, mode);
        has = true;
        Mask got = bitmapMask(win, &bmp.bm);
        ASSERT_TRUE(got == cur) << "step " << step << " " << what << " mode " << mode << ": " << got.describeDiff(cur);
        // The mask made from the region has the same pixels.
        if (step % 10 == 0) {
            BITMAPRECORD mk;
            ASSERT_EQ(K_CreateMaskFromBitmapRgn(&bmp.bm, &mk, BITMAPRECORD_SIZE), KS_SUCCESS);
            EXPECT_EQ(mk.nBitsPerPixel, 1);
            EXPECT_EQ(K_BitmapHasRgn(&mk), 0);
            K_AccessBitmap(&mk);
            for (int y = 0; y < H; ++y)
                for (int x = 0; x < W; ++x)
                    ASSERT_EQ(((mk.pData[size_t(y) * mk.nBytesPerLine + x / 8] >> (7 - x % 8)) & 1) != 0,
                              cur.get(x, y));
            K_ReleaseBitmap(&mk);
            K_FreeBitmap(&mk);
        }
    }
    K_ReleaseBitmap(&mask1.bm);
    K_ReleaseBitmap(&pic.bm);
}

TEST(RegionsBitmap, EdgeCases) {
    Bitmap b(40, 30, 8);
    uint32_t mx = 0;
    EXPECT_EQ(K_GetBitmapClipSegmentsMax(&b.bm, &mx), KS_SUCCESS);
    EXPECT_EQ(mx, 2u);
    RECT r{5, 5, 16, 9};  // 11 wide
    EXPECT_EQ(K_SetBitmapRgnRect(&b.bm, nullptr, &r, 0), KS_SUCCESS);  // AND with the whole bitmap
    EXPECT_EQ(K_GetBitmapClipSegmentsMax(&b.bm, &mx), KS_SUCCESS);
    EXPECT_EQ(mx, 12u);
    uint64_t area = 0;
    K_GetBitmapRgnArea(&b.bm, &area);
    EXPECT_EQ(area, 44u);
    // Mode 6 with an empty new region gives the whole bitmap.
    RECT empty{3, 3, 3, 3};
    EXPECT_EQ(K_SetBitmapRgnRect(&b.bm, nullptr, &empty, 6), KS_SUCCESS);
    K_GetBitmapRgnArea(&b.bm, &area);
    EXPECT_EQ(area, 1200u);
    // An empty region has area 0.
    EXPECT_EQ(K_SetBitmapRgnRect(&b.bm, nullptr, &empty, 1), KS_SUCCESS);
    EXPECT_EQ(K_BitmapHasRgn(&b.bm), 1);
    K_GetBitmapRgnArea(&b.bm, &area);
    EXPECT_EQ(area, 0u);
    EXPECT_EQ(K_GetBitmapRgnData(&b.bm, nullptr, 0, nullptr), 32);
    // Region data of size 0 removes the region.
    EXPECT_EQ(K_SetBitmapRgnData(&b.bm, nullptr, 0, nullptr, 4), KS_SUCCESS);
    EXPECT_EQ(K_BitmapHasRgn(&b.bm), 0);
    EXPECT_EQ(K_GetBitmapRgnData(&b.bm, nullptr, 0, nullptr), 0);  // no region
    // A rectangle wholly outside becomes empty.
    RECT out{100, 100, 120, 120};
    EXPECT_EQ(K_SetBitmapRgnRect(&b.bm, nullptr, &out, 1), KS_SUCCESS);
    K_GetBitmapRgnArea(&b.bm, &area);
    EXPECT_EQ(area, 0u);
    // Region data sizes: 48 for a simple region, 16 * (runs + 2) otherwise.
    EXPECT_EQ(K_SetBitmapRgnRect(&b.bm, nullptr, &r, 1), KS_SUCCESS);
    EXPECT_EQ(K_GetBitmapRgnData(&b.bm, nullptr, 0, nullptr), 48);
    RECT r2{20, 6, 25, 7};
    EXPECT_EQ(K_SetBitmapRgnRect(&b.bm, nullptr, &r2, 4), KS_SUCCESS);
    int32_t need = K_GetBitmapRgnData(&b.bm, nullptr, 0, nullptr);
    EXPECT_EQ(need, 16 * (4 + 1 + 2));
    std::vector<uint8_t> buf(static_cast<size_t>(need));
    EXPECT_EQ(K_GetBitmapRgnData(&b.bm, nullptr, need, reinterpret_cast<RGNDATA*>(buf.data())), need);
    EXPECT_EQ(K_GetBitmapRgnData(&b.bm, nullptr, -1, nullptr), KS_INVALID_PARAMETER);
    // A null handle frees the region.
    EXPECT_EQ(K_SetBitmapRgnHandle(&b.bm, nullptr, nullptr, 3), KS_SUCCESS);
    EXPECT_EQ(K_BitmapHasRgn(&b.bm), 0);
    // Without region: clip segments (0, width) for rows inside, none outside.
    int32_t segs[2];
    uint32_t n = 0;
    EXPECT_EQ(K_GetBitmapClipSegments(&b.bm, 3, segs, &n), KS_SUCCESS);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(segs[1], 40);
    EXPECT_EQ(K_IsPtInBitmapRgn(&b.bm, 29, 39), 1);
    EXPECT_EQ(K_IsPtInBitmapRgn(&b.bm, 30, 39), 0);
}

TEST(RegionsBitmap, ArgumentChecks) {
    Bitmap b(10, 10, 8);
    RECT r{0, 0, 5, 5};
    EXPECT_EQ(K_SetBitmapRgnRect(nullptr, nullptr, &r, 1), KS_INVALID_BITMAP);
    EXPECT_EQ(K_SetBitmapRgnRect(&b.bm, nullptr, nullptr, 1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetBitmapRgnRect(&b.bm, nullptr, &r, 7), KS_INVALID_PARAMETER);
    RGNXFORM xf{9, 1, 1, 1, 1, 0, 0};
    EXPECT_EQ(K_SetBitmapRgnRect(&b.bm, &xf, &r, 1), KS_INVALID_PARAMETER);
    xf = RGNXFORM{1, 1, 0, 1, 1, 0, 0};
    EXPECT_EQ(K_SetBitmapRgnEllipse(&b.bm, &xf, &r, 1), KS_INVALID_PARAMETER);
    xf = RGNXFORM{1, 1, 1, 1, 0, 0, 0};
    EXPECT_EQ(K_SetBitmapRgnPolygon(&b.bm, &xf, nullptr, 0, 0, 1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetBitmapRgnData(&b.bm, nullptr, -1, nullptr, 1), KS_INVALID_PARAMETER);
    std::vector<uint8_t> junk(40, 0);
    EXPECT_EQ(K_SetBitmapRgnData(&b.bm, nullptr, 40, reinterpret_cast<RGNDATA*>(junk.data()), 1), KS_NO_MEMORY);
    BITMAPRECORD unalloc;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 10, 10, 8);
    EXPECT_EQ(K_SetBitmapRgnFromMask(&b.bm, nullptr, &unalloc, 1), KS_INVALID_PARAMETER);
    Bitmap fl(4, 4, 32);
    fl.bm.uFlags |= 0x100000u;
    EXPECT_EQ(K_SetBitmapRgnFromMask(&b.bm, nullptr, &fl.bm, 1), KS_FLOAT_NOT_SUPPORTED);
    EXPECT_EQ(K_FillBitmap(&fl.bm, 0), KS_FLOAT_NOT_SUPPORTED);
    fl.bm.uFlags &= ~0x100000u;
    BITMAPRECORD bad = b.bm;
    bad.uStructSize = 100;
    EXPECT_EQ(K_SetBitmapRgnRect(&bad, nullptr, &r, 1), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_FreeBitmapRgn(&bad), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_FreeBitmapRgn(nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_BitmapHasRgn(&bad), 0);
    EXPECT_EQ(K_BitmapHasRgn(nullptr), 0);
    EXPECT_EQ(K_IsPtInBitmapRgn(nullptr, 0, 0), 0);
    EXPECT_EQ(K_IsPtInBitmapRgn(&bad, 0, 0), 0);
    uint64_t a;
    EXPECT_EQ(K_GetBitmapRgnArea(nullptr, &a), KS_INVALID_BITMAP);
    EXPECT_EQ(K_GetBitmapRgnArea(&bad, &a), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_GetBitmapRgnArea(&b.bm, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetBitmapRgnBounds(nullptr, nullptr, &r), KS_INVALID_BITMAP);
    EXPECT_EQ(K_GetBitmapRgnBounds(&b.bm, nullptr, nullptr), KS_INVALID_BITMAP);
    EXPECT_EQ(K_CopyBitmapRgn(nullptr, &b.bm, 0, 0), KS_INVALID_PARAMETER);
    // A setter that fails keeps the old region; the given region is not leaked.
    ASSERT_EQ(K_SetBitmapRgnRect(&b.bm, nullptr, &r, 1), KS_SUCCESS);
    long live = krn::faultinject::liveBlocks();
    OrvaRgn* o = nullptr;
    RECT big{0, 0, 8, 8};
    K_CreateOrvaRgnRect(&o, &big);
    EXPECT_EQ(K_SetBitmapRgn(&b.bm, nullptr, o, 9), KS_INVALID_PARAMETER);
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    uint64_t area = 0;
    K_GetBitmapRgnArea(&b.bm, &area);
    EXPECT_EQ(area, 25u);
}

TEST(RegionsBitmap, FailedSettersChangeNothingAndLeakNothing) {
    Bitmap b(120, 90, 8);
    RECT e{-10, 5, 100, 80};
    ASSERT_EQ(K_SetBitmapRgnEllipse(&b.bm, nullptr, &e, 1), KS_SUCCESS);
    std::vector<uint8_t> before(size_t(K_GetBitmapRgnData(&b.bm, nullptr, 0, nullptr)));
    K_GetBitmapRgnData(&b.bm, nullptr, int32_t(before.size()), reinterpret_cast<RGNDATA*>(before.data()));
    POINT tri[3] = {{0, 0}, {119, 40}, {30, 89}};
    RGNXFORM xf{6, 3, 2, 2, 3, 4, -7};
    for (uint32_t mode = 0; mode <= 6; ++mode) {
        bool clean = false;
        for (long n = 0; n < 80 && !clean; ++n) {
            long live = krn::faultinject::liveBlocks();
            krn::faultinject::arm(n, 1);
            int32_t rc = K_SetBitmapRgnPolygon(&b.bm, &xf, tri, 3, ALTERNATE, mode);
            clean = krn::faultinject::injected() == 0;
            krn::faultinject::disarm();
            if (rc != KS_SUCCESS) {
                EXPECT_EQ(rc, KS_NO_MEMORY);
                EXPECT_EQ(krn::faultinject::liveBlocks(), live) << "mode " << mode << " n " << n;
                std::vector<uint8_t> now(before.size());
                ASSERT_EQ(K_GetBitmapRgnData(&b.bm, nullptr, int32_t(now.size()), reinterpret_cast<RGNDATA*>(now.data())),
                          int32_t(before.size()));
                EXPECT_EQ(now, before);
            } else {
                ASSERT_EQ(K_SetBitmapRgnEllipse(&b.bm, nullptr, &e, 1), KS_SUCCESS);
            }
        }
        EXPECT_TRUE(clean);
    }
    // A region that replaces another frees it.
    long live = krn::faultinject::liveBlocks();
    ASSERT_EQ(K_SetBitmapRgnEllipse(&b.bm, nullptr, &e, 1), KS_SUCCESS);
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    // K_FreeBitmap releases the region with everything else.
    BITMAPRECORD t;
    ASSERT_EQ(K_CreateBitmap(&t, BITMAPRECORD_SIZE, 1, 50, 50, 8, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    ASSERT_EQ(K_SetBitmapRgnEllipse(&t, nullptr, &e, 1), KS_SUCCESS);
    K_FreeBitmap(&t);
    EXPECT_EQ(t.hRgn, nullptr);
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
}

// Caller coordinates go through offset, scale and the change of perspective.
// Oracle per bitmap pixel: map back with the point conversion and the
// nearest-neighbour scale rule, then test the caller's polygon.
TEST(RegionsBitmap, TransformInEveryPerspectivePair) {
    std::mt19937 rng(8);
    const int w = 37, h = 23;
    std::vector<POINT> pts = {{-3, 2}, {30, -4}, {41, 19}, {12, 30}, {5, 12}};
    const Mask cwin(-60, -60, 200, 200);
    Mask caller = rgntest::polygonMask(cwin, pts, {0}, false);
    for (int bvp = 1; bvp <= 8; ++bvp) {
        int sw = bvp >= 5 ? h : w, sh = bvp >= 5 ? w : h;  // stored size
        for (int vp = 1; vp <= 8; ++vp) {
            Bitmap b(sw, sh, 8, bvp);
            RGNXFORM xf{vp, 1 + int(rng() % 3), 1 + int(rng() % 2), 1 + int(rng() % 3), 1 + int(rng() % 2),
                        int(rng() % 7) - 3, int(rng() % 7) - 3};
            ASSERT_EQ(K_SetBitmapRgnPolygon(&b.bm, &xf, pts.data(), uint32_t(pts.size()), ALTERNATE, 1), KS_SUCCESS);
            auto fdiv = [](int a, int d) { return a >= 0 ? a / d : -((-a + d - 1) / d); };
            for (int y = 0; y < sh; ++y)
                for (int x = 0; x < sw; ++x) {
                    int px = x, py = y;
                    ASSERT_EQ(K_ChangePointViewPerspective(bvp, sw, sh, vp, &px, &py), KS_SUCCESS);
                    int cx = fdiv(px * xf.nXScalarDen, xf.nXScalarNum) - xf.nXOffset;
                    int cy = fdiv(py * xf.nYScalarDen, xf.nYScalarNum) - xf.nYOffset;
                    ASSERT_EQ(K_IsPtInBitmapRgn(&b.bm, y, x), caller.get(cx, cy) ? 1 : 0)
                        << "bitmap vp " << bvp << " caller vp " << vp << " at " << x << "," << y;
                }
            // Rectangles take the arithmetic path: same pixels as the region path.
            RECT rc{-2, 3, 25, 17};
            Bitmap r1(sw, sh, 8, bvp), r2(sw, sh, 8, bvp);
            ASSERT_EQ(K_SetBitmapRgnRect(&r1.bm, &xf, &rc, 1), KS_SUCCESS);
            POINT quad[4] = {{rc.left, rc.top}, {rc.right, rc.top}, {rc.right, rc.bottom}, {rc.left, rc.bottom}};
            ASSERT_EQ(K_SetBitmapRgnPolygon(&r2.bm, &xf, quad, 4, ALTERNATE, 1), KS_SUCCESS);
            const Mask bw(-2, -2, sw + 4, sh + 4);
            Mask m1 = bitmapMask(bw, &r1.bm), m2 = bitmapMask(bw, &r2.bm);
            ASSERT_TRUE(m1 == m2) << "bvp " << bvp << " vp " << vp << " " << m1.describeDiff(m2);
            // Mapping out: a handle in the caller's perspective; pixel q of it
            // is in when the bitmap pixel it comes from is.
            RGNXFORM id{vp, 1, 1, 1, 1, 0, 0};
            HRGN out = nullptr;
            ASSERT_EQ(K_GetBitmapRgnHandle(&r1.bm, &id, &out), KS_SUCCESS);
            int vw = vp >= 5 ? (bvp >= 5 ? sw : sh) : (bvp >= 5 ? sh : sw);
            int vh = vp >= 5 ? (bvp >= 5 ? sh : sw) : (bvp >= 5 ? sw : sh);
            for (int y = 0; y < vh; ++y)
                for (int x = 0; x < vw; ++x) {
                    int bx = x, by = y;
                    K_ChangePointViewPerspective(vp, vw, vh, bvp, &bx, &by);
                    ASSERT_EQ(PtInRegion(out, x, y), m1.get(bx, by) ? 1 : 0) << bvp << "->" << vp;
                }
            // With the caller's scale and offset too: the same handle scaled, then moved.
            HRGN scaled = nullptr;
            OrvaRgn* want = nullptr;
            ASSERT_EQ(K_GetBitmapRgnHandle(&r1.bm, &xf, &scaled), KS_SUCCESS);
            ASSERT_EQ(K_ConvertHandleToRgn(out, &want), KS_SUCCESS);
            ASSERT_EQ(K_ScaleOrvaRgn(want, xf.nXScalarNum, xf.nXScalarDen, xf.nYScalarNum, xf.nYScalarDen), KS_SUCCESS);
            ASSERT_EQ(K_OffsetOrvaRgn(want, xf.nXOffset, xf.nYOffset), KS_SUCCESS);
            for (int y = -5; y < 3 * vh + 5; ++y)
                for (int x = -5; x < 3 * vw + 5; ++x)
                    ASSERT_EQ(PtInRegion(scaled, x, y), K_IsPtInOrvaRgn(want, x, y, nullptr, nullptr)) << bvp << "->" << vp;
            K_DeleteOrvaRgn(want);
            DeleteObject(scaled);
            DeleteObject(out);
        }
    }
}

TEST(RegionsBitmap, BoundsMappedOutRoundAsDocumented) {
    Bitmap b(100, 60, 8, TOP_LEFT);
    RECT r{10, 11, 31, 33};
    ASSERT_EQ(K_SetBitmapRgnRect(&b.bm, nullptr, &r, 1), KS_SUCCESS);
    RGNXFORM xf{1, 1, 2, 1, 2, 5, 7};  // halve, then move
    RECT o;
    ASSERT_EQ(K_GetBitmapRgnBounds(&b.bm, &xf, &o), KS_SUCCESS);
    // left/right round up; top/bottom round up in perspective 1.
    EXPECT_EQ(o.left, 5 + 5);
    EXPECT_EQ(o.right, 16 + 5);
    EXPECT_EQ(o.top, 6 + 7);
    EXPECT_EQ(o.bottom, 17 + 7);
    xf.nViewPerspective = 3;  // half turn: the rectangle moves, top/bottom round down
    ASSERT_EQ(K_GetBitmapRgnBounds(&b.bm, &xf, &o), KS_SUCCESS);
    // (10,11,31,33) in 100x60 turned: (69, 27, 90, 49); halved: left/right up, top/bottom down
    EXPECT_EQ(o.left, 35 + 5);
    EXPECT_EQ(o.right, 45 + 5);
    EXPECT_EQ(o.top, 13 + 7);
    EXPECT_EQ(o.bottom, 24 + 7);
    // No region: the bitmap rectangle.
    Bitmap n(100, 60, 8, TOP_LEFT);
    ASSERT_EQ(K_GetBitmapRgnBounds(&n.bm, nullptr, &o), KS_SUCCESS);
    RECT whole{0, 0, 100, 60};
    EXPECT_TRUE(EqualRect(&o, &whole));
}

TEST(RegionsBitmap, MovesMirrorsAndSizes) {
    const int W = 50, H = 40;
    Bitmap b(W, H, 8);
    POINT pts[4] = {{3, 2}, {40, 8}, {30, 35}, {8, 25}};
    ASSERT_EQ(K_SetBitmapRgnPolygon(&b.bm, nullptr, pts, 4, WINDING, 1), KS_SUCCESS);
    const Mask win(-5, -5, W + 10, H + 10);
    Mask m0 = bitmapMask(win, &b.bm);
    ASSERT_EQ(K_FlipBitmapRgn(&b.bm), KS_SUCCESS);
    Mask m1 = bitmapMask(win, &b.bm);
    ASSERT_EQ(K_ReverseBitmapRgn(&b.bm), KS_SUCCESS);
    Mask m2 = bitmapMask(win, &b.bm);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            ASSERT_EQ(m1.get(x, y), m0.get(x, H - 1 - y));
            ASSERT_EQ(m2.get(x, y), m0.get(W - 1 - x, H - 1 - y));
        }
    // Offset (rows, then columns) clips to the bitmap.
    ASSERT_EQ(K_OffsetBitmapRgn(&b.bm, 6, -9), KS_SUCCESS);
    Mask m3 = bitmapMask(win, &b.bm);
    for (int y = -5; y < H + 5; ++y)
        for (int x = -5; x < W + 5; ++x) {
            bool want = x >= 0 && x < W && y >= 0 && y < H && m2.get(x + 9, y - 6);
            ASSERT_EQ(m3.get(x, y), want) << x << "," << y;
        }
    // Without a region the offset starts from the whole bitmap.
    Bitmap f(20, 10, 8);
    ASSERT_EQ(K_OffsetBitmapRgn(&f.bm, 3, 4), KS_SUCCESS);
    uint64_t area = 0;
    K_GetBitmapRgnArea(&f.bm, &area);
    EXPECT_EQ(area, uint64_t(16 * 7));
    // Size: nearest-neighbour scale by new : old.
    Mask before = bitmapMask(win, &b.bm);
    ASSERT_EQ(K_SizeBitmapRgn(&b.bm, 75, 20), KS_SUCCESS);
    const Mask bigWin(0, 0, 80, 25);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 75; ++x)
            ASSERT_EQ(K_IsPtInBitmapRgn(&b.bm, y, x), before.get(x * W / 75, y * H / 20) ? 1 : 0);
    EXPECT_EQ(K_SizeBitmapRgn(&f.bm, 0, 0), KS_SUCCESS);  // scales to nothing
    K_GetBitmapRgnArea(&f.bm, &area);
    EXPECT_EQ(area, 0u);
    Bitmap none(10, 10, 8);
    EXPECT_EQ(K_FlipBitmapRgn(&none.bm), KS_SUCCESS);
    EXPECT_EQ(K_BitmapHasRgn(&none.bm), 0);
    // Copy to another bitmap, moved and clipped.
    Bitmap dst(30, 30, 8);
    ASSERT_EQ(K_CopyBitmapRgn(&dst.bm, &b.bm, -10, 5), KS_SUCCESS);
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 30; ++x)
            ASSERT_EQ(K_IsPtInBitmapRgn(&dst.bm, y, x), K_IsPtInBitmapRgn(&b.bm, y - 5, x + 10));
    // The destination's pointer is cleared, not freed: the old handle stays alive.
    HRGN held = dst.bm.hRgn;
    ASSERT_EQ(K_CopyBitmapRgn(&dst.bm, &none.bm, 0, 0), KS_SUCCESS);
    EXPECT_EQ(K_BitmapHasRgn(&dst.bm), 0);
    EXPECT_EQ(DeleteObject(held), 1);
}

TEST(RegionsBitmap, UnclippedFlagKeepsRegionAndClipsReads) {
    Bitmap b(30, 20, 8);
    b.bm.uFlags |= BRF_UNCLIPPED_RGN;
    RECT r{-10, -5, 50, 8};
    ASSERT_EQ(K_SetBitmapRgnRect(&b.bm, nullptr, &r, 1), KS_SUCCESS);
    RECT box;
    ASSERT_EQ(K_GetBitmapRgnBounds(&b.bm, nullptr, &box), KS_SUCCESS);
    EXPECT_TRUE(EqualRect(&box, &r));  // kept as given
    uint64_t area = 0;
    K_GetBitmapRgnArea(&b.bm, &area);
    EXPECT_EQ(area, 60u * 13u);
    uint32_t mx = 0;
    K_GetBitmapClipSegmentsMax(&b.bm, &mx);
    EXPECT_EQ(mx, 30u);  // bounded by the bitmap's width, not the region's 60
    int32_t segs[64];
    uint32_t n = 0;
    K_GetBitmapClipSegments(&b.bm, -2, segs, &n);
    EXPECT_EQ(n, 0u);  // outside the bitmap's rows
    K_GetBitmapClipSegments(&b.bm, 3, segs, &n);
    ASSERT_EQ(n, 2u);
    EXPECT_EQ(segs[0], 0);
    EXPECT_EQ(segs[1], 30);
    ASSERT_EQ(K_OffsetBitmapRgn(&b.bm, 100, 0), KS_SUCCESS);  // not clipped
    K_GetBitmapRgnArea(&b.bm, &area);
    EXPECT_EQ(area, 60u * 13u);
    // Filling writes only inside the bitmap.
    ASSERT_EQ(K_OffsetBitmapRgn(&b.bm, -100, 0), KS_SUCCESS);
    ASSERT_EQ(K_ClearBitmap(&b.bm), KS_SUCCESS);
    K_AccessBitmap(&b.bm);
    for (int y = 0; y < 20; ++y) std::memset(b.row(y), 0x55, 30);
    K_ReleaseBitmap(&b.bm);
    ASSERT_EQ(K_FillBitmap2(&b.bm, 9), KS_SUCCESS);
    K_AccessBitmap(&b.bm);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 30; ++x) ASSERT_EQ(b.row(y)[x], y < 8 ? 9 : 0x55);
    K_ReleaseBitmap(&b.bm);
}

// Reads pixel x of a row as its raw value (sub-byte pixels from the high bits).
uint64_t rawPixel(const uint8_t* row, int x, int bpp) {
    if (bpp == 12) return storagetest::getPixel12(row, x);
    if (bpp % 8 == 0) {
        uint64_t v = 0;
        for (int k = 0; k < bpp / 8; ++k) v |= uint64_t(row[size_t(x) * (bpp / 8) + k]) << (8 * k);
        return v;
    }
    uint64_t v = 0;
    for (int k = 0; k < bpp; ++k) {
        size_t bit = size_t(x) * size_t(bpp) + size_t(k);
        v = (v << 1) | ((row[bit / 8] >> (7 - bit % 8)) & 1);
    }
    return v;
}

TEST(RegionsBitmap, FillWritesOnlyTheRegionAtEveryDepth) {
    const int depths[] = {1, 2, 4, 8, 12, 16, 24, 32, 48, 64};
    std::mt19937 rng(5);
    for (int bpp : depths) {
        const int W = 61, H = 23;
        Bitmap b(W, H, bpp);
        K_AccessBitmap(&b.bm);
        std::vector<uint8_t> before(size_t(b.bm.nBytesPerLine) * H);
        for (auto& v : before) v = uint8_t(rng());
        std::memcpy(b.bm.pData, before.data(), before.size());
        K_ReleaseBitmap(&b.bm);
        RECT e{-7, 2, 55, 30};
        ASSERT_EQ(K_SetBitmapRgnEllipse(&b.bm, nullptr, &e, 1), KS_SUCCESS);
        const uint64_t raw = 0x0123456789ABCDEFull & (bpp == 64 ? ~0ull : ((1ull << bpp) - 1));
        ASSERT_EQ(K_FillBitmap2(&b.bm, raw), KS_SUCCESS) << bpp;
        K_AccessBitmap(&b.bm);
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                uint64_t got = rawPixel(b.row(y), x, bpp);
                uint64_t old = rawPixel(before.data() + size_t(y) * b.bm.nBytesPerLine, x, bpp);
                ASSERT_EQ(got, K_IsPtInBitmapRgn(&b.bm, y, x) ? raw : old) << "bpp " << bpp << " at " << x << "," << y;
            }
        // Padding bytes past the last pixel are untouched.
        const size_t used = (size_t(W) * size_t(bpp) + 7) / 8;
        for (int y = 0; y < H; ++y)
            for (size_t k = used + 1; k < b.bm.nBytesPerLine; ++k)
                ASSERT_EQ(b.row(y)[k], before[size_t(y) * b.bm.nBytesPerLine + k]);
        K_ReleaseBitmap(&b.bm);
    }
}

TEST(RegionsBitmap, FillColourEncodingAndGreyMasks) {
    Bitmap b24(20, 10, 24), b32(20, 10, 32), b16(20, 10, 16, TOP_LEFT, ORDER_RGB565), b8(20, 10, 8);
    const uint32_t colour = 0x204080;  // R 0x80, G 0x40, B 0x20
    for (Bitmap* p : {&b24, &b32, &b16, &b8}) ASSERT_EQ(K_FillBitmap(&p->bm, colour), KS_SUCCESS);
    K_AccessBitmap(&b24.bm);
    EXPECT_EQ(b24.row(3)[0], 0x20);
    EXPECT_EQ(b24.row(3)[1], 0x40);
    EXPECT_EQ(b24.row(3)[2], 0x80);
    K_ReleaseBitmap(&b24.bm);
    K_AccessBitmap(&b32.bm);
    EXPECT_EQ(rawPixel(b32.row(9), 19, 32), 0xFF804020ull);
    K_ReleaseBitmap(&b32.bm);
    K_AccessBitmap(&b16.bm);
    EXPECT_EQ(rawPixel(b16.row(0), 5, 16), uint64_t((0x80 >> 3) << 11 | (0x40 >> 2) << 5 | (0x20 >> 3)));
    K_ReleaseBitmap(&b16.bm);
    K_AccessBitmap(&b8.bm);
    int idx = K_FindPaletteIndex(b8.bm.pPalette, 256, 0x80, 0x40, 0x20);
    EXPECT_EQ(b8.row(0)[0], idx);
    K_ReleaseBitmap(&b8.bm);
    // Every other format: the fill pixel is the colour as the buffer converter
    // writes it from 24 bits; 12-bit grey is the 16-bit grey level rounded to 12 bits.
    const struct {
        int bpp, order;
    } formats[] = {{16, ORDER_GRAY}, {16, ORDER_BGR}, {16, ORDER_RGB}, {16, ORDER_RGB565},
                   {32, ORDER_RGB}, {48, ORDER_BGR}, {48, ORDER_RGB}, {64, ORDER_BGR}, {12, ORDER_GRAY}};
    uint64_t grey16 = 0;
    for (uint32_t c : {0x030000u, 0x7F3F1Fu, 0xFFFFFFu, 0x010203u, 0x06F0A0u})
        for (const auto& f : formats) {
            Bitmap fb(3, 2, f.bpp, TOP_LEFT, f.order);
            ASSERT_EQ(K_FillBitmap(&fb.bm, c), KS_SUCCESS);
            uint8_t px[8] = {uint8_t(c >> 16), uint8_t(c >> 8), uint8_t(c)};  // B, G, R
            ASSERT_EQ(K_ConvertBuffer(px, 1, 24, f.bpp, ORDER_BGR, f.order, nullptr, nullptr), KS_SUCCESS);
            K_AccessBitmap(&fb.bm);
            const uint64_t got = storagetest::getPixel(fb.row(1), 0, f.bpp);
            if (f.bpp == 16 && f.order == ORDER_GRAY) grey16 = got;
            const uint64_t want = f.bpp == 12 ? uint64_t(std::lround(double(grey16) * 4095.0 / 65535.0))
                                              : storagetest::getPixel(px, 0, f.bpp);
            EXPECT_EQ(got, want) << f.bpp << "/" << f.order << " colour " << std::hex << c;
            K_ReleaseBitmap(&fb.bm);
        }
    // A record without a palette (caller memory attached to an initialised
    // record) takes the fixed palette of its depth: 1 bit, index 1 is white.
    BITMAPRECORD np;
    ASSERT_EQ(K_InitBitmap(&np, BITMAPRECORD_SIZE, 16, 2, 1), KS_SUCCESS);
    uint8_t bits[8] = {0xA5, 0x0F, 0, 0, 0x80, 0x01, 0, 0};
    ASSERT_EQ(K_SetBitmapDataPointer(&np, bits, sizeof bits), KS_SUCCESS);
    ASSERT_EQ(np.pPalette, nullptr);
    ASSERT_EQ(K_SetBitmapRgnColor(&np, 0xFFFFFF, 1), KS_SUCCESS);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 16; ++x)
            EXPECT_EQ(K_IsPtInBitmapRgn(&np, y, x), (bits[4 * y + x / 8] >> (7 - x % 8)) & 1) << x << "," << y;
    K_FreeBitmap(&np);
    // A 24-bit mask counts grey >= 128 as white.
    Bitmap m(20, 10, 24);
    K_AccessBitmap(&m.bm);
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 20; ++x) {
            uint8_t v = uint8_t(x * 13);
            m.row(y)[3 * x] = m.row(y)[3 * x + 1] = m.row(y)[3 * x + 2] = v;
        }
    K_ReleaseBitmap(&m.bm);
    Bitmap t(20, 10, 8);
    ASSERT_EQ(K_SetBitmapRgnFromMask(&t.bm, nullptr, &m.bm, 1), KS_SUCCESS);
    for (int x = 0; x < 20; ++x) EXPECT_EQ(K_IsPtInBitmapRgn(&t.bm, 4, x), uint8_t(x * 13) >= 128 ? 1 : 0) << x;
}

// Filling and colour regions go through the row layer: every storage kind
// gives the same pixels and the same regions as a plain image.
TEST(RegionsBitmap, FillAndColourRegionsOnEveryStorageKind) {
    using namespace storagetest;
    CapGuard guard;
    for (int bpp : {1, 8, 24}) {
        const int W = 77, H = 41;
        RefImage ref(W, H, bpp);
        ref.randomize(uint32_t(bpp) * 7 + 1);
        // A colour to look for later: a block of one raw value.
        const uint64_t mark = bpp == 1 ? 1 : bpp == 8 ? 0xC3 : 0x00FF00;  // BGR bytes 00 FF 00: green
        for (int y = 5; y < 20; ++y)
            for (int x = 10; x < 40; ++x) setPixel(ref.row(y), x, bpp, bpp == 24 ? 0x00FF00 : mark);
        RECT e{-5, 3, 60, 38};
        const uint64_t raw = bpp == 1 ? 1 : bpp == 8 ? 0x5A : 0x112233;
        // Expected image: the ellipse filled with raw.
        RefImage want = ref;
        Bitmap probe(W, H, 8);
        ASSERT_EQ(K_SetBitmapRgnEllipse(&probe.bm, nullptr, &e, 1), KS_SUCCESS);
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x)
                if (K_IsPtInBitmapRgn(&probe.bm, y, x)) {
                    uint64_t v = raw;
                    if (bpp == 24) v = ((raw & 0xFF) << 16) | (raw & 0xFF00) | ((raw >> 16) & 0xFF);  // byte order
                    setPixel(want.row(y), x, bpp, v);
                }
        for (Kind k : kindsFor(bpp)) {
            SCOPED_TRACE(std::string(kindName(k)) + " bpp " + std::to_string(bpp));
            KindBitmap kb(k, W, H, bpp);
            ASSERT_EQ(kb.rc, KS_SUCCESS);
            for (int y = 0; y < H; ++y) ASSERT_GE(K_PutBitmapRow(&kb.bm, ref.row(y), y, ref.bpl), 0);
            // Colour region of the marked colour: compare with the plain image.
            uint32_t colour;
            if (bpp == 24) {
                colour = 0x00FF00;
            } else {
                RGBQUAD q = kb.bm.pPalette[mark];
                colour = uint32_t(q.rgbRed) | uint32_t(q.rgbGreen) << 8 | uint32_t(q.rgbBlue) << 16;
            }
            ASSERT_EQ(K_SetBitmapRgnColor(&kb.bm, colour, 1), KS_SUCCESS);
            for (int y = 0; y < H; ++y)
                for (int x = 0; x < W; ++x) {
                    uint64_t v = getPixel(ref.row(y), x, bpp);
                    bool same;
                    if (bpp == 24) {
                        same = v == 0x00FF00;
                    } else {
                        RGBQUAD q = kb.bm.pPalette[v], m = kb.bm.pPalette[mark];
                        same = q.rgbRed == m.rgbRed && q.rgbGreen == m.rgbGreen && q.rgbBlue == m.rgbBlue;
                    }
                    ASSERT_EQ(K_IsPtInBitmapRgn(&kb.bm, y, x), same ? 1 : 0) << x << "," << y;
                }
            ASSERT_EQ(K_SetBitmapRgnEllipse(&kb.bm, nullptr, &e, 1), KS_SUCCESS);
            ASSERT_EQ(K_FillBitmap2(&kb.bm, raw), KS_SUCCESS);
            std::vector<uint8_t> row(ref.bpl);
            for (int y = 0; y < H; ++y) {
                ASSERT_GE(K_GetBitmapRow(&kb.bm, row.data(), y, ref.bpl), 0);
                for (int x = 0; x < W; ++x)
                    ASSERT_EQ(getPixel(row.data(), x, bpp), getPixel(want.row(y), x, bpp)) << x << "," << y;
            }
        }
    }
}

// ---------------------------------------------------------------- view perspective arithmetic
TEST(RegionsViewPerspective, ParamsEdgeCases) {
    int32_t f = -1, a = -1;
    ASSERT_EQ(K_GetChangeViewPerspectiveParams(1, 1, &f, &a), KS_SUCCESS);
    EXPECT_EQ(f, 0);
    EXPECT_EQ(a, 0);
    K_GetChangeViewPerspectiveParams(6, 1, &f, &a);
    EXPECT_EQ(f, 0);
    EXPECT_EQ(a, 90);
    K_GetChangeViewPerspectiveParams(1, 6, &f, &a);
    EXPECT_EQ(f, 0);
    EXPECT_EQ(a, 270);
    K_GetChangeViewPerspectiveParams(4, 1, &f, &a);
    EXPECT_EQ(f, 1);
    EXPECT_EQ(a, 0);
    EXPECT_EQ(K_GetChangeViewPerspectiveParams(0, 1, &f, &a), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetChangeViewPerspectiveParams(1, 9, &f, &a), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetChangeViewPerspectiveParams(1, 2, nullptr, &a), KS_INVALID_PARAMETER);
    BITMAPRECORD bm;
    K_InitBitmap(&bm, BITMAPRECORD_SIZE, 30, 20, 8);
    bm.nViewPerspective = 3;
    int32_t x = 0, y = 0;
    ASSERT_EQ(K_PointToBitmap(&bm, 1, &x, &y), KS_SUCCESS);
    EXPECT_EQ(x, 29);
    EXPECT_EQ(y, 19);
    bm.uStructSize = 99;
    EXPECT_EQ(K_PointToBitmap(&bm, 1, &x, &y), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_RectToBitmap(nullptr, 1, nullptr), KS_INVALID_PARAMETER);
    bm.uStructSize = BITMAPRECORD_SIZE;
    EXPECT_EQ(K_RectToBitmap(&bm, 3, nullptr), KS_SUCCESS);  // equal perspectives: nothing to do
}

// Geometric meaning of the eight values: where the viewed (top-left view)
// image's pixel lands in the stored image, computed from the table's words.
void storedPos(int vp, int W, int H, int x, int y, int* sx, int* sy) {
    // first row / first column of the stored image in the viewed image
    switch (vp) {
        case 1: *sx = x; *sy = y; break;
        case 2: *sx = W - 1 - x; *sy = y; break;
        case 3: *sx = W - 1 - x; *sy = H - 1 - y; break;
        case 4: *sx = x; *sy = H - 1 - y; break;
        case 5: *sx = y; *sy = x; break;                  // rows are the left columns, columns from the top
        case 6: *sx = y; *sy = W - 1 - x; break;          // rows from the right column
        case 7: *sx = H - 1 - y; *sy = W - 1 - x; break;  // columns from the bottom
        default: *sx = H - 1 - y; *sy = x; break;         // 8: rows from the left, columns from the bottom
    }
}

TEST(RegionsViewPerspective, PointAndRectConversionsAgreeWithTheOrientationTable) {
    const int W = 7, H = 5;  // top-left view
    for (int from = 1; from <= 8; ++from)
        for (int to = 1; to <= 8; ++to) {
            const int fw = from >= 5 ? H : W, fh = from >= 5 ? W : H;
            for (int y = 0; y < H; ++y)
                for (int x = 0; x < W; ++x) {
                    int ax, ay, bx, by;
                    storedPos(from, W, H, x, y, &ax, &ay);
                    storedPos(to, W, H, x, y, &bx, &by);
                    int px = ax, py = ay;
                    ASSERT_EQ(K_ChangePointViewPerspective(from, fw, fh, to, &px, &py), KS_SUCCESS);
                    ASSERT_EQ(px, bx) << from << "->" << to << " at " << x << "," << y;
                    ASSERT_EQ(py, by) << from << "->" << to << " at " << x << "," << y;
                    // A one-pixel rectangle moves with its pixel.
                    RECT r{ax, ay, ax + 1, ay + 1};
                    ASSERT_EQ(K_ChangeRectViewPerspective(from, fw, fh, to, &r), KS_SUCCESS);
                    RECT want{bx, by, bx + 1, by + 1};
                    ASSERT_TRUE(EqualRect(&r, &want)) << from << "->" << to;
                }
        }
}

}  // namespace
