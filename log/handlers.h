// handlers.h - the kinds of log handlers: their records, how each is made and closed.
//
// A record is the head, in an Ex handler the log key, and the kind's own fields. The plain and the Ex form of a kind
// share their code; what differs is told where it stands.
//
// Making (ex, depth) gives a zeroed record with its operations, or NULL. The logger fills the layout and opens it. A
// record that failed to open is closed like any other. The mutex serialises `log`, which has no exception object.

#pragma once

#include "korutil/korDpa.h"
#include "korutil/korHandler.h"
#include "korutil/korMutex.h"

#include <cstdio>

namespace kor::logging {

struct PlainForm {
    korHandler handler;
};

struct KeyedForm {
    korHandler handler;
    uint64_t logKey;
};

/// Writes to the standard error stream, which stays open.
template <typename Form>
struct ConsoleHandler {
    Form form;
    FILE* stream;
    korMutex* mutex;
};

/// Calls "logCallback".
template <typename Form>
struct CallbackHandler {
    Form form;
    korMutex* mutex;
    korLogCallback callback;
};

/// Writes to "filenamePrefix".0; see rollIfNeeded.
template <typename Form>
struct RollingFileHandler {
    Form form;
    FILE* stream;
    char* filenamePrefix; ///< owned
    uint64_t maxSize;
    int32_t maxFiles;
    korMutex* mutex;
};

/// Writes to "filename", opened in "mode" ("a" if absent).
struct FileHandler {
    korHandler handler;
    FILE* stream;
    korMutex* mutex;
};

/// Writes to a file named "prefix", date of its opening, "postfix" (empty if absent).
struct DatedFileHandler {
    korHandler handler;
    FILE* stream;
    char* prefix;  ///< owned
    char* postfix; ///< owned
    korMutex* mutex;
};

/// Appends copies of statements to the korDpa "target", whose owner frees them with _kor_free.
struct DpaHandler {
    korHandler handler;
    korMutex* mutex;
    korDpa* target;
};

korHandler* _korConsoleHandler_Create(korEx* ex, uint8_t depth);
korHandler* _korConsoleHandler_CreateEx(korEx* ex, uint8_t depth);
/// Does nothing with an error pending, unlike all the others.
void _korConsoleHandler_ClosePrivate(korEx* ex, uint8_t depth, korHandler* handler);
void _korConsoleHandler_ClosePrivateEx(korEx* ex, uint8_t depth, korHandler* handler);

korHandler* _korCallbackHandler_Create(korEx* ex, uint8_t depth);
korHandler* _korCallbackHandler_CreateEx(korEx* ex, uint8_t depth);
void _korCallbackHandler_ClosePrivate(korEx* ex, uint8_t depth, korHandler* handler);
void _korCallbackHandler_ClosePrivateEx(korEx* ex, uint8_t depth, korHandler* handler);

korHandler* _korRollingFileHandler_Create(korEx* ex, uint8_t depth);
korHandler* _korRollingFileHandler_CreateEx(korEx* ex, uint8_t depth);
void _korRollingFileHandler_ClosePrivate(korEx* ex, uint8_t depth, korHandler* handler);
void _korRollingFileHandler_ClosePrivateEx(korEx* ex, uint8_t depth, korHandler* handler);

korHandler* _korFileHandler_Create(korEx* ex, uint8_t depth);
void _korFileHandler_Close(korEx* ex, uint8_t depth, korHandler* handler);

korHandler* _korDatedFileHandler_Create(korEx* ex, uint8_t depth);
void _korDatedFileHandler_Close(korEx* ex, uint8_t depth, korHandler* handler);
/// Opens the file if it is not open, without a statement; true if it is open now.
bool _korDatedFileHandler_OpenFile(korHandler* handler);

korHandler* _korDpaHandler_Create(korEx* ex, uint8_t depth);
void _korDpaHandler_Close(korEx* ex, uint8_t depth, korHandler* handler);

korHandler* _korNullHandler_Create(korEx* ex, uint8_t depth);
void _korNullHandler_Close(korEx* ex, uint8_t depth, korHandler* handler);

} // namespace kor::logging
