// Combining two bitmaps against the per-sample reference of combine_reference.h:
// every flag word and depth, regions, storage kinds, perspectives, faults.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "combine_reference.h"
#include "krn/common/combine.h"
#include "transform_kit.h"

using combinetest::Format;
using namespace tkit;

namespace {

struct Bmp : Bitmap {
    Bmp(int32_t w, int32_t h, const Format& f, int32_t vp = TOP_LEFT) : Bitmap(w, h, f.bpp, f.order, vp) {
        if (f.highBit >= 0) bm.nHighBit = f.highBit;
    }
    Bmp(int32_t w, int32_t h, const Format& f, RefImage& img) : Bmp(w, h, f) { putImage(&bm, img); }
};
RefImage randomImage(int32_t w, int32_t h, int32_t bpp, uint32_t seed) {
    RefImage img(w, h, bpp);
    img.randomize(seed);
    return img;
}

// Expected destination (stored coordinates = top-left view): the reference applied inside the clipped rectangle.
RefImage expected(const RefImage& dst0, RefImage src, const Format& f, uint32_t flags, int32_t xd, int32_t yd,
                  int32_t w, int32_t h, int32_t xs, int32_t ys) {
    RefImage out = dst0;
    const combinetest::Plan p = combinetest::planOf(flags, f.bpp);
    for (int32_t j = 0; j < h && !p.nothing; ++j)
        for (int32_t i = 0; i < w; ++i) {
            const int32_t dx = xd + i, dy = yd + j, sx = xs + i, sy = ys + j;
            if (dx < 0 || dy < 0 || dx >= dst0.width || dy >= dst0.height) continue;
            if (p.readsSrc && (sx < 0 || sy < 0 || sx >= src.width || sy >= src.height)) continue;
            const uint64_t s = p.readsSrc ? combinetest::rawPixel(src.row(sy), sx, f) : 0;
            const uint64_t d = combinetest::rawPixel(out.row(dy), dx, f);
            combinetest::setRawPixel(out.row(dy), dx, f, combinetest::combinePixel(p, s, d, f));
        }
    return out;
}

std::string describe(const Format& f, uint32_t flags) {
    return "bpp " + std::to_string(f.bpp) + " order " + std::to_string(f.order) + " high " + std::to_string(f.highBit) +
           " flags " + std::to_string(flags);
}

struct ModeGuard {
    uint32_t old;
    explicit ModeGuard(uint32_t m) : old(krn::setCombineTestMode(m)) {}
    ~ModeGuard() { krn::setCombineTestMode(old); }
};

const Format kFormats[] = {{1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}, {6, 0}, {7, 0}, {8, 0}, {12, ORDER_GRAY},
                           {12, ORDER_GRAY, 9}, {16, ORDER_BGR}, {16, ORDER_RGB565}, {16, ORDER_GRAY},
                           {16, ORDER_GRAY, 11}, {24, ORDER_BGR}, {32, ORDER_BGR}, {32, ORDER_GRAY}, {48, ORDER_BGR},
                           {64, ORDER_BGR}};

class CombineOracle : public ::testing::TestWithParam<Format> {};

// Every flag word with valid fields, random images, random odd widths and
// offsets, cycling through the paths (SIMD or plain kernels, in place or row
// layer), against the reference.
TEST_P(CombineOracle, EveryFlagWordMatchesTheReference) {
    const Format f = GetParam();
    const int32_t W = 37, H = 5;
    std::mt19937 rng(1234u + uint32_t(f.bpp) * 7u + uint32_t(f.order) + uint32_t(f.highBit + 1) * 101u);
    RefImage sImg = randomImage(W + 6, H + 2, f.bpp, rng());
    Bmp dst(W, H, f), src(W + 6, H + 2, f, sImg);
    ASSERT_EQ(dst.rc | src.rc, KS_SUCCESS);
    for (uint32_t flags = 0; flags < 0x4000; ++flags) {
        if (!combinetest::validFlags(flags)) continue;
        RefImage dImg = randomImage(W, H, f.bpp, rng());
        for (int32_t y = 0; (f.bpp == 32 || f.bpp == 64) && y < H; ++y)  // some alpha values the extreme ones
            for (int32_t x = 0; x < W; x += 3) dImg.row(y)[x * (f.bpp / 8) + (f.bpp / 8) - 1] = (x & 4) ? 0 : 0xFF;
        putImage(&dst.bm, dImg);
        const int32_t w = 1 + 2 * int32_t(rng() % 17), h = 1 + int32_t(rng() % H);  // odd widths 1..33
        const int32_t xd = int32_t(rng() % 9) - 2, yd = int32_t(rng() % 3) - 1, xs = int32_t(rng() % 11),
                      ys = int32_t(rng() % 3);
        ModeGuard mode((flags * 7u) % 4u);
        ASSERT_EQ(K_CombineBitmapKrn(&dst.bm, xd, yd, w, h, &src.bm, xs, ys, flags), KS_SUCCESS) << describe(f, flags);
        ASSERT_EQ(getImage(&dst.bm).px, expected(dImg, sImg, f, flags, xd, yd, w, h, xs, ys).px)
            << describe(f, flags) << " rect " << xd << "," << yd << " " << w << "x" << h << " from " << xs << "," << ys;
    }
}

INSTANTIATE_TEST_SUITE_P(AllDepths, CombineOracle, ::testing::ValuesIn(kFormats), [](const auto& i) {
    return "bpp" + std::to_string(i.param.bpp) + "_order" + std::to_string(i.param.order) +
           (i.param.highBit >= 0 ? "_high" + std::to_string(i.param.highBit) : "");
});

// The worked cases of the combine plan (one pixel each).
// Every flag word: the plan (its truth table over the two input bits, which
// inputs it reads, its row code) equals the one derived bit by bit from the
// operator table by the reference.
TEST(CombinePlan, AgreesWithTheBitLevelDerivation) {
    for (int32_t bpp : {1, 8, 24}) {
        for (uint32_t flags = 0; flags <= 0xFFFF; ++flags) {
            krn::CombinePlan p;
            const int32_t rc = krn::combinePlan(flags, bpp, &p);
            ASSERT_EQ(rc, combinetest::validFlags(flags) ? KS_SUCCESS : KS_INVALID_PARAMETER) << flags;
            if (rc != KS_SUCCESS) continue;
            const combinetest::Plan r = combinetest::planOf(flags, bpp);
            ASSERT_EQ(std::vector<bool>({p.bitwise(), p.readsSrc(), p.readsDst(), p.nothing()}),
                      std::vector<bool>({r.bitwise, r.readsSrc, r.readsDst, r.nothing})) << flags;
            if (p.bitwise()) {
                for (int s = 0; s < 2; ++s)
                    for (int d = 0; d < 2; ++d) ASSERT_EQ(bool((p.truth() >> (2 * s + d)) & 1), r.truth[s][d]);
            } else {
                const uint32_t op = (flags >> 8) & 0xF;
                ASSERT_EQ(p.rowCode(), op == 0xD ? 0x19u : op == 0xC ? 0u : 0x10u + op - 3) << flags;
                ASSERT_EQ(p.word & 0x700, ((flags & 0xF) == 1 ? 0x100u : 0) | ((flags & 0xF0) == 0x10 ? 0x200u : 0) |
                                              ((flags & 0xF000) == 0x1000 ? 0x400u : 0)) << flags;
            }
        }
    }
}

TEST(CombineWorkedCases, Table) {
    const struct { const char* name; uint32_t flags; Format f; std::vector<uint8_t> src, dst, want; } cases[] = {
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
    for (const auto& c : cases) {
        RefImage s(1, 1, c.f.bpp), d(1, 1, c.f.bpp);
        std::copy(c.src.begin(), c.src.end(), s.row(0));
        std::copy(c.dst.begin(), c.dst.end(), d.row(0));
        Bmp dst(1, 1, c.f, d), src(1, 1, c.f, s);
        ASSERT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 1, 1, &src.bm, 0, 0, c.flags), KS_SUCCESS) << c.name;
        RefImage got = getImage(&dst.bm);
        EXPECT_EQ(std::vector<uint8_t>(got.row(0), got.row(0) + c.want.size()), c.want) << c.name;
    }
}

