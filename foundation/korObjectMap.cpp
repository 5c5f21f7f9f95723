// korObjectMap.cpp - making ids and making them stale, and the slow paths of get and release.
//
// A slot's word is the one truth: whoever moves its count from 1 to 0 owns the slot and gives it to the free list, and
// only a register takes it from there. So an object is written while no id reaches its slot.

#include "korutil/korObjectMap.h"
#include "foundation/request.h"

#include "foundation/hostile.h"
#include "foundation/unload.h"
#include "korutil/korAlloc.h"
#include "korutil/korThread.h"
#include "platform/mutex.h"

#include <atomic>

korObjectMapSlot gObjectMap0[KOR_OBJECT_MAP_TABLE];
korObjectMapSlot* gObjectMap[KOR_OBJECT_MAP_TABLE];
korMutex gObjectMapLock;
korDpa gObjectMapUnused;
uint64_t gObjectMapMaxUsed;

namespace kor {
namespace {

korThreadOnce mapOnce;
uint32_t lastGeneration; // under gObjectMapLock

// The free list holds its room as a signed number, and doubles it with the tables.
constexpr uint64_t maxIndex = INT32_MAX / 2;

class MapGuard
{
public:
    MapGuard() { korMutex_enter(&gObjectMapLock); }
    ~MapGuard() { korMutex_leave(&gObjectMapLock); }
    MapGuard(const MapGuard&) = delete;
    MapGuard& operator=(const MapGuard&) = delete;
};

void freeMap()
{
    KOR_EX_LOCAL(local);
    for (korObjectMapSlot* table : gObjectMap) {
        if (table != gObjectMap0) {
            _kor_free(KOR_AT_D(0, &local), table);
        }
    }
    _korDpa_Clear(KOR_AT_D(0, &local), &gObjectMapUnused);
    platform::mutexClear(&gObjectMapLock);
}

UnloadStep freesMap = {freeMap, nullptr};

void _korObjectMap_Init()
{
    KOR_EX_LOCAL(local);
    atUnload(freesMap);
    platform::mutexInit(&gObjectMapLock);
    _korDpa_PerformInit(KOR_AT(&local, 0), &gObjectMapUnused, KOR_OBJECT_MAP_TABLE, nullptr);
}

uint32_t generationOf(uint64_t idOrWord)
{
    return static_cast<uint32_t>(idOrWord >> 32);
}

uint32_t countOf(uint64_t word)
{
    return static_cast<uint32_t>(word);
}

uint64_t join(uint32_t generation, uint32_t low)
{
    return static_cast<uint64_t>(generation) << 32 | low;
}

bool wasGivenOut(uint32_t index)
{
    return index <= std::atomic_ref(gObjectMapMaxUsed).load();
}

korObjectMapSlot* slotOf(uint64_t id)
{
    return korObjectMap_slot(static_cast<uint32_t>(id));
}

// Makes the table that begins with this index, and room in the free list, so that a release never has to allocate.
void addTable(korEx* ex, uint8_t depth, uint64_t index)
{
    if (index > maxIndex) {
        KOR_RAISE(ex, depth, KOR_ERROR_RESOURCE_LIMIT, "Object map is full");
        return;
    }
    if (gObjectMapUnused.capacity == static_cast<int32_t>(index)) {
        _korDpa_Grow(KOR_AT(ex, depth), &gObjectMapUnused, static_cast<int32_t>(index));
        if (ex->code != 0) {
            return;
        }
    }
    void* slots = requestZeroed<korObjectMapSlot>(KOR_AT(ex, depth), KOR_OBJECT_MAP_TABLE);
    if (slots == nullptr) {
        return;
    }
    std::atomic_ref(gObjectMap[index / KOR_OBJECT_MAP_TABLE]).store(static_cast<korObjectMapSlot*>(slots));
}

// Takes the index freed last, or a new one; 0 on a failure. Under the lock.
uint32_t takeIndex(korEx* ex, uint8_t depth)
{
    if (gObjectMapUnused.count > 0) {
        return static_cast<uint32_t>(gObjectMapUnused.items[--gObjectMapUnused.count]);
    }
    std::atomic_ref maxUsed(gObjectMapMaxUsed);
    uint64_t index = maxUsed.load() + 1;
    if (index % KOR_OBJECT_MAP_TABLE == 0) {
        addTable(KOR_AT(ex, depth), index);
        if (ex->code != 0) {
            return 0;
        }
    }
    maxUsed.store(index); // after the table: a get with a made-up id looks there as soon as it may
    return static_cast<uint32_t>(index);
}

// The next generation; 0 stands for none. Under the lock.
uint32_t takeGeneration()
{
    lastGeneration++;
    lastGeneration += lastGeneration == 0;
    return lastGeneration;
}

} // namespace
} // namespace kor

