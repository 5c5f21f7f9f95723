// korIfAddr_test.cpp - the walk over this machine's adapters.

#include "korutil/korIfAddr.h"

#include "korutil/korHostResolutions.h"
#include "korutil/korInetIfTable.h"
#include "korutil/korSocket.h"
#include "platform/socket.h"
#include "support/failingHeap.h"

using namespace kor::test;

class KorIfAddr : public KorTest
{
protected:
    KorIfAddr() { _korSocket_Startup(ex, 0); }
    ~KorIfAddr() override { _korSocket_Cleanup(0, ex); }
};

TEST_F(KorIfAddr, FindsTheLoopbackAdapter)
{
    korIfAddr* list = nullptr;
    _kor_getifaddrs(ex, 0, &list);
    ASSERT_CLEAN();
    bool found = false;
    for (const korIfAddr* one = list; one != nullptr; one = one->next) {
        ASSERT_NE(one->addr, nullptr);
        EXPECT_TRUE(one->addr->sa_family == AF_INET || one->addr->sa_family == AF_INET6);
        EXPECT_STRNE(one->name, "");
        EXPECT_EQ(one->netmask, nullptr);
        char text[64];
        _kor_AddressToString(ex, 0, one->addr, text, sizeof text);
        found |= std::string(text) == "127.0.0.1:0" && (one->flags & KOR_IF_LOOPBACK) != 0;
    }
    EXPECT_TRUE(found);
    _kor_freeifaddrs(0, ex, list);
    _kor_freeifaddrs(0, ex, nullptr);
    _kor_getifaddrs(ex, 0, nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "list is missing");
}

TEST_F(KorIfAddr, GivesEverythingBackWhenMemoryIsShort)
{
    sweepFailures(ex, [&] {
        korIfAddr* list = nullptr;
        _kor_getifaddrs(ex, 0, &list);
        _kor_freeifaddrs(0, ex, list);
    });
}
