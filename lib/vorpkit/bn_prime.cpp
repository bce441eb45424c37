// Random numbers below a limit, primality tests and the prime search.
#include <array>

#include "bn_internal.h"

namespace vorp::bn {
namespace {

// The first 1025 odd primes, 3 to 8171, for the small-start answers and
// the sieve.
constexpr size_t kSmallPrimes = 1025;
constexpr uint32_t kTableLimit = 8172;
constexpr std::array<uint16_t, kSmallPrimes> make_small_primes() {
    std::array<bool, kTableLimit> composite{};
    std::array<uint16_t, kSmallPrimes> t{};
    size_t n = 0;
    for (uint32_t c = 3; c < kTableLimit; c += 2) {
        if (composite[c]) continue;
        t[n++] = uint16_t(c);
        for (uint32_t k = c * c; k < kTableLimit; k += 2 * c) composite[k] = true;
    }
    return t;
}
constexpr auto kPrimeTable = make_small_primes();
static_assert(kPrimeTable[kSmallPrimes - 1] == 8171);

Digit draw_digit(int (*rsrc)(void)) {
    Digit d = 0;
    for (int i = 0; i < 4; ++i) d = (d << 8) | Digit(rsrc() & 0xff);
    return d;
}

bool is_small_odd_prime(uint32_t v) {
    for (uint16_t p : kPrimeTable)
        if (p == v) return true;
    return false;
}

}  // namespace

// Digits from the least significant up; `below` says whether the digits so
// far are below the limit's low digits, so that the top digit may reach the
// limit's top digit only then. The flag is kept by arithmetic rather than
// comparisons, as the digits may become a private key.
void random_digits_below(const Digits &limit, int (*rsrc)(void), Digits &out) {
    const size_t n = limit.size();
    out.assign(n, 0);
    Wide below = 0;
    for (size_t i = 0; i + 1 < n; ++i) {
        const Wide d = draw_digit(rsrc), l = limit[i];
        const Wide less = (d - l) >> 63, equal = ((d ^ l) - 1) >> 63;
        below = less | (equal & below);
        out[i] = Digit(d);
    }
    out[n - 1] = Digit(draw_digit(rsrc) % (Wide(limit[n - 1]) + below));
}

void num_random_below(const Num &limit, int (*rsrc)(void), Num &out) {
    random_digits_below(limit.mag, rsrc, out.mag);
    trim(out.mag);
    out.neg = limit.neg;
    out.fix_sign();
}

bool num_is_probable_prime(const Num &num, int32_t prob, int (*rsrc)(void), bool &failed) {
    failed = false;
    if (num.neg || num.is_zero()) return false;
    if (num.mag.size() == 1 && num.mag[0] <= 3) return num.mag[0] >= 2;
    if ((num.mag[0] & 1) == 0) return false;
    if (!rsrc) {
        failed = true;
        return false;
    }
    const Num one = num_from_u64(1);
    const Num minus1 = num_sub(num, one);
    size_t s = 0;
    while (!((minus1.mag[s / 32] >> (s % 32)) & 1)) ++s;
    const Num m{mag_shift_right(minus1.mag, s), false};
    const int32_t rounds = prob < 2 ? 1 : (prob + 1) / 2;
    for (int32_t round = 0; round < rounds; ++round) {
        Num a;
        do num_random_below(minus1, rsrc, a);
        while (mag_compare(a.mag, one.mag) <= 0 || mag_compare(a.mag, minus1.mag) == 0);
        Num x = num_power(a, m, &num);
        if (mag_compare(x.mag, one.mag) == 0 || mag_compare(x.mag, minus1.mag) == 0) continue;
        bool passed = false;
        for (size_t k = 1; k < s && !passed; ++k) {
            x = num_mod(num_mul(x, x), num);
            if (mag_compare(x.mag, minus1.mag) == 0) passed = true;
            else if (mag_compare(x.mag, one.mag) == 0) break;
        }
        if (!passed) return false;
    }
    return true;
}

namespace {

bool fermat(const Num &candidate, uint32_t base) {
    Num x = num_power(num_from_u64(base), num_sub(candidate, num_from_u64(1)), &candidate);
    return x.mag.size() == 1 && x.mag[0] == 1;
}

// The chosen test on a sieved candidate.
bool passes(const Num &c, int32_t prob, int (*rsrc)(void)) {
    if (prob < 1) {
        bool failed;
        return num_is_probable_prime(c, -prob, rsrc, failed);
    }
    return prob > 1 && mag_compare(c.mag, num_from_u64(uint32_t(prob)).mag) > 0 && fermat(c, uint32_t(prob));
}

// The first table prime >= start below limit (for a strong prime, one whose
// (p - 1) / 2 is prime too); 0 when the table holds none.
uint32_t from_table(const Num &start, const Num &limit, bool strong) {
    for (uint16_t p : kPrimeTable) {
        if (num_compare(num_from_u64(p), start) < 0) continue;
        if (num_compare(num_from_u64(p), limit) >= 0) return 0;
        const uint32_t q = (p - 1u) / 2;
        if (!strong || q == 2 || is_small_odd_prime(q)) return p;
    }
    return 0;
}

// The sieve walk from an odd candidate (for strong primes the candidate is
// q and the prime sought p = 2q + 1). Remainders by the small primes are
// kept and stepped, so each step costs 1025 small additions.
Num search(Num cand, const Num &limit, bool strong, int32_t prob, int (*rsrc)(void)) {
    std::array<uint32_t, kSmallPrimes> rem;
    for (size_t i = 0; i < kSmallPrimes; ++i) rem[i] = mag_remainder_by_digit(cand.mag, kPrimeTable[i]);
    const Num two = num_from_u64(2);
    for (;;) {
        Num p = strong ? num_add(num_mul(cand, two), num_from_u64(1)) : cand;
        if (num_compare(p, limit) >= 0) return Num{};
        bool sieved = false;
        for (size_t i = 0; i < kSmallPrimes && !sieved; ++i) {
            const uint32_t sp = kPrimeTable[i];
            // A candidate equal to a table prime is itself prime, not sieved.
            if (rem[i] == 0 && !(cand.mag.size() == 1 && cand.mag[0] == sp)) sieved = true;
            if (strong && (2 * rem[i] + 1) % sp == 0 && !(p.mag.size() == 1 && p.mag[0] == sp)) sieved = true;
        }
        if (!sieved && passes(cand, prob, rsrc) && (!strong || passes(p, prob, rsrc))) return p;
        cand = num_add(cand, two);
        for (size_t i = 0; i < kSmallPrimes; ++i) rem[i] = (rem[i] + 2) % kPrimeTable[i];
    }
}

}  // namespace
}  // namespace vorp::bn

