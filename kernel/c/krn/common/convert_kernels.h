// convert_kernels.h - row kernels of the buffer converter.
//
// The generic path decodes a chunk of source pixels into a pivot array and
// encodes the pivot into the destination format; one decoder per source
// format and one encoder per (destination format, pivot kind) are chosen
// once per call from constant tables, so the loops carry no format tests.
// Direct kernels for the common pairs (convert_simd.cpp) bypass the pivot.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "ombrix.h"

namespace krn::conv {

// A page ahead of a forward step that reads [s, s + n): one prefetch per 64
// bytes, into the first cache level. The hardware prefetchers stop at page
// ends; this keeps a stream going. A prefetch never faults, so reaching past
// the data is safe (addresses as integers).
inline void prefetchPage(const uint8_t* s, size_t n) noexcept {
    const uintptr_t a = reinterpret_cast<uintptr_t>(s) + 4096;
    for (size_t o = 0; o < n; o += 64) __builtin_prefetch(reinterpret_cast<const char*>(a + o), 0, 3);
}

// One pixel between decoder and encoder. Colour pivots carry 16-bit samples
// (8-bit sources widened by 257), an alpha and the palette index of a
// palette source (-1 otherwise); grey pivots carry the window value `v`.
struct Px {
    uint16_t r, g, b, a;
    uint32_t v;
    int32_t idx;
};

enum class Kind : uint8_t { Colour = 0, Grey = 1 };

// Nearest-index answers remembered within one call (direct mapped).
struct IndexCache {
    static constexpr unsigned kSlots = 1024;
    uint32_t key[kSlots];  // colour + 1, 0 = empty
    uint8_t val[kSlots];
};

// An exact nearest-entry answer for one known palette (the same index as
// K_FindPaletteIndex over it), chosen once per call.
using ExactIndexFn = int32_t (*)(int r, int g, int b) noexcept;

struct Ctx {
    const RGBQUAD* palSrc = nullptr;
    const RGBQUAD* palDst = nullptr;
    int32_t palDstN = 0;
    const uint32_t* tree = nullptr;
    IndexCache* cache = nullptr;
    ExactIndexFn exact = nullptr;  // when set, answers in place of the cache and the search
    int sLo = 0, sN = 8;  // source grey window: low bit, width
    int dLo = 0, dN = 8;  // destination grey window
    bool crIndex = false;
    uint8_t crR = 0, crG = 0, crB = 0, crI = 0;
};

using DecodeFn = void (*)(const uint8_t* buf, size_t first, size_t n, Px* out, const Ctx& c);
using EncodeFn = void (*)(uint8_t* buf, size_t first, size_t n, const Px* in, Ctx& c);
// A whole-row direct kernel (walks in the safe direction itself).
using RowFn = void (*)(uint8_t* buf, size_t width);

inline uint16_t ld16(const uint8_t* p) noexcept { return uint16_t(p[0] | (p[1] << 8)); }
inline uint32_t ld32(const uint8_t* p) noexcept {
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline void st16(uint8_t* p, uint32_t v) noexcept {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}
inline void st32(uint8_t* p, uint32_t v) noexcept {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    p[2] = uint8_t(v >> 16);
    p[3] = uint8_t(v >> 24);
}

// Packed indices, most significant bit first, continued across bytes.
template <int B>
inline uint32_t readBits(const uint8_t* p, size_t i) noexcept {
    constexpr uint32_t mask = (1u << B) - 1u;
    if constexpr (B == 8) {
        return p[i];
    } else {
        size_t bit = i * B;
        const uint8_t* q = p + (bit >> 3);
        unsigned o = unsigned(bit & 7u);
        if constexpr (8 % B == 0) {
            return (q[0] >> (8 - o - B)) & mask;
        } else {
            if (o + B <= 8) return (q[0] >> (8 - o - B)) & mask;
            unsigned w = (unsigned(q[0]) << 8) | q[1];
            return (w >> (16 - o - B)) & mask;
        }
    }
}
template <int B>
inline void writeBits(uint8_t* p, size_t i, uint32_t v) noexcept {
    constexpr uint32_t mask = (1u << B) - 1u;
    if constexpr (B == 8) {
        p[i] = uint8_t(v);
    } else {
        size_t bit = i * B;
        uint8_t* q = p + (bit >> 3);
        unsigned o = unsigned(bit & 7u);
        if constexpr (8 % B == 0) {
            unsigned s = 8 - o - B;
            q[0] = uint8_t((q[0] & ~(mask << s)) | ((v & mask) << s));
        } else {
            if (o + B <= 8) {
                unsigned s = 8 - o - B;
                q[0] = uint8_t((q[0] & ~(mask << s)) | ((v & mask) << s));
            } else {
                unsigned s = 16 - o - B;
                unsigned w = (unsigned(q[0]) << 8) | q[1];
                w = (w & ~(mask << s)) | ((v & mask) << s);
                q[0] = uint8_t(w >> 8);
                q[1] = uint8_t(w);
            }
        }
    }
}

// 12-bit grey: two pixels in three bytes sharing the middle byte.
inline uint32_t read12(const uint8_t* p, size_t i) noexcept {
    const uint8_t* q = p + (i >> 1) * 3;
    if (i & 1) return (uint32_t(q[1]) >> 4) | (uint32_t(q[2]) << 4);
    return uint32_t(q[0]) | ((uint32_t(q[1]) & 0x0Fu) << 8);
}
inline void write12(uint8_t* p, size_t i, uint32_t v) noexcept {
    uint8_t* q = p + (i >> 1) * 3;
    if (i & 1) {
        q[1] = uint8_t((q[1] & 0x0Fu) | ((v & 0x0Fu) << 4));
        q[2] = uint8_t(v >> 4);
    } else {
        q[0] = uint8_t(v);
        q[1] = uint8_t((q[1] & 0xF0u) | ((v >> 8) & 0x0Fu));
    }
}

// Direct kernels: plain versions always exist; SIMD versions are chosen at
// run time. `pick` returns null when the pair has no direct kernel.
struct DirectKey {
    int srcBits, srcOrder, dstBits, dstOrder;  // orders 0 RGB, 1 BGR, 2 grey, 7 5-6-5
};
constexpr int kSimdNone = 0, kSimdSsse3 = 1, kSimdAvx2 = 2, kSimdAvx512 = 3;  // AVX-512 with VBMI
// The kernel for the pair using instruction sets up to maxLevel that the
// processor has.
RowFn pickDirect(const DirectKey& k, int maxLevel) noexcept;
// The highest level the converter uses: kSimdAvx512, or the ceiling set by
// the environment variable OMBRIX_SIMD ("none", "ssse3", "avx2") when the
// process started, to compare or rule out the wider kernels.
int simdCeiling() noexcept;

}  // namespace krn::conv
