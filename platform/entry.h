// entry.h - how the library learns that a thread ends or that it is unloaded itself. What it then does stands in
// foundation/korLib.cpp.

#pragma once

namespace kor {

// Supplied by the library.

void threadEnds();     ///< called on a thread that has been watched, at its end; more than once if it is watched again
void libraryUnloads(); ///< called when the library leaves a process that goes on; not at the end of a process

namespace platform {

/// Has the end of the process told from an unloading; called as the library first takes what an unloading gives back.
/// Watching threads does it once more.
void watchEnd();
bool watchThreads();    ///< called once, before the first thread is watched; false if the system has no room
bool watchThisThread(); ///< has the calling thread's end told; false if the system has no room

/// Keeps the library in the process until its end, for threads that never leave it; false if the system refuses.
bool keepLoaded();

/// True if `function` is a part of the library itself, and not of a module that uses it.
bool isLibraryCode(const void* function);

} // namespace platform
} // namespace kor
