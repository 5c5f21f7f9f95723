// korStrHash.h - korHash with NUL-terminated strings as keys.
//
// A thin layer: the records are those of korHash.h, and slots, size changes, walks, errors and threads are told there.

#ifndef KORUTIL_KORSTRHASH_H
#define KORUTIL_KORSTRHASH_H

#include "korutil/korHash.h"

KOR_BEGIN_DECLS

/// The record of korHash.h.
typedef korHash korStrHash;
/// Likewise.
typedef korHashIterator korStrHashIterator;

/// As _korHash_Create.
KOR_API korStrHash* _korStrHash_Create(korEx* ex, uint8_t depth, int64_t slots);
/// As _korHash_CreatePooled.
KOR_API korStrHash* _korStrHash_CreatePooled(korEx* ex, uint8_t depth, int64_t slots, korPool* hashPool,
                                             korPool* entryPool, korPool* keyPool);
/// As _korHash_Destroy.
KOR_API void _korStrHash_Destroy(uint8_t depth, korEx* ex, korStrHash* hash);

/// As _korHash_MakeStatic.
KOR_API void _korStrHash_MakeStatic(korEx* ex, uint8_t depth, korStrHash* hash);
/// True if the key is there; a NULL key gives false. As _korHash_ContainsKey.
KOR_API bool _korStrHash_ContainsKey(korEx* ex, uint8_t depth, korStrHash* hash, const char* key);
/// The value of a key, or 0; a NULL key gives 0. As _korHash_Get.
KOR_API uint64_t _korStrHash_Get(korEx* ex, uint8_t depth, korStrHash* hash, const char* key);
/// Sets a key's value and gives the previous one, or 0. With `copyKey` the table keeps a copy of the string, else the
/// pointer. As _korHash_Set.
KOR_API uint64_t _korStrHash_Set(korEx* ex, uint8_t depth, korStrHash* hash, const char* key, uint8_t copyKey,
                                 uint64_t value);
/// Removes a key and gives its value, or 0. NULL table and key are accepted. As _korHash_Remove.
KOR_API uint64_t _korStrHash_Remove(uint8_t depth, korEx* ex, korStrHash* hash, const char* key);

/// As _korHash_IteratorInit.
KOR_API void _korStrHash_IteratorInit(korStrHash* hash, korStrHashIterator* iterator);
/// Goes to the next entry; false at the end. Each out pointer may be NULL. As _korHash_Next.
KOR_API bool _korStrHash_Next(korStrHashIterator* iterator, const char** key, uint64_t* value);
/// As _korHash_SetCurrent.
KOR_API uint64_t _korStrHash_SetCurrent(korStrHashIterator* iterator, uint64_t value);
/// As _korHash_RemoveCurrent.
KOR_API void _korStrHash_RemoveCurrent(uint8_t depth, korEx* ex, korStrHashIterator* iterator);

KOR_END_DECLS

#endif
