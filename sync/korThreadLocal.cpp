// korThreadLocal.cpp - the thread-local store. Each thread has an array of values, found through one slot of the
// system; reading is in line and takes no lock.
//
// Two locks: `destructorLock`, then `storeLock`. A thread's own records are touched under `destructorLock`, since their
// generations are compared with the registry's. Destructors run with neither.

#include "korutil/korThreadLocal.h"
#include "foundation/request.h"

#include "foundation/hostile.h"
#include "korutil/korAlloc.h"
#include "korutil/korDpa.h"
#include "korutil/korFastLock.h"
#include "korutil/korI64Hash.h"
#include "korutil/korThread.h"
#include "platform/entry.h"
#include "platform/threadlocal.h"
#include "sync/threadStore.h"

#include <atomic>
#include <cstring>

int32_t __tlsInfo = KOR_THREAD_LOCAL_NONE;

namespace kor {

namespace {

// What the registry knows of a key with a destructor. The generation tells its owners apart: a key's number comes
// again.
struct korThreadLocalKey {
    uint64_t generation;
    korThreadLocalDestructor destructor;
};

// A thread's value under such a key. It holds all that its end needs, so that it can outlive the key.
struct korThreadLocalValue {
    korThreadLocalDestructor destructor;
    uint64_t value;
    uint64_t generation;
};

// What a thread keeps of its values with destructors.
struct korThreadLocalState {
    korI64Hash* values; // key to korThreadLocalValue
    korDpa* dead;       // values whose keys have got another owner since
};

constexpr int32_t registrySlots = 16;

int32_t nextKey = 1; // the next key never yet used
korDpa freeKeys;
korDpa slotArrays;
uint64_t usedKeys[KOR_THREAD_LOCAL_KEYS / 64]; // a bit for each key that has an owner
korFastLock storeLock;                         // guards the four above
uint8_t storeReady = 0;                        // atomic

korFastLock destructorLock;
korI64Hash destructors; // key to korThreadLocalKey: the registry
int32_t destructorStateKey = 0;
uint8_t destructorsReady = 0; // atomic
uint64_t nextGeneration = 1;  // atomic

uint8_t keepAtUnload = 0; // atomic

class LockGuard
{
public:
    explicit LockGuard(korFastLock& lock) : lock_(lock)
    {
        korFastLock_acquire(&lock_);
        hostileYield();
    }
    ~LockGuard() { korFastLock_release(&lock_); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    korFastLock& lock_;
};

bool isSet(uint8_t& flag)
{
    return std::atomic_ref(flag).load(std::memory_order_acquire) != 0;
}

void set(uint8_t& flag)
{
    std::atomic_ref(flag).store(1, std::memory_order_release);
}

template <typename Record>
Record* record(uint64_t value)
{
    return reinterpret_cast<Record*>(value);
}

template <typename Record>
uint64_t number(const Record* record)
{
    return reinterpret_cast<uint64_t>(record);
}

bool isValidKey(int32_t key)
{
    return key > 0 && key < KOR_THREAD_LOCAL_KEYS;
}

int32_t lowBits(int32_t key)
{
    return static_cast<int16_t>(key);
}

// Atomic, since the owner of a reused key clears the slots of other threads, and a thread that still sets a value under
// the old key must not be torn apart by it.
void setSlot(uint64_t* values, int32_t key, uint64_t value)
{
    std::atomic_ref(values[key]).store(value, std::memory_order_relaxed);
}

// ---- Values without destructors -------------------------------------------------------------------------------------

void _korThreadLocal_CreateOS(korEx* ex, uint8_t depth)
{
    int32_t info = KOR_THREAD_LOCAL_NONE;
    if (ex->code != 0) {
        return;
    }
    if (!platform::slotCreate(&info) || !platform::watchThreads()) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, NULL);
        return;
    }
    std::atomic_ref(__tlsInfo).store(info, std::memory_order_relaxed);
}

void _korThreadLocal_SetOS(korEx* ex, uint8_t depth, uint64_t* values)
{
    if (!platform::slotSet(__tlsInfo, values) || !platform::watchThisThread()) {
        platform::slotSet(__tlsInfo, nullptr);
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, NULL);
    }
}

