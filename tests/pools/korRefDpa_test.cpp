// korRefDpa_test.cpp - counted arrays: with the library's shared pool and without it.

#include "korutil/korAlloc.h"
#include "korutil/korPool.h"
#include "korutil/korRefDpa.h"
#include "support/failingHeap.h"

using kor::test::KorTest;
using kor::test::sweepFailures;

namespace {

class KorRefDpa : public KorTest
{
protected:
    void release(korRefDpa* counted)
    {
        if (counted->pool != nullptr) {
            _korPool_Return(0, ex, counted->pool, counted);
        } else {
            _korDpa_Clear(0, ex, &counted->array);
            _kor_free(0, ex, counted);
        }
    }
};

TEST_F(KorRefDpa, ThePoolKeepsTheStorageForTheNextUse)
{
    _korRefDpa_Open(ex, 0);
    _korRefDpa_Open(ex, 0);
    korRefDpa* first = _korRefDpa_Create(ex, 0, 3);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->refCount, 1);
    EXPECT_EQ(first->array.capacity, 16) << "the hint is for arrays without a pool";
    for (uint64_t value = 0; value < 20; value++) {
        _korDpa_AddSafe(ex, 0, &first->array, value);
    }
    const uint64_t* items = first->array.items;
    release(first);
    korRefDpa* second = _korRefDpa_Create(ex, 0, 3);
    EXPECT_EQ(second, first);
    EXPECT_EQ(second->array.count, 0);
    EXPECT_EQ(second->array.items, items);
    release(second);
    _korRefDpa_Close(0, ex);
    _korRefDpa_Close(0, ex);
}

TEST_F(KorRefDpa, EveryRequestMayFail)
{
    for (bool pooled : {false, true}) {
        sweepFailures(ex, [&] {
            if (pooled) {
                _korRefDpa_Open(ex, 0);
            }
            korRefDpa* counted = _korRefDpa_Create(ex, 0, 7);
            EXPECT_EQ(counted != nullptr, ex->code == 0);
            if (counted != nullptr) {
                EXPECT_EQ(counted->array.capacity, pooled ? 16 : 7);
                release(counted);
            }
            _korRefDpa_Close(0, ex);
        });
    }
}

} // namespace
