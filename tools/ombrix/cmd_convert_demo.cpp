// cmd_convert_demo.cpp - demo section: the buffer converter and HSV on the
// sample, with self-checks (round trips that must be exact, documented
// values, a palette reduction compared with the nearest-colour rule).
#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"

namespace {

using Clock = std::chrono::steady_clock;

// The sample's pixels as one run of 24-bit BGR (row after row).
bool samplePixels(const BITMAPRECORD& sample, std::vector<uint8_t>& out) {
    BITMAPRECORD* s = const_cast<BITMAPRECORD*>(&sample);
    if (K_AccessBitmap(s) != KS_SUCCESS) return false;
    out.resize(size_t(sample.nWidth) * size_t(sample.nHeight) * 3);
    for (int32_t y = 0; y < sample.nHeight; ++y)
        std::memcpy(out.data() + size_t(y) * size_t(sample.nWidth) * 3, s->pData + size_t(y) * sample.nBytesPerLine,
                    size_t(sample.nWidth) * 3);
    K_ReleaseBitmap(s);
    return true;
}

// Converts `px` pixels a -> b -> a (whole run at once) and says whether the
// bytes came back.
bool roundTrip(const std::vector<uint8_t>& bgr, int32_t px, int32_t bits, int32_t order, double* ms) {
    std::vector<uint8_t> buf(K_CalcConvertSize(px, 24, px, bits));
    std::memcpy(buf.data(), bgr.data(), size_t(px) * 3);
    auto t0 = Clock::now();
    bool ok = K_ConvertBuffer(buf.data(), px, 24, bits, ORDER_BGR, order, nullptr, nullptr) == KS_SUCCESS &&
              K_ConvertBuffer(buf.data(), px, bits, 24, order, ORDER_BGR, nullptr, nullptr) == KS_SUCCESS;
    *ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    return ok && std::memcmp(buf.data(), bgr.data(), size_t(px) * 3) == 0;
}

std::string fmt(double v) {
    char b[32];
    std::snprintf(b, sizeof b, "%.2f", v);
    return b;
}

bool demoConvert(cli::Report& rep, const BITMAPRECORD& sample) {
    std::vector<uint8_t> bgr;
    if (!samplePixels(sample, bgr)) {
        rep.check(false, "access the sample");
        return false;
    }
    const int32_t px = sample.nWidth * sample.nHeight;
    rep.line("sample as one run of " + std::to_string(px) + " pixels, 24-bit BGR");

    // Exact round trips through wider formats.
    const struct {
        int32_t bits, order;
        const char* name;
    } wide[] = {{24, ORDER_RGB, "24-bit RGB"}, {32, ORDER_BGR, "32-bit BGRA"}, {32, ORDER_RGB, "32-bit RGBA"},
                {48, ORDER_RGB, "48-bit RGB"}, {64, ORDER_BGR, "64-bit BGRA"}};
    for (const auto& w : wide) {
        double ms = 0;
        const bool exact = roundTrip(bgr, px, w.bits, w.order, &ms);
        rep.check(exact, std::string("24 -> ") + w.name + " -> 24 is exact (both ways in " + fmt(ms * 1000) + " us)");
    }

    // 5-6-5 keeps the top bits; a second pass through it changes nothing.
    {
        std::vector<uint8_t> a(size_t(px) * 3);
        std::memcpy(a.data(), bgr.data(), a.size());
        bool ok = K_ConvertBuffer(a.data(), px, 24, 16, ORDER_BGR, ORDER_BGR565, nullptr, nullptr) == KS_SUCCESS &&
                  K_ConvertBuffer(a.data(), px, 16, 24, ORDER_BGR565, ORDER_BGR, nullptr, nullptr) == KS_SUCCESS;
        std::vector<uint8_t> b = a;
        ok = ok && K_ConvertBuffer(b.data(), px, 24, 16, ORDER_BGR, ORDER_BGR565, nullptr, nullptr) == KS_SUCCESS &&
             K_ConvertBuffer(b.data(), px, 16, 24, ORDER_BGR565, ORDER_BGR, nullptr, nullptr) == KS_SUCCESS;
        int worst = 0;
        for (size_t i = 0; i < a.size(); ++i) worst = std::max(worst, std::abs(int(a[i]) - int(bgr[i])));
        rep.check(ok && a == b && worst <= 7,
                  "24 -> 5-6-5 -> 24 differs by at most " + std::to_string(worst) + " and is stable on a second pass");
    }

    // Grey: the eighth-based rule, pixel by pixel.
    {
        std::vector<uint8_t> g(size_t(px) * 3);
        std::memcpy(g.data(), bgr.data(), g.size());
        bool ok = K_ConvertBuffer(g.data(), px, 24, 0, ORDER_BGR, ORDER_GRAY, nullptr, nullptr) == KS_SUCCESS;
        size_t bad = 0;
        for (int32_t i = 0; i < px; ++i) {
            const uint8_t* p = &bgr[size_t(i) * 3];
            bad += g[size_t(i)] != ((2 * p[2] + 5 * p[1] + p[0] + 4) >> 3);
        }
        rep.check(ok && bad == 0, "24 -> 8-bit grey follows (2R + 5G + B + 4) >> 3 on every pixel");
        // Into a 12-bit window of a 16-bit sample (bits 2..13) and back.
        std::vector<uint8_t> w(size_t(px) * 2);
        std::memcpy(w.data(), g.data(), size_t(px));
        ok = K_ConvertBufferExt(w.data(), px, 0, 16, ORDER_GRAY, ORDER_GRAY, nullptr, nullptr, CONVERT_DSTRANGE, 2, 13) ==
                 KS_SUCCESS &&
             K_ConvertBufferExt(w.data(), px, 16, 0, ORDER_GRAY, ORDER_GRAY, nullptr, nullptr, CONVERT_SRCRANGE, 2, 13) ==
                 KS_SUCCESS;
        rep.check(ok && std::memcmp(w.data(), g.data(), size_t(px)) == 0,
                  "grey -> 16-bit window 2..13 -> grey is exact");
    }

    // Palette reduction: the fixed 256-colour palette, against K_FindPaletteIndex.
    {
        std::vector<uint8_t> idx(size_t(px) * 3);
        std::memcpy(idx.data(), bgr.data(), idx.size());
        auto t0 = Clock::now();
        bool ok = K_ConvertBuffer(idx.data(), px, 24, 8, ORDER_BGR, ORDER_BGR, nullptr, nullptr) == KS_SUCCESS;
        double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
        const RGBQUAD* pal = K_IntGetFixedPalette(8);
        size_t bad = 0;
        for (int32_t i = 0; i < px; i += 7) {
            const uint8_t* p = &bgr[size_t(i) * 3];
            bad += idx[size_t(i)] != K_FindPaletteIndex(pal, 256, p[2], p[1], p[0]);
        }
        rep.check(ok && bad == 0, "24 -> 8-bit fixed palette picks the nearest entry (" + fmt(ms) + " ms)");
        // Back to colour and into 1 bit and 4 bits packed.
        std::vector<uint8_t> back(size_t(px) * 3);
        std::memcpy(back.data(), idx.data(), size_t(px));
        ok = K_ConvertBuffer(back.data(), px, 8, 24, ORDER_BGR, ORDER_BGR, nullptr, nullptr) == KS_SUCCESS;
        std::vector<uint8_t> again(back);
        ok = ok && K_ConvertBuffer(again.data(), px, 24, 8, ORDER_BGR, ORDER_BGR, nullptr, nullptr) == KS_SUCCESS;
        rep.check(ok && std::memcmp(again.data(), idx.data(), size_t(px)) == 0,
                  "indices -> colours -> indices is exact for the fixed palette");
        std::vector<uint8_t> four(back);
        ok = K_ConvertBuffer(four.data(), px, 24, 4, ORDER_BGR, ORDER_BGR, nullptr, nullptr) == KS_SUCCESS &&
             K_ConvertBuffer(four.data(), px, 4, 8, ORDER_BGR, ORDER_BGR, nullptr, nullptr) == KS_SUCCESS;
        std::vector<int> used(16, 0);
        for (int32_t i = 0; i < px; ++i) used[four[size_t(i)] & 15] = 1;
        int count = 0;
        for (int u : used) count += u;
        rep.check(ok, "24 -> 4-bit packed -> 8-bit: the sample uses " + std::to_string(count) + " of 16 colours");
    }

    // Transparency: the sample's first colour becomes transparent in 32 bits.
    {
        std::vector<uint8_t> t(size_t(px) * 4);
        std::memcpy(t.data(), bgr.data(), size_t(px) * 3);
        const uint32_t cr = uint32_t(bgr[2]) | (uint32_t(bgr[1]) << 8) | (uint32_t(bgr[0]) << 16);
        bool ok = K_ConvertBufferExt3(t.data(), px, 24, 32, ORDER_BGR, ORDER_BGR, nullptr, nullptr, nullptr, 0,
                                      CONVERT_TRANSPARENT, -1, -1, cr) == KS_SUCCESS;
        size_t clear = 0, wrong = 0;
        for (int32_t i = 0; i < px; ++i) {
            const uint8_t* p = &bgr[size_t(i) * 3];
            bool same = p[0] == bgr[0] && p[1] == bgr[1] && p[2] == bgr[2];
            uint8_t a = t[size_t(i) * 4 + 3];
            clear += a == 0;
            wrong += a != (same ? 0 : 255);
        }
        rep.check(ok && wrong == 0, "24 -> 32 with a transparent colour: " + std::to_string(clear) +
                                        " pixels get alpha 0, the rest 255");
    }

    // Wide primaries: order 5 and back stays within two steps; 32 bits answer -16.
    {
        std::vector<uint8_t> w(bgr);
        bool ok = K_ConvertBuffer(w.data(), px, 24, 24, ORDER_BGR, ORDER_BGRWIDE, nullptr, nullptr) == KS_SUCCESS &&
                  K_ConvertBuffer(w.data(), px, 24, 24, ORDER_BGRWIDE, ORDER_BGR, nullptr, nullptr) == KS_SUCCESS;
        int worst = 0;
        for (size_t i = 0; i < w.size(); ++i) worst = std::max(worst, std::abs(int(w[i]) - int(bgr[i])));
        rep.check(ok && worst <= 2, "BGR -> wide primaries -> BGR within " + std::to_string(worst) + " steps");
        uint8_t one[4] = {1, 2, 3, 0};
        rep.check(K_ConvertBuffer(one, 1, 24, 32, ORDER_BGR, ORDER_BGRWIDE, nullptr, nullptr) == KS_NOT_SUPPORTED,
                  "wide primaries exist at 24 and 48 bits only: a 32-bit target is refused (-16)");
    }

    // HSV: documented colours and a hue histogram of the sample.
    {
        bool ok = K_RGBtoHSV(0x0000FF) == 0xFFFF00 && (K_RGBtoHSV(0x00FF00) & 0xFF) == 85 &&
                  (K_RGBtoHSV(0xFF0000) & 0xFF) == 171 && K_HSVtoRGB(0xFFFF00) == 0x0000FF;
        rep.check(ok, "HSV: red, green, blue at hues 0, 85, 171; hue 0 back to red");
        int sectors[3] = {0, 0, 0};
        size_t sameValue = 0;
        for (int32_t i = 0; i < px; ++i) {
            const uint8_t* p = &bgr[size_t(i) * 3];
            uint32_t rgb = uint32_t(p[2]) | (uint32_t(p[1]) << 8) | (uint32_t(p[0]) << 16);
            uint32_t hsv = 0;
            K_RGBtoHSV2(rgb, &hsv);
            if ((hsv >> 8) & 0xFF) ++sectors[std::min(2, int(hsv & 0xFF) * 3 / 256)];
            uint32_t back = K_HSVtoRGB(hsv);
            int mx = std::max({p[0], p[1], p[2]});
            sameValue += std::max({back & 0xFF, (back >> 8) & 0xFF, back >> 16}) == uint32_t(mx);
        }
        rep.line("hue thirds of the coloured pixels (red-yellow, green-cyan, blue-magenta): " +
                 std::to_string(sectors[0]) + ", " + std::to_string(sectors[1]) + ", " + std::to_string(sectors[2]));
        rep.check(sameValue == size_t(px), "HSV -> RGB keeps every pixel's largest channel");
    }
    return true;
}

cli::RegisterDemo demo({"buffer conversion and HSV", 40, demoConvert});

}  // namespace
