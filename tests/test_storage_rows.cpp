// test_storage_rows.cpp - the row calls' frame, the get-row callback; run-compressed 1-bit rows against a plain
// reference compressor, untrusted runs, mirror and flip, the run store; super-compressed rows: round trips, cost.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "ombrix.h"
#include "krn/common/memory.h"
#include "krn/common/superstore.h"
#include "check_list.h"
#include "storage_kinds.h"

using namespace storagetest;
using checklist::expectAll;

namespace {

int32_t getRowFromCallback(BITMAPRECORD*, uint8_t* buf, int32_t row, uint32_t bytes, void* user) {
    auto* s = static_cast<int32_t*>(user);  // calls, answer
    ++s[0];
    for (uint32_t i = 0; s[1] > 0 && i < bytes; ++i) buf[i] = uint8_t(row * 16 + int32_t(i));
    return s[1];
}

// Refused arguments; then an older-layout record of the run-compressed kind works.
TEST(RowsFrame, ArgumentChecksOlderLayoutRecordsAndTheGetRowCallback) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 10, 4, 8, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    uint8_t buf[16] = {}, out[16] = {};
    const uint8_t in[16] = {0xF0, 0x0F};
    expectAll({IS(K_GetBitmapRow(nullptr, buf, 0, 4), KS_INVALID_PARAMETER),
               IS(K_GetBitmapRow(&bm, nullptr, 0, 4), KS_INVALID_PARAMETER),
               IS(K_GetBitmapRow(&bm, buf, -1, 4), KS_INVALID_PARAMETER),
               IS(K_GetBitmapRow(&bm, buf, 4, 4), KS_INVALID_PARAMETER),
               IS(K_GetBitmapRowCol(&bm, buf, 0, 10, 4), KS_INVALID_PARAMETER), IS(K_GetBitmapRow(&bm, buf, 0, 0), 0),
               IS(K_PutBitmapRowSegments(&bm, buf, 0, nullptr, 1), KS_INVALID_PARAMETER),
               IS(K_PutBitmapRowSegments(&bm, buf, 0, nullptr, 0), KS_SUCCESS),
               IS(K_PutBitmapRowSegments(&bm, buf, 5, nullptr, 0), KS_INVALID_PARAMETER),
               IS((bm.uStructSize = 100, K_PutBitmapRow(&bm, buf, 0, 4)), KS_INVALID_STRUCT_SIZE),
               IS((bm.uStructSize = BITMAPRECORD_SIZE, K_FreeBitmap(&bm)), 1),
               IS(K_GetBitmapRow(&bm, buf, 0, 4), KS_INVALID_BITMAP),
               IS(K_CreateBitmap(&bm, BITMAPRECORD_SIZE_OLD, 512, 100, 3, 1, 0, nullptr, 1, nullptr, 0), KS_SUCCESS),
               IS(K_PutBitmapRow(&bm, in, 1, 16), 16), IS(K_GetBitmapRow(&bm, out, 1, 16), 16),
               IS(std::memcmp(in, out, 16), 0), IS(K_AccessBitmap(&bm), 1), IS(K_ReleaseBitmap(&bm), 1),
               IS(K_FreeBitmap(&bm), 1)});
    // A get-row callback answers first: 0 lets the storage answer, a positive answer is the result with its bytes as
    // the row (the column form returns the column's bytes), errors pass through.
    int32_t src[2] = {0, 0};
    BITMAPDATACALLBACKS cb{};
    cb.uStructSize = BITMAPDATACALLBACKS_SIZE, cb.pUserData = src, cb.pfnGetRow = getRowFromCallback;
    ASSERT_EQ(K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, 1, 8, 4, 8, 0, nullptr, 1, nullptr, 0, &cb), 1);
    const uint8_t stored[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    expectAll({IS(K_PutBitmapRow(&bm, stored, 2, 8), 8), IS(K_GetBitmapRow(&bm, out, 2, 8), 8), IS(out[0], 9),
               IS(src[1] = 8, 8), IS(K_GetBitmapRow(&bm, out, 2, 8), 8), IS(out[1], 2 * 16 + 1),
               IS(K_GetBitmapRowCol(&bm, out, 3, 5, 8), 3), IS(out[0], 3 * 16 + 5), IS(src[1] = -777, -777),
               IS(K_GetBitmapRow(&bm, out, 2, 8), -777), IS(src[0], 4)});
    K_FreeBitmap(&bm);
}

