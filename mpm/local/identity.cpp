// Who the peer is: its network name ("<user>@<host>"), its local user, its
// binary id, user validation and identity contexts. On the service side the
// peer is the client; on the client side, when the client gave its socket,
// the service. All of it comes from the credentials the kernel vouched for,
// never from what the peer wrote.
#include <cstring>
#include <memory>

#include "byte_io.h"
#include "local_mech.h"

namespace qvmech {

namespace {
constexpr uint8_t kClientIdVersion = 1;
}  // namespace

// The client id: version, uid, gid, host name.
std::vector<uint8_t> client_id_bytes(const PeerIdentity &id) {
    ByteWriter w;
    w.u8(kClientIdVersion);
    w.u32be(id.creds.uid);
    w.u32be(id.creds.gid);
    w.bytes({reinterpret_cast<const uint8_t *>(id.host.data()), id.host.size()});
    return w.data();
}

}  // namespace qvmech

namespace qvlocal {
namespace {

constexpr size_t kMaxNameInput = 4096;
constexpr qv_uint32_t kUnknownUser = 1, kOtherUser = 2, kForeignHost = 3;

// A network name of this mechanism: "<user>@<host>" with this host's name.
Status identity_from_name(const char *name, PeerIdentity &id, qv_uint32_t *minor) {
    size_t len = strnlen(name, kMaxNameInput + 1);
    if (len == 0 || len > kMaxNameInput) return kBadArgument;
    std::string s(name, len);
    size_t at = s.rfind('@');
    if (at == std::string::npos || s.substr(at + 1) != host_name()) {
        *minor = kForeignHost;
        return kUnknownName;
    }
    uint32_t uid, gid;
    if (!uid_of_user(s.substr(0, at), uid, gid)) {
        *minor = kUnknownUser;
        return kUnknownName;
    }
    id.creds = Credentials{uid, gid, 0};
    id.user = user_name_of(uid);
    id.host = host_name();
    return kOk;
}

}  // namespace
}  // namespace qvlocal

using namespace qvlocal;

extern "C" qv_uint32_t mpm_get_client_name(qv_uint32_t *min_stat, void *token, qv_int32_t *name_len, char *name) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        PeerIdentity id;
        if (Status s = client_of(token, id); s != kOk) return s;
        return answer_string(network_name(id), name_len, name);
    });
}

extern "C" qv_uint32_t mpm_get_mapped_name(qv_uint32_t *min_stat, void *token, qv_int32_t *name_len, char *name) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        PeerIdentity id;
        if (Status s = client_of(token, id); s != kOk) return s;
        // A uid without a user of this host has no local identity.
        if (id.user.empty()) return answer({}, name_len, name);
        return answer_string(id.user, name_len, name);
    });
}

extern "C" qv_uint32_t mpm_user_valid(qv_uint32_t *min_stat, void *token, char *username) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (username == nullptr || username[0] == '\0') return kBadArgument;
        PeerIdentity id;
        if (Status s = client_of(token, id); s != kOk) return s;
        uint32_t uid, gid;
        if (!uid_of_user(std::string(username, strnlen(username, kMaxNameInput)), uid, gid)) {
            *minor = kUnknownUser;
            return kUserNotValid;
        }
        if (uid != id.creds.uid) {
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
        if (flags == MPM_IDCTX_FROM_CONTEXT) {
            if (Status s = client_of(in, id); s != kOk) return s;
        } else if (flags == MPM_IDCTX_FROM_NAME) {
            if (Status s = identity_from_name(static_cast<const char *>(in), id, minor); s != kOk) return s;
        } else {
            return kBadArgument;
        }
        auto ctx = std::make_unique<Context>();
        ctx->role = Role::kIdentity;
        ctx->phase = Phase::kComplete;
        ctx->flags = kCtxIdentity;
        ctx->peer = std::move(id);
        *id_ctx = ctx.release();
        return kOk;
    });
}
