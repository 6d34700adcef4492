// rotate_any.cpp - rotation by any angle (K_RotateBitmap) and shear
// (K_ShearBitmap).
//
// Both build a new storage, fill it row by row from an inverse map (see
// rotate_any.h) and then give the record the new storage. Row kernels (one
// depth, one interpolation, templates) are picked once per call; the image
// loop reads the source either straight from a single block or, for every
// other storage kind, through a cache of source rectangles fetched with the
// row layer, one rectangle per block of output, and writes the output row by
// row. Bands of output rows run over the parallel row helper when both
// bitmaps are plain memory.
#include "rotate_any.h"

#include <immintrin.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "hooks.h"
#include "kernel.h"
#include "memory.h"
#include "palette.h"
#include "parallel.h"
#include "progress.h"
#include "rotate.h"
#include "sine.h"
#include "storage.h"


namespace krn {
namespace {

constexpr int64_t kHalf = kMapOne / 2;

// ---------------------------------------------------------------- integer helpers
inline int64_t floorDiv(int64_t a, int64_t b) noexcept {
    int64_t q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
    return q;
}
inline int64_t ceilDiv(int64_t a, int64_t b) noexcept { return -floorDiv(-a, b); }

// Pixels k of [0, n) with lo <= X + k * d < hi: [*a, *b).
inline void span1(int64_t X, int64_t d, int64_t lo, int64_t hi, int32_t n, int32_t* a, int32_t* b) noexcept {
    int64_t ka, kb;
    if (d == 0) {
        ka = 0;
        kb = (X >= lo && X < hi) ? n : 0;
    } else if (d > 0) {
        ka = ceilDiv(lo - X, d);
        kb = ceilDiv(hi - X, d);
    } else {
        ka = floorDiv(hi - X, d) + 1;
        kb = floorDiv(lo - X, d) + 1;
    }
    ka = std::clamp<int64_t>(ka, 0, n);
    kb = std::clamp<int64_t>(kb, 0, n);
    *a = int32_t(ka);
    *b = int32_t(std::max(ka, kb));
}
// Both coordinates in their ranges.
inline void span2(int64_t X, int64_t dX, int64_t xlo, int64_t xhi, int64_t Y, int64_t dY, int64_t ylo, int64_t yhi,
                  int32_t n, int32_t* a, int32_t* b) noexcept {
    int32_t a1, b1, a2, b2;
    span1(X, dX, xlo, xhi, n, &a1, &b1);
    span1(Y, dY, ylo, yhi, n, &a2, &b2);
    *a = std::max(a1, a2);
    *b = std::max(*a, std::min(b1, b2));
}

// ---------------------------------------------------------------- source view and row context
// Pixel (x, y) of the image is at base + (y - vy) * stride, bit (x - vx) * bpp;
// vx is a multiple of 8 so that sub-byte pixels start on a byte.
struct View {
    const uint8_t* base;
    size_t stride;
    int32_t vx, vy;
    int32_t w, h;  // the whole source image
    const uint8_t* row(int32_t y) const noexcept { return base + size_t(y - vy) * stride; }
};
struct RowCtx {
    const View* v;
    int32_t bpp;
    bool alpha;
    const uint8_t* fill;  // fill pixel bytes; below 8 bits and at 12, fill[0] | fill[1] << 8
};
// Writes pixels i0 .. i0 + n - 1 of `out` (a whole output row); X, Y: the
// source position of pixel i0, dX, dY: the step from one pixel to the next.
using RowKernel = void (*)(const RowCtx&, int64_t X, int64_t Y, int64_t dX, int64_t dY, int32_t i0, int32_t n,
                           uint8_t* out);

inline uint32_t getBits(const uint8_t* row, int64_t x, int32_t bpp) noexcept {
    if (bpp == 12) {
        // Two pixels in three bytes: the even one the low 12 bits of the
        // little-endian word at the pair's first byte, the odd one the high 12
        // bits of the word one byte on.
        const uint8_t* p = row + (x >> 1) * 3;
        return (x & 1) ? uint32_t(p[1] >> 4) | uint32_t(p[2]) << 4 : uint32_t(p[0]) | uint32_t(p[1] & 0x0F) << 8;
    }
    const uint64_t bit = uint64_t(x) * uint64_t(bpp);
    const uint32_t word = (uint32_t(row[bit >> 3]) << 8) | ((bit & 7) + uint64_t(bpp) > 8 ? row[(bit >> 3) + 1] : 0);
    return (word >> (16 - (bit & 7) - uint32_t(bpp))) & ((1u << bpp) - 1u);
}
inline void setBits(uint8_t* row, int64_t x, int32_t bpp, uint32_t v) noexcept {
    if (bpp == 12) {
        uint8_t* p = row + (x >> 1) * 3;
        if (x & 1) {
            p[1] = uint8_t((p[1] & 0x0F) | ((v & 0x0F) << 4));
            p[2] = uint8_t(v >> 4);
        } else {
            p[0] = uint8_t(v);
            p[1] = uint8_t((p[1] & 0xF0) | ((v >> 8) & 0x0F));
        }
        return;
    }
    // Depths 1..8: a pixel may straddle two bytes only for 3, 5, 6, 7 bits.
    for (int32_t i = 0; i < bpp; ++i) {
        const uint64_t bit = uint64_t(x) * uint64_t(bpp) + uint64_t(i);
        const uint8_t m = uint8_t(0x80u >> (bit & 7));
        if ((v >> (bpp - 1 - i)) & 1u)
            row[bit >> 3] |= m;
        else
            row[bit >> 3] &= uint8_t(~m);
    }
}

template <int P>
inline void fillBytes(uint8_t* out, const uint8_t* fill, int32_t from, int32_t to) noexcept {
    for (int32_t i = from; i < to; ++i) std::memcpy(out + size_t(i) * P, fill, P);
}

// ---------------------------------------------------------------- nearest
template <int P>
void nearestBytes(const RowCtx& c, int64_t X, int64_t Y, int64_t dX, int64_t dY, int32_t i0, int32_t n,
                  uint8_t* out) {
    const View& v = *c.v;
    int32_t a, b;
    span2(X, dX, -kHalf, int64_t(v.w) * kMapOne - kHalf, Y, dY, -kHalf, int64_t(v.h) * kMapOne - kHalf, n, &a, &b);
    uint8_t* o = out + size_t(i0) * P;
    fillBytes<P>(o, c.fill, 0, a);
    X += a * dX;
    Y += a * dY;
    for (int32_t k = a; k < b; ++k, X += dX, Y += dY) {
        const int32_t sx = int32_t((X + kHalf) >> kMapBits), sy = int32_t((Y + kHalf) >> kMapBits);
        std::memcpy(o + size_t(k) * P, v.row(sy) + size_t(sx - v.vx) * P, P);
    }
    fillBytes<P>(o, c.fill, b, n);
}

void nearestBits(const RowCtx& c, int64_t X, int64_t Y, int64_t dX, int64_t dY, int32_t i0, int32_t n,
                 uint8_t* out) {
    const View& v = *c.v;
    const int32_t bpp = c.bpp;
    const uint32_t fill = uint32_t(c.fill[0]) | (uint32_t(c.fill[1]) << 8);
    int32_t a, b;
    span2(X, dX, -kHalf, int64_t(v.w) * kMapOne - kHalf, Y, dY, -kHalf, int64_t(v.h) * kMapOne - kHalf, n, &a, &b);
    for (int32_t k = 0; k < a; ++k) setBits(out, i0 + k, bpp, fill);
    X += a * dX;
    Y += a * dY;
    for (int32_t k = a; k < b; ++k, X += dX, Y += dY) {
        const int32_t sx = int32_t((X + kHalf) >> kMapBits), sy = int32_t((Y + kHalf) >> kMapBits);
        setBits(out, i0 + k, bpp, getBits(v.row(sy), sx - v.vx, bpp));
    }
    for (int32_t k = b; k < n; ++k) setBits(out, i0 + k, bpp, fill);
}

// ---------------------------------------------------------------- bilinear
// Positions are rounded to the weight step (1/128 pixel for 8-bit channels,
// 1/4096 for 16-bit ones); weights are products of the two fractions. Where
// the four alphas of a pixel differ (32 and 64 bits), colours are weighted by
// alpha (premultiplied) and divided by the resulting alpha; where they agree
// this gives exactly the plain result.
template <class T>
constexpr int weightBits() { return sizeof(T) == 1 ? 7 : 12; }

template <class T, int N>
inline void bilerpPixel(const T* p00, const T* p01, const T* p10, const T* p11, uint32_t fx, uint32_t fy,
                        bool alpha, T* o) noexcept {
    constexpr int WB = weightBits<T>();
    constexpr uint32_t W = 1u << WB;
    constexpr int Shift = 2 * WB;
    using Acc = std::conditional_t<sizeof(T) == 1, uint32_t, uint64_t>;
    if (N == 4 && alpha && !(p00[3] == p01[3] && p00[3] == p10[3] && p00[3] == p11[3])) {
        const uint64_t w00 = uint64_t(W - fx) * (W - fy), w01 = uint64_t(fx) * (W - fy);
        const uint64_t w10 = uint64_t(W - fx) * fy, w11 = uint64_t(fx) * fy;
        const uint64_t A = w00 * p00[3] + w01 * p01[3] + w10 * p10[3] + w11 * p11[3];
        if (A != 0) {
            for (int ch = 0; ch < 3; ++ch) {
                const uint64_t s = w00 * p00[3] * p00[ch] + w01 * p01[3] * p01[ch] + w10 * p10[3] * p10[ch] +
                                   w11 * p11[3] * p11[ch];
                o[ch] = T((s + A / 2) / A);
            }
            o[3] = T((A + (uint64_t(1) << (Shift - 1))) >> Shift);
            return;
        }
    }
    for (int ch = 0; ch < N; ++ch) {
        const Acc h0 = Acc(p00[ch]) * (W - fx) + Acc(p01[ch]) * fx;
        const Acc h1 = Acc(p10[ch]) * (W - fx) + Acc(p11[ch]) * fx;
        o[ch] = T((h0 * (W - fy) + h1 * fy + (Acc(1) << (Shift - 1))) >> Shift);
    }
}

// The interior run (every tap inside the image, no clamping), N = 4, 8 bits;
// X, Y already rounded to the weight step.
using Interior4Fn = void (*)(const View& v, int64_t X, int64_t Y, int64_t dX, int64_t dY, int32_t n, bool alpha,
                             uint8_t* o);
constexpr int kFracShift8 = kMapBits - 7;

void interior4Plain(const View& v, int64_t X, int64_t Y, int64_t dX, int64_t dY, int32_t n, bool alpha, uint8_t* o) {
    for (int32_t k = 0; k < n; ++k, X += dX, Y += dY) {
        const int32_t x0 = int32_t(X >> kMapBits), y0 = int32_t(Y >> kMapBits);
        const uint32_t fx = uint32_t(X >> kFracShift8) & 127u, fy = uint32_t(Y >> kFracShift8) & 127u;
        const uint8_t* r0 = v.row(y0) + size_t(x0 - v.vx) * 4;
        const uint8_t* r1 = r0 + v.stride;
        bilerpPixel<uint8_t, 4>(r0, r0 + 4, r1, r1 + 4, fx, fy, alpha, o + size_t(k) * 4);
    }
}

// Four pixels per step: positions in 64-bit lanes, both taps of a row in one
// 8-byte gather, horizontal and vertical multiply-adds on 16-bit words.
__attribute__((target("avx2"))) void interior4Avx2(const View& v, int64_t X, int64_t Y, int64_t dX, int64_t dY,
                                                   int32_t n, bool alpha, uint8_t* o) {
    int32_t k = 0;
    // Offsets are 32-bit multiplies: the view must stay below 2 GB.
    if (uint64_t(v.stride) * uint64_t(v.h + 1) < (uint64_t(1) << 31) && v.stride < (1u << 31)) {
        __m256i xv = _mm256_setr_epi64x(X, X + dX, X + 2 * dX, X + 3 * dX);
        __m256i yv = _mm256_setr_epi64x(Y, Y + dY, Y + 2 * dY, Y + 3 * dY);
        const __m256i dx4 = _mm256_set1_epi64x(4 * dX), dy4 = _mm256_set1_epi64x(4 * dY);
        const __m256i vx = _mm256_set1_epi64x(v.vx), vy = _mm256_set1_epi64x(v.vy);
        const __m256i stride = _mm256_set1_epi64x(int64_t(v.stride));
        const __m256i m127 = _mm256_set1_epi64x(127), w128 = _mm256_set1_epi64x(128);
        const __m256i lo = _mm256_setr_epi8(0, -1, 4, -1, 1, -1, 5, -1, 2, -1, 6, -1, 3, -1, 7, -1, 0, -1, 4, -1, 1,
                                            -1, 5, -1, 2, -1, 6, -1, 3, -1, 7, -1);
        const __m256i hi = _mm256_setr_epi8(8, -1, 12, -1, 9, -1, 13, -1, 10, -1, 14, -1, 11, -1, 15, -1, 8, -1, 12,
                                            -1, 9, -1, 13, -1, 10, -1, 14, -1, 11, -1, 15, -1);
        const __m256i alphaMask = _mm256_set1_epi64x(0xFF000000ll);
        const __m256i round = _mm256_set1_epi32(1 << 13);
        const long long* base0 = reinterpret_cast<const long long*>(v.base);
        const long long* base1 = reinterpret_cast<const long long*>(v.base + v.stride);
        for (; k + 4 <= n; k += 4) {
            const __m256i x0 = _mm256_srli_epi64(xv, kMapBits), y0 = _mm256_srli_epi64(yv, kMapBits);
            const __m256i off = _mm256_add_epi64(_mm256_mul_epu32(_mm256_sub_epi64(y0, vy), stride),
                                                 _mm256_slli_epi64(_mm256_sub_epi64(x0, vx), 2));
            const __m256i r0 = _mm256_i64gather_epi64(base0, off, 1);
            const __m256i r1 = _mm256_i64gather_epi64(base1, off, 1);
            if (alpha) {
                const __m256i d = _mm256_or_si256(_mm256_xor_si256(r0, r1),
                                                  _mm256_or_si256(_mm256_xor_si256(r0, _mm256_srli_epi64(r0, 32)),
                                                                  _mm256_xor_si256(r1, _mm256_srli_epi64(r1, 32))));
                if (!_mm256_testz_si256(d, alphaMask)) {
                    int64_t xs[4], ys[4];
                    _mm256_storeu_si256(reinterpret_cast<__m256i*>(xs), xv);
                    _mm256_storeu_si256(reinterpret_cast<__m256i*>(ys), yv);
                    interior4Plain(v, xs[0], ys[0], dX, dY, 4, true, o + size_t(k) * 4);
                    xv = _mm256_add_epi64(xv, dx4);
                    yv = _mm256_add_epi64(yv, dy4);
                    continue;
                }
            }
            const __m256i fx = _mm256_and_si256(_mm256_srli_epi64(xv, kFracShift8), m127);
            const __m256i fy = _mm256_and_si256(_mm256_srli_epi64(yv, kFracShift8), m127);
            // Per pixel the dword (128 - f) | f << 16, in the low dword of its 64-bit lane.
            const __m256i wx = _mm256_or_si256(_mm256_sub_epi64(w128, fx), _mm256_slli_epi64(fx, 16));
            const __m256i wy = _mm256_or_si256(_mm256_sub_epi64(w128, fy), _mm256_slli_epi64(fy, 16));
            const __m256i wxa = _mm256_shuffle_epi32(wx, 0x00), wxb = _mm256_shuffle_epi32(wx, 0xAA);
            const __m256i wya = _mm256_shuffle_epi32(wy, 0x00), wyb = _mm256_shuffle_epi32(wy, 0xAA);
            const __m256i h0 = _mm256_packs_epi32(_mm256_madd_epi16(_mm256_shuffle_epi8(r0, lo), wxa),
                                                  _mm256_madd_epi16(_mm256_shuffle_epi8(r0, hi), wxb));
            const __m256i h1 = _mm256_packs_epi32(_mm256_madd_epi16(_mm256_shuffle_epi8(r1, lo), wxa),
                                                  _mm256_madd_epi16(_mm256_shuffle_epi8(r1, hi), wxb));
            __m256i va = _mm256_madd_epi16(_mm256_unpacklo_epi16(h0, h1), wya);
            __m256i vb = _mm256_madd_epi16(_mm256_unpackhi_epi16(h0, h1), wyb);
            va = _mm256_srli_epi32(_mm256_add_epi32(va, round), 14);
            vb = _mm256_srli_epi32(_mm256_add_epi32(vb, round), 14);
            __m256i px = _mm256_packus_epi16(_mm256_packs_epi32(va, vb), _mm256_setzero_si256());
            px = _mm256_permute4x64_epi64(px, 0x08);  // lane 0 low, lane 1 low
            _mm_storeu_si128(reinterpret_cast<__m128i*>(o + size_t(k) * 4), _mm256_castsi256_si128(px));
            xv = _mm256_add_epi64(xv, dx4);
            yv = _mm256_add_epi64(yv, dy4);
        }
        X += int64_t(k) * dX;
        Y += int64_t(k) * dY;
    }
    if (k < n) interior4Plain(v, X, Y, dX, dY, n - k, alpha, o + size_t(k) * 4);
}

std::atomic<bool> g_forcePlain{false};

Interior4Fn pickInterior4() noexcept {
    static const Interior4Fn best = [] {
        const char* e = std::getenv("OMBRIX_SIMD");
        if (e && (!std::strcmp(e, "none") || !std::strcmp(e, "ssse3"))) return &interior4Plain;
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") ? &interior4Avx2 : &interior4Plain;
    }();
    return g_forcePlain.load(std::memory_order_relaxed) ? &interior4Plain : best;
}

template <class T, int N>
void bilinearRow(const RowCtx& c, int64_t X, int64_t Y, int64_t dX, int64_t dY, int32_t i0, int32_t n,
                 uint8_t* out) {
    const View& v = *c.v;
    constexpr int P = N * int(sizeof(T));
    constexpr int WB = weightBits<T>();
    constexpr int FS = kMapBits - WB;
    constexpr uint32_t FM = (1u << WB) - 1u;
    int32_t a, b, ia, ib;
    span2(X, dX, -kHalf, int64_t(v.w) * kMapOne - kHalf, Y, dY, -kHalf, int64_t(v.h) * kMapOne - kHalf, n, &a, &b);
    // Taps and weights from the position rounded to the weight step.
    X += int64_t(1) << (FS - 1);
    Y += int64_t(1) << (FS - 1);
    span2(X, dX, 0, int64_t(v.w - 1) * kMapOne, Y, dY, 0, int64_t(v.h - 1) * kMapOne, n, &ia, &ib);
    if (ia < a || ib > b || ia >= ib) ia = ib = b;  // the interior lies inside the covered run
    uint8_t* o = out + size_t(i0) * P;
    fillBytes<P>(o, c.fill, 0, a);
    fillBytes<P>(o, c.fill, b, n);
    auto edge = [&](int32_t k) {
        const int64_t Xk = X + k * dX, Yk = Y + k * dY;
        const int32_t x0 = int32_t(Xk >> kMapBits), y0 = int32_t(Yk >> kMapBits);
        const uint32_t fx = uint32_t(Xk >> FS) & FM, fy = uint32_t(Yk >> FS) & FM;
        const int32_t xa = std::clamp(x0, 0, v.w - 1) - v.vx, xb = std::clamp(x0 + 1, 0, v.w - 1) - v.vx;
        const T* r0 = reinterpret_cast<const T*>(v.row(std::clamp(y0, 0, v.h - 1)));
        const T* r1 = reinterpret_cast<const T*>(v.row(std::clamp(y0 + 1, 0, v.h - 1)));
        bilerpPixel<T, N>(r0 + size_t(xa) * N, r0 + size_t(xb) * N, r1 + size_t(xa) * N, r1 + size_t(xb) * N, fx, fy,
                          c.alpha, reinterpret_cast<T*>(o + size_t(k) * P));
    };
    for (int32_t k = a; k < ia; ++k) edge(k);
    if constexpr (sizeof(T) == 1 && N == 4) {
        if (ib > ia) pickInterior4()(v, X + ia * dX, Y + ia * dY, dX, dY, ib - ia, c.alpha, o + size_t(ia) * P);
    } else {
        int64_t Xk = X + ia * dX, Yk = Y + ia * dY;
        for (int32_t k = ia; k < ib; ++k, Xk += dX, Yk += dY) {
            const int32_t x0 = int32_t(Xk >> kMapBits), y0 = int32_t(Yk >> kMapBits);
            const uint32_t fx = uint32_t(Xk >> FS) & FM, fy = uint32_t(Yk >> FS) & FM;
            const T* r0 = reinterpret_cast<const T*>(v.row(y0)) + size_t(x0 - v.vx) * N;
            const T* r1 = reinterpret_cast<const T*>(v.row(y0 + 1)) + size_t(x0 - v.vx) * N;
            bilerpPixel<T, N>(r0, r0 + N, r1, r1 + N, fx, fy, c.alpha, reinterpret_cast<T*>(o + size_t(k) * P));
        }
    }
    for (int32_t k = std::max(ib, a); k < b; ++k) edge(k);
}

// ---------------------------------------------------------------- bicubic
// Catmull-Rom (a = -0.5) with 10-bit fractions, taps clamped to the image.
inline void cubicWeights(uint32_t f10, float w[4]) noexcept {
    const float t = float(f10) / 1024.0f, t2 = t * t, t3 = t2 * t;
    w[0] = -0.5f * t3 + t2 - 0.5f * t;
    w[1] = 1.5f * t3 - 2.5f * t2 + 1.0f;
    w[2] = -1.5f * t3 + 2.0f * t2 + 0.5f * t;
    w[3] = 0.5f * t3 - 0.5f * t2;
}

template <class T, int N>
void bicubicRow(const RowCtx& c, int64_t X, int64_t Y, int64_t dX, int64_t dY, int32_t i0, int32_t n,
                uint8_t* out) {
    const View& v = *c.v;
    constexpr int P = N * int(sizeof(T));
    constexpr float kMax = float((1u << (8 * sizeof(T))) - 1u);
    int32_t a, b;
    span2(X, dX, -kHalf, int64_t(v.w) * kMapOne - kHalf, Y, dY, -kHalf, int64_t(v.h) * kMapOne - kHalf, n, &a, &b);
    uint8_t* o = out + size_t(i0) * P;
    fillBytes<P>(o, c.fill, 0, a);
    fillBytes<P>(o, c.fill, b, n);
    X += a * dX;
    Y += a * dY;
    for (int32_t k = a; k < b; ++k, X += dX, Y += dY) {
        const int32_t x0 = int32_t(X >> kMapBits), y0 = int32_t(Y >> kMapBits);
        float wx[4], wy[4];
        cubicWeights(uint32_t(X >> (kMapBits - 10)) & 1023u, wx);
        cubicWeights(uint32_t(Y >> (kMapBits - 10)) & 1023u, wy);
        const T* taps[4][4];
        bool same = true;
        for (int r = 0; r < 4; ++r) {
            const T* row = reinterpret_cast<const T*>(v.row(std::clamp(y0 - 1 + r, 0, v.h - 1)));
            for (int q = 0; q < 4; ++q) {
                taps[r][q] = row + size_t(std::clamp(x0 - 1 + q, 0, v.w - 1) - v.vx) * N;
                if (N == 4) same = same && taps[r][q][3] == taps[0][0][3];
            }
        }
        T* px = reinterpret_cast<T*>(o + size_t(k) * P);
        float acc[N] = {};
        float A = 0;
        const bool premul = N == 4 && c.alpha && !same;
        for (int r = 0; r < 4; ++r)
            for (int q = 0; q < 4; ++q) {
                const float w = wx[q] * wy[r];
                const T* t = taps[r][q];
                if (premul) {
                    const float wa = w * float(t[3]);
                    A += wa;
                    for (int ch = 0; ch < 3; ++ch) acc[ch] += wa * float(t[ch]);
                } else {
                    for (int ch = 0; ch < N; ++ch) acc[ch] += w * float(t[ch]);
                }
            }
        if (premul) {
            if (A > 0.5f) {
                for (int ch = 0; ch < 3; ++ch) px[ch] = T(std::clamp(acc[ch] / A + 0.5f, 0.0f, kMax));
            } else {
                for (int ch = 0; ch < 3; ++ch) px[ch] = 0;
            }
            px[3] = T(std::clamp(A + 0.5f, 0.0f, kMax));
        } else {
            for (int ch = 0; ch < N; ++ch) px[ch] = T(std::clamp(acc[ch] + 0.5f, 0.0f, kMax));
        }
    }
}

// ---------------------------------------------------------------- kernel choice
// Null when the depth has no kernel for the interpolation.
RowKernel pickKernel(int32_t bpp, Interp interp) noexcept {
    if (interp == Interp::Nearest) {
        switch (bpp) {
            case 8: return &nearestBytes<1>;
            case 16: return &nearestBytes<2>;
            case 24: return &nearestBytes<3>;
            case 32: return &nearestBytes<4>;
            case 48: return &nearestBytes<6>;
            case 64: return &nearestBytes<8>;
            default: return bitsValid(bpp) ? &nearestBits : nullptr;
        }
    }
    const bool cubic = interp == Interp::Bicubic;
    switch (bpp) {
        case 8: return cubic ? &bicubicRow<uint8_t, 1> : &bilinearRow<uint8_t, 1>;
        case 16: return cubic ? &bicubicRow<uint16_t, 1> : &bilinearRow<uint16_t, 1>;
        case 24: return cubic ? &bicubicRow<uint8_t, 3> : &bilinearRow<uint8_t, 3>;
        case 32: return cubic ? &bicubicRow<uint8_t, 4> : &bilinearRow<uint8_t, 4>;
        case 48: return cubic ? &bicubicRow<uint16_t, 3> : &bilinearRow<uint16_t, 3>;
        case 64: return cubic ? &bicubicRow<uint16_t, 4> : &bilinearRow<uint16_t, 4>;
        default: return nullptr;
    }
}

// Zeroes the bytes of a row past its last pixel (padding and the tail of a
// last sub-byte pixel's byte).
void clearRowTail(uint8_t* row, int32_t w, int32_t bpp, uint32_t bpl) noexcept {
    const uint64_t bits = uint64_t(w) * uint64_t(bpp);
    const uint64_t full = bits >> 3;
    if (bits & 7) {
        // 12 bits: an odd width's last pixel owns the low nibble of its middle byte.
        row[full] &= bpp == 12 ? uint8_t(0x0Fu) : uint8_t(0xFF00u >> (bits & 7));
    }
    const uint64_t from = (bits + 7) >> 3;
    if (from < bpl) std::memset(row + from, 0, size_t(bpl - from));
}

// ---------------------------------------------------------------- the image loop
// The order of output rows matters to the memory: walked so that the next
// row's source line lies to the right of this one's (m.xj > 0), a 4000 x 3000
// 32-bit turn by 5 or 30 degrees takes 24-41 ms; walked the other way, 83-99
// ms (the source lines a row needs are then mostly not yet in the cache).
// Turns whose next row lies to the left therefore walk their rows from the
// last up. Results do not depend on the order.
inline bool bottomUp(const Map& m) noexcept { return m.xj < 0; }

constexpr int32_t kBlockRows = 32;
constexpr int32_t kMaxCacheBytes = 4 << 20;

struct Job {
    BITMAPRECORD* src;
    BITMAPRECORD* dst;
    const uint8_t* srcDirect;  // single-block pixels, else null (through the cache)
    uint8_t* dstDirect;
    int32_t sw, sh, dw, dh, bpp;
    uint32_t sbpl, dbpl;
    Map m;
    RowKernel kernel;
    bool alpha;
    uint8_t fill[8];
    int32_t chunk;  // output columns per source rectangle on the cache path
    struct Slot {
        kvector<uint8_t> band;   // kBlockRows output rows
        kvector<uint8_t> cache;  // a source rectangle
    };
    kvector<Slot> slots;
};

// Rows [y0, y1) straight from memory into memory.
int32_t bandDirect(Job& job, int32_t y0, int32_t y1) {
    View v{job.srcDirect, job.sbpl, 0, 0, job.sw, job.sh};
    RowCtx c{&v, job.bpp, job.alpha, job.fill};
    const Map& m = job.m;
    const bool up = bottomUp(m);
    for (int32_t n = y0; n < y1; ++n) {
        const int32_t j = up ? y1 - 1 - (n - y0) : n;
        uint8_t* out = job.dstDirect + size_t(j) * job.dbpl;
        job.kernel(c, m.x0 + j * m.xj, m.y0 + j * m.yj, m.xi, m.yi, 0, job.dw, out);
        clearRowTail(out, job.dw, job.bpp, job.dbpl);
    }
    return KS_SUCCESS;
}

// Rows [y0, y1) through the row layer: per block of rows and chunk of
// columns, the source rectangle those pixels reach is read once.
int32_t bandCached(Job& job, int32_t y0, int32_t y1, int32_t slotIndex) {
    Job::Slot& slot = job.slots[size_t(slotIndex)];
    if (slot.band.empty()) slot.band.assign(size_t(job.dbpl) * kBlockRows, 0);
    const Map& m = job.m;
    for (int32_t jb = y0; jb < y1; jb += kBlockRows) {
        const int32_t je = std::min(y1, jb + kBlockRows);
        for (int32_t c0 = 0; c0 < job.dw; c0 += job.chunk) {
            const int32_t c1 = std::min(job.dw, c0 + job.chunk);
            // The map is affine: its extremes over the block are at the corners.
            int64_t xmin = INT64_MAX, xmax = INT64_MIN, ymin = INT64_MAX, ymax = INT64_MIN;
            for (int32_t cj : {jb, je - 1})
                for (int32_t ci : {c0, c1 - 1}) {
                    const int64_t X = m.x0 + ci * m.xi + cj * m.xj, Y = m.y0 + ci * m.yi + cj * m.yj;
                    xmin = std::min(xmin, X), xmax = std::max(xmax, X);
                    ymin = std::min(ymin, Y), ymax = std::max(ymax, Y);
                }
            const int64_t rx0 = std::clamp<int64_t>((xmin >> kMapBits) - 2, 0, job.sw - 1) & ~int64_t(7);
            const int64_t rx1 = std::clamp<int64_t>((xmax >> kMapBits) + 3, 1, job.sw);
            const int64_t ry0 = std::clamp<int64_t>((ymin >> kMapBits) - 2, 0, job.sh - 1);
            const int64_t ry1 = std::clamp<int64_t>((ymax >> kMapBits) + 3, 1, job.sh);
            View v{nullptr, 0, int32_t(rx0), int32_t(ry0), job.sw, job.sh};
            if (rx1 > rx0 && ry1 > ry0) {
                const uint64_t off = (uint64_t(rx0) * uint64_t(job.bpp)) >> 3;
                const uint64_t bytes = std::min<uint64_t>(((uint64_t(rx1) * uint64_t(job.bpp) + 7) >> 3) - off,
                                                          uint64_t(job.sbpl) - off);
                const size_t stride = size_t((bytes + 15) & ~uint64_t(7));
                const size_t need = stride * size_t(ry1 - ry0);
                if (slot.cache.size() < need) slot.cache.resize(need);
                for (int64_t r = ry0; r < ry1; ++r) {
                    const int32_t got = K_GetBitmapRowCol(job.src, slot.cache.data() + size_t(r - ry0) * stride,
                                                          int32_t(r), int32_t(rx0), uint32_t(bytes));
                    if (got < 0) return got;
                }
                v.base = slot.cache.data();
                v.stride = stride;
            }
            RowCtx c{&v, job.bpp, job.alpha, job.fill};
            for (int32_t j = jb; j < je; ++j) {
                uint8_t* out = slot.band.data() + size_t(j - jb) * job.dbpl;
                if (v.base) {
                    job.kernel(c, m.x0 + c0 * m.xi + j * m.xj, m.y0 + c0 * m.yi + j * m.yj, m.xi, m.yi, c0, c1 - c0,
                               out);
                } else {
                    // Nothing of the source is reached: a map far outside (cannot
                    // happen for the maps built here, kept for safety).
                    View none{nullptr, 0, 0, 0, 0, 0};
                    RowCtx e{&none, job.bpp, job.alpha, job.fill};
                    job.kernel(e, 0, 0, 0, 0, c0, c1 - c0, out);
                }
            }
        }
        for (int32_t j = jb; j < je; ++j) {
            uint8_t* out = slot.band.data() + size_t(j - jb) * job.dbpl;
            clearRowTail(out, job.dw, job.bpp, job.dbpl);
            const int32_t rc = K_PutBitmapRow(job.dst, out, j, job.dbpl);
            if (rc < 0) return rc;
        }
    }
    return KS_SUCCESS;
}

// ---------------------------------------------------------------- fill colour
// uFill: 0x00BBGGRR, or 0x01000000 | index for a palette index (depths up to 8).
int32_t fillPixel(const BITMAPRECORD* bm, uint32_t uFill, bool transparent, uint8_t out[8]) noexcept {
    std::memset(out, 0, 8);
    const int32_t bpp = bm->nBitsPerPixel;
    const uint32_t kind = uFill >> 24;
    if (kind > 1) return KS_INVALID_PARAMETER;
    const int r = int(uFill & 0xFF), g = int((uFill >> 8) & 0xFF), b = int((uFill >> 16) & 0xFF);
    const int grey = (2 * r + 5 * g + b + 4) >> 3;
    if (kind == 1) {
        if (bpp > 8) return KS_INVALID_PARAMETER;
        const uint32_t idx = uFill & 0xFFFFFFu;
        if (idx >= (1u << bpp)) return KS_INVALID_PARAMETER;
        out[0] = uint8_t(idx);
        return KS_SUCCESS;
    }
    if (bpp <= 8) {
        // A grey palette takes the grey of the colour, others the nearest entry.
        const RGBQUAD* pal = bitmapColors(bm);
        const int32_t n = bitmapColorCount(bm);
        const bool greyPal = classifyGray(pal, n) != 0;
        out[0] = uint8_t(greyPal ? findPaletteIndex(pal, n, grey, grey, grey) : findPaletteIndex(pal, n, r, g, b));
        return KS_SUCCESS;
    }
    const bool rgb = bm->nOrder == ORDER_RGB;
    const int c0 = rgb ? r : b, c2 = rgb ? b : r;
    switch (bpp) {
        case 12: {
            const uint32_t v = uint32_t(grey) * 4095u / 255u;
            out[0] = uint8_t(v), out[1] = uint8_t(v >> 8);
            return KS_SUCCESS;
        }
        case 16: {
            uint16_t v;
            if (bm->nOrder == ORDER_GRAY)
                v = uint16_t(grey * 257);
            else if (bm->nOrder == ORDER_RGB565)
                v = uint16_t(((r >> 3) << 11) | ((g >> 2) << 5) | (b >> 3));
            else
                v = uint16_t(((r >> 3) << 10) | ((g >> 3) << 5) | (b >> 3));
            std::memcpy(out, &v, 2);
            return KS_SUCCESS;
        }
        case 24:
        case 32:
            out[0] = uint8_t(c0), out[1] = uint8_t(g), out[2] = uint8_t(c2);
            out[3] = transparent ? 0 : 255;
            return KS_SUCCESS;
        case 48:
        case 64: {
            const uint16_t v[4] = {uint16_t(c0 * 257), uint16_t(g * 257), uint16_t(c2 * 257),
                                   uint16_t(transparent ? 0 : 65535)};
            std::memcpy(out, v, 8);
            return KS_SUCCESS;
        }
        default:
            return KS_INVALID_BITS_PER_PIXEL;
    }
}

// ---------------------------------------------------------------- the transform
bool isGreyBitmap(const BITMAPRECORD* bm) noexcept {
    if (bm->nBitsPerPixel == 16) return bm->nOrder == ORDER_GRAY;
    if (bm->nBitsPerPixel != 8) return true;
    const int32_t cls = classifyGray(bitmapColors(bm), bitmapColorCount(bm));
    return bitmapColorCount(bm) == 256 && (cls == 1 || cls == 2);
}

// Storage kind of the result: the source's kind; caller memory becomes
// kernel memory (the size changes).
uint32_t resultMemoryType(const BITMAPRECORD* bm) noexcept {
    switch (storageKind(bm)) {
        case MEMTYPE_COMPRESSED: return MEMTYPE_COMPRESSED;
        case MEMTYPE_SUPERCOMPRESSED: return MEMTYPE_SUPERCOMPRESSED;
        case MEMTYPE_DISK: return MEMTYPE_DISK;  // tiles
        case MEMTYPE_NO_CONVENTIONAL: return MEMTYPE_NO_CONVENTIONAL;
        default: return MEMTYPE_CONVENTIONAL;
    }
}

struct Request {
    int64_t dw, dh;
    Map m;
    Interp interp;
    uint8_t fill[8];
    bool oneThread;
    bool swapResolution;
};

int32_t transform(BITMAPRECORD* bm, const Request& rq);

// The bitmap's region through the request's map onto `out` (same geometry as
// the result): a 1-bit mask of the region is transformed with nearest and
// made a region again. Progress is silenced meanwhile.
int32_t transformRegion(BITMAPRECORD* bm, BITMAPRECORD* out, const Request& rq) {
    BITMAPRECORD mask;
    int32_t rc = K_CreateMaskFromBitmapRgn(bm, &mask, BITMAPRECORD_SIZE);
    if (rc != KS_SUCCESS) return rc;
    Request mr = rq;
    mr.interp = Interp::Nearest;
    mr.swapResolution = false;
    mr.oneThread = true;
    rc = fillPixel(&mask, 0, false, mr.fill);  // outside: not in the region
    STATUSCALLBACK fn = nullptr;
    void* user = nullptr;
    K_GetStatusCallBack(&fn, &user);
    K_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr);
    if (rc == KS_SUCCESS) rc = transform(&mask, mr);
    K_SetStatusCallBack(fn, user, nullptr, nullptr);
    if (rc == KS_SUCCESS) rc = K_SetBitmapRgnFromMask(out, nullptr, &mask, RGN_SET_REPLACE);
    K_FreeBitmap(&mask);
    return rc;
}

// Builds the new storage, renders it and gives it to the record. Nothing in
// the record changes unless 1 is returned.
int32_t transform(BITMAPRECORD* bm, const Request& rq) {
    const int32_t bpp = bm->nBitsPerPixel;
    if (rq.dw < 1 || rq.dh < 1 || rq.dw > INT32_MAX || rq.dh > INT32_MAX) return KS_INVALID_DIMENSIONS;
    // A map that lands on whole pixels (right angles, a shear by 0) copies
    // pixels whatever the interpolation: nearest is the same, and fastest.
    const Map& mm = rq.m;
    const bool whole = ((mm.x0 | mm.y0 | mm.xi | mm.xj | mm.yi | mm.yj) & (kMapOne - 1)) == 0;
    RowKernel kernel = pickKernel(bpp, whole ? Interp::Nearest : rq.interp);
    if (!kernel) return KS_INVALID_BITS_PER_PIXEL;

    BITMAPRECORD out;
    int32_t rc = K_InitBitmap(&out, BITMAPRECORD_SIZE, int32_t(rq.dw), int32_t(rq.dh), bpp);
    if (rc != KS_SUCCESS) return rc;
    rc = K_AllocateBitmap(&out, resultMemoryType(bm));
    if (rc != KS_SUCCESS) {
        K_FreeBitmap(&out);
        return rc;
    }

    Job job{};
    job.src = bm;
    job.dst = &out;
    job.sw = bm->nWidth, job.sh = bm->nHeight, job.dw = out.nWidth, job.dh = out.nHeight, job.bpp = bpp;
    job.sbpl = bm->nBytesPerLine, job.dbpl = out.nBytesPerLine;
    job.m = rq.m;
    job.kernel = kernel;
    job.alpha = bpp == 32 || bpp == 64;
    std::memcpy(job.fill, rq.fill, 8);

    ParallelOptions po;
    po.progress = ParallelProgress::Status;
    po.bytesPerRow = job.dbpl;
    po.maxThreads = rq.oneThread ? 1 : 0;
    try {
        job.slots.resize(size_t(parallelMaxSlots(po)));
    } catch (...) {
        K_FreeBitmap(&out);
        return KS_NO_MEMORY;
    }

    int32_t srcAccessed = 0, dstAccessed = 0;
    rc = K_IntAccessBitmap(bm, &srcAccessed);
    if (rc == KS_SUCCESS) rc = K_IntAccessBitmap(&out, &dstAccessed);
    if (rc == KS_SUCCESS) {
        const bool srcPlain = (bm->uFlags & BRF_LOCKED) ||
                              ((bm->uFlags & BRF_USER_MEMORY) && !(bm->uFlags & (BRF_TILED | BRF_DISK)));
        if (srcPlain && bm->pData && !(isCurrentLayout(bm) && bm->pCallbacks && bm->pCallbacks->pfnGetRow))
            job.srcDirect = bm->pData;
        if ((out.uFlags & BRF_LOCKED) && out.pData) job.dstDirect = out.pData;
        const bool direct = job.srcDirect && job.dstDirect;
        // Columns per source rectangle: the largest power of two up to 256
        // whose rectangle stays under the cache limit.
        job.chunk = 256;
        const auto rectBytes = [&](int64_t cols) {
            const int64_t w = (cols * std::abs(job.m.xi) + kBlockRows * std::abs(job.m.xj)) / kMapOne + 16;
            const int64_t h = (cols * std::abs(job.m.yi) + kBlockRows * std::abs(job.m.yj)) / kMapOne + 6;
            return std::min<int64_t>(w, job.sw + 8) * int64_t(bpp) / 8 * std::min<int64_t>(h, job.sh);
        };
        while (job.chunk > 8 && rectBytes(job.chunk) > kMaxCacheBytes) job.chunk /= 2;

        if (!direct) po.maxThreads = 1;  // the row layer of other storage kinds is not shared
        po.minRowsPerBand = direct ? 1 : kBlockRows;
        rc = parallelRows(
            job.dh,
            [&](int32_t y0, int32_t y1, int32_t slot) -> int32_t {
                return direct ? bandDirect(job, y0, y1) : bandCached(job, y0, y1, slot);
            },
            po);
    }
    rc = K_IntReleaseBitmap(&out, dstAccessed, rc);
    rc = K_IntReleaseBitmap(bm, srcAccessed, rc);
    // The region goes through the same map as a mask (nearest), onto the new
    // record first, so that a failure still leaves the caller's record whole.
    if (rc == KS_SUCCESS && bm->hRgn) rc = transformRegion(bm, &out, rq);
    if (rc != KS_SUCCESS) {
        K_FreeBitmap(&out);
        return rc;
    }

    // The record takes the new storage. Storage that a free callback owns
    // goes back to it; the callbacks stay with the record.
    bool callbackOwns = false;
    if (isCurrentLayout(bm) && bm->pCallbacks && bm->pCallbacks->pfnFree) {
        auto* cbs = bm->pCallbacks;
        callbackOwns = guarded([&] { return cbs->pfnFree(bm, cbs->pUserData); }) == 2;
    }
    if (!callbackOwns) freeStorage(bm);
    releaseBitmapRegion(bm);
    bm->hRgn = out.hRgn;
    out.hRgn = nullptr;
    bm->hMemory = out.hMemory;
    bm->pData = out.pData;
    bm->uDataOffset = out.uDataOffset;
    bm->uFlags = (bm->uFlags & ~(BRF_STORAGE_MASK | BRF_MOVABLE_BLOCK)) |
                 (out.uFlags & (BRF_STORAGE_MASK | BRF_MOVABLE_BLOCK)) | BRF_ALLOCATED;
    bm->nWidth = out.nWidth;
    bm->nHeight = out.nHeight;
    bm->nBytesPerLine = out.nBytesPerLine;
    setDataSize(bm, dataSize(&out));
    if (rq.swapResolution) std::swap(bm->nXResolution, bm->nYResolution);
    return KS_SUCCESS;
}

// Checks shared by both exports: record, depth, flags, interpolation, fill.
int32_t checkCommon(BITMAPRECORD* bm, uint32_t flags, uint32_t known, uint32_t uFill, Request* rq) {
    int32_t rc = checkAllocated(bm);
    if (rc == KS_INVALID_BITMAP) return KS_INVALID_PARAMETER;
    if (rc != KS_SUCCESS) return rc;
    if (flags & ~known) return KS_INVALID_PARAMETER;
    const uint32_t interp = (flags & ROTATE_INTERP_MASK) >> 8;
    if (interp > 2) return KS_INVALID_PARAMETER;
    if (!bitsValid(bm->nBitsPerPixel)) return KS_INVALID_BITS_PER_PIXEL;
    if (bm->nWidth < 1 || bm->nHeight < 1) return KS_INVALID_DIMENSIONS;
    // The row size the kernels step by must be the one the width gives.
    uint32_t bpl = 0;
    if (!bytesPerLine(bm->nWidth, bm->nBitsPerPixel, &bpl) || bpl != bm->nBytesPerLine) return KS_INVALID_PARAMETER;
    rq->interp = Interp(interp);
    if (rq->interp != Interp::Nearest && (!pickKernel(bm->nBitsPerPixel, rq->interp) || !isGreyBitmap(bm)))
        return KS_INVALID_BITS_PER_PIXEL;
    if ((isCurrentLayout(bm) && bm->nLockCount > 0) || (bm->uFlags & BRF_LOCKED)) return KS_INVALID_PARAMETER;
    rc = fillPixel(bm, uFill, flags & ROTATE_FILL_TRANSPARENT, rq->fill);
    if (rc != KS_SUCCESS) return rc;
    rq->oneThread = flags & ROTATE_ONE_THREAD;
    rq->swapResolution = false;
    return KS_SUCCESS;
}

}  // namespace

