// korLazy64Hash_test.cpp - the integer form of the lazily resized table: the body of checks it shares, then its own
// rules.

#include "containers/tableModel.h"

#include "korutil/korLazy64Hash.h"
#include "korutil/korPool.h"

namespace kor::test {
namespace {

// Keys of which a third differ above the low 32 bits only; number 0 is key 0.
template <bool Pooled>
class IntegerSubject
{
public:
    static constexpr bool lazy = true;
    IntegerSubject(korEx* ex, int64_t slots) : ex_(ex)
    {
        if (Pooled) {
            _korLazy64Hash_CreatePoolsEx(KOR_AT(ex, 0), &pools_, 8);
        }
        table_ = _korLazy64Hash_CreatePooled(KOR_AT(ex, 0), Pooled ? &pools_ : nullptr, slots);
    }
    ~IntegerSubject()
    {
        _korLazy64Hash_Destroy(KOR_AT_D(0, ex_), table_);
        _korLazy64Hash_DestroyPools(KOR_AT_D(0, ex_), &pools_);
    }
    IntegerSubject(const IntegerSubject&) = delete;
    IntegerSubject& operator=(const IntegerSubject&) = delete;
    bool made() const { return table_ != nullptr; }
    uint64_t held() const
    {
        return static_cast<uint64_t>(table_->count + (table_->oldHash == nullptr ? 0 : table_->oldHash->count));
    }
    uint64_t set(uint64_t number, uint64_t value)
    {
        return _korLazy64Hash_Set(KOR_AT(ex_, 0), table_, keyFor(number), value);
    }
    uint64_t get(uint64_t number) { return _korLazy64Hash_Get(KOR_AT(ex_, 0), table_, keyFor(number)); }
    uint64_t remove(uint64_t number) { return _korLazy64Hash_Remove(KOR_AT_D(0, ex_), table_, keyFor(number)); }
    void startWalk() { _korLazy64Hash_IteratorInit(KOR_AT(ex_, 0), table_, &walk_); }
    bool next(uint64_t* number, uint64_t* value)
    {
        uint64_t key = 0;
        bool more = _korLazy64Hash_Next(KOR_AT(ex_, 0), &walk_, &key, value);
        *number = key & UINT32_MAX ? key : key >> 32;
        return more;
    }
    void removeCurrent() { _korLazy64Hash_RemoveCurrent(KOR_AT_D(0, ex_), &walk_); }

private:
    static uint64_t keyFor(uint64_t number) { return number % 3 == 0 ? number << 32 : number; }

