// Magnitudes: schoolbook arithmetic on little-endian base-2^32 digit
// vectors. Every result comes back trimmed (no leading zero digit).
#include <algorithm>

#include "bn_internal.h"

namespace vorp::bn {

void trim(Digits &a) {
    while (!a.empty() && a.back() == 0) a.pop_back();
}

int mag_compare(const Digits &a, const Digits &b) {
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    for (size_t i = a.size(); i-- > 0;)
        if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
    return 0;
}

Digits mag_add(const Digits &a, const Digits &b) {
    const Digits &lo = a.size() < b.size() ? a : b;
    const Digits &hi = a.size() < b.size() ? b : a;
    Digits c(hi.size() + 1);
    Wide carry = 0;
    for (size_t i = 0; i < hi.size(); ++i) {
        carry += Wide(hi[i]) + (i < lo.size() ? lo[i] : 0);
        c[i] = Digit(carry);
        carry >>= 32;
    }
    c[hi.size()] = Digit(carry);
    trim(c);
    return c;
}

Digits mag_sub(const Digits &a, const Digits &b) {
    Digits c(a.size());
    Digit borrow = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        Wide t = Wide(a[i]) - (i < b.size() ? b[i] : 0) - borrow;
        c[i] = Digit(t);
        borrow = Digit(t >> 63);
    }
    trim(c);
    return c;
}

Digits mag_mul(const Digits &a, const Digits &b) {
    if (a.empty() || b.empty()) return {};
    Digits c(a.size() + b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        Wide carry = 0;
        const Wide ai = a[i];
        for (size_t j = 0; j < b.size(); ++j) {
            carry += ai * b[j] + c[i + j];
            c[i + j] = Digit(carry);
            carry >>= 32;
        }
        c[i + b.size()] = Digit(carry);
    }
    trim(c);
    return c;
}

// The cross products a[i] * a[j] (i < j) once, doubled by a shift, then the
// digit squares added: about half the digit products of mag_mul.
Digits mag_square(const Digits &a) {
    if (a.empty()) return {};
    const size_t n = a.size();
    Digits c(2 * n);
    for (size_t i = 0; i < n; ++i) {
        Wide carry = 0;
        const Wide ai = a[i];
        for (size_t j = i + 1; j < n; ++j) {
            carry += ai * a[j] + c[i + j];
            c[i + j] = Digit(carry);
            carry >>= 32;
        }
        c[i + n] = Digit(carry);
    }
    Digit top = 0;
    for (size_t i = 0; i < 2 * n; ++i) {
        Digit next = c[i] >> 31;
        c[i] = (c[i] << 1) | top;
        top = next;
    }
    Wide carry = 0;
    for (size_t i = 0; i < n; ++i) {
        Wide sq = Wide(a[i]) * a[i];
        carry += Wide(c[2 * i]) + Digit(sq);
        c[2 * i] = Digit(carry);
        carry >>= 32;
        carry += Wide(c[2 * i + 1]) + (sq >> 32);
        c[2 * i + 1] = Digit(carry);
        carry >>= 32;
    }
    trim(c);
    return c;
}

Digit mag_divide_by_digit(Digits &a, Digit d) {
    Wide rem = 0;
    for (size_t i = a.size(); i-- > 0;) {
        Wide cur = (rem << 32) | a[i];
        a[i] = Digit(cur / d);
        rem = cur % d;
    }
    trim(a);
    return Digit(rem);
}

Digit mag_remainder_by_digit(const Digits &a, Digit d) {
    Wide rem = 0;
    for (size_t i = a.size(); i-- > 0;) rem = ((rem << 32) | a[i]) % d;
    return Digit(rem);
}

void mag_mult_by_digit_add(Digits &a, Digit m, Digit add) {
    Wide carry = add;
    for (auto &x : a) {
        carry += Wide(x) * m;
        x = Digit(carry);
        carry >>= 32;
    }
    if (carry) a.push_back(Digit(carry));
}

