// korDpq_test.cpp - the ring: growth, both ends, and sorted use with its tie rules, all held against std::deque.

#include "korutil/korDpq.h"
#include "support/failingHeap.h"

#include <algorithm>
#include <deque>

using namespace kor::test;
using Values = std::deque<uint64_t>;

namespace {

// Orders by the low half, so that the high half can tell equals apart.
int32_t compareLow(uint64_t left, uint64_t right)
{
    auto low = [](uint64_t value) { return static_cast<uint32_t>(value); };
    return low(left) < low(right) ? -1 : low(left) > low(right);
}

class KorDpq : public KorTest
{
protected:
    ~KorDpq() override { _korDpq_Clear(0, ex, &queue); }

    void start(int32_t size, int32_t offset = 0)
    {
        _korDpq_Clear(0, ex, &queue);
        _korDpq_Init(ex, 0, &queue, size);
        queue.first = queue.last = offset; // where a run of pushes and pops would have left it
    }
    // The ring index of the `position`-th value.
    int32_t indexAt(size_t position)
    {
        return korDpq_wrap(&queue, static_cast<uint32_t>(queue.first) + static_cast<uint32_t>(position));
    }
    Values values()
    {
        Values all;
        for (int32_t i = 0; i < queue.count; i++) {
            all.push_back(queue.items[indexAt(static_cast<size_t>(i))]);
        }
        return all;
    }

    korDpq queue = {};
};

TEST_F(KorDpq, CapacityIsAPowerOfTwoWithOneSlotAlwaysEmpty)
{
    for (auto [size, mask] : {std::pair{1, 0u}, {2, 1u}, {5, 7u}, {8, 7u}, {9, 15u}}) {
        start(size);
        for (uint64_t value = 0; value <= mask; value++) {
            EXPECT_EQ(queue.mask, mask) << size;
            _korDpq_Push(ex, 0, &queue, value);
        }
        EXPECT_EQ(queue.mask, 2 * mask + 1) << size;
    }
    EXPECT_EQ(_korDpq_Create(ex, 0, 0), nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
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
            ASSERT_EQ(values(), model);
        }
    }
}

// Insertions and removals in the middle move the shorter side; of two of the same length an insertion moves the front
// and a removal the back.
TEST_F(KorDpq, SortedUseAgainstAModelFromEveryStart)
{
    Random random;
    for (int32_t offset = 0; offset < 16; offset++) {
        start(16, offset);
        korDpqCompare compare = offset % 2 != 0 ? compareLow : nullptr;
        Values model; // sorted by the low half; the high half numbers the values
        for (uint64_t round = 1; round <= 300; round++) {
            size_t count = model.size();
            int32_t first = queue.first;
            if (random.chance(round < 200 ? 60 : 30)) {
                uint64_t value = (compare != nullptr ? round << 32 : 0) | (random.below(12) + 1);
                auto duplicates = static_cast<uint8_t>(random.below(2));
                auto less = [](uint64_t left, uint64_t right) { return compareLow(left, right) < 0; };
                auto [lower, upper] = std::equal_range(model.begin(), model.end(), value, less);
                int32_t index = _korDpq_FindOrdered(&queue, value, compare);
                ASSERT_EQ(index >= 0, lower != upper);
                if (index >= 0) { // any of a run of equals may be found
                    lower = model.begin() + korDpq_wrap(&queue, static_cast<uint32_t>(index - first));
                    ASSERT_EQ(compareLow(*lower, value), 0);
                } else if (count > 0) {
                    ASSERT_EQ(~index, indexAt(static_cast<size_t>(lower - model.begin())));
                }
                auto place = static_cast<size_t>(lower - model.begin());
                _korDpq_AddOrderedEx(ex, 0, &queue, value, compare, duplicates);
                if (index < 0 || duplicates) {
                    model.insert(lower, value);
                    ASSERT_EQ(queue.first != first, 2 * place < count);
                }
            } else if (count > 0) {
                uint64_t place = random.below(count);
                int32_t next = _korDpq_Remove(&queue, indexAt(place));
                model.erase(model.begin() + static_cast<ptrdiff_t>(place));
                ASSERT_EQ(next, place == model.size() ? -1 : indexAt(place));
                ASSERT_TRUE(count == 1 || (queue.first != first) == (2 * place + 1 < count));
            }
            ASSERT_EQ(values(), model);
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
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    _korDpq_Push(ex, 0, &queue, 1);
    EXPECT_EQ(_korDpq_Create(ex, 0, 2), nullptr);
    EXPECT_EQ(queue.count, 0);
    _korDpq_Destroy(0, ex, nullptr);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
}

} // namespace
