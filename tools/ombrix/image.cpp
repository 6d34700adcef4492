// image.cpp - the tool's pictures: rasters, bitmaps and the format dispatch.
#include "image.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace image {

namespace {

uint64_t gPixelLimit = uint64_t(1) << 30;
int gJpegQuality = 92;

bool endsWith(const std::string& s, const char* suffix) {
    size_t n = std::strlen(suffix);
    if (s.size() < n) return false;
    for (size_t i = 0; i < n; ++i)
        if (std::tolower(static_cast<unsigned char>(s[s.size() - n + i])) != suffix[i]) return false;
    return true;
}

// Stored (row, column) of the viewed pixel (x, y) of a bitmap.
void storedPos(int vp, int32_t W, int32_t H, int32_t x, int32_t y, int32_t& row, int32_t& col) {
    switch (vp) {
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

// Copies pixel `from` of row `src` to pixel `to` of row `dst`; pixels of `pb` bits.
void copyPixel(const uint8_t* src, size_t from, uint8_t* dst, size_t to, size_t pb) {
    if (pb % 8 == 0) {
        std::memcpy(dst + to * pb / 8, src + from * pb / 8, pb / 8);
        return;
    }
    for (size_t k = 0; k < pb; ++k) {
        const size_t s = from * pb + k, d = to * pb + k;
        const int bit = (src[s >> 3] >> (7 - (s & 7))) & 1;
        dst[d >> 3] = uint8_t((dst[d >> 3] & ~(0x80 >> (d & 7))) | (bit << (7 - (d & 7))));
    }
}

std::vector<RGBQUAD> greyRampOf(int bits) {
    const int n = 1 << bits;
    std::vector<RGBQUAD> p(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        const uint8_t v = uint8_t(i * 255 / (n - 1));
        p[size_t(i)] = RGBQUAD{v, v, v, 0};
    }
    return p;
}

int32_t bitmapBits(const Raster& r) {
    if (r.kind == Raster::Index || (r.kind == Raster::Grey && r.bits <= 8)) return r.bits;
    if (r.kind == Raster::Grey) return 16;
    return int32_t(r.channels()) * r.bits;
}

}  // namespace

bool Raster::greyRamp() const {
    if (kind != Index || bits > 8 || palette.size() != (size_t(1) << bits)) return false;
    const auto ramp = greyRampOf(bits);
    for (size_t i = 0; i < ramp.size(); ++i)
        if (palette[i].rgbRed != ramp[i].rgbRed || palette[i].rgbGreen != ramp[i].rgbRed ||
            palette[i].rgbBlue != ramp[i].rgbRed)
            return false;
    return true;
}

std::string Raster::describe() const {
    static const char* const names[] = {"palette", "grey", "RGB", "RGBA"};
    std::string s = std::string(names[kind]) + ", " + std::to_string(bits) + (bits == 1 ? " bit" : " bits");
    if (kind == Index) s += ", " + std::to_string(palette.size()) + " colours";
    return s;
}

const char* formatName(Format f) {
    switch (f) {
        case Format::Pnm: return "PNM";
        case Format::Png: return "PNG";
        case Format::Jpeg: return "JPEG";
        case Format::Tiff: return "TIFF";
        default: return "unknown";
    }
}

bool available(Format f) {
    switch (f) {
        case Format::Pnm: return true;
#if OMBRIX_HAVE_PNG
        case Format::Png: return true;
#endif
#if OMBRIX_HAVE_JPEG
        case Format::Jpeg: return true;
#endif
#if OMBRIX_HAVE_TIFF
        case Format::Tiff: return true;
#endif
        default: return false;
    }
}

Format formatOfPath(const std::string& path) {
    for (const char* e : {".pbm", ".pgm", ".ppm", ".pnm", ".pam"})
        if (endsWith(path, e)) return Format::Pnm;
    if (endsWith(path, ".png")) return Format::Png;
    if (endsWith(path, ".jpg") || endsWith(path, ".jpeg") || endsWith(path, ".jpe")) return Format::Jpeg;
    if (endsWith(path, ".tif") || endsWith(path, ".tiff")) return Format::Tiff;
    return Format::Unknown;
}

Format formatOfData(const uint8_t* d, size_t n) {
    if (n >= 2 && d[0] == 'P' && d[1] >= '1' && d[1] <= '7') return Format::Pnm;
    if (n >= 8 && std::memcmp(d, "\x89PNG\r\n\x1a\n", 8) == 0) return Format::Png;
    if (n >= 3 && d[0] == 0xFF && d[1] == 0xD8 && d[2] == 0xFF) return Format::Jpeg;
    if (n >= 4 && (std::memcmp(d, "II*\0", 4) == 0 || std::memcmp(d, "MM\0*", 4) == 0 ||
                   std::memcmp(d, "II+\0", 4) == 0 || std::memcmp(d, "MM\0+", 4) == 0))
        return Format::Tiff;
    return Format::Unknown;
}

std::string formatsText() {
    std::string s = "PNM/PAM (built in)";
#if OMBRIX_HAVE_PNG
    s += ", PNG (libpng " + codec::pngVersion() + ")";
#endif
#if OMBRIX_HAVE_JPEG
    s += ", JPEG (" + codec::jpegVersion() + ")";
#endif
#if OMBRIX_HAVE_TIFF
    s += ", TIFF (libtiff " + codec::tiffVersion() + ")";
#endif
    return s;
}

uint64_t setPixelLimit(uint64_t limit) {
    const uint64_t old = gPixelLimit;
    gPixelLimit = limit;
    return old;
}

void setJpegQuality(int quality) { gJpegQuality = quality; }

Result checkSize(uint64_t w, uint64_t h) {
    if (w == 0 || h == 0 || w > 0x7FFFFFFF || h > 0x7FFFFFFF) return fail(KS_FILE_READ, "bad dimensions");
    if (w * h > gPixelLimit)
        return fail(KS_FILE_READ, std::to_string(w) + "x" + std::to_string(h) + " is more pixels than the limit of " +
                                      std::to_string(gPixelLimit));
    return {};
}

void unpackRow(const uint8_t* src, int bits, size_t count, uint8_t* dst) {
    if (bits == 8) {
        std::memcpy(dst, src, count);
        return;
    }
    for (size_t i = 0; i < count; ++i) {
        unsigned v = 0;
        for (size_t k = i * size_t(bits), e = k + size_t(bits); k < e; ++k) v = v << 1 | ((src[k >> 3] >> (7 - (k & 7))) & 1u);
        dst[i] = uint8_t(v);
    }
}

void packRow(const uint8_t* src, int bits, size_t count, uint8_t* dst) {
    if (bits == 8) {
        std::memcpy(dst, src, count);
        return;
    }
    std::memset(dst, 0, (count * size_t(bits) + 7) / 8);
    for (size_t i = 0; i < count; ++i)
        for (int b = 0; b < bits; ++b) {
            const size_t k = i * size_t(bits) + size_t(b);
            if ((src[i] >> (bits - 1 - b)) & 1) dst[k >> 3] |= uint8_t(0x80 >> (k & 7));
        }
}

Raster widenIndices(const Raster& in, int bits) {
    Raster out = in;
    out.bits = bits;
    out.allocate();
    std::vector<uint8_t> tmp(size_t(in.width));
    for (int32_t y = 0; y < in.height; ++y) {
        unpackRow(in.row(y), in.bits, tmp.size(), tmp.data());
        packRow(tmp.data(), bits, tmp.size(), out.row(y));
    }
    return out;
}

Raster toEightBit(const Raster& in, bool keepGrey) {
    bool grey = in.kind == Raster::Grey;
    if (in.kind == Raster::Index) {
        grey = true;
        for (const RGBQUAD& e : in.palette) grey = grey && e.rgbRed == e.rgbGreen && e.rgbGreen == e.rgbBlue;
    }
    Raster out;
    out.kind = keepGrey && grey ? Raster::Grey : Raster::Rgb;
    out.width = in.width, out.height = in.height, out.bits = 8, out.orientation = in.orientation;
    out.allocate();
    const size_t w = size_t(in.width), ch = size_t(in.channels()), oc = size_t(out.channels());
    std::vector<uint8_t> idx(w);
    for (int32_t y = 0; y < in.height; ++y) {
        const uint8_t* s = in.row(y);
        uint8_t* d = out.row(y);
        if (in.kind == Raster::Index || (in.kind == Raster::Grey && in.bits <= 8)) {
            unpackRow(s, in.bits, w, idx.data());
            const unsigned maxv = (1u << in.bits) - 1;
            for (size_t x = 0; x < w; ++x) {
                uint8_t r, g, b;
                if (in.kind == Raster::Index) {
                    const RGBQUAD e = idx[x] < in.palette.size() ? in.palette[idx[x]] : RGBQUAD{0, 0, 0, 0};
                    r = e.rgbRed, g = e.rgbGreen, b = e.rgbBlue;
                } else {
                    r = g = b = uint8_t(idx[x] * 255u / maxv);
                }
                if (oc == 1) d[x] = r;
                else d[3 * x] = r, d[3 * x + 1] = g, d[3 * x + 2] = b;
            }
        } else {
            auto sample = [&](size_t i) -> uint8_t {
                if (in.bits == 8) return s[i];
                uint16_t v;
                std::memcpy(&v, s + 2 * i, 2);
                return uint8_t(v >> 8);
            };
            for (size_t x = 0; x < w; ++x) {
                if (ch == 1) {
                    const uint8_t v = sample(x);
                    if (oc == 1) d[x] = v;
                    else d[3 * x] = d[3 * x + 1] = d[3 * x + 2] = v;
                } else {
                    for (size_t c = 0; c < 3; ++c) d[3 * x + c] = sample(x * ch + c);
                }
            }
        }
    }
    return out;
}

// ---------------------------------------------------------------- codecs

Result decode(const uint8_t* data, size_t size, Raster& out, Format* format, int page) {
    const Format f = formatOfData(data, size);
    if (format) *format = f;
    if (f == Format::Unknown) return fail(KS_FILE_READ, "not a PNM, PAM, PNG, JPEG or TIFF file");
    if (!available(f)) return fail(KS_NOT_SUPPORTED, std::string(formatName(f)) + " support is not built in");
    if (page < 0 || (page > 0 && f != Format::Tiff))
        return fail(KS_FILE_READ, "the file has no image " + std::to_string(page + 1));
    Raster r;
    Result res;
    switch (f) {
        case Format::Pnm: res = codec::decodePnm(data, size, r); break;
#if OMBRIX_HAVE_PNG
        case Format::Png: res = codec::decodePng(data, size, r); break;
#endif
#if OMBRIX_HAVE_JPEG
        case Format::Jpeg: res = codec::decodeJpeg(data, size, r); break;
#endif
#if OMBRIX_HAVE_TIFF
        case Format::Tiff: res = codec::decodeTiff(data, size, r, page); break;
#endif
        default: return fail(KS_NOT_SUPPORTED, "format not built in");
    }
    if (res.ok()) out = std::move(r);
    return res;
}

Result encode(Format f, const Raster& in, std::vector<uint8_t>& out, const std::string& path) {
    if (f == Format::Unknown)
        return fail(KS_NOT_SUPPORTED, "unknown file extension of '" + path +
                                          "' (use .png, .jpg, .tif, .pbm, .pgm, .ppm, .pnm or .pam)");
    if (!available(f)) return fail(KS_NOT_SUPPORTED, std::string(formatName(f)) + " support is not built in");
    Result res;
    std::string note;
    out.clear();
    switch (f) {
        case Format::Pnm: res = codec::encodePnm(in, endsWith(path, ".pam"), out, note); break;
#if OMBRIX_HAVE_PNG
        case Format::Png: res = codec::encodePng(in, out, note); break;
#endif
#if OMBRIX_HAVE_JPEG
        case Format::Jpeg: res = codec::encodeJpeg(in, out, note, gJpegQuality); break;
#endif
#if OMBRIX_HAVE_TIFF
        case Format::Tiff: res = codec::encodeTiff(in, out, note); break;
#endif
        default: return fail(KS_NOT_SUPPORTED, "format not built in");
    }
    res.note = note;
    return res;
}

// ---------------------------------------------------------------- raster <-> bitmap

Result toBitmap(const Raster& in, BITMAPRECORD& out, uint32_t memoryType) {
    Result res = checkSize(uint64_t(in.width), uint64_t(in.height));
    if (!res.ok()) return res;
    if (in.pixels.size() < in.rowBytes() * size_t(in.height)) return fail(KS_INVALID_PARAMETER, "raster too small");
    const int32_t bpp = bitmapBits(in);
    const bool colour = in.kind == Raster::Rgb || in.kind == Raster::Rgba;
    const int32_t order = colour ? ORDER_BGR : in.kind == Raster::Grey ? ORDER_GRAY : ORDER_RGB;
    std::vector<RGBQUAD> pal;
    if (in.kind == Raster::Index) {
        pal = in.palette;
        pal.resize(size_t(1) << in.bits, RGBQUAD{0, 0, 0, 0});
    }
    BITMAPRECORD bm;
    int32_t rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, memoryType ? memoryType : K_GetDefaultMemoryType(), in.width,
                                in.height, bpp, order, pal.empty() ? nullptr : pal.data(),
                                in.orientation >= 1 && in.orientation <= 8 ? in.orientation : TOP_LEFT, nullptr, 0);
    if (rc != KS_SUCCESS) return fail(rc, "cannot create a " + std::to_string(in.width) + "x" +
                                              std::to_string(in.height) + " bitmap of " + std::to_string(bpp) + " bits");
    const size_t rb = in.rowBytes();
    std::vector<uint8_t> buf(rb);
    for (int32_t y = 0; y < in.height && rc >= 0; ++y) {
        std::memcpy(buf.data(), in.row(y), rb);
        if (colour) rc = K_ConvertBuffer(buf.data(), in.width, bpp, bpp, ORDER_RGB, ORDER_BGR, nullptr, nullptr);
        if (rc >= 0) rc = K_PutBitmapRow(&bm, buf.data(), y, uint32_t(rb));
    }
    if (rc < 0) {
        K_FreeBitmap(&bm);
        return fail(rc, "cannot fill the bitmap");
    }
    out = bm;
    return {};
}

Result fromBitmap(const BITMAPRECORD& in, Raster& out) {
    BITMAPRECORD* bm = const_cast<BITMAPRECORD*>(&in);
    if (!(in.uFlags & BRF_ALLOCATED)) return fail(KS_INVALID_BITMAP, "bitmap not allocated");
    const int32_t W = in.nWidth, H = in.nHeight, bpp = in.nBitsPerPixel;
    Raster st;
    st.width = W, st.height = H;
    int32_t srcBits = bpp, dstBits = bpp, dstOrder = ORDER_RGB;  // converter step, if any
    bool convert = false;
    if (bpp >= 1 && bpp <= 8) {
        st.palette.resize(size_t(1) << bpp);
        const int32_t n = K_GetBitmapColors(&in, 0, int32_t(st.palette.size()), st.palette.data());
        if (n < 0) return fail(n, "cannot read the palette");
        st.palette.resize(size_t(n));
        st.kind = Raster::Index;
        st.bits = (bpp == 1 || bpp == 2 || bpp == 4 || bpp == 8) ? bpp : 8;
        if (st.bits == bpp && st.greyRamp()) st.kind = Raster::Grey, st.palette.clear();
    } else if (bpp == 12 || (bpp == 16 && in.nOrder == ORDER_GRAY) || (bpp == 32 && in.nOrder == ORDER_GRAY)) {
        st.kind = Raster::Grey, st.bits = 16, dstBits = 16, dstOrder = ORDER_GRAY, convert = bpp != 16;
    } else if (bpp == 16) {
        st.kind = Raster::Rgb, st.bits = 8, dstBits = 24, convert = true;
    } else if (bpp == 24 || bpp == 32 || bpp == 48 || bpp == 64) {
        st.kind = bpp == 32 || bpp == 64 ? Raster::Rgba : Raster::Rgb;
        st.bits = bpp >= 48 ? 16 : 8;
        convert = true;  // to ORDER_RGB (from BGR, or the wide primaries)
    } else {
        return fail(KS_UNSUPPORTED_CONVERSION, "a bitmap of " + std::to_string(bpp) + " bits");
    }
    const size_t storedBytes = (size_t(W) * size_t(bpp) + 7) / 8;
    st.allocate();
    std::vector<uint8_t> buf(std::max<size_t>(K_CalcConvertSize(W, srcBits, W, dstBits), storedBytes) + 16);
    for (int32_t y = 0; y < H; ++y) {
        int32_t rc = K_GetBitmapRow(bm, buf.data(), y, uint32_t(storedBytes));
        if (rc < 0) return fail(rc, "cannot read row " + std::to_string(y));
        if (convert) {
            rc = K_ConvertBuffer(buf.data(), W, srcBits, dstBits, in.nOrder, dstOrder, nullptr, nullptr);
            if (rc < 0) return fail(KS_UNSUPPORTED_CONVERSION, "the converter cannot expand this bitmap");
        }
        if (st.kind == Raster::Index && st.bits != bpp) unpackRow(buf.data(), bpp, size_t(W), st.row(y));
        else std::memcpy(st.row(y), buf.data(), st.rowBytes());
    }
    const int vp = in.nViewPerspective;
    if (vp <= TOP_LEFT || vp > LEFT_BOTTOM) {
        out = std::move(st);
        out.orientation = TOP_LEFT;
        return {};
    }
    Raster v = st;
    const bool transposed = vp >= LEFT_TOP;
    v.width = transposed ? H : W, v.height = transposed ? W : H;
    v.allocate();
    const size_t pb = size_t(st.channels()) * size_t(st.bits);
    for (int32_t y = 0; y < v.height; ++y)
        for (int32_t x = 0; x < v.width; ++x) {
            int32_t r, c;
            storedPos(vp, W, H, x, y, r, c);
            copyPixel(st.row(r), size_t(c), v.row(y), size_t(x), pb);
        }
    v.orientation = TOP_LEFT;
    out = std::move(v);
    return {};
}

// ---------------------------------------------------------------- files

int32_t readRaster(const std::string& path, Raster& out, std::string* error, Format* format, int page) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        if (error) *error = "cannot open " + path + ": " + std::strerror(errno);
        return errno == ENOENT ? KS_FILE_NOT_FOUND : KS_FILE_OPEN;
    }
    std::vector<uint8_t> data;
    uint8_t chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) data.insert(data.end(), chunk, chunk + got);
    const bool readError = std::ferror(f) != 0;
    std::fclose(f);
    if (readError) {
        if (error) *error = "error reading " + path;
        return KS_FILE_READ;
    }
    const Result res = decode(data.data(), data.size(), out, format, page);
    if (!res.ok() && error) *error = res.error;
    return res.status;
}

