// Level settings: the QV_TRACE grammar, and how registration, run-time
// changes and unregistration write a component's level array.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>

#include "internal.h"
#include "qv_tr.h"

namespace {

using qvtr::LevelSetting;
using qvtr::parse_level_settings;

std::string render(const std::vector<LevelSetting> &settings) {
    std::string out;
    for (const LevelSetting &s : settings)
        out += s.component + "|" + s.category + "|" + std::to_string(s.level) + " ";
    return out;
}

TEST(LevelSettingsParse, Table) {
    struct Case {
        const char *text;
        const char *settings;
        bool malformed;
    } cases[] = {
        {"", "", false},
        {"_SEA:API=8,Buffer=1", "_SEA|API|8 _SEA|Buffer|1 ", false},
        {"_SEA:*=8", "_SEA|*|8 ", false},
        {"*:Errors=1", "*|Errors|1 ", false},
        {"_SEA:API=8;_XYZ:Info=2", "_SEA|API|8 _XYZ|Info|2 ", false},
        {" _SEA : API = 8 , Buffer=1 ; ", "_SEA|API|8 _SEA|Buffer|1 ", false},
        {";;_SEA:API=8,,", "_SEA|API|8 ", false},
        {"_SEA:API=255", "_SEA|API|255 ", false},
        {"_SEA:API=007", "_SEA|API|7 ", false},
        // Malformed parts are dropped, the rest stays.
        {"_SEA:API=256,Buffer=1", "_SEA|Buffer|1 ", true},
        {"_SEA:API=-1", "", true},
        {"_SEA:API=8x", "", true},
        {"_SEA:API=", "", true},
        {"_SEA:=8", "", true},
        {"_SEA:API", "", true},
        {"_SEA:API=1000", "", true},
        {"_SEA:API=99999999999999999999", "", true},
        {"_SEA", "", true},
        {":API=8;_SEA:Info=1", "_SEA|Info|1 ", true},
        {"_SEA;API=8", "", true},
        {"_SEA:API=8=9", "", true},
        {"\x01\xff:\x80=1", "\x01\xff|\x80|1 ", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        qvtr::ParsedSettings parsed = parse_level_settings(c.text);
        EXPECT_EQ(render(parsed.settings), c.settings);
        EXPECT_EQ(parsed.malformed, c.malformed);
    }
}

// Categories with a gap at id 3, so that a stray write shows up there.
const tr_category_description kCategories[] = {
    {0, "Errors", 0, 0}, {1, "Info", 0, 0}, {2, "API", 2, 0},
    {4, "Buffer", 0, 1}, {5, "Locked", 4, 6},
};
using Levels = std::array<tr_detail_level_t, 6>;
constexpr tr_detail_level_t kUntouched = 0xEE;

Levels register_with(const char *comp, const char *qv_trace) {
    if (qv_trace)
        setenv("QV_TRACE", qv_trace, 1);
    else
        unsetenv("QV_TRACE");
    static Levels levels;
    levels.fill(kUntouched);
    EXPECT_EQ(tr_register_component_1(comp, levels.data(), kCategories, 5), TR_OK);
    unsetenv("QV_TRACE");
    return levels;
}

TEST(Registration, LevelsFromDefaultsMinimumsAndQvTrace) {
    struct Case {
        const char *qv_trace;
        Levels expected;
    } cases[] = {
        {nullptr, {0, 0, 2, kUntouched, 1, 6}},
        {"", {0, 0, 2, kUntouched, 1, 6}},
        {"_REG:API=8,Buffer=3", {0, 0, 8, kUntouched, 3, 6}},
        {"_reg:api=8,BUFFER=3", {0, 0, 8, kUntouched, 3, 6}},
        {"_REG:*=9", {9, 9, 9, kUntouched, 9, 9}},
        {"_REG:*=0", {0, 0, 0, kUntouched, 1, 6}},
        {"*:Info=5", {0, 5, 2, kUntouched, 1, 6}},
        {"_REG:*=7,API=1", {7, 7, 1, kUntouched, 7, 7}},
        {"_REG:API=1;_REG:API=3", {0, 0, 3, kUntouched, 1, 6}},
        {"_OTHER:*=8;_REG:Errors=4", {4, 0, 2, kUntouched, 1, 6}},
        {"_REG:Nope=8,Info=2", {0, 2, 2, kUntouched, 1, 6}},
        {"_REG:API=300,Info=2;garbage;_REG", {0, 2, 2, kUntouched, 1, 6}},
        {"_REGX:*=8;_RE:*=8", {0, 0, 2, kUntouched, 1, 6}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.qv_trace ? c.qv_trace : "(unset)");
        EXPECT_EQ(register_with("_REG", c.qv_trace), c.expected);
    }
    EXPECT_EQ(tr_unregister_component_1("_REG"), TR_OK);
}

TEST(Registration, RunTimeChangesApplyNowAndToLaterRegistrations) {
    Levels a;
    a.fill(kUntouched);
    ASSERT_EQ(tr_register_component_1("_RTA", a.data(), kCategories, 5), TR_OK);

    EXPECT_EQ(tr_set_levels_1("_rta:Info=3,Locked=1"), TR_OK);
    EXPECT_EQ(a, (Levels{0, 3, 2, kUntouched, 1, 6}));
    EXPECT_EQ(tr_set_levels_1("_RTA:*=0;bad;_RTA:API=9"), TR_E_BAD_SETTING);
    EXPECT_EQ(a, (Levels{0, 0, 9, kUntouched, 1, 6}));

    // Remembered for a component registered afterwards, after QV_TRACE.
    // A setting of another category keeps the earlier one.
    EXPECT_EQ(tr_set_levels_1("_RTB:Buffer=5"), TR_OK);
    EXPECT_EQ(tr_set_levels_1("_RTB:Errors=3"), TR_OK);
    Levels b = register_with("_RTB", "_RTB:Buffer=2,Errors=1");
    EXPECT_EQ(b, (Levels{3, 0, 2, kUntouched, 5, 6}));

    // A later "*" replaces the earlier settings of that component.
    EXPECT_EQ(tr_set_levels_1("_RTB:*=4"), TR_OK);
    EXPECT_EQ(tr_unregister_component_1("_RTB"), TR_OK);
    b = register_with("_RTB", nullptr);
    EXPECT_EQ(b, (Levels{4, 4, 4, kUntouched, 4, 6}));

    EXPECT_EQ(tr_set_levels_1(""), TR_OK);
    EXPECT_EQ(tr_set_levels_1(nullptr), TR_E_ARGUMENT);
    EXPECT_EQ(tr_unregister_component_1("_RTA"), TR_OK);
    EXPECT_EQ(tr_unregister_component_1("_RTB"), TR_OK);
}

TEST(Registration, UnregisterAndReregister) {
    Levels first, second;
    first.fill(kUntouched);
    second.fill(kUntouched);
    ASSERT_EQ(tr_register_component_1("_UNR", first.data(), kCategories, 5), TR_OK);
    ASSERT_EQ(tr_register_component_1("_unr", second.data(), kCategories, 5), TR_OK);
    // The first array is no longer the library's.
    EXPECT_EQ(tr_set_levels_1("_UNR:Errors=7"), TR_OK);
    EXPECT_EQ(first[0], 0);
    EXPECT_EQ(second[0], 7);

    EXPECT_EQ(tr_unregister_component_1("_UNR"), TR_OK);
    EXPECT_EQ(second, (Levels{0, 0, 0, kUntouched, 0, 0}));
    EXPECT_EQ(tr_set_levels_1("_UNR:Errors=3"), TR_OK);
    EXPECT_EQ(second[0], 0);
    EXPECT_EQ(tr_unregister_component_1("_UNR"), TR_E_NOT_FOUND);
}

TEST(Registration, BadArguments) {
    Levels levels;
    levels.fill(kUntouched);
    std::string long_name(256, 'c');
    const tr_category_description negative[] = {{0, "A", 1, 0}, {-1, "B", 1, 0}};
    EXPECT_EQ(tr_register_component_1(nullptr, levels.data(), kCategories, 5), TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1("", levels.data(), kCategories, 5), TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1(long_name.c_str(), levels.data(), kCategories, 5),
              TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1("_BAD", nullptr, kCategories, 5), TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1("_BAD", levels.data(), nullptr, 5), TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1("_BAD", levels.data(), kCategories, -1), TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1("_BAD", levels.data(), negative, 2), TR_E_ARGUMENT);
    EXPECT_EQ(levels[0], kUntouched);  // nothing written on failure
    EXPECT_EQ(tr_unregister_component_1("_BAD"), TR_E_NOT_FOUND);
    EXPECT_EQ(tr_unregister_component_1(nullptr), TR_E_ARGUMENT);

    // No categories at all is a valid, if useless, registration.
    EXPECT_EQ(tr_register_component_1("_EMPTY", nullptr, nullptr, 0), TR_OK);
    EXPECT_EQ(tr_unregister_component_1("_EMPTY"), TR_OK);
    long_name.resize(255);
    EXPECT_EQ(tr_register_component_1(long_name.c_str(), levels.data(), kCategories, 1), TR_OK);
    EXPECT_EQ(tr_unregister_component_1(long_name.c_str()), TR_OK);
}

}  // namespace
