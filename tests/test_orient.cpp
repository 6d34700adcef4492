// Flips, mirrors, quarter turns and the view perspective of bitmaps, against
// the index-arithmetic oracle of orient_ref.h, on every depth and storage kind.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "krn/common/rotate.h"
#include "orient_ref.h"
#include "transform_kit.h"

using namespace orienttest;
using tkit::Kind;
using tkit::KindBitmap;
using tkit::kindOf;

namespace {

const int kDepths[] = {1, 2, 4, 8, 12, 16, 24, 32, 48, 64};

// A bitmap of a kind with random stored pixels and an elliptic region.
struct Sample {
    KindBitmap kb;
    Grid pixels;
    Sample(Kind k, int w, int h, int bpp, uint32_t seed, bool withRegion = true) : kb(k, w, h, bpp) {
        if (kb.rc != KS_SUCCESS) return;
        pixels = randomGrid(w, h, bpp, seed);
        EXPECT_TRUE(store(&kb.bm, pixels));
        if (withRegion) {
            RECT e{1, 0, w - 1, h};
            EXPECT_EQ(K_SetBitmapRgnEllipse(&kb.bm, nullptr, &e, 1), KS_SUCCESS);
        }
    }
    BITMAPRECORD* bm() { return &kb.bm; }
};

}  // namespace

// Each of the 64 (from, to) pairs keeps the viewed image, on every depth;
// K_PointFromBitmap maps each stored pixel to where the oracle sees it.
TEST(Orient, ChangePerspectiveKeepsTheViewedImage) {
    for (int bpp : kDepths) {
        for (int from = 1; from <= 8; ++from) {
            for (int to = 1; to <= 8; ++to) {
                BITMAPRECORD bm;
                ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 11, 7, bpp, 0, nullptr, from, nullptr, 0),
                          KS_SUCCESS);
                const Grid s = randomGrid(11, 7, bpp, uint32_t(bpp * 100 + from * 10 + to));
                ASSERT_TRUE(store(&bm, s));
                bm.nXResolution = 300;
                bm.nYResolution = 100;
                const Grid view = viewed(s, from);
                ASSERT_EQ(K_ChangeBitmapViewPerspective(nullptr, &bm, 0, to), KS_SUCCESS);
                EXPECT_EQ(bm.nViewPerspective, to);
                EXPECT_EQ(bm.nXResolution, 300);
                const Grid now = stored(&bm);
                EXPECT_TRUE(viewed(now, to) == view) << "bpp " << bpp << " " << from << "->" << to;
                bool same = true;
                for (int y = 0; y < now.h; ++y)
                    for (int x = 0; x < now.w; ++x) {
                        int vx = x, vy = y;
                        ASSERT_EQ(K_PointFromBitmap(&bm, 1, &vx, &vy), KS_SUCCESS);
                        same = same && view.at(vx, vy) == now.at(x, y);
                    }
                EXPECT_TRUE(same) << "bpp " << bpp << " " << from << "->" << to;
                K_FreeBitmap(&bm);
            }
        }
    }
}

// With a distinct destination the source stays as it was and the destination
// (either record layout) holds the changed copy; a failure leaves it unmade.
TEST(Orient, ChangePerspectiveIntoAnotherRecord) {
    for (uint32_t id : {BITMAPRECORD_SIZE, BITMAPRECORD_SIZE_OLD}) {
        for (Kind k : {Kind::SingleBlock, Kind::TilesMemory, Kind::Compressed}) {
            Sample a(k, 9, 6, 1, 11);
            const BITMAPRECORD before = a.kb.bm;
            const Grid mask = regionGrid(a.bm());
            BITMAPRECORD dst;
            std::memset(&dst, 0x5A, sizeof dst);
            ASSERT_EQ(K_ChangeBitmapViewPerspective(&dst, a.bm(), id, 8), KS_SUCCESS);
            EXPECT_EQ(dst.uStructSize, id);
            EXPECT_EQ(dst.nViewPerspective, 8);
            EXPECT_TRUE(viewed(stored(&dst), 8) == viewed(a.pixels, 1));
            EXPECT_TRUE(viewed(regionGrid(&dst), 8) == viewed(mask, 1));
            EXPECT_EQ(std::memcmp(&before, a.bm(), sizeof before), 0);
            EXPECT_TRUE(stored(a.bm()) == a.pixels);
            K_FreeBitmap(&dst);
        }
    }
    Sample a(Kind::SingleBlock, 9, 6, 8, 12);
    tkit::Sentinel dst;
    EXPECT_EQ(K_ChangeBitmapViewPerspective(&dst.bm, a.bm(), 99, 8), KS_INVALID_STRUCT_SIZE);
    EXPECT_TRUE(dst.intact());
    tkit::allocationWalk([&](tkit::Armed& armed) {
        tkit::Sentinel d;
        if (armed([&] { return K_ChangeBitmapViewPerspective(&d.bm, a.bm(), BITMAPRECORD_SIZE, 6); }) == KS_SUCCESS) {
            K_FreeBitmap(&d.bm);
        } else {
            EXPECT_TRUE(d.intact()) << armed.n;
        }
    });
    EXPECT_TRUE(stored(a.bm()) == a.pixels);
}

