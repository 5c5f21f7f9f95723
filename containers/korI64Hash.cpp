// korI64Hash.cpp - the map from 64-bit integers to 64-bit values.
//
// All entries lie on one circle, and those of a slot stand together on it with the slot's own record first. That one
// rule makes the circle the chain of every slot: a search starts at the slot and ends at the first entry of another
// one.

#include "korutil/korI64Hash.h"
#include "containers/cachedChunk.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"

#include <utility>

static_assert(sizeof(korI64Entry) == 32 && sizeof(korI64Hash) == 32);
static_assert(offsetof(korI64Hash, slots) == 8 && offsetof(korI64Hash, entryCount) == 28);

namespace kor {
namespace {

constexpr int32_t maxInitialSlots = 0x40000000;
constexpr uint32_t maxGrownSlots = 0x100000; // no growth beyond: chains get longer instead

uint32_t homeOf(const korI64Hash* hash, int64_t key)
{
    return static_cast<uint32_t>(key) & (hash->slotCount - 1);
}

korI64Entry* slotOf(const korI64Hash* hash, int64_t key)
{
    return &hash->slots[homeOf(hash, key)];
}

bool isEmpty(const korI64Entry* slot)
{
    return slot->next == nullptr;
}

// True for an entry that is not a slot's own record.
bool isChained(const korI64Hash* hash, const korI64Entry* entry)
{
    return entry != slotOf(hash, entry->key);
}

// The search behind a slot's own record.
korI64Entry* findChained(korI64Entry* slot, const korI64Hash* hash, int64_t key)
{
    uint32_t home = homeOf(hash, key);
    for (korI64Entry* entry = slot->next; entry != slot && homeOf(hash, entry->key) == home; entry = entry->next) {
        if (entry->key == key) {
            return entry;
        }
    }
    return nullptr;
}

// The entry of `key`, which may be the slot's own, or null. The key is compared before the link is read, so that a hit
// in the slot touches the first half of the record alone, which never lies across two cache lines. An empty slot has
// key 0, and 0 is at home in the first slot only: no other key than 0 can meet an empty slot with its own key.
KOR_INLINE korI64Entry* find(const korI64Hash* hash, int64_t key)
{
    korI64Entry* slot = slotOf(hash, key);
    if (KOR_LIKELY(slot->key == key)) {
        return KOR_LIKELY(key != 0) || !isEmpty(slot) ? slot : nullptr;
    }
    return isEmpty(slot) ? nullptr : findChained(slot, hash, key);
}

// Walks the whole circle of a small table, for the hostile build.
void check([[maybe_unused]] const korI64Hash* hash)
{
    constexpr uint32_t smallTable = 512;
    if (!hostile || hash->slotCount == 0 || hash->entryCount > smallTable) {
        return;
    }
    uint32_t seen = 0;
    const korI64Entry* entry = hash->listHead;
    KOR_INVARIANT((entry == nullptr) == (hash->entryCount == 0));
    KOR_INVARIANT(entry == nullptr || !isChained(hash, entry));
    while (entry != nullptr) {
        seen++;
        KOR_INVARIANT(entry->next->prev == entry && !isEmpty(slotOf(hash, entry->key)));
        KOR_INVARIANT(!isChained(hash, entry) || homeOf(hash, entry->prev->key) == homeOf(hash, entry->key));
        entry = entry->next == hash->listHead ? nullptr : entry->next;
    }
    KOR_INVARIANT(seen == hash->entryCount);
}

// ---- The circle ----

void linkBehind(korI64Entry* entry, korI64Entry* place)
{
    entry->prev = place;
    entry->next = place->next;
    place->next->prev = entry;
    place->next = entry;
}

// Links a slot's own record at the end of the circle and makes it the start.
void linkAsHead(korI64Hash* hash, korI64Entry* entry)
{
    if (hash->listHead == nullptr) {
        entry->next = entry->prev = entry;
    } else {
        linkBehind(entry, hash->listHead->prev);
    }
    hash->listHead = entry;
}

void unlink(korI64Entry* entry)
{
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
}

// ---- Records of the chains: from the pools' cache if there are pools, else the heap ----

korI64Entry* takeEntry(korEx* ex, uint8_t depth, korI64HashPools* pools)
{
    void* entry = pools != nullptr ? _korPoolCache_Get(KOR_AT(ex, depth), &pools->entryCache)
                                   : request<korI64Entry>(KOR_AT(ex, depth));
    return static_cast<korI64Entry*>(entry);
}

void releaseEntry(uint8_t depth, korEx* ex, korI64HashPools* pools, korI64Entry* entry)
{
    if (pools != nullptr) {
        returnToCache(KOR_AT_D(depth, ex), &pools->entryCache, entry);
    } else {
        _kor_free(KOR_AT_D(depth, ex), entry);
    }
}

// ---- Making ----

// At least `slots` rounded up to a power of two, 0 for a table that needs no array.
uint32_t slotCountFor(int32_t slots)
{
    if (slots < 2) {
        return 0;
    }
    uint32_t count = 2;
    while (count < static_cast<uint32_t>(slots) && count < maxInitialSlots) {
        count *= 2;
    }
    return count;
}

void performInit(korEx* ex, uint8_t depth, korI64Hash* hash, int32_t slots)
{
    *hash = {}; // a valid, empty table, and so it stays if anything below fails
    if (ex->code != 0) {
        return;
    }
    if (slots == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    uint32_t count = slotCountFor(slots);
    if (count == 0) {
        return;
    }
    hash->slots = requestZeroed<korI64Entry>(KOR_AT(ex, depth), count);
    hash->slotCount = ex->code == 0 ? count : 0;
}

// ---- Growth ----

// The entry that lay in the object becomes the first in an array of two slots.
void growFromSingle(korEx* ex, uint8_t depth, korI64Hash* hash)
{
    auto* slots = requestZeroed<korI64Entry>(KOR_AT(ex, depth), 2);
    if (ex->code != 0) {
        return;
    }
    korI64Entry* slot = &slots[hash->singleKey & 1];
    slot->key = hash->singleKey;
    slot->value = hash->singleValue;
    hash->singleKey = 0;
    hash->slots = slots;
    hash->slotCount = 2;
    linkAsHead(hash, slot);
}

// Moves one entry of the old circle into the new array. True if its record fell free: it was a chain record, and its
// new slot had room. The first entry of a group, which lies in the old array, always finds its new slot empty, for no
// other group reaches that slot; so nothing of the old array is ever linked.
bool moveEntry(korI64Hash* hash, korI64Entry* entry, bool chained)
{
    korI64Entry* slot = slotOf(hash, entry->key);
    if (!isEmpty(slot)) {
        KOR_INVARIANT(chained);
        linkBehind(entry, slot);
        return false;
    }
    slot->key = entry->key;
    slot->value = entry->value;
    linkAsHead(hash, slot);
    return chained;
}

void doubleSlots(korEx* ex, uint8_t depth, korI64Hash* hash, korI64HashPools* pools)
{
    korI64Hash old = *hash;
    auto* slots = requestZeroed<korI64Entry>(KOR_AT(ex, depth), old.slotCount * 2);
    size_t spareSize = old.slotCount * sizeof(korI64Entry*); // each old slot leaves one record over at most
    void* memory = ex->code == 0 ? request<void>(KOR_AT(ex, depth), spareSize) : nullptr;
    auto* spare = static_cast<korI64Entry**>(memory);
    if (spare == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), slots);
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
        return;
    }
    hash->slots = slots;
    hash->slotCount = old.slotCount * 2;
    hash->listHead = nullptr;
    uint32_t spares = 0;
    korI64Entry* entry = old.listHead;
    do {
        korI64Entry* next = entry->next;
        if (moveEntry(hash, entry, isChained(&old, entry))) {
            spare[spares++] = entry;
        }
        entry = next;
    } while (entry != old.listHead);
    check(hash);
    while (spares > 0) {
        releaseEntry(KOR_AT_D(depth, ex), pools, spare[--spares]);
    }
    _kor_free(KOR_AT_D(depth, ex), spare);
    _kor_free(KOR_AT_D(depth, ex), old.slots);
}

void grow(korEx* ex, uint8_t depth, korI64Hash* hash, korI64HashPools* pools, korI64HashIterator* iterator)
{
    // An iterator on key 0 is left as it is: 0 stands for "on no entry" here.
    int64_t currentKey = iterator != nullptr && iterator->current != nullptr ? iterator->current->key : 0;
    if (hash->slotCount == 0) {
        growFromSingle(KOR_AT(ex, depth), hash);
    } else {
        doubleSlots(KOR_AT(ex, depth), hash, pools);
    }
    if (currentKey != 0 && hash->slotCount != 0) {
        iterator->current = find(hash, currentKey);
    }
}

uint64_t performSetEx(korEx* ex, uint8_t depth, korI64Hash* hash, korI64HashPools* pools, int64_t key, uint64_t value,
                      korI64HashIterator* iterator)
{
    if (ex->code != 0) {
        return 0;
    }
    if (hash->slotCount == 0 && hash->entryCount == 0) {
        hash->singleKey = key;
        hash->singleValue = value;
        hash->entryCount = 1;
        return 0;
    }
    if (hash->entryCount >= hash->slotCount && hash->slotCount < maxGrownSlots) {
        grow(KOR_AT(ex, depth), hash, pools, iterator);
        if (ex->code != 0) {
            return 0;
        }
    }
    korI64Entry* slot = slotOf(hash, key);
    korI64Entry* entry = find(hash, key);
    if (entry != nullptr) {
        return std::exchange(entry->value, value);
    }
    if (isEmpty(slot)) {
        entry = slot;
        linkAsHead(hash, entry);
    } else {
        entry = takeEntry(KOR_AT(ex, depth), pools);
        if (entry == nullptr) {
            return 0;
        }
        linkBehind(entry, slot);
    }
    entry->key = key;
    entry->value = value;
    hash->entryCount++;
    check(hash);
    return 0;
}

// ---- Removal ----

// How an entry went. What becomes of an iterator follows from it, and differs between the operations.
enum class Removal {
    chained,  // a chain record, unlinked
    last,     // the only entry: the circle is gone
    alone,    // the only entry of its slot
    takenOver // a slot's own record, which now holds the entry behind it
};

Removal removeEntry(uint8_t depth, korEx* ex, korI64Hash* hash, korI64HashPools* pools, korI64Entry* entry)
{
    korI64Entry* next = entry->next;
    hash->entryCount--;
    if (isChained(hash, entry)) {
        unlink(entry);
        releaseEntry(KOR_AT_D(depth, ex), pools, entry);
        return Removal::chained;
    }
    if (hash->entryCount == 0) {
        *entry = {};
        hash->listHead = nullptr;
        return Removal::last;
    }
    if (slotOf(hash, next->key) == entry) {
        entry->key = next->key;
        entry->value = next->value;
        unlink(next);
        releaseEntry(KOR_AT_D(depth, ex), pools, next);
        return Removal::takenOver;
    }
    unlink(entry);
    if (hash->listHead == entry) {
        hash->listHead = next;
    }
    *entry = {};
    return Removal::alone;
}

uint64_t removeSingle(korI64Hash* hash, int64_t key)
{
    if (hash->entryCount != 1 || hash->singleKey != key) {
        return 0;
    }
    hash->entryCount = 0;
    return hash->singleValue;
}

// Where a removal by key leaves an iterator that stood on the entry (`stoodOn`) or on the one behind it
// (`stoodBehind`).
void followRemoval(korI64HashIterator* iterator, Removal removal, bool stoodOn, bool stoodBehind, korI64Entry* entry,
                   korI64Entry* next)
{
    if (removal == Removal::last) {
        iterator->current = nullptr;
    } else if (stoodOn) {
        iterator->skipAdvance = 1;
        if (removal == Removal::chained) {
            iterator->current = next;
        } else if (removal == Removal::alone) {
            iterator->current = nullptr; // ends the walk; removing the current entry is the operation that goes on
        }
    } else if (stoodBehind && removal == Removal::takenOver) {
        iterator->current = entry;
    }
}

uint64_t performRemove(uint8_t depth, korEx* ex, korI64Hash* hash, korI64HashPools* pools, int64_t key,
                       korI64HashIterator* iterator)
{
    if (hash == nullptr) {
        return 0;
    }
    if (hash->slotCount == 0) {
        return removeSingle(hash, key);
    }
    korI64Entry* entry = find(hash, key);
    if (entry == nullptr) {
        return 0;
    }
    uint64_t value = entry->value;
    korI64Entry* next = entry->next;
    bool stoodOn = iterator != nullptr && iterator->current == entry;
    bool stoodBehind = iterator != nullptr && iterator->current == next;
    Removal removal = removeEntry(KOR_AT_D(depth, ex), hash, pools, entry);
    if (iterator != nullptr) {
        followRemoval(iterator, removal, stoodOn, stoodBehind, entry, next);
    }
    check(hash);
    return value;
}

void performRemoveCurrent(uint8_t depth, korEx* ex, korI64HashIterator* iterator, korI64HashPools* pools)
{
    if (iterator == nullptr) {
        return;
    }
    korI64Hash* hash = iterator->hash;
    iterator->skipAdvance = 1;
    if (hash->slotCount == 0) {
        hash->entryCount = 0;
        return;
    }
    korI64Entry* entry = iterator->current;
    if (entry == nullptr) {
        return;
    }
    korI64Entry* next = entry->next == hash->listHead ? nullptr : entry->next;
    if (removeEntry(KOR_AT_D(depth, ex), hash, pools, entry) != Removal::takenOver) {
        iterator->current = next;
    }
    check(hash);
}

// The entry that a walk gives next, with `current` on it, or null at the end.
korI64Entry* advance(korI64HashIterator* iterator)
{
    korI64Entry* entry = iterator->current;
    if (entry != nullptr && iterator->skipAdvance == 0) {
        entry = entry->next == iterator->hash->listHead ? nullptr : entry->next;
        iterator->current = entry;
    }
    return entry;
}

void give(int64_t fromKey, uint64_t fromValue, int64_t* key, uint64_t* value)
{
    if (key != nullptr) {
        *key = fromKey;
    }
    if (value != nullptr) {
        *value = fromValue;
    }
}

void performClear(uint8_t depth, korEx* ex, korI64Hash* hash, korI64HashPools* pools)
{
    if (hash == nullptr) {
        return;
    }
    if (hash->slotCount != 0) {
        korI64Entry* entry = hash->listHead;
        if (entry != nullptr) {
            entry->prev->next = nullptr; // opens the circle
        }
        while (entry != nullptr) {
            korI64Entry* next = entry->next;
            if (isChained(hash, entry)) {
                releaseEntry(KOR_AT_D(depth, ex), pools, entry);
            }
            entry = next;
        }
        _kor_free(KOR_AT_D(depth, ex), hash->slots);
    }
    *hash = {};
}

} // namespace
} // namespace kor

