// bench_region.cpp - the region engine: CombineRgn on large discs, on
// checkerboards with many runs per row and on irregular rows of random
// rectangles (side by side with pixman_region32
// when it is installed), the memory of a 4000x3000 ellipse, polygon fill of
// a 10,000-vertex polygon and clip segments per row. Each operation sits next
// to a memcpy of its region data, so results read as a ratio.
#include <benchmark/benchmark.h>

#include <cmath>
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

// Two overlapping discs of 3000 rows.
struct Discs {
    HRGN a = CreateEllipticRgn(0, 0, 3000, 3000);
    HRGN b = CreateEllipticRgn(1000, 500, 4000, 3500);
};
// Checkerboards of 4x4 cells over 2000x2000 (250 runs per row), the second shifted by 2.
struct Boards {
    HRGN a, b;
    Boards() {
        std::vector<RECT> ra, rb;
        for (int y = 0; y < 2000; y += 4)
            for (int x = (y / 4) % 2 * 4; x < 2000; x += 8) {
                ra.push_back(RECT{x, y, x + 4, y + 4});
                rb.push_back(RECT{x + 2, y + 2, x + 6, y + 6});
            }
        a = fromRects(ra);
        b = fromRects(rb);
    }
};

// Irregular rows: 40,000 random rectangles of 1-16 pixels over 2000x2000
// each (about 50 runs per row at random places, so branches mispredict).
struct Noise {
    HRGN a, b;
    Noise() {
        std::mt19937 rng(11);
        auto make = [&rng] {
            std::vector<RECT> rs;
            for (int i = 0; i < 40000; ++i) {
                int x = int(rng() % 2000), y = int(rng() % 2000);
                rs.push_back(RECT{x, y, x + 1 + int(rng() % 16), y + 1 + int(rng() % 16)});
            }
            return fromRects(rs);
        };
        a = make();
        b = make();
    }
};

struct Pair {
    HRGN a, b;
};
const Pair& shapes(int which) {
    static Discs discs;
    static Boards boards;
    static Noise noise;
    static Pair p[3] = {{discs.a, discs.b}, {boards.a, boards.b}, {noise.a, noise.b}};
    return p[which];
}

void combine(benchmark::State& state, int which, int mode) {
    const Pair& s = shapes(which);
    HRGN d = CreateRectRgn(0, 0, 0, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(CombineRgn(d, s.a, s.b, mode));
    }
    OrvaRgn* r = static_cast<OrvaRgn*>(krn::objPayload(d, krn::kObjRegion));
    state.SetBytesProcessed(int64_t(state.iterations()) * (r->uRunDataSize + r->uRowIndexSize));
    state.counters["runs"] = double(r->uRunDataSize / 8);
    DeleteObject(d);
}