// Flip and reverse act on the viewed image: stored rows for 1..4, stored
// columns for 5..8; the region moves with the pixels; every storage kind.
TEST(Orient, FlipAndReverseOnEveryKind) {
    for (int bpp : kDepths) {
        for (Kind k : tkit::kindsFor(bpp)) {
            for (int persp : {1, 6}) {
                for (int op = 0; op < 2; ++op) {
                    Sample a(k, 9, 7, bpp, uint32_t(bpp + op));
                    ASSERT_EQ(a.kb.rc, KS_SUCCESS) << tkit::kindName(k);
                    a.bm()->nViewPerspective = persp;
                    const Grid mask = regionGrid(a.bm());
                    const uint32_t kind = kindOf(a.bm());
                    const bool rows = (op == 0) == (persp < 5);
                    ASSERT_EQ(op == 0 ? K_FlipBitmap(a.bm()) : K_ReverseBitmap(a.bm()), KS_SUCCESS);
                    const Grid want = rows ? flipped(a.pixels) : mirrored(a.pixels);
                    EXPECT_TRUE(stored(a.bm()) == want) << tkit::kindName(k) << " bpp " << bpp;
                    EXPECT_TRUE(regionGrid(a.bm()) == (rows ? flipped(mask) : mirrored(mask)));
                    EXPECT_EQ(kindOf(a.bm()), kind);
                    // The stored-axis forms undo them.
                    ASSERT_EQ(rows ? K_IntFlipBitmap(a.bm()) : K_IntReverseBitmap(a.bm()), KS_SUCCESS);
                    EXPECT_TRUE(stored(a.bm()) == a.pixels);
                }
            }
        }
    }
}

// Quarter turns on odd sizes, every depth and storage kind, region along:
// one turn matches the oracle, two are a half turn, four the identity, a turn
// and its inverse the identity; the storage kind stays.
TEST(Orient, QuarterTurnIdentitiesOnEveryKind) {
    for (int bpp : kDepths) {
        for (Kind k : tkit::kindsFor(bpp)) {
            Sample a(k, 13, 5, bpp, uint32_t(bpp * 7));
            ASSERT_EQ(a.kb.rc, KS_SUCCESS);
            a.bm()->nXResolution = 200;
            a.bm()->nYResolution = 75;
            const Grid mask = regionGrid(a.bm());
            const uint32_t kind = kindOf(a.bm());
            ASSERT_EQ(K_RotateBitmap90(a.bm(), 1, 0, 100), KS_SUCCESS) << tkit::kindName(k);
            EXPECT_EQ(a.bm()->nWidth, 5);
            EXPECT_EQ(a.bm()->nHeight, 13);
            EXPECT_EQ(a.bm()->nXResolution, 75);
            EXPECT_TRUE(stored(a.bm()) == turnedCw(a.pixels)) << tkit::kindName(k) << " bpp " << bpp;
            EXPECT_TRUE(regionGrid(a.bm()) == turnedCw(mask));
            if (k != Kind::CallerMemory && k != Kind::CallbackMemory) {
                EXPECT_EQ(kindOf(a.bm()), kind);
            }
            ASSERT_EQ(K_RotateBitmap90(a.bm(), 1, 0, 100), KS_SUCCESS);
            EXPECT_TRUE(stored(a.bm()) == flipped(mirrored(a.pixels)));
            EXPECT_TRUE(regionGrid(a.bm()) == flipped(mirrored(mask)));
            ASSERT_EQ(K_RotateBitmap90(a.bm(), 0, 0, 100), KS_SUCCESS);
            ASSERT_EQ(K_RotateBitmap90(a.bm(), 1, 0, 100), KS_SUCCESS);
            ASSERT_EQ(K_RotateBitmap90(a.bm(), 1, 0, 100), KS_SUCCESS);
            ASSERT_EQ(K_RotateBitmap90(a.bm(), 1, 0, 100), KS_SUCCESS);
            EXPECT_TRUE(stored(a.bm()) == a.pixels) << tkit::kindName(k) << " bpp " << bpp;
            EXPECT_TRUE(regionGrid(a.bm()) == mask);
            EXPECT_EQ(a.bm()->nXResolution, 200);
        }
    }
}

