// playback.cpp - animation playback: a caller-driven state machine that
// composes the frames of a bitmap list onto a target.
//
// The playback is a movable global block (an emulated handle of kind 3)
// holding the state below. One K_ProcessPlayback call makes one transition:
//
//   0 clear -> 1 next -> 2 draw (3 while the last frame's rows are still
//   being loaded) -> 4 delay -> 5 / 6 / 7 waits -> 8 dispose -> 9 next -> 2
//   ... -> 10 end -> 2 with index 0 (the loop does not clear again).
//
// Waits compare tick counts in unsigned 32-bit arithmetic, so they survive
// the counter wrapping. The tick source can be replaced by tests.
//
// Frames are drawn with the combine engine through the frame's region (its
// transparent colour taken away); the area under a frame with disposal 3 is
// kept in a bitmap of the target's format and combined back when the frame
// is disposed of.
#include <immintrin.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "bitmaprgn.h"
#include "krn/common/combine.h"
#include "krn/common/convert_kernels.h"
#include "krn/common/hooks.h"
#include "krn/common/kernel.h"
#include "krn/common/list.h"
#include "krn/common/memory.h"
#include "krn/windowsemul/globalmem.h"
#include "krn/windowsemul/objects.h"
#include "playback.h"
#include "region.h"

namespace krn {

namespace {

constexpr uint32_t kPlaybackTag = 0x59414C50u;  // "PLAY"
constexpr uint32_t kFloatData = 0x100000u;
constexpr uint32_t kCombineCopy = 48;         // source AND all bits 1: the source bits
constexpr uint32_t kCombineAlphaOver = 3328;  // alpha over

uint32_t steadyTicks(void*) {
    using namespace std::chrono;
    return uint32_t(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}
uint32_t (*gClock)(void*) = steadyTicks;
void* gClockCtx = nullptr;
uint32_t nowTicks() noexcept { return gClock(gClockCtx); }

struct Playback {
    uint32_t tag;
    int32_t index;
    int32_t state;
    BITMAPRECORD* target;
    int32_t listOwned;
    HBITMAPLIST list;
    uint32_t waitStart;
    RECT update;
    // Saved area (disposal 3): the target under the frame, placed at
    // (savedX, savedY) in the target's top-left view.
    BITMAPRECORD saved;
    int32_t haveSaved;
    int32_t savedX, savedY;
    // Line validation of the last appended frame.
    int32_t validating;
    int32_t missingRows;
    int32_t markRows;
    uint8_t* marks;
};

// The state block of a handle, locked; null (errno 22 for a foreign kind)
// when it is not a playback.
Playback* lockPlayback(HPLAYBACK h) noexcept {
    if (!h) return nullptr;
    if (objKind(h) != kObjGlobalMemory) {
        errno = EINVAL;
        return nullptr;
    }
    if (globalSize(h) < sizeof(Playback)) return nullptr;
    Playback* p = static_cast<Playback*>(globalLock(h));
    if (!p) return nullptr;
    if (p->tag != kPlaybackTag) {
        globalUnlock(h);
        return nullptr;
    }
    return p;
}

struct Locked {
    HPLAYBACK h;
    Playback* p;
    explicit Locked(HPLAYBACK handle) : h(handle), p(lockPlayback(handle)) {}
    ~Locked() {
        if (p) globalUnlock(h);
    }
};

void unite(RECT* u, const RECT& r) noexcept {
    if (r.right <= r.left || r.bottom <= r.top) return;
    if (u->right <= u->left || u->bottom <= u->top) {
        *u = r;
        return;
    }
    u->left = std::min(u->left, r.left);
    u->top = std::min(u->top, r.top);
    u->right = std::max(u->right, r.right);
    u->bottom = std::max(u->bottom, r.bottom);
}

BITMAPRECORD* frameAt(Playback* p, int32_t index, uint32_t* count) noexcept {
    uint32_t n = 0;
    BITMAPRECORD* items = listItems(p->list, &n);
    if (count) *count = n;
    if (!items || index < 0 || uint32_t(index) >= n) return nullptr;
    return &items[index];
}
uint32_t frameCount(Playback* p) noexcept {
    uint32_t n = 0;
    listItems(p->list, &n);
    return n;
}

// Width and height of a bitmap as seen in its top-left view (perspectives 5
// to 8 store the viewed columns as rows).
int32_t viewWidth(const BITMAPRECORD* bm) noexcept {
    return bm->nViewPerspective >= 5 && bm->nViewPerspective <= 8 ? bm->nHeight : bm->nWidth;
}
int32_t viewHeight(const BITMAPRECORD* bm) noexcept {
    return bm->nViewPerspective >= 5 && bm->nViewPerspective <= 8 ? bm->nWidth : bm->nHeight;
}

// The frame's rectangle on the target (top-left view), clipped.
RECT frameRect(const BITMAPRECORD* t, const BITMAPRECORD* f) noexcept {
    const int64_t l = FRAME_LEFT(f), tp = FRAME_TOP(f), tw = viewWidth(t), th = viewHeight(t);
    RECT r;
    r.left = int32_t(std::clamp<int64_t>(l, 0, tw));
    r.top = int32_t(std::clamp<int64_t>(tp, 0, th));
    r.right = int32_t(std::clamp<int64_t>(l + viewWidth(f), 0, tw));
    r.bottom = int32_t(std::clamp<int64_t>(tp + viewHeight(f), 0, th));
    return r;
}

// Same pixel format: depth, order above 8 bits, palette up to 8 bits.
bool sameFormat(const BITMAPRECORD* t, const BITMAPRECORD* f) noexcept {
    if (f->nBitsPerPixel != t->nBitsPerPixel) return false;
    if (f->nBitsPerPixel > 8) return f->nOrder == t->nOrder;
    if (f->nColors != t->nColors || !f->pPalette || !t->pPalette) return f->pPalette == t->pPalette;
    return std::memcmp(f->pPalette, t->pPalette, sizeof(RGBQUAD) * size_t(t->nColors)) == 0;
}

// A copy of the frame in the target's format (colour-resolution conversion:
// the target's palette without dithering up to 8 bits; above, BGR for
// targets of order 1 or 5, grey samples for grey targets, 5-6-5 for 5-6-5
// targets, RGB otherwise).
int32_t convertFrame(const BITMAPRECORD* t, BITMAPRECORD* f, BITMAPRECORD* out) noexcept {
    const bool pal = t->nBitsPerPixel <= 8;
    uint32_t flags = CRF_NODITHERING | CRF_USERPALETTE;
    if (!pal) {
        switch (t->nOrder) {
            case ORDER_BGR: case ORDER_ROMM: flags = CRF_BYTEORDERBGR; break;
            case ORDER_GRAY: flags = CRF_BYTEORDERGRAY; break;
            case ORDER_RGB565: flags = CRF_BYTEORDER565; break;
            default: flags = 0; break;
        }
    }
    const RGBQUAD* palette = pal ? (t->pPalette ? t->pPalette : fixedPalette(t->nBitsPerPixel)) : nullptr;
    const int32_t colours = pal ? (t->pPalette ? t->nColors : (1 << t->nBitsPerPixel)) : 0;
    int32_t r = K_ColorResBitmap(f, out, t->nBitsPerPixel, flags, palette, colours, BITMAPRECORD_SIZE);
    if (r != KS_SUCCESS) return r;
    if (out->nBitsPerPixel != t->nBitsPerPixel) {
        K_FreeBitmap(out);
        return KS_NOT_SUPPORTED;
    }
    return KS_SUCCESS;
}


// Runs fn with the target's region replaced by `view` (a region in the
// target's top-left view, taken over) cut to the target's own region; the
// target's own region is back afterwards, whatever fn answered.
template <class F>
int32_t throughRegion(BITMAPRECORD* t, OrvaRgn* view, F&& fn) {
    rgn::Owned hold{view};
    const HRGN own = t->hRgn;
    const OrvaRgn* ownRgn = bitmapRegion(t);
    rgn::Owned ownCopy;
    if (ownRgn) {
        int32_t r = rgn::copy(ownRgn, &ownCopy.r);
        if (r != KS_SUCCESS) return r;
    }
    t->hRgn = nullptr;
    const RGNXFORM topLeft{TOP_LEFT, 1, 1, 1, 1, 0, 0};
    int32_t r = setBitmapRegion(t, &topLeft, hold.release(), RGN_SET_REPLACE);
    if (r == KS_SUCCESS && ownCopy.r) r = setBitmapRegion(t, nullptr, ownCopy.release(), RGN_SET_AND);
    if (r == KS_SUCCESS) r = fn();
    if (t->hRgn) DeleteObject(t->hRgn);
    t->hRgn = own;
    return r;
}

// ---- the transparent colour's region, built in one pass over frames whose
// pixels sit in memory at 8 (through the palette), 24 and 32 bits; other
// frames go to the region family's colour builder. The pixel set is the
// one K_SetBitmapRgnColor gives: palette entries of the colour at 8 bits,
// the colour samples (not the fourth byte) at 24 and 32 bits, in the
// frame's stored rows.


// Appends the transitions of the match mask of pixels x .. x+7 to out.
inline uint32_t runsOfMask(uint32_t mask, int32_t x, bool& in, int32_t* out, uint32_t n) noexcept {
    if (mask == (in ? 0xFFu : 0u)) return n;
    for (int32_t i = 0; i < 8; ++i) {
        const bool now = (mask >> i) & 1u;
        if (now != in) {
            out[n++] = x + i;
            in = now;
        }
    }
    return n;
}

// x values of the runs of key pixels of one row, plain.
template <int Bpp>
uint32_t keyRunsPlain(const uint8_t* row, int32_t x, int32_t width, uint32_t key, const bool* table, bool& in,
                      int32_t* out, uint32_t n) noexcept {
    for (; x < width; ++x) {
        bool now;
        if constexpr (Bpp == 8) {
            now = table[row[x]];
        } else {
            const uint8_t* p = row + size_t(x) * (Bpp / 8);
            now = (uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16) == key;
        }
        if (now != in) {
            out[n++] = x;
            in = now;
        }
    }
    return n;
}

// The same, eight pixels a step with AVX2 (24 bits: one 32-bit gather per
// eight pixels, never reading past the row's bytes).
template <int Bpp>
__attribute__((target("avx2"))) uint32_t keyRunsAvx2(const uint8_t* row, int32_t width, uint32_t rowBytes,
                                                     uint32_t key, int32_t* out) noexcept {
    const __m256i keyv = _mm256_set1_epi32(int32_t(key)), low = _mm256_set1_epi32(0xFFFFFF);
    const __m256i idx = _mm256_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21);
    // Steps whose last byte read lies inside the row.
    const int64_t steps = Bpp == 32 ? width / 8 : (int64_t(rowBytes) >= 28 ? (int64_t(rowBytes) - 28) / 24 + 1 : 0);
    const int32_t simd = int32_t(std::min<int64_t>(steps, width / 8) * 8);
    bool in = false;
    uint32_t n = 0;
    for (int32_t x = 0; x < simd; x += 8) {
        __m256i v;
        if constexpr (Bpp == 32)
            v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row + size_t(x) * 4));
        else
            v = _mm256_i32gather_epi32(reinterpret_cast<const int*>(row + size_t(x) * 3), idx, 1);
        const __m256i eq = _mm256_cmpeq_epi32(_mm256_and_si256(v, low), keyv);
        n = runsOfMask(uint32_t(_mm256_movemask_ps(_mm256_castsi256_ps(eq))), x, in, out, n);
    }
    n = keyRunsPlain<Bpp>(row, simd, width, key, nullptr, in, out, n);
    if (in) out[n++] = width;
    return n;
}

