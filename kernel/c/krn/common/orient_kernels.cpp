// orient_kernels.cpp - row and block kernels of the orientation family:
// mirror one packed row, swap two rows, quarter-turn one pixel block.
//
// Each kernel has a plain form written for clarity (per pixel or per byte)
// and a fast form picked once per process (byte tables, 8x8 bit transposes,
// cache-blocked SIMD transposes); the tests compare the two on every depth.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "convert_kernels.h"
#include "rotate.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define OMBRIX_ORIENT_X86 1
#define OMBRIX_SSSE3 __attribute__((target("ssse3")))
#define OMBRIX_AVX2 __attribute__((target("avx2")))
#endif

namespace krn {
#ifdef OMBRIX_ORIENT_X86
OMBRIX_SSSE3 void mirrorBytes1Ssse3(uint8_t* row, size_t n) noexcept;
#endif
namespace {

// ---------------------------------------------------------------- bit helpers
// 12-bit grey packs two pixels in three bytes: the even pixel is the low 12
// bits of the little-endian word at the pair's first byte, the odd one the
// high 12 bits of the word one byte on.
inline uint32_t get12(const uint8_t* row, uint64_t x) noexcept {
    const uint8_t* p = row + (x >> 1) * 3 + (x & 1);
    const uint32_t word = uint32_t(p[0]) | uint32_t(p[1]) << 8;
    return (x & 1) ? word >> 4 : word & 0xFFFu;
}
inline void set12(uint8_t* row, uint64_t x, uint32_t value) noexcept {
    uint8_t* p = row + (x >> 1) * 3 + (x & 1);
    uint32_t word = uint32_t(p[0]) | uint32_t(p[1]) << 8;
    word = (x & 1) ? (word & 0x000Fu) | (value & 0xFFFu) << 4 : (word & 0xF000u) | (value & 0xFFFu);
    p[0] = uint8_t(word);
    p[1] = uint8_t(word >> 8);
}

// Pixel x of a packed row, depths up to 16 bits; reads only the bytes that hold it.
inline uint32_t getBits(const uint8_t* row, uint64_t x, int32_t bpp) noexcept {
    if (bpp == 12) return get12(row, x);
    const uint64_t bit = x * uint64_t(bpp);
    const uint8_t* p = row + (bit >> 3);
    const uint32_t sh = uint32_t(bit & 7);
    const uint32_t bytes = (sh + uint32_t(bpp) + 7) / 8;
    uint32_t v = 0;
    for (uint32_t i = 0; i < bytes; ++i) v = (v << 8) | p[i];
    return (v >> (bytes * 8 - sh - uint32_t(bpp))) & ((1u << bpp) - 1u);
}
inline void setBits(uint8_t* row, uint64_t x, int32_t bpp, uint32_t value) noexcept {
    if (bpp == 12) {
        set12(row, x, value);
        return;
    }
    const uint64_t bit = x * uint64_t(bpp);
    uint8_t* p = row + (bit >> 3);
    const uint32_t sh = uint32_t(bit & 7);
    const uint32_t bytes = (sh + uint32_t(bpp) + 7) / 8;
    uint32_t v = 0;
    for (uint32_t i = 0; i < bytes; ++i) v = (v << 8) | p[i];
    const uint32_t shift = bytes * 8 - sh - uint32_t(bpp);
    const uint32_t mask = ((1u << bpp) - 1u) << shift;
    v = (v & ~mask) | ((value << shift) & mask);
    for (uint32_t i = bytes; i-- > 0;) {
        p[i] = uint8_t(v);
        v >>= 8;
    }
}

// ---------------------------------------------------------------- mirror tables
struct MirrorTables {
    uint8_t bits1[256], bits2[256], bits4[256];
    MirrorTables() noexcept {
        for (uint32_t v = 0; v < 256; ++v) {
            uint32_t r1 = 0, r2 = 0;
            for (int i = 0; i < 8; ++i) r1 |= ((v >> i) & 1u) << (7 - i);
            for (int i = 0; i < 4; ++i) r2 |= ((v >> (2 * i)) & 3u) << (6 - 2 * i);
            bits1[v] = uint8_t(r1);
            bits2[v] = uint8_t(r2);
            bits4[v] = uint8_t(((v & 0x0F) << 4) | (v >> 4));
        }
    }
};
const MirrorTables& tables() noexcept {
    static const MirrorTables t;
    return t;
}

// Whole pixels of B bytes, swapped from both ends.
template <int B>
void mirrorBytes(uint8_t* row, uint32_t pixels) noexcept {
    uint8_t* a = row;
    uint8_t* b = row + size_t(pixels) * B - B;
    while (a < b) {
        uint8_t t[B];
        std::memcpy(t, a, B);
        std::memcpy(a, b, B);
        std::memcpy(b, t, B);
        a += B;
        b -= B;
    }
}

int simdLevel() noexcept;

// 1, 2 and 4 bits: bytes reversed through a table, then the row shifted left
// by the bits that were padding at the end; the trailing bits of the last
// byte are put back.
void mirrorSubByte(uint8_t* row, uint32_t pixels, int32_t bpp, bool simd) noexcept {
    const uint64_t bits = uint64_t(pixels) * uint64_t(bpp);
    const size_t n = size_t((bits + 7) / 8);
    const uint32_t pad = uint32_t(n * 8 - bits);
    const uint8_t keepMask = uint8_t((1u << pad) - 1u);
    const uint8_t tail = uint8_t(row[n - 1] & keepMask);
    const uint8_t* tab = bpp == 1 ? tables().bits1 : bpp == 2 ? tables().bits2 : tables().bits4;
#ifdef OMBRIX_ORIENT_X86
    if (simd && bpp == 1) {
        mirrorBytes1Ssse3(row, n);
    } else
#endif
    {
        (void)simd;
        uint8_t* a = row;
        uint8_t* b = row + n - 1;
        while (a < b) {
            const uint8_t t = tab[*a];
            *a++ = tab[*b];
            *b-- = t;
        }
        if (a == b) *a = tab[*a];
    }
    if (pad) {
        // The row shifted left by `pad` bits, eight bytes at a time.
        size_t i = 0;
        for (; i + 9 <= n; i += 8) {
            uint64_t v;
            std::memcpy(&v, row + i, 8);
            v = __builtin_bswap64(v);
            v = (v << pad) | (row[i + 8] >> (8 - pad));
            v = __builtin_bswap64(v);
            std::memcpy(row + i, &v, 8);
        }
        for (; i + 1 < n; ++i) row[i] = uint8_t((row[i] << pad) | (row[i + 1] >> (8 - pad)));
        row[n - 1] = uint8_t(row[n - 1] << pad);
    }
    row[n - 1] = uint8_t((row[n - 1] & ~keepMask) | tail);
}

// Any depth below 16 bits, one pixel pair at a time.
void mirrorGeneric(uint8_t* row, uint32_t pixels, int32_t bpp) noexcept {
    for (uint64_t i = 0, j = pixels - 1; i < j; ++i, --j) {
        const uint32_t a = getBits(row, i, bpp), b = getBits(row, j, bpp);
        setBits(row, i, bpp, b);
        setBits(row, j, bpp, a);
    }
}

void mirrorDispatch(uint8_t* row, uint32_t pixels, int32_t bpp, bool fast) noexcept {
    if (pixels < 2) return;
    switch (bpp) {
        case 1: case 2: case 4:
            if (fast) mirrorSubByte(row, pixels, bpp, simdLevel() >= 1);
            else mirrorGeneric(row, pixels, bpp);
            return;
        case 8: mirrorBytes<1>(row, pixels); return;
        case 16: mirrorBytes<2>(row, pixels); return;
        case 24: mirrorBytes<3>(row, pixels); return;
        case 32: mirrorBytes<4>(row, pixels); return;
        case 48: mirrorBytes<6>(row, pixels); return;
        case 64: mirrorBytes<8>(row, pixels); return;
        default:
            if ((bpp >= 1 && bpp <= 7) || bpp == 12) mirrorGeneric(row, pixels, bpp);
            return;
    }
}

// ---------------------------------------------------------------- SIMD mirror
#ifdef OMBRIX_ORIENT_X86
OMBRIX_SSSE3 void mirror8Ssse3(uint8_t* row, uint32_t pixels) noexcept {
    const __m128i rev = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    uint8_t* a = row;
    uint8_t* b = row + pixels;
    while (b - a >= 32) {
        b -= 16;
        __m128i x = _mm_loadu_si128(reinterpret_cast<__m128i*>(a));
        __m128i y = _mm_loadu_si128(reinterpret_cast<__m128i*>(b));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(a), _mm_shuffle_epi8(y, rev));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(b), _mm_shuffle_epi8(x, rev));
        a += 16;
    }
    mirrorBytes<1>(a, uint32_t(b - a));
}
OMBRIX_AVX2 void mirror8Avx2(uint8_t* row, uint32_t pixels) noexcept {
    const __m256i rev = _mm256_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0,  //
                                         15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    uint8_t* a = row;
    uint8_t* b = row + pixels;
    while (b - a >= 64) {
        b -= 32;
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<__m256i*>(a));
        const __m256i y = _mm256_loadu_si256(reinterpret_cast<__m256i*>(b));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(a), _mm256_permute4x64_epi64(_mm256_shuffle_epi8(y, rev), 0x4E));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(b), _mm256_permute4x64_epi64(_mm256_shuffle_epi8(x, rev), 0x4E));
        a += 32;
    }
    mirror8Ssse3(a, uint32_t(b - a));
}
OMBRIX_SSSE3 void mirror32Ssse3(uint8_t* row, uint32_t pixels) noexcept {
    uint8_t* a = row;
    uint8_t* b = row + size_t(pixels) * 4;
    while (b - a >= 64) {
        b -= 16;
        __m128i x = _mm_loadu_si128(reinterpret_cast<__m128i*>(a));
        __m128i y = _mm_loadu_si128(reinterpret_cast<__m128i*>(b));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(a), _mm_shuffle_epi32(y, 0x1B));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(b), _mm_shuffle_epi32(x, 0x1B));
        a += 16;
    }
    mirrorBytes<4>(a, uint32_t((b - a) / 4));
}
// 24 bits: 16 pixels (48 bytes, three registers) from each end per step.
// Output register k takes bytes from at most two input registers.
struct Mirror24Masks {
    __m128i m[3][3];  // m[out][in]: pshufb mask taking bytes of input `in` into output `out`
    Mirror24Masks() noexcept {
        for (int o = 0; o < 3; ++o)
            for (int i = 0; i < 3; ++i) {
                alignas(16) int8_t v[16];
                for (int k = 0; k < 16; ++k) {
                    const int outByte = o * 16 + k;
                    const int px = outByte / 3, comp = outByte % 3;
                    const int inByte = (15 - px) * 3 + comp;
                    v[k] = (inByte / 16 == i) ? int8_t(inByte % 16) : int8_t(-128);
                }
                m[o][i] = _mm_load_si128(reinterpret_cast<const __m128i*>(v));
            }
    }
};
const Mirror24Masks& masks24() noexcept {
    static const Mirror24Masks m;
    return m;
}
OMBRIX_SSSE3 inline void rev48(const __m128i in[3], __m128i out[3], const Mirror24Masks& mk) noexcept {
    for (int o = 0; o < 3; ++o)
        out[o] = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(in[0], mk.m[o][0]), _mm_shuffle_epi8(in[1], mk.m[o][1])),
                              _mm_shuffle_epi8(in[2], mk.m[o][2]));
}
OMBRIX_SSSE3 void mirror24Ssse3(uint8_t* row, uint32_t pixels) noexcept {
    const Mirror24Masks& mk = masks24();
    uint8_t* a = row;
    uint8_t* b = row + size_t(pixels) * 3;
    while (b - a >= 96) {
        b -= 48;
        __m128i x[3], y[3], rx[3], ry[3];
        for (int k = 0; k < 3; ++k) {
            x[k] = _mm_loadu_si128(reinterpret_cast<__m128i*>(a + 16 * k));
            y[k] = _mm_loadu_si128(reinterpret_cast<__m128i*>(b + 16 * k));
        }
        rev48(x, rx, mk);
        rev48(y, ry, mk);
        for (int k = 0; k < 3; ++k) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(a + 16 * k), ry[k]);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(b + 16 * k), rx[k]);
        }
        a += 48;
    }
    mirrorBytes<3>(a, uint32_t((b - a) / 3));
}
#endif

