// sharedmemory.cpp (Linux) - shared-memory files; the handle is the descriptor.

#include "platform/sharedmemory.h"

#include "platform/linux/sharedfile.h"

#include <cerrno>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kor::platform {
namespace {

constexpr const char* prefix = "kor.shm.";

// Bytes that may be mapped: the file up to the end of its last page. Beyond, an access would end the process.
uint64_t mappable(uint64_t fileSize)
{
    auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return (fileSize + page - 1) / page * page;
}

} // namespace

bool openSharedMemory(uint64_t* handle, const char* name, uint32_t size, bool* created)
{
    if (size == 0) {
        errno = EINVAL;
        return false;
    }
    SharedFile file;
    if (!openSharedFile(&file, prefix, name, size)) {
        return false;
    }
    *handle = static_cast<uint64_t>(file.descriptor);
    *created = file.created;
    return true;
}

void* mapSharedMemory(uint64_t handle, uint32_t offset, uint64_t* size)
{
    auto descriptor = static_cast<int>(handle);
    struct stat status;
    if (fstat(descriptor, &status) != 0) {
        return nullptr;
    }
    auto fileSize = static_cast<uint64_t>(status.st_size);
    uint64_t length = *size == 0 && offset < fileSize ? fileSize - offset : *size;
    if (length == 0 || length > mappable(fileSize) || offset > mappable(fileSize) - length) {
        errno = EINVAL;
        return nullptr;
    }
    void* address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, offset);
    *size = length;
    return address == MAP_FAILED ? nullptr : address;
}

bool unmapSharedMemory(void* address, uint64_t size)
{
    return munmap(address, size) == 0; // which refuses a length of 0
}

void closeSharedMemory(uint64_t handle, const char* name)
{
    closeSharedFile(static_cast<int>(handle), prefix, name);
}

} // namespace kor::platform
