// test_palette_pnm.cpp - the ombrix tool's PNM/PAM files: round trips for
// every format it writes and every view perspective, the files other
// programs write (comments, 16-bit and odd maxvals, PAM tuple types), and
// malformed files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "ombrix.h"
#include "orient_ref.h"
#include "../tools/ombrix/image.h"

namespace pnm = image;

namespace {

// Files of this process only (other test processes may run at the same
// time), removed at exit.
std::string tempPath(const std::string& name) {
    static struct Made {
        std::set<std::string> paths;
        ~Made() {
            for (const auto& p : paths) std::remove(p.c_str());
        }
    } made;
    const std::string p = ::testing::TempDir() + "ombrix_palette_pnm_" + std::to_string(getpid()) + "_" + name;
    made.paths.insert(p);
    return p;
}

void writeFile(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }
std::string readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

struct Rgb {
    uint32_t r, g, b;  // 16-bit samples
    bool operator==(const Rgb&) const = default;
};

// The deep formats: writes random pixel c of a stored row and returns its
// samples widened to 16 bits (5- and 6-bit fields repeat their top bits).
struct Format {
    const char* name;
    int bpp, order;
};
const Format kFormats[] = {{"bgr24", 24, ORDER_BGR},  {"rgb32", 32, ORDER_RGB},      {"bgr48", 48, ORDER_BGR},
                           {"grey16", 16, ORDER_GRAY}, {"rgb565", 16, ORDER_RGB565}};
Rgb putRandom(const Format& f, uint8_t* row, int c, std::mt19937& rng) {
    auto w16 = [](uint8_t* p, uint32_t v) { p[0] = uint8_t(v), p[1] = uint8_t(v >> 8); };
    const uint32_t r = rng() & 0xFFFF, g = rng() & 0xFFFF, b = rng() & 0xFFFF;
    if (f.bpp == 24 || f.bpp == 32) {
        uint8_t* q = row + size_t(f.bpp / 8) * size_t(c);
        const uint8_t first = uint8_t(f.order == ORDER_RGB ? r : b), last = uint8_t(f.order == ORDER_RGB ? b : r);
        q[0] = first, q[1] = uint8_t(g), q[2] = last;
        if (f.bpp == 32) q[3] = uint8_t(rng());
        return {(r & 255) * 257u, (g & 255) * 257u, (b & 255) * 257u};
    }
    if (f.bpp == 48) return w16(row + 6 * c, b), w16(row + 6 * c + 2, g), w16(row + 6 * c + 4, r), Rgb{r, g, b};
    if (f.order == ORDER_GRAY) return w16(row + 2 * c, r), Rgb{r, r, r};
    const uint32_t r5 = r & 31, g6 = g & 63, b5 = b & 31;
    w16(row + 2 * c, r5 << 11 | g6 << 5 | b5);
    return {(r5 * 8 + r5 / 4) * 257, (g6 * 4 + g6 / 16) * 257, (b5 * 8 + b5 / 4) * 257};
}

// Reads a PNM/PAM written by the tool with an independent minimal parser:
// header fields and raw samples (16-bit for maxval > 255).
struct Raw {
    std::string magic;
    int w = 0, h = 0, depth = 0, maxval = 0;
    std::vector<uint32_t> samples;
};
Raw parse(const std::string& bytes) {
    Raw r;
    size_t pos = 0;
    auto token = [&]() {
        auto space = [&] { return isspace(static_cast<unsigned char>(bytes[pos])) != 0; };
        while (pos < bytes.size() && space()) ++pos;
        const size_t s = pos;
        while (pos < bytes.size() && !space()) ++pos;
        return bytes.substr(s, pos - s);
    };
    auto number = [&] { return std::stoi(token()); };
    r.magic = token();
    if (r.magic == "P7") {
        for (std::string k = token(); k != "ENDHDR" && pos < bytes.size(); k = token()) {
            int* field = k == "WIDTH" ? &r.w : k == "HEIGHT" ? &r.h : k == "DEPTH" ? &r.depth : k == "MAXVAL" ? &r.maxval : nullptr;
            if (field) *field = number();
            if (k == "TUPLTYPE") token();
        }
    } else {
        r.w = number(), r.h = number();
        r.maxval = r.magic == "P4" ? 1 : number();
        r.depth = r.magic == "P6" ? 3 : 1;
    }
    ++pos;  // the single whitespace after the header
    const size_t start = pos, rowBytes = size_t(r.w + 7) / 8, wide = r.maxval > 255 ? 2 : 1;
    for (size_t i = 0; i < size_t(r.w) * size_t(r.h) * size_t(r.depth); ++i) {
        const size_t x = i % size_t(r.w), y = i / size_t(r.w), at = start + i * wide;
        r.samples.push_back(r.magic == "P4" ? (uint8_t(bytes[start + y * rowBytes + x / 8]) >> (7 - x % 8)) & 1
                            : wide == 2     ? uint32_t(uint8_t(bytes[at])) << 8 | uint8_t(bytes[at + 1])
                                            : uint8_t(bytes[at]));
    }
    return r;
}

// A bitmap of a format and perspective with pixels written by `fill(row, col, stored row)`.
template <class F>
void makeBitmap(BITMAPRECORD& bm, int W, int H, int bpp, int order, int perspective, F&& fill) {
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, W, H, bpp, order, nullptr, perspective, nullptr, 0), KS_SUCCESS);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c) fill(r, c, bm.pData + size_t(r) * bm.nBytesPerLine);
    K_ReleaseBitmap(&bm);
}

