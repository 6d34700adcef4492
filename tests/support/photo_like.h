// photo_like.h - a deterministic photo-like 24-bit BGR image (smooth gradients, soft coloured blobs, hard edges and
// sensor-like noise) for the colour-resolution tests and benchmarks, and the PPM writer the Pillow comparison reads
// it from.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace phototest {

// Rows of width * 3 bytes (no padding), blue first.
inline std::vector<uint8_t> photoLike(int width, int height, uint32_t seed) {
    std::vector<uint8_t> px(size_t(width) * size_t(height) * 3);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    struct Blob { double x, y, r, cr, cg, cb; };
    std::vector<Blob> blobs;
    for (int i = 0; i < 9; ++i)
        blobs.push_back({u(rng) * width, u(rng) * height, (0.08 + 0.25 * u(rng)) * width, 255 * u(rng), 255 * u(rng),
                         255 * u(rng)});
    std::normal_distribution<double> noise(0.0, 3.0);
    const double sx = u(rng) * 6.28, sy = u(rng) * 6.28;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const double fx = double(x) / width, fy = double(y) / height;
            // Sky-like vertical gradient over a warm ground below a wavy horizon.
            const bool sky = fy < 0.55 + 0.05 * std::sin(fx * 9 + sx);
            double r = sky ? 70 + 90 * fy : 120 + 60 * std::sin(fx * 5 + sy), g = sky ? 120 + 80 * fy : 90 + 40 * fy;
            double b = sky ? 230 - 40 * fy : 40 + 20 * std::cos(fy * 7);
            for (const Blob& bl : blobs) {
                const double w = std::exp(-2.5 * (((x - bl.x) * (x - bl.x) + (y - bl.y) * (y - bl.y)) / (bl.r * bl.r)));
                r += (bl.cr - r) * w * 0.8, g += (bl.cg - g) * w * 0.8, b += (bl.cb - b) * w * 0.8;
            }
            r += noise(rng), g += noise(rng), b += noise(rng);
            uint8_t* p = px.data() + (size_t(y) * size_t(width) + size_t(x)) * 3;
            auto c = [](double v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : std::lround(v)); };
            p[0] = c(b), p[1] = c(g), p[2] = c(r);
        }
    return px;
}

// Writes BGR rows as a binary PPM (red first).
inline bool writePpm(const std::string& path, const std::vector<uint8_t>& bgr, int width, int height) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    std::fprintf(f, "P6\n%d %d\n255\n", width, height);
    std::vector<uint8_t> row(size_t(width) * 3);
    bool ok = true;
    for (int y = 0; y < height && ok; ++y) {
        const uint8_t* s = bgr.data() + size_t(y) * size_t(width) * 3;
        for (size_t x = 0; x < row.size(); x += 3) row[x] = s[x + 2], row[x + 1] = s[x + 1], row[x + 2] = s[x];
        ok = std::fwrite(row.data(), 1, row.size(), f) == row.size();
    }
    return std::fclose(f) == 0 && ok;
}

}  // namespace phototest
