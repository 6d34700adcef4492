// resize_kernels.cpp - block means of 8-bit samples and nearest halving of
// 24-bit rows, plain and as SSSE3 / AVX2 builds picked at run time.
//
// The 2 x 2 mean of c-channel pixels: a byte shuffle puts the two samples of
// a channel side by side, a multiply-add with ones sums each pair into 16
// bits, the two rows' pair sums are added and (sum + 2) >> 2 is packed back
// to bytes: exactly the rounded mean the plain loop computes.
#include "resize_kernels.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include <immintrin.h>

#include "convert_kernels.h"
#include "resize.h"

namespace krn {

namespace resampletest {
std::atomic<int> g_simdCap{conv::kSimdAvx512};
void setSimdCap(int level) noexcept { g_simdCap.store(level); }
}  // namespace resampletest

namespace rsz {

int simdLevel() noexcept {
    if (resampletest::plainForced()) return conv::kSimdNone;
    __builtin_cpu_init();
    const int cap = std::min(conv::simdCeiling(), resampletest::g_simdCap.load(std::memory_order_relaxed));
    if (cap >= conv::kSimdAvx512 && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vbmi"))
        return conv::kSimdAvx512;
    if (cap >= conv::kSimdAvx2 && __builtin_cpu_supports("avx2")) return conv::kSimdAvx2;
    if (cap >= conv::kSimdSsse3 && __builtin_cpu_supports("ssse3")) return conv::kSimdSsse3;
    return conv::kSimdNone;
}

BoxDivider boxDivider(int32_t n) noexcept {
    // mul = 2^32 / n + e with 0 < e <= 1; for sums s < 256 n the error
    // s e / 2^32 stays below 1 / n (n <= 4096), so the floor is exact.
    return BoxDivider{uint32_t(n) / 2u, (uint64_t(1) << 32) / uint64_t(n) + 1u};
}

// ---------------------------------------------------------------- plain

void boxAddRowPlain(const uint8_t* __restrict s, uint16_t* __restrict acc, int32_t m, bool first) noexcept {
    if (first)
        for (int32_t i = 0; i < m; ++i) acc[i] = s[i];
    else
        for (int32_t i = 0; i < m; ++i) acc[i] = uint16_t(acc[i] + s[i]);
}

void boxFinishRow(const uint16_t* acc, uint8_t* d, int32_t n, int32_t bx, int32_t c, BoxDivider div) noexcept {
    for (int32_t x = 0; x < n; ++x) {
        const uint16_t* p = acc + size_t(x) * size_t(bx) * size_t(c);
        for (int32_t k = 0; k < c; ++k) {
            uint32_t sum = 0;
            for (int32_t t = 0; t < bx; ++t) sum += p[t * c + k];
            d[size_t(x) * size_t(c) + size_t(k)] = div(sum);
        }
    }
}

void box22Plain(const uint8_t* a, const uint8_t* b, uint8_t* d, int32_t from, int32_t n, int32_t c) noexcept {
    for (int32_t x = from; x < n; ++x)
        for (int32_t k = 0; k < c; ++k) {
            const size_t i = size_t(2 * x) * size_t(c) + size_t(k);
            d[size_t(x) * size_t(c) + size_t(k)] = uint8_t((a[i] + a[i + size_t(c)] + b[i] + b[i + size_t(c)] + 2) >> 2);
        }
}

// ---------------------------------------------------------------- SSSE3

__attribute__((target("sse2"))) void boxAddRowSse2(const uint8_t* s, uint16_t* acc, int32_t m, bool first) noexcept {
    const __m128i z = _mm_setzero_si128();
    int32_t i = 0;
    for (; i + 16 <= m; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
        __m128i lo = _mm_unpacklo_epi8(v, z), hi = _mm_unpackhi_epi8(v, z);
        if (!first) {
            lo = _mm_add_epi16(lo, _mm_loadu_si128(reinterpret_cast<const __m128i*>(acc + i)));
            hi = _mm_add_epi16(hi, _mm_loadu_si128(reinterpret_cast<const __m128i*>(acc + i + 8)));
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(acc + i), lo);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(acc + i + 8), hi);
    }
    boxAddRowPlain(s + i, acc + i, m - i, first);
}

// Pair sums of both rows' 16 bytes at p (after the shuffle m), 8 x 16 bits.
__attribute__((target("ssse3"))) inline __m128i pairs2(const uint8_t* a, const uint8_t* b, __m128i m) noexcept {
    const __m128i ones = _mm_set1_epi8(1);
    const __m128i x = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a)), m);
    const __m128i y = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(b)), m);
    return _mm_add_epi16(_mm_maddubs_epi16(x, ones), _mm_maddubs_epi16(y, ones));
}
__attribute__((target("ssse3"))) inline __m128i meanPack(__m128i s0, __m128i s1) noexcept {
    const __m128i two = _mm_set1_epi16(2);
    return _mm_packus_epi16(_mm_srli_epi16(_mm_add_epi16(s0, two), 2), _mm_srli_epi16(_mm_add_epi16(s1, two), 2));
}

