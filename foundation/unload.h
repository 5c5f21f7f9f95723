// unload.h - giving back what otherwise lives as long as the process, when the library leaves a process that goes on.

#pragma once

namespace kor {

/// A family's part of the unloading: a static of that family.
struct UnloadStep {
    void (*run)();
    UnloadStep* next;
};

/// Has `step.run` called when the library is unloaded, those hooked in last first; not at the end of the process. A
/// family calls it once, when it first takes what only the unloading gives back. By the time the steps run all
/// destructors of thread-local values have run that ever will, and no other thread is in the library; thread-local
/// values, locks and the heap are still in order.
void atUnload(UnloadStep& step);

} // namespace kor
