// consumer.cpp - a C++ program against an installed copy: raises, and finds its own function in the trace.

#include <korutil/korutil.h>

#include <cstring>

static void fail(korEx* ex, uint8_t depth)
{
    KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "wanted");
}

int main()
{
    korEx* ex = korEx_Create();
    fail(KOR_AT(ex, 0));
    char text[2048];
    korEx_ToString(ex, text, sizeof text);
    bool told = std::strstr(text, "Illegal state") != nullptr && std::strstr(text, "\t\tfail, ") != nullptr &&
                std::strstr(text, "\t\tmain, ") != nullptr;
    korEx_Destroy(ex);
    return told ? 0 : 1;
}
