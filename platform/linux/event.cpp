// event.cpp (Linux) - an auto-reset event in its owner's 64-bit field, with nothing to allocate.
//
// The low half is the word that threads sleep on: a flag that somebody may sleep, and the generation, which each set
// that finds waiters moves on. The high half holds two flags and two counts. Every step is one compare-and-swap of the
// whole field. A waiter enlists and keeps the generation as its ticket; a set turns a waiter into a grant; whoever
// takes a grant has had his turn. A thread is entitled to a grant once the generation is no longer that of its ticket,
// so a set belongs to those who stood in line before it. (Without this, a thread that waits again and again takes every
// signal from those who still wake up.)
//
// No grant is lost: there are always as many entitled threads awake as there are grants. At a set all who stand in line
// become entitled, and one of them is woken if anyone may sleep. An entitled thread cannot fall asleep on its old
// ticket, since the word has changed, and takes a new one only when it has seen that no grant is left. And whom the
// kernel wakes is entitled: it may have preferred a latecomer of higher priority.

#include "platform/event.h"

#include "foundation/hostile.h"
#include "platform/cpu.h"
#include "platform/error.h"
#include "platform/linux/futex.h"

#include <atomic>
#include <bit>

namespace kor::platform {
namespace {

static_assert(std::endian::native == std::endian::little, "the word to sleep on is the first half of the field");

using Field = std::atomic_ref<uint64_t>;

constexpr uint64_t created = uint64_t{1} << 63;
constexpr uint64_t signalled = uint64_t{1} << 62; // only while nobody stands in line
constexpr uint64_t oneGrant = uint64_t{1} << 47;
constexpr uint64_t oneWaiter = uint64_t{1} << 32;
constexpr uint64_t countMask = 0x7FFF;
constexpr uint32_t maySleep = 1;
constexpr uint32_t oneGeneration = 2;

constexpr uint64_t settled = uint64_t{1} << 63; // a ticket with a result: there is nothing to wait for

// Rounds in which the only waiter looks for its grant before it sleeps: first for a set that is under way on another
// processor, then giving this one to a thread that may be about to set. A set that comes within them costs neither side
// a sleep and a wake-up.
constexpr int spinRounds = hostile ? 0 : 60;
constexpr int yieldRounds = hostile ? 1 : 20;

uint32_t generationOf(uint64_t field)
{
    return static_cast<uint32_t>(field) & ~maySleep;
}

uint64_t waitersOf(uint64_t field)
{
    return field / oneWaiter & countMask;
}

uint64_t grantsOf(uint64_t field)
{
    return field / oneGrant & countMask;
}

// One waiter less; after the last one nobody sleeps who has not been woken.
uint64_t withoutWaiter(uint64_t field)
{
    field -= oneWaiter;
    return waitersOf(field) == 0 ? field & ~uint64_t{maySleep} : field;
}

uint64_t withGrant(uint64_t field)
{
    uint64_t counted = withoutWaiter(field) + oneGrant;
    return (counted & ~uint64_t{UINT32_MAX}) | static_cast<uint32_t>(counted + oneGeneration);
}

uint32_t* sleepWord(uint64_t* event)
{
    return reinterpret_cast<uint32_t*>(event);
}

// A wait with a limit does not give the processor away: it might not have it back in time.
void spinForGrant(Field field, uint32_t ticket, bool limited)
{
    int rounds = limited ? spinRounds : spinRounds + yieldRounds;
    for (int round = 0; round < rounds; round++) {
        uint64_t seen = field.load(std::memory_order_relaxed);
        if (generationOf(seen) != ticket || waitersOf(seen) != 1) {
            return;
        }
        round < spinRounds ? spinHint() : yieldThread();
    }
}

// Waits in line, from the moment when `ticket` was the generation.
int32_t waitForGrant(uint64_t* event, uint32_t ticket, uint32_t timeoutMs)
{
    Field field(*event);
    Deadline deadline(timeoutMs);
    int32_t slept = timeoutMs == 0 ? ETIMEDOUT : EAGAIN; // how the last sleep ended
    if (timeoutMs != 0) {
        spinForGrant(field, ticket, timeoutMs != waitForEver);
    }
    for (;;) {
        hostileYield();
        uint64_t seen = field.load();
        bool entitled = slept == 0 || generationOf(seen) != ticket;
        if (entitled && grantsOf(seen) != 0) {
            if (field.compare_exchange_weak(seen, seen - oneGrant)) {
                return 0;
            }
        } else if (slept == ETIMEDOUT) {
            if (field.compare_exchange_weak(seen, withoutWaiter(seen))) {
                return errorTimedOut;
            }
        } else if (field.compare_exchange_weak(seen, seen | maySleep)) {
            ticket = generationOf(seen);
            slept = futexWait(sleepWord(event), ticket | maySleep, deadline.remaining());
        }
    }
}

} // namespace

bool eventCreate(uint64_t* event)
{
    *event = created;
    return true;
}

void eventClose(uint64_t* event)
{
    *event = 0;
}

bool eventSet(uint64_t* event)
{
    Field field(*event);
    uint64_t seen = field.load();
    do {
        if ((seen & created) == 0) {
            return false;
        }
    } while (!field.compare_exchange_weak(seen, waitersOf(seen) == 0 ? seen | signalled : withGrant(seen)));
    if (waitersOf(seen) != 0 && (seen & maySleep) != 0) {
        hostileYield();
        futexWake(sleepWord(event), 1);
    }
    return true;
}

bool eventReset(uint64_t* event)
{
    return (Field(*event).fetch_and(~signalled) & created) != 0;
}

int32_t eventWait(uint64_t* event, uint32_t timeoutMs)
{
    return eventWaitEnlisted(event, eventEnlist(event), timeoutMs);
}

uint64_t eventEnlist(uint64_t* event)
{
    Field field(*event);
    uint64_t seen = field.load();
    for (;;) {
        if ((seen & created) == 0) {
            return settled | EINVAL;
        }
        if (waitersOf(seen) + grantsOf(seen) == countMask) {
            return settled | EAGAIN; // one more could overrun a count
        }
        bool on = (seen & signalled) != 0;
        if (field.compare_exchange_weak(seen, on ? seen & ~signalled : seen + oneWaiter)) {
            return on ? settled : generationOf(seen);
        }
    }
}

int32_t eventWaitEnlisted(uint64_t* event, uint64_t ticket, uint32_t timeoutMs)
{
    if ((ticket & settled) != 0) {
        return static_cast<int32_t>(ticket & ~settled);
    }
    return waitForGrant(event, static_cast<uint32_t>(ticket), timeoutMs);
}

} // namespace kor::platform
