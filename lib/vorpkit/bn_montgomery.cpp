// Montgomery multiplication (the interleaved, coarsely integrated form: one
// pass per limb of a both adds a[i] * b and cancels the low limb with a
// multiple of m) and windowed powers on it.
#include "bn_montgomery.h"

#include <algorithm>

#include "cpu_features.h"

#include <x86intrin.h>

namespace vorp::bn {

using u128 = unsigned __int128;

Limbs limbs_from_be(const uint8_t *p, size_t len, size_t n) {
    Limbs a(n);
    for (size_t i = 0; i < len && i / 8 < n; ++i) a[i / 8] |= Limb(p[len - 1 - i]) << (8 * (i % 8));
    return a;
}

void limbs_to_be(const Limbs &a, uint8_t *out, size_t len) {
    for (size_t i = 0; i < len; ++i) out[len - 1 - i] = i / 8 < a.size() ? uint8_t(a[i / 8] >> (8 * (i % 8))) : 0;
}

Limbs limbs_from_digits(const Digits &d, size_t n) {
    Limbs a(n);
    for (size_t i = 0; i < d.size() && i / 2 < n; ++i) a[i / 2] |= Limb(d[i]) << (32 * (i % 2));
    return a;
}

Digits digits_from_limbs(const Limbs &a) {
    Digits d(2 * a.size());
    for (size_t i = 0; i < d.size(); ++i) d[i] = Digit(a[i / 2] >> (32 * (i % 2)));
    trim(d);
    return d;
}

void reduce_once(Limb *out, const Limb *x, Limb carry, const Limb *m, size_t n, Limb *tmp) {
    Limb borrow = 0;
    for (size_t j = 0; j < n; ++j) {
        u128 d = u128(x[j]) - m[j] - borrow;
        tmp[j] = Limb(d);
        borrow = Limb(d >> 64) & 1;
    }
    const Limb mask = Limb(0) - (carry | (borrow ^ 1));
    for (size_t j = 0; j < n; ++j) out[j] = (tmp[j] & mask) | (x[j] & ~mask);
}

namespace {

// x = diff where mask is all-ones, else x unchanged.
void masked_select(Limb *__restrict x, const Limb *__restrict diff, Limb mask, size_t n) {
    for (size_t j = 0; j < n; ++j) x[j] = (diff[j] & mask) | (x[j] & ~mask);
}

// `steps` (at least 1) modular doublings of x (below m, n limbs, n a
// positive multiple of 4) in
// one pass of flags: each step writes 2x over x and 2x + neg = 2x - m
// (neg = 2^(64n) - m) beside it in d, the doubling on the CF chain (ADCX)
// and the addition on the OF chain (ADOX); the carries of the two chains
// say whether 2x >= m. That choice is kept in ZF, which
// neither chain touches, and applied by a conditional move as the next
// step reads each limb (and once more at the end): every limb of both is
// read whatever the choice.
void double_steps_adx(Limb *x, const Limb *neg, Limb *d, size_t n, size_t steps) {
    Limb *xp, *dp;
    const Limb *gp;
    size_t c;
    unsigned char take;
#define VORP_DOUBLE_LIMB(off)         \
    "mov " off "(%[xp]), %%rax\n\t"   \
    "cmovnz " off "(%[dp]), %%rax\n\t" \
    "adcx %%rax, %%rax\n\t"           \
    "mov %%rax, " off "(%[xp])\n\t"   \
    "adox " off "(%[gp]), %%rax\n\t"  \
    "mov %%rax, " off "(%[dp])\n\t"
    __asm__ volatile(
        "xor %%eax, %%eax\n\t"  // ZF set: the first step keeps x
        "1:\n\t"
        "mov %[n4], %[c]\n\t"
        "mov %[x], %[xp]\n\t"
        "mov %[g], %[gp]\n\t"
        "mov %[d], %[dp]\n\t"
        "2:\n\t"
        VORP_DOUBLE_LIMB("0") VORP_DOUBLE_LIMB("8") VORP_DOUBLE_LIMB("16") VORP_DOUBLE_LIMB("24")
        "lea 32(%[xp]), %[xp]\n\t"
        "lea 32(%[gp]), %[gp]\n\t"
        "lea 32(%[dp]), %[dp]\n\t"
        "lea -1(%[c]), %[c]\n\t"
        "jrcxz 3f\n\t"
        "jmp 2b\n\t"
        "3:\n\t"
        "setc %%al\n\t"
        "seto %%dl\n\t"
        "or %%dl, %%al\n\t"  // ZF clear when 2x >= m; CF and OF cleared
        "mov %[steps], %[c]\n\t"
        "lea -1(%[c]), %[c]\n\t"
        "mov %[c], %[steps]\n\t"
        "jrcxz 4f\n\t"
        "jmp 1b\n\t"
        "4:\n\t"
        "setnz %[take]\n\t"
        : [steps] "+r"(steps), [c] "=&c"(c), [xp] "=&r"(xp), [gp] "=&r"(gp), [dp] "=&r"(dp), [take] "=&q"(take)
        : [x] "r"(x), [g] "r"(neg), [d] "r"(d), [n4] "r"(n / 4)
        : "rax", "rdx", "cc", "memory");
#undef VORP_DOUBLE_LIMB
    // The last step's choice.
    masked_select(x, d, Limb(0) - Limb(take), n);
}

// The same without ADX.
Limb double_step_portable(Limb *x, const Limb *neg, Limb *diff, size_t n) {
    Limb top = 0, carry = 0;
    for (size_t j = 0; j < n; ++j) {
        const Limb d = x[j] << 1 | top;
        top = x[j] >> 63;
        x[j] = d;
        const u128 s = u128(d) + neg[j] + carry;
        diff[j] = Limb(s);
        carry = Limb(s >> 64);
    }
    return top | carry;
}

}  // namespace

Montgomery::Montgomery(Limbs m, bool secret)
    : m_(std::move(m)), n_(m_.size()), adx_(cpu().bmi2 && cpu().adx), scratch_(3 * m_.size() + 2) {
    // Newton's iteration doubles the correct low bits of the inverse; an
    // odd m0 is its own inverse modulo 8.
    const Limb m0 = m_[0];
    Limb inv = m0;
    for (int i = 0; i < 5; ++i) inv *= 2 - m0 * inv;
    m0inv_ = Limb(0) - inv;
    rr_.assign(n_, 0);
    if (!secret) {
        Digits r, big = mag_shift_left(Digits{1}, 128 * n_);
        mag_divide(big, digits_from_limbs(m_), nullptr, &r);
        rr_ = limbs_from_digits(r, n_);
        return;
    }
    // R mod m by 64n doublings of 1, each reduced by a masked subtraction;
    // then with 64n = t * 2^k: t more doublings give 2^t * R, and k
    // Montgomery squarings (x -> x^2 / R) take it to 2^(64n) * R = R^2.
    // The doublings run on n4 limbs, a multiple of 4, zero above m.
    const size_t n4 = (n_ + 3) / 4 * 4;
    Limbs x(n4), neg(n4), d(n4);
    x[0] = 1;
    reduce_once(x.data(), x.data(), 0, m_.data(), n_, d.data());  // m = 1 gives 0
    // neg = 2^(64 n4) - m, so that x - m is x + neg, whose carry says x >= m.
    Limb borrow = 0;
    for (size_t j = 0; j < n4; ++j) {
        u128 diff = u128(0) - (j < n_ ? m_[j] : 0) - borrow;
        neg[j] = Limb(diff);
        borrow = Limb(diff >> 64) & 1;
    }
    const size_t total = 64 * n_;
    const size_t k = size_t(__builtin_ctzll(total)), t = total >> k;
    if (adx_) {
        double_steps_adx(x.data(), neg.data(), d.data(), n4, total + t);
    } else {
        for (size_t step = 0; step < total + t; ++step)
            masked_select(x.data(), d.data(), Limb(0) - double_step_portable(x.data(), neg.data(), d.data(), n4), n4);
    }
    x.resize(n_);
    for (size_t i = 0; i < k; ++i) mul(x.data(), x.data(), x.data());
    rr_ = std::move(x);
}

void Montgomery::mul(Limb *out, const Limb *a, const Limb *b) const {
    if (adx_)
        mul_adx(out, a, b);
    else
        mul_portable(out, a, b);
}

void Montgomery::mul_portable(Limb *out, const Limb *a, const Limb *b) const {
    const size_t n = n_;
    Limb *t = scratch_.data();
    const Limb *m = m_.data();
    std::fill(t, t + n + 1, 0);
    for (size_t i = 0; i < n; ++i) {
        const Limb ai = a[i];
        u128 p = u128(ai) * b[0] + t[0];
        const Limb u = Limb(p) * m0inv_;
        u128 q = u128(u) * m[0] + Limb(p);
        Limb c1 = Limb(p >> 64), c2 = Limb(q >> 64);
        for (size_t j = 1; j < n; ++j) {
            p = u128(ai) * b[j] + t[j] + c1;
            c1 = Limb(p >> 64);
            q = u128(u) * m[j] + Limb(p) + c2;
            c2 = Limb(q >> 64);
            t[j - 1] = Limb(q);
        }
        const u128 s = u128(t[n]) + c1 + c2;
        t[n - 1] = Limb(s);
        t[n] = Limb(s >> 64);
    }
    // t < 2m here, so one masked subtraction reduces it.
    reduce_once(out, t, t[n], m, n, t + n + 1);
}

namespace {

// base[0..n+1] += x * v[0..n-1]: the low halves of the products go on the
// CF chain (ADCX), the high halves on the OF chain (ADOX), so the two run
// side by side; four limbs a turn, then one at a time. Loop control uses
// LEA and JRCXZ, which leave both flags alone.
void add_row(Limb *base, const Limb *v, Limb x, size_t n) {
    Limb *d = base;
    const Limb *s = v;
    size_t c = n / 4;
    const size_t rest = n % 4;
    __asm__ volatile(
        "xor %%r8d, %%r8d\n\t"
        "1:\n\t"
        "jrcxz 2f\n\t"
        "mulx 0(%[s]), %%rax, %%r9\n\t"
        "adcx 0(%[d]), %%rax\n\t"
        "adox %%r8, %%rax\n\t"
        "mov %%rax, 0(%[d])\n\t"
        "mov %%r9, %%r8\n\t"
        "mulx 8(%[s]), %%rax, %%r9\n\t"
        "adcx 8(%[d]), %%rax\n\t"
        "adox %%r8, %%rax\n\t"
        "mov %%rax, 8(%[d])\n\t"
        "mov %%r9, %%r8\n\t"
        "mulx 16(%[s]), %%rax, %%r9\n\t"
        "adcx 16(%[d]), %%rax\n\t"
        "adox %%r8, %%rax\n\t"
        "mov %%rax, 16(%[d])\n\t"
        "mov %%r9, %%r8\n\t"
        "mulx 24(%[s]), %%rax, %%r9\n\t"
        "adcx 24(%[d]), %%rax\n\t"
        "adox %%r8, %%rax\n\t"
        "mov %%rax, 24(%[d])\n\t"
        "mov %%r9, %%r8\n\t"
        "lea 32(%[s]), %[s]\n\t"
        "lea 32(%[d]), %[d]\n\t"
        "lea -1(%[c]), %[c]\n\t"
        "jmp 1b\n\t"
        "2:\n\t"
        "mov %[rest], %[c]\n\t"
        "3:\n\t"
        "jrcxz 4f\n\t"
        "mulx 0(%[s]), %%rax, %%r9\n\t"
        "adcx 0(%[d]), %%rax\n\t"
        "adox %%r8, %%rax\n\t"
        "mov %%rax, 0(%[d])\n\t"
        "mov %%r9, %%r8\n\t"
        "lea 8(%[s]), %[s]\n\t"
        "lea 8(%[d]), %[d]\n\t"
        "lea -1(%[c]), %[c]\n\t"
        "jmp 3b\n\t"
        "4:\n\t"
        "mov $0, %%r9d\n\t"
        "mov (%[d]), %%rax\n\t"
        "adcx %%r8, %%rax\n\t"
        "adox %%r9, %%rax\n\t"
        "mov %%rax, (%[d])\n\t"
        "mov 8(%[d]), %%rax\n\t"
        "adcx %%r9, %%rax\n\t"
        "adox %%r9, %%rax\n\t"
        "mov %%rax, 8(%[d])\n\t"
        : [d] "+r"(d), [s] "+r"(s), [c] "+c"(c)
        : "d"(x), [rest] "r"(rest)
        : "rax", "r8", "r9", "cc", "memory");
}

}  // namespace

// The same product with the rows on a window that slides up one limb a
// turn (no shifting): after turn i the low limb t[i] is zero and the value
// lies in t[i + 1 ..]; the result ends in t[n .. 2n].
void Montgomery::mul_adx(Limb *out, const Limb *a, const Limb *b) const {
    const size_t n = n_;
    Limb *t = scratch_.data();
    std::fill(t, t + 2 * n + 2, 0);
    for (size_t i = 0; i < n; ++i) {
        add_row(t + i, b, a[i], n);
        add_row(t + i, m_.data(), t[i] * m0inv_, n);
    }
    reduce_once(out, t + n, t[2 * n], m_.data(), n, t + 2 * n + 2);
}

Limbs Montgomery::mul(const Limbs &a, const Limbs &b) const {
    Limbs out(n_);
    mul(out.data(), a.data(), b.data());
    return out;
}

Limbs Montgomery::to_mont(const Limbs &a) const {
    Limbs out(n_);
    mul(out.data(), a.data(), rr_.data());
    return out;
}

Limbs Montgomery::from_mont(const Limbs &a) const {
    Limbs one(n_), out(n_);
    one[0] = 1;
    mul(out.data(), a.data(), one.data());
    return out;
}

Limbs Montgomery::one() const {
    Limbs one(n_);
    one[0] = 1;
    return to_mont(one);
}

Limbs Montgomery::add(const Limbs &a, const Limbs &b) const {
    Limbs out(n_);
    Limb carry = 0;
    for (size_t j = 0; j < n_; ++j) {
        u128 s = u128(a[j]) + b[j] + carry;
        out[j] = Limb(s);
        carry = Limb(s >> 64);
    }
    reduce_once(out.data(), out.data(), carry, m_.data(), n_, scratch_.data());
    return out;
}

Limbs Montgomery::sub(const Limbs &a, const Limbs &b) const {
    Limbs out(n_);
    Limb borrow = 0;
    for (size_t j = 0; j < n_; ++j) {
        u128 d = u128(a[j]) - b[j] - borrow;
        out[j] = Limb(d);
        borrow = Limb(d >> 64) & 1;
    }
    // Add m back under a mask when the difference went below zero.
    const Limb mask = Limb(0) - borrow;
    Limb carry = 0;
    for (size_t j = 0; j < n_; ++j) {
        u128 s = u128(out[j]) + (m_[j] & mask) + carry;
        out[j] = Limb(s);
        carry = Limb(s >> 64);
    }
    return out;
}

Limbs Montgomery::power(const Limbs &base, const Limbs &exp, size_t bits, bool secret) const {
    bits = std::min(bits, 64 * exp.size());
    if (!secret) {
        while (bits > 0 && !limb_bit(exp, bits - 1)) --bits;
        if (bits <= 64) {
            // Short public exponents (e = 65537): square and multiply.
            if (bits == 0) return one();
            Limbs acc = base;
            for (size_t i = bits - 1; i-- > 0;) {
                mul(acc.data(), acc.data(), acc.data());
                if (limb_bit(exp, i)) mul(acc.data(), acc.data(), base.data());
            }
            return acc;
        }
    }
    return window_powers<1>(n_, {base}, {one()}, {&exp}, bits, secret, [this](auto &out, auto &a, auto &b) {
        mul(out[0], a[0], b[0]);
    })[0];
}

Limbs Montgomery::power_plain(const Limbs &base, const Limbs &exp, size_t bits, bool secret) const {
    // A short public exponent (e = 65537) gains nothing from the vectors.
    if (Limbs r; (secret || bits > 64) && power_ifma(base, exp, bits, secret, r)) return r;
    return from_mont(power(to_mont(base), exp, bits, secret));
}

void power_pair(const Montgomery *mont[2], const Limbs *base[2], const Limbs *exp[2], size_t bits, Limbs out[2]) {
    if (power_pair_ifma(mont, base, exp, bits, out)) return;
    for (size_t k = 0; k < 2; ++k) out[k] = mont[k]->power_plain(*base[k], *exp[k], bits, true);
}

bool mont_power(const Digits &base, const Digits &exp, const Digits &m, Digits &out) {
    if (m.size() < 2 || !(m[0] & 1)) return false;
    const size_t n = (m.size() + 1) / 2;
    Montgomery mont(limbs_from_digits(m, n), false);
    Limbs e = limbs_from_digits(exp, (exp.size() + 1) / 2 + 1);
    out = digits_from_limbs(mont.power_plain(limbs_from_digits(base, n), e, mag_bit_length(exp), false));
    return true;
}

}  // namespace vorp::bn
