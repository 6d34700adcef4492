// test_colorres_optpal.cpp - optimised palettes: exact colours for images with few colours (small and sampled),
// reserved and transparent entries, the refinement never losing to the split alone, bad input, and the quality on
// photo-like images against Pillow's median-cut and fast-octree quantizers run on the same image.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

#include "photo_like.h"
#include "transform_kit.h"

namespace {

RGBQUAD quad(int r, int g, int b) { return RGBQUAD{uint8_t(b), uint8_t(g), uint8_t(r), 0}; }
uint32_t key(const RGBQUAD& q) { return (uint32_t(q.rgbRed) << 16) | (uint32_t(q.rgbGreen) << 8) | q.rgbBlue; }

// A single-block 24-bit BGR bitmap from packed BGR pixels.
struct Img {
    BITMAPRECORD bm{};
    int w, h;
    std::vector<uint8_t> px;  // packed, no padding
    Img(int width, int height, std::vector<uint8_t> bgr) : w(width), h(height), px(std::move(bgr)) {
        EXPECT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, w, h, 24, ORDER_BGR, nullptr, 1, nullptr, 0), KS_SUCCESS);
        for (int y = 0; y < h; ++y) K_PutBitmapRow(&bm, px.data() + size_t(y) * size_t(w) * 3, y, uint32_t(w) * 3);
    }
    ~Img() { K_FreeBitmap(&bm); }
};

// Mean squared error (per channel) of a quantised bitmap against the pixels.
double mse(BITMAPRECORD* q, const std::vector<uint8_t>& px, int w, int h) {
    std::vector<uint8_t> row(q->nBytesPerLine);
    double sum = 0;
    for (int y = 0; y < h; ++y) {
        K_GetBitmapRow(q, row.data(), y, q->nBytesPerLine);
        for (int x = 0; x < w; ++x) {
            const RGBQUAD& e = q->pPalette[row[size_t(x)]];
            const uint8_t* p = px.data() + (size_t(y) * size_t(w) + size_t(x)) * 3;
            const int d[3] = {e.rgbBlue - p[0], e.rgbGreen - p[1], e.rgbRed - p[2]};
            sum += d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
        }
    }
    return sum / (3.0 * w * h);
}

std::vector<uint8_t> fewColours(int w, int h, const std::vector<RGBQUAD>& cs, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> px(size_t(w) * size_t(h) * 3);
    for (size_t i = 0; i < px.size(); i += 3) std::memcpy(&px[i], &cs[rng() % cs.size()], 3);
    return px;
}
// An optimised-palette colour resolution of the image: its error.
double optimisedError(Img& img, uint32_t flags, const RGBQUAD* pal, int n) {
    BITMAPRECORD q;
    EXPECT_EQ(K_ColorResBitmap(&img.bm, &q, 8, flags | CRF_NODITHERING, pal, n, BITMAPRECORD_SIZE), KS_SUCCESS);
    const double e = mse(&q, img.px, img.w, img.h);
    return K_FreeBitmap(&q), e;
}

TEST(ColorResOptPal, FewColoursComeBackExactly) {
    std::mt19937 rng(1);
    struct Case { int w, h, colours, n; };
    // The last image is large enough to be sampled: one odd pixel placed
    // between the sample points must still be found.
    for (Case c : {Case{31, 17, 2, 2}, Case{64, 64, 16, 16}, Case{50, 40, 200, 256}, Case{1100, 1000, 9, 10}}) {
        std::vector<RGBQUAD> cs;
        std::set<uint32_t> keys;
        while (int(cs.size()) < c.colours) {
            RGBQUAD q = quad(int(rng() & 255), int(rng() & 255), int(rng() & 255));
            if (keys.insert(key(q)).second) cs.push_back(q);
        }
        std::vector<RGBQUAD> common(cs.begin(), cs.end() - (c.w > 1000 ? 1 : 0));
        auto px = fewColours(c.w, c.h, common, 3);
        if (c.w > 1000) std::memcpy(&px[(size_t(c.w) + 1) * 3], &cs.back(), 3);  // one pixel, off the sampling grid
        Img img(c.w, c.h, px);
        std::vector<RGBQUAD> pal(size_t(c.n), quad(7, 7, 7));
        int32_t used = -1;
        ASSERT_TRUE(K_CreateBitmapOptPal(&img.bm, pal.data(), c.n, 0, 0, &used) == KS_SUCCESS && used == c.colours);
        std::set<uint32_t> got;
        for (int i = 0; i < used; ++i) got.insert(key(pal[size_t(i)]));
        EXPECT_EQ(got, keys) << c.w << 'x' << c.h;
        EXPECT_EQ(optimisedError(img, CRF_OPTIMIZEDPALETTE, nullptr, c.n), 0.0);  // through colour resolution
    }
}

