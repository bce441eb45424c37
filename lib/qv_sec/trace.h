// The library's trace component "_SEA". Every record is guarded by a test of
// one byte of the level array, so disabled tracing costs no call and no
// argument marshalling.
#pragma once

#include <cstddef>
#include <tuple>

#include "qv_sec_internal.h"
#include "qv_tr.h"
#include "trace_ids.h"

enum sec_trace_category : int {
    SEC_TRC_ERRORS = 0,
    SEC_TRC_INFO = 1,
    SEC_TRC_API = 2,
    SEC_TRC_BUFFER = 3,
    SEC_TRC_SVCTKN = 4,
    SEC_TRC_CTXTKN = 5,
    SEC_TRC_CATEGORIES = 6,
};
static_assert(sizeof(tr_detail_level_t) == 1 && SEC_TRC_CATEGORIES == 6);

// Level 1 records ids only; level 8 adds the data.
inline constexpr tr_detail_level_t kTraceIds = 1;
inline constexpr tr_detail_level_t kTraceData = 8;
inline constexpr const char *kTraceComponent = "_SEA";


inline bool sec_trace_on(sec_trace_category c, tr_detail_level_t level = kTraceIds) {
    return sec__trace_detail_levels[c] >= level;
}

// A data record with one item per value, each recorded as its own bytes
// (pointers as 8 bytes, 32-bit values as 4).
template <typename... T>
void sec_trace_values(qv_uint32_t id, const T &...values) {
    auto items = std::tuple_cat(std::make_tuple(static_cast<const void *>(&values), sizeof(values))...);
    std::apply([id](auto... item) { tr_record_data_1(kTraceComponent, id, sizeof...(T), item...); }, items);
}

// Entry record of an exported routine: the plain id at level 1, the data id
// with the arguments at level 8.
template <typename... T>
void sec_trace_api_entry(qv_uint32_t id_plain, qv_uint32_t id_data, const T &...args) {
    if (sec_trace_on(SEC_TRC_API, kTraceData)) {
        sec_trace_values(id_data, args...);
    } else if (sec_trace_on(SEC_TRC_API)) {
        tr_record_id_1(kTraceComponent, id_plain);
    }
}

// Exit record of an exported routine: the plain id at level 1; at level 8 the
// return code alone (no status record) or with the status record's fields.
void sec_trace_api_exit(qv_uint32_t id_plain, qv_uint32_t id_rc, qv_uint32_t id_status, qv_int32_t rc,
                        sec_status_t st);

template <typename Row, typename... T>
void sec_trace_api_entry(const sec_trace_routine_ids<Row> &ids, const T &...args) {
    static_assert(sec_trace_layout_fits(Row::arguments_layout, {sizeof(T)...}),
                  "the arguments differ from the routine's row in trace_records.def");
    sec_trace_api_entry(ids.entry, ids.entry_data, args...);
}

inline void sec_trace_api_exit(const sec_trace_ids &ids, qv_int32_t rc, sec_status_t st) {
    sec_trace_api_exit(ids.exit, ids.exit_rc, ids.exit_status, rc, st);
}
