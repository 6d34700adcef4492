// region.h - the OrvaRgn engine (internal interface).
//
// Every function that makes a region fills a fresh OrvaRgn through the one
// row builder (rgn::Builder); combine (rgn::combine) runs every operation
// through one row loop specialised per operation at compile time. Functions return KS_ status
// codes and never throw; outputs are written only on success.
//
//   Builder                 row-by-row construction with exact final sizes
//   create/copy/destroy     region lifetime (the OrvaRgn block is zeroed)
//   adopt(dst, src)         moves src's rows into dst (in-place operations)
//   combine(a, b, op)       RGN_AND / RGN_OR / RGN_XOR / RGN_DIFF / RGN_COPY
//   fromRect, fromRects     rectangles (fromRects: any order, overlaps joined)
//   polygon, polygonD       scan conversion (integer exact / double)
//   ellipse                 four cubic arcs flattened in double precision
//   offset, clip, scale     in-place moves
//   flipRows, reverseCols,  mirror images; transpose swaps x and y
//   transpose, perspective
//   pointIn, area, kind     queries; kind: NULLREGION / SIMPLEREGION / COMPLEXREGION
//   regionData              GetRegionData's block
#pragma once

#include <cstddef>
#include <cstdint>

#include "ombrix.h"
#include "krn/common/memory.h"

namespace krn::rgn {

inline uint32_t rowCount(const OrvaRgn* r) noexcept { return r->uRowIndexSize / 8u; }
inline bool isEmpty(const OrvaRgn* r) noexcept { return r->uRunDataSize == 0; }
// x values of row y (absolute); n = 0 outside the region.
inline const int32_t* rowAt(const OrvaRgn* r, int64_t y, uint32_t* n) noexcept {
    int64_t i = y - r->rcBounds.top;
    if (r->uRunDataSize == 0 || i < 0 || i >= int64_t(rowCount(r))) {
        *n = 0;
        return nullptr;
    }
    const ORVARGNROW& e = r->pRowIndex[i];
    *n = e.uCount;
    return r->pRunData + e.uOffset / 4u;
}

class Builder {
public:
    Builder() noexcept = default;
    ~Builder();
    Builder(const Builder&) = delete;
    Builder& operator=(const Builder&) = delete;

