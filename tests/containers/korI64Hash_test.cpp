// korI64Hash_test.cpp - the 64-bit integer hash: growth, the single entry in the object, what removals do to a walk,
// failures. One model check serves heap and pooled tables.

#include "korutil/korI64Hash.h"
#include "support/failingHeap.h"

#include <set>
#include <unordered_map>
#include <vector>

using kor::test::FailingHeap;
using kor::test::KorTest;
using kor::test::Random;
using kor::test::sweepFailures;

namespace {

using Model = std::unordered_map<int64_t, uint64_t>;

uint64_t valueFor(int64_t key)
{
    return static_cast<uint64_t>(key) * 3 + 1;
}

class KorI64Hash : public KorTest
{
protected:
    ~KorI64Hash() override { _korI64Hash_Clear(0, ex, &hash); }

    void fill(const std::vector<int64_t>& keys)
    {
        for (int64_t key : keys) {
            EXPECT_EQ(_korI64Hash_Set(ex, 0, &hash, key, valueFor(key)), 0u);
        }
    }

    // What is left of a walk.
    std::vector<int64_t> rest(korI64HashIterator* walk)
    {
        std::vector<int64_t> keys;
        int64_t key;
        uint64_t value;
        while (keys.size() < 1000 && _korI64Hash_Next(ex, 0, walk, &key, &value)) {
            EXPECT_EQ(value, valueFor(key));
            keys.push_back(key);
        }
        return keys;
    }

    // A walk that has just been given `key`.
    korI64HashIterator walkTo(int64_t key)
    {
        korI64HashIterator walk;
        int64_t found = key + 1;
        _korI64Hash_IteratorInit(ex, 0, &hash, &walk);
        while (found != key && _korI64Hash_Next(ex, 0, &walk, &found, nullptr)) {
        }
        EXPECT_EQ(found, key);
        return walk;
    }