// ---------------------------------------------------------------- maps
Map rotationMap(int32_t srcW, int32_t srcH, int32_t dstW, int32_t dstH, int32_t psi) noexcept {
    // Forward (stored rows drawn top down, y down): x' = c x - s y, y' = s x + c y
    // about the centres; the inverse: x = c dx + s dy, y = -s dx + c dy.
    // Centres ((W - 1) / 2, (H - 1) / 2) and c, s in 2.14: with dx = (2i - (W' - 1)) / 2,
    // c * dx in units of 2^-15 is c * (2i - (W' - 1)).
    const int64_t c = cosFixed(psi), s = sinFixed(psi);
    Map m;
    const int64_t ex = -(int64_t(dstW) - 1), ey = -(int64_t(dstH) - 1);
    m.xi = 2 * c;
    m.xj = 2 * s;
    m.x0 = (int64_t(srcW) - 1) * (kMapOne / 2) + c * ex + s * ey;
    m.yi = -2 * s;
    m.yj = 2 * c;
    m.y0 = (int64_t(srcH) - 1) * (kMapOne / 2) - s * ex + c * ey;
    return m;
}

void enlargedRotationSize(int32_t srcW, int32_t srcH, int32_t psi, int64_t* w, int64_t* h) noexcept {
    const int64_t c = std::abs(int64_t(cosFixed(psi))), s = std::abs(int64_t(sinFixed(psi)));
    // ceil(v / 16384 - 1/64): a box within 1/64 pixel of a whole size keeps it.
    auto up = [](int64_t v) { return (v - 256 + 16383) / 16384; };
    *w = std::max<int64_t>(1, up(c * srcW + s * srcH));
    *h = std::max<int64_t>(1, up(s * srcW + c * srcH));
}

