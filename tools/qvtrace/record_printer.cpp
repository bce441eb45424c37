#include "record_printer.h"

#include <time.h>

#include <cinttypes>
#include <climits>
#include <cstdio>

namespace qvtrace {

// Component names and strings come from a file and may hold anything; the
// line must stay one line and unambiguous.
void append_escaped(std::string &out, std::span<const uint8_t> bytes, bool quoted) {
    static const char hex[] = "0123456789abcdef";
    for (uint8_t b : bytes) {
        switch (b) {
        case '\n': out += "\\n"; continue;
        case '\t': out += "\\t"; continue;
        case '\r': out += "\\r"; continue;
        case '\\': out += "\\\\"; continue;
        case '"':
            out += quoted ? "\\\"" : "\"";
            continue;
        default:
            break;
        }
        if (b < 0x20 || b >= 0x7f || (!quoted && b == ' ')) {
            out += "\\x";
            out += hex[b >> 4];
            out += hex[b & 15];
        } else {
            out += char(b);
        }
    }
}

namespace {

void append_hex(std::string &out, std::span<const uint8_t> bytes) {
    static const char hex[] = "0123456789abcdef";
    for (uint8_t b : bytes) {
        out += hex[b >> 4];
        out += hex[b & 15];
    }
}

void append_item(std::string &out, qvtr::PayloadKind kind, std::span<const uint8_t> item) {
    out += ' ';
    if (kind == qvtr::PayloadKind::strings) {
        append_string(out, item);
    } else if (item.empty()) {
        out += "(empty)";
    } else {
        append_hex(out, item);
    }
}

}  // namespace

void append_string(std::string &out, std::span<const uint8_t> item) {
    if (item.empty()) {
        out += "(null)";
        return;
    }
    if (item.back() == 0)
        item = item.first(item.size() - 1);
    out += '"';
    append_escaped(out, item, true);
    out += '"';
}

std::string format_time(uint64_t seconds, uint32_t nanoseconds) {
    char text[64];
    struct tm tm;
    time_t t = time_t(seconds);
    if (seconds <= uint64_t(INT64_MAX) && gmtime_r(&t, &tm) && tm.tm_year <= 9999 - 1900) {
        char date[32];
        strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &tm);
        std::snprintf(text, sizeof text, "%s.%09" PRIu32 " UTC", date, nanoseconds);
    } else {
        std::snprintf(text, sizeof text, "@%" PRIu64 ".%09" PRIu32, seconds, nanoseconds);
    }
    return text;
}

std::string format_event(const qvtr::TraceEvent &event, const Mnemonics *names) {
    if (event.kind == qvtr::TraceEvent::Kind::damage)
        return "damaged record at offset " + std::to_string(event.offset);
    const qvtr::RecordHeader &r = event.record;
    std::string line = format_time(r.seconds, r.nanoseconds);
    line += ' ';
    append_escaped(line, {reinterpret_cast<const uint8_t *>(r.component.data()), r.component.size()},
                   false);
    line += " id=" + std::to_string(r.id) + " pid=" + std::to_string(r.pid) +
            " tid=" + std::to_string(r.tid);
    if (names != nullptr && append_named_record(line, event, *names))
        return line;
    for (std::span<const uint8_t> item : event.items)
        append_item(line, r.kind, item);
    return line;
}

}  // namespace qvtrace
