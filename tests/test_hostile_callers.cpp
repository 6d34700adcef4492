// test_hostile_callers.cpp - callers that pass far-out coordinates, threads
// whose first call meets a failed allocation, and bitmaps larger than the
// memory the process may use.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/statvfs.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "krn/common/memory.h"
#include "krn/common/settings.h"
#include "krn/common/storage.h"
#include "ombrix.h"
#include "storage_kinds.h"

namespace {

const int32_t kFar[] = {INT32_MIN, INT32_MIN + 1, -1000000000, -2, -1, 0, 1, 2, 30, 1000000000, INT32_MAX - 1,
                        INT32_MAX};

struct Bitmap {
    BITMAPRECORD bm;
    Bitmap(int32_t w, int32_t h, int32_t vp) {
        EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, w, h, 8, 2, nullptr, vp, nullptr, 0), KS_SUCCESS);
    }
    ~Bitmap() { K_FreeBitmap(&bm); }
};

// ---------------------------------------------------------------- far-out values against an affine model
// Each output coordinate is one input coordinate, plus or minus, plus a
// constant. The model is measured with the library on small, safe inputs and
// then extrapolated in 64 bits to far-out inputs: a result that does not fit
// 32 bits must be refused with the input unchanged; any other result must
// equal the extrapolation (a wrapped value would not).
struct Affine {
    int64_t c[4] = {};
    int sign[4] = {};  // output j = c[j] + sign[j] * in[src[j]]
    int src[4] = {};
};

using RectCall = int32_t (*)(int32_t from, int32_t w, int32_t h, int32_t to, int32_t* v);

int32_t rectCall(int32_t from, int32_t w, int32_t h, int32_t to, int32_t* v) {
    RECT r{v[0], v[1], v[2], v[3]};
    int32_t rc = K_ChangeRectViewPerspective(from, w, h, to, &r);
    v[0] = r.left, v[1] = r.top, v[2] = r.right, v[3] = r.bottom;
    return rc;
}
int32_t pointCall(int32_t from, int32_t w, int32_t h, int32_t to, int32_t* v) {
    return K_ChangePointViewPerspective(from, w, h, to, &v[0], &v[1]);
}

bool measure(RectCall call, int n, int32_t from, int32_t w, int32_t h, int32_t to, Affine* m) {
    for (int32_t base : {0, 1, -1, 2, -2}) {
        int32_t o0[4] = {base, base, base, base};
        if (call(from, w, h, to, o0) != KS_SUCCESS) continue;
        bool ok = true;
        for (int k = 0; k < n && ok; ++k) {
            int32_t o1[4] = {base, base, base, base};
            o1[k] += 1;
            ok = call(from, w, h, to, o1) == KS_SUCCESS;
            int changed = 0;
            for (int j = 0; j < n && ok; ++j) {
                const int64_t d = int64_t(o1[j]) - o0[j];
                if (d == 0) continue;
                ++changed;
                m->sign[j] = int(d);
                m->src[j] = k;
                m->c[j] = int64_t(o0[j]) - d * base;
            }
            ok = ok && changed == 1;
        }
        if (ok) return true;
    }
    return false;
}

void farOutSweep(RectCall call, int n) {
    long refused = 0, converted = 0;
    for (int32_t from = 1; from <= 8; ++from)
        for (int32_t to = 1; to <= 8; ++to)
            for (int32_t w : {40, INT32_MAX, INT32_MIN, -7})
                for (int32_t h : {30, INT32_MAX, INT32_MIN, 0}) {
                    Affine m;
                    if (!measure(call, n, from, w, h, to, &m)) continue;
                    for (int32_t a : kFar)
                        for (int32_t b : kFar) {
                            const int32_t in[4] = {a, b, b, a};
                            int32_t v[4];
                            std::memcpy(v, in, sizeof v);
                            bool fits = true;
                            int64_t want[4] = {};
                            for (int j = 0; j < n; ++j) {
                                want[j] = m.c[j] + m.sign[j] * int64_t(in[m.src[j]]);
                                fits = fits && want[j] >= INT32_MIN && want[j] <= INT32_MAX;
                            }
                            const int32_t rc = call(from, w, h, to, v);
                            if (!fits) {
                                ++refused;
                                ASSERT_EQ(rc, KS_INVALID_PARAMETER) << from << "->" << to << " " << a << "," << b;
                                for (int j = 0; j < n; ++j) ASSERT_EQ(v[j], in[j]);
                            } else {
                                ++converted;
                                ASSERT_EQ(rc, KS_SUCCESS) << from << "->" << to << " " << a << "," << b;
                                for (int j = 0; j < n; ++j) ASSERT_EQ(v[j], want[j]) << from << "->" << to;
                            }
                        }
                }
    EXPECT_GT(refused, 1000);
    EXPECT_GT(converted, 1000);
}

