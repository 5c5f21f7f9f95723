// korPoller_test.cpp - both kinds of poller on real sockets.

#include "net/pollerKinds.h"
#include "netTest.h"
#include "support/failingHeap.h"
#include "support/systemObjects.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <thread>
#include <vector>

using namespace kor::test;

namespace {

constexpr int32_t forEver = -1;
constexpr int32_t atOnce = 0;
constexpr int32_t bounded = 10000; // milliseconds; what ends is ended long before

using Ready = std::vector<korPollerEvent*>;

void write(const Pair& pair)
{
    KOR_EX_LOCAL(ex);
    EXPECT_EQ(_korSocket_Send(&ex, 0, pair.second, "x", 1, 0), 1);
}

void read(const Pair& pair)
{
    KOR_EX_LOCAL(ex);
    char byte;
    EXPECT_EQ(_korSocket_Recv(&ex, 0, pair.first, &byte, 1, 0), 1);
}

} // namespace

class KorPoller : public NetTest
{
protected:
    void TearDown() override
    {
        for (korPollerEvent* event : events_) {
            remove(event);
        }
        _korPoller_Destroy(0, ex, poller_);
        for (korPollerEvent* event : events_) {
            EXPECT_TRUE(_korPollerEvent_Release(0, ex, event)) << "the last reference";
        }
        pairs_.clear();
        NetTest::TearDown();
    }

    void create(bool fdsOnly)
    {
        poller_ = _korPoller_CreateEx(ex, 0, fdsOnly);
        ASSERT_CLEAN();
    }

    Pair& pair() { return pairs_.emplace_back(ex); }

    void add(korPollerEvent* event) { _korPoller_AddEvent(ex, 0, poller_, event); }
    korPollerEvent* addNew(korPollerEvent* event)
    {
        events_.push_back(event);
        add(event);
        return event;
    }
    korPollerEvent* add(const OwnedSocket& socket, uint32_t mask = KOR_POLL_READ)
    {
        return addNew(_korPollerEvent_CreateNetwork(ex, 0, nullptr, nullptr, mask, socket));
    }
    korPollerEvent* add(const Handle& handle)
    {
        return addNew(_korPollerEvent_CreateHandle(ex, 0, nullptr, nullptr, 0, handle.value()));
    }
    void remove(korPollerEvent* event) { _korPoller_RemoveEvent(0, ex, poller_, event); }
    bool isActive(korPollerEvent* event) { return _korPoller_IsActiveEvent(ex, 0, event); }

    Ready wait(int32_t timeoutMs = bounded)
    {
        korPollerEvent** ready = nullptr;
        int32_t count = _korPoller_Wait(ex, 0, poller_, &ready, 1, timeoutMs);
        return count > 0 ? Ready(ready, ready + count) : Ready();
    }

    // Lets the waiter apply what was added and removed.
    void pass()
    {
        while (ex->code == 0 && poller_->pendingAdds.count + poller_->pendingRemoves.count != 0) {
            wait(atOnce);
        }
    }

    // The next report of at least so many entries. A wait that was only woken says nothing, and what was sent takes its
    // time.
    Ready next(size_t entries = 1)
    {
        Ready ready;
        for (int i = 0; i < 100000 && ready.size() < entries && ex->code == 0; i++) {
            ready = wait();
        }
        return ready;
    }

    korPoller* poller_ = nullptr;
    Ready events_;
    std::deque<Pair> pairs_;
};

