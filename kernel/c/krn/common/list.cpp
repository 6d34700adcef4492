// list.cpp - bitmap lists.
//
// A list is a small fixed global block: the item count, a tag that tells a
// list from any other global block, and the item array (one global block of
// count records, each in the current layout). The handle is the block. Every
// change that needs memory gets it before anything moves, so a failure leaves
// the list as it was.
#include <cstring>

#include "kernel.h"
#include "list.h"
#include "krn/windowsemul/globalmem.h"

// Deep copies come from the copy family; until it is linked in, copying a
// list answers -16.
extern "C" int32_t K_CopyBitmap(BITMAPRECORD* pDstBitmap, BITMAPRECORD* pSrcBitmap, uint32_t uStructSize)
    __attribute__((weak));

namespace krn {

namespace {

constexpr uint32_t kListTag = 0x5453494Cu;  // "LIST"
constexpr size_t kItem = sizeof(BITMAPRECORD);

struct ListBlock {
    uint32_t count;
    uint32_t tag;
    BITMAPRECORD* items;
};

ListBlock* listOf(HBITMAPLIST h) noexcept {
    if (!h || !isGlobalBlock(h) || globalSize(h) < sizeof(ListBlock)) return nullptr;
    ListBlock* l = reinterpret_cast<ListBlock*>(h);
    return l->tag == kListTag ? l : nullptr;
}

// The array resized to n items; null (old array intact) when it cannot be.
BITMAPRECORD* resized(ListBlock* l, uint32_t n) noexcept {
    const size_t bytes = size_t(n) * kItem;
    if (!l->items) return static_cast<BITMAPRECORD*>(globalAlloc(GMEM_FIXED, bytes));
    return static_cast<BITMAPRECORD*>(globalReAlloc(l->items, bytes, 0));
}

// Shrinks the array after items left it (a failed shrink keeps the larger
// block, which is harmless) or frees it when the list is empty.
void settle(ListBlock* l) noexcept {
    if (l->count == 0) {
        if (l->items) globalFree(l->items);
        l->items = nullptr;
        return;
    }
    if (BITMAPRECORD* p = resized(l, l->count)) l->items = p;
}

bool firstItemValid(const ListBlock* l) noexcept {
    return l->count == 0 || !l->items || l->items[0].uStructSize == BITMAPRECORD_SIZE;
}

// Copies a caller record into an item slot in the current layout.
void storeItem(BITMAPRECORD* slot, const BITMAPRECORD* rec) noexcept {
    std::memset(slot, 0, kItem);
    if (rec) std::memcpy(slot, rec, recordBytes(rec->uStructSize));
    slot->uStructSize = BITMAPRECORD_SIZE;
}

// Copies an item out in the layout `size`; an older-layout copy of an
// allocated item cannot carry its hListBlock, which is freed in the item.
void copyOut(BITMAPRECORD* out, BITMAPRECORD* item, uint32_t size) noexcept {
    std::memcpy(out, item, recordBytes(size));
    out->uStructSize = size;
    if (size == BITMAPRECORD_SIZE_OLD && (item->uFlags & BRF_ALLOCATED) && item->hListBlock) {
        globalFree(item->hListBlock);
        item->hListBlock = nullptr;
    }
}

// Takes item i out (into *out when given); the array is settled.
void takeOut(ListBlock* l, uint32_t i, BITMAPRECORD* out) noexcept {
    if (out) std::memcpy(out, &l->items[i], kItem);
    std::memmove(&l->items[i], &l->items[i + 1], size_t(l->count - i - 1) * kItem);
    --l->count;
    settle(l);
}

int32_t makeList(ListBlock** out) noexcept {
    ListBlock* l = static_cast<ListBlock*>(globalAlloc(GMEM_FIXED | GMEM_ZEROINIT, sizeof(ListBlock)));
    if (!l) return KS_NO_MEMORY;
    l->tag = kListTag;
    *out = l;
    return KS_SUCCESS;
}

void destroyList(ListBlock* l) noexcept {
    for (uint32_t i = 0; i < l->count; ++i) K_FreeBitmap(&l->items[i]);
    if (l->items) globalFree(l->items);
    l->items = nullptr;
    l->count = 0;
    l->tag = 0;
    globalFree(l);
}

int32_t insertItem(ListBlock* l, uint32_t index, const BITMAPRECORD* rec) noexcept {
    if (l->count > 0 && !l->items) return KS_NULL_POINTER;
    if (!firstItemValid(l)) return KS_INVALID_STRUCT_SIZE;
    if (l->count == 0xFFFFFFFEu) return KS_NO_MEMORY;  // the index space is full
    BITMAPRECORD* grown = resized(l, l->count + 1);
    if (!grown) return KS_NO_MEMORY;
    l->items = grown;
    if (index > l->count) index = l->count;
    std::memmove(&l->items[index + 1], &l->items[index], size_t(l->count - index) * kItem);
    storeItem(&l->items[index], rec);
    ++l->count;
    return KS_SUCCESS;
}

// The common range check of delete, copy and move: the number of items.
int32_t rangeOf(const ListBlock* l, uint32_t first, uint32_t count, uint32_t* n) noexcept {
    if (count == 0 || first >= l->count) return KS_INVALID_PARAMETER;
    *n = count < l->count - first ? count : l->count - first;
    return KS_SUCCESS;
}

}  // namespace

BITMAPRECORD* listItems(HBITMAPLIST h, uint32_t* count) noexcept {
    ListBlock* l = listOf(h);
    if (!l) return nullptr;
    *count = l->count;
    return l->items;
}

}  // namespace krn

