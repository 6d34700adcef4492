// fuzz_storage_rows.cpp - the row calls on every storage kind, and moves between kinds, against a plain model
// (a byte array of the stored rows). Input: byte 0 depth selector, bytes 1-2 width, byte 3 height, then
// operations (selector byte + operands): row, column and segment puts, row and column gets, moves to another
// storage kind (single block, small tiles, temporary file, run-compressed, super-compressed), compression
// changes. Every result and read byte is the model's, reads write nothing past their byte count, a move keeps
// the pixels. Padding past the last pixel is not compared (compressed kinds drop it).
#include <algorithm>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "ombrix.h"

namespace {

constexpr int kDepths[] = {1, 8, 24, 4, 16, 32};
constexpr uint32_t kKinds[] = {MEMTYPE_CONVENTIONAL, 4u /* tiles */, MEMTYPE_NO_CONVENTIONAL /* file */,
                               MEMTYPE_COMPRESSED, MEMTYPE_SUPERCOMPRESSED};

struct Model {
    int32_t width = 0, height = 0, bpp = 0;
    uint32_t bpl = 0;
    std::vector<uint8_t> rows;
    uint8_t* row(int32_t y) { return rows.data() + size_t(y) * bpl; }
};

// Compares n bytes read from byte offset `off` of a row with the model, only where they hold pixel bits.
void comparePixels(const Model& m, const uint8_t* model, const uint8_t* got, uint32_t off, uint32_t n) {
    const uint64_t bits = uint64_t(m.width) * uint64_t(m.bpp);
    for (uint64_t k = 0, bit = uint64_t(off) * 8; k < n && bit < bits; ++k, bit += 8)  // (bit: the byte's first)
        FUZZ_CHECK(((model[off + k] ^ got[k]) & (bit + 8 > bits ? uint8_t(0xFF00 >> (bits - bit)) : 0xFF)) == 0);
}

// A whole row read: the model's pixels, nothing written past the row.
void checkRow(BITMAPRECORD& bm, Model& m, int32_t y) {
    std::vector<uint8_t> buf(m.bpl + 4, 0x99);
    FUZZ_CHECK(K_GetBitmapRow(&bm, buf.data(), y, m.bpl) == int32_t(m.bpl));
    for (uint32_t k = m.bpl; k < m.bpl + 4; ++k) FUZZ_CHECK(buf[k] == 0x99);
    comparePixels(m, m.row(y), buf.data(), 0, m.bpl);
}
void checkAll(BITMAPRECORD& bm, Model& m) { for (int32_t y = 0; y < m.height; ++y) checkRow(bm, m, y); }
uint32_t colOffset(const Model& m, int32_t x) { return uint32_t((uint64_t(x) * uint64_t(m.bpp)) / 8); }
// Run compression takes 1 bit, super-compression 1, 8 and 24 bits.
bool takes(int bpp, bool runs, bool super) { return runs ? bpp == 1 : !super || bpp == 1 || bpp == 8 || bpp == 24; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    fuzzinput::Input in{data, size};
    Model m;
    m.bpp = kDepths[in.byte() % 6], m.width = int32_t(1 + in.u16() % 2048), m.height = int32_t(1 + in.byte() % 64);
    m.bpl = uint32_t(((uint64_t(m.width) * uint64_t(m.bpp) + 31) / 32) * 4);
    m.rows.assign(size_t(m.bpl) * size_t(m.height), 0);

    BITMAPRECORD bm;
    if (K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, m.width, m.height, m.bpp,
                       m.bpp >= 24 ? ORDER_BGR : 0, nullptr, TOP_LEFT, nullptr, 0) != KS_SUCCESS) return 0;
    FUZZ_CHECK(bm.nBytesPerLine == m.bpl);

