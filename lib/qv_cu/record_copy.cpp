// Deep copies and release of error records. Records handed to callers and
// the records kept per thread have the same shape: every string and the
// argument array are malloc'ed and owned by the record.
#include <cstdlib>
#include <cstring>

#include "cu_internal.h"

namespace qvcu {
namespace {

// strdup that keeps NULL; ok is cleared when memory runs out.
char *dup_or_null(const char *s, bool &ok) {
    if (s == nullptr) return nullptr;
    char *d = strdup(s);
    if (d == nullptr) ok = false;
    return d;
}

}  // namespace

void free_record(cu_error_t *rec) {
    if (rec == nullptr) return;
    free(rec->cu_ffdc_id);
    free(rec->cu_msg_cat);
    free(rec->cu_msg_default);
    if (rec->cu_args != nullptr) {
        for (qv_uint32_t i = 0; i < rec->cu_arg_cnt; ++i)
            if (rec->cu_args[i].cu_arg_type == CU_ARG_STRING) free(rec->cu_args[i].cu_arg_value.cu_arg_string);
        free(rec->cu_args);
    }
    std::memset(rec, 0, sizeof *rec);
    free(rec);
}

cu_error_t *copy_record(const cu_error_t *src) {
    auto *rec = static_cast<cu_error_t *>(calloc(1, sizeof(cu_error_t)));
    if (rec == nullptr) return nullptr;
    bool ok = true;
    rec->cu_error_id = src->cu_error_id;
    rec->cu_msg_set = src->cu_msg_set;
    rec->cu_msg_num = src->cu_msg_num;
    rec->cu_ffdc_id = dup_or_null(src->cu_ffdc_id, ok);
    rec->cu_msg_cat = dup_or_null(src->cu_msg_cat, ok);
    rec->cu_msg_default = dup_or_null(src->cu_msg_default, ok);
    // A record that claims arguments but has no array has none.
    qv_uint32_t n = src->cu_args != nullptr ? src->cu_arg_cnt : 0;
    if (n > 0) {
        rec->cu_args = static_cast<cu_arg_t *>(calloc(n, sizeof(cu_arg_t)));
        if (rec->cu_args == nullptr) {
            ok = false;
        } else {
            rec->cu_arg_cnt = n;
            for (qv_uint32_t i = 0; i < n; ++i) {
                rec->cu_args[i] = src->cu_args[i];
                if (src->cu_args[i].cu_arg_type == CU_ARG_STRING)
                    rec->cu_args[i].cu_arg_value.cu_arg_string =
                        dup_or_null(src->cu_args[i].cu_arg_value.cu_arg_string, ok);
            }
        }
    }
    if (!ok) {
        free_record(rec);
        return nullptr;
    }
    return rec;
}

}  // namespace qvcu
