// Identity: sec_get_client_identity (with the size protocol's second call),
// its groups and sec_user_valid on context tokens built by hand around the
// test module; and the CIDB bytes written for each shape against buffers
// built by hand from the layout, with the reader's verdict on broken buffers.
// The fixtures check that no module handle or buffer is left behind.
#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cancellable_thread.h"
#include "current_error.h"
#include "identity_fixture.h"
#include "messages.h"
#include "sec_test_util.h"
#include "test_support.h"

namespace {

using namespace ctxtest;

// This host's node ID and a UTF-8 locale, set before the library reads them.
struct ThisHost {
    qvtest::TempDir dir;
    ThisHost() {
        setenv("QV_NODE_ID_FILE", dir.write("node_id", "0123456789abcdef\n").c_str(), 1);
        setlocale(LC_ALL, "C.UTF-8");
    }
} g_this_host;

// ---- The client's identity ----

constexpr qv_uint32_t kIdentity = SEC_CTX_S_COMPLETE | SEC_CTX_S_IDENTITY | SEC_CTX_S_AUTHENTICATED;

// A heap pointer the routine must overwrite, never free.
char *const kStale = reinterpret_cast<char *>(0x10);

class ClientIdentity : public qvtest::HandBuiltContextFixture {
protected:
    // A mapped identity context made from token_.
    sec_ctx_token_desc identity() const {
        sec_ctx_token_desc t = token_;
        t.state = kIdentity | SEC_CTX_S_MAPPED;
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
        EXPECT_EQ(status_text(st), "0 0 0x0 ");
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
        const char *status;
    } cases[] = {
        {"client name fails", QVTEST_MPM_GET_CLIENT_NAME, 9, -1, 3, -1, "9 51 0x10002 mpm_get_client_name"},
        {"mapped name fails", QVTEST_MPM_GET_MAPPED_NAME, 9, -1, 3, -1, "9 51 0x10002 mpm_get_mapped_name"},
        {"client id fails", QVTEST_MPM_GET_CLIENT_ID, 9, -1, 3, -1, "9 51 0x10002 mpm_get_client_id"},
        // Status 6 with the length unchanged: the second call, with a buffer
        // of that size, fails again and that failure is the answer.
        {"client id needs more, twice", QVTEST_MPM_GET_CLIENT_ID, 6, -1, 3, -1, "6 51 0x10002 mpm_get_client_id"},
        {"empty client name", QVTEST_MPM_GET_CLIENT_NAME, 0, 0, 22, MSG_2650_067, "0 51 0x0 "},
        {"empty client id", QVTEST_MPM_GET_CLIENT_ID, 0, 0, 22, MSG_2650_068, "0 51 0x0 "},
        // An authenticated security context always names its module.
        {"no module", -1, 0, -1, 23, MSG_2650_068, "0 0 0x0 "},
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
        EXPECT_EQ(status_text(st), c.status);
        EXPECT_EQ(last_message(), c.msg);
        if (c.maj != 0) {
            EXPECT_EQ(mpm_.calls(c.routine), c.maj == 6 ? 2u : 1u);
        }
        if (c.msg == MSG_2650_067) {
            EXPECT_EQ(qvtest::current_error_args(), std::to_string(kCode));
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

// The size protocol of sec_get_client_groups on an identity context's
// privilege set (its refusals are in contract_test).
TEST_F(ClientIdentity, ClientGroups) {
    char g1[] = "g1", g2[] = "staff";
    sec_buffer_desc two[] = {{3, g1}, {7, g2}}, gap[] = {{3, g1}, {0, nullptr}, {7, g2}};
    struct Row {
        const char *what;
        bool buffer;
        qv_int32_t count_in;
        sec_buffer_t set;
        int gcount;
        qv_int32_t rc, count_out;
    } rows[] = {
        {"one byte short", true, 31, two, 2, 6, 32},
        {"exact size", true, 32, two, 2, 0, 2},
        {"no groups, no memory offered", false, 0, nullptr, 0, 6, 0},
        {"no groups", true, 16, nullptr, 0, 0, 0},
        {"a group without a name is skipped", true, 48, gap, 3, 0, 2},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        sec_ctx_token_desc t = identity();
        t.privset.gcount = row.gcount;
        t.privset.groups = row.set;
        sec_buffer_desc buf[4];
        std::memset(buf, 0x5a, sizeof buf);
        qv_int32_t count = row.count_in;
        sec_buffer_t groups = buf + 3;
        cu_set_no_error_1();
        EXPECT_EQ(sec_get_client_groups(&t, row.buffer ? reinterpret_cast<char *>(buf) : nullptr, &count, &groups),
                  row.rc);
        EXPECT_EQ(last_message(), row.rc != 0 ? MSG_2650_064 : -1);
        EXPECT_EQ(count, row.count_out);
        EXPECT_EQ(groups, row.rc == 0 ? buf : nullptr);
        for (qv_int32_t i = 0; row.rc == 0 && i < count; ++i) {
            EXPECT_STREQ(static_cast<char *>(buf[i].value), i == 0 ? "g1" : "staff");
            EXPECT_NE(buf[i].value, i == 0 ? g1 : g2);  // a copy
            EXPECT_EQ(buf[i].length, i == 0 ? 3 : 7);
            free(buf[i].value);
        }
    }
}

// sec_user_valid passes the module's answer on (its refusals are in
// contract_test).
TEST_F(ClientIdentity, UserValid) {
    char alice[] = "alice";
    for (qv_uint32_t maj : {0u, 36u, 9u}) {  // valid, not valid for this client, the module fails
        SCOPED_TRACE(maj);
        mpm_.reset();
        mpm_.behaviour(QVTEST_MPM_USER_VALID).maj_stat = maj;
        sec_ctx_token_desc t = identity();
        sec_status_desc st;
        std::memset(&st, 0x5a, sizeof st);
        cu_set_no_error_1();
        EXPECT_EQ(sec_user_valid(&st, &t, alice), maj == 9 ? 3 : static_cast<qv_int32_t>(maj));
        EXPECT_EQ(last_message(), -1);
        EXPECT_EQ(status_text(st), maj != 0 ? std::to_string(maj) + " 0 0x10002 mpm_user_valid" : "0 0 0x0 ");
        EXPECT_STREQ(mpm_.record(QVTEST_MPM_USER_VALID).str[0], "alice");
        EXPECT_EQ(mpm_.record(QVTEST_MPM_USER_VALID).args[0], reinterpret_cast<uintptr_t>(t.mdata.mtoken));
    }
}

// ---- The size protocol's second call ----

// The module answers major status 6 with the size it needs, and the call
// with a buffer of that size succeeds. The test module answers every call of
// a routine alike, so its first answer is held blocked inside the module
// while the test changes what the second call will answer.
class IdentityRetry : public qvtest::HandBuiltContextFixture {
protected:
    // Runs sec_get_client_identity for one form while `routine` first fails
    // with status 6 and then answers `answer`.
    qv_int32_t run(int routine, const std::string &answer, char **name, sec_buffer_t id, sec_status_desc &st) {
        qvtest_mpm_behaviour_t &b = mpm_.behaviour(routine);
        b.maj_stat = 6;
        b.block = 1;
        qv_int32_t rc = -1;
        qvtest::CancellableThread caller([&] { rc = sec_get_client_identity(&st, &token_, name, nullptr, id); });
        bool blocked = qvtest::wait_until([&] { return mpm_.blocked() == 1; });
        EXPECT_TRUE(blocked);
        // The first call has taken its copy of the behaviour; the second
        // will read this one.
        b.maj_stat = 0;
        b.block = 0;
        std::memset(b.name, 0, sizeof b.name);
        std::memcpy(b.name, answer.data(), answer.size());
        b.name_len = -1;
        mpm_.release();
        EXPECT_TRUE(caller.join());
        return rc;
    }
};

// The second answer reaches the caller: a 255-byte name and a typed id (an
// empty answer is refused by the same check as a first one, identity_test's).
TEST_F(IdentityRetry, AnswerFromTheSecondCall) {
    for (int routine : {QVTEST_MPM_GET_CLIENT_NAME, QVTEST_MPM_GET_CLIENT_ID}) {
        mpm_.reset();
        char *name = nullptr;
        sec_buffer_desc id{0, nullptr};
        sec_status_desc st{};
        bool by_name = routine == QVTEST_MPM_GET_CLIENT_NAME;
        const std::string answer = by_name ? std::string(255, 'n') : "xyz";
        ASSERT_EQ(run(routine, answer, by_name ? &name : nullptr, by_name ? nullptr : &id, st), 0);
        EXPECT_EQ(mpm_.calls(routine), 2u);
        EXPECT_EQ(st.maj_stat, 0u);
        EXPECT_EQ(by_name ? std::string(name) : qvtest::to_hex(static_cast<uint8_t *>(id.value), id.length),
                  by_name ? answer : "830200010002" "78797a");
        sec_release_name(name);
        sec_release_buffer(&id);
    }
}

// (sec_create_id_context's sources and mapping flags run in the end-to-end
// test, through the real module on this host and another; its refusals are
// contract_test's.)

// ---- CIDBs ----

// CIDB bytes built by hand from the layout: this test's node ID, a name
// field (length with the NUL, then the bytes and the NUL), and the header of
// an authenticated CIDB of version 1.
const Bytes kCidbNode{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
Bytes be16(unsigned v) { return {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)}; }
Bytes field(const std::string &s) { return be16(static_cast<unsigned>(s.size() + 1)) + text(s) + Bytes{0}; }
Bytes head(qv_uint32_t mech, qv_uint32_t flags) {
    return Bytes{SEC_BUF_CIDB, 1} + kCidbNode + be32(mech) + be32(flags) + be32(0);
}

// A privilege set as one line, "name|mapped name|group/length,...", with "-"
// for a NULL name.
std::string privset_text(const sec_privset_info_desc &ps) {
    auto str = [](const void *p) { return p != nullptr ? std::string(static_cast<const char *>(p)) : "-"; };
    std::string s = str(ps.name) + "|" + str(ps.mname) + "|";
    for (int i = 0; i < ps.gcount && ps.groups != nullptr; ++i)
        s += (i > 0 ? "," : "") + str(ps.groups[i].value) + "/" + std::to_string(ps.groups[i].length);
    return s;
}
constexpr qv_uint64_t kNode = 0x0123456789abcdefull;

struct Decoded {
    qv_int32_t rc = -1;
    qv_uint32_t mech = 0, flags = 0;
    int version = 0;
    qv_uint64_t node = 0;
    sec_privset_info_desc ps{};
    ~Decoded() { sec__free_privset_info(&ps); }
    std::string text() const { return privset_text(ps); }
};

// Reads bytes from a heap block of exactly their size, so that a read past
// the end is caught by the address sanitizer.
std::unique_ptr<Decoded> decode(const Bytes &b) {
    auto d = std::make_unique<Decoded>();
    std::unique_ptr<uint8_t[]> copy(new uint8_t[b.size() + 1]);
    std::memcpy(copy.get(), b.data(), b.size());
    sec_buffer_desc in{static_cast<qv_int32_t>(b.size()), copy.get()};
    d->rc = sec__unwrap_cid_buff(&in, &d->mech, &d->version, &d->node, &d->flags, &d->ps);
    return d;
}

Bytes cut(Bytes b, size_t n) {
    b.resize(n);
    return b;
}

using Cidb = ::testing::Test;

TEST_F(Cidb, EachShapeIsWrittenAndReadByteForByte) {
    char alice[] = "alice", bob[] = "bob", g1[] = "g1", staff[] = "staff";
    sec_buffer_desc groups[] = {{3, g1}, {6, staff}};
    const Bytes unauth = Bytes{SEC_BUF_CIDB, 1} + kCidbNode + be32(0) + be32(0);
    struct Row {
        const char *shape;
        qv_uint32_t mech, flags;
        sec_privset_info_desc ps;
        Bytes bytes;
        const char *back;
    } rows[] = {
        // The flags field and the reserved word are never meaningful in the
        // unauthenticated form; they are written as zeros.
        {"unauthenticated: 18 bytes", 0, SEC_CIDB_F_MAPPING, {alice, bob, 2, groups}, unauth, "-|-|"},
        {"network name only", 0x12, 0, {alice, bob, 2, groups}, head(0x12, 0x200) + field("alice"), "alice|-|"},
        {"host-local", 0x00010002, SEC_CIDB_F_HOST_LOCAL, {alice, nullptr, 0, nullptr},
         head(0x00010002, 0x600) + field("alice"), "alice|-|"},
        {"mapping asked, none: L2 = 0 ends", 0x12, SEC_CIDB_F_MAPPING, {alice, nullptr, 2, groups},
         head(0x12, 0x400200) + field("alice") + be16(0), "alice|-|"},
        {"a count without its groups is no groups", 0x12, SEC_CIDB_F_MAPPING, {alice, bob, 2, nullptr},
         head(0x12, 0x400200) + field("alice") + field("bob") + be32(0), "alice|bob|"},
        {"mapped name and groups", 0x12, SEC_CIDB_F_MAPPING | SEC_CIDB_F_HOST_LOCAL, {alice, bob, 2, groups},
         head(0x12, 0x400600) + field("alice") + field("bob") + be32(2) + field("g1") + field("staff"),
         "alice|bob|g1/3,staff/6"},
    };
    for (Row &row : rows) {
        SCOPED_TRACE(row.shape);
        qvtest::SecBuffer out;
        ASSERT_EQ(sec__wrap_cid_buff(row.mech, 1, row.flags, &row.ps, out.get()), 0);
        EXPECT_EQ(qvtest::to_hex(out.bytes()), qvtest::to_hex(row.bytes));
        auto d = decode(row.bytes);
        ASSERT_EQ(d->rc, 0);
        EXPECT_EQ(d->mech, row.mech);
        EXPECT_EQ(d->version, 1);
        EXPECT_EQ(d->node, kNode);
        EXPECT_EQ(d->flags, row.mech == 0 ? 0u : row.flags | SEC_CIDB_F_AUTHENTICATED);
        EXPECT_EQ(d->text(), row.back);
    }
    // The node ID's byte order, through the exported helpers.
    qv_uint64_t wire = 0;
    std::memcpy(&wire, kCidbNode.data(), sizeof wire);
    EXPECT_EQ(ntohl64(wire), kNode);
    EXPECT_EQ(htonl64(kNode), wire);
}

TEST_F(Cidb, ReaderVerdicts) {
    const Bytes unauth = Bytes{SEC_BUF_CIDB, 1} + kCidbNode + be32(0) + be32(0);
    const Bytes mapped = head(0x12, 0x400200) + field("alice") + field("bob");
    Bytes odd_version = head(0x12, 0x200) + field("alice");
    odd_version[1] = 9;
    std::memcpy(&odd_version[18], "\xde\xad\xbe\xef", 4);  // the reserved word is not read
    struct Row {
        const char *what;
        Bytes bytes;
        qv_int32_t rc;
        const char *back;
    } rows[] = {
        {"another buffer type", Bytes{SEC_BUF_SEAL} + cut(unauth, 17), 7, "-|-|"},
        {"unauthenticated, bytes beyond the 18 ignored", unauth + Bytes{1, 2, 3}, 0, "-|-|"},
        {"authenticated flag missing", head(0x12, 0x400000) + field("alice"), 7, "-|-|"},
        {"L1 = 1", head(0x12, 0x200) + be16(1) + Bytes{0}, 7, "-|-|"},
        {"name without its NUL", head(0x12, 0x200) + be16(5) + text("alice"), 7, "-|-|"},
        // "admin" with a tail would otherwise be read as "admin".
        {"NUL inside the name", head(0x12, 0x200) + be16(8) + text("admin") + Bytes{0, 'x', 0}, 7, "-|-|"},
        {"version and reserved word as found", odd_version, 0, "alice|-|"},
        {"group count beyond the bytes", mapped + be32(0x7fffffff) + field("g1"), 7, "-|-|"},
        {"group name runs past the end", mapped + be32(2) + field("g1") + be16(9) + text("sta"), 7, "-|-|"},
        {"empty group name without NUL", mapped + be32(1) + be16(0), 7, "-|-|"},
        {"name not UTF-8", head(0x12, 0x200) + be16(3) + Bytes{0xc3, 0x28, 0}, SEC_S_CODESET, "-|-|"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        cu_set_no_error_1();
        auto d = decode(row.bytes);
        EXPECT_EQ(d->rc, row.rc);
        EXPECT_EQ(last_message(), row.rc == 0 ? -1 : row.rc == SEC_S_CODESET ? MSG_2650_079 : MSG_2650_005);
        EXPECT_EQ(d->text(), row.back);
    }
}

}  // namespace
