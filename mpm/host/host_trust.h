// Host keys, the trusted-hosts file, the signed assertions a host daemon
// issues about its local callers, and the client of that daemon.
//
// A static library (qv_host_trust) shared by the "host" mechanism module, the
// daemon qvsec-hostd, the qvsec tool and the tests. Nothing here throws across
// its routines except std::bad_alloc, which the callers turn into their own
// no-memory result.
#ifndef QV_HOST_TRUST_H
#define QV_HOST_TRUST_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qvhost {

inline constexpr std::size_t kPublicKeyBytes = 32;  // Ed25519
inline constexpr std::size_t kSecretKeyBytes = 64;  // Ed25519 seed followed by the public key
inline constexpr std::size_t kSignatureBytes = 64;
inline constexpr std::size_t kKeyIdBytes = 8;  // first 8 bytes of BLAKE2b-256(public key)
inline constexpr std::size_t kNonceBytes = 32;
inline constexpr std::size_t kKxPublicBytes = 32;  // X25519
inline constexpr std::size_t kBindingBytes = 32;
using KeyId = std::array<std::uint8_t, kKeyIdBytes>;
using PublicKey = std::array<std::uint8_t, kPublicKeyBytes>;

// ---- Host keys ----

// A host's signing key pair. The secret half is wiped on destruction; the
// type cannot be copied, so no stray copy of the secret outlives it.
struct HostKey {
    std::array<std::uint8_t, kSecretKeyBytes> secret{};
    PublicKey public_key{};
    bool loaded = false;

    HostKey() = default;
    HostKey(const HostKey &) = delete;
    HostKey &operator=(const HostKey &) = delete;
    ~HostKey();
};

// Reads the host key file: a regular file (not followed through a symlink)
// that neither group nor others may read; otherwise false with a one-line reason.
bool read_host_key(const std::string &path, HostKey &out, std::string &why);
// Makes a fresh key pair.
void generate_host_key(HostKey &out);
// The bytes of the host key file for `key` (see README "Host keys and trust").
// The caller wipes them after writing.
std::string encode_host_key(const HostKey &key);
// Parses the text of a host key file; checks that the public half matches the secret.
bool parse_host_key(std::string_view text, HostKey &out, std::string &why);

KeyId key_id_of(const PublicKey &key);
// Lower-case hex of bytes, and its inverse (false on any other character or length).
std::string to_hex(std::span<const std::uint8_t> bytes);
bool from_hex(std::string_view text, std::span<std::uint8_t> out);

// ---- Trusted hosts ----

struct TrustedKey {
    std::string host;
    std::uint64_t node_id = 0;
    PublicKey key{};
    std::optional<std::int64_t> until;  // accepted up to this UNIX time: rotation overlap
};
struct TrustedHosts {
    std::vector<TrustedKey> keys;
    // The key with this id trusted for this host name at time `now`, or nullptr.
    const TrustedKey *find(std::string_view host, const KeyId &id, std::int64_t now) const;
    // Whether any key is listed for this host name (expired or not).
    bool knows_host(std::string_view host) const;
};
// Parses the text of a trusted-hosts file (fuzzed); false with "line N: ..." on any bad line.
bool parse_trusted_hosts(std::string_view text, TrustedHosts &out, std::string &why);
// Reads the file: regular, not writable by group or others, at most 1 MiB.
bool read_trusted_hosts(const std::string &path, TrustedHosts &out, std::string &why);
// The text of one trusted-hosts line for `key` (no newline).
std::string format_trusted_line(const TrustedKey &key);
// Host names: 1 to 253 bytes of letters, digits, '-', '.', '_'.
bool valid_host_name(std::string_view name);

// ---- Assertions ----

struct Assertion {
    std::uint16_t flags = 0;  // kFromService: issued to a service answering a client
    KeyId key_id{};           // the issuing host key
    std::int64_t not_before = 0, expiry = 0;               // UNIX seconds
    std::array<std::uint8_t, kNonceBytes> nonce{};         // the daemon's, random
    std::array<std::uint8_t, kKxPublicBytes> kx_public{};  // the subject's ephemeral X25519 key
    std::array<std::uint8_t, kBindingBytes> binding{};  // client: zero; service: BLAKE2b-256 of the client's token
    std::uint32_t uid = 0;
    std::string user;              // subject's user name on the issuing host ("#uid" without an entry)
    std::string host;              // issuing host's name
    std::uint64_t node_id = 0;     // issuing host's node ID
    std::string peer_service;      // client: the target service; service: empty
    std::string peer_host;         // client: the target host; service: the client's host
};
inline constexpr std::uint16_t kFromService = 0x0001;

// Encodes and signs; the signature covers a domain prefix and every byte before it.
std::vector<std::uint8_t> sign_assertion(const Assertion &a, const HostKey &key);

enum class AssertionCheck { kOk, kMalformed, kUntrusted, kBadSignature, kNotYetValid, kExpired };
// Parses exactly one assertion from the front of `bytes` (sets *consumed), checks the
// signature with the key trusted for a.host (by key id) at `now`, and the validity window
// widened by `skew` seconds on both ends. Never reads past `bytes`. `out` and
// *consumed are set once the signature is good (kOk, kNotYetValid, kExpired);
// otherwise *consumed is 0 and `out` unchanged. The lookup of the key uses
// `now` without skew: a key whose overlap ended is refused at once.
AssertionCheck check_assertion(std::span<const std::uint8_t> bytes, const TrustedHosts &trusted,
                               std::int64_t now, std::int64_t skew, Assertion &out,
                               std::size_t *consumed);
// A short English name of a check result, for log lines.
const char *assertion_check_text(AssertionCheck c);

// ---- The daemon's client ----

struct AssertionRequest {
    std::uint16_t flags = 0;  // kFromService when the caller answers a client
    std::string peer_service, peer_host;
    std::array<std::uint8_t, kKxPublicBytes> kx_public{};
    std::array<std::uint8_t, kBindingBytes> binding{};
    std::uint32_t lifetime = 0;  // seconds asked for; the daemon caps it
};
// Asks the daemon on `socket_path` for an assertion, with a deadline of
// timeout_ms on the whole exchange. 0 and the signed bytes, or an errno-style
// code and a one-line reason (the daemon's refusal text when it refused).
int request_assertion(const std::string &socket_path, const AssertionRequest &req,
                      int timeout_ms, std::vector<std::uint8_t> &assertion, std::string &why);

}  // namespace qvhost

#endif
