// palette_fixed.cpp - the fixed 256-colour palette answered without a search:
// the entry K_FindPaletteIndex would pick, per channel, and row kernels that
// map 24-bit BGR rows to it (used by the converter and colour resolution).
#include <cstdint>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "hooks.h"
#include "palette.h"

namespace krn {
// ---------------------------------------------------------------- fixed 256 palette

namespace {

struct Fixed256Tables {
    // Per channel: the level index shifted into place; bit 15 marks a value
    // equally far from two levels.
    uint16_t r[256], g[256], b[256];
    uint8_t entryClass[256];  // hue class of each entry of the palette
    // The answer for a colour midway between levels: [first candidate][red
    // ties][green ties][the colour's hue class].
    uint8_t tie[256][2][2][8];
    Fixed256Tables() noexcept {
        static constexpr int L8[8] = {0, 36, 73, 109, 146, 182, 219, 255};
        static constexpr int L4[4] = {0, 85, 170, 255};
        auto nearest = [](const int* levels, int count, int v, bool& tie) {
            int best = 0, bestD = 1 << 30;
            tie = false;
            for (int i = 0; i < count; ++i) {
                int d = std::abs(levels[i] - v);
                if (d < bestD) {
                    bestD = d;
                    best = i;
                    tie = false;
                } else if (d == bestD) {
                    tie = true;
                }
            }
            return best;
        };
        for (int v = 0; v < 256; ++v) {
            bool t;
            int i = nearest(L8, 8, v, t);
            r[v] = uint16_t((i << 5) | (t ? 0x8000 : 0));
            g[v] = uint16_t((nearest(L8, 8, v, t) << 2) | (t ? 0x8000 : 0));
            b[v] = uint16_t(nearest(L4, 4, v, t) | (t ? 0x8000 : 0));
        }
        for (int i = 0; i < 256; ++i) entryClass[i] = uint8_t(hueClass(L8[i >> 5], L8[(i >> 2) & 7], L4[i & 3]));
        // Among the tied entries, in index order, the last whose hue class
        // is the colour's wins, else the first.
        for (int first = 0; first < 256; ++first)
            for (int nr = 1; nr <= 2; ++nr)
                for (int ng = 1; ng <= 2; ++ng)
                    for (int cls = 0; cls < 8; ++cls) {
                        int match = -1;
                        for (int i = 0; i < nr; ++i)
                            for (int j = 0; j < ng; ++j) {
                                const int idx = first + (i << 5) + (j << 2);
                                if (idx < 256 && entryClass[idx] == cls) match = idx;
                            }
                        tie[first][nr - 1][ng - 1][cls] = uint8_t(match >= 0 ? match : first);
                    }
    }
};
const Fixed256Tables& fixed256Tables() noexcept {
    static const Fixed256Tables t;
    return t;
}

}  // namespace

// A value midway between two red (or green) levels leaves two (or four)
// entries at the same smallest distance; the search's tie rule then picks the
// last of them, in index order, whose hue class is the colour's, else the
// first. (A midpoint is never a level, so there is no exact match, and black
// and white are never midpoints.)
static int32_t fixed256Tie(int r, int g, int b) noexcept {
    const Fixed256Tables& t = fixed256Tables();
    const int first = (t.r[r] | t.g[g] | t.b[b]) & 0xFF;
    return t.tie[first][t.r[r] >> 15][t.g[g] >> 15][hueClass(r, g, b)];
}

int32_t fixed256Index(int r, int g, int b) noexcept {
    const Fixed256Tables& t = fixed256Tables();
    const uint32_t v = uint32_t(t.r[r]) | t.g[g] | t.b[b];
    if (v & 0x8000u) return fixed256Tie(r, g, b);
    return int32_t(v);
}

void fixed256RowPlain(const uint8_t* bgr, uint8_t* idx, int32_t w) noexcept {
    const Fixed256Tables& t = fixed256Tables();
    for (int32_t x = 0; x < w; ++x, bgr += 3) {
        const uint32_t v = uint32_t(t.r[bgr[2]]) | t.g[bgr[1]] | t.b[bgr[0]];
        idx[x] = (v & 0x8000u) ? uint8_t(fixed256Tie(bgr[2], bgr[1], bgr[0])) : uint8_t(v);
    }
}

#if defined(__x86_64__) || defined(__i386__)
bool cpuHasSsse3() noexcept {
    static const bool has = __builtin_cpu_supports("ssse3");
    return has;
}

// Level of each byte: the count of thresholds it exceeds (unsigned compare
// by flipping the sign bit).
__attribute__((target("ssse3"))) static inline __m128i levels(__m128i v, const __m128i* th, int n) noexcept {
    const __m128i s = _mm_xor_si128(v, _mm_set1_epi8(char(0x80)));
    __m128i lvl = _mm_setzero_si128();
    for (int i = 0; i < n; ++i) lvl = _mm_sub_epi8(lvl, _mm_cmpgt_epi8(s, th[i]));
    return lvl;
}

__attribute__((target("ssse3"))) void fixed256RowSsse3(const uint8_t* bgr, uint8_t* idx, int32_t w) noexcept {
    // Midpoints between neighbouring levels (a value above the midpoint is
    // nearer the upper level); 18, 91, 164 and 237 lie exactly between two
    // red or green levels.
    static const int kRG[7] = {18, 54, 91, 127, 164, 200, 237};
    static const int kB[3] = {42, 127, 212};
    __m128i thRG[7], thB[3];
    for (int i = 0; i < 7; ++i) thRG[i] = _mm_set1_epi8(char(kRG[i] ^ 0x80));
    for (int i = 0; i < 3; ++i) thB[i] = _mm_set1_epi8(char(kB[i] ^ 0x80));
    const __m128i tie0 = _mm_set1_epi8(18), tie1 = _mm_set1_epi8(91), tie2 = _mm_set1_epi8(char(164)),
                  tie3 = _mm_set1_epi8(char(237));
    // De-interleaving masks: bytes of channel c from each of the three 16-byte loads.
    alignas(16) int8_t m[3][3][16];
    for (int c = 0; c < 3; ++c)
        for (int part = 0; part < 3; ++part)
            for (int i = 0; i < 16; ++i) {
                const int src = i * 3 + c - part * 16;
                m[c][part][i] = int8_t(src >= 0 && src < 16 ? src : -128);
            }
    auto mask = [&](int c, int part) { return _mm_load_si128(reinterpret_cast<const __m128i*>(m[c][part])); };
    const __m128i mb0 = mask(0, 0), mb1 = mask(0, 1), mb2 = mask(0, 2);
    const __m128i mg0 = mask(1, 0), mg1 = mask(1, 1), mg2 = mask(1, 2);
    const __m128i mr0 = mask(2, 0), mr1 = mask(2, 1), mr2 = mask(2, 2);
    int32_t x = 0;
    for (; x + 16 <= w; x += 16, bgr += 48) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bgr));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bgr + 16));
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bgr + 32));
        const __m128i B = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, mb0), _mm_shuffle_epi8(b, mb1)), _mm_shuffle_epi8(c, mb2));
        const __m128i G = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, mg0), _mm_shuffle_epi8(b, mg1)), _mm_shuffle_epi8(c, mg2));
        const __m128i R = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, mr0), _mm_shuffle_epi8(b, mr1)), _mm_shuffle_epi8(c, mr2));
        __m128i tie = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(R, tie0), _mm_cmpeq_epi8(R, tie1)),
                                   _mm_or_si128(_mm_cmpeq_epi8(R, tie2), _mm_cmpeq_epi8(R, tie3)));
        tie = _mm_or_si128(tie, _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(G, tie0), _mm_cmpeq_epi8(G, tie1)),
                                             _mm_or_si128(_mm_cmpeq_epi8(G, tie2), _mm_cmpeq_epi8(G, tie3))));
        const __m128i lr = levels(R, thRG, 7), lg = levels(G, thRG, 7), lb = levels(B, thB, 3);
        // lr << 5 | lg << 2 | lb: levels are at most 7, so 16-bit shifts carry nothing across bytes.
        const __m128i v = _mm_or_si128(_mm_or_si128(_mm_slli_epi16(lr, 5), _mm_slli_epi16(lg, 2)), lb);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(idx + x), v);
        // Pixels midway between two levels get the tie rule.
        for (uint32_t bits = uint32_t(_mm_movemask_epi8(tie)); bits; bits &= bits - 1) {
            const int i = __builtin_ctz(bits);
            idx[x + i] = uint8_t(fixed256Tie(bgr[i * 3 + 2], bgr[i * 3 + 1], bgr[i * 3]));
        }
    }
    if (x < w) fixed256RowPlain(bgr, idx + x, w - x);
}
bool cpuHasAvx2ForColorRes() noexcept {
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}

