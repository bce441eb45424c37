// Helpers of the trace tests: trace bytes built with the library's encoder,
// and a whole trace decoded with its reader into values that outlive the
// bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "trace_format.h"

namespace trtest {

using qvtr::PayloadKind;
using Kind = qvtr::TraceEvent::Kind;

inline std::string header_bytes() {
    std::string out(qvtr::kFileHeaderSize, '\0');
    qvtr::encode_file_header(std::span(reinterpret_cast<uint8_t *>(out.data()), out.size()));
    return out;
}

// A record stamped pid 4242, tid 4343, 2026-11-22 10:15:03 UTC.
inline std::string record_bytes(std::string_view comp, uint32_t id, PayloadKind kind,
                                const std::vector<std::string> &items = {},
                                uint32_t nanoseconds = 123456789) {
    std::vector<qvtr::Item> list;
    for (const std::string &s : items)
        list.push_back({reinterpret_cast<const uint8_t *>(s.data()), s.size()});
    qvtr::RecordHeader h{comp, id, 4242, 4343, 1795342503, nanoseconds, kind};
    std::string out(qvtr::encoded_record_size(comp, list), '\0');
    qvtr::encode_record(std::span(reinterpret_cast<uint8_t *>(out.data()), out.size()), h, list);
    return out;
}

struct Decoded {
    Kind kind;
    uint64_t offset = 0;
    std::string component;
    uint32_t id = 0, pid = 0, tid = 0;
    uint64_t seconds = 0;
    uint32_t nanoseconds = 0;
    PayloadKind payload = PayloadKind::none;
    std::vector<std::string> items;
};

// Feeds bytes to a TraceReader in pieces of `chunk` bytes (0: all at once),
// keeping unconsumed bytes as a file reader would.
inline std::vector<Decoded> decode(const std::string &bytes, size_t chunk = 0,
                                   uint64_t *damage_count = nullptr) {
    std::vector<Decoded> out;
    qvtr::TraceReader reader;
    auto sink = [&](const qvtr::TraceEvent &ev) {
        const qvtr::RecordHeader &r = ev.record;
        Decoded d{ev.kind, ev.offset, std::string(r.component), r.id, r.pid, r.tid, r.seconds, r.nanoseconds,
                  r.kind, {}};
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
        pending.insert(pending.end(), bytes.begin() + ptrdiff_t(next), bytes.begin() + ptrdiff_t(next + n));
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

// Only the records, without headers and damage.
inline std::vector<Decoded> records_of(const std::vector<Decoded> &events) {
    std::vector<Decoded> out;
    for (const Decoded &d : events)
        if (d.kind == Kind::record)
            out.push_back(d);
    return out;
}

}  // namespace trtest
