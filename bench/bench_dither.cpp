// bench_dither.cpp - the dithering engine on a 4000x3000 24-bit image:
// Floyd-Steinberg to the fixed 256-colour palette and to 1 bit, the other
// methods to the fixed 256-colour palette, and a caller palette through the
// match table. Items are pixels (items/s = pixels/s); bytes are the 24-bit
// source, so the memcpy of the same 36 MB reads as a ratio.
//
// BM_Dither_Floyd_Grey8_1bit_WholeBitmap dithers the same grey picture as
// one bitmap (K_ColorResBitmap), where the engine runs blocks of rows.
//
// Peers: Leptonica (OMBRIX_HAVE_LEPTONICA) - pixDitherToBinary on the 8-bit
// grey image (its own input format; compare BM_Dither_Floyd_Grey8_1bit), the
// same after pixConvertRGBToGray from 32 bits (compare _Floyd_1bit), and
// pixFixedOctcubeQuant256 with dithering on the 32-bit image (compare
// _Floyd_Fixed256). Pillow: BM_Dither_Pillow_* run bench/pillow_dither.py
// once with the system interpreter (when it has python3-pil) and report its
// best-of-three times: quantize to the fixed 256 colours (compare
// _Floyd_Fixed256), quantize to black and white in colour (compare
// _Floyd_1bit: the same per-channel job), convert('1') through grey
// (compare _Floyd_Grey8_1bit plus the 24-to-grey conversion) and the web
// palette (compare _Floyd_Web).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench_common.h"
#include "ombrix.h"

#ifdef OMBRIX_HAVE_LEPTONICA
#include <leptonica/allheaders.h>
#endif

