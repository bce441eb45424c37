// DES and triple DES: published vectors, OpenSSL on random input, CBC
// chaining across calls, and the argument checks.
#include <cstdlib>
#include <cstring>

#include "cipher_test_util.h"
#include "test_support.h"
#include "vorpkit.h"

namespace {

using ciphertest::Bytes;
using qvtest::from_hex;
using qvtest::to_hex;

struct Schedule {
    explicit Schedule(const Bytes &raw, int n) { EXPECT_EQ(Vorp_desKey(raw.data(), n, words), words); }
    qv_uint32_t words[VORP_DES_KEY_WORDS(3)];
};

Bytes run_des(int mode, const qv_uint32_t *ks, uint8_t *iv, const Bytes &in) {
    Bytes out(in.size());
    EXPECT_EQ(Vorp_des(mode, ks, iv, in.data(), out.data(), static_cast<qv_uint32_t>(in.size())), out.data());
    return out;
}

TEST(Des, KnownAnswers) {
    auto vectors = qvtest::read_vectors("vorpkit/des_kat.txt");
    ASSERT_GE(vectors.size(), 7u);
    for (auto &v : vectors) {
        SCOPED_TRACE(v["Key"] + " " + v["Plaintext"]);
        Schedule ks(from_hex(v["Key"]), std::atoi(v["Keys"].c_str()));
        Bytes pt = from_hex(v["Plaintext"]), ct = from_hex(v["Ciphertext"]);
        bool cbc = v["Mode"] == "CBC";
        Bytes iv = from_hex(v["IV"]), iv2 = iv;
        EXPECT_EQ(to_hex(run_des(0, ks.words, cbc ? iv.data() : nullptr, pt)), to_hex(ct));
        EXPECT_EQ(to_hex(run_des(1, ks.words, cbc ? iv2.data() : nullptr, ct)), to_hex(pt));
        if (cbc) {
            // Both directions leave the last ciphertext block as the chaining value.
            Bytes last(ct.end() - 8, ct.end());
            EXPECT_EQ(to_hex(iv), to_hex(last));
            EXPECT_EQ(to_hex(iv2), to_hex(last));
        }
    }
}

const EVP_CIPHER *reference(int keys, bool cbc) {
    switch (keys) {
    case 1: return cbc ? EVP_des_cbc() : EVP_des_ecb();
    case 2: return cbc ? EVP_des_ede_cbc() : EVP_des_ede_ecb();
    default: return cbc ? EVP_des_ede3_cbc() : EVP_des_ede3_ecb();
    }
}

TEST(Des, MatchesOpenSslOnRandomInput) {
    ciphertest::load_openssl_providers();
    std::mt19937 rng(46);
    for (int keys = 1; keys <= 3; ++keys) {
        for (size_t blocks = 0; blocks <= 7; ++blocks) {
            for (int cbc = 0; cbc <= 1; ++cbc) {
                for (int mode = 0; mode <= 1; ++mode) {
                    SCOPED_TRACE(testing::Message() << keys << " keys, " << blocks << " blocks, cbc " << cbc
                                                    << ", mode " << mode);
                    Bytes raw = ciphertest::random_bytes(rng, 8 * keys);
                    Bytes in = ciphertest::random_bytes(rng, 8 * blocks);
                    Bytes iv = cbc ? ciphertest::random_bytes(rng, 8) : Bytes{};
                    Bytes want = ciphertest::openssl_crypt(reference(keys, cbc), raw, iv, in, mode == 0);
                    Schedule ks(raw, keys);
                    Bytes chain = iv;
                    EXPECT_EQ(to_hex(run_des(mode, ks.words, cbc ? chain.data() : nullptr, in)), to_hex(want));
                    if (cbc && blocks > 0) {
                        const Bytes &ct = mode == 0 ? want : in;
                        EXPECT_EQ(to_hex(chain), to_hex(Bytes(ct.end() - 8, ct.end())));
                    } else if (cbc) {
                        EXPECT_EQ(chain, iv);
                    }
                    // In place gives the same bytes.
                    Bytes inplace = in;
                    Bytes chain2 = iv;
                    Vorp_des(mode, ks.words, cbc ? chain2.data() : nullptr, inplace.data(), inplace.data(),
                             static_cast<qv_uint32_t>(in.size()));
                    EXPECT_EQ(to_hex(inplace), to_hex(want));
                }
            }
        }
    }
}

TEST(Des, CbcChainsAcrossCalls) {
    std::mt19937 rng(81);
    for (int keys = 1; keys <= 3; ++keys) {
        Schedule ks(ciphertest::random_bytes(rng, 8 * keys), keys);
        Bytes data = ciphertest::random_bytes(rng, 64);
        Bytes iv0 = ciphertest::random_bytes(rng, 8);
        for (int mode = 0; mode <= 1; ++mode) {
            Bytes iv = iv0;
            Bytes whole = run_des(mode, ks.words, iv.data(), data);
            for (size_t split = 0; split <= data.size(); split += 8) {
                Bytes chain = iv0, out(data.size());
                Vorp_des(mode, ks.words, chain.data(), data.data(), out.data(), static_cast<qv_uint32_t>(split));
                Vorp_des(mode, ks.words, chain.data(), data.data() + split, out.data() + split,
                         static_cast<qv_uint32_t>(data.size() - split));
                EXPECT_EQ(to_hex(out), to_hex(whole)) << "split " << split;
                EXPECT_EQ(chain, iv);
            }
        }
    }
}

TEST(Des, TwoKeysAreThreeKeysWithTheFirstRepeated) {
    std::mt19937 rng(67);
    Bytes k12 = ciphertest::random_bytes(rng, 16);
    Bytes k121 = k12;
    k121.insert(k121.end(), k12.begin(), k12.begin() + 8);
    Schedule two(k12, 2), three(k121, 3);
    Bytes data = ciphertest::random_bytes(rng, 40);
    for (int mode = 0; mode <= 1; ++mode) {
        Bytes iv2(8, 0x5a), iv3(8, 0x5a);
        EXPECT_EQ(to_hex(run_des(mode, two.words, nullptr, data)), to_hex(run_des(mode, three.words, nullptr, data)));
        EXPECT_EQ(to_hex(run_des(mode, two.words, iv2.data(), data)),
                  to_hex(run_des(mode, three.words, iv3.data(), data)));
    }
}

TEST(Des, ParityBitsAreIgnored) {
    Schedule odd(from_hex("133457799bbcdff1"), 1), flipped(from_hex("123556789abddef0"), 1);
    EXPECT_EQ(0, std::memcmp(odd.words, flipped.words, sizeof(qv_uint32_t) * VORP_DES_KEY_WORDS(1)));
}

TEST(Des, KeyAllocatedWhenNoneGiven) {
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
    Schedule good(raw, 1);
    qv_uint32_t bad_count_0[VORP_DES_KEY_WORDS(1)], bad_count_4[VORP_DES_KEY_WORDS(1)];
    std::memcpy(bad_count_0, good.words, sizeof bad_count_0);
    std::memcpy(bad_count_4, good.words, sizeof bad_count_4);
    bad_count_0[0] = 0;
    bad_count_4[0] = 4;
    uint8_t from[32] = {1, 2, 3};
    struct Case {
        const char *what;
        const qv_uint32_t *key;
        const uint8_t *from;
        qv_uint32_t len;
    } cases[] = {
        {"12 bytes", good.words, from, 12},
        {"7 bytes", good.words, from, 7},
        {"key count 0", bad_count_0, from, 16},
        {"key count 4", bad_count_4, from, 16},
        {"no schedule", nullptr, from, 16},
        {"no input", good.words, nullptr, 16},
    };
    for (const auto &c : cases) {
        for (int cbc = 0; cbc <= 1; ++cbc) {
            SCOPED_TRACE(c.what);
            uint8_t to[32], iv[8];
            std::memset(to, 0xee, sizeof to);
            std::memset(iv, 0x11, sizeof iv);
            Vorp_errno = 0;
            EXPECT_EQ(Vorp_des(0, c.key, cbc ? iv : nullptr, c.from, to, c.len), nullptr);
            EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
            EXPECT_EQ(to_hex(to, sizeof to), std::string(64, 'e'));
            EXPECT_EQ(to_hex(iv, sizeof iv), std::string(16, '1'));
        }
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
    // Nothing to do is not an error, and the chaining value stays.
    Vorp_errno = 0;
    uint8_t iv[8] = {9, 9, 9, 9, 9, 9, 9, 9}, to[1] = {0};
    EXPECT_EQ(Vorp_des(0, good.words, iv, nullptr, to, 0), to);
    EXPECT_EQ(Vorp_errno, 0);
    EXPECT_EQ(iv[0], 9);
}

}  // namespace
