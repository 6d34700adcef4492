// kalloc.cpp - the kernel allocator, its large-block cache and its test hook.
#include "kalloc.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

#if defined(__unix__) && !defined(FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION)
#if defined(__SANITIZE_ADDRESS__)
#define OMBRIX_BLOCK_CACHE 0  // keep the sanitizer's red zones around every block
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OMBRIX_BLOCK_CACHE 0
#endif
#endif
#ifndef OMBRIX_BLOCK_CACHE
#define OMBRIX_BLOCK_CACHE 1
#endif
#else
#define OMBRIX_BLOCK_CACHE 0
#endif

#if OMBRIX_BLOCK_CACHE
#ifndef _GNU_SOURCE
#define _GNU_SOURCE  // mremap
#endif
#include <sys/mman.h>
#endif

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

// ---------------------------------------------------------------- large blocks
//
// A block of kLargeMin bytes or more (a bitmap's pixels, a turned or copied
// image) is mapped by the kernel itself and, when freed, kept in a small cache
// for the next large request instead of going back to the system. A fresh
// mapping costs a page fault and the system's zero fill per page touched,
// which is more than copying or turning the pixels into it; a cached block's
// pages are already there. The cache is bounded (kCacheBlocks blocks, a byte
// limit that follows the process memory cap) and a block that waited longer
// than kCacheAge is returned to the system at the next large request or free.
// Blocks are mapped with huge-page advice. Builds under the address
// sanitizer keep every block on malloc so that its red zones stay.
namespace {
#if OMBRIX_BLOCK_CACHE
constexpr size_t kLargeMin = size_t(4) << 20;
constexpr size_t kHuge = size_t(2) << 20;
constexpr size_t kPage = 4096;
constexpr size_t kHeader = 64;  // the block starts 64 bytes into its mapping
constexpr int kCacheBlocks = 4;
constexpr auto kCacheAge = std::chrono::seconds(5);

struct Mapping {
    void* base = nullptr;   // what mmap returned
    size_t mapped = 0;      // bytes mapped at base
    size_t usable = 0;      // bytes the caller may use from base + offset
    size_t offset = 0;      // caller's block = base + offset
};
struct Cached {
    Mapping m;
    std::chrono::steady_clock::time_point since;
};

std::mutex g_largeLock;
std::unordered_map<uintptr_t, Mapping>* g_largeLive = nullptr;  // caller block -> mapping
std::atomic<long> g_largeCount{0};
Cached g_cache[kCacheBlocks];
int g_cached = 0;
size_t g_cachedBytes = 0;
std::atomic<size_t> g_cacheLimit{size_t(192) << 20};
std::atomic<long> g_cacheHits{0};
std::atomic<int> g_cacheEnabled{-1};  // -1: not read yet from OMBRIX_BLOCK_CACHE

bool cacheEnabled() noexcept {
    int e = g_cacheEnabled.load(std::memory_order_relaxed);
    if (e < 0) {
        const char* v = std::getenv("OMBRIX_BLOCK_CACHE");
        e = (v && v[0] == '0' && v[1] == 0) ? 0 : 1;
        g_cacheEnabled.store(e, std::memory_order_relaxed);
    }
    return e != 0;
}

void unmapLocked(const Mapping& m) noexcept { munmap(m.base, m.mapped); }

void dropCachedLocked(int i) noexcept {
    g_cachedBytes -= g_cache[i].m.mapped;
    unmapLocked(g_cache[i].m);
    g_cache[i] = g_cache[--g_cached];
}

void dropOldestLocked() noexcept {
    int oldest = 0;
    for (int i = 1; i < g_cached; ++i)
        if (g_cache[i].since < g_cache[oldest].since) oldest = i;
    dropCachedLocked(oldest);
}

// Returns blocks that waited too long, and trims the cache to its limit.
void ageCacheLocked() noexcept {
    const auto now = std::chrono::steady_clock::now();
    for (int i = g_cached - 1; i >= 0; --i)
        if (now - g_cache[i].since > kCacheAge) dropCachedLocked(i);
    const size_t limit = g_cacheLimit.load(std::memory_order_relaxed);
    while (g_cached > 0 && g_cachedBytes > limit) dropOldestLocked();
}

// Large blocks start at one of kColours page offsets past their huge-page
// boundary, taken in turn: blocks walked side by side (the two sources and
// the result of a region combine, the two images of a combine) would
// otherwise all start at the same offset modulo 2 MB, so that their lines at
// equal offsets compete for the same sets of the second-level and last-level
// caches. Whole pages keep the block kHeader bytes into a page (maybeLarge).
constexpr size_t kColours = 16, kColourStep = kPage;
std::atomic<size_t> g_colour{0};

bool mapFresh(size_t bytes, Mapping* out) noexcept {
    // Room to put the block on a huge-page boundary (plus the header and the colour).
    if (bytes > SIZE_MAX - kHuge - kColours * kColourStep - 2 * kPage) return false;
    const size_t colour = (g_colour.fetch_add(1, std::memory_order_relaxed) * 7 % kColours) * kColourStep;
    const size_t need = (bytes + kHeader + colour + kPage - 1) & ~(kPage - 1);
    const size_t mapped = need + kHuge;
    void* base = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) return false;
    const uintptr_t b = reinterpret_cast<uintptr_t>(base);
    const uintptr_t aligned = (b + kHuge - 1) & ~uintptr_t(kHuge - 1);
#if defined(MADV_HUGEPAGE)
    // The whole mapping, so that it stays one mapping that mremap can move.
    madvise(base, mapped, MADV_HUGEPAGE);
#endif
    out->base = base;
    out->mapped = mapped;
    out->offset = size_t(aligned - b) + kHeader + colour;
    out->usable = mapped - out->offset;
    return true;
}

