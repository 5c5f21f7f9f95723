// korHrTimer.cpp - the lent thread: how long it sleeps, when it spins, and what it fires.
//
// A node within the firing threshold of its deadline counts as due both where the wait ends and where nodes are fired,
// so that nothing is put back for a time that nobody would wait for.

#include "korutil/korHrTimer.h"
#include "korutil/korAlloc.h"
#include "korutil/korLogger.h"
#include "korutil/korPerf.h"

#include <atomic>
#include <cmath>

static_assert(sizeof(korHrTimerNode) == 56 && offsetof(korHrTimerNode, argument) == 32);

namespace kor {
namespace {

constexpr uint8_t component = 12;
constexpr char sourceName[] = "hrtimers";
constexpr double firingThreshold = 1.9999999999999998e-05; // seconds, as all of these
constexpr double spinEnd = 9.999999999999999e-06;
constexpr double kernelWaitFrom = 0.001;
constexpr double defaultTimeout = 0.05;
constexpr uint64_t firstId = 1024;

// One comparison where nothing is logged.
#define HRTIMER_LOG(level, ...)                                                                   \
    (korLogger_isLoggable(component, (level))                                                     \
         ? _korLogger_LogExN_v3(component, sourceName, nullptr, (level), nullptr, 0, __VA_ARGS__) \
         : static_cast<void>(0))

korHrTimerNode* nodeOf(uint64_t value)
{
    return reinterpret_cast<korHrTimerNode*>(value);
}

double secondsSince(const korHrTimer* timer, int64_t tick)
{
    return static_cast<double>(_korPerf_TimerNow() - tick) * timer->scale;
}

bool isRunning(korHrTimer* timer)
{
    return std::atomic_ref(timer->running).load() != 0;
}

bool isKicked(korHrTimer* timer)
{
    return std::atomic_ref(timer->kick).load(std::memory_order_relaxed) != 0;
}

void setKick(korHrTimer* timer, uint64_t kick)
{
    std::atomic_ref(timer->kick).store(kick);
}

// By deadline, and then by age.
int32_t compareNodes(uint64_t leftValue, uint64_t rightValue)
{
    const korHrTimerNode* left = nodeOf(leftValue);
    const korHrTimerNode* right = nodeOf(rightValue);
    if (left->deadline != right->deadline) {
        return left->deadline < right->deadline ? -1 : 1;
    }
    return left->id == right->id ? 0 : left->id < right->id ? -1 : 1;
}

// In ticks; a time beyond all ticks is the last one.
int64_t deadlineOf(const korHrTimer* timer, int64_t start, double timeout)
{
    double ticks = timeout / timer->scale;
    int64_t longest = INT64_MAX - start;
    return ticks < static_cast<double>(longest) ? start + static_cast<int64_t>(ticks) : INT64_MAX;
}

korHrTimerNode* headNode(const korHrTimer* timer)
{
    return timer->nodes->count == 0 ? nullptr : nodeOf(timer->nodes->items[timer->nodes->first]);
}

// Holds a spinning lock for a scope, or for parts of it.
class LockHold
{
public:
    explicit LockHold(korFastLock* lock) : lock_(lock) { enter(); }
    ~LockHold() { leave(); }
    void enter() { korFastLock_acquire(lock_); }
    void leave() { korFastLock_release(lock_); }
    LockHold(const LockHold&) = delete;
    LockHold& operator=(const LockHold&) = delete;

private:
    korFastLock* lock_;
};

// ---- Waiting ----

// How long to wait for the node that is next.
double calcTimeout(korHrTimer* timer)
{
    LockHold hold(timer->lock);
    const korHrTimerNode* node = headNode(timer);
    if (node == nullptr) {
        timer->currentTimeout = defaultTimeout;
        return defaultTimeout;
    }
    double remaining = node->timeout - secondsSince(timer, node->start);
    timer->currentStart = node->start;
    timer->currentTimeout = node->timeout;
    HRTIMER_LOG(KOR_LOG_INTERN, "calcTimeout remaining=%-9g req=%-9g overage=%-9g", remaining, node->timeout,
                remaining < 0 ? remaining : 0.0);
    return remaining < 0 ? 0 : remaining;
}

void sleepInKernel(uint8_t depth, korEx* ex, korHrTimer* timer, double wait)
{
    constexpr double longest = 0x7fffffff;
    double milliseconds = wait * 1000 < longest ? wait * 1000 : longest;
    HRTIMER_LOG(KOR_LOG_INTERN, "timed wait for:  %-9g", wait);
    int64_t start = _korPerf_TimerNow();
    std::atomic_ref waiting(timer->waiting);
    waiting.store(1);
    bool timedOut = _korCondition_TimedWait(KOR_AT_D(depth, ex), timer->condition, timer->mutex,
                                            static_cast<uint32_t>(milliseconds));
    waiting.store(0);
    HRTIMER_LOG(KOR_LOG_INTERN, "timed wait done: %-9g timedout=%d", secondsSince(timer, start), timedOut);
}

void spin(korHrTimer* timer, double wait, int64_t start)
{
    double rest = wait - secondsSince(timer, start);
    HRTIMER_LOG(KOR_LOG_INTERN, "thread yield wait for %-9g", rest);
    while (rest > spinEnd && isRunning(timer) && !isKicked(timer)) {
        __builtin_ia32_pause();
        rest = wait - secondsSince(timer, start);
    }
    HRTIMER_LOG(KOR_LOG_INTERN, "thread yield wait done: act=%-9g rem=%-9g timedout=%d", secondsSince(timer, start),
                rest, rest <= spinEnd);
}

void awaitDue(korEx* ex, uint8_t depth, korHrTimer* timer)
{
    int spins = 0;
    int waits = 0;
    int64_t start = _korPerf_TimerNow();
    double wait = calcTimeout(timer);
    while (wait > firingThreshold && isRunning(timer) && ex->code == 0) {
        if (wait >= kernelWaitFrom) {
            sleepInKernel(KOR_AT_D(depth, ex), timer, wait);
            waits++;
        } else {
            spin(timer, wait, start);
            spins++;
        }
        setKick(timer, 0);
        start = _korPerf_TimerNow();
        wait = calcTimeout(timer);
    }
    HRTIMER_LOG(KOR_LOG_INTERN, "ProcessTimers spinCount=%d waitCount=%d timeout=%g", spins, waits,
                timer->currentTimeout);
    setKick(timer, 0);
}

// ---- Firing ----

// Its failure stays here.
void fire(korEx* ex, uint8_t depth, const korHrTimerNode* node)
{
    KOR_EX_PRIVATE(local, ex, depth);
    node->callback(KOR_AT(&local, depth), node->id, node->argument, node->closure);
}

// Under the lock. Gives the head node out of the queue if it is due.
korHrTimerNode* takeDue(korEx* ex, uint8_t depth, korHrTimer* timer)
{
    uint64_t value = korDpq_popFirst(timer->nodes);
    korHrTimerNode* node = nodeOf(value);
    double elapsed = secondsSince(timer, node->start);
    HRTIMER_LOG(KOR_LOG_INTERN, "elapsed %-9g elapsed+thresh=%-9g node->timeout %-9g ", elapsed,
                elapsed + firingThreshold, node->timeout);
    if (node->timeout > elapsed + firingThreshold) {
        _korDpq_PushFirst(KOR_AT(ex, depth), timer->nodes, value); // its room is still there
        return nullptr;
    }
    _korI64Hash_Remove(KOR_AT_D(depth, ex), timer->timers, static_cast<int64_t>(node->id));
    return node;
}

// ---- Making ----

void fillTimer(korEx* ex, uint8_t depth, korHrTimer* timer)
{
    constexpr int32_t firstSlots = 256;
    constexpr int32_t firstNodes = 32;
    timer->lastId = firstId;
    timer->running = 1;
    timer->currentTimeout = defaultTimeout;
    timer->currentStart = _korPerf_TimerNow();
    timer->scale = _korPerf_TimerScale();
    timer->timers = _korI64Hash_Create(KOR_AT(ex, depth), firstSlots);
    timer->nodes = _korDpq_Create(KOR_AT(ex, depth), firstNodes);
    timer->condition = _korCondition_Create(KOR_AT_D(depth, ex));
    timer->mutex = _korMutex_Create(KOR_AT(ex, depth));
    timer->nodePool = _korPool_Create(KOR_AT(ex, depth), 100, sizeof(korHrTimerNode), nullptr, nullptr, 1, 10);
    timer->lock = _korFastLock_Create(KOR_AT_D(depth, ex), 0);
}

// Under the lock: enters a node in both places and gives its id, or 0 after a failure, and it is in none.
uint64_t enterNode(korEx* ex, uint8_t depth, korHrTimer* timer, korHrTimerNode* node)
{
    auto value = reinterpret_cast<uint64_t>(node);
    node->id = ++timer->lastId;
    auto key = static_cast<int64_t>(node->id);
    _korI64Hash_Set(KOR_AT(ex, depth), timer->timers, key, value);
    _korDpq_AddOrderedEx(KOR_AT(ex, depth), timer->nodes, value, compareNodes, 1);
    if (ex->code != 0) {
        _korI64Hash_Remove(KOR_AT_D(depth, ex), timer->timers, key);
        return 0;
    }
    return node->id;
}

bool mayArm(korEx* ex, uint8_t depth, korHrTimer* timer, double timeout, korHrTimerCallback callback)
{
    if (timer == nullptr || callback == nullptr || !(timeout >= 0) || !std::isfinite(timeout)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
    } else if (!isRunning(timer)) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Timer is stopping or has been stopped");
    }
    return ex->code == 0;
}

} // namespace
} // namespace kor

