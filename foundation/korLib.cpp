// korLib.cpp - the counted start and stop of this library and of those built on it, the version, and what happens when
// a thread ends or the library is unloaded.
//
// Two locks: the library lock, then the retain lock. Neither is ever given back while the library is loaded.

#include "korutil/korLib.h"
#include "foundation/request.h"

#include "foundation/unload.h"
#include "korutil/korAffinity.h"
#include "korutil/korAlloc.h"
#include "korutil/korBuffer.h"
#include "korutil/korExecutor.h"
#include "korutil/korFailures.h"
#include "korutil/korMutex.h"
#include "korutil/korObjectMap.h"
#include "korutil/korRand.h"
#include "korutil/korRefDpa.h"
#include "korutil/korSocket.h"
#include "korutil/korThread.h"
#include "korutil/korTimer.h"
#include "platform/entry.h"
#include "sync/threadStore.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kor {
namespace {

#define KOR_VERSION "6.5.0"

korThreadOnce libraryOnce;
korMutex libraryLock;

korMutex retainLock;
uint8_t retainLockMade = 0; // atomic
uint32_t retainCount = 0;   // guarded by retainLock

UnloadStep* unloadSteps = nullptr; // atomic: the step hooked in last

class MutexGuard
{
public:
    explicit MutexGuard(korMutex& mutex) : mutex_(mutex) { korMutex_enter(&mutex_); }
    ~MutexGuard() { korMutex_leave(&mutex_); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    korMutex& mutex_;
};

void _korlibonce_init()
{
    KOR_EX_LOCAL(ex);
    _korMutex_Init(KOR_AT(&ex, 0), &libraryLock);
}

bool canRetain()
{
    return std::atomic_ref(retainLockMade).load(std::memory_order_acquire) != 0;
}

// ---- Start and stop -------------------------------------------------------------------------------------------------

void startSubsystems(korEx* ex, uint8_t depth)
{
    _korEx_Open(KOR_AT(ex, depth));
    _korMutex_Open(KOR_AT(ex, depth));
    _korObjectMap_Open(KOR_AT(ex, depth));
    _korAffinity_Open(KOR_AT(ex, depth));
    _korThread_InitThreads(KOR_AT(ex, depth));
    _korExecutor_Open(KOR_AT(ex, depth));
    _korTimer_Open(KOR_AT(ex, depth));
    _korBuffer_CreatePool(KOR_AT(ex, depth));
    _korRefDpa_Open(KOR_AT(ex, depth));
    _korRand_Open(KOR_AT(ex, depth));
    _korSocket_Startup(KOR_AT(ex, depth));
}

// Not the start backwards: mutexes, the object map, the threads' module and counted arrays have no stop, so that a
// later open finds them.
void stopSubsystems(uint8_t depth, korEx* ex)
{
    _korSocket_Cleanup(KOR_AT_D(depth, ex));
    _korRand_Close(KOR_AT_D(depth, ex));
    _korBuffer_DestroyPool(KOR_AT(ex, depth));
    _korTimer_Close(KOR_AT_D(depth, ex));
    _korExecutor_Close(KOR_AT(ex, depth));
    _korFailures_Close(KOR_AT_D(depth, ex));
    _korAffinity_Close(KOR_AT_D(depth, ex));
    _korEx_Close(KOR_AT(ex, depth));
}

// ---- A release by a worker ------------------------------------------------------------------------------------------

struct Holder {
    korThread* thread;
};

uint64_t _offloadedRelease(void* argument)
{
    KOR_EX_LOCAL(ex);
    auto* holder = static_cast<Holder*>(argument);
    _korutil_Release(KOR_AT_D(0, &ex)); // gets the retain lock when the holder is filled
    korThread* own = holder->thread;
    _kor_free(KOR_AT_D(0, &ex), holder);
    _korThread_Destroy(KOR_AT_D(0, &ex), own);
    return 0;
}

void printWhole(uint8_t depth, korEx* ex)
{
    char* text = nullptr;
    _korEx_PrintException(ex, &text, 0, 1);
    if (text != nullptr) {
        printf("%s\n", text);
        _kor_free(KOR_AT_D(depth, ex), text);
    }
}

// Under the retain lock, with the count raised again.
void offloadRelease(uint8_t depth, korEx* ex)
{
    if (ex->code == 0) {
        auto* holder = requestZeroed<Holder>(KOR_AT(ex, depth));
        korThread* thread =
            _korThread_Create(KOR_AT(ex, depth), _offloadedRelease, holder, 5, "Offloaded korutil release");
        if (thread != nullptr) {
            holder->thread = thread;
            _korThread_Detach(KOR_AT(ex, depth), thread);
        } else {
            _kor_free(KOR_AT_D(depth, ex), holder);
        }
    }
    if (ex->code != 0) {
        printWhole(KOR_AT_D(depth, ex));
    }
}

// ---- This library's own state ---------------------------------------------------------------------------------------

// The only place that waits for jobs under way before things begin to stop: a release by itself does not.
void _korutil_Shutdown(uint8_t depth, korEx* ex)
{
    _korExecutor_DrainGlobalExecutors(KOR_AT_D(depth, ex));
    _korutil_Release(KOR_AT_D(depth, ex));
}

void _korutil_internal_open(korEx* ex, uint8_t depth)
{
    if (!canRetain()) {
        _korMutex_Init(KOR_AT(ex, depth), &retainLock);
        std::atomic_ref(retainLockMade).store(1, std::memory_order_release);
    }
    _korutil_Retain(KOR_AT_D(depth, ex));
}

void _korutil_internal_close(korEx* ex, uint8_t depth)
{
    _korutil_Shutdown(KOR_AT_D(depth, ex));
}

korLib korutilLib = {0, _korutil_internal_open, _korutil_internal_close};

} // namespace

// ---- Ends -----------------------------------------------------------------------------------------------------------

void threadEnds()
{
    _runDestructors();
}

void atUnload(UnloadStep& step)
{
    std::atomic_ref first(unloadSteps);
    step.next = first.load();
    while (!first.compare_exchange_weak(step.next, &step)) {
    }
}

// Values go first, since their destructors are code of the families; the store last, since all else rests on it.
void libraryUnloads()
{
    endThreadValues();
    while (UnloadStep* step = std::atomic_ref(unloadSteps).exchange(nullptr)) {
        while (step != nullptr) {
            UnloadStep* next =
                step->next; // a step may bring one back that has run: an error asks for the program's name
            step->run();
            step = next;
        }
    }
    freeThreadStore();
}

} // namespace kor

