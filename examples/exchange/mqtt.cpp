// mqtt.cpp - reading and writing of packets. A reader's every step takes its bytes from a Reader, which knows the
// packet's end, so no step can leave the packet.

#include "mqtt.h"

#include <korutil/korBuf.h>

#include <cstring>

namespace mqtt {
namespace {

constexpr uint8_t protocolLevel = 4;
constexpr uint8_t willBit = 0x04;
constexpr uint8_t cleanSessionBit = 0x02;
constexpr uint8_t passwordBit = 0x40;
constexpr uint8_t userNameBit = 0x80;
constexpr uint32_t maxLengthBytes = 4;

struct Reader {
    uint8_t* cursor;
    uint8_t* end;
};

Reader bodyOf(uint8_t* packet, const Header& header)
{
    return {packet + header.headerSize, packet + header.packetSize};
}

void breach(korEx* ex, uint8_t depth, const char* rule)
{
    KOR_RAISE(ex, depth, KOR_ERROR_INVALID_VALUE, rule);
}

Bytes takeBytes(korEx* ex, uint8_t depth, Reader* reader, uint32_t length)
{
    void* data = nullptr;
    _korBuf_DecodeNBytes(KOR_AT(ex, depth), &reader->cursor, reader->end, &data, static_cast<int32_t>(length), 0);
    return ex->code == 0 ? Bytes{static_cast<uint8_t*>(data), length} : Bytes{nullptr, 0};
}

uint8_t takeByte(korEx* ex, uint8_t depth, Reader* reader)
{
    Bytes byte = takeBytes(KOR_AT(ex, depth), reader, 1);
    return ex->code == 0 ? byte.data[0] : uint8_t{0};
}

uint16_t takeNumber(korEx* ex, uint8_t depth, Reader* reader)
{
    Bytes bytes = takeBytes(KOR_AT(ex, depth), reader, 2);
    return ex->code == 0 ? static_cast<uint16_t>(bytes.data[0] << 8 | bytes.data[1]) : uint16_t{0};
}

Bytes takeField(korEx* ex, uint8_t depth, Reader* reader)
{
    uint16_t length = takeNumber(KOR_AT(ex, depth), reader);
    return takeBytes(KOR_AT(ex, depth), reader, length);
}

Bytes takeText(korEx* ex, uint8_t depth, Reader* reader)
{
    Bytes text = takeField(KOR_AT(ex, depth), reader);
    if (ex->code == 0 && !isText(text)) {
        breach(KOR_AT(ex, depth), "text is not well-formed UTF-8");
    }
    return text;
}

uint16_t takePacketId(korEx* ex, uint8_t depth, Reader* reader)
{
    uint16_t packetId = takeNumber(KOR_AT(ex, depth), reader);
    if (ex->code == 0 && packetId == 0) {
        breach(KOR_AT(ex, depth), "packet id is 0");
    }
    return packetId;
}

void takeEnd(korEx* ex, uint8_t depth, const Reader* reader)
{
    if (ex->code == 0 && reader->cursor != reader->end) {
        breach(KOR_AT(ex, depth), "packet is longer than its fields");
    }
}

Bytes takeTopic(korEx* ex, uint8_t depth, Reader* reader)
{
    Bytes topic = takeText(KOR_AT(ex, depth), reader);
    if (ex->code == 0 && !isTopic(topic)) {
        breach(KOR_AT(ex, depth), "topic to publish to is empty or has a wildcard");
    }
    return topic;
}

bool areFlagsRight(Type type, uint8_t flags)
{
    switch (type) {
    case Type::publish:
        return true; // tested with the rest of the packet
    case Type::pubrel:
    case Type::subscribe:
    case Type::unsubscribe:
        return flags == 2;
    default:
        return flags == 0;
    }
}

// What the first byte of a CONNECT's flags may be.
void checkConnectFlags(korEx* ex, uint8_t depth, uint8_t flags)
{
    if (ex->code != 0) {
        return;
    }
    bool hasWill = (flags & willBit) != 0;
    uint8_t willQos = flags >> 3 & 3;
    if ((flags & 1) != 0) {
        breach(KOR_AT(ex, depth), "reserved bit of the connect flags is set");
    } else if (!hasWill && (willQos != 0 || (flags & 0x20) != 0)) {
        breach(KOR_AT(ex, depth), "will flags without a will");
    } else if (willQos > 1) {
        breach(KOR_AT(ex, depth), willQos == 3 ? "will with QoS 3" : "will with QoS 2, which is not offered");
    } else if ((flags & passwordBit) != 0 && (flags & userNameBit) == 0) {
        breach(KOR_AT(ex, depth), "password without a user name");
    }
}

Publish takeWill(korEx* ex, uint8_t depth, Reader* reader, uint8_t flags)
{
    Publish will = {};
    will.topic = takeTopic(KOR_AT(ex, depth), reader);
    will.payload = takeField(KOR_AT(ex, depth), reader);
    will.qos = flags >> 3 & 3;
    will.packetId = will.qos; // any but 0 will do: it is set anew for each receiver
    will.retain = (flags & 0x20) != 0;
    return will;
}

// The payload of a CONNECT, in the order of the standard.
void takeConnectPayload(korEx* ex, uint8_t depth, Reader* reader, uint8_t flags, Connect* connect)
{
    connect->clientId = takeText(KOR_AT(ex, depth), reader);
    connect->hasWill = (flags & willBit) != 0;
    if (connect->hasWill) {
        connect->will = takeWill(KOR_AT(ex, depth), reader, flags);
    }
    if ((flags & userNameBit) != 0) {
        takeText(KOR_AT(ex, depth), reader);
    }
    if ((flags & passwordBit) != 0) {
        takeField(KOR_AT(ex, depth), reader);
    }
    takeEnd(KOR_AT(ex, depth), reader);
    if (ex->code == 0 && connect->clientId.length == 0 && !connect->cleanSession) {
        connect->refusal = identifierRejected;
    }
}

// Bytes of the form that lengths have in a header.
uint32_t lengthBytes(uint32_t length)
{
    return length < 1u << 7 ? 1 : length < 1u << 14 ? 2 : length < 1u << 21 ? 3 : 4;
}

uint32_t publishBodySize(uint32_t topicLength, uint32_t payloadLength, uint8_t qos)
{
    return 2 + topicLength + (qos > 0 ? 2 : 0) + payloadLength;
}

// ---- Writing --------------------------------------------------------------------------------------------------------

void putByte(korBuffer* to, uint8_t byte)
{
    *to->position++ = byte;
}

void putNumber(korBuffer* to, uint32_t number)
{
    putByte(to, static_cast<uint8_t>(number >> 8));
    putByte(to, static_cast<uint8_t>(number));
}

void putBytes(korBuffer* to, Bytes bytes)
{
    if (bytes.length > 0) {
        std::memcpy(to->position, bytes.data, bytes.length);
        to->position += bytes.length;
    }
}

void putField(korBuffer* to, Bytes bytes)
{
    putNumber(to, bytes.length);
    putBytes(to, bytes);
}

// Begins a packet whose body has `length` bytes, all of which then fit.
bool begin(korEx* ex, uint8_t depth, korBuffer* to, Type type, uint8_t flags, uint32_t length)
{
    if (!reserve(KOR_AT(ex, depth), to, 1 + lengthBytes(length) + length)) {
        return false;
    }
    putByte(to, static_cast<uint8_t>(static_cast<uint8_t>(type) << 4 | flags));
    for (; length >= 0x80; length >>= 7) {
        putByte(to, static_cast<uint8_t>(length | 0x80));
    }
    putByte(to, static_cast<uint8_t>(length));
    return true;
}

// ---- Texts ----------------------------------------------------------------------------------------------------------

// The bytes of the character at `at`, 0 if it is not well-formed (Unicode, table 3-7) or is U+0000.
uint32_t characterSize(const uint8_t* at, uint32_t available)
{
    uint8_t first = at[0];
    if (first < 0x80) {
        return first != 0 ? 1 : 0;
    }
    uint32_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || size > available) {
        return 0;
    }
    uint8_t low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
    uint8_t high = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
    if (at[1] < low || at[1] > high) {
        return 0;
    }
    for (uint32_t i = 2; i < size; i++) {
        if ((at[i] & 0xc0) != 0x80) {
            return 0;
        }
    }
    return size;
}

} // namespace

