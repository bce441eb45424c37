// Rijndael: published vectors for every block and key length, OpenSSL on
// random input for AES, the schedule layout, CBC chaining across calls and
// the argument checks; each on the accelerated and on the portable code.
#include <cstdlib>
#include <cstring>

#include "cipher_test_util.h"
#include "test_support.h"
#include "vorpkit.h"

namespace {

using ciphertest::BothPaths;
using ciphertest::Bytes;
using qvtest::from_hex;
using qvtest::to_hex;

struct Schedule {
    Schedule(const Bytes &raw, int block) {
        EXPECT_EQ(Vorp_aesKey(raw.data(), static_cast<qv_int32_t>(raw.size()), words, block), words);
    }
    qv_uint32_t words[VORP_AES_KEY_WORDS_MAX];
};

Bytes run_aes(int mode, const qv_uint32_t *ks, uint8_t *iv, const Bytes &in) {
    Bytes out(in.size());
    EXPECT_EQ(Vorp_aes(mode, ks, iv, in.data(), out.data(), static_cast<qv_uint32_t>(in.size())), out.data());
    return out;
}

class Rijndael : public BothPaths {};
INSTANTIATE_TEST_SUITE_P(Paths, Rijndael, ::testing::Bool(), ciphertest::path_name);

TEST_P(Rijndael, KnownAnswers) {
    auto vectors = qvtest::read_vectors("vorpkit/rijndael_kat.txt");
    ASSERT_EQ(vectors.size(), 12u);
    for (auto &v : vectors) {
        SCOPED_TRACE(v["Block"] + " " + v["Key"]);
        Schedule ks(from_hex(v["Key"]), std::atoi(v["Block"].c_str()));
        Bytes pt = from_hex(v["Plaintext"]), ct = from_hex(v["Ciphertext"]);
        EXPECT_EQ(to_hex(run_aes(0, ks.words, nullptr, pt)), to_hex(ct));
        EXPECT_EQ(to_hex(run_aes(1, ks.words, nullptr, ct)), to_hex(pt));
    }
}

const EVP_CIPHER *reference(size_t key_len, bool cbc) {
    switch (key_len) {
    case 16: return cbc ? EVP_aes_128_cbc() : EVP_aes_128_ecb();
    case 24: return cbc ? EVP_aes_192_cbc() : EVP_aes_192_ecb();
    default: return cbc ? EVP_aes_256_cbc() : EVP_aes_256_ecb();
    }
}

// Up to 19 blocks covers the eight-block loop of the accelerated code, its
// tail, and two passes through it.
TEST_P(Rijndael, AesMatchesOpenSslOnRandomInput) {
    std::mt19937 rng(197);
    for (size_t key_len : {16, 24, 32}) {
        for (size_t blocks = 0; blocks <= 19; ++blocks) {
            for (int cbc = 0; cbc <= 1; ++cbc) {
                for (int mode = 0; mode <= 1; ++mode) {
                    SCOPED_TRACE(testing::Message() << key_len << "-byte key, " << blocks << " blocks, cbc "
                                                    << cbc << ", mode " << mode);
                    Bytes raw = ciphertest::random_bytes(rng, key_len);
                    Bytes in = ciphertest::random_bytes(rng, 16 * blocks);
                    Bytes iv = cbc ? ciphertest::random_bytes(rng, 16) : Bytes{};
                    Bytes want = ciphertest::openssl_crypt(reference(key_len, cbc), raw, iv, in, mode == 0);
                    Schedule ks(raw, 16);
                    Bytes chain = iv;
                    EXPECT_EQ(to_hex(run_aes(mode, ks.words, cbc ? chain.data() : nullptr, in)), to_hex(want));
                    if (cbc) {
                        const Bytes &ct = mode == 0 ? want : in;
                        EXPECT_EQ(to_hex(chain), blocks ? to_hex(Bytes(ct.end() - 16, ct.end())) : to_hex(iv));
                    }
                    Bytes inplace = in, chain2 = iv;
                    Vorp_aes(mode, ks.words, cbc ? chain2.data() : nullptr, inplace.data(), inplace.data(),
                             static_cast<qv_uint32_t>(in.size()));
                    EXPECT_EQ(to_hex(inplace), to_hex(want));
                }
            }
        }
    }
}

// Larger blocks have no second implementation to compare with: they must
// round-trip, chain across calls as one call does, and differ per block.
TEST_P(Rijndael, EveryBlockSizeRoundTripsAndChainsAcrossCalls) {
    std::mt19937 rng(256);
    for (int block : {16, 24, 32}) {
        for (size_t key_len : {16, 24, 32}) {
            SCOPED_TRACE(testing::Message() << block << "-byte block, " << key_len << "-byte key");
            Schedule ks(ciphertest::random_bytes(rng, key_len), block);
            Bytes data = ciphertest::random_bytes(rng, 5 * block);
            Bytes iv0 = ciphertest::random_bytes(rng, block);
            Bytes ecb = run_aes(0, ks.words, nullptr, data);
            EXPECT_EQ(run_aes(1, ks.words, nullptr, ecb), data);
            Bytes iv = iv0;
            Bytes cbc = run_aes(0, ks.words, iv.data(), data);
            EXPECT_EQ(Bytes(cbc.end() - block, cbc.end()), iv);
            EXPECT_NE(cbc, ecb);
            Bytes div = iv0;
            EXPECT_EQ(run_aes(1, ks.words, div.data(), cbc), data);
            EXPECT_EQ(div, iv);
            for (int mode = 0; mode <= 1; ++mode) {
                const Bytes &in = mode == 0 ? data : cbc;
                const Bytes &whole = mode == 0 ? cbc : data;
                for (size_t split = 0; split <= in.size(); split += block) {
                    Bytes chain = iv0, out(in.size());
                    Vorp_aes(mode, ks.words, chain.data(), in.data(), out.data(), static_cast<qv_uint32_t>(split));
                    Vorp_aes(mode, ks.words, chain.data(), in.data() + split, out.data() + split,
                             static_cast<qv_uint32_t>(in.size() - split));
                    EXPECT_EQ(out, whole) << "split " << split;
                }
            }
        }
    }
}

TEST(RijndaelPaths, AcceleratedAndPortableAgree) {
    std::mt19937 rng(4);
    for (size_t key_len : {16, 24, 32}) {
        Schedule ks(ciphertest::random_bytes(rng, key_len), 16);
        Bytes data = ciphertest::random_bytes(rng, 16 * 37);
        Bytes out[2];
        for (int portable = 0; portable <= 1; ++portable) {
            vorp::force_portable(portable);
            Bytes iv(16, 0x3c);
            Bytes ct = run_aes(0, ks.words, iv.data(), data);
            Bytes ecb = run_aes(1, ks.words, nullptr, ct);
            out[portable] = ct;
            out[portable].insert(out[portable].end(), ecb.begin(), ecb.end());
        }
        vorp::force_portable(false);
        EXPECT_EQ(out[0], out[1]) << key_len;
    }
}

TEST(RijndaelSchedule, LayoutFollowsBlockAndKeySize) {
    struct Case {
        int key, block;
        qv_uint32_t words;  // Nb * (Nr + 1)
    } cases[] = {
        {16, 16, 44}, {24, 16, 52}, {32, 16, 60}, {16, 24, 78},  {24, 24, 78},
        {32, 24, 90}, {16, 32, 120}, {24, 32, 120}, {32, 32, 120},
    };
    Bytes raw = from_hex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.key << "/" << c.block);
        qv_uint32_t *ks = Vorp_aesKey(raw.data(), c.key, nullptr, c.block);
        ASSERT_NE(ks, nullptr);
        EXPECT_EQ(ks[0], static_cast<qv_uint32_t>(c.block));
        EXPECT_EQ(ks[1], c.words);
        EXPECT_EQ(static_cast<qv_uint32_t>(VORP_AES_KEY_WORDS(c.key, c.block)), 2 + 2 * c.words);
        // The first round key is the raw key; deciphering starts with the
        // last enciphering round key and ends with the first.
        EXPECT_EQ(0, std::memcmp(ks + 2, raw.data(), static_cast<size_t>(c.key)));
        const qv_uint32_t nb = static_cast<qv_uint32_t>(c.block / 4);
        EXPECT_EQ(0, std::memcmp(ks + 2 + c.words, ks + 2 + c.words - nb, 4 * nb));
        EXPECT_EQ(0, std::memcmp(ks + 2 + 2 * c.words - nb, ks + 2, 4 * nb));
        std::free(ks);
    }
}

