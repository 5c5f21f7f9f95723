// kor128Hash.cpp - 128-bit keys over the engine of openTable.h: a hash of three multiplications, entries from a cache.

#include "korutil/kor128Hash.h"
#include "containers/cachedChunk.h"
#include "containers/openTable.h"
#include "foundation/request.h"

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <cstddef>
#include <cstdio>

static_assert(sizeof(kor128Entry) == 32 && offsetof(kor128Entry, keyLow) == 16);
static_assert(sizeof(kor128Hash) == 32 && offsetof(kor128Hash, entryCache) == 24);

namespace kor {
namespace {

constexpr uint64_t defaultSlots = 32;
constexpr int32_t chunkSize = 32; // of table objects and of entries
constexpr int32_t defaultCapacity = 100;
constexpr int32_t largeCapacity = 131072;
constexpr int64_t longestChain = 511; // longer ones count as this long

bool _kor128Hash_Grow(korEx* ex, uint8_t depth, kor128Hash* hash);

struct Key128 {
    uint64_t low;
    uint64_t high;
    bool operator==(const Key128&) const = default;
};

struct Policy128 {
    using Table = kor128Hash;
    using Entry = kor128Entry;
    using Count = int64_t;
    using Key = Key128;

    static constexpr Count maxGrowingMask = 0x3fffffffffffffff;

    static uint64_t hashOf(const Key& key)
    {
        constexpr uint64_t factor = 0x9ddfea08eb382d69;
        uint64_t x = (key.low ^ key.high) * factor;
        uint64_t y = (x ^ key.high ^ (x >> 47)) * factor;
        return (y ^ (y >> 47)) * factor;
    }
    static Key keyOf(const Entry* entry) { return {entry->keyLow, entry->keyHigh}; }
    static void storeKey(Entry* entry, const Key& key)
    {
        entry->keyLow = key.low;
        entry->keyHigh = key.high;
    }
    static Entry* takeEntry(korEx* ex, uint8_t depth, const Table* table)
    {
        return static_cast<Entry*>(table->entryCache != nullptr
                                       ? _korPoolCache_Get(KOR_AT(ex, depth), table->entryCache)
                                       : request<Entry>(KOR_AT(ex, depth)));
    }
    static void releaseEntry(uint8_t depth, korEx* ex, const Table* table, Entry* entry)
    {
        if (table->entryCache != nullptr) {
            returnToCache(KOR_AT_D(depth, ex), table->entryCache, entry);
        } else {
            _kor_free(KOR_AT_D(depth, ex), entry);
        }
    }
    static bool grow(korEx* ex, uint8_t depth, Table* table) { return _kor128Hash_Grow(ex, depth, table); }
};

using Engine = OpenTable<Policy128>;

bool _kor128Hash_Grow(korEx* ex, uint8_t depth, kor128Hash* hash)
{
    return Engine::doubleBins(KOR_AT(ex, depth), hash);
}

uint64_t slotsFor(int64_t wanted)
{
    auto slots = static_cast<uint64_t>(wanted);
    return (slots >> 62) != 0 ? defaultSlots : std::bit_ceil(slots);
}

int32_t entriesPerBlock(uint32_t capacity)
{
    auto wanted = static_cast<int32_t>(capacity);
    return wanted > 0 ? wanted : wanted == 0 ? defaultCapacity : largeCapacity;
}

korPool* createPool(korEx* ex, uint8_t depth, int32_t chunksPerBlock)
{
    return _korPool_Create(KOR_AT(ex, depth), chunksPerBlock, chunkSize, nullptr, nullptr, 1, 10);
}

kor128Hash* takeTable(korEx* ex, uint8_t depth, korPool* hashPool)
{
    return static_cast<kor128Hash*>(hashPool != nullptr ? _korPool_Get(KOR_AT(ex, depth), hashPool)
                                                        : request<kor128Hash>(KOR_AT(ex, depth)));
}

void releaseTable(uint8_t depth, korEx* ex, korPool* hashPool, kor128Hash* hash)
{
    if (hashPool != nullptr) {
        _korPool_Return(KOR_AT_D(depth, ex), hashPool, hash);
    } else {
        _kor_free(KOR_AT_D(depth, ex), hash);
    }
}

struct ChainFigures {
    int64_t usedSlots;
    int64_t longest;
    int64_t lengths; // their sum
};

int64_t chainLength(const kor128Entry* entry)
{
    int64_t length = 0;
    for (; entry != nullptr && length < longestChain; entry = entry->next) {
        ++length;
    }
    return length;
}

ChainFigures measureChains(const kor128Hash* hash)
{
    ChainFigures figures = {};
    for (int64_t bin = 0; bin <= hash->mask; ++bin) {
        int64_t length = chainLength(hash->bins[bin]);
        figures.usedSlots += length != 0;
        figures.longest = std::max(figures.longest, length);
        figures.lengths += length;
    }
    return figures;
}

} // namespace
} // namespace kor

