/*
 * Vorpkit: cryptographic primitives (hashes, symmetric ciphers, random
 * numbers, big numbers, RSA and Diffie-Hellman).
 *
 * Failures return NULL (or 0) and leave the reason in Vorp_errno, which is
 * never cleared on success.
 */
#ifndef VORPKIT_H
#define VORPKIT_H

#include <stddef.h>
#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* The release string, "Vorp 1.01 (Nov00B)". */
extern const char Vorp_RELEASE[];

/* Reason of the last failure: VORP_E_* below. */
extern qv_int32_t Vorp_errno;

#define VORP_E_DIVIDE        (-1)  /* bn_divide by zero */
#define VORP_E_NEG_EXPONENT  (-2)  /* negative exponent in bn_power */
#define VORP_E_TOO_LARGE     (-3)  /* bn_power operand too large */
#define VORP_E_EMPTY_RANGE   (-4)  /* empty range in bn_random or bn_findPrime */
#define VORP_E_BAD_ARGUMENT  (-5)  /* bad length, count, size, type or missing argument */
#define VORP_E_NO_INVERSE    (-6)  /* the greatest common divisor is not 1 */
#define VORP_E_NO_MEMORY     (-7)
#define VORP_E_BAD_KEY       (-8)  /* bad key record in Vorp_rsa */

/* ---- Hash functions (MD5, SHA-1) ---- */

/*
 * Both digests share one calling convention:
 *  - state NULL: one-shot; the whole message is given in this call and
 *    digest must not be NULL.
 *  - With a state, a call with digest NULL hashes only the whole 64-byte
 *    blocks of its data and silently drops the remaining dataLen % 64 bytes,
 *    so every call but the last must give a multiple of 64 bytes.
 *  - The call with a non-NULL digest hashes its whole blocks, pads the rest
 *    and writes the digest; the state must then be initialised again.
 * The state keeps a 32-bit count of 64-byte blocks, so a message is limited
 * to 2^32 - 1 blocks. data NULL with dataLen > 0, or a one-shot call without
 * digest, sets Vorp_errno to VORP_E_BAD_ARGUMENT and hashes nothing.
 */

#define VORP_MD5_STATE_WORDS  5   /* chaining words A, B, C, D; block count */
#define VORP_MD5_DIGEST_LEN   16
#define VORP_SHA_STATE_WORDS  6   /* chaining words H0..H4; block count */
#define VORP_SHA_DIGEST_LEN   20

/*
 * Vorp_md5Init sets the initial MD5 chaining words and a zero block count in
 * the VORP_MD5_STATE_WORDS words at state and returns state. With state NULL
 * it allocates the state with malloc (the caller frees it with free) and
 * returns it, or returns NULL with Vorp_errno VORP_E_NO_MEMORY.
 */
qv_uint32_t *Vorp_md5Init(qv_uint32_t *state);

/*
 * Vorp_md5 hashes dataLen bytes at data (see the calling convention above)
 * and, when digest is not NULL, writes the 16-byte digest there. Messages
 * shorter than 2,097,152 bytes get the RFC 1321 digest; from 2^15 blocks on,
 * the length field holds low + high * 2^32 where the bit length is
 * low + high * 2^24 (low's three bytes little-endian, a zero byte, then high
 * as four bytes little-endian), so the digest differs from RFC 1321 on
 * purpose: every party must use this same variant.
 */
void Vorp_md5(qv_uint32_t *state, const void *data, qv_uint32_t dataLen, void *digest);

/*
 * Vorp_shaInit sets the initial SHA-1 chaining words and a zero block count
 * in the VORP_SHA_STATE_WORDS words at state and returns state; state NULL
 * allocates as Vorp_md5Init does (NULL and VORP_E_NO_MEMORY on failure).
 */
qv_uint32_t *Vorp_shaInit(qv_uint32_t *state);

/*
 * Vorp_sha hashes dataLen bytes at data (see the calling convention above)
 * and, when digest is not NULL, writes the 20-byte SHA-1 digest there.
 */
