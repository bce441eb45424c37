// Using a complete context: its attributes and lifetime, sealing and opening
// data with its module (sealed bytes travel in a seal buffer that names the
// mechanism), and ending it.
#include <cstdint>
#include <cstring>

#include "context_token.h"
#include "errors.h"
#include "library_init.h"
#include "mechanism_list.h"
#include "trace.h"

namespace {

constexpr const char *kAttributeName = "sec_get_ctx_attribute";
constexpr const char *kLifetimeName = "sec_get_ctx_lifetime";
constexpr const char *kPrepareName = "sec_prepare_data";
constexpr const char *kProcessName = "sec_process_data";
constexpr const char *kEndName = "sec_end_context";

constexpr qv_uint32_t kProtectModes = SEC_F_PROTECT_MODE1 | SEC_F_PROTECT_MODE2;

qv_int32_t bad_args(const char *routine) { return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, routine); }
qv_int32_t bad_token() { return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003); }
qv_int32_t no_module() { return sec_report(SEC_S_INTERNAL, MSG_2650_023); }

bool authenticated(const sec_ctx_token_desc *c) { return (c->state & SEC_CTX_S_AUTHENTICATED) != 0; }

// The context's lifetime: the module's, or -1 for an unauthenticated context.
qv_int32_t lifetime_of(sec_ctx_token_t c, sec_status_t st, qv_int32_t *lifetime) {
    if (!authenticated(c)) {
        *lifetime = -1;
        return 0;
    }
    if (c->mdata.mpm == nullptr) return no_module();
    return static_cast<qv_int32_t>(sec__mpm_get_ctx_lifetime(c->mdata.mpm, st, c->mdata.mtoken, lifetime));
}

qv_int32_t get_attribute(sec_status_t st, sec_token_t token, qv_uint32_t attr, void *arg) {
    if (attr < SEC_C_CTX_LIFETIME || attr > SEC_C_CTX_MPM_NAME || arg == nullptr || token == nullptr)
        return bad_args(kAttributeName);
    auto *c = static_cast<sec_ctx_token_t>(token);
    sec__trace_context_token(c);
    if (!sec_ctx_usable(c)) return bad_token();
    switch (attr) {
    case SEC_C_CTX_LIFETIME:
        return lifetime_of(c, st, static_cast<qv_int32_t *>(arg));
    case SEC_C_CTX_FLAGS: {
        qv_uint32_t flags = 0;
        if (authenticated(c)) {
            if (c->mdata.mpm == nullptr) return no_module();
            if (qv_uint32_t rc = sec__mpm_get_ctx_flags(c->mdata.mpm, st, c->mdata.mtoken, &flags))
                return static_cast<qv_int32_t>(rc);
            flags |= SEC_CTX_S_AUTHENTICATED;
        }
        *static_cast<qv_uint32_t *>(arg) = flags;
        return 0;
    }
    case SEC_C_CTX_NOTHING:
        // Accepted and answered with nothing, on purpose.
        return 0;
    default: {
        const char *name = kMnemonicNone;
        if (authenticated(c)) {
            if (c->mdata.mpm == nullptr || c->mdata.mpm->name == nullptr) return no_module();
            name = c->mdata.mpm->name;
        }
        char *out = static_cast<char *>(arg);
        size_t n = strnlen(name, SEC_C_CTX_MPM_NAME_SIZE - 1);
        std::memcpy(out, name, n);
        out[n] = '\0';
        return 0;
    }
    }
}

qv_int32_t get_lifetime(sec_status_t st, sec_token_t ctoken, qv_int32_t *lifetime) {
    if (st == nullptr || ctoken == nullptr) return bad_args(kLifetimeName);
    auto *c = static_cast<sec_ctx_token_t>(ctoken);
    sec__trace_context_token(c);
    if (!sec_ctx_usable(c)) return bad_token();
    if (lifetime == nullptr) return 0;
    *lifetime = 0;
    return lifetime_of(c, st, lifetime);
}

// The checks sec_prepare_data and sec_process_data share on their token: a
// complete security context.
qv_int32_t check_security_context(sec_ctx_token_t c) {
    sec__trace_context_token(c);
    if (!sec_ctx_usable(c)) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_061);
    if (c->state & SEC_CTX_S_IDENTITY) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_062);
    return 0;
}

bool empty_input(sec_buffer_t in) { return in->length <= 0 || in->value == nullptr; }

qv_int32_t prepare_data(sec_status_t st, sec_token_t ctoken, qv_uint32_t flags, sec_buffer_t in, sec_buffer_t out) {
    if (st == nullptr || ctoken == nullptr) return bad_args(kPrepareName);
    auto *c = static_cast<sec_ctx_token_t>(ctoken);
    if (qv_int32_t rc = check_security_context(c)) return rc;
    qv_uint32_t mode = flags & kProtectModes;
    if (mode == 0 || mode == kProtectModes || in == nullptr || out == nullptr) return bad_args(kPrepareName);
    if (!authenticated(c)) return sec_report(SEC_S_AUTH_ERROR, MSG_2650_022);
    *out = sec_buffer_desc{0, nullptr};
    if (empty_input(in)) return sec_report(SEC_S_BAD_BUFFER, MSG_2650_027);
    // Sealed data is at least as long as the data, and the seal buffer adds
    // its header: input that cannot fit is refused before the module sees it,
    // so the module's own state (its sequence number) does not advance for a
    // seal that cannot be returned. A module whose overhead pushes a smaller
    // input over the limit is caught by the wrap, which releases the output;
    // refusing such input first is the module's part.
    if (in->length > INT32_MAX - sec__buff_tvm_len) return sec_report(SEC_S_BAD_BUFFER, MSG_2650_027);
    sec_mpm_entry_t entry = c->mdata.mpm;
    if (entry == nullptr) return no_module();

    SealReservation room(static_cast<size_t>(in->length));
    if (!room.reserved()) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    MpmOutput sealed(entry);
    if (qv_uint32_t rc = sec__mpm_prepare_data(entry, st, c->mdata.mtoken, mode, in, sealed.get()))
        return static_cast<qv_int32_t>(rc);
    return sec_wrap_module_output(sealed, *c, st, room, out);
}

