// transform_kit.h - shared builders and checks of the transform tests: bitmaps of a kind from a reference image,
// callback guards, the allocation-failure walk. Brings gtest and the standard headers those tests use.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "krn/common/memory.h"
#include "ombrix.h"
#include "storage_kinds.h"

namespace tkit {

using namespace storagetest;  // kinds, reference images, pixels by index arithmetic

inline uint64_t pixelAt(const uint8_t* row, int32_t x, int32_t bpp) { return getPixel(row, x, bpp); }
// Sample x of a row of little-endian 16-bit samples.
inline uint32_t le16(const uint8_t* row, int32_t x) { return row[2 * x] | (uint32_t(row[2 * x + 1]) << 8); }

// Writes the reference rows into an allocated bitmap of the same geometry; reads every stored row back.
inline int32_t putImage(BITMAPRECORD* bm, RefImage& ref) {
    K_AccessBitmap(bm);
    int32_t rc = KS_SUCCESS;
    for (int32_t r = 0; r < ref.height && rc == KS_SUCCESS; ++r)
        rc = std::min(KS_SUCCESS, K_PutBitmapRow(bm, ref.row(r), r, ref.bpl));
    K_ReleaseBitmap(bm);
    return rc;
}
inline RefImage getImage(BITMAPRECORD* bm) {
    RefImage img(bm->nWidth, bm->nHeight, bm->nBitsPerPixel);
    K_AccessBitmap(bm);
    for (int32_t r = 0; r < img.height; ++r) K_GetBitmapRow(bm, img.row(r), r, img.bpl);
    K_ReleaseBitmap(bm);
    return img;
}
inline RefImage randomImage(int32_t w, int32_t h, int32_t bpp, uint32_t seed) {
    RefImage img(w, h, bpp);
    return img.randomize(seed), img;
}

// The first pixel where `got` differs from `want(x, y)`, or "" when none.
template <class F>
std::string firstMismatch(RefImage& got, F&& want) {
    for (int32_t y = 0; y < got.height; ++y)
        for (int32_t x = 0; x < got.width; ++x)
            if (const uint64_t g = pixelAt(got.row(y), x, got.bpp), w = want(x, y); g != w)
                return "pixel (" + std::to_string(x) + ", " + std::to_string(y) + "): got " + std::to_string(g) +
                       " want " + std::to_string(w);
    return "";
}

inline std::vector<int> allDepths() { return {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64}; }

inline uint32_t kindOf(const BITMAPRECORD* bm) {
    uint32_t t = 0;
    return K_GetBitmapMemoryInfo(bm, &t, nullptr, nullptr, nullptr), t;
}

// A single-block bitmap, freed at the end of its scope.
struct Bitmap {
    BITMAPRECORD bm{};
    int32_t rc;
    Bitmap(int32_t w, int32_t h, int32_t bpp, int32_t order = 0, int32_t persp = TOP_LEFT,
           const RGBQUAD* pal = nullptr, uint32_t memType = 1)
        : rc(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, memType, w, h, bpp, order, pal, persp, nullptr, 0)) {
        EXPECT_EQ(rc, KS_SUCCESS);
    }
    ~Bitmap() { K_FreeBitmap(&bm); }
    Bitmap(const Bitmap&) = delete;
};

// A bitmap of one kind holding random pixels (of the order given, >= 0), and its reference.
struct Source {
    KindBitmap kb;
    RefImage ref;
    Source(Kind k, int32_t w, int32_t h, int32_t bpp, uint32_t seed, int32_t order = -1)
        : kb(k, w, h, bpp), ref(randomImage(w, h, bpp, seed)) {
        kb.rc = kb.rc == KS_SUCCESS ? putImage(&kb.bm, ref) : kb.rc;
        if (order >= 0) kb.bm.nOrder = order;
    }
    BITMAPRECORD* bm() { return &kb.bm; }
    // "" when the stored pixels are still those of the reference.
    std::string unchanged() {
        RefImage got = getImage(&kb.bm);
        return firstMismatch(got, [&](int x, int y) { return pixelAt(ref.row(y), x, ref.bpp); });
    }
};

// A record filled with a sentinel byte, to show that a failing call wrote nothing.
struct Sentinel {
    BITMAPRECORD bm;
    Sentinel() { std::memset(&bm, 0xA5, sizeof bm); }
    bool intact() const {
        return std::all_of((const uint8_t*)&bm, (const uint8_t*)(&bm + 1), [](uint8_t b) { return b == 0xA5; });
    }
};
template <class T>
bool sameBytes(const T& a, const T& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Installs a status callback (or the copy status callback) for one scope.
struct StatusScope {
    STATUSCALLBACK oldFn = nullptr;
    void* oldUser = nullptr;
    bool copy;
    StatusScope(STATUSCALLBACK fn, void* user, bool copyStatus = false) : copy(copyStatus) {
        (copy ? K_SetCopyStatusCallBack : K_SetStatusCallBack)(fn, user, &oldFn, &oldUser);
    }
    ~StatusScope() { (copy ? K_SetCopyStatusCallBack : K_SetStatusCallBack)(oldFn, oldUser, nullptr, nullptr); }
};

// A status callback that records the percentages and answers 1 until it has been called `limit` times, then `answer`
// (limit < 0: always 1).
struct StopAfter {
    int limit;
    int32_t answer;
    std::vector<int32_t> seen;
    explicit StopAfter(int limit_ = -1, int32_t answer_ = 0) : limit(limit_), answer(answer_) {}
    static int32_t cb(int32_t pct, void* user) {
        auto* self = static_cast<StopAfter*>(user);
        self->seen.push_back(pct);
        return self->limit >= 0 && self->calls() > self->limit ? self->answer : 1;
    }
    int calls() const { return int(seen.size()); }
};

// One step of an allocation-failure walk: runs a call with the nth kernel allocation failing (`times` failures, < 0
// every later one); a failing call must answer -1 and leave no block behind.
struct Armed {
    long n, times;
    int32_t rc = KS_SUCCESS;
    long injected = 0, live = 0;  // live blocks before the call
    template <class F>
    int32_t operator()(F&& call) {
        live = krn::faultinject::liveBlocks();
        krn::faultinject::arm(n, times);
        rc = call();
        injected = krn::faultinject::injected();
        krn::faultinject::disarm();
        if (rc != KS_SUCCESS) {
            EXPECT_EQ(rc, KS_NO_MEMORY) << "allocation " << n;
            EXPECT_EQ(krn::faultinject::liveBlocks(), live) << "allocation " << n;
        }
        return rc;
    }
};
// Walks n = 0, 1, ...: `attempt(armed)` prepares fresh state, makes its call through `armed` and checks the outcome.
// The walk ends at the first call that no injected failure reached (or at the first success, when asked); answers how
// many calls failed.
template <class F>
int allocationWalk(F&& attempt, long times = 1, bool untilSuccess = false) {
    int failures = 0;
    for (long n = 0; n < 2000; ++n) {
        Armed a{n, times};
        attempt(a);
        failures += a.rc != KS_SUCCESS;
        if (a.injected == 0 || (untilSuccess && a.rc == KS_SUCCESS) || ::testing::Test::HasFatalFailure())
            return failures;
    }
    ADD_FAILURE() << "the walk did not end";
    return failures;
}

}  // namespace tkit
