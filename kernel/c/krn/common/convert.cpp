// convert.cpp - the buffer converter: dispatcher, generic pivot path,
// colour-match tree, wide-primaries matrices and the exported entries.
#include "convert.h"

#include <algorithm>
#include <cstring>

#include "palette.h"
#include "convert_kernels.h"
#include "hooks.h"
#include "kernel.h"
#include "memory.h"

namespace krn {
namespace conv {
namespace {

// ------------------------------------------------------------ formats
enum SrcFmt : int {
    S_IDX1, S_IDX2, S_IDX3, S_IDX4, S_IDX5, S_IDX6, S_IDX7, S_IDX8,
    S_G8, S_G12, S_G16, S_G32,
    S_C16_RGB, S_C16_BGR, S_C16_565,
    S_C24_RGB, S_C24_BGR, S_C32_RGB, S_C32_BGR,
    S_C48_RGB, S_C48_BGR, S_C64_RGB, S_C64_BGR,
    S_COUNT
};
enum DstFmt : int {
    D_IDX1, D_IDX2, D_IDX3, D_IDX4, D_IDX5, D_IDX6, D_IDX7, D_IDX8,
    D_G8, D_G12, D_G16, D_G32,
    D_C16_RGB, D_C16_BGR, D_C16_565,
    D_C24_RGB, D_C24_BGR, D_C32_RGB, D_C32_BGR,
    D_C48_RGB, D_C48_BGR, D_C64_RGB, D_C64_BGR,
    D_COUNT
};

constexpr Kind srcKind(int f) { return (f >= S_G8 && f <= S_G32) ? Kind::Grey : Kind::Colour; }

// ------------------------------------------------------------ decoders
inline uint32_t windowOf(uint32_t s, const Ctx& c) {
    uint32_t mask = c.sN >= 32 ? 0xFFFFFFFFu : ((1u << c.sN) - 1u);
    return (s >> c.sLo) & mask;
}
inline Px colour8(unsigned r, unsigned g, unsigned b, unsigned a8 = 255, int32_t idx = -1) {
    return Px{uint16_t(r * 257u), uint16_t(g * 257u), uint16_t(b * 257u), uint16_t(a8 * 257u), 0, idx};
}
inline Px grey(uint32_t v) { return Px{0, 0, 0, 0xFFFF, v, -1}; }

template <int B>
void decIndex(const uint8_t* buf, size_t first, size_t n, Px* out, const Ctx& c) {
    for (size_t k = 0; k < n; ++k) {
        uint32_t i = readBits<B>(buf, first + k);
        const RGBQUAD& e = c.palSrc[i];
        out[k] = colour8(e.rgbRed, e.rgbGreen, e.rgbBlue, 255, int32_t(i));
    }
}
void decG8(const uint8_t* buf, size_t first, size_t n, Px* out, const Ctx& c) {
    for (size_t k = 0; k < n; ++k) out[k] = grey(windowOf(buf[first + k], c));
}
void decG12(const uint8_t* buf, size_t first, size_t n, Px* out, const Ctx& c) {
    for (size_t k = 0; k < n; ++k) out[k] = grey(windowOf(read12(buf, first + k), c));
}
void decG16(const uint8_t* buf, size_t first, size_t n, Px* out, const Ctx& c) {
    for (size_t k = 0; k < n; ++k) out[k] = grey(windowOf(ld16(buf + 2 * (first + k)), c));
}
void decG32(const uint8_t* buf, size_t first, size_t n, Px* out, const Ctx& c) {
    for (size_t k = 0; k < n; ++k) out[k] = grey(windowOf(ld32(buf + 4 * (first + k)), c));
}
inline unsigned x5(unsigned x) { return (x << 3) | (x >> 2); }
inline unsigned x6(unsigned y) { return (y << 2) | (y >> 4); }
template <int O>
void decC16(const uint8_t* buf, size_t first, size_t n, Px* out, const Ctx&) {
    for (size_t k = 0; k < n; ++k) {
        unsigned w = ld16(buf + 2 * (first + k));
        if constexpr (O == ORDER_RGB)
            out[k] = colour8(x5(w & 31u), x5((w >> 5) & 31u), x5((w >> 10) & 31u));
        else if constexpr (O == ORDER_BGR)
            out[k] = colour8(x5((w >> 10) & 31u), x5((w >> 5) & 31u), x5(w & 31u));
        else
            out[k] = colour8(x5(w >> 11), x6((w >> 5) & 63u), x5(w & 31u));
    }
}
template <int O, int Bpp>
void decC8bit(const uint8_t* buf, size_t first, size_t n, Px* out, const Ctx&) {
    constexpr int R = O == ORDER_RGB ? 0 : 2, B = 2 - R;
    for (size_t k = 0; k < n; ++k) {
        const uint8_t* q = buf + Bpp * (first + k);
        out[k] = colour8(q[R], q[1], q[B], Bpp == 4 ? q[3] : 255);
    }
}
template <int O, int Bpp>
void decC16bit(const uint8_t* buf, size_t first, size_t n, Px* out, const Ctx&) {
    constexpr int R = O == ORDER_RGB ? 0 : 4, B = 4 - R;
    for (size_t k = 0; k < n; ++k) {
        const uint8_t* q = buf + Bpp * (first + k);
        out[k] = Px{ld16(q + R), ld16(q + 2), ld16(q + B), uint16_t(Bpp == 8 ? ld16(q + 6) : 0xFFFF), 0, -1};
    }
}

constexpr DecodeFn kDecoders[S_COUNT] = {
    decIndex<1>, decIndex<2>, decIndex<3>, decIndex<4>, decIndex<5>, decIndex<6>, decIndex<7>, decIndex<8>,
    decG8, decG12, decG16, decG32,
    decC16<ORDER_RGB>, decC16<ORDER_BGR>, decC16<ORDER_RGB565>,
    decC8bit<ORDER_RGB, 3>, decC8bit<ORDER_BGR, 3>, decC8bit<ORDER_RGB, 4>, decC8bit<ORDER_BGR, 4>,
    decC16bit<ORDER_RGB, 6>, decC16bit<ORDER_BGR, 6>, decC16bit<ORDER_RGB, 8>, decC16bit<ORDER_BGR, 8>,
};

// ------------------------------------------------------------ encoders
struct Rgb8 {
    unsigned r, g, b;
};
template <Kind K>
inline Rgb8 rgb8(const Px& p, const Ctx& c) {
    if constexpr (K == Kind::Colour) {
        return {unsigned(p.r >> 8), unsigned(p.g >> 8), unsigned(p.b >> 8)};
    } else {
        unsigned g = grayScale(p.v, c.sN, 8);
        return {g, g, g};
    }
}
template <Kind K>
inline uint32_t greyOut(const Px& p, const Ctx& c) {
    uint32_t v;
    if constexpr (K == Kind::Colour)
        v = grayScale(uint32_t(grayFromRGB(p.r >> 8, p.g >> 8, p.b >> 8)), 8, c.dN);
    else
        v = grayScale(p.v, c.sN, c.dN);
    return v << c.dLo;
}

inline int32_t searchIndex(Ctx& c, unsigned r, unsigned g, unsigned b) {
    if (c.tree) {
        int32_t t = colorMatchTreeLookup(c.tree, int(r), int(g), int(b));
        if (t >= 0) return t;
    }
    if (c.exact) return c.exact(int(r), int(g), int(b));
    if (c.cache) {
        uint32_t key = ((r << 16) | (g << 8) | b) + 1u;
        unsigned slot = ((key * 0x9E3779B1u) >> 22) & (IndexCache::kSlots - 1u);
        if (c.cache->key[slot] == key) return c.cache->val[slot];
        int32_t i = K_FindPaletteIndex(c.palDst, c.palDstN, int32_t(r), int32_t(g), int32_t(b));
        c.cache->key[slot] = key;
        c.cache->val[slot] = uint8_t(i);
        return i;
    }
    return K_FindPaletteIndex(c.palDst, c.palDstN, int32_t(r), int32_t(g), int32_t(b));
}

template <int B, Kind K>
void encIndex(uint8_t* buf, size_t first, size_t n, const Px* in, Ctx& c) {
    for (size_t k = 0; k < n; ++k) {
        Rgb8 p = rgb8<K>(in[k], c);
        writeBits<B>(buf, first + k, uint32_t(searchIndex(c, p.r, p.g, p.b)));
    }
}
template <Kind K>
void encG8(uint8_t* buf, size_t first, size_t n, const Px* in, Ctx& c) {
    for (size_t k = 0; k < n; ++k) buf[first + k] = uint8_t(greyOut<K>(in[k], c));
}
template <Kind K>
void encG12(uint8_t* buf, size_t first, size_t n, const Px* in, Ctx& c) {
    for (size_t k = 0; k < n; ++k) write12(buf, first + k, greyOut<K>(in[k], c));
}
template <Kind K>
void encG16(uint8_t* buf, size_t first, size_t n, const Px* in, Ctx& c) {
    for (size_t k = 0; k < n; ++k) st16(buf + 2 * (first + k), greyOut<K>(in[k], c));
}
template <Kind K>
void encG32(uint8_t* buf, size_t first, size_t n, const Px* in, Ctx& c) {
    for (size_t k = 0; k < n; ++k) st32(buf + 4 * (first + k), greyOut<K>(in[k], c));
}
template <int O, Kind K>
void encC16(uint8_t* buf, size_t first, size_t n, const Px* in, Ctx& c) {
    for (size_t k = 0; k < n; ++k) {
        Rgb8 p = rgb8<K>(in[k], c);
        uint32_t w;
        if constexpr (O == ORDER_RGB)
            w = (p.r >> 3) | ((p.g >> 3) << 5) | ((p.b >> 3) << 10);
        else if constexpr (O == ORDER_BGR)
            w = (p.b >> 3) | ((p.g >> 3) << 5) | ((p.r >> 3) << 10);
        else
            w = (p.b >> 3) | ((p.g >> 2) << 5) | ((p.r >> 3) << 11);
        st16(buf + 2 * (first + k), w);
    }
}
// Transparency: T selects the test; the pixel matches by palette index
// (colour reference of the index form) or by its 8-bit red, green, blue.
template <Kind K, bool T>
inline bool transparentHit(const Px& px, const Rgb8& p, const Ctx& c) {
    if constexpr (!T) {
        return false;
    } else {
        if (c.crIndex) return K == Kind::Colour && px.idx == int32_t(c.crI);
        return p.r == c.crR && p.g == c.crG && p.b == c.crB;
    }
}
template <int O, int Bpp, Kind K, bool T>
void encC8bit(uint8_t* buf, size_t first, size_t n, const Px* in, Ctx& c) {
    constexpr int R = O == ORDER_RGB ? 0 : 2, B = 2 - R;
    for (size_t k = 0; k < n; ++k) {
        Rgb8 p = rgb8<K>(in[k], c);
        uint8_t* q = buf + Bpp * (first + k);
        q[R] = uint8_t(p.r);
        q[1] = uint8_t(p.g);
        q[B] = uint8_t(p.b);
        if constexpr (Bpp == 4) q[3] = transparentHit<K, T>(in[k], p, c) ? 0 : uint8_t(in[k].a >> 8);
    }
}
template <int O, int Bpp, Kind K, bool T>
void encC16bit(uint8_t* buf, size_t first, size_t n, const Px* in, Ctx& c) {
    constexpr int R = O == ORDER_RGB ? 0 : 4, B = 4 - R;
    for (size_t k = 0; k < n; ++k) {
        uint8_t* q = buf + Bpp * (first + k);
        uint32_t r, g, b;
        if constexpr (K == Kind::Colour) {
            r = in[k].r, g = in[k].g, b = in[k].b;
        } else {
            r = g = b = grayScale(in[k].v, c.sN, 16);
        }
        st16(q + R, r);
        st16(q + 2, g);
        st16(q + B, b);
        if constexpr (Bpp == 8) {
            Rgb8 p{r >> 8, g >> 8, b >> 8};
            st16(q + 6, transparentHit<K, T>(in[k], p, c) ? 0u : uint32_t(in[k].a));
        }
    }
}

// [destination][pivot kind][transparency]
#define OMBRIX_ENC_PLAIN(F) {{F<Kind::Colour>, F<Kind::Colour>}, {F<Kind::Grey>, F<Kind::Grey>}}
#define OMBRIX_ENC_IDX(B) {{encIndex<B, Kind::Colour>, encIndex<B, Kind::Colour>}, \
                           {encIndex<B, Kind::Grey>, encIndex<B, Kind::Grey>}}
#define OMBRIX_ENC_C16(O) {{encC16<O, Kind::Colour>, encC16<O, Kind::Colour>}, \
                           {encC16<O, Kind::Grey>, encC16<O, Kind::Grey>}}
#define OMBRIX_ENC_A(F, O, Bpp) {{F<O, Bpp, Kind::Colour, false>, F<O, Bpp, Kind::Colour, true>}, \
                                 {F<O, Bpp, Kind::Grey, false>, F<O, Bpp, Kind::Grey, true>}}
