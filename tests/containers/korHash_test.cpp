// korHash_test.cpp - the chained hash and its typed forms: the body of checks that tables share, then the rules one by
// one.

#include "containers/tableModel.h"

#include "korutil/korHIDHash.h"
#include "korutil/korHash.h"
#include "korutil/korPool.h"
#include "korutil/korSpookyHash.h"
#include "korutil/korStrHash.h"

#include <cstring>
#include <vector>

namespace kor::test {
namespace {

// What the forms have in common: table, pools if a size of keys is given, and a walk.
template <auto create, auto destroy, auto initWalk, auto removeFromWalk>
class HashSubject : public LazySubject<korHash, korHashIterator>
{
public:
    HashSubject(korEx* ex, int64_t slots, int32_t keySize) : LazySubject(ex)
    {
        if (keySize != 0) {
            _korHash_CreatePools(ex, 0, &hashes_, &entries_, keySize, &keys_, 0);
        }
        table_ = create(ex, 0, slots, hashes_, entries_, keys_);
    }
    ~HashSubject()
    {
        destroy(0, ex_, table_);
        for (korPool* pool : {hashes_, entries_, keys_}) {
            _korPool_Destroy(0, ex_, pool);
        }
    }
    void startWalk() { initWalk(table_, &walk_); }
    void removeCurrent() { removeFromWalk(0, ex_, &walk_); }

protected:
    static bool copies(uint64_t number) { return number % 3 != 0; }

private:
    korPool *hashes_ = nullptr, *entries_ = nullptr, *keys_ = nullptr;
};

// Keys lie at two addresses, to store them, not always as copies, and to ask with. They are made once, since the sweep
// fails every allocation.
enum { stored, asked };
template <auto make>
const auto& keyOf(uint64_t number, int use)
{
    static const auto keys = [] {
        std::vector<decltype(make(0))> made;
        for (uint64_t at = 0; at < 2 * tableNumbers; at++) {
            made.push_back(make(at / 2));
        }
        return made;
    }();
    return keys[2 * number + static_cast<uint64_t>(use)];
}

// Binary keys of 9 to 309 bytes that begin with the number, not all of which fit into the pool's chunks; a quarter with
// codes that collide.
class ByteSubject
    : public HashSubject<_korHash_CreatePooled, _korHash_Destroy, _korHash_IteratorInit, _korHash_RemoveCurrent>
{
public:
    ByteSubject(korEx* ex, int64_t slots) : HashSubject(ex, slots, 64) {}
    uint64_t set(uint64_t n, uint64_t value)
    {
        return _korHash_Set(ex_, 0, table_, key(n, stored), size(n), code(n), copies(n), value);
    }
    uint64_t get(uint64_t n) { return _korHash_Get(ex_, 0, table_, key(n), size(n), code(n)); }
    uint64_t remove(uint64_t n) { return _korHash_Remove(0, ex_, table_, key(n), size(n), code(n)); }
    bool next(uint64_t* n, uint64_t* value)
    {
        const void* bytes = n;
        uint32_t length = 0;
        bool more = _korHash_Next(&walk_, &bytes, &length, value);
        std::memmove(n, bytes, sizeof(*n));
        EXPECT_EQ(length, more ? size(*n) : 0);
        return more;
    }

private:
    static uint32_t size(uint64_t n) { return static_cast<uint32_t>(9 + n % 7 * 50); }
    static uint32_t code(uint64_t n) { return n % 4 == 0 ? static_cast<uint32_t>(n % 64) + 1 : 0; }
    static std::string make(uint64_t n)
    {
        return std::string(reinterpret_cast<const char*>(&n), sizeof(n)) + std::string(size(n) - sizeof(n), 'k');
    }
    static const char* key(uint64_t n, int use = asked) { return keyOf<make>(n, use).data(); }
};

class TextSubject : public HashSubject<_korStrHash_CreatePooled, _korStrHash_Destroy, _korStrHash_IteratorInit,
                                       _korStrHash_RemoveCurrent>
{
public:
    TextSubject(korEx* ex, int64_t slots) : HashSubject(ex, slots, 4) {}
    uint64_t set(uint64_t n, uint64_t value)
    {
        return _korStrHash_Set(ex_, 0, table_, key(n, stored), copies(n), value);
    }
    uint64_t get(uint64_t n)
    {
        if (n % 100 == 0) {
            _korStrHash_MakeStatic(ex_, 0, table_);
        }
        uint64_t value = _korStrHash_Get(ex_, 0, table_, key(n));
        EXPECT_TRUE(ex_->code != 0 || _korStrHash_ContainsKey(ex_, 0, table_, key(n)) == (value != 0));
        return value;
    }
    uint64_t remove(uint64_t n) { return _korStrHash_Remove(0, ex_, table_, key(n)); }
    bool next(uint64_t* n, uint64_t* value)
    {
        const char* text = "";
        bool more = _korStrHash_Next(&walk_, &text, value);
        *n = std::strtoull(text, nullptr, 10);
        EXPECT_EQ(_korStrHash_SetCurrent(&walk_, *value), more ? *value : 0);
        return more;
    }

private:
    static std::string make(uint64_t n) { return std::to_string(n); }
    static const char* key(uint64_t n, int use = asked) { return keyOf<make>(n, use).c_str(); }
};

// A third UUIDs, a third numbers whose low word is 0, a third ordinary numbers.
class IdentifierSubject : public HashSubject<_korHIDHash_CreatePooled, _korHIDHash_Destroy, _korHIDHash_IteratorInit,
                                             _korHIDHash_RemoveCurrent>
{
public:
    IdentifierSubject(korEx* ex, int64_t slots) : HashSubject(ex, slots, 0) {}
    uint64_t set(uint64_t n, uint64_t value)
    {
        return _korHIDHash_Set(ex_, 0, table_, key(n, stored), copies(n / 3), value);
    }
    uint64_t get(uint64_t n)
    {
        uint64_t value = _korHIDHash_Get(ex_, 0, table_, key(n));
        EXPECT_TRUE(ex_->code != 0 || _korHIDHash_ContainsKey(ex_, 0, table_, key(n)) == (value != 0));
        return value;
    }
    uint64_t remove(uint64_t n)
    {
        return n % 2 == 0 ? _korHIDHash_Remove(ex_, 0, table_, key(n)) : _korHIDHash_RemoveEx(0, ex_, table_, key(n));
    }
    bool next(uint64_t* n, uint64_t* value)
    {
        const korHeaderID* id = key(0);
        bool more = _korHIDHash_Next(&walk_, &id, value);
        *n = id->id == 0 ? id->uuid[1] : (id->id & UINT32_MAX) == 0 ? (id->id >> 32) - 1 : id->id - 1;
        return more;
    }

private:
    static korHeaderID make(uint64_t n)
    {
        return n % 3 == 0   ? korHeaderID{0, {~n, n}}
               : n % 3 == 1 ? korHeaderID{(n + 1) << 32, {0, 0}}
                            : korHeaderID{n + 1, {n, 1}};
    }
    static const korHeaderID* key(uint64_t n, int use = asked) { return &keyOf<make>(n, use); }
};

using Subjects = testing::Types<ByteSubject, TextSubject, IdentifierSubject>;
INSTANTIATE_TYPED_TEST_SUITE_P(Hash, TableTest, Subjects);

using Values = std::vector<uint64_t>;

class HashTest : public KorTest
{
protected:
    ~HashTest() override { _korHash_Destroy(0, ex, hash); }

