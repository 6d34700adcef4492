// bench_speed.cpp - the rows of the speed goals that the family benchmarks
// do not have yet, on the same 4000x3000 images: colour to the fixed
// 256-colour palette without dithering (per row, in place) beside Leptonica
// and Pillow, the widening conversions as one call for the whole image
// beside the per-row calls of bench_convert.cpp, and libyuv's order swap
// in place. bench/run runs them interleaved with every other row.
#include <benchmark/benchmark.h>

#include <immintrin.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench_common.h"
#include "ombrix.h"

#ifdef OMBRIX_HAVE_LIBYUV
#include <libyuv.h>
#endif
#ifdef OMBRIX_HAVE_LEPTONICA
#include <leptonica/allheaders.h>
#endif

namespace {

constexpr int kW = 4000, kH = 3000;
constexpr size_t kPixels = size_t(kW) * kH;

const std::vector<uint8_t>& random24() {
    static const std::vector<uint8_t> v = bench::randomBytes(kPixels * 3, 7);
    return v;
}

void rate(benchmark::State& state, size_t bytes) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
    state.counters["Mpix/s"] =
        benchmark::Counter(double(state.iterations()) * double(kPixels) / 1e6, benchmark::Counter::kIsRate);
}

// ------------------------------------------------ colour to the fixed palette
// Per row in place, as rows leave a 24-bit bitmap for an 8-bit one.
void BM_Speed_24toFixed256_Ombrix(benchmark::State& state) {
    const auto& src = random24();
    std::vector<uint8_t> work(src.size());
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(work.data(), src.data(), src.size());
        state.ResumeTiming();
        for (int y = 0; y < kH; ++y)
            if (K_ConvertBuffer(work.data() + size_t(y) * kW * 3, kW, 24, 8, ORDER_BGR, ORDER_BGR, nullptr, nullptr) !=
                KS_SUCCESS)
                state.SkipWithError("conversion failed");
        benchmark::ClobberMemory();
    }
    rate(state, kPixels * 3);
}
void BM_Speed_24toFixed256_Memcpy(benchmark::State& state) {
    bench::memcpyBaseline(state, kPixels * 3);
    rate(state, kPixels * 3);
}
BENCHMARK(BM_Speed_24toFixed256_Ombrix)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Speed_24toFixed256_Memcpy)->Unit(benchmark::kMillisecond);

#ifdef OMBRIX_HAVE_LEPTONICA
// Leptonica's fixed 3-3-2 octcube palette without dithering.
void BM_Speed_24toFixed256_Leptonica(benchmark::State& state) {
    const auto& src = random24();
    PIX* pix = pixCreate(kW, kH, 32);
    l_uint32* data = pixGetData(pix);
    const int wpl = pixGetWpl(pix);
    for (size_t i = 0; i < kPixels; ++i) {
        l_uint32 v;
        composeRGBPixel(src[3 * i + 2], src[3 * i + 1], src[3 * i], &v);
        data[(i / kW) * size_t(wpl) + i % kW] = v;
    }
    for (auto _ : state) {
        PIX* out = pixFixedOctcubeQuant256(pix, 0);
        benchmark::DoNotOptimize(out);
        pixDestroy(&out);
    }
    pixDestroy(&pix);
    rate(state, kPixels * 3);
}
BENCHMARK(BM_Speed_24toFixed256_Leptonica)->Unit(benchmark::kMillisecond);
#endif

#ifdef OMBRIX_PILLOW_SPEED_SCRIPT
// Pillow in its own process (bench/pillow_speed.py): best of three seconds.
double pillowSeconds(const char* key) {
    static const std::map<std::string, double> times = [] {
        std::map<std::string, double> m;
        const std::string cmd = std::string("/usr/bin/python3 '") + OMBRIX_PILLOW_SPEED_SCRIPT + "' 2>/dev/null";
        if (FILE* f = popen(cmd.c_str(), "r")) {
            char k[64];
            double t;
            while (std::fscanf(f, "%63s %lf", k, &t) == 2) m[k] = t;
            pclose(f);
        }
        return m;
    }();
    const auto it = times.find(key);
    return it == times.end() ? -1 : it->second;
}
void BM_Speed_24toFixed256_Pillow(benchmark::State& state) {
    const double t = pillowSeconds("fixed256_nodither");
    if (t <= 0) {
        state.SkipWithError("/usr/bin/python3 with python3-pil is not installed");
        return;
    }
    for (auto _ : state) state.SetIterationTime(t);
    rate(state, kPixels * 3);
}
BENCHMARK(BM_Speed_24toFixed256_Pillow)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
#endif

