// bench_convert.cpp - the buffer converter on a 4000x3000 image, row by
// row in place, next to memcpy of the larger of the two images and, where
// they do the same conversion, libyuv and OpenCV (one thread).
//
//   build/bench/ombrix_bench --benchmark_filter=Convert --benchmark_min_time=0.2
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "bench_common.h"
#include "krn/common/convert.h"
#include "krn/common/palette.h"
#include "ombrix.h"

#ifdef OMBRIX_HAVE_LIBYUV
#include <libyuv.h>
#endif
#ifdef OMBRIX_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kW = 4000, kH = 3000;

size_t rowBytes(int bits) { return size_t(kW) * size_t(bits == 0 ? 8 : bits) / 8; }

// An image of kH rows, each holding a source row in a slot wide enough for
// the destination row; the pristine copy restores it between iterations.
struct Image {
    std::vector<uint8_t> pristine, work;
    size_t stride;
    Image(int srcBits, int dstBits) : stride(std::max(rowBytes(srcBits), rowBytes(dstBits))) {
        pristine = bench::randomBytes(stride * kH, 7);
        work = pristine;
    }
};

void convertRows(benchmark::State& state, int sb, int db, int so, int dO) {
    Image img(sb, db);
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(img.work.data(), img.pristine.data(), img.work.size());
        state.ResumeTiming();
        for (int y = 0; y < kH; ++y) {
            int st = K_ConvertBuffer(img.work.data() + size_t(y) * img.stride, kW, sb, db, so, dO, nullptr, nullptr);
            if (st != KS_SUCCESS) state.SkipWithError("conversion failed");
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(img.stride) * kH);
    state.counters["Mpix/s"] = benchmark::Counter(double(state.iterations()) * kW * kH / 1e6,
                                                  benchmark::Counter::kIsRate);
}

void memcpyOf(benchmark::State& state, int sb, int db) {
    bench::memcpyBaseline(state, std::max(rowBytes(sb), rowBytes(db)) * kH);
}

#define OMBRIX_CONVERT_BENCH(name, sb, db, so, dO)                                                    \
    void BM_Convert_##name(benchmark::State& s) { convertRows(s, sb, db, so, dO); }                   \
    void BM_Convert_##name##_memcpy(benchmark::State& s) { memcpyOf(s, sb, db); }                     \
    BENCHMARK(BM_Convert_##name##_memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();              \
    BENCHMARK(BM_Convert_##name)->Unit(benchmark::kMillisecond)->UseRealTime();

OMBRIX_CONVERT_BENCH(24to24swap, 24, 24, ORDER_BGR, ORDER_RGB)
OMBRIX_CONVERT_BENCH(24to32, 24, 32, ORDER_BGR, ORDER_BGR)
OMBRIX_CONVERT_BENCH(32to24, 32, 24, ORDER_BGR, ORDER_BGR)
OMBRIX_CONVERT_BENCH(24to16_555, 24, 16, ORDER_BGR, ORDER_BGR)
OMBRIX_CONVERT_BENCH(24to16_565, 24, 16, ORDER_BGR, ORDER_BGR565)
OMBRIX_CONVERT_BENCH(16to24_555, 16, 24, ORDER_BGR, ORDER_BGR)
OMBRIX_CONVERT_BENCH(16to24_565, 16, 24, ORDER_BGR565, ORDER_BGR)
OMBRIX_CONVERT_BENCH(48to24, 48, 24, ORDER_BGR, ORDER_BGR)
OMBRIX_CONVERT_BENCH(24toGrey8, 24, 0, ORDER_BGR, ORDER_GRAY)
// Palette expansion (the fixed palettes) and a conversion through the pivot.
OMBRIX_CONVERT_BENCH(8to24_palette, 8, 24, ORDER_BGR, ORDER_BGR)
OMBRIX_CONVERT_BENCH(4to32_palette, 4, 32, ORDER_BGR, ORDER_BGR)
OMBRIX_CONVERT_BENCH(64to48_pivot, 64, 48, ORDER_RGB, ORDER_BGR)

// ---------------------------------------------------------------- peers
// Peers write into a separate image (they do not convert in place).
struct Pair {
    std::vector<uint8_t> src, dst;
    Pair(int sb, int db) : src(bench::randomBytes(rowBytes(sb) * kH, 7)), dst(rowBytes(db) * kH) {}
};
template <class F>
void peer(benchmark::State& state, int sb, int db, F&& f) {
    Pair p(sb, db);
    for (auto _ : state) {
        f(p.src.data(), p.dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(std::max(rowBytes(sb), rowBytes(db))) * kH);
    state.counters["Mpix/s"] = benchmark::Counter(double(state.iterations()) * kW * kH / 1e6,
                                                  benchmark::Counter::kIsRate);
}

#ifdef OMBRIX_HAVE_LIBYUV
void BM_Convert_24to24swap_libyuv(benchmark::State& s) {
    peer(s, 24, 24, [](const uint8_t* a, uint8_t* b) { libyuv::RAWToRGB24(a, kW * 3, b, kW * 3, kW, kH); });
}
void BM_Convert_24to32_libyuv(benchmark::State& s) {
    peer(s, 24, 32, [](const uint8_t* a, uint8_t* b) { libyuv::RGB24ToARGB(a, kW * 3, b, kW * 4, kW, kH); });
}
void BM_Convert_32to24_libyuv(benchmark::State& s) {
    peer(s, 32, 24, [](const uint8_t* a, uint8_t* b) { libyuv::ARGBToRGB24(a, kW * 4, b, kW * 3, kW, kH); });
}
// libyuv's grey uses other weights; the work per pixel is comparable.
void BM_Convert_24toGrey8_libyuv(benchmark::State& s) {
    peer(s, 24, 8, [](const uint8_t* a, uint8_t* b) { libyuv::RGB24ToJ400(a, kW * 3, b, kW, kW, kH); });
}
BENCHMARK(BM_Convert_24to24swap_libyuv)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_24to32_libyuv)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_32to24_libyuv)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_24toGrey8_libyuv)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

