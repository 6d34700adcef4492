// cmd_identify.cpp - `ombrix identify FILE...`: what a picture file holds and
// the bitmap the tool makes of it (depth, order, palette, view perspective and
// the storage kind the kernel chose for its size).
#include <cinttypes>
#include <string>

#include "cli.h"
#include "image.h"

namespace {

const char* orderName(int32_t order) {
    switch (order) {
        case ORDER_RGB: return "RGB";
        case ORDER_BGR: return "BGR";
        case ORDER_GRAY: return "grey";
        case ORDER_ROMM: return "wide primaries";
        case ORDER_RGB565: return "5-6-5";
        default: return "?";
    }
}

const char* perspectiveName(int32_t vp) {
    static const char* const names[] = {"?",         "top-left", "top-right",    "bottom-right", "bottom-left",
                                        "left-top", "right-top", "right-bottom", "left-bottom"};
    return vp >= 1 && vp <= 8 ? names[vp] : names[0];
}

std::string storageOf(const BITMAPRECORD& bm) {
    const uint32_t f = bm.uFlags;
    if (f & BRF_SUPERCOMPRESSED) return "super-compressed rows";
    if (f & BRF_COMPRESSED) return "run-compressed rows";
    if (f & BRF_TILED) return f & BRF_DISK ? "tiles, some in temporary files" : "tiles";
    if (f & BRF_DISK) return "temporary file";
    if (f & BRF_USER_MEMORY) return "caller memory";
    return "single block";
}

int run(const cli::Call& call) {
    int failed = 0;
    for (const std::string& path : call.args) {
        image::Raster raster;
        image::Format format;
        std::string why;
        int32_t rc = image::readRaster(path, raster, &why, &format);
        BITMAPRECORD bm;
        if (rc == KS_SUCCESS) {
            const image::Result res = image::toBitmap(raster, bm);
            rc = res.status, why = res.error;
        }
        if (rc != KS_SUCCESS) {
            std::fprintf(stderr, "ombrix identify: %s: %s\n", path.c_str(), why.c_str());
            ++failed;
            continue;
        }
        char size[64];
        std::snprintf(size, sizeof size, "%" PRIu64 " bytes", uint64_t(bm.uSize64));
        std::printf("%s: %s %dx%d, %s\n", path.c_str(), image::formatName(format), raster.width, raster.height,
                    raster.describe().c_str());
        if (raster.images > 1) std::printf("  images       %d (this is the first)\n", raster.images);
        std::printf("  width        %d\n  height       %d\n", bm.nWidth, bm.nHeight);
        std::printf("  depth        %d bits per pixel\n", bm.nBitsPerPixel);
        std::printf("  order        %s\n", orderName(bm.nOrder));
        std::printf("  palette      %d entries\n", bm.nBitsPerPixel <= 8 ? bm.nColors : 0);
        std::printf("  view         %s\n", perspectiveName(bm.nViewPerspective));
        std::printf("  storage      %s, %s\n", storageOf(bm).c_str(), size);
        K_FreeBitmap(&bm);
    }
    return failed ? 1 : 0;
}

cli::RegisterCommand reg({"identify", "FILE...",
                          "width, height, depth, order, palette and storage kind of picture files", run, {}, 1, -1});

}  // namespace
