// test_palette_search.cpp - the nearest palette entry: every vector path and
// the exported function against a literal walk written here from the rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "ombrix.h"
#include "krn/common/palette.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

using Search = int32_t (*)(const RGBQUAD*, int32_t, int, int, int) noexcept;

// The rule, step by step, independent of the kernel's code.
int32_t oracle(const std::vector<RGBQUAD>& p, int r, int g, int b) {
    const int n = int(p.size());
    if (n == 0) return -1;
    auto is = [](const RGBQUAD& e, int v) { return e.rgbRed == v && e.rgbGreen == v && e.rgbBlue == v; };
    if (r == 0 && g == 0 && b == 0) {
        if (is(p[0], 0)) return 0;
        if (is(p[n - 1], 0)) return n - 1;
    }
    if (r == 255 && g == 255 && b == 255) {
        if (is(p[n - 1], 255)) return n - 1;
        if (is(p[0], 255)) return 0;
    }
    auto cls = [](int R, int G, int B) {
        int c = 0;
        if (R < B) c += 4;
        if (G < R && G < B) c += 2;
        if (G > R && G > B) c += 1;
        return c;
    };
    const int target = cls(r, g, b);
    long long best = 0xFFFFFFFFll;
    int bestIndex = -1;
    for (int i = 0; i < n; ++i) {
        long long d = (p[i].rgbRed - r) * (p[i].rgbRed - r) + (p[i].rgbGreen - g) * (p[i].rgbGreen - g) +
                      (p[i].rgbBlue - b) * (p[i].rgbBlue - b);
        if (d < best || (d == best && cls(p[i].rgbRed, p[i].rgbGreen, p[i].rgbBlue) == target)) {
            best = d;
            bestIndex = i;
        }
        if (best == 0) break;
    }
    return bestIndex;
}

RGBQUAD rgb(int r, int g, int b, int reserved = 0) {
    return RGBQUAD{uint8_t(b), uint8_t(g), uint8_t(r), uint8_t(reserved)};
}

struct Path {
    const char* name;
    Search fn;
};
std::vector<Path> paths() {
    std::vector<Path> v{{"scalar", krn::findPaletteIndexScalar},
                        {"sse2", krn::findPaletteIndexSse2},
                        {"dispatch", krn::findPaletteIndex}};
    if (krn::cpuHasAvx2()) v.push_back({"avx2", krn::findPaletteIndexAvx2});
    return v;
}

TEST(PaletteSearch, DocumentedEdgeCases) {
    for (const Path& path : paths()) {
        SCOPED_TRACE(path.name);
        std::vector<RGBQUAD> pal(256, rgb(10, 20, 30));
        pal[0] = pal[255] = rgb(0, 0, 0);
        EXPECT_EQ(path.fn(pal.data(), 256, 0, 0, 0), 0);  // black prefers the first entry
        pal[0] = pal[255] = rgb(255, 255, 255);
        EXPECT_EQ(path.fn(pal.data(), 256, 255, 255, 255), 255);  // white prefers the last
        pal[0] = rgb(255, 255, 255);
        pal[255] = rgb(1, 1, 1);
        EXPECT_EQ(path.fn(pal.data(), 256, 255, 255, 255), 0);
        pal[0] = rgb(3, 3, 3);
        pal[255] = rgb(0, 0, 0);
        EXPECT_EQ(path.fn(pal.data(), 256, 0, 0, 0), 255);
        // Black not at either end: the plain scan finds the middle one.
        pal[255] = rgb(9, 9, 9);
        pal[77] = rgb(0, 0, 0);
        EXPECT_EQ(path.fn(pal.data(), 256, 0, 0, 0), 77);

        // (90,100,100) and (110,100,100) are both 100 away from (100,100,100).
        // Hue classes: target 0, (90,100,100) 4 (red < blue), (110,100,100) 0.
        std::vector<RGBQUAD> tie{rgb(90, 100, 100), rgb(110, 100, 100)};
        EXPECT_EQ(path.fn(tie.data(), 2, 100, 100, 100), 1);  // the later entry shares the class
        std::vector<RGBQUAD> tie2{rgb(110, 100, 100), rgb(90, 100, 100)};
        EXPECT_EQ(path.fn(tie2.data(), 2, 100, 100, 100), 0);  // it does not: the earlier keeps the lead
        // Three-way tie where the matching entry is the middle one.
        std::vector<RGBQUAD> tie3{rgb(90, 100, 100), rgb(110, 100, 100), rgb(100, 110, 100)};
        EXPECT_EQ(path.fn(tie3.data(), 3, 100, 100, 100), 1);

        EXPECT_EQ(path.fn(nullptr, 5, 1, 2, 3), 0);
        EXPECT_EQ(path.fn(pal.data(), 0, 1, 2, 3), -1);
        EXPECT_EQ(path.fn(pal.data(), -4, 1, 2, 3), -1);

        // The reserved byte plays no part.
        std::vector<RGBQUAD> res{rgb(10, 10, 10, 200), rgb(12, 12, 12, 0)};
        EXPECT_EQ(path.fn(res.data(), 2, 10, 10, 10), 0);
    }
}

