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
template <class F>
std::string firstMismatch(RefImage& got, F&& want) {
    for (int32_t y = 0; y < got.height; ++y)
        for (int32_t x = 0; x < got.width; ++x) {
            uint64_t g = getPixel(got.row(y), x, got.bpp), w = want(x, y);
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
