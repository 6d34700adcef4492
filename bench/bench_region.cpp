// bench_region.cpp - the region engine: a table of every combine on five
// shapes side by side with pixman_region32 (regionCombineTable), the memory
// of a 4000x3000 ellipse, polygon fill of a 10,000-vertex polygon and clip
// segments per row.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <ctime>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <cstring>
#include <random>
#include <vector>

#include "bench_common.h"
#include "ombrix.h"
#include "dis/common/region.h"
#include "krn/windowsemul/objects.h"

#ifdef OMBRIX_HAVE_PIXMAN
#include <pixman.h>
#endif

namespace {

std::vector<uint8_t> dataOf(HRGN h) {
    uint32_t n = GetRegionData(h, 0, nullptr);
    std::vector<uint8_t> v(n);
    GetRegionData(h, n, reinterpret_cast<RGNDATA*>(v.data()));
    return v;
}

HRGN fromRects(const std::vector<RECT>& rects) {
    std::vector<uint8_t> blk(32 + 16 * rects.size());
    RGNDATAHEADER h{32, RDH_RECTANGLES, uint32_t(rects.size()), uint32_t(16 * rects.size()), RECT{0, 0, 0, 0}};
    std::memcpy(blk.data(), &h, 32);
    std::memcpy(blk.data() + 32, rects.data(), 16 * rects.size());
    return ExtCreateRegion(nullptr, uint32_t(blk.size()), reinterpret_cast<const RGNDATA*>(blk.data()));
}

// ------------------------------------------------------------------ combine table
// Every combine (intersection, union, difference, XOR) on five pairs of
// shapes over 4000 x 3000, Ombrix (CombineRgn into a reused destination) and
// pixman_region32 (into a reused destination) interleaved round by round in
// this process; the table prints the median time per call of each and their
// ratio. pixman has no XOR: its row is two subtractions and a union, what a
// pixman user writes. Before timing, every Ombrix result is compared pixel
// for pixel with pixman's (their XOR must be empty).
//
//   discs      two overlapping ellipses of 3000 x 3000
//   boards     8-pixel checkerboards, the second shifted by (2, 2)
//   disc*board the ellipse (0, 0, 4000, 3000) and the checkerboard
//   text       two pages of generated glyphs (stems and bars), the second
//              another text shifted by (3, 7)
//   rects      two sets of 120,000 random rectangles of 1-16 pixels
constexpr int kW = 4000, kH = 3000;

HRGN boardRgn(int cell, int dx, int dy) {
    std::vector<RECT> rs;
    for (int y = 0, row = 0; y < kH; y += cell, ++row)
        for (int x = (row % 2) * cell; x < kW; x += 2 * cell) rs.push_back(RECT{x + dx, y + dy, x + cell + dx, y + cell + dy});
    return fromRects(rs);
}

HRGN randomRects(uint32_t seed, int count) {
    std::mt19937 rng(seed);
    std::vector<RECT> rs;
    for (int i = 0; i < count; ++i) {
        int x = int(rng() % kW), y = int(rng() % kH);
        rs.push_back(RECT{x, y, x + 1 + int(rng() % 16), y + 1 + int(rng() % 16)});
    }
    return fromRects(rs);
}

// A page of text: lines of 14-pixel glyphs made of vertical stems and
// horizontal bars (so rows repeat a few times, as in real text), words of
// 2-9 glyphs with a 9-pixel advance; the region is built from the mask's runs.
HRGN textRgn(uint32_t seed, int dx, int dy) {
    std::mt19937 rng(seed);
    constexpr int gw = 8, gh = 14, nGlyphs = 64;
    std::vector<uint8_t> glyphs(size_t(nGlyphs) * gw * gh, 0);
    for (int g = 0; g < nGlyphs; ++g) {
        uint8_t* m = glyphs.data() + size_t(g) * gw * gh;
        const int strokes = 2 + int(rng() % 3);
        for (int s = 0; s < strokes; ++s) {
            if (rng() % 2) {  // stem
                int x = int(rng() % (gw - 1)), w = 1 + int(rng() % 2), y0 = int(rng() % 6), y1 = y0 + 5 + int(rng() % 8);
                for (int y = y0; y < std::min(y1, gh); ++y)
                    for (int xx = x; xx < std::min(x + w, gw); ++xx) m[y * gw + xx] = 1;
            } else {  // bar
                int y = int(rng() % gh), h = 1 + int(rng() % 2), x0 = int(rng() % 4), x1 = x0 + 3 + int(rng() % 5);
                for (int yy = y; yy < std::min(y + h, gh); ++yy)
                    for (int x = x0; x < std::min(x1, gw); ++x) m[yy * gw + x] = 1;
            }
        }
    }
    std::vector<uint8_t> page(size_t(kW) * kH, 0);
    for (int line = 0; (line + 1) * 18 <= kH; ++line) {
        int x = 4;
        while (x + 10 * gw < kW) {
            int word = 2 + int(rng() % 8);
            for (int k = 0; k < word && x + gw < kW; ++k, x += 9) {
                const uint8_t* m = glyphs.data() + size_t(rng() % nGlyphs) * gw * gh;
                for (int y = 0; y < gh; ++y)
                    for (int xx = 0; xx < gw; ++xx)
                        if (m[y * gw + xx]) page[size_t(line * 18 + 2 + y) * kW + size_t(x + xx)] = 1;
            }
            x += 9;
        }
    }
    std::vector<RECT> rs;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW;) {
            if (!page[size_t(y) * kW + x]) {
                ++x;
                continue;
            }
            int e = x;
            while (e < kW && page[size_t(y) * kW + e]) ++e;
            rs.push_back(RECT{x + dx, y + dy, e + dx, y + 1 + dy});
            x = e;
        }
    return fromRects(rs);
}

