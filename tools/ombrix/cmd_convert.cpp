// cmd_convert.cpp - `ombrix convert`: a PNM picture to another depth, colour
// order and palette, dithered when the target has a palette; and the demo
// section that dithers the sample with self-checks. Public API only.
//
// Pictures are read and written through the tool's PNM module (pnm.h): the
// result is written as a bitmap of the requested format (a paletted bitmap
// for 1..8 bits), which that module turns into P4, P5 or P6.
#include <algorithm>
#include <cctype>
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

// A 24-bit BGR picture in plain memory (rows of width * 3 bytes, top first).
struct Picture {
    int width = 0, height = 0;
    std::vector<uint8_t> bgr;
};

// Copies a bitmap's viewed pixels into a Picture through image::toBgr24.
int32_t pictureOf(const BITMAPRECORD& bm, Picture& pic) {
    BITMAPRECORD bgr;
    int32_t rc = image::toBgr24(bm, bgr);
    if (rc != KS_SUCCESS) return rc;
    rc = K_AccessBitmap(&bgr);
    if (rc == KS_SUCCESS) {
        pic.width = bgr.nWidth, pic.height = bgr.nHeight;
        pic.bgr.clear();
        for (int y = 0; y < bgr.nHeight; ++y) {
            const uint8_t* row = bgr.pData + size_t(y) * bgr.nBytesPerLine;
            pic.bgr.insert(pic.bgr.end(), row, row + size_t(bgr.nWidth) * 3);
        }
        K_ReleaseBitmap(&bgr);
    }
    K_FreeBitmap(&bgr);
    return rc;
}

// A new TOP_LEFT bitmap of the given format whose rows are filled by fill(y, row).
template <class Fill>
int32_t makeBitmap(int w, int h, int bits, int order, const RGBQUAD* pal, BITMAPRECORD& out, Fill fill) {
    int32_t rc = K_CreateBitmap(&out, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, w, h, bits, order, pal, TOP_LEFT,
                                nullptr, 0);
    if (rc != KS_SUCCESS) return rc;
    rc = K_AccessBitmap(&out);
    for (int y = 0; y < h && rc == KS_SUCCESS; ++y) rc = fill(y, out.pData + size_t(y) * out.nBytesPerLine);
    K_ReleaseBitmap(&out);
    if (rc != KS_SUCCESS) K_FreeBitmap(&out);
    return rc;
}

// ------------------------------------------------------------ dithering

const char* const kMethodNames[9] = {"nearest", "floyd",   "stucki",  "burkes",   "sierra",
                                     "stevenson", "jarvis", "ordered", "clustered"};


// Dithers 24-bit BGR rows to packed indices and expands them back to colours
// through the buffer converter. Returns a status; `used` gets the number of
// distinct indices, `seconds` the time spent in the dithering calls.
int32_t ditherPicture(const Picture& in, int method, const RGBQUAD* pal, uint32_t colors, Picture& out,
                      size_t* used, double* seconds) {
    BITMAPRECORD bm;
    int32_t rc = K_InitBitmap(&bm, BITMAPRECORD_SIZE, in.width, in.height, 24);
    if (rc != KS_SUCCESS) return rc;
    bm.nOrder = ORDER_BGR;
    bm.nDitheringMethod = method;
    int bits = 1;
    while ((1u << bits) < colors) ++bits;
    out.width = in.width, out.height = in.height;
    out.bgr.assign(in.bgr.size(), 0);
    // The expanded row must hold the packed indices and the 24-bit result.
    std::vector<uint8_t> row(K_CalcConvertSize(in.width, bits, in.width, 24));
    std::vector<uint8_t> indices;
    std::vector<bool> seen(256, false);
    std::chrono::steady_clock::duration busy{};
    std::vector<RGBQUAD> full(size_t(1) << bits, RGBQUAD{0, 0, 0, 0});
    std::copy(pal, pal + colors, full.begin());
    auto t0 = std::chrono::steady_clock::now();
    rc = K_StartDithering(&bm, pal, colors);
    busy += std::chrono::steady_clock::now() - t0;
    for (int y = 0; y < in.height && rc == KS_SUCCESS; ++y) {
        t0 = std::chrono::steady_clock::now();
        rc = K_DitherLine(&bm, in.bgr.data() + size_t(y) * size_t(in.width) * 3, row.data());
        busy += std::chrono::steady_clock::now() - t0;
        if (rc != KS_SUCCESS) break;
        for (int x = 0; x < in.width; ++x) {
            size_t bit = size_t(x) * size_t(bits);
            int v = 0;
            for (int k = 0; k < bits; ++k, ++bit) v = v << 1 | ((row[bit / 8] >> (7 - bit % 8)) & 1);
            seen[size_t(v)] = true;
        }
        rc = K_ConvertBuffer(row.data(), in.width, bits, 24, ORDER_RGB, ORDER_BGR, full.data(), nullptr);
        if (rc == KS_SUCCESS)
            std::memcpy(out.bgr.data() + size_t(y) * size_t(in.width) * 3, row.data(), size_t(in.width) * 3);
    }
    K_StopDithering(&bm);
    K_FreeBitmap(&bm);
    if (used) *used = size_t(std::count(seen.begin(), seen.end(), true));
    if (seconds) *seconds = std::chrono::duration<double>(busy).count();
    return rc;
}

