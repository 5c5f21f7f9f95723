// korexchange_test.cpp - the server as its clients see it: sessions, delivery, retained messages and wills, clients
// that break the rules or stop reading, and its command line.

#include "exchangeServer.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <vector>

namespace {

using namespace kor::test;

// Publishes with QoS 1 and waits for the answer.
void publish(Client& from, const std::string& topic, const std::string& payload, unsigned flags = 0)
{
    EXPECT_EQ(from.ask(publishPacket(topic, payload, 77, flags)), pubackPacket(77));
}

// ---- Sessions -------------------------------------------------------------------------------------------------------

TEST_F(ExchangeTest, Connect)
{
    start();
    auto refused = [&](const std::string& packet, unsigned code) {
        Client client(port);
        EXPECT_EQ(client.ask(packet), connackPacket(code));
        EXPECT_EQ(client.next(), closedByServer);
    };
    std::string tail = number(0) + field("id");
    refused(packet(0x10, field("MQTT") + '\5' + '\2' + tail), 1);
    refused(packet(0x10, field("MQIsdp") + '\3' + '\2' + tail), 1);
    refused(packet(0x10, field("MQTT") + '\4' + std::string(1, '\0') + number(0) + field("")), 2);

    Client nameless = connect("");
    Client nameless2 = connect(""); // both get ids of their own, so neither takes over
    nameless.settle();
    nameless2.settle();
    std::string flags = "\xc2"; // user name and password are taken and left alone
    Client named(port);
    EXPECT_EQ(
        named.ask(packet(0x10, field("MQTT") + '\4' + flags + tail + field("user") + field(std::string("\0\xff", 2)))),
        connackPacket(0));
    Client kept(port); // and so is the wish for a session that stays
    EXPECT_EQ(kept.ask(packet(0x10, field("MQTT") + '\4' + std::string(1, '\0') + number(0) + field("kept"))),
              connackPacket(0));
    kept.send(disconnectPacket);
    EXPECT_EQ(kept.next(), closedByServer);
}

TEST_F(ExchangeTest, TakeOver)
{
    start();
    Client watcher = connect("watcher");
    watcher.subscribe("gone/#");
    Client first = connect("twin", 0, {"gone/first", "x"});
    first.subscribe("a");
    Client second = connect("twin", 0, {"gone/second", "y"});
    EXPECT_EQ(first.next(), closedByServer);
    EXPECT_EQ(watcher.next(), publishPacket("gone/first", "x"));
    second.subscribe("b");
    publish(watcher, "a", "to nobody");
    publish(watcher, "b", "to the second");
    EXPECT_EQ(second.next(), publishPacket("b", "to the second"));
    second.close();
    EXPECT_EQ(watcher.next(), publishPacket("gone/second", "y"));
}

TEST_F(ExchangeTest, KeepAlive)
{
    start();
    Client watcher = connect("watcher", 1);
    watcher.subscribe("gone");
    auto before = std::chrono::steady_clock::now();
    Client silent = connect("silent", 1, {"gone", "silent"});
    std::string heard;
    while ((heard = watcher.ask(pingPacket)) == pongPacket) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // no need to ask more often
    }
    auto lasted = std::chrono::steady_clock::now() - before;
    EXPECT_EQ(heard, publishPacket("gone", "silent"));
    EXPECT_GE(lasted, std::chrono::milliseconds(1400)); // one and a half times, less what clocks differ by
    EXPECT_EQ(silent.next(), closedByServer);
    EXPECT_EQ(watcher.next(), pongPacket);
    watcher.settle();
}

// ---- Delivery -------------------------------------------------------------------------------------------------------

