// combine_rows.cpp - the row kernels of the combine family: one per depth
// class and operation, picked once per call (combine.h).
//
// Depth classes: bitwise plans work on raw bytes at every depth (edges of
// sub-byte and 12-bit spans are masked); arithmetic plans work on bytes (8,
// 24, 32 bits, M = 255), on 16-bit little-endian samples (16-bit grey with
// the image's M, 48 and 64 bits with M = 65535), or unpack the pixels into
// 16-bit samples first (1-7 bits, 12-bit grey, 16-bit 5-5-5 and 5-6-5) and
// pack them back, writing only the pixels of the span.
//
// Operators of an arithmetic plan: inverting complements every bit of a
// sample (the same as complementing the packed bytes); the constant operands
// that only the division operations keep are supplied as the sample values 0
// and M.
//
// SIMD: the same templates are instantiated a second time inside functions
// compiled for AVX2, chosen at run time; the plain instantiation is the
// reference the tests compare against.
#include <immintrin.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "combine.h"
#include "convert_kernels.h"
#include "kernel.h"

namespace krn {
namespace {

// ---------------------------------------------------------------- bitwise
template <int T>
inline uint8_t truthByte(uint8_t s, uint8_t d) {
    uint8_t r = 0;
    if constexpr (T & 1) r |= uint8_t(~s & ~d);
    if constexpr (T & 2) r |= uint8_t(~s & d);
    if constexpr (T & 4) r |= uint8_t(s & ~d);
    if constexpr (T & 8) r |= uint8_t(s & d);
    return r;
}

template <int T>
inline void bitwiseBytes(const uint8_t* __restrict s, uint8_t* __restrict d, size_t n) {
    for (size_t i = 0; i < n; ++i) d[i] = truthByte<T>(s[i], d[i]);
}

// Copies nbits bits from src (starting at bit sBit, most significant first)
// to out starting at bit oBit; out's bits before oBit are zero.
void shiftBits(const uint8_t* src, uint32_t sBit, uint8_t* out, uint32_t oBit, uint64_t nbits) {
    const uint64_t srcBytes = (sBit + nbits + 7) / 8;
    const uint64_t outBytes = (oBit + nbits + 7) / 8;
    for (uint64_t j = 0; j < outBytes; ++j) {
        const int64_t pos = int64_t(8 * j) + int64_t(sBit) - int64_t(oBit);
        uint32_t v;
        if (pos < 0) {
            v = uint32_t(src[0]) >> uint32_t(-pos);
        } else {
            const uint64_t b = uint64_t(pos) >> 3;
            const uint32_t sh = uint32_t(pos) & 7u;
            const uint32_t hi = b < srcBytes ? src[b] : 0u;
            const uint32_t lo = b + 1 < srcBytes ? src[b + 1] : 0u;
            v = ((hi << 8 | lo) >> (8 - sh)) & 0xFFu;
        }
        out[j] = uint8_t(v);
    }
}

// Realigns 12-bit samples so that sample 0 sits at the destination's parity.
void realign12(const uint8_t* src, uint32_t sBit, uint8_t* out, uint32_t oBit, uint32_t n) {
    const uint8_t* sb = src - (sBit ? 1 : 0);
    uint8_t* ob = out;  // out holds one spare byte in front
    const size_t sp = sBit ? 1 : 0, op = oBit ? 1 : 0;
    for (uint32_t k = 0; k < n; ++k) conv::write12(ob, op + k, conv::read12(sb, sp + k));
}

template <int T>
void rowBitwise(const CombinePlan&, const CombineFormat& f, const CombineRowArgs& a) {
    const uint32_t bpp = uint32_t(f.bpp);
    if (bpp % 8 == 0) {
        bitwiseBytes<T>(a.src, a.dst, size_t(a.n) * (bpp / 8));
        return;
    }
    const uint64_t nbits = uint64_t(a.n) * bpp;
    const size_t span = size_t((a.dstBit + nbits + 7) / 8);
    const uint8_t* s = a.src;
    if (a.srcBit != a.dstBit) {
        if (bpp == 12) {
            realign12(a.src, a.srcBit, a.scratch, a.dstBit, a.n);
            s = a.scratch + (a.dstBit ? 1 : 0);
        } else {
            shiftBits(a.src, a.srcBit, a.scratch, a.dstBit, nbits);
            s = a.scratch;
        }
    }
    // Masks of the bits of the span that belong to the n pixels.
    uint8_t firstMask, lastMask;
    const uint64_t endBit = a.dstBit + nbits;
    if (bpp == 12) {
        firstMask = a.dstBit ? 0xF0 : 0xFF;
        lastMask = (endBit % 8) ? 0x0F : 0xFF;
    } else {
        firstMask = uint8_t(0xFFu >> a.dstBit);
        lastMask = (endBit % 8) ? uint8_t(0xFFu << (8 - endBit % 8)) : 0xFF;
    }
    const uint8_t first = a.dst[0], last = a.dst[span - 1];
    bitwiseBytes<T>(s, a.dst, span);
    if (span == 1) firstMask &= lastMask;
    a.dst[0] = uint8_t((first & ~firstMask) | (a.dst[0] & firstMask));
    if (span > 1) a.dst[span - 1] = uint8_t((last & ~lastMask) | (a.dst[span - 1] & lastMask));
}

// ---------------------------------------------------------------- one sample
template <int Code>
inline uint32_t opSample(uint32_t s, uint32_t d, uint32_t m) {
    if constexpr (Code == kRowAdd) return std::min(m, d + s);
    else if constexpr (Code == kRowSubSrc) return d > s ? d - s : 0u;
    else if constexpr (Code == kRowSubDst) return s > d ? s - d : 0u;
    else if constexpr (Code == kRowMul) return d * s / m;
    else if constexpr (Code == kRowDivSrc) return s == 0 ? m : std::min<uint64_t>(m, uint64_t(d) * m / s);
    else if constexpr (Code == kRowDivDst) return d == 0 ? m : std::min<uint64_t>(m, uint64_t(s) * m / d);
    else if constexpr (Code == kRowAvg) return (d + s) >> 1;
    else if constexpr (Code == kRowMin) return std::min(d, s);
    else if constexpr (Code == kRowMax) return std::max(d, s);
    else return s;  // alpha-over of images without alpha: the source
}

constexpr bool isDivision(int code) { return code == kRowDivSrc || code == kRowDivDst; }

// Operand of a sample: a constant (0 or M), or the value with its bits complemented or not.
struct Operand {
    int32_t constant;  // -1: none
    uint32_t x;        // xor mask
    uint32_t get(uint32_t v) const { return constant >= 0 ? uint32_t(constant) : (v ^ x); }
};
inline Operand operandOf(uint8_t op, uint32_t field, uint32_t m) {
    switch (op) {
        case 1: return {-1, field};
        case 2: return {0, 0};
        case 3: return {int32_t(m), 0};
        default: return {-1, 0};
    }
}
inline uint32_t resultXor(const CombinePlan& p, uint32_t field) { return p.resOp == 1 ? field : 0u; }

// ---------------------------------------------------------------- bytes (8, 24, 32)
template <int Code>
inline uint8_t opByte(uint8_t s, uint8_t d) {
    if constexpr (Code == kRowAdd) {
        unsigned t = unsigned(s) + d;
        return uint8_t(t > 255 ? 255 : t);
    } else if constexpr (Code == kRowSubSrc) {
        return uint8_t(d > s ? d - s : 0);
    } else if constexpr (Code == kRowSubDst) {
        return uint8_t(s > d ? s - d : 0);
    } else if constexpr (Code == kRowMul) {
        // floor(x / 255) for x <= 65025
        uint16_t x = uint16_t(uint16_t(s) * uint16_t(d));
        return uint8_t((x + 1 + (x >> 8)) >> 8);
    } else if constexpr (Code == kRowAvg) {
        return uint8_t((unsigned(s) + d) >> 1);
    } else if constexpr (Code == kRowMin) {
        return d < s ? d : s;
    } else if constexpr (Code == kRowMax) {
        return d > s ? d : s;
    } else {
        return s;
    }
}

template <int Code>
inline void bytesLoop(const uint8_t* __restrict s, uint8_t* __restrict d, size_t n, uint8_t sx, uint8_t dx,
                      uint8_t rx) {
    for (size_t i = 0; i < n; ++i) d[i] = uint8_t(opByte<Code>(uint8_t(s[i] ^ sx), uint8_t(d[i] ^ dx)) ^ rx);
}

template <int Code>
void rowBytes(const CombinePlan& p, const CombineFormat& f, const CombineRowArgs& a) {
    const size_t n = size_t(a.n) * size_t(f.bpp / 8);
    const uint8_t rx = uint8_t(resultXor(p, 0xFF));
    if constexpr (isDivision(Code)) {
        const Operand so = operandOf(p.srcOp, 0xFF, 255), dop = operandOf(p.dstOp, 0xFF, 255);
        for (size_t i = 0; i < n; ++i)
            a.dst[i] = uint8_t(opSample<Code>(so.get(a.src[i]), dop.get(a.dst[i]), 255) ^ rx);
    } else {
        bytesLoop<Code>(a.src, a.dst, n, p.srcOp == 1 ? 0xFF : 0, p.dstOp == 1 ? 0xFF : 0, rx);
    }
}

// Alpha over-blending of 8-bit samples: three colour samples, then alpha,
// which stays as it is. The plain kernel divides exactly per sample.
inline void alphaLoop8(const uint8_t* __restrict s, uint8_t* __restrict d, size_t pixels, uint8_t sx, uint8_t dx,
                       uint8_t rx) {
    for (size_t p = 0; p < pixels; ++p) {
        const uint8_t* sp = s + 4 * p;
        uint8_t* dp = d + 4 * p;
        const uint32_t sa = uint8_t(sp[3] ^ sx), da = uint8_t(dp[3] ^ dx);
        const uint32_t wd = (255 - sa) * da;
        const uint32_t w = wd + sa * 255;
        for (int c = 0; c < 3; ++c) {
            const uint32_t sv = uint8_t(sp[c] ^ sx), dv = uint8_t(dp[c] ^ dx);
            dp[c] = uint8_t((w ? (sv * sa * 255 + dv * wd) / w : 0u) ^ rx);
        }
        dp[3] = uint8_t(dp[3] ^ dx ^ rx);
    }
}
void rowAlpha8(const CombinePlan& p, const CombineFormat&, const CombineRowArgs& a) {
    alphaLoop8(a.src, a.dst, a.n, p.srcOp == 1 ? 0xFF : 0, p.dstOp == 1 ? 0xFF : 0, uint8_t(resultXor(p, 0xFF)));
}

// The SIMD kernels: all arithmetic in 32-bit lanes, one pixel per lane.
// Numerator N = 255 S Sa + D (255 - Sa) Da and weight W = 255 Sa + (255 - Sa) Da
// are exact in single precision (N <= 255 W <= 255 * 65025 < 2^24). W is
// shared by the three colour samples, so each pixel takes one approximate
// reciprocal r of W (relative error below 2^-11). For each sample,
// t = N r + 1/2 lies within 0.13 of N / W + 1/2, so q = trunc(t) is
// floor(N / W) or one more; the remainder N - q W is exact (an integer below
// 2^24, one fused multiply-add) and is negative exactly when q is one too
// many. Truncating conversions and a fused operation make the result
// independent of the rounding mode. W = 0 only with N = 0: the weight is
// raised to 1 and gives black. Blocks of opaque source pixels copy the source
// colours; blocks of transparent source pixels over pixels that all have some
// alpha keep the destination (N / W = D exactly there). Source and
// destination are read through local restrict pointers: with the fields of
// the argument block re-read after every store, the loads could not start
// early and the loop ran at half the speed.
constexpr size_t kAlphaPrefetch = 4096;

__attribute__((target("avx2,fma"))) void rowAlpha8Avx2(const CombinePlan& p, const CombineFormat& f,
                                                      const CombineRowArgs& a) {
    const uint8_t sx8 = p.srcOp == 1 ? 0xFF : 0, dx8 = p.dstOp == 1 ? 0xFF : 0, rx8 = uint8_t(resultXor(p, 0xFF));
    const __m256i sx = _mm256_set1_epi8(char(sx8)), dx = _mm256_set1_epi8(char(dx8)), rx = _mm256_set1_epi8(char(rx8));
    const __m256i low = _mm256_set1_epi32(255), alphaMask = _mm256_set1_epi32(int(0xFF000000u));
    // Byte 1 and byte 2 of each pixel into the low byte of its lane.
    const __m256i pick1 = _mm256_setr_epi8(1, -1, -1, -1, 5, -1, -1, -1, 9, -1, -1, -1, 13, -1, -1, -1, 1, -1, -1, -1, 5,
                                           -1, -1, -1, 9, -1, -1, -1, 13, -1, -1, -1);
    const __m256i pick2 = _mm256_setr_epi8(2, -1, -1, -1, 6, -1, -1, -1, 10, -1, -1, -1, 14, -1, -1, -1, 2, -1, -1, -1, 6,
                                           -1, -1, -1, 10, -1, -1, -1, 14, -1, -1, -1);
    const __m256 c255 = _mm256_set1_ps(255.0f), one = _mm256_set1_ps(1.0f), half = _mm256_set1_ps(0.5f);
    const __m256 zero = _mm256_setzero_ps();
    size_t i = 0;
    const size_t n = a.n;
    const uint8_t* __restrict src = a.src;
    uint8_t* __restrict dst = a.dst;
    for (; i + 8 <= n; i += 8) {
        // The loop is long enough per byte that the hardware prefetcher falls behind on two
        // streams: fetch 4 KB ahead (a prefetch never faults, past the row's end included).
        _mm_prefetch(reinterpret_cast<const char*>(src + 4 * i + kAlphaPrefetch), _MM_HINT_T0);
        _mm_prefetch(reinterpret_cast<const char*>(dst + 4 * i + kAlphaPrefetch), _MM_HINT_T0);
        const __m256i ps = _mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 4 * i)), sx);
        const __m256i pd = _mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(dst + 4 * i)), dx);
        __m256i out = _mm256_and_si256(pd, alphaMask);
        if (_mm256_testc_si256(ps, alphaMask)) {  // every Sa = 255
            out = _mm256_or_si256(_mm256_andnot_si256(alphaMask, ps), out);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 4 * i), _mm256_xor_si256(out, rx));
            continue;
        }
        if (_mm256_testz_si256(ps, alphaMask) &&  // every Sa = 0, every Da > 0
            !_mm256_movemask_epi8(_mm256_cmpeq_epi32(out, _mm256_setzero_si256()))) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 4 * i), _mm256_xor_si256(pd, rx));
            continue;
        }
        const __m256 sa = _mm256_cvtepi32_ps(_mm256_srli_epi32(ps, 24));
        const __m256 da = _mm256_cvtepi32_ps(_mm256_srli_epi32(pd, 24));
        const __m256 a1 = _mm256_mul_ps(sa, c255);
        const __m256 wd = _mm256_mul_ps(_mm256_sub_ps(c255, sa), da);
        const __m256 w = _mm256_max_ps(_mm256_add_ps(a1, wd), one);
        const __m256 rw = _mm256_rcp_ps(w);
        for (int c = 0; c < 3; ++c) {
            const __m256i si = c == 0 ? _mm256_and_si256(ps, low) : _mm256_shuffle_epi8(ps, c == 1 ? pick1 : pick2);
            const __m256i di = c == 0 ? _mm256_and_si256(pd, low) : _mm256_shuffle_epi8(pd, c == 1 ? pick1 : pick2);
            const __m256 num = _mm256_fmadd_ps(_mm256_cvtepi32_ps(si), a1, _mm256_mul_ps(_mm256_cvtepi32_ps(di), wd));
            __m256i q = _mm256_cvttps_epi32(_mm256_fmadd_ps(num, rw, half));
            const __m256 rem = _mm256_fnmadd_ps(_mm256_cvtepi32_ps(q), w, num);
            q = _mm256_add_epi32(q, _mm256_castps_si256(_mm256_cmp_ps(rem, zero, _CMP_LT_OQ)));
            out = _mm256_or_si256(out, c == 0 ? q : _mm256_slli_epi32(q, 8 * c));
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 4 * i), _mm256_xor_si256(out, rx));
    }
    if (i < n) {
        CombineRowArgs rest = a;
        rest.src += 4 * i;
        rest.dst += 4 * i;
        rest.n = uint32_t(n - i);
        rowAlpha8(p, f, rest);
    }
}

