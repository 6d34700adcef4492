// resample.cpp - the interpolating resamplers: bilinear growth and
// area-averaging reduction, bicubic and Lanczos-3, separable, on bands of
// rows over the parallel row helper.
//
// Each axis gets a table of contributions (first source index, tap count,
// normalised weights) computed once per call in double precision. A source
// row is decoded to float samples of the working channel count, resampled
// horizontally into a ring of rows, and each target row is the weighted sum
// of the ring rows it needs, rounded once into the target format. Floats
// carry 24 bits, so 16-bit samples keep their accuracy and the result is
// within half a level of the exact filter. The two inner loops (horizontal
// taps per channel count, vertical taps over a whole row) exist as plain
// code and as AVX2/FMA builds of the same code, chosen at run time.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include <emmintrin.h>
#include <immintrin.h>

#include "convert_kernels.h"
#include "kernel.h"
#include "memory.h"
#include "parallel.h"
#include "resize.h"
#include "resize_kernels.h"
#include "storage.h"

namespace krn {

namespace resampletest {
// Test and benchmark hooks: force the plain loops; cap the threads (0: all).
std::atomic<bool> g_forcePlain{false};
std::atomic<int32_t> g_maxThreads{0};
void forcePlain(bool on) noexcept { g_forcePlain.store(on); }
void setMaxThreads(int32_t n) noexcept { g_maxThreads.store(n); }
bool plainForced() noexcept { return g_forcePlain.load(std::memory_order_relaxed); }
}  // namespace resampletest

namespace {

// ---------------------------------------------------------------- filters

constexpr double kPi = 3.14159265358979323846;

double cubicKernel(double x) noexcept {  // Keys, a = -0.5 (Catmull-Rom)
    const double a = -0.5;
    x = std::fabs(x);
    if (x < 1.0) return ((a + 2.0) * x - (a + 3.0)) * x * x + 1.0;
    if (x < 2.0) return (((x - 5.0) * x + 8.0) * x - 4.0) * a;
    return 0.0;
}
double sinc(double x) noexcept {
    if (x == 0.0) return 1.0;
    x *= kPi;
    return std::sin(x) / x;
}
double lanczos3(double x) noexcept { return (x > -3.0 && x < 3.0) ? sinc(x) * sinc(x / 3.0) : 0.0; }
double triangle(double x) noexcept {
    x = std::fabs(x);
    return x < 1.0 ? 1.0 - x : 0.0;
}

// Contributions of one axis: target i reads source [start[i], start[i] + count[i]).
struct Axis {
    int32_t taps = 0;  // largest count
    UniqueMem<int32_t> start, count;
    UniqueMem<float> weight;  // taps per target index
    bool identity = false;
    // The same weights with one tap count for every target (the largest),
    // starts pulled in so that start + fixedTaps never passes the source.
    int32_t fixedTaps = 0;
    UniqueMem<int32_t> fixedStart;
    UniqueMem<float> fixedWeight;
};

int32_t buildAxis(Axis* ax, int32_t oldN, int32_t newN, ResampleFilter f) noexcept {
    ax->identity = oldN == newN;
    const double scale = double(oldN) / double(newN);  // source pixels per target pixel
    double support;
    double (*kernel)(double) = nullptr;
    bool area = false;
    double fs = std::max(1.0, scale);  // kernel stretch when shrinking (no aliasing)
    switch (f) {
        case ResampleFilter::LinearOrArea:
            if (newN >= oldN) {
                kernel = triangle;
                support = 1.0;
                fs = 1.0;
            } else {
                area = true;
                support = scale / 2.0 + 1.0;
            }
            break;
        case ResampleFilter::Cubic:
            kernel = cubicKernel;
            support = 2.0 * fs;
            break;
        default:
            kernel = lanczos3;
            support = 3.0 * fs;
            break;
    }
    if (!area && kernel != triangle) {
        // support already scaled above
    }
    const int32_t taps = std::min<int32_t>(oldN, int32_t(std::ceil(support)) * 2 + 2);
    ax->taps = taps;
    ax->start.reset(memAllocArray<int32_t>(size_t(newN)));
    ax->count.reset(memAllocArray<int32_t>(size_t(newN)));
    ax->weight.reset(memAllocArray<float>(size_t(newN) * size_t(taps)));
    if (!ax->start || !ax->count || !ax->weight) return KS_NO_MEMORY;
    double wbuf[4096];
    double* w = wbuf;
    UniqueMem<double> big;
    const int64_t span = int64_t(std::ceil(support)) * 2 + 4;
    if (span > 4096) {
        big.reset(memAllocArray<double>(size_t(span)));
        if (!big) return KS_NO_MEMORY;
        w = big.get();
    }
    for (int32_t i = 0; i < newN; ++i) {
        int64_t lo, hi;  // source indices [lo, hi) before clamping
        if (area) {
            const double a = double(i) * scale, b = double(i + 1) * scale;
            lo = int64_t(std::floor(a));
            hi = int64_t(std::ceil(b));
            for (int64_t j = lo; j < hi; ++j) {
                const double l = std::max(a, double(j)), r = std::min(b, double(j + 1));
                w[j - lo] = r > l ? r - l : 0.0;
            }
        } else {
            const double c = (double(i) + 0.5) * scale;
            lo = int64_t(std::floor(c - support));
            hi = int64_t(std::ceil(c + support)) + 1;
            if (hi - lo > span) hi = lo + span;
            for (int64_t j = lo; j < hi; ++j) w[j - lo] = kernel((double(j) + 0.5 - c) / fs);
        }
        // Fold taps outside the source onto its edge pixels.
        const int64_t clo = std::max<int64_t>(lo, 0), chi = std::min<int64_t>(hi, oldN);
        double folded[2] = {0.0, 0.0};
        for (int64_t j = lo; j < hi; ++j) {
            if (j < 0) folded[0] += w[j - lo];
            if (j >= oldN) folded[1] += w[j - lo];
        }
        int64_t first = clo, last = chi;  // trim zero taps
        if (first >= last) {              // every tap outside: the nearest edge pixel
            first = lo < 0 ? 0 : oldN - 1;
            last = first + 1;
        }
        double* ww = w + (first - lo);
        ww[0] += folded[0];
        ww[last - 1 - first] += folded[1];
        while (last - first > 1 && ww[0] == 0.0) {
            ++first;
            ++ww;
        }
        while (last - first > 1 && ww[last - 1 - first] == 0.0) --last;
        if (last - first > taps) last = first + taps;
        double sum = 0.0;
        for (int64_t k = 0; k < last - first; ++k) sum += ww[k];
        if (sum == 0.0) sum = 1.0;
        float* out = ax->weight.get() + size_t(i) * size_t(taps);
        for (int64_t k = 0; k < taps; ++k) out[k] = k < last - first ? float(ww[k] / sum) : 0.0f;
        ax->start.get()[i] = int32_t(first);
        ax->count.get()[i] = int32_t(last - first);
    }
    int32_t t = 1;
    for (int32_t i = 0; i < newN; ++i) t = std::max(t, ax->count.get()[i]);
    if (t <= 8 && ((t + 1) & ~1) <= oldN) t = (t + 1) & ~1;  // the unrolled loops take 2, 4, 6 or 8 taps
    ax->fixedTaps = t;
    ax->fixedStart.reset(memAllocArray<int32_t>(size_t(newN)));
    ax->fixedWeight.reset(memAllocArray<float>(size_t(newN) * size_t(t)));
    if (!ax->fixedStart || !ax->fixedWeight) return KS_NO_MEMORY;
    for (int32_t i = 0; i < newN; ++i) {
        const int32_t st = ax->start.get()[i], n = ax->count.get()[i];
        const int32_t fs0 = std::min(st, oldN - t);
        float* fw = ax->fixedWeight.get() + size_t(i) * size_t(t);
        std::fill(fw, fw + t, 0.0f);
        for (int32_t k = 0; k < n; ++k) fw[st - fs0 + k] = ax->weight.get()[size_t(i) * size_t(taps) + size_t(k)];
        ax->fixedStart.get()[i] = fs0;
    }
    return KS_SUCCESS;
}

// ---------------------------------------------------------------- formats

enum class Fmt { Palette, Gray12, Gray16, Color16, B24, B32, W48, W64 };

struct Format {
    Fmt fmt;
    int32_t bpp;
    int32_t channels;  // working channels it maps to
    float maxValue;
    bool rgb;          // storage order R first (24..64 bits)
    bool rgb565;       // 16-bit colour: 5-6-5, else 5-5-5
    bool grayIndex;    // palette target written as grey level (ascending ramp)
};

Format describe(const BITMAPRECORD* bm, bool asTarget) noexcept {
    Format f{};
    f.bpp = bm->nBitsPerPixel;
    f.rgb = bm->nOrder == ORDER_RGB;
    switch (f.bpp) {
        case 12: f = {Fmt::Gray12, 12, 1, 4095.f, false, false, false}; break;
        case 16:
            if (bm->nOrder == ORDER_GRAY)
                f = {Fmt::Gray16, 16, 1, 65535.f, false, false, false};
            else
                f = {Fmt::Color16, 16, 3, 255.f, bm->nOrder == ORDER_RGB, bm->nOrder == ORDER_RGB565, false};
            break;
        case 24: f.fmt = Fmt::B24; f.channels = 3; f.maxValue = 255.f; break;
        case 32: f.fmt = Fmt::B32; f.channels = 4; f.maxValue = 255.f; break;
        case 48: f.fmt = Fmt::W48; f.channels = 3; f.maxValue = 65535.f; break;
        case 64: f.fmt = Fmt::W64; f.channels = 4; f.maxValue = 65535.f; break;
        default: {
            f.fmt = Fmt::Palette;
            f.maxValue = 255.f;
            const int32_t g = K_IntIsGrayScaleBitmap(bm);
            if (asTarget) {
                f.grayIndex = f.bpp == 8 && g == 1;
                f.channels = f.grayIndex ? 1 : 3;
            } else {
                f.channels = g > 0 ? 1 : 3;
            }
            break;
        }
    }
    if (f.bpp >= 24) f.rgb = bm->nOrder == ORDER_RGB;
    return f;
}

inline uint16_t ld16(const uint8_t* p) noexcept {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}
inline void st16(uint8_t* p, uint16_t v) noexcept { std::memcpy(p, &v, 2); }

// Bytes to floats and back (rounding half up, saturating), 16 at a time with
// SSE2; the plain loops finish the row and serve the plain path.
void bytesToFloats(const uint8_t* s, float* o, int32_t m) noexcept {
    int32_t i = 0;
    if (!resampletest::g_forcePlain.load(std::memory_order_relaxed)) {
        const __m128i z = _mm_setzero_si128();
        for (; i + 16 <= m; i += 16) {
            if ((i & 63) == 0) conv::prefetchPage(s + i, 64);
            const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
            const __m128i lo = _mm_unpacklo_epi8(b, z), hi = _mm_unpackhi_epi8(b, z);
            _mm_storeu_ps(o + i, _mm_cvtepi32_ps(_mm_unpacklo_epi16(lo, z)));
            _mm_storeu_ps(o + i + 4, _mm_cvtepi32_ps(_mm_unpackhi_epi16(lo, z)));
            _mm_storeu_ps(o + i + 8, _mm_cvtepi32_ps(_mm_unpacklo_epi16(hi, z)));
            _mm_storeu_ps(o + i + 12, _mm_cvtepi32_ps(_mm_unpackhi_epi16(hi, z)));
        }
    }
    for (; i < m; ++i) o[i] = float(s[i]);
}
inline float clampRound(float v, float hi) noexcept;
void floatsToBytes(const float* in, uint8_t* d, int32_t m) noexcept {
    int32_t i = 0;
    if (!resampletest::g_forcePlain.load(std::memory_order_relaxed)) {
        const __m128 half = _mm_set1_ps(0.5f);
        for (; i + 16 <= m; i += 16) {
            const __m128i a = _mm_cvttps_epi32(_mm_add_ps(_mm_loadu_ps(in + i), half));
            const __m128i b = _mm_cvttps_epi32(_mm_add_ps(_mm_loadu_ps(in + i + 4), half));
            const __m128i c = _mm_cvttps_epi32(_mm_add_ps(_mm_loadu_ps(in + i + 8), half));
            const __m128i e = _mm_cvttps_epi32(_mm_add_ps(_mm_loadu_ps(in + i + 12), half));
            // Values in (-1, 0) truncate to 0; packs and packus saturate to 0..255.
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i),
                             _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, e)));
        }
    }
    for (; i < m; ++i) d[i] = uint8_t(clampRound(in[i], 255.f));
}

// Decodes n source pixels into cs channels in canonical order (B, G, R, A or grey).
void decodeRaw(const Format& f, const float* palTable, const uint8_t* s, float* o, int32_t n) noexcept {
    switch (f.fmt) {
        case Fmt::Palette: {
            const int32_t c = f.channels;
            for (int32_t x = 0; x < n; ++x) {
                uint32_t idx;
                const uint64_t bit = uint64_t(x) * uint32_t(f.bpp);
                if (f.bpp == 8)
                    idx = s[x];
                else {
                    const uint8_t* q = s + (bit >> 3);
                    const uint32_t off = uint32_t(bit & 7);
                    const uint32_t mask = (1u << f.bpp) - 1u;
                    idx = off + uint32_t(f.bpp) <= 8 ? (uint32_t(q[0]) >> (8 - off - f.bpp)) & mask
                                                     : (((uint32_t(q[0]) << 8) | q[1]) >> (16 - off - f.bpp)) & mask;
                }
                for (int32_t k = 0; k < c; ++k) o[x * c + k] = palTable[idx * 4 + k];
            }
            break;
        }
        case Fmt::Gray12:
            for (int32_t x = 0; x < n; ++x) o[x] = float(conv::read12(s, size_t(x)));
            break;
        case Fmt::Gray16:
            for (int32_t x = 0; x < n; ++x) o[x] = float(ld16(s + 2 * x));
            break;
        case Fmt::Color16:
            for (int32_t x = 0; x < n; ++x) {
                const uint32_t v = ld16(s + 2 * x);
                uint32_t r, g, b;
                if (f.rgb565) {
                    r = (v >> 11) & 31;
                    g = (v >> 5) & 63;
                    b = v & 31;
                    g = (g << 2) | (g >> 4);
                } else {
                    r = (v >> 10) & 31;
                    g = (v >> 5) & 31;
                    b = v & 31;
                    g = (g << 3) | (g >> 2);
                }
                r = (r << 3) | (r >> 2);
                b = (b << 3) | (b >> 2);
                o[3 * x] = float(b);
                o[3 * x + 1] = float(g);
                o[3 * x + 2] = float(r);
            }
            break;
        case Fmt::B24:
        case Fmt::B32: {
            const int32_t c = f.channels;
            bytesToFloats(s, o, n * c);
            if (f.rgb)
                for (int32_t x = 0; x < n; ++x) std::swap(o[x * c], o[x * c + 2]);
            break;
        }
        case Fmt::W48:
        case Fmt::W64: {
            const int32_t c = f.channels;
            const int32_t m = n * c;
            for (int32_t i = 0; i < m; ++i) o[i] = float(ld16(s + 2 * i));
            if (f.rgb)
                for (int32_t x = 0; x < n; ++x) std::swap(o[x * c], o[x * c + 2]);
            break;
        }
    }
}