    void create(int64_t slots) { hash = _korHash_Create(ex, 0, slots); }
    // Keys by number; the code, a multiple of the slots away, makes the number pick the slot, and is never 0.
    static uint32_t code(uint32_t number) { return number + 64; }
    uint64_t set(uint32_t number, uint64_t value)
    {
        return _korHash_Set(ex, 0, hash, &number, sizeof(number), code(number), 1, value);
    }
    uint64_t get(uint32_t number) { return _korHash_Get(ex, 0, hash, &number, sizeof(number), code(number)); }
    uint64_t remove(uint32_t number) { return _korHash_Remove(0, ex, hash, &number, sizeof(number), code(number)); }
    void fill(uint32_t to)
    {
        for (uint32_t number = 0; number < to; number++) {
            set(number, number + 1);
        }
    }
    // What `call` gives while its n-th request of the heap fails.
    uint64_t failing(uint64_t request, const std::function<uint64_t()>& call)
    {
        FailingHeap heap(request);
        uint64_t result = call();
        EXPECT_TRUE(heap.fired());
        return result;
    }
    Values walk()
    {
        Values values;
        korHashIterator iterator;
        _korHash_IteratorInit(hash, &iterator);
        for (uint64_t value; _korHash_Next(&iterator, nullptr, nullptr, &value);) {
            values.push_back(value);
        }
        return values;
    }

