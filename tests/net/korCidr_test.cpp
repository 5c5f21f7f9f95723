// korCidr_test.cpp - addresses in networks, and the text of network numbers. The C library's header comes first here
// and last in the table's test: both orders must do.

#include "platform/socket.h"

#include "korutil/korCidr.h"
#include "korutil/korInetIfTable.h"
#include "support/korTest.h"

using namespace kor::test;

class KorCidr : public KorTest
{
protected:
    bool matches(const char* address, const char* network)
    {
        sockaddr_in narrow = {};
        narrow.sin_family = AF_INET;
        sockaddr_in6 wide = {};
        wide.sin6_family = AF_INET6;
        bool isNarrow = inet_pton(AF_INET, address, &narrow.sin_addr) == 1;
        EXPECT_TRUE(isNarrow || inet_pton(AF_INET6, address, &wide.sin6_addr) == 1) << address;
        void* chosen = isNarrow ? static_cast<void*>(&narrow) : &wide;
        return _korCidr_Match(ex, 0, static_cast<sockaddr*>(chosen), network) != 0;
    }
};

// A prefix is the width of an address at most, 0 if it is no number, and follows the first slash.
TEST_F(KorCidr, ComparesTheBitsOfThePrefix)
{
    struct {
        const char* network;
        const char* inside;
        const char* outside;
    } cases[] = {
        {"10.0.0.0/8", "10.1.2.3", "11.1.2.3"},
        {"10.0.0.0/9", "10.127.0.1", "10.128.0.1"},
        {"192.168.1.4/30", "192.168.1.6", "192.168.1.8"},
        {"10.0.0.3/31", "10.0.0.2", "10.0.0.4"},
        {"10.0.0.1/32", "10.0.0.1", "10.0.0.2"},
        {"10.0.0.1/33", "10.0.0.1", "10.0.0.2"},
        {"10.0.0.1/-1", "10.0.0.1", "10.0.0.2"},
        {"10.0.0.1/99999999999999999999", "10.0.0.1", "10.0.0.2"},
        {"10.0.0.0/", "200.0.0.1", "::1"}, // of another family
        {"10.0.0.0/x", "200.0.0.1", "::1"},
        {"10.0.0.0/8/32", "10.0.0.1", "11.0.0.1"},
        {"fd00::/8", "fd00::1", "fe00::1"},
        {"2001:db8::/65", "2001:db8::1", "2001:db8::8000:0:0:1"},
        {"::1/129", "::1", "::2"},
        {"::/0", "::1", "10.0.0.1"},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(matches(c.inside, c.network)) << c.network;
        EXPECT_FALSE(matches(c.outside, c.network)) << c.network;
    }
    for (const char* none : {"10.0.0/8", "/8", "0000000000000000000000000000000000000000000000000000000000/0"}) {
        EXPECT_FALSE(matches("10.0.0.1", none)) << none;
    }
    EXPECT_CLEAN();
    EXPECT_FALSE(matches("10.0.0.1", "10.0.0.1"));
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Missing CIDR prefix");
    sockaddr unknown = {};
    unknown.sa_family = 77;
    EXPECT_EQ(_korCidr_Match(ex, 0, &unknown, "10.0.0.0/0"), 0);
    EXPECT_CLEAN();
    EXPECT_EQ(_korCidr_Match(ex, 0, nullptr, "10.0.0.0/0"), 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "address or network is missing");
}

TEST(InetNetwork, JoinsTheLowBytesOfItsParts)
{
    EXPECT_EQ(inet_network(""), 0u);
    EXPECT_EQ(inet_network("10"), 0x0Au);
    EXPECT_EQ(inet_network("192.168.0"), 0xC0A800u);
    EXPECT_EQ(inet_network("1.2.3.4"), 0x01020304u);
    EXPECT_EQ(inet_network("0x0a.0X10.010"), 0x0A1008u);
    EXPECT_EQ(inet_network("10.1 and so on"), 0x0A01u);
    EXPECT_EQ(inet_network("257.1"), 0x0101u);
    EXPECT_EQ(inet_network("1..2"), 0x010002u);
    const char* none = nullptr;
    for (const char* text : {"1.2.3.4.5", "1.2.3.4.", "10.1x", "0x1g", "08", "-1", none}) {
        EXPECT_EQ(inet_network(text), UINT32_MAX) << (text != none ? text : "NULL");
    }
}