TEST(ColorResOptPal, ReservedAndTransparentEntriesAreKept) {
    auto px = phototest::photoLike(80, 60, 2);
    Img img(80, 60, px);
    std::vector<RGBQUAD> pal(32, quad(0, 0, 0));
    pal[0] = quad(255, 0, 255), pal[1] = quad(1, 2, 3), pal[31] = quad(0, 254, 0);
    int32_t used = 0;
    ASSERT_EQ(K_CreateBitmapOptPal(&img.bm, pal.data(), 32, 2, OPTPAL_TRANSPARENT, &used), KS_SUCCESS);
    EXPECT_TRUE(used == 32 && key(pal[0]) == key(quad(255, 0, 255)) && key(pal[1]) == key(quad(1, 2, 3)) && key(pal[31]) == key(quad(0, 254, 0)));
    std::set<uint32_t> distinct;
    for (const auto& e : pal) distinct.insert(key(e));
    EXPECT_GT(distinct.size(), 25u);
}

TEST(ColorResOptPal, RefinementNeverLosesToTheSplitAlone) {
    auto px = phototest::photoLike(160, 120, 9);
    Img img(160, 120, px);
    for (int n : {4, 16, 64, 256}) {
        double err[2];
        for (int fast = 0; fast < 2; ++fast) {
            std::vector<RGBQUAD> pal(static_cast<size_t>(n));
            ASSERT_EQ(K_CreateBitmapOptPal(&img.bm, pal.data(), n, 0, fast ? OPTPAL_FAST : 0, nullptr), KS_SUCCESS);
            err[fast] = optimisedError(img, CRF_USERPALETTE | CRF_EXACTMATCH, pal.data(), n);
        }
        EXPECT_LE(err[0], err[1] * 1.0001) << n;
    }
    // An entry no sample chooses keeps its split value: beside a reserved grey the split makes a second grey,
    // which every grey pixel leaves to the lower index (an exact match), and (5,5,5) for the two dark colours.
    std::vector<uint8_t> few(16 * 4 * 3, 100);
    std::memset(few.data(), 0, 6), std::memset(few.data() + 6, 10, 6);  // two black pixels, two (10,10,10)
    Img grey(16, 4, few);
    RGBQUAD split[3] = {quad(100, 100, 100)}, refined[3] = {quad(100, 100, 100)};
    ASSERT_TRUE(K_CreateBitmapOptPal(&grey.bm, split, 3, 1, OPTPAL_FAST, nullptr) == KS_SUCCESS &&
                K_CreateBitmapOptPal(&grey.bm, refined, 3, 1, 0, nullptr) == KS_SUCCESS);
    EXPECT_TRUE(key(split[1]) == key(quad(5, 5, 5)) && key(split[2]) == key(quad(100, 100, 100)) && !std::memcmp(split, refined, sizeof split));
}

