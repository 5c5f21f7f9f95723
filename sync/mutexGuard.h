// mutexGuard.h - holds a korMutex until the end of the scope.

#pragma once

#include "korutil/korMutex.h"

namespace kor {

class MutexGuard
{
public:
    explicit MutexGuard(korMutex* mutex) : mutex_(mutex) { korMutex_enter(mutex_); }
    ~MutexGuard() { korMutex_leave(mutex_); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    korMutex* mutex_;
};

} // namespace kor
