// korStrHash.cpp - strings as keys: korHash with its length and code left to be found out.

#include "korutil/korStrHash.h"

korStrHash* _korStrHash_Create(korEx* ex, uint8_t depth, int64_t slots)
{
    return _korHash_Create(KOR_AT(ex, depth), slots);
}

korStrHash* _korStrHash_CreatePooled(korEx* ex, uint8_t depth, int64_t slots, korPool* hashPool, korPool* entryPool,
                                     korPool* keyPool)
{
    return _korHash_CreatePooled(KOR_AT(ex, depth), slots, hashPool, entryPool, keyPool);
}

void _korStrHash_Destroy(uint8_t depth, korEx* ex, korStrHash* hash)
{
    _korHash_Destroy(KOR_AT_D(depth, ex), hash);
}

void _korStrHash_MakeStatic(korEx* ex, uint8_t depth, korStrHash* hash)
{
    _korHash_MakeStatic(KOR_AT(ex, depth), hash);
}

bool _korStrHash_ContainsKey(korEx* ex, uint8_t depth, korStrHash* hash, const char* key)
{
    return _korHash_ContainsKey(KOR_AT(ex, depth), hash, key, 0, 0);
}

uint64_t _korStrHash_Get(korEx* ex, uint8_t depth, korStrHash* hash, const char* key)
{
    return _korHash_Get(KOR_AT(ex, depth), hash, key, 0, 0);
}

uint64_t _korStrHash_Set(korEx* ex, uint8_t depth, korStrHash* hash, const char* key, uint8_t copyKey, uint64_t value)
{
    return _korHash_Set(KOR_AT(ex, depth), hash, key, 0, 0, copyKey, value);
}

uint64_t _korStrHash_Remove(uint8_t depth, korEx* ex, korStrHash* hash, const char* key)
{
    return _korHash_Remove(KOR_AT_D(depth, ex), hash, key, 0, 0);
}

void _korStrHash_IteratorInit(korStrHash* hash, korStrHashIterator* iterator)
{
    _korHash_IteratorInit(hash, iterator);
}

bool _korStrHash_Next(korStrHashIterator* iterator, const char** key, uint64_t* value)
{
    const void* bytes;
    if (!_korHash_Next(iterator, &bytes, nullptr, value)) {
        return false;
    }
    if (key != nullptr) {
        *key = static_cast<const char*>(bytes);
    }
    return true;
}

uint64_t _korStrHash_SetCurrent(korStrHashIterator* iterator, uint64_t value)
{
    return _korHash_SetCurrent(iterator, value);
}

void _korStrHash_RemoveCurrent(uint8_t depth, korEx* ex, korStrHashIterator* iterator)
{
    _korHash_RemoveCurrent(KOR_AT_D(depth, ex), iterator);
}
