// test_regions_merge.cpp - the combine merge against the boolean-mask model:
// random and banded shapes (tall bands of identical rows with many runs, so
// the repeated-row path runs; long runs over combs; runs that touch; empty
// and identical sources) combined by every operation through CombineRgn, in
// place through K_CombineOrvaRgn, and moved to the edges of the 32-bit range.
#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <vector>

#include "dis/common/region.h"
#include "krn/windowsemul/objects.h"
#include "ombrix.h"
#include "regions_mask.h"

using rgntest::Mask;

namespace {

const Mask kWin(-20, -10, 120, 80);

// A region built from the mask's runs, one single-row rectangle per run.
HRGN regionOfMask(const Mask& m) {
    std::vector<RECT> rs;
    for (int y = m.y0; y < m.y0 + m.h; ++y)
        for (int x = m.x0; x < m.x0 + m.w;) {
            if (!m.get(x, y)) {
                ++x;
                continue;
            }
            int e = x;
            while (e < m.x0 + m.w && m.get(e, y)) ++e;
            rs.push_back(RECT{x, y, e, y + 1});
            x = e;
        }
    if (rs.empty()) return CreateRectRgn(0, 0, 0, 0);
    std::vector<uint8_t> blk(32 + 16 * rs.size());
    RGNDATAHEADER h{32, RDH_RECTANGLES, uint32_t(rs.size()), uint32_t(16 * rs.size()), RECT{0, 0, 0, 0}};
    std::memcpy(blk.data(), &h, 32);
    std::memcpy(blk.data() + 32, rs.data(), 16 * rs.size());
    return ExtCreateRegion(nullptr, uint32_t(blk.size()), reinterpret_cast<const RGNDATA*>(blk.data()));
}

// Shapes by index arithmetic on the mask (independent of the engine).
Mask randomShape(std::mt19937& rng) {
    Mask m(kWin.x0, kWin.y0, kWin.w, kWin.h);
    auto in = [&](int lo, int hi) { return lo + int(rng() % uint32_t(hi - lo + 1)); };
    const int top = in(kWin.y0, kWin.y0 + 30), bottom = in(top, kWin.y0 + kWin.h);
    switch (rng() % 6) {
        case 0:  // random rectangles
            for (int k = in(1, 12); k > 0; --k) {
                int x = in(kWin.x0, kWin.x0 + kWin.w), y = in(kWin.y0, kWin.y0 + kWin.h);
                m = m.combine(rgntest::rectMask(kWin, RECT{x, y, x + in(1, 30), y + in(1, 20)}), 1);
            }
            break;
        case 1: {  // checkerboard: tall bands of identical rows with many runs
            const int cw = in(1, 5), ch = in(1, 16), px = in(0, 9), py = in(0, 9);
            for (int y = top; y < bottom; ++y)
                for (int x = m.x0; x < m.x0 + m.w; ++x) m.set(x, y, ((x + px) / cw + (y + py) / ch) % 2 == 0);
            break;
        }
        case 2: {  // vertical stripes of width w, period 2w: a shifted copy touches them
            const int w = in(1, 4), phase = in(0, 2 * w);
            for (int y = top; y < bottom; ++y)
                for (int x = m.x0; x < m.x0 + m.w; ++x) m.set(x, y, ((x - m.x0 + phase) / w) % 2 == 0);
            break;
        }
        case 3: {  // a disc
            const double cx = in(0, 80), cy = in(0, 60), rx = in(1, 50), ry = in(1, 40);
            for (int y = m.y0; y < m.y0 + m.h; ++y)
                for (int x = m.x0; x < m.x0 + m.w; ++x) {
                    const double dx = (x + 0.5 - cx) / rx, dy = (y + 0.5 - cy) / ry;
                    m.set(x, y, dx * dx + dy * dy <= 1);
                }
            break;
        }
        case 4: {  // a long run over a comb in some rows
            const int x0 = in(m.x0, m.x0 + 50), x1 = in(x0 + 1, m.x0 + m.w);
            for (int y = top; y < bottom; ++y)
                for (int x = m.x0; x < m.x0 + m.w; ++x) m.set(x, y, (x >= x0 && x < x1) || x % 3 == 0);
            break;
        }
        default: break;  // empty
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
    int mode;      // RGN_
    int maskOp;    // Mask::combine
    const char* name;
};
const OpCase kOps[] = {{RGN_AND, 0, "and"}, {RGN_OR, 1, "or"}, {RGN_XOR, 2, "xor"}, {RGN_DIFF, 3, "diff"}};

TEST(RegionsMerge, EveryOperationMatchesTheMaskOnRandomAndBandedShapes) {
    std::mt19937 rng(20261125);
    for (int trial = 0; trial < 600; ++trial) {
        const Mask ma = randomShape(rng);
        Mask mb = randomShape(rng);
        if (trial % 10 == 0) mb = ma;  // identical sources
        HRGN a = regionOfMask(ma), b = regionOfMask(mb);
        ASSERT_EQ(maskOf(a), ma);
        ASSERT_EQ(maskOf(b), mb);
        for (const OpCase& op : kOps) {
            SCOPED_TRACE(std::string(op.name) + " trial " + std::to_string(trial));
            const Mask want = ma.combine(mb, op.maskOp);
            HRGN d = CreateRectRgn(1, 2, 3, 4);  // a destination with blocks to take over
            const int kind = CombineRgn(d, a, b, op.mode);
            ASSERT_TRUE(krn::rgn::valid(payload(d)));
            const Mask got = maskOf(d);
            ASSERT_TRUE(got == want) << want.describeDiff(got);
            EXPECT_EQ(kind, want.count() == 0 ? NULLREGION : want.isRectangle() ? SIMPLEREGION : COMPLEXREGION);
            // In place: the destination is the first source.
            OrvaRgn* inPlace = nullptr;
            ASSERT_EQ(K_CopyOrvaRgn(&inPlace, payload(a)), KS_SUCCESS);
            ASSERT_EQ(K_CombineOrvaRgn(&inPlace, inPlace, payload(b), op.mode), KS_SUCCESS);
            ASSERT_TRUE(krn::rgn::valid(inPlace));
            ASSERT_EQ(inPlace->uRunDataSize, payload(d)->uRunDataSize);
            if (inPlace->uRunDataSize) {
                EXPECT_EQ(0, std::memcmp(inPlace->pRunData, payload(d)->pRunData, inPlace->uRunDataSize));
            }
            K_DeleteOrvaRgn(inPlace);
            DeleteObject(d);
        }
        DeleteObject(a);
        DeleteObject(b);
    }
}

// The same shapes moved next to the ends of the 32-bit range (runs that end
// at INT32_MAX, rows near INT32_MIN) give the same pixels moved.
TEST(RegionsMerge, ShapesAtTheEdgesOfTheCoordinateRange) {
    std::mt19937 rng(7);
    const int32_t dxs[] = {INT32_MAX - (kWin.x0 + kWin.w), INT32_MIN - kWin.x0};
    const int32_t dy = INT32_MIN - kWin.y0;
    for (int trial = 0; trial < 200; ++trial) {
        const Mask ma = randomShape(rng), mb = randomShape(rng);
        const int32_t dx = dxs[trial % 2];
        HRGN a = regionOfMask(ma), b = regionOfMask(mb);
        ASSERT_NE(OffsetRgn(a, dx, dy), 0);
        ASSERT_NE(OffsetRgn(b, dx, dy), 0);
        for (const OpCase& op : kOps) {
            HRGN d = CreateRectRgn(0, 0, 0, 0);
            CombineRgn(d, a, b, op.mode);
            ASSERT_TRUE(krn::rgn::valid(payload(d)));
            ASSERT_NE(OffsetRgn(d, -dx, -dy), 0);
            const Mask want = ma.combine(mb, op.maskOp);
            Mask got = maskOf(d);
            ASSERT_TRUE(got == want) << op.name << " trial " << trial << ": " << want.describeDiff(got);
            DeleteObject(d);
        }
        DeleteObject(a);
        DeleteObject(b);
    }
}

// Clipping (runs found by halving, the end runs cut) against the mask AND
// the rectangle, for rectangles inside, across and outside the shapes.
TEST(RegionsMerge, ClipMatchesTheMask) {
    std::mt19937 rng(17);
    for (int trial = 0; trial < 400; ++trial) {
        const Mask m = randomShape(rng);
        auto c = [&](int lo, int hi) { return lo + int(rng() % uint32_t(hi - lo + 1)); };
        const RECT rc{c(-30, 110), c(-20, 80), c(-30, 110), c(-20, 80)};
        HRGN h = regionOfMask(m);
        OrvaRgn* r = nullptr;
        ASSERT_EQ(K_CopyOrvaRgn(&r, payload(h)), KS_SUCCESS);
        ASSERT_EQ(K_ClipOrvaRgnRect(r, &rc), KS_SUCCESS);
        ASSERT_TRUE(krn::rgn::valid(r));
        HRGN back = krn::rgn::makeHandle(r);
        const Mask want = rc.left < rc.right && rc.top < rc.bottom ? m.combine(rgntest::rectMask(kWin, rc), 0)
                                                                   : Mask(kWin.x0, kWin.y0, kWin.w, kWin.h);
        const Mask got = maskOf(back);
        ASSERT_TRUE(got == want) << "trial " << trial << ": " << want.describeDiff(got);
        DeleteObject(back);
        DeleteObject(h);
    }
}

// A bitmap without a region combined by AND and OR (modes 0 and 4), clipped
// and unclipped: the whole bitmap stands for the missing region.
TEST(RegionsMerge, BitmapWithoutRegionCombinesWithTheWholeBitmap) {
    std::mt19937 rng(23);
    for (int trial = 0; trial < 60; ++trial) {
        const Mask m = randomShape(rng);
        const bool unclippedFlag = trial % 2;
        const uint32_t mode = trial % 4 < 2 ? 0 : 4;
        BITMAPRECORD bm;
        ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 50, 40, 8), KS_SUCCESS);
        if (unclippedFlag) bm.uFlags |= BRF_UNCLIPPED_RGN;
        HRGN h = regionOfMask(m);
        ASSERT_EQ(K_SetBitmapRgnHandle(&bm, nullptr, h, mode), KS_SUCCESS);
        HRGN got = nullptr;
        ASSERT_EQ(K_GetBitmapRgnHandle(&bm, nullptr, &got), KS_SUCCESS);
        const Mask whole = rgntest::rectMask(kWin, RECT{0, 0, 50, 40});
        Mask want = mode == 0 ? m.combine(whole, 0) : m.combine(whole, 1);
        if (!unclippedFlag) want = want.combine(whole, 0);
        const Mask gotMask = maskOf(got);
        ASSERT_TRUE(gotMask == want) << "trial " << trial << ": " << want.describeDiff(gotMask);
        DeleteObject(got);
        DeleteObject(h);
        K_FreeBitmap(&bm);
    }
}

