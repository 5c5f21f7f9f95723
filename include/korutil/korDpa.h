// korDpa.h - the dynamic array of 64-bit values: one slot inside the object, more on the heap or in a pool's chunk.
//
// A value is opaque: a pointer, an id, a number; 0 is a value like any other. A one-slot array owns no memory, and a
// first append to it allocates nothing. An array that is full triples.
//
//     korDpa names;
//     _korDpa_Init(KOR_AT(ex, depth), &names, 1);
//     _korDpa_AddSafe(KOR_AT(ex, depth), &names, value);
//     for (int32_t i = 0; i < names.count; i++)
//         use(names.items[i]);
//     _korDpa_Clear(KOR_AT_D(depth, ex), &names);
//
// The object points into itself while it has one slot: it may stand inside other records, and it must not be copied or
// moved by assignment. `count`, `capacity` and `items` are there to be read, and values inside `count` to be written.
//
// Only memory can fail: code 2 (No memory), with the array valid and its values as they were. An array has no lock; its
// user owns its locking.

#ifndef KORUTIL_KORDPA_H
#define KORUTIL_KORDPA_H

#include "korutil/korEx.h"

#include <string.h>

KOR_BEGIN_DECLS

typedef struct korPool korPool;

/// The array. Initialised by _korDpa_Init or _korDpa_PerformInit in place, or made by one of the create functions.
typedef struct korDpa {
    int32_t count;         ///< values in use
    int32_t capacity;      ///< slots in `items`
    uint64_t* items;       ///< the storage; with `capacity` 1 it is `inlineOrPool`
    uint64_t inlineOrPool; ///< with `capacity` 1 the single slot; otherwise the pool of `items`, or 0 for the heap
} korDpa;

/// Orders two values: negative, 0 or positive. Where a compare is optional, NULL orders the values as unsigned numbers.
typedef int32_t (*korDpaCompare)(uint64_t left, uint64_t right);
/// Gives a copy of what `value` stands for. A failure is left in `ex`.
typedef uint64_t (*korDpaCopy)(korEx* ex, uint8_t depth, uint64_t value);
/// Destroys what `value` stands for. Works with an error pending.
typedef void (*korDpaDestroy)(uint8_t depth, korEx* ex, uint64_t value);

// ---- Making and giving back -----------------------------------------------------------------------------------------

/// Makes pools for pooled arrays: `*objects` for array objects, `*arrays` for storage of `size` slots each. Either
/// pointer may be NULL: that pool is not made. Both pools are the caller's, for _korPool_Destroy; on a failure neither
/// exists and both are NULL. Errors: code 1 for a size below 1 or beyond what a pool takes; code 2.
KOR_API void _korDpa_CreatePools(korEx* ex, uint8_t depth, korPool** objects, korPool** arrays, int32_t size);

/// Initialises an array in place. `size` is a hint. Below 2: one slot inside the object, or two slots with a pool. Else
/// the larger of the hint and 5, or with a pool the larger of the hint and what a chunk holds. Storage comes from
/// `arrays` only if a whole chunk is wanted; any other size comes from the heap. After a failure, or with an error
/// pending, the array is a valid, empty one-slot array.
KOR_API void _korDpa_PerformInit(korEx* ex, uint8_t depth, korDpa* dpa, int32_t size, korPool* arrays);

/// Makes an array: the object from `objects` or the heap, the storage as _korDpa_PerformInit has it. Given back with
/// _korDpa_DestroyPooled and the same object pool. NULL and code 2 if memory is short.
KOR_API korDpa* _korDpa_PerformCreate(korEx* ex, uint8_t depth, int32_t size, korPool* objects, korPool* arrays);

/// Gives the storage back and leaves a valid, empty one-slot array. Harmless twice. NULL is accepted.
KOR_API void _korDpa_Clear(uint8_t depth, korEx* ex, korDpa* dpa);

/// Clears the array and gives the object back to `objects`, or with NULL to the heap. A NULL array is accepted.
KOR_API void _korDpa_DestroyPooled(uint8_t depth, korEx* ex, korDpa* dpa, korPool* objects);

/// Calls `destroy` for each value in order, then clears the array and frees the object, which must be of the heap. With
/// a NULL array or a NULL function nothing at all happens: the array stays.
KOR_API void _korDpa_DeepDestroy(uint8_t depth, korEx* ex, korDpa* dpa, korDpaDestroy destroy);

/// A new array on the heap with the same values. NULL and code 2 if memory is short.
KOR_API korDpa* _korDpa_Copy(korEx* ex, uint8_t depth, const korDpa* source);

/// A new array on the heap with a copy of each value. At the first failure of `copy`, or of memory, what `copy` gave
/// last and all copies before it go to `destroy`, if there is one, and the result is NULL.
KOR_API korDpa* _korDpa_DeepCopy(korEx* ex, uint8_t depth, const korDpa* source, korDpaCopy copy,
                                 korDpaDestroy destroy);

// ---- Adding ---------------------------------------------------------------------------------------------------------

/// Adds `slots` to the capacity. The storage is on the heap afterwards. 0 does nothing. Errors: code 1 for a negative
/// number; code 2.
KOR_API void _korDpa_Grow(korEx* ex, uint8_t depth, korDpa* dpa, int32_t slots);