bool haveAvx2Keys() noexcept {
    static const bool yes = __builtin_cpu_supports("avx2") && conv::simdCeiling() >= conv::kSimdAvx2;
    return yes;
}
bool gPlainKeys = false;  // tests: the plain scan only

// The key pixels' region of a frame; KS_NOT_SUPPORTED when the frame is not
// one this scan takes (the caller uses the colour builder then).
int32_t keyRegion(BITMAPRECORD* f, uint32_t colour, OrvaRgn** out) {
    const int32_t bpp = f->nBitsPerPixel;
    if ((bpp != 8 && bpp != 24 && bpp != 32) || f->nWidth <= 0 || f->nHeight <= 0) return KS_NOT_SUPPORTED;
    const uint32_t r = colour & 0xFF, g = (colour >> 8) & 0xFF, b = (colour >> 16) & 0xFF;
    bool table[256] = {};
    if (bpp == 8) {
        const RGBQUAD* pal = f->pPalette ? f->pPalette : fixedPalette(8);
        const int32_t n = f->pPalette ? std::min(f->nColors, 256) : 256;
        for (int32_t i = 0; i < n && pal; ++i)
            table[i] = pal[i].rgbRed == r && pal[i].rgbGreen == g && pal[i].rgbBlue == b;
    }
    const uint32_t key = f->nOrder == ORDER_RGB ? (r | g << 8 | b << 16) : (b | g << 8 | r << 16);
    int32_t ok = 0;
    int32_t st = K_IntAccessBitmap(f, &ok);
    if (st != KS_SUCCESS) return K_IntReleaseBitmap(f, ok, st);
    if (!pixelsAtData(f)) return K_IntReleaseBitmap(f, ok, KS_NOT_SUPPORTED);
    const bool simd = bpp != 8 && haveAvx2Keys() && !gPlainKeys;
    rgn::Builder bld;
    st = bld.start(0, f->nHeight, 0);
    for (int32_t y = 0; y < f->nHeight && st == KS_SUCCESS; ++y) {
        int32_t* d = bld.rowSpace(uint32_t(f->nWidth) + 2u);
        if (!d) {
            st = KS_NO_MEMORY;
            break;
        }
        const uint8_t* row = f->pData + size_t(y) * f->nBytesPerLine;
        uint32_t n = 0;
        if (simd) {
            n = bpp == 24 ? keyRunsAvx2<24>(row, f->nWidth, f->nBytesPerLine, key, d)
                          : keyRunsAvx2<32>(row, f->nWidth, f->nBytesPerLine, key, d);
        } else {
            bool in = false;
            n = bpp == 8    ? keyRunsPlain<8>(row, 0, f->nWidth, key, table, in, d, 0)
                : bpp == 24 ? keyRunsPlain<24>(row, 0, f->nWidth, key, table, in, d, 0)
                            : keyRunsPlain<32>(row, 0, f->nWidth, key, table, in, d, 0);
            if (in) d[n++] = f->nWidth;
        }
        bld.endRow(n);
    }
    if (st == KS_SUCCESS) st = bld.finish(out);
    return K_IntReleaseBitmap(f, ok, st);
}