constexpr EncodeFn kEncoders[D_COUNT][2][2] = {
    OMBRIX_ENC_IDX(1), OMBRIX_ENC_IDX(2), OMBRIX_ENC_IDX(3), OMBRIX_ENC_IDX(4),
    OMBRIX_ENC_IDX(5), OMBRIX_ENC_IDX(6), OMBRIX_ENC_IDX(7), OMBRIX_ENC_IDX(8),
    OMBRIX_ENC_PLAIN(encG8), OMBRIX_ENC_PLAIN(encG12), OMBRIX_ENC_PLAIN(encG16), OMBRIX_ENC_PLAIN(encG32),
    OMBRIX_ENC_C16(ORDER_RGB), OMBRIX_ENC_C16(ORDER_BGR), OMBRIX_ENC_C16(ORDER_RGB565),
    OMBRIX_ENC_A(encC8bit, ORDER_RGB, 3), OMBRIX_ENC_A(encC8bit, ORDER_BGR, 3),
    OMBRIX_ENC_A(encC8bit, ORDER_RGB, 4), OMBRIX_ENC_A(encC8bit, ORDER_BGR, 4),
    OMBRIX_ENC_A(encC16bit, ORDER_RGB, 6), OMBRIX_ENC_A(encC16bit, ORDER_BGR, 6),
    OMBRIX_ENC_A(encC16bit, ORDER_RGB, 8), OMBRIX_ENC_A(encC16bit, ORDER_BGR, 8),
};
#undef OMBRIX_ENC_PLAIN
#undef OMBRIX_ENC_IDX
#undef OMBRIX_ENC_C16
#undef OMBRIX_ENC_A

