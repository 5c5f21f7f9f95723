// korHash.h - a map from a byte string to a 64-bit value that never pays for a whole rehash at once.
//
// A chained table with a power of two of slots; the first entry of each chain lies in the slot itself. When it fills up
// (or empties), a second slot array is made and the entries move over two at a time during later operations. All
// entries stand on one list in insertion order, which is what a walk follows.
//
//     korHash* hash = _korHash_Create(KOR_AT(ex, depth), 64);
//     _korHash_Set(KOR_AT(ex, depth), hash, "answer", 0, 0, 1, 42);           // text key, code computed, key copied
//     uint64_t answer = _korHash_Get(KOR_AT(ex, depth), hash, "answer", 0, 0);
//     _korHash_Destroy(KOR_AT_D(depth, ex), hash);
//
// Keys. A `keyLength` of 0 says that the key is a NUL-terminated string: its length is then strlen + 1, so the empty
// string is a key of one byte. A key has at most 2^31 - 1 bytes. A `hashCode` of 0 says that the code is computed
// (SpookyHash V2 by Bob Jenkins, its low 32 bits); any other code is taken as it stands, and such a key is found again
// only with the same code. A key that is not copied stays the caller's memory and must live as long as its entry.
//
// Threads. None of this locks; callers serialise. Reading moves entries while a size change runs, so readers may share
// a table only after _korHash_MakeStatic and while nobody changes it; iterating always writes.
//
// Errors that any allocation raises: code 2 (No memory), no description.

#ifndef KORUTIL_KORHASH_H
#define KORUTIL_KORHASH_H

#include "korutil/korEx.h"
#include "korutil/korPool.h"

KOR_BEGIN_DECLS

/// The top bit of `korHashEntry.keyLength`: the key was copied by the table and is owned by it.
#define KOR_HASH_KEY_COPIED 0x80000000u

/// An entry, in a slot or allocated behind one.
typedef struct korHashEntry {
    uint32_t hash;                  ///< the key's code, compared before the bytes
    uint32_t keyLength;             ///< low 31 bits: length in bytes; top bit: KOR_HASH_KEY_COPIED
    struct korHashEntry* chainNext; ///< next entry of the same slot, or NULL
    const void* key;                ///< the key's bytes
    struct korHashEntry* listNext;  ///< next on the list of all entries; NULL in a slot: the slot is empty
    struct korHashEntry* listPrev;  ///< previous on that list
    uint64_t value;                 ///< the caller's value
} korHashEntry;

/// The table. Callers read `count` (of both tables while `oldHash` is set) and leave the rest to the functions.
typedef struct korHash {
    int64_t count;            ///< entries in this table's own slots; those still in `oldHash` are not included
    int64_t slotCount;        ///< a power of two; 0 after _korHash_Clear
    korHashEntry* slots;      ///< the slots, owned
    struct korHash* oldHash;  ///< the table being emptied while a size change runs, owned; else NULL
    korHashEntry* firstEntry; ///< head of the list of all entries; the table itself is its sentinel
    korHashEntry* lastEntry;  ///< tail of that list
    int64_t moveIndex;        ///< of an old table: the next slot to take entries from
    korPool* keyPool;         ///< for copied keys that fit its chunks, or NULL
    korPool* entryPool;       ///< for entries, the cursor and a one-slot array, or NULL
    korPool* hashPool;        ///< the pool that this object came from, or NULL
    korHashEntry* cursor;     ///< the one marker for walks, owned
} korHash;

/// A walk, kept by the caller. A table has one marker, so it has one walk at a time.
typedef struct korHashIterator {
    korHash* hash;
    uint8_t skipAdvance; ///< 1 = the entry behind the marker has not been visited yet
} korHashIterator;

// ---- Making ---------------------------------------------------------------------------------------------------------

/// Makes pools that many tables can share: table objects, entries, and keys of at most `keySize` bytes. Each is made if
/// its out pointer is not NULL. `capacity` is the number of entries to expect, by which blocks are sized; negative
/// means many (blocks of 4 MiB). On an error the pools already made stay in the out arguments. The caller destroys the
/// pools with _korPool_Destroy, after the tables. Does nothing with an error pending.
///
/// Errors: 1 "Key size must be greater than zero"; what _korPool_Create raises.
KOR_API void _korHash_CreatePools(korEx* ex, uint8_t depth, korPool** hashPool, korPool** entryPool, int32_t keySize,
                                  korPool** keyPool, int32_t capacity);

/// Initialises a table in the caller's memory, with at least `slots` slots (rounded up to a power of two). On an error
/// the object is zeroed, and _korHash_Clear accepts it. Undone by _korHash_Clear.
///
/// Errors: 1 "Number of slots must be greater than zero"; 2.
KOR_API void _korHash_Init(korEx* ex, uint8_t depth, korHash* hash, int64_t slots);
/// The same with pools, each of which may be NULL.
KOR_API void _korHash_InitPooled(korEx* ex, uint8_t depth, korHash* hash, int64_t slots, korPool* entryPool,
                                 korPool* keyPool);

