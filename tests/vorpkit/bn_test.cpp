// Big numbers against GMP: every arithmetic and conversion routine on
// generated operands of many sizes (both signs, digits chosen to provoke
// carries and quotient-digit corrections), each result checked for the
// record invariants and placed three ways (fresh, reused slot, too-small
// slot). Beside the oracle: the error codes, the random digit order and
// top-digit rule, the Miller-Rabin rounds and base redraws, the prime
// search, and an allocation-failure sweep.
#include <gmpxx.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "alloc_failure.h"
#include "cpu_features.h"
#include "test_support.h"
#include "vorpkit.h"

namespace {

// ---- records <-> GMP ----

struct Bn {
    bignum_t p = nullptr;
    Bn() = default;
    explicit Bn(bignum_t q) : p(q) {}
    Bn(const Bn &) = delete;
    Bn &operator=(const Bn &) = delete;
    ~Bn() { bn_free(p); }
};

mpz_class value(bignum_tc b) {
    mpz_class v;
    mpz_import(v.get_mpz_t(), b[2], -1, sizeof(qv_uint32_t), 0, 0, b + 3);
    return b[1] ? mpz_class(-v) : v;
}

// Builds the record directly (not through the routines under test), with
// `spare` digits of capacity above the length.
bignum_t make(const mpz_class &v, size_t spare = 0) {
    size_t n = (mpz_sizeinbase(v.get_mpz_t(), 2) + 31) / 32;
    if (v == 0) n = 0;
    bignum_t b = bn_new(nullptr, qv_int32_t(n + spare));
    size_t count = 0;
    mpz_export(b + 3, &count, -1, sizeof(qv_uint32_t), 0, 0, v.get_mpz_t());
    b[2] = qv_uint32_t(count);
    b[1] = v < 0 ? 1 : 0;
    return b;
}

::testing::AssertionResult well_formed(bignum_tc b) {
    if (!b) return ::testing::AssertionFailure() << "null result, Vorp_errno " << Vorp_errno;
    if (b[2] > b[0]) return ::testing::AssertionFailure() << "length above capacity";
    if (b[2] && b[3 + b[2] - 1] == 0) return ::testing::AssertionFailure() << "top digit zero";
    if (!b[2] && b[1]) return ::testing::AssertionFailure() << "negative zero";
    if (b[1] > 1) return ::testing::AssertionFailure() << "sign word " << b[1];
    return ::testing::AssertionSuccess();
}

// Runs op with its result slot null, holding a roomy number (which must be
// reused) and holding a capacity-0 number (which must be replaced); the
// three results must agree. Returns the value, or nothing when op failed.
std::optional<mpz_class> placed(const std::function<bignum_t(bignum_t *)> &op) {
    Bn fresh(op(nullptr));
    Bn roomy(make(mpz_class(-7), 300)), tiny(bn_new(nullptr, 0));
    bignum_t roomy_before = roomy.p;
    bignum_t r2 = op(&roomy.p), r3 = op(&tiny.p);
    if (!fresh.p) {
        EXPECT_EQ(r2, nullptr);
        EXPECT_EQ(r3, nullptr);
        EXPECT_EQ(roomy.p, roomy_before) << "a failing routine replaced its slot";
        return std::nullopt;
    }
    EXPECT_TRUE(well_formed(fresh.p));
    mpz_class v = value(fresh.p);
    if ((mpz_sizeinbase(v.get_mpz_t(), 2) + 31) / 32 <= 300) {
        EXPECT_EQ(r2, roomy_before) << "a roomy slot was not reused";
    }
    EXPECT_EQ(r2, roomy.p);
    EXPECT_EQ(r3, tiny.p);
    EXPECT_TRUE(well_formed(roomy.p));
    EXPECT_TRUE(well_formed(tiny.p));
    EXPECT_EQ(value(roomy.p), v);
    EXPECT_EQ(value(tiny.p), v);
    return v;
}

// ---- operands ----

const int kSizes[] = {0, 1, 2, 31, 32, 33, 63, 64, 65, 96, 127, 128, 129, 255, 512, 1023, 1024, 2048, 4096};

// A number of exactly `bits` bits (top bit set), random sign; half the time
// its digits come from values that stress carries, borrows and the quotient
// estimate (0, 1, 0x7fffffff, 0x80000000, 0xffffffff).
mpz_class generate(std::mt19937_64 &rng, int bits, bool may_be_negative = true) {
    if (bits == 0) return 0;
    static const qv_uint32_t kEdges[] = {0, 1, 0x7fffffff, 0x80000000, 0xffffffff};
    const bool edgy = rng() & 1;
    std::vector<qv_uint32_t> d(size_t(bits + 31) / 32);
    for (auto &x : d) x = edgy && rng() % 3 ? kEdges[rng() % 5] : qv_uint32_t(rng());
    mpz_class v;
    mpz_import(v.get_mpz_t(), d.size(), -1, 4, 0, 0, d.data());
    mpz_fdiv_r_2exp(v.get_mpz_t(), v.get_mpz_t(), bits);
    mpz_setbit(v.get_mpz_t(), bits - 1);
    return may_be_negative && (rng() & 1) ? mpz_class(-v) : v;
}

mpz_class abs_of(const mpz_class &v) { return abs(v); }

// ---- the differential table ----

struct BinaryCase {
    const char *name;
    // Computes with the library and checks against GMP; a and b are records
    // of the values va and vb.
    std::function<void(bignum_tc a, bignum_tc b, const mpz_class &va, const mpz_class &vb, std::mt19937_64 &)> check;
};

void expect_error(const std::optional<mpz_class> &got, qv_int32_t code) {
    EXPECT_FALSE(got.has_value());
    if (!got) {
        EXPECT_EQ(Vorp_errno, code);
    }
}

const BinaryCase kBinaryCases[] = {
    {"add", [](auto a, auto b, auto &va, auto &vb, auto &) {
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_add(a, b, c); }), mpz_class(va + vb));
     }},
    {"subtract", [](auto a, auto b, auto &va, auto &vb, auto &) {
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_subtract(a, b, c); }), mpz_class(va - vb));
     }},
    {"multiply", [](auto a, auto b, auto &va, auto &vb, auto &) {
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_multiply(a, b, c); }), mpz_class(va * vb));
     }},
    {"square", [](auto a, auto, auto &va, auto &, auto &) {
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_multiply(a, a, c); }), mpz_class(va * va));
     }},
    {"compare", [](auto a, auto b, auto &va, auto &vb, auto &) {
         int got = bn_compare(a, b), want = cmp(va, vb);
         EXPECT_EQ(got < 0, want < 0);
         EXPECT_EQ(got > 0, want > 0);
     }},
    {"divide", [](auto a, auto b, auto &va, auto &vb, auto &) {
         // A null q or r means "not wanted", so the fresh case passes an
         // empty slot instead.
         auto q = placed([&](bignum_t *c) {
             bignum_t none = nullptr;
             return bn_divide(a, b, c ? c : &none, nullptr);
         });
         auto r = placed([&](bignum_t *c) {
             bignum_t none = nullptr;
             return bn_divide(a, b, nullptr, c ? c : &none);
         });
         if (vb == 0) {
             expect_error(q, VORP_E_DIVIDE);
             expect_error(r, VORP_E_DIVIDE);
             return;
         }
         mpz_class wq, wr;
         mpz_tdiv_qr(wq.get_mpz_t(), wr.get_mpz_t(), va.get_mpz_t(), vb.get_mpz_t());
         EXPECT_EQ(q, wq);
         EXPECT_EQ(r, wr);
         // Both at once, the remainder taking the dividend's place.
         bignum_t dividend = bn_clone(a), quotient = nullptr;
         bignum_t ret = bn_divide(dividend, b, &quotient, &dividend);
         EXPECT_EQ(ret, quotient);
         ASSERT_TRUE(well_formed(quotient));
         ASSERT_TRUE(well_formed(dividend));
         EXPECT_EQ(value(quotient), wq);
         EXPECT_EQ(value(dividend), wr);
         bn_free(dividend);
         bn_free(quotient);
     }},
    {"gcd", [](auto a, auto b, auto &va, auto &vb, auto &) {
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_gcd(a, b, c); }), mpz_class(gcd(va, vb)));
     }},
    {"extendedEuclid", [](auto a, auto b, auto &va, auto &vb, auto &) {
         bignum_t x = nullptr, y = nullptr, g = nullptr;
         ASSERT_NE(bn_extendedEuclid(a, b, &x, &y, &g), nullptr);
         ASSERT_TRUE(well_formed(x) && well_formed(y) && well_formed(g));
         mpz_class vx = value(x), vy = value(y), vg = value(g);
         EXPECT_EQ(vg, gcd(va, vb));
         EXPECT_EQ(va * vx + vb * vy, vg);
         if (vg != 0) {
             EXPECT_LE(abs_of(vx), std::max(mpz_class(1), mpz_class(abs_of(vb) / vg)));
             EXPECT_LE(abs_of(vy), std::max(mpz_class(1), mpz_class(abs_of(va) / vg)));
         }
         bn_free(x);
         bn_free(y);
         bn_free(g);
     }},
    {"modInverse", [](auto a, auto b, auto &va, auto &vb, auto &) {
         auto got = placed([&](bignum_t *c) { return bn_modInverse(a, b, c); });
         mpz_class m = abs_of(vb), want;
         if (vb == 0) return expect_error(got, VORP_E_DIVIDE);
         if (m == 1) {
             EXPECT_EQ(got, mpz_class(0));
         } else if (!mpz_invert(want.get_mpz_t(), va.get_mpz_t(), m.get_mpz_t())) {
             expect_error(got, VORP_E_NO_INVERSE);
         } else {
             EXPECT_EQ(got, want);
         }
     }},
    {"power mod", [](auto a, auto b, auto &va, auto &vb, auto &rng) {
         vorp::force_portable(rng() & 1);  // half the cases on the portable products
         const int ebits = kSizes[rng() % 12];
         mpz_class e = abs_of(generate(rng, ebits));
         Bn exp(make(e));
         auto got = placed([&](bignum_t *c) { return bn_power(a, exp.p, b, c); });
         if (vb == 0) return expect_error(got, VORP_E_DIVIDE);
         mpz_class m = abs_of(vb), want, base = abs_of(va);
         mpz_powm(want.get_mpz_t(), base.get_mpz_t(), e.get_mpz_t(), m.get_mpz_t());
         if (va < 0 && mpz_odd_p(e.get_mpz_t())) want = -want;  // the truncating remainder
         EXPECT_EQ(got, want) << "exponent " << e.get_str(16);
     }},
    {"power", [](auto a, auto, auto &va, auto &, auto &rng) {
         const unsigned long e = rng() % 6;
         Bn exp(make(e));
         mpz_class want;
         mpz_pow_ui(want.get_mpz_t(), va.get_mpz_t(), e);
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_power(a, exp.p, nullptr, c); }), want);
     }},
    {"shifts", [](auto a, auto, auto &va, auto &, auto &rng) {
         const qv_int32_t n = qv_int32_t(rng() % 200);
         mpz_class left, right;
         mpz_mul_2exp(left.get_mpz_t(), va.get_mpz_t(), n);
         mpz_tdiv_q_2exp(right.get_mpz_t(), va.get_mpz_t(), n);
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_shiftLeft(a, n, c); }), left);
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_shiftRight(a, n, c); }), right);
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_shiftLeft(a, -n, c); }), right);
     }},
    {"bits", [](auto a, auto, auto &va, auto &, auto &rng) {
         mpz_class m = abs_of(va);
         EXPECT_EQ(bn_bitLength(a), va == 0 ? 0 : qv_int32_t(mpz_sizeinbase(m.get_mpz_t(), 2)));
         EXPECT_EQ(bn_lowestSetBit(a), va == 0 ? -1 : qv_int32_t(mpz_scan1(m.get_mpz_t(), 0)));
         const qv_int32_t bit = qv_int32_t(rng() % 4200);
         EXPECT_EQ(bn_checkBit(a, bit), mpz_tstbit(m.get_mpz_t(), bit));
         for (int set = 0; set < 2; ++set) {
             bignum_t c = bn_clone(a);
             ASSERT_TRUE(well_formed(bn_setBit(&c, bit, set)));
             mpz_class want = m;
             if (set) mpz_setbit(want.get_mpz_t(), bit);
             else mpz_clrbit(want.get_mpz_t(), bit);
             EXPECT_EQ(value(c), va < 0 && want != 0 ? mpz_class(-want) : want);
             bn_free(c);
         }
     }},
    {"toLong", [](auto a, auto, auto &va, auto &, auto &) {
         mpz_class low;
         mpz_class m = abs_of(va);
         mpz_fdiv_r_2exp(low.get_mpz_t(), m.get_mpz_t(), 64);
         uint64_t want = 0;
         mpz_export(&want, nullptr, -1, 8, 0, 0, low.get_mpz_t());
         if (va < 0) want = 0 - want;
         EXPECT_EQ(uint64_t(bn_toLong(a)), want);
     }},
    {"text", [](auto a, auto, auto &va, auto &, auto &rng) {
         const int radix = 2 + int(rng() % 15);
         char *end = nullptr;
         char *s = bn_toString(a, radix, &end);
         ASSERT_NE(s, nullptr);
         EXPECT_EQ(std::string(s), va.get_str(radix));
         EXPECT_EQ(end, s + std::strlen(s));
         std::string upper = s;
         for (auto &ch : upper) ch = char(std::toupper(ch));
         upper += "0123456789ABCDEFG"[radix];  // the first non-digit of the radix ends the number
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_fromString(upper.c_str(), radix, c); }), va);
         std::free(s);
     }},
    {"data", [](auto a, auto, auto &va, auto &, auto &rng) {
         const qv_int32_t min_len = qv_int32_t(rng() % 8);
         // Two's complement, checked against 2^(8n) + va.
         const qv_int32_t n = bn_toData(a, nullptr, min_len, 1);
         std::vector<unsigned char> buf(size_t(n) + 1, 0xa5);
         ASSERT_EQ(bn_toData(a, buf.data(), min_len, 1), n);
         EXPECT_EQ(buf[size_t(n)], 0xa5) << "wrote past the announced length";
         mpz_class want = va, got;
         if (va < 0) want += mpz_class(1) << (8 * n);
         mpz_import(got.get_mpz_t(), size_t(n), 1, 1, 0, 0, buf.data());
         EXPECT_EQ(got, want);
         EXPECT_GE(n, min_len);
         EXPECT_TRUE(n == 1 || n == min_len || (buf[0] != 0x00 && buf[0] != 0xff) ||
                     ((buf[0] ^ buf[1]) & 0x80))
             << "two's complement longer than needed";
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_fromData(0, buf.data(), n, c); }), va);
         // Magnitude, read back with either sign.
         const qv_int32_t m = bn_toData(a, nullptr, 0, 0);
         std::vector<unsigned char> mag(size_t(m) + 1);
         ASSERT_EQ(bn_toData(a, mag.data(), 0, 0), m);
         EXPECT_EQ(m, qv_int32_t((mpz_sizeinbase(mpz_class(abs_of(va)).get_mpz_t(), 2) + 7) / 8) * (va != 0));
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_fromData(1, mag.data(), m, c); }), abs_of(va));
         EXPECT_EQ(placed([&](bignum_t *c) { return bn_fromData(-1, mag.data(), m, c); }), mpz_class(-abs_of(va)));
     }},
};

