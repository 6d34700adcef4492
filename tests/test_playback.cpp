// Animation playback with the time injected: the state machine as a model of its transitions stepped beside the
// library, and a composition oracle drawing frames pixel by pixel on targets of every depth and perspective.
#include <gtest/gtest.h>

#include <cerrno>

#include "dis/common/playback.h"
#include "support/combine_reference.h"
#include "support/transform_kit.h"

namespace {

uint32_t gNow = 0;
struct ClockGuard {
    ClockGuard() { krn::testhook::setPlaybackClock([](void*) { return gNow; }, nullptr); }
    ~ClockGuard() { krn::testhook::setPlaybackClock(nullptr, nullptr); }
};

struct Fmt { int32_t bpp, order; };
const Fmt kBgr24{24, ORDER_BGR};

// Raw pixels at (x, y) of the top-left view, read or (set) written.
uint64_t viewPixel(BITMAPRECORD* bm, int32_t x, int32_t y, const uint64_t* set = nullptr) {
    EXPECT_EQ(K_PointToBitmap(bm, TOP_LEFT, &x, &y), KS_SUCCESS);
    std::vector<uint8_t> row(bm->nBytesPerLine);
    EXPECT_GE(K_GetBitmapRow(bm, row.data(), y, bm->nBytesPerLine), 0);
    if (set) combinetest::setRawPixel(row.data(), x, {bm->nBitsPerPixel, bm->nOrder}, *set);
    EXPECT_TRUE(!set || K_PutBitmapRow(bm, row.data(), y, bm->nBytesPerLine) >= 0);
    return combinetest::rawPixel(row.data(), x, {bm->nBitsPerPixel, bm->nOrder});
}
void setViewPixel(BITMAPRECORD* bm, int32_t x, int32_t y, uint64_t v) { viewPixel(bm, x, y, &v); }
std::vector<uint64_t> viewPixels(BITMAPRECORD* bm, int32_t w, int32_t h) {
    std::vector<uint64_t> v;
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) v.push_back(viewPixel(bm, x, y));
    return v;
}
bool inRegion(BITMAPRECORD* bm, int32_t x, int32_t y) {
    return !K_BitmapHasRgn(bm) || (K_PointToBitmap(bm, TOP_LEFT, &x, &y) == 1 && K_IsPtInBitmapRgn(bm, y, x) == 1);
}
// A bitmap seen as w x h in its view perspective vp.
BITMAPRECORD viewBitmap(Fmt f, int32_t w, int32_t h, int32_t vp) {
    BITMAPRECORD bm;
    if (vp >= 5) std::swap(w, h);
    EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, w, h, f.bpp, f.order, nullptr, vp, nullptr, 0), KS_SUCCESS);
    return bm;
}
// The region's area (-1 without one) of a bitmap and of a list's item.
int64_t rgnArea(BITMAPRECORD* bm) {
    uint64_t a = 0;
    return K_BitmapHasRgn(bm) && K_GetBitmapRgnArea(bm, &a) == KS_SUCCESS ? int64_t(a) : -1;
}
int64_t itemArea(HBITMAPLIST list, uint32_t i) {
    BITMAPRECORD item;
    return K_GetBitmapListItem(list, i, &item, BITMAPRECORD_SIZE) == KS_SUCCESS ? rgnArea(&item) : -2;
}
// The colour (0x00BBGGRR) the library sees in a raw pixel value.
uint32_t colourOf(const BITMAPRECORD* bm, uint64_t raw) {
    const RGBQUAD q = bm->nBitsPerPixel <= 8 ? bm->pPalette[raw] : RGBQUAD{};
    if (bm->nBitsPerPixel <= 8) return uint32_t(q.rgbRed) | uint32_t(q.rgbGreen) << 8 | uint32_t(q.rgbBlue) << 16;
    if (bm->nBitsPerPixel == 16)  // 5-5-5, blue in the low bits
        return uint32_t((raw >> 10) & 31) << 3 | uint32_t((raw >> 5) & 31) << 11 | uint32_t(raw & 31) << 19;
    return uint32_t((raw >> 16) & 255) | uint32_t((raw >> 8) & 255) << 8 | uint32_t(raw & 255) << 16;  // BGR
}