void combineMemcpy(benchmark::State& state, int which, int mode) {
    const Pair& s = shapes(which);
    HRGN d = CreateRectRgn(0, 0, 0, 0);
    CombineRgn(d, s.a, s.b, mode);
    OrvaRgn* r = static_cast<OrvaRgn*>(krn::objPayload(d, krn::kObjRegion));
    size_t bytes = r->uRunDataSize + r->uRowIndexSize;
    DeleteObject(d);
    bench::memcpyBaseline(state, bytes);
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

void pixmanCombine(benchmark::State& state, int which, int mode) {
    const Pair& s = shapes(which);
    pixman_region32_t pa, pb;
    toPixman(s.a, &pa);
    toPixman(s.b, &pb);
    pixman_region32_t d;
    pixman_region32_init(&d);
    for (auto _ : state) {
        switch (mode) {
            case RGN_AND: pixman_region32_intersect(&d, &pa, &pb); break;
            case RGN_OR: pixman_region32_union(&d, &pa, &pb); break;
            default: pixman_region32_subtract(&d, &pa, &pb); break;
        }
        benchmark::DoNotOptimize(pixman_region32_n_rects(&d));
    }
    state.counters["boxes"] = double(pixman_region32_n_rects(&d));
    pixman_region32_fini(&d);
    pixman_region32_fini(&pa);
    pixman_region32_fini(&pb);
}
#endif

BENCHMARK_CAPTURE(combine, discs_union, 0, RGN_OR)->Unit(benchmark::kMicrosecond);
#ifdef OMBRIX_HAVE_PIXMAN
BENCHMARK_CAPTURE(pixmanCombine, discs_union, 0, RGN_OR)->Unit(benchmark::kMicrosecond);
#endif
BENCHMARK_CAPTURE(combineMemcpy, discs_union, 0, RGN_OR)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(combine, discs_intersect, 0, RGN_AND)->Unit(benchmark::kMicrosecond);
#ifdef OMBRIX_HAVE_PIXMAN
BENCHMARK_CAPTURE(pixmanCombine, discs_intersect, 0, RGN_AND)->Unit(benchmark::kMicrosecond);
#endif
BENCHMARK_CAPTURE(combineMemcpy, discs_intersect, 0, RGN_AND)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(combine, discs_diff, 0, RGN_DIFF)->Unit(benchmark::kMicrosecond);
#ifdef OMBRIX_HAVE_PIXMAN
BENCHMARK_CAPTURE(pixmanCombine, discs_diff, 0, RGN_DIFF)->Unit(benchmark::kMicrosecond);
#endif
BENCHMARK_CAPTURE(combineMemcpy, discs_diff, 0, RGN_DIFF)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(combine, boards_union, 1, RGN_OR)->Unit(benchmark::kMicrosecond);
#ifdef OMBRIX_HAVE_PIXMAN
BENCHMARK_CAPTURE(pixmanCombine, boards_union, 1, RGN_OR)->Unit(benchmark::kMicrosecond);
#endif
BENCHMARK_CAPTURE(combineMemcpy, boards_union, 1, RGN_OR)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(combine, boards_intersect, 1, RGN_AND)->Unit(benchmark::kMicrosecond);
#ifdef OMBRIX_HAVE_PIXMAN
BENCHMARK_CAPTURE(pixmanCombine, boards_intersect, 1, RGN_AND)->Unit(benchmark::kMicrosecond);
#endif
BENCHMARK_CAPTURE(combineMemcpy, boards_intersect, 1, RGN_AND)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(combine, boards_diff, 1, RGN_DIFF)->Unit(benchmark::kMicrosecond);
#ifdef OMBRIX_HAVE_PIXMAN
BENCHMARK_CAPTURE(pixmanCombine, boards_diff, 1, RGN_DIFF)->Unit(benchmark::kMicrosecond);
#endif
BENCHMARK_CAPTURE(combineMemcpy, boards_diff, 1, RGN_DIFF)->Unit(benchmark::kMicrosecond);

BENCHMARK_CAPTURE(combine, noise_union, 2, RGN_OR)->Unit(benchmark::kMicrosecond);
#ifdef OMBRIX_HAVE_PIXMAN
BENCHMARK_CAPTURE(pixmanCombine, noise_union, 2, RGN_OR)->Unit(benchmark::kMicrosecond);
#endif
BENCHMARK_CAPTURE(combineMemcpy, noise_union, 2, RGN_OR)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(combine, noise_intersect, 2, RGN_AND)->Unit(benchmark::kMicrosecond);
#ifdef OMBRIX_HAVE_PIXMAN
BENCHMARK_CAPTURE(pixmanCombine, noise_intersect, 2, RGN_AND)->Unit(benchmark::kMicrosecond);
#endif
BENCHMARK_CAPTURE(combineMemcpy, noise_intersect, 2, RGN_AND)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(combine, noise_diff, 2, RGN_DIFF)->Unit(benchmark::kMicrosecond);
#ifdef OMBRIX_HAVE_PIXMAN
BENCHMARK_CAPTURE(pixmanCombine, noise_diff, 2, RGN_DIFF)->Unit(benchmark::kMicrosecond);
#endif
BENCHMARK_CAPTURE(combineMemcpy, noise_diff, 2, RGN_DIFF)->Unit(benchmark::kMicrosecond);

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
