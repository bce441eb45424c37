// Turns what the trace reader finds into qvtrace's output lines.
#pragma once

#include <string>

#include "trace_format.h"

namespace qvtrace {

// "2026-11-22 10:15:03.123456789 UTC" for a time in seconds and nanoseconds
// since 1970; "@SECONDS.NANOSECONDS" when the year does not fit.
std::string format_time(uint64_t seconds, uint32_t nanoseconds);

// One line, without its newline:
//   TIME COMPONENT id=N pid=P tid=T ITEM...
// with strings in double quotes (non-printable bytes, '"' and '\' escaped,
// the terminating NUL left out, an empty item shown as (null)) and data
// items in lower-case hex (an empty one shown as (empty)); or, for damage,
//   damaged record at offset N
std::string format_event(const qvtr::TraceEvent &event);

}  // namespace qvtrace
