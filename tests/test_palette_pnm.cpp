// test_palette_pnm.cpp - the ombrix tool's PNM/PAM files, where the fuzz target (refusals and 8-bit round trips) does
// not look: the samples written for every deep format and view perspective at full depth, the file kind chosen for
// palette bitmaps, what files of other programs mean (odd maxvals, PAM tuple types), and a refused file leaving the
// caller's record.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "ombrix.h"
#include "orient_ref.h"
#include "../tools/ombrix/image.h"

namespace {

// The file a bitmap becomes (".pnm" or ".pam"), and a file read back into a new bitmap.
std::string written(const BITMAPRECORD& bm, const std::string& ext) {
    image::Raster r;
    std::vector<uint8_t> out;
    EXPECT_TRUE(image::fromBitmap(bm, r).ok() && image::encode(image::Format::Pnm, r, out, "x" + ext).ok());
    return std::string(out.begin(), out.end());
}
int32_t readBack(const std::string& file, BITMAPRECORD& bm) {
    image::Raster r;
    const image::Result res = image::decode(reinterpret_cast<const uint8_t*>(file.data()), file.size(), r);
    return res.ok() ? image::toBitmap(r, bm).status : res.status;
}

// Writes random pixel c of a stored row; returns its colour widened to 16 bits (5- and 6-bit fields repeat their top
// bits, palette entries are taken times 257).
struct Format { const char* name; int bpp, order; };
struct Rgb16 { uint32_t r, g, b; };
Rgb16 putRandom(const Format& f, BITMAPRECORD& bm, uint8_t* row, int c, std::mt19937& rng) {
    auto w16 = [](uint8_t* p, uint32_t v) { p[0] = uint8_t(v), p[1] = uint8_t(v >> 8); };
    const uint32_t r = rng() & 0xFFFF, g = rng() & 0xFFFF, b = rng() & 0xFFFF;
    if (f.bpp <= 8) {
        const uint32_t index = r % (1u << f.bpp);
        storagetest::setPixel(row, c, f.bpp, index);
        RGBQUAD e{};
        EXPECT_EQ(K_GetBitmapColors(&bm, int32_t(index), 1, &e), 1);
        return {e.rgbRed * 257u, e.rgbGreen * 257u, e.rgbBlue * 257u};
    }
    if (f.bpp == 24 || f.bpp == 32) {
        uint8_t* q = row + size_t(f.bpp / 8) * size_t(c);
        q[0] = uint8_t(f.order == ORDER_RGB ? r : b), q[1] = uint8_t(g), q[2] = uint8_t(f.order == ORDER_RGB ? b : r);
        if (f.bpp == 32) q[3] = uint8_t(rng());
        return {(r & 255) * 257u, (g & 255) * 257u, (b & 255) * 257u};
    }
    if (f.bpp == 48) return w16(row + 6 * c, b), w16(row + 6 * c + 2, g), w16(row + 6 * c + 4, r), Rgb16{r, g, b};
    if (f.order == ORDER_GRAY) return w16(row + 2 * c, r), Rgb16{r, r, r};
    const uint32_t r5 = r & 31, g6 = g & 63, b5 = b & 31;
    w16(row + 2 * c, r5 << 11 | g6 << 5 | b5);
    return {(r5 * 8 + r5 / 4) * 257, (g6 * 4 + g6 / 16) * 257, (b5 * 8 + b5 / 4) * 257};
}

// An independent minimal parser of the files the tool writes: header fields and raw samples (16-bit for
// maxval > 255).
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
            int* field = k == "WIDTH" ? &r.w : k == "HEIGHT" ? &r.h : k == "DEPTH" ? &r.depth : &r.maxval;
            if (k == "WIDTH" || k == "HEIGHT" || k == "DEPTH" || k == "MAXVAL") *field = number();
            if (k == "TUPLTYPE") token();
        }
    } else {
        r.w = number(), r.h = number();
        r.maxval = r.magic == "P4" ? 1 : number();
        r.depth = r.magic == "P6" ? 3 : 1;
    }
    const size_t start = pos + 1, rowBytes = size_t(r.w + 7) / 8, wide = r.maxval > 255 ? 2 : 1;  // one space first
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
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, W, H, bpp, order, {}, perspective, nullptr, 0), KS_SUCCESS);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c) fill(r, c, bm.pData + size_t(r) * bm.nBytesPerLine);
    K_ReleaseBitmap(&bm);
}