void addSlotArray(korEx* ex, uint8_t depth, uint64_t* values)
{
    LockGuard guard(storeLock);
    _korDpa_AddSafe(KOR_AT(ex, depth), &slotArrays, number(values));
}

// A key for a new owner, or 0. No thread keeps a value of the owner before.
int32_t takeKey(uint64_t* own)
{
    LockGuard guard(storeLock);
    int32_t key = 0;
    if (freeKeys.count > 0) {
        key = static_cast<int32_t>(freeKeys.items[--freeKeys.count]);
        for (int32_t i = 0; i < slotArrays.count; i++) {
            setSlot(record<uint64_t>(slotArrays.items[i]), key, 0);
        }
    } else if (nextKey < KOR_THREAD_LOCAL_KEYS) {
        key = nextKey++;
        setSlot(own, key, 0);
    }
    if (key != 0) {
        usedKeys[key / 64] |= uint64_t{1} << (key % 64);
    }
    return key;
}

// Only what has an owner: a key that was given back twice would get two.
void _korThreadLocal_DestroyRaw(uint8_t depth, korEx* ex, int32_t key)
{
    if (!isSet(storeReady) || !isValidKey(key)) {
        return;
    }
    LockGuard guard(storeLock);
    uint64_t bit = uint64_t{1} << (key % 64);
    if ((usedKeys[key / 64] & bit) != 0) {
        usedKeys[key / 64] &= ~bit;
        _korDpa_AddSafe(KOR_AT(ex, depth), &freeKeys, static_cast<uint64_t>(key));
    }
}

void _setupDestructors()
{
    KOR_EX_LOCAL(ex);
    _korI64Hash_Init(KOR_AT(&ex, 0), &destructors, registrySlots); // a table that could not be made is a small one
    korEx_Clear(&ex);
    destructorStateKey = _korThreadLocal_CreateRaw(KOR_AT(&ex, 0));
    set(destructorsReady);
}

// The last thread that had values has gone.
void startListsAnew(korEx* ex, uint8_t depth)
{
    _korDpa_Clear(KOR_AT_D(depth, ex), &freeKeys);
    _korDpa_Clear(KOR_AT_D(depth, ex), &slotArrays);
    _korDpa_Init(KOR_AT(ex, depth), &freeKeys, 1);
    _korDpa_Init(KOR_AT(ex, depth), &slotArrays, 1);
}

void dropSlotArray(korEx* ex, uint8_t depth)
{
    uint64_t* values = korThreadLocal_array();
    if (values == nullptr) {
        return;
    }
    {
        LockGuard guard(storeLock);
        platform::slotSet(__tlsInfo, nullptr);
        _korDpa_Remove(&slotArrays, number(values));
        if (slotArrays.count == 0) {
            startListsAnew(KOR_AT(ex, depth));
        }
    }
    _kor_free(KOR_AT_D(depth, ex), values);
}

// ---- The registry ---------------------------------------------------------------------------------------------------

korThreadLocalKey* registered(korEx* ex, uint8_t depth, int32_t key)
{
    return record<korThreadLocalKey>(_korI64Hash_Get(KOR_AT(ex, depth), &destructors, key));
}

void _registerDestructor(korEx* ex, uint8_t depth, int32_t key, korThreadLocalDestructor destructor)
{
    if (ex->code != 0) {
        return;
    }
    LockGuard guard(destructorLock);
    _kor_free(KOR_AT_D(depth, ex), record<void>(_korI64Hash_Remove(KOR_AT_D(depth, ex), &destructors, key)));
    if (destructor == nullptr) {
        return;
    }
    auto* entry = request<korThreadLocalKey>(KOR_AT(ex, depth));
    if (entry == nullptr) {
        return;
    }
    *entry = {std::atomic_ref(nextGeneration).fetch_add(1), destructor};
    _korI64Hash_Set(KOR_AT(ex, depth), &destructors, key, number(entry));
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), entry);
    }
}

// ---- A thread's values with destructors -----------------------------------------------------------------------------