struct Shape {
    const char* name;
    HRGN a, b;
};
const std::vector<Shape>& shapes() {
    static const std::vector<Shape> s = [] {
        HRGN board = boardRgn(8, 0, 0);
        return std::vector<Shape>{
            {"discs", CreateEllipticRgn(0, 0, 3000, 3000), CreateEllipticRgn(1000, 0, 4000, 3000)},
            {"boards", board, boardRgn(8, 2, 2)},
            {"disc*board", CreateEllipticRgn(0, 0, kW, kH), board},
            {"text", textRgn(5, 0, 0), textRgn(6, 3, 7)},
            {"rects", randomRects(11, 120000), randomRects(12, 120000)},
        };
    }();
    return s;
}

struct OpName {
    int mode;
    const char* name;
};
constexpr OpName kOps[] = {{RGN_AND, "intersection"}, {RGN_OR, "union"}, {RGN_DIFF, "difference"}, {RGN_XOR, "xor"}};

// CPU time of this thread per call: on a machine shared with other jobs the
// wall time of a call of several milliseconds mostly measures the time slices
// it waited for.
double threadSeconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + 1e-9 * double(ts.tv_nsec);
}
template <class F>
double secondsOf(F&& f, int reps) {
    const double t0 = threadSeconds();
    for (int i = 0; i < reps; ++i) f();
    return (threadSeconds() - t0) / reps;
}

// The memory traffic of one pass in this format: reading both sources' run
// data and row indexes and writing the result's (into a reused buffer). A
// merge that must look at every row to stay exact cannot beat it.
struct Traffic {
    const OrvaRgn *a, *b;
    size_t outBytes;
    std::vector<uint8_t> sink;
    uint32_t acc = 0;
    static uint32_t readAll(const void* p, size_t bytes) {
        const uint32_t* v = static_cast<const uint32_t*>(p);
        uint32_t x = 0;
        for (size_t i = 0; i < bytes / 4; ++i) x |= v[i];
        return x;
    }
    void operator()() {
        acc += readAll(a->pRunData, a->uRunDataSize) | readAll(a->pRowIndex, a->uRowIndexSize) |
               readAll(b->pRunData, b->uRunDataSize) | readAll(b->pRowIndex, b->uRowIndexSize);
        std::memset(sink.data(), int(acc & 1), outBytes);
        benchmark::DoNotOptimize(sink.data());
        benchmark::DoNotOptimize(acc);
    }
};

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

#ifdef OMBRIX_HAVE_PIXMAN
void toPixman(HRGN h, pixman_region32_t* out) {
    std::vector<uint8_t> d = dataOf(h);
    RGNDATAHEADER hdr;
    std::memcpy(&hdr, d.data(), 32);
    std::vector<pixman_box32_t> boxes(hdr.nCount);
    for (uint32_t i = 0; i < hdr.nCount; ++i) {
        RECT r;
        std::memcpy(&r, d.data() + 32 + 16 * i, 16);
        boxes[i] = pixman_box32_t{r.left, r.top, r.right, r.bottom};
    }
    pixman_region32_init_rects(out, boxes.data(), int(boxes.size()));
}

HRGN fromPixman(pixman_region32_t* r) {
    int n = 0;
    const pixman_box32_t* b = pixman_region32_rectangles(r, &n);
    std::vector<RECT> rs;
    for (int i = 0; i < n; ++i) rs.push_back(RECT{b[i].x1, b[i].y1, b[i].x2, b[i].y2});
    if (rs.empty()) return CreateRectRgn(0, 0, 0, 0);
    return fromRects(rs);
}

