// semaphore.h - binary semaphores, private to the process or shared by a name. They start at 0 and stop at 1.

#pragma once

#include <cstdint>

namespace kor::platform {

/// A semaphore's state. It lives with its owner and does not move while the semaphore is open.
struct Semaphore {
    uint64_t handle; ///< the system's handle; on Linux the address of the word that is waited for
    uint64_t own;    ///< what the backend needs beyond it
};

/// Makes a semaphore, or joins the one of that name; a NULL name is nobody else's. False with the system's error set.
bool openSemaphore(Semaphore* semaphore, const char* name);

/// Waits until it is 1 and makes it 0, for at most `timeoutMs` milliseconds, `waitForEver` for no limit. 0 if it was
/// taken, errorTimedOut if the time ran out, another system error number if the wait failed.
int32_t waitSemaphore(Semaphore* semaphore, uint32_t timeoutMs);

void releaseSemaphore(Semaphore* semaphore);                 ///< makes it 1 and wakes one who waits
void closeSemaphore(Semaphore* semaphore, const char* name); ///< `name` as at the opening; nobody waits any more

} // namespace kor::platform
