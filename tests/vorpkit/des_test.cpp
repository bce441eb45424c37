// DES and triple DES: published vectors, OpenSSL on random input, CBC
// chaining across calls, and the argument checks.
#include <cstdlib>
#include <cstring>

#include "cipher_test_util.h"

namespace {

using namespace ciphertest;
using qvtest::from_hex;
using qvtest::to_hex;

struct Schedule {
    Schedule(const Bytes &raw, int n) { EXPECT_EQ(Vorp_desKey(raw.data(), n, words), words); }
    Crypt crypt() const {
        return [this](int mode, uint8_t *iv, const uint8_t *in, uint8_t *out, uint32_t len) {
            return Vorp_des(mode, words, iv, in, out, len);
        };
    }
    qv_uint32_t words[VORP_DES_KEY_WORDS(3)];
};

TEST(Des, KnownAnswers) {
    auto vectors = qvtest::read_vectors("vorpkit/des_kat.txt");
    ASSERT_GE(vectors.size(), 7u);
    for (auto &v : vectors) {
        SCOPED_TRACE(v["Key"] + " " + v["Plaintext"]);
        Schedule ks(from_hex(v["Key"]), std::atoi(v["Keys"].c_str()));
        Bytes pt = from_hex(v["Plaintext"]), ct = from_hex(v["Ciphertext"]);
        bool cbc = v["Mode"] == "CBC";
        Bytes iv = from_hex(v["IV"]), iv2 = iv;
        EXPECT_EQ(to_hex(run(ks.crypt(), 0, cbc ? iv.data() : nullptr, pt)), to_hex(ct));
        EXPECT_EQ(to_hex(run(ks.crypt(), 1, cbc ? iv2.data() : nullptr, ct)), to_hex(pt));
        if (cbc) {
            EXPECT_EQ(iv, Bytes(ct.end() - 8, ct.end()));
            EXPECT_EQ(iv2, iv);
        }
    }
}

TEST(Des, MatchesOpenSslOnRandomInput) {
    const EVP_CIPHER *ecb[] = {EVP_des_ecb(), EVP_des_ede_ecb(), EVP_des_ede3_ecb()};
    const EVP_CIPHER *cbc[] = {EVP_des_cbc(), EVP_des_ede_cbc(), EVP_des_ede3_cbc()};
    std::mt19937 rng(46);
    for (int keys = 1; keys <= 3; ++keys) {
        for (size_t blocks = 0; blocks <= 7; ++blocks) {
            for (int mode = 0; mode <= 3; ++mode) {  // bit 0: decipher, bit 1: CBC
                SCOPED_TRACE(testing::Message() << keys << " keys, " << blocks << " blocks, case " << mode);
                Bytes raw = random_bytes(rng, 8 * keys);
                Schedule ks(raw, keys);
                expect_matches_openssl(ks.crypt(), (mode & 2 ? cbc : ecb)[keys - 1], raw, 8, mode & 2, mode & 1,
                                       random_bytes(rng, 8 * blocks), random_bytes(rng, 8));
            }
        }
    }
}

TEST(Des, CbcChainsAcrossCalls) {
    std::mt19937 rng(81);
    for (int keys = 1; keys <= 3; ++keys) {
        Schedule ks(random_bytes(rng, 8 * keys), keys);
        expect_chains_across_calls(ks.crypt(), 8, random_bytes(rng, 64), random_bytes(rng, 8));
    }
}

TEST(Des, TwoKeysAreThreeKeysWithTheFirstRepeated) {
    std::mt19937 rng(67);
    Bytes k12 = random_bytes(rng, 16), k121 = k12;
    k121.insert(k121.end(), k12.begin(), k12.begin() + 8);
    Schedule two(k12, 2), three(k121, 3);
    Bytes data = random_bytes(rng, 40);
    for (int mode = 0; mode <= 1; ++mode) {
        Bytes iv2(8, 0x5a), iv3(8, 0x5a);
        EXPECT_EQ(run(two.crypt(), mode, nullptr, data), run(three.crypt(), mode, nullptr, data));
        EXPECT_EQ(run(two.crypt(), mode, iv2.data(), data), run(three.crypt(), mode, iv3.data(), data));
    }
}

TEST(Des, ScheduleIgnoresParityAndMayBeAllocated) {
    Schedule odd(from_hex("133457799bbcdff1"), 1), flipped(from_hex("123556789abddef0"), 1);
    EXPECT_EQ(0, std::memcmp(odd.words, flipped.words, sizeof(qv_uint32_t) * VORP_DES_KEY_WORDS(1)));
    Bytes raw = from_hex("0123456789abcdef23456789abcdef01");
    qv_uint32_t *ks = Vorp_desKey(raw.data(), 2, nullptr);
    ASSERT_NE(ks, nullptr);
    Schedule given(raw, 2);
    EXPECT_EQ(ks[0], 2u);
    EXPECT_EQ(0, std::memcmp(ks, given.words, sizeof(qv_uint32_t) * VORP_DES_KEY_WORDS(2)));
    std::free(ks);
}

TEST(Des, BadArgumentsChangeNothing) {
    Bytes raw = from_hex("0123456789abcdef23456789abcdef01456789abcdef0123");
    Schedule good(raw, 1), count0 = good, count4 = good;
    count0.words[0] = 0;
    count4.words[0] = 4;
    const uint8_t from[32] = {1, 2, 3};
    struct Case {
        const char *what;
        const qv_uint32_t *key;
        const uint8_t *from;
        qv_uint32_t len;
    } cases[] = {
        {"12 bytes", good.words, from, 12},  {"7 bytes", good.words, from, 7},
        {"key count 0", count0.words, from, 16}, {"key count 4", count4.words, from, 16},
        {"no schedule", nullptr, from, 16},  {"no input", good.words, nullptr, 16},
    };
    for (const auto &c : cases) {
        for (int cbc = 0; cbc <= 1; ++cbc)
            expect_rejected(c.what, [&](uint8_t *to, uint8_t *iv) {
                return Vorp_des(0, c.key, cbc ? iv : nullptr, c.from, to, c.len);
            });
    }
    for (int n : {0, 4, -1}) {
        Vorp_errno = 0;
        qv_uint32_t words[VORP_DES_KEY_WORDS(3)] = {0};
        EXPECT_EQ(Vorp_desKey(raw.data(), n, words), nullptr) << n;
        EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
        EXPECT_EQ(words[0], 0u);
    }
    Vorp_errno = 0;
    EXPECT_EQ(Vorp_desKey(nullptr, 1, nullptr), nullptr);
    EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
    // Nothing to do is no error, and the chaining value stays.
    Vorp_errno = 0;
    uint8_t iv[8] = {9}, to[1] = {0};
    EXPECT_EQ(Vorp_des(0, good.words, iv, nullptr, to, 0), to);
    EXPECT_EQ(Vorp_errno, 0);
    EXPECT_EQ(iv[0], 9);
}

}  // namespace
