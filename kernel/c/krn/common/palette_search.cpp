// palette_search.cpp - the nearest palette entry.
//
//   findPaletteIndexScalar   the plain scan, kept as the reference
//   findPaletteIndexSse2     4 distances per step (x86-64 baseline)
//   findPaletteIndexAvx2     8 distances per step (chosen at run time)
//   findPaletteIndex         the path chosen once for this CPU
//
// The rule (the plain scan): walk the entries in index order; a strictly
// smaller squared distance takes the lead; an equal distance takes it only
// when the entry's hue class equals the target's; the walk stops at the first
// exact match. Black and white targets have shortcuts that look at the first
// and last entries before any scan.
//
// What that rule returns, stated without the walk (this is what the vector
// paths compute): let D be the smallest distance. If D = 0 the answer is the
// first entry at distance 0. Otherwise let F be the first entry at distance D;
// F takes the lead by strict comparison (every earlier entry is farther), and
// afterwards only entries at distance D with the target's hue class replace
// the leader. So the answer is the last entry at distance D whose hue class
// matches, or F when none does (F itself may be that entry).
//
// The vector paths compute the distances of a chunk of up to 256 entries into
// a small array, 64 at a time with the minimum of each group of 64, then look
// only at the entries equal to the minimum inside groups that reach it.
// Chunks are combined with the same rule, so a palette of any length gives
// the scan's answer.
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define OMBRIX_X86 1
#endif

#include "palette.h"

