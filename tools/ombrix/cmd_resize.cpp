// cmd_resize.cpp - `ombrix resize` (any method, a size or a scale, with a
// progress bar) and the demo section that runs each method on the sample and
// checks what can be checked exactly.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"

namespace {

struct Method {
    const char* name;
    uint32_t flags;
    const char* what;
};
const Method kMethods[] = {
    {"nearest", SIZE_NORMAL, "nearest pixel, floor(i * old / new)"},
    {"resample", SIZE_RESAMPLE, "bilinear growth, area-averaging reduction"},
    {"bicubic", SIZE_BICUBIC, "Catmull-Rom cubic (area averaging when both axes shrink)"},
    {"lanczos", SIZE_LANCZOS, "Lanczos-3"},
    {"favourblack", SIZE_FAVOURBLACK, "1-bit black-and-white: keeps thin black lines"},
    {"scaletogray", SIZE_SCALETOGRAY, "1-bit black-and-white to 8-bit grey"},
};

int runResize(const cli::Call& call) {
    const cli::Args& a = call.args;
    const Method* m = &kMethods[call.choice("--method", 1)];
    const auto size = call.pair("--size", {0, 0});
    int32_t w = int32_t(size.first), h = int32_t(size.second);
    const double scale = call.real("--scale", 0);
    const uint32_t extra = call.has("--alpha") ? SIZE_PREMULTIPLY : 0;
    if (call.has("--size") == call.has("--scale")) throw cli::UsageError("give --size WxH or --scale F (one of them)");
    BITMAPRECORD bm;
    std::string err;
    int32_t rc = image::read(a[0], bm, &err);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "%s: %s %s\n", a[0].c_str(), cli::statusText(rc).c_str(), err.c_str());
        return 1;
    }
    if (scale > 0) {
        w = int32_t(std::lround(bm.nWidth * scale));
        h = int32_t(std::lround(bm.nHeight * scale));
    }
    if (w <= 0 || h <= 0) {
        std::fprintf(stderr, "resize: --scale %g gives an empty picture\n", scale);
        K_FreeBitmap(&bm);
        return 2;
    }
    const auto t0 = std::chrono::steady_clock::now();
    rc = K_SizeBitmap(&bm, w, h, m->flags | extra);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "resize: %s\n", cli::statusText(rc).c_str());
        K_FreeBitmap(&bm);
        return 1;
    }
    rc = image::write(a[1], bm, &err);
    if (!call.quiet) std::printf("%s: %dx%d, %d bits, %s in %.1f ms\n", a[1].c_str(), bm.nWidth, bm.nHeight, bm.nBitsPerPixel, m->name,
                ms);
    K_FreeBitmap(&bm);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "%s: %s %s\n", a[1].c_str(), cli::statusText(rc).c_str(), err.c_str());
        return 1;
    }
    return 0;
}

cli::RegisterCommand reg({"resize", "IN OUT", "resize a picture (--size WxH or --scale F)", runResize,
                          {{"--size", cli::Type::Size, "WxH", "new size in pixels", 1, 2147483647.0},
                           {"--scale", cli::Type::Real, "F", "scale factor", 1e-6, 1e6},
                           {"--method", cli::Type::Choice, "M", "method (default resample)", 0, 0,
                            "nearest|resample|bicubic|lanczos|favourblack|scaletogray"},
                           {"--alpha", cli::Type::Flag, "", "resample premultiplied by alpha (32 and 64 bits)"}},
                          2, 2});

std::string fmt(double v) {
    char b[32];
    std::snprintf(b, sizeof b, "%.1f", v);
    return b;
}

