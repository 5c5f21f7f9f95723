// korExecutor.h - work queues with runner threads of their own, built for low latency: jobs, their results, and the two
// executors of the library.
//
// A job is a small record with a state, a reference count and a main function, the caller's data behind it. It is
// handed over by _korJob_Run, and its end is fetched with _korJob_Get; or it is forgotten at the start with
// _korJob_RunAndForget. A main function reports failure by its korEx, and the runner keeps a copy with the job.
//
//     korExecutor* executor = _korExecutor_Create(KOR_AT(ex, depth));
//     _korExecutor_SetPoolSize(KOR_AT(ex, depth), executor, 2);
//     _korExecutor_Start(KOR_AT(ex, depth), executor);
//     _korJob_Init(KOR_AT(ex, depth), &order->job, 0, deliver, freeOrder);
//     _korJob_Run(KOR_AT(ex, depth), executor, &order->job);
//     uint8_t timedOut;
//     if (_korJob_Get(KOR_AT(ex, depth), &order->job, 1000, &timedOut) != NULL && order->job.exception != NULL)
//         ...                                          // deliver() failed, and this is why
//     _korJob_Release(KOR_AT_D(depth, ex), &order->job);
//     _korExecutor_Stop(KOR_AT_D(depth, ex), executor);
//     _korExecutor_Release(KOR_AT_D(depth, ex), executor);
//
// References of a job: its creator has the first. A run adds one for the caller's handle, which _korJob_Get or
// _korJob_Cancel drops, and one for the queue, which the runner drops. _korJob_RunAndForget gives up the handle's and
// the creator's, so that the runner's is the last.
//
// Any thread may call anything here, except where told otherwise. With an error pending the (ex, depth) functions do
// nothing, except where told otherwise.

#ifndef KORUTIL_KOREXECUTOR_H
#define KORUTIL_KOREXECUTOR_H

#include "korutil/korCondition.h"
#include "korutil/korFastQueue.h"
#include "korutil/korThreadPool.h"

KOR_BEGIN_DECLS

typedef struct korJob korJob;
typedef struct korExecutor korExecutor;
typedef struct korJobGroup korJobGroup;

/// No limit, for the waits that take milliseconds.
#define KOR_NO_TIMEOUT UINT64_MAX

/// Job types that are counted apart.
#define KOR_JOB_TYPES 4

/// States of an executor.
enum {
    KOR_EXECUTOR_CREATED = 0,
    KOR_EXECUTOR_RUNNING = 1,
    KOR_EXECUTOR_STOPPING = 2, ///< takes no job any more and empties its queue
    KOR_EXECUTOR_STOPPED = 3,
    KOR_EXECUTOR_FAILED = 4 ///< could not be started
};

/// States of a job.
enum {
    KOR_JOB_FREE = 0,
    KOR_JOB_INITIALIZED = 1, ///< may be run
    KOR_JOB_QUEUED = 2,
    KOR_JOB_RUNNING = 3,
    KOR_JOB_DONE = 4,      ///< may be fetched
    KOR_JOB_CANCELLED = 5, ///< was cancelled before it ran
    KOR_JOB_PROCESSED = 6  ///< was fetched, or forgotten and has ended
};

/// A job's work, or the freeing of its storage. The latter works with an error pending.
typedef void (*korJobFunction)(korEx* ex, uint8_t depth, korJob* job);
/// Takes a job back for reuse; true if it did.
typedef bool (*korJobRecycleFunction)(korEx* ex, uint8_t depth, korJob* job);
/// The work of a simple job.
typedef void (*korSimpleFunction)(korEx* ex, uint8_t depth, void* closure);

