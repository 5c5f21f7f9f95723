// korFailures_fuzz.cpp - failure configurations of any bytes: loaded or refused, and nothing that they name fires
// unasked.

#include "fuzz.h"

#include "korutil/korFailures.h"
#include "korutil/korLogger.h"

void kor::fuzz::check(korEx* ex, const std::string& entries)
{
    _korLogger_SetLogLevels(ex, 0, "tests:off");
    for (const std::string& text : {"buf:" + entries, "buf:{\"failures\":[" + entries + "]}",
                                    "buf:{\"failures\":[{\"name\":\"point\"," + entries + "}]}"}) {
        korEx_Clear(ex);
        _korFailures_Open(ex, 0, text.c_str());
        demand(korEx_GetErrorCode(ex) == 0 || korEx_GetErrorCode(ex) == KOR_ERROR_INVALID_ARGUMENT);
        korEx_Clear(ex);
        demand(!_korFailures_Check(ex, 0, "absent point"));
    }
}