TEST_F(ExchangeTest, BothQualitiesOfService)
{
    start();
    Client publisher = connect("publisher");
    Client receiver = connect("receiver");
    receiver.subscribe("zero/+", 0);
    receiver.subscribe("one/+", 1);
    EXPECT_EQ(receiver.ask(subscribePacket("two/+", 2, 9)), subackPacket(1, 9));
    for (const std::string granted : {"zero", "one", "two"}) {
        publisher.send(publishPacket(granted + "/0", "with QoS 0"));
        EXPECT_EQ(receiver.next(), publishPacket(granted + "/0", "with QoS 0"));
    }
    publish(publisher, "zero/1", "with QoS 1", duplicate); // whose flag is not handed on
    EXPECT_EQ(receiver.next(), publishPacket("zero/1", "with QoS 1"));
    for (unsigned id = 1; id <= 3; id++) {
        publish(publisher, id < 3 ? "one/1" : "two/1", "with QoS 1");
        EXPECT_EQ(receiver.next(), publishPacket(id < 3 ? "one/1" : "two/1", "with QoS 1", id));
        receiver.send(pubackPacket(id));
    }
    receiver.send(pubackPacket(1)); // once more, and one that never was: no harm
    receiver.send(pubackPacket(4711));
    receiver.settle();

    // Several filters in one packet, one of them with more than is offered.
    std::string filters = field("x") + '\1' + field("y/#") + '\2' + field("z") + std::string(1, '\0');
    EXPECT_EQ(publisher.ask(packet(0x82, number(500) + filters)), packet(0x90, number(500) + std::string("\1\1\0", 3)));
    publish(receiver, "y", "to itself and to others");
    EXPECT_EQ(publisher.next(), publishPacket("y", "to itself and to others", 1));
    EXPECT_EQ(publisher.ask(packet(0xa2, number(501) + field("x") + field("y/#") + field("never"))),
              unsubackPacket(501));
    publish(receiver, "y", "to nobody");
    publish(receiver, "z", "");
    EXPECT_EQ(publisher.next(), publishPacket("z", ""));
    publisher.settle();
}

TEST_F(ExchangeTest, OneDeliveryForEachClient)
{
    start();
    Client publisher = connect("publisher");
    Client receiver = connect("receiver");
    for (const char* filter : {"a/b", "a/+", "+/b", "#", "a/#"}) {
        receiver.subscribe(filter, filter[0] == '+');
    }
    publish(publisher, "a/b", "by the highest QoS");
    EXPECT_EQ(receiver.next(), publishPacket("a/b", "by the highest QoS", 1));
    receiver.send(pubackPacket(1));
    receiver.subscribe("+/b", 0); // in place of the one with QoS 1
    publish(publisher, "a/b", "no longer");
    EXPECT_EQ(receiver.next(), publishPacket("a/b", "no longer"));
    for (const char* filter : {"#", "a/b", "a/+", "a/#"}) {
        EXPECT_EQ(receiver.ask(unsubscribePacket(filter)), unsubackPacket());
        publish(publisher, "a/b", filter);
        EXPECT_EQ(receiver.next(), publishPacket("a/b", filter));
    }
    EXPECT_EQ(receiver.ask(unsubscribePacket("+/b")), unsubackPacket());
    publish(publisher, "a/b", "to nobody");
    receiver.settle();
}

std::vector<std::string> levelsOf(const std::string& text)
{
    std::vector<std::string> levels(1);
    for (char c : text) {
        if (c == '/') {
            levels.emplace_back();
        } else {
            levels.back() += c;
        }
    }
    return levels;
}

// The standard's rules, level by level.
bool matches(const std::string& filter, const std::string& topic)
{
    if (topic[0] == '$' && (filter[0] == '+' || filter[0] == '#')) {
        return false;
    }
    auto asked = levelsOf(filter);
    auto given = levelsOf(topic);
    for (size_t i = 0; i < asked.size(); i++) {
        if (asked[i] == "#") {
            return true;
        }
        if (i == given.size() || (asked[i] != "+" && asked[i] != given[i])) {
            return false;
        }
    }
    return asked.size() == given.size();
}

// What comes up to the answer to a ping, retained messages and others, by topic.
std::multiset<std::string> topicsUntilPong(Client& client, bool areRetained)
{
    std::multiset<std::string> topics;
    client.send(pingPacket);
    for (std::string packet; (packet = client.next()) != pongPacket && packet[0] != '(';) {
        EXPECT_EQ(packet[0], areRetained ? '\x31' : '\x30');
        topics.insert(packet.substr(4, static_cast<size_t>(packet[3])));
    }
    return topics;
}

