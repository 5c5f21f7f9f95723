// codecs_bench.cpp - header and variable integers, written and read, by the width of the field in bytes (0: all widths
// mixed), beside protobuf's varints; bitmasks of 4096 elements by the percentage set, beside a flat bitmap in front of
// the bytes.
//
// protobuf's varints have no room test when they are written. They are read with one through its stream, and without
// one as its generated code reads them, which relies on slack behind the message.

#include "korutil/korBuf.h"

#include <benchmark/benchmark.h>

#ifdef KOR_HAVE_PROTOBUF
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/parse_context.h>
#include <google/protobuf/wire_format_lite.h>
#endif

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr size_t count = 4096;
constexpr size_t widest = 10;

korEx* const sharedEx = korEx_Create();

// Values whose fields take `width` bytes in our form; `bits` is what a form of one byte holds.
template <typename Value>
std::vector<Value> values(const benchmark::State& state, int bits)
{
    std::mt19937_64 engine(11);
    std::vector<Value> made(count);
    for (Value& value : made) {
        int64_t width = state.range(0) != 0 ? state.range(0) : 1 + static_cast<int64_t>(engine() % 9);
        auto top = static_cast<int>(7 * (width - 1)) + bits; // the highest bits of the form below and of this one
        uint64_t least = width == 1 ? 0 : uint64_t{1} << (top - 7);
        uint64_t mask = (uint64_t{1} << (width == 9 ? 62 : top)) - 1;
        value = static_cast<Value>((engine() & mask) | least);
        if (bits == 6 && engine() % 2 == 0) {
            value = 0 - value;
        }
    }
    return made;
}

void countItems(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(count));
}

// ---- The two codecs -------------------------------------------------------------------------------------------------

struct HeaderCodec {
    using Value = uint64_t;
    static constexpr int bits = 7;

    static uint8_t* write(uint8_t* cursor, const uint8_t* end, Value value)
    {
        _korBuf_WriteHeaderInt(KOR_AT(sharedEx, 0), &cursor, end, value);
        return cursor;
    }

    static uint8_t* read(uint8_t* cursor, const uint8_t* end, Value* value)
    {
        _korBuf_ReadHeaderInt(KOR_AT(sharedEx, 0), &cursor, end, value);
        return cursor;
    }

    static uint64_t plain(Value value) { return value; }
};

struct VariableCodec {
    using Value = int64_t;
    static constexpr int bits = 6;

    static uint8_t* write(uint8_t* cursor, const uint8_t* end, Value value)
    {
        _korBuf_WriteVarInt(KOR_AT(sharedEx, 0), &cursor, end, value);
        return cursor;
    }

    static uint8_t* read(uint8_t* cursor, const uint8_t* end, Value* value)
    {
        _korBuf_ReadVarInt(KOR_AT(sharedEx, 0), &cursor, end, end, value);
        return cursor;
    }

    static uint64_t plain(Value value)
    {
        return static_cast<uint64_t>(value) << 1 ^ static_cast<uint64_t>(value >> 63); // protobuf's zigzag
    }
};

template <typename Codec>
void encode(benchmark::State& state)
{
    auto all = values<typename Codec::Value>(state, Codec::bits);
    std::vector<uint8_t> buffer(count * widest);
    for (auto step : state) {
        uint8_t* cursor = buffer.data();
        for (auto value : all) {
            cursor = Codec::write(cursor, buffer.data() + buffer.size(), value);
        }
        benchmark::DoNotOptimize(cursor);
    }
    countItems(state);
}

template <typename Codec>
void decode(benchmark::State& state)
{
    std::vector<uint8_t> buffer(count * widest);
    uint8_t* end = buffer.data();
    for (auto value : values<typename Codec::Value>(state, Codec::bits)) {
        end = Codec::write(end, buffer.data() + buffer.size(), value);
    }
    for (auto step : state) {
        typename Codec::Value sum = 0;
        for (uint8_t* cursor = buffer.data(); cursor < end;) {
            typename Codec::Value value = 0;
            cursor = Codec::read(cursor, end, &value);
            sum ^= value;
        }
        benchmark::DoNotOptimize(sum);
    }
    countItems(state);
}