struct PixmanPair {
    pixman_region32_t a, b, d, t1, t2;
    PixmanPair(HRGN ha, HRGN hb) {
        toPixman(ha, &a);
        toPixman(hb, &b);
        pixman_region32_init(&d);
        pixman_region32_init(&t1);
        pixman_region32_init(&t2);
    }
    ~PixmanPair() {
        for (pixman_region32_t* r : {&a, &b, &d, &t1, &t2}) pixman_region32_fini(r);
    }
    void run(int mode) {
        switch (mode) {
            case RGN_AND: pixman_region32_intersect(&d, &a, &b); break;
            case RGN_OR: pixman_region32_union(&d, &a, &b); break;
            case RGN_DIFF: pixman_region32_subtract(&d, &a, &b); break;
            default:
                pixman_region32_subtract(&t1, &a, &b);
                pixman_region32_subtract(&t2, &b, &a);
                pixman_region32_union(&d, &t1, &t2);
                break;
        }
    }
};
#endif

// Prints the table; OMBRIX_BENCH_ROUNDS sets the rounds (default 15),
// OMBRIX_BENCH_ONLY limits it to the rows whose "shape operation" contains that text.
void regionCombineTable(benchmark::State& state) {
    const char* only = std::getenv("OMBRIX_BENCH_ONLY");
    const char* env = std::getenv("OMBRIX_BENCH_ROUNDS");
    const int rounds = env && std::atoi(env) > 0 ? std::atoi(env) : 15;
    double load = 0;
    if (FILE* f = std::fopen("/proc/loadavg", "r")) {
        if (std::fscanf(f, "%lf", &load) != 1) load = 0;
        std::fclose(f);
    }
    for (auto _ : state) {
        std::printf("\nregion combines over %dx%d, medians of %d interleaved rounds, thread CPU time (load average %.2f at start)\n", kW,
                    kH, rounds, load);
        std::printf("%-12s %-13s %9s %9s %9s %9s %7s %9s %11s  %s\n", "shape", "operation", "runs_a+b", "runs_out",
                    "ombrix_us", "pixman_us", "ratio", "floor_us", "pixman/floor", "check");
        for (const Shape& s : shapes()) {
#ifdef OMBRIX_HAVE_PIXMAN
            PixmanPair px(s.a, s.b);
#endif
            for (const OpName& op : kOps) {
                if (only && (std::string(s.name) + " " + op.name).find(only) == std::string::npos) continue;
                HRGN d = CreateRectRgn(0, 0, 0, 0);
                auto ours = [&] { CombineRgn(d, s.a, s.b, op.mode); };
                ours();
                auto* ra = static_cast<OrvaRgn*>(krn::objPayload(s.a, krn::kObjRegion));
                auto* rb = static_cast<OrvaRgn*>(krn::objPayload(s.b, krn::kObjRegion));
                // Read now: every later call replaces the destination's payload.
                const uint32_t runsIn = (ra->uRunDataSize + rb->uRunDataSize) / 8;
                const OrvaRgn* res = static_cast<OrvaRgn*>(krn::objPayload(d, krn::kObjRegion));
                const uint32_t runsOut = res->uRunDataSize / 8;
                const size_t outBytes = size_t(res->uRunDataSize) + res->uRowIndexSize;
                Traffic traffic{ra, rb, outBytes, std::vector<uint8_t>(outBytes + 1)};
                traffic();
                const double t1 = secondsOf(ours, 1);
                const int reps = std::clamp(int(2e-4 / std::max(t1, 1e-9)), 1, 2000);
                std::vector<double> ot, pt, ft;
                const char* check = "no peer";
#ifdef OMBRIX_HAVE_PIXMAN
                auto peer = [&] { px.run(op.mode); };
                peer();
                HRGN back = fromPixman(&px.d), diff = CreateRectRgn(0, 0, 0, 0);
                check = CombineRgn(diff, back, d, RGN_XOR) == NULLREGION ? "same pixels" : "MISMATCH";
                DeleteObject(back);
                DeleteObject(diff);
                const int preps = std::clamp(int(2e-4 / std::max(secondsOf(peer, 1), 1e-9)), 1, 2000);
#endif
                for (int r = 0; r < rounds; ++r) {
#ifdef OMBRIX_HAVE_PIXMAN
                    if (r % 2) pt.push_back(secondsOf(peer, preps));
#endif
                    ot.push_back(secondsOf(ours, reps));
                    ft.push_back(secondsOf(traffic, reps));
#ifdef OMBRIX_HAVE_PIXMAN
                    if (r % 2 == 0) pt.push_back(secondsOf(peer, preps));
#endif
                }
                const double om = median(ot) * 1e6, pm = pt.empty() ? 0 : median(pt) * 1e6, fm = median(ft) * 1e6;
                std::printf("%-12s %-13s %9u %9u %9.1f %9.1f %6.2fx %9.1f %10.2fx  %s\n", s.name, op.name, runsIn,
                            runsOut, om, pm, om > 0 ? pm / om : 0.0, fm, fm > 0 ? pm / fm : 0.0, check);
                state.counters[std::string(s.name) + "_" + op.name + "_ratio"] = om > 0 ? pm / om : 0.0;
                DeleteObject(d);
            }
        }
        std::fflush(stdout);
    }
}
BENCHMARK(regionCombineTable)->Iterations(1)->Unit(benchmark::kMillisecond);