Bytes bytesOf(const char* text)
{
    return {reinterpret_cast<uint8_t*>(const_cast<char*>(text)), static_cast<uint32_t>(std::strlen(text))};
}

const char* nameOf(Type type)
{
    static const char* const names[] = {"reserved", "CONNECT",  "CONNACK",    "PUBLISH", "PUBACK",      "PUBREC",
                                        "PUBREL",   "PUBCOMP",  "SUBSCRIBE",  "SUBACK",  "UNSUBSCRIBE", "UNSUBACK",
                                        "PINGREQ",  "PINGRESP", "DISCONNECT", "reserved"};
    return names[static_cast<uint8_t>(type) & 15];
}

bool isText(Bytes bytes)
{
    for (uint32_t i = 0; i < bytes.length;) {
        uint32_t size = characterSize(bytes.data + i, bytes.length - i);
        if (size == 0) {
            return false;
        }
        i += size;
    }
    return true;
}

bool isTopic(Bytes bytes)
{
    return bytes.length > 0 && std::memchr(bytes.data, '+', bytes.length) == nullptr &&
           std::memchr(bytes.data, '#', bytes.length) == nullptr;
}

bool isFilter(Bytes bytes)
{
    for (uint32_t i = 0; i < bytes.length; i++) {
        uint8_t byte = bytes.data[i];
        bool begins = i == 0 || bytes.data[i - 1] == '/';
        bool isLast = i + 1 == bytes.length;
        if (byte == '#' && !(begins && isLast)) {
            return false;
        }
        if (byte == '+' && !(begins && (isLast || bytes.data[i + 1] == '/'))) {
            return false;
        }
    }
    return bytes.length > 0;
}

