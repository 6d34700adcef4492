// disutil.cpp - window-level tables and applying a window to 12- and 16-bit
// grey bitmaps.
//
// One engine fills every table kind: it computes the colour of each index of
// the clamped window by the curve (per channel: start + the curve's share of
// end - start) and hands it to a writer for the entry type (RGBQUAD, grey
// byte, RGBQUAD16, grey word). Outside the window the mode decides.
//
// Applying a window: the table for the sample bits is expanded once into a
// table indexed by the raw stored sample (16 bits: 65536 bytes, 12 bits:
// 4096), so the row kernel is one load per pixel. Single-block and caller
// memory bitmaps are read in place, in bands on the parallel row helper;
// every other storage kind moves through the row layer.
#include <immintrin.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include "krn/common/convert_kernels.h"
#include "krn/common/hooks.h"
#include "krn/common/kernel.h"
#include "krn/common/memory.h"
#include "krn/common/parallel.h"
#include "krn/common/progress.h"

namespace krn {

namespace {

struct Channels {
    int64_t c[3];  // red, green, blue
};

struct WindowSpec {
    int64_t lo, hi;          // the clamped window
    int64_t first, last;     // the table's index range
    uint32_t mode, curve;    // 1 or 2; 0x10..0x40
    bool alt;
    double k;                // factor / 10
    Channels start, end;     // the ramp ends inside the window
    Channels below, above;   // mode 2: outside colours
    int64_t top;             // channel maximum
};

int32_t checkFlags(uint32_t flags, int32_t factor) noexcept {
    const uint32_t mode = flags & 0xFu, curve = flags & 0xF0u, sign = flags & 0xF00u, alt = flags & 0xF000u;
    if (mode != 1 && mode != 2) return KS_INVALID_PARAMETER;
    if (curve < 0x10u || curve > 0x40u) return KS_INVALID_PARAMETER;
    if (sign != 0 && sign != 0x100u) return KS_INVALID_PARAMETER;
    if (alt != 0 && alt != 0x1000u) return KS_INVALID_PARAMETER;
    if (flags & ~0xFFFFu) return KS_INVALID_PARAMETER;
    if (curve == WLCURVE_LOGARITHMIC && factor < 0) return KS_INVALID_PARAMETER;
    return KS_SUCCESS;
}

// The channel value at index i of the window.
int64_t channelAt(const WindowSpec& w, int64_t i, int ch, const Channels& s, const Channels& e) noexcept {
    const int64_t d = w.hi - w.lo, u = i - w.lo;
    const int64_t span = e.c[ch] - s.c[ch];
    if (d == 0) return std::clamp<int64_t>(s.c[ch], 0, w.top);
    if (w.curve == WLCURVE_LINEAR || w.k == 0.0)
        return std::clamp<int64_t>(s.c[ch] + u * span / d, 0, w.top);
    double t;
    const double k = w.k;
    switch (w.curve) {
        case WLCURVE_EXPONENTIAL:
            t = (std::exp(double(u) * k / double(d)) - 1.0) / (std::exp(k) - 1.0);
            break;
        case WLCURVE_LOGARITHMIC:
            t = std::log(double(u) * k / double(d) + 1.0) / std::log(k + 1.0);
            break;
        default: {
            const double mid = (double(w.lo) + double(w.hi)) / 2.0;
            auto g = [&](double x) { return 1.0 / (1.0 + std::exp((x - mid) * 2.0 * k / double(d))); };
            t = (g(double(i)) - g(double(w.lo))) / (g(double(w.hi)) - g(double(w.lo)));
            break;
        }
    }
    if (!std::isfinite(t)) t = u >= d ? 1.0 : 0.0;  // a factor so large that the curve saturates
    double v = t * double(span) + 0.000005;
    v = std::clamp(v, -4.0e18, 4.0e18);
    return std::clamp<int64_t>(s.c[ch] + int64_t(v), 0, w.top);
}

template <class Write>
int32_t fillTable(uint32_t len, const Channels& startC, const Channels& endC, int64_t top, int32_t low,
                  int32_t high, int32_t lowBit, int32_t highBit, int32_t minV, int32_t maxV, int32_t factor,
                  uint32_t flags, Write write) noexcept {
    int32_t r = checkFlags(flags, factor);
    if (r != KS_SUCCESS) return r;
    if (lowBit > highBit || minV > maxV || low > high) return KS_INVALID_PARAMETER;
    if (len == 0) return KS_SUCCESS;
    WindowSpec w{};
    w.mode = flags & 0xFu;
    w.curve = flags & 0xF0u;
    w.alt = (flags & WLFLAG_ALT) != 0;
    w.k = double(factor) / 10.0;
    w.top = top;
    const bool sign = (flags & WLFLAG_SIGNED) != 0;
    w.first = sign ? -int64_t(len / 2) : 0;
    w.last = sign ? int64_t((len - 1) / 2) : int64_t(len) - 1;
    w.lo = std::clamp<int64_t>(std::clamp<int64_t>(low, minV, maxV), w.first, w.last);
    w.hi = std::clamp<int64_t>(std::clamp<int64_t>(high, minV, maxV), w.first, w.last);
    if (w.mode == 1 || w.alt) {
        w.start = startC;
        w.end = endC;
    } else {
        w.start = Channels{{0, 0, 0}};
        w.end = Channels{{top, top, top}};
    }
    auto slot = [&](int64_t i) { return size_t(i < 0 ? i + int64_t(len) : i); };
    auto colour = [&](int64_t i) {
        Channels c;
        for (int ch = 0; ch < 3; ++ch) c.c[ch] = channelAt(w, i, ch, w.start, w.end);
        return c;
    };
    for (int64_t i = w.lo; i <= w.hi; ++i) write(slot(i), colour(i));
    if (w.mode == 1 && w.alt) return KS_SUCCESS;
    Channels below, above;
    if (w.mode == 1) {
        below = colour(w.lo);
        above = colour(w.hi);
    } else {
        for (int ch = 0; ch < 3; ++ch) {
            below.c[ch] = std::clamp<int64_t>(startC.c[ch], 0, top);
            above.c[ch] = std::clamp<int64_t>(endC.c[ch], 0, top);
        }
    }
    for (int64_t i = w.first; i < w.lo; ++i) write(slot(i), below);
    for (int64_t i = w.hi + 1; i <= w.last; ++i) write(slot(i), above);
    return KS_SUCCESS;
}

Channels split(uint64_t colour, int bits) noexcept {
    const uint64_t m = (uint64_t(1) << bits) - 1;
    return Channels{{int64_t(colour & m), int64_t((colour >> bits) & m), int64_t((colour >> (2 * bits)) & m)}};
}
Channels greyChannels(uint32_t g) noexcept { return Channels{{int64_t(g), int64_t(g), int64_t(g)}}; }

}  // namespace

// ---------------------------------------------------------------- applying a window

namespace {

// 0 automatic, 1 plain kernels only, 2 the computed line wherever the window
// allows it, 3 table gathers only (see testhook::windowLevelKernels).
std::atomic<int> gKernelMode{0};

// The linear window where the row kernel computes it instead of looking it
// up: grey = clamp(sample - lo, 0, d) * 255 / d (truncated), inverted on
// request. The sample is bits lb..hb of the stored value, signed on request.
struct LinearWindow {
    bool on = false;
    int32_t lo = 0, d = 1;
    int32_t lb = 0, hb = 15;
    bool sign = false, invert = false;
};

struct LevelJob;
using LevelRowFn = void (*)(const LevelJob& j, const uint8_t* in, uint8_t* out) noexcept;

struct LevelJob {
    BITMAPRECORD* src;
    BITMAPRECORD* dst;
    const uint8_t* map;  // indexed by the raw stored sample (padded by three bytes)
    int32_t width;
    LinearWindow lin;
    LevelRowFn fn;       // picked once per call
};

// ---- plain kernels: one table load per pixel (the reference of the others)

void mapRow16(const LevelJob& j, const uint8_t* in, uint8_t* out) noexcept {
    const uint8_t* map = j.map;
    const int32_t width = j.width;
    int32_t x = 0;
    for (; x + 8 <= width; x += 8) {
        uint16_t s[8];
        std::memcpy(s, in + size_t(x) * 2, 16);
        for (int k = 0; k < 8; ++k) out[x + k] = map[s[k]];
    }
    for (; x < width; ++x) {
        uint16_t s;
        std::memcpy(&s, in + size_t(x) * 2, 2);
        out[x] = map[s];
    }
}

void mapRow12(const LevelJob& j, const uint8_t* in, uint8_t* out) noexcept {
    const uint8_t* map = j.map;
    const int32_t width = j.width;
    int32_t x = 0;
    for (; x + 2 <= width; x += 2) {
        const uint8_t* q = in + size_t(x / 2) * 3;
        out[x] = map[uint32_t(q[0]) | ((uint32_t(q[1]) & 0x0Fu) << 8)];
        out[x + 1] = map[(uint32_t(q[1]) >> 4) | (uint32_t(q[2]) << 4)];
    }
    if (x < width) out[x] = map[conv::read12(in, size_t(x))];
}

// ---- AVX2 kernels, 16 pixels a step; the tail goes to the plain kernel.
// Rows are read ahead by software prefetch (a hint: it never faults, even
// past the end of the block).
constexpr size_t kPrefetchAhead = 1024;

// Sixteen 12-bit samples (24 bytes at p) as 16-bit lanes. Reads 28 bytes.
__attribute__((target("avx2"))) inline __m256i load12x16(const uint8_t* p) noexcept {
    const __m256i bytes = _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 12)), 1);
    const __m256i pairs = _mm256_shuffle_epi8(
        bytes, _mm256_setr_epi8(0, 1, 1, 2, 3, 4, 4, 5, 6, 7, 7, 8, 9, 10, 10, 11, 0, 1, 1, 2, 3, 4, 4, 5, 6, 7, 7, 8,
                                9, 10, 10, 11));
    const __m256i even = _mm256_and_si256(pairs, _mm256_set1_epi16(0x0FFF));
    const __m256i odd = _mm256_srli_epi16(pairs, 4);
    return _mm256_blend_epi16(even, odd, 0xAA);
}

