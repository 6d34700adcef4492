// cmd_orient.cpp - `ombrix flip`, `ombrix mirror`, `ombrix turn` and
// `ombrix orient FROM TO` on picture files, with a progress bar on a
// terminal; and the demo section that turns the sample with self-checks.
// Public API only.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"

namespace {

// A progress bar on standard error while a status callback runs; nothing when
// standard error is not a terminal.
struct ProgressBar {
    STATUSCALLBACK oldFn = nullptr;
    void* oldUser = nullptr;
    bool on = false;
    explicit ProgressBar(const char* label) {
        if (!isatty(2)) return;
        on = true;
        K_SetStatusCallBack(&ProgressBar::draw, const_cast<char*>(label), &oldFn, &oldUser);
    }
    ~ProgressBar() {
        if (!on) return;
        K_SetStatusCallBack(oldFn, oldUser, nullptr, nullptr);
        std::fprintf(stderr, "\n");
    }
    static int32_t draw(int32_t pct, void* user) {
        const int fill = pct * 30 / 100;
        std::fprintf(stderr, "\r%-8s [%.*s%*s] %3d%%", static_cast<const char*>(user), fill,
                     "##############################", 30 - fill, "", pct);
        return KS_SUCCESS;
    }
};

// Reads IN, applies op to the bitmap (stored in TOP_LEFT), writes OUT.
int transformFile(const char* cmd, const std::string& in, const std::string& out,
                  int32_t (*op)(BITMAPRECORD*, void*), void* ctx) {
    BITMAPRECORD bm;
    std::string why;
    int32_t rc = image::read(in, bm, &why);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "%s: %s: %s\n", cmd, in.c_str(), why.empty() ? cli::statusText(rc).c_str() : why.c_str());
        return 1;
    }
    {
        ProgressBar bar(cmd);
        rc = op(&bm, ctx);
    }
    if (rc == KS_SUCCESS) rc = image::write(out, bm, &why);
    K_FreeBitmap(&bm);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "%s: %s\n", cmd, why.empty() ? cli::statusText(rc).c_str() : why.c_str());
        return 1;
    }
    std::printf("wrote %s\n", out.c_str());
    return 0;
}


int runFlip(const cli::Call& call) {
    const cli::Args& args = call.args;
    return transformFile("flip", args[0], args[1], [](BITMAPRECORD* b, void*) { return K_FlipBitmap(b); }, nullptr);
}

int runMirror(const cli::Call& call) {
    const cli::Args& args = call.args;
    return transformFile("mirror", args[0], args[1], [](BITMAPRECORD* b, void*) { return K_ReverseBitmap(b); },
                         nullptr);
}

int runTurn(const cli::Call& call) {
    const cli::Args& args = call.args;
    int turn;
    if (args[0] == "cw") turn = 1;
    else if (args[0] == "ccw") turn = 0;
    else if (args[0] == "180") turn = 2;
    else throw cli::UsageError("'" + args[0] + "' is not cw, ccw or 180");
    return transformFile("turn", args[1], args[2],
                         [](BITMAPRECORD* b, void* ctx) {
                             const int t = *static_cast<int*>(ctx);
                             if (t < 2) return K_RotateBitmap90(b, t, 0, 100);
                             int32_t rc = K_RotateBitmap90(b, 1, 0, 50);
                             return rc == KS_SUCCESS ? K_RotateBitmap90(b, 1, 50, 100) : rc;
                         },
                         &turn);
}

// The file's pixels are the stored rows of an image in perspective FROM; the
// output holds the same image stored in perspective TO.
int runOrient(const cli::Call& call) {
    const cli::Args& args = call.args;
    int persp[2] = {int(call.intArg(0, 1, 8, "FROM")), int(call.intArg(1, 1, 8, "TO"))};
    return transformFile("orient", args[2], args[3],
                         [](BITMAPRECORD* b, void* ctx) {
                             const int* p = static_cast<int*>(ctx);
                             b->nViewPerspective = p[0];
                             int32_t rc = K_ChangeBitmapViewPerspective(nullptr, b, 0, p[1]);
                             b->nViewPerspective = TOP_LEFT;  // write the stored rows as they are
                             return rc;
                         },
                         persp);
}

