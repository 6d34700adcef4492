// tiles.cpp - tiled storage: the rows of a bitmap split over tiles of whole
// rows, each tile a zero-filled memory block (counted against the
// process-wide cap) or, when memory for it cannot be had and files are
// allowed, its own temporary file.
//
// Memory tiles are zero-filled lazily by the system, so an allocation that
// succeeds is not yet memory the machine can give. The caller therefore hands
// in a memory budget (the machine's free memory less the memory to keep free):
// tiles past it go to temporary files, or the allocation fails with
// KS_NO_MEMORY when files are not allowed, rather than succeeding and leaving
// the process to be killed when the rows are written.
#include <algorithm>
#include <cstring>

#include "kernel.h"
#include "memory.h"
#include "settings.h"
#include "storage.h"

namespace krn {
namespace {

size_t tableBytes(uint32_t capacity) noexcept {
    return sizeof(TileTable) + (capacity ? capacity - 1 : 0) * sizeof(TileEntry);
}

void freeTile(TileEntry& e) noexcept {
    if (e.mem) {
        memFree(e.mem);
        releaseConventional(e.bytes);
    }
    tempUnmap(&e.map);
    if (e.file) fileClose(e.file);
    e = TileEntry{};
}

// Makes one tile of `bytes` bytes: memory first, then a file when allowed.
int32_t makeTile(TileEntry& e, uint64_t bytes, bool diskAllowed, int32_t fifth, bool memoryAllowed) noexcept {
    e = TileEntry{};
    e.bytes = bytes;
    int32_t memResult = memoryAllowed ? reserveConventional(bytes) : KS_NO_MEMORY;
    if (memResult == KS_SUCCESS) {
        e.mem = bytes <= SIZE_MAX ? static_cast<uint8_t*>(memCalloc(size_t(bytes))) : nullptr;
        if (e.mem) return KS_SUCCESS;
        releaseConventional(bytes);
        memResult = KS_NO_MEMORY;
    }
    if (!diskAllowed || fifth <= 0) return memResult;
    int32_t rc = fileCreate(&e.file);
    if (rc != KS_SUCCESS) return rc;
    rc = fileSetSize(e.file, bytes);
    if (rc == KS_SUCCESS) rc = fileMapAll(e.file, bytes, &e.map);
    if (rc != KS_SUCCESS) {
        fileClose(e.file);
        e.file = nullptr;
        return rc;
    }
    return KS_SUCCESS;
}

// Grows or shrinks tile e from `from` to `to` bytes, keeping its rows.
int32_t resizeTile(TileEntry& e, uint64_t to) noexcept {
    const uint64_t from = e.bytes;
    if (to == from) return KS_SUCCESS;
    if (e.file) {
        const bool mapped = e.map.data != nullptr;
        if (mapped) tempUnmap(&e.map);
        int32_t rc = fileSetSize(e.file, to);
        if (rc == KS_SUCCESS && mapped) {
            rc = fileMapAll(e.file, to, &e.map);
            if (rc != KS_SUCCESS) fileSetSize(e.file, from);
        }
        if (rc == KS_SUCCESS) e.bytes = to;
        if (rc != KS_SUCCESS && mapped && !e.map.data) fileMapAll(e.file, from, &e.map);
        return rc;
    }
    if (to > from) {
        int32_t rc = reserveConventional(to - from);
        if (rc != KS_SUCCESS) return rc;
    }
    void* p = to <= SIZE_MAX ? memRealloc(e.mem, size_t(to)) : nullptr;
    if (!p) {
        if (to > from) releaseConventional(to - from);
        return KS_NO_MEMORY;
    }
    e.mem = static_cast<uint8_t*>(p);
    if (to > from) std::memset(e.mem + from, 0, size_t(to - from));
    else releaseConventional(from - to);
    e.bytes = to;
    return KS_SUCCESS;
}

}  // namespace

int32_t tilesAllocate(BITMAPRECORD* bm, uint64_t tileSize, bool diskAllowed, int32_t fifth,
                      uint64_t memBudget) noexcept {
    const uint64_t bpl = bm->nBytesPerLine;
    const uint32_t height = uint32_t(bm->nHeight);
    if (!bpl || !height) return KS_INVALID_DIMENSIONS;
    const uint32_t rpt = uint32_t(std::clamp<uint64_t>(tileSize / bpl, 1, height));
    const uint32_t count = (height + rpt - 1) / rpt;
    auto* t = static_cast<TileTable*>(memCalloc(tableBytes(count)));
    if (!t) return KS_NO_MEMORY;
    t->capacity = count;
    t->rowsPerTile = rpt;
    t->tileSize = tileSize;
    uint64_t inMemory = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t rows = std::min(rpt, height - i * rpt);
        const uint64_t bytes = uint64_t(rows) * bpl;
        const bool fits = bytes <= memBudget - inMemory;
        int32_t rc = makeTile(t->tiles[i], bytes, diskAllowed, fifth, fits);
        if (rc == KS_SUCCESS && t->tiles[i].mem) inMemory += bytes;
        if (rc != KS_SUCCESS) {
            for (uint32_t j = 0; j < i; ++j) freeTile(t->tiles[j]);
            memFree(t);
            return rc;
        }
        t->count = i + 1;
    }
    bm->pData = reinterpret_cast<uint8_t*>(t);
    bm->hMemory = nullptr;
    return KS_SUCCESS;
}