// Eight 32-bit lanes of bytes 0..255 each, twice, packed to 16 bytes in order.
__attribute__((target("avx2"))) inline __m128i pack16(__m256i a, __m256i b) noexcept {
    __m256i w = _mm256_packus_epi32(a, b);       // 16-bit, lanes interleaved by 128
    w = _mm256_permute4x64_epi64(w, 0xD8);       // back in order
    return _mm_packus_epi16(_mm256_castsi256_si128(w), _mm256_extracti128_si256(w, 1));
}

// Table lookups by gather: the table is padded by three bytes so that each
// 32-bit gather stays inside it.
struct GatherPixels {
    const uint8_t* map;
    explicit GatherPixels(const LevelJob& j) noexcept : map(j.map) {}
    __attribute__((target("avx2"))) __m128i operator()(__m256i raw) const noexcept {
        const __m256i low = _mm256_set1_epi32(0xFF);
        const int* base = reinterpret_cast<const int*>(map);
        const __m256i i0 = _mm256_cvtepu16_epi32(_mm256_castsi256_si128(raw));
        const __m256i i1 = _mm256_cvtepu16_epi32(_mm256_extracti128_si256(raw, 1));
        return pack16(_mm256_and_si256(_mm256_i32gather_epi32(base, i0, 1), low),
                      _mm256_and_si256(_mm256_i32gather_epi32(base, i1, 1), low));
    }
};

