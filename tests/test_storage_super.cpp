// test_storage_super.cpp - the super-compressed row codec on its own: exact
// round trips of structured and random rows at 1, 8 and 24 bits, the method
// each kind of row gets, compression where it is expected, and corrupt
// encodings that must be refused without reading or writing out of bounds.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "ombrix.h"
#include "krn/common/superstore.h"
#include "storage_kinds.h"

using namespace storagetest;

namespace {

size_t rawBytes(int32_t w, int32_t bpp) { return size_t((uint64_t(w) * uint64_t(bpp) + 7) / 8); }
uint32_t bplOf(int32_t w, int32_t bpp) { return uint32_t(((uint64_t(w) * uint64_t(bpp) + 31) >> 3) & ~3ull); }

enum class Shape { Zero, Smooth, Text, Random, OnePixel, AllOnes };

std::vector<uint8_t> makeRow(Shape s, int32_t w, int32_t bpp, uint32_t seed) {
    std::vector<uint8_t> row(bplOf(w, bpp), 0);
    std::mt19937 rng(seed);
    for (int32_t x = 0; x < w; ++x) {
        uint64_t v = 0;
        switch (s) {
            case Shape::Zero: v = 0; break;
            case Shape::Smooth: {
                double f = 128 + 100 * std::sin(x * 0.01 + seed) + double(rng() % 3);
                v = uint64_t(f);
                if (bpp == 24) v = v | (uint64_t(uint8_t(v * 3 / 4)) << 8) | (uint64_t(uint8_t(v / 2 + 20)) << 16);
                if (bpp == 1) v = (x / 37) & 1;
                break;
            }
            case Shape::Text: v = (x % 97 < 80) ? 0 : (x % 5 < 2 ? 1 : 0); break;
            case Shape::Random: v = rng(); break;
            case Shape::OnePixel: v = x == w / 2 ? ~0ull : 0; break;
            case Shape::AllOnes: v = ~0ull; break;
        }
        if (bpp < 64) v &= (1ull << bpp) - 1;
        if (s == Shape::Text && bpp > 1) v = v ? 20 : 250;
        setPixel(row.data(), x, bpp, v);
    }
    return row;
}

TEST(SuperCodec, RoundTripsAndMethods) {
    for (int32_t bpp : {1, 8, 24}) {
        for (int32_t w : {1, 2, 7, 8, 9, 31, 33, 63, 64, 65, 100, 1000, 4099}) {
            for (Shape s : {Shape::Zero, Shape::Smooth, Shape::Text, Shape::Random, Shape::OnePixel, Shape::AllOnes}) {
                SCOPED_TRACE(::testing::Message() << "bpp " << bpp << " w " << w << " shape " << int(s));
                auto row = makeRow(s, w, bpp, uint32_t(w));
                const uint32_t bpl = bplOf(w, bpp);
                std::vector<uint8_t> enc(krn::superMaxEncoded(bpl));
                size_t n = krn::superEncode(row.data(), w, bpp, enc.data());
                ASSERT_GE(n, 1u);
                ASSERT_LE(n, enc.size());
                ASSERT_LE(n, 1 + rawBytes(w, bpp)) << "never larger than raw plus the method byte";
                std::vector<uint8_t> back(bpl, 0xCD);
                ASSERT_TRUE(krn::superDecode(enc.data(), n, w, bpp, back.data()));
                ASSERT_TRUE(std::equal(back.begin(), back.begin() + long(rawBytes(w, bpp)), row.begin()));
                if (s == Shape::Zero) {
                    EXPECT_EQ(n, 1u);
                }
                if (s == Shape::Random && bpp > 1) {
                    EXPECT_EQ(enc[0], 0) << "noise is stored raw";
                }
                if (w >= 1000 && (s == Shape::Smooth || s == Shape::Text || s == Shape::OnePixel)) {
                    EXPECT_LT(n * 2, rawBytes(w, bpp)) << "structured rows compress at least 2:1";
                }
            }
        }
    }
}

TEST(SuperCodec, CorruptEncodingsAreRefusedSafely) {
    std::mt19937 rng(5);
    for (int32_t bpp : {1, 8, 24}) {
        const int32_t w = 300;
        const uint32_t bpl = bplOf(w, bpp);
        for (Shape s : {Shape::Smooth, Shape::Text, Shape::OnePixel}) {
            auto row = makeRow(s, w, bpp, 3);
            std::vector<uint8_t> enc(krn::superMaxEncoded(bpl));
            size_t n = krn::superEncode(row.data(), w, bpp, enc.data());
            enc.resize(n);
            int refused = 0;
            for (int i = 0; i < 300; ++i) {
                // Cut short, one byte changed, or one byte too many; an
                // exact-size heap buffer so that ASan sees any overrun.
                size_t len = i % 3 == 0 ? rng() % n : i % 3 == 1 ? n : n + 1;
                std::vector<uint8_t> in(len, uint8_t(rng()));
                std::copy(enc.begin(), enc.begin() + long(std::min(len, n)), in.begin());
                if (i % 3 == 1) in[rng() % n] ^= uint8_t(1 + rng() % 255);
                std::vector<uint8_t> out(bpl);
                bool ok = !in.empty() && krn::superDecode(in.data(), in.size(), w, bpp, out.data());
                refused += ok ? 0 : 1;
            }
            EXPECT_GT(refused, 150) << "bpp " << bpp;
        }
    }
    uint8_t junk[4] = {7, 1, 2, 3};
    uint8_t out[64];
    EXPECT_FALSE(krn::superDecode(junk, 4, 10, 8, out));
    EXPECT_FALSE(krn::superDecode(junk, 0, 10, 8, out));
    EXPECT_FALSE(krn::superDecode(junk, 4, 10, 16, out));
}

TEST(SuperStore, RowsCostNothingUntilWrittenAndFreeWhenZeroed) {
    BITMAPRECORD bm;
    ASSERT_EQ(K_CreateBitmap(&bm, BITMAPRECORD_SIZE, 1024, 1000, 500, 8, 0, nullptr, 1, nullptr, 0), KS_SUCCESS);
    EXPECT_EQ(krn::superStoredBytes(&bm), 0u);
    auto smooth = makeRow(Shape::Smooth, 1000, 8, 1);
    ASSERT_EQ(K_PutBitmapRow(&bm, smooth.data(), 10, 1000), 1000);
    const uint64_t one = krn::superStoredBytes(&bm);
    EXPECT_GT(one, 1u);
    EXPECT_LT(one, 500u);
    ASSERT_EQ(K_PutBitmapRow(&bm, smooth.data(), 11, 1000), 1000);
    EXPECT_EQ(krn::superStoredBytes(&bm), 2 * one);
    std::vector<uint8_t> zero(1000, 0);
    ASSERT_EQ(K_PutBitmapRow(&bm, zero.data(), 10, 1000), 1000);
    EXPECT_EQ(krn::superStoredBytes(&bm), one);
    ASSERT_EQ(K_ChangeBitmapHeight(&bm, 11), KS_SUCCESS);
    EXPECT_EQ(krn::superStoredBytes(&bm), 0u) << "row 11 left with the height";
    K_FreeBitmap(&bm);
}

}  // namespace