// ---------------------------------------------------------------- 16-bit samples
inline uint16_t ld16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }
inline void st16(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}

template <int Code>
void rowWords(const CombinePlan& p, const CombineFormat& f, const CombineRowArgs& a) {
    const size_t n = size_t(a.n) * size_t(f.bpp / 16);
    const uint32_t m = f.maxSample;
    const Operand so = operandOf(p.srcOp, 0xFFFF, m), dop = operandOf(p.dstOp, 0xFFFF, m);
    const uint32_t rx = resultXor(p, 0xFFFF);
    if constexpr (Code == kRowMul) {
        if (m == 65535) {
            for (size_t i = 0; i < n; ++i) {
                const uint64_t x = uint64_t(so.get(ld16(a.src + 2 * i))) * dop.get(ld16(a.dst + 2 * i));
                st16(a.dst + 2 * i, uint32_t((x * 0x80008001ull) >> 47) ^ rx);  // floor(x / 65535)
            }
            return;
        }
    }
    for (size_t i = 0; i < n; ++i)
        st16(a.dst + 2 * i, opSample<Code>(so.get(ld16(a.src + 2 * i)), dop.get(ld16(a.dst + 2 * i)), m) ^ rx);
}

void rowAlpha16(const CombinePlan& p, const CombineFormat&, const CombineRowArgs& a) {
    const uint32_t sx = p.srcOp == 1 ? 0xFFFF : 0, dx = p.dstOp == 1 ? 0xFFFF : 0, rx = resultXor(p, 0xFFFF);
    for (uint32_t px = 0; px < a.n; ++px) {
        const uint8_t* sp = a.src + 8 * size_t(px);
        uint8_t* dp = a.dst + 8 * size_t(px);
        const uint64_t sa = ld16(sp + 6) ^ sx, da = ld16(dp + 6) ^ dx;
        const uint64_t aa = da - da * sa / 65535 + sa;
        const uint64_t w = (65535 - sa) * da / 65535;
        for (int c = 0; c < 3; ++c) {
            const uint64_t sv = ld16(sp + 2 * c) ^ sx, dv = ld16(dp + 2 * c) ^ dx;
            const uint64_t v = aa ? (dv * w + sv * sa) / aa : 0;
            st16(dp + 2 * c, uint32_t(v) ^ rx);
        }
        st16(dp + 6, ld16(dp + 6) ^ dx ^ rx);
    }
}

