// Combining two bitmaps: every operation x operator x depth against the
// per-sample reference (combine_reference.h), the worked cases, regions, storage kinds, view
// perspectives, bad input, allocation failures and the status callback.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "combine_reference.h"
#include "krn/common/combine.h"
#include "transform_kit.h"

using combinetest::Format;
using namespace tkit;

namespace {

struct Bmp {
    BITMAPRECORD bm{};
    int32_t rc;
    Bmp(int32_t w, int32_t h, const Format& f, int32_t vp = TOP_LEFT, uint32_t mem = 1) {
        rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, mem, w, h, f.bpp, f.order, nullptr, vp, nullptr, 0);
        if (rc == KS_SUCCESS && f.highBit >= 0) bm.nHighBit = f.highBit;
    }
    ~Bmp() { K_FreeBitmap(&bm); }
};

RefImage readImage(BITMAPRECORD* bm) {
    RefImage img(bm->nWidth, bm->nHeight, bm->nBitsPerPixel);
    for (int32_t y = 0; y < bm->nHeight; ++y) K_GetBitmapRow(bm, img.row(y), y, img.bpl);
    return img;
}
void writeImage(BITMAPRECORD* bm, RefImage& img) {
    for (int32_t y = 0; y < bm->nHeight; ++y) K_PutBitmapRow(bm, img.row(y), y, img.bpl);
}

// Expected destination (stored coordinates = top-left view): the reference applied inside the clipped rectangle.
RefImage expected(const RefImage& dst0, const RefImage& src, const Format& f, uint32_t flags, int32_t xd, int32_t yd,
                  int32_t w, int32_t h, int32_t xs, int32_t ys) {
    RefImage out = dst0;
    const combinetest::Plan p = combinetest::planOf(flags, f.bpp);
    if (p.nothing) return out;
    for (int32_t j = 0; j < h; ++j)
        for (int32_t i = 0; i < w; ++i) {
            const int32_t dx = xd + i, dy = yd + j, sx = xs + i, sy = ys + j;
            if (dx < 0 || dy < 0 || dx >= dst0.width || dy >= dst0.height) continue;
            if (p.readsSrc && (sx < 0 || sy < 0 || sx >= src.width || sy >= src.height)) continue;
            const uint64_t s = p.readsSrc ? combinetest::rawPixel(const_cast<RefImage&>(src).row(sy), sx, f) : 0;
            const uint64_t d = combinetest::rawPixel(out.row(dy), dx, f);
            combinetest::setRawPixel(out.row(dy), dx, f, combinetest::combinePixel(p, s, d, f));
        }
    return out;
}

std::string describe(const Format& f, uint32_t flags) {
    char b[96];
    std::snprintf(b, sizeof b, "bpp %d order %d high %d flags 0x%04X", f.bpp, f.order, f.highBit, flags);
    return b;
}

struct ModeGuard {
    uint32_t old;
    explicit ModeGuard(uint32_t m) : old(krn::setCombineTestMode(m)) {}
    ~ModeGuard() { krn::setCombineTestMode(old); }
};

const Format kFormats[] = {
    {1, 0},  {2, 0},  {3, 0},  {4, 0},  {5, 0},  {6, 0},  {7, 0},  {8, 0},
    {12, ORDER_GRAY}, {12, ORDER_GRAY, 9}, {16, ORDER_BGR}, {16, ORDER_RGB565}, {16, ORDER_GRAY},
    {16, ORDER_GRAY, 11}, {24, ORDER_BGR}, {32, ORDER_BGR}, {32, ORDER_GRAY}, {48, ORDER_BGR}, {64, ORDER_BGR},
};

class CombineOracle : public ::testing::TestWithParam<Format> {};

