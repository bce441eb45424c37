// The "local" module's internals, linked directly: the byte layout of its
// tokens and the key schedule's agreement and refusals.
#include <gtest/gtest.h>
#include <sodium.h>

#include "local_mech.h"
#include "test_support.h"

namespace qvlocal {
namespace {

TEST(LocalWire, ClientHelloLayoutAndRoundTrip) {
    ClientHello h;
    h.flags = 0x0001;
    for (size_t i = 0; i < kNonceSize; ++i) h.nonce[i] = static_cast<uint8_t>(i);
    for (size_t i = 0; i < kPublicKeySize; ++i) h.public_key[i] = static_cast<uint8_t>(0xa0 + i);
    h.creds = Credentials{0x01020304, 0x05060708, 0x090a0b0c};
    h.target = "svc";
    std::vector<uint8_t> bytes = write_client_hello(h);
    std::string hex = qvtest::to_hex(bytes);
    EXPECT_EQ("01010001", hex.substr(0, 8));
    EXPECT_EQ("000102", hex.substr(8, 6));
    EXPECT_EQ("a0a1", hex.substr(72, 4));
    EXPECT_EQ("010203040506070809" "0a0b0c03737663", hex.substr(136));
    ClientHello back;
    qv_uint32_t reason = 0;
    ASSERT_EQ(kOk, read_client_hello(bytes, back, &reason));
    EXPECT_EQ(h.creds, back.creds);
    EXPECT_EQ(h.target, back.target);
    EXPECT_EQ(h.nonce, back.nonce);
    EXPECT_EQ(h.public_key, back.public_key);
    EXPECT_EQ(h.flags, back.flags);
    // A hello is not a reply, and the other way round.
    ServerReply r;
    EXPECT_EQ(kBadToken, read_server_reply(bytes, r, &reason));
    EXPECT_EQ(kReasonType, reason);
}

TEST(LocalWire, ServerReplyRoundTrip) {
    ServerReply r;
    r.creds = Credentials{1, 2, 3};
    r.service = std::string(255, 'n');
    std::vector<uint8_t> bytes = write_server_reply_body(r);
    ASSERT_EQ(kServerReplyFixed - kConfirmSize + 255, bytes.size());
    bytes.insert(bytes.end(), kConfirmSize, 0x7e);
    ServerReply back;
    qv_uint32_t reason = 0;
    ASSERT_EQ(kOk, read_server_reply(bytes, back, &reason));
    EXPECT_EQ(r.service, back.service);
    EXPECT_EQ(0x7e, back.confirm[31]);
}

TEST(LocalWire, BothSidesDeriveTheSameKeysAndDirectionsDiffer) {
    ASSERT_TRUE(crypto_ready());
    KeyPair a, b;
    a.generate();
    b.generate();
    std::vector<uint8_t> hello = {1, 2, 3}, reply = {4, 5};
    SessionKeys ka, kb, kc;
    ASSERT_EQ(kOk, derive_session_keys(a, b.public_key, hello, reply, ka));
    ASSERT_EQ(kOk, derive_session_keys(b, a.public_key, hello, reply, kb));
    EXPECT_EQ(ka.seal_c2s, kb.seal_c2s);
    EXPECT_EQ(ka.sign_s2c, kb.sign_s2c);
    EXPECT_EQ(ka.confirm, kb.confirm);
    EXPECT_NE(ka.seal_c2s, ka.seal_s2c);
    EXPECT_NE(ka.seal_c2s, ka.sign_c2s);
    // Another transcript, other keys.
    reply.push_back(6);
    ASSERT_EQ(kOk, derive_session_keys(a, b.public_key, hello, reply, kc));
    EXPECT_NE(ka.seal_c2s, kc.seal_c2s);
    EXPECT_NE(ka.confirm, kc.confirm);
}

TEST(LocalWire, LowOrderPublicKeysAreRefused) {
    ASSERT_TRUE(crypto_ready());
    KeyPair a;
    a.generate();
    SessionKeys k;
    std::array<uint8_t, 32> zero{}, one{};
    one[0] = 1;
    EXPECT_EQ(kKeyExchange, derive_session_keys(a, zero, {}, {}, k));
    EXPECT_EQ(kKeyExchange, derive_session_keys(a, one, {}, {}, k));
    EXPECT_EQ(kKeyExchange, derive_session_keys(a, std::span<const uint8_t>(zero).first(31), {}, {}, k));
}

}  // namespace
}  // namespace qvlocal
