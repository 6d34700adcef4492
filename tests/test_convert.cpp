// test_convert.cpp - the buffer converter against a plain reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "convert_reference.h"
#include "krn/common/convert.h"
#include "krn/common/convert_kernels.h"
#include "krn/common/memory.h"
#include "krn/common/palette.h"
#include "ombrix.h"

namespace {

const int kDepths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};
const int kOrders[] = {0, 1, 2, 5, 7};
const int kWidths[] = {1, 2, 3, 4, 5, 7, 8, 9, 13, 15, 16, 17, 31, 33, 47, 64, 100, 257, 515};
constexpr size_t kGuard = 24;

std::vector<RGBQUAD> randomPalette(std::mt19937& rng, int n) {
    std::vector<RGBQUAD> p(static_cast<size_t>(n));
    for (auto& e : p) e = RGBQUAD{uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), 0};
    return p;
}

struct Case {
    convref::Request req;
    std::vector<uint8_t> buffer;  // run bytes + guard
    std::string describe() const {
        const auto& r = req;
        return "w=" + std::to_string(r.width) + " " + std::to_string(r.srcBits) + "/" + std::to_string(r.srcOrder) +
               " -> " + std::to_string(r.dstBits) + "/" + std::to_string(r.dstOrder) + " flags=" +
               std::to_string(r.flags) + " lo=" + std::to_string(r.lowBit) + " hi=" + std::to_string(r.highBit) +
               " cr=" + std::to_string(r.crTransparent) + (r.extra ? " extra" : "") +
               (r.srcPal ? " spal" : "") + (r.dstPal ? " dpal" : "");
    }
};

// Runs one case through the library and the reference; returns an empty
// string when they agree.
std::string runCase(const Case& c, uint8_t fill) {
    const auto& r = c.req;
    std::vector<uint8_t> orig = c.buffer;
    // Bytes past the source run (where a wider destination goes) get `fill`.
    size_t srcBytes = convref::srcRunBytes(r);
    for (size_t i = srcBytes; i < orig.size() - kGuard; ++i) orig[i] = fill;
    for (size_t i = orig.size() - kGuard; i < orig.size(); ++i) orig[i] = uint8_t(0xA5 ^ i);
    std::vector<uint8_t> lib = orig;
    int extraDummy = 0;
    int st = krn::convertBuffer(lib.data(), r.width, r.srcBits, r.dstBits, r.srcOrder, r.dstOrder, r.srcPal, r.dstPal,
                                r.extra ? &extraDummy : nullptr, r.flags, r.lowBit, r.highBit, r.crTransparent, r.tree);
    int want = convref::expectedStatus(r);
    if (st != want) return "status " + std::to_string(st) + " want " + std::to_string(want);
    if (want < 0) {
        if (lib != orig) return "refused call changed the buffer";
        return {};
    }
    for (size_t i = orig.size() - kGuard; i < orig.size(); ++i)
        if (lib[i] != orig[i]) return "guard byte " + std::to_string(i) + " written";
    std::vector<uint8_t> ref = convref::convert(r, orig);
    size_t n = convref::dstRunBytes(r);
    for (size_t i = 0; i < n; ++i)
        if (lib[i] != ref[i])
            return "byte " + std::to_string(i) + " is " + std::to_string(lib[i]) + " want " + std::to_string(ref[i]);
    return {};
}

Case makeCase(std::mt19937& rng, int width, int sb, int db, int so, int dO) {
    Case c;
    c.req.width = width;
    c.req.srcBits = sb, c.req.dstBits = db, c.req.srcOrder = so, c.req.dstOrder = dO;
    size_t run = std::max(convref::srcRunBytes(c.req), convref::dstRunBytes(c.req));
    c.buffer.resize(run + kGuard);
    for (auto& b : c.buffer) b = uint8_t(rng());
    return c;
}

// The 24-bit colour reference (RGB) of the first pixel, by the reference.
uint32_t firstColour(const Case& c) {
    convref::Request q = c.req;
    q.dstBits = 24, q.dstOrder = 0, q.flags &= ~0x8Bu, q.crTransparent = 0;
    if (convref::expectedStatus(q) != 1) return 0x123456;
    std::vector<uint8_t> buf = c.buffer;
    buf.resize(std::max(buf.size(), convref::dstRunBytes(q) + kGuard));
    auto out = convref::convert(q, buf);
    return uint32_t(out[0]) | (uint32_t(out[1]) << 8) | (uint32_t(out[2]) << 16);
}

}  // namespace

