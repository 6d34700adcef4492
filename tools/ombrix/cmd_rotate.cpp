// cmd_rotate.cpp - `ombrix rotate` and `ombrix shear`: any angle, with
// interpolation, enlargement and fill options; a progress bar on a
// terminal; and the rotation section of the demo.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"

namespace {


// Degrees with up to two decimals ("12.5", "-90") to hundredths; false if not a number.
bool parseAngle(const std::string& s, int32_t* out) {
    char* end = nullptr;
    const double d = std::strtod(s.c_str(), &end);
    if (s.empty() || *end || !std::isfinite(d) || std::fabs(d) > 360.0) return false;
    *out = int32_t(std::lround(d * 100.0));
    return true;
}


int runTransform(const cli::Call& call, bool shear) {
    const cli::Args& a = call.args;
    int32_t angle = 0;
    if (!parseAngle(a[2], &angle)) throw cli::UsageError("ANGLE: '" + a[2] + "' is not degrees (-360..360), such as 12.5");
    uint32_t flags = ROTATE_BILINEAR, fill = 0;
    for (const auto& g : call.given) {
        const std::string o = g.first->name;
        if (o == "--nearest") flags = (flags & ~ROTATE_INTERP_MASK) | ROTATE_NEAREST;
        else if (o == "--bilinear") flags = (flags & ~ROTATE_INTERP_MASK) | ROTATE_BILINEAR;
        else if (o == "--bicubic") flags = (flags & ~ROTATE_INTERP_MASK) | ROTATE_BICUBIC;
        else if (o == "--enlarge") flags |= ROTATE_RESIZE;
        else if (o == "--exact") flags |= ROTATE_NO_SHORTCUTS;
        else if (o == "--transparent") flags |= ROTATE_FILL_TRANSPARENT;
        else if (o == "--vertical") flags |= SHEAR_VERTICAL;
        else if (o == "--fill") {
            const uint32_t rgb = uint32_t(std::strtoul(g.second.c_str(), nullptr, 16));
            fill = ((rgb >> 16) & 0xFF) | (rgb & 0xFF00) | ((rgb & 0xFF) << 16);  // RRGGBB -> 0x00BBGGRR
        }
    }
    BITMAPRECORD bm;
    std::string err;
    int32_t rc = image::read(a[0], bm, &err);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "%s: %s\n", a[0].c_str(), err.empty() ? cli::statusText(rc).c_str() : err.c_str());
        return 1;
    }
    // Palette images keep their colours only with nearest.
    if (bm.nBitsPerPixel < 8 ||
        (bm.nBitsPerPixel == 8 && (!bm.pPalette || K_IsGrayScalePalette(bm.pPalette, 256) < 1 ||
                                   K_IsGrayScalePalette(bm.pPalette, 256) > 2)))
        flags &= ~ROTATE_INTERP_MASK;
    rc = shear ? K_ShearBitmap(&bm, angle, flags, fill) : K_RotateBitmap(&bm, angle, flags, fill);
    if (rc == KS_SUCCESS) rc = image::write(a[1], bm, &err);
    const int width = bm.nWidth, height = bm.nHeight;
    K_FreeBitmap(&bm);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "%s: %s\n", shear ? "shear" : "rotate", cli::statusText(rc).c_str());
        return 1;
    }
    if (!call.quiet) std::printf("%s: %d x %d\n", a[1].c_str(), width, height);
    return 0;
}

int runRotate(const cli::Call& c) { return runTransform(c, false); }
int runShear(const cli::Call& c) { return runTransform(c, true); }

#define OMBRIX_TRANSFORM_OPTIONS                                                                               \
    {"--nearest", cli::Type::Flag, "", "nearest pixel (always for palette pictures)"},                          \
        {"--bilinear", cli::Type::Flag, "", "bilinear interpolation (default)"},                                \
        {"--bicubic", cli::Type::Flag, "", "bicubic interpolation"},                                            \
        {"--enlarge", cli::Type::Flag, "", "grow the picture to hold the whole result"},                        \
        {"--fill", cli::Type::Color, "RRGGBB", "colour of the uncovered corners (default black)"}

