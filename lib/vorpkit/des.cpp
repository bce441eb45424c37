// DES and triple DES (FIPS 46-3), ECB and CBC.
//
// The round function uses eight combined S-box/P tables built at compile time
// from the published S-boxes and P permutation. Both halves of the block are
// kept rotated right by one bit, which puts the six input bits of S-boxes 1,
// 3, 5, 7 on whole six-bit fields of (R ^ subkey word 0) and those of 2, 4, 6,
// 8 on the same fields of (R rotated right by four ^ subkey word 1); the
// tables' outputs carry the same rotation. The initial and final permutations
// are five swap-moves each; triple DES does them once per block.
#include <cstdlib>

#include "byte_order.h"
#include "cipher_internal.h"

namespace vorp::cipher {
namespace {

constexpr uint8_t kSbox[8][64] = {
    {14, 4, 13, 1, 2, 15, 11, 8, 3, 10, 6, 12, 5, 9, 0, 7,
     0, 15, 7, 4, 14, 2, 13, 1, 10, 6, 12, 11, 9, 5, 3, 8,
     4, 1, 14, 8, 13, 6, 2, 11, 15, 12, 9, 7, 3, 10, 5, 0,
     15, 12, 8, 2, 4, 9, 1, 7, 5, 11, 3, 14, 10, 0, 6, 13},
    {15, 1, 8, 14, 6, 11, 3, 4, 9, 7, 2, 13, 12, 0, 5, 10,
     3, 13, 4, 7, 15, 2, 8, 14, 12, 0, 1, 10, 6, 9, 11, 5,
     0, 14, 7, 11, 10, 4, 13, 1, 5, 8, 12, 6, 9, 3, 2, 15,
     13, 8, 10, 1, 3, 15, 4, 2, 11, 6, 7, 12, 0, 5, 14, 9},
    {10, 0, 9, 14, 6, 3, 15, 5, 1, 13, 12, 7, 11, 4, 2, 8,
     13, 7, 0, 9, 3, 4, 6, 10, 2, 8, 5, 14, 12, 11, 15, 1,
     13, 6, 4, 9, 8, 15, 3, 0, 11, 1, 2, 12, 5, 10, 14, 7,
     1, 10, 13, 0, 6, 9, 8, 7, 4, 15, 14, 3, 11, 5, 2, 12},
    {7, 13, 14, 3, 0, 6, 9, 10, 1, 2, 8, 5, 11, 12, 4, 15,
     13, 8, 11, 5, 6, 15, 0, 3, 4, 7, 2, 12, 1, 10, 14, 9,
     10, 6, 9, 0, 12, 11, 7, 13, 15, 1, 3, 14, 5, 2, 8, 4,
     3, 15, 0, 6, 10, 1, 13, 8, 9, 4, 5, 11, 12, 7, 2, 14},
    {2, 12, 4, 1, 7, 10, 11, 6, 8, 5, 3, 15, 13, 0, 14, 9,
     14, 11, 2, 12, 4, 7, 13, 1, 5, 0, 15, 10, 3, 9, 8, 6,
     4, 2, 1, 11, 10, 13, 7, 8, 15, 9, 12, 5, 6, 3, 0, 14,
     11, 8, 12, 7, 1, 14, 2, 13, 6, 15, 0, 9, 10, 4, 5, 3},
    {12, 1, 10, 15, 9, 2, 6, 8, 0, 13, 3, 4, 14, 7, 5, 11,
     10, 15, 4, 2, 7, 12, 9, 5, 6, 1, 13, 14, 0, 11, 3, 8,
     9, 14, 15, 5, 2, 8, 12, 3, 7, 0, 4, 10, 1, 13, 11, 6,
     4, 3, 2, 12, 9, 5, 15, 10, 11, 14, 1, 7, 6, 0, 8, 13},
    {4, 11, 2, 14, 15, 0, 8, 13, 3, 12, 9, 7, 5, 10, 6, 1,
     13, 0, 11, 7, 4, 9, 1, 10, 14, 3, 5, 12, 2, 15, 8, 6,
     1, 4, 11, 13, 12, 3, 7, 14, 10, 15, 6, 8, 0, 5, 9, 2,
     6, 11, 13, 8, 1, 4, 10, 7, 9, 5, 0, 15, 14, 2, 3, 12},
    {13, 2, 8, 4, 6, 15, 11, 1, 10, 9, 3, 14, 5, 0, 12, 7,
     1, 15, 13, 8, 10, 3, 7, 4, 12, 5, 6, 11, 0, 14, 9, 2,
     7, 11, 4, 1, 9, 12, 14, 2, 0, 6, 10, 13, 15, 3, 5, 8,
     2, 1, 14, 7, 4, 10, 8, 13, 15, 12, 9, 0, 3, 5, 6, 11},
};

// Bit numbers count from 1 at the most significant bit, as FIPS 46-3 does.
constexpr uint8_t kP[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1, 15, 23, 26, 5, 18, 31, 10,
                            2, 8, 24, 14, 32, 27, 3, 9, 19, 13, 30, 6, 22, 11, 4, 25};
constexpr uint8_t kPC1[56] = {57, 49, 41, 33, 25, 17, 9, 1, 58, 50, 42, 34, 26, 18,
                              10, 2, 59, 51, 43, 35, 27, 19, 11, 3, 60, 52, 44, 36,
                              63, 55, 47, 39, 31, 23, 15, 7, 62, 54, 46, 38, 30, 22,
                              14, 6, 61, 53, 45, 37, 29, 21, 13, 5, 28, 20, 12, 4};
constexpr uint8_t kPC2[48] = {14, 17, 11, 24, 1, 5, 3, 28, 15, 6, 21, 10,
                              23, 19, 12, 4, 26, 8, 16, 7, 27, 20, 13, 2,
                              41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48,
                              44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};
constexpr uint8_t kShifts[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};

struct SpTables {
    uint32_t t[8][64];
};

constexpr SpTables make_sp_tables() {
    SpTables sp{};
    for (int box = 0; box < 8; ++box) {
        for (int idx = 0; idx < 64; ++idx) {
            // Outer bits choose the row, inner four the column.
            int row = ((idx >> 4) & 2) | (idx & 1);
            int col = (idx >> 1) & 15;
            uint32_t pre = uint32_t(kSbox[box][row * 16 + col]) << (28 - 4 * box);
            uint32_t post = 0;
            for (int i = 0; i < 32; ++i) post |= ((pre >> (32 - kP[i])) & 1u) << (31 - i);
            sp.t[box][idx] = (post >> 1) | (post << 31);
        }
    }
    return sp;
}

alignas(64) constexpr SpTables kSp = make_sp_tables();

inline uint32_t rotr(uint32_t v, int n) { return (v >> n) | (v << (32 - n)); }

// One round: dst ^= f(src) for each lane.
template <int N>
[[gnu::always_inline]] inline void feistel(uint32_t (&dst)[N], const uint32_t (&src)[N], uint32_t k0,
                                           uint32_t k1) {
#pragma GCC unroll 4
    for (int n = 0; n < N; ++n) {
        uint32_t u = src[n] ^ k0;
        uint32_t t = rotr(src[n], 4) ^ k1;
        // A balanced XOR tree: the eight lookups complete together, and a
        // chain of eight XORs would lengthen every round by five.
        uint32_t f0 = kSp.t[0][u >> 26] ^ kSp.t[2][(u >> 18) & 63];
        uint32_t f1 = kSp.t[4][(u >> 10) & 63] ^ kSp.t[6][(u >> 2) & 63];
        uint32_t f2 = kSp.t[7][t >> 26] ^ kSp.t[1][(t >> 18) & 63];
        uint32_t f3 = kSp.t[3][(t >> 10) & 63] ^ kSp.t[5][(t >> 2) & 63];
        // The compiler would otherwise fold the pairs back into one chain.
        __asm__("" : "+r"(f0), "+r"(f1), "+r"(f2), "+r"(f3));
        dst[n] ^= (f0 ^ f1) ^ (f2 ^ f3);
    }
}

// Sixteen rounds with one key, subkeys in order (encipher) or reversed.
template <bool Encipher, int N>
[[gnu::always_inline]] inline void des_pass(uint32_t (&a)[N], uint32_t (&b)[N], const uint32_t *ks) {
    if constexpr (Encipher) {
#pragma GCC unroll 8
        for (int r = 0; r < 16; r += 2) {
            feistel(a, b, ks[2 * r], ks[2 * r + 1]);
            feistel(b, a, ks[2 * r + 2], ks[2 * r + 3]);
        }
    } else {
#pragma GCC unroll 8
        for (int r = 15; r > 0; r -= 2) {
            feistel(a, b, ks[2 * r], ks[2 * r + 1]);
            feistel(b, a, ks[2 * r - 2], ks[2 * r - 1]);
        }
    }
}

// t = ((a >> n) ^ b) & m; exchanges the bits of b selected by m with those
// of a n places higher.
[[gnu::always_inline]] inline void swap_move(uint32_t &a, uint32_t &b, int n, uint32_t m) {
    uint32_t t = ((a >> n) ^ b) & m;
    b ^= t;
    a ^= t << n;
}

[[gnu::always_inline]] inline void initial_permutation(uint32_t &x, uint32_t &y) {
    swap_move(x, y, 4, 0x0f0f0f0f);
    swap_move(x, y, 16, 0x0000ffff);
    swap_move(y, x, 2, 0x33333333);
    swap_move(y, x, 8, 0x00ff00ff);
    swap_move(x, y, 1, 0x55555555);
}

// The same swap-moves in reverse order undo the initial permutation.
[[gnu::always_inline]] inline void final_permutation(uint32_t &x, uint32_t &y) {
    swap_move(x, y, 1, 0x55555555);
    swap_move(y, x, 8, 0x00ff00ff);
    swap_move(y, x, 2, 0x33333333);
    swap_move(x, y, 16, 0x0000ffff);
    swap_move(x, y, 4, 0x0f0f0f0f);
}

// The subkeys of the one or three DES operations of a block.
struct Keys {
    const uint32_t *k1, *k2, *k3;
};

// Between the permutations a block is held as its halves after the initial
// permutation, each rotated right by one bit (a = left, b = right).
[[gnu::always_inline]] inline void enter_rounds(uint32_t hi, uint32_t lo, uint32_t &a, uint32_t &b) {
    initial_permutation(hi, lo);
    a = rotr(hi, 1);
    b = rotr(lo, 1);
}

// The rounds leave the halves exchanged: the block to permute back is (b, a).
[[gnu::always_inline]] inline void leave_rounds(uint32_t a, uint32_t b, uint32_t &hi, uint32_t &lo) {
    hi = rotr(b, 31);
    lo = rotr(a, 31);
    final_permutation(hi, lo);
}

// The one or three DES operations of N independent blocks. Each operation
// ends without the final swap of halves, so the next one starts with the
// halves exchanged.
template <bool Encipher, bool Triple, int N>
[[gnu::always_inline]] inline void des_core(const Keys &keys, uint32_t (&a)[N], uint32_t (&b)[N]) {
    if constexpr (!Triple) {
        des_pass<Encipher>(a, b, keys.k1);
    } else if constexpr (Encipher) {
        des_pass<true>(a, b, keys.k1);
        des_pass<false>(b, a, keys.k2);
        des_pass<true>(a, b, keys.k3);
    } else {
        des_pass<false>(a, b, keys.k3);
        des_pass<true>(b, a, keys.k2);
        des_pass<false>(a, b, keys.k1);
    }
}

// Processes N independent blocks, each given as its two big-endian halves.
template <bool Encipher, bool Triple, int N>
[[gnu::always_inline]] inline void des_blocks(const Keys &keys, uint32_t (&hi)[N], uint32_t (&lo)[N]) {
    uint32_t a[N], b[N];
#pragma GCC unroll 4
    for (int n = 0; n < N; ++n) enter_rounds(hi[n], lo[n], a[n], b[n]);
    des_core<Encipher, Triple>(keys, a, b);
#pragma GCC unroll 4
    for (int n = 0; n < N; ++n) leave_rounds(a[n], b[n], hi[n], lo[n]);
}

// Independent blocks (ECB, and CBC deciphering) go two at a time so that the
// processor overlaps their table lookups.
template <bool Encipher, bool Triple>
void des_ecb(const Keys &keys, const uint8_t *in, uint8_t *out, size_t blocks) {
    for (; blocks >= 2; blocks -= 2, in += 16, out += 16) {
        uint32_t hi[2] = {load_be32(in), load_be32(in + 8)};
        uint32_t lo[2] = {load_be32(in + 4), load_be32(in + 12)};
        des_blocks<Encipher, Triple>(keys, hi, lo);
        store_be32(out, hi[0]);
        store_be32(out + 4, lo[0]);
        store_be32(out + 8, hi[1]);
        store_be32(out + 12, lo[1]);
    }
    if (blocks) {
        uint32_t hi[1] = {load_be32(in)}, lo[1] = {load_be32(in + 4)};
        des_blocks<Encipher, Triple>(keys, hi, lo);
        store_be32(out, hi[0]);
        store_be32(out + 4, lo[0]);
    }
}

// The permutations are linear, so the chaining XOR is done between them:
// the chaining value stays permuted and only the rounds lie on the chain.
template <bool Triple>
void des_cbc_encipher(const Keys &keys, uint8_t *iv, const uint8_t *in, uint8_t *out, size_t blocks) {
    uint32_t chain_a, chain_b;
    enter_rounds(load_be32(iv), load_be32(iv + 4), chain_a, chain_b);
    uint32_t hi = 0, lo = 0;
    for (; blocks; --blocks, in += 8, out += 8) {
        uint32_t a[1], b[1];
        enter_rounds(load_be32(in), load_be32(in + 4), a[0], b[0]);
        a[0] ^= chain_a;
        b[0] ^= chain_b;
        des_core<true, Triple>(keys, a, b);
        chain_a = b[0];
        chain_b = a[0];
        leave_rounds(a[0], b[0], hi, lo);
        store_be32(out, hi);
        store_be32(out + 4, lo);
    }
    store_be32(iv, hi);
    store_be32(iv + 4, lo);
}

template <bool Triple>
void des_cbc_decipher(const Keys &keys, uint8_t *iv, const uint8_t *in, uint8_t *out, size_t blocks) {
    // Ciphertext is read before the output is written: `out` may be `in`.
    uint32_t prev_hi = load_be32(iv), prev_lo = load_be32(iv + 4);
    for (; blocks >= 2; blocks -= 2, in += 16, out += 16) {
        uint32_t c_hi[2] = {load_be32(in), load_be32(in + 8)};
        uint32_t c_lo[2] = {load_be32(in + 4), load_be32(in + 12)};
        uint32_t hi[2] = {c_hi[0], c_hi[1]}, lo[2] = {c_lo[0], c_lo[1]};
        des_blocks<false, Triple>(keys, hi, lo);
        store_be32(out, hi[0] ^ prev_hi);
        store_be32(out + 4, lo[0] ^ prev_lo);
        store_be32(out + 8, hi[1] ^ c_hi[0]);
        store_be32(out + 12, lo[1] ^ c_lo[0]);
        prev_hi = c_hi[1];
        prev_lo = c_lo[1];
    }
    if (blocks) {
        uint32_t c_hi = load_be32(in), c_lo = load_be32(in + 4);
        uint32_t hi[1] = {c_hi}, lo[1] = {c_lo};
        des_blocks<false, Triple>(keys, hi, lo);
        store_be32(out, hi[0] ^ prev_hi);
        store_be32(out + 4, lo[0] ^ prev_lo);
        prev_hi = c_hi;
        prev_lo = c_lo;
    }
    store_be32(iv, prev_hi);
    store_be32(iv + 4, prev_lo);
}

template <bool Triple>
void des_run(bool encipher, const Keys &keys, uint8_t *iv, const uint8_t *in, uint8_t *out, size_t blocks) {
    if (!iv) {
        encipher ? des_ecb<true, Triple>(keys, in, out, blocks) : des_ecb<false, Triple>(keys, in, out, blocks);
    } else if (encipher) {
        des_cbc_encipher<Triple>(keys, iv, in, out, blocks);
    } else {
        des_cbc_decipher<Triple>(keys, iv, in, out, blocks);
    }
}

// Bit `pos` (1 = most significant) of an n-bit value.
inline uint64_t bit_of(uint64_t v, int pos, int n) { return (v >> (n - pos)) & 1u; }

// The 32 subkey words of one 8-byte key: per round the 48-bit subkey as
// eight six-bit groups, S-boxes 1, 3, 5, 7 in word 0 and 8, 2, 4, 6 in word 1,
// at the fields the round function reads.
void expand_key(const uint8_t *raw, uint32_t *ks) {
    uint64_t k = load_be64(raw);
    uint64_t cd = 0;
    for (int i = 0; i < 56; ++i) cd = (cd << 1) | bit_of(k, kPC1[i], 64);
    uint32_t c = uint32_t(cd >> 28), d = uint32_t(cd & 0x0fffffff);
    for (int r = 0; r < 16; ++r) {
        int s = kShifts[r];
        c = ((c << s) | (c >> (28 - s))) & 0x0fffffff;
        d = ((d << s) | (d >> (28 - s))) & 0x0fffffff;
        uint64_t joined = (uint64_t(c) << 28) | d;
        uint64_t sub = 0;
        for (int i = 0; i < 48; ++i) sub = (sub << 1) | bit_of(joined, kPC2[i], 56);
        uint32_t g[8];
        for (int j = 0; j < 8; ++j) g[j] = uint32_t(sub >> (42 - 6 * j)) & 63;
        ks[2 * r] = (g[0] << 26) | (g[2] << 18) | (g[4] << 10) | (g[6] << 2);
        ks[2 * r + 1] = (g[7] << 26) | (g[1] << 18) | (g[3] << 10) | (g[5] << 2);
        secure_wipe(g, sizeof g);
    }
    // The key bits also passed through these locals.
    secure_wipe(&k, sizeof k);
    secure_wipe(&cd, sizeof cd);
    secure_wipe(&c, sizeof c);
    secure_wipe(&d, sizeof d);
}

}  // namespace
}  // namespace vorp::cipher

