// Arbitrary bytes as a CIDB: the reader gives a complete identity or an
// error with nothing handed out, and an identity it read writes back to a
// CIDB that reads as the same identity. The same bytes then make identity
// contexts with each mapping choice, with the test modules behind them:
// success gives a complete identity context, failure nothing, and neither
// leaves a module handle behind.
#include "context_fuzz_setup.h"

namespace {

bool same(const char *a, const char *b) { return (a == nullptr) == (b == nullptr) && (a == nullptr || !strcmp(a, b)); }

}  // namespace

QV_SEC_FUZZ_TARGET(1 << 20) {
    sec_buffer_desc in{static_cast<qv_int32_t>(size), size ? const_cast<uint8_t *>(data) : nullptr};
    qv_uint32_t mech = 0, flags = 0;
    int version = 0;
    qv_uint64_t node = 0;
    sec_privset_info_desc ps{};
    if (sec__unwrap_cid_buff(&in, &mech, &version, &node, &flags, &ps) != 0) {
        if (ps.name != nullptr || ps.mname != nullptr || ps.gcount != 0 || ps.groups != nullptr) __builtin_trap();
    } else if (mech != 0) {
        if (ps.name == nullptr) __builtin_trap();
        sec_buffer_desc again{0, nullptr};
        if (sec__wrap_cid_buff(mech, version, flags & ~SEC_CIDB_F_AUTHENTICATED, &ps, &again) != 0) __builtin_trap();
        qv_uint32_t mech2 = 0, flags2 = 0;
        int version2 = 0;
        qv_uint64_t node2 = 0;
        sec_privset_info_desc ps2{};
        if (sec__unwrap_cid_buff(&again, &mech2, &version2, &node2, &flags2, &ps2) != 0) __builtin_trap();
        if (mech2 != mech || flags2 != flags || static_cast<uint8_t>(version) != version2) __builtin_trap();
        if (!same(ps.name, ps2.name) || !same(ps.mname, ps2.mname) || ps.gcount != ps2.gcount) __builtin_trap();
        for (int i = 0; i < ps.gcount; ++i)
            if (!same(static_cast<char *>(ps.groups[i].value), static_cast<char *>(ps2.groups[i].value)))
                __builtin_trap();
        sec__free_privset_info(&ps2);
        free(again.value);
    }
    sec__free_privset_info(&ps);

    const ctxfuzz::Setup &s = ctxfuzz::setup();
    for (qv_uint32_t map : {0u, SEC_F_IDCTX_FORCE_MAP, SEC_F_IDCTX_NO_MAP}) {
        ctxfuzz::LeakCheck leaks(s);
        sec_status_desc st{};
        sec_token_t id = nullptr;
        qv_int32_t rc = sec_create_id_context(&st, s.server_svc, SEC_F_IDCTX_CIDB | map, &in, &id);
        if (rc == 0) {
            auto *t = static_cast<sec_ctx_token_t>(id);
            if (t == nullptr || (t->state & (SEC_CTX_S_COMPLETE | SEC_CTX_S_IDENTITY)) !=
                                    (SEC_CTX_S_COMPLETE | SEC_CTX_S_IDENTITY))
                __builtin_trap();
            if ((t->state & SEC_CTX_S_AUTHENTICATED) && t->privset.name == nullptr) __builtin_trap();
        } else if (id != nullptr) {
            __builtin_trap();
        }
        sec_end_context(&st, id, nullptr);
        leaks.check();
    }
}