// ---------------------------------------------------------------- unpacked samples
// Samples per pixel and the field masks of each (5-6-5: planar, one plane per channel).
struct Unpacker {
    const CombineFormat& f;
    uint32_t spp() const { return (f.kind == SampleKind::Rgb555 || f.kind == SampleKind::Rgb565) ? 3u : 1u; }

    void unpack(const uint8_t* buf, uint32_t bit, uint32_t n, uint16_t* out) const {
        switch (f.kind) {
            case SampleKind::Bits: {
                const uint32_t bpp = uint32_t(f.bpp), m = (1u << bpp) - 1;
                const uint64_t bytes = (bit + uint64_t(n) * bpp + 7) / 8;
                for (uint32_t k = 0; k < n; ++k) {
                    const uint64_t pos = bit + uint64_t(k) * bpp;
                    const uint64_t b = pos >> 3;
                    const uint32_t w = uint32_t(buf[b]) << 8 | (b + 1 < bytes ? buf[b + 1] : 0u);
                    out[k] = uint16_t((w >> (16 - (pos & 7) - bpp)) & m);
                }
                break;
            }
            case SampleKind::Grey12: {
                const uint8_t* base = buf - (bit ? 1 : 0);
                for (uint32_t k = 0; k < n; ++k) out[k] = uint16_t(conv::read12(base, (bit ? 1 : 0) + k));
                break;
            }
            case SampleKind::Rgb555:
                for (uint32_t k = 0; k < n; ++k) {
                    const uint32_t w = ld16(buf + 2 * size_t(k));
                    out[3 * k] = uint16_t(w & 31);
                    out[3 * k + 1] = uint16_t((w >> 5) & 31);
                    out[3 * k + 2] = uint16_t((w >> 10) & 31);
                }
                break;
            case SampleKind::Rgb565:
                for (uint32_t k = 0; k < n; ++k) {
                    const uint32_t w = ld16(buf + 2 * size_t(k));
                    out[k] = uint16_t(w & 31);
                    out[n + k] = uint16_t((w >> 5) & 63);
                    out[2 * size_t(n) + k] = uint16_t(w >> 11);
                }
                break;
            default: break;
        }
    }
    void pack(uint8_t* buf, uint32_t bit, uint32_t n, const uint16_t* in) const {
        switch (f.kind) {
            case SampleKind::Bits: {
                const uint32_t bpp = uint32_t(f.bpp), m = (1u << bpp) - 1;
                const uint64_t bytes = (bit + uint64_t(n) * bpp + 7) / 8;
                for (uint32_t k = 0; k < n; ++k) {
                    const uint64_t pos = bit + uint64_t(k) * bpp;
                    const uint64_t b = pos >> 3;
                    const uint32_t sh = uint32_t(16 - (pos & 7) - bpp);
                    uint32_t w = uint32_t(buf[b]) << 8 | (b + 1 < bytes ? buf[b + 1] : 0u);
                    w = (w & ~(m << sh)) | (uint32_t(in[k] & m) << sh);
                    buf[b] = uint8_t(w >> 8);
                    if (b + 1 < bytes) buf[b + 1] = uint8_t(w);
                }
                break;
            }
            case SampleKind::Grey12: {
                uint8_t* base = buf - (bit ? 1 : 0);
                for (uint32_t k = 0; k < n; ++k) conv::write12(base, (bit ? 1 : 0) + k, in[k] & 0xFFFu);
                break;
            }
            case SampleKind::Rgb555:
                for (uint32_t k = 0; k < n; ++k)
                    st16(buf + 2 * size_t(k),
                         uint32_t(in[3 * k] & 31) | uint32_t(in[3 * k + 1] & 31) << 5 | uint32_t(in[3 * k + 2] & 31) << 10);
                break;
            case SampleKind::Rgb565:
                for (uint32_t k = 0; k < n; ++k)
                    st16(buf + 2 * size_t(k), uint32_t(in[k] & 31) | uint32_t(in[n + k] & 63) << 5 |
                                                  uint32_t(in[2 * size_t(n) + k] & 31) << 11);
                break;
            default: break;
        }
    }
    uint32_t field() const {
        switch (f.kind) {
            case SampleKind::Bits: return (1u << f.bpp) - 1;
            case SampleKind::Grey12: return 0xFFF;
            default: return 31;
        }
    }
};

