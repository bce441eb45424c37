// MD5 and SHA-1: published vectors, OpenSSL on random data, the calling
// convention (whole-block intermediate calls, dropped tails, the state
// record), for the accelerated and the portable paths alike.
#include <openssl/evp.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "cpu_features.h"
#include "test_support.h"
#include "vorpkit.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Algo {
    const char *name;
    const char *vector_file;
    size_t words;  // state words, block count included
    size_t digest_len;
    qv_uint32_t *(*init)(qv_uint32_t *);
    void (*hash)(qv_uint32_t *, const void *, qv_uint32_t, void *);
    const EVP_MD *(*reference)();
    std::vector<uint32_t> initial;  // chaining words after init
};

const Algo kMd5{"md5", "vorpkit/md5.txt", 5, 16, Vorp_md5Init, Vorp_md5, EVP_md5,
                {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}};
const Algo kSha{"sha1", "vorpkit/sha1.txt", 6, 20, Vorp_shaInit, Vorp_sha, EVP_sha1,
                {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0}};

struct Case {
    const Algo *algo;
    bool portable;
};

std::string case_name(const testing::TestParamInfo<Case> &info) {
    return std::string(info.param.algo->name) + (info.param.portable ? "_portable" : "_accelerated");
}

Bytes random_bytes(size_t n, uint32_t seed) {
    std::mt19937 gen(seed);
    Bytes b(n);
    for (auto &x : b) x = static_cast<uint8_t>(gen());
    return b;
}

class HashTest : public testing::TestWithParam<Case> {
protected:
    void SetUp() override { vorp::force_portable(GetParam().portable); }
    void TearDown() override { vorp::force_portable(false); }

    const Algo &algo() const { return *GetParam().algo; }

    Bytes one_shot(const uint8_t *p, size_t n) const {
        Bytes d(algo().digest_len);
        algo().hash(nullptr, p, static_cast<qv_uint32_t>(n), d.data());
        return d;
    }
    Bytes one_shot(const Bytes &m) const { return one_shot(m.data(), m.size()); }

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

TEST_P(HashTest, PublishedVectorsInOneCallAndBlockByBlock) {
    auto vectors = qvtest::read_vectors(algo().vector_file);
    ASSERT_FALSE(vectors.empty());
    for (auto &v : vectors) {
        size_t repeat = v.count("Repeat") ? std::stoul(v["Repeat"]) : 1;
        Bytes m;
        for (size_t i = 0; i < repeat; ++i) m.insert(m.end(), v["Text"].begin(), v["Text"].end());
        SCOPED_TRACE(v["Text"] + " x" + std::to_string(repeat));
        EXPECT_EQ(qvtest::to_hex(one_shot(m)), v["Digest"]);
        std::vector<size_t> blocks(m.size() / 64, 64);
        EXPECT_EQ(qvtest::to_hex(streamed(m, blocks)), v["Digest"]);
    }
}

// Every length 0..300 covers empty input, tails of 0..63 bytes (56..63 pad
// into a second block) and several whole blocks; the larger ones many blocks
// in one compression call.
TEST_P(HashTest, MatchesOpenSslOnRandomData) {
    std::vector<size_t> lengths;
    for (size_t n = 0; n <= 300; ++n) lengths.push_back(n);
    for (size_t n : {4096u, 16384u + 17u, 1000003u}) lengths.push_back(n);
    for (size_t n : lengths) {
        Bytes m = random_bytes(n, static_cast<uint32_t>(n));
        ASSERT_EQ(one_shot(m), reference(m)) << "length " << n;
    }
}

TEST_P(HashTest, StreamingSplitAtEveryBlockBoundary) {
    for (size_t len : {0u, 63u, 64u, 119u, 120u, 128u, 1000u}) {
        Bytes m = random_bytes(len, 7 + static_cast<uint32_t>(len));
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

TEST_P(HashTest, IntermediateCallsDropTheirTail) {
    Bytes m = random_bytes(100, 100);
    EXPECT_EQ(streamed(m, {64}), one_shot(m));
    // 50 + 50: the first call hashes no whole block and drops its 50 bytes,
    // so the digest is that of the last 50 bytes alone.
    Bytes last50(m.begin() + 50, m.end());
    EXPECT_NE(streamed(m, {50}), one_shot(m));
    EXPECT_EQ(streamed(m, {50}), one_shot(last50));
    // 100 + final 0: 36 bytes dropped.
    Bytes first64(m.begin(), m.begin() + 64);
    EXPECT_EQ(streamed(m, {100}), one_shot(first64));
}

TEST_P(HashTest, StateHoldsChainingWordsAndBlockCount) {
    std::vector<qv_uint32_t> st(algo().words, 0xdeadbeef);
    algo().init(st.data());
    std::vector<uint32_t> words(st.begin(), st.end() - 1);
    EXPECT_EQ(words, algo().initial);
    EXPECT_EQ(st.back(), 0u);
    Bytes m = random_bytes(64 * 3 + 10, 3);
    algo().hash(st.data(), m.data(), static_cast<qv_uint32_t>(m.size()), nullptr);
    EXPECT_EQ(st.back(), 3u);

    qv_uint32_t *heap = algo().init(nullptr);
    ASSERT_NE(heap, nullptr);
    EXPECT_EQ(std::vector<uint32_t>(heap, heap + algo().words - 1), algo().initial);
    EXPECT_EQ(heap[algo().words - 1], 0u);
    free(heap);
}

TEST_P(HashTest, BadArgumentsSetErrnoAndHashNothing) {
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

INSTANTIATE_TEST_SUITE_P(Paths, HashTest,
                         testing::Values(Case{&kMd5, false}, Case{&kMd5, true}, Case{&kSha, false},
                                         Case{&kSha, true}),
                         case_name);

}  // namespace
