// copy_helpers.h - bitmaps filled from a plain reference image, read back
// pixel by pixel, for the copy tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ombrix.h"
#include "storage_kinds.h"

namespace copytest {

using storagetest::getPixel;
using storagetest::Kind;
using storagetest::KindBitmap;
using storagetest::RefImage;

// Pixel x of a stored row: 12-bit rows hold two pixels in three bytes
// sharing the middle byte (first pixel: byte 0 and the low half of byte 1);
// other depths are packed most significant bit first.
inline uint64_t pixelAt(const uint8_t* row, int32_t x, int32_t bpp) {
    if (bpp == 12) {
        const uint8_t* q = row + size_t(x / 2) * 3;
        return (x & 1) ? (uint64_t(q[1]) >> 4) | (uint64_t(q[2]) << 4) : uint64_t(q[0]) | (uint64_t(q[1] & 15) << 8);
    }
    return getPixel(row, x, bpp);
}

// Writes the reference rows into an allocated bitmap of the same geometry.
inline int32_t putImage(BITMAPRECORD* bm, RefImage& ref) {
    K_AccessBitmap(bm);
    int32_t rc = KS_SUCCESS;
    for (int32_t r = 0; r < ref.height && rc == KS_SUCCESS; ++r) {
        int32_t n = K_PutBitmapRow(bm, ref.row(r), r, ref.bpl);
        if (n < 0) rc = n;
    }
    K_ReleaseBitmap(bm);
    return rc;
}

// Every stored row of a bitmap.
inline RefImage getImage(BITMAPRECORD* bm) {
    RefImage img(bm->nWidth, bm->nHeight, bm->nBitsPerPixel);
    K_AccessBitmap(bm);
    for (int32_t r = 0; r < img.height; ++r) K_GetBitmapRow(bm, img.row(r), r, img.bpl);
    K_ReleaseBitmap(bm);
    return img;
}

// The first pixel where `got` differs from `want(x, y)`, or "" when none.
// bitPacked reads 12-bit rows most significant bit first too.
template <class F>
std::string firstMismatch(RefImage& got, F&& want, bool bitPacked = false) {
    for (int32_t y = 0; y < got.height; ++y)
        for (int32_t x = 0; x < got.width; ++x) {
            uint64_t g = bitPacked ? getPixel(got.row(y), x, got.bpp) : pixelAt(got.row(y), x, got.bpp), w = want(x, y);
            if (g != w)
                return "pixel (" + std::to_string(x) + ", " + std::to_string(y) + "): got " + std::to_string(g) +
                       " want " + std::to_string(w);
        }
    return "";
}

inline const std::vector<int>& allDepths() {
    static const std::vector<int> d = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};
    return d;
}

// A status callback that answers 1 until it has been called `limit` times,
// then `answer`.
struct StopAfter {
    int calls = 0;
    int limit = 0;
    int32_t answer = 0;
    static int32_t cb(int32_t, void* user) {
        auto* self = static_cast<StopAfter*>(user);
        return ++self->calls > self->limit ? self->answer : 1;
    }
};

// Installs a copy-status callback for one scope.
struct CopyStatusScope {
    STATUSCALLBACK oldFn = nullptr;
    void* oldUser = nullptr;
    CopyStatusScope(STATUSCALLBACK fn, void* user) { K_SetCopyStatusCallBack(fn, user, &oldFn, &oldUser); }
    ~CopyStatusScope() { K_SetCopyStatusCallBack(oldFn, oldUser, nullptr, nullptr); }
};

}  // namespace copytest