// ---------------------------------------------------------------- the oracles

struct Frame {
    int32_t left, top, w, h;
    uint32_t delay, disposal;
    bool input, keyed, alpha;
    uint64_t key;              // the transparent raw value
    std::vector<uint64_t> px;  // view order, the raw pixels as the target receives them
    std::vector<bool> shows;   // inside its region and not the transparent colour
    int64_t area;              // of its own region
};

struct Oracle {
    int32_t W, H;
    Fmt fmt;
    std::vector<uint64_t> img, saved;
    std::vector<bool> open;  // the target's own region
    // Draws the pixels that show (alpha: combined over the target), saving the image first; disposal 2 clears the
    // frame's rectangle to the background, 3 restores it.
    void draw(const Frame& f) {
        saved = img;
        const combinetest::Plan alpha = combinetest::planOf(3328, fmt.bpp);
        for (int32_t y = 0; y < f.h; ++y)
            for (int32_t x = 0; x < f.w; ++x) {
                const int32_t tx = f.left + x, ty = f.top + y;
                const size_t i = size_t(y) * size_t(f.w) + size_t(x);
                if (tx < 0 || ty < 0 || tx >= W || ty >= H || !f.shows[i] || !open[size_t(ty * W + tx)]) continue;
                uint64_t& d = img[size_t(ty * W + tx)];
                d = f.alpha ? combinetest::combinePixel(alpha, f.px[i], d, {fmt.bpp, fmt.order}) : f.px[i];
            }
    }
    void dispose(const Frame& f, uint64_t bg) {
        if (f.disposal != 2 && f.disposal != 3) return;
        for (int32_t ty = std::max(f.top, 0); ty < std::min(f.top + f.h, H); ++ty)
            for (size_t i = size_t(ty * W + std::max(f.left, 0)); i < size_t(ty * W + std::min(f.left + f.w, W)); ++i)
                if (open[i]) img[i] = f.disposal == 2 ? bg : saved[i];
    }
};

BITMAPRECORD makeFrame(const Frame& f, int32_t vp = TOP_LEFT) {
    BITMAPRECORD bm = viewBitmap(kBgr24, f.w, f.h, vp);
    for (int32_t y = 0; y < f.h; ++y)
        for (int32_t x = 0; x < f.w; ++x) setViewPixel(&bm, x, y, f.px[size_t(y * f.w + x)]);
    FRAME_LEFT(&bm) = f.left, FRAME_TOP(&bm) = f.top, FRAME_DELAY(&bm) = f.delay, FRAME_DISPOSAL(&bm) = f.disposal;
    FRAME_TRANSPARENT_COLOR(&bm) = colourOf(&bm, f.key);
    bm.uFlags |= (f.input ? BRF_FRAME_WAITINPUT : 0) | (f.keyed ? BRF_FRAME_TRANSPARENT : 0);
    return bm;
}

// The state machine's transitions, drawing and disposing on the oracle (disposal 3 restores only what a draw saved).
struct Model {
    Oracle o;
    uint64_t bg;
    std::vector<Frame> frames;
    int state = 0, index = -1, missing = 0;
    uint32_t waitStart = 0;
    bool validating = false, haveSaved = false;  // validating: the last frame's rows are still coming
    std::vector<bool> marks;

