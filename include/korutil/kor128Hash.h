// kor128Hash.h - a plain map from 128-bit keys, a UUID for instance, to 64-bit values: an array of chains.
//
// A key is two 64-bit words, low and high, given by pointer or, in the operations with the suffix 2, as two arguments.
// The table doubles, all at once, when it has as many entries as slots; it never shrinks. Table objects and entries may
// come from pools. korI32Hash.h has the same table for 32-bit keys.
//
//     korPool* hashPool;
//     korPoolCache* entryCache;
//     _kor128Hash_CreatePools(KOR_AT(ex, depth), &hashPool, &entryCache, 1000, 0);
//     kor128Hash* hash = _kor128Hash_CreatePooled(KOR_AT(ex, depth), 64, hashPool, entryCache);
//     _kor128Hash_Set2(KOR_AT(ex, depth), hash, low, high, 42);
//     uint64_t value = _kor128Hash_Get2(KOR_AT(ex, depth), hash, low, high);
//     _kor128Hash_DestroyPooled(KOR_AT_D(depth, ex), hash, hashPool);
//
// and in the end the pools, which are the caller's:
//
//     korPool* entryPool = entryCache->pool;
//     _korPoolCache_Destroy(KOR_AT_D(depth, ex), entryCache);
//     _korPool_Destroy(KOR_AT_D(depth, ex), entryPool);
//     _korPool_Destroy(KOR_AT_D(depth, ex), hashPool);
//
// Threads. Callers serialise; readers may share a table while no one writes.
//
// With an error pending, operations that take `ex` first do nothing and give 0 or NULL. What allocates may raise code 2
// (No memory), no description.

#ifndef KORUTIL_KOR128HASH_H
#define KORUTIL_KOR128HASH_H

#include "korutil/korHashChain.h"
#include "korutil/korPoolCache.h"

KOR_BEGIN_DECLS

/// An entry of a chain.
typedef struct kor128Entry {
    struct kor128Entry* next; ///< next entry of the same slot, or NULL
    uint64_t value;           ///< the caller's value
    uint64_t keyLow;          ///< the key's first word
    uint64_t keyHigh;         ///< the key's second word
} kor128Entry;

/// The table. Callers read `count` and leave the rest to the functions.
typedef struct kor128Hash {
    int64_t count;            ///< entries
    int64_t mask;             ///< slots minus 1; slots are a power of two
    kor128Entry** bins;       ///< chain heads, owned
    korPoolCache* entryCache; ///< where entries come from, not owned; NULL = the heap
} kor128Hash;

// ---- Making ---------------------------------------------------------------------------------------------------------

/// Makes a pool for table objects and a cache, on a pool of its own, for entries. The entry pool has `capacity` entries
/// a block, 100 for 0, 131072 if `capacity` is negative as a signed number; `cacheSize` as _korPoolCache_Init takes it.
/// Either out pointer may be NULL: then that one is not made. On an error (code 2) both are NULL.
KOR_API void _kor128Hash_CreatePools(korEx* ex, uint8_t depth, korPool** hashPool, korPoolCache** entryCache,
                                     uint32_t capacity, int64_t cacheSize);

/// Makes a table with at least `slots` slots, rounded up to a power of two; a number that is negative, or 2^62 and
/// more, makes 32. A NULL pool or cache means the heap. The caller destroys it with _kor128Hash_DestroyPooled. NULL on
/// an error: code 1, no description, for 0 slots; 2.
KOR_API kor128Hash* _kor128Hash_CreatePooled(korEx* ex, uint8_t depth, int64_t slots, korPool* hashPool,
                                             korPoolCache* entryCache);
/// Frees the table with its entries; `hashPool` as it was at the making. Values stay the caller's. A NULL table is
/// accepted. Works with an error pending.
KOR_API void _kor128Hash_DestroyPooled(uint8_t depth, korEx* ex, kor128Hash* hash, korPool* hashPool);

// ---- Using ----------------------------------------------------------------------------------------------------------

/// True if the key is in the table. `key` points at the two words, low and high, here and below.
KOR_API bool _kor128Hash_ContainsKey(const kor128Hash* hash, const uint64_t* key);
/// The same with the words as arguments.
KOR_API bool _kor128Hash_ContainsKey2(const kor128Hash* hash, uint64_t keyLow, uint64_t keyHigh);
/// The value of a key, or 0 if the key is absent.
KOR_API uint64_t _kor128Hash_Get(korEx* ex, uint8_t depth, const kor128Hash* hash, const uint64_t* key);
/// The same with the words as arguments.
KOR_API uint64_t _kor128Hash_Get2(korEx* ex, uint8_t depth, const kor128Hash* hash, uint64_t keyLow, uint64_t keyHigh);
/// Sets the value of a key and gives the value before, or 0 if the key is new. Code 2: nothing has changed.
KOR_API uint64_t _kor128Hash_Set(korEx* ex, uint8_t depth, kor128Hash* hash, const uint64_t* key, uint64_t value);
/// The same with the words as arguments.
KOR_API uint64_t _kor128Hash_Set2(korEx* ex, uint8_t depth, kor128Hash* hash, uint64_t keyLow, uint64_t keyHigh,
                                  uint64_t value);
/// Removes a key and gives its value, or 0 if it is absent. A NULL table gives 0. Works with an error pending.
KOR_API uint64_t _kor128Hash_Remove(uint8_t depth, korEx* ex, kor128Hash* hash, const uint64_t* key);
/// The same with the words as arguments.
KOR_API uint64_t _kor128Hash_Remove2(uint8_t depth, korEx* ex, kor128Hash* hash, uint64_t keyLow, uint64_t keyHigh);

// ---- Walking --------------------------------------------------------------------------------------------------------

/// Starts a walk in the caller's `iterator`. Nothing new may be set during a walk.
KOR_API void _kor128Hash_IteratorInit(kor128Hash* hash, korHashChainIterator* iterator);
/// Goes to the next entry; false at the end. `key` takes two words. The out pointers may be NULL.
KOR_API bool _kor128Hash_Next(korHashChainIterator* iterator, uint64_t* key, uint64_t* value);
/// The same with the words apart.
KOR_API bool _kor128Hash_Next2(korHashChainIterator* iterator, uint64_t* keyLow, uint64_t* keyHigh, uint64_t* value);
/// Removes the current entry; the one after it becomes the current one, which the next step then gives: a second
/// removal before that step removes it, too. NULL is accepted, and without a current entry nothing happens. Works with
/// an error pending.
KOR_API void _kor128Hash_RemoveCurrent(uint8_t depth, korEx* ex, korHashChainIterator* iterator);
/// Sets the value of the current entry, which must exist, and gives the entry.
KOR_API kor128Entry* _kor128Hash_SetCurrentValue(const korHashChainIterator* iterator, uint64_t value);

// ---- Measuring ------------------------------------------------------------------------------------------------------

/// Bytes of the table: object, slots and entries.
KOR_API int64_t _kor128Hash_Memory(const kor128Hash* hash);
/// Prints how the slots are used to standard error. Chains count as 511 long at the most.
KOR_API void _kor128Hash_Info(const kor128Hash* hash);

KOR_END_DECLS

#endif