namespace {

constexpr int kW = 4000, kH = 3000;

// A photograph-like test image: smooth gradients, a few edges, mild noise.
const std::vector<uint8_t>& image24() {
    static const std::vector<uint8_t> img = [] {
        std::vector<uint8_t> v(size_t(kW) * kH * 3);
        std::mt19937 rng(42);
        for (int y = 0; y < kH; ++y) {
            uint8_t* row = v.data() + size_t(y) * kW * 3;
            for (int x = 0; x < kW; ++x) {
                int n = int(rng() % 9) - 4;
                int b = (x * 255) / kW + n, g = (y * 255) / kH + n, r = ((x + y) / 16 % 2) ? 200 + n : 40 + n;
                if ((x - 2000) * (x - 2000) + (y - 1500) * (y - 1500) < 800 * 800) r = 255 - g;
                row[3 * x] = uint8_t(std::clamp(b, 0, 255));
                row[3 * x + 1] = uint8_t(std::clamp(g, 0, 255));
                row[3 * x + 2] = uint8_t(std::clamp(r, 0, 255));
            }
        }
        return v;
    }();
    return img;
}

void ditherImage(benchmark::State& state, int method, const RGBQUAD* pal, uint32_t colors) {
    const auto& img = image24();
    BITMAPRECORD bm;
    K_InitBitmap(&bm, BITMAPRECORD_SIZE, kW, kH, 24);
    bm.nDitheringMethod = method;
    std::vector<uint8_t> out(size_t(kW) * kH);
    const size_t outLine = (size_t(kW) * 8 + 7) / 8;
    for (auto _ : state) {
        if (K_StartDithering(&bm, pal, colors) != KS_SUCCESS) state.SkipWithError("start failed");
        for (int y = 0; y < kH; ++y)
            K_DitherLine(&bm, img.data() + size_t(y) * kW * 3, out.data() + size_t(y) * outLine);
        K_StopDithering(&bm);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kW * kH);
    state.SetBytesProcessed(int64_t(state.iterations()) * kW * kH * 3);
    K_FreeBitmap(&bm);
}

// The same picture in 8-bit grey (the kernel's grey), for the grey runs.
const std::vector<uint8_t>& image8() {
    static const std::vector<uint8_t> img = [] {
        const auto& c = image24();
        std::vector<uint8_t> g(size_t(kW) * kH);
        for (size_t i = 0; i < g.size(); ++i) g[i] = uint8_t((2 * c[3 * i + 2] + 5 * c[3 * i + 1] + c[3 * i] + 4) >> 3);
        return g;
    }();
    return img;
}

// An 8-bit grey picture (grey-ramp palette) to 1 bit: one channel is diffused.
void BM_Dither_Floyd_Grey8_1bit(benchmark::State& state) {
    const auto& img = image8();
    BITMAPRECORD bm;
    K_InitBitmap(&bm, BITMAPRECORD_SIZE, kW, kH, 8);
    bm.pPalette = K_CreateGrayPalette(8);
    bm.nDitheringMethod = DITHER_FLOYD_STEINBERG;
    const size_t outLine = (size_t(kW) + 7) / 8;
    std::vector<uint8_t> out(outLine * kH);
    for (auto _ : state) {
        if (K_StartDithering(&bm, nullptr, 2) != KS_SUCCESS) state.SkipWithError("start failed");
        for (int y = 0; y < kH; ++y) K_DitherLine(&bm, img.data() + size_t(y) * kW, out.data() + size_t(y) * outLine);
        K_StopDithering(&bm);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kW * kH);
    state.SetBytesProcessed(int64_t(state.iterations()) * kW * kH * 3);
    K_FreeBitmap(&bm);
}

// The same grey picture as one 8-bit bitmap to 1 bit in one call
// (K_ColorResBitmap, Floyd-Steinberg to the fixed two colours): the engine
// gets whole blocks of rows and runs them as a wavefront. Each iteration
// also creates the 1.5 MB destination bitmap the call returns.
void BM_Dither_Floyd_Grey8_1bit_WholeBitmap(benchmark::State& state) {
    const auto& img = image8();
    BITMAPRECORD src;
    if (K_CreateBitmap(&src, BITMAPRECORD_SIZE, 1, kW, kH, 8, ORDER_RGB, nullptr, 1, nullptr, 0) != KS_SUCCESS ||
        K_SetBitmapPalette(&src, K_CreateGrayPalette(8), 256) != KS_SUCCESS) {
        state.SkipWithError("create failed");
        return;
    }
    for (int y = 0; y < kH; ++y) K_PutBitmapRow(&src, img.data() + size_t(y) * kW, y, kW);
    for (auto _ : state) {
        BITMAPRECORD dst{};
        if (K_ColorResBitmap(&src, &dst, 1, CRF_FIXEDPALETTE | CRF_DITHER(DITHER_FLOYD_STEINBERG), nullptr, 0,
                             BITMAPRECORD_SIZE) != KS_SUCCESS)
            state.SkipWithError("colour resolution failed");
        benchmark::DoNotOptimize(dst.pData);
        K_FreeBitmap(&dst);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kW * kH);
    state.SetBytesProcessed(int64_t(state.iterations()) * kW * kH * 3);
    K_FreeBitmap(&src);
}

void BM_Dither_Memcpy24(benchmark::State& state) { bench::memcpyBaseline(state, size_t(kW) * kH * 3); }
void BM_Dither_Floyd_Fixed256(benchmark::State& state) { ditherImage(state, DITHER_FLOYD_STEINBERG, nullptr, 256); }
void BM_Dither_Floyd_1bit(benchmark::State& state) { ditherImage(state, DITHER_FLOYD_STEINBERG, nullptr, 2); }
void BM_Dither_Floyd_Web(benchmark::State& state) { ditherImage(state, DITHER_FLOYD_STEINBERG, K_IntGetNetscapePalette(), 256); }
void BM_Dither_Method_Fixed256(benchmark::State& state) { ditherImage(state, int(state.range(0)), nullptr, 256); }
void BM_Dither_Floyd_CallerPalette(benchmark::State& state) {
    // A caller palette of 200 colours: the run builds a 5-5-5 match table.
    std::vector<RGBQUAD> pal(200);
    std::mt19937 rng(5);
    for (auto& e : pal) e = RGBQUAD{uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), 0};
    ditherImage(state, DITHER_FLOYD_STEINBERG, pal.data(), 200);
}