TEST(BigNumber, AgreesWithGmpOnGeneratedOperands) {
    std::mt19937_64 rng(20261124);
    for (const auto &row : kBinaryCases) {
        SCOPED_TRACE(row.name);
        for (int sa : kSizes)
            for (int sb : kSizes) {
                const int reps = sa + sb > 4096 ? 1 : 3;
                for (int rep = 0; rep < reps; ++rep) {
                    mpz_class va = generate(rng, sa), vb = generate(rng, sb);
                    Bn a(make(va, rng() % 3)), b(make(vb, rng() % 3));
                    SCOPED_TRACE("a=" + va.get_str(16) + " b=" + vb.get_str(16));
                    row.check(a.p, b.p, va, vb, rng);
                    if (::testing::Test::HasFailure()) return;
                }
            }
    }
    vorp::force_portable(false);
}

// ---- documented answers and errors ----

struct Scripted {
    static inline std::vector<unsigned char> bytes;
    static inline size_t next = 0;
    static void load(const std::string &hex) {
        bytes = qvtest::from_hex(hex);
        next = 0;
    }
    static int source() { return next < bytes.size() ? bytes[next++] : 0x100 | 0x5a; }
};

int mt_source() {
    static std::mt19937 rng(7);
    return int(rng());  // only the low 8 bits may count
}