void Vorp_sha(qv_uint32_t *state, const void *data, qv_uint32_t dataLen, void *digest);

/* ---- end of hash functions ---- */

/* ---- Symmetric ciphers (DES, triple DES, Rijndael, RC4) ---- */

/*
 * Key records. A DES schedule is VORP_DES_KEY_WORDS(nKeys) words: the key
 * count, then 32 round-subkey words per key. A Rijndael schedule is
 * VORP_AES_KEY_WORDS(keyLen, blockSize) words (never more than
 * VORP_AES_KEY_WORDS_MAX): the block size in bytes, the number W of
 * round-key words, W enciphering then W deciphering round-key words. An RC4
 * state is VORP_RC4_STATE_LEN bytes: the permutation, then the indices i and j.
 * No routine pads: callers give whole blocks.
 */
#define VORP_DES_KEY_WORDS(nKeys) (1 + 32 * (nKeys))
#define VORP_AES_KEY_WORDS(keyLen, blockSize) \
    (2 + 2 * ((blockSize) / 4) * \
     (((keyLen) > (blockSize) ? (keyLen) : (blockSize)) / 4 + 7))
#define VORP_AES_KEY_WORDS_MAX VORP_AES_KEY_WORDS(32, 32)
#define VORP_RC4_STATE_LEN 258

/*
 * Vorp_desKey: builds the schedule of nKeys (1, 2 or 3) DES keys whose 8-byte
 * raw forms follow one another at rawKey (parity bits are ignored). Writes it
 * to key, or to a newly malloc'ed block (the caller frees it) when key is
 * NULL. Returns the schedule, or NULL with Vorp_errno VORP_E_BAD_ARGUMENT
 * (nKeys out of range, rawKey NULL) or VORP_E_NO_MEMORY.
 */
qv_uint32_t *Vorp_desKey(const unsigned char *rawKey, qv_int32_t nKeys, qv_uint32_t *key);

/*
 * Vorp_des: enciphers (mode 0) or deciphers (any other mode) len bytes from
 * `from` into `to` with DES (one key) or triple DES encipher-decipher-encipher
 * (two keys: 1, 2, 1; three keys: 1, 2, 3; deciphering in reverse). With iv
 * NULL each 8-byte block is processed alone (ECB); otherwise the 8 bytes at iv
 * are the CBC chaining value and receive the last ciphertext block, so that
 * consecutive calls continue one chain. `to` may equal `from`. Returns `to`,
 * or NULL with Vorp_errno VORP_E_BAD_ARGUMENT when len is not a multiple of 8,
 * the schedule's key count is not 1..3 or a pointer is missing; nothing is
 * written then.
 */
unsigned char *Vorp_des(qv_int32_t mode, const qv_uint32_t *key, unsigned char *iv,
                        const unsigned char *from, unsigned char *to, qv_uint32_t len);

/*
 * Vorp_aesKey: builds the Rijndael schedule for a keyLen-byte key and
 * blockSize-byte blocks (each 16, 24 or 32; 16-byte blocks are AES). Writes it
 * to key, or to a newly malloc'ed block (the caller frees it) when key is
 * NULL. Returns the schedule, or NULL with Vorp_errno VORP_E_BAD_ARGUMENT (a
 * size not 16, 24 or 32, rawKey NULL) or VORP_E_NO_MEMORY.
 */
qv_uint32_t *Vorp_aesKey(const unsigned char *rawKey, qv_int32_t keyLen, qv_uint32_t *key,
                         qv_int32_t blockSize);

/*
 * Vorp_aes: as Vorp_des, with Rijndael and the schedule's block size in place
 * of 8: mode 0 enciphers, iv NULL is ECB, else CBC with the chaining value
 * (one block) written back to iv. Returns `to`, or NULL with Vorp_errno
 * VORP_E_BAD_ARGUMENT when len is not a multiple of the block size, the
 * schedule is malformed or a pointer is missing; nothing is written then.
 */