    // The state the current one leads to.
    int next() const {
        const Frame* f = index >= 0 && index < int(frames.size()) ? &frames[size_t(index)] : nullptr;
        switch (state) {
            case 0: return 1;
            case 1: case 9: return index + 1 >= int(frames.size()) ? 10 : 2;
            case 2: case 3: return validating && index + 1 == int(frames.size()) ? 3 : 4;  // hold the last frame
            case 4: return f->delay > 0 ? (f->input ? 7 : 6) : f->input ? 5 : 8;
            case 6: case 7: return uint32_t(gNow - waitStart) < f->delay ? state : 8;
            case 8: return 9;
            case 10: return 2;
            default: return state;
        }
    }
    void step() {
        const int from = state;
        if (from == 0) o.img.assign(o.img.size(), bg);
        const int to = (from == 2 || from == 3) && index >= int(frames.size()) ? 10 : next();
        if (from == 1 || from == 9) ++index;
        if (from == 10) index = 0;
        if (from == 4 && (to == 6 || to == 7)) waitStart = gNow;
        const Frame* f = index >= 0 && index < int(frames.size()) ? &frames[size_t(index)] : nullptr;
        if ((from == 2 || from == 3) && to == 4) haveSaved = f->disposal == 3, o.draw(*f);
        if (from == 8 && (haveSaved || f->disposal != 3)) o.dispose(*f, bg);
        haveSaved = haveSaved && from != 8;
        state = to;
    }
    void cancel() { state = state >= 5 && state <= 7 ? 8 : state; }
    uint32_t delayLeft() const {
        if (state != 6 && state != 7) return 0;
        const uint32_t e = gNow - waitStart, d = frames[size_t(index)].delay;
        return e < d ? d - e : 0;
    }
};

Frame randomFrame(std::mt19937& rng, int W, int H) {
    Frame f{};
    f.w = 1 + int(rng() % 9), f.h = 1 + int(rng() % 7);
    f.left = int(rng() % uint32_t(W + 4)) - 3, f.top = int(rng() % uint32_t(H + 4)) - 3;
    f.delay = rng() % 3 == 0 ? 0 : 5 + rng() % 40;
    f.disposal = rng() % 4, f.input = rng() % 5 == 0, f.keyed = rng() % 2 == 0, f.key = 0x332211;
    for (int i = 0; i < f.w * f.h; ++i) f.px.push_back(rng() % 4 == 0 ? f.key : (rng() & 0xFFFFFF));
    for (uint64_t c : f.px) f.shows.push_back(!f.keyed || c != f.key);
    return f;
}

TEST(PlaybackModel, GeneratedAnimationsAgreeStepByStep) {
    ClockGuard clock;
    BITMAPRECORD warm = viewBitmap(kBgr24, 2, 2, TOP_LEFT);  // per-thread settings exist before counting
    K_FillBitmap(&warm, 0), K_FreeBitmap(&warm);
    const long base = krn::faultinject::liveBlocks();
    int drawnSteps = 0, waitsSeen = 0, disposals = 0;
    for (uint32_t seed = 1; seed <= 40; ++seed) {
        std::mt19937 rng(seed);
        const int W = 12, H = 9;
        gNow = 0xFFFFFF00u + seed;  // the tick count wraps during the run
        BITMAPRECORD target = viewBitmap(kBgr24, W, H, seed % 2 ? TOP_LEFT : BOTTOM_LEFT);
        FRAME_BACKGROUND_COLOR(&target) = 0x00405060;
        Model m;
        m.o = Oracle{W, H, kBgr24, viewPixels(&target, W, H), {}, std::vector<bool>(W * H, true)}, m.bg = 0x605040;
        HBITMAPLIST list = nullptr;
        ASSERT_EQ(K_CreateBitmapList(&list), KS_SUCCESS);
        for (int i = 0, n = 1 + int(rng() % 4); i < n; ++i) {
            m.frames.push_back(randomFrame(rng, W, H));
            BITMAPRECORD bm = makeFrame(m.frames.back(), rng() % 2 ? TOP_LEFT : BOTTOM_LEFT);
            ASSERT_EQ(K_InsertBitmapListItem(list, BITMAPLIST_END, &bm), KS_SUCCESS);
        }
        HPLAYBACK pb = nullptr;
        ASSERT_EQ(K_CreatePlayback(&pb, &target, list), KS_SUCCESS);
        for (int stepNo = 0; stepNo < 300; ++stepNo) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << stepNo);
            const uint32_t action = rng() % 20;
            if (action < 13) {
                gNow += rng() % 3 == 0 ? 0 : rng() % 25;
                int32_t st = -1;
                const int before = m.state;
                ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
                m.step();
                ASSERT_EQ(st, m.state);
                drawnSteps += (before == 2 || before == 3) && st == 4;
                waitsSeen += st == 6 || st == 7 || st == 5;
                disposals += before == 8;
            } else if (action < 15) {
                ASSERT_EQ(K_CancelPlaybackWait(pb), KS_SUCCESS);
                m.cancel();
            } else if (action == 15) {  // a jump: backwards restarts from a clear
                const int to = int(rng() % uint32_t(m.frames.size() + 2)) - 1;
                ASSERT_EQ(K_SetPlaybackIndex(pb, to), KS_SUCCESS);
                m.validating = false;
                if (m.index > to) m.haveSaved = false, m.state = 0, m.index = -1;
                for (int guard = 0; m.index != to && guard < 1000; ++guard) m.step(), m.cancel();
            } else if (action == 16 && m.frames.size() < 8) {  // appended: its rows are still to come
                m.frames.push_back(randomFrame(rng, W, H));
                BITMAPRECORD bm = makeFrame(m.frames.back(), TOP_LEFT);
                ASSERT_EQ(K_AppendPlayback(pb, &bm), KS_SUCCESS);
                m.validating = true, m.missing = m.frames.back().h, m.marks.assign(size_t(m.missing), false);
                if (m.state == 10) m.state = 2;
            } else if (action == 17) {
                const int first = int(rng() % 8) - 2, count = int(rng() % 5);
                ASSERT_EQ(K_ValidatePlaybackLines(pb, first, count), KS_SUCCESS);
                for (int y = std::max(first, 0); m.validating && y < std::min(first + count, int(m.marks.size())); ++y)
                    if (!m.marks[size_t(y)]) m.marks[size_t(y)] = true, --m.missing;
                if (m.missing <= 0) m.validating = false;
            } else {
                uint32_t left = 12345;
                EXPECT_TRUE(K_GetPlaybackDelay(pb, &left) == KS_SUCCESS && left == m.delayLeft()) << left;
            }
            int32_t st = -1, idx = -2;
            ASSERT_TRUE(K_GetPlaybackState(pb, &st) == KS_SUCCESS && K_GetPlaybackIndex(pb, &idx) == KS_SUCCESS);
            ASSERT_TRUE(st == m.state && idx == m.index) << "action " << action << ": " << st << " " << idx;
            ASSERT_EQ(viewPixels(&target, W, H), m.o.img) << "state " << st;
        }
        ASSERT_TRUE(K_DestroyPlayback(pb) == 1 && K_DestroyBitmapList(list) == 1 && K_FreeBitmap(&target) == 1);
    }
    EXPECT_TRUE(drawnSteps > 200 && waitsSeen > 100 && disposals > 100);  // the runs really draw, wait and dispose
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

