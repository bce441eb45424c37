// Arbitrary bytes as the typed identity buffer of sec_login_as_user, on the
// client service token of context_fuzz_setup.h, whose configuration names
// the test modules A and B. A buffer that passes the header checks reaches
// the module of its mechanism code, which must see exactly the bytes behind
// the header; a malformed buffer ends in 7 and an unknown code in 8, without
// any module call. Module A refuses the login when the body's first byte is
// odd, so both of the module's answers are covered.
#include "context_fuzz_setup.h"

QV_SEC_FUZZ_TARGET(1 << 16) {
    using namespace ctxfuzz;
    const Setup &s = fresh_setup();
    bool refuse = size > 6 && (data[6] & 1);
    if (refuse) s.behaviour(QVTEST_MPM_LOGIN_AS_USER)->maj_stat = 0x20;
    const unsigned long calls_before = s.control->record[QVTEST_MPM_LOGIN_AS_USER].calls;
    LeakCheck leaks(s);

    sec_buffer_desc id{static_cast<qv_int32_t>(size), size ? const_cast<uint8_t *>(data) : nullptr};
    sec_status_desc st{};
    qv_int32_t rc = sec_login_as_user(&st, s.client_svc, &id, nullptr, 0);

    bool well_formed = size >= 6 && data[0] == SEC_BUF_TYPED_ID && (data[1] == 1 || data[1] == 2);
    qv_uint32_t code = well_formed ? qvfuzz::be32(data + 2) : 0;
    bool to_a = well_formed && code == kCodeA;
    bool known = to_a || (well_formed && code == kCodeB);
    int want = !well_formed ? SEC_S_BAD_BUFFER : !known ? SEC_S_BAD_MECHANISM : (to_a && refuse) ? SEC_S_MPM_FAILURE : 0;
    if (rc != want) __builtin_trap();
    if (to_a) {
        // Module A saw the body, whole and unchanged.
        const qvtest_mpm_call_t &call = s.control->record[QVTEST_MPM_LOGIN_AS_USER];
        size_t body = size - 6;
        if (call.calls != calls_before + 1 || call.in_len != static_cast<qv_int32_t>(body)) __builtin_trap();
        size_t seen = body < QVTEST_MPM_MAX_BYTES ? body : QVTEST_MPM_MAX_BYTES;
        if (seen > 0 && std::memcmp(call.in, data + 6, seen) != 0) __builtin_trap();
    } else if (s.control->record[QVTEST_MPM_LOGIN_AS_USER].calls != calls_before) {
        __builtin_trap();
    }
    leaks.check();
}