unsigned char *Vorp_aes(qv_int32_t mode, const qv_uint32_t *key, unsigned char *iv,
                        const unsigned char *from, unsigned char *to, qv_uint32_t len);

/*
 * Vorp_rc4Key: the RC4 key setup over keylen (at least 1) bytes at rawKey.
 * Writes the VORP_RC4_STATE_LEN-byte state to key, or to a newly malloc'ed
 * block (the caller frees it) when key is NULL. Returns the state, or NULL
 * with Vorp_errno VORP_E_BAD_ARGUMENT (keylen below 1, rawKey NULL) or
 * VORP_E_NO_MEMORY.
 */
unsigned char *Vorp_rc4Key(const unsigned char *rawKey, qv_int32_t keylen, unsigned char *key);

/*
 * Vorp_rc4: XORs len bytes of key stream into `to` from data (`to` may equal
 * data) and advances the state, so that calls continue one stream. Returns
 * `to`, or NULL with Vorp_errno VORP_E_BAD_ARGUMENT when a pointer is missing.
 */
unsigned char *Vorp_rc4(unsigned char *key, const unsigned char *data, unsigned char *to,
                        qv_uint32_t len);

/* ---- end of symmetric ciphers ---- */

/* ---- Random numbers ---- */

/*
 * True-random generator state: caller-owned, all zero before first use, no
 * allocation. The generator samples how many times the process clock can be
 * read before it ticks, estimates the entropy of the samples and condenses
 * them with MD5 into 8 bytes a round. When a round's estimate is 0 (a clock
 * without jitter) or its sampling cannot complete, that round's entropy is
 * taken from the operating system's random source instead.
 */
typedef struct Vorp_trng_s {
    qv_uint32_t syms[16];        /* histogram of the current round's symbols */
    unsigned char sbuf[256];     /* sample pool, two 4-bit samples a byte */
    unsigned char accu[8];       /* output accumulator */
    qv_uint32_t bytes;           /* bytes of accu still unused */
    qv_uint32_t nsam;            /* samples in the next round; 0 means 64 */
} Vorp_trng_t;

/*
 * Pseudo-random generator state: caller-owned, all zero before first use.
 * Set trngMix and trngTime before the first call when fresh true-random
 * bytes should be stirred in.
 */
typedef struct Vorp_prng_s {
    qv_uint32_t trngMix;         /* 0: never stir; N: stir at every N-th byte */
    qv_uint32_t trngTime;        /* processor seconds between sampling rounds */
    Vorp_trng_t trngState;
    unsigned char seed[32];
    qv_uint32_t ri;              /* output counter; 0 means not yet seeded */
    qv_uint32_t rt;              /* processor seconds at the last seeding or round */
} Vorp_prng_t;

/*
 * Vorp_trng fills len bytes at data with true-random bytes, written from the
 * end of the buffer backwards, using and updating T. The generators take no
 * lock: a state must not be used by two threads at once; separate states are
 * independent. T or data NULL with len > 0 sets Vorp_errno to
 * VORP_E_BAD_ARGUMENT and writes nothing.
 */
void Vorp_trng(Vorp_trng_t *T, void *data, qv_uint32_t len);

/*
 * Vorp_seedPrng seeds state from len bytes at data (only the last 32 count,
 * stored reversed and used as they are), or, with data NULL, from min(len, 32)
 * true-random bytes hashed with MD5. state NULL sets Vorp_errno to
 * VORP_E_BAD_ARGUMENT.
 */
void Vorp_seedPrng(Vorp_prng_t *state, const void *data, qv_uint32_t len);

/*
 * Vorp_prng writes len pseudo-random bytes to to, first seeding an unseeded
 * state with 32 true-random bytes. With trngMix 0 the output is a fixed
 * function of the seed. state or to NULL with len > 0 sets Vorp_errno to
 * VORP_E_BAD_ARGUMENT and writes nothing.
 */
void Vorp_prng(Vorp_prng_t *state, void *to, qv_uint32_t len);

/* ---- end of random numbers ---- */

/* ---- Big numbers ---- */