// The do-nothing plan reports 0 and 100 (the answer of the last report is
// returned); a callback answering 0 stops the work and is returned, the rows
// after it keep their pixels.
TEST(CombineProgress, CallbackReportsAndStops) {
    Bmp small(8, 8, {8, 0});
    for (int32_t answer : {1, 7}) {
        StopAfter log(answer == 1 ? -1 : 1, answer);
        StatusScope g(&StopAfter::cb, &log);
        EXPECT_EQ(K_CombineBitmapKrn(&small.bm, 0, 0, 8, 8, answer == 1 ? nullptr : &small.bm, 0, 0, 0x0C00), answer);
        EXPECT_EQ(log.seen, (std::vector<int32_t>{0, 100}));
    }
    for (uint32_t mode : {0u, 2u, 4u}) {
        ModeGuard m(mode);
        RefImage d = randomImage(16, 200, 24, 1), s = randomImage(16, 200, 24, 2);
        Bmp dst(16, 200, {24, 1}, d), src(16, 200, {24, 1}, s);
        StopAfter stop(3, 0);
        StatusScope g(&StopAfter::cb, &stop);
        EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 16, 200, &src.bm, 0, 0, CombineAdd), 0);
        EXPECT_EQ(stop.calls(), 4);
        RefImage got = getImage(&dst.bm);
        EXPECT_EQ(std::memcmp(got.row(199), d.row(199), d.bpl), 0) << "the last row was combined after the stop";
        EXPECT_EQ(dst.bm.nLockCount, 0);
    }
}