// While alive, the frame's region excludes its transparent colour (flag
// 0x80: the colour region taken away from the frame's region, or from the
// whole frame without one); the frame's own region is put back on exit.
struct KeyedFrame {
    BITMAPRECORD* f = nullptr;
    HRGN own = nullptr;
    int32_t begin(BITMAPRECORD* frame) noexcept {
        const OrvaRgn* ownRgn = bitmapRegion(frame);
        rgn::Owned copy;
        if (ownRgn) {
            int32_t r = rgn::copy(ownRgn, &copy.r);
            if (r != KS_SUCCESS) return r;
        }
        f = frame;
        own = frame->hRgn;
        frame->hRgn = nullptr;
        if (copy.r) {
            int32_t r = setBitmapRegion(frame, nullptr, copy.release(), RGN_SET_REPLACE);
            if (r != KS_SUCCESS) return r;
        }
        OrvaRgn* key = nullptr;
        int32_t r = keyRegion(frame, FRAME_TRANSPARENT_COLOR(frame), &key);
        if (r == KS_NOT_SUPPORTED) return K_SetBitmapRgnColor(frame, FRAME_TRANSPARENT_COLOR(frame), RGN_SET_CUR_MINUS_NEW);
        if (r != KS_SUCCESS) return r;
        return setBitmapRegion(frame, nullptr, key, RGN_SET_CUR_MINUS_NEW);
    }
    ~KeyedFrame() {
        if (!f) return;
        if (f->hRgn) DeleteObject(f->hRgn);
        f->hRgn = own;
    }
};

