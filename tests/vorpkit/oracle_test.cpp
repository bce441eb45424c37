// Every cipher and hash of the library against OpenSSL on every code path
// (all the processor offers; AES-NI without VAES; the portable code): one
// table of ciphers and one of hashes, over lengths that reach each loop and
// tail of the accelerated code, in one call, split across calls and in
// place. Beside the oracle: the Rijndael block sizes OpenSSL lacks, the
// documented key and state records, the argument checks, and the length
// field of the final hash block against a model.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <openssl/provider.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "cpu_features.h"
#include "test_support.h"
#include "vorpkit.h"

namespace {

using Bytes = std::vector<uint8_t>;
using qvtest::from_hex;
using qvtest::to_hex;

Bytes random_bytes(std::mt19937 &rng, size_t n) {
    Bytes b(n);
    for (auto &x : b) x = static_cast<uint8_t>(rng());
    return b;
}

// Single DES and RC4 live in OpenSSL's legacy provider. The providers are
// unloaded at exit, so that the leak checker sees nothing of them.
void load_openssl_providers() {
    struct Providers {
        OSSL_PROVIDER *legacy = OSSL_PROVIDER_load(nullptr, "legacy");
        OSSL_PROVIDER *fallback = OSSL_PROVIDER_load(nullptr, "default");
        ~Providers() {
            if (legacy) OSSL_PROVIDER_unload(legacy);
            if (fallback) OSSL_PROVIDER_unload(fallback);
        }
    };
    static Providers providers;
    if (!providers.legacy || !providers.fallback) throw std::runtime_error("cannot load the OpenSSL legacy provider");
}

// One unpadded OpenSSL run; iv empty for ECB and stream ciphers.
Bytes openssl_crypt(const EVP_CIPHER *cipher, const Bytes &key, const Bytes &iv, const Bytes &in, bool encrypt) {
    load_openssl_providers();
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 64);
    int n1 = 0, n2 = 0;
    bool ok = ctx && EVP_CipherInit_ex(ctx, cipher, nullptr, nullptr, nullptr, encrypt ? 1 : 0) == 1 &&
              EVP_CIPHER_CTX_set_key_length(ctx, static_cast<int>(key.size())) == 1 &&
              EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
              EVP_CipherInit_ex(ctx, nullptr, nullptr, key.data(), iv.empty() ? nullptr : iv.data(),
                                encrypt ? 1 : 0) == 1 &&
              EVP_CipherUpdate(ctx, out.data(), &n1, in.data(), static_cast<int>(in.size())) == 1 &&
              EVP_CipherFinal_ex(ctx, out.data() + n1, &n2) == 1;
    EVP_CIPHER_CTX_free(ctx);
    if (!ok) throw std::runtime_error("OpenSSL reference failed");
    out.resize(static_cast<size_t>(n1 + n2));
    return out;
}

// The implementations a test runs on: everything the processor offers; the
// 128-bit AES instructions without the 256-bit ones (so their loops see long
// inputs too); the portable code.
enum class Path { Accelerated, NoVaes, Portable };
const char *const kPathNames[] = {"Accelerated", "NoVaes", "Portable"};

void use_path(Path p) {
    vorp::force_portable(p == Path::Portable);
    vorp::force_no_vaes(p == Path::NoVaes);
}

// One of our ciphers under one key: mode bit 0 deciphers; iv is the chaining
// block (nullptr for ECB). A stream cipher ignores both.
using Crypt = std::function<unsigned char *(int mode, uint8_t *iv, const uint8_t *in, uint8_t *out, uint32_t len)>;

Crypt des_keyed(const Bytes &key, size_t) {
    auto ks = std::make_shared<std::vector<qv_uint32_t>>(VORP_DES_KEY_WORDS(3));
    EXPECT_EQ(Vorp_desKey(key.data(), static_cast<int>(key.size() / 8), ks->data()), ks->data());
    return [ks](int mode, uint8_t *iv, const uint8_t *in, uint8_t *out, uint32_t len) {
        return Vorp_des(mode, ks->data(), iv, in, out, len);
    };
}

Crypt rijndael_keyed(const Bytes &key, size_t block) {
    auto ks = std::make_shared<std::vector<qv_uint32_t>>(VORP_AES_KEY_WORDS_MAX);
    EXPECT_EQ(Vorp_aesKey(key.data(), static_cast<qv_int32_t>(key.size()), ks->data(), static_cast<int>(block)),
              ks->data());
    return [ks](int mode, uint8_t *iv, const uint8_t *in, uint8_t *out, uint32_t len) {
        return Vorp_aes(mode, ks->data(), iv, in, out, len);
    };
}