TEST(PaletteSearch, FirstExactMatchWinsAcrossBlocksAndChunks) {
    for (const Path& path : paths()) {
        SCOPED_TRACE(path.name);
        for (int n : {1, 3, 4, 5, 8, 9, 17, 255, 256, 257, 300, 513}) {
            std::vector<RGBQUAD> pal(size_t(n), rgb(200, 10, 10));
            for (int first : {0, n / 2, n - 1}) {
                std::vector<RGBQUAD> p = pal;
                p[size_t(first)] = rgb(7, 8, 9);
                if (first + 1 < n) p[size_t(n - 1)] = rgb(7, 8, 9);  // a later duplicate must lose
                EXPECT_EQ(path.fn(p.data(), n, 7, 8, 9), first) << "n=" << n;
            }
        }
    }
}

// Random palettes built to stress the rule: duplicates, entries drawn from a
// few levels (many equal distances), black and white at the ends, and sizes
// around the vector widths and the 256-entry chunk.
TEST(PaletteSearch, DifferentialAgainstLiteralWalk) {
    std::mt19937 rng(20261121);
    auto all = paths();
    long cases = 0;
    for (int round = 0; round < 1500; ++round) {
        int n;
        switch (round % 6) {
            case 0: n = 256; break;
            case 1: n = 1 + int(rng() % 16); break;
            case 2: n = 250 + int(rng() % 20); break;
            case 3: n = 500 + int(rng() % 40); break;
            default: n = 1 + int(rng() % 300); break;
        }
        const int style = int(rng() % 4);
        std::vector<RGBQUAD> pal(static_cast<size_t>(n));
        const int levels[] = {0, 1, 2, 127, 128, 129, 254, 255};
        for (auto& e : pal) {
            if (style == 0) {
                e = rgb(int(rng() & 255), int(rng() & 255), int(rng() & 255), int(rng() & 255));
            } else if (style == 1) {
                e = rgb(levels[rng() % 8], levels[rng() % 8], levels[rng() % 8]);
            } else if (style == 2) {
                int c = 100 + int(rng() % 5) * 2;  // a small lattice: equal distances abound
                e = rgb(c, 100 + int(rng() % 5) * 2, 100 + int(rng() % 5) * 2, int(rng() & 255));
            } else {
                e = rgb(int(rng() % 3) * 127, int(rng() % 3) * 127, int(rng() % 3) * 127);
            }
        }
        for (int k = 0; k < n / 8; ++k) pal[rng() % size_t(n)] = pal[rng() % size_t(n)];  // duplicates
        if (rng() % 4 == 0) pal[0] = rgb(0, 0, 0);
        if (rng() % 4 == 0) pal[size_t(n - 1)] = rgb(255, 255, 255);
        if (rng() % 8 == 0) pal[size_t(n - 1)] = rgb(0, 0, 0);
        for (int t = 0; t < 64; ++t) {
            int r, g, b;
            switch (t % 4) {
                case 0: r = int(rng() & 255), g = int(rng() & 255), b = int(rng() & 255); break;
                case 1: r = 101 + int(rng() % 7), g = 101 + int(rng() % 7), b = 101 + int(rng() % 7); break;
                case 2: {
                    const RGBQUAD& e = pal[rng() % size_t(n)];
                    r = e.rgbRed, g = e.rgbGreen, b = e.rgbBlue;
                    break;
                }
                default: r = levels[rng() % 8], g = levels[rng() % 8], b = levels[rng() % 8]; break;
            }
            const int32_t want = oracle(pal, r, g, b);
            for (const Path& path : all) {
                ASSERT_EQ(path.fn(pal.data(), n, r, g, b), want)
                    << path.name << " round " << round << " n " << n << " target " << r << "," << g << "," << b;
            }
            ASSERT_EQ(K_FindPaletteIndex(pal.data(), n, r, g, b), want);
            ++cases;
        }
    }
    EXPECT_GT(cases, 90000);
}

