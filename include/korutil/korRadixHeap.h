// korRadixHeap.h - a monotone priority queue on signed 64-bit keys, built for timers: keys are expiry times, and the
// reference key only moves up.
//
// Items are records inside the caller's own objects, so nothing is allocated for an item; the heap owns only a small
// array of buckets. An item lies in the bucket that the highest bit names in which its key differs from the reference
// key; bucket 0 holds the items that are due. An insertion takes constant time, and an item moves only to lower
// buckets, 64 times in its life at the most.
//
//     struct Task { korRadixItem item; ... };
//
//     korRadixHeap heap;
//     _korRadixHeap_Init(KOR_AT(ex, depth), &heap, now);
//     _korRadixHeap_Insert(KOR_AT(ex, depth), &heap, &task->item, now + delay);
//
//     _korRadixHeap_DecreaseKey(KOR_AT(ex, depth), &heap, now);        // everything up to now is due
//     while (heap.buckets[0].head != NULL)
//         run(_korRadixHeap_ExtractMin(KOR_AT(ex, depth), &heap));
//     sleepUntil(korRadixHeap_nextKey(&heap));
//     _korRadixHeap_Clear(KOR_AT_D(depth, ex), &heap);
//
// The structure is the radix heap of Ahuja, Mehlhorn, Orlin and Tarjan ("Faster Algorithms for the Shortest Path
// Problem", 1990). Items are the caller's and are never freed. An item is in one heap at a time. With an error pending
// all but clearing and destroying does nothing. A heap has no lock.

#ifndef KORUTIL_KORRADIXHEAP_H
#define KORUTIL_KORRADIXHEAP_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// The key of a bucket known to be empty.
#define KOR_RADIX_HEAP_NO_KEY INT64_MAX

/// A place in the heap, embedded in the caller's object. Needs no initialisation before an insertion.
typedef struct korRadixItem {
    int64_t key;               ///< the item's key
    struct korRadixItem* next; ///< next in the bucket; NULL at the tail
    struct korRadixItem* prev; ///< in a bucket's first item the bucket's tail, else the item before
    uint8_t bucket;            ///< index of the bucket that holds it
} korRadixItem;

/// A list of items in the order in which they were placed.
typedef struct korRadixBucket {
    int64_t minKey;     ///< bucket 0: the heap's reference key. Others: no key in the bucket is lower
    korRadixItem* head; ///< first item, or NULL
} korRadixBucket;

/// The heap, inside its owner or on the heap.
typedef struct korRadixHeap {
    korRadixBucket* buckets; ///< owned
    uint8_t bucketCount;     ///< 65 at most; grows as keys show their spread, never shrinks
    uint8_t lastScan;        ///< no bucket from 1 up to `lastScan` - 1 holds items
} korRadixHeap;

/// A heap on the heap with reference key `initialKey`, for _korRadixHeap_Destroy. NULL on an error. Code 2.
KOR_API korRadixHeap* _korRadixHeap_Create(korEx* ex, uint8_t depth, int64_t initialKey);

/// Initialises a heap in place: one bucket, reference key `initialKey`. Code 2.
KOR_API void _korRadixHeap_Init(korEx* ex, uint8_t depth, korRadixHeap* heap, int64_t initialKey);

/// Frees the buckets; items that are still in the heap are simply forgotten. To be used again, the heap must be
/// initialised again. NULL is accepted, and so is a cleared heap.
KOR_API void _korRadixHeap_Clear(uint8_t depth, korEx* ex, korRadixHeap* heap);

/// Clears a heap and frees the object. NULL is accepted.
KOR_API void _korRadixHeap_Destroy(uint8_t depth, korEx* ex, korRadixHeap* heap);

/// Gives an empty heap another reference key, lower or higher. Code 10 "Cannot reset a non-empty heap".
KOR_API void _korRadixHeap_Reset(korEx* ex, uint8_t depth, korRadixHeap* heap, int64_t key);

/// Inserts an item under `key`, which must not be below the reference key. Code 10 "violated radix heap invariant.
/// (min:%lld key:%lld)" with both keys, or code 2; the item is then not in the heap, and the heap is as it was.
KOR_API void _korRadixHeap_Insert(korEx* ex, uint8_t depth, korRadixHeap* heap, korRadixItem* item, int64_t key);

/// _korRadixHeap_Insert for a key at or above the reference key. An item with a lower key goes among the due items, and
/// there the caller sets `item->key` beforehand. It is linked before each due item with a higher key in turn: with
/// several of them, those passed on the way drop out of the list, and with none the item is not linked. So it
/// serves only where one due item at most has a higher key. Code 2.
KOR_API void _korRadixHeap_InsertAnyKey(korEx* ex, uint8_t depth, korRadixHeap* heap, korRadixItem* item, int64_t key);

/// Raises the reference key to `key`; every item with a key up to it is due then and lies in bucket 0. (What decreases
/// is the items' distance.) Code 10 "violated radix heap invariant" for a `key` below the reference key; nothing
/// changes.
KOR_API void _korRadixHeap_DecreaseKey(korEx* ex, uint8_t depth, korRadixHeap* heap, int64_t key);

/// If nothing is due, raises the reference key to the lowest key of the heap and makes its items due. True if any item
/// is due afterwards.
KOR_API bool _korRadixHeap_Redistribute(korRadixHeap* heap);

/// Takes an item that is due out of the heap, or, with none due, one with the lowest key. NULL if the heap is empty.
/// Items that became due together come out in the order in which they were placed, not by key.
KOR_INLINE korRadixItem* _korRadixHeap_ExtractMin(korEx* ex, uint8_t depth, korRadixHeap* heap)
{
    (void)depth;
    if (ex->code != 0) {
        return NULL;
    }
    if (heap->buckets[0].head == NULL && !_korRadixHeap_Redistribute(heap)) {
        return NULL;
    }
    korRadixItem* item = heap->buckets[0].head;
    heap->buckets[0].head = item->next;
    if (item->next != NULL) {
        item->next->prev = item->prev;
    }
    return item;
}

/// With nothing due, the key that comes next, or KOR_RADIX_HEAP_NO_KEY for an empty heap. Notes in `lastScan` how far
/// the buckets are empty.
KOR_INLINE int64_t korRadixHeap_nextKey(korRadixHeap* heap)
{
    for (; heap->lastScan < heap->bucketCount; heap->lastScan++) {
        if (heap->buckets[heap->lastScan].head != NULL) {
            return heap->buckets[heap->lastScan].minKey;
        }
    }
    return KOR_RADIX_HEAP_NO_KEY;
}

/// Prints buckets and keys to standard error.
KOR_API void _korRadixHeap_Print(const korRadixHeap* heap);

/// Walks the list of the due items to its end. Checks nothing else: it is a place for a debugger to see a cycle.
KOR_API void _korRadixHeap_Assert(const korRadixHeap* heap);

KOR_END_DECLS

#endif
