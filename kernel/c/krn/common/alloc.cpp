// alloc.cpp - where the pixels of a bitmap live: the allocation decision,
// access and release, the process-wide cap and counter, thresholds, the
// allocation callbacks, storage conversion and height changes.
//
// The decision (K_AllocateBitmap):
//   process-wide callback -> type adjustments -> validation -> data callback
//   -> caller memory | run-compressed | super-compressed
//   -> single block (cap) -> tiles (halving retry) -> temporary file.
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "hooks.h"
#include "kernel.h"
#include "memory.h"
#include "settings.h"
#include "storage.h"
#include "superstore.h"
#include "../windowsemul/globalmem.h"

namespace krn {
namespace {

// ---------------------------------------------------------------- process-wide state
std::mutex g_capLock;          // guards g_cap and g_counter
uint64_t g_cap = 0;            // 0: no cap
uint64_t g_counter = 0;        // bytes in single blocks and memory tiles

std::atomic<uint64_t> g_largestImage{0};  // process-wide largest conventional image, 0: none
std::atomic<uint64_t> g_fakeAvailable{0};

std::mutex g_callbackLock;
PFN_BITMAPALLOCATE g_allocCallback = nullptr;
void* g_allocUser = nullptr;

constexpr uint64_t kDefaultTileSize = 0x1000000;  // 16 MiB
constexpr uint64_t kMinTileFloor = 0x800000;      // 8 MiB

// The memory types a caller may ask for: each storage kind alone or with its
// refusals, as the header lists them.
bool acceptedType(uint32_t t) noexcept {
    constexpr uint32_t CONV = MEMTYPE_CONVENTIONAL, USER = MEMTYPE_USER, DISK = MEMTYPE_DISK,
                       NOTILES = MEMTYPE_NO_TILES, NOCONV = MEMTYPE_NO_CONVENTIONAL, NODISK = MEMTYPE_NO_DISK,
                       RUNS = MEMTYPE_COMPRESSED, SUPER = MEMTYPE_SUPERCOMPRESSED;
    constexpr uint32_t kAccepted[] = {
        CONV, USER, DISK, NOTILES, CONV | NOTILES, NOCONV,                    // 1 2 4 8 9 128
        NODISK, NODISK | CONV, NODISK | DISK, NODISK | NOTILES,               // 256 257 260 264
        NODISK | CONV | NOTILES,                                              // 265
        RUNS | NODISK, RUNS | NODISK | CONV,                                  // 768 769
        SUPER, SUPER | CONV, SUPER | NODISK, SUPER | NODISK | CONV,           // 1024 1025 1280 1281
    };
    for (uint32_t a : kAccepted)
        if (t == a) return true;
    return false;
}

// A threshold value: >= 0 bytes, -N is N% of `base`.
uint64_t resolveThreshold(int32_t v, uint64_t base) noexcept {
    if (v >= 0) return uint64_t(v);
    uint64_t pct = uint64_t(-int64_t(v));
    return base / 100 * pct + base % 100 * pct / 100;
}

void fillInfo(BITMAPALLOCINFO* info, const BITMAPRECORD* bm, uint32_t memType, void* extra,
              bool withBytesPerLine) noexcept {
    std::memset(info, 0, sizeof(*info));
    info->uStructSize = BITMAPALLOCINFO_SIZE;
    info->uMemoryType = memType;
    info->nWidth = bm->nWidth;
    info->nHeight = bm->nHeight;
    info->nBitsPerPixel = bm->nBitsPerPixel;
    info->nBytesPerLine = withBytesPerLine ? bm->nBytesPerLine : 0;
    info->nOrder = bm->nOrder;
    info->nViewPerspective = bm->nViewPerspective;
    info->uDataSize = dataSize(bm);
    info->pExtra = extra;
}

void clearStorageFields(BITMAPRECORD* bm) noexcept {
    bm->uFlags &= ~BRF_STORAGE_MASK;
    bm->uFlags &= ~BRF_MOVABLE_BLOCK;
    bm->hMemory = nullptr;
    bm->pData = nullptr;
    bm->uDataOffset = 0;
}

thread_local bool t_noZeroFill = false;  // see setNoZeroFill (hooks.h)

int32_t singleBlock(BITMAPRECORD* bm, uint64_t size) noexcept {
    int32_t r = reserveConventional(size);
    if (r != KS_SUCCESS) return r;
    const uint32_t zero = t_noZeroFill ? 0u : GMEM_ZEROINIT;
    HGLOBAL h = size <= SIZE_MAX ? globalAlloc(GMEM_MOVEABLE | zero, size_t(size)) : nullptr;
    if (!h) {
        releaseConventional(size);
        return KS_NO_MEMORY;
    }
    bm->hMemory = h;
    bm->pData = nullptr;
    bm->uDataOffset = 0;
    bm->uFlags |= BRF_ALLOCATED | BRF_CONVENTIONAL;
    return KS_SUCCESS;
}

int32_t tiles(BITMAPRECORD* bm, uint64_t tileSize, bool diskAllowed, int32_t fifth, uint64_t budget) noexcept {
    const uint64_t floor = std::max<uint64_t>(8ull * bm->nBytesPerLine, kMinTileFloor);
    for (;;) {
        int32_t rc = tilesAllocate(bm, tileSize, diskAllowed, fifth, budget);
        if (rc == KS_SUCCESS) {
            bm->uFlags |= BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_TILED;
            return rc;
        }
        // Only a plain shortage of memory can be cured by smaller tiles.
        if (rc != KS_NO_MEMORY || tileSize <= floor) return rc;
        tileSize /= 2;
    }
}

int32_t disk(BITMAPRECORD* bm) noexcept {
    int32_t rc = diskAllocate(bm);
    if (rc != KS_SUCCESS) return rc;
    bm->uFlags = (bm->uFlags & ~(BRF_USER_MEMORY | BRF_MOVABLE_BLOCK)) | BRF_ALLOCATED | BRF_DISK;
    return KS_SUCCESS;
}

// Type adjustments of the decision; 0 when the type is not accepted.
uint32_t adjustType(const BITMAPRECORD* bm, uint32_t t) noexcept {
    if (t & MEMTYPE_USER) {
        // Caller memory combines with nothing: 3, 6, 10, 258 ... are refused.
        return t == MEMTYPE_USER ? t : 0;
    } else if (!fileDiskAllowed()) {
        t = (t & ~MEMTYPE_NO_CONVENTIONAL) | MEMTYPE_NO_DISK;
    }
    const int32_t bpp = bm->nBitsPerPixel;
    if (t & MEMTYPE_COMPRESSED) t = bpp == 1 ? (MEMTYPE_COMPRESSED | MEMTYPE_NO_DISK) : (t & ~MEMTYPE_COMPRESSED);
    if ((t & MEMTYPE_SUPERCOMPRESSED) && bpp != 1 && bpp != 8 && bpp != 24) t &= ~MEMTYPE_SUPERCOMPRESSED;
    // A request whose only storage bit was dropped falls back to the normal decision.
    if (t == 0 || t == MEMTYPE_NO_DISK) t |= MEMTYPE_CONVENTIONAL;
    return acceptedType(t) ? t : 0;
}

// Steps 6..13 of the decision on a record with clear storage fields.
int32_t decide(BITMAPRECORD* bm, uint32_t t) noexcept {
    if (t == MEMTYPE_USER) {
        bm->uFlags |= BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_USER_MEMORY;
        return KS_SUCCESS;
    }
    if (t & MEMTYPE_COMPRESSED) {
        int32_t rc = runsAllocate(bm);
        if (rc != KS_SUCCESS) return KS_NO_MEMORY;
        bm->uFlags |= BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_COMPRESSED;
        return KS_SUCCESS;
    }
    if (t & MEMTYPE_SUPERCOMPRESSED) {
        int32_t rc = superAllocate(bm);
        if (rc != KS_SUCCESS) return rc;
        bm->uFlags |= BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_SUPERCOMPRESSED;
        return KS_SUCCESS;
    }
    const ThreadSettings& ts = settings();
    const uint64_t size = dataSize(bm);
    const uint64_t tileSize = ts.nMemTileSize > 0 ? uint64_t(ts.nMemTileSize) : kDefaultTileSize;
    const uint64_t largestGlobal = g_largestImage.load();
    if (t & MEMTYPE_DISK) {
        if (size <= tileSize) t &= ~MEMTYPE_DISK;
    } else if (largestGlobal && size > largestGlobal && !(t & MEMTYPE_NO_DISK)) {
        t |= MEMTYPE_NO_CONVENTIONAL;
    } else if (t != MEMTYPE_NO_CONVENTIONAL) {
        const uint64_t largest = resolveThreshold(ts.nMemLargestImage, availableMemory());
        if (size > std::min(memoryBudget(), largest)) {
            if (t & MEMTYPE_NO_TILES) {
                if (t & MEMTYPE_NO_DISK) return KS_NO_MEMORY;
                t |= MEMTYPE_NO_CONVENTIONAL;
            } else {
                t |= MEMTYPE_DISK;
            }
        }
    }
    int32_t result = KS_NO_MEMORY;
    if (!(t & (MEMTYPE_DISK | MEMTYPE_NO_CONVENTIONAL))) {
        result = singleBlock(bm, size);
        if (result == KS_SUCCESS) return result;
    }
    const bool diskAllowed = !(t & MEMTYPE_NO_DISK) && fileDiskAllowed();
    // No promise the machine cannot keep: memory (up to the budget) and the
    // temporary folder's free space together must hold the image.
    const uint64_t budget = t & MEMTYPE_NO_CONVENTIONAL ? 0 : memoryBudget();
    if (size > budget) {
        const uint64_t room = diskAllowed ? tempFreeBytes() : 0;
        if (room < size - budget) return result == KS_MEMORY_CAP_EXCEEDED ? result : KS_NO_MEMORY;
    }
    if (!(t & (MEMTYPE_NO_TILES | MEMTYPE_NO_CONVENTIONAL))) {
        int32_t rc = tiles(bm, tileSize, diskAllowed, ts.nMemFifth, budget);
        if (rc == KS_SUCCESS) return rc;
        if (result != KS_MEMORY_CAP_EXCEEDED) result = rc;
    }
    if (t & MEMTYPE_NO_DISK) return result;
    int32_t rc = disk(bm);
    if (rc == KS_SUCCESS) return rc;
    // The cap is the more useful explanation when it stopped the single block.
    return result == KS_MEMORY_CAP_EXCEEDED ? result : rc;
}

}  // namespace

// ---------------------------------------------------------------- accounting
int32_t reserveConventional(uint64_t n) noexcept {
    std::lock_guard<std::mutex> g(g_capLock);
    if (g_cap && (g_counter + n < g_counter || g_counter + n > g_cap)) return KS_MEMORY_CAP_EXCEEDED;
    g_counter += n;
    return KS_SUCCESS;
}
void releaseConventional(uint64_t n) noexcept {
    std::lock_guard<std::mutex> g(g_capLock);
    g_counter = n > g_counter ? 0 : g_counter - n;
}
uint64_t conventionalCounter() noexcept {
    std::lock_guard<std::mutex> g(g_capLock);
    return g_counter;
}
uint64_t conventionalCap() noexcept {
    std::lock_guard<std::mutex> g(g_capLock);
    return g_cap;
}

namespace {
// One unsigned number from a small text file; false when absent or "max".
bool readNumber(const char* path, uint64_t* out) noexcept {
    FILE* f = std::fopen(path, "re");
    if (!f) return false;
    char text[32] = {};
    const size_t n = std::fread(text, 1, sizeof text - 1, f);
    std::fclose(f);
    if (n == 0 || text[0] < '0' || text[0] > '9') return false;
    uint64_t v = 0;
    for (size_t i = 0; i < n && text[i] >= '0' && text[i] <= '9'; ++i) {
        if (v > (UINT64_MAX - 9) / 10) return false;
        v = v * 10 + uint64_t(text[i] - '0');
    }
    *out = v;
    return true;
}

// Room left under the memory limit of the process's control group (v2, or
// v1 as mounted in a container), UINT64_MAX when there is none.
uint64_t cgroupRoom() noexcept {
    static const struct {
        const char* limit;
        const char* usage;
    } kFiles[] = {{"/sys/fs/cgroup/memory.max", "/sys/fs/cgroup/memory.current"},
                  {"/sys/fs/cgroup/memory/memory.limit_in_bytes", "/sys/fs/cgroup/memory/memory.usage_in_bytes"}};
    for (const auto& f : kFiles) {
        uint64_t limit = 0, usage = 0;
        if (!readNumber(f.limit, &limit) || limit >= (uint64_t(1) << 60)) continue;
        if (!readNumber(f.usage, &usage)) usage = 0;
        return limit > usage ? limit - usage : 0;
    }
    return UINT64_MAX;
}
}  // namespace

uint64_t availableMemory() noexcept {
    if (uint64_t fake = g_fakeAvailable.load()) return fake;
    struct sysinfo si;
    if (sysinfo(&si) != 0) return UINT64_MAX / 2;
    const uint64_t unit = si.mem_unit ? si.mem_unit : 1;
    const uint64_t free = (uint64_t(si.freeram) + si.bufferram + si.freeswap) * unit;
    return std::min(free, cgroupRoom());
}
uint64_t totalMemory() noexcept {
    struct sysinfo si;
    if (sysinfo(&si) != 0) {
        long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGESIZE);
        return pages > 0 && page > 0 ? uint64_t(pages) * uint64_t(page) : 0;
    }
    const uint64_t unit = si.mem_unit ? si.mem_unit : 1;
    return (uint64_t(si.totalram) + si.totalswap) * unit;
}
uint64_t memoryBudget() noexcept {
    const ThreadSettings& ts = settings();
    const uint64_t avail = availableMemory();
    const uint64_t keep = resolveThreshold(ts.nMemKeepFree, totalMemory());
    return avail > keep ? avail - keep : 0;
}
namespace testhook {
void setAvailableMemory(uint64_t bytes) noexcept { g_fakeAvailable.store(bytes); }
}  // namespace testhook

