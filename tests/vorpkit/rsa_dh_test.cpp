// RSA and Diffie-Hellman against OpenSSL's raw RSA and GMP: keys made here
// work in OpenSSL, byte for byte; the
// records' layout and sizes; the error codes; Diffie-Hellman agreement and
// the published primes; and, under valgrind, that no branch or address of
// the private operations depends on a secret.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/rsa.h>
#include <valgrind/memcheck.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "alloc_failure.h"
#include "cpu_features.h"
#include "vorpkit.h"

namespace {

using Bytes = std::vector<unsigned char>;

int mt_source() {
    static std::mt19937 rng(2026);
    return int(rng());
}

mpz_class num(const unsigned char *p, size_t len) {
    mpz_class v;
    mpz_import(v.get_mpz_t(), len, 1, 1, 0, 0, p);
    return v;
}

// v in exactly len big-endian bytes (v < 2^(8 len)).
Bytes bytes(const mpz_class &v, size_t len) {
    Bytes out(len);
    size_t n = (mpz_sizeinbase(v.get_mpz_t(), 2) + 7) / 8;
    if (v == 0) n = 0;
    mpz_export(out.data() + len - n, nullptr, 1, 1, 0, 0, v.get_mpz_t());
    return out;
}

mpz_class inverse(const mpz_class &a, const mpz_class &m) {
    mpz_class r;
    mpz_invert(r.get_mpz_t(), a.get_mpz_t(), m.get_mpz_t());
    return r;
}

mpz_class powm(const mpz_class &b, const mpz_class &e, const mpz_class &m) {
    mpz_class r;
    mpz_powm(r.get_mpz_t(), b.get_mpz_t(), e.get_mpz_t(), m.get_mpz_t());
    return r;
}

BIGNUM *bn(const mpz_class &v) {
    BIGNUM *b = nullptr;
    BN_hex2bn(&b, v.get_str(16).c_str());
    return b;
}

// An RSA key as numbers, with the records made from them (a record's
// numbers are checked against these).
struct Key {
    size_t bits;
    mpz_class p, q, n, e, d;
    Bytes crt() const {
        const size_t h = (bits + 15) / 16;
        Bytes r{0x10, uint8_t(bits >> 8), uint8_t(bits)};
        for (const mpz_class &v : {p, q, mpz_class(d % (p - 1)), mpz_class(d % (q - 1)), inverse(q, p)}) {
            Bytes b = bytes(v, h);
            r.insert(r.end(), b.begin(), b.end());
        }
        return r;
    }
    Bytes plain() const {
        const size_t k = (bits + 7) / 8;
        Bytes r{0x11, uint8_t(bits >> 8), uint8_t(bits)}, nb = bytes(n, k), db = bytes(d, k);
        r.insert(r.end(), nb.begin(), nb.end());
        r.insert(r.end(), db.begin(), db.end());
        return r;
    }
    RSA *openssl() const {
        RSA *r = RSA_new();
        RSA_set0_key(r, bn(n), bn(e), bn(d));
        RSA_set0_factors(r, bn(p), bn(q));
        RSA_set0_crt_params(r, bn(d % (p - 1)), bn(d % (q - 1)), bn(inverse(q, p)));
        return r;
    }
};

// The exponent string of e.
Bytes exponent(const mpz_class &e) {
    Bytes b = bytes(e, (mpz_sizeinbase(e.get_mpz_t(), 2) + 7) / 8);
    b.insert(b.begin(), uint8_t(b.size()));
    return b;
}

// Vorp_rsa on a copy of m; the result or an empty vector.
Bytes rsa(const Bytes &key, Bytes m) {
    if (Vorp_rsa(key.data(), m.data()) != qv_int32_t(m.size())) return {};
    return m;
}

// Messages: 0, 1, n - 1 and random ones below n (OpenSSL refuses larger).
std::vector<Bytes> messages(const Key &key, std::mt19937_64 &rng) {
    const size_t k = (key.bits + 7) / 8;
    std::vector<Bytes> out{bytes(0, k), bytes(1, k), bytes(key.n - 1, k)};
    for (int i = 0; i < 3; ++i) {
        Bytes m(k);
        for (auto &b : m) b = uint8_t(rng());
        out.push_back(bytes(num(m.data(), k) % key.n, k));
    }
    return out;
}

// Our private records and the public one agree with OpenSSL's raw private
// and public operations on the same key, and with each other.
void expect_interoperates(const Key &key, const Bytes &crt, const Bytes &plain, std::mt19937_64 &rng) {
    RSA *ossl = key.openssl();
    const Bytes exp = exponent(key.e);
    unsigned char *pub = Vorp_rsaMakePublicKey(crt.data(), exp.data(), nullptr);
    ASSERT_NE(pub, nullptr);
    const size_t k = (key.bits + 7) / 8;
    Bytes pubrec(pub, pub + 4 + k + exp[0]);
    std::free(pub);
    Bytes want_pub{0x12, uint8_t(key.bits >> 8), uint8_t(key.bits)}, nb = bytes(key.n, k);
    want_pub.insert(want_pub.end(), nb.begin(), nb.end());
    want_pub.insert(want_pub.end(), exp.begin(), exp.end());
    EXPECT_EQ(pubrec, want_pub);
    for (const Bytes &m : messages(key, rng)) {
        Bytes sig(k), enc(k);
        ASSERT_EQ(RSA_private_encrypt(int(k), m.data(), sig.data(), ossl, RSA_NO_PADDING), int(k));
        ASSERT_EQ(RSA_public_encrypt(int(k), m.data(), enc.data(), ossl, RSA_NO_PADDING), int(k));
        EXPECT_EQ(rsa(crt, m), sig);
        EXPECT_EQ(rsa(plain, m), sig);
        EXPECT_EQ(rsa(pubrec, m), enc);
        EXPECT_EQ(rsa(pubrec, rsa(crt, m)), m);
    }
    // A block above n is still reduced: the bare power modulo n.
    Bytes high(k, 0xff);
    mpz_class want = powm(num(high.data(), k), key.d, key.n);
    EXPECT_EQ(rsa(crt, high), bytes(want, k));
    EXPECT_EQ(rsa(plain, high), bytes(want, k));
    RSA_free(ossl);
}

TEST(PublicKey, KeysMadeHereWorkInOpenssl) {
    std::mt19937_64 rng(1);
    struct {
        qv_int32_t bits, certainty;
        const unsigned char *exp;
    } rows[] = {{512, 0, Vorp_RSA_PUB_EXP_FERMAT4}, {512, 0, Vorp_RSA_PUB_EXP_3}, {1024, 20, Vorp_RSA_PUB_EXP_FERMAT4},
                {768, 2, Vorp_RSA_PUB_EXP_3},       {2048, 0, Vorp_RSA_PUB_EXP_FERMAT4}, {66, 0, Vorp_RSA_PUB_EXP_3}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.bits);
        const size_t bits = size_t(row.bits), k = (bits + 7) / 8, h = (bits + 15) / 16;
        // Written into caller buffers whose tails must stay untouched.
        Bytes crt(3 + 5 * h + 8, 0xa5), plain(3 + 2 * k + 8, 0xa5);
        ASSERT_EQ(Vorp_rsaKeyGen(row.bits, 0x10 | row.certainty << 8, row.exp, crt.data(), mt_source), crt.data());
        ASSERT_EQ(Vorp_rsaKeyGen(row.bits, 0x11 | row.certainty << 8, row.exp, plain.data(), mt_source), plain.data());
        EXPECT_EQ(Bytes(crt.end() - 8, crt.end()), Bytes(8, 0xa5));
        EXPECT_EQ(Bytes(plain.end() - 8, plain.end()), Bytes(8, 0xa5));
        crt.resize(crt.size() - 8);
        plain.resize(plain.size() - 8);
        EXPECT_EQ(plain[0], 0x11);
        // The CRT record's numbers, checked with GMP: primes of exactly
        // bits / 2 bits with p > q, and the exponents that follow from e.
        Key key{bits, num(&crt[3], h), num(&crt[3 + h], h), 0, num(row.exp + 1, row.exp[0]), 0};
        key.n = key.p * key.q;
        key.d = inverse(key.e, (key.p - 1) * (key.q - 1));
        EXPECT_GT(key.p, key.q);
        for (const mpz_class &pr : {key.p, key.q}) {
            EXPECT_TRUE(mpz_probab_prime_p(pr.get_mpz_t(), 30));
            EXPECT_EQ(mpz_sizeinbase(pr.get_mpz_t(), 2), bits / 2);
        }
        EXPECT_EQ(crt, key.crt());
        // The plain record: n of exactly `bits` bits.
        const mpz_class n = num(&plain[3], k);
        EXPECT_EQ(mpz_sizeinbase(n.get_mpz_t(), 2), bits);
        Bytes mod(k + 1);
        EXPECT_EQ(Vorp_rsaComputeModulus(plain.data(), mod.data()), qv_int32_t(k));
        EXPECT_EQ(num(mod.data(), k), n);
        EXPECT_EQ(Vorp_rsaComputeModulus(crt.data(), mod.data()), qv_int32_t(k));
        EXPECT_EQ(num(mod.data(), k), key.n);
        vorp::force_portable(row.exp == Vorp_RSA_PUB_EXP_3);  // the portable products as well as the processor's
        expect_interoperates(key, crt, key.plain(), rng);
        vorp::force_portable(false);
        // d of the plain record inverts e: a block through its public key
        // and back.
        unsigned char *pub = Vorp_rsaMakePublicKey(plain.data(), row.exp, nullptr);
        const Bytes m = messages(Key{bits, 0, 0, n, 0, 0}, rng).back();
        EXPECT_EQ(rsa(plain, rsa(Bytes(pub, pub + 4 + k + row.exp[0]), m)), m);
        std::free(pub);
    }
}

