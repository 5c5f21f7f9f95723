// korDpa_test.cpp - arrays: capacity and growth rules, order among equals, failures. Heap and pooled arrays go through
// one model check.

#include "korutil/korDpa.h"
#include "korutil/korPool.h"
#include "support/failingHeap.h"

#include <algorithm>
#include <tuple>
#include <utility>
#include <vector>

using kor::test::FailingHeap;
using kor::test::KorTest;
using kor::test::Random;
using kor::test::sweepFailures;
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

uint64_t tagged(uint64_t tag, uint64_t value)
{
    return tag << 32 | value;
}

// An array on the heap for one scope, filled with values.
class Array
{
public:
    Array(korEx* ex, const Values& values, int32_t size = 0) : ex_(ex)
    {
        _korDpa_Init(ex, 0, &dpa_, size);
        for (uint64_t value : values) {
            _korDpa_AddSafe(ex, 0, &dpa_, value);
        }
    }
    ~Array() { _korDpa_Clear(0, ex_, &dpa_); }
    Array(const Array&) = delete;
    Array& operator=(const Array&) = delete;
    operator korDpa*() { return &dpa_; }
    korDpa* operator->() { return &dpa_; }

private:
    korEx* ex_;
    korDpa dpa_;
};

class KorDpa : public KorTest
{};

TEST_F(KorDpa, CapacityFollowsTheHintAndTriples)
{
    const std::pair<int32_t, int32_t> cases[] = {{-7, 1}, {0, 1}, {1, 1}, {2, 5}, {3, 5}, {5, 5}, {6, 6}, {100, 100}};
    for (auto [hint, capacity] : cases) {
        Array array(ex, {}, hint);
        EXPECT_EQ(array->capacity, capacity) << hint;
        EXPECT_EQ(array->items == &array->inlineOrPool, capacity == 1) << hint;
        for (int32_t value = 0; value < capacity; value++) {
            FailingHeap heap(1);
            _korDpa_AddSafe(ex, 0, array, 1);
            EXPECT_FALSE(heap.fired()) << "there is room";
        }
        _korDpa_AddSafe(ex, 0, array, 2);
        EXPECT_EQ(array->capacity, 3 * capacity) << hint;
    }
}

TEST_F(KorDpa, SizesOutOfRangeAreRefused)
{
    korDpa array = {};
    _korDpa_Reinit(ex, 0, &array); // one that is zeroed gets its first storage
    EXPECT_EQ(array.capacity, 16);
    _korDpa_AddSafe(ex, 0, &array, 1);
    for (auto operation : {_korDpa_Grow, +[](korEx*into, uint8_t depth, korDpa*dpa, int32_t index) {
                               _korDpa_AddIndex(into, depth, dpa, 1, index);
                           }}) {
        operation(ex, 0, &array, -1);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
        operation(ex, 0, &array, INT32_MAX);
        EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    }
    EXPECT_EQ(valuesOf(&array), (Values{1}));
    _korDpa_Clear(0, ex, &array);
    _korDpa_Clear(0, ex, nullptr);
}

TEST_F(KorDpa, AddOrderedPlacesAnEqualValueBeforeTheLastOfItsRun)
{
    const std::tuple<Values, uint64_t, size_t> cases[] = {
        {{1, 2, 2, 3}, 2, 2},    {{1, 2, 2, 2, 3, 4}, 2, 3},
        {{1, 2, 2, 2}, 2, 1},    {{2}, 2, 0},
        {{2, 2}, 2, 0},          {{2, 3}, 2, 0},
        {{1, 2, 3}, 3, 2},       {{1, 1, 1, 2}, 1, 2},
        {{0, 1, 2, 2, 2}, 2, 2},
    };
    for (const auto& [values, added, index] : cases) {
        Array array(ex, values);
        _korDpa_AddOrdered(ex, 0, array, tagged(9, added), compareLow);
        Values expected = values;
        expected.insert(expected.begin() + static_cast<ptrdiff_t>(index), tagged(9, added));
        EXPECT_EQ(valuesOf(array), expected) << testing::PrintToString(values) << " + " << added;
    }
}

TEST_F(KorDpa, RemovedValuesLeaveZero)
{
    Array array(ex, {1, 3, UINT64_MAX});
    EXPECT_EQ(_korDpa_FindOrdered(array, UINT64_MAX, nullptr), 2) << "values are unsigned";
    EXPECT_FALSE(_korDpa_RemoveIndexOrdered(array, -1));
    EXPECT_EQ(_korDpa_Remove(array, 1), 0);
    EXPECT_EQ(valuesOf(array), (Values{UINT64_MAX, 3}));
    EXPECT_EQ(_korDpa_Remove(array, 3), 1);
    EXPECT_EQ(array->items[1], 0u) << "the slot of a removed last value is zeroed";
}

