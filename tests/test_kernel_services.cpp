// test_kernel_services.cpp - global memory, the handle table, status
// messages, progress callbacks and the allocator's fault hook.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "krn/common/memory.h"
#include "krn/windowsemul/objects.h"
#include "ombrix.h"

namespace {

std::wstring message(int32_t code, uint32_t chars = 1024, std::wstring* lib = nullptr) {
    std::vector<wchar_t> buf(chars + 8, L'#');
    std::vector<wchar_t> libBuf(chars + 8, L'#');
    EXPECT_EQ(K_GetFriendlyErrorMessage(code, buf.data(), chars, lib ? libBuf.data() : nullptr), KS_SUCCESS);
    if (lib) *lib = libBuf.data();
    return buf.data();
}

TEST(GlobalMemory, FixedBlocksAreTheirOwnPointer) {
    auto* p = static_cast<uint8_t*>(K_GlobalAlloc(GPTR, 100));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(p[i], 0);
    EXPECT_EQ(K_GlobalLock(p), p);
    EXPECT_EQ(K_GlobalSize(p), 100u);
    std::memset(p, 7, 100);
    auto* q = static_cast<uint8_t*>(K_GlobalReAlloc(p, 100000, GMEM_ZEROINIT));
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(q[99], 7);
    EXPECT_EQ(q[100], 0);
    EXPECT_EQ(q[99999], 0);
    EXPECT_EQ(K_GlobalSize(q), 100000u);
    EXPECT_EQ(K_GlobalFree(q), nullptr);
    // A stale or foreign pointer is refused, not freed.
    errno = 0;
    EXPECT_EQ(K_GlobalFree(q), q);
    EXPECT_EQ(errno, EINVAL);
    int local = 0;
    EXPECT_EQ(K_GlobalFree(&local), &local);
    EXPECT_EQ(K_GlobalFree(nullptr), nullptr);
    EXPECT_EQ(K_GlobalSize(reinterpret_cast<HGLOBAL>(~uintptr_t(0))), 0u);
}

TEST(GlobalMemory, MovableBlocksLockAndRefuseToMoveWhileLocked) {
    HGLOBAL h = K_GlobalAlloc(GHND, 64);
    ASSERT_NE(h, nullptr);
    auto* p = static_cast<uint8_t*>(K_GlobalLock(h));
    ASSERT_NE(p, nullptr);
    EXPECT_NE(static_cast<void*>(p), h);
    p[63] = 9;
    EXPECT_EQ(K_GlobalReAlloc(h, 1 << 20, GMEM_MOVEABLE), nullptr);  // locked
    EXPECT_EQ(K_GlobalUnlock(h), 0);
    HGLOBAL h2 = K_GlobalReAlloc(h, 1 << 20, GMEM_MOVEABLE);
    EXPECT_EQ(h2, h);  // the handle survives a move
    p = static_cast<uint8_t*>(K_GlobalLock(h));
    EXPECT_EQ(p[63], 9);
    K_GlobalUnlock(h);
    // The data pointer of a movable block is not a handle.
    EXPECT_EQ(K_GlobalFree(p), p);
    EXPECT_EQ(K_GlobalFree(h), nullptr);
    EXPECT_EQ(K_GlobalLock(h), nullptr);
}

TEST(GlobalMemory, ManyBlocksAcrossThreads) {
    const long base = krn::faultinject::liveBlocks();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            std::vector<HGLOBAL> blocks;
            for (int i = 0; i < 2000; ++i) blocks.push_back(K_GlobalAlloc(i % 2 ? GHND : GPTR, 8 + i % 64));
            for (size_t i = 0; i < blocks.size(); ++i) {
                ASSERT_EQ(K_GlobalSize(blocks[i]), 8u + i % 64) << t;
                ASSERT_EQ(K_GlobalFree(blocks[i]), nullptr);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

// Garbage handle values for every global-memory function: refused with
// errno 22, never dereferenced, never freed. Value 1 is the handle table's own
// marker for a deleted slot, so it is probed while deleted slots exist.
TEST(GlobalMemory, GarbageHandlesAreRefusedByEveryFunction) {
    int local = 0;
    HGLOBAL stale = K_GlobalAlloc(GPTR, 8);
    ASSERT_EQ(K_GlobalFree(stale), nullptr);
    OmbrixObject_* region = krn::objCreate(krn::kObjRegion, &local);
    ASSERT_NE(region, nullptr);
    HGLOBAL movable = K_GlobalAlloc(GHND, 8);
    void* movableData = K_GlobalLock(movable);
    K_GlobalUnlock(movable);
    const HGLOBAL garbage[] = {reinterpret_cast<HGLOBAL>(uintptr_t(1)),  reinterpret_cast<HGLOBAL>(uintptr_t(2)),
                               reinterpret_cast<HGLOBAL>(~uintptr_t(0)), reinterpret_cast<HGLOBAL>(~uintptr_t(1)),
                               &local, region, movableData};
    auto probeAll = [&] {
        for (HGLOBAL h : garbage) {
            errno = 0;
            ASSERT_EQ(K_GlobalLock(h), nullptr) << h;
            EXPECT_EQ(errno, EINVAL);
            errno = 0;
            ASSERT_EQ(K_GlobalUnlock(h), 0) << h;
            EXPECT_EQ(errno, EINVAL);
            errno = 0;
            ASSERT_EQ(K_GlobalSize(h), 0u) << h;
            EXPECT_EQ(errno, EINVAL);
            errno = 0;
            ASSERT_EQ(K_GlobalReAlloc(h, 64, GMEM_ZEROINIT), nullptr) << h;
            EXPECT_EQ(errno, EINVAL);
            errno = 0;
            ASSERT_EQ(K_GlobalFree(h), h) << h;
            EXPECT_EQ(errno, EINVAL);
        }
    };
    probeAll();
    errno = 0;
    EXPECT_EQ(K_GlobalFree(stale), stale);  // probed once: its address may be reused below
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(K_GlobalSize(stale), 0u);
    // Leave many deleted slots behind, probing as they accumulate.
    for (int round = 0; round < 200; ++round) {
        std::vector<HGLOBAL> blocks;
        for (int i = 0; i < 1 + round % 97; ++i) blocks.push_back(K_GlobalAlloc(i % 2 ? GHND : GPTR, 4));
        for (HGLOBAL b : blocks) ASSERT_EQ(K_GlobalFree(b), nullptr);
        probeAll();
    }
    EXPECT_EQ(krn::objKind(region), uint32_t(krn::kObjRegion));  // untouched by the refused calls
    EXPECT_TRUE(krn::objDestroy(region, krn::kObjRegion));
    EXPECT_EQ(K_GlobalFree(movable), nullptr);
}

struct TableGrowthFails {
    TableGrowthFails() { krn::testhook::failHandleTableGrowth(true); }
    ~TableGrowthFails() { krn::testhook::failHandleTableGrowth(false); }
};

// The handle table cannot grow: new blocks fail cleanly, and a fixed block
// that has to move to grow keeps its old pointer, size and contents when its
// new address cannot be registered.
TEST(GlobalMemory, HandleTableGrowthFailure) {
    const long base = krn::faultinject::liveBlocks();
    // Two fixed blocks made while the table may still grow.
    std::vector<HGLOBAL> blocks{K_GlobalAlloc(GPTR, 16), K_GlobalAlloc(GPTR, 16)};
    ASSERT_NE(blocks[0], nullptr);
    ASSERT_NE(blocks[1], nullptr);
    {
        TableGrowthFails hook;
        for (int i = 0; i < 1 << 20; ++i) {
            HGLOBAL h = K_GlobalAlloc(i % 3 ? GPTR : GHND, 16);
            if (!h) break;
            blocks.push_back(h);
        }
        ASSERT_LT(blocks.size(), size_t(1) << 20) << "the table never needed to grow";
        EXPECT_EQ(krn::faultinject::liveBlocks(), base + 2 * long(blocks.size()));  // the failed one left nothing
        // A fixed block asked to grow far (it must move).
        auto* fixed = static_cast<uint8_t*>(blocks[1]);
        for (int i = 0; i < 16; ++i) fixed[i] = uint8_t(i + 1);
        void* moved = K_GlobalReAlloc(fixed, 8 << 20, 0);
        if (moved) {
            // Only possible when it grew in place: then it is still registered.
            ASSERT_EQ(moved, static_cast<void*>(fixed));
        } else {
            EXPECT_EQ(K_GlobalSize(fixed), 16u);
            for (int i = 0; i < 16; ++i) ASSERT_EQ(fixed[i], uint8_t(i + 1));  // ASan: still ours
        }
    }
    // With growth allowed again the block moves and is known by its new pointer.
    auto* fixed = static_cast<uint8_t*>(blocks[1]);
    auto* grown = static_cast<uint8_t*>(K_GlobalReAlloc(fixed, 8 << 20, 0));
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(K_GlobalSize(grown), size_t(8) << 20);
    for (int i = 0; i < 16; ++i) ASSERT_EQ(grown[i], uint8_t(i + 1));
    blocks[1] = grown;
    for (HGLOBAL h : blocks) ASSERT_EQ(K_GlobalFree(h), nullptr);
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

// Fixed blocks re-keyed by K_GlobalReAlloc on some threads while others
// allocate, look up and free: every block keeps its contents and its size,
// and the handle table stays consistent (run under ThreadSanitizer too).
TEST(GlobalMemory, ReallocAcrossThreads) {
    const long base = krn::faultinject::liveBlocks();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            std::vector<uint8_t*> blocks;
            std::vector<size_t> sizes;
            for (int i = 0; i < 300; ++i) {
                auto* p = static_cast<uint8_t*>(K_GlobalAlloc(GMEM_FIXED, 8));
                ASSERT_NE(p, nullptr);
                std::memset(p, t * 16 + i % 16, 8);
                blocks.push_back(p);
                sizes.push_back(8);
            }
            for (int pass = 0; pass < 4; ++pass) {
                for (size_t i = 0; i < blocks.size(); ++i) {
                    const size_t n = sizes[i] * 3;
                    auto* q = static_cast<uint8_t*>(K_GlobalReAlloc(blocks[i], n, GMEM_ZEROINIT));
                    ASSERT_NE(q, nullptr);
                    ASSERT_EQ(q[0], uint8_t(t * 16 + i % 16));
                    ASSERT_EQ(q[n - 1], 0);
                    ASSERT_EQ(K_GlobalSize(q), n);
                    blocks[i] = q;
                    sizes[i] = n;
                }
            }
            for (uint8_t* p : blocks) ASSERT_EQ(K_GlobalFree(p), nullptr);
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

TEST(Handles, KindsAreCheckedWithoutDereferencing) {
    int payload = 5;
    OmbrixObject_* h = krn::objCreate(krn::kObjRegion, &payload);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(krn::objPayload(h, krn::kObjRegion), &payload);
    EXPECT_EQ(krn::objPayload(h, krn::kObjPalette), nullptr);
    EXPECT_EQ(krn::objKind(h), uint32_t(krn::kObjRegion));
    EXPECT_EQ(krn::objKind(nullptr), 0u);
    EXPECT_EQ(krn::objKind(reinterpret_cast<void*>(~uintptr_t(0))), 0u);
    EXPECT_EQ(krn::objKind(reinterpret_cast<void*>(uintptr_t(0x1234))), 0u);
    EXPECT_FALSE(krn::objDestroy(h, krn::kObjGlobalMemory));
    EXPECT_TRUE(krn::objDestroy(h, krn::kObjRegion));
    EXPECT_EQ(krn::objKind(h), 0u);
    EXPECT_FALSE(krn::objDestroy(h, krn::kObjRegion));
}

TEST(Handles, FailedRegistrationFreesTheBlock) {
    const long base = krn::faultinject::liveBlocks();
    krn::faultinject::arm(0, 1);
    EXPECT_EQ(K_GlobalAlloc(GMEM_MOVEABLE, 10), nullptr);
    krn::faultinject::arm(1, 1);  // the data block succeeds, the handle fails
    EXPECT_EQ(K_GlobalAlloc(GMEM_MOVEABLE, 10), nullptr);
    krn::faultinject::disarm();
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

TEST(FaultHook, CountdownRepeatAndPersistence) {
    krn::faultinject::arm(2, 2);
    void* a = krn::memAlloc(1);
    void* b = krn::memAlloc(1);
    void* c = krn::memAlloc(1);
    void* d = krn::memAlloc(1);
    void* e = krn::memAlloc(1);
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(d, nullptr);
    EXPECT_NE(e, nullptr);
    EXPECT_EQ(krn::faultinject::injected(), 2);
    krn::faultinject::arm(0, -1);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(krn::memAlloc(1), nullptr);
    krn::faultinject::disarm();
    for (void* p : {a, b, e}) krn::memFree(p);
    // A failed realloc keeps the old block.
    void* r = krn::memAlloc(10);
    krn::faultinject::arm(0, 1);
    EXPECT_EQ(krn::memRealloc(r, 100), nullptr);
    krn::faultinject::disarm();
    krn::memFree(r);
}

TEST(Messages, KernelTextsAreExact) {
    const std::pair<int32_t, const wchar_t*> table[] = {
        {1, L"Success"},
        {0, L"Function not successful"},
        {2, L"Successful. You can quit now"},
        {3, L"Function successful. Delete file before quitting"},
        {4, L"Function successful. Retry the failed operation"},
        {-1, L"Not enough memory available"},
        {-2, L"Invalid image"},
        {-3, L"Not enough memory available"},
        {-4, L"Error seeking to position"},
        {-5, L"Error writing file"},
        {-6, L"File not present - abort"},
        {-7, L"Error reading file"},
        {-8, L"Invalid filename specified"},
        {-10, L"File not found"},
        {-11, L"Invalid width or height"},
        {-13, L"Invalid parameter passed"},
        {-14, L"Not able to open file"},
        {-15, L"Unknown compression format"},
        {-23, L"Invalid compression format"},
        {-27, L"Invalid bits per pixel"},
        {-74, L"Internal error"},
        {-100, L"User has aborted operation"},
        {-144, L"Image is empty"},
        {-261, L"Invalid handle"},
        {-290, L"The buffer size is too small"},
        {-351, L"There is nothing to do.  No items were found"},
        {-404, L"Tag not found"},
        {-789, L"The structure size is invalid"},
        {-794, L"Unsupported conversion"},
        {-814, L"A NULL pointer was passed"},
        {-815, L"The overlay does not exist"},
        {-1486, L"The LUT length is invalid. LUTLength should be 1 << (HighBit - LowBit + 1)"},
        {-1491, L"The DIB is invalid"},
        {-1852, L"(Internal error) Invalid file handle"},
        {-1905, L"You have exceeded the amount of memory allowed for allocations in this application"},
        {-1906, L"The bitmap is too big. Try loading it at a lower resolution"},
        {-1927, L"Conversion of floating data is not supported"},
    };
    for (const auto& [code, text] : table) EXPECT_EQ(message(code), text) << code;
    EXPECT_EQ(message(-16).rfind(L"Feature not supported.\n", 0), 0u);
}

TEST(Messages, UnknownCodesOtherLibrariesAndTruncation) {
    for (int32_t code : {105, -1932, 5, -9, -12, -99, -1000, INT32_MIN, INT32_MAX})
        EXPECT_EQ(message(code), L"Internal or Unrecognized Error!") << code;
    std::wstring lib;
    EXPECT_EQ(message(-1150, 1024, &lib), L"The Ombrix File Formats library is missing.");
    EXPECT_EQ(lib, L"Ombrix File Formats");
    int32_t id = 99, known = 99;
    K_GetLibIdFromErrorCode(-1150, &id, &known);
    EXPECT_EQ(id, OMBRIX_LIB_FILEIO);
    EXPECT_EQ(known, 1);
    K_GetLibIdFromErrorCode(-13, &id, &known);
    EXPECT_EQ(id, OMBRIX_LIB_KERNEL);
    K_GetLibIdFromErrorCode(-9, &id, &known);
    EXPECT_EQ(known, 0);
    EXPECT_EQ(K_GetLibIdFromErrorCode(1, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(message(-13, 8), L"Invalid");  // 7 characters and the terminator
    EXPECT_EQ(message(-13, 1), L"");
    EXPECT_EQ(K_GetFriendlyErrorMessage(-13, nullptr, 10, nullptr), KS_INVALID_PARAMETER);
    wchar_t big[2000];
    ASSERT_EQ(K_GetFriendlyErrorMessage(-13, big, 2000, nullptr), KS_SUCCESS);
    EXPECT_EQ(std::wstring(big), L"Invalid parameter passed");
}

int32_t countingCallback(int32_t percent, void* user) {
    static_cast<std::vector<int32_t>*>(user)->push_back(percent);
    return 1;
}

// Every code of the table and around it: K_GetLibIdFromErrorCode and the
// message agree (known exactly when the text is not the unknown text; other
// libraries read "The %s library is missing." with the name given in the
// library-name buffer), and any buffer size gives the message's prefix without
// writing past the buffer.
TEST(Messages, WholeTableAgreesWithLibraryIdsAndTruncatesInBounds) {
    const std::wstring unknown = L"Internal or Unrecognized Error!";
    const wchar_t* names[] = {L"Ombrix Kernel", L"Ombrix File Formats", L"Ombrix Dialogs", L"Ombrix Annotations",
                              L"Ombrix Color Management"};
    int perLibrary[5] = {};
    for (int32_t code = -1940; code <= 110; ++code) {
        std::wstring lib;
        const std::wstring text = message(code, 1024, &lib);
        int32_t id = 99, known = 99;
        ASSERT_EQ(K_GetLibIdFromErrorCode(code, &id, &known), KS_SUCCESS);
        ASSERT_EQ(known, text != unknown ? 1 : 0) << code;
        if (code < -1931 || code > 104) {
            ASSERT_EQ(known, 0) << code;
        }
        if (!known) {
            ASSERT_EQ(id, OMBRIX_LIB_UNKNOWN) << code;
            ASSERT_EQ(lib, L"") << code;
            continue;
        }
        ASSERT_GE(id, OMBRIX_LIB_KERNEL);
        ASSERT_LE(id, OMBRIX_LIB_COLOR);
        ++perLibrary[id];
        ASSERT_EQ(lib, names[id]) << code;
        if (id != OMBRIX_LIB_KERNEL) {
            ASSERT_EQ(text, L"The " + lib + L" library is missing.") << code;
        }
    }
    EXPECT_EQ(perLibrary[OMBRIX_LIB_KERNEL], 38);  // the rows of the kernel's own table
    for (int id = OMBRIX_LIB_FILEIO; id <= OMBRIX_LIB_COLOR; ++id) EXPECT_GT(perLibrary[id], 0) << id;

    // Truncation: the prefix, terminated, and nothing written past the buffer.
    for (int32_t code : {-16, -1905, -1150, 1, 999}) {
        const std::wstring full = message(code);
        for (uint32_t n = 0; n < full.size() + 3; ++n) {
            std::vector<wchar_t> buf(n + 4, L'#'), lib(n + 4, L'#');
            ASSERT_EQ(K_GetFriendlyErrorMessage(code, buf.data(), n, lib.data()), KS_SUCCESS);
            for (uint32_t i = n; i < n + 4; ++i) {
                ASSERT_EQ(buf[i], L'#') << code << " " << n;
                ASSERT_EQ(lib[i], L'#') << code << " " << n;
            }
            if (n == 0) continue;
            ASSERT_EQ(std::wstring(buf.data()), full.substr(0, n - 1)) << code << " " << n;
        }
    }
}

TEST(ProgressCallbacks, PerThreadSetAndGet) {
    std::vector<int32_t> seen;
    STATUSCALLBACK old = reinterpret_cast<STATUSCALLBACK>(1);
    void* oldUser = &seen;
    ASSERT_EQ(K_SetStatusCallBack(countingCallback, &seen, &old, &oldUser), KS_SUCCESS);
    EXPECT_EQ(old, nullptr);
    EXPECT_EQ(oldUser, nullptr);
    STATUSCALLBACK got = nullptr;
    void* gotUser = nullptr;
    K_GetStatusCallBack(&got, &gotUser);
    EXPECT_EQ(got, countingCallback);
    EXPECT_EQ(gotUser, &seen);
    std::thread([] {
        STATUSCALLBACK other = countingCallback;
        K_GetStatusCallBack(&other, nullptr);
        EXPECT_EQ(other, nullptr);
    }).join();
    K_GetCopyStatusCallBack(&got, nullptr);
    EXPECT_EQ(got, nullptr);
    K_SetCopyStatusCallBack(countingCallback, nullptr, nullptr, nullptr);
    K_GetCopyStatusCallBack(&got, nullptr);
    EXPECT_EQ(got, countingCallback);
    K_SetCopyStatusCallBack(nullptr, nullptr, nullptr, nullptr);
    K_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr);
}

}  // namespace

#include "krn/common/progress.h"

namespace {

int32_t stopAt40(int32_t percent, void* user) {
    static_cast<std::vector<int32_t>*>(user)->push_back(percent);
    return percent >= 40 ? KS_USER_ABORT : KS_SUCCESS;
}

TEST(ProgressCallbacks, ReportsEachWholePercentOnceAndStops) {
    std::vector<int32_t> seen;
    K_SetStatusCallBack(countingCallback, &seen, nullptr, nullptr);
    krn::Progress p = krn::Progress::status(1000);
    ASSERT_EQ(p.begin(), KS_SUCCESS);
    for (int i = 1; i <= 1000; ++i) ASSERT_EQ(p.step(i), KS_SUCCESS);
    ASSERT_EQ(seen.size(), 101u);
    for (int i = 0; i <= 100; ++i) EXPECT_EQ(seen[i], i);

    seen.clear();
    K_SetStatusCallBack(stopAt40, &seen, nullptr, nullptr);
    krn::Progress q = krn::Progress::status(7, 20, 60);  // a sub-range of a larger operation
    int32_t rc = KS_SUCCESS;
    int row = 0;
    for (; row < 7 && rc == KS_SUCCESS; ++row) rc = q.step(row + 1);
    EXPECT_EQ(rc, KS_USER_ABORT);
    EXPECT_EQ(seen.back(), 42);  // 20 + 40*4/7
    EXPECT_EQ(row, 4);
    K_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr);
    EXPECT_FALSE(krn::Progress::status(10).active());
}

}  // namespace
