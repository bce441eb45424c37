// Rijndael with 16-, 24- and 32-byte blocks and keys (FIPS 197 for 16-byte
// blocks), ECB and CBC: key schedule, the portable table-driven rounds and
// the choice of the AES-NI rounds for 16-byte blocks.
#include <cstdlib>

#include "byte_order.h"
#include "cipher_internal.h"
#include "cpu_features.h"

namespace vorp::cipher {
namespace {

// GF(2^8) arithmetic modulo x^8 + x^4 + x^3 + x + 1, for the tables only.
constexpr uint8_t xtime(uint8_t a) { return uint8_t((a << 1) ^ ((a & 0x80) ? 0x1b : 0)); }

constexpr uint8_t gmul(uint8_t a, uint8_t b) {
    uint8_t r = 0;
    for (; b; b >>= 1, a = xtime(a))
        if (b & 1) r ^= a;
    return r;
}

struct Tables {
    uint8_t sbox[256];
    uint8_t inv_sbox[256];
    // te[r][x]: the column that byte x of row r adds after SubBytes and
    // MixColumns; td[r][x] the same for InvSubBytes and InvMixColumns.
    uint32_t te[4][256];
    uint32_t td[4][256];
};

constexpr uint32_t column(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3) {
    return uint32_t(b0) | uint32_t(b1) << 8 | uint32_t(b2) << 16 | uint32_t(b3) << 24;
}

constexpr uint32_t rotl8(uint32_t v, int n) { return n ? (v << (8 * n)) | (v >> (32 - 8 * n)) : v; }

constexpr Tables make_tables() {
    Tables t{};
    // Powers of the generator 3 give the multiplicative inverses cheaply
    // enough for compile-time evaluation.
    uint8_t exp[255] = {}, log[256] = {};
    for (int i = 0, p = 1; i < 255; ++i, p = p ^ xtime(uint8_t(p))) {
        exp[i] = uint8_t(p);
        log[p] = uint8_t(i);
    }
    for (int x = 0; x < 256; ++x) {
        // Multiplicative inverse (0 maps to 0), then the affine map.
        uint8_t inv = x ? exp[(255 - log[x]) % 255] : 0;
        uint8_t s = inv;
        for (int i = 1; i < 5; ++i) s ^= uint8_t((inv << i) | (inv >> (8 - i)));
        s ^= 0x63;
        t.sbox[x] = s;
        t.inv_sbox[s] = uint8_t(x);
    }
    for (int x = 0; x < 256; ++x) {
        uint8_t s = t.sbox[x], i = t.inv_sbox[x];
        uint32_t e = column(gmul(s, 2), s, s, gmul(s, 3));
        uint32_t d = column(gmul(i, 14), gmul(i, 9), gmul(i, 13), gmul(i, 11));
        for (int r = 0; r < 4; ++r) {
            t.te[r][x] = rotl8(e, r);
            t.td[r][x] = rotl8(d, r);
        }
    }
    return t;
}

alignas(64) constexpr Tables kT = make_tables();

inline uint32_t byte_of(uint32_t w, int r) { return (w >> (8 * r)) & 0xff; }

inline uint32_t sub_word(uint32_t w) {
    return column(kT.sbox[byte_of(w, 0)], kT.sbox[byte_of(w, 1)], kT.sbox[byte_of(w, 2)], kT.sbox[byte_of(w, 3)]);
}

// InvMixColumns of one column: td undoes the S-box that sbox applies.
inline uint32_t inv_mix_column(uint32_t w) {
    return kT.td[0][kT.sbox[byte_of(w, 0)]] ^ kT.td[1][kT.sbox[byte_of(w, 1)]] ^
           kT.td[2][kT.sbox[byte_of(w, 2)]] ^ kT.td[3][kT.sbox[byte_of(w, 3)]];
}

// Row shifts of ShiftRows: 1, 2, 3 for four and six columns, 1, 3, 4 for eight.
template <int Nb>
constexpr int kShift[4] = {0, 1, Nb == 8 ? 3 : 2, Nb == 8 ? 4 : 3};

template <int Nb>
void encipher_block(const uint32_t *rk, int rounds, const uint8_t *in, uint8_t *out) {
    uint32_t s[Nb], t[Nb];
    for (int c = 0; c < Nb; ++c) s[c] = load_le32(in + 4 * c) ^ rk[c];
    for (int round = 1; round < rounds; ++round) {
        rk += Nb;
        for (int c = 0; c < Nb; ++c) {
            t[c] = kT.te[0][byte_of(s[c], 0)] ^ kT.te[1][byte_of(s[(c + kShift<Nb>[1]) % Nb], 1)] ^
                   kT.te[2][byte_of(s[(c + kShift<Nb>[2]) % Nb], 2)] ^
                   kT.te[3][byte_of(s[(c + kShift<Nb>[3]) % Nb], 3)] ^ rk[c];
        }
        for (int c = 0; c < Nb; ++c) s[c] = t[c];
    }
    rk += Nb;
    for (int c = 0; c < Nb; ++c) {
        uint32_t w = column(kT.sbox[byte_of(s[c], 0)], kT.sbox[byte_of(s[(c + kShift<Nb>[1]) % Nb], 1)],
                            kT.sbox[byte_of(s[(c + kShift<Nb>[2]) % Nb], 2)],
                            kT.sbox[byte_of(s[(c + kShift<Nb>[3]) % Nb], 3)]);
        store_le32(out + 4 * c, w ^ rk[c]);
    }
}

template <int Nb>
void decipher_block(const uint32_t *dk, int rounds, const uint8_t *in, uint8_t *out) {
    uint32_t s[Nb], t[Nb];
    for (int c = 0; c < Nb; ++c) s[c] = load_le32(in + 4 * c) ^ dk[c];
    for (int round = 1; round < rounds; ++round) {
        dk += Nb;
        for (int c = 0; c < Nb; ++c) {
            t[c] = kT.td[0][byte_of(s[c], 0)] ^ kT.td[1][byte_of(s[(c + Nb - kShift<Nb>[1]) % Nb], 1)] ^
                   kT.td[2][byte_of(s[(c + Nb - kShift<Nb>[2]) % Nb], 2)] ^
                   kT.td[3][byte_of(s[(c + Nb - kShift<Nb>[3]) % Nb], 3)] ^ dk[c];
        }
        for (int c = 0; c < Nb; ++c) s[c] = t[c];
    }
    dk += Nb;
    for (int c = 0; c < Nb; ++c) {
        uint32_t w = column(kT.inv_sbox[byte_of(s[c], 0)],
                            kT.inv_sbox[byte_of(s[(c + Nb - kShift<Nb>[1]) % Nb], 1)],
                            kT.inv_sbox[byte_of(s[(c + Nb - kShift<Nb>[2]) % Nb], 2)],
                            kT.inv_sbox[byte_of(s[(c + Nb - kShift<Nb>[3]) % Nb], 3)]);
        store_le32(out + 4 * c, w ^ dk[c]);
    }
}

// Portable modes for any block size. The chaining block is kept apart from
// the output, so `out` may be `in`.
template <int Nb>
void portable_run(bool encipher, const uint32_t *ek, const uint32_t *dk, int rounds, uint8_t *iv,
                  const uint8_t *in, uint8_t *out, size_t blocks) {
    constexpr size_t kBlock = 4 * Nb;
    uint8_t buf[kBlock];
    for (; blocks; --blocks, in += kBlock, out += kBlock) {
        if (!iv) {
            if (encipher)
                encipher_block<Nb>(ek, rounds, in, out);
            else
                decipher_block<Nb>(dk, rounds, in, out);
        } else if (encipher) {
            for (size_t i = 0; i < kBlock; ++i) buf[i] = in[i] ^ iv[i];
            encipher_block<Nb>(ek, rounds, buf, out);
            for (size_t i = 0; i < kBlock; ++i) iv[i] = out[i];
        } else {
            decipher_block<Nb>(dk, rounds, in, buf);
            for (size_t i = 0; i < kBlock; ++i) {
                uint8_t c = in[i];
                out[i] = buf[i] ^ iv[i];
                iv[i] = c;
            }
        }
    }
    secure_wipe(buf, sizeof buf);
}

bool valid_size(qv_int32_t n) { return n == 16 || n == 24 || n == 32; }

}  // namespace
}  // namespace vorp::cipher