std::atomic<int> g_simd{-1};  // -1 unknown, 0 plain, 1 SSSE3, 2 AVX2

// The best level the processor has.
int simdHardware() noexcept {
    static const int level = [] {
        int l = 0;
#ifdef OMBRIX_ORIENT_X86
        if (__builtin_cpu_supports("ssse3")) l = 1;
        if (l && __builtin_cpu_supports("avx2")) l = 2;
#endif
        return l;
    }();
    return level;
}

// The level in use: the processor's, capped by OMBRIX_SIMD as for the converter.
int simdLevel() noexcept {
    int v = g_simd.load(std::memory_order_relaxed);
    if (v >= 0) return v;
    const int ceiling = conv::simdCeiling();
    v = std::min(simdHardware(), ceiling >= conv::kSimdAvx2 ? 2 : ceiling >= conv::kSimdSsse3 ? 1 : 0);
    g_simd.store(v, std::memory_order_relaxed);
    return v;
}

// ---------------------------------------------------------------- block turns
// Byte depths: cache-sized tiles, whole pixels moved.
template <int B>
void turnBytes(const uint8_t* src, size_t ss, uint8_t* dst, size_t ds, uint32_t w, uint32_t h, bool revY,
               bool revX) noexcept {
    constexpr uint32_t T = B <= 2 ? 32 : 16;
    for (uint32_t y0 = 0; y0 < h; y0 += T) {
        const uint32_t y1 = std::min(h, y0 + T);
        for (uint32_t x0 = 0; x0 < w; x0 += T) {
            const uint32_t x1 = std::min(w, x0 + T);
            for (uint32_t x = x0; x < x1; ++x) {
                uint8_t* d = dst + size_t(revX ? w - 1 - x : x) * ds;
                const uint8_t* s = src + size_t(x) * B;
                for (uint32_t y = y0; y < y1; ++y) {
                    const uint32_t c = revY ? h - 1 - y : y;
                    std::memcpy(d + size_t(c) * B, s + size_t(y) * ss, B);
                }
            }
        }
    }
}

