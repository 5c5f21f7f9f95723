// openTables_test.cpp - the plain chained tables, korI32Hash and kor128Hash, through one set of tests: growth, walks
// with removal, refusals, a failing heap, and random runs against a standard map. Then what only one of them has.

#include "korutil/kor128Hash.h"
#include "korutil/korI32Hash.h"
#include "support/failingHeap.h"

#include <map>
#include <vector>

using kor::test::KorTest;
using kor::test::Random;
using kor::test::StreamCapture;
using kor::test::sweepFailures;

namespace {

// A key of a test is a small number; each table makes a key of its own of it.
struct Table32 {
    using Hash = korI32Hash;
    static Hash* create(korEx* ex, int32_t slots) { return _korI32Hash_Create(ex, 0, slots); }
    static void destroy(korEx* ex, Hash* hash) { _korI32Hash_Destroy(0, ex, hash); }
    static uint64_t get(korEx* ex, Hash* hash, uint32_t key) { return _korI32Hash_Get(ex, 0, hash, key); }
    static uint64_t set(korEx* ex, Hash* hash, uint32_t key, uint64_t value)
    {
        return _korI32Hash_Set(ex, 0, hash, key, value);
    }
    static uint64_t remove(korEx* ex, Hash* hash, uint32_t key) { return _korI32Hash_Remove(0, ex, hash, key); }
    static void start(Hash* hash, korHashChainIterator* iterator) { _korI32Hash_IteratorInit(hash, iterator); }
    static bool next(korHashChainIterator* iterator, uint32_t* key, uint64_t* value)
    {
        return _korI32Hash_Next(iterator, key, value);
    }
    static void removeCurrent(korEx* ex, korHashChainIterator* iterator) { _korI32Hash_RemoveCurrent(0, ex, iterator); }
};

struct Table128 {
    using Hash = kor128Hash;
    static constexpr uint64_t high = 0x0123456789abcdef;
    static Hash* create(korEx* ex, int64_t slots) { return _kor128Hash_CreatePooled(ex, 0, slots, nullptr, nullptr); }
    static void destroy(korEx* ex, Hash* hash) { _kor128Hash_DestroyPooled(0, ex, hash, nullptr); }
    static uint64_t get(korEx* ex, Hash* hash, uint32_t key)
    {
        uint64_t words[2] = {key, key * high};
        EXPECT_EQ(_kor128Hash_ContainsKey(hash, words), _kor128Hash_ContainsKey2(hash, words[0], words[1]));
        EXPECT_EQ(_kor128Hash_Get(ex, 0, hash, words), _kor128Hash_Get2(ex, 0, hash, words[0], words[1]));
        return _kor128Hash_Get(ex, 0, hash, words);
    }
    static uint64_t set(korEx* ex, Hash* hash, uint32_t key, uint64_t value)
    {
        uint64_t words[2] = {key, key * high};
        return (value & 1) != 0 ? _kor128Hash_Set(ex, 0, hash, words, value)
                                : _kor128Hash_Set2(ex, 0, hash, words[0], words[1], value);
    }
    static uint64_t remove(korEx* ex, Hash* hash, uint32_t key)
    {
        uint64_t words[2] = {key, key * high};
        return (key & 1) != 0 ? _kor128Hash_Remove(0, ex, hash, words)
                              : _kor128Hash_Remove2(0, ex, hash, words[0], words[1]);
    }
    static void start(Hash* hash, korHashChainIterator* iterator) { _kor128Hash_IteratorInit(hash, iterator); }
    static bool next(korHashChainIterator* iterator, uint32_t* key, uint64_t* value)
    {
        uint64_t words[2] = {};
        bool more = _kor128Hash_Next(iterator, words, value);
        EXPECT_EQ(words[1], words[0] * high);
        if (key != nullptr && more) {
            *key = static_cast<uint32_t>(words[0]);
        }
        return more;
    }
    static void removeCurrent(korEx* ex, korHashChainIterator* iterator) { _kor128Hash_RemoveCurrent(0, ex, iterator); }
};

template <class T>
class OpenTables : public testing::Test
{
protected:
    OpenTables() : exception_(korEx_Create()) {}
    ~OpenTables() override
    {
        T::destroy(exception_, table_);
        EXPECT_TRUE(kor::test::clean(exception_));
        korEx_Destroy(exception_);
    }
    typename T::Hash* make(int32_t slots)
    {
        T::destroy(exception_, table_);
        return table_ = T::create(exception_, slots);
    }
    korEx* exception_;

private:
    typename T::Hash* table_ = nullptr;
};
using Tables = testing::Types<Table32, Table128>;
TYPED_TEST_SUITE(OpenTables, Tables);

TYPED_TEST(OpenTables, OnlyNewKeysMakeATableGrow)
{
    korEx* ex = this->exception_;
    auto* hash = this->make(1);
    EXPECT_EQ(hash->mask, 0);
    EXPECT_EQ(TypeParam::set(ex, hash, 0, 10), 0u);
    EXPECT_EQ(hash->mask, 0);
    EXPECT_EQ(TypeParam::set(ex, hash, 0, 11), 10u) << "no growth: the key is there";
    EXPECT_EQ(hash->mask, 0);
    for (uint32_t key = 1; key < 100; ++key) {
        EXPECT_EQ(TypeParam::set(ex, hash, key, key + 11), 0u);
        EXPECT_GT(2 * key, static_cast<uint32_t>(hash->mask));
        EXPECT_GE(static_cast<uint32_t>(hash->mask) + 1, key + 1);
    }
    EXPECT_EQ(hash->count, 100);
    EXPECT_EQ(hash->mask, 127);
    for (uint32_t key = 0; key < 100; ++key) {
        EXPECT_EQ(TypeParam::get(ex, hash, key), key + 11);
    }
    EXPECT_EQ(TypeParam::get(ex, hash, 100), 0u);
    EXPECT_EQ(TypeParam::remove(ex, hash, 100), 0u);
    EXPECT_EQ(TypeParam::remove(ex, nullptr, 100), 0u);
    EXPECT_EQ(TypeParam::create(ex, 0), nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
}

TYPED_TEST(OpenTables, AWalkMayRemoveWhereItStands)
{
    korEx* ex = this->exception_;
    for (uint32_t every : {1u, 2u, 3u}) {
        auto* hash = this->make(4);
        std::map<uint32_t, uint64_t> left;
        for (uint32_t key = 0; key < 50; ++key) {
            left[key * 7] = key + 1;
            TypeParam::set(ex, hash, key * 7, key + 1);
        }
        auto mask = hash->mask;
        korHashChainIterator iterator;
        TypeParam::start(hash, &iterator);
        TypeParam::removeCurrent(ex, &iterator); // before the first
        TypeParam::removeCurrent(ex, nullptr);
        uint32_t visited = 0;
        uint32_t key = 0;
        uint64_t value = 0;
        while (TypeParam::next(&iterator, &key, &value)) {
            ASSERT_EQ(left[key], value);
            if (visited++ % every == 0) {
                TypeParam::removeCurrent(ex, &iterator);
                TypeParam::removeCurrent(ex, &iterator); // once only
                left.erase(key);
            }
        }
        EXPECT_EQ(visited, 50u);
        EXPECT_FALSE(TypeParam::next(&iterator, nullptr, nullptr));
        EXPECT_EQ(hash->count, static_cast<int64_t>(left.size()));
        EXPECT_EQ(hash->mask, mask);
        TypeParam::start(hash, &iterator);
        for (visited = 0; TypeParam::next(&iterator, nullptr, nullptr); ++visited) {
        }
        EXPECT_EQ(visited, left.size());
    }
}

TYPED_TEST(OpenTables, WithAnErrorPendingOnlyRemovingWorks)
{
    korEx* ex = this->exception_;
    auto* hash = this->make(4);
    TypeParam::set(ex, hash, 1, 5);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(TypeParam::set(ex, hash, 2, 5), 0u);
    EXPECT_EQ(TypeParam::get(ex, hash, 1), 0u);
    EXPECT_EQ(TypeParam::create(ex, 4), nullptr);
    EXPECT_EQ(TypeParam::remove(ex, hash, 1), 5u);
    TypeParam::destroy(ex, nullptr);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(hash->count, 0);
}

TYPED_TEST(OpenTables, AFailedSetChangesNothing)
{
    korEx* ex = this->exception_;
    uint64_t requests = sweepFailures(ex, [&] {
        auto* made = TypeParam::create(ex, 1);
        for (uint32_t key = 1; made != nullptr && key < 10; ++key) {
            auto before = *made;
            TypeParam::set(ex, made, key, key);
            if (ex->code != 0) {
                KOR_EX_LOCAL(other);
                EXPECT_EQ(made->count, before.count);
                EXPECT_EQ(TypeParam::get(&other, made, key), 0u);
                EXPECT_EQ(TypeParam::get(&other, made, key - 1), key - 1);
                break;
            }
        }
        TypeParam::destroy(ex, made);
    });
    EXPECT_EQ(requests, 2u + 9 + 4) << "the table, its slots, the entries, four growths";
}

TYPED_TEST(OpenTables, MatchesAMap)
{
    korEx* ex = this->exception_;
    Random random;
    std::map<uint32_t, uint64_t> model;
    auto* hash = this->make(8);
    for (int step = 1; step < 20000; ++step) {
        auto key = static_cast<uint32_t>(random.below(500) * 0x1001);
        auto found = model.find(key);
        uint64_t before = found == model.end() ? 0 : found->second;
        if (random.chance(step / 5000 % 2 == 0 ? 60 : 30)) {
            ASSERT_EQ(TypeParam::set(ex, hash, key, static_cast<uint64_t>(step)), before);
            model[key] = static_cast<uint64_t>(step);
        } else if (random.chance(70)) {
            ASSERT_EQ(TypeParam::remove(ex, hash, key), before);
            model.erase(key);
        } else {
            ASSERT_EQ(TypeParam::get(ex, hash, key), before);
        }
        ASSERT_EQ(hash->count, static_cast<int64_t>(model.size()));
    }
}

class KorI32Hash : public KorTest
{};

TEST_F(KorI32Hash, SizesAreRoundedUp)
{
    struct Case {
        int32_t slots, mask;
    };
    for (const Case& c : {Case{1, 0}, {2, 1}, {3, 3}, {1000, 1023}, {-1, 0}, {INT32_MIN, 0}}) {
        korI32Hash* hash = _korI32Hash_Create(ex, 0, c.slots);
        EXPECT_EQ(hash->mask, c.mask) << c.slots;
        _korI32Hash_Destroy(0, ex, hash);
    }
}

TEST_F(KorI32Hash, ABinIsWalkedFromTheNewestEntry)
{
    korI32Hash* hash = _korI32Hash_Create(ex, 0, 4);
    for (uint32_t key : {8u, 0xfffffffcu, 1u, 4u}) {
        _korI32Hash_Set(ex, 0, hash, key, key);
    }
    korHashChainIterator iterator;
    _korI32Hash_IteratorInit(hash, &iterator);
    std::vector<uint32_t> keys;
    uint32_t key = 0;
    while (_korI32Hash_Next(&iterator, &key, nullptr)) {
        keys.push_back(key);
    }
    EXPECT_EQ(keys, (std::vector<uint32_t>{4, 0xfffffffc, 8, 1}));
    _korI32Hash_Destroy(0, ex, hash);
}

class Kor128Hash : public KorTest
{};

TEST_F(Kor128Hash, SizesAreRoundedUp)
{
    struct Case {
        int64_t slots, mask;
    };
    for (const Case& c : {Case{1, 0}, {33, 63}, {-1, 31}, {INT64_MIN, 31}, {INT64_MAX, 31}, {int64_t{1} << 62, 31}}) {
        kor128Hash* hash = _kor128Hash_CreatePooled(ex, 0, c.slots, nullptr, nullptr);
        EXPECT_EQ(hash->mask, c.mask) << c.slots;
        _kor128Hash_DestroyPooled(0, ex, hash, nullptr);
    }
}

TEST_F(Kor128Hash, TheZeroKeyHashesToZeroAndWordsAreNotSwapped)
{
    kor128Hash* hash = _kor128Hash_CreatePooled(ex, 0, 1024, nullptr, nullptr);
    _kor128Hash_Set2(ex, 0, hash, 0, 0, 7);
    EXPECT_EQ(hash->bins[0]->value, 7u);
    _kor128Hash_Set2(ex, 0, hash, 1, 2, 8);
    EXPECT_FALSE(_kor128Hash_ContainsKey2(hash, 2, 1));
    EXPECT_TRUE(_kor128Hash_ContainsKey2(hash, 1, 2));
    _kor128Hash_DestroyPooled(0, ex, hash, nullptr);
}

TEST_F(Kor128Hash, TablesAndEntriesComeFromPools)
{
    struct Case {
        uint32_t capacity, perBlock;
    };
    for (const Case& c : {Case{0, 100}, {500, 500}, {0x80000000, 131072}}) {
        korPool* hashPool = nullptr;
        korPoolCache* cache = nullptr;
        _kor128Hash_CreatePools(ex, 0, &hashPool, &cache, c.capacity, 16);
        korPool* entryPool = cache->pool;
        EXPECT_EQ(entryPool->chunksPerBlock, c.perBlock);
        EXPECT_EQ(hashPool->chunksPerBlock, 100u);
        kor128Hash* hash = _kor128Hash_CreatePooled(ex, 0, 8, hashPool, cache);
        for (uint64_t key = 0; key < 1000; ++key) {
            _kor128Hash_Set2(ex, 0, hash, key, key, key + 1);
        }
        korHashChainIterator iterator;
        _kor128Hash_IteratorInit(hash, &iterator);
        uint64_t low = 0;
        uint64_t high = 0;
        uint64_t value = 0;
        while (_kor128Hash_Next2(&iterator, &low, &high, &value)) {
            EXPECT_EQ(high, low);
            EXPECT_EQ(_kor128Hash_SetCurrentValue(&iterator, value + 1)->keyLow, low);
        }
        EXPECT_EQ(_kor128Hash_Get2(ex, 0, hash, 500, 500), 502u);
        EXPECT_EQ(_kor128Hash_Memory(hash), 32 + 1024 * 8 + 1000 * 32);
        _kor128Hash_DestroyPooled(0, ex, hash, hashPool);
        _korPoolCache_Destroy(0, ex, cache);
        _korPool_Destroy(0, ex, entryPool);
        _korPool_Destroy(0, ex, hashPool);
    }
    _kor128Hash_CreatePools(ex, 0, nullptr, nullptr, 0, 0);
}

TEST_F(Kor128Hash, PoolsAreMadeWholeOrNotAtAll)
{
    sweepFailures(ex, [&] {
        korPool* hashPool = nullptr;
        korPoolCache* cache = nullptr;
        _kor128Hash_CreatePools(ex, 0, &hashPool, &cache, 0, 16);
        EXPECT_EQ(hashPool == nullptr, ex->code != 0);
        EXPECT_EQ(cache == nullptr, ex->code != 0);
        if (cache != nullptr) {
            kor128Hash* hash = _kor128Hash_CreatePooled(ex, 0, 8, hashPool, cache);
            if (hash != nullptr) {
                _kor128Hash_Set2(ex, 0, hash, 1, 2, 3);
            }
            _kor128Hash_DestroyPooled(0, ex, hash, hashPool);
            korPool* entryPool = cache->pool;
            _korPoolCache_Destroy(0, ex, cache);
            _korPool_Destroy(0, ex, entryPool);
            _korPool_Destroy(0, ex, hashPool);
        }
    });
}

TEST_F(Kor128Hash, InfoTellsHowSlotsAreUsed)
{
    kor128Hash* hash = _kor128Hash_CreatePooled(ex, 0, 1, nullptr, nullptr);
    _kor128Hash_Set2(ex, 0, hash, 0, 0, 1);
    StreamCapture capture(StreamCapture::error);
    _kor128Hash_Info(hash);
    EXPECT_EQ(capture.text(), "Slots Allocated  = 1\n"
                              "Slots Used       = 1\n"
                              "Slots Percentage = 100.00%\n"
                              "Entries          = 1\n"
                              "Max Chain        = 1\n"
                              "Chain Average    = 1.00\n"
                              "Memory Usage     = 32 bytes (0K)\n");
    _kor128Hash_DestroyPooled(0, ex, hash, nullptr);
}

} // namespace
