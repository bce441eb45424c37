// What the mechanism modules "local" and "host" share: statuses, handles,
// the session key schedule, data protection with the session keys, the
// kernel's peer credentials, user lookups and the rule of who may serve a
// target name. Each module adds its own context exchange, names and status
// texts; each README documents its module's routines, formats and statuses.
#pragma once

#include <pthread.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cxxabi.h>

#include <array>
#include <cerrno>
#include <new>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "qv_sec_mpm.h"

namespace qvmech {

// ---- Major statuses (the modules' own; 0, 1, 6, 24, 34, 36 are the
// interface's; a module adds its own from 40 on) ----
enum Status : qv_uint32_t {
    kOk = MPM_S_COMPLETE,
    kContinue = MPM_S_CONTINUE,
    kBadArgument = 4,        // NULL pointer, bad mode, size out of range
    kBadHandle = 5,          // not a handle of this module, or of the wrong kind
    kBufferTooSmall = MPM_S_BUFFER_TOO_SMALL,
    kBadToken = 7,           // a context-establishment token that does not parse
    kNoSocket = 8,           // no local socket, or the kernel gave no peer credentials
    // 9 is no longer used: the claims in the tokens are not compared any more.
    kKeyExchange = 10,       // bad public key or failed key confirmation
    kWrongState = 11,        // routine called at the wrong point of the context's life
    kNoMemory = 12,
    kWrongTarget = 13,       // the client targets another service than the one logged in
    kBadMessage = 14,        // sealed message malformed or failing its integrity check
    kReplayed = 15,          // sealed message with a sequence number already used
    kOutOfOrder = 16,        // sealed message ahead of the next expected one
    kCryptoUnavailable = 17, // the cryptographic library could not start
    kExhausted = 18,         // the sequence numbers of a direction are used up
    kUnknownName = 19,       // a name that does not denote a user of this host
    kNotPermitted = 20,      // login as a user other than the process's own
    kMutualRequired = 21,    // mutual authentication asked for without a local socket
    kInternal = 22,          // unexpected failure (exception) inside the module
    kNoSignature = MPM_S_NO_SIGNATURE,
    kServiceNotAllowed = 25, // the service's user may not serve the target name
    kOtherProcess = 26,      // the context was made in another process (fork)
    kBadSignature = MPM_S_BAD_SIGNATURE,
    kUserNotValid = MPM_S_USER_NOT_VALID,
};

// Minor statuses of kBadToken, kBadMessage and kBadSignature: what was wrong.
enum Reason : qv_uint32_t {
    kReasonNone = 0,
    kReasonTruncated = 1,     // shorter than its fields
    kReasonType = 2,          // wrong type byte
    kReasonVersion = 3,       // unsupported version
    kReasonTrailing = 4,      // bytes after the last field
    kReasonName = 5,          // a name with a NUL byte in it
    kReasonMode = 6,          // unknown protection mode
    kReasonTag = 7,           // integrity tag does not match
    kReasonReplayed = 8,      // signature: sequence number already used
    kReasonOutOfOrder = 9,    // signature: ahead of the next expected one
};
// Minor statuses of kServiceNotAllowed.
inline constexpr qv_uint32_t kMinorUserNotAllowed = 1, kMinorServicesFileUnusable = 2;
// Minor status of kNoSocket when the descriptor no longer names the socket
// the context was given.
inline constexpr qv_uint32_t kMinorSocketChanged = ESTALE;

// ---- Constants ----
// The module's mnemonic, which each module defines.
extern const char kMnemonic[];
inline constexpr uint8_t kProtocolVersion = 1;
inline constexpr size_t kPublicKeySize = 32;
inline constexpr size_t kKeySize = 32;
inline constexpr size_t kConfirmSize = 32;
inline constexpr size_t kMaxServiceName = 255;

// Protection modes of mpm_prepare_data (the library passes exactly one).
inline constexpr qv_uint32_t kProtectIntegrity = 0x00100000;
inline constexpr qv_uint32_t kProtectConfidentiality = 0x00200000;
inline constexpr uint8_t kModeIntegrity = 1;
inline constexpr uint8_t kModeConfidentiality = 2;
inline constexpr size_t kSealHeader = 10;  // version, mode, sequence number
inline constexpr size_t kSealTag = 16;
inline constexpr size_t kSignatureSize = 41;  // version, sequence number, tag
// Version 2 signatures cover each element's length; version 1 covered only
// the concatenation, so a vector split otherwise verified.
inline constexpr uint8_t kSignatureVersion = 2;

// Flags of mpm_start_sec_context (the caller's sec_start_sec_context flags).
inline constexpr qv_uint32_t kRequireMutual = 0x00000002;

// Context flags (mpm_get_ctx_flags, and rflags of mpm_receive_sec_context).
inline constexpr qv_uint32_t kCtxMutual = 0x0001;
inline constexpr qv_uint32_t kCtxReplay = 0x0002;
inline constexpr qv_uint32_t kCtxSequence = 0x0004;
inline constexpr qv_uint32_t kCtxIntegrity = 0x0008;
inline constexpr qv_uint32_t kCtxConfidentiality = 0x0010;
inline constexpr qv_uint32_t kCtxIdentity = 0x0040;

// A context's credentials do not expire: the kernel vouched for the peer of
// the connection, and that holds for as long as the connection does.
inline constexpr qv_int32_t kIndefiniteLifetime = 0x7fffffff;

// Socket flags given to sec_setup_socket and passed in the socket information.
inline constexpr qv_uint32_t kSocketLocal = 0x01000000;

// ---- Peers ----
struct Credentials {
    uint32_t uid = 0, gid = 0, pid = 0;
    bool operator==(const Credentials &) const = default;
};

// ---- Session keys ----
struct SessionKeys {
    std::array<uint8_t, kKeySize> seal_c2s{}, seal_s2c{}, sign_c2s{}, sign_s2c{};
    std::array<uint8_t, kConfirmSize> confirm{};  // the server's confirmation tag
    ~SessionKeys();
    void wipe();
};

struct KeyPair {
    std::array<uint8_t, kPublicKeySize> public_key{};
    std::array<uint8_t, 32> secret_key{};
    ~KeyPair() { wipe(); }
    void generate();
    void wipe();
};

// The texts that keep one module's keys apart from another's: the same
// secrets and transcript give other keys under other labels.
struct KdfLabels {
    const char *kdf_context;  // crypto_kdf_CONTEXTBYTES characters
    const char *session;
    const char *confirm;
};

// Derives the keys from our secret key, the peer's public key and the
// transcript (the client's token, the server's token without its tag).
// kKeyExchange for a public key that gives the all-zero shared secret.
Status derive_session_keys(const KdfLabels &labels, const KeyPair &own, std::span<const uint8_t> peer_public,
                           std::span<const uint8_t> hello, std::span<const uint8_t> reply_body,
                           SessionKeys &keys);
void random_bytes(std::span<uint8_t> out);

// ---- Peer credentials ----
// Which socket a descriptor named when a context was given it: a service
// that closes and re-accepts may get the same number for another connection.
struct SocketId {
    dev_t dev = 0;
    ino_t ino = 0;
    bool operator==(const SocketId &) const = default;
};
// kNoSocket with errno in *minor when fd names nothing.
Status socket_id(int fd, SocketId &id, qv_uint32_t *minor);
// What the kernel reports for the other end of the local socket fd: the
// process that connected (or called listen, or made the pair) and its
// effective ids at that time. kNoSocket with errno (or EAFNOSUPPORT) in
// *minor when there is none.
Status peer_credentials(int fd, Credentials &creds, qv_uint32_t *minor);
Credentials own_credentials();

// ---- Who may serve a target name ----
// A file of "service user" lines names the users allowed to serve a
// service, beside root, the client's own user and, for a service the file
// does not name, the user of the service's name.
// Parses the file's text; false for a malformed line. Appends to users the
// user fields of the lines for service; *listed tells whether any line names it.
bool parse_services(std::string_view text, std::string_view service, std::vector<std::string> &users,
                    bool *listed);
// kOk when a service run by service_uid may answer a client (client_uid)
// that targets target ("service" or "service@host"); kServiceNotAllowed with
// kMinorUserNotAllowed or kMinorServicesFileUnusable in *minor otherwise.
Status service_user_allowed(const char *file, std::string_view target, uint32_t service_uid, uint32_t client_uid,
                            qv_uint32_t *minor);
// The same rule by user name, for a service user of another host: kOk for
// uid 0, a user listed for the target's service, or, when none is listed,
// the user of the service's name.
Status service_name_allowed(const char *file, std::string_view target, uint32_t service_uid,
                            std::string_view service_user, qv_uint32_t *minor);


// ---- Handles ----
inline constexpr uint32_t kServiceMagic = 0x4c53564dU;  // "LSVM"
inline constexpr uint32_t kContextMagic = 0x4c43544dU;  // "LCTM"

struct Service {
    uint32_t magic = kServiceMagic;
    qv_uint32_t flags = 0;
    std::mutex lock;  // guards name
    std::string name;  // from mpm_login_as_service; empty: not logged in
    std::shared_ptr<const void> module_state;  // what the module's start_service keeps
    ~Service() { magic = 0; }
};

enum class Role { kUnset, kClient, kServer, kIdentity };
enum class Phase { kNew, kAwaitingReply, kComplete };

// A peer as the kernel vouched for it (or as an identity context names it).
struct PeerIdentity {
    Credentials creds;
    std::string user;  // local user name; empty when the uid has no entry
    std::string host;  // the peer's host: this host's name for "local"
    uint64_t node_id = 0;  // the peer host's node ID ("host" only)
};

struct Context {
    uint32_t magic = kContextMagic;
    std::mutex lock;  // guards everything below once the context is shared
    Role role = Role::kUnset;
    Phase phase = Phase::kNew;
    // A context works only in the process that made its keys: after fork,
    // parent and child would seal with the same keys and sequence numbers.
    uint64_t generation = 0;  // process_generation() when the keys were made
    int fd = -1;  // the local socket, -1 without one
    SocketId socket;  // what fd named when it was given
    bool has_socket = false;
    bool socket_is_local = false;
    qv_uint32_t flags = 0;  // context flags, once complete
    // Client side, between its hello and the server's reply.
    KeyPair own;
    std::vector<uint8_t> hello;
    bool require_mutual = false;  // flag 0x2: the service must be allowed to serve target
    std::string target;
    // The peer as the kernel vouched for it: the client on the service side,
    // the service on the client side (when the client held its socket).
    bool peer_known = false;
    PeerIdentity peer;
    std::string peer_service;  // client side: the name the service logged in with
    std::string target_host;   // "host", client side: the host it asked for
    int64_t expiry = 0;  // UNIX time the peer's credentials end; 0: never
    std::shared_ptr<const void> module_state;  // the module's, from the service handle
    SessionKeys keys;
    uint64_t seal_tx = 0, seal_rx = 0, sign_tx = 0, sign_rx = 0;
    ~Context() { magic = 0; }
};

Service *as_service(void *p);
// Each module's own part of mpm_start: whatever the service handle needs
// beyond the shared fields (local: nothing).
Status start_service(Service &svc, qv_uint32_t *minor);
Context *as_context(void *p);

// Host name and user lookups.
const std::string &host_name();
std::string user_name_of(uint32_t uid);
bool uid_of_user(const std::string &name, uint32_t &uid, uint32_t &gid);
std::string network_name(const PeerIdentity &id);

// Runs a routine body: the minor status starts at 0, std::bad_alloc becomes
// kNoMemory, other exceptions kInternal, and thread cancellation passes.
template <typename F>
qv_uint32_t guarded(qv_uint32_t *min_stat, F &&body) {
    qv_uint32_t ignored = 0;
    qv_uint32_t *minor = min_stat != nullptr ? min_stat : &ignored;
    *minor = 0;
    try {
        return body(minor);
    } catch (abi::__forced_unwind &) {
        throw;
    } catch (std::bad_alloc &) {
        return kNoMemory;
    } catch (...) {
        return kInternal;
    }
}

bool crypto_ready();

// ---- Shared routine bodies ----
// A context made by the routine that is running: freed again unless the
// routine succeeds and hands it over.
struct NewContext {
    std::unique_ptr<Context> owned;
    Context *ctx = nullptr;
};
// The context a start or receive routine works on: a new one when *slot is
// empty, else the one there, which must not have started (it may hold a
// socket and nothing else).
Status context_for_exchange(void **slot, NewContext &nc);
// The start of mpm_receive_sec_context: arguments checked, outputs cleared,
// the service found, and the server context taken out of *ctx_tkn into
// owned. A server context that fails is of no further use, and the library
// does not end it: it stays owned here (freed unless the caller hands it
// back) and the slot is cleared.
Status begin_receive(void *svc_tkn, sec_buffer_t cbuff, void **ctx_tkn, sec_buffer_t sbuff, qv_uint32_t *rflags,
                     Service *&svc, std::unique_ptr<Context> &owned);
// Each module's client id (mpm_get_client_id): its own layout of the peer.
std::vector<uint8_t> client_id_bytes(const PeerIdentity &id);
// The peer behind an established or identity context, when it is known.
Status client_of(void *token, PeerIdentity &out);
// The buffer-size protocol of the name routines: the whole answer or, when
// it does not fit, status 6 with the size needed.
Status answer(std::span<const uint8_t> bytes, qv_int32_t *len, char *out);
Status answer_string(const std::string &s, qv_int32_t *len, char *out);
// The text of a status both modules share, or empty for another.
std::string shared_status_text(qv_uint32_t major, qv_uint32_t minor);
// mpm_explain_status with the module's own texts tried first.
qv_uint32_t explain_status(qv_uint32_t *min_stat, qv_uint32_t major, qv_uint32_t minor, char *text, qv_int32_t size,
                           std::string (*own_text)(qv_uint32_t, qv_uint32_t));

// Changes in the child of every fork (a fork handler counts them), so that
// a context can tell it was copied into another process. Cheaper than
// getpid, which is a system call on every seal.
uint64_t process_generation();

// Caller buffers (released through mpm_release_buffer, which calls free).
bool give_bytes(std::span<const uint8_t> bytes, sec_buffer_t out);
std::span<const uint8_t> bytes_of(const sec_buffer_desc &b);

}  // namespace qvmech