// 24/32-bit colour straight to 8-bit indices (no pivot): the colour-match
// tree or the remembered nearest-colour answers do the work per pixel.
template <int O, int Bpp>
void colourToIndex8(uint8_t* buf, size_t w, Ctx& c) {
    constexpr int R = O == ORDER_RGB ? 0 : 2, B = 2 - R;
    for (size_t i = 0; i < w; ++i) {
        const uint8_t* q = buf + Bpp * i;
        buf[i] = uint8_t(searchIndex(c, q[R], q[1], q[B]));
    }
}
// 24-bit BGR to indices of the fixed 256-colour palette with the row kernels
// of colour resolution (per-channel levels, the search's tie rule for the
// values midway between two levels), in place. A kernel block stores 32
// indices at x before its tie fix-ups read source pixels 3x onwards, which
// overlap only while x < 16: the first 32 pixels are done aside first.
void fixed256FromBGR24(uint8_t* buf, size_t w) {
    using RowKernel = void (*)(const uint8_t*, uint8_t*, int32_t) noexcept;
    const int level = simdCeiling();
    const RowKernel fn = level >= kSimdAvx2 && cpuHasAvx2ForColorRes() ? &fixed256RowAvx2
                         : level >= kSimdSsse3 && cpuHasSsse3()       ? &fixed256RowSsse3
                                                                      : &fixed256RowPlain;
    const size_t head = std::min<size_t>(w, 32);
    uint8_t first[32];
    fixed256RowPlain(buf, first, int32_t(head));
    if (w > head) fn(buf + 3 * head, buf + head, int32_t(w - head));
    std::memcpy(buf, first, head);
}
template <int O, int Bpp>
void fixed256FromColour(uint8_t* buf, size_t w) {
    constexpr int R = O == ORDER_RGB ? 0 : 2, B = 2 - R;
    for (size_t i = 0; i < w; ++i) {
        const uint8_t* q = buf + Bpp * i;
        buf[i] = uint8_t(fixed256Index(q[R], q[1], q[B]));
    }
}
using Fixed256Fn = void (*)(uint8_t*, size_t);
Fixed256Fn pickFixed256(int sf) {
    switch (sf) {
        case S_C24_RGB: return fixed256FromColour<ORDER_RGB, 3>;
        case S_C24_BGR: return fixed256FromBGR24;
        case S_C32_RGB: return fixed256FromColour<ORDER_RGB, 4>;
        case S_C32_BGR: return fixed256FromColour<ORDER_BGR, 4>;
        default: return nullptr;
    }
}