using namespace vorp;
using namespace vorp::cipher;

extern "C" qv_uint32_t *Vorp_aesKey(const unsigned char *rawKey, qv_int32_t keyLen, qv_uint32_t *key,
                                    qv_int32_t blockSize) {
    if (!valid_size(keyLen) || !valid_size(blockSize) || !rawKey) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return nullptr;
    }
    const int nb = blockSize / 4, nk = keyLen / 4;
    const int rounds = (nk > nb ? nk : nb) + 6;
    const int words = nb * (rounds + 1);
    qv_uint32_t *schedule = key;
    if (!schedule) {
        schedule = static_cast<qv_uint32_t *>(std::malloc(sizeof(qv_uint32_t) * VORP_AES_KEY_WORDS(keyLen, blockSize)));
        if (!schedule) {
            Vorp_errno = VORP_E_NO_MEMORY;
            return nullptr;
        }
    }
    schedule[0] = static_cast<qv_uint32_t>(blockSize);
    schedule[1] = static_cast<qv_uint32_t>(words);
    uint32_t *ek = schedule + kAesHeaderWords;
    uint32_t *dk = ek + words;

    uint8_t rcon = 1;
    for (int i = 0; i < words; ++i) {
        if (i < nk) {
            ek[i] = load_le32(rawKey + 4 * i);
            continue;
        }
        uint32_t temp = ek[i - 1];
        if (i % nk == 0) {
            temp = sub_word((temp >> 8) | (temp << 24)) ^ rcon;
            rcon = xtime(rcon);
        } else if (nk > 6 && i % nk == 4) {
            temp = sub_word(temp);
        }
        ek[i] = ek[i - nk] ^ temp;
    }
    for (int round = 0; round <= rounds; ++round) {
        const uint32_t *src = ek + nb * (rounds - round);
        for (int c = 0; c < nb; ++c)
            dk[nb * round + c] = (round == 0 || round == rounds) ? src[c] : inv_mix_column(src[c]);
    }
    return schedule;
}

