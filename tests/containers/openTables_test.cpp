// openTables_test.cpp - the plain chained tables, korI32Hash and kor128Hash: the checks that tables share, then the
// rules of both by one set of tests, and what only one of them has.

#include "containers/tableModel.h"

#include "korutil/kor128Hash.h"
#include "korutil/korI32Hash.h"

namespace kor::test {
namespace {

class Subject32 : public TableSubject<korI32Hash, korHashChainIterator>
{
public:
    Subject32(korEx* ex, int64_t slots) : TableSubject(ex)
    {
        table_ = _korI32Hash_Create(ex, 0, static_cast<int32_t>(slots));
    }
    static constexpr bool removesOnce = false;
    ~Subject32() { _korI32Hash_Destroy(0, ex_, table_); }
    int64_t held() const { return table_->count; }
    int64_t mask() const { return table_->mask; }
    uint64_t get(uint64_t number) { return _korI32Hash_Get(ex_, 0, table_, key(number)); }
    uint64_t set(uint64_t number, uint64_t value) { return _korI32Hash_Set(ex_, 0, table_, key(number), value); }
    uint64_t remove(uint64_t number) { return _korI32Hash_Remove(0, ex_, table_, key(number)); }
    void startWalk() { _korI32Hash_IteratorInit(table_, &walk_); }
    bool next(uint64_t* number, uint64_t* value)
    {
        uint32_t found = 0;
        bool more = _korI32Hash_Next(&walk_, &found, value);
        *number = found < tableNumbers ? found : found >> 20;
        return more;
    }
    void removeCurrent() { _korI32Hash_RemoveCurrent(0, ex_, &walk_); }

private:
    static uint32_t key(uint64_t number) { return static_cast<uint32_t>(number % 3 == 0 ? number << 20 : number); }
};

template <bool Pooled>
class Subject128 : public TableSubject<kor128Hash, korHashChainIterator>
{
public:
    Subject128(korEx* ex, int64_t slots) : TableSubject(ex)
    {
        if (Pooled) {
            _kor128Hash_CreatePools(ex, 0, &hashPool_, &cache_, 0, 16);
        }
        table_ = _kor128Hash_CreatePooled(ex, 0, slots, hashPool_, cache_);
    }
    static constexpr bool removesOnce = false;
    ~Subject128()
    {
        korPool* entryPool = cache_ == nullptr ? nullptr : cache_->pool;
        _kor128Hash_DestroyPooled(0, ex_, table_, hashPool_);
        _korPoolCache_Destroy(0, ex_, cache_);
        _korPool_Destroy(0, ex_, entryPool);
        _korPool_Destroy(0, ex_, hashPool_);
    }
    int64_t held() const { return table_->count; }
    int64_t mask() const { return table_->mask; }
    uint64_t get(uint64_t number)
    {
        const uint64_t key[2] = {number, number * high};
        EXPECT_EQ(_kor128Hash_ContainsKey(table_, key), _kor128Hash_ContainsKey2(table_, number, key[1]));
        EXPECT_FALSE(number > 1 && _kor128Hash_ContainsKey2(table_, key[1], number)) << "words are not swapped";
        uint64_t value = _kor128Hash_Get(ex_, 0, table_, key);
        EXPECT_EQ(_kor128Hash_Get2(ex_, 0, table_, number, key[1]), value);
        return value;
    }
    uint64_t set(uint64_t number, uint64_t value)
    {
        const uint64_t key[2] = {number, number * high};
        return value % 2 != 0 ? _kor128Hash_Set(ex_, 0, table_, key, value)
                              : _kor128Hash_Set2(ex_, 0, table_, number, key[1], value);
    }
    uint64_t remove(uint64_t number)
    {
        const uint64_t key[2] = {number, number * high};
        return number % 2 != 0 ? _kor128Hash_Remove(0, ex_, table_, key)
                               : _kor128Hash_Remove2(0, ex_, table_, number, key[1]);
    }
    void startWalk() { _kor128Hash_IteratorInit(table_, &walk_); }
    bool next(uint64_t* number, uint64_t* value)
    {
        uint64_t key[2] = {};
        bool more = Pooled ? _kor128Hash_Next2(&walk_, &key[0], &key[1], value) : _kor128Hash_Next(&walk_, key, value);
        EXPECT_EQ(key[1], key[0] * high);
        *number = key[0];
        return more;
    }
    void removeCurrent() { _kor128Hash_RemoveCurrent(0, ex_, &walk_); }

private:
    static constexpr uint64_t high = 0x0123456789abcdef;

    korPool* hashPool_ = nullptr;
    korPoolCache* cache_ = nullptr;
};

using Subjects = testing::Types<Subject32, Subject128<false>, Subject128<true>>;
INSTANTIATE_TYPED_TEST_SUITE_P(Open, TableTest, Subjects);

template <class Subject>
class OpenTables : public KorTest
{};
TYPED_TEST_SUITE(OpenTables, Subjects);

TYPED_TEST(OpenTables, SizesAreRoundedUpAndOnlyNewKeysMakeATableGrow)
{
    const int least = std::is_same_v<TypeParam, Subject32> ? 0 : 31;
    EXPECT_EQ(TypeParam(this->ex, -1).mask(), least);
    EXPECT_EQ(TypeParam(this->ex, 3).mask(), 3);
    TypeParam table(this->ex, 1);
    EXPECT_EQ(table.set(0, 10), 0u);
    EXPECT_EQ(table.set(0, 11), 10u);
    EXPECT_EQ(table.mask(), 0);
    for (uint64_t number = 1; number < 100; ++number) {
        table.set(number, number);
    }
    EXPECT_EQ(table.mask(), 127);
}

using Kor128Hash = KorTest;

TEST_F(Kor128Hash, MeasuresAndSetsWhatAWalkMeets)
{
    kor128Hash* hash = _kor128Hash_CreatePooled(ex, 0, 1, nullptr, nullptr);
    _kor128Hash_Set2(ex, 0, hash, 0, 0, 1);
    korHashChainIterator walk;
    _kor128Hash_IteratorInit(hash, &walk);
    EXPECT_TRUE(_kor128Hash_Next2(&walk, nullptr, nullptr, nullptr));
    EXPECT_EQ(_kor128Hash_SetCurrentValue(&walk, 7)->keyLow, 0u);
    EXPECT_EQ(_kor128Hash_Get2(ex, 0, hash, 0, 0), 7u);
    EXPECT_EQ(_kor128Hash_Memory(hash), 32 + 8 + 32);
    StreamCapture capture(StreamCapture::error);
    _kor128Hash_Info(hash);
    EXPECT_NE(capture.text().find("Slots Percentage = 100.00%\nEntries          = 1\n"), std::string::npos);
    _kor128Hash_DestroyPooled(0, ex, hash, nullptr);
}

} // namespace
} // namespace kor::test