/// The head of every job. Written by the library alone.
struct korJob {
    korJob* next;                          ///< the queue's link
    uint64_t refCount;                     ///< atomic
    korJobFunction freeFunction;           ///< frees the storage when the last reference goes
    korJobFunction mainFunction;           ///< the work
    korJobRecycleFunction recycleFunction; ///< NULL, or takes the job back when the last reference goes
    korEx* exception;                      ///< copy of the work's failure, or NULL; the job's own
    int32_t type;                          ///< 0 to KOR_JOB_TYPES - 1: which counters
    korJobGroup* group;                    ///< NULL, or holds a reference
    uint64_t state;                        ///< atomic: KOR_JOB_...
    korMutex* mutex;                       ///< made by the first waiter
    korCondition* condition;               ///< made by the first waiter
    korExecutor* executor;                 ///< from the run on; holds a reference
    uint64_t waitState;                    ///< atomic: the hand-shake between the waiter and the runner
    uint8_t runAndForget;                  ///< 1 = nobody will fetch it
    uint8_t runnerHas;                     ///< atomic: 1 = the runner still tells of the end, 2 = a queue holds the job
};

/// A job of a function and a closure, which the library makes and frees.
typedef struct korSimpleJob {
    korJob job;
    void* closure;
    korSimpleFunction function;
} korSimpleJob;

/// What an executor keeps of one runner.
typedef struct korThreadInfo {
    uint64_t refCount;       ///< atomic
    uint8_t wake;            ///< ends a sleep
    uint8_t kill;            ///< ends all sleep
    korMutex* mutex;         ///< guards the two and the sleep
    korCondition* condition; ///< the runner sleeps here
    uint64_t sleepState;     ///< atomic: 0 awake, 1 about to sleep or asleep, 2 being woken
} korThreadInfo;

/// The executor. Written by the library alone.
struct korExecutor {
    uint64_t refCount;            ///< atomic; each runner, job and group holds one
    uint8_t isGlobal;             ///< 1 for the library's own two
    uint64_t state;               ///< atomic: KOR_EXECUTOR_...
    korThreadPool* threadPool;    ///< the runners' threads
    uint32_t poolSize;            ///< runners; 4 after creation
    int32_t spinCount;            ///< atomic: empty polls of the queue before a runner sleeps
    korThreadInfo** threadInfos;  ///< one for each runner, made at the start
    uint64_t nextThreadIndex;     ///< runners that have registered
    int64_t warnOnTaskDur;        ///< milliseconds after which a job is reported; 0 = never
    korMutex* mutex;              ///< guards the start, the stop and the settings
    korCondition* startCondition; ///< one more runner has registered
    korFastQueue* jobQueue;       ///< jobs that are ready
    uint64_t idleCount;           ///< atomic: runners asleep, or about to be
    uint64_t runsInProgress;      ///< atomic: calls of _korJob_Run under way
    korCondition* idleCondition;  ///< signalled when a runner goes to sleep
    korMutex* idleMutex;          ///< guards the rise of `idleCount`
    uint64_t* startCounts;        ///< atomic: by job type, or NULL while nothing is counted
    uint64_t* finishCounts;       ///< the same
    uint64_t* cancelCounts;       ///< the same
    uint64_t* counterStore;       ///< where the three lie; kept as long as the executor
};

// ---- Executors ------------------------------------------------------------------------------------------------------

/// Makes an executor with one reference, four runners and a spin count of 0, not started. NULL after a failure: code 2.
KOR_API korExecutor* _korExecutor_Create(korEx* ex, uint8_t depth);

/// Adds a reference. NULL is accepted. Works with an error pending.
KOR_API void _korExecutor_Retain(uint8_t depth, korEx* ex, korExecutor* executor);
/// Drops a reference; true if that was the last one, and the executor is gone. One that runs is kept by its runners:
/// stop it first. NULL is accepted.
KOR_API bool _korExecutor_Release(uint8_t depth, korEx* ex, korExecutor* executor);

/// Starts the runners and returns when all of them stand ready. Code 10: "Illegal to call _korExecutor_Start on a
/// global executor", "Cannot restart an executor after start."; code 2 and other errors of _korThread_Create: the
/// executor has then failed for good.
KOR_API void _korExecutor_Start(korEx* ex, uint8_t depth, korExecutor* executor);

