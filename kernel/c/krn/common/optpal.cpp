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