// A large block, from the cache (best fit, wasting at most a quarter) or mapped
// anew. *fresh tells whether its pages are the system's zero pages.
void* largeAlloc(size_t bytes, bool* fresh) noexcept {
    std::lock_guard<std::mutex> g(g_largeLock);
    if (!g_largeLive) {
        g_largeLive = new (std::nothrow) std::unordered_map<uintptr_t, Mapping>();
        if (!g_largeLive) return nullptr;
    }
    ageCacheLocked();
    Mapping m;
    int best = -1;
    for (int i = 0; i < g_cached; ++i) {
        const size_t u = g_cache[i].m.usable;
        if (u >= bytes && u - bytes <= u / 4 && (best < 0 || u < g_cache[best].m.usable)) best = i;
    }
    if (best >= 0) {
        m = g_cache[best].m;
        g_cachedBytes -= m.mapped;
        g_cache[best] = g_cache[--g_cached];
        g_cacheHits.fetch_add(1, std::memory_order_relaxed);
        *fresh = false;
    } else {
        if (!mapFresh(bytes, &m)) return nullptr;
        *fresh = true;
    }
    void* p = static_cast<char*>(m.base) + m.offset;
    try {
        g_largeLive->emplace(reinterpret_cast<uintptr_t>(p), m);
    } catch (...) {
        unmapLocked(m);
        return nullptr;
    }
    g_largeCount.fetch_add(1, std::memory_order_relaxed);
    return p;
}

// Quick test first: every large block starts kHeader bytes into a page.
bool maybeLarge(const void* p) noexcept {
    return g_largeCount.load(std::memory_order_relaxed) > 0 &&
           (reinterpret_cast<uintptr_t>(p) & (kPage - 1)) == kHeader;
}

// Takes p out of the live table; false when p is not a large block.
bool takeLargeLocked(void* p, Mapping* out) noexcept {
    if (!g_largeLive) return false;
    auto it = g_largeLive->find(reinterpret_cast<uintptr_t>(p));
    if (it == g_largeLive->end()) return false;
    *out = it->second;
    g_largeLive->erase(it);
    g_largeCount.fetch_sub(1, std::memory_order_relaxed);
    return true;
}

void retireLocked(const Mapping& m) noexcept {
    ageCacheLocked();
    const size_t limit = g_cacheLimit.load(std::memory_order_relaxed);
    if (!cacheEnabled() || m.mapped > limit) {
        unmapLocked(m);
        return;
    }
    while (g_cached > 0 && (g_cached == kCacheBlocks || g_cachedBytes + m.mapped > limit)) dropOldestLocked();
    g_cache[g_cached++] = Cached{m, std::chrono::steady_clock::now()};
    g_cachedBytes += m.mapped;
}

// Frees p when it is a large block; false when it is not one.
bool largeFree(void* p) noexcept {
    if (!maybeLarge(p)) return false;
    std::lock_guard<std::mutex> g(g_largeLock);
    Mapping m;
    if (!takeLargeLocked(p, &m)) return false;
    retireLocked(m);
    return true;
}

void* rawAlloc(size_t bytes, bool zero) noexcept {
    if (bytes >= kLargeMin) {
        bool fresh = false;
        if (void* p = largeAlloc(bytes, &fresh)) {
            if (zero && !fresh) std::memset(p, 0, bytes);
            return p;
        }
    }
    return zero ? std::calloc(1, bytes ? bytes : 1) : std::malloc(bytes ? bytes : 1);
}

