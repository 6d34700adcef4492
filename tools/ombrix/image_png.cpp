// image_png.cpp - PNG files <-> rasters through libpng (when built with it).
//
// Reading: palette 1/2/4/8 bits, grey 1/2/4/8/16, RGB and RGBA 8/16 keep
// their depth; grey with alpha drops the alpha; tRNS transparency is
// ignored; interlaced files are read whole.
// Writing: palettes of 3, 5, 6, 7 bits widen to 4 or 8 bits; everything else
// is written as it is.
#if OMBRIX_HAVE_PNG
#include <png.h>

#include <csetjmp>
#include <cstring>

#include "image.h"

namespace image {
namespace {

struct ReadState {
    const uint8_t* data;
    size_t size, pos;
    char message[200];
};
struct WriteState {
    std::vector<uint8_t>* out;
    char message[200];
};

void onError(png_structp png, png_const_charp msg) {
    char* dst = static_cast<char*>(png_get_error_ptr(png));
    std::snprintf(dst, 200, "%s", msg);
    png_longjmp(png, 1);
}
void onWarning(png_structp, png_const_charp) {}

void readData(png_structp png, png_bytep out, png_size_t n) {
    auto* s = static_cast<ReadState*>(png_get_io_ptr(png));
    if (n > s->size - s->pos) png_error(png, "truncated file");
    std::memcpy(out, s->data + s->pos, n);
    s->pos += n;
}
void writeData(png_structp png, png_bytep in, png_size_t n) {
    auto* s = static_cast<WriteState*>(png_get_io_ptr(png));
    s->out->insert(s->out->end(), in, in + n);
}
void flushData(png_structp) {}

}  // namespace

namespace codec {

std::string pngVersion() { return PNG_LIBPNG_VER_STRING; }

Result decodePng(const uint8_t* data, size_t size, Raster& out) {
    ReadState st{data, size, 0, "malformed PNG file"};
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, st.message, onError, onWarning);
    if (!png) return fail(KS_NO_MEMORY, "out of memory");
    png_infop info = png_create_info_struct(png);
    // Everything setjmp may come back to lives outside this frame's registers.
    struct Job {
        Raster r;
        std::vector<png_bytep> rows;
        Result res;
    };
    Job* const job = new Job;
    Raster* const r = &job->r;
    if (setjmp(png_jmpbuf(png))) {
        job->res = fail(KS_FILE_READ, std::string("PNG: ") + st.message);
    } else {
        if (!info) png_error(png, "out of memory");
        png_set_read_fn(png, &st, readData);
        png_set_user_limits(png, 0x7FFFFFFF, 0x7FFFFFFF);
        png_set_chunk_malloc_max(png, 64u << 20);
        png_read_info(png, info);
        png_uint_32 w, h;
        int depth, type, interlace;
        png_get_IHDR(png, info, &w, &h, &depth, &type, &interlace, nullptr, nullptr);
        job->res = checkSize(w, h);
        if (job->res.ok()) {
            // Transparency is kept as alpha: a transparency chunk (palette alphas or a colour key) and grey
            // with alpha make the picture RGBA, the one bitmap format with an alpha channel.
            const bool keyed = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
            if (keyed) png_set_tRNS_to_alpha(png);
            if (keyed || type == PNG_COLOR_TYPE_GRAY_ALPHA) {
                if (type == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
                if (!(type & PNG_COLOR_MASK_COLOR)) png_set_gray_to_rgb(png);
            }
            if (depth == 16) png_set_swap(png);
            png_set_interlace_handling(png);
            png_read_update_info(png, info);
            type = png_get_color_type(png, info);
            depth = png_get_bit_depth(png, info);
            r->width = int32_t(w), r->height = int32_t(h), r->bits = depth;
            r->kind = type == PNG_COLOR_TYPE_PALETTE ? Raster::Index
                      : type == PNG_COLOR_TYPE_RGB   ? Raster::Rgb
                      : type == PNG_COLOR_TYPE_RGB_ALPHA ? Raster::Rgba
                                                         : Raster::Grey;
            if (r->kind == Raster::Index) {
                png_colorp pal = nullptr;
                int n = 0;
                if (!png_get_PLTE(png, info, &pal, &n)) png_error(png, "palette image without a palette");
                for (int i = 0; i < n && i < (1 << depth); ++i)
                    r->palette.push_back(RGBQUAD{pal[i].blue, pal[i].green, pal[i].red, 0});
            }
            if (png_get_rowbytes(png, info) != r->rowBytes()) png_error(png, "unexpected row size");
            r->allocate();
            job->rows.resize(h);
            for (png_uint_32 y = 0; y < h; ++y) job->rows[y] = r->row(int32_t(y));
            png_read_image(png, job->rows.data());
            png_read_end(png, nullptr);
            out = std::move(*r);
        }
    }
    png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
    const Result res = job->res;
    delete job;
    return res;
}

namespace {

struct WriteJob {
    const Raster* in;
    WriteState st;
    std::vector<png_color> pal;
    Result res;
};

// Everything the error jump may come back to lives in the job.
void writePng(WriteJob* const job) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, job->st.message, onError, onWarning);
    if (!png) {
        job->res = fail(KS_NO_MEMORY, "out of memory");
        return;
    }
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        job->res = fail(KS_FILE_WRITE, std::string("PNG: ") + job->st.message);
    } else {
        if (!info) png_error(png, "out of memory");
        const Raster* in = job->in;
        png_set_write_fn(png, &job->st, writeData, flushData);
        const int type = in->kind == Raster::Index ? PNG_COLOR_TYPE_PALETTE
                         : in->kind == Raster::Grey ? PNG_COLOR_TYPE_GRAY
                         : in->kind == Raster::Rgb  ? PNG_COLOR_TYPE_RGB
                                                    : PNG_COLOR_TYPE_RGB_ALPHA;
        png_set_IHDR(png, info, png_uint_32(in->width), png_uint_32(in->height), in->bits, type, PNG_INTERLACE_NONE,
                     PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        if (in->kind == Raster::Index) {
            for (const RGBQUAD& e : in->palette) job->pal.push_back(png_color{e.rgbRed, e.rgbGreen, e.rgbBlue});
            if (job->pal.empty()) job->pal.push_back(png_color{0, 0, 0});
            png_set_PLTE(png, info, job->pal.data(), int(job->pal.size()));
        }
        png_write_info(png, info);
        if (in->bits == 16) png_set_swap(png);
        for (int32_t y = 0; y < in->height; ++y) png_write_row(png, const_cast<png_bytep>(in->row(y)));
        png_write_end(png, nullptr);
    }
    png_destroy_write_struct(&png, info ? &info : nullptr);
}

}  // namespace

Result encodePng(const Raster& input, std::vector<uint8_t>& out, std::string&) {
    Raster wide;
    const bool widen =
        input.kind == Raster::Index && input.bits != 1 && input.bits != 2 && input.bits != 4 && input.bits != 8;
    if (widen) wide = widenIndices(input, input.bits < 4 ? 4 : 8);
    WriteJob* job = new WriteJob{widen ? &wide : &input, WriteState{&out, "PNG write error"}, {}, {}};
    writePng(job);
    const Result res = job->res;
    delete job;
    return res;
}

}  // namespace codec
}  // namespace image
#endif
