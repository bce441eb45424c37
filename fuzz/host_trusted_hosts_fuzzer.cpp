// Parses arbitrary text as a trusted-hosts file and as a host key file. Every
// key the trusted-hosts reader accepts must come back unchanged through the
// line that `qvsec host trust` would write for it.
#include <string_view>

#include "fuzz_support.h"
#include "host_trust.h"

QV_FUZZ_TARGET(SIZE_MAX) {
    std::string_view text(reinterpret_cast<const char *>(data), size);
    qvhost::TrustedHosts trusted;
    std::string why;
    if (qvhost::parse_trusted_hosts(text, trusted, why)) {
        for (const qvhost::TrustedKey &k : trusted.keys) {
            qvhost::TrustedHosts again;
            if (!qvhost::parse_trusted_hosts(qvhost::format_trusted_line(k), again, why) || again.keys.size() != 1 ||
                again.keys[0].host != k.host || again.keys[0].node_id != k.node_id || again.keys[0].key != k.key ||
                again.keys[0].until != k.until)
                __builtin_trap();
            if (trusted.find(k.host, qvhost::key_id_of(k.key), k.until ? *k.until : 0) == nullptr) __builtin_trap();
        }
    } else if (why.rfind("line ", 0) != 0) {
        __builtin_trap();
    }
    qvhost::HostKey key;
    if (qvhost::parse_host_key(text, key, why) && !key.loaded) __builtin_trap();
}