/*
 * A number is an array of 32-bit words: [0] capacity (digits allocated),
 * [1] sign (0 non-negative, 1 negative; zero always has sign 0), [2] digits
 * in use (0 for zero; the top digit in use is non-zero), then the digits,
 * base 2^32, least significant first. It occupies capacity + 3 words of
 * heap and is released with bn_free.
 *
 * Result placement: every result argument (c, q, r, gcd, invp, prime, ...)
 * is the address of a bignum_t. When it holds a number whose capacity can
 * take the result, that number is reused; otherwise a number is allocated,
 * the old one freed and the new one stored there. A NULL address means:
 * always allocate (the caller owns the returned number). A result must not
 * be one of the operands, except bn_divide's remainder, which may take the
 * dividend's place. A routine either places its whole result or, on failure,
 * returns NULL with Vorp_errno set and leaves every result slot unchanged.
 * A NULL operand or a record whose length exceeds its capacity is
 * VORP_E_BAD_ARGUMENT.
 */
typedef qv_uint32_t *bignum_t;
typedef const qv_uint32_t *bignum_tc;

/* Random source: returns one random byte per call (only the low 8 bits count). */
typedef int (*Vorp_rsrc_t)(void);

/* A zero of capacity nDigits (>= 0), placed in *b. */
bignum_t bn_new(bignum_t *b, qv_int32_t nDigits);
/* An exact copy of b with the same capacity, newly allocated. */
bignum_t bn_clone(bignum_tc b);
/* Wipes and releases b; NULL is allowed. */
void bn_free(bignum_t b);
/* A copy of b with sign 1 (sign non-zero) or 0; zero keeps sign 0. */
bignum_t bn_changeSign(qv_int32_t sign, bignum_tc b, bignum_t *c);
/* Signed comparison: negative, 0 or positive as a <, = or > b. */
qv_int32_t bn_compare(bignum_tc a, bignum_tc b);

bignum_t bn_add(bignum_tc a, bignum_tc b, bignum_t *c);
bignum_t bn_subtract(bignum_tc a, bignum_tc b, bignum_t *c);
/* Schoolbook product; a == b takes the squaring path. */
bignum_t bn_multiply(bignum_tc a, bignum_tc b, bignum_t *c);
/* Present for compatibility: computes nothing and returns NULL. */
bignum_t bn_karatsubaSquaring(bignum_tc a, bignum_tc b, bignum_t *c);
/*
 * Truncating division: the quotient rounds toward zero and the remainder
 * has the dividend's sign (a = q * b + r, |r| < |b|), as a signed-magnitude
 * representation makes natural. q or r NULL: that part is not wanted (not
 * both). *r may be a itself. Returns the quotient when q is given, else the
 * remainder. b zero: VORP_E_DIVIDE.
 */
bignum_t bn_divide(bignum_tc a, bignum_tc b, bignum_t *q, bignum_t *r);
/*
 * base^exp, reduced modulo |mod| when mod is not NULL. Reduction is the
 * truncating remainder, so a negative power keeps its sign (as bn_divide
 * would give it). exp < 0: VORP_E_NEG_EXPONENT; without a modulus, a result
 * of 2^29 bits or more: VORP_E_TOO_LARGE; mod zero: VORP_E_DIVIDE.
 */
bignum_t bn_power(bignum_tc base, bignum_tc exp, bignum_tc mod, bignum_t *c);
/* gcd(|u|, |v|), non-negative; gcd(0, 0) = 0. */
bignum_t bn_gcd(bignum_tc u, bignum_tc v, bignum_t *gcd);
/*
 * Extended Euclid: *euclid1 = x, *euclid2 = y, *euclid3 = g = gcd(u, v) >= 0
 * with u * x + v * y = g, and |x| <= max(1, |v| / g), |y| <= max(1, |u| / g)
 * (the coefficients of the remainder sequence, so they stay small). Any of
 * the first two may be NULL when not wanted. Returns g.
 */
bignum_t bn_extendedEuclid(bignum_tc u, bignum_tc v, bignum_t *euclid1, bignum_t *euclid2,
                           bignum_t *euclid3);
