// fuzz_record.cpp - a script of record operations (initialise, create, attach caller memory, change height,
// free) on two records and of global-memory calls on a few blocks and garbage handle values. Every status is
// one the operation documents; an initialisation has the padded row size and 64-bit data size of the plain
// rule; a failed creation leaves the record's bytes; a height change keeps the data size in step; nothing
// leaks. At most 4 MiB of pixels are made; the extreme dimensions are still initialised and refused.
#include <algorithm>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "krn/common/memory.h"
#include "ombrix.h"

namespace {

const int32_t kDims[] = {0, 1, 2, 3, 7, 31, 33, 100, 257, -1, -100, 0x7FFFFFFF, INT32_MIN, 0x08000000, 0x07FFFFFF, 65536};
const int32_t kDepths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 15, 16, 24, 32, 48, 64, 65, -1};
const uint32_t kSizes[] = {BITMAPRECORD_SIZE, BITMAPRECORD_SIZE_OLD, 0, 175, 217};
const uint32_t kTypes[] = {0, 1, 2, 3, 9, 257, 265, 512, 768, 1024, 1025, 6, 258};
constexpr uint64_t kMax = 4u << 20;

// Most picks are small, usable values; a few come from the raw byte.
template <size_t N>
int32_t pick(const int32_t (&table)[N], uint8_t b) { return b < 200 ? table[b % N] : int32_t(b) - 200; }

uint64_t plainSize(int32_t w, int32_t h, int32_t bpp, uint32_t* bpl) {
    const uint64_t bits = uint64_t(uint32_t(w)) * uint64_t(uint32_t(bpp)) + 31;
    *bpl = uint32_t((bits >> 3) & ~uint64_t(3));
    return uint64_t(*bpl) * uint64_t(uint32_t(h));
}

bool isStatus(int32_t rc, std::initializer_list<int32_t> allowed) {
    return std::find(allowed.begin(), allowed.end(), rc) != allowed.end();
}
#define EXPECT_STATUS(rc, ...) FUZZ_CHECK(isStatus(rc, {__VA_ARGS__}))

