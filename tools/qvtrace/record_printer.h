// Turns what the trace reader finds into qvtrace's output lines.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>

#include "trace_format.h"

namespace qvtrace {

// Mechanism code to mnemonic, as the configuration file names them.
using Mnemonics = std::map<uint32_t, std::string>;

// "2026-11-22 10:15:03.123456789 UTC" for a time in seconds and nanoseconds
// since 1970; "@SECONDS.NANOSECONDS" when the year does not fit.
std::string format_time(uint64_t seconds, uint32_t nanoseconds);

// One line, without its newline:
//   TIME COMPONENT id=N pid=P tid=T ITEM...
// with strings in double quotes (non-printable bytes, '"' and '\' escaped,
// the terminating NUL left out, an empty item shown as (null)) and data
// items in lower-case hex (an empty one shown as (empty)); or, for damage,
//   damaged record at offset N
// With names, a record of the library that has the layout its id promises
// is shown by name instead of its items (see append_named_record).
std::string format_event(const qvtr::TraceEvent &event, const Mnemonics *names = nullptr);

// Appends bytes with every byte that could break the line or its reading
// escaped (and, unquoted, blanks too).
void append_escaped(std::string &out, std::span<const uint8_t> bytes, bool quoted);

// Appends a recorded string: quoted and escaped without its NUL, or (null)
// for the empty item a NULL pointer is recorded as.
void append_string(std::string &out, std::span<const uint8_t> item);

// Appends " ROUTINE entry|exit NAME=VALUE..." or " TITLE NAME=VALUE..." for a
// record of the library's component whose id is in the record table and
// whose items fit the id's layout; returns false, appending nothing, for
// anything else.
bool append_named_record(std::string &out, const qvtr::TraceEvent &event, const Mnemonics &names);

// The header of a typed buffer ("CCDB v2 mech=... seq=1 flags=0x00 body=13
// bytes"); bodies are counted, never shown, since they may hold tokens.
std::string describe_typed_buffer(std::span<const uint8_t> bytes, const Mnemonics &names);

}  // namespace qvtrace
