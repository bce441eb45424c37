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

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif /* VORPKIT_H */
