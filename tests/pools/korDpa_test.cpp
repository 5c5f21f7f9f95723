// korDpa_test.cpp - arrays: capacity and growth rules, order among equals, failures. Heap and pooled arrays go through
// one model check.

#include "korutil/korDpa.h"
#include "korutil/korPool.h"
#include "support/failingHeap.h"

#include <algorithm>
#include <vector>

using namespace kor::test;
using Values = std::vector<uint64_t>;

namespace {

Values valuesOf(const korDpa* dpa)
{
    return Values(dpa->items, dpa->items + dpa->count);
}

// Orders by the low half, so that the high half can tell equals apart.
int32_t compareLow(uint64_t left, uint64_t right)
{
    auto low = [](uint64_t value) { return static_cast<uint32_t>(value); };
    return low(left) < low(right) ? -1 : low(left) > low(right);
}

class KorDpa : public KorTest
{
protected:
    void SetUp() override { _korDpa_CreatePools(ex, 0, &objects, &arrays, 8); }
    void TearDown() override
    {
        std::for_each(made.begin(), made.end(), [&](korDpa* dpa) { destroy(dpa, false); });
        _korPool_Destroy(0, ex, objects);
        _korPool_Destroy(0, ex, arrays);
        KorTest::TearDown();
    }
    korDpa* create(int32_t size, bool pooled)
    {
        return _korDpa_CreatePooled(ex, 0, size, pooled ? objects : nullptr, pooled ? arrays : nullptr);
    }
    void destroy(korDpa* dpa, bool pooled) { _korDpa_DestroyPooled(0, ex, dpa, pooled ? objects : nullptr); }
    // An array on the heap until the end of the test.
    korDpa* make(const Values& values)
    {
        korDpa* dpa = made.emplace_back(create(0, false));
        std::for_each(values.begin(), values.end(), [&](uint64_t value) { _korDpa_AddSafe(ex, 0, dpa, value); });
        return dpa;
    }

    korPool* objects = nullptr;
    korPool* arrays = nullptr;
    std::vector<korDpa*> made;
};

TEST_F(KorDpa, CapacityFollowsTheHintAndTriples)
{
    struct {
        bool pooled;
        int32_t hint, capacity;
    } cases[] = {{false, -7, 1},    {false, 0, 1}, {false, 1, 1}, {false, 2, 5}, {false, 6, 6},
                 {false, 100, 100}, {true, 0, 2},  {true, 1, 2},  {true, 2, 8},  {true, 9, 9}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << (c.pooled ? "pooled " : "heap ") << c.hint);
        korDpa* array = create(c.hint, c.pooled);
        EXPECT_EQ(array->capacity, c.capacity);
        EXPECT_EQ(array->items == &array->inlineOrPool, c.capacity == 1);
        EXPECT_EQ(array->capacity != 1 && array->inlineOrPool != 0, c.capacity == 8) << "a whole chunk is the pool's";
        while (array->count < c.capacity) {
            _korDpa_AddSafe(ex, 0, array, 10);
        }
        _korDpa_AddSafe(ex, 0, array, 10);
        EXPECT_EQ(array->capacity, 3 * c.capacity);
        EXPECT_EQ(array->inlineOrPool, 0u) << "a grown array is the heap's";
        EXPECT_EQ(valuesOf(array), Values(static_cast<size_t>(c.capacity) + 1, 10));
        destroy(array, c.pooled);
    }
}

TEST_F(KorDpa, AddOrderedPlacesAnEqualValueBeforeTheLastOfItsRun)
{
    struct {
        Values values;
        uint64_t added;
        int index;
    } cases[] = {{{1, 2, 2, 3}, 2, 2}, {{1, 2, 2, 2, 3, 4}, 2, 3}, {{1, 2, 2, 2}, 2, 1},
                 {{2}, 2, 0},          {{1, 1, 1, 2}, 1, 2},       {{0, 1, 2, 2, 2}, 2, 2}};
    for (auto& c : cases) {
        korDpa* array = make(c.values);
        uint64_t added = uint64_t{9} << 32 | c.added;
        _korDpa_AddOrdered(ex, 0, array, added, compareLow);
        c.values.insert(c.values.begin() + c.index, added);
        EXPECT_EQ(valuesOf(array), c.values);
    }
}

