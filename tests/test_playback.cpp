// test_playback.cpp - animation playback against an independent model: a
// table of transitions for the state machine and a composition oracle that
// draws frames into a plain image by index arithmetic, with the time
// injected (the tests never sleep).
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <vector>

#include "ombrix.h"
#include "dis/common/playback.h"
#include "krn/common/memory.h"

namespace {

uint32_t gNow = 0;
uint32_t fakeClock(void*) { return gNow; }
struct ClockGuard {
    ClockGuard() { krn::testhook::setPlaybackClock(fakeClock, nullptr); }
    ~ClockGuard() { krn::testhook::setPlaybackClock(nullptr, nullptr); }
};

struct Frame {
    int32_t left, top, w, h;
    uint32_t delay, disposal;
    bool input, keyed;
    uint32_t key;                 // transparent colour 0x00BBGGRR
    std::vector<uint32_t> px;     // view order, 0x00BBGGRR
};

// ---------------------------------------------------------------- the model

// The transition table: for each state, the next state under each condition.
enum Cond { Always, PastEnd, NotPastEnd, HoldLast, Draw, DelayInput, DelayNoInput, NoDelayInput, NoDelayNoInput,
            Waiting, Elapsed };
struct Rule {
    int from;
    Cond when;
    int to;
};
const Rule kTable[] = {
    {0, Always, 1},        {1, PastEnd, 10},        {1, NotPastEnd, 2},       {2, HoldLast, 3},
    {2, Draw, 4},          {3, HoldLast, 3},        {3, Draw, 4},             {4, DelayInput, 7},
    {4, DelayNoInput, 6},  {4, NoDelayInput, 5},    {4, NoDelayNoInput, 8},   {5, Always, 5},
    {6, Waiting, 6},       {6, Elapsed, 8},         {7, Waiting, 7},          {7, Elapsed, 8},
    {8, Always, 9},        {9, PastEnd, 10},        {9, NotPastEnd, 2},       {10, Always, 2},
};

struct Model {
    int32_t W, H;
    uint32_t bg;
    std::vector<uint32_t> img;  // view order
    std::vector<Frame> frames;
    int state = 0, index = -1;
    uint32_t waitStart = 0;
    bool validating = false;
    int missing = 0;
    std::vector<bool> marks;
    bool haveSaved = false;
    std::vector<uint32_t> saved;  // the whole image, restored only inside the frame
    int savedFor = -1;

