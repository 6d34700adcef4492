// kalloc.cpp - the kernel allocator and its test hook.
#include "kalloc.h"

#include <atomic>
#include <cstdlib>

namespace krn {
namespace {
std::atomic<long> g_countdown{-1};
std::atomic<long> g_repeat{0};
std::atomic<long> g_injected{0};
std::atomic<long> g_live{0};

// True when this allocation must fail. Cheap when the hook is off.
bool shouldFail() noexcept {
    if (g_countdown.load(std::memory_order_relaxed) < 0) return false;
    long c = g_countdown.fetch_sub(1, std::memory_order_relaxed);
    if (c > 0) return false;
    // Countdown exhausted: fail while repeats remain.
    long r = g_repeat.load(std::memory_order_relaxed);
    if (r == 0) {
        g_countdown.store(-1, std::memory_order_relaxed);
        return false;
    }
    if (r > 0) g_repeat.fetch_sub(1, std::memory_order_relaxed);
    g_countdown.store(0, std::memory_order_relaxed);
    g_injected.fetch_add(1, std::memory_order_relaxed);
    faultinject::onInjectedFailure();
    return true;
}
#ifdef FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION
// Fuzzing builds refuse blocks above 64 MB, so that an input announcing a
// huge image or a far file position meets the ordinary out-of-memory path
// instead of the fuzzer's memory limit.
constexpr size_t kFuzzMaxBlock = size_t(64) << 20;
bool tooBig(size_t bytes) noexcept { return bytes > kFuzzMaxBlock; }
#else
constexpr bool tooBig(size_t) noexcept { return false; }
#endif
}  // namespace

void* memAlloc(size_t bytes) noexcept {
    if (tooBig(bytes) || shouldFail()) return nullptr;
    void* p = std::malloc(bytes ? bytes : 1);
    if (p) g_live.fetch_add(1, std::memory_order_relaxed);
    return p;
}

void* memCalloc(size_t bytes) noexcept {
    if (tooBig(bytes) || shouldFail()) return nullptr;
    void* p = std::calloc(1, bytes ? bytes : 1);
    if (p) g_live.fetch_add(1, std::memory_order_relaxed);
    return p;
}

void* memRealloc(void* p, size_t bytes) noexcept {
    if (!p) return memAlloc(bytes);
    if (tooBig(bytes) || shouldFail()) return nullptr;
    return std::realloc(p, bytes ? bytes : 1);
}

void memFree(void* p) noexcept {
    if (!p) return;
    g_live.fetch_sub(1, std::memory_order_relaxed);
    std::free(p);
}

namespace faultinject {
void arm(long countdown, long repeat) noexcept {
    g_injected.store(0);
    g_repeat.store(repeat);
    g_countdown.store(countdown);
}
void disarm() noexcept { g_countdown.store(-1); }
long injected() noexcept { return g_injected.load(); }
long liveBlocks() noexcept { return g_live.load(); }
void onInjectedFailure() noexcept {
    // Intentionally empty: set a breakpoint here to stop at an injected failure.
    asm volatile("" ::: "memory");
}
}  // namespace faultinject
}  // namespace krn
