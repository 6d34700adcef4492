// bench_combine.cpp - K_CombineBitmapKrn on 4000x3000 images: 32-bit add,
// minimum, maximum, multiply and alpha-over, 24- and 8-bit add, 1-bit
// bitwise operations, each next to memcpy of the same bytes (source plus
// destination) and, when installed, OpenCV (add, min, max, multiply) and
// pixman (OVER). Bytes processed are the bytes of both images, so the
// bytes/s columns read as ratios to memcpy.
//
// Combine/TwoThreads/<op> times the compute-bound combines on one thread and
// through the parallel row helper, and the same row kernel run by one and by
// two plain std::threads over the same rows; it prints both speed-ups
// (ombrix_speedup, threads_speedup) and their ratio.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "krn/common/combine.h"
#include "ombrix.h"

#ifdef OMBRIX_HAVE_OPENCV
#include <opencv2/core.hpp>
#endif
#ifdef OMBRIX_HAVE_PIXMAN
#include <pixman.h>
#endif

namespace {

constexpr int32_t kW = 4000, kH = 3000;

struct Pair {
    int32_t bpp;
    uint32_t bpl;
    std::vector<uint8_t> s, d;
    BITMAPRECORD sb{}, db{};
    explicit Pair(int32_t bits) : bpp(bits) {
        bpl = uint32_t(((uint64_t(kW) * uint64_t(bits) + 31) >> 3) & ~uint64_t(3));
        s = bench::randomBytes(size_t(bpl) * kH, 1);
        d = bench::randomBytes(size_t(bpl) * kH, 2);
        const int32_t order = bits >= 24 ? ORDER_BGR : ORDER_RGB;
        K_CreateBitmap(&sb, BITMAPRECORD_SIZE, 2, kW, kH, bits, order, nullptr, TOP_LEFT, s.data(), s.size());
        K_CreateBitmap(&db, BITMAPRECORD_SIZE, 2, kW, kH, bits, order, nullptr, TOP_LEFT, d.data(), d.size());
    }
    ~Pair() {
        K_FreeBitmap(&sb);
        K_FreeBitmap(&db);
    }
    size_t bytes() const { return s.size() + d.size(); }
};

Pair& pairOf(int32_t bpp) {
    static Pair p1(1), p8(8), p24(24), p32(32);
    return bpp == 1 ? p1 : bpp == 8 ? p8 : bpp == 24 ? p24 : p32;
}

void Memcpy(benchmark::State& st, int32_t bpp) { bench::memcpyBaseline(st, pairOf(bpp).bytes()); }

void Ombrix(benchmark::State& st, int32_t bpp, uint32_t flags, uint32_t mode) {
    Pair& p = pairOf(bpp);
    const uint32_t old = krn::setCombineTestMode(mode);
    for (auto _ : st) {
        if (K_CombineBitmapKrn(&p.db, 0, 0, kW, kH, &p.sb, 0, 0, flags) != KS_SUCCESS) st.SkipWithError("combine failed");
        benchmark::ClobberMemory();
    }
    krn::setCombineTestMode(old);
    st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(p.bytes()));
}

#ifdef OMBRIX_HAVE_OPENCV
void OpenCV(benchmark::State& st, int32_t bpp, int op) {
    Pair& p = pairOf(bpp);
    const int type = bpp == 8 ? CV_8UC1 : bpp == 24 ? CV_8UC3 : CV_8UC4;
    cv::Mat a(kH, kW, type, p.s.data(), p.bpl), b(kH, kW, type, p.d.data(), p.bpl);
    cv::setNumThreads(1);  // the one-thread comparison
    for (auto _ : st) {
        switch (op) {
            case 0: cv::add(b, a, b); break;
            case 1: cv::min(b, a, b); break;
            case 2: cv::max(b, a, b); break;
            default: cv::multiply(b, a, b, 1.0 / 255.0); break;
        }
        benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(p.bytes()));
}
#endif

#ifdef OMBRIX_HAVE_PIXMAN
void PixmanOver(benchmark::State& st) {
    Pair& p = pairOf(32);
    pixman_image_t* s = pixman_image_create_bits(PIXMAN_a8r8g8b8, kW, kH, reinterpret_cast<uint32_t*>(p.s.data()), int(p.bpl));
    pixman_image_t* d = pixman_image_create_bits(PIXMAN_a8r8g8b8, kW, kH, reinterpret_cast<uint32_t*>(p.d.data()), int(p.bpl));
    for (auto _ : st) {
        pixman_image_composite32(PIXMAN_OP_OVER, s, nullptr, d, 0, 0, 0, 0, 0, 0, kW, kH);
        benchmark::ClobberMemory();
    }
    pixman_image_unref(s);
    pixman_image_unref(d);
    st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(p.bytes()));
}
#endif

