// The trusted-hosts file: which public keys may sign assertions for which
// host name, and until when (the end of a rotation overlap).
#include <sys/stat.h>

#include <sodium.h>

#include <cstdio>
#include <ctime>
#include <map>

#include "host_files.h"
#include "host_trust.h"

namespace qvhost {
namespace {

constexpr std::size_t kMaxTrustedFile = 1 << 20;
constexpr std::size_t kMaxHostName = 253;
constexpr std::string_view kUntilPrefix = "until=";
// Far enough for any key's life, small enough that no arithmetic on it overflows.
constexpr std::int64_t kMaxUnixTime = 253402300799;  // 9999-12-31T23:59:59Z

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Splits a line into blank-separated fields; a field starting with '#' ends it.
// At most five fields are kept, so that one too many is still seen.
std::size_t split_fields(std::string_view line, std::array<std::string_view, 5> &fields) {
    std::size_t n = 0, i = 0;
    while (n < fields.size()) {
        while (i < line.size() && is_blank(line[i])) ++i;
        if (i == line.size() || line[i] == '#') break;
        std::size_t start = i;
        while (i < line.size() && !is_blank(line[i])) ++i;
        fields[n++] = line.substr(start, i - start);
    }
    return n;
}

bool parse_node_id(std::string_view text, std::uint64_t &id) {
    std::array<std::uint8_t, 8> bytes{};
    if (!from_hex(text, bytes)) return false;
    id = 0;
    for (std::uint8_t b : bytes) id = id << 8 | b;
    return true;
}

// Days since 1970-01-01 of a proleptic Gregorian date.
std::int64_t days_from_civil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

bool digits(std::string_view text, std::size_t from, std::size_t count, unsigned &value) {
    value = 0;
    for (std::size_t i = from; i < from + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + static_cast<unsigned>(text[i] - '0');
    }
    return true;
}

// YYYY-MM-DDTHH:MM:SSZ (UTC), or plain UNIX seconds.
bool parse_time(std::string_view text, std::int64_t &t) {
    if (text.empty()) return false;
    if (text.size() <= 12 && text.find_first_not_of("0123456789") == std::string_view::npos) {
        t = 0;
        for (char c : text) t = t * 10 + (c - '0');
        return t <= kMaxUnixTime;
    }
    unsigned y, mo, d, h, mi, s;
    if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
        text[16] != ':' || text[19] != 'Z' || !digits(text, 0, 4, y) || !digits(text, 5, 2, mo) ||
        !digits(text, 8, 2, d) || !digits(text, 11, 2, h) || !digits(text, 14, 2, mi) ||
        !digits(text, 17, 2, s))
        return false;
    static const unsigned month_days[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    if (y < 1970 || mo < 1 || mo > 12 || d < 1 || d > month_days[mo - 1] || (mo == 2 && d == 29 && !leap) ||
        h > 23 || mi > 59 || s > 59)
        return false;
    t = days_from_civil(y, mo, d) * 86400 + h * 3600 + mi * 60 + s;
    return true;
}

std::string format_time(std::int64_t t) {
    std::time_t tt = static_cast<std::time_t>(t);
    std::tm tm{};
    char buf[32];
    if (gmtime_r(&tt, &tm) == nullptr || std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0)
        return std::to_string(t);
    return buf;
}

bool line_error(std::string &why, std::size_t line_no, const std::string &text) {
    why = "line " + std::to_string(line_no) + ": " + text;
    return false;
}

}  // namespace

bool valid_host_name(std::string_view name) {
    if (name.empty() || name.size() > kMaxHostName) return false;
    for (char c : name) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                  c == '.' || c == '_';
        if (!ok) return false;
    }
    return true;
}

const TrustedKey *TrustedHosts::find(std::string_view host, const KeyId &id, std::int64_t now) const {
    for (const TrustedKey &k : keys) {
        if (k.host != host || (k.until && now > *k.until)) continue;
        if (key_id_of(k.key) == id) return &k;
    }
    return nullptr;
}

bool TrustedHosts::knows_host(std::string_view host) const {
    for (const TrustedKey &k : keys)
        if (k.host == host) return true;
    return false;
}

bool parse_trusted_hosts(std::string_view text, TrustedHosts &out, std::string &why) {
    TrustedHosts parsed;
    // Where each key was first listed: a key belongs to one host, once.
    std::map<PublicKey, std::size_t> seen;
    std::size_t pos = 0, line_no = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;
        ++line_no;
        std::array<std::string_view, 5> f;
        std::size_t n = split_fields(line, f);
        if (n == 0) continue;
        if (n < 3 || n > 4) return line_error(why, line_no, "expected HOST NODE-ID PUBLIC-KEY [until=TIME]");
        TrustedKey k;
        if (!valid_host_name(f[0]))
            return line_error(why, line_no, "bad host name (letters, digits, '-', '.', '_'; at most 253)");
        k.host.assign(f[0]);
        if (!parse_node_id(f[1], k.node_id)) return line_error(why, line_no, "node ID must be 16 hex digits");
        if (!from_hex(f[2], k.key)) return line_error(why, line_no, "public key must be 64 hex digits");
        if (crypto_core_ed25519_is_valid_point(k.key.data()) != 1)
            return line_error(why, line_no, "not a usable Ed25519 public key");
        if (n == 4) {
            std::int64_t until = 0;
            if (f[3].substr(0, kUntilPrefix.size()) != kUntilPrefix ||
                !parse_time(f[3].substr(kUntilPrefix.size()), until))
                return line_error(why, line_no, "expected until=YYYY-MM-DDTHH:MM:SSZ or until=UNIX-SECONDS");
            k.until = until;
        }
        auto [it, fresh] = seen.emplace(k.key, line_no);
        if (!fresh) return line_error(why, line_no, "key already listed on line " + std::to_string(it->second));
        parsed.keys.push_back(std::move(k));
    }
    out = std::move(parsed);
    return true;
}

bool read_trusted_hosts(const std::string &path, TrustedHosts &out, std::string &why) {
    std::string text;
    // Whoever may write the file decides whom this host believes.
    if (!read_checked_file(path, kMaxTrustedFile, S_IWGRP | S_IWOTH, "trusted-hosts file", text, why))
        return false;
    if (!parse_trusted_hosts(text, out, why)) {
        why = path + ": " + why;
        return false;
    }
    return true;
}

std::string format_trusted_line(const TrustedKey &key) {
    char node[17];
    std::snprintf(node, sizeof node, "%016llx", static_cast<unsigned long long>(key.node_id));
    std::string line = key.host + " " + node + " " + to_hex(key.key);
    if (key.until) line += " until=" + format_time(*key.until);
    return line;
}

}  // namespace qvhost
