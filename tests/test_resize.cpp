// Nearest resizing (target pixel i takes source pixel floor(i old / new)), the row-at-a-time resizer, the
// black-preserving reduction and K_SizeBitmap's frame.

#include "krn/common/resize.h"
#include "transform_kit.h"

using namespace tkit;

namespace {

uint64_t maskOf(int32_t bpp) { return bpp == 64 ? ~uint64_t(0) : (uint64_t(1) << bpp) - 1; }
// "" when `after` takes pixel (floor(x old / new), floor(y old / new)) of `before` everywhere.
std::string nearestRule(RefImage& before, RefImage& after) {
    return firstMismatch(after, [&](int x, int y) {
        return pixelAt(before.row(int32_t(int64_t(y) * before.height / after.height)),
                       int32_t(int64_t(x) * before.width / after.width), before.bpp);
    });
}

// The nearest rule on one row, every depth and every pair of widths up to 64: K_GetResizedScanLine, its reverse and
// K_Resize in place all take source pixel floor(i old / new).
TEST(ResizeScanLine, EveryDepthEverySizePairTakesFloorOfIOldOverNew) {
    for (int32_t bpp : allDepths()) {
        std::vector<uint8_t> src(64 * 8 + 16), dst(src.size()), back(src.size()), buf(src.size());
        std::mt19937_64 rng{uint64_t(bpp)};
        for (int32_t oldW = 1; oldW <= 64; ++oldW) {
            for (int32_t x = 0; x < oldW; ++x) setPixel(src.data(), x, bpp, rng() & maskOf(bpp));
            for (int32_t newW = 1; newW <= 64; ++newW) {
                int32_t step = oldW / newW, rem = oldW % newW;
                if (newW >= oldW && rem == 0) step = 0, rem = newW;
                std::fill(dst.begin(), dst.end(), 0), std::fill(back.begin(), back.end(), 0);
                const uint32_t nw = uint32_t(newW);
                const uint8_t* in = src.data();
                ASSERT_EQ(K_GetResizedScanLine(bpp, 0, 0, step, 0, rem, in, dst.data(), nw, newW, 0), KS_SUCCESS);
                ASSERT_EQ(K_ReverseGetResizedScanLine(bpp, 0, 0, step, 0, rem, in, back.data(), nw, newW, 0),
                          KS_SUCCESS);
                const bool inPlace = (oldW + newW) % 4 == 0;  // a quarter of the pairs, to stay fast
                buf = src;
                if (inPlace) {
                    void* state = nullptr;
                    int32_t w = 0, n = 0;
                    ASSERT_EQ(K_StartResize(oldW, 4, newW, 9, &state), KS_SUCCESS);
                    ASSERT_EQ(K_Resize(buf.data(), 0, bpp, &w, &n, state), 2);
                    K_StopResize(state);
                }
                for (int32_t i = 0; i < newW; ++i) {
                    const uint64_t want = pixelAt(src.data(), int32_t((int64_t(i) * oldW) / newW), bpp);
                    ASSERT_TRUE(pixelAt(dst.data(), i, bpp) == want && pixelAt(back.data(), i, bpp) == want &&
                                (!inPlace || pixelAt(buf.data(), i, bpp) == want))
                        << "bpp " << bpp << " " << oldW << "->" << newW << " at " << i << (inPlace ? " in place" : "");
                }
            }
        }
    }
    uint8_t a[8] = {1, 2, 3, 4, 5, 6, 7, 8}, b[8] = {};
    EXPECT_EQ(std::vector<int32_t>({K_GetResizedScanLine(8, 1, 0, 1, 0, 0, nullptr, b, 4, 4, 0),
                                    K_ReverseGetResizedScanLine(8, 1, 0, 1, 0, 0, a, nullptr, 4, 4, 0),
                                    K_GetResizedScanLine(9, 1, 0, 1, 0, 0, a, b, 4, 4, 0),
                                    K_GetResizedScanLine(8, 1, 0, 1, 0, 0, a, b, 4, 0, 0)}),
              std::vector<int32_t>(4, KS_INVALID_PARAMETER));
    EXPECT_EQ(std::count(b, b + 8, 0), 8);
}

// The stepping rule of whole bitmaps, both axes, on every depth; exact halving and doubling of 24-bit rows (the vector
// paths) with and without the plain path forced, the padding past the last pixel left zero.
TEST(ResizeNearest, WholeBitmapsFollowTheRule) {
    struct Case { int32_t bpp, w, h, nw, nh; bool plain; };
    std::vector<Case> cases;
    for (int32_t bpp : allDepths())
        for (int32_t oldN = 1; oldN <= 64; oldN += 7)
            for (int32_t newN = 1; newN <= 64; newN += 9)
                cases.push_back({bpp, oldN, 65 - oldN, newN, (newN * 3) % 64 + 1, false});
    for (bool plain : {false, true})
        for (int32_t w = 1; w <= 70; ++w)
            for (auto [nw, nh] : {std::pair{w / 2, 3}, {w * 2, 3}, {(w + 1) / 2, 2}})
                if (nw > 0) cases.push_back({24, w, 5, nw, nh, plain});
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.bpp << " bits " << c.w << "x" << c.h << " -> " << c.nw << "x" << c.nh
                                          << " plain " << c.plain);
        Source src(Kind::SingleBlock, c.w, c.h, c.bpp, uint32_t(c.bpp * 1000 + c.w));
        krn::resampletest::forcePlain(c.plain);
        ASSERT_EQ(K_SizeBitmap(src.bm(), c.nw, c.nh, SIZE_NORMAL), KS_SUCCESS);
        krn::resampletest::forcePlain(false);
        RefImage after = getImage(src.bm());
        ASSERT_EQ(after.bpp, c.bpp);
        ASSERT_EQ(nearestRule(src.ref, after), "");
        for (uint32_t b = uint32_t(c.nw) * 3; c.bpp == 24 && b < after.bpl; ++b) ASSERT_EQ(after.px[b], 0) << b;
    }
}

