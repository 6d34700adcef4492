// test_runtime_threads.cpp - events, reader/writer locks in both modes, work items, the pool, critical sections and
// the parallel row helper, under stress (clean under TSan too).
#include <gtest/gtest.h>

#include <cstring>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "ombrix.h"
#include "check_list.h"
#include "krn/common/memory.h"
#include "krn/common/parallel.h"
#include "ktthreading_.h"
#include "run_threads.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using checklist::expectAll;
namespace fi = krn::faultinject;

template <class P>
bool waitUntil(P pred, std::chrono::milliseconds limit = 10s) {
    for (auto end = Clock::now() + limit; !pred(); std::this_thread::sleep_for(1ms))
        if (Clock::now() > end) return false;
    return true;
}
// Forces threaded mode even on a one-processor machine, and restores the real count afterwards.
struct CoreCount {
    explicit CoreCount(int n) { ktt::testhook::setCoreCount(n); }
    ~CoreCount() { ktt::testhook::setCoreCount(0); }
};
int countItem(KTWorkItems*, void* data) { return static_cast<std::atomic<int>*>(data)->fetch_add(1), 1; }
int runCounted(KTWorkItems& w, int n) {  // queues n counting items, waits, gives how many ran
    std::atomic<int> ran{0};
    for (int i = 0; i < n; ++i) w.QueueItem(countItem, &ran);
    w.Wait();
    return ran.load();
}
int warmPool() { KTWorkItems w; return w.Create(1, 0, 0), runCounted(w, 1); }
int abortItem(KTWorkItems*, void*) { return KS_USER_ABORT; }
std::thread::id tid() { return std::this_thread::get_id(); }
int exitItem(void*) { std::exit(4); }
template <int Ms>
int sleepItem(void* started) {
    return ++*static_cast<std::atomic<int>*>(started), std::this_thread::sleep_for(Ms * 1ms), 1;
}
int threadIdItem(void* d) { return *static_cast<std::thread::id*>(d) = tid(), 1; }

TEST(RuntimeEvent, ManualAutoResetTimeOutSignalAndOutOfMemory) {
    KTWaitEvent none, m, a, e;  // without a handle everything succeeds
    expectAll({IS(none.IsCreated(), 0), IS(none.WaitOne(0), 1), IS(none.WaitOne(KT_INFINITE), 1), IS(none.Set(), 1),
               IS(none.Reset(), 1), IS((none.Destroy(), m.Create(1, 0)), 1) /* manual reset: stays signalled */,
               IS(m.WaitOne(0), KS_USER_ABORT), IS((m.Set(), m.WaitOne(0)), 1), IS(m.WaitOne(0), 1),
               IS((m.Reset(), m.WaitOne(0)), KS_USER_ABORT), IS(a.Create(0, 1), 1) /* auto reset: one wait */,
               IS(a.WaitOne(0), 1), IS(a.WaitOne(0), KS_USER_ABORT)});
    auto t0 = Clock::now();
    EXPECT_TRUE(a.WaitOne(60) == KS_USER_ABORT && Clock::now() - t0 >= 55ms);
    std::thread setter([&] { std::this_thread::sleep_for(20ms), a.Set(); });
    EXPECT_EQ(a.WaitOne(KT_INFINITE), 1);
    setter.join();
    const long live = fi::liveBlocks();  // re-creating replaces the event and its state; no memory: no event
    expectAll({IS(a.Create(1, 1), 1), IS(a.WaitOne(0), 1), IS(a.WaitOne(0), 1),
               IS((fi::arm(0, 1), e.Create(1, 1)), KS_NO_MEMORY), IS((fi::disarm(), e.IsCreated()), 0),
               IS(e.WaitOne(0), 1), IS(fi::liveBlocks(), live)});
    // Auto reset with six waiters: each Set releases exactly one.
    ASSERT_EQ(e.Create(0, 0), 1);
    std::atomic<int> released{0};
    std::vector<std::thread> ts;
    for (int i = 0; i < 6; ++i) ts.emplace_back([&] { released += e.WaitOne(KT_INFINITE) == 1; });
    for (int i = 1; i <= 6; ++i) {
        e.Set();
        ASSERT_TRUE(waitUntil([&] { return released.load() == i; })) << i;
        std::this_thread::sleep_for(5ms);
        ASSERT_EQ(released.load(), i);  // no second waiter slipped through
    }
    for (auto& t : ts) t.join();
}

