// Montgomery arithmetic on 64-bit limbs for the modular powers: the big
// numbers' bn_power with an odd modulus, and RSA and Diffie-Hellman.
//
// Everything here that may touch a secret runs without a branch or a memory
// index that depends on a limb's value: lengths are fixed by the caller
// (from a key record's public size), the final subtraction of each product
// is a masked select, and the window table of a secret exponent is read by
// scanning every entry. Limb vectors wipe themselves when freed.
#pragma once

#include "bn_internal.h"

namespace vorp::bn {

using Limb = uint64_t;
using Limbs = std::vector<Limb, WipingAllocator<Limb>>;

// len big-endian bytes into n limbs (8 * n >= len), least significant first.
Limbs limbs_from_be(const uint8_t *p, size_t len, size_t n);
// The low len bytes of a, big-endian.
void limbs_to_be(const Limbs &a, uint8_t *out, size_t len);
Limbs limbs_from_digits(const Digits &d, size_t n);
Digits digits_from_limbs(const Limbs &a);  // trimmed: for public values only

// all-ones when a == b, else zero, without a branch.
inline Limb ct_eq_mask(Limb a, Limb b) {
    Limb x = a ^ b;
    return Limb(0) - (((x | (Limb(0) - x)) >> 63) ^ 1);
}

// Arithmetic modulo an odd m of n limbs (its top limbs may be zero), with
// R = 2^(64n).
class Montgomery {
public:
    // m must be odd. With secret set, R^2 mod m is found by doublings and
    // masked subtractions; otherwise by a (variable-time) division.
    Montgomery(Limbs m, bool secret);
    size_t size() const { return n_; }
    const Limbs &modulus() const { return m_; }
    // out = a * b / R mod m for a < R and b < m; out may alias a or b.
    void mul(Limb *out, const Limb *a, const Limb *b) const;
    Limbs mul(const Limbs &a, const Limbs &b) const;
    Limbs to_mont(const Limbs &a) const;  // a * R mod m, for a < R
    Limbs from_mont(const Limbs &a) const;  // a / R mod m, fully reduced
    Limbs one() const;  // R mod m: 1 in Montgomery form
    // base^exp for base in Montgomery form (result in Montgomery form),
    // using the low `bits` bits of exp. A secret exponent takes a fixed
    // window whatever its bits; a public one may skip its zero bits.
    Limbs power(const Limbs &base, const Limbs &exp, size_t bits, bool secret) const;
    // (a + b) mod m and (a - b) mod m for a, b < m.
    Limbs add(const Limbs &a, const Limbs &b) const;
    Limbs sub(const Limbs &a, const Limbs &b) const;

private:
    void mul_portable(Limb *out, const Limb *a, const Limb *b) const;
    void mul_adx(Limb *out, const Limb *a, const Limb *b) const;

    Limbs m_, rr_;
    Limb m0inv_ = 0;  // -m^-1 mod 2^64
    size_t n_;
    bool adx_;  // MULX, ADCX and ADOX are there
    mutable Limbs scratch_;
};

// base^exp mod m on magnitudes (base < m) through Montgomery arithmetic,
// when m is odd and longer than one digit; false when m does not qualify.
bool mont_power(const Digits &base, const Digits &exp, const Digits &m, Digits &out);

}  // namespace vorp::bn