// Channel-count change and range scaling of decoded samples, into cw channels.
void adaptChannels(const float* in, int32_t cs, float* out, int32_t cw, int32_t n, float scale,
                   float alphaMax) noexcept {
    for (int32_t x = 0; x < n; ++x) {
        const float* p = in + x * cs;
        float* q = out + x * cw;
        float b, g, r, a = alphaMax;
        if (cs == 1) {
            b = g = r = p[0];
        } else {
            b = p[0];
            g = p[1];
            r = p[2];
            if (cs == 4) a = p[3];
        }
        if (cw == 1) {
            q[0] = (2.f * r + 5.f * g + b) / 8.f * scale;
        } else {
            q[0] = b * scale;
            q[1] = g * scale;
            q[2] = r * scale;
            if (cw == 4) q[3] = cs == 4 ? a * scale : alphaMax;
        }
    }
}

inline float clampRound(float v, float hi) noexcept {
    v = v + 0.5f;
    v = v < 0.f ? 0.f : v;
    return v > hi ? hi : v;
}

// Writes n working pixels (canonical order) in the target format.
void encode(const Format& f, const BITMAPRECORD* dst, const float* in, uint8_t* d, int32_t n) noexcept {
    switch (f.fmt) {
        case Fmt::Palette:
            if (f.grayIndex) {
                for (int32_t x = 0; x < n; ++x) d[x] = uint8_t(clampRound(in[x], 255.f));
            } else {
                const int32_t colors = dst->nColors > 0 ? dst->nColors : (1 << f.bpp);
                const RGBQUAD* pal = dst->pPalette ? dst->pPalette : K_IntGetFixedPalette(f.bpp);
                int32_t lastKey = -1, lastIdx = 0;
                for (int32_t x = 0; x < n; ++x) {
                    const int32_t b = int32_t(clampRound(in[3 * x], 255.f));
                    const int32_t g = int32_t(clampRound(in[3 * x + 1], 255.f));
                    const int32_t r = int32_t(clampRound(in[3 * x + 2], 255.f));
                    const int32_t key = (r << 16) | (g << 8) | b;
                    if (key != lastKey) {
                        lastIdx = std::max(0, K_FindPaletteIndex(pal, colors, r, g, b));
                        lastKey = key;
                    }
                    if (f.bpp == 8)
                        d[x] = uint8_t(lastIdx);
                    else {
                        const uint64_t bit = uint64_t(x) * uint32_t(f.bpp);
                        uint8_t* q = d + (bit >> 3);
                        const uint32_t o = uint32_t(bit & 7), mask = (1u << f.bpp) - 1u;
                        const uint32_t s = 8 - o - uint32_t(f.bpp);  // palette depths 1, 2, 4, 8 stay in a byte
                        if (o + uint32_t(f.bpp) <= 8) {
                            q[0] = uint8_t((q[0] & ~(mask << s)) | ((uint32_t(lastIdx) & mask) << s));
                        } else {
                            const uint32_t s2 = 16 - o - uint32_t(f.bpp);
                            uint32_t w = (uint32_t(q[0]) << 8) | q[1];
                            w = (w & ~(mask << s2)) | ((uint32_t(lastIdx) & mask) << s2);
                            q[0] = uint8_t(w >> 8);
                            q[1] = uint8_t(w);
                        }
                    }
                }
            }
            break;
        case Fmt::Gray12:
            for (int32_t x = 0; x < n; ++x) conv::write12(d, size_t(x), uint32_t(clampRound(in[x], 4095.f)));
            break;
        case Fmt::Gray16:
            for (int32_t x = 0; x < n; ++x) st16(d + 2 * x, uint16_t(clampRound(in[x], 65535.f)));
            break;
        case Fmt::Color16:
            for (int32_t x = 0; x < n; ++x) {
                const uint32_t b = uint32_t(clampRound(in[3 * x], 255.f));
                const uint32_t g = uint32_t(clampRound(in[3 * x + 1], 255.f));
                const uint32_t r = uint32_t(clampRound(in[3 * x + 2], 255.f));
                const uint32_t v = f.rgb565 ? ((r >> 3) << 11) | ((g >> 2) << 5) | (b >> 3)
                                            : ((r >> 3) << 10) | ((g >> 3) << 5) | (b >> 3);
                st16(d + 2 * x, uint16_t(v));
            }
            break;
        case Fmt::B24:
        case Fmt::B32: {
            const int32_t c = f.channels, m = n * c;
            if (!f.rgb) {
                floatsToBytes(in, d, m);
            } else {
                for (int32_t x = 0; x < n; ++x)
                    for (int32_t k = 0; k < c; ++k)
                        d[x * c + k] = uint8_t(clampRound(in[x * c + (k < 3 ? 2 - k : k)], 255.f));
            }
            break;
        }
        case Fmt::W48:
        case Fmt::W64: {
            const int32_t c = f.channels;
            for (int32_t x = 0; x < n; ++x)
                for (int32_t k = 0; k < c; ++k) {
                    const int32_t src = f.rgb && k < 3 ? 2 - k : k;
                    st16(d + 2 * (x * c + k), uint16_t(clampRound(in[x * c + src], 65535.f)));
                }
            break;
        }
    }
}

