// storage.h - the storage kinds of a bitmap and the row layer over them.
//
// Storage kinds (decided once by the allocator, changed only by
// K_SetBitmapMemoryInfo, K_ChangeBitmapHeight and the compression calls):
//
//   single block      hMemory = movable global block, pData set while locked
//   caller memory     pData = caller's buffer (BRF_USER_MEMORY)
//   tiled             pData = TileTable*; each tile holds whole rows, in memory
//                     or in its own temporary file
//   disk              hMemory = TempFile*, rows at row * nBytesPerLine
//   compressed        pData = RunStore*: 1-bit rows in the compressed-row
//                     format, in row blocks of 32768 rows
//   super-compressed  pData = SuperStore* (superstore.h)
//
// The row layer (rowcol.cpp) is the only code that reads or writes pixels of
// a storage kind; everything else goes through readRow/writeRow below.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ombrix.h"
#include "tempfile.h"

namespace krn {

// ---------------------------------------------------------------- tiles
struct TileEntry {
    uint8_t* mem;       // rows of the tile when in memory (counted in the process counter)
    uint64_t bytes;     // bytes the tile holds (rows * nBytesPerLine)
    TempFile* file;     // the tile's own temporary file, or null
    TempMapping map;    // the file mapped in memory when the file layer allows it
};
// Where the rows of a file tile or a disk bitmap can be reached directly.
inline uint8_t* tileView(const TileEntry& e) noexcept { return e.mem ? e.mem : e.map.data; }

// A disk bitmap (hMemory): its temporary file and, on the default file layer,
// the whole file mapped in memory.
struct DiskStore {
    TempFile* file;
    TempMapping map;
};
// Maps [0, size) of f writable into *m; a file layer that cannot map leaves m
// empty and returns KS_SUCCESS (rows then go through positioned reads and
// writes). Other failures (a disk that cannot back the blocks) are returned.
int32_t fileMapAll(TempFile* f, uint64_t size, TempMapping* m) noexcept;
struct TileTable {
    uint32_t count;        // tiles in use
    uint32_t capacity;     // entries allocated
    uint32_t rowsPerTile;  // every tile but the last holds this many rows
    uint32_t reserved;
    uint64_t tileSize;     // nominal tile size asked for
    TileEntry tiles[1];    // `capacity` entries
};

// ---------------------------------------------------------------- run-compressed rows
constexpr uint32_t kRowsPerRunBlock = 32768;
constexpr uint32_t kBlankRow = 0xFFFFFFFFu;  // offset of a row that was never written: all 0 pixels
struct RunBlock {
    uint32_t rows;       // rows in this block
    uint32_t* offsets;   // per row: byte offset of its compressed row in pool, or kBlankRow
    uint8_t* pool;       // compressed rows (word count + runs)
    size_t used;         // bytes of pool in use
    size_t capacity;     // bytes of pool allocated
    size_t garbage;      // bytes of pool no longer referenced
};
struct RunStore {
    uint32_t blockCount;
    uint32_t capacity;
    RunBlock blocks[1];
};

// ---------------------------------------------------------------- accounting
// Process-wide cap and counter of conventional memory (one lock).
// reserveConventional: 1, or KS_MEMORY_CAP_EXCEEDED when cap && counter+n > cap.
int32_t reserveConventional(uint64_t n) noexcept;
void releaseConventional(uint64_t n) noexcept;
uint64_t conventionalCounter() noexcept;
uint64_t conventionalCap() noexcept;

// Free memory (physical + swap) and total, in bytes; overridable in tests.
uint64_t availableMemory() noexcept;
// Bytes of new storage the calling thread may still place in memory: the
// available memory (within the control group's limit) less the memory to
// keep free.
uint64_t memoryBudget() noexcept;
uint64_t totalMemory() noexcept;
namespace testhook {
// Pretend the machine has this much available memory (0 restores the real value).
void setAvailableMemory(uint64_t bytes) noexcept;
// Makes every temporary-file creation of the storage layer fail (-14) while on.
void failTempFiles(bool on) noexcept;
}  // namespace testhook

// ---------------------------------------------------------------- temporary files
// The storage layer's use of the kernel's temporary files (disk bitmaps and
// file-backed tiles): delete-on-close files with the prefix "QX".
int32_t fileCreate(TempFile** out) noexcept;
int32_t fileRead(TempFile* f, uint64_t offset, void* buf, size_t n) noexcept;
int32_t fileWrite(TempFile* f, uint64_t offset, const void* buf, size_t n) noexcept;
int32_t fileSetSize(TempFile* f, uint64_t size) noexcept;
void fileClose(TempFile* f) noexcept;
// False when temporary files may not be kept on a physical disk (mode 3).
bool fileDiskAllowed() noexcept;

// ---------------------------------------------------------------- storage kinds
// Each builder works on a record whose storage bits are clear; on failure it
// frees what it made and leaves hMemory/pData null.
// memBudget: bytes of tiles that may be held in memory (the rest go to files
// when diskAllowed, else the allocation fails with KS_NO_MEMORY).
int32_t tilesAllocate(BITMAPRECORD* bm, uint64_t tileSize, bool diskAllowed, int32_t fifth,
                      uint64_t memBudget) noexcept;
void tilesFree(BITMAPRECORD* bm) noexcept;
int32_t tilesSetHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept;

int32_t diskAllocate(BITMAPRECORD* bm) noexcept;
void diskFree(BITMAPRECORD* bm) noexcept;
int32_t diskSetHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept;

int32_t runsAllocate(BITMAPRECORD* bm) noexcept;
void runsFree(BITMAPRECORD* bm) noexcept;
int32_t runsSetHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept;
// The stored compressed row (word count + runs) of a compressed bitmap, or
// null for a blank row; `bytes` receives its size.
const uint8_t* runsRowData(const BITMAPRECORD* bm, int32_t row, size_t* bytes) noexcept;
// Replaces a row of a compressed bitmap with an already validated compressed
// row of exactly nWidth pixels.
int32_t runsStoreRow(BITMAPRECORD* bm, int32_t row, const uint8_t* runs, size_t bytes) noexcept;

// Storage kind of an allocated record, as reported by K_GetBitmapMemoryInfo.
uint32_t storageKind(const BITMAPRECORD* bm) noexcept;

// ---------------------------------------------------------------- row layer
// Bytes [offset, offset + n) of stored row `row`; the caller has checked that
// the record is allocated, the row exists and the range lies in the row.
// Return KS_SUCCESS or a negative status.
int32_t readRow(BITMAPRECORD* bm, int32_t row, uint32_t offset, uint8_t* dst, uint32_t n) noexcept;
int32_t writeRow(BITMAPRECORD* bm, int32_t row, uint32_t offset, const uint8_t* src, uint32_t n) noexcept;
// A whole stored row (nBytesPerLine bytes) as the row API sees it: the
// record's get-row callback first, then the storage.
int32_t readFullRow(BITMAPRECORD* bm, int32_t row, uint8_t* dst) noexcept;
// Copies every row of `src` into `dst` (same geometry, any storage kinds).
int32_t copyAllRows(BITMAPRECORD* dst, BITMAPRECORD* src) noexcept;

}  // namespace krn
