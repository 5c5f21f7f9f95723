// hostText.cpp - addresses as text, this machine's name, and names as plain IPv4 addresses.

#include "korutil/korHostResolutions.h"
#include "korutil/korSpookyHash.h"
#include "korutil/korText.h"
#include "net/socketError.h"
#include "platform/resolver.h"

#include <atomic>
#include <cstring>

namespace kor {
namespace {

constexpr uint32_t hostNameSize = 256;

// The low half an IPv4 address, the high half the hash of the name it stands for: one word, so that a reader sees both
// from the same moment. 0 is nothing. Atomic.
uint64_t hostIpCache = 0;

void raiseNameError(korEx* ex, uint8_t depth, int32_t error)
{
    char text[KOR_DESCRIPTION_SIZE];
    platform::errorText(error, text, sizeof text);
    ex->osError = error;
    KOR_RAISE_F(ex, depth, KOR_ERROR_OS, "getaddrinfo - %s", text);
}

const char* nameOf(korEx* ex, uint8_t depth, korHostInfo* info, int32_t flags)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (info == nullptr || info->current == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "address is missing");
        return nullptr;
    }
    const addrinfo* record = info->current;
    int32_t error = platform::addressText(record->ai_addr, static_cast<int32_t>(record->ai_addrlen), info->name,
                                          sizeof info->name, nullptr, 0, flags);
    if (error != 0) {
        raiseNameError(KOR_AT(ex, depth), error);
        return nullptr;
    }
    return info->name;
}

// Numeric host and service, empty on a failure.
struct AddressText {
    char host[KOR_HOST_NAME_SIZE];
    char service[32];
};

void numericText(korEx* ex, uint8_t depth, const sockaddr* address, AddressText* text)
{
    int32_t error = platform::addressText(address, _kor_GetAddressLength(address), text->host, sizeof text->host,
                                          text->service, sizeof text->service, NI_NUMERICHOST | NI_NUMERICSERV);
    if (error != 0) {
        text->host[0] = text->service[0] = '\0';
        raiseNameError(KOR_AT(ex, depth), error);
    }
}

size_t sizeOf(const char* buffer, int32_t size)
{
    return buffer == nullptr || size < 0 ? 0 : static_cast<size_t>(size);
}

uint32_t hashOf(const char* name)
{
    size_t length = std::strlen(name);
    return static_cast<uint32_t>(length < KOR_SPOOKY_LONG_LENGTH ? _korSpookyHash_Short(name, length, nullptr)
                                                                 : _korSpookyHash_Long(name, length, nullptr));
}

// The first IPv4 address that the resolver has for a name.
bool firstIPv4(korEx* ex, uint8_t depth, const char* name, uint32_t* address)
{
    korHostResolutions* found = _korHostResolutions_Create(KOR_AT(ex, depth), name, nullptr, 1, 0);
    korHostInfo* info = _korHostResolutions_GetFirst(KOR_AT(ex, depth), found);
    while (info != nullptr && info->current->ai_family != AF_INET) {
        info = _korHostResolutions_GetNext(KOR_AT(ex, depth), found);
    }
    if (info != nullptr) {
        *address = reinterpret_cast<const sockaddr_in*>(info->current->ai_addr)->sin_addr.s_addr;
    }
    _korHostResolutions_Free(KOR_AT_D(depth, ex), found);
    return info != nullptr;
}

} // namespace
} // namespace kor

using namespace kor;

// ---- One address of a walk ------------------------------------------------------------------------------------------

const sockaddr* _korHostInfo_GetAddress(korEx* ex, uint8_t, const korHostInfo* info)
{
    return ex->code != 0 || info == nullptr || info->current == nullptr ? nullptr : info->current->ai_addr;
}

const char* _korHostInfo_GetName(korEx* ex, uint8_t depth, korHostInfo* info)
{
    return nameOf(KOR_AT(ex, depth), info, 0);
}

