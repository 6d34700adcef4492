// test_runtime_threads.cpp - thread tools under stress: events, reader/writer
// locks in both lock modes, work items (many items, cancel while others run,
// fewer items than announced, count 0, single-thread mode, out of memory),
// the pool (including process exit while work is queued), critical sections.
// Everything here is meant to run clean under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "ombrix.h"
#include "krn/common/memory.h"
#include "ktthreading_.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

template <class P>
bool waitUntil(P pred, std::chrono::milliseconds limit = 10s) {
    auto end = Clock::now() + limit;
    while (!pred()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Forces threaded mode even on a one-processor machine, and restores the
// real count afterwards.
struct CoreCount {
    explicit CoreCount(int n) { ktt::testhook::setCoreCount(n); }
    ~CoreCount() { ktt::testhook::setCoreCount(0); }
};

// Items that block need two pool workers (one blocked, one free).
bool poolHasTwoWorkers() {
    std::atomic<int> ran{0};
    KTThreadPool::QueueUserWorkItem([](void* c) { static_cast<std::atomic<int>*>(c)->fetch_add(1); return 1; },
                                    &ran, 0);
    waitUntil([&] { return ran.load() == 1; });
    return KTThreadPool::GetThreadCount() >= 2;
}

// ---------------------------------------------------------------- events
TEST(RuntimeEvent, ManualAutoResetTimeOutAndCrossThreadSignal) {
    KTWaitEvent none;  // without a handle everything succeeds
    EXPECT_EQ(none.IsCreated(), 0);
    for (int32_t r : {none.WaitOne(0), none.WaitOne(KT_INFINITE), none.Set(), none.Reset()}) EXPECT_EQ(r, 1);
    none.Destroy();
    KTWaitEvent m;
    ASSERT_EQ(m.Create(1, 0), 1);
    EXPECT_EQ(m.WaitOne(0), KS_USER_ABORT);
    m.Set();
    EXPECT_EQ(m.WaitOne(0), 1);
    EXPECT_EQ(m.WaitOne(0), 1);  // stays signalled
    m.Reset();
    EXPECT_EQ(m.WaitOne(0), KS_USER_ABORT);
    KTWaitEvent a;
    ASSERT_EQ(a.Create(0, 1), 1);  // initially signalled
    EXPECT_EQ(a.WaitOne(0), 1);
    EXPECT_EQ(a.WaitOne(0), KS_USER_ABORT);  // consumed
    auto t0 = Clock::now();
    EXPECT_EQ(a.WaitOne(60), KS_USER_ABORT);
    EXPECT_GE(Clock::now() - t0, 55ms);
    std::thread setter([&] {
        std::this_thread::sleep_for(20ms);
        a.Set();
    });
    EXPECT_EQ(a.WaitOne(KT_INFINITE), 1);
    setter.join();
    // Re-creating replaces the event and its state.
    ASSERT_EQ(a.Create(1, 1), 1);
    EXPECT_EQ(a.WaitOne(0), 1);
    EXPECT_EQ(a.WaitOne(0), 1);
}

// An auto-reset event releases exactly one waiter per Set.
TEST(RuntimeEvent, AutoResetReleasesOneWaiterPerSet) {
    KTWaitEvent e;
    ASSERT_EQ(e.Create(0, 0), 1);
    constexpr int kWaiters = 6;
    std::atomic<int> released{0};
    std::vector<std::thread> ts;
    for (int i = 0; i < kWaiters; ++i)
        ts.emplace_back([&] {
            if (e.WaitOne(KT_INFINITE) == 1) released.fetch_add(1);
        });
    for (int i = 1; i <= kWaiters; ++i) {
        e.Set();
        ASSERT_TRUE(waitUntil([&] { return released.load() == i; })) << i;
        std::this_thread::sleep_for(5ms);
        ASSERT_EQ(released.load(), i);  // no second waiter slipped through
    }
    for (auto& t : ts) t.join();
}

TEST(RuntimeEvent, CreateOutOfMemoryLeavesNoEvent) {
    KTWaitEvent e;
    long live = krn::faultinject::liveBlocks();
    krn::faultinject::arm(0, 1);
    EXPECT_EQ(e.Create(1, 1), KS_NO_MEMORY);
    krn::faultinject::disarm();
    EXPECT_EQ(e.IsCreated(), 0);
    EXPECT_EQ(e.WaitOne(0), 1);
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
}

// ---------------------------------------------------------------- reader/writer lock
class RuntimeLock : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override { ktt::testhook::forceLockFallback(GetParam()); }
    void TearDown() override { ktt::testhook::forceLockFallback(false); }
};

TEST_P(RuntimeLock, NotCreatedLockDoesNothing) {
    KTReaderWriterLock l;
    EXPECT_EQ(l.IsCreated(), 0);
    KTReaderWriterLockItem r = l.AcquireReaderLock();
    KTReaderWriterLockItem w = l.AcquireWriterLock();  // would deadlock on a real lock
    EXPECT_EQ(r.IsHeld(), 0);
    EXPECT_EQ(w.IsHeld(), 0);
    l.Lock();
    l.Lock();
    l.Unlock();
    l.ReleaseWriterLock();
    // Created in between: the empty items release nothing.
    ASSERT_EQ(l.Create(), 1);
    r.Release();
    w.Release();
    KTReaderWriterLockItem x = l.AcquireWriterLock();
    EXPECT_EQ(x.IsHeld(), 1);
    EXPECT_EQ(x.IsReader(), 0);
}

TEST_P(RuntimeLock, ItemsReleaseTheMatchingHold) {
    KTReaderWriterLock l;
    ASSERT_EQ(l.Create(), 1);
    EXPECT_EQ(KTThreadToolsUnmanaged::HasSlimLocks(), GetParam() ? 0 : 1);
    {
        KTReaderWriterLockItem a = KTReaderWriterLock::Acquire(&l, 1);
        EXPECT_EQ(a.IsReader(), 1);
        KTReaderWriterLockItem moved(std::move(a));
        EXPECT_EQ(a.IsHeld(), 0);
        EXPECT_EQ(moved.IsHeld(), 1);
    }
    {
        KTReaderWriterLockItem w = KTReaderWriterLock::Acquire(&l, 0);
        EXPECT_EQ(w.IsHeld(), 1);
        EXPECT_EQ(w.IsReader(), 0);
        KTReaderWriterLockItem other;
        other = std::move(w);
        EXPECT_EQ(other.IsHeld(), 1);
    }
    EXPECT_EQ(KTReaderWriterLock::Acquire(nullptr, 1).IsHeld(), 0);
    EXPECT_EQ(l.AcquireReaderLock(0).IsHeld(), 0);
    EXPECT_EQ(l.AcquireWriterLock(0).IsHeld(), 0);
    // After the holds above are gone another thread can take the writer hold.
    std::atomic<bool> got{false};
    std::thread t([&] {
        KTReaderWriterLockItem w = l.AcquireWriterLock(1);
        got = w.IsHeld() == 1;
    });
    t.join();
    EXPECT_TRUE(got.load());
    l.Destroy();
    EXPECT_EQ(l.IsCreated(), 0);
    ASSERT_EQ(l.Create(), 1);
    ASSERT_EQ(l.Create(), 1);  // re-creating tears the old lock down
}

// Slim locks share readers; the critical-section fallback serialises them.
// A writer excludes readers in both modes.
TEST_P(RuntimeLock, ReadersShareOnlyWithSlimLocksWritersExcludeThem) {
    KTReaderWriterLock l;
    ASSERT_EQ(l.Create(), 1);
    for (bool writer : {false, true}) {
        KTReaderWriterLockItem mine;
        if (writer)
            l.Lock();  // the plain writer hold
        else
            mine = l.AcquireReaderLock();
        std::atomic<bool> in{false};
        std::thread t([&] {
            KTReaderWriterLockItem r = l.AcquireReaderLock();
            in = true;
        });
        EXPECT_EQ(waitUntil([&] { return in.load(); }, writer ? 100ms : 1000ms), !writer && !GetParam());
        if (writer)
            l.Unlock();
        else
            mine.Release();
        t.join();
        EXPECT_TRUE(in.load());
    }
}

// Readers and writers contending: writers keep two plain fields equal under
// the exclusive hold; a reader that ever sees them differ proves a hole.
TEST_P(RuntimeLock, ReadersAndWritersContending) {
    KTReaderWriterLock l;
    ASSERT_EQ(l.Create(), 1);
    long a = 0, b = 0;
    std::atomic<long> torn{0}, reads{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> ts;
    for (int i = 0; i < 3; ++i)
        ts.emplace_back([&] {
            while (!stop.load(std::memory_order_relaxed)) {
                KTReaderWriterLockItem r = l.AcquireReaderLock();
                if (a != b) torn.fetch_add(1);
                reads.fetch_add(1, std::memory_order_relaxed);
            }
        });
    for (int i = 0; i < 2; ++i)
        ts.emplace_back([&] {
            // Let the readers in first, so that they really contend with the writers.
            while (reads.load(std::memory_order_relaxed) == 0) std::this_thread::yield();
            for (int k = 0; k < 20000; ++k) {
                KTReaderWriterLockItem w = l.AcquireWriterLock();
                ++a;
                ++b;
            }
        });
    for (int i = 3; i < 5; ++i) ts[i].join();
    stop = true;
    for (int i = 0; i < 3; ++i) ts[i].join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(a, 40000);
    EXPECT_EQ(b, 40000);
    EXPECT_GT(reads.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(Modes, RuntimeLock, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "SectionFallback" : "Slim"; });

// ---------------------------------------------------------------- work items
int countItem(KTWorkItems*, void* data) {
    static_cast<std::atomic<int>*>(data)->fetch_add(1);
    return 1;
}

TEST(RuntimeWorkItems, ManyItemsAllRunOnce) {
    CoreCount cc(4);
    KTWorkItems w;
    constexpr int kItems = 5000;
    ASSERT_EQ(w.Create(kItems, KTWI_LOCK_CANCEL | KTWI_ITEM_STATUS, 0), 1);
    ASSERT_EQ(w.IsThreaded(), 1);
    std::atomic<int> ran{0};
    for (int i = 0; i < kItems; ++i) ASSERT_EQ(w.QueueItem(countItem, &ran), 1);
    EXPECT_EQ(w.Wait(), 1);
    EXPECT_EQ(ran.load(), kItems);
    EXPECT_EQ(w.GetStatus(), 1);
    EXPECT_EQ(w.IsCanceled(), 0);
}

// Several owners, each with its own items, at the same time.
TEST(RuntimeWorkItems, ConcurrentOwners) {
    CoreCount cc(4);
    std::vector<std::thread> owners;
    std::atomic<int> bad{0};
    for (int o = 0; o < 4; ++o)
        owners.emplace_back([&] {
            for (int job = 0; job < 100; ++job) {
                KTWorkItems w;
                std::atomic<int> ran{0};
                if (w.Create(20, job % 2 ? KTWI_LOCK : 0, 0) != 1) bad.fetch_add(1);
                for (int i = 0; i < 20; ++i) w.QueueItem(countItem, &ran);
                w.Wait();
                if (ran.load() != 20) bad.fetch_add(1);
            }
        });
    for (auto& t : owners) t.join();
    EXPECT_EQ(bad.load(), 0);
}

TEST(RuntimeWorkItems, ItemResultsBecomeTheStatusOnlyWithFlag4) {
    CoreCount cc(4);
    auto ret = [](KTWorkItems*, void* d) { return *static_cast<int*>(d); };
    int minus7 = -7;
    KTWorkItems w;
    ASSERT_EQ(w.Create(3, KTWI_ITEM_STATUS, 0), 1);
    for (int i = 0; i < 3; ++i) w.QueueItem(ret, &minus7);
    w.Wait();
    EXPECT_EQ(w.GetStatus(), -7);
    ASSERT_EQ(w.Create(3, KTWI_LOCK, 0), 1);  // re-create: status back to 1
    EXPECT_EQ(w.GetStatus(), 1);
    for (int i = 0; i < 3; ++i) w.QueueItem(ret, &minus7);
    w.Wait();
    EXPECT_EQ(w.GetStatus(), 1);
    w.SetStatus(42);
    EXPECT_EQ(w.GetStatus(), 42);
    EXPECT_EQ(w.GetLock().IsCreated(), 1);
    w.Destroy();
    EXPECT_EQ(w.GetStatus(), 1);
    EXPECT_EQ(w.GetLock().IsCreated(), 0);
}

struct CancelScene {
    std::atomic<bool> release{false};
    std::atomic<bool> longStarted{false};
    std::atomic<bool> longFinished{false};
    std::atomic<int> laterRan{0};
};

// An item's -100 cancels what has not started, while the item already
// running finishes; later QueueItem calls run nothing; Wait still returns.
TEST(RuntimeWorkItems, CancelByAnItemWhileOthersRun) {
    CoreCount cc(4);
    if (!poolHasTwoWorkers()) GTEST_SKIP() << "needs two pool workers";
    for (uint32_t flags : {0u, uint32_t(KTWI_LOCK_CANCEL | KTWI_ITEM_STATUS)}) {
        CancelScene s;
        KTWorkItems w;
        constexpr int kLater = 200;
        ASSERT_EQ(w.Create(2 + kLater, flags, 0), 1);
        w.QueueItem(
            [](KTWorkItems*, void* d) {
                auto* sc = static_cast<CancelScene*>(d);
                sc->longStarted = true;
                while (!sc->release.load()) std::this_thread::sleep_for(1ms);
                sc->longFinished = true;
                return 1;
            },
            &s);
        ASSERT_TRUE(waitUntil([&] { return s.longStarted.load(); }));
        w.QueueItem([](KTWorkItems*, void*) { return int(KS_USER_ABORT); }, nullptr);
        ASSERT_TRUE(waitUntil([&] { return w.IsCanceled() == 1; }));
        for (int i = 0; i < kLater; ++i)
            ASSERT_EQ(w.QueueItem([](KTWorkItems*, void* d) {
                static_cast<CancelScene*>(d)->laterRan.fetch_add(1);
                return 1;
            }, &s), 1);
        EXPECT_FALSE(s.longFinished.load());
        s.release = true;
        w.Wait();
        EXPECT_TRUE(s.longFinished.load());
        EXPECT_EQ(s.laterRan.load(), 0);
        if (flags & KTWI_ITEM_STATUS) {
            // The running item reported last (1) or the cancelling one (-100).
            int st = w.GetStatus();
            EXPECT_TRUE(st == 1 || st == KS_USER_ABORT) << st;
        }
    }
}

// Items queued before the cancel took effect are skipped when they start.
TEST(RuntimeWorkItems, CancelSkipsQueuedItems) {
    CoreCount cc(4);
    KTWorkItems w;
    constexpr int kItems = 2000;
    ASSERT_EQ(w.Create(kItems, KTWI_LOCK_CANCEL, 0), 1);
    std::atomic<int> ran{0};
    for (int i = 0; i < kItems; ++i) {
        w.QueueItem(countItem, &ran);
        if (i == 10) w.Cancel();
    }
    w.Wait();
    EXPECT_LE(ran.load(), 11);
}

TEST(RuntimeWorkItems, FinishReleasesAWaiterWhenFewerItemsCame) {
    CoreCount cc(4);
    for (uint32_t announced : {10u, 0u}) {
        KTWorkItems w;
        ASSERT_EQ(w.Create(announced, 0, 0), 1);
        std::atomic<int> ran{0};
        for (int i = 0; i < 3; ++i) w.QueueItem(countItem, &ran);
        ASSERT_TRUE(waitUntil([&] { return ran.load() == 3; }));
        std::atomic<bool> returned{false};
        std::thread waiter([&] {
            w.Wait();
            returned = true;
        });
        // Count 0 never signals by itself; 10 announced, 3 came: still waiting.
        EXPECT_FALSE(waitUntil([&] { return returned.load(); }, 100ms)) << announced;
        EXPECT_EQ(w.Finish(), 1);
        waiter.join();
        EXPECT_TRUE(returned.load());
    }
}

// Finish may release the waiter while items still run; destroying the
// object then waits for them instead of pulling it from under them.
TEST(RuntimeWorkItems, DestroyAfterEarlyFinishWaitsForRunningItems) {
    CoreCount cc(4);
    std::atomic<int> finished{0};
    {
        KTWorkItems w;
        ASSERT_EQ(w.Create(10, KTWI_ITEM_STATUS, 0), 1);
        for (int i = 0; i < 4; ++i)
            w.QueueItem([](KTWorkItems* items, void* d) {
                std::this_thread::sleep_for(30ms);
                items->SetStatus(1);  // touches the object late in the item
                static_cast<std::atomic<int>*>(d)->fetch_add(1);
                return 1;
            }, &finished);
        w.Finish();
        w.Wait();
        EXPECT_LT(finished.load(), 4);  // released early
    }  // the destructor waits here
    EXPECT_EQ(finished.load(), 4);
}

TEST(RuntimeWorkItems, SingleThreadModeRunsInsideQueueItem) {
    for (int mode = 0; mode < 2; ++mode) {
        CoreCount cc(mode == 0 ? 4 : 1);
        uint32_t flags = mode == 0 ? KTWI_SINGLE_THREAD : 0;
        KTWorkItems w;
        ASSERT_EQ(w.Create(3, flags, 0), 1);
        EXPECT_EQ(w.IsThreaded(), 0);
        std::thread::id where;
        auto item = [](KTWorkItems*, void* d) {
            *static_cast<std::thread::id*>(d) = std::this_thread::get_id();
            return -5;
        };
        ASSERT_EQ(w.QueueItem(item, &where), 1);
        EXPECT_EQ(where, std::this_thread::get_id());
        EXPECT_EQ(w.GetStatus(), -5);  // whatever flag 4 says
        EXPECT_EQ(w.Wait(), 1);        // returns at once
        EXPECT_EQ(w.Finish(), 1);
        // -100 cancels later items here too.
        ASSERT_EQ(w.QueueItem([](KTWorkItems*, void*) { return int(KS_USER_ABORT); }, nullptr), 1);
        std::atomic<int> ran{0};
        ASSERT_EQ(w.QueueItem(countItem, &ran), 1);
        EXPECT_EQ(ran.load(), 0);
        EXPECT_EQ(w.GetStatus(), KS_USER_ABORT);
    }
}

TEST(RuntimeWorkItems, OutOfMemoryInQueueItemDoesNotHangWait) {
    CoreCount cc(4);
    std::atomic<int> ran{0};
    {  // warm the pool so its own blocks are not counted below
        KTWorkItems w;
        w.Create(1, 0, 0);
        w.QueueItem(countItem, &ran);
        w.Wait();
    }
    long live = krn::faultinject::liveBlocks();
    KTWorkItems w;
    ASSERT_EQ(w.Create(4, 0, 0), 1);
    ASSERT_EQ(w.QueueItem(countItem, &ran), 1);
    krn::faultinject::arm(0, 1);
    EXPECT_EQ(w.QueueItem(countItem, &ran), KS_NO_MEMORY);
    krn::faultinject::disarm();
    EXPECT_EQ(w.QueueItem(nullptr, &ran), KS_INVALID_PARAMETER);  // also counts as finished
    ASSERT_EQ(w.QueueItem(countItem, &ran), 1);
    w.Wait();
    EXPECT_EQ(ran.load(), 3);
    w.Destroy();
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
    // Create: the event cannot be made.
    krn::faultinject::arm(0, 1);
    EXPECT_EQ(w.Create(3, KTWI_LOCK, 0), KS_NO_MEMORY);
    krn::faultinject::disarm();
    EXPECT_EQ(w.GetLock().IsCreated(), 0);
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
}

// ---------------------------------------------------------------- the pool
TEST(RuntimePool, RunsOnWorkerThreadsSizedToTheProcessors) {
    struct Ctx {
        std::atomic<int> n{0};
        std::atomic<bool> onCaller{false};
        std::thread::id caller;
    } ctx;
    ctx.caller = std::this_thread::get_id();
    EXPECT_EQ(KTThreadPool::QueueUserWorkItem(nullptr, nullptr, 0), KS_INVALID_PARAMETER);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(KTThreadPool::QueueUserWorkItem(
                      [](void* c) {
                          auto* x = static_cast<Ctx*>(c);
                          if (std::this_thread::get_id() == x->caller) x->onCaller = true;
                          x->n.fetch_add(1);
                          return 1;
                      },
                      &ctx, 0xFFFFFFFFu),
                  1);
    ASSERT_TRUE(waitUntil([&] { return ctx.n.load() == 100; }));
    EXPECT_FALSE(ctx.onCaller.load());
    EXPECT_EQ(KTThreadPool::GetThreadCount(), int(std::thread::hardware_concurrency() ? std::thread::hardware_concurrency() : 1));
    EXPECT_GE(KTThreadToolsManaged::GetCoreCount(), 1);
    EXPECT_EQ(KTThreadToolsManaged::GetCoreCount(), K_GetProcessorCount());
}

// The process ends promptly even with a long item running and work queued,
// and also when exit() is called from inside an item.
TEST(RuntimePoolDeathTest, ExitWhileWorkIsQueued) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto t0 = Clock::now();
    EXPECT_EXIT(
        {
            static std::atomic<int> started{0};
            for (int i = 0; i < 4; ++i)
                KTThreadPool::QueueUserWorkItem(
                    [](void*) {
                        started.fetch_add(1);
                        std::this_thread::sleep_for(60s);
                        return 1;
                    },
                    nullptr, 0);
            for (int i = 0; i < 1000; ++i) KTThreadPool::QueueUserWorkItem([](void*) { return 1; }, nullptr, 0);
            // Every worker is inside a long item: the exit must not wait for them.
            waitUntil([] { return started.load() >= KTThreadPool::GetThreadCount(); });
            std::exit(3);
        },
        ::testing::ExitedWithCode(3), "");
    EXPECT_LT(Clock::now() - t0, 30s);
    EXPECT_EXIT(
        {
            KTThreadPool::QueueUserWorkItem([](void*) { std::exit(4); return 1; }, nullptr, 0);
            std::this_thread::sleep_for(60s);
            std::exit(5);
        },
        ::testing::ExitedWithCode(4), "");
}

// After the pool was shut down, requests run on the caller and work items
// still complete.
TEST(RuntimePoolDeathTest, AfterShutdownWorkRunsOnTheCaller) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            CoreCount cc(4);
            std::atomic<int> ran{0};
            KTWorkItems w;
            w.Create(50, 0, 0);
            for (int i = 0; i < 50; ++i) w.QueueItem(countItem, &ran);
            w.Wait();
            bool joined = ktt::shutdownPool(5000);
            std::thread::id where;
            KTThreadPool::QueueUserWorkItem(
                [](void* d) { *static_cast<std::thread::id*>(d) = std::this_thread::get_id(); return 1; }, &where, 0);
            w.Create(5, 0, 0);
            for (int i = 0; i < 5; ++i) w.QueueItem(countItem, &ran);
            w.Wait();
            bool ok = joined && where == std::this_thread::get_id() && ran.load() == 55 &&
                      KTThreadPool::GetThreadCount() == 0;
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

// Items the pool drops at shutdown count as finished, so a waiter is not
// left hanging, and they never run.
TEST(RuntimePoolDeathTest, DroppedItemsReleaseTheirWaiter) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            CoreCount cc(4);
            static std::atomic<int> blocking{0};
            int workers = 0;
            {
                std::atomic<int> ran{0};
                KTWorkItems warm;
                warm.Create(1, 0, 0);
                warm.QueueItem(countItem, &ran);
                warm.Wait();
                workers = KTThreadPool::GetThreadCount();
            }
            for (int i = 0; i < workers; ++i)
                KTThreadPool::QueueUserWorkItem(
                    [](void*) {
                        blocking.fetch_add(1);
                        std::this_thread::sleep_for(500ms);
                        return 1;
                    },
                    nullptr, 0);
            waitUntil([&] { return blocking.load() == workers; });
            std::atomic<int> ran{0};
            KTWorkItems w;
            w.Create(5, 0, 0);
            for (int i = 0; i < 5; ++i) w.QueueItem(countItem, &ran);
            bool joined = ktt::shutdownPool(20);  // the blockers outlive the grace
            w.Wait();
            std::exit(!joined && ran.load() == 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

// ---------------------------------------------------------------- critical sections
TEST(RuntimeCriticalSection, Frame) {
    EXPECT_EQ(K_IntInitializeCriticalSection(nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_IntEnterCriticalSection(nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_IntLeaveCriticalSection(nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_IntDeleteCriticalSection(nullptr), KS_NULL_POINTER);
    CRITICAL_SECTION cs{};
    EXPECT_EQ(K_IntEnterCriticalSection(&cs), KS_INVALID_PARAMETER);  // not initialised
    EXPECT_EQ(K_IntDeleteCriticalSection(&cs), KS_SUCCESS);
    long live = krn::faultinject::liveBlocks();
    krn::faultinject::arm(0, 1);
    EXPECT_EQ(K_IntInitializeCriticalSection(&cs), KS_NO_MEMORY);
    krn::faultinject::disarm();
    EXPECT_EQ(cs.pLock, nullptr);
    ASSERT_EQ(K_IntInitializeCriticalSection(&cs), 1);
    EXPECT_NE(cs.pLock, nullptr);
    EXPECT_EQ(K_IntEnterCriticalSection(&cs), 1);
    EXPECT_EQ(K_IntEnterCriticalSection(&cs), 1);  // recursive
    std::atomic<int> other{0};
    std::thread t([&] { other = K_IntLeaveCriticalSection(&cs); });  // not the owner
    t.join();
    EXPECT_EQ(other.load(), KS_INTERNAL);
    EXPECT_EQ(K_IntLeaveCriticalSection(&cs), 1);
    EXPECT_EQ(K_IntLeaveCriticalSection(&cs), 1);
    EXPECT_EQ(K_IntLeaveCriticalSection(&cs), KS_INTERNAL);  // no longer owned
    EXPECT_EQ(K_IntDeleteCriticalSection(&cs), 1);
    EXPECT_EQ(cs.pLock, nullptr);
    EXPECT_EQ(krn::faultinject::liveBlocks(), live);
}

TEST(RuntimeCriticalSection, MutualExclusion) {
    CRITICAL_SECTION cs;
    ASSERT_EQ(K_IntInitializeCriticalSection(&cs), 1);
    long counter = 0;
    std::vector<std::thread> ts;
    for (int i = 0; i < 4; ++i)
        ts.emplace_back([&] {
            for (int k = 0; k < 20000; ++k) {
                K_IntEnterCriticalSection(&cs);
                K_IntEnterCriticalSection(&cs);
                ++counter;
                K_IntLeaveCriticalSection(&cs);
                K_IntLeaveCriticalSection(&cs);
            }
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(counter, 80000);
    K_IntDeleteCriticalSection(&cs);
}

}  // namespace
