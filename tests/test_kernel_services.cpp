// test_kernel_services.cpp - global memory, the handle table, status messages, progress callbacks, the fault
// hook, and the reuse of freed large blocks (like fresh ones, within the cache limit and the cap).
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <sys/mman.h>

#include <cerrno>
#include <thread>

#include "krn/common/memory.h"
#include "krn/common/progress.h"
#include "krn/windowsemul/objects.h"
#include "ombrix.h"
#include "check_list.h"
#include "run_threads.h"

namespace {

using checklist::expectAll;
namespace fi = krn::faultinject;

std::wstring message(int32_t code, std::wstring* lib = nullptr) {
    std::vector<wchar_t> buf(1032, L'#'), libBuf(1032, L'#');
    EXPECT_EQ(K_GetFriendlyErrorMessage(code, buf.data(), 1024, lib ? libBuf.data() : nullptr), KS_SUCCESS);
    if (lib) *lib = libBuf.data();
    return buf.data();
}

// A fixed block is its own pointer, grows with zeros, is refused (errno 22) once freed; a movable block may not
// move while locked and keeps its handle when it moves.
TEST(GlobalMemory, FixedAndMovableBlocksAndHandleTableGrowthFailure) {
    auto* p = static_cast<uint8_t*>(K_GlobalAlloc(GPTR, 100));
    ASSERT_TRUE(p && std::vector<uint8_t>(p, p + 100) == std::vector<uint8_t>(100, 0) && K_GlobalLock(p) == p);
    std::memset(p, 7, 100);
    auto* q = static_cast<uint8_t*>(K_GlobalReAlloc(p, 100000, GMEM_ZEROINIT));
    ASSERT_NE(q, nullptr);
    expectAll({IS(q[99], 7), IS(q[100], 0), IS(q[99999], 0), IS(K_GlobalSize(q), 100000),
               IS(K_GlobalFree(q) == nullptr, 1), IS(errno = 0, 0), IS(K_GlobalFree(q) == q, 1), IS(errno, EINVAL),
               IS(K_GlobalFree(nullptr) == nullptr, 1)});
    HGLOBAL h = K_GlobalAlloc(GHND, 64);
    auto* m = static_cast<uint8_t*>(K_GlobalLock(h));
    ASSERT_TRUE(m != nullptr && static_cast<void*>(m) != h);
    m[63] = 9;
    expectAll({IS(K_GlobalReAlloc(h, 1 << 20, GMEM_MOVEABLE) == nullptr, 1), IS(K_GlobalUnlock(h), 0),
               IS(K_GlobalReAlloc(h, 1 << 20, GMEM_MOVEABLE) == h, 1),
               IS((m = static_cast<uint8_t*>(K_GlobalLock(h)))[63], 9), IS(K_GlobalUnlock(h), 0),
               IS(K_GlobalFree(m) == m, 1), IS(K_GlobalFree(h) == nullptr, 1), IS(errno = 0, 0),
               IS(K_GlobalLock(h) == nullptr, 1), IS(errno, EINVAL)});
    // The handle table cannot grow: new blocks fail cleanly; a fixed block that must move keeps pointer and contents.
    const long base = fi::liveBlocks();
    std::vector<HGLOBAL> blocks{K_GlobalAlloc(GPTR, 16), K_GlobalAlloc(GPTR, 16)};
    auto* fixed = static_cast<uint8_t*>(blocks[1]);
    for (int i = 0; i < 16; ++i) fixed[i] = uint8_t(i + 1);
    const std::vector<uint8_t> contents(fixed, fixed + 16);
    krn::testhook::failHandleTableGrowth(true);
    for (HGLOBAL h; blocks.size() < size_t(1) << 20 && (h = K_GlobalAlloc(blocks.size() % 3 ? GPTR : GHND, 16));)
        blocks.push_back(h);
    const bool filled = blocks.size() < size_t(1) << 20;
    const long liveFull = fi::liveBlocks();
    void* moved = K_GlobalReAlloc(fixed, 8 << 20, 0);  // must move
    krn::testhook::failHandleTableGrowth(false);
    ASSERT_TRUE(filled) << "the table never needed to grow";
    EXPECT_EQ(liveFull, base + 2 * long(blocks.size()));  // the failed one left nothing
    ASSERT_TRUE(moved == nullptr || moved == static_cast<void*>(fixed));  // only when it grew in place
    EXPECT_TRUE(moved || (K_GlobalSize(fixed) == 16u &&
                          std::vector<uint8_t>(fixed, fixed + 16) == contents));  // ASan: still ours
    auto* grown = static_cast<uint8_t*>(K_GlobalReAlloc(fixed, 8 << 20, 0));
    ASSERT_TRUE(grown && K_GlobalSize(grown) == size_t(8) << 20 && std::vector<uint8_t>(grown, grown + 16) == contents);
    blocks[1] = grown;
    for (HGLOBAL h : blocks) ASSERT_EQ(K_GlobalFree(h), nullptr);
    EXPECT_EQ(fi::liveBlocks(), base);
}

// Fixed blocks re-keyed by K_GlobalReAlloc on some threads while others allocate and free keep contents and size.
TEST(GlobalMemory, ReallocAcrossThreads) {
    const long base = fi::liveBlocks();
    onThreads(4, [](int t) {
        std::vector<uint8_t*> blocks;
        for (int i = 0; i < 300; ++i) {
            auto* p = static_cast<uint8_t*>(K_GlobalAlloc(i % 5 ? GMEM_FIXED : GHND, 8));
            ASSERT_NE(p, nullptr);
            if (i % 5 == 0) ASSERT_EQ(K_GlobalFree(p), nullptr);  // movable ones only churn the table
            else blocks.push_back(static_cast<uint8_t*>(std::memset(p, t * 16 + int(blocks.size() % 16), 8)));
        }
        for (size_t n = 24; n <= 648; n *= 3)
            for (size_t i = 0; i < blocks.size(); ++i) {
                auto* q = static_cast<uint8_t*>(K_GlobalReAlloc(blocks[i], n, GMEM_ZEROINIT));
                ASSERT_TRUE(q && q[0] == uint8_t(t * 16 + int(i % 16)) && q[n - 1] == 0 && K_GlobalSize(q) == n);
                blocks[i] = q;
            }
        for (uint8_t* p : blocks) ASSERT_EQ(K_GlobalFree(p), nullptr);
    });
    EXPECT_EQ(fi::liveBlocks(), base);
}

// The message table for consistency, not copied: every code from -1940 to 110 has a text, known exactly when
// not the unknown text; other libraries read "The %s library is missing."; library ranges end at their hundreds;
// any buffer size gives the message's prefix without writing past the buffer.
TEST(Messages, WholeTableAgreesWithLibraryIdsAndTruncatesInBounds) {
    const std::pair<int32_t, const wchar_t*> spot[] = {
        {1, L"Success"}, {-1, L"Not enough memory available"}, {-13, L"Invalid parameter passed"},
        {-789, L"The structure size is invalid"}, {-1150, L"The Ombrix File Formats library is missing."},
        {-1905, L"You have exceeded the amount of memory allowed for allocations in this application"}};
    for (const auto& [code, text] : spot) EXPECT_EQ(message(code), text) << code;
    EXPECT_EQ(message(-16).rfind(L"Feature not supported.\n", 0), 0u);
    const std::wstring unknown = L"Internal or Unrecognized Error!";
    const wchar_t* names[] = {L"Ombrix Kernel", L"Ombrix File Formats", L"Ombrix Dialogs", L"Ombrix Annotations",
                              L"Ombrix Color Management"};
    int perLibrary[5] = {};
    for (int32_t code : {INT32_MIN, INT32_MAX}) EXPECT_EQ(message(code), unknown);
    for (int32_t code = -1940; code <= 110; ++code) {
        std::wstring lib;
        const std::wstring text = message(code, &lib);
        int32_t id = 99, known = 99;
        ASSERT_EQ(K_GetLibIdFromErrorCode(code, &id, &known), KS_SUCCESS);
        ASSERT_EQ(known, text != unknown ? 1 : 0) << code;
        ASSERT_TRUE(!known || (code >= -1931 && code <= 104)) << code;
        if (!known) {
            ASSERT_TRUE(id == OMBRIX_LIB_UNKNOWN && lib.empty()) << code;
            continue;
        }
        ASSERT_TRUE(id >= OMBRIX_LIB_KERNEL && id <= OMBRIX_LIB_COLOR && lib == names[id]) << code;
        ++perLibrary[id];
        if (id != OMBRIX_LIB_KERNEL) { ASSERT_EQ(text, L"The " + lib + L" library is missing.") << code; }
    }
    EXPECT_EQ(perLibrary[OMBRIX_LIB_KERNEL], 38);  // the rows of the kernel's own table
    for (int id = OMBRIX_LIB_FILEIO; id <= OMBRIX_LIB_COLOR; ++id) EXPECT_GT(perLibrary[id], 0) << id;
    for (int32_t code : {-1100, -1199, -1200, -1299, -1300, -1399, -1400}) {
        int32_t id = -1, known = -1;
        EXPECT_TRUE(K_GetLibIdFromErrorCode(code, &id, &known) == KS_SUCCESS && known == 1 && id == (-code) / 100 - 10)
            << code << " " << id;
    }
    EXPECT_EQ(K_GetLibIdFromErrorCode(1, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(K_GetFriendlyErrorMessage(-13, nullptr, 10, nullptr), KS_INVALID_PARAMETER);
    for (int32_t code : {-16, -1905, -1150, 1, 999})
        for (uint32_t n = 0, size = uint32_t(message(code).size()); n < size + 3; ++n) {
            std::vector<wchar_t> buf(n + 4, L'#'), lib(n + 4, L'#');
            ASSERT_EQ(K_GetFriendlyErrorMessage(code, buf.data(), n, lib.data()), KS_SUCCESS);
            for (uint32_t i = n; i < n + 4; ++i) ASSERT_TRUE(buf[i] == L'#' && lib[i] == L'#') << code << " " << n;
            if (n) { ASSERT_EQ(std::wstring(buf.data()), message(code).substr(0, n - 1)) << code << " " << n; }
        }
}

// Records each percent; from 40 on (with user data) asks to stop.
int32_t record(int32_t percent, void* user) {
    static_cast<std::vector<int32_t>*>(user)->push_back(percent);
    return 1;
}
int32_t stopAt40(int32_t percent, void* user) { return record(percent, user), percent >= 40 ? KS_USER_ABORT : 1; }

// Status callbacks are per thread and hand back the old ones; a progress reports each whole percent once, within
// its sub-range, and stops on an abort.
TEST(ProgressCallbacks, PerThreadAndEachWholePercentOnce) {
    std::vector<int32_t> seen, every(101);
    STATUSCALLBACK old = reinterpret_cast<STATUSCALLBACK>(1), got = nullptr, other = record;
    void *oldUser = &seen, *gotUser = nullptr;
    expectAll({IS(K_SetStatusCallBack(record, &seen, &old, &oldUser), 1), IS(old == nullptr && !oldUser, 1),
               IS(K_GetStatusCallBack(&got, &gotUser), 1), IS(got == record && gotUser == &seen, 1),
               IS((std::thread([&] { K_GetStatusCallBack(&other, nullptr); }).join(), other == nullptr), 1),
               IS(K_SetCopyStatusCallBack(record, nullptr, nullptr, nullptr), 1),
               IS((K_GetCopyStatusCallBack(&got, nullptr), got == record), 1),
               IS(K_SetCopyStatusCallBack(nullptr, nullptr, nullptr, nullptr), 1)});
    krn::Progress p = krn::Progress::status(1000);
    ASSERT_EQ(p.begin(), KS_SUCCESS);
    for (int i = 1; i <= 1000; ++i) ASSERT_EQ(p.step(i), KS_SUCCESS);
    for (int i = 0; i <= 100; ++i) every[size_t(i)] = i;
    EXPECT_EQ(seen, every);
    seen.clear(), K_SetStatusCallBack(stopAt40, &seen, nullptr, nullptr);
    krn::Progress q = krn::Progress::status(7, 20, 60);  // a sub-range of a larger operation
    int32_t rc = KS_SUCCESS;
    int row = 0;
    for (; row < 7 && rc == KS_SUCCESS; ++row) rc = q.step(row + 1);
    expectAll({IS(rc, KS_USER_ABORT), IS(seen.back(), 42) /* 20 + 40*4/7 */, IS(row, 4),
               IS(K_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr), 1),
               IS(krn::Progress::status(10).active(), 0)});
}

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
        TearDown();
    }
    void TearDown() override { krn::blockcache::setLimit(size_t(192) << 20), krn::blockcache::release(); }
};

