// tableModel.h - the model check and the sweep that every table of keys goes through, by a small adapter, a
// TableSubject for the table's record and its walk:
//
//     Subject(korEx* ex, int64_t slots)       makes the table (and its pools), the destructor takes them down
//     held()                                  how many entries the table says it has
//     set, get, remove(number ...)            numbers below tableNumbers stand for keys
//     startWalk(), next(&number, &value), removeCurrent()
//     lazy                                    the size changes bit by bit; a walk goes in the order of insertion and
//                                             bears what is done between its steps
//     removesOnce                             false: a walk removes where it stands whatever was before

#pragma once

#include "support/failingHeap.h"
#include "support/korTest.h"

#include <map>
#include <set>
#include <unordered_map>

namespace kor::test {

constexpr uint64_t tableNumbers = 1000;

template <class Table, class Walk>
class TableSubject
{
public:
    explicit TableSubject(korEx* ex) : ex_(ex) {}
    TableSubject(const TableSubject&) = delete;
    TableSubject& operator=(const TableSubject&) = delete;
    static constexpr bool lazy = false;
    static constexpr bool removesOnce = true;
    bool made() const { return table_ != nullptr; }

protected:
    korEx* ex_;
    Table* table_ = nullptr;
    Walk walk_{};
};

/// The same for a table that changes its size lazily, with a part of the entries in the old one.
template <class Table, class Walk>
class LazySubject : public TableSubject<Table, Walk>
{
public:
    using TableSubject<Table, Walk>::TableSubject;
    static constexpr bool lazy = true;
    int64_t held() const
    {
        return this->table_->count + (this->table_->oldHash == nullptr ? 0 : this->table_->oldHash->count);
    }
};

/// What the table must hold, in the order of insertion, and where a walk stands.
class TableModel
{
public:
    uint64_t set(uint64_t number, uint64_t value)
    {
        auto [known, fresh] = times_.try_emplace(number, clock_ + 1);
        clock_ += fresh;
        auto& entry = order_[known->second];
        entry.first = number;
        return std::exchange(entry.second, value);
    }
    uint64_t get(uint64_t number) const { return times_.contains(number) ? order_.at(times_.at(number)).second : 0; }
    uint64_t remove(uint64_t number)
    {
        uint64_t value = get(number);
        order_.erase(times_.contains(number) ? times_.at(number) : 0);
        times_.erase(number);
        return value;
    }
    void startWalk()
    {
        walking_ = true;
        walked_ = 0;
    }
    /// The next entry of the walk, or NULL.
    const std::pair<uint64_t, uint64_t>* next()
    {
        auto next = order_.upper_bound(walked_);
        walking_ = next != order_.end();
        walked_ = walking_ ? next->first : 0;
        return walking_ ? &next->second : nullptr;
    }
    bool walking() const { return walking_; }
    size_t size() const { return order_.size(); }

private:
    std::map<uint64_t, std::pair<uint64_t, uint64_t>> order_; // entries by the time of their insertion
    std::unordered_map<uint64_t, uint64_t> times_;            // by number
    uint64_t clock_ = 0, walked_ = 0;
    bool walking_ = false;
};

template <class Subject>
class TableTest : public KorTest
{
protected:
    void startWalk(Subject& subject)
    {
        subject.startWalk();
        if (Subject::removesOnce) {
            subject.removeCurrent(); // there is no current entry yet
        }
    }
    void removeCurrent(Subject& subject)
    {
        subject.removeCurrent();
        if (Subject::removesOnce) {
            subject.removeCurrent(); // nor any more
        }
    }

    // A step of a walk that goes on for long. What is current is known for as long as nothing else removes it.
    void stepWalk(Subject& subject)
    {
        if (!model.walking()) {
            startWalk(subject);
            model.startWalk();
            current.reset();
        } else if (current && random.chance(30)) {
            model.remove(*std::exchange(current, std::nullopt));
            removeCurrent(subject);
        } else {
            uint64_t number = 0, value = 0;
            const auto* wanted = model.next();
            ASSERT_EQ(subject.next(&number, &value), wanted != nullptr);
            ASSERT_TRUE(wanted == nullptr || *wanted == std::make_pair(number, value)) << number;
            current = wanted != nullptr ? std::optional(number) : std::nullopt;
        }
    }

