// test_palette_search.cpp - the nearest palette entry: every vector path and
// the exported function against a literal walk written here from the rule,
// and the converter's and colour resolution's fast fixed-palette indexes
// against the exported search.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
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

// The rule, step by step: black prefers the first entry, white the last,
// when they are black or white; otherwise the smallest distance, a later
// entry at the same distance winning only when it shares the target's hue
// class; an exact match ends the walk.
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

RGBQUAD rgb(int r, int g, int b, int reserved = 0) { return RGBQUAD{uint8_t(b), uint8_t(g), uint8_t(r), uint8_t(reserved)}; }

struct Path {
    const char* name;
    Search fn;
};
std::vector<Path> paths() {
    std::vector<Path> v{{"scalar", krn::findPaletteIndexScalar}, {"sse2", krn::findPaletteIndexSse2}, {"dispatch", krn::findPaletteIndex},
                        {"export", [](const RGBQUAD* p, int32_t n, int r, int g, int b) noexcept { return K_FindPaletteIndex(p, n, r, g, b); }}};
    if (krn::cpuHasAvx2()) v.push_back({"avx2", krn::findPaletteIndexAvx2});
    return v;
}

TEST(PaletteSearch, DocumentedEdgeCases) {
    for (const Path& path : paths()) {
        SCOPED_TRACE(path.name);
        // (Black and white at the ends of the palette: the differential walk.)
        const std::vector<RGBQUAD> pal(4, rgb(10, 20, 30));
        // (90,100,100) and (110,100,100) are both 100 away from (100,100,100);
        // hue classes: target 0, (90,100,100) 4 (red < blue), (110,100,100) 0.
        const std::vector<RGBQUAD> tie{rgb(90, 100, 100), rgb(110, 100, 100)}, tie2{rgb(110, 100, 100), rgb(90, 100, 100)},
            tie3{rgb(90, 100, 100), rgb(110, 100, 100), rgb(100, 110, 100)},
            res{rgb(10, 10, 10, 200), rgb(12, 12, 12, 0)};  // the reserved byte plays no part
        // the later entry shares the class; it does not: the earlier keeps the lead
        EXPECT_TRUE(path.fn(tie.data(), 2, 100, 100, 100) == 1 && path.fn(tie2.data(), 2, 100, 100, 100) == 0 && path.fn(tie3.data(), 3, 100, 100, 100) == 1);
        EXPECT_EQ(path.fn(res.data(), 2, 10, 10, 10), 0);
        EXPECT_TRUE(std::string(path.name) == "export" || path.fn(nullptr, 5, 1, 2, 3) == 0);
        EXPECT_TRUE(path.fn(pal.data(), 0, 1, 2, 3) == -1 && path.fn(pal.data(), -4, 1, 2, 3) == -1);
        // The first exact match wins across blocks and chunks.
        for (int n : {1, 3, 4, 5, 8, 9, 17, 255, 256, 257, 300, 513})
            for (int first : {0, n / 2, n - 1}) {
                std::vector<RGBQUAD> p(size_t(n), rgb(200, 10, 10));
                p[size_t(first)] = rgb(7, 8, 9);
                if (first + 1 < n) p[size_t(n - 1)] = rgb(7, 8, 9);  // a later duplicate must lose
                EXPECT_EQ(path.fn(p.data(), n, 7, 8, 9), first) << "n=" << n;
            }
    }
    // The export clamps components; the web palette's entries find themselves.
    const std::vector<RGBQUAD> pal{rgb(0, 0, 0), rgb(255, 0, 0), rgb(0, 255, 0), rgb(250, 0, 250)};
    EXPECT_EQ(K_FindPaletteIndex(pal.data(), 4, 300, -20, 0), 1);  // as (255, 0, 0), not (44, 236, 0)
    EXPECT_TRUE(K_FindPaletteIndex(pal.data(), 4, 256, 0, 256) == 3 && K_FindPaletteIndex(pal.data(), 4, -1, -1, -1) == 0);
    EXPECT_EQ(K_FindPaletteIndex(pal.data(), 4, 0x7FFFFFFF, int32_t(0x80000000), 0), 1);
    const RGBQUAD* web = K_IntGetNetscapePalette();
    for (int i = 0; i < 256; ++i)  // its 40 trailing blacks resolve to the first black
        EXPECT_EQ(K_FindPaletteIndex(web, 256, web[i].rgbRed, web[i].rgbGreen, web[i].rgbBlue), i < 216 ? i : 0);
}

