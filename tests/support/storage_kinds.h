// storage_kinds.h - bitmaps of every storage kind, a plain reference image to compare them with, state guards.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ombrix.h"
#include "krn/common/settings.h"

namespace storagetest {

// CallbackMemory: the allocate data callback supplies the pixels; TilesFile: every tile in its own temporary file;
// Compressed: 1 bit only; SuperCompressed: 1, 8, 24 bits.
enum class Kind {
    SingleBlock, CallerMemory, CallbackMemory, TilesMemory, TilesFile, Disk, Compressed, SuperCompressed
};

inline const char* kindName(Kind k) {
    static const char* const names[] = {"single block",   "caller memory", "callback memory", "tiles in memory",
                                        "tiles in files", "disk",          "compressed",      "super-compressed"};
    return unsigned(k) < 8 ? names[unsigned(k)] : "?";
}

inline std::vector<Kind> kindsFor(int bpp) {
    std::vector<Kind> k = {Kind::SingleBlock, Kind::CallerMemory, Kind::CallbackMemory,
                           Kind::TilesMemory, Kind::TilesFile,    Kind::Disk};
    if (bpp == 1) k.push_back(Kind::Compressed);
    if (bpp == 1 || bpp == 8 || bpp == 24) k.push_back(Kind::SuperCompressed);
    return k;
}

// Restores the process-wide cap and the thread's thresholds.
struct CapGuard {
    int64_t cap = 0;
    int32_t t[5];
    CapGuard() {
        K_ManageMemory(MANAGEMEMORY_GET_CAP, 0, &cap), K_GetMemoryThresholds(&t[0], &t[1], &t[2], &t[3], &t[4]);
    }
    ~CapGuard() {
        K_ManageMemory(MANAGEMEMORY_SET_CAP, cap, nullptr);
        // Directly: the default largest image (0x7FFFFFFF) is not a value the setter takes.
        krn::ThreadSettings& ts = krn::settings();
        ts.nMemKeepFree = t[0], ts.nMemLargestImage = t[1], ts.nMemTileSize = t[2], ts.nMemFourth = t[3],
        ts.nMemFifth = t[4];
        K_SetGlobalMemoryThresholds(nullptr);
    }
};

// A bitmap of one storage kind; owns caller buffers.
struct KindBitmap {
    BITMAPRECORD bm{};
    std::vector<uint8_t> callerBuffer;
    BITMAPDATACALLBACKS cbs{};
    int32_t rc = KS_FAILURE;

    static int32_t supplyPixels(BITMAPRECORD* b, BITMAPALLOCINFO*, void* user) {
        return b->pData = static_cast<KindBitmap*>(user)->callerBuffer.data(), 2;
    }

    KindBitmap(Kind kind, int32_t width, int32_t height, int32_t bpp) {
        BITMAPRECORD tmp;
        K_InitBitmap(&tmp, BITMAPRECORD_SIZE, width, height, bpp);
        const size_t size = size_t(tmp.uSize64);
        auto create = [&](uint32_t type, uint8_t* data, size_t bytes) {
            return K_CreateBitmap(&bm, BITMAPRECORD_SIZE, type, width, height, bpp, 0, nullptr, 1, data, bytes);
        };
        switch (kind) {
            case Kind::SingleBlock: rc = create(1, nullptr, 0); break;
            case Kind::CallerMemory: rc = (callerBuffer.assign(size, 0), create(2, callerBuffer.data(), size)); break;
            case Kind::CallbackMemory:
                callerBuffer.assign(size, 0);
                cbs.uStructSize = BITMAPDATACALLBACKS_SIZE, cbs.pUserData = this,
                cbs.pfnAllocate = &KindBitmap::supplyPixels;
                rc = K_CreateBitmapWithCallbacks(&bm, BITMAPRECORD_SIZE, 1, width, height, bpp, 0, nullptr, 1, nullptr,
                                                 0, &cbs);
                break;
            case Kind::TilesMemory:  // tiles of 3 rows and a bit: rows never straddle tiles, the last tile is short
                if ((rc = create(1, nullptr, 0)) == KS_SUCCESS)
                    rc = K_SetBitmapMemoryInfo(&bm, 4, uint64_t(tmp.nBytesPerLine) * 3 + 1);
                break;
            case Kind::TilesFile: {  // under a cap the tiles cannot fit under, every tile goes to a file
                int64_t oldCap = 0, counter = 0;
                rc = create(1, nullptr, 0);
                K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter),
                    K_ManageMemory(MANAGEMEMORY_SET_CAP, counter + 1, &oldCap);
                if (rc == KS_SUCCESS) rc = K_SetBitmapMemoryInfo(&bm, 4, uint64_t(tmp.nBytesPerLine) * 4);
                K_ManageMemory(MANAGEMEMORY_SET_CAP, oldCap, nullptr);
                break;
            }
            case Kind::Disk: rc = create(128, nullptr, 0); break;
            case Kind::Compressed: rc = create(512, nullptr, 0); break;
            case Kind::SuperCompressed: rc = create(1024, nullptr, 0); break;
        }
    }
    ~KindBitmap() { K_FreeBitmap(&bm); }
    KindBitmap(const KindBitmap&) = delete;
    KindBitmap& operator=(const KindBitmap&) = delete;
};