// Row counts of the row-at-a-time resizer in forward, backward, random and zig-zag order; its bad arguments.
TEST(ResizeRows, CountsInEveryOrderAndBadArguments) {
    std::mt19937 rng(7);
    for (int32_t oldH = 1; oldH <= 40; ++oldH)
        for (int32_t newH = 1; newH <= 40; ++newH) {
            void* s = nullptr;
            ASSERT_EQ(K_StartResize(3, oldH, 5, newH, &s), KS_SUCCESS);
            std::vector<int32_t> seq(size_t(3 * oldH));  // forward, backward, shuffled, then a zig-zag
            for (int32_t i = 0; i < oldH; ++i)
                seq[size_t(i)] = seq[size_t(2 * oldH - 1 - i)] = seq[size_t(2 * oldH + i)] = i;
            std::shuffle(seq.begin() + 2 * oldH, seq.end(), rng);
            for (int32_t r : {oldH / 2, oldH / 2 + 1, oldH / 2, oldH / 2 - 1})
                if (r >= 0 && r < oldH) seq.push_back(r);
            int64_t total = 0;
            for (size_t i = 0; i < seq.size(); ++i) {
                uint8_t buf[64] = {};
                int32_t w = 0, n = -1;
                const int64_t r = seq[i];
                ASSERT_EQ(K_Resize(buf, int32_t(r), 24, &w, &n, s), int32_t((r + 1) * newH / oldH - r * newH / oldH))
                    << oldH << "->" << newH << " row " << r;
                total += i < size_t(oldH) ? n : 0;
            }
            EXPECT_EQ(total, newH);
            K_StopResize(s);
        }
    void* s = nullptr;
    const int32_t P = KS_INVALID_PARAMETER;
    EXPECT_EQ(std::vector<int32_t>({K_StartResize(0, 3, 4, 4, &s), K_StartResize(3, -1, 4, 4, &s),
                                    K_StartResize(3, 3, 4, 4, nullptr), K_StartResize(3, 3, INT32_MAX, 4, &s)}),
              std::vector<int32_t>(4, P));
    EXPECT_EQ(s, nullptr);
    ASSERT_EQ(K_StartResize(3, 3, 3, 3, &s), KS_SUCCESS);
    uint8_t buf[16] = {9, 8, 7, 6, 5, 4, 3, 2, 1};
    int32_t w = 0, n = 0;
    EXPECT_EQ(K_Resize(buf, 1, 24, &w, &n, s), 1);  // equal sizes: once, unchanged
    EXPECT_EQ(buf[0] * 10 + buf[8], 91);
    EXPECT_EQ(std::vector<int32_t>({K_Resize(nullptr, 1, 24, &w, &n, s), K_Resize(buf, 1, 24, nullptr, &n, s),
                                    K_Resize(buf, 3, 24, &w, &n, s), K_Resize(buf, 1, 9, &w, &n, s),
                                    K_Resize(buf, 1, 24, &w, &n, nullptr), K_StopResize(s), K_StopResize(nullptr)}),
              std::vector<int32_t>({P, P, P, P, P, KS_SUCCESS, P}));
    for (uint32_t v : {0u, 1u, 2u, 3u, 4u, 15u, 16u, 17u, 99u, 100u, 65535u, 65536u, 0xFFFFFFFFu}) {
        const uint64_t r = K_SQRT(v);  // the largest root
        EXPECT_TRUE(r * r <= v && (r + 1) * (r + 1) > v) << v;
    }
}

