/* Records that come and go all day, from a pool: the memory of a busy minute serves the whole day. */
#include <korutil/korPool.h>

#include <inttypes.h>
#include <stdio.h>

typedef struct Order {
    uint64_t number;
    char customer[40];
} Order;

/* Takes orders in and finishes them, so many at a time. */
static void work(korEx* ex, uint8_t depth, korPool* orders, int32_t atATime)
{
    korDpa open;
    _korDpa_Init(KOR_AT(ex, depth), &open, atATime);
    for (int32_t i = 0; i < atATime; i++) {
        Order* order = _korPool_Get(KOR_AT(ex, depth), orders);
        if (order == NULL) {
            break;
        }
        order->number = (uint64_t)i;
        _korDpa_AddSafe(KOR_AT(ex, depth), &open, (uint64_t)(uintptr_t)order);
    }
    for (int32_t i = 0; i < open.count; i++) {
        _korPool_Return(KOR_AT_D(depth, ex), orders, (void*)(uintptr_t)open.items[i]);
    }
    _korDpa_Clear(KOR_AT_D(depth, ex), &open);
}

int main(void)
{
    korEx* ex = korEx_Create();
    korPool* orders = _korPool_Create(KOR_AT(ex, 0), 100, sizeof(Order), NULL, NULL, 1, 10);
    if (orders != NULL) {
        uint32_t chunks;
        for (int minute = 0; minute < 1000; minute++) {
            work(KOR_AT(ex, 0), orders, 250);
        }
        uint32_t bytes = _korPool_Memory(orders, &chunks, NULL);
        printf("250000 orders in %" PRIu32 " records, %" PRIu32 " bytes\n", chunks, bytes);
    }
    int failed = korEx_GetErrorCode(ex) != 0;
    if (failed) {
        korEx_Print(ex);
    }
    _korPool_Destroy(KOR_AT_D(0, ex), orders);
    korEx_Destroy(ex);
    return failed;
}