using namespace kor;

// ---- Pools ----------------------------------------------------------------------------------------------------------

void _korI64Hash_CreatePoolsEx(korEx* ex, uint8_t depth, korI64HashPools* pools, int64_t cacheSize)
{
    constexpr int32_t chunksPerBlock = 100;
    constexpr int32_t minBlocks = 1;
    constexpr int32_t refillTarget = 100;
    *pools = {};
    pools->hashPool = _korPool_Create(KOR_AT(ex, depth), chunksPerBlock, sizeof(korI64Hash), nullptr, nullptr,
                                      minBlocks, refillTarget);
    korPool* entries = _korPool_Create(KOR_AT(ex, depth), chunksPerBlock, sizeof(korI64Entry), nullptr, nullptr,
                                       minBlocks, refillTarget);
    if (entries != nullptr) {
        _korPoolCache_Init(KOR_AT(ex, depth), &pools->entryCache, cacheSize, entries);
        pools->entryCache.pool = entries; // a failed cache, too, is where the pool is found
    }
    if (ex->code != 0) {
        _korI64Hash_DestroyPools(KOR_AT_D(depth, ex), pools);
    }
}

void _korI64Hash_CreatePools(korEx* ex, uint8_t depth, korI64HashPools* pools)
{
    _korI64Hash_CreatePoolsEx(KOR_AT(ex, depth), pools, -1);
}