TEST(PlaybackFailures, HandlesArgumentsAndMemory) {
    ClockGuard clock;
    BITMAPRECORD target = viewBitmap(kBgr24, 8, 8, TOP_LEFT), unalloc, bad = target;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 8, 8, 24);
    bad.uStructSize = 5;
    HPLAYBACK pb = nullptr;
    int32_t local = 0, st;
    // Wrong handle kinds: a region handle is refused with errno 22; a movable block is the right kind, not a playback.
    HRGN hp = CreateRectRgn(0, 0, 4, 4);
    void* movable = K_GlobalAlloc(GHND, 256);
    const int32_t P = KS_INVALID_PARAMETER;
    errno = 0;
    const int32_t got[] = {K_ProcessPlayback(reinterpret_cast<HPLAYBACK>(hp), &st), errno,
                           K_CreatePlayback(nullptr, &target, nullptr), K_CreatePlayback(&pb, nullptr, nullptr),
                           K_CreatePlayback(&pb, &unalloc, nullptr), K_CreatePlayback(&pb, &bad, nullptr),
                           K_CreatePlayback(&pb, &target, reinterpret_cast<HBITMAPLIST>(&local)),
                           K_ProcessPlayback(movable, &st), K_DestroyPlayback(movable), K_ProcessPlayback(nullptr, &st),
                           K_CancelPlaybackWait(nullptr), K_ValidatePlaybackLines(nullptr, 0, 1)};
    EXPECT_EQ(std::vector<int32_t>(std::begin(got), std::end(got)),
              std::vector<int32_t>({P, 22, P, P, P, KS_INVALID_STRUCT_SIZE, P, P, P, P, P, P}));
    EXPECT_EQ(pb, nullptr);
    DeleteObject(hp), K_GlobalFree(movable);
    // Memory: creation, then appending, every allocation in turn (a frame not taken is still ours).
    { HPLAYBACK w; K_CreatePlayback(&w, &target, nullptr); K_DestroyPlayback(w); }
    const long base = krn::faultinject::liveBlocks();
    HPLAYBACK p = nullptr;
    tkit::allocationWalk([&](tkit::Armed& a) { a([&] { return K_CreatePlayback(&p, &target, nullptr); }); }, 1, true);
    tkit::allocationWalk([&](tkit::Armed& armed) {
        BITMAPRECORD bm = makeFrame({0, 0, 2, 2, 0, 0, false, false, false, 0, {1, 2, 3, 4}, {}, 0}), badFrame = bm;
        badFrame.uStructSize = 3;
        EXPECT_EQ(K_AppendPlayback(p, &badFrame), KS_INVALID_STRUCT_SIZE);
        if (armed([&] { return K_AppendPlayback(p, &bm); }) != KS_SUCCESS) K_FreeBitmap(&bm);
    }, 1, true);
    // The clear marks the whole target for update; the index range (the state machine is the model's).
    RECT r{}, r2{};
    EXPECT_EQ(std::vector<int32_t>({K_ProcessPlayback(p, &st), st, K_GetPlaybackUpdateRect(p, &r, 1), r.right, r.bottom,
                                    K_GetPlaybackUpdateRect(p, &r2, 0), r2.right - r2.left, K_SetPlaybackIndex(p, 2),
                                    K_SetPlaybackIndex(p, -2), K_SetPlaybackIndex(p, 0)}),
              std::vector<int32_t>({1, PLAYBACK_STATE_NEXT, 1, 8, 8, 1, 0, P, P, 1}));  // 1: KS_SUCCESS
    // Destroying it frees its own list and the frame in it.
    EXPECT_TRUE(K_DestroyPlayback(p) == KS_SUCCESS && krn::faultinject::liveBlocks() == base);
    // A disposal-3 frame wholly outside the target after one inside it: the first restores what it covered and lets its
    // saved area go; the second saves and restores nothing, so its disposal marks nothing for update.
    HBITMAPLIST list = nullptr;
    ASSERT_EQ(K_CreateBitmapList(&list), KS_SUCCESS);
    for (int32_t left : {2, 20}) {
        BITMAPRECORD bm = makeFrame({left, 1, 3, 2, 0, 3, false, false, false, 0, {1, 2, 3, 4, 5, 6}, {}, 0}, TOP_LEFT);
        ASSERT_EQ(K_InsertBitmapListItem(list, BITMAPLIST_END, &bm), KS_SUCCESS);
    }
    ASSERT_EQ(K_CreatePlayback(&pb, &target, list), KS_SUCCESS);
    std::vector<int32_t> states, widths;
    for (st = -1; st != PLAYBACK_STATE_END; states.push_back(st), widths.push_back(r.right - r.left)) {
        ASSERT_TRUE(K_GetPlaybackUpdateRect(pb, nullptr, 1) == KS_SUCCESS && K_ProcessPlayback(pb, &st) == KS_SUCCESS);
        ASSERT_EQ(K_GetPlaybackUpdateRect(pb, &r, 0), KS_SUCCESS);
    }
    // clear, next, draw 0 (3 wide), dispose 0 (restores 3), next, draw 1 (nothing), dispose 1 (nothing), end
    EXPECT_EQ(states, std::vector<int32_t>({1, 2, 4, 8, 9, 2, 4, 8, 9, 10}));
    EXPECT_EQ(widths, std::vector<int32_t>({8, 0, 3, 0, 3, 0, 0, 0, 0, 0}));
    K_DestroyPlayback(pb), K_DestroyBitmapList(list), K_FreeBitmap(&target);
}

