// bench_display.cpp - applying a window to a 4000x3000 16-bit grey image
// (to 8-bit grey), next to memcpy of the source bytes and OpenCV's
// convertScaleAbs (the same linear window with saturation, one thread).
//
//   build-bench/bench/ombrix_bench --benchmark_filter=WindowLevel --benchmark_min_time=0.5
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "bench_common.h"
#include "ombrix.h"

#ifdef OMBRIX_HAVE_OPENCV
#include <opencv2/core.hpp>
#endif

namespace {

constexpr int kW = 4000, kH = 3000;
constexpr size_t kSrcBytes = size_t(kW) * kH * 2;

struct Grey16 {
    BITMAPRECORD bm{};
    Grey16() {
        K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, kW, kH, 16, ORDER_GRAY, nullptr, 1, nullptr, 0);
        std::vector<uint8_t> row = bench::randomBytes(bm.nBytesPerLine, 3);
        for (int y = 0; y < kH; ++y) {
            row[size_t(y) % row.size()] ^= uint8_t(y);
            K_PutBitmapRow(&bm, row.data(), y, bm.nBytesPerLine);
        }
    }
    ~Grey16() { K_FreeBitmap(&bm); }
};

void BM_WindowLevel_Ombrix(benchmark::State& state) {
    Grey16 src;
    for (auto _ : state) {
        BITMAPRECORD out;  // the call makes a fresh 8-bit bitmap each time
        if (K_WindowLevel(&src.bm, &out, BITMAPRECORD_SIZE, 1000, 50000, 0, 0) != KS_SUCCESS)
            state.SkipWithError("window level failed");
        benchmark::DoNotOptimize(out.hMemory);
        K_FreeBitmap(&out);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kSrcBytes));
}
BENCHMARK(BM_WindowLevel_Ombrix)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_WindowLevel_Memcpy(benchmark::State& state) { bench::memcpyBaseline(state, kSrcBytes); }
BENCHMARK(BM_WindowLevel_Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();

#ifdef OMBRIX_HAVE_OPENCV
void BM_WindowLevel_OpenCV(benchmark::State& state) {
    cv::setNumThreads(1);
    std::vector<uint8_t> bytes = bench::randomBytes(kSrcBytes, 3);
    cv::Mat src(kH, kW, CV_16UC1, bytes.data());
    cv::Mat dst;
    const double alpha = 255.0 / (50000 - 1000), beta = -1000 * alpha;
    for (auto _ : state) {
        cv::Mat out;  // fresh, as the kernel makes a fresh bitmap
        cv::convertScaleAbs(src, out, alpha, beta);
        benchmark::DoNotOptimize(out.data);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kSrcBytes));
}
BENCHMARK(BM_WindowLevel_OpenCV)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

}  // namespace
