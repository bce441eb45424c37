// Signed assertions: what a host daemon states about one of its local
// callers. README.md ("Assertion format") gives the bytes.
#include <sodium.h>

#include <cstring>
#include <limits>

#include "byte_io.h"
#include "host_files.h"
#include "host_trust.h"

namespace qvhost {
namespace {

constexpr std::uint8_t kMagic[4] = {'Q', 'V', 'H', 'A'};
constexpr std::uint8_t kVersion = 1;
constexpr std::uint16_t kKnownFlags = kFromService;
constexpr std::size_t kMaxName = 255;  // user and service names
constexpr std::size_t kMaxHostName = 253;
// The signature covers this prefix, NUL included, and then every byte of the
// assertion before the signature, so that no other signed object of ours can
// pass for an assertion.
constexpr char kDomain[] = "qvsec host assertion v1";

static_assert(kSignatureBytes == crypto_sign_BYTES);

std::span<const std::uint8_t> bytes_of(const std::string &s) {
    return {reinterpret_cast<const std::uint8_t *>(s.data()), s.size()};
}

void write_name(ByteWriter &w, const std::string &s, std::size_t max) {
    std::size_t n = s.size() < max ? s.size() : max;
    w.u16be(static_cast<std::uint16_t>(n));
    w.bytes(bytes_of(s).first(n));
}

bool read_name(ByteReader &r, std::size_t max, std::string &out) {
    std::uint16_t len;
    std::span<const std::uint8_t> b;
    if (!r.u16be(len) || len > max || !r.take(len, b)) return false;
    // Names end up in log lines and in C strings: no NUL, no control characters.
    for (std::uint8_t c : b)
        if (c < 0x20 || c == 0x7f) return false;
    out.assign(reinterpret_cast<const char *>(b.data()), b.size());
    return true;
}

// ByteReader::u64be trips GCC's maybe-uninitialized warning once inlined here.
bool read_u64(ByteReader &r, std::uint64_t &v) {
    std::span<const std::uint8_t> b;
    if (!r.take(8, b)) return false;
    v = 0;
    for (std::uint8_t c : b) v = v << 8 | c;
    return true;
}

template <std::size_t N>
bool read_array(ByteReader &r, std::array<std::uint8_t, N> &out) {
    std::span<const std::uint8_t> b;
    if (!r.take(N, b)) return false;
    std::memcpy(out.data(), b.data(), N);
    return true;
}

std::vector<std::uint8_t> signed_message(std::span<const std::uint8_t> body) {
    std::vector<std::uint8_t> m(kDomain, kDomain + sizeof kDomain);
    m.insert(m.end(), body.begin(), body.end());
    return m;
}

// Parses the signed part; the reader is left at the signature.
bool parse_body(ByteReader &r, Assertion &a) {
    std::span<const std::uint8_t> magic;
    std::uint8_t version;
    std::uint64_t not_before, expiry;
    if (!r.take(sizeof kMagic, magic) || std::memcmp(magic.data(), kMagic, sizeof kMagic) != 0 ||
        !r.u8(version) || version != kVersion || !r.u16be(a.flags) || (a.flags & ~kKnownFlags) != 0 ||
        !read_array(r, a.key_id) || !read_u64(r, not_before) || !read_u64(r, expiry) || !read_array(r, a.nonce) ||
        !read_array(r, a.kx_public) || !read_array(r, a.binding) || !r.u32be(a.uid) || !read_u64(r, a.node_id) ||
        !read_name(r, kMaxName, a.user) || !read_name(r, kMaxHostName, a.host) ||
        !read_name(r, kMaxName, a.peer_service) || !read_name(r, kMaxHostName, a.peer_host))
        return false;
    a.not_before = static_cast<std::int64_t>(not_before);
    a.expiry = static_cast<std::int64_t>(expiry);
    return !a.user.empty() && valid_host_name(a.host) && valid_host_name(a.peer_host) &&
           a.not_before <= a.expiry;
}

// t + d without overflow, clamped to the range of int64.
std::int64_t saturating_add(std::int64_t t, std::int64_t d) {
    std::int64_t r;
    if (__builtin_add_overflow(t, d, &r))
        return d > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
    return r;
}

}  // namespace

std::vector<std::uint8_t> sign_assertion(const Assertion &a, const HostKey &key) {
    crypto_ready();
    ByteWriter w;
    w.bytes(kMagic);
    w.u8(kVersion);
    w.u16be(a.flags);
    w.bytes(key_id_of(key.public_key));
    w.u64be(static_cast<std::uint64_t>(a.not_before));
    w.u64be(static_cast<std::uint64_t>(a.expiry));
    w.bytes(a.nonce);
    w.bytes(a.kx_public);
    w.bytes(a.binding);
    w.u32be(a.uid);
    w.u64be(a.node_id);
    write_name(w, a.user, kMaxName);
    write_name(w, a.host, kMaxHostName);
    write_name(w, a.peer_service, kMaxName);
    write_name(w, a.peer_host, kMaxHostName);
    std::vector<std::uint8_t> out = w.data();
    std::vector<std::uint8_t> m = signed_message(out);
    std::array<std::uint8_t, kSignatureBytes> sig{};
    crypto_sign_detached(sig.data(), nullptr, m.data(), m.size(), key.secret.data());
    out.insert(out.end(), sig.begin(), sig.end());
    return out;
}

AssertionCheck check_assertion(std::span<const std::uint8_t> bytes, const TrustedHosts &trusted,
                               std::int64_t now, std::int64_t skew, Assertion &out,
                               std::size_t *consumed) {
    if (consumed != nullptr) *consumed = 0;
    ByteReader r(bytes);
    Assertion a;
    std::span<const std::uint8_t> sig;
    if (!parse_body(r, a)) return AssertionCheck::kMalformed;
    std::size_t body_len = bytes.size() - r.remaining();
    if (!r.take(kSignatureBytes, sig)) return AssertionCheck::kMalformed;
    const TrustedKey *key = trusted.find(a.host, a.key_id, now);
    if (key == nullptr) return AssertionCheck::kUntrusted;
    crypto_ready();
    std::vector<std::uint8_t> m = signed_message(bytes.first(body_len));
    if (crypto_sign_verify_detached(sig.data(), m.data(), m.size(), key->key.data()) != 0)
        return AssertionCheck::kBadSignature;
    if (consumed != nullptr) *consumed = body_len + kSignatureBytes;
    out = std::move(a);
    if (skew < 0) skew = 0;
    if (now < saturating_add(out.not_before, -skew)) return AssertionCheck::kNotYetValid;
    if (now > saturating_add(out.expiry, skew)) return AssertionCheck::kExpired;
    return AssertionCheck::kOk;
}

const char *assertion_check_text(AssertionCheck c) {
    switch (c) {
        case AssertionCheck::kOk: return "valid";
        case AssertionCheck::kMalformed: return "malformed";
        case AssertionCheck::kUntrusted: return "signed by no key trusted for its host";
        case AssertionCheck::kBadSignature: return "bad signature";
        case AssertionCheck::kNotYetValid: return "not yet valid";
        case AssertionCheck::kExpired: return "expired";
    }
    return "unknown";
}

}  // namespace qvhost
