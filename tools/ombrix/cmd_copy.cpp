// cmd_copy.cpp - `ombrix crop`: a rectangle of a PNM picture into a new
// file, with a progress bar on a terminal; and the demo section of the copy
// family (whole copies across storage kinds, rectangle copies, in-place crops,
// a stopped copy). Public API only.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"

namespace {

// A progress bar on stderr, drawn only when stderr is a terminal.
int32_t progressBar(int32_t percent, void* user) {
    const char* what = static_cast<const char*>(user);
    const int width = 40, filled = percent * width / 100;
    std::fprintf(stderr, "\r%s [%.*s%*s] %3d%%", what, filled, "########################################",
                 width - filled, "", percent);
    if (percent >= 100) std::fputc('\n', stderr);
    std::fflush(stderr);
    return 1;
}


int runCrop(const cli::Call& call) {
    const cli::Args& pos = call.args;
    const long long memory = call.integer("--memory", -1);
    const long long col = call.intArg(2, INT32_MIN + 1L, INT32_MAX, "COL"), row = call.intArg(3, INT32_MIN + 1L, INT32_MAX, "ROW");
    const long long w = call.intArg(4, 1, INT32_MAX, "WIDTH"), h = call.intArg(5, 1, INT32_MAX, "HEIGHT");
    BITMAPRECORD in;
    std::string why;
    int32_t rc = image::read(pos[0], in, &why);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "crop: %s: %s (%s)\n", pos[0].c_str(), cli::statusText(rc).c_str(), why.c_str());
        return 1;
    }
    STATUSCALLBACK oldFn = nullptr;
    void* oldUser = nullptr;
    const bool bar = cli::progressWanted();
    if (bar) K_SetCopyStatusCallBack(&progressBar, const_cast<char*>("crop"), &oldFn, &oldUser);
    BITMAPRECORD out;
    rc = memory < 0 ? K_CopyBitmapRect(&out, &in, BITMAPRECORD_SIZE, int32_t(col), int32_t(row), uint32_t(w),
                                       uint32_t(h))
                    : K_CopyBitmapRect2(&out, &in, BITMAPRECORD_SIZE, int32_t(col), int32_t(row), uint32_t(w),
                                        uint32_t(h), uint32_t(memory));
    if (bar) K_SetCopyStatusCallBack(oldFn, oldUser, nullptr, nullptr);
    K_FreeBitmap(&in);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "crop: %s\n", cli::statusText(rc).c_str());
        return 1;
    }
    rc = image::write(pos[1], out, &why);
    K_FreeBitmap(&out);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "crop: %s: %s (%s)\n", pos[1].c_str(), cli::statusText(rc).c_str(), why.c_str());
        return 1;
    }
    if (!call.quiet) std::printf("%s: %lldx%lld at (%lld, %lld)\n", pos[1].c_str(), w, h, col, row);
    return 0;
}

// ------------------------------------------------------------ demo

// Row y of a bitmap as bytes (the row's pixels only).
std::vector<uint8_t> rowOf(BITMAPRECORD& bm, int32_t y) {
    std::vector<uint8_t> r(bm.nBytesPerLine);
    K_GetBitmapRow(&bm, r.data(), y, bm.nBytesPerLine);
    r.resize((size_t(bm.nWidth) * size_t(bm.nBitsPerPixel) + 7) / 8);
    return r;
}

bool sameRows(BITMAPRECORD& a, BITMAPRECORD& b) {
    if (a.nWidth != b.nWidth || a.nHeight != b.nHeight || a.nBitsPerPixel != b.nBitsPerPixel) return false;
    for (int32_t y = 0; y < a.nHeight; ++y)
        if (rowOf(a, y) != rowOf(b, y)) return false;
    return true;
}

int32_t stopAtOnce(int32_t, void*) { return 0; }