// ---------------------------------------------------------------- inner loops

// Horizontal: out[i] = sum_k w[i][k] * in[start[i] + k], c channels.
template <int C>
inline __attribute__((always_inline)) void hpassBody(const float* __restrict in, float* __restrict out,
                                                     const Axis& ax, int32_t n) noexcept {
    const int32_t taps = ax.taps;
    const int32_t* st = ax.start.get();
    const int32_t* cn = ax.count.get();
    const float* wt = ax.weight.get();
    for (int32_t i = 0; i < n; ++i) {
        const float* p = in + size_t(st[i]) * C;
        const float* w = wt + size_t(i) * size_t(taps);
        float acc[C] = {};
        const int32_t k1 = cn[i];
        for (int32_t k = 0; k < k1; ++k)
            for (int c = 0; c < C; ++c) acc[c] += w[k] * p[k * C + c];
        for (int c = 0; c < C; ++c) out[size_t(i) * C + c] = acc[c];
    }
}
// The same with T taps for every target (unrolled).
template <int C, int T, class In>
inline __attribute__((always_inline)) void hpassFixedBody(const In* __restrict in, float* __restrict out,
                                                          const Axis& ax, int32_t n) noexcept {
    const int32_t* st = ax.fixedStart.get();
    const float* wt = ax.fixedWeight.get();
    for (int32_t i = 0; i < n; ++i) {
        const In* p = in + size_t(st[i]) * C;
        const float* w = wt + size_t(i) * T;
        float acc[C];
        for (int c = 0; c < C; ++c) acc[c] = w[0] * float(p[c]);
        for (int k = 1; k < T; ++k)
            for (int c = 0; c < C; ++c) acc[c] += w[k] * float(p[k * C + c]);
        for (int c = 0; c < C; ++c) out[size_t(i) * C + c] = acc[c];
    }
}
// Vertical: out[i] = sum_k w[k] * rows[k][i].
template <class In>
inline __attribute__((always_inline)) void vpassBody(const In* const* rows, const float* w, int32_t taps,
                                                     float* __restrict out, int32_t m) noexcept {
    int32_t k = 0;
    if (taps >= 2) {
        const In* __restrict a = rows[0];
        const In* __restrict b = rows[1];
        const float wa = w[0], wb = w[1];
        for (int32_t i = 0; i < m; ++i) out[i] = wa * float(a[i]) + wb * float(b[i]);
        k = 2;
    } else {
        const In* __restrict a = rows[0];
        const float wa = w[0];
        for (int32_t i = 0; i < m; ++i) out[i] = wa * float(a[i]);
        k = 1;
    }
    for (; k + 1 < taps; k += 2) {
        const In* __restrict a = rows[k];
        const In* __restrict b = rows[k + 1];
        const float wa = w[k], wb = w[k + 1];
        for (int32_t i = 0; i < m; ++i) out[i] += wa * float(a[i]) + wb * float(b[i]);
    }
    for (; k < taps; ++k) {
        const In* __restrict a = rows[k];
        const float wa = w[k];
        for (int32_t i = 0; i < m; ++i) out[i] += wa * float(a[i]);
    }
}

using HFn = void (*)(const float*, float*, const Axis&, int32_t);
using VFn = void (*)(const float* const*, const float*, int32_t, float*, int32_t);
using V8Fn = void (*)(const uint8_t* const*, const float*, int32_t, float*, int32_t);