void _korObjectMap_Open(korEx* ex, uint8_t depth)
{
    _korThread_Once(KOR_AT(ex, depth), &kor::mapOnce, kor::_korObjectMap_Init);
}

uint64_t _korObjectMap_Register(korEx* ex, uint8_t depth, void* object)
{
    if (ex->code != 0) {
        return 0;
    }
    _korObjectMap_Open(KOR_AT(ex, depth)); // a logger registers before the library is open
    uint32_t index;
    uint32_t generation;
    {
        kor::MapGuard guard;
        index = kor::takeIndex(KOR_AT(ex, depth));
        if (ex->code != 0) {
            return 0;
        }
        generation = kor::takeGeneration();
    }
    korObjectMapSlot* slot = korObjectMap_slot(index);
    // The object first: a get that finds the generation in the word goes on to read the object.
    std::atomic_ref(slot->object).store(object, std::memory_order_relaxed);
    kor::hostileYield();
    std::atomic_ref(slot->word).store(kor::join(generation, 1));
    return kor::join(generation, index);
}

void* _korObjectMap_Unregister(korEx* ex, uint8_t depth, uint64_t id)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (kor::generationOf(id) == 0 || !kor::wasGivenOut(static_cast<uint32_t>(id))) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "invalid object id");
        return nullptr;
    }
    korObjectMapSlot* slot = kor::slotOf(id);
    // Read before the word is changed: afterwards a release elsewhere may free the slot, and a register fill it.
    void* object = std::atomic_ref(slot->object).load(std::memory_order_relaxed);
    std::atomic_ref word(slot->word);
    uint64_t seen = word.load();
    do {
        kor::hostileYield();
        if (kor::generationOf(seen) != kor::generationOf(id)) {
            KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "unrecognized object id");
            return nullptr;
        }
    } while (!word.compare_exchange_weak(seen, kor::countOf(seen)));
    return object;
}

void* _korObjectMap_GetRetry(korEx* ex, uint8_t depth, uint64_t id)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (kor::generationOf(id) == 0 || !kor::wasGivenOut(static_cast<uint32_t>(id))) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "object does not exist");
        return nullptr;
    }
    korObjectMapSlot* slot = kor::slotOf(id);
    std::atomic_ref word(slot->word);
    uint64_t seen = word.load();
    do {
        kor::hostileYield();
        if (kor::generationOf(seen) != kor::generationOf(id)) {
            KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "unrecognized object id");
            return nullptr;
        }
    } while (!word.compare_exchange_weak(seen, seen + 1));
    return std::atomic_ref(slot->object).load(std::memory_order_relaxed);
}

bool _korObjectMap_ReleaseRetry(uint8_t depth, korEx* ex, uint64_t id)
{
    std::atomic_ref word(kor::slotOf(id)->word);
    uint64_t seen = word.load();
    while (!word.compare_exchange_weak(seen, seen - 1)) {
        kor::hostileYield();
    }
    if (kor::countOf(seen) != 1) {
        return false;
    }
    KOR_EX_CHAINED(local, ex, depth);
    kor::MapGuard guard;
    _korDpa_AddSafe(KOR_AT(&local, depth), &gObjectMapUnused, static_cast<uint32_t>(id));
    return true;
}

uint32_t _korDebug_ObjMap_GetRefs(uint64_t id)
{
    if (!kor::wasGivenOut(static_cast<uint32_t>(id))) {
        return 0;
    }
    return kor::countOf(std::atomic_ref(kor::slotOf(id)->word).load());
}
