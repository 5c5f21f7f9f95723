// korFile.cpp - files at offsets, directories, and the library's temporary place, over platform/file.h.

#include "korutil/korFile.h"
#include "foundation/request.h"
#include "foundation/unload.h"
#include "korutil/korAlloc.h"
#include "korutil/korRand.h"
#include "korutil/korText.h"
#include "korutil/korThread.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/stream.h"
#include "sync/mutexGuard.h"

#include <atomic>
#include <cstring>

namespace kor {
namespace {

// Raises with the number of the system call that has just failed.
void raiseOs(korEx* ex, uint8_t depth, int32_t code, const char* text)
{
    if (ex->code == 0) {
        ex->osError = platform::lastSystemError();
        KOR_RAISE(ex, depth, code, text);
    }
}

int32_t failed(korEx* ex, uint8_t depth, const char* text)
{
    raiseOs(KOR_AT(ex, depth), KOR_ERROR_FILE_IO, text);
    return -1;
}

// Whether or not an error is pending.
bool flush(uint8_t depth, korEx* ex, const korFile* file)
{
    bool flushed = platform::syncFile(file->handle);
    if (!flushed) {
        raiseOs(KOR_AT(ex, depth), KOR_ERROR_FILE_IO, "File cannot be synced.");
    }
    return flushed;
}

// ---- Making directories ----

void makeOne(korEx* ex, uint8_t depth, const char* path)
{
    platform::PathKind kind = platform::pathKind(path);
    if (kind == platform::PathKind::missing && !platform::makeDirectory(path)) {
        // Another process may have been quicker.
        if (platform::lastSystemError() != platform::errorAlreadyExists) {
            raiseOs(KOR_AT(ex, depth), KOR_ERROR_FILE_IO, "Cannot create directory");
        }
    } else if (kind == platform::PathKind::other) {
        KOR_RAISE(ex, depth, KOR_ERROR_FILE_IO, "File exists but is not a directory");
    }
}

// The mask is the process's: two threads that clear it at once would put each other's 0 back.
korThreadOnce maskOnce;
korMutex maskMutex;

void initMaskMutex()
{
    KOR_EX_LOCAL(ex);
    _korMutex_Init(KOR_AT(&ex, 0), &maskMutex);
}

// While it lasts, directories are made with all rights for everybody.
class ClearedMask
{
public:
    ClearedMask() : guard_(&maskMutex), before_(platform::setFileMask(0)) {}
    ~ClearedMask() { platform::setFileMask(before_); }
    ClearedMask(const ClearedMask&) = delete;
    ClearedMask& operator=(const ClearedMask&) = delete;

private:
    MutexGuard guard_;
    int32_t before_;
};

char* skipSeparators(char* path)
{
    while (*path == platform::pathSeparator) {
        path++;
    }
    return path;
}

// Every part that ends at a separator; the last one is the caller's.
void makeParents(korEx* ex, uint8_t depth, const char* path)
{
    char* copy = requestCopy(KOR_AT(ex, depth), path);
    if (copy == nullptr) {
        return;
    }
    char* next = skipSeparators(copy + (platform::isDrivePrefixed(copy) ? 2 : 0));
    while (ex->code == 0 && (next = strchr(next, platform::pathSeparator)) != nullptr) {
        *next = '\0';
        makeOne(KOR_AT(ex, depth), copy);
        *next = platform::pathSeparator;
        next = skipSeparators(next);
    }
    _kor_free(KOR_AT_D(depth, ex), copy);
}

// ---- The process's texts ----

char* temporaryPlace; // atomic, as the other
char* socketFormat;

void freeText(char*& slot)
{
    KOR_EX_LOCAL(ex);
    _kor_free(KOR_AT_D(0, &ex), slot);
    slot = nullptr;
}

void freePlace()
{
    freeText(temporaryPlace);
}

void freeFormat()
{
    freeText(socketFormat);
}

UnloadStep freesPlace = {freePlace, nullptr};
UnloadStep freesFormat = {freeFormat, nullptr};

// Whoever installs first wins; the loser's copy goes.
const char* install(korEx* ex, uint8_t depth, char*& slot, UnloadStep& step, const char* text)
{
    char* copy = requestCopy(KOR_AT(ex, depth), text);
    if (copy == nullptr) {
        return nullptr;
    }
    char* present = nullptr;
    if (std::atomic_ref(slot).compare_exchange_strong(present, copy)) {
        atUnload(step);
        return copy;
    }
    _kor_free(KOR_AT_D(depth, ex), copy);
    return present;
}

} // namespace
} // namespace kor

using namespace kor;

