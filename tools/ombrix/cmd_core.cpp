// cmd_core.cpp - the core commands of the ombrix tool:
//
//   ombrix info                  version, CPU features, cores, then every info section
//   ombrix errors [CODE]         one status code, or every code that has a message
//   ombrix demo [--in FILE] [--out DIR]
//                                builds the sample image (or reads a PNM/PAM picture),
//                                runs every demo section in order and reports the checks
//
// The demo sample handed to every section is a 24-bit ORDER_BGR bitmap in
// conventional memory, view perspective TOP_LEFT (a picture given with --in
// is expanded to that format). Sections must not change it.
//
// This file also holds the demo section of the record and the palettes.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"

namespace {

std::string hex(uint32_t v) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%06X", v);
    return b;
}

// ---------------------------------------------------------------- info

int cmdInfo(const cli::Call&) {
    std::printf("%s\n", K_GetVersionString());
    const uint32_t f = K_GetCpuFeatures();
    const bool avx512 = __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vbmi");
    std::printf("cpu features: %s%s%s%s%s\n", f & 1 ? "sse2 " : "", f & 2 ? "ssse3 " : "", f & 4 ? "sse4.1 " : "",
                f & 8 ? "avx2 " : "", avx512 ? "avx512bw+vbmi" : "");
    // The converter's rule: the widest kernels the processor has, capped by
    // OMBRIX_SIMD (none, ssse3, avx2) as read when the process starts.
    const char* cap = std::getenv("OMBRIX_SIMD");
    const int capLevel = !cap ? 3 : !std::strcmp(cap, "none") ? 0 : !std::strcmp(cap, "ssse3") ? 1
                                 : !std::strcmp(cap, "avx2") ? 2 : 3;
    const int cpuLevel = avx512 ? 3 : (f & 8) ? 2 : (f & 2) ? 1 : 0;
    static const char* const levels[] = {"none (plain C++)", "ssse3", "avx2", "avx-512 (bw, vbmi)"};
    std::printf("simd in use: %s", levels[std::min(capLevel, cpuLevel)]);
    if (cap) std::printf("  (OMBRIX_SIMD=%s caps it; the processor has %s)\n", cap, levels[cpuLevel]);
    else std::printf("  (the widest this processor has; OMBRIX_SIMD=none, ssse3 or avx2 caps it)\n");
    std::printf("cores: %d\n", K_GetProcessorCount());
    std::printf("file formats: %s\n", image::formatsText().c_str());
    auto sections = cli::infoSections();
    std::stable_sort(sections.begin(), sections.end(), [](auto& a, auto& b) { return a.order < b.order; });
    for (const auto& s : sections) {
        std::printf("\n[%s]\n", s.name);
        s.run();
    }
    return 0;
}

// ---------------------------------------------------------------- errors

const char* libName(int32_t id) {
    switch (id) {
        case OMBRIX_LIB_KERNEL: return "kernel";
        case OMBRIX_LIB_FILEIO: return "file I/O";
        case OMBRIX_LIB_DIALOGS: return "dialogs";
        case OMBRIX_LIB_ANNOTATION: return "annotation";
        case OMBRIX_LIB_COLOR: return "colour";
        default: return "unknown";
    }
}

// Messages may hold line breaks; the table shows them on one line.
std::string oneLine(std::string s) {
    for (char& c : s)
        if (c == '\n' || c == '\r') c = ' ';
    return s;
}

int cmdErrors(const cli::Call& call) {
    const cli::Args& args = call.args;
    if (args.size() == 1) {
        char* end = nullptr;
        const long code = std::strtol(args[0].c_str(), &end, 0);
        if (!end || *end || end == args[0].c_str() || code < INT32_MIN || code > INT32_MAX) {
            std::fprintf(stderr, "ombrix errors: '%s' is not a number\n", args[0].c_str());
            return 2;
        }
        int32_t lib = 0, known = 0;
        K_GetLibIdFromErrorCode(int32_t(code), &lib, &known);
        std::printf("%ld  [%s%s]  %s\n", code, libName(lib), known ? "" : ", no message of its own",
                    cli::statusText(int32_t(code)).c_str());
        return 0;
    }
    int shown = 0;
    for (int32_t code = 100; code >= -100000; --code) {
        int32_t lib = 0, known = 0;
        K_GetLibIdFromErrorCode(code, &lib, &known);
        if (!known) continue;
        std::printf("%7d  %-10s %s\n", code, libName(lib), oneLine(cli::statusText(code)).c_str());
        ++shown;
    }
    std::printf("%d codes\n", shown);
    return 0;
}