// Each deep format in each perspective, as PNM and PAM: the viewed samples
// (widened or cut to the file's maxval), and read back (top row first, the
// file's depth) and written again, the same file.
TEST(PalettePnm, DeepFormatsInEveryViewPerspective) {
    std::mt19937 rng(99);
    for (const Format& f : kFormats)
        for (int p = 1; p <= 8; ++p) {
            SCOPED_TRACE(std::string(f.name) + " perspective " + std::to_string(p));
            std::vector<Rgb> stored, view;
            orienttest::Grid ids(7, 5);  // stored pixel numbers, seen in the perspective
            for (size_t i = 0; i < ids.v.size(); ++i) ids.v[i] = i;
            const orienttest::Grid seen = orienttest::viewed(ids, p);
            BITMAPRECORD bm;
            makeBitmap(bm, 7, 5, f.bpp, f.order, p, [&](int, int c, uint8_t* row) { stored.push_back(putRandom(f, row, c, rng)); });
            for (uint64_t id : seen.v) view.push_back(stored[id]);
            const bool wide = f.bpp >= 48 || f.order == ORDER_GRAY;
            for (const std::string ext : {".pnm", ".pam"}) {
                const std::string path = tempPath(std::string(f.name) + ext);
                ASSERT_EQ(pnm::write(path, bm), KS_SUCCESS);
                const Raw raw = parse(readFile(path));
                ASSERT_EQ((std::vector<int>{raw.w, raw.h, raw.maxval}), (std::vector<int>{seen.w, seen.h, wide ? 65535 : 255}));
                const bool alpha = f.bpp == 32 && ext == ".pam";  // PAM keeps the alpha
                ASSERT_EQ(raw.depth, f.order == ORDER_GRAY ? 1 : alpha ? 4 : 3);
                const size_t d = size_t(raw.depth);
                for (size_t i = 0; i < view.size(); ++i) {
                    const uint32_t want[3] = {view[i].r, view[i].g, view[i].b};
                    for (size_t k = 0; k < std::min<size_t>(d, 3); ++k)
                        ASSERT_EQ(raw.samples[d * i + k], wide ? want[k] : want[k] >> 8) << i;
                }
                BITMAPRECORD back;
                ASSERT_EQ(pnm::read(path, back), KS_SUCCESS);
                EXPECT_TRUE(back.nViewPerspective == TOP_LEFT && back.nBitsPerPixel == (wide ? 16 : 8) * raw.depth);
                const std::string again = tempPath(std::string("again") + ext);
                EXPECT_TRUE(pnm::write(again, back) == KS_SUCCESS && readFile(again) == readFile(path));
                K_FreeBitmap(&back);
            }
            K_FreeBitmap(&bm);
        }
}

