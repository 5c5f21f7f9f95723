/* One component, two keys: what happens for client 17 is traced to the console, client 18 keeps its warnings in files.
 */
#include <korutil/korutil.h>

enum { debugLevel = 80, infoLevel = 100, warnLevel = 110 };

static void serve(const korLogSourceEx* client)
{
    _korLogger_LogBySource(client, 0, NULL, NULL, debugLevel, NULL, 0, "%d bytes read", 512);
    _korLogger_LogBySource(client, 0, NULL, NULL, infoLevel, NULL, 0, "subscribed to '%s'", "prices/#");
    _korLogger_LogBySource(client, 0, NULL, "slow", warnLevel, NULL, 0, "%d messages wait", 1000);
}

int main(int argc, char** argv)
{
    const char* prefix = argc > 1 ? argv[1] : "client18.log";
    korEx* ex = korEx_Create();
    korLogSourceEx first;
    korLogSourceEx second;

    _korutil_Open(KOR_AT(ex, 0), 3);
    _korLogger_InitializeLogSourceEx(&first, 17, 0, "client %d", 17);
    _korLogger_InitializeLogSourceEx(&second, 18, 0, "client %d", 18);
    first.source.component = second.source.component = _korLogger_RegisterComponent(KOR_AT(ex, 0), "gateway", "gate");

    _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), 17, "gateway:debug");
    _korLogger_SetLogFilesForId(KOR_AT(ex, 0), 18, prefix, 1000000, 3);
    _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), 18, "gateway:warn");

    serve(&first);
    serve(&second);

    _korLogger_DestroyLoggerByKey(KOR_AT_D(0, ex), 17);
    _korLogger_DestroyLoggerByKey(KOR_AT_D(0, ex), 18);
    _korutil_Close(KOR_AT_D(0, ex));
    int failed = korEx_GetErrorCode(ex) != 0;
    if (failed) {
        korEx_Print(ex);
    }
    korEx_Destroy(ex);
    return failed;
}
