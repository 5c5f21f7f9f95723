/* A point that fails when a test asks for it: at every third check, twice; and the second try that makes up for it. */
#include <korutil/korFailures.h>
#include <korutil/korLib.h>

static void store(korEx* ex, uint8_t depth, int number)
{
    if (fmInitialized != 0 && _korFailures_Check(KOR_AT(ex, depth), "store.write")) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_FILE_IO, "write %d failed", number);
    }
}

/* Tries again once; a second failure would be the caller's. */
static void storeSafely(korEx* ex, uint8_t depth, int number)
{
    KOR_EX_PRIVATE(attempt, ex, depth);
    store(KOR_AT(&attempt, depth), number);
    if (attempt.code != 0) {
        printf("%s: trying again\n", attempt.description);
        store(KOR_AT(ex, depth), number);
    }
}

int main(void)
{
    korEx* ex = korEx_Create();
    _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
    _korFailures_Open(KOR_AT(ex, 0), "buf:{\"failures\":[{\"name\":\"store.write\",\"interval\":3,"
                                     "\"num_of_failures\":2,\"skip\":true}]}");
    for (int number = 1; number <= 10; number++) {
        storeSafely(KOR_AT(ex, 0), number);
    }
    int failed = korEx_GetErrorCode(ex) != 0;
    if (failed) {
        korEx_Print(ex);
    } else {
        printf("all are stored\n");
    }
    _korutil_Close(KOR_AT_D(0, ex));
    korEx_Destroy(ex);
    return failed;
}
