/* Two threads hand numbers to a third through a ring: many producers, one consumer, no lock. */
#include <korutil/korRQueue.h>
#include <korutil/korThread.h>
#include <korutil/korTime.h>

#include <inttypes.h>
#include <stdio.h>

#define COUNT 100000u

static uint64_t produce(void* argument)
{
    korRQueue* ring = argument;
    for (uint64_t number = 1; number <= COUNT;) {
        if (_korRQueue_Push(ring, number) == KOR_RQUEUE_DONE) {
            number++;
        } else {
            _kor_Sleep(0); /* full, or lost to the other producer */
        }
    }
    return 0;
}

static uint64_t consume(korRQueue* ring, uint64_t values)
{
    uint64_t sum = 0;
    while (values > 0) {
        uint64_t value = _korRQueue_SeqPop(ring);
        if (value != 0) {
            sum += value;
            values--;
        } else {
            _kor_Sleep(0);
        }
    }
    return sum;
}

int main(void)
{
    korEx* ex = korEx_Create();
    korRQueue* ring = _korRQueue_Create(KOR_AT(ex, 0), 1024);
    korThread* first = _korThread_Create(KOR_AT(ex, 0), produce, ring, 0, "first");
    korThread* second = _korThread_Create(KOR_AT(ex, 0), produce, ring, 0, "second");
    int failed = korEx_GetErrorCode(ex) != 0;
    if (failed) {
        korEx_Print(ex);
        return failed; /* the process ends, and with it a thread that is waiting for a partner */
    }
    printf("sum %" PRIu64 "\n", consume(ring, 2 * (uint64_t)COUNT));
    _korThread_Join(KOR_AT(ex, 0), first);
    _korThread_Join(KOR_AT(ex, 0), second);
    _korThread_Destroy(KOR_AT_D(0, ex), first);
    _korThread_Destroy(KOR_AT_D(0, ex), second);
    _korRQueue_Destroy(KOR_AT_D(0, ex), ring);
    korEx_Destroy(ex);
    return 0;
}