TEST(HostileViewPerspective, FarOutRectanglesAreConvertedExactlyOrRefused) { farOutSweep(rectCall, 4); }
TEST(HostileViewPerspective, FarOutPointsAreConvertedExactlyOrRefused) { farOutSweep(pointCall, 2); }

TEST(HostileViewPerspective, RecordFormsRefuseWhatDoesNotFitForEveryPerspectivePair) {
    int refusals = 0;
    for (int32_t stored = 1; stored <= 8; ++stored) {
        Bitmap b(40, 30, stored);
        for (int32_t vp = 1; vp <= 8; ++vp) {
            if (vp == stored) continue;
            for (int32_t far : {INT32_MIN, INT32_MAX}) {
                // Both ends far out on one axis: one of them must overflow
                // whatever the direction of that axis in the stored view.
                RECT r{far, far, far, far};
                const RECT before = r;
                const int32_t rc = K_RectToBitmap(&b.bm, vp, &r);
                if (rc != KS_SUCCESS) {
                    EXPECT_EQ(rc, KS_INVALID_PARAMETER);
                    EXPECT_EQ(std::memcmp(&r, &before, sizeof r), 0);
                }
                int32_t x = far, y = far;
                if (K_PointFromBitmap(&b.bm, vp, &x, &y) != KS_SUCCESS) {
                    EXPECT_TRUE(x == far && y == far);
                }
            }
            // A reversed axis maps INT32_MIN to (extent - INT32_MIN), which
            // never fits; the only pairs that reverse no axis are the
            // transpositions, which hand the values back as they are.
            RECT r{INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN};
            const int32_t rc = K_RectFromBitmap(&b.bm, vp, &r);
            EXPECT_TRUE(rc == KS_INVALID_PARAMETER || rc == KS_SUCCESS) << rc;
            EXPECT_TRUE(r.left == INT32_MIN && r.top == INT32_MIN && r.right == INT32_MIN && r.bottom == INT32_MIN);
            int32_t x = INT32_MIN, y = INT32_MIN;
            const int32_t pc = K_PointToBitmap(&b.bm, vp, &x, &y);
            EXPECT_EQ(pc, rc) << vp << "->" << stored;
            EXPECT_TRUE(x == INT32_MIN && y == INT32_MIN);
            if (rc == KS_INVALID_PARAMETER) ++refusals;
        }
    }
    EXPECT_GE(refusals, 40);  // 56 ordered pairs, of which 8 are transpositions
}

// The emulated rectangle helpers: exact in range, refused (0, unchanged)
// where an edge would leave 32 bits, never wrapped.
TEST(HostileRects, InflateAndOffsetAreExactOrRefused) {
    long refused = 0;
    for (int32_t a : kFar)
        for (int32_t d : kFar) {
            const RECT r0{a, a / 2, 10, a};
            for (int which = 0; which < 2; ++which) {
                RECT r = r0;
                const int64_t sign = which == 0 ? -1 : 1;  // inflate moves left/top out, offset moves all
                const int64_t want[4] = {int64_t(r0.left) + sign * d, int64_t(r0.top) + sign * d,
                                         int64_t(r0.right) + d, int64_t(r0.bottom) + d};
                bool fits = true;
                for (int64_t v : want) fits = fits && v >= INT32_MIN && v <= INT32_MAX;
                const BOOL ok = which == 0 ? InflateRect(&r, d, d) : OffsetRect(&r, d, d);
                ASSERT_EQ(ok != 0, fits) << which << " " << a << " " << d;
                if (fits) {
                    EXPECT_EQ(r.left, want[0]);
                    EXPECT_EQ(r.top, want[1]);
                    EXPECT_EQ(r.right, want[2]);
                    EXPECT_EQ(r.bottom, want[3]);
                } else {
                    ++refused;
                    EXPECT_EQ(std::memcmp(&r, &r0, sizeof r), 0);
                }
            }
        }
    EXPECT_GT(refused, 50);
}