TEST_F(KorDpa, MergesTakeTheSourceFirstOnTies)
{
    Array array(ex, {tagged(1, 1), tagged(1, 2), tagged(1, 5)});
    Array source(ex, {tagged(2, 1), tagged(2, 3), tagged(2, 5), tagged(2, 5)});
    _korDpa_AddDpaOrdered(ex, 0, array, source, compareLow);
    EXPECT_EQ(valuesOf(array), (Values{tagged(2, 1), tagged(1, 1), tagged(1, 2), tagged(2, 3), tagged(2, 5),
                                       tagged(2, 5), tagged(1, 5)}));
    _korDpa_AddDpaOrdered(ex, 0, array, array, compareLow);
    EXPECT_EQ(array->count, 14) << "an array may be merged into itself";
    EXPECT_EQ(array->items[3], tagged(1, 1));

    Array unique(ex, {});
    _korDpa_AddDpaOrderedUnique(ex, 0, unique, source, compareLow);
    EXPECT_EQ(valuesOf(unique), (Values{tagged(2, 1), tagged(2, 3), tagged(2, 5)}));
    Array more(ex, {1, 1, 4, 6, 6});
    _korDpa_AddDpaOrderedUnique(ex, 0, unique, more, compareLow);
    EXPECT_EQ(valuesOf(unique), (Values{1, tagged(2, 3), 4, tagged(2, 5), 6}));
}

TEST_F(KorDpa, AppendWorksWithAnErrorPending)
{
    Array array(ex, {1});
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    _korDpa_AddGrow(3, ex, array, 2);
    EXPECT_EQ(array->capacity, 3);
    _korDpa_AddOrdered(ex, 0, array, 0, nullptr);
    _korDpa_AddIndex(ex, 0, array, 0, 0);
    _korDpa_Grow(ex, 0, array, 10);
    _korDpa_AddDpa(ex, 0, array, array);
    EXPECT_EQ(_korDpa_Copy(ex, 0, array), nullptr);
    EXPECT_EQ(_korDpa_Create(ex, 0, 10), nullptr);
    EXPECT_EQ(valuesOf(array), (Values{1, 2}));
    korDpa unmade;
    _korDpa_Init(ex, 0, &unmade, 10);
    EXPECT_EQ(unmade.capacity, 1) << "an array that could not be made can still be cleared";
    _korDpa_AddGrow(0, ex, nullptr, 1);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
}

// ---- Deep copies: values that own something, and a copy that fails at a chosen one ----

int live;
uint64_t failingValue;

uint64_t copyValue(korEx* ex, uint8_t depth, uint64_t value)
{
    live++;
    if (value == failingValue) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_FOUND, "no copy");
    }
    return value + 100;
}

void destroyValue(uint8_t, korEx*, uint64_t value)
{
    EXPECT_GE(value, 100u);
    live--;
}

TEST_F(KorDpa, DeepCopyGivesAllOrNothing)
{
    Array source(ex, {1, 2, 3});
    live = 0;
    failingValue = 0;
    korDpa* copy = _korDpa_DeepCopy(ex, 0, source, copyValue, destroyValue);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(valuesOf(copy), (Values{101, 102, 103}));
    _korDpa_DeepDestroy(0, ex, copy, nullptr);
    EXPECT_EQ(copy->count, 3) << "without a function the array stays";
    _korDpa_DeepDestroy(0, ex, copy, destroyValue);
    EXPECT_EQ(live, 0);

    failingValue = 2;
    EXPECT_EQ(_korDpa_DeepCopy(ex, 0, source, copyValue, destroyValue), nullptr);
    EXPECT_EQ(live, 0);
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "no copy");
    EXPECT_EQ(_korDpa_DeepCopy(ex, 0, source, copyValue, nullptr), nullptr);
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "no copy");
}

// ---- Models ----

class KorDpaForms : public KorTest, public testing::WithParamInterface<bool>
{
protected:
    void SetUp() override
    {
        if (GetParam()) {
            _korDpa_CreatePools(ex, 0, &objects, &arrays, 8);
            ASSERT_CLEAN();
        }
    }
    void TearDown() override
    {
        if (GetParam()) {
            _korPool_Destroy(0, ex, objects);
            _korPool_Destroy(0, ex, arrays);
        }
        KorTest::TearDown();
    }
    korDpa* create(int32_t size) { return _korDpa_CreatePooled(ex, 0, size, objects, arrays); }
    void destroy(korDpa* dpa) { _korDpa_DestroyPooled(0, ex, dpa, objects); }

    korPool* objects = nullptr;
    korPool* arrays = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Forms, KorDpaForms, testing::Bool(),
                         [](const auto& form) { return form.param ? "pooled" : "heap"; });

