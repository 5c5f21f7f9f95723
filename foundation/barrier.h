// barrier.h - a full memory barrier: what this thread stored before it is visible to all before it loads what follows.

#pragma once

#include <atomic>

namespace kor {

/// A locked operation on a word that nobody else sees. It orders plain and relaxed accesses around it as well; a fence
/// of the language would too, but the thread sanitizer does not know fences.
inline void fullBarrier()
{
    std::atomic<int> word = 0;
    word.exchange(1);
}

} // namespace kor