    korEx* ex_;
    korLazy64HashPools pools_{};
    korLazy64Hash* table_;
    korLazy64HashIterator walk_{};
};

using Subjects = testing::Types<IntegerSubject<false>, IntegerSubject<true>>;
INSTANTIATE_TYPED_TEST_SUITE_P(Lazy64Hash, TableTest, Subjects);

class Lazy64HashTest : public KorTest
{
protected:
    void fill(korLazy64Hash* hash, uint64_t count)
    {
        for (uint64_t key = 0; key < count; key++) {
            _korLazy64Hash_Set(KOR_AT(ex, 0), hash, key, key + 1);
        }
    }
};

TEST_F(Lazy64HashTest, shrinksNotBelow16)
{
    const struct {
        int64_t slots;
        uint64_t entries;
        int64_t after;
    } cases[] = {{32, 9, 32}, {32, 8, 16}, {16, 1, 16}};
    for (const auto& wanted : cases) {
        korLazy64Hash hash;
        _korLazy64Hash_Init(KOR_AT(ex, 0), &hash, wanted.slots);
        fill(&hash, wanted.entries);
        EXPECT_EQ(_korLazy64Hash_Remove(KOR_AT_D(0, ex), &hash, 0), 1);
        EXPECT_EQ(hash.slotCount, wanted.after);
        _korLazy64Hash_Clear(KOR_AT_D(0, ex), &hash);
        _korLazy64Hash_Clear(KOR_AT_D(0, ex), &hash);
        EXPECT_EQ(_korLazy64Hash_Get(KOR_AT(ex, 0), &hash, 1), 0);
    }
    korLazy64Hash hash;
    _korLazy64Hash_Init(KOR_AT(ex, 0), &hash, 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Number of slots must be greater than zero");
}

TEST_F(Lazy64HashTest, anErrorPendingStopsAllButRemoves)
{
    korLazy64Hash* hash = _korLazy64Hash_Create(KOR_AT(ex, 0), 4);
    fill(hash, 3);
    korLazy64HashIterator iterator;
    _korLazy64Hash_IteratorInit(KOR_AT(ex, 0), hash, &iterator);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "pending");
    EXPECT_EQ(_korLazy64Hash_Get(KOR_AT(ex, 0), hash, 1), 0);
    EXPECT_EQ(_korLazy64Hash_Set(KOR_AT(ex, 0), hash, 1, 9), 0);
    EXPECT_FALSE(_korLazy64Hash_Next(KOR_AT(ex, 0), &iterator, nullptr, nullptr));
    EXPECT_EQ(_korLazy64Hash_Remove(KOR_AT_D(0, ex), hash, 1), 2);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "pending");
    _korLazy64Hash_RemoveCurrent(KOR_AT_D(0, ex), &iterator); // no current entry yet: key 0 stays
    EXPECT_EQ(_korLazy64Hash_Get(KOR_AT(ex, 0), hash, 0), 1);
    _korLazy64Hash_Destroy(KOR_AT_D(0, ex), hash);
}

TEST_F(Lazy64HashTest, aTableWhosePoolsAreGoneIsGone)
{
    korLazy64HashPools pools;
    _korLazy64Hash_CreatePools(KOR_AT(ex, 0), &pools);
    ASSERT_CLEAN();
    EXPECT_EQ(_korPool_ChunkSize(pools.hashPool), sizeof(korLazy64Hash));
    EXPECT_EQ(_korPool_ChunkSize(pools.entryCache.pool), sizeof(korLazy64Entry));
    // One slot, from the cache: the table has nothing of its own on the heap.
    korLazy64Hash* hash = _korLazy64Hash_CreatePooled(KOR_AT(ex, 0), &pools, 1);
    ASSERT_CLEAN();
    korLazy64Hash left = *hash; // the object's memory goes with its pool
    _korLazy64Hash_DestroyPools(KOR_AT_D(0, ex), &pools);
    EXPECT_EQ(pools.hashPool, nullptr);
    _korLazy64Hash_Destroy(KOR_AT_D(0, ex), &left);
    EXPECT_EQ(left.slotCount, 1);
    _korLazy64Hash_DestroyPools(KOR_AT_D(0, ex), &pools);
}

TEST_F(Lazy64HashTest, aTableOfTheCallersTakesItsEntriesFromPools)
{
    korLazy64HashPools pools;
    _korLazy64Hash_CreatePools(KOR_AT(ex, 0), &pools);
    ASSERT_CLEAN();
    uint32_t before, after, free;
    _korPool_Memory(pools.entryCache.pool, &before, &free);
    korLazy64Hash hash;
    _korLazy64Hash_InitPooled(KOR_AT(ex, 0), &hash, &pools, 64);
    EXPECT_EQ(hash.pools, &pools);
    for (uint64_t key = 0; key < 1000; key++) {
        _korLazy64Hash_Set(KOR_AT(ex, 0), &hash, key << 32, key + 1); // few slots for all of them
    }
    _korPool_Memory(pools.entryCache.pool, &after, &free);
    EXPECT_GT(after, before);
    EXPECT_EQ(_korLazy64Hash_Get(KOR_AT(ex, 0), &hash, uint64_t{999} << 32), 1000);
    _korLazy64Hash_Clear(KOR_AT_D(0, ex), &hash);
    _korLazy64Hash_DestroyPools(KOR_AT_D(0, ex), &pools);
}

} // namespace
} // namespace kor::test
