/* Three threads come through a turnstile: a spinning lock around their count, a counter that the gatekeeper waits for.
 */
#include <korutil/korCountCondition.h>
#include <korutil/korFastLock.h>
#include <korutil/korThread.h>

#include <inttypes.h>
#include <stdio.h>

#define THREADS 3
#define TURNS 100000

typedef struct Turnstile {
    korFastLock* lock;
    uint64_t turns;             /* under the lock */
    korCountCondition finished; /* threads that are through */
} Turnstile;

static uint64_t walk(void* argument)
{
    Turnstile* turnstile = argument;
    korEx* ex = korEx_Create();
    for (int turn = 0; turn < TURNS; turn++) {
        korFastLock_acquire(turnstile->lock); /* free: one instruction; taken: it spins, gives way, then sleeps */
        turnstile->turns++;
        korFastLock_release(turnstile->lock);
    }
    _korCountCondition_Signal(KOR_AT_D(0, ex), &turnstile->finished);
    korEx_Destroy(ex);
    return 0;
}

int main(void)
{
    korEx* ex = korEx_Create();
    korThread* threads[THREADS];
    Turnstile turnstile = {_korFastLock_Create(KOR_AT_D(0, ex), 0), 0, {0}};
    _korCountCondition_Init(KOR_AT(ex, 0), &turnstile.finished);
    for (int i = 0; i < THREADS; i++) {
        threads[i] = _korThread_Create(KOR_AT(ex, 0), walk, &turnstile, 0, "walker");
    }
    if (korEx_GetErrorCode(ex) == 0) {
        _korCountCondition_Wait(KOR_AT_D(0, ex), &turnstile.finished, THREADS);
        printf("%" PRIu64 " turns\n", turnstile.turns);
    } else {
        korEx_Print(ex);
    }
    for (int i = 0; i < THREADS; i++) {
        _korThread_Join(KOR_AT(ex, 0), threads[i]);
        _korThread_Destroy(KOR_AT_D(0, ex), threads[i]);
    }
    _korFastLock_Destroy(KOR_AT_D(0, ex), turnstile.lock);
    korEx_Destroy(ex);
    return 0;
}
