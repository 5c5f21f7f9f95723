// mutex.h - the beginning and the end of a mutex; entering and leaving stand in line in korMutex.h.

#pragma once

#include "korutil/korMutex.h"

namespace kor::platform {

void mutexInit(korMutex* mutex);  ///< makes a free mutex; cannot fail
void mutexClear(korMutex* mutex); ///< gives the system back what a mutex that nobody holds may own

} // namespace kor::platform
