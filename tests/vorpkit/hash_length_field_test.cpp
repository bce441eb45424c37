// The length field of the final block, checked against a model written here:
// OpenSSL's raw compression functions over padding built by hand. MD5 keeps
// the bit length as low + high * 2^24 but writes low + high * 2^32, so from
// 2^15 blocks on its digest departs from RFC 1321; SHA-1 writes the standard
// field.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/sha.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "cpu_features.h"
#include "vorpkit.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes random_bytes(size_t n) {
    std::mt19937 gen(static_cast<uint32_t>(n));
    Bytes b(n);
    for (auto &x : b) x = static_cast<uint8_t>(gen());
    return b;
}

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
        Bytes m = random_bytes(c.len);
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
    Bytes tail = random_bytes(63);
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
