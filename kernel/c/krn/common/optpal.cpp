// optpal.cpp - the optimised-palette builder and the exact nearest-entry
// search that colour resolution maps pixels with.
//
//   NearestIndex            cell-pruned exact search (same answer as K_FindPaletteIndex)
//   fixed256Index           direct index into the fixed 256-colour palette
//   buildOptimizedPalette   variance-minimising split of a 32x32x32 moment
//                           histogram, then weighted k-means in RGB
//
// The palette method. The colour sample arrives as cells of a 64x64x64 grid,
// each with the exact sums of its members' red, green and blue and their
// count, so every centroid below is exact. (1) The split: the cells are
// binned into a 32x32x32 histogram of moments (count, sums, sum of squares)
// with cumulative tables; starting from the whole cube, the box whose
// squared error is largest is cut, along the axis and at the position that
// leaves the least squared error in its two halves, until there are as many
// boxes as free entries (or no box can be cut: fewer colours). (2) The
// refinement: Lloyd iterations over the cells with their counts as weights,
// assigning each cell's mean to the nearest entry of the rounded palette by
// the kernel's own rule (NearestIndex), so the palette is optimised for the
// very mapping that will use it; caller entries are clusters that never
// move. The error is squared RGB distance because that is the distance the
// nearest-entry search minimises; a perceptual weighting would optimise a
// different mapping than the one the pixels then take.
#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "colorres.h"
#include "hooks.h"
#include "palette.h"

namespace krn {

// ---------------------------------------------------------------- nearest entry

namespace {

inline uint32_t sq(int v) noexcept { return uint32_t(v * v); }

// Smallest and largest squared distance along one axis from value e to the
// interval [lo, hi].
inline void axisRange(int e, int lo, int hi, uint32_t& dmin, uint32_t& dmax) noexcept {
    dmin = e < lo ? sq(lo - e) : e > hi ? sq(e - hi) : 0u;
    dmax = std::max(sq(e - lo), sq(e - hi));
}

}  // namespace

bool NearestIndex::build(const RGBQUAD* pal, int32_t n, bool fine) noexcept {
    if (!pal || n < 1 || n > 256) return false;
    pal_ = pal;
    n_ = n;
    black_ = findPaletteIndex(pal, n, 0, 0, 0);
    white_ = findPaletteIndex(pal, n, 255, 255, 255);
    for (int32_t i = 0; i < n; ++i) {
        rgb_[i][0] = pal[i].rgbRed;
        rgb_[i][1] = pal[i].rgbGreen;
        rgb_[i][2] = pal[i].rgbBlue;
        rgb_[i][3] = uint8_t(hueClass(pal[i].rgbRed, pal[i].rgbGreen, pal[i].rgbBlue));
    }
    // Cells of 8 (fine, large palettes) or 16 values per axis.
    shift_ = fine && n > 16 ? 3 : 4;
    const int axis = 256 >> shift_, size = 1 << shift_;
    const int cells = axis * axis * axis;
    try {
        start_.assign(size_t(cells) + 1, 0);
        cand_.clear();
        cand_.reserve(size_t(cells) * std::min<int32_t>(n, 8));
        uint32_t dmin[256], dmax[256];
        for (int cell = 0; cell < cells; ++cell) {
            const int r0 = (cell / (axis * axis)) * size, g0 = ((cell / axis) % axis) * size, b0 = (cell % axis) * size;
            uint32_t bound = 0xFFFFFFFFu;
            for (int32_t i = 0; i < n; ++i) {
                uint32_t a, b, c, d, e, f;
                axisRange(rgb_[i][0], r0, r0 + size - 1, a, b);
                axisRange(rgb_[i][1], g0, g0 + size - 1, c, d);
                axisRange(rgb_[i][2], b0, b0 + size - 1, e, f);
                dmin[i] = a + c + e;
                dmax[i] = b + d + f;
                bound = std::min(bound, dmax[i]);
            }
            const size_t from = cand_.size();
            start_[size_t(cell)] = uint32_t(from);
            for (int32_t i = 0; i < n; ++i)
                if (dmin[i] <= bound) cand_.push_back(Cand{dmin[i], uint32_t(i)});
            std::sort(cand_.begin() + std::ptrdiff_t(from), cand_.end(),
                      [](const Cand& a, const Cand& b) { return a.dmin < b.dmin || (a.dmin == b.dmin && a.index < b.index); });
        }
        start_[size_t(cells)] = uint32_t(cand_.size());
    } catch (...) {
        return false;
    }
    return true;
}

int32_t NearestIndex::operator()(int r, int g, int b) const noexcept {
    if ((r | g | b) == 0) return black_;
    if ((r & g & b) == 255) return white_;
    const int k = 8 - shift_;
    const int cell = ((r >> shift_) << (2 * k)) | ((g >> shift_) << k) | (b >> shift_);
    const Cand* c = cand_.data() + start_[size_t(cell)];
    const Cand* end = cand_.data() + start_[size_t(cell) + 1];
    // The search's answer without walking in index order: with D the smallest
    // distance, the first entry at distance 0 when D = 0, else the last entry
    // at D of the colour's hue class, else the first entry at D.
    const int cls = hueClass(r, g, b);
    uint32_t best = 0xFFFFFFFFu;
    uint32_t first = 0xFFFFFFFFu;
    int32_t match = -1;
    for (; c != end && c->dmin <= best; ++c) {
        const uint8_t* e = rgb_[c->index];
        const uint32_t d = sq(e[0] - r) + sq(e[1] - g) + sq(e[2] - b);
        if (d < best) {
            best = d;
            first = c->index;
            match = e[3] == cls ? int32_t(c->index) : -1;
        } else if (d == best) {
            first = std::min(first, c->index);
            if (e[3] == cls && int32_t(c->index) > match) match = int32_t(c->index);
        }
    }
    if (best == 0 || match < 0) return int32_t(first);
    return match;
}

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

// ---------------------------------------------------------------- the split

namespace {

constexpr int kSide = 33;  // 32 bins per axis plus the zero plane
inline size_t at(int r, int g, int b) noexcept { return (size_t(r) * kSide + size_t(g)) * kSide + size_t(b); }

struct Moments {
    double w = 0, r = 0, g = 0, b = 0, q = 0;
    Moments operator-(const Moments& o) const noexcept { return {w - o.w, r - o.r, g - o.g, b - o.b, q - o.q}; }
    Moments operator+(const Moments& o) const noexcept { return {w + o.w, r + o.r, g + o.g, b + o.b, q + o.q}; }
};

struct Box {
    int r0, r1, g0, g1, b0, b1;  // exclusive lower, inclusive upper bin index (1..32)
};

class Split {
public:
    explicit Split(kvector<Moments>& m) : m_(m) {}

