// resolver_test.cpp - what is asked of the resolver, how often, and what is made of its answers.
//
// The lists are compiled into this file once more, under names that leave the library's alone, over a resolver and a
// clock that do as they are told.

#define KOR_BUILDING_LIBRARY
#define _korHostResolutions_Create testedResolutions_Create
#define _korHostResolutions_Copy testedResolutions_Copy
#define _korHostResolutions_Free testedResolutions_Free
#define _korHostResolutions_GetFirst testedResolutions_GetFirst
#define _korHostResolutions_GetNext testedResolutions_GetNext
#define _korHostResolutions_GetCurrent testedResolutions_GetCurrent
#define _korHostResolutions_PreferIPv6 testedResolutions_PreferIPv6
#define _kor_GetCurrentMilliseconds toldMilliseconds

#include "net/korHostResolutions.cpp"

#undef KOR_BUILDING_LIBRARY
#include "log/loggerTest.h"
#include "support/failingHeap.h"

#include <deque>

namespace {

constexpr int32_t resolverBroken = -9999;

// What the resolver is told to say, and what it has been asked.
struct Told {
    std::deque<int32_t> results; // 0 when they have run out
    std::vector<int> families;   // of the list that a 0 gives
    uint64_t slowness = 0;       // milliseconds a call
    std::vector<addrinfo> questions;
    int freed = 0;
};
Told told;
uint64_t now;

addrinfo* makeList(const std::vector<int>& families)
{
    addrinfo* list = nullptr;
    for (auto family = families.rbegin(); family != families.rend(); ++family) {
        auto* record = new addrinfo{};
        record->ai_family = *family;
        record->ai_next = list;
        list = record;
    }
    return list;
}

} // namespace

uint64_t toldMilliseconds()
{
    return now;
}

namespace kor::platform {

const int32_t resolverNotFound = EAI_NONAME;
const int32_t resolverTryAgain = EAI_AGAIN;

int32_t resolve(const char*, const char*, const addrinfo* hints, addrinfo** list)
{
    told.questions.push_back(*hints);
    now += told.slowness;
    int32_t result = 0;
    if (!told.results.empty()) {
        result = told.results.front();
        told.results.pop_front();
    }
    if (result == 0) {
        *list = makeList(told.families);
    }
    return result;
}

void freeResolved(addrinfo* list)
{
    told.freed++;
    while (list != nullptr) {
        delete std::exchange(list, list->ai_next);
    }
}

bool hostName(char* buffer, uint32_t size)
{
    std::snprintf(buffer, size, "this-machine");
    return true;
}

bool errorText(int32_t error, char* buffer, uint32_t size)
{
    std::snprintf(buffer, size, error == resolverBroken ? "broken" : "again");
    return true;
}

} // namespace kor::platform

namespace {

class ResolverTest : public kor::test::LoggerTest
{
protected:
    ResolverTest()
    {
        told = {};
        told.families = {AF_INET};
        told.questions.reserve(100); // not while memory is short
    }

    korHostResolutions* create(const char* host = "name", const char* service = "80", uint8_t passive = 0,
                               int type = SOCK_STREAM)
    {
        return _korHostResolutions_Create(ex, 0, host, service, passive, type);
    }
    void free(korHostResolutions* resolution) { _korHostResolutions_Free(0, ex, resolution); }