// Without --bits: the picture as it is, in the format of the output's extension.
int copyPicture(const std::string& in, const std::string& out) {
    BITMAPRECORD bm;
    std::string why, note;
    image::Format format;
    int32_t rc = image::read(in, bm, &why, &format);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "convert: %s: %s\n", in.c_str(), why.c_str());
        return 1;
    }
    rc = image::write(out, bm, &why, &note);
    K_FreeBitmap(&bm);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "convert: %s: %s\n", out.c_str(), why.c_str());
        return 1;
    }
    if (!note.empty()) std::fprintf(stderr, "convert: %s: %s\n", out.c_str(), note.c_str());
    return 0;
}

const char* const kOrderNames = "rgb|bgr|grey|wide|565";
const int kOrders[] = {ORDER_RGB, ORDER_BGR, ORDER_GRAY, ORDER_ROMM, ORDER_RGB565};
const char* const kPaletteNames = "fixed|web|grey|gray";

int runConvert(const cli::Call& call) {
    const std::string in = call.args[0], out = call.args[1];
    if (call.has("--quality")) image::setJpegQuality(int(call.integer("--quality", 92)));
    if (!call.has("--bits")) {
        for (const char* o : {"--order", "--dither", "--palette"})
            if (call.has(o)) throw cli::UsageError(std::string(o) + " needs --bits");
        return copyPicture(in, out);
    }
    const int bits = int(call.integer("--bits", 24));
    if (!((bits >= 1 && bits <= 8) || bits == 12 || bits == 16 || bits == 24 || bits == 32 || bits == 48 || bits == 64))
        throw cli::UsageError("--bits: " + std::to_string(bits) + " is not one of 1..8, 12, 16, 24, 32, 48, 64");
    const int orderIndex = call.choice("--order", bits == 12 ? 2 : 1);
    const int order = kOrders[orderIndex];
    const int method = call.choice("--dither", DITHER_FLOYD_STEINBERG);
    std::string paletteKind = call.text("--palette", "fixed");
    if (paletteKind == "gray") paletteKind = "grey";
    BITMAPRECORD src;
    std::string why;
    int32_t rc = image::read(in, src, &why);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "convert: %s: %s\n", in.c_str(), why.empty() ? cli::statusText(rc).c_str() : why.c_str());
        return 1;
    }
    Picture pic;
    rc = pictureOf(src, pic);
    K_FreeBitmap(&src);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "convert: %s\n", cli::statusText(rc).c_str());
        return 1;
    }
    const int w = pic.width, h = pic.height;
    BITMAPRECORD result;
    if (bits <= 8) {
        std::vector<RGBQUAD> pal(size_t(1) << bits);
        const uint32_t colors = uint32_t(pal.size());
        if (paletteKind == "fixed") {
            K_GetFixedPalette(pal.data(), bits);
        } else if (paletteKind == "web") {
            if (bits != 8) {
                std::fprintf(stderr, "convert: the web palette needs --bits 8\n");
                return 2;
            }
            std::memcpy(pal.data(), K_IntGetNetscapePalette(), 256 * sizeof(RGBQUAD));
        } else {  // grey
            RGBQUAD* ramp = K_CreateGrayPalette(bits);
            if (!ramp) return 1;
            std::memcpy(pal.data(), ramp, pal.size() * sizeof(RGBQUAD));
            K_GlobalFree(ramp);
        }
        // The dithered rows go straight into a bitmap of N bits with the palette.
        BITMAPRECORD run;
        K_InitBitmap(&run, BITMAPRECORD_SIZE, w, h, 24);
        run.nOrder = ORDER_BGR;
        run.nDitheringMethod = method;
        rc = K_StartDithering(&run, pal.data(), colors);
        const auto t0 = std::chrono::steady_clock::now();
        if (rc == KS_SUCCESS)
            rc = makeBitmap(w, h, bits, ORDER_RGB, pal.data(), result, [&](int y, uint8_t* row) {
                return K_DitherLine(&run, pic.bgr.data() + size_t(y) * size_t(w) * 3, row);
            });
        const double sec = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        K_FreeBitmap(&run);  // stops the run
        if (rc != KS_SUCCESS) {
            std::fprintf(stderr, "convert: dithering failed: %s\n", cli::statusText(rc).c_str());
            return 1;
        }
        if (!call.quiet)
            std::printf("%s: %dx%d -> %d bits, %s palette, %s dithering: %.1f ms (%.1f Mpixel/s)\n", in.c_str(), w, h,
                    bits, paletteKind.c_str(), kMethodNames[method], sec * 1e3, double(w) * h / sec / 1e6);
    } else {
        // Convert each row. The file writer keeps the depth where the format
        // can (12-bit grey is written as 16-bit grey, the wide primaries as
        // ordinary RGB of the same depth).
        const bool direct = true;
        std::vector<uint8_t> buf(K_CalcConvertSize(w, 24, w, bits));
        const int keepBits = direct ? bits : 24, keepOrder = direct ? order : ORDER_BGR;
        rc = makeBitmap(w, h, keepBits, keepOrder, nullptr, result, [&](int y, uint8_t* row) {
            std::memcpy(buf.data(), pic.bgr.data() + size_t(y) * size_t(w) * 3, size_t(w) * 3);
            int32_t r = K_ConvertBuffer(buf.data(), w, 24, bits, ORDER_BGR, order, nullptr, nullptr);
            if (r == KS_SUCCESS && !direct)
                r = K_ConvertBuffer(buf.data(), w, bits, 24, order, ORDER_BGR, nullptr, nullptr);
            if (r == KS_SUCCESS) std::memcpy(row, buf.data(), (size_t(w) * size_t(keepBits) + 7) / 8);
            return r;
        });
        if (rc != KS_SUCCESS) {
            std::fprintf(stderr, "convert: %d bits, order %s: %s\n", bits, cli::choiceName(kOrderNames, orderIndex).c_str(),
                         cli::statusText(rc).c_str());
            return 1;
        }
        if (!call.quiet)
            std::printf("%s: %dx%d -> %d bits, order %s\n", in.c_str(), w, h, bits,
                        cli::choiceName(kOrderNames, orderIndex).c_str());
    }
    std::string note;
    rc = image::write(out, result, &why, &note);
    K_FreeBitmap(&result);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "convert: %s: %s\n", out.c_str(), why.empty() ? cli::statusText(rc).c_str() : why.c_str());
        return 1;
    }
    if (!note.empty()) std::fprintf(stderr, "convert: %s: %s\n", out.c_str(), note.c_str());
    if (!call.quiet) std::printf("wrote %s\n", out.c_str());
    return 0;
}

