// korHIDHash.cpp - header identifiers as keys: the number with its own low word as code, or the whole record.

#include "korutil/korHIDHash.h"

#include <cstddef>

static_assert(sizeof(korHeaderID) == 24 && offsetof(korHeaderID, uuid) == 8, "both lengths of a key");

namespace {

uint32_t lengthOf(const korHeaderID* key)
{
    return key->id != 0 ? sizeof(key->id) : sizeof(korHeaderID);
}

// 0 for a UUID and for a number whose low word is 0: their codes are computed.
uint32_t codeOf(const korHeaderID* key)
{
    return static_cast<uint32_t>(key->id);
}

} // namespace

korHIDHash* _korHIDHash_Create(korEx* ex, uint8_t depth, int64_t slots)
{
    return _korHash_Create(KOR_AT(ex, depth), slots);
}

korHIDHash* _korHIDHash_CreatePooled(korEx* ex, uint8_t depth, int64_t slots, korPool* hashPool, korPool* entryPool,
                                     korPool* keyPool)
{
    return _korHash_CreatePooled(KOR_AT(ex, depth), slots, hashPool, entryPool, keyPool);
}

void _korHIDHash_Destroy(uint8_t depth, korEx* ex, korHIDHash* hash)
{
    _korHash_Destroy(KOR_AT_D(depth, ex), hash);
}

bool _korHIDHash_ContainsKey(korEx* ex, uint8_t depth, korHIDHash* hash, const korHeaderID* key)
{
    return key != nullptr && _korHash_ContainsKey(KOR_AT(ex, depth), hash, key, lengthOf(key), codeOf(key));
}

uint64_t _korHIDHash_Get(korEx* ex, uint8_t depth, korHIDHash* hash, const korHeaderID* key)
{
    return key == nullptr ? 0 : _korHash_Get(KOR_AT(ex, depth), hash, key, lengthOf(key), codeOf(key));
}

uint64_t _korHIDHash_Set(korEx* ex, uint8_t depth, korHIDHash* hash, const korHeaderID* key, uint8_t copyKey,
                         uint64_t value)
{
    if (key == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Header identifier must not be NULL");
        return 0;
    }
    return _korHash_Set(KOR_AT(ex, depth), hash, key, lengthOf(key), codeOf(key), copyKey, value);
}

uint64_t _korHIDHash_Remove(korEx* ex, uint8_t depth, korHIDHash* hash, const korHeaderID* key)
{
    if (ex->code != 0) {
        return 0;
    }
    return _korHash_Remove(KOR_AT_D(depth, ex), hash, key, lengthOf(key), codeOf(key));
}

uint64_t _korHIDHash_RemoveEx(uint8_t depth, korEx* ex, korHIDHash* hash, const korHeaderID* key)
{
    if (hash == nullptr || key == nullptr) {
        return 0;
    }
    return _korHash_Remove(KOR_AT_D(depth, ex), hash, key, lengthOf(key), codeOf(key));
}

void _korHIDHash_IteratorInit(korHIDHash* hash, korHIDHashIterator* iterator)
{
    _korHash_IteratorInit(hash, iterator);
}

bool _korHIDHash_Next(korHIDHashIterator* iterator, const korHeaderID** key, uint64_t* value)
{
    const void* bytes;
    if (!_korHash_Next(iterator, &bytes, nullptr, value)) {
        return false;
    }
    if (key != nullptr) {
        *key = static_cast<const korHeaderID*>(bytes);
    }
    return true;
}

void _korHIDHash_RemoveCurrent(uint8_t depth, korEx* ex, korHIDHashIterator* iterator)
{
    _korHash_RemoveCurrent(KOR_AT_D(depth, ex), iterator);
}