namespace krn {
namespace {

inline bool isGrey(const RGBQUAD& e, int v) noexcept {
    return e.rgbRed == v && e.rgbGreen == v && e.rgbBlue == v;
}

// The shortcuts for black and white; -2 when neither applies.
inline int32_t shortcut(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept {
    if (r == 0 && g == 0 && b == 0) {
        if (isGrey(pal[0], 0)) return 0;
        if (isGrey(pal[n - 1], 0)) return n - 1;
    } else if (r == 255 && g == 255 && b == 255) {
        if (isGrey(pal[n - 1], 255)) return n - 1;
        if (isGrey(pal[0], 255)) return 0;
    }
    return -2;
}

inline uint32_t distance(const RGBQUAD& e, int r, int g, int b) noexcept {
    int dr = e.rgbRed - r, dg = e.rgbGreen - g, db = e.rgbBlue - b;
    return uint32_t(dr * dr + dg * dg + db * db);
}

constexpr int32_t kChunk = 256;
constexpr int32_t kGroup = 64;

// Combines the chunks of one search.
struct Resolver {
    int cls;
    uint32_t best = 0xFFFFFFFFu;
    int32_t first = -1;      // first entry at distance `best`
    int32_t lastMatch = -1;  // last entry at distance `best` with the target's hue class

    // Called for each entry of a chunk whose distance equals the chunk's
    // minimum, in index order.
    void candidate(const RGBQUAD* pal, int32_t i) noexcept {
        if (first < 0) first = i;
        const RGBQUAD& e = pal[i];
        if (hueClass(e.rgbRed, e.rgbGreen, e.rgbBlue) == cls) lastMatch = i;
    }
    int32_t result() const noexcept { return lastMatch >= 0 ? lastMatch : first; }
};

// Walks the chunk's stored distances equal to `m`, calling r.candidate in
// index order. Scalar over the stored distances; used for tails.
inline void scanEqualScalar(const uint32_t* dist, int32_t from, int32_t count, uint32_t m, const RGBQUAD* pal,
                            int32_t base, Resolver& r) noexcept {
    for (int32_t i = from; i < count; ++i)
        if (dist[i] == m) r.candidate(pal, base + i);
}

// Shared driver. Each chunk of up to 256 entries is cut into groups of 64:
// `Kernel::group` stores the distances of one group and returns their
// minimum, so the exact-match exit is taken at the end of a group (the first
// zero is then looked up in the stored distances: the same answer as a walk
// that stops at once), and only groups whose minimum equals the chunk's are
// searched again by `Kernel::scanEqual` for the entries at that distance.
template <class Kernel>
int32_t searchChunks(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept {
    if (!pal) return 0;
    if (n <= 0) return -1;
    int32_t s = shortcut(pal, n, r, g, b);
    if (s != -2) return s;
    Resolver res{hueClass(r, g, b)};
    alignas(32) uint32_t dist[kChunk];
    uint32_t groupMin[kChunk / kGroup];
    int32_t count;
    for (int32_t base = 0; base < n; base += count) {  // base + count <= n: no overflow
        count = n - base < kChunk ? n - base : kChunk;
        uint32_t m = 0xFFFFFFFFu;
        for (int32_t g0 = 0; g0 < count; g0 += kGroup) {
            const int32_t c = count - g0 < kGroup ? count - g0 : kGroup;
            const uint32_t gm = Kernel::group(pal + base + g0, c, r, g, b, dist + g0);
            if (gm == 0) {
                // The first exact match wins; earlier groups had no zero.
                for (int32_t i = g0;; ++i)
                    if (dist[i] == 0) return base + i;
            }
            groupMin[g0 / kGroup] = gm;
            m = gm < m ? gm : m;
        }
        if (m > res.best) continue;
        if (m < res.best) {
            res.best = m;
            res.first = -1;
            res.lastMatch = -1;
        }
        for (int32_t g0 = 0; g0 < count; g0 += kGroup) {
            if (groupMin[g0 / kGroup] != m) continue;
            const int32_t c = count - g0 < kGroup ? count - g0 : kGroup;
            Kernel::scanEqual(dist + g0, c, m, pal, base + g0, res);
        }
    }
    return res.result();
}

#if OMBRIX_X86
// ---------------------------------------------------------------- SSE2
struct Sse2 {
    // Distances of entries 0..3 at p: B,G,R bytes widened to 16 bits, the
    // reserved byte masked off, differences squared and pair-summed by pmaddwd.
    static inline __m128i dist4(const RGBQUAD* p, __m128i target16, __m128i mask) noexcept {
        const __m128i zero = _mm_setzero_si128();
        __m128i v = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), mask);
        __m128i lo = _mm_sub_epi16(_mm_unpacklo_epi8(v, zero), target16);  // entries 0,1
        __m128i hi = _mm_sub_epi16(_mm_unpackhi_epi8(v, zero), target16);  // entries 2,3
        __m128i slo = _mm_madd_epi16(lo, lo);  // b²+g², r² per entry
        __m128i shi = _mm_madd_epi16(hi, hi);
        __m128 a = _mm_shuffle_ps(_mm_castsi128_ps(slo), _mm_castsi128_ps(shi), _MM_SHUFFLE(2, 0, 2, 0));
        __m128 c = _mm_shuffle_ps(_mm_castsi128_ps(slo), _mm_castsi128_ps(shi), _MM_SHUFFLE(3, 1, 3, 1));
        return _mm_add_epi32(_mm_castps_si128(a), _mm_castps_si128(c));
    }
    static uint32_t group(const RGBQUAD* pal, int32_t count, int r, int g, int b, uint32_t* dist) noexcept {
        const __m128i target16 = _mm_setr_epi16(int16_t(b), int16_t(g), int16_t(r), 0, int16_t(b), int16_t(g),
                                                int16_t(r), 0);
        const __m128i mask = _mm_set1_epi32(0x00FFFFFF);
        __m128i vmin = _mm_set1_epi32(0x7FFFFFFF);
        int32_t i = 0;
#pragma GCC unroll 4
        for (; i + 4 <= count; i += 4) {
            __m128i d = dist4(pal + i, target16, mask);
            _mm_store_si128(reinterpret_cast<__m128i*>(dist + i), d);
            // Distances are below 2^18, so signed compares order them.
            __m128i gt = _mm_cmpgt_epi32(vmin, d);
            vmin = _mm_or_si128(_mm_and_si128(gt, d), _mm_andnot_si128(gt, vmin));
        }
        alignas(16) uint32_t lanes[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(lanes), vmin);
        uint32_t m = lanes[0];
        for (int k = 1; k < 4; ++k) m = lanes[k] < m ? lanes[k] : m;
        for (; i < count; ++i) {
            dist[i] = distance(pal[i], r, g, b);
            m = dist[i] < m ? dist[i] : m;
        }
        return m;
    }
    static void scanEqual(const uint32_t* dist, int32_t count, uint32_t m, const RGBQUAD* pal, int32_t base,
                          Resolver& res) noexcept {
        const __m128i vm = _mm_set1_epi32(int32_t(m));
        int32_t i = 0;
        for (; i + 4 <= count; i += 4) {
            int bits = _mm_movemask_ps(
                _mm_castsi128_ps(_mm_cmpeq_epi32(_mm_load_si128(reinterpret_cast<const __m128i*>(dist + i)), vm)));
            while (bits) {
                res.candidate(pal, base + i + __builtin_ctz(unsigned(bits)));
                bits &= bits - 1;
            }
        }
        scanEqualScalar(dist, i, count, m, pal, base, res);
    }
};

// ---------------------------------------------------------------- AVX2
struct Avx2 {
    __attribute__((target("avx2"))) static uint32_t group(const RGBQUAD* pal, int32_t count, int r, int g, int b,
                                                          uint32_t* dist) noexcept {
        const __m256i target16 = _mm256_setr_epi16(int16_t(b), int16_t(g), int16_t(r), 0, int16_t(b), int16_t(g),
                                                   int16_t(r), 0, int16_t(b), int16_t(g), int16_t(r), 0,
                                                   int16_t(b), int16_t(g), int16_t(r), 0);
        // Byte k of the lane to 16-bit lane k; -1 (high bit set) gives zero.
        const __m256i widenLo = _mm256_setr_epi8(0, -1, 1, -1, 2, -1, -1, -1, 4, -1, 5, -1, 6, -1, -1, -1,
                                                 0, -1, 1, -1, 2, -1, -1, -1, 4, -1, 5, -1, 6, -1, -1, -1);
        const __m256i widenHi = _mm256_setr_epi8(8, -1, 9, -1, 10, -1, -1, -1, 12, -1, 13, -1, 14, -1, -1, -1,
                                                 8, -1, 9, -1, 10, -1, -1, -1, 12, -1, 13, -1, 14, -1, -1, -1);
        __m256i vmin = _mm256_set1_epi32(0x7FFFFFFF);
        int32_t i = 0;
#pragma GCC unroll 8
        for (; i + 8 <= count; i += 8) {
            const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pal + i));
            // pshufb works per 128-bit lane: lo holds entries 0,1 | 4,5 and hi 2,3 | 6,7,
            // widened to 16 bits with the reserved byte dropped.
            __m256i lo = _mm256_sub_epi16(_mm256_shuffle_epi8(v, widenLo), target16);
            __m256i hi = _mm256_sub_epi16(_mm256_shuffle_epi8(v, widenHi), target16);
            __m256i slo = _mm256_madd_epi16(lo, lo);
            __m256i shi = _mm256_madd_epi16(hi, hi);
            // Per lane: [e0a e0b e1a e1b] and [e2a e2b e3a e3b] -> [e0 e1 e2 e3], in index order.
            __m256 a = _mm256_shuffle_ps(_mm256_castsi256_ps(slo), _mm256_castsi256_ps(shi), _MM_SHUFFLE(2, 0, 2, 0));
            __m256 c = _mm256_shuffle_ps(_mm256_castsi256_ps(slo), _mm256_castsi256_ps(shi), _MM_SHUFFLE(3, 1, 3, 1));
            __m256i d = _mm256_add_epi32(_mm256_castps_si256(a), _mm256_castps_si256(c));
            _mm256_store_si256(reinterpret_cast<__m256i*>(dist + i), d);
            vmin = _mm256_min_epi32(vmin, d);
        }
        __m128i m4 = _mm_min_epi32(_mm256_castsi256_si128(vmin), _mm256_extracti128_si256(vmin, 1));
        m4 = _mm_min_epi32(m4, _mm_shuffle_epi32(m4, _MM_SHUFFLE(1, 0, 3, 2)));
        m4 = _mm_min_epi32(m4, _mm_shuffle_epi32(m4, _MM_SHUFFLE(2, 3, 0, 1)));
        uint32_t m = uint32_t(_mm_cvtsi128_si32(m4));
        for (; i < count; ++i) {
            dist[i] = distance(pal[i], r, g, b);
            m = dist[i] < m ? dist[i] : m;
        }
        return m;
    }
    __attribute__((target("avx2"))) static void scanEqual(const uint32_t* dist, int32_t count, uint32_t m,
                                                          const RGBQUAD* pal, int32_t base, Resolver& res) noexcept {
        const __m256i vm = _mm256_set1_epi32(int32_t(m));
        int32_t i = 0;
#pragma GCC unroll 8
        for (; i + 8 <= count; i += 8) {
            int bits = _mm256_movemask_ps(_mm256_castsi256_ps(
                _mm256_cmpeq_epi32(_mm256_load_si256(reinterpret_cast<const __m256i*>(dist + i)), vm)));
            while (bits) {
                res.candidate(pal, base + i + __builtin_ctz(unsigned(bits)));
                bits &= bits - 1;
            }
        }
        scanEqualScalar(dist, i, count, m, pal, base, res);
    }
};
#endif  // OMBRIX_X86

