// korInetIfTable.cpp - the process's table of IPv4 interfaces: how it is made, and the lookups.
//
// Making it holds the mutex. The lookups do not: the table is written once, before they begin.

#include "korutil/korInetIfTable.h"

#include "korutil/korHostResolutions.h"
#include "korutil/korText.h"
#include "korutil/korThread.h"
#include "korutil/korTime.h"
#include "platform/interfaces.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace kor {
namespace {

constexpr uint32_t maxRecords = 32;
constexpr int maxTries = 50;
constexpr int64_t pauseMs = 100; // between two tries
constexpr int32_t hostNameSize = 256;

// A table that is being made. The last record is kept for "loopback".
struct Table {
    korInetIfRec* records;
    uint32_t count;
};

korThreadOnce tableOnce;
korMutex tableMutex;
constinit std::atomic<korInetIfRec*> tableRecords{nullptr};
constinit std::atomic<uint32_t> tableCount{0};

// ---- Making it ----

void _korInetIfOnce_Init()
{
    KOR_EX_LOCAL(ex);
    _korMutex_Init(KOR_AT(&ex, 0), &tableMutex);
}

void fillRecord(korInetIfRec* record, const platform::Ipv4Interface& source)
{
    record->address = source.address;
    record->netmask = source.netmask;
    record->network = source.address & source.netmask;
    record->broadcast = source.address | ~source.netmask;
    record->flags = source.flags;
}

// Makes a record of an interface that is up and no loopback, unless there is no room. It is taken once.
void takeInterface(Table* table, platform::Ipv4Interface* source)
{
    constexpr uint32_t told = KOR_IF_UP | KOR_IF_LOOPBACK;
    if ((source->flags & told) != KOR_IF_UP || source->address == 0 || table->count == maxRecords - 1) {
        return;
    }
    korInetIfRec* record = &table->records[table->count];
    fillRecord(record, *source);
    _kor_snprintf(record->ifName, sizeof record->ifName, "IP%02u", static_cast<unsigned>(table->count));
    table->count++;
    source->address = 0;
}

// What the system tells of this machine.
struct SystemList {
    platform::Ipv4Interface all[platform::maxInterfaces];
    uint32_t count;
};

void takeByAddress(Table* table, SystemList* system, const sockaddr* address)
{
    if (address->sa_family != AF_INET) {
        return;
    }
    uint32_t wanted = reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr;
    for (uint32_t i = 0; i < system->count; i++) {
        if (system->all[i].address == wanted) {
            takeInterface(table, &system->all[i]);
            return;
        }
    }
}

// The addresses that this machine's own name resolves to, in the resolver's order.
void takeOwnAddresses(korEx* ex, uint8_t depth, Table* table, SystemList* system)
{
    char name[hostNameSize];
    _kor_GetHostName(KOR_AT_D(depth, ex), name, sizeof name);
    korHostResolutions* own = _korHostResolutions_Create(KOR_AT(ex, depth), name, nullptr, 1, SOCK_DGRAM);
    korHostInfo* info = _korHostResolutions_GetFirst(KOR_AT(ex, depth), own);
    while (info != nullptr) {
        takeByAddress(table, system, _korHostInfo_GetAddress(KOR_AT(ex, depth), info));
        info = _korHostResolutions_GetNext(KOR_AT(ex, depth), own);
    }
    _korHostResolutions_Free(KOR_AT_D(depth, ex), own);
}

// A resolver that does not answer says nothing about the interfaces: they are told in the system's order then.
void takeInterfaces(korEx* ex, uint8_t depth, Table* table, SystemList* system)
{
    KOR_EX_PRIVATE(own, ex, depth);
    takeOwnAddresses(KOR_AT(&own, depth), table, system);
    if (own.code == KOR_ERROR_NO_MEMORY) {
        KOR_RAISE(ex, depth, own.code, nullptr);
    }
    for (uint32_t i = 0; i < system->count; i++) {
        takeInterface(table, &system->all[i]);
    }
}

void addLoopback(Table* table)
{
    korInetIfRec* record = &table->records[table->count++];
    uint32_t address = htonl(INADDR_LOOPBACK);
    fillRecord(record, {KOR_IF_LOOPBACK, address, htonl(0xFF000000)});
    record->broadcast = address; // not what the mask would give
    _kor_snprintf(record->ifName, sizeof record->ifName, "loopback");
}

// Makes a table of what there is now; on a failure there is none.
void _korIfTab_Init(korEx* ex, uint8_t depth, Table* table)
{
    SystemList system;
    table->count = 0;
    table->records = static_cast<korInetIfRec*>(std::calloc(maxRecords, sizeof(korInetIfRec)));
    if (table->records == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
        return;
    }
    if (!platform::listInterfaces(system.all, &system.count)) {
        ex->osError = platform::lastSocketError();
        KOR_RAISE(ex, depth, KOR_ERROR_OS, nullptr);
    } else {
        takeInterfaces(KOR_AT(ex, depth), table, &system);
        addLoopback(table);
    }
    if (ex->code != 0) {
        std::free(table->records);
        table->records = nullptr;
    }
}

template <typename Fits>
const korInetIfRec* findIn(const Table& table, Fits fits)
{
    for (uint32_t i = 0; table.records != nullptr && i < table.count; i++) {
        if (fits(table.records[i])) {
            return &table.records[i];
        }
    }
    return nullptr;
}

// True unless this machine has an address that the table does not have, or is not allowed or able to tell it: a network
// that is still coming up.
bool isComplete(korEx* ex, uint8_t depth, const Table& table)
{
    KOR_EX_PRIVATE(own, ex, depth);
    uint32_t address = 0;
    _kor_GetHostIp(KOR_AT_D(depth, &own), &address);
    if (own.code != 0) {
        return own.code != KOR_ERROR_NOT_FOUND && own.code != KOR_ERROR_NOT_PERMITTED;
    }
    return findIn(table, [=](const korInetIfRec& record) { return record.address == address; }) != nullptr;
}

void buildTable(korEx* ex, uint8_t depth)
{
    for (int remaining = maxTries; remaining > 0; remaining--) {
        Table table;
        _korIfTab_Init(KOR_AT(ex, depth), &table);
        if (ex->code != 0) {
            return;
        }
        if (remaining == 1 || isComplete(KOR_AT(ex, depth), table)) {
            tableCount.store(table.count);
            tableRecords.store(table.records);
            return;
        }
        _kor_Sleep(pauseMs);
        std::free(table.records);
    }
}

// ---- Looking things up ----

// What a lookup gives; each may be NULL.
struct Outs {
    uint32_t* address;
    uint32_t* broadcast;
    uint32_t* netmask;
};

void storeIn(uint32_t* out, uint32_t value)
{
    if (out != nullptr) {
        *out = value;
    }
}

template <typename Fits>
const korInetIfRec* findRecord(korEx* ex, uint8_t depth, const char* failure, Fits fits)
{
    if (ex->code != 0) {
        return nullptr;
    }
    const korInetIfRec* found = findIn({tableRecords.load(), tableCount.load()}, fits);
    if (found == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_FOUND, failure);
    }
    return found;
}

