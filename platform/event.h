// event.h - the auto-reset event: it is on or off, and one wait takes what one set has put there.
//
// A set that finds waiting threads goes to one of them and can be taken by no later one; a set that finds none stays
// until the next wait. The record is the 64-bit field of its owner: 0 = no event.

#pragma once

#include <cstdint>

namespace kor::platform {

inline constexpr uint32_t waitForEver = 0xFFFFFFFF;

bool eventCreate(uint64_t* event); ///< makes an event that is off; false, and a field of 0, if the system has none left
void eventClose(uint64_t* event);  ///< ends an event that no thread waits for; the field becomes 0
bool eventSet(uint64_t* event);    ///< puts it on; false if the field holds no event
bool eventReset(uint64_t* event);  ///< puts it off; false if the field holds no event

/// Waits until it is on, and puts it off, for at most `timeoutMs` milliseconds, `waitForEver` for no limit. 0 if it was
/// taken, errorTimedOut if the time ran out, another system error number if the wait failed.
int32_t eventWait(uint64_t* event, uint32_t timeoutMs);

/// The same in two steps, so that a thread can stand in line before it gives up what others need to set the event. Each
/// ticket is waited for once. (Windows knows no such line: there both steps happen in the second.)
uint64_t eventEnlist(uint64_t* event);
int32_t eventWaitEnlisted(uint64_t* event, uint64_t ticket, uint32_t timeoutMs);

} // namespace kor::platform
