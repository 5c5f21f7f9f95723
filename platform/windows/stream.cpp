// stream.cpp (Windows) - the sharing forms of the C library's calls.

#include "platform/stream.h"

#include <io.h>
#include <share.h>

namespace kor::platform {

FILE* openStream(const char* path, const char* mode)
{
    return _fsopen(path, mode, _SH_DENYNO);
}

int32_t streamPosition(FILE* stream)
{
    return std::ftell(stream);
}

bool fileExists(const char* path)
{
    return _access(path, 0) == 0;
}

void deleteFile(const char* path)
{
    static_cast<void>(_unlink(path));
}

void renameFile(const char* path, const char* path2)
{
    static_cast<void>(std::rename(path, path2));
}

} // namespace kor::platform
