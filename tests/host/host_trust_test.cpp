// Trusted-hosts lines, host key files and signed assertions, attacked byte by byte.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "host_files.h"
#include "host_trust.h"
#include "test_support.h"

namespace {

using qvhost::AssertionCheck;

std::string hex_key(const qvhost::HostKey &k) { return qvhost::to_hex(k.public_key); }

struct Keys {
    qvhost::HostKey a, b, old_a, stranger;
    Keys() {
        for (qvhost::HostKey *k : {&a, &b, &old_a, &stranger}) qvhost::generate_host_key(*k);
    }
};
const Keys &keys() {
    static const Keys k;
    return k;
}

TEST(TrustedHosts, LinesAcceptedOrRefusedWithTheirNumber) {
    const std::string ka = hex_key(keys().a), kb = hex_key(keys().b);
    struct Row {
        std::string text;
        std::string why;  // empty: accepted
    } rows[] = {
        {"# comment\n\n  \t\nnode-a 00000000000000a1 " + ka + "\n", ""},
        {"node-a\t00000000000000A1  " + ka + " # trailing comment\r\n", ""},
        {"node-a 00000000000000a1 " + ka + " until=2024-02-29T12:34:56Z", ""},
        {"node-a 00000000000000a1 " + ka + " until=1893456000", ""},
        {"\n\nnode/a 00000000000000a1 " + ka, "line 3: bad host name"},
        {std::string(254, 'h') + " 00000000000000a1 " + ka, "line 1: bad host name"},
        {"node-a 0000000000000a1 " + ka, "line 1: node ID must be"},
        {"node-a 00000000000000a1 " + ka.substr(1), "line 1: public key must be"},
        {"node-a 00000000000000a1 " + std::string(64, '0'), "line 1: not a usable"},
        {"node-a 00000000000000a1", "line 1: expected HOST"},
        {"node-a 00000000000000a1 " + ka + " until=1 extra", "line 1: expected HOST"},
        {"node-a 00000000000000a1 " + ka + " 1893456000", "line 1: expected until="},
        {"node-a 00000000000000a1 " + ka + " until=2023-02-29T00:00:00Z", "line 1: expected until="},
        {"node-a 00000000000000a1 " + ka + " until=2030-01-01T24:00:00Z", "line 1: expected until="},
        {"node-a 00000000000000a1 " + ka + " until=99999999999999", "line 1: expected until="},
        {"node-a 00000000000000a1 " + ka + "\nnode-b 00000000000000b2 " + kb + "\n# x\nnode-c 00000000000000c3 " + ka,
         "line 4: key already listed on line 1"},
    };
    for (const Row &r : rows) {
        qvhost::TrustedHosts t;
        std::string why;
        bool ok = qvhost::parse_trusted_hosts(r.text, t, why);
        EXPECT_EQ(ok, r.why.empty()) << r.text << " -> " << why;
        if (!r.why.empty()) {
            EXPECT_EQ(why.rfind(r.why, 0), 0u) << r.text << " -> " << why;
        }
        if (ok) {
            ASSERT_EQ(t.keys.size(), 1u) << r.text;
            EXPECT_EQ(t.keys[0].node_id, 0xa1u);
        }
    }
    qvhost::TrustedHosts t;
    std::string why;
    ASSERT_TRUE(qvhost::parse_trusted_hosts(rows[2].text, t, why));
    EXPECT_EQ(t.keys[0].until, 1709210096);
}

TEST(HostFiles, UnsafePermissionsAndFormsAreRefused) {
    qvtest::TempDir dir;
    qvhost::HostKey k;
    qvhost::generate_host_key(k);
    const std::string key_text = qvhost::encode_host_key(k);
    const std::string trusted_text = "node-a 00000000000000a1 " + hex_key(k) + "\n";
    struct Row {
        bool key;  // else the trusted-hosts file
        std::string content;
        mode_t mode;
        std::string why;  // empty: accepted
    } rows[] = {
        {true, key_text, 0600, ""},
        {true, key_text, 0400, ""},
        {true, key_text, 0640, "has unsafe permissions 0640"},
        {true, key_text, 0602, "has unsafe permissions 0602"},
        {true, key_text.substr(0, key_text.find("public")), 0600, "host key file lacks"},
        {true, "qvsec-host-key 1\nseed " + std::string(64, '1') + "\npublic " + hex_key(k) + "\n", 0600,
         "host key file: the public key does not belong"},
        {false, trusted_text, 0644, ""},
        {false, trusted_text, 0664, "has unsafe permissions 0664"},
        {false, trusted_text, 0646, "has unsafe permissions 0646"},
        {false, std::string((1 << 20) + 1, '#'), 0644, "is larger than"},
    };
    int n = 0;
    for (const Row &r : rows) {
        std::string path = dir.write("f" + std::to_string(n++), r.content), why;
        ASSERT_EQ(chmod(path.c_str(), r.mode), 0);
        qvhost::HostKey read_key;
        qvhost::TrustedHosts trusted;
        bool ok = r.key ? qvhost::read_host_key(path, read_key, why) : qvhost::read_trusted_hosts(path, trusted, why);
        EXPECT_EQ(ok, r.why.empty()) << path << ": " << why;
        EXPECT_NE(why.find(r.why), std::string::npos) << why;
        if (ok) {
            EXPECT_EQ(r.key ? read_key.public_key : trusted.keys.at(0).key, k.public_key);
        }
    }
    // A symbolic link, a directory and a file of another owner are refused.
    std::string why, target = dir.write("real", key_text);
    ASSERT_EQ(chmod(target.c_str(), 0600), 0);
    ASSERT_EQ(symlink(target.c_str(), (dir.path() + "/link").c_str()), 0);
    qvhost::HostKey read_key;
    EXPECT_FALSE(qvhost::read_host_key(dir.path() + "/link", read_key, why));
    EXPECT_NE(why.find("symbolic link"), std::string::npos) << why;
    EXPECT_FALSE(qvhost::read_host_key(dir.path(), read_key, why));
    EXPECT_NE(why.find("not a regular file"), std::string::npos) << why;
    if (geteuid() == 0) {
        ASSERT_EQ(chown(target.c_str(), 65534, 65534), 0);
        EXPECT_FALSE(qvhost::read_host_key(target, read_key, why));
        EXPECT_NE(why.find("owned by another user"), std::string::npos) << why;
    }
}

class AssertionTest : public ::testing::Test {
protected:
    static constexpr std::int64_t kNow = 1'800'000'000;
    void SetUp() override {
        std::string why;
        ASSERT_TRUE(qvhost::parse_trusted_hosts("node-a 00000000000000a1 " + hex_key(keys().a) + "\n" +
                                                    "node-b 00000000000000b2 " + hex_key(keys().b) + "\n" +
                                                    "node-a 00000000000000a1 " + hex_key(keys().old_a) +
                                                    " until=" + std::to_string(kNow) + "\n",
                                                trusted_, why))
            << why;
        base_.flags = qvhost::kFromService;
        base_.not_before = kNow - 5;
        base_.expiry = kNow + 100;
        for (std::size_t i = 0; i < 32; ++i) {
            base_.nonce[i] = static_cast<std::uint8_t>(i);
            base_.kx_public[i] = static_cast<std::uint8_t>(0x40 + i);
            base_.binding[i] = static_cast<std::uint8_t>(0x80 + i);
        }
        base_.uid = 1001;
        base_.user = "alice";
        base_.host = "node-a";
        base_.node_id = 0xa1;
        base_.peer_service = "svc";
        base_.peer_host = "node-b";
    }
    // Checks from an exactly sized heap copy, so that an over-read is caught
    // by AddressSanitizer.
    AssertionCheck check(const std::vector<std::uint8_t> &bytes, std::int64_t now = kNow, std::int64_t skew = 0,
                         std::size_t *consumed = nullptr) {
        std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[bytes.size() + 1]);
        if (!bytes.empty()) std::memcpy(copy.get(), bytes.data(), bytes.size());
        qvhost::Assertion out;
        return qvhost::check_assertion({copy.get(), bytes.size()}, trusted_, now, skew, out, consumed);
    }
    qvhost::TrustedHosts trusted_;
    qvhost::Assertion base_;
};

