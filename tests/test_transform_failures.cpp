// Failed transforms change nothing: every copy, crop, flip, turn, rotation,
// shear, resize and colour resolution walked through the allocation-failure
// hook, and stopped by its status callback, on the storage kinds it treats
// differently. Each failure leaves the caller's record, region and pixels
// byte for byte as they were, writes no new record and leaks nothing.
#include <gtest/gtest.h>

#include <functional>

#include "orient_ref.h"
#include "transform_kit.h"

using namespace tkit;

namespace {

struct Op {
    const char* name;
    int bpp;
    std::vector<Kind> kinds;
    bool newRecord;  // the result goes into a second record
    std::function<int32_t(BITMAPRECORD* src, BITMAPRECORD* dst)> call;
    bool copyStatus = false;  // reports through the copy status callback
    long times = 1;           // failures per call (< 0: every later allocation)
    bool untilSuccess = false;
    bool reports = true;  // reports progress (the perspective change silences the callback)
};

const std::vector<Op>& ops() {
    const std::vector<Kind> copyKinds = {Kind::SingleBlock, Kind::TilesMemory, Kind::Compressed, Kind::SuperCompressed};
    const std::vector<Kind> turnKinds = {Kind::SingleBlock, Kind::TilesMemory, Kind::Compressed, Kind::SuperCompressed,
                                         Kind::CallerMemory};
    const std::vector<Kind> single = {Kind::SingleBlock}, deep = {Kind::SingleBlock, Kind::TilesMemory};
    const uint32_t R = BITMAPRECORD_SIZE;
    static std::vector<Op> all;
    if (!all.empty()) return all;
    all = {
        {"copy", 1, copyKinds, true, [=](BITMAPRECORD* s, BITMAPRECORD* d) { return K_CopyBitmap(d, s, R); }, true},
        {"copy2", 1, copyKinds, true, [=](BITMAPRECORD* s, BITMAPRECORD* d) { return K_CopyBitmap2(d, s, R, 1024); }, true},
        {"rect", 1, copyKinds, true,
         [=](BITMAPRECORD* s, BITMAPRECORD* d) { return K_CopyBitmapRect(d, s, R, 3, -1, 30, 12); }, true},
        {"crop", 1, copyKinds, false,
         [=](BITMAPRECORD* s, BITMAPRECORD*) { return K_CopyBitmapRect(nullptr, s, R, 3, -1, 30, 12); }, true},
        {"flip", 1, turnKinds, false, [](BITMAPRECORD* s, BITMAPRECORD*) { return K_FlipBitmap(s); }},
        {"reverse", 1, turnKinds, false, [](BITMAPRECORD* s, BITMAPRECORD*) { return K_ReverseBitmap(s); }},
        {"turn", 1, turnKinds, false, [](BITMAPRECORD* s, BITMAPRECORD*) { return K_RotateBitmap90(s, 1, 0, 100); }},
        {"change 1->7", 1, turnKinds, false,
         [](BITMAPRECORD* s, BITMAPRECORD*) { return K_ChangeBitmapViewPerspective(nullptr, s, 0, 7); }, false, 1,
         false, false},
        {"change 1->3", 1, turnKinds, false,
         [](BITMAPRECORD* s, BITMAPRECORD*) { return K_ChangeBitmapViewPerspective(nullptr, s, 0, 3); }, false, 1,
         false, false},
        {"rotate", 32, deep, false,
         [](BITMAPRECORD* s, BITMAPRECORD*) { return K_RotateBitmap(s, 2000, ROTATE_RESIZE | ROTATE_BILINEAR, 0); }},
        {"shear", 32, deep, false,
         [](BITMAPRECORD* s, BITMAPRECORD*) { return K_ShearBitmap(s, 2000, ROTATE_RESIZE | ROTATE_BILINEAR, 0); }},
        {"rotate 1 bit", 1, {Kind::Compressed}, false,
         [](BITMAPRECORD* s, BITMAPRECORD*) { return K_RotateBitmap(s, 2000, ROTATE_RESIZE, 0); }},
    };
    for (uint32_t f : {0u, SIZE_RESAMPLE, SIZE_BICUBIC, SIZE_LANCZOS, SIZE_FAVOURBLACK, SIZE_SCALETOGRAY}) {
        const bool one = f == SIZE_FAVOURBLACK || f == SIZE_SCALETOGRAY;
        all.push_back({"size", one ? 1 : 32, single, false,
                       [f](BITMAPRECORD* s, BITMAPRECORD*) { return K_SizeBitmap(s, 13, 9, f); }, false, -1});
    }
    // Past the first success a failing colour resolution leaks two blocks (a
    // known fault): these walks stop there.
    static const std::vector<RGBQUAD> pal = [] {
        std::vector<RGBQUAD> p;
        for (int i = 0; i < 16; ++i) p.push_back(RGBQUAD{uint8_t(i * 37), uint8_t(200 - i * 11), uint8_t(i * i), 0});
        return p;
    }();
    const struct {
        int bits;
        uint32_t flags;
        bool inPlace;
    } res[] = {{48, CRF_BYTEORDERBGR, false},
               {8, CRF_NODITHERING, false},
               {4, CRF_FIXEDPALETTE | CRF_NODITHERING, true},
               {4, CRF_USERPALETTE | CRF_NODITHERING, false},
               {8, CRF_OPTIMIZEDPALETTE | CRF_NODITHERING, true},
               {4, CRF_USERPALETTE | CRF_DITHER(1), true},
               {16, CRF_BYTEORDERGRAY, true}};
    for (const auto& c : res)
        all.push_back({"colour resolution", 24, single, !c.inPlace,
                       [c](BITMAPRECORD* s, BITMAPRECORD* d) {
                           return K_ColorResBitmap(s, c.inPlace ? s : d, c.bits, c.flags, pal.data(), 16, BITMAPRECORD_SIZE);
                       },
                       false, 1, true});
    return all;
}

// The source of every call: random pixels, order BGR beyond 8 bits, an ellipse region.
struct Subject {
    Source src;
    BITMAPRECORD before;
    orienttest::Grid mask;
    Subject(Kind k, int w, int h, int bpp) : src(k, w, h, bpp, uint32_t(w + bpp)) {
        if (bpp > 8) src.bm()->nOrder = ORDER_BGR;
        const RECT e{1, 0, w - 1, h};
        EXPECT_EQ(K_SetBitmapRgnEllipse(src.bm(), nullptr, &e, RGN_SET_REPLACE), KS_SUCCESS);
        before = *src.bm();
        mask = orienttest::regionGrid(src.bm());
    }
    void expectUnchanged(long n) {
        EXPECT_TRUE(sameBytes(before, *src.bm())) << n;
        EXPECT_EQ(src.unchanged(), "") << n;
        EXPECT_TRUE(orienttest::regionGrid(src.bm()) == mask) << n;
    }
};

}  // namespace