void _korI64Hash_DestroyPools(uint8_t depth, korEx* ex, korI64HashPools* pools)
{
    if (pools == nullptr) {
        return;
    }
    korPool* entries = pools->entryCache.pool;
    _korPoolCache_Clear(KOR_AT_D(depth, ex), &pools->entryCache);
    _korPool_Destroy(KOR_AT_D(depth, ex), entries);
    _korPool_Destroy(KOR_AT_D(depth, ex), pools->hashPool);
    pools->entryCache.pool = nullptr;
    pools->hashPool = nullptr;
}

// ---- Tables ---------------------------------------------------------------------------------------------------------

void _korI64Hash_Init(korEx* ex, uint8_t depth, korI64Hash* hash, int32_t slots)
{
    performInit(KOR_AT(ex, depth), hash, slots);
}

void _korI64Hash_InitPooled(korEx* ex, uint8_t depth, korI64Hash* hash, korI64HashPools*, int32_t slots)
{
    performInit(KOR_AT(ex, depth), hash, slots);
}

korI64Hash* _korI64Hash_Create(korEx* ex, uint8_t depth, int32_t slots)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* hash = requestZeroed<korI64Hash>(KOR_AT(ex, depth));
    if (hash == nullptr) {
        return nullptr;
    }
    performInit(KOR_AT(ex, depth), hash, slots);
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), hash);
        return nullptr;
    }
    return hash;
}

