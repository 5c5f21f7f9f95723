// executorInternal.h - what executors, runners, jobs, groups and the global executors share behind their public
// headers.

#pragma once

#include "korutil/korJobGroup.h"
#include "platform/cpu.h"

#include <atomic>

namespace kor {

/// The component of all statements of this room.
inline constexpr uint8_t executorComponent = 5;

/// What a runner's thread is at.
struct ActiveRunner {
    korExecutor* executor;
    korJob* job; // whose main function runs, or NULL
};

/// Makes the key under which a runner's thread finds what it is at. Called as the global executors open. Without the
/// key no thread is known for a runner.
void openActiveRunner(korEx* ex, uint8_t depth);
/// Gives the key back; jobs that run on see nothing of it.
void closeActiveRunner(uint8_t depth, korEx* ex);
/// Makes the calling thread that runner; NULL for none. Costs a read once it is known.
void keepActiveRunner(korEx* ex, uint8_t depth, ActiveRunner* runner);
/// The runner that the calling thread is, NULL if it is none: also while a job is freed or recycled.
const ActiveRunner* activeRunner();

/// Sets after how many milliseconds a job is reported. Code 10 "Cannot set Warn on task duration for an executor after
/// it has been started or stopped."; code 1 "Cannot set Warn on task duration to a negative value..". The value is
/// stored in all cases.
void _korExecutor_WarnOnTaskDuration(korEx* ex, uint8_t depth, korExecutor* executor, int64_t milliseconds);

/// The thread function of a runner; its argument is the executor.
uint64_t job_runner(void* argument);
/// Gives up a runner's record.
void _ThreadInfo_Release(uint8_t depth, korEx* ex, korThreadInfo* info);

/// Tells whoever waits for `job` that it has ended, or, with `done` false, that it was cancelled.
void _notifyJobGet(uint8_t depth, korEx* ex, korJob* job, bool done);
/// The same for a job of a group that has ended: it is mostly the group that is waited for.
void _notifyJobOfGroupGet(uint8_t depth, korEx* ex, korJob* job);
/// Tells a group that one of its jobs has ended, and reaps from its front if it is made so.
void _notifyGroupGet(uint8_t depth, korEx* ex, korJobGroup* group);

/// Makes a simple job with its creator's reference; NULL after a failure (code 2).
korJob* makeSimpleJob(korEx* ex, uint8_t depth, korSimpleFunction function, void* closure);
/// True for a job that the library made: nobody else holds the creator's reference.
bool isSimpleJob(const korJob* job);

/// Waits like _korCondition_TimedWait; the limit has 64 bits, all ones for none. True if the time ran out.
bool waitWithLimit(uint8_t depth, korEx* ex, korCondition* condition, korMutex* mutex, uint64_t timeout);

/// Of `korJob.runnerHas`: what a runner has to do with the job yet, whatever its state says.
enum RunnerHas : uint8_t { runnerHasNothing = 0, runnerTellsEnd = 1, runnerWillTake = 2 };

inline uint64_t stateOf(const korJob* job)
{
    return KOR_ATOMIC_LOAD(&job->state);
}

inline void setState(korJob* job, uint64_t state)
{
    KOR_ATOMIC_STORE(&job->state, state);
}

inline bool moveState(korJob* job, uint64_t from, uint64_t to)
{
    return std::atomic_ref(job->state).compare_exchange_strong(from, to);
}

inline uint64_t stateOf(const korExecutor* executor)
{
    return KOR_ATOMIC_LOAD(&executor->state);
}

inline void setState(korExecutor* executor, uint64_t state)
{
    KOR_ATOMIC_STORE(&executor->state, state);
}

/// Adds 1 to a counter, if there are counters and the type is one of theirs.
inline void countJob(uint64_t* const& counters, int32_t type)
{
    uint64_t* present = KOR_ATOMIC_LOAD_ACQUIRE(&counters);
    if (present != nullptr && static_cast<uint32_t>(type) < KOR_JOB_TYPES) {
        std::atomic_ref(present[type]).fetch_add(1, std::memory_order_relaxed);
    }
}

/// Waits for what another thread is about to do within a few instructions, if it is not held up.
template <typename Condition>
void spinUntil(Condition isTrue)
{
    constexpr int hints = 100;
    for (int round = 0; !isTrue(); round++) {
        if (round < hints) {
            platform::spinHint();
        } else {
            platform::yieldThread();
        }
    }
}

} // namespace kor
