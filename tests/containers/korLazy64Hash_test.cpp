// korLazy64Hash_test.cpp - the integer form of the lazily resized table: the checks that tables share, then its own
// rules.

#include "containers/tableModel.h"

#include "korutil/korLazy64Hash.h"
#include "korutil/korPool.h"

namespace kor::test {
namespace {

// Keys of which a third differ above the low 32 bits only; number 0 is key 0.
template <bool Pooled>
class IntegerSubject : public LazySubject<korLazy64Hash, korLazy64HashIterator>
{
public:
    IntegerSubject(korEx* ex, int64_t slots) : LazySubject(ex)
    {
        if (Pooled) {
            _korLazy64Hash_CreatePoolsEx(ex, 0, &pools_, 8);
        }
        table_ = _korLazy64Hash_CreatePooled(ex, 0, Pooled ? &pools_ : nullptr, slots);
    }
    ~IntegerSubject()
    {
        _korLazy64Hash_Destroy(0, ex_, table_);
        _korLazy64Hash_DestroyPools(0, ex_, &pools_);
    }
    uint64_t set(uint64_t number, uint64_t value) { return _korLazy64Hash_Set(ex_, 0, table_, key(number), value); }
    uint64_t get(uint64_t number) { return _korLazy64Hash_Get(ex_, 0, table_, key(number)); }
    uint64_t remove(uint64_t number) { return _korLazy64Hash_Remove(0, ex_, table_, key(number)); }
    void startWalk() { _korLazy64Hash_IteratorInit(ex_, 0, table_, &walk_); }
    bool next(uint64_t* number, uint64_t* value)
    {
        bool more = _korLazy64Hash_Next(ex_, 0, &walk_, number, value);
        *number = (*number & UINT32_MAX) != 0 ? *number : *number >> 32;
        return more;
    }
    void removeCurrent() { _korLazy64Hash_RemoveCurrent(0, ex_, &walk_); }

private:
    static uint64_t key(uint64_t number) { return number % 3 == 0 ? number << 32 : number; }

    korLazy64HashPools pools_{};
};

using Subjects = testing::Types<IntegerSubject<false>, IntegerSubject<true>>;
INSTANTIATE_TYPED_TEST_SUITE_P(Lazy64Hash, TableTest, Subjects);

using Lazy64HashTest = KorTest;

TEST_F(Lazy64HashTest, shrinksNotBelow16)
{
    korLazy64Hash* hash = _korLazy64Hash_Create(ex, 0, 32);
    for (uint64_t key = 0; key < 9; key++) {
        _korLazy64Hash_Set(ex, 0, hash, key, key + 1);
    }
    for (uint64_t key = 0; key < 6; key++) { // the count before the removal is tested
        EXPECT_EQ(_korLazy64Hash_Remove(0, ex, hash, key), key + 1);
        EXPECT_EQ(hash->slotCount, key == 0 ? 32 : 16);
    }
    _korLazy64Hash_Destroy(0, ex, hash);
}

TEST_F(Lazy64HashTest, aTableOfTheCallersUsesPoolsAndIsGoneWithThem)
{
    korLazy64HashPools pools;
    _korLazy64Hash_CreatePools(ex, 0, &pools);
    korLazy64Hash hash;
    _korLazy64Hash_Init(ex, 0, &hash, 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Number of slots must be greater than zero");
    _korLazy64Hash_InitPooled(ex, 0, &hash, &pools, 64);
    for (uint64_t key = 0; key < 10; key++) {
        _korLazy64Hash_Set(ex, 0, &hash, key << 32, key + 1); // in one chain
    }
    _korLazy64Hash_Clear(0, ex, &hash);
    EXPECT_EQ(_korLazy64Hash_Get(ex, 0, &hash, 1), 0);

    // One slot, from the cache: the table has nothing of its own on the heap.
    korLazy64Hash left = *_korLazy64Hash_CreatePooled(ex, 0, &pools, 1);
    _korLazy64Hash_DestroyPools(0, ex, &pools);
    _korLazy64Hash_Destroy(0, ex, &left);
    EXPECT_EQ(left.slotCount, 1);
}

} // namespace
} // namespace kor::test
