// korI64Hash.h - a small, fast map from a 64-bit integer to a 64-bit value.
//
// The table object is 32 bytes, and a table of one entry keeps it right there; from the second entry on there is an
// array of slots with room for one entry each. The key is its own hash: its low bits name the slot. Further entries of
// a slot come from the heap, or from the caller's pools. All entries lie on one circle in which the entries of a slot
// stand together, so the circle is chain and walk in one. The array doubles when there are as many entries as slots, up
// to 1048576 slots, and never shrinks.
//
//     korI64Hash sessions;
//     _korI64Hash_Init(KOR_AT(ex, depth), &sessions, 1);
//     _korI64Hash_Set(KOR_AT(ex, depth), &sessions, id, value);
//
//     korI64HashIterator walk;
//     int64_t key;
//     uint64_t value;
//     _korI64Hash_IteratorInit(KOR_AT(ex, depth), &sessions, &walk);
//     while (_korI64Hash_Next(KOR_AT(ex, depth), &walk, &key, &value))
//         use(key, value);
//     _korI64Hash_Clear(KOR_AT_D(depth, ex), &sessions);
//
// Values are opaque and never freed. A get gives 0 for a stored 0 and for an absent key alike. A walk without changes
// meets each entry once, in no promised order. Pools are not kept in the table: entries made with pools are removed and
// cleared with the same pools, and a table sees one style only.
//
// Errors: code 1 (Invalid Argument, no description) for 0 slots; code 2 (No memory) from the making and setting
// functions, with the table as it was. With an error pending, getting, setting and walking do nothing and give 0 or
// false; removing and clearing do their work. A table has no lock. Several threads may read one that nobody changes,
// each with an iterator of its own.

#ifndef KORUTIL_KORI64HASH_H
#define KORUTIL_KORI64HASH_H

#include "korutil/korPoolCache.h"

KOR_BEGIN_DECLS

/// An entry, in a slot or behind one. Its address does not survive a change of the table.
typedef struct korI64Entry {
    int64_t key;
    uint64_t value;
    struct korI64Entry* next; ///< next on the circle; NULL in a slot = the slot is empty
    struct korI64Entry* prev; ///< the one before on the circle
} korI64Entry;

/// The table.
typedef struct korI64Hash {
    int64_t singleKey; ///< with `slotCount` 0 the key of the only entry, otherwise 0
    union {
        korI64Entry* slots;   ///< the slots, owned
        uint64_t singleValue; ///< with `slotCount` 0 the value of the only entry
    };
    korI64Entry* listHead; ///< where a walk starts; NULL = no entry in the slots
    uint32_t slotCount;    ///< 0, or a power of two from 2 up
    uint32_t entryCount;   ///< number of entries
} korI64Hash;

/// Pools for tables and entries, kept by the caller.
typedef struct korI64HashPools {
    korPool* hashPool;       ///< of table objects
    korPoolCache entryCache; ///< in front of the pool of entries
} korI64HashPools;

/// A place in a walk, kept by the caller. It holds nothing: it may be dropped at any time.
typedef struct korI64HashIterator {
    korI64Entry* current; ///< entry given last, or next with `skipAdvance`; NULL at the end
    korI64Hash* hash;     ///< the table walked
    uint8_t skipAdvance;  ///< 1 = `current` is still to be given
} korI64HashIterator;

// ---- Pools ----------------------------------------------------------------------------------------------------------

/// Makes both pools, and the cache in front of the entries' pool with room for `cacheSize` entries: 0 for the default
/// of 256, -1 for none. On a failure neither pool exists. Code 2.
KOR_API void _korI64Hash_CreatePoolsEx(korEx* ex, uint8_t depth, korI64HashPools* pools, int64_t cacheSize);

/// The same without a cache.
KOR_API void _korI64Hash_CreatePools(korEx* ex, uint8_t depth, korI64HashPools* pools);

/// Clears the cache, destroys both pools and forgets them; tables of the pools must be gone. NULL is accepted.
KOR_API void _korI64Hash_DestroyPools(uint8_t depth, korEx* ex, korI64HashPools* pools);

// ---- Tables ---------------------------------------------------------------------------------------------------------

/// Initialises a table in place with at least `slots` slots, rounded up to a power of two, 1073741824 at most. 1 or a
/// negative number takes no array: the first entry stays in the object. After a failure the table is valid and empty.
/// Code 1 for 0 slots; code 2.
KOR_API void _korI64Hash_Init(korEx* ex, uint8_t depth, korI64Hash* hash, int32_t slots);

/// The same for a table whose entries will come from `pools`; the array itself is of the heap.
KOR_API void _korI64Hash_InitPooled(korEx* ex, uint8_t depth, korI64Hash* hash, korI64HashPools* pools, int32_t slots);

/// A table on the heap, for _korI64Hash_Destroy. NULL on an error, as for _korI64Hash_Init.
KOR_API korI64Hash* _korI64Hash_Create(korEx* ex, uint8_t depth, int32_t slots);

