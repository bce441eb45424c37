// sec_get_client_groups and sec_user_valid: what a server asks of an
// identity context once it holds one. Both only read the token.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "context_token.h"
#include "errors.h"
#include "library_init.h"
#include "trace.h"

namespace {

constexpr const char *kGroupsRoutine = "sec_get_client_groups";
constexpr const char *kUserValidRoutine = "sec_user_valid";

// The low 32 bits of a pointer, as 2650-060 prints a parameter's value.
unsigned pointer_value(const void *p) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)); }

// Complete identity context: 0, else the failure reported.
qv_int32_t identity_context(sec_token_t context) {
    if (!sec_ctx_usable(context)) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_061);
    if ((static_cast<const sec_ctx_token_desc *>(context)->state & SEC_CTX_S_IDENTITY) == 0)
        return sec_report(SEC_S_BAD_TOKEN, MSG_2650_063);
    return 0;
}

// Copies the named groups into the caller's array; on failure the copies
// made so far are freed and the elements used are zeroed again.
qv_int32_t copy_groups(const sec_privset_info_desc &ps, sec_buffer_t out, qv_int32_t &stored) {
    stored = 0;
    for (int i = 0; i < ps.gcount; ++i) {
        const auto *name = static_cast<const char *>(ps.groups[i].value);
        if (name == nullptr) continue;
        char *copy = strdup(name);
        if (copy == nullptr) {
            for (qv_int32_t j = 0; j < stored; ++j) std::free(out[j].value);
            std::memset(out, 0, static_cast<size_t>(stored) * sizeof *out);
            stored = 0;
            return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, kGroupsRoutine, static_cast<int>(std::strlen(name)));
        }
        out[stored++] = sec_buffer_desc{ps.groups[i].length, copy};
    }
    return 0;
}

qv_int32_t get_client_groups(sec_token_t context, char *buffer, qv_int32_t *count, sec_buffer_t *groups) {
    if (context == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kGroupsRoutine, 1, 0u);
    if (count == nullptr || *count < 0)
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kGroupsRoutine, 3, pointer_value(count));
    if (groups == nullptr)
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kGroupsRoutine, 4, pointer_value(context));
    if (qv_int32_t rc = identity_context(context)) return rc;
    const auto &t = *static_cast<const sec_ctx_token_desc *>(context);
    *groups = nullptr;
    if ((t.state & SEC_CTX_S_MAPPED) == 0) {
        *count = 0;
        return sec_report(SEC_S_NO_PRIVSET, MSG_2650_065);
    }
    if (*count >= 1 && buffer == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kGroupsRoutine, 2, 0u);
    // A size of 0 is refused even when there are no groups to store: callers
    // learn the size from this failure and must always offer some memory.
    const int64_t needed = int64_t{t.privset.gcount} * static_cast<int64_t>(sizeof(sec_buffer_desc));
    if (*count == 0 || needed > *count) {
        *count = needed > INT32_MAX ? INT32_MAX : static_cast<qv_int32_t>(needed);
        return sec_report(SEC_S_NO_MEMORY, MSG_2650_064, *count);
    }
    auto *out = reinterpret_cast<sec_buffer_t>(buffer);
    qv_int32_t stored = 0;
    qv_int32_t rc = copy_groups(t.privset, out, stored);
    *count = stored;
    if (rc == 0) *groups = out;
    return rc;
}

qv_int32_t user_valid(sec_status_t st, sec_token_t context, char *username) {
    if (st == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kUserValidRoutine, 1, 0u);
    *st = sec_status_desc{};
    if (context == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kUserValidRoutine, 2, 0u);
    if (username == nullptr || username[0] == '\0')
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kUserValidRoutine, 3, pointer_value(username));
    if (qv_int32_t rc = identity_context(context)) return rc;
    const auto &t = *static_cast<const sec_ctx_token_desc *>(context);
    if ((t.state & SEC_CTX_S_AUTHENTICATED) == 0) return sec_report(SEC_S_AUTH_ERROR, MSG_2650_022);
    if (t.mdata.mpm == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_023);
    // 0, 36 (not valid for this client) or 3; st holds the module's answer.
    return static_cast<qv_int32_t>(sec__mpm_user_valid(t.mdata.mpm, st, t.mdata.mtoken, username));
}

}  // namespace

extern "C" {

qv_int32_t sec_get_client_groups(sec_token_t context, char *buffer, qv_int32_t *count, sec_buffer_t *groups) {
    sec_init_once();
    sec_trace_api_entry(kTraceGetClientGroups, context, buffer, count, groups);
    qv_int32_t rc = sec_guard([&] { return get_client_groups(context, buffer, count, groups); });
    sec_trace_api_exit(kTraceGetClientGroups, rc, nullptr);
    return rc;
}

qv_int32_t sec_user_valid(sec_status_t st, sec_token_t context, char *username) {
    sec_init_once();
    if (sec_trace_on(SEC_TRC_API, kTraceData)) {
        tr_record_strings_1(kTraceComponent, kTraceUserValid.entry_data, 1, username != nullptr ? username : "<nil>");
    } else if (sec_trace_on(SEC_TRC_API)) {
        tr_record_id_1(kTraceComponent, kTraceUserValid.entry);
    }
    qv_int32_t rc = sec_guard([&] { return user_valid(st, context, username); });
    sec_trace_api_exit(kTraceUserValid, rc, st);
    return rc;
}

}  // extern "C"