uint32_t storageKind(const BITMAPRECORD* bm) noexcept {
    const uint32_t f = bm->uFlags;
    if (f & BRF_COMPRESSED) return MEMTYPE_COMPRESSED;
    if (f & BRF_SUPERCOMPRESSED) return MEMTYPE_SUPERCOMPRESSED;
    if (f & BRF_TILED) return MEMTYPE_DISK;
    if (f & BRF_DISK) return MEMTYPE_NO_CONVENTIONAL;
    if (f & BRF_USER_MEMORY) return MEMTYPE_USER;
    return MEMTYPE_CONVENTIONAL;
}

// ---------------------------------------------------------------- hooks.h entry points
void setNoZeroFill(bool on) noexcept { t_noZeroFill = on; }

int32_t allocateBitmap(BITMAPRECORD* bm, uint32_t memType, void* extra) noexcept {
    int32_t rc = checkRecord(bm);
    if (rc != KS_SUCCESS) return rc;
    if (dataSize(bm) == 0) return KS_INVALID_DIMENSIONS;
    if ((bm->uFlags & BRF_ALLOCATED) && isCurrentLayout(bm) && bm->nLockCount > 0) return KS_INVALID_PARAMETER;
    if (memType == 0) memType = settings().uDefaultMemoryType ? settings().uDefaultMemoryType : 1;

    PFN_BITMAPALLOCATE global;
    void* globalUser;
    {
        std::lock_guard<std::mutex> g(g_callbackLock);
        global = g_allocCallback;
        globalUser = g_allocUser;
    }
    if (global) {
        BITMAPALLOCINFO info;
        fillInfo(&info, bm, memType, extra, false);
        int32_t answer = guarded([&] { return global(bm, &info, globalUser); });
        if (answer != KS_SUCCESS) return answer;
        memType = info.uMemoryType;
    }
    uint32_t t = adjustType(bm, memType);
    if (!t) return KS_INVALID_PARAMETER;
    if (bm->uFlags & BRF_ALLOCATED) {
        // A record that already holds storage gives it up first.
        freeStorage(bm);
        bm->uFlags &= ~BRF_ALLOCATED;
    }
    clearStorageFields(bm);

    if (isCurrentLayout(bm) && bm->pCallbacks && bm->pCallbacks->pfnAllocate) {
        BITMAPALLOCINFO info;
        fillInfo(&info, bm, t, extra, true);
        auto* cbs = bm->pCallbacks;
        int32_t answer = guarded([&] { return cbs->pfnAllocate(bm, &info, cbs->pUserData); });
        if (answer == 2) {
            bm->uFlags |= BRF_ALLOCATED | BRF_USER_MEMORY;
            return KS_SUCCESS;
        }
        if (answer != KS_SUCCESS) {
            clearStorageFields(bm);
            return answer;
        }
        clearStorageFields(bm);
        t = adjustType(bm, info.uMemoryType);
        if (!t) return KS_INVALID_PARAMETER;
    }
    rc = decide(bm, t);
    if (rc != KS_SUCCESS) clearStorageFields(bm);
    return rc;
}