using namespace kor;

void _korLib_Open(korEx* ex, uint8_t depth, korLib* lib, int32_t requested, int32_t own)
{
    if (lib == nullptr || ex->code != 0) {
        return;
    }
    if (requested != own) {
        KOR_RAISE(ex, depth, KOR_ERROR_INCOMPATIBLE_LIBRARY, "library has incompatible version.");
        return;
    }
    _korThread_Once(KOR_AT(ex, depth), &libraryOnce, _korlibonce_init);
    MutexGuard guard(libraryLock);
    if (std::atomic_ref(lib->openCount).fetch_add(1) == 0) {
        lib->open(KOR_AT(ex, depth));
    }
}

void _korLib_Close(korEx* ex, uint8_t depth, korLib* lib)
{
    if (lib == nullptr) {
        return;
    }
    KOR_EX_PRIVATE(local, ex, depth); // the lock must be there with an error pending, too
    _korThread_Once(KOR_AT(&local, depth), &libraryOnce, _korlibonce_init);
    MutexGuard guard(libraryLock);
    std::atomic_ref count(lib->openCount);
    if (count.load() != 0 && count.fetch_sub(1) == 1) {
        lib->close(KOR_AT(ex, depth));
    }
}

void _korutil_Open(korEx* ex, uint8_t depth, int32_t requested)
{
    _korLib_Open(KOR_AT(ex, depth), &korutilLib, requested, KORUTIL_LEVEL);
}

void _korutil_Close(uint8_t depth, korEx* ex)
{
    _korLib_Close(KOR_AT(ex, depth), &korutilLib);
}

void _korutil_Retain(uint8_t depth, korEx* ex)
{
    if (!canRetain()) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_INITIALIZED, NULL);
        return;
    }
    MutexGuard guard(retainLock);
    if (retainCount++ == 0) {
        startSubsystems(KOR_AT(ex, depth));
    }
}

void _korutil_Release(uint8_t depth, korEx* ex)
{
    if (!canRetain()) {
        return;
    }
    MutexGuard guard(retainLock);
    if (retainCount == 0 || --retainCount != 0) {
        return;
    }
    if (_korExecutor_IsCurrentThreadInAnyGlobalExecutor(KOR_AT_D(depth, ex))) {
        retainCount++; // the stop would wait for this very thread
        offloadRelease(KOR_AT_D(depth, ex));
    } else {
        stopSubsystems(KOR_AT_D(depth, ex));
    }
}

int32_t _korutil_version_major_num(void)
{
    return 6;
}

int32_t _korutil_version_minor_num(void)
{
    return 5;
}

const char* _korutil_version_major_string(void)
{
    return "6";
}

const char* _korutil_version_minor_string(void)
{
    return "5";
}

const char* _korutil_version_string_compare(void)
{
    return KOR_VERSION "  ";
}

const char* _korutil_version_string_short(void)
{
    return KOR_VERSION "   V8";
}

const char* _korutil_version_string_long(void)
{
    return "KORVA Utilities Version " KOR_VERSION "   V8";
}

const char* _korutil_version_banner(void)
{
    return "KORVA Utilities Version " KOR_VERSION "   V8\n"
           "Utilities for messaging: threads, containers, queues, sockets.\n"
           "All rights are those of the makers of korutil.\n";
}

bool _korutil_version_string_parse(const char* version, uint8_t* major, uint8_t* minor, uint8_t* release)
{
    if (version == nullptr || major == nullptr || minor == nullptr || release == nullptr) {
        return false;
    }
    *major = static_cast<uint8_t>(atoi(version));
    const char* dot = strchr(version, '.');
    if (dot == nullptr) {
        return false;
    }
    *minor = static_cast<uint8_t>(atoi(dot + 1));
    dot = strchr(dot + 1, '.');
    if (dot == nullptr) {
        return false;
    }
    *release = static_cast<uint8_t>(atoi(dot + 1));
    return true;
}

bool _korutil_version_matches(uint8_t major, uint8_t minor, uint8_t release, uint8_t neededMajor, uint8_t neededMinor,
                              uint8_t neededRelease)
{
    if (major != neededMajor) {
        return major > neededMajor;
    }
    if (minor != neededMinor) {
        return minor > neededMinor;
    }
    return release >= neededRelease;
}