korFile* _korFile_Open(korEx* ex, uint8_t depth, const char* path, uint32_t flags)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* file = requestZeroed<korFile>(KOR_AT(ex, depth));
    if (file == nullptr) {
        return nullptr;
    }
    file->syncOnClose = (flags & KOR_FILE_NO_SYNC) == 0;
    platform::OpenFlags how = {(flags & KOR_FILE_WRITE_THROUGH) != 0, (flags & KOR_FILE_CREATE) != 0,
                               (flags & KOR_FILE_MUST_BE_NEW) != 0, (flags & KOR_FILE_SHARE_DELETE) != 0};
    if (path == nullptr || !platform::openFile(path, how, &file->handle)) {
        bool denied = path != nullptr && platform::isDenial(platform::lastSystemError());
        raiseOs(KOR_AT(ex, depth), denied ? KOR_ERROR_NOT_PERMITTED : KOR_ERROR_NOT_FOUND,
                denied ? "File cannot be opened." : "File cannot be found.");
        _kor_free(KOR_AT_D(depth, ex), file);
        return nullptr;
    }
    return file;
}

void _korFile_Close(uint8_t depth, korEx* ex, korFile* file)
{
    if (file == nullptr) {
        return;
    }
    if (file->syncOnClose != 0) {
        flush(KOR_AT_D(depth, ex), file);
    }
    if (!platform::closeFile(file->handle)) {
        raiseOs(KOR_AT(ex, depth), KOR_ERROR_FILE_IO, "File cannot be closed.");
    }
    _kor_free(KOR_AT_D(depth, ex), file);
}

void _korFile_Sync(korEx* ex, uint8_t depth, korFile* file)
{
    if (ex->code == 0) {
        flush(KOR_AT_D(depth, ex), file);
    }
}

int32_t _korFile_Read(korEx* ex, uint8_t depth, korFile* file, int64_t offset, void* buffer, int32_t count)
{
    if (ex->code != 0) {
        return -1;
    }
    if (count < 1) {
        return 0;
    }
    if (offset < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_FILE_IO, "Cannot read before beginning of file.");
        return -1;
    }
    uint32_t moved = 0;
    switch (platform::readFile(file->handle, offset, buffer, static_cast<uint32_t>(count), &moved)) {
    case platform::FileStep::seekFailed:
        return failed(KOR_AT(ex, depth), "File seek failed.");
    case platform::FileStep::transferFailed:
        return failed(KOR_AT(ex, depth), "File read failed.");
    case platform::FileStep::done:
        break;
    }
    return static_cast<int32_t>(moved);
}

int32_t _korFile_Write(korEx* ex, uint8_t depth, korFile* file, int64_t offset, const void* data, int32_t count,
                       uint8_t* fatal)
{
    uint8_t nobodyAsked;
    fatal = fatal == nullptr ? &nobodyAsked : fatal;
    if (ex->code != 0) {
        return 1;
    }
    *fatal = 0;
    if (count < 1) {
        return 0;
    }
    if (offset < 0) {
        *fatal = 1;
        KOR_RAISE(ex, depth, KOR_ERROR_FILE_IO, "Cannot write before beginning of file.");
        return -1;
    }
    uint32_t moved = 0;
    switch (platform::writeFile(file->handle, offset, data, static_cast<uint32_t>(count), &moved)) {
    case platform::FileStep::seekFailed:
        return failed(KOR_AT(ex, depth), "File seek failed.");
    case platform::FileStep::transferFailed:
        *fatal = !platform::mayPass(platform::lastSystemError());
        return failed(KOR_AT(ex, depth), "File write failed.");
    case platform::FileStep::done:
        break;
    }
    if (file->syncOnWrite != 0) {
        flush(KOR_AT_D(depth, ex), file);
    }
    return static_cast<int32_t>(moved);
}

void _korFile_DeletePath(korEx* ex, uint8_t depth, const char* path)
{
    if (ex->code == 0 && !platform::removeFile(path)) {
        raiseOs(KOR_AT(ex, depth), KOR_ERROR_FILE_IO, "File cannot be deleted.");
    }
}

void _korFile_Rename(korEx* ex, uint8_t depth, const char* from, const char* to)
{
    if (ex->code == 0 && !platform::moveFile(from, to)) {
        raiseOs(KOR_AT(ex, depth), KOR_ERROR_FILE_IO, "File cannot be renamed.");
    }
}

uint8_t _korFile_Exists(korEx* ex, uint8_t, const char* path)
{
    return ex->code == 0 && path != nullptr && platform::fileExists(path);
}

