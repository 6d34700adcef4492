// cmd_display.cpp - `ombrix window` (window level of a 16-bit grey image to
// 8 bits) and `ombrix play` (compose a sequence of frames and write each
// composed frame); and the display sections of `ombrix demo`.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "cli.h"
#include "image.h"

namespace {

// ---------------------------------------------------------------- 16-bit grey input

// Reads a binary P5 (any maxval; samples above 255 are 16-bit big-endian)
// into a new 16-bit grey bitmap whose samples are the file's values.
int32_t readGrey16(const std::string& path, BITMAPRECORD& bm, std::string& err) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        err = "cannot open";
        return KS_FILE_NOT_FOUND;
    }
    auto token = [&]() -> long {
        int c = std::fgetc(f);
        while (c == '#' || c == ' ' || c == '\n' || c == '\r' || c == '\t') {
            if (c == '#')
                while (c != '\n' && c != EOF) c = std::fgetc(f);
            c = std::fgetc(f);
        }
        long v = 0;
        bool any = false;
        while (c >= '0' && c <= '9') {
            v = v * 10 + (c - '0');
            if (v > 1000000) return -1;
            any = true;
            c = std::fgetc(f);
        }
        return any ? v : -1;
    };
    char magic[2] = {};
    if (std::fread(magic, 1, 2, f) != 2 || magic[0] != 'P' || magic[1] != '5') {
        std::fclose(f);
        err = "not a binary PGM (P5)";
        return KS_NOT_SUPPORTED;
    }
    const long w = token(), h = token(), maxval = token();
    if (w <= 0 || h <= 0 || maxval <= 0 || maxval > 65535) {
        std::fclose(f);
        err = "bad header";
        return KS_FILE_READ;
    }
    BITMAPRECORD tmp;
    int32_t rc = K_CreateBitmap(&tmp, BITMAPRECORD_SIZE, 1, int32_t(w), int32_t(h), 16, ORDER_GRAY, nullptr, TOP_LEFT,
                                nullptr, 0);
    if (rc != KS_SUCCESS) {
        std::fclose(f);
        err = "cannot make the bitmap";
        return rc;
    }
    const size_t bytesPer = maxval > 255 ? 2 : 1;
    std::vector<uint8_t> in(size_t(w) * bytesPer), row(tmp.nBytesPerLine, 0);
    for (long y = 0; y < h && rc == KS_SUCCESS; ++y) {
        if (std::fread(in.data(), 1, in.size(), f) != in.size()) {
            err = "truncated";
            rc = KS_FILE_READ;
            break;
        }
        for (long x = 0; x < w; ++x) {
            const uint32_t v = bytesPer == 2 ? (uint32_t(in[size_t(x) * 2]) << 8) | in[size_t(x) * 2 + 1] : in[size_t(x)];
            row[size_t(x) * 2] = uint8_t(v);
            row[size_t(x) * 2 + 1] = uint8_t(v >> 8);
        }
        if (K_PutBitmapRow(&tmp, row.data(), int32_t(y), tmp.nBytesPerLine) < 0) rc = KS_FILE_READ;
    }
    std::fclose(f);
    if (rc != KS_SUCCESS) {
        K_FreeBitmap(&tmp);
        return rc;
    }
    bm = tmp;
    return KS_SUCCESS;
}


// Other picture files (PNG, TIFF, ...): 16-bit grey as it is, 8-bit grey
// with its values widened to a 16-bit bitmap (the samples keep their values).
int32_t readGreyPicture(const std::string& path, BITMAPRECORD& bm, std::string& err) {
    image::Raster r;
    int32_t rc = image::readRaster(path, r, &err);
    if (rc != KS_SUCCESS) return rc;
    if (r.kind != image::Raster::Grey || (r.bits != 8 && r.bits != 16)) {
        err = "not an 8- or 16-bit grey picture (" + r.describe() + ")";
        return KS_NOT_SUPPORTED;
    }
    if (r.bits == 8) {
        image::Raster wide = r;
        wide.bits = 16;
        wide.allocate();
        for (int32_t y = 0; y < r.height; ++y)
            for (int32_t x = 0; x < r.width; ++x) {
                const uint16_t v = r.row(y)[x];
                std::memcpy(wide.row(y) + 2 * x, &v, 2);
            }
        r = std::move(wide);
    }
    const image::Result res = image::toBitmap(r, bm);
    if (!res.ok()) err = res.error;
    return res.status;
}