// Any depth below 16 bits, per pixel.
void turnGeneric(const uint8_t* src, size_t ss, uint8_t* dst, size_t ds, uint32_t w, uint32_t h, int32_t bpp,
                 bool revY, bool revX) noexcept {
    const size_t outBytes = size_t((uint64_t(h) * uint64_t(bpp) + 7) / 8);
    for (uint32_t r = 0; r < w; ++r) {
        uint8_t* d = dst + size_t(r) * ds;
        std::memset(d, 0, outBytes);
        for (uint32_t c = 0; c < h; ++c) {
            const uint32_t v = getBits(src + size_t(revY ? h - 1 - c : c) * ss, revX ? w - 1 - r : r, bpp);
            setBits(d, c, bpp, v);
        }
    }
}

// 8x8 bit matrix (row i = byte 7-i of x, column j = bit 7-j) transposed.
inline uint64_t transpose8(uint64_t x) noexcept {
    uint64_t t;
    t = (x ^ (x >> 7)) & 0x00AA00AA00AA00AAull;
    x = x ^ t ^ (t << 7);
    t = (x ^ (x >> 14)) & 0x0000CCCC0000CCCCull;
    x = x ^ t ^ (t << 14);
    t = (x ^ (x >> 28)) & 0x00000000F0F0F0F0ull;
    x = x ^ t ^ (t << 28);
    return x;
}

// Eight source bits starting at bit s of a row (s may be negative: zeros in front).
inline uint8_t bits8At(const uint8_t* row, int64_t s) noexcept {
    if (s >= 0) {
        const uint8_t* p = row + (s >> 3);
        const uint32_t sh = uint32_t(s & 7);
        if (!sh) return p[0];
        return uint8_t((p[0] << sh) | (p[1] >> (8 - sh)));
    }
    if (s <= -8) return 0;
    return uint8_t(row[0] >> (-s));
}

