// cmd_combine.cpp - `ombrix combine`: any operation between two pictures,
// with offsets and operators, a progress bar on a terminal; and the demo
// section that composes the sample with itself and checks the results.
// Public API only.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"

namespace {

struct OpName {
    const char* name;
    uint32_t value;
};
const OpName kOps[] = {{"and", CombineAnd},          {"or", CombineOr},
                       {"xor", CombineXor},          {"add", CombineAdd},
                       {"subtract-source", CombineSubtractSource}, {"subtract-destination", CombineSubtractDestination},
                       {"multiply", CombineMultiply}, {"divide-source", CombineDivideSource},
                       {"divide-destination", CombineDivideDestination}, {"average", CombineAverage},
                       {"min", CombineMinimum},      {"max", CombineMaximum},
                       {"none", CombineNoOperation}, {"alpha-over", CombineAlphaOver}};

// Both pictures in one depth: kept when they agree, else both as 24-bit BGR.
int32_t sameDepth(BITMAPRECORD& a, BITMAPRECORD& b) {
    if (a.nBitsPerPixel == b.nBitsPerPixel && a.nOrder == b.nOrder) return KS_SUCCESS;
    for (BITMAPRECORD* bm : {&a, &b}) {
        if (bm->nBitsPerPixel == 24) continue;
        BITMAPRECORD wide;
        int32_t rc = image::toBgr24(*bm, wide);
        if (rc != KS_SUCCESS) return rc;
        K_FreeBitmap(bm);
        *bm = wide;
    }
    return KS_SUCCESS;
}

const char* const kOpChoices =
    "and|or|xor|add|subtract-source|subtract-destination|multiply|divide-source|divide-destination|average|min|max|"
    "none|alpha-over";
const char* const kOperatorChoices = "value|invert|zero|ones";

int run(const cli::Call& call) {
    const std::string files[3] = {call.args[0], call.args[1], call.args[2]};
    const uint32_t op = kOps[call.choice("--op", 3)].value;
    const int sop = call.choice("--src-op", 0), dop = call.choice("--dst-op", 0), rop = call.choice("--res-op", 0);
    const auto at = call.pair("--at", {0, 0}), from = call.pair("--from", {0, 0}), size = call.pair("--size", {-1, -1});
    const int32_t xd = int32_t(at.first), yd = int32_t(at.second), xs = int32_t(from.first), ys = int32_t(from.second);
    int32_t w = int32_t(size.first), h = int32_t(size.second);
    const long rawFlags = call.integer("--flags", -1);
    const uint32_t flags = rawFlags >= 0 ? uint32_t(rawFlags)
                                         : uint32_t(sop) | uint32_t(dop) << 4 | op | uint32_t(rop) << 12;
    BITMAPRECORD dst, src;
    std::string why;
    int32_t rc = image::read(files[0], dst, &why);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "combine: %s: %s\n", files[0].c_str(), why.empty() ? cli::statusText(rc).c_str() : why.c_str());
        return 1;
    }
    rc = image::read(files[1], src, &why);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "combine: %s: %s\n", files[1].c_str(), why.empty() ? cli::statusText(rc).c_str() : why.c_str());
        K_FreeBitmap(&dst);
        return 1;
    }
    rc = sameDepth(dst, src);
    if (w < 0) w = src.nWidth, h = src.nHeight;
    const auto t0 = std::chrono::steady_clock::now();
    if (rc == KS_SUCCESS) rc = K_CombineBitmapKrn(&dst, xd, yd, w, h, &src, xs, ys, flags);
    const double sec = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (rc == KS_SUCCESS) rc = image::write(files[2], dst, &why);
    if (rc == KS_SUCCESS)
        std::printf("combined %s into %s with flags 0x%04X (%d bits, %dx%d at %d,%d from %d,%d) in %.2f ms; wrote %s\n",
                    files[1].c_str(), files[0].c_str(), flags, dst.nBitsPerPixel, w, h, xd, yd, xs, ys, sec * 1e3,
                    files[2].c_str());
    else
        std::fprintf(stderr, "combine: %s\n", why.empty() ? cli::statusText(rc).c_str() : why.c_str());
    K_FreeBitmap(&dst);
    K_FreeBitmap(&src);
    return rc == KS_SUCCESS ? 0 : 1;
}

cli::RegisterCommand reg({"combine", "DST SRC OUT", "combine a picture into another under any operation", run,
                          {{"--op", cli::Type::Choice, "OP", "the operation", 0, 0, kOpChoices},
                           {"--src-op", cli::Type::Choice, "O", "operator on the source", 0, 0, kOperatorChoices},
                           {"--dst-op", cli::Type::Choice, "O", "operator on the destination", 0, 0, kOperatorChoices},
                           {"--res-op", cli::Type::Choice, "O", "operator on the result", 0, 0, kOperatorChoices},
                           {"--at", cli::Type::Pair, "X,Y", "corner in DST", -2147483647.0, 2147483647.0},
                           {"--from", cli::Type::Pair, "X,Y", "corner in SRC", -2147483647.0, 2147483647.0},
                           {"--size", cli::Type::Size, "WxH", "size of the combined area (default: SRC)", 0, 2147483647.0},
                           {"--flags", cli::Type::Int, "0xNNNN", "raw combine flags (instead of the four above)", 0,
                            4294967295.0}},
                          3, 3});