// Every flag word with valid fields, random images, random odd widths and
// offsets, cycling through the paths (SIMD or plain kernels, in place or row
// layer), against the reference.
TEST_P(CombineOracle, EveryFlagWordMatchesTheReference) {
    const Format f = GetParam();
    const int32_t W = 37, H = 5;
    Bmp dst(W, H, f), src(W + 6, H + 2, f);
    ASSERT_EQ(dst.rc, KS_SUCCESS);
    ASSERT_EQ(src.rc, KS_SUCCESS);
    std::mt19937 rng(1234u + uint32_t(f.bpp) * 7u + uint32_t(f.order) + uint32_t(f.highBit + 1) * 101u);
    RefImage sImg(src.bm.nWidth, src.bm.nHeight, f.bpp);
    sImg.randomize(rng());
    writeImage(&src.bm, sImg);
    int checked = 0;
    for (uint32_t op = 0; op <= 0xD; ++op)
        for (uint32_t sop = 0; sop < 4; ++sop)
            for (uint32_t dop = 0; dop < 4; ++dop)
                for (uint32_t rop = 0; rop < 4; ++rop) {
                    const uint32_t flags = (rop << 12) | (op << 8) | (dop << 4) | sop;
                    RefImage dImg(W, H, f.bpp);
                    dImg.randomize(rng());
                    if (f.bpp == 32 || f.bpp == 64) {
                        // Make some alpha values the extreme ones.
                        for (int32_t y = 0; y < H; ++y)
                            for (int32_t x = 0; x < W; x += 3) dImg.row(y)[x * (f.bpp / 8) + (f.bpp / 8) - 1] = (x & 4) ? 0 : 0xFF;
                    }
                    writeImage(&dst.bm, dImg);
                    const int32_t w = 1 + 2 * int32_t(rng() % 17);   // odd, 1..33
                    const int32_t h = 1 + int32_t(rng() % H);
                    const int32_t xd = int32_t(rng() % 9) - 2, yd = int32_t(rng() % 3) - 1;
                    const int32_t xs = int32_t(rng() % 11), ys = int32_t(rng() % 3);
                    ModeGuard mode((flags * 7u) % 4u);
                    ASSERT_EQ(K_CombineBitmapKrn(&dst.bm, xd, yd, w, h, &src.bm, xs, ys, flags), KS_SUCCESS)
                        << describe(f, flags);
                    RefImage want = expected(dImg, sImg, f, flags, xd, yd, w, h, xs, ys);
                    RefImage got = readImage(&dst.bm);
                    ASSERT_EQ(got.px, want.px) << describe(f, flags) << " rect " << xd << "," << yd << " " << w
                                               << "x" << h << " from " << xs << "," << ys;
                    ++checked;
                }
    EXPECT_EQ(checked, 14 * 64);
}

INSTANTIATE_TEST_SUITE_P(AllDepths, CombineOracle, ::testing::ValuesIn(kFormats),
                         [](const ::testing::TestParamInfo<Format>& i) {
                             return "bpp" + std::to_string(i.param.bpp) + "_order" + std::to_string(i.param.order) +
                                    (i.param.highBit >= 0 ? "_high" + std::to_string(i.param.highBit) : "");
                         });

// The plan word for every valid flag word against the reference plan.
TEST(CombinePlan, AgreesWithTheBitLevelDerivation) {
    for (int32_t bpp : {1, 8, 24}) {
        for (uint32_t flags = 0; flags <= 0xFFFF; ++flags) {
            krn::CombinePlan p;
            const int32_t rc = krn::combinePlan(flags, bpp, &p);
            if (!combinetest::validFlags(flags)) {
                ASSERT_EQ(rc, KS_INVALID_PARAMETER) << flags;
                continue;
            }
            ASSERT_EQ(rc, KS_SUCCESS);
            const combinetest::Plan r = combinetest::planOf(flags, bpp);
            ASSERT_EQ(p.bitwise(), r.bitwise) << flags;
            ASSERT_EQ(p.readsSrc(), r.readsSrc) << flags;
            ASSERT_EQ(p.readsDst(), r.readsDst) << flags;
            ASSERT_EQ(p.nothing(), r.nothing) << flags;
            if (p.bitwise()) {
                for (int s = 0; s < 2; ++s)
                    for (int d = 0; d < 2; ++d) ASSERT_EQ(bool((p.truth() >> (2 * s + d)) & 1), r.truth[s][d]);
            } else {
                const uint32_t op = (flags >> 8) & 0xF;
                const uint32_t code = op == 0xD ? 0x19u : op == 0xC ? 0u : 0x10u + op - 3;
                ASSERT_EQ(p.rowCode(), code) << flags;
                ASSERT_EQ(bool(p.word & 0x100), (flags & 0xF) == 1);
                ASSERT_EQ(bool(p.word & 0x200), (flags & 0xF0) == 0x10);
                ASSERT_EQ(bool(p.word & 0x400), (flags & 0xF000) == 0x1000);
            }
        }
    }
}

