// Combining two bitmaps against the per-sample reference of combine_reference.h: every flag word and depth, regions,
// storage kinds, faults (perspectives: test_orient.cpp).

#include "combine_reference.h"
#include "krn/common/combine.h"
#include "transform_kit.h"

using combinetest::expected;
using combinetest::Format;
using namespace tkit;

namespace {

struct Bmp : Bitmap {
    Bmp(int32_t w, int32_t h, const Format& f, int32_t vp = TOP_LEFT) : Bitmap(w, h, f.bpp, f.order, vp) {
        if (f.highBit >= 0) bm.nHighBit = f.highBit;
    }
    Bmp(const Format& f, RefImage& im, int32_t p = TOP_LEFT) : Bmp(im.width, im.height, f, p) { putImage(&bm, im); }
};

std::string describe(const Format& f, uint32_t flags) {
    return "bpp " + std::to_string(f.bpp) + " order " + std::to_string(f.order) + " high " +
           std::to_string(f.highBit) + " flags " + std::to_string(flags);
}

struct ModeGuard {
    uint32_t old;
    explicit ModeGuard(uint32_t m) : old(krn::setCombineTestMode(m)) {}
    ~ModeGuard() { krn::setCombineTestMode(old); }
};

const Format kFormats[] = {{1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}, {6, 0}, {7, 0}, {8, 0}, {12, ORDER_GRAY},
                           {12, ORDER_GRAY, 9}, {16, ORDER_BGR}, {16, ORDER_RGB565}, {16, ORDER_GRAY},
                           {16, ORDER_GRAY, 11}, {24, ORDER_BGR}, {32, ORDER_BGR}, {32, ORDER_GRAY},
                           {48, ORDER_BGR}, {64, ORDER_BGR}};

class CombineOracle : public ::testing::TestWithParam<Format> {};

// Every flag word with valid fields, random images, random odd widths (1 to 73: several vector blocks) and offsets,
// cycling through the paths (SIMD or plain kernels, in place or row layer), against the reference.
TEST_P(CombineOracle, EveryFlagWordMatchesTheReference) {
    const Format f = GetParam();
    const int32_t W = 77, H = 5, B = f.bpp / 8;
    std::mt19937 rng(1234u + uint32_t(f.bpp) * 7u + uint32_t(f.order) + uint32_t(f.highBit + 1) * 101u);
    RefImage sImg = randomImage(W + 6, H + 2, f.bpp, rng());
    Bmp dst(W, H, f), src(f, sImg);
    ASSERT_EQ(dst.rc | src.rc, KS_SUCCESS);
    for (uint32_t flags = 0; flags < 0x4000; ++flags) {
        if (!combinetest::validFlags(flags)) continue;
        RefImage dImg = randomImage(W, H, f.bpp, rng());
        for (int32_t y = 0; (f.bpp == 32 || f.bpp == 64) && y < H; ++y)  // some alpha values the extreme ones
            for (int32_t x = 0; x < W; x += 3) dImg.row(y)[x * B + B - 1] = (x & 4) ? 0 : 0xFF;
        putImage(&dst.bm, dImg);
        const int32_t w = 1 + 2 * int32_t(rng() % 37), h = 1 + int32_t(rng() % H);
        const int32_t xd = int32_t(rng() % 9) - 2, yd = int32_t(rng() % 3) - 1;
        const int32_t xs = int32_t(rng() % 11), ys = int32_t(rng() % 3);
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

// The do-nothing plan reports 0 and 100 (the answer of the last report is returned); a callback answering 0 stops the
// work and is returned, the rows after it keep their pixels.
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
        Bmp dst({24, 1}, d), src({24, 1}, s);
        StopAfter stop(3, 0);
        StatusScope g(&StopAfter::cb, &stop);
        EXPECT_EQ(K_CombineBitmapKrn(&dst.bm, 0, 0, 16, 200, &src.bm, 0, 0, CombineAdd), 0);
        EXPECT_TRUE(stop.calls() == 4 && dst.bm.nLockCount == 0);
        EXPECT_EQ(std::memcmp(getImage(&dst.bm).row(199), d.row(199), d.bpl), 0) << "the last row changed";
    }
}

// Invalid flag words, records and rectangles: refused (or nothing to do) before any pixel changes.
TEST(CombineBadInput, FlagWordsRecordsAndRectangles) {
    RefImage d = randomImage(9, 3, 8, 5), s = randomImage(9, 3, 8, 6);
    Bmp dst({8, 0}, d), src({8, 0}, s), other(9, 3, {24, 1});
    const auto C = K_CombineBitmapKrn;
    BITMAPRECORD *D = &dst.bm, *S = &src.bm, empty, badS = src.bm, badD = dst.bm;
    const int32_t big = INT32_MAX, small = INT32_MIN, P = KS_INVALID_PARAMETER, Z = KS_INVALID_STRUCT_SIZE;
    for (uint32_t flags : {0x4u, 0xFu, 0x40u, 0xF0u, 0xE00u, 0xF00u, 0x4000u, 0xF000u, 0x10000u, ~0u, 0x1000C00u})
        EXPECT_EQ(C(D, 0, 0, 9, 3, S, 0, 0, flags) * 100 + C(D, 0, 0, 9, 3, nullptr, 0, 0, flags), P * 101) << flags;
    for (uint32_t flags = 0; flags <= 0x1FFFF; flags += 7)  // refused exactly when a field is out of range
        ASSERT_EQ(C(D, 0, 0, 0, 0, S, 0, 0, flags) == KS_INVALID_PARAMETER, !combinetest::validFlags(flags)) << flags;
    K_InitBitmap(&empty, BITMAPRECORD_SIZE, 9, 3, 8);
    badS.uStructSize = badD.uStructSize = 100;
    const uint32_t A = CombineAdd;
    const std::pair<int32_t, int32_t> cases[] = {  // (answer, wanted)
        {C(nullptr, 0, 0, 1, 1, S, 0, 0, 0), P}, {C(&empty, 0, 0, 1, 1, S, 0, 0, 0), P},
        {C(D, 0, 0, 1, 1, nullptr, 0, 0, A), P}, {C(D, 0, 0, 1, 1, &empty, 0, 0, A), P},
        {C(D, 0, 0, 1, 1, &other.bm, 0, 0, A), KS_INVALID_BITS_PER_PIXEL}, {C(D, 0, 0, -1, 1, S, 0, 0, A), P},
        {C(D, 0, 0, 1, 1, &badS, 0, 0, A), Z}, {C(&badD, 0, 0, 1, 1, S, 0, 0, A), Z},
        // Rectangles far outside either bitmap, or at the ends of the coordinate range, change nothing.
        {C(D, big, big, big, big, S, small, small, A), KS_SUCCESS},
        {C(D, small, small, big, big, S, big, big, A), KS_SUCCESS},
        {C(D, -20, 0, 20, 3, S, 0, 0, A), KS_SUCCESS},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
    EXPECT_EQ(getImage(&dst.bm).px, d.px);
}

// Each failing allocation returns -1 and leaves the destination as it was, nothing leaks; also when the source of
// another view perspective is converted into a temporary record first (mode 9), and when the destination's rows are
// re-encoded as they are written (super-compressed: the rows written before a failing one are put back).
int32_t gPercent = 0;
TEST(CombineFaults, AllocationFailureWalkLeavesTheDestination) {
    storagetest::CapGuard cap;
    const Kind B = Kind::SingleBlock, S = Kind::SuperCompressed;
    const uint32_t A = CombineAlphaOver;
    const struct { int32_t bpp; uint32_t mode; Kind kind; uint32_t flags; } cases[] = {
        {1, 0, B, CombineXor}, {1, 2, B, CombineXor}, {4, 0, B, A}, {4, 2, B, A}, {24, 0, B, A}, {24, 2, B, A},
        {24, 9, B, CombineMaximum}, {32, 0, B, A}, {32, 2, B, A}, {1, 0, S, CombineOr | COMBINE_SRC_INVERT},
        {8, 0, S, CombineAdd}};
    StatusScope scope([](int32_t pct, void*) { return gPercent = std::max(gPercent, pct), 1; }, nullptr);
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.bpp << " mode " << c.mode << " " << kindName(c.kind));
        const Format f{c.bpp, c.bpp >= 24 ? 1 : 0};
        const bool turned = c.mode == 9, paged = c.kind != Kind::SingleBlock;
        RefImage d = randomImage(50, 30, c.bpp, 9);
        for (int32_t y = 0; paged && y < d.height; ++y)  // runs of a few bytes: several runs per compressed row
            for (uint32_t i = 0; i < d.bpl; ++i) d.row(y)[i] = uint8_t(((i / 3) * 37 + y * 11 + 1) * 0x9E);
        KindBitmap dst(c.kind, 50, 30, c.bpp);
        if (paged) putImage(&dst.bm, d), d = getImage(&dst.bm);  // the stored bits only
        RefImage s = randomImage(turned ? 30 : 50, turned ? 50 : 30, c.bpp, 10);
        Bmp src(f, s, turned ? RIGHT_TOP : TOP_LEFT);
        dst.bm.nOrder = f.order;
        ModeGuard m(c.mode == 2 ? 2 : 0);
        Bmp clean(f, d);  // the result without faults
        auto combine = [&](BITMAPRECORD* to) { return K_CombineBitmapKrn(to, 3, 1, 41, 25, &src.bm, 1, 0, c.flags); };
        ASSERT_EQ(combine(&clean.bm), KS_SUCCESS);
        if (!turned) { EXPECT_EQ(getImage(&clean.bm).px, expected(d, s, f, c.flags, 3, 1, 41, 25, 1, 0).px); }
        int midway = 0;  // failures after some rows were written
        const int failures = allocationWalk([&](Armed& armed) {
            putImage(&dst.bm, d);
            gPercent = 0;
            const bool ok = armed([&] { return combine(&dst.bm); }) == KS_SUCCESS;
            midway += !ok && gPercent > 0 && gPercent < 100;
            // The storage layer may fall back to another kind after a failed allocation.
            EXPECT_EQ(getImage(&dst.bm).px, ok ? getImage(&clean.bm).px : d.px) << armed.n;
            EXPECT_EQ(dst.bm.nLockCount, 0);
        });
        EXPECT_TRUE(failures > 0 && (!paged || midway > 0)) << failures << " failures, " << midway << " midway";
        EXPECT_TRUE(getImage(&src.bm).px == s.px && src.bm.nViewPerspective == (turned ? RIGHT_TOP : TOP_LEFT));
    }
}