// Palette indices of 1, 2, 4 or 8 bits to 24/32-bit colour: one table of
// ready-made pixels per call. Chunks of 4096 pixels go from the end of the
// run; each is copied aside and written front to back (a 24-bit pixel is
// stored as four bytes, the fourth overwritten by the next pixel).
template <int B, int Bpp, bool RedFirst>
void expandIndex(uint8_t* buf, size_t w, const RGBQUAD* pal) {
    uint32_t lut[1 << B];
    for (int i = 0; i < (1 << B); ++i) {
        const RGBQUAD& e = pal[i];
        uint32_t first = RedFirst ? e.rgbRed : e.rgbBlue, last = RedFirst ? e.rgbBlue : e.rgbRed;
        lut[i] = first | (uint32_t(e.rgbGreen) << 8) | (last << 16) | 0xFF000000u;
    }
    constexpr size_t kChunk = 4096;  // a multiple of 8: chunks start on a byte
    uint8_t tmp[kChunk * B / 8];
    for (size_t c = (w + kChunk - 1) / kChunk; c-- > 0;) {
        const size_t s = c * kChunk, n = std::min(w - s, kChunk);
        std::memcpy(tmp, buf + s * B / 8, (n * B + 7) / 8);
        uint8_t* d = buf + s * Bpp;
        for (size_t i = 0; i + 1 < n; ++i) {
            const uint32_t v = lut[readBits<B>(tmp, i)];
            std::memcpy(d + i * Bpp, &v, 4);
        }
        const uint32_t v = lut[readBits<B>(tmp, n - 1)];
        std::memcpy(d + (n - 1) * Bpp, &v, Bpp);
    }
}
using ExpandFn = void (*)(uint8_t*, size_t, const RGBQUAD*);
ExpandFn pickExpand(int srcBits, int df) {
#define OMBRIX_EXPAND(B)                                                                              \
    case B:                                                                                           \
        return df == D_C24_RGB ? expandIndex<B, 3, true> : df == D_C24_BGR ? expandIndex<B, 3, false> \
             : df == D_C32_RGB ? expandIndex<B, 4, true> : df == D_C32_BGR ? expandIndex<B, 4, false> \
                               : nullptr;
    switch (srcBits) {
        OMBRIX_EXPAND(1)
        OMBRIX_EXPAND(2)
        OMBRIX_EXPAND(4)
        OMBRIX_EXPAND(8)
        default: return nullptr;
    }
#undef OMBRIX_EXPAND
}

using IndexFn = void (*)(uint8_t*, size_t, Ctx&);
IndexFn pickIndex8(int sf) {
    switch (sf) {
        case S_C24_RGB: return colourToIndex8<ORDER_RGB, 3>;
        case S_C24_BGR: return colourToIndex8<ORDER_BGR, 3>;
        case S_C32_RGB: return colourToIndex8<ORDER_RGB, 4>;
        case S_C32_BGR: return colourToIndex8<ORDER_BGR, 4>;
        default: return nullptr;
    }
}

}  // namespace
}  // namespace conv

// ------------------------------------------------------------ matrices
namespace {
inline int32_t clampTo(int32_t v, int32_t hi) { return v < 0 ? 0 : (v > hi ? hi : v); }
}  // namespace

void widePrimariesForward8(uint8_t* p, size_t count, size_t stride) noexcept {
    for (size_t i = 0; i < count; ++i, p += stride) {
        uint32_t s0 = p[0], s1 = p[1], s2 = p[2];
        p[0] = uint8_t((7151 * s0 + 897 * s1 + 145 * s2 + 4095) >> 13);
        p[1] = uint8_t((394 * s0 + 7067 * s1 + 731 * s2 + 4095) >> 13);
        p[2] = uint8_t((1067 * s0 + 2841 * s1 + 4284 * s2 + 4095) >> 13);
    }
}
void widePrimariesForward16(uint8_t* p, size_t count, size_t stride) noexcept {
    // The first row sums to 8193: full-scale 16-bit input would overshoot by
    // up to 8, so 16-bit results are clamped.
    for (size_t i = 0; i < count; ++i, p += 2 * stride) {
        uint32_t s0 = conv::ld16(p), s1 = conv::ld16(p + 2), s2 = conv::ld16(p + 4);
        conv::st16(p, std::min<uint32_t>((7151 * s0 + 897 * s1 + 145 * s2 + 4095) >> 13, 65535u));
        conv::st16(p + 2, std::min<uint32_t>((394 * s0 + 7067 * s1 + 731 * s2 + 4095) >> 13, 65535u));
        conv::st16(p + 4, std::min<uint32_t>((1067 * s0 + 2841 * s1 + 4284 * s2 + 4095) >> 13, 65535u));
    }
}
void widePrimariesInverse8(uint8_t* p, size_t count, size_t stride) noexcept {
    for (size_t i = 0; i < count; ++i, p += stride) {
        int32_t s0 = p[0], s1 = p[1], s2 = p[2];
        p[0] = uint8_t(clampTo((9467 * s0 - 1151 * s1 - 125 * s2 + 4095) / 8192, 255));
        p[1] = uint8_t(clampTo((-305 * s0 + 10232 * s1 - 1735 * s2 + 4095) / 8192, 255));
        p[2] = uint8_t(clampTo((-2156 * s0 - 6498 * s1 + 16846 * s2 + 4095) / 8192, 255));
    }
}
void widePrimariesInverse16(uint8_t* p, size_t count, size_t stride) noexcept {
    for (size_t i = 0; i < count; ++i, p += 2 * stride) {
        int64_t s0 = conv::ld16(p), s1 = conv::ld16(p + 2), s2 = conv::ld16(p + 4);
        conv::st16(p, uint32_t(clampTo(int32_t((9467 * s0 - 1151 * s1 - 125 * s2 + 4095) / 8192), 65535)));
        conv::st16(p + 2, uint32_t(clampTo(int32_t((-305 * s0 + 10232 * s1 - 1735 * s2 + 4095) / 8192), 65535)));
        conv::st16(p + 4, uint32_t(clampTo(int32_t((-2156 * s0 - 6498 * s1 + 16846 * s2 + 4095) / 8192), 65535)));
    }
}