// ---- Reading --------------------------------------------------------------------------------------------------------

bool readHeader(korEx* ex, uint8_t depth, const uint8_t* bytes, size_t available, uint32_t limit, Header* header)
{
    if (ex->code != 0 || available < 2) {
        return false;
    }
    uint32_t length = 0;
    uint32_t count = 0;
    uint8_t byte = 0;
    do {
        if (count == maxLengthBytes) {
            breach(KOR_AT(ex, depth), "length of the packet has more than four bytes");
            return false;
        }
        if (count + 1 == available) {
            return false;
        }
        byte = bytes[1 + count];
        length |= static_cast<uint32_t>(byte & 0x7f) << 7 * count;
        count++;
    } while ((byte & 0x80) != 0);

    *header = {static_cast<Type>(bytes[0] >> 4), static_cast<uint8_t>(bytes[0] & 15), 1 + count, 1 + count + length};
    if (header->type < Type::connect || header->type > Type::disconnect) {
        breach(KOR_AT(ex, depth), "type of the packet is reserved");
    } else if (!areFlagsRight(header->type, header->flags)) {
        breach(KOR_AT(ex, depth), "flags of the packet are not those of its type");
    } else if (header->packetSize > limit) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_INVALID_VALUE, "packet has %u bytes and the limit is %u", header->packetSize,
                    limit);
    }
    return ex->code == 0;
}

void readConnect(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header, Connect* connect)
{
    *connect = {};
    Reader reader = bodyOf(packet, header);
    Bytes protocol = takeText(KOR_AT(ex, depth), &reader);
    uint8_t level = takeByte(KOR_AT(ex, depth), &reader);
    if (ex->code != 0) {
        return;
    }
    bool isMqtt = protocol.length == 4 && std::memcmp(protocol.data, "MQTT", 4) == 0;
    bool isOlder = protocol.length == 6 && std::memcmp(protocol.data, "MQIsdp", 6) == 0;
    if (!isMqtt && !isOlder) {
        breach(KOR_AT(ex, depth), "protocol is not MQTT");
        return;
    }
    if (isOlder || level != protocolLevel) {
        connect->refusal = unacceptableProtocol;
        return;
    }
    uint8_t flags = takeByte(KOR_AT(ex, depth), &reader);
    checkConnectFlags(KOR_AT(ex, depth), flags);
    connect->keepAlive = takeNumber(KOR_AT(ex, depth), &reader);
    connect->cleanSession = (flags & cleanSessionBit) != 0;
    takeConnectPayload(KOR_AT(ex, depth), &reader, flags, connect);
}

