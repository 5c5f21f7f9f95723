// pages.cpp (Linux) - anonymous mappings.

#include "platform/pages.h"

#include <sys/mman.h>
#include <unistd.h>

namespace kor::platform {

size_t pageSize()
{
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

void* takePages(size_t size)
{
    void* pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return pages == MAP_FAILED ? nullptr : pages;
}

void givePages(void* pages, size_t size)
{
    munmap(pages, size);
}

bool setPageAccess(void* pages, size_t size, bool allowed)
{
    return mprotect(pages, size, allowed ? PROT_READ | PROT_WRITE : PROT_NONE) == 0;
}

} // namespace kor::platform