/*
 * The inverse of n modulo |mod|, in [0, |mod|). gcd not 1: VORP_E_NO_INVERSE;
 * mod zero: VORP_E_DIVIDE.
 */
bignum_t bn_modInverse(bignum_tc n, bignum_tc mod, bignum_t *invp);
/*
 * Shift the magnitude by n bits (a negative n shifts the other way); the
 * sign is kept, so a right shift truncates toward zero.
 */
bignum_t bn_shiftLeft(bignum_tc b, qv_int32_t n, bignum_t *c);
bignum_t bn_shiftRight(bignum_tc b, qv_int32_t n, bignum_t *c);
/* Index of the magnitude's highest set bit + 1; 0 for zero. */
qv_int32_t bn_bitLength(bignum_tc b);
/* Index of the magnitude's lowest set bit; -1 for zero. */
qv_int32_t bn_lowestSetBit(bignum_tc b);
/* Bit nthBit (>= 0) of the magnitude: 0 or 1. */
qv_int32_t bn_checkBit(bignum_tc b, qv_int32_t nthBit);
/*
 * Sets (bitValue non-zero) or clears bit nthBit of the magnitude of *c in
 * place, growing the number (placement rule) when the bit lies above its
 * capacity; *c NULL starts from zero. Returns the number.
 */
bignum_t bn_setBit(bignum_t *c, qv_int32_t nthBit, qv_int32_t bitValue);
/*
 * Stores value into b, keeping only as many low digits as b's capacity
 * holds. signum 0: value is signed; > 0: unsigned, non-negative; < 0:
 * unsigned magnitude, negative. Returns b.
 */
bignum_t bn_fromLong(bignum_t b, qv_int64_t value, qv_int32_t signum);
/* The low 64 bits of the magnitude, negated when b is negative. */
qv_int64_t bn_toLong(bignum_tc b);
/*
 * len big-endian bytes. signum 0: two's complement (the first byte's top bit
 * gives the sign); signum > 0: unsigned magnitude; signum < 0: unsigned
 * magnitude of a negative number (the sign follows signum, so that any
 * magnitude can be given either sign). len < 0: VORP_E_BAD_ARGUMENT.
 */
bignum_t bn_fromData(qv_int32_t signum, const unsigned char *data, qv_int32_t len, bignum_t *c);
/*
 * Writes b big-endian and returns the byte count, max(minLen, natural
 * length). sign 0: the magnitude, unsigned (the sign is dropped; zero's
 * natural length is 0); sign non-zero: two's complement with room for the
 * sign bit, padded with 0x00 or 0xff, the twin of bn_fromData with signum 0.
 * data NULL writes nothing and returns the count, so the caller can size the
 * buffer first. Returns -1 with VORP_E_BAD_ARGUMENT when b is bad.
 */
qv_int32_t bn_toData(bignum_tc b, unsigned char *data, qv_int32_t minLen, qv_int32_t sign);
/*
 * Text in radix 2..16: an optional '-', then digits 0-9, A-F or a-f. The
 * conversion stops at the first character that is not a digit below the
 * radix; it fails (VORP_E_BAD_ARGUMENT) when no digit comes first, like an
 * empty string.
 */
bignum_t bn_fromString(const char *s, qv_int32_t radix, bignum_t *c);
/*
 * b in radix 2..16, lower-case digits, '-' before a negative number, "0"
 * for zero. Returns a malloc'ed NUL-terminated string (the caller frees it);
 * when cp is not NULL, *cp receives the address of its terminating NUL, so
 * that the length comes without a scan.
 */
char *bn_toString(bignum_tc b, qv_int32_t radix, char **cp);

/*
 * A random number below |limit| with limit's sign. Digits are drawn least
 * significant first, four source bytes each, the first byte most
 * significant; the top digit is reduced so that the result is below the
 * limit. limit zero: VORP_E_EMPTY_RANGE.
 */
