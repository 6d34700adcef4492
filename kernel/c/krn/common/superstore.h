// superstore.h - the super-compressed row store (memory type 1024, BRF_SUPERCOMPRESSED).
//
// Rows of a 1, 8 or 24-bit bitmap kept compressed in memory, each row on its
// own (random access by row number). A row never written costs nothing: it
// reads as zero bytes. The row codec is described in docs/storage.md.
//
//   superAllocate(bm)          pData = a new store for the record's geometry
//   superFree(bm)              frees every row and the store
//   superGetRow(bm, row, dst)  decodes a whole stored row (nBytesPerLine bytes)
//   superPutRow(bm, row, src)  encodes a whole row (nBytesPerLine bytes)
//   superSetHeight(bm, h)      grows (new rows read as zero) or shrinks
//   superStoredBytes(bm)       bytes of encoded rows held (for reports)
//
// The codec is reachable on its own for tests and benchmarks:
//   superEncode(src, width, bpp, out)   returns the encoded size; out must hold
//                                       superMaxEncoded(bytesPerLine) bytes
//   superDecode(in, size, width, bpp, dst)  false when the data is not a valid
//                                       encoding of one row of that geometry
#pragma once

#include <cstddef>
#include <cstdint>

#include "ombrix.h"

namespace krn {

int32_t superAllocate(BITMAPRECORD* bm) noexcept;
void superFree(BITMAPRECORD* bm) noexcept;
int32_t superGetRow(const BITMAPRECORD* bm, int32_t row, uint8_t* dst) noexcept;
int32_t superPutRow(BITMAPRECORD* bm, int32_t row, const uint8_t* src) noexcept;
int32_t superSetHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept;
uint64_t superStoredBytes(const BITMAPRECORD* bm) noexcept;

size_t superMaxEncoded(uint32_t bytesPerLine) noexcept;
size_t superEncode(const uint8_t* src, int32_t width, int32_t bpp, uint8_t* out) noexcept;
bool superDecode(const uint8_t* in, size_t size, int32_t width, int32_t bpp, uint8_t* dst) noexcept;

}  // namespace krn
