// Arbitrary keys, flags, messages and tokens for sec_process_message (and
// sec_prepare_message on the same key and message). The input is split into
// fields:
//   byte 0      choices: bits 0-1 flags (0 digest, 1 no digest, 2 both,
//               3 the next 4 bytes as they are); bit 2 fix the key's parity;
//               bit 3 token length from the next byte (else 24); bit 4 a NULL
//               key, bit 5 a NULL message, bit 6 a NULL token buffer
//   [4 bytes]   flags, when chosen
//   1 byte      key length (mod 17), then the key bytes
//   [1 byte]    token length (mod 41), when chosen; then the token bytes
//   the rest    the message
// Checks: only documented codes come back; the token is never written; a
// failed prepare leaves its output empty; a token made by prepare passes
// process, and the fuzzer's own token passes only if it equals that one.
#include "../fuzz_support.h"
#include "qv_sec_internal.h"

namespace {

bool documented(qv_int32_t rc, bool process) {
    switch (rc) {
        case 0: case SEC_S_BAD_ARGUMENT: case SEC_S_NOT_DES_KEY: case SEC_S_CRYPTO_FAILURE: return true;
        case SEC_S_BAD_BUFFER: case SEC_S_MSG_VERIFY_FAILED: return process;
        case SEC_S_NO_MEMORY: return !process;
        default: return false;
    }
}

}  // namespace

QV_SEC_FUZZ_TARGET(1 << 16) {
    qvfuzz::Cursor f{data, size};
    uint8_t choices = f.byte();
    qv_uint32_t flags = 0;
    switch (choices & 3) {
        case 0: flags = SEC_F_MSG_DIGEST; break;
        case 1: flags = SEC_F_MSG_NO_DIGEST; break;
        case 2: flags = SEC_F_MSG_DIGEST | SEC_F_MSG_NO_DIGEST; break;
        default:
            for (int i = 0; i < 4; ++i) flags = flags << 8 | f.byte();
    }
    std::vector<uint8_t> key = f.bytes(f.byte() % 17);
    if ((choices & 4) && key.size() == SEC_DES_KEY_LEN) sec__des_fix_key_parity(key.data());
    size_t token_len = (choices & 8) ? f.byte() % 41 : SEC_MSG_TOKEN_LEN;
    std::vector<uint8_t> token = f.bytes(token_len);
    std::vector<uint8_t> msg = f.rest();
    const std::vector<uint8_t> token_before = token;

    using qvfuzz::view;
    sec_buffer_desc k = view<sec_buffer_desc>(key), in = view<sec_buffer_desc>(msg), t = view<sec_buffer_desc>(token);
    sec_buffer_t kp = (choices & 16) ? nullptr : &k;
    sec_buffer_t inp = (choices & 32) ? nullptr : &in;
    sec_buffer_t tp = (choices & 64) ? nullptr : &t;

    qv_int32_t rc = sec_process_message(kp, flags, inp, tp);
    if (!documented(rc, true)) __builtin_trap();
    if (token != token_before || t.value != (token.empty() ? nullptr : token.data())) __builtin_trap();

    sec_buffer_desc out{-1, &out};
    qv_int32_t prc = sec_prepare_message(kp, flags, inp, &out);
    if (!documented(prc, false)) __builtin_trap();
    if (prc != 0 && (out.length != 0 || out.value != nullptr)) __builtin_trap();
    if (prc == 0 && out.length != 0) {
        if (out.length != SEC_MSG_TOKEN_LEN || out.value == nullptr) __builtin_trap();
        // The library's own token passes, and the fuzzer's passed only if it
        // is the same 24 bytes (DES is a permutation, the check is exact).
        if (sec_process_message(kp, flags, inp, &out) != 0) __builtin_trap();
        bool same = token.size() == SEC_MSG_TOKEN_LEN && std::memcmp(token.data(), out.value, SEC_MSG_TOKEN_LEN) == 0;
        if (tp != nullptr && (rc == 0) != same) __builtin_trap();
    }
    free(out.value);
}
