// random.cpp (Windows) - a cryptographic context without keys.

#include "platform/random.h"

#include <windows.h>

#include <wincrypt.h>

namespace kor::platform {
namespace {

HCRYPTPROV context; // 0 = not open

} // namespace

bool openRandom()
{
    return context != 0 ||
           CryptAcquireContextA(&context, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT | CRYPT_SILENT) != 0;
}

bool closeRandom()
{
    HCRYPTPROV open = context;
    context = 0;
    return open == 0 || CryptReleaseContext(open, 0) != 0;
}

bool fillRandom(void* buffer, uint32_t length)
{
    return CryptGenRandom(context, length, static_cast<BYTE*>(buffer)) != 0;
}

} // namespace kor::platform
