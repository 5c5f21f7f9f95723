// korI32Hash.cpp - 32-bit keys over the engine of openTable.h: the key is its own hash, entries come from the heap.

#include "korutil/korI32Hash.h"
#include "containers/openTable.h"
#include "foundation/request.h"

#include <bit>
#include <cstddef>

static_assert(sizeof(korI32Entry) == 24 && offsetof(korI32Entry, key) == 16);
static_assert(sizeof(korI32Hash) == 16 && offsetof(korI32Hash, bins) == 8);

namespace kor {
namespace {

constexpr uint32_t maxInitialSlots = 0x40000000;

bool _korI32Hash_Grow(korEx* ex, uint8_t depth, korI32Hash* hash);

struct Policy32 {
    using Table = korI32Hash;
    using Entry = korI32Entry;
    using Count = int32_t;
    using Key = uint32_t;

    // The greatest mask that a count can pass has room to double.
    static constexpr Count maxGrowingMask = INT32_MAX;

    static uint64_t hashOf(Key key) { return key; }
    static Key keyOf(const Entry* entry) { return entry->key; }
    static void storeKey(Entry* entry, Key key) { entry->key = key; }
    static Entry* takeEntry(korEx* ex, uint8_t depth, const Table*) { return request<Entry>(KOR_AT(ex, depth)); }
    static void releaseEntry(uint8_t depth, korEx* ex, const Table*, Entry* entry)
    {
        _kor_free(KOR_AT_D(depth, ex), entry);
    }
    static bool grow(korEx* ex, uint8_t depth, Table* table) { return _korI32Hash_Grow(ex, depth, table); }
};

using Engine = OpenTable<Policy32>;

bool _korI32Hash_Grow(korEx* ex, uint8_t depth, korI32Hash* hash)
{
    return Engine::doubleBins(KOR_AT(ex, depth), hash);
}

uint32_t slotsFor(int32_t wanted)
{
    if (wanted < 0) {
        return 1;
    }
    auto slots = static_cast<uint32_t>(wanted);
    return slots >= maxInitialSlots ? maxInitialSlots : std::bit_ceil(slots);
}

} // namespace
} // namespace kor

using namespace kor;

korI32Hash* _korI32Hash_Create(korEx* ex, uint8_t depth, int32_t slots)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (slots == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return nullptr;
    }
    auto* hash = requestZeroed<korI32Hash>(KOR_AT(ex, depth));
    if (hash == nullptr) {
        return nullptr;
    }
    hash->bins = Engine::takeBins(KOR_AT(ex, depth), slotsFor(slots));
    if (hash->bins == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), hash);
        return nullptr;
    }
    hash->mask = static_cast<int32_t>(slotsFor(slots) - 1);
    return hash;
}

void _korI32Hash_Destroy(uint8_t depth, korEx* ex, korI32Hash* hash)
{
    if (hash != nullptr) {
        Engine::clear(KOR_AT_D(depth, ex), hash);
        _kor_free(KOR_AT_D(depth, ex), hash);
    }
}

uint64_t _korI32Hash_Get(korEx* ex, uint8_t, const korI32Hash* hash, uint32_t key)
{
    return ex->code != 0 ? 0 : Engine::get(hash, key);
}

uint64_t _korI32Hash_Set(korEx* ex, uint8_t depth, korI32Hash* hash, uint32_t key, uint64_t value)
{
    return ex->code != 0 ? 0 : Engine::set(KOR_AT(ex, depth), hash, key, value);
}

uint64_t _korI32Hash_Remove(uint8_t depth, korEx* ex, korI32Hash* hash, uint32_t key)
{
    return hash == nullptr ? 0 : Engine::remove(KOR_AT_D(depth, ex), hash, key);
}

void _korI32Hash_IteratorInit(korI32Hash* hash, korHashChainIterator* iterator)
{
    Engine::startWalk(hash, iterator);
}

bool _korI32Hash_Next(korHashChainIterator* iterator, uint32_t* key, uint64_t* value)
{
    const korI32Entry* entry = Engine::advance(iterator);
    if (entry == nullptr) {
        return false;
    }
    if (key != nullptr) {
        *key = entry->key;
    }
    if (value != nullptr) {
        *value = entry->value;
    }
    return true;
}

void _korI32Hash_RemoveCurrent(uint8_t depth, korEx* ex, korHashChainIterator* iterator)
{
    Engine::removeCurrent(KOR_AT_D(depth, ex), iterator);
}
