// pages.h - memory in whole pages whose access can be taken away.

#pragma once

#include <cstddef>

namespace kor::platform {

size_t pageSize();
void* takePages(size_t size);                               ///< readable and writable; NULL if there are none
void givePages(void* pages, size_t size);                   ///< what takePages gave, with access
bool setPageAccess(void* pages, size_t size, bool allowed); ///< false if the system refuses

} // namespace kor::platform
