// Arbitrary first CCDBs for the server. The first input byte scripts the
// test module (continue, ask for an unauthenticated context, no output,
// failure) and the service (refuse unauthenticated clients, log in); the
// rest is the CCDB. Every outcome must leave a usable context and a CCDB or
// nothing, or no context and no output, and nothing of the module's behind.
#include "context_fuzz_setup.h"

QV_SEC_FUZZ_TARGET(4096) {
    using namespace ctxfuzz;
    if (size == 0) return;
    const Setup &s = fresh_setup();
    uint8_t script = data[0];
    if (qvtest_mpm_behaviour_t *b = s.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT)) {
        b->continue_rounds = script & 0x1 ? 2 : 0;
        if (script & 0x2) b->maj_stat = SEC_S_UNAUTHENTICATED;
        if (script & 0x4) b->output_len = 0;
        if (script & 0x8) b->maj_stat = 0x10;
    }
    auto *svc = static_cast<sec_svc_token_t>(s.server_svc);
    qv_uint32_t saved_state = svc->state;
    if (script & 0x10) svc->state |= SEC_SVC_S_REFUSE_UNAUTH;
    if (script & 0x20) svc->state |= SEC_SVC_S_LOGIN_AS_SERVICE;

    LeakCheck leaks(s);
    sec_buffer_desc in{static_cast<qv_int32_t>(size - 1), size > 1 ? const_cast<uint8_t *>(data + 1) : nullptr};
    sec_status_desc st{};
    sec_token_t ctx = nullptr;
    // The same bytes twice: a second CCDB that repeats the first is refused
    // for its sequence number, or continues a context of an older version.
    for (int round = 0; round < 2; ++round) {
        sec_buffer_desc out{0, nullptr};
        qv_int32_t rc = sec_receive_sec_context(&st, s.server_svc, &in, &ctx, &out);
        check_ccdb_output(out);
        if (rc > 1 && (ctx != nullptr || out.length != 0)) __builtin_trap();
        if (rc <= 1 && ctx == nullptr) __builtin_trap();
        if (rc == 2) __builtin_trap();  // the server never reports an unauthenticated context so
        free(out.value);
        if (ctx == nullptr) break;
    }
    sec_end_context(&st, ctx, nullptr);
    leaks.check();
    svc->state = saved_state;
}