int runWindow(const cli::Call& call) {
    const cli::Args& args = call.args;
    static const uint32_t curves[] = {WLCURVE_LINEAR, WLCURVE_EXPONENTIAL, WLCURVE_LOGARITHMIC, WLCURVE_SIGMOID};
    uint32_t flags = call.has("--curve") ? curves[call.choice("--curve", 0)] : 0;
    const int32_t factor = int32_t(call.integer("--factor", 0));
    if (call.has("--invert")) flags |= WL_INVERT;
    const int32_t low = int32_t(call.intArg(2, INT32_MIN, INT32_MAX, "LOW"));
    const int32_t high = int32_t(call.intArg(3, INT32_MIN, INT32_MAX, "HIGH"));
    BITMAPRECORD src, out;
    std::string err;
    int32_t rc = readGrey16(args[0], src, err);
    if (rc != KS_SUCCESS && rc != KS_FILE_NOT_FOUND) rc = readGreyPicture(args[0], src, err);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "ombrix window: cannot read %s: %s\n", args[0].c_str(), err.c_str());
        return 1;
    }
    const auto t0 = std::chrono::steady_clock::now();
    rc = K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, low, high, factor, flags);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    K_FreeBitmap(&src);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "ombrix window: %s\n", cli::statusText(rc).c_str());
        return 1;
    }
    rc = image::write(args[1], out, &err);
    std::printf("window [%d, %d] of %dx%d in %.2f ms -> %s\n", low, high, out.nWidth, out.nHeight, ms, args[1].c_str());
    K_FreeBitmap(&out);
    if (rc != KS_SUCCESS) {
        std::fprintf(stderr, "ombrix window: cannot write %s: %s\n", args[1].c_str(), err.c_str());
        return 1;
    }
    return 0;
}

// ---------------------------------------------------------------- playback

// The built-in animation: a square moving over a striped background, every
// square with a transparent corner and disposal 3 (the stripes come back).
std::vector<BITMAPRECORD> sampleFrames(int32_t* w, int32_t* h) {
    *w = 64;
    *h = 48;
    std::vector<BITMAPRECORD> frames;
    BITMAPRECORD bg;
    K_CreateBitmap(&bg, BITMAPRECORD_SIZE, 1, 64, 48, 24, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0);
    std::vector<uint8_t> row(bg.nBytesPerLine);
    for (int y = 0; y < 48; ++y) {
        for (int x = 0; x < 64; ++x) {
            const uint8_t v = uint8_t(((x / 8 + y / 8) & 1) ? 200 : 60);
            row[size_t(x) * 3] = v;
            row[size_t(x) * 3 + 1] = uint8_t(v / 2);
            row[size_t(x) * 3 + 2] = uint8_t(255 - v);
        }
        K_PutBitmapRow(&bg, row.data(), y, bg.nBytesPerLine);
    }
    FRAME_DELAY(&bg) = 40;
    frames.push_back(bg);
    for (int i = 0; i < 8; ++i) {
        BITMAPRECORD f;
        K_CreateBitmap(&f, BITMAPRECORD_SIZE, 1, 16, 16, 24, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0);
        std::vector<uint8_t> r(f.nBytesPerLine);
        for (int y = 0; y < 16; ++y) {
            for (int x = 0; x < 16; ++x) {
                const bool corner = x + y < 5;  // the transparent colour (pure green)
                r[size_t(x) * 3] = corner ? 0 : uint8_t(30 * i);
                r[size_t(x) * 3 + 1] = corner ? 255 : 20;
                r[size_t(x) * 3 + 2] = corner ? 0 : 230;
            }
            K_PutBitmapRow(&f, r.data(), y, f.nBytesPerLine);
        }
        FRAME_LEFT(&f) = 4 + i * 6;
        FRAME_TOP(&f) = 4 + i * 3;
        FRAME_DELAY(&f) = 50;
        FRAME_DISPOSAL(&f) = 3;
        FRAME_TRANSPARENT_COLOR(&f) = 0x0000FF00;
        f.uFlags |= BRF_FRAME_TRANSPARENT;
        frames.push_back(f);
    }
    return frames;
}