using namespace kor;

// ---- Making ---------------------------------------------------------------------------------------------------------

void _kor128Hash_CreatePools(korEx* ex, uint8_t depth, korPool** hashPool, korPoolCache** entryCache, uint32_t capacity,
                             int64_t cacheSize)
{
    korPool* tables = nullptr;
    korPool* entries = nullptr;
    korPoolCache* cache = nullptr;
    if (ex->code == 0 && hashPool != nullptr) {
        tables = createPool(KOR_AT(ex, depth), defaultCapacity);
    }
    if (ex->code == 0 && entryCache != nullptr) {
        entries = createPool(KOR_AT(ex, depth), entriesPerBlock(capacity));
        if (entries != nullptr) {
            cache = _korPoolCache_Create(KOR_AT(ex, depth), cacheSize, entries);
        }
    }
    if (ex->code != 0) {
        _korPool_Destroy(KOR_AT_D(depth, ex), entries);
        _korPool_Destroy(KOR_AT_D(depth, ex), tables);
        tables = nullptr;
        cache = nullptr;
    }
    if (hashPool != nullptr) {
        *hashPool = tables;
    }
    if (entryCache != nullptr) {
        *entryCache = cache;
    }
}

kor128Hash* _kor128Hash_CreatePooled(korEx* ex, uint8_t depth, int64_t slots, korPool* hashPool,
                                     korPoolCache* entryCache)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (slots == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return nullptr;
    }
    kor128Hash* hash = takeTable(KOR_AT(ex, depth), hashPool);
    if (hash == nullptr) {
        return nullptr;
    }
    auto** bins = Engine::takeBins(KOR_AT(ex, depth), slotsFor(slots));
    if (bins == nullptr) {
        releaseTable(KOR_AT_D(depth, ex), hashPool, hash);
        return nullptr;
    }
    *hash = {0, static_cast<int64_t>(slotsFor(slots) - 1), bins, entryCache};
    return hash;
}

void _kor128Hash_DestroyPooled(uint8_t depth, korEx* ex, kor128Hash* hash, korPool* hashPool)
{
    if (hash != nullptr) {
        Engine::clear(KOR_AT_D(depth, ex), hash);
        releaseTable(KOR_AT_D(depth, ex), hashPool, hash);
    }
}

// ---- Using ----------------------------------------------------------------------------------------------------------

bool _kor128Hash_ContainsKey(const kor128Hash* hash, const uint64_t* key)
{
    return _kor128Hash_ContainsKey2(hash, key[0], key[1]);
}

bool _kor128Hash_ContainsKey2(const kor128Hash* hash, uint64_t keyLow, uint64_t keyHigh)
{
    return Engine::find(hash, {keyLow, keyHigh}) != nullptr;
}

uint64_t _kor128Hash_Get(korEx* ex, uint8_t depth, const kor128Hash* hash, const uint64_t* key)
{
    return ex->code != 0 ? 0 : _kor128Hash_Get2(KOR_AT(ex, depth), hash, key[0], key[1]);
}

uint64_t _kor128Hash_Get2(korEx* ex, uint8_t, const kor128Hash* hash, uint64_t keyLow, uint64_t keyHigh)
{
    return ex->code != 0 ? 0 : Engine::get(hash, {keyLow, keyHigh});
}