template <int C>
__attribute__((target("ssse3"))) int32_t box22Ssse3(const uint8_t* a, const uint8_t* b, uint8_t* d, int32_t n) noexcept {
    int32_t x = 0;
    if constexpr (C == 1) {
        const __m128i id = _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
        for (; x + 16 <= n; x += 16) {
            const size_t s = size_t(2) * size_t(x);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x),
                             meanPack(pairs2(a + s, b + s, id), pairs2(a + s + 16, b + s + 16, id)));
        }
    } else if constexpr (C == 4) {
        const __m128i m = _mm_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15);
        for (; x + 4 <= n; x += 4) {
            const size_t s = size_t(8) * size_t(x);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + size_t(4) * x),
                             meanPack(pairs2(a + s, b + s, m), pairs2(a + s + 16, b + s + 16, m)));
        }
    } else {
        // Two target pixels from each 16-byte load (12 bytes used), four per step.
        const __m128i m = _mm_setr_epi8(0, 3, 1, 4, 2, 5, 6, 9, 7, 10, 8, 11, -1, -1, -1, -1);
        const __m128i compact = _mm_setr_epi8(0, 1, 2, 3, 4, 5, 8, 9, 10, 11, 12, 13, -1, -1, -1, -1);
        for (; x + 4 <= n && int64_t(6) * x + 28 <= int64_t(6) * n && int64_t(3) * x + 16 <= int64_t(3) * n; x += 4) {
            const size_t s = size_t(6) * size_t(x);
            const __m128i r = meanPack(pairs2(a + s, b + s, m), pairs2(a + s + 12, b + s + 12, m));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + size_t(3) * x), _mm_shuffle_epi8(r, compact));
        }
    }
    return x;
}

// ---------------------------------------------------------------- AVX2

__attribute__((target("avx2"))) void boxAddRowAvx2(const uint8_t* s, uint16_t* acc, int32_t m, bool first) noexcept {
    int32_t i = 0;
    for (; i + 16 <= m; i += 16) {
        __m256i v = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i)));
        if (!first) v = _mm256_add_epi16(v, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(acc + i)));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(acc + i), v);
    }
    boxAddRowPlain(s + i, acc + i, m - i, first);
}

