// korProcess.h - the environment, and facts about the process and its system.
//
// None of these takes a korEx; they report by the result. The environment belongs to the whole process: changing it
// while another thread reads it is the caller's to avoid. Everything else may be called by any thread.

#ifndef KORUTIL_KORPROCESS_H
#define KORUTIL_KORPROCESS_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

/// The least buffer for the names below: user, group, system.
#define KOR_NAME_SIZE 512

/// The value of an environment variable, or NULL if there is none. The text belongs to the environment and lives until
/// the variable changes.
KOR_API const char* _kor_getenv(const char* name);

/// Sets an environment variable; an empty value removes it. 0 on success, else the C library's error number: EINVAL for
/// a NULL value and for a name that is NULL, empty or has a "=" in it.
KOR_API int32_t _kor_setenv(const char* name, const char* value);

/// Removes an environment variable; one that is not there is no error. Result as for _kor_setenv.
KOR_API int32_t _kor_unsetenv(const char* name);

/// The process's id.
KOR_API uint32_t _kor_GetProcessId(void);

/// The name of the user that started the process. False, with the buffer untouched, if `size` is under KOR_NAME_SIZE,
/// or if the system does not tell. On Linux a user without a name has its number as name.
KOR_API bool _kor_GetSystemUser(char* buffer, uint32_t size);

/// The name of the user with whose rights the process runs. Always false on Windows, which has no such notion. Else as
/// _kor_GetSystemUser.
KOR_API bool _kor_GetEffectiveUser(char* buffer, uint32_t size);

/// The name of the group of the user that started the process. Always false on Windows. Else as _kor_GetSystemUser.
KOR_API bool _kor_GetSystemGroup(char* buffer, uint32_t size);

/// The name of the group with whose rights the process runs. Always false on Windows. Else as _kor_GetSystemUser.
KOR_API bool _kor_GetEffectiveGroup(char* buffer, uint32_t size);

/// The name of the system for display. On Windows the version as the system tells it to this program, such as
/// "Windows 7 (Service Pack 1)" or "Windows Server 2016"; on Linux the distribution's own name for itself, else the
/// kernel's name and release. True if anything was written; false, with the buffer untouched, if `size` is under
/// KOR_NAME_SIZE.
KOR_API bool _kor_GetSystemName(char* buffer, uint32_t size);

/// The processor time that the process has used so far in user mode, in kernel mode, and the sum, in microseconds.
/// False, with nothing written, if the system does not tell.
KOR_API bool _kor_GetProcessCPUTime(uint64_t* user, uint64_t* kernel, uint64_t* total);

/// The memory that the process uses, in KiB, rounded up: what lies in main memory now, the most that ever did, and what
/// no other process shares (on Linux anonymous memory, swapped out or not). False, with nothing written, if the system
/// does not tell.
KOR_API bool _kor_GetProcessMemoryUsage(uint64_t* workingSet, uint64_t* peakWorkingSet, uint64_t* privateBytes);

KOR_END_DECLS

#endif
