/* An executor with two threads: a job whose failure comes back to who waits for it, and a timer that beats on it. */
#include <korutil/korExecutor.h>
#include <korutil/korSemaphore.h>
#include <korutil/korTimer.h>

#include <stdio.h>

#define BEATS 3

typedef struct Heart {
    korSemaphore* done;
    int beats;
} Heart;

static void beat(korEx* ex, uint8_t depth, korTimer* timer, uint64_t task, void* closure)
{
    Heart* heart = closure;
    (void)timer;
    (void)task;
    if (++heart->beats == BEATS) {
        _korSemaphore_Release(KOR_AT_D(depth, ex), heart->done);
    }
}

static void deliver(korEx* ex, uint8_t depth, korJob* job)
{
    (void)job;
    KOR_RAISE(ex, depth, KOR_ERROR_NOT_FOUND, "nobody at home");
}

static void keep(korEx* ex, uint8_t depth, korJob* job) /* the job lies on the stack of main */
{
    (void)ex;
    (void)depth;
    (void)job;
}

/* The executor and its runners hold no reference once the job was fetched, so the stack can go. */
static void runJob(korEx* ex, uint8_t depth, korExecutor* executor)
{
    korJob job;
    uint8_t timedOut;
    _korJob_Init(KOR_AT(ex, depth), &job, 0, deliver, keep);
    if (_korJob_Run(KOR_AT(ex, depth), executor, &job) == NULL) {
        return;
    }
    if (_korJob_Get(KOR_AT(ex, depth), &job, KOR_NO_TIMEOUT, &timedOut) != NULL && job.exception != NULL) {
        printf("not delivered: %s\n", job.exception->description);
    }
    _korJob_Release(KOR_AT_D(depth, ex), &job);
}

static void hear(korEx* ex, uint8_t depth, korExecutor* executor, Heart* heart)
{
    korTimer* timer = _korTimer_Create(KOR_AT(ex, depth), executor, "heart");
    _korTimer_Start(KOR_AT(ex, depth), timer);
    _korTimer_ScheduleTask(KOR_AT(ex, depth), timer, beat, NULL, heart, 1, 2);
    _korSemaphore_WaitOn(KOR_AT(ex, depth), heart->done);
    _korTimer_Stop(KOR_AT_D(depth, ex), timer);
    _korTimer_Release(KOR_AT_D(depth, ex), timer);
}

int main(void)
{
    Heart heart = {NULL, 0};
    korEx* ex = korEx_Create();
    heart.done = _korSemaphore_CreateUnnamed(KOR_AT(ex, 0));
    korExecutor* executor = _korExecutor_Create(KOR_AT(ex, 0));
    _korExecutor_SetPoolSize(KOR_AT(ex, 0), executor, 2);
    _korExecutor_Start(KOR_AT(ex, 0), executor);
    runJob(KOR_AT(ex, 0), executor);
    hear(KOR_AT(ex, 0), executor, &heart);
    _korExecutor_Stop(KOR_AT_D(0, ex), executor);
    _korExecutor_Release(KOR_AT_D(0, ex), executor);
    _korSemaphore_Destroy(KOR_AT_D(0, ex), heart.done);
    int failed = korEx_GetErrorCode(ex) != 0;
    if (failed) {
        korEx_Print(ex);
    } else {
        printf("it beats\n");
    }
    korEx_Destroy(ex);
    return failed;
}