// The frame's region carried into the target's top-left view at the
// frame's position (null: the frame has no region).
int32_t frameRegionOnTarget(const BITMAPRECORD* f, OrvaRgn** out) noexcept {
    *out = nullptr;
    const OrvaRgn* fr = bitmapRegion(f);
    if (!fr) return KS_SUCCESS;
    rgn::Owned r;
    int32_t st = rgn::copy(fr, &r.r);
    if (st == KS_SUCCESS && f->nViewPerspective != TOP_LEFT)
        st = rgn::perspective(r.r, f->nViewPerspective, TOP_LEFT, f->nWidth, f->nHeight);
    if (st == KS_SUCCESS) st = rgn::offset(r.r, FRAME_LEFT(f), FRAME_TOP(f));
    if (st != KS_SUCCESS) return st;
    *out = r.release();
    return KS_SUCCESS;
}

// Draws frame f onto the target through the combine engine (operation 48,
// a plain copy of the source bits, or 3328, alpha over, for frames with
// BRF_FRAME_ALPHAOVER) through the frame's region, less its transparent
// colour; frames of another format go through a converted copy. The update
// rectangle grows by the frame's rectangle.
int32_t drawFrame(Playback* p, BITMAPRECORD* f) {
    BITMAPRECORD* t = p->target;
    if (!recordSizeValid(f->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!(f->uFlags & BRF_ALLOCATED)) return KS_INVALID_BITMAP;
    if (f->uFlags & kFloatData) return KS_FLOAT_NOT_SUPPORTED;
    const RECT rc = frameRect(t, f);
    if (rc.right <= rc.left || rc.bottom <= rc.top) return KS_SUCCESS;
    KeyedFrame keyed;
    int32_t r = KS_SUCCESS;
    if (f->uFlags & BRF_FRAME_TRANSPARENT) {
        r = keyed.begin(f);
        if (r != KS_SUCCESS) return r;
    }
    BITMAPRECORD conv;
    BITMAPRECORD* src = f;
    if (!sameFormat(t, f)) {
        r = convertFrame(t, f, &conv);
            if (r != KS_SUCCESS) return r;
        src = &conv;
    }
    struct Free {
        BITMAPRECORD* b;
        ~Free() {
            if (b) K_FreeBitmap(b);
        }
    } freeConv{src == f ? nullptr : src};
    const uint32_t op = (f->uFlags & BRF_FRAME_ALPHAOVER) ? kCombineAlphaOver : kCombineCopy;
    auto combine = [&]() -> int32_t {
        return combineBitmap(t, FRAME_LEFT(f), FRAME_TOP(f), viewWidth(f), viewHeight(f), src, 0, 0, op);
    };
    OrvaRgn* view = nullptr;
    r = frameRegionOnTarget(f, &view);
    if (r == KS_SUCCESS) r = view ? throughRegion(t, view, combine) : combine();
    unite(&p->update, rc);
    return r;
}

// The saved area's record (disposal 3): the target under the frame, in the
// target's format and perspective.
void freeSaved(Playback* p) noexcept {
    if (p->haveSaved) K_FreeBitmap(&p->saved);
    p->haveSaved = 0;
}

int32_t saveArea(Playback* p, const BITMAPRECORD* f) noexcept {
    freeSaved(p);
    BITMAPRECORD* t = p->target;
    const RECT rc = frameRect(t, f);
    if (rc.right <= rc.left || rc.bottom <= rc.top) return KS_SUCCESS;
    const int32_t w = rc.right - rc.left, h = rc.bottom - rc.top;
    const bool turned = t->nViewPerspective >= 5 && t->nViewPerspective <= 8;
    BITMAPRECORD s;
    int32_t r = K_CreateBitmap(&s, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, turned ? h : w, turned ? w : h,
                               t->nBitsPerPixel, t->nOrder, t->pPalette, t->nViewPerspective, nullptr, 0);
    if (r != KS_SUCCESS) return r;
    s.nLowBit = t->nLowBit;
    s.nHighBit = t->nHighBit;
    r = combineBitmap(&s, 0, 0, w, h, t, rc.left, rc.top, kCombineCopy);
    if (r != KS_SUCCESS) {
        K_FreeBitmap(&s);
        return r;
    }
    p->saved = s;
    p->haveSaved = 1;
    p->savedX = rc.left;
    p->savedY = rc.top;
    return KS_SUCCESS;
}

// Puts the saved area back (through the target's own region) and frees it.
int32_t restoreArea(Playback* p) noexcept {
    BITMAPRECORD* t = p->target;
    const int32_t w = viewWidth(&p->saved), h = viewHeight(&p->saved);
    const int32_t r =
        combineBitmap(t, p->savedX, p->savedY, w, h, &p->saved, 0, 0, kCombineCopy);
    unite(&p->update, RECT{p->savedX, p->savedY, p->savedX + w, p->savedY + h});
    freeSaved(p);
    return r;
}

// Fills the frame's rectangle with the target's background colour (through
// the target's own region).
int32_t fillBackground(Playback* p, const BITMAPRECORD* f) {
    BITMAPRECORD* t = p->target;
    const RECT rc = frameRect(t, f);
    if (rc.right <= rc.left || rc.bottom <= rc.top) return KS_SUCCESS;
    OrvaRgn* box = nullptr;
    int32_t r = rgn::fromRect(rc, &box);
    if (r != KS_SUCCESS) return r;
    r = throughRegion(t, box, [&] { return K_FillBitmap(t, FRAME_BACKGROUND_COLOR(t)); });
    unite(&p->update, rc);
    return r;
}

void stopValidation(Playback* p) noexcept {
    memFree(p->marks);
    p->marks = nullptr;
    p->validating = 0;
    p->missingRows = 0;
    p->markRows = 0;
}

// The "next frame" step of states 1 and 9.
void advance(Playback* p) noexcept {
    ++p->index;
    p->state = p->index >= int32_t(frameCount(p)) ? PLAYBACK_STATE_END : PLAYBACK_STATE_DRAW;
}

void step(Playback* p) {
    BITMAPRECORD* f = frameAt(p, p->index, nullptr);
    switch (p->state) {
        case PLAYBACK_STATE_CLEAR: {
            BITMAPRECORD* t = p->target;
            K_FillBitmap(t, FRAME_BACKGROUND_COLOR(t));
            unite(&p->update, RECT{0, 0, viewWidth(t), viewHeight(t)});
            p->state = PLAYBACK_STATE_NEXT;
            break;
        }
        case PLAYBACK_STATE_NEXT:
        case PLAYBACK_STATE_NEXT2:
            advance(p);
            break;
        case PLAYBACK_STATE_DRAW:
        case PLAYBACK_STATE_WAITLINES: {
            if (!f) {  // nothing to draw at this index (an empty list)
                p->state = PLAYBACK_STATE_END;
                break;
            }
            if (p->validating && uint32_t(p->index) + 1 == frameCount(p)) {
                p->state = PLAYBACK_STATE_WAITLINES;
                break;
            }
            if (FRAME_DISPOSAL(f) == 3)
                saveArea(p, f);
            else
                freeSaved(p);
            drawFrame(p, f);  // a frame that cannot be drawn is skipped; the animation goes on
            p->state = PLAYBACK_STATE_DELAY;
            break;
        }
        case PLAYBACK_STATE_DELAY: {
            const bool input = f && (f->uFlags & BRF_FRAME_WAITINPUT);
            if (f && FRAME_DELAY(f) > 0) {
                p->waitStart = nowTicks();
                p->state = input ? PLAYBACK_STATE_WAITBOTH : PLAYBACK_STATE_WAITDELAY;
            } else {
                p->state = input ? PLAYBACK_STATE_WAITINPUT : PLAYBACK_STATE_DISPOSE;
            }
            break;
        }
        case PLAYBACK_STATE_WAITINPUT:
            break;
        case PLAYBACK_STATE_WAITDELAY:
        case PLAYBACK_STATE_WAITBOTH:
            if (!f || uint32_t(nowTicks() - p->waitStart) >= FRAME_DELAY(f)) p->state = PLAYBACK_STATE_DISPOSE;
            break;
        case PLAYBACK_STATE_DISPOSE:
            if (f && FRAME_DISPOSAL(f) == 2)
                fillBackground(p, f);
            else if (f && FRAME_DISPOSAL(f) == 3 && p->haveSaved)
                restoreArea(p);
            p->state = PLAYBACK_STATE_NEXT2;
            break;
        case PLAYBACK_STATE_END:
            p->index = 0;
            p->state = PLAYBACK_STATE_DRAW;
            break;
        default:
            p->state = PLAYBACK_STATE_CLEAR;  // a damaged state word starts again
            break;
    }
}

void destroy(HPLAYBACK h, Playback* p) noexcept {
    freeSaved(p);
    stopValidation(p);
    if (p->listOwned) K_DestroyBitmapList(p->list);
    p->tag = 0;
    globalUnlock(h);
    globalFree(h);
}

int32_t badHandle() noexcept { return KS_INVALID_PARAMETER; }

}  // namespace

