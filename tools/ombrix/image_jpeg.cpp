// image_jpeg.cpp - JPEG files <-> rasters through libjpeg(-turbo).
//
// Reading: grey files give 8-bit grey; YCbCr and RGB files give 8-bit RGB as
// libjpeg decodes them; CMYK and YCCK files are turned into RGB (Adobe's
// inverted CMYK, as Photoshop writes it).
// Writing: 8-bit grey stays grey; everything else becomes 8-bit RGB (palettes
// expanded, 16-bit samples cut to their top 8 bits, alpha dropped) with a
// note, since JPEG holds only those two. Quality 92 unless set.
#if OMBRIX_HAVE_JPEG
#include <cstdio>  // jpeglib.h needs FILE and size_t first
#include <csetjmp>
#include <cstdlib>
#include <cstring>

#include <jpeglib.h>
#include <jerror.h>

#include "image.h"

namespace image {
namespace {

struct ErrorManager {
    jpeg_error_mgr pub;
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
    bool truncated;
};

void onError(j_common_ptr cinfo) {
    auto* err = reinterpret_cast<ErrorManager*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    std::longjmp(err->jump, 1);
}
// Warnings are ignored except the end of data: a truncated file is an error,
// not a picture whose missing part libjpeg would paint grey.
void onMessage(j_common_ptr cinfo, int level) {
    if (level < 0 && cinfo->err->msg_code == JWRN_JPEG_EOF) reinterpret_cast<ErrorManager*>(cinfo->err)->truncated = true;
}

}  // namespace

namespace codec {

std::string jpegVersion() {
#ifdef LIBJPEG_TURBO_VERSION
#define OMBRIX_STR2(x) #x
#define OMBRIX_STR(x) OMBRIX_STR2(x)
    return "libjpeg-turbo " OMBRIX_STR(LIBJPEG_TURBO_VERSION) ", API " + std::to_string(JPEG_LIB_VERSION);
#else
    return "libjpeg " + std::to_string(JPEG_LIB_VERSION);
#endif
}

Result decodeJpeg(const uint8_t* data, size_t size, Raster& out) {
    struct Job {
        jpeg_decompress_struct cinfo;
        ErrorManager err;
        Raster r;
        std::vector<uint8_t> cmyk;
        Result res;
    };
    Job* const job = new Job;
    jpeg_decompress_struct* const c = &job->cinfo;
    c->err = jpeg_std_error(&job->err.pub);
    job->err.pub.error_exit = onError;
    job->err.pub.emit_message = onMessage;
    job->err.truncated = false;
    if (setjmp(job->err.jump)) {
        job->res = fail(KS_FILE_READ, std::string("JPEG: ") + job->err.message);
    } else {
        jpeg_create_decompress(c);
        // Progressive files keep every coefficient in memory: bound it.
        c->mem->max_memory_to_use = 512L << 20;
        jpeg_mem_src(c, data, static_cast<unsigned long>(size));
        jpeg_read_header(c, TRUE);
        job->res = checkSize(c->image_width, c->image_height);
        if (job->res.ok()) {
            const bool cmyk = c->jpeg_color_space == JCS_CMYK || c->jpeg_color_space == JCS_YCCK;
            c->out_color_space = c->num_components == 1 ? JCS_GRAYSCALE : cmyk ? JCS_CMYK : JCS_RGB;
            jpeg_start_decompress(c);
            Raster& r = job->r;
            r.kind = c->out_color_space == JCS_GRAYSCALE ? Raster::Grey : Raster::Rgb;
            r.bits = 8, r.width = int32_t(c->output_width), r.height = int32_t(c->output_height);
            r.allocate();
            if (cmyk) job->cmyk.resize(size_t(r.width) * 4);
            while (c->output_scanline < c->output_height) {
                const int32_t y = int32_t(c->output_scanline);
                JSAMPROW row = cmyk ? job->cmyk.data() : r.row(y);
                jpeg_read_scanlines(c, &row, 1);
                if (cmyk) {
                    // Adobe writes CMYK inverted: each sample is 255 - ink.
                    uint8_t* d = r.row(y);
                    const uint8_t* s = job->cmyk.data();
                    for (int32_t x = 0; x < r.width; ++x, s += 4, d += 3)
                        for (int k = 0; k < 3; ++k) d[k] = uint8_t((s[k] * s[3] + 127) / 255);
                }
            }
            if (job->err.truncated) {
                job->res = fail(KS_FILE_READ, "JPEG: truncated file (premature end of data)");
            } else {
                jpeg_finish_decompress(c);
                if (job->err.truncated) job->res = fail(KS_FILE_READ, "JPEG: truncated file (no end marker)");
                else out = std::move(r);
            }
        }
    }
    jpeg_destroy_decompress(c);
    const Result res = job->res;
    delete job;
    return res;
}

namespace {

struct CompressJob {
    jpeg_compress_struct cinfo;
    ErrorManager err;
    const Raster* in;
    std::vector<uint8_t>* out;
    int quality;
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    Result res;
};

// Everything the error jump may come back to lives in the job.
void compress(CompressJob* const job) {
    jpeg_compress_struct* const c = &job->cinfo;
    c->err = jpeg_std_error(&job->err.pub);
    job->err.pub.error_exit = onError;
    job->err.pub.emit_message = onMessage;
    if (setjmp(job->err.jump)) {
        job->res = fail(KS_FILE_WRITE, std::string("JPEG: ") + job->err.message);
    } else {
        jpeg_create_compress(c);
        jpeg_mem_dest(c, &job->buffer, &job->size);
        c->image_width = JDIMENSION(job->in->width), c->image_height = JDIMENSION(job->in->height);
        c->input_components = job->in->channels();
        c->in_color_space = job->in->kind == Raster::Grey ? JCS_GRAYSCALE : JCS_RGB;
        jpeg_set_defaults(c);
        jpeg_set_quality(c, job->quality, TRUE);
        jpeg_start_compress(c, TRUE);
        while (c->next_scanline < c->image_height) {
            JSAMPROW row = const_cast<JSAMPROW>(job->in->row(int32_t(c->next_scanline)));
            jpeg_write_scanlines(c, &row, 1);
        }
        jpeg_finish_compress(c);
        job->out->assign(job->buffer, job->buffer + job->size);
    }
    jpeg_destroy_compress(c);
    std::free(job->buffer);
}

}  // namespace

Result encodeJpeg(const Raster& input, std::vector<uint8_t>& out, std::string& note, int quality) {
    const bool direct = input.bits == 8 && (input.kind == Raster::Grey || input.kind == Raster::Rgb);
    Raster eight;
    if (!direct) {
        eight = toEightBit(input, true);
        note = "JPEG holds 8-bit grey or 24-bit colour only: written as " + eight.describe();
    }
    CompressJob* job = new CompressJob;
    job->in = direct ? &input : &eight;
    job->out = &out;
    job->quality = quality;
    compress(job);
    const Result res = job->res;
    delete job;
    return res;
}

}  // namespace codec
}  // namespace image
#endif
