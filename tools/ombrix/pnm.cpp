// pnm.cpp - binary PNM/PAM reading and writing through the public API only.
#include "pnm.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace pnm {
namespace {

void setError(std::string* error, const std::string& text) {
    if (error) *error = text;
}

struct File {
    std::FILE* f = nullptr;
    ~File() {
        if (f) std::fclose(f);
    }
};

// ---------------------------------------------------------------- header parsing

struct Header {
    int kind = 0;  // 4, 5, 6 or 7
    long width = 0, height = 0, depth = 0, maxval = 0;
    std::string tupltype;
    size_t dataOffset = 0;
};

struct Cursor {
    const std::vector<uint8_t>& buf;
    size_t pos = 0;
    bool skipSpaceAndComments() {
        while (pos < buf.size()) {
            uint8_t c = buf[pos];
            if (c == '#') {
                while (pos < buf.size() && buf[pos] != '\n') ++pos;
            } else if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f') {
                ++pos;
            } else {
                return true;
            }
        }
        return false;
    }
    bool number(long& out) {
        if (!skipSpaceAndComments()) return false;
        long v = 0;
        size_t start = pos;
        while (pos < buf.size() && buf[pos] >= '0' && buf[pos] <= '9') {
            v = v * 10 + (buf[pos] - '0');
            if (v > 0x7FFFFFFF) return false;
            ++pos;
        }
        out = v;
        return pos > start;
    }
    bool word(std::string& out) {
        out.clear();
        while (pos < buf.size() && (buf[pos] == ' ' || buf[pos] == '\t')) ++pos;
        while (pos < buf.size() && buf[pos] != ' ' && buf[pos] != '\t' && buf[pos] != '\n' && buf[pos] != '\r')
            out += char(buf[pos++]);
        return !out.empty();
    }
    void restOfLine() {
        while (pos < buf.size() && buf[pos] != '\n') ++pos;
        if (pos < buf.size()) ++pos;
    }
};

bool parseHeader(const std::vector<uint8_t>& buf, Header& h, std::string* error) {
    if (buf.size() < 3 || buf[0] != 'P' || buf[1] < '4' || buf[1] > '7') {
        setError(error, buf.size() >= 2 && buf[0] == 'P' && buf[1] >= '1' && buf[1] <= '3'
                            ? "ASCII PNM (P1-P3) is not supported"
                            : "not a binary PNM/PAM file");
        return false;
    }
    h.kind = buf[1] - '0';
    Cursor c{buf, 2};
    if (h.kind != 7) {
        if (!c.number(h.width) || !c.number(h.height)) return setError(error, "bad PNM header"), false;
        h.maxval = 1;
        if (h.kind != 4 && !c.number(h.maxval)) return setError(error, "bad PNM header"), false;
        h.depth = h.kind == 6 ? 3 : 1;
        // Exactly one whitespace character ends the header.
        if (c.pos >= buf.size()) return setError(error, "truncated header"), false;
        h.dataOffset = c.pos + 1;
        if (h.kind == 4) h.tupltype = "BLACKANDWHITE";
        else h.tupltype = h.kind == 5 ? "GRAYSCALE" : "RGB";
    } else {
        c.restOfLine();
        std::string key;
        for (;;) {
            if (c.pos >= buf.size()) return setError(error, "PAM header without ENDHDR"), false;
            if (buf[c.pos] == '#' || buf[c.pos] == '\n') {
                c.restOfLine();
                continue;
            }
            if (!c.word(key)) return setError(error, "bad PAM header"), false;
            if (key == "ENDHDR") {
                c.restOfLine();
                break;
            }
            bool ok = true;
            if (key == "WIDTH") ok = c.number(h.width);
            else if (key == "HEIGHT") ok = c.number(h.height);
            else if (key == "DEPTH") ok = c.number(h.depth);
            else if (key == "MAXVAL") ok = c.number(h.maxval);
            else if (key == "TUPLTYPE") ok = c.word(h.tupltype);
            if (!ok) return setError(error, "bad PAM header field " + key), false;
            c.restOfLine();
        }
        h.dataOffset = c.pos;
        if (h.tupltype.empty()) {
            h.tupltype = h.depth == 1 ? (h.maxval == 1 ? "BLACKANDWHITE" : "GRAYSCALE")
                         : h.depth == 2 ? "GRAYSCALE_ALPHA" : h.depth == 3 ? "RGB" : "RGB_ALPHA";
        }
    }
    if (h.width <= 0 || h.height <= 0 || h.maxval < 1 || h.maxval > 65535 || h.depth < 1 || h.depth > 4)
        return setError(error, "bad dimensions, depth or maxval"), false;
    return true;
}

