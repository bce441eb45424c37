// Arbitrary signature buffers given to sec_verify_data_v on the context pair
// of context_fuzz_setup.h. The first input byte scripts the call: bits 0-1 the
// number of vector elements (0 to 3, cut from a fixed text, one of them
// empty), bit 2 verify on the client's context instead of the server's,
// bit 3 sign the vector first and append the input to the real signature,
// bit 4 make the module's verification fail. The rest is the signature.
#include "context_fuzz_setup.h"

using namespace ctxfuzz;

namespace {

bool allowed(qv_int32_t rc) {
    return rc == 0 || rc == SEC_S_MPM_FAILURE || rc == SEC_S_BAD_TOKEN || rc == SEC_S_BAD_BUFFER ||
           rc == SEC_S_BAD_MECHANISM || rc == SEC_S_AUTH_ERROR || rc == SEC_S_BAD_SIGNATURE;
}

}  // namespace

QV_SEC_FUZZ_TARGET(4096) {
    if (size == 0) return;
    const Setup &s = fresh_setup();
    const ContextPair &ctx = established_pair();
    uint8_t script = data[0];
    if (script & 0x10) {
        if (qvtest_mpm_behaviour_t *b = s.behaviour(QVTEST_MPM_VERIFY_DATA_V)) b->maj_stat = 0x20;
    }

    char text[] = "signed by the fuzzer";
    iovec vector[3] = {{text, 6}, {nullptr, 0}, {text + 6, sizeof text - 7}};
    qv_int32_t count = script & 0x3;
    sec_token_t token = script & 0x4 ? ctx.client : ctx.server;
    sec_status_desc st{};

    LeakCheck leaks(s);
    std::vector<uint8_t> sig(data + 1, data + size);
    if (script & 0x8) {
        sec_buffer_desc made{0, nullptr};
        if (sec_sign_data_v(&st, ctx.client, count, vector, &made) == 0 && made.length > 0)
            sig.insert(sig.begin(), static_cast<uint8_t *>(made.value),
                       static_cast<uint8_t *>(made.value) + made.length);
        free(made.value);
    }
    sec_buffer_desc in = qvfuzz::view<sec_buffer_desc>(sig);
    const std::vector<uint8_t> before = sig;
    qv_int32_t rc = sec_verify_data_v(&st, token, &in, count, vector);
    if (!allowed(rc)) __builtin_trap();
    // The signature is only read.
    if (in.length != static_cast<qv_int32_t>(before.size()) || sig != before) __builtin_trap();
    if (sig.empty() && rc != SEC_S_BAD_BUFFER) __builtin_trap();
    leaks.check();
}
