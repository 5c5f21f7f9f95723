// stream.cpp (Linux) - nothing here is locked by being open, so the plain calls do.

#include "platform/stream.h"

#include <limits>
#include <stdio_ext.h>
#include <unistd.h>

namespace kor::platform {

FILE* openStream(const char* path, const char* mode)
{
    FILE* stream = std::fopen(path, mode);
    if (stream != nullptr) {
        __fsetlocking(stream, FSETLOCKING_BYCALLER);
    }
    return stream;
}

int32_t streamPosition(FILE* stream)
{
    long position = std::ftell(stream);
    return position > std::numeric_limits<int32_t>::max() ? -1 : static_cast<int32_t>(position);
}

bool fileExists(const char* path)
{
    return access(path, F_OK) == 0;
}

void deleteFile(const char* path)
{
    static_cast<void>(unlink(path));
}

void renameFile(const char* path, const char* path2)
{
    static_cast<void>(std::rename(path, path2));
}

} // namespace kor::platform