/// A table from the pools, for _korI64Hash_DestroyPooled. NULL on an error, as for _korI64Hash_Init.
KOR_API korI64Hash* _korI64Hash_CreatePooled(korEx* ex, uint8_t depth, korI64HashPools* pools, int32_t slots);

/// Drops all entries and the array. The table is ready for use again, as if initialised with 1. NULL is accepted.
KOR_API void _korI64Hash_Clear(uint8_t depth, korEx* ex, korI64Hash* hash);

/// The same for a table with pooled entries.
KOR_API void _korI64Hash_ClearPooled(uint8_t depth, korEx* ex, korI64Hash* hash, korI64HashPools* pools);

/// Clears a table and frees the object. NULL is accepted.
KOR_API void _korI64Hash_Destroy(uint8_t depth, korEx* ex, korI64Hash* hash);

/// Clears a table with pooled entries and gives the object back to the pools. A NULL table is accepted.
KOR_API void _korI64Hash_DestroyPooled(uint8_t depth, korEx* ex, korI64Hash* hash, korI64HashPools* pools);

// ---- Entries --------------------------------------------------------------------------------------------------------

/// The value of `key`, or 0. Changes nothing.
KOR_API uint64_t _korI64Hash_Get(korEx* ex, uint8_t depth, const korI64Hash* hash, int64_t key);

/// Sets the value of `key` and gives the one before, or 0. May grow the table even if the key is there; growth changes
/// the order of walks and ends their validity. Code 2: the key is not set.
KOR_API uint64_t _korI64Hash_Set(korEx* ex, uint8_t depth, korI64Hash* hash, int64_t key, uint64_t value);

/// The same during a walk: if the table grows, the iterator is led to its entry again. An iterator that stands on key 0
/// is not: after a growth it must be initialised again before it is used.
KOR_API uint64_t _korI64Hash_SetIterSafe(korEx* ex, uint8_t depth, korI64Hash* hash, int64_t key, uint64_t value,
                                         korI64HashIterator* iterator);

/// _korI64Hash_Set for a table with pooled entries.
KOR_API uint64_t _korI64Hash_SetPooled(korEx* ex, uint8_t depth, korI64Hash* hash, korI64HashPools* pools, int64_t key,
                                       uint64_t value);

/// Removes `key` and gives its value, or 0. No walk may be under way. A NULL table gives 0.
KOR_API uint64_t _korI64Hash_Remove(uint8_t depth, korEx* ex, korI64Hash* hash, int64_t key);

/// The same during a walk. If `key` is where the iterator stands, the walk goes on with the next entry of the circle,
/// which after the last one is the first again, or, if the entry was alone in its slot, ends there: to remove and go
/// on, use _korI64Hash_RemoveCurrent.
KOR_API uint64_t _korI64Hash_RemoveIterSafe(uint8_t depth, korEx* ex, korI64Hash* hash, int64_t key,
                                            korI64HashIterator* iterator);

/// _korI64Hash_Remove for a table with pooled entries.
KOR_API uint64_t _korI64Hash_RemovePooled(uint8_t depth, korEx* ex, korI64Hash* hash, korI64HashPools* pools,
                                          int64_t key);

/// _korI64Hash_RemoveIterSafe for a table with pooled entries.
KOR_API uint64_t _korI64Hash_RemovePooledIterSafe(uint8_t depth, korEx* ex, korI64Hash* hash, korI64HashPools* pools,
                                                  int64_t key, korI64HashIterator* iterator);

// ---- Walks ----------------------------------------------------------------------------------------------------------

/// Starts a walk over `hash`.
KOR_API void _korI64Hash_IteratorInit(korEx* ex, uint8_t depth, korI64Hash* hash, korI64HashIterator* iterator);

/// Gives the next entry, or false at the end. `key` and `value` may be NULL.
KOR_API bool _korI64Hash_Next(korEx* ex, uint8_t depth, korI64HashIterator* iterator, int64_t* key, uint64_t* value);

/// Ends a walk early. Works with an error pending.
KOR_API void _korI64Hash_IteratorDone(korEx* ex, uint8_t depth, korI64HashIterator* iterator);

/// Removes the entry that the walk stands on: the one it gave last or, before the first step and after a removal, the
/// one it would give next. The walk goes on with the one behind it. NULL is accepted. A walk that stands on no entry
/// removes nothing, but a table with a single slot loses its only entry wherever the walk stands.
KOR_API void _korI64Hash_RemoveCurrent(uint8_t depth, korEx* ex, korI64HashIterator* iterator);

/// The same for a table with pooled entries.
KOR_API void _korI64Hash_RemoveCurrentPooled(uint8_t depth, korEx* ex, korI64HashIterator* iterator,
                                             korI64HashPools* pools);

KOR_END_DECLS

#endif