/// Takes no more jobs, runs all that are queued, and waits for the runners. A runner may call it while the library is
/// open, and is not waited for: if it is the last one left, it runs what is queued when it comes back to it. Does
/// nothing unless the executor runs. NULL is accepted.
KOR_API void _korExecutor_Stop(uint8_t depth, korEx* ex, korExecutor* executor);

/// Sets the number of runners. Code 10 "Cannot set the pool size for an executor after it has been started or
/// stopped."; code 1 "Cannot set the pool size to 0. Create an executor with no thread pool instead.".
KOR_API void _korExecutor_SetPoolSize(korEx* ex, uint8_t depth, korExecutor* executor, int32_t size);

/// Sets how many times a runner finds the queue empty before it sleeps: more is less latency and more processor time.
/// A runner takes it over when it next goes to sleep.
KOR_API void _korExecutor_SetSpinCount(korEx* ex, uint8_t depth, korExecutor* executor, int32_t count);

/// Turns the counting of started, finished and cancelled jobs on, from 0 each unless it is on already, or off. Code 2.
KOR_API void _korExecutor_SetCountersEnabled(korEx* ex, uint8_t depth, korExecutor* executor, bool enabled);
/// Jobs of a type handed over; 0 if nothing is counted, and for a type that there is not.
KOR_API uint64_t _korExecutor_StartCountForType(korEx* ex, uint8_t depth, korExecutor* executor, uint32_t type);
/// Jobs of a type that have run; otherwise the same.
KOR_API uint64_t _korExecutor_FinishCountForType(korEx* ex, uint8_t depth, korExecutor* executor, uint32_t type);
/// Jobs of a type that were cancelled; otherwise the same.
KOR_API uint64_t _korExecutor_CancelCountForType(korEx* ex, uint8_t depth, korExecutor* executor, uint32_t type);

/// Runs `function(closure)` on the library's executor for internal work, and forgets it. Code 2; errors of _korJob_Run
/// (that of an executor that does not run, if the library is not open) and of _korExecutor_GetGlobal.
KOR_API void _korExecutor_RunSimpleTask(korEx* ex, uint8_t depth, korSimpleFunction function, void* closure);
/// The same on the library's executor for users' code.
KOR_API void _korExecutor_RunSimpleUserTask(korEx* ex, uint8_t depth, korSimpleFunction function, void* closure);

// ---- Jobs -----------------------------------------------------------------------------------------------------------

/// Makes the head of a job of the caller's storage: one reference, ready to be run.
KOR_API void _korJob_Init(korEx* ex, uint8_t depth, korJob* job, int32_t type, korJobFunction mainFunction,
                          korJobFunction freeFunction);
/// The same for a job that `recycleFunction` takes back when its last reference goes: the job is then ready to be run
/// and has one reference, which is that function's. If it gives false the job is freed.
KOR_API void _korJob_Recyclable(korEx* ex, uint8_t depth, korJob* job, int32_t type, korJobFunction mainFunction,
                                korJobRecycleFunction recycleFunction, korJobFunction freeFunction);

/// Makes a job that was fetched ready to be run again. Code 10 "Illegal to call _korJob_Reset() on a job that has not
/// been fully processed": so is one that was cancelled and forgotten as long as it is in the queue.
KOR_API void _korJob_Reset(korEx* ex, uint8_t depth, korJob* job);

/// Adds a reference. NULL is accepted. Works with an error pending.
KOR_API void _korJob_Retain(uint8_t depth, korEx* ex, korJob* job);
/// Drops a reference; true if the storage is gone. NULL is accepted.
KOR_API bool _korJob_Release(uint8_t depth, korEx* ex, korJob* job);

/// Queues a job and gives it, with a reference for the caller's handle; NULL after a failure, with the job ready as
/// before. Code 10: "Executor is not running, is stopping or has been stopped" (also for a NULL executor), "Job is not
/// initialized".
KOR_API korJob* _korJob_Run(korEx* ex, uint8_t depth, korExecutor* executor, korJob* job);

