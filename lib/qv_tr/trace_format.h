// The trace file format (see FORMAT.md): constants, the record encoder and the
// reader. Shared by the library, the qvtrace tool and the fuzz target.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

namespace qvtr {

inline constexpr uint32_t kFileMagic = 0x51565446;    // "QVTF"
inline constexpr uint32_t kFormatVersion = 1;
inline constexpr size_t kFileHeaderSize = 8;
inline constexpr uint32_t kRecordMagic = 0x51565452;  // "QVTR"
inline constexpr size_t kRecordFixedSize = 40;        // magic .. item count
inline constexpr size_t kChecksumSize = 4;
inline constexpr size_t kItemLengthSize = 4;
inline constexpr size_t kMaxComponentLength = 255;
inline constexpr size_t kMaxRecordSize = size_t{16} << 20;
inline constexpr size_t kMinRecordSize = kRecordFixedSize + 1 + kChecksumSize;

enum class PayloadKind : uint8_t { none = 0, data = 1, strings = 2 };

// One payload item: bytes the caller owns for the duration of the call.
struct Item {
    const uint8_t *data;
    size_t size;
};

// What a record says besides its payload.
struct RecordHeader {
    std::string_view component;
    uint32_t id = 0;
    uint32_t pid = 0;
    uint32_t tid = 0;
    uint64_t seconds = 0;
    uint32_t nanoseconds = 0;
    PayloadKind kind = PayloadKind::none;
};

// CRC-32 with the reflected polynomial 0xEDB88320 (the one zlib's crc32 uses).
uint32_t crc32(std::span<const uint8_t> bytes, uint32_t crc = 0);

inline void store_be16(uint8_t *p, uint16_t v) { p[0] = uint8_t(v >> 8); p[1] = uint8_t(v); }
inline void store_be32(uint8_t *p, uint32_t v) {
    store_be16(p, uint16_t(v >> 16));
    store_be16(p + 2, uint16_t(v));
}
inline void store_be64(uint8_t *p, uint64_t v) {
    store_be32(p, uint32_t(v >> 32));
    store_be32(p + 4, uint32_t(v));
}
inline uint16_t load_be16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }
inline uint32_t load_be32(const uint8_t *p) { return uint32_t(load_be16(p)) << 16 | load_be16(p + 2); }
inline uint64_t load_be64(const uint8_t *p) { return uint64_t(load_be32(p)) << 32 | load_be32(p + 4); }

// Bytes the record would take, or 0 when it cannot be encoded (component name
// empty or longer than 255 bytes, record above kMaxRecordSize).
size_t encoded_record_size(std::string_view component, std::span<const Item> items);

// Writes the record into out, which holds exactly encoded_record_size() bytes.
void encode_record(std::span<uint8_t> out, const RecordHeader &header,
                   std::span<const Item> items);

// Writes the file header into out (kFileHeaderSize bytes).
void encode_file_header(std::span<uint8_t> out);

// One thing the reader found. Views point into the bytes given to parse().
struct TraceEvent {
    enum class Kind { header, record, damage };
    Kind kind;
    uint64_t offset;          // file offset where it starts
    RecordHeader record;      // kind == record
    std::vector<std::span<const uint8_t>> items;  // kind == record
};

// Reads a trace file from successive chunks, resynchronising after damage.
// Every length is checked against the bytes present before it is used.
class TraceReader {
public:
    using Sink = std::function<void(const TraceEvent &)>;

    // data: file bytes from file offset `base` on (the bytes not consumed by
    // the previous call, then new ones); eof: nothing follows data. Calls sink
    // for each header, record and damaged stretch found, in file order, and
    // returns how many leading bytes of data are done with. Without eof, the
    // caller keeps the rest and calls again with more bytes appended. Out of
    // memory, throws std::bad_alloc; the events delivered before are whole.
    size_t parse(std::span<const uint8_t> data, uint64_t base, bool eof, const Sink &sink);

    // True when the bytes at offset 0 were not a version-1 file header.
    bool bad_file_header() const { return bad_file_header_; }
    // The version of the first file header when it is not 1, else 0.
    uint32_t unsupported_version() const { return unsupported_version_; }
    // Number of damaged stretches reported so far.
    uint64_t damage_count() const { return damage_count_; }

private:
    bool in_damage_ = false;
    uint64_t damage_start_ = 0;
    bool bad_file_header_ = false;
    uint32_t unsupported_version_ = 0;
    uint64_t damage_count_ = 0;
    bool stopped_ = false;
};

}  // namespace qvtr
