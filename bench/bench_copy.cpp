// bench_copy.cpp - copies of a 4000 x 3000 single-block bitmap, each round
// timed back to back with memcpy of the same bytes in the same process, so
// the ratio printed (memcpy time / operation time, above 1 is faster than
// memcpy) is taken under the same load.
//
//   CopyBitmapData  pixels into an existing bitmap   vs memcpy into a reused buffer
//   CopyBitmap      a new bitmap (allocation incl.)  vs memcpy into a reused buffer
//   CopyBitmapRect  a 3000 x 2000 window, new bitmap vs row memcpy of the window into a reused buffer
// and peers on the same bytes when installed (libyuv CopyPlane, OpenCV clone
// into a new matrix). Ratios in wall time (ratio_vs_memcpy) and in the
// thread's CPU time (ratio_vs_memcpy_cpu, which the machine's other load
// disturbs less).
#include <chrono>
#include <ctime>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "bench_common.h"
#include "ombrix.h"

#ifdef OMBRIX_HAVE_LIBYUV
#include <libyuv/planar_functions.h>
#endif
#ifdef OMBRIX_HAVE_OPENCV
#include <opencv2/core.hpp>
#endif

namespace {

constexpr int32_t kW = 4000, kH = 3000;

struct Image {
    BITMAPRECORD bm{};
    Image(int32_t bpp) {
        K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL | MEMTYPE_NO_TILES | MEMTYPE_NO_DISK, kW, kH,
                       bpp, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0);
        auto px = bench::randomBytes(bm.nBytesPerLine, 5);
        K_AccessBitmap(&bm);
        for (int32_t y = 0; y < kH; ++y) K_PutBitmapRow(&bm, px.data(), y, bm.nBytesPerLine);
        K_ReleaseBitmap(&bm);
    }
    ~Image() { K_FreeBitmap(&bm); }
    size_t bytes() const { return size_t(bm.nBytesPerLine) * size_t(kH); }
};

struct Took {
    double wall, cpu;
};
double threadCpu() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}
Took seconds(const std::function<void()>& fn) {
    const double c0 = threadCpu();
    auto t0 = std::chrono::steady_clock::now();
    fn();
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    return {wall, threadCpu() - c0};
}

// Runs `op` and `baseline` alternately; the benchmark's time is op's, the
// counters give both and their ratio. `after` runs untimed after each op.
void interleaved(benchmark::State& state, const std::function<void()>& op, const std::function<void()>& after,
                 const std::function<void()>& baseline, const std::function<void()>& afterBaseline, size_t bytes) {
    double tOp = 0, tBase = 0, cOp = 0, cBase = 0;
    int64_t n = 0;
    for (auto _ : state) {
        const Took b = seconds(baseline);
        afterBaseline();
        const Took o = seconds(op);
        after();
        state.SetIterationTime(o.wall);
        tOp += o.wall, cOp += o.cpu;
        tBase += b.wall, cBase += b.cpu;
        ++n;
    }
    state.SetBytesProcessed(n * int64_t(bytes));
    state.counters["memcpy_ms"] = tBase / double(n) * 1e3;
    state.counters["op_ms"] = tOp / double(n) * 1e3;
    state.counters["ratio_vs_memcpy"] = tBase / tOp;
    state.counters["ratio_vs_memcpy_cpu"] = cOp > 0 ? cBase / cOp : 0;
}

void BM_Copy_CopyBitmapData(benchmark::State& state) {
    Image src(int32_t(state.range(0))), dst(int32_t(state.range(0)));
    const size_t bytes = src.bytes();
    std::vector<uint8_t> a(bytes, 1), b(bytes, 2);
    interleaved(
        state, [&] { K_CopyBitmapData(&dst.bm, &src.bm); }, [] {},
        [&] {
            std::memcpy(b.data(), a.data(), bytes);
            benchmark::ClobberMemory();
        },
        [] {}, bytes);
}

void BM_Copy_CopyBitmap(benchmark::State& state) {
    Image src(int32_t(state.range(0)));
    const size_t bytes = src.bytes();
    std::vector<uint8_t> a(bytes, 1), b(bytes, 2);
    BITMAPRECORD out;
    interleaved(
        state, [&] { K_CopyBitmap(&out, &src.bm, BITMAPRECORD_SIZE); }, [&] { K_FreeBitmap(&out); },
        [&] {
            std::memcpy(b.data(), a.data(), bytes);
            benchmark::ClobberMemory();
        },
        [] {}, bytes);
}

void BM_Copy_CopyBitmapRect(benchmark::State& state) {
    Image src(int32_t(state.range(0)));
    const uint32_t w = 3000, h = 2000;
    const size_t pixBytes = size_t(src.bm.nBitsPerPixel / 8);
    const size_t rowBytes = w * pixBytes, bpl = src.bm.nBytesPerLine;
    const size_t outBpl = (rowBytes + 3) & ~size_t(3);
    std::vector<uint8_t> a(src.bytes(), 1), b(outBpl * h, 2);
    BITMAPRECORD out;
    interleaved(
        state, [&] { K_CopyBitmapRect(&out, &src.bm, BITMAPRECORD_SIZE, 500, 500, w, h); },
        [&] { K_FreeBitmap(&out); },
        [&] {
            for (size_t y = 0; y < h; ++y) std::memcpy(b.data() + y * outBpl, a.data() + (y + 500) * bpl + 500 * pixBytes, rowBytes);
            benchmark::ClobberMemory();
        },
        [] {}, outBpl * h);
}

#ifdef OMBRIX_HAVE_LIBYUV
void BM_Copy_Peer_LibyuvCopyPlane(benchmark::State& state) {
    const int bpl = ((kW * int(state.range(0)) + 31) / 32) * 4;
    const size_t bytes = size_t(bpl) * kH;
    std::vector<uint8_t> a(bytes, 1), b(bytes, 2), c(bytes, 3), d(bytes, 4);
    interleaved(
        state, [&] { libyuv::CopyPlane(a.data(), bpl, b.data(), bpl, bpl, kH); }, [] {},
        [&] {
            std::memcpy(d.data(), c.data(), bytes);
            benchmark::ClobberMemory();
        },
        [] {}, bytes);
}
BENCHMARK(BM_Copy_Peer_LibyuvCopyPlane)->Arg(24)->Arg(32)->UseManualTime()->Unit(benchmark::kMillisecond);
#endif

#ifdef OMBRIX_HAVE_OPENCV
void BM_Copy_Peer_OpenCVClone(benchmark::State& state) {
    const int type = state.range(0) == 24 ? CV_8UC3 : CV_8UC4;
    cv::Mat m(kH, kW, type, cv::Scalar(1, 2, 3, 4));
    const size_t bytes = m.total() * m.elemSize();
    std::vector<uint8_t> a(bytes, 1), b(bytes, 2);
    cv::Mat out;
    interleaved(
        state, [&] { out = m.clone(); }, [&] { out.release(); },
        [&] {
            std::memcpy(b.data(), a.data(), bytes);
            benchmark::ClobberMemory();
        },
        [] {}, bytes);
}
BENCHMARK(BM_Copy_Peer_OpenCVClone)->Arg(24)->Arg(32)->UseManualTime()->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK(BM_Copy_CopyBitmapData)->Arg(8)->Arg(24)->Arg(32)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Copy_CopyBitmap)->Arg(8)->Arg(24)->Arg(32)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Copy_CopyBitmapRect)->Arg(24)->Arg(32)->UseManualTime()->Unit(benchmark::kMillisecond);
