// One wrapper per module routine. Each finds the routine (loading the module
// on first use), calls it with the read lock of the entry held for the whole
// call, and turns the module's major status into the library's return code.
// The argument orders on the module side are those of qv_sec_mpm.h; three
// wrappers reorder their arguments and modules depend on it.
#include <cstring>

#include "mpm.h"
#include "qv_sec_mpm.h"

namespace {

// Which major statuses succeed, and which failing ones are passed on as the
// return code instead of 3.
enum class Outcome { kPlain, kMayContinue, kSign, kVerify, kUserValid };

bool succeeded(Outcome o, qv_uint32_t maj) {
    return maj == 0 || (o == Outcome::kMayContinue && maj == MPM_S_CONTINUE);
}

qv_uint32_t failure_code(Outcome o, qv_uint32_t maj) {
    switch (o) {
    case Outcome::kSign:
        if (maj == MPM_S_NO_SIGNATURE) return maj;
        break;
    case Outcome::kVerify:
        if (maj == MPM_S_NO_SIGNATURE || maj == MPM_S_BAD_SIGNATURE) return maj;
        break;
    case Outcome::kUserValid:
        if (maj == MPM_S_USER_NOT_VALID) return maj;
        break;
    default:
        break;
    }
    return SEC_S_MPM_FAILURE;
}

// Releases the read lock and stamps the entry when the call ends, whether the
// routine returns or the thread is cancelled inside it.
class RoutineCall {
public:
    explicit RoutineCall(sec_mpm_entry_t e) : e_(e) {}
    ~RoutineCall() { sec_mpm_end_call(e_); }
    RoutineCall(const RoutineCall &) = delete;
    RoutineCall &operator=(const RoutineCall &) = delete;

private:
    sec_mpm_entry_t e_;
};

// Fn is the routine's type from qv_sec_mpm.h, so a wrapper cannot pass
// arguments the module does not expect.
template <typename Fn, typename... A>
qv_uint32_t call(sec_mpm_entry_t entry, sec_status_t st, sec_mpm_routine_id id, Outcome outcome, A... args) {
    void *fn;
    if (qv_uint32_t rc = sec_mpm_find_routine(entry, id, &fn)) return rc;
    {
        RoutineCall held(entry);
        st->maj_stat = reinterpret_cast<Fn>(fn)(&st->min_stat, args...);
    }
    if (succeeded(outcome, st->maj_stat)) return 0;
    const char *name = kMpmRoutineNames[id];
    std::memcpy(st->desc, name, std::strlen(name) + 1);
    st->mech_code = entry->code;
    return failure_code(outcome, st->maj_stat);
}

#define MPM_CALL(routine, id, outcome, ...) call<decltype(&::routine)>(entry, st, id, outcome, __VA_ARGS__)

}  // namespace