// The linear window computed: q = n / d for n = u * 255 by a float estimate
// corrected by one step (exact for n < 2^24).
struct LinearPixels {
    __m256i lo, d, dm1, mask;
    __m128i shl, sra, lb;
    __m256 inv;
    bool sign, invert;

    __attribute__((target("avx2"))) explicit LinearPixels(const LevelJob& j) noexcept {
        const LinearWindow& w = j.lin;
        lo = _mm256_set1_epi32(w.lo);
        d = _mm256_set1_epi32(w.d);
        dm1 = _mm256_set1_epi32(w.d - 1);
        mask = _mm256_set1_epi16(int16_t(uint16_t((1u << (w.hb - w.lb + 1)) - 1u)));
        shl = _mm_cvtsi32_si128(15 - w.hb);
        sra = _mm_cvtsi32_si128(15 - w.hb + w.lb);
        lb = _mm_cvtsi32_si128(w.lb);
        inv = _mm256_set1_ps(1.0f / float(w.d));
        sign = w.sign;
        invert = w.invert;
    }
    __attribute__((target("avx2"))) __m256i half(__m256i s) const noexcept {
        const __m256i u = _mm256_min_epi32(_mm256_max_epi32(_mm256_sub_epi32(s, lo), _mm256_setzero_si256()), d);
        const __m256i n = _mm256_sub_epi32(_mm256_slli_epi32(u, 8), u);
        __m256i q = _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_cvtepi32_ps(n), inv));
        const __m256i r = _mm256_sub_epi32(n, _mm256_mullo_epi32(q, d));
        q = _mm256_add_epi32(q, _mm256_cmpgt_epi32(_mm256_setzero_si256(), r));  // r < 0: one less
        q = _mm256_sub_epi32(q, _mm256_cmpgt_epi32(r, dm1));                     // r >= d: one more
        return invert ? _mm256_xor_si256(q, _mm256_set1_epi32(255)) : q;
    }
    __attribute__((target("avx2"))) __m128i operator()(__m256i raw) const noexcept {
        __m256i s0, s1;
        if (sign) {
            const __m256i v = _mm256_sra_epi16(_mm256_sll_epi16(raw, shl), sra);
            s0 = _mm256_cvtepi16_epi32(_mm256_castsi256_si128(v));
            s1 = _mm256_cvtepi16_epi32(_mm256_extracti128_si256(v, 1));
        } else {
            const __m256i v = _mm256_and_si256(_mm256_srl_epi16(raw, lb), mask);
            s0 = _mm256_cvtepu16_epi32(_mm256_castsi256_si128(v));
            s1 = _mm256_cvtepu16_epi32(_mm256_extracti128_si256(v, 1));
        }
        return pack16(half(s0), half(s1));
    }
};

