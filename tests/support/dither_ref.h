// dither_ref.h - a plain reference ditherer for the tests, written from the definitions of the methods rather than
// from the library (clarity over speed): whole-image error planes, weights as small matrices, the threshold tables
// typed in again independently, one quantiser callback.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <vector>

namespace ditherref {

struct Rgb { int r, g, b; };

// The kernel's grey: (2R + 5G + B + 4) >> 3.
inline int grey(int r, int g, int b) { return (2 * r + 5 * g + b + 4) >> 3; }

struct Target {
    std::vector<Rgb> colours;               // by palette index
    std::function<int(int, int, int)> quantise;  // colour -> palette index
    // Ordered methods: two-colour rule (dark/bright indices) or per-channel spacing.
    bool twoColour = false;
    int darkIndex = 0, brightIndex = 1;
    int spacing[3] = {255, 255, 255};
};

// Weights of methods 1..6 (Floyd-Steinberg, Stucki, Burkes, Sierra, Stevenson-Arce, Jarvis): rows 0 (the current
// row, right of the pixel only) to 3, columns -3..+3.
struct Matrix { int divisor, w[4][7]; };
inline const Matrix kMatrices[6] = {
    {16, {{0, 0, 0, 0, 7, 0, 0}, {0, 0, 3, 5, 1, 0, 0}, {}, {}}},
    {42, {{0, 0, 0, 0, 8, 4, 0}, {0, 2, 4, 8, 4, 2, 0}, {0, 1, 2, 4, 2, 1, 0}, {}}},
    {32, {{0, 0, 0, 0, 8, 4, 0}, {0, 2, 4, 8, 4, 2, 0}, {}, {}}},
    {32, {{0, 0, 0, 0, 5, 3, 0}, {0, 2, 4, 5, 4, 2, 0}, {0, 0, 2, 3, 2, 0, 0}, {}}},
    {200, {{0, 0, 0, 0, 0, 32, 0}, {12, 0, 26, 0, 30, 0, 16}, {0, 12, 0, 26, 0, 12, 0}, {5, 0, 12, 0, 12, 0, 5}}},
    {48, {{0, 0, 0, 0, 7, 5, 0}, {0, 3, 5, 7, 5, 3, 0}, {0, 1, 3, 5, 3, 1, 0}, {}}}};

// The two 8x8 threshold tables of methods 7 (dispersed) and 8 (clustered).
inline const int kThresholds[2][8][8] = {
    {{0, 128, 32, 160, 8, 136, 40, 168}, {192, 64, 224, 96, 200, 72, 232, 104}, {48, 176, 16, 144, 56, 184, 24, 152},
     {236, 112, 208, 80, 244, 120, 216, 88}, {12, 140, 44, 172, 4, 132, 36, 164},
     {204, 76, 232, 108, 196, 68, 228, 100}, {60, 188, 28, 156, 52, 180, 20, 148},
     {248, 124, 220, 92, 240, 116, 212, 84}},
    {{112, 40, 72, 104, 144, 176, 208, 136}, {88, 8, 16, 48, 192, 232, 240, 168}, {56, 24, 0, 80, 160, 224, 248, 200},
     {96, 64, 32, 120, 128, 216, 184, 152}, {148, 180, 212, 140, 116, 44, 76, 108},
     {196, 236, 244, 172, 92, 12, 20, 52}, {164, 228, 252, 204, 60, 28, 4, 84},
     {132, 220, 188, 156, 100, 68, 36, 124}}};

// Dithers a width x height image (row-major) with a method 0..8; returns one palette index per pixel.
inline std::vector<int> dither(int method, int width, int height, const std::vector<Rgb>& image, const Target& t) {
    std::vector<int> out(size_t(width) * size_t(height));
    auto clamp = [](int v) { return std::clamp(v, 0, 255); };
    if (method == 0) {
        for (size_t i = 0; i < out.size(); ++i) out[i] = t.quantise(image[i].r, image[i].g, image[i].b);
        return out;
    }
    if (method >= 7) {
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const Rgb p = image[size_t(y) * size_t(width) + size_t(x)];
                const int thr = kThresholds[method - 7][y % 8][x % 8];
                int idx;
                if (t.twoColour) {
                    const Rgb& d = t.colours[size_t(t.darkIndex)];
                    const Rgb& b = t.colours[size_t(t.brightIndex)];
                    const int gd = grey(d.r, d.g, d.b), gb = grey(b.r, b.g, b.b);
                    idx = grey(p.r, p.g, p.b) > gd + thr * (gb - gd) / 255 ? t.brightIndex : t.darkIndex;
                } else {
                    auto bias = [&](int c) { return ((2 * thr + 1 - 256) * t.spacing[c]) / 512; };
                    idx = t.quantise(clamp(p.r + bias(0)), clamp(p.g + bias(1)), clamp(p.b + bias(2)));
                }
                out[size_t(y) * size_t(width) + size_t(x)] = idx;
            }
        return out;
    }
    const Matrix& m = kMatrices[method - 1];
    // Error planes with 3 columns of margin on each side and 4 rows below.
    const int pw = width + 6;
    std::vector<long> er(size_t(pw) * size_t(height + 4)), eg(er.size()), eb(er.size());
    auto at = [&](int y, int x) { return size_t(y) * size_t(pw) + size_t(x + 3); };
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const Rgb p = image[size_t(y) * size_t(width) + size_t(x)];
            const size_t k = at(y, x);
            // C++ division truncates toward zero, as the rule asks.
            const int r = clamp(p.r + int(er[k] / m.divisor)), g = clamp(p.g + int(eg[k] / m.divisor));
            const int b = clamp(p.b + int(eb[k] / m.divisor));
            const int idx = t.quantise(r, g, b);
            out[size_t(y) * size_t(width) + size_t(x)] = idx;
            const Rgb& c = t.colours[size_t(idx)];
            const int dr = r - c.r, dg = g - c.g, db = b - c.b;
            for (int dy = 0; dy < 4; ++dy)
                for (int dx = -3; dx <= 3; ++dx) {
                    const int w = m.w[dy][dx + 3];
                    if (!w) continue;
                    const size_t j = at(y + dy, x + dx);
                    er[j] += long(w) * dr, eg[j] += long(w) * dg, eb[j] += long(w) * db;
                }
        }
    return out;
}

}  // namespace ditherref
