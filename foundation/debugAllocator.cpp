// debugAllocator.cpp - blocks with a header in front, the call paths they belong to, and the task in the background.
//
// A block is: the header (the size asked for, the record of its call path, and the scribble value from byte 16 to its
// end), then the user's bytes. These are aligned as the heap's are, or with "protect" end where a page without access
// begins. Header fields are copied bytewise, since they may stand at any address.
//
// One spinning lock covers tables, queues and records. What they allocate goes by the allocator's own exception object,
// by which isInside knows the call.

#include "foundation/debugAllocator.h"

#include "foundation/debugConfiguration.h"
#include "foundation/memCount.h"
#include "korutil/korAlloc.h"
#include "korutil/korDpa.h"
#include "korutil/korDpq.h"
#include "korutil/korFastLock.h"
#include "korutil/korHash.h"
#include "korutil/korI64Hash.h"
#include "korutil/korThread.h"
#include "korutil/korTime.h"
#include "platform/clock.h"
#include "platform/entry.h"
#include "platform/pages.h"
#include "platform/thread.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kor::debugAllocator {
namespace {

constexpr uint8_t freshByte = 0x55;
constexpr uint8_t freedByte = 0xAA;
constexpr size_t scribbleFrom = 16; // of the header
constexpr size_t leastSize = 8;

// One call path that holds memory.
struct korMemStack {
    int64_t bytes;
    int32_t allocations;
    uint32_t hash;
    uint32_t keySize;
    korKeyFrame* key;
    int32_t lastPrinted; // allocations at the last report
    int32_t maxPrinted;  // the most at any report
};

korThreadOnce once;
std::atomic<bool> needsInit = true;
std::atomic<uint64_t> excess = UINT64_MAX;
Configuration configuration; // written inside the once
korEx memDebugEx;            // under the lock
korFastLock lock;
korI64Hash* liveBlocks; // with "double-free"
korHash* stacks;        // when tracking
korDpa* printed;        // scratch of the reports
korDpq* heldBlocks;     // with "protect": pages without access,
korDpq* heldSizes;      // their bytes,
korDpq* heldSince;      // and the tick at which each was freed
size_t page;
int64_t tick;

class LockHold
{
public:
    LockHold() { korFastLock_acquire(&lock); }
    ~LockHold() { korFastLock_release(&lock); }
    LockHold(const LockHold&) = delete;
    LockHold& operator=(const LockHold&) = delete;
};

[[noreturn]] void giveUp(const char* why, const void* block)
{
    fprintf(stderr, "korutil: %s, block %p\n", why, block);
    fflush(stderr);
    abort();
}

void demand(bool holds, const char* what)
{
    if (!holds) {
        giveUp(what, nullptr);
    }
}

// After work with the allocator's own object.
void demandClean(const char* what)
{
    demand(memDebugEx.code == 0, what);
}

// ---- Blocks ---------------------------------------------------------------------------------------------------------

uint8_t* headerOf(void* block)
{
    return static_cast<uint8_t*>(block) - configuration.backset;
}

uint64_t storedSize(const void* block)
{
    uint64_t size;
    memcpy(&size, static_cast<const uint8_t*>(block) - configuration.backset, sizeof size);
    return size;
}

korMemStack* storedStack(void* block)
{
    korMemStack* stack;
    memcpy(&stack, headerOf(block) + sizeof(uint64_t), sizeof stack);
    return stack;
}

void store(void* block, uint64_t size, korMemStack* stack)
{
    memcpy(headerOf(block), &size, sizeof size);
    memcpy(headerOf(block) + sizeof size, &stack, sizeof stack);
}

// The pages of a protected block: whole ones for header and bytes, and the one without access.
struct Pages {
    uint8_t* start;
    size_t size;
};

size_t pagesFor(uint64_t size)
{
    return (size + configuration.backset + 2 * page - 1) / page * page;
}

Pages pagesOf(void* block)
{
    uint64_t size = storedSize(block);
    size_t whole = pagesFor(size);
    return {static_cast<uint8_t*>(block) + size + page - whole, whole};
}

void* takeProtected(uint64_t size)
{
    size_t whole = pagesFor(size);
    auto* start = static_cast<uint8_t*>(platform::takePages(whole));
    demand(start != nullptr, "out of memory");
    if (configuration.scribble) {
        memset(start, freshByte, whole);
    }
    demand(platform::setPageAccess(start + whole - page, page, false), "no access can be taken away");
    return start + whole - page - size;
}

// Header and what stands before it, so that the user's bytes keep the heap's alignment.
size_t lead()
{
    constexpr size_t alignment = 16;
    return (configuration.backset + alignment - 1) / alignment * alignment;
}

void* takePlain(uint64_t size)
{
    auto* start = static_cast<uint8_t*>(malloc(size + lead()));
    demand(start != nullptr, "out of memory");
    if (configuration.scribble) {
        memset(start, freshByte, size + lead());
    }
    return start + lead();
}

void givePlain(void* block)
{
    free(static_cast<uint8_t*>(block) - lead());
}

void testUnderrun(void* block)
{
    const uint8_t* header = headerOf(block);
    for (size_t i = scribbleFrom; i < configuration.backset; i++) {
        if (header[i] != freshByte) {
            giveUp("bytes in front of a block were overwritten", block);
        }
    }
}

// ---- Call paths, under the lock -------------------------------------------------------------------------------------

// Room for the frames of a chain of objects; longer chains are rare and go to the heap.
class Key
{
public:
    Key(const korEx* ex, uint8_t depth)
    {
        size_t objects = 1;
        for (const korEx* next = ex->next; next != nullptr; next = next->next) {
            objects++;
        }
        if (objects > inPlaceObjects) {
            frames_ = static_cast<korKeyFrame*>(malloc(objects * framesOfObject * sizeof(korKeyFrame)));
            demand(frames_ != nullptr, "out of memory");
        }
        _korEx_ToKey(ex, depth, frames_, &size_, &hash_);
        if (size_ == 0) { // nobody has left a frame: a path of its own
            frames_[0] = {"", 0};
            size_ = sizeof(korKeyFrame);
            hash_ = 1;
        }
    }
    ~Key()
    {
        if (frames_ != inPlace_) {
            free(frames_);
        }
    }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    const korKeyFrame* frames() const { return frames_; }
    uint32_t size() const { return size_; }
    uint32_t hash() const { return hash_; }

private:
    static constexpr size_t framesOfObject = KOR_MAX_FRAMES + 1; // with the one that joins it to the next
    static constexpr size_t inPlaceObjects = 4;
    korKeyFrame inPlace_[inPlaceObjects * framesOfObject];
    korKeyFrame* frames_ = inPlace_;
    uint32_t size_ = 0;
    uint32_t hash_ = 0;
};

korMemStack* makeStack(const Key& key)
{
    auto* stack = static_cast<korMemStack*>(calloc(1, sizeof(korMemStack)));
    auto* frames = static_cast<korKeyFrame*>(malloc(key.size()));
    demand(stack != nullptr && frames != nullptr, "out of memory");
    memcpy(frames, key.frames(), key.size());
    stack->hash = key.hash();
    stack->keySize = key.size();
    stack->key = frames;
    _korHash_Set(KOR_AT(&memDebugEx, 0), stacks, frames, stack->keySize, stack->hash, 0,
                 reinterpret_cast<uint64_t>(stack));
    demandClean("a call path cannot be kept");
    return stack;
}

korMemStack* stackFor(const Key& key)
{
    uint64_t found = _korHash_Get(KOR_AT(&memDebugEx, 0), stacks, key.frames(), key.size(), key.hash());
    return found != 0 ? reinterpret_cast<korMemStack*>(found) : makeStack(key);
}

// With "max-only" a record without memory is kept for the sake of its highest count.
void takeFromStack(korMemStack* stack, uint64_t size)
{
    stack->bytes -= static_cast<int64_t>(size);
    stack->allocations--;
    if (stack->allocations == 0 && !configuration.maxOnly) {
        _korHash_Remove(KOR_AT_D(0, &memDebugEx), stacks, stack->key, stack->keySize, stack->hash);
        free(stack->key);
        free(stack);
    }
}

// ---- Freed blocks that are held, under the lock ---------------------------------------------------------------------

void hold(const Pages& pages)
{
    _korDpq_Push(KOR_AT(&memDebugEx, 0), heldBlocks, reinterpret_cast<uint64_t>(pages.start));
    _korDpq_Push(KOR_AT(&memDebugEx, 0), heldSizes, pages.size);
    _korDpq_Push(KOR_AT(&memDebugEx, 0), heldSince, static_cast<uint64_t>(tick));
    demandClean("a freed block cannot be held");
}

bool oldestIsDue()
{
    return heldSince->count != 0 &&
           static_cast<int64_t>(heldSince->items[heldSince->first]) + configuration.holdWakes <= tick;
}

void releaseHeld()
{
    while (oldestIsDue()) {
        auto* start = reinterpret_cast<void*>(korDpq_popFirst(heldBlocks));
        uint64_t size = korDpq_popFirst(heldSizes);
        korDpq_popFirst(heldSince);
        demand(platform::setPageAccess(start, size, true), "no access can be given back");
        platform::givePages(start, size);
    }
    if (tick % configuration.holdWakes == 0) {
        fprintf(stderr, "protect held allocs: %d.\n", heldBlocks->count);
    }
}

// ---- Reports, under the lock ----------------------------------------------------------------------------------------

bool isLarge(const korMemStack* stack)
{
    return stack->bytes > configuration.displayBytes || stack->allocations > configuration.displayCount;
}

bool isWanted(const korMemStack* stack)
{
    return !(configuration.changedOnly && stack->lastPrinted == stack->allocations) &&
           !(configuration.upOnly && stack->lastPrinted >= stack->allocations) &&
           !(configuration.maxOnly && stack->maxPrinted >= stack->allocations);
}

const char* trend(const korMemStack* stack)
{
    if (stack->allocations > stack->lastPrinted) {
        return "up from";
    }
    return stack->allocations < stack->lastPrinted ? "down down" : "same as";
}

void printStack(const korMemStack* stack, const char* time)
{
    fprintf(stderr, "\n%s aloc %p: %lld bytes in %d allocations at (%s last print)%s:\n", time,
            static_cast<const void*>(stack), static_cast<long long>(stack->bytes), stack->allocations, trend(stack),
            stack->allocations > stack->maxPrinted ? "(max)" : "");
    _korEx_PrintKey(stack->key, stack->keySize);
}

int compareBytes(const void* left, const void* right)
{
    auto low = [](const void* item) {
        return static_cast<uint32_t>(reinterpret_cast<const korMemStack*>(*static_cast<const uint64_t*>(item))->bytes);
    };
    return low(left) < low(right) ? -1 : low(left) > low(right) ? 1 : 0;
}

struct Totals {
    int64_t bytes, allocations, stacks;
};

Totals collect()
{
    Totals totals = {};
    korHashIterator walk;
    uint64_t value;
    printed->count = 0;
    _korHash_IteratorInit(stacks, &walk);
    while (_korHash_Next(&walk, nullptr, nullptr, &value)) {
        const auto* stack = reinterpret_cast<const korMemStack*>(value);
        totals.bytes += stack->bytes;
        totals.allocations += stack->allocations;
        totals.stacks++;
        if (isLarge(stack)) {
            _korDpa_AddSafe(KOR_AT(&memDebugEx, 0), printed, value);
        }
    }
    demandClean("a report cannot be made");
    qsort(printed->items, static_cast<size_t>(printed->count), sizeof(uint64_t), compareBytes);
    return totals;
}

void report()
{
    Totals totals = collect();
    char time[KOR_LOCAL_TIME_SIZE];
    _kor_GetCurrentLocalTimeStr(time, sizeof time);
    for (int32_t i = 0; i < printed->count; i++) {
        auto* stack = reinterpret_cast<korMemStack*>(printed->items[i]);
        if (isWanted(stack)) {
            printStack(stack, time);
        }
        stack->lastPrinted = stack->allocations;
        stack->maxPrinted = std::max(stack->maxPrinted, stack->allocations);
    }
    fprintf(stderr, "\n%s aloc  sum: %lld total bytes in %lld allocations from %lld different stacks.\n", time,
            static_cast<long long>(totals.bytes), static_cast<long long>(totals.allocations),
            static_cast<long long>(totals.stacks));
}

// ---- The background -------------------------------------------------------------------------------------------------

[[noreturn]] void background()
{
    int64_t lastReport = 0;
    for (;;) {
        platform::sleepMilliseconds(static_cast<uint32_t>(configuration.wakeMilliseconds));
        LockHold held;
        tick++;
        if (configuration.protect) {
            releaseHeld();
        }
        if (configuration.track && tick - lastReport >= configuration.printWakes) {
            lastReport = tick;
            report();
        }
    }
}

// A thread of the system's: the library's threads may be about to start as the first block is asked for.
uint32_t backgroundTask(void*)
{
    KOR_EX_LOCAL(own);
    _korThread_SetCurrentName(KOR_AT(&own, 0), "tMemDbgBgT - Memory Debug configuration background tasks");
    background();
}

void startBackground()
{
    void* thread;
    uint32_t id;
    demand(platform::keepLoaded(), "the library cannot be kept loaded");
    demand(platform::threadStart(backgroundTask, nullptr, 0, &thread, &id), "no background thread");
    platform::threadClose(&thread);
}

// ---- Setting up -----------------------------------------------------------------------------------------------------

void makeTables()
{
    constexpr int32_t manyBlocks = 0x100000;
    constexpr int32_t manyStacks = 16384;
    constexpr int32_t manyPrinted = 1024;
    korEx_initHead(&memDebugEx, nullptr, 0, 1);
    _korFastLock_Init(KOR_AT_D(0, &memDebugEx), &lock, 0);
    if (configuration.doubleFree) {
        liveBlocks = _korI64Hash_Create(KOR_AT(&memDebugEx, 0), manyBlocks);
    }
    if (configuration.track) {
        stacks = _korHash_Create(KOR_AT(&memDebugEx, 0), manyStacks);
        printed = _korDpa_Create(KOR_AT(&memDebugEx, 0), manyPrinted);
    }
    if (configuration.protect) {
        for (korDpq** queue : {&heldBlocks, &heldSizes, &heldSince}) {
            *queue = _korDpq_Create(KOR_AT(&memDebugEx, 0), manyBlocks);
        }
    }
    demandClean("the debug allocator cannot be set up");
}

void switchOff()
{
    std::atomic_ref(gMemNoDebug).store(1);
    needsInit.store(false);
}

// The first allocation of all: what is to be given back at an unloading comes later.
void initTrack()
{
    platform::watchEnd();
    const char* text = getenv("KOR_MEM_DEBUG_CONF");
    if (text == nullptr) {
        switchOff();
        return;
    }
    configuration = readConfiguration(text);
    page = platform::pageSize();
    excess.store(configuration.excess);
    std::atomic_ref(gMemFailAllocAbove).store(configuration.failAbove);
    std::atomic_ref(gPoolDisable).store(configuration.keepPools ? 0 : 1);
    std::atomic_ref(gMemDebugExternalMemcheck).store(configuration.externalMemcheck ? 1 : 0);
    printConfiguration(configuration);
    if (configuration.isPlain()) {
        switchOff();
        return;
    }
    makeTables();
    needsInit.store(false);
    if (configuration.protect || configuration.track) {
        startBackground();
    }
}

bool isAboveLimit()
{
    return std::atomic_ref(gMemBytesAllocated).load() > std::atomic_ref(gMemFailAllocAbove).load();
}

} // namespace