template <int C>
void hpassPlain(const float* in, float* out, const Axis& ax, int32_t n) noexcept {
    hpassBody<C>(in, out, ax, n);
}
template <int C, int T, class In = float>
void hpassFixedPlain(const In* in, float* out, const Axis& ax, int32_t n) noexcept {
    hpassFixedBody<C, T, In>(in, out, ax, n);
}
template <int C, int T, class In = float>
__attribute__((target("avx2,fma"))) void hpassFixedAvx2(const In* in, float* out, const Axis& ax,
                                                        int32_t n) noexcept {
    hpassFixedBody<C, T, In>(in, out, ax, n);
}
// Three or four channels as one 4-wide vector per pixel (the AVX2/FMA build
// only). With three channels the fourth lane reads the next sample (the input
// rows have slack) and is overwritten by the next pixel; the last pixel is
// stored lane by lane.
template <int C, int T>
__attribute__((target("avx2,fma"))) void hpassVec(const float* in, float* out, const Axis& ax, int32_t n) noexcept {
    const int32_t* st = ax.fixedStart.get();
    const float* wt = ax.fixedWeight.get();
    for (int32_t i = 0; i < n; ++i) {
        const float* p = in + size_t(st[i]) * C;
        const float* w = wt + size_t(i) * T;
        __m128 acc = _mm_mul_ps(_mm_set1_ps(w[0]), _mm_loadu_ps(p));
        for (int k = 1; k < T; ++k) acc = _mm_fmadd_ps(_mm_set1_ps(w[k]), _mm_loadu_ps(p + k * C), acc);
        if (C == 4 || i + 1 < n) {
            _mm_storeu_ps(out + size_t(i) * C, acc);
        } else {
            alignas(16) float lanes[4];
            _mm_store_ps(lanes, acc);
            for (int c = 0; c < C; ++c) out[size_t(i) * C + c] = lanes[c];
        }
    }
}
// Four channels, an even tap count: one 8-float load holds two neighbouring
// source pixels, multiplied by their two weights spread over the halves, and
// the halves are added at the end (half the loads of the pixel-at-a-time loop,
// which is bound by them).
__attribute__((target("avx2,fma"), always_inline)) inline __m256 spreadPair(const float* w, __m256i spread) noexcept {
    double two;
    std::memcpy(&two, w, sizeof two);
    return _mm256_permutevar8x32_ps(_mm256_castpd_ps(_mm256_set1_pd(two)), spread);
}
template <int T>
__attribute__((target("avx2,fma"))) void hpassPairs4(const float* in, float* out, const Axis& ax, int32_t n) noexcept {
    static_assert(T % 2 == 0);
    const int32_t* st = ax.fixedStart.get();
    const float* wt = ax.fixedWeight.get();
    const __m256i spread = _mm256_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1);
    for (int32_t i = 0; i < n; ++i) {
        const float* p = in + size_t(st[i]) * 4;
        const float* w = wt + size_t(i) * T;
        __m256 acc = _mm256_mul_ps(spreadPair(w, spread), _mm256_loadu_ps(p));
        for (int k = 2; k < T; k += 2) acc = _mm256_fmadd_ps(spreadPair(w + k, spread), _mm256_loadu_ps(p + 4 * k), acc);
        _mm_storeu_ps(out + size_t(i) * 4, _mm_add_ps(_mm256_castps256_ps128(acc), _mm256_extractf128_ps(acc, 1)));
    }
}
void vpass8Plain(const uint8_t* const* rows, const float* w, int32_t taps, float* out, int32_t m) noexcept {
    vpassBody<uint8_t>(rows, w, taps, out, m);
}
__attribute__((target("avx2,fma"))) void vpass8Avx2(const uint8_t* const* rows, const float* w, int32_t taps,
                                                    float* out, int32_t m) noexcept {
    vpassBody<uint8_t>(rows, w, taps, out, m);
}
void vpassPlain(const float* const* rows, const float* w, int32_t taps, float* out, int32_t m) noexcept {
    vpassBody<float>(rows, w, taps, out, m);
}
template <int C>
__attribute__((target("avx2,fma"))) void hpassAvx2(const float* in, float* out, const Axis& ax, int32_t n) noexcept {
    hpassBody<C>(in, out, ax, n);
}
__attribute__((target("avx2,fma"))) void vpassAvx2(const float* const* rows, const float* w, int32_t taps,
                                                   float* out, int32_t m) noexcept {
    vpassBody<float>(rows, w, taps, out, m);
}

// The chunked path's vertical pass and rounding in one: 32 samples summed over
// the taps in registers, rounded (half up, saturating) and packed to bytes, so
// the sums never go through memory.
using VBFn = void (*)(const float* const*, const float*, int32_t, uint8_t*, int32_t);
__attribute__((target("avx2,fma"))) void vpassBytesAvx2(const float* const* rows, const float* w, int32_t taps,
                                                        uint8_t* d, int32_t m) noexcept {
    const __m256 half = _mm256_set1_ps(0.5f);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    int32_t i = 0;
    for (; i + 32 <= m; i += 32) {
        const __m256 w0 = _mm256_set1_ps(w[0]);
        const float* r = rows[0] + i;
        __m256 a = _mm256_mul_ps(w0, _mm256_loadu_ps(r)), b = _mm256_mul_ps(w0, _mm256_loadu_ps(r + 8));
        __m256 c = _mm256_mul_ps(w0, _mm256_loadu_ps(r + 16)), e = _mm256_mul_ps(w0, _mm256_loadu_ps(r + 24));
        for (int32_t k = 1; k < taps; ++k) {
            const __m256 wk = _mm256_set1_ps(w[k]);
            r = rows[k] + i;
            a = _mm256_fmadd_ps(wk, _mm256_loadu_ps(r), a);
            b = _mm256_fmadd_ps(wk, _mm256_loadu_ps(r + 8), b);
            c = _mm256_fmadd_ps(wk, _mm256_loadu_ps(r + 16), c);
            e = _mm256_fmadd_ps(wk, _mm256_loadu_ps(r + 24), e);
        }
        // Values in (-1, 0) truncate to 0; packs and packus saturate to 0..255.
        const __m256i ia = _mm256_cvttps_epi32(_mm256_add_ps(a, half)), ib = _mm256_cvttps_epi32(_mm256_add_ps(b, half));
        const __m256i ic = _mm256_cvttps_epi32(_mm256_add_ps(c, half)), ie = _mm256_cvttps_epi32(_mm256_add_ps(e, half));
        const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(ia, ib), _mm256_packs_epi32(ic, ie));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i), _mm256_permutevar8x32_epi32(bytes, order));
    }
    for (; i < m; ++i) {
        float acc = w[0] * rows[0][i];
        for (int32_t k = 1; k < taps; ++k) acc += w[k] * rows[k][i];
        d[i] = uint8_t(clampRound(acc, 255.f));
    }
}

bool useAvx2() noexcept {
    if (resampletest::g_forcePlain.load()) return false;
    __builtin_cpu_init();
    return conv::simdCeiling() >= conv::kSimdAvx2 && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
}

template <int C>
HFn pickFixed(int32_t t, bool avx) noexcept {
    switch (t) {
        case 2: return avx ? hpassFixedAvx2<C, 2> : hpassFixedPlain<C, 2>;
        case 4: return avx ? hpassFixedAvx2<C, 4> : hpassFixedPlain<C, 4>;
        case 6: return avx ? hpassFixedAvx2<C, 6> : hpassFixedPlain<C, 6>;
        case 8: return avx ? hpassFixedAvx2<C, 8> : hpassFixedPlain<C, 8>;
        default: return nullptr;
    }
}

template <int C>
HFn pickVec(int32_t t) noexcept {
    switch (t) {
        case 2: return hpassVec<C, 2>;
        case 4: return hpassVec<C, 4>;
        case 6: return hpassVec<C, 6>;
        case 8: return hpassVec<C, 8>;
        default: return nullptr;
    }
}

HFn pickH(int32_t c, int32_t fixedTaps, bool avx) noexcept {
    if (avx && c == 4) {
        switch (fixedTaps) {
            case 2: return hpassPairs4<2>;
            case 4: return hpassPairs4<4>;
            case 6: return hpassPairs4<6>;
            case 8: return hpassPairs4<8>;
            default: break;
        }
    }
    if (avx && c > 1) {
        if (HFn v = c == 3 ? pickVec<3>(fixedTaps) : pickVec<4>(fixedTaps)) return v;
    }
    HFn f = c == 1 ? pickFixed<1>(fixedTaps, avx) : c == 3 ? pickFixed<3>(fixedTaps, avx) : pickFixed<4>(fixedTaps, avx);
    if (f) return f;
    switch (c) {
        case 1: return avx ? hpassAvx2<1> : hpassPlain<1>;
        case 3: return avx ? hpassAvx2<3> : hpassPlain<3>;
        default: return avx ? hpassAvx2<4> : hpassPlain<4>;
    }
}

