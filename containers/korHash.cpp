// korHash.cpp - byte-string keys over the engine of lazyTable.h: how keys are measured, hashed, compared, kept and
// freed.

#include "korutil/korHash.h"
#include "containers/lazyTable.h"
#include "foundation/request.h"
#include "korutil/korPool.h"
#include "korutil/korSpookyHash.h"

#include <algorithm>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstring>

static_assert(sizeof(korHashEntry) == 48 && sizeof(korHash) == 88, "these sizes stand in what is measured");
static_assert(offsetof(korHashEntry, value) == 40 && offsetof(korHash, cursor) == 80);
static_assert(offsetof(korHashIterator, skipAdvance) == 8);

namespace {

constexpr uint32_t maxKeyLength = KOR_HASH_KEY_COPIED - 1;

uint32_t lengthOf(const korHashEntry* entry)
{
    return entry->keyLength & maxKeyLength;
}

bool isCopied(const korHashEntry* entry)
{
    return (entry->keyLength & KOR_HASH_KEY_COPIED) != 0;
}

bool sameBytes(const void* one, const void* other, uint32_t length)
{
    return one == other || (one != nullptr && other != nullptr && std::memcmp(one, other, length) == 0);
}

// A key by its bytes. A length over maxKeyLength matches no entry.
struct ByteKey {
    const void* bytes;
    uint32_t length;
    uint32_t code;

    bool matches(const korHashEntry* entry) const
    {
        return entry->hash == code && lengthOf(entry) == length && sameBytes(entry->key, bytes, length);
    }
};

// A key by its address alone; code and length are not compared.
struct PointerKey {
    const void* bytes;
    uint32_t code;

    bool matches(const korHashEntry* entry) const { return entry->key == bytes; }
};

// What a walk remembers of its entry. The code tells apart keys of different length that share an address.
struct MarkedKey {
    const void* bytes;
    uint32_t code;

    bool matches(const korHashEntry* entry) const { return entry->key == bytes && entry->hash == code; }
};

struct HashPools {
    korPool* hashPool;
    korPool* entryPool;
    korPool* keyPool;
};

void* takeChunk(korEx* ex, uint8_t depth, korPool* pool, size_t size)
{
    return pool != nullptr ? _korPool_Get(KOR_AT(ex, depth), pool) : kor::request<void>(KOR_AT(ex, depth), size);
}

void releaseChunk(uint8_t depth, korEx* ex, korPool* pool, void* chunk)
{
    if (pool != nullptr) {
        _korPool_Return(KOR_AT_D(depth, ex), pool, chunk);
    } else {
        _kor_free(KOR_AT_D(depth, ex), chunk);
    }
}

// Decided by the length alone, so that a key goes back to where it came from.
korPool* poolForKey(const korHash* hash, uint32_t length)
{
    return hash->keyPool != nullptr && _korPool_ChunkSize(hash->keyPool) >= length ? hash->keyPool : nullptr;
}

const void* createKey(korEx* ex, uint8_t depth, const korHash* hash, const ByteKey& key)
{
    void* copy = takeChunk(KOR_AT(ex, depth), poolForKey(hash, key.length), key.length);
    return copy == nullptr ? nullptr : std::memcpy(copy, key.bytes, key.length);
}

void destroyKey(uint8_t depth, korEx* ex, const korHash* hash, const korHashEntry* entry)
{
    releaseChunk(KOR_AT_D(depth, ex), poolForKey(hash, lengthOf(entry)), const_cast<void*>(entry->key));
}

struct BytePolicy {
    using Table = korHash;
    using Entry = korHashEntry;
    using Iterator = korHashIterator;
    using Code = uint32_t;
    using Pools = HashPools;
    struct Item {
        ByteKey key;
        bool copy;
        uint64_t value;
    };

    static constexpr int64_t shrinkFrom = 65;
    static constexpr bool releasesOpenly = false;

    static Code codeOf(const Entry* entry) { return entry->hash; }

    static Pools pools(const Table* table) { return {table->hashPool, table->entryPool, table->keyPool}; }
    static void setPools(Table* table, const Pools& pools)
    {
        table->hashPool = pools.hashPool;
        table->entryPool = pools.entryPool;
        table->keyPool = pools.keyPool;
    }
    static bool poolsEntries(const Pools& pools) { return pools.entryPool != nullptr; }