TEST(ColorResOptPal, BadInputWritesNothing) {
    auto px = phototest::photoLike(8, 8, 1);
    Img img(8, 8, px);
    BITMAPRECORD unalloc;
    K_InitBitmap(&unalloc, BITMAPRECORD_SIZE, 8, 8, 24);
    struct Case { BITMAPRECORD* bm; bool pal; int n, reserved; uint32_t flags; int32_t want; };
    const int32_t P = KS_INVALID_PARAMETER;
    for (Case c : {Case{nullptr, true, 16, 0, 0, P}, Case{&img.bm, false, 16, 0, 0, P}, Case{&img.bm, true, 1, 0, 0, P}, Case{&img.bm, true, 257, 0, 0, P},
                   Case{&img.bm, true, 16, 17, 0, P}, Case{&img.bm, true, 16, -1, 0, P}, Case{&img.bm, true, 16, 16, OPTPAL_TRANSPARENT, P},
                   Case{&img.bm, true, 16, 0, 0x10, P}, Case{&unalloc, true, 16, 0, 0, KS_INVALID_BITMAP}}) {
        std::vector<RGBQUAD> pal(300, quad(9, 9, 9));
        int32_t used = -5;
        EXPECT_TRUE(K_CreateBitmapOptPal(c.bm, c.pal ? pal.data() : nullptr, c.n, c.reserved, c.flags, &used) == c.want && used == -5) << c.n << " " << c.reserved;
        for (const auto& e : pal) ASSERT_EQ(key(e), key(quad(9, 9, 9)));
    }
    // Allocation failures: nothing written, nothing leaked.
    tkit::allocationWalk([&](tkit::Armed& armed) {
        std::vector<RGBQUAD> pal(16, quad(9, 9, 9));
        if (armed([&] { return K_CreateBitmapOptPal(&img.bm, pal.data(), 16, 0, 0, nullptr); }) == KS_SUCCESS) return;
        for (const auto& e : pal) ASSERT_EQ(key(e), key(quad(9, 9, 9)));
    }, 1, true);
}

// Colours the split and the refinement must not lose: a quarter of near-black pixels (the first cell of the sample)
// among many bright colours, and colours that differ in blue only. Every entry count, split alone and refined.
TEST(ColorResOptPal, NearBlackAndBlueOnlyColoursAreCovered) {
    std::mt19937 rng(6);
    const int w = 96, h = 64;
    std::vector<uint8_t> dark(size_t(w) * h * 3), blue(dark.size());
    for (size_t i = 0; i < dark.size(); i += 3) {
        const bool black = rng() % 4 == 0;
        for (int k = 0; k < 3; ++k) dark[i + size_t(k)] = uint8_t(black ? rng() % 4 : 128 + rng() % 128);
        blue[i] = uint8_t(rng()), blue[i + 1] = blue[i + 2] = 100;
    }
    Img imgs[2] = {{w, h, dark}, {w, h, blue}};
    for (int n : {8, 16})
        for (int fast = 0; fast < 2; ++fast)
            for (int k = 0; k < 2; ++k) {
                std::vector<RGBQUAD> pal(static_cast<size_t>(n));
                ASSERT_EQ(K_CreateBitmapOptPal(&imgs[k].bm, pal.data(), n, 0, fast ? OPTPAL_FAST : 0, nullptr), KS_SUCCESS);
                // an entry for the near-black quarter; blue alone, uniform: about as good as n equal slices of
                // the range, (256 / n)^2 / 12 over three channels
                if (k == 0) EXPECT_TRUE(std::any_of(pal.begin(), pal.end(), [](const RGBQUAD& e) { return (key(e) & 0xF8F8F8) == 0; })) << n << " " << fast;
                else EXPECT_LT(optimisedError(imgs[k], CRF_USERPALETTE | CRF_EXACTMATCH, pal.data(), n), 1.03 * (256.0 / n) * (256.0 / n) / 36) << n << " " << fast;
            }
}

// Pillow's quantizers on the same image, through the script beside the
// benchmarks; skipped when python3 with Pillow is not there.
std::map<std::pair<std::string, int>, double> pillowErrors(const std::string& ppm, const std::vector<int>& counts) {
    // The script: beside this source (an absolute __FILE__), or found from the test binary (build/tests/).
    char exe[1024] = {};
    const std::string file = __FILE__, bin(exe, size_t(std::max<ssize_t>(0, readlink("/proc/self/exe", exe, sizeof(exe) - 1))));
    std::string script, cmd = "/usr/bin/python3 ";
    for (const std::string& c : {file.substr(0, file.find_last_of('/')) + "/../bench/", bin.substr(0, bin.find_last_of('/')) + "/../../bench/"})
        if (script.empty() && access((c + "pillow_quantize.py").c_str(), R_OK) == 0) script = c + "pillow_quantize.py";
    std::map<std::pair<std::string, int>, double> out;
    if (script.empty()) return out;
    cmd.append(script).append(" ").append(ppm);
    for (int n : counts) cmd.append(" ").append(std::to_string(n));
    FILE* p = popen(cmd.append(" 2>/dev/null").c_str(), "r");
    if (!p) return out;
    char name[32];
    int n;
    double e, t;
    while (std::fscanf(p, "%31s %d %lf %lf", name, &n, &e, &t) == 4) out[{name, n}] = e;
    pclose(p);
    return out;
}