/// What holds for both kinds.
class KorPollerKinds : public KorPoller, public testing::WithParamInterface<bool>
{
protected:
    void SetUp() override
    {
        NetTest::SetUp();
        create(GetParam());
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, KorPollerKinds, testing::Values(false, true),
                         [](const auto& one) { return one.param ? "FdsOnly" : "Full"; });

TEST_P(KorPollerKinds, ReportsWhatIsReadableUntilTheEventIsRemoved)
{
    add(pair().first); // stays quiet
    Pair& talking = pair();
    korPollerEvent* mine = add(talking.first);
    _korPollerEvent_SetType(ex, 0, mine, -5);
    add(mine);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "event already active");
    EXPECT_EQ(mine->refCount, 2u);
    write(talking);
    pass();
    EXPECT_EQ(next(), Ready{mine});
    EXPECT_EQ(_korPollerEvent_GetType(ex, 0, mine), -5);
    read(talking);
    EXPECT_EQ(wait(atOnce), Ready{});
    remove(mine);
    EXPECT_FALSE(isActive(mine));
    EXPECT_EQ(mine->refCount, 2u) << "the slot's reference goes with the waiter's pass";
    write(talking);
    pass();
    EXPECT_EQ(mine->refCount, 1u);
    EXPECT_EQ(wait(atOnce), Ready{});
}

TEST_P(KorPollerKinds, AnEventRemovedBeforeThePassNeverReachesASlot)
{
    Pair& talking = pair();
    korPollerEvent* mine = add(talking.first);
    remove(mine);
    EXPECT_EQ(mine->refCount, 1u);
    remove(mine); // not active: ignored
    write(talking);
    EXPECT_EQ(wait(), Ready{}) << "the adding woke it";
    EXPECT_EQ(wait(atOnce), Ready{});
    remove(nullptr);
    add(nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "poller or event is missing");
}

TEST_P(KorPollerKinds, AnEventAddedAgainBeforeThePassLeavesWithItsRemoval)
{
    korPollerEvent* mine = add(pair().first);
    pass();
    remove(mine);
    add(mine);
    EXPECT_TRUE(isActive(mine));
    EXPECT_EQ(mine->refCount, 2u) << "it was found in its slot";
    remove(mine); // its removal is noted already
    add(mine);
    pass();
    EXPECT_EQ(mine->refCount, 1u);
    EXPECT_TRUE(isActive(mine));
    remove(mine); // in no slot: only the flag goes
    add(mine);
    pass();
    remove(mine);
    _korPoller_ProcessRemoveEvents(ex, 0, poller_, 0);
    EXPECT_EQ(mine->refCount, 2u);
    _korPoller_ProcessRemoveEvents(ex, 0, poller_, 1);
    EXPECT_EQ(mine->refCount, 1u);
}

TEST_P(KorPollerKinds, AnInterruptEndsTheWaitThatIsOnAndTheNextOne)
{
    _korPoller_Interrupt(0, ex, poller_);
    EXPECT_EQ(wait(forEver), Ready{});
    EXPECT_CLEAN();
    std::thread waker([this] {
        KOR_EX_LOCAL(own);
        KOR_RAISE(&own, 0, KOR_ERROR_EXCEPTION, "pending");
        _korPoller_Interrupt(0, &own, poller_);
        EXPECT_TRUE(raised(&own, KOR_ERROR_EXCEPTION, "pending"));
    });
    EXPECT_EQ(wait(forEver), Ready{});
    waker.join();
}

TEST_P(KorPollerKinds, IsDestroyedUnderItsWaiter)
{
    std::thread waiter([this] {
        KOR_EX_LOCAL(own);
        korPollerEvent** ready = nullptr;
        _korPoller_Wait(&own, 0, poller_, &ready, 1, forEver);
        EXPECT_TRUE(raised(&own, KOR_ERROR_ILLEGAL_STATE, "poller destroyed"));
    });
    // The owner knows by means of his own that the waiter is inside; this test has the count of those who are.
    while (KOR_ATOMIC_LOAD(&kor::objectOf(poller_)->holders) == 1) {
        std::this_thread::yield();
    }
    _korPoller_Destroy(0, ex, poller_);
    waiter.join();
    poller_ = nullptr;
}