__attribute__((target("avx2"))) static inline __m256i levels256(__m256i v, const __m256i* th, int n) noexcept {
    const __m256i s = _mm256_xor_si256(v, _mm256_set1_epi8(char(0x80)));
    __m256i lvl = _mm256_setzero_si256();
    for (int i = 0; i < n; ++i) lvl = _mm256_sub_epi8(lvl, _mm256_cmpgt_epi8(s, th[i]));
    return lvl;
}

// The SSSE3 kernel's steps on 32 pixels: each 128-bit lane de-interleaves 16.
__attribute__((target("avx2"))) void fixed256RowAvx2(const uint8_t* bgr, uint8_t* idx, int32_t w) noexcept {
    static const int kRG[7] = {18, 54, 91, 127, 164, 200, 237};
    static const int kB[3] = {42, 127, 212};
    __m256i thRG[7], thB[3];
    for (int i = 0; i < 7; ++i) thRG[i] = _mm256_set1_epi8(char(kRG[i] ^ 0x80));
    for (int i = 0; i < 3; ++i) thB[i] = _mm256_set1_epi8(char(kB[i] ^ 0x80));
    const __m256i tie0 = _mm256_set1_epi8(18), tie1 = _mm256_set1_epi8(91), tie2 = _mm256_set1_epi8(char(164)),
                  tie3 = _mm256_set1_epi8(char(237));
    alignas(16) int8_t m[3][3][16];
    for (int c = 0; c < 3; ++c)
        for (int part = 0; part < 3; ++part)
            for (int i = 0; i < 16; ++i) {
                const int src = i * 3 + c - part * 16;
                m[c][part][i] = int8_t(src >= 0 && src < 16 ? src : -128);
            }
#define OMBRIX_MASK256(c, part) _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(m[c][part])))
#define mask(c, part) OMBRIX_MASK256(c, part)
    const __m256i mb0 = mask(0, 0), mb1 = mask(0, 1), mb2 = mask(0, 2);
    const __m256i mg0 = mask(1, 0), mg1 = mask(1, 1), mg2 = mask(1, 2);
    const __m256i mr0 = mask(2, 0), mr1 = mask(2, 1), mr2 = mask(2, 2);
#undef mask
#undef OMBRIX_MASK256
#define load2(p)                                                                                             \
    _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))), \
                            _mm_loadu_si128(reinterpret_cast<const __m128i*>((p) + 48)), 1)
    int32_t x = 0;
    for (; x + 32 <= w; x += 32, bgr += 96) {
        const __m256i a = load2(bgr), b = load2(bgr + 16), c = load2(bgr + 32);
        const __m256i B = _mm256_or_si256(_mm256_or_si256(_mm256_shuffle_epi8(a, mb0), _mm256_shuffle_epi8(b, mb1)),
                                          _mm256_shuffle_epi8(c, mb2));
        const __m256i G = _mm256_or_si256(_mm256_or_si256(_mm256_shuffle_epi8(a, mg0), _mm256_shuffle_epi8(b, mg1)),
                                          _mm256_shuffle_epi8(c, mg2));
        const __m256i R = _mm256_or_si256(_mm256_or_si256(_mm256_shuffle_epi8(a, mr0), _mm256_shuffle_epi8(b, mr1)),
                                          _mm256_shuffle_epi8(c, mr2));
        __m256i tie = _mm256_or_si256(_mm256_or_si256(_mm256_cmpeq_epi8(R, tie0), _mm256_cmpeq_epi8(R, tie1)),
                                      _mm256_or_si256(_mm256_cmpeq_epi8(R, tie2), _mm256_cmpeq_epi8(R, tie3)));
        tie = _mm256_or_si256(tie, _mm256_or_si256(_mm256_or_si256(_mm256_cmpeq_epi8(G, tie0), _mm256_cmpeq_epi8(G, tie1)),
                                                   _mm256_or_si256(_mm256_cmpeq_epi8(G, tie2), _mm256_cmpeq_epi8(G, tie3))));
        const __m256i lr = levels256(R, thRG, 7), lg = levels256(G, thRG, 7), lb = levels256(B, thB, 3);
        const __m256i v = _mm256_or_si256(_mm256_or_si256(_mm256_slli_epi16(lr, 5), _mm256_slli_epi16(lg, 2)), lb);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(idx + x), v);
        for (uint32_t bits = uint32_t(_mm256_movemask_epi8(tie)); bits; bits &= bits - 1) {
            const int i = __builtin_ctz(bits);
            idx[x + i] = uint8_t(fixed256Tie(bgr[i * 3 + 2], bgr[i * 3 + 1], bgr[i * 3]));
        }
    }
#undef load2
    if (x < w) fixed256RowSsse3(bgr, idx + x, w - x);
}
#else
bool cpuHasSsse3() noexcept { return false; }
bool cpuHasAvx2ForColorRes() noexcept { return false; }
void fixed256RowSsse3(const uint8_t* bgr, uint8_t* idx, int32_t w) noexcept { fixed256RowPlain(bgr, idx, w); }
void fixed256RowAvx2(const uint8_t* bgr, uint8_t* idx, int32_t w) noexcept { fixed256RowPlain(bgr, idx, w); }
#endif

void fixed256Row(const uint8_t* bgr, uint8_t* idx, int32_t w) noexcept {
    static const auto kernel = cpuHasAvx2ForColorRes() ? &fixed256RowAvx2
                               : cpuHasSsse3()          ? &fixed256RowSsse3
                                                        : &fixed256RowPlain;
    kernel(bgr, idx, w);
}


}  // namespace krn
