// poll.cpp (Linux) - an eventfd for the interrupt, poll for a few handles, epoll for any number of sockets.
//
// epoll reports sockets, and its cost follows the ones that are ready. A poll array has slots, and two of them may name
// the same socket, or one that was closed and whose number has come back. So the set knows the slots of each socket:
// a socket is watched for what any of its slots asks for, and a report is handed to all of them.

#include "platform/poll.h"

#include "platform/error.h"
#include "platform/linux/futex.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace kor::platform {
namespace {

// A network handle is the socket, a mark, the interest, and a number that makes it unique.
constexpr int64_t networkMark = int64_t{1} << 32;
constexpr int interestShift = 33;
constexpr int serialShift = 35;
constexpr uint32_t serialMask = 0xFFFFFFF;
constinit std::atomic<uint32_t> nextSerial{0};

// Nothing is watched for this slot: its socket was closed before it was placed.
constexpr int32_t unwatched = -2;

bool isNetwork(int64_t handle)
{
    return (handle & networkMark) != 0;
}

uint32_t interestOf(int64_t handle)
{
    return static_cast<uint32_t>(handle >> interestShift) & (interestRead | interestWrite);
}

pollfd requestOf(int64_t handle)
{
    int number = static_cast<int>(handle & UINT32_MAX);
    if (!isNetwork(handle)) {
        return {number, POLLIN, 0};
    }
    uint32_t interest = interestOf(handle);
    if (interest == 0) {
        return {-1, 0, 0}; // not even the end, which poll would report unasked
    }
    int events =
        POLLRDHUP | ((interest & interestRead) != 0 ? POLLIN : 0) | ((interest & interestWrite) != 0 ? POLLOUT : 0);
    return {number, static_cast<short>(events), 0};
}

// poll, with the handlers of signals as no reason to come back early.
int pollThroughSignals(pollfd* requests, uint32_t count, int32_t timeoutMs)
{
    Deadline deadline(timeoutMs < 0 ? UINT32_MAX : static_cast<uint32_t>(timeoutMs));
    int result;
    do {
        result = ppoll(requests, count, deadline.remaining(), nullptr);
    } while (result < 0 && errno == EINTR);
    return result;
}

// ---- The sockets of a set ----

int numberOf(const PollSlot& slot)
{
    return static_cast<int>(slot.socket);
}

uint32_t watchedFor(const PollSlot& slot)
{
    uint32_t events = EPOLLRDHUP; // a peer that sends no more has hung up
    events |= (slot.requested & KOR_POLLFD_READ) != 0 ? uint32_t{EPOLLIN} : 0;
    events |= (slot.requested & KOR_POLLFD_WRITE) != 0 ? uint32_t{EPOLLOUT} : 0;
    return events;
}

// Watches a socket for what its slots ask for, `first` and those behind it.
bool watch(PollSet* set, const PollSlot* slots, int32_t first)
{
    int number = numberOf(slots[first]);
    epoll_event event = {};
    event.data.fd = number;
    for (int32_t slot = first; slot >= 0; slot = set->nextOf[slot]) {
        event.events |= watchedFor(slots[slot]);
    }
    int epoll = static_cast<int>(set->system);
    if (epoll_ctl(epoll, EPOLL_CTL_ADD, number, &event) == 0) {
        return true;
    }
    return errno == EEXIST && epoll_ctl(epoll, EPOLL_CTL_MOD, number, &event) == 0;
}

bool knows(const PollSet* set, int64_t socket)
{
    return socket >= 0 && static_cast<uint64_t>(socket) < set->socketLimit;
}

bool makeRoomFor(PollSet* set, int64_t socket, const PollMemory& memory)
{
    if (knows(set, socket)) {
        return true;
    }
    uint64_t limit = std::max<uint64_t>(2 * uint64_t{set->socketLimit}, static_cast<uint64_t>(socket) + 64);
    void* grown = memory.resize(memory.owner, set->firstOf, limit * sizeof(int32_t));
    if (grown == nullptr) {
        return false;
    }
    set->firstOf = static_cast<int32_t*>(grown);
    std::fill(set->firstOf + set->socketLimit, set->firstOf + limit, -1);
    set->socketLimit = static_cast<uint32_t>(limit);
    return true;
}

// A socket that was closed while a copy of it lives elsewhere goes on being reported and can no longer be named. Only a
// new set forgets it.
void startAnew(PollSet* set, const PollSlot* slots, uint32_t size)
{
    int fresh = epoll_create1(EPOLL_CLOEXEC);
    if (fresh < 0) {
        return; // at the next report, perhaps
    }
    close(static_cast<int>(set->system));
    set->system = fresh;
    for (int32_t slot = 0; slot < static_cast<int32_t>(size); slot++) {
        if (knows(set, slots[slot].socket) && set->firstOf[slots[slot].socket] == slot) {
            watch(set, slots, slot);
        }
    }
}

int16_t returnedFor(const PollSlot& slot, uint32_t events)
{
    int returned = (events & (EPOLLHUP | EPOLLRDHUP)) != 0 ? KOR_POLLFD_HUNG_UP : 0;
    returned |= (events & EPOLLIN) != 0 ? slot.requested & KOR_POLLFD_READ : 0;
    returned |= (events & EPOLLOUT) != 0 ? slot.requested & KOR_POLLFD_WRITE : 0;
    return static_cast<int16_t>(returned);
}

// Hands a report to the slots of its socket. False if there are none, or if they have had one already.
bool handOut(PollSet* set, PollSlot* slots, const epoll_event& report)
{
    int32_t first = knows(set, report.data.fd) ? set->firstOf[report.data.fd] : -1;
    bool fresh = first >= 0;
    for (int32_t slot = first; slot >= 0; slot = set->nextOf[slot]) {
        int16_t returned = returnedFor(slots[slot], report.events);
        if (slots[slot].returned != 0) {
            fresh = false;
        } else if (returned != 0) {
            set->ready[set->readyCount++] = slot;
        }
        slots[slot].returned = static_cast<int16_t>(slots[slot].returned | returned);
    }
    return fresh;
}

// Brings the ready slots in order: few of them by sorting, many by a walk over all slots.
void orderReady(PollSet* set, const PollSlot* slots, uint32_t size)
{
    if (set->readyCount < size / 16) {
        std::sort(set->ready, set->ready + set->readyCount);
        return;
    }
    uint32_t found = 0;
    for (int32_t slot = 0; found < set->readyCount; slot++) {
        if (slots[slot].returned != 0) {
            set->ready[found++] = slot;
        }
    }
}

} // namespace