using namespace kor;

korHrTimer* _korHrTimer_Create(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return nullptr;
    }
    KOR_EX_PRIVATE(local, ex, depth);
    auto* timer = static_cast<korHrTimer*>(_kor_calloc(KOR_AT(&local, depth), 1, sizeof(korHrTimer)));
    if (timer == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, "Failed to create timer.");
        return nullptr;
    }
    fillTimer(KOR_AT(ex, depth), timer);
    if (ex->code != 0) {
        HRTIMER_LOG(KOR_LOG_SEVERE, "Unable to create new timer. %i %s", ex->code,
                    ex->description == nullptr ? "" : ex->description);
        _korHrTimer_Destroy(KOR_AT_D(depth, ex), timer);
        return nullptr;
    }
    return timer;
}

void _korHrTimer_Destroy(uint8_t depth, korEx* ex, korHrTimer* timer)
{
    if (timer == nullptr) {
        return;
    }
    _korHrTimer_Shutdown(KOR_AT_D(depth, ex), timer);
    while (timer->nodes != nullptr && timer->nodes->count != 0) {
        _korPool_Return(KOR_AT_D(depth, ex), timer->nodePool, nodeOf(korDpq_popFirst(timer->nodes)));
    }
    _korI64Hash_Destroy(KOR_AT_D(depth, ex), timer->timers);
    _korDpq_Destroy(KOR_AT_D(depth, ex), timer->nodes);
    _korFastLock_Destroy(KOR_AT_D(depth, ex), timer->lock);
    _korCondition_Destroy(KOR_AT_D(depth, ex), timer->condition);
    _korMutex_Destroy(KOR_AT_D(depth, ex), timer->mutex);
    _korPool_Destroy(KOR_AT_D(depth, ex), timer->nodePool);
    _kor_free(KOR_AT_D(depth, ex), timer);
}

