// Message authentication under a shared DES key: the parity and weak-key
// helpers against the bit count of every byte value and OpenSSL's table,
// generated keys, the token against OpenSSL as an independent reference
// (DES-CBC under the key and the fixed IV over MD5(message) || key), and
// every refusal of sec_prepare_message and sec_process_message.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <gtest/gtest.h>
#include <openssl/des.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "child_process.h"
#include "errors.h"
#include "sec_buffer.h"
#include "sec_test_util.h"
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
    EXPECT_EQ(EVP_Digest(msg.data(), msg.size(), d.data(), &n, EVP_md5(), nullptr), 1);
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

TEST(DesKey, ParityAndWeakKeys) {
    for (int v = 0; v < 256; ++v) {
        SCOPED_TRACE(v);
        Bytes k(8, static_cast<uint8_t>(v));
        EXPECT_EQ(sec__des_check_key_parity(k.data()), std::popcount(static_cast<unsigned>(v)) % 2);
        sec__des_fix_key_parity(k.data());
        for (uint8_t b : k) {
            EXPECT_EQ(b & 0xfe, v & 0xfe);  // the upper seven bits are kept
            EXPECT_EQ(std::popcount(static_cast<unsigned>(b)) % 2, 1);
        }
    }
    for (const char *hex : {"0101010101010101", "fefefefefefefefe", "1f1f1f1f0e0e0e0e", "e0e0e0e0f1f1f1f1",
                            "01fe01fe01fe01fe", "fe01fe01fe01fe01", "1fe01fe00ef10ef1", "e01fe01ff10ef10e",
                            "01e001e001f101f1", "e001e001f101f101", "1ffe1ffe0efe0efe", "fe1ffe1ffe0efe0e",
                            "011f011f010e010e", "1f011f010e010e01", "e0fee0fef1fef1fe", "fee0fee0fef1fef1"}) {
        SCOPED_TRACE(hex);
        Bytes k = qvtest::from_hex(hex);
        DES_cblock b;
        std::memcpy(b, k.data(), 8);
        ASSERT_EQ(DES_is_weak_key(&b), 1);
        EXPECT_EQ(sec__des_is_weak_key(k.data()), 1);
        // One changed bit, the parity bit included, leaves the table.
        for (size_t i = 0; i < 64; ++i) {
            Bytes near = k;
            near[i / 8] ^= static_cast<uint8_t>(1 << (i % 8));
            EXPECT_EQ(sec__des_is_weak_key(near.data()), 0) << i;
        }
    }
}

// Well-formed keys that differ from call to call, and from process to
// process: children forked from one parent start from identical memory.
TEST(MessageAuthKeygen, KeysAreOddParityStrongAndDistinct) {
    std::set<std::string> seen;
    auto check = [&](const unsigned char *k) {
        EXPECT_EQ(sec__des_check_key_parity(k), 1);
        EXPECT_EQ(sec__des_is_weak_key(k), 0);
        EXPECT_TRUE(seen.insert(qvtest::to_hex(k, 8)).second) << "repeated key";
    };
    for (int i = 0; i < 32; ++i) {
        qvtest::SecBuffer key;
        key.d.length = -3;
        ASSERT_EQ(sec_generate_key(key.get()), 0) << last_error_text();
        ASSERT_EQ(key.bytes().size(), 8u);
        check(key.bytes().data());
    }
    for (int child = 0; child < 4; ++child) {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        // Eight bytes fit in the pipe: the child writes them and exits.
        EXPECT_EQ(qvtest::run_in_child([&] {
                      sec_buffer_desc key{0, nullptr};
                      if (sec_generate_key(&key) != 0 || key.length != 8) return 1;
                      return write(fds[1], key.value, 8) == 8 ? 0 : 1;
                  }),
                  0);
        close(fds[1]);
        unsigned char buf[8];
        ASSERT_EQ(read(fds[0], buf, sizeof buf), 8);
        close(fds[0]);
        check(buf);
    }
}