namespace testhook {
void playbackPlainKeyScan(bool on) noexcept { gPlainKeys = on; }
int32_t playbackKeyRegion(BITMAPRECORD* frame, uint32_t colour, OrvaRgn** out) noexcept {
    return guarded([&] { return keyRegion(frame, colour, out); });
}
void setPlaybackClock(uint32_t (*now)(void* ctx), void* ctx) noexcept {
    gClock = now ? now : steadyTicks;
    gClockCtx = ctx;
}
}  // namespace testhook

}  // namespace krn

using namespace krn;

KAPI int32_t K_CreatePlayback(HPLAYBACK* phPlayback, BITMAPRECORD* pTarget, HBITMAPLIST hList) {
    return guarded([&]() -> int32_t {
        if (!phPlayback || !pTarget) return KS_INVALID_PARAMETER;
        if (!recordSizeValid(pTarget->uStructSize)) return KS_INVALID_STRUCT_SIZE;
        if (!(pTarget->uFlags & BRF_ALLOCATED)) return KS_INVALID_PARAMETER;
        uint32_t n = 0;
        if (hList && K_GetBitmapListCount(hList, &n) != KS_SUCCESS) return KS_INVALID_PARAMETER;
        HPLAYBACK h = globalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, sizeof(Playback));
        if (!h) return KS_NO_MEMORY;
        HBITMAPLIST list = hList;
        if (!list) {
            int32_t r = K_CreateBitmapList(&list);
            if (r != KS_SUCCESS) {
                globalFree(h);
                return r;
            }
        }
        Playback* p = static_cast<Playback*>(globalLock(h));
        if (!p) {
            if (!hList) K_DestroyBitmapList(list);
            globalFree(h);
            return KS_NO_MEMORY;
        }
        p->tag = kPlaybackTag;
        p->index = -1;
        p->state = PLAYBACK_STATE_CLEAR;
        p->target = pTarget;
        p->listOwned = hList ? 0 : 1;
        p->list = list;
        globalUnlock(h);
        *phPlayback = h;
        return KS_SUCCESS;
    });
}

