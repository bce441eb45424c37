// CIDB files of `qvsec cidb show`: arbitrary bytes through the tool's own
// field walker (compiled in with the subcommand's source) and through the
// library's reader. The two must agree: the tool decodes every buffer the
// library reads, with the same mechanism, flags, names and groups, and
// refuses every buffer the library finds corrupt, naming an offset inside
// the bytes. (The library stops at the first name it cannot convert from
// UTF-8, before it has looked at the rest; the tool does not convert, so
// those buffers are not compared.)
#include <clocale>

#include "../../tools/qvsec/cidb_command.cpp"
#include "../fuzz_support.h"

// The subcommand's error text comes from main.cpp, which is not built here.
std::string current_error_message() { return {}; }

QV_SEC_FUZZ_TARGET(1 << 16) {
    static const bool utf8 = setlocale(LC_ALL, "C.UTF-8") != nullptr;  // names in UTF-8 are read as they are
    (void)utf8;
    std::vector<uint8_t> bytes(data, data + size);
    Decoded d;
    Walker w(bytes);
    const bool shown = w.decode(d);
    if (!shown && w.at > size) __builtin_trap();

    sec_buffer_desc in{static_cast<qv_int32_t>(size), size != 0 ? bytes.data() : nullptr};
    qv_uint32_t mech = 0, flags = 0;
    int version = 0;
    qv_uint64_t node = 0;
    sec_privset_info_desc ps{};
    const qv_int32_t rc = sec__unwrap_cid_buff(&in, &mech, &version, &node, &flags, &ps);
    if ((rc == 0 && !shown) || (rc == SEC_S_BAD_BUFFER && shown)) __builtin_trap();
    if (rc == 0) {
        auto same = [](const std::string &a, const void *b) { return b != nullptr && a == static_cast<const char *>(b); };
        if (d.mech != mech || d.node != node || d.version != static_cast<uint8_t>(version)) __builtin_trap();
        if (mech != 0 && (d.flags != flags || !same(d.name, ps.name))) __builtin_trap();
        if (d.has_mname != (ps.mname != nullptr) || (d.has_mname && !same(d.mname, ps.mname))) __builtin_trap();
        if (d.groups.size() != static_cast<size_t>(ps.gcount)) __builtin_trap();
        for (size_t i = 0; i < d.groups.size(); ++i)
            if (!same(d.groups[i], ps.groups[i].value)) __builtin_trap();
    }
    sec__free_privset_info(&ps);
}
