// Arbitrary server answers for a client context that a real
// sec_start_sec_context began (first CCDB sent, waiting). The first input
// byte scripts the client's module (continue, no output, failure) and the
// client's imposed mechanisms; the rest is the answer.
#include "context_fuzz_setup.h"

QV_SEC_FUZZ_TARGET(4096) {
    using namespace ctxfuzz;
    if (size == 0) return;
    const Setup &s = fresh_setup();
    uint8_t script = data[0];
    if (qvtest_mpm_behaviour_t *b = s.behaviour(QVTEST_MPM_START_SEC_CONTEXT)) b->continue_rounds = 1;
    if (qvtest_mpm_behaviour_t *b = s.behaviour(QVTEST_MPM_COMPLETE_SEC_CONTEXT)) {
        b->continue_rounds = script & 0x1 ? 1 : 0;
        if (script & 0x2) b->output_len = 0;
        if (script & 0x4) b->maj_stat = 0x10;
    }
    if (script & 0x8) setenv("QV_SEC_IMP_MECHS", "qvtest", 1);
    else unsetenv("QV_SEC_IMP_MECHS");

    LeakCheck leaks(s);
    sec_status_desc st{};
    sec_token_t ctx = nullptr;
    sec_buffer_desc first{0, nullptr};
    qv_int32_t rc = start_client(s, nullptr, &ctx, &first);
    free(first.value);
    if (rc == 1) {
        // The client's number is 1: seeds with that sequence byte reach the module.
        sec_buffer_desc in{static_cast<qv_int32_t>(size - 1), size > 1 ? const_cast<uint8_t *>(data + 1) : nullptr};
        sec_buffer_desc out{0, nullptr};
        rc = sec_complete_sec_context(&st, &in, &ctx, &out);
        check_ccdb_output(out);
        if (rc > 2 && (ctx != nullptr || out.length != 0)) __builtin_trap();
        if (rc <= 2 && ctx == nullptr) __builtin_trap();
        free(out.value);
    }
    sec_end_context(&st, ctx, nullptr);
    leaks.check();
    unsetenv("QV_SEC_IMP_MECHS");
}