// Invalid flag words, records and rectangles: refused (or nothing to do) before any pixel changes.
TEST(CombineBadInput, FlagWordsRecordsAndRectangles) {
    const Format f{8, 0};
    RefImage d = randomImage(9, 3, 8, 5), s = randomImage(9, 3, 8, 6);
    Bmp dst(9, 3, f, d), src(9, 3, f, s), other(9, 3, {24, 1});
    const auto C = K_CombineBitmapKrn;
    BITMAPRECORD *D = &dst.bm, *S = &src.bm, empty, badS = src.bm, badD = dst.bm;
    for (uint32_t flags : {0x0004u, 0x000Fu, 0x0040u, 0x00F0u, 0x0E00u, 0x0F00u, 0x4000u, 0xF000u, 0x10000u, 0xFFFFFFFFu, 0x1000C00u})
        EXPECT_EQ(C(D, 0, 0, 9, 3, S, 0, 0, flags) * 100 + C(D, 0, 0, 9, 3, nullptr, 0, 0, flags), KS_INVALID_PARAMETER * 101) << flags;
    for (uint32_t flags = 0; flags <= 0x1FFFF; flags += 7)  // refused exactly when a field is out of range
        ASSERT_EQ(C(D, 0, 0, 0, 0, S, 0, 0, flags) == KS_INVALID_PARAMETER, !combinetest::validFlags(flags)) << flags;
    K_InitBitmap(&empty, BITMAPRECORD_SIZE, 9, 3, 8);
    badS.uStructSize = badD.uStructSize = 100;
    const int32_t big = INT32_MAX, small = INT32_MIN, P = KS_INVALID_PARAMETER, A = CombineAdd;
    const std::pair<int32_t, int32_t> cases[] = {  // (answer, wanted)
        {C(nullptr, 0, 0, 1, 1, S, 0, 0, 0), P}, {C(&empty, 0, 0, 1, 1, S, 0, 0, 0), P}, {C(D, 0, 0, 1, 1, nullptr, 0, 0, A), P},
        {C(D, 0, 0, 1, 1, &empty, 0, 0, A), P}, {C(D, 0, 0, 1, 1, &other.bm, 0, 0, A), KS_INVALID_BITS_PER_PIXEL},
        {C(D, 0, 0, -1, 1, S, 0, 0, A), P}, {C(D, 0, 0, 1, 1, &badS, 0, 0, A), KS_INVALID_STRUCT_SIZE},
        {C(&badD, 0, 0, 1, 1, S, 0, 0, A), KS_INVALID_STRUCT_SIZE},
        // Rectangles far outside either bitmap, or at the ends of the coordinate range, change nothing.
        {C(D, big, big, big, big, S, small, small, A), KS_SUCCESS}, {C(D, small, small, big, big, S, big, big, A), KS_SUCCESS},
        {C(D, -20, 0, 20, 3, S, 0, 0, A), KS_SUCCESS},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
    EXPECT_EQ(getImage(&dst.bm).px, d.px);
}

// Each failing allocation returns -1 and leaves the destination as it was,
// nothing leaks; also when the source of another view perspective is
// converted into a temporary record first, and when the destination's rows
// are re-encoded as they are written (super-compressed: the rows written
// before a failing one are put back).
int32_t gPercent = 0;
TEST(CombineFaults, AllocationFailureWalkLeavesTheDestination) {
    storagetest::CapGuard cap;
    const Kind B = Kind::SingleBlock, S = Kind::SuperCompressed;
    const uint32_t A = CombineAlphaOver;
    const struct { int32_t bpp; uint32_t mode; Kind kind; uint32_t flags; } cases[] = {  // mode 9: a turned source
        {1, 0, B, CombineXor}, {1, 2, B, CombineXor}, {4, 0, B, A}, {4, 2, B, A}, {24, 0, B, A}, {24, 2, B, A},
        {24, 9, B, CombineMaximum}, {32, 0, B, A}, {32, 2, B, A}, {1, 0, S, CombineOr | COMBINE_SRC_INVERT}, {8, 0, S, CombineAdd}};
    StatusScope scope([](int32_t pct, void*) { return gPercent = std::max(gPercent, pct), 1; }, nullptr);
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.bpp << " mode " << c.mode << " " << kindName(c.kind));
        const Format f{c.bpp, c.bpp >= 24 ? 1 : 0};
        const bool turned = c.mode == 9, paged = c.kind != Kind::SingleBlock;
        RefImage d = randomImage(50, 30, c.bpp, 9);
        for (int32_t y = 0; paged && y < d.height; ++y)  // runs of a few bytes: several runs per compressed row
            for (uint32_t i = 0; i < d.bpl; ++i) d.row(y)[i] = uint8_t(((i / 3) * 37 + y * 11 + 1) * 0x9E);
        KindBitmap dst(c.kind, 50, 30, c.bpp);
        if (paged) {  // the stored bits only
            putImage(&dst.bm, d);
            d = getImage(&dst.bm);
        }
        Bmp src(turned ? 30 : 50, turned ? 50 : 30, f, turned ? RIGHT_TOP : TOP_LEFT);
        dst.bm.nOrder = f.order;
        RefImage s = randomImage(src.bm.nWidth, src.bm.nHeight, c.bpp, 10);
        putImage(&src.bm, s);
        ModeGuard m(c.mode == 2 ? 2 : 0);
        Bmp clean(50, 30, f, d);  // the result without faults
        ASSERT_EQ(K_CombineBitmapKrn(&clean.bm, 3, 1, 41, 25, &src.bm, 1, 0, c.flags), KS_SUCCESS);
        if (!turned) { EXPECT_EQ(getImage(&clean.bm).px, expected(d, s, f, c.flags, 3, 1, 41, 25, 1, 0).px); }
        int midway = 0;  // failures after some rows were written
        const int failures = allocationWalk([&](Armed& armed) {
            putImage(&dst.bm, d);
            gPercent = 0;
            const bool ok = armed([&] { return K_CombineBitmapKrn(&dst.bm, 3, 1, 41, 25, &src.bm, 1, 0, c.flags); }) == KS_SUCCESS;
            midway += !ok && gPercent > 0 && gPercent < 100;
            // The storage layer may fall back to another kind after a failed allocation.
            EXPECT_EQ(getImage(&dst.bm).px, ok ? getImage(&clean.bm).px : d.px) << armed.n;
            EXPECT_EQ(dst.bm.nLockCount, 0);
        });
        EXPECT_GT(failures, 0);
        if (paged) { EXPECT_GT(midway, 0) << "no failure while rows were written"; }
        EXPECT_EQ(getImage(&src.bm).px, s.px);
        EXPECT_EQ(src.bm.nViewPerspective, turned ? RIGHT_TOP : TOP_LEFT);
    }
}

