// cmd_convert.cpp - `ombrix convert`: a PNM picture to another depth, colour
// order and palette, dithered when the target has a palette; and the demo
// section that dithers the sample with self-checks. Public API only.
//
// The PNM reading and writing here is a small private helper (binary P4, P5,
// P6; maxval up to 65535) until the tool's shared PNM module is available to
// this command.
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

namespace {

// ---------------------------------------------------------------- PNM

struct Picture {
    int width = 0, height = 0;
    std::vector<uint8_t> bgr;  // rows of width * 3 bytes, top row first
};

bool readToken(FILE* f, std::string& tok) {
    tok.clear();
    int c = std::fgetc(f);
    for (;;) {
        while (c != EOF && std::isspace(c)) c = std::fgetc(f);
        if (c == '#') {
            while (c != EOF && c != '\n') c = std::fgetc(f);
            continue;
        }
        break;
    }
    while (c != EOF && !std::isspace(c)) {
        tok += char(c);
        c = std::fgetc(f);
    }
    return !tok.empty();  // the single whitespace after the token is consumed
}

bool readPnm(const std::string& path, Picture& pic, std::string& why) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        why = "cannot open " + path;
        return false;
    }
    std::string magic, tw, th, tm = "1";
    bool ok = readToken(f, magic) && (magic == "P4" || magic == "P5" || magic == "P6") && readToken(f, tw) &&
              readToken(f, th) && (magic == "P4" || readToken(f, tm));
    long w = ok ? std::strtol(tw.c_str(), nullptr, 10) : 0, h = ok ? std::strtol(th.c_str(), nullptr, 10) : 0;
    long maxval = std::strtol(tm.c_str(), nullptr, 10);
    if (!ok || w <= 0 || h <= 0 || w > 100000 || h > 100000 || maxval < 1 || maxval > 65535) {
        std::fclose(f);
        why = "not a binary PNM picture (P4, P5 or P6)";
        return false;
    }
    pic.width = int(w), pic.height = int(h);
    pic.bgr.assign(size_t(w) * size_t(h) * 3, 0);
    const int channels = magic == "P6" ? 3 : 1;
    const int sampleBytes = maxval > 255 ? 2 : 1;
    const size_t rowBytes = magic == "P4" ? size_t(w + 7) / 8 : size_t(w) * size_t(channels) * size_t(sampleBytes);
    std::vector<uint8_t> row(rowBytes);
    for (long y = 0; y < h && ok; ++y) {
        ok = std::fread(row.data(), 1, rowBytes, f) == rowBytes;
        uint8_t* d = pic.bgr.data() + size_t(y) * size_t(w) * 3;
        for (long x = 0; x < w && ok; ++x) {
            int v[3];
            if (magic == "P4") {
                v[0] = v[1] = v[2] = (row[size_t(x) / 8] >> (7 - x % 8)) & 1 ? 0 : 255;  // 1 is black
            } else {
                for (int c = 0; c < channels; ++c) {
                    size_t k = (size_t(x) * size_t(channels) + size_t(c)) * size_t(sampleBytes);
                    long s = sampleBytes == 2 ? (row[k] << 8 | row[k + 1]) : row[k];
                    v[c] = int((s * 255 + maxval / 2) / maxval);
                }
                if (channels == 1) v[1] = v[2] = v[0];
            }
            d[3 * x] = uint8_t(v[2]), d[3 * x + 1] = uint8_t(v[1]), d[3 * x + 2] = uint8_t(v[0]);
        }
    }
    std::fclose(f);
    if (!ok) why = "truncated picture data";
    return ok;
}

// Writes P5 when every pixel is grey, else P6.
bool writePnm(const std::string& path, const Picture& pic, std::string& why) {
    bool grey = true;
    for (size_t i = 0; i < pic.bgr.size() && grey; i += 3)
        grey = pic.bgr[i] == pic.bgr[i + 1] && pic.bgr[i + 1] == pic.bgr[i + 2];
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) {
        why = "cannot create " + path;
        return false;
    }
    std::fprintf(f, "%s\n%d %d\n255\n", grey ? "P5" : "P6", pic.width, pic.height);
    std::vector<uint8_t> row(size_t(pic.width) * 3);
    bool ok = true;
    for (int y = 0; y < pic.height && ok; ++y) {
        const uint8_t* s = pic.bgr.data() + size_t(y) * size_t(pic.width) * 3;
        size_t n = 0;
        for (int x = 0; x < pic.width; ++x) {
            if (grey) {
                row[n++] = s[3 * x];
            } else {
                row[n++] = s[3 * x + 2], row[n++] = s[3 * x + 1], row[n++] = s[3 * x];
            }
        }
        ok = std::fwrite(row.data(), 1, n, f) == n;
    }
    ok = (std::fclose(f) == 0) && ok;
    if (!ok) why = "write error on " + path;
    return ok;
}

// ------------------------------------------------------------ dithering

const char* const kMethodNames[9] = {"nearest", "floyd",   "stucki",  "burkes",   "sierra",
                                     "stevenson", "jarvis", "ordered", "clustered"};

