// Service handles, service login, context queries, teardown and the release
// of output buffers: the same in every module of this family.
#include <sodium.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <cstring>
#include <memory>

#include "mech_common.h"

using namespace qvmech;

namespace {

// A context past its establishment, locked by the caller's guard.
Status completed_context(void *token, Context *&ctx, std::unique_lock<std::mutex> &guard) {
    ctx = as_context(token);
    if (ctx == nullptr) return kBadHandle;
    guard = std::unique_lock<std::mutex>(ctx->lock);
    if (ctx->phase != Phase::kComplete) return kWrongState;
    return kOk;
}

// Seconds until expiry (UNIX time), 0 once past; 0 as expiry: indefinite.
qv_int32_t remaining_lifetime(int64_t expiry) {
    if (expiry == 0) return kIndefiniteLifetime;
    const int64_t left = expiry - static_cast<int64_t>(time(nullptr));
    return left <= 0 ? 0 : static_cast<qv_int32_t>(std::min<int64_t>(left, kIndefiniteLifetime - 1));
}

}  // namespace


extern "C" qv_uint32_t mpm_start(qv_uint32_t *min_stat, qv_uint32_t flags, void **token) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (token == nullptr) return kBadArgument;
        if (!crypto_ready()) return kCryptoUnavailable;
        auto svc = std::make_unique<Service>();
        svc->flags = flags;
        if (Status s = start_service(*svc, minor); s != kOk) return s;
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


extern "C" qv_uint32_t mpm_renew_identity(qv_uint32_t *min_stat, void *token, qv_int32_t *lifetime) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (as_service(token) == nullptr) return kBadHandle;
        if (lifetime != nullptr) *lifetime = kIndefiniteLifetime;
        return kOk;
    });
}


extern "C" qv_uint32_t mpm_get_ctx_lifetime(qv_uint32_t *min_stat, void *token, qv_int32_t *lifetime) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (lifetime == nullptr) return kBadArgument;
        Context *ctx;
        std::unique_lock<std::mutex> guard;
        if (Status s = completed_context(token, ctx, guard); s != kOk) return s;
        *lifetime = remaining_lifetime(ctx->expiry);
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
        std::memcpy(mpm, kMnemonic, std::strlen(kMnemonic) + 1);
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