// ------------------------------------------------------------ colour-match tree
uint32_t* buildColorMatchTree(const RGBQUAD* pal, int32_t n) noexcept {
    if (!pal || n < 1 || n > 256) return nullptr;
    // Count the nodes first: a green node for every blue held by two or more
    // entries, a red node for every (blue, green) whose entries differ in red.
    int byBlue[256] = {};
    for (int i = 0; i < n; ++i) ++byBlue[pal[i].rgbBlue];
    size_t nodes = 1;
    for (int b = 0; b < 256; ++b) nodes += byBlue[b] >= 2;
    for (int i = 0; i < n; ++i) {
        bool firstOfPair = true;
        for (int j = 0; j < i && firstOfPair; ++j)
            firstOfPair = !(pal[j].rgbBlue == pal[i].rgbBlue && pal[j].rgbGreen == pal[i].rgbGreen);
        if (!firstOfPair) continue;
        for (int j = i + 1; j < n; ++j)
            if (pal[j].rgbBlue == pal[i].rgbBlue && pal[j].rgbGreen == pal[i].rgbGreen &&
                pal[j].rgbRed != pal[i].rgbRed) {
                ++nodes;
                break;
            }
    }
    auto* t = static_cast<uint32_t*>(memAlloc(nodes * 256 * sizeof(uint32_t)));
    if (!t) return nullptr;
    std::fill(t, t + nodes * 256, kTreeAbsent);
    uint32_t next = 256;  // word offset of the next free node
    for (int i = 0; i < n; ++i) {
        uint32_t& root = t[pal[i].rgbBlue];
        if (root == kTreeAbsent) {
            root = uint32_t(i);
        } else if (root < 256) {
            // Green node over all entries with this blue.
            uint32_t gnode = next;
            next += 256;
            root = gnode;
            const uint8_t blue = pal[i].rgbBlue;
            for (int j = 0; j < n; ++j) {
                if (pal[j].rgbBlue != blue) continue;
                uint32_t& gs = t[gnode + pal[j].rgbGreen];
                if (gs == kTreeAbsent) {
                    gs = uint32_t(j);
                } else if (gs < 256 && pal[gs].rgbRed != pal[j].rgbRed) {
                    uint32_t rnode = next;
                    next += 256;
                    gs = rnode;
                    const uint8_t green = pal[j].rgbGreen;
                    for (int k = 0; k < n; ++k) {
                        if (pal[k].rgbBlue != blue || pal[k].rgbGreen != green) continue;
                        uint32_t& rs = t[rnode + pal[k].rgbRed];
                        if (rs == kTreeAbsent) rs = uint32_t(k);
                    }
                }
            }
        }
    }
    return t;
}

void freeColorMatchTree(uint32_t* tree) noexcept { memFree(tree); }

// ------------------------------------------------------------ dispatcher
size_t convertBufferBytes(int32_t width, int32_t srcBits, int32_t dstBits) noexcept {
    if (width <= 0) return 0;
    uint64_t sb = srcBits == 0 ? 8 : uint64_t(uint32_t(srcBits));
    uint64_t db = dstBits == 0 ? 8 : uint64_t(uint32_t(dstBits));
    uint64_t bits = uint64_t(width) * std::max(sb, db);
    return size_t((bits + 7) / 8);
}

