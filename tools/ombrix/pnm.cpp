// pnm.cpp - binary PNM (P4, P5, P6) and PAM (P7) files <-> rasters.
//
// Reading keeps the file's depth: PBM and PAM BLACKANDWHITE become 1-bit
// grey; grey with maxval 1, 3, 15, 255 or 65535 becomes grey of 1, 2, 4, 8 or
// 16 bits; other maxvals are scaled with rounding to 8 bits (up to 255) or 16
// bits; RGB_ALPHA keeps its alpha, GRAYSCALE_ALPHA drops it. ASCII formats
// (P1-P3) are refused.
//
// Writing: 1-bit black-and-white -> P4; grey of 2 or 4 bits -> P5 with
// maxval 3 or 15; 8/16-bit grey -> P5 255/65535; RGB -> P6 255/65535; RGBA ->
// PAM RGB_ALPHA when the path ends in .pam, else P6 without the alpha. A
// palette picture is written as grey when all its colours are grey, else as
// 8-bit RGB. A .pam path writes every kind as P7 with its TUPLTYPE.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "image.h"

namespace image {
namespace {

void setError(std::string* error, const std::string& text) {
    if (error) *error = text;
}

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

}  // namespace

namespace codec {

Result decodePnm(const uint8_t* data, size_t size, Raster& out) {
    const std::vector<uint8_t> buf(data, data + size);
    Header h;
    std::string why;
    if (!parseHeader(buf, h, &why)) return fail(KS_FILE_READ, why);
    const std::string& t = h.tupltype;
    Raster r;
    bool bits1 = false;
    if (t == "BLACKANDWHITE" || t == "BLACKANDWHITE_ALPHA") r.kind = Raster::Grey, bits1 = true;
    else if (t == "GRAYSCALE" || t == "GRAYSCALE_ALPHA") r.kind = Raster::Grey;
    else if (t == "RGB") r.kind = Raster::Rgb;
    else if (t == "RGB_ALPHA") r.kind = Raster::Rgba;
    else return fail(KS_NOT_SUPPORTED, "unsupported TUPLTYPE " + t);
    const int used = r.channels();
    if (h.kind == 7 && h.depth < used) return fail(KS_FILE_READ, "DEPTH too small for TUPLTYPE " + t);
    if (bits1 && h.maxval != 1) return fail(KS_FILE_READ, "BLACKANDWHITE needs MAXVAL 1");
    Result res = checkSize(uint64_t(h.width), uint64_t(h.height));
    if (!res.ok()) return res;
    const uint32_t maxval = uint32_t(h.maxval);
    const size_t sampleBytes = maxval > 255 ? 2 : 1;
    const size_t rowBytes = h.kind == 4 ? size_t(h.width + 7) / 8 : size_t(h.width) * size_t(h.depth) * sampleBytes;
    if (h.dataOffset > size || (size - h.dataOffset) / rowBytes < size_t(h.height))
        return fail(KS_FILE_READ, "truncated raster");
    // Depths kept exactly; other maxvals scale to 8 or 16 bits.
    int exactBits = 0;
    if (r.kind == Raster::Grey && (maxval == 1 || maxval == 3 || maxval == 15)) exactBits = maxval == 1 ? 1 : maxval == 3 ? 2 : 4;
    if (maxval == 255) exactBits = 8;
    if (maxval == 65535) exactBits = 16;
    r.bits = exactBits == 1 || exactBits == 2 || exactBits == 4 ? exactBits : sampleBytes == 2 ? 16 : 8;
    const uint32_t top = r.bits == 16 ? 65535 : (1u << r.bits) - 1;
    r.width = int32_t(h.width), r.height = int32_t(h.height);
    r.allocate();
    const uint8_t* src = data + h.dataOffset;
    std::vector<uint8_t> samples(size_t(r.width) * size_t(used));
    for (int32_t y = 0; y < r.height; ++y, src += rowBytes) {
        uint8_t* dst = r.row(y);
        if (h.kind == 4) {  // PBM: 1 is black; grey 1 bit: 1 is white
            for (size_t i = 0; i < rowBytes; ++i) dst[i] = uint8_t(~src[i]);
            if (h.width % 8) dst[rowBytes - 1] &= uint8_t(0xFF00 >> (h.width % 8));
            continue;
        }
        size_t k = 0;
        for (long x = 0; x < h.width; ++x) {
            const uint8_t* p = src + size_t(x) * size_t(h.depth) * sampleBytes;
            for (int c = 0; c < used; ++c, p += sampleBytes) {
                uint32_t v = sampleBytes == 2 ? uint32_t(p[0]) << 8 | p[1] : p[0];
                if (v > maxval) v = maxval;
                if (!exactBits) v = (v * top + maxval / 2) / maxval;
                if (r.bits == 16) {
                    const uint16_t s = uint16_t(v);
                    std::memcpy(dst + 2 * k, &s, 2);
                } else {
                    samples[k] = uint8_t(v);
                }
                ++k;
            }
        }
        if (r.bits <= 8) packRow(samples.data(), r.bits, samples.size(), dst);
    }
    out = std::move(r);
    return {};
}

Result encodePnm(const Raster& input, bool pam, std::vector<uint8_t>& out, std::string& note) {
    Raster r;
    if (input.kind == Raster::Index) {
        // Black and white stays 1 bit; other palettes become grey or RGB.
        auto is = [](const RGBQUAD& e, int v) { return e.rgbRed == v && e.rgbGreen == v && e.rgbBlue == v; };
        bool bw = input.bits == 1;
        for (const RGBQUAD& e : input.palette) bw = bw && (is(e, 0) || is(e, 255));
        if (bw) {
            r = input;
            r.kind = Raster::Grey;
            r.palette.clear();
            for (int32_t y = 0; y < r.height; ++y) {
                uint8_t* p = r.row(y);
                for (int32_t x = 0; x < r.width; ++x) {
                    const int i = (p[x >> 3] >> (7 - (x & 7))) & 1;
                    const bool white = size_t(i) < input.palette.size() && input.palette[size_t(i)].rgbRed == 255;
                    p[x >> 3] = uint8_t((p[x >> 3] & ~(0x80 >> (x & 7))) | (white ? 0x80 >> (x & 7) : 0));
                }
            }
        } else {
            r = toEightBit(input, true);
        }
    }
    const Raster& in = input.kind == Raster::Index ? r : input;
    int channels = in.channels();
    if (in.kind == Raster::Rgba && !pam) {
        channels = 3;
        note = "alpha dropped (a .pam file keeps it)";
    }
    const uint32_t maxval = in.bits == 16 ? 65535 : (1u << in.bits) - 1;
    char head[200];
    if (pam) {
        const char* tt = in.kind == Raster::Grey ? (in.bits == 1 ? "BLACKANDWHITE" : "GRAYSCALE")
                         : in.kind == Raster::Rgb ? "RGB" : "RGB_ALPHA";
        std::snprintf(head, sizeof head, "P7\nWIDTH %d\nHEIGHT %d\nDEPTH %d\nMAXVAL %u\nTUPLTYPE %s\nENDHDR\n",
                      in.width, in.height, channels, maxval, tt);
    } else if (in.kind == Raster::Grey && in.bits == 1) {
        std::snprintf(head, sizeof head, "P4\n%d %d\n", in.width, in.height);
    } else {
        std::snprintf(head, sizeof head, "P%d\n%d %d\n%u\n", channels == 1 ? 5 : 6, in.width, in.height, maxval);
    }
    out.assign(head, head + std::strlen(head));
    const size_t w = size_t(in.width), ch = size_t(in.channels());
    std::vector<uint8_t> samples(w * ch);
    for (int32_t y = 0; y < in.height; ++y) {
        const uint8_t* s = in.row(y);
        if (in.kind == Raster::Grey && in.bits == 1 && !pam) {
            for (size_t i = 0; i < in.rowBytes(); ++i) out.push_back(uint8_t(~s[i]));
            if (w % 8) out.back() &= uint8_t(0xFF00 >> (w % 8));
            continue;
        }
        if (in.bits < 8) {
            unpackRow(s, in.bits, w, samples.data());
            out.insert(out.end(), samples.begin(), samples.end());
            continue;
        }
        for (size_t x = 0; x < w; ++x)
            for (size_t c = 0; c < size_t(channels); ++c) {
                const size_t i = x * ch + c;
                if (in.bits == 8) {
                    out.push_back(s[i]);
                } else {
                    uint16_t v;
                    std::memcpy(&v, s + 2 * i, 2);
                    out.push_back(uint8_t(v >> 8));
                    out.push_back(uint8_t(v));
                }
            }
    }
    return {};
}

}  // namespace codec
}  // namespace image
