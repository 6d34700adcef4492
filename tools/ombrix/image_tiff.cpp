// image_tiff.cpp - TIFF files <-> rasters through libtiff (first image only).
//
// Reading: strip images with contiguous samples keep their depth - palette
// 1/2/4/8 bits, grey (min-is-black or min-is-white) 1/2/4/8/16, RGB and RGB
// with one extra sample (alpha) at 8 or 16 bits; further extra samples are
// dropped. Everything else (tiles, separate planes, YCbCr, CMYK, odd depths)
// goes through libtiff's RGBA reader and gives 8-bit RGBA, or RGB when the
// file has no alpha. The Orientation tag becomes the bitmap's view perspective.
// Writing: the raster as it is (palettes of 3, 5, 6, 7 bits widen to 4 or 8),
// deflate-compressed, one strip per 64 KiB or so, with unassociated alpha.
#if OMBRIX_HAVE_TIFF
#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "image.h"

namespace image {
namespace {

thread_local std::string gTiffError;

void onError(const char* module, const char* fmt, va_list ap) {
    char buf[300];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    if (gTiffError.empty()) gTiffError = std::string(module ? module : "TIFF") + ": " + buf;
}
void onWarning(const char*, const char*, va_list) {}

struct Memory {
    std::vector<uint8_t>* out = nullptr;  // writing
    const uint8_t* data = nullptr;        // reading
    size_t size = 0, pos = 0;
};

tmsize_t memRead(thandle_t h, void* buf, tmsize_t n) {
    auto* m = static_cast<Memory*>(h);
    if (n < 0) return -1;
    const size_t k = std::min(size_t(n), m->pos < m->size ? m->size - m->pos : 0);
    std::memcpy(buf, m->data + m->pos, k);
    m->pos += k;
    return tmsize_t(k);
}
tmsize_t memWrite(thandle_t h, void* buf, tmsize_t n) {
    auto* m = static_cast<Memory*>(h);
    if (!m->out || n < 0) return -1;
    if (m->pos + size_t(n) > m->out->size()) m->out->resize(m->pos + size_t(n));
    std::memcpy(m->out->data() + m->pos, buf, size_t(n));
    m->pos += size_t(n);
    m->size = m->out->size();
    return n;
}
toff_t memSeek(thandle_t h, toff_t off, int whence) {
    auto* m = static_cast<Memory*>(h);
    const uint64_t base = whence == SEEK_CUR ? m->pos : whence == SEEK_END ? m->size : 0;
    const uint64_t to = base + off;
    if (to > (uint64_t(1) << 40)) return toff_t(-1);
    m->pos = size_t(to);
    return to;
}
int memClose(thandle_t) { return 0; }
toff_t memSize(thandle_t h) { return static_cast<Memory*>(h)->size; }
int memMap(thandle_t, void**, toff_t*) { return 0; }
void memUnmap(thandle_t, void*, toff_t) {}

TIFF* openMemory(Memory& m, const char* mode) {
    TIFFSetErrorHandler(onError);
    TIFFSetWarningHandler(onWarning);
    gTiffError.clear();
    // A hostile file cannot make libtiff allocate more than 1 GiB at once.
    TIFFOpenOptions* opts = TIFFOpenOptionsAlloc();
    if (opts) TIFFOpenOptionsSetMaxSingleMemAlloc(opts, tmsize_t(1) << 30);
    TIFF* t = TIFFClientOpenExt("memory", mode, &m, memRead, memWrite, memSeek, memClose, memSize, memMap, memUnmap,
                                opts);
    if (opts) TIFFOpenOptionsFree(opts);
    return t;
}

std::string why(const char* fallback) { return "TIFF: " + (gTiffError.empty() ? std::string(fallback) : gTiffError); }

}  // namespace

namespace codec {

std::string tiffVersion() {
    std::string v = TIFFGetVersion();
    const size_t nl = v.find('\n');
    if (nl != std::string::npos) v.resize(nl);
    const size_t at = v.find("Version ");
    return at != std::string::npos ? v.substr(at + 8) : v;
}

Result decodeTiff(const uint8_t* data, size_t size, Raster& out, int page) {
    Memory m;
    m.data = data, m.size = size;
    TIFF* tif = openMemory(m, "rm");
    if (!tif) return fail(KS_FILE_READ, why("not a readable TIFF file"));
    struct Close {
        TIFF* t;
        ~Close() { TIFFClose(t); }
    } closer{tif};
    const int images = int(TIFFNumberOfDirectories(tif));
    if (page < 0 || page >= images || (page > 0 && !TIFFSetDirectory(tif, tdir_t(page))))
        return fail(KS_FILE_READ, "TIFF: the file has no image " + std::to_string(page + 1));
    uint32_t w = 0, h = 0;
    uint16_t bps = 1, spp = 1, photometric = 0, planar = PLANARCONFIG_CONTIG, orientation = ORIENTATION_TOPLEFT;
    uint16_t extraCount = 0;
    uint16_t* extraKinds = nullptr;
    if (!TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w) || !TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h))
        return fail(KS_FILE_READ, why("no image size"));
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bps);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(tif, TIFFTAG_ORIENTATION, &orientation);
    TIFFGetFieldDefaulted(tif, TIFFTAG_EXTRASAMPLES, &extraCount, &extraKinds);
    const bool hasPhotometric = TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric) != 0;
    Result res = checkSize(w, h);
    if (!res.ok()) return res;

    Raster r;
    r.images = images;
    r.width = int32_t(w), r.height = int32_t(h);
    r.orientation = orientation >= 1 && orientation <= 8 ? orientation : TOP_LEFT;
    const bool pow2 = bps == 1 || bps == 2 || bps == 4 || bps == 8;
    bool direct = hasPhotometric && !TIFFIsTiled(tif) && (planar == PLANARCONFIG_CONTIG || spp == 1);
    uint16_t* cmap[3] = {nullptr, nullptr, nullptr};
    bool invert = false;
    if (direct) {
        if (photometric == PHOTOMETRIC_PALETTE && spp == 1 && pow2 &&
            TIFFGetField(tif, TIFFTAG_COLORMAP, &cmap[0], &cmap[1], &cmap[2])) {
            r.kind = Raster::Index;
        } else if ((photometric == PHOTOMETRIC_MINISBLACK || photometric == PHOTOMETRIC_MINISWHITE) && spp >= 1 &&
                   (pow2 || bps == 16)) {
            r.kind = Raster::Grey;
            invert = photometric == PHOTOMETRIC_MINISWHITE;
        } else if (photometric == PHOTOMETRIC_RGB && spp >= 3 && (bps == 8 || bps == 16)) {
            r.kind = spp >= 4 && extraCount >= 1 ? Raster::Rgba : Raster::Rgb;
        } else {
            direct = false;
        }
    }
    if (direct) {
        r.bits = bps;
        if (r.kind == Raster::Index)
            for (int i = 0; i < (1 << bps); ++i)
                r.palette.push_back(RGBQUAD{uint8_t(cmap[2][i] >> 8), uint8_t(cmap[1][i] >> 8), uint8_t(cmap[0][i] >> 8), 0});
        const size_t fileRow = (size_t(w) * spp * bps + 7) / 8;
        if (size_t(TIFFScanlineSize64(tif)) != fileRow) return fail(KS_FILE_READ, why("unexpected row size"));
        r.allocate();
        std::vector<uint8_t> line(fileRow);
        const size_t used = size_t(r.channels()), sb = bps / 8;
        for (uint32_t y = 0; y < h; ++y) {
            if (TIFFReadScanline(tif, line.data(), y, 0) < 0) return fail(KS_FILE_READ, why("cannot read a row"));
            uint8_t* d = r.row(int32_t(y));
            if (spp == used) {
                std::memcpy(d, line.data(), r.rowBytes());
            } else {  // drop the extra samples
                for (size_t x = 0; x < w; ++x) std::memcpy(d + x * used * sb, line.data() + x * spp * sb, used * sb);
            }
            if (invert) {  // every bit flipped: v -> maximum - v at every depth
                for (size_t i = 0; i < r.rowBytes(); ++i) d[i] = uint8_t(~d[i]);
                if (bps < 8 && (size_t(w) * bps) % 8)
                    d[r.rowBytes() - 1] &= uint8_t(0xFF00 >> ((size_t(w) * bps) % 8));
            }
        }
    } else {
        // libtiff's general reader: any photometric, tiles, planes; 8-bit RGBA.
        std::vector<uint32_t> rgba(size_t(w) * h);
        if (!TIFFReadRGBAImageOriented(tif, w, h, rgba.data(), ORIENTATION_TOPLEFT, 0))
            return fail(KS_FILE_READ, why("cannot decode this TIFF"));
        r.orientation = TOP_LEFT;
        r.kind = extraCount > 0 ? Raster::Rgba : Raster::Rgb;
        r.bits = 8;
        r.allocate();
        const size_t ch = size_t(r.channels());
        for (uint32_t y = 0; y < h; ++y) {
            uint8_t* d = r.row(int32_t(y));
            for (uint32_t x = 0; x < w; ++x) {
                const uint32_t p = rgba[size_t(y) * w + x];
                d[x * ch] = uint8_t(TIFFGetR(p)), d[x * ch + 1] = uint8_t(TIFFGetG(p)), d[x * ch + 2] = uint8_t(TIFFGetB(p));
                if (ch == 4) d[x * ch + 3] = uint8_t(TIFFGetA(p));
            }
        }
    }
    out = std::move(r);
    return {};
}