// ---------------------------------------------------------------- composition

TEST(PlaybackCombine, ComposesLikeThePixelOracle) {
    ClockGuard clock;
    const Fmt f1{1, 0}, f4{4, 0}, f8{8, 0}, f16{16, ORDER_BGR}, f24 = kBgr24, f32{32, ORDER_BGR};
    const struct Case { Fmt target, frame; int32_t vp; bool targetRegion; } cases[] = {
        {f1, f1, TOP_LEFT, false},     {f4, f4, BOTTOM_LEFT, true}, {f8, f8, 6, false}, {f16, f16, 7, true},
        {f24, f24, BOTTOM_LEFT, false}, {f32, f32, 8, true},         {f24, f24, 5, true}, {f32, f32, TOP_LEFT, false},
        {f4, f24, 6, false},           {f24, f8, 2, true},
    };
    const int32_t framePersp[] = {TOP_LEFT, BOTTOM_LEFT, 5, 8, 3};
    const RGNXFORM xf{TOP_LEFT, 1, 1, 1, 1, 0, 0};
    int32_t caseNo = 0, shown = 0, hidden = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << caseNo << " target " << c.target.bpp << " vp " << c.vp);
        std::mt19937 rng(uint32_t(100 + caseNo++));
        const int32_t W = 23, H = 17;
        BITMAPRECORD target = viewBitmap(c.target, W, H, c.vp);
        FRAME_BACKGROUND_COLOR(&target) = 0x00336699;
        const RECT ellipse{2, 1, 20, 15};
        if (c.targetRegion) { ASSERT_EQ(K_SetBitmapRgnEllipse(&target, &xf, &ellipse, RGN_SET_REPLACE), KS_SUCCESS); }
        Oracle o{W, H, c.target, viewPixels(&target, W, H), {}, {}};
        for (int32_t i = 0; i < W * H; ++i) o.open.push_back(inRegion(&target, i % W, i / W));
        HBITMAPLIST list;
        ASSERT_EQ(K_CreateBitmapList(&list), KS_SUCCESS);
        std::vector<Frame> frames;
        for (int32_t i = 0; i < 5; ++i) {
            Frame of{int32_t(rng() % 20) - 4, int32_t(rng() % 14) - 3, 3 + int32_t(rng() % 12), 2 + int32_t(rng() % 9),
                     10, uint32_t(i % 4), false, i % 2 == 0, i == 3, 0, {}, {}, 0};
            BITMAPRECORD fb = viewBitmap(c.frame, of.w, of.h, framePersp[i]);
            const uint64_t mask = c.frame.bpp == 16 ? 0x7FFFu : (uint64_t(1) << c.frame.bpp) - 1;  // 5-5-5: 15 bits
            const uint64_t keyRaw = rng() & mask;
            for (int32_t y = 0; y < of.h; ++y)
                for (int32_t x = 0; x < of.w; ++x) setViewPixel(&fb, x, y, rng() % 4 == 0 ? keyRaw : rng() & mask);
            const RECT box{0, 0, of.w, of.h};
            if (i % 3 == 1) { ASSERT_EQ(K_SetBitmapRgnEllipse(&fb, &xf, &box, RGN_SET_REPLACE), KS_SUCCESS); }
            // Frames of another format reach the target as the colour-resolution copy would make them.
            BITMAPRECORD conv = fb;
            const bool convert = c.frame.bpp != c.target.bpp, paletted = c.target.bpp <= 8;
            ASSERT_TRUE(!convert || K_ColorResBitmap(&fb, &conv, c.target.bpp, paletted ? 0x10010u : 4u,
                                        paletted ? target.pPalette : nullptr, paletted ? target.nColors : 0,
                                        BITMAPRECORD_SIZE) == KS_SUCCESS);
            const uint32_t cm = c.frame.bpp == 32 ? 0xFFFFFFu : ~0u;
            for (int32_t y = 0; y < of.h; ++y)
                for (int32_t x = 0; x < of.w; ++x) {
                    of.px.push_back(viewPixel(&conv, x, y));
                    const bool key = of.keyed && (viewPixel(&fb, x, y) & cm) == (keyRaw & cm);
                    of.shows.push_back(inRegion(&fb, x, y) && !key);
                    shown += of.shows.back(), hidden += !of.shows.back();
                }
            if (convert) K_FreeBitmap(&conv);
            FRAME_LEFT(&fb) = of.left, FRAME_TOP(&fb) = of.top, FRAME_DISPOSAL(&fb) = of.disposal;
            FRAME_DELAY(&fb) = of.delay, FRAME_TRANSPARENT_COLOR(&fb) = colourOf(&fb, keyRaw);
            fb.uFlags |= (of.keyed ? BRF_FRAME_TRANSPARENT : 0) | (of.alpha ? BRF_FRAME_ALPHAOVER : 0);
            of.area = rgnArea(&fb);
            ASSERT_EQ(K_InsertBitmapListItem(list, BITMAPLIST_END, &fb), KS_SUCCESS);
            frames.push_back(of);
        }
        HPLAYBACK pb;
        ASSERT_EQ(K_CreatePlayback(&pb, &target, list), KS_SUCCESS);
        uint64_t bg = 0;
        // Two passes: the second draws over the first's last composition.
        for (int32_t guard = 0, passes = 0; passes < 2 && guard < 400 && !HasFatalFailure(); ++guard) {
            int32_t st = -1, index = -1;
            ASSERT_TRUE(K_ProcessPlayback(pb, &st) == KS_SUCCESS && K_GetPlaybackIndex(pb, &index) == KS_SUCCESS);
            if (st == PLAYBACK_STATE_NEXT) {  // just cleared: the background as the fill makes it
                for (int32_t i = W * H - 1; i >= 0; --i)
                    if (o.open[size_t(i)]) bg = viewPixel(&target, i % W, i / W);
                for (int32_t i = 0; i < W * H; ++i)
                    if (o.open[size_t(i)]) o.img[size_t(i)] = bg;
            } else if (st == PLAYBACK_STATE_DELAY) o.draw(frames[size_t(index)]);
            else if (st == PLAYBACK_STATE_NEXT2) o.dispose(frames[size_t(index)], bg);
            else if (st == PLAYBACK_STATE_WAITDELAY) gNow += 10;
            passes += st == PLAYBACK_STATE_END;
            ASSERT_EQ(viewPixels(&target, W, H), o.img) << "state " << st << " frame " << index;
        }
        for (uint32_t i = 0; i < frames.size(); ++i) EXPECT_EQ(itemArea(list, i), frames[i].area) << i;  // regions back
        K_DestroyPlayback(pb), K_DestroyBitmapList(list), K_FreeBitmap(&target);
    }
    EXPECT_TRUE(shown > 1000 && hidden > 300) << shown << " " << hidden;
}

