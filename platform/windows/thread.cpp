// thread.cpp (Windows) - the system's threads, started through the C runtime.

#include "platform/thread.h"

#include <cstring>
#include <process.h>
#include <windows.h>

namespace kor::platform {

namespace {

constexpr DWORD nameException = 0x406D1388; // what debuggers know as "this thread has a name"

LONG CALLBACK dropNameException(EXCEPTION_POINTERS* pointers)
{
    return pointers->ExceptionRecord->ExceptionCode == nameException ? EXCEPTION_CONTINUE_EXECUTION
                                                                     : EXCEPTION_CONTINUE_SEARCH;
}

} // namespace

bool threadStart(ThreadRoutine routine, void* argument, uint32_t stackSize, void** handle, uint32_t* id)
{
    unsigned number = 0;
    uintptr_t thread = _beginthreadex(nullptr, stackSize, routine, argument, 0, &number);
    if (thread == 0) {
        return false;
    }
    *handle = reinterpret_cast<void*>(thread);
    *id = number;
    return true;
}

void threadJoin(void** handle)
{
    WaitForSingleObject(*handle, INFINITE);
}

void threadClose(void** handle)
{
    CloseHandle(*handle);
}

bool threadIsCurrent(void**, uint32_t id)
{
    return id == threadId(); // a number does not come again while a handle stands for it
}

uint32_t threadId()
{
    return GetCurrentThreadId();
}

void threadName(const char* name)
{
    if (IsDebuggerPresent() == 0) {
        return;
    }
    const ULONG_PTR arguments[] = {0x1000, reinterpret_cast<ULONG_PTR>(name), static_cast<ULONG_PTR>(-1)};
    void* handler = AddVectoredExceptionHandler(1, dropNameException);
    RaiseException(nameException, 0, 3, arguments);
    if (handler != nullptr) {
        RemoveVectoredExceptionHandler(handler);
    }
}

bool programName(char* buffer, uint32_t size)
{
    char path[512];
    DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    if (length == 0) {
        return false;
    }
    path[sizeof path - 1] = '\0';
    const char* name = path;
    for (const char* at = path; *at != '\0'; at++) {
        if (*at == '\\' || *at == ':') {
            name = at + 1;
        }
    }
    strncpy(buffer, name, size - 1);
    buffer[size - 1] = '\0';
    return true;
}

} // namespace kor::platform
