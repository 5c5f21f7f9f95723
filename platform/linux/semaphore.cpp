// semaphore.cpp (Linux) - a futex word, in the owner's state or in a shared-memory file.
//
// Bit 0 of the word is the semaphore, the bits above count those who wait. The count only saves the wake-up when nobody
// does: one that a crashed process has left behind costs a system call for each release, and nothing else.

#include "platform/semaphore.h"

#include "foundation/hostile.h"
#include "platform/error.h"
#include "platform/event.h"
#include "platform/linux/futex.h"
#include "platform/linux/sharedfile.h"

#include <atomic>
#include <sys/mman.h>

namespace kor::platform {
namespace {

constexpr const char* prefix = "kor.sem.";
constexpr uint32_t available = 1;
constexpr uint32_t oneWaiter = 2;

using Word = std::atomic_ref<uint32_t>;

uint32_t* wordOf(const Semaphore* semaphore)
{
    return reinterpret_cast<uint32_t*>(semaphore->handle);
}

// A shared word needs the costlier form of the futex.
bool isShared(const Semaphore* semaphore)
{
    return semaphore->handle != reinterpret_cast<uint64_t>(&semaphore->own);
}

bool openShared(Semaphore* semaphore, const char* name)
{
    SharedFile file;
    if (!openSharedFile(&file, prefix, name, sizeof(uint32_t))) {
        return false;
    }
    void* word = MAP_FAILED;
    if (file.size < sizeof(uint32_t)) {
        errno = EINVAL; // a stranger's file
    } else {
        word = mmap(nullptr, sizeof(uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED, file.descriptor, 0);
    }
    if (word == MAP_FAILED) {
        closeSharedFile(file.descriptor, prefix, name);
        return false;
    }
    semaphore->handle = reinterpret_cast<uint64_t>(word);
    semaphore->own = static_cast<uint64_t>(file.descriptor);
    return true;
}

// Takes the semaphore if it is there, along with what this waiter has added to the word.
bool take(Word word, uint32_t& seen, uint32_t queued)
{
    while ((seen & available) != 0) {
        if (word.compare_exchange_weak(seen, (seen & ~available) - queued)) {
            return true;
        }
    }
    return false;
}

} // namespace

bool openSemaphore(Semaphore* semaphore, const char* name)
{
    if (name != nullptr) {
        return openShared(semaphore, name);
    }
    semaphore->handle = reinterpret_cast<uint64_t>(&semaphore->own);
    semaphore->own = 0;
    return true;
}

int32_t waitSemaphore(Semaphore* semaphore, uint32_t timeoutMs)
{
    uint32_t* address = wordOf(semaphore);
    Word word(*address);
    uint32_t seen = word.load();
    if (take(word, seen, 0)) {
        return 0;
    }
    if (timeoutMs == 0) {
        return errorTimedOut;
    }
    Deadline deadline(timeoutMs);
    seen = word.fetch_add(oneWaiter) + oneWaiter;
    for (int32_t result = 0; !take(word, seen, oneWaiter); seen = word.load()) {
        if (result == ETIMEDOUT) {
            word.fetch_sub(oneWaiter);
            return errorTimedOut;
        }
        hostileYield();
        result = futexWait(address, seen, deadline.remaining(), isShared(semaphore));
    }
    return 0;
}

// Wakes even if the semaphore was there already: a process that was woken may have ended before it took it.
void releaseSemaphore(Semaphore* semaphore)
{
    uint32_t* address = wordOf(semaphore);
    uint32_t before = Word(*address).fetch_or(available);
    hostileYield();
    if (before >= oneWaiter) {
        futexWake(address, 1, isShared(semaphore));
    }
}

void closeSemaphore(Semaphore* semaphore, const char* name)
{
    if (name != nullptr) {
        munmap(wordOf(semaphore), sizeof(uint32_t));
        closeSharedFile(static_cast<int>(semaphore->own), prefix, name);
    }
}

} // namespace kor::platform