void storeRecord(const korInetIfRec* record, const Outs& outs)
{
    if (record != nullptr) {
        storeIn(outs.address, record->address);
        storeIn(outs.broadcast, record->broadcast);
        storeIn(outs.netmask, record->netmask);
    }
}

const korInetIfRec* iftab_find_byaddr(korEx* ex, uint8_t depth, uint32_t address)
{
    return findRecord(KOR_AT(ex, depth), "Lookup by address failed.",
                      [=](const korInetIfRec& record) { return record.address == address; });
}

void iftab_lookup_byaddr(korEx* ex, uint8_t depth, uint32_t address, const Outs& outs)
{
    storeRecord(iftab_find_byaddr(KOR_AT(ex, depth), address), outs);
}

void iftab_lookup_byifname(korEx* ex, uint8_t depth, const char* name, const Outs& outs)
{
    storeRecord(findRecord(KOR_AT(ex, depth), "Lookup by interface name failed.",
                           [=](const korInetIfRec& record) {
                               return name != nullptr && std::strcmp(record.ifName, name) == 0;
                           }),
                outs);
}

bool isInNet(const korInetIfRec& record, uint32_t net, uint32_t mask)
{
    return mask != 0 ? ((record.address ^ net) & mask) == 0 : (record.netmask & net) == record.network;
}

void iftab_lookup_bynetaddr(korEx* ex, uint8_t depth, uint32_t net, const Outs& outs, uint32_t mask)
{
    storeRecord(findRecord(KOR_AT(ex, depth), "Lookup by subnet address failed.",
                           [=](const korInetIfRec& record) { return isInNet(record, net, mask); }),
                outs);
}

// Moves a net up until its first byte is there: 10 stands for 10.0.0.0. `net` is not 0.
uint32_t leftAligned(uint32_t net)
{
    uint32_t host = ntohl(net);
    while (host >> 24 == 0) {
        host <<= 8;
    }
    return htonl(host);
}

void lookupNet(korEx* ex, uint8_t depth, uint32_t net, const Outs& outs, uint32_t mask)
{
    if (ex->code != 0) {
        return;
    }
    if (net == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    iftab_lookup_bynetaddr(KOR_AT(ex, depth), leftAligned(net), outs, mask);
}

void lookupHost(korEx* ex, uint8_t depth, const char* host, const Outs& outs)
{
    uint32_t address = 0;
    if (host != nullptr) {
        _kor_GetHostByName(KOR_AT_D(depth, ex), host, &address);
    } else {
        _kor_GetHostIp(KOR_AT_D(depth, ex), &address);
    }
    iftab_lookup_byaddr(KOR_AT(ex, depth), address, outs);
}

// A setting that reads as an address: the interface's own, or that of its network.
void lookupNumber(korEx* ex, uint8_t depth, const char* text, uint32_t address, const Outs& outs)
{
    iftab_lookup_byaddr(KOR_AT(ex, depth), address, outs);
    if (ex->code != 0) {
        korEx_Clear(ex);
        lookupNet(KOR_AT(ex, depth), htonl(inet_network(text)), outs, 0);
    }
}

// Any other setting: a host, a network, an interface.
void lookupName(korEx* ex, uint8_t depth, const char* text, const Outs& outs)
{
    lookupHost(KOR_AT(ex, depth), text, outs);
    if (ex->code != 0) {
        uint32_t net = 0;
        korEx_Clear(ex);
        _kor_GetNetByName(KOR_AT_D(depth, ex), text, &net);
        lookupNet(KOR_AT(ex, depth), net, outs, 0);
    }
    if (ex->code != 0) {
        korEx_Clear(ex);
        iftab_lookup_byifname(KOR_AT(ex, depth), text, outs);
    }
}

} // namespace
} // namespace kor