KAPI int32_t K_DestroyPlayback(HPLAYBACK hPlayback) {
    return guarded([&]() -> int32_t {
        Playback* p = lockPlayback(hPlayback);
        if (!p) return badHandle();
        destroy(hPlayback, p);
        return KS_SUCCESS;
    });
}

KAPI int32_t K_ProcessPlayback(HPLAYBACK hPlayback, int32_t* pnState) {
    return guarded([&]() -> int32_t {
        Locked l(hPlayback);
        if (!l.p) return badHandle();
        step(l.p);
        if (pnState) *pnState = l.p->state;
        return KS_SUCCESS;
    });
}

KAPI int32_t K_GetPlaybackState(HPLAYBACK hPlayback, int32_t* pnState) {
    return guarded([&]() -> int32_t {
        Locked l(hPlayback);
        if (!l.p || !pnState) return badHandle();
        *pnState = l.p->state;
        return KS_SUCCESS;
    });
}

KAPI int32_t K_CancelPlaybackWait(HPLAYBACK hPlayback) {
    return guarded([&]() -> int32_t {
        Locked l(hPlayback);
        if (!l.p) return badHandle();
        const int32_t s = l.p->state;
        if (s == PLAYBACK_STATE_WAITINPUT || s == PLAYBACK_STATE_WAITDELAY || s == PLAYBACK_STATE_WAITBOTH)
            l.p->state = PLAYBACK_STATE_DISPOSE;
        return KS_SUCCESS;
    });
}