// Palette bitmaps: 1-bit black and white as P4 (1 is black; read back to the
// same pixels, padding clear), a grey ramp as P5, colour palettes as P6.
TEST(PalettePnm, PalettedBitmaps) {
    std::mt19937 rng(4);
    const struct {
        int bpp;
        const char* magic;
    } cases[] = {{1, "P4"}, {8, "P5"}, {4, "P6"}, {3, "P6"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bpp);
        BITMAPRECORD bm;
        std::vector<uint32_t> idx;
        makeBitmap(bm, 11, 3, c.bpp, c.bpp == 8 ? ORDER_GRAY : ORDER_BGR, TOP_LEFT, [&](int r, int col, uint8_t* row) {
            if (col == 0 && r >= 0) std::memset(row, 0, bm.nBytesPerLine);
            idx.push_back(rng() % (1u << c.bpp));
            for (int k = 0; k < c.bpp; ++k)
                if (idx.back() >> (c.bpp - 1 - k) & 1) row[(col * c.bpp + k) / 8] |= uint8_t(0x80 >> ((col * c.bpp + k) % 8));
        });
        RGBQUAD pal[256];
        ASSERT_GT(K_GetBitmapColors(&bm, 0, 256, pal), 0);
        const std::string path = tempPath("pal.pnm");
        ASSERT_EQ(pnm::write(path, bm), KS_SUCCESS);
        const Raw raw = parse(readFile(path));
        EXPECT_EQ(raw.magic, c.magic);
        for (size_t i = 0; i < idx.size(); ++i) {
            const RGBQUAD& e = pal[idx[i]];
            const std::vector<uint32_t> want = raw.magic == "P4"   ? std::vector<uint32_t>{e.rgbRed ? 0u : 1u}
                                               : raw.magic == "P5" ? std::vector<uint32_t>{e.rgbRed}
                                                                   : std::vector<uint32_t>{e.rgbRed, e.rgbGreen, e.rgbBlue};
            ASSERT_EQ(std::vector<uint32_t>(raw.samples.begin() + long(want.size() * i), raw.samples.begin() + long(want.size() * (i + 1))), want);
        }
        if (c.bpp == 1) {
            BITMAPRECORD back;
            ASSERT_TRUE(pnm::read(path, back) == KS_SUCCESS && back.nBitsPerPixel == 1 && K_AccessBitmap(&back) == KS_SUCCESS);
            for (size_t i = 0; i < idx.size(); ++i)
                ASSERT_EQ((back.pData[i / 11 * back.nBytesPerLine + i % 11 / 8] >> (7 - i % 11 % 8)) & 1, int(idx[i]));
            EXPECT_EQ(back.pData[1] & 0x1F, 0);  // padding bits past the width are clear
            K_FreeBitmap(&back);
        }
        K_FreeBitmap(&bm);
    }
}