// ---------------------------------------------------------------- demo

// The built-in sample: gradients, a disc, bars of pure colours, a grey ramp
// and a black frame, so that every family has edges, flats and ramps.
int32_t buildSample(BITMAPRECORD& bm) {
    const int32_t W = 320, H = 240;
    int32_t rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, W, H, 24, ORDER_BGR, nullptr, TOP_LEFT,
                                nullptr, 0);
    if (rc != KS_SUCCESS) return rc;
    rc = K_AccessBitmap(&bm);
    if (rc != KS_SUCCESS) {
        K_FreeBitmap(&bm);
        return rc;
    }
    static const uint8_t bars[6][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 0}, {0, 255, 255}, {255, 0, 255}};
    for (int32_t y = 0; y < H; ++y) {
        uint8_t* row = bm.pData + size_t(y) * bm.nBytesPerLine;
        for (int32_t x = 0; x < W; ++x) {
            int r = x * 255 / (W - 1), g = y * 255 / (H - 1), b = 255 - (x + y) * 255 / (W + H - 2);
            const int dx = x - 100, dy = y - 120;
            if (dx * dx + dy * dy <= 50 * 50) r = g = b = 240;                 // disc
            if (x >= 180 && x < 300 && y >= 30 && y < 120) {                   // colour bars
                const uint8_t* c = bars[(x - 180) / 20];
                r = c[0], g = c[1], b = c[2];
            }
            if (x >= 180 && x < 300 && y >= 150 && y < 210) r = g = b = (x - 180) * 255 / 119;  // grey ramp
            if (x < 2 || y < 2 || x >= W - 2 || y >= H - 2) r = g = b = 0;                      // frame
            row[3 * x] = uint8_t(b), row[3 * x + 1] = uint8_t(g), row[3 * x + 2] = uint8_t(r);
        }
    }
    K_ReleaseBitmap(&bm);
    return KS_SUCCESS;
}

bool samePixels(const BITMAPRECORD& a, const BITMAPRECORD& b) {
    if (a.nWidth != b.nWidth || a.nHeight != b.nHeight || a.nBitsPerPixel != b.nBitsPerPixel) return false;
    BITMAPRECORD* pa = const_cast<BITMAPRECORD*>(&a);
    BITMAPRECORD* pb = const_cast<BITMAPRECORD*>(&b);
    if (K_AccessBitmap(pa) != KS_SUCCESS) return false;
    if (K_AccessBitmap(pb) != KS_SUCCESS) {
        K_ReleaseBitmap(pa);
        return false;
    }
    bool same = true;
    const size_t rowBytes = (size_t(a.nWidth) * size_t(a.nBitsPerPixel) + 7) / 8;
    for (int32_t y = 0; y < a.nHeight && same; ++y)
        same = std::memcmp(pa->pData + size_t(y) * a.nBytesPerLine, pb->pData + size_t(y) * b.nBytesPerLine,
                           rowBytes) == 0;
    K_ReleaseBitmap(pb);
    K_ReleaseBitmap(pa);
    return same;
}