class RuntimeLock : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override { ktt::testhook::forceLockFallback(GetParam()); }
    void TearDown() override { ktt::testhook::forceLockFallback(false); }
};

// A lock never created does nothing; items release only the hold they took, move with it, time out without one.
TEST_P(RuntimeLock, ItemsReleaseTheMatchingHoldReadersShareWritersExclude) {
    KTReaderWriterLock l;
    KTReaderWriterLockItem r = l.AcquireReaderLock(), w = l.AcquireWriterLock();
    EXPECT_TRUE(l.IsCreated() == 0 && r.IsHeld() == 0 && w.IsHeld() == 0);
    l.Lock(), l.Lock(), l.Unlock(), l.ReleaseWriterLock();  // a second writer would deadlock a real lock
    ASSERT_EQ(l.Create(), 1);  // created in between: the empty items release nothing
    r.Release(), w.Release();
    EXPECT_EQ(KTThreadToolsUnmanaged::HasSlimLocks(), GetParam() ? 0 : 1);
    {
        KTReaderWriterLockItem a = KTReaderWriterLock::Acquire(&l, 1), moved(std::move(a));
        EXPECT_TRUE(moved.IsReader() == 1 && a.IsHeld() == 0 && moved.IsHeld() == 1);
        KTReaderWriterLockItem x = (moved.Release(), KTReaderWriterLock::Acquire(&l, 0)), other;
        EXPECT_TRUE(x.IsHeld() == 1 && x.IsReader() == 0);
        other = std::move(x);
        EXPECT_EQ(other.IsHeld(), 1);
    }
    std::atomic<bool> got{false};  // with the holds above gone another thread takes the writer hold at once
    expectAll({IS(KTReaderWriterLock::Acquire(nullptr, 1).IsHeld(), 0), IS(l.AcquireReaderLock(0).IsHeld(), 0),
               IS(l.AcquireWriterLock(0).IsHeld(), 0),
               IS((std::thread([&] { got = l.AcquireWriterLock(1).IsHeld() == 1; }).join(), got.load()), 1),
               IS((l.Destroy(), l.IsCreated()), 0), IS(l.Create(), 1), IS(l.Create(), 1) /* tears the old one down */});
    // Slim locks share readers, the fallback serialises them; a writer excludes readers; under contention a reader
    // never sees the two fields the writers keep equal differ.
    for (bool writer : {false, true}) {
        KTReaderWriterLockItem mine = writer ? KTReaderWriterLockItem() : l.AcquireReaderLock();
        if (writer) l.Lock();  // the plain writer hold
        std::atomic<bool> in{false};
        std::thread t([&] { in = l.AcquireReaderLock().IsHeld() == 1; });
        EXPECT_EQ(waitUntil([&] { return in.load(); }, writer ? 100ms : 1000ms), !writer && !GetParam());
        if (writer) l.Unlock();
        mine.Release();
        t.join();
        EXPECT_TRUE(in.load());
    }
    long a = 0, b = 0;
    std::atomic<long> torn{0}, reads{0};
    std::atomic<int> writersDone{0};
    onThreads(5, [&](int i) {  // two writers, three readers until they are done; each hold lasts one expression
        for (; i >= 2 && writersDone.load() < 2; ++reads) torn += (l.AcquireReaderLock(), a != b);
        while (i < 2 && reads.load() == 0) std::this_thread::yield();  // contend for real
        for (int k = 0; i < 2 && k < 20000; ++k) l.AcquireWriterLock(), ++a, ++b;
        writersDone += i < 2;
    });
    EXPECT_TRUE(torn.load() == 0 && a == 40000 && b == 40000);
}

INSTANTIATE_TEST_SUITE_P(Modes, RuntimeLock, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "SectionFallback" : "Slim"; });

struct CancelScene {
    std::atomic<bool> release{false}, longStarted{false}, longFinished{false};
    std::atomic<int> laterRan{0};
};

