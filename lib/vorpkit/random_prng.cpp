// The pseudo-random generator: stretches a 32-byte seed with MD5 and, at a
// set rate, stirs in bytes from the true-random generator. Only seed bytes
// 0..15 change after seeding; 16..31 stay as seeded and feed every digest.
// Like the true-random generator it keeps everything in the caller's record
// and takes no lock: one record, one thread at a time.
#include <cstring>

#include "byte_order.h"
#include "random_internal.h"
#include "vorpkit.h"

namespace vorp::rng {

namespace {

uint32_t processor_seconds() {
    return static_cast<uint32_t>(entropy_sources().clock() / 1000000);
}

// Seed bytes 0..15 become the MD5 digest of all 32.
void rehash_seed(Vorp_prng_t *state) {
    uint8_t digest[16];
    Vorp_md5(nullptr, state->seed, sizeof state->seed, digest);
    std::memcpy(state->seed, digest, sizeof digest);
    secure_wipe(digest, sizeof digest);
}

// One true-random byte for stirring, if one is buffered or the rate limit
// allows a new sampling round.
bool stir_byte(Vorp_prng_t *state, uint8_t *byte) {
    if (state->trngState.bytes == 0) {
        uint32_t now = processor_seconds();
        if (now - state->rt < state->trngTime) return false;
        state->rt = now;
    }
    Vorp_trng(&state->trngState, byte, 1);
    return true;
}

}  // namespace

}  // namespace vorp::rng

extern "C" {

void Vorp_seedPrng(Vorp_prng_t *state, const void *data, qv_uint32_t len) {
    if (state == nullptr) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return;
    }
    if (data == nullptr) {
        qv_uint32_t n = len < sizeof state->seed ? len : sizeof state->seed;
        Vorp_trng(&state->trngState, state->seed, n);
        vorp::rng::rehash_seed(state);
    } else {
        // Reversed and wrapping: the last 32 bytes win, taken as they are.
        const auto *in = static_cast<const uint8_t *>(data);
        for (qv_uint32_t i = 0; i < len; ++i) state->seed[(len - 1 - i) % sizeof state->seed] = in[i];
    }
    if (state->ri == 0) state->ri = 1;
    state->rt = vorp::rng::processor_seconds();
}

void Vorp_prng(Vorp_prng_t *state, void *to, qv_uint32_t len) {
    if (state == nullptr || (to == nullptr && len > 0)) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return;
    }
    if (state->ri == 0) Vorp_seedPrng(state, nullptr, sizeof state->seed);
    auto *out = static_cast<uint8_t *>(to);
    for (qv_uint32_t k = 0; k < len; ++k) {
        qv_uint32_t i = ++state->ri;
        uint8_t fresh;
        if (state->trngMix != 0 && i % state->trngMix == 0 && vorp::rng::stir_byte(state, &fresh))
            state->seed[i % 8] ^= fresh;
        if (i % 8 == 0) vorp::rng::rehash_seed(state);
        out[k] = state->seed[i % 8];
    }
}

}