int cmdDemo(const cli::Call& call) {
    const std::string outDir = call.text("--out", ""), inFile = call.text("--in", "");
    std::printf("ombrix demo - %s\n", K_GetVersionString());
    BITMAPRECORD sample;
    int32_t rc;
    if (inFile.empty()) {
        rc = buildSample(sample);
        if (rc != KS_SUCCESS) {
            std::fprintf(stderr, "cannot build the sample: %s\n", cli::statusText(rc).c_str());
            return 1;
        }
        std::printf("sample: built in, %dx%d, 24 bits, BGR\n", sample.nWidth, sample.nHeight);
    } else {
        BITMAPRECORD picture;
        std::string why;
        rc = image::read(inFile, picture, &why);
        if (rc != KS_SUCCESS) {
            std::fprintf(stderr, "cannot read %s: %s (%s)\n", inFile.c_str(), why.c_str(), cli::statusText(rc).c_str());
            return 1;
        }
        rc = image::toBgr24(picture, sample);
        std::printf("sample: %s, %dx%d, %d bits, expanded to 24 bits BGR\n", inFile.c_str(), picture.nWidth,
                    picture.nHeight, picture.nBitsPerPixel);
        K_FreeBitmap(&picture);
        if (rc != KS_SUCCESS) {
            std::fprintf(stderr, "cannot expand %s: %s\n", inFile.c_str(), cli::statusText(rc).c_str());
            return 1;
        }
    }

    cli::Report total;
    if (!outDir.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(outDir, ec);  // an existing directory is fine
        cli::Report::outDir() = outDir;
        // The sample first, read back to check the file.
        const std::string name = image::available(image::Format::Png) ? "sample.png" : "sample.ppm";
        const std::string path = outDir + "/" + name;
        std::printf("\n[output]\n");
        total.save(name, sample);
        BITMAPRECORD back;
        std::string why;
        rc = image::read(path, back, &why);
        total.check(rc == KS_SUCCESS && samePixels(back, sample), "read back " + path + ": same pixels");
        if (rc == KS_SUCCESS) K_FreeBitmap(&back);
    }
    int sectionsFailed = 0;
    auto sections = cli::demoSections();
    std::stable_sort(sections.begin(), sections.end(), [](auto& a, auto& b) { return a.order < b.order; });
    for (const auto& s : sections) {
        std::printf("\n[%s]\n", s.name);
        cli::Report report;
        bool ok = false;
        try {
            ok = s.run(report, sample);
        } catch (const std::exception& e) {
            report.check(false, std::string("section threw: ") + e.what());
        }
        if (!ok || report.failures) ++sectionsFailed;
        total.checks += report.checks;
        total.failures += report.failures;
    }

    K_FreeBitmap(&sample);

    std::printf("\nreport: %zu sections, %d checks, %d failed%s\n", sections.size(), total.checks, total.failures,
                sectionsFailed ? (", " + std::to_string(sectionsFailed) + " section(s) failed").c_str() : "");
    if (!outDir.empty()) std::printf("%d pictures written to %s\n", cli::Report::written(), outDir.c_str());
    return total.failures || sectionsFailed ? 1 : 0;
}

cli::RegisterCommand regInfo({"info", "", "version, CPU features, file formats and library details", cmdInfo, {}, 0, 0});
cli::RegisterCommand regErrors({"errors", "[CODE]", "the message of a status code, or all of them", cmdErrors, {}, 0, 1});
cli::RegisterCommand regDemo({"demo", "", "run every capability on a sample and check it", cmdDemo,
                              {{"--in", cli::Type::Text, "FILE", "a picture to use instead of the built-in sample"},
                               {"--out", cli::Type::Text, "DIR", "write the sample and results into DIR"}},
                              0, 0});

// ---------------------------------------------------------------- demo: record and palettes

// The nearest-entry rule written plainly, to check the library against.
int32_t plainNearest(const RGBQUAD* p, int32_t n, int r, int g, int b) {
    auto grey = [](const RGBQUAD& e, int v) { return e.rgbRed == v && e.rgbGreen == v && e.rgbBlue == v; };
    if (r == 0 && g == 0 && b == 0) {
        if (grey(p[0], 0)) return 0;
        if (grey(p[n - 1], 0)) return n - 1;
    }
    if (r == 255 && g == 255 && b == 255) {
        if (grey(p[n - 1], 255)) return n - 1;
        if (grey(p[0], 255)) return 0;
    }
    auto cls = [](int R, int G, int B) {
        return (R < B ? 4 : 0) + (G < R && G < B ? 2 : 0) + (G > R && G > B ? 1 : 0);
    };
    long best = -1;
    int32_t at = -1;
    for (int32_t i = 0; i < n && best != 0; ++i) {
        long d = long(p[i].rgbRed - r) * (p[i].rgbRed - r) + long(p[i].rgbGreen - g) * (p[i].rgbGreen - g) +
                 long(p[i].rgbBlue - b) * (p[i].rgbBlue - b);
        if (best < 0 || d < best || (d == best && cls(p[i].rgbRed, p[i].rgbGreen, p[i].rgbBlue) == cls(r, g, b)))
            best = d, at = i;
    }
    return at;
}