uint64_t _kor128Hash_Set(korEx* ex, uint8_t depth, kor128Hash* hash, const uint64_t* key, uint64_t value)
{
    return ex->code != 0 ? 0 : _kor128Hash_Set2(KOR_AT(ex, depth), hash, key[0], key[1], value);
}

uint64_t _kor128Hash_Set2(korEx* ex, uint8_t depth, kor128Hash* hash, uint64_t keyLow, uint64_t keyHigh, uint64_t value)
{
    return ex->code != 0 ? 0 : Engine::set(KOR_AT(ex, depth), hash, {keyLow, keyHigh}, value);
}

uint64_t _kor128Hash_Remove(uint8_t depth, korEx* ex, kor128Hash* hash, const uint64_t* key)
{
    return _kor128Hash_Remove2(KOR_AT_D(depth, ex), hash, key[0], key[1]);
}

uint64_t _kor128Hash_Remove2(uint8_t depth, korEx* ex, kor128Hash* hash, uint64_t keyLow, uint64_t keyHigh)
{
    return hash == nullptr ? 0 : Engine::remove(KOR_AT_D(depth, ex), hash, {keyLow, keyHigh});
}

// ---- Walking --------------------------------------------------------------------------------------------------------

void _kor128Hash_IteratorInit(kor128Hash* hash, korHashChainIterator* iterator)
{
    Engine::startWalk(hash, iterator);
}

bool _kor128Hash_Next(korHashChainIterator* iterator, uint64_t* key, uint64_t* value)
{
    return _kor128Hash_Next2(iterator, key, key != nullptr ? key + 1 : nullptr, value);
}

bool _kor128Hash_Next2(korHashChainIterator* iterator, uint64_t* keyLow, uint64_t* keyHigh, uint64_t* value)
{
    const kor128Entry* entry = Engine::advance(iterator);
    if (entry == nullptr) {
        return false;
    }
    if (keyLow != nullptr) {
        *keyLow = entry->keyLow;
    }
    if (keyHigh != nullptr) {
        *keyHigh = entry->keyHigh;
    }
    if (value != nullptr) {
        *value = entry->value;
    }
    return true;
}

void _kor128Hash_RemoveCurrent(uint8_t depth, korEx* ex, korHashChainIterator* iterator)
{
    Engine::removeCurrent(KOR_AT_D(depth, ex), iterator);
}

kor128Entry* _kor128Hash_SetCurrentValue(const korHashChainIterator* iterator, uint64_t value)
{
    kor128Entry* entry = Engine::currentOf(iterator);
    entry->value = value;
    return entry;
}

// ---- Measuring ------------------------------------------------------------------------------------------------------

int64_t _kor128Hash_Memory(const kor128Hash* hash)
{
    return static_cast<int64_t>(sizeof(kor128Hash)) + (hash->mask + 1) * static_cast<int64_t>(sizeof(kor128Entry*)) +
           hash->count * static_cast<int64_t>(sizeof(kor128Entry));
}

void _kor128Hash_Info(const kor128Hash* hash)
{
    ChainFigures figures = measureChains(hash);
    int64_t slots = hash->mask + 1;
    int64_t bytes = hash->count * static_cast<int64_t>(sizeof(kor128Entry));
    double percentage = 100.0 * static_cast<double>(figures.usedSlots) / static_cast<double>(slots);
    float average =
        figures.usedSlots == 0 ? 0 : static_cast<float>(figures.lengths) / static_cast<float>(figures.usedSlots);
    std::fprintf(stderr, "Slots Allocated  = %" PRId64 "\n", slots);
    std::fprintf(stderr, "Slots Used       = %" PRId64 "\n", figures.usedSlots);
    std::fprintf(stderr, "Slots Percentage = %.2f%%\n", percentage);
    std::fprintf(stderr, "Entries          = %" PRId64 "\n", hash->count);
    std::fprintf(stderr, "Max Chain        = %" PRId64 "\n", figures.longest);
    std::fprintf(stderr, "Chain Average    = %.2f\n", static_cast<double>(average));
    std::fprintf(stderr, "Memory Usage     = %" PRId64 " bytes (%" PRId64 "K)\n", bytes, bytes / 1024);
}