__attribute__((target("avx2"))) inline __m256i pairs2x(__m256i x, __m256i y, __m256i m) noexcept {
    const __m256i ones = _mm256_set1_epi8(1);
    return _mm256_add_epi16(_mm256_maddubs_epi16(_mm256_shuffle_epi8(x, m), ones),
                            _mm256_maddubs_epi16(_mm256_shuffle_epi8(y, m), ones));
}
__attribute__((target("avx2"))) inline __m256i load2(const uint8_t* lo, const uint8_t* hi) noexcept {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(lo))),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(hi)), 1);
}
__attribute__((target("avx2"))) inline __m256i ld(const uint8_t* p) noexcept {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}
__attribute__((target("avx2"))) inline __m256i meanPackx(__m256i s0, __m256i s1) noexcept {
    const __m256i two = _mm256_set1_epi16(2);
    return _mm256_packus_epi16(_mm256_srli_epi16(_mm256_add_epi16(s0, two), 2),
                               _mm256_srli_epi16(_mm256_add_epi16(s1, two), 2));
}

// Both source rows of a 2 x 2 step a page ahead (two streams at once).
inline void prefetchAhead(const uint8_t* a, const uint8_t* b, size_t n) noexcept {
    conv::prefetchPage(a, n);
    conv::prefetchPage(b, n);
}

template <int C>
__attribute__((target("avx2"))) int32_t box22Avx2(const uint8_t* a, const uint8_t* b, uint8_t* d, int32_t n) noexcept {
    int32_t x = 0;
    if constexpr (C == 1 || C == 4) {
        // 32 source bytes per row and load; the lane-wise pack is put back in order by a quad permute.
        const __m256i m = C == 1 ? _mm256_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 0, 1, 2, 3,
                                                    4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15)
                                 : _mm256_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15, 0, 4, 1, 5,
                                                    2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15);
        constexpr int32_t step = 32 / C;  // target pixels per step
        for (; x + step <= n; x += step) {
            const size_t s = size_t(2) * size_t(C) * size_t(x);
            prefetchAhead(a + s, b + s, 64);
            const __m256i r = meanPackx(pairs2x(ld(a + s), ld(b + s), m), pairs2x(ld(a + s + 32), ld(b + s + 32), m));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + size_t(C) * x), _mm256_permute4x64_epi64(r, 0xD8));
        }
    } else {
        const __m256i m = _mm256_setr_epi8(0, 3, 1, 4, 2, 5, 6, 9, 7, 10, 8, 11, -1, -1, -1, -1, 0, 3, 1, 4, 2, 5, 6,
                                           9, 7, 10, 8, 11, -1, -1, -1, -1);
        const __m256i compact = _mm256_setr_epi8(0, 1, 2, 3, 4, 5, 8, 9, 10, 11, 12, 13, -1, -1, -1, -1, 0, 1, 2, 3, 4,
                                                 5, 8, 9, 10, 11, 12, 13, -1, -1, -1, -1);
        for (; x + 8 <= n && int64_t(6) * x + 52 <= int64_t(6) * n && int64_t(3) * x + 28 <= int64_t(3) * n; x += 8) {
            const size_t s = size_t(6) * size_t(x);
            prefetchAhead(a + s, b + s, 48);
            // Lane 0: target pixels 0-1 and 2-3, lane 1: 4-5 and 6-7.
            const __m256i s0 = pairs2x(load2(a + s, a + s + 24), load2(b + s, b + s + 24), m);
            const __m256i s1 = pairs2x(load2(a + s + 12, a + s + 36), load2(b + s + 12, b + s + 36), m);
            const __m256i r = _mm256_shuffle_epi8(meanPackx(s0, s1), compact);
            uint8_t* q = d + size_t(3) * x;
            _mm_storeu_si128(reinterpret_cast<__m128i*>(q), _mm256_castsi256_si128(r));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(q + 12), _mm256_extracti128_si256(r, 1));
        }
    }
    return x;
}

// ---------------------------------------------------------------- AVX-512 (BW)