// A source whose row callback refuses row 10: the rows combined before it are put back.
TEST(CombineFaults, SourceRowRefusedMidwayPutsWrittenRowsBack) {
    RefImage d = randomImage(40, 16, 8, 3);
    Bmp dst(40, 16, {8, 0}, d);
    BITMAPDATACALLBACKS cbs{};
    cbs.uStructSize = BITMAPDATACALLBACKS_SIZE;
    cbs.pfnGetRow = [](BITMAPRECORD*, uint8_t* buf, int32_t row, uint32_t bytes, void*) -> int32_t {
        for (uint32_t i = 0; i < bytes; ++i) buf[i] = uint8_t(i * 5 + uint32_t(row));
        return row >= 10 ? KS_FILE_READ : 1;
    };
    BITMAPRECORD src{};
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&src, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, 40, 16, 8, ORDER_RGB, nullptr,
                                          TOP_LEFT, nullptr, 0, &cbs), KS_SUCCESS);
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 40, 16, &src, 0, 0, CombineAdd), KS_FILE_READ);
    EXPECT_EQ(getImage(&dst.bm).px, d.px);
    EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 40, 10, &src, 0, 0, CombineAdd), KS_SUCCESS);
    EXPECT_NE(getImage(&dst.bm).px, d.px);
    K_FreeBitmap(&src);
}

