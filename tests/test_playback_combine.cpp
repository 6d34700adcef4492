// test_playback_combine.cpp - frames drawn through the combine engine, on
// targets of every depth kind and in several view perspectives, against a
// composition oracle that works pixel by pixel on raw values in the top-left
// view: the frame's region, its transparent colour, the target's own region,
// alpha-over frames (the per-sample combine model), disposal 2 and 3.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "dis/common/playback.h"
#include "krn/common/memory.h"
#include "ombrix.h"
#include "support/combine_reference.h"

namespace {

uint32_t gTicks = 0;
uint32_t ticks(void*) { return gTicks; }

struct Fmt {
    int32_t bpp, order;
};

// Raw pixel at (x, y) of the top-left view.
uint64_t viewPixel(BITMAPRECORD* bm, int32_t x, int32_t y) {
    EXPECT_EQ(K_PointToBitmap(bm, TOP_LEFT, &x, &y), KS_SUCCESS);
    std::vector<uint8_t> row(bm->nBytesPerLine);
    EXPECT_GE(K_GetBitmapRow(bm, row.data(), y, bm->nBytesPerLine), 0);
    return combinetest::rawPixel(row.data(), x, {bm->nBitsPerPixel, bm->nOrder});
}
void setViewPixel(BITMAPRECORD* bm, int32_t x, int32_t y, uint64_t v) {
    ASSERT_EQ(K_PointToBitmap(bm, TOP_LEFT, &x, &y), KS_SUCCESS);
    std::vector<uint8_t> row(bm->nBytesPerLine);
    ASSERT_GE(K_GetBitmapRow(bm, row.data(), y, bm->nBytesPerLine), 0);
    combinetest::setRawPixel(row.data(), x, {bm->nBitsPerPixel, bm->nOrder}, v);
    ASSERT_GE(K_PutBitmapRow(bm, row.data(), y, bm->nBytesPerLine), 0);
}
bool inRegion(BITMAPRECORD* bm, int32_t x, int32_t y) {
    if (!K_BitmapHasRgn(bm)) return true;
    EXPECT_EQ(K_PointToBitmap(bm, TOP_LEFT, &x, &y), KS_SUCCESS);
    return K_IsPtInBitmapRgn(bm, y, x) == 1;
}
bool turned(int32_t vp) { return vp >= 5; }

// A bitmap seen as w x h in its view perspective vp.
BITMAPRECORD viewBitmap(Fmt f, int32_t w, int32_t h, int32_t vp) {
    BITMAPRECORD bm;
    EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, turned(vp) ? h : w, turned(vp) ? w : h, f.bpp, f.order,
                             nullptr, vp, nullptr, 0),
              KS_SUCCESS);
    return bm;
}

// The colour (0x00BBGGRR) the library sees in a raw pixel value.
uint32_t colourOf(const BITMAPRECORD* bm, uint64_t raw) {
    if (bm->nBitsPerPixel <= 8) {
        const RGBQUAD q = bm->pPalette[raw];
        return uint32_t(q.rgbRed) | uint32_t(q.rgbGreen) << 8 | uint32_t(q.rgbBlue) << 16;
    }
    if (bm->nBitsPerPixel == 16)  // 5-5-5, blue in the low bits
        return uint32_t((raw >> 10) & 31) << 3 | uint32_t((raw >> 5) & 31) << 11 | uint32_t(raw & 31) << 19;
    return uint32_t((raw >> 16) & 255) | uint32_t((raw >> 8) & 255) << 8 | uint32_t(raw & 255) << 16;  // BGR
}

struct OracleFrame {
    int32_t left, top, w, h;
    uint32_t disposal;
    bool keyed, alpha;
    std::vector<uint64_t> drawn;  // the frame's pixels as the target receives them
    std::vector<bool> shows;      // inside its region and not the transparent colour
    int32_t hadRegion;
    uint64_t area;
};

