// rwlock.cpp (Linux) - a futex lock whose whole state is one 64-bit word, so that each step is one compare-and-swap.
//
// Low half, where readers sleep: waiting writers, waiting readers, and a phase bit that flips when readers are let in.
// High half, where writers sleep: active readers, and the bit of the writer that holds the lock.
//
// The order of entry is phase-fair (Brandenburg and Anderson, 2010, in spirit): a waiting writer keeps new readers out,
// and a writer that leaves hands the lock to all the readers that wait, at once. So a reader waits for one writer at
// most, and readers hold up a writer only as long as those that are inside. Among writers the quickest wins.

#include "platform/rwlock.h"

#include "foundation/hostile.h"
#include "platform/cpu.h"
#include "platform/linux/futex.h"

#include <atomic>

namespace kor::platform {
namespace {

using Word = std::atomic_ref<uint64_t>;

constexpr uint64_t oneWaitingWriter = 1;
constexpr uint64_t waitingWriters = 0xFFFF;
constexpr uint64_t oneWaitingReader = 1ull << 16;
constexpr uint64_t waitingReaders = 0x7FFFull << 16;
constexpr uint64_t phase = 1ull << 31;
constexpr uint64_t oneReader = 1ull << 32;
constexpr uint64_t readers = 0x7FFFFFFFull << 32;
constexpr uint64_t tooManyReaders = 1ull << 62; // the count's highest bit: newcomers hold off before it runs over
constexpr uint64_t writer = 1ull << 63;

constexpr uint64_t held = writer | readers;
constexpr uint64_t writerFirst = writer | waitingWriters; // a reader gives way to these

constexpr int spinRounds = 100; // a few microseconds: longer than a short critical section, shorter than a sleep

uint32_t* readersHalf(uint64_t* word)
{
    return reinterpret_cast<uint32_t*>(word);
}

uint32_t* writersHalf(uint64_t* word)
{
    return reinterpret_cast<uint32_t*>(word) + 1;
}

// Lets time pass before the next look: the hint while spinning pays, then the processor.
void pause(int round)
{
    hostileYield();
    if (round < spinRounds) {
        spinHint();
    } else {
        yieldThread();
    }
}

// Becomes a reader if no writer is before it; else `seen` tells what stands in the way.
bool enterAsReader(Word word, uint64_t& seen)
{
    while ((seen & (writerFirst | tooManyReaders)) == 0) {
        if (word.compare_exchange_weak(seen, seen + oneReader, std::memory_order_acquire, std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

// Becomes the writer if nobody holds the lock. `queued` is what the caller has added to the word while it waited.
bool enterAsWriter(Word word, uint64_t& seen, uint64_t queued)
{
    while ((seen & held) == 0) {
        if (word.compare_exchange_weak(seen, (seen | writer) - queued, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

// Sleeps until the writer that is inside, or the one that is next, lets the waiting readers in: the phase has flipped,
// and this reader is counted among the active ones already. The phase cannot flip twice meanwhile, since the second
// time takes a writer, and this reader is inside.
void sleepAsReader(uint64_t* address, uint64_t entry)
{
    Word word(*address);
    for (uint64_t seen; ((seen = word.load(std::memory_order_acquire)) & phase) == entry;) {
        hostileYield();
        futexWait(readersHalf(address), static_cast<uint32_t>(seen), nullptr, false);
    }
}

// The half on which a writer sleeps holds all that keeps it out. So the sleep does not begin if the lock came free
// after the look; and if it is held, whoever holds it sees a waiting writer when it leaves, and wakes one.
void sleepAsWriter(uint64_t* address)
{
    Word word(*address);
    for (uint64_t seen = word.load(std::memory_order_relaxed); !enterAsWriter(word, seen, oneWaitingWriter);
         seen = word.load(std::memory_order_relaxed)) {
        hostileYield();
        futexWait(writersHalf(address), static_cast<uint32_t>(seen >> 32), nullptr, false);
    }
}

[[gnu::noinline]] void waitAsReader(uint64_t* address, uint64_t seen)
{
    Word word(*address);
    for (int round = 0; !enterAsReader(word, seen); round++) {
        // A reader may only queue behind a writer, which is who will let it in.
        bool mayQueue = (seen & writerFirst) != 0 && (seen & waitingReaders) != waitingReaders;
        if (round >= spinRounds && mayQueue && word.compare_exchange_weak(seen, seen + oneWaitingReader)) {
            sleepAsReader(address, seen & phase);
            return;
        }
        pause(round);
        seen = word.load(std::memory_order_relaxed);
    }
}

[[gnu::noinline]] void waitAsWriter(uint64_t* address, uint64_t seen)
{
    Word word(*address);
    for (int round = 0; !enterAsWriter(word, seen, 0); round++) {
        bool mayQueue = (seen & waitingWriters) != waitingWriters;
        if (round >= spinRounds && mayQueue && word.compare_exchange_weak(seen, seen + oneWaitingWriter)) {
            sleepAsWriter(address);
            return;
        }
        pause(round);
        seen = word.load(std::memory_order_relaxed);
    }
}

// The word after the writer has left: the waiting readers, if any, have become the active ones.
uint64_t afterWriter(uint64_t seen)
{
    uint64_t waiting = seen & waitingReaders;
    uint64_t free = seen & ~writer;
    return waiting == 0 ? free : (free - waiting + waiting / oneWaitingReader * oneReader) ^ phase;
}

} // namespace

int32_t rwlockInit(uint64_t* word)
{
    *word = 0;
    return 0;
}

void readLock(uint64_t* address)
{
    Word word(*address);
    uint64_t seen = word.load(std::memory_order_relaxed);
    if (!enterAsReader(word, seen)) [[unlikely]] {
        waitAsReader(address, seen);
    }
}

void readUnlock(uint64_t* address)
{
    uint64_t before = Word(*address).fetch_sub(oneReader, std::memory_order_release);
    if ((before & held) == oneReader && (before & waitingWriters) != 0) [[unlikely]] {
        futexWake(writersHalf(address), 1, false);
    }
}

void writeLock(uint64_t* address)
{
    Word word(*address);
    uint64_t seen = word.load(std::memory_order_relaxed);
    if (!enterAsWriter(word, seen, 0)) [[unlikely]] {
        waitAsWriter(address, seen);
    }
}

void writeUnlock(uint64_t* address)
{
    Word word(*address);
    uint64_t seen = word.load(std::memory_order_relaxed);
    while (!word.compare_exchange_weak(seen, afterWriter(seen), std::memory_order_release, std::memory_order_relaxed)) {
        hostileYield();
    }
    if ((seen & waitingReaders) != 0) [[unlikely]] {
        futexWake(readersHalf(address), INT32_MAX, false);
    } else if ((seen & waitingWriters) != 0) [[unlikely]] {
        futexWake(writersHalf(address), 1, false);
    }
}

} // namespace kor::platform
