// RC4: published key streams, OpenSSL on random keys and data, the stream
// continuing across calls, the state record and the argument checks.
#include <cstdlib>
#include <cstring>

#include "cipher_test_util.h"

namespace {

using ciphertest::Bytes;
using qvtest::from_hex;
using qvtest::to_hex;

struct State {
    explicit State(const Bytes &key) {
        EXPECT_EQ(Vorp_rc4Key(key.data(), static_cast<qv_int32_t>(key.size()), bytes), bytes);
    }
    unsigned char bytes[VORP_RC4_STATE_LEN];
};

Bytes run_rc4(State &st, const Bytes &in) {
    Bytes out(in.size());
    EXPECT_EQ(Vorp_rc4(st.bytes, in.data(), out.data(), static_cast<qv_uint32_t>(in.size())), out.data());
    return out;
}

TEST(Rc4, KnownKeyStreams) {
    auto vectors = qvtest::read_vectors("vorpkit/rc4_keystream.txt");
    ASSERT_GE(vectors.size(), 16u);
    for (auto &v : vectors) {
        SCOPED_TRACE(v["Key"] + " at " + v["Offset"]);
        State st(from_hex(v["Key"]));
        if (v.count("Plaintext")) {
            EXPECT_EQ(to_hex(run_rc4(st, from_hex(v["Plaintext"]))), v["Ciphertext"]);
            continue;
        }
        Bytes want = from_hex(v["Stream"]);
        // The bytes before the offset are skipped in one call, the rest
        // drawn in the next.
        run_rc4(st, Bytes(static_cast<size_t>(std::atoi(v["Offset"].c_str()))));
        EXPECT_EQ(to_hex(run_rc4(st, Bytes(want.size()))), to_hex(want));
    }
}

TEST(Rc4, MatchesOpenSslOnRandomKeysAndData) {
    std::mt19937 rng(6229);
    for (size_t key_len : {1, 5, 7, 16, 32, 100, 256}) {
        for (size_t len : {0, 1, 7, 8, 9, 63, 64, 65, 1000}) {
            Bytes key = ciphertest::random_bytes(rng, key_len);
            Bytes data = ciphertest::random_bytes(rng, len);
            State st(key);
            EXPECT_EQ(to_hex(run_rc4(st, data)), to_hex(ciphertest::openssl_crypt(EVP_rc4(), key, {}, data, true)))
                << key_len << "-byte key, " << len << " bytes";
        }
    }
}

TEST(Rc4, StreamContinuesAcrossCallsAtEverySplit) {
    std::mt19937 rng(3);
    Bytes key = ciphertest::random_bytes(rng, 13);
    Bytes data = ciphertest::random_bytes(rng, 300);
    State one(key);
    Bytes whole = run_rc4(one, data);
    for (size_t split = 0; split <= data.size(); ++split) {
        State st(key);
        Bytes out(data.size());
        Vorp_rc4(st.bytes, data.data(), out.data(), static_cast<qv_uint32_t>(split));
        Vorp_rc4(st.bytes, data.data() + split, out.data() + split, static_cast<qv_uint32_t>(data.size() - split));
        ASSERT_EQ(out, whole) << "split " << split;
        ASSERT_EQ(0, std::memcmp(st.bytes, one.bytes, VORP_RC4_STATE_LEN)) << "split " << split;
    }
    // In place.
    State st(key);
    Bytes inplace = data;
    Vorp_rc4(st.bytes, inplace.data(), inplace.data(), static_cast<qv_uint32_t>(inplace.size()));
    EXPECT_EQ(inplace, whole);
}

TEST(Rc4, StateRecordHoldsPermutationAndIndices) {
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

TEST(Rc4, BadArguments) {
    Bytes key(4, 1);
    unsigned char state[VORP_RC4_STATE_LEN];
    for (qv_int32_t len : {0, -1}) {
        std::memset(state, 0xaa, sizeof state);
        Vorp_errno = 0;
        EXPECT_EQ(Vorp_rc4Key(key.data(), len, state), nullptr) << len;
        EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
        EXPECT_EQ(state[0], 0xaa);
    }
    Vorp_errno = 0;
    EXPECT_EQ(Vorp_rc4Key(nullptr, 4, state), nullptr);
    EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);

    ASSERT_EQ(Vorp_rc4Key(key.data(), 4, state), state);
    unsigned char before[VORP_RC4_STATE_LEN];
    std::memcpy(before, state, sizeof state);
    uint8_t data[4] = {0}, to[4] = {0xee, 0xee, 0xee, 0xee};
    Vorp_errno = 0;
    EXPECT_EQ(Vorp_rc4(nullptr, data, to, 4), nullptr);
    EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
    Vorp_errno = 0;
    EXPECT_EQ(Vorp_rc4(state, nullptr, to, 4), nullptr);
    EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
    Vorp_errno = 0;
    EXPECT_EQ(Vorp_rc4(state, data, nullptr, 4), nullptr);
    EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
    EXPECT_EQ(0, std::memcmp(before, state, sizeof state));
    EXPECT_EQ(to_hex(to, 4), "eeeeeeee");
}

}  // namespace