template <int Code>
void applyPlane(const CombinePlan& p, const uint16_t* s, uint16_t* d, size_t n, uint32_t m, uint32_t field) {
    const Operand so = operandOf(p.srcOp, field, m), dop = operandOf(p.dstOp, field, m);
    const uint32_t rx = resultXor(p, field);
    for (size_t i = 0; i < n; ++i) d[i] = uint16_t((opSample<Code>(so.get(s[i]), dop.get(d[i]), m) ^ rx) & field);
}

template <int Code>
void rowUnpacked(const CombinePlan& p, const CombineFormat& f, const CombineRowArgs& a) {
    const Unpacker u{f};
    const size_t count = size_t(a.n) * u.spp();
    uint16_t* s = reinterpret_cast<uint16_t*>(a.scratch);
    uint16_t* d = s + count;
    u.unpack(a.src, a.srcBit, a.n, s);
    u.unpack(a.dst, a.dstBit, a.n, d);
    if (f.kind == SampleKind::Rgb565) {
        applyPlane<Code>(p, s, d, a.n, 31, 31);
        applyPlane<Code>(p, s + a.n, d + a.n, a.n, 63, 63);
        applyPlane<Code>(p, s + 2 * size_t(a.n), d + 2 * size_t(a.n), a.n, 31, 31);
    } else {
        applyPlane<Code>(p, s, d, count, f.maxSample, u.field());
    }
    u.pack(a.dst, a.dstBit, a.n, d);
}

