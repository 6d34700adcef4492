// first_call_malloc.cpp - every allocation of a thread's first call fails in turn (malloc, calloc and realloc are
// replaced: the kernel's, the C++ runtime's and the C library's alike). The call returns success or -1 with the
// record unallocated and never ends the process. Exits 0 when every failure point was walked.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <pthread.h>

#include "ombrix.h"

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);

static std::atomic<long> g_countdown{-1}, g_injected{0};
static bool failNow() {
    if (g_countdown.load(std::memory_order_relaxed) < 0 || g_countdown.fetch_sub(1, std::memory_order_relaxed) != 0)
        return false;
    return g_injected.fetch_add(1, std::memory_order_relaxed), errno = ENOMEM, true;
}
extern "C" void* malloc(size_t n) { return failNow() ? nullptr : __libc_malloc(n); }
extern "C" void* calloc(size_t n, size_t k) { return failNow() ? nullptr : __libc_calloc(n, k); }
extern "C" void* realloc(void* p, size_t n) { return failNow() ? nullptr : __libc_realloc(p, n); }

struct Result { long n; int32_t rc; bool clean; };
static void* firstCall(void* arg) {
    auto* r = static_cast<Result*>(arg);
    BITMAPRECORD bm{};
    g_injected.store(0), g_countdown.store(r->n);
    r->rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 64, 48, 24, 1, nullptr, 1, nullptr, 0);
    g_countdown.store(-1);
    r->clean = r->rc == KS_SUCCESS ? K_FreeBitmap(&bm) == KS_SUCCESS : !(bm.uFlags & BRF_ALLOCATED);
    return nullptr;
}

int main() {
    for (long n = 0; n < 200; ++n) {
        Result r{n, 0, false};
        pthread_t t;
        if (pthread_create(&t, nullptr, firstCall, &r) != 0 || pthread_join(t, nullptr) != 0) return 2;
        if (!(r.rc == KS_SUCCESS || r.rc == KS_NO_MEMORY) || !r.clean)
            return std::printf("allocation %ld: status %d, record %s\n", n, r.rc, r.clean ? "clean" : "changed"), 1;
        if (g_injected.load() == 0) return std::printf("%ld failure points walked, no abort\n", n), n >= 2 ? 0 : 1;
    }
    return std::printf("more than 200 allocations in one call\n"), 1;
}
