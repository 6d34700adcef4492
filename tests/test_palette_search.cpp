// test_palette_search.cpp - the nearest palette entry: every vector path and the exported function against a literal
// walk written here from the rule, and the converter's and colour resolution's fast fixed-palette indexes against the
// exported search.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include "krn/common/colorres.h"
#include "krn/common/palette.h"
#include "ombrix.h"

namespace {

using Search = int32_t (*)(const RGBQUAD*, int32_t, int, int, int) noexcept;

// The rule, step by step: black prefers the first entry, white the last, when they are black or white; otherwise the
// smallest distance, a later entry at the same distance winning only when it shares the target's hue class; an exact
// match ends the walk.
int32_t oracle(const std::vector<RGBQUAD>& p, int r, int g, int b) {
    const int n = int(p.size());
    auto is = [](const RGBQUAD& e, int v) { return e.rgbRed == v && e.rgbGreen == v && e.rgbBlue == v; };
    if (r == 0 && g == 0 && b == 0 && (is(p[0], 0) || is(p[n - 1], 0))) return is(p[0], 0) ? 0 : n - 1;
    if (r == 255 && g == 255 && b == 255 && (is(p[0], 255) || is(p[n - 1], 255))) return is(p[n - 1], 255) ? n - 1 : 0;
    auto cls = [](int R, int G, int B) { return (R < B) * 4 + (G < R && G < B) * 2 + (G > R && G > B); };
    const int target = cls(r, g, b);
    long long best = 0xFFFFFFFFll;
    int bestIndex = -1;
    for (int i = 0; i < n && best != 0; ++i) {
        const long long d = (p[i].rgbRed - r) * (p[i].rgbRed - r) + (p[i].rgbGreen - g) * (p[i].rgbGreen - g) +
                            (p[i].rgbBlue - b) * (p[i].rgbBlue - b);
        if (d < best || (d == best && cls(p[i].rgbRed, p[i].rgbGreen, p[i].rgbBlue) == target)) best = d, bestIndex = i;
    }
    return bestIndex;
}

RGBQUAD rgb(int r, int g, int b, int res = 0) { return RGBQUAD{uint8_t(b), uint8_t(g), uint8_t(r), uint8_t(res)}; }

struct Path { const char* name; Search fn; };
std::vector<Path> paths() {
    auto exported = [](const RGBQUAD* p, int32_t n, int r, int g, int b) noexcept {
        return K_FindPaletteIndex(p, n, r, g, b);
    };
    std::vector<Path> v{{"scalar", krn::findPaletteIndexScalar}, {"sse2", krn::findPaletteIndexSse2},
                        {"dispatch", krn::findPaletteIndex}, {"export", exported}};
    if (krn::cpuHasAvx2()) v.push_back({"avx2", krn::findPaletteIndexAvx2});
    return v;
}

// Counts and pointers the export refuses, components it clamps (the tie rule and exact matches: the random walk).
TEST(PaletteSearch, RefusalsAndClampedComponents) {
    const std::vector<RGBQUAD> pal{rgb(0, 0, 0), rgb(255, 0, 0), rgb(0, 255, 0), rgb(250, 0, 250)};
    for (const Path& path : paths()) {
        SCOPED_TRACE(path.name);
        EXPECT_TRUE(path.fn(pal.data(), 0, 1, 2, 3) == -1 && path.fn(pal.data(), -4, 1, 2, 3) == -1);
        EXPECT_TRUE(std::string(path.name) == "export" || path.fn(nullptr, 5, 1, 2, 3) == 0);
    }
    EXPECT_EQ(K_FindPaletteIndex(pal.data(), 4, 300, -20, 0), 1);  // as (255, 0, 0), not (44, 236, 0)
    EXPECT_EQ(K_FindPaletteIndex(pal.data(), 4, 256, 0, 256), 3);
    EXPECT_EQ(K_FindPaletteIndex(pal.data(), 4, -1, -1, -1), 0);
    EXPECT_EQ(K_FindPaletteIndex(pal.data(), 4, 0x7FFFFFFF, int32_t(0x80000000), 0), 1);
}

// Random palettes built to stress the rule (duplicates, entries drawn from a few levels, a small lattice, black and
// white at the ends, sizes around the vector widths and the 256-entry chunk), each ending right before an
// inaccessible page at every byte offset: a path that reads past the last entry faults here even without a sanitizer.
TEST(PaletteSearch, DifferentialAgainstLiteralWalk) {
    const size_t page = size_t(sysconf(_SC_PAGESIZE)), span = 5 * page;
    void* map = mmap(nullptr, span + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto* region = static_cast<uint8_t*>(map);
    ASSERT_NE(region, MAP_FAILED);
    ASSERT_EQ(mprotect(region + span, page, PROT_NONE), 0);
    std::mt19937 rng(20261121);
    const auto all = paths();
    const int levels[] = {0, 1, 2, 127, 128, 129, 254, 255};
    for (int round = 0; round < 1500; ++round) {
        const int sizes[] = {256, 1 + int(rng() % 16), 250 + int(rng() % 20), 500 + int(rng() % 40),
                             1 + int(rng() % 300)};
        const int n = sizes[std::min(round % 6, 4)], style = int(rng() % 4);
        std::vector<RGBQUAD> pal(static_cast<size_t>(n));
        for (auto& e : pal) {
            if (style == 0) e = rgb(int(rng() & 255), int(rng() & 255), int(rng() & 255), int(rng() & 255));
            if (style == 1) e = rgb(levels[rng() % 8], levels[rng() % 8], levels[rng() % 8]);
            auto lattice = [&] { return 100 + int(rng() % 5) * 2; };
            if (style == 2) e = rgb(lattice(), lattice(), lattice(), int(rng() & 255));
            if (style == 3) e = rgb(int(rng() % 3) * 127, int(rng() % 3) * 127, int(rng() % 3) * 127);
        }
        for (int k = 0; k < n / 8; ++k) pal[rng() % size_t(n)] = pal[rng() % size_t(n)];  // duplicates
        if (rng() % 4 == 0) pal[0] = rgb(0, 0, 0);
        if (rng() % 4 == 0) pal[size_t(n - 1)] = rgb(255, 255, 255);
        if (rng() % 8 == 0) pal[size_t(n - 1)] = rgb(0, 0, 0);
        auto* at = reinterpret_cast<RGBQUAD*>(region + span - size_t(round % 4) - size_t(n) * sizeof(RGBQUAD));
        std::memcpy(at, pal.data(), pal.size() * sizeof(RGBQUAD));
        for (int t = 0; t < 64; ++t) {
            int r = int(rng() & 255), g = int(rng() & 255), b = int(rng() & 255);
            if (t % 4 == 1) r = 101 + int(rng() % 7), g = 101 + int(rng() % 7), b = 101 + int(rng() % 7);
            if (t % 4 == 2) {
                const RGBQUAD& e = pal[rng() % size_t(n)];
                r = e.rgbRed, g = e.rgbGreen, b = e.rgbBlue;
            }
            if (t % 4 == 3) r = levels[rng() % 8], g = levels[rng() % 8], b = levels[rng() % 8];
            const int32_t want = oracle(pal, r, g, b);
            for (const Path& path : all)
                ASSERT_EQ(path.fn(at, n, r, g, b), want)
                    << path.name << " round " << round << " n " << n << " target " << r << "," << g << "," << b;
        }
    }
    munmap(region, span + page);
}

// Colours `cs` in rows of `width` pixels of a 24- or 32-bit layout (red at byte r, blue at byte b) through the
// converter into `pal` (null: the fixed palette) give the exported search's indexes.
void expectConvertedLikeTheSearch(const std::vector<uint32_t>& cs, int bits, int order, int r, int b,
                                  const RGBQUAD* pal, size_t width) {
    const RGBQUAD* searched = pal ? pal : K_IntGetFixedPalette(8);
    const size_t bpp = size_t(bits / 8);
    std::vector<uint8_t> row(width * bpp);
    for (size_t start = 0; start < cs.size(); start += width) {
        const size_t n = std::min(cs.size() - start, width);
        for (size_t i = 0; i < n; ++i) {
            uint8_t* p = row.data() + i * bpp;
            p[r] = uint8_t(cs[start + i] >> 16), p[1] = uint8_t(cs[start + i] >> 8), p[b] = uint8_t(cs[start + i]);
            if (bpp == 4) p[3] = uint8_t(i * 37);
        }
        ASSERT_EQ(K_ConvertBuffer(row.data(), int32_t(n), bits, 8, order, ORDER_BGR, nullptr, pal), KS_SUCCESS);
        for (size_t i = 0; i < n; ++i) {
            const uint32_t c = cs[start + i];
            ASSERT_EQ(row[i], K_FindPaletteIndex(searched, 256, int(c >> 16), c >> 8 & 255, c & 255)) << c;
        }
    }
}

// The direct index of the fixed 256-colour palette on every red and green (their ties sit midway between levels: 18,
// 91, 164, 237) with blues on both sides of each blue boundary (the row kernels equal it over every colour:
// ColorResSearch), and the converter's 24- and 32-bit rows into the fixed palette, a copy of it and a caller palette
// (the fixed one with two entries changed) keep the search's indexes.
TEST(SpeedPalette, FixedAndCallerPaletteIndexesEqualTheSearch) {
    std::vector<uint32_t> colours;
    for (uint32_t b : {0u, 42u, 43u, 127u, 128u, 212u, 213u, 255u})
        for (uint32_t rg = 0; rg < 65536; ++rg) colours.push_back(rg << 8 | b);
    const RGBQUAD* fixed = K_IntGetFixedPalette(8);
    for (uint32_t c : colours)
        ASSERT_EQ(krn::fixed256Index(int(c >> 16), c >> 8 & 255, c & 255),
                  K_FindPaletteIndex(fixed, 256, int(c >> 16), c >> 8 & 255, c & 255)) << std::hex << c;
    const std::vector<RGBQUAD> copy(fixed, fixed + 256);
    std::vector<RGBQUAD> changed = copy;
    changed[77].rgbGreen ^= 1, changed[255] = changed[0];  // black at both ends
    for (const RGBQUAD* pal : std::initializer_list<const RGBQUAD*>{nullptr, copy.data(), changed.data()}) {
        expectConvertedLikeTheSearch(colours, 24, ORDER_BGR, 2, 0, pal, pal == copy.data() ? 33 : 4093);
        expectConvertedLikeTheSearch(colours, 32, ORDER_RGB, 0, 2, pal, pal == copy.data() ? 33 : 4093);
    }
}

// Every colour of the cube, in 24- and 32-bit rows of both orders, through the converter into the fixed palette
// equals the exported search (about 30 s; runs with OMBRIX_LONG_TESTS=1).
TEST(SpeedPaletteLong, FixedPaletteIndexesEqualTheSearchForEveryColour) {
    if (!std::getenv("OMBRIX_LONG_TESTS")) GTEST_SKIP() << "set OMBRIX_LONG_TESTS=1";
    std::vector<uint32_t> cube(1u << 24);
    std::iota(cube.begin(), cube.end(), 0u);
    for (int bits : {24, 32}) {
        expectConvertedLikeTheSearch(cube, bits, ORDER_BGR, 2, 0, nullptr, 4093);
        expectConvertedLikeTheSearch(cube, bits, ORDER_RGB, 0, 2, nullptr, 4093);
    }
}

}  // namespace
