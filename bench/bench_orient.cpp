// bench_orient.cpp - quarter turns, flips and mirrors of a 4000 x 3000 image.
//
// Each case runs its contenders interleaved, round after round, in one
// process: Ombrix, memcpy of the same bytes, and every installed peer
// (libyuv, OpenCV, Leptonica). The reported time is Ombrix's best round; the
// counters give each contender as a multiple of memcpy's speed (x_memcpy,
// higher is faster: 0.5 means half as fast as copying the bytes). The
// machine is shared, and a contender that outlasts its scheduling slice is
// charged for the other jobs' slices in wall time while memcpy of a few
// megabytes is not; so each round is also timed in process CPU time (all
// threads, so a threaded peer is charged for every core it uses) and the
// `_cpu` counters give the same ratios from that clock.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <time.h>

#include "bench_common.h"
#include "krn/common/rotate.h"
#include "ombrix.h"

#ifdef OMBRIX_HAVE_LIBYUV
#include <libyuv.h>
#endif
#ifdef OMBRIX_HAVE_OPENCV
#include <opencv2/core.hpp>
#endif
#ifdef OMBRIX_HAVE_LEPTONICA
#include <leptonica/allheaders.h>
#endif

namespace {

constexpr int kW = 4000, kH = 3000;
constexpr int kRounds = 7;

uint32_t stride(int w, int bpp) { return uint32_t(((uint64_t(w) * uint64_t(bpp) + 31) >> 3) & ~uint64_t(3)); }

struct Contender {
    std::string name;
    std::function<void()> run;
    double best = 1e30;
    double bestCpu = 1e30;
};

double cpuSeconds() {
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// Runs the contenders interleaved; contender 0 is Ombrix, 1 memcpy.
void interleaved(benchmark::State& state, std::vector<Contender>& cs) {
    for (auto& c : cs) c.run();  // warm up: page in every buffer
    for (int r = 0; r < kRounds; ++r)
        for (auto& c : cs) {
            const double c0 = cpuSeconds();
            auto t0 = std::chrono::steady_clock::now();
            c.run();
            auto t1 = std::chrono::steady_clock::now();
            const double c1 = cpuSeconds();
            c.best = std::min(c.best, std::chrono::duration<double>(t1 - t0).count());
            c.bestCpu = std::min(c.bestCpu, c1 - c0);
        }
    for (auto _ : state) state.SetIterationTime(cs[0].best);
    const double mem = cs[1].best, memCpu = cs[1].bestCpu;
    for (auto& c : cs) {
        state.counters[c.name + "_ms"] = c.best * 1e3;
        state.counters[c.name + "_cpu_ms"] = c.bestCpu * 1e3;
        if (&c != &cs[1]) {
            state.counters[c.name + "_x_memcpy"] = mem / c.best;
            state.counters[c.name + "_x_memcpy_cpu"] = memCpu / c.bestCpu;
        }
    }
}

Contender memcpyOf(size_t bytes) {
    auto src = std::make_shared<std::vector<uint8_t>>(bench::randomBytes(bytes));
    auto dst = std::make_shared<std::vector<uint8_t>>(bytes);
    return {"memcpy", [src, dst, bytes] {
                std::memcpy(dst->data(), src->data(), bytes);
                benchmark::DoNotOptimize(dst->data());
            }};
}

// A single-block bitmap of random pixels.
std::shared_ptr<BITMAPRECORD> bitmap(int w, int h, int bpp) {
    auto bm = std::shared_ptr<BITMAPRECORD>(new BITMAPRECORD, [](BITMAPRECORD* b) {
        K_FreeBitmap(b);
        delete b;
    });
    K_CreateBitmap(bm.get(), BITMAPRECORD_SIZE, 1, w, h, bpp, 0, nullptr, 1, nullptr, 0);
    auto rnd = bench::randomBytes(bm->nBytesPerLine);
    K_AccessBitmap(bm.get());
    for (int y = 0; y < h; ++y) K_PutBitmapRow(bm.get(), rnd.data(), y, bm->nBytesPerLine);
    K_ReleaseBitmap(bm.get());
    return bm;
}

// ---------------------------------------------------------------- quarter turns
void quarterTurn(benchmark::State& state, int bpp) {
    const size_t sBytes = size_t(stride(kW, bpp)) * kH, dBytes = size_t(stride(kH, bpp)) * kW;
    auto src = std::make_shared<std::vector<uint8_t>>(bench::randomBytes(sBytes));
    auto dst = std::make_shared<std::vector<uint8_t>>(dBytes);
    std::vector<Contender> cs;
    cs.push_back({"ombrix", [=] { K_RotateBuffer90(src->data(), dst->data(), 1, kW, kH, bpp); }});
    cs.push_back(memcpyOf(sBytes));
    auto bm = bitmap(kW, kH, bpp);
    cs.push_back({"ombrix_bitmap", [bm] { K_RotateBitmap90(bm.get(), 1, 0, 100); }});
    {
        auto d2 = std::make_shared<std::vector<uint8_t>>(dBytes);
        cs.push_back({"ombrix_plain", [=] {
                          krn::turnBlockPlain(src->data(), stride(kW, bpp), d2->data(), stride(kH, bpp), kW, kH, bpp,
                                              true, false);
                      }});
    }
#ifdef OMBRIX_HAVE_LIBYUV
    if (bpp == 8)
        cs.push_back({"libyuv", [=] { libyuv::RotatePlane90(src->data(), kW, dst->data(), kH, kW, kH); }});
    if (bpp == 32)
        cs.push_back({"libyuv", [=] {
                          libyuv::ARGBRotate(src->data(), kW * 4, dst->data(), kH * 4, kW, kH, libyuv::kRotate90);
                      }});
#endif
#ifdef OMBRIX_HAVE_OPENCV
    if (bpp == 8 || bpp == 24 || bpp == 32) {
        const int type = bpp == 8 ? CV_8UC1 : bpp == 24 ? CV_8UC3 : CV_8UC4;
        auto m = std::make_shared<cv::Mat>(kH, kW, type, src->data(), stride(kW, bpp));
        auto o = std::make_shared<cv::Mat>(kW, kH, type);
        cs.push_back({"opencv", [m, o] { cv::rotate(*m, *o, cv::ROTATE_90_CLOCKWISE); }});
    }
#endif
#ifdef OMBRIX_HAVE_LEPTONICA
    if (bpp == 1 || bpp == 8 || bpp == 32) {
        PIX* p = pixCreate(kW, kH, bpp);
        std::memcpy(pixGetData(p), src->data(), std::min<size_t>(sBytes, size_t(pixGetWpl(p)) * 4 * kH));
        auto pix = std::shared_ptr<PIX>(p, [](PIX* q) { pixDestroy(&q); });
        cs.push_back({"leptonica", [pix] {
                          PIX* r = pixRotate90(pix.get(), 1);
                          pixDestroy(&r);
                      }});
    }
#endif
    interleaved(state, cs);
}

// ---------------------------------------------------------------- flips and mirrors in place
void flipInPlace(benchmark::State& state, int bpp) {
    const size_t bytes = size_t(stride(kW, bpp)) * kH;
    auto bm = bitmap(kW, kH, bpp);
    std::vector<Contender> cs;
    cs.push_back({"ombrix", [bm] { K_FlipBitmap(bm.get()); }});
    cs.push_back(memcpyOf(bytes));
#ifdef OMBRIX_HAVE_OPENCV
    auto buf = std::make_shared<std::vector<uint8_t>>(bench::randomBytes(bytes));
    const int type = bpp == 8 ? CV_8UC1 : bpp == 24 ? CV_8UC3 : CV_8UC4;
    auto m = std::make_shared<cv::Mat>(kH, kW, type, buf->data(), stride(kW, bpp));
    cs.push_back({"opencv", [m] { cv::flip(*m, *m, 0); }});
#endif
#ifdef OMBRIX_HAVE_LEPTONICA
    if (bpp == 8 || bpp == 32) {
        auto pix = std::shared_ptr<PIX>(pixCreate(kW, kH, bpp), [](PIX* q) { pixDestroy(&q); });
        cs.push_back({"leptonica", [pix] { pixFlipTB(pix.get(), pix.get()); }});
    }
#endif
    interleaved(state, cs);
}

void mirrorInPlace(benchmark::State& state, int bpp) {
    const size_t bytes = size_t(stride(kW, bpp)) * kH;
    auto bm = bitmap(kW, kH, bpp);
    std::vector<Contender> cs;
    cs.push_back({"ombrix", [bm] { K_ReverseBitmap(bm.get()); }});
    cs.push_back(memcpyOf(bytes));
    auto buf = std::make_shared<std::vector<uint8_t>>(bench::randomBytes(bytes));
    auto out = std::make_shared<std::vector<uint8_t>>(bytes);
    const int s = int(stride(kW, bpp));
#ifdef OMBRIX_HAVE_LIBYUV
    if (bpp == 8) cs.push_back({"libyuv", [=] { libyuv::MirrorPlane(buf->data(), s, out->data(), s, kW, kH); }});
    if (bpp == 24) cs.push_back({"libyuv", [=] { libyuv::RGB24Mirror(buf->data(), s, out->data(), s, kW, kH); }});
    if (bpp == 32) cs.push_back({"libyuv", [=] { libyuv::ARGBMirror(buf->data(), s, out->data(), s, kW, kH); }});
#endif
#ifdef OMBRIX_HAVE_OPENCV
    if (bpp >= 8) {
        const int type = bpp == 8 ? CV_8UC1 : bpp == 24 ? CV_8UC3 : CV_8UC4;
        auto m = std::make_shared<cv::Mat>(kH, kW, type, buf->data(), s);
        cs.push_back({"opencv", [m] { cv::flip(*m, *m, 1); }});
    }
#endif
#ifdef OMBRIX_HAVE_LEPTONICA
    if (bpp == 1 || bpp == 8 || bpp == 32) {
        auto pix = std::shared_ptr<PIX>(pixCreate(kW, kH, bpp), [](PIX* q) { pixDestroy(&q); });
        cs.push_back({"leptonica", [pix] { pixFlipLR(pix.get(), pix.get()); }});
    }
#endif
    (void)s;
    interleaved(state, cs);
}

}  // namespace

BENCHMARK_CAPTURE(quarterTurn, 1bit, 1)->Name("BM_Orient_QuarterTurn_1bit")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(quarterTurn, 8bit, 8)->Name("BM_Orient_QuarterTurn_8bit")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(quarterTurn, 24bit, 24)->Name("BM_Orient_QuarterTurn_24bit")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(quarterTurn, 32bit, 32)->Name("BM_Orient_QuarterTurn_32bit")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(flipInPlace, 24bit, 24)->Name("BM_Orient_FlipInPlace_24bit")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(flipInPlace, 32bit, 32)->Name("BM_Orient_FlipInPlace_32bit")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(mirrorInPlace, 1bit, 1)->Name("BM_Orient_MirrorInPlace_1bit")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(mirrorInPlace, 8bit, 8)->Name("BM_Orient_MirrorInPlace_8bit")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(mirrorInPlace, 24bit, 24)->Name("BM_Orient_MirrorInPlace_24bit")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(mirrorInPlace, 32bit, 32)->Name("BM_Orient_MirrorInPlace_32bit")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