const int32_t errorInvalidHandle = EBADF;

bool interruptOpen(int64_t* handle)
{
    *handle = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    return *handle >= 0;
}

void interruptClose(int64_t handle)
{
    close(static_cast<int>(handle));
}

void interruptSet(int64_t handle)
{
    uint64_t one = 1;
    // The one failure is a counter at its limit, and then the event is on.
    [[maybe_unused]] ssize_t written = write(static_cast<int>(handle), &one, sizeof one);
}

void interruptReset(int64_t handle)
{
    uint64_t taken;
    [[maybe_unused]] ssize_t size = read(static_cast<int>(handle), &taken, sizeof taken);
}

const bool hasWakeCounter = true;

bool wakeCounterOpen(int64_t* handle)
{
    *handle = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC | EFD_SEMAPHORE);
    return *handle >= 0;
}

int32_t waitForAny(const int64_t* handles, uint32_t count, int32_t timeoutMs, WaitView* view)
{
    pollfd requests[maxWaitHandles];
    for (uint32_t i = 0; i < count; i++) {
        requests[i] = requestOf(handles[i]);
    }
    int signalled = pollThroughSignals(requests, count, timeoutMs);
    if (signalled <= 0) {
        return signalled == 0 ? waitTimedOut : waitFailed;
    }
    int32_t first = waitTimedOut;
    for (uint32_t i = count; i-- > 0;) {
        view->seen[i] = requests[i].revents;
        if ((requests[i].revents & POLLNVAL) != 0) {
            errno = errorInvalidHandle;
            return waitFailed;
        }
        first = requests[i].revents != 0 ? static_cast<int32_t>(i) : first;
    }
    return first;
}