// A region scaled by a numerator near INT_MAX: the row-count estimate used to
// add numerator and denominator in 32 bits (found by the API fuzzer).
TEST(HostileRects, RegionScaleWithAHugeNumeratorDoesNotOverflow) {
    OrvaRgn* r = nullptr;
    const RECT one{0, 0, 1, 1};
    ASSERT_EQ(K_CreateOrvaRgnRect(&r, &one), KS_SUCCESS);
    ASSERT_EQ(K_ScaleOrvaRgn(r, 1, 1, 2147483646, 65535), KS_SUCCESS);
    RECT b{};
    K_GetOrvaRgnBounds(r, &b);
    // Row y is in when source row floor(y * 65535 / 2147483646) is: rows 0 .. ceil(n/d) - 1.
    const int64_t rows = (int64_t(2147483646) + 65535 - 1) / 65535;
    EXPECT_EQ(b.top, 0);
    EXPECT_EQ(b.bottom, rows);
    EXPECT_EQ(b.left, 0);
    EXPECT_EQ(b.right, 1);
    K_DeleteOrvaRgn(r);
}

// ---------------------------------------------------------------- the first call on a fresh thread
// Every allocation of a thread's first call fails in turn. The call must
// return success or -1, a failed creation must leave the record unallocated,
// the thread must still work with either its own block or the process-wide
// one, and once the thread has ended nothing is left allocated.
TEST(HostileFirstCall, EachAllocationOfTheFirstCallOnAFreshThreadFailsInTurn) {
    K_GetDefaultXResolution();  // this thread's own block exists before the count
    const long before = krn::faultinject::liveBlocks();
    int sawFallback = 0, sawOwn = 0;
    for (long n = 0;; ++n) {
        int32_t rc = 0;
        bool fallback = false, recordClean = true, laterWorks = false;
        long injected = 0;
        std::thread t([&] {
            BITMAPRECORD bm;
            std::memset(&bm, 0x5A, sizeof bm);
            krn::faultinject::arm(n, 1);
            rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 64, 48, 24, 1, nullptr, 1, nullptr, 0);
            injected = krn::faultinject::injected();
            krn::faultinject::disarm();
            fallback = &krn::settings() == &krn::processSettings();
            if (rc == KS_SUCCESS) {
                K_FreeBitmap(&bm);
            } else {
                recordClean = !(bm.uFlags & BRF_ALLOCATED) && bm.pData == nullptr;
            }
            // The thread goes on working after the failure.
            BITMAPRECORD again;
            laterWorks = K_CreateBitmap(&again, BITMAPRECORD_SIZE, 1, 8, 8, 8, 2, nullptr, 1, nullptr, 0) == KS_SUCCESS;
            K_FreeBitmap(&again);
        });
        t.join();
        ASSERT_TRUE(rc == KS_SUCCESS || rc == KS_NO_MEMORY) << n << ": " << rc;
        EXPECT_TRUE(recordClean) << n;
        EXPECT_TRUE(laterWorks) << n;
        EXPECT_EQ(krn::faultinject::liveBlocks(), before) << "leak when allocation " << n << " failed";
        if (fallback) ++sawFallback;
        else ++sawOwn;
        if (injected == 0) break;  // walked past the last allocation of the call
        ASSERT_LT(n, 1000);
    }
    // The failure of the first allocation leaves the thread on the fallback
    // block, which the later call then replaces with the thread's own.
    EXPECT_GE(sawOwn, 1);
    EXPECT_GE(sawFallback + sawOwn, 3);  // the call allocates more than the settings block
}