using namespace vorp::cipher;

extern "C" qv_uint32_t *Vorp_desKey(const unsigned char *rawKey, qv_int32_t nKeys, qv_uint32_t *key) {
    if (nKeys < 1 || nKeys > 3 || !rawKey) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return nullptr;
    }
    qv_uint32_t *schedule = key;
    if (!schedule) {
        schedule = static_cast<qv_uint32_t *>(std::malloc(sizeof(qv_uint32_t) * VORP_DES_KEY_WORDS(nKeys)));
        if (!schedule) {
            Vorp_errno = VORP_E_NO_MEMORY;
            return nullptr;
        }
    }
    schedule[0] = static_cast<qv_uint32_t>(nKeys);
    for (int i = 0; i < nKeys; ++i) expand_key(rawKey + 8 * i, schedule + 1 + 32 * i);
    return schedule;
}

extern "C" unsigned char *Vorp_des(qv_int32_t mode, const qv_uint32_t *key, unsigned char *iv,
                                   const unsigned char *from, unsigned char *to, qv_uint32_t len) {
    if (!key || key[0] < 1 || key[0] > 3 || len % 8 != 0 || !data_ok(from, to, len)) return bad_argument();
    size_t blocks = len / 8;
    if (blocks == 0) return to;
    const uint32_t *k1 = key + 1;
    bool encipher = mode == 0;
    if (key[0] == 1) {
        des_run<false>(encipher, Keys{k1, k1, k1}, iv, from, to, blocks);
    } else {
        // Two keys: the third operation uses key 1 again.
        const uint32_t *k3 = key[0] == 3 ? k1 + 64 : k1;
        des_run<true>(encipher, Keys{k1, k1 + 32, k3}, iv, from, to, blocks);
    }
    return to;
}