// The linear window in 16-bit lanes, for unsigned samples, 0 <= lo <= 65535
// and 256 <= d <= 65535 (`fitsLine16`): u = min(sample -sat lo, d) and
// q0 = (u * M) >> 16 with M = floor(255 * 2^16 / d) <= 65535, which is the
// quotient r = floor(255 u / d) or r - 1 (the error of M is below 2^-16 per
// unit of u); one exact compare of 255 u with (q0 + 1) d, both below 2^24 and
// taken as (high, low) 16-bit halves, adds the missing one. Sixteen pixels are
// one vector, without widening: half the operations of the 32-bit line.
bool fitsLine16(const LinearWindow& w) noexcept {
    return w.on && !w.sign && w.lo >= 0 && w.lo <= 65535 && w.d >= 256 && w.d <= 65535;
}

struct Line16Pixels {
    __m256i lo, d, m, mask, ones, c255;
    __m128i lb;
    bool invert;

    __attribute__((target("avx2"))) explicit Line16Pixels(const LevelJob& j) noexcept {
        const LinearWindow& w = j.lin;
        lo = _mm256_set1_epi16(int16_t(uint16_t(w.lo)));
        d = _mm256_set1_epi16(int16_t(uint16_t(w.d)));
        m = _mm256_set1_epi16(int16_t(uint16_t((255u << 16) / uint32_t(w.d))));
        mask = _mm256_set1_epi16(int16_t(uint16_t((1u << (w.hb - w.lb + 1)) - 1u)));
        ones = _mm256_set1_epi16(1);
        c255 = _mm256_set1_epi16(255);
        lb = _mm_cvtsi32_si128(w.lb);
        invert = w.invert;
    }
    // Sixteen quotients 0..255 in 16-bit lanes.
    __attribute__((target("avx2"))) __m256i quotients(__m256i raw) const noexcept {
        const __m256i s = _mm256_and_si256(_mm256_srl_epi16(raw, lb), mask);
        const __m256i u = _mm256_min_epu16(_mm256_subs_epu16(s, lo), d);
        const __m256i q0 = _mm256_mulhi_epu16(u, m);
        const __m256i q1 = _mm256_add_epi16(q0, ones);
        // a = 255 u and b = (q0 + 1) d as 32-bit values in (high, low) halves; the
        // high halves are below 2^8, so a signed compare orders them.
        const __m256i aHi = _mm256_mulhi_epu16(u, c255), aLo = _mm256_mullo_epi16(u, c255);
        const __m256i bHi = _mm256_mulhi_epu16(q1, d), bLo = _mm256_mullo_epi16(q1, d);
        const __m256i loGe = _mm256_cmpeq_epi16(_mm256_max_epu16(aLo, bLo), aLo);
        const __m256i ge = _mm256_or_si256(_mm256_cmpgt_epi16(aHi, bHi),
                                           _mm256_and_si256(_mm256_cmpeq_epi16(aHi, bHi), loGe));
        const __m256i q = _mm256_sub_epi16(q0, ge);  // ge is all ones: one more
        return invert ? _mm256_xor_si256(q, c255) : q;
    }
    __attribute__((target("avx2"))) __m128i operator()(__m256i raw) const noexcept {
        const __m256i q = quotients(raw);
        return _mm_packus_epi16(_mm256_castsi256_si128(q), _mm256_extracti128_si256(q, 1));
    }
};

