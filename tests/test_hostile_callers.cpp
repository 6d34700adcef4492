// test_hostile_callers.cpp - far-out coordinates, first calls meeting failed allocations, images beyond memory.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include <pthread.h>
#include <sys/statvfs.h>

#include <thread>

#include "krn/common/memory.h"
#include "krn/common/settings.h"
#include "krn/common/storage.h"
#include "ombrix.h"
#include "storage_kinds.h"

namespace {

const int32_t kFar[] = {INT32_MIN, INT32_MIN + 1, -1000000000, -2, -1, 0, 1, 2, 30, 1000000000, INT32_MAX - 1,
                        INT32_MAX};
bool fits32(int64_t v) { return v >= INT32_MIN && v <= INT32_MAX; }

// Far-out values against an affine model (each output is one input, plus or minus, plus a constant) measured on
// small inputs and extrapolated in 64 bits: a result that does not fit 32 bits is refused, input unchanged.
using Call = int32_t (*)(int32_t from, int32_t w, int32_t h, int32_t to, int32_t* v);
int32_t rectCall(int32_t from, int32_t w, int32_t h, int32_t to, int32_t* v) {
    RECT r{v[0], v[1], v[2], v[3]};
    const int32_t rc = K_ChangeRectViewPerspective(from, w, h, to, &r);
    v[0] = r.left, v[1] = r.top, v[2] = r.right, v[3] = r.bottom;
    return rc;
}
int32_t pointCall(int32_t from, int32_t w, int32_t h, int32_t to, int32_t* v) {
    return K_ChangePointViewPerspective(from, w, h, to, &v[0], &v[1]);
}

struct Affine { int64_t c[4] = {}; int sign[4] = {}, src[4] = {}; };  // output j = c[j] + sign[j] * in[src[j]]
bool measure(Call call, int n, int32_t from, int32_t w, int32_t h, int32_t to, Affine* m) {
    for (int32_t base : {0, 1, -1, 2, -2}) {
        int32_t o0[4] = {base, base, base, base};
        bool ok = call(from, w, h, to, o0) == KS_SUCCESS;
        for (int k = 0; k < n && ok; ++k) {
            int32_t o1[4] = {base, base, base, base};
            int changed = 0;
            ok = (o1[k] += 1, call(from, w, h, to, o1)) == KS_SUCCESS;
            for (int j = 0; j < n && ok; ++j)
                if (const int64_t d = int64_t(o1[j]) - o0[j]; d != 0)
                    ++changed, m->sign[j] = int(d), m->src[j] = k, m->c[j] = int64_t(o0[j]) - d * base;
            ok = ok && changed == 1;
        }
        if (ok) return true;
    }
    return false;
}

void farOutSweep(Call call, int n) {
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
                            int32_t v[4] = {a, b, b, a};
                            int64_t want[4] = {};
                            bool fits = true;
                            for (int j = 0; j < n; ++j)
                                fits = fits32(want[j] = m.c[j] + m.sign[j] * int64_t(in[m.src[j]])) && fits;
                            ++(fits ? converted : refused);
                            ASSERT_EQ(call(from, w, h, to, v), fits ? KS_SUCCESS : KS_INVALID_PARAMETER)
                                << from << "->" << to << " " << a << "," << b;
                            for (int j = 0; j < n; ++j) ASSERT_EQ(v[j], fits ? want[j] : in[j]) << from << "->" << to;
                        }
                }
    EXPECT_TRUE(refused > 1000 && converted > 1000);
}

TEST(HostileViewPerspective, FarOutRectanglesAndPointsAreConvertedExactlyOrRefused) {
    farOutSweep(rectCall, 4), farOutSweep(pointCall, 2);
}

// The emulated rectangle helpers: exact in range, refused (0, unchanged) where an edge would leave 32 bits.
TEST(HostileRects, InflateAndOffsetAreExactOrRefused) {
    long refused = 0;
    for (int32_t a : kFar)
        for (int32_t d : kFar)
            for (int64_t sign : {-1, 1}) {  // inflate moves left/top out, offset moves all
                const RECT r0{a, a / 2, 10, a};
                RECT r = r0;
                const int64_t want[4] = {r0.left + sign * d, r0.top + sign * d, int64_t(r0.right) + d,
                                         int64_t(r0.bottom) + d};
                const bool fits = fits32(want[0]) && fits32(want[1]) && fits32(want[2]) && fits32(want[3]);
                ASSERT_EQ((sign < 0 ? InflateRect(&r, d, d) : OffsetRect(&r, d, d)) != 0, fits) << a << " " << d;
                const RECT expect =
                    fits ? RECT{int32_t(want[0]), int32_t(want[1]), int32_t(want[2]), int32_t(want[3])} : r0;
                EXPECT_EQ(std::memcmp(&r, &expect, sizeof r), 0) << sign << " " << a << " " << d;
                refused += !fits;
            }
    EXPECT_GT(refused, 50);
}

