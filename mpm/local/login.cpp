// The routines of "local" that depend on what a host is to it: loading, user
// login (only as the process's own user on this host) and target names.
#include <sodium.h>

#include <cstring>

#include "byte_io.h"
#include "local_mech.h"

namespace qvmech {
extern const char kMnemonic[] = "local";
// The kernel says who the peer is: the service handle needs nothing more.
Status start_service(Service &, qv_uint32_t *) { return kOk; }
}  // namespace qvmech

using namespace qvlocal;

extern "C" void mpm_init(void) {
    // Starts the cryptographic library and fixes the host name before any
    // thread needs them; a failure is reported by the routines that need it.
    (void)crypto_ready();
    (void)host_name();
    (void)process_generation();
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