// Files other programs write: header comments, an odd maxval with 16-bit
// samples, PAM grey with alpha (dropped), PAM black and white (1 is white).
TEST(PalettePnm, ForeignFilesAndOddMaxvals) {
    const std::string path = tempPath("in.pnm");
    std::string p6 = "P6\n# a comment\n2 1 # another\n1000\n";
    const uint32_t v[6] = {0, 500, 1000, 999, 1, 2};
    for (uint32_t x : v) p6 += char(x >> 8), p6 += char(x & 255);
    const struct {
        std::string file;
        int bpp;
        std::vector<uint32_t> want;  // leading samples of the bitmap (16-bit words for 48 bits)
    } cases[] = {
        {p6, 48, {(v[2] * 65535 + 500) / 1000, (v[1] * 65535 + 500) / 1000, 0, (v[5] * 65535 + 500) / 1000,
                  (v[4] * 65535 + 500) / 1000, (v[3] * 65535 + 500) / 1000}},  // stored blue first
        {"P7\nWIDTH 3\nHEIGHT 1\nDEPTH 2\nMAXVAL 255\nTUPLTYPE GRAYSCALE_ALPHA\nENDHDR\n" + std::string("\x10\xFF\x20\x00\x30\x80", 6), 8, {0x10, 0x20, 0x30}},
        {"P7\nWIDTH 3\nHEIGHT 1\nDEPTH 1\nMAXVAL 1\nTUPLTYPE BLACKANDWHITE\nENDHDR\n" + std::string("\x01\x00\x01", 3), 1, {0xA0}},  // index 1 white
    };
    for (const auto& c : cases) {
        writeFile(path, c.file);
        BITMAPRECORD bm;
        ASSERT_TRUE(pnm::read(path, bm) == KS_SUCCESS && bm.nBitsPerPixel == c.bpp && K_AccessBitmap(&bm) == KS_SUCCESS);
        for (size_t i = 0; i < c.want.size(); ++i)
            EXPECT_EQ(c.bpp == 48 ? uint32_t(bm.pData[2 * i] | bm.pData[2 * i + 1] << 8) : c.bpp == 1 ? bm.pData[i] & 0xE0u : bm.pData[i],
                      c.want[i]) << c.bpp << " sample " << i;
        EXPECT_TRUE(c.bpp != 8 || K_IsGrayScalePalette(bm.pPalette, bm.nColors) == 1);
        K_FreeBitmap(&bm);
    }
}

TEST(PalettePnm, MalformedFilesAreRefusedAndLeaveTheRecord) {
    const std::string path = tempPath("bad.pnm");
    // ASCII, truncated raster, zero width, maxval too large, huge and empty (refused before allocating), no ENDHDR,
    // depth below the tuple type, unknown tuple type, a letter for a number
    const std::string bad[] = {"", "P3\n1 1\n255\n0 0 0\n", "P6\n2 2\n255\n\x01\x02", "P6\n0 2\n255\n", "P5\n2 2\n70000\n",
                               "P6\n99999 99999\n255\n\x01", "P7\nWIDTH 1\nHEIGHT 1\nDEPTH 3\nMAXVAL 255\n",
                               "P7\nWIDTH 1\nHEIGHT 1\nDEPTH 1\nMAXVAL 255\nTUPLTYPE RGB\nENDHDR\n\x01",
                               "P7\nWIDTH 1\nHEIGHT 1\nDEPTH 1\nMAXVAL 255\nTUPLTYPE CMYK\nENDHDR\n\x01", "P5\n2 x\n255\n"};
    for (const std::string& b : bad) {
        writeFile(path, b);
        BITMAPRECORD bm;
        std::memset(&bm, 0x5A, sizeof bm);
        const BITMAPRECORD snap = bm;
        EXPECT_TRUE(pnm::read(path, bm) < 0 && !std::memcmp(&bm, &snap, sizeof bm)) << b;  // (that a refusal names its reason: the fuzz target)
    }
    BITMAPRECORD bm, empty, romm;
    EXPECT_EQ(pnm::read(tempPath("does-not-exist.pnm"), bm), KS_FILE_NOT_FOUND);
    K_InitBitmap(&empty, BITMAPRECORD_SIZE, 4, 4, 24);
    EXPECT_EQ(pnm::write(tempPath("x.pnm"), empty), KS_INVALID_BITMAP);
    ASSERT_EQ(K_CreateBitmap(&romm, BITMAPRECORD_SIZE, 1, 2, 2, 24, ORDER_ROMM, nullptr, TOP_LEFT, nullptr, 0), KS_SUCCESS);
    EXPECT_EQ(pnm::write(tempPath("x.pnm"), romm), KS_SUCCESS);        // converted to ordinary primaries
    EXPECT_EQ(pnm::write(tempPath("x.bmp"), romm), KS_NOT_SUPPORTED);  // no such format
    K_FreeBitmap(&romm);
}

}  // namespace
