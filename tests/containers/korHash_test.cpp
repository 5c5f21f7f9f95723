// korHash_test.cpp - the chained hash: the checks that tables share, then the rules one by one, and its typed forms.

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

// Keys of 9 to 309 bytes that begin with the number; a quarter with codes that collide. With pools not all of them fit
// into the chunks. They lie at two addresses, to store them, not always as copies, and to ask with, and are made once,
// since the sweep fails every allocation.
template <bool Pooled>
class ByteSubject : public LazySubject<korHash, korHashIterator>
{
public:
    ByteSubject(korEx* ex, int64_t slots) : LazySubject(ex)
    {
        if (Pooled) {
            _korHash_CreatePools(ex, 0, &hashes_, &entries_, 64, &keys_, 0);
        }
        table_ = _korHash_CreatePooled(ex, 0, slots, hashes_, entries_, keys_);
    }
    ~ByteSubject()
    {
        _korHash_Destroy(0, ex_, table_);
        for (korPool* pool : {hashes_, entries_, keys_}) {
            _korPool_Destroy(0, ex_, pool);
        }
    }
    uint64_t set(uint64_t n, uint64_t value)
    {
        return _korHash_Set(ex_, 0, table_, key(n, stored), size(n), code(n), n % 3 != 0, value);
    }
    uint64_t get(uint64_t n) { return _korHash_Get(ex_, 0, table_, key(n, asked), size(n), code(n)); }
    uint64_t remove(uint64_t n) { return _korHash_Remove(0, ex_, table_, key(n, asked), size(n), code(n)); }
    void startWalk() { _korHash_IteratorInit(table_, &walk_); }
    bool next(uint64_t* n, uint64_t* value)
    {
        const void* bytes = n;
        uint32_t length = 0;
        bool more = _korHash_Next(&walk_, &bytes, &length, value);
        std::memmove(n, bytes, sizeof(*n));
        EXPECT_EQ(length, more ? size(*n) : 0);
        return more;
    }
    void removeCurrent() { _korHash_RemoveCurrent(0, ex_, &walk_); }

private:
    enum Use : uint64_t { stored, asked };
    static uint32_t size(uint64_t n) { return static_cast<uint32_t>(9 + n % 7 * 50); }
    static uint32_t code(uint64_t n) { return n % 4 == 0 ? static_cast<uint32_t>(n % 64) + 1 : 0; }
    static const char* key(uint64_t number, Use use)
    {
        static const auto keys = [] {
            std::vector<std::string> made;
            for (uint64_t n = 0; n < tableNumbers; n++) {
                std::string bytes(size(n), 'k');
                std::memcpy(bytes.data(), &n, sizeof(n));
                made.insert(made.end(), 2, bytes);
            }
            return made;
        }();
        return keys[2 * number + use].data();
    }

    korPool *hashes_ = nullptr, *entries_ = nullptr, *keys_ = nullptr;
};

using Subjects = testing::Types<ByteSubject<false>, ByteSubject<true>>;
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
        _korHash_Set(ex, 0, hash, key, 0, 0, 0, 1);
        uint32_t size = static_cast<uint32_t>(length + 1), code = static_cast<uint32_t>(whole);
        EXPECT_TRUE(_korHash_ContainsKey(ex, 0, hash, key, size, code)) << "the terminator counts";
        EXPECT_FALSE(_korHash_ContainsKey(ex, 0, hash, key, size, code + 16)) << "another code for the same slot";
    }
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

TEST_F(HashTest, textsAsKeys)
{
    hash = _korStrHash_CreatePooled(ex, 0, 1, nullptr, nullptr, nullptr);
    for (const char* text : {"a", "b", "c"}) {
        _korStrHash_Set(ex, 0, hash, text, 1, static_cast<uint64_t>(*text));
    }
    korStrHashIterator iterator;
    _korStrHash_IteratorInit(hash, &iterator);
    const char* text = nullptr;
    uint64_t value = 0;
    EXPECT_TRUE(_korStrHash_Next(&iterator, &text, &value));
    EXPECT_STREQ(text, "a");
    EXPECT_EQ(_korStrHash_SetCurrent(&iterator, 7), value);
    EXPECT_EQ(_korStrHash_Get(ex, 0, hash, "a"), 7);
    _korStrHash_RemoveCurrent(0, ex, &iterator);
    EXPECT_EQ(_korStrHash_Remove(0, ex, hash, "b"), 'b');
    EXPECT_FALSE(_korStrHash_ContainsKey(ex, 0, hash, "a"));
    EXPECT_TRUE(_korStrHash_ContainsKey(ex, 0, hash, "c"));
    _korStrHash_MakeStatic(ex, 0, hash);
    EXPECT_EQ(hash->oldHash, nullptr);
    EXPECT_EQ(walk(), Values{'c'});
}

TEST_F(HashTest, identifiersAreKeysByTheirNumberOrElseTheirUuid)
{
    const korHeaderID number = {2, {0, 0}}, sameNumber = {2, {7, 7}}, lowWordIsZero = {INT64_C(1) << 32, {0, 0}};
    const korHeaderID uuid = {0, {1, 2}}, otherUuid = {0, {1, 3}};
    hash = _korHIDHash_CreatePooled(ex, 0, 4, nullptr, nullptr, nullptr);
    uint64_t value = 0;
    for (const korHeaderID* key : {&number, &lowWordIsZero, &uuid, &otherUuid}) {
        EXPECT_EQ(_korHIDHash_Set(ex, 0, hash, key, 0, ++value), 0);
        EXPECT_EQ(_korHIDHash_Get(ex, 0, hash, key), value);
    }
    EXPECT_TRUE(_korHIDHash_ContainsKey(ex, 0, hash, &sameNumber));
    korHIDHashIterator iterator;
    _korHIDHash_IteratorInit(hash, &iterator);
    const korHeaderID* key = nullptr;
    EXPECT_TRUE(_korHIDHash_Next(&iterator, &key, &value));
    EXPECT_EQ(key, &number);
    _korHIDHash_RemoveCurrent(0, ex, &iterator);
    EXPECT_EQ(_korHIDHash_Remove(ex, 0, hash, &lowWordIsZero), 2);
    EXPECT_EQ(walk(), (Values{3, 4}));
    _korHIDHash_Set(ex, 0, hash, nullptr, 0, 1);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Header identifier must not be NULL");
    ex->code = KOR_ERROR_TIMEOUT;
    EXPECT_EQ(_korHIDHash_Remove(ex, 0, hash, &uuid), 0) << "alone of the removes, it stops at an error pending";
    EXPECT_EQ(_korHIDHash_RemoveEx(0, ex, hash, &uuid), 3);
    korEx_Clear(ex);
    _korHIDHash_Destroy(0, ex, std::exchange(hash, nullptr));
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
    for (uint32_t number = 2; number < 33; number++) {
        EXPECT_EQ(remove(number), number + 1);
        EXPECT_EQ(hash->slotCount, 64);
    }
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