void readPublish(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header, Publish* publish)
{
    Reader reader = bodyOf(packet, header);
    *publish = {};
    publish->qos = static_cast<uint8_t>((header.flags & qosBits) >> 1);
    publish->duplicate = (header.flags & duplicateBit) != 0;
    publish->retain = (header.flags & retainBit) != 0;
    if (publish->qos > 1) {
        breach(KOR_AT(ex, depth),
               publish->qos == 3 ? "PUBLISH with QoS 3" : "PUBLISH with QoS 2, which is not offered");
    } else if (publish->duplicate && publish->qos == 0) {
        breach(KOR_AT(ex, depth), "PUBLISH with QoS 0 is marked as sent again");
    }
    publish->topic = takeTopic(KOR_AT(ex, depth), &reader);
    if (publish->qos > 0) {
        publish->packetId = takePacketId(KOR_AT(ex, depth), &reader);
    }
    publish->payload = takeBytes(KOR_AT(ex, depth), &reader, static_cast<uint32_t>(reader.end - reader.cursor));
}

uint16_t readAcknowledgement(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header)
{
    Reader reader = bodyOf(packet, header);
    uint16_t packetId = takePacketId(KOR_AT(ex, depth), &reader);
    takeEnd(KOR_AT(ex, depth), &reader);
    return packetId;
}

void readEmpty(korEx* ex, uint8_t depth, const Header& header)
{
    if (header.packetSize != header.headerSize) {
        breach(KOR_AT(ex, depth), "packet is longer than its fields");
    }
}

uint8_t readConnack(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header)
{
    Reader reader = bodyOf(packet, header);
    takeByte(KOR_AT(ex, depth), &reader); // whether the server knew the session
    uint8_t code = takeByte(KOR_AT(ex, depth), &reader);
    takeEnd(KOR_AT(ex, depth), &reader);
    return code;
}

uint8_t readSuback(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header, uint16_t* packetId)
{
    Reader reader = bodyOf(packet, header);
    *packetId = takePacketId(KOR_AT(ex, depth), &reader);
    uint8_t granted = takeByte(KOR_AT(ex, depth), &reader);
    takeEnd(KOR_AT(ex, depth), &reader);
    return granted;
}

FilterList openFilters(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header)
{
    Reader reader = bodyOf(packet, header);
    uint16_t packetId = takePacketId(KOR_AT(ex, depth), &reader);
    if (ex->code == 0 && reader.cursor == reader.end) {
        breach(KOR_AT(ex, depth), "no filter in the packet");
    }
    return {packetId, header.type == Type::subscribe, reader.cursor, reader.end};
}

bool nextFilter(korEx* ex, uint8_t depth, FilterList* list, Bytes* filter, uint8_t* qos)
{
    Reader reader = {list->cursor, list->end};
    if (ex->code != 0 || reader.cursor == reader.end) {
        return false;
    }
    *filter = takeText(KOR_AT(ex, depth), &reader);
    if (ex->code == 0 && !isFilter(*filter)) {
        breach(KOR_AT(ex, depth), "filter is empty or has a wildcard in the wrong place");
    }
    if (list->withQos) {
        *qos = takeByte(KOR_AT(ex, depth), &reader);
        if (ex->code == 0 && *qos > 2) {
            breach(KOR_AT(ex, depth), "QoS of a filter is above 2");
        }
    }
    list->cursor = reader.cursor;
    return ex->code == 0;
}

void checkPacket(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header)
{
    Connect connect;
    Publish publish;
    FilterList list;
    Bytes filter;
    uint8_t qos = 0;
    switch (header.type) {
    case Type::connect:
        readConnect(KOR_AT(ex, depth), packet, header, &connect);
        break;
    case Type::publish:
        readPublish(KOR_AT(ex, depth), packet, header, &publish);
        break;
    case Type::puback:
        readAcknowledgement(KOR_AT(ex, depth), packet, header);
        break;
    case Type::subscribe:
    case Type::unsubscribe:
        list = openFilters(KOR_AT(ex, depth), packet, header);
        while (nextFilter(KOR_AT(ex, depth), &list, &filter, &qos)) {
        }
        break;
    case Type::pingreq:
    case Type::disconnect:
        readEmpty(KOR_AT(ex, depth), header);
        break;
    default:
        KOR_RAISE_F(ex, depth, KOR_ERROR_INVALID_VALUE, "%s is not a client's to send", nameOf(header.type));
    }
}

// ---- Writing --------------------------------------------------------------------------------------------------------