// Items run once each, with several owners at once; item results become the status only with KTWI_ITEM_STATUS.
TEST(RuntimeWorkItems, ItemsRunOnceResultsBecomeTheStatusAndCancels) {
    CoreCount cc(4);
    KTWorkItems w;
    ASSERT_TRUE(w.Create(5000, KTWI_LOCK_CANCEL | KTWI_ITEM_STATUS, 0) == 1 && w.IsThreaded() == 1);
    EXPECT_TRUE(runCounted(w, 5000) == 5000 && w.GetStatus() == 1 && w.IsCanceled() == 0);
    std::atomic<int> bad{0};
    onThreads(4, [&](int) {  // four owners at once
        for (int job = 0; job < 100; ++job) {
            KTWorkItems mine;
            bad += mine.Create(20, job % 2 ? KTWI_LOCK : 0, 0) != 1 || runCounted(mine, 20) != 20;
        }
    });
    EXPECT_EQ(bad.load(), 0);
    int minus7 = -7;
    for (uint32_t flags : {uint32_t(KTWI_ITEM_STATUS), uint32_t(KTWI_LOCK)}) {
        ASSERT_TRUE(w.Create(3, flags, 0) == 1 && w.GetStatus() == 1);  // re-create: status back to 1
        for (int i = 0; i < 3; ++i) w.QueueItem([](KTWorkItems*, void* d) { return *static_cast<int*>(d); }, &minus7);
        w.Wait();
        EXPECT_EQ(w.GetStatus(), flags == KTWI_ITEM_STATUS ? -7 : 1);
    }
    expectAll({IS((w.SetStatus(42), w.GetStatus()), 42), IS(w.GetLock().IsCreated(), 1),
               IS((w.Destroy(), w.GetStatus()), 1), IS(w.GetLock().IsCreated(), 0)});
    // An item's -100 cancels what has not started, the running item finishes, later items never run, Wait returns.
    std::atomic<int> ran{0};
    KTWorkItems c;
    ASSERT_EQ(c.Create(2000, KTWI_LOCK_CANCEL, 0), 1);
    for (int i = 0; i < 2000; ++i)
        if (c.QueueItem(countItem, &ran), i == 10) c.Cancel();
    c.Wait();
    EXPECT_LE(ran.load(), 11);
    KTThreadPool::QueueUserWorkItem([](void* d) { return countItem(nullptr, d); }, &ran, 0);
    waitUntil([&] { return ran.load() >= 1; });
    if (KTThreadPool::GetThreadCount() < 2) GTEST_SKIP() << "needs two pool workers";  // one blocked, one free
    for (uint32_t flags : {0u, uint32_t(KTWI_LOCK_CANCEL | KTWI_ITEM_STATUS)}) {
        CancelScene s;
        KTWorkItems w;
        ASSERT_EQ(w.Create(202, flags, 0), 1);
        w.QueueItem([](KTWorkItems*, void* d) {
            auto* sc = static_cast<CancelScene*>(d);
            for (sc->longStarted = true; !sc->release.load();) std::this_thread::sleep_for(1ms);
            return sc->longFinished = true, 1;
        }, &s);
        ASSERT_TRUE(waitUntil([&] { return s.longStarted.load(); }));
        w.QueueItem(abortItem, nullptr);
        ASSERT_TRUE(waitUntil([&] { return w.IsCanceled() == 1; }));
        auto later = [](KTWorkItems*, void* d) { return ++static_cast<CancelScene*>(d)->laterRan, 1; };
        for (int i = 0; i < 200; ++i) ASSERT_EQ(w.QueueItem(later, &s), 1);
        EXPECT_FALSE(s.longFinished.load());
        s.release = true;
        w.Wait();
        const int st = w.GetStatus();  // the running item reported last (1) or the cancelling one (-100)
        EXPECT_TRUE(s.longFinished.load() && s.laterRan.load() == 0 &&
                    (!(flags & KTWI_ITEM_STATUS) || st == 1 || st == KS_USER_ABORT)) << st;
    }
}