// Every entry of the web palette finds itself (its 40 trailing blacks
// resolve to the first black).
TEST(PaletteSearch, WebPaletteEntriesFindThemselves) {
    std::vector<RGBQUAD> web(K_IntGetNetscapePalette(), K_IntGetNetscapePalette() + 256);
    for (int i = 0; i < 216; ++i)
        EXPECT_EQ(K_FindPaletteIndex(web.data(), 256, web[i].rgbRed, web[i].rgbGreen, web[i].rgbBlue), i);
    EXPECT_EQ(K_FindPaletteIndex(web.data(), 256, 0, 0, 0), 0);
}

TEST(PaletteSearch, ExportClampsComponents) {
    std::vector<RGBQUAD> pal{rgb(0, 0, 0), rgb(255, 0, 0), rgb(0, 255, 0), rgb(250, 0, 250)};
    EXPECT_EQ(K_FindPaletteIndex(pal.data(), 4, 300, -20, 0), 1);  // as (255, 0, 0), not (44, 236, 0)
    EXPECT_EQ(K_FindPaletteIndex(pal.data(), 4, 256, 0, 256), 3);
    EXPECT_EQ(K_FindPaletteIndex(pal.data(), 4, -1, -1, -1), 0);
    EXPECT_EQ(K_FindPaletteIndex(pal.data(), 4, 0x7FFFFFFF, int32_t(0x80000000), 0), 1);
}


// Palettes that end right before an inaccessible page and start at every
// byte offset: a vector path that reads past the last entry faults here even
// without a sanitizer.
TEST(PaletteSearch, NoReadPastTheLastEntry) {
    const size_t page = size_t(sysconf(_SC_PAGESIZE));
    auto* region = static_cast<uint8_t*>(
        mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(region, MAP_FAILED);
    ASSERT_EQ(mprotect(region + 2 * page, page, PROT_NONE), 0);
    std::mt19937 rng(17);
    auto all = paths();
    for (int n : {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 63, 64, 65, 255, 256, 257, 300}) {
        for (size_t misalign : {0u, 1u, 2u, 3u}) {
            // The last entry ends `misalign` bytes before the guard page.
            uint8_t* end = region + 2 * page - misalign;
            auto* pal = reinterpret_cast<RGBQUAD*>(end - size_t(n) * sizeof(RGBQUAD));
            std::vector<RGBQUAD> copy(static_cast<size_t>(n));
            for (auto& e : copy) e = rgb(int(rng() & 255), int(rng() & 255), int(rng() & 255));
            std::memcpy(pal, copy.data(), copy.size() * sizeof(RGBQUAD));
            for (int t = 0; t < 20; ++t) {
                int r = int(rng() & 255), g = int(rng() & 255), b = int(rng() & 255);
                const int32_t want = oracle(copy, r, g, b);
                for (const Path& path : all) ASSERT_EQ(path.fn(pal, n, r, g, b), want) << path.name << " n " << n;
            }
        }
    }
    munmap(region, 3 * page);
}

}  // namespace
