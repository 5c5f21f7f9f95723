// korRefDpa_test.cpp - counted arrays: with the library's shared pool and without it.

#include "korutil/korAlloc.h"
#include "korutil/korPool.h"
#include "korutil/korRefDpa.h"
#include "support/failingHeap.h"

using namespace kor::test;

namespace {

using KorRefDpa = KorTest;

void release(korEx* ex, korRefDpa* counted)
{
    if (counted->pool != nullptr) {
        _korPool_Return(0, ex, counted->pool, counted);
    } else {
        _korDpa_Clear(0, ex, &counted->array);
        _kor_free(0, ex, counted);
    }
}

TEST_F(KorRefDpa, ThePoolKeepsTheStorageForTheNextUse)
{
    _korRefDpa_Open(ex, 0);
    _korRefDpa_Open(ex, 0);
    const uint64_t* items = nullptr;
    for (bool again : {false, true}) {
        korRefDpa* counted = _korRefDpa_Create(ex, 0, 3);
        EXPECT_EQ(counted->refCount, 1);
        EXPECT_EQ(counted->array.count, 0);
        EXPECT_EQ(counted->array.capacity, again ? 48 : 16) << "the hint is for arrays without a pool";
        EXPECT_EQ(counted->array.items == items, again);
        for (uint64_t value = 0; value < 20; value++) {
            _korDpa_AddSafe(ex, 0, &counted->array, value);
        }
        items = counted->array.items;
        release(ex, counted);
    }
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
                EXPECT_EQ(counted->pool != nullptr, pooled);
                release(ex, counted);
            }
            _korRefDpa_Close(0, ex);
        });
    }
}

} // namespace