// The worked cases of the combine plan.
struct WorkedCase {
    const char* name;
    uint32_t flags;
    Format f;
    std::vector<uint8_t> src, dst, want;  // one pixel each
};

TEST(CombineWorkedCases, Table) {
    const WorkedCase cases[] = {
        {"and with all-ones destination copies the source bits", 0x0030, {24, 1}, {0x12, 0xF0, 0x0F}, {0x80, 0x01, 0x7E}, {0x12, 0xF0, 0x0F}},
        {"no operation leaves the destination", 0x0C00, {24, 1}, {0x12, 0xF0, 0x0F}, {0x80, 0x01, 0x7E}, {0x80, 0x01, 0x7E}},
        {"no operation on the inverted destination inverts it", 0x0C10, {24, 1}, {0x12, 0xF0, 0x0F}, {0x80, 0x01, 0x7E}, {0x7F, 0xFE, 0x81}},
        {"division by a zero source sample gives M", 0x0700, {8, 0}, {0x00}, {0x40}, {0xFF}},
        {"division by a zero destination sample gives M", 0x0800, {24, 1}, {0x10, 0x00, 0x20}, {0x00, 0x10, 0x40}, {0xFF, 0x00, 0x7F}},
        {"division by a zero 5-5-5 sample gives 31", 0x0700, {16, 1}, {0x00, 0x00}, {0x21, 0x04}, {0xFF, 0x7F}},
        {"two transparent pixels blend to black, alpha kept", 0x0D00, {32, 1}, {0x80, 0x90, 0xA0, 0x00}, {0x11, 0x22, 0x33, 0x00}, {0x00, 0x00, 0x00, 0x00}},
        {"opaque source over anything is the source, alpha kept", 0x0D00, {32, 1}, {0x80, 0x90, 0xA0, 0xFF}, {0x11, 0x22, 0x33, 0x40}, {0x80, 0x90, 0xA0, 0x40}},
        {"add with an all-ones source sets every bit", 0x0303, {24, 1}, {0x01, 0x02, 0x03}, {0x10, 0x20, 0x30}, {0xFF, 0xFF, 0xFF}},
        {"add with an all-zero source leaves the destination", 0x0302, {24, 1}, {0x01, 0x02, 0x03}, {0x10, 0x20, 0x30}, {0x10, 0x20, 0x30}},
        {"add saturates", 0x0300, {8, 0}, {0xF0}, {0x20}, {0xFF}},
    };
    for (const WorkedCase& c : cases) {
        SCOPED_TRACE(c.name);
        Bmp dst(1, 1, c.f), src(1, 1, c.f);
        ASSERT_EQ(dst.rc, KS_SUCCESS);
        RefImage s(1, 1, c.f.bpp), d(1, 1, c.f.bpp);
        std::copy(c.src.begin(), c.src.end(), s.row(0));
        std::copy(c.dst.begin(), c.dst.end(), d.row(0));
        writeImage(&src.bm, s);
        writeImage(&dst.bm, d);
        ASSERT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 1, 1, &src.bm, 0, 0, c.flags), KS_SUCCESS);
        RefImage got = readImage(&dst.bm);
        EXPECT_EQ(std::vector<uint8_t>(got.row(0), got.row(0) + c.want.size()), c.want);
    }
}