TEST_F(ExchangeTest, WildcardsByTheStandard)
{
    start();
    const std::vector<std::string> topics = {"a",
                                             "b",
                                             "/",
                                             "/a",
                                             "a/",
                                             "a/b",
                                             "a/c",
                                             "a/b/c",
                                             "a//b",
                                             "a/b/",
                                             "//",
                                             "b/a/b",
                                             "$SYS",
                                             "$SYS/x",
                                             "$x/y/z",
                                             "a/$x",
                                             "A",
                                             "a/b/c/d",
                                             "\xc3\xa9/\xe2\x82\xac"};
    const std::vector<std::string> filters = {"#",     "+",     "/",          "/#",    "/+",     "+/",    "+/+",
                                              "+/#",   "a",     "a/#",        "a/+",   "+/b",    "a/+/#", "a/b/#",
                                              "+/b/#", "a/+/c", "+/+/+",      "//",    "//#",    "+//+",  "$SYS/#",
                                              "$SYS",  "$x/#",  "$SYS/+",     "+/x",   "#",      "a//#",  "a/b/c/#",
                                              "A/#",   "+/$x",  "\xc3\xa9/+", "+/+/#", "$x/+/z", "+/+/b"};
    Client publisher = connect("publisher");
    for (const std::string& topic : topics) {
        publish(publisher, topic, "kept", retained);
    }
    for (const std::string& filter : filters) {
        SCOPED_TRACE("filter " + filter);
        std::multiset<std::string> expected;
        std::copy_if(topics.begin(), topics.end(), std::inserter(expected, expected.begin()),
                     [&](const std::string& topic) { return matches(filter, topic); });
        Client receiver = connect("receiver");
        receiver.subscribe(filter);
        EXPECT_EQ(topicsUntilPong(receiver, true), expected);
        for (const std::string& topic : topics) {
            publisher.send(publishPacket(topic, "live"));
        }
        publisher.settle();
        EXPECT_EQ(topicsUntilPong(receiver, false), expected);
    }
}

TEST_F(ExchangeTest, RandomFiltersAgreeWithTheStandard)
{
    start();
    Random random;
    auto draw = [&](const std::vector<std::string>& levels, const char* last) {
        std::string text;
        for (uint64_t i = 0, count = 1 + random.below(4); i < count; i++) {
            text += (i > 0 ? "/" : "") + levels[random.below(levels.size())];
        }
        text += random.chance(30) ? last : "";
        return text.empty() ? "a" : text;
    };
    Client publisher = connect("publisher");
    for (int round = 0; round < 20; round++) {
        Client receiver = connect("receiver");
        std::set<std::string> filters;
        for (uint64_t i = 0; i < 5; i++) {
            filters.insert(draw({"a", "b", "+", ""}, "/#"));
            filters.insert(draw({"a", "b", "+", "$"}, ""));
        }
        for (const std::string& filter : filters) {
            receiver.subscribe(filter);
        }
        for (int removals = 0; removals < 3; removals++) {
            receiver.ask(unsubscribePacket(*filters.begin()));
            filters.erase(filters.begin());
        }
        std::multiset<std::string> expected;
        for (int i = 0; i < 30; i++) {
            std::string topic = draw({"a", "b", "", "$"}, "/a");
            publisher.send(publishPacket(topic, ""));
            if (std::any_of(filters.begin(), filters.end(), [&](auto& filter) { return matches(filter, topic); })) {
                expected.insert(topic);
            }
        }
        publisher.settle();
        EXPECT_EQ(topicsUntilPong(receiver, false), expected);
    }
}

