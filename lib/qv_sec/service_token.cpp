// sec_start and sec_end: the service token and the modules started for it.
#include <cstdlib>
#include <cstring>
#include <new>

#include "context_token.h"
#include "errors.h"
#include "library_init.h"
#include "mechanism_list.h"
#include "mpm.h"

namespace {

void free_mech_data(sec_mech_data_t m) {
    std::memset(static_cast<void *>(m), 0, sizeof *m);
    free(m);
}

// Frees a token that sec_start could not complete: no module was started for
// it, so its mechanism data hold nothing of a module's.
void discard_token(sec_svc_token_t t) {
    for (sec_mech_data_t m = t->mdata_list; m != nullptr;) {
        sec_mech_data_t next = m->next;
        free_mech_data(m);
        m = next;
    }
    free(t->svc_name);
    pthread_mutex_destroy(&t->lock);
    std::memset(static_cast<void *>(t), 0, sizeof *t);
    free(t);
}

// Reads the configuration and reserves an entry for every record, in file
// order, stopping at the first failure; *first is the first record's entry.
qv_uint32_t reserve_configured(sec_mpm_entry_t *first) {
    *first = nullptr;
    SecMutexGuard guard(&SEC_STATE.lock);
    qv_uint32_t rc = sec__read_config();
    if (rc != 0) return rc;
    for (sec_config_rec_t r = SEC_STATE.config.cfg_recs; r != nullptr; r = r->next) {
        sec_mpm_entry_t entry;
        rc = sec__reserve_mpm(r, &entry);
        if (rc != 0) return rc;
        if (*first == nullptr) *first = entry;
    }
    return 0;
}

// Starts the first configured module for the token. Its failure does not
// fail sec_start: the status record keeps what the module reported and the
// error record is cleared.
qv_uint32_t start_first_module(sec_svc_token_t t, sec_mpm_entry_t entry, sec_status_t st, qv_uint32_t flags) {
    SecMutexGuard guard(&t->lock);
    sec_mech_data_t m;
    if (qv_uint32_t rc = sec__check_mech_data(t, entry, &m)) return rc;
    if ((m->state & 0x1u) == 0) {
        if (sec__mpm_start(entry, st, flags, &m->mtoken) == 0) {
            m->state |= 0x1u;
        } else {
            cu_set_no_error_1();
        }
    }
    return 0;
}

qv_int32_t start(sec_status_t st, qv_uint32_t flags, sec_token_t *stokenp) {
    if (st == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_start", 1, 0);
    *st = sec_status_desc{};
    if (stokenp == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, "sec_start");

    auto *t = static_cast<sec_svc_token_t>(calloc(1, sizeof(sec_svc_token_desc)));
    if (t == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    t->magic = SEC_SVC_TOKEN_MAGIC;
    sec__simple_init(&t->lock);
    t->state = kSvcStarted;
    // The process's imposed mechanisms allow an unauthenticated context only
    // when they name "none". That holds for the clients a service accepts as
    // much as for the contexts it starts itself: a server whose
    // QV_SEC_IMP_MECHS is set and lacks "none" refuses unauthenticated
    // clients. Taken once, here, like the rest of the token's settings.
    {
        SecErrorKeeper keep(nullptr);  // an over-long mnemonic is not sec_start's failure
        if (sec_unauthenticated_refused()) t->state |= kSvcRefuseUnauth;
    }
    t->sflags = flags;
    *stokenp = t;

    sec_mpm_entry_t first;
    qv_uint32_t rc = reserve_configured(&first);
    if (rc == 0 && (flags & SEC_F_DEFER_MPM_START) == 0 && first != nullptr)
        rc = start_first_module(t, first, st, flags);
    if (rc != 0) {
        discard_token(t);
        *stokenp = nullptr;
    }
    return static_cast<qv_int32_t>(rc);
}

qv_int32_t end(sec_status_t st, qv_uint32_t flags, sec_token_t stoken) {
    if (st == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_end", 1, 0);
    *st = sec_status_desc{};
    if (stoken == nullptr) return 0;
    auto *t = static_cast<sec_svc_token_t>(stoken);
    if (t->magic != SEC_SVC_TOKEN_MAGIC) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);

    qv_uint32_t rc = 0;
    {
        SecMutexGuard guard(&t->lock);
        // Only the last module's result survives: each call's code replaces
        // the one before. A record leaves the list only once its module has
        // ended it: a thread cancelled on the way leaves the rest for a
        // second sec_end, typically the caller's clean-up.
        while (sec_mech_data_t m = t->mdata_list) {
            if (m->state & 0x1u) {
                rc = sec__mpm_end(m->mpm, st, flags, m->mtoken);
                m->state &= ~0x1u;
            }
            t->mdata_list = m->next;
            free_mech_data(m);
        }
        free(t->svc_name);
        t->svc_name = nullptr;
    }
    pthread_mutex_destroy(&t->lock);
    std::memset(static_cast<void *>(t), 0, sizeof *t);
    free(t);
    return static_cast<qv_int32_t>(rc);
}

}  // namespace

extern "C" {

qv_int32_t sec_start(sec_status_t st, qv_uint32_t flags, sec_token_t *stokenp) {
    sec_init_once();
    sec_trace_api_entry(kTraceStart, st, flags, stokenp);
    qv_int32_t rc = start(st, flags, stokenp);
    sec_trace_api_exit(kTraceStart, rc, st);
    return rc;
}

qv_int32_t sec_end(sec_status_t st, qv_uint32_t flags, sec_token_t stoken) {
    sec_init_once();
    sec_trace_api_entry(kTraceEnd, st, flags, stoken);
    qv_int32_t rc = end(st, flags, stoken);
    sec_trace_api_exit(kTraceEnd, rc, st);
    return rc;
}

}  // extern "C"
