// handover_test.cpp - pools and ids together: threads pass chunks and object ids to each other through the open
// library, and at the end every chunk is home and every slot is free.

#include "support/korTest.h"

#include "korutil/korLib.h"
#include "korutil/korObjectMap.h"
#include "korutil/korPool.h"
#include "korutil/korThread.h"

#include <array>
#include <atomic>
#include <deque>
#include <mutex>

namespace {

constexpr int workers = 4;
constexpr int handovers = 20000; // for each worker

struct Parcel {
    uint64_t id;
    uint64_t content;
    uint64_t check;
};

// What the workers share. A parcel is reached by its id alone, from whatever thread takes it out.
struct Exchange {
    korPool* pool;
    std::mutex mutex;
    std::deque<uint64_t> ids;
    std::atomic<uint64_t> sent = 0;
    std::atomic<uint64_t> received = 0;
};

void send(korEx* ex, uint8_t depth, Exchange* exchange, uint64_t content)
{
    auto* parcel = static_cast<Parcel*>(_korPool_Get(KOR_AT(ex, depth), exchange->pool));
    ASSERT_NE(parcel, nullptr);
    uint64_t id = _korObjectMap_Register(KOR_AT(ex, depth), parcel);
    *parcel = {id, content, ~content};
    exchange->sent += content;
    std::lock_guard guard(exchange->mutex);
    exchange->ids.push_back(id);
}

// Takes the oldest parcel; false if there is none.
bool receive(korEx* ex, uint8_t depth, Exchange* exchange)
{
    uint64_t id;
    {
        std::lock_guard guard(exchange->mutex);
        if (exchange->ids.empty()) {
            return false;
        }
        id = exchange->ids.front();
        exchange->ids.pop_front();
    }
    auto* parcel = static_cast<Parcel*>(_korObjectMap_Get(KOR_AT(ex, depth), id));
    EXPECT_EQ(parcel->id, id);
    EXPECT_EQ(parcel->check, ~parcel->content);
    exchange->received += parcel->content;
    _korObjectMap_Unregister(KOR_AT(ex, depth), id);
    EXPECT_FALSE(_korObjectMap_Release(KOR_AT_D(depth, ex), id)); // the one of the get
    EXPECT_TRUE(_korObjectMap_Release(KOR_AT_D(depth, ex), id));  // the owner's
    _korPool_Return(KOR_AT_D(depth, ex), exchange->pool, parcel);
    return true;
}

uint64_t work(void* argument)
{
    auto* exchange = static_cast<Exchange*>(argument);
    korEx* ex = korEx_Create();
    for (uint64_t step = 1; step <= handovers; step++) {
        send(KOR_AT(ex, 0), exchange, step);
        if (step % 3 != 0) { // others have to take the rest
            receive(KOR_AT(ex, 0), exchange);
        }
    }
    while (receive(KOR_AT(ex, 0), exchange)) {
    }
    EXPECT_TRUE(kor::test::clean(ex));
    korEx_Destroy(ex);
    return 0;
}

using HandoverTest = kor::test::KorTest;

TEST_F(HandoverTest, EverythingComesHome)
{
    _korutil_Open(KOR_AT(ex, 0), 3);
    Exchange exchange;
    exchange.pool = _korPool_Create(KOR_AT(ex, 0), 100, sizeof(Parcel), nullptr, nullptr, 1, 10);
    int32_t freeSlots = gObjectMapUnused.count;
    uint64_t slots = gObjectMapMaxUsed;

    std::array<korThread*, workers> threads;
    for (korThread*& thread : threads) {
        thread = _korThread_Create(KOR_AT(ex, 0), work, &exchange, 0, "tHand - passes parcels");
        ASSERT_NE(thread, nullptr) << kor::test::describe(ex);
    }
    for (korThread* thread : threads) {
        _korThread_Join(KOR_AT(ex, 0), thread);
        _korThread_Destroy(KOR_AT_D(0, ex), thread);
    }
    while (receive(KOR_AT(ex, 0), &exchange)) {
    }

    EXPECT_EQ(exchange.sent, uint64_t{workers} * handovers * (handovers + 1) / 2);
    EXPECT_EQ(exchange.received, exchange.sent);
    EXPECT_EQ(static_cast<uint64_t>(gObjectMapUnused.count - freeSlots), gObjectMapMaxUsed - slots);
    uint32_t total = 0;
    uint32_t home = 0;
    _korPool_Memory(exchange.pool, &total, &home);
    EXPECT_EQ(home, total); // this thread never got a chunk, so it caches none
    _korPool_Destroy(KOR_AT_D(0, ex), exchange.pool);
    _korutil_Close(KOR_AT_D(0, ex));
}

} // namespace
