// orient_ref.h - plain index-arithmetic oracle of the eight orientations, for
// the orientation tests: an image as a grid of pixel values, the viewed image
// of stored pixels in each perspective written straight from the meaning of
// the eight values, and reading and writing a bitmap's stored pixels.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "ombrix.h"
#include "storage_kinds.h"

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

inline uint64_t maxValue(int bpp) { return bpp >= 64 ? ~uint64_t(0) : (uint64_t(1) << bpp) - 1; }

inline Grid randomGrid(int w, int h, int bpp, uint32_t seed) {
    std::mt19937_64 rng(seed);
    Grid g(w, h);
    for (auto& x : g.v) x = rng() & maxValue(bpp);
    return g;
}

// The viewed image of stored pixels s in perspective p: where the first stored
// row and the first stored column lie in the viewed image.
inline Grid viewed(const Grid& s, int p) {
    const bool swap = p >= 5;
    Grid v(swap ? s.h : s.w, swap ? s.w : s.h);
    const int W = v.w, H = v.h;
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            uint64_t px = 0;
            switch (p) {
                case 1: px = s.at(x, y); break;                   // top, left
                case 2: px = s.at(W - 1 - x, y); break;           // top, right
                case 3: px = s.at(W - 1 - x, H - 1 - y); break;   // bottom, right
                case 4: px = s.at(x, H - 1 - y); break;           // bottom, left
                case 5: px = s.at(y, x); break;                   // left, top
                case 6: px = s.at(y, W - 1 - x); break;           // right, top
                case 7: px = s.at(H - 1 - y, W - 1 - x); break;   // right, bottom
                case 8: px = s.at(H - 1 - y, x); break;           // left, bottom
            }
            v.at(x, y) = px;
        }
    return v;
}

// Turned a quarter clockwise as seen: the top row becomes the right column.
inline Grid turnedCw(const Grid& s) {
    Grid d(s.h, s.w);
    for (int y = 0; y < s.h; ++y)
        for (int x = 0; x < s.w; ++x) d.at(s.h - 1 - y, x) = s.at(x, y);
    return d;
}
inline Grid flipped(const Grid& s) {
    Grid d(s.w, s.h);
    for (int y = 0; y < s.h; ++y)
        for (int x = 0; x < s.w; ++x) d.at(x, s.h - 1 - y) = s.at(x, y);
    return d;
}
inline Grid mirrored(const Grid& s) {
    Grid d(s.w, s.h);
    for (int y = 0; y < s.h; ++y)
        for (int x = 0; x < s.w; ++x) d.at(s.w - 1 - x, y) = s.at(x, y);
    return d;
}

// Packed rows (4-byte padded) of a grid, and back.
inline std::vector<uint8_t> pack(const Grid& g, int bpp) {
    storagetest::RefImage img(g.w, g.h, bpp);
    for (int y = 0; y < g.h; ++y)
        for (int x = 0; x < g.w; ++x) {
            if (bpp == 64) {
                for (int k = 0; k < 8; ++k) img.row(y)[size_t(x) * 8 + size_t(k)] = uint8_t(g.at(x, y) >> (56 - 8 * k));
            } else {
                storagetest::setPixel(img.row(y), x, bpp, g.at(x, y));
            }
        }
    return img.px;
}
inline Grid unpack(const uint8_t* px, int w, int h, int bpp) {
    Grid g(w, h);
    const size_t bpl = size_t(((uint64_t(w) * uint64_t(bpp) + 31) >> 3) & ~uint64_t(3));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t* row = px + size_t(y) * bpl;
            if (bpp == 64) {
                uint64_t v = 0;
                for (int k = 0; k < 8; ++k) v = (v << 8) | row[size_t(x) * 8 + size_t(k)];
                g.at(x, y) = v;
            } else {
                g.at(x, y) = storagetest::getPixel(row, x, bpp);
            }
        }
    return g;
}

// All stored rows of a bitmap through the row API, and a whole image into one.
inline std::vector<uint8_t> storedBytes(BITMAPRECORD* bm) {
    std::vector<uint8_t> out(size_t(bm->nBytesPerLine) * size_t(bm->nHeight));
    K_AccessBitmap(bm);
    for (int y = 0; y < bm->nHeight; ++y)
        K_GetBitmapRow(bm, out.data() + size_t(y) * bm->nBytesPerLine, y, bm->nBytesPerLine);
    K_ReleaseBitmap(bm);
    return out;
}
inline Grid stored(BITMAPRECORD* bm) {
    auto b = storedBytes(bm);
    return unpack(b.data(), bm->nWidth, bm->nHeight, bm->nBitsPerPixel);
}
inline bool store(BITMAPRECORD* bm, const Grid& g) {
    auto b = pack(g, bm->nBitsPerPixel);
    if (K_AccessBitmap(bm) != KS_SUCCESS) return false;
    bool ok = true;
    for (int y = 0; y < g.h; ++y)
        ok = ok && K_PutBitmapRow(bm, b.data() + size_t(y) * bm->nBytesPerLine, y, bm->nBytesPerLine) > 0;
    K_ReleaseBitmap(bm);
    return ok;
}

// The bitmap's region as a mask over its stored pixels (1 = in the region).
inline Grid regionGrid(BITMAPRECORD* bm) {
    Grid g(bm->nWidth, bm->nHeight);
    for (int y = 0; y < g.h; ++y)
        for (int x = 0; x < g.w; ++x) g.at(x, y) = K_IsPtInBitmapRgn(bm, y, x) ? 1 : 0;
    return g;
}

}  // namespace orienttest
