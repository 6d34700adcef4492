// What every transform shares: an allocation failure or a stop changes nothing (record, region, pixels, no leak); every
// kind gives the single block's result.

#include "orient_ref.h"
#include "transform_kit.h"

using namespace tkit;
using orienttest::Sample;

namespace {

using B = BITMAPRECORD*;
using Call = std::function<int32_t(B src, B dst)>;

struct Op {
    const char* name;
    int bpp;
    std::vector<Kind> kinds;
    bool newRecord;  // the result goes into a second record
    Call call;
    bool copyStatus = false;  // reports through the copy status callback
    long times = 1;           // failures per call (< 0: every later allocation; 0: allocates nothing)
    bool untilSuccess = false;
    bool reports = true;  // reports progress (the perspective change silences the callback)
};

const std::vector<Op>& ops() {
    using K = std::vector<Kind>;
    const K copyKinds = {Kind::SingleBlock, Kind::TilesMemory, Kind::Compressed, Kind::SuperCompressed};
    K turnKinds = copyKinds;
    turnKinds.push_back(Kind::CallerMemory);
    const K single = {Kind::SingleBlock}, deep = {Kind::SingleBlock, Kind::TilesMemory};
    const uint32_t R = BITMAPRECORD_SIZE, RS = ROTATE_RESIZE, RB = RS | ROTATE_BILINEAR;
    auto change = [](int to) { return [to](B s, B) { return K_ChangeBitmapViewPerspective(nullptr, s, 0, to); }; };
    static std::vector<Op> all;
    if (!all.empty()) return all;
    all = {
        {"copy", 1, copyKinds, true, [=](B s, B d) { return K_CopyBitmap(d, s, R); }, true},
        {"copy2", 1, copyKinds, true, [=](B s, B d) { return K_CopyBitmap2(d, s, R, 1024); }, true},
        {"rect", 1, copyKinds, true, [=](B s, B d) { return K_CopyBitmapRect(d, s, R, 3, -1, 30, 12); }, true},
        {"crop", 1, copyKinds, false, [=](B s, B) { return K_CopyBitmapRect(nullptr, s, R, 3, -1, 30, 12); }, true},
        {"flip", 1, turnKinds, false, [](B s, B) { return K_FlipBitmap(s); }},
        {"reverse", 1, turnKinds, false, [](B s, B) { return K_ReverseBitmap(s); }},
        {"turn", 1, turnKinds, false, [](B s, B) { return K_RotateBitmap90(s, 1, 0, 100); }},
        {"change 1->7", 1, turnKinds, false, change(7), false, 1, false, false},
        {"change 1->3", 1, turnKinds, false, change(3), false, 1, false, false},
        {"change into a record", 8, single, true, [=](B s, B d) { return K_ChangeBitmapViewPerspective(d, s, R, 6); },
         false, 1, false, false},
        {"rotate", 32, deep, false, [=](B s, B) { return K_RotateBitmap(s, 2000, RB, 0); }},
        {"shear", 32, deep, false, [=](B s, B) { return K_ShearBitmap(s, 2000, RB, 0); }},
        {"rotate 1 bit", 1, {Kind::Compressed}, false, [](B s, B) { return K_RotateBitmap(s, 2000, RS, 0); }},
        {"half turn", 24, deep, false, [=](B s, B) { return K_RotateBitmap(s, 18000, RB, 0); }},
        {"turn by nothing", 24, single, false, [=](B s, B) { return K_RotateBitmap(s, 0, RB, 0); }, false, 0},
    };
    for (uint32_t f : {0u, SIZE_RESAMPLE, SIZE_BICUBIC, SIZE_LANCZOS, SIZE_FAVOURBLACK, SIZE_SCALETOGRAY})
        all.push_back({"size", f == SIZE_FAVOURBLACK || f == SIZE_SCALETOGRAY ? 1 : 32, single, false,
                       [f](B s, B) { return K_SizeBitmap(s, 13, 9, f); }, false, -1});
    all.push_back({"area", 24, single, false, [](B s, B) { return K_ResampleBitmap(s, 20, 19, 0); }});
    // Past the first success a failing colour resolution leaks two blocks (a known fault): these walks stop there.
    static std::vector<RGBQUAD> pal;
    for (int i = 0; i < 16; ++i) pal.push_back(RGBQUAD{uint8_t(i * 37), uint8_t(200 - i * 11), uint8_t(i * i), 0});
    const struct { int bits; uint32_t flags; bool inPlace; } res[] = {
        {48, CRF_BYTEORDERBGR, false}, {8, CRF_NODITHERING, false}, {4, CRF_FIXEDPALETTE | CRF_NODITHERING, true},
        {4, CRF_USERPALETTE | CRF_NODITHERING, false}, {8, CRF_OPTIMIZEDPALETTE | CRF_NODITHERING, true},
        {4, CRF_USERPALETTE | CRF_DITHER(1), true}, {16, CRF_BYTEORDERGRAY, true}};
    for (const auto& c : res)
        all.push_back({"colour resolution", 24, single, !c.inPlace, [c](B s, B d) {
            return K_ColorResBitmap(s, c.inPlace ? s : d, c.bits, c.flags, pal.data(), 16, BITMAPRECORD_SIZE);
        }, false, 1, true});
    return all;
}

}  // namespace