// ---------------------------------------------------------------- tables
template <int T>
void rowBitwiseAvx2(const CombinePlan& p, const CombineFormat& f, const CombineRowArgs& a)
    __attribute__((target("avx2"), flatten));
template <int T>
void rowBitwiseAvx2(const CombinePlan& p, const CombineFormat& f, const CombineRowArgs& a) {
    rowBitwise<T>(p, f, a);
}
template <int Code>
void rowBytesAvx2(const CombinePlan& p, const CombineFormat& f, const CombineRowArgs& a)
    __attribute__((target("avx2"), flatten));
template <int Code>
void rowBytesAvx2(const CombinePlan& p, const CombineFormat& f, const CombineRowArgs& a) {
    rowBytes<Code>(p, f, a);
}

template <int... T>
constexpr CombineRowFn bitwiseTable(bool simd, int t, std::integer_sequence<int, T...>) {
    constexpr CombineRowFn plain[] = {&rowBitwise<T>...};
    constexpr CombineRowFn wide[] = {&rowBitwiseAvx2<T>...};
    return simd ? wide[t] : plain[t];
}

template <template <int> class Pick>
CombineRowFn byCode(uint8_t code) {
    switch (code) {
        case kRowAdd: return Pick<kRowAdd>::fn;
        case kRowSubSrc: return Pick<kRowSubSrc>::fn;
        case kRowSubDst: return Pick<kRowSubDst>::fn;
        case kRowMul: return Pick<kRowMul>::fn;
        case kRowDivSrc: return Pick<kRowDivSrc>::fn;
        case kRowDivDst: return Pick<kRowDivDst>::fn;
        case kRowAvg: return Pick<kRowAvg>::fn;
        case kRowMin: return Pick<kRowMin>::fn;
        case kRowMax: return Pick<kRowMax>::fn;
        default: return Pick<kRowAlpha>::fn;  // without alpha: the source
    }
}
template <int C> struct PickBytes { static constexpr CombineRowFn fn = &rowBytes<C>; };
template <int C> struct PickBytesAvx2 { static constexpr CombineRowFn fn = &rowBytesAvx2<C>; };
template <int C> struct PickWords { static constexpr CombineRowFn fn = &rowWords<C>; };
template <int C> struct PickUnpacked { static constexpr CombineRowFn fn = &rowUnpacked<C>; };

