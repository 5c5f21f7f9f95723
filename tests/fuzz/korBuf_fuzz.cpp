// korBuf_fuzz.cpp - any bytes as a message: the first bytes choose the readers, the rest is what they read.
//
// Held against each other: what a reader gives is written again and read again as the same. The message lies in a block
// of its own size, so that a byte too many is seen.

#include "korutil/korBuf.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void demand(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

struct Message {
    korEx* ex;
    std::vector<uint8_t> bytes;
    uint8_t* cursor = bytes.data();
    const uint8_t* end = bytes.data() + bytes.size();
};

struct Field {
    uint8_t bytes[16];
    uint8_t* cursor = bytes;
    const uint8_t* end = bytes + sizeof bytes;
};

void readHeaderInt(Message& message)
{
    uint64_t value = 0;
    int32_t width = _korBuf_ReadHeaderInt(KOR_AT(message.ex, 0), &message.cursor, message.end, &value);
    demand((width == 0) == (message.ex->code != 0));
    if (width != 0) {
        Field field;
        uint64_t again = 0;
        demand(_korBuf_WriteHeaderIntExpanded(KOR_AT(message.ex, 0), &field.cursor, field.end, value, width) == width);
        demand(std::memcmp(field.bytes, message.cursor - width, static_cast<size_t>(width)) == 0);
        field.cursor = field.bytes;
        demand(_korBuf_ReadHeaderIntImpl(KOR_AT(message.ex, 0), &field.cursor, field.end, &again) == width);
        demand(again == value);
    }
}

void readVarInt(Message& message)
{
    int64_t value = 0;
    int32_t width = _korBuf_ReadVarInt(KOR_AT(message.ex, 0), &message.cursor, message.end, message.end, &value);
    if (message.ex->code == 0) {
        Field field;
        int64_t again = 0;
        int32_t shortest = _korBuf_WriteVarInt(KOR_AT(message.ex, 0), &field.cursor, field.end, value);
        demand(shortest <= width + 1); // the least value of a form is written in the next one
        demand(shortest == _korBuf_VarIntWireSize(KOR_AT(message.ex, 0), value));
        const uint8_t* written = field.cursor;
        field.cursor = field.bytes;
        demand(_korBuf_ReadVarInt(KOR_AT(message.ex, 0), &field.cursor, written, field.end, &again) == shortest);
        demand(again == value);
    }
}

void readBitmask(Message& message, int32_t count)
{
    std::vector<uint8_t> array(static_cast<size_t>(count));
    _korBuf_DecodeBitmask(KOR_AT(message.ex, 0), &message.cursor, message.end, array.data(), count);
    if (message.ex->code == 0) {
        std::vector<uint8_t> field(2 * array.size() + 8);
        std::vector<uint8_t> again(array.size(), 0xee);
        uint8_t* cursor = field.data();
        _korBuf_EncodeBitmask(KOR_AT(message.ex, 0), &cursor, field.data() + field.size(), array.data(), count);
        const uint8_t* written = cursor;
        cursor = field.data();
        _korBuf_DecodeBitmask(KOR_AT(message.ex, 0), &cursor, written, again.data(), count);
        demand(message.ex->code == 0 && cursor == written && again == array);
    }
}

void readRuns(Message& message, int32_t choice)
{
    void* data = nullptr;
    char* text = nullptr;
    int32_t length = choice;
    if (choice % 3 == 0) {
        _korBuf_DecodeUTF8(KOR_AT(message.ex, 0), &message.cursor, message.end, &text, 0);
        demand(message.ex->code != 0 ||
               std::strlen(text) + 1 == static_cast<size_t>(message.cursor - reinterpret_cast<uint8_t*>(text)));
        return;
    }
    if (choice % 3 == 1) {
        _korBuf_DecodeBytes(KOR_AT(message.ex, 0), &message.cursor, message.end, &data, &length, 0);
    } else {
        _korBuf_DecodeNBytes(KOR_AT(message.ex, 0), &message.cursor, message.end, &data, length, 0);
    }
    if (message.ex->code == 0 && length > 0) {
        demand(static_cast<uint8_t*>(data) + length == message.cursor);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3) {
        return 0;
    }
    Message message = {korEx_Create(), std::vector<uint8_t>(data + 3, data + size)};
    int32_t argument = data[1] << 8 | data[2];
    for (int step = 0; step < 64 && message.ex->code == 0 && message.cursor < message.end; step++) {
        switch ((data[0] >> step % 4 * 2) % 4) {
        case 0:
            readHeaderInt(message);
            break;
        case 1:
            readVarInt(message);
            break;
        case 2:
            readBitmask(message, argument % 600);
            break;
        default:
            readRuns(message, argument);
        }
    }
    korEx_Destroy(message.ex);
    return 0;
}
