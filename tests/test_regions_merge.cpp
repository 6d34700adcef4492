// test_regions_merge.cpp - the combine's row merges against the boolean-mask
// model: long rows of random runs (the split chains), periodic rows (the
// loops with branches), bands of identical rows whose ends differ between the
// two sources, alternating and empty rows inside bands; every operation, at
// both ends of the 32-bit range, and under allocation failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <string>
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

// One row of runs: random lengths and gaps (1..maxRun, 1..maxGap) or, when
// period > 0, runs of `len` every `period` pixels from `phase`.
std::vector<uint8_t> rowPattern(std::mt19937& rng, int maxRun, int maxGap, int period = 0, int len = 0, int phase = 0) {
    std::vector<uint8_t> row(size_t(kWin.w), 0);
    if (period > 0) {
        for (int x = 0; x < kWin.w; ++x) row[size_t(x)] = ((x + phase) % period) < len;
        return row;
    }
    for (int x = in(rng, 0, maxGap); x < kWin.w;) {
        const int e = std::min(kWin.w, x + in(rng, 1, maxRun));
        for (; x < e; ++x) row[size_t(x)] = 1;
        x += in(rng, 1, maxGap);
    }
    return row;
}

// A shape of bands: each band repeats one row (random, periodic, empty, or
// alternating between two rows) for 1..maxBand rows.
Mask bandedMask(std::mt19937& rng, int family) {
    Mask m = kWin.blank();
    const int period = in(rng, 4, 12), len = in(rng, 1, period - 1);
    for (int y = 0; y < kWin.h;) {
        const int kind = family == 0 ? 0 : in(rng, 0, 4), h = family == 0 ? 1 : in(rng, 1, 14);
        std::vector<uint8_t> r1 = kind == 1 ? rowPattern(rng, 0, 0, period, len, in(rng, 0, period))
                                            : rowPattern(rng, in(rng, 1, 6), in(rng, 1, 6));
        const std::vector<uint8_t> r2 = rowPattern(rng, 3, 3);
        if (kind == 2) std::fill(r1.begin(), r1.end(), 0);
        for (int k = 0; k < h && y < kWin.h; ++k, ++y) {
            const std::vector<uint8_t>& r = kind == 3 && k % 2 ? r2 : r1;
            for (int x = 0; x < kWin.w; ++x) m.set(kWin.x0 + x, kWin.y0 + y, r[size_t(x)] != 0);
        }
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

struct OpCase {
    int mode, maskOp;  // the mask model's code: 0 and, 1 or, 2 xor, 3 a minus b
};
constexpr OpCase kOps[] = {{RGN_AND, 0}, {RGN_OR, 1}, {RGN_XOR, 2}, {RGN_DIFF, 3}};

// Every operation, both orders, into a recycled destination and in place,
// for random rows (family 0) and banded shapes (families 1, 2: the second
// source shifted by a few rows so their bands end at different rows).
TEST(RegionsMerge, EveryOperationEqualsTheMaskModel) {
    std::mt19937 rng(20261125);
    for (int iter = 0; iter < 60; ++iter) {
        const int family = iter % 3;
        const Mask ma = bandedMask(rng, family), mb = family == 2 ? ma.blank() : bandedMask(rng, family);
        Mask mbb = mb;
        if (family == 2) {  // the same bands shifted down by 1..5 rows, and partly changed
            const int dy = in(rng, 1, 5);
            for (int y = kWin.y0; y < kWin.y0 + kWin.h; ++y)
                for (int x = kWin.x0; x < kWin.x0 + kWin.w; ++x)
                    mbb.set(x, y, ma.get(x, y - dy) != (x % 17 == 0 && y % 5 == 0));
        }
        HRGN a = rgntest::regionOfMask(ma), b = rgntest::regionOfMask(mbb), d = CreateRectRgn(0, 0, 3, 3);
        for (const OpCase& op : kOps)
            for (int swap = 0; swap < 2; ++swap) {
                const std::string ctx = "iter " + std::to_string(iter) + " mode " + std::to_string(op.mode) + " swap " +
                                        std::to_string(swap);
                const Mask want = swap ? mbb.combine(ma, op.maskOp) : ma.combine(mbb, op.maskOp);
                ASSERT_NE(CombineRgn(d, swap ? b : a, swap ? a : b, op.mode), 0) << ctx;
                ASSERT_TRUE(krn::rgn::valid(payload(d))) << ctx;
                const Mask got = maskOf(d);
                ASSERT_TRUE(got == want) << ctx << ": " << got.describeDiff(want);
                // In place: the destination is the first source.
                HRGN c = CreateRectRgn(0, 0, 0, 0);
                CombineRgn(c, swap ? b : a, swap ? b : a, RGN_COPY);
                ASSERT_NE(CombineRgn(c, c, swap ? a : b, op.mode), 0) << ctx;
                ASSERT_TRUE(maskOf(c) == want) << ctx << " in place";
                DeleteObject(c);
            }
        for (HRGN h : {a, b, d}) DeleteObject(h);
    }
}

// A merge does not depend on where the rows lie: shapes moved so that their
// runs reach INT32_MIN or INT32_MAX combine to the moved result (the
// difference of long rows clips at both ends of the range).
TEST(RegionsMerge, ResultsMoveWithTheSourcesToBothEndsOfTheRange) {
    std::mt19937 rng(7);
    for (int iter = 0; iter < 12; ++iter) {
        const Mask ma = bandedMask(rng, iter % 2), mb = bandedMask(rng, iter % 2);
        HRGN ha = rgntest::regionOfMask(ma), hb = rgntest::regionOfMask(mb);
        OrvaRgn *a = nullptr, *b = nullptr;
        ASSERT_EQ(K_CopyOrvaRgn(&a, payload(ha)) | K_CopyOrvaRgn(&b, payload(hb)), KS_SUCCESS);
        const int64_t left = std::min(a->rcBounds.left, b->rcBounds.left), right = std::max(a->rcBounds.right, b->rcBounds.right);
        for (const OpCase& op : kOps) {
            OrvaRgn* plain = nullptr;
            ASSERT_EQ(K_CombineOrvaRgn(&plain, a, b, op.mode), KS_SUCCESS);
            for (int64_t dx : {int64_t(INT32_MIN) - left, int64_t(INT32_MAX) - right}) {
                OrvaRgn *ma2 = nullptr, *mb2 = nullptr, *moved = nullptr;
                ASSERT_EQ(K_CopyOrvaRgn(&ma2, a) | K_CopyOrvaRgn(&mb2, b), KS_SUCCESS);
                ASSERT_EQ(K_OffsetOrvaRgn(ma2, int32_t(dx), 0) | K_OffsetOrvaRgn(mb2, int32_t(dx), 0), KS_SUCCESS);
                ASSERT_EQ(K_CombineOrvaRgn(&moved, ma2, mb2, op.mode), KS_SUCCESS);
                ASSERT_TRUE(krn::rgn::valid(moved));
                ASSERT_EQ(K_OffsetOrvaRgn(moved, int32_t(-dx), 0), KS_SUCCESS);
                ASSERT_EQ(moved->uRunDataSize, plain->uRunDataSize) << "mode " << op.mode << " dx " << dx;
                EXPECT_EQ(0, std::memcmp(moved->pRunData, plain->pRunData, plain->uRunDataSize)) << "mode " << op.mode;
                EXPECT_EQ(0, std::memcmp(&moved->rcBounds, &plain->rcBounds, sizeof(RECT)));
                for (OrvaRgn* r : {ma2, mb2, moved}) K_DeleteOrvaRgn(r);
            }
            K_DeleteOrvaRgn(plain);
        }
        for (OrvaRgn* r : {a, b}) K_DeleteOrvaRgn(r);
        for (HRGN h : {ha, hb}) DeleteObject(h);
    }
}

// Each allocation of a combine of long banded rows fails in turn: the call
// fails, leaks nothing and leaves the destination as it was (through the
// handle and in place through the kernel call); success gives the full result.
TEST(RegionsMerge, AllocationFailureLeavesTheDestination) {
    std::mt19937 rng(11);
    const Mask ma = bandedMask(rng, 1), mb = bandedMask(rng, 0);
    HRGN a = rgntest::regionOfMask(ma), b = rgntest::regionOfMask(mb), d = CreateEllipticRgn(0, 0, 30, 20);
    const std::vector<uint8_t> old = rgntest::regionData(d);
    for (const OpCase& op : kOps) {
        const Mask want = ma.combine(mb, op.maskOp);
        int failures = 0;
        for (long n = 0;; ++n) {
            const long live = krn::faultinject::liveBlocks();
            krn::faultinject::arm(n, 1);
            const int r = CombineRgn(d, a, b, op.mode);
            const long injected = krn::faultinject::injected();
            krn::faultinject::disarm();
            if (r == 0) {
                ++failures;
                EXPECT_EQ(krn::faultinject::liveBlocks(), live) << "leak, failure " << n;
                ASSERT_EQ(rgntest::regionData(d), old) << "mode " << op.mode << " failure " << n;
            } else {
                ASSERT_TRUE(maskOf(d) == want) << "mode " << op.mode << " failure " << n;
                DeleteObject(d);
                d = CreateEllipticRgn(0, 0, 30, 20);
            }
            if (injected == 0) break;
        }
        EXPECT_GT(failures, 0) << "mode " << op.mode;
        // In place: the kernel region that is also the first source.
        OrvaRgn* k = nullptr;
        ASSERT_EQ(K_CopyOrvaRgn(&k, payload(a)), KS_SUCCESS);
        const std::vector<int32_t> before(k->pRunData, k->pRunData + k->uRunDataSize / 4u);
        for (long n = 0; n < 6; ++n) {
            krn::faultinject::arm(n, 1);
            const int32_t st = K_CombineOrvaRgn(&k, k, payload(b), op.mode);
            krn::faultinject::disarm();
            if (st == KS_SUCCESS) break;
            ASSERT_TRUE(krn::rgn::valid(k) && std::vector<int32_t>(k->pRunData, k->pRunData + k->uRunDataSize / 4u) == before);
        }
        K_DeleteOrvaRgn(k);
    }
    for (HRGN h : {a, b, d}) DeleteObject(h);
}

}  // namespace