namespace {

constexpr bool depthAccepted(int32_t d) {
    return (d >= 0 && d <= 8) || d == 12 || d == 16 || d == 24 || d == 32 || d == 48 || d == 64;
}
constexpr bool orderKnown(int32_t o) { return o == 0 || o == 1 || o == 2 || o == 5 || o == 7; }

// Source format by depth and order; -1 when the pair is rejected.
int srcFormat(int32_t d, int32_t o) {
    using namespace conv;
    if (d >= 1 && d <= 8) return S_IDX1 + d - 1;
    switch (d) {
        case 0: return S_G8;
        case 12: return o == ORDER_GRAY ? S_G12 : -1;
        case 16:
            return o == ORDER_GRAY ? S_G16 : o == ORDER_RGB ? S_C16_RGB : o == ORDER_BGR ? S_C16_BGR
                 : o == ORDER_RGB565 ? S_C16_565 : -1;
        case 24: return o == ORDER_RGB ? S_C24_RGB : (o == ORDER_BGR || o == ORDER_ROMM) ? S_C24_BGR : -1;
        case 32: return o == ORDER_GRAY ? S_G32 : o == ORDER_RGB ? S_C32_RGB : o == ORDER_BGR ? S_C32_BGR : -1;
        case 48: return o == ORDER_RGB ? S_C48_RGB : (o == ORDER_BGR || o == ORDER_ROMM) ? S_C48_BGR : -1;
        case 64: return o == ORDER_RGB ? S_C64_RGB : (o == ORDER_BGR || o == ORDER_ROMM) ? S_C64_BGR : -1;
        default: return -1;
    }
}
// Destination format; order 5 is written as blue-first (the post-step
// applies the matrix at 24/48 bits and answers -16 elsewhere).
int dstFormat(int32_t d, int32_t o) {
    using namespace conv;
    if (d >= 1 && d <= 8) return D_IDX1 + d - 1;
    const bool bgr = o == ORDER_BGR || o == ORDER_ROMM;
    switch (d) {
        case 0: return D_G8;
        case 12: return o == ORDER_GRAY ? D_G12 : -1;
        case 16:
            return o == ORDER_GRAY ? D_G16 : o == ORDER_RGB ? D_C16_RGB : bgr ? D_C16_BGR
                 : o == ORDER_RGB565 ? D_C16_565 : -1;
        case 24: return o == ORDER_RGB ? D_C24_RGB : bgr ? D_C24_BGR : -1;
        case 32: return o == ORDER_GRAY ? D_G32 : o == ORDER_RGB ? D_C32_RGB : bgr ? D_C32_BGR : -1;
        case 48: return o == ORDER_RGB ? D_C48_RGB : bgr ? D_C48_BGR : -1;
        case 64: return o == ORDER_RGB ? D_C64_RGB : bgr ? D_C64_BGR : -1;
        default: return -1;
    }
}

// Resolves a grey window over a sample of `depth` bits; false if invalid.
bool resolveWindow(bool ranged, int32_t lowBit, int32_t highBit, int depth, int& lo, int& n) {
    if (!ranged) {
        lo = 0;
        n = depth;
        return true;
    }
    int l = std::max(lowBit, 0);
    int h = highBit < 0 ? depth - 1 : highBit;
    if (h >= depth || l > h) return false;
    n = std::min(h - l + 1, depth);
    lo = h - n + 1;
    return true;
}

}  // namespace

