// orient_ref.h - index-arithmetic oracle of the eight orientations: grids, viewed images, turns and flips, a bitmap's
// stored pixels as a grid.
#pragma once

#include "transform_kit.h"

namespace orienttest {

struct Grid {
    int w = 0, h = 0;
    std::vector<uint64_t> v;
    Grid() = default;
    Grid(int w_, int h_) : w(w_), h(h_), v(size_t(w_) * size_t(h_), 0) {}
    uint64_t& at(int x, int y) { return v[size_t(y) * size_t(w) + size_t(x)]; }
    uint64_t at(int x, int y) const { return v[size_t(y) * size_t(w) + size_t(x)]; }
    bool operator==(const Grid& o) const { return w == o.w && h == o.h && v == o.v; }
};

inline Grid randomGrid(int w, int h, int bpp, uint32_t seed) {
    std::mt19937_64 rng(seed);
    Grid g(w, h);
    for (auto& x : g.v) x = rng() & (bpp >= 64 ? ~uint64_t(0) : (uint64_t(1) << bpp) - 1);
    return g;
}

// A grid of size w x h whose pixel (x, y) is s.at(from(x, y)).
template <class F>
Grid remap(const Grid& s, int w, int h, F&& from) {
    Grid d(w, h);
    for (int i = 0; i < w * h; ++i) {
        const auto [sx, sy] = from(i % w, i / w);
        d.v[size_t(i)] = s.at(sx, sy);
    }
    return d;
}

// The viewed image of stored pixels s in perspective p: where the first stored row and the first stored column lie in
// the viewed image.
inline Grid viewed(const Grid& s, int p) {
    const int W = p >= 5 ? s.h : s.w, H = p >= 5 ? s.w : s.h;
    return remap(s, W, H, [&](int x, int y) {
        switch (p) {
            case 2: return std::pair{W - 1 - x, y};          // top, right
            case 3: return std::pair{W - 1 - x, H - 1 - y};  // bottom, right
            case 4: return std::pair{x, H - 1 - y};          // bottom, left
            case 5: return std::pair{y, x};                  // left, top
            case 6: return std::pair{y, W - 1 - x};          // right, top
            case 7: return std::pair{H - 1 - y, W - 1 - x};  // right, bottom
            case 8: return std::pair{H - 1 - y, x};          // left, bottom
            default: return std::pair{x, y};                 // top, left
        }
    });
}
// The stored pixels whose viewed image in perspective p is v.
inline Grid storedFor(const Grid& v, int p) {
    Grid idx(p >= 5 ? v.h : v.w, p >= 5 ? v.w : v.h), s = idx;
    for (size_t i = 0; i < idx.v.size(); ++i) idx.v[i] = i;
    const Grid at = viewed(idx, p);
    for (size_t i = 0; i < at.v.size(); ++i) s.v[at.v[i]] = v.v[i];
    return s;
}
using P = std::pair<int, int>;
// Turned a quarter clockwise as seen: the top row becomes the right column.
inline Grid turnedCw(const Grid& s) { return remap(s, s.h, s.w, [&](int x, int y) { return P{y, s.h - 1 - x}; }); }
inline Grid flipped(const Grid& s) { return remap(s, s.w, s.h, [&](int x, int y) { return P{x, s.h - 1 - y}; }); }
inline Grid mirrored(const Grid& s) { return remap(s, s.w, s.h, [&](int x, int y) { return P{s.w - 1 - x, y}; }); }
inline Grid halfTurned(const Grid& g) { return flipped(mirrored(g)); }
inline Grid turnedCcw(const Grid& g) { return turnedCw(halfTurned(g)); }

// A grid as packed rows (4-byte padded), and back.
inline storagetest::RefImage image(const Grid& g, int bpp) {
    storagetest::RefImage img(g.w, g.h, bpp);
    for (int i = 0; i < g.w * g.h; ++i) storagetest::setPixel(img.row(i / g.w), i % g.w, bpp, g.v[size_t(i)]);
    return img;
}
inline std::vector<uint8_t> pack(const Grid& g, int bpp) { return image(g, bpp).px; }
inline Grid gridOf(storagetest::RefImage img) {
    Grid g(img.width, img.height);
    for (int i = 0; i < g.w * g.h; ++i) g.v[size_t(i)] = storagetest::getPixel(img.row(i / g.w), i % g.w, img.bpp);
    return g;
}

// The stored pixels of a bitmap through the row API, and a whole grid into one.
inline Grid stored(BITMAPRECORD* bm) { return gridOf(tkit::getImage(bm)); }
inline bool store(BITMAPRECORD* bm, const Grid& g) {
    storagetest::RefImage img = image(g, bm->nBitsPerPixel);
    return tkit::putImage(bm, img) == KS_SUCCESS;
}

// The bitmap's region as a mask over its stored pixels (1 = in the region).
inline Grid regionGrid(BITMAPRECORD* bm) {
    Grid g(bm->nWidth, bm->nHeight);
    for (int i = 0; i < g.w * g.h; ++i) g.v[size_t(i)] = K_IsPtInBitmapRgn(bm, i / g.w, i % g.w) ? 1 : 0;
    return g;
}

inline Grid same(const Grid& g) { return g; }
// A bitmap of a kind with random stored pixels (order BGR beyond 8 bits, when asked) and an elliptic region that no
// flip or turn maps onto itself (when asked); the record as it was made.
struct Sample {
    tkit::KindBitmap kb;
    Grid pixels, mask;
    BITMAPRECORD before{};
    Sample(tkit::Kind k, int w, int h, int bpp, uint32_t seed, bool withRegion = true, bool bgr = false)
        : kb(k, w, h, bpp) {
        if (kb.rc != KS_SUCCESS) return;
        if (bgr && bpp > 8) kb.bm.nOrder = ORDER_BGR;
        pixels = randomGrid(w, h, bpp, seed);
        EXPECT_TRUE(store(&kb.bm, pixels));
        const RECT e{1, 0, w - 2, h - 1};
        if (withRegion) { EXPECT_EQ(K_SetBitmapRgnEllipse(&kb.bm, nullptr, &e, 1), KS_SUCCESS); }
        mask = regionGrid(&kb.bm), before = kb.bm;
    }
    BITMAPRECORD* bm() { return &kb.bm; }
    // The stored pixels and the region are `f` applied to the originals.
    template <class F>
    bool holds(F&& f) { return stored(bm()) == f(pixels) && regionGrid(bm()) == f(mask); }
    bool unchanged() { return tkit::sameBytes(before, kb.bm) && holds(same); }  // record, pixels and region
};

}  // namespace orienttest