BENCHMARK(BM_Dither_Memcpy24)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dither_Floyd_Fixed256)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dither_Floyd_1bit)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dither_Floyd_Grey8_1bit)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dither_Floyd_Grey8_1bit_WholeBitmap)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dither_Floyd_Web)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dither_Floyd_CallerPalette)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dither_Method_Fixed256)->DenseRange(0, 8)->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------- Pillow
#ifdef OMBRIX_PILLOW_SCRIPT
// The script's "key seconds" lines, from one run per process.
const std::map<std::string, double>& pillowTimes() {
    static const std::map<std::string, double> times = [] {
        std::map<std::string, double> m;
        const std::string cmd = std::string("/usr/bin/python3 '") + OMBRIX_PILLOW_SCRIPT + "' --machine 2>/dev/null";
        if (FILE* f = popen(cmd.c_str(), "r")) {
            char key[64];
            double t;
            while (std::fscanf(f, "%63s %lf", key, &t) == 2) m[key] = t;
            pclose(f);
        }
        return m;
    }();
    return times;
}
void pillowCase(benchmark::State& state, const char* key) {
    const auto& m = pillowTimes();
    const auto it = m.find(key);
    if (it == m.end()) {
        state.SkipWithError("/usr/bin/python3 with python3-pil is not installed");
        return;
    }
    for (auto _ : state) state.SetIterationTime(it->second);
    state.SetItemsProcessed(int64_t(state.iterations()) * kW * kH);
    state.SetBytesProcessed(int64_t(state.iterations()) * kW * kH * 3);
}
BENCHMARK_CAPTURE(pillowCase, Pillow_Fixed256, "fixed256")->Name("BM_Dither_Pillow_Fixed256")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(pillowCase, Pillow_1bitColour, "bw_colour")->Name("BM_Dither_Pillow_1bit_Colour")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(pillowCase, Pillow_1bitGrey, "bw_grey")->Name("BM_Dither_Pillow_1bit_ThroughGrey")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(pillowCase, Pillow_Web, "web")->Name("BM_Dither_Pillow_Web")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
#endif

#ifdef OMBRIX_HAVE_LEPTONICA
PIX* leptonicaImage(int depth) {
    const auto& img = image24();
    PIX* pix = pixCreate(kW, kH, 32);
    l_uint32* data = pixGetData(pix);
    const int wpl = pixGetWpl(pix);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            const uint8_t* p = img.data() + (size_t(y) * kW + size_t(x)) * 3;
            l_uint32 v;
            composeRGBPixel(p[2], p[1], p[0], &v);
            data[size_t(y) * size_t(wpl) + size_t(x)] = v;
        }
    if (depth == 32) return pix;
    pixDestroy(&pix);
    // The same 8-bit grey picture the kernel's grey run dithers.
    const auto& g = image8();
    PIX* grey = pixCreate(kW, kH, 8);
    l_uint32* gd = pixGetData(grey);
    const int gwpl = pixGetWpl(grey);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) SET_DATA_BYTE(gd + size_t(y) * size_t(gwpl), x, g[size_t(y) * kW + size_t(x)]);
    return grey;
}

void BM_Dither_Leptonica_DitherToBinary_Grey8(benchmark::State& state) {
    PIX* grey = leptonicaImage(8);
    for (auto _ : state) {
        PIX* out = pixDitherToBinary(grey);
        benchmark::DoNotOptimize(out);
        pixDestroy(&out);
    }
    pixDestroy(&grey);
    state.SetItemsProcessed(int64_t(state.iterations()) * kW * kH);
    state.SetBytesProcessed(int64_t(state.iterations()) * kW * kH * 3);
}
void BM_Dither_Leptonica_RGBToGrayThenBinary(benchmark::State& state) {
    PIX* rgb = leptonicaImage(32);
    for (auto _ : state) {
        PIX* grey = pixConvertRGBToGray(rgb, 0.25f, 0.625f, 0.125f);
        PIX* out = pixDitherToBinary(grey);
        benchmark::DoNotOptimize(out);
        pixDestroy(&out);
        pixDestroy(&grey);
    }
    pixDestroy(&rgb);
    state.SetItemsProcessed(int64_t(state.iterations()) * kW * kH);
    state.SetBytesProcessed(int64_t(state.iterations()) * kW * kH * 3);
}
void BM_Dither_Leptonica_FixedOctcube256(benchmark::State& state) {
    PIX* rgb = leptonicaImage(32);
    for (auto _ : state) {
        PIX* out = pixFixedOctcubeQuant256(rgb, 1);
        benchmark::DoNotOptimize(out);
        pixDestroy(&out);
    }
    pixDestroy(&rgb);
    state.SetItemsProcessed(int64_t(state.iterations()) * kW * kH);
    state.SetBytesProcessed(int64_t(state.iterations()) * kW * kH * 3);
}
BENCHMARK(BM_Dither_Leptonica_DitherToBinary_Grey8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dither_Leptonica_RGBToGrayThenBinary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dither_Leptonica_FixedOctcube256)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
