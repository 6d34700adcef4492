// Nearest-pixel resizing, the row-at-a-time resizer, the black-preserving
// reduction and the frame of K_SizeBitmap. Oracles: target pixel i takes
// source pixel floor(i * old / new) (computed here with one division), row
// counts floor((r + 1) new / old) - floor(r new / old), block counts made by
// walking every pixel.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include "krn/common/resize.h"
#include "transform_kit.h"

using namespace tkit;

namespace {

const int32_t kDepths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};

uint64_t px(const uint8_t* row, int32_t x, int32_t bpp) { return pixelAt(row, x, bpp); }
uint64_t maskOf(int32_t bpp) { return bpp == 64 ? ~uint64_t(0) : (uint64_t(1) << bpp) - 1; }
void fillRandom(BITMAPRECORD* bm, uint32_t seed) {
    RefImage r(bm->nWidth, bm->nHeight, bm->nBitsPerPixel);
    r.randomize(seed);
    ASSERT_EQ(putImage(bm, r), KS_SUCCESS);
}
std::vector<uint8_t> readAll(BITMAPRECORD* bm) { return getImage(bm).px; }

// The nearest rule on one row, every depth and every pair of widths up to 64:
// K_GetResizedScanLine, its reverse and K_Resize in place all take source
// pixel floor(i old / new).
TEST(ResizeScanLine, EveryDepthEverySizePairTakesFloorOfIOldOverNew) {
    for (int32_t bpp : kDepths) {
        std::vector<uint8_t> src(64 * 8 + 16), dst(src.size()), back(src.size()), buf(src.size());
        std::mt19937_64 rng{uint64_t(bpp)};
        for (int32_t oldW = 1; oldW <= 64; ++oldW) {
            for (int32_t x = 0; x < oldW; ++x) setPixelAt(src.data(), x, bpp, rng() & maskOf(bpp));
            for (int32_t newW = 1; newW <= 64; ++newW) {
                int32_t step = oldW / newW, rem = oldW % newW;
                if (newW >= oldW && rem == 0) {
                    step = 0;
                    rem = newW;
                }
                std::fill(dst.begin(), dst.end(), 0);
                std::fill(back.begin(), back.end(), 0);
                ASSERT_EQ(K_GetResizedScanLine(bpp, 0, 0, step, 0, rem, src.data(), dst.data(), uint32_t(newW), newW, 0),
                          KS_SUCCESS);
                ASSERT_EQ(K_ReverseGetResizedScanLine(bpp, 0, 0, step, 0, rem, src.data(), back.data(), uint32_t(newW),
                                                      newW, 0),
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
                    const uint64_t want = px(src.data(), int32_t((int64_t(i) * oldW) / newW), bpp);
                    ASSERT_EQ(px(dst.data(), i, bpp), want) << "bpp " << bpp << " " << oldW << "->" << newW << " at " << i;
                    ASSERT_EQ(px(back.data(), i, bpp), want) << "reverse, bpp " << bpp << " " << oldW << "->" << newW;
                    if (inPlace) {
                        ASSERT_EQ(px(buf.data(), i, bpp), want) << "in place, bpp " << bpp << " " << oldW << "->" << newW;
                    }
                }
            }
        }
    }
}

