// korThreadPool.h - a fixed set of threads that all run one function with one closure.
//
// A pool has no queue and knows nothing of jobs: it starts its threads, asks them to stop through a function of its
// owner, and joins them. It goes through its states once: created, running, stopping, joined; or failed to start.
//
//     korThreadPool* pool = _korThreadPool_Create(KOR_AT(ex, depth), work, askToStop, queue, 5, "workers");
//     _korThreadPool_Start(KOR_AT(ex, depth), pool);
//     ...
//     _korThreadPool_Stop(KOR_AT_D(depth, ex), pool);
//     _korThreadPool_Join(KOR_AT_D(depth, ex), pool);
//     _korThreadPool_Release(KOR_AT_D(depth, ex), pool);

#ifndef KORUTIL_KORTHREADPOOL_H
#define KORUTIL_KORTHREADPOOL_H

#include "korutil/korMutex.h"
#include "korutil/korThread.h"

KOR_BEGIN_DECLS

/// Must make all threads of the pool return, without waiting for them. Called under the pool's mutex.
typedef void (*korThreadPoolStopFunction)(void* closure);

/// States of a pool.
enum {
    KOR_POOL_CREATED = 0,  ///< parameters may be set
    KOR_POOL_RUNNING = 1,  ///< its threads run
    KOR_POOL_STOPPING = 2, ///< they were asked to stop
    KOR_POOL_JOINED = 3,   ///< they have ended
    KOR_POOL_FAILED = 4    ///< not all of them could be started
};

/// The pool.
typedef struct korThreadPool {
    uint64_t refCount;                      ///< atomic
    int32_t maxSize;                        ///< threads; 4 after creation
    korThreadFunction threadMain;           ///< what every thread runs
    korThreadPoolStopFunction stopFunction; ///< called once, at the stop
    void* closure;                          ///< the argument of both; borrowed
    int32_t threadType;                     ///< for _korThread_Type
    korMutex* mutex;                        ///< guards what follows
    uint32_t state;                         ///< KOR_POOL_...
    korThread** threads;                    ///< `maxSize` entries, made at the start; NULL when joined
    char* name;                             ///< part of the threads' names
} korThreadPool;

/// Makes a pool of four threads, not started, with one reference. `name` is copied. NULL after a failure: code 2.
KOR_API korThreadPool* _korThreadPool_Create(korEx* ex, uint8_t depth, korThreadFunction threadMain,
                                             korThreadPoolStopFunction stopFunction, void* closure, int32_t threadType,
                                             const char* name);

/// Sets the number of threads; 0 is a pool of none. Code 10 "Cannot set thread pool parameters after start.".
KOR_API void _korThreadPool_SetMaxSize(korEx* ex, uint8_t depth, korThreadPool* pool, int32_t size);
/// The number of threads; 0 with an error pending.
KOR_API int32_t _korThreadPool_GetMaxSize(korEx* ex, uint8_t depth, korThreadPool* pool);

/// Starts the threads, named "tPool0.NAME thread 0 in pool" and so on. Code 10 "Cannot restart thread pool after
/// start."; code 2 and other errors of _korThread_Create: the pool has then failed, threads that were started run on,
/// and it is good only for being released. If there was no memory for the list of threads, its mutex stays entered,
/// too.
KOR_API void _korThreadPool_Start(korEx* ex, uint8_t depth, korThreadPool* pool);

/// Has the stop function called, under the pool's mutex, if the pool runs; else does nothing. NULL is accepted.
KOR_API void _korThreadPool_Stop(uint8_t depth, korEx* ex, korThreadPool* pool);

/// Waits until all threads have ended, and gives up their objects; a thread of the pool may call it, and is not waited
/// for. Code 10 "Cannot join a thread pool that is not stopped.". NULL is accepted.
KOR_API void _korThreadPool_Join(uint8_t depth, korEx* ex, korThreadPool* pool);

/// Adds a reference. Works with an error pending.
KOR_API void _korThreadPool_Retain(korEx* ex, uint8_t depth, korThreadPool* pool);
/// Drops a reference; the last one frees the pool, whose threads have ended or see to themselves. NULL is accepted.
KOR_API void _korThreadPool_Release(uint8_t depth, korEx* ex, korThreadPool* pool);

/// True if the caller is a thread of the pool; false for NULL. Takes no lock: the caller knows that nobody joins the
/// pool meanwhile.
KOR_API bool _korThreadPool_IsCurrentThreadInPool(uint8_t depth, korEx* ex, const korThreadPool* pool);

KOR_END_DECLS

#endif
