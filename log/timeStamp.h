// timeStamp.h - the time at the head of a statement.

#pragma once

#include "log/text.h"

#include "korutil/korTime.h"

namespace kor::logging {

/// Appends an instant in local time as "2024-02-29 23:59:59." and milliseconds, or, with `precise`, six digits that are
/// the low 16 bits of the microseconds: readers of these files know it so. Any thread.
void appendTime(Text& text, const korTime& time, bool precise);

} // namespace kor::logging
