// convert_simd.cpp - direct row kernels for the common colour pairs.
//
// Each pair has a plain kernel (the reference the tests compare against)
// and, where it pays, an SSSE3, AVX2 or AVX-512 kernel picked at run time.
// All walk in the direction that is safe in place: narrower destinations
// from the start, wider ones from the end.
#include <immintrin.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "convert.h"
#include "convert_kernels.h"

namespace krn::conv {
namespace {

// ------------------------------------------------------------ one pixel
// The per-pixel rules, shared by the plain kernels and the SIMD kernels'
// leftover pixels.

// Three samples at byte offsets Off, Off + Step, Off + 2 Step of a pixel
// (Step 1, Off 0: 24/32-bit; Step 2, Off 1: the high bytes of 48-bit),
// optionally swapped, written as one 24-bit pixel. Reads before it writes.
template <bool Swap, int Step, int Off>
inline void pick3(const uint8_t* s, uint8_t* d) {
    const uint8_t a = s[Off], b = s[Step + Off], c = s[2 * Step + Off];
    d[0] = Swap ? c : a;
    d[1] = b;
    d[2] = Swap ? a : c;
}
// 24 -> 16: SO source order (0/1), DO destination order (0, 1 or 7).
template <int SO, int DO>
inline uint32_t pixel24to16(const uint8_t* s) {
    constexpr int R = SO == ORDER_RGB ? 0 : 2, B = 2 - R;
    const uint32_t r = s[R], g = s[1], b = s[B];
    if constexpr (DO == ORDER_RGB)
        return (r >> 3) | ((g >> 3) << 5) | ((b >> 3) << 10);
    else if constexpr (DO == ORDER_BGR)
        return (b >> 3) | ((g >> 3) << 5) | ((r >> 3) << 10);
    else
        return (b >> 3) | ((g >> 2) << 5) | ((r >> 3) << 11);
}
inline uint32_t e5(uint32_t x) { return (x << 3) | (x >> 2); }
inline uint32_t e6(uint32_t y) { return (y << 2) | (y >> 4); }
// 16 -> 24: SO source order (0, 1 or 7), DO destination order (0/1).
template <int SO, int DO>
inline void pixel16to24(const uint8_t* s, uint8_t* d) {
    constexpr int R = DO == ORDER_RGB ? 0 : 2, B = 2 - R;
    const uint32_t v = ld16(s);
    uint32_t r, g, b;
    if constexpr (SO == ORDER_RGB) {
        r = e5(v & 31), g = e5((v >> 5) & 31), b = e5((v >> 10) & 31);
    } else if constexpr (SO == ORDER_BGR) {
        b = e5(v & 31), g = e5((v >> 5) & 31), r = e5((v >> 10) & 31);
    } else {
        b = e5(v & 31), g = e6((v >> 5) & 63), r = e5(v >> 11);
    }
    d[R] = uint8_t(r);
    d[1] = uint8_t(g);
    d[B] = uint8_t(b);
}

// ------------------------------------------------------------ plain kernels
template <bool Swap>
void plain24to24(uint8_t* p, size_t w) {
    if constexpr (Swap)
        for (size_t i = 0; i < w; ++i, p += 3) std::swap(p[0], p[2]);
}
template <bool Swap>
void plain24to32(uint8_t* buf, size_t w) {
    for (size_t i = w; i-- > 0;) {
        pick3<Swap, 1, 0>(buf + 3 * i, buf + 4 * i);
        buf[4 * i + 3] = 255;
    }
}
template <bool Swap>
void plain32to24(uint8_t* buf, size_t w) {
    for (size_t i = 0; i < w; ++i) pick3<Swap, 1, 0>(buf + 4 * i, buf + 3 * i);
}
template <int SO, int DO>
void plain24to16(uint8_t* buf, size_t w) {
    for (size_t i = 0; i < w; ++i) st16(buf + 2 * i, pixel24to16<SO, DO>(buf + 3 * i));
}
template <int SO, int DO>
void plain16to24(uint8_t* buf, size_t w) {
    for (size_t i = w; i-- > 0;) pixel16to24<SO, DO>(buf + 2 * i, buf + 3 * i);
}
template <bool Swap>
void plain48to24(uint8_t* buf, size_t w) {
    for (size_t i = 0; i < w; ++i) pick3<Swap, 2, 1>(buf + 6 * i, buf + 3 * i);
}
template <int SO, int Bpp>
void plainToGrey(uint8_t* buf, size_t w) {
    constexpr int R = SO == ORDER_RGB ? 0 : 2, B = 2 - R;
    for (size_t i = 0; i < w; ++i) {
        const uint8_t* s = buf + Bpp * i;
        buf[i] = uint8_t(grayFromRGB(s[R], s[1], s[B]));
    }
}

// ------------------------------------------------------------ prefetch
// The narrowing kernels (but 48->24, and the SSSE3 24-bit order swap, which
// both measured slower with it; the AVX2 swap has its own, below) walk forward and prefetch their source one page
// ahead of each step. The hardware prefetchers stop at page boundaries; this
// keeps the stream going, and near the end of the run it brings in the start
// of the next row when rows are contiguous. A prefetch never faults, so
// reaching past the run is safe. On a 4000x3000 image that misses the caches
// it took the AVX-512 32->24 from 1.77 to 1.40 ms and 24->16 from 1.35 to
// 1.09 ms. (prefetchPage, convert_kernels.h)

// ------------------------------------------------------------ SSSE3 kernels
#define OMBRIX_SSSE3 __attribute__((target("ssse3")))
#define OMBRIX_AVX2 __attribute__((target("avx2")))

OMBRIX_SSSE3 void ssse3Swap24(uint8_t* p, size_t w) {
    // 16 pixels (48 bytes) per step; each 16-byte lane shuffled with the
    // bytes it needs from its neighbours.
    size_t i = 0;
    const __m128i m0 = _mm_setr_epi8(2, 1, 0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, -1);
    const __m128i m0b = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 1);
    const __m128i m1a = _mm_setr_epi8(-1, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i m1 = _mm_setr_epi8(0, -1, 4, 3, 2, 7, 6, 5, 10, 9, 8, 13, 12, 11, -1, 15);
    const __m128i m1c = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, -1);
    const __m128i m2b = _mm_setr_epi8(14, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i m2 = _mm_setr_epi8(-1, 3, 2, 1, 6, 5, 4, 9, 8, 7, 12, 11, 10, 15, 14, 13);
    for (; i + 16 <= w; i += 16, p += 48) {
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
        __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32));
        // Bytes 0..47; pixel k at 3k. Output byte j takes input byte
        // j - (j%3) + 2 - (j%3).
        __m128i o0 = _mm_or_si128(_mm_shuffle_epi8(a, m0), _mm_shuffle_epi8(b, m0b));
        __m128i o1 = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(b, m1), _mm_shuffle_epi8(a, m1a)),
                                  _mm_shuffle_epi8(c, m1c));
        __m128i o2 = _mm_or_si128(_mm_shuffle_epi8(b, m2b), _mm_shuffle_epi8(c, m2));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), o0);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 16), o1);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 32), o2);
    }
    plain24to24<true>(p, w - i);
}