using Runs = std::vector<uint16_t>;
Runs runsOf(const uint8_t* buf) {
    uint32_t w;
    std::memcpy(&w, buf, 4);
    Runs r(w);
    if (w) std::memcpy(r.data(), buf + 4, 2 * size_t(w));
    return r;
}
std::vector<uint8_t> packRuns(const Runs& runs) {
    std::vector<uint8_t> b(4 + 2 * runs.size());
    const uint32_t w = uint32_t(runs.size());
    std::memcpy(b.data(), &w, 4);
    if (w) std::memcpy(b.data() + 4, runs.data(), 2 * runs.size());
    return b;
}
int bitAt(const uint8_t* p, uint64_t x) { return (p[x >> 3] >> (7 - (x & 7))) & 1; }

// Plain reference compressor: runs start with white; pixels go one byte piece at a time; a piece that would push
// the run past 65535 closes it first with a zero-length run.
Runs referenceCompress(const uint8_t* src, uint64_t first, uint32_t count) {
    Runs out;
    int val = 0;
    uint32_t cur = 0;
    for (uint64_t pos = first, end = first + count; pos < end;) {
        const uint64_t byteEnd = std::min<uint64_t>((pos | 7) + 1, end);
        const int v = bitAt(src, pos);
        uint64_t q = pos;
        while (q < byteEnd && bitAt(src, q) == v) ++q;
        if (v != val) out.push_back(uint16_t(cur)), cur = 0, val = v;
        if (cur + (q - pos) > 65535) out.insert(out.end(), {uint16_t(cur), 0}), cur = 0;
        cur += uint32_t(q - pos);
        pos = q;
    }
    out.push_back(uint16_t(cur));
    return out;
}

TEST(CompressedRows, RoundTripAgainstReferenceMirrorFlipAndUntrustedRuns) {
    std::mt19937 rng(42);
    for (int iter = 0; iter < 400; ++iter) {
        const uint32_t count = iter < 20 ? uint32_t(65520 + rng() % 200) : uint32_t(rng() % 300);
        const uint32_t first = rng() % 17;
        std::vector<uint8_t> src((first + count + 7) / 8 + 1);
        const int mode = int(rng() % 3);  // noise, long blanks with short strokes, all black
        for (auto& b : src) b = mode == 0 ? uint8_t(rng()) : mode == 1 ? (rng() % 8 ? 0 : uint8_t(rng())) : 0xFF;
        std::vector<uint8_t> out(OMBRIX_COMPRESSED_ROW_MAX(count)), before = src;
        ASSERT_EQ(K_CompressRow(out.data(), src.data(), int32_t(first), int32_t(count)), KS_SUCCESS);
        const Runs got = runsOf(out.data());
        ASSERT_EQ(got, referenceCompress(src.data(), first, count)) << "iter " << iter;
        ASSERT_TRUE(4 + 2 * got.size() <= OMBRIX_COMPRESSED_ROW_MAX(count) && src == before)
            << "too long, or the source changed";
        // Expand into a buffer pre-filled with a pattern: only [first, first+count) changes.
        std::vector<uint8_t> back(src.size() + 2, 0xA5);
        ASSERT_EQ(K_ExpandRow(out.data(), back.data(), int32_t(first), int32_t(count)), KS_SUCCESS);
        for (uint64_t x = 0; x < uint64_t(back.size()) * 8; ++x) {
            const bool in = x >= first && x < first + count;
            ASSERT_EQ(bitAt(back.data(), x), in ? bitAt(src.data(), x) : (0xA5 >> (7 - (x & 7))) & 1) << x;
        }
    }
    // Mirror and flip agree with mirrored pixels and reversed rows (an empty run list mirrors to one run); count 0
    // writes nothing. Runs past the width: rows cut at their end, padding cleared, bits around the range kept.
    const auto bad = packRuns({3, 65535, 65535, 65535});
    std::vector<uint8_t> guarded(4 + 8, 0x5A), ones(4, 0xFF), zeros(4, 0);
    ASSERT_EQ(K_ExpandRows(bad.data(), guarded.data(), 20, 1) + K_ExpandRow(bad.data(), ones.data(), 5, 6) +
                  K_ExpandRow(bad.data(), zeros.data(), 5, 6),
              3);
    EXPECT_TRUE(guarded ==
                    (std::vector<uint8_t>{0x1F, 0xFF, 0xF0, 0, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A}) &&
                ones == (std::vector<uint8_t>{0xF8, 0xFF, 0xFF, 0xFF}) &&
                zeros == (std::vector<uint8_t>{0x00, 0xE0, 0x00, 0x00}));
    std::vector<uint8_t> dst(8, 0xEE);
    expectAll({IS(K_MirrorCompressedBuffer(packRuns({}).data(), dst.data(), 1), KS_SUCCESS),
               IS(runsOf(dst.data()) == Runs{0}, 1),
               IS(K_MirrorCompressedBuffer(nullptr, dst.data(), 1), KS_INVALID_PARAMETER),
               IS(K_MirrorCompressedBuffer(dst.data(), dst.data(), 0), KS_SUCCESS),
               IS(K_ExpandRows(nullptr, nullptr, 9, 0), KS_SUCCESS),
               IS(K_CompressRows(nullptr, nullptr, 9, 0), KS_SUCCESS)});
    const int32_t W = 53, H = 9;
    RefImage img(W, H, 1), mir(W, H, 1), flip(W, H, 1);
    img.randomize(8);
    for (int32_t r = 0; r < H; ++r) {
        std::copy(img.row(r), img.row(r) + img.bpl, flip.row(H - 1 - r));
        for (int32_t x = 0; x < W; ++x) setPixel(mir.row(r), W - 1 - x, 1, getPixel(img.row(r), x, 1));
    }
    std::vector<uint8_t> a(OMBRIX_COMPRESSED_ROW_MAX(W) * H), b(a.size() + 4 * H), c(img.px.size());
    expectAll({IS(K_CompressRows(a.data(), img.px.data(), W, H), 1),
               IS(K_MirrorCompressedBuffer(a.data(), b.data(), H), 1), IS(K_ExpandRows(b.data(), c.data(), W, H), 1),
               IS(c == mir.px, 1), IS(K_FlipCompressedBuffer(a.data(), b.data(), H), 1),
               IS(K_ExpandRows(b.data(), c.data(), W, H), 1), IS(c == flip.px, 1),
               IS(K_FlipCompressedBuffer(a.data(), nullptr, 1), KS_INVALID_PARAMETER),
               IS(K_ExpandRows(a.data(), nullptr, W, 1), KS_INVALID_PARAMETER)});
}

