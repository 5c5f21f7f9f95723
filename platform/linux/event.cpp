// event.cpp (Linux) - an auto-reset event in its owner's 64-bit field, with nothing to allocate.
//
// The low half is the generation, the word that threads sleep on: each set that finds sleepers moves it on. The high
// half holds two flags and two counts, and every step is one compare-and-swap of the whole field. A set turns a sleeper
// into a grant; whoever takes a grant has his turn. A set thus belongs to a thread that lay down before it, and a
// newcomer who comes between the set and the waking of that thread lies down behind it. (Without grants a thread that
// waits again and again takes every signal from those who still wake up.)
//
// No grant is lost: at a set all counted threads are of an older generation, hence entitled, and there are as many of
// them as grants at least; a thread gives its title up, by taking the present generation for its own, only when it has
// seen that no grant is left. One who is entitled and not yet asleep is kept awake by the generation, and one who is
// asleep is woken.

#include "platform/event.h"
#include "foundation/hostile.h"
#include "platform/cpu.h"
#include "platform/error.h"
#include "platform/linux/futex.h"

#include <atomic>
#include <bit>

namespace kor::platform {
namespace {

static_assert(std::endian::native == std::endian::little, "the generation is the first half of the field");

using Field = std::atomic_ref<uint64_t>;

constexpr uint64_t created = uint64_t{1} << 63;
constexpr uint64_t signalled = uint64_t{1} << 62; // only while nobody is counted as a sleeper
constexpr uint64_t oneGrant = uint64_t{1} << 47;
constexpr uint64_t oneSleeper = uint64_t{1} << 32;
constexpr uint64_t maxSleepers = 0x7FFF;

// Rounds in which a thread that would be the first to sleep looks for a signal. A signal that comes within them costs
// neither side a system call.
constexpr int spinRounds = hostile ? 1 : 200;

uint32_t generationOf(uint64_t field)
{
    return static_cast<uint32_t>(field);
}

uint64_t sleepersOf(uint64_t field)
{
    return field / oneSleeper & maxSleepers;
}

bool hasGrant(uint64_t field)
{
    return (field / oneGrant & maxSleepers) != 0;
}

uint64_t withNextGeneration(uint64_t field)
{
    return (field & ~uint64_t{UINT32_MAX}) | static_cast<uint32_t>(field + 1);
}

uint32_t* sleepWord(uint64_t* event)
{
    return reinterpret_cast<uint32_t*>(event);
}

void spinForSignal(Field field)
{
    for (int round = 0; round < spinRounds; round++) {
        uint64_t seen = field.load(std::memory_order_relaxed);
        if ((seen & signalled) != 0 || sleepersOf(seen) != 0) {
            return;
        }
        spinHint();
    }
}

// The sleep of a thread that is counted, and was so when the event's generation was `generation`.
int32_t sleepCounted(uint64_t* event, uint32_t generation, uint32_t timeoutMs)
{
    Field field(*event);
    Deadline deadline(timeoutMs);
    for (;;) {
        hostileYield();
        int32_t result = futexWait(sleepWord(event), generation, deadline.remaining(), false);
        uint64_t seen = field.load();
        for (;;) {
            bool entitled = result == 0 || generationOf(seen) != generation;
            bool mine = entitled && hasGrant(seen);
            if (!mine && result != ETIMEDOUT) {
                break;
            }
            if (field.compare_exchange_weak(seen, seen - (mine ? oneGrant : oneSleeper))) {
                return mine ? 0 : errorTimedOut;
            }
        }
        generation = generationOf(seen);
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
    uint64_t next;
    do {
        if ((seen & created) == 0) {
            return false;
        }
        next = sleepersOf(seen) == 0 ? seen | signalled : withNextGeneration(seen) - oneSleeper + oneGrant;
    } while (
        !field.compare_exchange_weak(seen, next)); // even if it is on already: what was written before is handed on
    if (generationOf(next) != generationOf(seen)) {
        hostileYield();
        futexWake(sleepWord(event), 1, false);
    }
    return true;
}

bool eventReset(uint64_t* event)
{
    return (Field(*event).fetch_and(~signalled) & created) != 0;
}

int32_t eventWait(uint64_t* event, uint32_t timeoutMs)
{
    Field field(*event);
    if (timeoutMs != 0) {
        spinForSignal(field);
    }
    uint64_t seen = field.load();
    for (;;) {
        if ((seen & created) == 0) {
            return EINVAL;
        }
        if ((seen & signalled) != 0) {
            if (field.compare_exchange_weak(seen, seen & ~signalled)) {
                return 0;
            }
        } else if (timeoutMs == 0) {
            return errorTimedOut;
        } else if (sleepersOf(seen) == maxSleepers) {
            return EAGAIN; // one more would run over into the grants
        } else if (field.compare_exchange_weak(seen, seen + oneSleeper)) {
            return sleepCounted(event, generationOf(seen), timeoutMs);
        }
    }
}

} // namespace kor::platform
