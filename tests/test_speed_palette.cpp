// Palette indexes of the converter's fast paths against K_FindPaletteIndex,
// the nearest-entry rule itself: every colour for the fixed 256-colour
// palette (long), sampled colours with every tie value for the short run,
// caller palettes with random colours.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ombrix.h"

namespace {

bool longTests() {
    const char* v = std::getenv("OMBRIX_LONG_TESTS");
    return v && std::string(v) == "1";
}

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
            ASSERT_EQ(int(row[i]), K_FindPaletteIndex(ref, 256, int32_t(c >> 16), int32_t((c >> 8) & 255),
                                                      int32_t(c & 255)))
                << l.bits << "-bit order " << l.order << " colour " << std::hex << c << " at " << std::dec << i;
        }
    }
}

// Every red and green value (ties sit midway between levels) with blues at
// both sides of each blue boundary, plus random colours.
std::vector<uint32_t> sampledColours() {
    std::vector<uint32_t> v;
    for (uint32_t b : {0u, 42u, 43u, 127u, 128u, 212u, 213u, 255u})
        for (uint32_t rg = 0; rg < 65536; rg += 3) v.push_back(rg << 8 | b);
    std::mt19937 rng(17);
    for (int i = 0; i < 100000; ++i) v.push_back(rng() & 0xFFFFFFu);
    return v;
}

TEST(SpeedPalette, FixedPaletteIndexesEqualTheSearchOnSampledColours) {
    const std::vector<uint32_t> colours = sampledColours();
    std::vector<RGBQUAD> copy(K_IntGetFixedPalette(8), K_IntGetFixedPalette(8) + 256);
    for (const Layout& l : kLayouts)
        for (int width : {1, 31, 33, 4093}) {
            expectSearchIndexes(colours, l, nullptr, width);
            expectSearchIndexes(colours, l, copy.data(), width);  // the same palette passed by the caller
        }
}

TEST(SpeedPalette, CallerPalettesKeepTheSearchIndexes) {
    std::mt19937 rng(23);
    std::vector<uint32_t> colours(60000);
    for (auto& c : colours) c = rng() & 0xFFFFFFu;
    std::vector<RGBQUAD> pal(256);
    for (int round = 0; round < 3; ++round) {
        for (auto& e : pal) e = RGBQUAD{uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), 0};
        if (round == 1) pal[255] = pal[0] = RGBQUAD{0, 0, 0, 0};  // black at both ends
        if (round == 2)  // the fixed palette with one entry changed is no longer fixed
            std::memcpy(pal.data(), K_IntGetFixedPalette(8), 256 * sizeof(RGBQUAD)), pal[77].rgbGreen ^= 1;
        // Targets next to the entries as well as random ones.
        std::vector<uint32_t> near = colours;
        for (const RGBQUAD& e : pal)
            near.push_back(uint32_t(e.rgbRed) << 16 | uint32_t(e.rgbGreen) << 8 | uint32_t(std::min(e.rgbBlue + 1, 255)));
        for (const Layout& l : kLayouts) expectSearchIndexes(near, l, pal.data(), 1001);
    }
}

// Pivot paths (48-bit colour, grey) into 8-bit indexes of the fixed palette.
TEST(SpeedPalette, PivotSourcesIntoTheFixedPaletteEqualTheSearch) {
    std::mt19937 rng(29);
    const int w = 777;
    std::vector<uint8_t> buf(size_t(w) * 6), src;
    for (auto& b : buf) b = uint8_t(rng());
    src = buf;
    ASSERT_EQ(KS_SUCCESS, K_ConvertBuffer(buf.data(), w, 48, 8, ORDER_RGB, ORDER_BGR, nullptr, nullptr));
    const RGBQUAD* pal = K_IntGetFixedPalette(8);
    for (int i = 0; i < w; ++i) {
        const uint8_t* p = src.data() + 6 * i;  // high bytes of the 16-bit samples
        ASSERT_EQ(int(buf[size_t(i)]), K_FindPaletteIndex(pal, 256, p[1], p[3], p[5])) << i;
    }
}

// Every colour of the cube in each source layout (about 30 s).
TEST(SpeedPaletteLong, FixedPaletteIndexesEqualTheSearchForEveryColour) {
    if (!longTests()) GTEST_SKIP() << "set OMBRIX_LONG_TESTS=1";
    std::vector<uint32_t> all(1u << 24);
    for (uint32_t c = 0; c < all.size(); ++c) all[c] = c;
    for (const Layout& l : kLayouts) expectSearchIndexes(all, l, nullptr, 4093);
}

}  // namespace
