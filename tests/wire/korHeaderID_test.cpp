// korHeaderID_test.cpp - both forms on the wire and as text.

#include "korutil/korHeaderID.h"

#include "support/failingHeap.h"
#include "wireTest.h"

#include <cstring>

namespace {

using namespace kor::test;
using KorHeaderIDTest = KorTest;

bool same(const korHeaderID& left, const korHeaderID& right)
{
    return left.id == right.id && left.uuid[0] == right.uuid[0] && left.uuid[1] == right.uuid[1];
}

TEST_F(KorHeaderIDTest, BothFormsGoOverTheWireAndAreText)
{
    struct Case {
        korHeaderID record;
        const char* bytes;
        const char* text;
    };
    const korHeaderID uuid = {0, {0x0706050403020100, 0x0f0e0d0c0b0a0908}};
    const Case cases[] = {
        {{5, {0, 0}}, "05", "5"},
        {{INT64_MAX, {0, 0}}, "ff 7f ff ff ff ff ff ff ff", "9223372036854775807"},
        {uuid, "00 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f", "{00010203-0405-0607-0809-0A0B0C0D0E0F}"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.text);
        Bytes bytes(bytesOf(one.bytes).size(), 0xee);
        uint8_t* const start = bytes.data();
        uint8_t* const end = start + bytes.size();
        uint8_t* cursor = start;
        _korBuf_WriteHeaderID(KOR_AT(ex, 0), &cursor, end, &one.record);
        EXPECT_EQ(hexOf(bytes), one.bytes);
        EXPECT_EQ(cursor, end);

        sweepFailures(ex, [&] {
            cursor = start;
            korHeaderID* made = _korHeaderID_CreateFromBuffer(KOR_AT(ex, 0), &cursor, end);
            korHeaderID* copy = made == nullptr ? nullptr : _korHeaderID_Copy(KOR_AT(ex, 0), made);
            EXPECT_TRUE(copy == nullptr ? ex->code != 0 : same(*copy, one.record));
            _korHeaderID_Destroy(KOR_AT_D(0, ex), made);
            _korHeaderID_Destroy(KOR_AT_D(0, ex), copy);
        });

        char text[KOR_HEADERID_TEXT_SIZE];
        auto length = static_cast<int32_t>(strlen(one.text));
        EXPECT_EQ(_korHeaderID_ToString(KOR_AT(ex, 0), &one.record, text, sizeof text), length);
        EXPECT_STREQ(text, one.text);
        EXPECT_EQ(_korHeaderID_ToString(KOR_AT(ex, 0), &one.record, text, sizeof text - 1), -1);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Buffer size must be greater HEADERID_TOSTRING_MAX_SIZE");

        cursor = start;
        EXPECT_EQ(_korHeaderID_CreateFromBuffer(KOR_AT(ex, 0), &cursor, end - 1), nullptr);
        EXPECT_RAISED(KOR_ERROR_END_OF_BUFFER, "Buffer too small");
    }
}

} // namespace
