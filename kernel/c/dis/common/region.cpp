// region.cpp - the OrvaRgn engine: the row builder, the merges over sorted
// runs, rectangles, polygons, ellipses, moves and mirror images, and the
// kernel's exported region operations (K_CreateOrvaRgnRect ... K_SegmentsToRegion).
//
// Layout of a region (see ombrix.h): one zeroed OrvaRgn block, a row index of
// 8 bytes per row from the first to the last non-empty row, and run data of
// 4 bytes per x value. Nothing else is kept: the builder shrinks both arrays
// to their exact sizes when it finishes.
#include "region.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

#include "krn/common/kernel.h"
#include "krn/windowsemul/objects.h"

namespace krn::rgn {
namespace {

std::atomic<int64_t> g_maxRows{ORVARGN_MAX_ROWS};
inline int64_t maxRows() noexcept { return g_maxRows.load(std::memory_order_relaxed); }

bool fits32(int64_t v) noexcept { return v >= INT32_MIN && v <= INT32_MAX; }

int64_t floorDiv(int64_t a, int64_t b) noexcept {  // b > 0
    int64_t q = a / b;
    if ((a % b != 0) && (a < 0)) --q;
    return q;
}
int64_t ceilDiv(int64_t a, int64_t b) noexcept {  // b > 0
    int64_t q = a / b;
    if ((a % b != 0) && (a > 0)) ++q;
    return q;
}
__int128 ceilDiv128(__int128 a, __int128 b) noexcept {  // b > 0
    __int128 q = a / b;
    if ((a % b != 0) && (a > 0)) ++q;
    return q;
}

// ------------------------------------------------------------------ merge
// One merge for every combine, specialised per operation at compile time:
// mergeRow<Op> combines two rows (short cuts first, then the operation's run
// loop) and combineRows<Op> walks the rows. Inputs are sorted runs that
// neither overlap nor touch; so are the outputs (touching result runs are
// joined).
enum class Op { And, Or, Xor, Diff };

// Whether rows where only a (only b) has runs keep them.
template <Op O>
constexpr bool keepsA = O != Op::And;
template <Op O>
constexpr bool keepsB = O == Op::Or || O == Op::Xor;

inline void copyValues(int32_t* dst, const int32_t* src, uint32_t n) noexcept {
    if (n <= 8) {
        for (uint32_t i = 0; i < n; ++i) dst[i] = src[i];
    } else {
        std::memcpy(dst, src, n * sizeof(int32_t));
    }
}

inline bool sameRow(const int32_t* p, uint32_t np, const int32_t* q, uint32_t nq) noexcept {
    if (np != nq) return false;
    if (np == 0 || p == q) return true;
    // Rows that differ usually differ at an end: look there before the whole row.
    if (p[0] != q[0] || p[np - 1] != q[np - 1]) return false;
    return np <= 2 || std::memcmp(p + 1, q + 1, (np - 2) * sizeof(int32_t)) == 0;
}

// Number of runs from q (q < qe) whose end is at most x, found by doubling
// then halving: a long run of one row over many short runs of the other
// (a disc over a comb) costs a few steps and a copy instead of a loop.
inline uint32_t runsEndingBy(const int32_t* q, const int32_t* qe, int32_t x) noexcept {
    const uint32_t n = uint32_t(qe - q) / 2u;
    uint32_t lo = 0, hi = 1;  // runs [0, lo) end by x; run hi - 1 does not (or hi > n)
    while (hi <= n && q[2 * hi - 1] <= x) {
        lo = hi;
        hi *= 2;
    }
    if (hi > n) hi = n + 1;
    while (lo + 1 < hi) {
        const uint32_t mid = lo + (hi - lo) / 2;
        if (q[2 * mid - 1] <= x)
            lo = mid;
        else
            hi = mid;
    }
    return lo;
}

// The first run from run `from` on (of `runs` runs at xs) that starts at or
// right of x, by halving: the runs before it start left of x.
inline uint32_t firstRunFrom(const int32_t* xs, uint32_t from, uint32_t runs, int32_t x) noexcept {
    uint32_t lo = from, hi = runs;
    while (lo < hi) {
        const uint32_t mid = lo + (hi - lo) / 2;
        if (xs[2 * mid] < x)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

// Union of a single run [s, e) with a row of several runs that interleaves
// with it (a disc over a checkerboard): the row's runs that end before s and
// those that start after e are copied as they are, and the runs between
// (they overlap or touch [s, e)) join the single run. Both ends are found by
// halving, so the runs the single run covers are never read, and the runs
// outside it are copied as blocks instead of merged one by one.
inline uint32_t orOneRun(int32_t s, int32_t e, const int32_t* x, uint32_t n, int32_t* out) noexcept {
    const uint32_t i = s == INT32_MIN ? 0 : runsEndingBy(x, x + n, s - 1);
    const uint32_t j = e == INT32_MAX ? n / 2 : firstRunFrom(x, i, n / 2, e + 1);  // the first run after e
    copyValues(out, x, 2 * i);
    int32_t* o = out + 2 * i;
    o[0] = j > i ? std::min(s, x[2 * i]) : s;
    o[1] = j > i ? std::max(e, x[2 * j - 1]) : e;
    copyValues(o + 2, x + 2 * j, n - 2 * j);
    return 2 * i + 2 + (n - 2 * j);
}

// Union of rows whose runs interleave: a run is taken from the side with the
// smaller start and extends the current output run while it overlaps or
// touches it.
inline uint32_t orRuns(const int32_t* a, uint32_t na, const int32_t* b, uint32_t nb, int32_t* out) noexcept {
    const int32_t* const ae = a + na;
    const int32_t* const be = b + nb;
    int32_t* o = out;
    int32_t s, e;  // the output run being extended
    if (a[0] <= b[0]) {
        s = a[0];
        e = a[1];
        a += 2;
    } else {
        s = b[0];
        e = b[1];
        b += 2;
    }
    while (a != ae && b != be) {
        const int32_t* p;
        if (a[0] <= b[0]) {
            p = a;
            a += 2;
        } else {
            p = b;
            b += 2;
        }
        if (p[0] > e) {  // a gap: the run is complete
            o[0] = s;
            o[1] = e;
            o += 2;
            s = p[0];
            e = p[1];
        } else if (p[1] > e) {
            e = p[1];
        }
        // Four or more runs of one side inside the output run: skip them all
        // (fewer are cheaper one by one).
        if (b + 6 < be && b[7] <= e) b += 2 * runsEndingBy(b, be, e);
        if (a + 6 < ae && a[7] <= e) a += 2 * runsEndingBy(a, ae, e);
    }
    const int32_t* r = a != ae ? a : b;
    const int32_t* const re = a != ae ? ae : be;
    if (r + 6 < re && r[7] <= e) r += 2 * runsEndingBy(r, re, e);
    while (r != re && r[0] <= e) {
        if (r[1] > e) e = r[1];
        r += 2;
    }
    o[0] = s;
    o[1] = e;
    o += 2;
    if (r != re) {
        copyValues(o, r, uint32_t(re - r));
        o += re - r;
    }
    return uint32_t(o - out);
}

// Intersection: each pair of overlapping runs gives its common part; the run
// that ends first is replaced by its successor. The pair is stored
// unconditionally and kept when it is not empty (out has room: the result
// never holds more than na + nb - 2 values).
inline uint32_t andRuns(const int32_t* a, uint32_t na, const int32_t* b, uint32_t nb, int32_t* out) noexcept {
    const int32_t* const ae = a + na;
    const int32_t* const be = b + nb;
    int32_t* o = out;
    while (a != ae && b != be) {
        // Four or more runs of one side inside the current run of the other
        // are the intersection there: copied at once.
        if (b + 6 < be && ((b[0] >= a[0]) & (b[7] < a[1]))) {
            const uint32_t m = 2 * runsEndingBy(b, be, a[1] - 1);
            copyValues(o, b, m);
            o += m;
            b += m;
            continue;
        }
        if (a + 6 < ae && ((a[0] >= b[0]) & (a[7] < b[1]))) {
            const uint32_t m = 2 * runsEndingBy(a, ae, b[1] - 1);
            copyValues(o, a, m);
            o += m;
            a += m;
            continue;
        }
        const int32_t s = a[0] > b[0] ? a[0] : b[0];
        const int32_t a1 = a[1], b1 = b[1];
        const int32_t e = a1 < b1 ? a1 : b1;
        o[0] = s;
        o[1] = e;
        o += s < e ? 2 : 0;
        a += a1 <= b1 ? 2 : 0;
        b += b1 <= a1 ? 2 : 0;
    }
    return uint32_t(o - out);
}

// a minus b: each run of a is cut by the runs of b that overlap it.
inline uint32_t diffRuns(const int32_t* a, uint32_t na, const int32_t* b, uint32_t nb, int32_t* out) noexcept {
    const int32_t* const ae = a + na;
    const int32_t* const be = b + nb;
    int32_t* o = out;
    while (a != ae) {
        // Four or more runs of a covered by one run of b vanish at once.
        if (b != be && a + 6 < ae && ((b[0] <= a[0]) & (a[7] <= b[1]))) {
            a += 2 * runsEndingBy(a, ae, b[1]);
            if (a == ae) break;
        }
        int32_t s = a[0];
        const int32_t e = a[1];
        a += 2;
        while (b != be && b[1] <= s) b += 2;  // b runs wholly left of the run
        while (b != be && b[0] < e) {         // b runs that cut it
            if (b + 6 < be && ((b[0] > s) & (b[7] < e))) {
                // Four or more runs of b inside: the gaps between them remain.
                const uint32_t m = 2 * runsEndingBy(b, be, e - 1);
                o[0] = s;
                copyValues(o + 1, b, m - 1);
                o += m;
                s = b[m - 1];
                b += m;
                continue;
            }
            if (b[0] > s) {
                o[0] = s;
                o[1] = b[0];
                o += 2;
            }
            if (b[1] >= e) {  // covers the rest (and may cut the next run too)
                s = e;
                break;
            }
            s = b[1];
            b += 2;
        }
        if (s < e) {
            o[0] = s;
            o[1] = e;
            o += 2;
        }
        if (b == be) {
            copyValues(o, a, uint32_t(ae - a));
            o += ae - a;
            break;
        }
    }
    return uint32_t(o - out);
}

// Intersection of long rows: the branch-free merge waits on each load that
// decides its next step. Both rows are therefore cut at the start p of a's
// middle run into a left and a right pair of halves (b's run across p, if
// any, goes into both; the results left and right of p never touch) and the
// two pairs are merged in one interleaved loop: two independent chains of
// loads. Used for rows of at least kSplitMin values each. (Union's
// run-by-run loop gained nothing from the same cut on this machine.)
constexpr uint32_t kSplitMin = 32;
// Room the merge needs beyond na + nb values (the right half is written
// after the left half's bound before it is moved down).
constexpr uint32_t kMergeSlack = 4;

struct Halves {
    uint32_t ia, jbHi, jbLo;  // a: [0, ia) | [ia, na); b: [0, jbHi) | [jbLo, nb)
};
inline Halves splitRows(const int32_t* a, uint32_t na, const int32_t* b, uint32_t nb) noexcept {
    Halves h;
    h.ia = (na / 2) & ~1u;
    const int32_t p = a[h.ia];
    const uint32_t lo = firstRunFrom(b, 0, nb / 2, p);  // the first run of b starting at or after p
    h.jbHi = 2 * lo;
    h.jbLo = (lo > 0 && b[2 * lo - 1] > p) ? 2 * lo - 2 : 2 * lo;  // the run across p is in both
    return h;
}

struct AndChain {
    const int32_t *a, *ae, *b, *be;
    int32_t* o;
    void step() noexcept {
        const int32_t a0 = a[0], b0 = b[0], a1 = a[1], b1 = b[1];
        const int32_t s = a0 > b0 ? a0 : b0;
        const int32_t e = a1 < b1 ? a1 : b1;
        o[0] = s;
        o[1] = e;
        o += 2u & (0u - uint32_t(s < e));
        // Masks rather than conditions: the compiler keeps them branch-free.
        const uintptr_t wa = uintptr_t(0) - uintptr_t(a1 <= b1), wb = uintptr_t(0) - uintptr_t(b1 <= a1);
        a = reinterpret_cast<const int32_t*>(reinterpret_cast<uintptr_t>(a) + (8u & wa));
        b = reinterpret_cast<const int32_t*>(reinterpret_cast<uintptr_t>(b) + (8u & wb));
    }
    size_t safe() const noexcept {
        const size_t na = size_t(ae - a), nb = size_t(be - b);
        return (na < nb ? na : nb) / 2;
    }
};

// Runs two chains interleaved (two independent chains of loads) in counted
// stretches: a step consumes at least one run of a side, so min(runs left
// of a, runs left of b) steps need no test of the ends.
template <class C>
inline void runChains(C& l, C& r) noexcept {
    for (;;) {
        const size_t nl = l.safe(), nr = r.safe();
        const size_t n = nl < nr ? nl : nr;
        if (n == 0) break;
        for (size_t k = 0; k < n; ++k) {
            l.step();
            r.step();
        }
    }
    for (size_t n; (n = l.safe()) > 0;)
        for (size_t k = 0; k < n; ++k) l.step();
    for (size_t n; (n = r.safe()) > 0;)
        for (size_t k = 0; k < n; ++k) r.step();
}

inline uint32_t andSplit(const int32_t* a, uint32_t na, const int32_t* b, uint32_t nb, int32_t* out) noexcept {
    const Halves h = splitRows(a, na, b, nb);
    int32_t* const right = out + h.ia + h.jbHi;  // after the left result's bound
    AndChain l{a, a + h.ia, b, b + h.jbHi, out}, r{a + h.ia, a + na, b + h.jbLo, b + nb, right};
    runChains(l, r);
    const uint32_t nl = uint32_t(l.o - out), nr = uint32_t(r.o - right);
    std::memmove(out + nl, right, nr * sizeof(int32_t));
    return nl + nr;
}

// Union of long rows in the same two halves (b's run across p in both). A
// chain takes the run with the smaller start by a conditional move and
// extends or closes the current output run without a branch; the left
// result ends at most where the right one's first run ends (the run across
// p is in both, and a's left runs end before p), so the halves are joined by
// merging at most that one run.
struct OrChain {
    const int32_t *a, *ae, *b, *be;
    int32_t* o;
    int32_t s, e;  // the output run being extended
    void begin() noexcept {  // a != ae
        const bool ta = b == be || a[0] <= b[0];
        const int32_t* p = ta ? a : b;
        s = p[0];
        e = p[1];
        a += ta ? 2 : 0;
        b += ta ? 0 : 2;
    }
    void step() noexcept {
        // Values are selected, pointers advanced by arithmetic: no branch.
        const int32_t a0 = a[0], a1 = a[1], b0 = b[0], b1 = b[1];
        const bool ta = a0 <= b0;  // a's run comes first
        const int32_t p0 = ta ? a0 : b0, p1 = ta ? a1 : b1;
        a += 2 * int(ta);
        b += 2 - 2 * int(ta);
        const bool gap = p0 > e;
        o[0] = s;
        o[1] = e;
        o += 2 * int(gap);
        s = gap ? p0 : s;
        e = p1 > e ? p1 : e;  // after a gap p1 > p0 > e
    }
    // Steps that may run without testing the ends: each consumes a run.
    size_t safe() const noexcept {
        const size_t na = size_t(ae - a), nb = size_t(be - b);
        return (na < nb ? na : nb) / 2;
    }
    // The side left over: its runs that reach the current run extend it,
    // the others are copied. Returns the values written from `start`.
    uint32_t end(int32_t* start) noexcept {
        const int32_t* r = a != ae ? a : b;
        const int32_t* const re = a != ae ? ae : be;
        while (r != re && r[0] <= e) {
            e = r[1] > e ? r[1] : e;
            r += 2;
        }
        o[0] = s;
        o[1] = e;
        o += 2;
        copyValues(o, r, uint32_t(re - r));
        o += re - r;
        return uint32_t(o - start);
    }
};

inline uint32_t orSplit(const int32_t* a, uint32_t na, const int32_t* b, uint32_t nb, int32_t* out) noexcept {
    const Halves h = splitRows(a, na, b, nb);
    int32_t* const right = out + h.ia + h.jbHi;
    OrChain l{a, a + h.ia, b, b + h.jbHi, out, 0, 0}, r{a + h.ia, a + na, b + h.jbLo, b + nb, right, 0, 0};
    l.begin();
    r.begin();
    runChains(l, r);
    uint32_t nl = l.end(out), nr = r.end(right);
    const int32_t* rs = right;
    if (right[0] <= out[nl - 1]) {  // the halves overlap or touch: join one run
        out[nl - 1] = right[1] > out[nl - 1] ? right[1] : out[nl - 1];
        rs += 2;
        nr -= 2;
    }
    std::memmove(out + nl, rs, nr * sizeof(int32_t));
    return nl + nr;
}

// Difference of long rows as an intersection: a minus b is a's part left of
// b's first run, a intersected with b's gaps (the runs b[1..nb-1) seen from
// b + 1), and a's part right of b's last run; the middle goes through the
// split intersection. Only a's runs that end right of b's first run enter
// the middle (at most one of them also gave the left part), which keeps the
// split's bound within na + nb + kMergeSlack.
inline uint32_t clipRow(const int32_t* xs, uint32_t n, int32_t l, int32_t r, int32_t* out) noexcept;
inline uint32_t diffSplit(const int32_t* a, uint32_t na, const int32_t* b, uint32_t nb, int32_t* out) noexcept {
    int32_t* o = out;
    o += clipRow(a, na, INT32_MIN, b[0], o);
    if (nb > 2) {
        const uint32_t i = 2 * runsEndingBy(a, a + na, b[1]);
        const uint32_t m = na - i;
        if (m >= 2) o += m >= kSplitMin && nb - 2 >= kSplitMin ? andSplit(a + i, m, b + 1, nb - 2, o)
                                                                 : andRuns(a + i, m, b + 1, nb - 2, o);
    }
    o += clipRow(a, na, b[nb - 1], INT32_MAX, o);
    return uint32_t(o - out);
}

// The runs of a row inside [l, r) (l < r): the first run that ends right of
// l and the first that starts at or right of r are found by halving, the
// runs between are copied and the two end runs cut.
inline uint32_t clipRow(const int32_t* xs, uint32_t n, int32_t l, int32_t r, int32_t* out) noexcept {
    const uint32_t i = runsEndingBy(xs, xs + n, l);
    const uint32_t lo = firstRunFrom(xs, i, n / 2, r);
    const uint32_t m = 2 * (lo - i);
    if (m == 0) return 0;
    copyValues(out, xs + 2 * i, m);
    out[0] = std::max(out[0], l);
    out[m - 1] = std::min(out[m - 1], r);
    return m;
}

// XOR works on the x values themselves: a pixel is in the result when an odd
// number of the x values of both rows lie at or left of it, so the result's x
// values are those of either row that the other does not also hold (touching
// runs join because their shared x value cancels).
inline uint32_t xorEdges(const int32_t* a, uint32_t na, const int32_t* b, uint32_t nb, int32_t* out) noexcept {
    const int32_t* const ae = a + na;
    const int32_t* const be = b + nb;
    int32_t* o = out;
    while (a != ae && b != be) {
        const int32_t xa = *a, xb = *b;
        *o = xa < xb ? xa : xb;
        o += xa != xb;
        a += xa <= xb;
        b += xb <= xa;
    }
    copyValues(o, a, uint32_t(ae - a));
    o += ae - a;
    copyValues(o, b, uint32_t(be - b));
    o += be - b;
    return uint32_t(o - out);
}

// Two rows of one run each (the rows of discs, ellipses and rectangles), for
// intersection, union and difference, with no more branches than union's
// test for a gap; out has room for 4 values. first and last receive the
// result's first and last x values when it is not empty (from registers:
// reading them back from out would wait for the stores).
template <Op O>
inline uint32_t pairRow(const int32_t* a, const int32_t* b, int32_t* out, int32_t& first, int32_t& last) noexcept {
    const int32_t a0 = a[0], a1 = a[1], b0 = b[0], b1 = b[1];
    if constexpr (O == Op::And) {
        const int32_t s = a0 > b0 ? a0 : b0, e = a1 < b1 ? a1 : b1;
        out[0] = s;
        out[1] = e;
        first = s;
        last = e;
        return s < e ? 2 : 0;
    } else if constexpr (O == Op::Or) {
        if (a1 < b0 || b1 < a0) {  // apart: both, in order
            const bool aFirst = a0 < b0;
            out[0] = aFirst ? a0 : b0;
            out[1] = aFirst ? a1 : b1;
            out[2] = aFirst ? b0 : a0;
            out[3] = aFirst ? b1 : a1;
            return 4;
        }
        out[0] = a0 < b0 ? a0 : b0;
        out[1] = a1 > b1 ? a1 : b1;
        return 2;
    } else if constexpr (O == Op::Xor) {
        // The four x values in order are v0 <= v1 <= v2 <= v3 (the two runs
        // apart, overlapping or nested); the result is [v0, v1) and [v2, v3),
        // each kept when not empty, joined when they touch (then both are).
        const int32_t hi0 = a0 > b0 ? a0 : b0, lo1 = a1 < b1 ? a1 : b1;
        const int32_t v0 = a0 < b0 ? a0 : b0, v1 = hi0 < lo1 ? hi0 : lo1, v2 = hi0 < lo1 ? lo1 : hi0,
                      v3 = a1 > b1 ? a1 : b1;
        first = v0 < v1 ? v0 : v2;
        last = v2 < v3 ? v3 : v1;
        if (v1 == v2) {
            out[0] = v0;
            out[1] = v3;
            return 2;
        }
        int32_t* o = out;
        o[0] = v0;
        o[1] = v1;
        o += 2 * int(v0 < v1);
        o[0] = v2;
        o[1] = v3;
        o += 2 * int(v2 < v3);
        return uint32_t(o - out);
    } else {
        // [a0, min(b0, a1)) and [max(b1, a0), a1), each kept when not empty
        // (b left of, right of, inside or over a all come out right).
        const int32_t m1 = b0 < a1 ? b0 : a1, m2 = b1 > a0 ? b1 : a0;
        first = m1 > a0 ? a0 : m2;
        last = m2 < a1 ? a1 : m1;
        int32_t* o = out;
        o[0] = a0;
        o[1] = m1;
        o += 2 * int(m1 > a0);
        o[0] = m2;
        o[1] = a1;
        o += 2 * int(m2 < a1);
        return uint32_t(o - out);
    }
}

// A stretch of rows from k on where both sources hold one run per row, in
// a loop of its own (few live values, no spills); returns the row after it.
struct PairSpan {
    const ORVARGNROW *ea, *eb;
    const int32_t *runA, *runB;
    int32_t* run;
    ORVARGNROW* rowOut;
};
template <Op O, bool Bounds>
__attribute__((noinline)) uint32_t pairRows(const PairSpan& p, uint32_t k, uint32_t rows, size_t& valuesRef,
                                            int32_t& leftRef, int32_t& rightRef) noexcept {
    size_t values = valuesRef;
    int32_t left = leftRef, right = rightRef;
    // In locals: the stores below would otherwise make the compiler reload them.
    const ORVARGNROW *const ea = p.ea, *const eb = p.eb;
    const int32_t *const runA = p.runA, *const runB = p.runB;
    int32_t* const run = p.run;
    ORVARGNROW* const rowOut = p.rowOut;
    // Offsets are multiples of 4 bytes: added to byte pointers, they need no
    // shifts back and forth.
    const auto at = [](const int32_t* base, uint32_t offset) {
        return reinterpret_cast<const int32_t*>(reinterpret_cast<const char*>(base) + offset);
    };
    for (; k < rows; ++k) {
        const ORVARGNROW ra = ea[k], rb = eb[k];
        if ((ra.uCount != 2) | (rb.uCount != 2)) break;
        int32_t first = 0, last = 0;
        const uint32_t n = pairRow<O>(at(runA, ra.uOffset), at(runB, rb.uOffset), run + values, first, last);
        if constexpr (Bounds) {
            left = n && first < left ? first : left;
            right = n && last > right ? last : right;
        }
        rowOut[k] = ORVARGNROW{n, uint32_t(values * 4u)};
        values += n;
    }
    valuesRef = values;
    leftRef = left;
    rightRef = right;
    return k;
}

// Whether a row of at least 8 x values starts with four runs of one length
// at one spacing (hatches, grids, checkerboards). Two such rows interleave in
// a pattern the branch predictor learns, and the run loops with branches
// beat the branch-free split chains there (which wait on their loads);
// other long rows go through the split chains.
inline bool periodic(const int32_t* x) noexcept {
    const int64_t d = int64_t(x[2]) - x[0], w = int64_t(x[1]) - x[0];
    for (int k = 1; k < 4; ++k)
        if (int64_t(x[2 * k]) - x[2 * k - 2] != d || int64_t(x[2 * k + 1]) - x[2 * k] != w) return false;
    return true;
}

// Row y of the result from row y of a and of b; out has room for na + nb +
// kMergeSlack values.
template <Op O>
inline uint32_t mergeRow(const int32_t* a, uint32_t na, const int32_t* b, uint32_t nb, int32_t* out) noexcept {
    if (nb == 0 || na == 0) {
        const bool keep = nb == 0 ? keepsA<O> : keepsB<O>;
        const uint32_t n = keep ? na + nb : 0;
        copyValues(out, nb == 0 ? a : b, n);
        return n;
    }
    // Long rows: both asked for before the merge starts. Its next load waits
    // on a compare, so a line not at hand stalls it, while these requests go
    // out together (text masks, 4000 x 3000: intersection 2,000 -> 1,660 µs).
    if (na + nb >= 64) {
        prefetchLines(a, size_t(na) * 4);
        prefetchLines(b, size_t(nb) * 4);
    }
    // Rows whose runs do not interleave (for union and XOR: nor touch).
    constexpr bool joinTouching = O == Op::Or || O == Op::Xor;
    const bool aLeft = joinTouching ? a[na - 1] < b[0] : a[na - 1] <= b[0];
    const bool bLeft = joinTouching ? b[nb - 1] < a[0] : b[nb - 1] <= a[0];
    if (aLeft || bLeft) {
        if constexpr (O == Op::And) {
            return 0;
        } else if constexpr (O == Op::Diff) {
            copyValues(out, a, na);
            return na;
        } else {
            const int32_t* first = aLeft ? a : b;
            const int32_t* second = aLeft ? b : a;
            const uint32_t nf = aLeft ? na : nb, ns = aLeft ? nb : na;
            copyValues(out, first, nf);
            copyValues(out + nf, second, ns);
            return na + nb;
        }
    }
    if (na == 2 && nb == 2) {  // two single runs that overlap (or touch)
        const int32_t a0 = a[0], a1 = a[1], b0 = b[0], b1 = b[1];
        if constexpr (O == Op::And) {
            out[0] = a0 > b0 ? a0 : b0;
            out[1] = a1 < b1 ? a1 : b1;
            return out[0] < out[1] ? 2 : 0;
        } else if constexpr (O == Op::Or) {
            out[0] = a0 < b0 ? a0 : b0;
            out[1] = a1 > b1 ? a1 : b1;
            return 2;
        } else if constexpr (O == Op::Diff) {
            uint32_t n = 0;
            if (b0 > a0) {
                out[0] = a0;
                out[1] = b0;
                n = 2;
            }
            if (b1 < a1) {
                out[n] = b1;
                out[n + 1] = a1;
                n += 2;
            }
            return n;
        }
    }
    const bool split = na >= kSplitMin && nb >= kSplitMin && !(periodic(a) && periodic(b));
    if constexpr (O == Op::And) return split ? andSplit(a, na, b, nb, out) : andRuns(a, na, b, nb, out);
    if constexpr (O == Op::Or) {
        if (na == 2) return orOneRun(a[0], a[1], b, nb, out);
        if (nb == 2) return orOneRun(b[0], b[1], a, na, out);
        return split ? orSplit(a, na, b, nb, out) : orRuns(a, na, b, nb, out);
    }
    if constexpr (O == Op::Diff) return split ? diffSplit(a, na, b, nb, out) : diffRuns(a, na, b, nb, out);
    return xorEdges(a, na, b, nb, out);
}

// Appends rows [i0, i1) of r's row index and their run data at run + values
// (the run data of consecutive rows is contiguous) and widens [left, right)
// by their runs unless the caller knows the bounds already.
template <bool Bounds>
inline size_t copyRows(const OrvaRgn* r, uint32_t i0, uint32_t i1, ORVARGNROW* idx, int32_t* run, size_t values,
                       int32_t& left, int32_t& right) noexcept {
    const ORVARGNROW* e = r->pRowIndex;
    const uint32_t from = e[i0].uOffset;
    const uint32_t to = e[i1 - 1].uOffset + 4u * e[i1 - 1].uCount;
    std::memcpy(run + values, r->pRunData + from / 4u, to - from);
    const uint32_t shift = uint32_t(values * 4u) - from;  // modulo 2^32, exact for results
    for (uint32_t i = i0; i < i1; ++i) {
        const ORVARGNROW row = e[i];
        *idx++ = ORVARGNROW{row.uCount, row.uOffset + shift};
        if constexpr (Bounds) {
            if (row.uCount) {
                const int32_t* xs = r->pRunData + row.uOffset / 4u;
                left = std::min(left, xs[0]);
                right = std::max(right, xs[row.uCount - 1]);
            }
        }
    }
    return values + (to - from) / 4u;
}

// Rows below this many x values (both sources together) are merged even when
// they repeat the previous row: comparing them costs as much as merging. So
// does a union of a row with a single run (a disc over a comb): the merge
// finds the run's ends by halving and reads only the runs outside it, where
// the comparison would read the whole row.
constexpr uint32_t kRepeatCheckMin = 8;

// The last rows of a band that were merged (not copied), by their index in
// the band: a pair of source rows seen a few rows ago (a pattern that repeats
// every few rows, such as a checkerboard or a halftone screen) takes that
// row's result instead of a merge. Shapes whose rows never come back (random
// rectangles) would pay for the comparisons on every row, so after kRecentTries
// looks without a find the band stops looking; a find earns the tries back.
constexpr uint32_t kNoRow = UINT32_MAX;
constexpr uint32_t kRecentTries = 32;
struct RecentRows {
    uint32_t row[4] = {kNoRow, kNoRow, kNoRow, kNoRow};
    uint32_t next = 0, tries = kRecentTries;
    void add(uint32_t k) noexcept {
        row[next] = k;
        next = (next + 1) & 3u;
    }
};

// The recent merged row of the band whose two sources equal row k's, or
// kNoRow (out of line: the loop that calls it stays small).
__attribute__((noinline)) uint32_t recentRow(const PairSpan& p, uint32_t k, const int32_t* xa, uint32_t na,
                                             const int32_t* xb, uint32_t nb, RecentRows& recent) noexcept {
    for (uint32_t j : recent.row)
        if (j != kNoRow && j + 1 != k && sameRow(xa, na, p.runA + p.ea[j].uOffset / 4u, p.ea[j].uCount) &&
            sameRow(xb, nb, p.runB + p.eb[j].uOffset / 4u, p.eb[j].uCount)) {
            recent.tries = kRecentTries;
            return j;
        }
    --recent.tries;
    return kNoRow;
}

// The combine of two regions. The result may occupy the rows of both (union,
// XOR), of a (difference) or of the rows they share (intersection); these are
// cut into bands where the set of sources with rows is constant. Bands of one
// source are copied as a block or dropped; in bands of both, each row is
// merged, except that a row whose sources both repeat their previous row, or
// the sources of one of the last rows merged, repeats that row's result (a tall
// band of identical rows is merged once, a pattern of a few rows once a period).
// Rows and run data are written directly (the builder reserved an upper
// bound: a result row never holds more x values than its two source rows),
// then empty rows at both ends are dropped.
template <Op O>
int32_t combineRows(const OrvaRgn* a, const OrvaRgn* b, OrvaRgn** out, OrvaRgn* recycle) noexcept {
    const bool aE = isEmpty(a), bE = isEmpty(b);
    if (O == Op::And ? (aE || bE) : O == Op::Diff ? aE : (aE && bE)) return create(out);
    // An empty source has no rows: [0, 0).
    const int64_t aT = aE ? 0 : a->rcBounds.top, aB = aE ? 0 : a->rcBounds.bottom;
    const int64_t bT = bE ? 0 : b->rcBounds.top, bB = bE ? 0 : b->rcBounds.bottom;
    int64_t top, bottom;
    if constexpr (O == Op::And) {
        top = std::max(aT, bT);
        bottom = std::min(aB, bB);
        if (top >= bottom) return create(out);
    } else if constexpr (O == Op::Diff) {
        top = aT;
        bottom = aB;
    } else {
        top = aE ? bT : bE ? aT : std::min(aT, bT);
        bottom = aE ? bB : bE ? aB : std::max(aB, bB);
    }
    // Union: the bounds are those of the two bounding boxes and no row at
    // either end is empty; the others find them while they write.
    constexpr bool knownBounds = O == Op::Or;
    int32_t left = INT32_MAX, right = INT32_MIN;
    if constexpr (knownBounds) {
        left = aE ? b->rcBounds.left : bE ? a->rcBounds.left : std::min(a->rcBounds.left, b->rcBounds.left);
        right = aE ? b->rcBounds.right : bE ? a->rcBounds.right : std::max(a->rcBounds.right, b->rcBounds.right);
    }
    Builder bld;
    const size_t expect = size_t(a->uRunDataSize / 4u) + size_t(b->uRunDataSize / 4u) + kMergeSlack;
    if (recycle == a || recycle == b) recycle = nullptr;
    const int32_t rc = bld.start(top, bottom, expect, recycle);
    if (rc != KS_SUCCESS) return rc;
    int32_t* const run = bld.runData();
    ORVARGNROW* const idx = bld.rowIndex();
    size_t values = 0;
    for (int64_t y = top; y < bottom;) {
        const bool inA = y >= aT && y < aB, inB = y >= bT && y < bB;
        int64_t end = bottom;
        for (int64_t t : {aT, aB, bT, bB})
            if (t > y && t < end) end = t;
        ORVARGNROW* const rowOut = idx + (y - top);
        if (inA && !inB && keepsA<O>) {
            values = copyRows<!knownBounds>(a, uint32_t(y - aT), uint32_t(end - aT), rowOut, run, values, left, right);
        } else if (inB && !inA && keepsB<O>) {
            values = copyRows<!knownBounds>(b, uint32_t(y - bT), uint32_t(end - bT), rowOut, run, values, left, right);
        } else if (!inA || !inB) {
            for (int64_t k = 0; k < end - y; ++k) rowOut[k] = ORVARGNROW{0, uint32_t(values * 4u)};
        } else {
            const ORVARGNROW* const ea = a->pRowIndex + (y - aT);
            const ORVARGNROW* const eb = b->pRowIndex + (y - bT);
            const int32_t* const runA = a->pRunData;
            const int32_t* const runB = b->pRunData;
            const uint32_t rows = uint32_t(end - y);
            // The previous row's sources and result are read back from the
            // row indexes, which keeps the loop's state in registers.
            const PairSpan span{ea, eb, runA, runB, run, rowOut};
            RecentRows recent;
            for (uint32_t k = 0; k < rows; ++k) {
                if (ea[k].uCount == 2 && eb[k].uCount == 2) {
                    k = pairRows<O, !knownBounds>(span, k, rows, values, left, right);
                    if (k == rows) break;
                }
                const ORVARGNROW ra = ea[k], rb = eb[k];
                const uint32_t na = ra.uCount, nb = rb.uCount;
                const int32_t* xa = runA + ra.uOffset / 4u;
                const int32_t* xb = runB + rb.uOffset / 4u;
                int32_t* dst = run + values;
                uint32_t n;
                const bool check = na + nb > kRepeatCheckMin && (O != Op::Or || (na > 2 && nb > 2));
                uint32_t from = kNoRow;
                if (check) {
                    if (k > 0 && sameRow(xa, na, runA + ea[k - 1].uOffset / 4u, ea[k - 1].uCount) &&
                        sameRow(xb, nb, runB + eb[k - 1].uOffset / 4u, eb[k - 1].uCount))
                        from = k - 1;
                    else if (recent.tries)
                        from = recentRow(span, k, xa, na, xb, nb, recent);
                }
                if (from != kNoRow) {
                    n = rowOut[from].uCount;
                    copyValues(dst, run + rowOut[from].uOffset / 4u, n);
                } else {
                    n = mergeRow<O>(xa, na, xb, nb, dst);
                    if (check) recent.add(k);
                    if constexpr (!knownBounds) {
                        if (n) {
                            left = std::min(left, dst[0]);
                            right = std::max(right, dst[n - 1]);
                        }
                    }
                }
                rowOut[k] = ORVARGNROW{n, uint32_t(values * 4u)};
                values += n;
            }
        }
        y = end;
    }
    uint32_t first = 0, used = uint32_t(bottom - top);
    if constexpr (!knownBounds) {
        // Drop the empty rows at both ends (their offsets are 0 at the top).
        while (used > 0 && idx[used - 1].uCount == 0) --used;
        while (first < used && idx[first].uCount == 0) ++first;
        if (first > 0) std::memmove(idx, idx + first, (used - first) * sizeof(ORVARGNROW));
    }
    bld.commit(top + first, used - first, values, left, right);
    return bld.finish(out);
}

// ------------------------------------------------------------------ scan conversion
struct Crossing {
    int64_t p;  // first pixel whose centre is at or right of the crossing
    int32_t dir;
};

// Integer edge, oriented top to bottom; active for rows y0 <= y < y1.
struct IntEdge {
    int64_t x0, y0, x1, y1;
    int32_t dir;
    bool small;
    int64_t p = 0;  // crossing of the current row
    int64_t rowTop() const noexcept { return y0; }
    int64_t rowBottom() const noexcept { return y1; }
    // ceil(xc - 1/2) with xc the crossing of the line y + 1/2, exactly.
    int64_t at(int64_t y) const noexcept {
        int64_t dx = x1 - x0, dy = y1 - y0;
        if (small) {
            int64_t tnum = (2 * (y - y0) + 1) * dx, tden = 2 * dy;
            return x0 + ceilDiv(2 * tnum - tden, 2 * tden);
        }
        __int128 tnum = __int128(2 * (y - y0) + 1) * dx, tden = __int128(2) * dy;
        return x0 + int64_t(ceilDiv128(2 * tnum - tden, 2 * tden));
    }
    // The same value for consecutive rows from the edge's first row on,
    // stepped without division: with N(y) = 4(y - y0)dx + 2dx - 2dy and
    // D = 4dy, the pixel is x0 + ceil(N / D); N grows by 4dx = s*D + t a row.
    int64_t q = 0, r = 0, s = 0, t = 0, D = 0;
    bool stepping = false;
    int64_t step(int64_t y) noexcept {
        if (!small) return at(y);
        if (!stepping) {
            const int64_t dx = x1 - x0, dy = y1 - y0;
            const int64_t N = 4 * (y - y0) * dx + 2 * dx - 2 * dy;
            D = 4 * dy;
            q = ceilDiv(N, D);
            r = q * D - N;
            s = floorDiv(4 * dx, D);
            t = 4 * dx - s * D;
            stepping = true;
            return x0 + q;
        }
        const int64_t c = t > r;  // carry into the next pixel
        q += s + c;
        r += c * D - t;
        return x0 + q;
    }
};

// Double edge: rows whose centre lies in [y0, y1).
struct DblEdge {
    double x0, y0, x1, y1, slope;
    int64_t r0, r1;
    int32_t dir;
    int64_t p = 0;  // crossing of the current row
    int64_t rowTop() const noexcept { return r0; }
    int64_t rowBottom() const noexcept { return r1; }
    int64_t at(int64_t y) const noexcept {
        double xc = x0 + (double(y) + 0.5 - y0) * slope;
        double p = std::ceil(xc - 0.5);
        if (p < -4.0e18) return int64_t(-4e18);
        if (p > 4.0e18) return int64_t(4e18);
        return int64_t(p);
    }
    int64_t step(int64_t y) const noexcept { return at(y); }
};

int32_t clampX(int64_t p) noexcept {
    return int32_t(std::clamp<int64_t>(p, INT32_MIN, INT32_MAX));
}

template <class Edge>
int32_t scanEdges(kvector<Edge>& edges, bool winding, OrvaRgn** out) {
    if (edges.empty()) return create(out);
    // Refuse a result that is too tall before any real work.
    int64_t top = edges.front().rowTop(), bottom = top;
    for (const Edge& e : edges) {
        top = std::min(top, e.rowTop());
        bottom = std::max(bottom, e.rowBottom());
    }
    if (bottom - top > maxRows()) return KS_NO_MEMORY;
    std::sort(edges.begin(), edges.end(),
              [](const Edge& a, const Edge& b) { return a.rowTop() < b.rowTop(); });
    Builder bld;
    int32_t rc = bld.start(top, bottom, 0);
    if (rc != KS_SUCCESS) return rc;
    // Active edges are kept by value, in crossing order, so each row walks
    // one compact array.
    kvector<Edge> active;
    size_t next = 0;
    for (int64_t y = top; y < bottom; ++y) {
        // Retire finished edges, admit starting ones.
        size_t k = 0;
        for (size_t i = 0; i < active.size(); ++i)
            if (active[i].rowBottom() > y) {
                if (k != i) active[k] = active[i];
                ++k;
            }
        active.resize(k);
        while (next < edges.size() && edges[next].rowTop() <= y) {
            if (edges[next].rowBottom() > y) active.push_back(edges[next]);
            ++next;
        }
        if (active.empty()) {
            if (next >= edges.size()) break;
            // Jump over a gap between figures.
            int64_t ny = edges[next].rowTop();
            bld.skipRows(ny - y);
            y = ny - 1;
            continue;
        }
        for (Edge& e : active) e.p = e.step(y);
        // Crossings stay nearly in order from row to row: insertion sort.
        for (size_t i = 1; i < active.size(); ++i) {
            if (active[i - 1].p <= active[i].p) continue;
            Edge e = active[i];
            size_t j = i;
            while (j > 0 && active[j - 1].p > e.p) {
                active[j] = active[j - 1];
                --j;
            }
            active[j] = e;
        }
        const auto& xs = active;
        int32_t* dst = bld.rowSpace(uint32_t(xs.size()));
        if (!dst) return KS_NO_MEMORY;
        uint32_t n = 0;
        int32_t w = 0;
        bool in = false;
        for (size_t i = 0; i < xs.size();) {
            int64_t p = xs[i].p;
            while (i < xs.size() && xs[i].p == p) {
                w += winding ? xs[i].dir : 1;
                ++i;
            }
            bool now = winding ? (w != 0) : (w & 1) != 0;
            if (now != in) {
                int32_t x = clampX(p);
                if (n > 0 && dst[n - 1] == x) {
                    --n;  // clamping made a run vanish
                } else {
                    dst[n++] = x;
                }
                in = now;
            }
        }
        bld.endRow(n);
    }
    return bld.finish(out);
}

// ------------------------------------------------------------------ rectangles
int32_t rectsUnion(kvector<RECT>& rects, OrvaRgn** out) {
    // Drop empty rectangles; order by top, then left.
    size_t k = 0;
    for (const RECT& r : rects)
        if (r.left < r.right && r.top < r.bottom) rects[k++] = r;
    rects.resize(k);
    if (rects.empty()) return create(out);
    bool ordered = true;
    for (size_t i = 1; i < rects.size() && ordered; ++i) {
        const RECT& p = rects[i - 1];
        const RECT& c = rects[i];
        ordered = p.top < c.top || (p.top == c.top && p.left <= c.left);
    }
    if (!ordered)
        std::stable_sort(rects.begin(), rects.end(), [](const RECT& a, const RECT& b) {
            return a.top != b.top ? a.top < b.top : a.left < b.left;
        });
    int64_t top = rects.front().top, bottom = top;
    for (const RECT& r : rects) bottom = std::max<int64_t>(bottom, r.bottom);
    if (bottom - top > maxRows()) return KS_NO_MEMORY;
    // Sweep: between two consecutive tops/bottoms the set of active
    // rectangles is constant, so its merged runs repeat on every row.
    kvector<int64_t> bottoms;
    bottoms.reserve(rects.size());
    for (const RECT& r : rects) bottoms.push_back(r.bottom);
    std::sort(bottoms.begin(), bottoms.end());
    Builder bld;
    int32_t rc = bld.start(top, bottom, rects.size() * 2);
    if (rc != KS_SUCCESS) return rc;
    kvector<RECT> active;
    kvector<int32_t> runs;
    size_t next = 0, nextBottom = 0;
    int64_t y = top;
    while (y < bottom) {
        size_t k2 = 0;
        for (const RECT& r : active)
            if (r.bottom > y) active[k2++] = r;
        active.resize(k2);
        while (next < rects.size() && rects[next].top <= y) active.push_back(rects[next++]);
        while (nextBottom < bottoms.size() && bottoms[nextBottom] <= y) ++nextBottom;
        int64_t bandEnd = bottom;
        if (next < rects.size()) bandEnd = std::min<int64_t>(bandEnd, rects[next].top);
        if (nextBottom < bottoms.size()) bandEnd = std::min(bandEnd, bottoms[nextBottom]);
        std::sort(active.begin(), active.end(), [](const RECT& a, const RECT& b) { return a.left < b.left; });
        runs.clear();
        for (const RECT& r : active) {
            if (!runs.empty() && r.left <= runs.back()) {
                runs.back() = std::max(runs.back(), r.right);
            } else {
                runs.push_back(r.left);
                runs.push_back(r.right);
            }
        }
        for (int64_t yy = y; yy < bandEnd; ++yy)
            if (!bld.putRow(runs.data(), uint32_t(runs.size()))) return KS_NO_MEMORY;
        y = bandEnd;
    }
    return bld.finish(out);
}

}  // namespace

void setRowLimit(int64_t rows) noexcept {
    g_maxRows.store(rows <= 0 || rows > ORVARGN_MAX_ROWS ? ORVARGN_MAX_ROWS : rows, std::memory_order_relaxed);
}

// ------------------------------------------------------------------ builder
Builder::~Builder() { destroy(r_); }

int32_t Builder::start(int64_t top, int64_t bottom, size_t expectValues, OrvaRgn* recycle) noexcept {
    if (bottom - top > maxRows()) return KS_NO_MEMORY;
    if (expectValues > size_t(UINT32_MAX) / 4u) return KS_NO_MEMORY;
    r_ = static_cast<OrvaRgn*>(memCalloc(sizeof(OrvaRgn)));
    if (!r_) return KS_NO_MEMORY;
    top_ = cur_ = top;
    bottom_ = std::max(top, bottom);
    capacity_ = std::max<size_t>(expectValues, 64);
    const size_t rows = size_t(bottom_ - top_);
    if (recycle && recycle->pRowIndex && recycle->pRunData) {
        // Take over the blocks of a region that is about to be replaced:
        // their pages are already mapped. Both are resized before anything is
        // written, so a failure here leaves `recycle` whole.
        auto* idx = rows ? static_cast<ORVARGNROW*>(memRealloc(recycle->pRowIndex, rows * sizeof(ORVARGNROW)))
                         : nullptr;
        if (rows && !idx) return KS_NO_MEMORY;
        if (idx) recycle->pRowIndex = idx;
        auto* run = static_cast<int32_t*>(memRealloc(recycle->pRunData, capacity_ * sizeof(int32_t)));
        if (!run) return KS_NO_MEMORY;  // recycle keeps its (possibly resized) blocks
        recycle->pRunData = nullptr;
        r_->pRunData = run;
        if (rows) {
            r_->pRowIndex = idx;
            recycle->pRowIndex = nullptr;
        }
        recycle->uRowIndexSize = recycle->uRunDataSize = 0;
        recycle->rcBounds = RECT{0, 0, 0, 0};
        return KS_SUCCESS;
    }
    if (rows) {
        r_->pRowIndex = memAllocArray<ORVARGNROW>(rows);
        if (!r_->pRowIndex) return KS_NO_MEMORY;
    }
    r_->pRunData = memAllocArray<int32_t>(capacity_);
    if (!r_->pRunData) return KS_NO_MEMORY;
    return KS_SUCCESS;
}

int32_t* Builder::rowSpace(uint32_t maxCount) noexcept {
    if (values_ + maxCount > capacity_) {
        size_t cap = std::max(capacity_ * 2, values_ + maxCount + 4096);
        if (cap > (size_t(UINT32_MAX) / 4u)) {
            cap = size_t(UINT32_MAX) / 4u;
            if (values_ + maxCount > cap) return nullptr;
        }
        auto* p = static_cast<int32_t*>(memRealloc(r_->pRunData, cap * sizeof(int32_t)));
        if (!p) return nullptr;
        r_->pRunData = p;
        capacity_ = cap;
    }
    return r_->pRunData + values_;
}

bool Builder::putRow(const int32_t* xs, uint32_t count) noexcept {
    if (count == 0) {
        endRow(0);
        return true;
    }
    int32_t* d = rowSpace(count);
    if (!d) return false;
    std::memcpy(d, xs, count * sizeof(int32_t));
    endRow(count);
    return true;
}

void Builder::endRow(uint32_t count) noexcept {
    if (cur_ >= top_ && cur_ < bottom_ && count > 0) {
        const int32_t* xs = r_->pRunData + values_;
        if (!started_) {
            started_ = true;
            first_ = cur_;
            left_ = xs[0];
            right_ = xs[count - 1];
        } else {
            left_ = std::min(left_, xs[0]);
            right_ = std::max(right_, xs[count - 1]);
        }
        uint32_t idx = uint32_t(cur_ - first_);
        // Empty rows since the last non-empty one become count-0 entries.
        for (uint32_t i = rowsUsed_; i < idx; ++i)
            r_->pRowIndex[i] = ORVARGNROW{0, uint32_t(values_ * 4u)};
        r_->pRowIndex[idx] = ORVARGNROW{count, uint32_t(values_ * 4u)};
        rowsUsed_ = idx + 1;
        lastStart_ = values_;
        values_ += count;
    }
    ++cur_;
}

int32_t Builder::finish(OrvaRgn** out) noexcept {
    OrvaRgn* r = r_;
    if (values_ == 0) {
        memFree(r->pRowIndex);
        memFree(r->pRunData);
        r->pRowIndex = nullptr;
        r->pRunData = nullptr;
        r->uRowIndexSize = r->uRunDataSize = 0;
        r->rcBounds = RECT{0, 0, 0, 0};
    } else {
        if (rowsUsed_ < uint64_t(bottom_ - top_)) {
            if (auto* p = static_cast<ORVARGNROW*>(memRealloc(r->pRowIndex, rowsUsed_ * sizeof(ORVARGNROW))))
                r->pRowIndex = p;
        }
        if (values_ < capacity_) {
            if (auto* p = static_cast<int32_t*>(memRealloc(r->pRunData, values_ * sizeof(int32_t))))
                r->pRunData = p;
        }
        r->uRowIndexSize = rowsUsed_ * 8u;
        r->uRunDataSize = uint32_t(values_ * 4u);
        r->rcBounds = RECT{left_, int32_t(first_), right_, int32_t(first_ + rowsUsed_)};
    }
    r_ = nullptr;
    *out = r;
    return KS_SUCCESS;
}

// ------------------------------------------------------------------ lifetime
int32_t create(OrvaRgn** out) noexcept {
    auto* r = static_cast<OrvaRgn*>(memCalloc(sizeof(OrvaRgn)));
    if (!r) return KS_NO_MEMORY;
    *out = r;
    return KS_SUCCESS;
}

void destroy(OrvaRgn* r) noexcept {
    if (!r) return;
    if (r->hCachedRgn) DeleteObject(r->hCachedRgn);
    memFree(r->pRowIndex);
    memFree(r->pRunData);
    memFree(r);
}

int32_t copy(const OrvaRgn* src, OrvaRgn** out) noexcept {
    auto* r = static_cast<OrvaRgn*>(memCalloc(sizeof(OrvaRgn)));
    if (!r) return KS_NO_MEMORY;
    std::memcpy(r->nPlacement, src->nPlacement, sizeof r->nPlacement);
    r->rcBounds = src->rcBounds;
    if (src->uRowIndexSize) {
        r->pRowIndex = static_cast<ORVARGNROW*>(memAlloc(src->uRowIndexSize));
        if (!r->pRowIndex) {
            destroy(r);
            return KS_NO_MEMORY;
        }
        std::memcpy(r->pRowIndex, src->pRowIndex, src->uRowIndexSize);
        r->uRowIndexSize = src->uRowIndexSize;
    }
    if (src->uRunDataSize) {
        r->pRunData = static_cast<int32_t*>(memAlloc(src->uRunDataSize));
        if (!r->pRunData) {
            destroy(r);
            return KS_NO_MEMORY;
        }
        std::memcpy(r->pRunData, src->pRunData, src->uRunDataSize);
        r->uRunDataSize = src->uRunDataSize;
    }
    if (src->hCachedRgn) {
        // The cached handle is copied into a fresh empty handle (RGN_COPY).
        HRGN h = CreateRectRgn(0, 0, 0, 0);
        if (!h || CombineRgn(h, src->hCachedRgn, src->hCachedRgn, RGN_COPY) == 0) {
            if (h) DeleteObject(h);
            destroy(r);
            return KS_NO_MEMORY;
        }
        r->hCachedRgn = h;
    }
    *out = r;
    return KS_SUCCESS;
}

void adopt(OrvaRgn* dst, OrvaRgn* src) noexcept {
    if (dst->hCachedRgn) DeleteObject(dst->hCachedRgn);
    dst->hCachedRgn = nullptr;
    memFree(dst->pRowIndex);
    memFree(dst->pRunData);
    dst->rcBounds = src->rcBounds;
    dst->uRowIndexSize = src->uRowIndexSize;
    dst->pRowIndex = src->pRowIndex;
    dst->uRunDataSize = src->uRunDataSize;
    dst->pRunData = src->pRunData;
    src->pRowIndex = nullptr;
    src->pRunData = nullptr;
    destroy(src);
}

// ------------------------------------------------------------------ constructors
int32_t combine(const OrvaRgn* a, const OrvaRgn* b, int32_t op, OrvaRgn** out, OrvaRgn* recycle) noexcept {
    return guarded([&]() -> int32_t {
        switch (op) {
            case RGN_AND: return combineRows<Op::And>(a, b, out, recycle);
            case RGN_OR: return combineRows<Op::Or>(a, b, out, recycle);
            case RGN_XOR: return combineRows<Op::Xor>(a, b, out, recycle);
            case RGN_DIFF: return combineRows<Op::Diff>(a, b, out, recycle);
            case RGN_COPY: return copy(a, out);
            default: return KS_INVALID_PARAMETER;
        }
    });
}

int32_t fromRect(const RECT& rc, OrvaRgn** out) noexcept {
    if (rc.left >= rc.right || rc.top >= rc.bottom) return create(out);
    int64_t h = int64_t(rc.bottom) - rc.top;
    if (h > maxRows()) return KS_NO_MEMORY;
    Builder bld;
    int32_t st = bld.start(rc.top, rc.bottom, size_t(h) * 2);
    if (st != KS_SUCCESS) return st;
    const int32_t run[2] = {rc.left, rc.right};
    for (int64_t y = 0; y < h; ++y)
        if (!bld.putRow(run, 2)) return KS_NO_MEMORY;
    return bld.finish(out);
}

int32_t fromRects(const RECT* rects, size_t n, OrvaRgn** out) noexcept {
    return guarded([&]() -> int32_t {
        kvector<RECT> v(rects, rects + n);
        return rectsUnion(v, out);
    });
}

int32_t polygon(const POINT* pts, const uint8_t* flags, size_t n, bool winding, OrvaRgn** out) noexcept {
    if (n < 2) return create(out);
    return guarded([&]() -> int32_t {
        kvector<IntEdge> edges;
        edges.reserve(n);
        auto add = [&](const POINT& a, const POINT& b) {
            if (a.y == b.y) return;  // horizontal edges cross no pixel centre line
            IntEdge e{};
            const bool down = a.y < b.y;
            const POINT& t = down ? a : b;
            const POINT& u = down ? b : a;
            e.x0 = t.x;
            e.y0 = t.y;
            e.x1 = u.x;
            e.y1 = u.y;
            e.dir = down ? 1 : -1;
            int64_t dx = e.x1 - e.x0, dy = e.y1 - e.y0;
            e.small = dx > -(int64_t(1) << 29) && dx < (int64_t(1) << 29) && dy < (int64_t(1) << 29);
            edges.push_back(e);
        };
        size_t start = 0;
        for (size_t i = 1; i <= n; ++i) {
            if (i == n || (flags && flags[i] == 0)) {
                for (size_t k = start; k + 1 < i; ++k) add(pts[k], pts[k + 1]);
                if (i - start >= 2) add(pts[i - 1], pts[start]);
                start = i;
            }
        }
        return scanEdges(edges, winding, out);
    });
}

int32_t polygonD(const PointD* pts, const size_t* starts, size_t figures, size_t n, bool winding,
                 OrvaRgn** out) noexcept {
    return guarded([&]() -> int32_t {
        kvector<DblEdge> edges;
        edges.reserve(n);
        auto add = [&](const PointD& a, const PointD& b) {
            if (!std::isfinite(a.x) || !std::isfinite(a.y) || !std::isfinite(b.x) || !std::isfinite(b.y))
                return;
            if (a.y == b.y) return;
            const bool down = a.y < b.y;
            const PointD& t = down ? a : b;
            const PointD& u = down ? b : a;
            DblEdge e{};
            e.x0 = t.x;
            e.y0 = t.y;
            e.x1 = u.x;
            e.y1 = u.y;
            e.slope = (u.x - t.x) / (u.y - t.y);
            double r0 = std::ceil(t.y - 0.5), r1 = std::ceil(u.y - 0.5);
            r0 = std::clamp(r0, -4e9, 4e9);
            r1 = std::clamp(r1, -4e9, 4e9);
            e.r0 = int64_t(r0);
            e.r1 = int64_t(r1);
            e.dir = down ? 1 : -1;
            if (e.r1 > e.r0) edges.push_back(e);
        };
        for (size_t f = 0; f < figures; ++f) {
            size_t s = starts[f], e = f + 1 < figures ? starts[f + 1] : n;
            if (e <= s + 1) continue;
            for (size_t k = s; k + 1 < e; ++k) add(pts[k], pts[k + 1]);
            add(pts[e - 1], pts[s]);
        }
        for (const DblEdge& e : edges)
            if (e.r0 < INT32_MIN || e.r1 > int64_t(INT32_MAX) + 1) return KS_NO_MEMORY;
        return scanEdges(edges, winding, out);
    });
}

int32_t ellipseOutline(const RECT& box, kvector<PointD>& pts) noexcept {
    return guarded([&]() -> int32_t {
        double l = box.left, t = box.top, r = box.right, b = box.bottom;
        if (l > r) std::swap(l, r);
        if (t > b) std::swap(t, b);
        const double cx = (l + r) / 2, cy = (t + b) / 2, w = r - l, h = b - t;
        const double kx = 0.2761423749154 * w, ky = 0.2761423749154 * h;
        // Chord error of a quarter arc in n pieces is about R*pi^2/(32 n^2):
        // n = 2.5*sqrt(R) keeps it near 0.05 pixel.
        const double radius = std::max(w, h) / 2;
        size_t n = size_t(std::clamp(std::ceil(2.5 * std::sqrt(radius)), 2.0, 20000.0));
        // Quarter arcs from axis point to axis point, counter-clockwise on screen.
        const PointD arcs[4][4] = {
            {{r, cy}, {r, cy + ky}, {cx + kx, b}, {cx, b}},
            {{cx, b}, {cx - kx, b}, {l, cy + ky}, {l, cy}},
            {{l, cy}, {l, cy - ky}, {cx - kx, t}, {cx, t}},
            {{cx, t}, {cx + kx, t}, {r, cy - ky}, {r, cy}},
        };
        pts.clear();
        pts.reserve(4 * n);
        for (const auto& a : arcs) {
            for (size_t i = 0; i < n; ++i) {
                double s = double(i) / double(n), u = 1 - s;
                double b0 = u * u * u, b1 = 3 * u * u * s, b2 = 3 * u * s * s, b3 = s * s * s;
                pts.push_back(PointD{b0 * a[0].x + b1 * a[1].x + b2 * a[2].x + b3 * a[3].x,
                                     b0 * a[0].y + b1 * a[1].y + b2 * a[2].y + b3 * a[3].y});
            }
        }
        return KS_SUCCESS;
    });
}

int32_t ellipse(const RECT& box, OrvaRgn** out) noexcept {
    if (std::abs(int64_t(box.bottom) - box.top) > maxRows()) return KS_NO_MEMORY;  // before flattening
    return guarded([&]() -> int32_t {
        kvector<PointD> pts;
        int32_t rc = ellipseOutline(box, pts);
        if (rc != KS_SUCCESS) return rc;
        size_t start = 0;
        return polygonD(pts.data(), &start, 1, pts.size(), false, out);
    });
}

// ------------------------------------------------------------------ moves
int32_t offset(OrvaRgn* r, int64_t dx, int64_t dy) noexcept {
    if (dx == 0 && dy == 0) return KS_SUCCESS;
    if (isEmpty(r)) return KS_SUCCESS;
    const RECT& b = r->rcBounds;
    if (!fits32(b.left + dx) || !fits32(b.right + dx) || !fits32(b.top + dy) || !fits32(b.bottom + dy))
        return KS_INVALID_PARAMETER;
    if (dx) {
        const size_t n = r->uRunDataSize / 4u;
        const int32_t d = int32_t(dx);
        int32_t* p = r->pRunData;
        for (size_t i = 0; i < n; ++i) p[i] = int32_t(uint32_t(p[i]) + uint32_t(d));
    }
    r->rcBounds.left += int32_t(dx);
    r->rcBounds.right += int32_t(dx);
    r->rcBounds.top += int32_t(dy);
    r->rcBounds.bottom += int32_t(dy);
    if (r->hCachedRgn) {
        DeleteObject(r->hCachedRgn);
        r->hCachedRgn = nullptr;
    }
    return KS_SUCCESS;
}

int32_t clip(OrvaRgn* r, const RECT& rc) noexcept {
    if (isEmpty(r)) return KS_SUCCESS;
    const RECT& b = r->rcBounds;
    if (rc.left <= b.left && rc.top <= b.top && rc.right >= b.right && rc.bottom >= b.bottom)
        return KS_SUCCESS;  // already inside
    int64_t top = std::max(b.top, rc.top), bottom = std::min(b.bottom, rc.bottom);
    OrvaRgn* res = nullptr;
    if (top >= bottom || rc.left >= rc.right) {
        int32_t st = create(&res);
        if (st != KS_SUCCESS) return st;
        adopt(r, res);
        return KS_SUCCESS;
    }
    Builder bld;
    int32_t st = bld.start(top, bottom, r->uRunDataSize / 4u);
    if (st != KS_SUCCESS) return st;
    for (int64_t y = top; y < bottom; ++y) {
        uint32_t n;
        const int32_t* xs = rowAt(r, y, &n);
        if (n == 0) {
            bld.endRow(0);
            continue;
        }
        int32_t* d = bld.rowSpace(n);
        if (!d) return KS_NO_MEMORY;
        bld.endRow(clipRow(xs, n, rc.left, rc.right, d));
    }
    st = bld.finish(&res);
    if (st != KS_SUCCESS) return st;
    adopt(r, res);
    return KS_SUCCESS;
}

int32_t scale(OrvaRgn* r, int32_t xn, int32_t xd, int32_t yn, int32_t yd) noexcept {
    if (xd <= 0 || yd <= 0 || xn < 0 || yn < 0) return KS_INVALID_PARAMETER;
    if (xn == xd && yn == yd) return KS_SUCCESS;
    if (isEmpty(r)) return KS_SUCCESS;
    OrvaRgn* res = nullptr;
    if (xn == 0 || yn == 0) {
        int32_t st = create(&res);
        if (st != KS_SUCCESS) return st;
        adopt(r, res);
        return KS_SUCCESS;
    }
    // Result pixel X is in when source pixel floor(X * d / n) is: a source
    // run [x1, x2) becomes [ceil(x1 * n / d), ceil(x2 * n / d)).
    auto map = [](int64_t v, int64_t n, int64_t d) { return ceilDiv(v * n, d); };
    const RECT& b = r->rcBounds;
    int64_t top = map(b.top, yn, yd), bottom = map(b.bottom, yn, yd);
    if (!fits32(top) || !fits32(bottom) || !fits32(map(b.left, xn, xd)) || !fits32(map(b.right, xn, xd)))
        return KS_INVALID_PARAMETER;
    if (bottom - top > maxRows()) return KS_NO_MEMORY;
    return guarded([&]() -> int32_t {
        Builder bld;
        size_t expect = size_t(r->uRunDataSize / 4u) * size_t(std::max<int64_t>(1, (int64_t(yn) + yd - 1) / yd));
        int32_t st = bld.start(top, bottom, std::min<size_t>(expect, size_t(1) << 26));
        if (st != KS_SUCCESS) return st;
        for (int64_t y = top; y < bottom; ++y) {
            uint32_t n;
            const int32_t* xs = rowAt(r, floorDiv(y * yd, yn), &n);
            int32_t* d = bld.rowSpace(n);
            if (!d) return KS_NO_MEMORY;
            uint32_t m = 0;
            for (uint32_t i = 0; i < n; i += 2) {
                int32_t a = int32_t(map(xs[i], xn, xd)), c = int32_t(map(xs[i + 1], xn, xd));
                if (a >= c) continue;  // vanished
                if (m > 0 && d[m - 1] >= a) {
                    d[m - 1] = c;  // touches the previous run: join
                } else {
                    d[m++] = a;
                    d[m++] = c;
                }
            }
            bld.endRow(m);
        }
        OrvaRgn* res = nullptr;
        st = bld.finish(&res);
        if (st != KS_SUCCESS) return st;
        adopt(r, res);
        return KS_SUCCESS;
    });
}

int32_t flipRows(OrvaRgn* r, int64_t h) noexcept {
    if (isEmpty(r)) return KS_SUCCESS;
    int64_t top = h - r->rcBounds.bottom, bottom = h - r->rcBounds.top;
    if (!fits32(top) || !fits32(bottom)) return KS_INVALID_PARAMETER;
    Builder bld;
    int32_t st = bld.start(top, bottom, r->uRunDataSize / 4u);
    if (st != KS_SUCCESS) return st;
    for (int64_t y = top; y < bottom; ++y) {
        uint32_t n;
        const int32_t* xs = rowAt(r, h - 1 - y, &n);
        if (!bld.putRow(xs, n)) return KS_NO_MEMORY;
    }
    OrvaRgn* res = nullptr;
    st = bld.finish(&res);
    if (st != KS_SUCCESS) return st;
    adopt(r, res);
    return KS_SUCCESS;
}

int32_t reverseCols(OrvaRgn* r, int64_t w) noexcept {
    if (isEmpty(r)) return KS_SUCCESS;
    if (!fits32(w - r->rcBounds.right) || !fits32(w - r->rcBounds.left)) return KS_INVALID_PARAMETER;
    // x values map to w - x and each row's order reverses; done in place.
    const uint32_t rows = rowCount(r);
    for (uint32_t i = 0; i < rows; ++i) {
        const ORVARGNROW& e = r->pRowIndex[i];
        int32_t* xs = r->pRunData + e.uOffset / 4u;
        std::reverse(xs, xs + e.uCount);
        for (uint32_t k = 0; k < e.uCount; ++k) xs[k] = int32_t(w - xs[k]);
    }
    int32_t l = int32_t(w - r->rcBounds.right), rr = int32_t(w - r->rcBounds.left);
    r->rcBounds.left = l;
    r->rcBounds.right = rr;
    if (r->hCachedRgn) {
        DeleteObject(r->hCachedRgn);
        r->hCachedRgn = nullptr;
    }
    return KS_SUCCESS;
}

int32_t transpose(OrvaRgn* r) noexcept {
    if (isEmpty(r)) return KS_SUCCESS;
    const int64_t left = r->rcBounds.left, width = int64_t(r->rcBounds.right) - left;
    if (width > maxRows()) return KS_NO_MEMORY;
    return guarded([&]() -> int32_t {
        // Sweep the rows; where a column turns on remember the row, where it
        // turns off emit the vertical run (column, from, to). Runs of one
        // column come out in row order.
        struct VRun {
            int32_t x, y1, y2;
        };
        kvector<int32_t> open(size_t(width), 0);
        kvector<VRun> vruns;
        kvector<int32_t> on, off;
        const int32_t* prev = nullptr;
        uint32_t np = 0;
        for (int64_t y = r->rcBounds.top; y <= r->rcBounds.bottom; ++y) {
            uint32_t nc = 0;
            const int32_t* cur = y < r->rcBounds.bottom ? rowAt(r, y, &nc) : nullptr;
            on.resize(nc + np + kMergeSlack);
            off.resize(nc + np + kMergeSlack);
            uint32_t non = mergeRow<Op::Diff>(cur, nc, prev, np, on.data());
            uint32_t noff = mergeRow<Op::Diff>(prev, np, cur, nc, off.data());
            for (uint32_t i = 0; i < non; i += 2)
                for (int64_t x = on[i]; x < on[i + 1]; ++x) open[size_t(x - left)] = int32_t(y);
            for (uint32_t i = 0; i < noff; i += 2)
                for (int64_t x = off[i]; x < off[i + 1]; ++x)
                    vruns.push_back(VRun{int32_t(x), open[size_t(x - left)], int32_t(y)});
            prev = cur;
            np = nc;
        }
        // Counting sort by column keeps each column's runs in row order.
        kvector<uint32_t> start(size_t(width) + 1, 0);
        for (const VRun& v : vruns) ++start[size_t(v.x - left) + 1];
        for (size_t i = 1; i <= size_t(width); ++i) start[i] += start[i - 1];
        kvector<int32_t> xs(vruns.size() * 2);
        kvector<uint32_t> fill(start.begin(), start.end() - 1);
        for (const VRun& v : vruns) {
            uint32_t k = fill[size_t(v.x - left)]++;
            xs[2 * k] = v.y1;
            xs[2 * k + 1] = v.y2;
        }
        Builder bld;
        int32_t st = bld.start(left, left + width, xs.size());
        if (st != KS_SUCCESS) return st;
        for (size_t c = 0; c < size_t(width); ++c)
            if (!bld.putRow(xs.data() + 2 * start[c], 2 * (start[c + 1] - start[c]))) return KS_NO_MEMORY;
        OrvaRgn* res = nullptr;
        st = bld.finish(&res);
        if (st != KS_SUCCESS) return st;
        adopt(r, res);
        return KS_SUCCESS;
    });
}

// The steps of a perspective change on `r` itself; a failing step may leave
// earlier steps applied, so callers work on a copy.
static int32_t perspectiveSteps(OrvaRgn* r, int32_t flip, int32_t angle, int64_t w, int64_t h) noexcept {
    int32_t st = KS_SUCCESS;
    if (flip) {
        st = flipRows(r, h);
        if (st != KS_SUCCESS) return st;
    }
    switch (angle) {
        case 90:  // (x, y) -> (h - 1 - y, x)
            st = transpose(r);
            if (st == KS_SUCCESS) st = reverseCols(r, h);
            return st;
        case 180:  // (x, y) -> (w - 1 - x, h - 1 - y)
            st = reverseCols(r, w);
            if (st == KS_SUCCESS) st = flipRows(r, h);
            return st;
        case 270:  // (x, y) -> (y, w - 1 - x)
            st = transpose(r);
            if (st == KS_SUCCESS) st = flipRows(r, w);
            return st;
        default: return KS_SUCCESS;
    }
}

int32_t perspective(OrvaRgn* r, int32_t from, int32_t to, int64_t w, int64_t h) noexcept {
    int32_t flip = 0, angle = 0;
    int32_t st = K_GetChangeViewPerspectiveParams(from, to, &flip, &angle);
    if (st != KS_SUCCESS) return st;
    if ((!flip && angle == 0) || isEmpty(r)) return KS_SUCCESS;
    // All or nothing: the steps run on a copy that replaces the region only
    // when every step succeeded.
    OrvaRgn* work = nullptr;
    st = copy(r, &work);
    if (st != KS_SUCCESS) return st;
    st = perspectiveSteps(work, flip, angle, w, h);
    if (st != KS_SUCCESS) {
        destroy(work);
        return st;
    }
    adopt(r, work);
    return KS_SUCCESS;
}

// ------------------------------------------------------------------ queries
bool pointIn(const OrvaRgn* r, int32_t x, int32_t y, int32_t* x1, int32_t* x2) noexcept {
    if (x1) *x1 = -1;
    if (x2) *x2 = -1;
    const RECT& b = r->rcBounds;
    if (x < b.left || x >= b.right || y < b.top || y >= b.bottom) return false;
    uint32_t n;
    const int32_t* xs = rowAt(r, y, &n);
    if (n == 0 || x < xs[0] || x >= xs[n - 1]) return false;
    // Number of x values <= x: odd means inside a run.
    size_t k = size_t(std::upper_bound(xs, xs + n, x) - xs);
    if ((k & 1u) == 0) return false;
    if (x1) *x1 = xs[k - 1];
    if (x2) *x2 = xs[k];
    return true;
}

uint64_t area(const OrvaRgn* r) noexcept {
    uint64_t a = 0;
    const size_t n = r->uRunDataSize / 4u;
    for (size_t i = 0; i + 1 < n; i += 2) a += uint64_t(int64_t(r->pRunData[i + 1]) - r->pRunData[i]);
    return a;
}

bool isSimple(const OrvaRgn* r) noexcept {
    if (isEmpty(r)) return false;
    const RECT& b = r->rcBounds;
    if (uint64_t(r->uRunDataSize) != 8ull * uint64_t(int64_t(b.bottom) - b.top)) return false;
    const uint32_t rows = rowCount(r);
    for (uint32_t i = 0; i < rows; ++i) {
        const ORVARGNROW& e = r->pRowIndex[i];
        if (e.uCount != 2) return false;
        const int32_t* xs = r->pRunData + e.uOffset / 4u;
        if (xs[0] != b.left || xs[1] != b.right) return false;
    }
    return true;
}

int32_t kind(const OrvaRgn* r) noexcept {
    const RECT& b = r->rcBounds;
    if (b.right <= b.left || b.bottom <= b.top) return NULLREGION;
    return isSimple(r) ? SIMPLEREGION : COMPLEXREGION;
}

uint32_t regionDataSize(const OrvaRgn* r) noexcept {
    if (isEmpty(r)) return 32;
    if (isSimple(r)) return 48;
    uint64_t bytes = 32ull + 16ull * (r->uRunDataSize / 8u);
    return bytes > UINT32_MAX ? UINT32_MAX : uint32_t(bytes);
}

void writeRegionData(const OrvaRgn* r, RGNDATA* buf) noexcept {
    RGNDATAHEADER& h = buf->rdh;
    h.dwSize = 32;
    h.iType = RDH_RECTANGLES;
    h.rcBound = r->rcBounds;
    auto* out = reinterpret_cast<RECT*>(reinterpret_cast<char*>(buf) + 32);
    if (isEmpty(r)) {
        h.nCount = 0;
    } else if (isSimple(r)) {
        h.nCount = 1;
        std::memcpy(out, &r->rcBounds, sizeof(RECT));
    } else {
        uint32_t k = 0;
        const uint32_t rows = rowCount(r);
        for (uint32_t i = 0; i < rows; ++i) {
            const ORVARGNROW& e = r->pRowIndex[i];
            const int32_t* xs = r->pRunData + e.uOffset / 4u;
            const int32_t y = r->rcBounds.top + int32_t(i);
            for (uint32_t j = 0; j < e.uCount; j += 2) {
                RECT rc{xs[j], y, xs[j + 1], y + 1};
                std::memcpy(out + k++, &rc, sizeof rc);
            }
        }
        h.nCount = k;
    }
    h.nRgnSize = 16u * h.nCount;
}

bool valid(const OrvaRgn* r) noexcept {
    if (!r) return false;
    const RECT& b = r->rcBounds;
    if (r->uRunDataSize == 0)
        return r->uRowIndexSize == 0 && b.left == 0 && b.top == 0 && b.right == 0 && b.bottom == 0;
    if (r->uRowIndexSize % 8 || r->uRunDataSize % 8) return false;
    if (int64_t(b.bottom) - b.top != int64_t(rowCount(r))) return false;
    int64_t left = INT64_MAX, right = INT64_MIN;
    uint64_t expectOffset = 0;
    const uint32_t rows = rowCount(r);
    for (uint32_t i = 0; i < rows; ++i) {
        const ORVARGNROW& e = r->pRowIndex[i];
        if (e.uCount % 2) return false;
        if (e.uOffset != expectOffset) return false;
        expectOffset += 4ull * e.uCount;
        if (expectOffset > r->uRunDataSize) return false;
        const int32_t* xs = r->pRunData + e.uOffset / 4u;
        if ((i == 0 || i + 1 == rows) && e.uCount == 0) return false;  // first and last rows hold runs
        for (uint32_t k = 1; k < e.uCount; ++k)
            if (xs[k - 1] >= xs[k]) return false;  // sorted, non-empty, non-touching
        if (e.uCount) {
            left = std::min<int64_t>(left, xs[0]);
            right = std::max<int64_t>(right, xs[e.uCount - 1]);
        }
    }
    return expectOffset == r->uRunDataSize && left == b.left && right == b.right;
}

// ------------------------------------------------------------------ handles
OrvaRgn* handleRegion(HRGN h) noexcept {
    auto* r = static_cast<OrvaRgn*>(objPayload(h, kObjRegion));
    if (!r) errno = EINVAL;
    return r;
}

HRGN makeHandle(OrvaRgn* r) noexcept {
    OmbrixObject_* o = objCreate(kObjRegion, r);
    if (!o) {
        destroy(r);
        return nullptr;
    }
    return o;
}

}  // namespace krn::rgn

// ====================================================================== exports
using namespace krn;

KAPI int32_t K_CreateOrvaRgnRect(OrvaRgn** ppRgn, const RECT* pRect) {
    if (!ppRgn || !pRect) return KS_INVALID_PARAMETER;
    return rgn::fromRect(*pRect, ppRgn);
}

KAPI int32_t K_CopyOrvaRgn(OrvaRgn** ppDst, const OrvaRgn* pSrc) {
    if (!ppDst) return KS_INVALID_PARAMETER;
    if (!pSrc) {
        *ppDst = nullptr;
        return KS_SUCCESS;
    }
    return rgn::copy(pSrc, ppDst);
}

KAPI int32_t K_DeleteOrvaRgn(OrvaRgn* pRgn) {
    if (!pRgn) return KS_INVALID_PARAMETER;
    rgn::destroy(pRgn);
    return KS_SUCCESS;
}

KAPI int32_t K_OffsetOrvaRgn(OrvaRgn* pRgn, int32_t dx, int32_t dy) {
    if (!pRgn) return KS_INVALID_PARAMETER;
    return rgn::offset(pRgn, dx, dy);
}

KAPI int32_t K_CombineOrvaRgn(OrvaRgn** ppDst, const OrvaRgn* pSrc1, const OrvaRgn* pSrc2, int32_t nOp) {
    if (!ppDst || !pSrc1 || (!pSrc2 && nOp != RGN_COPY)) return KS_INVALID_PARAMETER;
    if (nOp < RGN_AND || nOp > RGN_COPY) return KS_INVALID_PARAMETER;
    OrvaRgn* res = nullptr;
    int32_t st = rgn::combine(pSrc1, pSrc2 ? pSrc2 : pSrc1, nOp, &res, *ppDst);
    if (st != KS_SUCCESS) return st;
    if (*ppDst) {
        rgn::adopt(*ppDst, res);
    } else {
        *ppDst = res;
    }
    return KS_SUCCESS;
}

KAPI int32_t K_IsPtInOrvaRgn(const OrvaRgn* pRgn, int32_t x, int32_t y, int32_t* pnX1, int32_t* pnX2) {
    if (!pRgn) return KS_INVALID_PARAMETER;
    return rgn::pointIn(pRgn, x, y, pnX1, pnX2) ? 1 : 0;
}

KAPI int32_t K_GetOrvaRgnBounds(const OrvaRgn* pRgn, RECT* pRect) {
    if (!pRgn || !pRect) return KS_INVALID_PARAMETER;
    *pRect = pRgn->rcBounds;
    return KS_SUCCESS;
}

KAPI int32_t K_ClipOrvaRgnRect(OrvaRgn* pRgn, const RECT* pRect) {
    if (!pRgn || !pRect) return KS_INVALID_PARAMETER;
    return guarded([&] { return rgn::clip(pRgn, *pRect); });
}

KAPI int32_t K_ScaleOrvaRgn(OrvaRgn* pRgn, int32_t nXNum, int32_t nXDen, int32_t nYNum, int32_t nYDen) {
    if (!pRgn) return KS_INVALID_PARAMETER;
    return rgn::scale(pRgn, nXNum, nXDen, nYNum, nYDen);
}

KAPI int32_t K_SegmentsToRegion(OrvaRgn** ppRgn, const POINT* pPoints, const uint8_t* pFlags, int32_t nCount,
                                int32_t nFillMode) {
    if (!ppRgn || (!pPoints && nCount > 0)) return KS_INVALID_PARAMETER;
    if (nCount < 0) return KS_INVALID_PARAMETER;
    return rgn::polygon(pPoints, pFlags, size_t(nCount), nFillMode == WINDING, ppRgn);
}
