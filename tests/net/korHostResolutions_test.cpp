// korHostResolutions_test.cpp - the system's own resolver on names that every machine has, and addresses as text.

#include "netTest.h"
#include "support/failingHeap.h"

#include "korutil/korIfAddr.h"
#include "korutil/korInetIfTable.h"

#include <set>
#include <thread>
#include <vector>

namespace {

using namespace kor::test;
using KorHostResolutionsTest = NetTest;

TEST_F(KorHostResolutionsTest, AddressesAsText)
{
    Address address = loopback(AF_INET, htons(80));
    char host[4] = "";
    char port[8] = "";
    _kor_AddressToHostPort(ex, 0, &address.head, host, sizeof host, nullptr, 0);
    _kor_AddressToHostPort(ex, 0, &address.head, nullptr, 0, port, sizeof port);
    EXPECT_STREQ(host, "127");
    EXPECT_STREQ(port, "80");
    EXPECT_CLEAN();

    EXPECT_EQ(_kor_GetAddressLength(nullptr), 0);
    address.head.sa_family = 99;
    EXPECT_EQ(textOf(address), "");
    EXPECT_NE(ex->osError, 0);
    EXPECT_EQ(std::string(ex->description).substr(0, 14), "getaddrinfo - ");
    EXPECT_RAISED(6, std::string(ex->description).c_str());
    _kor_AddressToHostPort(ex, 0, nullptr, host, sizeof host, port, sizeof port);
    EXPECT_TRUE(std::string(host).empty() && std::string(port).empty());
    EXPECT_RAISED(6, std::string(ex->description).c_str());
}

TEST_F(KorHostResolutionsTest, NumericHosts)
{
    for (int family : families()) {
        bool wide = family == AF_INET6;
        const char* host = wide ? "::1" : "127.0.0.1";
        korHostResolutions* found = _korHostResolutions_Create(ex, 0, host, "80", 0, SOCK_STREAM);
        korHostInfo* info = _korHostResolutions_GetFirst(ex, 0, found);
        ASSERT_NE(info, nullptr) << host;
        EXPECT_STREQ(_korHostInfo_GetNumericName(ex, 0, info), host);
        EXPECT_NE(_korHostInfo_GetName(ex, 0, info), nullptr); // a name, or the numeric text again
        const auto* address = reinterpret_cast<const Address*>(_korHostInfo_GetAddress(ex, 0, info));
        EXPECT_EQ(textOf(*address), wide ? "[::1]:80" : "127.0.0.1:80");
        EXPECT_EQ(_korHostResolutions_GetNext(ex, 0, found), nullptr);
        EXPECT_EQ(found->selfMade != 0, !wide);
        _korHostResolutions_Free(0, ex, found);
    }
}

// The systems' resolvers would take its low 16 bits.
TEST_F(KorHostResolutionsTest, ANumberBeyondThePortsIsNoService)
{
    for (const char* service : {"65536", "70000", "4294967376", "-1"}) {
        EXPECT_EQ(_korHostResolutions_Create(ex, 0, "127.0.0.1", service, 0, SOCK_STREAM), nullptr) << service;
        EXPECT_EQ(ex->code, KOR_ERROR_OS) << service;
        EXPECT_EQ(ex->osError, EAI_SERVICE) << service;
        korEx_Clear(ex);
    }
}

TEST_F(KorHostResolutionsTest, ThisMachine)
{
    char name[256];
    EXPECT_EQ(_kor_GetHostName(0, ex, name, sizeof name), 256);
    EXPECT_STRNE(name, "");
    EXPECT_CLEAN();
    char tiny[1] = {'x'};
    EXPECT_EQ(_kor_GetHostName(0, ex, tiny, sizeof tiny), 1);
    EXPECT_EQ(tiny[0], '\0');
    EXPECT_NE(ex->osError, 0);
    EXPECT_RAISED(6, "gethostname");

    uint32_t first = 0, again = 0;
    _kor_GetHostIp(0, ex, &first);
    if (ex->code != 0) {
        korEx_Clear(ex);
        GTEST_SKIP() << "the machine's name has no address";
    }
    KOR_RAISE(ex, 0, 100, "pending");
    _kor_GetHostIp(0, ex, &again);
    EXPECT_EQ(again, first);
    EXPECT_RAISED(100, "pending");
}

TEST_F(KorHostResolutionsTest, NamesAsPlainAddresses)
{
    uint32_t address = 7;
    for (const char* unknown : {static_cast<const char*>(nullptr), "::1"}) {
        _kor_GetHostByName(0, ex, unknown, &address);
        EXPECT_RAISED(9, "Could not get host by name");
    }
    _kor_GetNetByName(0, ex, "loopback", &address);
    EXPECT_RAISED(11, "getnetbyname");
    EXPECT_EQ(address, 7U);
    KOR_RAISE(ex, 0, 100, "pending");
    for (const char* known : {"127.0.0.1", "localhost"}) {
        address = 7;
        _kor_GetHostByName(0, ex, known, &address);
        EXPECT_EQ(address, htonl(INADDR_LOOPBACK)) << known;
    }
    EXPECT_RAISED(100, "pending");
}

TEST_F(KorHostResolutionsTest, TheRealOneHasTheMachinesAdapters)
{
    korIfAddr* list = nullptr;
    _kor_getifaddrs(ex, 0, &list);
    std::set<uint32_t> adapters, loopbacks;
    for (const korIfAddr* one = list; one != nullptr; one = one->next) {
        ASSERT_TRUE(one->addr != nullptr && one->netmask == nullptr);
        EXPECT_STRNE(one->name, "");
        if (one->addr->sa_family == AF_INET) {
            bool isLoopback = (one->flags & KOR_IF_LOOPBACK) != 0;
            (isLoopback ? loopbacks : adapters)
                .insert(reinterpret_cast<const sockaddr_in*>(one->addr)->sin_addr.s_addr);
        } else {
            EXPECT_EQ(one->addr->sa_family, AF_INET6);
        }
    }
    EXPECT_EQ(loopbacks, std::set<uint32_t>{htonl(INADDR_LOOPBACK)});
    const korInetIfRec* table = nullptr;
    uint32_t count = 0;
    _korInetIfTable_Create(ex, 0, &table, &count);
    ASSERT_CLEAN();
    EXPECT_STREQ(table[count - 1].ifName, "loopback");
    for (uint32_t i = 0; i + 1 < count; i++) {
        EXPECT_TRUE(adapters.contains(table[i].address)) << table[i].ifName;
        EXPECT_EQ(table[i].flags & (KOR_IF_UP | KOR_IF_LOOPBACK), KOR_IF_UP);
        EXPECT_EQ(table[i].address & table[i].netmask, table[i].network);
    }
    _korInetIfTable_Destroy(0, ex);
    _kor_freeifaddrs(0, ex, list);
    _kor_freeifaddrs(0, ex, nullptr);
    _kor_getifaddrs(ex, 0, nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "list is missing");
    sweepFailures(ex, [&] {
        _kor_getifaddrs(ex, 0, &list);
        _kor_freeifaddrs(0, ex, std::exchange(list, nullptr));
    });
}

// Copies walk on their own in many threads, and whoever is last takes the list away.
TEST_F(KorHostResolutionsTest, CopiesInManyThreads)
{
    korHostResolutions* owner = _korHostResolutions_Create(ex, 0, "localhost", "80", 0, SOCK_STREAM);
    ASSERT_CLEAN();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([copy = _korHostResolutions_Copy(ex, 0, owner)] {
            KOR_EX_LOCAL(own);
            for (int j = 0; j < 200; j++) {
                korHostResolutions* further = _korHostResolutions_Copy(&own, 0, copy);
                EXPECT_NE(_korHostResolutions_GetFirst(&own, 0, further), nullptr);
                _korHostResolutions_Free(0, &own, further);
            }
            _korHostResolutions_Free(0, &own, copy);
        });
    }
    _korHostResolutions_Free(0, ex, owner);
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace
