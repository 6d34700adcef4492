// The CPU column is the whole process's CPU time (the window runs in bands on
// the parallel row helper): on a loaded machine compare the CPU columns.
//
// bench_display.cpp - applying a window to a 4000x3000 16-bit grey image
// (to 8-bit grey), next to memcpy of the source bytes and OpenCV's
// convertScaleAbs (the same linear window with saturation, one thread); the
// 12-bit and caller-table forms; playing a 640x480 animation of 100 frames
// with and without a transparent colour, with the ratio to memcpy of each
// frame's bytes timed in the same loop.
//
//   build-bench/bench/ombrix_bench --benchmark_filter='WindowLevel|Playback' --benchmark_min_time=0.5
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <ctime>
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
    explicit Grey16(int32_t bpp = 16) {
        K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, kW, kH, bpp, ORDER_GRAY, nullptr, 1, nullptr, 0);
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
BENCHMARK(BM_WindowLevel_Ombrix)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

void BM_WindowLevel_Memcpy(benchmark::State& state) { bench::memcpyBaseline(state, kSrcBytes); }
BENCHMARK(BM_WindowLevel_Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

// 12-bit samples (two pixels in three bytes), the same window.
void BM_WindowLevel12_Ombrix(benchmark::State& state) {
    Grey16 src(12);
    for (auto _ : state) {
        BITMAPRECORD out;
        if (K_WindowLevel(&src.bm, &out, BITMAPRECORD_SIZE, 100, 4000, 0, 0) != KS_SUCCESS)
            state.SkipWithError("window level failed");
        benchmark::DoNotOptimize(out.hMemory);
        K_FreeBitmap(&out);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kSrcBytes * 3 / 4));
}
BENCHMARK(BM_WindowLevel12_Ombrix)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

void BM_WindowLevel12_Memcpy(benchmark::State& state) { bench::memcpyBaseline(state, kSrcBytes * 3 / 4); }
BENCHMARK(BM_WindowLevel12_Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

// A caller table (any curve): one table load per pixel.
void BM_WindowLevelExt_Ombrix(benchmark::State& state) {
    Grey16 src;
    std::vector<RGBQUAD> lut(65536);
    K_WindowLevelFillLUT(lut.data(), 65536, 0, 0xFFFFFF, 1000, 50000, 0, 15, 0, 65535, 30, 0x32);
    for (auto _ : state) {
        BITMAPRECORD out;
        if (K_WindowLevelExt(&src.bm, &out, BITMAPRECORD_SIZE, lut.data(), 65536, 0, 15, 0) != KS_SUCCESS)
            state.SkipWithError("window level failed");
        benchmark::DoNotOptimize(out.hMemory);
        K_FreeBitmap(&out);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kSrcBytes));
}
BENCHMARK(BM_WindowLevelExt_Ombrix)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

// ---------------------------------------------------------------- playback

constexpr int kPW = 640, kPH = 480, kFrames = 100;

// 100 full-size 24-bit frames (a moving pattern); with `keyed`, a quarter of
// each row, in runs, is the transparent colour.
struct Animation {
    BITMAPRECORD target{};
    HBITMAPLIST list = nullptr;
    HPLAYBACK pb = nullptr;
    explicit Animation(bool keyed) {
        K_CreateBitmap(&target, BITMAPRECORD_SIZE, 1, kPW, kPH, 24, ORDER_BGR, nullptr, 1, nullptr, 0);
        K_CreateBitmapList(&list);
        std::vector<uint8_t> row(size_t(kPW) * 3);
        for (int f = 0; f < kFrames; ++f) {
            BITMAPRECORD bm;
            K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, kPW, kPH, 24, ORDER_BGR, nullptr, 1, nullptr, 0);
            for (int y = 0; y < kPH; ++y) {
                for (int x = 0; x < kPW; ++x) {
                    const bool hole = keyed && ((x + 3 * y + 7 * f) % 64) < 16;
                    row[size_t(x) * 3] = hole ? 0x10 : uint8_t(x + f);
                    row[size_t(x) * 3 + 1] = hole ? 0x20 : uint8_t(y ^ f);
                    row[size_t(x) * 3 + 2] = hole ? 0x30 : uint8_t(x + y);
                }
                K_PutBitmapRow(&bm, row.data(), y, bm.nBytesPerLine);
            }
            FRAME_TRANSPARENT_COLOR(&bm) = 0x00102030;  // red 0x30, green 0x20, blue 0x10
            if (keyed) bm.uFlags |= BRF_FRAME_TRANSPARENT;
            K_InsertBitmapListItem(list, BITMAPLIST_END, &bm);
        }
        K_CreatePlayback(&pb, &target, list);
        int32_t st = 0;
        while (st != PLAYBACK_STATE_DRAW) K_ProcessPlayback(pb, &st);
    }
    ~Animation() {
        K_DestroyPlayback(pb);
        K_DestroyBitmapList(list);
        K_FreeBitmap(&target);
    }
    // Draws the next frame and moves on to the one after (delay 0: 2 -> 4 -> 8 -> 9 -> 2, and 10 -> 2).
    bool nextFrame() {
        int32_t st = 0;
        K_ProcessPlayback(pb, &st);
        if (st != PLAYBACK_STATE_DELAY) return false;
        while (st != PLAYBACK_STATE_DRAW) K_ProcessPlayback(pb, &st);
        return true;
    }
};

void BM_Playback_Ombrix(benchmark::State& state) {
    Animation a(state.range(0) != 0);
    const size_t frameBytes = size_t(kPW) * kPH * 3;
    std::vector<uint8_t> from = bench::randomBytes(frameBytes), to(frameBytes);
    auto cpu = [] {
        timespec ts;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
    };
    double play = 0, copy = 0, playCpu = 0, copyCpu = 0;
    int64_t frames = 0;
    for (auto _ : state) {
        const double c0 = cpu();
        const auto t0 = std::chrono::steady_clock::now();
        if (!a.nextFrame()) state.SkipWithError("playback did not draw");
        const auto t1 = std::chrono::steady_clock::now();
        const double c1 = cpu();
        std::memcpy(to.data(), from.data(), frameBytes);
        benchmark::ClobberMemory();
        const auto t2 = std::chrono::steady_clock::now();
        const double c2 = cpu();
        const double p = std::chrono::duration<double>(t1 - t0).count();
        play += p;
        copy += std::chrono::duration<double>(t2 - t1).count();
        playCpu += c1 - c0;
        copyCpu += c2 - c1;
        state.SetIterationTime(p);
        ++frames;
    }
    // Wall clock and, for a loaded machine, this thread's CPU time (playback runs on one thread).
    state.counters["frames_per_s"] = play > 0 ? double(frames) / play : 0;
    state.counters["memcpy_ratio"] = play > 0 ? copy / play : 0;  // memcpy time / frame time
    state.counters["cpu_frames_per_s"] = playCpu > 0 ? double(frames) / playCpu : 0;
    state.counters["cpu_memcpy_ratio"] = playCpu > 0 ? copyCpu / playCpu : 0;
}
BENCHMARK(BM_Playback_Ombrix)->Arg(0)->Arg(1)->ArgName("transparent")->Unit(benchmark::kMicrosecond)->UseManualTime();

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
BENCHMARK(BM_WindowLevel_OpenCV)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
#endif

}  // namespace