    static Table* takeTable(korEx* ex, uint8_t depth, const Pools& pools)
    {
        return static_cast<Table*>(takeChunk(KOR_AT(ex, depth), pools.hashPool, sizeof(Table)));
    }
    static void releaseTable(uint8_t depth, korEx* ex, const Pools& pools, Table* table)
    {
        releaseChunk(KOR_AT_D(depth, ex), pools.hashPool, table);
    }
    static Entry* takeEntry(korEx* ex, uint8_t depth, const Pools& pools)
    {
        return static_cast<Entry*>(takeChunk(KOR_AT(ex, depth), pools.entryPool, sizeof(Entry)));
    }
    static void releaseEntry(uint8_t depth, korEx* ex, const Pools& pools, Entry* entry)
    {
        releaseChunk(KOR_AT_D(depth, ex), pools.entryPool, entry);
    }

    static bool keepsKey(const Entry* entry) { return isCopied(entry); }

    // Writes the key only when nothing can fail any more, so that an entry in use stays as it is.
    static bool storeKey(korEx* ex, uint8_t depth, const Table* table, Entry* entry, const Item& item)
    {
        bool copy = item.copy && item.key.bytes != nullptr;
        const void* bytes = copy ? createKey(KOR_AT(ex, depth), table, item.key) : item.key.bytes;
        if (copy && bytes == nullptr) {
            return false;
        }
        entry->key = bytes;
        entry->keyLength = item.key.length | (copy ? KOR_HASH_KEY_COPIED : 0);
        entry->hash = item.key.code;
        return true;
    }
    static void releaseKey(uint8_t depth, korEx* ex, const Table* table, const Entry* entry)
    {
        if (isCopied(entry)) {
            destroyKey(KOR_AT_D(depth, ex), table, entry);
        }
    }

    // A NULL key is out of reach of every remove; the walk passes it.
    static bool isMarked(const Entry* cursor) { return cursor->key != nullptr; }
    static MarkedKey markedKey(const Entry* cursor) { return {cursor->key, cursor->hash}; }
    static void mark(Entry* cursor, const Entry* entry)
    {
        cursor->key = entry->key;
        cursor->hash = entry->hash;
    }
    static void clearMark(Entry* cursor)
    {
        cursor->key = nullptr;
        cursor->hash = 0;
        cursor->value = 0;
    }
};

using Engine = kor::LazyTable<BytePolicy>;

uint32_t computeCode(const void* bytes, uint32_t length)
{
    return static_cast<uint32_t>(length < KOR_SPOOKY_LONG_LENGTH ? _korSpookyHash_Short(bytes, length, nullptr)
                                                                 : _korSpookyHash_Long(bytes, length, nullptr));
}

// Length 0 measures a string, its terminator included; code 0 computes one. A NULL key is taken as it stands.
ByteKey keyOf(const void* bytes, uint32_t length, uint32_t code)
{
    if (bytes != nullptr && length == 0) {
        size_t measured = std::strlen(static_cast<const char*>(bytes)) + 1;
        length = static_cast<uint32_t>(std::min<size_t>(measured, KOR_HASH_KEY_COPIED)); // too long stays too long
    }
    if (bytes != nullptr && code == 0 && length <= maxKeyLength) {
        code = computeCode(bytes, length);
    }
    return {bytes, length, code};
}

} // namespace

// ---- Making ---------------------------------------------------------------------------------------------------------

void _korHash_CreatePools(korEx* ex, uint8_t depth, korPool** hashPool, korPool** entryPool, int32_t keySize,
                          korPool** keyPool, int32_t capacity)
{
    constexpr int32_t blockBytes = 4 * 1024 * 1024;
    if (ex->code != 0) {
        return;
    }
    if (keyPool != nullptr && keySize <= 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Key size must be greater than zero");
        return;
    }
    int32_t entries = std::max(capacity, 100);
    int32_t keys = entries;
    int32_t refill = std::min(entries / 10, 1000);
    if (capacity < 0) {
        entries = blockBytes / static_cast<int32_t>(sizeof(korHashEntry));
        keys = keyPool == nullptr ? 0 : std::max(blockBytes / keySize, 1);
        refill = 1000;
    }
    if (hashPool != nullptr) {
        *hashPool = _korPool_Create(KOR_AT(ex, depth), 100, sizeof(korHash), nullptr, nullptr, 1, 10);
    }
    if (entryPool != nullptr) {
        *entryPool = _korPool_Create(KOR_AT(ex, depth), entries, sizeof(korHashEntry), nullptr, nullptr, 1, refill);
    }
    if (keyPool != nullptr) {
        *keyPool = _korPool_Create(KOR_AT(ex, depth), keys, keySize, nullptr, nullptr, 1, refill);
    }
}