void destroyState(uint8_t depth, korEx* ex, korThreadLocalState* state)
{
    if (state->values != nullptr) {
        _korI64Hash_Destroy(KOR_AT_D(depth, ex), state->values);
    }
    if (state->dead != nullptr) {
        _korDpa_DestroyPooled(KOR_AT_D(depth, ex), state->dead, NULL);
    }
    _kor_free(KOR_AT_D(depth, ex), state);
}

korThreadLocalState* currentState()
{
    return isSet(destructorsReady) ? record<korThreadLocalState>(_korThreadLocal_Get(destructorStateKey)) : nullptr;
}

korThreadLocalState* createState(korEx* ex, uint8_t depth)
{
    auto* state = requestZeroed<korThreadLocalState>(KOR_AT(ex, depth));
    if (state == nullptr) {
        return nullptr;
    }
    state->values = _korI64Hash_Create(KOR_AT(ex, depth), registrySlots);
    state->dead = _korDpa_Create(KOR_AT(ex, depth), 1);
    _korThreadLocal_SetRaw(KOR_AT(ex, depth), destructorStateKey, number(state));
    if (ex->code != 0) {
        destroyState(KOR_AT_D(depth, ex), state);
        return nullptr;
    }
    return state;
}

void addValue(korEx* ex, uint8_t depth, korThreadLocalState* state, int32_t key, korThreadLocalValue value)
{
    auto* fresh = request<korThreadLocalValue>(KOR_AT(ex, depth));
    if (fresh == nullptr) {
        return;
    }
    *fresh = value;
    _korI64Hash_Set(KOR_AT(ex, depth), state->values, key, number(fresh));
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), fresh);
    }
}

// The value of a key that has got another owner waits for its destructor.
void markDead(korEx* ex, uint8_t depth, korThreadLocalState* state, int32_t key, korThreadLocalValue* old)
{
    _korDpa_AddSafe(KOR_AT(ex, depth), state->dead, number(old));
    if (ex->code == 0) {
        _korI64Hash_Remove(KOR_AT_D(depth, ex), state->values, key);
    }
}

// Has the key's destructor, if there is one, meet `value` and no other. Under destructorLock.
void _registerValue(korEx* ex, uint8_t depth, int32_t key, uint64_t value)
{
    korThreadLocalKey* entry = registered(KOR_AT(ex, depth), key);
    if (entry == nullptr) {
        return;
    }
    korThreadLocalState* state = currentState();
    if (state == nullptr && (state = createState(KOR_AT(ex, depth))) == nullptr) {
        return;
    }
    auto* old = record<korThreadLocalValue>(_korI64Hash_Get(KOR_AT(ex, depth), state->values, key));
    if (old != nullptr && old->generation == entry->generation) {
        if (value != 0) {
            old->value = value;
        } else {
            _korI64Hash_Remove(KOR_AT_D(depth, ex), state->values, key);
            _kor_free(KOR_AT_D(depth, ex), old);
        }
        return;
    }
    if (old != nullptr) {
        markDead(KOR_AT(ex, depth), state, key, old);
    }
    if (ex->code == 0) {
        addValue(KOR_AT(ex, depth), state, key, {entry->destructor, value, entry->generation});
    }
}

// ---- Running destructors --------------------------------------------------------------------------------------------

enum class Which { stale, all };

// In their order, from the oldest on: the list is run from its end.
void collectDead(korEx* ex, uint8_t depth, korDpa* dead, korDpa* list)
{
    int32_t moved = 0;
    while (moved < dead->count) {
        _korDpa_AddSafe(KOR_AT(ex, depth), list, dead->items[moved]);
        if (ex->code != 0) {
            break;
        }
        moved++;
    }
    dead->count -= moved;
    memmove(dead->items, dead->items + moved, static_cast<size_t>(dead->count) * sizeof(uint64_t));
}