TEST(HostileFirstCall, AThreadWhoseBlockCannotBeMadeUsesTheProcessBlockAndRetries) {
    K_GetDefaultXResolution();  // this thread's own block exists before the count
    const long before = krn::faultinject::liveBlocks();
    std::thread t([&] {
        krn::faultinject::arm(0, -1);  // every allocation fails
        EXPECT_EQ(&krn::settings(), &krn::processSettings());
        int32_t x = K_GetDefaultXResolution();
        krn::faultinject::disarm();
        EXPECT_EQ(x, krn::processSettings().nXResolution);
        EXPECT_NE(&krn::settings(), &krn::processSettings());  // made on the next call
        EXPECT_EQ(K_SetDefaultXResolution(321), 150);  // the thread's own block starts at the default
        EXPECT_EQ(K_GetDefaultXResolution(), 321);
    });
    t.join();
    EXPECT_NE(K_GetDefaultXResolution(), 321);  // the other thread's block was its own
    EXPECT_EQ(krn::faultinject::liveBlocks(), before);
}

// A caller's own thread-specific key, made after the kernel's, whose
// destructor calls the kernel after the kernel's block of that thread has been
// freed: the call uses the process-wide block and makes nothing that would leak.
pthread_key_t g_lateKey;
int32_t g_lateSeen = -1;
void lateDestructor(void*) {
    K_SetDefaultYResolution(K_GetDefaultYResolution());
    g_lateSeen = &krn::settings() == &krn::processSettings() ? 1 : 0;
}

TEST(HostileFirstCall, CallsFromLaterThreadExitDestructorsUseTheProcessBlockAndDoNotLeak) {
    K_GetDefaultXResolution();  // the kernel's key exists: ours comes after it
    ASSERT_EQ(pthread_key_create(&g_lateKey, lateDestructor), 0);
    const long before = krn::faultinject::liveBlocks();
    for (int i = 0; i < 20; ++i) {
        g_lateSeen = -1;
        std::thread t([] {
            K_SetDefaultXResolution(55);
            pthread_setspecific(g_lateKey, reinterpret_cast<void*>(1));
        });
        t.join();
        EXPECT_EQ(g_lateSeen, 1);
    }
    EXPECT_EQ(krn::faultinject::liveBlocks(), before);
    pthread_key_delete(g_lateKey);
}


// ---------------------------------------------------------------- no promise the machine cannot keep
namespace storage_budget {

struct Restore : storagetest::CapGuard {
    ~Restore() { krn::testhook::setAvailableMemory(0); }
};

uint64_t bytesInMemoryTiles(const BITMAPRECORD& bm) {
    uint64_t tileSize = 0;
    int32_t tiles = 0, onDisk = 0;
    uint32_t type = 0;
    K_GetBitmapMemoryInfo(&bm, &type, &tileSize, &tiles, &onDisk);
    return type == MEMTYPE_DISK ? uint64_t(tiles - onDisk) * tileSize : 0;
}

void roundTrip(BITMAPRECORD& bm) {
    std::vector<uint8_t> row(bm.nBytesPerLine), got(bm.nBytesPerLine);
    for (int32_t r = 0; r < bm.nHeight; ++r) {
        for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t(r * 7 + i * 13);
        ASSERT_EQ(K_PutBitmapRow(&bm, row.data(), r, bm.nBytesPerLine), int32_t(bm.nBytesPerLine));
    }
    for (int32_t r = 0; r < bm.nHeight; ++r) {
        for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t(r * 7 + i * 13);
        ASSERT_EQ(K_GetBitmapRow(&bm, got.data(), r, bm.nBytesPerLine), int32_t(bm.nBytesPerLine));
        ASSERT_EQ(got, row) << "row " << r;
    }
}

uint64_t tempFree() {
    char dir[4096];
    if (K_GetTempDirectoryUtf8(dir, sizeof dir) != KS_SUCCESS) return 0;
    struct statvfs st;
    return statvfs(dir, &st) == 0 ? uint64_t(st.f_bavail) * st.f_frsize : 0;
}

}  // namespace storage_budget

// The image that used to "succeed" as 1.16 TB of lazily zeroed tiles on a
// machine with far less memory and disk: now refused at allocation.
TEST(HostileStorage, ImageLargerThanMemoryAndDiskIsRefusedAtAllocation) {
    using namespace storage_budget;
    Restore restore;
    const uint64_t size = uint64_t(580) * uint64_t(INT32_MAX);
    if (tempFree() >= size) GTEST_SKIP() << "the temporary folder could hold 1.16 TB";
    krn::testhook::setAvailableMemory(uint64_t(64) << 20);  // as if 64 MiB were free
    const long live = krn::faultinject::liveBlocks();
    for (uint32_t type : {1u, 4u, 9u, 128u, 257u}) {
        BITMAPRECORD bm;
        std::memset(&bm, 0, sizeof bm);
        const int32_t rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, type, 579, INT32_MAX, 8, 2, nullptr, 1, nullptr, 0);
        EXPECT_EQ(rc, KS_NO_MEMORY) << type;
        EXPECT_EQ(bm.uFlags & BRF_ALLOCATED, 0u) << type;
        if (rc == KS_SUCCESS) K_FreeBitmap(&bm);
    }
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
}

