/* Loads a configuration through five functions; the innermost fails, and the trace tells the road. */
#include <korutil/korEx.h>

static void readValue(korEx* ex, uint8_t depth, const char* key)
{
    KOR_RAISE_F(ex, depth, KOR_ERROR_NOT_FOUND, "No value for '%s'", key);
}

static void readSection(korEx* ex, uint8_t depth, const char* section)
{
    (void)section;
    readValue(KOR_AT(ex, depth), "port");
}

static void readFile(korEx* ex, uint8_t depth, const char* path)
{
    (void)path;
    readSection(KOR_AT(ex, depth), "listener");
}

static void loadConfiguration(korEx* ex, uint8_t depth)
{
    readFile(KOR_AT(ex, depth), "broker.conf");
}

static void startBroker(korEx* ex, uint8_t depth)
{
    loadConfiguration(KOR_AT(ex, depth));
}

int main(void)
{
    korEx* ex = korEx_Create();
    startBroker(KOR_AT(ex, 0));
    if (korEx_GetErrorCode(ex) != 0) {
        korEx_Print(ex);
    }
    korEx_Destroy(ex);
    return 0;
}
