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
extern "C" korHostResolutions* _korHostResolutions_Create(korEx*, uint8_t, const char*, const char*, uint8_t, int32_t);
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
    int32_t ownError = 0;
    int slept = 0;
    int listed = 0;
};
Told told;
constexpr char ownAddress[] = "10.0.0.5";

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
    return _korHostResolutions_Create(ex, depth, ownAddress, "0", passive, socketType);
}

void told_GetHostIp(uint8_t depth, korEx* ex, uint32_t* address)
{
    if (told.ownError != 0) {
        KOR_RAISE(ex, depth, told.ownError, "told");
        return;
    }
    *address = ip(ownAddress);
}

void told_Sleep(int64_t milliseconds)
{
    EXPECT_EQ(milliseconds, 100);
    told.slept++;
}

using Records = std::vector<std::pair<std::string, uint32_t>>;

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
    Records build()
    {
        const korInetIfRec* table = nullptr;
        uint32_t count = 0;
        testedTable_Create(ex, 0, &table, &count);
        Records records;
        for (uint32_t i = 0; table != nullptr && i < count; i++) {
            records.emplace_back(table[i].ifName, table[i].address);
        }
        return records;
    }
};

TEST_F(KorInetIfTable, PutsTheMachinesOwnAddressFirstAndLoopbackLast)
{
    Records expected = {{"IP00", ip("10.0.0.5")}, {"IP01", ip("192.168.7.9")}, {"loopback", ip("127.0.0.1")}};
    EXPECT_EQ(build(), expected);
    EXPECT_EQ(told.slept, 0);
    told.interfaces.clear();
    EXPECT_EQ(build(), expected) << "it is made once";
    const korInetIfRec* own = testedTable_GetRecByAddr(ex, 0, ip("10.0.0.5"));
    const korInetIfRec* loopback = testedTable_GetRecByAddr(ex, 0, ip("127.0.0.1"));
    ASSERT_TRUE(own != nullptr && loopback != nullptr);
    EXPECT_EQ(own->network, ip("10.0.0.0"));
    EXPECT_EQ(own->flags, KOR_IF_UP | KOR_IF_MULTICAST);
    EXPECT_EQ(loopback->broadcast, ip("127.0.0.1"));
    EXPECT_EQ(loopback->flags, KOR_IF_LOOPBACK);
}

TEST_F(KorInetIfTable, WaitsForTheMachinesOwnAddressFiftyTimes)
{
    struct {
        int lateFor;
        int32_t ownError;
        int listed;
        const char* first;
    } cases[] = {{3, 0, 4, "10.0.0.5"},
                 {1000, 0, 50, "192.168.7.9"},
                 {0, KOR_ERROR_NOT_FOUND, 50, "192.168.7.9"}, // the system's order
                 {0, KOR_ERROR_NOT_PERMITTED, 50, "192.168.7.9"},
                 {0, KOR_ERROR_OS, 1, "192.168.7.9"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.lateFor) + ", " + std::to_string(c.ownError));
        told.listed = told.slept = 0;
        told.lateFor = c.lateFor;
        told.ownError = c.ownError;
        Records records = build();
        EXPECT_CLEAN();
        EXPECT_EQ(records.size(), c.lateFor == 1000 ? 2u : 3u);
        EXPECT_EQ(records.front().second, ip(c.first));
        EXPECT_EQ(told.listed, c.listed);
        EXPECT_EQ(told.slept, c.listed - 1);
        testedTable_Destroy(0, ex);
    }
}

TEST_F(KorInetIfTable, HasRoomForThirtyTwo)
{
    told.interfaces.assign(32, {KOR_IF_UP, ip("10.0.0.5"), ip("255.0.0.0")});
    Records records = build();
    ASSERT_EQ(records.size(), 32u);
    EXPECT_EQ(records[30].first, "IP30");
    EXPECT_EQ(records.back().first, "loopback");
}

TEST_F(KorInetIfTable, AFailureLeavesNoTable)
{
    sweepFailures(ex, [&] {
        testedTable_Create(ex, 0, nullptr, nullptr);
        testedTable_Destroy(0, ex);
    });
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
    auto gives = [&](const char* expected, auto function, auto... arguments) {
        address = 0;
        function(ex, 0, arguments..., &address, nullptr, nullptr);
        EXPECT_EQ(address, expected == nullptr ? 0 : ip(expected));
    };
    gives("192.168.7.9", testedTable_GetInfoByNet, ip("192.168.7.0"));
    gives(nullptr, testedTable_GetInfoByNet, 0u);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    gives(nullptr, testedTable_GetInfoByNet, htonl(192 << 8 | 168));
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "Lookup by subnet address failed.");
    testedTable_GetInfoByNetWithMask(ex, 0, htonl(192 << 8 | 168), &address, nullptr, nullptr, ip("255.255.0.0"));
    EXPECT_EQ(address, ip("192.168.7.9"));
    gives("127.0.0.1", testedTable_GetInfoByIfName, "loopback");
    gives(nullptr, testedTable_GetInfoByIfName, "IP0");
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "Lookup by interface name failed.");
    gives("10.0.0.5", testedTable_GetInfoByHostname, nullptr);
    gives(nullptr, testedTable_GetInfoByNetName, "any");
    EXPECT_RAISED(KOR_ERROR_NOT_SUPPORTED, "getnetbyname");
    gives("192.168.7.9", testedTable_GetInfoByString, "192.168.7.9"); // a user's setting
    gives("192.168.7.9", testedTable_GetInfoByString, "192.168.7.0");
    gives("10.0.0.5", testedTable_GetInfoByString, "10");
    gives("127.0.0.1", testedTable_GetInfoByString, "loopback");
    gives(nullptr, testedTable_GetInfoByString, "8.8.8.8");
    gives(nullptr, testedTable_GetInfoByString, nullptr);
    EXPECT_CLEAN();
}
