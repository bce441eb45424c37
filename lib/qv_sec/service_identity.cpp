// The service's own identity in its mechanisms: sec_login_as_service,
// sec_renew_identity and sec_login_as_user.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "context_token.h"
#include "errors.h"
#include "library_init.h"
#include "mpm.h"
#include "trace.h"

namespace {

// Service token state (kSvcStarted is in context_token.h).
constexpr qv_uint32_t kSvcRenewable = 0x2u;
constexpr qv_uint32_t kSvcLoginRequested = kSvcLoginAsService;
// Mechanism data state (kMechStarted is in context_token.h): logged in as
// the service.
constexpr qv_uint32_t kMechLoggedIn = 0x4u;

struct FreeList {
    void operator()(sec_mpm_entry_t *p) const { std::free(p); }
};
using MpmList = std::unique_ptr<sec_mpm_entry_t[], FreeList>;

// The usable modules in table order, read under the global state mutex.
qv_int32_t usable_modules(MpmList &list) {
    sec_mpm_entry_t *raw = nullptr;
    qv_uint32_t rc;
    {
        SecMutexGuard guard(&SEC_STATE.lock);
        rc = sec__read_reserve_select(&raw);
    }
    list.reset(raw);
    return static_cast<qv_int32_t>(rc);
}

// The per-module step: under the token's mutex, the token's data for the
// module, the module started for the token when it is not yet, then `work`
// on that data (a module call made with the token's mutex held, so that
// context routines of other threads see the record whole).
template <typename Work>
qv_int32_t with_started_module(sec_svc_token_t svc, sec_mpm_entry_t entry, sec_status_t st, Work &&work) {
    SecMutexGuard guard(&svc->lock);
    sec_mech_data_t m = nullptr;
    if (qv_uint32_t rc = sec__check_mech_data(svc, entry, &m)) return static_cast<qv_int32_t>(rc);
    if ((m->state & kMechStarted) == 0) {
        if (qv_uint32_t rc = sec__mpm_start(entry, st, svc->sflags, &m->mtoken)) return static_cast<qv_int32_t>(rc);
        m->state |= kMechStarted;
    }
    return work(m);
}

// The token's state word, which service login changes under the token's mutex.
qv_uint32_t service_state(sec_svc_token_t svc) {
    SecMutexGuard guard(&svc->lock);
    return sec_svc_state(svc);
}

qv_int32_t login_service_to(sec_svc_token_t svc, sec_mech_data_t m, sec_status_t st) {
    if (svc->svc_name == nullptr) return sec_no_service_name();
    if (qv_uint32_t rc = sec__mpm_login_as_service(m->mpm, st, svc->svc_name, m->mtoken))
        return static_cast<qv_int32_t>(rc);
    m->state |= kMechLoggedIn;
    return 0;
}

// Runs step on every usable module, keeping the first failure. Success when
// one module succeeded; with no module configured at all there is nothing to
// succeed with, which is the configuration's fault.
template <typename Step>
qv_int32_t on_every_module(sec_status_t st, Step &&step) {
    MpmList list;
    if (qv_int32_t rc = usable_modules(list)) return rc;
    sec__error_clear(st);
    bool any = false;
    qv_int32_t first_rc = 0;
    for (sec_mpm_entry_t *e = list.get(); *e != nullptr; ++e) {
        qv_int32_t rc = step(*e);
        if (rc == 0) {
            any = true;
            continue;
        }
        if (first_rc == 0) first_rc = rc;
        sec__error_capture(rc, st);
    }
    list.reset();
    if (any) {
        sec__error_clear(st);
        *st = sec_status_desc{};
        cu_set_no_error_1();
        return 0;
    }
    if (first_rc == 0) return sec_report(SEC_S_CONFIG, MSG_2650_019);
    qv_int32_t rc = first_rc;
    sec__error_retrieve(&rc, st);
    return rc;
}

qv_int32_t login_as_service(sec_status_t st, char *svc_name, sec_token_t stoken) {
    constexpr const char *kRoutine = "sec_login_as_service";
    if (st == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kRoutine);
    *st = sec_status_desc{};
    if (svc_name == nullptr || svc_name[0] == '\0' || stoken == nullptr)
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kRoutine);
    auto *svc = static_cast<sec_svc_token_t>(stoken);
    if (svc->magic != SEC_SVC_TOKEN_MAGIC) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);
    {
        // Tested and set under the token's mutex, so that of two threads
        // logging the same token in only one gets through.
        SecMutexGuard guard(&svc->lock);
        if ((sec_svc_state(svc) & (kSvcStarted | kSvcLoginRequested)) != kSvcStarted)
            return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);
        sec_svc_state_set(svc, kSvcLoginRequested);
        svc->svc_name = strdup(svc_name);
        if (svc->svc_name == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    }
    return on_every_module(st, [&](sec_mpm_entry_t entry) {
        return with_started_module(svc, entry, st, [&](sec_mech_data_t m) {
            return (m->state & kMechLoggedIn) != 0 ? 0 : login_service_to(svc, m, st);
        });
    });
}