    Moments vol(const Box& x) const noexcept {
        auto M = [&](int r, int g, int b) -> const Moments& { return m_[at(r, g, b)]; };
        return M(x.r1, x.g1, x.b1) - M(x.r1, x.g1, x.b0) - M(x.r1, x.g0, x.b1) + M(x.r1, x.g0, x.b0) -
               M(x.r0, x.g1, x.b1) + M(x.r0, x.g1, x.b0) + M(x.r0, x.g0, x.b1) - M(x.r0, x.g0, x.b0);
    }
    static double error(const Moments& v) noexcept {
        if (v.w <= 0) return 0;
        return v.q - (v.r * v.r + v.g * v.g + v.b * v.b) / v.w;
    }
    static double gain(const Moments& v) noexcept {
        return v.w > 0 ? (v.r * v.r + v.g * v.g + v.b * v.b) / v.w : 0;
    }
    // Cuts box a into a and b; false when no cut leaves weight on both sides.
    bool cut(Box& a, Box& b) const noexcept {
        const Moments whole = vol(a);
        double bestGain = -1;
        int bestDir = -1, bestPos = 0;
        for (int dir = 0; dir < 3; ++dir) {
            const int lo = dir == 0 ? a.r0 : dir == 1 ? a.g0 : a.b0;
            const int hi = dir == 0 ? a.r1 : dir == 1 ? a.g1 : a.b1;
            for (int pos = lo + 1; pos < hi; ++pos) {
                Box low = a;
                (dir == 0 ? low.r1 : dir == 1 ? low.g1 : low.b1) = pos;
                const Moments l = vol(low);
                const Moments u = whole - l;
                if (l.w <= 0 || u.w <= 0) continue;
                const double gsum = gain(l) + gain(u);
                if (gsum > bestGain) {
                    bestGain = gsum;
                    bestDir = dir;
                    bestPos = pos;
                }
            }
        }
        if (bestDir < 0) return false;
        b = a;
        if (bestDir == 0) {
            a.r1 = bestPos;
            b.r0 = bestPos;
        } else if (bestDir == 1) {
            a.g1 = bestPos;
            b.g0 = bestPos;
        } else {
            a.b1 = bestPos;
            b.b0 = bestPos;
        }
        return true;
    }

private:
    kvector<Moments>& m_;
};

}  // namespace

int32_t buildOptimizedPalette(const uint32_t* colors, const uint32_t* weights, size_t count, RGBQUAD* pal,
                              int32_t fixed, int32_t free, bool refine) noexcept {
    if (free <= 0 || count == 0) return 0;
    try {
        // (1) the split over a 32x32x32 moment histogram
        kvector<Moments> m(size_t(kSide) * kSide * kSide);
        for (size_t i = 0; i < count; ++i) {
            const uint32_t c = colors[i];
            const double w = weights[i];
            const int r = int(c >> 16) & 255, g = int(c >> 8) & 255, b = int(c) & 255;
            Moments& x = m[at((r >> 3) + 1, (g >> 3) + 1, (b >> 3) + 1)];
            x.w += w;
            x.r += w * r;
            x.g += w * g;
            x.b += w * b;
            x.q += w * double(r * r + g * g + b * b);
        }
        for (int r = 1; r < kSide; ++r)
            for (int g = 1; g < kSide; ++g)
                for (int b = 1; b < kSide; ++b) m[at(r, g, b)] = m[at(r, g, b)] + m[at(r, g, b - 1)];
        for (int r = 1; r < kSide; ++r)
            for (int g = 1; g < kSide; ++g)
                for (int b = 1; b < kSide; ++b) m[at(r, g, b)] = m[at(r, g, b)] + m[at(r, g - 1, b)];
        for (int r = 1; r < kSide; ++r)
            for (int g = 1; g < kSide; ++g)
                for (int b = 1; b < kSide; ++b) m[at(r, g, b)] = m[at(r, g, b)] + m[at(r - 1, g, b)];
        Split split(m);
        kvector<Box> boxes(static_cast<size_t>(free));
        kvector<double> err(static_cast<size_t>(free), 0.0);
        boxes[0] = Box{0, 32, 0, 32, 0, 32};
        err[0] = Split::error(split.vol(boxes[0]));
        int32_t made = 1;
        while (made < free) {
            int32_t next = -1;
            double worst = 0;
            for (int32_t i = 0; i < made; ++i)
                if (err[size_t(i)] > worst) {
                    worst = err[size_t(i)];
                    next = i;
                }
            if (next < 0) break;
            Box& a = boxes[size_t(next)];
            Box b;
            if (!split.cut(a, b)) {
                err[size_t(next)] = 0;
                continue;
            }
            boxes[size_t(made)] = b;
            err[size_t(next)] = Split::error(split.vol(a));
            err[size_t(made)] = Split::error(split.vol(b));
            ++made;
        }
        // Centroids in double precision; entries are their rounded values.
                auto setEntry = [&](int32_t k, double r, double g, double b) {
            pal[k].rgbRed = uint8_t(std::clamp(std::lround(r), 0L, 255L));
            pal[k].rgbGreen = uint8_t(std::clamp(std::lround(g), 0L, 255L));
            pal[k].rgbBlue = uint8_t(std::clamp(std::lround(b), 0L, 255L));
            pal[k].rgbReserved = 0;
        };
        for (int32_t i = 0; i < made; ++i) {
            const Moments v = split.vol(boxes[size_t(i)]);
            setEntry(fixed + i, v.r / v.w, v.g / v.w, v.b / v.w);
        }
        if (!refine) return made;
        m = kvector<Moments>();  // give the histogram back before the refinement

        // (2) weighted k-means over the sample, assignment by the kernel's rule
        const int32_t total = fixed + made;
        const size_t nt = static_cast<size_t>(total);
        kvector<double> sw(nt), sr(nt), sg(nt), sb(nt);
        kvector<uint8_t> last(count, 0xFF);
        NearestIndex nearest;
        for (int iter = 0; iter < 10; ++iter) {
            if (!nearest.build(pal, total)) return -1;
            std::fill(sw.begin(), sw.end(), 0.0);
            std::fill(sr.begin(), sr.end(), 0.0);
            std::fill(sg.begin(), sg.end(), 0.0);
            std::fill(sb.begin(), sb.end(), 0.0);
            size_t moved = 0;
            for (size_t i = 0; i < count; ++i) {
                const uint32_t c = colors[i];
                const int r = int(c >> 16) & 255, g = int(c >> 8) & 255, b = int(c) & 255;
                const int32_t k = nearest(r, g, b);
                if (last[i] != uint8_t(k)) {
                    last[i] = uint8_t(k);
                    ++moved;
                }
                const double w = weights[i];
                sw[size_t(k)] += w;
                sr[size_t(k)] += w * r;
                sg[size_t(k)] += w * g;
                sb[size_t(k)] += w * b;
            }
            for (int32_t k = fixed; k < total; ++k)
                if (sw[size_t(k)] > 0)
                    setEntry(k, sr[size_t(k)] / sw[size_t(k)], sg[size_t(k)] / sw[size_t(k)],
                             sb[size_t(k)] / sw[size_t(k)]);
            if (iter > 0 && moved * 1000 < count) break;
        }
        return made;
    } catch (...) {
        return -1;
    }
}

}  // namespace krn
