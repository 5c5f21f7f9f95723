// korI64Hash_test.cpp - the 64-bit integer hash: the checks that tables share, then growth, the single entry in the
// object, and what removals do to a walk.

#include "containers/tableModel.h"

#include "korutil/korI64Hash.h"

#include <vector>

namespace kor::test {
namespace {

// A quarter of the keys differ above bit 31 only, a quarter share few slots, and some are negative.
int64_t keyFor(uint64_t number)
{
    int64_t key = static_cast<int64_t>(number) - 20;
    return number % 2 != 0 ? key : number % 4 == 0 ? key * (INT64_C(1) << 33) : key * 64;
}

uint64_t numberOf(int64_t key)
{
    int64_t number = key % 2 != 0 ? key : (key & UINT32_MAX) == 0 ? key / (INT64_C(1) << 33) : key / 64;
    return static_cast<uint64_t>(number + 20);
}

template <bool Pooled>
class IntegerSubject : public TableSubject<korI64Hash, korI64HashIterator>
{
public:
    static constexpr bool removesOnce = false;
    IntegerSubject(korEx* ex, int64_t count) : TableSubject(ex)
    {
        auto slots = static_cast<int32_t>(count);
        if (Pooled) {
            _korI64Hash_CreatePoolsEx(ex, 0, &pools_, 8);
        }
        table_ = Pooled ? _korI64Hash_CreatePooled(ex, 0, &pools_, slots) : _korI64Hash_Create(ex, 0, slots);
    }
    ~IntegerSubject()
    {
        Pooled ? _korI64Hash_DestroyPooled(0, ex_, table_, &pools_) : _korI64Hash_Destroy(0, ex_, table_);
        _korI64Hash_DestroyPools(0, ex_, &pools_);
        EXPECT_EQ(pools_.hashPool, nullptr);
    }
    int64_t held() const { return table_->entryCount; }
    uint64_t set(uint64_t number, uint64_t value)
    {
        return Pooled ? _korI64Hash_SetPooled(ex_, 0, table_, &pools_, keyFor(number), value)
                      : _korI64Hash_Set(ex_, 0, table_, keyFor(number), value);
    }
    uint64_t get(uint64_t number) { return _korI64Hash_Get(ex_, 0, table_, keyFor(number)); }
    uint64_t remove(uint64_t number)
    {
        return Pooled ? _korI64Hash_RemovePooled(0, ex_, table_, &pools_, keyFor(number))
                      : _korI64Hash_Remove(0, ex_, table_, keyFor(number));
    }
    uint64_t removeDuringWalk(uint64_t number)
    {
        return Pooled ? _korI64Hash_RemovePooledIterSafe(0, ex_, table_, &pools_, keyFor(number), &walk_)
                      : _korI64Hash_RemoveIterSafe(0, ex_, table_, keyFor(number), &walk_);
    }
    void startWalk() { _korI64Hash_IteratorInit(ex_, 0, table_, &walk_); }
    bool next(uint64_t* number, uint64_t* value)
    {
        int64_t key = 0;
        bool more = _korI64Hash_Next(ex_, 0, &walk_, &key, value);
        *number = numberOf(key);
        return more;
    }
    void removeCurrent()
    {
        Pooled ? _korI64Hash_RemoveCurrentPooled(0, ex_, &walk_, &pools_) : _korI64Hash_RemoveCurrent(0, ex_, &walk_);
    }

private:
    korI64HashPools pools_{};
};

using Subjects = testing::Types<IntegerSubject<false>, IntegerSubject<true>>;
INSTANTIATE_TYPED_TEST_SUITE_P(I64Hash, TableTest, Subjects);

template <class Subject>
class I64HashWalk : public KorTest
{};
TYPED_TEST_SUITE(I64HashWalk, Subjects);

TYPED_TEST(I64HashWalk, MeetsWhatRemainsAndNothingTwiceIfOthersGo)
{
    Random random;
    for (int round = 0; round < 30; round++) {
        TypeParam table(this->ex, 1);
        std::set<uint64_t> left, seen;
        for (uint64_t number = random.below(300); number > 0; number--) {
            table.set(number, number);
            left.insert(number);
        }
        uint64_t number, value;
        for (table.startWalk(); table.next(&number, &value);) {
            ASSERT_TRUE(seen.insert(number).second) << number;
            uint64_t other = random.below(300);
            if (other != number) {
                EXPECT_EQ(table.removeDuringWalk(other), left.erase(other) != 0 ? other : 0);
            }
        }
        for (uint64_t one : left) {
            EXPECT_TRUE(seen.contains(one)) << one;
        }
    }
}

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
        while (keys.size() < 1000 && _korI64Hash_Next(ex, 0, walk, &key, nullptr)) {
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

TEST_F(KorI64Hash, GrowthEndsAtItsLimit)
{
    constexpr int64_t limit = 0x100000;
    _korI64Hash_Init(ex, 0, &hash, 3);
    EXPECT_EQ(hash.slotCount, 4u);
    for (int64_t key = 0; key < limit + 1000; key++) {
        _korI64Hash_Set(ex, 0, &hash, key, valueFor(key));
    }
    EXPECT_EQ(hash.slotCount, limit);
    EXPECT_EQ(_korI64Hash_Get(ex, 0, &hash, 999), valueFor(999));
    EXPECT_EQ(_korI64Hash_Get(ex, 0, &hash, limit + 999), valueFor(limit + 999));
}

TEST_F(KorI64Hash, TheFirstEntryStaysInTheObject)
{
    {
        FailingHeap heap(1);
        _korI64Hash_Init(ex, 0, &hash, 1);
        _korI64Hash_Set(ex, 0, &hash, 0, valueFor(0));
        EXPECT_FALSE(heap.fired());
    }
    korI64HashIterator walk = walkTo(0);
    _korI64Hash_RemoveCurrent(0, ex, &walk);
    EXPECT_TRUE(rest(&walk).empty());
    fill({0});
    EXPECT_EQ(_korI64Hash_Set(ex, 0, &hash, 0, 7), valueFor(0));
    EXPECT_EQ(hash.slotCount, 2u) << "the room is made before the key is looked for";
    EXPECT_EQ(_korI64Hash_Remove(0, ex, &hash, 0), 7u);
}

TEST_F(KorI64Hash, RemovingTheCurrentEntryByKey)
{
    // Slot 1 holds 1 and behind it 17, or 33 and 17; slot 2 holds 2 alone, which a walk meets first.
    const struct {
        const char* what;
        std::vector<int64_t> keys;
        int64_t current, removed;
        std::vector<int64_t> rest;
    } cases[] = {
        {"its successor takes over the slot", {1, 17, 2}, 1, 1, {17}},
        {"17 was given before it moved to the slot", {1, 17, 2}, 17, 1, {}},
        {"alone in its slot: the walk ends", {1, 17, 2}, 2, 2, {}},
        {"a chained entry: the walk goes on behind it", {1, 17, 2, 33}, 33, 33, {17}},
        {"behind the circle's last comes its first", {1, 17, 2}, 17, 17, {2, 1}},
        {"the only one", {1}, 1, 1, {}},
    };
    for (const auto& c : cases) {
        _korI64Hash_Clear(0, ex, &hash);
        _korI64Hash_Init(ex, 0, &hash, 16);
        fill(c.keys);
        korI64HashIterator walk = walkTo(c.current);
        EXPECT_EQ(_korI64Hash_RemoveIterSafe(0, ex, &hash, c.removed, &walk), valueFor(c.removed));
        EXPECT_EQ(rest(&walk), c.rest) << c.what;
    }
}

TEST_F(KorI64Hash, AnIteratorFindsItsEntryAfterGrowth)
{
    fill({1, 2, 3, 4});
    korI64HashIterator walk = walkTo(3);
    _korI64Hash_SetIterSafe(ex, 0, &hash, 5, valueFor(5), &walk);
    EXPECT_EQ(hash.slotCount, 8u);
    EXPECT_EQ(walk.current->key, 3);
    _korI64Hash_IteratorDone(ex, 0, &walk);
    EXPECT_TRUE(rest(&walk).empty());
    _korI64Hash_RemoveCurrent(0, ex, &walk); // it stands nowhere now
    EXPECT_EQ(hash.entryCount, 5u);
}

TEST_F(KorI64Hash, ATableInPlaceTakesItsEntriesFromPools)
{
    korI64HashPools pools;
    _korI64Hash_CreatePools(ex, 0, &pools);
    _korI64Hash_InitPooled(ex, 0, &hash, &pools, 4);
    for (int64_t key : {1, 5, 9}) {
        _korI64Hash_SetPooled(ex, 0, &hash, &pools, key, valueFor(key));
    }
    _korI64Hash_ClearPooled(0, ex, &hash, &pools);
    _korI64Hash_DestroyPools(0, ex, &pools);
}

} // namespace
} // namespace kor::test
