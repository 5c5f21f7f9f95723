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
    Bytes bytes;
    uint8_t* cursor = bytes.data();
    const uint8_t* end = bytes.data() + bytes.size();
};

void readHeaderInt(korEx* ex, Message& message, int32_t)
{
    uint64_t value = 0;
    uint64_t again = 0;
    uint8_t field[9];
    uint8_t* cursor = field;
    int32_t width = _korBuf_ReadHeaderInt(ex, 0, &message.cursor, message.end, &value);
    demand((width == 0) == (ex->code != 0));
    if (width != 0) {
        demand(_korBuf_WriteHeaderIntExpanded(ex, 0, &cursor, std::end(field), value, width) == width);
        demand(std::equal(field, cursor, message.cursor - width));
        cursor = field;
        demand(_korBuf_ReadHeaderIntImpl(ex, 0, &cursor, std::end(field), &again) == width && again == value);
    }
}

void readVarInt(korEx* ex, Message& message, int32_t)
{
    int64_t value = 0;
    int64_t again = 0;
    uint8_t field[9];
    uint8_t* cursor = field;
    int32_t width = _korBuf_ReadVarInt(ex, 0, &message.cursor, message.end, message.end, &value);
    if (ex->code == 0) {
        int32_t shortest = _korBuf_WriteVarInt(ex, 0, &cursor, std::end(field), value);
        demand(shortest <= width + 1); // the least value of a form is written in the next one
        demand(shortest == _korBuf_VarIntWireSize(ex, 0, value));
        const uint8_t* written = std::exchange(cursor, field);
        demand(_korBuf_ReadVarInt(ex, 0, &cursor, written, std::end(field), &again) == shortest && again == value);
    }
}

void readBitmask(korEx* ex, Message& message, int32_t choice)
{
    int32_t count = choice % 600;
    Bytes array(static_cast<size_t>(count));
    _korBuf_DecodeBitmask(ex, 0, &message.cursor, message.end, array.data(), count);
    if (ex->code == 0) {
        Bytes field(2 * array.size() + 8);
        Bytes again(array.size(), 0xee);
        uint8_t* cursor = field.data();
        _korBuf_EncodeBitmask(ex, 0, &cursor, cursor + field.size(), array.data(), count);
        const uint8_t* written = std::exchange(cursor, field.data());
        _korBuf_DecodeBitmask(ex, 0, &cursor, written, again.data(), count);
        demand(ex->code == 0 && cursor == written && again == array);
    }
}

void readRun(korEx* ex, Message& message, int32_t choice)
{
    uint8_t* from = message.cursor;
    void* data = nullptr;
    char* text = nullptr;
    int32_t length = choice;
    if (choice % 3 == 0) {
        _korBuf_DecodeUTF8(ex, 0, &message.cursor, message.end, &text, 0);
        demand(ex->code != 0 || from + std::strlen(text) + 1 == message.cursor);
        return;
    }
    if (choice % 3 == 1) {
        _korBuf_DecodeBytes(ex, 0, &message.cursor, message.end, &data, &length, 0);
        from += sizeof length;
    } else {
        _korBuf_DecodeNBytes(ex, 0, &message.cursor, message.end, &data, length, 0);
    }
    demand(ex->code != 0 || (data == from && from + std::max(length, 0) == message.cursor));
}

} // namespace

void check(korEx* ex, const std::string& input)
{
    if (input.size() < 3) {
        return;
    }
    constexpr void (*readers[])(korEx*, Message&, int32_t) = {readHeaderInt, readVarInt, readBitmask, readRun};
    Message message = {Bytes(input.begin() + 3, input.end())};
    int32_t choice = static_cast<uint8_t>(input[1]) << 8 | static_cast<uint8_t>(input[2]);
    for (int step = 0; step < 64 && ex->code == 0 && message.cursor < message.end; step++) {
        readers[static_cast<uint8_t>(input[0]) >> step % 4 * 2 & 3](ex, message, choice);
    }
}

} // namespace kor::fuzz