korI64Hash* _korI64Hash_CreatePooled(korEx* ex, uint8_t depth, korI64HashPools* pools, int32_t slots)
{
    auto* hash = static_cast<korI64Hash*>(_korPool_Get(KOR_AT(ex, depth), pools->hashPool));
    if (hash == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
        return nullptr;
    }
    performInit(KOR_AT(ex, depth), hash, slots);
    if (ex->code != 0) {
        _korPool_Return(KOR_AT_D(depth, ex), pools->hashPool, hash);
        return nullptr;
    }
    return hash;
}

void _korI64Hash_Clear(uint8_t depth, korEx* ex, korI64Hash* hash)
{
    performClear(KOR_AT_D(depth, ex), hash, nullptr);
}

void _korI64Hash_ClearPooled(uint8_t depth, korEx* ex, korI64Hash* hash, korI64HashPools* pools)
{
    performClear(KOR_AT_D(depth, ex), hash, pools);
}

void _korI64Hash_Destroy(uint8_t depth, korEx* ex, korI64Hash* hash)
{
    performClear(KOR_AT_D(depth, ex), hash, nullptr);
    _kor_free(KOR_AT_D(depth, ex), hash);
}

void _korI64Hash_DestroyPooled(uint8_t depth, korEx* ex, korI64Hash* hash, korI64HashPools* pools)
{
    if (hash == nullptr) {
        return;
    }
    performClear(KOR_AT_D(depth, ex), hash, pools);
    _korPool_Return(KOR_AT_D(depth, ex), pools->hashPool, hash);
}

