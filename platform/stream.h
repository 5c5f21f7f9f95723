// stream.h - text files of the C library that are appended to, measured and moved about.

#pragma once

#include <cstdint>
#include <cstdio>

namespace kor::platform {

/// Opens a file and keeps nobody else from it; `mode` is that of fopen. NULL, and errno, if it does not open. The
/// stream may go without a lock of its own: one thread at a time uses it.
FILE* openStream(const char* path, const char* mode);

/// Where the next byte goes, or -1: on an error, and from 2 GiB on.
int32_t streamPosition(FILE* stream);

bool fileExists(const char* path);                    ///< whoever may read it
void deleteFile(const char* path);                    ///< a failure is not told
void renameFile(const char* path, const char* path2); ///< a failure is not told; what stands in the way may stay

} // namespace kor::platform