// Favour black: block of bx x by source pixels from floor(x old / new), black when at least the threshold of them is
// black; a coloured palette falls back to the nearest rule.
TEST(ResizeFavourBlack, BlockCountsAgainstPixelWalk) {
    const struct { int32_t ow, oh, nw, nh; } cases[] = {{40, 30, 10, 10}, {37, 29, 5, 7}, {100, 20, 9, 3},
                                                        {16, 16, 16, 8},  {9, 9, 20, 20},  {70, 50, 7, 2}};
    for (const auto& c : cases)
        for (uint32_t ink : {0u, 1u}) {  // the index of black
            RGBQUAD pal[2] = {{0, 0, 0, 0}, {255, 255, 255, 0}};
            if (ink) std::swap(pal[0], pal[1]);
            Bitmap r(c.ow, c.oh, 1, 0, TOP_LEFT, pal);
            RefImage src(c.ow, c.oh, 1);
            std::mt19937 rng(uint32_t(c.ow * 31 + c.nh));
            for (int32_t y = 0; y < c.oh; ++y)  // sparse black: about one pixel in four, and some runs
                for (int32_t x = 0; x < c.ow; ++x)
                    setPixel(src.row(y), x, 1, rng() % 4 == 0 || (y % 7 == 3 && x > c.ow / 2) ? ink : 1 - ink);
            putImage(&r.bm, src);
            ASSERT_EQ(K_SizeBitmap(&r.bm, c.nw, c.nh, SIZE_FAVOURBLACK | SIZE_RESAMPLE), KS_SUCCESS);
            ASSERT_EQ(r.bm.nBitsPerPixel, 1);
            const int32_t bx = std::max(1, c.ow / c.nw), by = std::max(1, c.oh / c.nh);
            int32_t thr = 0;
            while ((thr + 1) * (thr + 1) <= bx * by) ++thr;
            if (thr < 5) thr = std::max(1, thr - 1);
            RefImage got = getImage(&r.bm);
            EXPECT_EQ(firstMismatch(got, [&](int x, int y) {
                          const int32_t sx = int32_t(int64_t(x) * c.ow / c.nw), sy = int32_t(int64_t(y) * c.oh / c.nh);
                          int32_t count = 0;
                          for (int32_t yy = sy; yy < std::min(c.oh, sy + by); ++yy)
                              for (int32_t xx = sx; xx < std::min(c.ow, sx + bx); ++xx)
                                  count += getPixel(src.row(yy), xx, 1) == ink;
                          return count >= thr ? ink : 1 - ink;
                      }), "") << c.ow << "x" << c.oh << "->" << c.nw << "x" << c.nh;
        }
    const RGBQUAD pal[2] = {{0, 0, 255, 0}, {0, 255, 0, 0}};
    Source r(Kind::SingleBlock, 40, 8, 1, 3);
    ASSERT_EQ(K_SetBitmapPalette(r.bm(), pal, 2) | K_SizeBitmap(r.bm(), 10, 2, SIZE_FAVOURBLACK), KS_SUCCESS);
    RefImage after = getImage(r.bm());
    EXPECT_EQ(nearestRule(r.ref, after), "");
}

TEST(ResizeScaleToGray, BlackAndWhiteBecomesGreyBlockMeans) {
    Source src(Kind::SingleBlock, 32, 16, 1, 11);
    ASSERT_EQ(K_SizeBitmap(src.bm(), 8, 4, SIZE_SCALETOGRAY), KS_SUCCESS);
    ASSERT_EQ(src.bm()->nBitsPerPixel * 10 + K_IntIsGrayScaleBitmap(src.bm()), 81);
    RefImage after = getImage(src.bm());
    for (int32_t i = 0; i < 32; ++i) {
        int32_t white = 0;
        for (int32_t j = 0; j < 16; ++j)
            white += int32_t(getPixel(src.ref.row(4 * (i / 8) + j / 4), 4 * (i % 8) + j % 4, 1));
        EXPECT_NEAR(after.row(i / 8)[i % 8], white * 255.0 / 16.0, 0.5 + 1e-9) << i;
    }
}