// A count not reached waits until Finish; Finish may release the waiter early; destruction waits for running items.
TEST(RuntimeWorkItems, FinishDestroySingleThreadModeAndOutOfMemory) {
    CoreCount cc(4);
    for (uint32_t announced : {10u, 0u}) {
        KTWorkItems w;
        ASSERT_EQ(w.Create(announced, 0, 0), 1);
        std::atomic<int> ran{0};
        std::atomic<bool> returned{false};
        for (int i = 0; i < 3; ++i) w.QueueItem(countItem, &ran);
        ASSERT_TRUE(waitUntil([&] { return ran.load() == 3; }));
        std::thread waiter([&] { w.Wait(), returned = true; });
        EXPECT_FALSE(waitUntil([&] { return returned.load(); }, 100ms)) << announced;
        EXPECT_EQ(w.Finish(), 1);
        waiter.join();
    }
    std::atomic<int> finished{0};
    {
        KTWorkItems w;
        ASSERT_EQ(w.Create(10, KTWI_ITEM_STATUS, 0), 1);
        for (int i = 0; i < 4; ++i)
            w.QueueItem([](KTWorkItems* items, void* d) {
                std::this_thread::sleep_for(30ms);
                items->SetStatus(1);  // touches the object late in the item
                return ++*static_cast<std::atomic<int>*>(d), 1;
            }, &finished);
        w.Finish();
        w.Wait();
        EXPECT_LT(finished.load(), 4);  // released early
    }  // the destructor waits here
    EXPECT_EQ(finished.load(), 4);
    // Single-thread mode or one processor: items run inside QueueItem, their result is the status, -100 cancels the
    // rest; a QueueItem without memory or function counts as finished; Create without memory makes no lock.
    for (int mode = 0; mode < 2; ++mode) {
        CoreCount cc(mode == 0 ? 4 : 1);
        KTWorkItems w;
        ASSERT_EQ(w.Create(3, mode == 0 ? KTWI_SINGLE_THREAD : 0, 0), 1);
        std::thread::id where;
        std::atomic<int> ran{0};
        auto item = [](KTWorkItems*, void* d) { return *static_cast<std::thread::id*>(d) = tid(), -5; };
        expectAll({IS(w.IsThreaded(), 0), IS(w.QueueItem(item, &where), 1), IS(where == tid(), 1),
                   IS(w.GetStatus(), -5), IS(w.Wait(), 1), IS(w.Finish(), 1) /* return at once */,
                   IS(w.QueueItem(abortItem, nullptr), 1), IS(w.QueueItem(countItem, &ran), 1), IS(ran.load(), 0),
                   IS(w.GetStatus(), KS_USER_ABORT)});
    }
    ktt::testhook::setCoreCount(4);  // again: the loop's counts ended
    std::atomic<int> ran{0};
    ASSERT_EQ(warmPool(), 1);  // the pool's own blocks are not counted below
    const long live = fi::liveBlocks();
    KTWorkItems w;
    expectAll({IS(w.Create(4, 0, 0), 1), IS(w.QueueItem(countItem, &ran), 1),
               IS((fi::arm(0, 1), w.QueueItem(countItem, &ran)), KS_NO_MEMORY),
               IS((fi::disarm(), w.QueueItem(nullptr, &ran)), KS_INVALID_PARAMETER),
               IS(w.QueueItem(countItem, &ran), 1), IS((w.Wait(), ran.load()), 2),
               IS((w.Destroy(), fi::liveBlocks()), live), IS((fi::arm(0, 1), w.Create(3, KTWI_LOCK, 0)), KS_NO_MEMORY),
               IS((fi::disarm(), w.GetLock().IsCreated()), 0), IS(fi::liveBlocks(), live)});
}

// The process ends promptly with a long item on every worker, and on exit() inside an item; after shutdown
// requests run on the caller, items the pool drops count as finished.
TEST(RuntimePoolDeathTest, ExitAndShutdown) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto t0 = Clock::now();
    EXPECT_EXIT({
        static std::atomic<int> started{0};
        for (int i = 0; i < 4; ++i) KTThreadPool::QueueUserWorkItem(sleepItem<60000>, &started, 0);
        for (int i = 0; i < 1000; ++i) KTThreadPool::QueueUserWorkItem([](void*) { return 1; }, nullptr, 0);
        waitUntil([] { return started.load() >= KTThreadPool::GetThreadCount(); });
        std::exit(3);
    }, ::testing::ExitedWithCode(3), "");
    EXPECT_LT(Clock::now() - t0, 30s);
    EXPECT_EXIT((KTThreadPool::QueueUserWorkItem(exitItem, nullptr, 0), std::this_thread::sleep_for(60s), std::exit(5)),
                ::testing::ExitedWithCode(4), "");
    EXPECT_EXIT({
        CoreCount cc(4);
        KTWorkItems w;
        const int before = (w.Create(50, 0, 0), runCounted(w, 50));
        const bool joined = ktt::shutdownPool(5000);
        std::thread::id where;
        KTThreadPool::QueueUserWorkItem(threadIdItem, &where, 0);
        w.Create(5, 0, 0);
        const bool ok = joined && before == 50 && runCounted(w, 5) == 5 && where == tid();
        std::exit(ok && KTThreadPool::GetThreadCount() == 0 ? 0 : 1);
    }, ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT({
        CoreCount cc(4);
        static std::atomic<int> blocking{0};
        static std::atomic<int> ran{0};
        KTWorkItems w;
        const int workers = (w.Create(1, 0, 0), runCounted(w, 1), KTThreadPool::GetThreadCount());  // a warm pool
        for (int i = 0; i < workers; ++i) KTThreadPool::QueueUserWorkItem(sleepItem<500>, &blocking, 0);
        waitUntil([&] { return blocking.load() == workers; });
        w.Create(5, 0, 0);
        for (int i = 0; i < 5; ++i) w.QueueItem(countItem, &ran);
        const bool joined = ktt::shutdownPool(20);  // the blockers outlive the grace
        std::exit((w.Wait(), joined || ran.load() != 0));
    }, ::testing::ExitedWithCode(0), "");
}

