// korObjectMap.h - 64-bit ids for pointers: ids that may be kept anywhere, handed between threads, and go stale safely.
//
// An id is a generation, never 0, in the high 32 bits and a slot index, never 0, in the low ones. A slot holds the
// object and one word of generation and reference count, so that one compare-and-swap tells whether the id still stands
// and takes a reference: a get that races an unregister either has its reference first, or fails.
//
//     uint64_t id = _korObjectMap_Register(KOR_AT(ex, depth), object);    // the owner's reference
//
//     object = _korObjectMap_Get(KOR_AT(ex, depth), id);                  // any thread
//     if (ex->code == 0) {
//         ... use it ...
//         if (_korObjectMap_Release(KOR_AT_D(depth, ex), id))
//             ... nobody can reach the object any more: free it ...
//     }
//
//     _korObjectMap_Unregister(KOR_AT(ex, depth), id);                    // no get succeeds from here on
//     if (_korObjectMap_Release(KOR_AT_D(depth, ex), id))                 // the owner's reference
//         ... free it ...
//
// A get and a release take no lock and allocate nothing, but for the release that frees the slot. A release without a
// reference spoils the count, and nothing detects it. The map lasts for the process.

#ifndef KORUTIL_KOROBJECTMAP_H
#define KORUTIL_KOROBJECTMAP_H

#include "korutil/korDpa.h"
#include "korutil/korEx.h"
#include "korutil/korMutex.h"

KOR_BEGIN_DECLS

/// Slots of one table.
#define KOR_OBJECT_MAP_TABLE 65536

/// A slot of the map: free, live (generation and count set), or unregistered (generation 0, count set).
typedef struct korObjectMapSlot {
    uint64_t word; ///< atomic: generation in the high 32 bits, reference count in the low 32
    void* object;  ///< atomic; written before `word` makes the slot live
} korObjectMapSlot;

// ---- The map, open to the in-line routines --------------------------------------------------------------------------

/// The slots of the indexes under 65536.
KOR_DATA korObjectMapSlot gObjectMap0[KOR_OBJECT_MAP_TABLE];
/// Atomic: the tables of further 65536 slots each, by index / 65536. Entry 0 stays NULL.
KOR_DATA korObjectMapSlot* gObjectMap[KOR_OBJECT_MAP_TABLE];
/// Guards the free indexes, the generations and the making of tables.
KOR_DATA korMutex gObjectMapLock;
/// The free slot indexes; the one freed last goes out first. Has room for every index ever given out.
KOR_DATA korDpa gObjectMapUnused;
/// Atomic: the highest index ever given out.
KOR_DATA uint64_t gObjectMapMaxUsed;

/// The slot of an index that is not above gObjectMapMaxUsed.
KOR_INLINE korObjectMapSlot* korObjectMap_slot(uint32_t index)
{
    if (KOR_LIKELY(index < KOR_OBJECT_MAP_TABLE)) {
        return &gObjectMap0[index];
    }
    return &KOR_ATOMIC_LOAD_ACQUIRE(&gObjectMap[index / KOR_OBJECT_MAP_TABLE])[index % KOR_OBJECT_MAP_TABLE];
}

// ---- Objects and their ids ------------------------------------------------------------------------------------------

/// Makes the map ready; part of opening the library, and of the first register. Once for the process.
KOR_API void _korObjectMap_Open(korEx* ex, uint8_t depth);

/// Gives `object` an id, and its owner one reference. 0 on a failure. The object stays the caller's. Any thread.
/// Errors: 2 (no memory for a table, no description); 22 "Object map is full".
KOR_API uint64_t _korObjectMap_Register(korEx* ex, uint8_t depth, void* object);

/// Makes the id stale and gives its object, or NULL. References stay, the owner's too, and are given back with
/// _korObjectMap_Release under the same id. Any thread. Errors: 1 "invalid object id": no generation, or an index that
/// was never given out; 1 "unrecognized object id": the id is stale.
KOR_API void* _korObjectMap_Unregister(korEx* ex, uint8_t depth, uint64_t id);

/// The slow path of _korObjectMap_Get, with the same result and errors.
KOR_API void* _korObjectMap_GetRetry(korEx* ex, uint8_t depth, uint64_t id);

/// The slow path of _korObjectMap_Release, with the same result.
KOR_API bool _korObjectMap_ReleaseRetry(uint8_t depth, korEx* ex, uint64_t id);

/// How many references the slot of an id has, whoever it belongs to now; 0 for an index that was never given out. For
/// debugging.
KOR_API uint32_t _korDebug_ObjMap_GetRefs(uint64_t id);

/// Takes a reference and gives the object, or NULL. With a reference in hand the object stays, unregistered or not,
/// until the release. Any thread, no lock. Errors: 1 "object does not exist": no generation, or an index that was never
/// given out; 1 "unrecognized object id": the id is stale.
KOR_INLINE void* _korObjectMap_Get(korEx* ex, uint8_t depth, uint64_t id)
{
    uint32_t index = (uint32_t)id;
    if (KOR_LIKELY(ex->code == 0 && id >> 32 != 0 && index <= KOR_ATOMIC_LOAD_ACQUIRE(&gObjectMapMaxUsed))) {
        korObjectMapSlot* slot = korObjectMap_slot(index);
        uint64_t word = (uint32_t)KOR_ATOMIC_LOAD_RELAXED(&slot->word) | (id >> 32 << 32);
        if (KOR_LIKELY(KOR_ATOMIC_CAS(&slot->word, &word, word + 1))) {
            return KOR_ATOMIC_LOAD_RELAXED(&slot->object);
        }
    }
    return _korObjectMap_GetRetry(KOR_AT(ex, depth), id);
}

/// Gives a reference back. True if it was the last one: the object is the caller's to free, and the slot goes to
/// another. Works with an error pending, and for stale ids. Any thread; no lock unless the result is true.
KOR_INLINE bool _korObjectMap_Release(uint8_t depth, korEx* ex, uint64_t id)
{
    korObjectMapSlot* slot = korObjectMap_slot((uint32_t)id);
    uint64_t word = KOR_ATOMIC_LOAD_RELAXED(&slot->word);
    if (KOR_UNLIKELY(!KOR_ATOMIC_CAS(&slot->word, &word, word - 1))) {
        return _korObjectMap_ReleaseRetry(KOR_AT_D(depth, ex), id);
    }
    if (KOR_LIKELY((uint32_t)word != 1)) {
        return false;
    }
    korMutex_enter(&gObjectMapLock);
    _korDpa_AddSafe(KOR_AT(ex, depth), &gObjectMapUnused, (uint32_t)id);
    korMutex_leave(&gObjectMapLock);
    return true;
}

KOR_END_DECLS

#endif
