// diskstore.cpp - disk bitmaps and the storage layer's use of the kernel's
// temporary files (tempfile.h): delete-on-close files, prefix "QX".
//
// A disk bitmap keeps its rows at row * nBytesPerLine in one temporary file
// (hMemory points at a DiskStore: the file and its mapping). The file is
// extended to the data size by writing one zero byte at its last offset; on
// the default file layer it is then mapped writable (the blocks are reserved
// first, so a full disk shows at allocation, not as a fault at the first row
// written) and rows move with memcpy. Through a redirect table, or when the
// address space is short, rows go through positioned reads and writes.
#include <atomic>

#include "kernel.h"
#include "memory.h"
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

int32_t fileMapAll(TempFile* f, uint64_t size, TempMapping* m) noexcept {
    *m = TempMapping{};
    if (size == 0 || size > SIZE_MAX) return KS_SUCCESS;
    int32_t rc = tempMap(f, 0, size_t(size), true, m);
    if (rc == KS_NOT_SUPPORTED || rc == KS_NO_MEMORY) {
        *m = TempMapping{};
        return KS_SUCCESS;  // positioned I/O instead
    }
    return rc;
}

int32_t diskAllocate(BITMAPRECORD* bm) noexcept {
    const uint64_t size = dataSize(bm);
    if (!size) return KS_INVALID_DIMENSIONS;
    auto* d = static_cast<DiskStore*>(memCalloc(sizeof(DiskStore)));
    if (!d) return KS_NO_MEMORY;
    int32_t rc = fileCreate(&d->file);
    if (rc != KS_SUCCESS) {
        memFree(d);
        return rc;
    }
    const uint8_t zero = 0;
    rc = tempWrite(d->file, size - 1, &zero, 1);
    if (rc == KS_SUCCESS) rc = fileMapAll(d->file, size, &d->map);
    if (rc != KS_SUCCESS) {
        tempClose(d->file);
        memFree(d);
        return rc;
    }
    bm->hMemory = d;
    bm->pData = nullptr;
    bm->uDataOffset = 0;
    return KS_SUCCESS;
}

void diskFree(BITMAPRECORD* bm) noexcept {
    auto* d = static_cast<DiskStore*>(bm->hMemory);
    if (d) {
        tempUnmap(&d->map);
        tempClose(d->file);
        memFree(d);
    }
    bm->hMemory = nullptr;
}

int32_t diskSetHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept {
    auto* d = static_cast<DiskStore*>(bm->hMemory);
    if (!d) return KS_INVALID_BITMAP;
    const uint64_t oldSize = dataSize(bm);
    const uint64_t size = uint64_t(bm->nBytesPerLine) * uint64_t(uint32_t(newHeight));
    const bool mapped = d->map.data != nullptr;
    if (mapped) tempUnmap(&d->map);
    int32_t rc = tempSetSize(d->file, size);
    if (rc == KS_SUCCESS && mapped) {
        rc = fileMapAll(d->file, size, &d->map);
        if (rc != KS_SUCCESS) tempSetSize(d->file, oldSize);
    }
    if (rc != KS_SUCCESS && mapped && !d->map.data) fileMapAll(d->file, oldSize, &d->map);
    return rc;
}

}  // namespace krn
