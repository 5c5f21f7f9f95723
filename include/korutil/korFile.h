// korFile.h - files that are read and written at explicit offsets, directories, and the library's temporary place.
//
// A failed write tells whether it is worth trying again, a file is synced as it is closed unless its opener says
// otherwise, and a directory can be made a whole path at a time. Paths use the system's separator ("/" on Linux, "\" on
// Windows). Failures of the system carry its number in `osError`. Nothing retries by itself.
//
// One file may be used by several threads at once on Linux, where a transfer is one step; on Windows it is a seek and a
// transfer, and its users take turns.

#ifndef KORUTIL_KORFILE_H
#define KORUTIL_KORFILE_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// An open file.
typedef struct korFile {
    int64_t handle;      ///< the system's handle
    uint8_t syncOnWrite; ///< 1 = every write is synced; the opener may set it
    uint8_t syncOnClose; ///< 1 = the file is synced as it is closed
} korFile;

/// A walk over the files of a directory.
typedef struct korDirHandle {
    int64_t handle; ///< the system's handle
} korDirHandle;

#define KOR_FILE_NO_SYNC 1u       ///< do not sync on close
#define KOR_FILE_WRITE_THROUGH 2u ///< a write returns when the medium has it
#define KOR_FILE_CREATE 8u        ///< make a file that is not there
#define KOR_FILE_SHARE_DELETE 16u ///< on Windows others may read and delete, not write
#define KOR_FILE_MUST_BE_NEW 32u  ///< fail for a file that is there; goes before KOR_FILE_CREATE

#define KOR_FILE_TEMP_NAME_SIZE 9 ///< room for a name of _korFile_MakeTempFileName

// ---- Files ----------------------------------------------------------------------------------------------------------

/// Opens a file for reading and writing; closed with _korFile_Close. NULL after a failure: code 8 "File cannot be
/// opened." if access was denied, code 9 "File cannot be found." for anything else, code 2.
KOR_API korFile* _korFile_Open(korEx* ex, uint8_t depth, const char* path, uint32_t flags);

/// Syncs and closes a file. NULL is accepted. Works with an error pending; the record goes in all cases. Code 15 "File
/// cannot be synced." and "File cannot be closed.".
KOR_API void _korFile_Close(uint8_t depth, korEx* ex, korFile* file);

/// Brings what was written to the medium. Code 15 "File cannot be synced.".
KOR_API void _korFile_Sync(korEx* ex, uint8_t depth, korFile* file);

/// Reads up to `count` bytes at `offset` and gives how many came, fewer only at the end of the file; 0 for a count
/// below
/// 1. -1 after a failure: code 15 "Cannot read before beginning of file.", "File seek failed." or "File read failed.".
KOR_API int32_t _korFile_Read(korEx* ex, uint8_t depth, korFile* file, int64_t offset, void* buffer, int32_t count);

/// Writes `count` bytes at `offset` and gives `count`; 0 for a count below 1. -1 after a failure: code 15 "Cannot write
/// before beginning of file.", "File seek failed." or "File write failed.". `*fatal`, if given, is then 0 if the same
/// write may succeed later (no space, no memory; a failed seek), else 1. With an error pending the result is 1, and
/// nothing is written.
KOR_API int32_t _korFile_Write(korEx* ex, uint8_t depth, korFile* file, int64_t offset, const void* data, int32_t count,
                               uint8_t* fatal);

/// Deletes a file, not a directory. Code 15 "File cannot be deleted.".
KOR_API void _korFile_DeletePath(korEx* ex, uint8_t depth, const char* path);

/// Renames a file or directory; `to` must not be there. Code 15 "File cannot be renamed.".
KOR_API void _korFile_Rename(korEx* ex, uint8_t depth, const char* from, const char* to);

/// 1 if there is something at `path`, whoever may read it; else 0.
KOR_API uint8_t _korFile_Exists(korEx* ex, uint8_t depth, const char* path);

// ---- Directories ----------------------------------------------------------------------------------------------------

/// Makes a directory, open to everyone (the process's file mask is 0 meanwhile), and with `recursive` all that is
/// missing on the way. One that is there is no error. Code 15: "File exists but is not a directory", "Cannot create
/// directory"; code 2.
KOR_API void _korFile_MkDir(korEx* ex, uint8_t depth, const char* path, uint8_t recursive);

/// Removes an empty directory. Code 15 "Cannot remove directory".
KOR_API void _korFile_RmDir(korEx* ex, uint8_t depth, const char* path);

/// Begins a walk over the plain files of a directory (no directories, devices or links) and gives the first one's name,
/// cut to `size`. NULL with no error if it has none; NULL after a failure: code 15 "Directory cannot be opened.", code
/// 2. Ended with _korDirHandle_Close.
KOR_API korDirHandle* _korDirHandle_FirstFile(korEx* ex, uint8_t depth, const char* directory, char* name,
                                              int32_t size);

/// The next name; 0 at the end.
KOR_API uint8_t _korDirHandle_NextFile(korEx* ex, uint8_t depth, korDirHandle* handle, char* name, int32_t size);

/// Ends a walk. NULL is accepted. Works with an error pending.
KOR_API void _korDirHandle_Close(uint8_t depth, korEx* ex, korDirHandle* handle);

// ---- Paths ----------------------------------------------------------------------------------------------------------

/// Puts a random name of 8 upper-case letters and digits into KOR_FILE_TEMP_NAME_SIZE bytes. Code 6 if the source of
/// randomness fails.
KOR_API void _korFile_MakeTempFileName(korEx* ex, uint8_t depth, char* buffer);

/// The library's temporary directory: the system's, and "kor". It is not made by this call. The text lives as long as
/// the process; NULL if memory is short, or if it is longer than 259 characters. Any thread.
KOR_API const char* _korFile_GetTempKorDir(void);

/// The directory for local sockets: the same as _korFile_GetTempKorDir.
KOR_API const char* _korFile_GetSocketDir(void);

/// The format of a local socket's path, with "%s" for its name. The text lives as long as the process; NULL if memory
/// is short. Any thread.
KOR_API const char* _korFile_GetSocketFmt(void);

/// True: local sockets have names in the file system.
KOR_API bool _korFile_IsNamedLocal(void);

/// The system's directory for temporary files, with a separator at its end. Gives its length; if that does not fit, the
/// size needed, terminator included. The first two arguments are not used.
KOR_API uint32_t _korFile_GetTempPath(korEx* ex, uint8_t depth, char* buffer, uint32_t size);

/// Appends a separator, unless there is one, and `length` bytes of `name` (0: all of it) to the path in a buffer of
/// `size` bytes, cut to fit. Gives the length of the whole. An empty path gets no separator.
KOR_API uint32_t _korFile_AppendPath(korEx* ex, uint8_t depth, char* path, int32_t size, const char* name,
                                     int32_t length);

/// 1 if the path begins with a separator, or on Windows with a drive; 0 for others, the empty one and NULL. The first
/// two arguments are not used.
KOR_API uint8_t _korFile_IsAbsolutePath(korEx* ex, uint8_t depth, const char* path);

KOR_END_DECLS

#endif
