// test_storage_runs.cpp - the compressed-row format: known rows, round trips
// against a plain bit-by-bit reference compressor, untrusted run lists, the
// mirror and flip helpers and the compressed row forms on every kind.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "ombrix.h"
#include "krn/common/memory.h"
#include "storage_kinds.h"

using namespace storagetest;

namespace {

std::vector<uint16_t> runsOf(const uint8_t* buf) {
    uint32_t w;
    std::memcpy(&w, buf, 4);
    std::vector<uint16_t> r(w);
    if (w) std::memcpy(r.data(), buf + 4, 2 * size_t(w));
    return r;
}
std::vector<uint8_t> packRuns(const std::vector<uint16_t>& runs) {
    std::vector<uint8_t> b(4 + 2 * runs.size());
    uint32_t w = uint32_t(runs.size());
    std::memcpy(b.data(), &w, 4);
    if (!runs.empty()) std::memcpy(b.data() + 4, runs.data(), 2 * runs.size());
    return b;
}

// Plain reference compressor, written from the format description: the
// pixels are taken one byte (or partial byte) piece at a time; a piece that
// continues the current run closes it first when the sum would pass 65535.
std::vector<uint16_t> referenceCompress(const uint8_t* src, uint64_t first, uint32_t count) {
    std::vector<uint16_t> out;
    int val = 0;
    uint32_t cur = 0;
    uint64_t pos = first, end = first + count;
    while (pos < end) {
        uint64_t byteEnd = std::min<uint64_t>((pos | 7) + 1, end);
        // maximal pieces of equal bits inside this byte
        while (pos < byteEnd) {
            int v = (src[pos >> 3] >> (7 - (pos & 7))) & 1;
            uint64_t q = pos;
            while (q < byteEnd && ((src[q >> 3] >> (7 - (q & 7))) & 1) == v) ++q;
            uint32_t len = uint32_t(q - pos);
            if (v != val) {
                out.push_back(uint16_t(cur));
                cur = 0;
                val = v;
            }
            if (cur + len > 65535) {
                out.push_back(uint16_t(cur));
                out.push_back(0);
                cur = 0;
            }
            cur += len;
            pos = q;
        }
    }
    out.push_back(uint16_t(cur));
    return out;
}

// Worked rows that anchor the reference compressor: runs start with white,
// and a run longer than 65535 is split by a zero-length run.
TEST(CompressedRows, KnownRows) {
    struct Known {
        std::vector<uint8_t> src;
        int32_t first, count;
        std::vector<uint16_t> runs;
    };
    const Known rows[] = {{{0, 0}, 0, 16, {16}},
                          {{0xC0}, 0, 8, {0, 2, 6}},
                          {std::vector<uint8_t>(70000 / 8, 0), 0, 70000, {65528, 0, 4472}},
                          {std::vector<uint8_t>(70000 / 8, 0xFF), 0, 70000, {0, 65528, 0, 4472}},
                          {{0xFF, 0x0F}, 4, 12, {0, 4, 4, 4}}};  // a run may start inside a byte
    std::vector<uint8_t> out(OMBRIX_COMPRESSED_ROW_MAX(70000));
    for (const auto& k : rows) {
        std::vector<uint8_t> src = k.src;
        ASSERT_EQ(K_CompressRow(out.data(), src.data(), k.first, k.count), KS_SUCCESS);
        EXPECT_EQ(runsOf(out.data()), k.runs) << k.count;
        EXPECT_EQ(runsOf(out.data()), referenceCompress(src.data(), uint64_t(k.first), uint32_t(k.count)));
        EXPECT_EQ(src, k.src) << "the source is not changed";
    }
}

TEST(CompressedRows, RoundTripAgainstReference) {
    std::mt19937 rng(42);
    for (int iter = 0; iter < 400; ++iter) {
        const uint32_t count = iter < 20 ? uint32_t(65520 + rng() % 200) : uint32_t(rng() % 300);
        const uint32_t first = rng() % 17;
        std::vector<uint8_t> src((first + count + 7) / 8 + 1);
        // Runs of mixed lengths: long blanks and short strokes, as on a page.
        int mode = int(rng() % 3);
        for (auto& b : src) b = mode == 0 ? uint8_t(rng()) : mode == 1 ? (rng() % 8 ? 0 : uint8_t(rng())) : 0xFF;
        std::vector<uint8_t> out(OMBRIX_COMPRESSED_ROW_MAX(count));
        ASSERT_EQ(K_CompressRow(out.data(), src.data(), int32_t(first), int32_t(count)), KS_SUCCESS);
        auto got = runsOf(out.data());
        ASSERT_EQ(got, referenceCompress(src.data(), first, count)) << "iter " << iter;
        uint64_t sum = 0;
        for (auto r : got) sum += r;
        ASSERT_EQ(sum, count);
        ASSERT_LE(out.size(), OMBRIX_COMPRESSED_ROW_MAX(count));
        // Expand into a buffer pre-filled with a pattern: only [first, first+count) changes.
        std::vector<uint8_t> back(src.size() + 2, 0xA5);
        ASSERT_EQ(K_ExpandRow(out.data(), back.data(), int32_t(first), int32_t(count)), KS_SUCCESS);
        for (uint64_t x = 0; x < uint64_t(back.size()) * 8; ++x) {
            int b = (back[x >> 3] >> (7 - (x & 7))) & 1;
            int want = (x >= first && x < first + count) ? (src[x >> 3] >> (7 - (x & 7))) & 1
                                                         : (0xA5 >> (7 - (x & 7))) & 1;
            ASSERT_EQ(b, want) << "pixel " << x << " iter " << iter;
        }
    }
}

TEST(CompressedRows, UntrustedRunsNeverWritePastTheRow) {
    // Runs summing far past the width, and a huge word count of 1-runs.
    const int32_t W = 20;
    auto bad = packRuns({3, 65535, 65535, 65535});
    std::vector<uint8_t> dst(4 + 8, 0x5A);  // one row of 4 bytes, then guard bytes
    ASSERT_EQ(K_ExpandRows(bad.data(), dst.data(), W, 1), KS_SUCCESS);
    EXPECT_EQ(dst[0], 0x1F);
    EXPECT_EQ(dst[2], 0xF0);  // pixels 16..19 set, padding cleared
    EXPECT_EQ(dst[3], 0x00);
    for (size_t i = 4; i < dst.size(); ++i) EXPECT_EQ(dst[i], 0x5A);
    // ExpandRow keeps the bits around the range.
    std::vector<uint8_t> d2(4, 0xFF);
    ASSERT_EQ(K_ExpandRow(bad.data(), d2.data(), 5, 6), KS_SUCCESS);
    EXPECT_EQ(d2[0], 0xF8);  // pixels 5..7 cleared
    EXPECT_EQ(d2[1], 0xFF);
    std::vector<uint8_t> d3(4, 0x00);
    ASSERT_EQ(K_ExpandRow(bad.data(), d3.data(), 5, 6), KS_SUCCESS);
    EXPECT_EQ(d3[0], 0x00);
    EXPECT_EQ(d3[1], 0xE0);  // pixels 8..10 set, the run is cut at pixel 11
    EXPECT_EQ(d3[2], 0x00);
}

TEST(CompressedRows, MirrorAndFlip) {
    std::vector<uint8_t> src;
    for (auto& r : {std::vector<uint16_t>{3, 5}, std::vector<uint16_t>{0, 4, 4}, std::vector<uint16_t>{}}) {
        auto p = packRuns(r);
        src.insert(src.end(), p.begin(), p.end());
    }
    std::vector<uint8_t> dst(64, 0xEE);
    ASSERT_EQ(K_MirrorCompressedBuffer(src.data(), dst.data(), 3), KS_SUCCESS);
    EXPECT_EQ(runsOf(dst.data()), (std::vector<uint16_t>{0, 5, 3}));
    EXPECT_EQ(runsOf(dst.data() + 10), (std::vector<uint16_t>{4, 4}));
    EXPECT_EQ(runsOf(dst.data() + 18), (std::vector<uint16_t>{0}));
    EXPECT_EQ(K_MirrorCompressedBuffer(nullptr, dst.data(), 1), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_MirrorCompressedBuffer(src.data(), dst.data(), 0), KS_SUCCESS);

    // Mirror agrees with mirroring pixels, on random rows compressed back to back.
    const int32_t W = 53, H = 9;
    RefImage img(W, H, 1), mir(W, H, 1);
    img.randomize(8);
    for (int32_t r = 0; r < H; ++r)
        for (int32_t x = 0; x < W; ++x) setPixel(mir.row(r), W - 1 - x, 1, getPixel(img.row(r), x, 1));
    std::vector<uint8_t> a(OMBRIX_COMPRESSED_ROW_MAX(W) * H), b(a.size() + 4 * H), c(img.px.size());
    ASSERT_EQ(K_CompressRows(a.data(), img.px.data(), W, H), KS_SUCCESS);
    ASSERT_EQ(K_MirrorCompressedBuffer(a.data(), b.data(), H), KS_SUCCESS);
    ASSERT_EQ(K_ExpandRows(b.data(), c.data(), W, H), KS_SUCCESS);
    EXPECT_EQ(c, mir.px);
    // Flip: rows in reverse order, each unchanged.
    std::vector<uint8_t> f(a.size());
    ASSERT_EQ(K_FlipCompressedBuffer(a.data(), f.data(), H), KS_SUCCESS);
    ASSERT_EQ(K_ExpandRows(f.data(), c.data(), W, H), KS_SUCCESS);
    for (int32_t r = 0; r < H; ++r)
        EXPECT_TRUE(std::equal(img.row(r), img.row(r) + img.bpl, c.data() + size_t(H - 1 - r) * img.bpl));
    EXPECT_EQ(K_FlipCompressedBuffer(a.data(), nullptr, 1), KS_INVALID_PARAMETER);
    // Row count 0: success and nothing written, even with null buffers.
    EXPECT_EQ(K_ExpandRows(nullptr, nullptr, W, 0), KS_SUCCESS);
    EXPECT_EQ(K_CompressRows(nullptr, nullptr, W, 0), KS_SUCCESS);
    EXPECT_EQ(K_ExpandRows(a.data(), nullptr, W, 1), KS_INVALID_PARAMETER);
}

TEST(CompressedRows, CompressedFormsOnEveryKind) {
    const int32_t W = 150, H = 7;
    CapGuard guard;
    RefImage ref(W, H, 1);
    ref.randomize(77);
    for (Kind kind : kindsFor(1)) {
        SCOPED_TRACE(kindName(kind));
        KindBitmap k(kind, W, H, 1);
        ASSERT_EQ(k.rc, KS_SUCCESS);
        std::vector<uint8_t> runs(OMBRIX_COMPRESSED_ROW_MAX(W));
        for (int32_t r = 0; r < H; ++r) {
            K_CompressRow(runs.data(), ref.row(r), 0, W);
            ASSERT_EQ(K_PutBitmapRowCompressed(&k.bm, nullptr, runs.data(), r, W), KS_SUCCESS);
        }
        std::vector<uint8_t> work(ref.bpl), row(ref.bpl), got(OMBRIX_COMPRESSED_ROW_MAX(W));
        for (int32_t r = 0; r < H; ++r) {
            ASSERT_EQ(K_GetBitmapRow(&k.bm, row.data(), r, ref.bpl), int32_t(ref.bpl));
            ASSERT_TRUE(std::equal(row.begin(), row.end(), ref.row(r)));
            ASSERT_EQ(K_GetBitmapRowCompressed(&k.bm, work.data(), got.data(), r, W), KS_SUCCESS);
            ASSERT_EQ(runsOf(got.data()), referenceCompress(ref.row(r), 0, W));
            // A column range.
            ASSERT_EQ(K_GetBitmapRowColCompressed(&k.bm, nullptr, got.data(), r, 13, 70), KS_SUCCESS);
            ASSERT_EQ(runsOf(got.data()), referenceCompress(ref.row(r), 13, 70));
        }
        // Put a column range: only those pixels change.
        auto ones = packRuns({0, 40});
        ASSERT_EQ(K_PutBitmapRowColCompressed(&k.bm, nullptr, ones.data(), 2, 100, 40), KS_SUCCESS);
        for (int32_t x = 100; x < 140; ++x) setPixel(ref.row(2), x, 1, 1);
        // Untrusted: runs past the count are cut; they do not reach pixel 140.
        auto over = packRuns({0, 60000, 0, 9999});
        ASSERT_EQ(K_PutBitmapRowColCompressed(&k.bm, nullptr, over.data(), 3, 0, 5), KS_SUCCESS);
        for (int32_t x = 0; x < 5; ++x) setPixel(ref.row(3), x, 1, 1);
        // A whole-row put whose runs do not sum to the width is not stored as given.
        auto shortRow = packRuns({10, 10});
        ASSERT_EQ(K_PutBitmapRowCompressed(&k.bm, nullptr, shortRow.data(), 4, W), KS_SUCCESS);
        for (int32_t x = 0; x < W; ++x) setPixel(ref.row(4), x, 1, x >= 10 && x < 20 ? 1 : 0);
        for (int32_t r = 0; r < H; ++r) {
            ASSERT_EQ(K_GetBitmapRow(&k.bm, row.data(), r, ref.bpl), int32_t(ref.bpl));
            ASSERT_TRUE(std::equal(row.begin(), row.end(), ref.row(r))) << "row " << r;
            ASSERT_EQ(K_GetBitmapRowCompressed(&k.bm, nullptr, got.data(), r, W), KS_SUCCESS);
            uint64_t sum = 0;
            for (auto v : runsOf(got.data())) sum += v;
            ASSERT_EQ(sum, uint64_t(W)) << "stored rows always sum to the width";
        }
        ref.randomize(77);  // restore for the next kind
    }
}

TEST(CompressedRows, CompressedFormsNeedOneBit) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1, 10, 2, 8, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    uint8_t runs[64];
    EXPECT_EQ(K_GetBitmapRowCompressed(&bm, nullptr, runs, 0, 10), KS_INVALID_BITS_PER_PIXEL);
    EXPECT_EQ(K_GetBitmapRowCompressed(&bm, nullptr, nullptr, 0, 10), KS_INVALID_PARAMETER);
    K_FreeBitmap(&bm);
}


