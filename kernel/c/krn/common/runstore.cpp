// runstore.cpp - run-compressed storage of 1-bit bitmaps (BRF_COMPRESSED).
//
// The rows live in row blocks of 32768 rows. A block keeps its rows in the
// compressed-row format in one byte pool plus an index of where each row
// starts; a row never written has no bytes and reads as all 0 pixels. A block
// gets its index only when its first row is written, so a blank bitmap costs a
// few bytes per 32768 rows whatever its height. A row
// that is rewritten in place when its new form fits its slot, else appended;
// the pool is compacted when more than half of it is no longer referenced.
#include <algorithm>
#include <cstring>

#include "kernel.h"
#include "memory.h"
#include "runs.h"
#include "storage.h"

namespace krn {
namespace {

size_t storeBytes(uint32_t capacity) noexcept {
    return sizeof(RunStore) + (capacity ? capacity - 1 : 0) * sizeof(RunBlock);
}

void freeBlock(RunBlock& b) noexcept {
    memFree(b.offsets);
    memFree(b.pool);
    b = RunBlock{};
}

int32_t initBlock(RunBlock& b, uint32_t rows) noexcept {
    b = RunBlock{};  // no index yet: every row blank
    b.rows = rows;
    return KS_SUCCESS;
}

// Gives the block its row index (all rows blank) on its first write.
int32_t ensureIndex(RunBlock& b) noexcept {
    if (b.offsets) return KS_SUCCESS;
    b.offsets = memAllocArray<uint32_t>(kRowsPerRunBlock);
    if (!b.offsets) return KS_NO_MEMORY;
    std::fill(b.offsets, b.offsets + kRowsPerRunBlock, kBlankRow);
    return KS_SUCCESS;
}

// Makes room for `need` more bytes at the end of the pool.
int32_t reserve(RunBlock& b, size_t need) noexcept {
    if (b.used + need <= b.capacity) return KS_SUCCESS;
    const size_t live = b.used - b.garbage;
    if (live + need > 0xFFFFFFF0u) return KS_NO_MEMORY;
    if (b.garbage > b.used / 2) {
        // Compact into a fresh pool, rows in order.
        size_t cap = std::max<size_t>((live + need) + (live + need) / 2, 4096);
        auto* pool = static_cast<uint8_t*>(memAlloc(cap));
        if (pool) {
            size_t at = 0;
            for (uint32_t i = 0; i < b.rows; ++i) {
                if (b.offsets[i] == kBlankRow) continue;
                size_t n = rowBytes(b.pool + b.offsets[i]);
                std::memcpy(pool + at, b.pool + b.offsets[i], n);
                b.offsets[i] = uint32_t(at);
                at += n;
            }
            memFree(b.pool);
            b.pool = pool;
            b.used = at;
            b.capacity = cap;
            b.garbage = 0;
            return KS_SUCCESS;
        }
        // Fall through: try to grow instead.
    }
    size_t cap = std::max<size_t>(b.capacity * 2, std::max<size_t>(b.used + need, 4096));
    cap = std::min<size_t>(cap, 0xFFFFFFF0u);
    if (b.used + need > cap) return KS_NO_MEMORY;
    void* p = memRealloc(b.pool, cap);
    if (!p) return KS_NO_MEMORY;
    b.pool = static_cast<uint8_t*>(p);
    b.capacity = cap;
    return KS_SUCCESS;
}

}  // namespace

int32_t runsAllocate(BITMAPRECORD* bm) noexcept {
    const uint32_t h = uint32_t(bm->nHeight);
    const uint32_t count = std::max<uint32_t>(1, (h + kRowsPerRunBlock - 1) / kRowsPerRunBlock);
    auto* s = static_cast<RunStore*>(memCalloc(storeBytes(count)));
    if (!s) return KS_NO_MEMORY;
    s->capacity = count;
    for (uint32_t i = 0; i < count; ++i) {
        if (initBlock(s->blocks[i], std::min(kRowsPerRunBlock, h - i * kRowsPerRunBlock)) != KS_SUCCESS) {
            for (uint32_t j = 0; j < i; ++j) freeBlock(s->blocks[j]);
            memFree(s);
            return KS_NO_MEMORY;
        }
        s->blockCount = i + 1;
    }
    bm->pData = reinterpret_cast<uint8_t*>(s);
    bm->hMemory = nullptr;
    return KS_SUCCESS;
}

void runsFree(BITMAPRECORD* bm) noexcept {
    auto* s = reinterpret_cast<RunStore*>(bm->pData);
    if (!s) return;
    for (uint32_t i = s->blockCount; i > 0; --i) freeBlock(s->blocks[i - 1]);  // last first
    memFree(s);
    bm->pData = nullptr;
}

const uint8_t* runsRowData(const BITMAPRECORD* bm, int32_t row, size_t* bytes) noexcept {
    auto* s = reinterpret_cast<const RunStore*>(bm->pData);
    const uint32_t bi = uint32_t(row) / kRowsPerRunBlock, ri = uint32_t(row) % kRowsPerRunBlock;
    if (!s || bi >= s->blockCount || ri >= s->blocks[bi].rows) return nullptr;
    const RunBlock& b = s->blocks[bi];
    if (!b.offsets || b.offsets[ri] == kBlankRow) return nullptr;
    const uint8_t* p = b.pool + b.offsets[ri];
    *bytes = rowBytes(p);
    return p;
}

int32_t runsStoreRow(BITMAPRECORD* bm, int32_t row, const uint8_t* runs, size_t bytes) noexcept {
    auto* s = reinterpret_cast<RunStore*>(bm->pData);
    const uint32_t bi = uint32_t(row) / kRowsPerRunBlock, ri = uint32_t(row) % kRowsPerRunBlock;
    if (!s || bi >= s->blockCount || ri >= s->blocks[bi].rows) return KS_INVALID_BITMAP;
    RunBlock& b = s->blocks[bi];
    if (int32_t rc = ensureIndex(b); rc != KS_SUCCESS) return rc;
    const uint32_t old = b.offsets[ri];
    if (old != kBlankRow) {
        const size_t oldBytes = rowBytes(b.pool + old);
        if (bytes <= oldBytes) {
            std::memmove(b.pool + old, runs, bytes);
            b.garbage += oldBytes - bytes;
            return KS_SUCCESS;
        }
    }
    // `runs` may point into this pool (it does not when it comes from the row
    // layer, which compresses into its own buffer), so copy after reserving
    // only from caller memory.
    int32_t rc = reserve(b, bytes);
    if (rc != KS_SUCCESS) return rc;
    const uint32_t cur = b.offsets[ri];  // compaction may have moved it
    std::memcpy(b.pool + b.used, runs, bytes);
    if (cur != kBlankRow) b.garbage += rowBytes(b.pool + cur);
    b.offsets[ri] = uint32_t(b.used);
    b.used += bytes;
    return KS_SUCCESS;
}

int32_t runsSetHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept {
    auto* s = reinterpret_cast<RunStore*>(bm->pData);
    if (!s) return KS_INVALID_BITMAP;
    const uint32_t h = uint32_t(newHeight);
    const uint32_t count = std::max<uint32_t>(1, (h + kRowsPerRunBlock - 1) / kRowsPerRunBlock);
    auto rowsOf = [&](uint32_t i) { return std::min(kRowsPerRunBlock, h - std::min(h, i * kRowsPerRunBlock)); };
    if (count > s->capacity) {
        void* p = memRealloc(s, storeBytes(count));
        if (!p) return KS_NO_MEMORY;
        s = static_cast<RunStore*>(p);
        bm->pData = reinterpret_cast<uint8_t*>(s);
        // New entries are initialised below.
        s->capacity = count;
    }
    const uint32_t old = s->blockCount;
    for (uint32_t i = old; i < count; ++i) {
        if (initBlock(s->blocks[i], rowsOf(i)) != KS_SUCCESS) {
            for (uint32_t j = old; j < i; ++j) freeBlock(s->blocks[j]);
            return KS_NO_MEMORY;
        }
    }
    for (uint32_t i = count; i < old; ++i) freeBlock(s->blocks[i]);
    s->blockCount = count;
    // Adjust the row counts of the blocks kept; rows that leave become blank
    // so that they read as 0 if the height grows again.
    for (uint32_t i = 0; i < std::min(old, count); ++i) {
        RunBlock& b = s->blocks[i];
        const uint32_t rows = rowsOf(i);
        for (uint32_t r = rows; b.offsets && r < b.rows; ++r) {
            if (b.offsets[r] != kBlankRow) b.garbage += rowBytes(b.pool + b.offsets[r]);
            b.offsets[r] = kBlankRow;
        }
        b.rows = rows;
    }
    return KS_SUCCESS;
}

}  // namespace krn
