// random.h - the system's source of random bytes.

#pragma once

#include <cstdint>

namespace kor::platform {

bool openRandom();                              ///< false, with the last system error set, if there is no source
bool closeRandom();                             ///< gives the source back; true if that worked, or none was open
bool fillRandom(void* buffer, uint32_t length); ///< false, with the last system error set, if no bytes came

} // namespace kor::platform