// 1 bit: 8x8 tiles through transpose8.
void turn1(const uint8_t* src, size_t ss, uint8_t* dst, size_t ds, uint32_t w, uint32_t h, bool revY,
           bool revX) noexcept {
    const uint32_t outBytes = (h + 7) / 8;
    for (uint32_t cb = 0; cb < outBytes; ++cb) {  // destination byte column: 8 destination columns
        const uint32_t c0 = cb * 8;
        const uint32_t last = std::min<uint32_t>(8, h - c0);
        const uint8_t* rows[8];
        for (uint32_t k = 0; k < 8; ++k) {
            const uint32_t c = c0 + k;
            rows[k] = k < last ? src + size_t(revY ? h - 1 - c : c) * ss : nullptr;
        }
        for (uint32_t r0 = 0; r0 < w; r0 += 8) {
            uint64_t x = 0;
            if (!revX) {
                const size_t byte = r0 / 8;
                for (uint32_t k = 0; k < 8; ++k) x = (x << 8) | (rows[k] ? rows[k][byte] : 0u);
            } else {
                const int64_t s = int64_t(w) - 8 - int64_t(r0);
                for (uint32_t k = 0; k < 8; ++k) {
                    uint8_t v = rows[k] ? bits8At(rows[k], s) : 0;
                    x = (x << 8) | tables().bits1[v];
                }
            }
            x = transpose8(x);
            const uint32_t n = std::min<uint32_t>(8, w - r0);
            for (uint32_t j = 0; j < n; ++j) dst[size_t(r0 + j) * ds + cb] = uint8_t(x >> (56 - 8 * j));
        }
    }
    // Bits past the block's last pixel were taken from zero rows: nothing to clear.
}

#ifdef OMBRIX_ORIENT_X86
// The vector kernels share one walk: the source in bands of TY rows and,
// along a band, tiles of TX columns, so that a tile's source lines and its
// destination lines (whole cache lines: TY*B bytes of each destination row)
// stay in the first-level cache while the tile is transposed. The next
// tile's source lines and destination lines are prefetched before the
// current tile starts: a band reads TY source rows side by side, more
// streams than the hardware prefetcher follows.
// Into the second-level cache: prefetches to the first level hold its few
// fill buffers that the tile's own misses need (measured: the 8-bit turn
// runs about a fifth faster with the second-level hint).
inline void prefetchSpan(const uint8_t* p, size_t bytes) noexcept {
    for (size_t o = 0; o < bytes; o += 64) _mm_prefetch(reinterpret_cast<const char*>(p + o), _MM_HINT_T1);
    _mm_prefetch(reinterpret_cast<const char*>(p + bytes - 1), _MM_HINT_T1);
}

struct TileGeom {
    const uint8_t* src;
    size_t ss;
    uint8_t* dst;
    size_t ds;
    uint32_t w, h;
    bool revY, revX;
};

// Prefetches the tile of source rows [y0, y1) and columns [x0, x1).
template <int B>
inline void prefetchTile(const TileGeom& g, uint32_t x0, uint32_t x1, uint32_t y0, uint32_t y1) noexcept {
    const size_t sb = size_t(x1 - x0) * B, db = size_t(y1 - y0) * B;
    const uint8_t* s = g.src + size_t(y0) * g.ss + size_t(x0) * B;
    for (uint32_t y = y0; y < y1; ++y, s += g.ss) prefetchSpan(s, sb);
    const size_t col = size_t(g.revY ? g.h - y1 : y0) * B;
    for (uint32_t x = x0; x < x1; ++x) prefetchSpan(g.dst + size_t(g.revX ? g.w - 1 - x : x) * g.ds + col, db);
}

// The walk over the vector part [0, wv) x [0, hv) in micro blocks of MX x MY
// pixels (K::run); stamped out once per instruction set so that the micro
// kernel inlines.
//
// Two orders: bands of TY source rows walked along x (8 and 24 bits: a band
// of source rows is read once, in full lines), or strips of TX source
// columns walked down y (32 bits: a strip's TX destination rows are written
// front to back, which the hardware follows as TX store streams).
#define OMBRIX_TILE_WALK(NAME, ATTR)                                                                      \
    template <int B, uint32_t MX, uint32_t MY, uint32_t TX, uint32_t TY, bool Strips, class K>            \
    ATTR void NAME(const TileGeom& g, uint32_t wv, uint32_t hv) noexcept {                                \
        if (Strips) {                                                                                     \
            for (uint32_t x0 = 0; x0 < wv; x0 += TX) {                                                    \
                const uint32_t x1 = std::min(wv, x0 + TX);                                                \
                for (uint32_t y0 = 0; y0 < hv; y0 += TY) {                                                \
                    const uint32_t y1 = std::min(hv, y0 + TY);                                            \
                    if (y1 < hv) prefetchTile<B>(g, x0, x1, y1, std::min(hv, y1 + TY));                   \
                    for (uint32_t y = y0; y < y1; y += MY)                                                \
                        for (uint32_t x = x0; x < x1; x += MX) K::run(g, x, y);                           \
                }                                                                                         \
            }                                                                                             \
            return;                                                                                       \
        }                                                                                                 \
        for (uint32_t y0 = 0; y0 < hv; y0 += TY) {                                                        \
            const uint32_t y1 = std::min(hv, y0 + TY);                                                    \
            for (uint32_t x0 = 0; x0 < wv; x0 += TX) {                                                    \
                const uint32_t x1 = std::min(wv, x0 + TX);                                                \
                if (x1 < wv) prefetchTile<B>(g, x1, std::min(wv, x1 + TX), y0, y1);                       \
                else if (y1 < hv) prefetchTile<B>(g, 0, std::min(wv, TX), y1, std::min(hv, y1 + TY));     \
                for (uint32_t y = y0; y < y1; y += MY)                                                    \
                    for (uint32_t x = x0; x < x1; x += MX) K::run(g, x, y);                               \
            }                                                                                             \
        }                                                                                                 \
    }
OMBRIX_TILE_WALK(tileWalkSsse3, OMBRIX_SSSE3)
OMBRIX_TILE_WALK(tileWalkAvx2, OMBRIX_AVX2)
#undef OMBRIX_TILE_WALK