Digits mag_shift_left(const Digits &a, size_t bits) {
    if (a.empty()) return {};
    const size_t words = bits / 32, s = bits % 32;
    Digits c(a.size() + words + 1);
    for (size_t i = 0; i < a.size(); ++i) {
        c[i + words] |= a[i] << s;
        if (s) c[i + words + 1] = a[i] >> (32 - s);
    }
    trim(c);
    return c;
}

Digits mag_shift_right(const Digits &a, size_t bits) {
    const size_t words = bits / 32, s = bits % 32;
    if (words >= a.size()) return {};
    Digits c(a.size() - words);
    for (size_t i = 0; i < c.size(); ++i) {
        c[i] = a[i + words] >> s;
        if (s && i + words + 1 < a.size()) c[i] |= a[i + words + 1] << (32 - s);
    }
    trim(c);
    return c;
}

size_t mag_bit_length(const Digits &a) {
    if (a.empty()) return 0;
    return 32 * (a.size() - 1) + (32 - size_t(__builtin_clz(a.back())));
}

namespace {

// Long division by a divisor of two or more digits (Knuth's algorithm D).
// Both operands are first shifted left so that the divisor's top digit has
// its high bit set (normalising); then each quotient digit is estimated
// from the top two remainder digits, corrected downward at most twice
// against the divisor's second digit, and in the rare case the estimate is
// still one too large the divisor is added back. remainderWanted decides
// whether the remainder is un-normalised and returned.
void divide(const Digits &a, const Digits &b, Digits *q, Digits *r) {
    const size_t n = b.size(), m = a.size();
    const int s = __builtin_clz(b.back());
    Digits v = mag_shift_left(b, size_t(s));
    Digits u(m + 1);
    {
        Digits t = mag_shift_left(a, size_t(s));
        std::copy(t.begin(), t.end(), u.begin());
    }
    Digits quot(m - n + 1);
    const Wide base = Wide(1) << 32;
    for (size_t j = m - n + 1; j-- > 0;) {
        Wide num = (Wide(u[j + n]) << 32) | u[j + n - 1];
        Wide qhat = num / v[n - 1], rhat = num % v[n - 1];
        while (qhat >= base || qhat * v[n - 2] > ((rhat << 32) | u[j + n - 2])) {
            --qhat;
            rhat += v[n - 1];
            if (rhat >= base) break;
        }
        int64_t k = 0;
        for (size_t i = 0; i < n; ++i) {
            Wide p = qhat * v[i];
            int64_t t = int64_t(u[i + j]) - k - int64_t(p & 0xffffffffu);
            u[i + j] = Digit(t);
            k = int64_t(p >> 32) - (t >> 32);
        }
        int64_t t = int64_t(u[j + n]) - k;
        u[j + n] = Digit(t);
        if (t < 0) {
            --qhat;
            Wide carry = 0;
            for (size_t i = 0; i < n; ++i) {
                carry += Wide(u[i + j]) + v[i];
                u[i + j] = Digit(carry);
                carry >>= 32;
            }
            u[j + n] += Digit(carry);
        }
        quot[j] = Digit(qhat);
    }
    if (q) {
        trim(quot);
        *q = std::move(quot);
    }
    if (r) {
        trim(u);
        *r = mag_shift_right(u, size_t(s));
    }
}

}  // namespace

void mag_divide(const Digits &a, const Digits &b, Digits *q, Digits *r) {
    if (mag_compare(a, b) < 0) {
        if (r) *r = a;
        if (q) q->clear();
        return;
    }
    if (b.size() == 1) {
        if (q) {
            Digits t = a;
            Digit rem = mag_divide_by_digit(t, b[0]);
            *q = std::move(t);
            if (r) *r = rem ? Digits{rem} : Digits{};
        } else if (r) {
            Digit rem = mag_remainder_by_digit(a, b[0]);
            *r = rem ? Digits{rem} : Digits{};
        }
        return;
    }
    divide(a, b, q, r);
}

}  // namespace vorp::bn
