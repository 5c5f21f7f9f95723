/* Who gets which message: subscriptions with wildcards, and the questions of a router. */
#include <korutil/korTopicList.h>

#include <inttypes.h>
#include <stdio.h>

static const char* const readers[] = {"", "audit", "europe", "desk"};

static void route(korEx* ex, uint8_t depth, korTopicList* list, const char* topic)
{
    const korDpa* found = _korTopicList_Get(KOR_AT(ex, depth), list, topic);
    bool wanted[4] = {false, false, false, false};
    for (int32_t i = 0; found != NULL && i < found->count; i++) {
        wanted[found->items[i]] = true; /* the order of what is found is the list's own */
    }
    printf("%-18s", topic);
    for (int reader = 1; reader < 4; reader++) {
        printf(" %s", wanted[reader] ? readers[reader] : "-");
    }
    printf("\n");
}

int main(void)
{
    korEx* ex = korEx_Create();
    korTopicList* list = _korTopicList_CreatePooled(KOR_AT(ex, 0));
    _korTopicList_Insert(KOR_AT(ex, 0), list, "#", 1);
    _korTopicList_Insert(KOR_AT(ex, 0), list, "orders/eu/#", 2);
    _korTopicList_Insert(KOR_AT(ex, 0), list, "orders/+/new", 3);
    route(KOR_AT(ex, 0), list, "orders/eu/new");
    route(KOR_AT(ex, 0), list, "orders/us/new");
    route(KOR_AT(ex, 0), list, "orders/us/filled");
    _korTopicList_Remove(KOR_AT_D(0, ex), list, "orders/+/new", 3);
    route(KOR_AT(ex, 0), list, "orders/us/new");
    printf("%" PRIu32 " subscriptions are left\n", _korTopicList_Count(KOR_AT(ex, 0), list));
    _korTopicList_Destroy(KOR_AT_D(0, ex), list);
    int failed = korEx_GetErrorCode(ex) != 0;
    if (failed) {
        korEx_Print(ex);
    }
    korEx_Destroy(ex);
    return failed;
}