// The mirrored perspectives turn the stored pixels the other way, so the
// viewed image always turns clockwise for bTurn 1.
TEST(Orient, QuarterTurnTurnsTheViewedImage) {
    for (int persp = 1; persp <= 8; ++persp) {
        Sample a(Kind::SingleBlock, 6, 4, 8, uint32_t(persp), false);
        a.bm()->nViewPerspective = persp;
        const Grid before = viewed(a.pixels, persp);
        ASSERT_EQ(K_RotateBitmap90(a.bm(), 1, 0, 100), KS_SUCCESS);
        EXPECT_TRUE(viewed(stored(a.bm()), persp) == turnedCw(before)) << persp;
    }
}

// Large images go band by band into storage of their own kind: forced here
// with a tiny band budget and copy limit.
TEST(Orient, BandedTurnIntoOwnStorage) {
    krn::setTurnCopyLimit(1);
    krn::setTurnBandBytes(64);
    for (int bpp : {1, 4, 12, 24}) {
        for (Kind k : {Kind::TilesMemory, Kind::TilesFile, Kind::Disk, Kind::Compressed, Kind::SuperCompressed}) {
            if (k == Kind::Compressed && bpp != 1) continue;
            if (k == Kind::SuperCompressed && bpp != 1 && bpp != 24) continue;
            Sample a(k, 37, 29, bpp, 5u + uint32_t(bpp));
            ASSERT_EQ(a.kb.rc, KS_SUCCESS);
            const Grid mask = regionGrid(a.bm());
            ASSERT_EQ(K_RotateBitmap90(a.bm(), 0, 0, 100), KS_SUCCESS);
            const Grid ccw = turnedCw(turnedCw(turnedCw(a.pixels)));
            EXPECT_TRUE(stored(a.bm()) == ccw) << tkit::kindName(k) << " bpp " << bpp;
            EXPECT_TRUE(regionGrid(a.bm()) == turnedCw(turnedCw(turnedCw(mask))));
        }
    }
    krn::setTurnCopyLimit(0);
    krn::setTurnBandBytes(0);
}

// Relabels follow the tables; the quarter relabel exchanges the resolutions.
TEST(Orient, Relabels) {
    const int flipT[9] = {0, 4, 3, 2, 1, 8, 7, 6, 5}, revT[9] = {0, 2, 1, 4, 3, 6, 5, 8, 7};
    const int quarterT[9] = {0, 6, 7, 8, 5, 2, 3, 4, 1};
    BITMAPRECORD bm;
    K_InitBitmap(&bm, BITMAPRECORD_SIZE_OLD, 4, 3, 8);
    for (int v = 0; v <= 9; ++v) {
        const bool valid = v >= 1 && v <= 8;
        bm.nViewPerspective = v;
        EXPECT_EQ(K_FlipBitmapViewPerspective(&bm), KS_SUCCESS);
        EXPECT_EQ(bm.nViewPerspective, valid ? flipT[v] : v);
        bm.nViewPerspective = v;
        EXPECT_EQ(K_IntReverseBitmapViewPerspective(&bm), KS_SUCCESS);
        EXPECT_EQ(bm.nViewPerspective, valid ? revT[v] : v);
        if (!valid) continue;
        // The relabels agree with the viewed images: a flip relabel shows the view flipped.
        const Grid s = randomGrid(4, 3, 8, uint32_t(v));
        EXPECT_TRUE(viewed(s, flipT[v]) == flipped(viewed(s, v)));
        EXPECT_TRUE(viewed(s, revT[v]) == mirrored(viewed(s, v)));
        EXPECT_TRUE(viewed(s, quarterT[v]) == turnedCw(viewed(s, v)));
        for (int angle : {90, -270, 450}) {
            bm.nViewPerspective = v;
            bm.nXResolution = 1;
            bm.nYResolution = 2;
            EXPECT_EQ(K_RotateBitmapViewPerspective(&bm, angle), KS_SUCCESS);
            EXPECT_EQ(bm.nViewPerspective, quarterT[v]);
            EXPECT_EQ(bm.nXResolution, 2);
        }
        bm.nViewPerspective = v;
        EXPECT_EQ(K_RotateBitmapViewPerspective(&bm, -90), KS_SUCCESS);
        EXPECT_EQ(bm.nViewPerspective, quarterT[quarterT[quarterT[v]]]);
        EXPECT_EQ(K_RotateBitmapViewPerspective(&bm, 180), KS_SUCCESS);
        EXPECT_EQ(K_IntRotateBitmapViewPerspective(&bm, 360), KS_SUCCESS);
        EXPECT_EQ(bm.nViewPerspective, quarterT[v]);
        EXPECT_EQ(K_RotateBitmapViewPerspective(&bm, 45), KS_INVALID_PARAMETER);
        EXPECT_EQ(bm.nViewPerspective, quarterT[v]);
    }
}

