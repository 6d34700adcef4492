// ktthreading_.h - private parts of the thread tools (see ktthreading_.cpp).
//
//   ktt::PoolNode / ktt::submit   the pool's intrusive queue: one caller-made
//                                 node per request, no allocation inside
//   ktt::inPoolWorker()           true on a pool worker thread (nested
//                                 parallel work must not wait on the pool)
//   ktt::poolState()              threads, pending items, shut down or not
//   ktt::testhook::               force the core count or the lock fallback
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace ktt {

// A request on the pool's queue. The node is made by the requester with
// krn::memAlloc. After fn(ctx) returns the pool frees the node when
// ownedByPool is set; otherwise fn owns it (and frees it itself). A node
// dropped at shutdown before it ran goes to its drop function when it has
// one; otherwise the pool frees it, so a node must sit at the start of its
// allocation.
struct PoolNode {
    PoolNode* next;
    KTPOOLFUNCTION fn;
    void* ctx;
    KTPOOLFUNCTION drop;  // called instead of fn when the node is dropped at
                          // shutdown (may be null); it then owns the node
    bool ownedByPool;
};

// Hands a node to the pool. Returns 1. When the pool has no worker (none
// could be started, or it was shut down) the node runs on the calling thread
// before submit returns.
int submit(PoolNode* node) noexcept;

bool inPoolWorker() noexcept;

struct PoolState {
    int threads;      // worker threads running
    int pending;      // queued, not started
    int busy;         // running an item now
    bool shutDown;    // the pool was shut down (process exit or library unload)
    uint64_t itemsRun;
};
PoolState poolState() noexcept;

// Stops the pool now (what the static destructor does at exit): queued items
// are dropped, running ones get up to `graceMs` to finish; threads that
// finished are joined, the others are left to the process end. Returns true
// when every worker was joined. Later submissions run on the caller.
bool shutdownPool(unsigned graceMs) noexcept;

namespace testhook {
// Pretends the machine has n processors (n <= 0: the real count).
void setCoreCount(int n) noexcept;
// New KTReaderWriterLocks use the critical-section fallback while on.
void forceLockFallback(bool on) noexcept;
}  // namespace testhook

}  // namespace ktt
