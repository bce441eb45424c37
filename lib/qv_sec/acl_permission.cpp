// sec_sec_verify_perm_from_ctx and sec_sec_verify_perm_from_cab: the
// permission routines programs were written against. They check their
// arguments, the token and the ACL's magic, and never grant anything;
// sec_check_acl_access (acl_check.cpp) is the check that decides.
#include <cstdint>

#include "acl_arguments.h"
#include "acl_format.h"
#include "errors.h"
#include "library_init.h"

namespace {

// The token passes only with the context magic and without the complete
// bit: the first eight bytes (magic and state) masked with the magic and
// that bit must equal the magic alone. Complete contexts fail here; this is
// how these routines have always behaved, and callers depend on it.
bool token_passes(const void *ctx) {
    const auto *t = static_cast<const sec_ctx_token_desc *>(ctx);
    return (t->magic & SEC_CTX_TOKEN_MAGIC) == SEC_CTX_TOKEN_MAGIC && (t->state & SEC_CTX_S_COMPLETE) == 0;
}

// Positions as reported; from_cab numbers cab, acl, result and mod 4 to 7.
struct Positions {
    int ctx, cab, acl, result, mod;
};

qv_int32_t verify(const char *routine, const Positions &pos, sec_status_t st, sec_token_t ctx, bool has_cab,
                  sec_buffer_t cab, sec_acl_buffer_t acl, sec_boolean_t *result, sec_boolean_t *mod) {
    auto bad = [routine](int position) { return sec_acl_bad_argument(routine, position, nullptr); };
    if (st == nullptr) return bad(1);
    *st = sec_status_desc{};
    if (ctx == nullptr) return bad(pos.ctx);
    if (has_cab && cab == nullptr) return bad(pos.cab);
    if (acl == nullptr) return bad(pos.acl);
    if (result == nullptr) return bad(pos.result);
    if (mod == nullptr) return bad(pos.mod);
    if (!token_passes(ctx)) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_003);
    const bool empty = acl->length == 0 || acl->value == nullptr;
    if (!empty && (acl->length < 4 || acl::be32(acl::bytes_of(acl->value)) != SEC_ACL_HEAD_MAGIC))
        return sec_report(SEC_S_INTERNAL, MSG_2650_038);
    *result = 0;
    *mod = 0;
    return 0;
}

}  // namespace

extern "C" {

qv_int32_t sec_sec_verify_perm_from_ctx(sec_status_t st, sec_token_t ctx, qv_uint32_t /*perm*/,
                                        sec_acl_buffer_t acl, sec_boolean_t *result, sec_boolean_t *mod) {
    sec_init_once();
    constexpr const char *kRoutine = "sec_sec_verify_perm_from_ctx";
    qv_int32_t rc = verify(kRoutine, {2, 0, 4, 5, 6}, st, ctx, false, nullptr, acl, result, mod);
    sec__trace_routine_end(kRoutine, rc, st);
    return rc;
}

qv_int32_t sec_sec_verify_perm_from_cab(sec_status_t st, sec_token_t ctx, sec_buffer_t cab, qv_uint32_t /*perm*/,
                                        sec_acl_buffer_t acl, sec_boolean_t *result, sec_boolean_t *mod) {
    sec_init_once();
    constexpr const char *kRoutine = "sec_sec_verify_perm_from_cab";
    qv_int32_t rc = verify(kRoutine, {2, 4, 5, 6, 7}, st, ctx, true, cab, acl, result, mod);
    sec__trace_routine_end(kRoutine, rc, st);
    return rc;
}

}  // extern "C"
