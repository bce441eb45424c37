// Context establishment across hosts.
//
//   client (host A)                           service (host B)
//   mpm_start_sec_context
//     asks A's daemon for an assertion
//     (this user, A, target service and
//     host, its ephemeral X25519 key)
//                        -- client token -->  mpm_receive_sec_context
//                                               checks the assertion against
//                                               B's trusted hosts, its address,
//                                               the replay cache; asks B's
//                                               daemon for an assertion bound
//                                               to the client token; keys
//   mpm_complete_sec_context <-- service token --
//     checks the service's assertion,
//     that its user may serve the target,
//     the key confirmation
//
// The daemons see only public keys: the ephemeral secrets stay in the
// module, so whoever relays the tokens cannot compute the session keys.
#include <sodium.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "host_mech.h"

namespace qvhostmech {
namespace {

constexpr qv_uint32_t kProtectionFlags = kCtxReplay | kCtxSequence | kCtxIntegrity | kCtxConfidentiality;

std::int64_t now_seconds() { return static_cast<std::int64_t>(time(nullptr)); }

Status trusted_hosts(const HostConfig &c, qvhost::TrustedHosts &out, qv_uint32_t *minor) {
    std::string why;
    if (!qvhost::read_trusted_hosts(c.trusted, out, why)) {
        *minor = 0;
        return kConfig;
    }
    return kOk;
}

std::array<uint8_t, qvhost::kBindingBytes> binding_of(std::span<const uint8_t> client_token) {
    std::array<uint8_t, qvhost::kBindingBytes> b{};
    crypto_generichash(b.data(), b.size(), client_token.data(), client_token.size(), nullptr, 0);
    return b;
}

// An assertion from this host's daemon for the caller's user, with the
// caller's ephemeral public key.
Status ask_daemon(const HostConfig &c, const qvhost::AssertionRequest &req, std::vector<uint8_t> &out,
                  qv_uint32_t *minor) {
    std::string why;
    int rc = qvhost::request_assertion(c.socket, req, static_cast<int>(c.timeout_ms), out, why);
    if (rc != 0) {
        *minor = static_cast<qv_uint32_t>(rc);
        return kDaemon;
    }
    return kOk;
}

PeerIdentity identity_of(const qvhost::Assertion &a) {
    PeerIdentity p;
    p.creds = Credentials{a.uid, UINT32_MAX, 0};
    p.user = a.user;
    p.host = a.host;
    p.node_id = a.node_id;
    return p;
}

// "svc@host" names both; otherwise trg_host names the host.
void split_target(const char *trg_svc, const char *trg_host, std::string &service, std::string &host) {
    std::string t = trg_svc != nullptr ? trg_svc : "";
    const size_t at = t.find('@');
    service = t.substr(0, at);
    host = trg_host != nullptr ? trg_host : "";
    if (at != std::string::npos && (host.empty() || host == "localhost")) host = t.substr(at + 1);
}

}  // namespace

const HostConfig &config_of(const std::shared_ptr<const void> &state) {
    return *static_cast<const HostConfig *>(state.get());
}

}  // namespace qvhostmech

using namespace qvhostmech;

