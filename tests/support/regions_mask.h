// regions_mask.h - the plain boolean-mask model used as the oracle of the
// region tests: a window of pixels, one bool each, and independent
// rasterisers for rectangles, polygons (exact cross-product test at pixel
// centres) and ellipses (the analytic equation).
#pragma once

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ombrix.h"

namespace rgntest {

struct Mask {
    int x0 = 0, y0 = 0, w = 0, h = 0;
    std::vector<uint8_t> px;

    Mask() = default;
    Mask(int x0_, int y0_, int w_, int h_) : x0(x0_), y0(y0_), w(w_), h(h_), px(size_t(w_) * size_t(h_), 0) {}

    bool inside(int x, int y) const { return x >= x0 && x < x0 + w && y >= y0 && y < y0 + h; }
    bool get(int x, int y) const { return inside(x, y) && px[size_t(y - y0) * size_t(w) + size_t(x - x0)]; }
    void set(int x, int y, bool v) {
        if (inside(x, y)) px[size_t(y - y0) * size_t(w) + size_t(x - x0)] = v;
    }
    bool operator==(const Mask& o) const {
        return x0 == o.x0 && y0 == o.y0 && w == o.w && h == o.h && px == o.px;
    }
    uint64_t count() const { return uint64_t(std::count(px.begin(), px.end(), uint8_t(1))); }
    // Bounds of the set pixels, all zero when none.
    RECT bounds() const {
        int l = INT32_MAX, t = INT32_MAX, r = INT32_MIN, b = INT32_MIN;
        for (int y = y0; y < y0 + h; ++y)
            for (int x = x0; x < x0 + w; ++x)
                if (get(x, y)) {
                    l = std::min(l, x);
                    r = std::max(r, x + 1);
                    t = std::min(t, y);
                    b = std::max(b, y + 1);
                }
        if (l == INT32_MAX) return RECT{0, 0, 0, 0};
        return RECT{l, t, r, b};
    }
    // True when the set pixels fill their bounding box exactly.
    bool isRectangle() const {
        RECT bb = bounds();
        return uint64_t(bb.right - bb.left) * uint64_t(bb.bottom - bb.top) == count() && count() > 0;
    }
    Mask combine(const Mask& o, int op) const {  // op: 0 and, 1 or, 2 xor, 3 this minus o, 4 o minus this
        Mask m(x0, y0, w, h);
        for (size_t i = 0; i < px.size(); ++i) {
            bool a = px[i], b = o.px[i], v = false;
            switch (op) {
                case 0: v = a && b; break;
                case 1: v = a || b; break;
                case 2: v = a != b; break;
                case 3: v = a && !b; break;
                case 4: v = b && !a; break;
            }
            m.px[i] = v;
        }
        return m;
    }
    std::string describeDiff(const Mask& o) const {
        for (int y = y0; y < y0 + h; ++y)
            for (int x = x0; x < x0 + w; ++x)
                if (get(x, y) != o.get(x, y))
                    return "first difference at (" + std::to_string(x) + ", " + std::to_string(y) + "): " +
                           std::to_string(get(x, y)) + " vs " + std::to_string(o.get(x, y));
        return "equal";
    }
};

inline Mask rectMask(const Mask& win, RECT r) {
    Mask m(win.x0, win.y0, win.w, win.h);
    if (r.left > r.right) std::swap(r.left, r.right);
    if (r.top > r.bottom) std::swap(r.top, r.bottom);
    for (int y = r.top; y < r.bottom; ++y)
        for (int x = r.left; x < r.right; ++x) m.set(x, y, true);
    return m;
}

// Pixel centre (x + 1/2, y + 1/2) against every edge: counts the edges that
// cross the horizontal line through the centre strictly to its right (edges
// half-open in y, horizontal edges ignored). Exact integer arithmetic.
inline Mask polygonMask(const Mask& win, const std::vector<POINT>& pts, const std::vector<size_t>& figureStarts,
                        bool winding) {
    Mask m(win.x0, win.y0, win.w, win.h);
    struct E {
        int64_t x0, y0, x1, y1;
        int dir;
    };
    std::vector<E> edges;
    for (size_t f = 0; f < figureStarts.size(); ++f) {
        size_t s = figureStarts[f], e = f + 1 < figureStarts.size() ? figureStarts[f + 1] : pts.size();
        if (e - s < 2) continue;
        for (size_t i = s; i < e; ++i) {
            POINT a = pts[i], b = pts[i + 1 < e ? i + 1 : s];
            if (a.y == b.y) continue;
            if (a.y < b.y)
                edges.push_back({a.x, a.y, b.x, b.y, 1});
            else
                edges.push_back({b.x, b.y, a.x, a.y, -1});
        }
    }
    for (int y = win.y0; y < win.y0 + win.h; ++y) {
        for (int x = win.x0; x < win.x0 + win.w; ++x) {
            int64_t py2 = 2 * int64_t(y) + 1, px2 = 2 * int64_t(x) + 1;  // doubled centre
            int wsum = 0, parity = 0;
            for (const E& e : edges) {
                if (!(2 * e.y0 <= py2 && py2 < 2 * e.y1)) continue;
                // crossing right of the centre: (x0 - px)(y1 - y0) + (py - y0)(x1 - x0) > 0, doubled
                int64_t s = (2 * e.x0 - px2) * (e.y1 - e.y0) + (py2 - 2 * e.y0) * (e.x1 - e.x0);
                if (s > 0) {
                    wsum += e.dir;
                    parity ^= 1;
                }
            }
            m.set(x, y, winding ? wsum != 0 : parity != 0);
        }
    }
    return m;
}

// +1 surely inside, -1 surely outside, 0 within `band` pixels of the outline.
inline int ellipseClass(RECT box, int x, int y, double band) {
    double l = box.left, t = box.top, r = box.right, b = box.bottom;
    if (l > r) std::swap(l, r);
    if (t > b) std::swap(t, b);
    double rx = (r - l) / 2, ry = (b - t) / 2;
    if (rx <= 0 || ry <= 0) return -1;
    double cx = (l + r) / 2, cy = (t + b) / 2;
    double dx = x + 0.5 - cx, dy = y + 0.5 - cy;
    double f = std::sqrt(dx * dx / (rx * rx) + dy * dy / (ry * ry));
    // distance to the outline is about |f - 1| * radius along the ray
    double dist = (f - 1) * std::min(rx, ry);
    if (dist < -band) return 1;
    if (dist > band) return -1;
    return 0;
}

// Paints the rectangles of a region-data block.
inline bool paintRegionData(Mask& m, const std::vector<uint8_t>& buf) {
    if (buf.size() < 32) return false;
    RGNDATAHEADER h;
    std::memcpy(&h, buf.data(), sizeof h);
    if (buf.size() < 32 + 16ull * h.nCount) return false;
    for (uint32_t i = 0; i < h.nCount; ++i) {
        RECT r;
        std::memcpy(&r, buf.data() + 32 + 16 * i, sizeof r);
        for (int y = r.top; y < r.bottom; ++y)
            for (int x = r.left; x < r.right; ++x) {
                if (!m.inside(x, y)) return false;
                m.set(x, y, true);
            }
    }
    return true;
}

inline std::vector<uint8_t> regionData(HRGN h) {
    uint32_t n = GetRegionData(h, 0, nullptr);
    std::vector<uint8_t> buf(n);
    if (n) GetRegionData(h, n, reinterpret_cast<RGNDATA*>(buf.data()));
    return buf;
}

inline Mask maskOfHandle(const Mask& win, HRGN h, bool* ok) {
    Mask m(win.x0, win.y0, win.w, win.h);
    *ok = paintRegionData(m, regionData(h));
    return m;
}

}  // namespace rgntest
