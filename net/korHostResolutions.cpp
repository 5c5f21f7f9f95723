// korHostResolutions.cpp - lists of addresses: what goes to the resolver, how often, and the walk over what comes back.
//
// A list belongs to the resolution that made it; every copy counts as one reference to that owner.

#include "korutil/korHostResolutions.h"
#include "foundation/request.h"

#include "korutil/korAlloc.h"
#include "korutil/korLogger.h"
#include "korutil/korTime.h"
#include "platform/error.h"
#include "platform/resolver.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

namespace kor {
namespace {

constexpr int maxAttempts = 6;
constexpr uint64_t slowMilliseconds = 2001;
constexpr uint8_t logComponent = 1;

uint8_t slowLogged = 0; // atomic: the first slow resolution of the process has been seen

// What is asked: the caller's words and what was read in them.
struct Question {
    const char* host;
    const char* service;
    addrinfo hints;
    sockaddr_in literal; // the address and port, if `isLiteral`
    bool isLiteral;      // an IPv4 text and a numeric service
};

const char* yesNo(bool value, const char* yes, const char* no)
{
    return value ? yes : no;
}

// ---- Reading the question -------------------------------------------------------------------------------------------

// A whole text that is a decimal number below 65536; the empty text is 0.
bool readPort(const char* service, uint16_t* port)
{
    char* end;
    long value = std::strtol(service, &end, 10);
    if (*end != '\0' || value < 0 || value > UINT16_MAX) {
        return false;
    }
    *port = static_cast<uint16_t>(value);
    return true;
}

void readService(Question* question)
{
    uint16_t port = 0;
    if (question->service == nullptr || readPort(question->service, &port)) {
        question->hints.ai_flags |= AI_NUMERICSERV;
        question->literal.sin_port = htons(port);
    }
}

void readHost(Question* question)
{
    in6_addr wide;
    if (question->host == nullptr) {
        return;
    }
    if (inet_pton(AF_INET, question->host, &question->literal.sin_addr) == 1) {
        question->isLiteral = (question->hints.ai_flags & AI_NUMERICSERV) != 0;
        question->hints.ai_family = AF_INET;
        question->hints.ai_flags |= AI_NUMERICHOST;
    } else if (inet_pton(AF_INET6, question->host, &wide) == 1) {
        question->hints.ai_family = AF_INET6;
        question->hints.ai_flags |= AI_NUMERICHOST;
    }
}

// ---- A list without the resolver ------------------------------------------------------------------------------------

int protocolOf(int socketType)
{
    return socketType == SOCK_STREAM ? IPPROTO_TCP : socketType == SOCK_DGRAM ? IPPROTO_UDP : 0;
}

void freeSelfMade(uint8_t depth, korEx* ex, addrinfo* record)
{
    _kor_free(KOR_AT_D(depth, ex), record->ai_addr);
    _kor_free(KOR_AT_D(depth, ex), record);
}

// NULL if memory is short: the resolver is asked then.
addrinfo* makeLiteral(korEx* ex, uint8_t depth, const Question& question, uint8_t passive)
{
    KOR_EX_PRIVATE(local, ex, depth);
    auto* record = static_cast<addrinfo*>(_kor_calloc(KOR_AT(&local, depth), 1, sizeof(addrinfo)));
    if (record == nullptr) {
        return nullptr;
    }
    auto* address = static_cast<sockaddr_in*>(_kor_malloc(KOR_AT(&local, depth), sizeof(sockaddr_in)));
    if (address == nullptr) {
        freeSelfMade(KOR_AT_D(depth, &local), record);
        return nullptr;
    }
    *address = question.literal;
    record->ai_flags = passive;
    record->ai_family = AF_INET;
    record->ai_socktype = question.hints.ai_socktype;
    record->ai_protocol = protocolOf(question.hints.ai_socktype);
    record->ai_addrlen = sizeof *address;
    record->ai_addr = reinterpret_cast<sockaddr*>(address);
    return record;
}

// ---- The resolver ---------------------------------------------------------------------------------------------------

void raiseResolverError(korEx* ex, uint8_t depth, const Question& question, int32_t error)
{
    char text[KOR_DESCRIPTION_SIZE];
    platform::errorText(error, text, sizeof text);
    ex->osError = error;
    KOR_RAISE_F(ex, depth, KOR_ERROR_OS, "getaddrinfo (%s:%s) - %s",
                question.host != nullptr ? question.host : "(null)",
                question.service != nullptr ? question.service : "null", text);
}

bool isOwnHost(const char* host)
{
    char own[256];
    if (host == nullptr || !platform::hostName(own, sizeof own)) {
        return false;
    }
    own[sizeof own - 1] = '\0';
    return std::strcmp(host, own) == 0;
}

// Every slow resolution would be noise while a name server is away; one's own name ought never to be slow.
void reportSlow(const Question& question, bool found, uint64_t milliseconds)
{
    bool first = std::atomic_ref(slowLogged).exchange(1) == 0;
    if (!first && !isOwnHost(question.host)) {
        return;
    }
    const addrinfo& hints = question.hints;
    KOR_LOG(
        logComponent, KOR_LOG_WARN,
        "getaddrinfo(%s:%s, passive:%s, AI_NUMERICHOST:%s, AI_NUMERICSERV:%s, socktype:%d) retrieved:%s %s%lldms%s",
        question.host != nullptr ? question.host : "(null)", question.service != nullptr ? question.service : "null",
        yesNo((hints.ai_flags & AI_PASSIVE) != 0, "true", "false"),
        yesNo((hints.ai_flags & AI_NUMERICHOST) != 0, "true", "false"),
        yesNo((hints.ai_flags & AI_NUMERICSERV) != 0, "true", "false"), hints.ai_socktype, yesNo(found, "yes", "no"),
        first ? "took " : "for own host took ", static_cast<long long>(milliseconds), first ? "" : " ");
}

// A name server that fails for the time being is asked again at once.
int32_t askRepeatedly(const Question& question, addrinfo** list)
{
    int32_t result = platform::resolverTryAgain;
    for (int attempt = 0; attempt < maxAttempts && result == platform::resolverTryAgain; attempt++) {
        result = platform::resolve(question.host, question.service, &question.hints, list);
    }
    return result;
}

addrinfo* askResolver(korEx* ex, uint8_t depth, const Question& question)
{
    addrinfo* list = nullptr;
    uint64_t start = _kor_GetCurrentMilliseconds();
    int32_t result = askRepeatedly(question, &list);
    uint64_t end = _kor_GetCurrentMilliseconds();
    if (result != 0) {
        list = nullptr;
        if (result != platform::resolverNotFound) {
            raiseResolverError(KOR_AT(ex, depth), question, result);
            return nullptr;
        }
    }
    if (end > start && end - start >= slowMilliseconds) { // the clock may be set back meanwhile
        reportSlow(question, list != nullptr, end - start);
    }
    return list;
}

void freeList(uint8_t depth, korEx* ex, addrinfo* list, uint8_t selfMade)
{
    if (list == nullptr) {
        return;
    }
    if (selfMade != 0) {
        freeSelfMade(KOR_AT_D(depth, ex), list);
    } else {
        platform::freeResolved(list);
    }
}

// ---- Records --------------------------------------------------------------------------------------------------------

// A record that stands before the first address of `list`.
korHostResolutions* newRecord(korEx* ex, uint8_t depth, addrinfo* list)
{
    auto* record = request<korHostResolutions>(KOR_AT(ex, depth));
    if (record != nullptr) {
        record->list = list;
        record->current = nullptr;
        record->done = 0;
        record->selfMade = 0;
        record->info.current = nullptr;
        record->info.name[0] = '\0';
        record->parent = nullptr;
        record->references = 1;
    }
    return record;
}

bool isHandedOut(const addrinfo* record)
{
    return record->ai_family == AF_INET || record->ai_family == AF_INET6;
}

} // namespace
} // namespace kor

using namespace kor;

korHostResolutions* _korHostResolutions_Create(korEx* ex, uint8_t depth, const char* host, const char* service,
                                               uint8_t passive, int32_t socketType)
{
    if (ex->code != 0) {
        return nullptr;
    }
    Question question = {host, service, {}, {}, false};
    question.hints.ai_flags = AI_ADDRCONFIG;
    question.hints.ai_socktype = socketType;
    question.literal.sin_family = AF_INET;
    readService(&question);
    readHost(&question);
    if (passive != 0) {
        question.hints.ai_flags |= AI_PASSIVE;
    }
    addrinfo* list = question.isLiteral ? makeLiteral(KOR_AT(ex, depth), question, passive) : nullptr;
    uint8_t selfMade = list != nullptr;
    if (selfMade == 0) {
        list = askResolver(KOR_AT(ex, depth), question);
        if (ex->code != 0) {
            return nullptr;
        }
    }
    korHostResolutions* resolution = newRecord(KOR_AT(ex, depth), list);
    if (resolution == nullptr) {
        freeList(KOR_AT_D(depth, ex), list, selfMade);
        return nullptr;
    }
    resolution->selfMade = selfMade;
    return resolution;
}

korHostResolutions* _korHostResolutions_Copy(korEx* ex, uint8_t depth, korHostResolutions* resolution)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (resolution == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "resolution is missing");
        return nullptr;
    }
    korHostResolutions* copy = newRecord(KOR_AT(ex, depth), resolution->list);
    if (copy != nullptr) {
        copy->parent = resolution->parent != nullptr ? resolution->parent : resolution;
        std::atomic_ref(copy->parent->references).fetch_add(1);
    }
    return copy;
}

