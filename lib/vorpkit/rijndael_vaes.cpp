// AES (16-byte blocks) with the 256-bit VAES instructions: two blocks per
// instruction, sixteen blocks in flight, for the bulk of ECB and of CBC
// deciphering. Whatever is left over goes to the 128-bit AES-NI code.
// Only the kernels below are built for VAES and AVX2, and they run only when
// the processor has them (vaes_available, built for the baseline, decides).
#include <immintrin.h>

#include "cipher_internal.h"
#include "cpu_features.h"

namespace vorp::cipher {

// Every function below carries the target attribute (GCC and Clang both
// honour it), so that nothing else in the library is built for VAES.
#define VAES_TARGET __attribute__((target("aes,vaes,avx,avx2")))

namespace {

constexpr size_t kLanes = kVaesChunk / 2;    // 256-bit registers
constexpr size_t kChunk = kVaesChunk;        // blocks per pass: two per register
constexpr size_t kChunkBytes = 16 * kChunk;

VAES_TARGET inline __m256i round_key(const uint32_t *keys, int round) {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(keys + 4 * round)));
}

VAES_TARGET inline __m256i load2(const uint8_t *p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p)); }
VAES_TARGET inline void store2(uint8_t *p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), v); }

template <bool Encipher, int Rounds>
[[gnu::always_inline]] VAES_TARGET inline void rounds16(const uint32_t *keys, __m256i (&s)[kLanes]) {
    const __m256i k0 = round_key(keys, 0);
#pragma GCC unroll 8
    for (size_t n = 0; n < kLanes; ++n) s[n] = _mm256_xor_si256(s[n], k0);
#pragma GCC unroll 14
    for (int r = 1; r < Rounds; ++r) {
        const __m256i k = round_key(keys, r);
#pragma GCC unroll 8
        for (size_t n = 0; n < kLanes; ++n)
            s[n] = Encipher ? _mm256_aesenc_epi128(s[n], k) : _mm256_aesdec_epi128(s[n], k);
    }
    const __m256i kl = round_key(keys, Rounds);
#pragma GCC unroll 8
    for (size_t n = 0; n < kLanes; ++n)
        s[n] = Encipher ? _mm256_aesenclast_epi128(s[n], kl) : _mm256_aesdeclast_epi128(s[n], kl);
}

template <bool Encipher, int Rounds>
VAES_TARGET void ecb(const uint32_t *keys, const uint8_t *in, uint8_t *out, size_t chunks) {
    for (; chunks; --chunks, in += kChunkBytes, out += kChunkBytes) {
        __m256i s[kLanes];
#pragma GCC unroll 8
        for (size_t n = 0; n < kLanes; ++n) s[n] = load2(in + 32 * n);
        rounds16<Encipher, Rounds>(keys, s);
#pragma GCC unroll 8
        for (size_t n = 0; n < kLanes; ++n) store2(out + 32 * n, s[n]);
    }
}

template <int Rounds>
VAES_TARGET void cbc_decrypt(const uint32_t *dk, uint8_t *iv, const uint8_t *in, uint8_t *out, size_t chunks) {
    __m128i prev = _mm_loadu_si128(reinterpret_cast<const __m128i *>(iv));
    for (; chunks; --chunks, in += kChunkBytes, out += kChunkBytes) {
        // Every ciphertext block is loaded before any output is stored:
        // `out` may be `in`.
        __m256i s[kLanes], x[kLanes];
        x[0] = _mm256_inserti128_si256(_mm256_castsi128_si256(prev),
                                       _mm_loadu_si128(reinterpret_cast<const __m128i *>(in)), 1);
#pragma GCC unroll 8
        for (size_t n = 0; n < kLanes; ++n) s[n] = load2(in + 32 * n);
#pragma GCC unroll 8
        for (size_t n = 1; n < kLanes; ++n) x[n] = load2(in + 32 * n - 16);
        prev = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + kChunkBytes - 16));
        rounds16<false, Rounds>(dk, s);
#pragma GCC unroll 8
        for (size_t n = 0; n < kLanes; ++n) store2(out + 32 * n, _mm256_xor_si256(s[n], x[n]));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i *>(iv), prev);
}

}  // namespace

VAES_TARGET size_t vaes_ecb(bool encipher, const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out, size_t blocks) {
    const size_t chunks = blocks / kChunk;
    if (encipher) {
        if (rounds == 10) ecb<true, 10>(keys, in, out, chunks);
        else if (rounds == 12) ecb<true, 12>(keys, in, out, chunks);
        else ecb<true, 14>(keys, in, out, chunks);
    } else {
        if (rounds == 10) ecb<false, 10>(keys, in, out, chunks);
        else if (rounds == 12) ecb<false, 12>(keys, in, out, chunks);
        else ecb<false, 14>(keys, in, out, chunks);
    }
    return chunks * kChunk;
}

VAES_TARGET size_t vaes_cbc_decrypt(const uint32_t *dk, int rounds, uint8_t *iv, const uint8_t *in, uint8_t *out,
                        size_t blocks) {
    const size_t chunks = blocks / kChunk;
    if (chunks == 0) return 0;
    if (rounds == 10) cbc_decrypt<10>(dk, iv, in, out, chunks);
    else if (rounds == 12) cbc_decrypt<12>(dk, iv, in, out, chunks);
    else cbc_decrypt<14>(dk, iv, in, out, chunks);
    return chunks * kChunk;
}

bool vaes_available() { return vorp::cpu().vaes; }

}  // namespace vorp::cipher
