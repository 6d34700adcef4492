// cmd_region.cpp - `ombrix region`: give a PNM image a region built from
// rectangles, ellipses and polygons (combined by a mode) and fill it with a
// colour; and the regions section of `ombrix demo`.
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "pnm.h"

namespace {

bool parseInts(const std::string& s, std::vector<int32_t>& out) {
    out.clear();
    const char* p = s.c_str();
    while (*p) {
        char* end = nullptr;
        long v = std::strtol(p, &end, 10);
        if (end == p) return false;
        out.push_back(int32_t(v));
        p = end;
        if (*p == ',') ++p;
        else if (*p) return false;
    }
    return !out.empty();
}

void usage() {
    std::fprintf(stderr,
                 "usage: ombrix region IN.pnm OUT.pnm SHAPE... [--color RRGGBB]\n"
                 "  SHAPE: --rect L,T,R,B | --ellipse L,T,R,B | --polygon X,Y,X,Y,... [--winding]\n"
                 "         each shape may be preceded by --mode M (0 and, 1 replace, 2 new minus current,\n"
                 "         3 current minus new, 4 or, 5 xor, 6 not new); the first shape replaces,\n"
                 "         later ones default to 4 (or). Coordinates are pixels of the image as seen.\n");
}

int run(const cli::Args& args) {
    if (args.size() < 3) {
        usage();
        return 2;
    }
    BITMAPRECORD bm;
    std::string err;
    int32_t rc = pnm::read(args[0], bm, &err);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "ombrix region: cannot read %s: %s\n", args[0].c_str(), err.c_str());
        return 1;
    }
    uint32_t colour = 0x0000FF;  // red
    uint32_t mode = 1;
    bool modeGiven = false, winding = false;
    int shapes = 0;
    // Caller coordinates are in the top-left view.
    RGNXFORM xf{TOP_LEFT, 1, 1, 1, 1, 0, 0};
    for (size_t i = 2; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto next = [&]() -> std::string { return i + 1 < args.size() ? args[++i] : std::string(); };
        std::vector<int32_t> v;
        if (a == "--color") {
            std::string c = next();
            unsigned long rgb = std::strtoul(c.c_str(), nullptr, 16);
            colour = uint32_t(((rgb >> 16) & 0xFF) | (rgb & 0xFF00) | ((rgb & 0xFF) << 16));
            continue;
        }
        if (a == "--mode") {
            mode = uint32_t(std::atoi(next().c_str()));
            modeGiven = true;
            continue;
        }
        if (a == "--winding") {
            winding = true;
            continue;
        }
        const uint32_t m = shapes == 0 && !modeGiven ? 1u : (modeGiven ? mode : 4u);
        if (a == "--rect" || a == "--ellipse") {
            if (!parseInts(next(), v) || v.size() != 4) {
                usage();
                K_FreeBitmap(&bm);
                return 2;
            }
            RECT r{v[0], v[1], v[2], v[3]};
            rc = a == "--rect" ? K_SetBitmapRgnRect(&bm, &xf, &r, m) : K_SetBitmapRgnEllipse(&bm, &xf, &r, m);
        } else if (a == "--polygon") {
            if (!parseInts(next(), v) || v.size() < 4 || v.size() % 2) {
                usage();
                K_FreeBitmap(&bm);
                return 2;
            }
            std::vector<POINT> pts;
            for (size_t k = 0; k + 1 < v.size(); k += 2) pts.push_back(POINT{v[k], v[k + 1]});
            rc = K_SetBitmapRgnPolygon(&bm, &xf, pts.data(), uint32_t(pts.size()), winding ? WINDING : ALTERNATE, m);
        } else {
            std::fprintf(stderr, "ombrix region: unknown option %s\n", a.c_str());
            usage();
            K_FreeBitmap(&bm);
            return 2;
        }
        if (rc != KS_SUCCESS) {
            std::fprintf(stderr, "ombrix region: %s failed: %s\n", a.c_str(), cli::statusText(rc).c_str());
            K_FreeBitmap(&bm);
            return 1;
        }
        ++shapes;
        modeGiven = false;
    }
    if (shapes == 0) {
        usage();
        K_FreeBitmap(&bm);
        return 2;
    }
    uint64_t area = 0;
    RECT box{};
    K_GetBitmapRgnArea(&bm, &area);
    K_GetBitmapRgnBounds(&bm, &xf, &box);
    int32_t bytes = K_GetBitmapRgnData(&bm, nullptr, 0, nullptr);
    rc = K_FillBitmap(&bm, colour);
    if (rc == KS_SUCCESS) rc = pnm::write(args[1], bm, &err);
    std::printf("region: %" PRIu64 " pixels, bounds (%d, %d, %d, %d), %d rectangles\n", area, box.left, box.top,
                box.right, box.bottom, bytes > 32 ? (bytes - 32) / 16 : 0);
    K_FreeBitmap(&bm);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "ombrix region: %s\n", err.empty() ? cli::statusText(rc).c_str() : err.c_str());
        return 1;
    }
    std::printf("wrote %s\n", args[1].c_str());
    return 0;
}

