// convert_simd.cpp - direct row kernels for the common colour pairs.
//
// Each pair has a plain kernel (the reference the tests compare against)
// and, where it pays, an SSSE3 or AVX2 kernel picked at run time. All walk
// in the direction that is safe in place: narrower destinations from the
// start, wider ones from the end.
#include <immintrin.h>

#include <cstring>
#include <utility>

#include "convert.h"
#include "convert_kernels.h"

namespace krn::conv {
namespace {

// ------------------------------------------------------------ plain kernels
template <bool Swap>
void plain24to24(uint8_t* p, size_t w) {
    if constexpr (Swap)
        for (size_t i = 0; i < w; ++i, p += 3) std::swap(p[0], p[2]);
}
template <bool Swap>
void plain24to32(uint8_t* buf, size_t w) {
    for (size_t i = w; i-- > 0;) {
        const uint8_t* s = buf + 3 * i;
        uint8_t a = s[0], b = s[1], c = s[2];
        uint8_t* d = buf + 4 * i;
        d[0] = Swap ? c : a;
        d[1] = b;
        d[2] = Swap ? a : c;
        d[3] = 255;
    }
}
template <bool Swap>
void plain32to24(uint8_t* buf, size_t w) {
    for (size_t i = 0; i < w; ++i) {
        const uint8_t* s = buf + 4 * i;
        uint8_t a = s[0], b = s[1], c = s[2];
        uint8_t* d = buf + 3 * i;
        d[0] = Swap ? c : a;
        d[1] = b;
        d[2] = Swap ? a : c;
    }
}
// 24 -> 16: SO source order (0/1), DO destination order (0, 1 or 7).
template <int SO, int DO>
void plain24to16(uint8_t* buf, size_t w) {
    constexpr int R = SO == ORDER_RGB ? 0 : 2, B = 2 - R;
    for (size_t i = 0; i < w; ++i) {
        const uint8_t* s = buf + 3 * i;
        uint32_t r = s[R], g = s[1], b = s[B], v;
        if constexpr (DO == ORDER_RGB)
            v = (r >> 3) | ((g >> 3) << 5) | ((b >> 3) << 10);
        else if constexpr (DO == ORDER_BGR)
            v = (b >> 3) | ((g >> 3) << 5) | ((r >> 3) << 10);
        else
            v = (b >> 3) | ((g >> 2) << 5) | ((r >> 3) << 11);
        st16(buf + 2 * i, v);
    }
}
inline uint32_t e5(uint32_t x) { return (x << 3) | (x >> 2); }
inline uint32_t e6(uint32_t y) { return (y << 2) | (y >> 4); }
template <int SO, int DO>
void plain16to24(uint8_t* buf, size_t w) {
    constexpr int R = DO == ORDER_RGB ? 0 : 2, B = 2 - R;
    for (size_t i = w; i-- > 0;) {
        uint32_t v = ld16(buf + 2 * i), r, g, b;
        if constexpr (SO == ORDER_RGB) {
            r = e5(v & 31), g = e5((v >> 5) & 31), b = e5((v >> 10) & 31);
        } else if constexpr (SO == ORDER_BGR) {
            b = e5(v & 31), g = e5((v >> 5) & 31), r = e5((v >> 10) & 31);
        } else {
            b = e5(v & 31), g = e6((v >> 5) & 63), r = e5(v >> 11);
        }
        uint8_t* d = buf + 3 * i;
        d[R] = uint8_t(r);
        d[1] = uint8_t(g);
        d[B] = uint8_t(b);
    }
}
template <bool Swap>
void plain48to24(uint8_t* buf, size_t w) {
    for (size_t i = 0; i < w; ++i) {
        const uint8_t* s = buf + 6 * i;
        uint8_t a = s[1], b = s[3], c = s[5];
        uint8_t* d = buf + 3 * i;
        d[0] = Swap ? c : a;
        d[1] = b;
        d[2] = Swap ? a : c;
    }
}
template <int SO, int Bpp>
void plainToGrey(uint8_t* buf, size_t w) {
    constexpr int R = SO == ORDER_RGB ? 0 : 2, B = 2 - R;
    for (size_t i = 0; i < w; ++i) {
        const uint8_t* s = buf + Bpp * i;
        buf[i] = uint8_t(grayFromRGB(s[R], s[1], s[B]));
    }
}

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

}  // namespace

RowFn pickDirect(const DirectKey& k, bool allowSimd) noexcept {
    (void)allowSimd;
    const bool swap = k.srcOrder != k.dstOrder;
    const bool ssse3 = allowSimd && __builtin_cpu_supports("ssse3");
    (void)ssse3;
    if (k.srcBits == 24 && k.dstBits == 24 && k.srcOrder <= 1 && k.dstOrder <= 1)
        return swap ? (ssse3 ? ssse3Swap24 : plain24to24<true>) : plain24to24<false>;
    if (k.srcBits == 24 && k.dstBits == 32 && k.srcOrder <= 1 && k.dstOrder <= 1)
        return swap ? plain24to32<true> : plain24to32<false>;
    if (k.srcBits == 32 && k.dstBits == 24 && k.srcOrder <= 1 && k.dstOrder <= 1)
        return swap ? plain32to24<true> : plain32to24<false>;
    if (k.srcBits == 48 && k.dstBits == 24 && k.srcOrder <= 1 && k.dstOrder <= 1)
        return swap ? plain48to24<true> : plain48to24<false>;
    if (k.srcBits == 24 && k.dstBits == 16 && k.srcOrder <= 1) {
        const bool rgb = k.srcOrder == ORDER_RGB;
        switch (k.dstOrder) {
            case ORDER_RGB: return rgb ? plain24to16<0, 0> : plain24to16<1, 0>;
            case ORDER_BGR: return rgb ? plain24to16<0, 1> : plain24to16<1, 1>;
            case ORDER_RGB565: return rgb ? plain24to16<0, 7> : plain24to16<1, 7>;
            default: return nullptr;
        }
    }
    if (k.srcBits == 16 && k.dstBits == 24 && k.dstOrder <= 1) {
        const bool rgb = k.dstOrder == ORDER_RGB;
        switch (k.srcOrder) {
            case ORDER_RGB: return rgb ? plain16to24<0, 0> : plain16to24<0, 1>;
            case ORDER_BGR: return rgb ? plain16to24<1, 0> : plain16to24<1, 1>;
            case ORDER_RGB565: return rgb ? plain16to24<7, 0> : plain16to24<7, 1>;
            default: return nullptr;
        }
    }
    if (k.dstBits == 0 && k.srcOrder <= 1 && (k.srcBits == 24 || k.srcBits == 32)) {
        if (k.srcBits == 24) return k.srcOrder == ORDER_RGB ? plainToGrey<0, 3> : plainToGrey<1, 3>;
        return k.srcOrder == ORDER_RGB ? plainToGrey<0, 4> : plainToGrey<1, 4>;
    }
    return nullptr;
}

}  // namespace krn::conv