// Every (source, destination, order, flags) combination on random runs.
TEST(ConvertMatrix, EveryCombinationMatchesReference) {
    std::mt19937 rng(12345);
    size_t runs = 0, converted = 0;
    int failures = 0;
    for (int sb : kDepths)
        for (int db : kDepths)
            for (int so : kOrders)
                for (int dO : kOrders)
                    for (int variant = 0; variant < 9; ++variant) {
                        // Two widths per variant, cycling through the list.
                        for (int k = 0; k < 2; ++k) {
                            int width = kWidths[(runs + size_t(k) * 7) % std::size(kWidths)];
                            Case c = makeCase(rng, width, sb, db, so, dO);
                            std::vector<RGBQUAD> spal, dpal;
                            if (rng() & 1) {
                                spal = randomPalette(rng, 256);
                                c.req.srcPal = spal.data();
                            }
                            if (rng() & 1) {
                                dpal = randomPalette(rng, 256);
                                c.req.dstPal = dpal.data();
                            }
                            auto& r = c.req;
                            switch (variant) {
                                case 0: break;
                                case 1:
                                    r.flags = CONVERT_TRANSPARENT;
                                    r.crTransparent = firstColour(c);
                                    break;
                                case 2:
                                    r.flags = CONVERT_TRANSPARENT;
                                    r.crTransparent = CONVERT_PALETTEINDEX(sb >= 1 && sb <= 8 ? c.buffer[0] >> (8 - sb) : 0);
                                    break;
                                case 3: {
                                    r.flags = CONVERT_SRCRANGE;
                                    int d = sb == 0 ? 8 : sb;
                                    r.lowBit = int(rng() % uint32_t(d));
                                    r.highBit = r.lowBit + int(rng() % uint32_t(d - r.lowBit));
                                    break;
                                }
                                case 4: {
                                    r.flags = CONVERT_DSTRANGE;
                                    int d = db == 0 ? 8 : db;
                                    r.lowBit = int(rng() % uint32_t(d));
                                    r.highBit = r.lowBit + int(rng() % uint32_t(d - r.lowBit));
                                    break;
                                }
                                case 5:
                                    r.flags = CONVERT_SRCRANGE | CONVERT_SRCGRAY;
                                    r.lowBit = 0, r.highBit = -1;
                                    r.extra = true;
                                    break;
                                case 6:  // windows that cannot be honoured
                                    r.flags = (rng() & 1) ? CONVERT_SRCRANGE : CONVERT_DSTRANGE;
                                    r.lowBit = 5, r.highBit = int(rng() % 5);
                                    if (rng() & 1) r.lowBit = 0, r.highBit = 40 + int(rng() % 30);
                                    break;
                                case 7:
                                    r.flags = CONVERT_SRCRANGE | CONVERT_DSTRANGE;
                                    r.lowBit = 1, r.highBit = 6;
                                    break;
                                case 8:  // flags that the orders override
                                    r.flags = CONVERT_SRCGRAY | CONVERT_DSTGRAY | CONVERT_TRANSPARENT;
                                    r.crTransparent = 0x01FFFFFF;
                                    r.lowBit = 2, r.highBit = 3;
                                    break;
                            }
                            std::string err = runCase(c, uint8_t(rng()));
                            ++runs;
                            if (convref::expectedStatus(r) > 0) ++converted;
                            if (!err.empty() && failures++ < 20) ADD_FAILURE() << c.describe() << ": " << err;
                        }
                    }
    EXPECT_EQ(failures, 0);
    EXPECT_GT(converted, runs / 5);  // the matrix is not all rejections
}

