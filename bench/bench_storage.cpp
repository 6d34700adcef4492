// bench_storage.cpp - row access over the storage kinds, the compressed-row
// format and the super-compressed row store. Each operation is registered
// next to a memcpy of the same number of bytes.
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "bench_common.h"
#include "ombrix.h"
#include "krn/common/superstore.h"

#ifdef OMBRIX_HAVE_LEPTONICA
#include <leptonica/allheaders.h>
#endif

namespace {

constexpr int32_t kW = 4000;  // pixels per row of the whole-row benchmarks

// ---------------------------------------------------------------- test images
// A scanned-text-like 1-bit page (300 dpi letter): margins, lines of
// word-like blobs of strokes, 1 = ink.
std::vector<uint8_t> scannedPage1(int32_t w, int32_t h, uint32_t* bplOut) {
    const uint32_t bpl = uint32_t(((w + 31) / 32) * 4);
    std::vector<uint8_t> px(size_t(bpl) * size_t(h), 0);
    std::mt19937 rng(7);
    auto set = [&](int32_t x, int32_t y) { px[size_t(y) * bpl + size_t(x >> 3)] |= uint8_t(0x80u >> (x & 7)); };
    for (int32_t line = 300; line + 40 < h - 300; line += 50) {
        int32_t x = 300;
        while (x < w - 300) {
            int32_t word = 40 + int32_t(rng() % 160);
            for (int32_t c = x; c < std::min(x + word, w - 300); c += 12 + int32_t(rng() % 6)) {
                // a glyph: a few vertical and horizontal strokes
                int32_t gh = 20 + int32_t(rng() % 12), top = line + 30 - gh;
                for (int32_t y = top; y < line + 30; ++y) {
                    set(c, y);
                    set(c + 1, y);
                    set(c + 2, y);
                    if (rng() % 5 == 0) set(c + 6, y), set(c + 7, y);
                }
                for (int32_t xx = c; xx < c + 9; ++xx) set(xx, top + int32_t(rng() % gh)), set(xx, line + 29);
            }
            x += word + 25;
        }
    }
    *bplOut = bpl;
    return px;
}

// The same page at 8 bits: paper white with a little scanner noise, grey ink.
std::vector<uint8_t> scannedPage8(int32_t w, int32_t h) {
    uint32_t bpl1;
    auto one = scannedPage1(w, h, &bpl1);
    const uint32_t bpl = uint32_t(((w * 8 + 31) / 32) * 4);
    std::vector<uint8_t> px(size_t(bpl) * size_t(h), 0);
    std::mt19937 rng(3);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            bool ink = (one[size_t(y) * bpl1 + size_t(x >> 3)] >> (7 - (x & 7))) & 1;
            px[size_t(y) * bpl + size_t(x)] = ink ? uint8_t(30 + rng() % 40) : uint8_t(rng() % 16 ? 255 : 250);
        }
    return px;
}

// A photo-like 24-bit image: smooth shapes and gradients plus sensor noise.
std::vector<uint8_t> photo24(int32_t w, int32_t h) {
    const uint32_t bpl = uint32_t(((w * 24 + 31) / 32) * 4);
    std::vector<uint8_t> px(size_t(bpl) * size_t(h), 0);
    std::mt19937 rng(11);
    std::normal_distribution<float> noise(0.f, 2.5f);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            float fx = float(x) / float(w), fy = float(y) / float(h);
            float base = 110.f + 60.f * std::sin(fx * 7.f + fy * 3.f) + 40.f * std::cos(fy * 11.f - fx * 2.f);
            float r = base + 30.f * fx + noise(rng), g = base * 0.9f + 20.f * fy + noise(rng),
                  b = base * 0.7f + 50.f * (1.f - fx) + noise(rng);
            uint8_t* p = px.data() + size_t(y) * bpl + size_t(x) * 3;
            p[0] = uint8_t(std::clamp(b, 0.f, 255.f));
            p[1] = uint8_t(std::clamp(g, 0.f, 255.f));
            p[2] = uint8_t(std::clamp(r, 0.f, 255.f));
        }
    return px;
}

// ---------------------------------------------------------------- whole rows
// 4000 pixels x 24 bits per row; state.range(0) rows: 1000 (12 MB, fits the
// last-level cache) and 4000 (48 MB, does not).
struct RowBench {
    BITMAPRECORD bm{};
    int32_t h;
    size_t bytes;
    std::vector<uint8_t> src, dst;
    bool ok = false;
    bool accessed = false;
    RowBench(int32_t rows, uint32_t type, uint32_t convertTo, bool access = true)
        : h(rows), bytes(size_t(kW) * 3 * size_t(rows)), src(bench::randomBytes(bytes)), dst(bytes) {
        ok = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, type, kW, h, 24, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0) ==
             KS_SUCCESS;
        if (ok && convertTo) {
            // convertTo 0x10004: tiles that all live in temporary files (a cap they cannot fit under).
            int64_t oldCap = 0, held = 0;
            if (convertTo & 0x10000) {
                K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &held);
                K_ManageMemory(MANAGEMEMORY_SET_CAP, held + 1, &oldCap);
            }
            ok = K_SetBitmapMemoryInfo(&bm, convertTo & 0xFFFF, 4u << 20) == KS_SUCCESS;
            if (convertTo & 0x10000) K_ManageMemory(MANAGEMEMORY_SET_CAP, oldCap, nullptr);
        }
        if (ok && access) ok = accessed = K_AccessBitmap(&bm) == KS_SUCCESS;
        for (int32_t r = 0; ok && r < h; ++r)
            ok = K_PutBitmapRow(&bm, src.data() + size_t(r) * 12000, r, 12000) == 12000;
    }
    ~RowBench() {
        if (accessed) K_ReleaseBitmap(&bm);
        K_FreeBitmap(&bm);
    }
};

void getRows(benchmark::State& state, uint32_t type, uint32_t convertTo, bool access = true) {
    RowBench b(int32_t(state.range(0)), type, convertTo, access);
    if (!b.ok) {
        state.SkipWithError("bitmap setup failed");
        return;
    }
    for (auto _ : state) {
        for (int32_t r = 0; r < b.h; ++r) K_GetBitmapRow(&b.bm, b.dst.data() + size_t(r) * 12000, r, 12000);
        benchmark::ClobberMemory();
    }
    if (b.dst != b.src) state.SkipWithError("rows differ");
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(b.bytes));
}
void putRows(benchmark::State& state, uint32_t type, uint32_t convertTo) {
    RowBench b(int32_t(state.range(0)), type, convertTo);
    if (!b.ok) {
        state.SkipWithError("bitmap setup failed");
        return;
    }
    for (auto _ : state) {
        for (int32_t r = 0; r < b.h; ++r) K_PutBitmapRow(&b.bm, b.src.data() + size_t(r) * 12000, r, 12000);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(b.bytes));
}

void BM_Rows_Memcpy(benchmark::State& s) { bench::memcpyBaseline(s, size_t(kW) * 3 * size_t(s.range(0))); }
void BM_Rows_GetSingleBlock(benchmark::State& s) { getRows(s, 1, 0); }
void BM_Rows_PutSingleBlock(benchmark::State& s) { putRows(s, 1, 0); }
// Without K_AccessBitmap: every row locks and unlocks the block.
void BM_Rows_GetSingleBlockNotAccessed(benchmark::State& s) { getRows(s, 1, 0, false); }
void BM_Rows_GetTiles(benchmark::State& s) { getRows(s, 1, 4); }
void BM_Rows_PutTiles(benchmark::State& s) { putRows(s, 1, 4); }
void BM_Rows_GetFileTiles(benchmark::State& s) { getRows(s, 1, 0x10004); }
void BM_Rows_PutFileTiles(benchmark::State& s) { putRows(s, 1, 0x10004); }
void BM_Rows_GetDisk(benchmark::State& s) { getRows(s, 128, 0); }
void BM_Rows_PutDisk(benchmark::State& s) { putRows(s, 128, 0); }
BENCHMARK(BM_Rows_Memcpy)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Rows_GetSingleBlock)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Rows_PutSingleBlock)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Rows_GetSingleBlockNotAccessed)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Rows_GetTiles)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Rows_PutTiles)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Rows_GetFileTiles)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Rows_PutFileTiles)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Rows_GetDisk)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Rows_PutDisk)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------- compressed rows
constexpr int32_t kPageW = 2550, kPageH = 3300;

struct Page {
    uint32_t bpl = 0;
    std::vector<uint8_t> px = scannedPage1(kPageW, kPageH, &bpl);
    std::vector<uint8_t> runs = std::vector<uint8_t>(OMBRIX_COMPRESSED_ROW_MAX(kPageW) * kPageH);
};
Page& page() {
    static Page p;
    return p;
}

void BM_Page1_Memcpy(benchmark::State& s) { bench::memcpyBaseline(s, page().px.size()); }
void BM_Page1_CompressRows(benchmark::State& state) {
    Page& p = page();
    for (auto _ : state) {
        K_CompressRows(p.runs.data(), p.px.data(), kPageW, kPageH);
        benchmark::ClobberMemory();
    }
    size_t total = 0;
    for (int32_t r = 0; r < kPageH; ++r) {
        uint32_t w;
        std::memcpy(&w, p.runs.data() + total, 4);
        total += 4 + 2 * size_t(w);
    }
    state.counters["ratio"] = double(p.px.size()) / double(total);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(p.px.size()));
}
void BM_Page1_ExpandRows(benchmark::State& state) {
    Page& p = page();
    K_CompressRows(p.runs.data(), p.px.data(), kPageW, kPageH);
    std::vector<uint8_t> out(p.px.size());
    for (auto _ : state) {
        K_ExpandRows(p.runs.data(), out.data(), kPageW, kPageH);
        benchmark::ClobberMemory();
    }
    if (out != p.px) state.SkipWithError("round trip differs");
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(p.px.size()));
}
BENCHMARK(BM_Page1_Memcpy)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Page1_CompressRows)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Page1_ExpandRows)->Unit(benchmark::kMicrosecond);

