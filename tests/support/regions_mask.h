// regions_mask.h - the boolean-mask oracle of the region tests: a window of pixels, one bool each; independent
// rasterisers for rectangles, polygons (exact test at pixel centres) and ellipses (the analytic equation); bridges to
// region handles (data painted pixel by pixel, regions imported by runs).
#pragma once

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "ombrix.h"

namespace rgntest {

struct Mask {
    int x0 = 0, y0 = 0, w = 0, h = 0;
    std::vector<uint8_t> px;

    Mask() = default;
    Mask(int x0_, int y0_, int w_, int h_) : x0(x0_), y0(y0_), w(w_), h(h_), px(size_t(w_) * size_t(h_), 0) {}
    Mask blank() const { return Mask(x0, y0, w, h); }
    bool inside(int x, int y) const { return x >= x0 && x < x0 + w && y >= y0 && y < y0 + h; }
    bool get(int x, int y) const { return inside(x, y) && px[size_t(y - y0) * size_t(w) + size_t(x - x0)]; }
    void set(int x, int y, bool v) { inside(x, y) && (px[size_t(y - y0) * size_t(w) + size_t(x - x0)] = v); }
    bool operator==(const Mask& o) const { return std::tie(x0, y0, w, h, px) == std::tie(o.x0, o.y0, o.w, o.h, o.px); }
    uint64_t count() const { return uint64_t(std::count(px.begin(), px.end(), uint8_t(1))); }
    RECT bounds() const {  // of the set pixels, all zero when none
        using std::min, std::max;
        RECT b{INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN};
        for (int y = y0; y < y0 + h; ++y)
            for (int x = x0; x < x0 + w; ++x)
                if (get(x, y)) b = {min(b.left, x), min(b.top, y), max(b.right, x + 1), max(b.bottom, y + 1)};
        return b.left == INT32_MAX ? RECT{0, 0, 0, 0} : b;
    }
    // NULLREGION, SIMPLEREGION (the set pixels fill their box) or COMPLEXREGION.
    int kind() const {
        const RECT b = bounds();
        const uint64_t n = count(), box = uint64_t(b.right - b.left) * uint64_t(b.bottom - b.top);
        return n == 0 ? NULLREGION : box == n ? SIMPLEREGION : COMPLEXREGION;
    }
    Mask combine(const Mask& o, int op) const {  // op: 0 and, 1 or, 2 xor, 3 this minus o, 4 o minus this
        Mask m = blank();
        for (size_t i = 0; i < px.size(); ++i) {
            const bool a = px[i], b = o.px[i];
            m.px[i] = op == 0 ? a && b : op == 1 ? a || b : op == 2 ? a != b : op == 3 ? a && !b : b && !a;
        }
        return m;
    }
    std::string describeDiff(const Mask& o) const {  // of masks over the same window
        const long i = std::mismatch(px.begin(), px.end(), o.px.begin(), o.px.end()).first - px.begin();
        return i == long(px.size()) ? "equal" : "first difference at (" + std::to_string(x0 + i % w) + ", " +
                                                    std::to_string(y0 + i / w) + "): " + std::to_string(px[i]);
    }
};

inline Mask rectMask(const Mask& win, const std::vector<RECT>& rs) {  // the union of the rectangles
    Mask m = win.blank();
    for (RECT r : rs)
        for (int y = std::min(r.top, r.bottom); y < std::max(r.top, r.bottom); ++y)
            for (int x = std::min(r.left, r.right); x < std::max(r.left, r.right); ++x) m.set(x, y, true);
    return m;
}

// Pixel centre (x + 1/2, y + 1/2) against every edge: counts the edges that cross the horizontal line through the
// centre strictly to its right (edges half-open in y, horizontal edges ignored). Exact integer arithmetic.
inline Mask polygonMask(const Mask& win, const std::vector<POINT>& pts, const std::vector<size_t>& figureStarts,
                        bool winding) {
    Mask m = win.blank();
    struct E { int64_t x0, y0, x1, y1; int dir; };
    std::vector<E> edges;
    for (size_t f = 0; f < figureStarts.size(); ++f) {
        size_t s = figureStarts[f], e = f + 1 < figureStarts.size() ? figureStarts[f + 1] : pts.size();
        if (e - s < 2) continue;
        for (size_t i = s; i < e; ++i) {
            POINT a = pts[i], b = pts[i + 1 < e ? i + 1 : s];
            if (a.y != b.y) edges.push_back(a.y < b.y ? E{a.x, a.y, b.x, b.y, 1} : E{b.x, b.y, a.x, a.y, -1});
        }
    }
    for (int y = win.y0; y < win.y0 + win.h; ++y)
        for (int x = win.x0; x < win.x0 + win.w; ++x) {
            int64_t py2 = 2 * int64_t(y) + 1, px2 = 2 * int64_t(x) + 1;  // doubled centre
            int wsum = 0, parity = 0;
            for (const E& e : edges) {
                if (!(2 * e.y0 <= py2 && py2 < 2 * e.y1)) continue;
                // crossing right of the centre: (x0 - px)(y1 - y0) + (py - y0)(x1 - x0) > 0, doubled
                if ((2 * e.x0 - px2) * (e.y1 - e.y0) + (py2 - 2 * e.y0) * (e.x1 - e.x0) > 0) wsum += e.dir, parity ^= 1;
            }
            m.set(x, y, winding ? wsum != 0 : parity != 0);
        }
    return m;
}

// +1 surely inside, -1 surely outside, 0 within `band` pixels of the outline.
inline int ellipseClass(RECT box, int x, int y, double band) {
    const double rx = std::abs(double(box.right) - box.left) / 2, ry = std::abs(double(box.bottom) - box.top) / 2;
    if (rx <= 0 || ry <= 0) return -1;
    const double dx = x + 0.5 - (double(box.left) + box.right) / 2, dy = y + 0.5 - (double(box.top) + box.bottom) / 2;
    // distance to the outline is about |f - 1| * radius along the ray
    double dist = (std::sqrt(dx * dx / (rx * rx) + dy * dy / (ry * ry)) - 1) * std::min(rx, ry);
    return dist < -band ? 1 : dist > band ? -1 : 0;
}

inline std::vector<uint8_t> regionData(HRGN h) {
    std::vector<uint8_t> buf(GetRegionData(h, 0, nullptr));
    if (!buf.empty()) GetRegionData(h, uint32_t(buf.size()), reinterpret_cast<RGNDATA*>(buf.data()));
    return buf;
}

// Paints the rectangles of the region's data block; *ok is false when it is malformed or leaves the window.
inline Mask maskOfHandle(const Mask& win, HRGN h, bool* ok) {
    Mask m = win.blank();
    const std::vector<uint8_t> buf = regionData(h);
    RGNDATAHEADER hd{};
    *ok = buf.size() >= 32;
    if (*ok) std::memcpy(&hd, buf.data(), sizeof hd);
    *ok = *ok && buf.size() >= 32 + 16ull * hd.nCount;
    for (uint32_t i = 0; *ok && i < hd.nCount; ++i) {
        RECT r;
        std::memcpy(&r, buf.data() + 32 + 16 * i, sizeof r);
        for (int y = r.top; y < r.bottom && *ok; ++y)
            for (int x = r.left; x < r.right && *ok; ++x) *ok = m.inside(x, y), m.set(x, y, true);
    }
    return m;
}

// A region imported from a rectangle list (the importer sorts and joins).
inline HRGN regionOfRects(const std::vector<RECT>& rs) {
    if (rs.empty()) return CreateRectRgn(0, 0, 0, 0);
    std::vector<uint8_t> blk(32 + 16 * rs.size());
    RGNDATAHEADER h{32, RDH_RECTANGLES, uint32_t(rs.size()), uint32_t(16 * rs.size()), RECT{0, 0, 0, 0}};
    std::memcpy(blk.data(), &h, 32);
    std::memcpy(blk.data() + 32, rs.data(), 16 * rs.size());
    return ExtCreateRegion(nullptr, uint32_t(blk.size()), reinterpret_cast<const RGNDATA*>(blk.data()));
}

// A region built from the mask's runs, one single-row rectangle per run.
inline HRGN regionOfMask(const Mask& m) {
    std::vector<RECT> rs;
    for (int y = m.y0; y < m.y0 + m.h; ++y)
        for (int x = m.x0, e; x < m.x0 + m.w; x = std::max(e, x + 1)) {
            for (e = x; e < m.x0 + m.w && m.get(e, y);) ++e;
            if (e > x) rs.push_back(RECT{x, y, e, y + 1});
        }
    return regionOfRects(rs);
}

}  // namespace rgntest
