// settings.cpp - per-thread settings blocks with a process-wide fallback.
#include "settings.h"

#include <new>

#include "memory.h"

namespace krn {
namespace {

ThreadSettings* makeProcessBlock() noexcept {
    // Zero-filled, as the fallback block is documented to start.
    static ThreadSettings block = [] {
        ThreadSettings s;
        s.nXResolution = 0;
        s.nYResolution = 0;
        s.uDefaultMemoryType = 0;
        s.nMemLargestImage = 0;
        s.nMemFourth = 0;
        s.nMemFifth = 0;
        return s;
    }();
    return &block;
}

// The calling thread's block and state live in trivially destructible
// thread-locals, valid for the thread's whole life; a separate guard frees the
// block when the thread ends. Thread-local destructors run in reverse order of
// construction, so a caller's own thread-local object may call into the kernel
// after the guard has run: from then on the thread uses the process-wide block
// instead of the freed one.
thread_local ThreadSettings* t_block = nullptr;
thread_local bool t_forceFallback = false;
thread_local bool t_ended = false;

struct ThreadBlockGuard {
    bool armed = false;
    ~ThreadBlockGuard() {
        ThreadSettings* b = t_block;
        t_block = nullptr;
        t_ended = true;
        if (b) {
            b->~ThreadSettings();
            memFree(b);
        }
    }
};
thread_local ThreadBlockGuard t_guard;

}  // namespace

ThreadSettings& processSettings() noexcept { return *makeProcessBlock(); }

ThreadSettings& settings() noexcept {
    if (t_forceFallback || t_ended) return processSettings();
    if (t_block) return *t_block;
    void* mem = memAlloc(sizeof(ThreadSettings));
    if (!mem) return processSettings();  // try again on the next call
    t_guard.armed = true;                // registers the guard's destructor for this thread
    t_block = new (mem) ThreadSettings();
    return *t_block;
}

namespace testhook {
void forceSettingsFallback(bool on) noexcept { t_forceFallback = on; }
}

}  // namespace krn