int32_t convertBuffer(uint8_t* buffer, int32_t width, int32_t srcBits, int32_t dstBits, int32_t srcOrder,
                      int32_t dstOrder, const RGBQUAD* srcPalette, const RGBQUAD* dstPalette, void* extra,
                      uint32_t flags, int32_t lowBit, int32_t highBit, uint32_t crTransparent,
                      const uint32_t* tree) noexcept {
    using namespace conv;
    if (!buffer || width <= 0) return KS_INVALID_PARAMETER;
    if (!depthAccepted(srcBits) || !depthAccepted(dstBits)) return KS_INVALID_PARAMETER;
    if (!orderKnown(srcOrder) || !orderKnown(dstOrder)) return KS_INVALID_PARAMETER;

    // Flags follow the orders.
    if (srcOrder == ORDER_GRAY)
        flags |= kConvertSrcGray;
    else
        flags &= ~(kConvertSrcGray | kConvertSrcRange);
    if (dstOrder == ORDER_GRAY)
        flags |= kConvertDstGray;
    else
        flags &= ~kConvertDstGray;
    if ((flags & kConvertSrcRange) && (flags & kConvertDstRange)) return KS_INVALID_PARAMETER;
    if ((flags & kConvertDstRange) && !(flags & kConvertDstGray)) return KS_INVALID_PARAMETER;
    if (srcBits == 12 && !(flags & kConvertSrcGray)) return KS_INVALID_PARAMETER;
    if (dstBits == 12 && !(flags & kConvertDstGray)) return KS_INVALID_PARAMETER;

    // Significant bits of the grey samples (a non-null extra pointer makes a
    // 32-bit grey source hold 16 significant bits).
    const int srcSample = srcBits == 0 ? 8 : (srcBits == 32 && extra) ? 16 : srcBits;
    const int dstSample = dstBits == 0 ? 8 : dstBits;
    if ((flags & kConvertSrcRange) && lowBit <= 0 && (highBit == srcSample - 1 || highBit < 0))
        flags &= ~kConvertSrcRange;
    if ((flags & kConvertDstRange) && lowBit <= 0 && (highBit == dstSample - 1 || highBit < 0))
        flags &= ~kConvertDstRange;

    const int sf = srcFormat(srcBits, srcOrder);
    const int df = dstFormat(dstBits, dstOrder);
    if (sf < 0 || df < 0) return KS_INVALID_PARAMETER;

    Ctx c;
    const Kind kind = srcKind(sf);
    if (kind == Kind::Grey) {
        if (!resolveWindow(flags & kConvertSrcRange, lowBit, highBit, srcSample, c.sLo, c.sN))
            return KS_INVALID_PARAMETER;
    }
    if (df == D_G8 || df == D_G12 || df == D_G16 || df == D_G32) {
        if (!resolveWindow(flags & kConvertDstRange, lowBit, highBit, dstSample, c.dLo, c.dN))
            return KS_INVALID_PARAMETER;
    }
    const bool srcWide = srcOrder == ORDER_ROMM, dstWide = dstOrder == ORDER_ROMM;
    // The wide-primaries matrix is applied at 24 and 48 bits only; refuse other
    // depths here, before a sample changes.
    if (dstWide && !srcWide && dstBits != 24 && dstBits != 48) return KS_NOT_SUPPORTED;
    // ---- every check is done: pixels may change from here on.

    if (srcWide && !dstWide && srcBits >= 24 && srcBits != 32) {
        // The samples of a wide-primaries source come back to plain BGR first.
        if (srcBits == 24)
            widePrimariesInverse8(buffer, size_t(width), 3);
        else if (srcBits == 48)
            widePrimariesInverse16(buffer, size_t(width), 3);
        else
            widePrimariesInverse16(buffer, size_t(width), 4);
    }

    c.palSrc = srcBits >= 1 && srcBits <= 8 ? (srcPalette ? srcPalette : fixedPalette(srcBits)) : nullptr;
    if (dstBits >= 1 && dstBits <= 8) {
        c.palDst = dstPalette ? dstPalette : fixedPalette(dstBits);
        c.palDstN = 1 << dstBits;
        c.tree = tree;
        // The fixed 256-colour palette (by default or passed byte for byte)
        // has a direct exact index.
        if (dstBits == 8 && (!dstPalette || std::memcmp(dstPalette, fixedPalette(8), 256 * sizeof(RGBQUAD)) == 0))
            c.exact = fixed256Index;
    }
    const bool transparent = (flags & kConvertTransparent) && (dstBits == 32 || dstBits == 64);
    c.crIndex = colorRefIsIndex(crTransparent);
    c.crR = uint8_t(crTransparent);
    c.crG = uint8_t(crTransparent >> 8);
    c.crB = uint8_t(crTransparent >> 16);
    c.crI = uint8_t(crTransparent);

    const size_t w = size_t(width);
    RowFn direct = nullptr;
    if (!transparent && kind == Kind::Colour && !(srcBits >= 1 && srcBits <= 8) && !(dstBits <= 8)) {
        const int so = srcOrder == ORDER_ROMM ? ORDER_BGR : srcOrder;
        const int dO = dstOrder == ORDER_ROMM ? ORDER_BGR : dstOrder;
        direct = pickDirect(DirectKey{srcBits, so, dstBits, dO}, simdCeiling());
    } else if (!transparent && kind == Kind::Colour && dstBits == 0 && !(flags & kConvertDstRange) &&
               (srcBits == 24 || srcBits == 32)) {
        const int so = srcOrder == ORDER_ROMM ? ORDER_BGR : srcOrder;
        direct = pickDirect(DirectKey{srcBits, so, 0, ORDER_GRAY}, simdCeiling());
    }
    IndexFn toIndex8 = (df == D_IDX8) ? pickIndex8(sf) : nullptr;
    const Fixed256Fn toFixed256 = (df == D_IDX8 && c.exact == fixed256Index && !c.tree) ? pickFixed256(sf) : nullptr;
    ExpandFn expand = transparent ? nullptr : pickExpand(srcBits, df);
    if (direct) {
        direct(buffer, w);
    } else if (expand) {
        expand(buffer, w, c.palSrc);
    } else if (toFixed256) {
        toFixed256(buffer, w);
    } else {
        IndexCache cache;
        if (c.palDst && !c.exact && w >= 64) {
            std::memset(cache.key, 0, sizeof cache.key);
            c.cache = &cache;
        }
        if (toIndex8) {
            toIndex8(buffer, w, c);
        } else {
            const DecodeFn dec = kDecoders[sf];
            const EncodeFn enc = kEncoders[df][int(kind)][transparent ? 1 : 0];
            constexpr size_t kChunk = 256;
            Px tmp[kChunk];
            const int sb = srcBits == 0 ? 8 : srcBits, db = dstBits == 0 ? 8 : dstBits;
            if (db > sb) {
                // Wider destination: from the end towards the start.
                size_t e = w;
                while (e > 0) {
                    size_t n = std::min(e, kChunk), s = e - n;
                    dec(buffer, s, n, tmp, c);
                    enc(buffer, s, n, tmp, c);
                    e = s;
                }
            } else {
                for (size_t s = 0; s < w; s += kChunk) {
                    size_t n = std::min(w - s, kChunk);
                    dec(buffer, s, n, tmp, c);
                    enc(buffer, s, n, tmp, c);
                }
            }
        }
    }

    if (dstWide && !srcWide) {
        if (dstBits == 24)
            widePrimariesForward8(buffer, w, 3);
        else
            widePrimariesForward16(buffer, w, 3);
    }
    return KS_SUCCESS;
}

// ------------------------------------------------------------ grey reduction
namespace {
int32_t gray32Reduce(const void* src, void* dst, int32_t count, int32_t lowBit, int32_t highBit, int to) {
    if (!src || !dst || count <= 0) return KS_INVALID_PARAMETER;
    int lo, n;
    if (!resolveWindow(lowBit > 0 || highBit >= 0, lowBit, highBit, 32, lo, n)) return KS_INVALID_PARAMETER;
    const auto* s = static_cast<const uint8_t*>(src);
    auto* d = static_cast<uint8_t*>(dst);
    const uint32_t mask = n >= 32 ? 0xFFFFFFFFu : ((1u << n) - 1u);
    for (size_t i = 0; i < size_t(count); ++i) {
        uint32_t v = grayScale((conv::ld32(s + 4 * i) >> lo) & mask, n, to);
        if (to == 16)
            conv::st16(d + 2 * i, v);
        else
            d[i] = uint8_t(v);
    }
    return KS_SUCCESS;
}
}  // namespace

}  // namespace krn

using namespace krn;

