// file.cpp (Linux) - positioned reads and writes, which share no file position. Sharing is left to the callers, as the
// system has no share modes.

#include "platform/file.h"
#include "platform/error.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kor::platform {
namespace {

constexpr mode_t everyone = 0666;
constexpr mode_t everyoneEnters = 0777;

FileStep failedStep()
{
    return errno == ESPIPE ? FileStep::seekFailed : FileStep::transferFailed;
}

DIR* asDirectory(int64_t handle)
{
    return reinterpret_cast<DIR*>(handle);
}

bool isPlain(DIR* directory, const dirent* entry)
{
    if (entry->d_type != DT_UNKNOWN) {
        return entry->d_type == DT_REG;
    }
    struct stat status;
    return fstatat(dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode);
}

} // namespace

bool openFile(const char* path, const OpenFlags& flags, int64_t* handle)
{
    int how = O_RDWR | O_CLOEXEC;
    if (flags.writeThrough) {
        how |= O_SYNC;
    }
    if (flags.mustBeNew) {
        how |= O_CREAT | O_EXCL;
    } else if (flags.create) {
        how |= O_CREAT;
    }
    *handle = open(path, how, everyone);
    return *handle >= 0;
}

bool closeFile(int64_t handle)
{
    return close(static_cast<int>(handle)) == 0;
}

bool syncFile(int64_t handle)
{
    int result;
    do {
        result = fsync(static_cast<int>(handle));
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

FileStep readFile(int64_t handle, int64_t offset, void* buffer, uint32_t count, uint32_t* moved)
{
    *moved = 0;
    while (*moved != count) {
        ssize_t step =
            pread(static_cast<int>(handle), static_cast<char*>(buffer) + *moved, count - *moved, offset + *moved);
        if (step < 0 && errno != EINTR) {
            return failedStep();
        }
        if (step == 0) {
            break;
        }
        *moved += step > 0 ? static_cast<uint32_t>(step) : 0;
    }
    return FileStep::done;
}

FileStep writeFile(int64_t handle, int64_t offset, const void* data, uint32_t count, uint32_t* moved)
{
    *moved = 0;
    while (*moved != count) {
        ssize_t step =
            pwrite(static_cast<int>(handle), static_cast<const char*>(data) + *moved, count - *moved, offset + *moved);
        if (step < 0 && errno != EINTR) {
            return failedStep();
        }
        *moved += step > 0 ? static_cast<uint32_t>(step) : 0;
    }
    return FileStep::done;
}

bool isDenial(int32_t error)
{
    return error == EACCES || error == EPERM || error == EROFS || error == ETXTBSY || error == EISDIR;
}

bool mayPass(int32_t error)
{
    return error == ENOSPC || error == EDQUOT || error == ENOMEM || error == EAGAIN || error == ENOBUFS;
}

bool moveFile(const char* from, const char* to)
{
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    // A file system without that flag: what appears between the two calls is lost.
    if (pathKind(to) != PathKind::missing) {
        errno = EEXIST;
        return false;
    }
    return rename(from, to) == 0;
}

bool removeFile(const char* path)
{
    return unlink(path) == 0;
}

PathKind pathKind(const char* path)
{
    struct stat status;
    if (stat(path, &status) != 0) {
        return PathKind::missing;
    }
    return S_ISDIR(status.st_mode) ? PathKind::directory : PathKind::other;
}

bool makeDirectory(const char* path)
{
    return mkdir(path, everyoneEnters) == 0;
}

bool removeDirectory(const char* path)
{
    return rmdir(path) == 0;
}

int32_t setFileMask(int32_t mask)
{
    return static_cast<int32_t>(umask(static_cast<mode_t>(mask)));
}

bool openDirectory(const char* path, int64_t* handle)
{
    *handle = reinterpret_cast<int64_t>(opendir(path));
    return *handle != 0;
}

bool nextPlainFile(int64_t handle, char* name, uint32_t size)
{
    DIR* directory = asDirectory(handle);
    const dirent* entry;
    do {
        entry = readdir(directory);
    } while (entry != nullptr && !isPlain(directory, entry));
    if (entry != nullptr && size != 0) {
        snprintf(name, size, "%s", entry->d_name);
    }
    return entry != nullptr;
}

void closeDirectory(int64_t handle)
{
    closedir(asDirectory(handle));
}

const char pathSeparator = '/';

bool isDrivePrefixed(const char*)
{
    return false;
}

uint32_t temporaryDirectory(char* buffer, uint32_t size)
{
    const char* path = getenv("TMPDIR");
    if (path == nullptr || path[0] == '\0') {
        path = "/tmp";
    }
    size_t length = strlen(path);
    const char* ending = path[length - 1] == pathSeparator ? "" : "/";
    int needed = snprintf(buffer, size, "%s%s", path, ending);
    return static_cast<uint32_t>(needed) < size ? static_cast<uint32_t>(needed) : static_cast<uint32_t>(needed) + 1;
}

} // namespace kor::platform
