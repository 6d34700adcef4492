// Flips, mirrors, quarter turns and the view perspective of bitmaps, against the index-arithmetic oracle of
// orient_ref.h, on every depth and storage kind.

#include "combine_reference.h"
#include "krn/common/rotate.h"
#include "orient_ref.h"
#include "transform_kit.h"

using namespace orienttest;
using namespace tkit;

namespace {

const int kDepths[] = {1, 2, 4, 8, 12, 16, 24, 32, 48, 64};

// A bitmap in perspective p whose viewed image is v.
struct Viewed : Bitmap {
    Viewed(const Grid& v, int bpp, int p) : Bitmap(p >= 5 ? v.h : v.w, p >= 5 ? v.w : v.h, bpp, 0, p) {
        EXPECT_TRUE(store(&bm, storedFor(v, p)));
    }
};

}  // namespace

// Every (from, to) pair of perspectives. A change keeps the viewed image and the region on every depth, in place or
// into another record (the source then stays as it was); K_PointFromBitmap maps each stored pixel to where the oracle
// sees it. Combining (source in `from`, destination in `to`) and resizing address each bitmap in its own top-left view:
// an add against the combine reference, and a nearest resize whose source pixels hold their own viewed coordinates
// (within one pixel: an axis stored reversed floors the other way; exact into a top-down or bottom-up destination).
TEST(Orient, EveryPerspectivePairKeepsTheViewedImage) {
    const Grid sv = randomGrid(13, 9, 8, 41), dv = randomGrid(13, 9, 8, 42);
    const Grid added = gridOf(combinetest::expected(image(dv, 8), image(sv, 8), {8, 0}, CombineAdd, 2, 1, 9, 6, 3, 2));
    Grid coords(23, 17);
    for (int i = 0; i < 23 * 17; ++i) coords.v[size_t(i)] = uint64_t(i % 23 | (i / 23) << 8 | 7 << 16);
    for (int from = 1; from <= 8; ++from)
        for (int to = 1; to <= 8; ++to) {
            SCOPED_TRACE(::testing::Message() << from << "->" << to);
            for (int bpp : kDepths) {  // a kind of each in turn; every other change into a record of either layout
                const auto kinds = kindsFor(bpp);
                Sample a(kinds[size_t(from + to) % kinds.size()], 11, 7, bpp, uint32_t(bpp * 100 + from * 10 + to));
                a.bm()->nViewPerspective = from, a.bm()->nXResolution = 300, a.bm()->nYResolution = 100;
                const BITMAPRECORD before = *a.bm();
                const bool into = (from + to + bpp) % 2;
                const uint32_t id = bpp % 3 ? BITMAPRECORD_SIZE : BITMAPRECORD_SIZE_OLD;
                Sentinel sentinel;  // the second record, every byte to be written
                BITMAPRECORD &other = sentinel.bm, &bm = into ? other : *a.bm();
                ASSERT_EQ(K_ChangeBitmapViewPerspective(into ? &other : nullptr, a.bm(), into ? id : 0, to), 1);
                EXPECT_EQ(bm.nViewPerspective * 1000 + bm.nXResolution, to * 1000 + 300);
                EXPECT_TRUE(!into || (other.uStructSize == id && sameBytes(before, *a.bm()) && a.holds(same)));
                const Grid now = stored(&bm), view = viewed(a.pixels, from);
                EXPECT_TRUE(viewed(now, to) == view && viewed(regionGrid(&bm), to) == viewed(a.mask, from)) << bpp;
                for (int i = 0; i < now.w * now.h; ++i) {
                    int vx = i % now.w, vy = i / now.w;
                    ASSERT_EQ(K_PointFromBitmap(&bm, 1, &vx, &vy), KS_SUCCESS);
                    ASSERT_EQ(view.at(vx, vy), now.v[size_t(i)]) << bpp << " pixel " << i;
                }
                if (into) K_FreeBitmap(&other);
            }
            Viewed src(sv, 8, from), dst(dv, 8, to), big(coords, 24, from), small(Grid(11, 29), 24, to);
            ASSERT_EQ(K_CombineBitmapKrn(&dst.bm, 2, 1, 9, 6, &src.bm, 3, 2, CombineAdd), KS_SUCCESS);
            EXPECT_TRUE(viewed(stored(&dst.bm), to) == added);
            ASSERT_EQ(K_ResizeBitmap(&big.bm, &small.bm, 0), KS_SUCCESS);
            const Grid got = viewed(stored(&small.bm), to);
            const bool exact = from == 1 && (to == 1 || to == 4);  // floor(q old / new), else within one pixel
            auto near = [&](int s, int q, int o, int n) {
                return exact ? s * n <= q * o && s * n > q * o - n : s * n >= q * o - n && s * n <= (q + 1) * o;
            };
            for (int i = 0; i < 11 * 29; ++i) {
                const uint64_t px = got.v[size_t(i)];
                const int qx = i % 11, qy = i / 11, sx = int(px & 255), sy = int(px >> 8 & 255);
                ASSERT_TRUE(px >> 16 == 7 && near(sx, qx, 23, 11) && near(sy, qy, 17, 29))
                    << qx << "," << qy << ": " << sx << "," << sy;
            }
        }
}