void rawFree(void* p) noexcept {
    if (!largeFree(p)) std::free(p);
}

// Resizes p; nullptr (p untouched) on failure. A malloc block stays on
// malloc whatever its new size (its size is unknown here).
void* rawRealloc(void* p, size_t bytes) noexcept {
    if (!maybeLarge(p)) return std::realloc(p, bytes ? bytes : 1);
    size_t usable;
    {
        std::lock_guard<std::mutex> g(g_largeLock);
        // maybeLarge saw a live large block, so the table exists.
        auto it = g_largeLive->find(reinterpret_cast<uintptr_t>(p));
        if (it == g_largeLive->end()) return std::realloc(p, bytes ? bytes : 1);
        usable = it->second.usable;
        if (bytes <= usable && bytes >= usable / 2) return p;  // fits, and not much wasted
#if defined(__linux__) && defined(MREMAP_MAYMOVE)
        // The system moves or trims the pages themselves: no copy (a region's
        // run store grows by doubling and is trimmed to its size at the end).
        if (bytes <= SIZE_MAX - 2 * kPage) {
            const Mapping& m = it->second;
            const size_t mapped = (bytes + m.offset + kPage - 1) & ~(kPage - 1);
            void* base = mremap(m.base, m.mapped, mapped, MREMAP_MAYMOVE);
            // Advice on a part of the block splits its mapping, which mremap
            // refuses: then the block is copied below.
            if (base != MAP_FAILED) {
                // The table's node is moved to the new key: nothing to allocate.
                auto node = g_largeLive->extract(it);
                node.mapped().base = base;
                node.mapped().mapped = mapped;
                node.mapped().usable = mapped - node.mapped().offset;
                void* q = static_cast<char*>(base) + node.mapped().offset;
                node.key() = reinterpret_cast<uintptr_t>(q);
                g_largeLive->insert(std::move(node));
                return q;
            }
        }
#endif
    }
    void* q = rawAlloc(bytes, false);
    if (!q) return nullptr;
    std::memcpy(q, p, std::min(bytes, usable));
    rawFree(p);
    return q;
}
#else
void* rawAlloc(size_t bytes, bool zero) noexcept {
    return zero ? std::calloc(1, bytes ? bytes : 1) : std::malloc(bytes ? bytes : 1);
}
void rawFree(void* p) noexcept { std::free(p); }
void* rawRealloc(void* p, size_t bytes) noexcept { return std::realloc(p, bytes ? bytes : 1); }
#endif
}  // namespace

void* memAlloc(size_t bytes) noexcept {
    if (tooBig(bytes) || shouldFail()) return nullptr;
    void* p = rawAlloc(bytes, false);
    if (p) g_live.fetch_add(1, std::memory_order_relaxed);
    return p;
}

void* memCalloc(size_t bytes) noexcept {
    if (tooBig(bytes) || shouldFail()) return nullptr;
    void* p = rawAlloc(bytes, true);
    if (p) g_live.fetch_add(1, std::memory_order_relaxed);
    return p;
}

void* memRealloc(void* p, size_t bytes) noexcept {
    if (!p) return memAlloc(bytes);
    if (tooBig(bytes) || shouldFail()) return nullptr;
    return rawRealloc(p, bytes);
}

void memFree(void* p) noexcept {
    if (!p) return;
    g_live.fetch_sub(1, std::memory_order_relaxed);
    rawFree(p);
}

namespace blockcache {
void setLimit(size_t bytes) noexcept {
#if OMBRIX_BLOCK_CACHE
    g_cacheLimit.store(bytes, std::memory_order_relaxed);
    std::lock_guard<std::mutex> g(g_largeLock);
    ageCacheLocked();
#else
    (void)bytes;
#endif
}
void release() noexcept {
#if OMBRIX_BLOCK_CACHE
    std::lock_guard<std::mutex> g(g_largeLock);
    while (g_cached > 0) dropCachedLocked(g_cached - 1);
#endif
}
size_t cachedBytes() noexcept {
#if OMBRIX_BLOCK_CACHE
    std::lock_guard<std::mutex> g(g_largeLock);
    return g_cachedBytes;
#else
    return 0;
#endif
}
long hits() noexcept {
#if OMBRIX_BLOCK_CACHE
    return g_cacheHits.load(std::memory_order_relaxed);
#else
    return 0;
#endif
}
bool available() noexcept { return OMBRIX_BLOCK_CACHE != 0; }
}  // namespace blockcache

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