// 12-bit rows: 16 pixels are 24 bytes; the loads read 28, so the last steps
// are left to the plain kernel.
int32_t simd12Pixels(int32_t width) noexcept {
    const int64_t rowBytes = (int64_t(width) * 3 + 1) / 2;
    const int64_t steps = rowBytes >= 28 ? (rowBytes - 28) / 24 + 1 : 0;
    return int32_t(std::min<int64_t>(steps * 16, width / 16 * 16));
}

// One row, 16 pixels a step; the tail goes to the plain kernel. (Non-temporal
// stores into the new bitmap were tried: no gain, the first touch of each
// fresh page costs more than the line fetch they save.)
template <int Bpp, class Pixels>
__attribute__((target("avx2"))) void simdRow(const LevelJob& j, const uint8_t* in, uint8_t* out) noexcept {
    const Pixels px(j);
    const int32_t n = Bpp == 16 ? j.width / 16 * 16 : simd12Pixels(j.width);
    for (int32_t x = 0; x < n; x += 16) {
        const uint8_t* p = in + (Bpp == 16 ? size_t(x) * 2 : size_t(x / 2) * 3);
        _mm_prefetch(reinterpret_cast<const char*>(p + kPrefetchAhead), _MM_HINT_T0);
        const __m256i raw =
            Bpp == 16 ? _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)) : load12x16(p);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), px(raw));
    }
    if (n < j.width) {
        LevelJob tail = j;
        tail.width = j.width - n;
        if (Bpp == 16)
            mapRow16(tail, in + size_t(n) * 2, out + n);
        else
            mapRow12(tail, in + size_t(n / 2) * 3, out + n);
    }
}

bool haveAvx2() noexcept {
    static const bool yes = __builtin_cpu_supports("avx2") && conv::simdCeiling() >= conv::kSimdAvx2;
    return yes;
}

// Gathers from a table in L1/L2 cost less than the line's arithmetic where
// the processor gathers natively (Intel since Haswell measured: 0.89x memcpy
// against 0.77x for the line at 16 bits, 0.83x against 0.53x at 12 bits);
// elsewhere (gathers split into single loads) the line is computed.
bool fastGathers() noexcept {
    static const bool yes = __builtin_cpu_is("intel");
    return yes;
}

// The row kernel of one call: plain table loads without AVX2; with it the
// 16-bit line where the window fits it, else table gathers, or the 32-bit
// computed line for a linear window where gathers are slow.
LevelRowFn pickLevelRow(int32_t bpp, const LinearWindow& w) noexcept {
    const int mode = gKernelMode.load(std::memory_order_relaxed);
    if (mode == 1 || !haveAvx2()) return bpp == 16 ? &mapRow16 : &mapRow12;
    if ((mode == 0 || mode == 4) && fitsLine16(w))
        return bpp == 16 ? &simdRow<16, Line16Pixels> : &simdRow<12, Line16Pixels>;
    const bool linear = w.on && mode != 3 && (mode == 2 || !fastGathers());
    if (bpp == 16) return linear ? &simdRow<16, LinearPixels> : &simdRow<16, GatherPixels>;
    return linear ? &simdRow<12, LinearPixels> : &simdRow<12, GatherPixels>;
}