#ifdef OMBRIX_HAVE_LEPTONICA
void BM_Page1_LeptonicaFindHorizontalRuns(benchmark::State& state) {
    Page& p = page();
    PIX* pix = pixCreate(kPageW, kPageH, 1);
    l_uint32* data = pixGetData(pix);
    const l_int32 wpl = pixGetWpl(pix);
    for (int32_t y = 0; y < kPageH; ++y)
        for (l_int32 i = 0; i < wpl; ++i) {
            const uint8_t* b = p.px.data() + size_t(y) * p.bpl + size_t(i) * 4;
            data[size_t(y) * size_t(wpl) + size_t(i)] =
                (l_uint32(b[0]) << 24) | (l_uint32(b[1]) << 16) | (l_uint32(b[2]) << 8) | b[3];
        }
    std::vector<l_int32> xs(kPageW + 1), xe(kPageW + 1);
    for (auto _ : state) {
        l_int32 n = 0;
        for (l_int32 y = 0; y < kPageH; ++y) pixFindHorizontalRuns(pix, y, xs.data(), xe.data(), &n);
        benchmark::DoNotOptimize(n);
    }
    pixDestroy(&pix);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(p.px.size()));
}
BENCHMARK(BM_Page1_LeptonicaFindHorizontalRuns)->Unit(benchmark::kMicrosecond);
#endif

// ---------------------------------------------------------------- super-compressed store
struct SuperBench {
    int32_t w, h, bpp;
    std::vector<uint8_t> px;
    uint32_t bpl;
};
SuperBench& superImage(int which) {
    static SuperBench page8{kPageW, 800, 8, scannedPage8(kPageW, 800), uint32_t(((kPageW * 8 + 31) / 32) * 4)};
    static SuperBench photo{2000, 600, 24, photo24(2000, 600), uint32_t(((2000 * 24 + 31) / 32) * 4)};
    static SuperBench page1 = [] {
        uint32_t bpl;
        auto px = scannedPage1(kPageW, kPageH, &bpl);
        return SuperBench{kPageW, kPageH, 1, px, bpl};
    }();
    return which == 0 ? page1 : which == 1 ? page8 : photo;
}

void superPut(benchmark::State& state) {
    SuperBench& im = superImage(int(state.range(0)));
    BITMAPRECORD bm;
    if (K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1024, im.w, im.h, im.bpp, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0) !=
        KS_SUCCESS) {
        state.SkipWithError("create failed");
        return;
    }
    for (auto _ : state)
        for (int32_t r = 0; r < im.h; ++r) K_PutBitmapRow(&bm, im.px.data() + size_t(r) * im.bpl, r, im.bpl);
    const double stored = double(krn::superStoredBytes(&bm));
    state.counters["ratio"] = double(im.px.size()) / (stored + 16.0 * im.h);  // with the per-row table
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(im.px.size()));
    K_FreeBitmap(&bm);
}
void superGet(benchmark::State& state) {
    SuperBench& im = superImage(int(state.range(0)));
    BITMAPRECORD bm;
    if (K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1024, im.w, im.h, im.bpp, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0) !=
        KS_SUCCESS) {
        state.SkipWithError("create failed");
        return;
    }
    for (int32_t r = 0; r < im.h; ++r) K_PutBitmapRow(&bm, im.px.data() + size_t(r) * im.bpl, r, im.bpl);
    std::vector<uint8_t> out(im.px.size());
    for (auto _ : state)
        for (int32_t r = 0; r < im.h; ++r) K_GetBitmapRow(&bm, out.data() + size_t(r) * im.bpl, r, im.bpl);
    if (out != im.px) state.SkipWithError("round trip differs");
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(im.px.size()));
    K_FreeBitmap(&bm);
}
void superMemcpy(benchmark::State& state) { bench::memcpyBaseline(state, superImage(int(state.range(0))).px.size()); }
// 0: scanned page 1 bit, 1: scanned page 8 bits, 2: photo 24 bits
BENCHMARK(superMemcpy)->Name("BM_Super_Memcpy")->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(superPut)->Name("BM_Super_PutRows")->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(superGet)->Name("BM_Super_GetRows")->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);

}  // namespace