// Allocation failures while a frame is drawn (transparent colour, frame and target regions, a turned frame on a
// bottom-left target): the playback goes on (the step answers 1), the target keeps every pixel or takes the whole
// frame, the frame's region comes back and nothing leaks.
TEST(PlaybackCombine, DrawingSurvivesEveryAllocationFailure) {
    ClockGuard clock;
    BITMAPRECORD target = viewBitmap(kBgr24, 16, 12, BOTTOM_LEFT), frame = viewBitmap(kBgr24, 9, 7, 6);  // turned
    const RGNXFORM xf{TOP_LEFT, 1, 1, 1, 1, 0, 0};
    const RECT box{1, 1, 15, 11};
    ASSERT_EQ(K_SetBitmapRgnRect(&target, &xf, &box, RGN_SET_REPLACE), KS_SUCCESS);
    for (int32_t y = 0; y < 7; ++y)
        for (int32_t x = 0; x < 9; ++x) setViewPixel(&frame, x, y, uint64_t((x * 7 + y * 3) % 5) * 40);
    FRAME_LEFT(&frame) = 3, FRAME_TOP(&frame) = 2, FRAME_DISPOSAL(&frame) = 2;
    FRAME_TRANSPARENT_COLOR(&frame) = colourOf(&frame, 80);
    frame.uFlags |= BRF_FRAME_TRANSPARENT;
    ASSERT_EQ(K_SetBitmapRgnEllipse(&frame, &xf, &box, RGN_SET_REPLACE), KS_SUCCESS);
    const int64_t area = rgnArea(&frame);
    HBITMAPLIST list;
    HPLAYBACK pb;
    ASSERT_TRUE(K_CreateBitmapList(&list) == KS_SUCCESS && K_InsertBitmapListItem(list, 0, &frame) == KS_SUCCESS);
    ASSERT_EQ(K_CreatePlayback(&pb, &target, list), KS_SUCCESS);
    int32_t st = 0;
    auto toDraw = [&] {  // a fresh clear, then state 2 at frame 0
        ASSERT_TRUE(K_SetPlaybackIndex(pb, -1) == KS_SUCCESS && K_ProcessPlayback(pb, &st) == KS_SUCCESS);
        ASSERT_TRUE(K_ProcessPlayback(pb, &st) == KS_SUCCESS && st == PLAYBACK_STATE_DRAW);
    };
    toDraw();
    const std::vector<uint64_t> before = viewPixels(&target, 16, 12);
    ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
    const std::vector<uint64_t> drawn = viewPixels(&target, 16, 12);  // the unhindered draw
    ASSERT_NE(drawn, before);
    int32_t failures = 0;
    tkit::allocationWalk([&](tkit::Armed& armed) {
        toDraw();
        ASSERT_EQ(armed([&] { return K_ProcessPlayback(pb, &st); }), KS_SUCCESS);
        EXPECT_TRUE(st == PLAYBACK_STATE_DELAY && krn::faultinject::liveBlocks() == armed.live) << armed.n;
        EXPECT_EQ(itemArea(list, 0), area) << armed.n;
        // A failure the kernel absorbed draws the frame; any other leaves the target alone.
        failures += armed.injected > 0;
        const std::vector<uint64_t> now = viewPixels(&target, 16, 12);
        EXPECT_TRUE(!armed.injected || now == before || now == drawn) << "a failed draw changed the target " << armed.n;
    });
    EXPECT_GT(failures, 5);
    EXPECT_EQ(viewPixels(&target, 16, 12), drawn);
    K_DestroyPlayback(pb), K_DestroyBitmapList(list), K_FreeBitmap(&target);
}

