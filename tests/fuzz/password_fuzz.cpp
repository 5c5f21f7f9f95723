// password_fuzz.cpp - password files of any bytes, into buffers of any size up to a line's: all texts that were written
// end inside their buffers, which the address sanitizer watches.

#include "korutil/korPasswordFile.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const std::string& path()
{
    static const std::string name = "/tmp/korutil-password-fuzz-" + std::to_string(getpid());
    return name;
}

void write(const uint8_t* data, size_t size)
{
    FILE* file = std::fopen(path().c_str(), "wb");
    if (file == nullptr || std::fwrite(data, 1, size, file) != size) {
        std::abort();
    }
    std::fclose(file);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    write(data + 2, size - 2);
    std::vector<char> user(data[0] + size_t{1});
    std::vector<char> password(data[1] + size_t{1});
    korEx* ex = korEx_Create();
    _korPasswordFile_GetUsernamePassword(KOR_AT(ex, 0), path().c_str(), user.data(), static_cast<int32_t>(user.size()),
                                         password.data(), static_cast<int32_t>(password.size()));
    korEx_Clear(ex);
    _korPasswordFile_GetPassword(KOR_AT(ex, 0), path().c_str(), password.data(), static_cast<int32_t>(password.size()));
    std::remove(path().c_str());
    korEx_Destroy(ex);
    return 0;
}
