// Reads trace files: takes a header or a record only when every field agrees
// with its length and checksum, and otherwise scans byte by byte for the next
// one, so that a torn or overwritten record costs only itself.
#include "trace_format.h"

#include <cstring>

namespace qvtr {
namespace {

enum class Probe { ok, need_more, bad };

struct ProbeResult {
    Probe status;
    size_t length = 0;
};

// The bytes present are a prefix of the 4-byte magic (or all of it).
bool starts_with_magic(std::span<const uint8_t> rest, uint32_t magic) {
    uint8_t want[4];
    store_be32(want, magic);
    size_t n = rest.size() < 4 ? rest.size() : 4;
    return std::memcmp(rest.data(), want, n) == 0;
}

ProbeResult probe_file_header(std::span<const uint8_t> rest, bool eof) {
    if (!starts_with_magic(rest, kFileMagic))
        return {Probe::bad};
    if (rest.size() < kFileHeaderSize)
        return {eof ? Probe::bad : Probe::need_more};
    if (load_be32(rest.data() + 4) != kFormatVersion)
        return {Probe::bad};
    return {Probe::ok, kFileHeaderSize};
}

// Checks the fields of a record whose length and checksum are already known
// to be right, and fills ev.
bool decode_fields(std::span<const uint8_t> rec, TraceEvent &ev) {
    const uint8_t *p = rec.data();
    uint8_t kind = p[8];
    size_t name_len = p[9];
    if (kind > uint8_t(PayloadKind::strings) || load_be16(p + 10) != 0 || name_len == 0)
        return false;
    uint32_t nanoseconds = load_be32(p + 32);
    if (nanoseconds >= 1000000000u)
        return false;
    uint32_t count = load_be32(p + 36);
    if (kind == uint8_t(PayloadKind::none) && count != 0)
        return false;

    size_t pos = kRecordFixedSize;
    size_t end = rec.size() - kChecksumSize;
    if (name_len > end - pos)
        return false;
    ev.record.component = std::string_view(reinterpret_cast<const char *>(p + pos), name_len);
    pos += name_len;
    if (count > (end - pos) / kItemLengthSize)
        return false;
    ev.items.clear();
    ev.items.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        if (end - pos < kItemLengthSize)
            return false;
        size_t len = load_be32(p + pos);
        pos += kItemLengthSize;
        if (len > end - pos)
            return false;
        ev.items.push_back(rec.subspan(pos, len));
        pos += len;
    }
    if (pos != end)
        return false;
    ev.record.kind = PayloadKind(kind);
    ev.record.id = load_be32(p + 12);
    ev.record.pid = load_be32(p + 16);
    ev.record.tid = load_be32(p + 20);
    ev.record.seconds = load_be64(p + 24);
    ev.record.nanoseconds = nanoseconds;
    return true;
}

ProbeResult probe_record(std::span<const uint8_t> rest, bool eof, TraceEvent &ev) {
    if (!starts_with_magic(rest, kRecordMagic))
        return {Probe::bad};
    if (rest.size() < 8)
        return {eof ? Probe::bad : Probe::need_more};
    size_t length = load_be32(rest.data() + 4);
    if (length < kMinRecordSize || length > kMaxRecordSize)
        return {Probe::bad};
    if (rest.size() < length)
        return {eof ? Probe::bad : Probe::need_more};
    std::span<const uint8_t> rec = rest.first(length);
    size_t body = length - kChecksumSize;
    if (crc32(rec.first(body)) != load_be32(rec.data() + body))
        return {Probe::bad};
    if (!decode_fields(rec, ev))
        return {Probe::bad};
    return {Probe::ok, length};
}

}  // namespace

size_t TraceReader::parse(std::span<const uint8_t> data, uint64_t base, bool eof,
                          const Sink &sink) {
    if (stopped_)
        return data.size();
    TraceEvent ev;
    size_t pos = 0;
    while (pos < data.size()) {
        std::span<const uint8_t> rest = data.subspan(pos);
        uint64_t offset = base + pos;
        ProbeResult r;
        if (offset == 0) {
            // Only a header may open the file; a foreign version stops reading.
            if (rest.size() >= kFileHeaderSize && load_be32(rest.data()) == kFileMagic &&
                load_be32(rest.data() + 4) != kFormatVersion) {
                unsupported_version_ = load_be32(rest.data() + 4);
                stopped_ = true;
                return data.size();
            }
            r = probe_file_header(rest, eof);
            ev.kind = TraceEvent::Kind::header;
            if (r.status == Probe::bad)
                bad_file_header_ = true;
        } else {
            r = probe_file_header(rest, eof);
            ev.kind = TraceEvent::Kind::header;
            if (r.status == Probe::bad) {
                r = probe_record(rest, eof, ev);
                ev.kind = TraceEvent::Kind::record;
            }
        }
        if (r.status == Probe::need_more)
            return pos;
        if (r.status == Probe::bad) {
            if (!in_damage_) {
                in_damage_ = true;
                damage_start_ = offset;
            }
            ++pos;
            continue;
        }
        if (in_damage_) {
            in_damage_ = false;
            ++damage_count_;
            sink(TraceEvent{TraceEvent::Kind::damage, damage_start_, {}, {}});
        }
        ev.offset = offset;
        sink(ev);
        pos += r.length;
    }
    if (eof && in_damage_) {
        in_damage_ = false;
        ++damage_count_;
        sink(TraceEvent{TraceEvent::Kind::damage, damage_start_, {}, {}});
    }
    return pos;
}

}  // namespace qvtr
