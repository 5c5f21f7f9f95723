// korDpq.h - the dynamic ring of 64-bit values: a queue, a queue with two ends, or a sorted list with cheap ends.
//
// Values lie in a ring whose capacity is a power of two and doubles. One slot always stays empty. As a sorted list it
// is a priority queue: a binary search through the ring, and an insertion that moves the shorter side.
//
//     korDpq* waiting = _korDpq_Create(KOR_AT(ex, depth), 16);
//     _korDpq_AddOrderedEx(KOR_AT(ex, depth), waiting, deadline, NULL, 1);
//     while (waiting->count > 0 && waiting->items[waiting->first] <= now)
//         fire(korDpq_popFirst(waiting));
//     _korDpq_Destroy(KOR_AT_D(depth, ex), waiting);
//
// A ring index is a place in `items`. The values in order are at `first` and the indexes after it, each & `mask`. An
// index holds until the next change of the ring. A zeroed record is a valid, empty ring that owns nothing.
//
// A value is opaque; 0 is a value like any other, except in sorted use. A ring has no lock.

#ifndef KORUTIL_KORDPQ_H
#define KORUTIL_KORDPQ_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// The ring, inside its owner or on the heap.
typedef struct korDpq {
    int32_t count;   ///< values held; at most `mask`
    uint32_t mask;   ///< capacity minus 1; the capacity is a power of two
    int32_t first;   ///< index of the first value
    int32_t last;    ///< index of the last value; equal to `first` for one value and for none
    uint64_t* items; ///< owned
} korDpq;

/// Orders two values: negative, 0 or positive. Where it is NULL, the values are ordered as unsigned numbers.
typedef int32_t (*korDpqCompare)(uint64_t left, uint64_t right);

// ---- Making and giving back -----------------------------------------------------------------------------------------

/// Makes an empty ring of a caller's storage, with a capacity of `size` rounded up to a power of two. On a failure it
/// holds nothing and owns nothing. Errors: code 1 for a size below 1; code 2.
KOR_API void _korDpq_Init(korEx* ex, uint8_t depth, korDpq* queue, int32_t size);

/// The same on the heap, for _korDpq_Destroy. NULL on an error.
KOR_API korDpq* _korDpq_Create(korEx* ex, uint8_t depth, int32_t size);

/// Frees the storage and sets `items` to NULL. Nothing else in the record changes: to be used again the ring must be
/// initialised again. NULL is accepted.
KOR_API void _korDpq_Clear(uint8_t depth, korEx* ex, korDpq* queue);

/// Frees a ring of _korDpq_Create; the values are the caller's. NULL is accepted.
KOR_API void _korDpq_Destroy(uint8_t depth, korEx* ex, korDpq* queue);

/// Doubles the capacity; the order stays, indexes may change. Code 2, with the ring as it was.
KOR_API void _korDpq_Grow(korEx* ex, uint8_t depth, korDpq* queue);

// ---- Sorted use -----------------------------------------------------------------------------------------------------

/// Binary search in a sorted ring: the ring index of an equal value, or the complement of the ring index where it would
/// be inserted. An empty ring gives -1.
KOR_API int32_t _korDpq_FindOrdered(const korDpq* queue, uint64_t value, korDpqCompare compare);

/// Puts a value into a sorted ring, before the equal value that the search finds. With `duplicates` 0 a value whose
/// equal is there is not stored. Errors: code 1 for a value of 0; code 2.
KOR_API void _korDpq_AddOrderedEx(korEx* ex, uint8_t depth, korDpq* queue, uint64_t value, korDpqCompare compare,
                                  uint8_t duplicates);

/// Removes the value at a ring index, which is taken modulo the capacity; the order stays. Gives the index of the value
/// that followed it, or -1 if none did. An empty ring and an index that holds no value give -1, and nothing changes.
KOR_API int32_t _korDpq_Remove(korDpq* queue, int32_t index);

// ---- The two ends, in line ------------------------------------------------------------------------------------------

/// The ring index of a position that may be past the end of the storage, or one before its start.
KOR_INLINE int32_t korDpq_wrap(const korDpq* queue, uint32_t position)
{
    return (int32_t)(position & queue->mask);
}

/// Appends a value. Does nothing with an error pending. Code 2: nothing is stored.
KOR_INLINE void _korDpq_Push(korEx* ex, uint8_t depth, korDpq* queue, uint64_t value)
{
    if (KOR_UNLIKELY((uint32_t)queue->count == queue->mask)) {
        _korDpq_Grow(KOR_AT(ex, depth), queue);
    }
    if (ex->code != 0) {
        return;
    }
    if (queue->count++ > 0) {
        queue->last = korDpq_wrap(queue, (uint32_t)queue->last + 1);
    }
    queue->items[queue->last] = value;
}

/// Puts a value in front of all others. Does nothing with an error pending. Code 2: nothing is stored.
KOR_INLINE void _korDpq_PushFirst(korEx* ex, uint8_t depth, korDpq* queue, uint64_t value)
{
    if (KOR_UNLIKELY((uint32_t)queue->count == queue->mask)) {
        _korDpq_Grow(KOR_AT(ex, depth), queue);
    }
    if (ex->code != 0) {
        return;
    }
    if (queue->count++ > 0) {
        queue->first = korDpq_wrap(queue, (uint32_t)queue->first - 1);
    }
    queue->items[queue->first] = value;
}

/// Takes the first value, or gives 0 if there is none.
KOR_INLINE uint64_t korDpq_popFirst(korDpq* queue)
{
    if (KOR_UNLIKELY(queue->count == 0)) {
        return 0;
    }
    uint64_t value = queue->items[queue->first];
    if (queue->first == queue->last) {
        queue->first = 0;
        queue->last = 0;
    } else {
        queue->first = korDpq_wrap(queue, (uint32_t)queue->first + 1);
    }
    queue->count--;
    return value;
}

KOR_END_DECLS

#endif