// Speed-up of two threads: the library's row helper against plain std::threads on the same rows.
void TwoThreads(benchmark::State& st, uint32_t flags) {
    Pair& p = pairOf(32);
    krn::CombinePlan plan;
    krn::combinePlan(flags, 32, &plan);
    const krn::CombineFormat fmt = krn::combineFormat(&p.db);
    const krn::CombineRowFn fn = krn::pickCombineRow(plan, fmt, true);
    auto plainRows = [&](int32_t y0, int32_t y1) {
        std::vector<uint8_t> scratch(krn::combineScratchBytes(kW, 32));
        for (int32_t y = y0; y < y1; ++y)
            fn(plan, fmt, {p.s.data() + size_t(y) * p.bpl, 0, p.d.data() + size_t(y) * p.bpl, 0, uint32_t(kW), scratch.data()});
    };
    using clk = std::chrono::steady_clock;
    double o1 = 0, o2 = 0, t1 = 0, t2 = 0;
    for (auto _ : st) {
        auto a = clk::now();
        uint32_t old = krn::setCombineTestMode(4);
        K_CombineBitmapKrn(&p.db, 0, 0, kW, kH, &p.sb, 0, 0, flags);
        krn::setCombineTestMode(old);
        auto b = clk::now();
        K_CombineBitmapKrn(&p.db, 0, 0, kW, kH, &p.sb, 0, 0, flags);
        auto c = clk::now();
        plainRows(0, kH);
        auto e = clk::now();
        std::thread th(plainRows, 0, kH / 2);
        plainRows(kH / 2, kH);
        th.join();
        auto g = clk::now();
        o1 += std::chrono::duration<double>(b - a).count();
        o2 += std::chrono::duration<double>(c - b).count();
        t1 += std::chrono::duration<double>(e - c).count();
        t2 += std::chrono::duration<double>(g - e).count();
    }
    const double so = o2 > 0 ? o1 / o2 : 0, sp = t2 > 0 ? t1 / t2 : 0;
    st.counters["ombrix_speedup"] = so;
    st.counters["threads_speedup"] = sp;
    st.counters["ratio"] = sp > 0 ? so / sp : 0;
}

void registerAll() {
    struct Op { const char* name; uint32_t flags; int cv; };
    const Op ops32[] = {{"add", CombineAdd, 0}, {"min", CombineMinimum, 1}, {"max", CombineMaximum, 2},
                        {"multiply", CombineMultiply, 3}, {"alpha_over", CombineAlphaOver, -1}};
    for (const Op& o : ops32) {
        benchmark::RegisterBenchmark((std::string("Combine/32/") + o.name + "/memcpy").c_str(), Memcpy, 32)->Unit(benchmark::kMillisecond)->UseRealTime();
        benchmark::RegisterBenchmark((std::string("Combine/32/") + o.name + "/ombrix").c_str(), Ombrix, 32, o.flags, 4u)->Unit(benchmark::kMillisecond)->UseRealTime();
        benchmark::RegisterBenchmark((std::string("Combine/32/") + o.name + "/ombrix_plain").c_str(), Ombrix, 32, o.flags, 5u)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef OMBRIX_HAVE_OPENCV
        if (o.cv >= 0)
            benchmark::RegisterBenchmark((std::string("Combine/32/") + o.name + "/opencv").c_str(), OpenCV, 32, o.cv)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
#ifdef OMBRIX_HAVE_PIXMAN
        if (o.cv < 0) benchmark::RegisterBenchmark("Combine/32/alpha_over/pixman_over", PixmanOver)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
    }
    for (int32_t bpp : {24, 8}) {
        const std::string base = "Combine/" + std::to_string(bpp) + "/add/";
        benchmark::RegisterBenchmark((base + "memcpy").c_str(), Memcpy, bpp)->Unit(benchmark::kMillisecond)->UseRealTime();
        benchmark::RegisterBenchmark((base + "ombrix").c_str(), Ombrix, bpp, uint32_t(CombineAdd), 4u)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef OMBRIX_HAVE_OPENCV
        benchmark::RegisterBenchmark((base + "opencv").c_str(), OpenCV, bpp, 0)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
    }
    const Op ops1[] = {{"and", CombineAnd, 0}, {"or", CombineOr, 0}, {"xor", CombineXor, 0}, {"xor_not", CombineXor | 0x0001, 0}};
    for (const Op& o : ops1) {
        benchmark::RegisterBenchmark((std::string("Combine/1/") + o.name + "/memcpy").c_str(), Memcpy, 1)->Unit(benchmark::kMicrosecond)->UseRealTime();
        benchmark::RegisterBenchmark((std::string("Combine/1/") + o.name + "/ombrix").c_str(), Ombrix, 1, o.flags, 4u)->Unit(benchmark::kMicrosecond)->UseRealTime();
        benchmark::RegisterBenchmark((std::string("Combine/1/") + o.name + "/ombrix_plain").c_str(), Ombrix, 1, o.flags, 5u)->Unit(benchmark::kMicrosecond)->UseRealTime();
    }
    for (const Op& o : {Op{"multiply", CombineMultiply, 0}, Op{"alpha_over", CombineAlphaOver, 0},
                        Op{"divide", CombineDivideSource, 0}})
        benchmark::RegisterBenchmark((std::string("Combine/TwoThreads/") + o.name).c_str(), TwoThreads, o.flags)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(5);
}

const int kRegistered = (registerAll(), 0);

}  // namespace