TEST(TransformFailures, EveryAllocationFailureChangesNothing) {
    storagetest::CapGuard guard;
    for (const Op& op : ops())
        for (Kind k : op.kinds) {
            if (!op.times) continue;
            SCOPED_TRACE(std::string(op.name) + " " + kindName(k) + " bpp " + std::to_string(op.bpp));
            const int failures = allocationWalk([&](Armed& armed) {
                Sample s(k, 40, 19, op.bpp, 59, true, true);  // the source of every call
                ASSERT_EQ(s.kb.rc, KS_SUCCESS);
                Sentinel d;
                if (armed([&] { return op.call(s.bm(), &d.bm); }) == KS_SUCCESS) {
                    if (op.newRecord) K_FreeBitmap(&d.bm);
                    return;
                }
                EXPECT_TRUE(d.intact() && s.unchanged()) << armed.n;
            }, op.times, op.untilSuccess);
            EXPECT_GT(failures, 0);
        }
}

// A status callback answering 0 at its first or second report stops the call with 0, and nothing changes, wherever it
// stops.
TEST(TransformFailures, StatusCallbackStopChangesNothing) {
    storagetest::CapGuard guard;
    for (const Op& op : ops())
        for (Kind k : {op.kinds.front(), op.kinds.back()})
            for (int stop : {0, 1}) {
                if (!op.reports) continue;
                SCOPED_TRACE(std::string(op.name) + " " + kindName(k) + " stop " + std::to_string(stop));
                Sample s(k, 40, 300, op.bpp, 340, true, true);
                ASSERT_EQ(s.kb.rc, KS_SUCCESS);
                StopAfter cb(stop, 0);
                Sentinel d;
                const long live = krn::faultinject::liveBlocks();
                StatusScope scope(&StopAfter::cb, &cb, op.copyStatus);
                EXPECT_EQ(op.call(s.bm(), &d.bm), 0);
                EXPECT_TRUE(cb.calls() == stop + 1 && d.intact() && krn::faultinject::liveBlocks() == live);
                EXPECT_TRUE(s.unchanged());
            }
}

// The same call on every storage kind gives the single block's pixels (and palette); rotations keep a paged kind.
TEST(TransformKinds, EveryStorageKindGivesTheSingleBlockResult) {
    storagetest::CapGuard guard;
    auto res = [](int bits, uint32_t flags) -> Call {
        return [=](B s, B d) { return K_ColorResBitmap(s, d, bits, flags, nullptr, 0, BITMAPRECORD_SIZE); };
    };
    auto size = [](uint32_t flags) -> Call { return [=](B s, B) { return K_SizeBitmap(s, 29, 41, flags); }; };
    auto rotate = [](uint32_t how) -> Call {
        return [=](B s, B) { return K_RotateBitmap(s, 2900, how | ROTATE_RESIZE, 0x123456); };
    };
    const std::vector<int> four = {1, 8, 24, 32};
    // newRecord: the result goes into a second record.
    const struct { const char* name; std::vector<int> depths; Call call; bool newRecord; } cases[] = {
        {"fixed palette", {24}, res(8, CRF_FIXEDPALETTE | CRF_NODITHERING), true},
        {"dithered", {24}, res(4, CRF_FIXEDPALETTE | CRF_DITHER(1)), false},
        {"optimised", {24}, res(8, CRF_OPTIMIZEDPALETTE | CRF_NODITHERING), true},
        {"deep", {8}, res(24, CRF_BYTEORDERBGR), false}, {"to 1 bit", {8}, res(1, CRF_NODITHERING), true},
        {"dithered from a palette", {8}, res(4, CRF_FIXEDPALETTE | CRF_DITHER(1)), true},
        {"565", {1}, res(16, CRF_BYTEORDER565), false}, {"grey", {24}, res(16, CRF_BYTEORDERGRAY), true},
        {"nearest size", four, size(0), false}, {"resample", four, size(SIZE_RESAMPLE), false},
        {"bicubic", four, size(SIZE_BICUBIC), false}, {"lanczos", {24, 32}, size(SIZE_LANCZOS), false},
        {"nearest rotation", {1}, rotate(ROTATE_NEAREST), false},
        {"bicubic rotation", {8, 24, 32}, rotate(ROTATE_BICUBIC), false},
    };
    for (const auto& c : cases)
        for (int bpp : c.depths) {
            std::vector<uint8_t> want;
            for (Kind k : kindsFor(bpp)) {
                SCOPED_TRACE(std::string(c.name) + " bpp " + std::to_string(bpp) + " " + kindName(k));
                Source src(k, 45, 13, bpp, uint32_t(bpp * 100 + 7), bpp > 8 ? ORDER_BGR : -1);
                ASSERT_EQ(src.kb.rc, KS_SUCCESS);
                if (bpp == 8) { ASSERT_EQ(K_CreateBitmapGrayPalette(src.bm()), KS_SUCCESS); }
                const uint32_t kind = kindOf(src.bm());
                BITMAPRECORD out{};
                BITMAPRECORD* dst = c.newRecord ? &out : src.bm();
                ASSERT_EQ(c.call(src.bm(), dst), KS_SUCCESS);
                std::vector<uint8_t> got = getImage(dst).px;
                const uint8_t* pal = reinterpret_cast<const uint8_t*>(dst->pPalette);  // part of the answer
                if (dst->nBitsPerPixel <= 8) got.insert(got.end(), pal, pal + sizeof(RGBQUAD) * size_t(dst->nColors));
                if (want.empty()) want = got;
                EXPECT_EQ(got, want);
                const bool paged = kind == 128 || kind == MEMTYPE_COMPRESSED || kind == MEMTYPE_SUPERCOMPRESSED;
                if (paged && std::strstr(c.name, "rotation")) { EXPECT_EQ(kindOf(dst), kind); }
                if (c.newRecord) K_FreeBitmap(&out);
            }
        }
}
