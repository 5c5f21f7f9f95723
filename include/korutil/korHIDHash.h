// korHIDHash.h - korHash with header identifiers as keys.
//
// A thin layer: the records are those of korHash.h, and slots, size changes, walks, errors and threads are told there.
// The key of a numeric identifier is its number, that of a UUID the whole record. The number's low 32 bits are the hash
// code, so numeric identifiers cost no hash function unless those are 0.

#ifndef KORUTIL_KORHIDHASH_H
#define KORUTIL_KORHIDHASH_H

#include "korutil/korHash.h"
#include "korutil/korHeaderID.h"

KOR_BEGIN_DECLS

/// The record of korHash.h.
typedef korHash korHIDHash;
/// Likewise.
typedef korHashIterator korHIDHashIterator;

/// As _korHash_Create.
KOR_API korHIDHash* _korHIDHash_Create(korEx* ex, uint8_t depth, int64_t slots);
/// As _korHash_CreatePooled. A copied numeric key takes 8 bytes, a UUID 24.
KOR_API korHIDHash* _korHIDHash_CreatePooled(korEx* ex, uint8_t depth, int64_t slots, korPool* hashPool,
                                             korPool* entryPool, korPool* keyPool);
/// As _korHash_Destroy.
KOR_API void _korHIDHash_Destroy(uint8_t depth, korEx* ex, korHIDHash* hash);

/// True if the identifier is there; NULL gives false. As _korHash_ContainsKey.
KOR_API bool _korHIDHash_ContainsKey(korEx* ex, uint8_t depth, korHIDHash* hash, const korHeaderID* key);
/// The value of an identifier, or 0; NULL gives 0. As _korHash_Get.
KOR_API uint64_t _korHIDHash_Get(korEx* ex, uint8_t depth, korHIDHash* hash, const korHeaderID* key);
/// Sets an identifier's value and gives the previous one, or 0. With `copyKey` the table keeps a copy of what is the
/// key, the first 8 bytes or the whole record, else the pointer. As _korHash_Set.
///
/// Errors also: 1 "Header identifier must not be NULL".
KOR_API uint64_t _korHIDHash_Set(korEx* ex, uint8_t depth, korHIDHash* hash, const korHeaderID* key, uint8_t copyKey,
                                 uint64_t value);
/// Removes an identifier and gives its value, or 0. The key must not be NULL. Does nothing with an error pending.
/// As _korHash_Remove.
KOR_API uint64_t _korHIDHash_Remove(korEx* ex, uint8_t depth, korHIDHash* hash, const korHeaderID* key);
/// The same for clean-up paths: works with an error pending, and gives 0 for a NULL table or key.
KOR_API uint64_t _korHIDHash_RemoveEx(uint8_t depth, korEx* ex, korHIDHash* hash, const korHeaderID* key);

/// As _korHash_IteratorInit.
KOR_API void _korHIDHash_IteratorInit(korHIDHash* hash, korHIDHashIterator* iterator);
/// Goes to the next entry; false at the end. Each out pointer may be NULL. Of a copied numeric key only the field `id`
/// is there to be read. As _korHash_Next.
KOR_API bool _korHIDHash_Next(korHIDHashIterator* iterator, const korHeaderID** key, uint64_t* value);
/// As _korHash_RemoveCurrent.
KOR_API void _korHIDHash_RemoveCurrent(uint8_t depth, korEx* ex, korHIDHashIterator* iterator);

KOR_END_DECLS

#endif