// The do-nothing plan reports 0 and 100 (the answer of the last report is
// returned); a callback answering 0 stops the work and is returned, the rows
// after it keep their pixels.
TEST(CombineProgress, CallbackReportsAndStops) {
    {
        Bmp dst(8, 8, {8, 0}), src(8, 8, {8, 0});
        StopAfter log;
        StatusScope g(&StopAfter::cb, &log);
        EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 8, 8, nullptr, 0, 0, 0x0C00), KS_SUCCESS);
        EXPECT_EQ(log.seen, (std::vector<int32_t>{0, 100}));
        StopAfter seven(1, 7);
        StatusScope g7(&StopAfter::cb, &seven);
        EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 8, 8, &src.bm, 0, 0, 0x0C00), 7);
    }
    for (uint32_t mode : {0u, 2u, 4u}) {
        ModeGuard m(mode);
        const Format f{24, 1};
        Bmp dst(16, 200, f), src(16, 200, f);
        RefImage d(16, 200, 24), s(16, 200, 24);
        d.randomize(1);
        s.randomize(2);
        writeImage(&dst.bm, d);
        writeImage(&src.bm, s);
        StopAfter stop(3, 0);
        StatusScope g(&StopAfter::cb, &stop);
        EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 16, 200, &src.bm, 0, 0, CombineAdd), 0);
        EXPECT_EQ(stop.calls(), 4);
        RefImage got = readImage(&dst.bm);
        EXPECT_EQ(std::memcmp(got.row(199), d.row(199), d.bpl), 0) << "the last row was combined after the stop";
        EXPECT_EQ(dst.bm.nLockCount, 0);
    }
}

TEST(CombineBadInput, EveryInvalidFlagWordIsRefusedBeforeAnyPixel) {
    const Format f{8, 0};
    Bmp dst(9, 3, f), src(9, 3, f);
    RefImage d(9, 3, 8), s(9, 3, 8);
    d.randomize(5);
    s.randomize(6);
    writeImage(&dst.bm, d);
    writeImage(&src.bm, s);
    const uint32_t bad[] = {0x0004, 0x000F, 0x0040, 0x00F0, 0x0E00, 0x0F00, 0x4000, 0xF000, 0x10000, 0xFFFFFFFF, 0x1000C00};
    for (uint32_t flags : bad) {
        EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 9, 3, &src.bm, 0, 0, flags), KS_INVALID_PARAMETER) << flags;
        EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 9, 3, nullptr, 0, 0, flags), KS_INVALID_PARAMETER) << flags;
    }
    // Every word: refused exactly when a field is out of range.
    for (uint32_t flags = 0; flags <= 0x1FFFF; flags += 7) {
        const int32_t rc = K_CombineBitmapKrn(&dst.bm, 0, 0, 0, 0, &src.bm, 0, 0, flags);
        ASSERT_EQ(rc == KS_INVALID_PARAMETER, !combinetest::validFlags(flags)) << flags;
    }
    RefImage got = readImage(&dst.bm);
    EXPECT_EQ(got.px, d.px);
}

