// korDpq_test.cpp - the ring: growth, both ends, and sorted use with its tie rules, all held against std::deque.

#include "korutil/korDpq.h"
#include "support/failingHeap.h"

#include <algorithm>
#include <deque>
#include <vector>

using namespace kor::test;
using Values = std::deque<uint64_t>;

namespace {

Values valuesOf(const korDpq* queue)
{
    Values values;
    for (int32_t i = 0; i < queue->count; i++) {
        values.push_back(queue->items[korDpq_wrap(queue, static_cast<uint32_t>(queue->first + i))]);
    }
    return values;
}

// Orders by the low half, so that the high half can tell equals apart.
int32_t compareLow(uint64_t left, uint64_t right)
{
    auto low = [](uint64_t value) { return static_cast<uint32_t>(value); };
    return low(left) < low(right) ? -1 : low(left) > low(right);
}

// The ring index of the `position`-th value.
int32_t indexAt(const korDpq* queue, uint64_t position)
{
    return korDpq_wrap(queue, static_cast<uint32_t>(queue->first) + static_cast<uint32_t>(position));
}

// The position of a ring index, the inverse of it.
size_t positionOf(const korDpq* queue, int32_t index)
{
    return (static_cast<uint32_t>(index) - static_cast<uint32_t>(queue->first)) & queue->mask;
}

class KorDpq : public KorTest
{
protected:
    ~KorDpq() override { _korDpq_Clear(0, ex, &queue); }

    void start(int32_t size, uint64_t offset = 0)
    {
        _korDpq_Clear(0, ex, &queue);
        _korDpq_Init(ex, 0, &queue, size);
        queue.first = queue.last = static_cast<int32_t>(offset); // where a run of pushes and pops would have left it
    }

    korDpq queue = {};
};

TEST_F(KorDpq, CapacityIsAPowerOfTwoWithOneSlotAlwaysEmpty)
{
    const std::pair<int32_t, uint32_t> cases[] = {{1, 0}, {2, 1}, {5, 7}, {8, 7}, {9, 15}};
    for (auto [size, mask] : cases) {
        start(size);
        EXPECT_EQ(queue.mask, mask) << size;
        for (uint64_t value = 1; value <= mask; value++) {
            _korDpq_Push(ex, 0, &queue, value);
        }
        EXPECT_EQ(queue.mask, mask) << size;
        _korDpq_Push(ex, 0, &queue, 99);
        EXPECT_EQ(queue.mask, 2 * mask + 1) << size;
    }
    for (int32_t size : {0, -1}) {
        EXPECT_EQ(_korDpq_Create(ex, 0, size), nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    }
}

TEST_F(KorDpq, BothEndsAgainstAModel)
{
    Random random;
    Values model;
    start(2);
    for (uint64_t round = 0; round < 5000; round++) {
        if (random.chance(round < 2500 ? 60 : 40)) {
            bool front = random.chance(50);
            (front ? _korDpq_PushFirst : _korDpq_Push)(ex, 0, &queue, round);
            model.insert(front ? model.begin() : model.end(), round);
        } else if (!model.empty()) {
            ASSERT_EQ(korDpq_popFirst(&queue), model.front());
            model.pop_front();
        }
        ASSERT_EQ(queue.count, static_cast<int32_t>(model.size()));
        if (round % 64 == 0) {
            ASSERT_EQ(valuesOf(&queue), model);
        }
    }
    EXPECT_EQ(valuesOf(&queue), model);
}

TEST_F(KorDpq, SortedUseAgainstAModelFromEveryStart)
{
    Random random;
    for (uint64_t offset = 0; offset < 16; offset++) {
        start(16, offset);
        Values model; // sorted by the low half; the high half numbers the values
        for (uint64_t round = 1; round <= 300; round++) {
            if (random.chance(round < 200 ? 60 : 30)) {
                uint64_t value = round << 32 | (random.below(12) + 1);
                auto duplicates = static_cast<uint8_t>(random.below(2));
                auto less = [](uint64_t left, uint64_t right) { return compareLow(left, right) < 0; };
                auto [lower, upper] = std::equal_range(model.begin(), model.end(), value, less);
                auto place = static_cast<size_t>(lower - model.begin());
                bool found = lower != upper;
                int32_t index = _korDpq_FindOrdered(&queue, value, compareLow);
                ASSERT_EQ(index >= 0, found);
                if (found) {
                    place = positionOf(&queue, index); // any of a run of equals may be found
                    ASSERT_EQ(compareLow(model[place], value), 0);
                } else if (!model.empty()) {
                    ASSERT_EQ(~index, indexAt(&queue, place));
                }
                _korDpq_AddOrderedEx(ex, 0, &queue, value, compareLow, duplicates);
                if (!found || duplicates) {
                    model.insert(model.begin() + static_cast<ptrdiff_t>(place), value);
                }
            } else if (!model.empty()) {
                uint64_t place = random.below(model.size());
                int32_t next = _korDpq_Remove(&queue, indexAt(&queue, place));
                model.erase(model.begin() + static_cast<ptrdiff_t>(place));
                ASSERT_EQ(next, place == model.size() ? -1 : indexAt(&queue, place));
            }
            ASSERT_EQ(valuesOf(&queue), model);
        }
    }
}

TEST_F(KorDpq, TheLastValueLeavesBothEndsAtZero)
{
    EXPECT_EQ(_korDpq_FindOrdered(&queue, 5, nullptr), -1);
    EXPECT_EQ(korDpq_popFirst(&queue), 0u);
    start(4, 3);
    _korDpq_AddOrderedEx(ex, 0, &queue, 5, nullptr, 0);
    for (int32_t notThere : {-1, 0, 2, 4, 1000}) {
        EXPECT_EQ(_korDpq_Remove(&queue, notThere), -1);
    }
    EXPECT_EQ(queue.count, 1);
    EXPECT_EQ(_korDpq_Remove(&queue, 3), -1);
    EXPECT_EQ(_korDpq_Remove(&queue, 0), -1);
    EXPECT_TRUE(queue.count == 0 && queue.first == 0 && queue.last == 0);
    _korDpq_AddOrderedEx(ex, 0, &queue, 0, nullptr, 1);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    EXPECT_EQ(queue.count, 0);
}

TEST_F(KorDpq, AValueThatDoesNotFitIsNotStored)
{
    sweepFailures(ex, [this] {
        korDpq* own = _korDpq_Create(ex, 0, 2);
        if (own != nullptr) {
            _korDpq_Push(ex, 0, own, 1);
            _korDpq_PushFirst(ex, 0, own, 2);
            _korDpq_AddOrderedEx(ex, 0, own, 3, nullptr, 1);
            _korDpq_AddOrderedEx(ex, 0, own, 4, nullptr, 1);
            EXPECT_EQ(static_cast<uint32_t>(own->count), ex->code == 0 ? 4 : own->mask);
        }
        _korDpq_Destroy(0, ex, own);
    });
    ex->code = KOR_ERROR_TIMEOUT;
    _korDpq_Push(ex, 0, &queue, 1);
    EXPECT_EQ(_korDpq_Create(ex, 0, 2), nullptr);
    EXPECT_EQ(queue.count, 0);
    _korDpq_Destroy(0, ex, nullptr);
    korEx_Clear(ex);
}

} // namespace