KAPI int32_t K_GetPlaybackDelay(HPLAYBACK hPlayback, uint32_t* puMilliseconds) {
    return guarded([&]() -> int32_t {
        Locked l(hPlayback);
        if (!l.p || !puMilliseconds) return badHandle();
        *puMilliseconds = 0;
        const int32_t s = l.p->state;
        if (s == PLAYBACK_STATE_WAITDELAY || s == PLAYBACK_STATE_WAITBOTH) {
            if (BITMAPRECORD* f = frameAt(l.p, l.p->index, nullptr)) {
                const uint32_t elapsed = uint32_t(nowTicks() - l.p->waitStart);
                *puMilliseconds = elapsed < FRAME_DELAY(f) ? FRAME_DELAY(f) - elapsed : 0;
            }
        }
        return KS_SUCCESS;
    });
}

KAPI int32_t K_GetPlaybackUpdateRect(HPLAYBACK hPlayback, RECT* pRect, int32_t bClear) {
    return guarded([&]() -> int32_t {
        Locked l(hPlayback);
        if (!l.p) return badHandle();
        if (pRect) *pRect = l.p->update;
        if (bClear) l.p->update = RECT{0, 0, 0, 0};
        return KS_SUCCESS;
    });
}

KAPI int32_t K_ClearPlaybackUpdateRect(HPLAYBACK hPlayback) { return K_GetPlaybackUpdateRect(hPlayback, nullptr, 1); }