TEST(MessageAuthToken, MatchesOpenSsl) {
    std::mt19937 rng(20240611);
    // Lengths around the MD5 block and padding boundaries, then random ones.
    std::vector<size_t> lengths = {1, 8, 55, 56, 63, 64, 65, 119, 120, 4096};
    for (int i = 0; i < 10; ++i) lengths.push_back(1 + rng() % 3000);
    for (size_t len : lengths) {
        SCOPED_TRACE(len);
        Bytes key = random_key(rng), msg = random_bytes(rng, len);
        Bytes token = prepare(key, msg);
        EXPECT_EQ(qvtest::to_hex(token), qvtest::to_hex(reference_token(key, openssl_md5(msg))));
        EXPECT_EQ(process(key, msg, token), 0) << last_error_text();
    }
    // The exported IV is the fixed one, copied, never chained into.
    EXPECT_EQ(qvtest::to_hex(sec_c_des_iv, 8), "c35a917ec35a917e");
    // Only the generator avoids weak keys; prepare and process accept them.
    Bytes weak = qvtest::from_hex("1fe01fe00ef10ef1"), abc = {'a', 'b', 'c'};
    EXPECT_EQ(prepare(weak, abc), reference_token(weak, openssl_md5(abc)));
    EXPECT_EQ(process(weak, abc, reference_token(weak, openssl_md5(abc))), 0);
}

// Every changed bit is caught, and by the check that sees it: a mutant that
// skips the key or the digest comparison lets some of them through.
TEST(MessageAuthToken, VerificationFailures) {
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
            EXPECT_EQ(last_message(), i >= 8 ? MSG_2650_048 : MSG_2650_049);
        }
    }
}

// The arguments of one call, each a buffer that can be replaced by NULL.
struct Call {
    Bytes key = qvtest::from_hex("c4a7d6e0459b5d3b");
    qv_int32_t key_length = -1;  // -1: key.size()
    bool key_null = false, key_no_bytes = false;
    qv_uint32_t flags = SEC_F_MSG_DIGEST;
    Bytes msg = {'h', 'e', 'l', 'l', 'o'};
    qv_int32_t msg_length = -1;
    bool msg_null = false, msg_no_bytes = false;
    Bytes token = Bytes(24, 0x5a);
    qv_int32_t token_length = -1;
    bool token_null = false, token_no_bytes = false;
};

sec_buffer_desc make(Bytes &b, qv_int32_t length, bool no_bytes) {
    return {length != -1 ? length : static_cast<qv_int32_t>(b.size()), no_bytes ? nullptr : b.data()};
}

