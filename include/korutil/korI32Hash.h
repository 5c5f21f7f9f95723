// korI32Hash.h - a plain map from 32-bit integers to 64-bit values: an array of chains, nothing else.
//
// The key is its own hash, so keys should differ in their low bits. The table doubles, all at once, when it has as many
// entries as slots; it never shrinks. kor128Hash.h has the same table for 128-bit keys.
//
//     korI32Hash* hash = _korI32Hash_Create(KOR_AT(ex, depth), 64);
//     _korI32Hash_Set(KOR_AT(ex, depth), hash, 7, 42);
//     uint64_t value = _korI32Hash_Get(KOR_AT(ex, depth), hash, 7);
//     _korI32Hash_Destroy(KOR_AT_D(depth, ex), hash);
//
// A walk, during which nothing new may be set:
//
//     korHashChainIterator iterator;
//     _korI32Hash_IteratorInit(hash, &iterator);
//     while (_korI32Hash_Next(&iterator, &key, &value))
//         if (isStale(value))
//             _korI32Hash_RemoveCurrent(KOR_AT_D(depth, ex), &iterator);
//
// Threads. Callers serialise; readers may share a table while no one writes.
//
// With an error pending, operations that take `ex` first do nothing and give 0 or NULL. What allocates may raise code 2
// (No memory), no description.

#ifndef KORUTIL_KORI32HASH_H
#define KORUTIL_KORI32HASH_H

#include "korutil/korEx.h"
#include "korutil/korHashChain.h"

KOR_BEGIN_DECLS

/// An entry of a chain.
typedef struct korI32Entry {
    struct korI32Entry* next; ///< next entry of the same slot, or NULL
    uint64_t value;           ///< the caller's value
    uint32_t key;             ///< the key, which is also its hash
} korI32Entry;

/// The table. Callers read `count` and leave the rest to the functions.
typedef struct korI32Hash {
    int32_t count;      ///< entries
    int32_t mask;       ///< slots minus 1; slots are a power of two
    korI32Entry** bins; ///< chain heads, owned
} korI32Hash;

/// Makes a table with at least `slots` slots, rounded up to a power of two, 1073741824 at most; a negative number makes
/// one slot. The caller destroys it with _korI32Hash_Destroy. NULL on an error: code 1, no description, for 0; 2.
KOR_API korI32Hash* _korI32Hash_Create(korEx* ex, uint8_t depth, int32_t slots);
/// Frees the table with its entries. Values stay the caller's. NULL is accepted. Works with an error pending.
KOR_API void _korI32Hash_Destroy(uint8_t depth, korEx* ex, korI32Hash* hash);

/// The value of a key, or 0 if the key is absent.
KOR_API uint64_t _korI32Hash_Get(korEx* ex, uint8_t depth, const korI32Hash* hash, uint32_t key);
/// Sets the value of a key and gives the value before, or 0 if the key is new. Code 2: nothing has changed.
KOR_API uint64_t _korI32Hash_Set(korEx* ex, uint8_t depth, korI32Hash* hash, uint32_t key, uint64_t value);
/// Removes a key and gives its value, or 0 if it is absent. A NULL table gives 0. Works with an error pending.
KOR_API uint64_t _korI32Hash_Remove(uint8_t depth, korEx* ex, korI32Hash* hash, uint32_t key);

/// Starts a walk in the caller's `iterator`.
KOR_API void _korI32Hash_IteratorInit(korI32Hash* hash, korHashChainIterator* iterator);
/// Goes to the next entry; false at the end. The out pointers may be NULL.
KOR_API bool _korI32Hash_Next(korHashChainIterator* iterator, uint32_t* key, uint64_t* value);
/// Removes the current entry; the one after it becomes the current one, which the next step then gives: a second
/// removal before that step removes it, too. NULL is accepted, and without a current entry nothing happens. Works with
/// an error pending.
KOR_API void _korI32Hash_RemoveCurrent(uint8_t depth, korEx* ex, korHashChainIterator* iterator);

KOR_END_DECLS

#endif