void freeStorage(BITMAPRECORD* bm) noexcept {
    const uint32_t f = bm->uFlags;
    if (f & BRF_COMPRESSED) {
        runsFree(bm);
    } else if (f & BRF_SUPERCOMPRESSED) {
        superFree(bm);
    } else if (f & BRF_TILED) {
        tilesFree(bm);
    } else if (f & BRF_DISK) {
        diskFree(bm);
    } else if (!(f & BRF_USER_MEMORY) && bm->hMemory) {
        if (f & BRF_LOCKED) globalUnlock(bm->hMemory);
        globalFree(bm->hMemory);
        releaseConventional(dataSize(bm));
    }
    const bool allocated = bm->uFlags & BRF_ALLOCATED;
    clearStorageFields(bm);
    if (allocated) bm->uFlags |= BRF_ALLOCATED;  // K_FreeBitmap clears it last
}

int32_t changeStorageHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept {
    const uint32_t f = bm->uFlags;
    if (f & BRF_COMPRESSED) return runsSetHeight(bm, newHeight);
    if (f & BRF_SUPERCOMPRESSED) return superSetHeight(bm, newHeight);
    if (f & BRF_TILED) return tilesSetHeight(bm, newHeight);
    if (f & BRF_DISK) return diskSetHeight(bm, newHeight);
    if (!bm->hMemory || (f & BRF_USER_MEMORY)) return KS_INVALID_PARAMETER;
    const uint64_t oldSize = dataSize(bm);
    const uint64_t size = uint64_t(bm->nBytesPerLine) * uint64_t(uint32_t(newHeight));
    if (size > oldSize) {
        int32_t r = reserveConventional(size - oldSize);
        if (r != KS_SUCCESS) return r;
    }
    const uint64_t total = size + bm->uDataOffset;
    HGLOBAL h = total <= SIZE_MAX ? globalReAlloc(bm->hMemory, size_t(total),
                                                  GMEM_MOVEABLE | GMEM_ZEROINIT)
                                  : nullptr;
    if (!h) {
        if (size > oldSize) releaseConventional(size - oldSize);
        return KS_NO_MEMORY;
    }
    bm->hMemory = h;
    if (size < oldSize) releaseConventional(oldSize - size);
    return KS_SUCCESS;
}