const char* _korHostInfo_GetNumericName(korEx* ex, uint8_t depth, korHostInfo* info)
{
    return nameOf(KOR_AT(ex, depth), info, NI_NUMERICHOST);
}

// ---- Address text ---------------------------------------------------------------------------------------------------

int32_t _kor_GetAddressLength(const sockaddr* address)
{
    if (address == nullptr) {
        return 0;
    }
    return address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

static_assert(sizeof(sockaddr_in6) == 28 && sizeof(sockaddr_in) == 16);

void _kor_AddressToString(korEx* ex, uint8_t depth, const sockaddr* address, char* buffer, int32_t size)
{
    if (ex->code != 0) {
        return;
    }
    AddressText text;
    numericText(KOR_AT(ex, depth), address, &text);
    if (ex->code != 0) {
        _kor_StringCopy(buffer, sizeOf(buffer, size), "", 0);
    } else if (address->sa_family == AF_INET6) {
        _kor_snprintf(buffer, sizeOf(buffer, size), "[%s]:%s", text.host, text.service);
    } else {
        _kor_snprintf(buffer, sizeOf(buffer, size), "%s:%s", text.host, text.service);
    }
}

void _kor_AddressToHostPort(korEx* ex, uint8_t depth, const sockaddr* address, char* host, int32_t hostSize, char* port,
                            int32_t portSize)
{
    if (ex->code != 0) {
        return;
    }
    AddressText text;
    numericText(KOR_AT(ex, depth), address, &text);
    _kor_snprintf(host, sizeOf(host, hostSize), "%s", text.host);
    _kor_snprintf(port, sizeOf(port, portSize), "%s", text.service);
}

// ---- This machine, and names as plain IPv4 addresses ----------------------------------------------------------------

int32_t _kor_GetHostName(uint8_t depth, korEx* ex, char* buffer, int32_t size)
{
    if (sizeOf(buffer, size) == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "no room for the host name");
        return size;
    }
    if (!platform::hostName(buffer, static_cast<uint32_t>(size))) {
        buffer[0] = '\0';
        KOR_RAISE_SOCKET(ex, depth, "gethostname");
    }
    buffer[size - 1] = '\0';
    return size;
}

void _kor_GetHostIp(uint8_t depth, korEx* ex, uint32_t* address)
{
    KOR_EX_CHAINED(local, ex, depth);
    char name[hostNameSize];
    _kor_GetHostName(KOR_AT_D(depth, &local), name, sizeof name);
    if (local.code != 0) {
        return;
    }
    std::atomic_ref cache(hostIpCache);
    uint64_t known = cache.load();
    uint32_t hash = hashOf(name);
    if (known != 0 && known >> 32 == hash) {
        *address = static_cast<uint32_t>(known);
        return;
    }
    uint32_t resolved = 0;
    _kor_GetHostByName(KOR_AT_D(depth, &local), name, &resolved);
    if (local.code == 0) {
        cache.store(static_cast<uint64_t>(hash) << 32 | resolved);
        *address = resolved;
    }
}

void _kor_GetHostByName(uint8_t depth, korEx* ex, const char* name, uint32_t* address)
{
    KOR_EX_CHAINED(local, ex, depth);
    in_addr literal;
    in6_addr wide;
    if (name != nullptr && inet_pton(AF_INET, name, &literal) == 1) {
        *address = literal.s_addr;
        return;
    }
    bool answered =
        name != nullptr && inet_pton(AF_INET6, name, &wide) != 1 && firstIPv4(KOR_AT(&local, depth), name, address);
    if (!answered) {
        KOR_RAISE(&local, depth, KOR_ERROR_NOT_FOUND, "Could not get host by name");
    }
}

void _kor_GetNetByName(uint8_t depth, korEx* ex, const char*, uint32_t*)
{
    KOR_RAISE(ex, depth, KOR_ERROR_NOT_SUPPORTED, "getnetbyname");
}
