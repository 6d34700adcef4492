// diskstore.cpp - disk bitmaps and the storage layer's use of the kernel's
// temporary files (tempfile.h): delete-on-close files, prefix "QX".
//
// A disk bitmap keeps its rows at row * nBytesPerLine in one temporary file
// (hMemory). The file is extended to the data size by writing one zero byte
// at its last offset, so a full disk shows at allocation, not at the first
// row written.
#include <atomic>

#include "kernel.h"
#include "storage.h"
#include "tempfile.h"

namespace krn {
namespace {
std::atomic<bool> g_failTempFiles{false};
}

namespace testhook {
void failTempFiles(bool on) noexcept { g_failTempFiles.store(on); }
}  // namespace testhook

int32_t fileCreate(TempFile** out) noexcept {
    *out = nullptr;
    if (g_failTempFiles.load()) return KS_FILE_OPEN;
    return tempCreate(out, "QX");
}
int32_t fileRead(TempFile* f, uint64_t offset, void* buf, size_t n) noexcept {
    if (!f) return KS_INVALID_BITMAP;
    return tempRead(f, offset, buf, n);
}
int32_t fileWrite(TempFile* f, uint64_t offset, const void* buf, size_t n) noexcept {
    if (!f) return KS_INVALID_BITMAP;
    return tempWrite(f, offset, buf, n);
}
int32_t fileSetSize(TempFile* f, uint64_t size) noexcept {
    if (!f) return KS_INVALID_BITMAP;
    return tempSetSize(f, size);
}
void fileClose(TempFile* f) noexcept { tempClose(f); }
bool fileDiskAllowed() noexcept { return tempDiskAllowed(); }

int32_t diskAllocate(BITMAPRECORD* bm) noexcept {
    const uint64_t size = dataSize(bm);
    if (!size) return KS_INVALID_DIMENSIONS;
    TempFile* f = nullptr;
    int32_t rc = fileCreate(&f);
    if (rc != KS_SUCCESS) return rc;
    const uint8_t zero = 0;
    rc = tempWrite(f, size - 1, &zero, 1);
    if (rc != KS_SUCCESS) {
        tempClose(f);
        return rc;
    }
    bm->hMemory = f;
    bm->pData = nullptr;
    bm->uDataOffset = 0;
    return KS_SUCCESS;
}

void diskFree(BITMAPRECORD* bm) noexcept {
    tempClose(static_cast<TempFile*>(bm->hMemory));
    bm->hMemory = nullptr;
}

int32_t diskSetHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept {
    auto* f = static_cast<TempFile*>(bm->hMemory);
    if (!f) return KS_INVALID_BITMAP;
    return tempSetSize(f, uint64_t(bm->nBytesPerLine) * uint64_t(uint32_t(newHeight)));
}

}  // namespace krn
