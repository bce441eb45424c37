// The library's records by name: the record table the library writes from
// (trace_records.def) read back, each item shown by its layout type.
#include <cinttypes>
#include <cstdio>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "record_printer.h"
#include "trace.h"

namespace qvtrace {
namespace {

struct Field {
    std::string_view name;
    char type;
};

struct RecordName {
    std::string_view routine;  // empty for records that are not a routine's
    std::string_view title;
    std::vector<Field> fields;
};

std::vector<Field> parse_layout(std::string_view layout) {
    std::vector<Field> fields;
    while (!layout.empty()) {
        size_t end = layout.find(' ');
        std::string_view word = layout.substr(0, end);
        layout.remove_prefix(end == std::string_view::npos ? layout.size() : end + 1);
        if (word.empty())
            continue;
        size_t colon = word.find(':');
        if (colon == std::string_view::npos)
            fields.push_back({word, 'p'});
        else
            fields.push_back({word.substr(0, colon), colon + 1 < word.size() ? word[colon + 1] : 'p'});
    }
    return fields;
}

const std::map<uint32_t, RecordName> &record_table() {
    static const std::map<uint32_t, RecordName> table = [] {
        std::map<uint32_t, RecordName> t;
        // emplace keeps the first row for an id: where a routine's two exit
        // forms share one id, the first (return code only) is what it writes.
        auto api = [&](std::string_view routine, std::initializer_list<uint32_t> ids, std::string_view args) {
            const std::string_view layouts[] = {"", args, "", "rc:r", "rc:r maj:u min:u mech:m desc:s"};
            size_t i = 0;
            for (uint32_t id : ids) {
                t.emplace(id, RecordName{routine, i < 2 ? "entry" : "exit", parse_layout(layouts[i])});
                ++i;
            }
        };
#define QV_TRACE_RECORD(symbol, id, category, title, layout) t.emplace(id, RecordName{"", title, parse_layout(layout)});
#define QV_TRACE_API(symbol, routine, entry, entry_data, exit, exit_rc, exit_status, arguments) \
    api(routine, {entry, entry_data, exit, exit_rc, exit_status}, arguments);
#include "trace_records.def"
#undef QV_TRACE_API
#undef QV_TRACE_RECORD
        return t;
    }();
    return table;
}

// The library writes numbers in its own (x86-64, little-endian) byte order.
uint64_t load_le(std::span<const uint8_t> b) {
    uint64_t v = 0;
    for (size_t i = b.size(); i-- > 0;)
        v = v << 8 | b[i];
    return v;
}

std::string hex32(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08" PRIx32, v);
    return text;
}

const char *return_code_word(int32_t rc) {
    switch (rc) {
    case SEC_S_OK: return "ok";
    case SEC_S_CONTINUE: return "continue";
    case SEC_S_UNAUTHENTICATED: return "complete, unauthenticated";
    case SEC_S_MPM_FAILURE: return "module failure, see the status";
    case SEC_S_BAD_ARGUMENT: return "bad argument";
    case SEC_S_BAD_TOKEN: return "bad token";
    case SEC_S_NO_MEMORY: return "no memory";
    case SEC_S_BAD_BUFFER: return "bad buffer";
    case SEC_S_BAD_MECHANISM: return "bad or unknown mechanism";
    case SEC_S_BAD_VERSION: return "bad version";
    case SEC_S_SOCKET: return "socket";
    case SEC_S_AUTH_ERROR: return "authentication error";
    case SEC_S_NO_ACL_ENTRIES: return "no ACL entries";
    case SEC_S_CONFIG: return "configuration";
    case SEC_S_BAD_MPM: return "unusable module";
    case SEC_S_INTERNAL: return "internal error";
    case SEC_S_MPM_NO_SIGNATURE: return "no signature";
    case SEC_S_CODESET: return "code-set conversion";
    case SEC_S_NOT_DES_KEY: return "not a DES key";
    case SEC_S_MSG_VERIFY_FAILED: return "message verification failed";
    case SEC_S_CRYPTO_FAILURE: return "cryptographic failure";
    case SEC_S_AMBIGUOUS_CIDB: return "ambiguous CIDB";
    case SEC_S_BAD_SIGNATURE: return "bad signature";
    case SEC_S_USER_NOT_VALID: return "user not valid";
    case SEC_S_NO_PRIVSET: return "no privilege set";
    default: return nullptr;
    }
}

const char *buffer_type_name(uint8_t type) {
    switch (type) {
    case SEC_BUF_MECH_LIST: return "mechanism list";
    case SEC_BUF_CCDB: return "CCDB";
    case SEC_BUF_TYPED_ID: return "typed identity buffer";
    case SEC_BUF_SEAL: return "seal buffer";
    case SEC_BUF_CIDB: return "CIDB";
    default: return nullptr;
    }
}

std::string mechanism(uint32_t code, const Mnemonics &names) {
    if (code == 0)
        return "none";
    auto known = names.find(code);
    if (known == names.end())
        return hex32(code);
    std::string out;
    append_escaped(out, {reinterpret_cast<const uint8_t *>(known->second.data()), known->second.size()}, false);
    return out + "(" + hex32(code) + ")";
}

// Whether an item has the size its layout type promises.
bool item_fits(char type, qvtr::PayloadKind kind, std::span<const uint8_t> item) {
    if (kind == qvtr::PayloadKind::strings)
        return type == 's';
    size_t size = sec_trace_item_size(type);
    return size == 0 || item.size() == size;
}

void append_value(std::string &out, char type, std::span<const uint8_t> item, const Mnemonics &names) {
    uint64_t v = type == 's' || type == 'b' ? 0 : load_le(item);
    char text[32];
    switch (type) {
    case 's': append_string(out, item); return;
    case 'b': out += describe_typed_buffer(item, names); return;
    case 'm': out += mechanism(uint32_t(v), names); return;
    case 'x': std::snprintf(text, sizeof text, "0x%" PRIx32, uint32_t(v)); break;
    case 'u': std::snprintf(text, sizeof text, "%" PRIu32, uint32_t(v)); break;
    case 'd': std::snprintf(text, sizeof text, "%" PRId32, int32_t(uint32_t(v))); break;
    case 't': std::snprintf(text, sizeof text, "%" PRId64, int64_t(v)); break;
    case 'w': {
        const char *name = buffer_type_name(item[0]);
        out += name != nullptr ? std::string("\"") + name + "\"" : "type " + std::to_string(item[0]);
        out += " v" + std::to_string(item[1]);
        return;
    }
    case 'r': {
        const char *word = return_code_word(int32_t(uint32_t(v)));
        out += std::to_string(int32_t(uint32_t(v)));
        if (word != nullptr)
            out += std::string(" (") + word + ")";
        return;
    }
    default:
        if (v == 0) {
            out += "NULL";
            return;
        }
        std::snprintf(text, sizeof text, "0x%" PRIx64, v);
        break;
    }
    out += text;
}

}  // namespace

std::string describe_typed_buffer(std::span<const uint8_t> b, const Mnemonics &names) {
    if (b.empty())
        return "(empty)";
    const char *type = buffer_type_name(b[0]);
    if (type == nullptr)
        return "untyped, " + std::to_string(b.size()) + " bytes";
    // Header sizes: the list's type and version, the others' mechanism code
    // too, a version-2 CCDB's sequence and flags, a CIDB's node id (and the
    // flags that follow its mechanism code).
    size_t header = b[0] == SEC_BUF_MECH_LIST ? 2 : b[0] == SEC_BUF_CIDB ? 14 : 6;
    if (b[0] == SEC_BUF_CCDB && b.size() >= 2 && b[1] == 2)
        header = 8;
    std::string out = std::string("\"") + type + "\"";
    if (b.size() < header)
        return out + " cut short at " + std::to_string(b.size()) + " bytes";
    out += " v" + std::to_string(b[1]);
    if (b[0] == SEC_BUF_MECH_LIST) {
        out += " mechanisms=";
        size_t n = (b.size() - 2) / 4;
        for (size_t i = 0; i < n; ++i)
            out += (i ? "," : "") + mechanism(qvtr::load_be32(&b[2 + 4 * i]), names);
        if (n == 0)
            out += "(none)";
        if ((b.size() - 2) % 4 != 0)
            out += " stray=" + std::to_string((b.size() - 2) % 4);
        return out;
    }
    if (b[0] == SEC_BUF_CIDB) {
        char node[32];
        std::snprintf(node, sizeof node, "0x%016" PRIx64, qvtr::load_be64(&b[2]));
        uint32_t mech = qvtr::load_be32(&b[10]);
        out += std::string(" node=") + node + " mech=" + mechanism(mech, names);
        if (mech != 0 && b.size() >= 18)
            out += " flags=" + hex32(qvtr::load_be32(&b[14]));
        return out + " length=" + std::to_string(b.size());
    }
    out += " mech=" + mechanism(qvtr::load_be32(&b[2]), names);
    if (header == 8) {
        char seq[40];
        std::snprintf(seq, sizeof seq, " seq=%u flags=0x%02x", b[6], b[7]);
        out += seq;
    }
    return out + " body=" + std::to_string(b.size() - header);
}

bool append_named_record(std::string &out, const qvtr::TraceEvent &event, const Mnemonics &names) {
    const qvtr::RecordHeader &r = event.record;
    if (r.component != kTraceComponent)
        return false;
    auto row = record_table().find(r.id);
    if (row == record_table().end() || row->second.fields.size() != event.items.size())
        return false;
    const RecordName &rec = row->second;
    for (size_t i = 0; i < rec.fields.size(); ++i)
        if (!item_fits(rec.fields[i].type, r.kind, event.items[i]))
            return false;
    std::string line;
    size_t first = 0;
    // The records written by the common routine-end helper name their
    // routine in their first item.
    if (rec.routine.empty() && !rec.fields.empty() && rec.fields[0].name == "routine") {
        std::span<const uint8_t> routine = event.items[0];
        if (routine.empty()) {
            line += " (null)";
        } else {
            line += ' ';
            append_escaped(line, routine.first(routine.size() - (routine.back() == 0 ? 1 : 0)), false);
        }
        first = 1;
    } else if (!rec.routine.empty()) {
        line += ' ';
        line += rec.routine;
    }
    line += ' ';
    line += rec.title;
    for (size_t i = first; i < rec.fields.size(); ++i) {
        line += ' ';
        line += rec.fields[i].name;
        line += '=';
        append_value(line, rec.fields[i].type, event.items[i], names);
    }
    out += line;
    return true;
}

}  // namespace qvtrace