bool demoPalettes(cli::Report& rep, const BITMAPRECORD& sample) {
    // The record: create, check its fields, free.
    BITMAPRECORD bm;
    int32_t rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, 64, 48, 8, ORDER_BGR, nullptr, TOP_LEFT,
                                nullptr, 0);
    rep.check(rc == KS_SUCCESS && (bm.uFlags & BRF_ALLOCATED) && bm.nBytesPerLine == 64 && bm.nColors == 256,
              "K_CreateBitmap 64x48x8: allocated, 64 bytes per line, 256 colours");
    rep.check(K_CompareBitmapToPalette(&bm, nullptr, 0) == 1, "a new 8-bit bitmap carries the fixed palette");
    K_FreeBitmap(&bm);
    rep.check(!(bm.uFlags & BRF_ALLOCATED) && bm.pPalette == nullptr, "K_FreeBitmap releases storage and palette");

    struct Bad {
        int32_t got, want;
        const char* text;
    } bad[] = {
        {K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, -5, 10, 24, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0),
         KS_INVALID_DIMENSIONS, "Invalid width or height"},
        {K_CreateBitmap(nullptr, BITMAPRECORD_SIZE, 1, 5, 10, 24, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0),
         KS_INVALID_PARAMETER, "Invalid parameter passed"},
        {K_CreateBitmap(&bm, 100, 1, 5, 10, 24, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0), KS_INVALID_STRUCT_SIZE,
         "The structure size is invalid"},
        {K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 5, 10, 11, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0),
         KS_INVALID_BITS_PER_PIXEL, "Invalid bits per pixel"},
    };
    for (const Bad& b : bad)
        rep.check(b.got == b.want && cli::statusText(b.got) == b.text,
                  "refused with " + std::to_string(b.got) + " \"" + cli::statusText(b.got) + "\"");
    rep.check(cli::statusText(1) == "Success", "status 1 reads \"" + cli::statusText(1) + "\"");

    // Fixed palettes.
    const RGBQUAD* web = K_IntGetNetscapePalette();
    const RGBQUAD* p4 = K_IntGetFixedPalette(4);
    rep.check(web[215].rgbRed == 255 && web[215].rgbGreen == 255 && web[215].rgbBlue == 255 && web[216].rgbRed == 0,
              "web palette: entry 215 white, 216 black");
    rep.check(p4[8].rgbRed == 192 && p4[8].rgbGreen == 192 && p4[8].rgbBlue == 192,
              "16-colour palette: entry 8 is (192,192,192)");
    RGBQUAD buf[256];
    rep.check(K_GetFixedPalette(buf, 9) == KS_INVALID_PARAMETER, "no fixed palette for 9 bits");

    // Grey classification, including the 8-entry ramp that classifies as 3.
    RGBQUAD* g8 = K_CreateGrayPalette(8);
    RGBQUAD* g3 = K_CreateGrayPalette(3);
    rep.check(g8 && g3 && K_IsGrayScalePalette(g8, 256) == 1 && K_IsGrayScalePalette(g3, 8) == 3 &&
                  K_IsGrayScalePalette(K_IntGetFixedPalette(8), 256) == 0,
              "grey classes: 256-level ramp 1, 8-level ramp 3, fixed colour palette 0");
    K_GlobalFree(g8);
    K_GlobalFree(g3);

    // Nearest entry of the web palette for every sample pixel, against the plain rule.
    BITMAPRECORD* s = const_cast<BITMAPRECORD*>(&sample);
    if (K_AccessBitmap(s) != KS_SUCCESS) {
        rep.check(false, "access the sample");
        return false;
    }
    std::vector<uint8_t> rgb;
    rgb.reserve(size_t(sample.nWidth) * size_t(sample.nHeight) * 3);
    for (int32_t y = 0; y < sample.nHeight; ++y) {
        const uint8_t* row = s->pData + size_t(y) * sample.nBytesPerLine;
        for (int32_t x = 0; x < sample.nWidth; ++x) {
            rgb.push_back(row[3 * x + 2]);
            rgb.push_back(row[3 * x + 1]);
            rgb.push_back(row[3 * x]);
        }
    }
    K_ReleaseBitmap(s);
    const size_t pixels = rgb.size() / 3;
    std::vector<int32_t> fast(pixels);
    auto t0 = std::chrono::steady_clock::now();
    for (size_t i = 0; i < pixels; ++i) fast[i] = K_FindPaletteIndex(web, 256, rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]);
    auto t1 = std::chrono::steady_clock::now();
    // Every pixel of the built-in sample; about 100000 evenly spread pixels of a large picture.
    const size_t step = pixels > 100000 ? pixels / 100000 : 1;
    size_t mismatches = 0, checked = 0;
    for (size_t i = 0; i < pixels; i += step, ++checked)
        if (fast[i] != plainNearest(web, 256, rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2])) ++mismatches;
    auto t2 = std::chrono::steady_clock::now();
    const double msFast = std::chrono::duration<double, std::milli>(t1 - t0).count();
    const double msPlain = std::chrono::duration<double, std::milli>(t2 - t1).count();
    char line[200];
    std::snprintf(line, sizeof line, "%zu nearest-entry searches (256 entries): %.1f ms (the check against the plain rule: %.1f ms)", pixels,
                  msFast, msPlain);
    rep.line(line);
    rep.check(mismatches == 0, "K_FindPaletteIndex equals the plain rule on " +
                                   (step == 1 ? std::string("every sample pixel") : std::to_string(checked) + " sample pixels"));

    // A user match table for the web palette: reduce the sample to 8 bits through it.
    uint32_t* table = K_CreateUserMatchTable(web, 256);
    if (!table) {
        rep.check(false, "K_CreateUserMatchTable");
        return false;
    }
    bool tableOk = true;
    for (uint32_t k = 0; k < USER_MATCH_TABLE_ENTRIES; k += 97)
        tableOk &= table[k] == uint32_t(plainNearest(web, 256, int(k >> 10) * 8, int(k >> 5 & 31) * 8, int(k & 31) * 8) + 1);
    rep.check(tableOk, "match table words are nearest index + 1 on the 0..248 grid");
    const uint32_t* before = K_SetUserMatchTable(table);
    rep.check(K_GetUserMatchTable() == table, "match table installed for this thread");

    BITMAPRECORD reduced;
    rc = K_CreateBitmap(&reduced, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, sample.nWidth, sample.nHeight, 8, ORDER_BGR,
                        web, TOP_LEFT, nullptr, 0);
    if (rc == KS_SUCCESS && K_AccessBitmap(&reduced) == KS_SUCCESS) {
        const uint32_t* t = K_GetUserMatchTable();
        std::set<uint32_t> used;
        for (int32_t y = 0; y < reduced.nHeight; ++y)
            for (int32_t x = 0; x < reduced.nWidth; ++x) {
                const uint8_t* c = &rgb[(size_t(y) * size_t(sample.nWidth) + size_t(x)) * 3];
                const uint32_t idx = t[(c[0] >> 3) << 10 | (c[1] >> 3) << 5 | (c[2] >> 3)] - 1;
                reduced.pData[size_t(y) * reduced.nBytesPerLine + size_t(x)] = uint8_t(idx);
                used.insert(KCOLOR_RGB(web[idx].rgbRed, web[idx].rgbGreen, web[idx].rgbBlue));
            }
        K_ReleaseBitmap(&reduced);
        int32_t count = -1;
        rc = K_GetBitmapPaletteEntries(&reduced, nullptr, 0, &count);
        rep.check(rc == KS_SUCCESS && size_t(count) == used.size(),
                  "sample reduced to the web palette uses " + std::to_string(count) + " colours");
        int32_t sampleColours = -1;
        K_GetBitmapPaletteEntries(s, nullptr, 0, &sampleColours);
        rep.line("the sample itself has " + std::to_string(sampleColours) + " distinct colours");
        // The centre pixel translated into the reduced bitmap's terms.
        const uint8_t* c = &rgb[(size_t(sample.nHeight / 2) * size_t(sample.nWidth) + size_t(sample.nWidth / 2)) * 3];
        uint32_t v = 0;
        rc = K_TranslateBitmapColor(&reduced, nullptr, KCOLOR_RGB(c[0], c[1], c[2]), &v);
        rep.check(rc == KS_SUCCESS && v == KCOLOR_INDEX(K_FindPaletteIndex(web, 256, c[0], c[1], c[2])),
                  "centre colour " + hex(KCOLOR_RGB(c[0], c[1], c[2])) + " translates to web index " +
                      std::to_string(v & 0xFFFFFF));
    } else {
        rep.check(false, "create the reduced bitmap");
    }
    K_FreeBitmap(&reduced);
    K_SetUserMatchTable(before);
    K_FreeUserMatchTable(table);
    rep.check(K_GetUserMatchTable() == before, "match table uninstalled and freed");
    return true;
}

cli::RegisterDemo regDemoPalettes({"record and palettes", 10, demoPalettes});

void infoPalettes() {
    // The search path follows the CPU: AVX2 when present, else SSE2 (x86-64 baseline).
    const bool avx2 = K_GetCpuFeatures() & 8;
    std::printf("nearest-entry search: %s, %d entries per step\n", avx2 ? "AVX2" : "SSE2", avx2 ? 8 : 4);
    std::printf("fixed palettes: depths 1-8, web palette (216 colours), grey ramps of 2-256 entries\n");
    std::printf("user match table: %d words (5-5-5 index, nearest entry + 1)\n", USER_MATCH_TABLE_ENTRIES);
}
cli::RegisterInfo regInfoPalettes({"palettes", 10, infoPalettes});

}  // namespace
