// failingHeap.h - an allocator that fails the n-th request that the calling thread makes through the library.
//
// The recipe is the sweep: one scenario runs with the 1st, 2nd, 3rd ... request failing until it passes.
//
//     sweepFailures(ex, [&] { ... the scenario; must clean up after itself ... });

#pragma once

#include "support/korTest.h"

#include <cstdint>
#include <functional>

namespace kor::test {

/// While one lives, the `failing`-th heap request (counting from 1) of the calling thread gives NULL, and so does every
/// later one up to `failing` + `run` - 1. The allocation family asks twice before it gives up, so `run` is 2 by
/// default: one request of the library fails.
class FailingHeap
{
public:
    explicit FailingHeap(uint64_t failing, uint64_t run = 2);
    ~FailingHeap();
    bool fired() const; ///< true once a request has been failed
    FailingHeap(const FailingHeap&) = delete;
    FailingHeap& operator=(const FailingHeap&) = delete;
};

/// Runs `scenario` with the 1st, 2nd, ... request failing until it runs through. A failed request must end in code 2,
/// and nowhere else; `ex` is cleared in between. Gives the number of requests that a whole run makes.
uint64_t sweepFailures(korEx* ex, const std::function<void()>& scenario);

} // namespace kor::test
