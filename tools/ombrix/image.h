// image.h - picture files in and out of the ombrix tool.
//
// Every file format goes through one plain in-memory picture, the Raster,
// which holds the samples as the file formats think of them (grey, palette
// indices, RGB or RGBA at 1 to 16 bits per sample, top row first). Bitmaps
// and rasters convert both ways without losing a sample:
//
//   raster                         bitmap
//   palette, 1/2/4/8 bits          same depth, its palette
//   grey, 1/2/4/8 bits             same depth, ORDER_GRAY (grey ramp palette)
//   grey, 16 bits                  16 bits, ORDER_GRAY
//   RGB / RGBA, 8 bits             24 / 32 bits, ORDER_BGR
//   RGB / RGBA, 16 bits            48 / 64 bits, ORDER_BGR
//
// Bitmaps of other formats (3, 5, 6, 7 bits; 12-bit grey; 5-5-5 and 5-6-5;
// the wide primaries) become the nearest raster that keeps every sample:
// palette indices, 16-bit grey, 8-bit RGB, or 8/16-bit RGB after the
// converter's own conversion to ordinary primaries.
//
// Formats: PNM/PAM always; PNG, JPEG and TIFF when the tool was built with
// libpng, libjpeg(-turbo) and libtiff. Reading recognises the format from the
// file's first bytes; writing picks it from the extension of the path
// (.pbm .pgm .ppm .pnm .pam .png .jpg .jpeg .tif .tiff). Each encoder keeps
// the raster's depth where its format can hold it and says otherwise in the
// `note` of the result (JPEG: 8-bit grey or 24-bit colour only).
//
// Results are kernel status codes: 1 success; -10 file not found, -14
// cannot open, -7 truncated or malformed file, -5 write error, -16 format not
// built in or a file kind not supported, -794 a bitmap format the chosen file
// format cannot take, or what the kernel returned. Every failure comes with a
// short reason in `error`.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ombrix.h"

namespace image {

struct Raster {
    enum Kind { Index, Grey, Rgb, Rgba };
    Kind kind = Rgb;
    int32_t width = 0, height = 0;
    int bits = 8;                  // per sample: 1, 2, 4, 8 (Index, Grey) or 8, 16
    std::vector<RGBQUAD> palette;  // Index only; at most 2^bits entries
    int orientation = TOP_LEFT;    // view perspective the file asks for
    int images = 1;                // how many images the file holds (TIFF pages; 1 for the other formats)
    // Rows top first, rowBytes() each; samples below 8 bits packed most
    // significant bit first; 16-bit samples in native (little-endian) order.
    std::vector<uint8_t> pixels;

    int channels() const { return kind == Rgb ? 3 : kind == Rgba ? 4 : 1; }
    size_t rowBytes() const { return (size_t(width) * size_t(channels()) * size_t(bits) + 7) / 8; }
    uint8_t* row(int32_t y) { return pixels.data() + size_t(y) * rowBytes(); }
    const uint8_t* row(int32_t y) const { return pixels.data() + size_t(y) * rowBytes(); }
    // Allocates the pixels (zeroed) for the current kind, size and depth.
    void allocate() { pixels.assign(rowBytes() * size_t(height), 0); }
    // True when the palette is the full grey ramp of its depth (entry i = i * 255 / (2^bits - 1)).
    bool greyRamp() const;
    std::string describe() const;  // "palette, 4 bits, 16 colours", "RGB, 16 bits", ...
};

// A decoded or encoded file: status, reason and a note on what was changed.
struct Result {
    int32_t status = KS_SUCCESS;
    std::string error;  // set on failure
    std::string note;   // set when an encoder had to reduce the picture
    bool ok() const { return status == KS_SUCCESS; }
};
inline Result fail(int32_t status, std::string why) { return Result{status, std::move(why), {}}; }

enum class Format { Unknown, Pnm, Png, Jpeg, Tiff };
const char* formatName(Format f);
bool available(Format f);                 // built in?
Format formatOfPath(const std::string& path);  // by extension
Format formatOfData(const uint8_t* data, size_t size);  // by magic bytes
std::string formatsText();                // "PNM/PAM, PNG (libpng 1.6.39), ..."

// Decoders refuse pictures of more pixels than this (default 2^30; the fuzz
// target lowers it). Returns the previous limit.
uint64_t setPixelLimit(uint64_t limit);
// Fails (-7) when width x height is empty or beyond the limit.
Result checkSize(uint64_t width, uint64_t height);

// Whole files in memory.
// `page` picks an image of a file that holds several (TIFF; the others hold one): 0 is the first.
Result decode(const uint8_t* data, size_t size, Raster& out, Format* format = nullptr, int page = 0);
Result encode(Format format, const Raster& in, std::vector<uint8_t>& out, const std::string& path = {});

// Raster <-> bitmap. toBitmap makes a new bitmap with the kernel's default
// memory type (so a large picture may live in tiles or temporary files) and
// fills it row by row; fromBitmap reads any storage kind, in its viewed
// orientation.
Result toBitmap(const Raster& in, BITMAPRECORD& out, uint32_t memoryType = 0);
Result fromBitmap(const BITMAPRECORD& in, Raster& out);

// Files. On success `bm` holds a new bitmap the caller frees with
// K_FreeBitmap; on failure it is left as it was.
int32_t read(const std::string& path, BITMAPRECORD& bm, std::string* error = nullptr, Format* format = nullptr,
             int page = 0);
int32_t readRaster(const std::string& path, Raster& out, std::string* error = nullptr, Format* format = nullptr,
                   int page = 0);
int32_t write(const std::string& path, const BITMAPRECORD& bm, std::string* error = nullptr,
              std::string* note = nullptr);

// Expands any bitmap into a new 24-bit ORDER_BGR bitmap in one conventional
// block, TOP_LEFT (for tools that want one working format).
int32_t toBgr24(const BITMAPRECORD& src, BITMAPRECORD& dst);

// Codec entry points (image_png.cpp, image_jpeg.cpp, image_tiff.cpp, pnm.cpp).
namespace codec {
Result decodePnm(const uint8_t* data, size_t size, Raster& out);
Result encodePnm(const Raster& in, bool pam, std::vector<uint8_t>& out, std::string& note);
Result decodePng(const uint8_t* data, size_t size, Raster& out);
Result encodePng(const Raster& in, std::vector<uint8_t>& out, std::string& note);
Result decodeJpeg(const uint8_t* data, size_t size, Raster& out);
Result encodeJpeg(const Raster& in, std::vector<uint8_t>& out, std::string& note, int quality);
Result decodeTiff(const uint8_t* data, size_t size, Raster& out, int page = 0);
Result encodeTiff(const Raster& in, std::vector<uint8_t>& out, std::string& note);
std::string pngVersion();
std::string jpegVersion();
std::string tiffVersion();
}  // namespace codec

// JPEG quality for encode (1..100, default 92).
void setJpegQuality(int quality);

// Helpers shared by the codecs.
// Palette indices or grey samples of `bits` per sample widened to one byte each.
void unpackRow(const uint8_t* src, int bits, size_t count, uint8_t* dst);
// The reverse: one byte per sample packed to `bits` per sample.
void packRow(const uint8_t* src, int bits, size_t count, uint8_t* dst);
// A copy of `in` as 8-bit RGB (alpha dropped) or, for grey content, 8-bit grey.
Raster toEightBit(const Raster& in, bool keepGrey);
// A copy of `in` with palette indices of `bits` (>= in.bits) per sample.
Raster widenIndices(const Raster& in, int bits);

}  // namespace image