// Each deep and palette format in each perspective, as PNM and PAM: the viewed samples (widened or cut to the file's
// maxval; black and white as P4 with 1 for black, as PAM with 1 for white; grey palettes as grey, other palettes as
// RGB), and read back (top row first, the file's depth, padding bits clear) and written again, the same file.
TEST(PalettePnm, DeepAndPaletteFormatsInEveryViewPerspective) {
    std::mt19937 rng(99);
    const Format formats[] = {{"bgr24", 24, ORDER_BGR},   {"rgb32", 32, ORDER_RGB},      {"bgr48", 48, ORDER_BGR},
                              {"grey16", 16, ORDER_GRAY}, {"rgb565", 16, ORDER_RGB565}, {"bw1", 1, ORDER_BGR},
                              {"grey8", 8, ORDER_GRAY},   {"fixed4", 4, ORDER_BGR},     {"fixed3", 3, ORDER_BGR}};
    for (const Format& f : formats)
        for (int p = 1; p <= 8; ++p) {
            SCOPED_TRACE(std::string(f.name) + " perspective " + std::to_string(p));
            std::vector<Rgb16> stored;
            orienttest::Grid ids(7, 5);  // stored pixel numbers, seen in the perspective
            for (size_t i = 0; i < ids.v.size(); ++i) ids.v[i] = i;
            const orienttest::Grid seen = orienttest::viewed(ids, p);
            BITMAPRECORD bm;
            makeBitmap(bm, 7, 5, f.bpp, f.order, p, [&](int, int c, uint8_t* row) {
                stored.push_back(putRandom(f, bm, row, c, rng));
            });
            const bool wide = f.bpp >= 48 || (f.bpp == 16 && f.order == ORDER_GRAY), bw = f.bpp == 1;
            for (const std::string ext : {".pnm", ".pam"}) {
                const std::string file = written(bm, ext);
                const Raw raw = parse(file);
                const bool pam = ext == ".pam", grey = bw || f.order == ORDER_GRAY, alpha = f.bpp == 32 && pam;
                const int depth = grey ? 1 : alpha ? 4 : 3;
                using V = std::vector<int>;
                const int maxval = wide ? 65535 : bw ? 1 : 255;
                ASSERT_EQ((V{raw.w, raw.h, raw.maxval, raw.depth}), (V{seen.w, seen.h, maxval, depth}));
                EXPECT_EQ(raw.magic, pam ? "P7" : bw ? "P4" : grey ? "P5" : "P6");
                const size_t d = size_t(raw.depth);
                for (size_t i = 0; i < seen.v.size(); ++i) {
                    const Rgb16& v = stored[seen.v[i]];
                    const uint32_t want[3] = {v.r, v.g, v.b};
                    for (size_t k = 0; k < std::min<size_t>(d, 3); ++k)
                        ASSERT_EQ(raw.samples[d * i + k], bw ? uint32_t(pam == (v.r != 0)) : want[k] >> (wide ? 0 : 8));
                }
                BITMAPRECORD back;
                ASSERT_EQ(readBack(file, back), KS_SUCCESS);
                const int bits = bw ? 1 : (wide ? 16 : 8) * depth;
                EXPECT_TRUE(back.nViewPerspective == TOP_LEFT && back.nBitsPerPixel == bits);
                EXPECT_TRUE(!bw || (K_AccessBitmap(&back) == 1 && (back.pData[0] & (0xFF >> raw.w)) == 0));
                EXPECT_EQ(written(back, ext), file);
                K_FreeBitmap(&back);
            }
            K_FreeBitmap(&bm);
        }
}