// 1 and 4 channels: 64 source bytes per row and load, the lane-wise pack put
// back in order by a quad permute. Three channels stay with AVX2.
__attribute__((target("avx512f,avx512bw"))) inline __m512i means512(const uint8_t* p, const uint8_t* q,
                                                                    __m512i m) noexcept {
    const __m512i ones = _mm512_set1_epi8(1);
    const __m512i x = _mm512_shuffle_epi8(_mm512_loadu_si512(p), m);
    const __m512i y = _mm512_shuffle_epi8(_mm512_loadu_si512(q), m);
    const __m512i s = _mm512_add_epi16(_mm512_maddubs_epi16(x, ones), _mm512_maddubs_epi16(y, ones));
    return _mm512_srli_epi16(_mm512_add_epi16(s, _mm512_set1_epi16(2)), 2);
}
template <int C>
__attribute__((target("avx512f,avx512bw"))) int32_t box22Avx512(const uint8_t* a, const uint8_t* b, uint8_t* d,
                                                                int32_t n) noexcept {
    static_assert(C == 1 || C == 4);
    const __m512i m = C == 1 ? _mm512_set_epi64(0x0F0E0D0C0B0A0908, 0x0706050403020100, 0x0F0E0D0C0B0A0908,
                                                0x0706050403020100, 0x0F0E0D0C0B0A0908, 0x0706050403020100,
                                                0x0F0E0D0C0B0A0908, 0x0706050403020100)
                             : _mm512_set_epi64(0x0F0B0E0A0D090C08, 0x0703060205010400, 0x0F0B0E0A0D090C08,
                                                0x0703060205010400, 0x0F0B0E0A0D090C08, 0x0703060205010400,
                                                0x0F0B0E0A0D090C08, 0x0703060205010400);
    const __m512i order = _mm512_set_epi64(7, 5, 3, 1, 6, 4, 2, 0);
    constexpr int32_t step = 64 / C;
    int32_t x = 0;
    for (; x + step <= n; x += step) {
        const size_t s = size_t(2) * size_t(C) * size_t(x);
        prefetchAhead(a + s, b + s, 128);
        const __m512i r = _mm512_packus_epi16(means512(a + s, b + s, m), means512(a + s + 64, b + s + 64, m));
        _mm512_storeu_si512(d + size_t(C) * x, _mm512_maskz_permutexvar_epi64(__mmask8(0xFF), order, r));
    }
    return x;
}

// ---------------------------------------------------------------- nearest halving of 24-bit rows

// Four target pixels from two overlapping 16-byte loads.
__attribute__((target("ssse3"))) int32_t halve24Ssse3(const uint8_t* src, uint8_t* dst, int32_t n,
                                                     int32_t oldW) noexcept {
    const __m128i ma = _mm_setr_epi8(0, 1, 2, 6, 7, 8, 12, 13, 14, -1, -1, -1, -1, -1, -1, -1);
    const __m128i mb = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, 10, 11, 12, -1, -1, -1, -1);
    int32_t i = 0;
    for (; i + 4 <= n && int64_t(6) * i + 24 <= int64_t(3) * oldW && int64_t(3) * i + 16 <= int64_t(3) * n; i += 4) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + size_t(6) * i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + size_t(6) * i + 8));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + size_t(3) * i),
                         _mm_or_si128(_mm_shuffle_epi8(a, ma), _mm_shuffle_epi8(b, mb)));
    }
    return i;
}

