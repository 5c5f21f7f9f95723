// threadStore.h - the thread-local store from within: keys and values without destructors, which the threads' own
// values need, and what is left to do when a thread ends or the library is unloaded.

#pragma once

#include "korutil/korThreadLocal.h"

namespace kor {

/// Sets the store up. Part of the threads' once-routine: everything else here and in korThreadLocal.h comes after it.
void _korThreadLocal_InitProcess(korEx* ex, uint8_t depth);

/// The calling thread's values, made if needed. NULL on an error.
uint64_t* _korThreadLocal_InitThread(korEx* ex, uint8_t depth);

/// A key without a destructor; see _korThreadLocal_Create.
int32_t _korThreadLocal_CreateRaw(korEx* ex, uint8_t depth);

/// Sets a value and registers nothing; see _korThreadLocal_Set.
void _korThreadLocal_SetRaw(korEx* ex, uint8_t depth, int32_t key, uint64_t value);

/// Room of KOR_THREAD_NAME_SIZE bytes that lives as long as the calling thread's values; NULL if it has none.
char* threadNameRoom();

/// Ends all that the calling thread has in the store.
void _runDestructors();

/// Ends what the threads still have in the store that go on without the library, and the values of the calling thread.
/// Before anything that destructors might need goes.
void endThreadValues();

/// Frees the store itself, at the unloading of the library.
void freeThreadStore();

} // namespace kor