int runPlay(const cli::Call& call) {
    const std::string prefix = call.args[0];
    const std::vector<std::string> inputs(call.args.begin() + 1, call.args.end());
    const uint32_t delay = uint32_t(call.integer("--delay", 100)), disposal = uint32_t(call.integer("--disposal", 0));
    const bool wait = !call.has("--no-wait");
    std::vector<BITMAPRECORD> frames;
    int32_t w = 0, h = 0;
    if (inputs.empty()) {
        frames = sampleFrames(&w, &h);
    } else {
        for (const std::string& path : inputs) {
            // Every image of a file that holds several (the pages of a TIFF) is a frame.
            for (int page = 0, images = 1; page < images; ++page) {
                image::Raster raster;
                BITMAPRECORD in, bgr;
                std::string err;
                int32_t rc = image::readRaster(path, raster, &err, nullptr, page);
                if (rc == KS_SUCCESS) {
                    const image::Result res = image::toBitmap(raster, in);
                    rc = res.status, err = res.error;
                }
                if (rc == KS_SUCCESS) {
                    rc = image::toBgr24(in, bgr);
                    K_FreeBitmap(&in);
                }
                if (rc != KS_SUCCESS) {
                    std::fprintf(stderr, "ombrix play: cannot read %s: %s\n", path.c_str(), err.c_str());
                    for (auto& f : frames) K_FreeBitmap(&f);
                    return 1;
                }
                images = raster.images;
                FRAME_DELAY(&bgr) = delay;
                FRAME_DISPOSAL(&bgr) = disposal;
                w = std::max(w, bgr.nWidth);
                h = std::max(h, bgr.nHeight);
                frames.push_back(bgr);
            }
        }
    }
    BITMAPRECORD target;
    if (K_CreateBitmap(&target, BITMAPRECORD_SIZE, 1, w, h, 24, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0) != KS_SUCCESS) {
        for (auto& f : frames) K_FreeBitmap(&f);
        return 1;
    }
    HPLAYBACK pb = nullptr;
    K_CreatePlayback(&pb, &target, nullptr);
    for (auto& f : frames) K_AppendPlayback(pb, &f);  // the playback's list owns them now
    K_ValidatePlaybackLines(pb, 0, 0x7FFFFFFF);
    const size_t count = frames.size();
    int written = 0;
    uint64_t waitedMs = 0;
    const auto t0 = std::chrono::steady_clock::now();
    for (int guard = 0; guard < 100000; ++guard) {
        int32_t st = 0;
        K_ProcessPlayback(pb, &st);
        if (st == PLAYBACK_STATE_DELAY) {  // a frame was just drawn
            char name[64];
            std::snprintf(name, sizeof name, "-%03d.ppm", written);
            image::write(prefix + name, target);
            ++written;
        } else if (st == PLAYBACK_STATE_WAITDELAY || st == PLAYBACK_STATE_WAITBOTH) {
            uint32_t left = 0;
            K_GetPlaybackDelay(pb, &left);
            waitedMs += left;
            if (wait && left) std::this_thread::sleep_for(std::chrono::milliseconds(left));
            else K_CancelPlaybackWait(pb);
        } else if (st == PLAYBACK_STATE_WAITINPUT) {
            K_CancelPlaybackWait(pb);  // no user here: go on
        } else if (st == PLAYBACK_STATE_END) {
            break;
        }
    }
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    std::printf("played %zu frames, wrote %d composed frames (%s-000.ppm ...), delays %llu ms, %.1f ms elapsed\n",
                count, written, prefix.c_str(), (unsigned long long)waitedMs, ms);
    K_DestroyPlayback(pb);
    K_FreeBitmap(&target);
    return written == int(count) ? 0 : 1;
}

// ---------------------------------------------------------------- demo

bool demoWindow(cli::Report& rep, const BITMAPRECORD&) {
    BITMAPRECORD src, out;
    K_CreateBitmap(&src, BITMAPRECORD_SIZE, 1, 256, 4, 16, ORDER_GRAY, nullptr, TOP_LEFT, nullptr, 0);
    std::vector<uint8_t> row(src.nBytesPerLine);
    for (int x = 0; x < 256; ++x) {
        const uint32_t v = uint32_t(x) * 256;
        row[size_t(x) * 2] = uint8_t(v);
        row[size_t(x) * 2 + 1] = uint8_t(v >> 8);
    }
    for (int y = 0; y < 4; ++y) K_PutBitmapRow(&src, row.data(), y, src.nBytesPerLine);
    const int32_t rc = K_WindowLevel(&src, &out, BITMAPRECORD_SIZE, 16384, 49152, 0, 0);
    rep.check(rc == KS_SUCCESS, "K_WindowLevel of a 16-bit ramp");
    bool ok = rc == KS_SUCCESS;
    if (ok) {
        std::vector<uint8_t> o(out.nBytesPerLine);
        K_GetBitmapRow(&out, o.data(), 0, out.nBytesPerLine);
        for (int x = 0; x < 256 && ok; ++x) {
            const long s = long(x) * 256;
            const long want = s < 16384 ? 0 : s > 49152 ? 255 : (s - 16384) * 255 / 32768;
            ok = o[size_t(x)] == want;
        }
        rep.save("window-level-ramp.png", out);
        K_FreeBitmap(&out);
    }
    rep.check(ok, "window [16384, 49152]: black below, white above, the line between");
    RGBQUAD lut[256];
    rep.check(K_WindowLevelFillLUT(lut, 256, 0x0000FF, 0xFF0000, 64, 191, 0, 7, 0, 255, 0, 0x11) == KS_SUCCESS &&
                  lut[0].rgbRed == 255 && lut[255].rgbBlue == 255,
              "K_WindowLevelFillLUT: red to blue over [64, 191], edges repeated");
    BITMAPRECORD p8;
    K_CreateBitmap(&p8, BITMAPRECORD_SIZE, 1, 4, 4, 8, ORDER_RGB, nullptr, TOP_LEFT, nullptr, 0);
    uint8_t t[256];
    rep.check(K_SetPaintContrast(&p8, 1000) == KS_SUCCESS && K_GetPaintTable(&p8, t) == KS_SUCCESS && t[31] == 0 &&
                  t[165] == 255,
              "paint contrast 1000: entries below 32 black, from 165 white");
    K_FreeBitmap(&p8);
    K_FreeBitmap(&src);
    return rep.failures == 0;
}