    std::string familiesOf(korHostResolutions* resolution)
    {
        std::string families;
        for (korHostInfo* info = _korHostResolutions_GetFirst(ex, 0, resolution); info != nullptr;
             info = _korHostResolutions_GetNext(ex, 0, resolution)) {
            EXPECT_EQ(info, _korHostResolutions_GetCurrent(ex, 0, resolution));
            families += info->current->ai_family == AF_INET6 ? '6' : '4';
        }
        EXPECT_EQ(_korHostResolutions_GetNext(ex, 0, resolution), nullptr);
        return families;
    }
};

TEST_F(ResolverTest, WhatIsAsked)
{
    constexpr int host = AI_NUMERICHOST, service = AI_NUMERICSERV;
    struct {
        const char* host;
        const char* service;
        int flags; // AI_ADDRCONFIG aside
        int family;
    } cases[] = {
        {"name", "80", service, 0},
        {"name", "65535", service, 0},
        {"name", "65536", 0, 0},
        {"name", "-1", 0, 0},
        {"name", "4294967376", 0, 0}, // 80 and 2 to the power of 32
        {"name", "99999999999999999999", 0, 0},
        {"name", "80x", 0, 0},
        {"name", "", service, 0},
        {"name", nullptr, service, 0},
        {nullptr, "0", service, 0},
        {"127.0.0.1", "echo", host, AF_INET},
        {"::1", "80", host | service, AF_INET6},
        {"127.0.0.256", "80", service, 0},
    };
    for (const auto& c : cases) {
        for (int passive : {0, AI_PASSIVE}) {
            told.questions.clear();
            free(create(c.host, c.service, passive != 0, SOCK_DGRAM));
            ASSERT_EQ(told.questions.size(), 1U);
            EXPECT_EQ(told.questions[0].ai_flags, AI_ADDRCONFIG | passive | c.flags) << c.service;
            EXPECT_EQ(told.questions[0].ai_family, c.family) << c.service;
            EXPECT_EQ(told.questions[0].ai_socktype, SOCK_DGRAM);
        }
    }
}

TEST_F(ResolverTest, NumbersAreNotAsked)
{
    struct {
        const char* service;
        int type, protocol, port;
    } cases[] = {{"80", SOCK_STREAM, 6, 80}, {"65535", SOCK_DGRAM, 17, 65535}, {nullptr, 0, 0, 0}, {"", 3, 0, 0}};
    for (const auto& c : cases) {
        korHostResolutions* found = create("10.1.2.3", c.service, 1, c.type);
        const addrinfo& record = *_korHostResolutions_GetFirst(ex, 0, found)->current;
        const auto* address = reinterpret_cast<const sockaddr_in*>(record.ai_addr);
        EXPECT_EQ(record.ai_flags, 1);
        EXPECT_EQ(record.ai_socktype, c.type);
        EXPECT_EQ(record.ai_protocol, c.protocol);
        EXPECT_EQ(record.ai_addrlen, 16U);
        EXPECT_EQ(address->sin_family, AF_INET);
        EXPECT_EQ(ntohs(address->sin_port), c.port);
        EXPECT_EQ(ntohl(address->sin_addr.s_addr), 0x0A010203U);
        EXPECT_EQ(record.ai_next, nullptr);
        free(found);
    }
    EXPECT_TRUE(told.questions.empty() && told.freed == 0);
}

TEST_F(ResolverTest, WhatIsMadeOfTheAnswers)
{
    constexpr int32_t again = EAI_AGAIN;
    constexpr int32_t broken = resolverBroken;
    struct {
        std::deque<int32_t> results;
        size_t calls;
        int32_t raised;
        const char* families;
    } cases[] = {
        {{0}, 1, 0, "4"},
        {{EAI_NONAME}, 1, 0, ""},
        {{again, again, EAI_NONAME}, 3, 0, ""},
        {{again, again, again, again, again, 0}, 6, 0, "4"},
        {{again, again, again, again, again, again}, 6, again, ""},
        {{again, broken}, 2, broken, ""},
    };
    for (const auto& c : cases) {
        told.questions.clear();
        told.results = c.results;
        korHostResolutions* found = create("name", c.raised == again ? nullptr : "80");
        EXPECT_EQ(told.questions.size(), c.calls);
        EXPECT_EQ(found == nullptr, c.raised != 0);
        if (c.raised != 0) {
            EXPECT_EQ(ex->osError, c.raised);
            EXPECT_RAISED(6, c.raised == again ? "getaddrinfo (name:null) - again" : "getaddrinfo (name:80) - broken");
        } else {
            EXPECT_EQ(familiesOf(found), c.families);
        }
        free(found);
    }
}

TEST_F(ResolverTest, SlowAnswersAreLogged)
{
    kor::test::Receiver receiver;
    receive(receiver);
    auto logs = [&](const std::string& expected) {
        auto statements = receiver.take();
        ASSERT_EQ(statements.size(), expected.empty() ? 0U : 1U);
        EXPECT_TRUE(expected.empty() || statements[0].find(expected) != std::string::npos) << statements[0];
    };
    const std::string type = ", socktype:" + std::to_string(SOCK_STREAM);
    told.slowness = 2000;
    free(create());
    told.slowness = 2001;
    told.results = {resolverBroken};
    free(create());
    EXPECT_RAISED(6, "getaddrinfo (name:80) - broken");
    logs(""); // the first was quick enough, and an error says it all
    told.results = {EAI_NONAME};
    free(create("name", nullptr, 1));
    logs("getaddrinfo(name:null, passive:true, AI_NUMERICHOST:false, AI_NUMERICSERV:true" + type +
         ") retrieved:no took 2001ms");
    free(create());
    logs(""); // once is enough, but for this machine's own name
    free(create("this-machine", "echo"));
    logs("getaddrinfo(this-machine:echo, passive:false, AI_NUMERICHOST:false, AI_NUMERICSERV:false" + type +
         ") retrieved:yes for own host took 2001ms ");
}

TEST_F(ResolverTest, OrderByFamily)
{
    const char* cases[][2] = {{"", ""},       {"4", "4"},       {"46", "64"},       {"466", "664"},
                              {"644", "644"}, {"4646", "6644"}, {"64466", "66644"}, {"?4??6?", "46"}};
    for (const auto& [before, after] : cases) {
        told.families.clear();
        for (const char* family = before; *family != '\0'; family++) {
            told.families.push_back(*family == '6' ? AF_INET6 : *family == '4' ? AF_INET : 77);
        }
        korHostResolutions* found = create();
        EXPECT_EQ(familiesOf(found).size(), std::strlen(after));
        _korHostResolutions_PreferIPv6(ex, 0, found);
        EXPECT_EQ(familiesOf(found), after);
        free(found);
    }
}

TEST_F(ResolverTest, CopiesKeepTheList)
{
    told.families = {AF_INET, AF_INET6};
    korHostResolutions* owner = create();
    korHostResolutions* copy = _korHostResolutions_Copy(ex, 0, owner);
    korHostResolutions* second = _korHostResolutions_Copy(ex, 0, copy);
    free(owner);
    free(copy);
    EXPECT_EQ(told.freed, 0);
    EXPECT_EQ(familiesOf(second), "46");
    free(second);
    EXPECT_EQ(told.freed, 1);
    free(nullptr);
    EXPECT_EQ(_korHostResolutions_Copy(ex, 0, nullptr), nullptr);
    EXPECT_RAISED(1, "resolution is missing");
    EXPECT_EQ(_korHostResolutions_GetFirst(ex, 0, nullptr), nullptr);
}

TEST_F(ResolverTest, FailingMemory)
{
    told.families.clear(); // the list itself is not the library's
    kor::test::sweepFailures(ex, [&] {
        korHostResolutions* owner = create();
        korHostResolutions* copy = ex->code == 0 ? _korHostResolutions_Copy(ex, 0, owner) : nullptr;
        free(copy);
        free(owner);
    });
    for (uint64_t failing = 1; failing <= 2; failing++) { // without memory for an own list the resolver is asked
        told.families = {};
        told.questions.clear();
        kor::test::FailingHeap heap(failing);
        free(create("127.0.0.1", "80"));
        EXPECT_CLEAN();
        ASSERT_EQ(told.questions.size(), 1U);
        EXPECT_EQ(told.questions[0].ai_family, AF_INET);
    }
}

} // namespace
