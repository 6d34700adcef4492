// Resize and resample on a 4000x3000 source, each case next to memcpy of the
// bytes it writes and the installed peers (OpenCV resize on one thread,
// libyuv scaling, Pillow through bench/pillow_resize.py), all into
// preallocated targets.
//
//   BM_Resize_Nearest24_{Half,Double}_*       nearest pixel, 24 bits (_TrafficOnly: the
//                                             halving's reads and writes without its arithmetic)
//   BM_Resize_{Linear,Cubic}{24,32}_{Up,Down}_* enlarge 1.5x / reduce 0.5x
//     _Ombrix1T    one thread           _Ombrix2T   two threads, row helper
//     _StdThreads2 two std::threads, each the one-thread job on its own target
//                  (items/s = images/s: the speed-up is items/s over _Ombrix1T's)
//     _Memcpy      memcpy of the target's bytes
// Linear reductions are area averaging in Ombrix (OpenCV: INTER_AREA next to
// INTER_LINEAR; Pillow: BOX next to BILINEAR).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <immintrin.h>
#include <map>
#include <string>
#include <thread>

#include "bench_common.h"
#include "krn/common/resize.h"
#include "ombrix.h"

#ifdef OMBRIX_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif
#ifdef OMBRIX_HAVE_LIBYUV
#include <libyuv/scale_argb.h>
#include <libyuv/scale_rgb.h>
#endif

namespace {

constexpr int32_t kW = 4000, kH = 3000;

struct Bitmap {
    BITMAPRECORD bm{};
    Bitmap(int32_t w, int32_t h, int32_t bpp, bool fill) {
        K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, w, h, bpp, ORDER_BGR, nullptr, 1, nullptr, 0);
        K_AccessBitmap(&bm);  // stays accessed: pData is the pixels
        if (fill) {
            auto bytes = bench::randomBytes(size_t(bm.nBytesPerLine) * size_t(h), 5);
            std::memcpy(bm.pData, bytes.data(), bytes.size());
        } else {
            // Touch every page first: the timed runs, like the peers' reused
            // targets, should not pay for first-touch page faults.
            std::memset(bm.pData, 0, size_t(bm.nBytesPerLine) * size_t(h));
        }
    }
    ~Bitmap() {
        K_ReleaseBitmap(&bm);
        K_FreeBitmap(&bm);
    }
    size_t bytes() const { return size_t(bm.nBytesPerLine) * size_t(bm.nHeight); }
};

Bitmap& source(int32_t bpp) {
    static Bitmap s24(kW, kH, 24, true), s32(kW, kH, 32, true);
    return bpp == 24 ? s24 : s32;
}

struct Case {
    int32_t w, h;
};
Case target(bool up) { return up ? Case{kW * 3 / 2, kH * 3 / 2} : Case{kW / 2, kH / 2}; }

enum class Filter { Nearest, Linear, Cubic };

int32_t ombrixRun(BITMAPRECORD* src, BITMAPRECORD* dst, Filter f) {
    switch (f) {
        case Filter::Nearest: return K_IntResizeBitmap(src, dst, SIZE_NORMAL);
        case Filter::Linear: return K_IntResizeBitmap(src, dst, SIZE_RESAMPLE);
        case Filter::Cubic: return K_BicubicResampleBitmapInt(src, dst, 0);
    }
    return 0;
}

void ombrix(benchmark::State& state, Filter f, int32_t bpp, int32_t w, int32_t h, int32_t threads) {
    Bitmap& s = source(bpp);
    Bitmap d(w, h, bpp, false);
    krn::resampletest::setMaxThreads(threads);
    for (auto _ : state) {
        if (ombrixRun(&s.bm, &d.bm, f) != KS_SUCCESS) state.SkipWithError("resize failed");
        benchmark::ClobberMemory();
    }
    krn::resampletest::setMaxThreads(0);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(d.bytes()));
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void stdThreads(benchmark::State& state, Filter f, int32_t bpp, int32_t w, int32_t h) {
    Bitmap& s = source(bpp);
    Bitmap d1(w, h, bpp, false), d2(w, h, bpp, false);
    krn::resampletest::setMaxThreads(1);
    for (auto _ : state) {
        std::thread t1([&] { ombrixRun(&s.bm, &d1.bm, f); });
        std::thread t2([&] { ombrixRun(&s.bm, &d2.bm, f); });
        t1.join();
        t2.join();
    }
    krn::resampletest::setMaxThreads(0);
    state.SetBytesProcessed(int64_t(state.iterations()) * 2 * int64_t(d1.bytes()));
    state.SetItemsProcessed(int64_t(state.iterations()) * 2);
}

