// Loading, the service handle's configuration, and who the peer is: its
// network name ("<user>@<host>", as its host's daemon asserted it), its
// mapped name, its binary id, user validation, identity contexts, login and
// target names, and the module's status texts.
#include <unistd.h>

#include <cstring>
#include <memory>

#include "byte_io.h"
#include "host_mech.h"

namespace qvmech {
extern const char kMnemonic[] = "host";

// Each service handle reads the configuration when it starts, so that a
// changed file counts for handles started afterwards.
Status start_service(Service &svc, qv_uint32_t *minor) {
    auto conf = std::make_shared<qvhostmech::HostConfig>();
    std::string why;
    int code = 0;
    if (!qvhostmech::load_host_config(*conf, why, &code)) {
        *minor = static_cast<qv_uint32_t>(code);
        return qvhostmech::kConfig;
    }
    svc.module_state = std::move(conf);
    return kOk;
}

namespace {
constexpr uint8_t kClientIdVersion = 1;
}  // namespace

// The client id: version, node id, uid, user name (at most 255 bytes, after
// its length), host name.
std::vector<uint8_t> client_id_bytes(const PeerIdentity &id) {
    ByteWriter w;
    w.u8(kClientIdVersion);
    w.u64be(id.node_id);
    w.u32be(id.creds.uid);
    w.u8(static_cast<uint8_t>(std::min<size_t>(id.user.size(), 255)));
    w.bytes({reinterpret_cast<const uint8_t *>(id.user.data()), std::min<size_t>(id.user.size(), 255)});
    w.bytes({reinterpret_cast<const uint8_t *>(id.host.data()), id.host.size()});
    return w.data();
}

}  // namespace qvmech

namespace qvhostmech {
namespace {

constexpr size_t kMaxNameInput = 4096;
constexpr qv_uint32_t kUnknownUser = 1, kOtherUser = 2, kNotMapped = 3;

// The mapped name: the peer's user name when its host is this host or one
// the configuration lists under same-users and the name is a user of this
// host; otherwise none. A "#uid" name never maps: a bare uid of another
// host says nothing about who that is here.
std::string mapped_name(const PeerIdentity &id, const HostConfig &conf) {
    if (id.user.empty() || id.user[0] == '#') return {};
    bool same = id.host == config_host(conf);
    for (const std::string &h : conf.same_users) same = same || h == id.host;
    uint32_t uid, gid;
    if (!same || !uid_of_user(id.user, uid, gid)) return {};
    return id.user;
}

Status peer_and_config(void *token, PeerIdentity &id, std::shared_ptr<const void> &state) {
    if (Status s = client_of(token, id); s != kOk) return s;
    Context *ctx = as_context(token);
    std::lock_guard<std::mutex> g(ctx->lock);
    state = ctx->module_state;
    return kOk;
}

// "<user>@<host>" of any host the module could meet: the user a name or
// "#uid", the host a valid host name.
Status identity_from_name(const char *name, PeerIdentity &id, qv_uint32_t *minor) {
    size_t len = strnlen(name, kMaxNameInput + 1);
    if (len == 0 || len > kMaxNameInput) return kBadArgument;
    std::string s(name, len);
    size_t at = s.rfind('@');
    if (at == std::string::npos || at == 0 || at > 255 || !qvhost::valid_host_name(s.substr(at + 1))) {
        *minor = 3;
        return kUnknownName;
    }
    id.user = s.substr(0, at);
    id.host = s.substr(at + 1);
    id.creds = Credentials{UINT32_MAX, UINT32_MAX, 0};
    if (id.user[0] == '#') {
        uint32_t gid;
        if (!uid_of_user(id.user, id.creds.uid, gid)) {
            *minor = kUnknownUser;
            return kUnknownName;
        }
    }
    return kOk;
}

std::string text_for(qv_uint32_t major, qv_uint32_t minor) {
    switch (major) {
    case kUntrusted:
        return minor == kCheckBadSignature
                   ? "the peer's assertion does not verify with its host's key: it was changed or forged"
                   : "the peer's assertion is signed by no key trusted for its host now (unknown, revoked, or past "
                     "its rotation overlap): see the trusted-hosts file";
    case kNotValidNow:
        return minor == kCheckNotYetValid
                   ? "the peer's assertion is not valid yet: the two hosts' clocks differ by more than the skew"
                   : "the peer's assertion has expired (or the hosts' clocks differ by more than the skew)";
    case kReplayedToken: return "the client's first token was seen before: a replay";
    case kMisaddressed:
        switch (minor) {
        case kOtherService: return "the client's assertion names another service than the one logged in";
        case kOtherHost: return "the assertion names another host than this one";
        case kWrongKind: return "a service's assertion where a client's belongs, or the other way round";
        case kNodeId: return "the assertion's node ID is not the one trusted for its host";
        case kBinding: return "the service's assertion answers another client token";
        case kNotLoggedIn: return "the service has not logged in (mpm_login_as_service): clients cannot name it";
        case kUnexpectedHost: return "the service's assertion is from another host than the target host";
        default: return "the assertion is addressed to another party";
        }
    case kDaemon:
        return "no assertion from this host's daemon (qvsec-hostd): not running, the socket in the module's "
               "configuration is wrong, or it refused (see its log): " + std::string(std::strerror(static_cast<int>(minor)));
    case kConfig:
        return "the module's configuration (QVSEC_HOST_CONF or /etc/qvsec/host.conf) or its trusted-hosts file is "
               "unusable: missing, writable by others, or malformed";
    case kReplayCacheFull: return "the replay cache is full: new clients are refused until entries expire";
    case kServiceNotAllowed:
        return minor == kMinorServicesFileUnusable
                   ? "the services file named in the module's configuration is unusable (not owned by root, or "
                     "writable by others, or malformed)"
                   : "the user the service's host asserted may not serve the target name: run it as the target's "
                     "user or list it in the services file";
    case kUnknownName: return "the name is not <user>@<host> of a valid host name";
    case kNotPermitted: return "a process can log in only as its own user on this host with this mechanism";
    case kUserNotValid:
        return minor == kNotMapped ? "the client has no local identity here (its host is not in same-users)"
                                   : "the user name is not the client's mapped name";
    default: return {};
    }
}

}  // namespace
}  // namespace qvhostmech

