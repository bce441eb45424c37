// qvsec acl show FILE | add FILE TYPE MECH PERM [ID] | del FILE TYPE MECH [ID]
//          | check FILE MECH [NAME [GROUP...]]
//
// ACL files hold the bytes of an ACL buffer, as services store them. Edits go
// through the library's editing routines and replace the file atomically (a
// new file written beside it, then renamed over it), so an interrupted edit
// leaves the old ACL or the new one, never a mix. A damaged file is reported
// with the offset of the damage and left alone. Mechanisms are named by
// mnemonic (as configured, "none" for 0) or by number; checks use the
// library's default entry types (3 a network name, 4 a group, 1 any
// authenticated client, 2 anyone).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "acl_format.h"
#include "commands.h"
#include "errors.h"
#include "library_init.h"
#include "mpm.h"

const char *const kAclUsage =
    "usage: qvsec acl show FILE\n"
    "       qvsec acl add FILE TYPE MECH PERM [ID]\n"
    "       qvsec acl del FILE TYPE MECH [ID]\n"
    "       qvsec acl check FILE MECH [NAME [GROUP...]]\n"
    "MECH is a configured mnemonic, \"none\" or a number; PERM a number (0x... for hex).\n"
    "An ID is needed for types 3 and 4 only. check names no NAME for mechanism none.\n";

namespace {

using Bytes = std::vector<uint8_t>;

int usage_error(const char *why) {
    std::fprintf(stderr, "qvsec acl: %s\n%s", why, kAclUsage);
    return kExitUsage;
}

// Configured mechanism codes and their mnemonics; empty when the
// configuration cannot be read (numbers are shown instead).
std::map<qv_uint32_t, std::string> mnemonics() {
    std::map<qv_uint32_t, std::string> out{{0, "none"}};
    sec_init_once();
    SecMutexGuard guard(&SEC_STATE.lock);
    if (sec__read_config() == 0)
        for (sec_config_rec_t r = SEC_STATE.config.cfg_recs; r != nullptr; r = r->next) out[r->code] = r->name;
    cu_set_no_error_1();
    return out;
}

std::string mech_name(qv_uint32_t code) {
    static const std::map<qv_uint32_t, std::string> names = mnemonics();
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08x", code);
    auto it = names.find(code);
    return it != names.end() ? it->second : hex;
}

std::optional<qv_uint32_t> number(const std::string &s, qv_uint32_t max = 0xffffffffu) {
    if (s.empty() || s[0] == '-') return std::nullopt;
    errno = 0;
    char *end = nullptr;
    unsigned long v = std::strtoul(s.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > max) return std::nullopt;
    return static_cast<qv_uint32_t>(v);
}

std::optional<qv_uint32_t> mechanism(const std::string &s) {
    for (const auto &[code, name] : mnemonics())
        if (name == s) return code;
    return number(s);
}

// The offset of the first damage in an ACL and what it is, or nothing: the
// heads as the library walks them, every entry readable, the counts right.
std::optional<std::pair<size_t, const char *>> damage(const Bytes &acl) {
    if (acl.empty()) return std::nullopt;  // the empty ACL
    std::span<const uint8_t> b(acl);
    if (acl.size() < acl::kHeadLen || acl::be32(b.data()) != SEC_ACL_HEAD_MAGIC)
        return std::make_pair(size_t{0}, "not an ACL (no ACL head)");
    std::optional<std::pair<size_t, const char *>> found;
    size_t reached = acl::kHeadLen;
    bool heads = acl::walk_subacls(b, [&](const acl::SubAcl &s) {
        reached = s.head;
        size_t off = s.begin;
        int64_t n = 0;
        while (off < s.end && acl::entry_readable(b.data() + off, s.end - off)) {
            off += acl::be32(b.data() + off);
            ++n;
        }
        if (off < s.end) found = std::make_pair(off, "damaged entry");
        else if (n != s.count) found = std::make_pair(s.head, "sub-ACL count does not match its entries");
        reached = s.end;
        return !found;
    });
    if (found) return found;
    if (!heads) return std::make_pair(reached, "damaged head or offset");
    return std::nullopt;
}

bool read_acl(const std::string &path, Bytes &out, bool missing_ok) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (missing_ok && errno == ENOENT) return true;
        std::fprintf(stderr, "qvsec: %s: cannot open: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad() || out.size() > INT32_MAX) {
        std::fprintf(stderr, "qvsec: %s: cannot read, or larger than an ACL can be\n", path.c_str());
        return false;
    }
    if (auto d = damage(out)) {
        std::fprintf(stderr, "qvsec: %s: damaged ACL at offset %zu: %s\n", path.c_str(), d->first, d->second);
        return false;
    }
    return true;
}

// Writes the bytes beside path and renames them over it; the new file keeps
// the old one's permission bits (0600 for a new ACL).
bool replace_file(const std::string &path, const uint8_t *p, size_t n) {
    std::string temp = path + ".XXXXXX";
    int fd = mkstemp(temp.data());
    if (fd < 0) {
        std::fprintf(stderr, "qvsec: %s: cannot create a file beside it: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    struct stat old {};
    fchmod(fd, stat(path.c_str(), &old) == 0 ? old.st_mode & 07777 : 0600);
    bool ok = true;
    for (size_t done = 0; ok && done < n;) {
        ssize_t w = write(fd, p + done, n - done);
        if (w < 0 && errno == EINTR) continue;
        ok = w > 0;
        if (ok) done += static_cast<size_t>(w);
    }
    ok = ok && fsync(fd) == 0;
    int saved = errno;
    ok = close(fd) == 0 && ok;
    if (ok && rename(temp.c_str(), path.c_str()) == 0) return true;
    saved = errno != 0 ? errno : saved;
    unlink(temp.c_str());
    std::fprintf(stderr, "qvsec: %s: cannot write: %s\n", path.c_str(), std::strerror(saved));
    return false;
}

// An ACL holding only entry e, in a sub-ACL of its type and mechanism.
Bytes single_entry_acl(const uint8_t *e) {
    const uint32_t len = acl::entry_length(e);
    Bytes b(acl::kHeadLen + acl::kSubHeadLen);
    acl::put_be32(b.data(), SEC_ACL_HEAD_MAGIC);
    acl::put_be32(b.data() + acl::kSahStartoff, acl::kHeadLen);
    acl::put_be32(b.data() + acl::kSahVersion, SEC_ACL_VERSION);
    acl::put_be32(b.data() + acl::kSahCount, 1);
    uint8_t *h = b.data() + acl::kHeadLen;
    acl::put_be32(h, SEC_SUBACL_HEAD_MAGIC);
    acl::put_be16(h + acl::kSshType, acl::entry_type(e));
    acl::put_be32(h + acl::kSshMech, acl::entry_mech(e));
    acl::put_be32(h + acl::kSshCount, 1);
    b.insert(b.end(), e, e + len);
    return b;
}

int library_failure(const std::string &path) {
    std::fprintf(stderr, "qvsec: %s: %s\n", path.c_str(), current_error_message().c_str());
    return kExitFailed;
}

struct LibAcl {
    sec_acl_buffer_desc d{0, nullptr};
    ~LibAcl() { sec_release_acl(&d); }
};

void print_entry(const uint8_t *e) {
    std::printf("  type %u  %-10s perm 0x%08x  %s\n", acl::entry_type(e), mech_name(acl::entry_mech(e)).c_str(),
                acl::entry_perm(e), acl::entry_id(e));
}

int show(const std::string &path) {
    Bytes acl;
    if (!read_acl(path, acl, false)) return kExitFailed;
    if (acl.empty()) return kExitOk;
    acl::walk_subacls(acl, [&](const acl::SubAcl &s) {
        std::printf("sub-ACL type %u mechanism %s: %d entries\n", s.type, mech_name(s.mech).c_str(), s.count);
        acl::walk_entries(acl, s, print_entry);
        return true;
    });
    return kExitOk;
}

int edit(const Args &args, bool add) {
    const size_t fixed = add ? 4 : 3;  // FILE TYPE MECH [PERM], then ID
    if (args.size() != fixed && args.size() != fixed + 1) return usage_error("wrong number of arguments");
    auto type = number(args[1], 0xffff);
    auto mech = mechanism(args[2]);
    auto perm = add ? number(args[3]) : std::optional<qv_uint32_t>(0);
    if (!type || !mech || !perm) return usage_error("bad type, mechanism or permission bits");
    std::string id = args.size() > fixed ? args[fixed] : "";
    if (acl::type_has_id(*type) == id.empty()) return usage_error("an ID is needed for types 3 and 4, and only there");
    Bytes bytes;
    if (!read_acl(args[0], bytes, add)) return kExitFailed;
    LibAcl acl;
    sec_acle_t entry = nullptr;
    if (sec_create_acl_from_data(static_cast<qv_int32_t>(bytes.size()), bytes.data(), &acl.d) != 0 ||
        sec_create_acle(*mech, *perm, *type, id.data(), &entry) != 0)
        return library_failure(args[0]);
    qv_int32_t rc = add ? sec_add_acle_to_acl(entry, 1, &acl.d) : sec_del_acle_from_acl(entry, 1, &acl.d);
    if (rc != 0) {
        sec_release_acle(&entry);
        return library_failure(args[0]);
    }
    return replace_file(args[0], static_cast<uint8_t *>(acl.d.value), static_cast<size_t>(acl.d.length))
               ? kExitOk
               : kExitFailed;
}

// The bits granted, then every entry that grants some of them: each entry
// alone, in an ACL of its own, is put to the library's check.
int check(const Args &args) {
    if (args.size() < 2) return usage_error("wrong number of arguments");
    auto mech = mechanism(args[1]);
    if (!mech) return usage_error("bad mechanism");
    if ((*mech == 0) != (args.size() == 2)) return usage_error("a NAME is given for a mechanism other than none only");
    Bytes bytes;
    if (!read_acl(args[0], bytes, false)) return kExitFailed;
    std::vector<const char *> groups;
    for (size_t i = 3; i < args.size(); ++i) groups.push_back(args[i].c_str());
    sec_acl_client_desc client{*mech, args.size() > 2 ? args[2].c_str() : nullptr, nullptr,
                               static_cast<qv_int32_t>(groups.size()), groups.data()};
    sec_acl_buffer_desc acl{static_cast<qv_int32_t>(bytes.size()), bytes.empty() ? nullptr : bytes.data()};
    qv_uint32_t granted = 0;
    if (sec_check_acl_client(&acl, nullptr, &client, 0xffffffffu, &granted) != 0) return library_failure(args[0]);
    std::printf("granted 0x%08x\n", granted);
    if (bytes.empty()) return kExitOk;
    acl::walk_subacls(bytes, [&](const acl::SubAcl &s) {
        acl::walk_entries(bytes, s, [&](const uint8_t *e) {
            Bytes one = single_entry_acl(e);
            sec_acl_buffer_desc a{static_cast<qv_int32_t>(one.size()), one.data()};
            qv_uint32_t bits = 0;
            if (sec_check_acl_client(&a, nullptr, &client, 0xffffffffu, &bits) == 0 && bits != 0) print_entry(e);
        });
        return true;
    });
    return kExitOk;
}

}  // namespace

int run_acl(const Args &args) {
    if (args.empty()) return usage_error("no subcommand");
    const std::string &sub = args[0];
    Args rest(args.begin() + 1, args.end());
    if (sub == "show" && rest.size() == 1) return show(rest[0]);
    if (sub == "show") return usage_error("show takes one FILE");
    if (sub == "add" || sub == "del") return edit(rest, sub == "add");
    if (sub == "check") return check(rest);
    return usage_error("unknown subcommand");
}