/// Makes a table with at least `slots` slots. The caller destroys it with _korHash_Destroy. NULL on an error.
///
/// Errors: 1 "Number of slots must be greater than zero"; 2.
KOR_API korHash* _korHash_Create(korEx* ex, uint8_t depth, int64_t slots);
/// The same with pools, each of which may be NULL; they must outlive the table.
KOR_API korHash* _korHash_CreatePooled(korEx* ex, uint8_t depth, int64_t slots, korPool* hashPool, korPool* entryPool,
                                       korPool* keyPool);

/// Frees what a table in the caller's memory holds: entries, copied keys, slots. NULL and a cleared table are accepted.
/// Values stay the caller's. The table cannot be used again before a new _korHash_Init. Works with an error pending.
KOR_API void _korHash_Clear(uint8_t depth, korEx* ex, korHash* hash);

/// Clears a table of _korHash_Create and frees it. NULL is accepted. Works with an error pending.
KOR_API void _korHash_Destroy(uint8_t depth, korEx* ex, korHash* hash);

// ---- Using ----------------------------------------------------------------------------------------------------------

/// Ends a running size change at once, so that lookups only read until the table is changed again. Errors: 2, after
/// which the change goes on lazily.
KOR_API void _korHash_MakeStatic(korEx* ex, uint8_t depth, korHash* hash);

/// True if the key is there. A NULL key and a pending error give false. While a size change runs, a lookup that misses
/// the new slots moves two entries and may raise 2; the result holds nevertheless.
KOR_API bool _korHash_ContainsKey(korEx* ex, uint8_t depth, korHash* hash, const void* key, uint32_t keyLength,
                                  uint32_t hashCode);

/// The value of a key, or 0: for an absent key, a stored 0, a NULL key, a pending error. Moves and raises as
/// _korHash_ContainsKey does.
KOR_API uint64_t _korHash_Get(korEx* ex, uint8_t depth, korHash* hash, const void* key, uint32_t keyLength,
                              uint32_t hashCode);

/// Sets the value of a key and gives the previous value, or 0 if the key is new. With `copyKey` the table keeps a copy
/// of the key; else it keeps the pointer, and an entry whose key is not copied takes the pointer of each later Set, or
/// a copy if that asks for one. A key once copied stays as it is. A NULL key is allowed; it equals a NULL key of the
/// same length and code, is seen by walks only, and leaves with the table.
///
/// Errors: 1 "Key is too long", for keys of 2^31 bytes and more; 1 "Number of slots must be greater than zero" on a
/// cleared table; 2. On an error in the growth or the insertion nothing is inserted and the result is 0. If only moving
/// entries of a running size change failed, the pair is stored and the error is set.
KOR_API uint64_t _korHash_Set(korEx* ex, uint8_t depth, korHash* hash, const void* key, uint32_t keyLength,
                              uint32_t hashCode, uint8_t copyKey, uint64_t value);

/// Removes a key and gives its value, or 0 if it is absent. NULL table and key are accepted. Works with an error
/// pending; its own failures stay private. During a walk, removing the current entry this way makes the walk skip the
/// entry after it: use _korHash_RemoveCurrent.
KOR_API uint64_t _korHash_Remove(uint8_t depth, korEx* ex, korHash* hash, const void* key, uint32_t keyLength,
                                 uint32_t hashCode);

/// Removes the entry whose key pointer is `key`, whatever the bytes. `hashCode` must be the code that the entry stores:
/// 0 is not replaced by a computed one here. Else as _korHash_Remove.
KOR_API uint64_t _korHash_RemoveByKeyPtr(uint8_t depth, korEx* ex, korHash* hash, const void* key, uint32_t hashCode);

// ---- Walking --------------------------------------------------------------------------------------------------------

/// Starts a walk over all entries in insertion order, and ends any other walk of the table. The table may change during
/// the walk: entries added are reached, entries removed are not.
KOR_API void _korHash_IteratorInit(korHash* hash, korHashIterator* iterator);

/// Goes to the next entry; false at the end. Each out pointer may be NULL. The key stays the table's or its owner's.
KOR_API bool _korHash_Next(korHashIterator* iterator, const void** key, uint32_t* keyLength, uint64_t* value);

/// Replaces the value of the current entry and gives the old one; 0 at the end of the walk.
KOR_API uint64_t _korHash_SetCurrent(korHashIterator* iterator, uint64_t value);

/// Removes the current entry; the walk goes on with the one after it. NULL is accepted, and nothing is removed at the
/// end, before the first _korHash_Next, a second time, or for a NULL key. Works with an error pending; its own failures
/// stay private.
KOR_API void _korHash_RemoveCurrent(uint8_t depth, korEx* ex, korHashIterator* iterator);

// ---- Measuring ------------------------------------------------------------------------------------------------------

/// Bytes of the table object, its slots and its allocated entries, and the same of the old table; truncated to 32 bits.
/// Copied keys are not counted.
KOR_API uint32_t _korHash_Memory(const korHash* hash);

/// Prints statistics of slots, chains and memory to standard error. A chain's length leaves out the entry in the slot
/// and is counted up to 511; copied keys are those of allocated entries only.
KOR_API void _korHash_Info(const korHash* hash);

KOR_END_DECLS

#endif