enum class Shape { Zero, Smooth, Text, Random, OnePixel, AllOnes };
size_t rawBytes(int32_t w, int32_t bpp) { return size_t((uint64_t(w) * uint64_t(bpp) + 7) / 8); }

std::vector<uint8_t> makeRow(Shape s, int32_t w, int32_t bpp, uint32_t seed) {
    RefImage img(w, 1, bpp);
    std::mt19937 rng(seed);
    for (int32_t x = 0; x < w; ++x) {
        uint64_t v = 0;
        if (s == Shape::Smooth) {
            v = uint64_t(128 + 100 * std::sin(x * 0.01 + seed) + double(rng() % 3));
            if (bpp == 24) v = v | (uint64_t(uint8_t(v * 3 / 4)) << 8) | (uint64_t(uint8_t(v / 2 + 20)) << 16);
            if (bpp == 1) v = (x / 37) & 1;
        }
        if (s == Shape::Text) v = (x % 97 < 80) ? 0 : (x % 5 < 2 ? 1 : 0);
        if (s == Shape::Random) v = rng();
        if (s == Shape::OnePixel) v = x == w / 2 ? ~0ull : 0;
        if (s == Shape::AllOnes) v = ~0ull;
        v &= (1ull << bpp) - 1;
        if (s == Shape::Text && bpp > 1) v = v ? 20 : 250;
        setPixel(img.row(0), x, bpp, v);
    }
    return img.px;
}