// Moves every row; storage has been accessed by the caller.
int32_t levelRows(LevelJob& j) {
    const uint32_t inBytes = j.src->nBytesPerLine, outBytes = j.dst->nBytesPerLine;
    if (pixelsAtData(j.src) && pixelsAtData(j.dst)) {
        ParallelOptions opt;
        opt.bytesPerRow = inBytes;
        return parallelRows(
            j.src->nHeight,
            [&](int32_t y0, int32_t y1, int32_t) -> int32_t {
                const size_t pad = outBytes - size_t(j.width);  // the new block is not zero-filled
                for (int32_t y = y0; y < y1; ++y) {
                    uint8_t* out = j.dst->pData + size_t(y) * outBytes;
                    j.fn(j, j.src->pData + size_t(y) * inBytes, out);
                    if (pad) std::memset(out + j.width, 0, pad);
                }
                return KS_SUCCESS;
            },
            opt);
    }
    kvector<uint8_t> in(inBytes), out(outBytes, 0);
    Progress progress = Progress::status(j.src->nHeight);
    int32_t r = progress.begin();
    if (r != KS_SUCCESS) return r;
    for (int32_t y = 0; y < j.src->nHeight; ++y) {
        r = K_GetBitmapRow(j.src, in.data(), y, inBytes);
        if (r < 0) return r;
        j.fn(j, in.data(), out.data());
        r = K_PutBitmapRow(j.dst, out.data(), y, outBytes);
        if (r < 0) return r;
        r = progress.step(int64_t(y) + 1);
        if (r != KS_SUCCESS) return r;
    }
    return KS_SUCCESS;
}

int32_t checkSource(const BITMAPRECORD* src) noexcept {
    int32_t r = checkAllocated(src);
    if (r != KS_SUCCESS) return r;
    if (src->nBitsPerPixel != 12 && src->nBitsPerPixel != 16) return KS_INVALID_BITS_PER_PIXEL;
    if (src->nOrder != ORDER_GRAY) return KS_INVALID_PARAMETER;
    return KS_SUCCESS;
}

// Builds pDst from the source with the sample table `grey` (1 << (hb - lb + 1)
// entries), indexed by the sample bits as stored.
int32_t applyWindow(BITMAPRECORD* src, BITMAPRECORD* dst, uint32_t structSize, const uint8_t* grey, int32_t lb,
                    int32_t hb, const LinearWindow& lin = LinearWindow{}) {
    const uint32_t rawCount = src->nBitsPerPixel == 16 ? 65536u : 4096u;
    kvector<uint8_t> map(rawCount + 3, 0);  // +3: room for the 32-bit gathers
    const uint32_t mask = (uint32_t(1) << (hb - lb + 1)) - 1u;
    for (uint32_t v = 0; v < rawCount; ++v) map[v] = grey[(v >> lb) & mask];

    // Every byte of the new bitmap is written below (rows whole through the
    // row layer, pixels and padding in place), so its block is not zero-filled.
    BITMAPRECORD out;
    setNoZeroFill(true);
    int32_t r = K_CreateBitmap(&out, structSize, MEMTYPE_CONVENTIONAL, src->nWidth, src->nHeight, 8, ORDER_GRAY,
                               nullptr, src->nViewPerspective, nullptr, 0);
    setNoZeroFill(false);
    if (r != KS_SUCCESS) return r;
    out.nXResolution = src->nXResolution;
    out.nYResolution = src->nYResolution;
    int32_t srcAccessed = 0, dstAccessed = 0;
    r = K_IntAccessBitmap(src, &srcAccessed);
    if (r == KS_SUCCESS) r = K_IntAccessBitmap(&out, &dstAccessed);
    if (r == KS_SUCCESS) {
        LevelJob job{src, &out, map.data(), src->nWidth, lin, pickLevelRow(src->nBitsPerPixel, lin)};
        r = levelRows(job);
    }
    r = K_IntReleaseBitmap(&out, dstAccessed, r);
    r = K_IntReleaseBitmap(src, srcAccessed, r);
    if (r != KS_SUCCESS) {
        K_FreeBitmap(&out);
        return r;
    }
    if (dst == src) K_FreeBitmap(src);
    std::memcpy(dst, &out, recordBytes(structSize));
    return KS_SUCCESS;
}

}  // namespace