using namespace krn;

KAPI int32_t K_CreateBitmapList(HBITMAPLIST* phList) {
    return guarded([&]() -> int32_t {
        if (!phList) return KS_INVALID_PARAMETER;
        ListBlock* l = nullptr;
        int32_t r = makeList(&l);
        if (r == KS_SUCCESS) *phList = reinterpret_cast<HBITMAPLIST>(l);
        return r;
    });
}

KAPI int32_t K_DestroyBitmapList(HBITMAPLIST hList) {
    return guarded([&]() -> int32_t {
        ListBlock* l = listOf(hList);
        if (!l) return KS_INVALID_PARAMETER;
        destroyList(l);
        return KS_SUCCESS;
    });
}

KAPI int32_t K_GetBitmapListCount(HBITMAPLIST hList, uint32_t* puCount) {
    return guarded([&]() -> int32_t {
        ListBlock* l = listOf(hList);
        if (!l || !puCount) return KS_INVALID_PARAMETER;
        *puCount = l->count;
        return KS_SUCCESS;
    });
}

KAPI int32_t K_InsertBitmapListItem(HBITMAPLIST hList, uint32_t uIndex, const BITMAPRECORD* pBitmap) {
    return guarded([&]() -> int32_t {
        ListBlock* l = listOf(hList);
        if (!l || !pBitmap) return KS_INVALID_PARAMETER;
        if (!recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
        return insertItem(l, uIndex, pBitmap);
    });
}

KAPI int32_t K_RemoveBitmapListItem(HBITMAPLIST hList, uint32_t uIndex, BITMAPRECORD* pBitmap) {
    return guarded([&]() -> int32_t {
        ListBlock* l = listOf(hList);
        if (!l || uIndex >= l->count || !l->items) return KS_INVALID_PARAMETER;
        if (!firstItemValid(l)) return KS_INVALID_STRUCT_SIZE;
        if (pBitmap) {
            takeOut(l, uIndex, pBitmap);
            return KS_SUCCESS;
        }
        BITMAPRECORD gone;
        takeOut(l, uIndex, &gone);
        K_FreeBitmap(&gone);
        return KS_SUCCESS;
    });
}

KAPI int32_t K_DeleteBitmapListItems(HBITMAPLIST hList, uint32_t uFirst, uint32_t uCount) {
    return guarded([&]() -> int32_t {
        ListBlock* l = listOf(hList);
        if (!l) return KS_INVALID_PARAMETER;
        uint32_t n = 0;
        int32_t r = rangeOf(l, uFirst, uCount, &n);
        if (r != KS_SUCCESS) return r;
        if (!l->items) return KS_INVALID_PARAMETER;
        for (uint32_t i = 0; i < n; ++i) {
            BITMAPRECORD gone;
            takeOut(l, uFirst, &gone);
            r = K_FreeBitmap(&gone);
            if (r != KS_SUCCESS) return r;
        }
        return KS_SUCCESS;
    });
}

KAPI int32_t K_GetBitmapListItem(HBITMAPLIST hList, uint32_t uIndex, BITMAPRECORD* pBitmap, uint32_t uStructSize) {
    return guarded([&]() -> int32_t {
        ListBlock* l = listOf(hList);
        if (!l || !pBitmap) return KS_INVALID_PARAMETER;
        if (!recordSizeValid(uStructSize)) return KS_INVALID_STRUCT_SIZE;
        if (uIndex >= l->count || !l->items) return KS_INVALID_PARAMETER;
        copyOut(pBitmap, &l->items[uIndex], uStructSize);
        return KS_SUCCESS;
    });
}

KAPI int32_t K_SetBitmapListItem(HBITMAPLIST hList, uint32_t uIndex, const BITMAPRECORD* pBitmap) {
    return guarded([&]() -> int32_t {
        ListBlock* l = listOf(hList);
        if (!l) return KS_INVALID_PARAMETER;
        if (pBitmap && !recordSizeValid(pBitmap->uStructSize)) return KS_INVALID_STRUCT_SIZE;
        if (uIndex >= l->count || !l->items) return KS_INVALID_PARAMETER;
        storeItem(&l->items[uIndex], pBitmap);
        return KS_SUCCESS;
    });
}

KAPI int32_t K_ReplaceBitmapListItem(HBITMAPLIST hList, uint32_t uIndex, const BITMAPRECORD* pNew, BITMAPRECORD* pOld,
                                     uint32_t uOldSize) {
    return guarded([&]() -> int32_t {
        ListBlock* l = listOf(hList);
        if (!l || !pNew) return KS_INVALID_PARAMETER;
        if (!recordSizeValid(pNew->uStructSize)) return KS_INVALID_STRUCT_SIZE;
        if (pOld && !recordSizeValid(uOldSize)) return KS_INVALID_STRUCT_SIZE;
        if (uIndex == BITMAPLIST_END && l->count > 0) uIndex = l->count - 1;
        if (uIndex >= l->count || !l->items) return KS_INVALID_PARAMETER;
        if (!firstItemValid(l)) return KS_INVALID_STRUCT_SIZE;
        BITMAPRECORD* item = &l->items[uIndex];
        if (pNew == item) return KS_SUCCESS;  // the item itself: nothing changes
        BITMAPRECORD incoming;
        storeItem(&incoming, pNew);  // before pOld is written: the two may overlap
        if (pOld)
            copyOut(pOld, item, uOldSize);
        else if (item->uFlags & BRF_ALLOCATED)
            K_FreeBitmap(item);
        std::memcpy(item, &incoming, kItem);
        return KS_SUCCESS;
    });
}

KAPI int32_t K_CopyBitmapListItems(HBITMAPLIST* phNew, HBITMAPLIST hList, uint32_t uFirst, uint32_t uCount) {
    return guarded([&]() -> int32_t {
        ListBlock* l = listOf(hList);
        if (!l || !phNew) return KS_INVALID_PARAMETER;
        uint32_t n = 0;
        int32_t r = rangeOf(l, uFirst, uCount, &n);
        if (r != KS_SUCCESS) return r;
        if (!l->items) return KS_INVALID_PARAMETER;
        if (!K_CopyBitmap) return KS_NOT_SUPPORTED;
        ListBlock* out = nullptr;
        r = makeList(&out);
        if (r != KS_SUCCESS) return r;
        for (uint32_t i = 0; i < n && r == KS_SUCCESS; ++i) {
            BITMAPRECORD copy;
            std::memset(&copy, 0, sizeof copy);
            r = K_CopyBitmap(&copy, &l->items[uFirst + i], BITMAPRECORD_SIZE);
            if (r != KS_SUCCESS) break;
            r = insertItem(out, BITMAPLIST_END, &copy);
            if (r != KS_SUCCESS) K_FreeBitmap(&copy);
        }
        if (r != KS_SUCCESS) {
            destroyList(out);
            return r;
        }
        *phNew = reinterpret_cast<HBITMAPLIST>(out);
        return KS_SUCCESS;
    });
}

KAPI int32_t K_MoveBitmapListItems(HBITMAPLIST* phNew, HBITMAPLIST hList, uint32_t uFirst, uint32_t uCount) {
    return guarded([&]() -> int32_t {
        ListBlock* l = listOf(hList);
        if (!l || !phNew) return KS_INVALID_PARAMETER;
        uint32_t n = 0;
        int32_t r = rangeOf(l, uFirst, uCount, &n);
        if (r != KS_SUCCESS) return r;
        if (!l->items) return KS_INVALID_PARAMETER;
        if (!firstItemValid(l)) return KS_INVALID_STRUCT_SIZE;
        ListBlock* out = nullptr;
        r = makeList(&out);
        if (r != KS_SUCCESS) return r;
        out->items = static_cast<BITMAPRECORD*>(globalAlloc(GMEM_FIXED, size_t(n) * kItem));
        if (!out->items) {
            destroyList(out);
            return KS_NO_MEMORY;
        }
        std::memcpy(out->items, &l->items[uFirst], size_t(n) * kItem);
        out->count = n;
        std::memmove(&l->items[uFirst], &l->items[uFirst + n], size_t(l->count - uFirst - n) * kItem);
        l->count -= n;
        settle(l);
        *phNew = reinterpret_cast<HBITMAPLIST>(out);
        return KS_SUCCESS;
    });
}
