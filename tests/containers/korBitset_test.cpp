// korBitset_test.cpp - the set of small numbers: its layout, its growth, and its members against a plain array.

#include "korutil/korBitset.h"
#include "support/failingHeap.h"

#include <vector>

using namespace kor::test;

namespace {

class KorBitset : public KorTest
{
protected:
    ~KorBitset() override { _korBitset_Destroy(0, ex, bits); }

    bool has(uint64_t bit) { return _korBitset_IsPresent(ex, 0, bits, bit); }

    korBitset* bits = _korBitset_Create(ex, 0);
};

TEST_F(KorBitset, EightMembersShareAWordAndAskingMakesItGrow)
{
    for (uint64_t bit : {0u, 7u, 8u, 511u}) {
        _korBitset_Add(ex, 0, bits, bit);
    }
    EXPECT_EQ(bits->wordCount, 64u);
    EXPECT_EQ(bits->words[0], 0x81u);
    EXPECT_EQ(bits->words[1], 0x01u);
    EXPECT_EQ(bits->words[63], 0x80u);
    EXPECT_FALSE(has(512));
    EXPECT_EQ(bits->wordCount, 128u);
    EXPECT_FALSE(has(UINT64_MAX));
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    EXPECT_EQ(bits->wordCount, 128u);
}

TEST_F(KorBitset, AgainstAModel)
{
    Random random;
    std::vector<bool> model(4000);
    korBitset* copied = _korBitset_Create(ex, 0);
    for (uint64_t range : {2000u, 100u, 4000u}) { // copies go into a smaller set, and into a larger one
        for (int round = 0; round < 5000; round++) {
            uint64_t bit = random.below(range);
            bool adds = random.chance(60);
            adds ? _korBitset_Add(ex, 0, bits, bit) : _korBitset_Remove(ex, 0, bits, bit);
            model[bit] = adds;
        }
        _korBitset_CopyBitset(ex, 0, copied, bits);
        _korBitset_CopyBitset(ex, 0, bits, bits);
        korBitset* duplicate = _korBitset_Duplicate(ex, 0, bits);
        for (uint64_t bit = 0; bit < model.size(); bit++) {
            for (korBitset* set : {bits, duplicate, copied}) {
                EXPECT_EQ(_korBitset_IsPresent(ex, 0, set, bit), model[bit]);
            }
        }
        _korBitset_Destroy(0, ex, std::exchange(bits, duplicate));
        _korBitset_Clear(ex, 0, bits);
        model.assign(4000, false);
    }
    _korBitset_Destroy(0, ex, copied);
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

TEST_F(KorBitset, NoSetIsAnErrorAndAnErrorPendingStops)
{
    korBitset none = {};
    _korBitset_Add(ex, 0, &none, 1);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    ex->code = KOR_ERROR_TIMEOUT;
    _korBitset_Add(ex, 0, bits, 2);
    korEx_Clear(ex);
    EXPECT_FALSE(has(2));
}

} // namespace
