// Context establishment: the client's hello, the server's reply, and the
// socket information that ties each side to the kernel's view of its peer.
//
//   client                                   server
//   mpm_start_sec_context  -- hello  -->     mpm_receive_sec_context
//                                            (checks the hello's claims
//                                             against SO_PEERCRED, answers)
//   mpm_complete_sec_context <-- reply --
//   (checks the reply's claims when it holds
//    a local socket, and the key confirmation)
#include <sodium.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "local_mech.h"

namespace qvlocal {
namespace {

constexpr qv_uint32_t kProtectionFlags = kCtxReplay | kCtxSequence | kCtxIntegrity | kCtxConfidentiality;

// A context made by the routine that is running: freed again unless the
// routine succeeds and hands it over.
struct NewContext {
    std::unique_ptr<Context> owned;
    Context *ctx = nullptr;
};

Status context_for_exchange(void **slot, NewContext &nc) {
    if (*slot == nullptr) {
        nc.owned = std::make_unique<Context>();
        nc.ctx = nc.owned.get();
        return kOk;
    }
    nc.ctx = as_context(*slot);
    if (nc.ctx == nullptr) return kBadHandle;
    // Only a context that so far received nothing but its socket may start.
    if (nc.ctx->role != Role::kUnset || nc.ctx->phase != Phase::kNew) return kWrongState;
    return kOk;
}

PeerIdentity identity_of(const Credentials &creds) {
    return PeerIdentity{creds, user_name_of(creds.uid), host_name()};
}

Status check_peer(const Context &ctx, const Credentials &claimed, qv_uint32_t *minor) {
    Credentials kernel;
    if (Status s = peer_credentials(ctx.fd, kernel, minor); s != kOk) return s;
    if (qv_uint32_t bits = mismatch_bits(claimed, kernel); bits != 0) {
        *minor = bits;
        return kCredentialsMismatch;
    }
    return kOk;
}

}  // namespace
}  // namespace qvlocal

using namespace qvlocal;

