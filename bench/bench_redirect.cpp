// bench_redirect.cpp - kernel temporary files (warm page cache), the memory
// buffer file and UTF-8 conversion, each next to memcpy of the same bytes.
#include <memory>
#include <string>

#include "bench_common.h"
#include "krn/common/tempfile.h"
#include "ombrix.h"
#include "wideutf8.h"

namespace {

constexpr size_t kRow = 24 * 4000 / 8;  // a 4000-pixel 24-bit row: 12000 bytes
constexpr int kRows = 256;                  // 3 MB file

struct WarmFile {
    std::unique_ptr<krn::TempFile, krn::TempFileCloser> f;
    WarmFile() {
        krn::TempFile* h = nullptr;
        if (krn::tempCreate(&h) == KS_SUCCESS) f.reset(h);
        auto bytes = bench::randomBytes(kRow * kRows);
        if (f) krn::tempWrite(f.get(), 0, bytes.data(), bytes.size());
    }
};

void BM_TempReadRows(benchmark::State& state) {
    WarmFile w;
    if (!w.f) return state.SkipWithError("no temporary file");
    std::vector<uint8_t> row(kRow);
    int r = 0;
    for (auto _ : state) {
        if (krn::tempRead(w.f.get(), uint64_t(r) * kRow, row.data(), kRow) != KS_SUCCESS)
            return state.SkipWithError("read failed");
        benchmark::DoNotOptimize(row.data());
        r = (r + 1) % kRows;
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kRow));
}
BENCHMARK(BM_TempReadRows);

void BM_TempWriteRows(benchmark::State& state) {
    WarmFile w;
    if (!w.f) return state.SkipWithError("no temporary file");
    auto row = bench::randomBytes(kRow, 3);
    int r = 0;
    for (auto _ : state) {
        if (krn::tempWrite(w.f.get(), uint64_t(r) * kRow, row.data(), kRow) != KS_SUCCESS)
            return state.SkipWithError("write failed");
        r = (r + 1) % kRows;
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kRow));
}
BENCHMARK(BM_TempWriteRows);

// Rows copied out of a mapped window of the same file.
void BM_TempMappedReadRows(benchmark::State& state) {
    WarmFile w;
    krn::TempMapping m;
    if (!w.f || krn::tempMap(w.f.get(), 0, kRow * kRows, false, &m) != KS_SUCCESS)
        return state.SkipWithError("no mapping");
    std::vector<uint8_t> row(kRow);
    int r = 0;
    for (auto _ : state) {
        std::memcpy(row.data(), m.data + size_t(r) * kRow, kRow);
        benchmark::DoNotOptimize(row.data());
        benchmark::ClobberMemory();
        r = (r + 1) % kRows;
    }
    krn::tempUnmap(&m);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kRow));
}
BENCHMARK(BM_TempMappedReadRows);

void BM_TempRowMemcpy(benchmark::State& state) { bench::memcpyBaseline(state, kRow); }
BENCHMARK(BM_TempRowMemcpy);

// Writes 1 MB into a growing buffer file in 12000-byte pieces, from empty.
void BM_BufferFileWrite(benchmark::State& state) {
    auto row = bench::randomBytes(kRow, 5);
    const int pieces = int((1 << 20) / kRow);
    for (auto _ : state) {
        HREDIRECTBUFFER b = nullptr;
        HREDIRECTFILE f = nullptr;
        K_StartRedirectToBuffer(&b, &f, 0, nullptr, 1 << 16, 1 << 20);
        for (int i = 0; i < pieces; ++i) K_RedirectedWrite(f, row.data(), uint32_t(kRow));
        K_RedirectedClose(f);
        K_StopRedirectToBuffer(b, nullptr, nullptr);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * pieces * int64_t(kRow));
}
BENCHMARK(BM_BufferFileWrite);
void BM_BufferFileMemcpy(benchmark::State& state) { bench::memcpyBaseline(state, (1 << 20) / kRow * kRow); }
BENCHMARK(BM_BufferFileMemcpy);

void BM_Utf8ToWide(benchmark::State& state) {
    std::string s;
    while (s.size() < 4096) s += "/images/caf\xC3\xA9-\xE6\xBC\xA2\xE5\xAD\x97/scan_0001.tif";
    std::vector<wchar_t> w(s.size());
    for (auto _ : state) {
        auto r = krn::utf::utf8ToWide(s.data(), s.size(), w.data(), w.size());
        benchmark::DoNotOptimize(r);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(s.size()));
}
BENCHMARK(BM_Utf8ToWide);
void BM_Utf8Memcpy(benchmark::State& state) { bench::memcpyBaseline(state, 4096); }
BENCHMARK(BM_Utf8Memcpy);

}  // namespace
