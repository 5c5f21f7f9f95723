// password_fuzz.cpp - password files of any bytes, into buffers of any size up to a line's: a password ends inside its
// buffer, and the address sanitizer watches what lies behind the buffers.

#include "fuzz.h"

#include "korutil/korPasswordFile.h"

#include <cstdio>
#include <unistd.h>

void kor::fuzz::check(korEx* ex, const std::string& input)
{
    if (input.size() < 2) {
        return;
    }
    static const std::string path = "/tmp/korutil-password-fuzz-" + std::to_string(getpid());
    FILE* file = std::fopen(path.c_str(), "wb");
    demand(file != nullptr && std::fwrite(input.data() + 2, 1, input.size() - 2, file) == input.size() - 2);
    std::fclose(file);
    std::string user(static_cast<uint8_t>(input[0]) + size_t{1}, '\0');
    std::string password(static_cast<uint8_t>(input[1]) + size_t{1}, '\0');
    auto userSize = static_cast<int32_t>(user.size());
    auto passwordSize = static_cast<int32_t>(password.size());
    _korPasswordFile_GetUsernamePassword(ex, 0, path.c_str(), user.data(), userSize, password.data(), passwordSize);
    demand(ex->code != 0 || std::strlen(password.c_str()) < password.size());
    korEx_Clear(ex);
    _korPasswordFile_GetPassword(ex, 0, path.c_str(), password.data(), passwordSize);
    demand(std::strlen(password.c_str()) < password.size());
    std::remove(path.c_str());
}