void _korHash_Init(korEx* ex, uint8_t depth, korHash* hash, int64_t slots)
{
    _korHash_InitPooled(KOR_AT(ex, depth), hash, slots, nullptr, nullptr);
}

void _korHash_InitPooled(korEx* ex, uint8_t depth, korHash* hash, int64_t slots, korPool* entryPool, korPool* keyPool)
{
    Engine::performInit(KOR_AT(ex, depth), hash, slots, {nullptr, entryPool, keyPool});
}

korHash* _korHash_Create(korEx* ex, uint8_t depth, int64_t slots)
{
    return Engine::performCreate(KOR_AT(ex, depth), slots, {nullptr, nullptr, nullptr});
}

korHash* _korHash_CreatePooled(korEx* ex, uint8_t depth, int64_t slots, korPool* hashPool, korPool* entryPool,
                               korPool* keyPool)
{
    return Engine::performCreate(KOR_AT(ex, depth), slots, {hashPool, entryPool, keyPool});
}

void _korHash_Clear(uint8_t depth, korEx* ex, korHash* hash)
{
    Engine::clear(KOR_AT_D(depth, ex), hash);
}

void _korHash_Destroy(uint8_t depth, korEx* ex, korHash* hash)
{
    Engine::destroy(KOR_AT_D(depth, ex), hash);
}

// ---- Using ----------------------------------------------------------------------------------------------------------

void _korHash_MakeStatic(korEx* ex, uint8_t depth, korHash* hash)
{
    if (ex->code == 0) {
        Engine::lazyMove(KOR_AT(ex, depth), hash, INT64_MAX);
    }
}

bool _korHash_ContainsKey(korEx* ex, uint8_t depth, korHash* hash, const void* key, uint32_t keyLength,
                          uint32_t hashCode)
{
    return ex->code == 0 && key != nullptr &&
           Engine::lookup(KOR_AT(ex, depth), hash, keyOf(key, keyLength, hashCode)).present;
}

uint64_t _korHash_Get(korEx* ex, uint8_t depth, korHash* hash, const void* key, uint32_t keyLength, uint32_t hashCode)
{
    if (ex->code != 0 || key == nullptr) {
        return 0;
    }
    return Engine::lookup(KOR_AT(ex, depth), hash, keyOf(key, keyLength, hashCode)).value;
}

uint64_t _korHash_Set(korEx* ex, uint8_t depth, korHash* hash, const void* key, uint32_t keyLength, uint32_t hashCode,
                      uint8_t copyKey, uint64_t value)
{
    if (ex->code != 0) {
        return 0;
    }
    ByteKey wanted = keyOf(key, keyLength, hashCode);
    if (wanted.length > maxKeyLength) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Key is too long");
        return 0;
    }
    return Engine::set(KOR_AT(ex, depth), hash, {wanted, copyKey != 0, value});
}

uint64_t _korHash_Remove(uint8_t depth, korEx* ex, korHash* hash, const void* key, uint32_t keyLength,
                         uint32_t hashCode)
{
    if (hash == nullptr || key == nullptr) {
        return 0;
    }
    return Engine::performRemove(KOR_AT_D(depth, ex), hash, keyOf(key, keyLength, hashCode));
}

uint64_t _korHash_RemoveByKeyPtr(uint8_t depth, korEx* ex, korHash* hash, const void* key, uint32_t hashCode)
{
    if (hash == nullptr || key == nullptr) {
        return 0;
    }
    return Engine::performRemove(KOR_AT_D(depth, ex), hash, PointerKey{key, hashCode});
}

// ---- Walking --------------------------------------------------------------------------------------------------------

void _korHash_IteratorInit(korHash* hash, korHashIterator* iterator)
{
    Engine::startWalk(hash, iterator);
}