int32_t g_resolutionAtThreadEnd = 0, g_lateSeen = -1;
struct CallsKernelAtThreadEnd {
    bool touched = false;
    ~CallsKernelAtThreadEnd() {
        K_SetDefaultYResolution(321);
        g_resolutionAtThreadEnd = K_GetDefaultXResolution();
    }
};
thread_local CallsKernelAtThreadEnd t_callsKernel;
pthread_key_t g_lateKey;
void lateDestructor(void*) {
    K_SetDefaultYResolution(K_GetDefaultYResolution());
    g_lateSeen = &krn::settings() == &krn::processSettings() ? 1 : 0;
}

// Every allocation of a thread's first call fails in turn: success or -1, a failed creation leaves the record
// unallocated, the thread still works (own or process-wide block), nothing is left once it ended.
TEST(HostileFirstCall, EachAllocationOfAFirstCallFailsInTurnAndCallsWhileAThreadEnds) {
    K_GetDefaultXResolution();  // this thread's own block exists before the count
    const long before = krn::faultinject::liveBlocks();
    int sawOwn = 0, runs = 0;
    for (long n = 0;; ++n, ++runs) {
        int32_t rc = 0;
        bool fallback = false, recordClean = true, laterWorks = false;
        long injected = 0;
        std::thread([&] {
            BITMAPRECORD bm, again;
            std::memset(&bm, 0x5A, sizeof bm);
            krn::faultinject::arm(n, 1);
            rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 64, 48, 24, 1, nullptr, 1, nullptr, 0);
            injected = krn::faultinject::injected();
            krn::faultinject::disarm();
            fallback = &krn::settings() == &krn::processSettings();
            recordClean = rc == KS_SUCCESS || (!(bm.uFlags & BRF_ALLOCATED) && bm.pData == nullptr);
            if (rc == KS_SUCCESS) K_FreeBitmap(&bm);
            laterWorks = K_CreateBitmap(&again, BITMAPRECORD_SIZE, 1, 8, 8, 8, 2, nullptr, 1, nullptr, 0) == KS_SUCCESS;
            K_FreeBitmap(&again);
        }).join();
        ASSERT_TRUE((rc == KS_SUCCESS || rc == KS_NO_MEMORY) && recordClean && laterWorks &&
                    krn::faultinject::liveBlocks() == before)
            << "allocation " << n << " failed: status " << rc
            << ", or the record changed, or a later call failed, or a leak";
        sawOwn += !fallback;
        if (injected == 0) break;  // walked past the last allocation of the call
        ASSERT_LT(n, 1000);
    }
    // The first allocation failing leaves the thread on the fallback block; the call allocates more than that.
    EXPECT_TRUE(sawOwn >= 1 && runs + 1 >= 3);
    // Calls while a thread ends: a thread-local object made before the kernel's block still sees the thread's
    // own block; a key destructor running after it uses the process-wide block. Neither leaks or writes through
    // the other.
    ASSERT_EQ(pthread_key_create(&g_lateKey, lateDestructor), 0);  // after the kernel's key, made above
    krn::ThreadSettings& process = krn::processSettings();
    const int32_t processX = process.nXResolution, processY = process.nYResolution;
    process.nXResolution = 4242;
    std::thread([] { t_callsKernel.touched = true, K_SetDefaultXResolution(600); }).join();  // ours made first
    EXPECT_TRUE(g_resolutionAtThreadEnd == 600 && process.nYResolution == processY);  // written to the thread's block
    process.nXResolution = processX;
    for (int i = 0; i < 20; ++i) {
        g_lateSeen = -1;
        std::thread([] { K_SetDefaultXResolution(55), pthread_setspecific(g_lateKey, &g_lateKey); }).join();
        EXPECT_EQ(g_lateSeen, 1);
    }
    EXPECT_EQ(krn::faultinject::liveBlocks(), before);
    pthread_key_delete(g_lateKey);
}

struct Restore : storagetest::CapGuard { ~Restore() { krn::testhook::setAvailableMemory(0); } };

// Writes every row and reads it back; returns the bytes in memory tiles.
uint64_t roundTrip(BITMAPRECORD& bm) {
    std::vector<uint8_t> row(bm.nBytesPerLine), got(bm.nBytesPerLine);
    for (int pass = 0; pass < 2; ++pass)
        for (int32_t r = 0; r < bm.nHeight; ++r) {
            for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t(r * 7 + i * 13);
            const int32_t n = pass ? K_GetBitmapRow(&bm, got.data(), r, bm.nBytesPerLine)
                                   : K_PutBitmapRow(&bm, row.data(), r, bm.nBytesPerLine);
            if (n != int32_t(bm.nBytesPerLine) || (pass && got != row)) {
                ADD_FAILURE() << "row " << r << " pass " << pass << " status " << n;
                return 0;
            }
        }
    uint64_t tileSize = 0;
    int32_t tiles = 0, onDisk = 0;
    uint32_t type = 0;
    return K_GetBitmapMemoryInfo(&bm, &type, &tileSize, &tiles, &onDisk),
           type == MEMTYPE_DISK ? uint64_t(tiles - onDisk) * tileSize : 0;
}