// Every allocation of a combine failing in turn leaves the destination as it
// was; the sweep ends with a success that matches the mask.
TEST(RegionsMerge, FailedAllocationsLeaveTheDestination) {
    std::mt19937 rng(3);
    Mask ma(kWin.x0, kWin.y0, kWin.w, kWin.h), mb = ma;
    while (ma.count() == 0 || mb.count() == 0) {
        ma = randomShape(rng);
        mb = randomShape(rng);
    }
    HRGN a = regionOfMask(ma), b = regionOfMask(mb);
    for (const OpCase& op : kOps) {
        HRGN d = CreateRectRgn(5, 5, 9, 7);
        const Mask want = ma.combine(mb, op.maskOp);
        Mask before = rgntest::rectMask(kWin, RECT{5, 5, 9, 7});
        for (long n = 0;; ++n) {
            krn::faultinject::arm(n);
            const int kind = CombineRgn(d, a, b, op.mode);
            const long failed = krn::faultinject::injected();
            krn::faultinject::disarm();
            // A failed shrink of the finished arrays is harmless: the call succeeds.
            const Mask got = maskOf(d);
            ASSERT_TRUE(got == (kind == 0 ? before : want)) << op.name << " failure " << n;
            if (kind != 0) before = want;
            if (failed == 0) break;
        }
        DeleteObject(d);
    }
    DeleteObject(a);
    DeleteObject(b);
}

}  // namespace
