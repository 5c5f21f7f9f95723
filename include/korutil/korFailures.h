// korFailures.h - failure injection: named points of a program that misbehave at will, with no rebuild.
//
// A program offers a point by a check; a configuration, given as a file or in line, says which points fire and when.
//
//     if (fmInitialized && _korFailures_Check(KOR_AT(ex, depth), "store.write"))
//         return;                                     // the failure path that a test wants to see
//
//     _korFailures_Open(KOR_AT(ex, depth), "buf:{\"failures\":[{\"name\":\"store.write\","
//                                          "\"interval\":3,\"num_of_failures\":2,\"skip\":true}]}");
//
// The configuration is a JSON object whose first member is "failures", an array of objects with these members:
//
//     "name"             the point
//     "onoffile"         a path: while a file of that name exists, each check fires, whatever else is said
//     "num_of_failures"  how often the point fires; without it only "onoffile" makes it fire
//     "interval"         fires on each check whose number is a multiple of it
//     "offset"           fires on each check from this number on
//     "chance"           above 0, up to 1: the chance that a check does NOT fire. Any other discards the entry
//     "delay"            milliseconds to sleep on firing
//     "skip"             true: the check reports true
//     "abort"            true: the process ends, in order, with exit code 1
//     "enable"           false discards the entry
//
// Members are read in order: one that discards its entry does so at once. An entry without a name is refused. A text of
// 4096 bytes or more, and a file that cannot be opened, leave a statement of component 50 and load nothing.

#ifndef KORUTIL_KORFAILURES_H
#define KORUTIL_KORFAILURES_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// 1 from the end of _korFailures_Open to _korFailures_Close: a call site may test it in line and spare itself the
/// call.
KOR_DATA uint8_t fmInitialized;

/// Loads a configuration: a path, or the text itself behind "buf:". A further call adds to what is there, and a name
/// that is there already is replaced. Checks may go on meanwhile. Errors: code 10 after _korFailures_Close; code 1
/// "Invalid json string" for a text that is no JSON object or has 4096 bytes or more once read; code 2; code 9 or 8 for
/// a file that cannot be opened, code 15 if it cannot be read.
KOR_API void _korFailures_Open(korEx* ex, uint8_t depth, const char* text);

/// Forgets all failures. Does nothing if none were loaded. Works with an error pending. No check may run meanwhile.
/// Called as the library stops.
KOR_API void _korFailures_Close(uint8_t depth, korEx* ex);

/// Asks whether the point `name` is to misbehave now; it may sleep, or end the process. True if the caller is to skip
/// what it guards. False with an error pending, or if nothing is configured: that costs a test of a pointer. Any
/// thread.
KOR_API bool _korFailures_Check(korEx* ex, uint8_t depth, const char* name);

KOR_END_DECLS

#endif
