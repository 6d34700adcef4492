// fuzz_region_data.cpp - untrusted region input: ExtCreateRegion on arbitrary
// bytes and sizes (with and without a transform), polygons and ellipses with
// extreme coordinates and counts, and the results pushed through combine,
// export/import and a bitmap's setters. Every region made must pass the
// structural check; nothing may crash, overflow or leak.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ombrix.h"
#include "dis/common/region.h"
#include "krn/windowsemul/objects.h"

namespace {

struct Reader {
    const uint8_t* p;
    size_t n;
    uint8_t byte() {
        if (!n) return 0;
        --n;
        return *p++;
    }
    int32_t i32() {
        uint32_t v = 0;
        for (int k = 0; k < 4; ++k) v |= uint32_t(byte()) << (8 * k);
        return int32_t(v);
    }
    // A coordinate from one of several magnitude classes.
    int32_t coord() {
        switch (byte() & 3) {
            case 0: return int8_t(byte());
            case 1: return int16_t(uint16_t(byte()) | uint16_t(byte()) << 8);
            case 2: return i32();
            default: {
                static const int32_t extremes[] = {INT32_MIN, INT32_MAX, 0, -1, INT32_MIN + 1, INT32_MAX - 1};
                return extremes[byte() % 6];
            }
        }
    }
};

void check(HRGN h) {
    if (!h) return;
    OrvaRgn* r = static_cast<OrvaRgn*>(krn::objPayload(h, krn::kObjRegion));
    if (!r || !krn::rgn::valid(r)) std::abort();
    // Export and import again: the same data (non-empty regions).
    uint32_t need = GetRegionData(h, 0, nullptr);
    if (need < 32) std::abort();
    std::vector<uint8_t> buf(need);
    if (GetRegionData(h, need, reinterpret_cast<RGNDATA*>(buf.data())) != need) std::abort();
    if (need > 32) {
        HRGN back = ExtCreateRegion(nullptr, need, reinterpret_cast<const RGNDATA*>(buf.data()));
        if (back) {  // may be refused only for lack of memory
            std::vector<uint8_t> again(need);
            if (GetRegionData(back, need, reinterpret_cast<RGNDATA*>(again.data())) != need) std::abort();
            if (again != buf) std::abort();
            DeleteObject(back);
        }
    }
    RECT box;
    int k = GetRgnBox(h, &box);
    if (k < NULLREGION || k > COMPLEXREGION) std::abort();
    if (k != NULLREGION && !PtInRegion(h, r->pRunData[0], box.top)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Regions up to 16384 rows: large enough for every code path, small
    // enough that each input runs in milliseconds.
    static const bool limited = (krn::rgn::setRowLimit(16384), true);
    (void)limited;
    if (size < 2) return 0;
    Reader in{data, size};
    const uint8_t mode = in.byte();
    HRGN a = nullptr, b = nullptr;
    switch (mode % 4) {
        case 0: {  // region data, size declared by the input but never past its end
            uint32_t declared = uint32_t(in.byte()) | uint32_t(in.byte()) << 8;
            XFORM xf;
            bool useXf = in.byte() & 1;
            if (useXf) {
                float f[6];
                for (float& v : f) {
                    int32_t raw = in.i32();
                    std::memcpy(&v, &raw, 4);
                }
                xf = XFORM{f[0], f[1], f[2], f[3], f[4], f[5]};
            }
            std::vector<uint8_t> blk(in.p, in.p + in.n);
            if (blk.size() >= 8) {  // make the header plausible half of the time
                if (mode & 0x10) {
                    uint32_t hdr[2] = {32, 1};
                    std::memcpy(blk.data(), hdr, 8);
                }
                if ((mode & 0x20) && blk.size() >= 12) {
                    uint32_t cnt = uint32_t((blk.size() - 32) / 16);
                    if (blk.size() >= 32) std::memcpy(blk.data() + 8, &cnt, 4);
                }
            }
            uint32_t bytes = std::min<uint32_t>(declared, uint32_t(blk.size()));
            a = ExtCreateRegion(useXf ? &xf : nullptr, bytes,
                                blk.empty() ? nullptr : reinterpret_cast<const RGNDATA*>(blk.data()));
            break;
        }
        case 1: {  // polygons, several figures, both fill modes
            size_t count = in.byte() % 64;
            if (mode & 0x40) count = in.n / 3;  // as many as the input holds
            std::vector<POINT> pts(count);
            std::vector<uint8_t> flags(count);
            for (size_t i = 0; i < count; ++i) {
                pts[i] = POINT{in.coord(), in.coord()};
                flags[i] = in.byte() % 5 ? 1 : 0;
            }
            OrvaRgn* r = nullptr;
            if (K_SegmentsToRegion(&r, pts.data(), (mode & 0x20) ? flags.data() : nullptr, int32_t(count),
                                   (mode & 0x10) ? WINDING : ALTERNATE) == KS_SUCCESS) {
                if (!krn::rgn::valid(r)) std::abort();
                a = krn::rgn::makeHandle(r);
            }
            break;
        }
        case 2: {  // ellipses and rectangles with any corners
            int32_t l = in.coord(), t = in.coord(), r = in.coord(), btm = in.coord();
            a = CreateEllipticRgn(l, t, r, btm);
            b = CreateRectRgn(in.coord(), in.coord(), in.coord(), in.coord());
            break;
        }
        default: {  // small shapes combined, then through a bitmap's setters
            a = CreateEllipticRgn(int8_t(in.byte()), int8_t(in.byte()), int8_t(in.byte()), int8_t(in.byte()));
            POINT pts[6];
            for (POINT& p : pts) p = POINT{int8_t(in.byte()), int8_t(in.byte())};
            b = CreatePolygonRgn(pts, 6, (mode & 0x10) ? WINDING : ALTERNATE);
            BITMAPRECORD bm;
            if (K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 1 + in.byte() % 64, 1 + in.byte() % 64, 8, 0, nullptr,
                               1 + in.byte() % 8, nullptr, 0) == KS_SUCCESS) {
                RGNXFORM xf{1 + in.byte() % 8, int8_t(in.byte()), int8_t(in.byte()), int8_t(in.byte()),
                            int8_t(in.byte()), int8_t(in.byte()), int8_t(in.byte())};
                if (in.byte() & 1) bm.uFlags |= BRF_UNCLIPPED_RGN;
                K_SetBitmapRgnHandle(&bm, (mode & 0x20) ? &xf : nullptr, a, in.byte() % 8);
                K_SetBitmapRgnPolygon(&bm, (mode & 0x40) ? &xf : nullptr, pts, 6, WINDING, in.byte() % 8);
                RECT rc{int8_t(in.byte()), int8_t(in.byte()), int8_t(in.byte()), int8_t(in.byte())};
                K_SetBitmapRgnEllipse(&bm, &xf, &rc, in.byte() % 8);
                K_OffsetBitmapRgn(&bm, int8_t(in.byte()), int8_t(in.byte()));
                K_SizeBitmapRgn(&bm, in.byte(), in.byte());
                K_FlipBitmapRgn(&bm);
                K_ReverseBitmapRgn(&bm);
                K_FillBitmap(&bm, 0x123456);
                HRGN out = nullptr;
                if (K_GetBitmapRgnHandle(&bm, &xf, &out) == KS_SUCCESS) {
                    check(out);
                    DeleteObject(out);
                }
                int32_t need = K_GetBitmapRgnData(&bm, &xf, 0, nullptr);
                if (need > 0) {
                    std::vector<uint8_t> buf(static_cast<size_t>(need));
                    K_GetBitmapRgnData(&bm, &xf, need, reinterpret_cast<RGNDATA*>(buf.data()));
                    K_SetBitmapRgnData(&bm, nullptr, need, reinterpret_cast<RGNDATA*>(buf.data()), 4);
                }
                uint32_t mx = 0;
                K_GetBitmapClipSegmentsMax(&bm, &mx);
                std::vector<int32_t> segs(mx + 2);
                for (int y = -1; y <= bm.nHeight; ++y) {
                    uint32_t n = 0;
                    K_GetBitmapClipSegments(&bm, y, segs.data(), &n);
                    if (n > mx) std::abort();
                }
                K_FreeBitmap(&bm);
            }
            break;
        }
    }
    check(a);
    check(b);
    if (a && b) {
        HRGN d = CreateRectRgn(0, 0, 0, 0);
        for (int op = RGN_AND; op <= RGN_COPY; ++op)
            if (CombineRgn(d, a, b, op)) check(d);
        OffsetRgn(d, in.coord(), in.coord());
        check(d);
        DeleteObject(d);
    }
    if (a) DeleteObject(a);
    if (b) DeleteObject(b);
    return 0;
}