// Scalar pixels of B bytes for the parts the vector loops leave.
template <int B>
void turnEdge(const TileGeom& g, uint32_t xa, uint32_t xb, uint32_t ya, uint32_t yb) noexcept {
    for (uint32_t y = ya; y < yb; ++y)
        for (uint32_t x = xa; x < xb; ++x)
            std::memcpy(g.dst + size_t(g.revX ? g.w - 1 - x : x) * g.ds + size_t(g.revY ? g.h - 1 - y : y) * B,
                        g.src + size_t(y) * g.ss + size_t(x) * B, B);
}
template <int B>
void turnEdges(const TileGeom& g, uint32_t wv, uint32_t hv) noexcept {
    turnEdge<B>(g, wv, g.w, 0, g.h);
    turnEdge<B>(g, 0, wv, hv, g.h);
}

// Destination of the micro block whose source corner is (x, y), M pixels a
// side: the row of source column x and the first byte of the block's column.
template <int B, uint32_t M>
inline uint8_t* blockDst(const TileGeom& g, uint32_t x, uint32_t y) noexcept {
    return g.dst + size_t(g.revX ? g.w - 1 - x : x) * g.ds + size_t(g.revY ? g.h - M - y : y) * B;
}

// Columns a vector load of `bytes` bytes may start at: x*B + bytes <= w*B.
template <int B, uint32_t M>
inline uint32_t vectorWidth(uint32_t w, uint32_t loadBytes) noexcept {
    const uint64_t rowBytes = uint64_t(w) * B;
    if (rowBytes < loadBytes) return 0;
    const uint64_t limit = std::min<uint64_t>(w, (rowBytes - loadBytes) / B + M);
    return uint32_t(limit / M * M);
}

// 4x4 dwords: rows r0..r3 in, columns c0..c3 out.
OMBRIX_SSSE3 inline void transpose4(__m128i& r0, __m128i& r1, __m128i& r2, __m128i& r3) noexcept {
    const __m128i t0 = _mm_unpacklo_epi32(r0, r1), t1 = _mm_unpacklo_epi32(r2, r3);
    const __m128i t2 = _mm_unpackhi_epi32(r0, r1), t3 = _mm_unpackhi_epi32(r2, r3);
    r0 = _mm_unpacklo_epi64(t0, t1);
    r1 = _mm_unpackhi_epi64(t0, t1);
    r2 = _mm_unpacklo_epi64(t2, t3);
    r3 = _mm_unpackhi_epi64(t2, t3);
}

// SSSE3, 4x4 pixels of 4 bytes (B 4) or of 3 bytes widened to dwords in
// registers and narrowed again (B 3; each load reads 16 bytes).
template <int B>
struct Dwords4Ssse3 {
    OMBRIX_SSSE3 __attribute__((always_inline)) static inline void run(const TileGeom& g, uint32_t x, uint32_t y) noexcept {
        const __m128i widen = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
        const __m128i narrow = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
        const uint8_t* p = g.src + size_t(y) * g.ss + size_t(x) * B;
        __m128i r[4];
        for (int k = 0; k < 4; ++k) {
            r[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + k * g.ss));
            if (B == 3) r[k] = _mm_shuffle_epi8(r[k], widen);
        }
        transpose4(r[0], r[1], r[2], r[3]);
        uint8_t* d = blockDst<B, 4>(g, x, y);
        const ptrdiff_t step = g.revX ? -ptrdiff_t(g.ds) : ptrdiff_t(g.ds);
        for (int k = 0; k < 4; ++k, d += step) {
            __m128i v = g.revY ? _mm_shuffle_epi32(r[k], 0x1B) : r[k];
            if (B == 4) {
                _mm_storeu_si128(reinterpret_cast<__m128i*>(d), v);
            } else {
                v = _mm_shuffle_epi8(v, narrow);
                _mm_storel_epi64(reinterpret_cast<__m128i*>(d), v);
                const int32_t tail = _mm_cvtsi128_si32(_mm_srli_si128(v, 8));
                std::memcpy(d + 8, &tail, 4);
            }
        }
    }
};