TEST(ResizeFrame, SameSizeBadArgumentsTheRegionAndTheFields) {
    Source r(Kind::SingleBlock, 20, 10, 24, 5);
    BITMAPRECORD &bm = *r.bm(), copy = bm, empty;
    EXPECT_EQ(K_SizeBitmap(&bm, 20, 10, SIZE_RESAMPLE), KS_SUCCESS);
    EXPECT_TRUE(sameBytes(copy, bm));
    // Refused before any allocation: with every allocation failing the answer is still -11.
    for (auto wh : {std::pair{0, 5}, {5, 0}, {-3, 4}, {INT32_MAX, 2}, {2000000000, 2000000000}, {1 << 27, 1 << 22}})
        for (uint32_t f : {0u, SIZE_RESAMPLE, SIZE_BICUBIC, SIZE_LANCZOS, SIZE_RESAMPLE | SIZE_PREMULTIPLY}) {
            krn::faultinject::arm(0, -1);
            const int32_t rc = K_SizeBitmap(&bm, wh.first, wh.second, f);
            const long injected = krn::faultinject::injected();
            krn::faultinject::disarm();
            EXPECT_TRUE(rc == KS_INVALID_DIMENSIONS && injected == 0 && sameBytes(copy, bm))
                << wh.first << "x" << wh.second << " flags " << f;
        }
    BITMAPRECORD badSize = bm;
    K_InitBitmap(&empty, BITMAPRECORD_SIZE, 4, 4, 8);
    badSize.uStructSize = 100;
    const int32_t P = KS_INVALID_PARAMETER;
    EXPECT_EQ(std::vector<int32_t>({K_SizeBitmap(&bm, 5, 5, 0x40), K_SizeBitmap(&badSize, 5, 5, 0),
                                    K_SizeBitmap(&empty, 5, 5, 0), K_ResizeBitmap(&bm, &empty, 0),
                                    K_ResizeBitmap(&bm, &bm, 0), K_IntResizeBitmap(&bm, nullptr, 0),
                                    K_SizeBitmap(nullptr, 3, 3, 0)}),
              std::vector<int32_t>({P, KS_INVALID_STRUCT_SIZE, P, P, P, KS_INVALID_BITMAP, P}));
    // The region is scaled, the describing fields stay.
    RECT rgn = {5, 2, 15, 6}, got{}, want = {10, 1, 30, 3};
    ASSERT_EQ(K_SetBitmapRgnRect(&bm, nullptr, &rgn, 1), KS_SUCCESS);
    bm.nXResolution = 300, bm.nLowBit = 1, bm.nHighBit = 6;
    ASSERT_EQ(K_SizeBitmap(&bm, 40, 5, 0), KS_SUCCESS);
    EXPECT_EQ(bm.nXResolution * 100 + bm.nLowBit * 10 + bm.nHighBit, 30016);
    ASSERT_EQ(K_GetBitmapRgnBounds(&bm, nullptr, &got), KS_SUCCESS);
    EXPECT_TRUE(EqualRect(&got, &want)) << got.left << "," << got.top << "," << got.right << "," << got.bottom;
}


TEST(ResizeStorage, TiledBitmapOverTheCapResizesRowByRow) {
    storagetest::CapGuard guard;
    Source src(Kind::TilesFile, 600, 400, 24, 5);  // tiles in files: nothing of the image in conventional memory
    ASSERT_EQ(src.kb.rc, KS_SUCCESS);
    int64_t counter = 0;
    K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter);
    K_ManageMemory(MANAGEMEMORY_SET_CAP, counter + 64 * 1024, nullptr);  // far below one image: the target leaves too
    ASSERT_EQ(K_SizeBitmap(src.bm(), 900, 500, SIZE_NORMAL), KS_SUCCESS);
    EXPECT_NE(kindOf(src.bm()), 1u);
    RefImage after = getImage(src.bm());
    EXPECT_EQ(nearestRule(src.ref, after), "");
    ASSERT_EQ(K_SizeBitmap(src.bm(), 300, 200, SIZE_RESAMPLE), KS_SUCCESS);
    EXPECT_EQ(src.bm()->nWidth, 300);
}

}  // namespace