#ifdef KOR_HAVE_PROTOBUF

namespace protobuf = google::protobuf;

template <typename Codec>
uint8_t* writeVarints(const std::vector<typename Codec::Value>& all, uint8_t* cursor)
{
    for (auto value : all) {
        cursor = protobuf::io::CodedOutputStream::WriteVarint64ToArray(Codec::plain(value), cursor);
    }
    return cursor;
}

// As the signed readers give it: the zigzag is undone.
template <typename Codec>
uint64_t valueOf(uint64_t plain)
{
    return Codec::bits == 7 ? plain : static_cast<uint64_t>(protobuf::internal::WireFormatLite::ZigZagDecode64(plain));
}

template <typename Codec>
void encodeProtobuf(benchmark::State& state)
{
    auto all = values<typename Codec::Value>(state, Codec::bits);
    std::vector<uint8_t> buffer(count * widest);
    for (auto step : state) {
        benchmark::DoNotOptimize(writeVarints<Codec>(all, buffer.data()));
    }
    countItems(state);
}

template <typename Codec>
void decodeProtobuf(benchmark::State& state)
{
    std::vector<uint8_t> buffer(count * widest);
    auto all = values<typename Codec::Value>(state, Codec::bits);
    auto size = static_cast<int>(writeVarints<Codec>(all, buffer.data()) - buffer.data());
    for (auto step : state) {
        protobuf::io::CodedInputStream stream(buffer.data(), size);
        uint64_t sum = 0;
        for (uint64_t value; stream.ReadVarint64(&value);) {
            sum ^= valueOf<Codec>(value);
        }
        benchmark::DoNotOptimize(sum);
    }
    countItems(state);
}

template <typename Codec>
void decodeProtobufUnchecked(benchmark::State& state)
{
    std::vector<uint8_t> buffer(count * widest + 16);
    auto all = values<typename Codec::Value>(state, Codec::bits);
    const char* start = reinterpret_cast<const char*>(buffer.data());
    const char* end = reinterpret_cast<const char*>(writeVarints<Codec>(all, buffer.data()));
    for (auto step : state) {
        uint64_t sum = 0;
        for (const char* cursor = start; cursor < end;) {
            uint64_t value;
            cursor = protobuf::internal::VarintParse(cursor, &value);
            sum ^= valueOf<Codec>(value);
        }
        benchmark::DoNotOptimize(sum);
    }
    countItems(state);
}
#endif

// ---- Bitmasks -------------------------------------------------------------------------------------------------------

std::vector<uint8_t> sparse(const benchmark::State& state)
{
    std::mt19937_64 engine(13);
    std::vector<uint8_t> array(count);
    for (uint8_t& byte : array) {
        if (engine() % 100 < static_cast<uint64_t>(state.range(0))) {
            byte = static_cast<uint8_t>(1 + engine() % 255);
        }
    }
    return array;
}

uint8_t* writeMask(uint8_t* cursor, const uint8_t* end, const std::vector<uint8_t>& array)
{
    _korBuf_EncodeBitmask(KOR_AT(sharedEx, 0), &cursor, end, array.data(), static_cast<int32_t>(array.size()));
    return cursor;
}

void encodeBitmask(benchmark::State& state)
{
    std::vector<uint8_t> array = sparse(state);
    std::vector<uint8_t> buffer(2 * count + 8);
    uint8_t* cursor = nullptr;
    for (auto step : state) {
        cursor = writeMask(buffer.data(), buffer.data() + buffer.size(), array);
        benchmark::DoNotOptimize(cursor);
    }
    state.counters["bytes"] = static_cast<double>(cursor - buffer.data());
}

void decodeBitmask(benchmark::State& state)
{
    std::vector<uint8_t> array = sparse(state);
    std::vector<uint8_t> buffer(2 * count + 8);
    const uint8_t* end = writeMask(buffer.data(), buffer.data() + buffer.size(), array);
    for (auto step : state) {
        uint8_t* cursor = buffer.data();
        _korBuf_DecodeBitmask(KOR_AT(sharedEx, 0), &cursor, end, array.data(), static_cast<int32_t>(count));
        benchmark::DoNotOptimize(array.data());
    }
}