void reset(BITMAPRECORD& bm) {
    std::memset(&bm, 0, sizeof bm);
    bm.uStructSize = BITMAPRECORD_SIZE;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    K_GetDefaultXResolution();  // the per-thread block exists before the baseline
    const long base = krn::faultinject::liveBlocks();
    fuzzinput::Input in{data, size};
    BITMAPRECORD rec[2];
    reset(rec[0]), reset(rec[1]);
    std::vector<uint8_t> caller[2];
    std::vector<HGLOBAL> blocks;

    for (int step = 0; step < 64 && in.more(); ++step) {
        const uint8_t op = in.byte();
        BITMAPRECORD& bm = rec[op >> 7];
        std::vector<uint8_t>& buf = caller[op >> 7];
        switch (op & 15) {
            case 0: case 1: {  // initialise
                K_FreeBitmap(&bm);
                const int32_t w = pick(kDims, in.byte()), h = pick(kDims, in.byte()), bpp = pick(kDepths, in.byte());
                const uint32_t id = kSizes[in.byte() % std::size(kSizes)];
                const int32_t rc = K_InitBitmap(&bm, id, w, h, bpp);
                EXPECT_STATUS(rc, KS_SUCCESS, KS_INVALID_STRUCT_SIZE, KS_INVALID_DIMENSIONS, KS_INVALID_BITS_PER_PIXEL, KS_MEMORY_TOO_LOW);
                uint32_t bpl;
                const uint64_t bytes = plainSize(w, h, bpp, &bpl);
                if (rc == KS_SUCCESS && (w || h || bpp))
                    FUZZ_CHECK(bm.nBytesPerLine == bpl && bm.uSize == uint32_t(bytes) && (id != BITMAPRECORD_SIZE || bm.uSize64 == bytes));
                if (rc != KS_SUCCESS || bm.uSize64 > kMax || id != BITMAPRECORD_SIZE) reset(bm);
                break;
            }
            case 2: case 3: {  // create
                K_FreeBitmap(&bm);
                int32_t w = pick(kDims, in.byte()), h = pick(kDims, in.byte());
                const int32_t bpp = pick(kDepths, in.byte());
                const uint32_t type = kTypes[in.byte() % std::size(kTypes)];
                const int32_t order = int32_t(in.byte() % 9) - 1, persp = int32_t(in.byte() % 11) - 1;
                const int32_t depth = bpp == 0 ? 8 : bpp;  // 0 creates an 8-bit grey bitmap
                uint32_t bpl;
                if (w > 0 && h > 0 && depth > 0 && plainSize(w, h, depth, &bpl) > kMax) h = 1 + h % 7;
                if (w > 0 && h > 0 && depth > 0 && plainSize(w, h, depth, &bpl) > kMax) w = 1 + w % 1000;
                const uint64_t bytes = (w >= 0 && h >= 0 && depth > 0) ? plainSize(w, h, depth, &bpl) : 0;
                const bool withData = in.byte() & 1;
                if (withData && bytes <= kMax) buf.assign(size_t(bytes), 0x5A);
                BITMAPRECORD before;
                std::memset(&before, 0xA5, sizeof before);
                bm = before;
                const int32_t rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, type, w, h, bpp, order, nullptr, persp,
                                                  withData ? buf.data() : nullptr, buf.size());
                EXPECT_STATUS(rc, KS_SUCCESS, KS_INVALID_PARAMETER, KS_INVALID_DIMENSIONS, KS_INVALID_BITS_PER_PIXEL, KS_NO_MEMORY);
                FUZZ_CHECK(rc == KS_SUCCESS || std::memcmp(&bm, &before, sizeof bm) == 0);
                if (rc != KS_SUCCESS) reset(bm);
                else FUZZ_CHECK((bm.uFlags & BRF_ALLOCATED) && bm.nWidth == w && bm.nHeight == h);
                break;
            }
            case 4: {  // change height
                const int32_t h = int32_t(in.byte()) - 8;
                if (uint64_t(bm.nBytesPerLine) * uint32_t(h < 0 ? 0 : h) > kMax) break;
                const int32_t old = bm.nHeight;
                const int32_t rc = K_ChangeBitmapHeight(&bm, h);
                EXPECT_STATUS(rc, KS_SUCCESS, KS_INVALID_BITMAP, KS_INVALID_PARAMETER, KS_INVALID_DIMENSIONS, KS_NO_MEMORY);
                FUZZ_CHECK(rc == KS_SUCCESS ? bm.nHeight == h && bm.uSize64 == uint64_t(bm.nBytesPerLine) * uint32_t(h) : bm.nHeight == old);
                break;
            }
            case 5: {  // attach caller memory of the right or a wrong size
                const uint64_t need = bm.uSize64;
                if (need > kMax) break;
                const int delta = int(in.byte() % 3) - 1;
                if (delta < 0 && need == 0) break;
                buf.assign(size_t(need + delta), 0x33);
                const int32_t rc = K_SetBitmapDataPointer(&bm, buf.data(), buf.size());
                EXPECT_STATUS(rc, KS_SUCCESS, KS_INVALID_PARAMETER);
                FUZZ_CHECK(delta != 0 || rc == KS_SUCCESS || (bm.uFlags & BRF_LOCKED) || bm.nLockCount != 0);
                break;
            }
            case 6:  // access: touch every byte of a single block
                if (K_AccessBitmap(&bm) != KS_SUCCESS) break;
                if (bm.pData && (bm.uFlags & (BRF_LOCKED | BRF_USER_MEMORY)) &&
                    !(bm.uFlags & (BRF_TILED | BRF_COMPRESSED | BRF_SUPERCOMPRESSED)))
                    std::memset(bm.pData, 0x11, size_t(bm.uSize64));
                if (in.byte() & 1) K_ReleaseBitmap(&bm);
                break;
            case 7: K_FreeBitmap(&bm); break;
            case 8: {  // global memory
                const uint32_t flags = (in.byte() & 1) ? GHND : GPTR;
                if (blocks.size() < 16) FUZZ_CHECK(blocks.emplace_back(K_GlobalAlloc(flags, in.byte() * 3u)));
                break;
            }
            case 9: case 10: case 11: {
                if (blocks.empty()) break;
                HGLOBAL& g = blocks[in.byte() % blocks.size()];
                if ((op & 15) == 9) {  // a new size, zero-filled
                    const size_t n = size_t(in.byte()) * 517u;
                    HGLOBAL moved = K_GlobalReAlloc(g, n, GMEM_ZEROINIT);
                    FUZZ_CHECK(!moved || K_GlobalSize(moved) == n);
                    if (moved) g = moved;
                } else if ((op & 15) == 10) {  // the whole size is usable
                    void* p = K_GlobalLock(g);
                    FUZZ_CHECK(p);
                    std::memset(p, 0x44, K_GlobalSize(g)), K_GlobalUnlock(g);
                } else {
                    FUZZ_CHECK(K_GlobalFree(g) == nullptr);
                    blocks.erase(blocks.begin() + (&g - blocks.data()));
                }
                break;
            }
            default: {  // a garbage handle value for every global-memory call
                const uintptr_t small = in.byte();
                HGLOBAL g = reinterpret_cast<HGLOBAL>((op & 1) ? small : ~small);
                if (std::find(blocks.begin(), blocks.end(), g) != blocks.end()) break;
                FUZZ_CHECK(!K_GlobalLock(g) && !K_GlobalSize(g) && !K_GlobalUnlock(g) && !K_GlobalReAlloc(g, 8, 0));
                FUZZ_CHECK(!g || K_GlobalFree(g) == g);
                break;
            }
        }
    }
    for (BITMAPRECORD& bm : rec) K_FreeBitmap(&bm);
    for (HGLOBAL g : blocks) K_GlobalFree(g);
    FUZZ_CHECK(krn::faultinject::liveBlocks() == base);
    return 0;
}
