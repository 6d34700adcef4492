// test_convert.cpp - the buffer converter against the plain reference (every depth, order, flag and window; the SIMD
// and plain kernels with guard bytes; the colour-match tree), the four entries, the wide primaries, and the helpers
// beside it: HSV, line-buffer sizes, grey-window padding and the 32-bit grey reductions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
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
using Bytes = std::vector<uint8_t>;

Bytes randomBytes(std::mt19937& rng, size_t n) {
    Bytes b(n);
    for (auto& x : b) x = uint8_t(rng());
    return b;
}
std::vector<RGBQUAD> randomPalette(std::mt19937& rng, int n) {
    std::vector<RGBQUAD> p(static_cast<size_t>(n));
    for (auto& e : p) e = RGBQUAD{uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), 0};
    return p;
}
convref::Request request(int width, int sb, int so, int db, int dO) {
    convref::Request r;
    r.width = width, r.srcBits = sb, r.srcOrder = so, r.dstBits = db, r.dstOrder = dO;
    return r;
}

// width, source depth/order, destination depth/order, flags, window, transparent colour, which pointers are given
std::string describe(const convref::Request& r) {
    return testing::PrintToString(std::vector<int64_t>{r.width, r.srcBits, r.srcOrder, r.dstBits, r.dstOrder, r.flags,
        r.lowBit, r.highBit, r.crTransparent, r.extra, r.srcPal != nullptr, r.dstPal != nullptr});
}

// Runs one request through the library and the reference on `buffer` (run bytes + guard; bytes past the source run
// get `fill`); "" when they agree: the status, a refused call leaving every byte, the guard, the whole run.
std::string runCase(const convref::Request& r, Bytes orig, uint8_t fill) {
    for (size_t i = convref::srcRunBytes(r); i < orig.size() - kGuard; ++i) orig[i] = fill;
    for (size_t i = orig.size() - kGuard; i < orig.size(); ++i) orig[i] = uint8_t(0xA5 ^ i);
    Bytes lib = orig;
    int extraDummy = 0;
    const int st = krn::convertBuffer(lib.data(), r.width, r.srcBits, r.dstBits, r.srcOrder, r.dstOrder, r.srcPal,
                                      r.dstPal, r.extra ? &extraDummy : nullptr, r.flags, r.lowBit, r.highBit,
                                      r.crTransparent, r.tree);
    const int want = convref::expectedStatus(r);
    if (st != want) return "status " + std::to_string(st) + " want " + std::to_string(want);
    if (want < 0) return lib == orig ? "" : "refused call changed the buffer";
    for (size_t i = orig.size() - kGuard; i < orig.size(); ++i)
        if (lib[i] != orig[i]) return "guard byte " + std::to_string(i) + " written";
    const Bytes ref = convref::convert(r, orig);
    for (size_t i = 0; i < convref::dstRunBytes(r); ++i)
        if (lib[i] != ref[i])
            return "byte " + std::to_string(i) + ": " + std::to_string(lib[i]) + ", not " + std::to_string(ref[i]);
    return {};
}
Bytes bufferFor(std::mt19937& rng, const convref::Request& r) {
    return randomBytes(rng, std::max(convref::srcRunBytes(r), convref::dstRunBytes(r)) + kGuard);
}
// A window lo..hi inside a sample of d bits (d = 0: 8).
void randomWindow(std::mt19937& rng, convref::Request& r, int d) {
    d = d == 0 ? 8 : d;
    r.lowBit = int(rng() % uint32_t(d));
    r.highBit = r.lowBit + int(rng() % uint32_t(d - r.lowBit));
}


