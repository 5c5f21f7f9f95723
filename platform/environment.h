// environment.h - the process's environment variables. Names are not empty and have no "=" in them.

#pragma once

#include <cstdint>

namespace kor::platform {

const char* getEnvironment(const char* name);                ///< NULL if there is none
int32_t setEnvironment(const char* name, const char* value); ///< 0, or the C library's error number
int32_t unsetEnvironment(const char* name);                  ///< the same

} // namespace kor::platform