mpz_class hex(const char *s) { return mpz_class(s, 16); }

TEST(BigNumber, RandomDigitOrderAndTopDigitRule) {
    struct {
        const char *limit, *bytes, *want;
    } rows[] = {
        {"7", "00000005", "5"},
        {"7", "0000000c", "5"},                            // 12 mod 7
        {"-10", "00000003", "-3"},                         // the limit's sign
        {"10000000000000000", "0102030405060708ffffffff", "506070801020304"},  // least significant first
        {"100000005", "0000000300000001", "100000003"},    // low below: top may equal the limit's
        {"100000005", "0000000700000001", "7"},            // low not below: top below the limit's
        {"100000005", "0000000500000001", "5"},            // equal low digits are not below
        {"ffffffff00000000", "00000000ffffffff", "0"},     // never reaches the limit
        {"1ffffffff", "fffffffeffffffff", "1fffffffe"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.limit);
        Scripted::load(row.bytes);
        Bn limit(make(hex(row.limit)));
        auto got = placed([&](bignum_t *c) {
            Scripted::next = 0;
            return bn_random(limit.p, Scripted::source, c);
        });
        EXPECT_EQ(got, hex(row.want));
        EXPECT_EQ(Scripted::next, Scripted::bytes.size());
    }
}

TEST(BigNumber, ErrorsAndDocumentedEdges) {
    Bn zero(make(0)), one(make(1)), two(make(2)), nine(make(9)), minus(make(-3)), big(make(hex("123456789abcdef0123"))),
        six(make(6)), four(make(4)), empty_limit(bn_new(nullptr, 2));
    struct {
        const char *what;
        std::function<bool()> call;  // true when the call reported failure
        qv_int32_t code;
    } rows[] = {
        {"divide by zero", [&] { return !bn_divide(big.p, zero.p, nullptr, &big.p); }, VORP_E_DIVIDE},
        {"divide, no output", [&] { return !bn_divide(big.p, two.p, nullptr, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"negative exponent", [&] { return !bn_power(two.p, minus.p, nullptr, nullptr); }, VORP_E_NEG_EXPONENT},
        {"power too large", [&] { return !bn_power(big.p, big.p, nullptr, nullptr); }, VORP_E_TOO_LARGE},
        {"power modulo zero", [&] { return !bn_power(two.p, two.p, zero.p, nullptr); }, VORP_E_DIVIDE},
        {"negative exponent before modulus zero", [&] { return !bn_power(two.p, minus.p, zero.p, nullptr); }, VORP_E_NEG_EXPONENT},
        {"random below zero", [&] { return !bn_random(zero.p, mt_source, nullptr); }, VORP_E_EMPTY_RANGE},
        {"random without source", [&] { return !bn_random(two.p, nullptr, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"data length negative", [&] { return !bn_fromData(0, (const unsigned char *)"", -1, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"no inverse", [&] { return !bn_modInverse(six.p, four.p, nullptr); }, VORP_E_NO_INVERSE},
        {"find, start >= limit", [&] { return !bn_findPrime(nine.p, six.p, 0, 0, mt_source, nullptr); }, VORP_E_EMPTY_RANGE},
        {"find, limit 1", [&] { return !bn_findPrime(zero.p, one.p, 0, 0, mt_source, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"find, limit negative", [&] { return !bn_findPrime(minus.p, minus.p, 0, 0, mt_source, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"find, limit zero-length", [&] { return !bn_findPrime(minus.p, empty_limit.p, 0, 0, mt_source, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"pseudo-prime base 1", [&] { return bn_isPseudoPrime(nine.p, 1) == 0; }, VORP_E_BAD_ARGUMENT},
        {"pseudo-prime candidate <= base", [&] { return bn_isPseudoPrime(two.p, 2) == 0; }, VORP_E_BAD_ARGUMENT},
        {"probable prime without source", [&] { return bn_isProbablePrime(nine.p, 10, nullptr) == 0; }, VORP_E_BAD_ARGUMENT},
        {"string radix 17", [&] { return !bn_fromString("1", 17, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"string without digits", [&] { return !bn_fromString("-z", 10, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"null operand", [&] { return !bn_add(nullptr, one.p, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"new, negative size", [&] { return !bn_new(nullptr, -1); }, VORP_E_BAD_ARGUMENT},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Vorp_errno = 0;
        EXPECT_TRUE(row.call());
        EXPECT_EQ(Vorp_errno, row.code);
    }
    EXPECT_EQ(bn_karatsubaSquaring(two.p, two.p, nullptr), nullptr);
    EXPECT_EQ(placed([](bignum_t *c) { return bn_new(c, 3); }), mpz_class(0));
    // ff is -1 in two's complement.
    Bn m1(bn_fromData(0, (const unsigned char *)"\xff", 1, nullptr));
    EXPECT_EQ(value(m1.p), -1);
    // A capacity of one digit keeps the low digit of 2^32 + 5.
    Bn small(bn_new(nullptr, 1));
    bn_fromLong(small.p, (qv_int64_t(1) << 32) + 5, 0);
    EXPECT_TRUE(well_formed(small.p));
    EXPECT_EQ(value(small.p), 5);
    struct {
        qv_int64_t v;
        qv_int32_t signum;
        const char *want;
    } longs[] = {{-5, 0, "-5"}, {-5, 1, "fffffffffffffffb"}, {5, -1, "-5"}, {0, -1, "0"}, {INT64_MIN, 0, "-8000000000000000"}};
    for (const auto &row : longs) {
        Bn b(bn_new(nullptr, 2));
        EXPECT_EQ(bn_fromLong(b.p, row.v, row.signum), b.p);
        EXPECT_TRUE(well_formed(b.p));
        EXPECT_EQ(value(b.p), hex(row.want)) << row.v << " " << row.signum;
    }
    // Zero never carries a sign (sums, products and shifts that give zero are
    // in the generated cases).
    Bn n(bn_changeSign(1, zero.p, nullptr)), t(bn_fromString("-0", 10, nullptr));
    for (bignum_tc z : {n.p, t.p}) {
        EXPECT_TRUE(well_formed(z));
        EXPECT_EQ(z[2], 0u);
    }
}

// ---- primality ----

TEST(BigNumber, ProbablePrimeAgainstGmpAndKnownPseudoprimes) {
    std::mt19937_64 rng(99);
    // Composites that fool weaker tests: Carmichael numbers, a strong
    // pseudoprime to bases 2, 3, 5 and 7, squares of primes.
    const char *composites[] = {"561", "41041", "bfa2a4c7", "9", "19", "2b5b", "c0cfd797", "1c6fa6cfdf3feb2b"};
    for (const char *c : composites) {
        Bn n(make(hex(c)));
        EXPECT_EQ(bn_isProbablePrime(n.p, 40, mt_source), mpz_probab_prime_p(hex(c).get_mpz_t(), 30) ? 1 : 0) << c;
    }
    for (int bits : {2, 3, 8, 31, 32, 33, 64, 65, 128, 256, 512}) {
        for (int i = 0; i < 60; ++i) {
            mpz_class v = generate(rng, bits, false);
            if (i % 2) mpz_nextprime(v.get_mpz_t(), v.get_mpz_t());
            Bn n(make(v));
            EXPECT_EQ(bn_isProbablePrime(n.p, 40, mt_source), mpz_probab_prime_p(v.get_mpz_t(), 30) ? 1 : 0)
                << v.get_str(16);
        }
    }
    // 2 and 3 without a draw; small non-primes and negatives without one.
    for (int v : {2, 3, 0, 1, 4, -7}) {
        Scripted::load("");
        Bn n(make(v));
        EXPECT_EQ(bn_isProbablePrime(n.p, 40, Scripted::source), v == 2 || v == 3) << v;
        EXPECT_EQ(Scripted::next, 0u) << v;
    }
    // Rounds: one 4-digit base per round for 2^127 - 1.
    Bn m127(make((mpz_class(1) << 127) - 1));
    for (auto [prob, rounds] : {std::pair{-3, 1}, {0, 1}, {1, 1}, {2, 1}, {3, 2}, {4, 2}, {41, 21}}) {
        Scripted::load(std::string(size_t(rounds) * 32, '7'));
        EXPECT_EQ(bn_isProbablePrime(m127.p, prob, Scripted::source), 1);
        EXPECT_EQ(Scripted::next, size_t(rounds) * 16) << "prob " << prob;
    }
    // Bases 0 and 1 are drawn again: for 5 the third draw (2) decides.
    Bn five(make(5));
    Scripted::load("000000000000000100000002");
    EXPECT_EQ(bn_isProbablePrime(five.p, 0, Scripted::source), 1);
    EXPECT_EQ(Scripted::next, 12u);
    // Fermat: 341 = 11 * 31 passes in base 2, fails in base 3.
    Bn n341(make(341));
    EXPECT_EQ(bn_isPseudoPrime(n341.p, 2), 1);
    EXPECT_EQ(bn_isPseudoPrime(n341.p, 3), 0);
}

TEST(BigNumber, FindPrime) {
    struct {
        const char *start, *limit;
        qv_int32_t prob, strong;
        const char *want;
    } rows[] = {
        {"0", "100", 0, 0, "3"},           // from the table: odd primes only
        {"-50", "100", 0, 0, "3"},         // a signed comparison, not the magnitude
        {"1f40", "10000", 0, 0, "1f49"},   // 8000 -> 8009
        {"1feb", "10000", 0, 0, "1feb"},   // 8171 is the table's last
        {"1f40", "1f45", 0, 0, "0"},       // limit reached
        {"8", "100", 0, 1, "b"},           // 11 = 2 * 5 + 1
        {"1fec", "10000", 0, 0, "1ff3"},   // 8172 -> 8179, past the table
        {"1fec", "1ff3", 0, 0, "0"},
        {"1fec", "10000", 3, 0, "1ff3"},   // Fermat base 3
        {"1fe0", "100000", 0, 1, "20e7"},  // 8423 = 2 * 4211 + 1: none left in the table
        // Several digits: the sieve's remainders of a long start.
        {"10000000000000000", "20000000000000000", 0, 0, "1000000000000000d"},
        {"10000000000000000", "20000000000000000", 0, 1, "10000000000000c1f"},
        {"1000000000000000000003039", "2000000000000000000000000", 0, 0, "1000000000000000000003093"},
        {"1000000000000000000003039", "2000000000000000000000000", 0, 1, "1000000000000000000005287"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.start);
        Bn s(make(hex(row.start))), l(make(hex(row.limit)));
        auto got = placed([&](bignum_t *c) { return bn_findPrime(s.p, l.p, row.prob, row.strong, mt_source, c); });
        ASSERT_TRUE(got.has_value());
        EXPECT_EQ(*got, hex(row.want));
    }
}

// Every allocation failing in turn: either the no-memory code or the right
// answer, nothing leaked, the slot untouched on failure.
TEST(BigNumber, AllocationFailureSweep) {
    Bn base(make(hex("123456789abcdef0123456789abcdef"))), exp(make(hex("fedcba9876543210fedcba987654321"))),
        mod(make(hex("f123456789abcdef0123456789abcdef1"))), slot(make(1));
    mpz_class want;
    {
        mpz_class b = value(base.p), e = value(exp.p), m = value(mod.p);
        mpz_powm(want.get_mpz_t(), b.get_mpz_t(), e.get_mpz_t(), m.get_mpz_t());
    }
    char *text = nullptr;
    qvtest::alloc_failure_sweep(
        [&]() -> int {
            Vorp_errno = 0;
            if (!bn_power(base.p, exp.p, mod.p, &slot.p)) return Vorp_errno;
            text = bn_toString(slot.p, 7, nullptr);
            return text ? 0 : Vorp_errno;
        },
        [&](int rc, bool failed) {
            if (rc == 0) {
                EXPECT_EQ(value(slot.p), want);
                EXPECT_EQ(std::string(text), want.get_str(7));
            } else {
                EXPECT_TRUE(failed);
                EXPECT_EQ(rc, VORP_E_NO_MEMORY);
            }
            std::free(text);
            text = nullptr;
            bn_free(slot.p);
            slot.p = make(1);
        });
    // A freed number is wiped first: it may have held a secret.
    if (qvtest::failing_allocator_active()) {
        bignum_t secret = make(want);
        qvtest::watch_free(secret, 32);
        bn_free(secret);
        EXPECT_EQ(qvtest::freed_bytes(), std::string(32, '\0'));
    }
}

}  // namespace