    korI64Hash hash = {};
};

TEST_F(KorI64Hash, SizesRoundUpToPowersOfTwo)
{
    const std::pair<int32_t, uint32_t> cases[] = {{-5, 0}, {1, 0}, {2, 2}, {3, 4}, {5, 8}, {8, 8}, {1000, 1024}};
    for (auto [slots, count] : cases) {
        korI64Hash* made = _korI64Hash_Create(ex, 0, slots);
        EXPECT_EQ(made->slotCount, count);
        EXPECT_EQ(made->slots != nullptr, count != 0);
        _korI64Hash_Destroy(0, ex, made);
    }
    EXPECT_EQ(_korI64Hash_Create(ex, 0, 0), nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    _korI64Hash_Init(ex, 0, &hash, 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    _korI64Hash_Destroy(0, ex, nullptr);
    _korI64Hash_Clear(0, ex, nullptr);
    EXPECT_EQ(_korI64Hash_Remove(0, ex, nullptr, 1), 0u);
}

TEST_F(KorI64Hash, TheFirstEntryStaysInTheObject)
{
    {
        FailingHeap heap(1);
        _korI64Hash_Init(ex, 0, &hash, 1);
        _korI64Hash_Set(ex, 0, &hash, 0, 0);
        EXPECT_FALSE(heap.fired());
    }
    EXPECT_EQ(_korI64Hash_Get(ex, 0, &hash, 0), 0u);
    EXPECT_EQ(_korI64Hash_Get(ex, 0, &hash, 5), 0u);
    korI64HashIterator walk;
    int64_t key = 9;
    uint64_t value = 9;
    _korI64Hash_IteratorInit(ex, 0, &hash, &walk);
    EXPECT_TRUE(_korI64Hash_Next(ex, 0, &walk, &key, &value));
    EXPECT_EQ(key, 0);
    EXPECT_EQ(value, 0u);
    EXPECT_FALSE(_korI64Hash_Next(ex, 0, &walk, nullptr, nullptr));
    EXPECT_EQ(_korI64Hash_Remove(0, ex, &hash, 5), 0u);

    EXPECT_EQ(_korI64Hash_Set(ex, 0, &hash, 0, 7), 0u);
    EXPECT_EQ(hash.slotCount, 2u) << "the room is made before the key is looked for";
    EXPECT_EQ(hash.entryCount, 1u);
    EXPECT_EQ(_korI64Hash_Remove(0, ex, &hash, 0), 7u);
    EXPECT_EQ(_korI64Hash_Get(ex, 0, &hash, 0), 0u);
}

TEST_F(KorI64Hash, KeysThatDifferAboveBit31AreToldApart)
{
    _korI64Hash_Init(ex, 0, &hash, 16);
    std::vector<int64_t> keys = {5, 5 + (INT64_C(1) << 32), 5 - (INT64_C(1) << 62), 5 + (INT64_C(1) << 33)};
    fill(keys);
    for (int64_t key : keys) {
        EXPECT_EQ(_korI64Hash_Get(ex, 0, &hash, key), valueFor(key));
    }
    EXPECT_EQ(_korI64Hash_Get(ex, 0, &hash, 5 + (INT64_C(1) << 34)), 0u);
    korI64HashIterator walk = walkTo(5);
    EXPECT_EQ(rest(&walk).size(), 3u);
}

TEST_F(KorI64Hash, GrowthEndsAtItsLimit)
{
    constexpr int64_t limit = 0x100000;
    for (int64_t key = 0; key < limit + 1000; key++) {
        _korI64Hash_Set(ex, 0, &hash, key, valueFor(key));
    }
    EXPECT_EQ(hash.slotCount, limit);
    EXPECT_EQ(hash.entryCount, limit + 1000);
    for (int64_t key : {INT64_C(0), INT64_C(999), limit - 1, limit, limit + 999}) {
        EXPECT_EQ(_korI64Hash_Get(ex, 0, &hash, key), valueFor(key));
    }
}

TEST_F(KorI64Hash, RemovingTheCurrentEntryByKey)
{
    // Slot 1 holds 1 and behind it 17; slot 2 holds 2 alone. The walk's order is 2, 1, 17.
    auto start = [&] {
        _korI64Hash_Clear(0, ex, &hash);
        _korI64Hash_Init(ex, 0, &hash, 16);
        fill({1, 17, 2});
    };
    start();
    korI64HashIterator walk = walkTo(1);
    EXPECT_EQ(_korI64Hash_RemoveIterSafe(0, ex, &hash, 1, &walk), valueFor(1));
    EXPECT_EQ(rest(&walk), (std::vector<int64_t>{17})) << "its successor takes over the slot";
    start();
    walk = walkTo(17);
    EXPECT_EQ(_korI64Hash_RemoveIterSafe(0, ex, &hash, 1, &walk), valueFor(1));
    EXPECT_EQ(rest(&walk), (std::vector<int64_t>{})) << "17 was given before it moved to the slot";
    start();
    walk = walkTo(2);
    EXPECT_EQ(_korI64Hash_RemoveIterSafe(0, ex, &hash, 2, &walk), valueFor(2));
    EXPECT_EQ(rest(&walk), (std::vector<int64_t>{})) << "alone in its slot: the walk ends";
    start();
    fill({33});
    walk = walkTo(33);
    EXPECT_EQ(_korI64Hash_RemoveIterSafe(0, ex, &hash, 33, &walk), valueFor(33));
    EXPECT_EQ(rest(&walk), (std::vector<int64_t>{17})) << "a chained entry: the walk goes on behind it";
    walk = walkTo(17);
    EXPECT_EQ(_korI64Hash_RemoveIterSafe(0, ex, &hash, 17, &walk), valueFor(17));
    EXPECT_EQ(rest(&walk), (std::vector<int64_t>{2, 1})) << "behind the circle's last comes its first";
    walk = walkTo(1);
    _korI64Hash_Remove(0, ex, &hash, 2);
    EXPECT_EQ(_korI64Hash_RemoveIterSafe(0, ex, &hash, 1, &walk), valueFor(1));
    EXPECT_EQ(walk.current, nullptr);
    EXPECT_EQ(hash.listHead, nullptr);
}

TEST_F(KorI64Hash, AnIteratorFindsItsEntryAfterGrowth)
{
    fill({1, 2, 3, 4});
    korI64HashIterator walk = walkTo(3);
    std::set<int64_t> seen = {3};
    _korI64Hash_SetIterSafe(ex, 0, &hash, 5, valueFor(5), &walk);
    EXPECT_EQ(hash.slotCount, 8u);
    ASSERT_NE(walk.current, nullptr);
    EXPECT_EQ(walk.current->key, 3);
    _korI64Hash_IteratorDone(ex, 0, &walk);
    EXPECT_TRUE(rest(&walk).empty());
}

TEST_F(KorI64Hash, WithAnErrorPendingOnlyCleaningWorks)
{
    _korI64Hash_Init(ex, 0, &hash, 4);
    fill({1, 2, 5});
    korI64HashIterator walk = walkTo(1);
    korI64HashIterator untouched = walk;
    int64_t key;
    uint64_t value;
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(_korI64Hash_Get(ex, 0, &hash, 1), 0u);
    EXPECT_EQ(_korI64Hash_Set(ex, 0, &hash, 1, 9), 0u);
    EXPECT_FALSE(_korI64Hash_Next(ex, 0, &walk, &key, &value));
    _korI64Hash_IteratorInit(ex, 0, &hash, &untouched);
    EXPECT_EQ(untouched.skipAdvance, 0);
    EXPECT_EQ(_korI64Hash_Create(ex, 0, 4), nullptr);
    EXPECT_EQ(_korI64Hash_Remove(0, ex, &hash, 1), valueFor(1));
    EXPECT_EQ(hash.entryCount, 2u);
    _korI64Hash_Clear(0, ex, &hash);
    EXPECT_EQ(hash.entryCount, 0u);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
}

TEST_F(KorI64Hash, AWalkThatStandsNowhereRemovesNothing)
{
    fill({1, 2});
    korI64HashIterator walk = walkTo(1);
    rest(&walk);
    _korI64Hash_RemoveCurrent(0, ex, &walk);
    _korI64Hash_RemoveCurrent(0, ex, nullptr);
    EXPECT_EQ(hash.entryCount, 2u);
    _korI64Hash_Clear(0, ex, &hash);
    _korI64Hash_IteratorInit(ex, 0, &hash, &walk);
    _korI64Hash_RemoveCurrent(0, ex, &walk);
    EXPECT_EQ(hash.entryCount, 0u);
}

// ---- Heap and pooled tables, one body ----

class KorI64HashForms : public KorTest, public testing::WithParamInterface<bool>
{
protected:
    void SetUp() override
    {
        if (GetParam()) {
            _korI64Hash_CreatePoolsEx(ex, 0, &pools, 8);
            ASSERT_CLEAN();
        }
    }
    void TearDown() override
    {
        if (GetParam()) {
            _korI64Hash_DestroyPools(0, ex, &pools);
            EXPECT_EQ(pools.hashPool, nullptr);
            EXPECT_EQ(pools.entryCache.pool, nullptr);
            _korI64Hash_DestroyPools(0, ex, &pools);
        }
        KorTest::TearDown();
    }

    korI64Hash* create(int32_t slots)
    {
        return GetParam() ? _korI64Hash_CreatePooled(ex, 0, &pools, slots) : _korI64Hash_Create(ex, 0, slots);
    }
    void destroy(korI64Hash* hash)
    {
        GetParam() ? _korI64Hash_DestroyPooled(0, ex, hash, &pools) : _korI64Hash_Destroy(0, ex, hash);
    }
    void clear(korI64Hash* hash)
    {
        GetParam() ? _korI64Hash_ClearPooled(0, ex, hash, &pools) : _korI64Hash_Clear(0, ex, hash);
    }
    uint64_t set(korI64Hash* hash, int64_t key, uint64_t value)
    {
        return GetParam() ? _korI64Hash_SetPooled(ex, 0, hash, &pools, key, value)
                          : _korI64Hash_Set(ex, 0, hash, key, value);
    }
    uint64_t remove(korI64Hash* hash, int64_t key)
    {
        return GetParam() ? _korI64Hash_RemovePooled(0, ex, hash, &pools, key) : _korI64Hash_Remove(0, ex, hash, key);
    }
    uint64_t removeDuring(korI64Hash* hash, int64_t key, korI64HashIterator* walk)
    {
        return GetParam() ? _korI64Hash_RemovePooledIterSafe(0, ex, hash, &pools, key, walk)
                          : _korI64Hash_RemoveIterSafe(0, ex, hash, key, walk);
    }
    void removeCurrent(korI64HashIterator* walk)
    {
        GetParam() ? _korI64Hash_RemoveCurrentPooled(0, ex, walk, &pools) : _korI64Hash_RemoveCurrent(0, ex, walk);
    }

    // A whole walk meets each entry once. Entries for which `removed` holds are removed on the way.
    template <class Predicate>
    void walkAll(korI64Hash* hash, Model& model, Predicate removed)
    {
        Model left = model;
        korI64HashIterator walk;
        int64_t key;
        uint64_t value;
        _korI64Hash_IteratorInit(ex, 0, hash, &walk);
        while (_korI64Hash_Next(ex, 0, &walk, &key, &value)) {
            auto entry = left.find(key);
            ASSERT_TRUE(entry != left.end()) << key << " was met twice or is not there";
            EXPECT_EQ(value, entry->second);
            left.erase(entry);
            if (removed(key)) {
                removeCurrent(&walk);
                model.erase(key);
            }
        }
        EXPECT_TRUE(left.empty());
        EXPECT_EQ(hash->entryCount, model.size());
    }

    // Removes other entries than the current one during a walk: what remains is still met, and nothing twice.
    void walkRemovingOthers(korI64Hash* hash, Model& model, Random& random)
    {
        std::set<int64_t> seen;
        korI64HashIterator walk;
        int64_t key;
        _korI64Hash_IteratorInit(ex, 0, hash, &walk);
        while (_korI64Hash_Next(ex, 0, &walk, &key, nullptr)) {
            ASSERT_TRUE(seen.insert(key).second) << key;
            auto other = std::next(model.begin(), static_cast<ptrdiff_t>(random.below(model.size())));
            if (other->first != key) {
                EXPECT_EQ(removeDuring(hash, other->first, &walk), other->second);
                model.erase(other);
            }
        }
        for (const auto& [left, value] : model) {
            EXPECT_TRUE(seen.contains(left)) << left;
        }
    }

    korI64HashPools pools = {};
};

INSTANTIATE_TEST_SUITE_P(Forms, KorI64HashForms, testing::Bool(),
                         [](const auto& form) { return form.param ? "pooled" : "heap"; });

TEST_P(KorI64HashForms, RandomOperationsMatchAMap)
{
    Random random;
    for (int round = 0; round < 60; round++) {
        korI64Hash* hash = create(static_cast<int32_t>(random.below(20)) - 1);
        if (hash == nullptr) {
            EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
            continue;
        }
        Model model;
        unsigned shift = static_cast<unsigned>(random.below(5)); // the higher, the longer the chains
        uint64_t range = 1 + random.below(300);
        for (int step = 0; step < 600; step++) {
            int64_t key = (static_cast<int64_t>(random.below(range)) - 20) * (INT64_C(1) << shift);
            auto entry = model.find(key);
            uint64_t before = entry != model.end() ? entry->second : 0;
            EXPECT_EQ(_korI64Hash_Get(ex, 0, hash, key), before);
            if (random.chance(60)) {
                uint64_t value = random.next();
                EXPECT_EQ(set(hash, key, value), before);
                model[key] = value;
            } else {
                EXPECT_EQ(remove(hash, key), before);
                model.erase(key);
            }
            ASSERT_EQ(hash->entryCount, model.size());
            if (step % 100 == 0) {
                walkAll(hash, model, [&](int64_t) { return random.chance(30); });
            }
        }
        walkRemovingOthers(hash, model, random);
        walkAll(hash, model, [](int64_t) { return false; });
        if (random.chance(50)) {
            walkAll(hash, model, [](int64_t) { return true; });
        } else {
            clear(hash);
            model.clear();
        }
        EXPECT_EQ(set(hash, 4, 5), 0u);
        model[4] = 5;
        walkAll(hash, model, [](int64_t) { return true; });
        destroy(hash);
    }
}

TEST_P(KorI64HashForms, AFailedSetLeavesTheTableAsItWas)
{
    uint64_t requests = sweepFailures(ex, [&] {
        korI64Hash* hash = create(1);
        int64_t done = 0;
        while (hash != nullptr && done < 40 && ex->code == 0) {
            set(hash, done * 2, valueFor(done * 2)); // chains in every second slot, none in the others
            done += ex->code == 0;
        }
        KOR_EX_LOCAL(other);
        for (int64_t i = 0; i < done; i++) {
            EXPECT_EQ(_korI64Hash_Get(&other, 0, hash, i * 2), valueFor(i * 2));
        }
        if (hash != nullptr) {
            EXPECT_EQ(hash->entryCount, static_cast<uint32_t>(done));
        }
        destroy(hash);
    });
    EXPECT_GE(requests, 10u);
}

} // namespace

TEST_F(KorI64Hash, ATableInPlaceTakesItsEntriesFromPoolsWithoutACache)
{
    korI64HashPools pools = {};
    _korI64Hash_CreatePools(ex, 0, &pools);
    korI64Hash own;
    _korI64Hash_InitPooled(ex, 0, &own, &pools, 4);
    ASSERT_CLEAN();
    EXPECT_EQ(pools.entryCache.maxSize, 0);
    uint32_t before, after, free;
    _korPool_Memory(pools.entryCache.pool, &before, &free);
    for (int64_t key = 0; key < 1000; key++) {
        _korI64Hash_SetPooled(ex, 0, &own, &pools, key << 20, valueFor(key)); // few slots for all of them
    }
    _korPool_Memory(pools.entryCache.pool, &after, &free);
    EXPECT_GT(after, before);
    EXPECT_EQ(_korI64Hash_RemovePooled(0, ex, &own, &pools, 8 << 20), valueFor(8));
    EXPECT_EQ(_korI64Hash_Get(ex, 0, &own, 4 << 20), valueFor(4));
    _korI64Hash_ClearPooled(0, ex, &own, &pools);
    _korI64Hash_DestroyPools(0, ex, &pools);
}
