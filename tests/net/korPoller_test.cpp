// korPoller_test.cpp - both kinds of poller on real sockets.

#include "net/pollerKinds.h"
#include "support/failingHeap.h"
#include "support/meeting.h"
#include "support/systemObjects.h"

#include "korutil/korSocket.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace kor::test;

namespace {

constexpr int32_t forEver = -1;
constexpr int32_t atOnce = 0;
constexpr int32_t bounded = 10000; // milliseconds; what ends is ended long before

using Ready = std::vector<korPollerEvent*>;

/// A connected pair of sockets that close themselves.
class Pair
{
public:
    explicit Pair(korEx* ex) { _korSocket_CreatePair(ex, 0, &first, &second); }
    ~Pair() { closeBoth(); }
    void write()
    {
        KOR_EX_LOCAL(ex);
        EXPECT_EQ(_korSocket_Send(&ex, 0, second, "x", 1, 0), 1);
    }
    void read()
    {
        KOR_EX_LOCAL(ex);
        char byte;
        EXPECT_EQ(_korSocket_Recv(&ex, 0, first, &byte, 1, 0), 1);
    }
    void closeSecond() { _korSocket_Close(0, nullptr, std::exchange(second, -1)); }
    void closeBoth()
    {
        _korSocket_Close(0, nullptr, std::exchange(first, -1));
        closeSecond();
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    korSocket first = -1;
    korSocket second = -1;
};

} // namespace

class KorPoller : public KorTest
{
protected:
    KorPoller() { _korSocket_Startup(ex, 0); }
    ~KorPoller() override { _korSocket_Cleanup(0, ex); }
    void TearDown() override
    {
        _korPoller_Destroy(0, ex, poller_);
        KorTest::TearDown();
    }

    void create(bool fdsOnly)
    {
        poller_ = _korPoller_CreateEx(ex, 0, fdsOnly);
        ASSERT_CLEAN();
    }

    korPollerEvent* event(int64_t socket, uint32_t mask = KOR_POLL_READ)
    {
        return _korPollerEvent_CreateNetwork(ex, 0, nullptr, nullptr, mask, socket);
    }

    korPollerEvent* add(int64_t socket, uint32_t mask = KOR_POLL_READ)
    {
        korPollerEvent* added = event(socket, mask);
        _korPoller_AddEvent(ex, 0, poller_, added);
        return added;
    }

