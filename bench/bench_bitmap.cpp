// bench_bitmap.cpp - creating and freeing a large bitmap.
#include "bench_common.h"
#include "ombrix.h"

namespace {

constexpr int32_t kW = 4000, kH = 3000;

void BM_CreateFreeBitmap24(benchmark::State& state) {
    BITMAPRECORD bm;
    for (auto _ : state) {
        int32_t rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, kW, kH, 24, ORDER_BGR,
                                    nullptr, TOP_LEFT, nullptr, 0);
        if (rc != KS_SUCCESS) state.SkipWithError("K_CreateBitmap failed");
        benchmark::DoNotOptimize(bm.hMemory);
        K_FreeBitmap(&bm);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bm.nBytesPerLine) * kH);
}
BENCHMARK(BM_CreateFreeBitmap24)->Unit(benchmark::kMicrosecond);

void BM_Memcpy_4000x3000x24(benchmark::State& state) { bench::memcpyBaseline(state, size_t(12000) * kH); }
BENCHMARK(BM_Memcpy_4000x3000x24)->Unit(benchmark::kMicrosecond);

}  // namespace