bignum_t bn_random(bignum_tc limit, Vorp_rsrc_t rsrc, bignum_t *c);
/*
 * Fermat test: 1 when primeBase^(candidate - 1) mod candidate is 1. Needs
 * primeBase > 1 and candidate > primeBase, else 0 with VORP_E_BAD_ARGUMENT.
 */
qv_int32_t bn_isPseudoPrime(bignum_tc candidate, qv_int32_t primeBase);
/*
 * Miller-Rabin: 1 for a probable prime, 0 otherwise, with error below
 * 2^-prob (rounds: 1 when prob < 2, else (prob + 1) / 2, each with a random
 * base). 2 and 3 are prime without drawing; numbers below 2 (negative ones
 * included) and even numbers are not. rsrc NULL when a base must be drawn:
 * 0 with VORP_E_BAD_ARGUMENT.
 */
qv_int32_t bn_isProbablePrime(bignum_tc num, qv_int32_t prob, Vorp_rsrc_t rsrc);
/*
 * The first prime >= start and below limit (strongPrime non-zero: the first
 * p = 2q + 1 with q and p prime), tested with Miller-Rabin of -prob rounds'
 * worth when prob < 1, else with the Fermat test in base prob. A start below
 * 8172 is answered from the table of small odd primes (so 3 for any smaller
 * start). No prime before limit: the number 0. limit negative, zero or 1:
 * VORP_E_BAD_ARGUMENT; start >= limit: VORP_E_EMPTY_RANGE.
 */
bignum_t bn_findPrime(bignum_tc start, bignum_tc limit, qv_int32_t prob, qv_int32_t strongPrime,
                      Vorp_rsrc_t rsrc, bignum_t *prime);

/* ---- end of big numbers ---- */

/* ---- Public-key operations (RSA, Diffie-Hellman) ---- */

/*
 * Keys and parameters are byte strings; every number in them is big-endian
 * and unsigned. B is a record's size in bits (bytes 1-2, big-endian),
 * k = (B + 7) / 8 and h = (B + 15) / 16.
 *
 * Public exponent: a length byte L, then L bytes.
 * RSA key record: byte 0 the type, bytes 1-2 B, then
 *   0x10 (private, CRT form, B even): p, q, d mod (p - 1), d mod (q - 1),
 *        q^-1 mod p, h bytes each, p > q;
 *   0x11 (private): n, d, k bytes each;
 *   0x12 (public): n (k bytes), then the public exponent.
 * Diffie-Hellman parameters: byte 0 the format '0', '1' or '2', bytes 1-2 B,
 * the prime p (k bytes), then the generator as length byte and bytes.
 *
 * The records carry no length beyond B: the caller's buffers must hold what
 * B announces. Vorp_rsa is the bare modular power, no padding. The private
 * operations (Vorp_rsa with types 0x10 and 0x11, Vorp_dhKey, Vorp_dh) take no
 * branch and make no memory access that depends on secret values, only on
 * the records' sizes and on the primes being odd.
 */
#define VORP_RSA_CRT_KEY     0x10
#define VORP_RSA_PRIVATE_KEY 0x11
#define VORP_RSA_PUBLIC_KEY  0x12

/* e = 3 (01 03) and e = 65537 (03 01 00 01). */
extern const unsigned char Vorp_RSA_PUB_EXP_3[2];
extern const unsigned char Vorp_RSA_PUB_EXP_FERMAT4[4];

/*
 * Vorp_rsaKeyGen makes an RSA key of keySize bits (even, 16 to 65534):
 * keyType's low 7 bits give the record type (0x10 or 0x11), bits 8-15 the
 * primality certainty c: 0 the default (Miller-Rabin certainty 80 below 512
 * bits, 12 from 512 on), 2..11 a Fermat test in base c, above 11
 * Miller-Rabin certainty c. The primes have exactly keySize / 2 bits each
 * (the top two set), so n has exactly keySize bits. Writes the record to
 * keyData, or to a malloc'ed block of 3 + 5h (0x10) or 3 + 2k (0x11) bytes
 * when keyData is NULL (the caller frees it). Returns the record, or NULL
 * with Vorp_errno VORP_E_BAD_ARGUMENT (a size, type or certainty 1 out of
 * range, an even or missing exponent, no source, no key found within 100000
 * prime draws) or VORP_E_NO_MEMORY.
 */