// The transparent colour's region that drawing builds itself (8, 24 and 32 bits in memory, AVX2 and plain) holds
// exactly the pixels of the region family's colour builder, for widths that leave every tail length.
TEST(PlaybackCombine, KeyRegionMatchesTheColourBuilder) {
    std::mt19937 rng(5);
    for (int32_t bpp : {8, 24, 32})
        for (int32_t w : {1, 7, 8, 9, 10, 11, 16, 17, 25, 33, 70}) {
            BITMAPRECORD f = viewBitmap({bpp, bpp == 8 ? 0 : ORDER_BGR}, w, 5, TOP_LEFT), want, got;
            const uint64_t mask = (uint64_t(1) << bpp) - 1, keyRaw = rng() & mask;
            for (int32_t y = 0; y < 5; ++y)
                for (int32_t x = 0; x < w; ++x)  // at 32 bits the fourth byte does not count
                    setViewPixel(&f, x, y, (rng() % 3 == 0 ? keyRaw : rng() & mask) ^ (bpp == 32 ? rng() << 24 : 0));
            const uint32_t colour = colourOf(&f, keyRaw);
            ASSERT_TRUE(K_CopyBitmap(&want, &f, BITMAPRECORD_SIZE) == 1 && K_SetBitmapRgnColor(&want, colour, 1) == 1);
            for (bool plain : {false, true}) {
                krn::testhook::playbackPlainKeyScan(plain);
                OrvaRgn* rgn = nullptr;
                ASSERT_EQ(krn::testhook::playbackKeyRegion(&f, colour, &rgn), KS_SUCCESS);
                krn::testhook::playbackPlainKeyScan(false);
                ASSERT_EQ(K_CopyBitmap(&got, &f, BITMAPRECORD_SIZE), KS_SUCCESS);
                ASSERT_EQ(K_SetBitmapRgn(&got, nullptr, rgn, RGN_SET_REPLACE), KS_SUCCESS);
                for (int32_t y = 0; y < 5; ++y)
                    for (int32_t x = 0; x < w; ++x)
                        ASSERT_EQ(K_IsPtInBitmapRgn(&got, y, x), K_IsPtInBitmapRgn(&want, y, x))
                            << bpp << " bits, width " << w << " at " << x << "," << y << (plain ? " plain" : "");
                K_FreeBitmap(&got);
            }
            K_FreeBitmap(&want), K_FreeBitmap(&f);
        }
}

}  // namespace