extern "C" unsigned char *Vorp_aes(qv_int32_t mode, const qv_uint32_t *key, unsigned char *iv,
                                   const unsigned char *from, unsigned char *to, qv_uint32_t len) {
    if (!key || !valid_size(static_cast<qv_int32_t>(key[0]))) return bad_argument();
    const uint32_t block = key[0], nb = block / 4, words = key[1];
    // The word count must be one a key of 16, 24 or 32 bytes gives.
    const uint32_t rounds = words % nb == 0 ? words / nb - 1 : 0;
    if ((rounds != 10 && rounds != 12 && rounds != 14) || rounds < nb + 6) return bad_argument();
    if (len % block != 0 || !data_ok(from, to, len)) return bad_argument();
    size_t blocks = len / block;
    if (blocks == 0) return to;

    const uint32_t *ek = key + kAesHeaderWords;
    const uint32_t *dk = ek + words;
    const bool encipher = mode == 0;
    const int nr = static_cast<int>(rounds);
    if (nb == 4 && vorp::cpu().aesni) {
        // CBC enciphering waits on each block and gains nothing from VAES.
        size_t done = 0;
        if (blocks >= kVaesChunk && (!iv || !encipher) && vaes_available())
            done = iv ? vaes_cbc_decrypt(dk, nr, iv, from, to, blocks)
                      : vaes_ecb(encipher, encipher ? ek : dk, nr, from, to, blocks);
        const uint8_t *in = from + 16 * done;
        uint8_t *out = to + 16 * done;
        blocks -= done;
        if (!iv)
            encipher ? aesni_ecb_encrypt(ek, nr, in, out, blocks) : aesni_ecb_decrypt(dk, nr, in, out, blocks);
        else
            encipher ? aesni_cbc_encrypt(ek, nr, iv, in, out, blocks) : aesni_cbc_decrypt(dk, nr, iv, in, out, blocks);
    } else if (nb == 4) {
        portable_run<4>(encipher, ek, dk, nr, iv, from, to, blocks);
    } else if (nb == 6) {
        portable_run<6>(encipher, ek, dk, nr, iv, from, to, blocks);
    } else {
        portable_run<8>(encipher, ek, dk, nr, iv, from, to, blocks);
    }
    return to;
}