// ---------------------------------------------------------------- rows

struct Rows {
    BITMAPRECORD* bm;
    uint8_t* base = nullptr;
    explicit Rows(BITMAPRECORD* b) : bm(b) {
        const uint32_t f = b->uFlags;
        const bool memoryKind = !(f & (BRF_COMPRESSED | BRF_TILED | BRF_SUPERCOMPRESSED | BRF_DISK));
        const bool callback = isCurrentLayout(b) && b->pCallbacks && b->pCallbacks->pfnGetRow;
        if (memoryKind && !callback && b->pData &&
            ((f & BRF_LOCKED) || ((f & BRF_USER_MEMORY) && !(f & BRF_MOVABLE_BLOCK))))
            base = b->pData;
    }
};

struct Job {
    BITMAPRECORD* src;
    BITMAPRECORD* dst;
    Rows* in;
    Rows* out;
    Format sf, df;
    int32_t cw;       // working channels
    float scale;      // source range to target range
    bool premul;
    bool flip;
    Axis ax, ay;
    float palTable[256 * 4];
    HFn h;
    VFn v;
    bool verticalFirst;  // ring rows are decoded source rows; the horizontal pass follows
    V8Fn v8;             // vertical-first straight from stored 8-bit rows (24/32 bits as stored)
    bool chunked;        // horizontal first into 24/32-bit BGR: vertical sums stored a chunk at a time
    VBFn vb;             // ... or summed and rounded to bytes in one vector pass
    // Whole-factor area reduction of 8-bit samples kept in one layout (8-bit
    // grey, 24 and 32 bits): integer block means instead of the float passes.
    int32_t boxX, boxY;  // block size; boxX == 0: not this path
    int32_t boxC;        // samples per pixel
    rsz::BoxDivider boxDiv;
    rsz::Box22Fn box22;  // vector 2 x 2 kernel, or null
    int boxLevel;
};

// Decodes and horizontally resamples source row r into dstRow (newW * cw floats).
int32_t loadRow(const Job& j, int32_t r, uint8_t* raw, float* dec, float* adapt, float* outRow) noexcept {
    const uint8_t* s;
    if (j.in->base) {
        s = j.in->base + uint64_t(r) * j.src->nBytesPerLine;
    } else {
        int32_t rc = readFullRow(j.src, r, raw);
        if (rc != KS_SUCCESS) return rc;
        s = raw;
    }
    const int32_t oldW = j.src->nWidth;
    decodeRaw(j.sf, j.palTable, s, dec, oldW);
    const float* cur = dec;
    const float alphaMax = j.df.maxValue;
    if (j.sf.channels != j.cw || j.scale != 1.0f) {
        adaptChannels(dec, j.sf.channels, adapt, j.cw, oldW, j.scale, alphaMax);
        cur = adapt;
    }
    if (j.premul) {
        float* p = const_cast<float*>(cur);
        const float inv = 1.0f / alphaMax;
        for (int32_t x = 0; x < oldW; ++x) {
            const float a = p[4 * x + 3] * inv;
            p[4 * x] *= a;
            p[4 * x + 1] *= a;
            p[4 * x + 2] *= a;
        }
    }
    if (j.ax.identity || j.verticalFirst)
        std::memcpy(outRow, cur, sizeof(float) * size_t(oldW) * size_t(j.cw));
    else
        j.h(cur, outRow, j.ax, j.dst->nWidth);
    return KS_SUCCESS;
}

// Target rows [y0, y1) of a whole-factor area reduction: each the rounded
// mean of its boxX x boxY block, from column sums in 16 bits (2 x 2 blocks
// straight from the two rows).
int32_t runBoxBand(const Job& j, int32_t y0, int32_t y1) noexcept {
    const int32_t newW = j.dst->nWidth, bx = j.boxX, by = j.boxY, c = j.boxC;
    const int32_t m = newW * bx * c;  // source samples used per row
    const uint32_t sbpl = j.src->nBytesPerLine;
    const bool two = bx == 2 && by == 2;
    UniqueMem<uint8_t> raw(j.in->base ? nullptr : static_cast<uint8_t*>(memAlloc(size_t(sbpl) * 2 + 16)));
    UniqueMem<uint8_t> outRaw(j.out->base ? nullptr : static_cast<uint8_t*>(memCalloc(size_t(j.dst->nBytesPerLine) + 16)));
    UniqueMem<uint16_t> sums(two ? nullptr : memAllocArray<uint16_t>(size_t(m) + 16));
    if ((!j.in->base && !raw) || (!j.out->base && !outRaw) || (!two && !sums)) return KS_NO_MEMORY;
    auto row = [&](int64_t r, int32_t slot, int32_t* rc) -> const uint8_t* {
        if (j.in->base) return j.in->base + uint64_t(r) * sbpl;
        uint8_t* buf = raw.get() + size_t(slot) * sbpl;
        *rc = readFullRow(j.src, int32_t(r), buf);
        return buf;
    };
    for (int32_t y = y0; y < y1; ++y) {
        const int32_t ty = j.flip ? j.dst->nHeight - 1 - y : y;
        uint8_t* d = j.out->base ? j.out->base + uint64_t(ty) * j.dst->nBytesPerLine : outRaw.get();
        const int64_t r0 = int64_t(y) * by;
        int32_t rc = KS_SUCCESS;
        if (two) {
            const uint8_t* a = row(r0, 0, &rc);
            if (rc != KS_SUCCESS) return rc;
            const uint8_t* b = row(r0 + 1, 1, &rc);
            if (rc != KS_SUCCESS) return rc;
            const int32_t done = j.box22 ? j.box22(a, b, d, newW) : 0;
            rsz::box22Plain(a, b, d, done, newW, c);
        } else {
            for (int32_t k = 0; k < by; ++k) {
                const uint8_t* s = row(r0 + k, 0, &rc);
                if (rc != KS_SUCCESS) return rc;
                rsz::boxAddRow(s, sums.get(), m, k == 0, j.boxLevel);
            }
            rsz::boxFinishRow(sums.get(), d, newW, bx, c, j.boxDiv);
        }
        if (!j.out->base) {
            rc = writeRow(j.dst, ty, 0, d, j.dst->nBytesPerLine);
            if (rc != KS_SUCCESS) return rc;
        }
    }
    return KS_SUCCESS;
}

