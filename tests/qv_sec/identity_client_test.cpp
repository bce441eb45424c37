// sec_get_client_identity on context tokens built by hand (a test module's
// context handle behind a completed server-side token, or an identity
// context's privilege set), sec_release_name and sec_release_buffer.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "messages.h"
#include "identity_fixture.h"
#include "sec_test_util.h"

namespace {

constexpr qv_uint32_t kIdentity = SEC_CTX_S_COMPLETE | SEC_CTX_S_IDENTITY | SEC_CTX_S_AUTHENTICATED;

// A heap pointer the routine must overwrite, never free.
char *const kStale = reinterpret_cast<char *>(0x10);

class ClientIdentity : public qvtest::HandBuiltContextFixture {
protected:
    enum Kind { kGood, kNull, kSecurity, kNoMagic, kUnmapped, kUnauthenticated, kNoModule };
    // A context of the given kind, made from token_: an identity context but
    // for kSecurity.
    sec_ctx_token_desc context(Kind k) const {
        sec_ctx_token_desc t = token_;
        t.state = k == kSecurity ? kEstablished : kIdentity | (k == kUnmapped ? 0 : SEC_CTX_S_MAPPED);
        if (k == kNoMagic) t.magic = SEC_SVC_TOKEN_MAGIC;
        if (k == kUnauthenticated) t.state &= ~SEC_CTX_S_AUTHENTICATED;
        if (k == kNoModule) t.mdata.mpm = nullptr;
        return t;
    }
    unsigned long module_calls() const {
        return mpm_.calls(QVTEST_MPM_GET_CLIENT_NAME) + mpm_.calls(QVTEST_MPM_GET_MAPPED_NAME) +
               mpm_.calls(QVTEST_MPM_GET_CLIENT_ID);
    }
    // The three outputs of a call, released when the test ends.
    struct Outputs {
        char *name = kStale;
        char *mname = kStale;
        sec_buffer_desc id{99, kStale};
        ~Outputs() {
            if (name != kStale) sec_release_name(name);
            if (mname != kStale) sec_release_name(mname);
            if (id.value != kStale) sec_release_buffer(&id);
        }
        void expect_empty() const {
            EXPECT_EQ(name, nullptr);
            EXPECT_EQ(mname, nullptr);
            EXPECT_EQ(id.length, 0);
            EXPECT_EQ(id.value, nullptr);
        }
    };
};

// What the module answers reaches the caller: all three forms, a 256-byte
// id that fills the first buffer exactly, a name the module did not end with
// a NUL, and no mapping (no mapped name, and no error).
TEST_F(ClientIdentity, AnswersFromTheModule) {
    struct Row {
        const char *what;
        std::string name, id;    // the module's answers ("": its default)
        qv_int32_t name_len, mname_len;  // -1: with the NUL
        const char *name_out, *mname_out;
    } rows[] = {
        {"defaults", "", "ab", -1, -1, "qvtest_client@example", "qvtest_user"},
        {"256-byte id, unterminated name", "carol@realm", std::string(256, 'i'), 5, -1, "carol", "qvtest_user"},
        {"no mapping", "", "ab", -1, 0, "qvtest_client@example", nullptr},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        mpm_.reset();
        std::memcpy(mpm_.behaviour(QVTEST_MPM_GET_CLIENT_NAME).name, row.name.data(), row.name.size());
        mpm_.behaviour(QVTEST_MPM_GET_CLIENT_NAME).name_len = row.name_len;
        mpm_.behaviour(QVTEST_MPM_GET_MAPPED_NAME).name_len = row.mname_len;
        std::memcpy(mpm_.behaviour(QVTEST_MPM_GET_CLIENT_ID).name, row.id.data(), row.id.size());
        mpm_.behaviour(QVTEST_MPM_GET_CLIENT_ID).name_len = static_cast<qv_int32_t>(row.id.size());
        sec_status_desc st;
        std::memset(&st, 0x5a, sizeof st);
        Outputs o;
        ASSERT_EQ(sec_get_client_identity(&st, &token_, &o.name, &o.mname, &o.id), 0);
        EXPECT_STREQ(o.name, row.name_out);
        EXPECT_STREQ(o.mname, row.mname_out);
        EXPECT_EQ(qvtest::to_hex(static_cast<uint8_t *>(o.id.value), static_cast<size_t>(o.id.length)),
                  "830200010002" + qvtest::to_hex(reinterpret_cast<const uint8_t *>(row.id.data()), row.id.size()));
        EXPECT_TRUE(st.maj_stat == 0 && st.mech_code == 0 && st.desc[0] == '\0');
        for (int r : {QVTEST_MPM_GET_CLIENT_NAME, QVTEST_MPM_GET_MAPPED_NAME, QVTEST_MPM_GET_CLIENT_ID}) {
            EXPECT_EQ(mpm_.calls(r), 1u);
            EXPECT_EQ(mpm_.record(r).args[0], reinterpret_cast<uintptr_t>(token_.mdata.mtoken));
        }
    }
    EXPECT_EQ(token_.state, kEstablished);  // the token is only read
    sec_status_desc st{};
    EXPECT_EQ(sec_get_client_identity(&st, &token_, nullptr, nullptr, nullptr), 0);  // nothing asked, nothing done
    EXPECT_EQ(module_calls(), 3u);
}

// A failure of any of the three answers undoes every output: a module
// failure is passed on in the status record with no message of its own, an
// empty answer is the library's fault to report.
TEST_F(ClientIdentity, FailuresUndoEveryOutput) {
    struct Case {
        const char *what;
        int routine;
        qv_uint32_t maj;
        qv_int32_t name_len;  // -1: the module's default answer
        qv_int32_t rc;
        int msg;
        const char *desc;
    } cases[] = {
        {"client name fails", QVTEST_MPM_GET_CLIENT_NAME, 9, -1, 3, -1, "mpm_get_client_name"},
        {"mapped name fails", QVTEST_MPM_GET_MAPPED_NAME, 9, -1, 3, -1, "mpm_get_mapped_name"},
        {"client id fails", QVTEST_MPM_GET_CLIENT_ID, 9, -1, 3, -1, "mpm_get_client_id"},
        // Status 6 with the length unchanged: the second call, with a buffer
        // of that size, fails again and that failure is the answer.
        {"client id needs more, twice", QVTEST_MPM_GET_CLIENT_ID, 6, -1, 3, -1, "mpm_get_client_id"},
        {"mapped name needs more, twice", QVTEST_MPM_GET_MAPPED_NAME, 6, -1, 3, -1, "mpm_get_mapped_name"},
        {"empty client name", QVTEST_MPM_GET_CLIENT_NAME, 0, 0, 22, MSG_2650_067, ""},
        {"empty client id", QVTEST_MPM_GET_CLIENT_ID, 0, 0, 22, MSG_2650_068, ""},
        // An authenticated security context always names its module.
        {"no module", -1, 0, -1, 23, MSG_2650_068, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        mpm_.reset();
        sec_ctx_token_desc t = token_;
        if (c.routine < 0) t.mdata.mpm = nullptr;
        qvtest_mpm_behaviour_t &b = mpm_.behaviour(c.routine < 0 ? QVTEST_MPM_GET_CLIENT_NAME : c.routine);
        b.maj_stat = c.maj;
        b.min_stat = 0x33;
        b.name_len = c.name_len;
        sec_status_desc st{};
        Outputs o;
        cu_set_no_error_1();
        EXPECT_EQ(sec_get_client_identity(&st, &t, &o.name, &o.mname, &o.id), c.rc);
        o.expect_empty();
        EXPECT_EQ(st.maj_stat, c.maj);
        EXPECT_STREQ(st.desc, c.desc);
        EXPECT_EQ(last_message(), c.msg);
        if (c.maj != 0) {
            EXPECT_EQ(st.min_stat, 0x33u);
            EXPECT_EQ(st.mech_code, kCode);
            EXPECT_EQ(mpm_.calls(c.routine), c.maj == 6 ? 2u : 1u);
        }
        if (c.msg == MSG_2650_067) {
            EXPECT_NE(last_error_text().find("MPM code is 10002"), std::string::npos);
        }
    }
}

// Identity contexts answer from their privilege set and never ask the module.
TEST_F(ClientIdentity, IdentityContexts) {
    char name[] = "dave@realm", mname[] = "dave";
    struct Case {
        const char *what;
        qv_uint32_t state;
        char *mname_in;
        bool ask_id;
        qv_int32_t rc;
        int msg;
        const char *name_out, *mname_out;
    } cases[] = {
        {"mapped", kIdentity | SEC_CTX_S_MAPPED, mname, false, 0, -1, "dave@realm", "dave"},
        {"mapped without a name", kIdentity | SEC_CTX_S_MAPPED, nullptr, false, 0, -1, "dave@realm", nullptr},
        {"not mapped", kIdentity, mname, false, 0, -1, "dave@realm", nullptr},
        {"network name lost", kIdentity, mname, false, 23, MSG_2650_072, nullptr, nullptr},
        {"typed id asked", kIdentity | SEC_CTX_S_MAPPED, mname, true, 5, MSG_2650_082, nullptr, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        sec_ctx_token_desc t = token_;
        t.state = c.state;
        t.privset.name = c.rc == 23 ? nullptr : name;
        t.privset.mname = c.mname_in;
        sec_status_desc st{};
        Outputs o;
        cu_set_no_error_1();
        EXPECT_EQ(sec_get_client_identity(&st, &t, &o.name, &o.mname, c.ask_id ? &o.id : nullptr), c.rc);
        EXPECT_EQ(last_message(), c.msg);
        EXPECT_STREQ(o.name, c.name_out);
        EXPECT_STREQ(o.mname, c.mname_out);
        EXPECT_NE(o.name, name);  // a copy
        if (c.ask_id) o.expect_empty();
    }
    EXPECT_EQ(module_calls(), 0u);
}

TEST_F(ClientIdentity, ReleaseRoutines) {
    sec_buffer_desc b{5, nullptr};
    EXPECT_TRUE(sec_release_name(nullptr) == 0 && sec_release_buffer(nullptr) == 0 && sec_release_buffer(&b) == 0);
    EXPECT_EQ(b.length, 0);  // a NULL value: only the length is reset
    b = {3, malloc(3)};
    EXPECT_EQ(sec_release_buffer(&b), 0);
    EXPECT_TRUE(b.length == 0 && b.value == nullptr);
}


// Argument and state checks of sec_get_client_groups and its size protocol,
// on an identity context's privilege set.
TEST_F(ClientIdentity, ClientGroups) {
    char g1[] = "g1", g2[] = "staff";
    sec_buffer_desc two[] = {{3, g1}, {7, g2}}, gap[] = {{3, g1}, {0, nullptr}, {7, g2}};
    struct Row {
        const char *what;
        Kind ctx;
        bool buffer, count, groups;
        qv_int32_t count_in;
        sec_buffer_t set;
        int gcount;
        qv_int32_t rc;
        int msg;
        qv_int32_t count_out;  // -1: left alone
        const char *text;      // in the message
    } rows[] = {
        {"context NULL", kNull, true, true, true, 64, two, 2, 4, MSG_2650_060, 64, "number: 1\n"},
        {"count NULL", kGood, true, false, true, 64, two, 2, 4, MSG_2650_060, -1, "number: 3\n"},
        {"count negative", kGood, true, true, true, -1, two, 2, 4, MSG_2650_060, -1, "number: 3\n"},
        {"groups NULL", kGood, true, true, false, 64, two, 2, 4, MSG_2650_060, 64, "number: 4\n"},
        {"bad magic", kNoMagic, true, true, true, 64, two, 2, 5, MSG_2650_061, 64, ""},
        {"security context", kSecurity, true, true, true, 64, two, 2, 5, MSG_2650_063, 64, ""},
        {"no privilege set", kUnmapped, true, true, true, 64, two, 2, 40, MSG_2650_065, 0, ""},
        {"buffer NULL", kGood, false, true, true, 16, two, 2, 4, MSG_2650_060, 16, "number: 2\n"},
        {"one byte short", kGood, true, true, true, 31, two, 2, 6, MSG_2650_064, 32, "provide 32 bytes"},
        {"exact size", kGood, true, true, true, 32, two, 2, 0, -1, 2, ""},
        {"no groups, no memory offered", kGood, false, true, true, 0, nullptr, 0, 6, MSG_2650_064, 0, ""},
        {"no groups", kGood, true, true, true, 16, nullptr, 0, 0, -1, 0, ""},
        {"a group without a name is skipped", kGood, true, true, true, 48, gap, 3, 0, -1, 2, ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        sec_ctx_token_desc t = context(row.ctx);
        t.privset.gcount = row.gcount;
        t.privset.groups = row.set;
        sec_buffer_desc buf[4];
        std::memset(buf, 0x5a, sizeof buf);
        qv_int32_t count = row.count_in;
        sec_buffer_t groups = buf + 3;
        cu_set_no_error_1();
        EXPECT_EQ(sec_get_client_groups(row.ctx == kNull ? nullptr : &t, row.buffer ? reinterpret_cast<char *>(buf) : nullptr,
                                        row.count ? &count : nullptr, row.groups ? &groups : nullptr),
                  row.rc);
        EXPECT_EQ(last_message(), row.msg);
        EXPECT_NE(last_error_text().find(row.text), std::string::npos) << last_error_text();
        EXPECT_EQ(count, row.count_out >= 0 ? row.count_out : row.count_in);
        // *groups is cleared once the token has passed its checks.
        const bool checked = row.rc == 0 || row.rc == 40 || row.rc == 6 || !std::strcmp(row.text, "number: 2\n");
        EXPECT_EQ(groups, row.rc == 0 ? buf : checked ? nullptr : buf + 3);
        for (qv_int32_t i = 0; row.rc == 0 && i < count; ++i) {
            EXPECT_STREQ(static_cast<char *>(buf[i].value), i == 0 ? "g1" : "staff");
            EXPECT_NE(buf[i].value, i == 0 ? g1 : g2);  // a copy
            EXPECT_EQ(buf[i].length, i == 0 ? 3 : 7);
            free(buf[i].value);
        }
    }
}

// sec_user_valid: checks, then the module's answer passed through.
TEST_F(ClientIdentity, UserValid) {
    char alice[] = "alice", empty[] = "";
    struct Row {
        const char *what;
        bool st;
        Kind ctx;
        char *user;
        qv_uint32_t maj;  // the module's answer
        qv_int32_t rc;
        int msg;
        const char *text;
    } rows[] = {
        {"status NULL", false, kGood, alice, 0, 4, MSG_2650_060, "number: 1\n"},
        {"context NULL", true, kNull, alice, 0, 4, MSG_2650_060, "number: 2\n"},
        {"user NULL", true, kGood, nullptr, 0, 4, MSG_2650_060, "number: 3\n"},
        {"user empty", true, kGood, empty, 0, 4, MSG_2650_060, "number: 3\n"},
        {"bad magic", true, kNoMagic, alice, 0, 5, MSG_2650_061, ""},
        {"security context", true, kSecurity, alice, 0, 5, MSG_2650_063, ""},
        {"unauthenticated", true, kUnauthenticated, alice, 0, 12, MSG_2650_022, ""},
        {"no module", true, kNoModule, alice, 0, 23, MSG_2650_023, ""},
        {"valid", true, kGood, alice, 0, 0, -1, ""},
        {"not valid for this client", true, kGood, alice, 36, 36, -1, ""},
        {"module fails", true, kGood, alice, 9, 3, -1, ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        mpm_.reset();
        mpm_.behaviour(QVTEST_MPM_USER_VALID).maj_stat = row.maj;
        mpm_.behaviour(QVTEST_MPM_USER_VALID).min_stat = 0x44;
        sec_ctx_token_desc t = context(row.ctx);
        sec_status_desc st;
        std::memset(&st, 0x5a, sizeof st);
        cu_set_no_error_1();
        EXPECT_EQ(sec_user_valid(row.st ? &st : nullptr, row.ctx == kNull ? nullptr : &t, row.user), row.rc);
        EXPECT_EQ(last_message(), row.msg);
        EXPECT_NE(last_error_text().find(row.text), std::string::npos) << last_error_text();
        const bool asked = row.rc == 0 || row.msg == -1;
        EXPECT_EQ(mpm_.calls(QVTEST_MPM_USER_VALID), asked ? 1u : 0u);
        if (!row.st) continue;
        EXPECT_EQ(st.maj_stat, row.maj);
        EXPECT_STREQ(st.desc, row.maj != 0 ? "mpm_user_valid" : "");
        EXPECT_EQ(st.mech_code, row.maj != 0 ? kCode : 0u);
        if (asked) {
            EXPECT_STREQ(mpm_.record(QVTEST_MPM_USER_VALID).str[0], "alice");
            EXPECT_EQ(mpm_.record(QVTEST_MPM_USER_VALID).args[0], reinterpret_cast<uintptr_t>(t.mdata.mtoken));
        }
    }
}

}  // namespace