// ---------------------------------------------------------------- demo
bool copyOf(const BITMAPRECORD& src, BITMAPRECORD* dst) {
    BITMAPRECORD& s = const_cast<BITMAPRECORD&>(src);
    if (K_CreateBitmap(dst, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, s.nWidth, s.nHeight, s.nBitsPerPixel, s.nOrder,
                       s.pPalette, s.nViewPerspective, nullptr, 0) != KS_SUCCESS)
        return false;
    std::vector<uint8_t> row(s.nBytesPerLine);
    for (int32_t y = 0; y < s.nHeight; ++y) {
        K_GetBitmapRow(&s, row.data(), y, s.nBytesPerLine);
        K_PutBitmapRow(dst, row.data(), y, s.nBytesPerLine);
    }
    return true;
}
std::vector<uint8_t> pixelsOf(BITMAPRECORD* bm) {
    std::vector<uint8_t> v(size_t(bm->nBytesPerLine) * size_t(bm->nHeight));
    for (int32_t y = 0; y < bm->nHeight; ++y)
        K_GetBitmapRow(bm, v.data() + size_t(y) * bm->nBytesPerLine, y, bm->nBytesPerLine);
    return v;
}

bool demo(cli::Report& rep, const BITMAPRECORD& sample) {
    const int failuresBefore = rep.failures;
    BITMAPRECORD a, b;
    if (!copyOf(sample, &a) || !copyOf(sample, &b)) {
        rep.check(false, "copies of the sample");
        return false;
    }
    const std::vector<uint8_t> orig = pixelsOf(&a);
    // Four general-path quarter turns give the image back exactly.
    bool ok = true;
    for (int i = 0; i < 4; ++i) ok = ok && K_RotateBitmap(&a, 9000, ROTATE_RESIZE | ROTATE_NO_SHORTCUTS, 0) == 1;
    rep.check(ok && a.nViewPerspective == sample.nViewPerspective && pixelsOf(&a) == orig,
              "four quarter turns by the general path are the identity");
    // 30 degrees enlarged: the bounding box; then back and cropped by the same box.
    int32_t w = 0, h = 0;
    K_GetRotatedBitmapSize(&b, 3000, &w, &h);
    ok = K_RotateBitmap(&b, 3000, ROTATE_RESIZE | ROTATE_BILINEAR, 0xFFFFFF) == KS_SUCCESS;
    rep.check(ok && b.nWidth == w && b.nHeight == h,
              "30 degrees enlarged: " + std::to_string(b.nWidth) + " x " + std::to_string(b.nHeight));
    if (ok) rep.save("rotate-30-enlarged.png", b);
    K_FreeBitmap(&b);
    copyOf(sample, &b);
    ok = K_RotateBitmap(&b, 3000, ROTATE_BILINEAR, 0) == 1 && K_RotateBitmap(&b, -3000, ROTATE_BILINEAR, 0) == 1;
    if (ok && sample.nBitsPerPixel == 24) {
        const std::vector<uint8_t> back = pixelsOf(&b);
        double sum = 0;
        int64_t n = 0;
        const int W = b.nWidth, H = b.nHeight;
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                if (std::hypot(x - (W - 1) / 2.0, y - (H - 1) / 2.0) > std::min(W, H) / 2.0 - 3) continue;
                for (int c = 0; c < 3; ++c) {
                    const size_t i = size_t(y) * b.nBytesPerLine + size_t(x) * 3 + size_t(c);
                    sum += std::abs(int(back[i]) - int(orig[i]));
                    ++n;
                }
            }
        const double mean = n ? sum / double(n) : 0;
        char text[96];
        std::snprintf(text, sizeof text, "30 degrees and back (bilinear): mean error %.2f levels in the disc", mean);
        rep.check(mean < 4.0, text);
    } else {
        rep.check(ok, "30 degrees and back");
    }
    ok = K_ShearBitmap(&b, 2000, ROTATE_RESIZE | ROTATE_BILINEAR, 0) == KS_SUCCESS;
    rep.check(ok, "shear by 20 degrees: " + std::to_string(b.nWidth) + " x " + std::to_string(b.nHeight));
    rep.check(K_RotateBitmap(&b, 100, ROTATE_BILINEAR | 0x4000u, 0) == KS_INVALID_PARAMETER,
              "an unknown flag is refused (-13)");
    K_FreeBitmap(&a);
    K_FreeBitmap(&b);
    return rep.failures == failuresBefore;
}

cli::RegisterCommand regRotate({"rotate", "IN OUT ANGLE", "turn a picture by any angle in degrees (clockwise)",
                                runRotate,
                                {OMBRIX_TRANSFORM_OPTIONS,
                                 {"--transparent", cli::Type::Flag, "", "transparent fill (32 and 64 bits)"},
                                 {"--exact", cli::Type::Flag, "", "no short cuts for right angles"}},
                                3, 3});
cli::RegisterCommand regShear({"shear", "IN OUT ANGLE", "shear a picture's rows (or columns) by an angle in degrees",
                               runShear,
                               {OMBRIX_TRANSFORM_OPTIONS,
                                {"--vertical", cli::Type::Flag, "", "shear the columns instead of the rows"}},
                               3, 3});
cli::RegisterDemo demoReg({"rotation", 60, demo});

}  // namespace