// Eight target pixels per step: each lane gathers four as the SSSE3 kernel
// does (lane 1 from 24 source bytes further on), stored as two overlapping
// 16-byte halves.
__attribute__((target("avx2"))) int32_t halve24Avx2(const uint8_t* src, uint8_t* dst, int32_t n,
                                                   int32_t oldW) noexcept {
    const __m256i ma = _mm256_setr_epi8(0, 1, 2, 6, 7, 8, 12, 13, 14, -1, -1, -1, -1, -1, -1, -1, 0, 1, 2, 6, 7, 8,
                                        12, 13, 14, -1, -1, -1, -1, -1, -1, -1);
    const __m256i mb = _mm256_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, 10, 11, 12, -1, -1, -1, -1, -1, -1, -1, -1,
                                        -1, -1, -1, -1, -1, 10, 11, 12, -1, -1, -1, -1);
    int32_t i = 0;
    for (; i + 8 <= n && int64_t(6) * i + 48 <= int64_t(3) * oldW && int64_t(3) * i + 28 <= int64_t(3) * n; i += 8) {
        const uint8_t* s = src + size_t(6) * i;
        const __m256i r = _mm256_or_si256(_mm256_shuffle_epi8(load2(s, s + 24), ma),
                                          _mm256_shuffle_epi8(load2(s + 8, s + 32), mb));
        uint8_t* q = dst + size_t(3) * i;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(q), _mm256_castsi256_si128(r));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(q + 12), _mm256_extracti128_si256(r, 1));
    }
    return i;
}

// Thirty-two target pixels (96 bytes) per step from 192 source bytes: two
// two-table byte permutes (AVX-512 VBMI) pick the even pixels.
struct Halve24Index {
    alignas(64) uint8_t lo[64], hi[64];
    Halve24Index() noexcept {
        for (int j = 0; j < 64; ++j) lo[j] = uint8_t(6 * (j / 3) + j % 3);                      // tables 0..127
        for (int j = 0; j < 64; ++j) hi[j] = uint8_t(6 * ((64 + j) / 3) + (64 + j) % 3 - 64);  // from byte 64
    }
};
const Halve24Index kHalve24Index;

__attribute__((target("avx512f,avx512bw,avx512vbmi"))) int32_t halve24Avx512(const uint8_t* src, uint8_t* dst,
                                                                             int32_t n, int32_t oldW) noexcept {
    const __m512i lo = _mm512_load_si512(kHalve24Index.lo), hi = _mm512_load_si512(kHalve24Index.hi);
    int32_t i = 0;
    for (; i + 32 <= n && int64_t(6) * i + 192 <= int64_t(3) * oldW && int64_t(3) * i + 96 <= int64_t(3) * n; i += 32) {
        const uint8_t* s = src + size_t(6) * i;
        const __m512i z0 = _mm512_loadu_si512(s), z1 = _mm512_loadu_si512(s + 64), z2 = _mm512_loadu_si512(s + 128);
        uint8_t* q = dst + size_t(3) * i;
        _mm512_storeu_si512(q, _mm512_permutex2var_epi8(z0, lo, z1));
        _mm512_mask_storeu_epi8(q + 64, __mmask64(0xFFFFFFFFu), _mm512_permutex2var_epi8(z1, hi, z2));
    }
    return i;
}

// ---------------------------------------------------------------- dispatch

void boxAddRow(const uint8_t* s, uint16_t* acc, int32_t m, bool first, int level) noexcept {
    if (level >= conv::kSimdAvx2)
        boxAddRowAvx2(s, acc, m, first);
    else if (level >= conv::kSimdSsse3)
        boxAddRowSse2(s, acc, m, first);
    else
        boxAddRowPlain(s, acc, m, first);
}

Box22Fn pickBox22(int32_t c, int level) noexcept {
    if (level >= conv::kSimdAvx512 && c != 3) return c == 1 ? box22Avx512<1> : box22Avx512<4>;
    if (level >= conv::kSimdAvx2) return c == 1 ? box22Avx2<1> : c == 3 ? box22Avx2<3> : box22Avx2<4>;
    if (level >= conv::kSimdSsse3) return c == 1 ? box22Ssse3<1> : c == 3 ? box22Ssse3<3> : box22Ssse3<4>;
    return nullptr;
}

Halve24Fn pickHalve24(int level) noexcept {
    if (level >= conv::kSimdAvx512) return halve24Avx512;
    if (level >= conv::kSimdAvx2) return halve24Avx2;
    if (level >= conv::kSimdSsse3) return halve24Ssse3;
    return nullptr;
}

}  // namespace rsz
}  // namespace krn
