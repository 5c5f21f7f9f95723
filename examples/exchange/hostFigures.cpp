// hostFigures.cpp - what the readers of both systems share: the list of figures, and the counters that become rates.

#include "hostFigures.h"

#include <korutil/korText.h>

#include <cstdarg>
#include <cstring>

void addFigure(HostFigures* host, double value, const char* unit, const char* format, ...)
{
    if (host->count == maxFigures) {
        return;
    }
    Figure* figure = &host->figures[host->count++];
    va_list arguments;
    va_start(arguments, format);
    _kor_vsnprintf(figure->topic, sizeof(figure->topic), format, arguments);
    va_end(arguments);
    figure->value = value;
    figure->unit = unit;
}

double growth(HostFigures* host, const char* name, double value)
{
    for (int32_t i = 0; i < host->counterCount; i++) {
        HostFigures::Counter* counter = &host->counters[i];
        if (std::strcmp(counter->name, name) == 0) {
            double before = counter->value;
            counter->value = value;
            return value - before;
        }
    }
    if (host->counterCount < 2 * maxFigures) {
        HostFigures::Counter* counter = &host->counters[host->counterCount++];
        _kor_StringCopy(counter->name, sizeof(counter->name), name, 0);
        counter->value = value;
    }
    return -1;
}

void makeLevel(char* text)
{
    for (char* at = text; *at != 0; at++) {
        if (std::strchr("+#/ ", *at) != nullptr || static_cast<unsigned char>(*at) < ' ') {
            *at = '_';
        }
    }
}