#ifdef OMBRIX_HAVE_OPENCV
template <int Code>
void cvPeer(benchmark::State& s, int sb, int db, int st, int dt) {
    cv::setNumThreads(1);
    peer(s, sb, db, [&](const uint8_t* a, uint8_t* b) {
        cv::Mat src(kH, kW, st, const_cast<uint8_t*>(a)), dst(kH, kW, dt, b);
        cv::cvtColor(src, dst, Code);
    });
}
void BM_Convert_24to24swap_opencv(benchmark::State& s) { cvPeer<cv::COLOR_BGR2RGB>(s, 24, 24, CV_8UC3, CV_8UC3); }
void BM_Convert_24to32_opencv(benchmark::State& s) { cvPeer<cv::COLOR_BGR2BGRA>(s, 24, 32, CV_8UC3, CV_8UC4); }
void BM_Convert_32to24_opencv(benchmark::State& s) { cvPeer<cv::COLOR_BGRA2BGR>(s, 32, 24, CV_8UC4, CV_8UC3); }
void BM_Convert_24to16_555_opencv(benchmark::State& s) { cvPeer<cv::COLOR_BGR2BGR555>(s, 24, 16, CV_8UC3, CV_8UC2); }
void BM_Convert_24to16_565_opencv(benchmark::State& s) { cvPeer<cv::COLOR_BGR2BGR565>(s, 24, 16, CV_8UC3, CV_8UC2); }
void BM_Convert_16to24_555_opencv(benchmark::State& s) { cvPeer<cv::COLOR_BGR5552BGR>(s, 16, 24, CV_8UC2, CV_8UC3); }
void BM_Convert_16to24_565_opencv(benchmark::State& s) { cvPeer<cv::COLOR_BGR5652BGR>(s, 16, 24, CV_8UC2, CV_8UC3); }
// OpenCV's grey uses other weights; the work per pixel is comparable.
void BM_Convert_24toGrey8_opencv(benchmark::State& s) { cvPeer<cv::COLOR_BGR2GRAY>(s, 24, 8, CV_8UC3, CV_8UC1); }
// 16-bit samples to their high byte: a scale by 1/256 with rounding.
void BM_Convert_48to24_opencv(benchmark::State& s) {
    cv::setNumThreads(1);
    peer(s, 48, 24, [](const uint8_t* a, uint8_t* b) {
        cv::Mat src(kH, kW, CV_16UC3, const_cast<uint8_t*>(a)), dst(kH, kW, CV_8UC3, b);
        src.convertTo(dst, CV_8U, 1.0 / 256.0);
    });
}
BENCHMARK(BM_Convert_24to24swap_opencv)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_24to32_opencv)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_32to24_opencv)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_24to16_555_opencv)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_24to16_565_opencv)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_16to24_555_opencv)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_16to24_565_opencv)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_24toGrey8_opencv)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_48to24_opencv)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