struct Oracle {
    int32_t W, H;
    Fmt fmt;
    std::vector<uint64_t> img;
    std::vector<bool> open;  // the target's own region
    std::vector<uint64_t> saved;
    void draw(const OracleFrame& f) {
        saved = img;
        const combinetest::Plan alpha = combinetest::planOf(3328, fmt.bpp);
        for (int32_t y = 0; y < f.h; ++y)
            for (int32_t x = 0; x < f.w; ++x) {
                const int32_t tx = f.left + x, ty = f.top + y;
                const size_t i = size_t(y) * size_t(f.w) + size_t(x);
                if (tx < 0 || ty < 0 || tx >= W || ty >= H || !f.shows[i] || !open[size_t(ty * W + tx)]) continue;
                uint64_t& d = img[size_t(ty * W + tx)];
                d = f.alpha ? combinetest::combinePixel(alpha, f.drawn[i], d, {fmt.bpp, fmt.order}) : f.drawn[i];
            }
    }
    void dispose(const OracleFrame& f, uint64_t bg) {
        if (f.disposal != 2 && f.disposal != 3) return;
        for (int32_t ty = std::max(f.top, 0); ty < std::min(f.top + f.h, H); ++ty)
            for (int32_t tx = std::max(f.left, 0); tx < std::min(f.left + f.w, W); ++tx)
                if (open[size_t(ty * W + tx)])
                    img[size_t(ty * W + tx)] = f.disposal == 2 ? bg : saved[size_t(ty * W + tx)];
    }
};

struct Case {
    Fmt target, frame;
    int32_t vp;
    bool targetRegion;
};