TEST(CombineBadInput, RecordsAndRectangles) {
    const Format f{8, 0};
    Bmp dst(9, 3, f), src(9, 3, f), other(9, 3, {24, 1});
    BITMAPRECORD empty;
    K_InitBitmap(&empty, BITMAPRECORD_SIZE, 9, 3, 8);
    EXPECT_EQ(K_CombineBitmapKrn(nullptr, 0, 0, 1, 1, &src.bm, 0, 0, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CombineBitmapKrn(&empty, 0, 0, 1, 1, &src.bm, 0, 0, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 1, 1, nullptr, 0, 0, CombineAdd), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 1, 1, &empty, 0, 0, CombineAdd), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 1, 1, &other.bm, 0, 0, CombineAdd), KS_INVALID_BITS_PER_PIXEL);
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, -1, 1, &src.bm, 0, 0, CombineAdd), KS_INVALID_PARAMETER);
    BITMAPRECORD bad = src.bm;
    bad.uStructSize = 100;
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 1, 1, &bad, 0, 0, CombineAdd), KS_INVALID_STRUCT_SIZE);
    bad = dst.bm;
    bad.uStructSize = 100;
    EXPECT_EQ(K_CombineBitmapKrn(&bad, 0, 0, 1, 1, &src.bm, 0, 0, CombineAdd), KS_INVALID_STRUCT_SIZE);
    // Rectangles far outside either bitmap, or at the ends of the coordinate range, change nothing.
    RefImage before = readImage(&dst.bm);
    const int32_t big = INT32_MAX, small = INT32_MIN;
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, big, big, big, big, &src.bm, small, small, CombineAdd), KS_SUCCESS);
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, small, small, big, big, &src.bm, big, big, CombineAdd), KS_SUCCESS);
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, -20, 0, 20, 3, &src.bm, 0, 0, CombineAdd), KS_SUCCESS);
    EXPECT_EQ(readImage(&dst.bm).px, before.px);
}

// Each failing allocation returns -1 and leaves the destination as it was,
// nothing leaks; also when the source of another view perspective is
// converted into a temporary record first.
TEST(CombineFaults, AllocationFailureWalkLeavesTheDestination) {
    for (int32_t bpp : {1, 4, 24, 32})
        for (uint32_t mode : {0u, 2u, 9u}) {  // 9: a source of another perspective
            SCOPED_TRACE(::testing::Message() << bpp << " mode " << mode);
            const Format f{bpp, bpp >= 24 ? 1 : 0};
            const bool turned = mode == 9;
            if (turned && bpp != 24) continue;
            Bmp dst(50, 30, f), src(turned ? 30 : 50, turned ? 50 : 30, f, turned ? RIGHT_TOP : TOP_LEFT);
            RefImage d(50, 30, bpp), s(src.bm.nWidth, src.bm.nHeight, bpp);
            d.randomize(9);
            s.randomize(10);
            writeImage(&src.bm, s);
            const uint32_t flags = bpp == 1 ? CombineXor : turned ? CombineMaximum : CombineAlphaOver;
            ModeGuard m(turned ? 0 : mode);
            Bmp clean(50, 30, f);  // the result without faults
            writeImage(&clean.bm, d);
            ASSERT_EQ(K_CombineBitmapKrn(&clean.bm, 3, 1, 41, 25, &src.bm, 1, 0, flags), KS_SUCCESS);
            if (!turned) {
                EXPECT_EQ(readImage(&clean.bm).px, expected(d, s, f, flags, 3, 1, 41, 25, 1, 0).px);
            }
            const int failures = allocationWalk([&](Armed& armed) {
                writeImage(&dst.bm, d);
                if (armed([&] { return K_CombineBitmapKrn(&dst.bm, 3, 1, 41, 25, &src.bm, 1, 0, flags); }) == KS_SUCCESS) {
                    // The storage layer may fall back to another kind after a failed allocation.
                    EXPECT_EQ(readImage(&dst.bm).px, readImage(&clean.bm).px) << armed.n;
                    return;
                }
                EXPECT_EQ(readImage(&dst.bm).px, d.px) << armed.n;
                EXPECT_EQ(dst.bm.nLockCount, 0);
            });
            EXPECT_GT(failures, 0);
            EXPECT_EQ(readImage(&src.bm).px, s.px);
            EXPECT_EQ(src.bm.nViewPerspective, turned ? RIGHT_TOP : TOP_LEFT);
        }
}