// ---------------------------------------------------------------- conversion
namespace {

// Builds storage of kind `kind` beside the record, copies the pixels and
// swaps it in; the record is unchanged on failure.
int32_t convertStorage(BITMAPRECORD* bm, uint32_t kind, uint64_t tileSize) noexcept {
    if (isCurrentLayout(bm) && bm->nLockCount > 0) return KS_INVALID_PARAMETER;
    if (bm->uFlags & BRF_LOCKED) return KS_INVALID_PARAMETER;
    const int32_t bpp = bm->nBitsPerPixel;
    BITMAPRECORD tmp;
    std::memcpy(&tmp, bm, recordBytes(bm->uStructSize));
    clearStorageFields(&tmp);
    if (isCurrentLayout(&tmp)) tmp.pCallbacks = nullptr;
    int32_t rc;
    switch (kind) {
        case MEMTYPE_CONVENTIONAL:
            rc = singleBlock(&tmp, dataSize(&tmp));
            break;
        case MEMTYPE_DISK: {
            const ThreadSettings& ts = settings();
            if (!tileSize) tileSize = ts.nMemTileSize > 0 ? uint64_t(ts.nMemTileSize) : kDefaultTileSize;
            rc = tilesAllocate(&tmp, tileSize, fileDiskAllowed(), ts.nMemFifth, memoryBudget());
            if (rc == KS_SUCCESS) tmp.uFlags |= BRF_ALLOCATED | BRF_CONVENTIONAL | BRF_TILED;
            break;
        }
        case MEMTYPE_NO_CONVENTIONAL:
            rc = fileDiskAllowed() ? disk(&tmp) : KS_INVALID_PARAMETER;
            break;
        case MEMTYPE_COMPRESSED:
            if (bpp != 1) return KS_INVALID_BITS_PER_PIXEL;
            rc = decide(&tmp, MEMTYPE_COMPRESSED | MEMTYPE_NO_DISK);
            break;
        case MEMTYPE_SUPERCOMPRESSED:
            if (bpp != 1 && bpp != 8 && bpp != 24) return KS_INVALID_BITS_PER_PIXEL;
            rc = decide(&tmp, MEMTYPE_SUPERCOMPRESSED);
            break;
        case 0:  // the normal decision for memory type 1
            rc = decide(&tmp, adjustType(&tmp, MEMTYPE_CONVENTIONAL));
            break;
        default:
            return KS_INVALID_PARAMETER;
    }
    if (rc != KS_SUCCESS) {
        clearStorageFields(&tmp);
        return rc;
    }
    rc = copyAllRows(&tmp, bm);
    if (rc != KS_SUCCESS) {
        freeStorage(&tmp);
        return rc;
    }
    freeStorage(bm);
    bm->hMemory = tmp.hMemory;
    bm->pData = tmp.pData;
    bm->uDataOffset = tmp.uDataOffset;
    bm->uFlags = (bm->uFlags & ~(BRF_STORAGE_MASK | BRF_MOVABLE_BLOCK)) |
                 (tmp.uFlags & (BRF_STORAGE_MASK | BRF_MOVABLE_BLOCK));
    return KS_SUCCESS;
}

bool isCompressedKind(uint32_t f) noexcept { return f & (BRF_COMPRESSED | BRF_SUPERCOMPRESSED); }

}  // namespace
}  // namespace krn

