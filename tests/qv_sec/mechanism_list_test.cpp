// Mechanism lists: the client's offer under the preferred and imposed
// mechanism variables, lists made from mnemonics, the server's
// reconciliation, editing the imposed mechanisms, and the environment
// strings behind them. Lists are compared byte for byte.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "library_init.h"
#include "mechanism_list.h"
#include "messages.h"
#include "mpm.h"
#include "mpm_test_fixture.h"
#include "sec_buffer.h"

namespace {

using qvtest::current_error_args;
using qvtest::last_message;
using Bytes = std::vector<uint8_t>;
using Codes = std::vector<qv_uint32_t>;

Bytes list_bytes(const Codes &codes, uint8_t version = 1) {
    Bytes b{0x81, version};
    for (qv_uint32_t c : codes)
        for (int shift = 24; shift >= 0; shift -= 8) b.push_back(static_cast<uint8_t>(c >> shift));
    return b;
}

class MechanismLists : public qvtest::MpmFixture {
protected:
    void SetUp() override {
        MpmFixture::SetUp();
        unsetenv(kEnvPreferredMech);
        unsetenv(kEnvImposedMechs);
        configure("1 alpha 0x10 /none/a.so i\n2 beta 0x20 /none/b.so i\n3 pref 0x30 /none/p.so i\n"
                  "4 gamma 0x40 /none/c.so i\n");
        SecMutexGuard hold(&SEC_STATE.lock);
        ASSERT_EQ(sec__read_reserve_select(nullptr), 0u);
    }
    void TearDown() override {
        unsetenv(kEnvPreferredMech);
        unsetenv(kEnvImposedMechs);
        MpmFixture::TearDown();
    }
};

// The offer's order under the preferred and imposed variables is checked
// against the environment fuzzer's model over its seeds (replayed by every
// test run); here what that model leaves out: the message of an over-long
// imposed mnemonic, and an offer without any configuration.
TEST_F(MechanismLists, ClientOffer) {
    qvtest::SecBuffer l;
    qv_int32_t count = -1;
    setenv(kEnvImposedMechs, "alpha seventeen-chars-x", 1);
    EXPECT_EQ(sec_get_auth_methods(l.get(), &count), 8);
    EXPECT_EQ(last_message(), MSG_2650_076);
    EXPECT_TRUE(l.empty());
    EXPECT_EQ(count, 0);
    unsetenv(kEnvImposedMechs);

    // Asking for no authentication needs no configuration; anything else does.
    configure("");
    setenv(kEnvPreferredMech, "none", 1);
    EXPECT_EQ(sec_get_auth_methods(l.get(), &count), 0);
    EXPECT_EQ(l.take(), list_bytes({}));
    unsetenv(kEnvPreferredMech);
    EXPECT_EQ(sec_get_auth_methods(l.get(), &count), 21);
    EXPECT_TRUE(l.empty());
}

TEST_F(MechanismLists, CreateFromMnemonics) {
    const std::tuple<const char *, int, int, Codes, const char *> cases[] = {
        {"  alpha none \t alpha  ", 0, -1, {0x10, 0}, ""},
        {"gamma beta", 0, -1, {0x40, 0x20}, ""},
        {"   ", 0, -1, {}, ""},
        {"alpha unknown", 8, MSG_2650_080, {}, "unknown"},
        {"abcdefghijklmnopq", 8, MSG_2650_076, {}, "abcdefghijklmnopq"},
        {"abcdefghijklmnop", 8, MSG_2650_080, {}, "abcdefghijklmnop"},
    };
    for (const auto &[mstring, rc, message, codes, args] : cases) {
        SCOPED_TRACE(mstring);
        qvtest::SecBuffer l;
        qv_int32_t count = -1;
        cu_set_no_error_1();
        std::string s = mstring;
        ASSERT_EQ(sec_create_mech_buffer(s.data(), &count, l.get()), rc);
        EXPECT_EQ(last_message(), message);
        EXPECT_EQ(current_error_args().rfind(args, 0), 0u) << current_error_args();
        EXPECT_EQ(l.bytes(), rc == 0 ? list_bytes(codes) : Bytes{});
        EXPECT_EQ(count, static_cast<qv_int32_t>(codes.size()));
    }
}

TEST_F(MechanismLists, Reconcile) {
    struct Case {
        Bytes offer;
        int rc, message;
        Codes shared;
    } cases[] = {
        {list_bytes({0x40, 0x99, 0, 0x10}), 0, -1, {0x40, 0x10}},
        {list_bytes({0x99, 0}), 0, -1, {}},
        {list_bytes({0x20}, 2), 0, -1, {0x20}},
        {list_bytes({}), 8, MSG_2650_006, {}},
        {list_bytes({0x20}, 3), 9, MSG_2650_007, {}},
        {{0x81, 1, 0}, 7, MSG_2650_005, {}},
        {{0x82, 1, 0, 0, 0, 0x10}, 7, MSG_2650_005, {}},
        {{0x81}, 7, MSG_2650_005, {}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(qvtest::to_hex(c.offer));
        qvtest::BufferView in(c.offer);
        qvtest::SecBuffer out;
        cu_set_no_error_1();
        out.d.length = 5;  // whatever the caller had goes, also on failure
        ASSERT_EQ(sec_reconcile_auth_methods(in.get(), out.get()), c.rc);
        EXPECT_EQ(last_message(), c.message);
        EXPECT_EQ(out.bytes(), c.rc == 0 ? list_bytes(c.shared) : Bytes{});
        EXPECT_TRUE(c.rc == 0 || out.empty());
    }
    qvtest::SecBuffer out;
    configure("# nothing configured\n");
    qvtest::BufferView in(list_bytes({0x10}));
    ASSERT_EQ(sec_reconcile_auth_methods(in.get(), out.get()), 0);
    EXPECT_EQ(out.bytes(), list_bytes({}));
}

// What setting and adding write is checked against the imposed-mechanisms
// fuzzer's model over its seeds; here clearing, and an addition to a value
// that was written by hand.
TEST_F(MechanismLists, ImposedMechanismEditing) {
    auto env = [] {
        const char *v = getenv(kEnvImposedMechs);
        return v ? std::string(v) : std::string("<unset>");
    };
    EXPECT_EQ(sec_clear_imposed_mechs(), 0);
    EXPECT_EQ(env(), "<unset>");  // emptied only when set
    setenv(kEnvImposedMechs, "  gamma\t\tbeta ", 1);
    qvtest::BufferView none(list_bytes({})), more(list_bytes({0x40, 0x10}));
    EXPECT_EQ(sec_add_imposed_mechs(none.get()), 0);
    EXPECT_EQ(env(), "  gamma\t\tbeta ");  // nothing to add: nothing changes
    EXPECT_EQ(sec_add_imposed_mechs(more.get()), 0);
    EXPECT_EQ(env(), "gamma beta alpha");  // rewritten in canonical form
    EXPECT_EQ(sec_clear_imposed_mechs(), 0);
    EXPECT_EQ(env(), "");
}

// The internal helpers behind the imposed mechanisms: the environment
// strings with their length limits, "none" in a mnemonic string, and codes
// back to mnemonics.
TEST_F(MechanismLists, Helpers) {
    char name[] = "QV_SEC_IMP_MECHS";
    std::string long_name(65, 'N'), long_value(257, 'v'), max_value(256, 'v');
    char *out = nullptr;
    EXPECT_EQ(sec__create_varval(name, max_value.data(), &out), 0);
    EXPECT_EQ(std::string(out), "QV_SEC_IMP_MECHS=" + max_value);
    EXPECT_EQ(sec__create_varval(name, long_value.data(), &out), 21);
    EXPECT_EQ(last_message(), MSG_2650_075);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(sec__create_varval(long_name.data(), max_value.data(), &out), 21);
    EXPECT_EQ(last_message(), MSG_2650_074);
    EXPECT_EQ(sec__create_empty_varval(name, &out), 0);
    EXPECT_STREQ(out, "QV_SEC_IMP_MECHS=");
    // Too long, reported, but still built.
    EXPECT_EQ(sec__create_empty_varval(long_name.data(), &out), 21);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::strlen(out), 65u);

    struct {
        const char *s;
        bool none;
    } nones[] = {{"", false}, {" alpha\tnone ", true}, {"nonee", false}, {"abcdefghijklmnopq none", false}};
    for (auto &c : nones) {
        std::string s = c.s;
        EXPECT_EQ(sec__contains_mech_none(s.data()) != 0, c.none) << c.s;
    }
    EXPECT_EQ(sec__contains_mech_none(nullptr), 0);

    qvtest::BufferView codes(list_bytes({0x10, 0x77, 0, 0x40}));
    char text[256] = "untouched";
    SecMutexGuard hold(&SEC_STATE.lock);
    EXPECT_EQ(sec__translate_mech_codes(codes.get(), 3, text), 0);
    EXPECT_STREQ(text, "alpha none");
    // A count beyond the buffer reads only what is there.
    EXPECT_EQ(sec__translate_mech_codes(codes.get(), 100, text), 0);
    EXPECT_STREQ(text, "alpha none gamma");
    qvtest::BufferView unknown(list_bytes({0x77}));
    std::strcpy(text, "untouched");
    EXPECT_EQ(sec__translate_mech_codes(unknown.get(), 1, text), 0);
    EXPECT_STREQ(text, "untouched");
}

}  // namespace