    // A whole walk meets every entry once; `removed` percent of them go on the way.
    void walkAll(Subject& subject, unsigned removed)
    {
        std::set<uint64_t> seen;
        uint64_t number = 0, value = 0;
        size_t before = model.size();
        startWalk(subject);
        while (subject.next(&number, &value)) {
            ASSERT_EQ(model.get(number), value);
            ASSERT_TRUE(seen.insert(number).second) << number << " was met twice";
            if (random.chance(removed)) {
                removeCurrent(subject);
                model.remove(number);
            }
        }
        ASSERT_EQ(seen.size(), before);
        ASSERT_EQ(subject.held(), model.size());
    }

    void change(Subject& subject, unsigned sets)
    {
        uint64_t number = random.below(tableNumbers);
        if (random.chance(sets)) {
            uint64_t value = random.next();
            ASSERT_EQ(subject.set(number, value), model.set(number, value));
        } else if (random.chance(30)) {
            ASSERT_EQ(subject.get(number), model.get(number));
        } else if (current != number && random.chance(70)) { // the current one only through the walk
            ASSERT_EQ(subject.remove(number), model.remove(number));
        } else if (Subject::lazy) {
            stepWalk(subject);
        } else if (random.chance(1)) {
            walkAll(subject, 30);
        }
        ASSERT_EQ(subject.held(), model.size());
    }

    Random random;
    TableModel model;
    std::optional<uint64_t> current;
};

TYPED_TEST_SUITE_P(TableTest);

// Sizes swing up and down, so that size changes run many times, walks among them.
TYPED_TEST_P(TableTest, holdsWhatTheModelHolds)
{
    for (int64_t slots : {1, 3, 256}) {
        TypeParam subject(this->ex, slots);
        this->model = {};
        this->current.reset();
        for (int step = 0; step < 20000 && !this->HasFailure(); step++) {
            this->change(subject, step / 5000 % 2 == 0 ? 60 : 3);
        }
        this->walkAll(subject, 0);
        for (unsigned removed : {100u, 0u}) { // a full table, too, is taken down
            for (uint64_t number = 0; number < 300; number++) {
                this->model.set(number, number + 1);
                subject.set(number, number + 1);
            }
            this->walkAll(subject, removed); // a lazy size change may still be running
        }
    }
}

// Whichever request fails: pairs stored before stay, removes do their work, lookups tell the truth.
TYPED_TEST_P(TableTest, survivesFailingAllocations)
{
    constexpr uint64_t count = 150; // grows up to 256 slots, and shrinks on the way down
    TypeParam(this->ex, 1).get(0);  // the keys are made once, before the heap fails
    auto scenario = [ex = this->ex] {
        TypeParam subject(ex, 1);
        int32_t code = std::exchange(ex->code, 0);
        uint64_t stored = 0;
        while (subject.made() && code == 0 && stored < count) {
            subject.set(stored, stored + 1);
            code = std::exchange(ex->code, 0);
            stored += code == 0;
        }
        if (subject.made() && !TypeParam::lazy) {
            EXPECT_EQ(subject.held(), stored);
            EXPECT_EQ(subject.get(stored), 0);
        }
        for (uint64_t number = 0; number < stored; number++) {
            EXPECT_EQ(subject.get(number), number + 1);
            code += std::exchange(ex->code, 0);
            EXPECT_EQ(subject.remove(number), number + 1);
            code += std::exchange(ex->code, 0);
            EXPECT_EQ(subject.get(number), 0);
            code += std::exchange(ex->code, 0);
        }
        ex->code = code;
    };
    EXPECT_GT(sweepFailures(this->ex, scenario), 10);
}

TYPED_TEST_P(TableTest, stopsAtAnErrorButForRemoves)
{
    EXPECT_FALSE(TypeParam(this->ex, 0).made());
    EXPECT_EQ(std::exchange(this->ex->code, 0), KOR_ERROR_INVALID_ARGUMENT);
    TypeParam subject(this->ex, 4);
    subject.set(1, 5);
    subject.set(2, 6);
    KOR_RAISE(this->ex, 0, KOR_ERROR_TIMEOUT, "before");
    EXPECT_FALSE(TypeParam(this->ex, 4).made());
    EXPECT_EQ(subject.get(1), 0);
    EXPECT_EQ(subject.set(2, 7) + subject.set(3, 7), 0);
    EXPECT_EQ(subject.remove(1), 5);
    EXPECT_TRUE(raised(this->ex, KOR_ERROR_TIMEOUT, "before"));
    EXPECT_EQ(subject.held(), 1);
    EXPECT_EQ(subject.get(2), 6);
}

REGISTER_TYPED_TEST_SUITE_P(TableTest, holdsWhatTheModelHolds, survivesFailingAllocations, stopsAtAnErrorButForRemoves);

} // namespace kor::test
