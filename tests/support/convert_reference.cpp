// convert_reference.cpp - see convert_reference.h.
#include "convert_reference.h"

#include <algorithm>

#include "krn/common/palette.h"
#include "storage_kinds.h"

namespace convref {
namespace {

int depthBits(int d) { return d == 0 ? 8 : d; }

bool accepted(int d) {
    static const int ok[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};
    return std::find(std::begin(ok), std::end(ok), d) != std::end(ok);
}
bool known(int o) { return o == 0 || o == 1 || o == 2 || o == 5 || o == 7; }

// Whether a known order suits a depth as the source or (dst) the destination.
bool orderOk(int d, int o, bool dst) {
    if (d <= 8) return true;
    if (d == 12) return o == 2;
    if (d == 16) return dst || o != 5;  // a wide-primaries 16-bit destination is refused with -16, the run unchanged
    if (d == 32) return o != 7 && (dst || o != 5);
    return o == 0 || o == 1 || o == 5;  // 24, 48, 64
}

bool isGrey(int bits, int order) { return bits == 0 || (order == 2 && (bits == 12 || bits == 16 || bits == 32)); }
bool isGreySrc(const Request& r) { return isGrey(r.srcBits, r.srcOrder); }
bool isGreyDst(const Request& r) { return isGrey(r.dstBits, r.dstOrder); }
int srcSampleBits(const Request& r) {
    if (r.srcBits == 0) return 8;
    if (r.srcBits == 32 && r.extra) return 16;
    return r.srcBits;
}

struct Window { int lo, n; };

// Effective flags after the order rules and the full-sample drop.
uint32_t effectiveFlags(const Request& r) {
    uint32_t f = r.srcOrder == 2 ? r.flags | 0x01u : r.flags & ~0x05u;
    return r.dstOrder == 2 ? f | 0x02u : f & ~0x02u;
}

// Returns false when the window is not acceptable.
bool window(bool ranged, int lowBit, int highBit, int depth, Window& w) {
    if (!ranged) {
        w = {0, depth};
        return true;
    }
    int lo = lowBit < 0 ? 0 : lowBit;
    int hi = highBit < 0 ? depth - 1 : highBit;
    if (hi > depth - 1 || lo > hi) return false;
    int n = std::min(hi - lo + 1, depth);
    w = {hi - n + 1, n};
    return true;
}

bool rangeKept(uint32_t f, uint32_t bit, const Request& r, int depth) {
    return (f & bit) && !(r.lowBit <= 0 && (r.highBit == depth - 1 || r.highBit < 0));
}

uint32_t scale(uint64_t v, int from, int to) {
    if (from == to) return uint32_t(v);
    if (to < from) return uint32_t(v >> (from - to));
    return uint32_t(v * ((uint64_t(1) << to) - 1) / ((uint64_t(1) << from) - 1));
}

struct Pixel {
    bool grey = false;
    uint32_t value = 0;    // grey window value
    uint32_t rgb[3] = {};  // 16-bit samples, red, green, blue
    uint32_t alpha = 0xFFFF;
    int index = -1;
};

uint32_t le(const std::vector<uint8_t>& b, size_t at, int bytes) {
    uint32_t v = 0;
    for (int k = bytes - 1; k >= 0; --k) v = (v << 8) | b[at + size_t(k)];
    return v;
}
void putLe(std::vector<uint8_t>& b, size_t at, int bytes, uint32_t v) {
    for (int k = 0; k < bytes; ++k) b[at + size_t(k)] = uint8_t(v >> (8 * k));
}

// The caller's palette of a 1..8-bit side, else the fixed one.
std::vector<RGBQUAD> paletteOf(const RGBQUAD* given, int bits) {
    const RGBQUAD* p = given ? given : K_IntGetFixedPalette(bits);
    return std::vector<RGBQUAD>(p, p + (size_t(1) << bits));
}

int32_t inverseRow(int64_t a, int64_t b, int64_t c, int64_t ka, int64_t kb, int64_t kc, int64_t maxv) {
    int64_t v = (ka * a + kb * b + kc * c + 4095) / 8192;  // C++ division truncates toward zero
    return int32_t(std::clamp<int64_t>(v, 0, maxv));
}
// The inverse matrix on samples held in memory order (blue, green, red).
void inverse(uint32_t s[3], uint32_t maxv) {
    int64_t s0 = s[0], s1 = s[1], s2 = s[2];
    s[0] = uint32_t(inverseRow(s0, s1, s2, 9467, -1151, -125, maxv));
    s[1] = uint32_t(inverseRow(s0, s1, s2, -305, 10232, -1735, maxv));
    s[2] = uint32_t(inverseRow(s0, s1, s2, -2156, -6498, 16846, maxv));
}
void forward(uint32_t s[3], uint32_t maxv) {
    uint64_t s0 = s[0], s1 = s[1], s2 = s[2];
    s[0] = uint32_t(std::min<uint64_t>((7151 * s0 + 897 * s1 + 145 * s2 + 4095) >> 13, maxv));
    s[1] = uint32_t(std::min<uint64_t>((394 * s0 + 7067 * s1 + 731 * s2 + 4095) >> 13, maxv));
    s[2] = uint32_t(std::min<uint64_t>((1067 * s0 + 2841 * s1 + 4284 * s2 + 4095) >> 13, maxv));
}

}  // namespace

size_t srcRunBytes(const Request& r) { return (size_t(r.width) * size_t(depthBits(r.srcBits)) + 7) / 8; }
size_t dstRunBytes(const Request& r) { return (size_t(r.width) * size_t(depthBits(r.dstBits)) + 7) / 8; }

int expectedStatus(const Request& r) {
    if (r.width <= 0) return -13;
    if (!accepted(r.srcBits) || !accepted(r.dstBits) || !known(r.srcOrder) || !known(r.dstOrder)) return -13;
    uint32_t f = effectiveFlags(r);
    if ((f & 0x04u) && (f & 0x08u)) return -13;
    if ((f & 0x08u) && !(f & 0x02u)) return -13;
    if (!orderOk(r.srcBits, r.srcOrder, false) || !orderOk(r.dstBits, r.dstOrder, true)) return -13;
    Window w;
    if (isGreySrc(r) && !window(rangeKept(f, 0x04u, r, srcSampleBits(r)), r.lowBit, r.highBit, srcSampleBits(r), w))
        return -13;
    if (isGreyDst(r) &&
        !window(rangeKept(f, 0x08u, r, depthBits(r.dstBits)), r.lowBit, r.highBit, depthBits(r.dstBits), w))
        return -13;
    if (r.dstOrder == 5 && r.srcOrder != 5 && r.dstBits != 24 && r.dstBits != 48) return -16;
    return 1;
}

int treeAnswer(const RGBQUAD* pal, int n, int r, int g, int b) {
    std::vector<int> withBlue, withBG;
    for (int i = 0; i < n; ++i)
        if (pal[i].rgbBlue == b) withBlue.push_back(i);
    if (withBlue.size() <= 1) return withBlue.empty() ? -1 : withBlue[0];
    for (int i : withBlue)
        if (pal[i].rgbGreen == g) withBG.push_back(i);
    if (withBG.empty()) return -1;
    auto sameRed = [&](int i) { return pal[i].rgbRed == pal[withBG[0]].rgbRed; };
    if (std::all_of(withBG.begin(), withBG.end(), sameRed)) return withBG[0];
    for (int i : withBG)
        if (pal[i].rgbRed == r) return i;
    return -1;
}

std::vector<uint8_t> convert(const Request& r, const std::vector<uint8_t>& original) {
    const size_t w = size_t(r.width);
    const uint32_t f = effectiveFlags(r);
    std::vector<uint8_t> src = original;

    // ---- read every source pixel
    std::vector<Pixel> px(w);
    Window sw{0, 8};
    if (isGreySrc(r))
        window(rangeKept(f, 0x04u, r, srcSampleBits(r)), r.lowBit, r.highBit, srcSampleBits(r), sw);
    std::vector<RGBQUAD> spal;
    if (r.srcBits >= 1 && r.srcBits <= 8)
        spal = paletteOf(r.srcPal, r.srcBits);
    const bool undoWide = r.srcOrder == 5 && r.dstOrder != 5 && (r.srcBits == 24 || r.srcBits == 48 || r.srcBits == 64);
    // Source order as red-first (0) or blue-first (1, and 5 after the inverse).
    const int so = r.srcOrder == 5 ? 1 : r.srcOrder;
    for (size_t i = 0; i < w; ++i) {
        Pixel& p = px[i];
        if (r.srcBits >= 1 && r.srcBits <= 8) {
            p.index = int(storagetest::getPixel(src.data(), int32_t(i), r.srcBits));
            const RGBQUAD& e = spal[size_t(p.index)];
            p.rgb[0] = e.rgbRed * 257u, p.rgb[1] = e.rgbGreen * 257u, p.rgb[2] = e.rgbBlue * 257u;
        } else if (isGreySrc(r)) {
            uint64_t sample = r.srcBits == 0    ? src[i]
                              : r.srcBits == 12 ? storagetest::getPixel12(src.data(), int32_t(i))
                              : r.srcBits == 16 ? le(src, 2 * i, 2)
                                                : le(src, 4 * i, 4);
            p.grey = true;
            p.value = uint32_t((sample >> sw.lo) & ((uint64_t(1) << sw.n) - 1));
        } else if (r.srcBits == 16) {
            const uint32_t v = le(src, 2 * i, 2);
            auto five = [](uint32_t x) { return x * 8 + x / 4; };  // top bits repeated below
            uint32_t R = five((v >> 10) & 31), G = five((v >> 5) & 31), B = five(v & 31);  // blue first
            if (so == 0) std::swap(R, B);
            if (so == 7) R = five(v >> 11), G = ((v >> 5) & 63) * 4 + ((v >> 5) & 63) / 16;
            p.rgb[0] = R * 257, p.rgb[1] = G * 257, p.rgb[2] = B * 257;
        } else {
            const int bytes = r.srcBits / 8;
            const bool deep = r.srcBits >= 48;
            const int ss = deep ? 2 : 1;  // bytes per sample
            uint32_t s[3];
            for (int k = 0; k < 3; ++k) s[k] = le(src, i * size_t(bytes) + size_t(k * ss), ss);
            if (undoWide) inverse(s, deep ? 65535 : 255);
            uint32_t R = so == 0 ? s[0] : s[2], G = s[1], B = so == 0 ? s[2] : s[0];
            uint32_t widen = deep ? 1 : 257;
            p.rgb[0] = R * widen, p.rgb[1] = G * widen, p.rgb[2] = B * widen;
            if (r.srcBits == 32) p.alpha = src[i * 4 + 3] * 257u;
            if (r.srcBits == 64) p.alpha = le(src, i * 8 + 6, 2);
        }
    }

    // ---- write every destination pixel into a copy of the original bytes
    std::vector<uint8_t> out = original;
    if (undoWide) {
        // The inverse runs in place over the whole source run first.
        const int bytes = r.srcBits / 8, ss = r.srcBits >= 48 ? 2 : 1;
        for (size_t i = 0; i < w; ++i) {
            uint32_t s[3];
            for (int k = 0; k < 3; ++k) s[k] = le(out, i * size_t(bytes) + size_t(k * ss), ss);
            inverse(s, ss == 2 ? 65535 : 255);
            for (int k = 0; k < 3; ++k) putLe(out, i * size_t(bytes) + size_t(k * ss), ss, s[k]);
        }
    }
    Window dw{0, 8};
    if (isGreyDst(r))
        window(rangeKept(f, 0x08u, r, depthBits(r.dstBits)), r.lowBit, r.highBit, depthBits(r.dstBits), dw);
    std::vector<RGBQUAD> dpal;
    if (r.dstBits >= 1 && r.dstBits <= 8)
        dpal = paletteOf(r.dstPal, r.dstBits);
    const bool transparent = (r.flags & 0x80u) && (r.dstBits == 32 || r.dstBits == 64);
    const bool crIsIndex = (r.crTransparent >> 24) == 1;
    const int dOrder = r.dstOrder == 5 ? 1 : r.dstOrder;

    for (size_t i = 0; i < w; ++i) {
        const Pixel& p = px[i];
        // 8-bit colour of the pixel (grey sources: their grey brought to 8 bits).
        const uint32_t R8 = p.grey ? scale(p.value, sw.n, 8) : p.rgb[0] >> 8;
        const uint32_t G8 = p.grey ? R8 : p.rgb[1] >> 8, B8 = p.grey ? R8 : p.rgb[2] >> 8;
        if (isGreyDst(r)) {
            uint32_t g = p.grey ? scale(p.value, sw.n, dw.n) : scale((2 * R8 + 5 * G8 + B8 + 4) / 8, 8, dw.n);
            uint32_t v = g << dw.lo;
            if (r.dstBits == 0) out[i] = uint8_t(v);
            if (r.dstBits == 12) storagetest::setPixel(out.data(), int32_t(i), 12, v);
            if (r.dstBits == 16) putLe(out, 2 * i, 2, v);
            if (r.dstBits == 32) putLe(out, 4 * i, 4, v);
            continue;
        }
        if (r.dstBits >= 1 && r.dstBits <= 8) {
            int idx = -1;
            if (r.tree) idx = treeAnswer(dpal.data(), int(dpal.size()), int(R8), int(G8), int(B8));
            if (idx < 0) idx = krn::findPaletteIndexScalar(dpal.data(), int(dpal.size()), int(R8), int(G8), int(B8));
            storagetest::setPixel(out.data(), int32_t(i), r.dstBits, uint32_t(idx));
            continue;
        }
        const bool hit = transparent && (crIsIndex ? p.index >= 0 && p.index == int(r.crTransparent & 0xFF)
                                                   : (R8 | G8 << 8 | B8 << 16) == (r.crTransparent & 0xFFFFFF));
        if (r.dstBits == 16) {
            const uint32_t lo = dOrder == 0 ? R8 : B8, hi = dOrder == 0 ? B8 : R8;
            putLe(out, 2 * i, 2, dOrder == 7 ? (B8 / 8) | ((G8 / 4) << 5) | ((R8 / 8) << 11)
                                             : (lo / 8) | ((G8 / 8) << 5) | ((hi / 8) << 10));
            continue;
        }
        const bool deep = r.dstBits >= 48;
        const uint32_t grey16 = p.grey ? scale(p.value, sw.n, 16) : 0;
        const uint32_t R = !deep ? R8 : p.grey ? grey16 : p.rgb[0], G = !deep ? G8 : p.grey ? grey16 : p.rgb[1];
        const uint32_t B = !deep ? B8 : p.grey ? grey16 : p.rgb[2];
        uint32_t s[3] = {dOrder == 0 ? R : B, G, dOrder == 0 ? B : R};
        if (r.dstOrder == 5 && r.srcOrder != 5 && (r.dstBits == 24 || r.dstBits == 48)) forward(s, deep ? 65535 : 255);
        const int bytes = r.dstBits / 8, ss = deep ? 2 : 1;
        for (int k = 0; k < 3; ++k) putLe(out, i * size_t(bytes) + size_t(k * ss), ss, s[k]);
        if (r.dstBits == 32) out[i * 4 + 3] = hit ? 0 : uint8_t(p.alpha >> 8);
        if (r.dstBits == 64) putLe(out, i * 8 + 6, 2, hit ? 0 : p.alpha);
    }
    return out;
}

}  // namespace convref