TEST(PlaybackCombine, ComposesLikeThePixelOracle) {
    krn::testhook::setPlaybackClock(ticks, nullptr);
    const Fmt f1{1, 0}, f4{4, 0}, f8{8, 0}, f16{16, ORDER_BGR}, f24{24, ORDER_BGR}, f32{32, ORDER_BGR};
    const Case cases[] = {
        {f1, f1, TOP_LEFT, false},   {f4, f4, BOTTOM_LEFT, true},  {f8, f8, 6, false},
        {f16, f16, 7, true},         {f24, f24, BOTTOM_LEFT, false}, {f32, f32, 8, true},
        {f24, f24, 5, true},         {f32, f32, TOP_LEFT, false},  {f4, f24, 6, false},
        {f24, f8, 2, true},
    };
    const int32_t framePersp[] = {TOP_LEFT, BOTTOM_LEFT, 5, 8, 3};
    int32_t caseNo = 0, shown = 0, hidden = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << caseNo << " target " << c.target.bpp << " vp " << c.vp);
        std::mt19937 rng(uint32_t(100 + caseNo++));
        const int32_t W = 23, H = 17;
        BITMAPRECORD target = viewBitmap(c.target, W, H, c.vp);
        FRAME_BACKGROUND_COLOR(&target) = 0x00336699;
        if (c.targetRegion) {
            const RGNXFORM xf{TOP_LEFT, 1, 1, 1, 1, 0, 0};
            const RECT box{2, 1, 20, 15};
            ASSERT_EQ(K_SetBitmapRgnEllipse(&target, &xf, &box, RGN_SET_REPLACE), KS_SUCCESS);
        }
        Oracle o{W, H, c.target, std::vector<uint64_t>(size_t(W * H)), std::vector<bool>(size_t(W * H)), {}};
        for (int32_t y = 0; y < H; ++y)
            for (int32_t x = 0; x < W; ++x) {
                o.img[size_t(y * W + x)] = viewPixel(&target, x, y);
                o.open[size_t(y * W + x)] = inRegion(&target, x, y);
            }
        HBITMAPLIST list;
        ASSERT_EQ(K_CreateBitmapList(&list), KS_SUCCESS);
        std::vector<OracleFrame> frames;
        for (int32_t i = 0; i < 5; ++i) {
            OracleFrame of{int32_t(rng() % 20) - 4, int32_t(rng() % 14) - 3, 3 + int32_t(rng() % 12),
                           2 + int32_t(rng() % 9), uint32_t(i % 4), i % 2 == 0, i == 3, {}, {}, 0, 0};
            BITMAPRECORD fb = viewBitmap(c.frame, of.w, of.h, framePersp[i]);
            const uint64_t mask = c.frame.bpp == 16 ? 0x7FFFu : (uint64_t(1) << c.frame.bpp) - 1;  // 5-5-5: 15 bits
            const uint64_t keyRaw = rng() & mask;
            for (int32_t y = 0; y < of.h; ++y)
                for (int32_t x = 0; x < of.w; ++x) setViewPixel(&fb, x, y, rng() % 4 == 0 ? keyRaw : rng() & mask);
            if (i % 3 == 1) {
                const RGNXFORM xf{TOP_LEFT, 1, 1, 1, 1, 0, 0};
                const RECT box{0, 0, of.w, of.h};
                ASSERT_EQ(K_SetBitmapRgnEllipse(&fb, &xf, &box, RGN_SET_REPLACE), KS_SUCCESS);
            }
            // Frames of another format reach the target as the colour-resolution copy would make them.
            BITMAPRECORD conv = fb;
            const bool convert = c.frame.bpp != c.target.bpp;
            if (convert) {
                const uint32_t flags = c.target.bpp <= 8 ? 0x10010u : 4u;
                ASSERT_EQ(K_ColorResBitmap(&fb, &conv, c.target.bpp, flags, c.target.bpp <= 8 ? target.pPalette : nullptr,
                                           c.target.bpp <= 8 ? target.nColors : 0, BITMAPRECORD_SIZE),
                          KS_SUCCESS);
            }
            const uint32_t cm = c.frame.bpp == 32 ? 0xFFFFFFu : ~0u;
            for (int32_t y = 0; y < of.h; ++y)
                for (int32_t x = 0; x < of.w; ++x) {
                    const uint64_t raw = viewPixel(&fb, x, y);
                    of.drawn.push_back(viewPixel(&conv, x, y));
                    of.shows.push_back(inRegion(&fb, x, y) && !(of.keyed && (raw & cm) == (keyRaw & cm)));
                    shown += of.shows.back();
                    hidden += !of.shows.back();
                }
            if (convert) K_FreeBitmap(&conv);
            FRAME_LEFT(&fb) = of.left;
            FRAME_TOP(&fb) = of.top;
            FRAME_DISPOSAL(&fb) = of.disposal;
            FRAME_DELAY(&fb) = 10;
            FRAME_TRANSPARENT_COLOR(&fb) = colourOf(&fb, keyRaw);
            if (of.keyed) fb.uFlags |= BRF_FRAME_TRANSPARENT;
            if (of.alpha) fb.uFlags |= BRF_FRAME_ALPHAOVER;
            of.hadRegion = K_BitmapHasRgn(&fb);
            if (of.hadRegion) K_GetBitmapRgnArea(&fb, &of.area);
            ASSERT_EQ(K_InsertBitmapListItem(list, BITMAPLIST_END, &fb), KS_SUCCESS);
            frames.push_back(of);
        }
        HPLAYBACK pb;
        ASSERT_EQ(K_CreatePlayback(&pb, &target, list), KS_SUCCESS);
        uint64_t bg = 0;
        auto compare = [&](const char* when, int32_t index) {
            for (int32_t y = 0; y < H; ++y)
                for (int32_t x = 0; x < W; ++x)
                    ASSERT_EQ(viewPixel(&target, x, y), o.img[size_t(y * W + x)])
                        << when << " frame " << index << " at " << x << "," << y;
        };
        // Two passes: the second draws over the first's last composition.
        for (int32_t guard = 0, passes = 0; passes < 2 && guard < 400; ++guard) {
            int32_t st = -1, index = -1;
            ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
            ASSERT_EQ(K_GetPlaybackIndex(pb, &index), KS_SUCCESS);
            if (st == PLAYBACK_STATE_NEXT) {  // just cleared: the background as the fill makes it
                for (int32_t i = 0; i < W * H; ++i)
                    if (o.open[size_t(i)]) {
                        bg = viewPixel(&target, i % W, i / W);
                        break;
                    }
                for (int32_t i = 0; i < W * H; ++i)
                    if (o.open[size_t(i)]) o.img[size_t(i)] = bg;
                compare("clear", -1);
            } else if (st == PLAYBACK_STATE_DELAY) {
                o.draw(frames[size_t(index)]);
                compare("draw", index);
            } else if (st == PLAYBACK_STATE_NEXT2) {
                o.dispose(frames[size_t(index)], bg);
                compare("dispose", index);
            } else if (st == PLAYBACK_STATE_WAITDELAY) {
                gTicks += 10;
            } else if (st == PLAYBACK_STATE_END) {
                ++passes;
            }
            if (HasFatalFailure()) break;
        }
        // Every frame has its own region back.
        for (uint32_t i = 0; i < frames.size(); ++i) {
            BITMAPRECORD item;
            ASSERT_EQ(K_GetBitmapListItem(list, i, &item, BITMAPRECORD_SIZE), KS_SUCCESS);
            EXPECT_EQ(K_BitmapHasRgn(&item), frames[i].hadRegion) << i;
            uint64_t area = 0;
            if (frames[i].hadRegion) K_GetBitmapRgnArea(&item, &area);
            EXPECT_EQ(area, frames[i].area) << i;
        }
        K_DestroyPlayback(pb);
        K_DestroyBitmapList(list);
        K_FreeBitmap(&target);
    }
    EXPECT_GT(shown, 1000);
    EXPECT_GT(hidden, 300);
    krn::testhook::setPlaybackClock(nullptr, nullptr);
}