// Tiles stay in memory only up to the free memory less the memory to keep
// free; the rest go to temporary files, or the allocation fails with -1 when
// files are not allowed.
TEST(HostileStorage, TilesPastTheFreeMemoryGoToFilesOrFail) {
    using namespace storage_budget;
    Restore restore;
    ASSERT_EQ(K_SetMemoryThresholds(0, 0, 1 << 20, 0, 1, 0x1F), KS_SUCCESS);  // 1 MiB tiles, files allowed
    for (uint64_t freeMiB : {3u, 5u, 9u}) {
        krn::testhook::setAvailableMemory(freeMiB << 20);
        BITMAPRECORD bm;
        // 16 MiB: more than the free memory, so tiles (type 1 adds disk).
        ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 4096, 4096, 8, 2, nullptr, 1, nullptr, 0), KS_SUCCESS);
        uint64_t tileSize = 0;
        int32_t tiles = 0, onDisk = 0;
        uint32_t type = 0;
        K_GetBitmapMemoryInfo(&bm, &type, &tileSize, &tiles, &onDisk);
        EXPECT_EQ(type, uint32_t(MEMTYPE_DISK));
        EXPECT_LE(bytesInMemoryTiles(bm), freeMiB << 20) << freeMiB;
        EXPECT_GT(onDisk, 0);
        roundTrip(bm);
        K_FreeBitmap(&bm);
        // No files: refused, not promised.
        BITMAPRECORD nd;
        std::memset(&nd, 0, sizeof nd);  // a failing create leaves the caller's record as it was
        EXPECT_EQ(K_CreateBitmap(&nd, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL | MEMTYPE_NO_DISK, 4096, 4096, 8, 2,
                                 nullptr, 1, nullptr, 0),
                  KS_NO_MEMORY);
        EXPECT_EQ(nd.uFlags & BRF_ALLOCATED, 0u);
    }
    // A height change that grows past the free memory puts the new tiles in files.
    krn::testhook::setAvailableMemory(0);
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_DISK, 4096, 2048, 8, 2, nullptr, 1, nullptr, 0),
              KS_SUCCESS);
    krn::testhook::setAvailableMemory(uint64_t(1) << 20);
    ASSERT_EQ(K_ChangeBitmapHeight(&bm, 6144), KS_SUCCESS);
    int32_t tiles = 0, onDisk = 0;
    K_GetBitmapMemoryInfo(&bm, nullptr, nullptr, &tiles, &onDisk);
    EXPECT_GE(onDisk, 3);
    roundTrip(bm);
    K_FreeBitmap(&bm);
}

// A bitmap larger than the memory the process may use (as the kernel sees
// it: 256 MiB free), written row by row and read back.
TEST(HostileStorageLong, LongBitmapLargerThanTheFreeMemoryWritesAndReadsBack) {
    if (!std::getenv("OMBRIX_LONG_TESTS") || std::string(std::getenv("OMBRIX_LONG_TESTS")) != "1")
        GTEST_SKIP() << "set OMBRIX_LONG_TESTS=1";
    using namespace storage_budget;
    Restore restore;
    krn::testhook::setAvailableMemory(uint64_t(256) << 20);
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 16384, 16384, 24, 1, nullptr, 1, nullptr, 0), KS_SUCCESS);
    EXPECT_LE(bytesInMemoryTiles(bm), uint64_t(256) << 20);
    int32_t tiles = 0, onDisk = 0;
    K_GetBitmapMemoryInfo(&bm, nullptr, nullptr, &tiles, &onDisk);
    std::printf("  %d tiles, %d of them in files\n", tiles, onDisk);
    roundTrip(bm);
    K_FreeBitmap(&bm);
}

}  // namespace