TEST(RuntimeCriticalSection, FrameAndMutualExclusion) {
    CRITICAL_SECTION cs{};
    const long live = fi::liveBlocks();
    std::atomic<int> other{0};
    expectAll({IS(K_IntInitializeCriticalSection(nullptr), KS_INVALID_PARAMETER),
               IS(K_IntEnterCriticalSection(nullptr), KS_INVALID_PARAMETER),
               IS(K_IntLeaveCriticalSection(nullptr), KS_INVALID_PARAMETER),
               IS(K_IntEnterCriticalSection(&cs), KS_INVALID_PARAMETER) /* not initialised */,
               IS(K_IntDeleteCriticalSection(nullptr), KS_NULL_POINTER),
               IS(K_IntDeleteCriticalSection(&cs), KS_SUCCESS),
               IS((fi::arm(0, 1), K_IntInitializeCriticalSection(&cs)), KS_NO_MEMORY),
               IS((fi::disarm(), cs.pLock == nullptr), 1), IS(K_IntInitializeCriticalSection(&cs), 1),
               IS(cs.pLock != nullptr, 1), IS(K_IntEnterCriticalSection(&cs), 1), IS(K_IntEnterCriticalSection(&cs), 1),
               IS((std::thread([&] { other = K_IntLeaveCriticalSection(&cs); }).join(), other.load()), KS_INTERNAL),
               IS(K_IntLeaveCriticalSection(&cs), 1), IS(K_IntLeaveCriticalSection(&cs), 1),
               IS(K_IntLeaveCriticalSection(&cs), KS_INTERNAL) /* no longer owned */});
    long counter = 0;
    onThreads(4, [&](int) {
        for (int k = 0; k < 20000; ++k)  // recursive holds
            K_IntEnterCriticalSection(&cs), K_IntEnterCriticalSection(&cs), ++counter, K_IntLeaveCriticalSection(&cs),
                K_IntLeaveCriticalSection(&cs);
    });
    expectAll({IS(counter, 80000), IS(K_IntDeleteCriticalSection(&cs), 1), IS(cs.pLock == nullptr, 1),
               IS(fi::liveBlocks(), live)});
}

struct StatusHook {  // installs a status callback for the calling thread and restores the old one
    STATUSCALLBACK oldFn = nullptr;
    void* oldUser = nullptr;
    StatusHook(STATUSCALLBACK fn, void* user) { K_SetStatusCallBack(fn, user, &oldFn, &oldUser); }
    ~StatusHook() { K_SetStatusCallBack(oldFn, oldUser, nullptr, nullptr); }
};
int32_t pixelRows(const uint32_t* src, uint32_t* dst, int width, int y0, int y1) {  // the benchmark's arithmetic
    for (size_t i = size_t(y0) * width; i < size_t(y1) * width; ++i)
        dst[i] = (src[i] * 2654435761u) ^ (src[i] >> 7) ^ uint32_t((i / width) * 31 + i % width);
    return 1;
}
const auto kNothing = [](int32_t, int32_t, int32_t) { return 1; };
krn::ParallelOptions threads(int n) { krn::ParallelOptions o; o.maxThreads = n; return o; }