    bool holds(Cond c) const {
        const Frame* f = index >= 0 && index < int(frames.size()) ? &frames[size_t(index)] : nullptr;
        const bool last = validating && index + 1 == int(frames.size());
        switch (c) {
            case Always: return true;
            case PastEnd: return index + 1 >= int(frames.size());
            case NotPastEnd: return index + 1 < int(frames.size());
            case HoldLast: return last;
            case Draw: return !last;
            case DelayInput: return f->delay > 0 && f->input;
            case DelayNoInput: return f->delay > 0 && !f->input;
            case NoDelayInput: return f->delay == 0 && f->input;
            case NoDelayNoInput: return f->delay == 0 && !f->input;
            case Waiting: return uint32_t(gNow - waitStart) < f->delay;
            case Elapsed: return uint32_t(gNow - waitStart) >= f->delay;
        }
        return false;
    }
    void fillRect(const Frame& f, uint32_t colour) {
        for (int y = std::max(f.top, 0); y < std::min(f.top + f.h, H); ++y)
            for (int x = std::max(f.left, 0); x < std::min(f.left + f.w, W); ++x) img[size_t(y * W + x)] = colour;
    }
    void draw(const Frame& f) {
        for (int y = 0; y < f.h; ++y)
            for (int x = 0; x < f.w; ++x) {
                const int tx = f.left + x, ty = f.top + y;
                if (tx < 0 || ty < 0 || tx >= W || ty >= H) continue;
                const uint32_t c = f.px[size_t(y * f.w + x)];
                if (f.keyed && c == f.key) continue;
                img[size_t(ty * W + tx)] = c;
            }
    }
    void step() {
        const int from = state;
        // The action of the state (done before the transition, as the state's work).
        if (from == 0) img.assign(img.size(), bg);
        if (from == 1 || from == 9) {
            // the index moves first; the table's conditions look at the next index
        }
        if ((from == 2 || from == 3) && (index >= int(frames.size()))) {
            state = 10;
            return;
        }
        int to = -1;
        for (const Rule& r : kTable)
            if (r.from == from && holds(r.when)) {
                to = r.to;
                break;
            }
        ASSERT_GE(to, 0) << "no rule for state " << from;
        if (from == 1 || from == 9) ++index;
        if ((from == 2 || from == 3) && to == 4) {
            const Frame& f = frames[size_t(index)];
            haveSaved = false;
            if (f.disposal == 3) {
                saved = img;
                haveSaved = true;
            }
            draw(f);
        }
        if (from == 4 && (to == 6 || to == 7)) waitStart = gNow;
        if (from == 8) {
            const Frame& f = frames[size_t(index)];
            if (f.disposal == 2) fillRect(f, bg);
            if (f.disposal == 3 && haveSaved) {
                for (int y = std::max(f.top, 0); y < std::min(f.top + f.h, H); ++y)
                    for (int x = std::max(f.left, 0); x < std::min(f.left + f.w, W); ++x)
                        img[size_t(y * W + x)] = saved[size_t(y * W + x)];
                haveSaved = false;
            }
        }
        if (from == 10) index = 0;
        state = to;
    }
    void cancel() {
        if (state == 5 || state == 6 || state == 7) state = 8;
    }
    uint32_t delayLeft() const {
        if (state != 6 && state != 7) return 0;
        const uint32_t e = gNow - waitStart, d = frames[size_t(index)].delay;
        return e < d ? d - e : 0;
    }
};

// ---------------------------------------------------------------- library side

BITMAPRECORD makeFrame(const Frame& f, int vp) {
    BITMAPRECORD bm;
    EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, f.w, f.h, 24, ORDER_BGR, nullptr, vp, nullptr, 0), KS_SUCCESS);
    std::vector<uint8_t> row(bm.nBytesPerLine, 0);
    for (int y = 0; y < f.h; ++y) {
        for (int x = 0; x < f.w; ++x) {
            const uint32_t c = f.px[size_t(y * f.w + x)];
            row[size_t(x) * 3] = uint8_t(c >> 16);
            row[size_t(x) * 3 + 1] = uint8_t(c >> 8);
            row[size_t(x) * 3 + 2] = uint8_t(c);
        }
        EXPECT_GE(K_PutBitmapRow(&bm, row.data(), vp == BOTTOM_LEFT ? f.h - 1 - y : y, bm.nBytesPerLine), 0);
    }
    FRAME_LEFT(&bm) = f.left;
    FRAME_TOP(&bm) = f.top;
    FRAME_DELAY(&bm) = f.delay;
    FRAME_DISPOSAL(&bm) = f.disposal;
    FRAME_TRANSPARENT_COLOR(&bm) = f.key;
    if (f.input) bm.uFlags |= BRF_FRAME_WAITINPUT;
    if (f.keyed) bm.uFlags |= BRF_FRAME_TRANSPARENT;
    return bm;
}

std::vector<uint32_t> targetPixels(BITMAPRECORD* t) {
    std::vector<uint32_t> v(size_t(t->nWidth) * size_t(t->nHeight));
    std::vector<uint8_t> row(t->nBytesPerLine);
    for (int y = 0; y < t->nHeight; ++y) {
        EXPECT_GE(K_GetBitmapRow(t, row.data(), t->nViewPerspective == BOTTOM_LEFT ? t->nHeight - 1 - y : y,
                                 t->nBytesPerLine),
                  0);
        for (int x = 0; x < t->nWidth; ++x)
            v[size_t(y * t->nWidth + x)] = uint32_t(row[size_t(x) * 3 + 2]) | (uint32_t(row[size_t(x) * 3 + 1]) << 8) |
                                           (uint32_t(row[size_t(x) * 3]) << 16);
    }
    return v;
}

Frame randomFrame(std::mt19937& rng, int W, int H) {
    Frame f;
    f.w = 1 + int(rng() % 9);
    f.h = 1 + int(rng() % 7);
    f.left = int(rng() % uint32_t(W + 4)) - 3;
    f.top = int(rng() % uint32_t(H + 4)) - 3;
    f.delay = rng() % 3 == 0 ? 0 : 5 + rng() % 40;
    f.disposal = rng() % 4;
    f.input = rng() % 5 == 0;
    f.keyed = rng() % 2 == 0;
    f.key = 0x00112233;
    for (int i = 0; i < f.w * f.h; ++i) f.px.push_back(rng() % 4 == 0 ? f.key : (rng() & 0xFFFFFF));
    return f;
}