void _korHrTimer_Shutdown(uint8_t depth, korEx* ex, korHrTimer* timer)
{
    if (timer == nullptr) {
        return;
    }
    uint64_t up = 1;
    if (std::atomic_ref(timer->running).compare_exchange_strong(up, 0)) {
        // Also if the wait is only about to begin: the event keeps its state.
        _korCondition_SignalDebug(KOR_AT_D(depth, ex), timer->condition);
    }
}

void _korHrTimer_ProcessTimers(korEx* ex, uint8_t depth, korHrTimer* timer)
{
    while (ex->code == 0 && isRunning(timer)) {
        awaitDue(KOR_AT(ex, depth), timer);
        if (!isRunning(timer)) {
            return;
        }
        double milliseconds = static_cast<double>(_korPerf_TimerNow()) * timer->scale * 1000.0;
        timer->nowMilliseconds = static_cast<uint64_t>(milliseconds);
        _korHrTimer_ServiceTimers(KOR_AT(ex, depth), timer);
        if (ex->code != 0) {
            HRTIMER_LOG(KOR_LOG_WARN, "Exception thrown from ServiceTimers: %i %s. ProcessTimers returning.", ex->code,
                        ex->description == nullptr ? "" : ex->description);
        }
    }
}

void _korHrTimer_ServiceTimers(korEx* ex, uint8_t depth, korHrTimer* timer)
{
    if (ex->code != 0) {
        return;
    }
    LockHold hold(timer->lock);
    timer->servicing = 1;
    while (timer->nodes->count != 0) {
        korHrTimerNode* node = takeDue(KOR_AT(ex, depth), timer);
        if (node == nullptr) {
            break;
        }
        bool running = isRunning(timer);
        if (running) {
            double elapsed = secondsSince(timer, node->start);
            HRTIMER_LOG(KOR_LOG_INTERN, "fire timer=%-14p arg=%p tmo=%-9g elapsed=%-9g remaining=%-9g",
                        static_cast<void*>(node), node->argument, node->timeout, elapsed, node->timeout - elapsed);
            hold.leave();
            fire(KOR_AT(ex, depth), node);
            hold.enter();
        }
        _korPool_Return(KOR_AT_D(depth, ex), timer->nodePool, node);
        if (!running) {
            break;
        }
    }
    timer->servicing = 0;
}