// Every row once, a slot never runs two bands at once, the threaded image equals the serial one; bad arguments.
TEST(RuntimeParallel, EveryRowOnceAndSameImageAsSerial) {
    CoreCount cc(4);
    const int w = 97;
    for (int h : {1, 2, 31, 32, 33, 500, 1999}) {
        std::vector<uint32_t> src(size_t(w) * h), serial(src.size(), 0xAAAAAAAAu), par(src.size(), 0x55555555u);
        for (size_t i = 0; i < src.size(); ++i) src[i] = uint32_t(i * 7919u);
        std::vector<std::atomic<int>> hits(h);
        krn::ParallelOptions many;
        many.bytesPerRow = 0;  // unknown: never counted as small
        auto serialBand = [&](auto y0, auto y1, auto) { return pixelRows(src.data(), serial.data(), w, y0, y1); };
        ASSERT_EQ(krn::parallelRows(h, serialBand, threads(1)), 1);
        const int32_t slots = krn::parallelMaxSlots();
        std::vector<std::atomic<int>> busy(slots);
        std::atomic<int> bad{0};
        ASSERT_EQ(krn::parallelRows(h, [&](int32_t y0, int32_t y1, int32_t slot) {
            if (slot < 0 || slot >= slots || busy[slot].exchange(1)) return ++bad, 1;
            for (int y = y0; y < y1; ++y) hits[y]++;
            pixelRows(src.data(), par.data(), w, y0, y1);
            return busy[slot] = 0, 1;
        }, many), 1) << h;
        EXPECT_EQ(bad.load(), 0) << "a slot out of range or running two bands";
        for (int y = 0; y < h; ++y) ASSERT_EQ(hits[y].load(), 1) << "row " << y << " of " << h;
        ASSERT_EQ(std::memcmp(serial.data(), par.data(), src.size() * 4), 0) << h;
    }
    int calls = 0;
    expectAll({IS(krn::parallelRows(10, krn::RowBandFn(nullptr), nullptr), KS_INVALID_PARAMETER),
               IS(krn::parallelRows(-1, kNothing), KS_INVALID_PARAMETER),
               IS(krn::parallelRows(0, [&](int32_t, int32_t, int32_t) { return ++calls, 1; }), 1), IS(calls, 0),
               IS(krn::parallelMaxSlots(threads(1)), 1)});
}

struct ProgressLog {
    std::vector<int> seen;
    std::thread::id caller = tid();
    bool foreign = false;
    int stopAt = 1000, answer = KS_USER_ABORT;
    std::atomic<bool> stopGiven{false};
};
int32_t logProgress(int32_t pct, void* user) {
    auto* log = static_cast<ProgressLog*>(user);
    log->foreign = log->foreign || tid() != log->caller;
    log->seen.push_back(pct);
    if (pct < log->stopAt) return 1;
    return log->stopGiven = true, log->answer;
}

