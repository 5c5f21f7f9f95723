// error.h - the system's last-error state, its error numbers and their texts.

#pragma once

#include <cstdint>

namespace kor::platform {

/// The calling thread's last-error values: errno, and on Windows the thread's two.
struct LastErrors {
    int runtime;     ///< errno
    uint32_t system; ///< GetLastError, 0 on Linux
    int32_t sockets; ///< WSAGetLastError, 0 on Linux
};

LastErrors lastErrors();                         ///< reads all of them, disturbing none
void restoreLastErrors(const LastErrors& saved); ///< puts them back

int32_t lastSystemError();              ///< the number of the last failed system call: GetLastError, errno on Linux
void setLastSystemError(int32_t error); ///< sets that number, as a backend does after its own work

/// The system's text for a number, in one line and terminated; false, and an empty text, if it has none. On Linux
/// negative numbers are the resolver's.
bool errorText(int32_t error, char* buffer, uint32_t size);

// Numbers that a rule compares with, as this system spells them.
extern const int32_t errorAlreadyExists; ///< something of that name was there already
extern const int32_t errorTimedOut;      ///< a wait ran into its limit

} // namespace kor::platform