// The module needs no socket: the assertions say who the peers are. The
// context is made (the library gives every module the socket) and the
// descriptor is not kept.
extern "C" qv_uint32_t mpm_set_ctx_attribute(qv_uint32_t *min_stat, void *svc_tkn, qv_uint32_t attr, void *data,
                                             void **ctx_tkn) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (attr != MPM_ATTR_SOCKET_INFO || data == nullptr || ctx_tkn == nullptr) return kBadArgument;
        if (svc_tkn != nullptr && as_service(svc_tkn) == nullptr) return kBadHandle;
        NewContext nc;
        if (Status s = context_for_exchange(ctx_tkn, nc); s != kOk) return s;
        if (nc.owned) *ctx_tkn = nc.owned.release();
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_start_sec_context(qv_uint32_t *min_stat, void *sec_token, char *trg_svc, char *trg_host,
                                             qv_uint32_t flags, void **ctx_token, sec_buffer_t cbuff) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (cbuff == nullptr || ctx_token == nullptr) return kBadArgument;
        cbuff->length = 0;
        cbuff->value = nullptr;
        if (!crypto_ready()) return kCryptoUnavailable;
        Service *svc = as_service(sec_token);
        if (svc == nullptr) return kBadHandle;
        std::string service, host;
        split_target(trg_svc, trg_host, service, host);
        // The daemon vouches for a named service on a named host: both are needed.
        if (service.empty() || service.size() > kMaxServiceName || !qvhost::valid_host_name(host)) return kBadArgument;
        NewContext nc;
        if (Status s = context_for_exchange(ctx_token, nc); s != kOk) return s;
        Context &ctx = *nc.ctx;
        std::lock_guard<std::mutex> g(ctx.lock);
        const HostConfig &conf = config_of(svc->module_state);

        ctx.generation = process_generation();
        ctx.own.generate();
        qvhost::AssertionRequest req;
        req.peer_service = service;
        req.peer_host = host;
        req.kx_public = ctx.own.public_key;
        req.lifetime = conf.lifetime;
        std::vector<uint8_t> assertion;
        if (Status s = ask_daemon(conf, req, assertion, minor); s != kOk) {
            ctx.own.wipe();
            return s;
        }
        const uint16_t token_flags = (flags & kRequireMutual) != 0 ? kTokenMutual : 0;
        ctx.hello = write_client_token(token_flags, assertion);
        if (!give_bytes(ctx.hello, cbuff)) return kNoMemory;
        ctx.module_state = svc->module_state;
        ctx.target = service;
        ctx.target_host = host;
        ctx.require_mutual = true;  // the client always checks the service
        ctx.role = Role::kClient;
        ctx.phase = Phase::kAwaitingReply;
        if (nc.owned) *ctx_token = nc.owned.release();
        return kContinue;
    });
}