// ---- Entries --------------------------------------------------------------------------------------------------------

uint64_t _korI64Hash_Get(korEx* ex, uint8_t, const korI64Hash* hash, int64_t key)
{
    if (ex->code != 0) {
        return 0;
    }
    if (hash->slotCount == 0) {
        return hash->entryCount == 1 && hash->singleKey == key ? hash->singleValue : 0;
    }
    const korI64Entry* entry = find(hash, key);
    return entry != nullptr ? entry->value : 0;
}

uint64_t _korI64Hash_Set(korEx* ex, uint8_t depth, korI64Hash* hash, int64_t key, uint64_t value)
{
    return performSetEx(KOR_AT(ex, depth), hash, nullptr, key, value, nullptr);
}

uint64_t _korI64Hash_SetIterSafe(korEx* ex, uint8_t depth, korI64Hash* hash, int64_t key, uint64_t value,
                                 korI64HashIterator* iterator)
{
    return performSetEx(KOR_AT(ex, depth), hash, nullptr, key, value, iterator);
}

uint64_t _korI64Hash_SetPooled(korEx* ex, uint8_t depth, korI64Hash* hash, korI64HashPools* pools, int64_t key,
                               uint64_t value)
{
    return performSetEx(KOR_AT(ex, depth), hash, pools, key, value, nullptr);
}

