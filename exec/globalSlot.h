// globalSlot.h - the place of an object that the library owns while it is open: a lock, and the object behind it.

#pragma once

#include "foundation/unload.h"
#include "korutil/korFastLock.h"

#include <atomic>

namespace kor {

/// A zeroed slot is closed: asking it is harmless and gives nothing. The object has an atomic `refCount` up front. An
/// object that is being ended holds those who ask until it is gone.
template <typename Object>
class GlobalSlot
{
public:
    /// Makes the lock when the slot is first used. It outlives every closing, since somebody may wait for it just then;
    /// `unload` gives it back. Code 2.
    void prepare(uint8_t depth, korEx* ex, UnloadStep& unload)
    {
        if (made_) {
            return;
        }
        KOR_EX_CHAINED(local, ex, depth);
        _korFastLock_Init(KOR_AT_D(depth, &local), &lock_, 0);
        if (local.code == 0) {
            made_ = true;
            atUnload(unload);
        }
    }

    /// Opens a prepared slot.
    void open() { std::atomic_ref(open_).store(1); }

    /// What the unload step does.
    void clear()
    {
        KOR_EX_LOCAL(local);
        _korFastLock_Clear(KOR_AT_D(0, &local), &lock_);
    }

    bool isOpen() { return std::atomic_ref(open_).load() != 0; }

    /// Puts the object into a prepared slot.
    void fill(Object* object)
    {
        korFastLock_acquire(&lock_);
        std::atomic_ref(object_).store(object);
        korFastLock_release(&lock_);
    }

    /// The object with a reference of the caller's, or NULL.
    Object* get()
    {
        if (!isOpen()) {
            return nullptr;
        }
        korFastLock_acquire(&lock_);
        Object* object = peek();
        if (object != nullptr) {
            std::atomic_ref(object->refCount).fetch_add(1);
        }
        korFastLock_release(&lock_);
        return object;
    }

    /// The object without lock and reference, to compare with.
    Object* peek() { return std::atomic_ref(object_).load(); }

    /// Has `end` end the object, under the lock, and closes the slot. Does nothing to a closed slot.
    void close(uint8_t depth, korEx* ex, void (*end)(uint8_t depth, korEx* ex, Object* object))
    {
        if (!isOpen()) {
            return;
        }
        korFastLock_acquire(&lock_);
        if (Object* object = peek()) {
            end(KOR_AT_D(depth, ex), object);
            std::atomic_ref(object_).store(nullptr);
        }
        korFastLock_release(&lock_);
        std::atomic_ref(open_).store(0);
    }

private:
    korFastLock lock_;
    Object* object_; // atomic
    uint8_t open_;   // atomic
    bool made_;
};

} // namespace kor
