// korFastLock.cpp - the slow sides of the fast lock: spinning, yielding, parking, and waking a parked thread.
//
// Invariant: `word` is bit 0 for "held" and 2 for each parked thread. Only a thread that holds `mutex` changes the
// number of parked ones, and while there is one, only a parked thread can set bit 0.

#include "korutil/korFastLock.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "platform/cpu.h"
#include "platform/event.h"

#include <atomic>

// Wherever an 8-byte aligned lock begins, the line of `word` ends inside the gaps.
static_assert(offsetof(korFastLock, word) == 56 && offsetof(korFastLock, spinCount) == 56 + 64);
static_assert(offsetof(korFastLock, mutex) == 128 && sizeof(korFastLock) == 184 && alignof(korFastLock) == 8);

namespace kor {
namespace {

constexpr uint32_t defaultSpinCount = 1024;
constexpr uint32_t checkerSpinCount = 10; // under an outside memory checker, where spinning is very slow

using Word = std::atomic_ref<uint64_t>;

constexpr uint64_t held = 1;
constexpr uint64_t oneParked = 2;

// Hints between two looks at the word. A spinner that looks all the time keeps pulling the word's cache line away from
// the holder, who has to get it back for the release: with fewer looks both sides get on faster.
constexpr int hintsPerRound = 10;

void rest()
{
    for (int i = 0; i < hintsPerRound; i++) {
        platform::spinHint();
    }
}

// Tries `spinCount` times to take the lock, with `pause` in between.
template <void (*pause)()>
bool spin(korFastLock* lock)
{
    for (uint32_t round = 0; round < lock->spinCount; round++) {
        if (Word(lock->word).load(std::memory_order_relaxed) == 0 && korFastLock_tryAcquire(lock)) {
            return true;
        }
        pause();
    }
    return false;
}

// Takes a free lock for a parked thread.
bool takeParked(Word word)
{
    uint64_t seen = word.load();
    return (seen & held) == 0 && word.compare_exchange_strong(seen, seen | held);
}

// Counts itself before it looks at the held bit: a release either finds the count and wakes a thread, or came before
// and has left the bit clear. Behind others it waits for a wake-up first, and so does not overtake them.
void park(korFastLock* lock)
{
    KOR_EX_LOCAL(ex); // nobody to report to: a wait that fails is tried again
    Word word(lock->word);
    korMutex_enter(&lock->mutex);
    if (word.fetch_add(oneParked) >= oneParked) {
        _korCondition_Wait(KOR_AT_D(0, &ex), &lock->condition, &lock->mutex);
    }
    hostileYield();
    while (!takeParked(word)) {
        _korCondition_Wait(KOR_AT_D(0, &ex), &lock->condition, &lock->mutex);
    }
    [[maybe_unused]] uint64_t before = word.fetch_sub(oneParked);
    KOR_INVARIANT((before & held) != 0 && before >= oneParked);
    korMutex_leave(&lock->mutex);
}

uint32_t spinCountFor(uint32_t wanted)
{
    if (wanted != 0) {
        return wanted;
    }
    return KOR_ATOMIC_LOAD_RELAXED(&gMemDebugExternalMemcheck) ? checkerSpinCount : defaultSpinCount;
}

} // namespace
} // namespace kor

using namespace kor;

void _korFastLock_Init(uint8_t depth, korEx* ex, korFastLock* lock, uint32_t spinCount)
{
    if (lock == nullptr) {
        return;
    }
    lock->word = 0;
    lock->spinCount = spinCountFor(spinCount);
    _korMutex_Init(KOR_AT(ex, depth), &lock->mutex);
    _korCondition_Init(KOR_AT_D(depth, ex), &lock->condition);
}

void _korFastLock_Clear(uint8_t depth, korEx* ex, korFastLock* lock)
{
    if (lock != nullptr) {
        _korMutex_Clear(KOR_AT(ex, depth), &lock->mutex);
        _korCondition_Clear(KOR_AT_D(depth, ex), &lock->condition);
    }
}

korFastLock* _korFastLock_Create(uint8_t depth, korEx* ex, uint32_t spinCount)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* lock = requestZeroed<korFastLock>(KOR_AT(ex, depth));
    if (lock == nullptr) {
        return nullptr;
    }
    _korFastLock_Init(KOR_AT_D(depth, ex), lock, spinCount);
    if (ex->code != 0) {
        _korFastLock_Destroy(KOR_AT_D(depth, ex), lock);
        return nullptr;
    }
    return lock;
}

void _korFastLock_Destroy(uint8_t depth, korEx* ex, korFastLock* lock)
{
    if (lock != nullptr) {
        _korFastLock_Clear(KOR_AT_D(depth, ex), lock);
        _kor_free(KOR_AT_D(depth, ex), lock);
    }
}

void _korFastLock_LockSpin(korFastLock* lock)
{
    bool nobodyParked = Word(lock->word).load() < oneParked;
    if (nobodyParked && (spin<rest>(lock) || spin<platform::yieldThread>(lock))) {
        return;
    }
    park(lock);
}

void _korFastLock_Notify(korFastLock* lock)
{
    korMutex_enter(&lock->mutex);
    platform::eventSet(&lock->condition.event); // a refusal has nowhere to go
    korMutex_leave(&lock->mutex);
}