TEST_P(KorPollerKinds, GivesBackEverythingWhenMemoryIsShort)
{
    Pair& quiet = pair();
    sweepFailures(ex, [&] {
        korPoller* poller = _korPoller_CreateEx(ex, 0, GetParam());
        korPollerEvent* mine = _korPollerEvent_CreateNetwork(ex, 0, nullptr, nullptr, KOR_POLL_READ, quiet.first);
        _korPoller_AddEvent(ex, 0, poller, mine);
        korPollerEvent** ready;
        _korPoller_Wait(ex, 0, poller, &ready, 1, atOnce);
        _korPoller_RemoveEvent(0, ex, poller, mine);
        _korPoller_Destroy(0, ex, poller);
        _korPollerEvent_Release(0, ex, mine);
    });
}

TEST_P(KorPollerKinds, WithoutDescriptorsThereIsAnErrorAndNoPoller)
{
    if (!DescriptorLimit::exists) {
        GTEST_SKIP() << "this system has no such limit";
    }
    bool fdsOnly = GetParam();
    int before = openDescriptors();
    for (int more : {0, 1}) { // one is enough for the interrupt, not for what polls sockets
        DescriptorLimit limit(more);
        korPoller* poller = _korPoller_CreateEx(ex, 0, fdsOnly);
        EXPECT_EQ(poller != nullptr, !fdsOnly && more == 1) << more;
        EXPECT_TRUE(poller != nullptr || (fdsOnly ? ex->osError : ex->code) == EMFILE) << describe(ex);
        korEx_Clear(ex);
        _korPoller_Destroy(0, ex, poller);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_P(KorPollerKinds, ASignalDoesNotEndAWait)
{
    Pair& talking = pair();
    korPollerEvent* mine = add(talking.first);
    pass();
    SignalNoise noise;
    std::thread sender([&] {
        for (int i = 0; i < 100; i++) {
            noise.send();
            std::this_thread::yield();
        }
        write(talking);
    });
    EXPECT_EQ(next(), Ready{mine});
    sender.join();
}

namespace {

constexpr int stressThreads = 3;
constexpr int stressConnections = 400; // each thread's

// Opens connections, has them polled, writes to them, waits until the waiter has seen that, removes and closes them,
// some before anyone can have seen anything.
void comeAndGo(korPoller* poller)
{
    KOR_EX_LOCAL(own);
    for (int i = 0; i < stressConnections; i++) {
        Pair pair(&own);
        std::atomic<bool> seen = false;
        korPollerEvent* event = _korPollerEvent_CreateNetwork(&own, 0, &seen, nullptr, KOR_POLL_READ, pair.first);
        _korPoller_AddEvent(&own, 0, poller, event);
        if (i % 4 != 0) {
            write(pair);
            while (!seen.load()) {
                std::this_thread::yield();
            }
        }
        _korPoller_RemoveEvent(0, &own, poller, event);
        while (KOR_ATOMIC_LOAD(&event->refCount) != 1) { // the context must outlast the slot
            std::this_thread::yield();
        }
        EXPECT_FALSE(_korPoller_IsActiveEvent(&own, 0, event));
        EXPECT_TRUE(_korPollerEvent_Release(0, &own, event)) << "the last reference";
    }
    EXPECT_TRUE(clean(&own));
}

} // namespace

TEST_P(KorPollerKinds, ThousandsOfConnectionsComeAndGo)
{
    std::atomic<int> working = stressThreads;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < stressThreads; thread++) {
        threads.emplace_back([&] {
            comeAndGo(poller_);
            if (--working == 0) {
                KOR_EX_LOCAL(own);
                _korPoller_Interrupt(0, &own, poller_);
            }
        });
    }
    while (working.load() != 0) {
        Ready ready = wait();
        ASSERT_CLEAN();
        for (korPollerEvent* event : ready) {
            static_cast<std::atomic<bool>*>(_korPollerEvent_GetContext(ex, 0, event))->store(true);
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(poller_->count, 1) << "the interrupt's";
}

// ---- Full ----

TEST_F(KorPoller, FullTakesSixtyThreeEvents)
{
    create(false);
    std::array<Handle, KOR_POLLER_MAX_HANDLES> handles;
    for (const Handle& handle : handles) {
        ASSERT_CLEAN();
        add(handle);
    }
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "too many events");
    pass();
    EXPECT_EQ(poller_->count, 64);
    remove(events_[10]);
    add(events_[63]); // the pending removal makes room at once
    ASSERT_CLEAN();
    pass();
    EXPECT_EQ(poller_->count, 64);
    handles[63].set();
    EXPECT_EQ(next(), Ready{events_[63]});
}

TEST_F(KorPoller, FullReportsOneHandleAWaitAndEachInItsTurn)
{
    create(false);
    std::array<Handle, 4> handles;
    for (Handle& handle : handles) {
        add(handle);
        handle.set();
    }
    pass();
    Ready turns;
    for (size_t i = 0; i < 40; i++) {
        Ready ready = next();
        ASSERT_EQ(ready.size(), 1u);
        turns.push_back(ready[0]);
    }
    // The busy first and last slots change places; those between wait until one of them is quiet.
    EXPECT_EQ(std::count(turns.begin(), turns.end(), events_[0]), 20);
    EXPECT_EQ(std::count(turns.begin(), turns.end(), events_[3]), 20);
    handles[0].reset();
    handles[3].reset();
    Ready first = next(), second = next();
    EXPECT_NE(first, second);
}

TEST_F(KorPoller, FullTellsWhatHasComeUp)
{
    create(false);
    Pair& talking = pair();
    korPollerEvent* writer = add(talking.first, KOR_POLL_WRITE);
    pass();
    EXPECT_EQ(next(), Ready{writer});
    remove(writer);
    pass(); // till then the socket has its slot
    korPollerEvent* reader = add(talking.first);
    pass();
    talking.second.close();
    for (korPollerEvent* event : next()) { // the end, here and there as a readable one
        EXPECT_EQ(event, reader);
    }
    remove(reader);
    add(talking.first, 0); // wants nothing
    pass();
    korPollerEvent** ready = nullptr;
    EXPECT_EQ(_korPoller_Wait(ex, 0, poller_, &ready, 1, 1), 0);
    EXPECT_EQ(ready, nullptr) << "left alone when the time is over";
}

TEST_F(KorPoller, FullForgivesAClosedHandleOnlyIfItsRemovalIsUnderWay)
{
    create(false);
    Handle handle;
    korPollerEvent* mine = add(handle);
    pass();
    handle.close();
    korPollerEvent** ready;
    EXPECT_EQ(_korPoller_Wait(ex, 0, poller_, &ready, 1, bounded), -1);
    EXPECT_RAISED(invalidHandleError, "poll wait failed");
    remove(mine);
    EXPECT_EQ(_korPoller_Wait(ex, 0, poller_, &ready, 1, bounded), 0);
    EXPECT_EQ(mine->refCount, 1u);
}

TEST_F(KorPoller, FullTakesASocketOnce)
{
    create(false);
    Pair& talking = pair();
    korPollerEvent* mine = add(talking.first);
    pass();
    korPollerEvent* twin = add(talking.first);
    EXPECT_TRUE(isActive(twin));
    EXPECT_EQ(twin->refCount, 1u) << "the socket has its slot already";
    remove(twin);
    EXPECT_EQ(poller_->pendingRemoves.count, 0) << "the slot is another's";
    write(talking);
    EXPECT_EQ(next(), Ready{mine});
}

TEST_F(KorPoller, FullLeavesTheCallersRecordsToTheCaller)
{
    poller_ = _korPoller_Create(ex, 0);
    Handle handle;
    korPollerEvent network = {}, record = {};
    _korPollerEvent_InitNetwork(ex, 0, &network, nullptr, nullptr, KOR_POLL_READ, pair().first);
    _korPollerEvent_InitHandle(ex, 0, &record, nullptr, &handle, 0, handle.value());
    _korPollerEvent_Retain(ex, 0, &record);
    add(&network);
    add(&record);
    handle.set();
    EXPECT_EQ(next(), Ready{&record});
    EXPECT_EQ(_korPollerEvent_GetClosure(ex, 0, &record), &handle);
    remove(&network);
    remove(&record);
    pass();
    EXPECT_FALSE(_korPollerEvent_Release(0, ex, &record));
    EXPECT_TRUE(network.refCount == 1 && record.refCount == 1);
}

// ---- FdsOnly ----

TEST_F(KorPoller, FdsOnlyGrowsByDoubling)
{
    create(true);
    for (int i = 0; i < 64; i++) {
        add(pair().first);
    }
    pass();
    EXPECT_EQ(poller_->pollSize, 128);
    for (const Pair& one : pairs_) {
        write(one);
    }
    EXPECT_EQ(next(events_.size()), events_) << "in the order of slots";
    remove(events_[5]);
    remove(events_[9]);
    pass();
    korPollerEvent *first = add(pairs_[5].first), *second = add(pairs_[9].first);
    pass();
    EXPECT_EQ(first->pollSlot, 6) << "the lowest free one";
    EXPECT_EQ(second->pollSlot, 10);
}

TEST_F(KorPoller, FdsOnlyTellsWritableThenReadableThenHungUp)
{
    create(true);
    Pair &talking = pair(), &ending = pair();
    korPollerEvent* both = add(talking.first, KOR_POLL_READ | KOR_POLL_WRITE);
    korPollerEvent* reader = add(ending.first);
    pass();
    write(talking);
    EXPECT_EQ(next(2), (Ready{both, both}));
    EXPECT_EQ(poller_->pollArray[both->pollSlot].returned, KOR_POLLFD_WRITE | KOR_POLLFD_READ);
    ending.second.close();
    Ready ready = next(3);
    int returned = poller_->pollArray[reader->pollSlot].returned;
    EXPECT_NE(returned & KOR_POLLFD_HUNG_UP, 0);
    // One system tells the end of a stream as a readable one too, the other does not.
    EXPECT_EQ(std::count(ready.begin(), ready.end(), reader), (returned & KOR_POLLFD_READ) != 0 ? 2 : 1);
}

TEST_F(KorPoller, FdsOnlyTellsTheWaiterWhatItCannotTake)
{
    create(true);
    Handle handle;
    Pair& talking = pair();
    korPollerEvent* refused = add(handle);
    add(OwnedSocket());
    EXPECT_CLEAN();
    korPollerEvent* mine = add(talking.first);
    wait();
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Only fds supported by this poller");
    EXPECT_EQ(refused->refCount, 1u);
    write(talking);
    pass();
    EXPECT_EQ(next(), Ready{mine}) << "the others have their slots";
}

TEST_F(KorPoller, FdsOnlyPollsASocketForSeveralEvents)
{
    if (!pollsSocketTwice) {
        GTEST_SKIP() << "this system tells but one of them";
    }
    create(true);
    Pair& talking = pair();
    korPollerEvent* reader = add(talking.first);
    korPollerEvent* writer = add(talking.first, KOR_POLL_WRITE);
    write(talking);
    EXPECT_EQ(next(2), (Ready{reader, writer}));
    remove(writer);
    pass();
    EXPECT_EQ(next(), Ready{reader});
}

TEST_F(KorPoller, FdsOnlySurvivesSocketsThatAreClosedTooEarly)
{
    create(true);
    Pair& first = pair();
    korPollerEvent* closed = add(first.first);
    pass();
    first.first.close(); // its number may come back at once
    Pair &second = pair(), &third = pair();
    korPollerEvent* mine = add(second.first);
    korPollerEvent* late = add(third.first);
    third.first.close(); // before the waiter has placed it
    pass();
    remove(closed); // must not take the poll of the number's next owner with it
    remove(late);
    pass();
    write(second);
    EXPECT_EQ(next(), Ready{mine});
}
