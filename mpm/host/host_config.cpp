// The module's configuration file: "key value" lines, '#' comments.
//
//   socket      /run/qvsec/hostd.sock     the host daemon's socket
//   trusted     /etc/qvsec/trusted-hosts  keys of the hosts whose assertions count
//   services    /etc/qvsec/host-services  who may serve which service ("service user")
//   host        node1                     this host's name (default: gethostname)
//   skew        30                        clock skew allowed, seconds
//   lifetime    120                       assertion lifetime asked for, seconds
//   timeout-ms  5000                      deadline of one daemon request
//   replay-cache-max 1000000              client assertions remembered at most
//   same-users  node2 node3               hosts whose user names are this host's
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>

#include "host_files.h"
#include "host_mech.h"

namespace qvhostmech {
namespace {

constexpr size_t kMaxConfigFile = 64 * 1024;

bool blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string_view next_field(std::string_view &line) {
    size_t start = 0;
    while (start < line.size() && blank(line[start])) ++start;
    size_t end = start;
    while (end < line.size() && !blank(line[end])) ++end;
    std::string_view field = line.substr(start, end - start);
    line.remove_prefix(end);
    return field;
}

template <typename T>
bool number(std::string_view text, T low, T high, T &out) {
    T v{};
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size() || v < low || v > high) return false;
    out = v;
    return true;
}

// A value that is a path: absolute, so that it does not depend on where the
// program happens to run.
bool path_value(std::string_view v, std::string &out) {
    if (v.empty() || v[0] != '/' || v.size() > PATH_MAX) return false;
    out.assign(v);
    return true;
}

bool apply(std::string_view key, std::string_view line, HostConfig &c, std::string &what) {
    std::string_view v = next_field(line);
    if (key == "same-users") {
        for (; !v.empty(); v = next_field(line)) {
            if (!qvhost::valid_host_name(v)) return (what = "not a host name: " + std::string(v)), false;
            c.same_users.emplace_back(v);
        }
        return true;
    }
    if (v.empty() || !next_field(line).empty()) return (what = "expected one value after " + std::string(key)), false;
    bool ok;
    if (key == "socket")
        ok = path_value(v, c.socket);
    else if (key == "trusted")
        ok = path_value(v, c.trusted);
    else if (key == "services")
        ok = path_value(v, c.services);
    else if (key == "host")
        ok = qvhost::valid_host_name(v) && (c.host.assign(v), true);
    else if (key == "skew")
        ok = number<std::int64_t>(v, 0, 3600, c.skew);
    else if (key == "lifetime")
        ok = number<std::uint32_t>(v, 1, 86400, c.lifetime);
    else if (key == "timeout-ms")
        ok = number<std::uint32_t>(v, 1, 600000, c.timeout_ms);
    else if (key == "replay-cache-max")
        ok = number<std::size_t>(v, 1, std::size_t{1} << 32, c.replay_cache_max);
    else
        return (what = "unknown key " + std::string(key)), false;
    if (!ok) what = "bad value for " + std::string(key);
    return ok;
}

}  // namespace

bool parse_host_config(std::string_view text, HostConfig &out, std::string &why) {
    HostConfig c;
    for (size_t n = 1; !text.empty(); ++n) {
        size_t eol = text.find('\n');
        std::string_view line = text.substr(0, eol);
        text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
        if (line.find('\0') != std::string_view::npos) return (why = "line " + std::to_string(n) + ": NUL byte"), false;
        std::string_view key = next_field(line);
        if (key.empty() || key[0] == '#') continue;
        std::string what;
        if (!apply(key, line, c, what)) return (why = "line " + std::to_string(n) + ": " + what), false;
    }
    out = std::move(c);
    return true;
}

bool load_host_config(HostConfig &out, std::string &why, int *code) {
    const char *env = secure_getenv("QVSEC_HOST_CONF");
    const bool chosen = env != nullptr && env[0] != '\0';
    const std::string path = chosen ? env : kDefaultConfigFile;
    *code = 0;
    struct stat st {};
    // Without the default file the module runs with the defaults; a file
    // named in the environment must be there.
    if (!chosen && lstat(path.c_str(), &st) != 0 && errno == ENOENT) {
        out = HostConfig{};
        return true;
    }
    std::string text;
    if (!qvhost::read_checked_file(path, kMaxConfigFile, S_IWGRP | S_IWOTH, "module configuration", text, why)) {
        *code = EACCES;
        return false;
    }
    if (!parse_host_config(text, out, why)) {
        why = path + ": " + why;
        *code = EINVAL;
        return false;
    }
    return true;
}

const std::string &config_host(const HostConfig &c) { return c.host.empty() ? host_name() : c.host; }

}  // namespace qvhostmech