// Flags, windows and transparent colours of variant v (0..8) of a request on `buf`.
void vary(convref::Request& r, int v, const Bytes& buf, std::mt19937& rng) {
    const int sb = r.srcBits;
    switch (v) {
        case 1: {  // transparent: the first pixel's colour, as the reference reads it
            convref::Request q = r;
            q.dstBits = 24, q.dstOrder = 0;
            Bytes b24 = buf;
            b24.resize(std::max(buf.size(), convref::dstRunBytes(q) + kGuard));
            if (convref::expectedStatus(q) == 1) {
                const Bytes out = convref::convert(q, b24);
                r.crTransparent = uint32_t(out[0]) | uint32_t(out[1]) << 8 | uint32_t(out[2]) << 16;
            }
            r.flags = CONVERT_TRANSPARENT;
            break;
        }
        case 2:
            r.flags = CONVERT_TRANSPARENT;
            r.crTransparent = CONVERT_PALETTEINDEX(sb >= 1 && sb <= 8 ? buf[0] >> (8 - sb) : 0);
            break;
        case 3: r.flags = CONVERT_SRCRANGE, randomWindow(rng, r, sb); break;
        case 4: r.flags = CONVERT_DSTRANGE, randomWindow(rng, r, r.dstBits); break;
        case 5:  // 0..-1: the whole sample
            r.flags = CONVERT_SRCRANGE | CONVERT_SRCGRAY, r.lowBit = 0, r.highBit = -1, r.extra = true;
            break;
        case 6:  // windows that cannot be honoured
            r.flags = (rng() & 1) ? CONVERT_SRCRANGE : CONVERT_DSTRANGE;
            r.lowBit = 5, r.highBit = int(rng() % 5);
            if (rng() & 1) r.lowBit = 0, r.highBit = 40 + int(rng() % 30);
            break;
        case 7: r.flags = CONVERT_SRCRANGE | CONVERT_DSTRANGE, r.lowBit = 1, r.highBit = 6; break;
        case 8:  // flags that the orders override
            r.flags = CONVERT_SRCGRAY | CONVERT_DSTGRAY | CONVERT_TRANSPARENT, r.crTransparent = 0x01FFFFFF;
            r.lowBit = 2, r.highBit = 3;
            break;
    }
}

// Every (source, destination, order, flags) combination on random runs.
TEST(ConvertMatrix, EveryCombinationMatchesReference) {
    std::mt19937 rng(12345);
    size_t runs = 0, converted = 0;
    int failures = 0;
    for (int sb : kDepths)
        for (int db : kDepths)
            for (int so : kOrders)
                for (int dO : kOrders)
                    for (int variant = 0; variant < 18; ++variant, ++runs) {
                        const int width = kWidths[(runs + size_t(variant % 2) * 7) % std::size(kWidths)];
                        convref::Request r = request(width, sb, so, db, dO);
                        const Bytes buf = bufferFor(rng, r);
                        std::vector<RGBQUAD> spal, dpal;
                        if (rng() & 1) spal = randomPalette(rng, 256), r.srcPal = spal.data();
                        if (rng() & 1) dpal = randomPalette(rng, 256), r.dstPal = dpal.data();
                        vary(r, variant / 2, buf, rng);
                        const std::string err = runCase(r, buf, uint8_t(rng()));
                        converted += convref::expectedStatus(r) > 0;
                        if (!err.empty() && failures++ < 20) ADD_FAILURE() << describe(r) << ": " << err;
                    }
    EXPECT_EQ(failures, 0);
    EXPECT_GT(converted, runs / 5);  // the matrix is not all rejections
}

