// korIfAddr.cpp - the walk over the adapters' addresses, copied into a list of the caller's.

#include "korutil/korIfAddr.h"
#include "foundation/request.h"

#include "korutil/korAlloc.h"
#include "korutil/korHostResolutions.h"
#include "korutil/korInetIfTable.h"
#include "platform/interfaces.h"

#include <cstring>

namespace kor {
namespace {

static_assert(KOR_IF_UP == platform::interfaceUp && KOR_IF_LOOPBACK == platform::interfaceLoopback &&
              KOR_IF_BROADCAST == platform::interfaceBroadcast && KOR_IF_MULTICAST == platform::interfaceMulticast &&
              KOR_IF_POINT_TO_POINT == platform::interfacePointToPoint);

constexpr uint32_t toldFlags = KOR_IF_UP | KOR_IF_LOOPBACK | KOR_IF_POINT_TO_POINT | KOR_IF_MULTICAST;

// A list that is being made.
struct Walk {
    korEx* ex;
    uint8_t depth;
    korIfAddr* first;
    korIfAddr** end;
};

korIfAddr* copyAddress(korEx* ex, uint8_t depth, const platform::AdapterAddress& source)
{
    auto* copy = requestZeroed<korIfAddr>(KOR_AT(ex, depth));
    if (copy == nullptr) {
        return nullptr;
    }
    auto length = static_cast<size_t>(_kor_GetAddressLength(source.address));
    copy->flags = source.flags & toldFlags;
    copy->name = requestCopy(KOR_AT(ex, depth), source.name);
    copy->addr = ex->code == 0 ? request<sockaddr>(KOR_AT(ex, depth), length) : nullptr;
    if (ex->code != 0) {
        _kor_freeifaddrs(KOR_AT_D(depth, ex), copy);
        return nullptr;
    }
    std::memcpy(copy->addr, source.address, length);
    return copy;
}

bool appendAddress(void* context, const platform::AdapterAddress& address)
{
    auto* walk = static_cast<Walk*>(context);
    korIfAddr* copy = copyAddress(KOR_AT(walk->ex, walk->depth), address);
    if (copy == nullptr) {
        return false;
    }
    *walk->end = copy;
    walk->end = &copy->next;
    return true;
}

} // namespace
} // namespace kor

void _kor_getifaddrs(korEx* ex, uint8_t depth, korIfAddr** list)
{
    if (ex->code != 0) {
        return;
    }
    if (list == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "list is missing");
        return;
    }
    kor::Walk walk = {korEx_at(ex, depth, __func__, __LINE__), static_cast<uint8_t>(depth + 1), nullptr, nullptr};
    walk.end = &walk.first;
    int32_t error = kor::platform::walkAdapters(kor::appendAddress, &walk);
    if (error == kor::platform::errorNoMemory) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
    } else if (error != 0) {
        ex->osError = error;
        KOR_RAISE(ex, depth, KOR_ERROR_OS, "GetAdapatersAddresses");
    }
    if (ex->code != 0) {
        _kor_freeifaddrs(KOR_AT_D(depth, ex), walk.first);
        walk.first = nullptr;
    }
    *list = walk.first;
}

void _kor_freeifaddrs(uint8_t depth, korEx* ex, korIfAddr* list)
{
    while (list != nullptr) {
        korIfAddr* next = list->next;
        _kor_free(KOR_AT_D(depth, ex), list->name);
        _kor_free(KOR_AT_D(depth, ex), list->addr);
        _kor_free(KOR_AT_D(depth, ex), list);
        list = next;
    }
}