TEST_F(ExchangeTest, Retained)
{
    start();
    Client publisher = connect("publisher");
    Client live = connect("live");
    live.subscribe("r/#", 1);
    publish(publisher, "r/1", "first", retained);
    EXPECT_EQ(live.next(), publishPacket("r/1", "first", 1)); // it is new to this one: no flag
    live.send(pubackPacket(1));
    publisher.send(publishPacket("r/1", "second", 0, retained));
    EXPECT_EQ(live.next(), publishPacket("r/1", "second"));
    publish(publisher, "r/2", "other", retained);
    publish(publisher, "r/2", "not kept");

    Client late = connect("late");
    late.subscribe("r/1", 1);
    EXPECT_EQ(late.next(), publishPacket("r/1", "second", 0, retained));
    late.subscribe("r/+", 1);
    std::set<std::string> got = {late.next(), late.next()};
    EXPECT_EQ(got, (std::set<std::string>{publishPacket("r/1", "second", 0, retained),
                                          publishPacket("r/2", "other", 1, retained)}));
    late.send(pubackPacket(1));
    late.subscribe("r/2", 0); // and with less QoS than it was published with; once more with each subscription
    EXPECT_EQ(late.next(), publishPacket("r/2", "other", 0, retained));

    publish(publisher, "r/1", "", retained); // ends it, and is delivered to those who are there
    EXPECT_EQ(late.next(), publishPacket("r/1", "", 2));
    publish(publisher, "r/never", "", retained);
    Client later = connect("later");
    later.subscribe("#");
    EXPECT_EQ(later.next(), publishPacket("r/2", "other", 0, retained));
    later.settle();
}

TEST_F(ExchangeTest, Wills)
{
    start();
    Client watcher = connect("watcher");
    watcher.subscribe("will/+", 1);
    connect("abrupt", 0, {"will/abrupt", "one", 1}).close();
    EXPECT_EQ(watcher.next(), publishPacket("will/abrupt", "one", 1));
    watcher.send(pubackPacket(1));
    Client orderly = connect("orderly", 0, {"will/orderly", "never"});
    orderly.send(disconnectPacket);
    EXPECT_EQ(orderly.next(), closedByServer);
    Client rude = connect("rude", 0, {"will/rude", std::string("\0\xff", 2), 0, true});
    rude.send(connectPacket("rude"));
    EXPECT_EQ(rude.next(), closedByServer);
    EXPECT_EQ(watcher.next(), publishPacket("will/rude", std::string("\0\xff", 2)));
    watcher.settle();
    Client late = connect("late");
    late.subscribe("will/#");
    EXPECT_EQ(late.next(), publishPacket("will/rude", std::string("\0\xff", 2), 0, retained));
    late.settle();
}

TEST_F(ExchangeTest, SentAgainUntilAcknowledged)
{
    start({"--retry", "1"});
    Client publisher = connect("publisher");
    Client receiver = connect("receiver");
    receiver.subscribe("t", 1);
    for (unsigned id = 1; id <= 2; id++) {
        publish(publisher, "t", "message", 0);
        EXPECT_EQ(receiver.next(), publishPacket("t", "message", id));
    }
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(receiver.next(), publishPacket("t", "message", 1, duplicate));
        EXPECT_EQ(receiver.next(), publishPacket("t", "message", 2, duplicate));
    }
    receiver.send(pubackPacket(1));
    EXPECT_EQ(receiver.next(), publishPacket("t", "message", 2, duplicate));
    receiver.send(pubackPacket(2));
    publish(publisher, "t", "last");
    EXPECT_EQ(receiver.next(), publishPacket("t", "last", 3));
    EXPECT_EQ(receiver.next(), publishPacket("t", "last", 3, duplicate));
}

