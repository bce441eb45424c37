// Arbitrary bytes as a client's mechanism list: the server's reconciliation
// must refuse it or give a list of configured codes in the client's order;
// an accepted shared list then drives a client's sec_start_sec_context.
#include "context_fuzz_setup.h"

QV_SEC_FUZZ_TARGET(4096) {
    using namespace ctxfuzz;
    const Setup &s = fresh_setup();
    LeakCheck leaks(s);
    sec_buffer_desc in{static_cast<qv_int32_t>(size), size ? const_cast<uint8_t *>(data) : nullptr};
    sec_buffer_desc shared{0, nullptr};
    qv_int32_t rc = sec_reconcile_auth_methods(&in, &shared);
    if (rc != 0) {
        if (shared.length != 0 || shared.value != nullptr) __builtin_trap();
        return;
    }
    // Header 0x81 1, then codes that the client offered, in its order, each
    // one configured.
    const auto *p = static_cast<const uint8_t *>(shared.value);
    if (shared.length < 2 || (shared.length - 2) % 4 != 0 || p[0] != 0x81 || p[1] != 1) __builtin_trap();
    size_t next = 2;
    for (qv_int32_t i = 2; i < shared.length; i += 4) {
        qv_uint32_t code = qvfuzz::be32(p + i);
        if (code != kCodeA && code != kCodeB) __builtin_trap();
        while (next + 4 <= size && std::memcmp(data + next, p + i, 4) != 0) next += 4;
        if (next + 4 > size) __builtin_trap();
        next += 4;
    }

    sec_status_desc st{};
    sec_token_t ctx = nullptr;
    sec_buffer_desc first{0, nullptr};
    rc = start_client(s, &shared, &ctx, &first);
    check_ccdb_output(first);
    if ((rc > 2) != (ctx == nullptr)) __builtin_trap();
    free(first.value);
    free(shared.value);
    sec_end_context(&st, ctx, nullptr);
    leaks.check();
}
