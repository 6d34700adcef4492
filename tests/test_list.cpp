// Bitmap lists against a model (a vector of tags) driven by random sequences, every failure rule and allocation
// failures.
#include <gtest/gtest.h>

#include <utility>

#include "krn/common/list.h"
#include "transform_kit.h"

namespace {

// The layout of a list block, to damage it on purpose in the failure tests.
struct ListBlockView { uint32_t count, tag; BITMAPRECORD* items; };

// A small bitmap that carries its tag in its first pixel and its width.
BITMAPRECORD tagged(int tag, uint32_t size = BITMAPRECORD_SIZE) {
    BITMAPRECORD bm{};
    EXPECT_EQ(K_CreateBitmap(&bm, size, 1, 3 + tag % 5, 2, 8, ORDER_GRAY, nullptr, 1, nullptr, 0), KS_SUCCESS);
    uint8_t row[8] = {uint8_t(tag), uint8_t(tag >> 8), 0, 0, 0, 0, 0, 0};
    EXPECT_GE(K_PutBitmapRow(&bm, row, 0, bm.nBytesPerLine), 0);
    return bm;
}
int tagOf(BITMAPRECORD* bm) {
    uint8_t row[8] = {};
    if (K_GetBitmapRow(bm, row, 0, bm->nBytesPerLine) < 0) return -1;
    const int tag = row[0] | (row[1] << 8);
    return bm->nWidth == 3 + tag % 5 ? tag : -2;
}

// The tags of a list, read through the items themselves.
std::vector<int> tagsOf(HBITMAPLIST h) {
    std::vector<int> t;
    uint32_t n = 0xDEAD;
    EXPECT_EQ(K_GetBitmapListCount(h, &n), KS_SUCCESS);
    for (uint32_t i = 0; i < n; ++i) {
        BITMAPRECORD item;
        EXPECT_TRUE(K_GetBitmapListItem(h, i, &item, BITMAPRECORD_SIZE) == 1 && item.uStructSize == BITMAPRECORD_SIZE);
        t.push_back(tagOf(&item));
    }
    return t;
}

// Per-thread settings made first; no block the scope makes outlives it.
struct NoLeak {
    long base;
    NoLeak() { BITMAPRECORD b = tagged(1); K_FreeBitmap(&b), base = krn::faultinject::liveBlocks(); }
    ~NoLeak() { EXPECT_EQ(krn::faultinject::liveBlocks(), base); }
};
HBITMAPLIST listOf(std::initializer_list<int> tags) {
    HBITMAPLIST h = nullptr;
    EXPECT_EQ(K_CreateBitmapList(&h), KS_SUCCESS);
    for (int t : tags) {
        BITMAPRECORD bm = tagged(t);
        EXPECT_EQ(K_InsertBitmapListItem(h, BITMAPLIST_END, &bm), KS_SUCCESS);
    }
    return h;
}

TEST(ListModel, RandomSequencesAgreeAfterEveryStep) {
    NoLeak noLeak;
    int copies = 0;
    for (uint32_t seed = 1; seed <= 12; ++seed) {
        std::mt19937 rng(seed);
        auto pick = [&](uint32_t n) { return n == 0 ? 0u : uint32_t(rng() % n); };
        HBITMAPLIST h = listOf({});
        std::vector<int> model;
        int nextTag = 1;
        size_t largest = 0;
        for (int step = 0; step < 150; ++step) {
            const uint32_t n = uint32_t(model.size());
            const int draw = int(rng() % 13), op = draw < 7 ? 0 : draw - 4;  // 0 insert, 3..8 the rest
            if (op == 0 || n == 0) {  // insert (more often, so the list grows)
                const uint32_t at = rng() % 4 == 0 ? BITMAPLIST_END : pick(n + 3);
                BITMAPRECORD bm = tagged(nextTag, rng() % 3 == 0 ? BITMAPRECORD_SIZE_OLD : BITMAPRECORD_SIZE);
                ASSERT_EQ(K_InsertBitmapListItem(h, at, &bm), KS_SUCCESS);
                model.insert(model.begin() + std::min<size_t>(at, n), nextTag++);
            } else if (op == 3) {  // remove, into a record or freed
                const uint32_t i = pick(n);
                const bool keep = rng() % 2;
                BITMAPRECORD out;
                ASSERT_EQ(K_RemoveBitmapListItem(h, i, keep ? &out : nullptr), KS_SUCCESS);
                if (keep) { EXPECT_EQ(tagOf(&out), model[i]); K_FreeBitmap(&out); }
                model.erase(model.begin() + i);
            } else if (op == 4 || op == 8) {  // delete a run, or move it into a new list
                const uint32_t first = pick(n), cnt = 1 + pick(op == 4 ? 3 : 4);
                const size_t end = std::min<size_t>(n, size_t(first) + cnt);
                HBITMAPLIST m = nullptr;
                ASSERT_EQ(op == 4 ? K_DeleteBitmapListItems(h, first, cnt) : K_MoveBitmapListItems(&m, h, first, cnt),
                          KS_SUCCESS);
                ASSERT_EQ(m != nullptr, op == 8);
                if (m) { EXPECT_EQ(tagsOf(m), std::vector<int>(model.begin() + first, model.begin() + end)); }
                EXPECT_TRUE(!m || K_DestroyBitmapList(m) == KS_SUCCESS);
                model.erase(model.begin() + first, model.begin() + end);
            } else if (op == 5) {  // replace, the old one out or freed
                const bool last = rng() % 4 == 0;
                const uint32_t i = last ? n - 1 : pick(n);
                BITMAPRECORD bm = tagged(nextTag, rng() % 2 ? BITMAPRECORD_SIZE : BITMAPRECORD_SIZE_OLD), old;
                const bool keep = rng() % 2;
                const uint32_t at = last ? BITMAPLIST_END : i, size = keep ? BITMAPRECORD_SIZE : 0;
                ASSERT_EQ(K_ReplaceBitmapListItem(h, at, &bm, keep ? &old : nullptr, size), KS_SUCCESS);
                if (keep) { EXPECT_EQ(tagOf(&old), model[i]); K_FreeBitmap(&old); }
                model[i] = nextTag++;
            } else if (op == 6) {  // set: the old item is not freed, so take it first
                const uint32_t i = pick(n);
                BITMAPRECORD old, bm = tagged(nextTag);
                ASSERT_EQ(K_GetBitmapListItem(h, i, &old, BITMAPRECORD_SIZE), KS_SUCCESS);
                ASSERT_EQ(K_SetBitmapListItem(h, i, &bm), KS_SUCCESS);
                K_FreeBitmap(&old);
                model[i] = nextTag++;
            } else {  // copy a run: deep copies with the same tags
                const uint32_t first = pick(n), count = 1 + pick(4);
                HBITMAPLIST c = nullptr;
                ASSERT_EQ(K_CopyBitmapListItems(&c, h, first, count), KS_SUCCESS);
                ++copies;
                const std::vector<int> want(model.begin() + first, model.begin() + std::min<size_t>(n, first + count));
                EXPECT_EQ(tagsOf(c), want);
                // Independent pixels: changing the copy leaves the source alone (checked below).
                BITMAPRECORD item;
                ASSERT_EQ(K_GetBitmapListItem(c, 0, &item, BITMAPRECORD_SIZE), KS_SUCCESS);
                uint8_t zero[8] = {};
                ASSERT_GE(K_PutBitmapRow(&item, zero, 0, item.nBytesPerLine), 0);
                EXPECT_NE(tagOf(&item), want[0]);
                ASSERT_EQ(K_DestroyBitmapList(c), KS_SUCCESS);
            }
            ASSERT_EQ(tagsOf(h), model) << "seed " << seed << " step " << step << " op " << op;
            uint32_t cnt = 0;
            BITMAPRECORD* items = krn::listItems(h, &cnt);
            ASSERT_TRUE(cnt == model.size() && (items == nullptr) == (cnt == 0));  // an empty list holds no array
            largest = std::max(largest, model.size());
        }
        EXPECT_GE(largest, 10u) << "the sequence should grow the list";
        ASSERT_EQ(K_DestroyBitmapList(h), KS_SUCCESS);
    }
    EXPECT_GT(copies, 50);
}

TEST(ListFailures, EachRuleAndAllocationFailureLeavesTheListAlone) {
    NoLeak noLeak;
    HBITMAPLIST h = listOf({1, 2, 3, 4}), out = nullptr;
    BITMAPRECORD bm = tagged(50), rec, badSize = bm;
    badSize.uStructSize = 200;
    const uint32_t R = BITMAPRECORD_SIZE;
    const int32_t P = KS_INVALID_PARAMETER, S = KS_INVALID_STRUCT_SIZE;
    auto all = [](std::vector<int32_t> got, int32_t want) { EXPECT_EQ(got, std::vector<int32_t>(got.size(), want)); };
    int local = 0;
    uint32_t n = 0;
    void* globalBlock = K_GlobalAlloc(GMEM_FIXED | GMEM_ZEROINIT, 64);  // a live block that is not a list
    for (HBITMAPLIST bad : {HBITMAPLIST(nullptr), HBITMAPLIST(&local), HBITMAPLIST(globalBlock), HBITMAPLIST(~0ull)})
        all({K_GetBitmapListCount(bad, &n), K_InsertBitmapListItem(bad, 0, &bm), K_RemoveBitmapListItem(bad, 0, &rec),
             K_DeleteBitmapListItems(bad, 0, 1), K_GetBitmapListItem(bad, 0, &rec, R), K_SetBitmapListItem(bad, 0, &bm),
             K_ReplaceBitmapListItem(bad, 0, &bm, nullptr, 0), K_CopyBitmapListItems(&out, bad, 0, 1),
             K_MoveBitmapListItems(&out, bad, 0, 1), K_DestroyBitmapList(bad)}, P);
    K_GlobalFree(globalBlock);
    // Null required pointers; indexes at or past the count, counts of 0; record sizes.
    all({K_CreateBitmapList(nullptr), K_GetBitmapListCount(h, nullptr), K_InsertBitmapListItem(h, 0, nullptr),
         K_GetBitmapListItem(h, 0, nullptr, R), K_ReplaceBitmapListItem(h, 0, nullptr, &rec, R),
         K_CopyBitmapListItems(nullptr, h, 0, 1), K_MoveBitmapListItems(nullptr, h, 0, 1),
         K_GetBitmapListItem(h, 4, &rec, R), K_SetBitmapListItem(h, 4, &bm), K_RemoveBitmapListItem(h, 4, &rec),
         K_RemoveBitmapListItem(h, BITMAPLIST_END, &rec), K_DeleteBitmapListItems(h, 4, 1),
         K_DeleteBitmapListItems(h, 0, 0), K_CopyBitmapListItems(&out, h, 4, 1), K_CopyBitmapListItems(&out, h, 0, 0),
         K_MoveBitmapListItems(&out, h, 4, 1), K_MoveBitmapListItems(&out, h, 1, 0),
         K_ReplaceBitmapListItem(h, 4, &bm, nullptr, 0)}, P);
    all({K_InsertBitmapListItem(h, 0, &badSize), K_SetBitmapListItem(h, 0, &badSize),
         K_ReplaceBitmapListItem(h, 0, &badSize, nullptr, 0), K_ReplaceBitmapListItem(h, 0, &bm, &rec, 100),
         K_GetBitmapListItem(h, 0, &rec, 177)}, S);
    // A first item whose size word is not 216.
    BITMAPRECORD* items = krn::listItems(h, &n);
    items[0].uStructSize = BITMAPRECORD_SIZE_OLD;
    all({K_InsertBitmapListItem(h, 0, &bm), K_RemoveBitmapListItem(h, 1, &rec),
         K_ReplaceBitmapListItem(h, 1, &bm, nullptr, 0), K_MoveBitmapListItems(&out, h, 1, 1)}, S);
    items[0].uStructSize = BITMAPRECORD_SIZE;
    // A non-empty list without its array.
    BITMAPRECORD*& array = reinterpret_cast<ListBlockView*>(h)->items;
    BITMAPRECORD* saved = std::exchange(array, nullptr);
    EXPECT_EQ(K_InsertBitmapListItem(h, 0, &bm), KS_NULL_POINTER);
    array = saved;
    EXPECT_EQ(tagsOf(h), (std::vector<int>{1, 2, 3, 4}));
    K_FreeBitmap(&bm);
    ASSERT_EQ(K_DestroyBitmapList(h), KS_SUCCESS);
    // Every allocation of list growth, creation, move and copy fails in turn: -1 comes back, the list and the caller's
    // record are as they were, nothing leaks.
    tkit::allocationWalk([&](tkit::Armed& armed) {
        HBITMAPLIST made = nullptr;
        if (armed([&] { return K_CreateBitmapList(&made); }) == KS_SUCCESS) K_DestroyBitmapList(made);
        EXPECT_EQ(made == nullptr, armed.rc != KS_SUCCESS);
    });
    h = listOf({});
    std::vector<int> model;
    for (int t = 1; t <= 12; ++t) {  // the first allocation of each insert fails
        BITMAPRECORD one = tagged(t);
        const BITMAPRECORD before = one;
        tkit::Armed armed{0, 1};
        ASSERT_EQ(armed([&] { return K_InsertBitmapListItem(h, uint32_t(t % 3), &one); }), KS_NO_MEMORY);
        EXPECT_TRUE(tkit::sameBytes(one, before) && tagsOf(h) == model);
        ASSERT_EQ(K_InsertBitmapListItem(h, uint32_t(t % 3), &one), KS_SUCCESS);
        model.insert(model.begin() + std::min<size_t>(size_t(t % 3), model.size()), t);
        EXPECT_EQ(tagsOf(h), model);
    }
    // Move and copy: each allocation they make fails once; a failed copy destroys the half-made list.
    for (bool move : {true, false}) {
        const int failures = tkit::allocationWalk([&](tkit::Armed& armed) {
            HBITMAPLIST m = nullptr;
            auto call = [&] { return move ? K_MoveBitmapListItems(&m, h, 2, 3) : K_CopyBitmapListItems(&m, h, 1, 4); };
            if (armed(call) != KS_SUCCESS) { EXPECT_TRUE(m == nullptr && tagsOf(h) == model); return; }
            const size_t first = move ? 2 : 1, end = 5;
            EXPECT_EQ(tagsOf(m), std::vector<int>(model.begin() + first, model.begin() + end));
            if (move) model.erase(model.begin() + 2, model.begin() + 5);
            K_DestroyBitmapList(m);
        }, 1, true);
        EXPECT_GE(failures, move ? 1 : 4);  // the copy: at least one failure point per copied item
        EXPECT_EQ(tagsOf(h), model);
    }
    ASSERT_EQ(K_DestroyBitmapList(h), KS_SUCCESS);
}

}  // namespace