// Only the destination region changes: pixels outside it are kept, inside they follow the reference.
TEST(CombineRegions, NothingOutsideTheRegionChanges) {
    for (const Format f : {Format{1, 0}, Format{3, 0}, Format{8, 0}, Format{12, ORDER_GRAY}, Format{24, 1}, Format{32, 1}}) {
        const int32_t W = 41, H = 23;
        Bmp dst(W, H, f), src(W, H, f);
        RefImage d(W, H, f.bpp), s(W, H, f.bpp);
        d.randomize(21);
        s.randomize(22);
        writeImage(&dst.bm, d);
        writeImage(&src.bm, s);
        RECT a{3, 2, 30, 15}, b{10, 8, 40, 22};
        ASSERT_EQ(K_SetBitmapRgnRect(&dst.bm, nullptr, &a, RGN_SET_REPLACE), KS_SUCCESS);
        ASSERT_EQ(K_SetBitmapRgnRect(&dst.bm, nullptr, &b, RGN_SET_XOR), KS_SUCCESS);
        auto inRegion = [&](int x, int y) {
            const bool ia = x >= a.left && x < a.right && y >= a.top && y < a.bottom;
            const bool ib = x >= b.left && x < b.right && y >= b.top && y < b.bottom;
            return ia != ib;
        };
        for (uint32_t flags : {uint32_t(CombineXor), uint32_t(CombineAdd), 0x0030u, uint32_t(CombineAlphaOver | 0x1000)}) {
            writeImage(&dst.bm, d);
            ASSERT_EQ(K_CombineBitmapKrn(&dst.bm, 1, 1, 35, 20, &src.bm, 4, 2, flags), KS_SUCCESS);
            RefImage all = expected(d, s, f, flags, 1, 1, 35, 20, 4, 2);
            RefImage got = readImage(&dst.bm);
            for (int y = 0; y < H; ++y)
                for (int x = 0; x < W; ++x) {
                    const uint64_t g = combinetest::rawPixel(got.row(y), x, f);
                    const uint64_t want = inRegion(x, y) ? combinetest::rawPixel(all.row(y), x, f)
                                                         : combinetest::rawPixel(d.row(y), x, f);
                    ASSERT_EQ(g, want) << describe(f, flags) << " at " << x << "," << y;
                }
        }
    }
}

// Every storage kind on either side gives what two single blocks give.
TEST(CombineStorage, EveryKindOnBothSides) {
    storagetest::CapGuard cap;
    for (int32_t bpp : {1, 4, 8, 24, 32}) {
        const Format f{bpp, bpp >= 24 ? 1 : 0};
        const int32_t W = 45, H = 13;
        RefImage d(W, H, bpp), s(W, H, bpp);
        d.randomize(31);
        s.randomize(32);
        for (uint32_t flags : {bpp == 1 ? uint32_t(CombineXor) : uint32_t(CombineMultiply), 0x0030u}) {
            const RefImage want = expected(d, s, f, flags, 2, 1, 40, 11, 3, 2);
            for (storagetest::Kind dk : storagetest::kindsFor(bpp))
                for (storagetest::Kind sk : storagetest::kindsFor(bpp)) {
                    storagetest::KindBitmap db(dk, W, H, bpp), sb(sk, W, H, bpp);
                    ASSERT_EQ(db.rc, KS_SUCCESS);
                    ASSERT_EQ(sb.rc, KS_SUCCESS);
                    db.bm.nViewPerspective = sb.bm.nViewPerspective = TOP_LEFT;
                    db.bm.nOrder = sb.bm.nOrder = f.order;
                    writeImage(&db.bm, d);
                    writeImage(&sb.bm, s);
                    ASSERT_EQ(K_CombineBitmapKrn(&db.bm, 2, 1, 40, 11, &sb.bm, 3, 2, flags), KS_SUCCESS)
                        << storagetest::kindName(dk) << " <- " << storagetest::kindName(sk);
                    EXPECT_EQ(readImage(&db.bm).px, want.px)
                        << bpp << " " << storagetest::kindName(dk) << " <- " << storagetest::kindName(sk);
                }
        }
    }
}