// A plain image: rows of nBytesPerLine bytes in one vector.
struct RefImage {
    int32_t width, height, bpp;
    uint32_t bpl;
    std::vector<uint8_t> px;
    RefImage(int32_t w, int32_t h, int32_t b) : width(w), height(h), bpp(b) {
        bpl = uint32_t(((uint64_t(w) * uint64_t(b) + 31) >> 3) & ~uint64_t(3));
        px.assign(size_t(bpl) * size_t(h), 0);
    }
    uint8_t* row(int32_t r) { return px.data() + size_t(r) * bpl; }
    void randomize(uint32_t seed) {  // the bits past the width stay zero
        std::mt19937 rng(seed);
        for (auto& b : px) b = uint8_t(rng());
        for (int32_t r = 0; r < height; ++r) clearPadding(row(r));
    }
    void clearPadding(uint8_t* rowp) const {
        if (bpp == 12) {  // two pixels in three bytes: an odd width leaves the high nibble of its middle byte
            const size_t used = size_t(width) / 2 * 3 + (width & 1 ? 2 : 0);
            if (width & 1) rowp[used - 1] &= 0x0Fu;
            std::memset(rowp + used, 0, size_t(bpl) - used);
            return;
        }
        const uint64_t bits = uint64_t(width) * uint64_t(bpp);
        for (uint64_t bit = bits; bit < uint64_t(bpl) * 8; ++bit) rowp[bit >> 3] &= uint8_t(~(0x80u >> (bit & 7)));
    }
};

// 12-bit grey: two pixels in three bytes, the low 12 bits of the little-endian word at the pair's first byte, then
// the high 12 bits of the word one byte on.
inline uint64_t getPixel12(const uint8_t* row, int32_t x) {
    const uint8_t* p = row + size_t(x) / 2 * 3 + (x & 1);
    const uint32_t word = uint32_t(p[0]) | uint32_t(p[1]) << 8;
    return (x & 1) ? word >> 4 : word & 0xFFFu;
}

// Pixel value at x of a row, any depth below 64 bits (plain reference).
inline uint64_t getPixel(const uint8_t* row, int32_t x, int32_t bpp) {
    if (bpp == 12) return getPixel12(row, x);
    uint64_t v = 0;
    const uint64_t first = uint64_t(x) * uint64_t(bpp);
    for (uint64_t bit = first; bit < first + uint64_t(bpp); ++bit)
        v = (v << 1) | ((row[bit >> 3] >> (7 - (bit & 7))) & 1u);
    return v;
}
inline void setPixel(uint8_t* row, int32_t x, int32_t bpp, uint64_t v) {
    if (bpp == 12) {
        uint8_t* p = row + size_t(x) / 2 * 3 + (x & 1);
        const uint32_t word = uint32_t(p[0]) | uint32_t(p[1]) << 8, keep = (x & 1) ? 0x000Fu : 0xF000u;
        const uint32_t next = (word & keep) | uint32_t(v & 0xFFFu) << ((x & 1) ? 4 : 0);
        p[0] = uint8_t(next), p[1] = uint8_t(next >> 8);
        return;
    }
    const uint64_t first = uint64_t(x) * uint64_t(bpp);
    for (int32_t i = 0; i < bpp; ++i) {
        const uint64_t bit = first + uint64_t(i);
        const uint8_t m = uint8_t(0x80u >> (bit & 7));
        row[bit >> 3] = ((v >> (bpp - 1 - i)) & 1u) ? uint8_t(row[bit >> 3] | m) : uint8_t(row[bit >> 3] & ~m);
    }
}

}  // namespace storagetest