// 24 -> 32, from the end: 16 pixels (48 bytes in, 64 out) per step.
template <bool Swap>
OMBRIX_SSSE3 void ssse3_24to32(uint8_t* buf, size_t w) {
    const size_t blocks = w / 16;
    // The pixels past the last whole block first (from the end).
    for (size_t i = w; i-- > blocks * 16;) {
        pick3<Swap, 1, 0>(buf + 3 * i, buf + 4 * i);
        buf[4 * i + 3] = 255;
    }
    const __m128i m = Swap ? _mm_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1)
                           : _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    const __m128i alpha = _mm_set1_epi32(int32_t(0xFF000000u));
    for (size_t k = blocks; k-- > 0;) {
        const uint8_t* s = buf + 48 * k;
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16));
        __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 32));
        __m128i o0 = _mm_or_si128(_mm_shuffle_epi8(a, m), alpha);
        __m128i o1 = _mm_or_si128(_mm_shuffle_epi8(_mm_alignr_epi8(b, a, 12), m), alpha);
        __m128i o2 = _mm_or_si128(_mm_shuffle_epi8(_mm_alignr_epi8(c, b, 8), m), alpha);
        __m128i o3 = _mm_or_si128(_mm_shuffle_epi8(_mm_srli_si128(c, 4), m), alpha);
        uint8_t* d = buf + 64 * k;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d), o0);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16), o1);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 32), o2);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 48), o3);
    }
}

// Four lanes of 4 bytes (the first three used) into 48 contiguous bytes.
OMBRIX_SSSE3 inline void store3of4(uint8_t* d, __m128i p0, __m128i p1, __m128i p2, __m128i p3) {
    // Each p holds 12 useful bytes at the bottom.
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_or_si128(p0, _mm_slli_si128(p1, 12)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16), _mm_or_si128(_mm_srli_si128(p1, 4), _mm_slli_si128(p2, 8)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 32), _mm_or_si128(_mm_srli_si128(p2, 8), _mm_slli_si128(p3, 4)));
}

// 32 -> 24, from the start: 16 pixels per step.
template <bool Swap>
OMBRIX_SSSE3 void ssse3_32to24(uint8_t* buf, size_t w) {
    const __m128i m = Swap ? _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1)
                           : _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    size_t i = 0;
    for (; i + 16 <= w; i += 16) {
        const uint8_t* s = buf + 4 * i;
        prefetchPage(s, 64);
        __m128i p0 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)), m);
        __m128i p1 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16)), m);
        __m128i p2 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 32)), m);
        __m128i p3 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 48)), m);
        store3of4(buf + 3 * i, p0, p1, p2, p3);
    }
    for (; i < w; ++i) pick3<Swap, 1, 0>(buf + 4 * i, buf + 3 * i);
}

// 24 -> 16, from the start. Each 16-byte load holds 4 pixels (12 bytes);
// the shuffle puts the sample for the low field in byte 0 of a lane, green
// in byte 1 and the high field in byte 2.
template <int SO, int DO>
OMBRIX_SSSE3 void ssse3_24to16(uint8_t* buf, size_t w) {
    // Low field: blue unless the destination is red-first 5-5-5.
    constexpr bool lowIsRed = DO == ORDER_RGB;
    constexpr bool srcRedFirst = SO == ORDER_RGB;
    const __m128i m = (lowIsRed == srcRedFirst)
                          ? _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1)
                          : _mm_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1);
    const __m128i pack = _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i mLow = _mm_set1_epi32(0xF8), mG5 = _mm_set1_epi32(0xF800), mG6 = _mm_set1_epi32(0xFC00),
                  mHigh = _mm_set1_epi32(0xF80000);
    auto four = [&](const uint8_t* s) OMBRIX_SSSE3 {
        __m128i x = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)), m);
        __m128i v;
        if constexpr (DO == ORDER_RGB565)
            v = _mm_or_si128(_mm_or_si128(_mm_srli_epi32(_mm_and_si128(x, mLow), 3),
                                          _mm_srli_epi32(_mm_and_si128(x, mG6), 5)),
                             _mm_srli_epi32(_mm_and_si128(x, mHigh), 8));
        else
            v = _mm_or_si128(_mm_or_si128(_mm_srli_epi32(_mm_and_si128(x, mLow), 3),
                                          _mm_srli_epi32(_mm_and_si128(x, mG5), 6)),
                             _mm_srli_epi32(_mm_and_si128(x, mHigh), 9));
        return _mm_shuffle_epi8(v, pack);
    };
    size_t i = 0;
    for (; i + 18 <= w; i += 16) {
        const uint8_t* s = buf + 3 * i;
        prefetchPage(s, 48);
        __m128i a = four(s), b = four(s + 12), c = four(s + 24), d = four(s + 36);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(buf + 2 * i), _mm_unpacklo_epi64(a, b));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(buf + 2 * i + 16), _mm_unpacklo_epi64(c, d));
    }
    for (; i < w; ++i) st16(buf + 2 * i, pixel24to16<SO, DO>(buf + 3 * i));
}

// 16 -> 24, from the end: 16 pixels (32 bytes in, 48 out) per step.
template <int SO, int DO>
OMBRIX_SSSE3 void ssse3_16to24(uint8_t* buf, size_t w) {
    const size_t blocks = w / 16;
    // Pixels past the last whole block, from the end.
    for (size_t i = w; i-- > blocks * 16;) pixel16to24<SO, DO>(buf + 2 * i, buf + 3 * i);
    // A lane ends up as [low field, green, high field, 0]; the final shuffle
    // writes it in the destination order. The low field is red for a
    // red-first 5-5-5 source, blue otherwise.
    constexpr bool lowIsRed = SO == ORDER_RGB;
    constexpr bool dstRedFirst = DO == ORDER_RGB;
    const __m128i m = (lowIsRed == dstRedFirst)
                          ? _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1)
                          : _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
    const __m128i zero = _mm_setzero_si128();
    auto lanes = [&](__m128i v) OMBRIX_SSSE3 {
        __m128i t;
        if constexpr (SO == ORDER_RGB565) {
            t = _mm_or_si128(_mm_or_si128(_mm_slli_epi32(_mm_and_si128(v, _mm_set1_epi32(0x1F)), 3),
                                          _mm_slli_epi32(_mm_and_si128(v, _mm_set1_epi32(0x7E0)), 5)),
                             _mm_slli_epi32(_mm_and_si128(v, _mm_set1_epi32(0xF800)), 8));
            t = _mm_or_si128(t, _mm_or_si128(_mm_and_si128(_mm_srli_epi32(t, 5), _mm_set1_epi32(0x070007)),
                                             _mm_and_si128(_mm_srli_epi32(t, 6), _mm_set1_epi32(0x000300))));
        } else {
            t = _mm_or_si128(_mm_or_si128(_mm_slli_epi32(_mm_and_si128(v, _mm_set1_epi32(0x1F)), 3),
                                          _mm_slli_epi32(_mm_and_si128(v, _mm_set1_epi32(0x3E0)), 6)),
                             _mm_slli_epi32(_mm_and_si128(v, _mm_set1_epi32(0x7C00)), 9));
            t = _mm_or_si128(t, _mm_and_si128(_mm_srli_epi32(t, 5), _mm_set1_epi32(0x070707)));
        }
        return _mm_shuffle_epi8(t, m);
    };
    for (size_t k = blocks; k-- > 0;) {
        const uint8_t* s = buf + 32 * k;
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16));
        __m128i p0 = lanes(_mm_unpacklo_epi16(a, zero)), p1 = lanes(_mm_unpackhi_epi16(a, zero));
        __m128i p2 = lanes(_mm_unpacklo_epi16(b, zero)), p3 = lanes(_mm_unpackhi_epi16(b, zero));
        store3of4(buf + 48 * k, p0, p1, p2, p3);
    }
}