// ---------------------------------------------------------------- view orientation

// Size of the viewed image and the stored (row, column) of viewed (x, y).
void viewSize(const BITMAPRECORD& bm, int32_t& w, int32_t& h) {
    const bool transposed = bm.nViewPerspective >= LEFT_TOP;
    w = transposed ? bm.nHeight : bm.nWidth;
    h = transposed ? bm.nWidth : bm.nHeight;
}
void storedPos(const BITMAPRECORD& bm, int32_t x, int32_t y, int32_t& row, int32_t& col) {
    const int32_t W = bm.nWidth, H = bm.nHeight;
    switch (bm.nViewPerspective) {
        case TOP_RIGHT: row = y, col = W - 1 - x; break;
        case BOTTOM_RIGHT: row = H - 1 - y, col = W - 1 - x; break;
        case BOTTOM_LEFT: row = H - 1 - y, col = x; break;
        case LEFT_TOP: row = x, col = y; break;
        case RIGHT_TOP: row = H - 1 - x, col = y; break;
        case RIGHT_BOTTOM: row = H - 1 - x, col = W - 1 - y; break;
        case LEFT_BOTTOM: row = x, col = W - 1 - y; break;
        default: row = y, col = x; break;
    }
}

// ---------------------------------------------------------------- pixel access

// 5- and 6-bit fields widen to 8 bits by repeating their top bits (as the kernel does).
uint32_t five(uint32_t v) { return (v << 3) | (v >> 2); }
uint32_t six(uint32_t v) { return (v << 2) | (v >> 4); }

enum class Out { Bits1, Grey8, Grey16, Rgb8, Rgb16 };

struct Pixels {
    const BITMAPRECORD& bm;
    const uint8_t* data;
    std::vector<RGBQUAD> colors;  // paletted bitmaps

    uint32_t index(int32_t row, int32_t col) const {
        const int32_t bpp = bm.nBitsPerPixel;
        const uint8_t* p = data + size_t(row) * bm.nBytesPerLine;
        uint32_t bit = uint32_t(col) * uint32_t(bpp), v = 0;
        for (int32_t k = 0; k < bpp; ++k, ++bit) v = v << 1 | ((p[bit >> 3] >> (7 - (bit & 7))) & 1u);
        return v;
    }
    // 16-bit samples (0..65535) of the pixel.
    void rgb16(int32_t row, int32_t col, uint32_t out[3]) const {
        const int32_t bpp = bm.nBitsPerPixel;
        const uint8_t* p = data + size_t(row) * bm.nBytesPerLine;
        const bool rgbFirst = bm.nOrder == ORDER_RGB;
        if (bpp <= 8) {
            uint32_t i = index(row, col);
            RGBQUAD e = i < colors.size() ? colors[i] : RGBQUAD{0, 0, 0, 0};
            out[0] = e.rgbRed * 257u, out[1] = e.rgbGreen * 257u, out[2] = e.rgbBlue * 257u;
        } else if (bpp == 16) {
            uint32_t v = uint32_t(p[2 * col]) | uint32_t(p[2 * col + 1]) << 8;
            if (bm.nOrder == ORDER_GRAY) {
                out[0] = out[1] = out[2] = v;
            } else if (bm.nOrder == ORDER_RGB565) {
                out[0] = five(v >> 11) * 257, out[1] = six((v >> 5) & 63) * 257, out[2] = five(v & 31) * 257;
            } else {
                uint32_t hi = five((v >> 10) & 31) * 257, mid = five((v >> 5) & 31) * 257, lo = five(v & 31) * 257;
                out[0] = rgbFirst ? lo : hi, out[1] = mid, out[2] = rgbFirst ? hi : lo;
            }
        } else if (bpp == 24 || bpp == 32) {
            const uint8_t* q = p + size_t(col) * size_t(bpp / 8);
            out[0] = (rgbFirst ? q[0] : q[2]) * 257u, out[1] = q[1] * 257u, out[2] = (rgbFirst ? q[2] : q[0]) * 257u;
        } else {  // 48, 64
            const uint8_t* q = p + size_t(col) * size_t(bpp / 8);
            uint32_t c0 = uint32_t(q[0]) | uint32_t(q[1]) << 8, c1 = uint32_t(q[2]) | uint32_t(q[3]) << 8,
                     c2 = uint32_t(q[4]) | uint32_t(q[5]) << 8;
            out[0] = rgbFirst ? c0 : c2, out[1] = c1, out[2] = rgbFirst ? c2 : c0;
        }
    }
};