// Every outcome of both routines, in the order the checks are made. Both
// routines name sec_prepare_message in the argument message. A failed
// prepare leaves its output empty; what succeeds without computing anything
// gives no output, and then the token is not looked at, whatever it holds.
TEST(MessageAuthErrors, EveryOutcome) {
    constexpr qv_uint32_t kDigest = SEC_F_MSG_DIGEST, kNoDigest = SEC_F_MSG_NO_DIGEST;
    struct Case {
        const char *what;
        std::function<void(Call &)> edit;
        qv_int32_t prepare_rc, process_rc;
        int msg;
        size_t prepared = 0;  // the token's length when prepare succeeds
    } cases[] = {
        {"key NULL", [](Call &c) { c.key_null = true; }, 4, 4, MSG_2650_002},
        {"message NULL", [](Call &c) { c.msg_null = true; }, 4, 4, MSG_2650_002},
        {"output NULL", [](Call &c) { c.token_null = true; }, 4, 4, MSG_2650_002},
        {"no flag", [](Call &c) { c.flags = 0; }, 4, 4, MSG_2650_002},
        {"both flags", [](Call &c) { c.flags = kDigest | kNoDigest; }, 4, 4, MSG_2650_002},
        {"negative message length", [](Call &c) { c.msg_length = -5; }, 4, 4, MSG_2650_002},
        {"message length without bytes", [](Call &c) { c.msg_no_bytes = true; }, 4, 4, MSG_2650_002},
        {"arguments before the key", [](Call &c) { c.flags = 0; c.key_length = 7; }, 4, 4, MSG_2650_002},
        {"7-byte key", [](Call &c) { c.key_length = 7; }, 27, 27, MSG_2650_045},
        {"9-byte key", [](Call &c) { c.key.push_back(0x01); }, 27, 27, MSG_2650_045},
        {"key without bytes", [](Call &c) { c.key_no_bytes = true; }, 27, 27, MSG_2650_045},
        {"even parity in the last byte", [](Call &c) { c.key[7] ^= 0x01; }, 27, 27, MSG_2650_045},
        {"even parity in the first byte", [](Call &c) { c.key[0] ^= 0x80; }, 27, 27, MSG_2650_045},
        {"bad key, no digest", [](Call &c) { c.flags = kNoDigest; c.key[3] ^= 1; }, 27, 27, MSG_2650_045},
        {"23-byte token", [](Call &c) { c.token.resize(23); }, 0, 7, MSG_2650_047, 24},
        {"25-byte token", [](Call &c) { c.token.resize(25); }, 0, 7, MSG_2650_047, 24},
        {"token without bytes", [](Call &c) { c.token_no_bytes = true; }, 0, 7, MSG_2650_047, 24},
        {"wrong token", [](Call &) {}, 0, SEC_S_MSG_VERIFY_FAILED, MSG_2650_048, 24},
        {"empty message", [](Call &c) { c.msg.clear(); c.token_no_bytes = true; }, 0, 0, -1},
        {"no digest", [](Call &c) { c.flags = kNoDigest; c.token_length = -1000; }, 0, 0, -1},
        {"weak key, no digest", [](Call &c) { c.flags = kNoDigest; c.key = qvtest::from_hex("0101010101010101"); },
         0, 0, -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Call call;
        c.edit(call);
        sec_buffer_desc key = make(call.key, call.key_length, call.key_no_bytes);
        sec_buffer_desc in = make(call.msg, call.msg_length, call.msg_no_bytes);
        sec_buffer_desc token = make(call.token, call.token_length, call.token_no_bytes);
        sec_buffer_desc out{77, reinterpret_cast<void *>(0x1)};
        cu_set_no_error_1();
        EXPECT_EQ(sec_prepare_message(call.key_null ? nullptr : &key, call.flags, call.msg_null ? nullptr : &in,
                                      call.token_null ? nullptr : &out),
                  c.prepare_rc);
        EXPECT_EQ(last_message(), c.prepare_rc != 0 ? c.msg : -1);
        if (!call.token_null) {
            EXPECT_EQ(out.length, static_cast<qv_int32_t>(c.prepared));
            EXPECT_EQ(out.value == nullptr, c.prepared == 0);
            free(out.value);
        }
        cu_set_no_error_1();
        EXPECT_EQ(sec_process_message(call.key_null ? nullptr : &key, call.flags, call.msg_null ? nullptr : &in,
                                      call.token_null ? nullptr : &token),
                  c.process_rc);
        EXPECT_EQ(last_message(), c.msg);
        if (c.msg == MSG_2650_002) {
            EXPECT_EQ(qvtest::current_error_args().rfind("sec_prepare_message", 0), 0u);
        }
    }
    // Other flag bits beside the digest flag are ignored.
    Call c;
    c.flags = kDigest | 0x80400001u;
    sec_buffer_desc key = make(c.key, -1, false), in = make(c.msg, -1, false);
    qvtest::SecBuffer out;
    ASSERT_EQ(sec_prepare_message(&key, c.flags, &in, out.get()), 0);
    Bytes token = out.bytes();
    EXPECT_EQ(token, reference_token(c.key, openssl_md5(c.msg)));
    sec_buffer_desc t = view(token);
    EXPECT_EQ(sec_process_message(&key, c.flags, &in, &t), 0);
}

}  // namespace