Crypt rc4_keyed(const Bytes &key, size_t) {
    auto st = std::make_shared<std::array<unsigned char, VORP_RC4_STATE_LEN>>();
    EXPECT_EQ(Vorp_rc4Key(key.data(), static_cast<qv_int32_t>(key.size()), st->data()), st->data());
    return [st](int, uint8_t *, const uint8_t *in, uint8_t *out, uint32_t len) {
        return Vorp_rc4(st->data(), in, out, len);
    };
}

Bytes run(const Crypt &crypt, int mode, uint8_t *iv, const Bytes &in) {
    Bytes out(in.size());
    EXPECT_EQ(crypt(mode, iv, in.data(), out.data(), static_cast<uint32_t>(in.size())), out.data());
    return out;
}

struct Cipher {
    const char *name;
    size_t key_len;
    size_t block;                  // 1: a stream cipher
    const EVP_CIPHER *(*ecb)();    // the stream itself for a stream cipher
    const EVP_CIPHER *(*cbc)();    // nullptr for a stream cipher
    Crypt (*keyed)(const Bytes &key, size_t block);
};

const Cipher kCiphers[] = {
    {"des", 8, 8, EVP_des_ecb, EVP_des_cbc, des_keyed},
    {"des_ede", 16, 8, EVP_des_ede_ecb, EVP_des_ede_cbc, des_keyed},
    {"des_ede3", 24, 8, EVP_des_ede3_ecb, EVP_des_ede3_cbc, des_keyed},
    {"aes128", 16, 16, EVP_aes_128_ecb, EVP_aes_128_cbc, rijndael_keyed},
    {"aes192", 24, 16, EVP_aes_192_ecb, EVP_aes_192_cbc, rijndael_keyed},
    {"aes256", 32, 16, EVP_aes_256_ecb, EVP_aes_256_cbc, rijndael_keyed},
    {"rc4_1", 1, 1, EVP_rc4, nullptr, rc4_keyed},
    {"rc4_7", 7, 1, EVP_rc4, nullptr, rc4_keyed},
    {"rc4_16", 16, 1, EVP_rc4, nullptr, rc4_keyed},
    {"rc4_256", 256, 1, EVP_rc4, nullptr, rc4_keyed},
};

// Lengths in blocks: the eight-block AES-NI loop with each of its tails, and
// the sixteen-block VAES passes (one, two, three) followed by each AES-NI
// part; for a stream, bytes.
const size_t kBlockCounts[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 15, 16, 17, 19, 23, 24, 31, 32, 47, 48, 65, 1000};

class CipherOracle : public ::testing::TestWithParam<std::tuple<Path, size_t>> {
protected:
    void SetUp() override { use_path(std::get<0>(GetParam())); }
    void TearDown() override { use_path(Path::Accelerated); }
    const Cipher &cipher() const { return kCiphers[std::get<1>(GetParam())]; }
    // The modes to run: ECB (or the stream) both ways, CBC both ways.
    std::vector<std::pair<int, bool>> modes() const {
        if (cipher().cbc == nullptr) return {{0, false}};
        return {{0, false}, {1, false}, {0, true}, {1, true}};
    }
};

// Output, chaining value left behind (the last ciphertext block), and the
// same run in place.
TEST_P(CipherOracle, MatchesOpenSsl) {
    const Cipher &c = cipher();
    std::mt19937 rng(static_cast<unsigned>(c.key_len * 131 + c.block));
    for (size_t blocks : kBlockCounts) {
        if (c.block > 1 && blocks > 48) continue;
        for (auto [mode, cbc] : modes()) {
            SCOPED_TRACE(testing::Message() << blocks << " blocks, mode " << mode << (cbc ? " CBC" : ""));
            Bytes key = random_bytes(rng, c.key_len), in = random_bytes(rng, c.block * blocks);
            Bytes iv = random_bytes(rng, c.block);
            Bytes want = openssl_crypt(cbc ? c.cbc() : c.ecb(), key, cbc ? iv : Bytes{}, in, mode == 0);
            Bytes chain = iv, chain2 = iv, inplace = in;
            EXPECT_EQ(to_hex(run(c.keyed(key, c.block), mode, cbc ? chain.data() : nullptr, in)), to_hex(want));
            if (cbc) {
                const Bytes &ct = mode == 0 ? want : in;
                EXPECT_EQ(chain, in.empty() ? iv : Bytes(ct.end() - static_cast<long>(c.block), ct.end()));
            }
            c.keyed(key, c.block)(mode, cbc ? chain2.data() : nullptr, inplace.data(), inplace.data(),
                                  static_cast<uint32_t>(in.size()));
            EXPECT_EQ(inplace, want);
        }
    }
}

