// korLazy64Hash.h - a map from a 64-bit integer to a 64-bit value that never pays for a whole rehash at once.
//
// The design of korHash (korHash.h tells it), cut down for integer keys: the key stands in the entry and is its own
// hash, with no mixing, so keys should differ in their low bits. Entries may come from a pool with a cache in front of
// it.
//
//     korLazy64Hash* hash = _korLazy64Hash_Create(KOR_AT(ex, depth), 64);
//     _korLazy64Hash_Set(KOR_AT(ex, depth), hash, 7, 42);
//     uint64_t value = _korLazy64Hash_Get(KOR_AT(ex, depth), hash, 7);
//     _korLazy64Hash_Destroy(KOR_AT_D(depth, ex), hash);
//
// Threads. None of this locks; callers serialise, and a pools record and its tables have one owner. A lookup that
// misses the new slots moves entries while a size change runs, so it writes; iterating always does.
//
// Errors that any allocation raises: code 2 (No memory), no description.

#ifndef KORUTIL_KORLAZY64HASH_H
#define KORUTIL_KORLAZY64HASH_H

#include "korutil/korPoolCache.h"

KOR_BEGIN_DECLS

/// An entry, in a slot or allocated behind one.
typedef struct korLazy64Entry {
    uint64_t key;                     ///< the key, which is also its hash
    uint64_t value;                   ///< the caller's value
    struct korLazy64Entry* chainNext; ///< next entry of the same slot, or NULL
    struct korLazy64Entry* listNext;  ///< next on the list of all entries; NULL in a slot: the slot is empty
    struct korLazy64Entry* listPrev;  ///< previous on that list
} korLazy64Entry;

/// Where tables of one owner take their memory from. Kept by the caller, and must stay in place while tables use it.
typedef struct korLazy64HashPools {
    korPool* hashPool;       ///< table objects
    korPoolCache entryCache; ///< in front of the entry pool
} korLazy64HashPools;

/// The table. Callers read `count` (of both tables while `oldHash` is set) and leave the rest to the functions.
typedef struct korLazy64Hash {
    int64_t count;                 ///< entries in this table's own slots; those still in `oldHash` are not included
    int64_t slotCount;             ///< a power of two; 0 after _korLazy64Hash_Clear
    korLazy64Entry* slots;         ///< the slots, owned
    struct korLazy64Hash* oldHash; ///< the table being emptied while a size change runs, owned; else NULL
    korLazy64Entry* firstEntry;    ///< head of the list of all entries; the table itself is its sentinel
    korLazy64Entry* lastEntry;     ///< tail of that list
    int64_t moveIndex;             ///< of an old table: the next slot to take entries from
    korLazy64HashPools* pools;     ///< NULL for a table on the heap
    korLazy64Entry* cursor;        ///< the one marker for walks, owned
} korLazy64Hash;

/// A walk, kept by the caller. A table has one marker, so it has one walk at a time.
typedef struct korLazy64HashIterator {
    korLazy64Hash* hash;
    uint8_t skipAdvance; ///< 1 = the entry behind the marker has not been visited yet
} korLazy64HashIterator;

// ---- Making ---------------------------------------------------------------------------------------------------------

/// Fills the caller's record with two pools; `cacheSize` is the size of the entry cache, as _korPoolCache_Init takes
/// it. On an error the record is zeroed and nothing is left behind; with one pending it stays as it was. Undone by
/// _korLazy64Hash_DestroyPools.
KOR_API void _korLazy64Hash_CreatePoolsEx(korEx* ex, uint8_t depth, korLazy64HashPools* pools, int64_t cacheSize);
/// The same with a `cacheSize` of -1.
KOR_API void _korLazy64Hash_CreatePools(korEx* ex, uint8_t depth, korLazy64HashPools* pools);
/// Destroys both pools, with the memory of every table of _korLazy64Hash_CreatePooled that is still there: such a table
/// must not be touched afterwards, nor destroyed, and slots that it has on the heap are lost. NULL and a destroyed
/// record are accepted. Works with an error pending.
KOR_API void _korLazy64Hash_DestroyPools(uint8_t depth, korEx* ex, korLazy64HashPools* pools);