// The memory traffic of the halving without its arithmetic: every source row
// it reads, read whole, and half its bytes written (the OR of each 64 bytes'
// halves), into a target of the halving's size.
__attribute__((target("avx2"))) void halvingTraffic(benchmark::State& state) {
    Bitmap& s = source(24);
    Bitmap d(kW / 2, kH / 2, 24, false);
    const size_t sbpl = s.bm.nBytesPerLine, dbpl = d.bm.nBytesPerLine, n = size_t(kW) * 3 / 64;
    for (auto _ : state) {
        for (int32_t y = 0; y < kH / 2; ++y) {
            const uint8_t* r = s.bm.pData + size_t(2 * y) * sbpl;
            uint8_t* o = d.bm.pData + size_t(y) * dbpl;
            for (size_t i = 0; i < n; ++i) {
                const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(r + 64 * i));
                const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(r + 64 * i + 32));
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(o + 32 * i), _mm256_or_si256(a, b));
            }
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(d.bytes()));
}

void memcpyCase(benchmark::State& state, int32_t bpp, int32_t w, int32_t h) {
    uint32_t bpl = uint32_t(((int64_t(w) * bpp + 31) / 32) * 4);
    bench::memcpyBaseline(state, size_t(bpl) * size_t(h));
}

#ifdef OMBRIX_HAVE_OPENCV
void opencv(benchmark::State& state, int interp, int32_t bpp, int32_t w, int32_t h) {
    cv::setNumThreads(1);
    Bitmap& s = source(bpp);
    const int type = bpp == 24 ? CV_8UC3 : CV_8UC4;
    cv::Mat src(kH, kW, type, s.bm.pData, s.bm.nBytesPerLine);
    cv::Mat dst(h, w, type);
    for (auto _ : state) {
        cv::resize(src, dst, cv::Size(w, h), 0, 0, interp);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(dst.total() * dst.elemSize()));
}
#endif

#ifdef OMBRIX_HAVE_LIBYUV
void libyuv(benchmark::State& state, libyuv::FilterMode mode, int32_t bpp, int32_t w, int32_t h) {
    Bitmap& s = source(bpp);
    const int bpp8 = bpp / 8;
    std::vector<uint8_t> dst(size_t(w) * size_t(h) * size_t(bpp8));
    for (auto _ : state) {
        if (bpp == 24)
            libyuv::RGBScale(s.bm.pData, int(s.bm.nBytesPerLine), kW, kH, dst.data(), w * 3, w, h, mode);
        else
            libyuv::ARGBScale(s.bm.pData, int(s.bm.nBytesPerLine), kW, kH, dst.data(), w * 4, w, h, mode);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(dst.size()));
}
#endif

const std::map<std::string, double>& pillowTimes() {
    static std::map<std::string, double> m = [] {
        std::map<std::string, double> r;
        std::string script = OMBRIX_PILLOW_SCRIPT;
        script = script.substr(0, script.rfind('/') + 1) + "pillow_resize.py";
        const std::string cmd = "/usr/bin/python3 '" + script + "' --machine 2>/dev/null";
        if (FILE* f = popen(cmd.c_str(), "r")) {
            char key[64];
            double t;
            while (std::fscanf(f, "%63s %lf", key, &t) == 2) r[key] = t;
            pclose(f);
        }
        return r;
    }();
    return m;
}

