// dither_ref.h - a plain reference ditherer for the tests, written from the
// definitions of the methods rather than from the library: whole-image error
// planes, weights as small matrices, one quantiser callback.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace ditherref {

struct Rgb {
    int r, g, b;
};

// Weights of methods 1..6: rows 0 (the current row, right of the pixel only)
// to 3, columns -3..+3.
struct Matrix {
    int divisor;
    int w[4][7];
};
const Matrix& matrix(int method);

// The two 8x8 threshold tables, typed in again independently.
extern const int kDispersed[8][8];
extern const int kClustered[8][8];

// The kernel's grey: (2R + 5G + B + 4) >> 3.
inline int grey(int r, int g, int b) { return (2 * r + 5 * g + b + 4) >> 3; }

using Quantiser = std::function<int(int r, int g, int b)>;

struct Target {
    std::vector<Rgb> colours;  // by palette index
    Quantiser quantise;        // colour -> palette index
    // Ordered methods: two-colour rule (dark/bright indices) or per-channel spacing.
    bool twoColour = false;
    int darkIndex = 0, brightIndex = 1;
    int spacing[3] = {255, 255, 255};
};

// Dithers a width x height image (row-major) with a method 0..8; returns one
// palette index per pixel.
std::vector<int> dither(int method, int width, int height, const std::vector<Rgb>& image, const Target& target);

}  // namespace ditherref