// Rows of a run-compressed bitmap rewritten many times with contents whose
// compressed size grows and shrinks: in-place rewrites, appends and pool
// compaction must keep every row intact.
TEST(CompressedStore, RewritesAppendsAndCompaction) {
    const int32_t W = 333, H = 70;
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 512, W, H, 1, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    RefImage ref(W, H, 1);
    std::mt19937 rng(2024);
    std::vector<uint8_t> row(ref.bpl);
    for (int round = 0; round < 40; ++round) {
        for (int i = 0; i < 50; ++i) {
            const int32_t r = int32_t(rng() % H);
            // dense noise, sparse strokes or blank, at random
            const int kind = int(rng() % 3);
            for (int32_t x = 0; x < W; ++x)
                setPixel(ref.row(r), x, 1, kind == 0 ? rng() & 1 : kind == 1 ? (x % 50 < 3) : 0);
            ASSERT_EQ(K_PutBitmapRow(&bm, ref.row(r), r, ref.bpl), int32_t(ref.bpl));
        }
        for (int32_t r = 0; r < H; ++r) {
            ASSERT_EQ(K_GetBitmapRow(&bm, row.data(), r, ref.bpl), int32_t(ref.bpl));
            ASSERT_TRUE(std::equal(row.begin(), row.end(), ref.row(r))) << "round " << round << " row " << r;
        }
    }
    K_FreeBitmap(&bm);
}

}  // namespace

