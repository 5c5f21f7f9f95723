// chain.h - handing on an error that was kept private at first.

#pragma once

#include "korutil/korEx.h"

namespace kor {

/// Gives the error of a local object that was made with KOR_EX_PRIVATE to the caller's object after all, with its
/// trace, as if the local object had been chained from the start. Does nothing without an error.
void passToChain(korEx* local);

} // namespace kor
