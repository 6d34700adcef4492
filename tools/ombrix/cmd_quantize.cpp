// cmd_quantize.cpp - `ombrix quantize`: a PNM picture reduced to n colours
// (an optimised palette, the fixed palette or the web palette), dithered or
// not, through K_ColorResBitmap with a progress bar; and the demo section
// that reduces the 24-bit sample to 256, 16 and 2 colours with self-checks.
// Public API only.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"

namespace {

const char* const kMethods[9] = {"nearest", "floyd", "stucki", "burkes", "sierra",
                                 "stevenson", "jarvis", "ordered", "clustered"};


int depthFor(int colours) {
    int bits = 1;
    while ((1 << bits) < colours) ++bits;
    return bits;
}

// Mean squared error per channel of a paletted bitmap against a 24-bit one
// of the same size (both read through the row layer), and the number of
// distinct indices used.
double quantError(BITMAPRECORD& q, BITMAPRECORD& ref, size_t* used) {
    std::vector<uint8_t> a(q.nBytesPerLine), b(ref.nBytesPerLine);
    std::set<int> seen;
    double sum = 0;
    for (int y = 0; y < ref.nHeight; ++y) {
        K_GetBitmapRow(&q, a.data(), y, q.nBytesPerLine);
        K_GetBitmapRow(&ref, b.data(), y, ref.nBytesPerLine);
        for (int x = 0; x < ref.nWidth; ++x) {
            const int bit = x * q.nBitsPerPixel;
            const int idx = (a[size_t(bit >> 3)] >> (8 - q.nBitsPerPixel - (bit & 7))) & ((1 << q.nBitsPerPixel) - 1);
            seen.insert(idx);
            const RGBQUAD& e = q.pPalette[idx];
            const uint8_t* p = b.data() + size_t(x) * 3;  // BGR
            const int d0 = e.rgbBlue - p[0], d1 = e.rgbGreen - p[1], d2 = e.rgbRed - p[2];
            sum += d0 * d0 + d1 * d1 + d2 * d2;
        }
    }
    if (used) *used = seen.size();
    return sum / (3.0 * ref.nWidth * ref.nHeight);
}

int runQuantize(const cli::Call& call) {
    const std::string in = call.args[0], out = call.args[1];
    const int paletteIndex = call.choice("--palette", 0);
    const std::string paletteKind = cli::choiceName("optimised|fixed|web", paletteIndex);
    int colours = int(call.integer("--colors", 256));
    const int method = call.choice("--dither", DITHER_NEAREST);
    const uint32_t flags = paletteIndex == 0 ? CRF_OPTIMIZEDPALETTE : paletteIndex == 1 ? CRF_FIXEDPALETTE : CRF_NETSCAPEPALETTE;
    if (flags == CRF_NETSCAPEPALETTE) colours = 256;
    const int bits = depthFor(colours);
    if (flags == CRF_FIXEDPALETTE) colours = 1 << bits;
    BITMAPRECORD src;
    std::string why;
    int32_t rc = image::read(in, src, &why);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "quantize: %s: %s\n", in.c_str(), why.empty() ? cli::statusText(rc).c_str() : why.c_str());
        return 1;
    }
    BITMAPRECORD q;
    const auto t0 = std::chrono::steady_clock::now();
    rc = K_ColorResBitmap(&src, &q, bits, flags | CRF_DITHER(method), nullptr, colours, BITMAPRECORD_SIZE);
    const double sec = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (rc != KS_SUCCESS) {
        K_FreeBitmap(&src);
        std::fprintf(stderr, "quantize: %s\n", cli::statusText(rc).c_str());
        return 1;
    }
    BITMAPRECORD ref;
    double mse = -1;
    size_t used = 0;
    if (image::toBgr24(src, ref) == KS_SUCCESS) {
        // Row for row only when both keep their rows in the same view.
        if (q.nViewPerspective == ref.nViewPerspective) mse = quantError(q, ref, &used);
        K_FreeBitmap(&ref);
    }
    K_FreeBitmap(&src);
    if (!call.quiet) std::printf("%s: %dx%d -> %d colours (%s palette, %s): %.1f ms (%.1f Mpixel/s)", in.c_str(), q.nWidth, q.nHeight,
                colours, paletteKind.c_str(), kMethods[method], sec * 1e3, double(q.nWidth) * q.nHeight / sec / 1e6);
    if (mse >= 0 && !call.quiet) std::printf(", %zu entries used, mean squared error %.2f", used, mse);
    if (!call.quiet) std::printf("\n");
    rc = image::write(out, q, &why);
    K_FreeBitmap(&q);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "quantize: %s: %s\n", out.c_str(), why.empty() ? cli::statusText(rc).c_str() : why.c_str());
        return 1;
    }
    if (!call.quiet) std::printf("wrote %s\n", out.c_str());
    return 0;
}

