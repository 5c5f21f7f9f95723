// korInetIfTable_test.cpp - the table of a machine whose interfaces, names and clock do as they are told.
//
// The table is compiled into this file once more, under names that leave the library's alone.

#define KOR_BUILDING_LIBRARY
#define _korInetIfTable_Create testedTable_Create
#define _korInetIfTable_Destroy testedTable_Destroy
#define _korInetIfTable_GetTable testedTable_GetTable
#define _korInetIfTable_GetRecByAddr testedTable_GetRecByAddr
#define _korInetIfTable_GetInfoByAddr testedTable_GetInfoByAddr
#define _korInetIfTable_GetInfoByIfName testedTable_GetInfoByIfName
#define _korInetIfTable_GetInfoByHostname testedTable_GetInfoByHostname
#define _korInetIfTable_GetInfoByNet testedTable_GetInfoByNet
#define _korInetIfTable_GetInfoByNetWithMask testedTable_GetInfoByNetWithMask
#define _korInetIfTable_GetInfoByNetName testedTable_GetInfoByNetName
#define _korInetIfTable_GetInfoByString testedTable_GetInfoByString
#define _korHostResolutions_Create toldResolutions_Create
#define _kor_GetHostIp told_GetHostIp
#define _kor_Sleep told_Sleep

#include "net/korInetIfTable.cpp"

#undef KOR_BUILDING_LIBRARY
#undef _korHostResolutions_Create
#undef _korInetIfTable_Create
#undef _korInetIfTable_Destroy
extern "C" {
korHostResolutions* _korHostResolutions_Create(korEx*, uint8_t, const char*, const char*, uint8_t, int32_t);
void _korInetIfTable_Create(korEx*, uint8_t, const korInetIfRec**, uint32_t*);
void _korInetIfTable_Destroy(uint8_t, korEx*);
}
#include "korutil/korSocket.h"
#include "support/failingHeap.h"

#include <string>
#include <vector>
#if __has_include(<arpa/inet.h>)
#include <arpa/inet.h>
#endif

using namespace kor::test;
using kor::platform::Ipv4Interface;

namespace {

uint32_t ip(const char* text)
{
    in_addr address = {};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1) << text;
    return address.s_addr;
}

struct Told {
    std::vector<Ipv4Interface> interfaces;
    int lateFor = 0; // tries for which the last interface is not there yet
    bool refused = false;
    const char* ownAddress = "10.0.0.5";
    int32_t ownError = 0;
    int slept = 0;
    int listed = 0;
};
Told told;

} // namespace

bool kor::platform::listInterfaces(Ipv4Interface (&list)[maxInterfaces], uint32_t* count)
{
    told.listed++;
    size_t there = told.interfaces.size() - (told.listed <= told.lateFor ? 1 : 0);
    std::copy_n(told.interfaces.begin(), there, list);
    *count = static_cast<uint32_t>(there);
    return !told.refused;
}

// The resolver knows this machine under one address, or fails.
korHostResolutions* toldResolutions_Create(korEx* ex, uint8_t depth, const char*, const char*, uint8_t passive,
                                           int32_t socketType)
{
    EXPECT_EQ(passive, 1);
    EXPECT_EQ(socketType, SOCK_DGRAM);
    if (told.ownError != 0) {
        KOR_RAISE(ex, depth, told.ownError, "told");
        return nullptr;
    }
    return _korHostResolutions_Create(ex, depth, told.ownAddress, "0", passive, socketType);
}

void told_GetHostIp(uint8_t depth, korEx* ex, uint32_t* address)
{
    if (told.ownError != 0) {
        KOR_RAISE(ex, depth, told.ownError, "told");
        return;
    }
    *address = ip(told.ownAddress);
}

void told_Sleep(int64_t milliseconds)
{
    EXPECT_EQ(milliseconds, 100);
    told.slept++;
}