int parseMethod(const std::string& s) {
    for (int i = 0; i < 9; ++i)
        if (s == kMethodNames[i]) return i;
    char* end = nullptr;
    long v = std::strtol(s.c_str(), &end, 10);
    return (end && *end == 0 && v >= 0 && v <= 8) ? int(v) : -1;
}

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

int runConvert(const cli::Args& args) {
    std::string in, out, paletteKind = "fixed";
    int bits = 0, order = ORDER_BGR, method = DITHER_FLOYD_STEINBERG;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](const char* name) -> std::string {
            if (i + 1 >= args.size()) {
                std::fprintf(stderr, "convert: %s needs a value\n", name);
                std::exit(2);
            }
            return args[++i];
        };
        if (a == "--bits") bits = std::atoi(value("--bits").c_str());
        else if (a == "--order") order = std::atoi(value("--order").c_str());
        else if (a == "--dither") {
            method = parseMethod(value("--dither"));
            if (method < 0) {
                std::fprintf(stderr, "convert: --dither takes 0..8 or one of nearest, floyd, stucki, burkes, sierra, "
                                     "stevenson, jarvis, ordered, clustered\n");
                return 2;
            }
        } else if (a == "--palette") paletteKind = value("--palette");
        else if (in.empty()) in = a;
        else if (out.empty()) out = a;
        else {
            std::fprintf(stderr, "convert: unexpected argument '%s'\n", a.c_str());
            return 2;
        }
    }
    const bool depthOk = (bits >= 1 && bits <= 8) || bits == 12 || bits == 16 || bits == 24 || bits == 32 ||
                         bits == 48 || bits == 64;
    if (in.empty() || out.empty() || !depthOk) {
        std::fprintf(stderr, "usage: ombrix convert IN.pnm OUT.pnm --bits N [--order O] [--dither M] "
                             "[--palette fixed|web|gray]\n"
                             "  N 1..8 dithers to a palette; 12, 16, 24, 32, 48, 64 convert (order O: 0 RGB, 1 BGR,\n"
                             "  2 grey, 5 wide primaries, 7 5-6-5) and back to 24 bits for the output picture\n");
        return 2;
    }
    Picture pic, res;
    std::string why;
    if (!readPnm(in, pic, why)) {
        std::fprintf(stderr, "convert: %s\n", why.c_str());
        return 1;
    }
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
        } else if (paletteKind == "gray" || paletteKind == "grey") {
            RGBQUAD* ramp = K_CreateGrayPalette(bits);
            if (!ramp) return 1;
            std::memcpy(pal.data(), ramp, pal.size() * sizeof(RGBQUAD));
            K_GlobalFree(ramp);
        } else {
            std::fprintf(stderr, "convert: --palette is fixed, web or gray\n");
            return 2;
        }
        size_t used = 0;
        double sec = 0;
        int32_t rc = ditherPicture(pic, method, pal.data(), colors, res, &used, &sec);
        if (rc != KS_SUCCESS) {
            std::fprintf(stderr, "convert: dithering failed: %s\n", cli::statusText(rc).c_str());
            return 1;
        }
        std::printf("%s: %dx%d -> %d bits, %s palette, %s dithering: %zu of %u colours used, %.1f ms "
                    "(%.1f Mpixel/s)\n",
                    in.c_str(), pic.width, pic.height, bits, paletteKind.c_str(), kMethodNames[method], used, colors,
                    sec * 1e3, double(pic.width) * pic.height / sec / 1e6);
    } else {
        const uint32_t need = K_CalcConvertSize(pic.width, 24, pic.width, bits);
        std::vector<uint8_t> row(need);
        res = pic;
        for (int y = 0; y < pic.height; ++y) {
            uint8_t* d = res.bgr.data() + size_t(y) * size_t(pic.width) * 3;
            std::memcpy(row.data(), d, size_t(pic.width) * 3);
            int32_t rc = K_ConvertBuffer(row.data(), pic.width, 24, bits, ORDER_BGR, order, nullptr, nullptr);
            if (rc == KS_SUCCESS)
                rc = K_ConvertBuffer(row.data(), pic.width, bits, 24, order, ORDER_BGR, nullptr, nullptr);
            if (rc != KS_SUCCESS) {
                std::fprintf(stderr, "convert: %d bits, order %d: %s\n", bits, order, cli::statusText(rc).c_str());
                return 1;
            }
            std::memcpy(d, row.data(), size_t(pic.width) * 3);
        }
        std::printf("%s: %dx%d -> %d bits, order %d, and back to 24 bits\n", in.c_str(), pic.width, pic.height,
                    bits, order);
    }
    if (!writePnm(out, res, why)) {
        std::fprintf(stderr, "convert: %s\n", why.c_str());
        return 1;
    }
    std::printf("wrote %s\n", out.c_str());
    return 0;
}

cli::RegisterCommand reg({"convert", "IN.pnm OUT.pnm --bits N [--order O] [--dither M] [--palette fixed|web|gray]",
                          "convert a picture to another depth, dithering to a palette", runConvert});

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
