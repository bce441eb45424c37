// Placeholder until the real error records land: keeps the id and the
// message coordinates, formats no arguments.
#include <cstdlib>
#include <cstring>
#include "qv_cu.h"

namespace {
thread_local cu_error_t t_error{};
thread_local bool t_set = false;
char *dup(const char *s) { return s ? strdup(s) : nullptr; }
}  // namespace

extern "C" {
int cu_set_error_1(int id, const char *, const char *cat, int set, int num, const char *def, ...) {
    cu_set_no_error_1();
    t_error.cu_error_id = id; t_error.cu_msg_cat = dup(cat); t_error.cu_msg_set = set;
    t_error.cu_msg_num = num; t_error.cu_msg_default = dup(def); t_set = true;
    return id;
}
int cu_get_error_1(cu_error_t **err) {
    auto *e = static_cast<cu_error_t *>(calloc(1, sizeof(cu_error_t)));
    if (t_set) { *e = t_error; e->cu_msg_cat = dup(t_error.cu_msg_cat); e->cu_msg_default = dup(t_error.cu_msg_default); }
    *err = e; return 0;
}
int cu_pset_error_1(const cu_error_t *err) {
    cu_set_no_error_1();
    if (err && err->cu_error_id) { t_error = *err; t_error.cu_msg_cat = dup(err->cu_msg_cat); t_error.cu_msg_default = dup(err->cu_msg_default); t_set = true; }
    return 0;
}
int cu_set_no_error_1(void) {
    free(t_error.cu_msg_cat); free(t_error.cu_msg_default); t_error = cu_error_t{}; t_set = false; return 0;
}
int cu_get_errmsg_1(const cu_error_t *err, char **msg) { *msg = dup(err->cu_msg_default ? err->cu_msg_default : ""); return 0; }
void cu_rel_error_1(cu_error_t *e) { if (e) { free(e->cu_msg_cat); free(e->cu_msg_default); free(e); } }
void cu_rel_errmsg_1(char *m) { free(m); }
int cu_get_ctr_1(qv_uint64_t *c) { *c = 0; return 0; }
int cu_get_procspeed_1(qv_uint64_t *t) { *t = 1000000000; return 0; }
int cu_cvt_time_1(qv_uint64_t c, qv_uint64_t t, cu_timeinfo_t *ti) { ti->cu_sec = c / t; ti->cu_nsec = c % t; return 0; }
}
