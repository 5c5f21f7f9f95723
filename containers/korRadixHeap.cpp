// korRadixHeap.cpp - the monotone priority queue on 64-bit keys.
//
// An item of bucket i above 0 differs from the reference key, the minKey of bucket 0, in bit i - 1 and in none above
// it. When the reference key moves into a bucket, that bucket's items agree with it in one bit more, so all of them
// move down, and what lies in higher buckets stays right where it is.

#include "korutil/korRadixHeap.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <cstdio>
#include <cstring>

static_assert(sizeof(korRadixBucket) == 16 && sizeof(korRadixItem) == 32 && sizeof(korRadixHeap) == 16);

namespace kor {
namespace {

constexpr korRadixBucket emptyBucket = {.minKey = KOR_RADIX_HEAP_NO_KEY, .head = nullptr};

int64_t& referenceKey(korRadixHeap* heap)
{
    return heap->buckets[0].minKey;
}

// 0 for the reference key itself, else the number of the highest bit that differs, counted from 1.
uint8_t bucketFor(int64_t reference, int64_t key)
{
    return static_cast<uint8_t>(std::bit_width(static_cast<uint64_t>(reference) ^ static_cast<uint64_t>(key)));
}

uint8_t bucketOf(const korRadixHeap* heap, int64_t key)
{
    return bucketFor(heap->buckets[0].minKey, key);
}

// Looks at the first items of each bucket, for the hostile build.
void check([[maybe_unused]] const korRadixHeap* heap)
{
    constexpr int looked = 64;
    for (int i = 1; hostile && i < heap->bucketCount; i++) {
        const korRadixItem* item = heap->buckets[i].head;
        KOR_INVARIANT(item == nullptr || i >= heap->lastScan);
        KOR_INVARIANT(item == nullptr || item->prev->next == nullptr);
        for (int n = 0; item != nullptr && n < looked; n++, item = item->next) {
            KOR_INVARIANT(item->bucket == i && bucketOf(heap, item->key) == i);
            KOR_INVARIANT(item->key >= heap->buckets[i].minKey);
            KOR_INVARIANT(item->next == nullptr || item->next->prev == item);
        }
    }
}

// Puts an item at the tail of a bucket.
KOR_INLINE void place(korRadixBucket* buckets, korRadixItem* item, uint8_t index)
{
    korRadixBucket* bucket = &buckets[index];
    korRadixItem* head = bucket->head;
    item->next = nullptr;
    item->bucket = index;
    if (head != nullptr) {
        item->prev = head->prev;
        item->prev->next = item;
        head->prev = item;
    } else {
        item->prev = item;
        bucket->head = item;
    }
}

void lowerMinKey(korRadixBucket* bucket, int64_t key)
{
    if (bucket->minKey > key) {
        bucket->minKey = key;
    }
}

void lowerLastScan(korRadixHeap* heap, uint8_t index)
{
    if (index < heap->lastScan) {
        heap->lastScan = index;
    }
}

// Empties a bucket, moves the reference key, and places the bucket's items anew.
void spread(korRadixHeap* heap, korRadixBucket* bucket, int64_t reference)
{
    korRadixItem* item = bucket->head;
    korRadixBucket* buckets = heap->buckets;
    uint8_t lowest = heap->lastScan;
    *bucket = emptyBucket;
    buckets[0].minKey = reference;
    while (item != nullptr) {
        korRadixItem* next = item->next;
        int64_t key = item->key;
        uint8_t index = bucketFor(reference, key);
        place(buckets, item, index);
        buckets[index].minKey = std::min(buckets[index].minKey, key); // bucket 0: the keys are the reference key
        lowest = std::min(lowest, index);
        item = next;
    }
    heap->lastScan = lowest;
}

// The lowest bucket above 0 with items, or null. Empty ones on the way lose what is left of an old minKey.
korRadixBucket* lowestFilled(korRadixHeap* heap)
{
    for (uint8_t i = 1; i < heap->bucketCount; i++) {
        if (heap->buckets[i].head != nullptr) {
            return &heap->buckets[i];
        }
        heap->buckets[i].minKey = KOR_RADIX_HEAP_NO_KEY;
    }
    return nullptr;
}

void grow(korEx* ex, uint8_t depth, korRadixHeap* heap, uint8_t count)
{
    auto* buckets = request<korRadixBucket>(KOR_AT(ex, depth), count * sizeof(korRadixBucket));
    if (buckets == nullptr) {
        return;
    }
    std::memcpy(buckets, heap->buckets, heap->bucketCount * sizeof(korRadixBucket));
    for (uint8_t i = heap->bucketCount; i < count; i++) {
        buckets[i] = emptyBucket;
    }
    _kor_free(KOR_AT_D(depth, ex), heap->buckets);
    heap->buckets = buckets;
    heap->bucketCount = count;
}

// Links `item` before each due item with a key above `key`. The walk has no early stop.
void linkAmongDue(korRadixHeap* heap, korRadixItem* item, int64_t key)
{
    for (korRadixItem* due = heap->buckets[0].head; due != nullptr; due = due->next) {
        if (due->key <= key) {
            continue;
        }
        item->prev = due->prev;
        due->prev = item;
        item->next = due;
        if (item->prev->next != nullptr) { // the head's prev is the tail, whose next stays NULL
            item->prev->next = item;
        }
        if (due == heap->buckets[0].head) {
            heap->buckets[0].head = item;
        }
    }
    item->bucket = 0;
}

} // namespace
} // namespace kor