// 48 -> 24, from the start: the high byte of every sample, 16 pixels per step.
template <bool Swap>
OMBRIX_SSSE3 void ssse3_48to24(uint8_t* buf, size_t w) {
    const __m128i hi = _mm_setr_epi8(1, 3, 5, 7, 9, 11, 13, 15, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i m0 = _mm_setr_epi8(2, 1, 0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, -1);
    const __m128i m0b = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 1);
    const __m128i m1a = _mm_setr_epi8(-1, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i m1 = _mm_setr_epi8(0, -1, 4, 3, 2, 7, 6, 5, 10, 9, 8, 13, 12, 11, -1, 15);
    const __m128i m1c = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, -1);
    const __m128i m2b = _mm_setr_epi8(14, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i m2 = _mm_setr_epi8(-1, 3, 2, 1, 6, 5, 4, 9, 8, 7, 12, 11, 10, 15, 14, 13);
    size_t i = 0;
    for (; i + 16 <= w; i += 16) {
        const uint8_t* s = buf + 6 * i;
        __m128i v[6];
        for (int k = 0; k < 6; ++k)
            v[k] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16 * k)), hi);
        __m128i a = _mm_unpacklo_epi64(v[0], v[1]), b = _mm_unpacklo_epi64(v[2], v[3]),
                c = _mm_unpacklo_epi64(v[4], v[5]);
        if constexpr (Swap) {
            __m128i o0 = _mm_or_si128(_mm_shuffle_epi8(a, m0), _mm_shuffle_epi8(b, m0b));
            __m128i o1 = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(b, m1), _mm_shuffle_epi8(a, m1a)),
                                      _mm_shuffle_epi8(c, m1c));
            __m128i o2 = _mm_or_si128(_mm_shuffle_epi8(b, m2b), _mm_shuffle_epi8(c, m2));
            a = o0, b = o1, c = o2;
        }
        uint8_t* d = buf + 3 * i;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d), a);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16), b);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 32), c);
    }
    for (; i < w; ++i) pick3<Swap, 2, 1>(buf + 6 * i, buf + 3 * i);
}

// 24/32 -> 8-bit grey, from the start: (2R + 5G + B + 4) >> 3 with
// multiply-adds on lanes of [B, G, R, 0].
template <int SO, int Bpp>
OMBRIX_SSSE3 void ssse3_toGrey(uint8_t* buf, size_t w) {
    constexpr bool redFirst = SO == ORDER_RGB;
    const __m128i m = Bpp == 3 ? (redFirst ? _mm_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1)
                                           : _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1))
                               : (redFirst ? _mm_setr_epi8(2, 1, 0, -1, 6, 5, 4, -1, 10, 9, 8, -1, 14, 13, 12, -1)
                                           : _mm_setr_epi8(0, 1, 2, -1, 4, 5, 6, -1, 8, 9, 10, -1, 12, 13, 14, -1));
    const __m128i wts = _mm_set1_epi32(0x00020501);  // B*1 + G*5, R*2 + 0
    const __m128i ones = _mm_set1_epi16(1), four = _mm_set1_epi32(4);
    auto px4 = [&](const uint8_t* s) OMBRIX_SSSE3 {
        __m128i x = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)), m);
        __m128i sum = _mm_madd_epi16(_mm_maddubs_epi16(x, wts), ones);
        return _mm_srli_epi32(_mm_add_epi32(sum, four), 3);
    };
    size_t i = 0;
    // The last load of a step reads 16 bytes from pixel i + 12.
    const size_t need = Bpp == 3 ? 18 : 16;
    for (; i + need <= w; i += 16) {
        const uint8_t* s = buf + Bpp * i;
        prefetchPage(s, 16 * Bpp);
        __m128i a = px4(s), b = px4(s + 4 * Bpp), c = px4(s + 8 * Bpp), d = px4(s + 12 * Bpp);
        __m128i lo = _mm_packs_epi32(a, b), hi = _mm_packs_epi32(c, d);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(buf + i), _mm_packus_epi16(lo, hi));
    }
    constexpr int R = SO == ORDER_RGB ? 0 : 2, B = 2 - R;
    for (; i < w; ++i) {
        const uint8_t* s = buf + Bpp * i;
        buf[i] = uint8_t(grayFromRGB(s[R], s[1], s[B]));
    }
}


// ------------------------------------------------------------ AVX2 kernels
// Pixels from p to the first pixel that starts a 64-byte line (3 * 43 = 1 mod 64), at most w.
inline size_t pixelsToLine(const uint8_t* p, size_t w) {
    return std::min(w, size_t((64 - reinterpret_cast<uintptr_t>(p) % 64) % 64 * 43 % 64));
}
// 24-bit order swap in place: 32 pixels (96 bytes, three 32-byte output
// vectors) per step. Output byte j of a step takes step byte
// j - j % 3 + 2 - j % 3, so the 16 bytes of an output lane need at most 18
// consecutive source bytes: each lane is the OR of two byte shuffles, of two
// 16-byte windows that together cover them. The windows are plain 32-byte
// loads at fixed offsets of the step (its lanes are the windows), but for
// the first vector, whose second lane needs byte 15: there one load and a
// dword permute put bytes 0..15 and 12..27 in its lanes. Every window lies
// in [step, step + 97), so a step reads nothing an earlier step wrote and
// one byte past its end (the loop stops a pixel early). Loads come before
// the stores.
struct Swap24Tab {
    int8_t first[3][32], second[3][32];  // shuffles of the first and second window
};
constexpr int kSwapWin[3][2] = {{0, 4}, {30, 34}, {62, 65}};  // load offsets per output vector
constexpr Swap24Tab makeSwap24Tab() {
    Swap24Tab t{};
    for (int v = 0; v < 3; ++v)
        for (int lane = 0; lane < 2; ++lane) {
            // Lane starts of the two windows (vector 0: the permuted load).
            const int w1 = v == 0 ? 12 * lane : kSwapWin[v][0] + 16 * lane, w2 = kSwapWin[v][1] + 16 * lane;
            for (int j = 0; j < 16; ++j) {
                const int o = 32 * v + 16 * lane + j, src = o - o % 3 + 2 - o % 3;
                const bool inFirst = src >= w1 && src < w1 + 16;
                if (!inFirst && (src < w2 || src >= w2 + 16)) throw "a source byte outside both windows";
                t.first[v][16 * lane + j] = int8_t(inFirst ? src - w1 : -1);
                t.second[v][16 * lane + j] = int8_t(inFirst ? -1 : src - w2);
            }
        }
    return t;
}
inline constexpr Swap24Tab kSwap24 = makeSwap24Tab();

