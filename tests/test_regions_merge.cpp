// test_regions_merge.cpp - the combine's row merges against the boolean-mask
// model: long random rows (the split chains), periodic rows (the loops with
// branches), bands of identical rows that end at different rows in the two
// sources, alternating and empty rows inside bands; every operation, at both
// ends of the 32-bit range, and under allocation failures.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <random>
#include <vector>

#include "ombrix.h"
#include "dis/common/region.h"
#include "krn/common/memory.h"
#include "krn/windowsemul/objects.h"
#include "regions_mask.h"

namespace {

using rgntest::Mask;
const Mask kWin(-7, -3, 420, 60);

int in(std::mt19937& rng, int lo, int hi) { return lo + int(rng() % uint32_t(hi - lo + 1)); }

// Bands of 1..14 rows (1 for family 0), each repeating one row: random runs
// and gaps of 1..6 pixels, a periodic row, an empty row, or two rows in turn.
Mask bandedMask(std::mt19937& rng, int family) {
    Mask m = kWin.blank();
    for (int y = kWin.y0; y < kWin.y0 + kWin.h;) {
        const int kind = family == 0 ? 0 : in(rng, 0, 3), h = family == 0 ? 1 : in(rng, 1, 14);
        const int period = in(rng, 4, 12), len = in(rng, 1, period - 1), phase = in(rng, 0, 11);
        std::vector<uint8_t> rows[2];
        for (std::vector<uint8_t>& r : rows) {
            r.assign(size_t(kWin.w), 0);
            for (int x = in(rng, 0, 6), g = in(rng, 1, 6); x < kWin.w; x += in(rng, 1, g))
                for (int e = std::min(kWin.w, x + in(rng, 1, 6)); x < e; ++x) r[size_t(x)] = kind != 2;
        }
        for (int k = 0; k < h && y < kWin.h + kWin.y0; ++k, ++y)
            for (int x = 0; x < kWin.w; ++x)
                m.set(kWin.x0 + x, y, kind == 1 ? (x + phase) % period < len : rows[kind == 3 ? k % 2 : 0][size_t(x)] != 0);
    }
    return m;
}

OrvaRgn* payload(HRGN h) { return static_cast<OrvaRgn*>(krn::objPayload(h, krn::kObjRegion)); }
Mask maskOf(HRGN h) {
    bool ok = false;
    Mask m = rgntest::maskOfHandle(kWin, h, &ok);
    EXPECT_TRUE(ok);
    return m;
}
constexpr int kOps[][2] = {{RGN_AND, 0}, {RGN_OR, 1}, {RGN_XOR, 2}, {RGN_DIFF, 3}};  // mode, the mask model's code

// Every operation in both orders, for random rows, banded shapes, and a shape
// against its own bands moved down 1..5 rows with a few pixels changed.
TEST(RegionsMerge, EveryOperationEqualsTheMaskModel) {
    std::mt19937 rng(20261125);
    for (int iter = 0; iter < 60; ++iter) {
        const int family = iter % 3;
        const Mask ma = bandedMask(rng, family);
        Mask mb = bandedMask(rng, family);
        const int dy = in(rng, 1, 5);
        for (int y = kWin.y0; family == 2 && y < kWin.y0 + kWin.h; ++y)
            for (int x = kWin.x0; x < kWin.x0 + kWin.w; ++x) mb.set(x, y, ma.get(x, y - dy) != (x % 17 == 0 && y % 5 == 0));
        HRGN a = rgntest::regionOfMask(ma), b = rgntest::regionOfMask(mb), d = CreateRectRgn(0, 0, 3, 3);
        for (const auto& op : kOps)
            for (int swap = 0; swap < 2; ++swap) {
                const Mask want = swap ? mb.combine(ma, op[1]) : ma.combine(mb, op[1]);
                ASSERT_NE(CombineRgn(d, swap ? b : a, swap ? a : b, op[0]), 0);
                ASSERT_TRUE(krn::rgn::valid(payload(d)));
                const Mask got = maskOf(d);
                ASSERT_TRUE(got == want) << "iter " << iter << " mode " << op[0] << " swap " << swap << ": "
                                         << got.describeDiff(want);
            }
        for (HRGN h : {a, b, d}) DeleteObject(h);
    }
}

// A merge does not depend on where the rows lie: sources moved so that their
// runs reach INT32_MIN or INT32_MAX give the moved result (the difference of
// long rows clips at both ends of the range).
TEST(RegionsMerge, ResultsMoveWithTheSourcesToBothEndsOfTheRange) {
    std::mt19937 rng(7);
    for (int iter = 0; iter < 12; ++iter) {
        HRGN ha = rgntest::regionOfMask(bandedMask(rng, iter % 2)), hb = rgntest::regionOfMask(bandedMask(rng, iter % 2));
        const OrvaRgn *a = payload(ha), *b = payload(hb);
        const int64_t left = std::min(a->rcBounds.left, b->rcBounds.left), right = std::max(a->rcBounds.right, b->rcBounds.right);
        for (const auto& op : kOps) {
            OrvaRgn* plain = nullptr;
            ASSERT_EQ(K_CombineOrvaRgn(&plain, a, b, op[0]), KS_SUCCESS);
            for (int64_t dx : {int64_t(INT32_MIN) - left, int64_t(INT32_MAX) - right}) {
                OrvaRgn *ma = nullptr, *mb = nullptr, *moved = nullptr;
                ASSERT_EQ(K_CopyOrvaRgn(&ma, a) | K_CopyOrvaRgn(&mb, b), KS_SUCCESS);
                ASSERT_EQ(K_OffsetOrvaRgn(ma, int32_t(dx), 0) | K_OffsetOrvaRgn(mb, int32_t(dx), 0), KS_SUCCESS);
                ASSERT_EQ(K_CombineOrvaRgn(&moved, ma, mb, op[0]), KS_SUCCESS);
                ASSERT_TRUE(krn::rgn::valid(moved) && K_OffsetOrvaRgn(moved, int32_t(-dx), 0) == KS_SUCCESS);
                ASSERT_EQ(moved->uRunDataSize, plain->uRunDataSize) << "mode " << op[0] << " dx " << dx;
                EXPECT_EQ(0, std::memcmp(moved->pRunData, plain->pRunData, plain->uRunDataSize));
                EXPECT_EQ(0, std::memcmp(&moved->rcBounds, &plain->rcBounds, sizeof(RECT)));
                for (OrvaRgn* r : {ma, mb, moved}) K_DeleteOrvaRgn(r);
            }
            K_DeleteOrvaRgn(plain);
        }
        for (HRGN h : {ha, hb}) DeleteObject(h);
    }
}

// Each allocation of a combine of long banded rows fails in turn: the call
// fails, leaks nothing and leaves the destination as it was; success gives
// the whole result.
TEST(RegionsMerge, AllocationFailureLeavesTheDestination) {
    std::mt19937 rng(11);
    const Mask ma = bandedMask(rng, 1), mb = bandedMask(rng, 0);
    HRGN a = rgntest::regionOfMask(ma), b = rgntest::regionOfMask(mb), d = CreateEllipticRgn(0, 0, 30, 20);
    const std::vector<uint8_t> old = rgntest::regionData(d);
    for (const auto& op : kOps) {
        int failures = 0;
        for (long n = 0;; ++n) {
            const long live = krn::faultinject::liveBlocks();
            krn::faultinject::arm(n, 1);
            const int r = CombineRgn(d, a, b, op[0]);
            const long injected = krn::faultinject::injected();
            krn::faultinject::disarm();
            if (r == 0) {
                ++failures;
                EXPECT_EQ(krn::faultinject::liveBlocks(), live) << "leak, failure " << n;
                ASSERT_EQ(rgntest::regionData(d), old) << "mode " << op[0] << " failure " << n;
            } else {
                ASSERT_TRUE(maskOf(d) == ma.combine(mb, op[1])) << "mode " << op[0] << " failure " << n;
                DeleteObject(d);
                d = CreateEllipticRgn(0, 0, 30, 20);
            }
            if (injected == 0) break;
        }
        EXPECT_GT(failures, 0) << "mode " << op[0];
    }
    for (HRGN h : {a, b, d}) DeleteObject(h);
}

}  // namespace
