// Reuse of freed large blocks by the kernel allocator: a reused block must
// behave exactly like a fresh one (zeroed when asked, its own bytes, resizable
// with its contents), the cache must stay within its limit and the cap, and
// the allocation-failure hook must still fail large requests.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#if defined(__linux__)
#include <sys/mman.h>
#endif
#include <vector>

#include "krn/common/memory.h"
#include "ombrix.h"

namespace {
constexpr size_t kBig = size_t(8) << 20;

bool allBytes(const void* p, size_t n, unsigned char v) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; i += 4093)
        if (b[i] != v) return false;
    return b[n - 1] == v;
}

struct BlockCache : ::testing::Test {
    void SetUp() override {
        if (!krn::blockcache::available()) GTEST_SKIP() << "this build keeps every block on malloc";
        krn::blockcache::setLimit(size_t(192) << 20);
        krn::blockcache::release();
    }
    void TearDown() override {
        krn::blockcache::setLimit(size_t(192) << 20);
        krn::blockcache::release();
    }
};

TEST_F(BlockCache, ReusedBlockIsZeroedWhenAskedAndKeptOtherwise) {
    void* a = krn::memAlloc(kBig);
    ASSERT_NE(a, nullptr);
    std::memset(a, 0xA5, kBig);
    krn::memFree(a);
    EXPECT_GE(krn::blockcache::cachedBytes(), kBig);
    const long hits = krn::blockcache::hits();
    void* b = krn::memCalloc(kBig - 4096);  // within a quarter: served from the cache
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(krn::blockcache::hits(), hits + 1);
    EXPECT_TRUE(allBytes(b, kBig - 4096, 0));
    krn::memFree(b);
    // A request far smaller than the kept block is not served from it.
    void* c = krn::memAlloc(kBig / 2);
    EXPECT_EQ(krn::blockcache::hits(), hits + 1);
    krn::memFree(c);
}

TEST_F(BlockCache, ZeroInitBitmapOverReusedPixels) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 2048, 1024, 32), KS_SUCCESS);
    ASSERT_EQ(K_AllocateBitmap(&bm, MEMTYPE_CONVENTIONAL), KS_SUCCESS);
    ASSERT_EQ(K_FillBitmap(&bm, 0x123456), KS_SUCCESS);
    K_FreeBitmap(&bm);
    const long hits = krn::blockcache::hits();
    ASSERT_EQ(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 2048, 1024, 32), KS_SUCCESS);
    ASSERT_EQ(K_AllocateBitmap(&bm, MEMTYPE_CONVENTIONAL), KS_SUCCESS);
    EXPECT_EQ(krn::blockcache::hits(), hits + 1);
    std::vector<unsigned char> row(bm.nBytesPerLine, 0xFF);
    for (int y = 0; y < bm.nHeight; y += 97) {
        ASSERT_EQ(K_GetBitmapRow(&bm, row.data(), y, bm.nBytesPerLine), int32_t(bm.nBytesPerLine));
        EXPECT_TRUE(allBytes(row.data(), row.size(), 0)) << "row " << y;
    }
    K_FreeBitmap(&bm);
}

TEST_F(BlockCache, ResizeKeepsContents) {
    // Grow and shrink across the large-block threshold and within a block; the
    // pages move (mremap) or, where advice split the block's mapping, are copied.
    const size_t sizes[] = {kBig, kBig + kBig / 2, kBig - 1000, size_t(5) << 20, 1 << 20, kBig * 2, kBig * 3};
    auto* p = static_cast<unsigned char*>(krn::memAlloc(kBig));
    ASSERT_NE(p, nullptr);
    size_t have = kBig;
    for (size_t i = 0; i < have; ++i) p[i] = static_cast<unsigned char>(i * 7 + (i >> 12));
    for (size_t n : sizes) {
        auto* q = static_cast<unsigned char*>(krn::memRealloc(p, n));
        ASSERT_NE(q, nullptr);
        const size_t kept = std::min(have, n);
        size_t bad = 0;
        for (size_t i = 0; i < kept; ++i) bad += q[i] != static_cast<unsigned char>(i * 7 + (i >> 12));
        EXPECT_EQ(bad, 0u) << "resize to " << n;
        for (size_t i = kept; i < n; ++i) q[i] = static_cast<unsigned char>(i * 7 + (i >> 12));
        p = q;
        have = n;
#if defined(__linux__) && defined(MADV_NOHUGEPAGE)
        if (n == kBig * 2) {  // split the mapping before the last growth
            auto* mid = reinterpret_cast<unsigned char*>((reinterpret_cast<uintptr_t>(q) + (size_t(3) << 20)) & ~uintptr_t(4095));
            madvise(mid, 8192, MADV_NOHUGEPAGE);
        }
#endif
    }
    krn::memFree(p);
}

TEST_F(BlockCache, StaysWithinItsLimitAndTheCap) {
    void* blocks[6];
    for (auto& b : blocks) ASSERT_NE(b = krn::memAlloc(kBig), nullptr);
    for (auto* b : blocks) krn::memFree(b);
    // At most four blocks are kept.
    EXPECT_LE(krn::blockcache::cachedBytes(), 4 * (kBig + (size_t(3) << 20)));
    EXPECT_GE(krn::blockcache::cachedBytes(), 4 * kBig);
    // A cap of 16 MiB leaves room for 4 MiB of kept blocks: nothing of 8 MiB stays.
    int64_t old = 0;
    ASSERT_EQ(K_ManageMemory(MANAGEMEMORY_SET_CAP, int64_t(16) << 20, &old), KS_SUCCESS);
    EXPECT_EQ(krn::blockcache::cachedBytes(), 0u);
    void* b = krn::memAlloc(kBig);
    krn::memFree(b);
    EXPECT_EQ(krn::blockcache::cachedBytes(), 0u);
    ASSERT_EQ(K_ManageMemory(MANAGEMEMORY_SET_CAP, old, nullptr), KS_SUCCESS);
    b = krn::memAlloc(kBig);
    krn::memFree(b);
    EXPECT_GE(krn::blockcache::cachedBytes(), kBig);
}

TEST_F(BlockCache, FailureHookFailsLargeRequests) {
    void* a = krn::memAlloc(kBig);
    krn::memFree(a);  // one block kept
    const long live = krn::faultinject::liveBlocks();
    krn::faultinject::arm(0);
    EXPECT_EQ(krn::memAlloc(kBig), nullptr);
    krn::faultinject::disarm();
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    EXPECT_GE(krn::blockcache::cachedBytes(), kBig);  // the kept block is still there
}

TEST_F(BlockCache, ThreadsNeverShareABlock) {
    auto work = [](unsigned char tag, int* bad) {
        for (int i = 0; i < 40; ++i) {
            const size_t n = kBig + size_t(i % 3) * 65536;
            auto* p = static_cast<unsigned char*>(krn::memAlloc(n));
            if (!p) { ++*bad; continue; }
            std::memset(p, tag, n);
            std::this_thread::yield();
            if (!allBytes(p, n, tag)) ++*bad;
            krn::memFree(p);
        }
    };
    int bad1 = 0, bad2 = 0;
    std::thread t1(work, 0x11, &bad1), t2(work, 0x22, &bad2);
    t1.join();
    t2.join();
    EXPECT_EQ(bad1 + bad2, 0);
}
}  // namespace
