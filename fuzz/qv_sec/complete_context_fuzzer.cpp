// Arbitrary server answers for a client context that a real
// sec_start_sec_context began (first CCDB sent, waiting). The first input
// byte scripts the client's module (continue, no output, failure) and the
// client's imposed mechanisms; the rest is the answer.
#include "context_fuzz_setup.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace ctxfuzz;
    if (size == 0 || size > 4096) return 0;
    const Setup &s = setup();
    s.reset_module();
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
    static const uint8_t list_bytes[] = {0x81, 1, 0x00, 0x01, 0x00, 0x02};
    sec_buffer_desc list{sizeof list_bytes, const_cast<uint8_t *>(list_bytes)};
    sec_status_desc st{};
    sec_token_t ctx = nullptr;
    sec_buffer_desc first{0, nullptr};
    char svc[] = "fuzz", host[] = "host";
    qv_int32_t rc = sec_start_sec_context(&st, s.client_svc, &list, svc, host, 0, &ctx, &first);
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
    cu_set_no_error_1();
    return 0;
}
