// mqtt_test.cpp - reading and writing of packets: what each rule takes and refuses, and with which words.

#include "mqtt.h"
#include "packets.h"
#include "support/korTest.h"

#include "korutil/korLib.h"

#include <map>
#include <utility>
#include <vector>

namespace {

using namespace kor::test;
using mqtt::Type;

constexpr uint32_t limit = 300'000'000;

// In a buffer of just its size, so that a memory checker sees a step too far.
struct Packet {
    explicit Packet(const std::string& text) : bytes(text.begin(), text.end()) {}
    std::vector<uint8_t> bytes;
    mqtt::Header header = {};
};

std::string textOf(mqtt::Bytes bytes)
{
    return bytes.length == 0 ? "" : std::string(reinterpret_cast<char*>(bytes.data), bytes.length);
}

mqtt::Bytes bytesOf(std::string& text)
{
    return {reinterpret_cast<uint8_t*>(text.data()), static_cast<uint32_t>(text.size())};
}

class MqttTest : public KorTest
{
protected:
    MqttTest()
    {
        _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
        buffer = _korBuffer_CreateFromCacheOrPool(KOR_AT(ex, 0), nullptr, nullptr, 32);
    }
    ~MqttTest() override
    {
        _korBuffer_ReleaseToCache(KOR_AT_D(0, ex), buffer, nullptr);
        _korutil_Close(KOR_AT_D(0, ex));
    }

    bool readHeader(Packet& packet, uint32_t most = limit)
    {
        return mqtt::readHeader(KOR_AT(ex, 0), packet.bytes.data(), packet.bytes.size(), most, &packet.header);
    }

    Packet opened(const std::string& text)
    {
        Packet packet(text);
        EXPECT_TRUE(readHeader(packet));
        EXPECT_EQ(packet.header.packetSize, text.size());
        return packet;
    }

    void check(const std::string& text)
    {
        Packet packet = opened(text);
        mqtt::checkPacket(KOR_AT(ex, 0), packet.bytes.data(), packet.header);
    }

    // What was written since the last call.
    std::string written()
    {
        EXPECT_CLEAN();
        std::string text(buffer->data, buffer->position);
        buffer->position = buffer->data;
        return text;
    }