// Row kernels: the fast forms equal the plain ones and the oracle, every
// depth, odd lengths, all four rows-to-columns mappings.
TEST(Orient, KernelsMatchThePlainForms) {
    std::mt19937 rng(3);
    for (int bpp : {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64}) {
        for (int trial = 0; trial < 12; ++trial) {
            const uint32_t w = 1 + rng() % (trial % 2 ? 700 : 70), h = 1 + rng() % 70;
            const Grid g = randomGrid(int(w), int(h), bpp, rng());
            std::vector<uint8_t> src = pack(g, bpp);
            const size_t ds = size_t(((uint64_t(h) * uint64_t(bpp) + 31) >> 3) & ~uint64_t(3));
            const size_t ss = src.size() / h;
            for (int mode = 0; mode < 4; ++mode) {
                const bool revY = mode & 1, revX = mode & 2;
                std::vector<uint8_t> a(ds * w, 0), b(ds * w, 0);
                krn::turnBlock(src.data(), ss, a.data(), ds, w, h, bpp, revY, revX);
                krn::turnBlockPlain(src.data(), ss, b.data(), ds, w, h, bpp, revY, revX);
                EXPECT_EQ(a, b) << "bpp " << bpp << " " << w << "x" << h << " mode " << mode;
                Grid want{int(h), int(w)};
                for (uint32_t r = 0; r < w; ++r)
                    for (uint32_t c = 0; c < h; ++c)
                        want.at(int(c), int(r)) = g.at(int(revX ? w - 1 - r : r), int(revY ? h - 1 - c : c));
                EXPECT_TRUE(unpack(a.data(), int(h), int(w), bpp) == want) << "bpp " << bpp << " mode " << mode;
            }
            // Mirror: both forms, the oracle, and the bits after the last pixel kept.
            std::vector<uint8_t> row(src.begin(), src.begin() + ptrdiff_t(ss)), row2 = row;
            for (auto& byte : row) byte = uint8_t(rng());
            row2 = row;
            krn::mirrorRow(row.data(), w, bpp);
            krn::mirrorRowPlain(row2.data(), w, bpp);
            EXPECT_EQ(row, row2) << "bpp " << bpp << " w " << w;
            std::vector<uint8_t> row3 = row;
            ASSERT_EQ(K_MirrorLine(row3.data(), w, bpp), KS_SUCCESS);
            const uint64_t bits = uint64_t(w) * uint64_t(bpp);
            std::vector<uint8_t> orig = row2;
            krn::mirrorRowPlain(orig.data(), w, bpp);  // back to the start
            EXPECT_EQ(row3, orig);
            if (bpp < 64) {
                for (uint32_t x = 0; x < w; ++x)
                    ASSERT_EQ(storagetest::getPixel(row.data(), int(x), bpp),
                              storagetest::getPixel(orig.data(), int(w - 1 - x), bpp));
                if (bpp == 12) {
                    // The high nibble of the last pair's middle byte when the width is odd.
                    if (w & 1) {
                        EXPECT_EQ(row[w / 2 * 3 + 1] & 0xF0, orig[w / 2 * 3 + 1] & 0xF0);
                    }
                } else {
                    for (uint64_t bit = bits; bit < ((bits + 7) & ~uint64_t(7)); ++bit)
                        EXPECT_EQ((row[bit >> 3] >> (7 - (bit & 7))) & 1, (orig[bit >> 3] >> (7 - (bit & 7))) & 1);
                }
            }
        }
    }
}