    // Rows top <= y < bottom may be filled; expectValues reserves run data
    // (an upper bound when known: no growth is needed then).
    // `recycle` (optional): a region about to be replaced whose blocks are
    // taken over when the build starts (it is left empty then; untouched on failure).
    [[nodiscard]] int32_t start(int64_t top, int64_t bottom, size_t expectValues,
                                OrvaRgn* recycle = nullptr) noexcept;
    // Space for maxCount more x values of the current row; nullptr when out of memory.
    int32_t* rowSpace(uint32_t maxCount) noexcept;
    // Ends the current row holding `count` values written at rowSpace().
    void endRow(uint32_t count) noexcept;
    void skipRows(int64_t n) noexcept { cur_ += n; }
    int64_t currentRow() const noexcept { return cur_; }
    // The x values of the row ended last (valid until the next rowSpace).
    const int32_t* lastRow() const noexcept { return r_->pRunData + lastStart_; }
    // Appends a whole row (copy) and ends it.
    [[nodiscard]] bool putRow(const int32_t* xs, uint32_t count) noexcept;
    // Fills every remaining row in one loop that keeps the builder's state in
    // locals: rowFn(y, dst, prevRow, prevCount) writes row y at dst and
    // returns its count; prevRow/prevCount are the previous row's result.
    // Precondition: start() reserved an upper bound of all values (no growth).
    template <class F>
    void fillAll(F&& rowFn) noexcept {
        int32_t* const run = r_->pRunData;
        ORVARGNROW* const idx = r_->pRowIndex;
        size_t values = values_, lastStart = lastStart_;
        uint32_t used = rowsUsed_, lastCount = 0;
        bool started = started_;
        int64_t first = first_;
        int32_t left = left_, right = right_;
        for (int64_t y = cur_; y < bottom_; ++y) {
            int32_t* dst = run + values;
            const uint32_t n = rowFn(y, dst, run + lastStart, lastCount);
            if (n) {
                if (!started) {
                    started = true;
                    first = y;
                    left = dst[0];
                    right = dst[n - 1];
                } else {
                    left = dst[0] < left ? dst[0] : left;
                    right = dst[n - 1] > right ? dst[n - 1] : right;
                }
                const uint32_t i = uint32_t(y - first);
                for (uint32_t k = used; k < i; ++k) idx[k] = ORVARGNROW{0, uint32_t(values * 4u)};
                idx[i] = ORVARGNROW{n, uint32_t(values * 4u)};
                used = i + 1;
                lastStart = values;
                values += n;
            }
            lastCount = n;
        }
        cur_ = bottom_;
        values_ = values;
        lastStart_ = lastStart;
        rowsUsed_ = used;
        started_ = started;
        first_ = first;
        left_ = left;
        right_ = right;
    }
    // Direct access for an operation that writes every row itself after
    // start() reserved an upper bound: the run data, the row index, then
    // commit() with the first row that holds runs, the rows written from
    // there (the first and the last hold runs, offsets contiguous from 0; 0
    // rows for an empty result), the x values written and the exact left
    // and right bounds.
    int32_t* runData() noexcept { return r_->pRunData; }
    ORVARGNROW* rowIndex() noexcept { return r_->pRowIndex; }
    void commit(int64_t first, uint32_t rows, size_t values, int32_t left, int32_t right) noexcept {
        cur_ = bottom_;
        started_ = values > 0;
        first_ = first;
        rowsUsed_ = values > 0 ? rows : 0;
        values_ = values;
        lastStart_ = 0;
        left_ = left;
        right_ = right;
    }
    // Shrinks to exact sizes and hands the region out.
    [[nodiscard]] int32_t finish(OrvaRgn** out) noexcept;

private:
    OrvaRgn* r_ = nullptr;
    int64_t top_ = 0, bottom_ = 0, cur_ = 0;
    int64_t first_ = 0;         // first non-empty row
    bool started_ = false;      // a non-empty row has ended
    uint32_t rowsUsed_ = 0;     // index entries up to the last non-empty row
    size_t values_ = 0, capacity_ = 0;  // in x values
    size_t lastStart_ = 0;              // first value of the row ended last
    int32_t left_ = 0, right_ = 0;
};

int32_t create(OrvaRgn** out) noexcept;  // empty region
void destroy(OrvaRgn* r) noexcept;
int32_t copy(const OrvaRgn* src, OrvaRgn** out) noexcept;
// Moves src's rows, runs and bounds into dst, frees dst's old ones and the
// src block; dst's placement words stay and its cached handle is dropped.
void adopt(OrvaRgn* dst, OrvaRgn* src) noexcept;

// A region owned until released: destroyed on every way out otherwise.
struct Owned {
    OrvaRgn* r = nullptr;
    ~Owned() { destroy(r); }
    OrvaRgn* release() noexcept {
        OrvaRgn* t = r;
        r = nullptr;
        return t;
    }
};

// `recycle`: the region the result will replace (not a source), whose
// blocks may be reused; it stays intact when combine fails.
int32_t combine(const OrvaRgn* a, const OrvaRgn* b, int32_t op, OrvaRgn** out,
                OrvaRgn* recycle = nullptr) noexcept;
int32_t fromRect(const RECT& rc, OrvaRgn** out) noexcept;
int32_t fromRects(const RECT* rects, size_t n, OrvaRgn** out) noexcept;

struct PointD {
    double x, y;
};
// Figures given as consecutive points; starts[i] is the index of figure i's first point.
int32_t polygon(const POINT* pts, const uint8_t* flags, size_t n, bool winding, OrvaRgn** out) noexcept;
int32_t polygonD(const PointD* pts, const size_t* starts, size_t figures, size_t n, bool winding,
                 OrvaRgn** out) noexcept;
int32_t ellipse(const RECT& box, OrvaRgn** out) noexcept;
// Points of the flattened ellipse outline (for tests and drawing).
int32_t ellipseOutline(const RECT& box, kvector<PointD>& out) noexcept;

int32_t offset(OrvaRgn* r, int64_t dx, int64_t dy) noexcept;
int32_t clip(OrvaRgn* r, const RECT& rc) noexcept;
int32_t scale(OrvaRgn* r, int32_t xn, int32_t xd, int32_t yn, int32_t yd) noexcept;
// Pixel (x, y) -> (x, h - 1 - y).
int32_t flipRows(OrvaRgn* r, int64_t h) noexcept;
// Pixel (x, y) -> (w - 1 - x, y).
int32_t reverseCols(OrvaRgn* r, int64_t w) noexcept;
// Pixel (x, y) -> (y, x).
int32_t transpose(OrvaRgn* r) noexcept;
// Pixels of an image w x h seen in perspective `from` to perspective `to`
// (the same mapping as K_ChangePointViewPerspective).
int32_t perspective(OrvaRgn* r, int32_t from, int32_t to, int64_t w, int64_t h) noexcept;

bool pointIn(const OrvaRgn* r, int32_t x, int32_t y, int32_t* x1, int32_t* x2) noexcept;
uint64_t area(const OrvaRgn* r) noexcept;
bool isSimple(const OrvaRgn* r) noexcept;
int32_t kind(const OrvaRgn* r) noexcept;
// Bytes GetRegionData needs; writes the block when buf is not null.
uint32_t regionDataSize(const OrvaRgn* r) noexcept;
void writeRegionData(const OrvaRgn* r, RGNDATA* buf) noexcept;
// ExtCreateRegion's parser: -13 for a refused block.
int32_t fromRegionData(const XFORM* xform, uint32_t bytes, const RGNDATA* data, OrvaRgn** out) noexcept;
// Test hook: lowers the row limit below ORVARGN_MAX_ROWS (0 restores it), so
// fuzzing spends its time on variety rather than on legal giant regions.
void setRowLimit(int64_t rows) noexcept;
// Structural invariant check (tests, debug builds).
bool valid(const OrvaRgn* r) noexcept;

// Payload of a live region handle, else nullptr (errno 22).
OrvaRgn* handleRegion(HRGN h) noexcept;
// A new region handle owning r (nullptr: r is freed).
HRGN makeHandle(OrvaRgn* r) noexcept;

}  // namespace krn::rgn
