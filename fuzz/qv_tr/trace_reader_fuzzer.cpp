// Arbitrary bytes as a trace file, printed raw and by name. Besides not
// crashing, the reader must find the same things whether it gets the file at
// once or in two pieces, and every record it accepts must encode back to
// exactly the bytes it came from.
#include "../fuzz_support.h"
#include "record_printer.h"
#include "trace_format.h"

namespace {

std::vector<std::string> read_events(std::span<const uint8_t> data, size_t split) {
    std::vector<std::string> lines;
    qvtr::TraceReader reader;
    auto sink = [&](const qvtr::TraceEvent &ev) {
        if (ev.kind == qvtr::TraceEvent::Kind::header) {
            lines.push_back("header at " + std::to_string(ev.offset));
            return;
        }
        lines.push_back(std::to_string(ev.offset) + " " + qvtrace::format_event(ev));
        // The library's records by name: every typed-buffer and item decoder
        // on whatever the bytes hold, with one code that has a mnemonic.
        static const qvtrace::Mnemonics names{{0x10002, "krb"}};
        lines.push_back(qvtrace::format_event(ev, &names));
        if (ev.kind != qvtr::TraceEvent::Kind::record)
            return;
        std::vector<qvtr::Item> items;
        for (auto item : ev.items)
            items.push_back({item.data(), item.size()});
        size_t size = qvtr::encoded_record_size(ev.record.component, items);
        if (size == 0 || ev.offset > data.size() || size > data.size() - ev.offset)
            std::abort();
        std::vector<uint8_t> again(size);
        qvtr::encode_record(again, ev.record, items);
        if (std::memcmp(again.data(), data.data() + ev.offset, size) != 0)
            std::abort();
    };
    std::vector<uint8_t> pending(data.begin(), data.begin() + ptrdiff_t(split));
    size_t used = reader.parse(pending, 0, split == data.size(), sink);
    pending.erase(pending.begin(), pending.begin() + ptrdiff_t(used));
    pending.insert(pending.end(), data.begin() + ptrdiff_t(split), data.end());
    if (split != data.size())
        reader.parse(pending, used, true, sink);
    return lines;
}

}  // namespace

QV_FUZZ_TARGET(SIZE_MAX) {
    std::span<const uint8_t> bytes(data, size);
    std::vector<std::string> whole = read_events(bytes, size);
    size_t split = size == 0 ? 0 : (size_t(data[0]) * 131 + size / 2) % (size + 1);
    if (read_events(bytes, split) != whole)
        std::abort();
}
