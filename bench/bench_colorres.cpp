// bench_colorres.cpp - colour resolution of a 4000 x 3000 photo-like 24-bit
// picture, beside memcpy of its bytes and Pillow's quantizers on the same
// picture (bench/pillow_quantize.py, run once per process).
//
//   BM_ColorRes_Memcpy_Source          memcpy of the 36 MB of source pixels
//   BM_ColorRes_24to8_Fixed            24 -> 8 bits, fixed palette, no dithering (new record included)
//   BM_ColorRes_Floyd_Fixed256         24 -> 8 bits, fixed palette, Floyd-Steinberg
//   BM_ColorRes_OptPal/n               24 -> 8 bits, optimised palette of n colours built and
//                                      applied, no dithering; counter "mse" is the error
//   BM_ColorRes_Pillow_MedianCut/n     Image.quantize(n, MEDIANCUT), counter "mse"
//   BM_ColorRes_Pillow_FastOctree/n    Image.quantize(n, FASTOCTREE), counter "mse"
#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "../tests/support/photo_like.h"
#include "bench_common.h"
#include "ombrix.h"

namespace {

constexpr int kW = 4000, kH = 3000;

const std::vector<uint8_t>& picture() {
    static const std::vector<uint8_t> px = phototest::photoLike(kW, kH, 1);
    return px;
}

// The picture as a single-block 24-bit BGR bitmap (rows are 12000 bytes: no padding).
BITMAPRECORD* source() {
    static BITMAPRECORD bm = [] {
        BITMAPRECORD b;
        K_CreateBitmap(&b, BITMAPRECORD_SIZE, 1, kW, kH, 24, ORDER_BGR, nullptr, 1, nullptr, 0);
        const auto& px = picture();
        for (int y = 0; y < kH; ++y) K_PutBitmapRow(&b, px.data() + size_t(y) * kW * 3, y, kW * 3);
        return b;
    }();
    return &bm;
}

double mseOf(BITMAPRECORD* q) {
    const auto& px = picture();
    std::vector<uint8_t> row(q->nBytesPerLine);
    double sum = 0;
    for (int y = 0; y < kH; ++y) {
        K_GetBitmapRow(q, row.data(), y, q->nBytesPerLine);
        const uint8_t* p = px.data() + size_t(y) * kW * 3;
        for (int x = 0; x < kW; ++x, p += 3) {
            const RGBQUAD& e = q->pPalette[row[size_t(x)]];
            const int d0 = e.rgbBlue - p[0], d1 = e.rgbGreen - p[1], d2 = e.rgbRed - p[2];
            sum += d0 * d0 + d1 * d1 + d2 * d2;
        }
    }
    return sum / (3.0 * kW * kH);
}

void BM_ColorRes_Memcpy_Source(benchmark::State& state) { bench::memcpyBaseline(state, size_t(kW) * kH * 3); }

void colorRes(benchmark::State& state, int bits, uint32_t flags, int colours, bool error) {
    BITMAPRECORD* src = source();
    BITMAPRECORD dst;
    double mse = 0;
    for (auto _ : state) {
        if (K_ColorResBitmap(src, &dst, bits, flags, nullptr, colours, BITMAPRECORD_SIZE) != KS_SUCCESS) {
            state.SkipWithError("K_ColorResBitmap failed");
            return;
        }
        state.PauseTiming();
        if (error && mse == 0) mse = mseOf(&dst);
        K_FreeBitmap(&dst);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kW * kH);
    state.SetBytesProcessed(int64_t(state.iterations()) * kW * kH * 3);
    if (error) state.counters["mse"] = mse;
}

void BM_ColorRes_24to8_Fixed(benchmark::State& state) { colorRes(state, 8, CRF_FIXEDPALETTE | CRF_NODITHERING, 0, false); }
void BM_ColorRes_Floyd_Fixed256(benchmark::State& state) {
    colorRes(state, 8, CRF_FIXEDPALETTE | CRF_DITHER(DITHER_FLOYD_STEINBERG), 0, false);
}
void BM_ColorRes_Floyd_OptPal256(benchmark::State& state) {
    colorRes(state, 8, CRF_OPTIMIZEDPALETTE | CRF_DITHER(DITHER_FLOYD_STEINBERG), 256, false);
}
void BM_ColorRes_OptPal(benchmark::State& state) {
    colorRes(state, 8, CRF_OPTIMIZEDPALETTE | CRF_NODITHERING, int(state.range(0)), true);
}
void BM_ColorRes_OptPal_BuildOnly(benchmark::State& state) {
    RGBQUAD pal[256];
    for (auto _ : state) K_CreateBitmapOptPal(source(), pal, int(state.range(0)), 0, 0, nullptr);
    state.SetItemsProcessed(int64_t(state.iterations()) * kW * kH);
}

BENCHMARK(BM_ColorRes_Memcpy_Source)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ColorRes_24to8_Fixed)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ColorRes_Floyd_Fixed256)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ColorRes_Floyd_OptPal256)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ColorRes_OptPal)->Arg(256)->Arg(64)->Arg(16)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ColorRes_OptPal_BuildOnly)->Arg(256)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------- Pillow
#ifdef OMBRIX_PILLOW_SCRIPT
// (method, colours) -> (mse, seconds), from one run of the script per process.
const std::map<std::pair<std::string, int>, std::pair<double, double>>& pillowResults() {
    static const auto results = [] {
        std::map<std::pair<std::string, int>, std::pair<double, double>> m;
        std::string script = OMBRIX_PILLOW_SCRIPT;
        script = script.substr(0, script.find_last_of('/')) + "/pillow_quantize.py";
        const std::string ppm = "/tmp/ombrix_bench_colorres.ppm";
        if (!phototest::writePpm(ppm, picture(), kW, kH)) return m;
        const std::string cmd = "/usr/bin/python3 '" + script + "' " + ppm + " 256 64 16 --time 2 2>/dev/null";
        if (FILE* f = popen(cmd.c_str(), "r")) {
            char name[32];
            int n;
            double e, t;
            while (std::fscanf(f, "%31s %d %lf %lf", name, &n, &e, &t) == 4) m[{name, n}] = {e, t};
            pclose(f);
        }
        std::remove(ppm.c_str());
        return m;
    }();
    return results;
}
void pillowCase(benchmark::State& state, const char* method) {
    const auto& m = pillowResults();
    const auto it = m.find({method, int(state.range(0))});
    if (it == m.end()) {
        state.SkipWithError("/usr/bin/python3 with python3-pil is not installed");
        return;
    }
    for (auto _ : state) state.SetIterationTime(it->second.second);
    state.SetItemsProcessed(int64_t(state.iterations()) * kW * kH);
    state.SetBytesProcessed(int64_t(state.iterations()) * kW * kH * 3);
    state.counters["mse"] = it->second.first;
}
BENCHMARK_CAPTURE(pillowCase, MedianCut, "mediancut")
    ->Name("BM_ColorRes_Pillow_MedianCut")->Arg(256)->Arg(64)->Arg(16)->UseManualTime()->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(pillowCase, FastOctree, "fastoctree")
    ->Name("BM_ColorRes_Pillow_FastOctree")->Arg(256)->Arg(64)->Arg(16)->UseManualTime()->Iterations(1)
    ->Unit(benchmark::kMillisecond);
#endif

}  // namespace