// The walk starts on a 64-byte line (the pixels before the first line go
// through the SSSE3 kernel): a pair of steps is exactly three lines, every
// store stays inside one line, and the prefetch below asks for each line
// once. Without a prefetch the walk reached 1.4-1.5x memcpy on a
// 4000x3000 image, with it 1.7-2.0x (the same as reading the bytes); the
// distance (2-8 KB) made no difference beyond the noise. The hint did on an
// idle machine: into the first level 1.98-2.01x, into the second 1.86-1.88x
// (alternating runs; under load the second level had been level with it).
// Reaching past the run is safe (a prefetch never faults); on contiguous
// rows it brings in the start of the next row.
constexpr uintptr_t kSwapAhead = 3072;
#define OMBRIX_AVX2_SWAP __attribute__((target("avx2")))
OMBRIX_AVX2_SWAP inline void avx2Swap24Step(uint8_t* p, const __m256i* m) {
    const __m256i idx = _mm256_setr_epi32(0, 1, 2, 3, 3, 4, 5, 6);
#define ld(q) _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q))
    const __m256i a0 = _mm256_permutevar8x32_epi32(ld(p), idx), b0 = ld(p + kSwapWin[0][1]);
    const __m256i a1 = ld(p + kSwapWin[1][0]), b1 = ld(p + kSwapWin[1][1]);
    const __m256i a2 = ld(p + kSwapWin[2][0]), b2 = ld(p + kSwapWin[2][1]);
#undef ld
    const __m256i o0 = _mm256_or_si256(_mm256_shuffle_epi8(a0, m[0]), _mm256_shuffle_epi8(b0, m[1]));
    const __m256i o1 = _mm256_or_si256(_mm256_shuffle_epi8(a1, m[2]), _mm256_shuffle_epi8(b1, m[3]));
    const __m256i o2 = _mm256_or_si256(_mm256_shuffle_epi8(a2, m[4]), _mm256_shuffle_epi8(b2, m[5]));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), o0);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p + 32), o1);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p + 64), o2);
}
OMBRIX_AVX2_SWAP void avx2Swap24(uint8_t* p, size_t w) {
    const size_t head = pixelsToLine(p, w);
    ssse3Swap24(p, head);
    p += 3 * head;
    w -= head;
    __m256i m[6];
    for (int v = 0; v < 3; ++v) {
        m[2 * v] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kSwap24.first[v]));
        m[2 * v + 1] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kSwap24.second[v]));
    }
    size_t i = 0;
    for (; i + 65 <= w; i += 64, p += 192) {
        for (uintptr_t l = 0; l < 192; l += 64) _mm_prefetch(reinterpret_cast<const char*>(p + kSwapAhead + l), _MM_HINT_T0);
        avx2Swap24Step(p, m);
        avx2Swap24Step(p + 96, m);
    }
    for (; i + 33 <= w; i += 32, p += 96) avx2Swap24Step(p, m);
    ssse3Swap24(p, w - i);
}

// Eight 3-byte pixels from a 32-byte load: bytes 0..11 into the low lane,
// 12..23 into the high lane (the load reads 8 bytes past the pixels).
OMBRIX_AVX2 inline __m256i spread24(const uint8_t* s) {
    const __m256i idx = _mm256_setr_epi32(0, 1, 2, 3, 3, 4, 5, 6);
    return _mm256_permutevar8x32_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s)), idx);
}

// 24 -> 16, from the start: 16 pixels per step.
template <int SO, int DO>
OMBRIX_AVX2 void avx2_24to16(uint8_t* buf, size_t w) {
    constexpr bool lowIsRed = DO == ORDER_RGB;
    constexpr bool srcRedFirst = SO == ORDER_RGB;
    const __m256i m = (lowIsRed == srcRedFirst)
                          ? _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1,
                                             0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1)
                          : _mm256_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1,
                                             2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1);
    const __m256i pack = _mm256_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1,
                                          0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m256i mLow = _mm256_set1_epi32(0xF8), mG5 = _mm256_set1_epi32(0xF800), mG6 = _mm256_set1_epi32(0xFC00),
                  mHigh = _mm256_set1_epi32(0xF80000);
    auto eight = [&](const uint8_t* s) OMBRIX_AVX2 {
        __m256i x = _mm256_shuffle_epi8(spread24(s), m);
        __m256i v;
        if constexpr (DO == ORDER_RGB565)
            v = _mm256_or_si256(_mm256_or_si256(_mm256_srli_epi32(_mm256_and_si256(x, mLow), 3),
                                                _mm256_srli_epi32(_mm256_and_si256(x, mG6), 5)),
                                _mm256_srli_epi32(_mm256_and_si256(x, mHigh), 8));
        else
            v = _mm256_or_si256(_mm256_or_si256(_mm256_srli_epi32(_mm256_and_si256(x, mLow), 3),
                                                _mm256_srli_epi32(_mm256_and_si256(x, mG5), 6)),
                                _mm256_srli_epi32(_mm256_and_si256(x, mHigh), 9));
        return _mm256_shuffle_epi8(v, pack);
    };
    size_t i = 0;
    for (; i + 19 <= w; i += 16) {
        const uint8_t* s = buf + 3 * i;
        prefetchPage(s, 48);
        __m256i a = eight(s), b = eight(s + 24);
        __m256i v = _mm256_permute4x64_epi64(_mm256_unpacklo_epi64(a, b), 0xD8);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(buf + 2 * i), v);
    }
    for (; i < w; ++i) st16(buf + 2 * i, pixel24to16<SO, DO>(buf + 3 * i));
}

// 16 -> 24 widening: each field is widened with one high-half multiply
// ((x << 3) | (x >> 2) is 33x / 4 for five bits, (y << 2) | (y >> 4) is
// 65y / 16 for six).

