// sharedfile.h (Linux) - a shared-memory file that goes with its last user, whatever way that user ends.
//
// Private to this backend: named semaphores and regions stand on it.

#pragma once

#include <cstdint>

namespace kor::platform {

/// An open file of one user.
struct SharedFile {
    int descriptor;
    uint64_t size; ///< in bytes
    bool created;  ///< nobody else had it: the content is new and zero
};

/// Opens the file of `prefix` and `name`, or makes it with `size` bytes. Characters of the name outside [A-Za-z0-9._-]
/// are percent-encoded. False with errno set if the system refuses.
bool openSharedFile(SharedFile* file, const char* prefix, const char* name, uint64_t size);

/// Ends this use of the file; the last user takes it off the system. `prefix` and `name` are those of the opening.
/// errno is left alone.
void closeSharedFile(int descriptor, const char* prefix, const char* name);

} // namespace kor::platform
