// file.cpp (Windows) - file handles. A transfer is a seek and then a read or write, and shares the file's position.

#include "platform/file.h"
#include "platform/error.h"

#include <windows.h>

#include <cstdio>
#include <direct.h>
#include <io.h>

namespace kor::platform {
namespace {

HANDLE asHandle(int64_t handle)
{
    return reinterpret_cast<HANDLE>(handle);
}

bool seek(HANDLE handle, int64_t offset)
{
    LONG high = static_cast<LONG>(offset >> 32);
    DWORD low = SetFilePointer(handle, static_cast<LONG>(offset), &high, FILE_BEGIN);
    return low != INVALID_SET_FILE_POINTER || GetLastError() == NO_ERROR;
}

bool isPlain(const WIN32_FIND_DATAA& entry)
{
    constexpr DWORD others = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE | FILE_ATTRIBUTE_REPARSE_POINT;
    return (entry.dwFileAttributes & others) == 0;
}

// The system gives the first entry as it opens the directory.
struct Directory {
    HANDLE find;
    WIN32_FIND_DATAA entry;
    bool pending; // `entry` has not been looked at
};

Directory* asDirectory(int64_t handle)
{
    return reinterpret_cast<Directory*>(handle);
}

} // namespace

bool openFile(const char* path, const OpenFlags& flags, int64_t* handle)
{
    DWORD share = flags.shareDelete ? FILE_SHARE_READ | FILE_SHARE_DELETE : FILE_SHARE_READ | FILE_SHARE_WRITE;
    DWORD disposition = OPEN_EXISTING;
    if (flags.mustBeNew) {
        disposition = CREATE_NEW;
    } else if (flags.create) {
        disposition = OPEN_ALWAYS;
    }
    DWORD attributes = FILE_ATTRIBUTE_NORMAL | FILE_FLAG_RANDOM_ACCESS;
    if (flags.writeThrough) {
        attributes |= FILE_FLAG_WRITE_THROUGH;
    }
    HANDLE file = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, share, nullptr, disposition, attributes, nullptr);
    *handle = reinterpret_cast<int64_t>(file);
    return file != INVALID_HANDLE_VALUE;
}

bool closeFile(int64_t handle)
{
    return CloseHandle(asHandle(handle)) != 0;
}

bool syncFile(int64_t handle)
{
    return FlushFileBuffers(asHandle(handle)) != 0;
}

FileStep readFile(int64_t handle, int64_t offset, void* buffer, uint32_t count, uint32_t* moved)
{
    DWORD done = 0;
    if (!seek(asHandle(handle), offset)) {
        return FileStep::seekFailed;
    }
    bool read = ReadFile(asHandle(handle), buffer, count, &done, nullptr) != 0;
    *moved = done;
    return read ? FileStep::done : FileStep::transferFailed;
}

FileStep writeFile(int64_t handle, int64_t offset, const void* data, uint32_t count, uint32_t* moved)
{
    DWORD done = 0;
    if (!seek(asHandle(handle), offset)) {
        return FileStep::seekFailed;
    }
    bool written = WriteFile(asHandle(handle), data, count, &done, nullptr) != 0;
    *moved = done;
    return written ? FileStep::done : FileStep::transferFailed;
}

bool isDenial(int32_t error)
{
    return error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION || error == ERROR_NETWORK_ACCESS_DENIED;
}

bool mayPass(int32_t error)
{
    return error == ERROR_OUTOFMEMORY || error == ERROR_NOT_READY || error == ERROR_HANDLE_EOF ||
           error == ERROR_HANDLE_DISK_FULL || error == ERROR_DISK_FULL;
}

bool moveFile(const char* from, const char* to)
{
    return MoveFileA(from, to) != 0;
}

bool removeFile(const char* path)
{
    return DeleteFileA(path) != 0;
}

PathKind pathKind(const char* path)
{
    DWORD attributes = GetFileAttributesA(path);
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        return PathKind::missing;
    }
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? PathKind::directory : PathKind::other;
}

bool makeDirectory(const char* path)
{
    return CreateDirectoryA(path, nullptr) != 0;
}

bool removeDirectory(const char* path)
{
    return RemoveDirectoryA(path) != 0;
}

int32_t setFileMask(int32_t mask)
{
    return _umask(mask);
}

bool openDirectory(const char* path, int64_t* handle)
{
    constexpr size_t longestPattern = 261;
    char pattern[longestPattern];
    if (snprintf(pattern, sizeof pattern, "%s\\*", path) >= static_cast<int>(sizeof pattern)) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return false;
    }
    auto* directory = static_cast<Directory*>(HeapAlloc(GetProcessHeap(), 0, sizeof(Directory)));
    *handle = reinterpret_cast<int64_t>(directory);
    if (directory == nullptr) {
        SetLastError(ERROR_OUTOFMEMORY);
        return false;
    }
    directory->pending = true;
    directory->find = FindFirstFileA(pattern, &directory->entry);
    if (directory->find == INVALID_HANDLE_VALUE) {
        DWORD error = GetLastError();
        HeapFree(GetProcessHeap(), 0, directory);
        SetLastError(error);
        return false;
    }
    return true;
}

bool nextPlainFile(int64_t handle, char* name, uint32_t size)
{
    Directory* directory = asDirectory(handle);
    bool found;
    do {
        found = directory->pending || FindNextFileA(directory->find, &directory->entry) != 0;
        directory->pending = false;
    } while (found && !isPlain(directory->entry));
    if (found && size != 0) {
        snprintf(name, size, "%s", directory->entry.cFileName);
    }
    return found;
}

void closeDirectory(int64_t handle)
{
    Directory* directory = asDirectory(handle);
    FindClose(directory->find);
    HeapFree(GetProcessHeap(), 0, directory);
}

const char pathSeparator = '\\';

bool isDrivePrefixed(const char* path)
{
    char letter = static_cast<char>(path[0] | 0x20);
    return letter >= 'a' && letter <= 'z' && path[1] == ':';
}

uint32_t temporaryDirectory(char* buffer, uint32_t size)
{
    return GetTempPathA(size, buffer);
}

} // namespace kor::platform
