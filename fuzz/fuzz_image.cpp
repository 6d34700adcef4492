// fuzz_image.cpp - the ombrix tool's picture readers (PNM/PAM, PNG, JPEG, TIFF) on untrusted bytes. Any input
// is refused with a negative status and a reason, or decoded; a decoded picture becomes a bitmap and comes back
// with the same samples, and survives writing in every format and reading again (exactly where lossless).
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "../tools/ombrix/image.h"
#include "fuzz_input.h"

namespace {

bool sameEightBit(const image::Raster& a, const image::Raster& b) {
    const image::Raster x = image::toEightBit(a, false), y = image::toEightBit(b, false);
    return x.width == y.width && x.height == y.height && x.pixels == y.pixels;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    [[maybe_unused]] static const int limit = (image::setPixelLimit(uint64_t(1) << 18), 0);
    image::Raster r;
    image::Result res = image::decode(data, size, r);
    if (!res.ok()) return FUZZ_CHECK(res.status < 0 && !res.error.empty()), 0;
    FUZZ_CHECK(r.pixels.size() == r.rowBytes() * size_t(r.height) && r.images >= 1);
    for (int page : {1, r.images - 1, r.images}) {  // the second and last image decode; one past them is refused
        image::Raster p;
        image::Result rp = image::decode(data, size, p, nullptr, page);
        if (page >= r.images) FUZZ_CHECK(!rp.ok() && rp.status < 0);
        else if (rp.ok()) FUZZ_CHECK(p.images == r.images && p.pixels.size() == p.rowBytes() * size_t(p.height));
    }
    BITMAPRECORD bm;
    image::Raster back;
    FUZZ_CHECK(image::toBitmap(r, bm).ok() && image::fromBitmap(bm, back).ok());
    K_FreeBitmap(&bm);
    if (r.orientation == TOP_LEFT) FUZZ_CHECK(sameEightBit(r, back));
    using image::Format;
    for (Format f : {Format::Pnm, Format::Png, Format::Jpeg, Format::Tiff}) {
        if (!image::available(f)) continue;
        std::vector<uint8_t> bytes;
        image::Raster again;
        FUZZ_CHECK(image::encode(f, back, bytes, f == Format::Pnm ? "x.pam" : "x").ok());
        FUZZ_CHECK(image::decode(bytes.data(), bytes.size(), again).ok());
        if (f != Format::Jpeg) FUZZ_CHECK(sameEightBit(back, again));
    }
    return 0;
}
