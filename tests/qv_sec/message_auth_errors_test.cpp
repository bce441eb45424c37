// Every failure of sec_prepare_message and sec_process_message: the return
// code and the message, and that a failed prepare leaves its output empty.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "current_error.h"
#include "errors.h"
#include "messages.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Both routines name sec_prepare_message in the argument message.
constexpr int kBadArguments = MSG_2650_002;
constexpr int kNotDesKey = MSG_2650_045;
constexpr int kBadToken = MSG_2650_047;
constexpr qv_uint32_t kDigest = SEC_F_MSG_DIGEST;
constexpr qv_uint32_t kNoDigest = SEC_F_MSG_NO_DIGEST;

// The arguments of one call, each a buffer that can be replaced by NULL.
struct Call {
    Bytes key = qvtest::from_hex("c4a7d6e0459b5d3b");
    qv_int32_t key_length = -1;  // -1: key.size()
    bool key_null = false, key_no_bytes = false;
    qv_uint32_t flags = kDigest;
    Bytes msg = {'h', 'e', 'l', 'l', 'o'};
    qv_int32_t msg_length = -1;
    bool msg_null = false, msg_no_bytes = false;
    Bytes token = Bytes(24, 0x5a);
    qv_int32_t token_length = -1;
    bool token_null = false, token_no_bytes = false;
};

sec_buffer_desc make(Bytes &b, qv_int32_t length, bool no_bytes) {
    return {length >= 0 || length < -1 ? length : static_cast<qv_int32_t>(b.size()), no_bytes ? nullptr : b.data()};
}

struct Case {
    const char *what;
    Call call;
    qv_int32_t rc;
    int msg;
};

void expect_failure(const Case &c, qv_int32_t rc) {
    EXPECT_EQ(rc, c.rc);
    qvtest::CurrentError err = qvtest::current_error();
    EXPECT_EQ(err.msg_num, c.msg);
    if (c.msg == kBadArguments) {
        EXPECT_NE(err.text.find("sec_prepare_message"), std::string::npos) << err.text;
    }
}

// The failures both routines share, in the order the checks are made.
std::vector<Case> shared_cases() {
    std::vector<Case> v;
    auto add = [&](const char *what, auto edit, qv_int32_t rc, int msg) {
        Case c{what, {}, rc, msg};
        edit(c.call);
        v.push_back(c);
    };
    add("key NULL", [](Call &c) { c.key_null = true; }, 4, kBadArguments);
    add("message NULL", [](Call &c) { c.msg_null = true; }, 4, kBadArguments);
    add("output NULL", [](Call &c) { c.token_null = true; }, 4, kBadArguments);
    add("no flag", [](Call &c) { c.flags = 0; }, 4, kBadArguments);
    add("both flags", [](Call &c) { c.flags = kDigest | kNoDigest; }, 4, kBadArguments);
    add("only other bits", [](Call &c) { c.flags = 0xff0fffffu; }, 4, kBadArguments);
    add("negative message length", [](Call &c) { c.msg_length = -5; }, 4, kBadArguments);
    add("message length without bytes", [](Call &c) { c.msg_no_bytes = true; }, 4, kBadArguments);
    add("arguments before the key", [](Call &c) { c.flags = 0; c.key_length = 7; }, 4, kBadArguments);
    add("7-byte key", [](Call &c) { c.key_length = 7; }, 27, kNotDesKey);
    add("9-byte key", [](Call &c) { c.key.push_back(0x01); }, 27, kNotDesKey);
    add("empty key", [](Call &c) { c.key_length = 0; }, 27, kNotDesKey);
    add("key without bytes", [](Call &c) { c.key_no_bytes = true; }, 27, kNotDesKey);
    add("even parity in the last byte", [](Call &c) { c.key[7] ^= 0x01; }, 27, kNotDesKey);
    add("even parity in the first byte", [](Call &c) { c.key[0] ^= 0x80; }, 27, kNotDesKey);
    add("bad key, no digest", [](Call &c) { c.flags = kNoDigest; c.key[3] ^= 1; }, 27, kNotDesKey);
    add("bad key, empty message", [](Call &c) { c.msg.clear(); c.key[3] ^= 1; }, 27, kNotDesKey);
    return v;
}

