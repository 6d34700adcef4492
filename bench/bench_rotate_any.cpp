// bench_rotate_any.cpp - rotation by any angle: a 4000x3000 32-bit image
// turned by 30 degrees with bilinear interpolation, size kept.
//
//   RotateAny_memcpy                 memcpy of the same 48 MB (the ratio base)
//   RotateAny_Bilinear32_engine      the row kernels into a ready buffer, one thread
//   RotateAny_Bilinear32_opencv      cv::warpAffine INTER_LINEAR, one thread, ready buffer
//   RotateAny_Bilinear32_export      K_RotateBitmap (new storage each time), one thread
//   RotateAny_Bilinear32_twoThreads  one thread, then two threads through the
//                                    parallel row helper, then two plain
//                                    std::threads on the same halves, interleaved;
//                                    prints both speed-ups and their ratio
// Every case reports x_memcpy = time of memcpy of the same bytes / its time,
// measured in the same run.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "krn/common/parallel.h"
#include "krn/common/rotate_any.h"
#include "ombrix.h"

#ifdef OMBRIX_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int32_t kW = 4000, kH = 3000, kAngle = 3000;  // hundredths of a degree, clockwise
constexpr size_t kBytes = size_t(kW) * kH * 4;

struct Images {
    std::vector<uint8_t> src = bench::randomBytes(kBytes, 7), dst = std::vector<uint8_t>(kBytes);
    std::vector<uint8_t> a = bench::randomBytes(kBytes, 8), b = std::vector<uint8_t>(kBytes);
    Images() {
        for (size_t i = 3; i < kBytes; i += 4) src[i] = 255;  // opaque
    }
};
Images& images() {
    static Images im;
    return im;
}

using Clock = std::chrono::steady_clock;
double secondsOf(const std::function<void()>& f) {
    const auto t0 = Clock::now();
    f();
    return std::chrono::duration<double>(Clock::now() - t0).count();
}
double memcpySeconds() {
    Images& im = images();
    return secondsOf([&] {
        std::memcpy(im.b.data(), im.a.data(), kBytes);
        benchmark::ClobberMemory();
    });
}

krn::Map theMap() { return krn::rotationMap(kW, kH, kW, kH, kAngle); }
const uint8_t kFill[8] = {0, 0, 0, 255, 0, 0, 0, 0};

void engineRows(int32_t y0, int32_t y1) {
    Images& im = images();
    krn::renderPlain(im.src.data(), kW, kH, kW * 4, 32, true, im.dst.data() + size_t(y0) * kW * 4, kW, kW * 4, y0, y1,
                     theMap(), krn::Interp::Bilinear, kFill);
}

// Runs op and memcpy alternately; reports time of op and x_memcpy. An op that
// makes `count` rotations is reported per rotation.
void interleaved(benchmark::State& state, const std::function<void()>& op, int count = 1) {
    images();
    op();  // warm: buffers touched, code and tables loaded
    double opTotal = 0, cpTotal = 0;
    for (auto _ : state) {
        const double t = secondsOf(op) / count;
        state.SetIterationTime(t);
        opTotal += t;
        state.PauseTiming();
        cpTotal += memcpySeconds();
        state.ResumeTiming();
    }
    state.counters["x_memcpy"] = opTotal > 0 ? cpTotal / opTotal : 0;
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBytes));
}

void BM_RotateAny_memcpy(benchmark::State& state) { interleaved(state, [] { memcpySeconds(); }); }

void BM_RotateAny_Bilinear32_engine(benchmark::State& state) {
    interleaved(state, [] { engineRows(0, kH); });
}

void BM_RotateAny_Bilinear32_export(benchmark::State& state) {
    Images& im = images();
    BITMAPRECORD bm;
    K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, kW, kH, 32, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0);
    K_AccessBitmap(&bm);
    for (int32_t y = 0; y < kH; ++y) std::memcpy(bm.pData + size_t(y) * kW * 4, im.src.data() + size_t(y) * kW * 4, kW * 4);
    K_ReleaseBitmap(&bm);
    interleaved(state, [&] {
        // Turn and turn back, so every run sees the same image; reported per turn.
        K_RotateBitmap(&bm, kAngle, ROTATE_BILINEAR | ROTATE_ONE_THREAD, 0);
        K_RotateBitmap(&bm, -kAngle, ROTATE_BILINEAR | ROTATE_ONE_THREAD, 0);
    }, 2);
    K_FreeBitmap(&bm);
}

void BM_RotateAny_Bilinear32_twoThreads(benchmark::State& state) {
    images();
    engineRows(0, kH);
    double one = 0, helper = 0, plain = 0, cp = 0;
    krn::ParallelOptions po;
    po.progress = krn::ParallelProgress::None;
    po.maxThreads = 2;
    po.minParallelBytes = 0;
    for (auto _ : state) {
        one += secondsOf([] { engineRows(0, kH); });
        const double h = secondsOf([&] {
            krn::parallelRows(
                kH, [](int32_t y0, int32_t y1, int32_t) { engineRows(y0, y1); return KS_SUCCESS; }, po);
        });
        helper += h;
        state.SetIterationTime(h);
        plain += secondsOf([] {
            std::thread t([] { engineRows(0, kH / 2); });
            engineRows(kH / 2, kH);
            t.join();
        });
        cp += memcpySeconds();
    }
    state.counters["speedup_helper"] = one / helper;
    state.counters["speedup_std_thread"] = one / plain;
    state.counters["helper_vs_std"] = (one / helper) / (one / plain);
    state.counters["x_memcpy"] = cp / helper;
}

BENCHMARK(BM_RotateAny_memcpy)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(10);
BENCHMARK(BM_RotateAny_Bilinear32_engine)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(10);
BENCHMARK(BM_RotateAny_Bilinear32_export)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(5);
BENCHMARK(BM_RotateAny_Bilinear32_twoThreads)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(6);

#ifdef OMBRIX_HAVE_OPENCV
void BM_RotateAny_Bilinear32_opencv(benchmark::State& state) {
    cv::setNumThreads(1);
    Images& im = images();
    cv::Mat src(kH, kW, CV_8UC4, im.src.data()), dst(kH, kW, CV_8UC4, im.dst.data());
    // OpenCV turns counter-clockwise for positive angles.
    const cv::Mat m = cv::getRotationMatrix2D(cv::Point2f((kW - 1) / 2.0f, (kH - 1) / 2.0f), -kAngle / 100.0, 1.0);
    interleaved(state, [&] {
        cv::warpAffine(src, dst, m, dst.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar(0, 0, 0, 255));
    });
}
BENCHMARK(BM_RotateAny_Bilinear32_opencv)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(10);
#endif

}  // namespace