namespace {

// A blank run-compressed bitmap costs a few bytes per 32768 rows, whatever its
// height: row indexes appear only when rows are written.
TEST(RunStore, TallBlankBitmapIsCheap) {
    K_GetDefaultXResolution();
    const long base = krn::faultinject::liveBlocks();
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_COMPRESSED, 64, 200000000, 1, ORDER_RGB, nullptr, 1,
                             nullptr, 0),
              KS_SUCCESS);
    EXPECT_EQ(bm.uFlags & BRF_COMPRESSED, BRF_COMPRESSED);
    EXPECT_LE(krn::faultinject::liveBlocks() - base, 3);  // store, palette and its handle
    uint8_t row[8], got[8];
    std::memset(got, 0xEE, sizeof got);
    ASSERT_EQ(K_GetBitmapRow(&bm, got, 199999999, 8), 8);
    for (uint8_t b : got) EXPECT_EQ(b, 0);
    for (int i = 0; i < 8; ++i) row[i] = uint8_t(0x5A ^ i);
    ASSERT_EQ(K_PutBitmapRow(&bm, row, 123456789, 8), 8);
    ASSERT_EQ(K_GetBitmapRow(&bm, got, 123456789, 8), 8);
    EXPECT_EQ(std::memcmp(got, row, 8), 0);
    ASSERT_EQ(K_GetBitmapRow(&bm, got, 123456790, 8), 8);
    for (uint8_t b : got) EXPECT_EQ(b, 0);
    ASSERT_EQ(K_ChangeBitmapHeight(&bm, 100), KS_SUCCESS);
    K_FreeBitmap(&bm);
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

}  // namespace