void _korInetIfTable_Create(korEx* ex, uint8_t depth, const korInetIfRec** table, uint32_t* count)
{
    if (ex->code != 0) {
        return;
    }
    _korThread_Once(KOR_AT(ex, depth), &kor::tableOnce, kor::_korInetIfOnce_Init);
    korMutex_enter(&kor::tableMutex);
    if (kor::tableRecords.load() == nullptr) {
        kor::buildTable(KOR_AT(ex, depth));
    }
    if (ex->code == 0 && table != nullptr) {
        *table = kor::tableRecords.load();
    }
    if (ex->code == 0 && count != nullptr) {
        *count = kor::tableCount.load();
    }
    korMutex_leave(&kor::tableMutex);
}

void _korInetIfTable_Destroy(uint8_t, korEx*)
{
    std::free(kor::tableRecords.exchange(nullptr));
}

void _korInetIfTable_GetTable(korEx* ex, uint8_t depth, const korInetIfRec** table, uint32_t* count)
{
    if (ex->code != 0) {
        return;
    }
    const korInetIfRec* records = kor::tableRecords.load();
    if (table == nullptr || count == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
    } else if (records == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_INITIALIZED, nullptr);
    } else {
        *table = records;
        *count = kor::tableCount.load();
    }
}

const korInetIfRec* _korInetIfTable_GetRecByAddr(korEx* ex, uint8_t depth, uint32_t address)
{
    return kor::iftab_find_byaddr(KOR_AT(ex, depth), address);
}

void _korInetIfTable_GetInfoByAddr(korEx* ex, uint8_t depth, uint32_t address, uint32_t* outAddress,
                                   uint32_t* outBroadcast, uint32_t* outNetmask)
{
    kor::iftab_lookup_byaddr(KOR_AT(ex, depth), address, {outAddress, outBroadcast, outNetmask});
}

void _korInetIfTable_GetInfoByIfName(korEx* ex, uint8_t depth, const char* name, uint32_t* outAddress,
                                     uint32_t* outBroadcast, uint32_t* outNetmask)
{
    kor::iftab_lookup_byifname(KOR_AT(ex, depth), name, {outAddress, outBroadcast, outNetmask});
}

void _korInetIfTable_GetInfoByHostname(korEx* ex, uint8_t depth, const char* host, uint32_t* outAddress,
                                       uint32_t* outBroadcast, uint32_t* outNetmask)
{
    if (ex->code == 0) {
        kor::lookupHost(KOR_AT(ex, depth), host, {outAddress, outBroadcast, outNetmask});
    }
}

void _korInetIfTable_GetInfoByNet(korEx* ex, uint8_t depth, uint32_t net, uint32_t* outAddress, uint32_t* outBroadcast,
                                  uint32_t* outNetmask)
{
    kor::lookupNet(KOR_AT(ex, depth), net, {outAddress, outBroadcast, outNetmask}, 0);
}

void _korInetIfTable_GetInfoByNetWithMask(korEx* ex, uint8_t depth, uint32_t net, uint32_t* outAddress,
                                          uint32_t* outBroadcast, uint32_t* outNetmask, uint32_t mask)
{
    kor::lookupNet(KOR_AT(ex, depth), net, {outAddress, outBroadcast, outNetmask}, mask);
}

void _korInetIfTable_GetInfoByNetName(korEx* ex, uint8_t depth, const char* name, uint32_t* outAddress,
                                      uint32_t* outBroadcast, uint32_t* outNetmask)
{
    if (ex->code == 0) {
        uint32_t net = 0;
        _kor_GetNetByName(KOR_AT_D(depth, ex), name, &net);
        kor::lookupNet(KOR_AT(ex, depth), net, {outAddress, outBroadcast, outNetmask}, 0);
    }
}

void _korInetIfTable_GetInfoByString(korEx* ex, uint8_t depth, const char* text, uint32_t* outAddress,
                                     uint32_t* outBroadcast, uint32_t* outNetmask)
{
    if (ex->code != 0 || text == nullptr) {
        return;
    }
    KOR_EX_PRIVATE(own, ex, depth);
    kor::Outs outs = {outAddress, outBroadcast, outNetmask};
    uint32_t address = inet_addr(text);
    if (address != INADDR_NONE) {
        kor::lookupNumber(KOR_AT(&own, depth), text, address, outs);
    } else {
        kor::lookupName(KOR_AT(&own, depth), text, outs);
    }
}
