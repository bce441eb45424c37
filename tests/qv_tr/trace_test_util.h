// Helpers shared by the trace tests: decoding a whole trace file into plain
// values that outlive the bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "trace_format.h"

namespace trtest {

struct Decoded {
    qvtr::TraceEvent::Kind kind;
    uint64_t offset = 0;
    std::string component;
    uint32_t id = 0, pid = 0, tid = 0;
    uint64_t seconds = 0;
    uint32_t nanoseconds = 0;
    qvtr::PayloadKind payload = qvtr::PayloadKind::none;
    std::vector<std::string> items;
};

// Feeds bytes to a TraceReader in pieces of `chunk` bytes (0: all at once),
// keeping unconsumed bytes as a file reader would.
inline std::vector<Decoded> decode(const std::string &bytes, size_t chunk = 0,
                                   uint64_t *damage_count = nullptr) {
    std::vector<Decoded> out;
    qvtr::TraceReader reader;
    auto sink = [&](const qvtr::TraceEvent &ev) {
        Decoded d;
        d.kind = ev.kind;
        d.offset = ev.offset;
        d.component = std::string(ev.record.component);
        d.id = ev.record.id;
        d.pid = ev.record.pid;
        d.tid = ev.record.tid;
        d.seconds = ev.record.seconds;
        d.nanoseconds = ev.record.nanoseconds;
        d.payload = ev.record.kind;
        for (auto item : ev.items)
            d.items.emplace_back(item.begin(), item.end());
        out.push_back(std::move(d));
    };
    std::vector<uint8_t> pending;
    uint64_t base = 0;
    size_t next = 0;
    if (chunk == 0)
        chunk = bytes.size() + 1;
    for (bool eof = false; !eof;) {
        size_t n = std::min(chunk, bytes.size() - next);
        pending.insert(pending.end(), bytes.begin() + ptrdiff_t(next),
                       bytes.begin() + ptrdiff_t(next + n));
        next += n;
        eof = next == bytes.size();
        size_t used = reader.parse(pending, base, eof, sink);
        pending.erase(pending.begin(), pending.begin() + ptrdiff_t(used));
        base += used;
    }
    if (damage_count)
        *damage_count = reader.damage_count();
    return out;
}

// Only the records, without headers.
inline std::vector<Decoded> records_of(const std::vector<Decoded> &events) {
    std::vector<Decoded> out;
    for (const Decoded &d : events)
        if (d.kind == qvtr::TraceEvent::Kind::record)
            out.push_back(d);
    return out;
}

}  // namespace trtest
