// entry.cpp (Linux) - a key of the C library for the end of threads, a destructor function for the unloading, and a
// handler of atexit that tells it from the end of the process.

#include "platform/entry.h"

#include <cstdint>
#include <dlfcn.h>
#include <pthread.h>

// The module's first and last bytes, as the linker knows them.
extern "C" {
[[gnu::visibility("hidden")]] extern const char __ehdr_start[];
[[gnu::visibility("hidden")]] extern const char _end[];

// What atexit is made of. The thread sanitizer's atexit would keep the handler when the module has gone.
[[gnu::visibility("hidden")]] extern void* __dso_handle;
int __cxa_atexit(void (*handler)(void*), void* argument, void* module);
}

namespace kor::platform {

namespace {

pthread_key_t endKey;
bool watching = false;
bool processEnds = false;

void endOfThread(void*)
{
    threadEnds();
}

void endOfProcess(void*)
{
    processEnds = true;
}

// Runs at the end of the process and when the module is unloaded, and only in the second case may anything be freed,
// since other threads run on while a process ends. The order tells the two apart: at the end of the process the
// handlers of atexit that were registered after the start come before all destructor functions; at an unloading the C
// library's own destructor function, the module's last one, runs the module's handlers.
[[gnu::destructor]] void unloaded()
{
    if (watching) {
        pthread_key_delete(endKey); // a thread that ends from here on must not jump into what is no longer there
    }
    if (!processEnds) {
        libraryUnloads();
    }
}

} // namespace

void watchEnd()
{
    // At the start of a program the loader runs the constructors of its libraries before it registers, as a handler,
    // what calls their destructor functions: a handler of that time would come too late. So it is not registered at the
    // loading, and not only once: the first call may be such a constructor's.
    if (__cxa_atexit(endOfProcess, nullptr, &__dso_handle) != 0) {
        processEnds = true; // then every unloading passes for the end of the process: something leaks, nothing breaks
    }
}

bool watchThreads()
{
    watchEnd();
    watching = pthread_key_create(&endKey, endOfThread) == 0;
    return watching;
}

bool watchThisThread()
{
    return pthread_setspecific(endKey, &endKey) == 0; // any value but NULL
}

bool keepLoaded()
{
    Dl_info self;
    return dladdr(__ehdr_start, &self) != 0 &&
           dlopen(self.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE) != nullptr;
}

bool isLibraryCode(const void* function)
{
    auto address = reinterpret_cast<uintptr_t>(function);
    return address >= reinterpret_cast<uintptr_t>(__ehdr_start) && address < reinterpret_cast<uintptr_t>(_end);
}

} // namespace kor::platform
