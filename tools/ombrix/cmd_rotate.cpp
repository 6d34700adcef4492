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
#include "pnm.h"

namespace {

int32_t progressBar(int32_t pct, void*) {
    const int width = 40, done = pct * width / 100;
    std::fprintf(stderr, "\r[%s%s] %3d%%", std::string(size_t(done), '#').c_str(),
                 std::string(size_t(width - done), ' ').c_str(), pct);
    if (pct >= 100) std::fputc('\n', stderr);
    std::fflush(stderr);
    return KS_SUCCESS;
}

// Degrees with up to two decimals ("12.5", "-90") to hundredths; false if not a number.
bool parseAngle(const std::string& s, int32_t* out) {
    char* end = nullptr;
    const double d = std::strtod(s.c_str(), &end);
    if (s.empty() || *end || !std::isfinite(d) || std::fabs(d) > 360.0) return false;
    *out = int32_t(std::lround(d * 100.0));
    return true;
}

int usage(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    return 2;
}

int runTransform(const cli::Args& a, bool shear) {
    if (a.size() < 3) return usage(shear ? "usage: ombrix shear IN OUT ANGLE [--vertical] [options]"
                                         : "usage: ombrix rotate IN OUT ANGLE [options]");
    int32_t angle = 0;
    if (!parseAngle(a[2], &angle)) return usage("ANGLE: degrees, for instance 12.5 or -90");
    uint32_t flags = ROTATE_BILINEAR, fill = 0;
    for (size_t i = 3; i < a.size(); ++i) {
        const std::string& o = a[i];
        if (o == "--nearest") flags = (flags & ~ROTATE_INTERP_MASK) | ROTATE_NEAREST;
        else if (o == "--bilinear") flags = (flags & ~ROTATE_INTERP_MASK) | ROTATE_BILINEAR;
        else if (o == "--bicubic") flags = (flags & ~ROTATE_INTERP_MASK) | ROTATE_BICUBIC;
        else if (o == "--enlarge") flags |= ROTATE_RESIZE;
        else if (o == "--exact") flags |= ROTATE_NO_SHORTCUTS;
        else if (o == "--transparent") flags |= ROTATE_FILL_TRANSPARENT;
        else if (o == "--vertical" && shear) flags |= SHEAR_VERTICAL;
        else if (o == "--fill" && i + 1 < a.size()) {
            const unsigned long rgb = std::strtoul(a[++i].c_str(), nullptr, 16);
            fill = uint32_t(((rgb >> 16) & 0xFF) | (rgb & 0xFF00) | ((rgb & 0xFF) << 16));  // RRGGBB -> 0x00BBGGRR
        } else {
            return usage(("unknown option " + o).c_str());
        }
    }
    BITMAPRECORD bm;
    std::string err;
    int32_t rc = pnm::read(a[0], bm, &err);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "%s: %s\n", a[0].c_str(), err.empty() ? cli::statusText(rc).c_str() : err.c_str());
        return 1;
    }
    // Palette images keep their colours only with nearest.
    if (bm.nBitsPerPixel < 8 ||
        (bm.nBitsPerPixel == 8 && (!bm.pPalette || K_IsGrayScalePalette(bm.pPalette, 256) < 1 ||
                                   K_IsGrayScalePalette(bm.pPalette, 256) > 2)))
        flags &= ~ROTATE_INTERP_MASK;
    STATUSCALLBACK oldFn = nullptr;
    void* oldUser = nullptr;
    const bool bar = isatty(2);
    if (bar) K_SetStatusCallBack(progressBar, nullptr, &oldFn, &oldUser);
    rc = shear ? K_ShearBitmap(&bm, angle, flags, fill) : K_RotateBitmap(&bm, angle, flags, fill);
    if (bar) K_SetStatusCallBack(oldFn, oldUser, nullptr, nullptr);
    if (rc == KS_SUCCESS) rc = pnm::write(a[1], bm, &err);
    const int width = bm.nWidth, height = bm.nHeight;
    K_FreeBitmap(&bm);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "%s: %s\n", shear ? "shear" : "rotate", cli::statusText(rc).c_str());
        return 1;
    }
    std::printf("%s: %d x %d\n", a[1].c_str(), width, height);
    return 0;
}

int runRotate(const cli::Args& a) { return runTransform(a, false); }
int runShear(const cli::Args& a) { return runTransform(a, true); }

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

cli::RegisterCommand regRotate({"rotate",
                                "IN OUT ANGLE [--nearest|--bilinear|--bicubic] [--enlarge] [--fill RRGGBB] "
                                "[--transparent] [--exact]",
                                "turn an image by any angle in degrees (clockwise)", runRotate});
cli::RegisterCommand regShear({"shear", "IN OUT ANGLE [--vertical] [--nearest|--bilinear|--bicubic] [--enlarge] "
                                        "[--fill RRGGBB]",
                               "shear an image's rows (or columns) by an angle in degrees", runShear});
cli::RegisterDemo demoReg({"rotation", 60, demo});

}  // namespace