// There are 65535 packet ids, of which half may wait at a time.
TEST_F(ExchangeTest, PacketIdsRunOutAndAround)
{
    constexpr unsigned most = 32768;
    start({"--retry", "600"});
    Client publisher = connect("publisher");
    Client receiver = connect("receiver");
    receiver.subscribe("t", 1);
    auto publishMany = [&](unsigned count) {
        std::string packets;
        for (unsigned i = 1; i <= count; i++) {
            packets += publishPacket("t", "", i);
        }
        publisher.send(packets);
        for (unsigned i = 1; i <= count; i++) {
            ASSERT_EQ(publisher.next(), pubackPacket(i));
        }
    };
    publishMany(most + 2);
    for (unsigned id = 1; id <= most; id++) {
        ASSERT_EQ(receiver.next(), publishPacket("t", "", id));
    }
    receiver.settle(); // two wait
    EXPECT_EQ(receiver.ask(pubackPacket(7)), publishPacket("t", "", most + 1));
    EXPECT_EQ(receiver.ask(pubackPacket(8)), publishPacket("t", "", most + 2));
    for (unsigned id = 1; id < most; id++) {
        receiver.send(id == 3 ? "" : pubackPacket(id)); // 3 stays in use
    }
    receiver.settle();
    publishMany(most - 3);
    for (unsigned id = most + 3; id < 65536; id++) {
        ASSERT_EQ(receiver.next(), publishPacket("t", "", id));
        receiver.send(pubackPacket(id));
    }
    publishMany(3);
    for (unsigned id : {1u, 2u, 4u}) {
        EXPECT_EQ(receiver.next(), publishPacket("t", "", id));
    }
}

// ---- Streams --------------------------------------------------------------------------------------------------------

TEST_F(ExchangeTest, LargeMessages)
{
    start();
    Random random;
    std::string payload(900 * 1024, '\0');
    std::generate(payload.begin(), payload.end(), [&] { return static_cast<char>(random.next()); });
    Client publisher = connect("publisher");
    Client receiver = connect("receiver");
    receiver.subscribe("large", 1);
    for (unsigned id = 1; id <= 3; id++) {
        publish(publisher, "large", payload);
        EXPECT_TRUE(receiver.next() == publishPacket("large", payload, id));
        receiver.send(pubackPacket(id));
        std::rotate(payload.begin(), payload.begin() + 1, payload.end());
    }
    std::string name(65535, 'n'); // the longest topic, kept and found again
    publish(publisher, name, "x", retained);
    Client late = connect("late");
    late.subscribe(name);
    EXPECT_TRUE(late.next() == publishPacket(name, "x", 0, retained));
}

TEST_F(ExchangeTest, AnyDivisionOfTheStream)
{
    start();
    std::string stream = connectPacket("pieces") + subscribePacket("p/#", 1, 7) + publishPacket("p/1", "one") +
                         publishPacket("p/2", std::string(300, 'x'), 8) + pingPacket;
    auto receiveAll = [](Client& client) {
        std::multiset<std::string> got; // answers may come before messages
        for (int i = 0; i < 6; i++) {
            got.insert(client.next());
        }
        EXPECT_EQ(got, (std::multiset<std::string>{connackPacket(0), subackPacket(1, 7), publishPacket("p/1", "one"),
                                                   publishPacket("p/2", std::string(300, 'x'), 1), pubackPacket(8),
                                                   pongPacket}));
    };
    for (size_t size : {size_t{1}, size_t{2}, size_t{7}, stream.size()}) {
        Client client(port);
        for (size_t at = 0; at < stream.size(); at += size) {
            client.send(stream.substr(at, size));
        }
        receiveAll(client);
    }
}

TEST_F(ExchangeTest, HundredClients)
{
    start();
    Client publisher = connect("publisher");
    std::vector<Client> clients;
    for (int i = 0; i < 100; i++) {
        clients.push_back(connect("client " + std::to_string(i)));
        clients.back().subscribe("all", 1);
    }
    for (unsigned id = 1; id <= 3; id++) {
        publish(publisher, "all", "to everybody");
        for (Client& client : clients) {
            EXPECT_EQ(client.next(), publishPacket("all", "to everybody", id));
            client.send(pubackPacket(id));
        }
    }
    for (Client& client : clients) {
        publish(client, "all/answer", "");
    }
}

// ---- Clients that break rules ---------------------------------------------------------------------------------------

