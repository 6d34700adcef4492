// dither.cpp - the dithering engine: rows of any pixel format into packed
// palette indices, one row per call, with error diffusion or ordered
// thresholds.
//
// Layers:
//   unpack     a source row in the record's format -> 24-bit BGR through the
//              buffer converter (only for formats that are not already 8-bit
//              samples at a fixed stride)
//   row kernel one method x one quantiser, writes one index byte per pixel
//   pack       index bytes -> the run's output depth (below 8 bits)
// The kernel is chosen once per run (a function pointer in the state), so
// the pixel loops carry no format or method tests.
#include "dither.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "convert.h"
#include "hooks.h"
#include "kernel.h"
#include "memory.h"
#include "palette.h"
#include "settings.h"

namespace krn {

// ---------------------------------------------------------------- tables

const uint8_t kDitherDispersed[8][8] = {
    {0, 128, 32, 160, 8, 136, 40, 168},    {192, 64, 224, 96, 200, 72, 232, 104},
    {48, 176, 16, 144, 56, 184, 24, 152},  {236, 112, 208, 80, 244, 120, 216, 88},
    {12, 140, 44, 172, 4, 132, 36, 164},   {204, 76, 232, 108, 196, 68, 228, 100},
    {60, 188, 28, 156, 52, 180, 20, 148},  {248, 124, 220, 92, 240, 116, 212, 84}};

const uint8_t kDitherClustered[8][8] = {
    {112, 40, 72, 104, 144, 176, 208, 136}, {88, 8, 16, 48, 192, 232, 240, 168},
    {56, 24, 0, 80, 160, 224, 248, 200},    {96, 64, 32, 120, 128, 216, 184, 152},
    {148, 180, 212, 140, 116, 44, 76, 108}, {196, 236, 244, 172, 92, 12, 20, 52},
    {164, 228, 252, 204, 60, 28, 4, 84},    {132, 220, 188, 156, 100, 68, 36, 124}};

namespace {

// Error-diffusion weights, rows downward; dy 0 is the current row (right of
// the pixel). Divisors equal the sum of the weights.
constexpr DitherTap kTaps1[] = {{1, 0, 7}, {-1, 1, 3}, {0, 1, 5}, {1, 1, 1}};
constexpr DitherTap kTaps2[] = {{1, 0, 8},  {2, 0, 4},  {-2, 1, 2}, {-1, 1, 4}, {0, 1, 8}, {1, 1, 4},
                                {2, 1, 2},  {-2, 2, 1}, {-1, 2, 2}, {0, 2, 4},  {1, 2, 2}, {2, 2, 1}};
constexpr DitherTap kTaps3[] = {{1, 0, 8}, {2, 0, 4}, {-2, 1, 2}, {-1, 1, 4},
                                {0, 1, 8}, {1, 1, 4}, {2, 1, 2}};
constexpr DitherTap kTaps4[] = {{1, 0, 5}, {2, 0, 3}, {-2, 1, 2}, {-1, 1, 4}, {0, 1, 5},
                                {1, 1, 4}, {2, 1, 2}, {-1, 2, 2}, {0, 2, 3},  {1, 2, 2}};
constexpr DitherTap kTaps5[] = {{2, 0, 32},  {-3, 1, 12}, {-1, 1, 26}, {1, 1, 30}, {3, 1, 16}, {-2, 2, 12},
                                {0, 2, 26},  {2, 2, 12},  {-3, 3, 5},  {-1, 3, 12}, {1, 3, 12}, {3, 3, 5}};
constexpr DitherTap kTaps6[] = {{1, 0, 7},  {2, 0, 5},  {-2, 1, 3}, {-1, 1, 5}, {0, 1, 7}, {1, 1, 5},
                                {2, 1, 3},  {-2, 2, 1}, {-1, 2, 3}, {0, 2, 5},  {1, 2, 3}, {2, 2, 1}};

template <size_t N>
constexpr int weightSum(const DitherTap (&t)[N]) {
    int s = 0;
    for (const auto& x : t) s += x.w;
    return s;
}
static_assert(weightSum(kTaps1) == 16 && weightSum(kTaps2) == 42 && weightSum(kTaps3) == 32 &&
              weightSum(kTaps4) == 32 && weightSum(kTaps5) == 200 && weightSum(kTaps6) == 48);

// Compile-time description of one error-diffusion method.
template <int M>
struct Method;
#define OMBRIX_DITHER_METHOD(M, TAPS, DIV, ROWS, MARGIN)                     \
    template <>                                                              \
    struct Method<M> {                                                       \
        static constexpr const DitherTap* taps = TAPS;                       \
        static constexpr int count = int(sizeof(TAPS) / sizeof(TAPS[0]));    \
        static constexpr int divisor = DIV;                                  \
        static constexpr int rows = ROWS;                                    \
        static constexpr int margin = MARGIN;                                \
    };
OMBRIX_DITHER_METHOD(1, kTaps1, 16, 1, 1)
OMBRIX_DITHER_METHOD(2, kTaps2, 42, 2, 2)
OMBRIX_DITHER_METHOD(3, kTaps3, 32, 1, 2)
OMBRIX_DITHER_METHOD(4, kTaps4, 32, 2, 2)
OMBRIX_DITHER_METHOD(5, kTaps5, 200, 3, 3)
OMBRIX_DITHER_METHOD(6, kTaps6, 48, 2, 2)
#undef OMBRIX_DITHER_METHOD

// ------------------------------------------------------ fixed quantisers

constexpr uint8_t kL4[4] = {0, 85, 170, 255};
constexpr uint8_t kL6[6] = {0, 51, 102, 153, 204, 255};
constexpr uint8_t kL8[8] = {0, 36, 73, 109, 146, 182, 219, 255};

// Index of the level nearest to c; on an exact tie the lower level.
template <size_t N>
constexpr int nearestLevel(const uint8_t (&lv)[N], int c) {
    int best = 0;
    int bestD = 1 << 30;
    for (size_t i = 0; i < N; ++i) {
        int d = c > lv[i] ? c - lv[i] : lv[i] - c;
        if (d < bestD) {
            bestD = d;
            best = int(i);
        }
    }
    return best;
}

// Per-channel contributions for the separable fixed palettes (codes 4, 6..10):
// index = lut[code][0][r] + lut[code][1][g] + lut[code][2][b].
struct SepLuts {
    uint8_t v[11][3][256]{};
    constexpr SepLuts() {
        for (int c = 0; c < 256; ++c) {
            const int hi = c >= 128 ? 1 : 0;  // {0, 255}
            const int n4 = nearestLevel(kL4, c), n6 = nearestLevel(kL6, c), n8 = nearestLevel(kL8, c);
            set(kCodeFixed8, c, hi << 2, hi << 1, hi);
            set(kCodeFixed32, c, n4 << 3, n4 << 1, hi);
            set(kCodeFixed64, c, n4 << 4, n4 << 2, n4);
            set(kCodeFixed128, c, n4 << 5, n8 << 2, n4);
            set(kCodeFixed256, c, n8 << 5, n8 << 2, n4);
            set(kCodeWeb, c, n6 * 36, n6 * 6, n6);
        }
    }
    constexpr void set(int code, int c, int r, int g, int b) {
        v[code][0][c] = uint8_t(r);
        v[code][1][c] = uint8_t(g);
        v[code][2][c] = uint8_t(b);
    }
};
constexpr SepLuts kSep{};

// The palette entry's value of each channel for the separable palettes:
// the level the channel was quantised to.
struct SepValues {
    uint8_t v[11][3][256]{};
    constexpr SepValues() {
        for (int c = 0; c < 256; ++c) {
            const int hi = c >= 128 ? 255 : 0;
            const int l4 = kL4[nearestLevel(kL4, c)], l6 = kL6[nearestLevel(kL6, c)], l8 = kL8[nearestLevel(kL8, c)];
            set(kCodeFixed8, c, hi, hi, hi);
            set(kCodeFixed32, c, l4, l4, hi);
            set(kCodeFixed64, c, l4, l4, l4);
            set(kCodeFixed128, c, l4, l8, l4);
            set(kCodeFixed256, c, l8, l8, l4);
            set(kCodeWeb, c, l6, l6, l6);
        }
    }
    constexpr void set(int code, int c, int r, int g, int b) {
        v[code][0][c] = uint8_t(r);
        v[code][1][c] = uint8_t(g);
        v[code][2][c] = uint8_t(b);
    }
};
constexpr SepValues kSepValue{};

constexpr int grey8Sum(int r, int g, int b) { return 5 * g + 2 * (r + 2) + b; }

// The sixteen-colour palette is {0,128}^3 (black .. grey 128, indices 0..7),
// {0,255}^3 without black (9..15) and silver (8). The nearest entry is the
// nearest of three candidates, each of which is separable.
inline int quantiseSixteen(int r, int g, int b) noexcept {
    auto sq = [](int x) { return x * x; };
    const int dr = r >= 64, dg = g >= 64, db = b >= 64;
    const int dDark = sq(r - 128 * dr) + sq(g - 128 * dg) + sq(b - 128 * db);
    const int br = r >= 128, bg = g >= 128, bb = b >= 128;
    const int dBright = sq(r - 255 * br) + sq(g - 255 * bg) + sq(b - 255 * bb);
    const int dSilver = sq(r - 192) + sq(g - 192) + sq(b - 192);
    const int iDark = dr | dg << 1 | db << 2;
    const int m = br | bg << 1 | bb << 2;
    const int iBright = m ? 8 + m : 0;
    int best = iDark, bestD = dDark;
    if (dSilver < bestD || (dSilver == bestD && 8 < best)) best = 8, bestD = dSilver;
    if (dBright < bestD || (dBright == bestD && iBright < best)) best = iBright, bestD = dBright;
    return best;
}

// The web palette holds black at 0 and at 216..255. The nearest-colour rule
// moves to a later equal entry when its hue class matches the target's, so
// for every colour but black itself it answers 255 when the target's hue
// class is 0 (that of black) and 0 otherwise; the direct path does the same.
inline int webBlack(int i, int r, int g, int b) noexcept {
    return (i == 0 && (r | g | b) && hueClass(r, g, b) == 0) ? 255 : i;
}

}  // namespace

int quantiseFixed(int code, int r, int g, int b) noexcept {
    switch (code) {
        case kCodeFixed2: return grey8Sum(r, g, b) >> 10;
        case kCodeFixed4: return grey8Sum(r, g, b) >> 9;
        case kCodeFixed16: return quantiseSixteen(r, g, b);
        case kCodeFixed8:
        case kCodeFixed32:
        case kCodeFixed64:
        case kCodeFixed128:
        case kCodeFixed256: return kSep.v[code][0][r] + kSep.v[code][1][g] + kSep.v[code][2][b];
        case kCodeWeb: return webBlack(kSep.v[code][0][r] + kSep.v[code][1][g] + kSep.v[code][2][b], r, g, b);
        default: return -1;
    }
}

int fixedPaletteCode(const RGBQUAD* pal, uint32_t n) noexcept {
    if (!pal) return -1;
    for (int d = 1; d <= 8; ++d) {
        if (n == (1u << d)) {
            if (std::memcmp(pal, fixedPalette(d), n * sizeof(RGBQUAD)) == 0) return kCodeFixed2 + d - 1;
            if (d == 8 && std::memcmp(pal, webPalette(), n * sizeof(RGBQUAD)) == 0) return kCodeWeb;
            return -1;
        }
    }
    return -1;
}

DitherTaps ditherTaps(int method) noexcept {
    switch (method) {
        case 1: return {kTaps1, 4, 16, 1, 1};
        case 2: return {kTaps2, 12, 42, 2, 2};
        case 3: return {kTaps3, 7, 32, 1, 2};
        case 4: return {kTaps4, 10, 32, 2, 2};
        case 5: return {kTaps5, 12, 200, 3, 3};
        case 6: return {kTaps6, 12, 48, 2, 2};
        default: return {nullptr, 0, 0, 0, 0};
    }
}

// ---------------------------------------------------------------- state

namespace {

struct DitherState;
using RowFn = void (*)(DitherState& s, const uint8_t* src, uint8_t* idx);

constexpr uint32_t kStateMagic = 0x44495448u;  // "DITH"
constexpr int32_t kMaxWidth = (1 << 29) - 1;

struct DitherState {
    uint32_t magic;
    int32_t method;
    int32_t width;
    int32_t srcBits;
    int32_t srcOrder;
    int32_t lowBit;            // grey window of the source (the record's nLowBit..nHighBit)
    int32_t highBit;
    size_t srcRowBytes;
    int32_t outBits;
    int32_t code;
    int32_t colors;      // uColors of the run
    int32_t usableCount;
    RGBQUAD usable[256];       // usable target entries, palette index in rgbReserved
    int32_t colour[256][3];    // r, g, b of every palette index (black past the palette)
    RGBQUAD srcPalette[256];   // for 1..8-bit sources
    const uint32_t* table;     // codes 0 and 1: the run's quantisation table (ownedTable)
    uint32_t* ownedTable;
    int32_t* rowBlock;         // error rows: (rowsBelow + 1) rows of (width + 2*margin) * 3
    int32_t* rows[4];          // rows[0] current, rows[k] k rows below
    int32_t rowsBelow;
    int32_t margin;
    uint32_t line;             // rows dithered so far (ordered tables)
    uint8_t* scratch;          // BGR row for unpacked sources, then the index row
    uint8_t* bgrRow;
    uint8_t* indexRow;
    // Source reading: 8-bit samples at a fixed stride (after unpacking if needed).
    int32_t stride, ro, go, bo;
    bool unpack;
    bool kernelWritesWholeRow;  // the kernel stores the row below entirely (no clearing)
    bool kernelPacks;           // the kernel writes the packed destination row itself
    // Grey runs: a grey source into an all-grey target keeps the three
    // channels equal, so one channel is diffused (same results, a third of
    // the work). Rows are then one 8-bit grey byte per pixel.
    bool grey;
    bool greyByLut;             // 8-bit palette source: grey from greyOfIndex
    bool greyIsIndex;           // ... and that table is the identity (a grey ramp): rows are read as they are
    uint8_t greyOfIndex[256];   // source palette index -> grey
    uint8_t greyIndex[256];     // grey -> target index
    uint8_t greyValue[256];     // grey -> the target entry's grey
    // Ordered methods.
    bool twoColour;
    int32_t darkIndex, brightIndex, darkGrey, brightGrey;
    int16_t bias[3][64];       // per channel, per table cell
    RowFn kernel;
    // Whole-image runs (ditherRows): the rows between the rows of a block
    // and, for sources that are not read as they are, the block's grey rows.
    int32_t* waveRows;
    uint8_t* waveGrey;
};

inline int clamp255(int v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

// ---- quantisers: index(state, r, g, b) -> palette index;
//      value(state, i, r, g, b, q) -> the chosen entry's r, g, b in q.

struct QByColour {
    static void value(const DitherState& s, int i, int, int, int, int* q) noexcept {
        q[0] = s.colour[i][0], q[1] = s.colour[i][1], q[2] = s.colour[i][2];
    }
};
// The run's quantisation table: 32768 words over the 5-5-5 grid, each the
// palette index (low byte, already within the output depth) and that entry's
// red, green and blue (bytes 1..3), so the error needs no second lookup.
inline uint32_t tableWord(const DitherState& s, int r, int g, int b) noexcept {
    return s.table[(b >> 3) | ((g & 0xF8) << 2) | ((r & 0xF8) << 7)];
}
struct QTable {
    static int index(const DitherState& s, int r, int g, int b) noexcept { return int(tableWord(s, r, g, b) & 0xFFu); }
    static void value(const DitherState& s, int, int r, int g, int b, int* q) noexcept {
        const uint32_t w = tableWord(s, r, g, b);
        q[0] = int((w >> 8) & 0xFFu), q[1] = int((w >> 16) & 0xFFu), q[2] = int(w >> 24);
    }
};
struct QGrey2 {
    static int index(const DitherState&, int r, int g, int b) noexcept { return grey8Sum(r, g, b) >> 10; }
    static void value(const DitherState&, int i, int, int, int, int* q) noexcept { q[0] = q[1] = q[2] = -i & 255; }
};
struct QGrey4 : QByColour {
    static int index(const DitherState&, int r, int g, int b) noexcept { return grey8Sum(r, g, b) >> 9; }
};
struct QSixteen : QByColour {
    static int index(const DitherState&, int r, int g, int b) noexcept { return quantiseSixteen(r, g, b); }
};
template <int Code>
struct QSep {
    static int index(const DitherState&, int r, int g, int b) noexcept {
        const int i = kSep.v[Code][0][r] + kSep.v[Code][1][g] + kSep.v[Code][2][b];
        if constexpr (Code == kCodeWeb) return webBlack(i, r, g, b);
        return i;
    }
    static void value(const DitherState&, int, int r, int g, int b, int* q) noexcept {
        q[0] = kSepValue.v[Code][0][r], q[1] = kSepValue.v[Code][1][g], q[2] = kSepValue.v[Code][2][b];
    }
};

// ---- row kernels (one byte per index into `out`)

template <class Q>
void nearestRow(DitherState& s, const uint8_t* src, uint8_t* out) {
    const int w = s.width, st = s.stride, ro = s.ro, go = s.go, bo = s.bo;
    for (int x = 0; x < w; ++x, src += st) out[x] = uint8_t(Q::index(s, src[ro], src[go], src[bo]));
}

template <int M, class Q>
void diffuseRow(DitherState& s, const uint8_t* src, uint8_t* out) {
    using K = Method<M>;
    const int w = s.width, st = s.stride, ro = s.ro, go = s.go, bo = s.bo;
    int32_t* row[K::rows + 1];
    for (int k = 0; k <= K::rows; ++k) row[k] = s.rows[k] + K::margin * 3;
    int32_t* cur = row[0];
    for (int x = 0; x < w; ++x, src += st) {
        int32_t* a = cur + 3 * x;
        // One division per pixel and channel, truncating toward zero.
        const int r = clamp255(src[ro] + a[0] / K::divisor);
        const int g = clamp255(src[go] + a[1] / K::divisor);
        const int b = clamp255(src[bo] + a[2] / K::divisor);
        const int i = Q::index(s, r, g, b);
        out[x] = uint8_t(i);
        int q[3];
        Q::value(s, i, r, g, b, q);
        const int er = r - q[0], eg = g - q[1], eb = b - q[2];
        for (int t = 0; t < K::count; ++t) {
            int32_t* d = row[K::taps[t].dy] + 3 * (x + K::taps[t].dx);
            const int wt = K::taps[t].w;
            d[0] += wt * er;
            d[1] += wt * eg;
            d[2] += wt * eb;
        }
    }
}

// Floyd-Steinberg with the row below kept in registers: each entry of the
// row below is written once, when no later pixel of this row can reach it.
// Same arithmetic as diffuseRow<1, Q> (the tests compare the two).
template <class Q>
void floydRow(DitherState& s, const uint8_t* src, uint8_t* out) {
    const int w = s.width, st = s.stride, ro = s.ro, go = s.go, bo = s.bo;
    const int32_t* cur = s.rows[0] + 3;
    int32_t* below = s.rows[1] + 3;
    int32_t cr = 0, cg = 0, cb = 0;        // carried from the left (weight 7)
    int32_t p0r = 0, p0g = 0, p0b = 0;     // below[x - 1] being completed
    int32_t p1r = 0, p1g = 0, p1b = 0;     // below[x]
    for (int x = 0; x < w; ++x, src += st) {
        const int r = clamp255(src[ro] + (cur[3 * x] + cr) / 16);
        const int g = clamp255(src[go] + (cur[3 * x + 1] + cg) / 16);
        const int b = clamp255(src[bo] + (cur[3 * x + 2] + cb) / 16);
        const int i = Q::index(s, r, g, b);
        out[x] = uint8_t(i);
        int q[3];
        Q::value(s, i, r, g, b, q);
        const int er = r - q[0], eg = g - q[1], eb = b - q[2];
        cr = 7 * er, cg = 7 * eg, cb = 7 * eb;
        // below[x-1] gets its last part (3e) and is stored; below[x] += 5e,
        // below[x+1] = 1e are held. Only this row reaches the row below, so
        // stores replace: the kernel writes every entry, margins included,
        // and needs no cleared row.
        int32_t* d = below + 3 * (x - 1);
        d[0] = p0r + 3 * er;
        d[1] = p0g + 3 * eg;
        d[2] = p0b + 3 * eb;
        p0r = p1r + 5 * er, p0g = p1g + 5 * eg, p0b = p1b + 5 * eb;
        p1r = er, p1g = eg, p1b = eb;
    }
    // Flush the two entries still held: below[w-1] and the margin below[w].
    int32_t* d = below + 3 * (w - 1);
    d[0] = p0r, d[1] = p0g, d[2] = p0b;
    d[3] = p1r, d[4] = p1g, d[5] = p1b;
}

// ---- Floyd-Steinberg carry tables
// The only serial dependency of a Floyd-Steinberg row is the error carried
// to the right: u = s + trunc((a + 7e) / 16), e' = err(clamp(u)), with a the
// sum the row above left and s the sample. With q = a + 7e and
// z = q + 16 s, u is floor(z / 16) when q >= 0 and ceil(z / 16) when q < 0,
// so two tables over z hold 7e' ready: per pixel and channel the chain is one
// add, one select and one load instead of a division, a clamp, a lookup, a
// subtraction and a multiply. Each entry also holds the clamped value
// (bits 16..23), which the quantiser needs off the chain. The level sets are those of the separable
// palettes; the largest error of a set (half its widest gap) bounds every
// sum a row can carry (|a| <= 9 emax, |7e| <= 7 emax), hence the tables'
// range of z.
enum LevelSet { kSet2, kSet4, kSet6, kSet8 };
template <int Set>
struct CarryTable {
    static constexpr int kEMax = Set == kSet2 ? 127 : Set == kSet4 ? 42 : Set == kSet6 ? 25 : 18;
    static constexpr int kLow = -16 * kEMax;  // smallest z
    static constexpr int kSize = 32 * kEMax + 16 * 255 + 1;
    uint32_t pos[kSize], neg[kSize];  // 7e' in the low 16 bits, clamp(u) in 16..23, e' in 24..31
    static int value(int r) {
        switch (Set) {
            case kSet2: return r >= 128 ? 255 : 0;
            case kSet4: return kL4[nearestLevel(kL4, r)];
            case kSet6: return kL6[nearestLevel(kL6, r)];
            default: return kL8[nearestLevel(kL8, r)];
        }
    }
    static uint32_t entry(int r) {
        const int e = r - value(r);  // |e| <= 127: one signed byte
        return uint32_t(uint16_t(int16_t(7 * e))) | uint32_t(r) << 16 | uint32_t(uint8_t(int8_t(e))) << 24;
    }
    CarryTable() noexcept {
        for (int i = 0; i < kSize; ++i) {
            const int z = i + kLow;
            // floor and ceil of z / 16 (z may be negative).
            const int fl = z >= 0 ? z / 16 : -((-z + 15) / 16);
            const int ce = z >= 0 ? (z + 15) / 16 : -(-z / 16);
            const int rf = clamp255(fl), rc = clamp255(ce);
            pos[i] = entry(rf);
            neg[i] = entry(rc);
        }
    }
};
template <int Set>
const CarryTable<Set>& carryTable() noexcept {
    static const CarryTable<Set> t;
    return t;
}
// The level set of each channel of the separable fixed palettes.
constexpr int levelSetOf(int code, int ch) {
    switch (code) {
        case kCodeFixed8: return kSet2;
        case kCodeFixed32: return ch == 2 ? kSet2 : kSet4;
        case kCodeFixed64: return kSet4;
        case kCodeFixed128: return ch == 1 ? kSet8 : kSet4;
        case kCodeFixed256: return ch == 2 ? kSet4 : kSet8;
        default: return kSet6;  // web
    }
}

// One channel of one pixel through its carry table: c is 7e of the pixel
// to the left on entry and of this pixel on return; returns the clamped
// value.
struct CarryStep {
    const uint32_t* pos;
    const uint32_t* neg;
    template <int Set>
    static CarryStep of() noexcept {
        const CarryTable<Set>& t = carryTable<Set>();
        return {t.pos - CarryTable<Set>::kLow, t.neg - CarryTable<Set>::kLow};
    }
    // sample is 0..255: 16 * sample is formed in 32 bits and widened for free.
    int operator()(int a, int sample, int& c) const noexcept {
#if defined(__x86_64__)
        // The sign of q is as often one way as the other: a branch would
        // mispredict, so the table is selected with a conditional move on
        // the flags of the add itself, and the index stays 64-bit (no
        // widening on the chain).
        int64_t q = a, z;
        int64_t cc = c;
        const uint32_t* t = pos;
        uint32_t v;
        __asm__("add %[c], %[q]\n\t"
                "cmovs %[n], %[t]\n\t"
                "lea (%[q],%[s16]), %[z]\n\t"
                "movswq (%[t],%[z],4), %[c]\n\t"
                "movzbl 2(%[t],%[z],4), %[v]"
                : [q] "+&r"(q), [c] "+&r"(cc), [t] "+&r"(t), [z] "=&r"(z), [v] "=&r"(v)
                : [n] "r"(neg), [s16] "r"(int64_t(uint32_t(sample) << 4))
                : "cc");
        c = int(cc);
        return int(v);
#else
        const int q = a + c;
        const int z = q + 16 * sample;
        const uint32_t entry = (q < 0 ? neg : pos)[z];
        c = int16_t(entry);
        return int((entry >> 16) & 0xFFu);
#endif
    }
    // The same step that also gives this pixel's error e (not 7e).
    int operator()(int a, int sample, int& c, int& e) const noexcept {
#if defined(__x86_64__)
        int64_t q = a, z;
        int64_t cc = c;
        const uint32_t* t = pos;
        uint32_t v;
        int32_t ee;
        __asm__("add %[c], %[q]\n\t"
                "cmovs %[n], %[t]\n\t"
                "lea (%[q],%[s16]), %[z]\n\t"
                "movswq (%[t],%[z],4), %[c]\n\t"
                "movzbl 2(%[t],%[z],4), %[v]\n\t"
                "movsbl 3(%[t],%[z],4), %[e]"
                : [q] "+&r"(q), [c] "+&r"(cc), [t] "+&r"(t), [z] "=&r"(z), [v] "=&r"(v), [e] "=&r"(ee)
                : [n] "r"(neg), [s16] "r"(int64_t(uint32_t(sample) << 4))
                : "cc");
        c = int(cc);
        e = ee;
        return int(v);
#else
        const int q = a + c;
        const int z = q + 16 * sample;
        const uint32_t entry = (q < 0 ? neg : pos)[z];
        c = int16_t(entry);
        e = int8_t(entry >> 24);
        return int((entry >> 16) & 0xFFu);
#endif
    }
};

// Floyd-Steinberg into a separable fixed palette through the carry tables.
// Same arithmetic as floydRow<QSep<Code>> (the tests compare the two).
template <int Code>
void floydSepRow(DitherState& s, const uint8_t* src, uint8_t* out) {
    using Q = QSep<Code>;
    const CarryStep tr = CarryStep::of<levelSetOf(Code, 0)>();
    const CarryStep tg = CarryStep::of<levelSetOf(Code, 1)>();
    const CarryStep tb = CarryStep::of<levelSetOf(Code, 2)>();
    const int w = s.width, st = s.stride, ro = s.ro, go = s.go, bo = s.bo;
    const int32_t* cur = s.rows[0] + 3;
    int32_t* below = s.rows[1] + 3;
    int cr = 0, cg = 0, cb = 0;         // 7e of the pixel to the left
    int32_t p0r = 0, p0g = 0, p0b = 0;  // below[x - 1] being completed
    int32_t p1r = 0, p1g = 0, p1b = 0;  // below[x]
    for (int x = 0; x < w; ++x, src += st) {
        const int r = tr(cur[3 * x], src[ro], cr);
        const int g = tg(cur[3 * x + 1], src[go], cg);
        const int b = tb(cur[3 * x + 2], src[bo], cb);
        out[x] = uint8_t(Q::index(s, r, g, b));
        const int er = r - kSepValue.v[Code][0][r], eg = g - kSepValue.v[Code][1][g],
                  eb = b - kSepValue.v[Code][2][b];
        int32_t* d = below + 3 * (x - 1);
        d[0] = p0r + 3 * er;
        d[1] = p0g + 3 * eg;
        d[2] = p0b + 3 * eb;
        p0r = p1r + 5 * er, p0g = p1g + 5 * eg, p0b = p1b + 5 * eb;
        p1r = er, p1g = eg, p1b = eb;
    }
    int32_t* d = below + 3 * (w - 1);
    d[0] = p0r, d[1] = p0g, d[2] = p0b;
    d[3] = p1r, d[4] = p1g, d[5] = p1b;
}

// Floyd-Steinberg to black and white (code 2) with the indices packed
// straight into the 1-bit destination row; otherwise floydRow<QGrey2>.
void floydBlackWhiteRow(DitherState& s, const uint8_t* src, uint8_t* dst) {
    const int w = s.width, st = s.stride, ro = s.ro, go = s.go, bo = s.bo;
    const int32_t* cur = s.rows[0] + 3;
    int32_t* below = s.rows[1] + 3;
    int32_t cr = 0, cg = 0, cb = 0;
    int32_t p0r = 0, p0g = 0, p0b = 0;
    int32_t p1r = 0, p1g = 0, p1b = 0;
    uint32_t bits = 0;
    for (int x = 0; x < w; ++x, src += st) {
        const int r = clamp255(src[ro] + (cur[3 * x] + cr) / 16);
        const int g = clamp255(src[go] + (cur[3 * x + 1] + cg) / 16);
        const int b = clamp255(src[bo] + (cur[3 * x + 2] + cb) / 16);
        // All ones for white (the sum is below 2048, so >> 10 is 0 or 1).
        const int white = (1023 - grey8Sum(r, g, b)) >> 31;
        bits = bits << 1 | uint32_t(white & 1);
        if ((x & 7) == 7) *dst++ = uint8_t(bits);
        const int q = white & 255;
        const int er = r - q, eg = g - q, eb = b - q;
        // The carries from 7 * value, which is ready before the choice.
        const int c7 = white & (7 * 255);
        cr = 7 * r - c7, cg = 7 * g - c7, cb = 7 * b - c7;
        int32_t* d = below + 3 * (x - 1);
        d[0] = p0r + 3 * er;
        d[1] = p0g + 3 * eg;
        d[2] = p0b + 3 * eb;
        p0r = p1r + 5 * er, p0g = p1g + 5 * eg, p0b = p1b + 5 * eb;
        p1r = er, p1g = eg, p1b = eb;
    }
    if (w & 7) *dst = uint8_t(bits << (8 - (w & 7)));
    int32_t* d = below + 3 * (w - 1);
    d[0] = p0r, d[1] = p0g, d[2] = p0b;
    d[3] = p1r, d[4] = p1g, d[5] = p1b;
}

template <class Q>
void orderedRow(DitherState& s, const uint8_t* src, uint8_t* out) {
    const int w = s.width, st = s.stride, ro = s.ro, go = s.go, bo = s.bo;
    const int cellRow = int(s.line & 7) * 8;
    const int16_t* br = s.bias[0] + cellRow;
    const int16_t* bg = s.bias[1] + cellRow;
    const int16_t* bb = s.bias[2] + cellRow;
    for (int x = 0; x < w; ++x, src += st) {
        const int c = x & 7;
        out[x] = uint8_t(Q::index(s, clamp255(src[ro] + br[c]), clamp255(src[go] + bg[c]),
                                  clamp255(src[bo] + bb[c])));
    }
}

// Two target colours: the brighter one where the grey exceeds the cell's
// threshold scaled between the two entries' greys (for black and white the
// threshold itself).
void orderedTwoRow(DitherState& s, const uint8_t* src, uint8_t* out) {
    const int w = s.width, st = s.stride, ro = s.ro, go = s.go, bo = s.bo;
    const uint8_t* t = (s.method == 7 ? kDitherDispersed : kDitherClustered)[s.line & 7];
    const int lo = s.darkGrey, span = s.brightGrey - s.darkGrey;
    int32_t thr[8];
    for (int c = 0; c < 8; ++c) thr[c] = lo + t[c] * span / 255;
    const auto dark = uint8_t(s.darkIndex), bright = uint8_t(s.brightIndex);
    for (int x = 0; x < w; ++x, src += st) {
        const int grey = grey8Sum(src[ro], src[go], src[bo]) >> 3;
        out[x] = grey > thr[x & 7] ? bright : dark;
    }
}

// ---- grey kernels: one channel, rows of one byte per pixel

template <int M>
void greyDiffuseRow(DitherState& s, const uint8_t* src, uint8_t* out) {
    using K = Method<M>;
    const int w = s.width;
    int32_t* row[K::rows + 1];
    for (int k = 0; k <= K::rows; ++k) row[k] = s.rows[k] + K::margin;
    for (int x = 0; x < w; ++x) {
        const int v = clamp255(src[x] + row[0][x] / K::divisor);
        out[x] = s.greyIndex[v];
        const int e = v - s.greyValue[v];
        for (int t = 0; t < K::count; ++t) row[K::taps[t].dy][x + K::taps[t].dx] += K::taps[t].w * e;
    }
}

// Same arithmetic as greyDiffuseRow<1>, the row below held in registers.
void greyFloydRow(DitherState& s, const uint8_t* src, uint8_t* out) {
    const int w = s.width;
    const int32_t* cur = s.rows[0] + 1;
    int32_t* below = s.rows[1] + 1;
    int32_t carry = 0, p0 = 0, p1 = 0;
    for (int x = 0; x < w; ++x) {
        const int v = clamp255(src[x] + (cur[x] + carry) / 16);
        out[x] = s.greyIndex[v];
        const int e = v - s.greyValue[v];
        carry = 7 * e;
        below[x - 1] = p0 + 3 * e;
        p0 = p1 + 5 * e;
        p1 = e;
    }
    below[w - 1] = p0;
    below[w] = p1;
}

// Black and white (the fixed two-colour palette) from grey: the index is
// v >= 128, the error is measured from the clamped value, and the indices are
// packed straight into the 1-bit destination row. The carry to the right goes
// through the carry tables of the two levels. Same results as greyFloydRow
// with the two-colour tables.
void greyFloydBlackWhiteRow(DitherState& s, const uint8_t* src, uint8_t* dst) {
    const CarryStep step = CarryStep::of<kSet2>();
    const int w = s.width;
    const int32_t* cur = s.rows[0] + 1;
    int32_t* below = s.rows[1] + 1;
    int c = 0;  // 7e of the pixel to the left
    int32_t p0 = 0, p1 = 0;
    // One pixel: its bit (1 for white); below[x - 1] is complete.
    auto pixel = [&](int x) {
        const int v = step(cur[x], src[x], c);
        const int white = v >> 7;
        const int e = v - (-white & 255);
        below[x - 1] = p0 + 3 * e;
        p0 = p1 + 5 * e;
        p1 = e;
        return uint32_t(white);
    };
    int x = 0;
    for (; x + 8 <= w; x += 8) {
        uint32_t bits = 0;
#pragma GCC unroll 8
        for (int k = 0; k < 8; ++k) bits = bits << 1 | pixel(x + k);
        *dst++ = uint8_t(bits);
    }
    if (x < w) {
        uint32_t bits = 0;
        for (int k = x; k < w; ++k) bits = bits << 1 | pixel(k);
        *dst = uint8_t(bits << (8 - (w - x)));
    }
    below[w - 1] = p0;
    below[w] = p1;
}

// ---- whole images: several rows of the black-and-white grey kernel at once
// Pixel (x, y) needs (x - 1, y) and the row above up to x + 1, so in a block
// of R rows row k can run a fixed distance behind row k - 1: here one byte
// (8 pixels) of output, so that every row starts and ends its bytes in the
// same step (pixel 8b + i of a row needs the row above through 8b + i + 1,
// and that row is then at 8b + 8 + i). The loop carries R independent
// chains, which the CPU overlaps; the arithmetic of each row is that of
// greyFloydBlackWhiteRow (the tests compare the two bit for bit).
constexpr int kLag = 1;  // bytes between a row and the one below it

struct BwLane {
    const uint8_t* src;
    const int32_t* cur;  // the errors this row receives
    int32_t* below;      // the errors it passes down
    uint8_t* dst;
    int c;               // 7e of the pixel to the left
    int32_t p0, p1;      // below[x - 1] being completed, below[x]
};

__attribute__((always_inline)) inline uint32_t bwPixel(const CarryStep& step, const uint8_t* src,
                                                       const int32_t* cur, int32_t* below, int& c, int32_t& p0,
                                                       int32_t& p1, ptrdiff_t x) {
    int e;
    const int v = step(cur[x], src[x], c, e);
    below[x - 1] = p0 + 3 * e;
    p0 = p1 + 5 * e;
    p1 = e;
    return uint32_t(v) >> 7;
}

// Groups g0 .. g1 - 1 where every row is on a whole byte (row k on byte
// g - k): the lanes in locals, every row indexed by the same x (its
// pointers moved back by its lag), one pixel of each row in turn.
template <int R>
void bwSteady(const CarryStep step, BwLane* lane, int g0, int g1) {
    const uint8_t* src[R];
    const int32_t* cur[R];
    int32_t* below[R];
    uint8_t* dst[R];
    int c[R];
    int32_t p0[R], p1[R];
    for (int k = 0; k < R; ++k) {
        const ptrdiff_t back = ptrdiff_t(8 * kLag * k);
        src[k] = lane[k].src - back, cur[k] = lane[k].cur - back, below[k] = lane[k].below - back;
        dst[k] = lane[k].dst - kLag * k;
        c[k] = lane[k].c, p0[k] = lane[k].p0, p1[k] = lane[k].p1;
    }
    for (int g = g0; g < g1; ++g) {
        uint32_t bits[R] = {};
        const ptrdiff_t x0 = ptrdiff_t(8) * g;
#pragma GCC unroll 8
        for (int i = 0; i < 8; ++i) {
#pragma GCC unroll 8
            for (int k = 0; k < R; ++k)
                bits[k] = bits[k] * 2 + bwPixel(step, src[k], cur[k], below[k], c[k], p0[k], p1[k], x0 + i);
        }
        for (int k = 0; k < R; ++k) dst[k][g] = uint8_t(bits[k]);
    }
    for (int k = 0; k < R; ++k) lane[k].c = c[k], lane[k].p0 = p0[k], lane[k].p1 = p1[k];
}

template <int R>
void greyFloydBlackWhiteRows(const uint8_t* const* src, uint8_t* const* dst, int32_t* const* err, int w) {
    const CarryStep step = CarryStep::of<kSet2>();
    BwLane lane[R];
    for (int k = 0; k < R; ++k) lane[k] = {src[k], err[k], err[k + 1], dst[k], 0, 0, 0};
    const int bytes = (w + 7) / 8, full = w / 8;
    // One byte of one row (a short last byte included), and the row's end.
    auto oneByte = [&](BwLane& l, int b) {
        const int n = std::min(8, w - 8 * b);
        uint32_t bits = 0;
        for (int i = 0; i < n; ++i) bits = bits << 1 | bwPixel(step, l.src, l.cur, l.below, l.c, l.p0, l.p1, 8 * b + i);
        l.dst[b] = uint8_t(bits << (8 - n));
        if (8 * b + n == w) {
            l.below[w - 1] = l.p0;
            l.below[w] = l.p1;
        }
    };
    auto group = [&](int g) {
        for (int k = 0; k < R; ++k) {
            const int b = g - kLag * k;
            if (b >= 0 && b < bytes) oneByte(lane[k], b);
        }
    };
    // Rows entering, every row on a whole byte (row 0 not on its last byte,
    // which ends the row), rows leaving.
    const int g0 = kLag * (R - 1), g1 = std::max(g0, full - 1);
    int g = 0;
    for (; g < g0; ++g) group(g);
    if (g1 > g0) bwSteady<R>(step, lane, g0, g1);
    for (g = g1; g < bytes + kLag * (R - 1); ++g) group(g);
}

using RowsFn = void (*)(const uint8_t* const*, uint8_t* const*, int32_t* const*, int);
constexpr int kWaveMax = 8;
constexpr int kDitherWaveRows = 4;  // rows per block by default (measured: docs/dither.md)
RowsFn waveKernel(int rows) {
    switch (rows) {
        case 2: return &greyFloydBlackWhiteRows<2>;
        case 4: return &greyFloydBlackWhiteRows<4>;
        case 8: return &greyFloydBlackWhiteRows<8>;
        default: return nullptr;
    }
}

void greyNearestRow(DitherState& s, const uint8_t* src, uint8_t* out) {
    for (int x = 0; x < s.width; ++x) out[x] = s.greyIndex[src[x]];
}

void greyOrderedRow(DitherState& s, const uint8_t* src, uint8_t* out) {
    const int16_t* b = s.bias[0] + int(s.line & 7) * 8;
    for (int x = 0; x < s.width; ++x) out[x] = s.greyIndex[clamp255(src[x] + b[x & 7])];
}

void greyOrderedTwoRow(DitherState& s, const uint8_t* src, uint8_t* out) {
    const uint8_t* t = (s.method == 7 ? kDitherDispersed : kDitherClustered)[s.line & 7];
    const int lo = s.darkGrey, span = s.brightGrey - s.darkGrey;
    int32_t thr[8];
    for (int c = 0; c < 8; ++c) thr[c] = lo + t[c] * span / 255;
    const auto dark = uint8_t(s.darkIndex), bright = uint8_t(s.brightIndex);
    for (int x = 0; x < s.width; ++x) out[x] = src[x] > thr[x & 7] ? bright : dark;
}

constexpr std::array<RowFn, 9> kGreyKernels = {&greyNearestRow,    &greyFloydRow,      &greyDiffuseRow<2>,
                                               &greyDiffuseRow<3>, &greyDiffuseRow<4>, &greyDiffuseRow<5>,
                                               &greyDiffuseRow<6>, &greyOrderedRow,    &greyOrderedRow};

// The index the run's quantiser gives a colour (outside the row loops).
int quantiseWith(const DitherState& s, int r, int g, int b) {
    switch (s.code) {
        case kCodeBuiltTable:
        case kCodeCallerTable: return QTable::index(s, r, g, b);
        default: return quantiseFixed(s.code, r, g, b);
    }
}

// ---- kernel selection: a constexpr table over (method, quantiser)

enum QKind { kQTable, kQGrey2, kQGrey4, kQSixteen, kQSep8, kQSep32, kQSep64, kQSep128, kQSep256, kQWeb, kQCount };

template <class Q>
constexpr RowFn kernelFor(int method) {
    switch (method) {
        case 0: return &nearestRow<Q>;
        case 1: return &floydRow<Q>;
        case 2: return &diffuseRow<2, Q>;
        case 3: return &diffuseRow<3, Q>;
        case 4: return &diffuseRow<4, Q>;
        case 5: return &diffuseRow<5, Q>;
        case 6: return &diffuseRow<6, Q>;
        default: return &orderedRow<Q>;
    }
}
template <class Q>
constexpr std::array<RowFn, 9> kernelsFor() {
    std::array<RowFn, 9> a{};
    for (int m = 0; m < 9; ++m) a[size_t(m)] = kernelFor<Q>(m);
    return a;
}
constexpr std::array<std::array<RowFn, 9>, kQCount> kKernels = {
    kernelsFor<QTable>(),         kernelsFor<QGrey2>(),         kernelsFor<QGrey4>(),
    kernelsFor<QSixteen>(),       kernelsFor<QSep<kCodeFixed8>>(),  kernelsFor<QSep<kCodeFixed32>>(),
    kernelsFor<QSep<kCodeFixed64>>(), kernelsFor<QSep<kCodeFixed128>>(), kernelsFor<QSep<kCodeFixed256>>(),
    kernelsFor<QSep<kCodeWeb>>()};

// Floyd-Steinberg through the carry tables for the separable palettes (null
// for the other quantisers).
constexpr std::array<RowFn, kQCount> kSepFloyd = {
    nullptr, nullptr, nullptr, nullptr, &floydSepRow<kCodeFixed8>, &floydSepRow<kCodeFixed32>,
    &floydSepRow<kCodeFixed64>, &floydSepRow<kCodeFixed128>, &floydSepRow<kCodeFixed256>, &floydSepRow<kCodeWeb>};

// The plain tap loop for method 1, which tests compare with floydRow.
constexpr std::array<RowFn, kQCount> kPlainFloyd = {
    &diffuseRow<1, QTable>,  &diffuseRow<1, QGrey2>, &diffuseRow<1, QGrey4>,
    &diffuseRow<1, QSixteen>, &diffuseRow<1, QSep<kCodeFixed8>>, &diffuseRow<1, QSep<kCodeFixed32>>,
    &diffuseRow<1, QSep<kCodeFixed64>>, &diffuseRow<1, QSep<kCodeFixed128>>,
    &diffuseRow<1, QSep<kCodeFixed256>>, &diffuseRow<1, QSep<kCodeWeb>>};

QKind quantiserKind(int code) {
    switch (code) {
        case kCodeFixed2: return kQGrey2;
        case kCodeFixed4: return kQGrey4;
        case kCodeFixed8: return kQSep8;
        case kCodeFixed16: return kQSixteen;
        case kCodeFixed32: return kQSep32;
        case kCodeFixed64: return kQSep64;
        case kCodeFixed128: return kQSep128;
        case kCodeFixed256: return kQSep256;
        case kCodeWeb: return kQWeb;
        default: return kQTable;
    }
}

}  // namespace

namespace testhook {
bool ditherPlainKernels = false;
int ditherWaveRows = 0;
}

namespace {

// Index bytes -> packed indices at `bits` (1..7), most significant bit first.
void packRow(const uint8_t* idx, int w, int bits, uint8_t* dst) {
    const uint32_t mask = (1u << bits) - 1u;
    uint32_t acc = 0;
    int have = 0;
    for (int x = 0; x < w; ++x) {
        acc = (acc << bits) | (idx[x] & mask);
        have += bits;
        if (have >= 8) {
            have -= 8;
            *dst++ = uint8_t(acc >> have);
            acc &= (1u << have) - 1u;
        }
    }
    if (have) *dst = uint8_t(acc << (8 - have));
}

bool orderValid(int bits, int order) {
    if (bits <= 8) return order == ORDER_RGB || order == ORDER_BGR || order == ORDER_GRAY;
    switch (bits) {
        case 12: return order == ORDER_GRAY;
        case 16: return order == ORDER_RGB || order == ORDER_BGR || order == ORDER_GRAY || order == ORDER_RGB565;
        case 32: return order == ORDER_RGB || order == ORDER_BGR || order == ORDER_GRAY;
        default: return order == ORDER_RGB || order == ORDER_BGR || order == ORDER_ROMM;  // 24, 48, 64
    }
}

int outputBitsFor(uint32_t colors) {
    int b = 1;
    while ((1u << b) < colors) ++b;
    return b;
}

void freeState(DitherState* s) noexcept {
    if (!s) return;
    memFree(s->ownedTable);
    memFree(s->rowBlock);
    memFree(s->scratch);
    memFree(s->waveRows);
    memFree(s->waveGrey);
    s->magic = 0;
    memFree(s);
}

// Per-channel level spacing used by the ordered methods on palettes of more
// than two colours.
void levelSpacing(int code, int colors, int out[3]) {
    auto all = [&](int v) { out[0] = out[1] = out[2] = v; };
    switch (code) {
        case kCodeFixed4: all(85); return;
        case kCodeFixed8: all(255); return;
        case kCodeFixed16: all(128); return;
        case kCodeFixed32: out[0] = 85, out[1] = 85, out[2] = 255; return;
        case kCodeFixed64: all(85); return;
        case kCodeFixed128: out[0] = 85, out[1] = 36, out[2] = 85; return;
        case kCodeFixed256: out[0] = 36, out[1] = 36, out[2] = 85; return;
        case kCodeWeb: all(51); return;
        default: {
            int levels = 2;  // the cube root of the colour count, rounded
            while ((levels + 1) * (levels + 1) * (levels + 1) <= colors * 2 && levels < 16) ++levels;
            all(255 / (levels - 1));
        }
    }
}

// ---- starting a run: one step per part of the state

// The arguments and the record, before anything is allocated.
int32_t checkRunArguments(BITMAPRECORD* bm, uint32_t uColors, int32_t nBits) {
    int32_t r = checkRecord(bm);
    if (r != KS_SUCCESS) return r;
    if (uColors < 1 || uColors > 256) return KS_INVALID_PARAMETER;
    if (nBits < 1 || nBits > 8 || (1u << nBits) < uColors) return KS_INVALID_PARAMETER;
    const int method = bm->nDitheringMethod;
    if (method < 0 || method > 8) return KS_INVALID_PARAMETER;
    // Row offsets are int arithmetic (3 entries per pixel): keep them in range.
    if (bm->nWidth < 1 || bm->nWidth > kMaxWidth) return KS_INVALID_DIMENSIONS;
    if (!bitsValid(bm->nBitsPerPixel)) return KS_INVALID_BITS_PER_PIXEL;
    if (!orderValid(bm->nBitsPerPixel, bm->nOrder)) return KS_INVALID_PARAMETER;
    return KS_SUCCESS;
}

// The target palette, its code and its usable entries; the caller's or the
// installed match table for code 1 in `callerTable`.
int32_t chooseTarget(DitherState& s, const RGBQUAD* pPalette, uint32_t uColors, const uint32_t* pMatchTable,
                     const uint32_t*& callerTable) {
    const RGBQUAD* pal = pPalette ? pPalette : fixedPalette(outputBitsFor(uColors));
    int code;
    callerTable = pMatchTable;
    if (pMatchTable) {
        code = kCodeCallerTable;
    } else {
        code = fixedPaletteCode(pal, uColors);
        if (code < 0) {
            callerTable = settings().pUserMatchTable;
            code = callerTable ? kCodeCallerTable : kCodeBuiltTable;
        }
    }
    s.code = code;
    for (uint32_t i = 0; i < uColors; ++i) {
        s.colour[i][0] = pal[i].rgbRed;
        s.colour[i][1] = pal[i].rgbGreen;
        s.colour[i][2] = pal[i].rgbBlue;
        const bool usable = code >= kCodeFixed2 || !(pal[i].rgbReserved & 3);
        if (usable) {
            RGBQUAD e = pal[i];
            e.rgbReserved = uint8_t(i);
            s.usable[s.usableCount++] = e;
        }
    }
    return s.usableCount == 0 ? KS_INVALID_PARAMETER : KS_SUCCESS;
}

// Error rows and the scratch rows; how source rows are read.
int32_t allocateRows(DitherState& s, int32_t width) {
    const DitherTaps taps = ditherTaps(s.method);
    s.rowsBelow = taps.rowsBelow;
    s.margin = taps.margin;
    if (taps.count) {
        const size_t rowLen = (size_t(width) + 2 * size_t(taps.margin)) * 3;
        s.rowBlock = static_cast<int32_t*>(memCalloc(rowLen * size_t(taps.rowsBelow + 1) * sizeof(int32_t)));
        if (!s.rowBlock) return KS_NO_MEMORY;
        for (int k = 0; k <= taps.rowsBelow; ++k) s.rows[k] = s.rowBlock + rowLen * size_t(k);
    }
    // Source reading: 8-bit samples in place for 24/32-bit colour, else unpacked.
    const int bits = s.srcBits;
    s.unpack = true;
    if ((bits == 24 || bits == 32) && (s.srcOrder == ORDER_RGB || s.srcOrder == ORDER_BGR)) {
        s.unpack = false;
        s.stride = bits / 8;
        const bool rgb = s.srcOrder == ORDER_RGB;
        s.ro = rgb ? 0 : 2, s.go = 1, s.bo = rgb ? 2 : 0;
    } else {
        s.stride = 3, s.ro = 2, s.go = 1, s.bo = 0;
    }
    // Other formats go through the buffer converter into one row of 24-bit
    // BGR, converted in place, so the row holds the larger of the two sizes.
    // (A grey run, chosen later, converts into depth 0 in the same row.)
    const size_t bgrBytes = s.unpack ? std::max(convertBufferBytes(width, bits, 24), size_t(width) * 3) : 0;
    const size_t idxBytes = size_t(width);
    s.scratch = static_cast<uint8_t*>(memAlloc(bgrBytes + idxBytes + 16));
    if (!s.scratch) return KS_NO_MEMORY;
    s.bgrRow = s.scratch;
    s.indexRow = s.scratch + bgrBytes;
    return KS_SUCCESS;
}

// The source palette and grey window; the converter is asked once, on one
// pixel, whether it takes the source format, so that rows cannot fail later.
int32_t prepareSource(DitherState& s, const BITMAPRECORD* bm) {
    const int bits = s.srcBits;
    if (bits <= 8) {
        const int n = 1 << bits;
        if (bm->pPalette && bm->nColors > 0) {
            std::memcpy(s.srcPalette, bm->pPalette, size_t(std::min(bm->nColors, n)) * sizeof(RGBQUAD));
        } else if (bm->nOrder == ORDER_GRAY) {
            fillGrayRamp(s.srcPalette, uint32_t(n));
        } else {
            std::memcpy(s.srcPalette, fixedPalette(bits), size_t(n) * sizeof(RGBQUAD));
        }
    }
    s.lowBit = bm->nLowBit;
    s.highBit = bm->nHighBit;
    s.srcRowBytes = (size_t(s.width) * size_t(bits) + 7) / 8;
    if (!s.unpack) return KS_SUCCESS;
    uint8_t probe[16] = {};
    return convertRowToBGR24(probe, 1, bits, s.srcOrder, s.srcPalette, kConvertSrcRange, s.lowBit, s.highBit);
}

// Codes 0 and 1: the run's own quantisation table, built from the palette
// (the 5-5-5 match table of the nearest-colour rule) or read once from the
// caller's (or installed) match table, with each entry's colour beside it.
int32_t buildQuantTable(DitherState& s, const uint32_t* callerTable) {
    if (s.code != kCodeBuiltTable && s.code != kCodeCallerTable) return KS_SUCCESS;
    s.ownedTable = static_cast<uint32_t*>(memAlloc(32768 * sizeof(uint32_t)));
    if (!s.ownedTable) return KS_NO_MEMORY;
    const uint32_t mask = (1u << s.outBits) - 1u;
    for (uint32_t k = 0; k < 32768; ++k) {
        uint32_t i;
        if (s.code == kCodeBuiltTable) {
            int32_t j = K_FindPaletteIndex(s.usable, s.usableCount, int32_t((k >> 7) & 0xF8),
                                           int32_t(((k >> 5) & 31) * 8), int32_t((k & 31) * 8));
            i = s.usable[j].rgbReserved;
        } else {
            const uint32_t e = callerTable[k];
            i = (e ? (e - 1u) & 0xFFu : 0u) & mask;  // 0 means "no entry": index 0
        }
        s.ownedTable[k] = i | uint32_t(s.colour[i][0]) << 8 | uint32_t(s.colour[i][1]) << 16 |
                          uint32_t(s.colour[i][2]) << 24;
    }
    s.table = s.ownedTable;
    return KS_SUCCESS;
}

// Ordered methods: the two-colour thresholds or the per-channel biases.
void prepareOrdered(DitherState& s) {
    if (s.method < 7) return;
    s.twoColour = s.usableCount == 2 && s.code != kCodeCallerTable;
    if (s.twoColour) {
        const RGBQUAD& a = s.usable[0];
        const RGBQUAD& b = s.usable[1];
        int ga = grey8Sum(a.rgbRed, a.rgbGreen, a.rgbBlue) >> 3;
        int gb = grey8Sum(b.rgbRed, b.rgbGreen, b.rgbBlue) >> 3;
        const bool aDark = ga <= gb;
        s.darkIndex = aDark ? a.rgbReserved : b.rgbReserved;
        s.brightIndex = aDark ? b.rgbReserved : a.rgbReserved;
        s.darkGrey = aDark ? ga : gb;
        s.brightGrey = aDark ? gb : ga;
        return;
    }
    int spacing[3];
    levelSpacing(s.code, s.code == kCodeCallerTable ? s.colors : s.usableCount, spacing);
    const uint8_t(*t)[8] = s.method == 7 ? kDitherDispersed : kDitherClustered;
    for (int c = 0; c < 3; ++c)
        for (int cell = 0; cell < 64; ++cell)
            s.bias[c][cell] = int16_t(((2 * t[cell >> 3][cell & 7] + 1 - 256) * spacing[c]) / 512);
}

// Whether the run diffuses one grey channel: a grey source (by order or by
// palette) into an all-grey target, in a format the converter brings to 8-bit grey.
bool isGreyRun(DitherState& s, const BITMAPRECORD* bm) {
    const int bits = s.srcBits;
    bool srcGrey = bm->nOrder == ORDER_GRAY && (bits == 12 || bits == 16 || bits == 32);
    if (bits <= 8) {
        srcGrey = true;
        for (int i = 0; i < (1 << bits); ++i) {
            const RGBQUAD& e = s.srcPalette[i];
            srcGrey = srcGrey && e.rgbRed == e.rgbGreen && e.rgbGreen == e.rgbBlue;
            s.greyOfIndex[i] = e.rgbRed;
        }
    }
    bool dstGrey = s.code <= kCodeFixed4;
    for (int i = 0; i < 256 && dstGrey; ++i)
        dstGrey = s.colour[i][0] == s.colour[i][1] && s.colour[i][1] == s.colour[i][2];
    if (!srcGrey || !dstGrey) return false;
    if (bits == 8) return true;
    uint8_t probe[16] = {};
    return convertBuffer(probe, 1, bits, 0, bm->nOrder, ORDER_GRAY, s.srcPalette, nullptr, nullptr,
                         kConvertSrcRange | kConvertDstGray, s.lowBit, s.highBit, 0, nullptr) == KS_SUCCESS;
}

// The row kernel: one channel for grey runs, else by method and quantiser;
// the packing kernels for black and white; the plain tap loop on request.
void chooseKernel(DitherState& s) {
    const int method = s.method, code = s.code;
    const bool blackWhite = method == 1 && code == kCodeFixed2 && s.outBits == 1;
    s.kernelWritesWholeRow = method == 1;
    if (s.grey) {
        for (int v = 0; v < 256; ++v) {
            const int i = quantiseWith(s, v, v, v) & ((1 << s.outBits) - 1);
            s.greyIndex[v] = uint8_t(i);
            s.greyValue[v] = uint8_t(s.colour[i][0]);
        }
        s.greyByLut = s.srcBits == 8;
        s.greyIsIndex = s.greyByLut;
        for (int i = 0; i < 256 && s.greyIsIndex; ++i) s.greyIsIndex = s.greyOfIndex[i] == i;
        s.unpack = true;
        s.kernel = (method >= 7 && s.twoColour) ? &greyOrderedTwoRow : kGreyKernels[size_t(method)];
        if (blackWhite) s.kernel = &greyFloydBlackWhiteRow;
        if (method == 1 && testhook::ditherPlainKernels) s.kernel = &greyDiffuseRow<1>;
    } else if (method >= 7 && s.twoColour) {
        s.kernelWritesWholeRow = false;
        s.kernel = &orderedTwoRow;
        return;
    } else {
        const QKind q = quantiserKind(code);
        s.kernel = kKernels[q][size_t(method)];
        if (method == 1 && kSepFloyd[q]) s.kernel = kSepFloyd[q];
        if (blackWhite) s.kernel = &floydBlackWhiteRow;
        if (method == 1 && testhook::ditherPlainKernels) s.kernel = kPlainFloyd[q];
    }
    s.kernelPacks = blackWhite;
    if (method == 1 && testhook::ditherPlainKernels) s.kernelWritesWholeRow = s.kernelPacks = false;
}

int32_t startRun(BITMAPRECORD* bm, const RGBQUAD* pPalette, uint32_t uColors, int32_t nBits,
                 const uint32_t* pMatchTable) {
    int32_t r = checkRunArguments(bm, uColors, nBits);
    if (r != KS_SUCCESS) return r;
    UniqueMem<DitherState> st(static_cast<DitherState*>(memCalloc(sizeof(DitherState))));
    if (!st) return KS_NO_MEMORY;
    DitherState& s = *st;
    s.magic = kStateMagic;
    s.method = bm->nDitheringMethod;
    s.width = bm->nWidth;
    s.srcBits = bm->nBitsPerPixel;
    s.srcOrder = bm->nOrder;
    s.outBits = nBits;
    s.colors = int32_t(uColors);
    const uint32_t* callerTable = nullptr;
    r = chooseTarget(s, pPalette, uColors, pMatchTable, callerTable);
    if (r == KS_SUCCESS) r = allocateRows(s, s.width);
    if (r == KS_SUCCESS) r = prepareSource(s, bm);
    if (r == KS_SUCCESS) r = buildQuantTable(s, callerTable);
    if (r != KS_SUCCESS) {
        freeState(st.release());
        return r;
    }
    prepareOrdered(s);
    s.grey = isGreyRun(s, bm);
    chooseKernel(s);
    // Commit: replace any earlier run.
    releaseDitherState(bm);
    bm->pDitherState = st.release();
    return KS_SUCCESS;
}

DitherState* runOf(BITMAPRECORD* bm) {
    auto* s = static_cast<DitherState*>(bm->pDitherState);
    if (!s || s->magic != kStateMagic) return nullptr;
    return s;
}

}  // namespace

bool ditherRunIsGrey(const BITMAPRECORD* bm) noexcept {
    auto* s = static_cast<const DitherState*>(bm->pDitherState);
    return s && s->magic == kStateMagic && s->grey;
}

int ditherRunCode(const BITMAPRECORD* bm) noexcept {
    auto* s = static_cast<const DitherState*>(bm->pDitherState);
    return s && s->magic == kStateMagic ? s->code : -1;
}

void releaseDitherState(BITMAPRECORD* bm) noexcept {
    freeState(static_cast<DitherState*>(bm->pDitherState));
    bm->pDitherState = nullptr;
}

}  // namespace krn

using namespace krn;

KAPI int32_t K_StartDithering(BITMAPRECORD* pBitmap, const RGBQUAD* pPalette, uint32_t uColors) {
    int32_t r = checkRecord(pBitmap);
    if (r != KS_SUCCESS) return r;
    if (uColors < 1 || uColors > 256) return KS_INVALID_PARAMETER;
    return startRun(pBitmap, pPalette, uColors, outputBitsFor(uColors), nullptr);
}

KAPI int32_t K_StartDitheringExt(BITMAPRECORD* pBitmap, const RGBQUAD* pPalette, uint32_t uColors, int32_t nBits,
                                 const uint32_t* pMatchTable) {
    return startRun(pBitmap, pPalette, uColors, nBits, pMatchTable);
}

namespace krn {
namespace {

// The record's run, when the record still describes its source format.
DitherState* checkedRun(BITMAPRECORD* bm, int32_t& rc) {
    rc = KS_INVALID_PARAMETER;
    if (!bm) return nullptr;
    if (!recordSizeValid(bm->uStructSize)) {
        rc = KS_INVALID_STRUCT_SIZE;
        return nullptr;
    }
    DitherState* s = runOf(bm);
    if (!s || bm->nWidth != s->width || bm->nBitsPerPixel != s->srcBits || bm->nOrder != s->srcOrder) return nullptr;
    rc = KS_SUCCESS;
    return s;
}

// One row of the run (K_DitherLine after its checks).
// A source row of a grey run as the 8-bit grey the kernels read: the row as
// it is when the indices are the greys (each kernel reads pixel x before it
// writes index x, so in place holds), else through the palette's grey table
// or the converter into buf (room for the converter's work on a row).
int32_t greyRow(const DitherState& s, const uint8_t* row, uint8_t* buf, const uint8_t** out) {
    if (s.greyIsIndex) {
        *out = row;
        return KS_SUCCESS;
    }
    if (s.greyByLut) {
        for (int x = 0; x < s.width; ++x) buf[x] = s.greyOfIndex[row[x]];
    } else {
        std::memcpy(buf, row, s.srcRowBytes);
        int32_t r = convertBuffer(buf, s.width, s.srcBits, 0, s.srcOrder, ORDER_GRAY, s.srcPalette, nullptr, nullptr,
                                  kConvertSrcRange | kConvertDstGray, s.lowBit, s.highBit, 0, nullptr);
        if (r != KS_SUCCESS) return r;
    }
    *out = buf;
    return KS_SUCCESS;
}

int32_t ditherOneRow(DitherState* s, const uint8_t* pSrcRow, uint8_t* pDstRow) {
    // Bring the row to 8-bit samples first: a failure leaves the run as it was.
    const uint8_t* src = pSrcRow;
    if (s->grey) {
        if (int32_t r = greyRow(*s, pSrcRow, s->bgrRow, &src); r != KS_SUCCESS) return r;
    } else if (s->unpack) {
        std::memcpy(s->bgrRow, pSrcRow, s->srcRowBytes);
        int32_t r = convertRowToBGR24(s->bgrRow, s->width, s->srcBits, s->srcOrder, s->srcPalette,
                                      kConvertSrcRange, s->lowBit, s->highBit);
        if (r != KS_SUCCESS) return r;
        src = s->bgrRow;
    }
    // The row that collected errors for this row becomes current; the old
    // current row becomes the deepest and starts empty.
    if (s->rowBlock) {
        int32_t* old = s->rows[0];
        for (int k = 0; k < s->rowsBelow; ++k) s->rows[k] = s->rows[k + 1];
        s->rows[s->rowsBelow] = old;
        if (!s->kernelWritesWholeRow)
            std::memset(old, 0, (size_t(s->width) + 2 * size_t(s->margin)) * 3 * sizeof(int32_t));
    }
    if (s->kernelPacks) {
        s->kernel(*s, src, pDstRow);
    } else if (s->outBits == 8) {
        // Safe in place: index x is written after source pixel x was read,
        // and later source pixels lie at or beyond byte x + 1.
        s->kernel(*s, src, pDstRow);
    } else {
        s->kernel(*s, src, s->indexRow);
        packRow(s->indexRow, s->width, s->outBits, pDstRow);
    }
    ++s->line;
    return KS_SUCCESS;
}

// A grey row of a block holds a source row and the converter's work on it
// (as bgrRow does).
size_t waveGreyStride(const DitherState& s) {
    return std::max(convertBufferBytes(s.width, s.srcBits, 24), size_t(s.width) * 3);
}

// The rows of a block as 8-bit grey, into the block's grey rows where needed.
int32_t greyRowsOf(DitherState& s, const uint8_t* const* src, int rows, const uint8_t** out) {
    for (int k = 0; k < rows; ++k) {
        uint8_t* buf = s.waveGrey ? s.waveGrey + size_t(k) * waveGreyStride(s) : nullptr;  // none: rows as they are
        if (int32_t r = greyRow(s, src[k], buf, &out[k]); r != KS_SUCCESS) return r;
    }
    return KS_SUCCESS;
}

// Rows per block of the run's wavefront; 1 when the run goes row by row.
int waveRowsOf(const DitherState& s) {
    if (s.kernel != &greyFloydBlackWhiteRow) return 1;
    const int hook = testhook::ditherWaveRows;
    return hook ? hook : kDitherWaveRows;
}

}  // namespace

int ditherBlockRows(const BITMAPRECORD* bm) noexcept {
    auto* s = static_cast<const DitherState*>(bm ? bm->pDitherState : nullptr);
    return s && s->magic == kStateMagic ? waveRowsOf(*s) : 1;
}

int32_t ditherRows(BITMAPRECORD* bm, const uint8_t* const* src, uint8_t* const* dst, int32_t rows) noexcept {
    int32_t rc;
    DitherState* s = checkedRun(bm, rc);
    if (!s) return rc;
    if (rows < 0 || (rows > 0 && (!src || !dst))) return KS_INVALID_PARAMETER;
    for (int32_t k = 0; k < rows; ++k)
        if (!src[k] || !dst[k]) return KS_INVALID_PARAMETER;
    const int R = waveRowsOf(*s);
    const RowsFn kernel = waveKernel(R);
    int32_t y = 0;
    if (kernel && rows >= R) {
        // The block's buffers, once per run: a failure leaves the run as it was.
        const size_t rowLen = size_t(s->width) + 2;
        if (!s->waveRows) {
            s->waveRows = static_cast<int32_t*>(memAlloc(rowLen * (kWaveMax - 1) * sizeof(int32_t)));
            if (!s->waveRows) return KS_NO_MEMORY;
        }
        if (!s->greyIsIndex && !s->waveGrey) {
            s->waveGrey = static_cast<uint8_t*>(memAlloc(waveGreyStride(*s) * kWaveMax + 16));
            if (!s->waveGrey) return KS_NO_MEMORY;
        }
        for (; y + R <= rows; y += R) {
            const uint8_t* grey[kWaveMax];
            rc = greyRowsOf(*s, src + y, R, grey);
            if (rc != KS_SUCCESS) return rc;
            // The errors the last row left (rows[1]) feed the first row of the
            // block; the last row of the block writes into rows[0], which
            // nothing reads any more, and that becomes the pending row.
            int32_t* err[kWaveMax + 1];
            err[0] = s->rows[1] + 1;
            for (int k = 1; k < R; ++k) err[k] = s->waveRows + rowLen * size_t(k - 1) + 1;
            err[R] = s->rows[0] + 1;
            kernel(grey, dst + y, err, s->width);
            std::swap(s->rows[0], s->rows[1]);
            s->line += uint32_t(R);
        }
    }
    for (; y < rows; ++y) {
        rc = ditherOneRow(s, src[y], dst[y]);
        if (rc != KS_SUCCESS) return rc;
    }
    return KS_SUCCESS;
}

}  // namespace krn

using namespace krn;

KAPI int32_t K_DitherLine(BITMAPRECORD* pBitmap, const uint8_t* pSrcRow, uint8_t* pDstRow) {
    int32_t rc;
    DitherState* s = checkedRun(pBitmap, rc);
    if (!s) return rc;
    if (!pSrcRow || !pDstRow) return KS_INVALID_PARAMETER;
    return ditherOneRow(s, pSrcRow, pDstRow);
}

KAPI int32_t K_StopDithering(BITMAPRECORD* pBitmap) {
    int32_t r = checkRecord(pBitmap);
    if (r != KS_SUCCESS) return r;
    releaseDitherState(pBitmap);
    return KS_SUCCESS;
}

KAPI int32_t K_GetDefaultDithering(void) { return settings().nDitheringMethod; }

KAPI int32_t K_DefaultDithering(int32_t nMethod) {
    if (nMethod < 0 || nMethod > 8) return KS_INVALID_PARAMETER;
    ThreadSettings& ts = settings();
    int32_t old = ts.nDitheringMethod;
    ts.nDitheringMethod = nMethod;
    return old;
}
