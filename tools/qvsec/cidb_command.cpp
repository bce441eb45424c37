// qvsec cidb show [FILE|-]: a CIDB as an administrator reads it. The bytes
// are walked field by field with the library's bounds rules, so a corrupt
// buffer is reported at the offset of the first field that does not fit.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "byte_io.h"
#include "commands.h"
#include "config.h"
#include "mpm.h"
#include "library_init.h"

namespace {

constexpr const char *kCidbUsage = "usage: qvsec cidb show [FILE|-]\n";

struct Decoded {
    uint8_t version = 0;
    uint64_t node = 0;
    uint32_t mech = 0, flags = 0;
    std::string name, mname;
    bool has_mname = false;
    std::vector<std::string> groups;
};

// Reads the fields in order; on failure `at` is the offset of the field that
// could not be read and `why` says what was wrong with it.
class Walker {
public:
    explicit Walker(const std::vector<uint8_t> &b) : r_(b), size_(b.size()) {}

    bool decode(Decoded &d) {
        uint8_t type = 0;
        if (!mark(r_.u8(type) && type == SEC_BUF_CIDB, "not a CIDB (type byte)")) return false;
        uint32_t hi = 0, lo = 0;
        if (!mark(r_.u8(d.version), "no version")) return false;
        if (!mark(r_.remaining() >= 8 && r_.u32be(hi) && r_.u32be(lo), "node ID cut short")) return false;
        d.node = uint64_t{hi} << 32 | lo;
        if (!mark(r_.u32be(d.mech), "mechanism code cut short")) return false;
        // Every CIDB has room for the flags, even the unauthenticated form,
        // whose 18 bytes end with them unread.
        if (!mark(r_.remaining() >= 4, "flags cut short")) return false;
        if (d.mech == 0) return true;
        r_.u32be(d.flags);
        if (!mark((d.flags & SEC_CIDB_F_AUTHENTICATED) != 0, "authenticated flag missing", 4)) return false;
        std::span<const uint8_t> reserved;
        if (!mark(r_.take(4, reserved), "reserved word cut short") || !name(d.name, 2, "network name"))
            return false;
        if ((d.flags & SEC_CIDB_F_MAPPING) == 0) return true;
        uint16_t l2 = 0;
        {
            ByteReader peek = r_;
            if (!mark(peek.u16be(l2), "mapped name length missing")) return false;
        }
        if (l2 == 0) return true;  // no mapped name: the buffer ends after L2
        d.has_mname = true;
        uint32_t count = 0;
        if (!name(d.mname, 1, "mapped name") || !mark(r_.u32be(count), "group count missing")) return false;
        for (uint32_t i = 0; i < count; ++i) {
            std::string g;
            if (!name(g, 1, "group name")) return false;
            d.groups.push_back(std::move(g));
        }
        return true;
    }

    size_t at = 0;
    const char *why = "";

private:
    // Notes the offset of the field about to be read; false records why.
    bool mark(bool ok, const char *what, size_t back = 0) {
        if (ok) return true;
        at = size_ - r_.remaining() - back;
        why = what;
        return false;
    }
    // A length (at least `min`) and that many bytes ending in their only NUL.
    bool name(std::string &out, uint16_t min, const char *what) {
        const size_t field = size_ - r_.remaining();
        uint16_t len = 0;
        std::span<const uint8_t> bytes;
        ByteReader saved = r_;
        bool ok = r_.u16be(len) && len >= min && r_.take(len, bytes) && bytes.back() == 0;
        if (ok) out.assign(bytes.begin(), bytes.end() - 1);
        ok = ok && out.find('\0') == std::string::npos;
        if (!ok) {
            r_ = saved;
            at = field;
            why = what;
        }
        return ok;
    }

    ByteReader r_;
    size_t size_;
};

std::string flag_names(uint32_t flags) {
    std::string s;
    const std::pair<uint32_t, const char *> known[] = {
        {SEC_CIDB_F_AUTHENTICATED, "authenticated"},
        {SEC_CIDB_F_HOST_LOCAL, "host-local"},
        {SEC_CIDB_F_MAPPING, "mapping"},
    };
    for (auto [bit, name] : known) {
        if ((flags & bit) == 0) continue;
        s += ' ';
        s += name;
        flags &= ~bit;
    }
    if (flags != 0) {
        char rest[32];
        std::snprintf(rest, sizeof rest, " unknown(0x%08x)", flags);
        s += rest;
    }
    return s;
}

// The mnemonic the configuration gives the code, if any.
std::string mnemonic(uint32_t code) {
    if (code == 0) return "none";
    SecMutexGuard guard(&SEC_STATE.lock);
    if (sec__read_config() != 0) return "not configured";
    for (sec_config_rec_t r = SEC_STATE.config.cfg_recs; r != nullptr; r = r->next)
        if (r->code == code) return r->name;
    return "not configured";
}

void show(const Decoded &d) {
    qv_uint64_t here = 0;
    const char *whose = cu_get_node_id_1(&here) != 0 ? "this host's is unknown"
                        : here == d.node             ? "this host"
                                                     : "another host";
    std::printf("version: %u\n", d.version);
    std::printf("node ID: %016llx (%s)\n", static_cast<unsigned long long>(d.node), whose);
    std::printf("mechanism: 0x%08x (%s)\n", d.mech, mnemonic(d.mech).c_str());
    if (d.mech == 0) {
        std::printf("client: unauthenticated\n");
        return;
    }
    std::printf("flags: 0x%08x%s\n", d.flags, flag_names(d.flags).c_str());
    std::printf("network name: %s\n", d.name.c_str());
    if ((d.flags & SEC_CIDB_F_MAPPING) == 0) return;
    std::printf("mapped name: %s\n", d.has_mname ? d.mname.c_str() : "(none)");
    if (!d.has_mname) return;
    std::printf("groups (%zu):", d.groups.size());
    for (const std::string &g : d.groups) std::printf(" %s", g.c_str());
    std::printf("\n");
}

}  // namespace

int run_cidb(const Args &args) {
    if (args.empty() || args[0] != "show" || args.size() > 2) {
        std::fputs(kCidbUsage, stderr);
        return kExitUsage;
    }
    const std::string file = args.size() == 2 ? args[1] : "-";
    std::vector<uint8_t> bytes;
    if (file == "-") {
        bytes.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "qvsec: %s: cannot be read\n", file.c_str());
            return kExitFailed;
        }
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    sec_init_once();
    Decoded d;
    Walker w(bytes);
    if (!w.decode(d)) {
        std::fprintf(stderr, "qvsec: %s: corrupt CIDB at byte offset %zu: %s\n", file == "-" ? "(stdin)" : file.c_str(),
                     w.at, w.why);
        return kExitFailed;
    }
    show(d);
    return kExitOk;
}