bool isInside(const korEx* ex)
{
    for (; ex != nullptr; ex = ex->next) {
        if (ex == &memDebugEx) {
            return true;
        }
    }
    return false;
}

bool isOn()
{
    if (needsInit.load()) {
        KOR_EX_LOCAL(local);
        _korThread_Once(KOR_AT(&local, 0), &once, initTrack);
    }
    return std::atomic_ref(gMemNoDebug).load() == 0;
}

void reportExcess(korEx* ex, uint8_t depth, size_t size)
{
    if (size > excess.load(std::memory_order_relaxed)) {
        fprintf(stderr, "Excessive size of %zu allocated at:\n", size);
        _korEx_PrintStack(depth, ex);
    }
}

void* allocate(korEx* ex, uint8_t depth, size_t size)
{
    if (isAboveLimit()) {
        _korMemReserve_Free(KOR_AT_D(depth, ex));
        if (isAboveLimit()) {
            return nullptr;
        }
    }
    if (size > SIZE_MAX / 2) {
        giveUp("out of memory", nullptr);
    }
    uint64_t kept = size == 0 ? leastSize : size;
    std::atomic_ref(gMemBytesAllocated).fetch_add(kept);
    void* block = configuration.protect ? takeProtected(kept) : takePlain(kept);
    store(block, kept, nullptr);
    if (!configuration.track && !configuration.doubleFree) {
        return block;
    }
    LockHold held;
    if (configuration.doubleFree) {
        _korI64Hash_Set(KOR_AT(&memDebugEx, 0), liveBlocks, reinterpret_cast<int64_t>(block), 1);
        demandClean("a block cannot be kept");
    }
    if (configuration.track) {
        korMemStack* stack = stackFor(Key(ex, depth));
        stack->allocations++;
        stack->bytes += static_cast<int64_t>(kept);
        store(block, kept, stack);
    }
    return block;
}

void release(void* block)
{
    if (configuration.doubleFree) { // first of all: a block that is free already may not even be readable
        LockHold held;
        if (_korI64Hash_Remove(KOR_AT_D(0, &memDebugEx), liveBlocks, reinterpret_cast<int64_t>(block)) == 0) {
            giveUp("freed twice, or never allocated", block);
        }
    }
    uint64_t size = storedSize(block);
    std::atomic_ref(gMemBytesAllocated).fetch_sub(size);
    if (configuration.scribble) {
        memset(block, freedByte, size);
        testUnderrun(block);
    }
    if (configuration.track) {
        LockHold held;
        takeFromStack(storedStack(block), size);
    }
    if (!configuration.protect) {
        givePlain(block);
        return;
    }
    Pages pages = pagesOf(block);
    LockHold held;
    demand(platform::setPageAccess(pages.start, pages.size, false), "no access can be taken away");
    hold(pages);
}

size_t sizeOf(const void* block)
{
    return storedSize(block);
}

} // namespace kor::debugAllocator