TEST(ResizeScanLine, NullBuffersAndBadArgumentsDoNothing) {
    uint8_t a[8] = {1, 2, 3, 4, 5, 6, 7, 8}, b[8] = {};
    EXPECT_EQ(K_GetResizedScanLine(8, 1, 0, 1, 0, 0, nullptr, b, 4, 4, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_ReverseGetResizedScanLine(8, 1, 0, 1, 0, 0, a, nullptr, 4, 4, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetResizedScanLine(9, 1, 0, 1, 0, 0, a, b, 4, 4, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetResizedScanLine(8, 1, 0, 1, 0, 0, a, b, 4, 0, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(std::count(b, b + 8, 0), 8);
}

// The stepping rule of whole bitmaps, both axes, on every depth.
TEST(ResizeNearest, WholeBitmapsFollowTheRuleOnEveryDepth) {
    for (int32_t bpp : kDepths) {
        for (int32_t oldN = 1; oldN <= 64; oldN += 7) {
            for (int32_t newN = 1; newN <= 64; newN += 9) {
                const int32_t ow = oldN, oh = 65 - oldN, nw = newN, nh = (newN * 3) % 64 + 1;
                BITMAPRECORD bm;
                ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, ow, oh, bpp, bpp == 12 ? ORDER_GRAY : ORDER_BGR,
                                         nullptr, 1, nullptr, 0),
                          KS_SUCCESS);
                fillRandom(&bm, uint32_t(bpp * 1000 + oldN));
                const auto before = readAll(&bm);
                const uint32_t obpl = bm.nBytesPerLine;
                ASSERT_EQ(K_SizeBitmap(&bm, nw, nh, SIZE_NORMAL), KS_SUCCESS);
                ASSERT_EQ(bm.nWidth, nw);
                ASSERT_EQ(bm.nHeight, nh);
                ASSERT_EQ(bm.nBitsPerPixel, bpp);
                const auto after = readAll(&bm);
                for (int32_t y = 0; y < nh; ++y)
                    for (int32_t x = 0; x < nw; ++x) {
                        const int32_t sx = int32_t(int64_t(x) * ow / nw), sy = int32_t(int64_t(y) * oh / nh);
                        ASSERT_EQ(px(after.data() + size_t(y) * bm.nBytesPerLine, x, bpp),
                                  px(before.data() + size_t(sy) * obpl, sx, bpp))
                            << "bpp " << bpp << " " << ow << "x" << oh << " -> " << nw << "x" << nh << " at " << x
                            << "," << y;
                    }
                K_FreeBitmap(&bm);
            }
        }
    }
}

// Exact halving and doubling of 24-bit rows (the vector paths) against the
// rule, with and without the plain path forced.
TEST(ResizeNearest, HalvingAndDoubling24BitWithAndWithoutVectors) {
    for (bool plain : {false, true}) {
        krn::resampletest::forcePlain(plain);
        for (int32_t w = 1; w <= 70; ++w)
            for (auto [nw, nh] : {std::pair{w / 2, 3}, {w * 2, 3}, {(w + 1) / 2, 2}}) {
                if (nw < 1) continue;
                BITMAPRECORD bm;
                ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, w, 5, 24, ORDER_BGR, nullptr, 1, nullptr, 0),
                          KS_SUCCESS);
                fillRandom(&bm, uint32_t(w));
                const auto before = readAll(&bm);
                const uint32_t obpl = bm.nBytesPerLine;
                ASSERT_EQ(K_SizeBitmap(&bm, nw, nh, 0), KS_SUCCESS);
                const auto after = readAll(&bm);
                for (int32_t y = 0; y < nh; ++y)
                    for (int32_t x = 0; x < nw; ++x)
                        ASSERT_EQ(getPixel(after.data() + size_t(y) * bm.nBytesPerLine, x, 24),
                                  getPixel(before.data() + size_t(y * 5 / nh) * obpl, int32_t(int64_t(x) * w / nw), 24))
                            << w << " -> " << nw << " plain " << plain;
                // The padding past the last pixel stays zero.
                for (uint32_t b = uint32_t(nw) * 3; b < bm.nBytesPerLine; ++b) ASSERT_EQ(after[b], 0) << w << "->" << nw;
                K_FreeBitmap(&bm);
            }
        krn::resampletest::forcePlain(false);
    }
}

int32_t expectedRows(int64_t r, int64_t oldH, int64_t newH) { return int32_t((r + 1) * newH / oldH - r * newH / oldH); }

TEST(ResizeRows, CountsInForwardBackwardAndRandomOrder) {
    std::mt19937 rng(7);
    for (int32_t oldH = 1; oldH <= 40; ++oldH)
        for (int32_t newH = 1; newH <= 40; ++newH) {
            void* s = nullptr;
            ASSERT_EQ(K_StartResize(3, oldH, 5, newH, &s), KS_SUCCESS);
            std::vector<int32_t> order(static_cast<size_t>(oldH));
            std::iota(order.begin(), order.end(), 0);
            std::vector<int32_t> seq = order;                  // forward
            seq.insert(seq.end(), order.rbegin(), order.rend());  // then backward
            std::shuffle(order.begin(), order.end(), rng);
            seq.insert(seq.end(), order.begin(), order.end());  // then random
            seq.push_back(oldH / 2);                               // and zig-zags around one row
            if (oldH / 2 + 1 < oldH) seq.push_back(oldH / 2 + 1);
            seq.push_back(oldH / 2);
            if (oldH / 2 > 0) seq.push_back(oldH / 2 - 1);
            int64_t total = 0;
            for (size_t i = 0; i < seq.size(); ++i) {
                uint8_t buf[64] = {};
                int32_t w = 0, n = -1;
                const int32_t r = seq[i];
                ASSERT_EQ(K_Resize(buf, r, 24, &w, &n, s), expectedRows(r, oldH, newH))
                    << oldH << "->" << newH << " row " << r << " call " << i;
                if (i < size_t(oldH)) total += n;
            }
            EXPECT_EQ(total, newH);
            K_StopResize(s);
        }
}

TEST(ResizeRows, BadArguments) {
    void* s = nullptr;
    EXPECT_EQ(K_StartResize(0, 3, 4, 4, &s), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_StartResize(3, -1, 4, 4, &s), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_StartResize(3, 3, 4, 4, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_StartResize(3, 3, INT32_MAX, 4, &s), KS_INVALID_PARAMETER);
    EXPECT_EQ(s, nullptr);
    ASSERT_EQ(K_StartResize(3, 3, 3, 3, &s), KS_SUCCESS);
    uint8_t buf[16] = {9, 8, 7, 6, 5, 4, 3, 2, 1};
    int32_t w = 0, n = 0;
    EXPECT_EQ(K_Resize(buf, 1, 24, &w, &n, s), 1);  // equal sizes: once, unchanged
    EXPECT_EQ(buf[0], 9);
    EXPECT_EQ(buf[8], 1);
    EXPECT_EQ(K_Resize(nullptr, 1, 24, &w, &n, s), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_Resize(buf, 1, 24, nullptr, &n, s), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_Resize(buf, 3, 24, &w, &n, s), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_Resize(buf, 1, 9, &w, &n, s), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_Resize(buf, 1, 24, &w, &n, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_StopResize(s), KS_SUCCESS);
    EXPECT_EQ(K_StopResize(nullptr), KS_INVALID_PARAMETER);
}

TEST(ResizeSqrt, LargestRootTable) {
    for (uint32_t v : {0u, 1u, 2u, 3u, 4u, 15u, 16u, 17u, 99u, 100u, 65535u, 65536u, 0xFFFFFFFFu}) {
        const uint64_t r = K_SQRT(v);
        EXPECT_LE(r * r, v);
        EXPECT_GT((r + 1) * (r + 1), v);
    }
}

// Favour black: block of bx x by source pixels from floor(x old / new), black
// when at least the threshold of them is black.
TEST(ResizeFavourBlack, BlockCountsAgainstPixelWalk) {
    struct Case {
        int32_t ow, oh, nw, nh;
    } cases[] = {{40, 30, 10, 10}, {37, 29, 5, 7}, {100, 20, 9, 3}, {16, 16, 16, 8}, {9, 9, 20, 20}, {70, 50, 7, 2}};
    for (const auto& c : cases)
        for (bool whiteFirst : {false, true}) {
            BITMAPRECORD bm;
            RGBQUAD pal[2] = {{0, 0, 0, 0}, {255, 255, 255, 0}};
            if (whiteFirst) std::swap(pal[0], pal[1]);
            ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, c.ow, c.oh, 1, 0, pal, 1, nullptr, 0), KS_SUCCESS);
            // Sparse black: about one pixel in four.
            std::mt19937 rng(uint32_t(c.ow * 31 + c.nh));
            std::vector<uint8_t> black(size_t(c.ow) * size_t(c.oh));
            std::vector<uint8_t> row(bm.nBytesPerLine);
            const uint32_t blackBit = whiteFirst ? 1 : 0;
            K_AccessBitmap(&bm);
            for (int32_t y = 0; y < c.oh; ++y) {
                std::fill(row.begin(), row.end(), 0);
                for (int32_t x = 0; x < c.ow; ++x) {
                    black[size_t(y) * c.ow + x] = (rng() % 4 == 0) || (y % 7 == 3 && x > c.ow / 2);
                    setPixel(row.data(), x, 1, black[size_t(y) * c.ow + x] ? blackBit : 1 - blackBit);
                }
                K_PutBitmapRow(&bm, row.data(), y, bm.nBytesPerLine);
            }
            K_ReleaseBitmap(&bm);
            ASSERT_EQ(K_SizeBitmap(&bm, c.nw, c.nh, SIZE_FAVOURBLACK | SIZE_RESAMPLE), KS_SUCCESS);
            ASSERT_EQ(bm.nBitsPerPixel, 1);
            const int32_t bx = std::max(1, c.ow / c.nw), by = std::max(1, c.oh / c.nh);
            int32_t thr = 0;
            while ((thr + 1) * (thr + 1) <= bx * by) ++thr;
            if (thr < 5) thr = std::max(1, thr - 1);
            const auto all = readAll(&bm);
            for (int32_t y = 0; y < c.nh; ++y)
                for (int32_t x = 0; x < c.nw; ++x) {
                    const int32_t sx = int32_t(int64_t(x) * c.ow / c.nw), sy = int32_t(int64_t(y) * c.oh / c.nh);
                    int32_t count = 0;
                    for (int32_t yy = sy; yy < std::min(c.oh, sy + by); ++yy)
                        for (int32_t xx = sx; xx < std::min(c.ow, sx + bx); ++xx) count += black[size_t(yy) * c.ow + xx];
                    const uint64_t want = count >= thr ? blackBit : 1 - blackBit;
                    ASSERT_EQ(getPixel(all.data() + size_t(y) * bm.nBytesPerLine, x, 1), want)
                        << c.ow << "x" << c.oh << "->" << c.nw << "x" << c.nh << " at " << x << "," << y;
                }
            K_FreeBitmap(&bm);
        }
}

TEST(ResizeFavourBlack, ColouredPaletteFallsBackToNearest) {
    BITMAPRECORD bm;
    RGBQUAD pal[2] = {{0, 0, 255, 0}, {0, 255, 0, 0}};
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 40, 8, 1, 0, pal, 1, nullptr, 0), KS_SUCCESS);
    fillRandom(&bm, 3);
    const auto before = readAll(&bm);
    ASSERT_EQ(K_SizeBitmap(&bm, 10, 2, SIZE_FAVOURBLACK), KS_SUCCESS);
    const auto after = readAll(&bm);
    for (int32_t y = 0; y < 2; ++y)
        for (int32_t x = 0; x < 10; ++x)
            EXPECT_EQ(getPixel(after.data() + y * bm.nBytesPerLine, x, 1), getPixel(before.data() + y * 4 * 8, x * 4, 1));
    K_FreeBitmap(&bm);
}