/// Initialises a table in the caller's memory, with at least `slots` slots (rounded up to a power of two). On an error
/// the object is zeroed, and _korLazy64Hash_Clear accepts it. Undone by _korLazy64Hash_Clear.
///
/// Errors: 1 "Number of slots must be greater than zero"; 2.
KOR_API void _korLazy64Hash_Init(korEx* ex, uint8_t depth, korLazy64Hash* hash, int64_t slots);
/// The same with pools, which may be NULL.
KOR_API void _korLazy64Hash_InitPooled(korEx* ex, uint8_t depth, korLazy64Hash* hash, korLazy64HashPools* pools,
                                       int64_t slots);

/// Makes a table with at least `slots` slots. The caller destroys it with _korLazy64Hash_Destroy. NULL on an error.
///
/// Errors: 1 "Number of slots must be greater than zero"; 2.
KOR_API korLazy64Hash* _korLazy64Hash_Create(korEx* ex, uint8_t depth, int64_t slots);
/// The same with pools, which may be NULL.
KOR_API korLazy64Hash* _korLazy64Hash_CreatePooled(korEx* ex, uint8_t depth, korLazy64HashPools* pools, int64_t slots);

/// Frees what a table in the caller's memory holds. NULL and a cleared table are accepted. Values stay the caller's.
/// The table cannot be used again before a new _korLazy64Hash_Init. Works with an error pending.
KOR_API void _korLazy64Hash_Clear(uint8_t depth, korEx* ex, korLazy64Hash* hash);
/// Clears a table of _korLazy64Hash_Create and frees it. NULL is accepted. Works with an error pending.
KOR_API void _korLazy64Hash_Destroy(uint8_t depth, korEx* ex, korLazy64Hash* hash);

// ---- Using ----------------------------------------------------------------------------------------------------------

/// The value of a key, or 0: for an absent key, a stored 0, a pending error. While a size change runs, a lookup that
/// misses the new slots moves two entries and may raise 2; the result holds nevertheless.
KOR_API uint64_t _korLazy64Hash_Get(korEx* ex, uint8_t depth, korLazy64Hash* hash, uint64_t key);

/// Sets the value of a key and gives the previous value, or 0 if the key is new.
///
/// Errors: 1 "Number of slots must be greater than zero" on a cleared table; 2. On an error in the growth or the
/// insertion nothing is inserted. If only moving entries of a running size change failed, the pair is stored and the
/// error is set.
KOR_API uint64_t _korLazy64Hash_Set(korEx* ex, uint8_t depth, korLazy64Hash* hash, uint64_t key, uint64_t value);

/// Removes a key and gives its value, or 0 if it is absent. A NULL table is accepted. Works with an error pending; its
/// own failures stay private, except one in giving an entry back to the cache. During a walk, remove the current entry
/// with _korLazy64Hash_RemoveCurrent: this way the walk skips the entry after it.
KOR_API uint64_t _korLazy64Hash_Remove(uint8_t depth, korEx* ex, korLazy64Hash* hash, uint64_t key);

// ---- Walking --------------------------------------------------------------------------------------------------------

/// Starts a walk over all entries in insertion order, and ends any other walk of the table. The table may change during
/// the walk: entries added are reached, entries removed are not. Does nothing with an error pending.
KOR_API void _korLazy64Hash_IteratorInit(korEx* ex, uint8_t depth, korLazy64Hash* hash,
                                         korLazy64HashIterator* iterator);
/// Goes to the next entry; false at the end and with an error pending. Each out pointer may be NULL.
KOR_API bool _korLazy64Hash_Next(korEx* ex, uint8_t depth, korLazy64HashIterator* iterator, uint64_t* key,
                                 uint64_t* value);
/// Removes the current entry; the walk goes on with the one after it. NULL is accepted, and nothing is removed at the
/// end, before the first _korLazy64Hash_Next, or a second time. Works with an error pending, as _korLazy64Hash_Remove.
KOR_API void _korLazy64Hash_RemoveCurrent(uint8_t depth, korEx* ex, korLazy64HashIterator* iterator);

KOR_END_DECLS

#endif
