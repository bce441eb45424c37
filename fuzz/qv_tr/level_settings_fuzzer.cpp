// Arbitrary QV_TRACE values (cut at the first NUL, as the environment
// holds them). Checks: the parser's settings, written back in the grammar,
// parse to the same settings with nothing malformed; and a component
// registered with the value in QV_TRACE gets, in each category, its default
// raised to its minimum and then every matching setting in order, never
// below the minimum.
#include "../fuzz_support.h"
#include "internal.h"
#include "qv_tr.h"

namespace {

bool matches(const std::string &pattern, const char *name) { return pattern == "*" || qvtr::names_equal(pattern, name); }

}  // namespace

QV_FUZZ_TARGET(4096) {
    std::string text(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    qvtr::ParsedSettings parsed = qvtr::parse_level_settings(text);

    std::string again;
    for (const qvtr::LevelSetting &s : parsed.settings) {
        if (s.component.empty() || s.category.empty()) __builtin_trap();
        again += s.component + ":" + s.category + "=" + std::to_string(s.level) + ";";
    }
    qvtr::ParsedSettings reparsed = qvtr::parse_level_settings(again);
    if (reparsed.malformed || reparsed.settings.size() != parsed.settings.size()) __builtin_trap();
    for (size_t i = 0; i < parsed.settings.size(); ++i) {
        const qvtr::LevelSetting &a = parsed.settings[i], &b = reparsed.settings[i];
        if (a.component != b.component || a.category != b.category || a.level != b.level) __builtin_trap();
    }

    static const tr_category_description cats[] = {
        {0, "Errors", 0, 0}, {1, "API", 2, 0}, {2, "Buffer", 0, 3}, {4, "Info", 5, 1}};
    constexpr int kCats = sizeof cats / sizeof cats[0];
    tr_detail_level_t levels[5];
    std::memset(levels, 0xee, sizeof levels);
    setenv("QV_TRACE", text.c_str(), 1);
    if (tr_register_component_1("_FZZ", levels, cats, kCats) != TR_OK) __builtin_trap();
    for (const tr_category_description &c : cats) {
        uint8_t want = c.default_level_of_detail > c.minimum_level_of_detail ? c.default_level_of_detail
                                                                              : c.minimum_level_of_detail;
        for (const qvtr::LevelSetting &s : parsed.settings)
            if (matches(s.component, "_FZZ") && matches(s.category, c.category_name))
                want = s.level > c.minimum_level_of_detail ? s.level : c.minimum_level_of_detail;
        if (levels[c.category_id] != want) __builtin_trap();
    }
    if (levels[3] != 0xee) __builtin_trap();  // no category 3: left alone
    if (tr_unregister_component_1("_FZZ") != TR_OK) __builtin_trap();
    unsetenv("QV_TRACE");
}