void tilesFree(BITMAPRECORD* bm) noexcept {
    auto* t = reinterpret_cast<TileTable*>(bm->pData);
    if (!t) return;
    for (uint32_t i = 0; i < t->count; ++i) freeTile(t->tiles[i]);
    memFree(t);
    bm->pData = nullptr;
}

int32_t tilesSetHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept {
    auto* t = reinterpret_cast<TileTable*>(bm->pData);
    if (!t) return KS_INVALID_BITMAP;
    const uint64_t bpl = bm->nBytesPerLine;
    const uint32_t rpt = t->rowsPerTile;
    const uint32_t h = uint32_t(newHeight);
    const uint32_t newCount = h ? (h + rpt - 1) / rpt : 1;
    const uint64_t lastBytes = h ? uint64_t(h - (newCount - 1) * rpt) * bpl : 0;
    if (newCount == t->count && lastBytes >= t->tiles[newCount - 1].bytes)
        return resizeTile(t->tiles[newCount - 1], lastBytes);  // growth inside the last tile
    if (newCount <= t->count) {
        // Shrink: drop whole tiles, then cut the last one so that rows that
        // come back later read as zero.
        for (uint32_t i = newCount; i < t->count; ++i) freeTile(t->tiles[i]);
        t->count = newCount;
        TileEntry& last = t->tiles[newCount - 1];
        if (resizeTile(last, lastBytes) != KS_SUCCESS && last.mem) {
            // The cut failed: the tile stays larger; clear the rows past the new end.
            std::memset(last.mem + lastBytes, 0, size_t(last.bytes - lastBytes));
        }
        return KS_SUCCESS;
    }
    if (newCount > t->capacity) {
        void* p = memRealloc(t, tableBytes(newCount));
        if (!p) return KS_NO_MEMORY;
        t = static_cast<TileTable*>(p);
        bm->pData = reinterpret_cast<uint8_t*>(t);
        t->capacity = newCount;
    }
    const bool diskAllowed = fileDiskAllowed();
    const int32_t fifth = settings().nMemFifth;
    const uint32_t old = t->count;
    const uint64_t budget = memoryBudget();
    uint64_t inMemory = 0;
    for (uint32_t i = old; i < newCount; ++i) {
        const uint64_t bytes = i + 1 == newCount ? lastBytes : uint64_t(rpt) * bpl;
        int32_t rc = makeTile(t->tiles[i], bytes, diskAllowed, fifth, bytes <= budget - inMemory);
        if (rc == KS_SUCCESS && t->tiles[i].mem) inMemory += bytes;
        if (rc != KS_SUCCESS) {
            for (uint32_t j = old; j < i; ++j) freeTile(t->tiles[j]);
            return rc;
        }
    }
    int32_t rc = resizeTile(t->tiles[old - 1], uint64_t(rpt) * bpl);
    if (rc != KS_SUCCESS) {
        for (uint32_t j = old; j < newCount; ++j) freeTile(t->tiles[j]);
        return rc;
    }
    t->count = newCount;
    return KS_SUCCESS;
}

}  // namespace krn