// A kept block serves a request within a quarter of its size (zeroed when asked); a bitmap over reused pixels reads 0.
TEST_F(BlockCache, ReusedBlockIsZeroedWhenAskedAndKeptOtherwise) {
    void* a = krn::memAlloc(kBig);
    ASSERT_NE(a, nullptr);
    std::memset(a, 0xA5, kBig);
    krn::memFree(a);
    const long hits = krn::blockcache::hits();
    const bool kept = krn::blockcache::cachedBytes() >= kBig;
    void* b = krn::memCalloc(kBig - 4096);
    expectAll({IS(kept, 1), IS(b != nullptr, 1), IS(krn::blockcache::hits(), hits + 1),
               IS(allBytes(b, kBig - 4096, 0), 1),
               IS((krn::memFree(b), krn::memFree(krn::memAlloc(kBig / 2)), krn::blockcache::hits()), hits + 1)});
    BITMAPRECORD bm;
    krn::blockcache::release();
    for (int pass = 0; pass < 2; ++pass)  // the second bitmap gets the first one's pixels
        ASSERT_TRUE(K_InitBitmap(&bm, BITMAPRECORD_SIZE, 2048, 1024, 32) == KS_SUCCESS &&
                    K_AllocateBitmap(&bm, MEMTYPE_CONVENTIONAL) == KS_SUCCESS &&
                    (pass || (K_FillBitmap(&bm, 0x123456) == KS_SUCCESS && K_FreeBitmap(&bm) == 1)));
    EXPECT_EQ(krn::blockcache::hits(), hits + 2);
    std::vector<unsigned char> row(bm.nBytesPerLine, 0xFF);
    for (int y = 0; y < bm.nHeight; y += 97)
        EXPECT_TRUE(K_GetBitmapRow(&bm, row.data(), y, bm.nBytesPerLine) == int32_t(bm.nBytesPerLine) &&
                    allBytes(row.data(), row.size(), 0))
            << y;
    K_FreeBitmap(&bm);
}