using namespace vorp::bn;

extern "C" bignum_t bn_random(bignum_tc limit, Vorp_rsrc_t rsrc, bignum_t *c) {
    return guarded<bignum_t>(nullptr, [&]() -> bignum_t {
        Num l = read(limit);
        if (l.is_zero()) return fail(VORP_E_EMPTY_RANGE);
        if (!rsrc) return fail(VORP_E_BAD_ARGUMENT);
        Num r;
        num_random_below(l, rsrc, r);
        return place(r, c);
    });
}

extern "C" qv_int32_t bn_isPseudoPrime(bignum_tc candidate, qv_int32_t primeBase) {
    return guarded<qv_int32_t>(0, [&]() -> qv_int32_t {
        Num c = read(candidate);
        if (primeBase <= 1 || num_compare(c, num_from_u64(uint32_t(primeBase))) <= 0) {
            Vorp_errno = VORP_E_BAD_ARGUMENT;
            return 0;
        }
        return fermat(c, uint32_t(primeBase)) ? 1 : 0;
    });
}

extern "C" qv_int32_t bn_isProbablePrime(bignum_tc num, qv_int32_t prob, Vorp_rsrc_t rsrc) {
    return guarded<qv_int32_t>(0, [&]() -> qv_int32_t {
        bool failed;
        bool prime = num_is_probable_prime(read(num), prob, rsrc, failed);
        if (failed) Vorp_errno = VORP_E_BAD_ARGUMENT;
        return prime ? 1 : 0;
    });
}

qv_int32_t vorp::bn::num_find_prime(const Num &start, const Num &limit, int32_t prob, bool strong,
                                   int (*rsrc)(void), Num &out) {
    if (limit.neg || limit.is_zero() || (limit.mag.size() == 1 && limit.mag[0] == 1)) return VORP_E_BAD_ARGUMENT;
    if (num_compare(start, limit) >= 0) return VORP_E_EMPTY_RANGE;
    if (prob < 1 && !rsrc) return VORP_E_BAD_ARGUMENT;
    Num s = start;
    out = Num{};
    if (num_compare(s, num_from_u64(kTableLimit)) < 0) {
        if (uint32_t p = from_table(s, limit, strong)) {
            out = num_from_u64(p);
            return 0;
        }
        if (!strong || num_compare(num_from_u64(kTableLimit), limit) >= 0) return 0;
        s = num_from_u64(kTableLimit);
    }
    if (strong) s.mag = mag_shift_right(s.mag, 1);
    if (s.is_zero() || !(s.mag[0] & 1)) s = num_add(s, num_from_u64(1));
    out = search(std::move(s), limit, strong, prob, rsrc);
    return 0;
}

extern "C" bignum_t bn_findPrime(bignum_tc start, bignum_tc limit, qv_int32_t prob, qv_int32_t strongPrime,
                                 Vorp_rsrc_t rsrc, bignum_t *prime) {
    return guarded<bignum_t>(nullptr, [&]() -> bignum_t {
        Num p;
        if (qv_int32_t rc = num_find_prime(read(start), read(limit), prob, strongPrime != 0, rsrc, p)) return fail(rc);
        return place(p, prime);
    });
}
