#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "byte_io.h"
#include "library_init.h"
#include "mechanism_list.h"
#include "messages.h"
#include "sec_test_util.h"
#include "mpm.h"
#include "test_support.h"

namespace {

using Codes = std::vector<qv_uint32_t>;

struct List {
    sec_buffer_desc b{0, nullptr};
    ~List() { free(b.value); }
    // The codes of a list the library wrote: type 0x81, version 1.
    Codes codes() const {
        ByteReader r = ByteReader::of(b);
        uint8_t type = 0, version = 0;
        EXPECT_TRUE(r.u8(type) && r.u8(version));
        EXPECT_EQ(type, 0x81);
        EXPECT_EQ(version, 1);
        EXPECT_EQ(r.remaining() % 4, 0u);
        Codes out;
        qv_uint32_t c = 0;
        while (r.u32be(c)) out.push_back(c);
        return out;
    }
};

std::vector<uint8_t> list_bytes(const Codes &codes, uint8_t version = 1) {
    ByteWriter w;
    w.u8(0x81);
    w.u8(version);
    for (auto c : codes) w.u32be(c);
    return w.data();
}

class MechanismLists : public ::testing::Test {
protected:
    void SetUp() override {
        sec_init_once();
        unsetenv(kEnvPreferredMech);
        unsetenv(kEnvImposedMechs);
        use_config("1 alpha 0x10 /none/a.so i\n2 beta 0x20 /none/b.so i\n3 pref 0x30 /none/p.so i\n"
                   "4 gamma 0x40 /none/c.so i\n");
    }
    void TearDown() override {
        unsetenv(kEnvPreferredMech);
        unsetenv(kEnvImposedMechs);
    }
    void use_config(const std::string &text) {
        SecMutexGuard hold(&SEC_STATE.lock);
        free(SEC_STATE.config.fname);
        SEC_STATE.config.fname = strdup(dir_.write("qvsec.cfg", text).c_str());
        sec__free_config_recs(SEC_STATE.config.cfg_recs);
        SEC_STATE.config.cfg_recs = nullptr;
        SEC_STATE.config.rtime = 0;
        ASSERT_EQ(sec__read_reserve_select(nullptr), 0u);
    }
    static void set_env(const char *name, const char *value) {
        if (value) setenv(name, value, 1); else unsetenv(name);
    }
    qvtest::TempDir dir_;
};

TEST_F(MechanismLists, ClientOffer) {
    struct Case {
        const char *preferred, *imposed;
        int rc;
        Codes offer;
    } cases[] = {
        {nullptr, nullptr, 0, {0x10, 0x20, 0x30, 0x40}},
        {"", "", 0, {0x10, 0x20, 0x30, 0x40}},
        {"alpha", nullptr, 0, {0x10, 0x20, 0x30, 0x40}},
        // The preferred code goes first and comes again at its own place.
        {"pref", nullptr, 0, {0x30, 0x10, 0x20, 0x30, 0x40}},
        {"beta", nullptr, 0, {0x20, 0x10, 0x20, 0x30, 0x40}},
        {"unknown", nullptr, 0, {0x10, 0x20, 0x30, 0x40}},
        {"none", nullptr, 0, {}},
        // Imposed: configured order, imposed order ignored, preference ignored.
        {nullptr, "beta alpha", 0, {0x10, 0x20}},
        {"pref", "  gamma\tunknown ", 0, {0x40}},
        {"none", "none", 0, {}},
        {nullptr, "alpha seventeen-chars-x", 8, {}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(std::string(c.preferred ? c.preferred : "-") + "/" + (c.imposed ? c.imposed : "-"));
        set_env(kEnvPreferredMech, c.preferred);
        set_env(kEnvImposedMechs, c.imposed);
        List l;
        qv_int32_t count = -1;
        ASSERT_EQ(sec_get_auth_methods(&l.b, &count), c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(l.codes(), c.offer);
            EXPECT_EQ(count, static_cast<qv_int32_t>(c.offer.size()));
        } else {
            EXPECT_EQ(l.b.value, nullptr);
            EXPECT_EQ(l.b.length, 0);
            EXPECT_EQ(count, 0);
            EXPECT_EQ(last_message(), MSG_2650_076);
        }
    }
}

TEST_F(MechanismLists, OfferBytes) {
    List l;
    qv_int32_t count = 0;
    ASSERT_EQ(sec_get_auth_methods(&l.b, &count), 0);
    EXPECT_EQ(qvtest::to_hex(static_cast<uint8_t *>(l.b.value), l.b.length), "8101000000100000002000000030" "00000040");
}

TEST_F(MechanismLists, NoAuthenticationNeedsNoConfiguration) {
    {
        SecMutexGuard hold(&SEC_STATE.lock);
        free(SEC_STATE.config.fname);
        SEC_STATE.config.fname = strdup("/nonexistent/qvsec.cfg");
        SEC_STATE.config.rtime = 0;
    }
    set_env(kEnvPreferredMech, "none");
    List l;
    qv_int32_t count = -1;
    EXPECT_EQ(sec_get_auth_methods(&l.b, &count), 0);
    EXPECT_EQ(l.b.length, 2);
    EXPECT_EQ(count, 0);
    // Anything else needs it.
    set_env(kEnvPreferredMech, nullptr);
    List l2;
    EXPECT_EQ(sec_get_auth_methods(&l2.b, &count), 21);
    EXPECT_EQ(l2.b.value, nullptr);
}

TEST_F(MechanismLists, OfferArgumentChecks) {
    qv_int32_t count = 0;
    List l;
    EXPECT_EQ(sec_get_auth_methods(nullptr, &count), 4);
    EXPECT_EQ(last_error_text(),
              "2650-060 libqv_sec: Incorrect parameters provided to sec_get_auth_methods.\n"
              "\tPositional parameter number: 1\n\tParameter value: 0x0\n");
    EXPECT_EQ(sec_get_auth_methods(&l.b, nullptr), 4);
    EXPECT_EQ(last_error_text(), "2650-002 Caller provided invalid arguments to sec_get_auth_methods().");
}

TEST_F(MechanismLists, CreateFromMnemonics) {
    struct Case {
        const char *mstring;
        int rc, message;
        Codes codes;
    } cases[] = {
        {"  alpha none \t alpha  ", 0, -1, {0x10, 0}},
        {"gamma beta", 0, -1, {0x40, 0x20}},
        {"   ", 0, -1, {}},
        {"alpha unknown", 8, MSG_2650_080, {}},
        {"abcdefghijklmnopq", 8, MSG_2650_076, {}},
        {"abcdefghijklmnop", 8, MSG_2650_080, {}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.mstring);
        List l;
        qv_int32_t count = -1;
        cu_set_no_error_1();
        std::string s = c.mstring;
        ASSERT_EQ(sec_create_mech_buffer(s.data(), &count, &l.b), c.rc);
        EXPECT_EQ(last_message(), c.message);
        if (c.rc == 0) {
            EXPECT_EQ(l.codes(), c.codes);
            EXPECT_EQ(count, static_cast<qv_int32_t>(c.codes.size()));
        } else {
            EXPECT_EQ(l.b.value, nullptr);
            EXPECT_EQ(count, 0);
        }
    }
}

TEST_F(MechanismLists, CreateArgumentOrder) {
    char alpha[] = "alpha";
    char empty[] = "";
    qv_int32_t count = 0;
    List l;
    EXPECT_EQ(sec_create_mech_buffer(empty, &count, &l.b), 4);
    EXPECT_NE(last_error_text().find("Positional parameter number: 1\n"), std::string::npos);
    // The third parameter is checked before the second.
    EXPECT_EQ(sec_create_mech_buffer(alpha, nullptr, nullptr), 4);
    EXPECT_NE(last_error_text().find("Positional parameter number: 3\n"), std::string::npos);
    EXPECT_EQ(sec_create_mech_buffer(alpha, nullptr, &l.b), 4);
    EXPECT_NE(last_error_text().find("Positional parameter number: 2\n"), std::string::npos);
}

TEST_F(MechanismLists, Reconcile) {
    struct Case {
        std::vector<uint8_t> offer;
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
        sec_buffer_desc in{static_cast<qv_int32_t>(c.offer.size()), c.offer.data()};
        List out;
        cu_set_no_error_1();
        ASSERT_EQ(sec_reconcile_auth_methods(&in, &out.b), c.rc);
        EXPECT_EQ(last_message(), c.message);
        if (c.rc == 0) {
            EXPECT_EQ(out.codes(), c.shared);
        } else {
            EXPECT_EQ(out.b.value, nullptr);
        }
    }
    List out;
    EXPECT_EQ(sec_reconcile_auth_methods(nullptr, &out.b), 4);
    EXPECT_EQ(last_error_text(), "2650-002 Caller provided invalid arguments to sec_reconcile_auth_methods().");
}

TEST_F(MechanismLists, ReconcileWithoutConfiguredMechanisms) {
    use_config("# nothing configured\n");
    auto offer = list_bytes({0x10});
    sec_buffer_desc in{static_cast<qv_int32_t>(offer.size()), offer.data()};
    List out;
    ASSERT_EQ(sec_reconcile_auth_methods(&in, &out.b), 0);
    EXPECT_EQ(out.b.length, 2);
}

TEST_F(MechanismLists, ImposedMechanismEditing) {
    auto apply = [](qv_int32_t (*fn)(sec_buffer_t), const Codes &codes) {
        auto bytes = list_bytes(codes);
        sec_buffer_desc b{static_cast<qv_int32_t>(bytes.size()), bytes.data()};
        return fn(&b);
    };
    auto env = [] {
        const char *v = getenv(kEnvImposedMechs);
        return v ? std::string(v) : std::string("<unset>");
    };
    EXPECT_EQ(sec_clear_imposed_mechs(), 0);
    EXPECT_EQ(env(), "<unset>");  // emptied only when set

    EXPECT_EQ(apply(sec_set_imposed_mechs, {0x20, 0x99, 0x10}), 0);
    EXPECT_EQ(env(), "beta alpha");
    EXPECT_EQ(apply(sec_add_imposed_mechs, {0x10, 0x40, 0}), 0);
    EXPECT_EQ(env(), "beta alpha gamma none");
    setenv(kEnvImposedMechs, "  gamma\t\tbeta ", 1);
    EXPECT_EQ(apply(sec_add_imposed_mechs, {0x40}), 0);
    EXPECT_EQ(env(), "gamma beta");  // rewritten in canonical form
    EXPECT_EQ(apply(sec_add_imposed_mechs, {}), 0);
    EXPECT_EQ(env(), "gamma beta");
    EXPECT_EQ(apply(sec_set_imposed_mechs, {}), 0);
    EXPECT_EQ(env(), "");
    EXPECT_EQ(apply(sec_set_imposed_mechs, {0x30}), 0);
    EXPECT_EQ(sec_clear_imposed_mechs(), 0);
    EXPECT_EQ(env(), "");

    EXPECT_EQ(sec_set_imposed_mechs(nullptr), 4);
    EXPECT_EQ(sec_add_imposed_mechs(nullptr), 4);
    EXPECT_EQ(last_message(), MSG_2650_060);
    auto bad = list_bytes({0x10}, 3);
    sec_buffer_desc b{static_cast<qv_int32_t>(bad.size()), bad.data()};
    EXPECT_EQ(sec_add_imposed_mechs(&b), 9);
}

TEST_F(MechanismLists, EnvironmentStrings) {
    char name[] = "QV_SEC_IMP_MECHS";
    std::string long_name(65, 'N');
    std::string long_value(257, 'v');
    std::string max_value(256, 'v');
    char *out = nullptr;
    EXPECT_EQ(sec__create_varval(name, max_value.data(), &out), 0);
    EXPECT_EQ(std::string(out), "QV_SEC_IMP_MECHS=" + max_value);
    EXPECT_EQ(sec__create_varval(name, long_value.data(), &out), 21);
    EXPECT_EQ(last_message(), MSG_2650_075);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(sec__create_varval(long_name.data(), max_value.data(), &out), 21);
    EXPECT_EQ(last_message(), MSG_2650_074);
    EXPECT_EQ(sec__create_varval(nullptr, max_value.data(), &out), 0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(sec__create_empty_varval(name, &out), 0);
    EXPECT_STREQ(out, "QV_SEC_IMP_MECHS=");
    // Too long, reported, but still built.
    EXPECT_EQ(sec__create_empty_varval(long_name.data(), &out), 21);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::strlen(out), 65u);
}

TEST_F(MechanismLists, ContainsNone) {
    struct Case {
        const char *s;
        bool none;
    } cases[] = {{nullptr, false}, {"", false}, {"none", true}, {" alpha\tnone ", true},
                 {"nonee", false},  {"None", false}, {"abcdefghijklmnopq none", false}};
    for (auto &c : cases) {
        std::string s = c.s ? c.s : "";
        EXPECT_EQ(sec__contains_mech_none(c.s ? s.data() : nullptr) != 0, c.none) << (c.s ? c.s : "NULL");
    }
}

TEST_F(MechanismLists, CodesToMnemonics) {
    auto bytes = list_bytes({0x10, 0x77, 0, 0x40});
    sec_buffer_desc b{static_cast<qv_int32_t>(bytes.size()), bytes.data()};
    char out[256];
    std::strcpy(out, "untouched");
    SecMutexGuard hold(&SEC_STATE.lock);
    EXPECT_EQ(sec__translate_mech_codes(&b, 3, out), 0);
    EXPECT_STREQ(out, "alpha none");
    // A count beyond the buffer reads only what is there.
    EXPECT_EQ(sec__translate_mech_codes(&b, 100, out), 0);
    EXPECT_STREQ(out, "alpha none gamma");
    auto unknown = list_bytes({0x77});
    sec_buffer_desc u{static_cast<qv_int32_t>(unknown.size()), unknown.data()};
    std::strcpy(out, "untouched");
    EXPECT_EQ(sec__translate_mech_codes(&u, 1, out), 0);
    EXPECT_STREQ(out, "untouched");
}

}  // namespace
