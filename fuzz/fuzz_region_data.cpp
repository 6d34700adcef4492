// fuzz_region_data.cpp - untrusted region input: ExtCreateRegion on arbitrary bytes and sizes (with and without
// a transform), polygons and ellipses with extreme coordinates and counts, the results pushed through combine,
// export/import and a bitmap's setters. Every region made passes the structural check.
#include <bit>
#include <cstring>
#include <vector>

#include "dis/common/region.h"
#include "fuzz_input.h"
#include "krn/windowsemul/objects.h"
#include "ombrix.h"

namespace {

// A coordinate from one of several magnitude classes.
int32_t coord(fuzzinput::Input& in) {
    static const int32_t edge[] = {INT32_MIN, INT32_MAX, 0, -1, INT32_MIN + 1, INT32_MAX - 1};
    const uint8_t k = in.byte() & 3;
    return k == 0 ? int8_t(in.byte()) : k == 1 ? int16_t(in.u16()) : k == 2 ? int32_t(in.u32()) : edge[in.byte() % 6];
}
int8_t s8(fuzzinput::Input& in) { return int8_t(in.byte()); }

// A valid region whose data comes back the same through export and import (non-empty regions), whose box
// is a region kind and holds its first run.
void check(HRGN h) {
    if (!h) return;
    OrvaRgn* r = static_cast<OrvaRgn*>(krn::objPayload(h, krn::kObjRegion));
    FUZZ_CHECK(r && krn::rgn::valid(r));
    const uint32_t need = GetRegionData(h, 0, nullptr);
    FUZZ_CHECK(need >= 32);
    std::vector<uint8_t> buf(need), again(need);
    FUZZ_CHECK(GetRegionData(h, need, reinterpret_cast<RGNDATA*>(buf.data())) == need);
    // (An import may be refused only for lack of memory.)
    if (HRGN back = need > 32 ? ExtCreateRegion(nullptr, need, reinterpret_cast<RGNDATA*>(buf.data())) : nullptr) {
        FUZZ_CHECK(GetRegionData(back, need, reinterpret_cast<RGNDATA*>(again.data())) == need && again == buf);
        DeleteObject(back);
    }
    RECT box;
    const int k = GetRgnBox(h, &box);
    FUZZ_CHECK(k >= NULLREGION && k <= COMPLEXREGION && (k == NULLREGION || PtInRegion(h, r->pRunData[0], box.top)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Regions up to 16384 rows: large enough for every code path, small enough to run in milliseconds.
    [[maybe_unused]] static const bool limited = (krn::rgn::setRowLimit(16384), true);
    if (size < 2) return 0;
    fuzzinput::Input in{data, size};
    const uint8_t mode = in.byte();
    HRGN a = nullptr, b = nullptr;
    switch (mode % 4) {
        case 0: {  // region data, size declared by the input but never past its end
            const uint32_t declared = in.u16();
            XFORM xf;
            const bool useXf = in.byte() & 1;
            for (float* v : {&xf.eM11, &xf.eM12, &xf.eM21, &xf.eM22, &xf.eDx, &xf.eDy})
                *v = useXf ? std::bit_cast<float>(in.u32()) : 0.f;
            std::vector<uint8_t> blk(in.rest(), in.rest() + in.left());
            // Half of the time a plausible header, and a plausible rectangle count.
            if (blk.size() >= 8 && (mode & 0x10)) std::memcpy(blk.data(), "\x20\0\0\0\x01\0\0\0", 8);
            const uint32_t cnt = uint32_t((blk.size() - 32) / 16), bytes = std::min(declared, uint32_t(blk.size()));
            if (blk.size() >= 32 && (mode & 0x20)) std::memcpy(blk.data() + 8, &cnt, 4);
            const auto* rd = reinterpret_cast<const RGNDATA*>(blk.empty() ? nullptr : blk.data());
            a = ExtCreateRegion(useXf ? &xf : nullptr, bytes, rd); break;
        }
        case 1: {  // polygons, several figures, both fill modes (up to 63 points, or as many as the input holds)
            const size_t count = (mode & 0x40) ? (in.byte(), in.left() / 3) : in.byte() % 64;
            std::vector<POINT> pts(count);
            std::vector<uint8_t> flags(count);
            for (size_t i = 0; i < count; ++i) pts[i] = {coord(in), coord(in)}, flags[i] = in.byte() % 5 ? 1 : 0;
            OrvaRgn* r = nullptr;
            if (K_SegmentsToRegion(&r, pts.data(), (mode & 0x20) ? flags.data() : nullptr, int32_t(count),
                                   (mode & 0x10) ? WINDING : ALTERNATE) == KS_SUCCESS) {
                FUZZ_CHECK(krn::rgn::valid(r)), a = krn::rgn::makeHandle(r);
            }
            break;
        }
        case 2: {  // ellipses and rectangles with any corners
            const int32_t l = coord(in), t = coord(in), r = coord(in), btm = coord(in);
            a = CreateEllipticRgn(l, t, r, btm), b = CreateRectRgn(coord(in), coord(in), coord(in), coord(in)); break;
        }
        default: {  // small shapes combined, then through a bitmap's setters
            a = CreateEllipticRgn(s8(in), s8(in), s8(in), s8(in));
            POINT pts[6];
            for (POINT& p : pts) p = POINT{s8(in), s8(in)};
            b = CreatePolygonRgn(pts, 6, (mode & 0x10) ? WINDING : ALTERNATE);
            BITMAPRECORD bm;
            if (K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 1 + in.byte() % 64, 1 + in.byte() % 64, 8, 0, nullptr,
                               1 + in.byte() % 8, nullptr, 0) != KS_SUCCESS) break;
            RGNXFORM xf{1 + in.byte() % 8, s8(in), s8(in), s8(in), s8(in), s8(in), s8(in)};
            if (in.byte() & 1) bm.uFlags |= BRF_UNCLIPPED_RGN;
            K_SetBitmapRgnHandle(&bm, (mode & 0x20) ? &xf : nullptr, a, in.byte() % 8);
            K_SetBitmapRgnPolygon(&bm, (mode & 0x40) ? &xf : nullptr, pts, 6, WINDING, in.byte() % 8);
            RECT rc{s8(in), s8(in), s8(in), s8(in)};
            K_SetBitmapRgnEllipse(&bm, &xf, &rc, in.byte() % 8), K_OffsetBitmapRgn(&bm, s8(in), s8(in));
            K_SizeBitmapRgn(&bm, in.byte(), in.byte()), K_FlipBitmapRgn(&bm), K_ReverseBitmapRgn(&bm);
            HRGN out = nullptr;  // the region the setters left is valid
            if (K_GetBitmapRgnHandle(&bm, &xf, &out) == KS_SUCCESS) check(out), DeleteObject(out);
            K_FreeBitmap(&bm); break;
        }
    }
    check(a), check(b);
    if (a && b) {
        HRGN d = CreateRectRgn(0, 0, 0, 0);
        for (int op = RGN_AND; op <= RGN_COPY; ++op)
            if (CombineRgn(d, a, b, op)) check(d);
        OffsetRgn(d, coord(in), coord(in)), check(d), DeleteObject(d);
    }
    for (HRGN h : {a, b}) if (h) DeleteObject(h);
    return 0;
}