    korHash* hash = nullptr;
};

TEST_F(HashTest, aTableInPlaceTakesFromPoolsAndIsOfNoUseOnceCleared)
{
    korPool *entries = nullptr, *keys = nullptr;
    _korHash_CreatePools(ex, 0, nullptr, &entries, 32, &keys, -1); // blocks of four megabytes
    EXPECT_EQ(entries->chunksPerBlock, 87381);
    EXPECT_EQ(keys->chunksPerBlock, 4194304 / 32);
    korHash table;
    _korHash_InitPooled(ex, 0, &table, 3, entries, keys);
    EXPECT_EQ(table.slotCount, 4);
    _korHash_Set(ex, 0, &table, "a", 0, 0, 1, 1);
    _korHash_Clear(0, ex, &table);
    _korHash_Clear(0, ex, &table);
    EXPECT_EQ(_korHash_Get(ex, 0, &table, "a", 0, 0) + _korHash_Remove(0, ex, &table, "a", 0, 0), 0);
    _korHash_Set(ex, 0, &table, "a", 0, 0, 1, 1);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Number of slots must be greater than zero");
    _korHash_Init(ex, 0, &table, 1);
    _korHash_Clear(0, ex, &table);
    _korPool_Destroy(0, ex, keys);
    _korPool_Destroy(0, ex, entries);
}

TEST_F(HashTest, lengthAndCodeOfAKey)
{
    create(16);
    std::string text(200, 'x');
    for (size_t length : {0u, 190u, 191u}) {
        const char* key = text.c_str() + 200 - length;
        uint64_t whole = length < 191 ? _korSpookyHash_Short(key, length + 1, nullptr)
                                      : _korSpookyHash_Long(key, length + 1, nullptr);
        _korHash_Set(ex, 0, hash, key, 0, 0, 0, length + 1); // the terminator counts
        EXPECT_EQ(_korHash_Get(ex, 0, hash, key, static_cast<uint32_t>(length + 1), static_cast<uint32_t>(whole)),
                  length + 1);
    }
    _korHash_Set(ex, 0, hash, "own code", 0, 77, 0, 5);
    EXPECT_TRUE(_korHash_ContainsKey(ex, 0, hash, "own code", 0, 77));
    EXPECT_FALSE(_korHash_ContainsKey(ex, 0, hash, "own code", 0, 0));
    EXPECT_FALSE(_korHash_ContainsKey(ex, 0, hash, "own code", 0, 77 + 16)); // the same slot
    _korHash_Set(ex, 0, hash, "k", 0x80000000u, 1, 0, 5);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Key is too long");
}

TEST_F(HashTest, whoseKeyIsKept)
{
    create(4);
    char first[] = "key", second[] = "key";
    auto setKey = [&](const char* key, uint8_t copy, uint64_t value) {
        return _korHash_Set(ex, 0, hash, key, 0, 0, copy, value);
    };
    setKey(first, 0, 1);
    const korHashEntry* entry = hash->firstEntry;
    EXPECT_EQ(setKey(second, 0, 2), 1);
    EXPECT_EQ(entry->key, second);
    EXPECT_EQ(failing(1, [&] { return setKey(first, 1, 3); }), 0);
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    EXPECT_EQ(entry->key, second);
    EXPECT_EQ(setKey(first, 1, 3), 2);
    const void* copied = entry->key;
    EXPECT_TRUE(copied != first && copied != second);
    EXPECT_EQ(setKey(second, 0, 4), 3);
    EXPECT_EQ(_korHash_RemoveByKeyPtr(0, ex, hash, second, entry->hash), 0);
    EXPECT_EQ(_korHash_RemoveByKeyPtr(0, ex, hash, copied, entry->hash), 4);
}

TEST_F(HashTest, keysThatAreNullAndIdentifiersByNumber)
{
    hash = _korHIDHash_Create(ex, 0, 4);
    _korHash_Set(ex, 0, hash, nullptr, 0, 0, 1, 1);
    EXPECT_EQ(_korHash_Set(ex, 0, hash, nullptr, 0, 0, 0, 2), 1);
    EXPECT_EQ(_korHash_Get(ex, 0, hash, nullptr, 0, 0) + _korHash_Remove(0, ex, hash, nullptr, 0, 0), 0);
    EXPECT_EQ(walk(), Values{2}) << "kept, and found by nothing but a walk";

    const korHeaderID identifier = {2, {0, 0}}, sameNumber = {2, {7, 7}};
    _korHIDHash_Set(ex, 0, hash, &identifier, 0, 1);
    EXPECT_EQ(_korHIDHash_Get(ex, 0, hash, &sameNumber), 1);
    ex->code = KOR_ERROR_TIMEOUT;
    EXPECT_EQ(_korHIDHash_Remove(ex, 0, hash, &identifier), 0) << "alone of the removes, it stops at an error pending";
    korEx_Clear(ex);
    _korHIDHash_Set(ex, 0, hash, nullptr, 0, 1);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Header identifier must not be NULL");
}

// The growth test stands before the search and looks at the table's own count; hits move nothing, misses move two.
TEST_F(HashTest, growsLazily)
{
    create(8);
    fill(8);
    EXPECT_EQ(set(3, 100), 4); // there already, and yet the table grows
    ASSERT_NE(hash->oldHash, nullptr);
    EXPECT_EQ(hash->slotCount, 16);
    EXPECT_EQ(get(1000), 0);
    EXPECT_EQ(hash->oldHash->count, 6); // 0 and 1 moved
    EXPECT_EQ(get(0), 1);               // a hit in the table
    EXPECT_EQ(set(7, 200), 8);          // updated where it is
    EXPECT_EQ(hash->oldHash->count, 6);
    EXPECT_EQ(get(7), 200); // found in the old table: that is a miss of the table
    EXPECT_EQ(hash->oldHash->count, 4);
    EXPECT_EQ(remove(2), 3);
    EXPECT_EQ(hash->oldHash->count, 2);
    _korHash_MakeStatic(ex, 0, hash);
    EXPECT_EQ(hash->oldHash, nullptr);
    EXPECT_EQ(walk(), (Values{1, 2, 100, 5, 6, 7, 200}));
}

TEST_F(HashTest, shrinksLazilyAndNotBelow64)
{
    create(128);
    fill(33);
    remove(0);
    EXPECT_EQ(hash->oldHash, nullptr);                   // the count before the removal is tested: 33
    EXPECT_EQ(failing(1, [&] { return remove(1); }), 2); // a shrink that fails is tried again
    EXPECT_EQ(remove(1000), 0);                          // an absent key is enough
    EXPECT_EQ(hash->slotCount, 64);
    for (uint32_t number = 2; number < 33; number++) {
        remove(number);
    }
    EXPECT_EQ(hash->slotCount, 64);
}

// Slot 0 of the old table holds 0 and behind it 2; the new pair 4 has taken the new table's slot 0.
TEST_F(HashTest, aMoveThatFailsLosesNothing)
{
    create(2);
    set(0, 10);
    set(2, 12);
    // Table, cursor, slots, key; then the chain entry for 0.
    EXPECT_EQ(failing(5, [&] { return set(4, 14); }), 0);
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    ASSERT_NE(hash->oldHash, nullptr);
    EXPECT_EQ(hash->oldHash->count, 0); // one low from now on: 0 is still there
    EXPECT_EQ(get(4), 14);
    EXPECT_EQ(walk(), (Values{10, 12, 14}));
    EXPECT_EQ(failing(1, [&] { return get(0); }), 10); // found, and the failure of the move is told
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    EXPECT_EQ(failing(1, [&] { return remove(2); }), 12); // a remove keeps it to itself
    EXPECT_CLEAN();
    EXPECT_EQ(get(0), 10);
    EXPECT_EQ(hash->oldHash, nullptr);
}

// There is one marker a table, and an entry of the walk is what stands behind it.
TEST_F(HashTest, walksStandBetweenEntries)
{
    create(4);
    fill(3);
    korHashIterator iterator;
    uint64_t value = 0;
    _korHash_IteratorInit(hash, &iterator);
    _korHash_Next(&iterator, nullptr, nullptr, &value);
    EXPECT_EQ(_korHash_SetCurrent(&iterator, 50), 1);
    EXPECT_EQ(remove(0), 50); // not through the walk: the entry after it is skipped
    EXPECT_TRUE(_korHash_Next(&iterator, nullptr, nullptr, &value));
    EXPECT_EQ(value, 3);

    // Two keys at one address, told apart by their codes.
    const char path[] = "a/b";
    _korHash_Set(ex, 0, hash, path, 1, 4, 0, 71);
    _korHash_Set(ex, 0, hash, path, 3, 8, 0, 73);
    while (value != 73 && _korHash_Next(&iterator, nullptr, nullptr, &value)) {
    }
    _korHash_RemoveCurrent(0, ex, &iterator);
    EXPECT_EQ(walk(), (Values{2, 3, 71}));
}

TEST_F(HashTest, measures)
{
    create(4);
    fill(3);
    set(4, 5); // behind 0
    set(8, 9); // grows; 4 moves, and 0 behind 8
    EXPECT_EQ(_korHash_Memory(hash), 88 + 48 * 9 + 88 + 48 * 4);
    StreamCapture errors(StreamCapture::error);
    _korHash_Info(hash);
    EXPECT_EQ(errors.text().find("Slots Allocated  = 8\n"
                                 "Slots Used       = 2\n"
                                 "Slots Percentage = 25.00%\n"
                                 "Entries          = 3\n"
                                 "Max Chain        = 1\n"
                                 "Total All Chains = 1\n"
                                 "Chain Average    = 1.00\n"
                                 "Memory copied keys  = 4 bytes\n"
                                 "Memory bins+entries = 520 bytes\n"
                                 "Memory total        = 524 bytes\n"
                                 "Old Hash Info:\n"
                                 "Slots Allocated  = 4\n"),
              0u);
}

} // namespace
} // namespace kor::test
