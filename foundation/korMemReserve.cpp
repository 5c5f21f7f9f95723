// korMemReserve.cpp - the process's memory reserve: a list of blocks, each linked through its first bytes.
//
// It is called when the heap has refused, so it allocates nothing but the blocks themselves, and nothing at all under
// its lock but them: a raise may allocate, and so stands outside.

#include "korutil/korMemReserve.h"

#include "foundation/memCount.h"
#include "foundation/unload.h"
#include "korutil/korFastLock.h"
#include "korutil/korThread.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

namespace kor {
namespace {

struct Block {
    Block* next;
};

korThreadOnce reserveOnce;
bool reserveReady;       // set inside the once
korFastLock reserveLock; // guards what follows
Block* reserveList;
korMemReserveFreed freedCallback;
void* freedClosure;

class ReserveGuard
{
public:
    ReserveGuard() { korFastLock_acquire(&reserveLock); }
    ~ReserveGuard() { korFastLock_release(&reserveLock); }
    ReserveGuard(const ReserveGuard&) = delete;
    ReserveGuard& operator=(const ReserveGuard&) = delete;
};

uint64_t freeBlocks();

// Nobody is told: what would be told may be gone.
void freeAtUnload()
{
    freeBlocks();
}

UnloadStep freesReserve = {freeAtUnload, nullptr};

void init_ReserveLock()
{
    KOR_EX_LOCAL(local);
    _korFastLock_Init(KOR_AT_D(0, &local), &reserveLock, 0);
    if (local.code != 0) {
        korEx_Print(&local);
    } else {
        reserveReady = true;
        atUnload(freesReserve);
    }
}

// True if the lock can be used; raises if not.
bool requireReserve(korEx* ex, uint8_t depth)
{
    _korThread_Once(KOR_AT(ex, depth), &reserveOnce, init_ReserveLock);
    if (ex->code == 0 && !reserveReady) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Reserve initialization failed");
    }
    return ex->code == 0;
}

// Under the lock. The bytes of a block that the heap refuses stay counted.
bool addBlock()
{
    std::atomic_ref allocated(gMemBytesAllocated);
    if (allocated.load() > std::atomic_ref(gMemFailAllocAbove).load()) {
        return false;
    }
    allocated.fetch_add(KOR_MEM_RESERVE_BLOCK);
    auto* block = static_cast<Block*>(calloc(1, KOR_MEM_RESERVE_BLOCK));
    if (block == nullptr) {
        return false;
    }
    block->next = reserveList;
    reserveList = block;
    return true;
}

// Adds what is due; false if not all could be had, or if there is no reserve at all afterwards.
bool addBlocks(int64_t count)
{
    ReserveGuard guard;
    for (; count > 0; count--) {
        if (!addBlock()) {
            return false;
        }
    }
    return reserveList != nullptr;
}

// Under the lock. Gives the bytes freed.
uint64_t freeBlocks()
{
    uint64_t bytes = 0;
    while (Block* block = reserveList) {
        reserveList = block->next;
        free(block);
        bytes += KOR_MEM_RESERVE_BLOCK;
    }
    std::atomic_ref(gMemBytesAllocated).fetch_sub(bytes);
    return bytes;
}

// False if there is a callback already.
bool setCallback(korMemReserveFreed callback, void* closure)
{
    ReserveGuard guard;
    if (callback != nullptr && freedCallback != nullptr) {
        return false;
    }
    freedCallback = callback;
    freedClosure = callback != nullptr ? closure : nullptr;
    return true;
}

} // namespace
} // namespace kor

void _korMemReserve_Alloc(korEx* ex, uint8_t depth, int64_t bytes)
{
    if (ex->code != 0 || !kor::requireReserve(KOR_AT(ex, depth))) {
        return;
    }
    if (!kor::addBlocks(bytes / KOR_MEM_RESERVE_BLOCK + 1)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_VALUE, "Reserve allocation failed");
    }
}

void _korMemReserve_Free(uint8_t depth, korEx* ex)
{
    KOR_EX_PRIVATE(local, ex, depth);
    if (!kor::requireReserve(KOR_AT(&local, depth))) {
        return;
    }
    uint64_t bytes;
    korMemReserveFreed callback;
    void* closure;
    {
        kor::ReserveGuard guard;
        bytes = kor::freeBlocks();
        callback = kor::freedCallback;
        closure = kor::freedClosure;
    }
    if (callback != nullptr) {
        callback(KOR_AT_D(depth, &local), closure, static_cast<uint32_t>(std::min<uint64_t>(bytes, UINT32_MAX)));
    }
}

void _korMemReserve_SetFreedCallback(korEx* ex, uint8_t depth, korMemReserveFreed callback, void* closure)
{
    if (ex->code != 0 || !kor::requireReserve(KOR_AT(ex, depth))) {
        return;
    }
    if (!kor::setCallback(callback, closure)) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Callback already set");
    }
}
