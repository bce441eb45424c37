// Exported routines that write records. With no trace file configured they
// return before looking at their payload.
#include <array>
#include <cstdarg>
#include <cstring>
#include <string_view>
#include <vector>

#include "error_guard.h"
#include "internal.h"

using qvtr::Item;
using qvtr::PayloadKind;
using qvtr::guarded_call;

namespace {

// Payload items: a few on the stack, more on the heap.
class ItemList {
public:
    explicit ItemList(size_t n) : size_(n) {
        if (n > inline_.size())
            heap_.resize(n);
    }
    Item &operator[](size_t i) { return heap_.empty() ? inline_[i] : heap_[i]; }
    std::span<const Item> view() const {
        return heap_.empty() ? std::span<const Item>(inline_).first(size_)
                             : std::span<const Item>(heap_);
    }

private:
    size_t size_;
    std::array<Item, 16> inline_{};
    std::vector<Item> heap_;
};

// Each item takes at least its 4-byte length in a record of at most 16 MiB.
bool plausible_count(qv_uint32_t n) {
    return n <= qvtr::kMaxRecordSize / qvtr::kItemLengthSize;
}

// Ends a va_list on every way out, cancellation's unwind included.
class VaListEnd {
public:
    explicit VaListEnd(va_list &ap) : ap_(ap) {}
    ~VaListEnd() { va_end(ap_); }
    VaListEnd(const VaListEnd &) = delete;
    VaListEnd &operator=(const VaListEnd &) = delete;

private:
    va_list &ap_;
};

// Collects n items with next_item (false: a bad item; the record is not
// written) and writes them as one record. Does nothing without a trace file.
template <typename NextItem>
int record_items(const char *comp, qv_uint32_t id, PayloadKind kind, qv_uint32_t n,
                 NextItem next_item) {
    return guarded_call([&] {
        qvtr::TraceFile *file = qvtr::process_trace_file();
        if (file == nullptr)
            return TR_OK;
        ItemList items(n);
        bool valid = true;
        for (qv_uint32_t i = 0; i < n; ++i)
            valid = next_item(items[i]) && valid;
        return valid ? file->write_record(comp, id, kind, items.view()) : TR_E_ARGUMENT;
    });
}

}  // namespace

extern "C" int tr_record_id_1(const char *comp, qv_uint32_t id) {
    if (comp == nullptr)
        return TR_E_ARGUMENT;
    return guarded_call([&] {
        qvtr::TraceFile *file = qvtr::process_trace_file();
        return file ? file->write_record(comp, id, PayloadKind::none, {}) : TR_OK;
    });
}

extern "C" int tr_record_data_1(const char *comp, qv_uint32_t id, qv_uint32_t npairs, ...) {
    if (comp == nullptr || !plausible_count(npairs))
        return TR_E_ARGUMENT;
    va_list ap;
    va_start(ap, npairs);
    VaListEnd end(ap);
    return record_items(comp, id, PayloadKind::data, npairs, [&](Item &item) {
        const void *data = va_arg(ap, const void *);
        size_t size = va_arg(ap, size_t);
        item = {static_cast<const uint8_t *>(data), size};
        return data != nullptr || size == 0;
    });
}

extern "C" int tr_record_strings_1(const char *comp, qv_uint32_t id, qv_uint32_t nstrings, ...) {
    if (comp == nullptr || !plausible_count(nstrings))
        return TR_E_ARGUMENT;
    va_list ap;
    va_start(ap, nstrings);
    VaListEnd end(ap);
    return record_items(comp, id, PayloadKind::strings, nstrings, [&](Item &item) {
        const char *s = va_arg(ap, const char *);
        item = s ? Item{reinterpret_cast<const uint8_t *>(s), std::strlen(s) + 1} : Item{nullptr, 0};
        return true;
    });
}