// Plain buffers: a quarter turn each way against the oracle, the half turn in
// place and into another buffer.
TEST(Orient, Buffers) {
    for (int bpp : kDepths) {
        const Grid g = randomGrid(7, 5, bpp, uint32_t(bpp));
        std::vector<uint8_t> src = pack(g, bpp);
        const size_t ds = size_t(((uint64_t(5) * uint64_t(bpp) + 31) >> 3) & ~uint64_t(3));
        std::vector<uint8_t> dst(ds * 7, 0xA5);
        ASSERT_EQ(K_RotateBuffer90(src.data(), dst.data(), 1, 7, 5, bpp), KS_SUCCESS);
        EXPECT_TRUE(unpack(dst.data(), 5, 7, bpp) == turnedCw(g)) << bpp;
        EXPECT_EQ(dst, pack(turnedCw(g), bpp)) << "padding cleared, bpp " << bpp;
        ASSERT_EQ(K_RotateBuffer90(src.data(), dst.data(), 0, 7, 5, bpp), KS_SUCCESS);
        EXPECT_TRUE(unpack(dst.data(), 5, 7, bpp) == turnedCw(turnedCw(turnedCw(g))));
        std::vector<uint8_t> half(src.size());
        ASSERT_EQ(K_RotateBuffer180(src.data(), half.data(), 7, 5, bpp), KS_SUCCESS);
        EXPECT_TRUE(unpack(half.data(), 7, 5, bpp) == flipped(mirrored(g)));
        ASSERT_EQ(K_RotateBuffer180(half.data(), half.data(), 7, 5, bpp), KS_SUCCESS);
        EXPECT_EQ(half, src);
    }
}

TEST(Orient, BadInput) {
    BITMAPRECORD unalloc;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 4, 4, 8);
    BITMAPRECORD bad = unalloc;
    bad.uStructSize = 100;
    uint8_t buf[64] = {};
    struct Case {
        const char* what;
        int32_t rc, want;
    } cases[] = {
        {"flip null", K_FlipBitmap(nullptr), KS_INVALID_PARAMETER},
        {"flip unallocated", K_FlipBitmap(&unalloc), KS_INVALID_PARAMETER},
        {"flip size", K_FlipBitmap(&bad), KS_INVALID_STRUCT_SIZE},
        {"reverse null", K_ReverseBitmap(nullptr), KS_INVALID_PARAMETER},
        {"reverse size", K_ReverseBitmap(&bad), KS_INVALID_STRUCT_SIZE},
        {"int flip null", K_IntFlipBitmap(nullptr), KS_INVALID_BITMAP},
        {"int flip unallocated", K_IntFlipBitmap(&unalloc), KS_INVALID_BITMAP},
        {"int reverse unallocated", K_IntReverseBitmap(&unalloc), KS_INVALID_BITMAP},
        {"relabel null", K_FlipBitmapViewPerspective(nullptr), KS_INVALID_PARAMETER},
        {"relabel size", K_ReverseBitmapViewPerspective(&bad), KS_INVALID_STRUCT_SIZE},
        {"rotate relabel size", K_RotateBitmapViewPerspective(&bad, 90), KS_INVALID_STRUCT_SIZE},
        {"int relabel null", K_IntFlipBitmapViewPerspective(nullptr), KS_INVALID_BITMAP},
        {"turn null", K_RotateBitmap90(nullptr, 1, 0, 100), KS_INVALID_PARAMETER},
        {"turn unallocated", K_RotateBitmap90(&unalloc, 1, 0, 100), KS_INVALID_PARAMETER},
        {"turn size", K_RotateBitmap90(&bad, 1, 0, 100), KS_INVALID_STRUCT_SIZE},
        {"change null", K_ChangeBitmapViewPerspective(nullptr, nullptr, 0, 1), KS_INVALID_PARAMETER},
        {"change unallocated", K_ChangeBitmapViewPerspective(nullptr, &unalloc, 0, 1), KS_INVALID_PARAMETER},
        {"change size", K_ChangeBitmapViewPerspective(nullptr, &bad, 0, 1), KS_INVALID_STRUCT_SIZE},
        {"int change null", K_IntChangeBitmapViewPerspective(nullptr, nullptr, 0, 1, 5), KS_INVALID_BITMAP},
        {"buffer90 null", K_RotateBuffer90(nullptr, buf, 1, 2, 2, 8), KS_INVALID_PARAMETER},
        {"buffer90 depth", K_RotateBuffer90(buf, buf + 32, 1, 2, 2, 9), KS_INVALID_PARAMETER},
        {"buffer90 absurd", K_RotateBuffer90(buf, buf + 32, 1, 0xFFFFFFFFu, 2, 64), KS_INVALID_PARAMETER},
        {"buffer180 overlap", K_RotateBuffer180(buf, buf + 4, 4, 4, 8), KS_INVALID_PARAMETER},
        {"buffer180 null", K_RotateBuffer180(buf, nullptr, 4, 4, 8), KS_INVALID_PARAMETER},
        {"mirror null", K_MirrorLine(nullptr, 4, 8), KS_INVALID_PARAMETER},
    };
    for (const Case& c : cases) EXPECT_EQ(c.rc, c.want) << c.what;

    // Values: perspectives, progress ranges, an accessed bitmap; nothing changes.
    Sample a(Kind::SingleBlock, 5, 3, 8, 1);
    BITMAPRECORD before = a.kb.bm;
    EXPECT_EQ(K_ChangeBitmapViewPerspective(nullptr, a.bm(), 0, 9), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_ChangeBitmapViewPerspective(nullptr, a.bm(), 0, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_RotateBitmap90(a.bm(), 1, 50, 20), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_RotateBitmap90(a.bm(), 1, -1, 20), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_RotateBitmap90(a.bm(), 1, 0, 101), KS_INVALID_PARAMETER);
    ASSERT_EQ(K_AccessBitmap(a.bm()), KS_SUCCESS);
    EXPECT_EQ(K_RotateBitmap90(a.bm(), 1, 0, 100), KS_INVALID_PARAMETER);
    ASSERT_EQ(K_ReleaseBitmap(a.bm()), KS_SUCCESS);
    a.bm()->nViewPerspective = 0;
    EXPECT_EQ(K_ChangeBitmapViewPerspective(nullptr, a.bm(), 0, 1), KS_INVALID_PARAMETER);
    a.bm()->nViewPerspective = 1;
    EXPECT_EQ(std::memcmp(&before, a.bm(), sizeof before), 0);
    EXPECT_TRUE(stored(a.bm()) == a.pixels);
    // A depth the mirror does not know leaves the row.
    uint8_t row[4] = {1, 2, 3, 4};
    EXPECT_EQ(K_MirrorLine(row, 4, 9), KS_SUCCESS);
    EXPECT_EQ(row[0], 1);
    EXPECT_EQ(row[3], 4);
}