// ---------------------------------------------------------------- palette index
// 24-bit colour to 8-bit index. The image's colours all come from the
// destination palette (the case the colour-match tree is built for).
struct PaletteImage {
    std::vector<RGBQUAD> pal;
    std::vector<uint8_t> pristine, work;
    PaletteImage(int w, int h) : pal(256), pristine(size_t(w) * size_t(h) * 3) {
        auto r = bench::randomBytes(256 * 3, 3);
        for (int i = 0; i < 256; ++i) pal[size_t(i)] = RGBQUAD{r[3 * size_t(i)], r[3 * size_t(i) + 1], r[3 * size_t(i) + 2], 0};
        auto pick = bench::randomBytes(size_t(w) * size_t(h), 4);
        for (size_t i = 0; i < pick.size(); ++i) {
            const RGBQUAD& e = pal[pick[i]];
            pristine[3 * i] = e.rgbBlue, pristine[3 * i + 1] = e.rgbGreen, pristine[3 * i + 2] = e.rgbRed;
        }
        work = pristine;
    }
};

void indexRows(benchmark::State& state, const uint32_t* tree, int w, int h, bool randomColours) {
    PaletteImage img(w, h);
    if (randomColours) img.pristine = bench::randomBytes(img.pristine.size(), 9), img.work = img.pristine;
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(img.work.data(), img.pristine.data(), img.work.size());
        state.ResumeTiming();
        for (int y = 0; y < h; ++y)
            krn::convertBuffer(img.work.data() + size_t(y) * size_t(w) * 3, w, 24, 8, ORDER_BGR, ORDER_BGR,
                               nullptr, img.pal.data(), nullptr, 0, -1, -1, 0, tree);
        benchmark::ClobberMemory();
    }
    state.counters["Mpix/s"] = benchmark::Counter(double(state.iterations()) * w * h / 1e6,
                                                  benchmark::Counter::kIsRate);
}

void BM_Convert_24toIndex_tree(benchmark::State& s) {
    PaletteImage img(1, 1);
    uint32_t* tree = krn::buildColorMatchTree(img.pal.data(), 256);
    indexRows(s, tree, kW, kH, false);
    krn::freeColorMatchTree(tree);
}
// Without a tree: the nearest-colour search, with the converter's per-call
// memory of recent answers.
void BM_Convert_24toIndex_search(benchmark::State& s) { indexRows(s, nullptr, kW, kH / 10, false); }
void BM_Convert_24toIndex_search_randomColours(benchmark::State& s) { indexRows(s, nullptr, kW, kH / 100, true); }
// The baseline: the plain nearest-colour scan for every pixel.
void BM_Convert_24toIndex_plainScan(benchmark::State& state) {
    const int w = kW, h = kH / 100;
    PaletteImage img(w, h);
    std::vector<uint8_t> out(size_t(w) * size_t(h));
    for (auto _ : state) {
        for (size_t i = 0; i < out.size(); ++i)
            out[i] = uint8_t(krn::findPaletteIndexScalar(img.pal.data(), 256, img.pristine[3 * i + 2],
                                                         img.pristine[3 * i + 1], img.pristine[3 * i]));
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["Mpix/s"] = benchmark::Counter(double(state.iterations()) * w * h / 1e6,
                                                  benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Convert_24toIndex_tree)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_24toIndex_search)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_24toIndex_search_randomColours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Convert_24toIndex_plainScan)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
