// Signing a vector of data buffers with an authenticated security context
// and verifying the peer's signature. The context's module computes and
// checks the signature; the library checks the arguments and the token and
// carries the module's bytes in a seal buffer that names the mechanism, so
// that a signature made by another mechanism is refused before the module
// sees it.
#include "context_token.h"
#include "errors.h"
#include "library_init.h"
#include "trace.h"

namespace {

constexpr const char *kSignName = "sec_sign_data_v";
constexpr const char *kVerifyName = "sec_verify_data_v";

// Parameter `position` of `routine` is wrong; value is what it held (0 for a
// NULL pointer).
qv_int32_t bad_parameter(const char *routine, int position, qv_int32_t value = 0) {
    return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, routine, position, static_cast<unsigned>(value));
}

// The first element with a length and no base is refused with its position.
qv_int32_t check_vector(qv_int32_t count, const struct iovec *vector) {
    for (qv_int32_t i = 0; i < count; ++i) {
        if (vector[i].iov_len != 0 && vector[i].iov_base == nullptr)
            return sec_report(SEC_S_BAD_BUFFER, MSG_2650_081, static_cast<int>(i));
    }
    return 0;
}

bool authenticated(const sec_ctx_token_desc *c) { return (c->state & SEC_CTX_S_AUTHENTICATED) != 0; }

qv_int32_t sign_data(sec_status_t st, sec_token_t context, qv_int32_t count, struct iovec *vector,
                     sec_buffer_t signature) {
    if (context == nullptr) return bad_parameter(kSignName, 2);
    if (count < 0) return bad_parameter(kSignName, 3, count);
    if (vector == nullptr && count != 0) return bad_parameter(kSignName, 4);
    if (qv_int32_t rc = check_vector(count, vector)) return rc;
    // Checked after the vector on purpose: a bad element is reported first.
    if (signature == nullptr) return bad_parameter(kSignName, 5);

    auto *c = static_cast<sec_ctx_token_t>(context);
    sec__trace_context_token(c);
    if (!sec_ctx_usable(c) || (c->state & SEC_CTX_S_IDENTITY)) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);
    if (!authenticated(c)) return sec_report(SEC_S_AUTH_ERROR, MSG_2650_022);

    *signature = sec_buffer_desc{0, nullptr};
    // Nothing to sign: an empty signature, without asking the module.
    if (count == 0) return 0;
    sec_mpm_entry_t entry = c->mdata.mpm;
    if (entry == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_023);

    SealReservation room(0);
    if (!room.reserved()) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    MpmOutput mout(entry);
    if (qv_uint32_t rc = sec__mpm_sign_data_v(entry, st, c->mdata.mtoken, count, vector, mout.get()))
        return static_cast<qv_int32_t>(rc);
    return sec_wrap_module_output(mout, *c, st, room, signature);
}

qv_int32_t verify_data(sec_status_t st, sec_token_t context, sec_buffer_t signature, qv_int32_t count,
                       struct iovec *vector) {
    if (context == nullptr) return bad_parameter(kVerifyName, 2);
    if (signature == nullptr) return bad_parameter(kVerifyName, 3);
    if (count < 0) return bad_parameter(kVerifyName, 4, count);
    if (vector == nullptr && count != 0) return bad_parameter(kVerifyName, 5);
    if (qv_int32_t rc = check_vector(count, vector)) return rc;

    auto *c = static_cast<sec_ctx_token_t>(context);
    sec__trace_context_token(c);
    if (!sec_ctx_usable(c)) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_061);
    if (c->state & SEC_CTX_S_IDENTITY) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_062);
    if (!authenticated(c)) return sec_report(SEC_S_AUTH_ERROR, MSG_2650_022);
    if (signature->length == 0 || signature->value == nullptr) return sec_report(SEC_S_BAD_BUFFER, MSG_2650_083);

    qv_uint32_t mech = 0;
    int version = 0;  // read with the buffer, not checked
    OwnedBuffer inner;
    if (qv_int32_t rc = sec__unwrap_seal_buff(signature, &mech, &version, inner.get())) return rc;
    sec_mpm_entry_t entry = c->mdata.mpm;
    if (entry == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_023);
    if (mech != entry->code) return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_028);
    // An empty vector goes to the module too: whether it matches the
    // signature is the module's call.
    return static_cast<qv_int32_t>(sec__mpm_verify_data_v(entry, st, c->mdata.mtoken, inner.get(), count, vector));
}

}  // namespace

extern "C" {

qv_int32_t sec_sign_data_v(sec_status_t st, sec_token_t context, qv_int32_t count, struct iovec *vector,
                           sec_buffer_t signature) {
    sec_init_once();
    sec_trace_api_entry(kTraceSignDataV, st, context, count, vector, signature);
    qv_int32_t rc;
    if (st == nullptr) {
        rc = bad_parameter(kSignName, 1);
    } else {
        *st = sec_status_desc{};
        rc = sec_guard([&] { return sign_data(st, context, count, vector, signature); });
    }
    sec_trace_api_exit(kTraceSignDataV, rc, st);
    return rc;
}

qv_int32_t sec_verify_data_v(sec_status_t st, sec_token_t context, sec_buffer_t signature, qv_int32_t count,
                             struct iovec *vector) {
    sec_init_once();
    sec_trace_api_entry(kTraceVerifyDataV, st, context, signature, count, vector);
    qv_int32_t rc;
    if (st == nullptr) {
        rc = bad_parameter(kVerifyName, 1);
    } else {
        *st = sec_status_desc{};
        rc = sec_guard([&] { return verify_data(st, context, signature, count, vector); });
    }
    sec_trace_api_exit(kTraceVerifyDataV, rc, st);
    return rc;
}

}  // extern "C"