// In place towards a wider destination, from the end, with no copy: each
// step first loads all the source pixels it needs into registers and then
// stores its whole output. Step k reads bytes [Sk, Sk + S + 8) and writes
// [Dk, Dk + D) with D > S, so a step never reads what an earlier (higher)
// step wrote and its loads never overlap a store still in flight. The
// pixels past the last whole step go first, through the plain loop.
//
// Before the walk the lines are touched front to back with a prefetch for
// writing: they then arrive in address order, which the hardware prefetchers
// follow, and the walk finds them in the first-level cache. Without it the
// backward walks measured 1.8-2.3 times slower. The touch covers one chunk
// of at most kTouchBytes of destination at a time (the walk goes chunk by
// chunk from the end), so a run longer than a row (a whole image in one
// call) does not touch megabytes that are evicted before the walk reaches
// them: the set-up per chunk stays the same whatever the run's length.
#define OMBRIX_AVX2_PW __attribute__((target("avx2,prfchw")))
OMBRIX_AVX2_PW inline void touchForWrite(uint8_t* p, size_t bytes) {
    for (size_t o = 0; o < bytes; o += 64) __builtin_prefetch(p + o, 1, 3);
}
constexpr size_t kTouchBytes = 16384;
// Walking down, the step about a page below the current one (In source and
// Out target bytes a step, in place): its source lines prefetched for
// reading, its target lines for writing, so that the walk does not wait for
// either when it gets there. On a whole 4000x3000 image in place, 5-6-5 to 24
// bits went from 1.56-1.65 to 1.25-1.31 ms and 24 to 32 from 1.97-2.07 to
// 1.58-1.64 ms. The step must be inlined: a call would spill the walk's
// vector constants. Only for runs of at least kFarBytes of source (a whole
// image in one call): a row-sized run gained nothing and measured slower.
constexpr size_t kFarBytes = size_t(1) << 16;
template <size_t In, size_t Out>
OMBRIX_AVX2_PW __attribute__((always_inline)) inline void prefetchBelow(bool far, const uint8_t* s, const uint8_t* d) {
    if (!far) return;
    // Addresses as integers: below the run's start they are only prefetched,
    // which never faults.
    const uintptr_t ps = reinterpret_cast<uintptr_t>(s) - 4096, pd = reinterpret_cast<uintptr_t>(d) - 4096 / In * Out;
    for (size_t o = 0; o < In; o += 64) _mm_prefetch(reinterpret_cast<const char*>(ps + o), _MM_HINT_T0);
    for (size_t o = 0; o < Out; o += 64) __builtin_prefetch(reinterpret_cast<const char*>(pd + o), 1, 3);
}
// Calls step(k) for k = steps - 1 down to 0, touching each chunk of steps
// (outBytes of destination each, from dst) before walking it.
template <class Step>
OMBRIX_AVX2_PW inline void backInChunks(uint8_t* dst, size_t steps, size_t outBytes, Step step) {
    const size_t per = kTouchBytes / outBytes;
    for (size_t hi = steps; hi > 0;) {
        const size_t lo = hi > per ? hi - per : 0;
        touchForWrite(dst + outBytes * lo, outBytes * (hi - lo));
        for (size_t k = hi; k-- > lo;) step(k);
        hi = lo;
    }
}

// 24 -> 32: 32 pixels (96 bytes in, 128 out) per step.
template <bool Swap>
OMBRIX_AVX2_PW void avx2_24to32_back(uint8_t* buf, size_t w) {
    const size_t steps = w / 32, end = 32 * steps;
    touchForWrite(buf + 128 * steps, 4 * (w - end));
    const bool far = 3 * w >= kFarBytes;
    auto plain = [buf](size_t i) {
        pick3<Swap, 1, 0>(buf + 3 * i, buf + 4 * i);
        buf[4 * i + 3] = 255;
    };
    for (size_t i = w; i-- > end;) plain(i);
    const __m256i m = Swap ? _mm256_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1,
                                              2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1)
                           : _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1,
                                              0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    const __m256i alpha = _mm256_set1_epi32(int32_t(0xFF000000u));
    backInChunks(buf, steps, 128, [&](size_t k) OMBRIX_AVX2_PW {
        const uint8_t* s = buf + 96 * k;
        prefetchBelow<96, 128>(far, s, buf + 128 * k);
        const __m256i a = spread24(s), b = spread24(s + 24), c = spread24(s + 48), d = spread24(s + 72);
        uint8_t* o = buf + 128 * k;
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(o + 96), _mm256_or_si256(_mm256_shuffle_epi8(d, m), alpha));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(o + 64), _mm256_or_si256(_mm256_shuffle_epi8(c, m), alpha));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(o + 32), _mm256_or_si256(_mm256_shuffle_epi8(b, m), alpha));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(o), _mm256_or_si256(_mm256_shuffle_epi8(a, m), alpha));
    });
}

// 16 -> 24: 32 pixels (64 bytes in, 96 out) per step, one 32-byte store per
// output vector. Output vector v (bytes 32v..32v+31) needs pixels
// 32v/3..(32v+31)/3; a 32-byte load at pixel 10v and a dword permute give
// each 128-bit lane eight consecutive pixels holding the ones its 16 output
// bytes take (lane bases 0/4, 10/16, 20/26). The fields are widened per word
// as above; two byte shuffles per vector (one from the
// low-field/green words, one from the high-field words) place them.
struct Pack16to24 {
    int8_t lg[3][32];
    int8_t h[3][32];
};
constexpr Pack16to24 makePack16to24(bool lowFirst) {
    Pack16to24 t{};
    constexpr int base[3][2] = {{0, 4}, {10, 16}, {20, 26}};
    for (int v = 0; v < 3; ++v)
        for (int lane = 0; lane < 2; ++lane)
            for (int j = 0; j < 16; ++j) {
                const int o = 32 * v + 16 * lane + j, p = o / 3, c = o % 3, wi = p - base[v][lane];
                int8_t lg = -1, h = -1;
                if (c == 1)
                    lg = int8_t(8 + wi);
                else if ((c == 0) == lowFirst)
                    lg = int8_t(wi);
                else
                    h = int8_t(2 * wi);
                t.lg[v][16 * lane + j] = lg;
                t.h[v][16 * lane + j] = h;
            }
    return t;
}
template <bool LowFirst>
inline constexpr Pack16to24 kPack16to24 = makePack16to24(LowFirst);

template <int SO, int DO>
OMBRIX_AVX2_PW void avx2_16to24_back(uint8_t* buf, size_t w) {
    const size_t steps = w / 32, end = 32 * steps;
    const bool far = 2 * w >= kFarBytes;
    touchForWrite(buf + 96 * steps, 3 * (w - end));
    for (size_t i = w; i-- > end;) pixel16to24<SO, DO>(buf + 2 * i, buf + 3 * i);
    constexpr bool lowFirst = (SO == ORDER_RGB) == (DO == ORDER_RGB);
    const Pack16to24& t = kPack16to24<lowFirst>;
#define OMBRIX_LD(q) _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q))
    const __m256i lg0 = OMBRIX_LD(t.lg[0]), lg1 = OMBRIX_LD(t.lg[1]), lg2 = OMBRIX_LD(t.lg[2]);
    const __m256i h0 = OMBRIX_LD(t.h[0]), h1 = OMBRIX_LD(t.h[1]), h2 = OMBRIX_LD(t.h[2]);
#undef OMBRIX_LD
    const __m256i idx0 = _mm256_setr_epi32(0, 1, 2, 3, 2, 3, 4, 5), idx1 = _mm256_setr_epi32(0, 1, 2, 3, 3, 4, 5, 6);
    const __m256i k5 = _mm256_set1_epi16(264);
    const __m256i gMask = _mm256_set1_epi16(SO == ORDER_RGB565 ? 0x07E0 : 0x03E0);
    const __m256i gMul = _mm256_set1_epi16(SO == ORDER_RGB565 ? 8320 : 16896);
    const __m256i hMask = _mm256_set1_epi16(int16_t(SO == ORDER_RGB565 ? 0xF800 : 0x7C00));
    const __m256i hMul = _mm256_set1_epi16(SO == ORDER_RGB565 ? 264 : 528);
    auto vec = [&](const uint8_t* s, __m256i idx, __m256i mlg, __m256i mh) OMBRIX_AVX2_PW {
        const __m256i v = _mm256_permutevar8x32_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s)), idx);
        const __m256i lo = _mm256_mulhi_epu16(_mm256_slli_epi16(v, 11), k5);
        const __m256i g = _mm256_mulhi_epu16(_mm256_and_si256(v, gMask), gMul);
        const __m256i hi = _mm256_mulhi_epu16(_mm256_and_si256(v, hMask), hMul);
        const __m256i lg = _mm256_packus_epi16(lo, g);
        return _mm256_or_si256(_mm256_shuffle_epi8(lg, mlg), _mm256_shuffle_epi8(hi, mh));
    };
    backInChunks(buf, steps, 96, [&](size_t k) OMBRIX_AVX2_PW {
        const uint8_t* s = buf + 64 * k;
        prefetchBelow<64, 96>(far, s, buf + 96 * k);
        const __m256i o0 = vec(s, idx0, lg0, h0), o1 = vec(s + 20, idx1, lg1, h1), o2 = vec(s + 40, idx1, lg2, h2);
        uint8_t* d = buf + 96 * k;
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + 64), o2);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + 32), o1);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d), o0);
    });
}

