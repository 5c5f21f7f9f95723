// korHash_test.cpp - the chained hash and its typed forms: one body of checks for all of them, then the rules one by
// one.

#include "containers/lazyTableModel.h"

#include "korutil/korHIDHash.h"
#include "korutil/korHash.h"
#include "korutil/korPool.h"
#include "korutil/korSpookyHash.h"
#include "korutil/korStrHash.h"

#include <cstring>
#include <vector>

namespace kor::test {
namespace {

struct Pools {
    korPool* hash = nullptr;
    korPool* entry = nullptr;
    korPool* key = nullptr;
};

// What the forms have in common: table, pools, a walk, and keys that outlive the table.
class HashSubject
{
public:
    static constexpr bool removesPrivately = true;
    HashSubject(korEx* ex, int64_t slots, bool pooled, int32_t keySize) : ex_(ex)
    {
        if (pooled) {
            _korHash_CreatePools(KOR_AT(ex, 0), &pools_.hash, &pools_.entry, keySize, &pools_.key, 0);
        }
        table_ = _korHash_CreatePooled(KOR_AT(ex, 0), slots, pools_.hash, pools_.entry, pools_.key);
    }
    ~HashSubject()
    {
        _korHash_Destroy(KOR_AT_D(0, ex_), table_);
        for (korPool* pool : {pools_.hash, pools_.entry, pools_.key}) {
            _korPool_Destroy(KOR_AT_D(0, ex_), pool);
        }
    }
    HashSubject(const HashSubject&) = delete;
    HashSubject& operator=(const HashSubject&) = delete;
    korHash* table() { return table_; }
    void startWalk() { _korHash_IteratorInit(table_, &walk_); }
    void removeCurrent() { _korHash_RemoveCurrent(KOR_AT_D(0, ex_), &walk_); }

protected:
    // Keys of every third number are not copied; their text is kept here.
    static bool copies(uint64_t number) { return number % 3 != 0; }
    korEx* ex_;
    korHash* table_;
    Pools pools_;
    korHashIterator walk_{};
};

// Each key twice: to store, and to ask with from another address. Made once, since the sweep fails every allocation.
template <class Key>
struct KeyPair {
    Key stored, asked;
};

template <class Key>
std::vector<KeyPair<Key>> makeKeys(Key (*make)(uint64_t number))
{
    std::vector<KeyPair<Key>> keys;
    for (uint64_t number = 0; number < lazyTableNumbers; number++) {
        keys.push_back({make(number), make(number)});
    }
    return keys;
}

// Binary keys of 9 to 309 bytes that begin with the number; a quarter with codes that collide.
template <bool Pooled>
class ByteSubject : public HashSubject
{
public:
    ByteSubject(korEx* ex, int64_t slots) : HashSubject(ex, slots, Pooled, 64) {}
    uint64_t set(uint64_t number, uint64_t value)
    {
        const std::string& key = keys()[number].stored;
        return _korHash_Set(KOR_AT(ex_, 0), table_, key.data(), size(key), code(number), copies(number), value);
    }
    uint64_t get(uint64_t number)
    {
        const std::string& key = keys()[number].asked;
        return _korHash_Get(KOR_AT(ex_, 0), table_, key.data(), size(key), code(number));
    }
    uint64_t remove(uint64_t number)
    {
        const std::string& key = keys()[number].asked;
        return _korHash_Remove(KOR_AT_D(0, ex_), table_, key.data(), size(key), code(number));
    }
    bool next(uint64_t* number, uint64_t* value)
    {
        const void* key;
        uint32_t length;
        if (!_korHash_Next(&walk_, &key, &length, value)) {
            return false;
        }
        std::memcpy(number, key, sizeof(*number));
        return length == size(keys()[*number].stored);
    }

private:
    static uint32_t size(const std::string& key) { return static_cast<uint32_t>(key.size()); }
    static uint32_t code(uint64_t number) { return number % 4 == 0 ? static_cast<uint32_t>(number % 64) + 1 : 0; }
    static std::string make(uint64_t number)
    {
        std::string key(9 + number % 7 * 50, 'k');
        std::memcpy(key.data(), &number, sizeof(number));
        return key;
    }
    static const std::vector<KeyPair<std::string>>& keys()
    {
        static const auto made = makeKeys(make);
        return made;
    }
};

class TextSubject : public HashSubject
{
public:
    TextSubject(korEx* ex, int64_t slots) : HashSubject(ex, slots, true, 4) {}
    uint64_t set(uint64_t number, uint64_t value)
    {
        return _korStrHash_Set(KOR_AT(ex_, 0), table_, keys()[number].stored.c_str(), copies(number), value);
    }
    uint64_t get(uint64_t number) { return _korStrHash_Get(KOR_AT(ex_, 0), table_, keys()[number].asked.c_str()); }
    uint64_t remove(uint64_t number)
    {
        return _korStrHash_Remove(KOR_AT_D(0, ex_), table_, keys()[number].asked.c_str());
    }
    bool next(uint64_t* number, uint64_t* value)
    {
        const char* key;
        bool more = _korStrHash_Next(&walk_, &key, value);
        *number = more ? std::strtoull(key, nullptr, 10) : 0;
        return more;
    }

private:
    static std::string make(uint64_t number) { return std::to_string(number); }
    static const std::vector<KeyPair<std::string>>& keys()
    {
        static const auto made = makeKeys(make);
        return made;
    }
};

// A third UUIDs, a third numbers whose low word is 0, a third ordinary numbers.
class IdentifierSubject : public HashSubject
{
public:
    IdentifierSubject(korEx* ex, int64_t slots) : HashSubject(ex, slots, false, 0) {}
    uint64_t set(uint64_t number, uint64_t value)
    {
        return _korHIDHash_Set(KOR_AT(ex_, 0), table_, &keys()[number].stored, copies(number / 3), value);
    }
    uint64_t get(uint64_t number)
    {
        uint64_t value = _korHIDHash_Get(KOR_AT(ex_, 0), table_, &keys()[number].asked);
        if (ex_->code == 0) {
            bool present = _korHIDHash_ContainsKey(KOR_AT(ex_, 0), table_, &keys()[number].asked);
            EXPECT_EQ(present, value != 0);
        }
        return value;
    }
    uint64_t remove(uint64_t number)
    {
        const korHeaderID* key = &keys()[number].asked;
        return number % 2 == 0 ? _korHIDHash_Remove(KOR_AT(ex_, 0), table_, key)
                               : _korHIDHash_RemoveEx(KOR_AT_D(0, ex_), table_, key);
    }
    bool next(uint64_t* number, uint64_t* value)
    {
        const korHeaderID* key;
        if (!_korHIDHash_Next(&walk_, &key, value)) {
            return false;
        }
        *number = key->id == 0 ? key->uuid[1] : (key->id & UINT32_MAX) == 0 ? (key->id >> 32) - 1 : key->id - 1;
        return true;
    }

private:
    static korHeaderID make(uint64_t number)
    {
        switch (number % 3) {
        case 0:
            return {0, {~number, number}};
        case 1:
            return {(number + 1) << 32, {0, 0}};
        default:
            return {number + 1, {number, 1}}; // the UUID is no part of a number's key
        }
    }
    static const std::vector<KeyPair<korHeaderID>>& keys()
    {
        static const auto made = makeKeys(make);
        return made;
    }
};

using Subjects = testing::Types<ByteSubject<false>, ByteSubject<true>, TextSubject, IdentifierSubject>;
INSTANTIATE_TYPED_TEST_SUITE_P(Hash, LazyTableTest, Subjects);

class HashTest : public KorTest
{
protected:
    ~HashTest() override { _korHash_Destroy(KOR_AT_D(0, ex), hash); }