// AVX2, 8x8 pixels of 4 bytes (B 4) or 3 bytes (B 3: 24 bytes of a row are
// spread over the two lanes, 12 each, and widened there; each load reads
// 32 bytes).
template <int B>
struct Dwords8Avx2 {
    OMBRIX_AVX2 __attribute__((always_inline)) static inline void run(const TileGeom& g, uint32_t x, uint32_t y) noexcept {
        const __m256i spread = _mm256_setr_epi32(0, 1, 2, 3, 3, 4, 5, 6);
        const __m256i widen = _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1,  //
                                               0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
        const __m256i narrow = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,  //
                                                0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
        const __m256i pack = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
        const __m256i rev = _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0);
        const uint8_t* p = g.src + size_t(y) * g.ss + size_t(x) * B;
        __m256i r[8];
        for (int k = 0; k < 8; ++k) {
            r[k] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + k * g.ss));
            if (B == 3) r[k] = _mm256_shuffle_epi8(_mm256_permutevar8x32_epi32(r[k], spread), widen);
        }
        __m256i t[8], u[8];
        for (int k = 0; k < 4; ++k) {
            t[2 * k] = _mm256_unpacklo_epi32(r[2 * k], r[2 * k + 1]);
            t[2 * k + 1] = _mm256_unpackhi_epi32(r[2 * k], r[2 * k + 1]);
        }
        for (int k = 0; k < 2; ++k) {
            u[4 * k + 0] = _mm256_unpacklo_epi64(t[4 * k + 0], t[4 * k + 2]);
            u[4 * k + 1] = _mm256_unpackhi_epi64(t[4 * k + 0], t[4 * k + 2]);
            u[4 * k + 2] = _mm256_unpacklo_epi64(t[4 * k + 1], t[4 * k + 3]);
            u[4 * k + 3] = _mm256_unpackhi_epi64(t[4 * k + 1], t[4 * k + 3]);
        }
        // u[j] (j < 4) holds rows 0..3 of columns j (low lane) and j+4 (high lane),
        // u[4 + j] rows 4..7 of the same columns.
        uint8_t* d = blockDst<B, 8>(g, x, y);
        const ptrdiff_t step = g.revX ? -ptrdiff_t(g.ds) : ptrdiff_t(g.ds);
        for (int j = 0; j < 8; ++j) {
            const __m256i lo = u[j & 3], hi = u[4 + (j & 3)];
            __m256i v = j < 4 ? _mm256_permute2x128_si256(lo, hi, 0x20) : _mm256_permute2x128_si256(lo, hi, 0x31);
            if (g.revY) v = _mm256_permutevar8x32_epi32(v, rev);
            uint8_t* q = d + j * step;
            if (B == 4) {
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(q), v);
            } else {
                v = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(v, narrow), pack);
                _mm_storeu_si128(reinterpret_cast<__m128i*>(q), _mm256_castsi256_si128(v));
                _mm_storel_epi64(reinterpret_cast<__m128i*>(q + 16), _mm256_extracti128_si256(v, 1));
            }
        }
    }
};

// The first three rounds of the 16 x 16 byte transpose (bytes, words, dwords of
// pairs of rows), on 16-byte rows (P _mm, V __m128i) or on 32-byte rows lane by
// lane (P _mm256, V __m256i): rows r[16] in, c[16] out; c[4q + j] and c[4q + j + 2]
// hold the 64-bit halves that the last round pairs into columns.
#define OMBRIX_BYTE_TRANSPOSE_ROUNDS(P, V, r, c)                                   \
    V c[16];                                                                      \
    {                                                                             \
        V a_[16], b_[16];                                                         \
        for (int k = 0; k < 8; ++k) {                                             \
            a_[k] = P##_unpacklo_epi8(r[2 * k], r[2 * k + 1]);                    \
            a_[k + 8] = P##_unpackhi_epi8(r[2 * k], r[2 * k + 1]);                \
        }                                                                         \
        for (int k = 0; k < 4; ++k) {                                             \
            b_[k] = P##_unpacklo_epi16(a_[2 * k], a_[2 * k + 1]);                 \
            b_[k + 4] = P##_unpackhi_epi16(a_[2 * k], a_[2 * k + 1]);             \
            b_[k + 8] = P##_unpacklo_epi16(a_[8 + 2 * k], a_[8 + 2 * k + 1]);     \
            b_[k + 12] = P##_unpackhi_epi16(a_[8 + 2 * k], a_[8 + 2 * k + 1]);    \
        }                                                                         \
        for (int q = 0; q < 4; ++q) {                                             \
            c[4 * q + 0] = P##_unpacklo_epi32(b_[4 * q + 0], b_[4 * q + 1]);      \
            c[4 * q + 1] = P##_unpackhi_epi32(b_[4 * q + 0], b_[4 * q + 1]);      \
            c[4 * q + 2] = P##_unpacklo_epi32(b_[4 * q + 2], b_[4 * q + 3]);      \
            c[4 * q + 3] = P##_unpackhi_epi32(b_[4 * q + 2], b_[4 * q + 3]);      \
        }                                                                         \
    }

// 8 bits, SSSE3: 16x16 bytes through four rounds of unpacks.
struct Bytes16Ssse3 {
    OMBRIX_SSSE3 __attribute__((always_inline)) static inline void run(const TileGeom& g, uint32_t x, uint32_t y) noexcept {
        const __m128i rev = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
        const uint8_t* p = g.src + size_t(y) * g.ss + x;
        __m128i r[16];
        for (int k = 0; k < 16; ++k) r[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + k * g.ss));
        OMBRIX_BYTE_TRANSPOSE_ROUNDS(_mm, __m128i, r, c)
        // col[j] is column j of the block, top to bottom.
        __m128i col[16];
        for (int q = 0; q < 4; ++q) {
            col[4 * q + 0] = _mm_unpacklo_epi64(c[4 * q + 0], c[4 * q + 2]);
            col[4 * q + 1] = _mm_unpackhi_epi64(c[4 * q + 0], c[4 * q + 2]);
            col[4 * q + 2] = _mm_unpacklo_epi64(c[4 * q + 1], c[4 * q + 3]);
            col[4 * q + 3] = _mm_unpackhi_epi64(c[4 * q + 1], c[4 * q + 3]);
        }
        uint8_t* d = blockDst<1, 16>(g, x, y);
        const ptrdiff_t step = g.revX ? -ptrdiff_t(g.ds) : ptrdiff_t(g.ds);
        for (int j = 0; j < 16; ++j, d += step)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d), g.revY ? _mm_shuffle_epi8(col[j], rev) : col[j]);
    }
};