/// The slow half of an append: triples a full array, then appends. Works with an error pending; a failed growth stores
/// nothing, and its error reaches the caller if the caller's object is clean. A NULL array is accepted.
KOR_API void _korDpa_AddGrow(uint8_t depth, korEx* ex, korDpa* dpa, uint64_t value);

/// Puts a value into a sorted array. Among equal values it lands before the last of the run; in a run that reaches the
/// end of the array it lands where the binary search met the run. Code 2.
KOR_API void _korDpa_AddOrdered(korEx* ex, uint8_t depth, korDpa* dpa, uint64_t value, korDpaCompare compare);

/// Sets the slot at `index`, growing the array by exactly what is missing. Slots between the old count and the index
/// become 0, and the count rises to `index` + 1 if it was less. Errors: code 1 for a negative index; code 2.
KOR_API void _korDpa_AddIndex(korEx* ex, uint8_t depth, korDpa* dpa, uint64_t value, int32_t index);

/// Merges the sorted `source` into the sorted array; on ties the source's values come first. Code 2.
KOR_API void _korDpa_AddDpaOrdered(korEx* ex, uint8_t depth, korDpa* dpa, const korDpa* source, korDpaCompare compare);

/// The same with no value written twice, whichever side its equals come from. An empty source does nothing. Code 2.
KOR_API void _korDpa_AddDpaOrderedUnique(korEx* ex, uint8_t depth, korDpa* dpa, const korDpa* source,
                                         korDpaCompare compare);

// ---- Finding and removing -------------------------------------------------------------------------------------------

/// Binary search in a sorted array: an index of an equal value, or the complement of the index where it would be
/// inserted.
KOR_API int32_t _korDpa_FindOrdered(const korDpa* dpa, uint64_t value, korDpaCompare compare);

/// Linear search: the index of the first equal value, or the complement of `count`.
KOR_API int32_t _korDpa_Find(const korDpa* dpa, uint64_t value);

/// Removes the first equal value; the last value takes its place, so order is lost. Gives its index, or the complement
/// of `count`.
KOR_API int32_t _korDpa_Remove(korDpa* dpa, uint64_t value);

/// Removes an equal value from a sorted array and keeps the order. Gives its index, or the complement of the index
/// where it would be inserted.
KOR_API int32_t _korDpa_RemoveOrdered(korDpa* dpa, uint64_t value, korDpaCompare compare);

/// Removes the value at `index` and keeps the order. False if there is no such value.
KOR_API bool _korDpa_RemoveIndexOrdered(korDpa* dpa, int32_t index);

/// Sets the first equal value to 0 and keeps the count. Gives its index, or the complement of `count`.
KOR_API int32_t _korDpa_Zero(korDpa* dpa, uint64_t value);

// ---- In line --------------------------------------------------------------------------------------------------------

/// _korDpa_PerformInit with heap storage.
KOR_INLINE void _korDpa_Init(korEx* ex, uint8_t depth, korDpa* dpa, int32_t size)
{
    _korDpa_PerformInit(KOR_AT(ex, depth), dpa, size, NULL);
}

/// _korDpa_PerformCreate with object and storage of the heap. Given back with _korDpa_DestroyPooled and no pool.
KOR_INLINE korDpa* _korDpa_Create(korEx* ex, uint8_t depth, int32_t size)
{
    return _korDpa_PerformCreate(KOR_AT(ex, depth), size, NULL, NULL);
}

/// _korDpa_PerformCreate under the name that says what it does.
KOR_INLINE korDpa* _korDpa_CreatePooled(korEx* ex, uint8_t depth, int32_t size, korPool* objects, korPool* arrays)
{
    return _korDpa_PerformCreate(KOR_AT(ex, depth), size, objects, arrays);
}

/// Makes an array ready for another use: one with storage keeps it and is emptied, a zeroed one gets 16 slots.
KOR_INLINE void _korDpa_Reinit(korEx* ex, uint8_t depth, korDpa* dpa)
{
    if (dpa->items != NULL) {
        dpa->count = 0;
    } else {
        _korDpa_PerformInit(KOR_AT(ex, depth), dpa, 16, NULL);
    }
}

/// Appends a value, tripling a full array. Works with an error pending; code 2.
KOR_INLINE void _korDpa_AddSafe(korEx* ex, uint8_t depth, korDpa* dpa, uint64_t value)
{
    if (KOR_LIKELY(dpa->count < dpa->capacity)) {
        dpa->items[dpa->count++] = value;
    } else {
        _korDpa_AddGrow(KOR_AT_D(depth, ex), dpa, value);
    }
}

/// Appends all values of `source`, growing by exactly what is missing. Code 2.
KOR_INLINE void _korDpa_AddDpa(korEx* ex, uint8_t depth, korDpa* dpa, const korDpa* source)
{
    if (ex->code != 0) {
        return;
    }
    int32_t added = source->count;
    int32_t room = dpa->capacity - dpa->count;
    if (added > room) {
        _korDpa_Grow(KOR_AT(ex, depth), dpa, added - room);
        if (ex->code != 0) {
            return;
        }
    }
    if (added > 0) {
        memcpy(&dpa->items[dpa->count], source->items, (size_t)added * sizeof(uint64_t));
        dpa->count += added;
    }
}

KOR_END_DECLS

#endif