TEST_F(AssertionTest, RoundTripsEveryField) {
    std::vector<std::uint8_t> bytes = qvhost::sign_assertion(base_, keys().a);
    bytes.push_back(0xee);  // the next token's first byte: not consumed
    qvhost::Assertion out;
    std::size_t consumed = 0;
    ASSERT_EQ(qvhost::check_assertion(bytes, trusted_, kNow, 0, out, &consumed), AssertionCheck::kOk);
    EXPECT_EQ(consumed, bytes.size() - 1);
    EXPECT_EQ(out.key_id, qvhost::key_id_of(keys().a.public_key));
    EXPECT_EQ(std::tie(out.flags, out.not_before, out.expiry, out.nonce, out.kx_public, out.binding, out.uid, out.user,
                       out.host, out.node_id, out.peer_service, out.peer_host),
              std::tie(base_.flags, base_.not_before, base_.expiry, base_.nonce, base_.kx_public, base_.binding,
                       base_.uid, base_.user, base_.host, base_.node_id, base_.peer_service, base_.peer_host));
}

TEST_F(AssertionTest, EveryTamperedByteIsRefused) {
    const std::vector<std::uint8_t> good = qvhost::sign_assertion(base_, keys().a);
    // One byte of each field, its lowest bit flipped.
    struct Row {
        std::size_t offset;
        AssertionCheck want;
    } rows[] = {
        {0, AssertionCheck::kMalformed},    {4, AssertionCheck::kMalformed},  // magic, version
        {5, AssertionCheck::kMalformed},    {6, AssertionCheck::kBadSignature},  // unknown flag, known flag
        {7, AssertionCheck::kUntrusted},    {140, AssertionCheck::kMalformed},  // key id, user length
        {148, AssertionCheck::kUntrusted},  {good.size() - 1, AssertionCheck::kBadSignature},  // host, signature
    };
    // Every other field is covered by the signature: the loop below flips
    // each byte in turn.
    for (const Row &r : rows) {
        std::vector<std::uint8_t> bad = good;
        bad[r.offset] ^= 0x01;
        EXPECT_EQ(check(bad), r.want) << "offset " << r.offset;
    }
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::vector<std::uint8_t> bad = good;
        bad[i] ^= 0x80;
        EXPECT_NE(check(bad), AssertionCheck::kOk) << "offset " << i;
    }
}

