// test_palette_pnm.cpp - the ombrix tool's PNM/PAM files: round trips for
// every format it writes and every view perspective, the files other
// programs write (comments, 16-bit and odd maxvals, PAM tuple types), and
// malformed files.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <set>
#include <iterator>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "ombrix.h"
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

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}
std::string readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// Viewed (x, y) of stored (row, col), written from the orientation names:
// "row side, column side" of the stored image as seen by the viewer.
void viewOf(int p, int W, int H, int r, int c, int& x, int& y) {
    // W, H: stored width and height.
    const int Wv = p >= 5 ? H : W, Hv = p >= 5 ? W : H;
    switch (p) {
        case 1: x = c, y = r; break;                    // row top, column left
        case 2: x = Wv - 1 - c, y = r; break;           // row top, column right
        case 3: x = Wv - 1 - c, y = Hv - 1 - r; break;  // row bottom, column right
        case 4: x = c, y = Hv - 1 - r; break;           // row bottom, column left
        case 5: x = r, y = c; break;                    // row left, column top
        case 6: x = Wv - 1 - r, y = c; break;           // row right, column top
        case 7: x = Wv - 1 - r, y = Hv - 1 - c; break;  // row right, column bottom
        default: x = r, y = Hv - 1 - c; break;          // row left, column bottom
    }
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
    if (f.bpp == 48) {
        w16(row + 6 * c, b), w16(row + 6 * c + 2, g), w16(row + 6 * c + 4, r);
        return {r, g, b};
    }
    if (f.order == ORDER_GRAY) {
        w16(row + 2 * c, r);
        return {r, r, r};
    }
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
        while (pos < bytes.size() && isspace(static_cast<unsigned char>(bytes[pos]))) ++pos;
        size_t s = pos;
        while (pos < bytes.size() && !isspace(static_cast<unsigned char>(bytes[pos]))) ++pos;
        return bytes.substr(s, pos - s);
    };
    r.magic = token();
    if (r.magic == "P7") {
        for (std::string k = token(); k != "ENDHDR" && pos < bytes.size(); k = token()) {
            if (k == "WIDTH") r.w = std::stoi(token());
            else if (k == "HEIGHT") r.h = std::stoi(token());
            else if (k == "DEPTH") r.depth = std::stoi(token());
            else if (k == "MAXVAL") r.maxval = std::stoi(token());
            else if (k == "TUPLTYPE") token();
        }
    } else {
        r.w = std::stoi(token());
        r.h = std::stoi(token());
        r.maxval = r.magic == "P4" ? 1 : std::stoi(token());
        r.depth = r.magic == "P6" ? 3 : 1;
    }
    ++pos;  // the single whitespace after the header
    if (r.magic == "P4") {
        const size_t rowBytes = size_t(r.w + 7) / 8;
        for (int y = 0; y < r.h; ++y)
            for (int x = 0; x < r.w; ++x)
                r.samples.push_back((uint8_t(bytes[pos + size_t(y) * rowBytes + size_t(x) / 8]) >> (7 - x % 8)) & 1);
        return r;
    }
    const size_t n = size_t(r.w) * size_t(r.h) * size_t(r.depth);
    for (size_t i = 0; i < n; ++i) {
        if (r.maxval > 255) {
            r.samples.push_back(uint32_t(uint8_t(bytes[pos])) << 8 | uint8_t(bytes[pos + 1]));
            pos += 2;
        } else {
            r.samples.push_back(uint8_t(bytes[pos++]));
        }
    }
    return r;
}

