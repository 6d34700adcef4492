// combine_reference.h - a plain per-sample model of combining: pixels by index arithmetic, the plan from the operators
// evaluated on single bits.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "ombrix.h"
#include "storage_kinds.h"

namespace combinetest {

using storagetest::RefImage;

struct Format {
    int32_t bpp, order, highBit = -1;  // highBit (grey): significant bits - 1, -1 the whole sample
};

// One field of a pixel: where it sits in the raw pixel, its mask and its maximum value.
struct Field { uint32_t shift, mask, m; };

inline bool hasAlpha(const Format& f) { return (f.bpp == 32 && f.order != ORDER_GRAY) || f.bpp == 64; }

inline std::vector<Field> fieldsOf(const Format& f) {
    auto same = [](int n, uint32_t bits) {
        std::vector<Field> v;
        for (int i = 0; i < n; ++i) v.push_back(Field{uint32_t(i) * bits, (1u << bits) - 1, (1u << bits) - 1});
        return v;
    };
    const uint32_t mask = f.bpp < 32 ? (1u << f.bpp) - 1 : 0;
    if (f.bpp == 12 || (f.bpp == 16 && f.order == ORDER_GRAY))  // grey
        return {Field{0, mask, f.highBit >= 0 && f.highBit < f.bpp ? (1u << (f.highBit + 1)) - 1 : mask}};
    switch (f.bpp) {
        case 16:
            return f.order == ORDER_RGB565 ? std::vector<Field>{{0, 31, 31}, {5, 63, 63}, {11, 31, 31}} : same(3, 5);
        case 24: case 32: return same(f.bpp / 8, 8);
        case 48: case 64: return same(f.bpp / 16, 16);
        default: return same(1, uint32_t(f.bpp));
    }
}

// Raw pixel bits as one number (byte depths: little-endian bytes; 12 bits: the sample).
inline uint64_t rawPixel(const uint8_t* row, int32_t x, const Format& f) {
    if (f.bpp < 8 || f.bpp == 12) return storagetest::getPixel(row, x, f.bpp);
    uint64_t v = 0;
    for (int i = f.bpp / 8 - 1; i >= 0; --i) v = (v << 8) | row[size_t(x) * size_t(f.bpp / 8) + size_t(i)];
    return v;
}
inline void setRawPixel(uint8_t* row, int32_t x, const Format& f, uint64_t v) {
    if (f.bpp < 8 || f.bpp == 12) return storagetest::setPixel(row, x, f.bpp, v);
    for (int i = 0; i < f.bpp / 8; ++i) row[size_t(x) * size_t(f.bpp / 8) + size_t(i)] = uint8_t(v >> (8 * i));
}

// Samples of a raw pixel, in the order of fieldsOf, and back.
inline std::vector<uint32_t> samplesOf(uint64_t raw, const Format& f) {
    std::vector<uint32_t> s;
    for (const Field& fl : fieldsOf(f)) s.push_back(uint32_t((raw >> fl.shift) & fl.mask));
    return s;
}
inline uint64_t rawOf(const std::vector<uint32_t>& s, const Format& f) {
    const std::vector<Field> fl = fieldsOf(f);
    uint64_t v = 0;
    for (size_t i = 0; i < fl.size(); ++i) v |= uint64_t(s[i] & fl[i].mask) << fl[i].shift;
    return v;
}

// The reference plan: the truth table [s][d] of the operators on single bits.
struct Plan {
    bool truth[2][2], bitwise, readsSrc, readsDst, nothing;
    int op, sop, dop, rop;
};

inline bool analogue(int op, bool s, bool d) {
    switch (op) {
        case 0x0: case 0x6: case 0xA: return s && d;
        case 0x1: case 0x3: case 0x9: case 0xB: case 0xD: return s || d;
        case 0x2: return s != d;
        case 0x4: return d && !s;
        case 0x5: return s && !d;
        case 0x7: case 0xC: return d;
        default: return s;
    }
}
inline bool applyOperator(int oper, bool v) { return oper == 0 ? v : oper == 1 ? !v : oper == 3; }

inline bool validFlags(uint32_t flags) {
    return flags <= 0xFFFF && (flags & 0xF) <= 3 && ((flags >> 4) & 0xF) <= 3 && ((flags >> 8) & 0xF) <= 0xD &&
           (flags >> 12) <= 3;
}

inline Plan planOf(uint32_t flags, int32_t bpp) {
    Plan p{};
    p.sop = int(flags & 0xF), p.dop = int((flags >> 4) & 0xF), p.op = int((flags >> 8) & 0xF), p.rop = int(flags >> 12);
    for (int s = 0; s < 2; ++s)
        for (int d = 0; d < 2; ++d)
            p.truth[s][d] = applyOperator(p.rop, analogue(p.op, applyOperator(p.sop, s), applyOperator(p.dop, d)));
    const bool dependsS = p.truth[0][0] != p.truth[1][0] || p.truth[0][1] != p.truth[1][1];
    const bool dependsD = p.truth[0][0] != p.truth[0][1] || p.truth[1][0] != p.truth[1][1];
    const bool division = p.op == 7 || p.op == 8;
    p.bitwise = bpp == 1 || p.op <= 2;
    if (!dependsS && !dependsD) p.bitwise = true;
    else if (dependsS != dependsD && (p.bitwise || !division))
        p.bitwise = true, p.readsSrc = dependsS, p.readsDst = dependsD;
    else p.readsSrc = p.readsDst = true;
    p.nothing = p.bitwise && !dependsS && dependsD && !p.truth[0][0] && p.truth[0][1];
    return p;
}

inline uint32_t sampleOperand(int oper, uint32_t v, const Field& fl) {
    return oper == 1 ? v ^ fl.mask : oper == 2 ? 0 : oper == 3 ? fl.m : v;
}

inline uint32_t arithmetic(int op, uint32_t s, uint32_t d, uint32_t m) {
    switch (op) {
        case 0x3: return d + s > m ? m : d + s;
        case 0x4: return d >= s ? d - s : 0;
        case 0x5: return s >= d ? s - d : 0;
        case 0x6: return uint32_t(uint64_t(d) * s / m);
        case 0x7: if (s == 0) return m; return uint32_t(std::min<uint64_t>(m, uint64_t(d) * m / s));
        case 0x8: if (d == 0) return m; return uint32_t(std::min<uint64_t>(m, uint64_t(s) * m / d));
        case 0x9: return (d + s) / 2;
        case 0xA: return d < s ? d : s;
        case 0xB: return d > s ? d : s;
        default: return d;  // 0x0C00
    }
}

// The combined raw pixel.
inline uint64_t combinePixel(const Plan& p, uint64_t src, uint64_t dst, const Format& f) {
    if (p.bitwise) {
        uint64_t r = 0;
        for (int b = 0; b < f.bpp; ++b)
            if (p.truth[(src >> b) & 1][(dst >> b) & 1]) r |= uint64_t(1) << b;
        return r;
    }
    const std::vector<Field> fl = fieldsOf(f);
    std::vector<uint32_t> s = samplesOf(src, f), d = samplesOf(dst, f), r(fl.size());
    for (size_t i = 0; i < fl.size(); ++i)
        s[i] = sampleOperand(p.sop, s[i], fl[i]), d[i] = sampleOperand(p.dop, d[i], fl[i]);
    const uint64_t sa = hasAlpha(f) ? s[3] : 0, da = hasAlpha(f) ? d[3] : 0;
    if (p.op == 0xD && !hasAlpha(f)) {
        r = s;
    } else if (p.op == 0xD && f.bpp == 32) {
        const uint64_t w = (255 - sa) * da + sa * 255;
        for (int c = 0; c < 3; ++c) r[c] = w ? uint32_t((s[c] * sa * 255 + d[c] * (255 - sa) * da) / w) : 0;
        r[3] = d[3];
    } else if (p.op == 0xD) {
        const uint64_t a = da - da * sa / 65535 + sa, w = (65535 - sa) * da / 65535;
        for (int c = 0; c < 3; ++c) r[c] = a ? uint32_t((d[c] * w + s[c] * sa) / a) : 0;
        r[3] = d[3];
    } else {
        for (size_t i = 0; i < fl.size(); ++i) r[i] = arithmetic(p.op, s[i], d[i], fl[i].m);
    }
    for (size_t i = 0; i < fl.size(); ++i) r[i] = (p.rop == 1 ? r[i] ^ fl[i].mask : r[i]) & fl[i].mask;
    return rawOf(r, f);
}

// The destination expected (stored coordinates, top-left view): the reference inside the clipped rectangle.
inline RefImage expected(const RefImage& dst0, RefImage src, const Format& f, uint32_t flags, int32_t xd, int32_t yd,
                         int32_t w, int32_t h, int32_t xs, int32_t ys) {
    RefImage out = dst0;
    const Plan p = planOf(flags, f.bpp);
    for (int32_t j = 0; j < h && !p.nothing; ++j)
        for (int32_t i = 0; i < w; ++i) {
            const int32_t dx = xd + i, dy = yd + j, sx = xs + i, sy = ys + j;
            if (dx < 0 || dy < 0 || dx >= dst0.width || dy >= dst0.height) continue;
            if (p.readsSrc && (sx < 0 || sy < 0 || sx >= src.width || sy >= src.height)) continue;
            const uint64_t s = p.readsSrc ? rawPixel(src.row(sy), sx, f) : 0;
            const uint64_t d = rawPixel(out.row(dy), dx, f);
            setRawPixel(out.row(dy), dx, f, combinePixel(p, s, d, f));
        }
    return out;
}

}  // namespace combinetest