// 8 bits, AVX2: 32 source columns x 16 source rows. The unpacks work inside
// each 16-byte lane, so the network of the SSSE3 kernel, run on 32-byte rows,
// transposes two 16x16 blocks at once: lane 0 of col[j] is column j, lane 1
// column j + 16. Half the shuffles per byte of the SSSE3 kernel.
struct Bytes32x16Avx2 {
    OMBRIX_AVX2 __attribute__((always_inline)) static inline void run(const TileGeom& g, uint32_t x, uint32_t y) noexcept {
        const __m256i rev = _mm256_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0,  //
                                             15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
        const uint8_t* p = g.src + size_t(y) * g.ss + x;
        __m256i r[16];
        for (int k = 0; k < 16; ++k) r[k] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + k * g.ss));
        OMBRIX_BYTE_TRANSPOSE_ROUNDS(_mm256, __m256i, r, c)
        uint8_t* d = blockDst<1, 16>(g, x, y);
        const ptrdiff_t step = g.revX ? -ptrdiff_t(g.ds) : ptrdiff_t(g.ds);
        for (int q = 0; q < 4; ++q) {
            __m256i col[4] = {_mm256_unpacklo_epi64(c[4 * q + 0], c[4 * q + 2]),
                              _mm256_unpackhi_epi64(c[4 * q + 0], c[4 * q + 2]),
                              _mm256_unpacklo_epi64(c[4 * q + 1], c[4 * q + 3]),
                              _mm256_unpackhi_epi64(c[4 * q + 1], c[4 * q + 3])};
            for (int j = 0; j < 4; ++j) {
                const __m256i v = g.revY ? _mm256_shuffle_epi8(col[j], rev) : col[j];
                uint8_t* lo = d + (4 * q + j) * step;
                _mm_storeu_si128(reinterpret_cast<__m128i*>(lo), _mm256_castsi256_si128(v));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(lo + 16 * step), _mm256_extracti128_si256(v, 1));
            }
        }
    }
};

#undef OMBRIX_BYTE_TRANSPOSE_ROUNDS

// Tile sizes (source columns x source rows): a destination row of a tile is
// 64 bytes at 32 bits and at 8 bits with SSSE3, 192 bytes (three lines) at 24
// bits, and 256 bytes at 8 bits with AVX2: its bands of 256 rows in tiles of
// 32 columns measured 0.44-0.50x memcpy for a whole bitmap against 0.39-0.42x
// with the 64 x 128 tiles of the SSSE3 kernel (and that kernel was no faster
// with the narrow tiles).
template <class K, int B, uint32_t MX, uint32_t MY, uint32_t TX, uint32_t TY, bool Strips, bool Avx2>
void turnTiled(const uint8_t* src, size_t ss, uint8_t* dst, size_t ds, uint32_t w, uint32_t h, bool revY,
               bool revX) noexcept {
    const TileGeom g{src, ss, dst, ds, w, h, revY, revX};
    const uint32_t loadBytes = B == 3 ? (Avx2 ? 32 : 16) : MX * B;
    const uint32_t wv = vectorWidth<B, MX>(w, loadBytes), hv = h / MY * MY;
    if (wv && hv) {
        if (Avx2) tileWalkAvx2<B, MX, MY, TX, TY, Strips, K>(g, wv, hv);
        else tileWalkSsse3<B, MX, MY, TX, TY, Strips, K>(g, wv, hv);
    }
    turnEdges<B>(g, wv, hv);
}

}  // namespace
// 1 bit, whole bytes mirrored from both ends: bits reversed inside each byte
// with two nibble lookups, bytes reversed with one shuffle.
OMBRIX_SSSE3 void mirrorBytes1Ssse3(uint8_t* row, size_t n) noexcept {
    const __m128i rev = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    const __m128i lo = _mm_setr_epi8(0x0, 0x8, 0x4, 0xC, 0x2, 0xA, 0x6, 0xE, 0x1, 0x9, 0x5, 0xD, 0x3, 0xB, 0x7, 0xF);
    const __m128i hi = _mm_slli_epi16(lo, 4);
    const __m128i m = _mm_set1_epi8(0x0F);
#define OMBRIX_FLIP_BITS(v)                                                              \
    _mm_shuffle_epi8(_mm_or_si128(_mm_shuffle_epi8(hi, _mm_and_si128((v), m)),           \
                                  _mm_shuffle_epi8(lo, _mm_and_si128(_mm_srli_epi16((v), 4), m))), \
                     rev)
    uint8_t* a = row;
    uint8_t* b = row + n;
    const uint8_t* tab = tables().bits1;
    while (b - a >= 32) {
        b -= 16;
        const __m128i x = _mm_loadu_si128(reinterpret_cast<__m128i*>(a));
        const __m128i y = _mm_loadu_si128(reinterpret_cast<__m128i*>(b));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(a), OMBRIX_FLIP_BITS(y));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(b), OMBRIX_FLIP_BITS(x));
        a += 16;
    }
    uint8_t* e = b - 1;
    while (a < e) {
        const uint8_t t = tab[*a];
        *a++ = tab[*e];
        *e-- = t;
    }
    if (a == e) *a = tab[*a];
}
#undef OMBRIX_FLIP_BITS
namespace {
#endif

using TurnFn = TurnKernel;

void turn1Bit(const uint8_t* src, size_t ss, uint8_t* dst, size_t ds, uint32_t w, uint32_t h, bool revY,
              bool revX) noexcept {
    turn1(src, ss, dst, ds, w, h, revY, revX);
}
template <int Bpp>
void turnPerPixel(const uint8_t* src, size_t ss, uint8_t* dst, size_t ds, uint32_t w, uint32_t h, bool revY,
                  bool revX) noexcept {
    turnGeneric(src, ss, dst, ds, w, h, Bpp, revY, revX);
}

// The block kernel for a depth at a SIMD level (0 plain), null for a depth
// no record has.
TurnFn pickTurn(int32_t bpp, int level) noexcept {
    switch (bpp) {
        case 1: return turn1Bit;
        case 2: return turnPerPixel<2>;
        case 3: return turnPerPixel<3>;
        case 4: return turnPerPixel<4>;
        case 5: return turnPerPixel<5>;
        case 6: return turnPerPixel<6>;
        case 7: return turnPerPixel<7>;
        case 12: return turnPerPixel<12>;
        case 8:
#ifdef OMBRIX_ORIENT_X86
            if (level >= 2) return turnTiled<Bytes32x16Avx2, 1, 32, 16, 32, 256, false, true>;
            if (level >= 1) return turnTiled<Bytes16Ssse3, 1, 16, 16, 64, 128, false, false>;
#endif
            return turnBytes<1>;
        case 16: return turnBytes<2>;
        case 24:
#ifdef OMBRIX_ORIENT_X86
            if (level >= 2) return turnTiled<Dwords8Avx2<3>, 3, 8, 8, 32, 32, true, true>;
            if (level >= 1) return turnTiled<Dwords4Ssse3<3>, 3, 4, 4, 32, 32, true, false>;
#endif
            return turnBytes<3>;
        case 32:
#ifdef OMBRIX_ORIENT_X86
            if (level >= 2) return turnTiled<Dwords8Avx2<4>, 4, 8, 8, 32, 16, true, true>;
            if (level >= 1) return turnTiled<Dwords4Ssse3<4>, 4, 4, 4, 32, 16, true, false>;
#endif
            return turnBytes<4>;
        case 48: return turnBytes<6>;
        case 64: return turnBytes<8>;
        default: return nullptr;
    }
}

void turnDispatch(const uint8_t* src, size_t ss, uint8_t* dst, size_t ds, uint32_t w, uint32_t h, int32_t bpp,
                  bool revY, bool revX, int level) noexcept {
    if (!w || !h) return;
    // The plain form of 1 bit is the per-pixel loop.
    const TurnFn fn = level < 0 && bpp == 1 ? turnPerPixel<1> : pickTurn(bpp, level);
    if (fn) fn(src, ss, dst, ds, w, h, revY, revX);
}

}  // namespace