// Whole-factor area reductions that keep 8-bit samples in one layout take
// the integer block means.
void pickBox(Job& j, ResampleFilter filter) noexcept {
    const BITMAPRECORD *src = j.src, *dst = j.dst;
    if (filter != ResampleFilter::LinearOrArea || j.premul || dst->nWidth > src->nWidth ||
        dst->nHeight > src->nHeight || src->nWidth % dst->nWidth || src->nHeight % dst->nHeight)
        return;
    const int32_t bx = src->nWidth / dst->nWidth, by = src->nHeight / dst->nHeight;
    if ((bx == 1 && by == 1) || int64_t(bx) * by > rsz::kBoxMaxPixels || by > 257) return;
    bool same = (j.sf.fmt == Fmt::B24 || j.sf.fmt == Fmt::B32) && j.df.fmt == j.sf.fmt && j.sf.rgb == j.df.rgb &&
                j.scale == 1.0f;
    if (j.sf.fmt == Fmt::Palette && j.sf.bpp == 8 && j.df.fmt == Fmt::Palette && j.df.grayIndex && j.cw == 1) {
        same = true;  // only when the source's palette is the plain grey ramp
        for (int32_t i = 0; i < 256 && same; ++i) same = j.palTable[4 * i] == float(i);
    }
    if (!same) return;
    j.boxX = bx;
    j.boxY = by;
    j.boxC = j.sf.fmt == Fmt::Palette ? 1 : j.sf.fmt == Fmt::B24 ? 3 : 4;
    j.boxDiv = rsz::boxDivider(bx * by);
    j.boxLevel = rsz::simdLevel();
    j.box22 = bx == 2 && by == 2 ? rsz::pickBox22(j.boxC, j.boxLevel) : nullptr;
}

int32_t runBand(const Job& j, int32_t y0, int32_t y1) noexcept {
    if (j.boxX) return runBoxBand(j, y0, y1);
    const int32_t oldW = j.src->nWidth, newW = j.dst->nWidth, cw = j.cw;
    const int32_t ring = j.ay.taps;
    const size_t rowFloats = size_t(j.verticalFirst ? oldW : newW) * size_t(cw);
    const size_t decFloats = size_t(oldW) * 4 + 8;
    UniqueMem<uint8_t> raw(static_cast<uint8_t*>(memAlloc(size_t(j.src->nBytesPerLine) + 8)));
    UniqueMem<uint8_t> outRaw(static_cast<uint8_t*>(memCalloc(size_t(j.dst->nBytesPerLine) + 8)));
    UniqueMem<float> dec(memAllocArray<float>(decFloats * 2));
    UniqueMem<float> rows(memAllocArray<float>(rowFloats * size_t(ring) + rowFloats + size_t(newW) * size_t(cw)));
    UniqueMem<int32_t> tag(memAllocArray<int32_t>(size_t(ring)));
    UniqueMem<const float*> ptrs(memAllocArray<const float*>(size_t(ring)));
    if (!raw || !outRaw || !dec || !rows || !tag || !ptrs) return KS_NO_MEMORY;
    std::fill(tag.get(), tag.get() + ring, -1);
    // Stored rows for the 8-bit vertical pass when the source is not in one block.
    UniqueMem<uint8_t> rawRing;
    UniqueMem<const uint8_t*> ptrs8;
    if (j.v8) {
        ptrs8.reset(memAllocArray<const uint8_t*>(size_t(ring)));
        if (!j.in->base) rawRing.reset(static_cast<uint8_t*>(memAlloc(size_t(j.src->nBytesPerLine) * size_t(ring))));
        if (!ptrs8 || (!j.in->base && !rawRing)) return KS_NO_MEMORY;
    }
    float* acc = rows.get() + rowFloats * size_t(ring);
    for (int32_t y = y0; y < y1; ++y) {
        const int32_t s0 = j.ay.start.get()[y], n = j.ay.count.get()[y];
        const float* wts0 = j.ay.weight.get() + size_t(y) * size_t(j.ay.taps);
        if (j.v8) {
            for (int32_t k = 0; k < n; ++k) {
                const int32_t r = s0 + k, slot = r % ring;
                if (j.in->base) {
                    ptrs8.get()[k] = j.in->base + uint64_t(r) * j.src->nBytesPerLine;
                    continue;
                }
                uint8_t* buf = rawRing.get() + size_t(slot) * j.src->nBytesPerLine;
                if (tag.get()[slot] != r) {
                    int32_t rc = readFullRow(j.src, r, buf);
                    if (rc != KS_SUCCESS) return rc;
                    tag.get()[slot] = r;
                }
                ptrs8.get()[k] = buf;
            }
            j.v8(ptrs8.get(), wts0, n, acc, int32_t(rowFloats));
        }
        for (int32_t k = 0; k < n && !j.v8; ++k) {
            const int32_t r = s0 + k, slot = r % ring;
            float* dstRow = rows.get() + rowFloats * size_t(slot);
            if (tag.get()[slot] != r) {
                int32_t rc = loadRow(j, r, raw.get(), dec.get(), dec.get() + decFloats, dstRow);
                if (rc != KS_SUCCESS) return rc;
                tag.get()[slot] = r;
            }
            ptrs.get()[k] = dstRow;
        }
        const float* wts = j.ay.weight.get() + size_t(y) * size_t(j.ay.taps);
        if (j.chunked) {
            // 8-bit samples in storage order: sum and store a chunk at a time,
            // so the sums stay in the first-level cache.
            const int32_t ty = j.flip ? j.dst->nHeight - 1 - y : y;
            uint8_t* d = j.out->base ? j.out->base + uint64_t(ty) * j.dst->nBytesPerLine : outRaw.get();
            if (j.vb) {
                j.vb(ptrs.get(), wts, n, d, int32_t(rowFloats));
            } else {
                const float* part[64];
                constexpr int32_t kChunk = 2048;
                for (int32_t off = 0; off < int32_t(rowFloats); off += kChunk) {
                    const int32_t len = std::min<int32_t>(kChunk, int32_t(rowFloats) - off);
                    for (int32_t k = 0; k < n; ++k) part[k] = ptrs.get()[k] + off;
                    j.v(part, wts, n, acc, len);
                    floatsToBytes(acc, d + off, len);
                }
            }
            if (!j.out->base) {
                int32_t rc = writeRow(j.dst, ty, 0, d, j.dst->nBytesPerLine);
                if (rc != KS_SUCCESS) return rc;
            }
            continue;
        }
        if (!j.v8) j.v(ptrs.get(), wts, n, acc, int32_t(rowFloats));
        float* res = acc;
        if (j.verticalFirst) {
            res = acc + rowFloats;
            j.h(acc, res, j.ax, newW);
        }
        if (j.premul) {
            const float am = j.df.maxValue;
            for (int32_t x = 0; x < newW; ++x) {
                const float a = res[4 * x + 3];
                const float k = a > 0.f ? am / a : 0.f;
                res[4 * x] *= k;
                res[4 * x + 1] *= k;
                res[4 * x + 2] *= k;
            }
        }
        const int32_t ty = j.flip ? j.dst->nHeight - 1 - y : y;
        uint8_t* d = j.out->base ? j.out->base + uint64_t(ty) * j.dst->nBytesPerLine : outRaw.get();
        encode(j.df, j.dst, res, d, newW);
        if (!j.out->base) {
            int32_t rc = writeRow(j.dst, ty, 0, d, j.dst->nBytesPerLine);
            if (rc != KS_SUCCESS) return rc;
        }
    }
    return KS_SUCCESS;
}

}  // namespace