extern "C" qv_uint32_t mpm_receive_sec_context(qv_uint32_t *min_stat, void *svc_tkn, sec_buffer_t cbuff,
                                               void **ctx_tkn, sec_buffer_t sbuff, qv_uint32_t *rflags) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        Service *svc = nullptr;
        std::unique_ptr<Context> owned;
        if (Status s = begin_receive(svc_tkn, cbuff, ctx_tkn, sbuff, rflags, svc, owned); s != kOk) return s;
        Context &ctx = *owned;
        const HostConfig &conf = config_of(svc->module_state);
        const std::string &self = config_host(conf);

        std::span<const uint8_t> in = bytes_of(*cbuff);
        ClientToken token;
        if (Status s = read_client_token(in, token, minor); s != kOk) return s;
        qvhost::TrustedHosts trusted;
        if (Status s = trusted_hosts(conf, trusted, minor); s != kOk) return s;
        const std::int64_t now = now_seconds();
        qvhost::Assertion a;
        if (Status s = check_peer_assertion(token.assertion, trusted, now, conf.skew, a, minor); s != kOk) return s;
        std::string name;
        {
            std::lock_guard<std::mutex> g(svc->lock);
            name = svc->name;
        }
        auto misaddressed = [&](Misaddressed why) {
            *minor = why;
            return kMisaddressed;
        };
        if ((a.flags & qvhost::kFromService) != 0) return misaddressed(kWrongKind);
        if (name.empty()) return misaddressed(kNotLoggedIn);
        if (a.peer_host != self) return misaddressed(kOtherHost);
        if (a.peer_service != name) return misaddressed(kOtherService);
        // Only an assertion that passed every other check takes a place in
        // the cache, so refusals cannot fill it.
        std::array<uint8_t, ReplayCache::kKeyBytes> key;
        std::memcpy(key.data(), a.key_id.data(), a.key_id.size());
        std::memcpy(key.data() + a.key_id.size(), a.nonce.data(), a.nonce.size());
        switch (replay_cache(conf.replay_cache_max).insert(key, a.expiry + conf.skew, now)) {
        case ReplayCache::Result::kFresh: break;
        case ReplayCache::Result::kReplayed: return kReplayedToken;
        case ReplayCache::Result::kFull: return kReplayCacheFull;
        }

        KeyPair own;
        own.generate();
        qvhost::AssertionRequest req;
        req.flags = qvhost::kFromService;
        req.peer_host = a.host;
        req.kx_public = own.public_key;
        req.binding = binding_of(in);
        req.lifetime = conf.lifetime;
        std::vector<uint8_t> assertion;
        if (Status s = ask_daemon(conf, req, assertion, minor); s != kOk) return s;
        std::vector<uint8_t> out = write_service_token_body(kTokenMutual, assertion);
        if (Status s = derive_session_keys(kHostLabels, own, a.kx_public, in, out, ctx.keys); s != kOk) return s;
        out.insert(out.end(), ctx.keys.confirm.begin(), ctx.keys.confirm.end());
        if (!give_bytes(out, sbuff)) return kNoMemory;

        ctx.module_state = svc->module_state;
        ctx.generation = process_generation();
        ctx.role = Role::kServer;
        ctx.phase = Phase::kComplete;
        ctx.peer_known = true;
        ctx.peer = identity_of(a);
        ctx.expiry = a.expiry;
        // The client checks the service whatever it asked for.
        ctx.flags = kProtectionFlags | kCtxMutual;
        if (rflags != nullptr) *rflags = ctx.flags;
        *ctx_tkn = owned.release();
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_complete_sec_context(qv_uint32_t *min_stat, sec_buffer_t sbuff, void *token,
                                                sec_buffer_t cbuff) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (sbuff == nullptr || cbuff == nullptr) return kBadArgument;
        cbuff->length = 0;
        cbuff->value = nullptr;
        Context *ctx = as_context(token);
        if (ctx == nullptr) return kBadHandle;
        std::lock_guard<std::mutex> g(ctx->lock);
        if (ctx->role != Role::kClient || ctx->phase != Phase::kAwaitingReply) return kWrongState;
        if (ctx->generation != process_generation()) return kOtherProcess;
        const HostConfig &conf = config_of(ctx->module_state);

        std::span<const uint8_t> in = bytes_of(*sbuff);
        ServiceToken token;
        if (Status s = read_service_token(in, token, minor); s != kOk) return s;
        qvhost::TrustedHosts trusted;
        if (Status s = trusted_hosts(conf, trusted, minor); s != kOk) return s;
        qvhost::Assertion a;
        if (Status s = check_peer_assertion(token.assertion, trusted, now_seconds(), conf.skew, a, minor); s != kOk)
            return s;
        auto misaddressed = [&](Misaddressed why) {
            *minor = why;
            return kMisaddressed;
        };
        if ((a.flags & qvhost::kFromService) == 0) return misaddressed(kWrongKind);
        if (a.host != ctx->target_host) return misaddressed(kUnexpectedHost);
        if (a.peer_host != config_host(conf)) return misaddressed(kOtherHost);
        const auto binding = binding_of(ctx->hello);
        if (sodium_memcmp(binding.data(), a.binding.data(), binding.size()) != 0) return misaddressed(kBinding);
        if (Status s = service_name_allowed(conf.services.c_str(), ctx->target, a.uid, a.user, minor); s != kOk)
            return s;
        SessionKeys keys;
        if (Status s = derive_session_keys(kHostLabels, ctx->own, a.kx_public, ctx->hello,
                                           in.first(in.size() - kConfirmSize), keys);
            s != kOk)
            return s;
        if (sodium_memcmp(keys.confirm.data(), token.confirm.data(), kConfirmSize) != 0) {
            *minor = kReasonTag;
            return kKeyExchange;
        }
        ctx->keys = keys;
        ctx->own.wipe();
        ctx->hello.clear();
        ctx->peer_known = true;
        ctx->peer = identity_of(a);
        ctx->peer_service = ctx->target;
        ctx->expiry = a.expiry;
        ctx->flags = kProtectionFlags | kCtxMutual;
        ctx->phase = Phase::kComplete;
        return kOk;
    });
}
