// korLib.h - opening and closing: of this library, and of any library that is built on it; and the version.
//
// Opens are counted: the first one starts the subsystems, the last close stops them, and a later open starts them anew.
//
// Recipe of use:
//
//     _korutil_Open(KOR_AT(ex, depth), KORUTIL_LEVEL);
//     ...
//     _korutil_Close(KOR_AT_D(depth, ex));
//
// A library on top of this one has a static korLib with an `open` that calls _korutil_Open and what else it needs, a
// `close` that undoes it, and two exported functions of its own around _korLib_Open and _korLib_Close.

#ifndef KORUTIL_KORLIB_H
#define KORUTIL_KORLIB_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// The interface level of this library, for _korutil_Open.
#define KORUTIL_LEVEL 3

/// Opens or closes what a library consists of.
typedef void (*korLibFunction)(korEx* ex, uint8_t depth);

/// The open state of one library. A static of that library, with a count of 0.
typedef struct korLib {
    uint64_t openCount;   ///< atomic: how many times the library is open
    korLibFunction open;  ///< called when the count goes from 0 to 1
    korLibFunction close; ///< called when the count goes from 1 to 0
} korLib;

// ---- Any library ----------------------------------------------------------------------------------------------------

/// Opens `lib` once more. The first open calls `lib->open`, under a lock that all libraries share: nobody finds a
/// library half open. If `lib->open` fails the count stays at 1, and a close is due as after a success. A `lib` of NULL
/// does nothing, and so does a call with an error pending. Code 13 "library has incompatible version." if `requested`
/// is not exactly `own`. Any thread.
KOR_API void _korLib_Open(korEx* ex, uint8_t depth, korLib* lib, int32_t requested, int32_t own);

/// Closes `lib` once; the last close calls `lib->close` under the lock. Without an open, or with a `lib` of NULL, it
/// does nothing. Works with an error pending.
KOR_API void _korLib_Close(korEx* ex, uint8_t depth, korLib* lib);

// ---- This library ---------------------------------------------------------------------------------------------------

/// Opens this library once more; see _korLib_Open. `requested` is KORUTIL_LEVEL, the level that the caller was built
/// for. What a subsystem's start raises is raised here.
KOR_API void _korutil_Open(korEx* ex, uint8_t depth, int32_t requested);

/// Closes this library once; see _korLib_Close. The last close waits for the jobs of the global executors and stops the
/// subsystems. Works with an error pending.
KOR_API void _korutil_Close(uint8_t depth, korEx* ex);

/// Keeps the subsystems up beyond the caller's open. The library must have been opened before.
KOR_API void _korutil_Retain(uint8_t depth, korEx* ex);

/// Undoes one _korutil_Retain; without one it does nothing. The last release stops the subsystems. On a thread of a
/// global executor, which cannot stop what it runs on, that is left to a thread of its own, "Offloaded korutil
/// release"; if none can be started the error is printed to standard output, and the subsystems stay up.
KOR_API void _korutil_Release(uint8_t depth, korEx* ex);

// ---- The version ----------------------------------------------------------------------------------------------------

KOR_API int32_t _korutil_version_major_num(void);          ///< 6
KOR_API int32_t _korutil_version_minor_num(void);          ///< 5
KOR_API const char* _korutil_version_major_string(void);   ///< "6"
KOR_API const char* _korutil_version_minor_string(void);   ///< "5"
KOR_API const char* _korutil_version_string_compare(void); ///< "6.5.0  ": for comparing builds, with its two blanks
KOR_API const char* _korutil_version_string_short(void);   ///< "6.5.0   V8"
KOR_API const char* _korutil_version_string_long(void);    ///< "KORVA Utilities Version 6.5.0   V8"
/// The long form and the maker's notice, each line with its newline.
KOR_API const char* _korutil_version_banner(void);

/// Takes "major.minor.release" apart, each number modulo 256. False if an argument is NULL or a dot is missing; what
/// stands before the missing dot is stored all the same. Digits are not checked: a number that is none is 0.
KOR_API bool _korutil_version_string_parse(const char* version, uint8_t* major, uint8_t* minor, uint8_t* release);

/// True if the version that a library has is at least the one that a caller needs.
KOR_API bool _korutil_version_matches(uint8_t major, uint8_t minor, uint8_t release, uint8_t neededMajor,
                                      uint8_t neededMinor, uint8_t neededRelease);

KOR_END_DECLS

#endif