// Flips, mirrors, half and quarter turns in sequence on every depth and storage kind, the region along: after each step
// the stored pixels and the region are the oracle's transform of the originals. Flip and reverse act on the viewed
// image (stored columns in the perspectives 5..8), the stored-axis forms undo them; a quarter turn swaps the
// resolutions; the storage kind stays (caller memory may get a block of its own when turned). Large images go band by
// band into storage of their own kind: forced with a tiny band budget and copy limit.
TEST(Orient, FlipsAndTurnsInSequenceOnEveryKind) {
    using B = BITMAPRECORD*;
    int32_t (*half)(B) = [](B b) { return K_RotateBitmap(b, 18000, 0, 0); };
    int32_t (*cw)(B) = [](B b) { return K_RotateBitmap90(b, 1, 0, 100); };
    int32_t (*ccw)(B) = [](B b) { return K_RotateBitmap90(b, 0, 0, 100); };
    const struct { int persp; int32_t (*call)(B); Grid (*want)(const Grid&); } steps[] = {
        {1, K_FlipBitmap, flipped}, {1, K_IntFlipBitmap, same}, {1, K_ReverseBitmap, mirrored},
        {1, K_IntReverseBitmap, same}, {6, K_FlipBitmap, mirrored}, {6, K_IntReverseBitmap, same},
        {6, K_ReverseBitmap, flipped}, {6, K_IntFlipBitmap, same},
        {1, half, halfTurned}, {1, half, same}, {1, cw, turnedCw}, {1, cw, halfTurned}, {1, ccw, turnedCw},
        {1, cw, halfTurned}, {1, cw, turnedCcw}, {1, cw, same},
    };
    for (bool banded : {false, true}) {
        krn::setTurnCopyLimit(banded ? 1 : 0);
        krn::setTurnBandBytes(banded ? 64 : 0);
        for (int bpp : kDepths)
            for (Kind k : kindsFor(bpp)) {
                if (banded && (k < Kind::TilesMemory || (bpp != 1 && bpp != 4 && bpp != 12 && bpp != 24))) continue;
                SCOPED_TRACE(::testing::Message() << kindName(k) << " bpp " << bpp << (banded ? " banded" : ""));
                Sample a(k, 13, 5, bpp, uint32_t(bpp * 7 + banded));
                ASSERT_EQ(a.kb.rc, KS_SUCCESS);
                a.bm()->nXResolution = 200, a.bm()->nYResolution = 75;
                const uint32_t kind = kindOf(a.bm());
                for (size_t i = 0; i < std::size(steps); ++i) {
                    a.bm()->nViewPerspective = steps[i].persp;
                    ASSERT_EQ(steps[i].call(a.bm()), KS_SUCCESS) << "step " << i;
                    EXPECT_TRUE(a.holds(steps[i].want)) << "step " << i;
                    const bool sideways = steps[i].want == turnedCw || steps[i].want == turnedCcw;
                    EXPECT_EQ(a.bm()->nXResolution, sideways ? 75 : 200) << "step " << i;
                    const bool own = k == Kind::CallerMemory || k == Kind::CallbackMemory;
                    if (i < 8 || !own) { EXPECT_EQ(kindOf(a.bm()), kind) << i; }
                }
            }
    }
    krn::setTurnCopyLimit(0);
    krn::setTurnBandBytes(0);
}