void pillow(benchmark::State& state, const char* key, size_t bytes) {
    const auto& m = pillowTimes();
    auto it = m.find(key);
    if (it == m.end()) {
        state.SkipWithError("/usr/bin/python3 with python3-pil is not installed");
        return;
    }
    for (auto _ : state) state.SetIterationTime(it->second);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

void registerAll() {
    auto ms = [](benchmark::internal::Benchmark* b) { return b->Unit(benchmark::kMillisecond); };
    // Nearest, 24 bits.
    for (bool half : {true, false}) {
        const int32_t w = half ? kW / 2 : kW * 2, h = half ? kH / 2 : kH * 2;
        const std::string n = std::string("BM_Resize_Nearest24_") + (half ? "Half" : "Double");
        ms(benchmark::RegisterBenchmark((n + "_Ombrix").c_str(), [=](benchmark::State& s) { ombrix(s, Filter::Nearest, 24, w, h, 1); }));
        ms(benchmark::RegisterBenchmark((n + "_Memcpy").c_str(), [=](benchmark::State& s) { memcpyCase(s, 24, w, h); }));
        if (half) ms(benchmark::RegisterBenchmark((n + "_TrafficOnly").c_str(), halvingTraffic));
#ifdef OMBRIX_HAVE_OPENCV
        ms(benchmark::RegisterBenchmark((n + "_OpenCV").c_str(), [=](benchmark::State& s) { opencv(s, cv::INTER_NEAREST, 24, w, h); }));
#endif
#ifdef OMBRIX_HAVE_LIBYUV
        ms(benchmark::RegisterBenchmark((n + "_libyuv").c_str(), [=](benchmark::State& s) { libyuv(s, libyuv::kFilterNone, 24, w, h); }));
#endif
        const size_t bytes = size_t(w) * size_t(h) * 3;
        ms(benchmark::RegisterBenchmark((n + "_Pillow").c_str(), [=](benchmark::State& s) { pillow(s, half ? "nearest_half" : "nearest_double", bytes); })
               ->UseManualTime()
               ->Iterations(1));
    }
    for (Filter f : {Filter::Linear, Filter::Cubic})
        for (int32_t bpp : {24, 32})
            for (bool up : {true, false}) {
                const Case c = target(up);
                const std::string n = std::string("BM_Resize_") + (f == Filter::Linear ? "Linear" : "Cubic") +
                                      std::to_string(bpp) + (up ? "_Up" : "_Down");
                ms(benchmark::RegisterBenchmark((n + "_Ombrix1T").c_str(), [=](benchmark::State& s) { ombrix(s, f, bpp, c.w, c.h, 1); })->UseRealTime());
                ms(benchmark::RegisterBenchmark((n + "_Ombrix2T").c_str(), [=](benchmark::State& s) { ombrix(s, f, bpp, c.w, c.h, 2); })->UseRealTime());
                ms(benchmark::RegisterBenchmark((n + "_StdThreads2").c_str(), [=](benchmark::State& s) { stdThreads(s, f, bpp, c.w, c.h); })->UseRealTime());
                ms(benchmark::RegisterBenchmark((n + "_Memcpy").c_str(), [=](benchmark::State& s) { memcpyCase(s, bpp, c.w, c.h); }));
#ifdef OMBRIX_HAVE_OPENCV
                const int interp = f == Filter::Linear ? cv::INTER_LINEAR : cv::INTER_CUBIC;
                ms(benchmark::RegisterBenchmark((n + "_OpenCV").c_str(), [=](benchmark::State& s) { opencv(s, interp, bpp, c.w, c.h); }));
                if (f == Filter::Linear && !up)
                    ms(benchmark::RegisterBenchmark((n + "_OpenCVArea").c_str(), [=](benchmark::State& s) { opencv(s, cv::INTER_AREA, bpp, c.w, c.h); }));
#endif
#ifdef OMBRIX_HAVE_LIBYUV
                if (f == Filter::Linear)
                    ms(benchmark::RegisterBenchmark((n + "_libyuv").c_str(), [=](benchmark::State& s) { libyuv(s, up ? libyuv::kFilterBilinear : libyuv::kFilterBox, bpp, c.w, c.h); }));
#endif
                const std::string key = std::string(f == Filter::Linear ? "bilinear" : "bicubic") + (up ? "_up_" : "_down_") + std::to_string(bpp);
                const size_t bytes = size_t(c.w) * size_t(c.h) * size_t(bpp / 8);
                ms(benchmark::RegisterBenchmark((n + "_Pillow").c_str(), [=](benchmark::State& s) { pillow(s, key.c_str(), bytes); })
                       ->UseManualTime()
                       ->Iterations(1));
                if (f == Filter::Linear && !up) {
                    const std::string box = "box_down_" + std::to_string(bpp);
                    ms(benchmark::RegisterBenchmark((n + "_PillowBox").c_str(), [=](benchmark::State& s) { pillow(s, box.c_str(), bytes); })
                           ->UseManualTime()
                           ->Iterations(1));
                }
            }
}

const int kRegistered = (registerAll(), 0);

}  // namespace