bool demoResize(cli::Report& rep, const BITMAPRECORD& sample) {
    BITMAPRECORD src;
    if (image::toBgr24(sample, src) != KS_SUCCESS) {
        rep.check(false, "sample as 24-bit");
        return false;
    }
    const int32_t w = src.nWidth, h = src.nHeight;
    std::vector<uint8_t> orig(size_t(src.nBytesPerLine) * size_t(h));
    K_AccessBitmap(&src);
    std::memcpy(orig.data(), src.pData, orig.size());
    K_ReleaseBitmap(&src);
    bool ok = true;
    for (const Method& m : kMethods) {
        if (m.flags == SIZE_FAVOURBLACK || m.flags == SIZE_SCALETOGRAY) continue;
        for (double f : {0.5, 1.7}) {
            BITMAPRECORD copy;
            if (K_CreateBitmap(&copy, BITMAPRECORD_SIZE, 1, w, h, 24, ORDER_BGR, nullptr, 1, nullptr, 0) != KS_SUCCESS)
                return false;
            K_AccessBitmap(&copy);
            std::memcpy(copy.pData, orig.data(), orig.size());
            K_ReleaseBitmap(&copy);
            const int32_t nw = int32_t(w * f), nh = int32_t(h * f);
            const auto t0 = std::chrono::steady_clock::now();
            const int32_t rc = K_SizeBitmap(&copy, nw, nh, m.flags);
            const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
            bool good = rc == KS_SUCCESS && copy.nWidth == nw && copy.nHeight == nh;
            if (good && m.flags == SIZE_NORMAL) {
                // Every target pixel is the source pixel floor(i * old / new).
                K_AccessBitmap(&copy);
                for (int32_t y = 0; y < nh && good; y += 7)
                    for (int32_t x = 0; x < nw && good; x += 5) {
                        const int64_t sx = int64_t(x) * w / nw, sy = int64_t(y) * h / nh;
                        good = std::memcmp(copy.pData + size_t(y) * copy.nBytesPerLine + size_t(x) * 3,
                                           orig.data() + size_t(sy) * src.nBytesPerLine + size_t(sx) * 3, 3) == 0;
                    }
                K_ReleaseBitmap(&copy);
            }
            rep.check(good, std::string(m.name) + " x" + fmt(f) + " -> " + std::to_string(nw) + "x" +
                                std::to_string(nh) + " (" + m.what + ") " + fmt(ms) + " ms");
            ok = ok && good;
            if (good && m.flags == SIZE_LANCZOS) rep.save("resize-lanczos-x" + fmt(f) + ".png", copy);
            K_FreeBitmap(&copy);
        }
    }
    // Black-and-white reductions: a one-pixel black grid line survives favour-black.
    BITMAPRECORD bw;
    if (K_CreateBitmap(&bw, BITMAPRECORD_SIZE, 1, 64, 64, 1, 0, nullptr, 1, nullptr, 0) == KS_SUCCESS) {
        std::vector<uint8_t> row(bw.nBytesPerLine, 0xFF);
        K_AccessBitmap(&bw);
        for (int32_t y = 0; y < 64; ++y) {
            std::fill(row.begin(), row.end(), uint8_t(y % 16 == 5 ? 0x00 : 0xFF));
            K_PutBitmapRow(&bw, row.data(), y, bw.nBytesPerLine);
        }
        K_ReleaseBitmap(&bw);
        int32_t rc = K_SizeBitmap(&bw, 16, 16, SIZE_FAVOURBLACK);
        std::vector<uint8_t> out(bw.nBytesPerLine);
        K_AccessBitmap(&bw);
        int black = 0;
        for (int32_t y = 0; y < 16; ++y) {
            K_GetBitmapRow(&bw, out.data(), y, bw.nBytesPerLine);
            black += out[0] == 0 && out[1] == 0;
        }
        K_ReleaseBitmap(&bw);
        rep.check(rc == KS_SUCCESS && black == 4, "favourblack 64x64 -> 16x16 keeps the 4 one-pixel black lines");
        BITMAPRECORD bw2;
        if (K_CreateBitmap(&bw2, BITMAPRECORD_SIZE, 1, 64, 64, 1, 0, nullptr, 1, nullptr, 0) == KS_SUCCESS) {
            rc = K_SizeBitmap(&bw2, 16, 16, SIZE_SCALETOGRAY);
            rep.check(rc == KS_SUCCESS && bw2.nBitsPerPixel == 8, "scaletogray 64x64 1-bit -> 16x16 8-bit grey");
            K_FreeBitmap(&bw2);
        }
        K_FreeBitmap(&bw);
    }
    K_FreeBitmap(&src);
    return ok;
}

cli::RegisterDemo demo({"resize", 60, demoResize});

}  // namespace
