// Rijndael: published vectors for every block and key length, OpenSSL on
// random input for AES, CBC chaining across calls, the schedule layout and
// the argument checks; block tests run on the accelerated and portable code.
#include <cstdlib>
#include <cstring>

#include "cipher_test_util.h"

namespace {

using namespace ciphertest;
using qvtest::from_hex;
using qvtest::to_hex;

struct Schedule {
    Schedule(const Bytes &raw, int block) {
        EXPECT_EQ(Vorp_aesKey(raw.data(), static_cast<qv_int32_t>(raw.size()), words, block), words);
    }
    Crypt crypt() const {
        return [this](int mode, uint8_t *iv, const uint8_t *in, uint8_t *out, uint32_t len) {
            return Vorp_aes(mode, words, iv, in, out, len);
        };
    }
    qv_uint32_t words[VORP_AES_KEY_WORDS_MAX];
};

class Rijndael : public EveryPath {};
INSTANTIATE_TEST_SUITE_P(Paths, Rijndael, kEveryPath, path_name);

TEST_P(Rijndael, KnownAnswers) {
    auto vectors = qvtest::read_vectors("vorpkit/rijndael_kat.txt");
    ASSERT_EQ(vectors.size(), 12u);
    for (auto &v : vectors) {
        SCOPED_TRACE(v["Block"] + " " + v["Key"]);
        Schedule ks(from_hex(v["Key"]), std::atoi(v["Block"].c_str()));
        Bytes pt = from_hex(v["Plaintext"]), ct = from_hex(v["Ciphertext"]);
        EXPECT_EQ(to_hex(run(ks.crypt(), 0, nullptr, pt)), to_hex(ct));
        EXPECT_EQ(to_hex(run(ks.crypt(), 1, nullptr, ct)), to_hex(pt));
    }
}

// The block counts cover the accelerated code's eight-block AES-NI loop with
// each of its tails, and its sixteen-block VAES passes (one, two, three)
// followed by each AES-NI part.
TEST_P(Rijndael, AesMatchesOpenSslOnRandomInput) {
    const EVP_CIPHER *ecb[] = {EVP_aes_128_ecb(), EVP_aes_192_ecb(), EVP_aes_256_ecb()};
    const EVP_CIPHER *cbc[] = {EVP_aes_128_cbc(), EVP_aes_192_cbc(), EVP_aes_256_cbc()};
    std::mt19937 rng(197);
    for (int size = 0; size < 3; ++size) {
        for (size_t blocks : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 15, 16, 17, 19, 23, 24, 31, 32, 47, 48}) {
            for (int mode = 0; mode <= 3; ++mode) {  // bit 0: decipher, bit 1: CBC
                SCOPED_TRACE(testing::Message() << 16 + 8 * size << "-byte key, " << blocks << " blocks, case "
                                                << mode);
                Bytes raw = random_bytes(rng, 16 + 8 * static_cast<size_t>(size));
                Schedule ks(raw, 16);
                expect_matches_openssl(ks.crypt(), (mode & 2 ? cbc : ecb)[size], raw, 16, mode & 2, mode & 1,
                                       random_bytes(rng, 16 * blocks), random_bytes(rng, 16));
            }
        }
    }
}

// Larger blocks have no reference here beyond the published vectors: they
// must round-trip, chain across calls as in one call, and differ from ECB.
TEST_P(Rijndael, EveryBlockSizeRoundTripsAndChainsAcrossCalls) {
    std::mt19937 rng(256);
    for (int block : {16, 24, 32}) {
        for (size_t key_len : {16, 24, 32}) {
            SCOPED_TRACE(testing::Message() << block << "-byte block, " << key_len << "-byte key");
            Schedule ks(random_bytes(rng, key_len), block);
            Bytes data = random_bytes(rng, 5 * static_cast<size_t>(block));
            Bytes iv = random_bytes(rng, static_cast<size_t>(block));
            Bytes ecb = run(ks.crypt(), 0, nullptr, data);
            EXPECT_EQ(run(ks.crypt(), 1, nullptr, ecb), data);
            Bytes chain = iv;
            Bytes cbc = run(ks.crypt(), 0, chain.data(), data);
            EXPECT_NE(cbc, ecb);
            EXPECT_EQ(chain, Bytes(cbc.end() - block, cbc.end()));
            chain = iv;
            EXPECT_EQ(run(ks.crypt(), 1, chain.data(), cbc), data);
            expect_chains_across_calls(ks.crypt(), static_cast<size_t>(block), data, iv);
        }
    }
}

TEST(RijndaelSchedule, LayoutFollowsBlockAndKeySize) {
    struct Case {
        int key, block;
        qv_uint32_t words;  // Nb * (Nr + 1)
    } cases[] = {
        {16, 16, 44}, {24, 16, 52},  {32, 16, 60},  {16, 24, 78},  {24, 24, 78},
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
        // The first round-key words are the raw key; deciphering starts with
        // the last enciphering round key and ends with the first.
        const size_t nb = static_cast<size_t>(c.block / 4);
        EXPECT_EQ(0, std::memcmp(ks + 2, raw.data(), static_cast<size_t>(c.key)));
        EXPECT_EQ(0, std::memcmp(ks + 2 + c.words, ks + 2 + c.words - nb, 4 * nb));
        EXPECT_EQ(0, std::memcmp(ks + 2 + 2 * c.words - nb, ks + 2, 4 * nb));
        std::free(ks);
    }
}

TEST(RijndaelArguments, BadSizesAndLengthsChangeNothing) {
    Bytes raw(32, 7);
    for (int size : {0, 8, 15, 20, 33, -16}) {
        qv_uint32_t words[4] = {0};
        for (int block_side = 0; block_side <= 1; ++block_side) {
            Vorp_errno = 0;
            EXPECT_EQ(Vorp_aesKey(raw.data(), block_side ? 16 : size, words, block_side ? size : 16), nullptr);
            EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT) << size;
        }
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
    const uint8_t from[64] = {0};
    struct Case {
        const char *what;
        const qv_uint32_t *key;
        const uint8_t *from;
        qv_uint32_t len;
    } cases[] = {
        {"24 bytes, 16-byte block", b16.words, from, 24}, {"16 bytes, 32-byte block", b32.words, from, 16},
        {"block size 20", bad_block.words, from, 16},     {"word count 45", bad_words.words, from, 16},
        {"too few rounds", short_rounds.words, from, 32}, {"no schedule", nullptr, from, 16},
        {"no input", b16.words, nullptr, 16},
    };
    for (const auto &c : cases) {
        for (int cbc = 0; cbc <= 1; ++cbc)
            expect_rejected(c.what, [&](uint8_t *to, uint8_t *iv) {
                return Vorp_aes(cbc, c.key, cbc ? iv : nullptr, c.from, to, c.len);
            });
    }
}

}  // namespace
