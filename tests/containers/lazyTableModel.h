// lazyTableModel.h - the model check and the sweep that every lazily resized table goes through, by a small adapter:
//
//     Subject(korEx* ex, int64_t slots)       makes the table (and its pools), the destructor takes them down
//     set, get, remove(number ...)            numbers below lazyTableNumbers stand for keys
//     startWalk(), next(&number, &value), removeCurrent()
//     table()                                 the record, for its counts
//     removesPrivately                        false: a remove may tell of a failure to give memory back

#pragma once

#include "support/failingHeap.h"
#include "support/korTest.h"

#include <list>
#include <unordered_map>

namespace kor::test {

constexpr uint64_t lazyTableNumbers = 1000;

/// What the table must hold, in the order of insertion, and where a walk stands.
class LazyTableModel
{
public:
    uint64_t set(uint64_t number, uint64_t value)
    {
        auto [found, fresh] = places_.try_emplace(number);
        if (fresh) {
            found->second = order_.insert(order_.end(), {number, value});
            if (next_ == order_.end() && walking_) {
                next_ = found->second;
            }
            return 0;
        }
        return std::exchange(found->second->second, value);
    }
    uint64_t get(uint64_t number) const { return has(number) ? places_.at(number)->second : 0; }
    bool has(uint64_t number) const { return places_.count(number) != 0; }
    uint64_t remove(uint64_t number)
    {
        auto found = places_.find(number);
        if (found == places_.end()) {
            return 0;
        }
        uint64_t value = found->second->second;
        next_ = next_ == found->second ? std::next(next_) : next_;
        order_.erase(found->second);
        places_.erase(found);
        return value;
    }
    void startWalk()
    {
        walking_ = true;
        next_ = order_.begin();
    }
    /// The next entry of the walk, or NULL.
    const std::pair<uint64_t, uint64_t>* next()
    {
        walking_ = next_ != order_.end();
        return walking_ ? &*next_++ : nullptr;
    }
    bool walking() const { return walking_; }
    size_t size() const { return order_.size(); }

private:
    std::list<std::pair<uint64_t, uint64_t>> order_;
    std::list<std::pair<uint64_t, uint64_t>>::iterator next_ = order_.end();
    std::unordered_map<uint64_t, std::list<std::pair<uint64_t, uint64_t>>::iterator> places_;
    bool walking_ = false;
};

template <class Subject>
class LazyTableTest : public KorTest
{
protected:
    static constexpr int steps = 60000;

    // One step of the walk; the current entry is known for as long as nothing else removes it.
    void walkStep(Subject& subject, LazyTableModel& model, std::optional<uint64_t>& current)
    {
        uint64_t number = 0;
        uint64_t value = 0;
        const auto* wanted = model.next();
        ASSERT_EQ(subject.next(&number, &value), wanted != nullptr);
        current.reset();
        if (wanted != nullptr) {
            ASSERT_EQ(std::make_pair(number, value), *wanted);
            current = number;
        }
    }

    // Sizes swing up and down, so that both size changes run many times, walks among them.
    void compare(Subject& subject)
    {
        Random random;
        LazyTableModel model;
        std::optional<uint64_t> current;
        for (int step = 1; step <= steps && !this->HasFailure(); step++) {
            unsigned sets = step / 6000 % 2 == 0 ? 60 : 3;
            uint64_t number = random.below(lazyTableNumbers);
            if (random.chance(sets)) {
                uint64_t value = random.next();
                ASSERT_EQ(subject.set(number, value), model.set(number, value));
            } else if (random.chance(30)) {
                ASSERT_EQ(subject.get(number), model.get(number));
            } else if (current != number && random.chance(70)) { // the current one only through the walk
                ASSERT_EQ(subject.remove(number), model.remove(number));
            } else if (!model.walking()) {
                subject.startWalk();
                model.startWalk();
                current.reset();
            } else if (current && random.chance(30)) {
                model.remove(*current);
                current.reset();
                subject.removeCurrent();
            } else {
                walkStep(subject, model, current);
            }
            ASSERT_EQ(held(subject), model.size());
        }
        subject.startWalk();
        model.startWalk();
        while (model.walking() && !this->HasFailure()) {
            walkStep(subject, model, current);
        }
    }

    static size_t held(Subject& subject)
    {
        const auto* table = subject.table();
        return static_cast<size_t>(table->count + (table->oldHash == nullptr ? 0 : table->oldHash->count));
    }
};

TYPED_TEST_SUITE_P(LazyTableTest);

TYPED_TEST_P(LazyTableTest, holdsWhatTheModelHolds)
{
    TypeParam subject(this->ex, 1);
    this->compare(subject);
}

TYPED_TEST_P(LazyTableTest, drainsInAWalk)
{
    constexpr uint64_t count = 300; // with 256 slots: the walk begins while the growth is still running
    TypeParam subject(this->ex, 256);
    for (uint64_t number = 0; number < count; number++) {
        subject.set(number, number + 1);
    }
    ASSERT_NE(subject.table()->oldHash, nullptr);
    uint64_t visited = 0;
    uint64_t number = 0;
    uint64_t value = 0;
    subject.startWalk();
    while (subject.next(&number, &value)) {
        ASSERT_EQ(number, visited++);
        ASSERT_EQ(value, number + 1);
        subject.removeCurrent();
        subject.removeCurrent(); // there is no current entry now: nothing more goes
        ASSERT_EQ(this->held(subject), count - visited);
    }
    EXPECT_EQ(visited, count);
    EXPECT_LT(subject.table()->slotCount, 256); // shrinks went on under the walk
}

// Whichever request fails: pairs stored before stay, removes do their work, lookups tell the truth.
TYPED_TEST_P(LazyTableTest, survivesFailingAllocations)
{
    constexpr uint64_t count = 150; // grows up to 256 slots, and shrinks on the way down
    auto scenario = [ex = this->ex] {
        TypeParam subject(ex, 1);
        int32_t code = std::exchange(ex->code, 0);
        uint64_t stored = 0;
        while (subject.table() != nullptr && code == 0 && stored < count) {
            subject.set(stored, stored + 1);
            code = std::exchange(ex->code, 0);
            stored += code == 0;
        }
        for (uint64_t number = 0; number < stored; number++) {
            EXPECT_EQ(subject.get(number), number + 1);
            code += std::exchange(ex->code, 0);
            EXPECT_EQ(subject.remove(number), number + 1);
            EXPECT_TRUE(ex->code == 0 || !TypeParam::removesPrivately) << describe(ex);
            code += std::exchange(ex->code, 0);
            EXPECT_EQ(subject.get(number), 0);
            code += std::exchange(ex->code, 0);
        }
        ex->code = code;
    };
    EXPECT_GT(sweepFailures(this->ex, scenario), 10);
}

REGISTER_TYPED_TEST_SUITE_P(LazyTableTest, holdsWhatTheModelHolds, drainsInAWalk, survivesFailingAllocations);

} // namespace kor::test
