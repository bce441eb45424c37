// AES (16-byte blocks) with the AES-NI instructions. Independent blocks (ECB
// both ways, CBC deciphering) go eight at a time so that the AES units stay
// busy; CBC enciphering waits for each block's result and goes one at a time.
// The round keys are read in the layout the portable code builds.
#include <immintrin.h>

#include "cipher_internal.h"

namespace vorp::cipher {
namespace {

constexpr size_t kLanes = 8;

inline __m128i round_key(const uint32_t *keys, int round) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(keys + 4 * round));
}

inline __m128i load_block(const uint8_t *p) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p)); }
inline void store_block(uint8_t *p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i *>(p), v); }

template <bool Encipher>
[[gnu::always_inline]] inline __m128i round_op(__m128i s, __m128i k) {
    return Encipher ? _mm_aesenc_si128(s, k) : _mm_aesdec_si128(s, k);
}

template <bool Encipher>
[[gnu::always_inline]] inline __m128i last_op(__m128i s, __m128i k) {
    return Encipher ? _mm_aesenclast_si128(s, k) : _mm_aesdeclast_si128(s, k);
}

// N blocks through all rounds, keys loaded once per round for all of them.
template <bool Encipher, int Rounds, size_t N>
[[gnu::always_inline]] inline void rounds_n(const uint32_t *keys, __m128i (&s)[N]) {
    const __m128i k0 = round_key(keys, 0);
#pragma GCC unroll 8
    for (size_t n = 0; n < N; ++n) s[n] = _mm_xor_si128(s[n], k0);
#pragma GCC unroll 14
    for (int r = 1; r < Rounds; ++r) {
        const __m128i k = round_key(keys, r);
#pragma GCC unroll 8
    for (size_t n = 0; n < N; ++n) s[n] = round_op<Encipher>(s[n], k);
    }
    const __m128i kl = round_key(keys, Rounds);
#pragma GCC unroll 8
    for (size_t n = 0; n < N; ++n) s[n] = last_op<Encipher>(s[n], kl);
}

// N blocks from `in` to `out`.
template <bool Encipher, int Rounds, size_t N>
[[gnu::always_inline]] inline void ecb_n(const uint32_t *keys, const uint8_t *in, uint8_t *out) {
    __m128i s[N];
#pragma GCC unroll 8
    for (size_t n = 0; n < N; ++n) s[n] = load_block(in + 16 * n);
    rounds_n<Encipher, Rounds>(keys, s);
#pragma GCC unroll 8
    for (size_t n = 0; n < N; ++n) store_block(out + 16 * n, s[n]);
}

// The last blocks go four, two and one at a time rather than one by one.
template <bool Encipher, int Rounds>
void ecb(const uint32_t *keys, const uint8_t *in, uint8_t *out, size_t blocks) {
    for (; blocks >= kLanes; blocks -= kLanes, in += 16 * kLanes, out += 16 * kLanes)
        ecb_n<Encipher, Rounds, kLanes>(keys, in, out);
    if (blocks & 4) {
        ecb_n<Encipher, Rounds, 4>(keys, in, out);
        in += 64;
        out += 64;
    }
    if (blocks & 2) {
        ecb_n<Encipher, Rounds, 2>(keys, in, out);
        in += 32;
        out += 32;
    }
    if (blocks & 1) ecb_n<Encipher, Rounds, 1>(keys, in, out);
}

template <int Rounds>
void cbc_encrypt(const uint32_t *ek, uint8_t *iv, const uint8_t *in, uint8_t *out, size_t blocks) {
    // The round keys are read from the caller's schedule; the compiler keeps
    // them in registers across the chain, and no copy is made to wipe.
    __m128i c = load_block(iv);
    for (; blocks; --blocks, in += 16, out += 16) {
        // Folding the first round key into the plaintext first keeps it off
        // the chain's critical path.
        __m128i x = _mm_xor_si128(load_block(in), round_key(ek, 0));
        __asm__("" : "+x"(x));  // keeps the compiler from reassociating the XORs onto the chain
        c = _mm_xor_si128(c, x);
#pragma GCC unroll 14
        for (int r = 1; r < Rounds; ++r) c = _mm_aesenc_si128(c, round_key(ek, r));
        c = _mm_aesenclast_si128(c, round_key(ek, Rounds));
        store_block(out, c);
    }
    store_block(iv, c);
}

// N blocks of CBC deciphering; prev is the ciphertext block before them.
template <int Rounds, size_t N>
[[gnu::always_inline]] inline void cbc_decrypt_n(const uint32_t *dk, __m128i &prev, const uint8_t *in, uint8_t *out) {
    // Ciphertext is loaded before the output is stored: `out` may be `in`.
    __m128i c[N], s[N];
#pragma GCC unroll 8
    for (size_t n = 0; n < N; ++n) s[n] = c[n] = load_block(in + 16 * n);
    rounds_n<false, Rounds>(dk, s);
    store_block(out, _mm_xor_si128(s[0], prev));
#pragma GCC unroll 8
    for (size_t n = 1; n < N; ++n) store_block(out + 16 * n, _mm_xor_si128(s[n], c[n - 1]));
    prev = c[N - 1];
}

template <int Rounds>
void cbc_decrypt(const uint32_t *dk, uint8_t *iv, const uint8_t *in, uint8_t *out, size_t blocks) {
    __m128i prev = load_block(iv);
    for (; blocks >= kLanes; blocks -= kLanes, in += 16 * kLanes, out += 16 * kLanes)
        cbc_decrypt_n<Rounds, kLanes>(dk, prev, in, out);
    if (blocks & 4) {
        cbc_decrypt_n<Rounds, 4>(dk, prev, in, out);
        in += 64;
        out += 64;
    }
    if (blocks & 2) {
        cbc_decrypt_n<Rounds, 2>(dk, prev, in, out);
        in += 32;
        out += 32;
    }
    if (blocks & 1) cbc_decrypt_n<Rounds, 1>(dk, prev, in, out);
    store_block(iv, prev);
}

}  // namespace

void aesni_ecb_encrypt(const uint32_t *ek, int rounds, const uint8_t *in, uint8_t *out, size_t blocks) {
    if (rounds == 10) ecb<true, 10>(ek, in, out, blocks);
    else if (rounds == 12) ecb<true, 12>(ek, in, out, blocks);
    else ecb<true, 14>(ek, in, out, blocks);
}

void aesni_ecb_decrypt(const uint32_t *dk, int rounds, const uint8_t *in, uint8_t *out, size_t blocks) {
    if (rounds == 10) ecb<false, 10>(dk, in, out, blocks);
    else if (rounds == 12) ecb<false, 12>(dk, in, out, blocks);
    else ecb<false, 14>(dk, in, out, blocks);
}

void aesni_cbc_encrypt(const uint32_t *ek, int rounds, uint8_t *iv, const uint8_t *in, uint8_t *out,
                       size_t blocks) {
    if (rounds == 10) cbc_encrypt<10>(ek, iv, in, out, blocks);
    else if (rounds == 12) cbc_encrypt<12>(ek, iv, in, out, blocks);
    else cbc_encrypt<14>(ek, iv, in, out, blocks);
}

void aesni_cbc_decrypt(const uint32_t *dk, int rounds, uint8_t *iv, const uint8_t *in, uint8_t *out,
                       size_t blocks) {
    if (rounds == 10) cbc_decrypt<10>(dk, iv, in, out, blocks);
    else if (rounds == 12) cbc_decrypt<12>(dk, iv, in, out, blocks);
    else cbc_decrypt<14>(dk, iv, in, out, blocks);
}

}  // namespace vorp::cipher
