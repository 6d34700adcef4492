// fuzz_compressed_rows.cpp - untrusted compressed rows: K_ExpandRows and the compressed Put forms. Input: byte 0
// width (1..256 + a multiple from byte 1), byte 2 row count, byte 3 column, byte 4 pixel count, then each row's
// word count (a byte, cut to the words left: these forms take no source size) and run words. K_ExpandRows
// writes only its rows; a Put into a run-compressed bitmap and into a single block give the same pixels, stored
// rows read back as runs summing to the width, and pixels outside [column, column + pixels) are unchanged.
#include <algorithm>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "ombrix.h"

#define check FUZZ_CHECK

namespace {

// The rows' run words back to back, each row after its word count.
std::vector<uint8_t> frame(fuzzinput::Input& in, int rows) {
    std::vector<uint8_t> f;
    for (int r = 0; r < rows; ++r) {
        const uint32_t want = in.byte(), w = std::min<uint32_t>(want, uint32_t(in.left() / 2));
        const size_t at = f.size();
        f.resize(at + 4 + 2 * size_t(w)), std::memcpy(f.data() + at, &w, 4);
        if (w) std::memcpy(f.data() + at + 4, in.rest(), 2 * size_t(w));
        in.i += 2 * size_t(w);
    }
    return f;
}

uint32_t words(const uint8_t* row) { uint32_t w; return std::memcpy(&w, row, 4), w; }  // a row's run-word count

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 5) return 0;
    const int32_t width = 1 + data[0] + 256 * (data[1] & 3), rows = 1 + data[2] % 4, col = data[3] % width;
    const int32_t pixels = int32_t(data[4]) * 3;
    fuzzinput::Input in{data, size, 5};
    const std::vector<uint8_t> runs = frame(in, rows);

    // K_ExpandRows: rows of bpl bytes, guard bytes after them.
    const uint32_t bpl = uint32_t(((width + 31) / 32) * 4);
    std::vector<uint8_t> out(size_t(bpl) * rows + 16, 0xA7);
    check(K_ExpandRows(runs.data(), out.data(), width, rows) == KS_SUCCESS);
    for (size_t i = size_t(bpl) * rows; i < out.size(); ++i) check(out[i] == 0xA7);
    // Padding bits past the width are clear.
    for (int r = 0; r < rows; ++r)
        for (uint64_t b = uint64_t(width); b < uint64_t(bpl) * 8; ++b)
            check(((out[size_t(r) * bpl + (b >> 3)] >> (7 - (b & 7))) & 1) == 0);

    // The Put forms on a run-compressed bitmap and a single block, both starting from the expanded rows.
    BITMAPRECORD a, b;
    if (K_CreateBitmap(&a, BITMAPRECORD_SIZE, 512, width, rows, 1, 0, nullptr, 1, nullptr, 0) != KS_SUCCESS) return 0;
    if (K_CreateBitmap(&b, BITMAPRECORD_SIZE, 1, width, rows, 1, 0, nullptr, 1, nullptr, 0) != KS_SUCCESS)
        return K_FreeBitmap(&a), 0;
    for (int r = 0; r < rows; ++r)
        for (BITMAPRECORD* bm : {&a, &b}) check(K_PutBitmapRow(bm, &out[size_t(r) * bpl], r, bpl) == int32_t(bpl));
    std::vector<uint8_t> before(out.begin(), out.begin() + size_t(bpl) * rows);
    const uint8_t* row = runs.data();
    for (int r = 0; r < rows; ++r) {
        for (BITMAPRECORD* bm : {&a, &b})
            check((r % 2 == 0 ? K_PutBitmapRowCompressed(bm, nullptr, row, r, width)
                              : K_PutBitmapRowColCompressed(bm, nullptr, row, r, col, pixels)) == KS_SUCCESS);
        row += 4 + 2 * size_t(words(row));
    }
    std::vector<uint8_t> ra(bpl), rb(bpl), cr(OMBRIX_COMPRESSED_ROW_MAX(width));
    for (int r = 0; r < rows; ++r) {
        const int32_t n = int32_t(bpl);
        check(K_GetBitmapRow(&a, ra.data(), r, bpl) == n && K_GetBitmapRow(&b, rb.data(), r, bpl) == n && ra == rb);
        const uint8_t* old = before.data() + size_t(r) * bpl;  // on odd rows, outside the column range nothing changed
        const int64_t end = std::min<int64_t>(int64_t(col) + pixels, width);
        for (int64_t x = 0; r % 2 == 1 && x < width; ++x)
            check((x >= col && x < end) || ((ra[size_t(x >> 3)] ^ old[size_t(x >> 3)]) >> (7 - (x & 7)) & 1) == 0);
        check(K_GetBitmapRowCompressed(&a, nullptr, cr.data(), r, width) == KS_SUCCESS);
        const uint32_t w = words(cr.data());
        check(4 + 2 * size_t(w) <= cr.size());
        uint64_t sum = 0;
        for (uint32_t i = 0; i < w; ++i) sum += uint16_t(cr[4 + 2 * size_t(i)] | cr[5 + 2 * size_t(i)] << 8);
        check(sum == uint64_t(width));
    }
    K_FreeBitmap(&a), K_FreeBitmap(&b);
    return 0;
}