int32_t resampleTargetBits(const BITMAPRECORD* src) noexcept {
    if (src->nBitsPerPixel > 8) return src->nBitsPerPixel;
    return K_IntIsGrayScaleBitmap(src) > 0 ? 8 : 24;
}

int32_t resampleInto(BITMAPRECORD* src, BITMAPRECORD* dst, ResampleFilter filter, uint32_t uFlags,
                     bool bFlipRows) noexcept {
    if (!src || !dst || !(src->uFlags & BRF_ALLOCATED) || !(dst->uFlags & BRF_ALLOCATED)) return KS_INVALID_BITMAP;
    if (!bitsValid(src->nBitsPerPixel) || !bitsValid(dst->nBitsPerPixel)) return KS_INVALID_BITS_PER_PIXEL;
    if (src->nWidth <= 0 || src->nHeight <= 0 || dst->nWidth <= 0 || dst->nHeight <= 0) return KS_INVALID_DIMENSIONS;
    if ((src->uFlags | dst->uFlags) & 0x100000u) return KS_FLOAT_NOT_SUPPORTED;
    auto job = std::unique_ptr<Job, MemDeleter>(static_cast<Job*>(memCalloc(sizeof(Job))));
    if (!job) return KS_NO_MEMORY;
    new (job.get()) Job{};
    struct Destroy {
        Job* j;
        ~Destroy() { j->~Job(); }
    } destroy{job.get()};
    Job& j = *job;
    j.src = src;
    j.dst = dst;
    j.sf = describe(src, false);
    j.df = describe(dst, true);
    j.cw = j.df.channels;
    j.scale = j.sf.maxValue == j.df.maxValue ? 1.0f : j.df.maxValue / j.sf.maxValue;
    j.premul = (uFlags & kSizePremultiply) && j.cw == 4 && j.sf.channels == 4;
    j.flip = bFlipRows;
    if (j.sf.fmt == Fmt::Palette) {
        // The source's colours, already in the target's channel count and range.
        const int32_t n = 1 << j.sf.bpp;
        RGBQUAD cols[256];
        const RGBQUAD* pal = src->pPalette ? src->pPalette : K_IntGetFixedPalette(j.sf.bpp);
        for (int32_t i = 0; i < n; ++i) cols[i] = pal && i < std::max(src->nColors, n) ? pal[i] : RGBQUAD{0, 0, 0, 0};
        float in[4] = {0.f, 0.f, 0.f, 0.f};
        for (int32_t i = 0; i < n; ++i) {
            in[0] = cols[i].rgbBlue;
            in[1] = cols[i].rgbGreen;
            in[2] = cols[i].rgbRed;
            if (j.sf.channels == 1) in[0] = cols[i].rgbRed;
            adaptChannels(in, j.sf.channels, j.palTable + 4 * i, j.cw, 1, j.scale, j.df.maxValue);
        }
        j.sf.channels = j.cw;  // the table already has the working layout
        j.scale = 1.0f;
    }
    int32_t rc = buildAxis(&j.ax, src->nWidth, dst->nWidth, filter);
    if (rc == KS_SUCCESS) rc = buildAxis(&j.ay, src->nHeight, dst->nHeight, filter);
    if (rc != KS_SUCCESS) return rc;
    pickBox(j, filter);
    const bool avx = useAvx2();
    j.h = pickH(j.cw, j.ax.fixedTaps, avx);
    j.chunked = dst->nHeight >= src->nHeight && !j.premul && (j.df.fmt == Fmt::B24 || j.df.fmt == Fmt::B32) &&
                !j.df.rgb && j.ay.taps <= 64;
    // Reductions in height run the vertical pass first, on fewer rows.
    j.verticalFirst = dst->nHeight < src->nHeight && !j.ax.identity;
    if (j.verticalFirst && (j.sf.fmt == Fmt::B24 || j.sf.fmt == Fmt::B32) && !j.sf.rgb && j.sf.channels == j.cw &&
        j.scale == 1.0f && !j.premul)
        j.v8 = avx ? vpass8Avx2 : vpass8Plain;
    j.v = avx ? vpassAvx2 : vpassPlain;
    j.vb = avx && j.chunked ? vpassBytesAvx2 : nullptr;

    int32_t okS = 0, okD = 0;
    rc = K_IntAccessBitmap(src, &okS);
    if (rc == KS_SUCCESS) rc = K_IntAccessBitmap(dst, &okD);
    if (rc == KS_SUCCESS) {
        Rows in(src), out(dst);
        j.in = &in;
        j.out = &out;
        ParallelOptions opt;
        opt.bytesPerRow = j.boxX ? uint64_t(src->nBytesPerLine) * uint64_t(j.boxY)
                                 : uint64_t(dst->nWidth) * uint64_t(j.cw) * uint64_t(j.ay.taps) * 4u + src->nBytesPerLine;
        opt.maxThreads = (in.base && out.base) ? resampletest::g_maxThreads.load() : 1;
        opt.minRowsPerBand = std::max(16, 8 * j.ay.taps);  // each band reloads its top taps
        const Job* cj = &j;
        rc = parallelRows(dst->nHeight, [cj](int32_t y0, int32_t y1, int32_t) { return runBand(*cj, y0, y1); }, opt);
    }
    if (okD) K_IntReleaseBitmap(dst, 1, KS_SUCCESS);
    if (okS) K_IntReleaseBitmap(src, 1, KS_SUCCESS);
    return rc;
}

}  // namespace krn