class KorInetIfTable : public KorTest
{
protected:
    KorInetIfTable()
    {
        _korSocket_Startup(ex, 0);
        told = {};
        told.interfaces = {{KOR_IF_LOOPBACK | KOR_IF_UP, ip("127.0.0.1"), ip("255.0.0.0")},
                           {KOR_IF_UP, ip("192.168.7.9"), ip("255.255.255.0")},
                           {KOR_IF_BROADCAST, ip("172.16.0.1"), ip("255.240.0.0")}, // down
                           {KOR_IF_UP | KOR_IF_MULTICAST, ip("10.0.0.5"), ip("255.0.0.0")}};
    }
    ~KorInetIfTable() override
    {
        testedTable_Destroy(0, ex);
        _korSocket_Cleanup(0, ex);
    }

    // The names and addresses of the table.
    std::vector<std::pair<std::string, uint32_t>> build()
    {
        const korInetIfRec* table = nullptr;
        uint32_t count = 0;
        testedTable_Create(ex, 0, &table, &count);
        std::vector<std::pair<std::string, uint32_t>> records;
        for (uint32_t i = 0; table != nullptr && i < count; i++) {
            records.emplace_back(table[i].ifName, table[i].address);
        }
        return records;
    }

    uint32_t byString(const char* text)
    {
        uint32_t address = 1;
        testedTable_GetInfoByString(ex, 0, text, &address, nullptr, nullptr);
        EXPECT_CLEAN();
        return address;
    }
};

using Records = std::vector<std::pair<std::string, uint32_t>>;

TEST_F(KorInetIfTable, PutsTheMachinesOwnAddressFirstAndLoopbackLast)
{
    Records expected = {{"IP00", ip("10.0.0.5")}, {"IP01", ip("192.168.7.9")}, {"loopback", ip("127.0.0.1")}};
    EXPECT_EQ(build(), expected);
    EXPECT_EQ(told.slept, 0);
    told.interfaces.clear();
    EXPECT_EQ(build(), expected) << "it is made once";
    const korInetIfRec* own = testedTable_GetRecByAddr(ex, 0, ip("10.0.0.5"));
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(own->network, ip("10.0.0.0"));
    EXPECT_EQ(own->broadcast, ip("10.255.255.255"));
    EXPECT_EQ(own->flags, KOR_IF_UP | KOR_IF_MULTICAST);
    const korInetIfRec* loopback = testedTable_GetRecByAddr(ex, 0, ip("127.0.0.1"));
    ASSERT_NE(loopback, nullptr);
    EXPECT_EQ(loopback->broadcast, ip("127.0.0.1"));
    EXPECT_EQ(loopback->network, ip("127.0.0.0"));
    EXPECT_EQ(loopback->flags, KOR_IF_LOOPBACK);
}

TEST_F(KorInetIfTable, WaitsForAnInterfaceThatComesUpLate)
{
    told.lateFor = 3;
    EXPECT_EQ(build().front().second, ip("10.0.0.5"));
    EXPECT_EQ(told.listed, 4);
    EXPECT_EQ(told.slept, 3);
}

TEST_F(KorInetIfTable, GivesUpAfterFiftyTries)
{
    told.lateFor = 1000;
    EXPECT_EQ(build(), (Records{{"IP00", ip("192.168.7.9")}, {"loopback", ip("127.0.0.1")}}));
    EXPECT_EQ(told.listed, 50);
    EXPECT_CLEAN();
}

TEST_F(KorInetIfTable, ToldByTheResolversErrorWhetherToWait)
{
    for (int32_t error : {KOR_ERROR_NOT_FOUND, KOR_ERROR_NOT_PERMITTED, KOR_ERROR_OS}) {
        told.listed = 0;
        told.ownError = error;
        EXPECT_EQ(build().size(), 3u) << "in the system's order";
        EXPECT_CLEAN();
        EXPECT_EQ(told.listed, error == KOR_ERROR_OS ? 1 : 50);
        testedTable_Destroy(0, ex);
    }
}

TEST_F(KorInetIfTable, HasRoomForThirtyTwo)
{
    told.interfaces.clear();
    for (uint32_t i = 1; i <= 32; i++) {
        told.interfaces.push_back({KOR_IF_UP, htonl(0x0A000000 + i), ip("255.0.0.0")});
    }
    Records records = build();
    EXPECT_EQ(records.size(), 32u);
    EXPECT_EQ(records[30].first, "IP30");
    EXPECT_EQ(records.back().first, "loopback");
}

