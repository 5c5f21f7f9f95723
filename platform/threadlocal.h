// threadlocal.h - the one pointer for each thread that the thread-local store is laid over; reading it stands in line
// in korThreadLocal.h.

#pragma once

#include <cstdint>

namespace kor::platform {

bool slotCreate(int32_t* info);              ///< makes the slot, NULL in all threads; false if the system has none left
void slotDestroy(int32_t info);              ///< gives it back
bool slotSet(int32_t info, uint64_t* value); ///< sets the calling thread's pointer; false if the system has no memory

} // namespace kor::platform