bool networkHandleOpen(int64_t socket, uint32_t interest, int64_t* handle)
{
    if (socket < 0 || socket > INT_MAX) {
        errno = EBADF;
        return false;
    }
    int64_t serial = nextSerial.fetch_add(1, std::memory_order_relaxed) & serialMask;
    *handle = socket | networkMark | int64_t{interest & (interestRead | interestWrite)} << interestShift |
              serial << serialShift;
    return true;
}

void networkHandleClose(int64_t) {}

uint32_t networkEvents(int64_t, int64_t, const WaitView* view, uint32_t index)
{
    int seen = view->seen[index];
    uint32_t events = (seen & POLLIN) != 0 ? cameReadable : 0;
    events |= (seen & POLLOUT) != 0 ? cameWritable : 0;
    events |= (seen & (POLLHUP | POLLRDHUP | POLLERR)) != 0 ? cameEnd : 0;
    return events;
}

bool pollSetOpen(PollSet* set)
{
    set->system = epoll_create1(EPOLL_CLOEXEC);
    return set->system >= 0;
}

void pollSetClose(PollSet* set)
{
    close(static_cast<int>(set->system));
}

bool pollSetGrow(PollSet* set, uint32_t size, const PollMemory& memory)
{
    if (void* ready = memory.resize(memory.owner, set->ready, size * sizeof(int32_t))) {
        set->ready = static_cast<int32_t*>(ready);
        if (void* nextOf = memory.resize(memory.owner, set->nextOf, size * sizeof(int32_t))) {
            set->nextOf = static_cast<int32_t*>(nextOf);
            if (void* reports = memory.resize(memory.owner, set->reports, size * sizeof(epoll_event))) {
                set->reports = reports;
                return true;
            }
        }
    }
    return false;
}

Placing pollSetPlace(PollSet* set, PollSlot* slots, int32_t slot, const PollMemory& memory)
{
    int64_t socket = slots[slot].socket;
    set->nextOf[slot] = knows(set, socket) ? set->firstOf[socket] : -1;
    if (socket > INT_MAX || !watch(set, slots, slot)) {
        set->nextOf[slot] = unwatched;
        return socket > INT_MAX || errno == EBADF ? Placing::done : Placing::failed;
    }
    if (!makeRoomFor(set, socket, memory)) {
        epoll_ctl(static_cast<int>(set->system), EPOLL_CTL_DEL, static_cast<int>(socket), nullptr);
        return Placing::noMemory;
    }
    set->firstOf[socket] = slot;
    return Placing::done;
}

void pollSetRemove(PollSet* set, PollSlot* slots, int32_t slot)
{
    if (set->nextOf[slot] == unwatched) {
        return;
    }
    int32_t* link = &set->firstOf[slots[slot].socket];
    while (*link != slot) {
        link = &set->nextOf[*link];
    }
    *link = set->nextOf[slot];
    int32_t first = set->firstOf[slots[slot].socket];
    if (first >= 0) {
        watch(set, slots, first);
    } else {
        epoll_ctl(static_cast<int>(set->system), EPOLL_CTL_DEL, numberOf(slots[slot]), nullptr);
    }
}

bool pollSetWait(PollSet* set, PollSlot* slots, uint32_t size, int32_t timeoutMs)
{
    for (uint32_t i = 0; i < set->readyCount; i++) {
        slots[set->ready[i]].returned = 0;
    }
    set->readyCount = 0;
    Deadline deadline(timeoutMs < 0 ? UINT32_MAX : static_cast<uint32_t>(timeoutMs));
    auto* reports = static_cast<epoll_event*>(set->reports);
    int count = epoll_wait(static_cast<int>(set->system), reports, static_cast<int>(size), timeoutMs);
    while (count < 0 && errno == EINTR) {
        const timespec* left = deadline.remaining();
        int leftMs = left == nullptr ? -1 : static_cast<int>(left->tv_sec * 1000 + (left->tv_nsec + 999999) / 1000000);
        count = epoll_wait(static_cast<int>(set->system), reports, static_cast<int>(size), leftMs);
    }
    bool fresh = true;
    for (int i = 0; i < count; i++) {
        fresh &= handOut(set, slots, reports[i]);
    }
    if (!fresh) {
        startAnew(set, slots, size);
    }
    orderReady(set, slots, size);
    return count >= 0;
}

} // namespace kor::platform