// Only the destination region changes: pixels outside it are kept, inside they follow the reference.
TEST(CombineRegions, NothingOutsideTheRegionChanges) {
    for (const Format f : {Format{1, 0}, Format{3, 0}, Format{8, 0}, Format{12, ORDER_GRAY}, Format{24, 1}, Format{32, 1}}) {
        const int32_t W = 41, H = 23;
        RefImage d = randomImage(W, H, f.bpp, 21), s = randomImage(W, H, f.bpp, 22);
        Bmp dst(W, H, f), src(W, H, f, s);
        RECT a{3, 2, 30, 15}, b{10, 8, 40, 22};
        ASSERT_EQ(K_SetBitmapRgnRect(&dst.bm, nullptr, &a, RGN_SET_REPLACE) | K_SetBitmapRgnRect(&dst.bm, nullptr, &b, RGN_SET_XOR),
                  KS_SUCCESS);
        for (uint32_t flags : {uint32_t(CombineXor), uint32_t(CombineAdd), 0x0030u, uint32_t(CombineAlphaOver | 0x1000)}) {
            putImage(&dst.bm, d);
            ASSERT_EQ(K_CombineBitmapKrn(&dst.bm, 1, 1, 35, 20, &src.bm, 4, 2, flags), KS_SUCCESS);
            RefImage all = expected(d, s, f, flags, 1, 1, 35, 20, 4, 2), want = d;
            for (int y = 0; y < H; ++y)
                for (int x = 0; x < W; ++x)
                    if (PtInRect(&a, POINT{x, y}) != PtInRect(&b, POINT{x, y}))
                        combinetest::setRawPixel(want.row(y), x, f, combinetest::rawPixel(all.row(y), x, f));
            ASSERT_EQ(getImage(&dst.bm).px, want.px) << describe(f, flags);
        }
    }
}