// A bit for each byte, then the bytes that are not zero.
uint8_t* writeFlat(uint8_t* cursor, const std::vector<uint8_t>& array)
{
    uint8_t* bits = cursor;
    std::memset(bits, 0, count / 8);
    cursor += count / 8;
    for (size_t i = 0; i < count; i++) {
        if (array[i] != 0) {
            bits[i / 8] = static_cast<uint8_t>(bits[i / 8] | 0x80 >> i % 8);
            *cursor++ = array[i];
        }
    }
    return cursor;
}

void encodeFlat(benchmark::State& state)
{
    std::vector<uint8_t> array = sparse(state);
    std::vector<uint8_t> buffer(2 * count);
    uint8_t* cursor = nullptr;
    for (auto step : state) {
        cursor = writeFlat(buffer.data(), array);
        benchmark::DoNotOptimize(cursor);
    }
    state.counters["bytes"] = static_cast<double>(cursor - buffer.data());
}

void decodeFlat(benchmark::State& state)
{
    std::vector<uint8_t> array = sparse(state);
    std::vector<uint8_t> buffer(2 * count);
    writeFlat(buffer.data(), array);
    for (auto step : state) {
        const uint8_t* cursor = buffer.data() + count / 8;
        for (size_t i = 0; i < count; i++) {
            array[i] = (buffer[i / 8] & 0x80 >> i % 8) != 0 ? *cursor++ : uint8_t{0};
        }
        benchmark::DoNotOptimize(array.data());
    }
}

void widths(benchmark::internal::Benchmark* bench)
{
    for (int64_t width : {1, 2, 3, 5, 8, 9, 0}) {
        bench->Arg(width);
    }
}

void percentages(benchmark::internal::Benchmark* bench)
{
    for (int64_t percentage : {1, 10, 50}) {
        bench->Arg(percentage);
    }
}

BENCHMARK(encode<HeaderCodec>)->Name("BM_Codecs_header_encode/korBuf")->Apply(widths);
#ifdef KOR_HAVE_PROTOBUF
BENCHMARK(encodeProtobuf<HeaderCodec>)->Name("BM_Codecs_header_encode/protobuf")->Apply(widths);
#endif
BENCHMARK(decode<HeaderCodec>)->Name("BM_Codecs_header_decode/korBuf")->Apply(widths);
#ifdef KOR_HAVE_PROTOBUF
BENCHMARK(decodeProtobuf<HeaderCodec>)->Name("BM_Codecs_header_decode/protobuf_stream")->Apply(widths);
BENCHMARK(decodeProtobufUnchecked<HeaderCodec>)->Name("BM_Codecs_header_decode/protobuf_parse")->Apply(widths);
#endif
BENCHMARK(encode<VariableCodec>)->Name("BM_Codecs_variable_encode/korBuf")->Apply(widths);
#ifdef KOR_HAVE_PROTOBUF
BENCHMARK(encodeProtobuf<VariableCodec>)->Name("BM_Codecs_variable_encode/protobuf")->Apply(widths);
#endif
BENCHMARK(decode<VariableCodec>)->Name("BM_Codecs_variable_decode/korBuf")->Apply(widths);
#ifdef KOR_HAVE_PROTOBUF
BENCHMARK(decodeProtobuf<VariableCodec>)->Name("BM_Codecs_variable_decode/protobuf_stream")->Apply(widths);
BENCHMARK(decodeProtobufUnchecked<VariableCodec>)->Name("BM_Codecs_variable_decode/protobuf_parse")->Apply(widths);
#endif
BENCHMARK(encodeBitmask)->Name("BM_Codecs_bitmask_encode/korBuf")->Apply(percentages);
BENCHMARK(encodeFlat)->Name("BM_Codecs_bitmask_encode/flat_bitmap")->Apply(percentages);
BENCHMARK(decodeBitmask)->Name("BM_Codecs_bitmask_decode/korBuf")->Apply(percentages);
BENCHMARK(decodeFlat)->Name("BM_Codecs_bitmask_decode/flat_bitmap")->Apply(percentages);

} // namespace

BENCHMARK_MAIN();