cli::RegisterCommand regFlip({"flip", "IN OUT", "turn a picture upside down", runFlip, {}, 2, 2});
cli::RegisterCommand regMirror({"mirror", "IN OUT", "mirror a picture left to right", runMirror, {}, 2, 2});
cli::RegisterCommand regTurn({"turn", "cw|ccw|180 IN OUT", "turn a picture by a right angle", runTurn, {}, 3, 3});
cli::RegisterCommand regOrient({"orient", "FROM TO IN OUT",
                                "store a picture's pixels in another orientation (1..8, as the TIFF Orientation tag)",
                                runOrient, {}, 4, 4});

// ---------------------------------------------------------------- demo

// Stored pixel (x, y) of a 24-bit bitmap as 0xRRGGBB-like word.
uint32_t pixelAt(BITMAPRECORD* bm, int x, int y) {
    uint8_t px[4] = {};
    K_AccessBitmap(bm);
    K_GetBitmapRowCol(bm, px, y, x, 3);
    K_ReleaseBitmap(bm);
    return uint32_t(px[0]) | uint32_t(px[1]) << 8 | uint32_t(px[2]) << 16;
}

bool sameStored(BITMAPRECORD* a, BITMAPRECORD* b) {
    if (a->nWidth != b->nWidth || a->nHeight != b->nHeight) return false;
    for (int y = 0; y < a->nHeight; y += 7)
        for (int x = 0; x < a->nWidth; x += 5)
            if (pixelAt(a, x, y) != pixelAt(b, x, y)) return false;
    return true;
}

bool demoOrient(cli::Report& rep, const BITMAPRECORD& sample) {
    BITMAPRECORD src, work;
    if (sample.nBitsPerPixel != 24 ||
        K_CopyBitmap(&src, const_cast<BITMAPRECORD*>(&sample), BITMAPRECORD_SIZE) != KS_SUCCESS) {
        rep.check(false, "copy the 24-bit sample");
        return false;
    }
    src.nViewPerspective = TOP_LEFT;
    const int w = src.nWidth, h = src.nHeight;
    rep.line("sample " + std::to_string(w) + " x " + std::to_string(h) + ", 24 bits");

    bool ok = K_CopyBitmap(&work, &src, BITMAPRECORD_SIZE) == KS_SUCCESS;
    ok = ok && K_RotateBitmap90(&work, 1, 0, 100) == KS_SUCCESS;
    rep.check(ok && work.nWidth == h && work.nHeight == w, "a quarter turn exchanges width and height");
    if (ok) rep.save("turn-clockwise.png", work);
    rep.check(ok && pixelAt(&work, h - 1, 0) == pixelAt(&src, 0, 0),
              "clockwise: the top-left pixel goes to the top-right corner");
    for (int k = 0; k < 3 && ok; ++k) ok = K_RotateBitmap90(&work, 1, 0, 100) == KS_SUCCESS;
    rep.check(ok && sameStored(&work, &src), "four quarter turns give the picture back");

    ok = K_FlipBitmap(&work) == KS_SUCCESS && K_ReverseBitmap(&work) == KS_SUCCESS;
    rep.check(ok && pixelAt(&work, w - 1, h - 1) == pixelAt(&src, 0, 0), "flip and mirror make a half turn");
    if (ok) rep.save("flip-and-mirror.png", work);
    ok = K_FlipBitmap(&work) == KS_SUCCESS && K_ReverseBitmap(&work) == KS_SUCCESS;
    rep.check(ok && sameStored(&work, &src), "and again give the picture back");

    // Every perspective stores the same viewed image.
    bool all = true;
    for (int to = 1; to <= 8; ++to) {
        BITMAPRECORD v;
        if (K_ChangeBitmapViewPerspective(&v, &src, BITMAPRECORD_SIZE, to) != KS_SUCCESS) {
            all = false;
            continue;
        }
        for (int y = 0; y < h && all; y += 11)
            for (int x = 0; x < w && all; x += 13) {
                int sx = x, sy = y;
                K_PointToBitmap(&v, TOP_LEFT, &sx, &sy);
                all = pixelAt(&v, sx, sy) == pixelAt(&src, x, y);
            }
        K_FreeBitmap(&v);
    }
    rep.check(all, "the picture stored in each of the 8 perspectives shows the same image");
    K_FreeBitmap(&work);
    K_FreeBitmap(&src);
    return true;
}

cli::RegisterDemo demo({"orientation", 50, demoOrient});

}  // namespace