KAPI int32_t K_GetPlaybackIndex(HPLAYBACK hPlayback, int32_t* pnIndex) {
    return guarded([&]() -> int32_t {
        Locked l(hPlayback);
        if (!l.p || !pnIndex) return badHandle();
        *pnIndex = l.p->index;
        return KS_SUCCESS;
    });
}

KAPI int32_t K_SetPlaybackIndex(HPLAYBACK hPlayback, int32_t nIndex) {
    return guarded([&]() -> int32_t {
        Locked l(hPlayback);
        if (!l.p) return badHandle();
        Playback* p = l.p;
        const int64_t count = frameCount(p);
        if (nIndex < -1 || nIndex > count) return KS_INVALID_PARAMETER;
        stopValidation(p);
        if (p->index > nIndex) {
            freeSaved(p);
            p->state = PLAYBACK_STATE_CLEAR;
            p->index = -1;
        }
        // Every frame takes at most eleven steps; the bound only guards against a list changed under us.
        for (int64_t guard = (count + 2) * 12; p->index != nIndex && guard > 0; --guard) {
            step(p);
            const int32_t s = p->state;
            if (s == PLAYBACK_STATE_WAITINPUT || s == PLAYBACK_STATE_WAITDELAY || s == PLAYBACK_STATE_WAITBOTH)
                p->state = PLAYBACK_STATE_DISPOSE;
        }
        return KS_SUCCESS;
    });
}

KAPI int32_t K_AppendPlayback(HPLAYBACK hPlayback, const BITMAPRECORD* pFrame) {
    return guarded([&]() -> int32_t {
        Locked l(hPlayback);
        if (!l.p || !pFrame) return badHandle();
        Playback* p = l.p;
        if (!recordSizeValid(pFrame->uStructSize)) return KS_INVALID_STRUCT_SIZE;
        const int32_t rows = pFrame->nHeight > 0 ? pFrame->nHeight : 0;
        uint8_t* marks = static_cast<uint8_t*>(memCalloc(size_t(rows) / 8 + 1));
        if (!marks) return KS_NO_MEMORY;
        int32_t r = K_InsertBitmapListItem(p->list, BITMAPLIST_END, pFrame);
        stopValidation(p);
        if (r != KS_SUCCESS) {
            memFree(marks);
            return r;
        }
        if (rows > 0) {
            p->marks = marks;
            p->validating = 1;
            p->missingRows = rows;
            p->markRows = rows;
        } else {
            memFree(marks);
        }
        if (p->state == PLAYBACK_STATE_END) p->state = PLAYBACK_STATE_DRAW;
        return KS_SUCCESS;
    });
}

KAPI int32_t K_ValidatePlaybackLines(HPLAYBACK hPlayback, int32_t nFirst, int32_t nCount) {
    return guarded([&]() -> int32_t {
        Locked l(hPlayback);
        if (!l.p) return badHandle();
        Playback* p = l.p;
        if (!p->validating || !p->marks) return KS_SUCCESS;
        const int64_t first = std::max<int64_t>(nFirst, 0);
        const int64_t end = std::min<int64_t>(int64_t(nFirst) + int64_t(nCount), p->markRows);
        for (int64_t y = first; y < end; ++y) {
            uint8_t& byte = p->marks[y >> 3];
            const uint8_t bit = uint8_t(0x80u >> (y & 7));
            if (!(byte & bit)) {
                byte |= bit;
                --p->missingRows;
            }
        }
        if (p->missingRows <= 0) stopValidation(p);
        return KS_SUCCESS;
    });
}