/// Queues a job that nobody will fetch, and drops the creator's reference, also if that fails or if an error is
/// pending. True if that ended the job. Errors of _korJob_Run.
KOR_API bool _korJob_RunAndForget(korEx* ex, uint8_t depth, korExecutor* executor, korJob* job);

/// Waits until a job has ended, for at most `timeout` milliseconds (KOR_NO_TIMEOUT: as long as it takes; 49 days is the
/// longest limit), drops the handle's reference and gives the job, or NULL if that was its last one. How its work
/// ended: _korJob_GetException. If the time runs out: NULL and `*timedOut` 1, and the job may be waited for again; with
/// a limit
/// `*timedOut` is 0 otherwise, without one it is not touched. One thread waits for a job.
///
/// NULL and code 10: "Job has been cancelled", with the handle's reference dropped by the cancel; "Job is not in the
/// right state" for one that was not run, was fetched already or has another waiter. NULL and code 2, with the handle's
/// reference dropped.
KOR_API korJob* _korJob_Get(korEx* ex, uint8_t depth, korJob* job, uint64_t timeout, uint8_t* timedOut);

/// The job that this thread runs now; NULL on a thread that runs none, and while the library is not open. Does not look
/// at `ex`.
KOR_API korJob* _korJob_GetActiveJob(korEx* ex);

/// The failure of the job's work, which stays the job's; NULL for none, for a NULL job and with an error pending.
KOR_API korEx* _korJob_GetException(korEx* ex, uint8_t depth, korJob* job);

/// Keeps a queued job from running, drops the handle's reference, and gives the job, or NULL if that was its last one.
/// A job that runs or has ended stays as it is: NULL, and if `dropReference` is 1 the handle's reference is dropped all
/// the same. NULL is accepted. Code 10 "The job is not in the right state" for one that was not run. A job of a group
/// is cancelled through its group.
KOR_API korJob* _korJob_Cancel(korEx* ex, uint8_t depth, korJob* job, uint8_t dropReference);

/// True if the job was cancelled before it ran.
KOR_API bool _korJob_IsCancelled(korEx* ex, uint8_t depth, korJob* job);

// ---- The library's own executors ------------------------------------------------------------------------------------
//
// The environment variable KOR_EXEC_CONF, read as the library opens, sets them up:
//
//     giExecutor=8,1000,guExecutor=2,500,warnOnTaskDur=100
//
// gives "giExecutor" 8 runners and a spin count of 1000, "guExecutor" 2 and 500, and has jobs of both reported that
// take more than 100 milliseconds. Order is free, each piece may be left out, and what is not recognised is passed
// over; "help" anywhere prints the grammar. What was found is printed to standard output.

/// Makes the two executors: "giExecutor" with 4 runners for internal work and "guExecutor" with 1 for users' code, as
/// KOR_EXEC_CONF says. Called as the library starts.
KOR_API void _korExecutor_Open(korEx* ex, uint8_t depth);
/// Runs what is queued, stops the two and ends them. Called as the library stops. Works with an error pending.
KOR_API void _korExecutor_Close(korEx* ex, uint8_t depth);

/// "giExecutor" with a reference for the caller. NULL if the library is not open; NULL and code 9 without description
/// while it closes.
KOR_API korExecutor* _korExecutor_GetGlobal(uint8_t depth, korEx* ex);
/// The same for "guExecutor".
KOR_API korExecutor* _korExecutor_GetGlobalUser(uint8_t depth, korEx* ex);

/// True if the caller is a runner of either.
KOR_API bool _korExecutor_IsCurrentThreadInAnyGlobalExecutor(uint8_t depth, korEx* ex);

/// Waits until all runners of both sleep; not for a caller's own executor. Gives up when no runner has gone to sleep
/// for a minute. Reports nothing.
KOR_API void _korExecutor_DrainGlobalExecutors(uint8_t depth, korEx* ex);

KOR_END_DECLS

#endif