    void create(int64_t slots) { hash = _korHash_Create(KOR_AT(ex, 0), slots); }
    // Keys by number; the code, a multiple of the slots away, makes the number pick the slot, and is never 0.
    static uint32_t code(uint32_t number) { return number + 64; }
    uint64_t set(uint32_t number, uint64_t value)
    {
        return _korHash_Set(KOR_AT(ex, 0), hash, &number, sizeof(number), code(number), 1, value);
    }
    uint64_t get(uint32_t number) { return _korHash_Get(KOR_AT(ex, 0), hash, &number, sizeof(number), code(number)); }
    uint64_t remove(uint32_t number)
    {
        return _korHash_Remove(KOR_AT_D(0, ex), hash, &number, sizeof(number), code(number));
    }
    void fill(uint32_t from, uint32_t to)
    {
        for (uint32_t number = from; number < to; number++) {
            set(number, number + 1);
        }
    }
    std::vector<uint64_t> walk()
    {
        std::vector<uint64_t> values;
        korHashIterator iterator;
        _korHash_IteratorInit(hash, &iterator);
        for (uint64_t value; _korHash_Next(&iterator, nullptr, nullptr, &value);) {
            values.push_back(value);
        }
        return values;
    }

    korHash* hash = nullptr;
};

TEST_F(HashTest, slotsAreRoundedUpAndMustBePositive)
{
    const int64_t cases[][2] = {{1, 1}, {2, 2}, {3, 4}, {1000, 1024}, {1024, 1024}};
    for (const auto& [wanted, found] : cases) {
        korHash table;
        _korHash_Init(KOR_AT(ex, 0), &table, wanted);
        EXPECT_EQ(table.slotCount, found);
        _korHash_Clear(KOR_AT_D(0, ex), &table);
        EXPECT_EQ(table.slotCount, 0);
        _korHash_Clear(KOR_AT_D(0, ex), &table);
    }
    for (int64_t wanted : {int64_t{0}, int64_t{-1}, INT64_MIN}) {
        create(wanted);
        EXPECT_EQ(hash, nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Number of slots must be greater than zero");
    }
}

TEST_F(HashTest, aClearedTableIsEmptyAndRefusesEntries)
{
    korHash table;
    _korHash_Init(KOR_AT(ex, 0), &table, 1);
    for (const char* key : {"a", "b", "c"}) {
        _korHash_Set(KOR_AT(ex, 0), &table, key, 0, 0, 1, 1);
    }
    _korHash_Clear(KOR_AT_D(0, ex), &table);
    EXPECT_EQ(_korHash_Get(KOR_AT(ex, 0), &table, "a", 0, 0), 0);
    EXPECT_EQ(_korHash_Remove(KOR_AT_D(0, ex), &table, "a", 0, 0), 0);
    korHashIterator iterator;
    _korHash_IteratorInit(&table, &iterator);
    EXPECT_FALSE(_korHash_Next(&iterator, nullptr, nullptr, nullptr));
    _korHash_Set(KOR_AT(ex, 0), &table, "a", 0, 0, 1, 1);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Number of slots must be greater than zero");
}

TEST_F(HashTest, lengthAndCodeOfAKey)
{
    create(16);
    std::string text(200, 'x');
    for (size_t length : {size_t{0}, size_t{1}, size_t{190}, size_t{191}, size_t{199}}) {
        const char* key = text.c_str() + 200 - length;
        _korHash_Set(KOR_AT(ex, 0), hash, key, 0, 0, 0, length + 1);
        const korHashEntry* entry = hash->lastEntry;
        EXPECT_EQ(entry->keyLength, length + 1); // the terminator counts
        uint64_t whole = length + 1 < 192 ? _korSpookyHash_Short(key, length + 1, nullptr)
                                          : _korSpookyHash_Long(key, length + 1, nullptr);
        EXPECT_EQ(entry->hash, static_cast<uint32_t>(whole));
        EXPECT_EQ(_korHash_Get(KOR_AT(ex, 0), hash, key, static_cast<uint32_t>(length + 1), 0), length + 1);
    }
    EXPECT_EQ(_korHash_Get(KOR_AT(ex, 0), hash, "x", 1, 0), 0); // the same letter without its terminator

    _korHash_Set(KOR_AT(ex, 0), hash, "own code", 0, 77, 0, 5);
    EXPECT_TRUE(_korHash_ContainsKey(KOR_AT(ex, 0), hash, "own code", 0, 77));
    EXPECT_FALSE(_korHash_ContainsKey(KOR_AT(ex, 0), hash, "own code", 0, 0));
    EXPECT_FALSE(_korHash_ContainsKey(KOR_AT(ex, 0), hash, "own code", 0, 77 + 16)); // the same slot

    _korHash_Set(KOR_AT(ex, 0), hash, "k", 0x80000000u, 1, 0, 5);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Key is too long");
    EXPECT_EQ(_korHash_Remove(KOR_AT_D(0, ex), hash, "k", 0x80000001u, 0), 0);
}

TEST_F(HashTest, whoseKeyIsKept)
{
    create(4);
    char first[] = "key";
    char second[] = "key";
    auto setKey = [&](const char* key, uint8_t copy, uint64_t value) {
        return _korHash_Set(KOR_AT(ex, 0), hash, key, 0, 0, copy, value);
    };
    const korHashEntry* const* entry = &hash->firstEntry;
    EXPECT_EQ(setKey(first, 0, 1), 0);
    EXPECT_EQ(setKey(second, 0, 2), 1);
    EXPECT_EQ((*entry)->key, second);
    EXPECT_EQ(_korHash_RemoveByKeyPtr(KOR_AT_D(0, ex), hash, first, (*entry)->hash), 0);
    {
        FailingHeap heap(1);
        EXPECT_EQ(setKey(first, 1, 3), 0);
    }
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    EXPECT_EQ((*entry)->key, second);
    EXPECT_EQ(setKey(first, 1, 3), 2);
    const void* copied = (*entry)->key;
    EXPECT_TRUE(copied != first && copied != second);
    EXPECT_EQ(setKey(second, 0, 4), 3);
    EXPECT_EQ((*entry)->key, copied);
    EXPECT_EQ(_korHash_RemoveByKeyPtr(KOR_AT_D(0, ex), hash, copied, (*entry)->hash), 4);
    EXPECT_EQ(hash->count, 0);
}

TEST_F(HashTest, aNullKeyIsSeenByWalksOnly)
{
    create(4);
    EXPECT_EQ(_korHash_Set(KOR_AT(ex, 0), hash, nullptr, 0, 0, 1, 1), 0);
    EXPECT_EQ(_korHash_Set(KOR_AT(ex, 0), hash, nullptr, 0, 0, 0, 2), 1);
    _korHash_Set(KOR_AT(ex, 0), hash, "b", 0, 0, 0, 3);
    EXPECT_FALSE(_korHash_ContainsKey(KOR_AT(ex, 0), hash, nullptr, 0, 0));
    EXPECT_EQ(_korHash_Remove(KOR_AT_D(0, ex), hash, nullptr, 0, 0), 0);
    korHashIterator iterator;
    uint64_t sum = 0;
    _korHash_IteratorInit(hash, &iterator);
    for (uint64_t value; _korHash_Next(&iterator, nullptr, nullptr, &value); sum += value) {
        _korHash_RemoveCurrent(KOR_AT_D(0, ex), &iterator);
    }
    EXPECT_EQ(sum, 5);
    EXPECT_EQ(walk(), std::vector<uint64_t>{2});
}

// The growth test stands before the search and looks at the table's own count; hits move nothing, misses move two.
TEST_F(HashTest, growsLazily)
{
    create(8);
    fill(0, 8);
    EXPECT_EQ(hash->oldHash, nullptr);
    EXPECT_EQ(set(3, 100), 4); // there already, and yet the table grows
    ASSERT_NE(hash->oldHash, nullptr);
    EXPECT_EQ(hash->slotCount, 16);
    EXPECT_EQ(hash->count, 0);
    EXPECT_EQ(hash->oldHash->count, 8);

    EXPECT_EQ(get(1000), 0);
    EXPECT_EQ(hash->oldHash->count, 6); // 0 and 1 moved
    EXPECT_EQ(get(0), 1);
    EXPECT_EQ(hash->oldHash->count, 6); // a hit in the table
    EXPECT_EQ(set(7, 200), 8);
    EXPECT_EQ(hash->oldHash->count, 6); // updated where it is
    EXPECT_EQ(get(7), 200);
    EXPECT_EQ(hash->oldHash->count, 4); // found in the old table: that is a miss of the table
    EXPECT_EQ(remove(2), 3);
    EXPECT_EQ(hash->oldHash->count, 2);
    _korHash_MakeStatic(KOR_AT(ex, 0), hash);
    EXPECT_EQ(hash->oldHash, nullptr);
    EXPECT_EQ(hash->count, 7);
    EXPECT_EQ(walk(), (std::vector<uint64_t>{1, 2, 100, 5, 6, 7, 200}));
}

TEST_F(HashTest, shrinksLazilyAndNotBelow64)
{
    create(128);
    fill(0, 33);
    remove(0);
    EXPECT_EQ(hash->oldHash, nullptr); // the count before the removal is tested: 33
    EXPECT_EQ(remove(1000), 0);
    ASSERT_NE(hash->oldHash, nullptr); // 32 is a quarter, and an absent key is enough
    EXPECT_EQ(hash->slotCount, 64);
    for (uint32_t number = 1; number < 33; number++) {
        EXPECT_EQ(remove(number), number + 1);
    }
    remove(1000);
    EXPECT_EQ(hash->oldHash, nullptr);
    EXPECT_EQ(hash->slotCount, 64);
}

// Slot 0 of the old table holds 0 and behind it 2; the new pair 4 has taken the new table's slot 0.
TEST_F(HashTest, aMoveThatFailsLosesNothing)
{
    create(2);
    set(0, 10);
    set(2, 12);
    {
        FailingHeap heap(5); // table, cursor, slots, key; then the chain entry for 0
        EXPECT_EQ(set(4, 14), 0);
        EXPECT_TRUE(heap.fired());
    }
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    ASSERT_NE(hash->oldHash, nullptr);
    EXPECT_EQ(hash->count, 2);
    EXPECT_EQ(hash->oldHash->count, 0); // one low from now on: 0 is still there
    EXPECT_EQ(get(4), 14);
    EXPECT_EQ(walk(), (std::vector<uint64_t>{10, 12, 14}));
    {
        FailingHeap heap(1);
        EXPECT_EQ(get(0), 10); // found, and the failure of the move is told
    }
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    {
        FailingHeap heap(1);
        EXPECT_EQ(remove(2), 12); // private
    }
    EXPECT_EQ(get(0), 10);
    EXPECT_EQ(hash->oldHash, nullptr);
    EXPECT_EQ(walk(), (std::vector<uint64_t>{10, 14}));
}

TEST_F(HashTest, aFailedShrinkIsTriedAgain)
{
    create(128);
    fill(0, 3);
    {
        FailingHeap heap(1);
        EXPECT_EQ(remove(1), 2);
        EXPECT_TRUE(heap.fired());
    }
    EXPECT_EQ(hash->slotCount, 128);
    EXPECT_EQ(remove(2), 3);
    EXPECT_EQ(hash->slotCount, 64);
}

TEST_F(HashTest, anErrorPendingStopsAllButRemoves)
{
    create(4);
    fill(0, 4);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "pending");
    EXPECT_EQ(get(1), 0);
    EXPECT_EQ(set(1, 9), 0);
    EXPECT_EQ(set(5, 9), 0);
    _korHash_MakeStatic(KOR_AT(ex, 0), hash);
    EXPECT_EQ(_korHash_Create(KOR_AT(ex, 0), 1), nullptr);
    korHeaderID identifier = {2, {0, 0}};
    EXPECT_EQ(_korHIDHash_Remove(KOR_AT(ex, 0), hash, &identifier), 0);
    EXPECT_EQ(hash->oldHash, nullptr);
    EXPECT_EQ(remove(1), 2);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "pending");
    EXPECT_EQ(walk(), (std::vector<uint64_t>{1, 3, 4}));
}

// There is one marker a table, and an entry of the walk is what stands behind it.
TEST_F(HashTest, walks)
{
    create(4);
    fill(0, 3);
    korHashIterator iterator;
    _korHash_IteratorInit(hash, &iterator);
    _korHash_RemoveCurrent(KOR_AT_D(0, ex), &iterator); // none yet
    uint64_t value = 0;
    EXPECT_TRUE(_korHash_Next(&iterator, nullptr, nullptr, &value));
    EXPECT_EQ(value, 1);
    EXPECT_EQ(_korHash_SetCurrent(&iterator, 50), 1);
    EXPECT_EQ(remove(0), 50); // not through the walk: the entry after it is skipped
    EXPECT_TRUE(_korHash_Next(&iterator, nullptr, nullptr, &value));
    EXPECT_EQ(value, 3);
    EXPECT_FALSE(_korHash_Next(&iterator, nullptr, nullptr, &value));
    EXPECT_EQ(_korHash_SetCurrent(&iterator, 60), 0);
    _korHash_RemoveCurrent(KOR_AT_D(0, ex), &iterator);
    EXPECT_EQ(walk(), (std::vector<uint64_t>{2, 3}));

    // Two keys at one address, told apart by their codes.
    const char path[] = "a/b";
    _korHash_Set(KOR_AT(ex, 0), hash, path, 1, 4, 0, 71);
    _korHash_Set(KOR_AT(ex, 0), hash, path, 3, 8, 0, 73);
    _korHash_IteratorInit(hash, &iterator);
    while (_korHash_Next(&iterator, nullptr, nullptr, &value) && value != 73) {
    }
    _korHash_RemoveCurrent(KOR_AT_D(0, ex), &iterator);
    EXPECT_EQ(walk(), (std::vector<uint64_t>{2, 3, 71}));
}

TEST_F(HashTest, measures)
{
    create(4);
    fill(0, 3);
    set(4, 5); // behind 0
    EXPECT_EQ(_korHash_Memory(hash), 88 + 48 * 5);
    StreamCapture errors(StreamCapture::error);
    _korHash_Info(hash);
    EXPECT_EQ(errors.text(), "Slots Allocated  = 4\n"
                             "Slots Used       = 3\n"
                             "Slots Percentage = 75.00%\n"
                             "Entries          = 4\n"
                             "Max Chain        = 1\n"
                             "Total All Chains = 1\n"
                             "Chain Average    = 1.00\n"
                             "Memory copied keys  = 4 bytes\n"
                             "Memory bins+entries = 328 bytes\n"
                             "Memory total        = 332 bytes\n");

    set(3, 4); // grows; two entries move
    EXPECT_EQ(_korHash_Memory(hash), 88 + 48 * 8 + 88 + 48 * 4);
    StreamCapture both(StreamCapture::error);
    _korHash_Info(hash);
    EXPECT_NE(both.text().find("Memory total        = 472 bytes\nOld Hash Info:\nSlots Allocated  = 4\n"
                               "Slots Used       = 2\n"),
              std::string::npos);
}

TEST_F(HashTest, poolsAreSizedByCapacity)
{
    struct Case {
        int32_t capacity;
        uint32_t entryBlock, keyBlock, refill;
    };
    const Case cases[] = {{-1, 87381, 4194304 / 32, 1000},
                          {0, 100, 100, 10},
                          {100, 100, 100, 10},
                          {101, 101, 101, 10},
                          {20000, 20000, 20000, 1000}};
    for (const Case& wanted : cases) {
        Pools pools;
        _korHash_CreatePools(KOR_AT(ex, 0), &pools.hash, &pools.entry, 32, &pools.key, wanted.capacity);
        ASSERT_CLEAN();
        EXPECT_EQ(pools.hash->chunksPerBlock, 100U);
        EXPECT_EQ(pools.hash->chunkSize, sizeof(korHash));
        EXPECT_EQ(pools.entry->chunksPerBlock, wanted.entryBlock);
        EXPECT_EQ(pools.entry->chunkSize, sizeof(korHashEntry));
        EXPECT_EQ(pools.key->chunksPerBlock, wanted.keyBlock);
        EXPECT_EQ(pools.key->refillTarget, wanted.refill);
        for (korPool* pool : {pools.hash, pools.entry, pools.key}) {
            _korPool_Destroy(KOR_AT_D(0, ex), pool);
        }
    }
    korPool* key = nullptr;
    _korHash_CreatePools(KOR_AT(ex, 0), nullptr, nullptr, 0, &key, -1);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Key size must be greater than zero");
}

TEST_F(HashTest, identifiersAreRefusedOrPassedOver)
{
    create(4);
    _korHIDHash_Set(KOR_AT(ex, 0), hash, nullptr, 0, 1);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Header identifier must not be NULL");
    EXPECT_EQ(_korHIDHash_Get(KOR_AT(ex, 0), hash, nullptr), 0);
    EXPECT_EQ(_korHIDHash_RemoveEx(KOR_AT_D(0, ex), hash, nullptr), 0);
    korHeaderID number = {0x100000000, {0, 0}};
    EXPECT_EQ(_korHIDHash_RemoveEx(KOR_AT_D(0, ex), nullptr, &number), 0);
    _korHIDHash_Set(KOR_AT(ex, 0), hash, &number, 0, 1);
    EXPECT_EQ(hash->lastEntry->keyLength, 8);
    EXPECT_EQ(hash->lastEntry->hash, static_cast<uint32_t>(_korSpookyHash_Short(&number, 8, nullptr)));
}

TEST_F(HashTest, aTableOfTheCallersTakesItsEntriesFromPools)
{
    Pools pools;
    _korHash_CreatePools(KOR_AT(ex, 0), nullptr, &pools.entry, 64, &pools.key, 0);
    uint32_t before, after;
    _korPool_Memory(pools.key, &before, nullptr);
    korHash own;
    _korHash_InitPooled(KOR_AT(ex, 0), &own, 4, pools.entry, pools.key);
    EXPECT_EQ(own.entryPool, pools.entry);
    for (uint32_t number = 0; number <= before; number++) {
        _korHash_Set(KOR_AT(ex, 0), &own, &number, sizeof(number), 0, 1, number + 1);
    }
    _korPool_Memory(pools.key, &after, nullptr);
    EXPECT_GT(after, before) << "a copied key more than the pool had room for";
    EXPECT_EQ(_korHash_Get(KOR_AT(ex, 0), &own, &before, sizeof(before), 0), before + 1);
    _korHash_Clear(KOR_AT_D(0, ex), &own);
    _korPool_Destroy(KOR_AT_D(0, ex), pools.entry);
    _korPool_Destroy(KOR_AT_D(0, ex), pools.key);
}

TEST_F(HashTest, typedFormsHaveTheirOwnMakersAndWalks)
{
    korStrHash* texts = _korStrHash_CreatePooled(KOR_AT(ex, 0), 4, nullptr, nullptr, nullptr);
    for (const char* key : {"one", "two", "three", "four", "five", "six", "seven", "eight", "nine"}) {
        _korStrHash_Set(KOR_AT(ex, 0), texts, key, 1, strlen(key));
    }
    _korStrHash_MakeStatic(KOR_AT(ex, 0), texts);
    EXPECT_EQ(texts->oldHash, nullptr);
    korStrHashIterator walk;
    _korStrHash_IteratorInit(texts, &walk);
    const char* key = nullptr;
    uint64_t value = 0;
    while (_korStrHash_Next(&walk, &key, &value)) {
        if (value == 3) {
            _korStrHash_RemoveCurrent(KOR_AT_D(0, ex), &walk);
        } else {
            EXPECT_EQ(_korStrHash_SetCurrent(&walk, value + 100), value);
        }
    }
    EXPECT_FALSE(_korStrHash_ContainsKey(KOR_AT(ex, 0), texts, "two"));
    EXPECT_FALSE(_korStrHash_ContainsKey(KOR_AT(ex, 0), texts, nullptr));
    EXPECT_TRUE(_korStrHash_ContainsKey(KOR_AT(ex, 0), texts, "three"));
    EXPECT_EQ(_korStrHash_Get(KOR_AT(ex, 0), texts, "seven"), 105);
    _korStrHash_Destroy(KOR_AT_D(0, ex), texts);

    Pools pools;
    _korHash_CreatePools(KOR_AT(ex, 0), &pools.hash, &pools.entry, sizeof(korHeaderID), &pools.key, 0);
    for (korHIDHash* ids : {_korHIDHash_Create(KOR_AT(ex, 0), 4),
                            _korHIDHash_CreatePooled(KOR_AT(ex, 0), 4, pools.hash, pools.entry, pools.key)}) {
        const korHeaderID number = {5, {1, 2}}, uuid = {0, {1, 2}};
        _korHIDHash_Set(KOR_AT(ex, 0), ids, &number, 1, 1);
        _korHIDHash_Set(KOR_AT(ex, 0), ids, &uuid, 1, 2);
        korHIDHashIterator idWalk;
        _korHIDHash_IteratorInit(ids, &idWalk);
        const korHeaderID* id = nullptr;
        while (_korHIDHash_Next(&idWalk, &id, &value)) {
            EXPECT_EQ(id->id, value == 1 ? 5 : 0);
            if (value == 1) {
                _korHIDHash_RemoveCurrent(KOR_AT_D(0, ex), &idWalk);
            }
        }
        EXPECT_FALSE(_korHIDHash_ContainsKey(KOR_AT(ex, 0), ids, &number));
        EXPECT_EQ(_korHIDHash_Get(KOR_AT(ex, 0), ids, &uuid), 2);
        _korHIDHash_Destroy(KOR_AT_D(0, ex), ids);
    }
    for (korPool* pool : {pools.hash, pools.entry, pools.key}) {
        _korPool_Destroy(KOR_AT_D(0, ex), pool);
    }
}

} // namespace
} // namespace kor::test