unsigned char *Vorp_rsaKeyGen(qv_int32_t keySize, qv_int32_t keyType, const unsigned char *pub_exp,
                              unsigned char *keyData, Vorp_rsrc_t rsrc);

/*
 * Vorp_rsaComputeModulus writes n: copied (k bytes) from a 0x11 record, the
 * product p * q in its natural length from a 0x10 record. Returns the byte
 * count, or 0 with VORP_E_BAD_ARGUMENT for another type or a NULL pointer.
 */
qv_int32_t Vorp_rsaComputeModulus(const unsigned char *rsaKey, unsigned char *modulus);

/*
 * Vorp_rsaMakePublicKey builds the 0x12 record of a private key with the
 * public exponent pubExp: type, the size bytes, n in k bytes (a shorter
 * product is padded with leading zeros, as Vorp_rsa reads k bytes), then
 * pubExp. pubKey NULL allocates k + L + 4 bytes with malloc. Returns the
 * record, or NULL with VORP_E_BAD_ARGUMENT (bad type, NULL pointer, a
 * product longer than k bytes) or VORP_E_NO_MEMORY.
 */
unsigned char *Vorp_rsaMakePublicKey(const unsigned char *rsaKey, const unsigned char *pubExp,
                                     unsigned char *pubKey);

/*
 * Vorp_rsa replaces the k bytes at message by message^exponent mod n (for a
 * 0x10 record by Garner's recombination of the powers modulo p and q) and
 * returns k. A type other than 0x10..0x12, type 0x10 with an odd B, or an
 * even (or zero) modulus or prime, which no key has, is VORP_E_BAD_KEY and
 * 0; NULL pointers are VORP_E_BAD_ARGUMENT.
 */
qv_int32_t Vorp_rsa(const unsigned char *keyData, unsigned char *message);

/*
 * Vorp_dhParams makes parameters of keySize bits. With rsrc NULL only 512
 * and 1024 bits are possible: fixed published safe primes (the 512-bit
 * modulus of the SKIP protocol's numbers, the 1024-bit second Oakley group
 * of RFC 2409) with generator 7.
 * Otherwise a random safe prime p = 2q + 1 of exactly keySize bits (16 to
 * 65535) with the first generator from 7 on that is a quadratic residue, so
 * that it generates the subgroup of prime order q (no public value then
 * gives away a private value's parity). Writes format '2' to dhparams, or to
 * a malloc'ed block of k + 5 bytes when dhparams is NULL. Returns the
 * record, or NULL with VORP_E_BAD_ARGUMENT or VORP_E_NO_MEMORY.
 */
unsigned char *Vorp_dhParams(qv_int32_t keySize, unsigned char *dhparams, Vorp_rsrc_t rsrc);

/*
 * Vorp_dhKey draws a private value below p (as bn_random would from rsrc)
 * and writes it and g^private mod p, k bytes each. Returns k, or 0 with
 * VORP_E_BAD_ARGUMENT (a NULL pointer, a format other than '0'..'2', an
 * even or zero p) or VORP_E_NO_MEMORY.
 */
qv_int32_t Vorp_dhKey(const unsigned char *dhparams, unsigned char *priv, unsigned char *pub, Vorp_rsrc_t rsrc);

/*
 * Vorp_dh writes the shared value pub^priv mod p in k bytes and returns k.
 * Format '0' marks parameters used without a private value: priv may then
 * be NULL, and the shared value is pub reduced modulo p. Formats '1' and
 * '2' are alike. Failures as Vorp_dhKey's, 0.
 */
qv_int32_t Vorp_dh(const unsigned char *dhp, const unsigned char *priv, const unsigned char *pub,
                   unsigned char *shared);

/* ---- end of public-key operations ---- */

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif /* VORPKIT_H */