// Every storage kind on either side gives the reference result.
TEST(CombineStorage, EveryKindOnBothSides) {
    storagetest::CapGuard cap;
    for (int32_t bpp : {1, 4, 8, 24, 32}) {
        const Format f{bpp, bpp >= 24 ? 1 : 0};
        RefImage d = randomImage(45, 13, bpp, 31), s = randomImage(45, 13, bpp, 32);
        for (uint32_t flags : {bpp == 1 ? uint32_t(CombineXor) : uint32_t(CombineMultiply), 0x0030u}) {
            const RefImage want = expected(d, s, f, flags, 2, 1, 40, 11, 3, 2);
            for (Kind dk : kindsFor(bpp))
                for (Kind sk : kindsFor(bpp)) {
                    KindBitmap db(dk, 45, 13, bpp), sb(sk, 45, 13, bpp);
                    ASSERT_EQ(db.rc | sb.rc, KS_SUCCESS);
                    db.bm.nViewPerspective = sb.bm.nViewPerspective = TOP_LEFT;
                    db.bm.nOrder = sb.bm.nOrder = f.order;
                    ASSERT_EQ(putImage(&db.bm, d) | putImage(&sb.bm, s), KS_SUCCESS);
                    ASSERT_EQ(K_CombineBitmapKrn(&db.bm, 2, 1, 40, 11, &sb.bm, 3, 2, flags), KS_SUCCESS);
                    EXPECT_EQ(getImage(&db.bm).px, want.px) << bpp << " " << kindName(dk) << " <- " << kindName(sk);
                }
        }
    }
}

// Coordinates are in the top-left view of each bitmap, for every pair of perspectives.
TEST(CombinePerspective, RectanglesAreMappedIntoEachBitmap) {
    const Format f{8, 0};
    const int32_t W = 13, H = 9;
    RefImage sv = randomImage(W, H, 8, 41), dv = randomImage(W, H, 8, 42);  // viewed images
    RefImage want = expected(dv, sv, f, CombineAdd, 2, 1, 9, 6, 3, 2);
    // The stored image of a viewed one, and back.
    auto toStored = [&](BITMAPRECORD* bm, RefImage& viewed, bool back) {
        RefImage st = back ? getImage(bm) : RefImage(bm->nWidth, bm->nHeight, 8), out(W, H, 8);
        for (int32_t y = 0; y < H; ++y)
            for (int32_t x = 0; x < W; ++x) {
                int32_t px = x, py = y;
                EXPECT_EQ(K_PointToBitmap(bm, TOP_LEFT, &px, &py), KS_SUCCESS);
                if (back) out.row(y)[x] = st.row(py)[px]; else st.row(py)[px] = viewed.row(y)[x];
            }
        if (!back) putImage(bm, st);
        return out;
    };
    for (int32_t dp = 1; dp <= 8; ++dp)
        for (int32_t sp = 1; sp <= 8; ++sp) {
            Bmp dst(dp >= 5 ? H : W, dp >= 5 ? W : H, f, dp), src(sp >= 5 ? H : W, sp >= 5 ? W : H, f, sp);
            toStored(&dst.bm, dv, false);
            toStored(&src.bm, sv, false);
            ASSERT_EQ(K_CombineBitmapKrn(&dst.bm, 2, 1, 9, 6, &src.bm, 3, 2, CombineAdd), KS_SUCCESS) << dp << " " << sp;
            ASSERT_EQ(toStored(&dst.bm, dv, true).px, want.px) << dp << " " << sp;
        }
}

// A bitmap combined with itself, overlapping rectangles: as if the source were read first.
TEST(CombineOverlap, SameBitmapReadsTheSourceBeforeWriting) {
    RefImage img = randomImage(20, 20, 8, 51);
    for (int32_t dy : {-3, 3}) {
        Bmp b(20, 20, {8, 0}, img);
        ASSERT_EQ(K_CombineBitmapKrn(&b.bm, 2, 5 + dy, 15, 10, &b.bm, 0, 5, CombineAdd), KS_SUCCESS);
        EXPECT_EQ(getImage(&b.bm).px, expected(img, img, {8, 0}, CombineAdd, 2, 5 + dy, 15, 10, 0, 5).px) << dy;
    }
}

}  // namespace