void setOrientSimd(bool on) noexcept { setOrientSimdLevel(on ? -1 : 0); }
int setOrientSimdLevel(int level) noexcept {
    g_simd.store(level < 0 ? -1 : std::min(level, simdHardware()), std::memory_order_relaxed);
    return simdLevel();
}

void mirrorRowPlain(uint8_t* row, uint32_t pixels, int32_t bpp) noexcept { mirrorDispatch(row, pixels, bpp, false); }

void mirrorRow(uint8_t* row, uint32_t pixels, int32_t bpp) noexcept {
#ifdef OMBRIX_ORIENT_X86
    if (simdLevel() >= 1 && pixels >= 2) {
        switch (bpp) {
            case 8: return simdLevel() >= 2 ? mirror8Avx2(row, pixels) : mirror8Ssse3(row, pixels);
            case 24: return mirror24Ssse3(row, pixels);
            case 32: return mirror32Ssse3(row, pixels);
            default: break;
        }
    }
#endif
    mirrorDispatch(row, pixels, bpp, true);
}

#ifdef OMBRIX_ORIENT_X86
namespace {
// 128 bytes of each row per step, the next step's lines prefetched.
OMBRIX_AVX2 size_t swapRowsAvx2(uint8_t* a, uint8_t* b, size_t bytes) noexcept {
    size_t i = 0;
    for (; i + 128 <= bytes; i += 128) {
        _mm_prefetch(reinterpret_cast<const char*>(a + i + 512), _MM_HINT_T0);
        _mm_prefetch(reinterpret_cast<const char*>(b + i + 512), _MM_HINT_T0);
        __m256i x[4], y[4];
        for (int k = 0; k < 4; ++k) {
            x[k] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + i + 32 * k));
            y[k] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + i + 32 * k));
        }
        for (int k = 0; k < 4; ++k) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(a + i + 32 * k), y[k]);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(b + i + 32 * k), x[k]);
        }
    }
    return i;
}
}  // namespace
#endif

void swapRows(uint8_t* a, uint8_t* b, size_t bytes) noexcept {
    size_t i = 0;
#ifdef OMBRIX_ORIENT_X86
    if (simdLevel() >= 2) i = swapRowsAvx2(a, b, bytes);
#endif
    for (; i + 32 <= bytes; i += 32) {
        uint8_t t[32], u[32];
        std::memcpy(t, a + i, 32);
        std::memcpy(u, b + i, 32);
        std::memcpy(a + i, u, 32);
        std::memcpy(b + i, t, 32);
    }
    for (; i < bytes; ++i) std::swap(a[i], b[i]);
}

void turnBlockPlain(const uint8_t* src, size_t sstride, uint8_t* dst, size_t dstride, uint32_t w, uint32_t h,
                    int32_t bpp, bool revY, bool revX) noexcept {
    turnDispatch(src, sstride, dst, dstride, w, h, bpp, revY, revX, -1);
}
void turnBlock(const uint8_t* src, size_t sstride, uint8_t* dst, size_t dstride, uint32_t w, uint32_t h, int32_t bpp,
               bool revY, bool revX) noexcept {
    turnDispatch(src, sstride, dst, dstride, w, h, bpp, revY, revX, simdLevel());
}
void turnBlockAt(int level, const uint8_t* src, size_t sstride, uint8_t* dst, size_t dstride, uint32_t w, uint32_t h,
                 int32_t bpp, bool revY, bool revX) noexcept {
    turnDispatch(src, sstride, dst, dstride, w, h, bpp, revY, revX, std::min(level, simdHardware()));
}
TurnKernel turnKernel(int32_t bpp) noexcept { return pickTurn(bpp, simdLevel()); }
int orientSimdLevel() noexcept { return simdLevel(); }

}  // namespace krn