void collectValues(korEx* ex, uint8_t depth, korThreadLocalState* state, uint64_t* slots, Which which, korDpa* list)
{
    korI64HashIterator walk;
    int64_t key;
    uint64_t item;
    if (ex->code != 0) {
        return;
    }
    _korI64Hash_IteratorInit(KOR_AT(ex, depth), state->values, &walk);
    while (_korI64Hash_Next(KOR_AT(ex, depth), &walk, &key, &item)) {
        korThreadLocalKey* entry = registered(KOR_AT(ex, depth), static_cast<int32_t>(key));
        bool live = entry != nullptr && entry->generation == record<korThreadLocalValue>(item)->generation;
        if (live && which == Which::stale) {
            continue;
        }
        _korDpa_AddSafe(KOR_AT(ex, depth), list, item);
        if (ex->code != 0) {
            return;
        }
        _korI64Hash_RemoveCurrent(KOR_AT_D(depth, ex), &walk);
        if (live) {
            setSlot(slots, static_cast<int32_t>(key), 0);
        }
    }
}

// Last in, first out. No lock is held: a destructor may set values, and the list is out of everybody's reach.
void runList(uint8_t depth, korEx* ex, korDpa* list)
{
    while (list->count > 0) {
        auto* item = record<korThreadLocalValue>(list->items[--list->count]);
        if (item->destructor != nullptr && item->value != 0) {
            item->destructor(item->value);
        }
        _kor_free(KOR_AT_D(depth, ex), item);
    }
    _korDpa_Clear(KOR_AT_D(depth, ex), list);
}

// Ends values of a thread whose slots are `slots`. Without memory it is as many as fit, and one at least, since a list
// of one needs none.
void runSome(uint8_t depth, korEx* ex, korThreadLocalState* state, uint64_t* slots, Which which)
{
    korDpa list;
    KOR_EX_CHAINED(local, ex, depth);
    _korDpa_Init(KOR_AT(&local, depth), &list, 1);
    {
        LockGuard guard(destructorLock);
        collectDead(KOR_AT(&local, depth), state->dead, &list);
        collectValues(KOR_AT(&local, depth), state, slots, which, &list);
    }
    runList(KOR_AT_D(depth, &local), &list);
}

// A destructor may set values: on until there is none.
void _runLocalDestructors(uint8_t depth, korEx* ex, korThreadLocalState* state, uint64_t* slots)
{
    while (state->dead->count > 0 || state->values->entryCount > 0) {
        korEx_Clear(ex);
        runSome(KOR_AT_D(depth, ex), state, slots, Which::all);
    }
}

// ---- The end of a thread, and of the store --------------------------------------------------------------------------

// Which destructors run: at the end of the thread itself all of them. A thread that outlives the library may still be
// using what it has set, but what the library's own code has set there is in nobody's reach any more.
enum class Run { all, libraryOwn, none };

void mute(korThreadLocalValue* item, Run run)
{
    if (run == Run::none || !platform::isLibraryCode(reinterpret_cast<const void*>(item->destructor))) {
        item->destructor = nullptr;
    }
}

void muteState(korEx* ex, uint8_t depth, korThreadLocalState* state, Run run)
{
    korI64HashIterator walk;
    uint64_t item;
    LockGuard guard(destructorLock);
    for (int32_t i = 0; i < state->dead->count; i++) {
        mute(record<korThreadLocalValue>(state->dead->items[i]), run);
    }
    _korI64Hash_IteratorInit(KOR_AT(ex, depth), state->values, &walk);
    while (_korI64Hash_Next(KOR_AT(ex, depth), &walk, NULL, &item)) {
        mute(record<korThreadLocalValue>(item), run);
    }
}

// Ends what the thread with these slots has set.
void endState(uint8_t depth, korEx* ex, uint64_t* slots, Run run)
{
    auto* state = isSet(destructorsReady) ? record<korThreadLocalState>(slots[destructorStateKey]) : nullptr;
    if (state == nullptr) {
        return;
    }
    if (run != Run::all) {
        muteState(KOR_AT(ex, depth), state, run);
    }
    _runLocalDestructors(KOR_AT_D(depth, ex), state, slots);
    setSlot(slots, destructorStateKey, 0);
    destroyState(KOR_AT_D(depth, ex), state);
}