TEST(RijndaelArguments, BadSizesAndLengthsChangeNothing) {
    Bytes raw(32, 7);
    for (int size : {0, 8, 15, 20, 33, -16}) {
        qv_uint32_t words[4] = {0};
        Vorp_errno = 0;
        EXPECT_EQ(Vorp_aesKey(raw.data(), size, words, 16), nullptr) << size;
        EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
        Vorp_errno = 0;
        EXPECT_EQ(Vorp_aesKey(raw.data(), 16, words, size), nullptr) << size;
        EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
        EXPECT_EQ(words[0], 0u);
    }
    Vorp_errno = 0;
    EXPECT_EQ(Vorp_aesKey(nullptr, 16, nullptr, 16), nullptr);
    EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);

    Schedule b16(Bytes(16, 1), 16), b32(Bytes(16, 1), 32);
    Schedule bad_block = b16, bad_words = b16, short_rounds = b32;
    bad_block.words[0] = 20;
    bad_words.words[1] = 45;
    short_rounds.words[1] = 8 * 11;  // ten rounds are too few for 32-byte blocks
    uint8_t from[64] = {0};
    struct Case {
        const char *what;
        const qv_uint32_t *key;
        const uint8_t *from;
        qv_uint32_t len;
    } cases[] = {
        {"24 bytes, 16-byte block", b16.words, from, 24},
        {"16 bytes, 32-byte block", b32.words, from, 16},
        {"block size 20", bad_block.words, from, 16},
        {"word count 45", bad_words.words, from, 16},
        {"too few rounds", short_rounds.words, from, 32},
        {"no schedule", nullptr, from, 16},
        {"no input", b16.words, nullptr, 16},
    };
    for (const auto &c : cases) {
        for (int cbc = 0; cbc <= 1; ++cbc) {
            SCOPED_TRACE(c.what);
            uint8_t to[64], iv[32];
            std::memset(to, 0xee, sizeof to);
            std::memset(iv, 0x11, sizeof iv);
            Vorp_errno = 0;
            EXPECT_EQ(Vorp_aes(cbc, c.key, cbc ? iv : nullptr, c.from, to, c.len), nullptr);
            EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
            EXPECT_EQ(to_hex(to, sizeof to), std::string(128, 'e'));
            EXPECT_EQ(to_hex(iv, sizeof iv), std::string(64, '1'));
        }
    }
}

}  // namespace
