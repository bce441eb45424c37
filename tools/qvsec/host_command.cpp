// qvsec host keygen | show | trust | revoke: the host key of the host daemon
// and the trusted-hosts file of the "host" mechanism (mpm/host/README.md).
#include <sys/stat.h>
#include <unistd.h>

#include <sodium.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "host_files.h"
#include "host_trust.h"
#include "qv_cu.h"

const char *const kHostUsage =
    "usage: qvsec host keygen [--out FILE] [--force]\n"
    "       qvsec host show [--key FILE]\n"
    "       qvsec host trust HOST NODEID KEY [--until TIME] [--file FILE]\n"
    "       qvsec host revoke HOST (KEY|--all) [--file FILE]\n"
    "Defaults: the key /etc/qvsec/host.key, the trusted-hosts file /etc/qvsec/trusted-hosts.\n"
    "NODEID is 16 hex digits, KEY 64 hex digits, TIME YYYY-MM-DDTHH:MM:SSZ or UNIX seconds.\n";

namespace {

constexpr const char *kDefaultKey = "/etc/qvsec/host.key";
constexpr const char *kDefaultTrusted = "/etc/qvsec/trusted-hosts";
constexpr std::size_t kMaxTrustedFile = 1 << 20;

int failed(const std::string &text) {
    std::fprintf(stderr, "qvsec host: %s\n", text.c_str());
    return kExitFailed;
}

int usage_error() {
    std::fputs(kHostUsage, stderr);
    return kExitUsage;
}

// Splits positional arguments from "--name value" options (and flags, which
// take no value); false on an unknown option or a missing value.
bool split_args(const Args &args, std::size_t from, const std::vector<std::string> &with_value,
                const std::vector<std::string> &flags, std::vector<std::string> &positional,
                std::vector<std::pair<std::string, std::string>> &options) {
    for (std::size_t i = from; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a.rfind("--", 0) != 0) {
            positional.push_back(a);
        } else if (std::find(flags.begin(), flags.end(), a) != flags.end()) {
            options.emplace_back(a, "");
        } else if (std::find(with_value.begin(), with_value.end(), a) != with_value.end() && i + 1 < args.size()) {
            options.emplace_back(a, args[++i]);
        } else {
            return false;
        }
    }
    return true;
}

std::string option(const std::vector<std::pair<std::string, std::string>> &options, const std::string &name,
                    const std::string &fallback, bool *present = nullptr) {
    for (const auto &[k, v] : options)
        if (k == name) {
            if (present != nullptr) *present = true;
            return v;
        }
    if (present != nullptr) *present = false;
    return fallback;
}

std::string node_id_text() {
    qv_uint64_t id = 0;
    if (cu_get_node_id_1(&id) != 0) return "";
    char buf[17];
    std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(id));
    return buf;
}

std::string this_host() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return "";
    return name;
}

void print_key(const qvhost::HostKey &key) {
    std::string host = this_host(), node = node_id_text();
    std::printf("host:       %s\nnode ID:    %s\nkey id:     %s\npublic key: %s\n", host.c_str(),
                node.empty() ? "(unknown)" : node.c_str(), qvhost::to_hex(qvhost::key_id_of(key.public_key)).c_str(),
                qvhost::to_hex(key.public_key).c_str());
    if (qvhost::valid_host_name(host) && !node.empty())
        std::printf("trusted-hosts line for other hosts:\n%s %s %s\n", host.c_str(), node.c_str(),
                    qvhost::to_hex(key.public_key).c_str());
}

int keygen(const Args &args) {
    std::vector<std::string> pos;
    std::vector<std::pair<std::string, std::string>> opts;
    if (!split_args(args, 1, {"--out"}, {"--force"}, pos, opts) || !pos.empty()) return usage_error();
    bool force = false;
    option(opts, "--force", "", &force);
    std::string path = option(opts, "--out", kDefaultKey);
    struct stat st {};
    // Replacing a host key by mistake cuts the host off from every other host.
    if (!force && ::lstat(path.c_str(), &st) == 0)
        return failed(path + " exists; remove it or add --force to replace the host key");
    if (!qvhost::crypto_ready()) return failed("the cryptographic library cannot start");
    qvhost::HostKey key;
    qvhost::generate_host_key(key);
    std::string text = qvhost::encode_host_key(key), why;
    bool ok = qvhost::write_file_atomically(path, text, 0600, why);
    sodium_memzero(text.data(), text.size());
    if (!ok) return failed(why);
    std::printf("wrote %s\n", path.c_str());
    print_key(key);
    return kExitOk;
}

int show(const Args &args) {
    std::vector<std::string> pos;
    std::vector<std::pair<std::string, std::string>> opts;
    if (!split_args(args, 1, {"--key"}, {}, pos, opts) || !pos.empty()) return usage_error();
    qvhost::HostKey key;
    std::string why;
    if (!qvhost::read_host_key(option(opts, "--key", kDefaultKey), key, why)) return failed(why);
    print_key(key);
    return kExitOk;
}

// The lines of the trusted-hosts file (empty when it does not exist yet),
// read with the same permission checks as the daemon and the module apply.
bool read_lines(const std::string &path, std::vector<std::string> &lines, mode_t &mode, std::string &why) {
    struct stat st {};
    mode = 0644;
    if (::lstat(path.c_str(), &st) != 0 && errno == ENOENT) return true;
    std::string text;
    if (!qvhost::read_checked_file(path, kMaxTrustedFile, S_IWGRP | S_IWOTH, "trusted-hosts file", text, why))
        return false;
    mode = st.st_mode & 0644;
    qvhost::TrustedHosts parsed;
    if (!qvhost::parse_trusted_hosts(text, parsed, why)) {
        why = path + ": " + why;
        return false;
    }
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(pos, end - pos));
        pos = end + 1;
    }
    return true;
}

// The key of a line, when the line lists one.
const qvhost::TrustedKey *key_of_line(const std::string &line, qvhost::TrustedHosts &holder) {
    std::string why;
    holder.keys.clear();
    if (!qvhost::parse_trusted_hosts(line, holder, why) || holder.keys.empty()) return nullptr;
    return &holder.keys[0];
}

int write_lines(const std::string &path, const std::vector<std::string> &lines, mode_t mode) {
    std::string text;
    for (const std::string &l : lines) text += l + "\n";
    qvhost::TrustedHosts check;
    std::string why;
    // The file written must read back as a valid whole.
    if (!qvhost::parse_trusted_hosts(text, check, why)) return failed(path + " would become invalid: " + why);
    if (!qvhost::write_file_atomically(path, text, mode, why)) return failed(why);
    return kExitOk;
}

int trust(const Args &args) {
    std::vector<std::string> pos;
    std::vector<std::pair<std::string, std::string>> opts;
    if (!split_args(args, 1, {"--until", "--file"}, {}, pos, opts) || pos.size() != 3) return usage_error();
    bool has_until = false;
    std::string until = option(opts, "--until", "", &has_until);
    std::string line = pos[0] + " " + pos[1] + " " + pos[2] + (has_until ? " until=" + until : "");
    qvhost::TrustedHosts one;
    std::string why;
    if (!qvhost::parse_trusted_hosts(line, one, why) || one.keys.size() != 1)
        return failed("bad entry: " + (why.rfind("line 1: ", 0) == 0 ? why.substr(8) : why));
    const qvhost::TrustedKey &entry = one.keys[0];
    std::string path = option(opts, "--file", kDefaultTrusted);
    std::vector<std::string> lines;
    mode_t mode;
    if (!read_lines(path, lines, mode, why)) return failed(why);
    std::string formatted = qvhost::format_trusted_line(entry);
    bool replaced = false;
    qvhost::TrustedHosts holder;
    for (std::string &l : lines) {
        const qvhost::TrustedKey *k = key_of_line(l, holder);
        if (k == nullptr || k->key != entry.key) continue;
        if (k->host != entry.host) return failed("this key is already trusted for host " + k->host);
        l = formatted;
        replaced = true;
    }
    if (!replaced) lines.push_back(formatted);
    if (int rc = write_lines(path, lines, mode); rc != kExitOk) return rc;
    std::printf("%s %s\n", replaced ? "updated" : "added", formatted.c_str());
    return kExitOk;
}

int revoke(const Args &args) {
    std::vector<std::string> pos;
    std::vector<std::pair<std::string, std::string>> opts;
    if (!split_args(args, 1, {"--file"}, {"--all"}, pos, opts)) return usage_error();
    bool all = false;
    option(opts, "--all", "", &all);
    if (pos.size() != (all ? 1u : 2u)) return usage_error();
    qvhost::PublicKey key{};
    if (!all && !qvhost::from_hex(pos[1], key)) return failed("KEY must be 64 hex digits");
    std::string path = option(opts, "--file", kDefaultTrusted), why;
    std::vector<std::string> lines, kept;
    mode_t mode;
    if (!read_lines(path, lines, mode, why)) return failed(why);
    qvhost::TrustedHosts holder;
    std::size_t removed = 0;
    for (const std::string &l : lines) {
        const qvhost::TrustedKey *k = key_of_line(l, holder);
        if (k != nullptr && k->host == pos[0] && (all || k->key == key)) {
            ++removed;
            continue;
        }
        kept.push_back(l);
    }
    if (removed == 0) return failed("no matching key of host " + pos[0] + " in " + path);
    if (int rc = write_lines(path, kept, mode); rc != kExitOk) return rc;
    std::printf("removed %zu key%s of %s\n", removed, removed == 1 ? "" : "s", pos[0].c_str());
    return kExitOk;
}

}  // namespace

int run_host(const Args &args) {
    if (args.empty()) return usage_error();
    if (args[0] == "keygen") return keygen(args);
    if (args[0] == "show") return show(args);
    if (args[0] == "trust") return trust(args);
    if (args[0] == "revoke") return revoke(args);
    return usage_error();
}
