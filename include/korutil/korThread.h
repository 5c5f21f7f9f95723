// korThread.h - threads with a name, a type, a serial number and a core, and the once-control that works without any
// preparation.
//
// Recipe of use:
//
//     korThread* thread = _korThread_Create(KOR_AT(ex, depth), work, argument, 0, "tWork - does the work");
//     uint64_t result = _korThread_Join(KOR_AT(ex, depth), thread);
//     _korThread_Destroy(KOR_AT_D(depth, ex), thread);
//
// Joining and destroying do not depend on each other: a thread's object may be destroyed while the thread runs, and the
// thread keeps what it needs until its end.

#ifndef KORUTIL_KORTHREAD_H
#define KORUTIL_KORTHREAD_H

#include "korutil/korMutex.h"

KOR_BEGIN_DECLS

/// A thread's main routine. Errors are its own to handle; what it gives back is what _korThread_Join gives.
typedef uint64_t (*korThreadFunction)(void* argument);

/// Wraps the main routine of every thread that the library starts: it calls `function(argument)` itself, and what it
/// gives back is the thread's result.
typedef uint64_t (*korThreadHook)(korThreadFunction function, void* argument);

/// What the creator's object and the running thread share; the last of the two frees it.
typedef struct korThreadStart {
    uint64_t refCount; ///< atomic: 2 while both sides live
    korThreadFunction function;
    void* argument;
    uint64_t result; ///< of `function`
    int32_t type;    ///< the creator's number
    char* name;      ///< the thread's own copy of the name
} korThreadStart;

/// The object that the creator of a thread holds.
typedef struct korThread {
    void* handle;      ///< atomic: the system's handle, until _korThread_Destroy
    uint32_t threadId; ///< the system's number of the thread
    char* name;        ///< the object's own copy of the name
    korThreadStart* start;
} korThread;

/// A once-control: a zeroed record is ready for use, so it can be a plain static.
typedef struct korThreadOnce {
    uint64_t state; ///< atomic: 0 = not begun, 1 = being claimed, 2 = running, 3 = done
    korMutex lock;  ///< what latecomers wait for
} korThreadOnce;

/// A once-control's routine. It makes its own exception object, and its failures stay in it.
typedef void (*korThreadOnceRoutine)(void);

// ---- The module -----------------------------------------------------------------------------------------------------

/// Starts the module: the thread-local store and this family's keys. Opening the library does it, and so does the first
/// _korThread_Create; there is no stop. With an error pending it does nothing.
KOR_API void _korThread_InitThreads(korEx* ex, uint8_t depth);

/// Runs `routine` if no call on this control has done so yet. Whoever comes while it runs sleeps until it is done: no
/// caller returns before that. With an error pending it does nothing. A routine that comes back to its own control
/// waits for itself for ever.
KOR_API void _korThread_Once(korEx* ex, uint8_t depth, korThreadOnce* once, korThreadOnceRoutine routine);

/// Has every thread that is created from now on started through `hook`; NULL ends that. Meant to be called before the
/// first thread starts; there is no lock.
KOR_API void _korThread_SetGlobalHook(korThreadHook hook);

// ---- Objects --------------------------------------------------------------------------------------------------------

/// Starts a thread on `function(argument)`. `type` is a number for _korThread_Type; `name` is copied. The environment
/// variable KOR_THREAD_STACK_SIZE, in bytes, gives the size of its stack; unset, not a number or not above 0, it is the
/// system's default. NULL with an error pending, and on a failure, without a description: code 1 for no function or no
/// name, 2 without memory, 5 if the system starts no thread. Ended with _korThread_Destroy.
KOR_API korThread* _korThread_Create(korEx* ex, uint8_t depth, korThreadFunction function, void* argument, int32_t type,
                                     const char* name);

/// The same in a caller's storage, the thread's object: `size` bytes, at least those of a korThread, else code 1, as
/// for no storage at all; they are zeroed first. Such an object may be joined. It must not be destroyed, and the few
/// bytes that it refers to stay in use.
KOR_API void _korThread_CreateInBuffer(korEx* ex, uint8_t depth, korThread* buffer, int32_t type, uint32_t size,
                                       korThreadFunction function, void* argument, const char* name);

/// Waits until the thread has ended, its thread-local destructors included, and gives what its main routine gave. The
/// object stays valid, and may be joined again, from any thread. With an error pending it gives 0 at once. Error: 1, no
/// description, for NULL and for the thread itself, which would wait for ever.
KOR_API uint64_t _korThread_Join(korEx* ex, uint8_t depth, korThread* thread);

/// Gives up the object of _korThread_Create; the thread may still be running and goes on. No other thread may be using
/// the object. NULL is accepted.
KOR_API void _korThread_Destroy(uint8_t depth, korEx* ex, korThread* thread);

/// Does nothing: a thread runs to its end whether or not it is joined, and _korThread_Destroy gives up the object.
KOR_API void _korThread_Detach(korEx* ex, uint8_t depth, korThread* thread);

/// True if the caller runs on this thread. NULL gives false.
KOR_API bool _korThread_IsCurrentThread(const korThread* thread);

// ---- The calling thread ---------------------------------------------------------------------------------------------

/// Names the calling thread, for exceptions and for the system's debugger. The text is not copied and must outlive the
/// thread. Code 1 "Thread Local Store key not valid" before the module has started; the debugger is told all the same.
KOR_API void _korThread_SetCurrentName(korEx* ex, uint8_t depth, const char* name);

/// The calling thread's name: what it was given, else the program's name; "Unnamed" before the module has started. The
/// text is nobody's to free and stays valid as long as the name itself.
KOR_API void _korThread_GetCurrentName(uint8_t depth, korEx* ex, const char** name);

/// The program's file name without its path, found once; "Unnamed" if the system does not tell. Always the same text,
/// nobody's to free. NULL if it is not known yet and an error is pending or raised: code 2 (no description).
KOR_API void _korThread_GetProgname(uint8_t depth, korEx* ex, const char** name);

/// The calling thread's serial number: 1 and up in the order of asking, the same for all of the thread's life, never
/// used again. 0 on an error: that of _korThreadLocal_Set.
KOR_API uint64_t _korThread_Current(korEx* ex, uint8_t depth);

/// The type number that the calling thread was created with; 0 if there is none.
KOR_API int32_t _korThread_Type(void);

/// The system's number of the calling thread.
KOR_API uint32_t _korThread_CurrentSystemThreadID(void);

/// What _korAffinity_MigrateThisThread gave when the calling thread was started; 0 if there is nothing.
KOR_API int64_t _korCurrentThread_GetCoreAssignment(void);

KOR_END_DECLS

#endif