qv_int32_t process_data(sec_status_t st, sec_token_t ctoken, sec_buffer_t in, sec_buffer_t out) {
    // A missing status record is reported under the sibling's name; kept so.
    if (st == nullptr) return bad_args(kPrepareName);
    if (ctoken == nullptr) return bad_args(kProcessName);
    auto *c = static_cast<sec_ctx_token_t>(ctoken);
    if (qv_int32_t rc = check_security_context(c)) return rc;
    if (in == nullptr || out == nullptr) return bad_args(kProcessName);
    if (!authenticated(c)) return sec_report(SEC_S_AUTH_ERROR, MSG_2650_022);
    if (empty_input(in)) return sec_report(SEC_S_BAD_BUFFER, MSG_2650_027);

    qv_uint32_t mech = 0;
    int version = 0;
    OwnedBuffer inner;
    if (qv_int32_t rc = sec__unwrap_seal_buff(in, &mech, &version, inner.get())) return rc;
    sec_mpm_entry_t entry = c->mdata.mpm;
    if (entry == nullptr) return no_module();
    if (mech != entry->code) return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_028);
    return static_cast<qv_int32_t>(sec__mpm_process_data(entry, st, c->mdata.mtoken, inner.get(), out));
}

qv_int32_t end_context(sec_status_t st, sec_token_t ctoken, sec_buffer_t buff) {
    if (st == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kEndName, 1, 0);
    if (ctoken != nullptr) {
        auto *c = static_cast<sec_ctx_token_t>(ctoken);
        sec__trace_context_token(c);
        // Incomplete contexts may be ended too: only the magic is checked.
        if (!sec_ctx_has_magic(c)) return bad_token();
        if (c->mdata.mpm != nullptr && (authenticated(c) || c->mdata.mtoken != nullptr)) {
            // A failure is reported in st; the context still ends.
            sec__mpm_end_context(c->mdata.mpm, st, c->mdata.mtoken);
            c->mdata.mtoken = nullptr;
        }
        sec_ctx_free(c);
    }
    if (buff != nullptr) {
        free(buff->value);
        *buff = sec_buffer_desc{0, nullptr};
    }
    return 0;
}

}  // namespace

extern "C" {

qv_int32_t sec_get_ctx_attribute(sec_status_t st, sec_token_t token, qv_uint32_t attr, void *arg) {
    sec_init_once();
    sec_trace_api_entry(kTraceGetCtxAttribute, st, token, attr, arg);
    qv_int32_t rc;
    if (st == nullptr) {
        rc = sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kAttributeName, 1, 0);
    } else {
        *st = sec_status_desc{};
        rc = sec_guard([&] { return get_attribute(st, token, attr, arg); });
    }
    sec_trace_api_exit(kTraceGetCtxAttribute, rc, st);
    return rc;
}

qv_int32_t sec_get_ctx_lifetime(sec_status_t st, sec_token_t ctoken, qv_int32_t *lifetime) {
    sec_init_once();
    sec_trace_api_entry(kTraceGetCtxLifetime, st, ctoken, lifetime);
    if (st != nullptr) *st = sec_status_desc{};
    qv_int32_t rc = sec_guard([&] { return get_lifetime(st, ctoken, lifetime); });
    sec__trace_routine_end(kLifetimeName, rc, st);
    return rc;
}

qv_int32_t sec_prepare_data(sec_status_t st, sec_token_t ctoken, qv_uint32_t flags, sec_buffer_t in,
                            sec_buffer_t out) {
    sec_init_once();
    sec_trace_api_entry(kTracePrepareData, st, ctoken, flags, in, out);
    if (st != nullptr) *st = sec_status_desc{};
    qv_int32_t rc = sec_guard([&] { return prepare_data(st, ctoken, flags, in, out); });
    sec_trace_api_exit(kTracePrepareData, rc, st);
    return rc;
}

qv_int32_t sec_process_data(sec_status_t st, sec_token_t ctoken, sec_buffer_t in, sec_buffer_t out) {
    sec_init_once();
    sec_trace_api_entry(kTraceProcessData, st, ctoken, in, out);
    if (st != nullptr) *st = sec_status_desc{};
    qv_int32_t rc = sec_guard([&] { return process_data(st, ctoken, in, out); });
    sec_trace_api_exit(kTraceProcessData, rc, st);
    return rc;
}

qv_int32_t sec_end_context(sec_status_t st, sec_token_t ctoken, sec_buffer_t buff) {
    sec_init_once();
    sec_trace_api_entry(kTraceEndContext, st, ctoken, buff);
    if (st != nullptr) *st = sec_status_desc{};
    qv_int32_t rc = sec_guard([&] { return end_context(st, ctoken, buff); });
    sec_trace_api_exit(kTraceEndContext, rc, st);
    return rc;
}

}  // extern "C"
