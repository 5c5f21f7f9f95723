// korShmRegion.cpp - shared memory as objects. A region remembers the size of each of its views, since not every system
// unmaps by the address alone.

#include "korutil/korShmRegion.h"
#include "foundation/request.h"

#include "korutil/korAlloc.h"
#include "korutil/korMutex.h"
#include "platform/error.h"
#include "platform/mutex.h"
#include "platform/sharedmemory.h"

namespace kor {
namespace {

struct View {
    View* next;
    void* address;
    uint64_t size;
};

// What lies behind a korShmRegion.
struct RegionObject {
    korShmRegion record;
    korMutex lock; // guards `views`
    View* views;
};

RegionObject* objectOf(korShmRegion* region)
{
    return reinterpret_cast<RegionObject*>(region);
}

// True if there is a region to work on.
bool mayUse(korEx* ex, uint8_t depth, const korShmRegion* region)
{
    if (ex->code == 0 && region == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "region is missing");
    }
    return ex->code == 0;
}

// An object with its name and no memory yet, or NULL.
RegionObject* makeObject(korEx* ex, uint8_t depth, const char* name)
{
    auto* object = kor::requestZeroed<RegionObject>(KOR_AT(ex, depth));
    if (object == nullptr) {
        return nullptr;
    }
    object->record.name = kor::requestCopy(KOR_AT(ex, depth), name);
    if (object->record.name == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), object);
        return nullptr;
    }
    platform::mutexInit(&object->lock);
    return object;
}

void freeObject(uint8_t depth, korEx* ex, RegionObject* object)
{
    platform::mutexClear(&object->lock);
    while (View* view = object->views) {
        object->views = view->next;
        _kor_free(KOR_AT_D(depth, ex), view);
    }
    _kor_free(KOR_AT_D(depth, ex), object->record.name);
    _kor_free(KOR_AT_D(depth, ex), object);
}

void addView(RegionObject* object, View* view)
{
    korMutex_enter(&object->lock);
    view->next = object->views;
    object->views = view;
    korMutex_leave(&object->lock);
}

// Takes the view at an address off the list, or gives NULL.
View* removeView(RegionObject* object, const void* address)
{
    korMutex_enter(&object->lock);
    View** link = &object->views;
    while (*link != nullptr && (*link)->address != address) {
        link = &(*link)->next;
    }
    View* view = *link;
    if (view != nullptr) {
        *link = view->next;
    }
    korMutex_leave(&object->lock);
    return view;
}

} // namespace
} // namespace kor

void _korShmRegion_Create(korEx* ex, uint8_t depth, const char* name, uint8_t* created, uint64_t size,
                          korShmRegion** region)
{
    if (ex->code != 0) {
        return;
    }
    if (name == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "region name is missing");
        return;
    }
    kor::RegionObject* object = kor::makeObject(KOR_AT(ex, depth), name);
    if (object == nullptr) {
        return;
    }
    bool first;
    if (!kor::platform::openSharedMemory(&object->record.handle, name, static_cast<uint32_t>(size), &first)) {
        ex->osError = kor::platform::lastSystemError();
        KOR_RAISE(ex, depth, KOR_ERROR_OS, nullptr);
        kor::freeObject(KOR_AT_D(depth, ex), object);
        return;
    }
    if (first && created != nullptr) {
        *created = 1;
    }
    *region = &object->record;
}

void* _korShmRegion_Map(korEx* ex, uint8_t depth, korShmRegion* region, uint64_t size, uint64_t offset)
{
    if (!kor::mayUse(KOR_AT(ex, depth), region)) {
        return nullptr;
    }
    auto* view = kor::request<kor::View>(KOR_AT(ex, depth));
    if (view == nullptr) {
        return nullptr;
    }
    view->size = size;
    view->address = kor::platform::mapSharedMemory(region->handle, static_cast<uint32_t>(offset), &view->size);
    if (view->address == nullptr) {
        ex->osError = kor::platform::lastSystemError();
        KOR_RAISE(ex, depth, KOR_ERROR_OS, nullptr);
        _kor_free(KOR_AT_D(depth, ex), view);
        return nullptr;
    }
    kor::addView(kor::objectOf(region), view);
    return view->address;
}

void _korShmRegion_Unmap(korEx* ex, uint8_t depth, korShmRegion* region, void* address)
{
    if (!kor::mayUse(KOR_AT(ex, depth), region)) {
        return;
    }
    kor::View* view = kor::removeView(kor::objectOf(region), address);
    if (!kor::platform::unmapSharedMemory(address, view != nullptr ? view->size : 0)) {
        ex->osError = kor::platform::lastSystemError();
        KOR_RAISE(ex, depth, KOR_ERROR_OS, nullptr);
    }
    _kor_free(KOR_AT_D(depth, ex), view);
}

void _korShmRegion_Destroy(uint8_t depth, korEx* ex, korShmRegion* region)
{
    if (region != nullptr) {
        kor::platform::closeSharedMemory(region->handle, region->name);
        kor::freeObject(KOR_AT_D(depth, ex), kor::objectOf(region));
    }
}

void _korShmRegion_Unlink(uint8_t, korEx*, korShmRegion*)
{
    // Memory goes with its last user.
}