extern "C" {

qv_uint32_t sec__mpm_start(sec_mpm_entry_t entry, sec_status_t st, qv_uint32_t flags, void **token) {
    return MPM_CALL(mpm_start, MPM_START, Outcome::kPlain, flags, token);
}

qv_uint32_t sec__mpm_end(sec_mpm_entry_t entry, sec_status_t st, qv_uint32_t flags, void *token) {
    return MPM_CALL(mpm_end, MPM_END, Outcome::kPlain, flags, token);
}

qv_uint32_t sec__mpm_set_ctx_attribute(sec_mpm_entry_t entry, sec_status_t st, void *svc_tkn, qv_uint32_t attr,
                                       void *data, void **ctx_tkn) {
    return MPM_CALL(mpm_set_ctx_attribute, MPM_SET_CTX_ATTRIBUTE, Outcome::kPlain, svc_tkn, attr, data, ctx_tkn);
}

qv_uint32_t sec__mpm_service_cleanup(sec_mpm_entry_t entry, sec_status_t st, qv_uint32_t flags, void *token) {
    return MPM_CALL(mpm_service_cleanup, MPM_SERVICE_CLEANUP, Outcome::kPlain, token, flags);
}

qv_uint32_t sec__mpm_start_sec_context(sec_mpm_entry_t entry, sec_status_t st, void *sec_token, qv_uint32_t flags,
                                       char *trg_svc, char *trg_host, void **ctx_token, sec_buffer_t cbuff) {
    return MPM_CALL(mpm_start_sec_context, MPM_START_SEC_CONTEXT, Outcome::kMayContinue, sec_token, trg_svc,
                    trg_host, flags, ctx_token, cbuff);
}

qv_uint32_t sec__mpm_get_target_name(sec_mpm_entry_t entry, sec_status_t st, void *token, char *service,
                                     char *host, qv_int32_t *length, char *name) {
    return MPM_CALL(mpm_get_target_name, MPM_GET_TARGET_NAME, Outcome::kPlain, token, service, host, length, name);
}

qv_uint32_t sec__mpm_complete_sec_context(sec_mpm_entry_t entry, sec_status_t st, sec_buffer_t sbuff, void *token,
                                          sec_buffer_t cbuff) {
    return MPM_CALL(mpm_complete_sec_context, MPM_COMPLETE_SEC_CONTEXT, Outcome::kMayContinue, sbuff, token, cbuff);
}

qv_uint32_t sec__mpm_get_ctx_lifetime(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t *lifetime) {
    return MPM_CALL(mpm_get_ctx_lifetime, MPM_GET_CTX_LIFETIME, Outcome::kPlain, token, lifetime);
}

qv_uint32_t sec__mpm_get_ctx_flags(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_uint32_t *flags) {
    return MPM_CALL(mpm_get_ctx_flags, MPM_GET_CTX_FLAGS, Outcome::kPlain, token, flags);
}

qv_uint32_t sec__mpm_prepare_data(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_uint32_t flags,
                                  sec_buffer_t in, sec_buffer_t out) {
    return MPM_CALL(mpm_prepare_data, MPM_PREPARE_DATA, Outcome::kPlain, token, flags, in, out);
}

qv_uint32_t sec__mpm_process_data(sec_mpm_entry_t entry, sec_status_t st, void *token, sec_buffer_t in,
                                  sec_buffer_t out) {
    return MPM_CALL(mpm_process_data, MPM_PROCESS_DATA, Outcome::kPlain, token, in, out);
}

qv_uint32_t sec__mpm_end_context(sec_mpm_entry_t entry, sec_status_t st, void *token) {
    return MPM_CALL(mpm_end_context, MPM_END_CONTEXT, Outcome::kPlain, token);
}

qv_uint32_t sec__mpm_login_as_service(sec_mpm_entry_t entry, sec_status_t st, char *svc_name, void *token) {
    return MPM_CALL(mpm_login_as_service, MPM_LOGIN_AS_SERVICE, Outcome::kPlain, svc_name, token);
}

qv_uint32_t sec__mpm_login_as_user(sec_mpm_entry_t entry, sec_status_t st, void *token, sec_buffer_t id,
                                   void *authenticator, qv_uint32_t flags) {
    return MPM_CALL(mpm_login_as_user, MPM_LOGIN_AS_USER, Outcome::kPlain, id, authenticator, flags, token);
}

qv_uint32_t sec__mpm_renew_identity(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t *lifetime) {
    return MPM_CALL(mpm_renew_identity, MPM_RENEW_IDENTITY, Outcome::kPlain, token, lifetime);
}

qv_uint32_t sec__mpm_receive_sec_context(sec_mpm_entry_t entry, sec_status_t st, void *svc_tkn, sec_buffer_t cbuff,
                                         void **ctx_tkn, sec_buffer_t sbuff, qv_uint32_t *rflags) {
    return MPM_CALL(mpm_receive_sec_context, MPM_RECEIVE_SEC_CONTEXT, Outcome::kMayContinue, svc_tkn, cbuff,
                    ctx_tkn, sbuff, rflags);
}

qv_uint32_t sec__mpm_get_client_name(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t *name_len,
                                     char *name) {
    return MPM_CALL(mpm_get_client_name, MPM_GET_CLIENT_NAME, Outcome::kPlain, token, name_len, name);
}

qv_uint32_t sec__mpm_get_mapped_name(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t *name_len,
                                     char *name) {
    return MPM_CALL(mpm_get_mapped_name, MPM_GET_MAPPED_NAME, Outcome::kPlain, token, name_len, name);
}

qv_uint32_t sec__mpm_get_client_id(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t *id_len,
                                   char *id) {
    return MPM_CALL(mpm_get_client_id, MPM_GET_CLIENT_ID, Outcome::kPlain, token, id_len, id);
}

qv_uint32_t sec__mpm_release_buffer(sec_mpm_entry_t entry, sec_buffer_t buff) {
    // Called from destructors that give a module's output back: waiting for
    // the entry's lock, the module's routine and the trace records must not
    // act on a cancellation there. Cut short, it would also lose the buffer.
    SecCancelDisabled no_cancel;
    void *fn;
    if (qv_uint32_t rc = sec_mpm_find_routine(entry, MPM_RELEASE_BUFFER, &fn)) return rc;
    RoutineCall held(entry);
    qv_uint32_t min_stat = 0;
    reinterpret_cast<decltype(&::mpm_release_buffer)>(fn)(&min_stat, buff);
    return 0;
}

qv_uint32_t sec__mpm_create_id_context(sec_mpm_entry_t entry, sec_status_t st, qv_uint32_t flags, void *in,
                                       void **id_ctx) {
    return MPM_CALL(mpm_create_id_context, MPM_CREATE_ID_CONTEXT, Outcome::kPlain, flags, in, id_ctx);
}

qv_uint32_t sec__mpm_sign_data_v(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t count,
                                 struct iovec *vector, sec_buffer_t signature) {
    return MPM_CALL(mpm_sign_data_v, MPM_SIGN_DATA_V, Outcome::kSign, token, count, vector, signature);
}

qv_uint32_t sec__mpm_verify_data_v(sec_mpm_entry_t entry, sec_status_t st, void *token, sec_buffer_t signature,
                                   qv_int32_t count, struct iovec *vector) {
    return MPM_CALL(mpm_verify_data_v, MPM_VERIFY_DATA_V, Outcome::kVerify, token, signature, count, vector);
}

qv_uint32_t sec__mpm_get_ctx_mpm(sec_mpm_entry_t entry, sec_status_t st, void *token, char *mpm) {
    return MPM_CALL(mpm_get_ctx_mpm, MPM_GET_CTX_MPM, Outcome::kPlain, token, mpm);
}

qv_uint32_t sec__mpm_user_valid(sec_mpm_entry_t entry, sec_status_t st, void *token, char *username) {
    return MPM_CALL(mpm_user_valid, MPM_USER_VALID, Outcome::kUserValid, token, username);
}

}  // extern "C"
