// thread.h - the system's threads: start with a stack size, join, give up, number, and the name that a debugger shows.

#pragma once

#include <cstdint>

namespace kor::platform {

/// A thread's first routine; the result is for the system alone.
using ThreadRoutine = uint32_t (*)(void* argument);

/// Starts a thread. `stackSize` is in bytes, rounded up to what the system can do, 0 for its default. False if the
/// system starts none. `*id` is set when the call returns, whatever the thread is doing by then.
bool threadStart(ThreadRoutine routine, void* argument, uint32_t stackSize, void** handle, uint32_t* id);

/// Waits until the thread has ended, its thread-local destructors included. Any number of threads may do so, any number
/// of times.
void threadJoin(void** handle);

/// Gives the handle up. The thread may be running, and goes on.
void threadClose(void** handle);

/// True if the caller is this thread. `handle` and `id` are from threadStart; the handle has not been given up.
bool threadIsCurrent(void** handle, uint32_t id);

uint32_t threadId();               ///< the system's number of the calling thread
void threadName(const char* name); ///< tells the system's debugger the calling thread's name, as far as it cares

/// The running program's file name without its path, terminated; false if the system does not tell.
bool programName(char* buffer, uint32_t size);

} // namespace kor::platform