// A CBC run or a stream split into two calls at every block boundary equals
// one call, chaining value included.
TEST_P(CipherOracle, ContinuesAcrossCalls) {
    const Cipher &c = cipher();
    std::mt19937 rng(81);
    Bytes key = random_bytes(rng, c.key_len), data = random_bytes(rng, c.block == 1 ? 300 : 8 * c.block);
    const Bytes iv0 = random_bytes(rng, c.block);
    for (auto [mode, cbc] : modes()) {
        if (!cbc && c.block > 1) continue;
        Bytes iv = iv0;
        Bytes whole = run(c.keyed(key, c.block), mode, iv.data(), data);
        for (size_t split = 0; split <= data.size(); split += c.block) {
            Crypt crypt = c.keyed(key, c.block);
            Bytes chain = iv0, out(data.size());
            crypt(mode, chain.data(), data.data(), out.data(), static_cast<uint32_t>(split));
            crypt(mode, chain.data(), data.data() + split, out.data() + split,
                  static_cast<uint32_t>(data.size() - split));
            ASSERT_EQ(out, whole) << "mode " << mode << ", split " << split;
            if (cbc) {
                ASSERT_EQ(chain, iv) << "mode " << mode << ", split " << split;
            }
        }
    }
}

std::string cipher_case_name(const testing::TestParamInfo<std::tuple<Path, size_t>> &info) {
    return std::string(kCiphers[std::get<1>(info.param)].name) + "_" +
           kPathNames[static_cast<int>(std::get<0>(info.param))];
}

INSTANTIATE_TEST_SUITE_P(Paths, CipherOracle,
                         testing::Combine(testing::Values(Path::Accelerated, Path::NoVaes, Path::Portable),
                                          testing::Range(size_t{0}, std::size(kCiphers))),
                         cipher_case_name);

// ---- Rijndael beyond AES: 24- and 32-byte blocks ----

class Rijndael : public ::testing::TestWithParam<Path> {
protected:
    void SetUp() override { use_path(GetParam()); }
    void TearDown() override { use_path(Path::Accelerated); }
};

TEST_P(Rijndael, KnownAnswers) {
    auto vectors = qvtest::read_vectors("vorpkit/rijndael_kat.txt");
    ASSERT_EQ(vectors.size(), 12u);
    for (auto &v : vectors) {
        SCOPED_TRACE(v["Block"] + " " + v["Key"]);
        Crypt ks = rijndael_keyed(from_hex(v["Key"]), std::stoul(v["Block"]));
        Bytes pt = from_hex(v["Plaintext"]), ct = from_hex(v["Ciphertext"]);
        EXPECT_EQ(to_hex(run(ks, 0, nullptr, pt)), to_hex(ct));
        EXPECT_EQ(to_hex(run(ks, 1, nullptr, ct)), to_hex(pt));
    }
}

