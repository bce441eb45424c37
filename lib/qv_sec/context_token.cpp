// Allocation and destruction of context tokens.
#include "context_token.h"

#include <cstring>
#include <unistd.h>

#include "errors.h"
#include "mpm.h"

namespace {

// sec_setup_socket marks a path it bound itself with this bit of the type.
constexpr qv_uint32_t kPathBoundByLibrary = 0x80000000u;

}  // namespace

qv_int32_t sec_no_service_name() { return sec_report(SEC_S_NO_MEMORY, MSG_2650_004); }

sec_ctx_token_t sec_ctx_allocate(sec_token_t svc) {
    auto *c = static_cast<sec_ctx_token_t>(calloc(1, sizeof(sec_ctx_token_desc)));
    if (c == nullptr) return nullptr;
    // The magic is the four characters, whatever the byte order.
    std::memcpy(&c->magic, "tnoc", sizeof c->magic);
    c->svc_token = svc;
    return c;
}

void sec_ctx_end_module_context(sec_ctx_token_t c, sec_status_t st) {
    if (c->mdata.mpm == nullptr || c->mdata.mtoken == nullptr) return;
    sec_status_desc scratch{};
    SecErrorKeeper keep(st);
    sec__mpm_end_context(c->mdata.mpm, st != nullptr ? st : &scratch, c->mdata.mtoken);
    c->mdata.mtoken = nullptr;
}

void sec_ctx_free(sec_ctx_token_t c) {
    if (c->sinfo.path != nullptr) {
        // The socket file is the context's: nobody else knows to remove it.
        if (c->sinfo.type & kPathBoundByLibrary) unlink(c->sinfo.path);
        free(c->sinfo.path);
    }
    sec__free_privset_info(&c->privset);
    std::memset(static_cast<void *>(c), 0, sizeof *c);
    free(c);
}

void sec_ctx_discard(sec_token_t *ctokenp, sec_status_t st) {
    auto *c = static_cast<sec_ctx_token_t>(*ctokenp);
    sec_ctx_end_module_context(c, st);
    sec_ctx_free(c);
    *ctokenp = nullptr;
}

qv_int32_t sec_svc_started_mech_data(sec_svc_token_t svc, sec_mpm_entry_t entry, sec_status_t st,
                                     sec_mech_data_t *rec) {
    sec_mech_data_t m = nullptr;
    if (qv_uint32_t rc = sec__check_mech_data(svc, entry, &m)) return static_cast<qv_int32_t>(rc);
    if ((m->state & kMechStarted) == 0) {
        if (qv_uint32_t rc = sec__mpm_start(entry, st, svc->sflags, &m->mtoken)) return static_cast<qv_int32_t>(rc);
        m->state |= kMechStarted;
    }
    *rec = m;
    return 0;
}

qv_int32_t sec_ctx_prepare_module(sec_svc_token_t svc, sec_mpm_entry_t entry, sec_status_t st,
                                  qv_uint32_t login_bit, sec_mech_data_t *rec) {
    SecMutexGuard guard(&svc->lock);
    sec_mech_data_t m = nullptr;
    if (qv_int32_t rc = sec_svc_started_mech_data(svc, entry, st, &m)) return rc;
    if ((sec_svc_state(svc) & kSvcLoginAsService) && (m->state & kMechClientLogin) == 0) {
        if (svc->svc_name == nullptr) return sec_no_service_name();
        if (qv_uint32_t rc = sec__mpm_login_as_service(entry, st, svc->svc_name, m->mtoken))
            return static_cast<qv_int32_t>(rc);
        m->state |= login_bit;
    }
    *rec = m;
    return 0;
}