TEST(PlaybackModel, GeneratedAnimationsAgreeStepByStep) {
    ClockGuard clock;
    {  // per-thread settings exist before counting
        BITMAPRECORD warm;
        K_CreateBitmap(&warm, BITMAPRECORD_SIZE, 1, 2, 2, 24, ORDER_BGR, nullptr, 1, nullptr, 0);
        K_FillBitmap(&warm, 0);
        K_FreeBitmap(&warm);
    }
    const long base = krn::faultinject::liveBlocks();
    int drawnSteps = 0, waitsSeen = 0, disposals = 0;
    for (uint32_t seed = 1; seed <= 40; ++seed) {
        std::mt19937 rng(seed);
        const int W = 12, H = 9, vp = seed % 2 ? TOP_LEFT : BOTTOM_LEFT;
        gNow = 0xFFFFFF00u + seed;  // the tick count wraps during the run
        BITMAPRECORD target;
        ASSERT_EQ(K_CreateBitmap(&target, BITMAPRECORD_SIZE, 1, W, H, 24, ORDER_BGR, nullptr, vp, nullptr, 0),
                  KS_SUCCESS);
        FRAME_BACKGROUND_COLOR(&target) = 0x00405060;
        Model m;
        m.W = W;
        m.H = H;
        m.bg = 0x00405060;
        m.img = targetPixels(&target);
        HBITMAPLIST list = nullptr;
        ASSERT_EQ(K_CreateBitmapList(&list), KS_SUCCESS);
        const int n = 1 + int(rng() % 4);
        for (int i = 0; i < n; ++i) {
            m.frames.push_back(randomFrame(rng, W, H));
            BITMAPRECORD bm = makeFrame(m.frames.back(), rng() % 2 ? TOP_LEFT : BOTTOM_LEFT);
            ASSERT_EQ(K_InsertBitmapListItem(list, BITMAPLIST_END, &bm), KS_SUCCESS);
        }
        HPLAYBACK pb = nullptr;
        ASSERT_EQ(K_CreatePlayback(&pb, &target, list), KS_SUCCESS);
        for (int stepNo = 0; stepNo < 300; ++stepNo) {
            const uint32_t action = rng() % 20;
            if (action < 13) {
                gNow += rng() % 3 == 0 ? 0 : rng() % 25;
                int32_t st = -1;
                ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
                const int before = m.state;
                m.step();
                ASSERT_EQ(st, m.state) << "seed " << seed << " step " << stepNo;
                drawnSteps += (before == 2 || before == 3) && st == 4;
                waitsSeen += st == 6 || st == 7 || st == 5;
                disposals += before == 8;
            } else if (action < 15) {
                ASSERT_EQ(K_CancelPlaybackWait(pb), KS_SUCCESS);
                m.cancel();
            } else if (action == 15) {
                const int to = int(rng() % uint32_t(m.frames.size() + 2)) - 1;
                ASSERT_EQ(K_SetPlaybackIndex(pb, to), KS_SUCCESS);
                m.validating = false;
                if (m.index > to) {
                    m.haveSaved = false;
                    m.state = 0;
                    m.index = -1;
                }
                for (int guard = 0; m.index != to && guard < 1000; ++guard) {
                    m.step();
                    m.cancel();
                }
            } else if (action == 16 && m.frames.size() < 8) {
                m.frames.push_back(randomFrame(rng, W, H));
                BITMAPRECORD bm = makeFrame(m.frames.back(), TOP_LEFT);
                ASSERT_EQ(K_AppendPlayback(pb, &bm), KS_SUCCESS);
                m.validating = true;
                m.missing = m.frames.back().h;
                m.marks.assign(size_t(m.frames.back().h), false);
                if (m.state == 10) m.state = 2;
            } else if (action == 17) {
                const int first = int(rng() % 8) - 2, count = int(rng() % 5);
                ASSERT_EQ(K_ValidatePlaybackLines(pb, first, count), KS_SUCCESS);
                if (m.validating) {
                    for (int y = std::max(first, 0); y < std::min(first + count, int(m.marks.size())); ++y)
                        if (!m.marks[size_t(y)]) {
                            m.marks[size_t(y)] = true;
                            --m.missing;
                        }
                    if (m.missing <= 0) m.validating = false;
                }
            } else {
                uint32_t left = 12345;
                ASSERT_EQ(K_GetPlaybackDelay(pb, &left), KS_SUCCESS);
                EXPECT_EQ(left, m.delayLeft());
            }
            int32_t st = -1, idx = -2;
            ASSERT_EQ(K_GetPlaybackState(pb, &st), KS_SUCCESS);
            ASSERT_EQ(K_GetPlaybackIndex(pb, &idx), KS_SUCCESS);
            ASSERT_EQ(st, m.state) << "seed " << seed << " step " << stepNo << " action " << action;
            ASSERT_EQ(idx, m.index) << "seed " << seed << " step " << stepNo;
            ASSERT_EQ(targetPixels(&target), m.img) << "seed " << seed << " step " << stepNo << " state " << st;
        }
        ASSERT_EQ(K_DestroyPlayback(pb), KS_SUCCESS);
        ASSERT_EQ(K_DestroyBitmapList(list), KS_SUCCESS);
        K_FreeBitmap(&target);
    }
    // The generated runs really draw, wait and dispose.
    EXPECT_GT(drawnSteps, 200);
    EXPECT_GT(waitsSeen, 100);
    EXPECT_GT(disposals, 100);
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

TEST(PlaybackEdges, NamedCases) {
    ClockGuard clock;
    gNow = 1000;
    BITMAPRECORD target;
    ASSERT_EQ(K_CreateBitmap(&target, BITMAPRECORD_SIZE, 1, 8, 8, 24, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
    HPLAYBACK pb = nullptr;
    ASSERT_EQ(K_CreatePlayback(&pb, &target, nullptr), KS_SUCCESS);  // an owned, empty list
    int32_t st = -1, idx = 5;
    ASSERT_EQ(K_GetPlaybackIndex(pb, &idx), KS_SUCCESS);
    EXPECT_EQ(idx, -1);
    ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
    EXPECT_EQ(st, 1);
    RECT r{};
    ASSERT_EQ(K_GetPlaybackUpdateRect(pb, &r, 1), KS_SUCCESS);
    EXPECT_EQ(r.right, 8);
    EXPECT_EQ(r.bottom, 8);
    ASSERT_EQ(K_GetPlaybackUpdateRect(pb, &r, 0), KS_SUCCESS);
    EXPECT_EQ(r.right - r.left, 0);
    ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
    EXPECT_EQ(st, 10);  // nothing to play yet
    // Appending in state 10 resumes at state 2 (with the rows still to come it waits in 3).
    Frame f{1, 1, 3, 2, 0, 0, false, false, 0, {1, 2, 3, 4, 5, 6}};
    BITMAPRECORD bm = makeFrame(f, TOP_LEFT);
    ASSERT_EQ(K_AppendPlayback(pb, &bm), KS_SUCCESS);
    ASSERT_EQ(K_GetPlaybackState(pb, &st), KS_SUCCESS);
    EXPECT_EQ(st, 2);
    ASSERT_EQ(K_GetPlaybackIndex(pb, &idx), KS_SUCCESS);
    EXPECT_EQ(idx, 0);
    ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
    EXPECT_EQ(st, 3);  // the last frame is still loading
    ASSERT_EQ(K_ValidatePlaybackLines(pb, 1, 5), KS_SUCCESS);
    ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
    EXPECT_EQ(st, 3);
    ASSERT_EQ(K_ValidatePlaybackLines(pb, -3, 4), KS_SUCCESS);  // clamped to row 0
    // Delay 0 and no input flag: 4 -> 8 without waiting.
    ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
    EXPECT_EQ(st, 4);
    ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
    EXPECT_EQ(st, 8);
    // A user-input frame with no delay waits in 5 until cancelled; the delay reads 0 there.
    Frame g{0, 0, 2, 2, 0, 0, true, false, 0, {7, 7, 7, 7}};
    BITMAPRECORD gb = makeFrame(g, TOP_LEFT);
    ASSERT_EQ(K_AppendPlayback(pb, &gb), KS_SUCCESS);
    ASSERT_EQ(K_ValidatePlaybackLines(pb, 0, 2), KS_SUCCESS);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);  // 9, 2, 4
    ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
    EXPECT_EQ(st, 5);
    uint32_t left = 99;
    ASSERT_EQ(K_GetPlaybackDelay(pb, &left), KS_SUCCESS);
    EXPECT_EQ(left, 0u);
    gNow += 100000;
    ASSERT_EQ(K_ProcessPlayback(pb, &st), KS_SUCCESS);
    EXPECT_EQ(st, 5);
    ASSERT_EQ(K_CancelPlaybackWait(pb), KS_SUCCESS);
    ASSERT_EQ(K_GetPlaybackState(pb, &st), KS_SUCCESS);
    EXPECT_EQ(st, 8);
    // Index range.
    EXPECT_EQ(K_SetPlaybackIndex(pb, 3), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetPlaybackIndex(pb, -2), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetPlaybackIndex(pb, 2), KS_SUCCESS);
    ASSERT_EQ(K_GetPlaybackIndex(pb, &idx), KS_SUCCESS);
    EXPECT_EQ(idx, 2);
    ASSERT_EQ(K_DestroyPlayback(pb), KS_SUCCESS);  // frees its own list and the frames in it
    K_FreeBitmap(&target);
}

TEST(PlaybackFailures, HandlesArgumentsAndMemory) {
    ClockGuard clock;
    BITMAPRECORD target, unalloc;
    ASSERT_EQ(K_CreateBitmap(&target, BITMAPRECORD_SIZE, 1, 8, 8, 24, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 8, 8, 24);
    HPLAYBACK pb = nullptr;
    EXPECT_EQ(K_CreatePlayback(nullptr, &target, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CreatePlayback(&pb, nullptr, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CreatePlayback(&pb, &unalloc, nullptr), KS_INVALID_PARAMETER);
    BITMAPRECORD bad = target;
    bad.uStructSize = 5;
    EXPECT_EQ(K_CreatePlayback(&pb, &bad, nullptr), KS_INVALID_STRUCT_SIZE);
    int local = 0;
    EXPECT_EQ(K_CreatePlayback(&pb, &target, reinterpret_cast<HBITMAPLIST>(&local)), KS_INVALID_PARAMETER);
    EXPECT_EQ(pb, nullptr);
    // Wrong handle kinds: a region handle is refused with errno 22.
    HRGN hp = CreateRectRgn(0, 0, 4, 4);
    ASSERT_NE(hp, nullptr);
    errno = 0;
    int32_t st;
    EXPECT_EQ(K_ProcessPlayback(reinterpret_cast<HPLAYBACK>(hp), &st), KS_INVALID_PARAMETER);
    EXPECT_EQ(errno, 22);
    DeleteObject(hp);
    void* movable = K_GlobalAlloc(GHND, 256);  // the right kind, not a playback
    EXPECT_EQ(K_ProcessPlayback(movable, &st), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_DestroyPlayback(movable), KS_INVALID_PARAMETER);
    K_GlobalFree(movable);
    EXPECT_EQ(K_ProcessPlayback(nullptr, &st), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CancelPlaybackWait(nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_ValidatePlaybackLines(nullptr, 0, 1), KS_INVALID_PARAMETER);
    // Memory: creation and appending, every allocation in turn.
    { HPLAYBACK w; K_CreatePlayback(&w, &target, nullptr); K_DestroyPlayback(w); }
    const long base = krn::faultinject::liveBlocks();
    for (long nth = 0;; ++nth) {
        HPLAYBACK p = nullptr;
        krn::faultinject::arm(nth, 1);
        int32_t r = K_CreatePlayback(&p, &target, nullptr);
        krn::faultinject::disarm();
        if (r == KS_SUCCESS) {
            for (long k = 0;; ++k) {
                Frame f{0, 0, 2, 2, 0, 0, false, false, 0, {1, 2, 3, 4}};
                BITMAPRECORD bm = makeFrame(f, TOP_LEFT);
                BITMAPRECORD badFrame = bm;
                badFrame.uStructSize = 3;
                EXPECT_EQ(K_AppendPlayback(p, &badFrame), KS_INVALID_STRUCT_SIZE);
                const long live = krn::faultinject::liveBlocks();
                krn::faultinject::arm(k, 1);
                int32_t a = K_AppendPlayback(p, &bm);
                krn::faultinject::disarm();
                if (a == KS_SUCCESS) break;
                EXPECT_EQ(a, KS_NO_MEMORY);
                EXPECT_EQ(krn::faultinject::liveBlocks(), live);
                K_FreeBitmap(&bm);  // not taken: still ours
                ASSERT_LT(k, 10);
            }
            K_DestroyPlayback(p);
            break;
        }
        EXPECT_EQ(r, KS_NO_MEMORY);
        EXPECT_EQ(krn::faultinject::liveBlocks(), base);
        ASSERT_LT(nth, 10);
    }
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
    K_FreeBitmap(&target);
}

}  // namespace