// A relabel shows the viewed image flipped, mirrored or turned (a quarter exchanges the resolutions); other values
// stay.
TEST(Orient, Relabels) {
    BITMAPRECORD bm;
    K_InitBitmap(&bm, BITMAPRECORD_SIZE_OLD, 4, 3, 8);
    const Grid s = randomGrid(4, 3, 8, 5);
    for (int v = 0; v <= 9; ++v) {
        const bool valid = v >= 1 && v <= 8;
        auto label = [&](Grid (*f)(const Grid&)) {  // the label whose viewed image is f of the one of v
            for (int q = 1; valid && q <= 8; ++q)
                if (viewed(s, q) == f(viewed(s, v))) return q;
            return v;
        };
        bm.nViewPerspective = v;
        EXPECT_EQ(K_FlipBitmapViewPerspective(&bm), KS_SUCCESS);
        const int flippedTo = bm.nViewPerspective;
        bm.nViewPerspective = v;
        EXPECT_EQ(K_IntReverseBitmapViewPerspective(&bm), KS_SUCCESS);
        EXPECT_EQ(flippedTo * 10 + bm.nViewPerspective, label(flipped) * 10 + label(mirrored));
        if (!valid) continue;
        for (int angle : {90, -270, 450, -90}) {
            bm.nViewPerspective = v, bm.nXResolution = 1, bm.nYResolution = 2;
            EXPECT_EQ(K_RotateBitmapViewPerspective(&bm, angle), KS_SUCCESS);
            EXPECT_EQ(bm.nViewPerspective * 10 + bm.nXResolution, label(angle == -90 ? turnedCcw : turnedCw) * 10 + 2);
        }
        bm.nViewPerspective = v;
        EXPECT_EQ(K_RotateBitmapViewPerspective(&bm, 180) | K_IntRotateBitmapViewPerspective(&bm, 360), KS_SUCCESS);
        EXPECT_EQ(K_RotateBitmapViewPerspective(&bm, 45), KS_INVALID_PARAMETER);
        EXPECT_EQ(bm.nViewPerspective, label(halfTurned));
    }
}

// Plain buffers: a quarter turn each way against the oracle (the padding cleared), the half turn into another buffer
// and in place.
TEST(Orient, Buffers) {
    for (int bpp : kDepths) {
        const Grid g = randomGrid(7, 5, bpp, uint32_t(bpp));
        std::vector<uint8_t> src = pack(g, bpp), cw(pack(turnedCw(g), bpp).size(), 0xA5), ccw = cw, half(src.size());
        ASSERT_EQ(K_RotateBuffer90(src.data(), cw.data(), 1, 7, 5, bpp) |
                      K_RotateBuffer90(src.data(), ccw.data(), 0, 7, 5, bpp) |
                      K_RotateBuffer180(src.data(), half.data(), 7, 5, bpp), KS_SUCCESS);
        EXPECT_TRUE(cw == pack(turnedCw(g), bpp) && ccw == pack(turnedCcw(g), bpp)) << bpp;
        EXPECT_TRUE(half == pack(halfTurned(g), bpp)) << bpp;
        ASSERT_EQ(K_RotateBuffer180(half.data(), half.data(), 7, 5, bpp), KS_SUCCESS);
        EXPECT_EQ(half, src);
    }
}

TEST(Orient, BadInput) {
    Sample a(Kind::SingleBlock, 5, 3, 8, 1);
    BITMAPRECORD unalloc, noPersp = a.kb.bm;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 4, 4, 8);
    BITMAPRECORD bad = unalloc;
    bad.uStructSize = 100, noPersp.nViewPerspective = 0;
    uint8_t buf[64] = {};
    Sentinel dst;
    const int32_t P = KS_INVALID_PARAMETER, S = KS_INVALID_STRUCT_SIZE, B = KS_INVALID_BITMAP;
    const auto Ch = K_ChangeBitmapViewPerspective;
    const auto R90 = K_RotateBitmap90;
    const std::pair<int32_t, int32_t> cases[] = {  // (answer, wanted)
        {K_FlipBitmap(nullptr), P}, {K_FlipBitmap(&unalloc), P}, {K_FlipBitmap(&bad), S},
        {K_ReverseBitmap(nullptr), P}, {K_ReverseBitmap(&bad), S}, {K_IntFlipBitmap(nullptr), B},
        {K_IntFlipBitmap(&unalloc), B}, {K_IntReverseBitmap(&unalloc), B}, {K_FlipBitmapViewPerspective(nullptr), P},
        {K_ReverseBitmapViewPerspective(&bad), S}, {K_RotateBitmapViewPerspective(&bad, 90), S},
        {K_IntFlipBitmapViewPerspective(nullptr), B}, {R90(nullptr, 1, 0, 100), P}, {R90(&unalloc, 1, 0, 100), P},
        {R90(&bad, 1, 0, 100), S}, {Ch(nullptr, nullptr, 0, 1), P}, {Ch(nullptr, &unalloc, 0, 1), P},
        {Ch(nullptr, &bad, 0, 1), S}, {Ch(&dst.bm, a.bm(), 99, 8), S},
        {K_IntChangeBitmapViewPerspective(nullptr, nullptr, 0, 1, 5), B},
        {K_RotateBuffer90(nullptr, buf, 1, 2, 2, 8), P}, {K_RotateBuffer90(buf, buf + 32, 1, 2, 2, 9), P},
        {K_RotateBuffer90(buf, buf + 32, 1, 0xFFFFFFFFu, 2, 64), P}, {K_RotateBuffer180(buf, buf + 4, 4, 4, 8), P},
        {K_RotateBuffer180(buf, nullptr, 4, 4, 8), P}, {K_MirrorLine(nullptr, 4, 8), P},
        // Values: perspectives, progress ranges; nothing changes.
        {Ch(nullptr, a.bm(), 0, 9), P}, {Ch(nullptr, a.bm(), 0, 0), P}, {R90(a.bm(), 1, 50, 20), P},
        {R90(a.bm(), 1, -1, 20), P}, {R90(a.bm(), 1, 0, 101), P}, {Ch(nullptr, &noPersp, 0, 1), P},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
    ASSERT_EQ(K_AccessBitmap(a.bm()), KS_SUCCESS);
    EXPECT_EQ(K_RotateBitmap90(a.bm(), 1, 0, 100) * 10 + K_ReleaseBitmap(a.bm()), P * 10 + KS_SUCCESS);  // in use
    EXPECT_TRUE(a.unchanged() && dst.intact());
    uint8_t row[4] = {1, 2, 3, 4};  // a depth the mirror does not know leaves the row
    EXPECT_EQ(K_MirrorLine(row, 4, 9) * 100 + row[0] * 10 + row[3], KS_SUCCESS * 100 + 14);
}