int32_t read(const std::string& path, BITMAPRECORD& bm, std::string* error, Format* format, int page) {
    Raster r;
    const int32_t rc = readRaster(path, r, error, format, page);
    if (rc != KS_SUCCESS) return rc;
    const Result res = toBitmap(r, bm);
    if (!res.ok() && error) *error = res.error;
    return res.status;
}

int32_t write(const std::string& path, const BITMAPRECORD& bm, std::string* error, std::string* note) {
    Raster r;
    std::vector<uint8_t> data;
    Result res = fromBitmap(bm, r);
    if (res.ok()) res = encode(formatOfPath(path), r, data, path);
    if (!res.ok()) {
        if (error) *error = res.error;
        return res.status;
    }
    if (note) *note = res.note;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) {
        if (error) *error = "cannot create " + path + ": " + std::strerror(errno);
        return KS_FILE_OPEN;
    }
    bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
    if (std::fclose(f) != 0) ok = false;
    if (!ok) {
        if (error) *error = "error writing " + path;
        return KS_FILE_WRITE;
    }
    return KS_SUCCESS;
}

int32_t toBgr24(const BITMAPRECORD& src, BITMAPRECORD& dst) {
    Raster r;
    Result res = fromBitmap(src, r);
    if (!res.ok()) return res.status;
    res = toBitmap(toEightBit(r, false), dst, MEMTYPE_CONVENTIONAL);
    return res.status;
}

}  // namespace image