TEST(TransformFailures, EveryAllocationFailureChangesNothing) {
    storagetest::CapGuard guard;
    for (const Op& op : ops())
        for (Kind k : op.kinds) {
            SCOPED_TRACE(std::string(op.name) + " " + kindName(k) + " bpp " + std::to_string(op.bpp));
            const int failures = allocationWalk(
                [&](Armed& armed) {
                    Subject s(k, 40, 19, op.bpp);
                    ASSERT_EQ(s.src.kb.rc, KS_SUCCESS);
                    Sentinel d;
                    if (armed([&] { return op.call(s.src.bm(), &d.bm); }) == KS_SUCCESS) {
                        if (op.newRecord) K_FreeBitmap(&d.bm);
                        return;
                    }
                    EXPECT_TRUE(d.intact()) << armed.n;
                    s.expectUnchanged(armed.n);
                },
                op.times, op.untilSuccess);
            EXPECT_GT(failures, 0);
        }
}

// A status callback answering 0 at its first or second report stops the call
// with 0, and nothing changes, wherever it stops.
TEST(TransformFailures, StatusCallbackStopChangesNothing) {
    storagetest::CapGuard guard;
    for (const Op& op : ops())
        for (Kind k : {op.kinds.front(), op.kinds.back()})
            for (int stop : {0, 1}) {
                if (!op.reports) continue;
                SCOPED_TRACE(std::string(op.name) + " " + kindName(k) + " stop " + std::to_string(stop));
                Subject s(k, 40, 300, op.bpp);
                ASSERT_EQ(s.src.kb.rc, KS_SUCCESS);
                StopAfter cb(stop, 0);
                Sentinel d;
                const long live = krn::faultinject::liveBlocks();
                {
                    StatusScope scope(&StopAfter::cb, &cb, op.copyStatus);
                    EXPECT_EQ(op.call(s.src.bm(), &d.bm), 0);
                }
                EXPECT_EQ(cb.calls(), stop + 1);
                EXPECT_TRUE(d.intact());
                EXPECT_EQ(krn::faultinject::liveBlocks(), live);
                s.expectUnchanged(0);
            }
}
