// The DES key helpers: parity fixing and checking against the bit count of
// every byte value, the weak-key table against OpenSSL's.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <gtest/gtest.h>
#include <openssl/des.h>

#include <bit>
#include <cstring>
#include <random>
#include <vector>

#include "qv_sec.h"
#include "test_support.h"

namespace {

using Key = std::vector<uint8_t>;

const char *const kWeakKeys[16] = {
    "0101010101010101", "fefefefefefefefe", "1f1f1f1f0e0e0e0e", "e0e0e0e0f1f1f1f1",
    "01fe01fe01fe01fe", "fe01fe01fe01fe01", "1fe01fe00ef10ef1", "e01fe01ff10ef10e",
    "01e001e001f101f1", "e001e001f101f101", "1ffe1ffe0efe0efe", "fe1ffe1ffe0efe0e",
    "011f011f010e010e", "1f011f010e010e01", "e0fee0fef1fef1fe", "fee0fee0fef1fef1",
};

// Calls check with each of the 64 keys that differ from k in one bit.
template <typename Check>
void for_each_one_bit_change(const Key &k, Check check) {
    for (size_t i = 0; i < 8; ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            Key changed = k;
            changed[i] ^= static_cast<uint8_t>(1 << bit);
            SCOPED_TRACE(qvtest::to_hex(changed));
            check(changed);
        }
    }
}

bool openssl_is_weak(const Key &k) {
    DES_cblock b;
    std::memcpy(b, k.data(), 8);
    return DES_is_weak_key(&b) == 1;
}

TEST(DesKeyParity, EveryByteValue) {
    for (int v = 0; v < 256; ++v) {
        SCOPED_TRACE(v);
        Key k(8, static_cast<uint8_t>(v));
        bool odd = std::popcount(static_cast<unsigned>(v)) % 2 == 1;
        EXPECT_EQ(sec__des_check_key_parity(k.data()), odd ? 1 : 0);
        sec__des_fix_key_parity(k.data());
        for (uint8_t b : k) {
            EXPECT_EQ(b & 0xfe, v & 0xfe);  // the upper seven bits are kept
            EXPECT_EQ(std::popcount(static_cast<unsigned>(b)) % 2, 1);
        }
        EXPECT_EQ(sec__des_check_key_parity(k.data()), 1);
    }
}

TEST(DesKeyWeak, TableMatchesOpenSsl) {
    for (const char *hex : kWeakKeys) {
        SCOPED_TRACE(hex);
        Key k = qvtest::from_hex(hex);
        EXPECT_EQ(sec__des_is_weak_key(k.data()), 1);
        EXPECT_TRUE(openssl_is_weak(k));
        EXPECT_EQ(sec__des_check_key_parity(k.data()), 1);
        // One changed bit, the parity bit included, leaves the table.
        for_each_one_bit_change(k, [](Key near) { EXPECT_EQ(sec__des_is_weak_key(near.data()), 0); });
    }
}

TEST(DesKeyWeak, RandomKeysAgreeWithOpenSsl) {
    std::mt19937 rng(1);
    for (int i = 0; i < 5000; ++i) {
        Key k(8);
        // Bytes drawn from the weak keys' alphabet, so that hits occur.
        static const uint8_t kAlphabet[] = {0x01, 0xfe, 0x1f, 0xe0, 0x0e, 0xf1};
        for (auto &b : k) b = kAlphabet[rng() % 6];
        EXPECT_EQ(sec__des_is_weak_key(k.data()) == 1, openssl_is_weak(k)) << qvtest::to_hex(k);
    }
}

}  // namespace
