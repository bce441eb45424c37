#include "trace.h"

#include <cstring>

#include "cancel_state.h"
#include "qv_cu.h"

namespace {

// The six categories; all start switched off.
const tr_category_description kCategories[SEC_TRC_CATEGORIES] = {
    {SEC_TRC_ERRORS, "Errors", 0, 0}, {SEC_TRC_INFO, "Info", 0, 0},     {SEC_TRC_API, "API", 0, 0},
    {SEC_TRC_BUFFER, "Buffer", 0, 0}, {SEC_TRC_SVCTKN, "SVCTKN", 0, 0}, {SEC_TRC_CTXTKN, "CTXTKN", 0, 0},
};

constexpr qv_uint32_t kSvcTokenMagic = SEC_SVC_TOKEN_MAGIC;
constexpr qv_uint32_t kCtxTokenMagic = SEC_CTX_TOKEN_MAGIC;

void record_status(qv_uint32_t id, const char *name, qv_int32_t rc, sec_status_t st) {
    if (name != nullptr) {
        tr_record_data_1(kTraceComponent, id, 6, name, strlen(name) + 1, &rc, sizeof rc, &st->maj_stat,
                         sizeof st->maj_stat, &st->min_stat, sizeof st->min_stat, &st->mech_code,
                         sizeof st->mech_code, st->desc, strnlen(st->desc, sizeof st->desc - 1) + 1);
    } else {
        tr_record_data_1(kTraceComponent, id, 5, &rc, sizeof rc, &st->maj_stat, sizeof st->maj_stat,
                         &st->min_stat, sizeof st->min_stat, &st->mech_code, sizeof st->mech_code, st->desc,
                         strnlen(st->desc, sizeof st->desc - 1) + 1);
    }
}

}  // namespace

extern "C" {

tr_detail_level_t sec__trace_detail_levels[SEC_TRC_CATEGORIES] = {0, 0, 0, 0, 0, 0};

void sec__trace_register_qvsec(void) {
    // Registering must not disturb the caller's error record.
    cu_error_t *saved = nullptr;
    cu_get_error_1(&saved);
    tr_register_component_1(kTraceComponent, sec__trace_detail_levels, kCategories, SEC_TRC_CATEGORIES);
    cu_pset_error_1(saved);
    cu_rel_error_1(saved);
}

void sec__trace_unregister_qvsec(void) { tr_unregister_component_1(kTraceComponent); }

void sec__trace_routine_end(const char *name, qv_int32_t rc, sec_status_t st) {
    if (name == nullptr || !sec_trace_on(SEC_TRC_API)) return;
    SecCancelDisabled no_cancel;  // as for sec_trace_api_exit
    if (sec_trace_on(SEC_TRC_API, kTraceData)) {
        if (st == nullptr) {
            tr_record_data_1(kTraceComponent, kTraceRoutineEndRc, 2, name, strlen(name) + 1, &rc, sizeof rc);
        } else {
            record_status(kTraceRoutineEndStatus, name, rc, st);
        }
    } else if (sec_trace_on(SEC_TRC_API)) {
        tr_record_strings_1(kTraceComponent, kTraceRoutineEnd, 1, name);
    }
}

void sec__trace_buffer(sec_buffer_t buf) {
    if (buf == nullptr) return;
    if (sec_trace_on(SEC_TRC_BUFFER, kTraceData)) {
        qv_int32_t len = buf->length;
        size_t n = (buf->value != nullptr && len > 0) ? static_cast<size_t>(len) : 0;
        tr_record_data_1(kTraceComponent, kTraceBufferWhole, 2, &len, sizeof len, buf->value, n);
    } else if (sec_trace_on(SEC_TRC_BUFFER)) {
        qv_uint32_t first = 0;
        if (buf->value != nullptr && buf->length >= 4) std::memcpy(&first, buf->value, sizeof first);
        tr_record_data_1(kTraceComponent, kTraceBufferWord, 1, &first, sizeof first);
    }
}

void sec__trace_service_token(sec_svc_token_t token) {
    if (token == nullptr || !sec_trace_on(SEC_TRC_SVCTKN)) return;
    if (token->magic != kSvcTokenMagic) tr_record_id_1(kTraceComponent, kTraceBadServiceToken);
}

void sec__trace_context_token(void *token) {
    if (token == nullptr || !sec_trace_on(SEC_TRC_CTXTKN)) return;
    qv_uint32_t magic;
    std::memcpy(&magic, token, sizeof magic);
    if (magic != kCtxTokenMagic) tr_record_id_1(kTraceComponent, kTraceBadContextToken);
}

}  // extern "C"

void sec_trace_api_exit(qv_uint32_t id_plain, qv_uint32_t id_rc, qv_uint32_t id_status, qv_int32_t rc,
                        sec_status_t st) {
    if (!sec_trace_on(SEC_TRC_API)) return;
    // The routine's work is done: a cancellation acted on at this write would
    // hide its outcome from the caller, whose clean-up might then end a token
    // that sec_end or sec_end_context has already freed. It takes effect at
    // the caller's next cancellation point instead.
    SecCancelDisabled no_cancel;
    if (sec_trace_on(SEC_TRC_API, kTraceData)) {
        if (st == nullptr) {
            tr_record_data_1(kTraceComponent, id_rc, 1, &rc, sizeof rc);
        } else {
            record_status(id_status, nullptr, rc, st);
        }
    } else if (sec_trace_on(SEC_TRC_API)) {
        tr_record_id_1(kTraceComponent, id_plain);
    }
}