TEST(SuperCodec, RoundTripsMethodsAndBlankRowsCostNothing) {
    for (int32_t bpp : {1, 8, 24})
        for (int32_t w : {1, 2, 7, 8, 9, 31, 33, 63, 64, 65, 100, 1000, 4099})
            for (Shape s : {Shape::Zero, Shape::Smooth, Shape::Text, Shape::Random, Shape::OnePixel, Shape::AllOnes}) {
                SCOPED_TRACE(::testing::Message() << "bpp " << bpp << " w " << w << " shape " << int(s));
                const auto row = makeRow(s, w, bpp, uint32_t(w));
                std::vector<uint8_t> enc(krn::superMaxEncoded(uint32_t(row.size()))), back(row.size(), 0xCD);
                const size_t n = krn::superEncode(row.data(), w, bpp, enc.data());
                ASSERT_TRUE(n >= 1u && n <= std::min(enc.size(), 1 + rawBytes(w, bpp)))
                    << n << ": never larger than raw plus the method";
                ASSERT_TRUE(krn::superDecode(enc.data(), n, w, bpp, back.data()));
                ASSERT_TRUE(std::equal(back.begin(), back.begin() + long(rawBytes(w, bpp)), row.begin()));
                EXPECT_TRUE((s != Shape::Zero || n == 1u) && (s != Shape::Random || bpp == 1 || enc[0] == 0))
                    << "zero rows take one byte, noise is raw";
                EXPECT_TRUE(w < 1000 || !(s == Shape::Smooth || s == Shape::Text || s == Shape::OnePixel) ||
                            n * 2 < rawBytes(w, bpp))
                    << "structured rows compress at least 2:1";
            }
    // A blank run-compressed bitmap costs a few bytes per 32768 rows, whatever its height; super-compressed rows cost
    // nothing until written and are freed when zeroed.
    const long base = (K_GetDefaultXResolution(), krn::faultinject::liveBlocks());
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_COMPRESSED, 64, 200000000, 1, 0, nullptr, 1, nullptr, 0),
              1);
    EXPECT_TRUE((bm.uFlags & BRF_COMPRESSED) &&
                krn::faultinject::liveBlocks() - base <= 3);  // store, palette and its handle
    const uint8_t row[8] = {0x5A, 0x5B, 0x58, 0x59, 0x5E, 0x5F, 0x5C, 0x5D}, blank[8] = {};
    uint8_t got[8];
    for (const auto& [r, want] : {std::pair{199999999, blank}, {123456789, row}, {123456790, blank}}) {
        if (want == row) { ASSERT_EQ(K_PutBitmapRow(&bm, row, r, 8), 8); }
        std::memset(got, 0xEE, sizeof got);
        ASSERT_EQ(K_GetBitmapRow(&bm, got, r, 8), 8);
        EXPECT_EQ(std::memcmp(got, want, 8), 0) << r;
    }
    expectAll({IS(K_ChangeBitmapHeight(&bm, 100), 1), IS(K_FreeBitmap(&bm), 1),
               IS(krn::faultinject::liveBlocks(), base)});
    const auto smooth = makeRow(Shape::Smooth, 1000, 8, 1);
    const std::vector<uint8_t> zero(1000, 0);
    ASSERT_TRUE(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1024, 1000, 500, 8, 0, nullptr, 1, nullptr, 0) == KS_SUCCESS &&
                krn::superStoredBytes(&bm) == 0u && K_PutBitmapRow(&bm, smooth.data(), 10, 1000) == 1000);
    const uint64_t one = krn::superStoredBytes(&bm);
    EXPECT_TRUE(one > 1 && one < 500) << one;
    expectAll({IS(K_PutBitmapRow(&bm, smooth.data(), 11, 1000), 1000), IS(krn::superStoredBytes(&bm), 2 * one),
               IS(K_PutBitmapRow(&bm, zero.data(), 10, 1000), 1000), IS(krn::superStoredBytes(&bm), one),
               IS(K_ChangeBitmapHeight(&bm, 11), 1),
               IS(krn::superStoredBytes(&bm), 0) /* row 11 left with the height */, IS(K_FreeBitmap(&bm), 1)});
}

// A block of 64 runs is coded from its own lengths only: rows whose first block holds the same lengths in another
// order and whose last runs are equal take the same number of bytes.
TEST(SuperCodec, EachBlockOfRunsIsCodedOnItsOwn) {
    auto encodedSize = [](const std::vector<uint32_t>& runs) {  // even runs white, odd runs black
        uint32_t w = 0;
        for (uint32_t r : runs) w += r;
        RefImage img(int32_t(w), 1, 1);
        for (uint32_t i = 0, x = 0; i < runs.size(); x += runs[i++])
            for (uint32_t k = 0; i % 2 && k < runs[i]; ++k) setPixel(img.row(0), int32_t(x + k), 1, 1);
        std::vector<uint8_t> enc(krn::superMaxEncoded(uint32_t(img.px.size())));
        return krn::superEncode(img.row(0), int32_t(w), 1, enc.data());
    };
    std::vector<uint32_t> a(64, 5), b(64, 5);
    a[2] = b[3] = 20000;
    a.insert(a.end(), {3, 4}), b.insert(b.end(), {3, 4});
    EXPECT_EQ(encodedSize(a), encodedSize(b));
}

}  // namespace
