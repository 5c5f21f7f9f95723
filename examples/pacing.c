/* Packets at a steady pace: each fires 300 microseconds after the one before, on a thread that is lent to the timer. */
#include <korutil/korHrTimer.h>

#include <stdio.h>

#define PACKETS 5
#define GAP 0.0003

static void send(korEx* ex, uint8_t depth, uint64_t id, void* argument, void* closure)
{
    korHrTimer* timer = closure;
    int* sent = argument;
    (void)id;
    printf("packet %d\n", ++*sent);
    if (*sent < PACKETS) {
        _korHrTimer_Arm(KOR_AT(ex, depth), timer, GAP, send, argument, closure);
    } else {
        _korHrTimer_Shutdown(KOR_AT_D(depth, ex), timer);
    }
}

int main(void)
{
    int sent = 0;
    korEx* ex = korEx_Create();
    korHrTimer* timer = _korHrTimer_Create(KOR_AT(ex, 0));
    uint64_t never = _korHrTimer_Arm(KOR_AT(ex, 0), timer, 60, send, &sent, timer);
    _korHrTimer_Arm(KOR_AT(ex, 0), timer, GAP, send, &sent, timer);
    if (korEx_GetErrorCode(ex) == 0) {
        printf("%s\n", _korHrTimer_Cancel(KOR_AT_D(0, ex), timer, never) ? "one taken back" : "too late");
        korMutex_enter(timer->mutex);
        _korHrTimer_ProcessTimers(KOR_AT(ex, 0), timer);
        korMutex_leave(timer->mutex);
    }
    _korHrTimer_Destroy(KOR_AT_D(0, ex), timer);
    int failed = korEx_GetErrorCode(ex) != 0;
    if (failed) {
        korEx_Print(ex);
    }
    korEx_Destroy(ex);
    return failed;
}