TEST(ColorResOptPal, PhotoLikeErrorIsBelowPillowMedianCutAndOctree) {
    const int w = 320, h = 240;
    const std::vector<int> counts = {256, 64, 16};
    for (uint32_t seed : {1u, 2u}) {
        auto px = phototest::photoLike(w, h, seed);
        const std::string ppm = ::testing::TempDir() + "colorres_photo_" + std::to_string(seed) + ".ppm";
        ASSERT_TRUE(phototest::writePpm(ppm, px, w, h));
        auto pillow = pillowErrors(ppm, counts);
        std::remove(ppm.c_str());
        if (pillow.size() != counts.size() * 2) GTEST_SKIP() << "python3 with Pillow not available";
        Img img(w, h, px);
        for (int n : counts) {
            const double ours = optimisedError(img, CRF_OPTIMIZEDPALETTE, nullptr, n), mc = pillow[{"mediancut", n}], oct = pillow[{"fastoctree", n}];
            std::printf("image %u, %3d colours: mse ours %8.3f  median cut %8.3f  fast octree %8.3f\n", seed, n, ours, mc, oct);
            EXPECT_TRUE(ours < mc && ours < oct) << n;
        }
    }
}

// One palette for every bitmap of a list: the union of the bitmaps' colours when it fits, and bad handles refused.
TEST(ColorResOptPal, ListPaletteCoversEveryBitmap) {
    HBITMAPLIST list = nullptr;
    ASSERT_EQ(K_CreateBitmapList(&list), KS_SUCCESS);
    std::set<uint32_t> all;
    std::mt19937 rng(4);
    for (int i = 0; i < 3; ++i) {
        std::vector<RGBQUAD> cs;
        for (int k = 0; k < 5; ++k) {
            cs.push_back(quad(int(rng() & 255), int(rng() & 255), int(rng() & 255)));
            all.insert(key(cs.back()));
        }
        Img img(20 + i, 10, fewColours(20 + i, 10, cs, uint32_t(i)));
        ASSERT_EQ(K_InsertBitmapListItem(list, BITMAPLIST_END, &img.bm), KS_SUCCESS);  // the list owns it now
        img.bm = BITMAPRECORD{};
    }
    std::vector<RGBQUAD> pal(16);
    int32_t used = 0;
    ASSERT_EQ(K_CreateBitmapListOptPal(list, pal.data(), 16, 0, 0, &used), KS_SUCCESS);
    std::set<uint32_t> got;
    for (int i = 0; i < used; ++i) got.insert(key(pal[size_t(i)]));
    EXPECT_EQ(got, all);
    // Fewer entries than colours: every entry still used, none invented twice.
    EXPECT_TRUE(K_CreateBitmapListOptPal(list, pal.data(), 8, 0, 0, &used) == KS_SUCCESS && used == 8);
    for (int32_t st : {K_CreateBitmapListOptPal(nullptr, pal.data(), 8, 0, 0, &used), K_CreateBitmapListOptPal(list, nullptr, 8, 0, 0, &used),
                       K_CreateBitmapListOptPal(list, pal.data(), 300, 0, 0, &used)})
        EXPECT_EQ(st, KS_INVALID_PARAMETER);
    ASSERT_EQ(K_DestroyBitmapList(list), KS_SUCCESS);
    HBITMAPLIST empty = nullptr;
    EXPECT_TRUE(K_CreateBitmapList(&empty) == KS_SUCCESS && K_CreateBitmapListOptPal(empty, pal.data(), 8, 0, 0, &used) == KS_INVALID_BITMAP);
    K_DestroyBitmapList(empty);
}

}  // namespace