using SearchFn = int32_t (*)(const RGBQUAD*, int32_t, int, int, int) noexcept;

SearchFn chooseSearch() noexcept {
#if OMBRIX_X86
    if (cpuHasAvx2()) return findPaletteIndexAvx2;
    return findPaletteIndexSse2;
#else
    return findPaletteIndexScalar;
#endif
}

}  // namespace

int32_t findPaletteIndexScalar(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept {
    if (!pal) return 0;
    if (n <= 0) return -1;
    int32_t s = shortcut(pal, n, r, g, b);
    if (s != -2) return s;
    const int cls = hueClass(r, g, b);
    uint32_t best = 0xFFFFFFFFu;
    int32_t bestIndex = -1;
    for (int32_t i = 0; i < n; ++i) {
        uint32_t d = distance(pal[i], r, g, b);
        if (d < best || (d == best && hueClass(pal[i].rgbRed, pal[i].rgbGreen, pal[i].rgbBlue) == cls)) {
            best = d;
            bestIndex = i;
            if (d == 0) break;
        }
    }
    return bestIndex;
}

bool cpuHasAvx2() noexcept {
#if OMBRIX_X86
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
#else
    return false;
#endif
}

#if OMBRIX_X86
int32_t findPaletteIndexSse2(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept {
    return searchChunks<Sse2>(pal, n, r, g, b);
}
int32_t findPaletteIndexAvx2(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept {
    return searchChunks<Avx2>(pal, n, r, g, b);
}
#else
int32_t findPaletteIndexSse2(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept {
    return findPaletteIndexScalar(pal, n, r, g, b);
}
int32_t findPaletteIndexAvx2(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept {
    return findPaletteIndexScalar(pal, n, r, g, b);
}
#endif

int32_t findPaletteIndex(const RGBQUAD* pal, int32_t n, int r, int g, int b) noexcept {
    static const SearchFn fn = chooseSearch();
    return fn(pal, n, r, g, b);
}

}  // namespace krn