Result encodeTiff(const Raster& input, std::vector<uint8_t>& out, std::string&) {
    const Raster* in = &input;
    Raster wide;
    if (input.kind == Raster::Index && input.bits != 1 && input.bits != 2 && input.bits != 4 && input.bits != 8) {
        wide = widenIndices(input, input.bits < 4 ? 4 : 8);
        in = &wide;
    }
    out.clear();
    Memory m;
    m.out = &out;
    TIFF* tif = openMemory(m, "w");
    if (!tif) return fail(KS_FILE_WRITE, why("cannot start a TIFF file"));
    const uint16_t spp = uint16_t(in->channels());
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, uint32_t(in->width));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, uint32_t(in->height));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, uint16_t(in->bits));
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, spp);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    const uint16_t photometric = in->kind == Raster::Index  ? PHOTOMETRIC_PALETTE
                                 : in->kind == Raster::Grey ? PHOTOMETRIC_MINISBLACK
                                                            : PHOTOMETRIC_RGB;
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, photometric);
    if (in->kind == Raster::Rgba) {
        uint16_t kind = EXTRASAMPLE_UNASSALPHA;
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, uint16_t(1), &kind);
    }
    std::vector<uint16_t> map(3 * (size_t(1) << in->bits), 0);
    if (in->kind == Raster::Index) {
        const size_t n = size_t(1) << in->bits;
        for (size_t i = 0; i < n && i < in->palette.size(); ++i) {
            map[i] = uint16_t(in->palette[i].rgbRed * 257u);
            map[n + i] = uint16_t(in->palette[i].rgbGreen * 257u);
            map[2 * n + i] = uint16_t(in->palette[i].rgbBlue * 257u);
        }
        TIFFSetField(tif, TIFFTAG_COLORMAP, map.data(), map.data() + n, map.data() + 2 * n);
    }
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif, 0));
    bool ok = true;
    std::vector<uint8_t> line(in->rowBytes());
    for (int32_t y = 0; y < in->height && ok; ++y) {
        std::memcpy(line.data(), in->row(y), line.size());  // libtiff may change the buffer
        ok = TIFFWriteScanline(tif, line.data(), uint32_t(y), 0) >= 0;
    }
    if (ok) ok = TIFFWriteDirectory(tif) != 0;
    TIFFClose(tif);
    if (!ok) return fail(KS_FILE_WRITE, why("write error"));
    return {};
}

}  // namespace codec
}  // namespace image
#endif
