// file.h - files read and written at offsets, directories, and how paths are spelt.
//
// What fails gives false, or -1, and sets the last system error.

#pragma once

#include <cstdint>

namespace kor::platform {

// ---- Files. A handle is the system's own, in 64 bits. ----

struct OpenFlags {
    bool writeThrough; ///< a write returns when the medium has it
    bool create;       ///< make a file that is not there
    bool mustBeNew;    ///< fail if the file is there; goes before `create`
    bool shareDelete;  ///< others may read and delete, in place of read and write
};

bool openFile(const char* path, const OpenFlags& flags, int64_t* handle); ///< for reading and writing
bool closeFile(int64_t handle);
bool syncFile(int64_t handle); ///< what was written is on the medium

enum class FileStep { done, seekFailed, transferFailed };

/// Up to `count` bytes from `offset`; `*moved` says how many. Fewer only at the end of the file.
FileStep readFile(int64_t handle, int64_t offset, void* buffer, uint32_t count, uint32_t* moved);
/// All `count` bytes at `offset`, or a failure.
FileStep writeFile(int64_t handle, int64_t offset, const void* data, uint32_t count, uint32_t* moved);

/// True for errors of an opening that was refused: the file is there, or may be.
bool isDenial(int32_t error);
/// True for errors of a write that may succeed later: no space, no memory.
bool mayPass(int32_t error);

bool moveFile(const char* from, const char* to); ///< fails if `to` is there
bool removeFile(const char* path);               ///< no directory

// ---- Directories ----

enum class PathKind { missing, directory, other };

PathKind pathKind(const char* path);
bool makeDirectory(const char* path); ///< errorAlreadyExists if something is there
bool removeDirectory(const char* path);
int32_t setFileMask(int32_t mask); ///< the process's mask for new files; gives the old one

bool openDirectory(const char* path, int64_t* handle);
/// The name of the next plain file, cut to `size` and terminated; false when there is none.
bool nextPlainFile(int64_t handle, char* name, uint32_t size);
void closeDirectory(int64_t handle);

// ---- Paths ----

extern const char pathSeparator;
bool isDrivePrefixed(const char* path); ///< "x:" in front; never on Linux

/// The directory for temporary files, with a separator at its end. Gives its length; if it does not fit, the size that
/// it needs, terminator included.
uint32_t temporaryDirectory(char* buffer, uint32_t size);

} // namespace kor::platform
