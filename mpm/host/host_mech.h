// Internal header of the "host" mechanism module: a client on one host and a
// service on another authenticate each other with assertions that each
// host's daemon signs about its local caller (host_trust.h), agree session
// keys by X25519 of the ephemeral keys the assertions carry, and protect data
// as "local" does (mpm/common). README.md beside this file documents every
// routine, token format, name and status.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host_trust.h"
#include "mech_common.h"

namespace qvhostmech {
using namespace qvmech;

// ---- Statuses of this module (the shared ones are in mech_common.h) ----
inline constexpr Status kUntrusted = Status(40);       // assertion not signed by a key trusted for its host (minor: HostCheck)
inline constexpr Status kNotValidNow = Status(41);     // assertion expired or not yet valid (minor: HostCheck)
inline constexpr Status kReplayedToken = Status(42);   // a client's first token seen before
inline constexpr Status kMisaddressed = Status(43);    // assertion for another service, host or exchange (minor: Misaddressed)
inline constexpr Status kDaemon = Status(44);          // no assertion from this host's daemon (minor: errno-style code)
inline constexpr Status kConfig = Status(45);          // the configuration or trusted-hosts file is unusable (minor: errno or 0)
inline constexpr Status kReplayCacheFull = Status(46);
// Minor statuses of kUntrusted and kNotValidNow.
enum HostCheck : qv_uint32_t { kCheckUntrusted = 1, kCheckBadSignature = 2, kCheckExpired = 3, kCheckNotYetValid = 4 };
// Minor statuses of kMisaddressed.
enum Misaddressed : qv_uint32_t {
    kOtherService = 1,   // the client's assertion names another service
    kOtherHost = 2,      // it names another host as the target, or the service's names another client host
    kWrongKind = 3,      // a service's assertion where a client's belongs, or the other way round
    kNodeId = 4,         // the node ID is not the one trusted for the host
    kBinding = 5,        // the service's assertion is bound to another client token
    kNotLoggedIn = 6,    // the service has not logged in: it has no name to be addressed by
    kUnexpectedHost = 7  // the service's assertion is from another host than the one asked for
};

// ---- Configuration (host_config.cpp) ----
inline constexpr char kDefaultConfigFile[] = "/etc/qvsec/host.conf";
struct HostConfig {
    std::string socket = "/run/qvsec/hostd.sock";
    std::string trusted = "/etc/qvsec/trusted-hosts";
    std::string services = "/etc/qvsec/host-services";
    std::string host;                 // empty: gethostname
    std::int64_t skew = 30;           // seconds
    std::uint32_t lifetime = 120;     // seconds asked of the daemon
    std::uint32_t timeout_ms = 5000;  // deadline of one daemon request
    std::size_t replay_cache_max = 1000000;
    std::vector<std::string> same_users;  // hosts whose user names are this host's
};
// Parses the text of a configuration file; false with "line N: ..." on any
// bad line. Unset keys keep their defaults.
bool parse_host_config(std::string_view text, HostConfig &out, std::string &why);
// Reads QVSEC_HOST_CONF (ignored in a privileged process), else the default
// file: regular, not writable by group or others, at most 64 KiB. A missing
// default file gives the defaults. errno-style code in *code on failure.
bool load_host_config(HostConfig &out, std::string &why, int *code);
// This host's name for the module: the configured one, else gethostname.
const std::string &config_host(const HostConfig &c);

// ---- Replay cache (replay_cache.cpp) ----
// The (key id, nonce) pairs of accepted client assertions, each kept until
// its assertion's expiry plus the skew and dropped as time passes: the size
// is bounded by the rate of new clients times the assertion lifetime, and by
// a hard cap beyond which new clients are refused rather than memory grown.
class ReplayCache {
public:
    enum class Result { kFresh, kReplayed, kFull };
    static constexpr std::size_t kKeyBytes = qvhost::kKeyIdBytes + qvhost::kNonceBytes;
    explicit ReplayCache(std::size_t cap) : cap_(cap) {}
    Result insert(std::span<const std::uint8_t, kKeyBytes> key, std::int64_t keep_until, std::int64_t now);
    std::size_t size() const;

private:
    void prune(std::int64_t now);
    mutable std::mutex lock_;
    std::size_t cap_;
    std::unordered_map<std::string, std::int64_t> entries_;
    std::multimap<std::int64_t, std::string> by_expiry_;
};
// The process's cache (one per process, shared by its service handles).
ReplayCache &replay_cache(std::size_t cap);

// ---- Tokens (host_tokens.cpp) ----
inline constexpr uint8_t kTypeClient = 0x11;
inline constexpr uint8_t kTypeService = 0x12;
inline constexpr uint16_t kTokenMutual = 0x0001;
inline constexpr size_t kMaxAssertion = 4096;
struct ClientToken {
    uint16_t flags = 0;
    std::span<const uint8_t> assertion;  // into the token's bytes
};
struct ServiceToken {
    uint16_t flags = 0;
    std::span<const uint8_t> assertion;  // into the token's bytes
    std::span<const uint8_t> confirm;    // kConfirmSize bytes
};
std::vector<uint8_t> write_client_token(uint16_t flags, std::span<const uint8_t> assertion);
// The service's token without its confirmation tag: what the transcript covers.
std::vector<uint8_t> write_service_token_body(uint16_t flags, std::span<const uint8_t> assertion);
// Exactly one token, nothing after it; kBadToken with a Reason in *reason.
Status read_client_token(std::span<const uint8_t> in, ClientToken &t, qv_uint32_t *reason);
Status read_service_token(std::span<const uint8_t> in, ServiceToken &t, qv_uint32_t *reason);

// Checks an assertion from a token against the trusted hosts at now: the
// signature, the validity window (with the skew), that the bytes are exactly
// one assertion, and that the node ID is the one trusted for its host.
Status check_peer_assertion(std::span<const uint8_t> bytes, const qvhost::TrustedHosts &trusted, std::int64_t now,
                            std::int64_t skew, qvhost::Assertion &a, qv_uint32_t *minor);

// The labels of this module's key schedule.
inline constexpr KdfLabels kHostLabels{"qvhost01", "qvsec host v1 session", "qvsec host v1 server confirm"};

// The configuration a service handle (and its contexts) use.
const HostConfig &config_of(const std::shared_ptr<const void> &state);

}  // namespace qvhostmech