TEST_F(KorDpa, MergesTakeTheSourceFirstOnTies)
{
    const uint64_t own = uint64_t{1} << 32, others = uint64_t{2} << 32;
    korDpa* array = make({own + 1, own + 2, own + 5});
    korDpa* source = make({others + 1, others + 3, others + 5, others + 5});
    _korDpa_AddDpaOrdered(ex, 0, array, source, compareLow);
    EXPECT_EQ(valuesOf(array), (Values{others + 1, own + 1, own + 2, others + 3, others + 5, others + 5, own + 5}));
    _korDpa_AddDpaOrdered(ex, 0, array, array, compareLow);
    EXPECT_EQ(array->count, 14) << "an array may be merged into itself";
    EXPECT_EQ(array->items[3], own + 1);

    korDpa* unique = make({});
    _korDpa_AddDpaOrderedUnique(ex, 0, unique, source, compareLow);
    _korDpa_AddDpaOrderedUnique(ex, 0, unique, make({1, 1, 4, 6, 6}), compareLow);
    EXPECT_EQ(valuesOf(unique), (Values{1, others + 3, 4, others + 5, 6}));
}

TEST_F(KorDpa, WhatIsRefusedLeavesTheArrayAsItWas)
{
    korDpa* array = make({1, 2});
    for (int32_t size : {-1, INT32_MAX}) {
        int32_t code = size < 0 ? KOR_ERROR_INVALID_ARGUMENT : KOR_ERROR_NO_MEMORY;
        _korDpa_Grow(ex, 0, array, size);
        EXPECT_RAISED(code, nullptr);
        _korDpa_AddIndex(ex, 0, array, 1, size);
        EXPECT_RAISED(code, nullptr);
    }
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    _korDpa_AddOrdered(ex, 0, array, 0, nullptr);
    _korDpa_AddIndex(ex, 0, array, 0, 0);
    _korDpa_Grow(ex, 0, array, 10);
    _korDpa_AddDpa(ex, 0, array, array);
    EXPECT_EQ(_korDpa_Copy(ex, 0, array), nullptr);
    EXPECT_EQ(create(10, false), nullptr);
    korDpa unmade;
    _korDpa_Init(ex, 0, &unmade, 10);
    _korDpa_Clear(0, ex, &unmade);
    EXPECT_EQ(unmade.capacity, 1) << "an array that could not be made can still be cleared";
    _korDpa_AddGrow(0, ex, nullptr, 1);
    _korDpa_Clear(0, ex, nullptr);
    _korDpa_DestroyPooled(0, ex, nullptr, nullptr);
    _korDpa_AddSafe(ex, 0, array, 3);
    _korDpa_AddSafe(ex, 0, array, 4);
    EXPECT_EQ(valuesOf(array), (Values{1, 2, 3, 4})) << "a plain append works with an error pending";
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
}

TEST_F(KorDpa, DeepCopyGivesAllOrNothing)
{
    static int live; // values that own something
    static uint64_t failing;
    auto copyValue = [](korEx* own, uint8_t depth, uint64_t value) {
        live++;
        if (value == failing) {
            KOR_RAISE(own, depth, KOR_ERROR_NOT_FOUND, "no copy");
        }
        return value + 100;
    };
    auto destroyValue = [](uint8_t, korEx*, uint64_t value) { live -= value > 100; };
    korDpa* source = make({1, 2, 3});
    korDpa* copy = _korDpa_DeepCopy(ex, 0, source, copyValue, destroyValue);
    EXPECT_EQ(valuesOf(copy), (Values{101, 102, 103}));
    _korDpa_DeepDestroy(0, ex, copy, nullptr);
    EXPECT_EQ(copy->count, 3) << "without a function the array stays";
    _korDpa_DeepDestroy(0, ex, copy, destroyValue);
    EXPECT_EQ(live, 0);

    failing = 2;
    for (korDpaDestroy destroyer : {static_cast<korDpaDestroy>(destroyValue), static_cast<korDpaDestroy>(nullptr)}) {
        EXPECT_EQ(_korDpa_DeepCopy(ex, 0, source, copyValue, destroyer), nullptr);
        EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "no copy");
        EXPECT_EQ(live, destroyer != nullptr ? 0 : 2);
    }
}

