// Internal interface of the big numbers. Two layers:
//  - magnitudes: little-endian vectors of base-2^32 digits with no leading
//    zero digit, and the schoolbook routines on them (bn_magnitude.cpp);
//  - signed values (Num) and the conversion between a Num and the caller's
//    bignum_t record with the result-placement rule (bn_record.cpp).
// The exported bn_* routines read their operands into Nums, compute, and
// place the result last, so that a failure leaves every result slot as it
// was and a slot that aliases an operand is harmless. Faster arithmetic
// (Montgomery, wider limbs) can replace the magnitude layer alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include "vorpkit.h"

namespace vorp::bn {

// Intermediate values may hold secrets (private exponents, primes), so every
// digit buffer is wiped before its memory goes back to the heap.
template <class T>
struct WipingAllocator {
    using value_type = T;
    WipingAllocator() = default;
    template <class U>
    WipingAllocator(const WipingAllocator<U> &) {}
    T *allocate(size_t n) { return std::allocator<T>().allocate(n); }
    void deallocate(T *p, size_t n) {
        volatile T *v = p;
        for (size_t i = 0; i < n; ++i) v[i] = T();
        std::allocator<T>().deallocate(p, n);
    }
    template <class U>
    bool operator==(const WipingAllocator<U> &) const { return true; }
};

using Digit = uint32_t;
using Wide = uint64_t;
using Digits = std::vector<Digit, WipingAllocator<Digit>>;

// Words of a bignum_t record before the digits.
constexpr size_t kCapacityWord = 0, kSignWord = 1, kLengthWord = 2, kHeaderWords = 3;

// ---- magnitudes ----
void trim(Digits &a);
int mag_compare(const Digits &a, const Digits &b);
Digits mag_add(const Digits &a, const Digits &b);
Digits mag_sub(const Digits &a, const Digits &b);  // requires a >= b
Digits mag_mul(const Digits &a, const Digits &b);
Digits mag_square(const Digits &a);
// Quotient and remainder of a / b (b non-zero); either output may be null.
void mag_divide(const Digits &a, const Digits &b, Digits *q, Digits *r);
Digit mag_divide_by_digit(Digits &a, Digit d);  // a /= d in place; returns a % d
Digit mag_remainder_by_digit(const Digits &a, Digit d);
void mag_mult_by_digit_add(Digits &a, Digit m, Digit add);  // a = a * m + add
Digits mag_shift_left(const Digits &a, size_t bits);
Digits mag_shift_right(const Digits &a, size_t bits);
size_t mag_bit_length(const Digits &a);

// ---- signed values ----
struct Num {
    Digits mag;
    bool neg = false;
    bool is_zero() const { return mag.empty(); }
    void fix_sign() {
        if (mag.empty()) neg = false;
    }
};

Num num_from_u64(uint64_t v, bool neg = false);
int num_compare(const Num &a, const Num &b);
Num num_add(const Num &a, const Num &b);
Num num_sub(const Num &a, const Num &b);
Num num_mul(const Num &a, const Num &b);
// Truncating division: the quotient rounds toward zero and the remainder
// has the dividend's sign.
void num_divide(const Num &a, const Num &b, Num *q, Num *r);
Num num_mod(const Num &a, const Num &m);  // remainder only, |m| > 0
// base^exp mod m (m may be null: no reduction); exp >= 0.
Num num_power(const Num &base, const Num &exp, const Num *m);
bool num_is_probable_prime(const Num &n, int32_t prob, int (*rsrc)(void), bool &failed);
// Digits drawn below a non-zero limit (limit.size() digits, top ones maybe
// zero), without a branch on the drawn values.
void random_digits_below(const Digits &limit, int (*rsrc)(void), Digits &out);
void num_random_below(const Num &limit, int (*rsrc)(void), Num &out);
// bn_findPrime's search: 0 with the prime (or zero) in out, else the
// Vorp_errno code.
qv_int32_t num_find_prime(const Num &start, const Num &limit, int32_t prob, bool strong, int (*rsrc)(void),
                          Num &out);
Digits mag_gcd(Digits a, Digits b);
// The inverse of a modulo m > 0 in [0, m); false when gcd(a, m) != 1.
bool num_mod_inverse(const Num &a, const Num &m, Num &out);

// ---- records ----
// Thrown by reading a NULL or malformed record; the exported routine turns
// it into VORP_E_BAD_ARGUMENT.
struct BadArgument {};
Num read(bignum_tc b);
// Places v in *slot under the placement rule (slot null: always allocate).
// Returns the record, or null with Vorp_errno VORP_E_NO_MEMORY.
bignum_t place(const Num &v, bignum_t *slot);
bignum_t allocate_record(size_t capacity);

// Runs body and maps the internal failures onto Vorp_errno: body returns the
// routine's result; `failure` is returned when it throws.
template <class R, class F>
R guarded(R failure, F &&body) {
    try {
        return body();
    } catch (const BadArgument &) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
    } catch (const std::bad_alloc &) {
        Vorp_errno = VORP_E_NO_MEMORY;
    } catch (const std::length_error &) {
        Vorp_errno = VORP_E_NO_MEMORY;
    }
    return failure;
}

inline bignum_t fail(qv_int32_t code) {
    Vorp_errno = code;
    return nullptr;
}

}  // namespace vorp::bn
