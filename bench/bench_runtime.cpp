// bench_runtime.cpp - thread tools and the row helper.
//
//   BM_WorkItems_QueueAndComplete   Create + N trivial items + Wait on the
//                                   pool; the us_per_item counter is the
//                                   cost of QueueItem plus completion
//   BM_WorkItems_SingleThreadMode   the same with items run inline (flag 8),
//                                   the floor without threads
//   BM_PoolQueueUserWorkItem        the raw pool request, per item
//   BM_RowJob_4000x3000x32/threads  a memory-light per-pixel pass through the
//                                   row helper with 1 and 2 threads; the
//                                   speed-up is the ratio of the two times
//   BM_RowJob_..._PlainThreads      the same pass on two plain std::threads:
//                                   the ceiling the machine gives right now
//   BM_Memcpy_4000x3000x32          memcpy of the same buffer
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "ombrix.h"
#include "krn/common/parallel.h"

namespace {

constexpr int kItems = 1000;

int trivialItem(KTWorkItems*, void* data) {
    static_cast<std::atomic<int>*>(data)->fetch_add(1, std::memory_order_relaxed);
    return 1;
}

void queueAndComplete(benchmark::State& state, uint32_t flags) {
    std::atomic<int> ran{0};
    for (auto _ : state) {
        KTWorkItems w;
        if (w.Create(kItems, flags, 0) != KS_SUCCESS) state.SkipWithError("Create failed");
        for (int i = 0; i < kItems; ++i) w.QueueItem(trivialItem, &ran);
        w.Wait();
    }
    if (ran.load() != int(state.iterations()) * kItems) state.SkipWithError("items lost");
    state.counters["us_per_item"] = benchmark::Counter(double(state.iterations()) * kItems * 1e-6,
                                                       benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_WorkItems_QueueAndComplete(benchmark::State& state) { queueAndComplete(state, 0); }
BENCHMARK(BM_WorkItems_QueueAndComplete)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_WorkItems_SingleThreadMode(benchmark::State& state) { queueAndComplete(state, KTWI_SINGLE_THREAD); }
BENCHMARK(BM_WorkItems_SingleThreadMode)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_PoolQueueUserWorkItem(benchmark::State& state) {
    std::atomic<int> ran{0};
    long queued = 0;
    for (auto _ : state) {
        for (int i = 0; i < kItems; ++i)
            KTThreadPool::QueueUserWorkItem(
                [](void* c) {
                    static_cast<std::atomic<int>*>(c)->fetch_add(1, std::memory_order_relaxed);
                    return 1;
                },
                &ran, 0);
        queued += kItems;
        while (ran.load(std::memory_order_relaxed) != queued) std::this_thread::yield();
    }
    state.counters["us_per_item"] = benchmark::Counter(double(state.iterations()) * kItems * 1e-6,
                                                       benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_PoolQueueUserWorkItem)->Unit(benchmark::kMicrosecond)->UseRealTime();

// ------------------------------------------------------------------ row job
constexpr int kW = 4000, kH = 3000;

// A few integer operations per channel and no extra memory traffic: the
// pass is bound by arithmetic, so two cores can nearly halve it.
inline uint32_t shade(uint32_t p, uint32_t y) {
    uint32_t out = 0;
    for (int c = 0; c < 4; ++c) {
        uint32_t v = (p >> (8 * c)) & 0xFF;
        v = (v * v * 77u + v * 151u + y) >> 8;
        v = (v * 181u + 64u) >> 7;
        out |= (v & 0xFF) << (8 * c);
    }
    return out;
}

struct RowJob {
    uint32_t* pixels;
};

void BM_RowJob_4000x3000x32(benchmark::State& state) {
    std::vector<uint32_t> img(size_t(kW) * kH);
    std::memcpy(img.data(), bench::randomBytes(img.size() * 4).data(), img.size() * 4);
    krn::ParallelOptions opt;
    opt.maxThreads = int32_t(state.range(0));
    opt.bytesPerRow = kW * 4;
    opt.progress = krn::ParallelProgress::None;
    for (auto _ : state) {
        int32_t r = krn::parallelRows(kH, [&](int32_t y0, int32_t y1, int32_t) {
            for (int32_t y = y0; y < y1; ++y) {
                uint32_t* row = img.data() + size_t(y) * kW;
                for (int x = 0; x < kW; ++x) row[x] = shade(row[x], uint32_t(y));
            }
            return 1;
        }, opt);
        if (r != KS_SUCCESS) state.SkipWithError("row job failed");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(img.size()) * 4);
    state.counters["threads"] = double(krn::parallelMaxSlots(opt));
}
// Process CPU time: the CPU column is the work of all threads together, so
// 2-thread CPU close to 1-thread CPU means the split costs nothing.
BENCHMARK(BM_RowJob_4000x3000x32)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

// The ceiling the machine allows: the same pass split in two halves over two
// plain std::threads, no pool and no bands. When this shows no gain the
// cores are taken by other work and the row helper cannot show one either.
void BM_RowJob_4000x3000x32_PlainThreads(benchmark::State& state) {
    std::vector<uint32_t> img(size_t(kW) * kH);
    std::memcpy(img.data(), bench::randomBytes(img.size() * 4).data(), img.size() * 4);
    auto rows = [&](int y0, int y1) {
        for (int y = y0; y < y1; ++y) {
            uint32_t* row = img.data() + size_t(y) * kW;
            for (int x = 0; x < kW; ++x) row[x] = shade(row[x], uint32_t(y));
        }
    };
    for (auto _ : state) {
        std::thread other(rows, kH / 2, kH);
        rows(0, kH / 2);
        other.join();
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(img.size()) * 4);
}
BENCHMARK(BM_RowJob_4000x3000x32_PlainThreads)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

void BM_Memcpy_4000x3000x32(benchmark::State& state) { bench::memcpyBaseline(state, size_t(kW) * kH * 4); }
BENCHMARK(BM_Memcpy_4000x3000x32)->Unit(benchmark::kMillisecond);

}  // namespace