void freeRegistry(korEx* ex, uint8_t depth)
{
    korI64HashIterator walk;
    uint64_t entry;
    _korI64Hash_IteratorInit(KOR_AT(ex, depth), &destructors, &walk);
    while (_korI64Hash_Next(KOR_AT(ex, depth), &walk, NULL, &entry)) {
        _kor_free(KOR_AT_D(depth, ex), record<void>(entry));
    }
    _korI64Hash_Clear(KOR_AT_D(depth, ex), &destructors);
}

} // namespace

// ---- For the rest of the library ------------------------------------------------------------------------------------

void _korThreadLocal_InitProcess(korEx* ex, uint8_t depth)
{
    _korFastLock_Init(KOR_AT_D(depth, ex), &storeLock, 0);
    _korFastLock_Init(KOR_AT_D(depth, ex), &destructorLock, 0);
    _korDpa_Init(KOR_AT(ex, depth), &freeKeys, KOR_THREAD_LOCAL_KEYS);
    _korThreadLocal_CreateOS(KOR_AT(ex, depth));
    _korDpa_Init(KOR_AT(ex, depth), &slotArrays, 24);
    if (ex->code != 0) {
        return;
    }
    set(storeReady);
    _korThreadLocal_InitThread(KOR_AT(ex, depth));
    _setupDestructors();
}

uint64_t* _korThreadLocal_InitThread(korEx* ex, uint8_t depth)
{
    uint64_t* values = korThreadLocal_array();
    if (values != nullptr || ex->code != 0) {
        return values;
    }
    constexpr size_t size = KOR_THREAD_LOCAL_KEYS * sizeof(uint64_t) + KOR_THREAD_NAME_SIZE;
    values = granted<uint64_t>(KOR_AT(ex, depth), _kor_calloc(KOR_AT(ex, depth), 1, size));
    if (values == nullptr) {
        return nullptr;
    }
    addSlotArray(KOR_AT(ex, depth), values);
    if (ex->code == 0) {
        _korThreadLocal_SetOS(KOR_AT(ex, depth), values);
        if (ex->code == 0) {
            return values;
        }
        LockGuard guard(storeLock);
        _korDpa_Remove(&slotArrays, number(values));
    }
    _kor_free(KOR_AT_D(depth, ex), values);
    return nullptr;
}

int32_t _korThreadLocal_CreateRaw(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return 0;
    }
    if (!isSet(storeReady)) {
        _korThread_InitThreads(KOR_AT(ex, depth));
    }
    if (!isSet(storeReady)) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, NULL);
        return 0;
    }
    uint64_t* own = _korThreadLocal_InitThread(KOR_AT(ex, depth));
    if (ex->code != 0) {
        return 0;
    }
    int32_t key = takeKey(own);
    if (key == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, "kor Thread Local Store exhausted");
    }
    return key;
}

void _korThreadLocal_SetRaw(korEx* ex, uint8_t depth, int32_t key, uint64_t value)
{
    if (ex->code != 0) {
        return;
    }
    if (!isSet(storeReady) || !isValidKey(key)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Thread Local Store key not valid");
        return;
    }
    uint64_t* values = _korThreadLocal_InitThread(KOR_AT(ex, depth));
    if (values != nullptr) {
        setSlot(values, key, value);
    }
}

char* threadNameRoom()
{
    uint64_t* values = korThreadLocal_array();
    return values == nullptr ? nullptr : reinterpret_cast<char*>(values + KOR_THREAD_LOCAL_KEYS);
}

void _runDestructors()
{
    KOR_EX_LOCAL(ex);
    uint64_t* slots = korThreadLocal_array();
    if (slots != nullptr) {
        endState(KOR_AT_D(0, &ex), slots, Run::all);
        korEx_Clear(&ex);
        dropSlotArray(KOR_AT(&ex, 0));
    }
}

void endThreadValues()
{
    KOR_EX_LOCAL(ex);
    if (!isSet(storeReady) || isSet(keepAtUnload)) {
        return;
    }
    uint64_t* own = korThreadLocal_array();
    for (int32_t i = 0; i < slotArrays.count; i++) {
        auto* slots = record<uint64_t>(slotArrays.items[i]);
        if (slots != own) {
            endState(KOR_AT_D(0, &ex), slots, Run::libraryOwn);
        }
    }
    _runDestructors();
}

