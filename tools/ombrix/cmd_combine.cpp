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
#include "pnm.h"

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
const char* const kOperators[] = {"value", "invert", "zero", "ones"};

int parseOperator(const std::string& s) {
    for (int i = 0; i < 4; ++i)
        if (s == kOperators[i]) return i;
    return -1;
}

bool parsePair(const std::string& s, char sep, int32_t* a, int32_t* b) {
    const size_t k = s.find(sep);
    if (k == std::string::npos) return false;
    char* e1 = nullptr;
    char* e2 = nullptr;
    const long x = std::strtol(s.c_str(), &e1, 10), y = std::strtol(s.c_str() + k + 1, &e2, 10);
    if (e1 != s.c_str() + k || !e2 || *e2) return false;
    if (x < INT32_MIN || x > INT32_MAX || y < INT32_MIN || y > INT32_MAX) return false;
    *a = int32_t(x);
    *b = int32_t(y);
    return true;
}

int32_t progressBar(int32_t pct, void*) {
    char bar[41];
    const int filled = pct * 40 / 100;
    for (int i = 0; i < 40; ++i) bar[i] = i < filled ? '#' : '.';
    bar[40] = 0;
    std::fprintf(stderr, "\r[%s] %3d%%%s", bar, pct, pct >= 100 ? "\n" : "");
    std::fflush(stderr);
    return 1;
}

// Both pictures in one depth: kept when they agree, else both as 24-bit BGR.
int32_t sameDepth(BITMAPRECORD& a, BITMAPRECORD& b) {
    if (a.nBitsPerPixel == b.nBitsPerPixel && a.nOrder == b.nOrder) return KS_SUCCESS;
    for (BITMAPRECORD* bm : {&a, &b}) {
        if (bm->nBitsPerPixel == 24) continue;
        BITMAPRECORD wide;
        int32_t rc = pnm::toBgr24(*bm, wide);
        if (rc != KS_SUCCESS) return rc;
        K_FreeBitmap(bm);
        *bm = wide;
    }
    return KS_SUCCESS;
}

int run(const cli::Args& args) {
    std::string files[3];
    int nfiles = 0;
    uint32_t op = CombineAdd;
    int sop = 0, dop = 0, rop = 0;
    int32_t xd = 0, yd = 0, xs = 0, ys = 0, w = -1, h = -1;
    long rawFlags = -1;
    auto usage = [] {
        std::fprintf(stderr,
                     "usage: ombrix combine DST.pnm SRC.pnm OUT.pnm [--op OP] [--src-op O] [--dst-op O] [--res-op O]\n"
                     "                      [--at X,Y] [--from X,Y] [--size WxH] [--flags 0xNNNN]\n"
                     "  OP: and or xor add subtract-source subtract-destination multiply divide-source\n"
                     "      divide-destination average min max none alpha-over\n"
                     "  O:  value invert zero ones;  --at is the corner in DST, --from the corner in SRC\n");
        return 2;
    };
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&]() -> const std::string* { return i + 1 < args.size() ? &args[++i] : nullptr; };
        if (a == "--op") {
            const std::string* v = value();
            if (!v) return usage();
            bool found = false;
            for (const OpName& o : kOps)
                if (*v == o.name) op = o.value, found = true;
            if (!found) return usage();
        } else if (a == "--src-op" || a == "--dst-op" || a == "--res-op") {
            const std::string* v = value();
            const int o = v ? parseOperator(*v) : -1;
            if (o < 0) return usage();
            (a == "--src-op" ? sop : a == "--dst-op" ? dop : rop) = o;
        } else if (a == "--at" || a == "--from") {
            const std::string* v = value();
            if (!v || !parsePair(*v, ',', a == "--at" ? &xd : &xs, a == "--at" ? &yd : &ys)) return usage();
        } else if (a == "--size") {
            const std::string* v = value();
            if (!v || !parsePair(*v, 'x', &w, &h) || w < 0 || h < 0) return usage();
        } else if (a == "--flags") {
            const std::string* v = value();
            if (!v) return usage();
            rawFlags = std::strtol(v->c_str(), nullptr, 0);
        } else if (nfiles < 3) {
            files[nfiles++] = a;
        } else {
            return usage();
        }
    }
    if (nfiles != 3) return usage();
    const uint32_t flags = rawFlags >= 0 ? uint32_t(rawFlags)
                                         : uint32_t(sop) | uint32_t(dop) << 4 | op | uint32_t(rop) << 12;
    BITMAPRECORD dst, src;
    std::string why;
    int32_t rc = pnm::read(files[0], dst, &why);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "combine: %s: %s\n", files[0].c_str(), why.empty() ? cli::statusText(rc).c_str() : why.c_str());
        return 1;
    }
    rc = pnm::read(files[1], src, &why);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "combine: %s: %s\n", files[1].c_str(), why.empty() ? cli::statusText(rc).c_str() : why.c_str());
        K_FreeBitmap(&dst);
        return 1;
    }
    rc = sameDepth(dst, src);
    if (w < 0) w = src.nWidth, h = src.nHeight;
    STATUSCALLBACK oldCb = nullptr;
    void* oldUser = nullptr;
    const bool bar = isatty(2);
    if (bar) K_SetStatusCallBack(&progressBar, nullptr, &oldCb, &oldUser);
    const auto t0 = std::chrono::steady_clock::now();
    if (rc == KS_SUCCESS) rc = K_CombineBitmapKrn(&dst, xd, yd, w, h, &src, xs, ys, flags);
    const double sec = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (bar) K_SetStatusCallBack(oldCb, oldUser, nullptr, nullptr);
    if (rc == KS_SUCCESS) rc = pnm::write(files[2], dst, &why);
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

cli::RegisterCommand reg({"combine",
                          "DST.pnm SRC.pnm OUT.pnm [--op OP] [--src-op O] [--dst-op O] [--res-op O] [--at X,Y] "
                          "[--from X,Y] [--size WxH] [--flags 0xNNNN]",
                          "combine a picture into another under any operation", run});

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
    if (pnm::toBgr24(sample, a) != KS_SUCCESS) {
        rep.check(false, "sample as 24-bit BGR");
        return false;
    }
    pnm::toBgr24(sample, b);
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
    pnm::toBgr24(sample, b);
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
    pnm::toBgr24(sample, b);
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
    K_FreeBitmapRgn(&b);

    // 5. Bad flag words are refused before any pixel is touched.
    pnm::toBgr24(sample, b);
    const bool refused = K_CombineBitmapKrn(&b, 0, 0, w, h, &a, 0, 0, 0x0E00) == KS_INVALID_PARAMETER &&
                         K_CombineBitmapKrn(&b, 0, 0, w, h, &a, 0, 0, 0x10000) == KS_INVALID_PARAMETER;
    rep.check(refused && bytesOf(b) == orig, "invalid flag words give -13 and change nothing");
    K_FreeBitmap(&a);
    K_FreeBitmap(&b);
    return true;
}

cli::RegisterDemo demoReg({"combine", 55, demo});

}  // namespace
