// korDra.h - a growing array of fixed-size records, held by value.
//
// It counts in bytes, so that a fast path is one addition to a pointer, and its storage is always zeroed: a new record
// reads as zero. Records move when the array grows. An array is for one thread at a time.
//
//     korDra* array = _korDra_Create(KOR_AT(ex, depth), 100, sizeof(Point));
//     Point* point = _korDra_New(KOR_AT_D(depth, ex), array);         // NULL and an error if memory is short
//     Point* first = (Point*)array->bytes;
//     _korDra_Destroy(KOR_AT_D(depth, ex), array);

#ifndef KORUTIL_KORDRA_H
#define KORUTIL_KORDRA_H

#include "korutil/korEx.h"
#include "korutil/korPool.h"

KOR_BEGIN_DECLS

/// The array. Read freely; written by the routines below.
typedef struct korDra {
    int32_t used;         ///< bytes in use: records times `recordSize`
    int32_t capacity;     ///< bytes in `bytes`
    uint8_t* bytes;       ///< the storage
    uint32_t recordSize;  ///< bytes a record
    korPool* objectPool;  ///< where the array itself came from; NULL = the heap or the caller
    korPool* storagePool; ///< where `bytes` came from; NULL = the heap
} korDra;

/// Makes pools for arrays: `*objects` of array objects, `*storages` of chunks that hold `size` records. Either pointer
/// may be NULL: that pool is not made. Both pools are the caller's, for _korPool_Destroy; on a failure neither exists
/// and both are NULL. Errors: code 1 for a chunk size below 1 or beyond what a pool takes; code 2.
KOR_API void _korDra_CreatePools(korEx* ex, uint8_t depth, korPool** objects, korPool** storages, int32_t size,
                                 int32_t recordSize);

/// Initialises an array in place, for `size` records or more: at least 5, or with a pool what a chunk holds. A size or
/// record size below 1 counts as 1. Storage comes from `storages` if a chunk is large enough, else from the heap. After
/// a failure the array has no storage and a capacity of 0. Code 2.
KOR_API void _korDra_PerformInit(korEx* ex, uint8_t depth, korDra* array, int32_t size, int32_t recordSize,
                                 korPool* storages);

/// Makes an array: the object from `objects`, or with NULL from the heap, the storage as _korDra_PerformInit has it.
/// Given back with _korDra_Destroy. NULL and code 2 if memory is short.
KOR_API korDra* _korDra_PerformCreate(korEx* ex, uint8_t depth, int32_t size, int32_t recordSize, korPool* objects,
                                      korPool* storages);

/// Gives the storage back. The fields stay as they were: the array must be initialised anew before its next use, and
/// neither cleared nor destroyed again. A NULL array, or one without storage, is accepted.
KOR_API void _korDra_Clear(uint8_t depth, korEx* ex, korDra* array);

/// Gives storage and object of an array of _korDra_PerformCreate back. NULL is accepted.
KOR_API void _korDra_Destroy(uint8_t depth, korEx* ex, korDra* array);

/// A new array on the heap with the same records. NULL and code 2 if memory is short.
KOR_API korDra* _korDra_Copy(korEx* ex, uint8_t depth, const korDra* source);

/// Appends all records of `source`, growing by exactly what is missing. The record sizes are not compared. Code 2.
KOR_API void _korDra_AddDra(korEx* ex, uint8_t depth, korDra* array, const korDra* source);

/// Adds `bytes`, 0 or more, to the capacity. The storage is on the heap afterwards. After a failure for want of memory
/// the array has no storage any more and must be cleared or destroyed: its records are gone. Errors: code 1 for a
/// negative number; code 2.
KOR_API void _korDra_GrowBytes(korEx* ex, uint8_t depth, korDra* array, int32_t bytes);

/// The slow half of _korDra_New: triples a full array and gives its new last record. Works with an error pending; a
/// failed growth gives NULL, and its error reaches the caller if the caller's object is clean. A NULL array gives NULL.
KOR_API void* _korDra_NewGrow(uint8_t depth, korEx* ex, korDra* array);

/// The record at `index`, growing the array by exactly what is missing. Records between the old end and the index
/// become zero. NULL after a failure, and with an error pending. Errors: code 1 for a negative index; code 2.
KOR_API void* _korDra_GetNewAtIndex(korEx* ex, uint8_t depth, korDra* array, int32_t index);

/// Removes the record at `index`; those behind it move down. False if there is no such record.
KOR_API bool _korDra_RemoveIndex(korDra* array, int32_t index);

// ---- In line --------------------------------------------------------------------------------------------------------

/// _korDra_PerformInit with heap storage.
KOR_INLINE void _korDra_Init(korEx* ex, uint8_t depth, korDra* array, int32_t size, int32_t recordSize)
{
    _korDra_PerformInit(KOR_AT(ex, depth), array, size, recordSize, NULL);
}

/// _korDra_PerformCreate with object and storage of the heap.
KOR_INLINE korDra* _korDra_Create(korEx* ex, uint8_t depth, int32_t size, int32_t recordSize)
{
    return _korDra_PerformCreate(KOR_AT(ex, depth), size, recordSize, NULL, NULL);
}

/// A new record at the end, tripling a full array. A record whose place was used before, and removed, reads as it was
/// left; any other reads as zero. NULL after a failure. Works with an error pending. Code 2.
KOR_INLINE void* _korDra_New(uint8_t depth, korEx* ex, korDra* array)
{
    if (KOR_LIKELY(array->bytes != NULL && array->capacity - array->used >= (int32_t)array->recordSize)) {
        void* record = array->bytes + array->used;
        array->used += (int32_t)array->recordSize;
        return record;
    }
    return _korDra_NewGrow(KOR_AT_D(depth, ex), array);
}

KOR_END_DECLS

#endif