// An image of 1.16 TB on a machine with far less memory and disk (unless the temporary folder could hold it) is
// refused at allocation.
TEST(HostileStorage, TooLargeRefusedAndTilesPastTheFreeMemoryGoToFiles) {
    Restore restore;
    char dir[4096];
    struct statvfs st;
    const bool roomy = K_GetTempDirectoryUtf8(dir, sizeof dir) == KS_SUCCESS && statvfs(dir, &st) == 0 &&
                       uint64_t(st.f_bavail) * st.f_frsize >= uint64_t(580) * uint64_t(INT32_MAX);
    krn::testhook::setAvailableMemory(uint64_t(64) << 20);  // as if 64 MiB were free
    const long live = krn::faultinject::liveBlocks();
    for (uint32_t type : {1u, 4u, 9u, 128u, 257u}) {
        if (roomy) break;
        BITMAPRECORD bm{};
        const int32_t rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, type, 579, INT32_MAX, 8, 2, nullptr, 1, nullptr, 0);
        EXPECT_TRUE(rc == KS_NO_MEMORY && (bm.uFlags & BRF_ALLOCATED) == 0) << type;
        if (rc == KS_SUCCESS) K_FreeBitmap(&bm);
    }
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    // Tiles stay in memory up to the free memory less the reserve, the rest go to files, or -1 without files; a height
    // change past the free memory puts the new tiles in files.
    ASSERT_EQ(K_SetMemoryThresholds(0, 0, 1 << 20, 0, 1, 0x1F), KS_SUCCESS);  // 1 MiB tiles, files allowed
    BITMAPRECORD bm;
    int32_t tiles = 0, onDisk = 0;
    uint32_t type = 0;
    for (uint64_t freeMiB : {3u, 5u, 9u}) {
        krn::testhook::setAvailableMemory(freeMiB << 20);
        // 16 MiB: more than the free memory, so tiles (type 1 adds disk).
        ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 4096, 4096, 8, 2, nullptr, 1, nullptr, 0), KS_SUCCESS);
        K_GetBitmapMemoryInfo(&bm, &type, nullptr, &tiles, &onDisk);
        EXPECT_TRUE(type == MEMTYPE_DISK && onDisk > 0 && roundTrip(bm) <= freeMiB << 20)
            << type << " " << onDisk << " " << freeMiB;
        K_FreeBitmap(&bm);
        std::memset(&bm, 0, sizeof bm);  // no files: refused, not promised, the record as it was
        EXPECT_TRUE(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL | MEMTYPE_NO_DISK, 4096, 4096, 8, 2,
                                   nullptr, 1, nullptr, 0) == KS_NO_MEMORY &&
                    (bm.uFlags & BRF_ALLOCATED) == 0);
    }
    krn::testhook::setAvailableMemory(0);
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_DISK, 4096, 2048, 8, 2, nullptr, 1, nullptr, 0),
              KS_SUCCESS);
    krn::testhook::setAvailableMemory(uint64_t(1) << 20);
    ASSERT_TRUE(K_ChangeBitmapHeight(&bm, 6144) == KS_SUCCESS &&
                K_GetBitmapMemoryInfo(&bm, nullptr, nullptr, &tiles, &onDisk) == 1 && onDisk >= 3);
    roundTrip(bm);
    K_FreeBitmap(&bm);
}

// Long (OMBRIX_LONG_TESTS=1): 768 MiB of rows with 256 MiB free and a cap of 256 MiB over what is in use: the tiles
// in memory stay under both, the rest go to files, and every row reads back.
TEST(HostileStorageLong, LongBitmapLargerThanTheFreeMemoryWritesAndReadsBack) {
    if (!std::getenv("OMBRIX_LONG_TESTS")) GTEST_SKIP() << "set OMBRIX_LONG_TESTS=1";
    Restore restore;
    krn::testhook::setAvailableMemory(uint64_t(256) << 20);
    int64_t used = 0;
    BITMAPRECORD bm;
    ASSERT_TRUE(K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &used) == KS_SUCCESS &&
                K_ManageMemory(MANAGEMEMORY_SET_CAP, used + (int64_t(256) << 20), nullptr) == KS_SUCCESS &&
                K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 16384, 16384, 24, 1, nullptr, 1, nullptr, 0) == KS_SUCCESS);
    EXPECT_LE(roundTrip(bm), uint64_t(256) << 20);
    K_FreeBitmap(&bm);
}

}  // namespace