bool supported(const BITMAPRECORD& bm) {
    const int32_t bpp = bm.nBitsPerPixel;
    if (bpp >= 1 && bpp <= 8) return true;
    if (bpp == 16) return true;
    if (bpp == 24 || bpp == 32 || bpp == 48 || bpp == 64) return bm.nOrder == ORDER_RGB || bm.nOrder == ORDER_BGR;
    return false;
}

Out outputKind(const BITMAPRECORD& bm, const std::vector<RGBQUAD>& colors) {
    const int32_t bpp = bm.nBitsPerPixel;
    if (bpp <= 8) {
        auto bw = [](const RGBQUAD& e) {
            return (e.rgbRed == 0 && e.rgbGreen == 0 && e.rgbBlue == 0) ||
                   (e.rgbRed == 255 && e.rgbGreen == 255 && e.rgbBlue == 255);
        };
        if (bpp == 1 && colors.size() == 2 && bw(colors[0]) && bw(colors[1])) return Out::Bits1;
        if (!colors.empty() && K_IsGrayScalePalette(colors.data(), int32_t(colors.size())) > 0) return Out::Grey8;
        return Out::Rgb8;
    }
    if (bpp == 16) return bm.nOrder == ORDER_GRAY ? Out::Grey16 : Out::Rgb8;
    return bpp >= 48 ? Out::Rgb16 : Out::Rgb8;
}

// Accesses a bitmap for reading and releases it on scope exit.
struct Access {
    BITMAPRECORD* bm;
    int32_t rc;
    explicit Access(const BITMAPRECORD& b) : bm(const_cast<BITMAPRECORD*>(&b)), rc(K_AccessBitmap(bm)) {}
    ~Access() {
        if (rc == KS_SUCCESS) K_ReleaseBitmap(bm);
    }
};

std::vector<RGBQUAD> colorsOf(const BITMAPRECORD& bm) {
    std::vector<RGBQUAD> c;
    if (bm.nBitsPerPixel > 8) return c;
    c.resize(size_t(1) << bm.nBitsPerPixel);
    int32_t n = K_GetBitmapColors(&bm, 0, int32_t(c.size()), c.data());
    c.resize(n > 0 ? size_t(n) : 0);
    return c;
}

bool endsWith(const std::string& s, const char* suffix) {
    size_t n = std::strlen(suffix);
    if (s.size() < n) return false;
    for (size_t i = 0; i < n; ++i)
        if (std::tolower(static_cast<unsigned char>(s[s.size() - n + i])) != suffix[i]) return false;
    return true;
}

}  // namespace