namespace testhook {
// Makes the window functions use only the plain row kernels (true) or pick
// the fastest again (false), so tests can compare the two.
void windowLevelPlainKernels(bool on) noexcept { gKernelMode.store(on ? 1 : 0, std::memory_order_relaxed); }
void windowLevelKernels(int mode) noexcept { gKernelMode.store(mode, std::memory_order_relaxed); }
}  // namespace testhook

}  // namespace krn

using namespace krn;

KAPI int32_t K_WindowLevelFillLUT(RGBQUAD* pLUT, uint32_t uLUTLength, uint32_t crStart, uint32_t crEnd, int32_t nLow,
                                  int32_t nHigh, int32_t nLowBit, int32_t nHighBit, int32_t nMinValue,
                                  int32_t nMaxValue, int32_t nFactor, uint32_t uFlags) {
    return guarded([&]() -> int32_t {
        if (!pLUT) return KS_INVALID_PARAMETER;
        return fillTable(uLUTLength, split(crStart, 8), split(crEnd, 8), 255, nLow, nHigh, nLowBit, nHighBit,
                         nMinValue, nMaxValue, nFactor, uFlags, [&](size_t i, const Channels& c) {
                             pLUT[i].rgbRed = uint8_t(c.c[0]);
                             pLUT[i].rgbGreen = uint8_t(c.c[1]);
                             pLUT[i].rgbBlue = uint8_t(c.c[2]);
                             pLUT[i].rgbReserved = 0;
                         });
    });
}

KAPI int32_t K_WindowLevelFillLUT2(uint8_t* pLUT, uint32_t uLUTLength, uint32_t uStartGrey, uint32_t uEndGrey,
                                   int32_t nLow, int32_t nHigh, int32_t nLowBit, int32_t nHighBit, int32_t nMinValue,
                                   int32_t nMaxValue, int32_t nFactor, uint32_t uFlags) {
    return guarded([&]() -> int32_t {
        if (!pLUT || uStartGrey > 255 || uEndGrey > 255) return KS_INVALID_PARAMETER;
        return fillTable(uLUTLength, greyChannels(uStartGrey), greyChannels(uEndGrey), 255, nLow, nHigh, nLowBit,
                         nHighBit, nMinValue, nMaxValue, nFactor, uFlags,
                         [&](size_t i, const Channels& c) { pLUT[i] = uint8_t(c.c[0]); });
    });
}

KAPI int32_t K_WindowLevelFillLUTExt(RGBQUAD16* pLUT, uint32_t uLUTLength, uint64_t crStart, uint64_t crEnd,
                                     int32_t nLow, int32_t nHigh, int32_t nLowBit, int32_t nHighBit,
                                     int32_t nMinValue, int32_t nMaxValue, int32_t nFactor, uint32_t uFlags) {
    return guarded([&]() -> int32_t {
        if (!pLUT) return KS_INVALID_PARAMETER;
        return fillTable(uLUTLength, split(crStart, 16), split(crEnd, 16), 65535, nLow, nHigh, nLowBit, nHighBit,
                         nMinValue, nMaxValue, nFactor, uFlags, [&](size_t i, const Channels& c) {
                             pLUT[i].rgbRed = uint16_t(c.c[0]);
                             pLUT[i].rgbGreen = uint16_t(c.c[1]);
                             pLUT[i].rgbBlue = uint16_t(c.c[2]);
                             pLUT[i].rgbReserved = 0;
                         });
    });
}

KAPI int32_t K_WindowLevelFillLUTExt2(uint16_t* pLUT, uint32_t uLUTLength, uint32_t uStartGrey, uint32_t uEndGrey,
                                      int32_t nLow, int32_t nHigh, int32_t nLowBit, int32_t nHighBit,
                                      int32_t nMinValue, int32_t nMaxValue, int32_t nFactor, uint32_t uFlags) {
    return guarded([&]() -> int32_t {
        if (!pLUT || uStartGrey > 65535 || uEndGrey > 65535) return KS_INVALID_PARAMETER;
        return fillTable(uLUTLength, greyChannels(uStartGrey), greyChannels(uEndGrey), 65535, nLow, nHigh, nLowBit,
                         nHighBit, nMinValue, nMaxValue, nFactor, uFlags,
                         [&](size_t i, const Channels& c) { pLUT[i] = uint16_t(c.c[0]); });
    });
}