void freeThreadStore()
{
    KOR_EX_LOCAL(ex);
    if (!isSet(storeReady)) {
        return;
    }
    for (int32_t i = 0; i < slotArrays.count; i++) {
        auto* slots = record<uint64_t>(slotArrays.items[i]);
        endState(KOR_AT_D(0, &ex), slots, Run::none);
        _kor_free(KOR_AT_D(0, &ex), slots);
    }
    korEx_Clear(&ex);
    freeRegistry(KOR_AT(&ex, 0));
    _korDpa_Clear(KOR_AT_D(0, &ex), &freeKeys);
    _korDpa_Clear(KOR_AT_D(0, &ex), &slotArrays);
    _korFastLock_Clear(KOR_AT_D(0, &ex), &storeLock);
    _korFastLock_Clear(KOR_AT_D(0, &ex), &destructorLock);
    platform::slotDestroy(__tlsInfo);
}

} // namespace kor

// ---- Exported -------------------------------------------------------------------------------------------------------

using namespace kor;

uint64_t _korThreadLocal_GetRawDebug(int32_t key)
{
    uint64_t* values = korThreadLocal_array();
    key = lowBits(key);
    return values == nullptr || !isValidKey(key) ? 0 : std::atomic_ref(values[key]).load(std::memory_order_relaxed);
}

int32_t _korThreadLocal_Create(korEx* ex, uint8_t depth, korThreadLocalDestructor destructor)
{
    _korThread_InitThreads(KOR_AT(ex, depth)); // all of it: keys can be had before the registry stands
    int32_t key = _korThreadLocal_CreateRaw(KOR_AT(ex, depth));
    _registerDestructor(KOR_AT(ex, depth), key, destructor);
    if (ex->code != 0) {
        _korThreadLocal_DestroyRaw(KOR_AT_D(depth, ex), key);
        return 0;
    }
    return key;
}

void _korThreadLocal_Destroy(uint8_t depth, korEx* ex, int32_t key)
{
    uint64_t entry = 0;
    key = lowBits(key);
    if (!isSet(destructorsReady)) {
        return;
    }
    {
        LockGuard guard(destructorLock);
        entry = _korI64Hash_Remove(KOR_AT_D(depth, ex), &destructors, key);
    }
    _korThreadLocal_DestroyRaw(KOR_AT_D(depth, ex), key);
    _kor_free(KOR_AT_D(depth, ex), record<void>(entry));
    _korThreadLocal_RunDestructors(KOR_AT_D(depth, ex));
}

void _korThreadLocal_Set(korEx* ex, uint8_t depth, int32_t key, uint64_t value)
{
    key = lowBits(key);
    if (ex->code != 0) {
        return;
    }
    if (!isSet(destructorsReady)) {
        _korThreadLocal_SetRaw(KOR_AT(ex, depth), key, value);
        return;
    }
    LockGuard guard(destructorLock);
    uint64_t before = _korThreadLocal_GetRawDebug(key);
    _korThreadLocal_SetRaw(KOR_AT(ex, depth), key, value);
    if (ex->code != 0) {
        return;
    }
    _registerValue(KOR_AT(ex, depth), key, value);
    if (ex->code != 0) {
        setSlot(korThreadLocal_array(), key, before); // no value that its destructor would not meet
    }
}

void _korThreadLocal_RunDestructors(uint8_t depth, korEx* ex)
{
    korThreadLocalState* state = currentState();
    if (state != nullptr) {
        runSome(KOR_AT_D(depth, ex), state, korThreadLocal_array(), Which::stale);
    }
}

void _korThreadLocal_ForceDestructors(uint8_t depth, korEx* ex)
{
    korThreadLocalState* state = currentState();
    if (state != nullptr) {
        runSome(KOR_AT_D(depth, ex), state, korThreadLocal_array(), Which::all);
    }
}

void _kor_SetDotNetEnvironment(void)
{
    set(keepAtUnload);
}