    void remove(korPollerEvent* added)
    {
        _korPoller_RemoveEvent(0, ex, poller_, added);
        _korPollerEvent_Release(0, ex, added);
    }

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
};

/// What holds for both kinds.
class KorPollerKinds : public KorPoller, public testing::WithParamInterface<bool>
{
protected:
    void SetUp() override { create(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Kinds, KorPollerKinds, testing::Values(false, true),
                         [](const auto& one) { return one.param ? "FdsOnly" : "Full"; });

TEST_P(KorPollerKinds, ReportsWhatIsReadableUntilTheEventIsRemoved)
{
    Pair quiet(ex), pair(ex);
    korPollerEvent* other = add(quiet.first);
    korPollerEvent* mine = add(pair.first);
    _korPollerEvent_SetType(ex, 0, mine, -5);
    EXPECT_TRUE(_korPoller_IsActiveEvent(ex, 0, mine));
    pair.write();
    pass();
    EXPECT_EQ(next(), Ready{mine});
    EXPECT_EQ(_korPollerEvent_GetType(ex, 0, mine), -5);
    pair.read();
    EXPECT_EQ(wait(atOnce), Ready{});
    _korPoller_RemoveEvent(0, ex, poller_, mine);
    EXPECT_FALSE(_korPoller_IsActiveEvent(ex, 0, mine));
    EXPECT_EQ(mine->refCount, 2u) << "the slot's reference goes with the waiter's pass";
    pair.write();
    pass();
    EXPECT_EQ(mine->refCount, 1u);
    EXPECT_EQ(wait(atOnce), Ready{});
    _korPollerEvent_Release(0, ex, mine);
    remove(other);
}

TEST_P(KorPollerKinds, RefusesAnActiveEventAndKeepsItsRegistration)
{
    Pair pair(ex);
    korPollerEvent* mine = add(pair.first);
    _korPoller_AddEvent(ex, 0, poller_, mine);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "event already active");
    EXPECT_EQ(mine->refCount, 2u);
    pair.write();
    pass();
    EXPECT_EQ(next(), Ready{mine});
    remove(mine);
}

TEST_P(KorPollerKinds, AnEventRemovedBeforeThePassNeverReachesASlot)
{
    Pair pair(ex);
    korPollerEvent* mine = add(pair.first);
    int32_t slots = poller_->count;
    _korPoller_RemoveEvent(0, ex, poller_, mine);
    EXPECT_EQ(mine->refCount, 1u);
    _korPoller_RemoveEvent(0, ex, poller_, mine); // not active: ignored
    pair.write();
    EXPECT_EQ(wait(), Ready{}) << "the adding woke it";
    EXPECT_EQ(wait(atOnce), Ready{});
    EXPECT_EQ(poller_->count, slots);
    _korPollerEvent_Release(0, ex, mine);
    _korPoller_RemoveEvent(0, ex, poller_, nullptr);
    _korPoller_RemoveEvent(0, ex, nullptr, nullptr);
    _korPoller_AddEvent(ex, 0, poller_, nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "poller or event is missing");
}

TEST_P(KorPollerKinds, AnEventAddedAgainBeforeThePassLeavesWithItsRemoval)
{
    Pair pair(ex);
    korPollerEvent* mine = add(pair.first);
    pass();
    _korPoller_RemoveEvent(0, ex, poller_, mine);
    _korPoller_AddEvent(ex, 0, poller_, mine);
    EXPECT_TRUE(_korPoller_IsActiveEvent(ex, 0, mine));
    EXPECT_EQ(mine->refCount, 2u) << "it was found in its slot";
    _korPoller_RemoveEvent(0, ex, poller_, mine); // its removal is noted already
    _korPoller_AddEvent(ex, 0, poller_, mine);
    pass();
    EXPECT_EQ(mine->refCount, 1u);
    EXPECT_TRUE(_korPoller_IsActiveEvent(ex, 0, mine));
    remove(mine); // in no slot: only the flag goes
}

TEST_P(KorPollerKinds, RemovalsCanBeAppliedAtOnce)
{
    Pair pair(ex);
    korPollerEvent* mine = add(pair.first);
    pass();
    _korPoller_RemoveEvent(0, ex, poller_, mine);
    _korPoller_ProcessRemoveEvents(ex, 0, poller_, 0);
    EXPECT_EQ(mine->refCount, 2u);
    _korPoller_ProcessRemoveEvents(ex, 0, poller_, 1);
    EXPECT_TRUE(_korPollerEvent_Release(0, ex, mine));
}

TEST_P(KorPollerKinds, AnInterruptEndsTheWaitThatIsOnAndTheNextOne)
{
    _korPoller_Interrupt(0, ex, poller_);
    EXPECT_EQ(wait(), Ready{});
    EXPECT_CLEAN();
    std::thread waker([this] {
        korEx* own = korEx_Create();
        KOR_RAISE(own, 0, KOR_ERROR_EXCEPTION, "pending");
        _korPoller_Interrupt(0, own, poller_);
        EXPECT_TRUE(raised(own, KOR_ERROR_EXCEPTION, "pending"));
        korEx_Destroy(own);
    });
    EXPECT_EQ(wait(forEver), Ready{});
    waker.join();
    _korPoller_Interrupt(0, ex, nullptr);
}

TEST_P(KorPollerKinds, IsDestroyedUnderItsWaiter)
{
    Semaphore about;
    std::thread waiter([&] {
        korEx* own = korEx_Create();
        korPollerEvent** ready = nullptr;
        about.release();
        _korPoller_Wait(own, 0, poller_, &ready, 1, forEver);
        EXPECT_TRUE(raised(own, KOR_ERROR_ILLEGAL_STATE, "poller destroyed"));
        korEx_Destroy(own);
    });
    about.acquire();
    // The owner knows by means of his own that the waiter is inside; this test has the count of those who are.
    while (KOR_ATOMIC_LOAD(&kor::objectOf(poller_)->holders) == 1) {
        std::this_thread::yield();
    }
    _korPoller_Destroy(0, ex, poller_);
    poller_ = nullptr;
    waiter.join();
}

TEST_P(KorPollerKinds, GivesBackEverythingWhenMemoryIsShort)
{
    Pair pair(ex);
    bool fdsOnly = GetParam();
    sweepFailures(ex, [&] {
        korPoller* poller = _korPoller_CreateEx(ex, 0, fdsOnly);
        korPollerEvent* mine = event(pair.first);
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
    {
        DescriptorLimit limit(0);
        EXPECT_EQ(_korPoller_CreateEx(ex, 0, fdsOnly), nullptr);
        EXPECT_EQ(ex->code, fdsOnly ? KOR_ERROR_OS : EMFILE);
        EXPECT_EQ(fdsOnly ? ex->osError : EMFILE, EMFILE);
        korEx_Clear(ex);
    }
    {
        DescriptorLimit limit(1); // enough for the interrupt, not for what polls sockets
        korPoller* poller = _korPoller_CreateEx(ex, 0, fdsOnly);
        EXPECT_EQ(poller == nullptr, fdsOnly);
        korEx_Clear(ex);
        _korPoller_Destroy(0, ex, poller);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_P(KorPollerKinds, ASignalDoesNotEndAWait)
{
    Pair pair(ex);
    korPollerEvent* mine = add(pair.first);
    pass();
    SignalNoise noise;
    std::thread sender([&] {
        for (int i = 0; i < 100; i++) {
            noise.send();
            std::this_thread::yield();
        }
        pair.write();
    });
    EXPECT_EQ(next(), Ready{mine});
    sender.join();
    remove(mine);
}

// ---- Full ----

TEST_F(KorPoller, FullTakesSixtyThreeEvents)
{
    create(false);
    std::vector<Handle> handles(KOR_POLLER_MAX_HANDLES);
    std::vector<korPollerEvent*> events;
    for (Handle& handle : handles) {
        events.push_back(_korPollerEvent_CreateHandle(ex, 0, nullptr, nullptr, 0, handle.value()));
    }
    for (int i = 0; i < 63; i++) {
        _korPoller_AddEvent(ex, 0, poller_, events[static_cast<size_t>(i)]);
    }
    ASSERT_CLEAN();
    _korPoller_AddEvent(ex, 0, poller_, events[63]);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "too many events");
    pass();
    EXPECT_EQ(poller_->count, 64);
    _korPoller_RemoveEvent(0, ex, poller_, events[10]);
    _korPoller_AddEvent(ex, 0, poller_, events[63]); // the pending removal makes room at once
    ASSERT_CLEAN();
    pass();
    EXPECT_EQ(poller_->count, 64);
    handles[63].set();
    EXPECT_EQ(next(), Ready{events[63]});
    handles[63].reset();
    for (korPollerEvent* one : events) {
        remove(one);
    }
    pass();
    EXPECT_EQ(poller_->count, 1) << "the interrupt's";
}

TEST_F(KorPoller, FullReportsOneHandleAWaitAndEachInItsTurn)
{
    create(false);
    std::array<Handle, 4> handles;
    std::vector<korPollerEvent*> events;
    for (Handle& handle : handles) {
        events.push_back(_korPollerEvent_CreateHandle(ex, 0, nullptr, nullptr, 0, handle.value()));
        _korPoller_AddEvent(ex, 0, poller_, events.back());
        handle.set();
    }
    pass();
    std::vector<int> turns(handles.size());
    for (int i = 0; i < 40; i++) {
        Ready ready = next();
        ASSERT_EQ(ready.size(), 1u);
        turns[static_cast<size_t>(std::find(events.begin(), events.end(), ready[0]) - events.begin())]++;
    }
    // The busy first and last slots change places; those between wait until one of them is quiet.
    EXPECT_EQ(turns[0] + turns[3], 40);
    EXPECT_GE(turns[0], 19);
    EXPECT_GE(turns[3], 19);
    handles[0].reset();
    handles[3].reset();
    Ready first = next(), second = next();
    EXPECT_NE(first, second);
    for (korPollerEvent* one : events) {
        remove(one);
    }
}

TEST_F(KorPoller, FullTellsWhatHasComeUp)
{
    create(false);
    Pair pair(ex), other(ex);
    korPollerEvent* writer = add(other.first, KOR_POLL_WRITE);
    pass();
    EXPECT_EQ(next(), Ready{writer});
    remove(writer);
    korPollerEvent* reader = add(pair.first, KOR_POLL_READ);
    pass();
    pair.write();
    EXPECT_EQ(next(), Ready{reader});
    pair.read();
    pair.closeSecond();
    for (korPollerEvent* one : next()) { // the end, here and there as a readable one
        EXPECT_EQ(one, reader);
    }
    remove(reader);
    korPollerEvent* indifferent = add(pair.first, 0);
    pass();
    EXPECT_EQ(wait(atOnce), Ready{});
    remove(indifferent);
}

TEST_F(KorPoller, FullTimesOutWithoutTouchingTheList)
{
    create(false);
    auto* mark = reinterpret_cast<korPollerEvent**>(&poller_);
    korPollerEvent** ready = mark;
    EXPECT_EQ(_korPoller_Wait(ex, 0, poller_, &ready, 1, 1), 0);
    EXPECT_EQ(ready, mark);
}

TEST_F(KorPoller, FullForgivesAClosedHandleOnlyIfItsRemovalIsUnderWay)
{
    create(false);
    Handle handle;
    korPollerEvent* mine = _korPollerEvent_CreateHandle(ex, 0, nullptr, nullptr, 0, handle.value());
    _korPoller_AddEvent(ex, 0, poller_, mine);
    pass();
    handle.close();
    korPollerEvent** ready;
    EXPECT_EQ(_korPoller_Wait(ex, 0, poller_, &ready, 1, bounded), -1);
    EXPECT_RAISED(invalidHandleError, "poll wait failed");
    _korPoller_RemoveEvent(0, ex, poller_, mine);
    EXPECT_EQ(_korPoller_Wait(ex, 0, poller_, &ready, 1, bounded), 0);
    EXPECT_EQ(mine->refCount, 1u);
    _korPollerEvent_Release(0, ex, mine);
}

TEST_F(KorPoller, FullTakesASocketOnce)
{
    create(false);
    Pair pair(ex);
    korPollerEvent* mine = add(pair.first);
    pass();
    korPollerEvent* twin = add(pair.first);
    EXPECT_TRUE(_korPoller_IsActiveEvent(ex, 0, twin));
    EXPECT_EQ(twin->refCount, 1u) << "the socket has its slot already";
    remove(twin);
    EXPECT_EQ(poller_->pendingRemoves.count, 0) << "the slot is another's";
    EXPECT_EQ(poller_->count, 2);
    pair.write();
    EXPECT_EQ(next(), Ready{mine});
    remove(mine);
}

// ---- FdsOnly ----

TEST_F(KorPoller, FdsOnlyGrowsByDoubling)
{
    create(true);
    std::vector<std::unique_ptr<Pair>> pairs;
    std::vector<korPollerEvent*> events;
    for (int i = 0; i < 64; i++) {
        pairs.push_back(std::make_unique<Pair>(ex));
        events.push_back(add(pairs.back()->first));
    }
    ASSERT_CLEAN();
    pass();
    EXPECT_EQ(poller_->pollSize, 128);
    EXPECT_EQ(events[62]->pollSlot, 63);
    EXPECT_EQ(events[63]->pollSlot, 64);
    for (const auto& pair : pairs) {
        pair->write();
    }
    pass();
    EXPECT_EQ(next(events.size()), events) << "in the order of slots";
    remove(events[5]);
    pass();
    events[5] = add(pairs[5]->first);
    pass();
    EXPECT_EQ(events[5]->pollSlot, 6) << "the lowest free one";
    for (korPollerEvent* one : events) {
        remove(one);
    }
}

TEST_F(KorPoller, FdsOnlyTellsWritableThenReadableThenHungUp)
{
    create(true);
    Pair pair(ex), half(ex);
    korPollerEvent* both = add(pair.first, KOR_POLL_READ | KOR_POLL_WRITE);
    korPollerEvent* reader = add(half.first, KOR_POLL_READ);
    pass();
    pair.write();
    half.write();
    EXPECT_EQ(next(3), (Ready{both, both, reader}));
    EXPECT_EQ(poller_->pollArray[both->pollSlot].returned, KOR_POLLFD_WRITE | KOR_POLLFD_READ);
    half.read();
    half.closeSecond();
    Ready ready;
    int returned = 0;
    while ((returned & KOR_POLLFD_HUNG_UP) == 0) {
        ready = next(3);
        returned = poller_->pollArray[reader->pollSlot].returned;
    }
    // One system tells the end of a stream as a readable one too, the other does not.
    EXPECT_EQ(std::count(ready.begin(), ready.end(), reader), (returned & KOR_POLLFD_READ) != 0 ? 2 : 1);
    remove(both);
    remove(reader);
}

TEST_F(KorPoller, FdsOnlyTellsTheWaiterWhatItCannotTake)
{
    create(true);
    Pair pair(ex);
    korPollerEvent* handle = _korPollerEvent_CreateHandle(ex, 0, nullptr, nullptr, 0, 5);
    korPollerEvent* invalid = event(-1);
    _korPoller_AddEvent(ex, 0, poller_, handle);
    _korPoller_AddEvent(ex, 0, poller_, invalid);
    EXPECT_CLEAN();
    korPollerEvent* mine = add(pair.first);
    wait();
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Only fds supported by this poller");
    EXPECT_EQ(handle->refCount, 1u);
    pair.write();
    pass();
    EXPECT_EQ(next(), Ready{mine}) << "the others have their slots";
    remove(handle);
    remove(invalid);
    remove(mine);
}

TEST_F(KorPoller, FdsOnlyPollsASocketForSeveralEvents)
{
    if (!pollsSocketTwice) {
        GTEST_SKIP() << "this system tells but one of them";
    }
    create(true);
    Pair pair(ex);
    korPollerEvent* reader = add(pair.first, KOR_POLL_READ);
    korPollerEvent* writer = add(pair.first, KOR_POLL_WRITE);
    pass();
    EXPECT_EQ(next(), Ready{writer});
    pair.write();
    EXPECT_EQ(next(2), (Ready{reader, writer}));
    remove(writer);
    pass();
    EXPECT_EQ(next(), Ready{reader});
    remove(reader);
    pass();
    EXPECT_EQ(wait(atOnce), Ready{});
}

TEST_F(KorPoller, FdsOnlySurvivesSocketsThatAreClosedTooEarly)
{
    create(true);
    Pair first(ex), second(ex);
    korPollerEvent* closed = add(first.first);
    pass();
    first.closeBoth(); // its number may come back at once
    Pair third(ex), fourth(ex);
    korPollerEvent* mine = add(third.first);
    korPollerEvent* late = add(fourth.first);
    fourth.closeBoth(); // before the waiter has placed it
    pass();
    remove(closed); // must not take the poll of the number's next owner with it
    remove(late);
    pass();
    third.write();
    EXPECT_EQ(next(), Ready{mine});
    remove(mine);
}

// ---- Both, under load ----

namespace {

/// A connection that a stress thread opens, has polled, and closes.
struct Connection {
    Pair pair;
    korPollerEvent* event = nullptr;
    std::atomic<bool> seen{false};
    explicit Connection(korEx* ex) : pair(ex) {}
};

constexpr int stressThreads = 3;
constexpr int stressConnections = 400; // each thread's

} // namespace

// Threads open connections, add them, write to them, wait until the waiter has seen that, remove and close them, some
// before anyone can have seen anything. What was written is seen, every reference comes back.
TEST_P(KorPollerKinds, ThousandsOfConnectionsComeAndGo)
{
    korPoller* poller = poller_;
    std::atomic<int> working{stressThreads};
    std::vector<korPollerEvent*> all[stressThreads];
    auto work = [&](int thread) {
        korEx* own = korEx_Create();
        for (int i = 0; i < stressConnections; i++) {
            Connection connection(own);
            connection.event =
                _korPollerEvent_CreateNetwork(own, 0, &connection, nullptr, KOR_POLL_READ, connection.pair.first);
            all[thread].push_back(connection.event);
            _korPoller_AddEvent(own, 0, poller, connection.event);
            bool hasty = i % 4 == 0;
            if (!hasty) {
                connection.pair.write();
                while (!connection.seen.load()) {
                    std::this_thread::yield();
                }
            }
            _korPoller_RemoveEvent(0, own, poller, connection.event);
            // The context lives here: it must outlast the slot.
            while (KOR_ATOMIC_LOAD(&connection.event->refCount) != 1) {
                std::this_thread::yield();
            }
        }
        EXPECT_TRUE(clean(own));
        korEx_Destroy(own);
        if (--working == 0) {
            KOR_EX_LOCAL(last);
            _korPoller_Interrupt(0, &last, poller);
        }
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < stressThreads; thread++) {
        threads.emplace_back(work, thread);
    }
    while (working.load() != 0) {
        korPollerEvent** ready;
        int32_t count = _korPoller_Wait(ex, 0, poller, &ready, 1, bounded);
        ASSERT_CLEAN();
        for (int32_t i = 0; i < count; i++) {
            static_cast<Connection*>(_korPollerEvent_GetContext(ex, 0, ready[i]))->seen.store(true);
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    _korPoller_ProcessRemoveEvents(ex, 0, poller, 1);
    EXPECT_EQ(poller->count, 1);
    for (const auto& events : all) {
        for (korPollerEvent* event : events) {
            EXPECT_FALSE(_korPoller_IsActiveEvent(ex, 0, event));
            EXPECT_TRUE(_korPollerEvent_Release(0, ex, event)) << "the last reference";
        }
    }
}

TEST_F(KorPoller, RecordsOfTheCallersStayTheCallers)
{
    poller_ = _korPoller_Create(ex, 0);
    ASSERT_CLEAN();
    EXPECT_EQ(poller_->kind, 0);
    Pair pair(ex);
    Handle handle;
    int context = 0, closure = 0;
    korPollerEvent socketEvent = {}, handleEvent = {};
    _korPollerEvent_InitNetwork(ex, 0, &socketEvent, &context, &closure, KOR_POLL_READ, pair.first);
    _korPollerEvent_InitHandle(ex, 0, &handleEvent, nullptr, &context, 0, handle.value());
    EXPECT_EQ(_korPollerEvent_GetContext(ex, 0, &socketEvent), &context);
    EXPECT_EQ(_korPollerEvent_GetClosure(ex, 0, &socketEvent), &closure);
    EXPECT_EQ(_korPollerEvent_GetClosure(ex, 0, &handleEvent), &context);
    _korPoller_AddEvent(ex, 0, poller_, &socketEvent);
    _korPoller_AddEvent(ex, 0, poller_, &handleEvent);
    pair.write();
    EXPECT_EQ(next(), (Ready{&socketEvent}));
    pair.read();
    handle.set();
    EXPECT_EQ(next(), (Ready{&handleEvent}));
    _korPoller_RemoveEvent(0, ex, poller_, &socketEvent);
    _korPoller_RemoveEvent(0, ex, poller_, &handleEvent);
    pass();
    EXPECT_TRUE(socketEvent.refCount == 1 && handleEvent.refCount == 1);
    _korPollerEvent_Retain(ex, 0, &socketEvent);
    EXPECT_FALSE(_korPollerEvent_Release(0, ex, &socketEvent));
}