// The ellipse of 4000x3000: its bytes beyond the fixed OrvaRgn block.
void ellipseRegion(benchmark::State& state) {
    uint64_t bytes = 0;
    for (auto _ : state) {
        HRGN h = CreateEllipticRgn(0, 0, 4000, 3000);
        OrvaRgn* r = static_cast<OrvaRgn*>(krn::objPayload(h, krn::kObjRegion));
        bytes = uint64_t(r->uRowIndexSize) + r->uRunDataSize;
        DeleteObject(h);
    }
    state.counters["region_bytes"] = double(bytes);
    state.counters["header_bytes"] = double(sizeof(OrvaRgn));
    state.SetItemsProcessed(int64_t(state.iterations()) * 3000);  // rows/s
}
BENCHMARK(ellipseRegion)->Unit(benchmark::kMicrosecond);
void ellipseRegionMemcpy(benchmark::State& state) { bench::memcpyBaseline(state, 3000 * 16); }
BENCHMARK(ellipseRegionMemcpy)->Unit(benchmark::kMicrosecond);

// A 10,000-vertex star polygon over 4000x3000, filled by both rules.
std::vector<POINT> starPolygon() {
    std::vector<POINT> pts;
    std::mt19937 rng(3);
    const int n = 10000;
    for (int i = 0; i < n; ++i) {
        double a = 2 * M_PI * i / n;
        double rr = (i % 2 ? 0.55 : 1.0) * (0.8 + 0.2 * double(rng() % 1000) / 1000.0);
        pts.push_back(POINT{int32_t(2000 + 1990 * rr * std::cos(a)), int32_t(1500 + 1490 * rr * std::sin(a))});
    }
    return pts;
}
void polygonFill(benchmark::State& state) {
    static std::vector<POINT> pts = starPolygon();
    const int mode = int(state.range(0));
    int64_t rows = 0;
    for (auto _ : state) {
        OrvaRgn* r = nullptr;
        K_SegmentsToRegion(&r, pts.data(), nullptr, int32_t(pts.size()), mode);
        rows = r->rcBounds.bottom - r->rcBounds.top;
        state.counters["runs"] = double(r->uRunDataSize / 8);
        K_DeleteOrvaRgn(r);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * rows);  // rows/s
}
BENCHMARK(polygonFill)->Arg(ALTERNATE)->Arg(WINDING)->Unit(benchmark::kMicrosecond);
void polygonFillMemcpy(benchmark::State& state) { bench::memcpyBaseline(state, 3000 * 16); }
BENCHMARK(polygonFillMemcpy)->Unit(benchmark::kMicrosecond);

// K_GetBitmapClipSegments row by row over a 4000x3000 bitmap whose region is
// the star polygon (several runs per row).
void clipSegments(benchmark::State& state) {
    static std::vector<POINT> pts = starPolygon();
    BITMAPRECORD bm;
    K_InitBitmap(&bm, BITMAPRECORD_SIZE, 4000, 3000, 8);
    K_SetBitmapRgnPolygon(&bm, nullptr, pts.data(), uint32_t(pts.size()), WINDING, 1);
    uint32_t mx = 0;
    K_GetBitmapClipSegmentsMax(&bm, &mx);
    std::vector<int32_t> segs(mx);
    uint64_t values = 0;
    for (auto _ : state) {
        for (int y = 0; y < 3000; ++y) {
            uint32_t n = 0;
            K_GetBitmapClipSegments(&bm, y, segs.data(), &n);
            values += n;
        }
        benchmark::DoNotOptimize(values);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * 3000);  // rows/s
    K_FreeBitmap(&bm);
}
BENCHMARK(clipSegments)->Unit(benchmark::kMicrosecond);

}  // namespace
