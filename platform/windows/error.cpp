// error.cpp (Windows) - the thread's two last-error values; texts come from the system's message table.

#include "platform/error.h"

#include <cerrno>
#include <cstdio>
#include <winsock2.h>

#include <windows.h>

namespace kor::platform {

LastErrors lastErrors()
{
    int32_t sockets = WSAGetLastError(); // first: the sockets library may share its slot with the system's
    uint32_t system = GetLastError();
    return {errno, system, sockets};
}

void restoreLastErrors(const LastErrors& saved)
{
    errno = saved.runtime;
    SetLastError(saved.system);
    WSASetLastError(saved.sockets);
}

int32_t lastSystemError()
{
    return static_cast<int32_t>(GetLastError());
}

void setLastSystemError(int32_t error)
{
    SetLastError(static_cast<DWORD>(error));
}

bool errorText(int32_t error, char* buffer, uint32_t size)
{
    if (size == 0) {
        return false;
    }
    char text[512] = ""; // the system gives nothing rather than the part that fits
    DWORD language = MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT);
    DWORD flags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK;
    DWORD length = FormatMessageA(flags, nullptr, static_cast<DWORD>(error), language, text, sizeof text, nullptr);
    std::snprintf(buffer, size, "%s", text);
    return length != 0;
}

const int32_t errorAlreadyExists = ERROR_ALREADY_EXISTS;
const int32_t errorTimedOut = WAIT_TIMEOUT;

} // namespace kor::platform