cli::RegisterCommand reg({"convert", "IN OUT", "convert a picture to another file format, depth or palette",
                          runConvert,
                          {{"--bits", cli::Type::Int, "N", "depth: 1..8 dithers to a palette; 12, 16, 24, 32, 48, 64 convert", 1, 64},
                           {"--order", cli::Type::Choice, "O", "colour order of the deeper depths", 0, 0, kOrderNames},
                           {"--dither", cli::Type::Choice, "M", "dithering method", 0, 0,
                            "nearest|floyd|stucki|burkes|sierra|stevenson|jarvis|ordered|clustered"},
                           {"--palette", cli::Type::Choice, "P", "palette for 1..8 bits", 0, 0, kPaletteNames},
                           {"--quality", cli::Type::Int, "Q", "JPEG quality", 1, 100}},
                          2, 2,
                          "  Without --bits the picture keeps its depth and changes only its file format (from\n"
                          "  the extension: .png .jpg .tif .pbm .pgm .ppm .pnm .pam)."});

// `ombrix dither`: convert to a palette of 1..8 bits (8 unless --bits says
// otherwise), Floyd-Steinberg unless --dither names another method.
const cli::Option kDitherDefaultBits{"--bits", cli::Type::Int, "N", "", 1, 8};
int runDither(const cli::Call& call) {
    cli::Call c = call;
    if (!c.has("--bits")) c.given.push_back({&kDitherDefaultBits, "8"});
    return runConvert(c);
}
cli::RegisterCommand regDither({"dither", "IN OUT", "dither a picture to a palette of 1..8 bits (Floyd-Steinberg by default)",
                                runDither,
                                {{"--bits", cli::Type::Int, "N", "depth of the palette picture (default 8)", 1, 8},
                                 {"--dither", cli::Type::Choice, "M", "dithering method", 0, 0,
                                  "nearest|floyd|stucki|burkes|sierra|stevenson|jarvis|ordered|clustered"},
                                 {"--palette", cli::Type::Choice, "P", "palette", 0, 0, kPaletteNames}},
                                2, 2});

