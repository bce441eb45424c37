// The "local" module's internals, linked directly: the byte layout of its
// tokens and the key schedule's agreement and refusals.
#include <gtest/gtest.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

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

// Who may answer a client that requires mutual authentication for a target:
// root, the client's own user, and the users the services file lists for the
// service or, when it lists none, the user of the service's name. The file
// counts only when root owns it and only root can write it.
TEST(LocalWire, ServiceUsersRule) {
    if (geteuid() != 0) GTEST_SKIP() << "the services file must be owned by root: the test writes one as root";
    constexpr uint32_t kDaemon = 1, kNobody = 65534;
    enum Kind { kNone, kText, kGroupWritable, kOtherOwner, kSymlink, kDirectory };
    struct Case {
        const char *what;
        Kind kind;
        const char *text, *target;
        uint32_t service_uid, client_uid;
        Status status;
        qv_uint32_t minor;
    } cases[] = {
        {"no file, stranger", kNone, "", "svc", kDaemon, kNobody, kServiceNotAllowed, kMinorUserNotAllowed},
        {"no file, root", kNone, "", "svc", 0, kNobody, kOk, 0},
        {"no file, the client's own user", kNone, "", "svc", kDaemon, kDaemon, kOk, 0},
        {"no file, user of the service's name", kNone, "", "daemon", kDaemon, kNobody, kOk, 0},
        {"no file, name with host", kNone, "", "daemon@node1", kDaemon, kNobody, kOk, 0},
        {"listed", kText, "svc daemon\n", "svc", kDaemon, kNobody, kOk, 0},
        {"listed by uid, with comments", kText, "# who\n\n  svc\t#65534 \nother daemon\n", "svc", kNobody, 0, kOk, 0},
        {"another service's user", kText, "svc daemon\nother nobody\n", "svc", kNobody, 0, kServiceNotAllowed,
         kMinorUserNotAllowed},
        {"a list replaces the name rule", kText, "daemon nobody\n", "daemon", kDaemon, 0, kServiceNotAllowed,
         kMinorUserNotAllowed},
        {"unknown user listed", kText, "svc no-such-user-qv\n", "svc", kDaemon, 0, kServiceNotAllowed,
         kMinorUserNotAllowed},
        {"three fields", kText, "svc daemon extra\n", "svc", kDaemon, 0, kServiceNotAllowed,
         kMinorServicesFileUnusable},
        {"one field", kText, "svc\n", "svc", kDaemon, 0, kServiceNotAllowed, kMinorServicesFileUnusable},
        {"group-writable", kGroupWritable, "svc daemon\n", "svc", kDaemon, 0, kServiceNotAllowed,
         kMinorServicesFileUnusable},
        {"owned by another user", kOtherOwner, "svc daemon\n", "svc", kDaemon, 0, kServiceNotAllowed,
         kMinorServicesFileUnusable},
        {"symbolic link", kSymlink, "svc daemon\n", "svc", kDaemon, 0, kServiceNotAllowed,
         kMinorServicesFileUnusable},
        {"directory", kDirectory, "", "svc", kDaemon, 0, kServiceNotAllowed, kMinorServicesFileUnusable},
        {"unusable file, root still serves", kGroupWritable, "", "svc", 0, kNobody, kOk, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        qvtest::TempDir dir;
        std::string path = dir.path() + "/local-services";
        if (c.kind != kNone && c.kind != kDirectory) {
            std::string real = dir.write("real", c.text);
            ASSERT_EQ(0, chmod(real.c_str(), c.kind == kGroupWritable ? 0664 : 0644));
            if (c.kind == kOtherOwner) {
                ASSERT_EQ(0, chown(real.c_str(), kNobody, kNobody));
            }
            ASSERT_EQ(0, c.kind == kSymlink ? symlink(real.c_str(), path.c_str()) : rename(real.c_str(), path.c_str()));
        }
        if (c.kind == kDirectory) {
            ASSERT_EQ(0, mkdir(path.c_str(), 0755));
        }
        qv_uint32_t minor = 0;
        EXPECT_EQ(c.status, service_user_allowed(path.c_str(), c.target, c.service_uid, c.client_uid, &minor));
        EXPECT_EQ(c.minor, minor);
    }
}

}  // namespace
}  // namespace qvlocal
