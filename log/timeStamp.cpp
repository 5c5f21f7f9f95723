// timeStamp.cpp - the time at the head of a statement, with the text of the second at hand.
//
// Breaking a time down and printing it costs more than the rest of a statement, and most statements share their second
// with the one before: its text is kept. A sequence number guards it. Whoever finds it odd, or changed, or another
// second's text, makes the text anew and keeps it if nobody else is doing so; nobody waits.

#include "log/timeStamp.h"

#include "foundation/hostile.h"

#include <cstring>

namespace kor::logging {

namespace {

constexpr size_t secondLength = sizeof("2024-02-29 23:59:59") - 1;
constexpr size_t textWords = 3;

struct SecondText {
    int64_t second;
    uint64_t words[textWords];
};

uint64_t gSequence = 0; // atomic: odd while the text is being replaced
SecondText gKept = {};  // atomic, each word by itself

static_assert(sizeof(gKept.words) > secondLength);

bool findKept(int64_t second, SecondText& found)
{
    uint64_t sequence = KOR_ATOMIC_LOAD(&gSequence);
    found.second = KOR_ATOMIC_LOAD(&gKept.second);
    for (size_t word = 0; word < textWords; word++) {
        found.words[word] = KOR_ATOMIC_LOAD(&gKept.words[word]);
    }
    hostileYield();
    return sequence % 2 == 0 && found.second == second && KOR_ATOMIC_LOAD(&gSequence) == sequence;
}

void keep(const SecondText& made)
{
    uint64_t sequence = KOR_ATOMIC_LOAD(&gSequence);
    if (sequence % 2 != 0 || !KOR_ATOMIC_CAS(&gSequence, &sequence, sequence + 1)) {
        return;
    }
    KOR_ATOMIC_STORE(&gKept.second, made.second);
    for (size_t word = 0; word < textWords; word++) {
        hostileYield();
        KOR_ATOMIC_STORE(&gKept.words[word], made.words[word]);
    }
    KOR_ATOMIC_STORE(&gSequence, sequence + 2);
}

// Only a text of the usual length is kept: a year beyond 9999 has no room.
void appendSecond(Text& text, const korTime& time)
{
    SecondText second;
    if (findKept(time.seconds, second)) {
        append(text, reinterpret_cast<const char*>(second.words), secondLength);
        return;
    }
    korDateTime local;
    _kor_GetLocalTime(&time, &local);
    char made[64] = {};
    uint32_t length = _kor_snprintf(made, sizeof(made), "%04d-%02d-%02d %02d:%02d:%02d", local.year, local.month,
                                    local.day, local.hour, local.minute, local.second);
    append(text, made, length);
    if (length == secondLength) {
        second.second = time.seconds;
        std::memcpy(second.words, made, sizeof(second.words));
        keep(second);
    }
}

void appendFraction(Text& text, uint32_t value, size_t digits)
{
    char fraction[8] = {'.'};
    for (size_t place = digits; place > 0; place--) {
        fraction[place] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    append(text, fraction, digits + 1);
}

} // namespace

void appendTime(Text& text, const korTime& time, bool precise)
{
    appendSecond(text, time);
    if (precise) {
        appendFraction(text, static_cast<uint16_t>(time.nanoseconds / 1000), 6);
    } else {
        appendFraction(text, time.nanoseconds / 1'000'000, 3);
    }
}

} // namespace kor::logging
