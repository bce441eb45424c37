// The module table: one entry per mechanism code met in the configuration
// file over the life of the process (at most 8), never removed. Membership
// changes under SEC_STATE.lock.
#include <cstdlib>
#include <cstring>

#include "errors.h"
#include "library_init.h"
#include "mpm.h"

namespace {

bool entry_is_free(const sec_mpm_entry_desc &e) { return sec_mpm_state(e) == 0; }

// Fills a free entry from a configuration record; on failure the entry stays
// free and nothing is left allocated.
qv_uint32_t fill_entry(sec_mpm_entry_desc &e, const sec_config_rec_desc &rec) {
    char *name = rec.name != nullptr ? strdup(rec.name) : nullptr;
    char *path = rec.path != nullptr ? strdup(rec.path) : nullptr;
    if ((rec.name != nullptr && name == nullptr) || (rec.path != nullptr && path == nullptr)) {
        free(name);
        free(path);
        return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    }
    e.code = rec.code;
    e.name = name;
    e.path = path;
    sec_mpm_state_store(e, SEC_MPM_S_RESERVED);
    SEC_STATE.mpms.count += 1;
    return 0;
}

}  // namespace

extern "C" {

qv_uint32_t sec__reserve_mpm(sec_config_rec_t rec, sec_mpm_entry_t *entry) {
    *entry = nullptr;
    sec_mpm_desc &mpms = SEC_STATE.mpms;
    sec_mpm_entry_t candidate = nullptr;
    if (mpms.count == 0) {
        candidate = &mpms.entries[0];
    } else {
        // Used entries are the first `count` ones, but the scan does not rely
        // on it: it looks at every entry for the code and keeps the first
        // free one.
        for (sec_mpm_entry_desc &e : mpms.entries) {
            if (entry_is_free(e)) {
                if (candidate == nullptr) candidate = &e;
                continue;
            }
            if (e.code == rec->code) {
                sec_mpm_state_clear(e, SEC_MPM_S_NOT_CONFIGURED);
                *entry = &e;
                return 0;
            }
        }
        if (candidate == nullptr) return sec_report(SEC_S_CONFIG, MSG_2650_019);
    }
    qv_uint32_t rc = fill_entry(*candidate, *rec);
    if (rc == 0) *entry = candidate;
    return rc;
}

qv_uint32_t sec__select_mpms(sec_mpm_entry_t **list) {
    sec_mpm_desc &mpms = SEC_STATE.mpms;
    int count = mpms.count < 0 ? 0 : (mpms.count > SEC_MPM_MAX_ENTRIES ? SEC_MPM_MAX_ENTRIES : mpms.count);
    auto *out = static_cast<sec_mpm_entry_t *>(calloc(static_cast<size_t>(count) + 1, sizeof(sec_mpm_entry_t)));
    if (out == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    int n = 0;
    for (int i = 0; i < count; ++i) {
        if ((sec_mpm_state(mpms.entries[i]) & SEC_MPM_S_NOT_CONFIGURED) == 0) out[n++] = &mpms.entries[i];
    }
    *list = out;
    return 0;
}

qv_uint32_t sec__read_reserve_select(sec_mpm_entry_t **list) {
    qv_uint32_t rc = sec__read_config();
    if (rc != 0) return rc;
    for (sec_config_rec_t r = SEC_STATE.config.cfg_recs; r != nullptr; r = r->next) {
        sec_mpm_entry_t entry;
        rc = sec__reserve_mpm(r, &entry);
        if (rc != 0) return rc;
    }
    return list != nullptr ? sec__select_mpms(list) : 0;
}

sec_mpm_entry_t sec__get_mpm_entry(qv_uint32_t code) {
    sec_init_once();
    SecMutexGuard guard(&SEC_STATE.lock);
    sec_mpm_desc &mpms = SEC_STATE.mpms;
    for (int i = 0; i < mpms.count && i < SEC_MPM_MAX_ENTRIES; ++i) {
        if (mpms.entries[i].code == code && !entry_is_free(mpms.entries[i])) return &mpms.entries[i];
    }
    return nullptr;
}

qv_uint32_t sec__check_mech_data(sec_svc_token_t svc, sec_mpm_entry_t entry, sec_mech_data_t *mdata) {
    for (sec_mech_data_t m = svc->mdata_list; m != nullptr; m = m->next) {
        if (m->mpm == entry) {
            *mdata = m;
            return 0;
        }
    }
    auto *m = static_cast<sec_mech_data_t>(calloc(1, sizeof(sec_mech_data_desc)));
    if (m == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    m->mpm = entry;
    m->next = svc->mdata_list;
    svc->mdata_list = m;
    *mdata = m;
    return 0;
}

qv_uint32_t sec__check_mech_data2(sec_svc_token_t svc, qv_uint32_t code, sec_mech_data_t *mdata) {
    // The state lock is released before the token's mutex is taken: the lock
    // order never has a token's mutex outside the state lock.
    sec_mpm_entry_t entry = sec__get_mpm_entry(code);
    if (entry == nullptr) return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_070, code);
    SecMutexGuard guard(&svc->lock);
    return sec__check_mech_data(svc, entry, mdata);
}

}  // extern "C"