int32_t read(const std::string& path, BITMAPRECORD& out, std::string* error) {
    File file;
    file.f = std::fopen(path.c_str(), "rb");
    if (!file.f) {
        setError(error, "cannot open " + path);
        return errno == ENOENT ? KS_FILE_NOT_FOUND : KS_FILE_OPEN;
    }
    std::vector<uint8_t> buf;
    uint8_t chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, file.f)) > 0) buf.insert(buf.end(), chunk, chunk + got);
    Header h;
    if (!parseHeader(buf, h, error)) return KS_FILE_READ;
    const std::string& t = h.tupltype;
    int channels;  // colour channels kept: 1 or 3; the rest (alpha) dropped
    bool bits;
    if (t == "BLACKANDWHITE" || (h.kind == 7 && t == "BLACKANDWHITE_ALPHA")) {
        channels = 1, bits = true;
    } else if (t == "GRAYSCALE" || t == "GRAYSCALE_ALPHA") {
        channels = 1, bits = false;
    } else if (t == "RGB" || t == "RGB_ALPHA") {
        channels = 3, bits = false;
    } else {
        setError(error, "unsupported TUPLTYPE " + t);
        return KS_NOT_SUPPORTED;
    }
    if (h.kind == 7 && h.depth < channels) return setError(error, "DEPTH too small for TUPLTYPE"), KS_FILE_READ;
    if (bits && h.maxval != 1) return setError(error, "BLACKANDWHITE needs MAXVAL 1"), KS_FILE_READ;
    const size_t sampleBytes = h.maxval > 255 ? 2 : 1;
    const size_t rowBytes = h.kind == 4 ? size_t(h.width + 7) / 8 : size_t(h.width) * size_t(h.depth) * sampleBytes;
    if (h.dataOffset > buf.size() || (buf.size() - h.dataOffset) / rowBytes < size_t(h.height)) {
        setError(error, "truncated raster");
        return KS_FILE_READ;
    }
    BITMAPRECORD bm;
    const int32_t bpp = bits ? 1 : channels == 1 ? 8 : 24;
    int32_t rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, int32_t(h.width), int32_t(h.height), bpp,
                                bpp == 8 ? ORDER_GRAY : ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0);
    if (rc != KS_SUCCESS) {
        setError(error, "cannot create the bitmap");
        return rc;
    }
    rc = K_AccessBitmap(&bm);
    if (rc != KS_SUCCESS) {
        K_FreeBitmap(&bm);
        return rc;
    }
    const uint8_t* src = buf.data() + h.dataOffset;
    const uint32_t maxval = uint32_t(h.maxval);
    auto sample = [&](const uint8_t* p) -> uint32_t {
        uint32_t v = sampleBytes == 2 ? uint32_t(p[0]) << 8 | p[1] : p[0];
        if (v > maxval) v = maxval;
        return maxval == 255 ? v : (v * 255 + maxval / 2) / maxval;
    };
    for (long y = 0; y < h.height; ++y, src += rowBytes) {
        uint8_t* dst = bm.pData + size_t(y) * bm.nBytesPerLine;
        if (h.kind == 4) {
            // PBM: 1 is black; the fixed 1-bit palette has black at 0.
            for (size_t i = 0; i < rowBytes; ++i) dst[i] = uint8_t(~src[i]);
            if (h.width % 8) dst[rowBytes - 1] &= uint8_t(0xFF00 >> (h.width % 8));
        } else if (bits) {
            std::memset(dst, 0, bm.nBytesPerLine);
            for (long x = 0; x < h.width; ++x)
                if (src[size_t(x) * size_t(h.depth)]) dst[x >> 3] |= uint8_t(0x80 >> (x & 7));
        } else {
            for (long x = 0; x < h.width; ++x) {
                const uint8_t* p = src + size_t(x) * size_t(h.depth) * sampleBytes;
                if (channels == 1) {
                    dst[x] = uint8_t(sample(p));
                } else {
                    dst[3 * x + 2] = uint8_t(sample(p));
                    dst[3 * x + 1] = uint8_t(sample(p + sampleBytes));
                    dst[3 * x + 0] = uint8_t(sample(p + 2 * sampleBytes));
                }
            }
        }
    }
    K_ReleaseBitmap(&bm);
    out = bm;
    return KS_SUCCESS;
}