using namespace kor;

// ---- Making ---------------------------------------------------------------------------------------------------------

korRadixHeap* _korRadixHeap_Create(korEx* ex, uint8_t depth, int64_t initialKey)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* heap = requestZeroed<korRadixHeap>(KOR_AT(ex, depth));
    if (heap == nullptr) {
        return nullptr;
    }
    _korRadixHeap_Init(KOR_AT(ex, depth), heap, initialKey);
    if (ex->code != 0) {
        _korRadixHeap_Destroy(KOR_AT_D(depth, ex), heap);
        return nullptr;
    }
    return heap;
}

void _korRadixHeap_Init(korEx* ex, uint8_t depth, korRadixHeap* heap, int64_t initialKey)
{
    if (ex->code != 0) {
        return;
    }
    *heap = {};
    auto* buckets = requestZeroed<korRadixBucket>(KOR_AT(ex, depth));
    if (buckets == nullptr) {
        return;
    }
    *heap = {.buckets = buckets, .bucketCount = 1, .lastScan = 1};
    referenceKey(heap) = initialKey;
}

void _korRadixHeap_Clear(uint8_t depth, korEx* ex, korRadixHeap* heap)
{
    if (heap != nullptr) {
        _kor_free(KOR_AT_D(depth, ex), heap->buckets);
        *heap = {};
    }
}

void _korRadixHeap_Destroy(uint8_t depth, korEx* ex, korRadixHeap* heap)
{
    _korRadixHeap_Clear(KOR_AT_D(depth, ex), heap);
    _kor_free(KOR_AT_D(depth, ex), heap);
}

void _korRadixHeap_Reset(korEx* ex, uint8_t depth, korRadixHeap* heap, int64_t key)
{
    if (ex->code != 0) {
        return;
    }
    if (_korRadixHeap_Redistribute(heap)) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Cannot reset a non-empty heap");
        return;
    }
    referenceKey(heap) = key;
}

// ---- Items ----------------------------------------------------------------------------------------------------------

void _korRadixHeap_Insert(korEx* ex, uint8_t depth, korRadixHeap* heap, korRadixItem* item, int64_t key)
{
    if (ex->code != 0) {
        return;
    }
    if (referenceKey(heap) > key) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_ILLEGAL_STATE,
                    "violated radix heap invariant. (min:%" PRId64 " key:%" PRId64 ")", referenceKey(heap), key);
        return;
    }
    uint8_t index = bucketOf(heap, key);
    if (index >= heap->bucketCount) {
        grow(KOR_AT(ex, depth), heap, static_cast<uint8_t>(index + 1));
        if (ex->code != 0) {
            return;
        }
    }
    item->key = key;
    place(heap->buckets, item, index);
    lowerMinKey(&heap->buckets[index], key);
    lowerLastScan(heap, index);
    check(heap);
}

void _korRadixHeap_InsertAnyKey(korEx* ex, uint8_t depth, korRadixHeap* heap, korRadixItem* item, int64_t key)
{
    if (ex->code != 0) {
        return;
    }
    if (key >= referenceKey(heap)) {
        _korRadixHeap_Insert(KOR_AT(ex, depth), heap, item, key);
    } else if (heap->buckets[0].head == nullptr) {
        place(heap->buckets, item, 0);
    } else {
        linkAmongDue(heap, item, key);
    }
}

void _korRadixHeap_DecreaseKey(korEx* ex, uint8_t depth, korRadixHeap* heap, int64_t key)
{
    if (ex->code != 0) {
        return;
    }
    if (referenceKey(heap) > key) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "violated radix heap invariant");
        return;
    }
    while (referenceKey(heap) != key) {
        korRadixBucket* bucket = lowestFilled(heap);
        if (bucket == nullptr) {
            break; // nothing stands between the old reference key and the new one
        }
        spread(heap, bucket, bucket->minKey < key ? bucket->minKey : key);
    }
    referenceKey(heap) = key;
    check(heap);
}

bool _korRadixHeap_Redistribute(korRadixHeap* heap)
{
    while (heap->buckets[0].head == nullptr) {
        korRadixBucket* bucket = lowestFilled(heap);
        if (bucket == nullptr) {
            heap->lastScan = heap->bucketCount;
            return false;
        }
        spread(heap, bucket, bucket->minKey); // fills bucket 0, unless the holder of that key has left
    }
    heap->lastScan = 1;
    check(heap);
    return true;
}

// ---- For a developer ------------------------------------------------------------------------------------------------

void _korRadixHeap_Print(const korRadixHeap* heap)
{
    std::fprintf(stderr, "radixHeap %p with %d buckets lastScan(%d)\n", static_cast<const void*>(heap),
                 heap->bucketCount, heap->lastScan);
    for (int i = 0; i < heap->bucketCount; i++) {
        std::fprintf(stderr, "bucket %2d min %" PRId64 " [", i, heap->buckets[i].minKey);
        for (const korRadixItem* item = heap->buckets[i].head; item != nullptr; item = item->next) {
            std::fprintf(stderr, "(%" PRId64 ")", item->key);
        }
        std::fputs("]\n", stderr);
    }
}

void _korRadixHeap_Assert(const korRadixHeap* heap)
{
    const korRadixItem* item = heap->buckets[0].head;
    while (item != nullptr) {
        item = item->next;
    }
}