// The four entries hand their arguments to the one dispatcher (K_ConvertBuffer: grey flags from the orders, no
// window; Ext: no extra pointer, no colour; Ext2: the reserved argument ignored, no colour), and the status is the
// reference's, for depths, orders and widths outside the accepted sets too; a refused call changes no byte.
TEST(ConvertMatrix, EntriesPassTheirArgumentsOnAndRefuseBadValues) {
    std::mt19937 rng(77);
    const int badDepths[] = {-1, 9, 10, 11, 13, 15, 17, 20, 31, 40, 63, 65, 128}, badOrders[] = {-1, 3, 4, 6, 8, 100};
    auto depth = [&] { return rng() % 8 ? kDepths[rng() % 15] : badDepths[rng() % 13]; };
    auto order = [&] { return rng() % 8 ? kOrders[rng() % 5] : badOrders[rng() % 6]; };
    int converted = 0;
    for (int k = 0; k < 4000; ++k) {
        const int sb = depth(), db = depth(), so = order(), dO = order();
        const int width = rng() % 16 ? 1 + int(rng() % 40) : -int(rng() % 3);
        const int lo = int(rng() % 6) - 1, hi = int(rng() % 20) - 1;
        const uint32_t flags = rng() & 0x8F, cr = (rng() & 1) ? rng() : CONVERT_PALETTEINDEX(rng());
        int dummy = 0;
        void* extra = (rng() & 1) ? &dummy : nullptr;
        const Bytes orig = randomBytes(rng, size_t(std::max(width, 1)) * 8);
        convref::Request r = request(width, sb, so, db, dO);
        r.extra = extra != nullptr, r.flags = flags, r.lowBit = lo, r.highBit = hi, r.crTransparent = cr;
        auto check = [&](auto&& entry, void* ex, uint32_t fl, int l, int h, uint32_t c) {
            Bytes got = orig, want = orig;
            const int st = entry(got.data());
            ASSERT_EQ(st, krn::convertBuffer(want.data(), width, sb, db, so, dO, {}, {}, ex, fl, l, h, c, {}));
            ASSERT_EQ(got, st == KS_SUCCESS ? want : orig);
            converted += st == KS_SUCCESS;
        };
        const uint32_t greyFlags = (so == ORDER_GRAY ? CONVERT_SRCGRAY : 0) | (dO == ORDER_GRAY ? CONVERT_DSTGRAY : 0);
        check([&](uint8_t* b) { return K_ConvertBuffer(b, width, sb, db, so, dO, nullptr, nullptr); },  //
              nullptr, greyFlags, -1, -1, 0);
        check([&](uint8_t* b) { return K_ConvertBufferExt(b, width, sb, db, so, dO, nullptr, nullptr, flags, lo, hi); },
              nullptr, flags, lo, hi, 0);
        check([&](uint8_t* b) {
            return K_ConvertBufferExt2(b, width, sb, db, so, dO, nullptr, nullptr, extra, int32_t(rng()), flags, lo,
                                       hi);
        }, extra, flags, lo, hi, 0);
        check([&](uint8_t* b) {
            const int st = K_ConvertBufferExt3(b, width, sb, db, so, dO, nullptr, nullptr, extra, int32_t(rng()), flags,
                                               lo, hi, cr);
            EXPECT_EQ(st, convref::expectedStatus(r)) << describe(r);
            return st;
        }, extra, flags, lo, hi, cr);
    }
    EXPECT_GT(converted, 300);
    EXPECT_EQ(K_ConvertBuffer(nullptr, 8, 24, 24, 1, 0, nullptr, nullptr), KS_INVALID_PARAMETER);
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
    uint8_t px[6] = {10, 20, 30, 40, 50, 60};  // order 5 to order 5 passes the samples through
    ASSERT_EQ(K_ConvertBuffer(px, 1, 24, 48, ORDER_BGRWIDE, ORDER_BGRWIDE, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ((Bytes{px[1], px[3], px[5]}), (Bytes{10, 20, 30}));
    uint8_t deep[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};  // full scale stays in range (the first row sums past 8192)
    ASSERT_EQ(K_ConvertBuffer(deep, 1, 48, 48, ORDER_BGR, ORDER_BGRWIDE, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(deep[0] | (deep[1] << 8), 65535);
}

// Runs `convert` in place on a copy of `src` placed `align` bytes past a 64-byte boundary, guard bytes on both sides:
// the run must become `expect` and the guards stay untouched.
template <class F>
static void checkAligned(const Bytes& src, const Bytes& expect, size_t align, F&& convert) {
    std::vector<uint64_t> store((2 * 64 + 128 + src.size()) / 8 + 1);
    auto* base = reinterpret_cast<uint8_t*>(store.data());
    base += (64 - reinterpret_cast<uintptr_t>(base) % 64) % 64;
    const size_t end = 2 * 64 + align + src.size();
    for (size_t i = 0; i < end; ++i) base[i] = uint8_t(0xA5 ^ i);
    uint8_t* run = base + 64 + align;
    std::copy(src.begin(), src.end(), run);
    convert(run);
    ASSERT_TRUE(std::equal(expect.begin(), expect.end(), run)) << "alignment " << align;
    for (size_t i = 0; i < end; i += i + 1 == 64 + align ? src.size() + 1 : 1)  // every byte but the run's
        ASSERT_EQ(base[i], uint8_t(0xA5 ^ i)) << "guard " << i << ", alignment " << align;
}

// The direct kernels at every level and K_ConvertBuffer equal the plain kernel on the whole buffer (past a narrower
// destination run the source bytes stay as it leaves them), at every start alignment within a cache line for short
// runs, guards untouched; the plain kernel's run is the reference's. Widths cover the head (up to 63 pixels), the 16-
// and 32-pixel steps, the 4096-pixel chunks of the backward walk and whole images of more than 4 MB.
TEST(ConvertKernels, EveryLevelAndAlignmentMatchesPlainAndReference) {
    // source depth and order, destination depth and order, also as a whole image
    const int keys[][5] = {{24, 0, 24, 1, 0}, {24, 1, 24, 0, 1}, {24, 1, 32, 1, 1}, {24, 0, 32, 1, 1},
                           {32, 1, 24, 1, 0}, {32, 1, 24, 0, 0}, {24, 1, 16, 1, 0}, {24, 0, 16, 0, 0},
                           {24, 1, 16, 0, 0}, {24, 0, 16, 1, 0}, {24, 1, 16, 7, 0}, {24, 0, 16, 7, 0},
                           {16, 1, 24, 1, 0}, {16, 7, 24, 0, 1}, {16, 0, 24, 1, 0}, {16, 7, 24, 1, 0},
                           {48, 1, 24, 1, 0}, {48, 0, 24, 1, 0}, {24, 1, 0, 2, 0},  {24, 0, 0, 2, 0}, {32, 1, 0, 2, 0}};
    std::vector<int> widths;
    for (int width = 1; width < 200; width += (width < 70 ? 1 : 13)) widths.push_back(width);
    for (int width : {255, 257, 1001, 4001, 4095, 4096, 4097, 8200, 12289, 20011, 1500037}) widths.push_back(width);
    std::mt19937 rng(21);
    for (const auto& k : keys)
        for (int width : widths) {
            if (width > 1000000 && !k[4]) continue;
            SCOPED_TRACE(testing::Message() << k[0] << "/" << k[1] << "->" << k[2] << "/" << k[3] << " w=" << width);
            const auto plain = krn::conv::pickDirect({k[0], k[1], k[2], k[3]}, krn::conv::kSimdNone);
            ASSERT_NE(plain, nullptr);
            const Bytes orig = randomBytes(rng, size_t(width) * size_t(std::max({k[0], k[2], 8}) / 8));
            Bytes want = orig;
            plain(want.data(), size_t(width));
            const convref::Request r = request(width, k[0], k[1], k[2], k[3]);
            const size_t run = convref::dstRunBytes(r);
            ASSERT_TRUE(std::equal(want.begin(), want.begin() + long(run), convref::convert(r, orig).begin()));
            std::vector<krn::conv::RowFn> fns;
            using namespace krn::conv;
            for (int level : {kSimdNone, kSimdSsse3, kSimdAvx2, kSimdAvx512}) {
                const auto fn = krn::conv::pickDirect({k[0], k[1], k[2], k[3]}, level);
                if (std::find(fns.begin(), fns.end(), fn) == fns.end()) fns.push_back(fn);
            }
            std::vector<size_t> aligns = {0, 1, 4, 17, 22, 60, 61, 63};
            if (width <= 257 || width == 1001) aligns.resize(64), std::iota(aligns.begin(), aligns.end(), 0);
            for (size_t f = 0; f <= fns.size(); ++f)
                for (size_t align : aligns)
                    checkAligned(orig, want, align, [&](uint8_t* p) {
                        if (f < fns.size()) return fns[f](p, size_t(width));
                        ASSERT_EQ(K_ConvertBuffer(p, width, k[0], k[2], k[1], k[3], nullptr, nullptr), KS_SUCCESS);
                    });
            for (const auto fn : fns) {  // once more on exactly the larger run: ASan sees a read past it
                Bytes exact = orig;
                fn(exact.data(), size_t(width));
                ASSERT_TRUE(exact == want);
            }
        }
}

// Palette expansion to 24/32 bits on long runs (chunks of 4096 pixels from the end) against the reference, on buffers
// of exactly the run's size; the converter allocates nothing (every allocation failing changes nothing).
TEST(ConvertKernels, PaletteExpansionOnLongRunsWithoutAllocation) {
    std::mt19937 rng(31);
    krn::faultinject::arm(0, -1);
    for (int sb : {1, 2, 4, 8})
        for (int db : {24, 32})
            for (int dO : {ORDER_RGB, ORDER_BGR})
                for (int width : {1, 7, 4095, 4096, 4097, 9001}) {
                    std::vector<RGBQUAD> pal = randomPalette(rng, 1 << sb);
                    convref::Request r = request(width, sb, ORDER_BGR, db, dO);
                    r.srcPal = (width & 1) ? pal.data() : nullptr;
                    Bytes buf = randomBytes(rng, convref::dstRunBytes(r));
                    const Bytes want = convref::convert(r, buf);
                    ASSERT_EQ(K_ConvertBuffer(buf.data(), width, sb, db, ORDER_BGR, dO, r.srcPal, nullptr), KS_SUCCESS);
                    ASSERT_EQ(buf, want) << sb << " -> " << db << "/" << dO << " w=" << width;
                }
    Bytes buf = randomBytes(rng, 4000 * 8);
    EXPECT_EQ(K_ConvertBuffer(buf.data(), 4000, 24, 8, ORDER_BGR, ORDER_BGR, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(K_ConvertBuffer(buf.data(), 4000, 64, 12, ORDER_RGB, ORDER_GRAY, nullptr, nullptr), KS_SUCCESS);
    const long injected = krn::faultinject::injected();
    krn::faultinject::disarm();
    EXPECT_EQ(injected, 0);
}

TEST(ConvertTree, LookupFollowsTheBuildRule) {
    std::mt19937 rng(5);
    for (int trial = 0; trial < 40; ++trial) {
        const int n = 1 + int(rng() % 256), levels = trial % 2 ? 4 : 256;  // few levels: shared prefixes, duplicates
        std::vector<RGBQUAD> pal(static_cast<size_t>(n));
        auto level = [&] { return uint8_t(rng() % levels * (256 / levels)); };
        for (auto& e : pal) e.rgbBlue = level(), e.rgbGreen = level(), e.rgbRed = level(), e.rgbReserved = 0;
        uint32_t* tree = krn::buildColorMatchTree(pal.data(), n);
        ASSERT_NE(tree, nullptr);
        for (const auto& e : pal) {  // a palette colour answers its own colour, lowest index first
            auto same = [&](const RGBQUAD& x) { return std::memcmp(&x, &e, 3) == 0; };
            ASSERT_EQ(krn::colorMatchTreeLookup(tree, e.rgbRed, e.rgbGreen, e.rgbBlue),
                      int(std::find_if(pal.begin(), pal.end(), same) - pal.begin()));
        }
        for (int k = 0; k < 2000; ++k) {
            const int mask = levels == 4 ? 0xC0 : 0xFF, r = int(rng()) & mask, g = int(rng()) & mask;
            const int b = int(rng()) & mask;
            ASSERT_EQ(krn::colorMatchTreeLookup(tree, r, g, b), convref::treeAnswer(pal.data(), n, r, g, b));
        }
        // The converter asks the tree first and the palette for absent prefixes.
        convref::Request r = request(300, 24, ORDER_BGR, 8, ORDER_BGR);
        Bytes buf = bufferFor(rng, r);
        for (size_t i = 0; i < 200; ++i) {
            const auto& e = pal[rng() % size_t(n)];
            buf[3 * i] = e.rgbBlue, buf[3 * i + 1] = e.rgbGreen, buf[3 * i + 2] = e.rgbRed;
        }
        std::vector<RGBQUAD> full(256, RGBQUAD{1, 2, 3, 0});
        std::copy(pal.begin(), pal.end(), full.begin());
        uint32_t* fullTree = krn::buildColorMatchTree(full.data(), 256);
        r.dstPal = full.data(), r.tree = fullTree;
        EXPECT_EQ(runCase(r, buf, 0), "");
        krn::freeColorMatchTree(fullTree);
        krn::freeColorMatchTree(tree);
    }
    const RGBQUAD one{1, 2, 3, 0}, *fixed = K_IntGetFixedPalette(8);
    EXPECT_TRUE(!krn::buildColorMatchTree(nullptr, 4) && !krn::buildColorMatchTree(&one, 0));
    EXPECT_EQ(krn::buildColorMatchTree(&one, 257), nullptr);
    const long before = krn::faultinject::liveBlocks();  // a tree is one block, freed again; a failed build leaks none
    krn::faultinject::arm(0, 1);
    EXPECT_TRUE(!krn::buildColorMatchTree(fixed, 256) && krn::faultinject::liveBlocks() == before);
    krn::faultinject::disarm();
    uint32_t* t = krn::buildColorMatchTree(fixed, 256);
    EXPECT_EQ(krn::faultinject::liveBlocks(), before + 1);
    krn::freeColorMatchTree(t);
    EXPECT_EQ(krn::faultinject::liveBlocks(), before);
}

uint32_t rgb(int r, int g, int b) { return uint32_t(r) | (uint32_t(g) << 8) | (uint32_t(b) << 16); }

// Forward against the proportional model in floating point: hue = (sector +
// share of the higher of the two upper channels) * 256 / 3, S = range * 255 / V.
TEST(ConvertHsv, ForwardAndInverseMatchTheProportionalModel) {
    int worst = 0;
    for (int r = 0; r < 256; r += 3)
        for (int g = 0; g < 256; g += 3)
            for (int b = 0; b < 256; b += 3) {
                const uint32_t hsv = K_RGBtoHSV(0xAB000000u | rgb(r, g, b));  // the top byte does not matter
                const int mn = std::min({r, g, b}), mx = std::max({r, g, b}), h = int(hsv & 255);
                if (mx == mn) {
                    ASSERT_EQ(hsv, uint32_t(mx) << 16);
                    continue;
                }
                ASSERT_EQ(hsv >> 8, uint32_t(mx) << 8 | uint32_t((mx - mn) * 255 / mx));
                const double sector = b == mn ? 0 : r == mn ? 1 : 2;
                const double t = b == mn ? double(g - mn) / double(r + g - 2 * mn)
                                 : r == mn ? double(b - mn) / double(g + b - 2 * mn)
                                           : double(r - mn) / double(b + r - 2 * mn);
                const int diff = std::abs(h - (int(std::floor((sector + t) * 256.0 / 3.0 + 0.5)) & 255));
                worst = std::max(worst, std::min(diff, 256 - diff));
            }
    EXPECT_LE(worst, 1);
    EXPECT_EQ(K_RGBtoHSV(rgb(255, 0, 0)), rgb(0, 255, 255));
    uint32_t out = 0;
    EXPECT_TRUE(K_RGBtoHSV2(rgb(12, 34, 56), &out) == KS_SUCCESS && out == K_RGBtoHSV(rgb(12, 34, 56)));
    EXPECT_EQ(K_RGBtoHSV2(rgb(1, 2, 3), nullptr), KS_INVALID_PARAMETER);
    // Inverse: V is the largest channel, m = (255 - S) * V / 255 the smallest, and the middle channel follows the
    // sector's proportion of the hue in degrees.
    for (int h8 = 0; h8 < 256; ++h8)
        for (int s = 0; s < 256; s += s == 0 ? 1 : 2)
            for (int v = 0; v < 256; v += 3) {
                const uint32_t c = K_HSVtoRGB(rgb(h8, s, v));
                const int r = int(c & 255), g = int((c >> 8) & 255), b = int((c >> 16) & 255);
                ASSERT_EQ(c >> 24, 0u);
                const int m = (255 - s) * v / 255, d = v - m;
                ASSERT_TRUE(std::max({r, g, b}) == v && std::min({r, g, b}) == m);
                if (s == 0) continue;
                const double h = double((h8 * 360) >> 8);
                const int sector = h <= 120 ? 0 : h <= 240 ? 1 : 2;
                const bool firstHalf = h - 120 * sector <= 60;
                const int mids[3][2] = {{g, r}, {b, g}, {r, b}};
                double share = (h - 120 * sector) / 120.0;  // middle channel's share of (middle + top) above m
                if (!firstHalf) share = 1 - share;
                const double want = m + (share >= 1 ? d : d * share / (1 - share));
                ASSERT_LE(std::abs(mids[sector][firstHalf ? 0 : 1] - want), 1.0) << h8 << " " << s << " " << v;
            }
    uint32_t in = rgb(100, 200, 150);
    EXPECT_TRUE(K_HSVtoRGB2(&in) == K_HSVtoRGB(in) && K_HSVtoRGB2(nullptr) == 0u);
}

// The largest of the rows involved: width A at depth A, width B at depth A and at depth B (each rounded up to four
// bytes; depth 0 counts as 8); 0 for a negative width or beyond 32 bits.
TEST(ConvertSizes, CalcConvertSize) {
    const struct { int32_t wa, ba, wb, bb; uint32_t bytes; } sizes[] = {
        {10, 24, 20, 1, 60}, {3, 0, 1, 1, 4},  {1, 1, 3, 64, 24}, {100, 8, 10, 8, 100}, {33, 1, 1, 48, 8},
        {4999, 12, 7, 64, 7500}, {-1, 8, 1, 1, 0}, {0x7FFFFFFF, 64, 1, 1, 0}};
    for (const auto& c : sizes) EXPECT_EQ(K_CalcConvertSize(c.wa, c.ba, c.wb, c.bb), c.bytes) << c.wa << " " << c.ba;
}

// The padding rule seen from the window: a sample's window value w (bits lo..hi) is raised to at least `pad` when the
// window does not start at bit 0, and lowered to at most the largest value whose bits, with pad subtracted below the
// window, still fit (the top of a window ending at bit 15 is never cut); bits outside the window never change.
TEST(ConvertSizes, PadPixelDataKeepsWindowValuesInTheirBand) {
    std::mt19937 rng(8);
    int changed = 0;
    for (int hi = -2; hi <= 17; ++hi)
        for (int lo = -1; lo <= 16; ++lo)
            for (int pad : {0, 1, 3, 17, 300, 100000}) {
                // Out-of-range arguments: a high bit past 15 reads as 1, the low bit stays below it.
                const int h = hi < 0 ? 0 : hi > 15 ? 1 : hi, l = std::clamp(lo, 0, std::max(h - 1, 0));
                const int top = (1 << (h - l + 1)) - 1;
                const int p = (h == 15 && l == 0) ? 0 : std::clamp(pad, 0, (top + 1) / 4);
                const int minW = l > 0 ? p : 0, maxW = h < 15 ? top - (p >> l) : top;
                std::vector<uint16_t> a(97);
                for (auto& x : a) x = uint16_t(rng());
                a[0] = 0, a[1] = 0xFFFF;
                const std::vector<uint16_t> orig = a;
                ASSERT_EQ(K_PadPixelData(a.data(), 16, int32_t(a.size()), hi, lo, pad), KS_SUCCESS);
                for (size_t i = 0; i < a.size(); ++i) {
                    const int w0 = (orig[i] >> l) & top, w = (a[i] >> l) & top;
                    ASSERT_EQ(w, p == 0 ? w0 : std::clamp(w0, minW, maxW)) << hi << " " << lo << " " << pad;
                    ASSERT_EQ(a[i] & ~(top << l) & 0xFFFF, orig[i] & ~(top << l) & 0xFFFF);
                }
                changed += a != orig;
            }
    EXPECT_GT(changed, 100);
    uint16_t one = 0;
    EXPECT_EQ(K_PadPixelData(nullptr, 16, 1, 11, 0, 4), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_PadPixelData(&one, 8, 1, 11, 0, 4), KS_INVALID_PARAMETER);
}

TEST(ConvertSizes, Gray32Reductions) {
    std::mt19937 rng(6);
    std::vector<uint32_t> src(301);
    for (auto& x : src) x = rng();
    src[0] = 0, src[1] = 0xFFFFFFFFu;
    for (int lo = -1; lo < 32; lo += 3)
        for (int hi = -1; hi < 32; hi += 4) {
            const int l = lo < 0 ? 0 : lo, h = hi < 0 ? 31 : hi, n = h - l + 1;
            std::vector<uint16_t> d16(src.size());
            std::vector<uint8_t> d8(src.size());
            const int32_t count = int32_t(src.size()), want = l > h ? KS_INVALID_PARAMETER : KS_SUCCESS;
            ASSERT_EQ(K_Gray32To16(src.data(), d16.data(), count, lo, hi), want);
            ASSERT_EQ(K_Gray32To8(src.data(), d8.data(), count, lo, hi), want);
            if (l > h) continue;
            const uint64_t full = (uint64_t(1) << n) - 1;
            for (size_t i = 0; i < src.size(); ++i) {
                // Narrower: the top bits; wider: stretched, full scale to full scale.
                const uint64_t v = (uint64_t(src[i]) >> l) & full;
                ASSERT_EQ(d16[i], n >= 16 ? v >> (n - 16) : v * 65535 / full) << l << ".." << h;
                ASSERT_EQ(d8[i], n >= 8 ? v >> (n - 8) : v * 255 / full) << l << ".." << h;
            }
            std::vector<uint32_t> inplace = src;  // in place gives the same result
            ASSERT_EQ(K_Gray32To16(inplace.data(), inplace.data(), int32_t(src.size()), lo, hi), KS_SUCCESS);
            ASSERT_EQ(std::memcmp(inplace.data(), d16.data(), d16.size() * 2), 0);
        }
    uint32_t one = 5;
    uint8_t out8;
    for (int32_t st : {K_Gray32To8(nullptr, &out8, 1, -1, -1), K_Gray32To8(&one, nullptr, 1, -1, -1),
                       K_Gray32To8(&one, &out8, 0, -1, -1), K_Gray32To8(&one, &out8, 1, 0, 32)})
        EXPECT_EQ(st, KS_INVALID_PARAMETER);
}

}  // namespace