using namespace qvhostmech;

extern "C" void mpm_init(void) {
    (void)crypto_ready();
    (void)host_name();
    (void)process_generation();
}

extern "C" qv_uint32_t mpm_get_client_name(qv_uint32_t *min_stat, void *token, qv_int32_t *name_len, char *name) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        PeerIdentity id;
        if (Status s = client_of(token, id); s != kOk) return s;
        return answer_string(id.user + "@" + id.host, name_len, name);
    });
}

extern "C" qv_uint32_t mpm_get_mapped_name(qv_uint32_t *min_stat, void *token, qv_int32_t *name_len, char *name) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        PeerIdentity id;
        std::shared_ptr<const void> state;
        if (Status s = peer_and_config(token, id, state); s != kOk) return s;
        std::string mapped = state ? mapped_name(id, config_of(state)) : std::string();
        if (mapped.empty()) return answer({}, name_len, name);
        return answer_string(mapped, name_len, name);
    });
}

extern "C" qv_uint32_t mpm_user_valid(qv_uint32_t *min_stat, void *token, char *username) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (username == nullptr || username[0] == '\0') return kBadArgument;
        PeerIdentity id;
        std::shared_ptr<const void> state;
        if (Status s = peer_and_config(token, id, state); s != kOk) return s;
        std::string mapped = state ? mapped_name(id, config_of(state)) : std::string();
        if (mapped.empty()) {
            *minor = kNotMapped;
            return kUserNotValid;
        }
        if (mapped != std::string_view(username, strnlen(username, kMaxNameInput))) {
            *minor = kOtherUser;
            return kUserNotValid;
        }
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_create_id_context(qv_uint32_t *min_stat, qv_uint32_t flags, void *in, void **id_ctx) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (id_ctx == nullptr || in == nullptr) return kBadArgument;
        PeerIdentity id;
        std::shared_ptr<const void> state;
        if (flags == MPM_IDCTX_FROM_CONTEXT) {
            if (Status s = peer_and_config(in, id, state); s != kOk) return s;
        } else if (flags == MPM_IDCTX_FROM_NAME) {
            if (Status s = identity_from_name(static_cast<const char *>(in), id, minor); s != kOk) return s;
            // A name's identity maps by the configuration of this process.
            auto conf = std::make_shared<HostConfig>();
            std::string why;
            int code = 0;
            if (load_host_config(*conf, why, &code)) state = std::move(conf);
        } else {
            return kBadArgument;
        }
        auto ctx = std::make_unique<Context>();
        ctx->role = Role::kIdentity;
        ctx->phase = Phase::kComplete;
        ctx->flags = kCtxIdentity;
        ctx->peer = std::move(id);
        ctx->module_state = std::move(state);
        *id_ctx = ctx.release();
        return kOk;
    });
}

// Logging in succeeds only as the process's own user on this host: id holds
// a client id as mpm_get_client_id writes it.
extern "C" qv_uint32_t mpm_login_as_user(qv_uint32_t *min_stat, sec_buffer_t id, void *authenticator,
                                         qv_uint32_t flags, void *token) {
    (void)authenticator;
    (void)flags;
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        Service *svc = as_service(token);
        if (svc == nullptr) return kBadHandle;
        if (id == nullptr) return kBadArgument;
        ByteReader r(bytes_of(*id));
        uint8_t version, user_len;
        uint64_t node;
        uint32_t uid;
        std::span<const uint8_t> user;
        if (!r.u8(version) || !r.u64be(node) || !r.u32be(uid) || !r.u8(user_len) || !r.take(user_len, user)) {
            *minor = kReasonTruncated;
            return kBadToken;
        }
        if (version != kClientIdVersion) {
            *minor = kReasonVersion;
            return kBadToken;
        }
        std::span<const uint8_t> host = r.rest();
        const std::string &self = config_host(config_of(svc->module_state));
        bool this_host = host.size() == self.size() && std::memcmp(host.data(), self.data(), host.size()) == 0;
        if (!this_host || uid != static_cast<uint32_t>(geteuid())) return kNotPermitted;
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_get_target_name(qv_uint32_t *min_stat, void *token, char *service, char *host,
                                           qv_int32_t *length, char *name) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        Service *svc = as_service(token);
        if (svc == nullptr) return kBadHandle;
        if (service == nullptr || service[0] == '\0' || length == nullptr || *length < 0) return kBadArgument;
        const std::string &self = config_host(config_of(svc->module_state));
        return answer_string(std::string(service) + "@" + (host != nullptr && host[0] != '\0' ? host : self), length,
                             name);
    });
}

extern "C" qv_uint32_t mpm_explain_status(qv_uint32_t *min_stat, qv_uint32_t major, qv_uint32_t minor, char *text,
                                          qv_int32_t size) {
    return explain_status(min_stat, major, minor, text, size, text_for);
}
