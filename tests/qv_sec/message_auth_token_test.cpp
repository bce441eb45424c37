// The authentication token against OpenSSL as an independent reference:
// DES-CBC under the key and the fixed IV over MD5(message) || key, and the
// checks that sec_process_message makes of a token.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <gtest/gtest.h>
#include <openssl/des.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>
#include <vector>

#include "errors.h"
#include "sec_test_util.h"
#include "sec_buffer.h"
#include "test_support.h"
#include "vorpkit.h"

namespace {

using Bytes = std::vector<uint8_t>;

sec_buffer_desc view(Bytes &v) { return {static_cast<qv_int32_t>(v.size()), v.empty() ? nullptr : v.data()}; }

Bytes random_bytes(std::mt19937 &rng, size_t n) {
    Bytes b(n);
    for (auto &x : b) x = static_cast<uint8_t>(rng());
    return b;
}

Bytes random_key(std::mt19937 &rng) {
    Bytes k = random_bytes(rng, 8);
    sec__des_fix_key_parity(k.data());
    return k;
}

Bytes openssl_md5(const Bytes &msg) {
    Bytes d(16);
    unsigned int n = 0;
    if (EVP_Digest(msg.data(), msg.size(), d.data(), &n, EVP_md5(), nullptr) != 1 || n != 16)
        throw std::runtime_error("OpenSSL MD5 failed");
    return d;
}

// OpenSSL's own DES (the key schedule ignores the parity bits, as ours does).
Bytes openssl_des_cbc(const Bytes &key, const Bytes &in, bool encrypt) {
    DES_cblock k, iv;
    std::memcpy(k, key.data(), 8);
    std::memcpy(iv, sec_c_des_iv, 8);
    DES_key_schedule schedule;
    DES_set_key_unchecked(&k, &schedule);
    Bytes out(in.size());
    DES_ncbc_encrypt(in.data(), out.data(), static_cast<long>(in.size()), &schedule, &iv,
                     encrypt ? DES_ENCRYPT : DES_DECRYPT);
    return out;
}

Bytes reference_token(const Bytes &key, const Bytes &digest) {
    Bytes plain = digest;
    plain.insert(plain.end(), key.begin(), key.end());
    return openssl_des_cbc(key, plain, true);
}

Bytes prepare(Bytes key, Bytes msg) {
    sec_buffer_desc k = view(key), in = view(msg);
    qvtest::SecBuffer out;
    EXPECT_EQ(sec_prepare_message(&k, SEC_F_MSG_DIGEST, &in, &out.d), 0) << last_error_text();
    return out.bytes();
}

qv_int32_t process(Bytes key, Bytes msg, Bytes token) {
    sec_buffer_desc k = view(key), in = view(msg), t = view(token);
    return sec_process_message(&k, SEC_F_MSG_DIGEST, &in, &t);
}

TEST(MessageAuthToken, FixedIv) {
    EXPECT_EQ(qvtest::to_hex(sec_c_des_iv, 8), "c35a917ec35a917e");
}

TEST(MessageAuthToken, MatchesOpenSslOnRandomMessagesAndKeys) {
    std::mt19937 rng(20240611);
    // Lengths around the MD5 block and padding boundaries, then random ones.
    std::vector<size_t> lengths = {1, 7, 8, 9, 55, 56, 63, 64, 65, 119, 120, 128, 1000, 4096};
    for (int i = 0; i < 50; ++i) lengths.push_back(1 + rng() % 3000);
    for (size_t len : lengths) {
        SCOPED_TRACE(len);
        Bytes key = random_key(rng), msg = random_bytes(rng, len);
        Bytes token = prepare(key, msg);
        ASSERT_EQ(token.size(), 24u);
        EXPECT_EQ(qvtest::to_hex(token), qvtest::to_hex(reference_token(key, openssl_md5(msg))));
        // Deciphered by the reference, the token is the digest and the key.
        Bytes plain = openssl_des_cbc(key, token, false);
        EXPECT_EQ(Bytes(plain.begin(), plain.begin() + 16), openssl_md5(msg));
        EXPECT_EQ(Bytes(plain.begin() + 16, plain.end()), key);
        EXPECT_EQ(process(key, msg, token), 0) << last_error_text();
        // The exported IV is copied, never chained into.
        EXPECT_EQ(qvtest::to_hex(sec_c_des_iv, 8), "c35a917ec35a917e");
    }
}

TEST(MessageAuthToken, WeakKeysWork) {
    // Only the generator avoids weak keys; prepare and process accept them.
    for (const char *hex : {"0101010101010101", "fefefefefefefefe", "01fe01fe01fe01fe", "1fe01fe00ef10ef1"}) {
        SCOPED_TRACE(hex);
        Bytes key = qvtest::from_hex(hex), msg = {'a', 'b', 'c'};
        Bytes token = prepare(key, msg);
        EXPECT_EQ(token, reference_token(key, openssl_md5(msg)));
        EXPECT_EQ(process(key, msg, token), 0) << last_error_text();
    }
}

// From 2^15 blocks on, the token carries this system's MD5 variant, not the
// RFC 1321 digest, so both sides must use the library.
TEST(MessageAuthToken, LongMessagesUseTheLibraryDigest) {
    std::mt19937 rng(3);
    Bytes key = random_key(rng);
    for (size_t len : {size_t{2097088}, size_t{2097152}}) {
        SCOPED_TRACE(len);
        Bytes msg = random_bytes(rng, len);
        Bytes ours(16);
        Vorp_md5(nullptr, msg.data(), static_cast<qv_uint32_t>(msg.size()), ours.data());
        Bytes token = prepare(key, msg);
        EXPECT_EQ(token, reference_token(key, ours));
        EXPECT_EQ(ours == openssl_md5(msg), len < 2097152);
        EXPECT_EQ(process(key, msg, token), 0) << last_error_text();
    }
}

TEST(MessageAuthToken, EveryTamperedTokenByteIsCaught) {
    std::mt19937 rng(11);
    Bytes key = random_key(rng), msg = random_bytes(rng, 200);
    Bytes token = prepare(key, msg);
    for (size_t i = 0; i < token.size(); ++i) {
        for (uint8_t bit : {0x01, 0x80}) {
            SCOPED_TRACE(i);
            Bytes bad = token;
            bad[i] ^= bit;
            EXPECT_EQ(process(key, msg, bad), SEC_S_MSG_VERIFY_FAILED);
            // A changed block garbles its own plaintext and flips a bit of
            // the next: from the second block on, the key half is hit, and
            // the key is checked before the digest.
            int expected = i >= 8 ? MSG_2650_048 : MSG_2650_049;
            EXPECT_EQ(last_message(), expected);
        }
    }
}

TEST(MessageAuthToken, VerificationFailures) {
    std::mt19937 rng(5);
    Bytes key = random_key(rng), other = random_key(rng), msg = random_bytes(rng, 64);
    Bytes token = prepare(key, msg);

    EXPECT_EQ(process(other, msg, token), SEC_S_MSG_VERIFY_FAILED);
    EXPECT_EQ(last_message(), MSG_2650_048);

    for (size_t i : {size_t{0}, size_t{31}, size_t{63}}) {
        Bytes changed = msg;
        changed[i] ^= 0x01;
        EXPECT_EQ(process(key, changed, token), SEC_S_MSG_VERIFY_FAILED);
        EXPECT_EQ(last_message(), MSG_2650_049);
    }
    Bytes longer = msg;
    longer.push_back(0);
    EXPECT_EQ(process(key, longer, token), SEC_S_MSG_VERIFY_FAILED);
    EXPECT_EQ(last_message(), MSG_2650_049);

    // Enciphered under this key but carrying another key in its key half,
    // with a correct digest: refused for the key.
    Bytes plain = openssl_md5(msg);
    plain.insert(plain.end(), other.begin(), other.end());
    Bytes forged = openssl_des_cbc(key, plain, true);
    EXPECT_EQ(process(key, msg, forged), SEC_S_MSG_VERIFY_FAILED);
    EXPECT_EQ(last_message(), MSG_2650_048);
}

}  // namespace