    std::vector<uint8_t> src, buf;
    for (int ops = 0; in.more() && ops < 64; ++ops) {
        const uint8_t sel = in.byte();
        const int32_t y = int32_t(in.byte() % m.height);
        switch (sel % 7) {
            case 0:
            case 1: {  // a whole row or from a column on, a byte count from the input (cut at the row's end)
                const bool col = sel % 7 == 1;
                const int32_t x = col ? int32_t(in.u16() % uint32_t(m.width)) : 0;
                const uint32_t n = col ? in.byte() * 3u : std::min(in.u16(), m.bpl + 8), off = colOffset(m, x);
                src.assign(n + 1, 0);  // never a null pointer, also for 0 bytes
                for (uint32_t k = 0; k < n; ++k) src[k] = uint8_t(in.byte() ^ k);
                const int32_t moved = int32_t(std::min(n, m.bpl - off));
                const uint8_t* p = src.data();
                FUZZ_CHECK((col ? K_PutBitmapRowCol(&bm, p, y, x, n) : K_PutBitmapRow(&bm, p, y, n)) == moved);
                std::memcpy(m.row(y) + off, src.data(), size_t(moved)); break;
            }
            case 2: {  // segments from a whole row
                src.assign(m.bpl, 0);
                const uint8_t fill = in.byte();
                for (uint32_t k = 0; k < m.bpl; ++k) src[k] = uint8_t(fill + 13 * k);
                int32_t segs[8], nseg = in.byte() % 5;
                for (int32_t s = 0; s < 2 * nseg; ++s) segs[s] = int32_t(int16_t(in.u16()));
                FUZZ_CHECK(K_PutBitmapRowSegments(&bm, src.data(), y, segs, nseg) == KS_SUCCESS);
                for (int32_t s = 0; s < nseg; ++s) {
                    const int64_t x1 = std::max(segs[2 * s], 0), x2 = std::min(segs[2 * s + 1], m.width);
                    for (int64_t b = x1 * m.bpp; b < x2 * m.bpp; ++b)  // bit b from the source row
                        m.row(y)[b >> 3] ^= uint8_t((m.row(y)[b >> 3] ^ src[size_t(b >> 3)]) & (0x80 >> (b & 7)));
                }
                break;
            }
            case 3: {  // a column read; nothing past the count is written
                const int32_t x = int32_t(in.u16() % uint32_t(m.width));
                const uint32_t n = in.byte() * 5u, off = colOffset(m, x), moved = std::min(n, m.bpl - off);
                buf.assign(n + 4, 0x3C);
                FUZZ_CHECK(K_GetBitmapRowCol(&bm, buf.data(), y, x, n) == int32_t(moved));
                for (uint32_t k = moved; k < n + 4; ++k) FUZZ_CHECK(buf[k] == 0x3C);
                comparePixels(m, m.row(y), buf.data(), off, moved); break;
            }
            case 4: {  // move to another storage kind
                const uint32_t kind = in.pick(kKinds);
                const uint64_t tile = uint64_t(1 + in.byte()) * 64;
                const int32_t rc = K_SetBitmapMemoryInfo(&bm, kind, kind == 4u ? tile : 0);
                const bool ok = takes(m.bpp, kind == MEMTYPE_COMPRESSED, kind == MEMTYPE_SUPERCOMPRESSED);
                uint32_t got = 0;
                FUZZ_CHECK(ok ? rc == KS_SUCCESS && K_GetBitmapMemoryInfo(&bm, &got, nullptr, nullptr, nullptr) == 1 &&
                                    got == (kind == MEMTYPE_NO_CONVENTIONAL ? 128u : kind) : rc < 0);
                checkAll(bm, m); break;
            }
            case 5: {  // compression change
                const int32_t mode = in.byte() % 3;
                const int32_t rc = K_ChangeBitmapCompression(&bm, mode);
                const bool ok = takes(m.bpp, mode == BITMAPCOMPRESSION_RUNS, mode != BITMAPCOMPRESSION_NONE);
                FUZZ_CHECK(ok ? rc == KS_SUCCESS : rc < 0), checkAll(bm, m); break;
            }
            case 6: checkRow(bm, m, y); break;
        }
    }
    checkAll(bm, m), K_FreeBitmap(&bm);
    return 0;
}
