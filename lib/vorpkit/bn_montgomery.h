// Montgomery arithmetic on 64-bit limbs for the modular powers: the big
// numbers' bn_power with an odd modulus, and RSA and Diffie-Hellman.
//
// Everything here that may touch a secret runs without a branch or a memory
// index that depends on a limb's value: lengths are fixed by the caller
// (from a key record's public size), the final subtraction of each product
// is a masked select, and the window table of a secret exponent is read by
// scanning every entry. Limb vectors wipe themselves when freed.
#pragma once

#include <algorithm>
#include <array>

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

// out = x - m when that does not borrow or when `carry` (x's bit above its
// n limbs) is set, else x, by masks; x and out may alias; tmp has n limbs.
void reduce_once(Limb *out, const Limb *x, Limb carry, const Limb *m, size_t n, Limb *tmp);

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
    Limb m0inv() const { return m0inv_; }
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
    // The same for a plain base below R, with a plain result below m; on
    // processors with 52-bit vector multiply-add (AVX-512 IFMA) the power
    // runs there.
    Limbs power_plain(const Limbs &base, const Limbs &exp, size_t bits, bool secret) const;
    // (a + b) mod m and (a - b) mod m for a, b < m.
    Limbs add(const Limbs &a, const Limbs &b) const;
    Limbs sub(const Limbs &a, const Limbs &b) const;

private:
    void mul_portable(Limb *out, const Limb *a, const Limb *b) const;
    void mul_adx(Limb *out, const Limb *a, const Limb *b) const;
    bool power_ifma(const Limbs &base, const Limbs &exp, size_t bits, bool secret, Limbs &out) const;

    Limbs m_, rr_;
    Limb m0inv_ = 0;  // -m^-1 mod 2^64
    size_t n_;
    bool adx_;  // MULX, ADCX and ADOX are there
    mutable Limbs scratch_;
};

inline Limb limb_bit(const Limbs &e, size_t i) { return (e[i / 64] >> (i % 64)) & 1; }

// K powers base[k]^exp[k] side by side (K = 2 for the halves of an RSA CRT
// key, whose products can then overlap), over the low `bits` bits of each
// exponent by a fixed window, in any representation: numbers of `digits`
// words, mul(out, a, b) the K products out[k] = a[k] * b[k] (out may alias),
// one[k] the representation of 1. For a secret exponent the window values
// select table entries by a scan of every entry: select(out, table, entries,
// digits, index) copies entry `index` reading every entry alike.
inline void select_entry(Limb *out, const Limb *table, size_t entries, size_t n, Limb idx) {
    std::fill_n(out, n, 0);
    for (size_t e = 0; e < entries; ++e, table += n) {
        const Limb mask = ct_eq_mask(e, idx);
        for (size_t j = 0; j < n; ++j) out[j] |= table[j] & mask;
    }
}

template <size_t K, class Mul, class Select = decltype(&select_entry)>
std::array<Limbs, K> window_powers(size_t digits, const std::array<Limbs, K> &base, const std::array<Limbs, K> &one,
                                   const std::array<const Limbs *, K> &exp, size_t bits, bool secret, Mul mul,
                                   Select select = &select_entry) {
    if (bits == 0) return one;
    // Wider windows save products but lengthen the table scans.
    const size_t w = bits >= 2048 ? 6 : bits >= 512 ? 5 : bits >= 128 ? 4 : bits > 32 ? 3 : 1;
    const size_t entries = size_t(1) << w, n = digits;
    std::array<Limbs, K> table, sel, acc;
    std::array<Limb *, K> out, a, b;
    for (size_t k = 0; k < K; ++k) {
        table[k].assign(n * entries, 0);
        sel[k].assign(n, 0);
        std::copy_n(one[k].begin(), n, table[k].begin());
        std::copy_n(base[k].begin(), n, table[k].begin() + long(n));
    }
    // mul(out, a, b) on the K numbers at word offsets, into the tables or acc.
    auto step = [&](std::array<Limbs, K> &o, size_t oo, std::array<Limbs, K> &x, size_t xo, std::array<Limbs, K> &y,
                    size_t yo) {
        for (size_t k = 0; k < K; ++k) {
            out[k] = o[k].data() + oo;
            a[k] = x[k].data() + xo;
            b[k] = y[k].data() + yo;
        }
        mul(out, a, b);
    };
    for (size_t e = 2; e < entries; ++e) step(table, e * n, table, (e - 1) * n, table, n);
    auto lookup = [&](size_t pos) {
        for (size_t k = 0; k < K; ++k) {
            Limb idx = 0;
            for (size_t i = 0; i < w && pos + i < bits; ++i) idx |= limb_bit(*exp[k], pos + i) << i;
            if (secret)
                select(sel[k].data(), table[k].data(), entries, n, idx);
            else
                std::copy_n(&table[k][idx * n], n, sel[k].begin());
        }
    };
    size_t pos = (bits - 1) / w * w;
    lookup(pos);
    acc = sel;
    while (pos > 0) {
        pos -= w;
        for (size_t i = 0; i < w; ++i) step(acc, 0, acc, 0, acc, 0);
        lookup(pos);
        step(acc, 0, acc, 0, sel, 0);
    }
    return acc;
}

// Two secret powers at once, out[k] = base[k]^exp[k] mod m[k] (plain, base
// below R), for moduli of the same limb count: interleaved on AVX-512 IFMA,
// else one after the other.
void power_pair(const Montgomery *mont[2], const Limbs *base[2], const Limbs *exp[2], size_t bits, Limbs out[2]);
bool power_pair_ifma(const Montgomery *mont[2], const Limbs *base[2], const Limbs *exp[2], size_t bits, Limbs out[2]);

// base^exp mod m on magnitudes (base < m) through Montgomery arithmetic,
// when m is odd and longer than one digit; false when m does not qualify.
bool mont_power(const Digits &base, const Digits &exp, const Digits &m, Digits &out);

}  // namespace vorp::bn