TEST_F(KorDpa, UnorderedOperationsMatchAVector)
{
    Random random;
    for (int round = 0; round < 100; round++) {
        bool pooled = round % 2 != 0;
        korDpa* array = create(static_cast<int32_t>(random.below(12)), pooled);
        Values model;
        for (int step = 0; step < 300; step++) {
            uint64_t value = random.below(40);
            auto place = std::find(model.begin(), model.end(), value);
            bool there = place != model.end();
            auto found = static_cast<int32_t>(place - model.begin());
            found = there ? found : ~found;
            auto index = static_cast<int32_t>(random.below(model.size() + 3));
            auto slot = static_cast<size_t>(index);
            ASSERT_EQ(_korDpa_Find(array, value), found);
            uint64_t draw = random.below(7);
            if (draw == 0) {
                ASSERT_EQ(_korDpa_Remove(array, value), found);
                ASSERT_TRUE(found != array->count || array->items[found] == 0) << "the slot of a removed last value";
                if (there) {
                    *place = model.back();
                    model.pop_back();
                }
            } else if (draw == 1) {
                ASSERT_EQ(_korDpa_Zero(array, value), found);
                if (there) {
                    *place = 0;
                }
            } else if (draw == 2) {
                _korDpa_AddIndex(ex, 0, array, value, index);
                model.resize(std::max(model.size(), slot + 1));
                model[slot] = value;
            } else if (draw == 3) {
                ASSERT_FALSE(_korDpa_RemoveIndexOrdered(array, -1 - index));
                ASSERT_EQ(_korDpa_RemoveIndexOrdered(array, index), slot < model.size());
                if (slot < model.size()) {
                    model.erase(model.begin() + index);
                }
            } else {
                _korDpa_AddSafe(ex, 0, array, value);
                model.push_back(value);
            }
            ASSERT_EQ(valuesOf(array), model);
        }
        korDpa* copy = _korDpa_Copy(ex, 0, array);
        _korDpa_AddDpa(ex, 0, copy, copy);
        model.insert(model.end(), array->items, array->items + array->count);
        EXPECT_EQ(valuesOf(copy), model);
        destroy(copy, false);
        destroy(array, pooled);
    }
}

TEST_F(KorDpa, OrderedOperationsMatchASortedVector)
{
    Random random;
    for (int form = 0; form < 4; form++) {
        korDpaCompare compare = form < 2 ? nullptr : compareLow;
        bool pooled = form % 2 != 0;
        korDpa* array = create(1, pooled);
        Values model;
        for (int step = 0; step < 3000; step++) {
            uint64_t value = random.below(60) - 30; // unsigned: those below 0 come last
            auto place = std::lower_bound(model.begin(), model.end(), value);
            bool there = place != model.end() && *place == value;
            int32_t found = _korDpa_FindOrdered(array, value, compare);
            ASSERT_TRUE(there ? found >= 0 && array->items[found] == value : ~found == place - model.begin());
            uint64_t draw = random.below(20);
            if (draw < 2) {
                Values added(random.below(5));
                std::generate(added.begin(), added.end(), [&] { return random.below(60) - 30; });
                std::sort(added.begin(), added.end());
                model.insert(model.end(), added.begin(), added.end());
                std::sort(model.begin(), model.end());
                if (draw == 0) {
                    _korDpa_AddDpaOrdered(ex, 0, array, make(added), compare);
                } else {
                    _korDpa_AddDpaOrderedUnique(ex, 0, array, make(added), compare);
                    if (!added.empty()) {
                        model.erase(std::unique(model.begin(), model.end()), model.end());
                    }
                }
            } else if (draw < 11) {
                ASSERT_EQ(_korDpa_RemoveOrdered(array, value, compare), found);
                if (there) {
                    model.erase(place);
                }
            } else {
                _korDpa_AddOrdered(ex, 0, array, value, compare);
                model.insert(place, value);
            }
            ASSERT_EQ(valuesOf(array), model);
        }
        destroy(array, pooled);
    }
}

TEST_F(KorDpa, EveryRequestMayFail)
{
    for (bool pooled : {false, true}) {
        uint64_t requests = sweepFailures(ex, [&] {
            korDpa* array = create(2, pooled);
            for (uint64_t value = 0; ex->code == 0 && value < 30; value++) {
                _korDpa_AddSafe(ex, 0, array, value);
            }
            korDpa* copy = _korDpa_Copy(ex, 0, array);
            if (copy != nullptr) {
                _korDpa_AddDpaOrdered(ex, 0, copy, array, nullptr);
                EXPECT_EQ(copy->count, ex->code == 0 ? 60 : 30);
            }
            destroy(copy, false);
            destroy(array, pooled);
        });
        EXPECT_GE(requests, 4u);
    }
}

} // namespace