TEST(ResizeScaleToGray, BlackAndWhiteBecomesGreyBlockMeans) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 32, 16, 1, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    fillRandom(&bm, 11);
    const auto before = readAll(&bm);
    const uint32_t obpl = bm.nBytesPerLine;
    ASSERT_EQ(K_SizeBitmap(&bm, 8, 4, SIZE_SCALETOGRAY), KS_SUCCESS);
    ASSERT_EQ(bm.nBitsPerPixel, 8);
    EXPECT_EQ(K_IntIsGrayScaleBitmap(&bm), 1);
    const auto after = readAll(&bm);
    for (int32_t y = 0; y < 4; ++y)
        for (int32_t x = 0; x < 8; ++x) {
            int32_t white = 0;
            for (int32_t yy = 0; yy < 4; ++yy)
                for (int32_t xx = 0; xx < 4; ++xx) white += int32_t(getPixel(before.data() + (4 * y + yy) * obpl, 4 * x + xx, 1));
            const double mean = white * 255.0 / 16.0;
            EXPECT_NEAR(after[size_t(y) * bm.nBytesPerLine + x], mean, 0.5 + 1e-9);
        }
    K_FreeBitmap(&bm);
}

// ---------------------------------------------------------------- frame

TEST(ResizeFrame, SameSizeAndBadArguments) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 20, 10, 24, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
    fillRandom(&bm, 5);
    BITMAPRECORD copy = bm;
    EXPECT_EQ(K_SizeBitmap(&bm, 20, 10, SIZE_RESAMPLE), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(&copy, &bm, sizeof bm), 0);
    EXPECT_EQ(K_SizeBitmap(nullptr, 3, 3, 0), KS_INVALID_PARAMETER);
    // Refused before any allocation: with every allocation failing the answer is still -11.
    const long live = krn::faultinject::liveBlocks();
    for (auto wh : {std::pair{0, 5}, {5, 0}, {-3, 4}, {INT32_MAX, 2}, {2000000000, 2000000000}, {1 << 27, 1 << 22}}) {
        for (uint32_t f : {0u, SIZE_RESAMPLE, SIZE_BICUBIC, SIZE_LANCZOS, SIZE_RESAMPLE | SIZE_PREMULTIPLY}) {
            krn::faultinject::arm(0, -1);
            const int32_t rc = K_SizeBitmap(&bm, wh.first, wh.second, f);
            const long injected = krn::faultinject::injected();
            krn::faultinject::disarm();
            EXPECT_EQ(rc, KS_INVALID_DIMENSIONS) << wh.first << "x" << wh.second << " flags " << f;
            EXPECT_EQ(injected, 0);
            EXPECT_EQ(std::memcmp(&copy, &bm, sizeof bm), 0);
        }
    }
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    EXPECT_EQ(K_SizeBitmap(&bm, 5, 5, 0x40), KS_INVALID_PARAMETER);
    bm.uStructSize = 100;
    EXPECT_EQ(K_SizeBitmap(&bm, 5, 5, 0), KS_INVALID_STRUCT_SIZE);
    bm.uStructSize = BITMAPRECORD_SIZE;
    BITMAPRECORD empty;
    K_InitBitmap(&empty, BITMAPRECORD_SIZE, 4, 4, 8);
    EXPECT_EQ(K_SizeBitmap(&empty, 5, 5, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_ResizeBitmap(&bm, &empty, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_ResizeBitmap(&bm, &bm, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_IntResizeBitmap(&bm, nullptr, 0), KS_INVALID_BITMAP);
    K_FreeBitmap(&bm);
}

TEST(ResizeFrame, RegionIsScaledAndTheFieldsStay) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 40, 20, 8, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    RECT r = {10, 4, 30, 12};
    ASSERT_EQ(K_SetBitmapRgnRect(&bm, nullptr, &r, 1), KS_SUCCESS);
    bm.nXResolution = 300;
    bm.nLowBit = 1;
    bm.nHighBit = 6;
    ASSERT_EQ(K_SizeBitmap(&bm, 80, 10, 0), KS_SUCCESS);
    EXPECT_EQ(bm.nXResolution, 300);  // the describing fields stay with the depth
    EXPECT_EQ(bm.nLowBit, 1);
    EXPECT_EQ(bm.nHighBit, 6);
    RECT b{};
    ASSERT_EQ(K_GetBitmapRgnBounds(&bm, nullptr, &b), KS_SUCCESS);
    EXPECT_EQ(b.left, 20);
    EXPECT_EQ(b.right, 60);
    EXPECT_EQ(b.top, 2);
    EXPECT_EQ(b.bottom, 6);
    K_FreeBitmap(&bm);
}

TEST(ResizeStorage, TiledBitmapOverTheCapResizesRowByRow) {
    storagetest::CapGuard guard;
    // Tiles in files: nothing of the image sits in conventional memory.
    KindBitmap kb(Kind::TilesFile, 600, 400, 24);
    ASSERT_EQ(kb.rc, KS_SUCCESS);
    fillRandom(&kb.bm, 5);
    const auto before = readAll(&kb.bm);
    int64_t counter = 0;
    K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter);
    // A cap far below one image: the target must also leave memory.
    K_ManageMemory(MANAGEMEMORY_SET_CAP, counter + 64 * 1024, nullptr);
    ASSERT_EQ(K_SizeBitmap(&kb.bm, 900, 500, SIZE_NORMAL), KS_SUCCESS);
    uint32_t type = 0;
    K_GetBitmapMemoryInfo(&kb.bm, &type, nullptr, nullptr, nullptr);
    EXPECT_NE(type, 1u);
    const auto after = readAll(&kb.bm);
    for (int32_t y = 0; y < 500; y += 37)
        for (int32_t x = 0; x < 900; x += 13)
            ASSERT_EQ(getPixel(after.data() + size_t(y) * kb.bm.nBytesPerLine, x, 24),
                      getPixel(before.data() + size_t(y * 400 / 500) * 1800, x * 600 / 900, 24));
    ASSERT_EQ(K_SizeBitmap(&kb.bm, 300, 200, SIZE_RESAMPLE), KS_SUCCESS);
    EXPECT_EQ(kb.bm.nWidth, 300);
}