TEST(PalettePnm, DeepFormatsInEveryViewPerspective) {
    std::mt19937 rng(99);
    for (const Format& f : kFormats) {
        for (int p = 1; p <= 8; ++p) {
            SCOPED_TRACE(std::string(f.name) + " perspective " + std::to_string(p));
            const int W = 7, H = 5;
            BITMAPRECORD bm;
            ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, W, H, f.bpp, f.order, nullptr, p,
                                     nullptr, 0),
                      KS_SUCCESS);
            ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
            const int Wv = p >= 5 ? H : W, Hv = p >= 5 ? W : H;
            std::vector<Rgb> view(size_t(Wv * Hv));
            for (int r = 0; r < H; ++r)
                for (int c = 0; c < W; ++c) {
                    const Rgb o = putRandom(f, bm.pData + size_t(r) * bm.nBytesPerLine, c, rng);
                    int x, y;
                    viewOf(p, W, H, r, c, x, y);
                    view[size_t(y * Wv + x)] = o;
                }
            K_ReleaseBitmap(&bm);
            for (const char* ext : {".pnm", ".pam"}) {
                const std::string path = tempPath(std::string(f.name) + ext);
                ASSERT_EQ(pnm::write(path, bm), KS_SUCCESS);
                Raw raw = parse(readFile(path));
                ASSERT_EQ(raw.w, Wv);
                ASSERT_EQ(raw.h, Hv);
                const bool wide = f.bpp >= 48 || f.order == ORDER_GRAY;
                ASSERT_EQ(raw.maxval, wide ? 65535 : 255);
                const bool alpha = f.bpp == 32 && std::string(ext) == ".pam";  // PAM keeps the alpha
                ASSERT_EQ(raw.depth, f.order == ORDER_GRAY ? 1 : alpha ? 4 : 3);
                for (int i = 0; i < Wv * Hv; ++i) {
                    const Rgb& o = view[size_t(i)];
                    auto want = [&](uint32_t v) { return wide ? v : v >> 8; };
                    if (raw.depth == 1) {
                        ASSERT_EQ(raw.samples[size_t(i)], want(o.r)) << i;
                    } else {
                        const size_t d = size_t(raw.depth);
                        ASSERT_EQ(raw.samples[d * size_t(i)], want(o.r)) << i;
                        ASSERT_EQ(raw.samples[d * size_t(i) + 1], want(o.g)) << i;
                        ASSERT_EQ(raw.samples[d * size_t(i) + 2], want(o.b)) << i;
                    }
                }
                // Reading keeps the file's depth, top row first: written again, the same file.
                BITMAPRECORD back;
                ASSERT_EQ(pnm::read(path, back), KS_SUCCESS);
                EXPECT_EQ(back.nViewPerspective, TOP_LEFT);
                EXPECT_EQ(back.nBitsPerPixel, raw.depth == 1 ? (wide ? 16 : 8) : (wide ? 16 : 8) * raw.depth);
                const std::string again = tempPath(std::string("again") + ext);
                ASSERT_EQ(pnm::write(again, back), KS_SUCCESS);
                EXPECT_EQ(readFile(again), readFile(path));
                K_FreeBitmap(&back);
            }
            K_FreeBitmap(&bm);
        }
    }
}

TEST(PalettePnm, PalettedBitmaps) {
    std::mt19937 rng(4);
    // 1-bit black/white -> P4; 8-bit grey ramp -> P5; 4-bit colour palette -> P6.
    struct Case {
        int bpp;
        const char* magic;
        bool grey;
    } cases[] = {{1, "P4", false}, {8, "P5", true}, {4, "P6", false}, {3, "P6", false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bpp);
        BITMAPRECORD bm;
        ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, 11, 3, c.bpp,
                                 c.grey ? ORDER_GRAY : ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0),
                  KS_SUCCESS);
        RGBQUAD pal[256];
        ASSERT_GT(K_GetBitmapColors(&bm, 0, 256, pal), 0);
        ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
        std::vector<uint32_t> idx;
        for (int y = 0; y < 3; ++y) {
            uint8_t* row = bm.pData + size_t(y) * bm.nBytesPerLine;
            std::memset(row, 0, bm.nBytesPerLine);
            for (int x = 0; x < 11; ++x) {
                uint32_t v = rng() % (1u << c.bpp);
                idx.push_back(v);
                for (int k = 0; k < c.bpp; ++k) {
                    int bit = x * c.bpp + k;
                    if (v >> (c.bpp - 1 - k) & 1) row[bit / 8] |= uint8_t(0x80 >> (bit % 8));
                }
            }
        }
        K_ReleaseBitmap(&bm);
        const std::string path = tempPath("pal.pnm");
        ASSERT_EQ(pnm::write(path, bm), KS_SUCCESS);
        Raw raw = parse(readFile(path));
        EXPECT_EQ(raw.magic, c.magic);
        for (size_t i = 0; i < idx.size(); ++i) {
            const RGBQUAD& e = pal[idx[i]];
            if (raw.magic == "P4") {
                ASSERT_EQ(raw.samples[i], e.rgbRed ? 0u : 1u);  // 1 is black in P4
            } else if (raw.magic == "P5") {
                ASSERT_EQ(raw.samples[i], e.rgbRed);
            } else {
                ASSERT_EQ(raw.samples[3 * i], e.rgbRed);
                ASSERT_EQ(raw.samples[3 * i + 1], e.rgbGreen);
                ASSERT_EQ(raw.samples[3 * i + 2], e.rgbBlue);
            }
        }
        if (c.bpp == 1) {  // P4 reads back to the same 1-bit pixels
            BITMAPRECORD back;
            ASSERT_EQ(pnm::read(path, back), KS_SUCCESS);
            EXPECT_EQ(back.nBitsPerPixel, 1);
            ASSERT_EQ(K_AccessBitmap(&back), KS_SUCCESS);
            for (size_t i = 0; i < idx.size(); ++i) {
                size_t x = i % 11, y = i / 11;
                ASSERT_EQ((back.pData[y * back.nBytesPerLine + x / 8] >> (7 - x % 8)) & 1, int(idx[i]));
            }
            EXPECT_EQ(back.pData[1] & 0x1F, 0);  // padding bits past the width are clear
            K_FreeBitmap(&back);
        }
        K_FreeBitmap(&bm);
    }
}