cli::RegisterCommand reg({"quantize", "IN OUT", "reduce a picture to N colours (optimised palette by default)",
                          runQuantize,
                          {{"--colors", cli::Type::Int, "N", "number of colours (the fixed palette has 2^bits)", 2, 256},
                           {"--palette", cli::Type::Choice, "P", "palette", 0, 0, "optimised|fixed|web"},
                           {"--dither", cli::Type::Choice, "M", "dithering method", 0, 0,
                            "nearest|floyd|stucki|burkes|sierra|stevenson|jarvis|ordered|clustered"}},
                          2, 2});

// ---------------------------------------------------------------- demo

std::string fmt(double v, int digits = 2) {
    char b[32];
    std::snprintf(b, sizeof(b), "%.*f", digits, v);
    return b;
}

// The 24-bit sample reduced to 256, 16 and 2 colours with an optimised
// palette, without and with Floyd-Steinberg; checks: the error falls as the
// colours grow, every index lies in the palette, an optimised palette of the
// reduced picture gives back exactly its colours, and the reduced picture
// goes to 24 bits and back into its own palette unchanged.
bool demoQuantize(cli::Report& report, const BITMAPRECORD& sample) {
    BITMAPRECORD* s = const_cast<BITMAPRECORD*>(&sample);
    BITMAPRECORD src;
    if (K_ColorResBitmap(s, &src, 24, CRF_BYTEORDERBGR, nullptr, 0, BITMAPRECORD_SIZE) != KS_SUCCESS) {
        report.check(false, "sample to 24-bit BGR");
        return false;
    }
    double last = 1e300;
    for (int n : {2, 16, 256}) {
        const int bits = depthFor(n);
        for (int method : {DITHER_NEAREST, DITHER_FLOYD_STEINBERG}) {
            BITMAPRECORD q;
            const auto t0 = std::chrono::steady_clock::now();
            const int32_t rc = K_ColorResBitmap(&src, &q, bits, CRF_OPTIMIZEDPALETTE | CRF_DITHER(method), nullptr, n,
                                                BITMAPRECORD_SIZE);
            const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
            if (rc != KS_SUCCESS) {
                report.check(false, std::to_string(n) + " colours: " + cli::statusText(rc));
                continue;
            }
            size_t used = 0;
            const double mse = quantError(q, src, &used);
            report.line(std::to_string(n) + " colours, " + kMethods[method] + ": mean squared error " + fmt(mse) + ", " +
                        std::to_string(used) + " entries used, " + fmt(ms, 1) + " ms");
            report.check(used <= size_t(n), std::to_string(n) + " colours: indices within the palette");
            if (method == DITHER_NEAREST) {
                report.check(mse < last, std::to_string(n) + " colours: less error than fewer colours");
                last = mse;
                // An optimised palette of the reduced picture is exactly its colours.
                BITMAPRECORD back;
                bool exact = K_ColorResBitmap(&q, &back, 24, CRF_BYTEORDERBGR, nullptr, 0, BITMAPRECORD_SIZE) == KS_SUCCESS;
                if (exact) {
                    std::vector<RGBQUAD> pal(static_cast<size_t>(n));
                    int32_t got = 0;
                    exact = K_CreateBitmapOptPal(&back, pal.data(), n, 0, 0, &got) == KS_SUCCESS && size_t(got) == used;
                    if (exact) {
                        BITMAPRECORD again;
                        exact = K_ColorResBitmap(&back, &again, bits, CRF_USERPALETTE | CRF_NODITHERING, q.pPalette,
                                                 q.nColors, BITMAPRECORD_SIZE) == KS_SUCCESS;
                        if (exact) {
                            std::vector<uint8_t> a(q.nBytesPerLine), b(q.nBytesPerLine);
                            for (int y = 0; y < q.nHeight && exact; ++y) {
                                K_GetBitmapRow(&q, a.data(), y, q.nBytesPerLine);
                                K_GetBitmapRow(&again, b.data(), y, q.nBytesPerLine);
                                exact = a == b;
                            }
                            K_FreeBitmap(&again);
                        }
                    }
                    K_FreeBitmap(&back);
                }
                report.check(exact, std::to_string(n) + " colours: to 24 bits and back into its palette unchanged, "
                                                         "its colours found again exactly");
            }
            if (rc == KS_SUCCESS && method == DITHER_FLOYD_STEINBERG)
                report.save("quantize-" + std::to_string(n) + "-floyd.png", q);
            K_FreeBitmap(&q);
        }
    }
    K_FreeBitmap(&src);
    return true;
}

cli::RegisterDemo demo({"quantize", 46, demoQuantize});

}  // namespace
