// korLazy64Hash.cpp - 64-bit keys over the engine of lazyTable.h: the key is its own code, entries come from a cache.

#include "korutil/korLazy64Hash.h"
#include "containers/cachedChunk.h"
#include "containers/lazyTable.h"
#include "foundation/request.h"
#include "korutil/korPool.h"

#include <cstddef>

static_assert(sizeof(korLazy64Entry) == 40 && offsetof(korLazy64Entry, listPrev) == 32);
static_assert(sizeof(korLazy64Hash) == 72 && offsetof(korLazy64Hash, cursor) == 64);

namespace {

struct IntegerKey {
    uint64_t code;

    bool matches(const korLazy64Entry* entry) const { return entry->key == code; }
};

struct IntegerPolicy {
    using Table = korLazy64Hash;
    using Entry = korLazy64Entry;
    using Iterator = korLazy64HashIterator;
    using Code = uint64_t;
    using Pools = korLazy64HashPools*;
    struct Item {
        IntegerKey key;
        uint64_t value;
    };

    static constexpr int64_t shrinkFrom = 17;
    static constexpr bool releasesOpenly = true;

    static Code codeOf(const Entry* entry) { return entry->key; }

    static Pools pools(const Table* table) { return table->pools; }
    static void setPools(Table* table, Pools pools) { table->pools = pools; }
    static bool poolsEntries(Pools pools) { return pools != nullptr; }

    static Table* takeTable(korEx* ex, uint8_t depth, Pools pools)
    {
        return static_cast<Table*>(pools != nullptr ? _korPool_Get(KOR_AT(ex, depth), pools->hashPool)
                                                    : kor::request<Table>(KOR_AT(ex, depth)));
    }
    static void releaseTable(uint8_t depth, korEx* ex, Pools pools, Table* table)
    {
        if (pools != nullptr) {
            _korPool_Return(KOR_AT_D(depth, ex), pools->hashPool, table);
        } else {
            _kor_free(KOR_AT_D(depth, ex), table);
        }
    }
    static Entry* takeEntry(korEx* ex, uint8_t depth, Pools pools)
    {
        return static_cast<Entry*>(pools != nullptr ? _korPoolCache_Get(KOR_AT(ex, depth), &pools->entryCache)
                                                    : kor::request<Entry>(KOR_AT(ex, depth)));
    }
    static void releaseEntry(uint8_t depth, korEx* ex, Pools pools, Entry* entry)
    {
        if (pools == nullptr) {
            _kor_free(KOR_AT_D(depth, ex), entry);
        } else if (entry != nullptr) {
            kor::returnToCacheOpenly(KOR_AT_D(depth, ex), &pools->entryCache, entry);
        }
    }

    static bool keepsKey(const Entry*) { return true; }
    static bool storeKey(korEx*, uint8_t, const Table*, Entry* entry, const Item& item)
    {
        entry->key = item.key.code;
        return true;
    }
    static void releaseKey(uint8_t, korEx*, const Table*, const Entry*) {}

    static bool isMarked(const Entry*) { return true; }
    static IntegerKey markedKey(const Entry* cursor) { return {cursor->key}; }
    static void mark(Entry* cursor, const Entry* entry) { cursor->key = entry->key; }
    static void clearMark(Entry* cursor) { cursor->key = 0; }
};

using Engine = kor::LazyTable<IntegerPolicy>;

korPool* createPool(korEx* ex, uint8_t depth, int32_t chunkSize)
{
    return _korPool_Create(KOR_AT(ex, depth), 100, chunkSize, nullptr, nullptr, 1, 100);
}

} // namespace

// ---- Making ---------------------------------------------------------------------------------------------------------

void _korLazy64Hash_CreatePoolsEx(korEx* ex, uint8_t depth, korLazy64HashPools* pools, int64_t cacheSize)
{
    if (ex->code != 0) {
        return;
    }
    korPool* hashPool = createPool(KOR_AT(ex, depth), sizeof(korLazy64Hash));
    korPool* entryPool = createPool(KOR_AT(ex, depth), sizeof(korLazy64Entry));
    *pools = korLazy64HashPools{};
    _korPoolCache_Init(KOR_AT(ex, depth), &pools->entryCache, cacheSize, entryPool);
    if (ex->code == 0) {
        pools->hashPool = hashPool;
        return;
    }
    _korPool_Destroy(KOR_AT_D(depth, ex), entryPool);
    _korPool_Destroy(KOR_AT_D(depth, ex), hashPool);
    *pools = korLazy64HashPools{};
}