KAPI int32_t K_ConvertBuffer(uint8_t* pBuffer, int32_t nWidth, int32_t nBitsPerPixelSrc, int32_t nBitsPerPixelDst,
                             int32_t nOrderSrc, int32_t nOrderDst, const RGBQUAD* pPaletteSrc,
                             const RGBQUAD* pPaletteDst) {
    uint32_t flags = (nOrderSrc == ORDER_GRAY ? kConvertSrcGray : 0u) | (nOrderDst == ORDER_GRAY ? kConvertDstGray : 0u);
    return convertBuffer(pBuffer, nWidth, nBitsPerPixelSrc, nBitsPerPixelDst, nOrderSrc, nOrderDst, pPaletteSrc,
                         pPaletteDst, nullptr, flags, -1, -1, 0, nullptr);
}

KAPI int32_t K_ConvertBufferExt(uint8_t* pBuffer, int32_t nWidth, int32_t nBitsPerPixelSrc,
                                int32_t nBitsPerPixelDst, int32_t nOrderSrc, int32_t nOrderDst,
                                const RGBQUAD* pPaletteSrc, const RGBQUAD* pPaletteDst, uint32_t uFlags,
                                int32_t nLowBit, int32_t nHighBit) {
    return convertBuffer(pBuffer, nWidth, nBitsPerPixelSrc, nBitsPerPixelDst, nOrderSrc, nOrderDst, pPaletteSrc,
                         pPaletteDst, nullptr, uFlags, nLowBit, nHighBit, 0, nullptr);
}

KAPI int32_t K_ConvertBufferExt2(uint8_t* pBuffer, int32_t nWidth, int32_t nBitsPerPixelSrc,
                                 int32_t nBitsPerPixelDst, int32_t nOrderSrc, int32_t nOrderDst,
                                 const RGBQUAD* pPaletteSrc, const RGBQUAD* pPaletteDst, void* pExtra,
                                 int32_t /*nReserved*/, uint32_t uFlags, int32_t nLowBit, int32_t nHighBit) {
    return convertBuffer(pBuffer, nWidth, nBitsPerPixelSrc, nBitsPerPixelDst, nOrderSrc, nOrderDst, pPaletteSrc,
                         pPaletteDst, pExtra, uFlags, nLowBit, nHighBit, 0, nullptr);
}

KAPI int32_t K_ConvertBufferExt3(uint8_t* pBuffer, int32_t nWidth, int32_t nBitsPerPixelSrc,
                                 int32_t nBitsPerPixelDst, int32_t nOrderSrc, int32_t nOrderDst,
                                 const RGBQUAD* pPaletteSrc, const RGBQUAD* pPaletteDst, void* pExtra,
                                 int32_t /*nReserved*/, uint32_t uFlags, int32_t nLowBit, int32_t nHighBit,
                                 uint32_t crTransparent) {
    return convertBuffer(pBuffer, nWidth, nBitsPerPixelSrc, nBitsPerPixelDst, nOrderSrc, nOrderDst, pPaletteSrc,
                         pPaletteDst, pExtra, uFlags, nLowBit, nHighBit, crTransparent, nullptr);
}

KAPI uint32_t K_CalcConvertSize(int32_t nWidthA, int32_t nBitsA, int32_t nWidthB, int32_t nBitsB) {
    if (nWidthA < 0 || nWidthB < 0 || nBitsA < 0 || nBitsB < 0) return 0;
    auto row = [](int32_t w, int32_t b) -> uint64_t {
        uint64_t bits = uint64_t(w) * uint64_t(b == 0 ? 8 : b);
        return ((bits + 31) / 32) * 4;
    };
    uint64_t m = std::max({row(nWidthA, nBitsA), row(nWidthB, nBitsA), row(nWidthB, nBitsB)});
    return m > 0xFFFFFFFFull ? 0u : uint32_t(m);
}

KAPI int32_t K_PadPixelData(void* pData, int32_t nBitsPerPixel, int32_t nCount, int32_t nHighBit, int32_t nLowBit,
                            int32_t nPad) {
    if (!pData || nBitsPerPixel != 16) return KS_INVALID_PARAMETER;
    int32_t hi = nHighBit < 0 ? 0 : (nHighBit > 15 ? 1 : nHighBit);
    int32_t lo = nLowBit < 0 ? 0 : std::max(std::min(nLowBit, hi - 1), 0);
    if (hi == 15 && lo == 0) return KS_SUCCESS;
    const uint32_t range = 1u << (hi - lo + 1);
    const uint32_t pad = nPad <= 0 ? 0u : std::min(range / 4, uint32_t(nPad));
    if (pad == 0) return KS_SUCCESS;
    const uint32_t smallest = lo > 0 ? (pad << lo) : 0u;
    const uint32_t largest = (1u << (hi + 1)) - 1u - (hi < 15 ? pad : 0u);
    const uint32_t wmask = ((range - 1u) << lo) & 0xFFFFu;
    auto* p = static_cast<uint8_t*>(pData);
    for (int32_t i = 0; i < nCount; ++i, p += 2) {
        uint32_t s = conv::ld16(p), part = s & wmask;
        if (part < smallest)
            part = smallest;
        else if (part > largest)
            part = largest;
        else
            continue;
        conv::st16(p, (s & ~wmask) | (part & wmask));
    }
    return KS_SUCCESS;
}

KAPI int32_t K_Gray32To16(const void* pSrc, void* pDst, int32_t nCount, int32_t nLowBit, int32_t nHighBit) {
    return gray32Reduce(pSrc, pDst, nCount, nLowBit, nHighBit, 16);
}

KAPI int32_t K_Gray32To8(const void* pSrc, uint8_t* pDst, int32_t nCount, int32_t nLowBit, int32_t nHighBit) {
    return gray32Reduce(pSrc, pDst, nCount, nLowBit, nHighBit, 8);
}