// Allocation failures while a frame is drawn (transparent colour, frame and
// target regions, a turned frame on a bottom-left target): the playback goes
// on (the step answers 1), the target keeps every pixel or takes the whole
// frame, the frame's region comes back and nothing leaks.
TEST(PlaybackCombine, DrawingSurvivesEveryAllocationFailure) {
    krn::testhook::setPlaybackClock(ticks, nullptr);
    BITMAPRECORD target = viewBitmap({24, ORDER_BGR}, 16, 12, BOTTOM_LEFT);
    const RGNXFORM xf{TOP_LEFT, 1, 1, 1, 1, 0, 0};
    const RECT box{1, 1, 15, 11};
    ASSERT_EQ(K_SetBitmapRgnRect(&target, &xf, &box, RGN_SET_REPLACE), KS_SUCCESS);
    BITMAPRECORD frame = viewBitmap({24, ORDER_BGR}, 9, 7, 6);  // turned
    for (int32_t y = 0; y < 7; ++y)
        for (int32_t x = 0; x < 9; ++x) setViewPixel(&frame, x, y, uint64_t((x * 7 + y * 3) % 5) * 40);
    FRAME_LEFT(&frame) = 3;
    FRAME_TOP(&frame) = 2;
    FRAME_DISPOSAL(&frame) = 2;
    FRAME_TRANSPARENT_COLOR(&frame) = colourOf(&frame, 80);
    frame.uFlags |= BRF_FRAME_TRANSPARENT;
    ASSERT_EQ(K_SetBitmapRgnEllipse(&frame, &xf, &box, RGN_SET_REPLACE), KS_SUCCESS);
    uint64_t area = 0;
    K_GetBitmapRgnArea(&frame, &area);
    HBITMAPLIST list;
    ASSERT_EQ(K_CreateBitmapList(&list), KS_SUCCESS);
    ASSERT_EQ(K_InsertBitmapListItem(list, 0, &frame), KS_SUCCESS);
    HPLAYBACK pb;
    ASSERT_EQ(K_CreatePlayback(&pb, &target, list), KS_SUCCESS);
    int32_t st = 0;
    auto toDraw = [&] {  // a fresh clear, then state 2 at frame 0
        ASSERT_EQ(K_SetPlaybackIndex(pb, -1), KS_SUCCESS);
        ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
        ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
        ASSERT_EQ(st, PLAYBACK_STATE_DRAW);
    };
    auto pixels = [&] {
        std::vector<uint64_t> v;
        for (int32_t y = 0; y < 12; ++y)
            for (int32_t x = 0; x < 16; ++x) v.push_back(viewPixel(&target, x, y));
        return v;
    };
    toDraw();
    const std::vector<uint64_t> before = pixels();
    ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
    const std::vector<uint64_t> drawn = pixels();  // the unhindered draw
    ASSERT_NE(drawn, before);
    int32_t failures = 0;
    for (long nth = 0;; ++nth) {
        toDraw();
        const long live = krn::faultinject::liveBlocks();
        krn::faultinject::arm(nth, 1);
        const int32_t r = K_ProcessPlayback(pb, &st);
        const bool hit = krn::faultinject::injected() > 0;
        krn::faultinject::disarm();
        ASSERT_EQ(r, KS_SUCCESS);
        EXPECT_EQ(st, PLAYBACK_STATE_DELAY);
        EXPECT_EQ(krn::faultinject::liveBlocks(), live) << nth;
        BITMAPRECORD item;
        ASSERT_EQ(K_GetBitmapListItem(list, 0, &item, BITMAPRECORD_SIZE), KS_SUCCESS);
        uint64_t itemArea = 0;
        K_GetBitmapRgnArea(&item, &itemArea);
        EXPECT_EQ(itemArea, area) << nth;
        if (!hit) break;
        ++failures;  // a failure the kernel absorbed draws the frame; any other leaves the target alone
        const std::vector<uint64_t> now = pixels();
        EXPECT_TRUE(now == before || now == drawn) << "a failed draw changed the target, allocation " << nth;
        ASSERT_LT(nth, 200);
    }
    EXPECT_GT(failures, 5);
    EXPECT_EQ(pixels(), drawn);
    K_DestroyPlayback(pb);
    K_DestroyBitmapList(list);
    K_FreeBitmap(&target);
    krn::testhook::setPlaybackClock(nullptr, nullptr);
}

