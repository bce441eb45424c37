// Every cipher and hash of the library against OpenSSL on every code path
// (all the processor offers; AES-NI without VAES; the portable code), over
// lengths that reach each loop and tail of the accelerated code, in one
// call, split across two calls and in place. Beside the oracle: the
// Rijndael block sizes OpenSSL lacks, the argument checks, allocation
// failure, and the length field of the final hash block against a model.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/provider.h>
#include <openssl/sha.h>

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

#include "alloc_failure.h"
#include "cpu_features.h"
#include "test_support.h"
#include "vorpkit.h"

namespace {

using Bytes = std::vector<uint8_t>;
using qvtest::from_hex;
using qvtest::to_hex;

Bytes random_message(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
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

// One of our ciphers under one key (block 1: RC4; 8: DES; else Rijndael
// with that block): mode bit 0 deciphers; iv is the chaining block (nullptr
// for ECB). A stream cipher ignores both.
using Crypt = std::function<unsigned char *(int mode, uint8_t *iv, const uint8_t *in, uint8_t *out, uint32_t len)>;

Crypt keyed(const Bytes &key, size_t block) {
    auto ks = std::make_shared<std::vector<qv_uint32_t>>(VORP_AES_KEY_WORDS_MAX);
    auto *st = reinterpret_cast<unsigned char *>(ks->data());
    const auto len = static_cast<qv_int32_t>(key.size());
    if (block == 1) {
        EXPECT_EQ(Vorp_rc4Key(key.data(), len, st), st);
        return [ks, st](int, uint8_t *, const uint8_t *in, uint8_t *out, uint32_t n) { return Vorp_rc4(st, in, out, n); };
    }
    auto crypt = block == 8 ? Vorp_des : Vorp_aes;
    if (block == 8)
        EXPECT_EQ(Vorp_desKey(key.data(), len / 8, ks->data()), ks->data());
    else
        EXPECT_EQ(Vorp_aesKey(key.data(), len, ks->data(), static_cast<int>(block)), ks->data());
    return [ks, crypt](int mode, uint8_t *iv, const uint8_t *in, uint8_t *out, uint32_t n) {
        return crypt(mode, ks->data(), iv, in, out, n);
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
    size_t block;                // 1: a stream cipher
    const EVP_CIPHER *(*ecb)();  // the stream itself for a stream cipher
    const EVP_CIPHER *(*cbc)();  // nullptr for a stream cipher
};

const Cipher kCiphers[] = {
    {"des", 8, 8, EVP_des_ecb, EVP_des_cbc},
    {"des_ede", 16, 8, EVP_des_ede_ecb, EVP_des_ede_cbc},
    {"des_ede3", 24, 8, EVP_des_ede3_ecb, EVP_des_ede3_cbc},
    {"aes128", 16, 16, EVP_aes_128_ecb, EVP_aes_128_cbc},
    {"aes192", 24, 16, EVP_aes_192_ecb, EVP_aes_192_cbc},
    {"aes256", 32, 16, EVP_aes_256_ecb, EVP_aes_256_cbc},
    {"rc4_1", 1, 1, EVP_rc4, nullptr},
    {"rc4_7", 7, 1, EVP_rc4, nullptr},
    {"rc4_256", 256, 1, EVP_rc4, nullptr},
};

// Lengths in blocks: the eight-block AES-NI loop with each of its tails, and
// the sixteen-block VAES passes (one, two, three) followed by each AES-NI
// part; for a stream, bytes.
const size_t kBlockCounts[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 15, 16, 17, 19, 23, 24, 31, 32, 47, 48, 65, 1000};

class CipherOracle : public ::testing::TestWithParam<std::tuple<Path, size_t>> {
protected:
    void SetUp() override { use_path(std::get<0>(GetParam())); }
    void TearDown() override { use_path(Path::Accelerated); }
};

// Output and chaining value left behind (the last ciphertext block), in one
// call, in place, and split into two calls at a block boundary.
TEST_P(CipherOracle, MatchesOpenSsl) {
    const Cipher &c = kCiphers[std::get<1>(GetParam())];
    std::mt19937 rng(static_cast<unsigned>(c.key_len * 131 + c.block));
    const std::vector<std::pair<int, bool>> modes =
        c.cbc ? std::vector<std::pair<int, bool>>{{0, false}, {1, false}, {0, true}, {1, true}}
              : std::vector<std::pair<int, bool>>{{0, false}};
    for (size_t blocks : kBlockCounts) {
        if (c.block > 1 && blocks > 48) continue;
        for (auto [mode, cbc] : modes) {
            SCOPED_TRACE(testing::Message() << blocks << " blocks, mode " << mode << (cbc ? " CBC" : ""));
            Bytes key = random_message(c.key_len, rng()), in = random_message(c.block * blocks, rng());
            Bytes iv = random_message(c.block, rng());
            Bytes want = openssl_crypt(cbc ? c.cbc() : c.ecb(), key, cbc ? iv : Bytes{}, in, mode == 0);
            const Bytes &ct = mode == 0 ? want : in;
            const Bytes last = in.empty() ? iv : Bytes(ct.end() - static_cast<long>(c.block), ct.end());
            Bytes chain = iv;
            EXPECT_EQ(to_hex(run(keyed(key, c.block), mode, cbc ? chain.data() : nullptr, in)), to_hex(want));
            EXPECT_EQ(chain, cbc ? last : iv);
            Bytes inplace = in;
            chain = iv;
            Crypt crypt = keyed(key, c.block);
            const size_t split = c.block * (blocks / 2 + blocks % 3);
            if (split > in.size()) continue;
            crypt(mode, cbc ? chain.data() : nullptr, inplace.data(), inplace.data(), static_cast<uint32_t>(split));
            crypt(mode, cbc ? chain.data() : nullptr, inplace.data() + split, inplace.data() + split,
                  static_cast<uint32_t>(in.size() - split));
            EXPECT_EQ(inplace, want) << "split at " << split;
            EXPECT_EQ(chain, cbc ? last : iv) << "split at " << split;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, CipherOracle,
                         testing::Combine(testing::Values(Path::Accelerated, Path::NoVaes, Path::Portable),
                                          testing::Range(size_t{0}, std::size(kCiphers))),
                         [](const testing::TestParamInfo<std::tuple<Path, size_t>> &i) {
                             return std::string(kCiphers[std::get<1>(i.param)].name) + "_" +
                                    kPathNames[static_cast<int>(std::get<0>(i.param))];
                         });

// ---- Rijndael beyond AES: 24- and 32-byte blocks ----

class Rijndael : public ::testing::TestWithParam<Path> {
protected:
    void SetUp() override { use_path(GetParam()); }
    void TearDown() override { use_path(Path::Accelerated); }
};

// Published answers for one block; beyond them these blocks have no
// reference: CBC must round-trip, leave the last block as chaining value,
// differ from ECB and chain across calls as in one call.
TEST_P(Rijndael, KnownAnswersAndLargeBlockChaining) {
    auto vectors = qvtest::read_vectors("vorpkit/rijndael_kat.txt");
    ASSERT_EQ(vectors.size(), 12u);
    for (auto &v : vectors) {
        SCOPED_TRACE(v["Block"] + " " + v["Key"]);
        Crypt ks = keyed(from_hex(v["Key"]), std::stoul(v["Block"]));
        Bytes pt = from_hex(v["Plaintext"]), ct = from_hex(v["Ciphertext"]);
        EXPECT_EQ(to_hex(run(ks, 0, nullptr, pt)), to_hex(ct));
        EXPECT_EQ(to_hex(run(ks, 1, nullptr, ct)), to_hex(pt));
    }
    for (size_t block : {24, 32}) {
        for (size_t key_len : {16, 24, 32}) {
            SCOPED_TRACE(testing::Message() << block << "-byte block, " << key_len << "-byte key");
            Crypt ks = keyed(random_message(key_len, 7), block);
            Bytes data = random_message(5 * block, 8), iv = random_message(block, 9), chain = iv;
            Bytes ecb = run(ks, 0, nullptr, data), cbc = run(ks, 0, chain.data(), data);
            EXPECT_EQ(run(ks, 1, nullptr, ecb), data);
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

// ---- MD5 and SHA-1 ----

struct Hash {
    const char *name;
    size_t words;  // state words, block count included
    size_t digest_len;
    qv_uint32_t *(*init)(qv_uint32_t *);
    void (*hash)(qv_uint32_t *, const void *, qv_uint32_t, void *);
    const EVP_MD *(*reference)();
};

const Hash kHashes[] = {
    {"md5", 5, 16, Vorp_md5Init, Vorp_md5, EVP_md5},
    {"sha1", 6, 20, Vorp_shaInit, Vorp_sha, EVP_sha1},
};

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
// in one compression call. Split: at every block boundary, then the rest in
// calls of one and two blocks.
TEST_P(HashOracle, MatchesOpenSsl) {
    std::vector<size_t> lengths;
    for (size_t n = 0; n <= 300; ++n) lengths.push_back(n);
    for (size_t n : {4096u, 16384u + 17u, 1000003u}) lengths.push_back(n);
    for (size_t n : lengths) {
        Bytes m = random_message(n, static_cast<uint32_t>(n));
        ASSERT_EQ(one_shot(m), reference(m)) << "length " << n;
    }
    for (size_t len : {0u, 63u, 64u, 119u, 120u, 128u, 1000u}) {
        Bytes m = random_message(len, 7 + static_cast<uint32_t>(len)), want = reference(m);
        for (size_t first = 0; first <= len; first += 64) {
            ASSERT_EQ(streamed(m, {first}), want) << len << " split at " << first;
            std::vector<size_t> parts{first};
            for (size_t at = first, k = 1; at + 64 * k <= len; at += 64 * k, k = 3 - k) parts.push_back(64 * k);
            ASSERT_EQ(streamed(m, parts), want) << len << " split at " << first << " then in 1-2 blocks";
        }
    }
    // An intermediate call drops its tail: 50 + 50 hashes the last 50 alone;
    // 100 + 0 the first 64.
    Bytes m = random_message(100, 100);
    EXPECT_EQ(streamed(m, {50}), one_shot(Bytes(m.begin() + 50, m.end())));
    EXPECT_EQ(streamed(m, {100}), one_shot(Bytes(m.begin(), m.begin() + 64)));
}

TEST_P(HashOracle, BadArgumentsHashNothing) {
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

// Each call must fail with VORP_E_BAD_ARGUMENT and write neither the output
// bytes `to` nor the chaining bytes `iv` it is given.
TEST(CipherArguments, BadArgumentsChangeNothing) {
    static const Bytes raw = from_hex("0123456789abcdef23456789abcdef01456789abcdef0123");
    static const uint8_t from[64] = {1, 2, 3};
    using Words = std::vector<qv_uint32_t>;
    Words des(VORP_DES_KEY_WORDS(3)), aes16(VORP_AES_KEY_WORDS_MAX), aes32(VORP_AES_KEY_WORDS_MAX);
    Vorp_desKey(raw.data(), 1, des.data());
    Vorp_aesKey(raw.data(), 16, aes16.data(), 16);
    Vorp_aesKey(raw.data(), 16, aes32.data(), 32);
    unsigned char rc4[VORP_RC4_STATE_LEN], fresh[VORP_RC4_STATE_LEN];
    Vorp_rc4Key(raw.data(), 4, rc4);
    std::memcpy(fresh, rc4, sizeof rc4);
    // A schedule with one header word changed.
    auto with = [](Words w, size_t at, qv_uint32_t v) {
        w[at] = v;
        return w;
    };
    using Call = std::function<void *(uint8_t *to, uint8_t *iv)>;
    std::vector<std::pair<std::string, Call>> calls;
    // Each block-cipher row in ECB and in CBC; an empty schedule is NULL.
    struct BlockRow {
        decltype(&Vorp_des) crypt;
        const char *what;
        Words ks;
        const uint8_t *in;
        qv_uint32_t len;
    } block_rows[] = {
        {Vorp_des, "des 12 bytes", des, from, 12},          {Vorp_des, "des key count 0", with(des, 0, 0), from, 16},
        {Vorp_des, "des key count 4", with(des, 0, 4), from, 16}, {Vorp_des, "des no schedule", {}, from, 16},
        {Vorp_des, "des no input", des, nullptr, 16},       {Vorp_aes, "aes 24 bytes, 16-byte block", aes16, from, 24},
        {Vorp_aes, "aes no schedule", {}, from, 16},        {Vorp_aes, "aes no input", aes16, nullptr, 16},
        {Vorp_aes, "aes block size 20", with(aes16, 0, 20), from, 16},
        {Vorp_aes, "aes word count 45", with(aes16, 1, 45), from, 16},
        {Vorp_aes, "aes too few rounds", with(aes32, 1, 8 * 11), from, 32},  // ten are too few for 32-byte blocks
    };
    for (const BlockRow &r : block_rows) {
        const qv_uint32_t *k = r.ks.empty() ? nullptr : r.ks.data();
        calls.emplace_back(r.what, [r, k](uint8_t *to, uint8_t *) { return r.crypt(0, k, nullptr, r.in, to, r.len); });
        calls.emplace_back(std::string(r.what) + " CBC",
                           [r, k](uint8_t *to, uint8_t *iv) { return r.crypt(1, k, iv, r.in, to, r.len); });
    }
    // Key schedules: the output is `to`, which must stay as it was.
    auto w = [](uint8_t *to) { return reinterpret_cast<qv_uint32_t *>(to); };
    for (int n : {0, 4})
        calls.emplace_back("des key count " + std::to_string(n),
                           [n, w](uint8_t *to, uint8_t *) { return Vorp_desKey(raw.data(), n, w(to)); });
    for (int size : {0, 20, 33}) {
        calls.emplace_back("aes key size " + std::to_string(size),
                           [size, w](uint8_t *to, uint8_t *) { return Vorp_aesKey(raw.data(), size, w(to), 16); });
        calls.emplace_back("aes block size " + std::to_string(size),
                           [size, w](uint8_t *to, uint8_t *) { return Vorp_aesKey(raw.data(), 16, w(to), size); });
    }
    calls.emplace_back("rc4 key length 0", [](uint8_t *to, uint8_t *) { return Vorp_rc4Key(raw.data(), 0, to); });
    calls.emplace_back("des no key", [](uint8_t *, uint8_t *) { return Vorp_desKey(nullptr, 1, nullptr); });
    calls.emplace_back("aes no key", [](uint8_t *, uint8_t *) { return Vorp_aesKey(nullptr, 16, nullptr, 16); });
    calls.emplace_back("rc4 no key", [](uint8_t *to, uint8_t *) { return Vorp_rc4Key(nullptr, 4, to); });
    calls.emplace_back("rc4 no state", [](uint8_t *to, uint8_t *) { return Vorp_rc4(nullptr, from, to, 4); });
    calls.emplace_back("rc4 no output", [&rc4](uint8_t *, uint8_t *) { return Vorp_rc4(rc4, from, nullptr, 4); });
    for (const auto &[what, call] : calls) {
        SCOPED_TRACE(what);
        std::vector<uint8_t> to(1024, 0xee), iv(32, 0x11);
        Vorp_errno = 0;
        EXPECT_EQ(call(to.data(), iv.data()), nullptr);
        EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
        EXPECT_EQ(std::count(to.begin(), to.end(), 0xee), 1024);
        EXPECT_EQ(std::count(iv.begin(), iv.end(), 0x11), 32);
    }
    EXPECT_EQ(0, std::memcmp(fresh, rc4, sizeof fresh));  // a refused call does not advance the stream
    // Nothing to do is no error, and the chaining value stays.
    Vorp_errno = 0;
    uint8_t iv[8] = {9}, to[1] = {0};
    EXPECT_EQ(Vorp_des(0, des.data(), iv, nullptr, to, 0), to);
    EXPECT_EQ(Vorp_errno, 0);
    EXPECT_EQ(iv[0], 9);
}

// ---- Allocation failure ----

// The routines that allocate their record when given none: each run ends in
// a record equal to one built in caller memory, or in NULL with
// VORP_E_NO_MEMORY; nothing leaks.
TEST(VorpAllocFailure, KeyRecordsAndHashStates) {
    const Bytes raw = random_message(256, 5);
    struct Row {
        const char *name;
        size_t bytes;
        std::function<void *(void *into)> build;
    } rows[] = {
        {"des", 4 * VORP_DES_KEY_WORDS(3),
         [&](void *k) { return Vorp_desKey(raw.data(), 3, static_cast<qv_uint32_t *>(k)); }},
        {"rijndael", 4 * VORP_AES_KEY_WORDS(32, 24),
         [&](void *k) { return Vorp_aesKey(raw.data(), 32, static_cast<qv_uint32_t *>(k), 24); }},
        {"rc4", VORP_RC4_STATE_LEN, [&](void *k) { return Vorp_rc4Key(raw.data(), 256, static_cast<unsigned char *>(k)); }},
        {"md5", 4 * VORP_MD5_STATE_WORDS, [](void *k) { return Vorp_md5Init(static_cast<qv_uint32_t *>(k)); }},
        {"sha", 4 * VORP_SHA_STATE_WORDS, [](void *k) { return Vorp_shaInit(static_cast<qv_uint32_t *>(k)); }},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Bytes want(row.bytes);
        ASSERT_EQ(row.build(want.data()), want.data());
        void *got = nullptr;
        qvtest::alloc_failure_sweep(
            [&] {
                Vorp_errno = 0;
                got = row.build(nullptr);
                return got ? 0 : int(Vorp_errno);
            },
            [&](int rc, bool failed) {
                EXPECT_EQ(rc, failed ? VORP_E_NO_MEMORY : 0);
                EXPECT_TRUE(got == nullptr || std::memcmp(got, want.data(), want.size()) == 0);
                std::free(got);
            });
    }
}

// ---- The length field of the final block ----

// Checked against a model written here: OpenSSL's raw compression functions
// over padding built by hand. MD5 keeps the bit length as low + high * 2^24
// but writes low + high * 2^32 (little-endian), with low = 512 * (blocks mod
// 2^15) + 8 * tail and high = blocks / 2^15, so from 2^15 blocks on its
// digest departs from RFC 1321; SHA-1 writes the standard big-endian field.
// The digest of `tail` (n bytes) after `blocks` blocks whose chaining words
// OpenSSL's context holds.
Bytes model_finish(MD5_CTX *mc, SHA_CTX *sc, uint64_t blocks, const uint8_t *tail, size_t n) {
    Bytes b(n < 56 ? 64 : 128, 0);
    std::memcpy(b.data(), tail, n);
    b[n] = 0x80;
    uint64_t v = mc ? 512 * (blocks % 32768) + 8 * n + ((blocks / 32768) << 32) : 512 * blocks + 8 * n;
    for (int i = 0; i < 8; ++i) b[b.size() - 8 + i] = static_cast<uint8_t>(v >> (mc ? 8 * i : 56 - 8 * i));
    for (size_t at = 0; at < b.size(); at += 64) mc ? MD5_Transform(mc, b.data() + at) : SHA1_Transform(sc, b.data() + at);
    if (mc) {
        const uint32_t w[4] = {mc->A, mc->B, mc->C, mc->D};
        return Bytes(reinterpret_cast<const uint8_t *>(w), reinterpret_cast<const uint8_t *>(w) + 16);  // little-endian host
    }
    Bytes d;
    for (uint32_t h : {sc->h0, sc->h1, sc->h2, sc->h3, sc->h4})
        for (int j = 0; j < 4; ++j) d.push_back(static_cast<uint8_t>(h >> (24 - 8 * j)));
    return d;
}

// Block counts far beyond what a test can hash: the count is set in the
// state directly, then a final call pads. Covers high's upper bytes and the
// low part at its largest (count mod 2^15 = 32767, tail 63).
TEST(LengthField, LargeBlockCountsInTheFinalBlock) {
    Bytes tail = random_message(63, 63);
    for (bool portable : {false, true}) {
        vorp::force_portable(portable);
        for (uint32_t count : {32767u, 32768u, 0x00ffffffu, 0x7fffffffu, 0xfedcba98u, 0xffffffffu}) {
            for (size_t n : {0, 10, 55, 56, 63}) {
                SCOPED_TRACE(testing::Message() << "count " << count << " tail " << n << " portable " << portable);
                qv_uint32_t st[6];
                Bytes d(16), sd(20);
                MD5_CTX mc;
                SHA_CTX sc;
                Vorp_md5Init(st);
                st[4] = count;
                MD5_Init(&mc);
                Vorp_md5(st, tail.data(), static_cast<qv_uint32_t>(n), d.data());
                EXPECT_EQ(d, model_finish(&mc, nullptr, count, tail.data(), n));
                Vorp_shaInit(st);
                st[5] = count;
                SHA1_Init(&sc);
                Vorp_sha(st, tail.data(), static_cast<qv_uint32_t>(n), sd.data());
                EXPECT_EQ(sd, model_finish(nullptr, &sc, count, tail.data(), n));
            }
        }
    }
    vorp::force_portable(false);
}

}  // namespace
