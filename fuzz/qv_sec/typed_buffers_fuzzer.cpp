// Arbitrary bytes as a CCDB and as a seal buffer: unwrapping either must give
// a complete result or an error, and a good CCDB must wrap back to itself.
#include "../fuzz_support.h"
#include "qv_sec_internal.h"

QV_SEC_FUZZ_TARGET(1 << 20) {
    sec_buffer_desc in{static_cast<qv_int32_t>(size), size ? const_cast<uint8_t *>(data) : nullptr};
    qv_uint32_t mech = 0;
    int version = 0;
    unsigned char seq = 0, flags = 0;
    sec_buffer_desc body{0, nullptr};
    if (sec__unwrap_mech_ccdb(&in, &mech, &version, &seq, &flags, &body) == 0) {
        sec_buffer_desc again{0, nullptr};
        if (sec__wrap_mech_ccdb(&body, mech, version, seq, flags, &again) != 0) __builtin_trap();
        if (again.length != in.length || std::memcmp(again.value, data, size) != 0) __builtin_trap();
        free(again.value);
    } else if (body.length != 0 || body.value != nullptr) {
        __builtin_trap();
    }
    free(body.value);

    sec_buffer_desc sealed{0, nullptr};
    if (sec__unwrap_seal_buff(&in, &mech, &version, &sealed) == 0) {
        if (sealed.length != static_cast<qv_int32_t>(size) - 6) __builtin_trap();
    }
    free(sealed.value);
}
