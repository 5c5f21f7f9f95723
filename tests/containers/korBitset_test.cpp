// korBitset_test.cpp - the set of small numbers: its layout, its growth, and its members against std::set.

#include "korutil/korBitset.h"
#include "support/failingHeap.h"

#include <set>

using namespace kor::test;

namespace {

class KorBitset : public KorTest
{
protected:
    ~KorBitset() override { _korBitset_Destroy(0, ex, bits); }

    bool has(uint64_t bit) { return _korBitset_IsPresent(ex, 0, bits, bit); }

    korBitset* bits = _korBitset_Create(ex, 0);
};

TEST_F(KorBitset, EightMembersShareAWord)
{
    for (uint64_t bit : {0u, 7u, 8u, 511u}) {
        _korBitset_Add(ex, 0, bits, bit);
    }
    EXPECT_EQ(bits->wordCount, 64u);
    EXPECT_EQ(bits->words[0], 0x81u);
    EXPECT_EQ(bits->words[1], 0x01u);
    EXPECT_EQ(bits->words[63], 0x80u);
}

TEST_F(KorBitset, GrowsToTwiceTheWordThatIsAskedFor)
{
    EXPECT_FALSE(has(511));
    EXPECT_EQ(bits->wordCount, 64u);
    EXPECT_FALSE(has(512));
    EXPECT_EQ(bits->wordCount, 128u);
    _korBitset_Remove(ex, 0, bits, 8000);
    EXPECT_EQ(bits->wordCount, 2000u);
    EXPECT_FALSE(has(UINT64_MAX));
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    EXPECT_EQ(bits->wordCount, 2000u);
}

TEST_F(KorBitset, AgainstAModel)
{
    Random random;
    std::set<uint64_t> model;
    for (int round = 0; round < 5000; round++) {
        uint64_t bit = random.below(2000);
        if (random.chance(60)) {
            _korBitset_Add(ex, 0, bits, bit);
            model.insert(bit);
        } else {
            _korBitset_Remove(ex, 0, bits, bit);
            model.erase(bit);
        }
    }
    korBitset* copy = _korBitset_Duplicate(ex, 0, bits);
    EXPECT_EQ(copy->wordCount, bits->wordCount);
    _korBitset_Clear(ex, 0, bits);
    for (uint64_t bit = 0; bit < 2000; bit++) {
        EXPECT_EQ(_korBitset_IsPresent(ex, 0, copy, bit), model.contains(bit));
        EXPECT_FALSE(has(bit));
    }
    _korBitset_Destroy(0, ex, copy);
}

TEST_F(KorBitset, ACopyKeepsTheLargerSize)
{
    korBitset* small = _korBitset_Create(ex, 0);
    _korBitset_Add(ex, 0, small, 3);
    for (uint64_t bit : {5u, 1000u}) {
        _korBitset_Add(ex, 0, bits, bit);
    }
    uint64_t large = bits->wordCount;
    _korBitset_CopyBitset(ex, 0, bits, small);
    EXPECT_EQ(bits->wordCount, large);
    EXPECT_TRUE(has(3) && !has(5) && !has(1000));
    _korBitset_Add(ex, 0, bits, 1000);
    _korBitset_CopyBitset(ex, 0, small, bits);
    EXPECT_EQ(small->wordCount, large);
    EXPECT_TRUE(_korBitset_IsPresent(ex, 0, small, 3) && _korBitset_IsPresent(ex, 0, small, 1000));
    _korBitset_CopyBitset(ex, 0, bits, bits);
    EXPECT_TRUE(has(3) && has(1000));
    _korBitset_Destroy(0, ex, small);
}

TEST_F(KorBitset, EveryRequestMayFail)
{
    uint64_t requests = sweepFailures(ex, [this] {
        korBitset* set = _korBitset_Create(ex, 0);
        korBitset* copy = ex->code == 0 ? _korBitset_Duplicate(ex, 0, set) : nullptr;
        if (copy != nullptr) {
            _korBitset_Add(ex, 0, set, 600);
            EXPECT_EQ(set->wordCount, ex->code == 0 ? 150u : 64u);
            _korBitset_CopyBitset(ex, 0, copy, set);
            EXPECT_EQ(copy->wordCount, ex->code == 0 ? 150u : 64u);
        }
        _korBitset_Destroy(0, ex, copy);
        _korBitset_Destroy(0, ex, set);
    });
    EXPECT_EQ(requests, 6u);
}

TEST_F(KorBitset, NoSetIsAnError)
{
    korBitset empty = {};
    for (korBitset* none : {static_cast<korBitset*>(nullptr), &empty}) {
        _korBitset_Add(ex, 0, none, 1);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
        _korBitset_Remove(ex, 0, none, 1);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
        EXPECT_FALSE(_korBitset_IsPresent(ex, 0, none, 1));
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
        EXPECT_EQ(_korBitset_Duplicate(ex, 0, none), nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
        _korBitset_CopyBitset(ex, 0, none, bits);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
        _korBitset_CopyBitset(ex, 0, bits, none);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
        _korBitset_Clear(ex, 0, none);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    }
    _korBitset_Add(ex, 0, bits, 1);
    ex->code = KOR_ERROR_TIMEOUT;
    _korBitset_Add(ex, 0, bits, 2);
    _korBitset_Clear(ex, 0, bits);
    EXPECT_TRUE(!has(1) && _korBitset_Create(ex, 0) == nullptr && _korBitset_Duplicate(ex, 0, bits) == nullptr);
    EXPECT_EQ(bits->words[0], 2u);
    _korBitset_Destroy(0, ex, nullptr);
    korEx_Clear(ex);
}

} // namespace