// The processor has AVX2 and the OMBRIX_SIMD cap allows it.
bool haveAvx2() noexcept {
    static const bool ok = conv::simdCeiling() >= conv::kSimdAvx2 && __builtin_cpu_supports("avx2");
    return ok;
}

}  // namespace

CombineRowFn pickCombineRow(const CombinePlan& plan, const CombineFormat& fmt, bool simd) noexcept {
    const bool wide = simd && haveAvx2();
    if (plan.bitwise()) return bitwiseTable(wide, plan.truth(), std::make_integer_sequence<int, 16>{});
    const uint8_t code = plan.rowCode();
    switch (fmt.kind) {
        case SampleKind::Bytes:
            if (code == kRowAlpha && fmt.alpha) {
                const CombineRowFn fast = wide ? alphaOver8Kernel(1) : nullptr;
                return fast ? fast : &rowAlpha8;
            }
            return wide ? byCode<PickBytesAvx2>(code) : byCode<PickBytes>(code);
        case SampleKind::Words:
            if (code == kRowAlpha && fmt.alpha) return &rowAlpha16;
            return byCode<PickWords>(code);
        default:
            return byCode<PickUnpacked>(code);
    }
}

CombineRowFn alphaOver8Kernel(int level) noexcept {
    if (level == 0) return &rowAlpha8;
    if (level == 1 && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return &rowAlpha8Avx2;
    return nullptr;
}

size_t combineScratchBytes(uint64_t n, int32_t) noexcept {
    if (n > (uint64_t(1) << 40)) return 0;
    return size_t(16 * n + 64);
}

}  // namespace krn