uint64_t _korI64Hash_Remove(uint8_t depth, korEx* ex, korI64Hash* hash, int64_t key)
{
    return performRemove(KOR_AT_D(depth, ex), hash, nullptr, key, nullptr);
}

uint64_t _korI64Hash_RemoveIterSafe(uint8_t depth, korEx* ex, korI64Hash* hash, int64_t key,
                                    korI64HashIterator* iterator)
{
    return performRemove(KOR_AT_D(depth, ex), hash, nullptr, key, iterator);
}

uint64_t _korI64Hash_RemovePooled(uint8_t depth, korEx* ex, korI64Hash* hash, korI64HashPools* pools, int64_t key)
{
    return performRemove(KOR_AT_D(depth, ex), hash, pools, key, nullptr);
}

uint64_t _korI64Hash_RemovePooledIterSafe(uint8_t depth, korEx* ex, korI64Hash* hash, korI64HashPools* pools,
                                          int64_t key, korI64HashIterator* iterator)
{
    return performRemove(KOR_AT_D(depth, ex), hash, pools, key, iterator);
}

// ---- Walks ----------------------------------------------------------------------------------------------------------

void _korI64Hash_IteratorInit(korEx* ex, uint8_t, korI64Hash* hash, korI64HashIterator* iterator)
{
    if (ex->code == 0) {
        *iterator = {.current = hash->listHead, .hash = hash, .skipAdvance = 1};
    }
}

bool _korI64Hash_Next(korEx* ex, uint8_t, korI64HashIterator* iterator, int64_t* key, uint64_t* value)
{
    if (ex->code != 0) {
        return false;
    }
    const korI64Hash* hash = iterator->hash;
    if (hash->slotCount == 0) {
        if (iterator->skipAdvance == 0 || hash->entryCount == 0) {
            return false;
        }
        give(hash->singleKey, hash->singleValue, key, value);
    } else {
        const korI64Entry* entry = advance(iterator);
        if (entry == nullptr) {
            return false;
        }
        give(entry->key, entry->value, key, value);
    }
    iterator->skipAdvance = 0;
    return true;
}

void _korI64Hash_IteratorDone(korEx*, uint8_t, korI64HashIterator* iterator)
{
    iterator->current = nullptr;
}

void _korI64Hash_RemoveCurrent(uint8_t depth, korEx* ex, korI64HashIterator* iterator)
{
    performRemoveCurrent(KOR_AT_D(depth, ex), iterator, nullptr);
}

void _korI64Hash_RemoveCurrentPooled(uint8_t depth, korEx* ex, korI64HashIterator* iterator, korI64HashPools* pools)
{
    performRemoveCurrent(KOR_AT_D(depth, ex), iterator, pools);
}
