// frame_check.cpp - exercises local, chained and wrapped exception objects for a memory checker, which must find that
// no frame is read that was not written.

#include "korutil/korEx.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace {

void descend(korEx* ex, uint8_t depth, uint32_t levels)
{
    if (levels == 0) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_EXCEPTION, "at %u", static_cast<unsigned>(depth));
        return;
    }
    descend(KOR_AT(ex, depth), levels - 1);
}

void chained(korEx* ex, uint8_t depth, uint32_t levels)
{
    KOR_EX_CHAINED(local, ex, depth);
    descend(KOR_AT(&local, depth), levels);
}

// Reads all that a caller may read; the sum depends on every byte of it.
unsigned use(korEx* ex)
{
    static char text[65536];
    int32_t length = korEx_ToString(ex, text, sizeof text);
    unsigned sum = 0;
    for (int32_t index = 0; index < length; index++) {
        sum = sum * 31 + static_cast<unsigned char>(text[index]);
    }
    korEx* clone = _korEx_Clone(ex);
    length = korEx_ToString(clone, text, sizeof text);
    for (int32_t index = 0; index < length; index++) {
        sum = sum * 31 + static_cast<unsigned char>(text[index]);
    }
    korEx_Destroy(clone);
    _korEx_PrintStack(1, korEx_at(ex, 0, __func__, __LINE__));
    return sum;
}

unsigned raiseAndUse(uint32_t levels)
{
    unsigned sum = 0;
    KOR_EX_LOCAL(plain);
    sum += use(&plain);
    descend(KOR_AT(&plain, 0), levels);
    sum += use(&plain);
    korEx_Clear(&plain);
    sum += use(&plain);
    KOR_EX_LOCAL(outer);
    chained(KOR_AT(&outer, 0), levels);
    sum += use(&outer);
    return sum;
}

} // namespace

int main()
{
    unsigned sum = 0;
    for (uint32_t levels : {0u, 1u, 5u, 252u, 253u, 254u, 255u, 300u, 600u}) {
        sum += raiseAndUse(levels);
    }
    return sum == 0; // the sum is used, so a checker sees every byte decide something
}