int32_t modelFind(const Values& model, uint64_t value)
{
    auto found = std::find(model.begin(), model.end(), value);
    auto index = static_cast<int32_t>(found - model.begin());
    return found != model.end() ? index : ~index;
}

TEST_P(KorDpaForms, UnorderedOperationsMatchAVector)
{
    Random random;
    for (int round = 0; round < 50; round++) {
        korDpa* array = create(static_cast<int32_t>(random.below(12)));
        Values model;
        for (int step = 0; step < 300; step++) {
            uint64_t value = random.below(40);
            auto index = static_cast<size_t>(random.below(model.size() + 3));
            int32_t found = modelFind(model, value);
            ASSERT_EQ(_korDpa_Find(array, value), found);
            switch (random.below(7)) {
            case 0:
                EXPECT_EQ(_korDpa_Remove(array, value), found);
                if (found >= 0) {
                    model[static_cast<size_t>(found)] = model.back();
                    model.pop_back();
                }
                break;
            case 1:
                EXPECT_EQ(_korDpa_Zero(array, value), found);
                std::replace_if(
                    model.begin(), model.end(),
                    [&, first = true](uint64_t v) mutable { return v == value && std::exchange(first, false); }, 0);
                break;
            case 2:
                _korDpa_AddIndex(ex, 0, array, value, static_cast<int32_t>(index));
                model.resize(std::max(model.size(), index + 1));
                model[index] = value;
                break;
            case 3:
                EXPECT_EQ(_korDpa_RemoveIndexOrdered(array, static_cast<int32_t>(index)), index < model.size());
                if (index < model.size()) {
                    model.erase(model.begin() + static_cast<ptrdiff_t>(index));
                }
                break;
            default:
                _korDpa_AddSafe(ex, 0, array, value);
                model.push_back(value);
            }
            ASSERT_EQ(valuesOf(array), model);
        }
        korDpa* copy = _korDpa_Copy(ex, 0, array);
        _korDpa_AddDpa(ex, 0, copy, copy);
        EXPECT_EQ(copy->count, 2 * array->count);
        EXPECT_TRUE(std::equal(array->items, array->items + array->count, copy->items + array->count));
        _korDpa_DestroyPooled(0, ex, copy, nullptr);
        destroy(array);
    }
}

TEST_P(KorDpaForms, OrderedOperationsMatchASortedVector)
{
    Random random;
    for (korDpaCompare compare : {static_cast<korDpaCompare>(nullptr), compareLow}) {
        korDpa* array = create(1);
        Values model;
        for (int step = 0; step < 3000; step++) {
            uint64_t value = random.below(60);
            auto place = std::lower_bound(model.begin(), model.end(), value);
            bool there = place != model.end() && *place == value;
            int32_t found = _korDpa_FindOrdered(array, value, compare);
            ASSERT_EQ(found >= 0, there);
            ASSERT_TRUE(there ? array->items[found] == value : ~found == place - model.begin());
            unsigned draw = static_cast<unsigned>(random.below(20));
            if (draw == 0) {
                Values added(random.below(5), value);
                std::for_each(added.begin(), added.end(), [&](uint64_t& v) { v += random.below(9); });
                std::sort(added.begin(), added.end());
                Array source(ex, added);
                _korDpa_AddDpaOrdered(ex, 0, array, source, compare);
                model.insert(model.end(), added.begin(), added.end());
                std::sort(model.begin(), model.end());
            } else if (draw == 1) {
                Array source(ex, {value, value, value + 1});
                _korDpa_AddDpaOrderedUnique(ex, 0, array, source, compare);
                model.insert(model.end(), {value, value + 1});
                std::sort(model.begin(), model.end());
                model.erase(std::unique(model.begin(), model.end()), model.end());
            } else if (draw < 11) {
                EXPECT_EQ(_korDpa_RemoveOrdered(array, value, compare), found);
                if (there) {
                    model.erase(place);
                }
            } else {
                _korDpa_AddOrdered(ex, 0, array, value, compare);
                model.insert(place, value);
            }
            ASSERT_EQ(valuesOf(array), model);
        }
        destroy(array);
    }
}

TEST_P(KorDpaForms, EveryRequestMayFail)
{
    uint64_t requests = sweepFailures(ex, [&] {
        korDpa* array = create(2);
        for (uint64_t value = 0; array != nullptr && value < 30; value++) {
            _korDpa_AddSafe(ex, 0, array, value);
        }
        korDpa* copy = array == nullptr ? nullptr : _korDpa_Copy(ex, 0, array);
        if (copy != nullptr) {
            _korDpa_AddDpaOrdered(ex, 0, copy, array, nullptr);
            EXPECT_EQ(copy->count, ex->code == 0 ? 60 : 30);
        }
        _korDpa_DestroyPooled(0, ex, copy, nullptr);
        destroy(array);
    });
    EXPECT_GE(requests, 4u);
}

} // namespace