TEST_F(ExchangeTest, MalformedPacketsCloseTheirConnectionOnly)
{
    struct Case {
        std::string bytes;
        const char* reason; // told by a statement
    };
    const Case afterConnect[] = {
        // each handler, stopped where it has half done its work
        {connectPacket("again"), "second CONNECT"},
        {packet(0x36, field("t") + number(1)), "PUBLISH with QoS 3"},
        {packet(0x30, number(10) + "short"), "End of buffer"},
        {publishPacket("a/+", ""), "topic to publish to is empty or has a wildcard"},
        {publishPacket("\xed\xa0\x80", ""), "text is not well-formed UTF-8"},
        {packet(0x80, number(1) + field("f") + '\1'), "flags of the packet are not those of its type"},
        {packet(0x82, number(1) + field("fine") + '\1' + field("#/bad") + '\1'), "wildcard in the wrong place"},
        {packet(0x82, number(1)), "no filter in the packet"},
        {packet(0xa2, number(1) + field("fine") + field("a/#/b")), "wildcard in the wrong place"},
        {packet(0xa2, number(0) + field("f")), "packet id is 0"},
        {packet(0x40, number(0)), "packet id is 0"},
        {packet(0xc0, "x"), "packet is longer than its fields"},
        {packet(0xe0, "x"), "packet is longer than its fields"},
        {packet(0x62, number(1)), "PUBREL is not a client's to send"},
        {packet(0xf0, ""), "type of the packet is reserved"},
        {"\x30\x80\x80\x80\x80\x01", "length of the packet has more than four bytes"},
        {"\x30\xff\xff\xff\x7f", "packet has 268435460 bytes and the limit is 1000"},
        {publishPacket("t", std::string(995, 'x')), "packet has 1001 bytes and the limit is 1000"},
    };
    const Case first[] = {
        {pingPacket, "PINGREQ before CONNECT"},
        {publishPacket("watched", "unseen"), "PUBLISH before CONNECT"},
        {"GET / HTTP/1.1\r\n\r\n", "flags of the packet are not those of its type"},
        {packet(0x10, field("HTTP") + '\4' + '\2' + number(0) + field("x")), "protocol is not MQTT"},
        {packet(0x10, field("MQTT") + '\4' + '\3' + number(0) + field("x")), "reserved bit of the connect flags"},
        {packet(0x10, field("MQTT") + '\4' + '\2' + number(0)), "End of buffer"},
        {connectPacket("x", 0, {"a/#", ""}), "topic to publish to is empty or has a wildcard"},
    };
    start({"--limit", "1000"});
    Client watcher = connect("watcher");
    watcher.subscribe("watched");
    auto check = [&](const Case& wrong, bool connected) {
        SCOPED_TRACE(testing::PrintToString(wrong.bytes) + " " + wrong.reason);
        size_t told = 1;
        for (size_t at = 0; (at = server->output().find(wrong.reason, at)) != std::string::npos; at++) {
            told++;
        }
        Client bad = connected ? connect("bad", 0, {"watched", "will"}) : Client(port);
        bad.send(wrong.bytes);
        EXPECT_EQ(bad.next(), closedByServer);
        EXPECT_TRUE(server->waitFor(wrong.reason, told));
        if (connected) {
            EXPECT_EQ(watcher.next(), publishPacket("watched", "will"));
        }
        watcher.settle();
    };
    for (const Case& wrong : afterConnect) {
        check(wrong, true);
    }
    for (const Case& wrong : first) {
        check(wrong, false);
    }
    publish(watcher, "watched", std::string(1000 - 14, 'x')); // a whole packet of the limit's size
    EXPECT_EQ(watcher.next(), publishPacket("watched", std::string(1000 - 14, 'x')));
}

