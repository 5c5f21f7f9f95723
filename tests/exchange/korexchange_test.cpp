// korexchange_test.cpp - the server as its clients see it: sessions, delivery, retained messages and wills, clients
// that break the rules or stop reading, and its command line.

#include "exchangeServer.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <vector>

namespace {

using namespace kor::test;
using Texts = std::set<std::string>;

// Publishes with QoS 1 and waits for the answer.
void publish(Client& from, const std::string& topic, const std::string& payload, unsigned flags = 0)
{
    EXPECT_EQ(from.ask(publishPacket(topic, payload, 77, flags)), pubackPacket(77));
}

// ---- Sessions -------------------------------------------------------------------------------------------------------

TEST_F(ExchangeTest, Connect)
{
    start();
    auto answer = [&](const std::string& name, char level, unsigned flags, const std::string& rest) {
        Client client(port);
        return client.ask(packet(0x10, field(name) + level + static_cast<char>(flags) + number(0) + rest));
    };
    EXPECT_EQ(answer("MQTT", 5, 2, field("id")), connackPacket(1));
    EXPECT_EQ(answer("MQIsdp", 3, 2, field("id")), connackPacket(1));
    EXPECT_EQ(answer("MQTT", 4, 0, field("")), connackPacket(2));
    std::string credentials = field("user") + field(std::string("\0\xff", 2));
    EXPECT_EQ(answer("MQTT", 4, 0xc2, field("id") + credentials), connackPacket(0)); // taken, and left alone
    EXPECT_EQ(answer("MQTT", 4, 0, field("id")), connackPacket(0)); // as is the wish for a session that stays

    Client nameless = connect("");
    Client nameless2 = connect(""); // both get ids of their own, so neither takes over
    nameless.settle();
    nameless2.settle();
    nameless.send(disconnectPacket);
    EXPECT_EQ(nameless.next(), closedByServer);
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
    receiver.subscribe("zero", 0);
    std::string filters = field("one/#") + '\1' + field("two") + '\2'; // the last with more than is offered
    EXPECT_EQ(receiver.ask(packet(0x82, number(500) + filters)), packet(0x90, number(500) + "\1\1"));
    unsigned id = 0;
    for (const std::string topic : {"zero", "one", "two"}) {
        publisher.send(publishPacket(topic, "with QoS 0"));
        EXPECT_EQ(receiver.next(), publishPacket(topic, "with QoS 0"));
        publish(publisher, topic, "with QoS 1", duplicate); // whose flag is not handed on
        id += topic != "zero";
        EXPECT_EQ(receiver.next(), publishPacket(topic, "with QoS 1", id));
    }
    for (unsigned acknowledged : {2u, 1u, 1u, 4711u}) { // twice, and one that never was: no harm
        receiver.send(pubackPacket(acknowledged));
    }
    publish(receiver, "one", "to itself");
    EXPECT_EQ(receiver.next(), publishPacket("one", "to itself", 3));
    filters = field("one/#") + field("zero") + field("never");
    EXPECT_EQ(receiver.ask(packet(0xa2, number(501) + filters)), unsubackPacket(501));
    publish(publisher, "one", "to nobody");
    publish(publisher, "two", "");
    EXPECT_EQ(receiver.next(), publishPacket("two", "", 4));
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
    for (const char* filter : {"#", "a/b", "a/+", "a/#", "+/b"}) {
        publish(publisher, "a/b", filter);
        EXPECT_EQ(receiver.next(), publishPacket("a/b", filter));
        EXPECT_EQ(receiver.ask(unsubscribePacket(filter)), unsubackPacket());
    }
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

Texts topicsOf(const Texts& topics, const Texts& filters)
{
    Texts matching;
    for (const std::string& topic : topics) {
        if (std::any_of(filters.begin(), filters.end(), [&](auto& filter) { return matches(filter, topic); })) {
            matching.insert(topic);
        }
    }
    return matching;
}

// What comes up to the answer to a ping, retained messages or others, each topic once.
Texts topicsUntilPong(Client& client, bool areRetained)
{
    Texts topics;
    client.send(pingPacket);
    for (std::string packet; (packet = client.next()) != pongPacket && packet[0] != '(';) {
        EXPECT_EQ(packet[0], areRetained ? '\x31' : '\x30');
        EXPECT_TRUE(topics.insert(packet.substr(4, static_cast<size_t>(packet[3]))).second);
    }
    return topics;
}

TEST_F(ExchangeTest, FiltersAgreeWithTheStandard)
{
    start();
    Random random;
    auto draw = [&](const std::vector<std::string>& levels, size_t count) {
        Texts texts;
        while (texts.size() < count) {
            std::string text = levels[random.below(levels.size())];
            while (text.empty() || (text.back() != '#' && random.chance(60))) {
                text += "/" + levels[random.below(levels.size())];
            }
            texts.insert(text);
        }
        return texts;
    };
    const Texts topics = draw({"a", "b", "", "$", "\xc3\xa9"}, 60);
    Client publisher = connect("publisher");
    for (const std::string& topic : topics) {
        publish(publisher, topic, "kept", retained);
    }
    for (int round = 0; round < 40; round++) {
        Client receiver = connect("receiver");
        Texts filters = draw({"a", "b", "", "$", "+", "+", "#"}, 6);
        for (const std::string& filter : filters) {
            receiver.subscribe(filter);
            EXPECT_EQ(topicsUntilPong(receiver, true), topicsOf(topics, {filter})) << filter;
        }
        for (int removals = 0; removals < 3; removals++) {
            EXPECT_EQ(receiver.ask(unsubscribePacket(*filters.begin())), unsubackPacket());
            filters.erase(filters.begin());
        }
        for (const std::string& topic : topics) {
            publisher.send(publishPacket(topic, "live"));
        }
        publisher.settle();
        EXPECT_EQ(topicsUntilPong(receiver, false), topicsOf(topics, filters)) << testing::PrintToString(filters);
    }
}

TEST_F(ExchangeTest, Retained)
{
    start();
    Client publisher = connect("publisher");
    Client live = connect("live");
    live.subscribe("r/1", 1);
    publish(publisher, "r/1", "first", retained);
    EXPECT_EQ(live.next(), publishPacket("r/1", "first", 1)); // it is new to this one: no flag
    publisher.send(publishPacket("r/1", "second", 0, retained));
    EXPECT_EQ(live.next(), publishPacket("r/1", "second"));
    publish(publisher, "r/2", "other", retained);
    publish(publisher, "r/2", "not kept");

    Client late = connect("late");
    late.subscribe("r/1", 1); // as it was published, with QoS 0
    EXPECT_EQ(late.next(), publishPacket("r/1", "second", 0, retained));
    late.subscribe("r/2", 1);
    EXPECT_EQ(late.next(), publishPacket("r/2", "other", 1, retained));
    late.subscribe("r/2", 0); // once more with each subscription, with no more QoS than that asks for
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
    Client receiver = connect("receiver");
    receiver.subscribe("t", 1);
    for (unsigned id = 1; id <= 2; id++) {
        publish(receiver, "t", "message");
        EXPECT_EQ(receiver.next(), publishPacket("t", "message", id));
    }
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(receiver.next(), publishPacket("t", "message", 1, duplicate));
        EXPECT_EQ(receiver.next(), publishPacket("t", "message", 2, duplicate));
    }
    EXPECT_EQ(receiver.ask(pubackPacket(1)), publishPacket("t", "message", 2, duplicate));
    receiver.send(pubackPacket(2));
    publish(receiver, "t", "last");
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
    Client publisher = connect("publisher");
    Client receiver = connect("receiver");
    std::string topic(65535, 'n'); // the longest; the payload fills the packet up to its limit
    std::string payload(1024 * 1024 - 4 - 2 - topic.size() - 2, 'p');
    publish(publisher, topic, payload, retained);
    receiver.subscribe(topic, 1);
    EXPECT_TRUE(receiver.next() == publishPacket(topic, payload, 1, retained));
    for (unsigned id = 2; id <= 4; id++) {
        payload[id] = 'x';
        publish(publisher, topic, payload);
        EXPECT_TRUE(receiver.next() == publishPacket(topic, payload, id));
    }
}

TEST_F(ExchangeTest, AnyDivisionOfTheStream)
{
    start();
    std::string large(300, 'x');
    std::string stream = connectPacket("pieces") + subscribePacket("p/#", 1, 7) + publishPacket("p/1", "one") +
                         publishPacket("p/2", large, 8) + pingPacket;
    const std::multiset<std::string> answers = {
        connackPacket(0), subackPacket(1, 7), publishPacket("p/1", "one"), publishPacket("p/2", large, 1),
        pubackPacket(8),  pongPacket};
    for (size_t size : {size_t{1}, size_t{2}, size_t{7}, stream.size()}) {
        Client client(port);
        for (size_t at = 0; at < stream.size(); at += size) {
            client.send(stream.substr(at, size));
        }
        std::multiset<std::string> got; // answers may come before messages
        while (got.size() < answers.size()) {
            got.insert(client.next());
        }
        EXPECT_EQ(got, answers);
    }
}

TEST_F(ExchangeTest, HundredClients)
{
    start();
    std::vector<Client> clients;
    for (int i = 0; i < 100; i++) {
        clients.push_back(connect("client " + std::to_string(i)));
        clients.back().subscribe("all", 1);
    }
    clients[0].send(publishPacket("all", "to everybody", 7) + publishPacket("all", "and once more"));
    EXPECT_EQ(clients[0].next(), pubackPacket(7));
    for (Client& client : clients) {
        EXPECT_EQ(client.next(), publishPacket("all", "to everybody", 1));
        EXPECT_EQ(client.next(), publishPacket("all", "and once more"));
    }
}

// ---- Clients that break rules ---------------------------------------------------------------------------------------

TEST_F(ExchangeTest, MalformedPacketsCloseTheirConnectionOnly)
{
    struct Case {
        bool connected;
        std::string bytes;
        const char* reason; // told by a statement
    };
    const Case cases[] = {
        // each handler, stopped where it has half done its work
        {true, connectPacket("again"), "second CONNECT"},
        {true, publishPacket("a/+", ""), "topic to publish to is empty or has a wildcard"},
        {true, packet(0x30, number(10) + "short"), "End of buffer"},
        {true, packet(0x82, number(1) + field("fine") + '\1' + field("#/bad") + '\1'), "wildcard in the wrong place"},
        {true, packet(0xa2, number(1) + field("fine") + field("a/#/b")), "wildcard in the wrong place"},
        {true, packet(0x40, number(0)), "packet id is 0"},
        {true, packet(0xc0, "x"), "packet is longer than its fields"},
        {true, packet(0xe0, "x"), "packet is longer than its fields"},
        {true, packet(0x62, number(1)), "PUBREL is not a client's to send"},
        {true, packet(0xf0, ""), "type of the packet is reserved"},
        {true, "\x30\x80\x80\x80\x80\x01", "length of the packet has more than four bytes"},
        {true, "\x30\xff\xff\xff\x7f", "packet has 268435460 bytes and the limit is 1000"},
        {true, publishPacket("t", std::string(995, 'x')), "packet has 1001 bytes and the limit is 1000"},
        {false, pingPacket, "PINGREQ before CONNECT"},
        {false, publishPacket("watched", "unseen"), "PUBLISH before CONNECT"},
        {false, "GET / HTTP/1.1\r\n\r\n", "flags of the packet are not those of its type"},
        {false, packet(0x10, field("MQTT") + '\4' + '\3' + number(0) + field("x")),
         "reserved bit of the connect flags"},
    };
    start({"--limit", "1000"});
    Client watcher = connect("watcher");
    watcher.subscribe("watched");
    std::map<std::string, size_t> told;
    for (const Case& wrong : cases) {
        SCOPED_TRACE(testing::PrintToString(wrong.bytes) + " " + wrong.reason);
        Client bad = wrong.connected ? connect("bad", 0, {"watched", "will"}) : Client(port);
        EXPECT_EQ(bad.ask(wrong.bytes), closedByServer);
        EXPECT_TRUE(server->waitFor(wrong.reason, ++told[wrong.reason]));
        if (wrong.connected) {
            EXPECT_EQ(watcher.next(), publishPacket("watched", "will"));
        }
        watcher.settle();
    }
}

// ---- Clients that do not read ---------------------------------------------------------------------------------------

// 100 kB each, told apart by a number.
std::string floodPacket(unsigned serial)
{
    return publishPacket("flood", std::to_string(100'000 + serial) + std::string(100'000, 'x'));
}

TEST_F(ExchangeTest, SlowReaderLosesMessagesWithQos0)
{
    start({"--queue", "2000000", "--queue-limit", "3000000"});
    constexpr unsigned count = 300; // more than sockets hold
    Client reader = connect("reader");
    reader.subscribe("flood");
    Client slow = connect("slow");
    slow.subscribe("flood");
    slow.subscribe("last", 1);
    for (unsigned serial = 0; serial < count; serial++) {
        ASSERT_TRUE(reader.ask(floodPacket(serial)) == floodPacket(serial));
    }
    publish(reader, "last", "with QoS 1 it still has room");
    EXPECT_TRUE(server->waitFor("reads too slowly: messages with QoS 0 are dropped"));
    unsigned got = 0;
    std::string packet = slow.next();
    for (unsigned serial = 0; serial < count; serial++) { // in order, each once
        if (packet == floodPacket(serial)) {
            packet = slow.next();
            got++;
        }
    }
    EXPECT_EQ(packet, publishPacket("last", "with QoS 1 it still has room", 1));
    EXPECT_GE(got, 15u);
    EXPECT_LT(got, count);
    reader.send(floodPacket(count)); // it has caught up
    EXPECT_TRUE(slow.next() == floodPacket(count));
}

TEST_F(ExchangeTest, SlowReaderIsDisconnectedInTheEnd)
{
    start({"--queue", "500000", "--queue-limit", "2000000"});
    const std::string payload(100'000, 'x');
    Client publisher = connect("publisher");
    Client reader = connect("reader");
    reader.subscribe("gone");
    Client slow = connect("slow", 0, {"gone", "slow"});
    slow.subscribe("flood", 1);
    std::string heard = pongPacket;
    for (int i = 0; i < 2000 && heard == pongPacket; i++) {
        publish(publisher, "flood", payload);
        heard = reader.ask(pingPacket);
    }
    EXPECT_EQ(heard, publishPacket("gone", "slow"));
    std::string packet = slow.next(); // what had been sent is whole; then comes the end
    for (unsigned id = 1; packet == publishPacket("flood", payload, id); id++) {
        packet = slow.next();
    }
    EXPECT_EQ(packet, closedByServer);
    publish(publisher, "flood", "to nobody");
}

TEST_F(ExchangeTest, AnswersThatAreNotReadEndTheConnection)
{
    start();
    Client deaf = connect("deaf");
    std::string pings;
    for (int i = 0; i < 50'000; i++) {
        pings += pingPacket;
    }
    bool open = true;
    for (int sent = 0; sent < 1000 && open; sent++) { // far more than sockets hold
        open = deaf.send(pings);
    }
    EXPECT_FALSE(open);
    EXPECT_TRUE(server->waitFor("answers are not read"));
}

// ---- Mutations ------------------------------------------------------------------------------------------------------

std::string mutated(Random& random, const std::vector<std::string>& seeds)
{
    std::string bytes = seeds[random.below(seeds.size())];
    for (uint64_t i = 0, count = random.below(4); i < count && !bytes.empty(); i++) {
        size_t at = random.below(bytes.size());
        const std::string& other = seeds[random.below(seeds.size())];
        switch (random.below(3)) {
        case 0:
            bytes[at] = static_cast<char>(random.next());
            break;
        case 1:
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
                                            publishPacket("m/a", ""),
                                            publishPacket("m/b/c", std::string(200, 'x'), 3, retained),
                                            subscribePacket("m/#", 1),
                                            publishPacket("m/a", "", 5, retained),
                                            subscribePacket("+/a", 0),
                                            subscribePacket("#", 2),
                                            unsubscribePacket("m/#"),
                                            pubackPacket(1),
                                            pingPacket,
                                            disconnectPacket};
    Client healthy = connect("healthy");
    healthy.subscribe("healthy/1", 1);
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
            publish(healthy, "healthy/1", "there");
            EXPECT_EQ(healthy.next(), publishPacket("healthy/1", "there", 1 + round / 100));
        }
    }
    healthy.settle();
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
        return (code == 0 ? "fine: " : "failed: ") + program.output();
    };
    std::string help = run({"--help"});
    EXPECT_EQ(help.find("fine: "), 0u);
    for (const char* option : {"--port", "--bind", "--log", "--stats", "--limit", "--retry", "--queue", "--help"}) {
        EXPECT_NE(help.find(option), std::string::npos) << option;
    }
    start();
    const std::vector<std::vector<std::string>> wrong = {{"--bogus"},
                                                         {"--port"},
                                                         {"--port", "x"},
                                                         {"--port", "65536"},
                                                         {"--port", "-1"},
                                                         {"--limit", "0"},
                                                         {"--retry", "0"},
                                                         {"--queue", "many"},
                                                         {"stray"},
                                                         {"--stats", "1.5"},
                                                         {"--port", "0", "--bind", "no address"},
                                                         {"--port", std::to_string(port)}};
    for (const auto& options : wrong) {
        std::string said = run(options);
        EXPECT_EQ(said.find("failed: "), 0u) << options[0] << ": " << said;
        EXPECT_NE(said.find("korexchange: "), std::string::npos) << options[0] << ": " << said;
        EXPECT_EQ(said.find("listening"), std::string::npos) << options[0] << ": " << said;
    }
}

TEST_F(ExchangeTest, AClientIsTracedAloneAlsoWhenItComesAgain)
{
    start({"--trace", "odd"});
    Client odd = connect("odd");
    Client plain = connect("plain");
    publish(plain, "of/plain", "x");
    publish(odd, "of/odd\n", "x"); // a topic may have it, a statement not
    Client again = connect("odd");
    EXPECT_EQ(odd.next(), closedByServer); // with which the former connection is over
    publish(again, "of/again", "x");
    EXPECT_TRUE(server->waitFor("publishes 1 bytes to of/odd?, QoS 1")) << server->output();
    EXPECT_TRUE(server->waitFor("publishes 1 bytes to of/again")) << server->output();
    EXPECT_EQ(server->output().find("of/plain"), std::string::npos) << server->output();
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