// Progress of a turn runs from the start to the end value given; the
// perspective change silences the callback and puts it back.
TEST(Orient, StatusCallbackProgress) {
    // Progress of a turn runs from the start to the end value given.
    tkit::StopAfter log;
    tkit::StatusScope scope(&tkit::StopAfter::cb, &log);
    Sample b(Kind::SingleBlock, 300, 200, 8, 2, false);
    ASSERT_EQ(K_RotateBitmap90(b.bm(), 1, 20, 60), KS_SUCCESS);
    ASSERT_FALSE(log.seen.empty());
    EXPECT_GE(log.seen.front(), 20);
    EXPECT_EQ(log.seen.back(), 60);
    EXPECT_TRUE(std::is_sorted(log.seen.begin(), log.seen.end()));
    log.seen.clear();
    ASSERT_EQ(K_ChangeBitmapViewPerspective(nullptr, b.bm(), 0, 6), KS_SUCCESS);
    EXPECT_TRUE(log.seen.empty());
    STATUSCALLBACK now = nullptr;
    K_GetStatusCallBack(&now, nullptr);
    EXPECT_EQ(now, &tkit::StopAfter::cb);
}

// A 20000 x 20000 24-bit bitmap on tiles (1.2 GB) turns with the process
// memory cap below its size: the tiles go to files, the turn runs in bands.
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
        for (int x = 0; x < N; ++x)
            for (int c = 0; c < 3; ++c) row[size_t(x) * 3 + size_t(c)] = px(x, y, c);
        ASSERT_GT(K_PutBitmapRow(&bm, row.data(), y, bm.nBytesPerLine), 0);
    }
    K_ReleaseBitmap(&bm);
    ASSERT_EQ(K_RotateBitmap90(&bm, 1, 0, 100), KS_SUCCESS);
    EXPECT_EQ(kindOf(&bm), 4u);
    K_AccessBitmap(&bm);
    for (int r : {0, 1, 9999, 19998, 19999}) {
        ASSERT_GT(K_GetBitmapRow(&bm, row.data(), r, bm.nBytesPerLine), 0);
        for (int c = 0; c < N; c += 997)
            ASSERT_EQ(row[size_t(c) * 3 + 1], px(r, N - 1 - c, 1)) << r << "," << c;
    }
    K_ReleaseBitmap(&bm);
    K_FreeBitmap(&bm);
}
