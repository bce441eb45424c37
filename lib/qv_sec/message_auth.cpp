// Message authentication under a shared DES key: key generation, and the
// 24-byte token DES-CBC(key, IV = sec_c_des_iv, MD5(message) || key) that
// one side makes and the other checks. These routines stand apart from the
// rest of the library: they neither initialise it, nor trace, nor lock.
// Nothing in them throws (they allocate only with malloc), so no exception
// can leave them.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "errors.h"
#include "vorpkit.h"

namespace {

constexpr size_t kKeyLen = SEC_DES_KEY_LEN;
constexpr size_t kDigestLen = VORP_MD5_DIGEST_LEN;
constexpr size_t kTokenLen = SEC_MSG_TOKEN_LEN;
static_assert(kDigestLen + kKeyLen == kTokenLen, "the token is the digest and the key");

constexpr qv_int32_t kEncipher = 0;
constexpr qv_int32_t kDecipher = 1;

// Everything of one call that derives from the key or would let an observer
// of freed stack rebuild it: wiped when the call returns, on every path.
struct TokenWork {
    qv_uint32_t schedule[VORP_DES_KEY_WORDS(1)] = {};
    qv_uint32_t md5_state[VORP_MD5_STATE_WORDS] = {};
    unsigned char iv[kKeyLen] = {};
    unsigned char plain[kTokenLen] = {};  // digest, then key
    unsigned char digest[kDigestLen] = {};

    TokenWork() = default;
    TokenWork(const TokenWork &) = delete;
    TokenWork &operator=(const TokenWork &) = delete;
    ~TokenWork() { explicit_bzero(this, sizeof *this); }
};

struct KeyWork {
    Vorp_trng_t trng = {};  // fresh on every call; its accumulator held the key
    unsigned char raw[kKeyLen] = {};

    KeyWork() = default;
    KeyWork(const KeyWork &) = delete;
    KeyWork &operator=(const KeyWork &) = delete;
    ~KeyWork() { explicit_bzero(this, sizeof *this); }
};

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};

// Equality of secret bytes in time that does not depend on where they differ.
bool equal_constant_time(const unsigned char *a, const unsigned char *b, size_t n) {
    unsigned diff = 0;
    for (size_t i = 0; i < n; ++i) {
        diff |= static_cast<unsigned>(a[i] ^ b[i]);
        __asm__("" : "+r"(diff));  // keeps the compiler from stopping early
    }
    return diff == 0;
}

// The checks shared by prepare and process. Beyond the NULL pointers and the
// flags, a message buffer with a negative length, or with a length and no
// bytes, is refused as a bad argument rather than read.
bool message_arguments_valid(sec_buffer_t key, qv_uint32_t flags, sec_buffer_t in, sec_buffer_t out) {
    if (key == nullptr || in == nullptr || out == nullptr) return false;
    bool digest = (flags & SEC_F_MSG_DIGEST) != 0;
    bool no_digest = (flags & SEC_F_MSG_NO_DIGEST) != 0;
    if (digest == no_digest) return false;
    return in->length == 0 || (in->length > 0 && in->value != nullptr);
}

// Weak keys pass: only the generator avoids them.
bool is_des_key(sec_buffer_t key) {
    return key->length == static_cast<qv_int32_t>(kKeyLen) && key->value != nullptr &&
           sec__des_check_key_parity(static_cast<const unsigned char *>(key->value)) == 1;
}

void message_digest(sec_buffer_t in, TokenWork &w) {
    Vorp_md5Init(w.md5_state);
    Vorp_md5(w.md5_state, in->value, static_cast<qv_uint32_t>(in->length), w.digest);
}

// Runs the token's CBC chain in either direction from a copy of the fixed IV,
// so the exported IV is never overwritten by the chaining.
bool run_token_cipher(qv_int32_t mode, sec_buffer_t key, TokenWork &w, const unsigned char *from,
                      unsigned char *to) {
    if (Vorp_desKey(static_cast<const unsigned char *>(key->value), 1, w.schedule) == nullptr) return false;
    std::memcpy(w.iv, sec_c_des_iv, kKeyLen);
    return Vorp_des(mode, w.schedule, w.iv, from, to, kTokenLen) != nullptr;
}

qv_int32_t crypto_failure() { return sec_report(SEC_S_CRYPTO_FAILURE, MSG_2650_046); }

}  // namespace

extern "C" {

qv_int32_t sec_generate_key(sec_buffer_t key) {
    if (key == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, "sec_generate_key");
    KeyWork w;
    do {
        Vorp_trng(&w.trng, w.raw, kKeyLen);
        sec__des_fix_key_parity(w.raw);
    } while (sec__des_is_weak_key(w.raw));
    key->value = std::malloc(kKeyLen);
    if (key->value == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    std::memcpy(key->value, w.raw, kKeyLen);
    key->length = static_cast<qv_int32_t>(kKeyLen);
    return 0;
}

qv_int32_t sec_prepare_message(sec_buffer_t key, qv_uint32_t flags, sec_buffer_t in, sec_buffer_t out) {
    // Cleared before any check, so that every failure, the argument and key
    // checks included, leaves the output empty.
    if (out != nullptr) {
        out->length = 0;
        out->value = nullptr;
    }
    if (!message_arguments_valid(key, flags, in, out))
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, "sec_prepare_message");
    if (!is_des_key(key)) return sec_report(SEC_S_NOT_DES_KEY, MSG_2650_045);
    if (in->length == 0 || (flags & SEC_F_MSG_DIGEST) == 0) return 0;

    TokenWork w;
    message_digest(in, w);
    std::memcpy(w.plain, w.digest, kDigestLen);
    std::memcpy(w.plain + kDigestLen, key->value, kKeyLen);
    std::unique_ptr<unsigned char, FreeDeleter> token(static_cast<unsigned char *>(std::malloc(kTokenLen)));
    if (!token) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    if (!run_token_cipher(kEncipher, key, w, w.plain, token.get())) return crypto_failure();
    out->value = token.release();
    out->length = static_cast<qv_int32_t>(kTokenLen);
    return 0;
}

qv_int32_t sec_process_message(sec_buffer_t key, qv_uint32_t flags, sec_buffer_t in, sec_buffer_t inout) {
    // The argument message names sec_prepare_message, as it always has:
    // callers may match on it.
    if (!message_arguments_valid(key, flags, in, inout))
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, "sec_prepare_message");
    if (!is_des_key(key)) return sec_report(SEC_S_NOT_DES_KEY, MSG_2650_045);
    if (in->length == 0 || (flags & SEC_F_MSG_DIGEST) == 0) return 0;
    if (inout->length != static_cast<qv_int32_t>(kTokenLen) || inout->value == nullptr)
        return sec_report(SEC_S_BAD_BUFFER, MSG_2650_047);

    TokenWork w;
    if (!run_token_cipher(kDecipher, key, w, static_cast<const unsigned char *>(inout->value), w.plain))
        return crypto_failure();
    if (!equal_constant_time(w.plain + kDigestLen, static_cast<const unsigned char *>(key->value), kKeyLen))
        return sec_report(SEC_S_MSG_VERIFY_FAILED, MSG_2650_048);
    message_digest(in, w);
    if (!equal_constant_time(w.plain, w.digest, kDigestLen)) return sec_report(SEC_S_MSG_VERIFY_FAILED, MSG_2650_049);
    return 0;
}

}  // extern "C"