// 16 -> 24 with byte permutes across the whole register (AVX-512 VBMI):
// 64 pixels (128 bytes in, 192 out) per step, each field widened once.
// The three fields are packed into three byte planes; each output vector
// takes the low field and green with one two-table permute and the high
// field with one masked permute. Pixels past the last whole step go first,
// as one step with masked loads and stores.
#define OMBRIX_AVX512_PW __attribute__((target("avx512f,avx512bw,avx512vbmi,prfchw")))
struct Planes16to24 {
    uint8_t lg[3][64];  // low field 0..63, green 64..127
    uint8_t h[3][64];
    uint64_t hMask[3];  // output bytes taken from the high-field plane
};
constexpr Planes16to24 makePlanes16to24(bool lowFirst) {
    Planes16to24 t{};
    for (int v = 0; v < 3; ++v)
        for (int j = 0; j < 64; ++j) {
            // pixel p sits in the planes (words packed lane by lane, the
            // first 32 pixels before the second in every lane) at:
            const int o = 64 * v + j, p = o / 3, c = o % 3, q = p % 32;
            const int pos = (q / 8) * 16 + (p / 32) * 8 + q % 8;
            const bool high = c == (lowFirst ? 2 : 0);
            t.lg[v][j] = uint8_t(c == 1 ? 64 + pos : pos);
            t.h[v][j] = uint8_t(pos);
            if (high) t.hMask[v] |= uint64_t(1) << j;
        }
    return t;
}
template <bool LowFirst>
inline constexpr Planes16to24 kPlanes16to24 = makePlanes16to24(LowFirst);

inline uint64_t lowBits(size_t n) { return n >= 64 ? ~uint64_t(0) : (uint64_t(1) << n) - 1; }

template <int SO, int DO>
OMBRIX_AVX512_PW void avx512_16to24(uint8_t* buf, size_t w) {
    const size_t steps = w / 64, rest = w % 64;
    touchForWrite(buf + 192 * steps, 3 * rest);
    const bool far = 2 * w >= kFarBytes;
    const Planes16to24& t = kPlanes16to24<(SO == ORDER_RGB) == (DO == ORDER_RGB)>;
    const __m512i lg0 = _mm512_loadu_si512(t.lg[0]), lg1 = _mm512_loadu_si512(t.lg[1]), lg2 = _mm512_loadu_si512(t.lg[2]);
    const __m512i h0 = _mm512_loadu_si512(t.h[0]), h1 = _mm512_loadu_si512(t.h[1]), h2 = _mm512_loadu_si512(t.h[2]);
    const __m512i k5 = _mm512_set1_epi16(264);
    const __m512i gMask = _mm512_set1_epi16(SO == ORDER_RGB565 ? 0x07E0 : 0x03E0);
    const __m512i gMul = _mm512_set1_epi16(SO == ORDER_RGB565 ? 8320 : 16896);
    const __m512i hMask = _mm512_set1_epi16(int16_t(SO == ORDER_RGB565 ? 0xF800 : 0x7C00));
    const __m512i hMul = _mm512_set1_epi16(SO == ORDER_RGB565 ? 264 : 528);
    // 64 source words in a, b to three output vectors.
    auto step = [&](__m512i a, __m512i b, __m512i& o0, __m512i& o1, __m512i& o2) OMBRIX_AVX512_PW {
        const __m512i lo = _mm512_packus_epi16(_mm512_mulhi_epu16(_mm512_slli_epi16(a, 11), k5),
                                               _mm512_mulhi_epu16(_mm512_slli_epi16(b, 11), k5));
        const __m512i g = _mm512_packus_epi16(_mm512_mulhi_epu16(_mm512_and_si512(a, gMask), gMul),
                                              _mm512_mulhi_epu16(_mm512_and_si512(b, gMask), gMul));
        const __m512i hi = _mm512_packus_epi16(_mm512_mulhi_epu16(_mm512_and_si512(a, hMask), hMul),
                                               _mm512_mulhi_epu16(_mm512_and_si512(b, hMask), hMul));
        o0 = _mm512_mask_permutexvar_epi8(_mm512_permutex2var_epi8(lo, lg0, g), t.hMask[0], h0, hi);
        o1 = _mm512_mask_permutexvar_epi8(_mm512_permutex2var_epi8(lo, lg1, g), t.hMask[1], h1, hi);
        o2 = _mm512_mask_permutexvar_epi8(_mm512_permutex2var_epi8(lo, lg2, g), t.hMask[2], h2, hi);
    };
    __m512i o0, o1, o2;
    // Pixels [first, first + n), n < 64, as one step with masked loads and stores.
    auto partial = [&](size_t first, size_t n) OMBRIX_AVX512_PW {
        const uint8_t* s = buf + 2 * first;
        const __m512i a = _mm512_maskz_loadu_epi8(lowBits(2 * n), s);
        const __m512i b = _mm512_maskz_loadu_epi8(n > 32 ? lowBits(2 * n - 64) : 0, s + 64);
        step(a, b, o0, o1, o2);
        uint8_t* d = buf + 3 * first;
        if (3 * n > 128) _mm512_mask_storeu_epi8(d + 128, lowBits(3 * n - 128), o2);
        if (3 * n > 64) _mm512_mask_storeu_epi8(d + 64, lowBits(3 * n - 64), o1);
        _mm512_mask_storeu_epi8(d, lowBits(3 * n), o0);
    };
    if (rest) partial(64 * steps, rest);
    constexpr size_t per = kTouchBytes / 192;  // as backInChunks
    for (size_t hi = steps; hi > 0;) {
        const size_t lo = hi > per ? hi - per : 0;
        touchForWrite(buf + 192 * lo, 192 * (hi - lo));
        for (size_t k = hi; k-- > lo;) {
            const uint8_t* s = buf + 128 * k;
            uint8_t* d = buf + 192 * k;
            prefetchBelow<128, 192>(far, s, d);
            step(_mm512_loadu_si512(s), _mm512_loadu_si512(s + 64), o0, o1, o2);
            _mm512_storeu_si512(d + 128, o2);
            _mm512_storeu_si512(d + 64, o1);
            _mm512_storeu_si512(d, o0);
        }
        hi = lo;
    }
}

