// poll.h - waiting for any of some handles, and polling any number of sockets.
//
// What fails gives false, or a negative number, and sets the last system error.

#pragma once

#include "korutil/korPoller.h"

namespace kor::platform {

inline constexpr int64_t noHandle = -1;

extern const int32_t errorInvalidHandle; ///< a handle that is none, or none any more

// ---- The event that interrupts a wait: on until it is reset ----

bool interruptOpen(int64_t* handle); ///< off at first
void interruptClose(int64_t handle);
void interruptSet(int64_t handle); ///< any thread
void interruptReset(int64_t handle);

extern const bool hasWakeCounter; ///< there is such a handle for a poll set, too
/// One that counts: each set lets a poll find it on, and each reset takes one set back. It is polled as a socket is.
bool wakeCounterOpen(int64_t* handle);

// ---- Any of some handles ----

inline constexpr uint32_t maxWaitHandles = 64;

/// What a wait has seen of each handle, if the system tells of all of them.
struct WaitView {
    int16_t seen[maxWaitHandles];
};

inline constexpr int32_t waitTimedOut = -1;
inline constexpr int32_t waitFailed = -2;

/// Waits until one of the handles is signalled, for `timeoutMs` milliseconds, -1 for ever. Gives the lowest index of a
/// signalled one, or one of the two above. `count` is 1 to 64.
int32_t waitForAny(const int64_t* handles, uint32_t count, int32_t timeoutMs, WaitView* view);

/// Interest in a socket.
inline constexpr uint32_t interestRead = 1;
inline constexpr uint32_t interestWrite = 2;

/// A handle that stands for a socket among the others; no two are equal.
bool networkHandleOpen(int64_t socket, uint32_t interest, int64_t* handle);
void networkHandleClose(int64_t handle);

// What has come up on a socket.
inline constexpr uint32_t cameReadable = 1;
inline constexpr uint32_t cameConnection = 2; ///< one to accept. (Linux does not tell it from the one above)
inline constexpr uint32_t cameWritable = 4;
inline constexpr uint32_t cameEnd = 8; ///< the connection is closed, by the other side or by a failure

/// Fetches what has come up on the socket of a network handle, which stood at `index` in the wait.
uint32_t networkEvents(int64_t handle, int64_t socket, const WaitView* view, uint32_t index);

// ---- Any number of sockets ----

/// One slot of a poll array. On Windows it is the system's own record.
using PollSlot = korPollFd;

/// Memory for a set, from its owner. `resize` gives null on a failure.
struct PollMemory {
    void* owner;
    void* (*resize)(void* owner, void* block, uint64_t size);
};

/// What a system keeps beside the slots. The owner frees the four blocks when the set is closed.
struct PollSet {
    int32_t* ready;       ///< the slots that the last wait found, in their order
    uint32_t readyCount;  ///< how many they are
    int64_t system;       ///< Linux: the epoll descriptor
    void* reports;        ///< Linux: what it reports
    int32_t* nextOf;      ///< Linux: for each slot the next one of the same socket
    int32_t* firstOf;     ///< Linux: for each socket its first slot, -1 = none
    uint32_t socketLimit; ///< Linux: sockets that `firstOf` has room for
};

bool pollSetOpen(PollSet* set); ///< a zeroed set, with no room yet
void pollSetClose(PollSet* set);
/// Makes room for `size` slots; false if there is no memory, and the set is as it was.
bool pollSetGrow(PollSet* set, uint32_t size, const PollMemory& memory);

enum class Placing { done, noMemory, failed };

/// Begins to poll a slot that has been filled. A socket that has been closed is no failure: nothing comes of it.
Placing pollSetPlace(PollSet* set, PollSlot* slots, int32_t slot, const PollMemory& memory);
/// Ends it, before the slot is freed. The socket may have been closed, and its number may be another's by now.
void pollSetRemove(PollSet* set, PollSlot* slots, int32_t slot);

/// Waits until something has come up, for `timeoutMs` milliseconds, -1 for ever. The slots concerned are in `ready`, in
/// ascending order; what came up is in their `returned`. False if the wait failed.
bool pollSetWait(PollSet* set, PollSlot* slots, uint32_t size, int32_t timeoutMs);

} // namespace kor::platform