TEST(PalettePnm, ForeignFilesAndOddMaxvals) {
    const std::string path = tempPath("in.pnm");
    BITMAPRECORD bm;
    // Comments in the header, maxval 1000, 16-bit big-endian samples: 48 bits.
    std::string p6 = "P6\n# a comment\n2 1 # another\n1000\n";
    for (uint32_t v : {0u, 500u, 1000u, 999u, 1u, 2u}) p6 += char(v >> 8), p6 += char(v & 255);
    writeFile(path, p6);
    ASSERT_EQ(pnm::read(path, bm), KS_SUCCESS);
    ASSERT_EQ(bm.nBitsPerPixel, 48);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    auto s = [](uint32_t v) { return (v * 65535 + 500) / 1000; };
    auto q = [&](int i) { return uint32_t(bm.pData[2 * i]) | uint32_t(bm.pData[2 * i + 1]) << 8; };
    EXPECT_EQ(q(2), s(0));
    EXPECT_EQ(q(1), s(500));
    EXPECT_EQ(q(0), s(1000));
    EXPECT_EQ(q(5), s(999));
    EXPECT_EQ(q(4), s(1));
    EXPECT_EQ(q(3), s(2));
    K_FreeBitmap(&bm);

    // PAM grey with alpha: alpha dropped. PAM black and white: 1 is white.
    std::string pam = "P7\nWIDTH 3\nHEIGHT 1\nDEPTH 2\nMAXVAL 255\nTUPLTYPE GRAYSCALE_ALPHA\nENDHDR\n";
    pam += std::string("\x10\xFF\x20\x00\x30\x80", 6);
    writeFile(path, pam);
    ASSERT_EQ(pnm::read(path, bm), KS_SUCCESS);
    ASSERT_EQ(bm.nBitsPerPixel, 8);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    EXPECT_EQ(bm.pData[0], 0x10);
    EXPECT_EQ(bm.pData[1], 0x20);
    EXPECT_EQ(bm.pData[2], 0x30);
    EXPECT_EQ(K_IsGrayScalePalette(bm.pPalette, bm.nColors), 1);
    K_FreeBitmap(&bm);
    writeFile(path, "P7\nWIDTH 3\nHEIGHT 1\nDEPTH 1\nMAXVAL 1\nTUPLTYPE BLACKANDWHITE\nENDHDR\n" +
                        std::string("\x01\x00\x01", 3));
    ASSERT_EQ(pnm::read(path, bm), KS_SUCCESS);
    ASSERT_EQ(bm.nBitsPerPixel, 1);
    ASSERT_EQ(K_AccessBitmap(&bm), KS_SUCCESS);
    EXPECT_EQ(bm.pData[0] & 0xE0, 0xA0);  // white, black, white with index 1 white
    K_FreeBitmap(&bm);
}

TEST(PalettePnm, MalformedFilesAreRefusedAndLeaveTheRecord) {
    const std::string path = tempPath("bad.pnm");
    const std::string bad[] = {
        "",
        "P3\n1 1\n255\n0 0 0\n",
        "P6\n2 2\n255\n\x01\x02",                 // truncated raster
        "P6\n0 2\n255\n",                         // zero width
        "P5\n2 2\n70000\n",                       // maxval too large
        "P6\n99999 99999\n255\n\x01",             // huge and empty: refused before allocating
        "P7\nWIDTH 1\nHEIGHT 1\nDEPTH 3\nMAXVAL 255\n",  // no ENDHDR
        "P7\nWIDTH 1\nHEIGHT 1\nDEPTH 1\nMAXVAL 255\nTUPLTYPE RGB\nENDHDR\n\x01",  // depth below tuple type
        "P7\nWIDTH 1\nHEIGHT 1\nDEPTH 1\nMAXVAL 255\nTUPLTYPE CMYK\nENDHDR\n\x01",
        "P5\n2 x\n255\n",
    };
    for (const std::string& b : bad) {
        writeFile(path, b);
        BITMAPRECORD bm;
        std::memset(&bm, 0x5A, sizeof bm);
        BITMAPRECORD snap = bm;
        EXPECT_LT(pnm::read(path, bm), 0) << b;  // (that a refusal names its reason: the fuzz target)
        EXPECT_EQ(std::memcmp(&bm, &snap, sizeof bm), 0);
    }
    BITMAPRECORD bm;
    EXPECT_EQ(pnm::read(tempPath("does-not-exist.pnm"), bm), KS_FILE_NOT_FOUND);
    BITMAPRECORD empty;
    K_InitBitmap(&empty, BITMAPRECORD_SIZE, 4, 4, 24);
    EXPECT_EQ(pnm::write(tempPath("x.pnm"), empty), KS_INVALID_BITMAP);
    BITMAPRECORD romm;
    ASSERT_EQ(K_CreateBitmap(&romm, BITMAPRECORD_SIZE, 1, 2, 2, 24, ORDER_ROMM, nullptr, TOP_LEFT, nullptr, 0),
              KS_SUCCESS);
    EXPECT_EQ(pnm::write(tempPath("x.pnm"), romm), KS_SUCCESS);  // converted to ordinary primaries
    EXPECT_EQ(pnm::write(tempPath("x.bmp"), romm), KS_NOT_SUPPORTED);  // no such format
    K_FreeBitmap(&romm);
}

}  // namespace
