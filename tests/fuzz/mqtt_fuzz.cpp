// mqtt_fuzz.cpp - a stream of any bytes, cut into packets as the exchange does: no reader leaves its packet, what is
// accepted keeps the rules, and a message that was read is written as it came.

#include "../../examples/exchange/mqtt.cpp"

#include "fuzz.h"

namespace kor::fuzz {
namespace {

bool same(mqtt::Bytes a, mqtt::Bytes b)
{
    return a.length == b.length && (a.length == 0 || std::memcmp(a.data, b.data, a.length) == 0);
}

void writeAgain(korEx* ex, const mqtt::Publish& publish, const uint8_t* packet, const mqtt::Header& header)
{
    korBuffer* buffer = _korBuffer_CreateFromCacheOrPool(KOR_AT(ex, 0), nullptr, nullptr, 32);
    mqtt::writePublish(KOR_AT(ex, 0), buffer, publish);
    auto size = static_cast<uint32_t>(buffer->position - buffer->data);
    mqtt::Header again = {};
    mqtt::Publish other;
    demand(mqtt::readHeader(KOR_AT(ex, 0), buffer->data, size, size, &again) && again.packetSize == size);
    mqtt::readPublish(KOR_AT(ex, 0), buffer->data, again, &other);
    demand(ex->code == 0 && same(other.topic, publish.topic) && same(other.payload, publish.payload) &&
           other.packetId == publish.packetId && other.qos == publish.qos && other.retain == publish.retain &&
           other.duplicate == publish.duplicate);
    // A length can be written with more bytes than it needs, so only what follows it must be the same.
    demand(buffer->data[0] == packet[0] &&
           same({buffer->data + again.headerSize, size - again.headerSize},
                {const_cast<uint8_t*>(packet) + header.headerSize, header.packetSize - header.headerSize}));
    demand(size == mqtt::publishSize(publish.topic.length, publish.payload.length, publish.qos));
    _korBuffer_ReleaseToCache(KOR_AT_D(0, ex), buffer, nullptr);
}

// A message that checkPacket has accepted.
void lookAt(korEx* ex, uint8_t* packet, const mqtt::Header& header)
{
    mqtt::Publish publish;
    mqtt::readPublish(KOR_AT(ex, 0), packet, header, &publish);
    demand(ex->code == 0 && publish.qos < 2 && (publish.qos == 0) == (publish.packetId == 0));
    demand(mqtt::isTopic(publish.topic) && mqtt::isText(publish.topic));
    writeAgain(ex, publish, packet, header);
}

void lookAtFilters(korEx* ex, uint8_t* packet, const mqtt::Header& header)
{
    mqtt::FilterList list = mqtt::openFilters(KOR_AT(ex, 0), packet, header);
    mqtt::Bytes filter;
    uint8_t qos = 0;
    uint32_t size = 2;
    while (mqtt::nextFilter(KOR_AT(ex, 0), &list, &filter, &qos)) {
        demand(mqtt::isFilter(filter) && mqtt::isText(filter) && qos <= 2);
        size += 2 + filter.length + (list.withQos ? 1 : 0);
    }
    demand(ex->code == 0 && list.packetId != 0 && size == header.packetSize - header.headerSize);
}

void checkPacket(korEx* ex, const uint8_t* bytes, const mqtt::Header& header)
{
    std::vector<uint8_t> packet(bytes, bytes + header.packetSize); // so that a step too far is seen
    mqtt::checkPacket(KOR_AT(ex, 0), packet.data(), header);
    demand(ex->code == 0 || ex->code == KOR_ERROR_INVALID_VALUE || ex->code == KOR_ERROR_END_OF_BUFFER);
    if (ex->code == 0 && header.type == mqtt::Type::publish) {
        lookAt(ex, packet.data(), header);
    } else if (ex->code == 0 && (header.type == mqtt::Type::subscribe || header.type == mqtt::Type::unsubscribe)) {
        lookAtFilters(ex, packet.data(), header);
    }
    korEx_Clear(ex);
}

} // namespace

void check(korEx* ex, const std::string& input)
{
    auto* data = reinterpret_cast<const uint8_t*>(input.data());
    size_t size = input.size();
    mqtt::Header header;
    while (mqtt::readHeader(KOR_AT(ex, 0), data, size, 1u << 20, &header) && header.packetSize <= size) {
        demand(header.packetSize >= header.headerSize && header.packetSize <= 1u << 20);
        checkPacket(ex, data, header);
        data += header.packetSize;
        size -= header.packetSize;
    }
}

} // namespace kor::fuzz