bool _korHash_Next(korHashIterator* iterator, const void** key, uint32_t* keyLength, uint64_t* value)
{
    const korHashEntry* current = Engine::advance(iterator);
    if (current == nullptr) {
        return false;
    }
    if (key != nullptr) {
        *key = current->key;
    }
    if (keyLength != nullptr) {
        *keyLength = lengthOf(current);
    }
    if (value != nullptr) {
        *value = current->value;
    }
    return true;
}

uint64_t _korHash_SetCurrent(korHashIterator* iterator, uint64_t value)
{
    korHashEntry* current = Engine::currentEntry(iterator);
    return current == nullptr ? 0 : std::exchange(current->value, value);
}

void _korHash_RemoveCurrent(uint8_t depth, korEx* ex, korHashIterator* iterator)
{
    Engine::removeCurrent(KOR_AT_D(depth, ex), iterator);
}

// ---- Measuring ------------------------------------------------------------------------------------------------------

namespace {

struct Statistics {
    int64_t used = 0;         // slots with an entry
    int64_t chained = 0;      // slots with a chain behind
    int64_t chainEntries = 0; // entries behind slots
    int64_t capped = 0;       // the same, each chain counted up to longestTold
    int64_t maxChain = 0;     // likewise
    int64_t copiedBytes = 0;  // copied keys of entries behind slots
};

constexpr int64_t longestTold = 511;

int64_t copiedBytesBehind(const korHashEntry* slot)
{
    int64_t bytes = 0;
    for (const korHashEntry* entry = slot->chainNext; entry != nullptr; entry = entry->chainNext) {
        bytes += isCopied(entry) ? lengthOf(entry) : 0;
    }
    return bytes;
}

Statistics measure(const korHash* hash)
{
    Statistics sum;
    for (int64_t index = 0; index < hash->slotCount; ++index) {
        const korHashEntry* slot = &hash->slots[index];
        int64_t length = Engine::chainLength(slot);
        sum.used += Engine::isLive(slot);
        if (length > 0) {
            ++sum.chained;
            sum.chainEntries += length;
            sum.capped += std::min(length, longestTold);
            sum.maxChain = std::max(sum.maxChain, std::min(length, longestTold));
            sum.copiedBytes += copiedBytesBehind(slot);
        }
    }
    return sum;
}

double ratio(int64_t part, int64_t whole)
{
    return whole == 0 ? 0.0 : static_cast<double>(static_cast<float>(part) / static_cast<float>(whole));
}

int64_t entryBytes(int64_t entries)
{
    return entries * static_cast<int64_t>(sizeof(korHashEntry));
}

void printInfo(const korHash* hash)
{
    Statistics sum = measure(hash);
    int64_t bytes = static_cast<int64_t>(sizeof(korHash)) + entryBytes(hash->slotCount + sum.chainEntries);
    std::fprintf(stderr, "Slots Allocated  = %" PRId64 "\n", hash->slotCount);
    std::fprintf(stderr, "Slots Used       = %" PRId64 "\n", sum.used);
    std::fprintf(stderr, "Slots Percentage = %.2f%%\n", ratio(sum.used * 100, hash->slotCount));
    std::fprintf(stderr, "Entries          = %" PRId64 "\n", hash->count);
    std::fprintf(stderr, "Max Chain        = %" PRId64 "\n", sum.maxChain);
    std::fprintf(stderr, "Total All Chains = %" PRId64 "\n", sum.capped);
    std::fprintf(stderr, "Chain Average    = %.2f\n", ratio(sum.capped, sum.chained));
    std::fprintf(stderr, "Memory copied keys  = %" PRId64 " bytes\n", sum.copiedBytes);
    std::fprintf(stderr, "Memory bins+entries = %" PRId64 " bytes\n", bytes);
    std::fprintf(stderr, "Memory total        = %" PRId64 " bytes\n", sum.copiedBytes + bytes);
}

} // namespace

uint32_t _korHash_Memory(const korHash* hash)
{
    int64_t bytes = 0;
    for (; hash != nullptr; hash = hash->oldHash) {
        bytes += static_cast<int64_t>(sizeof(korHash)) + entryBytes(hash->slotCount + measure(hash).chainEntries);
    }
    return static_cast<uint32_t>(bytes);
}

void _korHash_Info(const korHash* hash)
{
    printInfo(hash);
    if (hash->oldHash != nullptr) {
        std::fputs("Old Hash Info:\n", stderr);
        printInfo(hash->oldHash);
    }
}