extern "C" qv_uint32_t mpm_set_ctx_attribute(qv_uint32_t *min_stat, void *svc_tkn, qv_uint32_t attr, void *data,
                                             void **ctx_tkn) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (attr != MPM_ATTR_SOCKET_INFO || data == nullptr || ctx_tkn == nullptr) return kBadArgument;
        if (svc_tkn != nullptr && as_service(svc_tkn) == nullptr) return kBadHandle;
        const auto *info = static_cast<const sec_socket_info_desc *>(data);
        if (info->fd < 0) return kBadArgument;
        NewContext nc;
        if (Status s = context_for_exchange(ctx_tkn, nc); s != kOk) return s;
        std::lock_guard<std::mutex> g(nc.ctx->lock);
        // The descriptor is copied: the socket stays the caller's, and it is
        // never closed here.
        nc.ctx->fd = info->fd;
        nc.ctx->has_socket = true;
        nc.ctx->socket_is_local = (info->type & kSocketLocal) != 0;
        if (nc.owned) *ctx_tkn = nc.owned.release();
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_start_sec_context(qv_uint32_t *min_stat, void *sec_token, char *trg_svc, char *trg_host,
                                             qv_uint32_t flags, void **ctx_token, sec_buffer_t cbuff) {
    (void)trg_host;  // the socket, not a host name, says who the peer is
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (cbuff == nullptr || ctx_token == nullptr) return kBadArgument;
        cbuff->length = 0;
        cbuff->value = nullptr;
        if (!crypto_ready()) return kCryptoUnavailable;
        if (as_service(sec_token) == nullptr) return kBadHandle;
        std::string target = trg_svc != nullptr ? trg_svc : "";
        if (target.size() > kMaxServiceName) return kBadArgument;
        NewContext nc;
        if (Status s = context_for_exchange(ctx_token, nc); s != kOk) return s;
        Context &ctx = *nc.ctx;
        std::lock_guard<std::mutex> g(ctx.lock);
        // A network socket: decline, so that the library tries the next
        // mechanism of the list.
        if (ctx.has_socket && !ctx.socket_is_local) {
            *minor = EAFNOSUPPORT;
            return kNoSocket;
        }
        if ((flags & kRequireMutual) != 0 && !ctx.has_socket) return kMutualRequired;

        ClientHello hello;
        hello.flags = ctx.has_socket ? kTokenChecksPeer : 0;
        random_bytes(hello.nonce);
        ctx.own.generate();
        hello.public_key = ctx.own.public_key;
        hello.creds = own_credentials();
        hello.target = std::move(target);
        ctx.hello = write_client_hello(hello);
        if (!give_bytes(ctx.hello, cbuff)) return kNoMemory;
        ctx.role = Role::kClient;
        ctx.phase = Phase::kAwaitingReply;
        if (nc.owned) *ctx_token = nc.owned.release();
        return kContinue;
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

        std::span<const uint8_t> in = bytes_of(*sbuff);
        ServerReply reply;
        if (Status s = read_server_reply(in, reply, minor); s != kOk) return s;
        bool mutual = false;
        if (ctx->has_socket) {
            if (Status s = check_peer(*ctx, reply.creds, minor); s != kOk) return s;
            mutual = true;
        }
        SessionKeys keys;
        if (Status s = derive_session_keys(ctx->own, reply.public_key, ctx->hello, in.first(in.size() - kConfirmSize),
                                           keys);
            s != kOk)
            return s;
        if (sodium_memcmp(keys.confirm.data(), reply.confirm.data(), kConfirmSize) != 0) {
            *minor = kReasonTag;
            return kKeyExchange;
        }
        ctx->keys = keys;
        ctx->own.wipe();
        ctx->hello.clear();
        ctx->peer = identity_of(reply.creds);
        ctx->peer_service = reply.service;
        ctx->flags = kProtectionFlags | (mutual ? kCtxMutual : 0);
        ctx->phase = Phase::kComplete;
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_receive_sec_context(qv_uint32_t *min_stat, void *svc_tkn, sec_buffer_t cbuff,
                                               void **ctx_tkn, sec_buffer_t sbuff, qv_uint32_t *rflags) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (cbuff == nullptr || ctx_tkn == nullptr || sbuff == nullptr) return kBadArgument;
        sbuff->length = 0;
        sbuff->value = nullptr;
        if (rflags != nullptr) *rflags = 0;
        if (!crypto_ready()) return kCryptoUnavailable;
        Service *svc = as_service(svc_tkn);
        if (svc == nullptr) return kBadHandle;
        NewContext nc;
        if (Status s = context_for_exchange(ctx_tkn, nc); s != kOk) return s;
        // A server context that fails is of no further use: it is freed here
        // and the handle slot cleared, since the library does not end it.
        std::unique_ptr<Context> owned = std::move(nc.owned);
        if (!owned) owned.reset(nc.ctx);
        *ctx_tkn = nullptr;
        auto fail = [&](qv_uint32_t s) {
            *ctx_tkn = nullptr;
            return s;
        };
        Context &ctx = *owned;
        if (!ctx.has_socket) {
            *minor = ENOTSOCK;
            return fail(kNoSocket);
        }
        if (!ctx.socket_is_local) {
            *minor = EAFNOSUPPORT;
            return fail(kNoSocket);
        }
        std::span<const uint8_t> in = bytes_of(*cbuff);
        ClientHello hello;
        if (Status s = read_client_hello(in, hello, minor); s != kOk) return fail(s);
        if (Status s = check_peer(ctx, hello.creds, minor); s != kOk) return fail(s);
        ServerReply reply;
        {
            std::lock_guard<std::mutex> g(svc->lock);
            reply.service = svc->name;
        }
        if (!reply.service.empty() && !hello.target.empty() && hello.target != reply.service)
            return fail(kWrongTarget);

        reply.flags = kTokenChecksPeer;
        random_bytes(reply.nonce);
        KeyPair own;
        own.generate();
        reply.public_key = own.public_key;
        reply.creds = own_credentials();
        std::vector<uint8_t> out = write_server_reply_body(reply);
        if (Status s = derive_session_keys(own, hello.public_key, in, out, ctx.keys); s != kOk) return fail(s);
        out.insert(out.end(), ctx.keys.confirm.begin(), ctx.keys.confirm.end());
        if (!give_bytes(out, sbuff)) return fail(kNoMemory);

        ctx.role = Role::kServer;
        ctx.phase = Phase::kComplete;
        ctx.peer = identity_of(hello.creds);
        ctx.flags = kProtectionFlags | ((hello.flags & kTokenChecksPeer) != 0 ? kCtxMutual : 0);
        if (rflags != nullptr) *rflags = ctx.flags;
        *ctx_tkn = owned.release();
        return kOk;
    });
}