void _korFile_MkDir(korEx* ex, uint8_t depth, const char* path, uint8_t recursive)
{
    if (ex->code != 0) {
        return;
    }
    platform::PathKind kind = platform::pathKind(path);
    if (kind == platform::PathKind::directory) {
        return;
    }
    _korThread_Once(KOR_AT(ex, depth), &maskOnce, initMaskMutex);
    ClearedMask cleared;
    if (recursive != 0 && kind == platform::PathKind::missing) {
        makeParents(KOR_AT(ex, depth), path);
    }
    if (ex->code == 0) {
        makeOne(KOR_AT(ex, depth), path);
    }
}

void _korFile_RmDir(korEx* ex, uint8_t depth, const char* path)
{
    if (ex->code == 0 && !platform::removeDirectory(path)) {
        raiseOs(KOR_AT(ex, depth), KOR_ERROR_FILE_IO, "Cannot remove directory");
    }
}

korDirHandle* _korDirHandle_FirstFile(korEx* ex, uint8_t depth, const char* directory, char* name, int32_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* handle = requestZeroed<korDirHandle>(KOR_AT(ex, depth));
    if (handle == nullptr) {
        return nullptr;
    }
    if (!platform::openDirectory(directory, &handle->handle)) {
        raiseOs(KOR_AT(ex, depth), KOR_ERROR_FILE_IO, "Directory cannot be opened.");
        _kor_free(KOR_AT_D(depth, ex), handle);
        return nullptr;
    }
    if (_korDirHandle_NextFile(KOR_AT(ex, depth), handle, name, size) == 0) {
        _korDirHandle_Close(KOR_AT_D(depth, ex), handle);
        return nullptr;
    }
    return handle;
}

uint8_t _korDirHandle_NextFile(korEx* ex, uint8_t, korDirHandle* handle, char* name, int32_t size)
{
    uint32_t room = size < 0 ? 0 : static_cast<uint32_t>(size);
    return ex->code == 0 && platform::nextPlainFile(handle->handle, name, room);
}

void _korDirHandle_Close(uint8_t depth, korEx* ex, korDirHandle* handle)
{
    if (handle != nullptr) {
        platform::closeDirectory(handle->handle);
        _kor_free(KOR_AT_D(depth, ex), handle);
    }
}

void _korFile_MakeTempFileName(korEx* ex, uint8_t depth, char* buffer)
{
    _korRand_GetRandomName(KOR_AT(ex, depth), buffer, KOR_FILE_TEMP_NAME_SIZE);
}

const char* _korFile_GetTempKorDir(void)
{
    constexpr uint32_t longest = 260;
    constexpr char name[] = "kor";
    const char* present = std::atomic_ref(temporaryPlace).load();
    if (present != nullptr) {
        return present;
    }
    char path[longest];
    uint32_t length = platform::temporaryDirectory(path, sizeof path);
    if (length == 0 || length + sizeof name > sizeof path) {
        return nullptr;
    }
    KOR_EX_LOCAL(ex);
    _korFile_AppendPath(KOR_AT(&ex, 0), path, sizeof path, name, 0);
    return install(KOR_AT(&ex, 0), temporaryPlace, freesPlace, path);
}

const char* _korFile_GetSocketDir(void)
{
    return _korFile_GetTempKorDir();
}

const char* _korFile_GetSocketFmt(void)
{
    constexpr size_t longest = 264;
    const char* present = std::atomic_ref(socketFormat).load();
    const char* directory = present == nullptr ? _korFile_GetSocketDir() : nullptr;
    if (directory == nullptr) {
        return present;
    }
    KOR_EX_LOCAL(ex);
    char format[longest];
    _kor_StringCopy(format, sizeof format, directory, 0);
    _korFile_AppendPath(KOR_AT(&ex, 0), format, sizeof format, "%s", 0);
    return install(KOR_AT(&ex, 0), socketFormat, freesFormat, format);
}

bool _korFile_IsNamedLocal(void)
{
    _korFile_GetSocketFmt();
    return true;
}

uint32_t _korFile_GetTempPath(korEx*, uint8_t, char* buffer, uint32_t size)
{
    return platform::temporaryDirectory(buffer, size);
}

uint32_t _korFile_AppendPath(korEx*, uint8_t, char* path, int32_t size, const char* name, int32_t length)
{
    size_t room = size < 0 ? 0 : static_cast<size_t>(size);
    uint32_t present = room == 0 ? 0 : _kor_bufnlen(path, room);
    if (present != 0 && path[present - 1] != platform::pathSeparator) {
        _kor_StringCat(path, room, &platform::pathSeparator, 1);
    }
    return _kor_StringCat(path, room, name, length < 0 ? 0 : static_cast<size_t>(length));
}

uint8_t _korFile_IsAbsolutePath(korEx*, uint8_t, const char* path)
{
    return path != nullptr && (path[0] == platform::pathSeparator || platform::isDrivePrefixed(path));
}
