// failingHeap.cpp - steps between the library and the heap: on Linux the program's own malloc comes first for every
// module, on Windows the library's import table is redirected.

#include "support/failingHeap.h"

#include "korutil/korAlloc.h"

#include <cerrno>
#include <cstring>

#ifdef _WIN32
#include <malloc.h>
#include <windows.h>
#endif

namespace kor::test {
namespace {

struct Plan {
    uint64_t requests = 0; // seen so far
    uint64_t failing = 0;  // first one to fail, 0 = none
    uint64_t run = 0;      // how many fail
    bool armed = false;
    bool fired = false;
};

#ifdef _WIN32
// One plan at a time, and the number of its thread: a thread-local variable would ask the heap for its place.
Plan plan;
DWORD planner;

bool planned()
{
    return plan.armed && planner == GetCurrentThreadId();
}

void claimPlan()
{
    planner = GetCurrentThreadId();
}
#else
thread_local Plan plan;

bool planned()
{
    return plan.armed;
}

void claimPlan() {}
#endif

// True if the heap is to refuse this request.
bool refuse()
{
    if (!planned()) {
        return false;
    }
    uint64_t number = ++plan.requests;
    bool refused = number >= plan.failing && number - plan.failing < plan.run;
    plan.fired |= refused;
    if (refused) {
        errno = ENOMEM; // as the C library's own heap does: pthread_create asserts it
    }
    return refused;
}

} // namespace
} // namespace kor::test

#ifdef _WIN32

namespace kor::test {
namespace {

// The heap's own functions, as the import tables named them: by their names, this program's wrappers would call
// themselves.
decltype(&malloc) heapMalloc;
decltype(&calloc) heapCalloc;
decltype(&realloc) heapRealloc;
decltype(&_strdup) heapStrdup;
decltype(&_aligned_malloc) heapAlignedMalloc;

void* failingMalloc(size_t size)
{
    return refuse() ? nullptr : heapMalloc(size);
}
void* failingCalloc(size_t count, size_t size)
{
    return refuse() ? nullptr : heapCalloc(count, size);
}
void* failingRealloc(void* pointer, size_t size)
{
    return refuse() ? nullptr : heapRealloc(pointer, size);
}
char* failingStrdup(const char* text)
{
    return refuse() ? nullptr : heapStrdup(text);
}
void* failingAlignedMalloc(size_t size, size_t alignment)
{
    return refuse() ? nullptr : heapAlignedMalloc(size, alignment);
}

struct Redirection {
    const char* name;
    void* target;
    void* original;
};

const Redirection redirections[] = {
    {"malloc", reinterpret_cast<void*>(failingMalloc), &heapMalloc},
    {"calloc", reinterpret_cast<void*>(failingCalloc), &heapCalloc},
    {"realloc", reinterpret_cast<void*>(failingRealloc), &heapRealloc},
    {"_strdup", reinterpret_cast<void*>(failingStrdup), &heapStrdup},
    {"strdup", reinterpret_cast<void*>(failingStrdup), &heapStrdup},
    {"_aligned_malloc", reinterpret_cast<void*>(failingAlignedMalloc), &heapAlignedMalloc},
};

void redirect(IMAGE_THUNK_DATA* slot, const char* name)
{
    for (const Redirection& redirection : redirections) {
        if (std::strcmp(redirection.name, name) == 0) {
            std::memcpy(redirection.original, &slot->u1.Function, sizeof(void*));
            DWORD before;
            VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &before);
            slot->u1.Function = reinterpret_cast<ULONGLONG>(redirection.target);
            VirtualProtect(slot, sizeof *slot, before, &before);
        }
    }
}

// Walks a module's import table and puts the wrappers in the place of the heap's functions.
void redirectImports(HMODULE module)
{
    auto* base = reinterpret_cast<uint8_t*>(module);
    auto* headers = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    DWORD directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    auto* import = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + directory);
    for (; import->Name != 0; import++) {
        auto* name = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->OriginalFirstThunk);
        auto* slot = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->FirstThunk);
        for (; name->u1.AddressOfData != 0; name++, slot++) {
            if (!IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal)) {
                redirect(slot, reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData)->Name);
            }
        }
    }
}

void install()
{
    static bool installed =
        (redirectImports(GetModuleHandleA("korutil.dll")), redirectImports(GetModuleHandleA(nullptr)), true);
    (void)installed;
}

} // namespace
} // namespace kor::test

#else

// A sanitizer's heap refuses an impossible request as any heap does, and does not end the program.
extern "C" {
const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
const char* __tsan_default_options()
{
    return "allocator_may_return_null=1";
}

// What the dynamic linker keeps of a library that stays. It is known for the linker's by its caller, which is us.
const char* __lsan_default_suppressions()
{
    return "leak:_dl_map_object_deps";
}
}

// The heap behind this one: a sanitizer's if the program has one, else the C library's.
extern "C" {
__attribute__((weak)) void* __interceptor_malloc(size_t size);
__attribute__((weak)) void* __interceptor_calloc(size_t count, size_t size);
__attribute__((weak)) void* __interceptor_realloc(void* pointer, size_t size);
__attribute__((weak)) void* __interceptor_aligned_alloc(size_t alignment, size_t size);
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size)
{
    if (kor::test::refuse()) {
        return nullptr;
    }
    return __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    if (kor::test::refuse()) {
        return nullptr;
    }
    return __interceptor_calloc != nullptr ? __interceptor_calloc(count, size) : __libc_calloc(count, size);
}

void* realloc(void* pointer, size_t size)
{
    if (kor::test::refuse()) {
        return nullptr;
    }
    return __interceptor_realloc != nullptr ? __interceptor_realloc(pointer, size) : __libc_realloc(pointer, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    if (kor::test::refuse()) {
        return nullptr;
    }
    return __interceptor_aligned_alloc != nullptr ? __interceptor_aligned_alloc(alignment, size)
                                                  : __libc_memalign(alignment, size);
}
}

namespace kor::test {
static void install() {}
} // namespace kor::test

#endif

namespace kor::test {

FailingHeap::FailingHeap(uint64_t failing, uint64_t run)
{
    install();
    claimPlan();
    plan = {0, failing, run, true, false};
}

FailingHeap::~FailingHeap()
{
    plan.armed = false;
}

bool FailingHeap::fired() const
{
    return plan.fired;
}

// What a process and a thread ask for once: the debug allocator's settings, the thread's name.
static void warmUp(korEx* ex)
{
    _kor_free(KOR_AT_D(0, ex), _kor_malloc(KOR_AT(ex, 0), 1));
    KOR_RAISE(ex, 0, KOR_ERROR_EXCEPTION, nullptr);
    korEx_Clear(ex);
}

uint64_t sweepFailures(korEx* ex, const std::function<void()>& scenario)
{
    constexpr uint64_t limit = 100000; // a scenario that needs more is a mistake
    warmUp(ex);
    for (uint64_t failing = 1; failing < limit; failing++) {
        FailingHeap heap(failing);
        scenario();
        if (!heap.fired()) {
            EXPECT_TRUE(clean(ex));
            return failing - 1;
        }
        EXPECT_TRUE(ex->code == KOR_ERROR_NO_MEMORY || ex->code == 0) << describe(ex);
        korEx_Clear(ex);
    }
    ADD_FAILURE() << "the scenario never ran through";
    return limit;
}

} // namespace kor::test