// ------------------------------------------------------------ AVX-512 narrowing
// Narrower destinations from the start, 64 pixels per step: the step's
// In whole source vectors are loaded, byte permutes across two vectors
// gather what each output needs, and Out whole vectors are stored. A step
// loads everything before it stores, and its stores end before the next
// step's loads begin, so in place is safe. The pixels past the last whole
// step go as one step with masked loads and stores (nothing outside the run
// is read or written).
//
// Each step also prefetches its source one page ahead (prefetchPage).
inline uint64_t maskFrom(size_t bytes, size_t off) { return bytes > off ? lowBits(bytes - off) : 0; }

template <int In, int Out, int Bin, int Bout, class Step>
OMBRIX_AVX512_PW inline void narrow512(uint8_t* buf, size_t w, Step step) {
    __m512i x[In], y[Out];
    size_t i = 0;
    for (; i + 64 <= w; i += 64) {
        const uint8_t* s = buf + Bin * i;
        prefetchPage(s, size_t(64 * In));
        for (int v = 0; v < In; ++v) x[v] = _mm512_loadu_si512(s + 64 * v);
        step(x, y);
        uint8_t* d = buf + Bout * i;
        for (int v = 0; v < Out; ++v) _mm512_storeu_si512(d + 64 * v, y[v]);
    }
    if (i < w) {
        const size_t n = w - i, inBytes = Bin * n, outBytes = Bout * n;
        const uint8_t* s = buf + Bin * i;
        for (int v = 0; v < In; ++v) x[v] = _mm512_maskz_loadu_epi8(maskFrom(inBytes, 64 * v), s + 64 * v);
        step(x, y);
        uint8_t* d = buf + Bout * i;
        for (int v = 0; v < Out; ++v)
            if (outBytes > size_t(64 * v)) _mm512_mask_storeu_epi8(d + 64 * v, maskFrom(outBytes, 64 * v), y[v]);
    }
}

// Byte-gather tables. For a narrowing to 16-bit words, half h of a step
// (pixels 32h..32h+31) is gathered from source vectors pair(h), pair(h)+1:
// with 3-byte pixels vectors 0,1 and 1,2, with 4-byte pixels 0,1 and 2,3.
constexpr int pairOf(int bin, int h) { return h * (bin == 3 ? 1 : 2); }
struct Gather2 {
    uint8_t t[2][64];
};
// Word j of half h = (source byte `lo` of pixel, source byte `hi` of
// pixel); a negative offset leaves that byte to a zeroing mask.
constexpr Gather2 makeWordGather(int bin, int lo, int hi) {
    Gather2 g{};
    for (int h = 0; h < 2; ++h)
        for (int j = 0; j < 32; ++j) {
            const int base = bin * (32 * h + j) - 64 * pairOf(bin, h);
            g.t[h][2 * j] = uint8_t(lo < 0 ? 0 : base + lo);
            g.t[h][2 * j + 1] = uint8_t(hi < 0 ? 0 : base + hi);
        }
    return g;
}
constexpr uint64_t kEvenBytes = 0x5555555555555555ull, kOddBytes = 0xAAAAAAAAAAAAAAAAull;

// 24 -> 16: per word, (low-field byte, green byte) and (0, high-field byte).
template <int SO, int DO>
OMBRIX_AVX512_PW void avx512_24to16(uint8_t* buf, size_t w) {
    constexpr bool lowIsRed = DO == ORDER_RGB, srcRedFirst = SO == ORDER_RGB;
    constexpr int lo = lowIsRed == srcRedFirst ? 0 : 2, hi = 2 - lo;
    static constexpr Gather2 ga = makeWordGather(3, lo, 1), gh = makeWordGather(3, -1, hi);
    const __m512i a0 = _mm512_loadu_si512(ga.t[0]), a1 = _mm512_loadu_si512(ga.t[1]);
    const __m512i h0 = _mm512_loadu_si512(gh.t[0]), h1 = _mm512_loadu_si512(gh.t[1]);
    const __m512i mLow = _mm512_set1_epi16(0x00F8);
    const __m512i mG = _mm512_set1_epi16(int16_t(DO == ORDER_RGB565 ? 0xFC00 : 0xF800));
    const __m512i mHigh = _mm512_set1_epi16(int16_t(0xF800));
    auto words = [&](__m512i p, __m512i q, __m512i ia, __m512i ih) OMBRIX_AVX512_PW {
        const __m512i a = _mm512_permutex2var_epi8(p, ia, q);
        const __m512i h = _mm512_and_si512(_mm512_maskz_permutex2var_epi8(kOddBytes, p, ih, q), mHigh);
        const __m512i l = _mm512_srli_epi16(_mm512_and_si512(a, mLow), 3);
        const __m512i g = _mm512_srli_epi16(_mm512_and_si512(a, mG), DO == ORDER_RGB565 ? 5 : 6);
        return _mm512_ternarylogic_epi32(l, g, DO == ORDER_RGB565 ? h : _mm512_srli_epi16(h, 1), 0xFE);
    };
    narrow512<3, 2, 3, 2>(buf, w, [&](const __m512i* x, __m512i* y) OMBRIX_AVX512_PW {
        y[0] = words(x[0], x[1], a0, h0);
        y[1] = words(x[1], x[2], a1, h1);
    });
}

// 24/32 -> 8-bit grey: (B, G) and (R, 0) words, two multiply-adds, and
// the low bytes of the 64 words picked into one vector.
template <int SO, int Bpp>
OMBRIX_AVX512_PW void avx512_toGrey(uint8_t* buf, size_t w) {
    constexpr int R = SO == ORDER_RGB ? 0 : 2, B = 2 - R;
    static constexpr Gather2 gp = makeWordGather(Bpp, B, 1), gq = makeWordGather(Bpp, R, -1);
    const __m512i p0 = _mm512_loadu_si512(gp.t[0]), p1 = _mm512_loadu_si512(gp.t[1]);
    const __m512i q0 = _mm512_loadu_si512(gq.t[0]), q1 = _mm512_loadu_si512(gq.t[1]);
    const __m512i wBG = _mm512_set1_epi16(0x0501), wR = _mm512_set1_epi16(0x0002), four = _mm512_set1_epi16(4);
    const __m512i lowBytes = _mm512_set_epi8(126, 124, 122, 120, 118, 116, 114, 112, 110, 108, 106, 104, 102, 100, 98, 96,
                                             94, 92, 90, 88, 86, 84, 82, 80, 78, 76, 74, 72, 70, 68, 66, 64, 62, 60, 58,
                                             56, 54, 52, 50, 48, 46, 44, 42, 40, 38, 36, 34, 32, 30, 28, 26, 24, 22, 20,
                                             18, 16, 14, 12, 10, 8, 6, 4, 2, 0);
    auto grey = [&](__m512i p, __m512i q, __m512i ip, __m512i iq) OMBRIX_AVX512_PW {
        const __m512i bg = _mm512_maddubs_epi16(_mm512_permutex2var_epi8(p, ip, q), wBG);
        const __m512i r = _mm512_maddubs_epi16(_mm512_maskz_permutex2var_epi8(kEvenBytes, p, iq, q), wR);
        return _mm512_srli_epi16(_mm512_add_epi16(_mm512_add_epi16(bg, r), four), 3);
    };
    constexpr int second = pairOf(Bpp, 1);
    narrow512<Bpp, 1, Bpp, 1>(buf, w, [&](const __m512i* x, __m512i* y) OMBRIX_AVX512_PW {
        y[0] = _mm512_permutex2var_epi8(grey(x[0], x[1], p0, q0), lowBytes, grey(x[second], x[second + 1], p1, q1));
    });
}

