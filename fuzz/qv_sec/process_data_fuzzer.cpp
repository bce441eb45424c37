// Arbitrary seal buffers given to sec_process_data on the context pair of
// context_fuzz_setup.h. The first input byte scripts the call: bit 0 open
// on the client's context instead of the server's, bit 1 make the module's
// routine fail, bit 2 seal the rest with sec_prepare_data on the other
// context first (the 0x86 header and module A's bytes are then real, and
// opening must give the rest back). The rest is the seal buffer.
//
// Checks: the library's header checks decide 7 (empty, short or wrong type)
// and 8 (another mechanism's seal) before the module is called; the input is
// only read; a success hands the caller exactly one module buffer.
#include "context_fuzz_setup.h"

using namespace ctxfuzz;

QV_SEC_FUZZ_TARGET(4096) {
    if (size == 0) return;
    const Setup &s = fresh_setup();
    const ContextPair &pair = established_pair();
    const uint8_t script = data[0];
    sec_token_t opener = script & 0x1 ? pair.client : pair.server;
    sec_token_t sealer = script & 0x1 ? pair.server : pair.client;
    const bool module_fails = script & 0x2;
    const bool sealed_first = script & 0x4;
    sec_status_desc st{};
    LeakCheck leaks(s);

    std::vector<uint8_t> plain(data + 1, data + size), in = plain;
    if (sealed_first) {
        sec_buffer_desc p = qvfuzz::view<sec_buffer_desc>(plain);
        sec_buffer_desc sealed{0, nullptr};
        qv_int32_t rc = sec_prepare_data(&st, sealer, SEC_F_PROTECT_MODE1, &p, &sealed);
        if (plain.empty() ? rc != SEC_S_BAD_BUFFER : rc != 0) __builtin_trap();
        in.assign(static_cast<uint8_t *>(sealed.value), static_cast<uint8_t *>(sealed.value) + sealed.length);
        free(sealed.value);
        leaks.check();  // the module's output went back to the module
    }
    if (module_fails) s.behaviour(QVTEST_MPM_PROCESS_DATA)->maj_stat = 0x20;

    const std::vector<uint8_t> before = in;
    sec_buffer_desc b = qvfuzz::view<sec_buffer_desc>(in);
    sec_buffer_desc out{0, nullptr};
    qv_int32_t rc = sec_process_data(&st, opener, &b, &out);

    bool header_ok = in.size() >= 6 && in[0] == SEC_BUF_SEAL;
    qv_uint32_t mech = header_ok ? qvfuzz::be32(&in[2]) : 0;
    if (!header_ok) {
        if (rc != SEC_S_BAD_BUFFER) __builtin_trap();
    } else if (mech != kCodeA) {
        if (rc != SEC_S_BAD_MECHANISM) __builtin_trap();
    } else if (module_fails) {
        if (rc != SEC_S_MPM_FAILURE) __builtin_trap();
    } else if (sealed_first) {
        // Opened back to the plain bytes.
        if (rc != 0 || out.length != static_cast<qv_int32_t>(plain.size()) ||
            std::memcmp(out.value, plain.data(), plain.size()) != 0)
            __builtin_trap();
    } else if (rc != 0 && rc != SEC_S_MPM_FAILURE) {
        __builtin_trap();
    }
    if (rc != 0 && (out.length != 0 || out.value != nullptr)) __builtin_trap();
    if (b.length != static_cast<qv_int32_t>(before.size()) || in != before) __builtin_trap();
    leaks.check(out.value != nullptr ? 1 : 0);
    free(out.value);
}