bool reserve(korEx* ex, uint8_t depth, korBuffer* to, uint32_t size)
{
    if (ex->code != 0) {
        return false; // there may be no buffer, for want of memory
    }
    auto room = static_cast<uint32_t>(to->data + to->capacity - to->position);
    if (room < size) {
        uint32_t missing = size - room;
        auto capacity = static_cast<uint32_t>(to->capacity);
        _korBuffer_Expand(KOR_AT(ex, depth), to, static_cast<int32_t>(missing > capacity ? missing : capacity));
    }
    return ex->code == 0;
}

uint32_t publishSize(uint32_t topicLength, uint32_t payloadLength, uint8_t qos)
{
    uint32_t length = publishBodySize(topicLength, payloadLength, qos);
    return 1 + lengthBytes(length) + length;
}

uint32_t packetIdOffset(uint32_t topicLength, uint32_t payloadLength, uint8_t qos)
{
    return 1 + lengthBytes(publishBodySize(topicLength, payloadLength, qos)) + 2 + topicLength;
}

void writePublish(korEx* ex, uint8_t depth, korBuffer* to, const Publish& publish)
{
    auto flags = static_cast<uint8_t>(publish.qos << 1 | (publish.retain ? retainBit : 0) |
                                      (publish.duplicate ? duplicateBit : 0));
    uint32_t length = publishBodySize(publish.topic.length, publish.payload.length, publish.qos);
    if (begin(KOR_AT(ex, depth), to, Type::publish, flags, length)) {
        putField(to, publish.topic);
        if (publish.qos > 0) {
            putNumber(to, publish.packetId);
        }
        putBytes(to, publish.payload);
    }
}

void writeConnect(korEx* ex, uint8_t depth, korBuffer* to, const Connect& connect)
{
    static uint8_t protocol[] = {'M', 'Q', 'T', 'T'};
    const Publish& will = connect.will;
    uint32_t length = 10 + 2 + connect.clientId.length;
    uint8_t flags = connect.cleanSession ? cleanSessionBit : 0;
    if (connect.hasWill) {
        length += 2 + will.topic.length + 2 + will.payload.length;
        flags = static_cast<uint8_t>(flags | willBit | will.qos << 3 | (will.retain ? 0x20 : 0));
    }
    if (begin(KOR_AT(ex, depth), to, Type::connect, 0, length)) {
        putField(to, {protocol, sizeof(protocol)});
        putByte(to, protocolLevel);
        putByte(to, flags);
        putNumber(to, connect.keepAlive);
        putField(to, connect.clientId);
        if (connect.hasWill) {
            putField(to, will.topic);
            putField(to, will.payload);
        }
    }
}

void writeConnack(korEx* ex, uint8_t depth, korBuffer* to, uint8_t code)
{
    if (begin(KOR_AT(ex, depth), to, Type::connack, 0, 2)) {
        putByte(to, 0); // no session outlives its connection
        putByte(to, code);
    }
}

void writeAcknowledgement(korEx* ex, uint8_t depth, korBuffer* to, Type type, uint16_t packetId)
{
    if (begin(KOR_AT(ex, depth), to, type, 0, 2)) {
        putNumber(to, packetId);
    }
}

void writeEmpty(korEx* ex, uint8_t depth, korBuffer* to, Type type)
{
    begin(KOR_AT(ex, depth), to, type, 0, 0);
}

void writeSubscribe(korEx* ex, uint8_t depth, korBuffer* to, uint16_t packetId, Bytes filter, uint8_t qos)
{
    if (begin(KOR_AT(ex, depth), to, Type::subscribe, 2, 2 + 2 + filter.length + 1)) {
        putNumber(to, packetId);
        putField(to, filter);
        putByte(to, qos);
    }
}

void writeUnsubscribe(korEx* ex, uint8_t depth, korBuffer* to, uint16_t packetId, Bytes filter)
{
    if (begin(KOR_AT(ex, depth), to, Type::unsubscribe, 2, 2 + 2 + filter.length)) {
        putNumber(to, packetId);
        putField(to, filter);
    }
}

void writeSuback(korEx* ex, uint8_t depth, korBuffer* to, uint16_t packetId, Bytes answers)
{
    if (begin(KOR_AT(ex, depth), to, Type::suback, 0, 2 + answers.length)) {
        putNumber(to, packetId);
        putBytes(to, answers);
    }
}

} // namespace mqtt
