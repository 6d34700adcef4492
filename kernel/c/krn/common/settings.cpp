// settings.cpp - per-thread settings blocks with a process-wide fallback.
#include "settings.h"

#include <pthread.h>

#include <cstdint>
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

// The calling thread's block hangs off a POSIX thread-specific key, whose
// destructor frees it when the thread ends. Nothing here can abort: making the
// key, storing the pointer and the block itself may each fail, and every
// failure leaves the thread on the process-wide block (trying again on its
// next call). A C++ thread_local with a destructor would instead have the C
// library register that destructor on the thread's first use, an allocation
// whose failure ends the process.
//
// The key's value is the block, null before it is made, or kEnded once the
// thread's block was freed: a thread-exit destructor that calls into the
// kernel after ours has run uses the process-wide block rather than making a
// block that nothing would free. (The C library runs the C++ thread_local
// destructors before the key destructors, so a caller's own thread_local
// objects still see their thread's block.)
pthread_key_t g_key;
bool g_keyMade = false;
pthread_once_t g_keyOnce = PTHREAD_ONCE_INIT;
void* const kEnded = reinterpret_cast<void*>(uintptr_t(1));

void freeThreadBlock(void* v) noexcept {
    if (v == kEnded || !v) return;  // a late kEnded marker: let the thread end
    auto* b = static_cast<ThreadSettings*>(v);
    b->~ThreadSettings();
    memFree(b);
    // The slot exists already, so this store cannot fail for want of memory.
    pthread_setspecific(g_key, kEnded);
}

void makeKey() noexcept {
    g_keyMade = pthread_key_create(&g_key, [](void* v) { freeThreadBlock(v); }) == 0;
}

// Test hook only: trivially destructible, so it needs no registration.
thread_local bool t_forceFallback = false;

}  // namespace

ThreadSettings& processSettings() noexcept { return *makeProcessBlock(); }

ThreadSettings& settings() noexcept {
    if (t_forceFallback) return processSettings();
    pthread_once(&g_keyOnce, makeKey);
    if (!g_keyMade) return processSettings();
    void* v = pthread_getspecific(g_key);
    if (v == kEnded) return processSettings();
    if (v) return *static_cast<ThreadSettings*>(v);
    void* mem = memAlloc(sizeof(ThreadSettings));
    if (!mem) return processSettings();  // try again on the next call
    auto* b = new (mem) ThreadSettings();
    if (pthread_setspecific(g_key, b) != 0) {  // no room for the slot: same fallback
        b->~ThreadSettings();
        memFree(b);
        return processSettings();
    }
    return *b;
}

namespace testhook {
void forceSettingsFallback(bool on) noexcept { t_forceFallback = on; }
}

}  // namespace krn