// Coordinates are in the top-left view of each bitmap.
TEST(CombinePerspective, RectanglesAreMappedIntoEachBitmap) {
    const Format f{8, 0};
    const int32_t W = 13, H = 9;
    RefImage sv(W, H, 8), dv(W, H, 8);  // viewed images
    sv.randomize(41);
    dv.randomize(42);
    RefImage want = expected(dv, sv, f, CombineAdd, 2, 1, 9, 6, 3, 2);
    struct Pair { int32_t dvp, svp; };
    std::vector<Pair> pairs;
    for (int32_t a = 1; a <= 8; ++a)
        for (int32_t b = 1; b <= 8; ++b) pairs.push_back(Pair{a, b});
    for (Pair p : pairs) {
        auto storedDims = [&](int32_t vp) { return vp >= 5 ? std::make_pair(H, W) : std::make_pair(W, H); };
        Bmp dst(storedDims(p.dvp).first, storedDims(p.dvp).second, f, p.dvp);
        Bmp src(storedDims(p.svp).first, storedDims(p.svp).second, f, p.svp);
        ASSERT_EQ(dst.rc, KS_SUCCESS);
        // Place the viewed pixels at their stored positions.
        auto place = [&](Bmp& b, RefImage& viewed) {
            RefImage st(b.bm.nWidth, b.bm.nHeight, 8);
            for (int32_t y = 0; y < H; ++y)
                for (int32_t x = 0; x < W; ++x) {
                    int32_t px = x, py = y;
                    ASSERT_EQ(K_PointToBitmap(&b.bm, TOP_LEFT, &px, &py), KS_SUCCESS);
                    st.row(py)[px] = viewed.row(y)[x];
                }
            writeImage(&b.bm, st);
        };
        place(dst, dv);
        place(src, sv);
        ASSERT_EQ(K_CombineBitmapKrn(&dst.bm, 2, 1, 9, 6, &src.bm, 3, 2, CombineAdd), KS_SUCCESS)
            << p.dvp << " " << p.svp;
        RefImage st = readImage(&dst.bm);
        for (int32_t y = 0; y < H; ++y)
            for (int32_t x = 0; x < W; ++x) {
                int32_t px = x, py = y;
                K_PointToBitmap(&dst.bm, TOP_LEFT, &px, &py);
                ASSERT_EQ(st.row(py)[px], want.row(y)[x]) << p.dvp << " " << p.svp << " at " << x << "," << y;
            }
    }
}

// A bitmap combined with itself, overlapping rectangles: as if the source were read first.
TEST(CombineOverlap, SameBitmapReadsTheSourceBeforeWriting) {
    const Format f{8, 0};
    for (int32_t dy : {-3, 3}) {
        Bmp b(20, 20, f);
        RefImage img(20, 20, 8);
        img.randomize(51);
        writeImage(&b.bm, img);
        const RefImage want = expected(img, img, f, CombineAdd, 2, 5 + dy, 15, 10, 0, 5);
        ASSERT_EQ(K_CombineBitmapKrn(&b.bm, 2, 5 + dy, 15, 10, &b.bm, 0, 5, CombineAdd), KS_SUCCESS);
        EXPECT_EQ(readImage(&b.bm).px, want.px) << dy;
    }
}