// Grow and shrink across the large-block threshold; pages move (mremap) or, where advice split the mapping, copy.
TEST_F(BlockCache, ResizeKeepsContentsAndStaysWithinItsLimitAndTheCap) {
    const size_t sizes[] = {kBig, kBig + kBig / 2, kBig - 1000, size_t(5) << 20, 1 << 20, kBig * 2, kBig * 3};
    auto* p = static_cast<unsigned char*>(krn::memAlloc(kBig));
    ASSERT_NE(p, nullptr);
    size_t have = kBig;
    for (size_t i = 0; i < have; ++i) p[i] = static_cast<unsigned char>(i * 7 + (i >> 12));
    for (size_t n : sizes) {
        auto* q = static_cast<unsigned char*>(krn::memRealloc(p, n));
        ASSERT_NE(q, nullptr);
        size_t bad = 0;
        for (size_t i = 0; i < std::min(have, n); ++i) bad += q[i] != static_cast<unsigned char>(i * 7 + (i >> 12));
        EXPECT_EQ(bad, 0u) << "resize to " << n;
        for (size_t i = std::min(have, n); i < n; ++i) q[i] = static_cast<unsigned char>(i * 7 + (i >> 12));
        p = q, have = n;
#if defined(MADV_NOHUGEPAGE)
        if (n == kBig * 2)  // split the mapping before the last growth
            madvise(reinterpret_cast<void*>((reinterpret_cast<uintptr_t>(q) + (size_t(3) << 20)) & ~uintptr_t(4095)),
                    8192, MADV_NOHUGEPAGE);
#endif
    }
    krn::memFree(p);
    // At most four blocks are kept; under a 16 MiB cap no 8 MiB block stays; the hook still fails large requests.
    void* blocks[6];
    for (auto& b : blocks) ASSERT_NE(b = krn::memAlloc(kBig), nullptr);
    for (auto* b : blocks) krn::memFree(b);
    int64_t old = 0;
    expectAll({IS(krn::blockcache::cachedBytes() <= 4 * (kBig + (size_t(3) << 20)), 1),
               IS(krn::blockcache::cachedBytes() >= 4 * kBig, 1),
               IS(K_ManageMemory(MANAGEMEMORY_SET_CAP, int64_t(16) << 20, &old), KS_SUCCESS),
               IS(krn::blockcache::cachedBytes(), 0),
               IS((krn::memFree(krn::memAlloc(kBig)), krn::blockcache::cachedBytes()), 0),
               IS(K_ManageMemory(MANAGEMEMORY_SET_CAP, old, nullptr), 1),
               IS((krn::memFree(krn::memAlloc(kBig)), krn::blockcache::cachedBytes() >= kBig), 1)});
    const long live = fi::liveBlocks();
    expectAll({IS((fi::arm(0), krn::memAlloc(kBig)) == nullptr, 1), IS((fi::disarm(), fi::liveBlocks()), live),
               IS(krn::blockcache::cachedBytes() >= kBig, 1)});
}

// Blocks walked side by side must not start at the same offset modulo 2 MiB (their lines would share cache sets).
TEST_F(BlockCache, FreshBlocksStartAtDifferentOffsetsWithinAHugePage) {
    void* blocks[4];
    std::set<uintptr_t> offsets;
    for (auto& b : blocks) {
        ASSERT_NE(b = krn::memAlloc(kBig), nullptr);
        offsets.insert(reinterpret_cast<uintptr_t>(b) & ((uintptr_t(2) << 20) - 1));
    }
    for (auto* b : blocks) krn::memFree(b);
    EXPECT_EQ(offsets.size(), 4u);
}

TEST_F(BlockCache, ThreadsNeverShareABlock) {
    std::atomic<int> bad{0};
    onThreads(2, [&](int t) {
        for (int i = 0; i < 40; ++i) {
            const size_t n = kBig + size_t(i % 3) * 65536;
            auto* p = static_cast<unsigned char*>(krn::memAlloc(n));
            const unsigned char tag = uint8_t(0x11 * (t + 1));
            bad += !p || (std::memset(p, tag, n), std::this_thread::yield(), !allBytes(p, n, tag));
            krn::memFree(p);
        }
    });
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
