// RC4: key setup and key stream. The state is the caller's 258-byte record
// (permutation, i, j); the stream loop works on it directly.
#include <cstdlib>
#include <cstring>

#include "byte_order.h"
#include "cipher_internal.h"

namespace vorp::cipher {
namespace {

constexpr size_t kPermutation = 256;

// One key-stream byte: the published step, with 8-bit indices wrapping.
[[gnu::always_inline]] inline uint8_t next_byte(uint8_t *s, uint8_t &i, uint8_t &j) {
    ++i;
    uint8_t x = s[i];
    j = uint8_t(j + x);
    uint8_t y = s[j];
    s[i] = y;
    s[j] = x;
    return s[uint8_t(x + y)];
}

void rc4_stream(uint8_t *state, const uint8_t *in, uint8_t *out, size_t len) {
    uint8_t *s = state;
    uint8_t i = state[kPermutation], j = state[kPermutation + 1];
    // Eight stream bytes are gathered into one word and XORed at once.
    for (; len >= 8; len -= 8, in += 8, out += 8) {
        uint64_t ks = 0;
#pragma GCC unroll 8
        for (int k = 0; k < 8; ++k) ks |= uint64_t(next_byte(s, i, j)) << (8 * k);
        uint64_t v;
        std::memcpy(&v, in, 8);
        v ^= ks;
        std::memcpy(out, &v, 8);
    }
    for (; len; --len) *out++ = *in++ ^ next_byte(s, i, j);
    state[kPermutation] = i;
    state[kPermutation + 1] = j;
}

}  // namespace
}  // namespace vorp::cipher

using namespace vorp::cipher;

extern "C" unsigned char *Vorp_rc4Key(const unsigned char *rawKey, qv_int32_t keylen, unsigned char *key) {
    // An empty key would leave the setup nothing to mix in (and divide by
    // zero), so it is refused like any other bad argument.
    if (keylen < 1 || !rawKey) return bad_argument();
    unsigned char *state = key;
    if (!state) {
        state = static_cast<unsigned char *>(std::malloc(VORP_RC4_STATE_LEN));
        if (!state) {
            Vorp_errno = VORP_E_NO_MEMORY;
            return nullptr;
        }
    }
    for (size_t i = 0; i < kPermutation; ++i) state[i] = static_cast<unsigned char>(i);
    const size_t n = static_cast<size_t>(keylen);
    uint8_t j = 0;
    for (size_t i = 0, k = 0; i < kPermutation; ++i) {
        j = uint8_t(j + state[i] + rawKey[k]);
        if (++k == n) k = 0;
        uint8_t t = state[i];
        state[i] = state[j];
        state[j] = t;
    }
    state[kPermutation] = 0;
    state[kPermutation + 1] = 0;
    return state;
}

extern "C" unsigned char *Vorp_rc4(unsigned char *key, const unsigned char *data, unsigned char *to,
                                   qv_uint32_t len) {
    if (!key || !data_ok(data, to, len)) return bad_argument();
    rc4_stream(key, data, to, len);
    return to;
}
