// korObjectMap_test.cpp - ids that stand and ids that are stale, the order of reuse, tables, and races.

#include "korutil/korObjectMap.h"
#include "support/childProcess.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace kor::test {
namespace {

uint32_t indexOf(uint64_t id)
{
    return static_cast<uint32_t>(id);
}

class korObjectMapTest : public KorTest
{
protected:
    korObjectMapTest() { _korObjectMap_Open(ex, 0); }

    // Both ways of a get must agree.
    void expectStale(uint64_t id, const char* description)
    {
        EXPECT_EQ(_korObjectMap_Get(ex, 0, id), nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, description);
        EXPECT_EQ(_korObjectMap_GetRetry(ex, 0, id), nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, description);
    }

    int object = 0, other = 0;
};

TEST_F(korObjectMapTest, AReferenceOutlivesTheId)
{
    uint64_t id = _korObjectMap_Register(ex, 0, &object);
    ASSERT_CLEAN();
    EXPECT_EQ(_korObjectMap_Get(ex, 0, id), &object);
    EXPECT_EQ(_korObjectMap_GetRetry(ex, 0, id), &object);
    EXPECT_EQ(_korDebug_ObjMap_GetRefs(id), 3u);
    EXPECT_FALSE(_korObjectMap_Release(0, ex, id));

    EXPECT_EQ(_korObjectMap_Unregister(ex, 0, id), &object);
    expectStale(id, "unrecognized object id");
    EXPECT_EQ(_korObjectMap_Unregister(ex, 0, id), nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "unrecognized object id");
    EXPECT_EQ(_korDebug_ObjMap_GetRefs(id), 2u);
    EXPECT_FALSE(_korObjectMap_ReleaseRetry(0, ex, id));
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "pending");
    EXPECT_TRUE(_korObjectMap_Release(0, ex, id)); // a release does its work all the same
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "pending");

    uint64_t reused = _korObjectMap_Register(ex, 0, &other); // the slot freed last, under a new generation
    EXPECT_EQ(indexOf(reused), indexOf(id));
    EXPECT_NE(reused, id);
    expectStale(id, "unrecognized object id");
    EXPECT_EQ(_korObjectMap_Unregister(ex, 0, reused), &other);
    uint64_t another = _korObjectMap_Register(ex, 0, &object); // the slot is not free yet
    EXPECT_NE(indexOf(another), indexOf(reused));
    EXPECT_TRUE(_korObjectMap_ReleaseRetry(0, ex, reused));
    _korObjectMap_Unregister(ex, 0, another);
    EXPECT_TRUE(_korObjectMap_Release(0, ex, another));
}

TEST_F(korObjectMapTest, RefusesMadeUpIds)
{
    uint64_t generation = uint64_t{1} << 32;
    for (uint64_t id : {uint64_t{0}, generation | (gObjectMapMaxUsed + 1), generation | UINT32_MAX}) {
        expectStale(id, "object does not exist");
        EXPECT_EQ(_korObjectMap_Unregister(ex, 0, id), nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "invalid object id");
    }
    expectStale(uint64_t{UINT32_MAX} << 32, "unrecognized object id"); // index 0 is never given out
}

// In a process of its own, where nothing has been registered before.
TEST_F(korObjectMapTest, DISABLED_FirstIdsAndTables)
{
    EXPECT_EQ(gObjectMapMaxUsed, 0u);
    std::vector<uint64_t> ids = {0};
    while (ids.size() < KOR_OBJECT_MAP_TABLE) {
        ids.push_back(_korObjectMap_Register(ex, 0, &ids));
        ASSERT_EQ(indexOf(ids.back()), ids.size() - 1);
    }
    EXPECT_CLEAN();
    for (uint64_t failing = 1; failing <= 2; failing++) { // room for free indexes, then the table
        FailingHeap heap(failing);
        EXPECT_EQ(_korObjectMap_Register(ex, 0, &object), 0u);
        EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
        EXPECT_EQ(gObjectMapMaxUsed, KOR_OBJECT_MAP_TABLE - 1u);
    }
    uint64_t id = _korObjectMap_Register(ex, 0, &object);
    EXPECT_EQ(indexOf(id), KOR_OBJECT_MAP_TABLE);
    EXPECT_EQ(_korObjectMap_Get(ex, 0, id), &object);
    EXPECT_EQ(_korObjectMap_Get(ex, 0, ids[1]), &ids);
    EXPECT_GT(gObjectMapUnused.capacity, KOR_OBJECT_MAP_TABLE); // so that no release has to allocate
}

