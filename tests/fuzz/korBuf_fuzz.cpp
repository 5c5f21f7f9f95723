// korBuf_fuzz.cpp - any bytes as a message: the first bytes choose the readers, the rest is what they read.
//
// Held against each other: what a reader gives is written again and read again as the same. The message lies in a block
// of its own size, so that a byte too many is seen.

#include "fuzz.h"

#include "korutil/korBuf.h"

namespace kor::fuzz {
namespace {

using Bytes = std::vector<uint8_t>;

struct Message {
    korEx* ex;
    Bytes bytes;
    uint8_t* cursor = bytes.data();
    const uint8_t* end = bytes.data() + bytes.size();
};

void readHeaderInt(Message& message)
{
    korEx* ex = message.ex;
    uint64_t value = 0;
    int32_t width = _korBuf_ReadHeaderInt(KOR_AT(ex, 0), &message.cursor, message.end, &value);
    demand((width == 0) == (ex->code != 0));
    if (width != 0) {
        Message field = {ex, Bytes(16)};
        uint64_t again = 0;
        demand(_korBuf_WriteHeaderIntExpanded(KOR_AT(ex, 0), &field.cursor, field.end, value, width) == width);
        field.cursor -= width;
        demand(std::memcmp(field.cursor, message.cursor - width, static_cast<size_t>(width)) == 0);
        demand(_korBuf_ReadHeaderIntImpl(KOR_AT(ex, 0), &field.cursor, field.end, &again) == width && again == value);
    }
}

void readVarInt(Message& message)
{
    korEx* ex = message.ex;
    int64_t value = 0;
    int32_t width = _korBuf_ReadVarInt(KOR_AT(ex, 0), &message.cursor, message.end, message.end, &value);
    if (ex->code == 0) {
        Message field = {ex, Bytes(16)};
        int64_t again = 0;
        int32_t shortest = _korBuf_WriteVarInt(KOR_AT(ex, 0), &field.cursor, field.end, value);
        demand(shortest <= width + 1); // the least value of a form is written in the next one
        demand(shortest == _korBuf_VarIntWireSize(KOR_AT(ex, 0), value));
        const uint8_t* written = std::exchange(field.cursor, field.bytes.data());
        demand(_korBuf_ReadVarInt(KOR_AT(ex, 0), &field.cursor, written, field.end, &again) == shortest);
        demand(again == value);
    }
}

void readBitmask(Message& message, int32_t count)
{
    korEx* ex = message.ex;
    Bytes array(static_cast<size_t>(count));
    _korBuf_DecodeBitmask(KOR_AT(ex, 0), &message.cursor, message.end, array.data(), count);
    if (ex->code == 0) {
        Message field = {ex, Bytes(2 * array.size() + 8)};
        Bytes again(array.size(), 0xee);
        _korBuf_EncodeBitmask(KOR_AT(ex, 0), &field.cursor, field.end, array.data(), count);
        const uint8_t* written = std::exchange(field.cursor, field.bytes.data());
        _korBuf_DecodeBitmask(KOR_AT(ex, 0), &field.cursor, written, again.data(), count);
        demand(ex->code == 0 && field.cursor == written && again == array);
    }
}

void readRun(Message& message, int32_t choice)
{
    korEx* ex = message.ex;
    uint8_t* from = message.cursor;
    void* data = nullptr;
    char* text = nullptr;
    int32_t length = choice;
    if (choice % 3 == 0) {
        _korBuf_DecodeUTF8(KOR_AT(ex, 0), &message.cursor, message.end, &text, 0);
        demand(ex->code != 0 || from + std::strlen(text) + 1 == message.cursor);
    } else if (choice % 3 == 1) {
        _korBuf_DecodeBytes(KOR_AT(ex, 0), &message.cursor, message.end, &data, &length, 0);
        demand(ex->code != 0 || from + sizeof length + std::max(length, 0) == message.cursor);
    } else {
        _korBuf_DecodeNBytes(KOR_AT(ex, 0), &message.cursor, message.end, &data, length, 0);
        demand(ex->code != 0 || from + length == message.cursor);
    }
    demand(data == nullptr || ex->code != 0 || length < 0 || static_cast<uint8_t*>(data) + length == message.cursor);
}

} // namespace

void check(korEx* ex, const std::string& input)
{
    if (input.size() < 3) {
        return;
    }
    Message message = {ex, Bytes(input.begin() + 3, input.end())};
    int32_t argument = static_cast<uint8_t>(input[1]) << 8 | static_cast<uint8_t>(input[2]);
    for (int step = 0; step < 64 && ex->code == 0 && message.cursor < message.end; step++) {
        switch (static_cast<uint8_t>(input[0]) >> step % 4 * 2 & 3) {
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
            readRun(message, argument);
        }
    }
}

} // namespace kor::fuzz
