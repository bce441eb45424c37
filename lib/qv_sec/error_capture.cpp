// Routines that try several modules in turn report the first failure, not the
// last: the first failing attempt is kept per thread with a copy of its error
// record, and given back once every attempt has failed.
#include <cstdlib>
#include <cstring>

#include "errors.h"

namespace {
// The record's copy of the error is released too: the thread's own record
// was reinstated from a copy, so nothing else points at it.
void release_record(sec_error_t rec) {
    cu_rel_error_1(rec->errp);
    std::memset(rec, 0, sizeof *rec);
    free(rec);
}
}  // namespace

extern "C" {

qv_int32_t sec__error_ok = 0;
pthread_key_t sec__error_key;

qv_int32_t sec__error_capture(qv_int32_t rc, sec_status_t st) {
    if (!sec__error_ok || pthread_getspecific(sec__error_key) != nullptr) return 0;
    auto *rec = static_cast<sec_error_t>(calloc(1, sizeof(sec_error_desc)));
    if (rec == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    rec->rc = rc;
    if (st != nullptr) rec->st = *st;
    cu_get_error_1(&rec->errp);
    pthread_setspecific(sec__error_key, rec);
    return 0;
}

void sec__error_retrieve(qv_int32_t *rc, sec_status_t st) {
    *st = sec_status_desc{};
    if (!sec__error_ok) {
        st->maj_stat = 25;
        return;
    }
    auto *rec = static_cast<sec_error_t>(pthread_getspecific(sec__error_key));
    if (rec == nullptr) return;
    *rc = rec->rc;
    *st = rec->st;
    cu_pset_error_1(rec->errp);
    pthread_setspecific(sec__error_key, nullptr);
    // Once detached nothing can reach the record again, so it is released
    // here rather than leaked on every failed series.
    release_record(rec);
}

void sec__error_clear(sec_status_t st) {
    if (!sec__error_ok) return;
    auto *rec = static_cast<sec_error_t>(pthread_getspecific(sec__error_key));
    if (rec == nullptr) return;
    pthread_setspecific(sec__error_key, nullptr);
    release_record(rec);
    *st = sec_status_desc{};
}

void sec__error_cleanup(void *data) {
    auto *rec = static_cast<sec_error_t>(data);
    if (rec == nullptr) return;
    release_record(rec);
    pthread_setspecific(sec__error_key, nullptr);
}

}  // extern "C"
