// Context establishment: the client's hello, the server's reply, and the
// socket information that ties each side to the kernel's view of its peer.
//
//   client                                   server
//   mpm_start_sec_context  -- hello  -->     mpm_receive_sec_context
//                                            (the client is who the kernel
//                                             says connected; answers)
//   mpm_complete_sec_context <-- reply --
//   (with a socket: the service is who the kernel says listened; with flag
//    0x2, that user must be allowed to serve the target; the key
//    confirmation)
//
// Each token carries its sender's own uid, gid and pid. Neither side relies
// on them: a process holding a socket end made by another could write that
// process's values, so the kernel's answer is the only identity used.
#include <sodium.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "local_mech.h"

namespace qvlocal {
namespace {

constexpr qv_uint32_t kProtectionFlags = kCtxReplay | kCtxSequence | kCtxIntegrity | kCtxConfidentiality;

// Who the kernel says is at the other end of the context's socket, provided
// the descriptor still names the socket the context was given.
Status kernel_peer(const Context &ctx, PeerIdentity &peer, qv_uint32_t *minor) {
    SocketId now;
    if (Status s = socket_id(ctx.fd, now, minor); s != kOk) return s;
    if (now != ctx.socket) {
        *minor = kMinorSocketChanged;
        return kNoSocket;
    }
    Credentials creds;
    if (Status s = peer_credentials(ctx.fd, creds, minor); s != kOk) return s;
    peer = PeerIdentity{creds, user_name_of(creds.uid), host_name()};
    return kOk;
}

}  // namespace
}  // namespace qvlocal

using namespace qvlocal;

extern "C" qv_uint32_t mpm_set_ctx_attribute(qv_uint32_t *min_stat, void *svc_tkn, qv_uint32_t attr, void *data,
                                             void **ctx_tkn) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (attr != MPM_ATTR_SOCKET_INFO || data == nullptr || ctx_tkn == nullptr) return kBadArgument;
        if (svc_tkn != nullptr && as_service(svc_tkn) == nullptr) return kBadHandle;
        const auto *info = static_cast<const sec_socket_info_desc *>(data);
        if (info->fd < 0) return kBadArgument;
        SocketId id;
        if (Status s = socket_id(info->fd, id, minor); s != kOk) return s;
        NewContext nc;
        if (Status s = context_for_exchange(ctx_tkn, nc); s != kOk) return s;
        std::lock_guard<std::mutex> g(nc.ctx->lock);
        // The descriptor is copied: the socket stays the caller's, and it is
        // never closed here. Its identity is kept to notice a descriptor
        // number that has come to name another socket.
        nc.ctx->fd = info->fd;
        nc.ctx->socket = id;
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
        const bool require_mutual = (flags & kRequireMutual) != 0;
        // Mutual authentication checks the service against the name the
        // client wants; without a name there is nothing to check against.
        if (require_mutual && target.empty()) return kBadArgument;
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
        if (require_mutual && !ctx.has_socket) return kMutualRequired;

        ClientHello hello;
        hello.flags = require_mutual ? kTokenChecksPeer : 0;
        random_bytes(hello.nonce);
        ctx.generation = process_generation();
        ctx.own.generate();
        hello.public_key = ctx.own.public_key;
        hello.creds = own_credentials();
        hello.target = std::move(target);
        ctx.hello = write_client_hello(hello);
        if (!give_bytes(ctx.hello, cbuff)) return kNoMemory;
        ctx.require_mutual = require_mutual;
        ctx.target = hello.target;
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
        if (ctx->generation != process_generation()) return kOtherProcess;

        std::span<const uint8_t> in = bytes_of(*sbuff);
        ServerReply reply;
        if (Status s = read_server_reply(in, reply, minor); s != kOk) return s;
        // The service is the user the kernel reports for the socket: the one
        // that called listen (or made the pair). Users, not processes: a
        // pre-forked or socket-activated service answers from another process
        // of the same user.
        PeerIdentity service;
        if (ctx->has_socket) {
            if (Status s = kernel_peer(*ctx, service, minor); s != kOk) return s;
            if (ctx->require_mutual) {
                if (Status s = service_user_allowed(kServicesFile, ctx->target, service.creds.uid,
                                                    own_credentials().uid, minor);
                    s != kOk)
                    return s;
            }
        }
        SessionKeys keys;
        if (Status s = derive_session_keys(kLocalLabels, ctx->own, reply.public_key, ctx->hello, in.first(in.size() - kConfirmSize),
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
        ctx->peer_known = ctx->has_socket;
        ctx->peer = std::move(service);
        ctx->peer_service = std::move(reply.service);  // no allocation once the keys are set
        ctx->flags = kProtectionFlags | (ctx->require_mutual ? kCtxMutual : 0);
        ctx->phase = Phase::kComplete;
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_receive_sec_context(qv_uint32_t *min_stat, void *svc_tkn, sec_buffer_t cbuff,
                                               void **ctx_tkn, sec_buffer_t sbuff, qv_uint32_t *rflags) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        Service *svc = nullptr;
        std::unique_ptr<Context> owned;
        if (Status s = begin_receive(svc_tkn, cbuff, ctx_tkn, sbuff, rflags, svc, owned); s != kOk) return s;
        Context &ctx = *owned;
        if (!ctx.has_socket) {
            *minor = ENOTSOCK;
            return kNoSocket;
        }
        if (!ctx.socket_is_local) {
            *minor = EAFNOSUPPORT;
            return kNoSocket;
        }
        std::span<const uint8_t> in = bytes_of(*cbuff);
        ClientHello hello;
        if (Status s = read_client_hello(in, hello, minor); s != kOk) return s;
        // The client is whoever the kernel says connected, whatever the hello
        // claims.
        PeerIdentity client;
        if (Status s = kernel_peer(ctx, client, minor); s != kOk) return s;
        ServerReply reply;
        {
            std::lock_guard<std::mutex> g(svc->lock);
            reply.service = svc->name;
        }
        // A target "svc@host" names the service "svc": the host is this one.
        const std::string_view wanted = std::string_view(hello.target).substr(0, hello.target.find('@'));
        if (!reply.service.empty() && !wanted.empty() && wanted != reply.service) return kWrongTarget;

        reply.flags = kTokenChecksPeer;
        random_bytes(reply.nonce);
        KeyPair own;
        own.generate();
        reply.public_key = own.public_key;
        reply.creds = own_credentials();
        std::vector<uint8_t> out = write_server_reply_body(reply);
        if (Status s = derive_session_keys(kLocalLabels, own, hello.public_key, in, out, ctx.keys); s != kOk) return s;
        out.insert(out.end(), ctx.keys.confirm.begin(), ctx.keys.confirm.end());
        if (!give_bytes(out, sbuff)) return kNoMemory;

        ctx.generation = process_generation();
        ctx.role = Role::kServer;
        ctx.phase = Phase::kComplete;
        ctx.peer_known = true;
        ctx.peer = std::move(client);
        ctx.flags = kProtectionFlags | ((hello.flags & kTokenChecksPeer) != 0 ? kCtxMutual : 0);
        if (rflags != nullptr) *rflags = ctx.flags;
        *ctx_tkn = owned.release();
        return kOk;
    });
}
