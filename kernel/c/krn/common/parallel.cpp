// parallel.cpp - the row helper (see parallel.h).
//
// Bands are claimed from one atomic counter, so a slow thread takes fewer
// of them; there are about 64 bands per thread (at least 64 in all): the
// threads then finish within a small band of each other (with 2 threads and
// 16 bands each, waiting for the last band cost about 5% against two plain
// threads splitting the image in halves), and progress moves in steps of
// 1-2%. A claim is one atomic add, so small bands cost nothing measurable. The calling
// thread claims bands like the helpers and is the only one that calls the
// progress callback.
#include "parallel.h"

#include <algorithm>
#include <atomic>

#include "kernel.h"
#include "progress.h"
#include "ktthreading_.h"

namespace krn {
namespace {

struct Job {
    RowBandFn fn;
    void* ctx;
    int32_t height;
    int32_t bandRows;
    int32_t bands;
    std::atomic<int32_t> nextBand{0};
    std::atomic<int32_t> nextSlot{1};  // slot 0 is the calling thread
    std::atomic<int64_t> rowsDone{0};
    std::atomic<int32_t> result{KS_SUCCESS};
    std::atomic<bool> stop{false};
};

// Runs bands until none is left or the job stops; returns after each band
// when `oneBand` is set, so the caller can report progress in between.
// Returns false when there was no band to take.
bool runBand(Job& job, int32_t slot) noexcept {
    if (job.stop.load(std::memory_order_acquire)) return false;
    int32_t b = job.nextBand.fetch_add(1, std::memory_order_relaxed);
    if (b >= job.bands) return false;
    int32_t y0 = b * job.bandRows;
    int32_t y1 = std::min(job.height, y0 + job.bandRows);
    int32_t r = job.fn(job.ctx, y0, y1, slot);
    if (r != KS_SUCCESS) {
        int32_t expected = KS_SUCCESS;
        job.result.compare_exchange_strong(expected, r, std::memory_order_acq_rel);
        job.stop.store(true, std::memory_order_release);
    }
    job.rowsDone.fetch_add(y1 - y0, std::memory_order_acq_rel);
    return true;
}

int helperItem(KTWorkItems* /*items*/, void* data) {
    Job& job = *static_cast<Job*>(data);
    int32_t slot = job.nextSlot.fetch_add(1, std::memory_order_relaxed);
    while (runBand(job, slot)) {
    }
    return KS_SUCCESS;
}

// The calling thread's reporter: a stop answer becomes the job's result.
struct Reporter {
    Progress progress;
    bool report(Job& job, int64_t rows) noexcept {
        int32_t answer = progress.step(rows);
        if (answer == KS_SUCCESS) return true;
        int32_t expected = KS_SUCCESS;
        job.result.compare_exchange_strong(expected, answer, std::memory_order_acq_rel);
        job.stop.store(true, std::memory_order_release);
        return false;
    }
};

Progress makeProgress(const ParallelOptions& o, int32_t height) noexcept {
    switch (o.progress) {
        case ParallelProgress::Status:
            return Progress::status(height, o.progressFrom, o.progressTo);
        case ParallelProgress::CopyStatus:
            return Progress::copyStatus(height, o.progressFrom, o.progressTo);
        default:
            return Progress(nullptr, nullptr, height, o.progressFrom, o.progressTo);
    }
}

}  // namespace

int32_t parallelMaxSlots(const ParallelOptions& options) noexcept {
    int32_t cores = KTThreadToolsManaged::GetCoreCount();
    int32_t n = options.maxThreads > 0 ? std::min(options.maxThreads, cores) : cores;
    return std::max(1, n);
}

int32_t parallelRows(int32_t height, RowBandFn fn, void* ctx, const ParallelOptions& options) noexcept {
    if (!fn || height < 0) return KS_INVALID_PARAMETER;
    if (height == 0) return KS_SUCCESS;
    Reporter progress{makeProgress(options, height)};

    int32_t slots = parallelMaxSlots(options);
    uint64_t work = options.bytesPerRow * uint64_t(height);
    if (options.bytesPerRow != 0 && work < options.minParallelBytes) slots = 1;
    if (ktt::inPoolWorker()) slots = 1;  // a worker waiting on the pool could wait forever

    Job job;
    job.fn = fn;
    job.ctx = ctx;
    job.height = height;
    int32_t minRows = std::max(1, options.minRowsPerBand);
    int32_t wantBands = std::max(64, slots * 64);
    job.bandRows = std::max(minRows, int32_t((int64_t(height) + wantBands - 1) / wantBands));
    job.bands = int32_t((int64_t(height) + job.bandRows - 1) / job.bandRows);
    slots = std::min(slots, job.bands);

    if (!progress.report(job, 0)) return job.result.load();

    KTWorkItems items;
    int32_t helpers = 0;
    if (slots > 1 && items.Create(uint32_t(slots - 1), 0, 0) == KS_SUCCESS && items.IsThreaded()) {
        helpers = slots - 1;
        // A helper that cannot be queued is counted as finished by QueueItem;
        // the calling thread then simply takes more bands.
        for (int32_t i = 0; i < helpers; ++i) items.QueueItem(helperItem, &job);
    }
    while (runBand(job, 0)) {
        if (!progress.report(job, job.rowsDone.load(std::memory_order_acquire))) break;
    }
    if (helpers) items.Wait();
    int32_t result = job.result.load(std::memory_order_acquire);
    if (result == KS_SUCCESS) progress.report(job, height);
    return job.result.load(std::memory_order_acquire);
}

}  // namespace krn