TEST_F(ExchangeTest, GoneInTheMiddleOfAPacket)
{
    start();
    Client watcher = connect("watcher");
    watcher.subscribe("w/+");
    std::string whole = publishPacket("w/whole", std::string(100'000, 'x'));
    for (size_t part : {size_t{1}, size_t{3}, size_t{8}, whole.size() - 1}) {
        Client client = connect("client", 0, {"w/gone", std::to_string(part)});
        client.send(whole.substr(0, part));
        client.close();
        EXPECT_EQ(watcher.next(), publishPacket("w/gone", std::to_string(part)));
    }
    for (size_t part = 1; part < 10; part++) {
        Client client(port);
        client.send(connectPacket("client").substr(0, part));
    }
    watcher.settle();
}

// ---- Clients that do not read ---------------------------------------------------------------------------------------

// Numbered messages, more of them than sockets hold, to one who reads them and to the slow one.
void flood(Client& publisher, Client& reader, unsigned count)
{
    for (unsigned i = 0; i < count; i++) {
        std::string payload = std::to_string(100'000 + i) + std::string(100'000, 'x');
        publisher.send(publishPacket("flood", payload));
        ASSERT_TRUE(reader.next() == publishPacket("flood", payload));
    }
}

TEST_F(ExchangeTest, SlowReaderLosesMessagesWithQos0)
{
    start({"--queue", "2000000", "--queue-limit", "3000000"});
    constexpr unsigned count = 300;
    Client publisher = connect("publisher");
    Client reader = connect("reader");
    reader.subscribe("flood");
    Client slow = connect("slow");
    slow.subscribe("flood");
    slow.subscribe("last", 1);
    flood(publisher, reader, count);
    publish(publisher, "last", "with QoS 1 it still has room");
    EXPECT_TRUE(server->waitFor("reads too slowly: messages with QoS 0 are dropped"));
    unsigned got = 0;
    std::string before;
    std::string packet;
    while ((packet = slow.next()) != publishPacket("last", "with QoS 1 it still has room", 1)) {
        std::string serial = packet.substr(0, packet.find('x'));
        ASSERT_TRUE(packet == publishPacket("flood", serial.substr(serial.size() - 6) + std::string(100'000, 'x')));
        ASSERT_LT(before, serial); // in order, each once
        before = serial;
        got++;
    }
    EXPECT_GE(got, 15u);
    EXPECT_LT(got, count);
    slow.send(pubackPacket(1));
    publisher.send(publishPacket("flood", "again")); // it has caught up
    EXPECT_EQ(slow.next(), publishPacket("flood", "again"));
}

TEST_F(ExchangeTest, SlowReaderIsDisconnectedInTheEnd)
{
    start({"--queue", "500000", "--queue-limit", "2000000"});
    Client publisher = connect("publisher");
    Client reader = connect("reader");
    reader.subscribe("gone");
    Client slow = connect("slow", 0, {"gone", "slow"});
    slow.subscribe("flood", 1);
    std::string heard;
    for (int i = 0; i < 2000 && heard.empty(); i++) {
        publish(publisher, "flood", std::string(100'000, 'x'));
        std::string answer = reader.ask(pingPacket);
        heard = answer == pongPacket ? "" : answer;
    }
    EXPECT_EQ(heard, publishPacket("gone", "slow"));
    EXPECT_EQ(reader.next(), pongPacket);
    unsigned id = 0; // what had been sent is whole; then comes the end
    std::string packet;
    while ((packet = slow.next()) == publishPacket("flood", std::string(100'000, 'x'), id + 1)) {
        id++;
    }
    EXPECT_EQ(packet, closedByServer);
    publish(reader, "flood", "to nobody");
}

// ---- Mutations ------------------------------------------------------------------------------------------------------

std::string mutated(Random& random, const std::vector<std::string>& seeds)
{
    std::string bytes = seeds[random.below(seeds.size())];
    for (uint64_t i = 0, count = random.below(4); i < count && !bytes.empty(); i++) {
        size_t at = random.below(bytes.size());
        const std::string& other = seeds[random.below(seeds.size())];
        switch (random.below(5)) {
        case 0:
            bytes[at] = static_cast<char>(bytes[at] ^ (1 << random.below(8)));
            break;
        case 1:
            bytes[at] = static_cast<char>(random.next());
            break;
        case 2:
            bytes.resize(at);
            break;
        case 3:
            bytes.insert(at, other, random.below(other.size()));
            break;
        default:
            bytes = bytes.substr(0, at) + other.substr(random.below(other.size()));
        }
    }
    return bytes;
}

TEST_F(ExchangeTest, ThousandsOfMutatedPackets)
{
    start({"--log", "off", "--limit", "5000"});
    const std::vector<std::string> seeds = {connectPacket("m"),
                                            connectPacket("n", 1, {"m/will", "bye", 1, true}),
                                            publishPacket("m/a", "payload"),
                                            publishPacket("m/b/c", std::string(200, 'x'), 3, retained),
                                            publishPacket("m/a", "", 5, retained),
                                            subscribePacket("m/#", 1),
                                            subscribePacket("+/a", 0),
                                            subscribePacket("#", 2),
                                            unsubscribePacket("m/#"),
                                            pubackPacket(1),
                                            pingPacket,
                                            disconnectPacket};
    Client one = connect("healthy one");
    Client two = connect("healthy two");
    one.subscribe("healthy/1", 1);
    two.subscribe("healthy/2", 1);
    Random random;
    for (unsigned round = 0; round < 500; round++) {
        Client bad(port);
        bad.send(random.chance(90) ? connectPacket(random.chance(50) ? "m" : "") : mutated(random, seeds));
        for (int i = 0; i < 20 && bad.send(mutated(random, seeds)); i++) {
        }
        if (random.chance(50)) {
            bad.close(); // or else: the next one may come while this one goes
        }
        if (round % 100 == 0) {
            publish(one, "healthy/2", "there");
            EXPECT_EQ(two.next(), publishPacket("healthy/2", "there", 1 + round / 100));
            two.send(pubackPacket(1 + round / 100));
            publish(two, "healthy/1", "back");
            EXPECT_EQ(one.next(), publishPacket("healthy/1", "back", 1 + round / 100));
            one.send(pubackPacket(1 + round / 100));
        }
    }
    one.settle();
    two.settle();
}

// ---- The program ----------------------------------------------------------------------------------------------------

#ifndef _WIN32
TEST_F(ExchangeTest, BothSignalsEndItInOrder)
{
    for (int signal : {SIGINT, SIGTERM}) {
        start();
        Client client = connect("client", 60, {"will", ""});
        client.subscribe("#", 1);
        publish(client, "unacknowledged", "kept", retained);
        Client(port).send("\x30"); // gone, or about to be
        Client half(port);
        half.send(connectPacket("half").substr(0, 5));
        stop(signal);
        EXPECT_EQ(client.next(), publishPacket("unacknowledged", "kept", 1));
        EXPECT_EQ(client.next(), closedByServer);
        server.reset();
    }
}
#endif

TEST_F(ExchangeTest, CommandLine)
{
    auto run = [&](std::vector<std::string> options) {
        Program program(besideThisProgram(KOR_SERVER), options);
        int code = program.wait();
        return std::to_string(code != 0) + " " + program.output();
    };
    std::string help = run({"--help"});
    EXPECT_EQ(help[0], '0');
    for (const char* option : {"--port", "--bind", "--log", "--stats", "--limit", "--retry", "--queue", "--help"}) {
        EXPECT_NE(help.find(option), std::string::npos) << option;
    }
    const std::vector<std::vector<std::string>> wrong = {{"--bogus"},
                                                         {"--port"},
                                                         {"--port", "x"},
                                                         {"--port", "65536"},
                                                         {"--port", "-1"},
                                                         {"--limit", "0"},
                                                         {"--queue", "many"},
                                                         {"--retry", "0"},
                                                         {"--stats", "1.5"},
                                                         {"stray"},
                                                         {"--port", "0", "--bind", "no address"}};
    for (const auto& options : wrong) {
        std::string said = run(options);
        EXPECT_EQ(said[0], '1') << options[0] << ": " << said;
        EXPECT_NE(said.find("korexchange: "), std::string::npos) << options[0] << ": " << said;
        EXPECT_EQ(said.find("listening"), std::string::npos) << options[0] << ": " << said;
    }
    start();
    std::string second = run({"--port", std::to_string(port)});
    EXPECT_EQ(second[0], '1') << second;
}

TEST_F(ExchangeTest, StatisticsAreReported)
{
    start({"--stats", "1"});
    Client client = connect("client");
    client.subscribe("s/#");
    publish(client, "s/1", "x", retained);
    EXPECT_EQ(client.next(), publishPacket("s/1", "x"));
    EXPECT_TRUE(server->waitFor("korexchange: 1 clients, 1 filters, 1 retained messages")) << server->output();
}

} // namespace