TEST_F(KorInetIfTable, AFailureLeavesNoTable)
{
    told.refused = true;
    build();
    EXPECT_RAISED(KOR_ERROR_OS, nullptr);
    const korInetIfRec* table;
    uint32_t count;
    testedTable_GetTable(ex, 0, &table, &count);
    EXPECT_RAISED(KOR_ERROR_NOT_INITIALIZED, nullptr);
    testedTable_GetTable(ex, 0, nullptr, &count);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    EXPECT_EQ(testedTable_GetRecByAddr(ex, 0, ip("10.0.0.5")), nullptr);
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "Lookup by address failed.");
}

TEST_F(KorInetIfTable, LooksUpByNetworkAndByName)
{
    build();
    uint32_t address = 0, broadcast = 0, netmask = 0;
    testedTable_GetInfoByNet(ex, 0, htonl(10), &address, &broadcast, &netmask);
    EXPECT_EQ(address, ip("10.0.0.5"));
    EXPECT_EQ(broadcast, ip("10.255.255.255"));
    EXPECT_EQ(netmask, ip("255.0.0.0"));
    testedTable_GetInfoByNet(ex, 0, ip("192.168.7.0"), &address, nullptr, nullptr);
    EXPECT_EQ(address, ip("192.168.7.9"));
    testedTable_GetInfoByNet(ex, 0, 0, &address, nullptr, nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    testedTable_GetInfoByNet(ex, 0, htonl(192 << 8 | 168), &address, nullptr, nullptr);
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "Lookup by subnet address failed.");
    testedTable_GetInfoByNetWithMask(ex, 0, htonl(192 << 8 | 168), &address, nullptr, nullptr, ip("255.255.0.0"));
    EXPECT_EQ(address, ip("192.168.7.9"));
    testedTable_GetInfoByIfName(ex, 0, "loopback", &address, nullptr, nullptr);
    EXPECT_EQ(address, ip("127.0.0.1"));
    testedTable_GetInfoByIfName(ex, 0, "IP0", &address, nullptr, nullptr);
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "Lookup by interface name failed.");
    testedTable_GetInfoByHostname(ex, 0, nullptr, &address, nullptr, nullptr);
    EXPECT_EQ(address, ip("10.0.0.5"));
    testedTable_GetInfoByNetName(ex, 0, "any", &address, nullptr, nullptr);
    EXPECT_RAISED(KOR_ERROR_NOT_SUPPORTED, "getnetbyname");
}

TEST_F(KorInetIfTable, UnderstandsAUsersSetting)
{
    build();
    EXPECT_EQ(byString("192.168.7.9"), ip("192.168.7.9"));
    EXPECT_EQ(byString("192.168.7.0"), ip("192.168.7.9"));
    EXPECT_EQ(byString("10"), ip("10.0.0.5"));
    EXPECT_EQ(byString("8.8.8.8"), 1u) << "the out stays";
    EXPECT_EQ(byString(nullptr), 1u);
}

TEST_F(KorInetIfTable, NamesThatNoResolverKnowsAreInterfaces)
{
    build();
    EXPECT_EQ(byString("loopback"), ip("127.0.0.1"));
}

TEST_F(KorInetIfTable, WithoutMemoryThereIsAnErrorAndNoTable)
{
    sweepFailures(ex, [&] {
        testedTable_Create(ex, 0, nullptr, nullptr);
        testedTable_Destroy(0, ex);
    });
}

// ---- This machine ----

TEST_F(KorInetIfTable, TheRealOneEndsWithLoopback)
{
    const korInetIfRec* table = nullptr;
    uint32_t count = 0;
    _korInetIfTable_Create(ex, 0, &table, &count);
    ASSERT_CLEAN();
    ASSERT_GE(count, 1u);
    EXPECT_STREQ(table[count - 1].ifName, "loopback");
    for (uint32_t i = 0; i + 1 < count; i++) {
        EXPECT_EQ(table[i].flags & (KOR_IF_UP | KOR_IF_LOOPBACK), KOR_IF_UP);
        EXPECT_EQ(table[i].address & table[i].netmask, table[i].network);
    }
    _korInetIfTable_Destroy(0, ex);
}