uint64_t _korHrTimer_Arm(korEx* ex, uint8_t depth, korHrTimer* timer, double timeout, korHrTimerCallback callback,
                         void* argument, void* closure)
{
    if (ex->code != 0 || !mayArm(KOR_AT(ex, depth), timer, timeout, callback)) {
        return 0;
    }
    auto* node = static_cast<korHrTimerNode*>(_korPool_Get(KOR_AT(ex, depth), timer->nodePool));
    if (node == nullptr) {
        return 0;
    }
    int64_t start = _korPerf_TimerNow();
    *node = {0, timeout, start, deadlineOf(timer, start, timeout), argument, closure, callback};
    korFastLock_acquire(timer->lock);
    uint64_t id = enterNode(KOR_AT(ex, depth), timer, node);
    bool isNext = id != 0 && headNode(timer) == node;
    korFastLock_release(timer->lock); // from here on the node may be fired and gone
    if (id == 0) {
        _korPool_Return(KOR_AT_D(depth, ex), timer->nodePool, node);
    } else if (isNext) {
        setKick(timer, 1);
        _korCondition_SignalDebug(KOR_AT_D(depth, ex), timer->condition);
    }
    return id;
}

bool _korHrTimer_Cancel(uint8_t depth, korEx* ex, korHrTimer* timer, uint64_t id)
{
    if (timer == nullptr || id == 0) {
        return false;
    }
    LockHold hold(timer->lock);
    uint64_t value = _korI64Hash_Remove(KOR_AT_D(depth, ex), timer->timers, static_cast<int64_t>(id));
    if (value == 0) {
        return false;
    }
    _korDpq_Remove(timer->nodes, _korDpq_FindOrdered(timer->nodes, value, compareNodes));
    _korPool_Return(KOR_AT_D(depth, ex), timer->nodePool, nodeOf(value));
    return true;
}