int32_t renderPlain(const uint8_t* src, int32_t srcW, int32_t srcH, uint32_t srcBpl, int32_t bpp, bool alpha,
                    uint8_t* dst, int32_t dstW, uint32_t dstBpl, int32_t y0, int32_t y1, const Map& m, Interp interp,
                    const uint8_t fill[8]) noexcept {
    RowKernel k = pickKernel(bpp, interp);
    if (!k) return KS_INVALID_BITS_PER_PIXEL;
    View v{src, srcBpl, 0, 0, srcW, srcH};
    RowCtx c{&v, bpp, alpha, fill};
    const bool up = bottomUp(m);
    for (int32_t n = y0; n < y1; ++n) {
        const int32_t j = up ? y1 - 1 - (n - y0) : n;
        uint8_t* out = dst + size_t(j - y0) * dstBpl;
        k(c, m.x0 + j * m.xj, m.y0 + j * m.yj, m.xi, m.yi, 0, dstW, out);
        clearRowTail(out, dstW, bpp, dstBpl);
    }
    return KS_SUCCESS;
}

namespace testhook {
void forcePlainRotateKernels(bool on) noexcept { g_forcePlain.store(on); }
}  // namespace testhook

}  // namespace krn

using namespace krn;

namespace {

constexpr uint32_t kRotateFlags = ROTATE_RESIZE | ROTATE_NO_SHORTCUTS | ROTATE_FILL_TRANSPARENT | ROTATE_ONE_THREAD |
                                  ROTATE_INTERP_MASK;
constexpr uint32_t kShearFlags = ROTATE_RESIZE | SHEAR_VERTICAL | ROTATE_FILL_TRANSPARENT | ROTATE_ONE_THREAD |
                                 ROTATE_INTERP_MASK;

// Folds the perspective into 1 or 4 by adding a turn to the angle, then
// negates it into 0..35999 (*a); *psi is the turn of the stored pixels.
void foldAngle(int32_t persp, int32_t nAngle, int32_t* folded, int32_t* a, int32_t* psi) noexcept {
    static constexpr int32_t kAdd[9] = {0, 0, 18000, 18000, 0, 9000, 9000, 27000, 27000};
    static constexpr int32_t kFolded[9] = {0, 1, 4, 1, 4, 4, 1, 4, 1};
    *folded = kFolded[persp];
    int32_t v = -(nAngle + kAdd[persp]);
    v %= 36000;
    if (v < 0) v += 36000;
    *a = v;
    // Perspective 4 takes the mirrored angle; the stored turn is the negated one.
    const int32_t general = *folded == 4 ? (36000 - v) % 36000 : v;
    *psi = (36000 - general) % 36000;
}

int32_t rotateBitmap(BITMAPRECORD* bm, int32_t nAngle, uint32_t uFlags, uint32_t uFill) {
    Request rq{};
    int32_t rc = checkCommon(bm, uFlags, kRotateFlags, uFill, &rq);
    if (rc != KS_SUCCESS) return rc;
    if (nAngle < -36000 || nAngle > 36000) return KS_INVALID_PARAMETER;
    const int32_t persp = bm->nViewPerspective;
    if (persp < 1 || persp > 8) return KS_INVALID_PARAMETER;

    int32_t folded, a, psi;
    foldAngle(persp, nAngle, &folded, &a, &psi);

    const bool resize = uFlags & ROTATE_RESIZE;
    if (!(uFlags & ROTATE_NO_SHORTCUTS)) {
        if (a == 0) {
            Progress p = Progress::status(1);
            if ((rc = p.begin()) != KS_SUCCESS) return rc;
            if ((rc = p.finish()) != KS_SUCCESS) return rc;
            bm->nViewPerspective = folded;
            return KS_SUCCESS;
        }
        if (a == 18000 || ((a == 9000 || a == 27000) && (resize || bm->nWidth == bm->nHeight))) {
            // The orientation family's routines: the half turn in place, the
            // quarter turn (which exchanges the direction for perspective 4).
            bm->nViewPerspective = folded;
            rc = a == 18000 ? turnHalfStored(bm, 0, 100) : K_RotateBitmap90(bm, a == 27000 ? 1 : 0, 0, 100);
            if (rc != KS_SUCCESS) bm->nViewPerspective = persp;
            return rc;
        }
    }
    if (resize) {
        enlargedRotationSize(bm->nWidth, bm->nHeight, psi, &rq.dw, &rq.dh);
    } else {
        rq.dw = bm->nWidth;
        rq.dh = bm->nHeight;
    }
    if (rq.dw > INT32_MAX || rq.dh > INT32_MAX) return KS_INVALID_DIMENSIONS;
    rq.m = rotationMap(bm->nWidth, bm->nHeight, int32_t(rq.dw), int32_t(rq.dh), psi);
    rq.swapResolution = resize && (psi == 9000 || psi == 27000);
    rc = transform(bm, rq);
    if (rc == KS_SUCCESS) bm->nViewPerspective = folded;
    return rc;
}

int32_t shearBitmap(BITMAPRECORD* bm, int32_t nAngle, uint32_t uFlags, uint32_t uFill) {
    Request rq{};
    int32_t rc = checkCommon(bm, uFlags, kShearFlags, uFill, &rq);
    if (rc != KS_SUCCESS) return rc;
    if (nAngle < -SHEAR_MAX_ANGLE || nAngle > SHEAR_MAX_ANGLE) return KS_INVALID_PARAMETER;
    const int32_t persp = bm->nViewPerspective;
    if (persp < 1 || persp > 8) return KS_INVALID_PARAMETER;
    // The shear is given in the viewed image: perspectives 5 to 8 exchange the
    // axes, and the mirrored ones (2, 4, 6, 8) change its sign.
    bool vertical = uFlags & SHEAR_VERTICAL;
    if (persp >= 5) vertical = !vertical;
    const bool negate = persp == 2 || persp == 4 || persp == 6 || persp == 8;
    const int32_t ang = negate ? -nAngle : nAngle;
    const int32_t u = ang < 0 ? ang + 36000 : ang;
    // t = tan in 2.15 fixed point (rounded), from the kernel's sine table.
    const int64_t s = sinFixed(u), c = cosFixed(u);
    const int64_t t = (s * kMapOne + (s >= 0 ? c / 2 : -c / 2)) / c;
    const int64_t W = bm->nWidth, H = bm->nHeight;
    const bool resize = uFlags & ROTATE_RESIZE;
    // Along the sheared axis the image grows by |t| times the other size.
    const int64_t other = vertical ? W : H;
    const int64_t grow = resize ? (std::abs(t) * other - kMapOne / 64 + kMapOne - 1) / kMapOne : 0;
    rq.dw = vertical ? W : W + std::max<int64_t>(0, grow);
    rq.dh = vertical ? H + std::max<int64_t>(0, grow) : H;
    if (rq.dw > INT32_MAX || rq.dh > INT32_MAX) return KS_INVALID_DIMENSIONS;
    // Horizontal: x' - cx' = (x - cx) + t (y - cy), y' = y; inverse x = cx + dx - t dy.
    Map& m = rq.m;
    const int64_t ex = -(rq.dw - 1), ey = -(rq.dh - 1);  // 2 dx, 2 dy at pixel 0
    if (!vertical) {
        m.xi = kMapOne;
        m.xj = -t;
        m.x0 = (W - 1) * (kMapOne / 2) + ex * (kMapOne / 2) - (t * ey) / 2;
        m.yi = 0;
        m.yj = kMapOne;
        m.y0 = (H - 1) * (kMapOne / 2) + ey * (kMapOne / 2);
    } else {
        m.xi = kMapOne;
        m.xj = 0;
        m.x0 = (W - 1) * (kMapOne / 2) + ex * (kMapOne / 2);
        m.yi = -t;
        m.yj = kMapOne;
        m.y0 = (H - 1) * (kMapOne / 2) + ey * (kMapOne / 2) - (t * ex) / 2;
    }
    return transform(bm, rq);
}

}  // namespace