// A source whose row callback refuses row 10: the rows combined before it are put back.
TEST(CombineFaults, SourceRowRefusedMidwayPutsWrittenRowsBack) {
    RefImage d = randomImage(40, 16, 8, 3);
    Bmp dst({8, 0}, d);
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

// Only the destination region changes: pixels outside it are kept, inside they follow the reference. A bitmap combined
// with itself (overlapping rectangles) reads the source before writing.
TEST(CombineRegions, NothingOutsideTheRegionChanges) {
    for (const Format f : {Format{1, 0}, Format{3, 0}, Format{8, 0}, Format{12, ORDER_GRAY}, Format{24, 1}, {32, 1}}) {
        RefImage d = randomImage(41, 23, f.bpp, 21), s = randomImage(41, 23, f.bpp, 22);
        Bmp dst(41, 23, f), src(f, s);
        RECT a{3, 2, 30, 15}, b{10, 8, 40, 22};
        ASSERT_EQ(K_SetBitmapRgnRect(&dst.bm, nullptr, &a, RGN_SET_REPLACE), KS_SUCCESS);
        ASSERT_EQ(K_SetBitmapRgnRect(&dst.bm, nullptr, &b, RGN_SET_XOR), KS_SUCCESS);
        for (uint32_t flags : {CombineXor, CombineAdd, 0x30u, CombineAlphaOver | 0x1000u}) {
            putImage(&dst.bm, d);
            ASSERT_EQ(K_CombineBitmapKrn(&dst.bm, 1, 1, 35, 20, &src.bm, 4, 2, flags), KS_SUCCESS);
            RefImage all = expected(d, s, f, flags, 1, 1, 35, 20, 4, 2), want = d;
            for (int i = 0; i < 41 * 23; ++i)
                if (POINT p{i % 41, i / 41}; PtInRect(&a, p) != PtInRect(&b, p))
                    combinetest::setRawPixel(want.row(p.y), p.x, f, combinetest::rawPixel(all.row(p.y), p.x, f));
            ASSERT_EQ(getImage(&dst.bm).px, want.px) << describe(f, flags);
        }
    }
    RefImage img = randomImage(20, 20, 8, 51);
    for (int32_t dy : {-3, 3}) {
        Bmp b({8, 0}, img);
        ASSERT_EQ(K_CombineBitmapKrn(&b.bm, 2, 5 + dy, 15, 10, &b.bm, 0, 5, CombineAdd), KS_SUCCESS);
        EXPECT_EQ(getImage(&b.bm).px, expected(img, img, {8, 0}, CombineAdd, 2, 5 + dy, 15, 10, 0, 5).px) << dy;
        int32_t seg[2] = {-7, -7};  // the clip segments of a bitmap without a region: one, the whole row
        uint32_t n = 0;
        EXPECT_TRUE(K_GetBitmapClipSegments(&b.bm, 7, seg, &n) == KS_SUCCESS && n == 2 && seg[0] == 0 && seg[1] == 20);
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
                    db.bm.nOrder = sb.bm.nOrder = f.order;
                    ASSERT_EQ(putImage(&db.bm, d) | putImage(&sb.bm, s), KS_SUCCESS);
                    ASSERT_EQ(K_CombineBitmapKrn(&db.bm, 2, 1, 40, 11, &sb.bm, 3, 2, flags), KS_SUCCESS);
                    EXPECT_EQ(getImage(&db.bm).px, want.px) << bpp << " " << kindName(dk) << " <- " << kindName(sk);
                }
        }
    }
}

}  // namespace
