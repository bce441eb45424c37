// Module and service life: loading, service handles, service and user login,
// context queries, teardown and the release of output buffers.
#include <sodium.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "byte_io.h"
#include "local_mech.h"

using namespace qvlocal;

namespace {

// A context past its establishment, locked by the caller's guard.
Status completed_context(void *token, Context *&ctx, std::unique_lock<std::mutex> &guard) {
    ctx = as_context(token);
    if (ctx == nullptr) return kBadHandle;
    guard = std::unique_lock<std::mutex>(ctx->lock);
    if (ctx->phase != Phase::kComplete) return kWrongState;
    return kOk;
}

}  // namespace

extern "C" void mpm_init(void) {
    // Starts the cryptographic library and fixes the host name before any
    // thread needs them; a failure is reported by the routines that need it.
    (void)crypto_ready();
    (void)host_name();
    (void)process_generation();
}

extern "C" qv_uint32_t mpm_start(qv_uint32_t *min_stat, qv_uint32_t flags, void **token) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (token == nullptr) return kBadArgument;
        if (!crypto_ready()) return kCryptoUnavailable;
        auto svc = std::make_unique<Service>();
        svc->flags = flags;
        *token = svc.release();
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_end(qv_uint32_t *min_stat, qv_uint32_t flags, void *token) {
    (void)flags;
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        Service *svc = as_service(token);
        if (svc == nullptr) return kBadHandle;
        delete svc;
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_service_cleanup(qv_uint32_t *min_stat, void *token, qv_uint32_t flags) {
    (void)flags;
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        Service *svc = as_service(token);
        if (svc == nullptr) return kBadHandle;
        std::lock_guard<std::mutex> g(svc->lock);
        svc->name.clear();
        return kOk;
    });
}

// The service's credentials are its process's, which the kernel reports; the
// login only records the name that clients may target.
extern "C" qv_uint32_t mpm_login_as_service(qv_uint32_t *min_stat, char *svc_name, void *token) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        Service *svc = as_service(token);
        if (svc == nullptr) return kBadHandle;
        if (svc_name == nullptr) return kBadArgument;
        size_t len = strnlen(svc_name, kMaxServiceName + 1);
        if (len == 0 || len > kMaxServiceName) return kBadArgument;
        std::lock_guard<std::mutex> g(svc->lock);
        svc->name.assign(svc_name, len);
        return kOk;
    });
}

// A process cannot take another user's kernel credentials, and this
// mechanism has no password: logging in succeeds only as the process's own
// user on this host. id holds a client id as mpm_get_client_id writes it.
extern "C" qv_uint32_t mpm_login_as_user(qv_uint32_t *min_stat, sec_buffer_t id, void *authenticator,
                                         qv_uint32_t flags, void *token) {
    (void)authenticator;
    (void)flags;
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (as_service(token) == nullptr) return kBadHandle;
        if (id == nullptr) return kBadArgument;
        ByteReader r(bytes_of(*id));
        uint8_t version;
        uint32_t uid, gid;
        if (!r.u8(version) || !r.u32be(uid) || !r.u32be(gid)) {
            *minor = kReasonTruncated;
            return kBadToken;
        }
        if (version != 1) {
            *minor = kReasonVersion;
            return kBadToken;
        }
        std::span<const uint8_t> host = r.rest();
        bool this_host = host.size() == host_name().size() &&
                         std::memcmp(host.data(), host_name().data(), host.size()) == 0;
        if (!this_host || uid != own_credentials().uid) return kNotPermitted;
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_renew_identity(qv_uint32_t *min_stat, void *token, qv_int32_t *lifetime) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (as_service(token) == nullptr) return kBadHandle;
        if (lifetime != nullptr) *lifetime = kIndefiniteLifetime;
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_get_target_name(qv_uint32_t *min_stat, void *token, char *service, char *host,
                                           qv_int32_t *length, char *name) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (as_service(token) == nullptr) return kBadHandle;
        if (service == nullptr || service[0] == '\0' || length == nullptr || *length < 0) return kBadArgument;
        std::string target = std::string(service) + "@" + (host != nullptr && host[0] != '\0' ? host : host_name());
        const auto needed = static_cast<qv_int32_t>(target.size() + 1);
        if (needed > *length || name == nullptr) {
            *length = needed;
            return kBufferTooSmall;
        }
        std::memcpy(name, target.c_str(), target.size() + 1);
        *length = needed;
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_get_ctx_lifetime(qv_uint32_t *min_stat, void *token, qv_int32_t *lifetime) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (lifetime == nullptr) return kBadArgument;
        Context *ctx;
        std::unique_lock<std::mutex> guard;
        if (Status s = completed_context(token, ctx, guard); s != kOk) return s;
        *lifetime = kIndefiniteLifetime;
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_get_ctx_flags(qv_uint32_t *min_stat, void *token, qv_uint32_t *flags) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (flags == nullptr) return kBadArgument;
        Context *ctx;
        std::unique_lock<std::mutex> guard;
        if (Status s = completed_context(token, ctx, guard); s != kOk) return s;
        *flags = ctx->flags;
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_get_ctx_mpm(qv_uint32_t *min_stat, void *token, char *mpm) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (mpm == nullptr) return kBadArgument;
        if (as_context(token) == nullptr) return kBadHandle;
        std::memcpy(mpm, kMnemonic, sizeof kMnemonic);
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_end_context(qv_uint32_t *min_stat, void *token) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        Context *ctx = as_context(token);
        if (ctx == nullptr) return kBadHandle;
        delete ctx;  // the destructors wipe the keys
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_release_buffer(qv_uint32_t *min_stat, sec_buffer_t buff) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (buff == nullptr) return kBadArgument;
        // Outputs may be unsealed data: wiped before they go.
        if (buff->value != nullptr && buff->length > 0) sodium_memzero(buff->value, static_cast<size_t>(buff->length));
        std::free(buff->value);
        buff->length = 0;
        buff->value = nullptr;
        return kOk;
    });
}
