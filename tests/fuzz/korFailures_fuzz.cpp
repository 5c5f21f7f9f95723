// korFailures_fuzz.cpp - failure configurations of any bytes: loaded or refused, and nothing that they name fires
// unasked.

#include "korutil/korFailures.h"
#include "korutil/korLogger.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string entries(reinterpret_cast<const char*>(data), size);
    std::string texts[] = {"buf:" + entries, "buf:{\"failures\":[" + entries + "]}",
                           "buf:{\"failures\":[{\"name\":\"point\"," + entries + "}]}"};
    korEx* ex = korEx_Create();
    _korLogger_SetLogLevels(KOR_AT(ex, 0), "tests:off");
    for (const std::string& text : texts) {
        korEx_Clear(ex);
        _korFailures_Open(KOR_AT(ex, 0), text.c_str());
        if (korEx_GetErrorCode(ex) != 0 && korEx_GetErrorCode(ex) != 1) {
            std::abort();
        }
        korEx_Clear(ex);
        if (_korFailures_Check(KOR_AT(ex, 0), "absent point")) {
            std::abort();
        }
    }
    korEx_Destroy(ex);
    return 0;
}