// ---------------------------------------------------------------- demo

// Pixels of a TOP_LEFT bitmap as bytes (rows without padding).
std::vector<uint8_t> bytesOf(BITMAPRECORD& bm) {
    std::vector<uint8_t> v;
    const uint32_t rowBytes = (uint32_t(bm.nWidth) * uint32_t(bm.nBitsPerPixel) + 7) / 8;
    std::vector<uint8_t> row(bm.nBytesPerLine);
    for (int32_t y = 0; y < bm.nHeight; ++y) {
        K_GetBitmapRow(&bm, row.data(), y, bm.nBytesPerLine);
        v.insert(v.end(), row.begin(), row.begin() + rowBytes);
    }
    return v;
}

bool demo(cli::Report& rep, const BITMAPRECORD& sample) {
    BITMAPRECORD a, b;
    if (image::toBgr24(sample, a) != KS_SUCCESS) {
        rep.check(false, "sample as 24-bit BGR");
        return false;
    }
    image::toBgr24(sample, b);
    const std::vector<uint8_t> orig = bytesOf(a);
    const int32_t w = a.nWidth, h = a.nHeight;
    char line[200];

    // 1. XOR with itself clears everything; XOR again with the original restores it.
    K_CombineBitmapKrn(&b, 0, 0, w, h, &a, 0, 0, CombineXor);
    std::vector<uint8_t> v = bytesOf(b);
    bool zero = true;
    for (uint8_t x : v) zero = zero && x == 0;
    rep.check(zero, "the sample XOR itself is black");
    K_CombineBitmapKrn(&b, 0, 0, w, h, &a, 0, 0, CombineXor);
    rep.check(bytesOf(b) == orig, "XOR with the sample again restores it");

    // 2. The sample plus its negative is white at every sample (add with the inverted source).
    K_CombineBitmapKrn(&b, 0, 0, w, h, &a, 0, 0, CombineAdd | COMBINE_SRC_INVERT);
    v = bytesOf(b);
    bool white = true;
    for (uint8_t x : v) white = white && x == 255;
    rep.check(white, "the sample plus its negative is white");

    // 3. Minimum and maximum with the negative: every sample below and above the midpoint.
    image::toBgr24(sample, b);
    const auto t0 = std::chrono::steady_clock::now();
    K_CombineBitmapKrn(&b, 0, 0, w, h, &a, 0, 0, CombineMinimum | COMBINE_SRC_INVERT);
    const double sec = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    v = bytesOf(b);
    bool lowHalf = true;
    for (size_t i = 0; i < v.size(); ++i) lowHalf = lowHalf && v[i] == std::min<uint8_t>(orig[i], uint8_t(255 - orig[i]));
    rep.check(lowHalf, "minimum with the negative folds every sample into 0..127");
    std::snprintf(line, sizeof line, "%dx%d minimum in %.2f ms", w, h, sec * 1e3);
    rep.line(line);

    // 4. A shifted average inside a region: pixels outside the region keep their values.
    image::toBgr24(sample, b);
    RECT r{w / 4, h / 4, w / 2, h / 2};
    K_SetBitmapRgnEllipse(&b, nullptr, &r, RGN_SET_REPLACE);
    K_CombineBitmapKrn(&b, 0, 0, w, h, &a, 5, 3, CombineAverage);
    v = bytesOf(b);
    size_t changedOutside = 0, changedInside = 0;
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            const bool in = K_IsPtInBitmapRgn(&b, y, x) == 1;
            const size_t k = (size_t(y) * size_t(w) + size_t(x)) * 3;
            const bool changed = std::memcmp(&v[k], &orig[k], 3) != 0;
            (in ? changedInside : changedOutside) += changed;
        }
    rep.check(changedOutside == 0 && changedInside > 0, "an average inside an elliptic region leaves the rest alone");
    rep.save("combine-average-in-ellipse.png", b);
    K_FreeBitmapRgn(&b);

    // 5. Bad flag words are refused before any pixel is touched.
    image::toBgr24(sample, b);
    const bool refused = K_CombineBitmapKrn(&b, 0, 0, w, h, &a, 0, 0, 0x0E00) == KS_INVALID_PARAMETER &&
                         K_CombineBitmapKrn(&b, 0, 0, w, h, &a, 0, 0, 0x10000) == KS_INVALID_PARAMETER;
    rep.check(refused && bytesOf(b) == orig, "invalid flag words give -13 and change nothing");
    K_FreeBitmap(&a);
    K_FreeBitmap(&b);
    return true;
}

cli::RegisterDemo demoReg({"combine", 55, demo});

}  // namespace