TEST(PublicKey, Errors) {
    Bytes crt(3 + 5 * 16), good(3 + 5 * 16);
    ASSERT_NE(Vorp_rsaKeyGen(256, 0x10, Vorp_RSA_PUB_EXP_FERMAT4, good.data(), mt_source), nullptr);
    const unsigned char even_exp[] = {1, 4}, one_exp[] = {1, 1};
    Bytes dh = {'2', 0x00, 0x10, 0xff, 0xef, 1, 7}, even_p = {'2', 0x00, 0x10, 0xff, 0xee, 1, 7};
    Bytes bad_format = dh, priv(2), pub(2, 1), shared(2);
    bad_format[0] = '3';
    auto with_byte = [](Bytes b, size_t at, uint8_t v) {
        b[at] = v;
        return b;
    };
    Bytes odd_size = with_byte(good, 2, 1), type13 = with_byte(good, 0, 0x13), even_q = with_byte(good, 3 + 2 * 16 - 1, 0x10);
    struct {
        const char *what;
        std::function<bool()> failed;
        qv_int32_t code;
    } rows[] = {
        {"odd key size", [&] { return !Vorp_rsaKeyGen(513, 0x11, Vorp_RSA_PUB_EXP_3, nullptr, mt_source); }, VORP_E_BAD_ARGUMENT},
        {"key size 14", [&] { return !Vorp_rsaKeyGen(14, 0x11, Vorp_RSA_PUB_EXP_3, nullptr, mt_source); }, VORP_E_BAD_ARGUMENT},
        {"key type 0x12", [&] { return !Vorp_rsaKeyGen(512, 0x12, Vorp_RSA_PUB_EXP_3, nullptr, mt_source); }, VORP_E_BAD_ARGUMENT},
        {"Fermat base 1", [&] { return !Vorp_rsaKeyGen(512, 0x111, Vorp_RSA_PUB_EXP_3, nullptr, mt_source); }, VORP_E_BAD_ARGUMENT},
        {"even exponent", [&] { return !Vorp_rsaKeyGen(512, 0x11, even_exp, nullptr, mt_source); }, VORP_E_BAD_ARGUMENT},
        {"exponent 1", [&] { return !Vorp_rsaKeyGen(512, 0x11, one_exp, nullptr, mt_source); }, VORP_E_BAD_ARGUMENT},
        {"no source", [&] { return !Vorp_rsaKeyGen(512, 0x11, Vorp_RSA_PUB_EXP_3, nullptr, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"rsa type 0x13", [&] { return rsa(type13, Bytes(32)).empty(); }, VORP_E_BAD_KEY},
        {"rsa CRT, odd size", [&] { return rsa(odd_size, Bytes(32)).empty(); }, VORP_E_BAD_KEY},
        {"rsa CRT, even q", [&] { return rsa(even_q, Bytes(32)).empty(); }, VORP_E_BAD_KEY},
        {"modulus of a public key", [&] { return Vorp_rsaComputeModulus(type13.data(), crt.data()) == 0; }, VORP_E_BAD_ARGUMENT},
        {"public key of type 0x13", [&] { return !Vorp_rsaMakePublicKey(type13.data(), Vorp_RSA_PUB_EXP_3, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"fixed prime of 768 bits", [&] { return !Vorp_dhParams(768, nullptr, nullptr); }, VORP_E_BAD_ARGUMENT},
        {"random prime of 8 bits", [&] { return !Vorp_dhParams(8, nullptr, mt_source); }, VORP_E_BAD_ARGUMENT},
        {"dh format '3'", [&] { return Vorp_dhKey(bad_format.data(), priv.data(), pub.data(), mt_source) == 0; }, VORP_E_BAD_ARGUMENT},
        {"dh even prime", [&] { return Vorp_dh(even_p.data(), priv.data(), pub.data(), shared.data()) == 0; }, VORP_E_BAD_ARGUMENT},
        {"dh without private value", [&] { return Vorp_dh(dh.data(), nullptr, pub.data(), shared.data()) == 0; }, VORP_E_BAD_ARGUMENT},
        {"dh without public value", [&] { return Vorp_dh(dh.data(), priv.data(), nullptr, shared.data()) == 0; }, VORP_E_BAD_ARGUMENT},
        {"dh key without source", [&] { return Vorp_dhKey(dh.data(), priv.data(), pub.data(), nullptr) == 0; }, VORP_E_BAD_ARGUMENT},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Vorp_errno = 0;
        EXPECT_TRUE(row.failed());
        EXPECT_EQ(Vorp_errno, row.code);
    }
}

// Parameters of the fixed and random kinds: record layout, safe primes,
// the generator, and agreement between two parties both ways.
TEST(PublicKey, DiffieHellman) {
    struct {
        qv_int32_t bits;
        bool fixed;
    } rows[] = {{512, true}, {1024, true}, {16, false}, {100, false}, {256, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.bits);
        const size_t k = (size_t(row.bits) + 7) / 8;
        Bytes rec(k + 5 + 4, 0xa5);
        ASSERT_EQ(Vorp_dhParams(row.bits, rec.data(), row.fixed ? nullptr : mt_source), rec.data());
        EXPECT_EQ(Bytes(rec.end() - 4, rec.end()), Bytes(4, 0xa5));
        EXPECT_EQ(Bytes(rec.begin(), rec.begin() + 3), (Bytes{'2', uint8_t(row.bits >> 8), uint8_t(row.bits)}));
        const mpz_class p = num(&rec[3], k), q = (p - 1) / 2, g = rec[4 + k];
        EXPECT_EQ(rec[3 + k], 1);
        EXPECT_EQ(mpz_sizeinbase(p.get_mpz_t(), 2), size_t(row.bits));
        EXPECT_TRUE(mpz_probab_prime_p(p.get_mpz_t(), 30) && mpz_probab_prime_p(q.get_mpz_t(), 30));
        EXPECT_EQ(powm(g, q, p), 1) << "g generates the subgroup of order q";
        EXPECT_TRUE(row.fixed ? g == 7 : g >= 7 && g <= 9) << g;
        Bytes a(k), A(k), b(k), B(k), s1(k), s2(k);
        ASSERT_EQ(Vorp_dhKey(rec.data(), a.data(), A.data(), mt_source), qv_int32_t(k));
        ASSERT_EQ(Vorp_dhKey(rec.data(), b.data(), B.data(), mt_source), qv_int32_t(k));
        EXPECT_LT(num(a.data(), k), p);
        EXPECT_EQ(num(A.data(), k), powm(g, num(a.data(), k), p));
        ASSERT_EQ(Vorp_dh(rec.data(), a.data(), B.data(), s1.data()), qv_int32_t(k));
        ASSERT_EQ(Vorp_dh(rec.data(), b.data(), A.data(), s2.data()), qv_int32_t(k));
        EXPECT_EQ(s1, s2);
        EXPECT_EQ(num(s1.data(), k), powm(num(B.data(), k), num(a.data(), k), p));
    }
    // The private value is the number bn_random draws from the same bytes.
    static std::mt19937 twin_a(9), twin_b(9);
    Bytes rec(64 + 5), priv(64), pub(64);
    ASSERT_NE(Vorp_dhParams(512, rec.data(), nullptr), nullptr);
    ASSERT_EQ(Vorp_dhKey(rec.data(), priv.data(), pub.data(), [] { return int(twin_a()); }), 64);
    bignum_t limit = bn_fromData(1, &rec[3], 64, nullptr), drawn = bn_random(limit, [] { return int(twin_b()); }, nullptr);
    Bytes want(64);
    bn_toData(drawn, want.data(), 64, 0);
    EXPECT_EQ(priv, want);
    bn_free(limit);
    bn_free(drawn);
}

// Every allocation failing in turn: the no-memory code and nothing leaked,
// or the right answer.
TEST(PublicKey, AllocationFailureSweep) {
    Bytes key(3 + 2 * 64);
    ASSERT_NE(Vorp_rsaKeyGen(512, 0x11, Vorp_RSA_PUB_EXP_FERMAT4, key.data(), mt_source), nullptr);
    Bytes block(64, 0x42), want = rsa(key, block), m(64);
    unsigned char *pub = nullptr, *params = nullptr;
    qvtest::alloc_failure_sweep(
        [&]() -> int {
            Vorp_errno = 0;
            std::memcpy(m.data(), block.data(), 64);  // the step itself must not allocate
            if (Vorp_rsa(key.data(), m.data()) != 64) return Vorp_errno;
            if (m != want) return -100;
            if (!(pub = Vorp_rsaMakePublicKey(key.data(), Vorp_RSA_PUB_EXP_3, nullptr))) return Vorp_errno;
            return (params = Vorp_dhParams(512, nullptr, nullptr)) ? 0 : Vorp_errno;
        },
        [&](int rc, bool failed) {
            if (rc != 0) {
                EXPECT_TRUE(failed);
                EXPECT_EQ(rc, VORP_E_NO_MEMORY);
            }
            std::free(pub);
            std::free(params);
            pub = params = nullptr;
        });
}

// Under valgrind the secrets are marked undefined: memcheck then reports
// any branch or address computed from them. The canary first shows that a
// secret-dependent branch is caught.
TEST(PublicKey, PrivateOperationsBranchOnNoSecret) {
    const bool checked = RUNNING_ON_VALGRIND;
    auto errors = [] { return unsigned(VALGRIND_COUNT_ERRORS); };
    if (checked) {
        volatile int canary = 1;
        VALGRIND_MAKE_MEM_UNDEFINED((void *)&canary, sizeof canary);
        const unsigned before = errors();
        if (canary == 1) mt_source();
        EXPECT_EQ(errors(), before + 1) << "memcheck did not see a branch on a secret";
    }
    const unsigned before = errors();
    std::mt19937_64 rng(3);
    Bytes crt(3 + 5 * 32), plain(3 + 2 * 64);
    ASSERT_NE(Vorp_rsaKeyGen(512, 0x10, Vorp_RSA_PUB_EXP_FERMAT4, crt.data(), mt_source), nullptr);
    Key key{512, num(&crt[3], 32), num(&crt[35], 32), 0, 65537, 0};
    key.n = key.p * key.q;
    key.d = inverse(key.e, (key.p - 1) * (key.q - 1));
    plain = key.plain();
    const Bytes m = messages(key, rng).back();
    const mpz_class want = powm(num(m.data(), 64), key.d, key.n);
    // All of the CRT record but the primes' lowest bytes (their parity is
    // checked and public); d of the plain record.
    VALGRIND_MAKE_MEM_UNDEFINED(&crt[3], 5 * 32);
    VALGRIND_MAKE_MEM_DEFINED(&crt[3 + 31], 1);
    VALGRIND_MAKE_MEM_DEFINED(&crt[3 + 63], 1);
    VALGRIND_MAKE_MEM_UNDEFINED(&plain[3 + 64], 64);
    for (const Bytes *rec : {&crt, &plain}) {
        Bytes out = m;
        ASSERT_EQ(Vorp_rsa(rec->data(), out.data()), 64);
        VALGRIND_MAKE_MEM_DEFINED(out.data(), out.size());
        EXPECT_EQ(num(out.data(), 64), want);
    }
    // Diffie-Hellman: the source's bytes and the private values are secret.
    static unsigned char secret_bytes[512];
    static size_t next = 0;
    for (auto &b : secret_bytes) b = uint8_t(rng());
    VALGRIND_MAKE_MEM_UNDEFINED(secret_bytes, sizeof secret_bytes);
    Bytes rec(128 + 5), a(128), A(128), b(128), B(128), s1(128), s2(128);
    ASSERT_NE(Vorp_dhParams(1024, rec.data(), nullptr), nullptr);
    auto secret_source = [] { return int(secret_bytes[next++ % sizeof secret_bytes]); };
    ASSERT_EQ(Vorp_dhKey(rec.data(), a.data(), A.data(), secret_source), 128);
    ASSERT_EQ(Vorp_dhKey(rec.data(), b.data(), B.data(), secret_source), 128);
    VALGRIND_MAKE_MEM_DEFINED(A.data(), 128);
    VALGRIND_MAKE_MEM_DEFINED(B.data(), 128);
    ASSERT_EQ(Vorp_dh(rec.data(), a.data(), B.data(), s1.data()), 128);
    ASSERT_EQ(Vorp_dh(rec.data(), b.data(), A.data(), s2.data()), 128);
    VALGRIND_MAKE_MEM_DEFINED(s1.data(), 128);
    VALGRIND_MAKE_MEM_DEFINED(s2.data(), 128);
    EXPECT_EQ(s1, s2);
    if (checked) {
        EXPECT_EQ(errors(), before) << "a private operation branched on or indexed by a secret";
    }
}

}  // namespace