// The transparent colour's region that drawing builds itself (8, 24 and 32
// bits in memory, AVX2 and plain) holds exactly the pixels of the region
// family's colour builder, for widths that leave every tail length.
TEST(PlaybackCombine, KeyRegionMatchesTheColourBuilder) {
    std::mt19937 rng(5);
    int32_t checked = 0;
    for (int32_t bpp : {8, 24, 32})
        for (int32_t w : {1, 7, 8, 9, 10, 11, 16, 17, 25, 33, 70}) {
            BITMAPRECORD f = viewBitmap({bpp, bpp == 8 ? 0 : ORDER_BGR}, w, 5, TOP_LEFT);
            const uint64_t mask = (uint64_t(1) << bpp) - 1, keyRaw = rng() & mask;
            for (int32_t y = 0; y < 5; ++y)
                for (int32_t x = 0; x < w; ++x)  // at 32 bits the fourth byte does not count
                    setViewPixel(&f, x, y, (rng() % 3 == 0 ? keyRaw : rng() & mask) ^ (bpp == 32 ? rng() << 24 : 0));
            const uint32_t colour = colourOf(&f, keyRaw);
            BITMAPRECORD want, got;
            ASSERT_EQ(K_CopyBitmap(&want, &f, BITMAPRECORD_SIZE), KS_SUCCESS);
            ASSERT_EQ(K_SetBitmapRgnColor(&want, colour, RGN_SET_REPLACE), KS_SUCCESS);
            for (bool plain : {false, true}) {
                krn::testhook::playbackPlainKeyScan(plain);
                OrvaRgn* rgn = nullptr;
                ASSERT_EQ(krn::testhook::playbackKeyRegion(&f, colour, &rgn), KS_SUCCESS);
                krn::testhook::playbackPlainKeyScan(false);
                ASSERT_EQ(K_CopyBitmap(&got, &f, BITMAPRECORD_SIZE), KS_SUCCESS);
                ASSERT_EQ(K_SetBitmapRgn(&got, nullptr, rgn, RGN_SET_REPLACE), KS_SUCCESS);
                for (int32_t y = 0; y < 5; ++y)
                    for (int32_t x = 0; x < w; ++x, ++checked)
                        ASSERT_EQ(K_IsPtInBitmapRgn(&got, y, x), K_IsPtInBitmapRgn(&want, y, x))
                            << bpp << " bits, width " << w << " at " << x << "," << y << (plain ? " plain" : "");
                K_FreeBitmap(&got);
            }
            K_FreeBitmap(&want);
            K_FreeBitmap(&f);
        }
    EXPECT_GT(checked, 2500);
}

}  // namespace