bool demoPlay(cli::Report& rep, const BITMAPRECORD&) {
    int32_t w, h;
    std::vector<BITMAPRECORD> frames = sampleFrames(&w, &h);
    BITMAPRECORD target;
    K_CreateBitmap(&target, BITMAPRECORD_SIZE, 1, w, h, 24, ORDER_BGR, nullptr, BOTTOM_LEFT, nullptr, 0);
    HPLAYBACK pb = nullptr;
    rep.check(K_CreatePlayback(&pb, &target, nullptr) == KS_SUCCESS, "K_CreatePlayback");
    for (auto& f : frames) K_AppendPlayback(pb, &f);
    K_ValidatePlaybackLines(pb, 0, 0x7FFFFFFF);
    int drawn = 0;
    for (int i = 0; i < 1000; ++i) {
        int32_t st;
        K_ProcessPlayback(pb, &st);
        if (st == PLAYBACK_STATE_DELAY) ++drawn;
        if (st == PLAYBACK_STATE_WAITDELAY) K_CancelPlaybackWait(pb);
        if (st == PLAYBACK_STATE_END) break;
    }
    rep.check(drawn == int(frames.size()), "every frame drawn once per loop");
    // The last square was disposed of: the pixel under it shows the striped background again.
    std::vector<uint8_t> row(target.nBytesPerLine);
    K_GetBitmapRow(&target, row.data(), h - 1 - (4 + 7 * 3 + 8), target.nBytesPerLine);
    const size_t x = size_t(4 + 7 * 6 + 8);
    const uint8_t v = uint8_t((((4 + 7 * 6 + 8) / 8 + (4 + 7 * 3 + 8) / 8) & 1) ? 200 : 60);
    rep.check(row[x * 3] == v, "disposal 3 restored the stripes under the last square");
    K_DestroyPlayback(pb);
    K_FreeBitmap(&target);
    return rep.failures == 0;
}

cli::RegisterCommand regWindow({"window", "IN OUT LOW HIGH", "window-level a grey picture to 8 bits", runWindow,
                                {{"--curve", cli::Type::Choice, "C", "transfer curve", 0, 0, "linear|exp|log|sigmoid"},
                                 {"--factor", cli::Type::Int, "N", "curve factor", -2147483647.0, 2147483647.0},
                                 {"--invert", cli::Type::Flag, "", "invert the result"}},
                                4, 4, "  IN is a PGM; 16-bit samples are windowed to 8 bits."});
cli::RegisterCommand regPlay({"play", "OUT_PREFIX [FRAME...]", "compose an animation's frames and write each one",
                              runPlay,
                              {{"--delay", cli::Type::Int, "MS", "delay of each frame", 0, 4294967295.0},
                               {"--disposal", cli::Type::Int, "N", "disposal method of each frame", 0, 3},
                               {"--no-wait", cli::Type::Flag, "", "do not wait the frame delays"}},
                              1, -1,
                              "  Composes the frames (or a built-in animation) onto a target and writes each\n"
                              "  composed frame as OUT_PREFIX-NNN.ppm. Each page of a TIFF is a frame."});
cli::RegisterDemo demoRegWindow({"window level and paint tables", 80, demoWindow});
cli::RegisterDemo demoRegPlay({"animation playback", 81, demoPlay});

}  // namespace