// Progress of a turn runs from the start to the end value given; the perspective change silences the callback and puts
// it back.
TEST(Orient, StatusCallbackProgress) {
    StopAfter log;
    StatusScope scope(&StopAfter::cb, &log);
    Sample b(Kind::SingleBlock, 300, 200, 8, 2, false);
    ASSERT_EQ(K_RotateBitmap90(b.bm(), 1, 20, 60), KS_SUCCESS);
    ASSERT_FALSE(log.seen.empty());
    EXPECT_TRUE(log.seen.front() >= 20 && log.seen.back() == 60 && std::is_sorted(log.seen.begin(), log.seen.end()));
    EXPECT_TRUE(b.holds(turnedCw));  // a turn of many tiles and chunks
    log.seen.clear();
    STATUSCALLBACK now = nullptr;
    ASSERT_EQ(K_ChangeBitmapViewPerspective(nullptr, b.bm(), 0, 6) | K_GetStatusCallBack(&now, nullptr), KS_SUCCESS);
    EXPECT_TRUE(log.seen.empty() && now == &StopAfter::cb);
}

// A 20000 x 20000 24-bit bitmap on tiles (1.2 GB) turns by a quarter with the memory cap far below its size:
// the turn stays on tiles (spilling to files). Long: runs with OMBRIX_LONG_TESTS=1.
TEST(Orient, LongQuarterTurnOfAHugeTiledBitmap) {
    if (!std::getenv("OMBRIX_LONG_TESTS")) GTEST_SKIP() << "set OMBRIX_LONG_TESTS=1";
    storagetest::CapGuard caps;
    const int N = 20000;
    int64_t counter = 0;
    K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter);
    ASSERT_EQ(K_ManageMemory(MANAGEMEMORY_SET_CAP, counter + (256 << 20), nullptr), KS_SUCCESS);
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 4, N, N, 24, 1, nullptr, 1, nullptr, 0), KS_SUCCESS);
    ASSERT_EQ(kindOf(&bm), 4u);
    std::vector<uint8_t> row(bm.nBytesPerLine);
    auto px = [](int x, int y, int c) { return uint8_t((x * 7 + y * 13 + c * 101) ^ (x >> 8) ^ (y >> 5)); };
    K_AccessBitmap(&bm);
    for (int y = 0; y < N; ++y) {
        for (int x = 0; x < 3 * N; ++x) row[size_t(x)] = px(x / 3, y, x % 3);
        ASSERT_GT(K_PutBitmapRow(&bm, row.data(), y, bm.nBytesPerLine), 0);
    }
    K_ReleaseBitmap(&bm);
    ASSERT_EQ(K_RotateBitmap90(&bm, 1, 0, 100), KS_SUCCESS);
    EXPECT_EQ(kindOf(&bm), 4u);
    K_AccessBitmap(&bm);
    for (int r : {0, 1, 9999, 19998, 19999}) {
        ASSERT_GT(K_GetBitmapRow(&bm, row.data(), r, bm.nBytesPerLine), 0);
        for (int c = 0; c < N; c += 997) ASSERT_EQ(row[size_t(c) * 3 + 1], px(r, N - 1 - c, 1)) << r << "," << c;
    }
    K_ReleaseBitmap(&bm), K_FreeBitmap(&bm);
}