// ---------------------------------------------------------------- demo

// The dispersed threshold table of the ordered method, as documented.
const int kDispersed[8][8] = {
    {0, 128, 32, 160, 8, 136, 40, 168},   {192, 64, 224, 96, 200, 72, 232, 104},
    {48, 176, 16, 144, 56, 184, 24, 152}, {236, 112, 208, 80, 244, 120, 216, 88},
    {12, 140, 44, 172, 4, 132, 36, 164},  {204, 76, 232, 108, 196, 68, 228, 100},
    {60, 188, 28, 156, 52, 180, 20, 148}, {248, 124, 220, 92, 240, 116, 212, 84}};

bool demoDither(cli::Report& rep, const BITMAPRECORD& sample) {
    BITMAPRECORD* s = const_cast<BITMAPRECORD*>(&sample);
    if (sample.nBitsPerPixel != 24 || K_AccessBitmap(s) != KS_SUCCESS) {
        rep.check(false, "access the 24-bit sample");
        return false;
    }
    Picture pic;
    pic.width = sample.nWidth, pic.height = sample.nHeight;
    for (int y = 0; y < sample.nHeight; ++y) {
        const uint8_t* row = s->pData + size_t(y) * sample.nBytesPerLine;
        pic.bgr.insert(pic.bgr.end(), row, row + size_t(sample.nWidth) * 3);
    }
    K_ReleaseBitmap(s);
    if (sample.nOrder == ORDER_RGB)
        for (size_t i = 0; i < pic.bgr.size(); i += 3) std::swap(pic.bgr[i], pic.bgr[i + 2]);
    const size_t n = size_t(pic.width) * size_t(pic.height);
    auto mean = [&](const Picture& p, int c) {
        double sum = 0;
        for (size_t i = 0; i < n; ++i) sum += p.bgr[3 * i + size_t(c)];
        return sum / double(n);
    };

    // 1. Floyd-Steinberg to the fixed 256-colour palette keeps the mean colour.
    RGBQUAD fixed256[256];
    K_GetFixedPalette(fixed256, 8);
    Picture out;
    size_t used = 0;
    double sec = 0;
    int32_t rc = ditherPicture(pic, DITHER_FLOYD_STEINBERG, fixed256, 256, out, &used, &sec);
    rep.saveBgr("dither-floyd-fixed256.png", out.width, out.height, out.bgr.data());
    rep.check(rc == KS_SUCCESS, "Floyd-Steinberg to the fixed 256-colour palette");
    double worst = 0;
    for (int c = 0; c < 3; ++c) worst = std::max(worst, std::fabs(mean(out, c) - mean(pic, c)));
    char line[200];
    std::snprintf(line, sizeof line, "%dx%d in %.2f ms, %zu colours used, mean colour off by at most %.2f levels",
                  pic.width, pic.height, sec * 1e3, used, worst);
    rep.line(line);
    rep.check(worst < 2.0, "error diffusion keeps the mean colour (within 2 levels)");

    // 2. Every method runs; error-diffusion methods keep the mean grey on 1 bit.
    RGBQUAD bw[2];
    K_GetFixedPalette(bw, 1);
    bool allRan = true;
    std::string means;
    for (int m = 0; m <= 8; ++m) {
        rc = ditherPicture(pic, m, bw, 2, out, &used, &sec);
        allRan = allRan && rc == KS_SUCCESS && used <= 2;
        std::snprintf(line, sizeof line, "%s %.0f%%", kMethodNames[m], 100.0 * mean(out, 1) / 255.0);
        means += (m ? ", " : "") + std::string(line);
    }
    rep.check(allRan, "all nine methods dither the sample to black and white");
    double greySum = 0;
    for (size_t i = 0; i < n; ++i)
        greySum += (2 * pic.bgr[3 * i + 2] + 5 * pic.bgr[3 * i + 1] + pic.bgr[3 * i] + 4) >> 3;
    std::snprintf(line, sizeof line, "mean grey of the sample %.0f%%", 100.0 * greySum / double(n) / 255.0);
    rep.line(line);
    rep.line("white share by method: " + means);

    // 3. Ordered dithering to two colours is the threshold rule, pixel for pixel.
    rc = ditherPicture(pic, DITHER_ORDERED, bw, 2, out, nullptr, nullptr);
    rep.saveBgr("dither-ordered-black-white.png", out.width, out.height, out.bgr.data());
    size_t mismatches = 0;
    for (int y = 0; y < pic.height; ++y)
        for (int x = 0; x < pic.width; ++x) {
            const uint8_t* p = &pic.bgr[(size_t(y) * size_t(pic.width) + size_t(x)) * 3];
            const int grey = (5 * p[1] + 2 * (p[2] + 2) + p[0]) >> 3;
            const int want = grey > kDispersed[y & 7][x & 7] ? 255 : 0;
            mismatches += out.bgr[(size_t(y) * size_t(pic.width) + size_t(x)) * 3] != want;
        }
    rep.check(rc == KS_SUCCESS && mismatches == 0, "ordered dithering to two colours follows the threshold table");

    // 4. A caller palette (the 16 fixed colours, reversed) maps through the
    //    5-5-5 match table: each pixel gets the entry nearest to its grid point.
    RGBQUAD vga[16], reversed[16];
    K_GetFixedPalette(vga, 4);
    for (int i = 0; i < 16; ++i) reversed[i] = vga[15 - i];
    rc = ditherPicture(pic, DITHER_NEAREST, reversed, 16, out, &used, nullptr);
    mismatches = 0;
    for (size_t i = 0; i < n; ++i) {
        const uint8_t* p = &pic.bgr[3 * i];
        const int k = K_FindPaletteIndex(reversed, 16, p[2] & 0xF8, p[1] & 0xF8, p[0] & 0xF8);
        mismatches += out.bgr[3 * i] != reversed[k].rgbBlue || out.bgr[3 * i + 1] != reversed[k].rgbGreen ||
                      out.bgr[3 * i + 2] != reversed[k].rgbRed;
    }
    rep.check(rc == KS_SUCCESS && mismatches == 0, "a caller palette goes through the 5-5-5 match table");

    // 5. The web palette with Stucki weights.
    RGBQUAD web[256];
    std::memcpy(web, K_IntGetNetscapePalette(), sizeof web);
    rc = ditherPicture(pic, DITHER_STUCKI, web, 256, out, &used, &sec);
    rep.saveBgr("dither-stucki-web.png", out.width, out.height, out.bgr.data());
    std::set<uint32_t> colours;
    for (size_t i = 0; i < n; ++i)
        colours.insert(uint32_t(out.bgr[3 * i]) | uint32_t(out.bgr[3 * i + 1]) << 8 | uint32_t(out.bgr[3 * i + 2]) << 16);
    bool onGrid = true;
    for (uint32_t c : colours) onGrid = onGrid && (c & 0xFF) % 51 == 0 && (c >> 8 & 0xFF) % 51 == 0 && (c >> 16) % 51 == 0;
    rep.check(rc == KS_SUCCESS && onGrid, "Stucki to the web palette: " + std::to_string(colours.size()) +
                                              " colours, all on the web grid");
    return true;
}

cli::RegisterDemo demo({"dithering", 45, demoDither});

}  // namespace