// ---------------------------------------------------------------- demo
bool demo(cli::Report& rep, const BITMAPRECORD& sampleIn) {
    const int failuresBefore = rep.failures;
    BITMAPRECORD& sample = const_cast<BITMAPRECORD&>(sampleIn);  // rows are only read
    const int32_t w = sample.nWidth, h = sample.nHeight;
    BITMAPRECORD bm;
    if (K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, w, h, 24, ORDER_BGR, nullptr, TOP_LEFT, nullptr,
                       0) != KS_SUCCESS) {
        rep.check(false, "create a 24-bit copy of the sample");
        return false;
    }
    // An ellipse XOR a five-pointed star, in the top-left view.
    RECT e{w / 8, h / 8, w - w / 8, h - h / 8};
    POINT star[5] = {{w / 2, 0}, {w * 4 / 5, h - 1}, {0, h * 2 / 5}, {w - 1, h * 2 / 5}, {w / 5, h - 1}};
    RGNXFORM view{TOP_LEFT, 1, 1, 1, 1, 0, 0};
    bool ok = K_SetBitmapRgnEllipse(&bm, &view, &e, 1) == KS_SUCCESS &&
              K_SetBitmapRgnPolygon(&bm, &view, star, 5, WINDING, 5) == KS_SUCCESS;
    rep.check(ok, "ellipse XOR star as the bitmap's region");
    uint64_t area = 0;
    K_GetBitmapRgnArea(&bm, &area);
    int32_t need = K_GetBitmapRgnData(&bm, nullptr, 0, nullptr);
    rep.line("region: " + std::to_string(area) + " of " + std::to_string(int64_t(w) * h) + " pixels, " +
             std::to_string(need > 32 ? (need - 32) / 16 : 0) + " runs");
    // Clear, fill through the region, and count the filled pixels.
    K_FreeBitmapRgn(&bm);
    K_ClearBitmap(&bm);
    K_SetBitmapRgnEllipse(&bm, &view, &e, 1);
    K_SetBitmapRgnPolygon(&bm, &view, star, 5, WINDING, 5);
    K_FillBitmap(&bm, 0x0000FF);
    std::vector<uint8_t> row(bm.nBytesPerLine);
    uint64_t red = 0, mismatches = 0;
    for (int32_t y = 0; y < h; ++y) {
        K_GetBitmapRow(&bm, row.data(), y, bm.nBytesPerLine);
        for (int32_t x = 0; x < w; ++x) {
            bool isRed = row[3 * x + 2] == 0xFF && row[3 * x] == 0;
            red += isRed;
            mismatches += isRed != (K_IsPtInBitmapRgn(&bm, y, x) == 1);
        }
    }
    rep.check(red == area && mismatches == 0, "fill wrote exactly the region's " + std::to_string(area) + " pixels");
    // Region data round trip and a mask of the region.
    std::vector<uint8_t> data(size_t(need > 0 ? need : 0));
    ok = need > 32 && K_GetBitmapRgnData(&bm, nullptr, need, reinterpret_cast<RGNDATA*>(data.data())) == need;
    HRGN h1 = ok ? ExtCreateRegion(nullptr, uint32_t(need), reinterpret_cast<const RGNDATA*>(data.data())) : nullptr;
    HRGN h2 = nullptr;
    K_GetBitmapRgnHandle(&bm, nullptr, &h2);
    HRGN x = CreateRectRgn(0, 0, 0, 0);
    rep.check(h1 && h2 && CombineRgn(x, h1, h2, RGN_XOR) == NULLREGION, "region data round trip gives the same region");
    DeleteObject(h1);
    DeleteObject(h2);
    DeleteObject(x);
    BITMAPRECORD mask;
    ok = K_CreateMaskFromBitmapRgn(&bm, &mask, BITMAPRECORD_SIZE) == KS_SUCCESS;
    BITMAPRECORD back;
    ok = ok && K_CreateBitmap(&back, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, w, h, 8, ORDER_RGB, nullptr, TOP_LEFT,
                              nullptr, 0) == KS_SUCCESS;
    if (ok) {
        K_SetBitmapRgnFromMask(&back, nullptr, &mask, 1);
        uint64_t a2 = 0;
        K_GetBitmapRgnArea(&back, &a2);
        rep.check(a2 == area, "mask of the region gives the region back");
        K_FreeBitmap(&back);
        K_FreeBitmap(&mask);
    } else {
        rep.check(false, "mask of the region");
    }
    // The sample's own bright pixels as a colour region (a 1-bit threshold mask).
    BITMAPRECORD s1;
    if (K_CreateBitmap(&s1, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, w, h, 24, ORDER_BGR, nullptr, TOP_LEFT, nullptr,
                       0) == KS_SUCCESS) {
        std::vector<uint8_t> src(sample.nBytesPerLine);
        for (int32_t y = 0; y < h && sample.nBitsPerPixel == 24; ++y) {
            K_GetBitmapRow(&sample, src.data(), y, sample.nBytesPerLine);
            K_PutBitmapRow(&s1, src.data(), y, s1.nBytesPerLine);
        }
        BITMAPRECORD t;
        K_CreateBitmap(&t, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, w, h, 8, ORDER_RGB, nullptr, TOP_LEFT, nullptr, 0);
        rep.check(K_SetBitmapRgnFromMask(&t, nullptr, &s1, 1) == KS_SUCCESS, "region of the sample's bright pixels");
        uint64_t a3 = 0;
        K_GetBitmapRgnArea(&t, &a3);
        rep.line("bright pixels of the sample: " + std::to_string(a3));
        K_FreeBitmap(&t);
        K_FreeBitmap(&s1);
    }
    K_FreeBitmap(&bm);
    return rep.failures == failuresBefore;
}

cli::RegisterCommand reg({"region", "IN.pnm OUT.pnm SHAPE... [--color RRGGBB]",
                          "fill rectangles, ellipses and polygons (combined by mode) on an image", run});
cli::RegisterDemo demoReg({"regions", 50, demo});

}  // namespace