KAPI int32_t K_WindowLevel(BITMAPRECORD* pSrc, BITMAPRECORD* pDst, uint32_t uStructSize, int32_t nLow,
                           int32_t nHigh, int32_t nFactor, uint32_t uFlags) {
    return guarded([&]() -> int32_t {
        if (!pSrc || !pDst) return KS_INVALID_PARAMETER;
        int32_t r = checkSource(pSrc);
        if (r != KS_SUCCESS) return r;
        if (!recordSizeValid(uStructSize)) return KS_INVALID_STRUCT_SIZE;
        if (uFlags & ~(0xF0u | WLFLAG_SIGNED | WL_INVERT)) return KS_INVALID_PARAMETER;
        if (nLow > nHigh) return KS_INVALID_PARAMETER;
        const int32_t lb = pSrc->nLowBit, hb = pSrc->nHighBit;
        if (lb < 0 || hb >= pSrc->nBitsPerPixel || lb > hb) return KS_INVALID_PARAMETER;
        uint32_t curve = uFlags & 0xF0u;
        if (curve == 0) curve = WLCURVE_LINEAR;
        r = checkFlags(WLFLAG_MODE2 | curve, nFactor);
        if (r != KS_SUCCESS) return r;
        // The window applies to the sample values as given, whatever the
        // sample range: it is not clamped to the table.
        const int bits = hb - lb + 1;
        const uint32_t len = uint32_t(1) << bits;
        const bool invert = (uFlags & WL_INVERT) != 0, sign = (uFlags & WLFLAG_SIGNED) != 0;
        WindowSpec w{};
        w.lo = nLow;
        w.hi = nHigh;
        w.curve = curve;
        w.k = double(nFactor) / 10.0;
        w.top = 255;
        const Channels black{{0, 0, 0}}, white{{255, 255, 255}};
        kvector<uint8_t> grey(len);
        for (uint32_t slot = 0; slot < len; ++slot) {
            const int64_t v = sign && (slot >> (bits - 1)) ? int64_t(slot) - int64_t(len) : int64_t(slot);
            const int64_t g = v < w.lo ? 0 : v > w.hi ? 255 : channelAt(w, v, 0, black, white);
            grey[slot] = uint8_t(invert ? 255 - g : g);
        }
        // A linear window small enough for exact float arithmetic is computed by the row kernel.
        LinearWindow lin;
        lin.on = (curve == WLCURVE_LINEAR || nFactor == 0) && int64_t(nHigh) - nLow >= 1 &&
                 int64_t(nHigh) - nLow <= 65535 && nLow >= -65536 && nLow <= 65536;
        lin.lo = nLow;
        lin.d = int32_t(int64_t(nHigh) - nLow);
        lin.lb = lb;
        lin.hb = hb;
        lin.sign = sign;
        lin.invert = invert;
        return applyWindow(pSrc, pDst, uStructSize, grey.data(), lb, hb, lin);
    });
}

KAPI int32_t K_WindowLevelExt(BITMAPRECORD* pSrc, BITMAPRECORD* pDst, uint32_t uStructSize, const RGBQUAD* pLUT,
                              uint32_t uLUTLength, int32_t nLowBit, int32_t nHighBit, uint32_t uFlags) {
    return guarded([&]() -> int32_t {
        if (!pSrc || !pDst || !pLUT) return KS_INVALID_PARAMETER;
        int32_t r = checkSource(pSrc);
        if (r != KS_SUCCESS) return r;
        if (!recordSizeValid(uStructSize)) return KS_INVALID_STRUCT_SIZE;
        if (uFlags != 0) return KS_INVALID_PARAMETER;
        if (nLowBit < 0 || nHighBit >= pSrc->nBitsPerPixel || nLowBit > nHighBit) return KS_INVALID_PARAMETER;
        const uint32_t len = uint32_t(1) << (nHighBit - nLowBit + 1);
        if (uLUTLength != len) return KS_INVALID_LUT_LENGTH;
        kvector<uint8_t> grey(len);
        for (uint32_t i = 0; i < len; ++i)
            grey[i] = uint8_t((2u * pLUT[i].rgbRed + 5u * pLUT[i].rgbGreen + pLUT[i].rgbBlue + 4u) >> 3);
        return applyWindow(pSrc, pDst, uStructSize, grey.data(), nLowBit, nHighBit);
    });
}
