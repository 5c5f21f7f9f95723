// thread.cpp (Linux) - POSIX threads. The state of a handle's joining is in its two lowest bits: a handle is a pointer
// to a record that is aligned to more than that.

#include "platform/thread.h"

#include "platform/linux/futex.h"

#include <atomic>
#include <climits>
#include <cstring>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kor::platform {

namespace {

constexpr uintptr_t joining = 1; // a thread is in pthread_join
constexpr uintptr_t joined = 2;  // the thread and its handle are gone
constexpr uintptr_t stateBits = 3;

constexpr char removedMark[] = " (deleted)"; // what the system adds to the name of a program that was replaced

constexpr size_t smallestStack = 65536; // room for a few exception objects and for what the C library keeps there

struct StartOrder {
    ThreadRoutine routine;
    void* argument;
    uint32_t id; // atomic: 0 until the thread has its number
};

void* runThread(void* argument)
{
    auto* order = static_cast<StartOrder*>(argument);
    ThreadRoutine routine = order->routine;
    void* own = order->argument;
    std::atomic_ref(order->id).store(threadId(), std::memory_order_release);
    futexWake(&order->id, 1, false); // by address alone: the order may be gone
    routine(own);
    return nullptr;
}

uint32_t waitForId(StartOrder* order)
{
    std::atomic_ref id(order->id);
    while (id.load(std::memory_order_acquire) == 0) {
        futexWait(&order->id, 0, nullptr, false);
    }
    return order->id;
}

bool setStackSize(pthread_attr_t* attributes, size_t size)
{
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size = size < smallestStack ? smallestStack : size;
    return pthread_attr_setstacksize(attributes, (size + page - 1) / page * page) == 0;
}

uintptr_t loadHandle(void** handle)
{
    return reinterpret_cast<uintptr_t>(std::atomic_ref(*handle).load());
}

} // namespace

bool threadStart(ThreadRoutine routine, void* argument, uint32_t stackSize, void** handle, uint32_t* id)
{
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    StartOrder order = {routine, argument, 0};
    pthread_t thread;
    bool started = (stackSize == 0 || setStackSize(&attributes, stackSize)) &&
                   pthread_create(&thread, &attributes, runThread, &order) == 0;
    pthread_attr_destroy(&attributes);
    if (started) {
        *handle = reinterpret_cast<void*>(thread);
        *id = waitForId(&order);
    }
    return started;
}

// A thread of the C library can be joined once. The first caller does it, the others sleep on the handle's lower half
// until that is done.
void threadJoin(void** handle)
{
    std::atomic_ref word(*handle);
    auto* half = reinterpret_cast<uint32_t*>(handle);
    void* seen = word.load();
    if ((reinterpret_cast<uintptr_t>(seen) & stateBits) == 0) {
        auto thread = reinterpret_cast<uintptr_t>(seen);
        if (word.compare_exchange_strong(seen, reinterpret_cast<void*>(thread | joining))) {
            pthread_join(thread, nullptr);
            word.store(reinterpret_cast<void*>(thread | joined));
            futexWake(half, INT_MAX, false);
            return;
        }
    }
    for (uintptr_t now = loadHandle(handle); (now & joined) == 0; now = loadHandle(handle)) {
        futexWait(half, static_cast<uint32_t>(now), nullptr, false);
    }
}

void threadClose(void** handle)
{
    uintptr_t now = loadHandle(handle);
    if ((now & stateBits) == 0) {
        pthread_detach(now);
    }
}

// The number alone would not do: that of a thread that has ended comes again, and its handle too once it is joined.
bool threadIsCurrent(void** handle, uint32_t id)
{
    uintptr_t now = loadHandle(handle);
    return (now & joined) == 0 && pthread_equal(now & ~stateBits, pthread_self()) != 0 && id == threadId();
}

uint32_t threadId()
{
    return static_cast<uint32_t>(syscall(SYS_gettid));
}

void threadName(const char* name)
{
    if (static_cast<pid_t>(threadId()) != getpid()) { // the first thread's name is the program's, in every process list
        prctl(PR_SET_NAME, name);
    }
}

bool programName(char* buffer, uint32_t size)
{
    char path[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) {
        return false;
    }
    path[length] = '\0';
    char* mark = path + length - (sizeof removedMark - 1);
    if (mark > path && strcmp(mark, removedMark) == 0 && access(path, F_OK) != 0) {
        *mark = '\0';
    }
    const char* slash = strrchr(path, '/');
    strncpy(buffer, slash != nullptr ? slash + 1 : path, size - 1);
    buffer[size - 1] = '\0';
    return true;
}

} // namespace kor::platform