TEST_F(korObjectMapTest, TheFirstIndexIsOneAndTablesFollow)
{
    ChildProcess child("korObjectMapTest.DISABLED_FirstIdsAndTables");
    EXPECT_EQ(child.wait(), 0) << child.output();
}

// ---- Races ----------------------------------------------------------------------------------------------------------

std::atomic<int> alive;

struct Object {
    std::atomic<bool> usable = true;
    Object() { alive++; }
    ~Object()
    {
        usable = false;
        alive--;
    }
};

constexpr int places = 4, owners = 2, users = 2, leastRounds = 3000;
constexpr uint64_t leastUses = 3000;

// Ids that users pick up and owners replace, and how often a user has reached an object.
struct Exchange {
    std::atomic<uint64_t> ids[places] = {};
    std::atomic<uint64_t> uses = 0;
    std::atomic<bool> ended = false;
};

void releaseObject(korEx* ex, uint64_t id, Object* object)
{
    if (_korObjectMap_Release(0, ex, id)) {
        delete object;
    }
}

// Puts new objects in the place of old ones, whose last user frees them, or this owner.
void replaceObjects(Exchange& exchange)
{
    korEx* ex = korEx_Create();
    for (int round = 0; round < leastRounds || exchange.uses < leastUses; round++) {
        uint64_t old = exchange.ids[round % places].exchange(_korObjectMap_Register(ex, 0, new Object));
        if (old != 0) {
            releaseObject(ex, old, static_cast<Object*>(_korObjectMap_Unregister(ex, 0, old)));
        }
        EXPECT_TRUE(clean(ex));
    }
    korEx_Destroy(ex);
}

void useObjects(Exchange& exchange)
{
    korEx* ex = korEx_Create();
    for (int round = 0; !exchange.ended; round++) {
        uint64_t id = exchange.ids[round % places];
        if (auto* object = static_cast<Object*>(_korObjectMap_Get(ex, 0, id))) {
            EXPECT_TRUE(object->usable);
            releaseObject(ex, id, object);
            exchange.uses++;
        } else {
            std::this_thread::yield(); // to an owner, who brings a new one
        }
        korEx_Clear(ex);
    }
    korEx_Destroy(ex);
}

TEST_F(korObjectMapTest, EveryObjectIsFreedOnceByWhoeverIsLast)
{
    Exchange exchange;
    uint64_t heldBefore = gObjectMapMaxUsed - static_cast<uint64_t>(gObjectMapUnused.count);
    {
        std::vector<std::jthread> userThreads, ownerThreads;
        for (int i = 0; i < users; i++) {
            userThreads.emplace_back([&] { useObjects(exchange); });
        }
        for (int i = 0; i < owners; i++) {
            ownerThreads.emplace_back([&] { replaceObjects(exchange); });
        }
        ownerThreads.clear();
        exchange.ended = true;
    }
    EXPECT_EQ(alive, places);
    for (std::atomic<uint64_t>& id : exchange.ids) {
        releaseObject(ex, id, static_cast<Object*>(_korObjectMap_Unregister(ex, 0, id)));
    }
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(gObjectMapMaxUsed - static_cast<uint64_t>(gObjectMapUnused.count), heldBefore); // each slot is free once
}

} // namespace
} // namespace kor::test
