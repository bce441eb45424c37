// Arbitrary bytes as a client's mechanism list: the server's reconciliation
// must refuse it or give a list of configured codes in the client's order;
// an accepted shared list then drives a client's sec_start_sec_context.
#include <vector>

#include "context_fuzz_setup.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace ctxfuzz;
    if (size > 4096) return 0;
    const Setup &s = setup();
    s.reset_module();
    LeakCheck leaks(s);
    sec_buffer_desc in{static_cast<qv_int32_t>(size), size ? const_cast<uint8_t *>(data) : nullptr};
    sec_buffer_desc shared{0, nullptr};
    qv_int32_t rc = sec_reconcile_auth_methods(&in, &shared);
    if (rc != 0) {
        if (shared.length != 0 || shared.value != nullptr) __builtin_trap();
        cu_set_no_error_1();
        return 0;
    }
    // Header 0x81 1, then codes that the client offered, in its order, each
    // one configured.
    const auto *p = static_cast<const uint8_t *>(shared.value);
    if (shared.length < 2 || (shared.length - 2) % 4 != 0 || p[0] != 0x81 || p[1] != 1) __builtin_trap();
    size_t next = 2;
    for (qv_int32_t i = 2; i < shared.length; i += 4) {
        qv_uint32_t code = static_cast<qv_uint32_t>(p[i]) << 24 | p[i + 1] << 16 | p[i + 2] << 8 | p[i + 3];
        if (code != kCodeA && code != kCodeB) __builtin_trap();
        while (next + 4 <= size && std::memcmp(data + next, p + i, 4) != 0) next += 4;
        if (next + 4 > size) __builtin_trap();
        next += 4;
    }

    sec_status_desc st{};
    sec_token_t ctx = nullptr;
    sec_buffer_desc first{0, nullptr};
    char svc[] = "fuzz", host[] = "host";
    rc = sec_start_sec_context(&st, s.client_svc, &shared, svc, host, 0, &ctx, &first);
    check_ccdb_output(first);
    if ((rc > 2) != (ctx == nullptr)) __builtin_trap();
    free(first.value);
    free(shared.value);
    sec_end_context(&st, ctx, nullptr);
    leaks.check();
    cu_set_no_error_1();
    return 0;
}