// Orders outside the accepted set and depths outside the list are rejected
// before any pixel changes.
TEST(ConvertMatrix, UnknownDepthsAndOrdersAreRejected) {
    std::mt19937 rng(7);
    const int badDepths[] = {-1, 9, 10, 11, 13, 15, 17, 20, 31, 40, 63, 65, 128};
    const int badOrders[] = {-1, 3, 4, 6, 8, 100};
    std::vector<uint8_t> buf(64 * 8), orig;
    for (auto& b : buf) b = uint8_t(rng());
    orig = buf;
    for (int d : badDepths) {
        EXPECT_EQ(K_ConvertBuffer(buf.data(), 8, d, 24, 1, 1, nullptr, nullptr), KS_INVALID_PARAMETER) << d;
        EXPECT_EQ(K_ConvertBuffer(buf.data(), 8, 24, d, 1, 1, nullptr, nullptr), KS_INVALID_PARAMETER) << d;
    }
    for (int o : badOrders) {
        EXPECT_EQ(K_ConvertBuffer(buf.data(), 8, 24, 24, o, 1, nullptr, nullptr), KS_INVALID_PARAMETER) << o;
        EXPECT_EQ(K_ConvertBuffer(buf.data(), 8, 24, 24, 1, o, nullptr, nullptr), KS_INVALID_PARAMETER) << o;
        EXPECT_EQ(K_ConvertBuffer(buf.data(), 8, 8, 8, o, 1, nullptr, nullptr), KS_INVALID_PARAMETER) << o;
    }
    EXPECT_EQ(K_ConvertBuffer(nullptr, 8, 24, 24, 1, 0, nullptr, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_ConvertBuffer(buf.data(), 0, 24, 24, 1, 0, nullptr, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_ConvertBuffer(buf.data(), -5, 24, 24, 1, 0, nullptr, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_ConvertBufferExt(buf.data(), 8, 12, 16, 1, 2, nullptr, nullptr, 0, -1, -1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_ConvertBufferExt(buf.data(), 8, 16, 12, 2, 0, nullptr, nullptr, 0, -1, -1), KS_INVALID_PARAMETER);
    EXPECT_EQ(buf, orig);
}

// The wide-primaries matrices: forward then inverse stays within two steps.
TEST(ConvertRoundTrip, WidePrimariesNearlyInvert) {
    int worst = 0;
    for (int b = 0; b < 256; b += 5)
        for (int g = 0; g < 256; g += 5)
            for (int r = 0; r < 256; r += 5) {
                uint8_t px[3] = {uint8_t(b), uint8_t(g), uint8_t(r)};
                ASSERT_EQ(K_ConvertBuffer(px, 1, 24, 24, ORDER_BGR, ORDER_BGRWIDE, nullptr, nullptr), KS_SUCCESS);
                ASSERT_EQ(K_ConvertBuffer(px, 1, 24, 24, ORDER_BGRWIDE, ORDER_BGR, nullptr, nullptr), KS_SUCCESS);
                worst = std::max({worst, std::abs(px[0] - b), std::abs(px[1] - g), std::abs(px[2] - r)});
            }
    EXPECT_LE(worst, 2);
    // Order 5 to order 5 passes the samples through.
    uint8_t px[6] = {10, 20, 30, 40, 50, 60};
    ASSERT_EQ(K_ConvertBuffer(px, 1, 24, 48, ORDER_BGRWIDE, ORDER_BGRWIDE, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(px[1], 10);
    EXPECT_EQ(px[3], 20);
    EXPECT_EQ(px[5], 30);
    // Full-scale 16-bit samples stay in range (the first row sums past 8192).
    uint8_t deep[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    ASSERT_EQ(K_ConvertBuffer(deep, 1, 48, 48, ORDER_BGR, ORDER_BGRWIDE, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(deep[0] | (deep[1] << 8), 65535);
    // Other depths refuse the wide primaries and leave the buffer as it was.
    for (int bits : {8, 16, 32, 64}) {
        uint8_t buf[64];
        for (int i = 0; i < 64; ++i) buf[i] = uint8_t(i * 37 + 11);
        uint8_t before[64];
        std::memcpy(before, buf, sizeof buf);
        EXPECT_EQ(K_ConvertBuffer(buf, 4, 24, bits, ORDER_BGR, ORDER_BGRWIDE, nullptr, nullptr), KS_NOT_SUPPORTED)
            << bits;
        EXPECT_EQ(std::memcmp(buf, before, sizeof buf), 0) << bits;
    }
}

TEST(ConvertEdges, DocumentedExamples) {
    using Bytes = std::vector<uint8_t>;
    // White 24 -> 5-5-5 -> 24.
    Bytes w = {255, 255, 255, 0};
    ASSERT_EQ(K_ConvertBuffer(w.data(), 1, 24, 16, ORDER_BGR, ORDER_BGR, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(w, (Bytes{0xFF, 0x7F, 255, 0}));
    ASSERT_EQ(K_ConvertBuffer(w.data(), 1, 16, 24, ORDER_BGR, ORDER_BGR, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(w, (Bytes{255, 255, 255, 0}));
    // Grey of the primaries (BGR memory order).
    Bytes g = {0, 0, 255, 0, 255, 0, 255, 0, 0};
    ASSERT_EQ(K_ConvertBuffer(g.data(), 3, 24, 0, ORDER_BGR, ORDER_GRAY, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(Bytes(g.begin(), g.begin() + 3), (Bytes{64, 159, 32}));
    // BGR -> RGB swaps bytes 0 and 2; the same order leaves the run alone.
    Bytes s = {1, 2, 3, 4, 5, 6};
    ASSERT_EQ(K_ConvertBuffer(s.data(), 2, 24, 24, ORDER_BGR, ORDER_RGB, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(s, (Bytes{3, 2, 1, 6, 5, 4}));
    ASSERT_EQ(K_ConvertBuffer(s.data(), 2, 24, 24, ORDER_RGB, ORDER_RGB, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(s, (Bytes{3, 2, 1, 6, 5, 4}));
    // A source range of 0..-1 is the same as no range.
    std::mt19937 rng(3);
    Bytes a(64), b;
    for (auto& x : a) x = uint8_t(rng());
    b = a;
    ASSERT_EQ(K_ConvertBufferExt(a.data(), 32, 16, 0, ORDER_GRAY, ORDER_GRAY, nullptr, nullptr, CONVERT_SRCRANGE, 0, -1),
              KS_SUCCESS);
    ASSERT_EQ(K_ConvertBufferExt(b.data(), 32, 16, 0, ORDER_GRAY, ORDER_GRAY, nullptr, nullptr, 0, -1, -1), KS_SUCCESS);
    EXPECT_EQ(a, b);
}

// The two transparency forms, seen from the outside.
TEST(ConvertEdges, TransparencyByColourAndByIndex) {
    RGBQUAD pal[4] = {{0, 0, 0, 0}, {10, 20, 30, 0}, {10, 20, 30, 0}, {255, 255, 255, 0}};
    std::vector<uint8_t> b1(4 * 8, 0xEE);
    b1[0] = 0x1B;  // 2-bit indices 0,1,2,3
    std::vector<uint8_t> b2 = b1;
    ASSERT_EQ(K_ConvertBufferExt3(b1.data(), 4, 2, 32, ORDER_BGR, ORDER_BGR, pal, nullptr, nullptr, 0,
                                  CONVERT_TRANSPARENT, -1, -1, CONVERT_PALETTEINDEX(2)),
              KS_SUCCESS);
    EXPECT_EQ(b1[3], 255);
    EXPECT_EQ(b1[7], 255);  // same colour as entry 2, other index
    EXPECT_EQ(b1[11], 0);
    EXPECT_EQ(b1[15], 255);
    // By colour (red 30, green 20, blue 10): both entries 1 and 2 match.
    ASSERT_EQ(K_ConvertBufferExt3(b2.data(), 4, 2, 64, ORDER_BGR, ORDER_RGB, pal, nullptr, nullptr, 0,
                                  CONVERT_TRANSPARENT, -1, -1, 30u | (20u << 8) | (10u << 16)),
              KS_SUCCESS);
    auto alpha = [&](int i) { return b2[size_t(8 * i + 6)] | (b2[size_t(8 * i + 7)] << 8); };
    EXPECT_EQ(alpha(0), 0xFFFF);
    EXPECT_EQ(alpha(1), 0);
    EXPECT_EQ(alpha(2), 0);
    EXPECT_EQ(alpha(3), 0xFFFF);
    EXPECT_EQ(b2[8] | (b2[9] << 8), 30 * 257);  // red first, widened
}

// The direct kernels (plain and SIMD) agree with each other and with the
// generic path on long runs with every tail length.
TEST(ConvertKernels, SimdMatchesPlainAndGeneric) {
    struct K {
        int sb, so, db, dO;
    };
    const K keys[] = {{24, 0, 24, 1}, {24, 1, 24, 0}, {24, 1, 32, 1}, {24, 0, 32, 1}, {32, 1, 24, 1}, {32, 1, 24, 0},
                      {24, 1, 16, 1}, {24, 0, 16, 0}, {24, 1, 16, 7}, {16, 1, 24, 1}, {16, 7, 24, 0}, {16, 0, 24, 1},
                      {48, 1, 24, 1}, {48, 0, 24, 1}, {24, 1, 0, 2}, {24, 0, 0, 2}, {32, 1, 0, 2}};
    std::mt19937 rng(21);
    for (const K& k : keys) {
        auto plain = krn::conv::pickDirect({k.sb, k.so, k.db, k.dO}, krn::conv::kSimdNone);
        ASSERT_NE(plain, nullptr);
      for (int level : {krn::conv::kSimdSsse3, krn::conv::kSimdAvx2, krn::conv::kSimdAvx512}) {
        auto simd = krn::conv::pickDirect({k.sb, k.so, k.db, k.dO}, level);
        ASSERT_NE(simd, nullptr);
        // Short runs with every tail length (the widening kernels take 32
        // pixels per step and convert the rest first), and long runs.
        std::vector<int> widths;
        for (int width = 1; width < 200; width += (width < 70 ? 1 : 13)) widths.push_back(width);
        for (int width : {4095, 4096, 4097, 8200, 12289}) widths.push_back(width);
        for (int width : widths) {
            size_t bytes = size_t(width) * size_t(std::max(k.sb, std::max(k.db, 8)) / 8) + kGuard;
            std::vector<uint8_t> a(bytes);
            for (auto& x : a) x = uint8_t(rng());
            std::vector<uint8_t> b = a, orig = a;
            simd(a.data(), size_t(width));
            plain(b.data(), size_t(width));
            size_t run = size_t(width) * size_t(std::max(k.db, 8) / 8);
            // The whole buffer: past a narrower destination run the source
            // bytes stay as the plain kernel leaves them.
            ASSERT_TRUE(a == b) << k.sb << "/" << k.so << "->" << k.db << "/" << k.dO << " w=" << width;
            // Once more on a buffer of exactly the larger run (the address
            // sanitizer catches a kernel that reads or writes past it).
            std::vector<uint8_t> exact(orig.begin(), orig.end() - long(kGuard));
            simd(exact.data(), size_t(width));
            ASSERT_TRUE(std::equal(exact.begin(), exact.begin() + long(run), b.begin())) << "exact, w=" << width;
            for (size_t i = bytes - kGuard; i < bytes; ++i) ASSERT_EQ(a[i], orig[i]) << "guard, w=" << width;
            // The reference agrees with the plain kernel.
            convref::Request r;
            r.width = width, r.srcBits = k.sb, r.srcOrder = k.so, r.dstBits = k.db, r.dstOrder = k.dO;
            auto ref = convref::convert(r, orig);
            ASSERT_TRUE(std::equal(b.begin(), b.begin() + long(run), ref.begin()))
                << k.sb << "/" << k.so << "->" << k.db << "/" << k.dO << " w=" << width;
        }
      }
    }
}

// The converter does not allocate: every allocation failing changes nothing.
TEST(ConvertKernels, AllocationFree) {
    std::vector<uint8_t> buf(4000 * 8);
    std::mt19937 rng(1);
    for (auto& x : buf) x = uint8_t(rng());
    krn::faultinject::arm(0, -1);
    int a = K_ConvertBuffer(buf.data(), 4000, 24, 8, ORDER_BGR, ORDER_BGR, nullptr, nullptr);
    int b = K_ConvertBuffer(buf.data(), 4000, 8, 64, ORDER_BGR, ORDER_RGB, nullptr, nullptr);
    int c = K_ConvertBuffer(buf.data(), 4000, 64, 12, ORDER_RGB, ORDER_GRAY, nullptr, nullptr);
    long injected = krn::faultinject::injected();
    krn::faultinject::disarm();
    EXPECT_EQ(a, KS_SUCCESS);
    EXPECT_EQ(b, KS_SUCCESS);
    EXPECT_EQ(c, KS_SUCCESS);
    EXPECT_EQ(injected, 0);
}

// ------------------------------------------------------------ colour-match tree
TEST(ConvertTree, LookupFollowsTheBuildRule) {
    std::mt19937 rng(5);
    for (int trial = 0; trial < 40; ++trial) {
        int n = 1 + int(rng() % 256);
        // Few distinct levels so that prefixes are shared and duplicates occur.
        const int levels = trial % 2 ? 4 : 256;
        std::vector<RGBQUAD> pal(static_cast<size_t>(n));
        for (auto& e : pal)
            e = RGBQUAD{uint8_t(rng() % levels * (256 / levels)), uint8_t(rng() % levels * (256 / levels)),
                        uint8_t(rng() % levels * (256 / levels)), 0};
        uint32_t* tree = krn::buildColorMatchTree(pal.data(), n);
        ASSERT_NE(tree, nullptr);
        for (const auto& e : pal) {
            int want = convref::treeAnswer(pal.data(), n, e.rgbRed, e.rgbGreen, e.rgbBlue);
            ASSERT_EQ(krn::colorMatchTreeLookup(tree, e.rgbRed, e.rgbGreen, e.rgbBlue), want);
            // A palette colour answers its own colour, lowest index first.
            int first = int(std::find_if(pal.begin(), pal.end(),
                                         [&](const RGBQUAD& x) {
                                             return x.rgbRed == e.rgbRed && x.rgbGreen == e.rgbGreen &&
                                                    x.rgbBlue == e.rgbBlue;
                                         }) -
                            pal.begin());
            ASSERT_EQ(want, first);
        }
        for (int k = 0; k < 2000; ++k) {
            int r = int(rng() & 255), g = int(rng() & 255), b = int(rng() & 255);
            if (levels == 4) r &= 0xC0, g &= 0xC0, b &= 0xC0;
            ASSERT_EQ(krn::colorMatchTreeLookup(tree, r, g, b), convref::treeAnswer(pal.data(), n, r, g, b));
        }
        // The converter asks the tree first and the palette for absent prefixes.
        Case c = makeCase(rng, 300, 24, 8, ORDER_BGR, ORDER_BGR);
        for (size_t i = 0; i < 200; ++i) {
            const auto& e = pal[rng() % size_t(n)];
            c.buffer[3 * i] = e.rgbBlue, c.buffer[3 * i + 1] = e.rgbGreen, c.buffer[3 * i + 2] = e.rgbRed;
        }
        std::vector<RGBQUAD> full(256, RGBQUAD{1, 2, 3, 0});
        std::copy(pal.begin(), pal.end(), full.begin());
        uint32_t* fullTree = krn::buildColorMatchTree(full.data(), 256);
        c.req.dstPal = full.data();
        c.req.tree = fullTree;
        std::string err = runCase(c, 0);
        EXPECT_TRUE(err.empty()) << err;
        krn::freeColorMatchTree(fullTree);
        krn::freeColorMatchTree(tree);
    }
    EXPECT_EQ(krn::buildColorMatchTree(nullptr, 4), nullptr);
    RGBQUAD one{1, 2, 3, 0};
    EXPECT_EQ(krn::buildColorMatchTree(&one, 0), nullptr);
    EXPECT_EQ(krn::buildColorMatchTree(&one, 257), nullptr);
}

TEST(ConvertTree, FailedBuildLeaksNothing) {
    std::vector<RGBQUAD> pal(256);
    for (int i = 0; i < 256; ++i) pal[size_t(i)] = RGBQUAD{uint8_t(i & 3), uint8_t(i), uint8_t(255 - i), 0};
    long before = krn::faultinject::liveBlocks();
    krn::faultinject::arm(0, 1);
    EXPECT_EQ(krn::buildColorMatchTree(pal.data(), 256), nullptr);
    krn::faultinject::disarm();
    EXPECT_EQ(krn::faultinject::liveBlocks(), before);
    uint32_t* t = krn::buildColorMatchTree(pal.data(), 256);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(krn::faultinject::liveBlocks(), before + 1);
    krn::freeColorMatchTree(t);
    EXPECT_EQ(krn::faultinject::liveBlocks(), before);
}

// Palette expansion to 24/32 bits on long runs (chunks of 4096 pixels from
// the end) against the reference, on buffers of exactly the run's size.
TEST(ConvertKernels, PaletteExpansionOnLongRuns) {
    std::mt19937 rng(31);
    for (int sb : {1, 2, 4, 8})
        for (int db : {24, 32})
            for (int dO : {ORDER_RGB, ORDER_BGR})
                for (int width : {1, 7, 4095, 4096, 4097, 9001}) {
                    std::vector<RGBQUAD> pal = randomPalette(rng, 1 << sb);
                    convref::Request r;
                    r.width = width, r.srcBits = sb, r.dstBits = db, r.srcOrder = ORDER_BGR, r.dstOrder = dO;
                    r.srcPal = (width & 1) ? pal.data() : nullptr;
                    std::vector<uint8_t> buf(convref::dstRunBytes(r));
                    for (auto& x : buf) x = uint8_t(rng());
                    auto want = convref::convert(r, buf);
                    ASSERT_EQ(K_ConvertBuffer(buf.data(), width, sb, db, ORDER_BGR, dO, r.srcPal, nullptr), KS_SUCCESS);
                    ASSERT_EQ(buf, want) << sb << " -> " << db << "/" << dO << " w=" << width;
                }
}

// The four entries hand their arguments to the one dispatcher: each gives
// what the dispatcher gives for the arguments it implies (K_ConvertBuffer:
// grey flags from the orders, no window; Ext: no extra pointer, no colour;
// Ext2: the reserved argument ignored, no colour).
TEST(ConvertMatrix, EntriesPassTheirArgumentsOn) {
    std::mt19937 rng(77);
    int converted = 0;
    for (int k = 0; k < 3000; ++k) {
        const int sb = kDepths[rng() % 15], db = kDepths[rng() % 15];
        const int so = kOrders[rng() % 5], dO = kOrders[rng() % 5];
        const int width = 1 + int(rng() % 40);
        const uint32_t flags = rng() & 0x8F;
        const int lo = int(rng() % 6) - 1, hi = int(rng() % 20) - 1;
        const uint32_t cr = (rng() & 1) ? rng() : CONVERT_PALETTEINDEX(rng());
        int dummy = 0;
        void* extra = (rng() & 1) ? &dummy : nullptr;
        std::vector<uint8_t> orig(size_t(width) * 8);
        for (auto& x : orig) x = uint8_t(rng());
        auto viaDispatcher = [&](void* ex, uint32_t fl, int l, int h, uint32_t c, std::vector<uint8_t>& out) {
            out = orig;
            return krn::convertBuffer(out.data(), width, sb, db, so, dO, nullptr, nullptr, ex, fl, l, h, c, nullptr);
        };
        std::vector<uint8_t> got, want;
        const uint32_t greyFlags = (so == ORDER_GRAY ? CONVERT_SRCGRAY : 0u) | (dO == ORDER_GRAY ? CONVERT_DSTGRAY : 0u);
        got = orig;
        ASSERT_EQ(K_ConvertBuffer(got.data(), width, sb, db, so, dO, nullptr, nullptr),
                  viaDispatcher(nullptr, greyFlags, -1, -1, 0, want));
        ASSERT_EQ(got, want);
        got = orig;
        ASSERT_EQ(K_ConvertBufferExt(got.data(), width, sb, db, so, dO, nullptr, nullptr, flags, lo, hi),
                  viaDispatcher(nullptr, flags, lo, hi, 0, want));
        ASSERT_EQ(got, want);
        got = orig;
        ASSERT_EQ(K_ConvertBufferExt2(got.data(), width, sb, db, so, dO, nullptr, nullptr, extra, int32_t(rng()), flags,
                                      lo, hi),
                  viaDispatcher(extra, flags, lo, hi, 0, want));
        ASSERT_EQ(got, want);
        got = orig;
        int st = K_ConvertBufferExt3(got.data(), width, sb, db, so, dO, nullptr, nullptr, extra, int32_t(rng()), flags,
                                     lo, hi, cr);
        ASSERT_EQ(st, viaDispatcher(extra, flags, lo, hi, cr, want));
        ASSERT_EQ(got, want);
        converted += st == KS_SUCCESS;
    }
    EXPECT_GT(converted, 300);
}
