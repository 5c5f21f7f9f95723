// sharedmemory.h - named memory that processes share. It goes with its last handle.

#pragma once

#include <cstdint>

namespace kor::platform {

/// Makes `size` bytes of zeroed memory of this name, or joins what is there; `*created` tells which. False with the
/// system's error set.
bool openSharedMemory(uint64_t* handle, const char* name, uint32_t size, bool* created);

/// Maps `*size` bytes from `offset`, 0 for all up to the end, for reading and writing; `*size` becomes what unmapping
/// needs to know. NULL with the system's error set.
void* mapSharedMemory(uint64_t handle, uint32_t offset, uint64_t* size);

/// Ends a mapping; a `size` of 0 means that it is not known. False with the system's error set if there is none.
bool unmapSharedMemory(void* address, uint64_t size);

void closeSharedMemory(uint64_t handle, const char* name); ///< `name` as at the opening. Mappings stay

} // namespace kor::platform