qv_int32_t renew_identity(sec_status_t st, time_t ltime, sec_token_t stoken, bool &traced_exit) {
    constexpr const char *kRoutine = "sec_renew_identity";
    if (st == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kRoutine);
    *st = sec_status_desc{};
    if (stoken == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kRoutine);
    auto *svc = static_cast<sec_svc_token_t>(stoken);
    if (svc->magic != SEC_SVC_TOKEN_MAGIC) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);
    if (ltime == 0) {
        traced_exit = false;
        return 0;
    }
    const qv_uint32_t state = service_state(svc);
    if ((state & (kSvcRenewable | kSvcLoginRequested)) == 0) return 0;  // never logged in: nothing to renew
    const bool logged_in = (state & kSvcLoginRequested) != 0;
    // The modules take the lifetime as a 32-bit count; a longer one is cut to
    // the longest they can express rather than wrapped.
    const qv_int32_t lifetime = ltime > INT32_MAX ? INT32_MAX : (ltime < INT32_MIN ? INT32_MIN : static_cast<qv_int32_t>(ltime));
    return on_every_module(st, [&](sec_mpm_entry_t entry) {
        return with_started_module(svc, entry, st, [&](sec_mech_data_t m) -> qv_int32_t {
            if (logged_in && (m->state & kMechLoggedIn) == 0) {
                if (qv_int32_t rc = login_service_to(svc, m, st)) return rc;
            }
            qv_int32_t value = lifetime;  // each module gets its own copy to write into
            return static_cast<qv_int32_t>(sec__mpm_renew_identity(entry, st, m->mtoken, &value));
        });
    });
}

qv_int32_t login_as_user(sec_status_t st, sec_token_t stoken, sec_buffer_t id, void *authenticator,
                         qv_uint32_t flags) {
    constexpr const char *kRoutine = "sec_login_as_user";
    if (st == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kRoutine);
    *st = sec_status_desc{};
    if (stoken == nullptr || id == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kRoutine);
    auto *svc = static_cast<sec_svc_token_t>(stoken);
    if (svc->magic != SEC_SVC_TOKEN_MAGIC || (service_state(svc) & kSvcStarted) == 0)
        return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);

    // Type, version and mechanism code, then the mechanism's own bytes. An
    // unknown version is reported as a corrupt buffer here.
    const auto header = static_cast<qv_int32_t>(sec__buff_tvm_len);
    const auto *bytes = static_cast<const unsigned char *>(id->value);
    if (id->length < header || bytes == nullptr || bytes[0] != SEC_BUF_TYPED_ID || (bytes[1] != 1 && bytes[1] != 2))
        return sec_report(SEC_S_BAD_BUFFER, MSG_2650_005);
    const qv_uint32_t code = static_cast<qv_uint32_t>(bytes[2]) << 24 | static_cast<qv_uint32_t>(bytes[3]) << 16 |
                             static_cast<qv_uint32_t>(bytes[4]) << 8 | bytes[5];
    sec_buffer_desc body{id->length - header, nullptr};
    if (body.length > 0) body.value = const_cast<unsigned char *>(bytes + header);

    MpmList list;
    if (qv_int32_t rc = usable_modules(list)) return rc;
    sec_mpm_entry_t entry = nullptr;
    for (sec_mpm_entry_t *e = list.get(); *e != nullptr; ++e) {
        if ((*e)->code == code) {
            entry = *e;
            break;
        }
    }
    if (entry == nullptr) return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_006);
    return with_started_module(svc, entry, st, [&](sec_mech_data_t m) {
        return static_cast<qv_int32_t>(sec__mpm_login_as_user(entry, st, m->mtoken, &body, authenticator, flags));
    });
}

}  // namespace

extern "C" {

qv_int32_t sec_login_as_service(sec_status_t st, char *svc_name, sec_token_t stoken) {
    sec_init_once();
    sec_trace_api_entry(kTraceLoginAsService, st, svc_name, stoken);
    qv_int32_t rc = sec_guard([&] { return login_as_service(st, svc_name, stoken); });
    sec_trace_api_exit(kTraceLoginAsService, rc, st);
    return rc;
}

qv_int32_t sec_renew_identity(sec_status_t st, time_t ltime, sec_token_t stoken) {
    sec_init_once();
    sec_trace_api_entry(kTraceRenewIdentity, st, ltime, stoken);
    bool traced_exit = true;
    qv_int32_t rc = sec_guard([&] { return renew_identity(st, ltime, stoken, traced_exit); });
    // A zero lifetime returns at once, without an exit record.
    if (traced_exit) sec_trace_api_exit(kTraceRenewIdentity, rc, st);
    return rc;
}

qv_int32_t sec_login_as_user(sec_status_t st, sec_token_t stoken, sec_buffer_t id, void *authenticator,
                             qv_uint32_t flags) {
    sec_init_once();
    sec_trace_api_entry(kTraceLoginAsUser, st, stoken, id, authenticator, flags);
    qv_int32_t rc = sec_guard([&] { return login_as_user(st, stoken, id, authenticator, flags); });
    sec_trace_api_exit(kTraceLoginAsUser, rc, st);
    return rc;
}

}  // extern "C"
