// korHostResolutions_test.cpp - the system's own resolver on names that every machine has, and addresses as text.

#include "netTest.h"

#include <thread>
#include <vector>

namespace {

using namespace kor::test;
using KorHostResolutionsTest = NetTest;

std::string textOf(korEx* ex, const Address& address)
{
    char buffer[64];
    _kor_AddressToString(KOR_AT(ex, 0), &address.head, buffer, sizeof buffer);
    return buffer;
}

TEST_F(KorHostResolutionsTest, AddressesAsText)
{
    Address narrow = loopback(AF_INET, htons(80));
    inet_pton(AF_INET, "10.0.0.1", &narrow.narrow.sin_addr);
    EXPECT_EQ(textOf(ex, narrow), "10.0.0.1:80");
    EXPECT_EQ(textOf(ex, loopback(AF_INET6, htons(80))), "[::1]:80");
    EXPECT_EQ(_kor_GetAddressLength(nullptr), 0);
    EXPECT_EQ(narrow.length(), 16);
    EXPECT_EQ(loopback(AF_INET6).length(), 28);

    char host[4] = "";
    char port[8] = "";
    _kor_AddressToHostPort(KOR_AT(ex, 0), &narrow.head, host, sizeof host, nullptr, 0);
    _kor_AddressToHostPort(KOR_AT(ex, 0), &narrow.head, nullptr, 0, port, sizeof port);
    EXPECT_STREQ(host, "10.");
    EXPECT_STREQ(port, "80");
    EXPECT_CLEAN();

    Address stranger = {};
    stranger.head.sa_family = 99;
    EXPECT_EQ(textOf(ex, stranger), "");
    EXPECT_EQ(std::string(ex->description).substr(0, 14), "getaddrinfo - ");
    EXPECT_NE(ex->osError, 0);
    EXPECT_RAISED(6, std::string(ex->description).c_str());
    _kor_AddressToHostPort(KOR_AT(ex, 0), &stranger.head, host, sizeof host, port, sizeof port);
    EXPECT_STREQ(host, "");
    EXPECT_STREQ(port, "");
    EXPECT_EQ(ex->code, 6);
    korEx_Clear(ex);
    _kor_AddressToString(KOR_AT(ex, 0), nullptr, host, sizeof host);
    EXPECT_EQ(ex->code, 6);
    korEx_Clear(ex);
}

TEST_F(KorHostResolutionsTest, NumericHosts)
{
    struct {
        const char* host;
        bool wide;
    } cases[] = {{"127.0.0.1", false}, {"::1", true}};
    for (const auto& c : cases) {
        if (c.wide && !hasIPv6()) {
            continue;
        }
        korHostResolutions* found = _korHostResolutions_Create(KOR_AT(ex, 0), c.host, "80", 0, SOCK_STREAM);
        korHostInfo* info = _korHostResolutions_GetFirst(KOR_AT(ex, 0), found);
        ASSERT_CLEAN();
        ASSERT_NE(info, nullptr) << c.host;
        EXPECT_STREQ(_korHostInfo_GetNumericName(KOR_AT(ex, 0), info), c.host);
        EXPECT_NE(_korHostInfo_GetName(KOR_AT(ex, 0), info), nullptr); // a name, or the numeric text again
        const auto* address = reinterpret_cast<const sockaddr_in*>(_korHostInfo_GetAddress(KOR_AT(ex, 0), info));
        EXPECT_EQ(address->sin_family, c.wide ? AF_INET6 : AF_INET);
        EXPECT_EQ(ntohs(address->sin_port), 80);
        EXPECT_EQ(_korHostResolutions_GetNext(KOR_AT(ex, 0), found), nullptr);
        EXPECT_EQ(found->selfMade != 0, !c.wide);
        _korHostResolutions_Free(KOR_AT_D(0, ex), found);
    }
}

TEST_F(KorHostResolutionsTest, WildcardAddresses)
{
    korHostResolutions* found = _korHostResolutions_Create(KOR_AT(ex, 0), nullptr, "0", 1, SOCK_STREAM);
    ASSERT_CLEAN();
    int count = 0;
    for (korHostInfo* info = _korHostResolutions_GetFirst(KOR_AT(ex, 0), found); info != nullptr;
         info = _korHostResolutions_GetNext(KOR_AT(ex, 0), found)) {
        std::string text = _korHostInfo_GetNumericName(KOR_AT(ex, 0), info);
        EXPECT_TRUE(text == "0.0.0.0" || text == "::") << text;
        count++;
    }
    EXPECT_GE(count, 1);
    _korHostResolutions_Free(KOR_AT_D(0, ex), found);
}

TEST_F(KorHostResolutionsTest, ThisMachine)
{
    char name[256];
    EXPECT_EQ(_kor_GetHostName(KOR_AT_D(0, ex), name, sizeof name), 256);
    EXPECT_CLEAN();
    EXPECT_NE(name[0], '\0');
    char tiny[1] = {'x'};
    EXPECT_EQ(_kor_GetHostName(KOR_AT_D(0, ex), tiny, sizeof tiny), 1);
    EXPECT_EQ(tiny[0], '\0');
    EXPECT_NE(ex->osError, 0);
    EXPECT_RAISED(6, "gethostname");

    uint32_t first = 0;
    _kor_GetHostIp(KOR_AT_D(0, ex), &first);
    if (ex->code != 0) {
        korEx_Clear(ex);
        GTEST_SKIP() << "the machine's name has no address";
    }
    KOR_RAISE(ex, 0, 100, "pending");
    uint32_t again = 0;
    _kor_GetHostIp(KOR_AT_D(0, ex), &again);
    EXPECT_EQ(again, first);
    EXPECT_RAISED(100, "pending");
}

TEST_F(KorHostResolutionsTest, NamesAsPlainAddresses)
{
    uint32_t address = 7;
    _kor_GetHostByName(KOR_AT_D(0, ex), "::1", &address);
    EXPECT_RAISED(9, "Could not get host by name");
    _kor_GetHostByName(KOR_AT_D(0, ex), nullptr, &address);
    EXPECT_RAISED(9, "Could not get host by name");
    _kor_GetNetByName(KOR_AT_D(0, ex), "loopback", &address);
    EXPECT_RAISED(11, "getnetbyname");
    EXPECT_EQ(address, 7U);
    KOR_RAISE(ex, 0, 100, "pending");
    _kor_GetHostByName(KOR_AT_D(0, ex), "127.0.0.1", &address);
    EXPECT_EQ(address, htonl(INADDR_LOOPBACK));
    _kor_GetHostByName(KOR_AT_D(0, ex), "localhost", &address);
    EXPECT_EQ(address, htonl(INADDR_LOOPBACK));
    EXPECT_RAISED(100, "pending");
}

// Copies walk on their own in many threads, and whoever is last takes the list away.
TEST_F(KorHostResolutionsTest, CopiesInManyThreads)
{
    korHostResolutions* owner = _korHostResolutions_Create(KOR_AT(ex, 0), "localhost", "80", 0, SOCK_STREAM);
    ASSERT_CLEAN();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        korHostResolutions* copy = _korHostResolutions_Copy(KOR_AT(ex, 0), owner);
        threads.emplace_back([copy] {
            KOR_EX_LOCAL(own);
            for (int j = 0; j < 200; j++) {
                korHostResolutions* further = _korHostResolutions_Copy(KOR_AT(&own, 0), copy);
                EXPECT_NE(_korHostResolutions_GetFirst(KOR_AT(&own, 0), further), nullptr);
                _korHostResolutions_Free(KOR_AT_D(0, &own), further);
            }
            _korHostResolutions_Free(KOR_AT_D(0, &own), copy);
        });
    }
    _korHostResolutions_Free(KOR_AT_D(0, ex), owner);
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace
