// Powers, greatest common divisors and modular inverses.
#include "bn_montgomery.h"

namespace vorp::bn {

namespace {

// Without a modulus a result of this many bits or more is refused.
constexpr uint64_t kMaxPowerBits = uint64_t(1) << 29;
// Above this exponent length the two-bit step with base^3 pays for its setup.
constexpr size_t kPairedBitsThreshold = 40;

bool bit_of(const Digits &a, size_t i) { return (a[i / 32] >> (i % 32)) & 1; }

}  // namespace

// Left-to-right square and multiply, each product reduced by the
// remainder-only division when there is a modulus. With a modulus and a long
// exponent, two adjacent one bits cost one multiplication by base^3.
Num num_power(const Num &base, const Num &exp, const Num *m) {
    auto reduce = [&](Num v) { return m ? num_mod(v, *m) : v; };
    const size_t bits = mag_bit_length(exp.mag);
    Num x = reduce(base);
    if (bits == 0) return reduce(num_from_u64(1));
    // An odd modulus takes Montgomery arithmetic on the magnitude; the sign
    // is the one the truncating remainders below would leave.
    if (Num r; m && mont_power(x.mag, exp.mag, m->mag, r.mag)) {
        r.neg = x.neg && (exp.mag[0] & 1);
        r.fix_sign();
        return r;
    }
    Num b1 = x, b3;
    const bool paired = m && bits > kPairedBitsThreshold;
    if (paired) b3 = reduce(num_mul(reduce(num_mul(b1, b1)), b1));
    for (size_t i = bits - 1; i-- > 0;) {
        x = reduce(num_mul(x, x));
        if (!bit_of(exp.mag, i)) continue;
        if (paired && i > 0 && bit_of(exp.mag, i - 1)) {
            x = reduce(num_mul(x, x));
            x = reduce(num_mul(x, b3));
            --i;
        } else {
            x = reduce(num_mul(x, b1));
        }
    }
    return x;
}

}  // namespace vorp::bn

using namespace vorp::bn;

extern "C" bignum_t bn_power(bignum_tc base, bignum_tc exp, bignum_tc mod, bignum_t *c) {
    return guarded<bignum_t>(nullptr, [&]() -> bignum_t {
        Num b = read(base), e = read(exp);
        if (e.neg) return fail(VORP_E_NEG_EXPONENT);
        Num m;
        if (mod) {
            m = read(mod);
            if (m.is_zero()) return fail(VORP_E_DIVIDE);
        }
        if (!mod) {
            // The result has at most bitLength(base) * exp bits.
            const uint64_t bb = mag_bit_length(b.mag);
            const bool one = !b.neg && b.mag.size() == 1 && b.mag[0] == 1;
            if (bb > 0 && !one && !e.is_zero() &&
                (e.mag.size() > 1 || uint64_t(e.mag[0]) * bb >= kMaxPowerBits))
                return fail(VORP_E_TOO_LARGE);
        }
        return place(num_power(b, e, mod ? &m : nullptr), c);
    });
}

namespace {

// Extended Euclid on magnitudes: g = gcd(a, b) = a * x + b * y.
void euclid(const Digits &a, const Digits &b, Num &x, Num &y, Digits &g) {
    Num r0{a, false}, r1{b, false};
    Num s0 = num_from_u64(1), s1, t0, t1 = num_from_u64(1);
    while (!r1.is_zero()) {
        Num q, r;
        num_divide(r0, r1, &q, &r);
        Num s2 = num_sub(s0, num_mul(q, s1));
        Num t2 = num_sub(t0, num_mul(q, t1));
        r0 = std::move(r1);
        r1 = std::move(r);
        s0 = std::move(s1);
        s1 = std::move(s2);
        t0 = std::move(t1);
        t1 = std::move(t2);
    }
    x = std::move(s0);
    y = std::move(t0);
    g = std::move(r0.mag);
}

}  // namespace

Digits vorp::bn::mag_gcd(Digits x, Digits y) {
    while (!y.empty()) {
        Digits r;
        mag_divide(x, y, nullptr, &r);
        x = std::move(y);
        y = std::move(r);
    }
    return x;
}

extern "C" bignum_t bn_gcd(bignum_tc u, bignum_tc v, bignum_t *gcd) {
    return guarded<bignum_t>(nullptr, [&] { return place(Num{mag_gcd(read(u).mag, read(v).mag), false}, gcd); });
}

extern "C" bignum_t bn_extendedEuclid(bignum_tc u, bignum_tc v, bignum_t *euclid1, bignum_t *euclid2,
                                      bignum_t *euclid3) {
    return guarded<bignum_t>(nullptr, [&]() -> bignum_t {
        Num a = read(u), b = read(v), x, y;
        Digits g;
        euclid(a.mag, b.mag, x, y, g);
        // Coefficients for |u| and |v| carry the operands' signs over.
        x.neg = x.neg != a.neg;
        y.neg = y.neg != b.neg;
        x.fix_sign();
        y.fix_sign();
        Num gn{g, false};
        // The gcd, the routine's result, is placed last.
        if (euclid1 && !place(x, euclid1)) return nullptr;
        if (euclid2 && !place(y, euclid2)) return nullptr;
        return place(gn, euclid3);
    });
}

bool vorp::bn::num_mod_inverse(const Num &a, const Num &m, Num &out) {
    Num r = num_mod(a, m);
    if (r.neg) r = num_add(r, m);
    Num x, y;
    Digits g;
    euclid(r.mag, m.mag, x, y, g);
    // Modulo 1 the remainder is 0 and gcd(0, 1) = 1: the inverse is 0.
    if (g.size() != 1 || g[0] != 1) return false;
    x = num_mod(x, m);
    out = x.neg ? num_add(x, m) : x;
    return true;
}

extern "C" bignum_t bn_modInverse(bignum_tc n, bignum_tc mod, bignum_t *invp) {
    return guarded<bignum_t>(nullptr, [&]() -> bignum_t {
        Num a = read(n), m = read(mod), x;
        if (m.is_zero()) return fail(VORP_E_DIVIDE);
        m.neg = false;
        if (!num_mod_inverse(a, m, x)) return fail(VORP_E_NO_INVERSE);
        return place(x, invp);
    });
}