void _korLazy64Hash_CreatePools(korEx* ex, uint8_t depth, korLazy64HashPools* pools)
{
    _korLazy64Hash_CreatePoolsEx(KOR_AT(ex, depth), pools, -1);
}

void _korLazy64Hash_DestroyPools(uint8_t depth, korEx* ex, korLazy64HashPools* pools)
{
    if (pools == nullptr || pools->entryCache.pool == nullptr) {
        return;
    }
    korPool* entryPool = pools->entryCache.pool;
    _korPool_Destroy(KOR_AT_D(depth, ex), pools->hashPool);
    _korPoolCache_Clear(KOR_AT_D(depth, ex), &pools->entryCache);
    _korPool_Destroy(KOR_AT_D(depth, ex), entryPool);
    pools->hashPool = nullptr; // tables that are left see by these that their memory is gone
    pools->entryCache.pool = nullptr;
}

void _korLazy64Hash_Init(korEx* ex, uint8_t depth, korLazy64Hash* hash, int64_t slots)
{
    Engine::performInit(KOR_AT(ex, depth), hash, slots, nullptr);
}

void _korLazy64Hash_InitPooled(korEx* ex, uint8_t depth, korLazy64Hash* hash, korLazy64HashPools* pools, int64_t slots)
{
    Engine::performInit(KOR_AT(ex, depth), hash, slots, pools);
}

korLazy64Hash* _korLazy64Hash_Create(korEx* ex, uint8_t depth, int64_t slots)
{
    return Engine::performCreate(KOR_AT(ex, depth), slots, nullptr);
}

korLazy64Hash* _korLazy64Hash_CreatePooled(korEx* ex, uint8_t depth, korLazy64HashPools* pools, int64_t slots)
{
    return Engine::performCreate(KOR_AT(ex, depth), slots, pools);
}

void _korLazy64Hash_Clear(uint8_t depth, korEx* ex, korLazy64Hash* hash)
{
    Engine::clear(KOR_AT_D(depth, ex), hash);
}

void _korLazy64Hash_Destroy(uint8_t depth, korEx* ex, korLazy64Hash* hash)
{
    if (hash == nullptr) {
        return;
    }
    const korLazy64HashPools* pools = hash->pools;
    if (pools == nullptr || (pools->hashPool != nullptr && pools->entryCache.pool != nullptr)) {
        Engine::destroy(KOR_AT_D(depth, ex), hash);
    }
}

// ---- Using ----------------------------------------------------------------------------------------------------------

uint64_t _korLazy64Hash_Get(korEx* ex, uint8_t depth, korLazy64Hash* hash, uint64_t key)
{
    return ex->code != 0 ? 0 : Engine::lookup(KOR_AT(ex, depth), hash, IntegerKey{key}).value;
}

uint64_t _korLazy64Hash_Set(korEx* ex, uint8_t depth, korLazy64Hash* hash, uint64_t key, uint64_t value)
{
    return ex->code != 0 ? 0 : Engine::set(KOR_AT(ex, depth), hash, {{key}, value});
}

uint64_t _korLazy64Hash_Remove(uint8_t depth, korEx* ex, korLazy64Hash* hash, uint64_t key)
{
    return hash == nullptr ? 0 : Engine::performRemove(KOR_AT_D(depth, ex), hash, IntegerKey{key});
}

// ---- Walking --------------------------------------------------------------------------------------------------------

void _korLazy64Hash_IteratorInit(korEx* ex, uint8_t, korLazy64Hash* hash, korLazy64HashIterator* iterator)
{
    if (ex->code == 0) {
        Engine::startWalk(hash, iterator);
    }
}

bool _korLazy64Hash_Next(korEx* ex, uint8_t, korLazy64HashIterator* iterator, uint64_t* key, uint64_t* value)
{
    const korLazy64Entry* current = ex->code == 0 ? Engine::advance(iterator) : nullptr;
    if (current == nullptr) {
        return false;
    }
    if (key != nullptr) {
        *key = current->key;
    }
    if (value != nullptr) {
        *value = current->value;
    }
    return true;
}

void _korLazy64Hash_RemoveCurrent(uint8_t depth, korEx* ex, korLazy64HashIterator* iterator)
{
    Engine::removeCurrent(KOR_AT_D(depth, ex), iterator);
}
