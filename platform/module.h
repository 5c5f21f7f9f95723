// module.h - shared libraries of the process. What fails gives NULL or false, and moduleErrorText tells why.

#pragma once

#include <cstdint>

namespace kor::platform {

void* loadModule(const char* name); ///< loads a library, or takes another reference to it
void* findModule(const char* name); ///< takes a reference to one that is loaded; NULL is the process's own module
bool closeModule(void* module);     ///< gives a reference back
void* moduleSymbol(void* module, const char* name); ///< the address of a function or object; arguments are not NULL

/// The system's text for this thread's last failure, cut to `size` and terminated; gives its length, 0 for none.
uint32_t moduleErrorText(char* buffer, uint32_t size);

} // namespace kor::platform
