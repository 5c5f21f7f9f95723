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
        if (inet_pton(AF_INET, address, &narrow.sin_addr) == 1) {
            return _korCidr_Match(ex, 0, reinterpret_cast<sockaddr*>(&narrow), network) != 0;
        }
        EXPECT_EQ(inet_pton(AF_INET6, address, &wide.sin6_addr), 1);
        return _korCidr_Match(ex, 0, reinterpret_cast<sockaddr*>(&wide), network) != 0;
    }
};

TEST_F(KorCidr, ComparesTheBitsOfThePrefix)
{
    struct Case {
        const char* address;
        const char* network;
        bool expected;
    };
    const Case cases[] = {
        {"10.1.2.3", "10.0.0.0/8", true},
        {"11.1.2.3", "10.0.0.0/8", false},
        {"10.127.0.1", "10.0.0.0/9", true},
        {"10.128.0.1", "10.0.0.0/9", false},
        {"192.168.1.6", "192.168.1.4/30", true},
        {"192.168.1.8", "192.168.1.4/30", false},
        {"10.0.0.1", "10.0.0.1/32", true},
        {"10.0.0.2", "10.0.0.1/32", false},
        {"10.0.0.1", "10.0.0.1/33", true}, // the width at most
        {"10.0.0.2", "10.0.0.1/33", false},
        {"10.0.0.2", "10.0.0.3/31", true},
        {"10.0.0.2", "10.0.0.1/-1", false}, // all of it
        {"10.0.0.1", "10.0.0.1/99999999999999999999", true},
        {"200.0.0.1", "10.0.0.0/0", true},
        {"200.0.0.1", "10.0.0.0/", true}, // no number is 0
        {"200.0.0.1", "10.0.0.0/x", true},
        {"10.0.0.1", "10.0.0.0/8/32", true}, // the first slash counts
        {"10.0.0.1", "10.0.0/8", false},     // no address
        {"10.0.0.1", "/8", false},
        {"10.0.0.1", "0000000000000000000000000000000000000000000000000000000000/0", false},
        {"fd00::1", "fd00::/8", true},
        {"fe00::1", "fd00::/8", false},
        {"2001:db8::8000:0:0:1", "2001:db8::/65", false},
        {"::1", "::1/128", true},
        {"::2", "::1/129", false},
        {"::1", "::/0", true},
        {"10.0.0.1", "::/0", false}, // of another family
        {"::1", "0.0.0.0/0", false},
    };
    for (const Case& one : cases) {
        EXPECT_EQ(matches(one.address, one.network), one.expected) << one.address << " in " << one.network;
        EXPECT_CLEAN();
    }
}

TEST_F(KorCidr, RefusesWhatIsNoNetwork)
{
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
    struct Case {
        const char* text;
        uint32_t expected;
    };
    constexpr uint32_t none = UINT32_MAX;
    const Case cases[] = {
        {"10", 0x0A},
        {"10.1", 0x0A01},
        {"192.168.0", 0xC0A800},
        {"1.2.3.4", 0x01020304},
        {"1.2.3.4.5", none},
        {"1.2.3.4.", none},
        {"0x0a.0X10.010", 0x0A1008},
        {"10.1 and so on", 0x0A01},
        {"10.1x", none},
        {"0x1g", none},
        {"08", none},
        {"-1", none},
        {"257.1", 0x0101},
        {"1..2", 0x010002},
        {"", 0},
    };
    for (const Case& one : cases) {
        EXPECT_EQ(inet_network(one.text), one.expected) << one.text;
    }
    EXPECT_EQ(inet_network(nullptr), none);
}
