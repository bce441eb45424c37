// Host keys: generation, the key file, key ids and hex.
#include <sys/stat.h>

#include <sodium.h>

#include <cstring>

#include "host_files.h"
#include "host_trust.h"

namespace qvhost {
namespace {

constexpr std::size_t kSeedBytes = crypto_sign_SEEDBYTES;
constexpr std::size_t kMaxKeyFile = 4096;
constexpr std::string_view kKeyFileHeader = "qvsec-host-key 1";

static_assert(kSecretKeyBytes == crypto_sign_SECRETKEYBYTES);
static_assert(kPublicKeyBytes == crypto_sign_PUBLICKEYBYTES);

// The next line of `text` from `pos`, without its newline; trailing blanks
// and carriage return dropped.
std::string_view next_line(std::string_view text, std::size_t &pos) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    pos = end < text.size() ? end + 1 : end;
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r'))
        line.remove_suffix(1);
    return line;
}

// "name value": the value, when the line starts with the name and a blank.
bool field(std::string_view line, std::string_view name, std::string_view &value) {
    if (line.size() <= name.size() || line.substr(0, name.size()) != name || line[name.size()] != ' ')
        return false;
    value = line.substr(name.size() + 1);
    return true;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

HostKey::~HostKey() { sodium_memzero(secret.data(), secret.size()); }

std::string to_hex(std::span<const std::uint8_t> bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(bytes.size() * 2);
    for (std::uint8_t b : bytes) {
        s.push_back(digits[b >> 4]);
        s.push_back(digits[b & 15]);
    }
    return s;
}

bool from_hex(std::string_view text, std::span<std::uint8_t> out) {
    if (text.size() != out.size() * 2) return false;
    for (std::size_t i = 0; i < out.size(); ++i) {
        int hi = hex_digit(text[2 * i]), lo = hex_digit(text[2 * i + 1]);
        if (hi < 0 || lo < 0) return false;
        out[i] = static_cast<std::uint8_t>(hi << 4 | lo);
    }
    return true;
}

KeyId key_id_of(const PublicKey &key) {
    std::array<std::uint8_t, 32> digest{};
    crypto_generichash(digest.data(), digest.size(), key.data(), key.size(), nullptr, 0);
    KeyId id{};
    std::memcpy(id.data(), digest.data(), id.size());
    return id;
}

void generate_host_key(HostKey &out) {
    crypto_ready();
    crypto_sign_keypair(out.public_key.data(), out.secret.data());
    out.loaded = true;
}

std::string encode_host_key(const HostKey &key) {
    // The seed is the first half of libsodium's secret key.
    std::string text = "# Host signing key of qvsec-hostd. Keep it readable by the daemon's user only.\n";
    text += kKeyFileHeader;
    text += "\nseed ";
    text += to_hex({key.secret.data(), kSeedBytes});
    text += "\npublic ";
    text += to_hex(key.public_key);
    text += "\n";
    return text;
}

bool parse_host_key(std::string_view text, HostKey &out, std::string &why) {
    std::size_t pos = 0;
    std::string_view seed_hex, public_hex;
    bool header = false;
    int line_no = 0;
    while (pos < text.size()) {
        std::string_view line = next_line(text, pos);
        ++line_no;
        if (line.empty() || line[0] == '#') continue;
        if (!header) {
            if (line != kKeyFileHeader) {
                why = "not a host key file (line " + std::to_string(line_no) + ")";
                return false;
            }
            header = true;
        } else if (seed_hex.empty() && field(line, "seed", seed_hex)) {
        } else if (public_hex.empty() && field(line, "public", public_hex)) {
        } else {
            why = "line " + std::to_string(line_no) + ": unexpected line in host key file";
            return false;
        }
    }
    if (!header || seed_hex.empty() || public_hex.empty()) {
        why = "host key file lacks its header, seed or public line";
        return false;
    }
    std::array<std::uint8_t, kSeedBytes> seed{};
    PublicKey stated{};
    if (!from_hex(seed_hex, seed) || !from_hex(public_hex, stated)) {
        sodium_memzero(seed.data(), seed.size());
        why = "host key file: seed or public key is not 64 hex digits";
        return false;
    }
    crypto_ready();
    crypto_sign_seed_keypair(out.public_key.data(), out.secret.data(), seed.data());
    sodium_memzero(seed.data(), seed.size());
    if (sodium_memcmp(out.public_key.data(), stated.data(), stated.size()) != 0) {
        sodium_memzero(out.secret.data(), out.secret.size());
        out.loaded = false;
        why = "host key file: the public key does not belong to the seed";
        return false;
    }
    out.loaded = true;
    return true;
}

bool read_host_key(const std::string &path, HostKey &out, std::string &why) {
    std::string text;
    // Any access by group or others is refused, writing included: whoever
    // can replace the key can make the daemon sign with a key of their own.
    if (!read_checked_file(path, kMaxKeyFile, S_IRWXG | S_IRWXO, "host key", text, why)) return false;
    bool ok = parse_host_key(text, out, why);
    sodium_memzero(text.data(), text.size());
    if (!ok) why = "host key " + path + ": " + why;
    return ok;
}

}  // namespace qvhost