// Files other programs write: header comments, an odd maxval with 16-bit samples (scaled to full range), PAM grey
// with alpha (dropped), PAM black and white (1 is white). Reading a file the tool refuses (that every malformed file
// is refused with a reason: the fuzz target) leaves the caller's record byte for byte.
TEST(PalettePnm, ForeignFilesOddMaxvalsAndRefusals) {
    std::string p6 = "P6\n# a comment\n2 1 # another\n1000\n";
    const uint32_t v[6] = {0, 500, 1000, 999, 1, 2};
    for (uint32_t x : v) p6 += char(x >> 8), p6 += char(x & 255);
    auto s = [&](int i) { return (v[i] * 65535 + 500) / 1000; };
    const std::string pam = "P7\nWIDTH 3\nHEIGHT 1\nDEPTH ";
    const std::string path = ::testing::TempDir() + "ombrix_pnm_" + std::to_string(getpid()) + ".pnm";
    const struct {
        std::string file;
        int bpp;                     // 0: refused
        std::vector<uint32_t> want;  // leading samples of the bitmap (16-bit words for 48 bits)
    } cases[] = {
        {p6, 48, {s(2), s(1), s(0), s(5), s(4), s(3)}},  // stored blue first
        {pam + "2\nMAXVAL 255\nTUPLTYPE GRAYSCALE_ALPHA\nENDHDR\n" + std::string("\x10\xFF\x20\x00\x30\x80", 6), 8,
         {0x10, 0x20, 0x30}},
        {pam + "1\nMAXVAL 1\nTUPLTYPE BLACKANDWHITE\nENDHDR\n" + std::string("\x01\x00\x01", 3), 1, {0xA0}},  // 1 white
        // empty, ASCII, truncated raster, huge (refused before allocating), unknown tuple type
        {"", 0, {}}, {"P3\n1 1\n255\n0 0 0\n", 0, {}}, {"P6\n2 2\n255\n\x01\x02", 0, {}},
        {"P6\n99999 99999\n255\n\x01", 0, {}}, {pam + "1\nMAXVAL 255\nTUPLTYPE CMYK\nENDHDR\n\x01\x02\x03", 0, {}},
    };
    for (const auto& c : cases) {
        std::ofstream(path, std::ios::binary) << c.file;
        BITMAPRECORD bm;
        std::memset(&bm, 0x5A, sizeof bm);
        const BITMAPRECORD snap = bm;
        const int32_t st = image::read(path, bm);
        if (!c.bpp) {
            EXPECT_TRUE(st < 0 && !std::memcmp(&bm, &snap, sizeof bm)) << c.file;
            continue;
        }
        ASSERT_TRUE(st == KS_SUCCESS && bm.nBitsPerPixel == c.bpp && K_AccessBitmap(&bm) == 1);
        for (size_t i = 0; i < c.want.size(); ++i) {
            const uint32_t got = c.bpp == 48 ? bm.pData[2 * i] | bm.pData[2 * i + 1] << 8 : bm.pData[i];
            EXPECT_EQ(c.bpp == 1 ? got & 0xE0 : got, c.want[i]) << c.bpp << " sample " << i;
        }
        EXPECT_TRUE(c.bpp != 8 || K_IsGrayScalePalette(bm.pPalette, bm.nColors) == 1);
        K_FreeBitmap(&bm);
    }
    std::remove(path.c_str());
    BITMAPRECORD bm, empty, romm;
    EXPECT_EQ(image::read(path, bm), KS_FILE_NOT_FOUND);
    K_InitBitmap(&empty, BITMAPRECORD_SIZE, 4, 4, 24);
    EXPECT_EQ(image::write(path, empty), KS_INVALID_BITMAP);
    makeBitmap(romm, 2, 2, 24, ORDER_ROMM, TOP_LEFT, [](int, int, uint8_t*) {});
    EXPECT_EQ(parse(written(romm, ".pnm")).magic, "P6");              // converted to ordinary primaries
    EXPECT_EQ(image::write(path + ".bmp", romm), KS_NOT_SUPPORTED);  // no such format
    K_FreeBitmap(&romm);
}

}  // namespace