qv_int32_t run_prepare(Call &c, sec_buffer_desc &out) {
    sec_buffer_desc key = make(c.key, c.key_length, c.key_no_bytes);
    sec_buffer_desc in = make(c.msg, c.msg_length, c.msg_no_bytes);
    return sec_prepare_message(c.key_null ? nullptr : &key, c.flags, c.msg_null ? nullptr : &in,
                               c.token_null ? nullptr : &out);
}

qv_int32_t run_process(Call &c) {
    sec_buffer_desc key = make(c.key, c.key_length, c.key_no_bytes);
    sec_buffer_desc in = make(c.msg, c.msg_length, c.msg_no_bytes);
    sec_buffer_desc token = make(c.token, c.token_length, c.token_no_bytes);
    return sec_process_message(c.key_null ? nullptr : &key, c.flags, c.msg_null ? nullptr : &in,
                               c.token_null ? nullptr : &token);
}

TEST(MessageAuthErrors, PrepareMessage) {
    for (Case &c : shared_cases()) {
        SCOPED_TRACE(c.what);
        cu_set_no_error_1();
        sec_buffer_desc out{77, reinterpret_cast<void *>(0x1)};
        qv_int32_t rc = run_prepare(c.call, out);
        expect_failure(c, rc);
        if (!c.call.token_null) {
            EXPECT_EQ(out.length, 0);
            EXPECT_EQ(out.value, nullptr);
        }
    }
}

TEST(MessageAuthErrors, ProcessMessageNamesPrepareMessage) {
    std::vector<Case> cases = shared_cases();
    auto add = [&](const char *what, auto edit, qv_int32_t rc, int msg) {
        Case c{what, {}, rc, msg};
        edit(c.call);
        cases.push_back(c);
    };
    add("23-byte token", [](Call &c) { c.token.resize(23); }, 7, kBadToken);
    add("25-byte token", [](Call &c) { c.token.resize(25); }, 7, kBadToken);
    add("empty token", [](Call &c) { c.token_length = 0; }, 7, kBadToken);
    add("token without bytes", [](Call &c) { c.token_no_bytes = true; }, 7, kBadToken);
    add("negative token length", [](Call &c) { c.token_length = -24; }, 7, kBadToken);
    for (Case &c : cases) {
        SCOPED_TRACE(c.what);
        cu_set_no_error_1();
        expect_failure(c, run_process(c.call));
    }
}

// What succeeds without computing anything, and with no output.
TEST(MessageAuthErrors, NothingToDoSucceeds) {
    struct Quiet {
        const char *what;
        void (*edit)(Call &);
    } cases[] = {
        {"empty message", [](Call &c) { c.msg.clear(); }},
        {"empty message, no bytes", [](Call &c) { c.msg_length = 0; c.msg_no_bytes = true; }},
        {"no digest", [](Call &c) { c.flags = kNoDigest; }},
        {"no digest and other bits", [](Call &c) { c.flags = kNoDigest | 0x1u | 0x80000000u; }},
        {"weak key, no digest", [](Call &c) { c.flags = kNoDigest; c.key = qvtest::from_hex("0101010101010101"); }},
    };
    for (const Quiet &q : cases) {
        SCOPED_TRACE(q.what);
        Call c;
        q.edit(c);
        sec_buffer_desc out{77, reinterpret_cast<void *>(0x1)};
        EXPECT_EQ(run_prepare(c, out), 0);
        EXPECT_EQ(out.length, 0);
        EXPECT_EQ(out.value, nullptr);
        // The token is not looked at, whatever it holds.
        for (auto edit_token : {+[](Call &t) { t.token_no_bytes = true; },
                                +[](Call &t) { t.token.resize(3); }, +[](Call &t) { t.token_length = -1000; }}) {
            Call p = c;
            edit_token(p);
            EXPECT_EQ(run_process(p), 0);
        }
    }
}

TEST(MessageAuthErrors, OtherFlagBitsAreIgnored) {
    Call c;
    c.flags = kDigest | 0x1u | 0x80000000u | 0x00400000u;
    sec_buffer_desc out{0, nullptr};
    ASSERT_EQ(run_prepare(c, out), 0);
    ASSERT_EQ(out.length, 24);
    c.token.assign(static_cast<uint8_t *>(out.value), static_cast<uint8_t *>(out.value) + 24);
    free(out.value);
    EXPECT_EQ(run_process(c), 0) << qvtest::current_error().text;
}

}  // namespace
