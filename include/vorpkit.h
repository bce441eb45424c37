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

/* ---- end of hash functions ---- */

/* ---- Symmetric ciphers (DES, triple DES, Rijndael, RC4) ---- */

/* ---- end of symmetric ciphers ---- */

/* ---- Random numbers ---- */

/* ---- end of random numbers ---- */

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif /* VORPKIT_H */