    korBuffer* buffer;
};

// ---- Headers --------------------------------------------------------------------------------------------------------

TEST_F(MqttTest, HeadersInPieces)
{
    const std::map<std::string, uint32_t> lengths = {{std::string(1, '\0'), 0},
                                                     {"\x7f", 127},
                                                     {"\x80\x01", 128},
                                                     {"\xff\xff\x7f", 2097151},
                                                     {"\xff\xff\xff\x7f", 268435455},
                                                     {std::string("\x85\x80\x80\x00", 4), 5}};
    for (const auto& [bytes, value] : lengths) {
        std::string whole = "\x3d" + bytes;
        for (size_t available = 0; available < whole.size(); available++) {
            Packet part(whole.substr(0, available));
            EXPECT_FALSE(readHeader(part)) << available;
            EXPECT_CLEAN();
        }
        Packet packet(whole + "body");
        EXPECT_TRUE(readHeader(packet));
        EXPECT_EQ(packet.header.type, Type::publish);
        EXPECT_EQ(packet.header.flags, 0xd);
        EXPECT_EQ(packet.header.headerSize, whole.size());
        EXPECT_EQ(packet.header.packetSize, whole.size() + value);
    }
}

TEST_F(MqttTest, HeadersThatAreRefused)
{
    for (unsigned first = 0; first < 256; first++) {
        unsigned type = first >> 4;
        unsigned flags = first & 15;
        Packet packet(kor::test::packet(first, ""));
        bool taken = readHeader(packet);
        if (type == 0 || type == 15) {
            EXPECT_RAISED(16, "type of the packet is reserved");
        } else if (type != 3 && flags != (type == 6 || type == 8 || type == 10 ? 2 : 0)) {
            EXPECT_RAISED(16, "flags of the packet are not those of its type");
        } else {
            EXPECT_TRUE(taken) << first;
            EXPECT_CLEAN();
            continue;
        }
        EXPECT_FALSE(taken) << first;
    }
    Packet longest("\x30\x80\x80\x80\x80");
    EXPECT_FALSE(readHeader(longest));
    EXPECT_RAISED(16, "length of the packet has more than four bytes");
    Packet large(kor::test::packet(0x30, std::string(200, 'x')));
    EXPECT_TRUE(readHeader(large, 203));
    EXPECT_FALSE(readHeader(large, 202));
    EXPECT_RAISED(16, "packet has 203 bytes and the limit is 202");
}

// ---- Bodies ---------------------------------------------------------------------------------------------------------

// What follows the protocol's name in a CONNECT.
std::string connectWith(char level, unsigned flags, const std::string& rest)
{
    return packet(0x10, field("MQTT") + level + static_cast<char>(flags) + number(60) + rest);
}

TEST_F(MqttTest, PacketsThatAreRefused)
{
    const std::string id = field("id");
    const char* const malformed = "text is not well-formed UTF-8";
    const char* const topic = "topic to publish to is empty or has a wildcard";
    const char* const filter = "filter is empty or has a wildcard in the wrong place";
    const char* const tooLong = "packet is longer than its fields";
    const std::pair<std::string, const char*> cases[] = {
        {packet(0x10, field("mqtt") + '\4' + '\2' + number(0) + id), "protocol is not MQTT"},
        {packet(0x10, field("\xff") + '\4' + '\2' + number(0) + id), malformed},
        {connectWith(4, 0x03, id), "reserved bit of the connect flags is set"},
        {connectWith(4, 0x0a, id), "will flags without a will"},
        {connectWith(4, 0x22, id), "will flags without a will"},
        {connectWith(4, 0x16, id + field("t") + field("")), "will with QoS 2, which is not offered"},
        {connectWith(4, 0x1e, id + field("t") + field("")), "will with QoS 3"},
        {connectWith(4, 0x42, id + field("secret")), "password without a user name"},
        {connectWith(4, 0x02, field("\xc3")), malformed},
        {connectWith(4, 0x06, id + field("a/+") + field("")), topic},
        {connectWith(4, 0x82, id + field("\x80")), malformed},
        {connectWith(4, 0x02, id + "x"), tooLong},
        {publishPacket("a/#", "x"), topic},
        {publishPacket("\xff", "x"), malformed},
        {packet(0x34, field("t") + number(1)), "PUBLISH with QoS 2, which is not offered"},
        {packet(0x36, field("t") + number(1)), "PUBLISH with QoS 3"},
        {packet(0x38, field("t")), "PUBLISH with QoS 0 is marked as sent again"},
        {packet(0x32, field("t") + number(0) + "x"), "packet id is 0"},
        {packet(0x40, number(0)), "packet id is 0"},
        {packet(0x40, number(1) + "x"), tooLong},
        {packet(0x82, number(0) + field("f") + '\1'), "packet id is 0"},
        {packet(0x82, number(1)), "no filter in the packet"},
        {packet(0x82, number(1) + field("\xc0\x80") + '\1'), malformed},
        {packet(0x82, number(1) + field("f") + '\3'), "QoS of a filter is above 2"},
        {packet(0x82, number(1) + field("f") + '\1' + field("#/") + '\1'), filter},
        {packet(0xa2, number(0) + field("f")), "packet id is 0"},
        {packet(0xa2, number(1)), "no filter in the packet"},
        {packet(0xa2, number(1) + field("a+")), filter},
        {packet(0xc0, "x"), tooLong},
        {packet(0xe0, "x"), tooLong},
        {connackPacket(0), "CONNACK is not a client's to send"},
        {packet(0x50, number(1)), "PUBREC is not a client's to send"},
        {packet(0x62, number(1)), "PUBREL is not a client's to send"},
        {packet(0x70, number(1)), "PUBCOMP is not a client's to send"},
        {subackPacket(0), "SUBACK is not a client's to send"},
        {unsubackPacket(), "UNSUBACK is not a client's to send"},
        {pongPacket, "PINGRESP is not a client's to send"},
    };
    for (const auto& [bytes, reason] : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        check(bytes);
        EXPECT_RAISED(16, reason);
    }
}

// Each packet is cut everywhere: no part of it is taken for a whole one, unless its last field takes all that is left.
TEST_F(MqttTest, PacketsThatEndTooEarly)
{
    const std::string full = connectWith(4, 0xce, field("id") + field("t") + field("gone") + field("u") + field("p"));
    for (const std::string& text :
         {full, connectPacket("client"), publishPacket("t", "", 7), publishPacket("topic", ""), pubackPacket(1),
          subscribePacket("filter", 1), unsubscribePacket("filter")}) {
        check(text);
        EXPECT_CLEAN();
        for (size_t length = 0; length < text.size() - 2; length++) {
            check(packet(static_cast<uint8_t>(text[0]), text.substr(2, length)));
            bool lacksFilters = (text[0] == '\x82' || text[0] == '\xa2') && length == 2;
            EXPECT_EQ(ex->code, lacksFilters ? 16 : 12) << testing::PrintToString(text) << " to " << length;
            korEx_Clear(ex);
        }
    }
}

TEST_F(MqttTest, Connect)
{
    Packet full = opened(connectWith(
        4, 0xee, field("id") + field("w/t") + field(std::string("\0\xff", 2)) + field("user") + field("password")));
    mqtt::Connect connect;
    mqtt::readConnect(KOR_AT(ex, 0), full.bytes.data(), full.header, &connect);
    EXPECT_CLEAN();
    EXPECT_EQ(connect.refusal, mqtt::accepted);
    EXPECT_TRUE(connect.cleanSession && connect.hasWill && connect.will.retain);
    EXPECT_EQ(connect.keepAlive, 60);
    EXPECT_EQ(textOf(connect.clientId), "id");
    EXPECT_EQ(textOf(connect.will.topic), "w/t");
    EXPECT_EQ(textOf(connect.will.payload), std::string("\0\xff", 2));
    EXPECT_EQ(connect.will.qos, 1);
    EXPECT_NE(connect.will.packetId, 0);

    const std::pair<std::string, uint8_t> answers[] = {
        {connectWith(3, 2, field("id")), mqtt::unacceptableProtocol},
        {connectWith(5, 2, "anything at all"), mqtt::unacceptableProtocol},
        {packet(0x10, field("MQIsdp") + '\3' + "\2"), mqtt::unacceptableProtocol},
        {connectWith(4, 0, field("")), mqtt::identifierRejected},
        {connectWith(4, 2, field("")), mqtt::accepted},
        {connectWith(4, 0, field("id")), mqtt::accepted},
    };
    for (const auto& [bytes, refusal] : answers) {
        Packet read = opened(bytes);
        mqtt::readConnect(KOR_AT(ex, 0), read.bytes.data(), read.header, &connect);
        EXPECT_CLEAN();
        EXPECT_EQ(connect.refusal, refusal) << testing::PrintToString(bytes);
    }
}

// ---- Texts ----------------------------------------------------------------------------------------------------------

// Each number that a character may have, in the shortest form, in a longer one and with its end cut off.
TEST_F(MqttTest, Utf8)
{
    auto encoded = [](uint32_t number, uint32_t size) {
        constexpr uint8_t first[] = {0, 0, 0xc0, 0xe0, 0xf0, 0xf8};
        std::vector<uint8_t> bytes(size);
        for (uint32_t i = size; i-- > 1; number >>= 6) {
            bytes[i] = static_cast<uint8_t>(0x80 | (number & 0x3f));
        }
        bytes[0] = static_cast<uint8_t>(first[size] | number);
        return bytes;
    };
    auto taken = [](std::vector<uint8_t> bytes) {
        return mqtt::isText({bytes.data(), static_cast<uint32_t>(bytes.size())});
    };
    for (uint32_t number = 0; number < 0x120000; number += number < 0x11000 ? 1 : 0xff) {
        uint32_t least = number < 0x80 ? 1 : number < 0x800 ? 2 : number < 0x10000 ? 3 : 4;
        bool allowed = number != 0 && (number < 0xd800 || number > 0xdfff) && number < 0x110000;
        for (uint32_t size = least; size < 6; size++) {
            std::vector<uint8_t> bytes = encoded(number, size);
            ASSERT_EQ(taken(bytes), allowed && size == least) << std::hex << number << " in " << size;
            bytes.back() = '/'; // something else follows
            ASSERT_EQ(taken(bytes), size == 1) << std::hex << number;
            bytes.pop_back();
            ASSERT_EQ(taken(bytes), bytes.empty()) << std::hex << number;
        }
    }
    for (const char* stray : {"\x80", "\xbf", "a\xc3\xa9\xa9", "\xff", "\xe2\x28\xa1"}) {
        std::string text = stray;
        EXPECT_FALSE(mqtt::isText(bytesOf(text))) << testing::PrintToString(text);
    }
}

TEST_F(MqttTest, TopicsAndFilters)
{
    for (std::string both : {"a", "/", "//", "a/b", "$SYS/x", " ", "a b/c", "\xc3\xa9"}) {
        EXPECT_TRUE(mqtt::isTopic(bytesOf(both)) && mqtt::isFilter(bytesOf(both))) << both;
    }
    for (std::string filter : {"#", "+", "/#", "+/", "/+", "a/#", "a/+/b", "+/+", "+/#", "$SYS/#", "//#"}) {
        EXPECT_TRUE(mqtt::isFilter(bytesOf(filter))) << filter;
        EXPECT_FALSE(mqtt::isTopic(bytesOf(filter))) << filter;
    }
    for (std::string neither :
         {"", "a#", "#a", "#/", "a/#/", "a/#/b", "##", "a+", "+a", "a/+b", "a/b+/c", "++", "+#"}) {
        EXPECT_FALSE(mqtt::isFilter(bytesOf(neither)) || mqtt::isTopic(bytesOf(neither))) << neither;
    }
}

// ---- Writing --------------------------------------------------------------------------------------------------------

TEST_F(MqttTest, MessagesAreWrittenAndReadBack)
{
    struct Kind {
        unsigned id, flags;
    };
    std::string topic = "t/1";
    for (uint32_t size : {0u, 1u, 122u, 123u, 16378u, 16379u, 2'097'147u}) {
        for (Kind kind : {Kind{0, 0}, Kind{0, retained}, Kind{258, retained}, Kind{258, duplicate}}) {
            std::string payload(size, 'p');
            std::string expected = publishPacket(topic, payload, kind.id, kind.flags);
            Packet packet = opened(expected);
            mqtt::Publish read;
            mqtt::readPublish(KOR_AT(ex, 0), packet.bytes.data(), packet.header, &read);
            EXPECT_CLEAN();
            EXPECT_EQ(textOf(read.topic), topic);
            EXPECT_TRUE(textOf(read.payload) == payload);
            EXPECT_EQ(read.packetId, kind.id);
            EXPECT_EQ(read.qos, kind.id != 0);
            EXPECT_EQ(read.duplicate, kind.flags == duplicate);
            EXPECT_EQ(read.retain, kind.flags == retained);
            mqtt::writePublish(KOR_AT(ex, 0), buffer, read);
            ASSERT_TRUE(written() == expected) << size;
            EXPECT_EQ(mqtt::publishSize(3, size, read.qos), expected.size());
            if (kind.id != 0) {
                EXPECT_EQ(expected.substr(mqtt::packetIdOffset(3, size, 1), 2), number(kind.id));
            }
        }
    }
}

TEST_F(MqttTest, OtherPacketsAreWrittenAndReadBack)
{
    std::string id = "client";
    std::string topic = "w";
    std::string payload = "gone";
    mqtt::Connect connect = {0, true, false, 300, bytesOf(id), {}};
    mqtt::writeConnect(KOR_AT(ex, 0), buffer, connect);
    EXPECT_EQ(written(), connectPacket(id, 300));
    connect.hasWill = true;
    connect.will = {bytesOf(topic), bytesOf(payload), 1, 1, false, true};
    mqtt::writeConnect(KOR_AT(ex, 0), buffer, connect);
    EXPECT_EQ(written(), connectPacket(id, 300, {topic, payload, 1, true}));

    mqtt::writeConnack(KOR_AT(ex, 0), buffer, 2);
    EXPECT_EQ(written(), connackPacket(2));
    Packet connack = opened(connackPacket(2));
    EXPECT_EQ(mqtt::readConnack(KOR_AT(ex, 0), connack.bytes.data(), connack.header), 2);
    mqtt::writeAcknowledgement(KOR_AT(ex, 0), buffer, Type::puback, 0x1234);
    mqtt::writeAcknowledgement(KOR_AT(ex, 0), buffer, Type::unsuback, 65535);
    EXPECT_EQ(written(), pubackPacket(0x1234) + unsubackPacket(65535));
    Packet puback = opened(pubackPacket(0x1234));
    EXPECT_EQ(mqtt::readAcknowledgement(KOR_AT(ex, 0), puback.bytes.data(), puback.header), 0x1234);
    mqtt::writeEmpty(KOR_AT(ex, 0), buffer, Type::pingreq);
    mqtt::writeEmpty(KOR_AT(ex, 0), buffer, Type::pingresp);
    mqtt::writeEmpty(KOR_AT(ex, 0), buffer, Type::disconnect);
    EXPECT_EQ(written(), pingPacket + pongPacket + disconnectPacket);
    mqtt::writeSubscribe(KOR_AT(ex, 0), buffer, 9, bytesOf(topic), 1);
    EXPECT_EQ(written(), subscribePacket("w", 1, 9));
    std::string granted = "\1\x80";
    mqtt::writeSuback(KOR_AT(ex, 0), buffer, 9, bytesOf(granted));
    EXPECT_EQ(written(), packet(0x90, number(9) + granted));
    uint16_t packetId = 0;
    Packet suback = opened(subackPacket(0x80, 9));
    EXPECT_EQ(mqtt::readSuback(KOR_AT(ex, 0), suback.bytes.data(), suback.header, &packetId), 0x80);
    EXPECT_EQ(packetId, 9);
}

TEST_F(MqttTest, FiltersOfAPacket)
{
    Packet both[] = {opened(packet(0x82, number(3) + field("a/#") + '\2' + field("b") + std::string(1, '\0'))),
                     opened(packet(0xa2, number(3) + field("a/#") + field("b")))};
    for (Packet& read : both) {
        mqtt::FilterList list = mqtt::openFilters(KOR_AT(ex, 0), read.bytes.data(), read.header);
        mqtt::Bytes filter;
        uint8_t qos = 7;
        EXPECT_EQ(list.packetId, 3);
        EXPECT_TRUE(mqtt::nextFilter(KOR_AT(ex, 0), &list, &filter, &qos));
        EXPECT_EQ(textOf(filter), "a/#");
        EXPECT_EQ(qos, list.withQos ? 2 : 7);
        EXPECT_TRUE(mqtt::nextFilter(KOR_AT(ex, 0), &list, &filter, &qos));
        EXPECT_EQ(textOf(filter), "b");
        EXPECT_EQ(qos, list.withQos ? 0 : 7);
        EXPECT_FALSE(mqtt::nextFilter(KOR_AT(ex, 0), &list, &filter, &qos));
        EXPECT_CLEAN();
    }
}

// With an error pending nothing is read or written.
TEST_F(MqttTest, AfterAnError)
{
    Packet packet = opened(publishPacket("t", "x"));
    KOR_RAISE(ex, 0, 4711, "earlier");
    mqtt::Publish publish = {};
    EXPECT_FALSE(readHeader(packet));
    mqtt::readPublish(KOR_AT(ex, 0), packet.bytes.data(), packet.header, &publish);
    EXPECT_EQ(publish.topic.length, 0u);
    mqtt::writePublish(KOR_AT(ex, 0), buffer, publish);
    mqtt::writeEmpty(KOR_AT(ex, 0), nullptr, Type::pingresp);
    EXPECT_EQ(buffer->position, buffer->data);
    EXPECT_RAISED(4711, "earlier");
}

} // namespace