// Random palettes built to stress the rule (duplicates, entries drawn from a
// few levels, a small lattice, black and white at the ends, sizes around the
// vector widths and the 256-entry chunk), each ending right before an
// inaccessible page at every byte offset: a path that reads past the last
// entry faults here even without a sanitizer.
TEST(PaletteSearch, DifferentialAgainstLiteralWalk) {
    const size_t page = size_t(sysconf(_SC_PAGESIZE)), span = 5 * page;
    auto* region = static_cast<uint8_t*>(mmap(nullptr, span + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(region, MAP_FAILED);
    ASSERT_EQ(mprotect(region + span, page, PROT_NONE), 0);
    std::mt19937 rng(20261121);
    const auto all = paths();
    const int levels[] = {0, 1, 2, 127, 128, 129, 254, 255};
    for (int round = 0; round < 1500; ++round) {
        const int sizes[] = {256, 1 + int(rng() % 16), 250 + int(rng() % 20), 500 + int(rng() % 40), 1 + int(rng() % 300)};
        const int n = sizes[std::min(round % 6, 4)], style = int(rng() % 4);
        std::vector<RGBQUAD> pal(static_cast<size_t>(n));
        for (auto& e : pal) {
            if (style == 0) e = rgb(int(rng() & 255), int(rng() & 255), int(rng() & 255), int(rng() & 255));
            if (style == 1) e = rgb(levels[rng() % 8], levels[rng() % 8], levels[rng() % 8]);
            if (style == 2) e = rgb(100 + int(rng() % 5) * 2, 100 + int(rng() % 5) * 2, 100 + int(rng() % 5) * 2, int(rng() & 255));
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
                ASSERT_EQ(path.fn(at, n, r, g, b), want) << path.name << " round " << round << " n " << n << " target " << r << "," << g << "," << b;
        }
    }
    munmap(region, span + page);
}

// ------------------------------------------------ fast fixed-palette indexes

struct Layout {
    int bits, order, r, g, b;  // sample offsets of red, green, blue
};
constexpr Layout kLayouts[] = {{24, ORDER_BGR, 2, 1, 0}, {24, ORDER_RGB, 0, 1, 2}, {32, ORDER_BGR, 2, 1, 0},
                               {32, ORDER_RGB, 0, 1, 2}};

// Converts the colours (0x00RRGGBB) in place in rows of `width` and checks
// each index against the search over `pal` (null: the fixed palette).
void expectSearchIndexes(const std::vector<uint32_t>& colours, const Layout& l, const RGBQUAD* pal, int width) {
    const RGBQUAD* ref = pal ? pal : K_IntGetFixedPalette(8);
    const size_t bpp = size_t(l.bits / 8);
    std::vector<uint8_t> row(size_t(width) * bpp);
    for (size_t start = 0; start < colours.size(); start += size_t(width)) {
        const size_t n = std::min(colours.size() - start, size_t(width));
        for (size_t i = 0; i < n; ++i) {
            const uint32_t c = colours[start + i];
            uint8_t* p = row.data() + i * bpp;
            p[l.r] = uint8_t(c >> 16), p[l.g] = uint8_t(c >> 8), p[l.b] = uint8_t(c);
            if (bpp == 4) p[3] = uint8_t(i * 37);
        }
        ASSERT_EQ(KS_SUCCESS, K_ConvertBuffer(row.data(), int32_t(n), l.bits, 8, l.order, ORDER_BGR, nullptr, pal));
        for (size_t i = 0; i < n; ++i) {
            const uint32_t c = colours[start + i];
            ASSERT_EQ(int(row[i]), K_FindPaletteIndex(ref, 256, int32_t(c >> 16), int32_t((c >> 8) & 255), int32_t(c & 255))) << l.bits << "-bit order " << l.order << " colour " << std::hex << c;
        }
    }
}

// The direct index of the fixed 256-colour palette on every red and green
// (their ties sit midway between levels: 18, 91, 164, 237) with blues on both
// sides of each blue boundary, and the converter's rows of those colours in
// every layout (the row kernels equal the direct index over every colour:
// ColorResSearch); caller palettes keep the search's indexes, black at both
// ends and the fixed palette with one entry changed (no longer fixed) too.
TEST(SpeedPalette, FixedAndCallerPaletteIndexesEqualTheSearch) {
    std::vector<uint32_t> colours;
    for (uint32_t b : {0u, 42u, 43u, 127u, 128u, 212u, 213u, 255u})
        for (uint32_t rg = 0; rg < 65536; ++rg) colours.push_back(rg << 8 | b);
    const RGBQUAD* fixed = K_IntGetFixedPalette(8);
    for (uint32_t c : colours)
        ASSERT_EQ(krn::fixed256Index(int(c >> 16), int(c >> 8 & 255), int(c & 255)), K_FindPaletteIndex(fixed, 256, int32_t(c >> 16), int32_t(c >> 8 & 255), int32_t(c & 255))) << std::hex << c;
    const std::vector<RGBQUAD> copy(fixed, fixed + 256);
    for (const Layout& l : kLayouts) {
        expectSearchIndexes(colours, l, nullptr, 4093);
        expectSearchIndexes(colours, l, copy.data(), 33);
    }
    std::mt19937 rng(23);
    std::vector<uint32_t> random(60000);
    for (auto& c : random) c = rng() & 0xFFFFFFu;
    std::vector<RGBQUAD> pal(256);
    for (int round = 0; round < 3; ++round) {
        for (auto& e : pal) e = rgb(int(rng() & 255), int(rng() & 255), int(rng() & 255));
        if (round == 1) pal[255] = pal[0] = rgb(0, 0, 0);
        if (round == 2) std::memcpy(pal.data(), fixed, 256 * sizeof(RGBQUAD)), pal[77].rgbGreen ^= 1;
        std::vector<uint32_t> near = random;  // targets next to the entries as well
        for (const RGBQUAD& e : pal)
            near.push_back(uint32_t(e.rgbRed) << 16 | uint32_t(e.rgbGreen) << 8 | uint32_t(std::min(e.rgbBlue + 1, 255)));
        for (const Layout& l : kLayouts) expectSearchIndexes(near, l, pal.data(), 1001);
    }
}

}  // namespace