TEST(ResizeIntoDestination, FlippedPerspectiveWritesRowsBottomUp) {
    BITMAPRECORD a, b;
    ASSERT_EQ(K_CreateBitmap(&a, BITMAPRECORD_SIZE, 1, 6, 6, 8, 0, nullptr, TOP_LEFT, nullptr, 0), KS_SUCCESS);
    ASSERT_EQ(K_CreateBitmap(&b, BITMAPRECORD_SIZE, 1, 3, 3, 8, 0, nullptr, BOTTOM_LEFT, nullptr, 0), KS_SUCCESS);
    fillRandom(&a, 1);
    const auto src = readAll(&a);
    ASSERT_EQ(K_ResizeBitmap(&a, &b, 0), KS_SUCCESS);
    const auto dst = readAll(&b);
    for (int32_t y = 0; y < 3; ++y)
        for (int32_t x = 0; x < 3; ++x) EXPECT_EQ(dst[size_t(2 - y) * b.nBytesPerLine + x], src[size_t(2 * y) * a.nBytesPerLine + 2 * x]);
    K_FreeBitmap(&a);
    K_FreeBitmap(&b);
}

// Every pair of perspectives: each source pixel holds its own viewed
// coordinates, and every target pixel, looked at in the top-left view, must
// come from the source pixel at its scaled viewed position (within one pixel:
// an axis stored reversed floors the other way).
TEST(ResizeIntoDestination, EveryPerspectivePairKeepsTheViewedImage) {
    const int32_t vw = 23, vh = 17, nvw = 11, nvh = 29;  // viewed sizes
    for (int32_t sp = 1; sp <= 8; ++sp)
        for (int32_t dp = 1; dp <= 8; ++dp) {
            const bool sRot = sp >= 5, dRot = dp >= 5;
            BITMAPRECORD a, b;
            ASSERT_EQ(K_CreateBitmap(&a, BITMAPRECORD_SIZE, 1, sRot ? vh : vw, sRot ? vw : vh, 24, ORDER_BGR, nullptr,
                                     sp, nullptr, 0),
                      KS_SUCCESS);
            ASSERT_EQ(K_CreateBitmap(&b, BITMAPRECORD_SIZE, 1, dRot ? nvh : nvw, dRot ? nvw : nvh, 24, ORDER_BGR,
                                     nullptr, dp, nullptr, 0),
                      KS_SUCCESS);
            std::vector<uint8_t> row(a.nBytesPerLine);
            K_AccessBitmap(&a);
            for (int32_t y = 0; y < a.nHeight; ++y) {
                for (int32_t x = 0; x < a.nWidth; ++x) {
                    int32_t px = x, py = y;
                    ASSERT_EQ(K_PointFromBitmap(&a, TOP_LEFT, &px, &py), KS_SUCCESS);
                    row[size_t(x) * 3] = uint8_t(px);
                    row[size_t(x) * 3 + 1] = uint8_t(py);
                    row[size_t(x) * 3 + 2] = 7;
                }
                K_PutBitmapRow(&a, row.data(), y, a.nBytesPerLine);
            }
            K_ReleaseBitmap(&a);
            ASSERT_EQ(K_ResizeBitmap(&a, &b, 0), KS_SUCCESS) << sp << " -> " << dp;
            std::vector<uint8_t> out(b.nBytesPerLine);
            K_AccessBitmap(&b);
            for (int32_t y = 0; y < b.nHeight; ++y) {
                K_GetBitmapRow(&b, out.data(), y, b.nBytesPerLine);
                for (int32_t x = 0; x < b.nWidth; ++x) {
                    int32_t qx = x, qy = y;
                    ASSERT_EQ(K_PointFromBitmap(&b, TOP_LEFT, &qx, &qy), KS_SUCCESS);
                    // floor(q old / new) forwards, old - 1 - floor((new - 1 - q) old / new) on a
                    // reversed axis: both lie in [q old / new - 1, (q + 1) old / new].
                    const double sx = out[size_t(x) * 3], sy = out[size_t(x) * 3 + 1];
                    ASSERT_EQ(out[size_t(x) * 3 + 2], 7);
                    ASSERT_GE(sx, double(qx) * vw / nvw - 1) << sp << " -> " << dp << " at " << qx << "," << qy;
                    ASSERT_LE(sx, double(qx + 1) * vw / nvw) << sp << " -> " << dp << " at " << qx << "," << qy;
                    ASSERT_GE(sy, double(qy) * vh / nvh - 1) << sp << " -> " << dp << " at " << qx << "," << qy;
                    ASSERT_LE(sy, double(qy + 1) * vh / nvh) << sp << " -> " << dp << " at " << qx << "," << qy;
                }
            }
            K_ReleaseBitmap(&b);
            K_FreeBitmap(&a);
            K_FreeBitmap(&b);
        }
}

}  // namespace
