// bench_common.h - shared helpers: every operation is reported next to
// memcpy of the same buffer so results read as a ratio.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace bench {

inline std::vector<uint8_t> randomBytes(size_t n, uint32_t seed = 1) {
    std::vector<uint8_t> v(n);
    std::mt19937 rng(seed);
    for (auto& b : v) b = uint8_t(rng());
    return v;
}

// memcpy of `bytes` bytes, reported as bytes/s; register next to an operation.
inline void memcpyBaseline(benchmark::State& state, size_t bytes) {
    std::vector<uint8_t> src = randomBytes(bytes), dst(bytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), bytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

}  // namespace bench