void _korHostResolutions_Free(uint8_t depth, korEx* ex, korHostResolutions* resolution)
{
    if (resolution == nullptr || std::atomic_ref(resolution->references).fetch_sub(1) != 1) {
        return;
    }
    if (resolution->parent != nullptr) {
        _korHostResolutions_Free(KOR_AT_D(depth, ex), resolution->parent);
    } else {
        freeList(KOR_AT_D(depth, ex), resolution->list, resolution->selfMade);
    }
    _kor_free(KOR_AT_D(depth, ex), resolution);
}

korHostInfo* _korHostResolutions_GetFirst(korEx* ex, uint8_t depth, korHostResolutions* resolution)
{
    if (ex->code != 0 || resolution == nullptr) {
        return nullptr;
    }
    resolution->current = nullptr;
    resolution->done = 0;
    return _korHostResolutions_GetNext(KOR_AT(ex, depth), resolution);
}

korHostInfo* _korHostResolutions_GetNext(korEx* ex, uint8_t, korHostResolutions* resolution)
{
    if (ex->code != 0 || resolution == nullptr || resolution->done != 0) {
        return nullptr;
    }
    addrinfo* record = resolution->current == nullptr ? resolution->list : resolution->current->ai_next;
    while (record != nullptr && !isHandedOut(record)) {
        record = record->ai_next;
    }
    if (record == nullptr) {
        resolution->done = 1;
        return nullptr;
    }
    resolution->current = record;
    resolution->info.current = record;
    return &resolution->info;
}

korHostInfo* _korHostResolutions_GetCurrent(korEx* ex, uint8_t, korHostResolutions* resolution)
{
    return ex->code != 0 || resolution == nullptr ? nullptr : &resolution->info;
}

void _korHostResolutions_PreferIPv6(korEx* ex, uint8_t, korHostResolutions* resolution)
{
    if (ex->code != 0 || resolution == nullptr) {
        return;
    }
    // `before` is not taken back as a pass begins: the head moves in the first pass alone, or never comes to rest.
    addrinfo* before = nullptr;
    for (bool moved = true; moved;) {
        moved = false;
        for (addrinfo* record = resolution->list; record != nullptr; before = record, record = record->ai_next) {
            addrinfo* next = record->ai_next;
            if (next != nullptr && record->ai_family == AF_INET && next->ai_family == AF_INET6) {
                (before != nullptr ? before->ai_next : resolution->list) = next;
                record->ai_next = next->ai_next;
                next->ai_next = record;
                record = next;
                moved = true;
            }
        }
    }
}
