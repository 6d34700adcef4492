// parallel.h - the row helper: runs an image job over bands of rows on the
// process-wide pool, with progress and stop through the status callback.
//
//   parallelRows(height, fn, ctx, options)   fn(ctx, y0, y1, slot) per band
//   parallelRows(height, lambda, options)    the same for a callable
//   parallelMaxSlots(options)                upper bound of `slot` + 1, to
//                                            size per-thread scratch once
//
// Contract of a band function: it handles rows [y0, y1) and returns 1 or a
// status; bands never overlap, may run in any order and concurrently, and
// `slot` is the same for two bands only when they run on the same thread
// (one after the other), so scratch indexed by slot needs no lock. The
// serial path (one thread) calls the same function over the same bands in
// order, so a row-independent job gives identical output either way.
//
// Threads: the calling thread works too; up to (slots - 1) helpers are
// queued as KTWorkItems. Small jobs, one-processor machines and calls made
// from a pool worker (nested parallel work) run on the calling thread only.
// Band functions must not rely on per-thread settings (krn::settings()):
// read what they need on the calling thread before the call.
//
// Progress (through krn::Progress): the status callback (or the copy status
// callback) of the calling thread is called on the calling thread only, with
// progressFrom first, then whole percentages as bands complete, increasing,
// and progressTo at the end. Any
// answer other than 1 stops the job: no new band starts, bands running
// finish, and the answer is the result. The first band that fails stops the
// job the same way and its status is the result.
#pragma once

#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

#include "ombrix.h"

namespace krn {

enum class ParallelProgress { None, Status, CopyStatus };

struct ParallelOptions {
    ParallelProgress progress = ParallelProgress::Status;
    int32_t progressFrom = 0;     // the job reports progressFrom..progressTo, so a
    int32_t progressTo = 100;     // multi-pass operation can give each pass a share
    int32_t maxThreads = 0;       // 0: the processor count
    uint64_t bytesPerRow = 0;     // work estimate; 0: unknown (counted as large)
    uint64_t minParallelBytes = 256u * 1024u;  // smaller jobs stay on one thread
    int32_t minRowsPerBand = 1;
};

using RowBandFn = int32_t (*)(void* ctx, int32_t y0, int32_t y1, int32_t slot);

int32_t parallelRows(int32_t height, RowBandFn fn, void* ctx, const ParallelOptions& options = {}) noexcept;
int32_t parallelMaxSlots(const ParallelOptions& options = {}) noexcept;

template <class F, class = std::enable_if_t<!std::is_convertible_v<F, RowBandFn>>>
int32_t parallelRows(int32_t height, F&& f, const ParallelOptions& options = {}) noexcept {
    using Fn = std::remove_reference_t<F>;
    RowBandFn thunk = [](void* ctx, int32_t y0, int32_t y1, int32_t slot) -> int32_t {
        try {
            return static_cast<int32_t>((*static_cast<Fn*>(ctx))(y0, y1, slot));
        } catch (const std::bad_alloc&) {
            return KS_NO_MEMORY;
        } catch (...) {
            return KS_INTERNAL;
        }
    };
    return parallelRows(height, thunk, const_cast<void*>(static_cast<const void*>(&f)), options);
}

}  // namespace krn
