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
// Frames are drawn row by row through the row layer at the target's own
// depth; the area under a frame with disposal 3 is kept as rows in a kernel
// block and written back when the frame is disposed of.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "krn/common/kernel.h"
#include "krn/common/list.h"
#include "krn/common/memory.h"
#include "krn/windowsemul/globalmem.h"
#include "krn/windowsemul/objects.h"
#include "playback.h"

namespace krn {

namespace {

constexpr uint32_t kPlaybackTag = 0x59414C50u;  // "PLAY"

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
    // Saved area (disposal 3): rows of the target under the frame.
    uint8_t* saved;
    int32_t savedX, savedY0, savedY1;  // target view: columns from savedX, rows y0..y1-1
    uint32_t savedRowBytes;
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

// The frame's rectangle on the target (top-left view), clipped.
RECT frameRect(const BITMAPRECORD* t, const BITMAPRECORD* f) noexcept {
    const int64_t l = FRAME_LEFT(f), tp = FRAME_TOP(f);
    RECT r;
    r.left = int32_t(std::clamp<int64_t>(l, 0, t->nWidth));
    r.top = int32_t(std::clamp<int64_t>(tp, 0, t->nHeight));
    r.right = int32_t(std::clamp<int64_t>(l + f->nWidth, 0, t->nWidth));
    r.bottom = int32_t(std::clamp<int64_t>(tp + f->nHeight, 0, t->nHeight));
    return r;
}

// Stored row of a view row for the two perspectives drawing supports.
int32_t storedRow(const BITMAPRECORD* bm, int32_t viewRow) noexcept {
    return bm->nViewPerspective == BOTTOM_LEFT ? bm->nHeight - 1 - viewRow : viewRow;
}
bool rowsOnly(const BITMAPRECORD* bm) noexcept {
    return bm->nViewPerspective == TOP_LEFT || bm->nViewPerspective == BOTTOM_LEFT;
}

// Same pixel format: depth, order above 8 bits, palette up to 8 bits.
bool sameFormat(const BITMAPRECORD* t, const BITMAPRECORD* f) noexcept {
    if (f->nBitsPerPixel != t->nBitsPerPixel) return false;
    if (f->nBitsPerPixel > 8) return f->nOrder == t->nOrder;
    if (f->nColors != t->nColors || !f->pPalette || !t->pPalette) return f->pPalette == t->pPalette;
    return std::memcmp(f->pPalette, t->pPalette, sizeof(RGBQUAD) * size_t(t->nColors)) == 0;
}

// Can the frame be drawn at all (converted or not)?
int32_t drawable(const BITMAPRECORD* t, const BITMAPRECORD* f) noexcept {
    if (!recordSizeValid(f->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    if (!(f->uFlags & BRF_ALLOCATED)) return KS_INVALID_BITMAP;
    if (f->uFlags & 0x100000u) return KS_FLOAT_NOT_SUPPORTED;
    if (f->uFlags & BRF_FRAME_ALPHAOVER) return KS_NOT_SUPPORTED;
    if (t->nBitsPerPixel < 8 || t->nBitsPerPixel % 8) return KS_NOT_SUPPORTED;
    if (!rowsOnly(f) || !rowsOnly(t)) return KS_NOT_SUPPORTED;
    return KS_SUCCESS;
}

// A copy of the frame in the target's format (colour-resolution conversion:
// the target's palette without dithering up to 8 bits, else BGR for targets
// of order 1 or 5 and RGB otherwise).
int32_t convertFrame(const BITMAPRECORD* t, BITMAPRECORD* f, BITMAPRECORD* out) noexcept {
    const bool pal = t->nBitsPerPixel <= 8;
    const uint32_t flags = pal ? (CRF_NODITHERING | CRF_USERPALETTE)
                               : ((t->nOrder == ORDER_BGR || t->nOrder == ORDER_ROMM) ? CRF_BYTEORDERBGR : 0u);
    int32_t r = K_ColorResBitmap(f, out, t->nBitsPerPixel, flags, pal ? t->pPalette : nullptr, pal ? t->nColors : 0,
                                 BITMAPRECORD_SIZE);
    if (r != KS_SUCCESS) return r;
    if (!sameFormat(t, out) || !rowsOnly(out) || out->nWidth != f->nWidth || out->nHeight != f->nHeight) {
        K_FreeBitmap(out);
        return KS_NOT_SUPPORTED;  // e.g. a grey deep target: the conversion gives colour
    }
    return KS_SUCCESS;
}

// Whether pixel x of a frame row is the frame's transparent colour.
bool transparentAt(const BITMAPRECORD* f, const uint8_t* row, int32_t x, uint32_t colour) noexcept {
    const uint8_t r = uint8_t(colour), g = uint8_t(colour >> 8), b = uint8_t(colour >> 16);
    switch (f->nBitsPerPixel) {
        case 8: {
            if (!f->pPalette || row[x] >= f->nColors) return false;
            const RGBQUAD& q = f->pPalette[row[x]];
            return q.rgbRed == r && q.rgbGreen == g && q.rgbBlue == b;
        }
        case 24:
        case 32: {
            const uint8_t* p = row + size_t(x) * size_t(f->nBitsPerPixel / 8);
            return f->nOrder == ORDER_RGB ? (p[0] == r && p[1] == g && p[2] == b)
                                          : (p[0] == b && p[1] == g && p[2] == r);
        }
        default:
            return false;  // other depths are drawn opaque
    }
}

// Draws frame f onto the target (through a converted copy when its format
// differs); the update rectangle grows by its rectangle. The transparent
// colour is looked up in the frame's own pixels, before any conversion.
int32_t drawFrame(Playback* p, BITMAPRECORD* f) {
    BITMAPRECORD* t = p->target;
    int32_t r = drawable(t, f);
    if (r != KS_SUCCESS) return r;
    const RECT rc = frameRect(t, f);
    if (rc.right <= rc.left || rc.bottom <= rc.top) return KS_SUCCESS;
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
    const uint32_t bpp = uint32_t(t->nBitsPerPixel / 8);
    const uint32_t spanBytes = uint32_t(rc.right - rc.left) * bpp;
    const int32_t fx0 = int32_t(int64_t(rc.left) - FRAME_LEFT(f));
    const bool keyed = (f->uFlags & BRF_FRAME_TRANSPARENT) != 0;
    const uint32_t key = FRAME_TRANSPARENT_COLOR(f);
    kvector<uint8_t> in(src->nBytesPerLine), orig(keyed ? f->nBytesPerLine : 0), dst(spanBytes);
    for (int32_t ty = rc.top; ty < rc.bottom && r == KS_SUCCESS; ++ty) {
        const int32_t fy = int32_t(int64_t(ty) - FRAME_TOP(f));
        r = K_GetBitmapRow(src, in.data(), storedRow(src, fy), src->nBytesPerLine);
        if (r < 0) break;
        const uint8_t* row = in.data() + size_t(fx0) * bpp;
        if (keyed) {
            if (src != f) r = K_GetBitmapRow(f, orig.data(), storedRow(f, fy), f->nBytesPerLine);
            if (r >= 0) r = K_GetBitmapRowCol(t, dst.data(), storedRow(t, ty), rc.left, spanBytes);
            if (r < 0) break;
            const uint8_t* test = src != f ? orig.data() : in.data();
            for (int32_t x = 0; x < rc.right - rc.left; ++x)
                if (!transparentAt(f, test, fx0 + x, key))
                    std::memcpy(dst.data() + size_t(x) * bpp, row + size_t(x) * bpp, bpp);
            row = dst.data();
        }
        r = K_PutBitmapRowCol(t, row, storedRow(t, ty), rc.left, spanBytes);
        if (r >= 0) r = KS_SUCCESS;
    }
    unite(&p->update, rc);
    return r < 0 ? r : KS_SUCCESS;
}

void freeSaved(Playback* p) noexcept {
    memFree(p->saved);
    p->saved = nullptr;
}

// Keeps the target rows under the frame (disposal 3).
int32_t saveArea(Playback* p, const BITMAPRECORD* f) noexcept {
    freeSaved(p);
    BITMAPRECORD* t = p->target;
    if (t->nBitsPerPixel < 8 || t->nBitsPerPixel % 8 || !rowsOnly(t)) return KS_NOT_SUPPORTED;
    const RECT rc = frameRect(t, f);
    if (rc.right <= rc.left || rc.bottom <= rc.top) return KS_SUCCESS;
    const uint32_t rowBytes = uint32_t(rc.right - rc.left) * uint32_t(t->nBitsPerPixel / 8);
    uint8_t* block = memAllocArray<uint8_t>(size_t(rowBytes) * size_t(rc.bottom - rc.top));
    if (!block) return KS_NO_MEMORY;
    for (int32_t y = rc.top; y < rc.bottom; ++y) {
        int32_t r = K_GetBitmapRowCol(t, block + size_t(y - rc.top) * rowBytes, storedRow(t, y), rc.left, rowBytes);
        if (r < 0) {
            memFree(block);
            return r;
        }
    }
    p->saved = block;
    p->savedX = rc.left;
    p->savedY0 = rc.top;
    p->savedY1 = rc.bottom;
    p->savedRowBytes = rowBytes;
    return KS_SUCCESS;
}

void restoreArea(Playback* p) noexcept {
    BITMAPRECORD* t = p->target;
    for (int32_t y = p->savedY0; y < p->savedY1; ++y)
        K_PutBitmapRowCol(t, p->saved + size_t(y - p->savedY0) * p->savedRowBytes, storedRow(t, y), p->savedX,
                          p->savedRowBytes);
    const uint32_t bpp = uint32_t(t->nBitsPerPixel / 8);
    unite(&p->update, RECT{p->savedX, p->savedY0, p->savedX + int32_t(p->savedRowBytes / bpp), p->savedY1});
    freeSaved(p);
}

// Fills the frame's rectangle with the target's background colour.
int32_t fillBackground(Playback* p, const BITMAPRECORD* f) {
    BITMAPRECORD* t = p->target;
    const RECT rc = frameRect(t, f);
    if (rc.right <= rc.left || rc.bottom <= rc.top) return KS_SUCCESS;
    if (t->nBitsPerPixel < 8 || t->nBitsPerPixel % 8 || !rowsOnly(t)) return KS_NOT_SUPPORTED;
    const uint32_t bg = FRAME_BACKGROUND_COLOR(t);
    uint8_t pixel[16] = {uint8_t(bg >> 16), uint8_t(bg >> 8), uint8_t(bg)};  // blue, green, red
    int32_t r = K_ConvertBuffer(pixel, 1, 24, t->nBitsPerPixel, ORDER_BGR, t->nOrder, nullptr, t->pPalette);
    if (r != KS_SUCCESS) return r;
    const uint32_t bpp = uint32_t(t->nBitsPerPixel / 8);
    kvector<uint8_t> row(size_t(rc.right - rc.left) * bpp);
    for (size_t x = 0; x < row.size(); x += bpp) std::memcpy(row.data() + x, pixel, bpp);
    for (int32_t y = rc.top; y < rc.bottom; ++y) {
        r = K_PutBitmapRowCol(t, row.data(), storedRow(t, y), rc.left, uint32_t(row.size()));
        if (r < 0) return r;
    }
    unite(&p->update, rc);
    return KS_SUCCESS;
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
            unite(&p->update, RECT{0, 0, t->nWidth, t->nHeight});
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
            else if (f && FRAME_DISPOSAL(f) == 3 && p->saved)
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