// 32 -> 24: output vector v gathered from source vectors v, v + 1.
struct Gather3 {
    uint8_t t[3][64];
};
constexpr Gather3 make32to24(bool swap) {
    Gather3 g{};
    for (int v = 0; v < 3; ++v)
        for (int j = 0; j < 64; ++j) {
            const int o = 64 * v + j, p = o / 3, c = o % 3;
            g.t[v][j] = uint8_t(4 * p + (swap ? 2 - c : c) - 64 * v);
        }
    return g;
}
template <bool Swap>
OMBRIX_AVX512_PW void avx512_32to24(uint8_t* buf, size_t w) {
    static constexpr Gather3 g = make32to24(Swap);
    const __m512i t0 = _mm512_loadu_si512(g.t[0]), t1 = _mm512_loadu_si512(g.t[1]), t2 = _mm512_loadu_si512(g.t[2]);
    narrow512<4, 3, 4, 3>(buf, w, [&](const __m512i* x, __m512i* y) OMBRIX_AVX512_PW {
        y[0] = _mm512_permutex2var_epi8(x[0], t0, x[1]);
        y[1] = _mm512_permutex2var_epi8(x[1], t1, x[2]);
        y[2] = _mm512_permutex2var_epi8(x[2], t2, x[3]);
    });
}

template <bool Swap>
void avx2_24to32(uint8_t* buf, size_t w) {
    avx2_24to32_back<Swap>(buf, w);
}
template <int SO, int DO>
void avx2_16to24(uint8_t* buf, size_t w) {
    avx2_16to24_back<SO, DO>(buf, w);
}

template <int SO, int DO>
RowFn pick24to16(bool x, bool y, bool z) {
    return z ? avx512_24to16<SO, DO> : y ? avx2_24to16<SO, DO> : x ? ssse3_24to16<SO, DO> : plain24to16<SO, DO>;
}
template <int SO, int Bpp>
RowFn pickGrey(bool x, bool z) {
    return z ? avx512_toGrey<SO, Bpp> : x ? ssse3_toGrey<SO, Bpp> : plainToGrey<SO, Bpp>;
}
template <int SO, int DO>
RowFn pick16to24(bool x, bool y, bool z) {
    return z ? avx512_16to24<SO, DO> : y ? avx2_16to24<SO, DO> : x ? ssse3_16to24<SO, DO> : plain16to24<SO, DO>;
}

}  // namespace

int simdCeiling() noexcept {
    static const int level = [] {
        const char* v = std::getenv("OMBRIX_SIMD");
        if (!v) return kSimdAvx512;
        if (!std::strcmp(v, "none")) return kSimdNone;
        if (!std::strcmp(v, "ssse3")) return kSimdSsse3;
        if (!std::strcmp(v, "avx2")) return kSimdAvx2;
        return kSimdAvx512;
    }();
    return level;
}

RowFn pickDirect(const DirectKey& k, int maxLevel) noexcept {
    const bool swap = k.srcOrder != k.dstOrder;
    const bool x = maxLevel >= kSimdSsse3 && __builtin_cpu_supports("ssse3");
    const bool y = maxLevel >= kSimdAvx2 && __builtin_cpu_supports("avx2");
    const bool z = maxLevel >= kSimdAvx512 && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vbmi");
    const bool srcRgb = k.srcOrder == ORDER_RGB;
    if (k.srcBits == 24 && k.dstBits == 24 && k.srcOrder <= 1 && k.dstOrder <= 1)
        return swap ? (y ? avx2Swap24 : x ? ssse3Swap24 : plain24to24<true>) : plain24to24<false>;
    if (k.srcBits == 24 && k.dstBits == 32 && k.srcOrder <= 1 && k.dstOrder <= 1)
        return swap ? (y ? avx2_24to32<true> : x ? ssse3_24to32<true> : plain24to32<true>)
                    : (y ? avx2_24to32<false> : x ? ssse3_24to32<false> : plain24to32<false>);
    if (k.srcBits == 32 && k.dstBits == 24 && k.srcOrder <= 1 && k.dstOrder <= 1)
        return swap ? (z ? avx512_32to24<true> : x ? ssse3_32to24<true> : plain32to24<true>)
                    : (z ? avx512_32to24<false> : x ? ssse3_32to24<false> : plain32to24<false>);
    if (k.srcBits == 48 && k.dstBits == 24 && k.srcOrder <= 1 && k.dstOrder <= 1)
        return swap ? (x ? ssse3_48to24<true> : plain48to24<true>) : (x ? ssse3_48to24<false> : plain48to24<false>);
    if (k.srcBits == 24 && k.dstBits == 16 && k.srcOrder <= 1) {
        switch (k.dstOrder) {
            case ORDER_RGB: return srcRgb ? pick24to16<0, 0>(x, y, z) : pick24to16<1, 0>(x, y, z);
            case ORDER_BGR: return srcRgb ? pick24to16<0, 1>(x, y, z) : pick24to16<1, 1>(x, y, z);
            case ORDER_RGB565: return srcRgb ? pick24to16<0, 7>(x, y, z) : pick24to16<1, 7>(x, y, z);
            default: return nullptr;
        }
    }
    if (k.srcBits == 16 && k.dstBits == 24 && k.dstOrder <= 1) {
        const bool rgb = k.dstOrder == ORDER_RGB;
        switch (k.srcOrder) {
            case ORDER_RGB: return rgb ? pick16to24<0, 0>(x, y, z) : pick16to24<0, 1>(x, y, z);
            case ORDER_BGR: return rgb ? pick16to24<1, 0>(x, y, z) : pick16to24<1, 1>(x, y, z);
            case ORDER_RGB565: return rgb ? pick16to24<7, 0>(x, y, z) : pick16to24<7, 1>(x, y, z);
            default: return nullptr;
        }
    }
    if (k.dstBits == 0 && k.srcOrder <= 1 && (k.srcBits == 24 || k.srcBits == 32)) {
        if (k.srcBits == 24) return srcRgb ? pickGrey<0, 3>(x, z) : pickGrey<1, 3>(x, z);
        return srcRgb ? pickGrey<0, 4>(x, z) : pickGrey<1, 4>(x, z);
    }
    return nullptr;
}

}  // namespace krn::conv
