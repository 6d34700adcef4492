// test_runtime_parallel.cpp - the row helper: every row exactly once, the
// serial and parallel runs give the same image, slots never run two bands
// at once, progress is ordered and on the caller's thread, the stop answer
// and band failures end the job with their status, small jobs and nested
// calls stay on the caller, and out-of-memory only costs parallelism.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <tuple>
#include <vector>

#include "ombrix.h"
#include "krn/common/memory.h"
#include "krn/common/parallel.h"
#include "ktthreading_.h"

namespace {

struct CoreCount {
    explicit CoreCount(int n) { ktt::testhook::setCoreCount(n); }
    ~CoreCount() { ktt::testhook::setCoreCount(0); }
};

// Installs a status callback for the calling thread and restores the old one.
struct StatusHook {
    STATUSCALLBACK oldFn = nullptr;
    void* oldUser = nullptr;
    StatusHook(STATUSCALLBACK fn, void* user) { K_SetStatusCallBack(fn, user, &oldFn, &oldUser); }
    ~StatusHook() { K_SetStatusCallBack(oldFn, oldUser, nullptr, nullptr); }
};

// A per-pixel job (the same arithmetic as the benchmark) over a 32-bit image.
void pixelRows(const uint32_t* src, uint32_t* dst, int width, int y0, int y1) {
    for (size_t i = size_t(y0) * width; i < size_t(y1) * width; ++i)
        dst[i] = (src[i] * 2654435761u) ^ (src[i] >> 7) ^ uint32_t((i / width) * 31 + i % width);
}
const auto kNothing = [](int32_t, int32_t, int32_t) { return 1; };

// Every row exactly once, a slot never runs two bands at once, and the
// threaded run gives the serial image; bad arguments and empty jobs.
TEST(RuntimeParallel, EveryRowOnceAndSameImageAsSerial) {
    CoreCount cc(4);
    const int w = 97;
    for (int h : {1, 2, 31, 32, 33, 500, 1999}) {
        std::vector<uint32_t> src(size_t(w) * h), serial(src.size(), 0xAAAAAAAAu), par(src.size(), 0x55555555u);
        for (size_t i = 0; i < src.size(); ++i) src[i] = uint32_t(i * 7919u);
        std::vector<std::atomic<int>> hits(h);
        krn::ParallelOptions one, many;
        one.maxThreads = 1;
        many.bytesPerRow = 0;  // unknown: never counted as small
        ASSERT_EQ(krn::parallelRows(h, [&](int32_t y0, int32_t y1, int32_t) { return pixelRows(src.data(), serial.data(), w, y0, y1), 1; }, one), 1);
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
    EXPECT_EQ(krn::parallelRows(10, krn::RowBandFn(nullptr), nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(krn::parallelRows(-1, kNothing), KS_INVALID_PARAMETER);
    int calls = 0;
    EXPECT_EQ(krn::parallelRows(0, [&](int32_t, int32_t, int32_t) { return ++calls, 1; }), 1);
    EXPECT_EQ(calls, 0);
    krn::ParallelOptions o;
    o.maxThreads = 1;
    EXPECT_EQ(krn::parallelMaxSlots(o), 1);
}

struct ProgressLog {
    std::vector<int> seen;
    std::thread::id caller = std::this_thread::get_id();
    bool foreign = false;
    int stopAt = 1000, answer = KS_USER_ABORT;
    std::atomic<bool> stopGiven{false};
};
int32_t logProgress(int32_t pct, void* user) {
    auto* log = static_cast<ProgressLog*>(user);
    log->foreign = log->foreign || std::this_thread::get_id() != log->caller;
    log->seen.push_back(pct);
    if (pct < log->stopAt) return 1;
    log->stopGiven = true;
    return log->answer;
}

// Serial, threaded, and a sub-range for one pass of a longer operation:
// rising, from..to, on the caller's thread; the copy callback only when asked.
TEST(RuntimeParallel, ProgressIsOrderedAndOnTheCallersThread) {
    CoreCount cc(4);
    for (auto [threads, from, to] : {std::tuple{1, 0, 100}, {0, 0, 100}, {0, 50, 75}}) {
        ProgressLog log;
        StatusHook hook(logProgress, &log);
        krn::ParallelOptions o;
        o.maxThreads = threads;
        o.progressFrom = from, o.progressTo = to;
        ASSERT_EQ(krn::parallelRows(3000, kNothing, o), 1);
        ASSERT_GE(log.seen.size(), 2u);
        EXPECT_TRUE(log.seen.front() == from && log.seen.back() == to && !log.foreign);
        EXPECT_TRUE(std::is_sorted(log.seen.begin(), log.seen.end(), std::less_equal<int>()));
    }
    ProgressLog log;
    STATUSCALLBACK oldFn;
    void* oldUser;
    K_SetCopyStatusCallBack(logProgress, &log, &oldFn, &oldUser);
    krn::ParallelOptions o;
    o.progress = krn::ParallelProgress::None;
    krn::parallelRows(100, kNothing, o);
    EXPECT_TRUE(log.seen.empty());
    o.progress = krn::ParallelProgress::CopyStatus;
    krn::parallelRows(100, kNothing, o);
    EXPECT_FALSE(log.seen.empty());
    K_SetCopyStatusCallBack(oldFn, oldUser, nullptr, nullptr);
}

// A stop answer ends the job with that answer and nothing starts after it;
// the first band failure is the result; exceptions become statuses.
TEST(RuntimeParallel, StopAnswerAndBandFailureEndTheJob) {
    CoreCount cc(4);
    for (int threads : {1, 0}) {
        for (int answer : {int(KS_USER_ABORT), 0, 2}) {
            ProgressLog log;
            log.stopAt = 30;
            log.answer = answer;
            StatusHook hook(logProgress, &log);
            std::atomic<int> rows{0}, afterReturn{0};
            std::atomic<bool> returned{false};
            krn::ParallelOptions o;
            o.maxThreads = threads;
            const int32_t r = krn::parallelRows(4000, [&](int32_t y0, int32_t y1, int32_t) {
                afterReturn += returned.load();
                // Helpers hold their first band until the stop was answered,
                // so the caller alone reaches 30% whatever the scheduler does.
                while (std::this_thread::get_id() != log.caller && !log.stopGiven.load())
                    std::this_thread::sleep_for(std::chrono::microseconds(100));
                return rows += y1 - y0, 1;
            }, o);
            returned = true;
            EXPECT_EQ(r, answer);
            // The caller's bands up to 30% plus at most one band held by each helper (bands are 1/64).
            EXPECT_LE(rows.load(), 4000 * 31 / 100 + krn::parallelMaxSlots(o) * ((4000 + 63) / 64)) << "stopped late";
            EXPECT_GE(log.seen.back(), 30);
            EXPECT_EQ(afterReturn.load(), 0);
        }
        krn::ParallelOptions o;
        o.maxThreads = threads;
        std::atomic<int> rows{0};
        EXPECT_EQ(krn::parallelRows(5000, [&](int32_t y0, int32_t y1, int32_t) { return rows += y1 - y0, (y0 <= 1000 && 1000 < y1) ? -7 : 1; }, o), -7);
        EXPECT_TRUE(threads == 0 || rows.load() < 5000 / 2) << "bands ran after the failing one";
    }
    EXPECT_EQ(krn::parallelRows(10, [](int32_t, int32_t, int32_t) -> int32_t { throw std::bad_alloc(); }), KS_NO_MEMORY);
    ProgressLog log;  // a stop on the very first report runs nothing
    log.stopAt = 0;
    StatusHook hook(logProgress, &log);
    int calls = 0;
    EXPECT_EQ(krn::parallelRows(100, [&](int32_t, int32_t, int32_t) { return ++calls, 1; }), KS_USER_ABORT);
    EXPECT_EQ(calls, 0);
}

// Small jobs, one processor and calls from inside a pool item stay on the
// caller (nested calls do not wait on the pool).
TEST(RuntimeParallel, SmallJobsNestedCallsAndOneProcessorStayOnTheCaller) {
    auto onlyCaller = [](const krn::ParallelOptions& o, int h) {
        const std::thread::id me = std::this_thread::get_id();
        std::atomic<bool> foreign{false};
        krn::parallelRows(h, [&](int32_t, int32_t, int32_t slot) { return foreign = foreign || std::this_thread::get_id() != me || slot != 0, 1; }, o);
        return !foreign.load();
    };
    {
        CoreCount cc(1);
        EXPECT_TRUE(onlyCaller(krn::ParallelOptions{}, 5000));
    }
    CoreCount cc(4);
    krn::ParallelOptions small, big;
    small.bytesPerRow = 64;  // 64 x 1000 bytes: below the threshold
    big.bytesPerRow = 1 << 20;
    EXPECT_TRUE(onlyCaller(small, 1000));
    EXPECT_GE(krn::parallelMaxSlots(big), 2);
    std::atomic<int> done{0};
    KTWorkItems w;
    ASSERT_EQ(w.Create(8, 0, 0), 1);
    for (int i = 0; i < 8; ++i)
        w.QueueItem([](KTWorkItems*, void* d) {
            const std::thread::id me = std::this_thread::get_id();
            bool serial = true;
            const int32_t r = krn::parallelRows(2000, [&](int32_t, int32_t, int32_t) { return serial = serial && std::this_thread::get_id() == me, 1; });
            return *static_cast<std::atomic<int>*>(d) += r == 1 && serial, 1;
        }, &done);
    w.Wait();
    EXPECT_EQ(done.load(), 8);
}

// Allocation failures only take threads away: the caller does the bands.
TEST(RuntimeParallel, OutOfMemoryStillCompletesWithoutLeaks) {
    CoreCount cc(4);
    krn::parallelRows(100, kNothing);  // warm up the pool
    const long live = krn::faultinject::liveBlocks();
    for (long n = 0; n < 6; ++n)
        for (long repeat : {1L, -1L}) {
            std::vector<std::atomic<int>> hits(700);
            krn::faultinject::arm(n, repeat);
            const int32_t r = krn::parallelRows(700, [&](int32_t y0, int32_t y1, int32_t) {
                for (int y = y0; y < y1; ++y) hits[y]++;
                return 1;
            });
            krn::faultinject::disarm();
            EXPECT_EQ(r, 1);
            for (int y = 0; y < 700; ++y) ASSERT_EQ(hits[y].load(), 1) << n;
            EXPECT_EQ(krn::faultinject::liveBlocks(), live) << n;
        }
}

}  // namespace