TEST_F(AssertionTest, TruncatedAtEveryLengthIsMalformed) {
    const std::vector<std::uint8_t> good = qvhost::sign_assertion(base_, keys().a);
    for (std::size_t n = 0; n < good.size(); ++n) {
        std::size_t consumed = 99;
        EXPECT_EQ(check({good.begin(), good.begin() + n}, kNow, 0, &consumed), AssertionCheck::kMalformed) << n;
        EXPECT_EQ(consumed, 0u);
    }
}

TEST_F(AssertionTest, KeysTimesAndSkew) {
    struct Row {
        const char *what;
        const qvhost::HostKey *key;
        std::string host;
        std::int64_t not_before, expiry, now, skew;
        AssertionCheck want;
    } rows[] = {
        {"untrusted key", &keys().stranger, "node-a", kNow, kNow + 10, kNow, 0, AssertionCheck::kUntrusted},
        {"key of another host", &keys().b, "node-a", kNow, kNow + 10, kNow, 0, AssertionCheck::kUntrusted},
        {"old key within overlap", &keys().old_a, "node-a", kNow, kNow + 10, kNow, 0, AssertionCheck::kOk},
        {"old key after overlap", &keys().old_a, "node-a", kNow, kNow + 10, kNow + 1, 0, AssertionCheck::kUntrusted},
        {"not yet valid", &keys().a, "node-a", kNow + 10, kNow + 20, kNow, 9, AssertionCheck::kNotYetValid},
        {"not yet valid within skew", &keys().a, "node-a", kNow + 10, kNow + 20, kNow, 10, AssertionCheck::kOk},
        {"expired", &keys().a, "node-a", kNow - 20, kNow - 10, kNow, 9, AssertionCheck::kExpired},
        {"expired within skew", &keys().a, "node-a", kNow - 20, kNow - 10, kNow, 10, AssertionCheck::kOk},
        {"expiry before not-before", &keys().a, "node-a", kNow, kNow - 1, kNow, 0, AssertionCheck::kMalformed},
        {"extreme times", &keys().a, "node-a", INT64_MIN, INT64_MAX, kNow, INT64_MAX, AssertionCheck::kOk},
        {"bad host name", &keys().a, "node a", kNow, kNow + 10, kNow, 0, AssertionCheck::kMalformed},
    };
    for (const Row &r : rows) {
        qvhost::Assertion a = base_;
        a.host = r.host;
        a.not_before = r.not_before;
        a.expiry = r.expiry;
        EXPECT_EQ(check(qvhost::sign_assertion(a, *r.key), r.now, r.skew), r.want) << r.what;
    }
}

}  // namespace