// The dispatched kernels against the plain ones on long rows at every alignment.
TEST(CombineKernels, SimdMatchesPlain) {
    std::mt19937 rng(61);
    for (const Format f : {Format{1, 0}, Format{8, 0}, Format{32, 1}, Format{24, 1}}) {
        for (uint32_t flags : {uint32_t(CombineAdd), uint32_t(CombineMinimum), uint32_t(CombineMaximum),
                               uint32_t(CombineMultiply), uint32_t(CombineAlphaOver), uint32_t(CombineSubtractSource),
                               uint32_t(CombineAverage), uint32_t(CombineXor), uint32_t(CombineAnd | 0x0011),
                               uint32_t(CombineOr | 0x1000)}) {
            krn::CombinePlan plan;
            ASSERT_EQ(krn::combinePlan(flags, f.bpp, &plan), KS_SUCCESS);
            BITMAPRECORD rec{};
            rec.nBitsPerPixel = f.bpp;
            rec.nOrder = f.order;
            const krn::CombineFormat cf = krn::combineFormat(&rec);
            const krn::CombineRowFn plain = krn::pickCombineRow(plan, cf, false), wide = krn::pickCombineRow(plan, cf, true);
            for (uint32_t n : {1u, 7u, 31u, 33u, 64u, 257u, 1001u}) {
                const size_t bytes = (size_t(n) * f.bpp + 7) / 8 + 2;
                std::vector<uint8_t> s(bytes), d(bytes);
                for (auto& v : s) v = uint8_t(rng());
                for (auto& v : d) v = uint8_t(rng());
                for (size_t i = 0; f.bpp == 32 && i + 3 < bytes; i += 4 * 3) s[i + 3] = 255;
                for (size_t i = 0; f.bpp == 32 && i + 7 < bytes; i += 4 * 5) s[i + 7] = 0;
                std::vector<uint8_t> d1 = d, d2 = d, scratch(krn::combineScratchBytes(n, f.bpp));
                const uint32_t off = f.bpp == 1 ? n % 8 : 0;
                const uint32_t cnt = f.bpp == 1 && n + off > 8 * (bytes - 1) ? n - off : n;
                plain(plan, cf, {s.data(), off, d1.data(), off, cnt, scratch.data()});
                wide(plan, cf, {s.data(), off, d2.data(), off, cnt, scratch.data()});
                ASSERT_EQ(d1, d2) << describe(f, flags) << " n " << n;
            }
        }
    }
}

// Alpha-over: the dispatched kernel against the plain one for every pair of alpha values.
TEST(CombineKernels, AlphaOverEveryAlphaPair) {
    std::mt19937 rng(62);
    BITMAPRECORD rec{};
    rec.nBitsPerPixel = 32;
    rec.nOrder = ORDER_BGR;
    const krn::CombineFormat cf = krn::combineFormat(&rec);
    // Pattern 0: every (Sa, Da) pair; 1: runs of 8 opaque or transparent source pixels over
    // destination alpha that is sometimes 0 (the block short cuts of the SIMD kernel).
    for (int pattern : {0, 1})
    for (uint32_t flags : {uint32_t(CombineAlphaOver), uint32_t(CombineAlphaOver | 0x1011),
                           uint32_t(CombineAlphaOver | 0x0010)}) {
        krn::CombinePlan plan;
        ASSERT_EQ(krn::combinePlan(flags, 32, &plan), KS_SUCCESS);
        std::vector<uint8_t> s(4 * 65536), d(4 * 65536);
        for (uint32_t k = 0; k < 65536; ++k) {
            for (int c = 0; c < 3; ++c) {
                s[4 * k + c] = uint8_t(rng());
                d[4 * k + c] = uint8_t(rng());
            }
            if (pattern == 0) {
                s[4 * k + 3] = uint8_t(k & 255);
                d[4 * k + 3] = uint8_t(k >> 8);
            } else {
                const uint32_t block = k / 8;
                s[4 * k + 3] = uint8_t(block % 3 == 0 ? 0xFF : block % 3 == 1 ? 0x00 : rng());
                d[4 * k + 3] = uint8_t(rng() % 5 == 0 ? (block & 1) * 0xFF : rng());
            }
        }
        std::vector<uint8_t> d1 = d, d2 = d, scratch(krn::combineScratchBytes(65536, 32));
        krn::pickCombineRow(plan, cf, false)(plan, cf, {s.data(), 0, d1.data(), 0, 65536, scratch.data()});
        krn::pickCombineRow(plan, cf, true)(plan, cf, {s.data(), 0, d2.data(), 0, 65536, scratch.data()});
        ASSERT_EQ(d1, d2) << std::hex << flags;
    }
}

}  // namespace
