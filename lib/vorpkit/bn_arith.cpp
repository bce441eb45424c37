// Signed arithmetic on Nums (sign and magnitude) and the exported sum,
// difference, product, quotient and shifts.
#include "bn_internal.h"

namespace vorp::bn {

namespace {

// a + (b with sign b_neg), by magnitudes.
Num signed_sum(const Num &a, const Digits &b, bool b_neg) {
    Num c;
    if (a.neg == b_neg) {
        c.mag = mag_add(a.mag, b);
        c.neg = a.neg;
    } else if (mag_compare(a.mag, b) >= 0) {
        c.mag = mag_sub(a.mag, b);
        c.neg = a.neg;
    } else {
        c.mag = mag_sub(b, a.mag);
        c.neg = b_neg;
    }
    c.fix_sign();
    return c;
}

}  // namespace

Num num_add(const Num &a, const Num &b) { return signed_sum(a, b.mag, b.neg); }
Num num_sub(const Num &a, const Num &b) { return signed_sum(a, b.mag, !b.neg && !b.is_zero()); }

Num num_mul(const Num &a, const Num &b) {
    Num c;
    c.mag = &a == &b ? mag_square(a.mag) : mag_mul(a.mag, b.mag);
    c.neg = a.neg != b.neg;
    c.fix_sign();
    return c;
}

void num_divide(const Num &a, const Num &b, Num *q, Num *r) {
    Digits qm, rm;
    mag_divide(a.mag, b.mag, q ? &qm : nullptr, r ? &rm : nullptr);
    if (q) {
        q->mag = std::move(qm);
        q->neg = a.neg != b.neg;
        q->fix_sign();
    }
    if (r) {
        r->mag = std::move(rm);
        r->neg = a.neg;
        r->fix_sign();
    }
}

Num num_mod(const Num &a, const Num &m) {
    Num r;
    num_divide(a, m, nullptr, &r);
    return r;
}

}  // namespace vorp::bn

using namespace vorp::bn;

extern "C" bignum_t bn_add(bignum_tc a, bignum_tc b, bignum_t *c) {
    return guarded<bignum_t>(nullptr, [&] { return place(num_add(read(a), read(b)), c); });
}

extern "C" bignum_t bn_subtract(bignum_tc a, bignum_tc b, bignum_t *c) {
    return guarded<bignum_t>(nullptr, [&] { return place(num_sub(read(a), read(b)), c); });
}

extern "C" bignum_t bn_multiply(bignum_tc a, bignum_tc b, bignum_t *c) {
    return guarded<bignum_t>(nullptr, [&] {
        Num x = read(a);
        if (a == b) return place(num_mul(x, x), c);
        return place(num_mul(x, read(b)), c);
    });
}

extern "C" bignum_t bn_karatsubaSquaring(bignum_tc, bignum_tc, bignum_t *) { return nullptr; }

extern "C" bignum_t bn_divide(bignum_tc a, bignum_tc b, bignum_t *q, bignum_t *r) {
    if (!q && !r) return fail(VORP_E_BAD_ARGUMENT);
    return guarded<bignum_t>(nullptr, [&]() -> bignum_t {
        Num x = read(a), y = read(b);
        if (y.is_zero()) return fail(VORP_E_DIVIDE);
        Num qv, rv;
        num_divide(x, y, q ? &qv : nullptr, r ? &rv : nullptr);
        bignum_t qp = nullptr, rp = nullptr;
        // The remainder goes first: when it takes the dividend's place, the
        // dividend has already been read.
        if (r && !(rp = place(rv, r))) return nullptr;
        if (q && !(qp = place(qv, q))) return nullptr;
        return q ? qp : rp;
    });
}

namespace {

bignum_t shift(bignum_tc b, int64_t n, bignum_t *c) {
    return guarded<bignum_t>(nullptr, [&] {
        Num v = read(b);
        if (n >= 0)
            v.mag = mag_shift_left(v.mag, size_t(n));
        else
            v.mag = mag_shift_right(v.mag, size_t(-n));
        v.fix_sign();
        return place(v, c);
    });
}

}  // namespace

extern "C" bignum_t bn_shiftLeft(bignum_tc b, qv_int32_t n, bignum_t *c) { return shift(b, n, c); }

extern "C" bignum_t bn_shiftRight(bignum_tc b, qv_int32_t n, bignum_t *c) { return shift(b, -int64_t(n), c); }