// Progress (each whole percent, sub-ranges: ProgressCallbacks) rises on the caller's thread; the copy callback only
// when asked.
TEST(RuntimeParallel, ProgressStopAnswersAndBandFailures) {
    CoreCount cc(4);
    {
        ProgressLog log;
        StatusHook hook(logProgress, &log);
        ASSERT_EQ(krn::parallelRows(3000, kNothing, threads(0)), 1);
        EXPECT_TRUE(log.seen.size() >= 2 && log.seen.front() == 0 && log.seen.back() == 100 && !log.foreign &&
                    std::is_sorted(log.seen.begin(), log.seen.end(), std::less_equal<int>()));
    }
    ProgressLog log;
    STATUSCALLBACK oldFn;
    void* oldUser;
    K_SetCopyStatusCallBack(logProgress, &log, &oldFn, &oldUser);
    for (auto mode : {krn::ParallelProgress::None, krn::ParallelProgress::CopyStatus}) {
        krn::ParallelOptions o;
        o.progress = mode;
        krn::parallelRows(100, kNothing, o);
        EXPECT_EQ(log.seen.empty(), mode == krn::ParallelProgress::None);
    }
    K_SetCopyStatusCallBack(oldFn, oldUser, nullptr, nullptr);
    // A stop answer ends the job with that answer; the first band failure is the result; exceptions become statuses.
    for (int n : {1, 0}) {
        for (int answer : {int(KS_USER_ABORT), 0, 2}) {
            ProgressLog log;
            log.stopAt = 30, log.answer = answer;
            StatusHook hook(logProgress, &log);
            std::atomic<int> rows{0}, afterReturn{0};
            std::atomic<bool> returned{false};
            const int32_t r = krn::parallelRows(4000, [&](int32_t y0, int32_t y1, int32_t) {
                afterReturn += returned.load();
                // Helpers hold their first band until the stop was answered, so the caller alone reaches 30%.
                while (tid() != log.caller && !log.stopGiven.load()) std::this_thread::sleep_for(100us);
                return rows += y1 - y0, 1;
            }, threads(n));
            returned = true;
            EXPECT_EQ(r, answer);
            // The caller's bands up to 30% plus at most one band held by each helper (bands are 1/64).
            EXPECT_LE(rows.load(), 4000 * 31 / 100 + krn::parallelMaxSlots(threads(n)) * ((4000 + 63) / 64));
            EXPECT_TRUE(log.seen.back() >= 30 && afterReturn.load() == 0);
        }
        std::atomic<int> rows{0};
        auto failAt1000 = [&](auto y0, auto y1, auto) { return rows += y1 - y0, y0 <= 1000 && y1 > 1000 ? -7 : 1; };
        EXPECT_EQ(krn::parallelRows(5000, failAt1000, threads(n)), -7);
        EXPECT_TRUE(n == 0 || rows.load() < 5000 / 2) << "bands ran after the failing one";
    }
    auto thrower = [](int32_t, int32_t, int32_t) -> int32_t { throw std::bad_alloc(); };
    EXPECT_EQ(krn::parallelRows(10, thrower), KS_NO_MEMORY);
    ProgressLog first;  // a stop on the very first report runs nothing
    first.stopAt = 0;
    StatusHook hook(logProgress, &first);
    int calls = 0;
    EXPECT_EQ(krn::parallelRows(100, [&](int32_t, int32_t, int32_t) { return ++calls, 1; }), KS_USER_ABORT);
    EXPECT_EQ(calls, 0);
}

// Small jobs, one processor and calls from inside a pool item stay on the caller.
TEST(RuntimeParallel, SmallJobsNestedCallsOneProcessorAndOutOfMemory) {
    auto onlyCaller = [](const krn::ParallelOptions& o, int h) {
        const std::thread::id me = tid();
        std::atomic<bool> foreign{false};
        auto band = [&](int32_t, int32_t, int32_t slot) { return foreign = foreign || tid() != me || slot != 0, 1; };
        krn::parallelRows(h, band, o);
        return !foreign.load();
    };
    EXPECT_TRUE((CoreCount(1), onlyCaller(krn::ParallelOptions{}, 5000)));
    CoreCount cc(4);
    krn::ParallelOptions small, big;
    small.bytesPerRow = 64, big.bytesPerRow = 1 << 20;  // 64 x 1000 bytes: below the threshold
    EXPECT_TRUE(onlyCaller(small, 1000) && krn::parallelMaxSlots(big) >= 2);
    std::atomic<int> done{0};
    KTWorkItems w;
    ASSERT_EQ(w.Create(8, 0, 0), 1);
    for (int i = 0; i < 8; ++i)
        w.QueueItem([](KTWorkItems*, void* d) {
            const std::thread::id me = tid();
            bool serial = true;
            const int32_t r = krn::parallelRows(2000, [&](auto...) { return serial = serial && tid() == me, 1; });
            return *static_cast<std::atomic<int>*>(d) += r == 1 && serial, 1;
        }, &done);
    w.Wait();
    EXPECT_EQ(done.load(), 8);
    // Allocation failures only take threads away: the caller does the bands.
    krn::parallelRows(100, kNothing);  // warm up the pool
    const long live = fi::liveBlocks();
    for (long n = 0; n < 6; ++n)
        for (long repeat : {1L, -1L}) {
            std::vector<std::atomic<int>> hits(700);
            fi::arm(n, repeat);
            const int32_t r = krn::parallelRows(700, [&](int32_t y0, int32_t y1, int32_t) {
                for (int y = y0; y < y1; ++y) hits[y]++;
                return 1;
            });
            fi::disarm();
            EXPECT_TRUE(r == 1 && fi::liveBlocks() == live) << n;
            for (int y = 0; y < 700; ++y) ASSERT_EQ(hits[y].load(), 1) << n;
        }
}

}  // namespace
