// Builds trace records and the file header in memory, so that each goes to
// the file in a single write.
#include "trace_format.h"

#include <cstring>

namespace qvtr {

size_t encoded_record_size(std::string_view component, std::span<const Item> items) {
    if (component.empty() || component.size() > kMaxComponentLength)
        return 0;
    size_t total = kRecordFixedSize + component.size() + kChecksumSize;
    if (items.size() > (kMaxRecordSize - total) / kItemLengthSize)
        return 0;
    for (const Item &item : items) {
        // Checked one item at a time so the sum cannot wrap.
        if (item.size > kMaxRecordSize - total - kItemLengthSize)
            return 0;
        total += kItemLengthSize + item.size;
    }
    return total;
}

void encode_record(std::span<uint8_t> out, const RecordHeader &header,
                   std::span<const Item> items) {
    uint8_t *p = out.data();
    store_be32(p, kRecordMagic);
    store_be32(p + 4, uint32_t(out.size()));
    p[8] = uint8_t(header.kind);
    p[9] = uint8_t(header.component.size());
    store_be16(p + 10, 0);
    store_be32(p + 12, header.id);
    store_be32(p + 16, header.pid);
    store_be32(p + 20, header.tid);
    store_be64(p + 24, header.seconds);
    store_be32(p + 32, header.nanoseconds);
    store_be32(p + 36, uint32_t(items.size()));
    p += kRecordFixedSize;
    std::memcpy(p, header.component.data(), header.component.size());
    p += header.component.size();
    for (const Item &item : items) {
        store_be32(p, uint32_t(item.size));
        p += kItemLengthSize;
        if (item.size != 0)
            std::memcpy(p, item.data, item.size);
        p += item.size;
    }
    size_t body = out.size() - kChecksumSize;
    store_be32(p, crc32(out.first(body)));
}

void encode_file_header(std::span<uint8_t> out) {
    store_be32(out.data(), kFileMagic);
    store_be32(out.data() + 4, kFormatVersion);
}

}  // namespace qvtr
