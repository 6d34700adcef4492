// cmd_region.cpp - `ombrix region`: give a PNM image a region built from
// rectangles, ellipses and polygons (combined by a mode) and fill it with a
// colour; and the regions section of `ombrix demo`.
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"

namespace {



int run(const cli::Call& call) {
    const cli::Args& args = call.args;
    int shapesGiven = 0;
    for (const auto& g : call.given)
        if (g.first->type == cli::Type::List) ++shapesGiven;
    if (shapesGiven == 0) throw cli::UsageError("at least one shape (--rect, --ellipse or --polygon) is needed");
    for (const auto& g : call.given)
        if (!std::strcmp(g.first->name, "--polygon") && (cli::parseList(g.second).size() % 2))
            throw cli::UsageError("--polygon: '" + g.second + "' is not a list of X,Y pairs");
    BITMAPRECORD bm;
    std::string err;
    int32_t rc = image::read(args[0], bm, &err);
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
    for (const auto& g : call.given) {
        const std::string a = g.first->name;
        if (a == "--color") {
            const uint32_t rgb = uint32_t(std::strtoul(g.second.c_str(), nullptr, 16));
            colour = ((rgb >> 16) & 0xFF) | (rgb & 0xFF00) | ((rgb & 0xFF) << 16);
            continue;
        }
        if (a == "--mode") {
            mode = uint32_t(std::strtoul(g.second.c_str(), nullptr, 10));
            modeGiven = true;
            continue;
        }
        if (a == "--winding") {
            winding = true;
            continue;
        }
        const uint32_t m = shapes == 0 && !modeGiven ? 1u : (modeGiven ? mode : 4u);
        const std::vector<long> v = cli::parseList(g.second);
        if (a == "--rect" || a == "--ellipse") {
            RECT r{int32_t(v[0]), int32_t(v[1]), int32_t(v[2]), int32_t(v[3])};
            rc = a == "--rect" ? K_SetBitmapRgnRect(&bm, &xf, &r, m) : K_SetBitmapRgnEllipse(&bm, &xf, &r, m);
        } else {  // --polygon
            std::vector<POINT> pts;
            for (size_t k = 0; k + 1 < v.size(); k += 2) pts.push_back(POINT{int32_t(v[k]), int32_t(v[k + 1])});
            rc = K_SetBitmapRgnPolygon(&bm, &xf, pts.data(), uint32_t(pts.size()), winding ? WINDING : ALTERNATE, m);
        }
        if (rc != KS_SUCCESS) {
            std::fprintf(stderr, "ombrix region: %s failed: %s\n", a.c_str(), cli::statusText(rc).c_str());
            K_FreeBitmap(&bm);
            return 1;
        }
        ++shapes;
        modeGiven = false;
    }
    uint64_t area = 0;
    RECT box{};
    K_GetBitmapRgnArea(&bm, &area);
    K_GetBitmapRgnBounds(&bm, &xf, &box);
    int32_t bytes = K_GetBitmapRgnData(&bm, nullptr, 0, nullptr);
    rc = K_FillBitmap(&bm, colour);
    if (rc == KS_SUCCESS) rc = image::write(args[1], bm, &err);
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
    rep.save("region-ellipse-xor-star.png", bm);
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

cli::RegisterCommand reg({"region", "IN OUT", "fill a region of shapes in a picture", run,
                          {{"--rect", cli::Type::List, "L,T,R,B", "a rectangle", 4, 4, nullptr, true},
                           {"--ellipse", cli::Type::List, "L,T,R,B", "an ellipse in the rectangle", 4, 4, nullptr, true},
                           {"--polygon", cli::Type::List, "X,Y,...", "a polygon of at least 2 points", 4, 100000, nullptr,
                            true},
                           {"--mode", cli::Type::Int, "M", "how the next shape joins: 0 and, 1 replace, 2 new minus "
                            "current, 3 current minus new, 4 or (default after the first), 5 xor, 6 not new", 0, 6,
                            nullptr, true},
                           {"--winding", cli::Type::Flag, "", "polygons that follow fill by the winding rule", 0, 0,
                            nullptr, true},
                           {"--color", cli::Type::Color, "RRGGBB", "fill colour (default ff0000)"}},
                          2, 2, "  Coordinates are pixels of the picture as seen; shapes apply in the order given."});
cli::RegisterDemo demoReg({"regions", 50, demo});

}  // namespace
