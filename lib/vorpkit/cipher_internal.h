// Internal interface of the symmetric ciphers: the Rijndael round-key layout
// shared by the portable and the AES-NI implementations, and the argument
// checks every cipher routine makes before it touches an output byte.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vorpkit.h"

namespace vorp::cipher {

// Records a bad argument and returns the routine's failure value.
inline unsigned char *bad_argument() {
    Vorp_errno = VORP_E_BAD_ARGUMENT;
    return nullptr;
}

// Data pointers may be NULL only when there is nothing to process.
inline bool data_ok(const void *from, const void *to, uint32_t len) {
    return len == 0 || (from != nullptr && to != nullptr);
}

// Rijndael schedule words: [0] block size in bytes, [1] W = Nb * (Nr + 1),
// then W enciphering and W deciphering round-key words. Each round-key word
// holds one column, its first byte in the low-order bits, so that on this
// little-endian machine the round keys lie in memory as the bytes FIPS 197
// lists and AES-NI loads them as they are. The deciphering keys are those of
// the equivalent inverse cipher: last round first, InvMixColumns applied to
// the inner rounds.
constexpr size_t kAesHeaderWords = 2;

// AES-NI versions for 16-byte blocks; rounds is 10, 12 or 14. `ek` and `dk`
// point at the enciphering and deciphering round keys; iv is updated.
void aesni_ecb_encrypt(const uint32_t *ek, int rounds, const uint8_t *in, uint8_t *out, size_t blocks);
void aesni_ecb_decrypt(const uint32_t *dk, int rounds, const uint8_t *in, uint8_t *out, size_t blocks);
void aesni_cbc_encrypt(const uint32_t *ek, int rounds, uint8_t *iv, const uint8_t *in, uint8_t *out,
                       size_t blocks);
void aesni_cbc_decrypt(const uint32_t *dk, int rounds, uint8_t *iv, const uint8_t *in, uint8_t *out,
                       size_t blocks);

// VAES versions (two blocks per instruction) for the bulk of ECB and CBC
// deciphering: each handles whole passes of sixteen blocks and returns how
// many blocks it did; the caller finishes the rest with the AES-NI code.
// Usable only when vaes_available().
constexpr size_t kVaesChunk = 16;
bool vaes_available();
size_t vaes_ecb(bool encipher, const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out, size_t blocks);
size_t vaes_cbc_decrypt(const uint32_t *dk, int rounds, uint8_t *iv, const uint8_t *in, uint8_t *out,
                        size_t blocks);

}  // namespace vorp::cipher
