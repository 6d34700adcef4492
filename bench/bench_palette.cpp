// bench_palette.cpp - the nearest palette entry over a 256-entry palette.
//
// Side by side in one run: the plain scalar scan (the reference), the SSE2
// and AVX2 paths, the exported K_FindPaletteIndex, and memcpy of the target
// colours. Bytes processed are the 3 bytes of each target colour, so the
// figures read against memcpy of the same buffer; items/s is lookups/s.
// Two palettes: random colours (a few exact hits) and the fixed 8-bit
// palette; targets are random 24-bit colours.
#include <random>
#include <vector>

#include "bench_common.h"
#include "ombrix.h"
#include "krn/common/palette.h"

namespace {

constexpr size_t kTargets = 4096;

struct Data {
    std::vector<RGBQUAD> randomPal, fixedPal;
    std::vector<uint8_t> targets;  // R, G, B triples
    Data() : randomPal(256), fixedPal(K_IntGetFixedPalette(8), K_IntGetFixedPalette(8) + 256) {
        std::mt19937 rng(42);
        for (auto& e : randomPal) e = RGBQUAD{uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), 0};
        targets = bench::randomBytes(kTargets * 3, 7);
    }
};
const Data& data() {
    static Data d;
    return d;
}

template <class Fn>
void run(benchmark::State& state, const std::vector<RGBQUAD>& pal, Fn fn) {
    const auto& t = data().targets;
    for (auto _ : state) {
        int64_t sum = 0;
        for (size_t i = 0; i < kTargets; ++i) sum += fn(pal.data(), 256, t[3 * i], t[3 * i + 1], t[3 * i + 2]);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(kTargets));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kTargets * 3));
}

const std::vector<RGBQUAD>& pal(const benchmark::State& state) {
    return state.range(0) == 0 ? data().randomPal : data().fixedPal;
}

void BM_PaletteIndex_PlainLoop(benchmark::State& state) {
    run(state, pal(state), [](const RGBQUAD* p, int32_t n, int r, int g, int b) {
        return krn::findPaletteIndexScalar(p, n, r, g, b);
    });
}
void BM_PaletteIndex_Sse2(benchmark::State& state) {
    run(state, pal(state), [](const RGBQUAD* p, int32_t n, int r, int g, int b) {
        return krn::findPaletteIndexSse2(p, n, r, g, b);
    });
}
void BM_PaletteIndex_Avx2(benchmark::State& state) {
    if (!krn::cpuHasAvx2()) {
        state.SkipWithError("no AVX2");
        return;
    }
    run(state, pal(state), [](const RGBQUAD* p, int32_t n, int r, int g, int b) {
        return krn::findPaletteIndexAvx2(p, n, r, g, b);
    });
}
void BM_PaletteIndex_K_FindPaletteIndex(benchmark::State& state) {
    run(state, pal(state), [](const RGBQUAD* p, int32_t n, int r, int g, int b) {
        return K_FindPaletteIndex(p, n, r, g, b);
    });
}
void BM_PaletteIndex_Memcpy(benchmark::State& state) { bench::memcpyBaseline(state, kTargets * 3); }

// Arg 0: random palette, 1: fixed 8-bit palette.
BENCHMARK(BM_PaletteIndex_PlainLoop)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PaletteIndex_Sse2)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PaletteIndex_Avx2)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PaletteIndex_K_FindPaletteIndex)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PaletteIndex_Memcpy)->Unit(benchmark::kMicrosecond);

// A whole user match table (32768 searches).
void BM_CreateUserMatchTable(benchmark::State& state) {
    for (auto _ : state) {
        uint32_t* t = K_CreateUserMatchTable(data().randomPal.data(), 256);
        benchmark::DoNotOptimize(t);
        K_FreeUserMatchTable(t);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * 32768 * 4);
}
BENCHMARK(BM_CreateUserMatchTable)->Unit(benchmark::kMillisecond);
void BM_CreateUserMatchTable_Memcpy(benchmark::State& state) { bench::memcpyBaseline(state, 32768 * 4); }
BENCHMARK(BM_CreateUserMatchTable_Memcpy)->Unit(benchmark::kMicrosecond);

}  // namespace