KAPI int32_t K_RotateBitmap(BITMAPRECORD* pBitmap, int32_t nAngle, uint32_t uFlags, uint32_t uFill) {
    return guarded([&] { return rotateBitmap(pBitmap, nAngle, uFlags, uFill); });
}

KAPI int32_t K_ShearBitmap(BITMAPRECORD* pBitmap, int32_t nAngle, uint32_t uFlags, uint32_t uFill) {
    return guarded([&] { return shearBitmap(pBitmap, nAngle, uFlags, uFill); });
}

KAPI int32_t K_GetRotatedBitmapSize(const BITMAPRECORD* pBitmap, int32_t nAngle, int32_t* pnWidth,
                                    int32_t* pnHeight) {
    return guarded([&]() -> int32_t {
        int32_t rc = checkRecord(pBitmap);
        if (rc != KS_SUCCESS) return rc;
        if (!pnWidth || !pnHeight || nAngle < -36000 || nAngle > 36000) return KS_INVALID_PARAMETER;
        const int32_t persp = pBitmap->nViewPerspective;
        if (persp < 1 || persp > 8) return KS_INVALID_PARAMETER;
        if (pBitmap->nWidth < 1 || pBitmap->nHeight < 1) return KS_INVALID_DIMENSIONS;
        int32_t folded, a, psi;
        foldAngle(persp, nAngle, &folded, &a, &psi);
        int64_t w, h;
        enlargedRotationSize(pBitmap->nWidth, pBitmap->nHeight, psi, &w, &h);
        if (w > INT32_MAX || h > INT32_MAX) return KS_INVALID_DIMENSIONS;
        *pnWidth = int32_t(w);
        *pnHeight = int32_t(h);
        return KS_SUCCESS;
    });
}