// Beyond the published vectors these blocks have no reference: CBC must
// round-trip, leave the last block as chaining value, differ from ECB and
// chain across calls as in one call.
TEST_P(Rijndael, LargeBlocksRoundTripAndChain) {
    std::mt19937 rng(256);
    for (size_t block : {24, 32}) {
        for (size_t key_len : {16, 24, 32}) {
            SCOPED_TRACE(testing::Message() << block << "-byte block, " << key_len << "-byte key");
            Crypt ks = rijndael_keyed(random_bytes(rng, key_len), block);
            Bytes data = random_bytes(rng, 5 * block), iv = random_bytes(rng, block);
            Bytes ecb = run(ks, 0, nullptr, data);
            EXPECT_EQ(run(ks, 1, nullptr, ecb), data);
            Bytes chain = iv;
            Bytes cbc = run(ks, 0, chain.data(), data);
            EXPECT_NE(cbc, ecb);
            EXPECT_EQ(chain, Bytes(cbc.end() - static_cast<long>(block), cbc.end()));
            for (size_t split = 0; split <= data.size(); split += block) {
                Bytes c2 = iv, out(data.size());
                ks(1, c2.data(), cbc.data(), out.data(), static_cast<uint32_t>(split));
                ks(1, c2.data(), cbc.data() + split, out.data() + split, static_cast<uint32_t>(data.size() - split));
                EXPECT_EQ(out, data) << "split " << split;
                EXPECT_EQ(c2, chain) << "split " << split;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, Rijndael, testing::Values(Path::Accelerated, Path::NoVaes, Path::Portable),
                         [](const testing::TestParamInfo<Path> &i) { return kPathNames[static_cast<int>(i.param)]; });

// ---- Key and state records ----

TEST(KeyRecords, RijndaelScheduleLayoutFollowsBlockAndKeySize) {
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

TEST(KeyRecords, DesScheduleIgnoresParityAndMayBeAllocated) {
    qv_uint32_t odd[VORP_DES_KEY_WORDS(1)], flipped[VORP_DES_KEY_WORDS(1)], given[VORP_DES_KEY_WORDS(2)];
    Vorp_desKey(from_hex("133457799bbcdff1").data(), 1, odd);
    Vorp_desKey(from_hex("123556789abddef0").data(), 1, flipped);
    EXPECT_EQ(0, std::memcmp(odd, flipped, sizeof odd));
    Bytes raw = from_hex("0123456789abcdef23456789abcdef01");
    qv_uint32_t *ks = Vorp_desKey(raw.data(), 2, nullptr);
    ASSERT_NE(ks, nullptr);
    Vorp_desKey(raw.data(), 2, given);
    EXPECT_EQ(ks[0], 2u);
    EXPECT_EQ(0, std::memcmp(ks, given, sizeof given));
    std::free(ks);
}

TEST(KeyRecords, Rc4StateHoldsPermutationAndIndices) {
    Bytes key = from_hex("4b6579");
    unsigned char *st = Vorp_rc4Key(key.data(), 3, nullptr);
    ASSERT_NE(st, nullptr);
    EXPECT_EQ(st[256], 0);
    EXPECT_EQ(st[257], 0);
    bool seen[256] = {};
    for (int i = 0; i < 256; ++i) seen[st[i]] = true;
    for (bool s : seen) EXPECT_TRUE(s);
    Bytes zeros(300), out(300);
    Vorp_rc4(st, zeros.data(), out.data(), 300);
    EXPECT_EQ(st[256], 300 % 256);  // i advances once per byte
    std::free(st);
}

// ---- MD5 and SHA-1 ----

struct Hash {
    const char *name;
    size_t words;  // state words, block count included
    size_t digest_len;
    qv_uint32_t *(*init)(qv_uint32_t *);
    void (*hash)(qv_uint32_t *, const void *, qv_uint32_t, void *);
    const EVP_MD *(*reference)();
    std::vector<uint32_t> initial;  // chaining words after init
};

const Hash kHashes[] = {
    {"md5", 5, 16, Vorp_md5Init, Vorp_md5, EVP_md5, {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}},
    {"sha1", 6, 20, Vorp_shaInit, Vorp_sha, EVP_sha1, {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0}},
};

Bytes random_message(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    return random_bytes(rng, n);
}

class HashOracle : public ::testing::TestWithParam<std::tuple<Path, size_t>> {
protected:
    void SetUp() override { use_path(std::get<0>(GetParam())); }
    void TearDown() override { use_path(Path::Accelerated); }
    const Hash &algo() const { return kHashes[std::get<1>(GetParam())]; }

    Bytes one_shot(const Bytes &m) const {
        Bytes d(algo().digest_len);
        algo().hash(nullptr, m.data(), static_cast<qv_uint32_t>(m.size()), d.data());
        return d;
    }
    // Intermediate calls of the given lengths, then a final call with the rest.
    Bytes streamed(const Bytes &m, const std::vector<size_t> &parts) const {
        std::vector<qv_uint32_t> st(algo().words);
        EXPECT_EQ(algo().init(st.data()), st.data());
        size_t at = 0;
        for (size_t n : parts) {
            algo().hash(st.data(), m.data() + at, static_cast<qv_uint32_t>(n), nullptr);
            at += n;
        }
        Bytes d(algo().digest_len);
        algo().hash(st.data(), m.data() + at, static_cast<qv_uint32_t>(m.size() - at), d.data());
        return d;
    }
    Bytes reference(const Bytes &m) const {
        Bytes d(EVP_MAX_MD_SIZE);
        unsigned len = 0;
        EXPECT_EQ(EVP_Digest(m.data(), m.size(), d.data(), &len, algo().reference(), nullptr), 1);
        d.resize(len);
        return d;
    }
};

// Every length 0..300 covers empty input, tails of 0..63 bytes (56..63 pad
// into a second block) and several whole blocks; the larger ones many blocks
// in one compression call.
TEST_P(HashOracle, MatchesOpenSslInOneCall) {
    std::vector<size_t> lengths;
    for (size_t n = 0; n <= 300; ++n) lengths.push_back(n);
    for (size_t n : {4096u, 16384u + 17u, 1000003u}) lengths.push_back(n);
    for (size_t n : lengths) {
        Bytes m = random_message(n, static_cast<uint32_t>(n));
        ASSERT_EQ(one_shot(m), reference(m)) << "length " << n;
    }
}

TEST_P(HashOracle, MatchesOpenSslSplitAtEveryBlockBoundary) {
    for (size_t len : {0u, 63u, 64u, 119u, 120u, 128u, 1000u}) {
        Bytes m = random_message(len, 7 + static_cast<uint32_t>(len));
        Bytes want = reference(m);
        for (size_t first = 0; first <= len; first += 64) {
            ASSERT_EQ(streamed(m, {first}), want) << len << " split at " << first;
            // The remaining whole blocks in calls of one and of two blocks.
            std::vector<size_t> parts{first};
            for (size_t at = first, k = 1; at + 64 * k <= len; at += 64 * k, k = 3 - k) parts.push_back(64 * k);
            ASSERT_EQ(streamed(m, parts), want) << len << " split at " << first << " then in 1-2 blocks";
        }
    }
}

TEST_P(HashOracle, IntermediateCallsDropTheirTail) {
    Bytes m = random_message(100, 100);
    // 50 + 50: the first call hashes no whole block and drops its 50 bytes,
    // so the digest is that of the last 50 bytes alone.
    EXPECT_EQ(streamed(m, {50}), one_shot(Bytes(m.begin() + 50, m.end())));
    // 100 + final 0: 36 bytes dropped.
    EXPECT_EQ(streamed(m, {100}), one_shot(Bytes(m.begin(), m.begin() + 64)));
}

TEST_P(HashOracle, StateHoldsChainingWordsAndBlockCount) {
    std::vector<qv_uint32_t> st(algo().words, 0xdeadbeef);
    algo().init(st.data());
    EXPECT_EQ(std::vector<uint32_t>(st.begin(), st.end() - 1), algo().initial);
    EXPECT_EQ(st.back(), 0u);
    Bytes m = random_message(64 * 3 + 10, 3);
    algo().hash(st.data(), m.data(), static_cast<qv_uint32_t>(m.size()), nullptr);
    EXPECT_EQ(st.back(), 3u);
    qv_uint32_t *heap = algo().init(nullptr);
    ASSERT_NE(heap, nullptr);
    EXPECT_EQ(std::vector<uint32_t>(heap, heap + algo().words - 1), algo().initial);
    EXPECT_EQ(heap[algo().words - 1], 0u);
    free(heap);
}

TEST_P(HashOracle, BadArgumentsSetErrnoAndHashNothing) {
    std::vector<qv_uint32_t> st(algo().words);
    algo().init(st.data());
    auto before = st;
    Bytes d(algo().digest_len, 0xaa);
    Vorp_errno = 0;
    algo().hash(st.data(), nullptr, 64, d.data());
    EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
    EXPECT_EQ(st, before);
    EXPECT_EQ(d, Bytes(algo().digest_len, 0xaa));
    Vorp_errno = 0;
    algo().hash(nullptr, "abc", 3, nullptr);  // one-shot with nowhere to put it
    EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
    Vorp_errno = 0;  // no data at all is an empty message, not an error
    algo().hash(nullptr, nullptr, 0, d.data());
    EXPECT_EQ(Vorp_errno, 0);
    EXPECT_EQ(d, reference({}));
}

INSTANTIATE_TEST_SUITE_P(Paths, HashOracle,
                         testing::Combine(testing::Values(Path::Accelerated, Path::Portable),
                                          testing::Range(size_t{0}, std::size(kHashes))),
                         [](const testing::TestParamInfo<std::tuple<Path, size_t>> &i) {
                             return std::string(kHashes[std::get<1>(i.param)].name) + "_" +
                                    kPathNames[static_cast<int>(std::get<0>(i.param))];
                         });

// ---- Cipher argument checks ----

// call(to, iv) must fail with VORP_E_BAD_ARGUMENT and write neither the
// output bytes nor the chaining bytes it is given.
struct Rejected {
    std::string what;
    std::function<void *(uint8_t *to, uint8_t *iv)> call;
};

unsigned char g_rc4[VORP_RC4_STATE_LEN];  // the state the RC4 rows are given

std::vector<Rejected> rejected_calls() {
    static const Bytes raw = from_hex("0123456789abcdef23456789abcdef01456789abcdef0123");
    static const uint8_t from[64] = {1, 2, 3};
    static qv_uint32_t des[VORP_DES_KEY_WORDS(3)], des0[VORP_DES_KEY_WORDS(3)], des4[VORP_DES_KEY_WORDS(3)];
    static qv_uint32_t aes16[VORP_AES_KEY_WORDS_MAX], aes32[VORP_AES_KEY_WORDS_MAX];
    static qv_uint32_t block20[VORP_AES_KEY_WORDS_MAX], words45[VORP_AES_KEY_WORDS_MAX];
    static qv_uint32_t short_rounds[VORP_AES_KEY_WORDS_MAX];
    Vorp_desKey(raw.data(), 1, des);
    Vorp_aesKey(raw.data(), 16, aes16, 16);
    Vorp_aesKey(raw.data(), 16, aes32, 32);
    Vorp_rc4Key(raw.data(), 4, g_rc4);
    // Schedules with one header word changed.
    std::memcpy(des0, des, sizeof des);
    std::memcpy(des4, des, sizeof des);
    des0[0] = 0;
    des4[0] = 4;
    std::memcpy(block20, aes16, sizeof aes16);
    std::memcpy(words45, aes16, sizeof aes16);
    std::memcpy(short_rounds, aes32, sizeof aes32);
    block20[0] = 20;
    words45[1] = 45;
    short_rounds[1] = 8 * 11;  // ten rounds are too few for 32-byte blocks
    std::vector<Rejected> v;
    // Each block-cipher case in ECB and in CBC.
    auto row = [&](decltype(&Vorp_des) crypt, const std::string &what, const qv_uint32_t *ks, const uint8_t *in,
                   qv_uint32_t len) {
        v.push_back({what, [=](uint8_t *to, uint8_t *) { return crypt(0, ks, nullptr, in, to, len); }});
        v.push_back({what + " CBC", [=](uint8_t *to, uint8_t *iv) { return crypt(1, ks, iv, in, to, len); }});
    };
    auto des_row = [&](const char *what, const qv_uint32_t *ks, const uint8_t *in, qv_uint32_t len) {
        row(Vorp_des, std::string("des ") + what, ks, in, len);
    };
    auto aes_row = [&](const char *what, const qv_uint32_t *ks, const uint8_t *in, qv_uint32_t len) {
        row(Vorp_aes, std::string("aes ") + what, ks, in, len);
    };
    des_row("12 bytes", des, from, 12);
    des_row("7 bytes", des, from, 7);
    des_row("key count 0", des0, from, 16);
    des_row("key count 4", des4, from, 16);
    des_row("no schedule", nullptr, from, 16);
    des_row("no input", des, nullptr, 16);
    aes_row("24 bytes, 16-byte block", aes16, from, 24);
    aes_row("16 bytes, 32-byte block", aes32, from, 16);
    aes_row("block size 20", block20, from, 16);
    aes_row("word count 45", words45, from, 16);
    aes_row("too few rounds", short_rounds, from, 32);
    aes_row("no schedule", nullptr, from, 16);
    aes_row("no input", aes16, nullptr, 16);
    // Key schedules: the output is `to`, which must stay as it was.
    for (int n : {0, 4, -1})
        v.push_back({"des key count " + std::to_string(n), [n](uint8_t *to, uint8_t *) {
                         return Vorp_desKey(raw.data(), n, reinterpret_cast<qv_uint32_t *>(to));
                     }});
    v.push_back({"des no key", [](uint8_t *, uint8_t *) { return Vorp_desKey(nullptr, 1, nullptr); }});
    for (int size : {0, 8, 15, 20, 33, -16}) {
        v.push_back({"aes key size " + std::to_string(size), [size](uint8_t *to, uint8_t *) {
                         return Vorp_aesKey(raw.data(), size, reinterpret_cast<qv_uint32_t *>(to), 16);
                     }});
        v.push_back({"aes block size " + std::to_string(size), [size](uint8_t *to, uint8_t *) {
                         return Vorp_aesKey(raw.data(), 16, reinterpret_cast<qv_uint32_t *>(to), size);
                     }});
    }
    v.push_back({"aes no key", [](uint8_t *, uint8_t *) { return Vorp_aesKey(nullptr, 16, nullptr, 16); }});
    for (qv_int32_t len : {0, -1})
        v.push_back({"rc4 key length " + std::to_string(len),
                     [len](uint8_t *to, uint8_t *) { return Vorp_rc4Key(raw.data(), len, to); }});
    v.push_back({"rc4 no key", [](uint8_t *to, uint8_t *) { return Vorp_rc4Key(nullptr, 4, to); }});
    v.push_back({"rc4 no state", [](uint8_t *to, uint8_t *) { return Vorp_rc4(nullptr, from, to, 4); }});
    v.push_back({"rc4 no input", [](uint8_t *to, uint8_t *) { return Vorp_rc4(g_rc4, nullptr, to, 4); }});
    v.push_back({"rc4 no output", [](uint8_t *, uint8_t *) { return Vorp_rc4(g_rc4, from, nullptr, 4); }});
    return v;
}

TEST(CipherArguments, BadArgumentsChangeNothing) {
    for (const Rejected &r : rejected_calls()) {
        SCOPED_TRACE(r.what);
        std::vector<uint8_t> to(1024, 0xee), iv(32, 0x11);
        Vorp_errno = 0;
        EXPECT_EQ(r.call(to.data(), iv.data()), nullptr);
        EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
        EXPECT_EQ(std::count(to.begin(), to.end(), 0xee), 1024);
        EXPECT_EQ(std::count(iv.begin(), iv.end(), 0x11), 32);
    }
    unsigned char fresh[VORP_RC4_STATE_LEN];
    Vorp_rc4Key(from_hex("01234567").data(), 4, fresh);
    EXPECT_EQ(0, std::memcmp(fresh, g_rc4, sizeof fresh));
    // Nothing to do is no error, and the chaining value stays.
    qv_uint32_t ks[VORP_DES_KEY_WORDS(1)];
    Vorp_desKey(from_hex("0123456789abcdef").data(), 1, ks);
    Vorp_errno = 0;
    uint8_t iv[8] = {9}, to[1] = {0};
    EXPECT_EQ(Vorp_des(0, ks, iv, nullptr, to, 0), to);
    EXPECT_EQ(Vorp_errno, 0);
    EXPECT_EQ(iv[0], 9);
}

// ---- The length field of the final block ----

// Checked against a model written here: OpenSSL's raw compression functions
// over padding built by hand. MD5 keeps the bit length as low + high * 2^24
// but writes low + high * 2^32, so from 2^15 blocks on its digest departs
// from RFC 1321; SHA-1 writes the standard field.

// The final block(s) for `tail` remaining bytes with the given 8-byte field.
Bytes padded_tail(const uint8_t *tail, size_t n, const uint8_t field[8]) {
    Bytes b(n < 56 ? 64 : 128, 0);
    std::memcpy(b.data(), tail, n);
    b[n] = 0x80;
    std::memcpy(b.data() + b.size() - 8, field, 8);
    return b;
}

// MD5 model: field = low + high * 2^32 as a little-endian 64-bit number, with
// low = 512 * (blocks mod 2^15) + 8 * tail and high = blocks / 2^15.
void md5_model_field(uint32_t blocks, size_t tail, uint8_t field[8]) {
    uint64_t low = 512ull * (blocks % 32768) + 8 * tail;
    uint64_t v = low + (static_cast<uint64_t>(blocks / 32768) << 32);
    for (int i = 0; i < 8; ++i) field[i] = static_cast<uint8_t>(v >> (8 * i));
}

// SHA-1 model: the plain 64-bit big-endian bit length.
void sha_model_field(uint32_t blocks, size_t tail, uint8_t field[8]) {
    uint64_t v = 512ull * blocks + 8 * tail;
    for (int i = 0; i < 8; ++i) field[i] = static_cast<uint8_t>(v >> (56 - 8 * i));
}

// Finishes an MD5 computation whose chaining words are in c after `blocks`
// blocks, as the model says.
Bytes md5_model_finish(MD5_CTX &c, uint32_t blocks, const uint8_t *tail, size_t n) {
    uint8_t field[8];
    md5_model_field(blocks, n, field);
    Bytes last = padded_tail(tail, n, field);
    for (size_t at = 0; at < last.size(); at += 64) MD5_Transform(&c, last.data() + at);
    Bytes d(16);
    uint32_t w[4] = {c.A, c.B, c.C, c.D};
    std::memcpy(d.data(), w, 16);  // little-endian host
    return d;
}

Bytes md5_model(const Bytes &m) {
    MD5_CTX c;
    MD5_Init(&c);
    size_t blocks = m.size() / 64;
    for (size_t i = 0; i < blocks; ++i) MD5_Transform(&c, m.data() + 64 * i);
    return md5_model_finish(c, static_cast<uint32_t>(blocks), m.data() + 64 * blocks, m.size() % 64);
}

Bytes rfc_md5(const Bytes &m) {
    Bytes d(16);
    unsigned len = 0;
    EVP_Digest(m.data(), m.size(), d.data(), &len, EVP_md5(), nullptr);
    return d;
}

Bytes vorp_md5(const Bytes &m) {
    Bytes d(16);
    Vorp_md5(nullptr, m.data(), static_cast<qv_uint32_t>(m.size()), d.data());
    return d;
}

TEST(Md5LengthField, LongMessagesGetTheVariantDigest) {
    struct {
        size_t len;
        bool equals_rfc;
    } cases[] = {
        {2097088, true},         // 2^15 - 1 blocks: high is still 0
        {2097088 + 63, true},    // the last length below 2^15 blocks
        {2097152, false},        // exactly 2^15 blocks: high becomes 1
        {2097152 + 100, false},
        {3 * 2097152 + 57, false},  // tail pads into a second block
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.len);
        Bytes m = random_message(c.len, static_cast<uint32_t>(c.len));
        Bytes got = vorp_md5(m);
        EXPECT_EQ(got, md5_model(m));
        EXPECT_EQ(got == rfc_md5(m), c.equals_rfc);
    }
}

// Block counts far beyond what a test can hash: the count is set in the
// state directly, then a final call pads. Covers high's upper bytes and the
// low part at its largest (count mod 2^15 = 32767, tail 63).
TEST(LengthField, LargeBlockCountsInTheFinalBlock) {
    const uint32_t counts[] = {32767, 32768, 0x00ffffff, 0x7fffffff, 0xfedcba98, 0xffffffff};
    const size_t tails[] = {0, 10, 55, 56, 63};
    Bytes tail = random_message(63, 63);
    for (bool portable : {false, true}) {
        vorp::force_portable(portable);
        for (uint32_t count : counts) {
            for (size_t n : tails) {
                SCOPED_TRACE(testing::Message() << "count " << count << " tail " << n << " portable " << portable);
                qv_uint32_t st[6];
                Vorp_md5Init(st);
                st[4] = count;
                MD5_CTX mc;
                MD5_Init(&mc);
                Bytes d(16);
                Vorp_md5(st, tail.data(), static_cast<qv_uint32_t>(n), d.data());
                EXPECT_EQ(d, md5_model_finish(mc, count, tail.data(), n));

                Vorp_shaInit(st);
                st[5] = count;
                SHA_CTX sc;
                SHA1_Init(&sc);
                uint8_t field[8];
                sha_model_field(count, n, field);
                Bytes last = padded_tail(tail.data(), n, field);
                for (size_t at = 0; at < last.size(); at += 64) SHA1_Transform(&sc, last.data() + at);
                Bytes want(20);
                uint32_t h[5] = {sc.h0, sc.h1, sc.h2, sc.h3, sc.h4};
                for (int i = 0; i < 5; ++i)
                    for (int j = 0; j < 4; ++j) want[4 * i + j] = static_cast<uint8_t>(h[i] >> (24 - 8 * j));
                Bytes sd(20);
                Vorp_sha(st, tail.data(), static_cast<qv_uint32_t>(n), sd.data());
                EXPECT_EQ(sd, want);
            }
        }
    }
    vorp::force_portable(false);
}

}  // namespace