int32_t write(const std::string& path, const BITMAPRECORD& bm, std::string* error) {
    if (!(bm.uFlags & BRF_ALLOCATED)) return setError(error, "bitmap not allocated"), KS_INVALID_BITMAP;
    if (!supported(bm)) return setError(error, "bitmap format not supported by PNM"), KS_UNSUPPORTED_CONVERSION;
    Access access(bm);
    if (access.rc != KS_SUCCESS) return setError(error, "cannot access the bitmap"), access.rc;
    if (!bm.pData) return setError(error, "storage without a data pointer"), KS_NOT_SUPPORTED;
    Pixels px{bm, bm.pData, colorsOf(bm)};
    const Out kind = outputKind(bm, px.colors);
    const bool pam = endsWith(path, ".pam");
    int32_t w, h;
    viewSize(bm, w, h);
    const int depth = (kind == Out::Rgb8 || kind == Out::Rgb16) ? 3 : 1;
    const bool wide = kind == Out::Grey16 || kind == Out::Rgb16;
    const unsigned maxval = kind == Out::Bits1 ? 1 : wide ? 65535 : 255;

    std::string header;
    char line[160];
    if (pam) {
        const char* tt = kind == Out::Bits1 ? "BLACKANDWHITE" : depth == 1 ? "GRAYSCALE" : "RGB";
        std::snprintf(line, sizeof line, "P7\nWIDTH %d\nHEIGHT %d\nDEPTH %d\nMAXVAL %u\nTUPLTYPE %s\nENDHDR\n", w, h,
                      depth, maxval, tt);
    } else if (kind == Out::Bits1) {
        std::snprintf(line, sizeof line, "P4\n%d %d\n", w, h);
    } else {
        std::snprintf(line, sizeof line, "P%d\n%d %d\n%u\n", depth == 1 ? 5 : 6, w, h, maxval);
    }
    header = line;
    std::vector<uint8_t> rowBuf;
    File file;
    file.f = std::fopen(path.c_str(), "wb");
    if (!file.f) return setError(error, "cannot create " + path), KS_FILE_OPEN;
    bool ok = std::fwrite(header.data(), 1, header.size(), file.f) == header.size();
    for (int32_t y = 0; y < h && ok; ++y) {
        rowBuf.clear();
        uint8_t bitsAcc = 0;
        for (int32_t x = 0; x < w; ++x) {
            int32_t row, col;
            storedPos(bm, x, y, row, col);
            uint32_t c[3];
            px.rgb16(row, col, c);
            switch (kind) {
                case Out::Bits1: {
                    const bool white = c[0] >= 32768;
                    // P4: 1 is black; PAM BLACKANDWHITE: 1 is white, one byte per sample.
                    if (pam) {
                        rowBuf.push_back(white ? 1 : 0);
                    } else {
                        bitsAcc = uint8_t(bitsAcc | ((white ? 0 : 1) << (7 - (x & 7))));
                        if ((x & 7) == 7 || x == w - 1) {
                            rowBuf.push_back(bitsAcc);
                            bitsAcc = 0;
                        }
                    }
                    break;
                }
                case Out::Grey8: rowBuf.push_back(uint8_t(c[0] >> 8)); break;
                case Out::Grey16:
                    rowBuf.push_back(uint8_t(c[0] >> 8));
                    rowBuf.push_back(uint8_t(c[0]));
                    break;
                case Out::Rgb8:
                    for (int k = 0; k < 3; ++k) rowBuf.push_back(uint8_t(c[k] >> 8));
                    break;
                case Out::Rgb16:
                    for (int k = 0; k < 3; ++k) {
                        rowBuf.push_back(uint8_t(c[k] >> 8));
                        rowBuf.push_back(uint8_t(c[k]));
                    }
                    break;
            }
        }
        ok = std::fwrite(rowBuf.data(), 1, rowBuf.size(), file.f) == rowBuf.size();
    }
    if (std::fclose(file.f) != 0) ok = false;
    file.f = nullptr;
    if (!ok) return setError(error, "error writing " + path), KS_FILE_WRITE;
    return KS_SUCCESS;
}

int32_t toBgr24(const BITMAPRECORD& src, BITMAPRECORD& dst) {
    if (!(src.uFlags & BRF_ALLOCATED)) return KS_INVALID_BITMAP;
    if (!supported(src)) return KS_UNSUPPORTED_CONVERSION;
    Access access(src);
    if (access.rc != KS_SUCCESS) return access.rc;
    if (!src.pData) return KS_NOT_SUPPORTED;
    Pixels px{src, src.pData, colorsOf(src)};
    int32_t w, h;
    viewSize(src, w, h);
    BITMAPRECORD bm;
    int32_t rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, w, h, 24, ORDER_BGR, nullptr, TOP_LEFT,
                                nullptr, 0);
    if (rc != KS_SUCCESS) return rc;
    rc = K_AccessBitmap(&bm);
    if (rc != KS_SUCCESS) {
        K_FreeBitmap(&bm);
        return rc;
    }
    for (int32_t y = 0; y < h; ++y) {
        uint8_t* d = bm.pData + size_t(y) * bm.nBytesPerLine;
        for (int32_t x = 0; x < w; ++x) {
            int32_t row, col;
            storedPos(src, x, y, row, col);
            uint32_t c[3];
            px.rgb16(row, col, c);
            d[3 * x] = uint8_t(c[2] >> 8), d[3 * x + 1] = uint8_t(c[1] >> 8), d[3 * x + 2] = uint8_t(c[0] >> 8);
        }
    }
    K_ReleaseBitmap(&bm);
    dst = bm;
    return KS_SUCCESS;
}

}  // namespace pnm