// ------------------------------------------------ widening, whole image
// One call converting the whole image in place (the per-row calls are
// BM_Convert_24to32 and BM_Convert_16to24_565); the memcpy rows of
// bench_convert.cpp copy the same bytes.
void wholeImage(benchmark::State& state, int sb, int db, int so, int dO) {
    const size_t in = kPixels * size_t(sb) / 8, out = kPixels * size_t(db) / 8;
    std::vector<uint8_t> src = bench::randomBytes(in, 7), work(std::max(in, out));
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(work.data(), src.data(), in);
        state.ResumeTiming();
        if (K_ConvertBuffer(work.data(), int32_t(kPixels), sb, db, so, dO, nullptr, nullptr) != KS_SUCCESS)
            state.SkipWithError("conversion failed");
        benchmark::ClobberMemory();
    }
    rate(state, std::max(in, out));
}
void BM_Speed_24to32_WholeImage(benchmark::State& s) { wholeImage(s, 24, 32, ORDER_BGR, ORDER_BGR); }
void BM_Speed_16to24_565_WholeImage(benchmark::State& s) { wholeImage(s, 16, 24, ORDER_BGR565, ORDER_BGR); }
BENCHMARK(BM_Speed_24to32_WholeImage)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Speed_16to24_565_WholeImage)->Unit(benchmark::kMillisecond);

// The memory traffic of an in-place pass over the 24-bit image with the
// arithmetic removed: every 8 bytes read and written back plus one, as a
// plain loop (no prefetch).
void BM_Speed_24InPlace_ReadWriteOnly(benchmark::State& state) {
    std::vector<uint8_t> img = random24();
    for (auto _ : state) {
        uint64_t* p = reinterpret_cast<uint64_t*>(img.data());
        const size_t n = img.size() / 8;
        for (size_t i = 0; i < n; ++i) p[i] += 1;
        benchmark::ClobberMemory();
    }
    rate(state, kPixels * 3);
}
BENCHMARK(BM_Speed_24InPlace_ReadWriteOnly)->Unit(benchmark::kMillisecond);

// Only reading the same bytes (32 a load, one prefetch per line 2 KB ahead,
// nothing written): the bound of any pass over the image that reads it all.
__attribute__((target("avx2"))) uint64_t readAll(const uint8_t* p, size_t n) {
    __m256i acc = _mm256_setzero_si256();
    size_t i = 0;
    for (; i + 64 <= n; i += 64) {
        _mm_prefetch(reinterpret_cast<const char*>(p + i + 2048), _MM_HINT_T0);
        acc = _mm256_xor_si256(acc, _mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i)),
                                                     _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i + 32))));
    }
    uint64_t r = uint64_t(_mm256_extract_epi64(acc, 0) ^ _mm256_extract_epi64(acc, 3));
    for (; i < n; ++i) r += p[i];
    return r;
}
void BM_Speed_24InPlace_ReadOnly(benchmark::State& state) {
    if (!__builtin_cpu_supports("avx2")) {
        state.SkipWithError("no AVX2");
        return;
    }
    std::vector<uint8_t> img = random24();
    for (auto _ : state) benchmark::DoNotOptimize(readAll(img.data(), img.size()));
    rate(state, kPixels * 3);
}
BENCHMARK(BM_Speed_24InPlace_ReadOnly)->Unit(benchmark::kMillisecond);

#ifdef OMBRIX_HAVE_LIBYUV
// libyuv's red-blue swap of 24-bit pixels with source and destination the same rows.
void BM_Speed_24to24swap_libyuvInPlace(benchmark::State& state) {
    std::vector<uint8_t> img = random24();
    for (auto _ : state) {
        libyuv::RAWToRGB24(img.data(), kW * 3, img.data(), kW * 3, kW, kH);
        benchmark::ClobberMemory();
    }
    rate(state, kPixels * 3);
}
BENCHMARK(BM_Speed_24to24swap_libyuvInPlace)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