bool demo(cli::Report& rep, const BITMAPRECORD& sampleIn) {
    const int before = rep.failures;
    BITMAPRECORD sample = sampleIn;  // the rows are read, never written
    // Whole copies into every storage kind the sample's depth allows.
    struct Kind {
        uint32_t memory;
        const char* name;
    };
    const Kind kinds[] = {{1, "single block"}, {128, "temporary file"}, {1024, "super-compressed"}};
    for (const Kind& k : kinds) {
        BITMAPRECORD c;
        int32_t rc = K_CopyBitmap2(&c, &sample, BITMAPRECORD_SIZE, k.memory);
        rep.check(rc == KS_SUCCESS && sameRows(c, sample), std::string("copy into ") + k.name + " equals the sample");
        if (rc == KS_SUCCESS) K_FreeBitmap(&c);
    }
    // A rectangle that leaves the sample on the left and top: the window and untouched margins.
    const int32_t col = -7, row = -5;
    const uint32_t w = uint32_t(sample.nWidth / 2), h = uint32_t(sample.nHeight / 2);
    BITMAPRECORD crop;
    bool ok = K_CopyBitmapRect(&crop, &sample, BITMAPRECORD_SIZE, col, row, w, h) == KS_SUCCESS;
    const int32_t bytesPP = sample.nBitsPerPixel / 8;
    for (int32_t y = 0; ok && y < int32_t(h); ++y) {
        std::vector<uint8_t> got = rowOf(crop, y);
        std::vector<uint8_t> src = y + row >= 0 ? rowOf(sample, y + row) : std::vector<uint8_t>();
        for (int32_t x = 0; ok && x < int32_t(w); ++x)
            for (int32_t k = 0; k < bytesPP; ++k) {
                const bool inside = y + row >= 0 && x + col >= 0;
                const uint8_t want = inside ? src[size_t(x + col) * bytesPP + k] : 0;
                ok = ok && got[size_t(x) * bytesPP + k] == want;
            }
    }
    rep.check(ok, "rectangle copy equals the sample's window, margins untouched");
    if (ok) rep.save("crop.png", crop);
    // The same crop in place on a copy.
    BITMAPRECORD trimmed;
    ok = ok && K_CopyBitmap(&trimmed, &sample, BITMAPRECORD_SIZE) == KS_SUCCESS;
    ok = ok && K_CopyBitmapRect(nullptr, &trimmed, BITMAPRECORD_SIZE, col, row, w, h) == KS_SUCCESS;
    rep.check(ok && sameRows(trimmed, crop), "in-place crop equals the crop into a new record");
    if (ok) K_FreeBitmap(&trimmed);
    K_FreeBitmap(&crop);
    // A copy whose status callback answers 0 stops and reports it.
    STATUSCALLBACK oldFn = nullptr;
    void* oldUser = nullptr;
    K_SetCopyStatusCallBack(&stopAtOnce, nullptr, &oldFn, &oldUser);
    BITMAPRECORD stopped;
    std::memset(&stopped, 0, sizeof stopped);
    const int32_t rc = K_CopyBitmap(&stopped, &sample, BITMAPRECORD_SIZE);
    K_SetCopyStatusCallBack(oldFn, oldUser, nullptr, nullptr);
    rep.check(rc == 0 && !(stopped.uFlags & BRF_ALLOCATED), "a copy stopped by its status callback returns 0");
    rep.line("copied " + std::to_string(sample.nWidth) + "x" + std::to_string(sample.nHeight) + " at " +
             std::to_string(sample.nBitsPerPixel) + " bits; cropped " + std::to_string(w) + "x" + std::to_string(h));
    return rep.failures == before;
}

cli::RegisterCommand reg({"crop", "IN OUT COL ROW WIDTH HEIGHT",
                          "copy a rectangle of a picture into a new file (parts outside stay black)", runCrop,
                          {{"--memory", cli::Type::Int, "TYPE", "memory type of the copy (1, 4, 128, 512, 1024, ...)", 0,
                            65535}},
                          6, 6});
cli::RegisterDemo demoReg({"copy and crop", 55, demo});

}  // namespace