using namespace krn;

KAPI int32_t K_AllocateBitmap(BITMAPRECORD* pBitmap, uint32_t uMemoryType) {
    return allocateBitmap(pBitmap, uMemoryType, nullptr);
}

// ---------------------------------------------------------------- access and release
KAPI int32_t K_AccessBitmap(BITMAPRECORD* pBitmap) {
    int32_t rc = checkAllocated(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    BITMAPRECORD* bm = pBitmap;
    const bool counted = isCurrentLayout(bm);
    if (counted) {
        if (++bm->nLockCount > 1) return KS_SUCCESS;
        if (bm->pCallbacks && bm->pCallbacks->pfnAccess) {
            auto* cbs = bm->pCallbacks;
            int32_t answer = guarded([&] { return cbs->pfnAccess(bm, cbs->pUserData); });
            if (answer == 2) return KS_SUCCESS;
            if (answer != KS_SUCCESS) {
                --bm->nLockCount;
                return answer;
            }
        }
    }
    const uint32_t f = bm->uFlags;
    if (isCompressedKind(f) || (f & (BRF_TILED | BRF_DISK | BRF_LOCKED)) || !(f & BRF_CONVENTIONAL) ||
        ((f & BRF_USER_MEMORY) && !(f & BRF_MOVABLE_BLOCK)) || !bm->hMemory)
        return KS_SUCCESS;
    auto* base = static_cast<uint8_t*>(globalLock(bm->hMemory));
    if (!base) {
        bm->pData = reinterpret_cast<uint8_t*>(uintptr_t(bm->uDataOffset));
        errno = 22;
        return KS_SUCCESS;
    }
    bm->pData = base + bm->uDataOffset;
    bm->uFlags |= BRF_LOCKED;
    return KS_SUCCESS;
}

KAPI int32_t K_ReleaseBitmap(BITMAPRECORD* pBitmap) {
    if (!pBitmap) return KS_NULL_POINTER;
    if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
    BITMAPRECORD* bm = pBitmap;
    if (isCurrentLayout(bm)) {
        if (bm->nLockCount > 0) --bm->nLockCount;
        if (bm->nLockCount > 0) return KS_SUCCESS;
        if (bm->pCallbacks && bm->pCallbacks->pfnRelease) {
            auto* cbs = bm->pCallbacks;
            int32_t answer = guarded([&] { return cbs->pfnRelease(bm, cbs->pUserData); });
            if (answer == 2) return KS_SUCCESS;
            if (answer != KS_SUCCESS) return answer;
        }
    }
    if (bm->uFlags & BRF_LOCKED) {
        globalUnlock(bm->hMemory);
        bm->pData = nullptr;
        bm->uFlags &= ~BRF_LOCKED;
    }
    return KS_SUCCESS;
}

KAPI int32_t K_IntAccessBitmap(BITMAPRECORD* pBitmap, int32_t* pbAccessed) {
    if (pbAccessed) *pbAccessed = 0;
    if (!pBitmap) return KS_INVALID_BITMAP;
    int32_t rc = K_AccessBitmap(pBitmap);
    if (rc == KS_INVALID_PARAMETER) rc = KS_INVALID_BITMAP;
    if (rc == KS_SUCCESS && pbAccessed) *pbAccessed = 1;
    return rc;
}

KAPI int32_t K_IntReleaseBitmap(BITMAPRECORD* pBitmap, int32_t bAccessed, int32_t nStatus) {
    if (!pBitmap) return KS_NULL_POINTER;
    if (!bAccessed) return nStatus;
    int32_t rc = K_ReleaseBitmap(pBitmap);
    return nStatus == KS_SUCCESS ? rc : nStatus;
}

// ---------------------------------------------------------------- process-wide cap and counter
namespace {
constexpr uint64_t kBlockCacheLimit = uint64_t(192) << 20;  // the allocator's own default
}
KAPI int32_t K_ManageMemory(int32_t nCommand, int64_t nValue, int64_t* pnResult) {
    std::lock_guard<std::mutex> g(g_capLock);
    switch (nCommand) {
        case MANAGEMEMORY_SET_CAP:
            if (nValue < 0) return KS_INVALID_PARAMETER;
            if (pnResult) *pnResult = int64_t(g_cap);
            g_cap = uint64_t(nValue);
            // Freed large blocks kept for reuse stay well under a cap.
            blockcache::setLimit(size_t(std::min<uint64_t>(kBlockCacheLimit, g_cap ? g_cap / 4 : kBlockCacheLimit)));
            return KS_SUCCESS;
        case MANAGEMEMORY_GET_CAP:
            if (!pnResult) return KS_NULL_POINTER;
            *pnResult = int64_t(g_cap);
            return KS_SUCCESS;
        case MANAGEMEMORY_RESERVE:
            if (nValue < 0) return KS_INVALID_PARAMETER;
            if (g_cap && g_counter + uint64_t(nValue) > g_cap) return KS_MEMORY_CAP_EXCEEDED;
            g_counter += uint64_t(nValue);
            return KS_SUCCESS;
        case MANAGEMEMORY_RELEASE:
            if (nValue < 0) return KS_INVALID_PARAMETER;
            g_counter = uint64_t(nValue) > g_counter ? 0 : g_counter - uint64_t(nValue);
            return KS_SUCCESS;
        case MANAGEMEMORY_GET_COUNTER:
            if (!pnResult) return KS_NULL_POINTER;
            *pnResult = int64_t(g_counter);
            return KS_SUCCESS;
        case MANAGEMEMORY_GET_ROOM: {
            int64_t room = !g_cap ? INT64_MAX : g_cap > g_counter ? int64_t(g_cap - g_counter) : 1;
            if (pnResult) *pnResult = room;
            if (nValue < 0) return KS_INVALID_PARAMETER;
            if (g_cap && g_counter + uint64_t(nValue) > g_cap) return KS_MEMORY_CAP_EXCEEDED;
            return KS_SUCCESS;
        }
        default:
            return KS_NOT_SUPPORTED;
    }
}

// ---------------------------------------------------------------- thresholds and defaults
KAPI int32_t K_SetDefaultMemoryType(uint32_t uMemoryType) {
    if (uMemoryType != MEMTYPE_CONVENTIONAL && uMemoryType != MEMTYPE_NO_CONVENTIONAL) return KS_INVALID_PARAMETER;
    settings().uDefaultMemoryType = uMemoryType;
    return KS_SUCCESS;
}
KAPI uint32_t K_GetDefaultMemoryType(void) {
    uint32_t t = settings().uDefaultMemoryType;
    return t ? t : MEMTYPE_CONVENTIONAL;
}

KAPI int32_t K_SetMemoryThresholds(int32_t nKeepFree, int32_t nLargestImage, int32_t nTileSize, int32_t nFourth,
                                   int32_t nFifth, uint32_t uFlags) {
    ThreadSettings& ts = settings();
    auto fits = [](int32_t v) { return v <= INT32_MAX - 100; };
    if (uFlags & MEMTHRESHOLD_KEEP_FREE) {
        if (!fits(nKeepFree)) return KS_INVALID_PARAMETER;
        ts.nMemKeepFree = nKeepFree;
    }
    if (uFlags & MEMTHRESHOLD_LARGEST_IMAGE) {
        if (!fits(nLargestImage)) return KS_INVALID_PARAMETER;
        ts.nMemLargestImage = nLargestImage;
    }
    if (uFlags & MEMTHRESHOLD_TILE_SIZE) {
        if (nTileSize < 0) return KS_INVALID_PARAMETER;
        ts.nMemTileSize = nTileSize;
    }
    if (uFlags & MEMTHRESHOLD_FOURTH) {
        if (!fits(nFourth)) return KS_INVALID_PARAMETER;
        ts.nMemFourth = nFourth;
    }
    if (uFlags & MEMTHRESHOLD_FIFTH) {
        if (!fits(nFifth)) return KS_INVALID_PARAMETER;
        ts.nMemFifth = nFifth;
    }
    return KS_SUCCESS;
}

KAPI int32_t K_GetMemoryThresholds(int32_t* pnKeepFree, int32_t* pnLargestImage, int32_t* pnTileSize,
                                   int32_t* pnFourth, int32_t* pnFifth) {
    const ThreadSettings& ts = settings();
    if (pnKeepFree) *pnKeepFree = ts.nMemKeepFree;
    if (pnLargestImage) *pnLargestImage = ts.nMemLargestImage;
    if (pnTileSize) *pnTileSize = ts.nMemTileSize;
    if (pnFourth) *pnFourth = ts.nMemFourth;
    if (pnFifth) *pnFifth = ts.nMemFifth;
    return KS_SUCCESS;
}

KAPI int32_t K_SetGlobalMemoryThresholds(const GLOBALMEMORYTHRESHOLDS* pThresholds) {
    if (!pThresholds) {
        g_largestImage.store(0);
        return KS_SUCCESS;
    }
    if (pThresholds->uStructSize != GLOBALMEMORYTHRESHOLDS_SIZE) return KS_INVALID_STRUCT_SIZE;
    const int64_t v = pThresholds->nLargestImage;
    if (v == -1) {
        g_largestImage.store(0);  // the built-in default: no process-wide limit
        return KS_SUCCESS;
    }
    if (v < 0) return KS_INVALID_PARAMETER;
    g_largestImage.store(uint64_t(v));
    return KS_SUCCESS;
}

KAPI int32_t K_GetGlobalMemoryThresholds(GLOBALMEMORYTHRESHOLDS* pThresholds) {
    if (!pThresholds) return KS_INVALID_PARAMETER;
    if (pThresholds->uStructSize != GLOBALMEMORYTHRESHOLDS_SIZE) return KS_INVALID_STRUCT_SIZE;
    pThresholds->nLargestImage = int64_t(g_largestImage.load());
    return KS_SUCCESS;
}

KAPI int32_t K_SetAllocateBitmapCallback(PFN_BITMAPALLOCATE pfnCallback, void* pUserData,
                                         PFN_BITMAPALLOCATE* ppfnOld, void** ppOldUserData) {
    std::lock_guard<std::mutex> g(g_callbackLock);
    if (ppfnOld) *ppfnOld = g_allocCallback;
    if (ppOldUserData) *ppOldUserData = g_allocUser;
    g_allocCallback = pfnCallback;
    g_allocUser = pUserData;
    return KS_SUCCESS;
}

// ---------------------------------------------------------------- storage kind
KAPI int32_t K_GetBitmapMemoryInfo(const BITMAPRECORD* pBitmap, uint32_t* puMemoryType, uint64_t* puTileSize,
                                   int32_t* pnTileCount, int32_t* pnTilesOnDisk) {
    int32_t rc = checkAllocated(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    const uint32_t kind = storageKind(pBitmap);
    uint64_t tileSize = 0;
    int32_t count = 0, onDisk = 0;
    if (kind == MEMTYPE_DISK && pBitmap->pData) {
        auto* t = reinterpret_cast<const TileTable*>(pBitmap->pData);
        tileSize = uint64_t(t->rowsPerTile) * pBitmap->nBytesPerLine;
        count = int32_t(t->count);
        for (uint32_t i = 0; i < t->count; ++i) onDisk += t->tiles[i].file ? 1 : 0;
    }
    if (puMemoryType) *puMemoryType = kind;
    if (puTileSize) *puTileSize = tileSize;
    if (pnTileCount) *pnTileCount = count;
    if (pnTilesOnDisk) *pnTilesOnDisk = onDisk;
    return KS_SUCCESS;
}

KAPI int32_t K_SetBitmapMemoryInfo(BITMAPRECORD* pBitmap, uint32_t uMemoryType, uint64_t uTileSize) {
    int32_t rc = checkAllocated(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    switch (uMemoryType) {
        case MEMTYPE_CONVENTIONAL: case MEMTYPE_DISK: case MEMTYPE_NO_CONVENTIONAL: case MEMTYPE_COMPRESSED:
        case MEMTYPE_SUPERCOMPRESSED:
            break;
        default:
            return KS_INVALID_PARAMETER;
    }
    return convertStorage(pBitmap, uMemoryType, uTileSize);
}

KAPI int32_t K_ChangeBitmapCompression(BITMAPRECORD* pBitmap, int32_t nMode) {
    int32_t rc = checkAllocated(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    const uint32_t f = pBitmap->uFlags;
    switch (nMode) {
        case BITMAPCOMPRESSION_NONE:
            return isCompressedKind(f) ? convertStorage(pBitmap, 0, 0) : KS_SUCCESS;
        case BITMAPCOMPRESSION_RUNS:
            return (f & BRF_COMPRESSED) ? KS_SUCCESS : convertStorage(pBitmap, MEMTYPE_COMPRESSED, 0);
        case BITMAPCOMPRESSION_SUPER:
            return (f & BRF_SUPERCOMPRESSED) ? KS_SUCCESS : convertStorage(pBitmap, MEMTYPE_SUPERCOMPRESSED, 0);
        default:
            return KS_INVALID_PARAMETER;
    }
}

KAPI int32_t K_ToggleBitmapCompression(BITMAPRECORD* pBitmap) {
    int32_t rc = checkAllocated(pBitmap);
    if (rc != KS_SUCCESS) return rc;
    if (isCompressedKind(pBitmap->uFlags)) return convertStorage(pBitmap, 0, 0);
    switch (pBitmap->nBitsPerPixel) {
        case 1:
            return convertStorage(pBitmap, MEMTYPE_COMPRESSED, 0);
        case 8:
        case 24:
            return convertStorage(pBitmap, MEMTYPE_SUPERCOMPRESSED, 0);
        default:
            return KS_INVALID_BITS_PER_PIXEL;
    }
}
