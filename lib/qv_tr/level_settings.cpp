// Parser of level settings ("_SEA:API=8,Buffer=1;_XYZ:*=1") as given in
// QV_TRACE or to tr_set_levels_1.
#include "internal.h"

namespace qvtr {
namespace {

std::string_view trim(std::string_view s) {
    const char *blanks = " \t\r\n";
    size_t first = s.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    size_t last = s.find_last_not_of(blanks);
    return s.substr(first, last - first + 1);
}

// Splits s at each sep; calls f for every piece.
template <typename F>
void for_each_piece(std::string_view s, char sep, F f) {
    for (;;) {
        size_t cut = s.find(sep);
        f(s.substr(0, cut));
        if (cut == std::string_view::npos)
            return;
        s.remove_prefix(cut + 1);
    }
}

bool parse_level(std::string_view s, uint8_t &level) {
    if (s.empty() || s.size() > 3)
        return false;
    unsigned value = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + unsigned(c - '0');
    }
    if (value > 255)
        return false;
    level = uint8_t(value);
    return true;
}

void parse_group(std::string_view group, ParsedSettings &out) {
    size_t colon = group.find(':');
    std::string_view component = trim(group.substr(0, colon));
    if (colon == std::string_view::npos || component.empty()) {
        out.malformed = true;
        return;
    }
    for_each_piece(group.substr(colon + 1), ',', [&](std::string_view setting) {
        if (trim(setting).empty())
            return;
        size_t eq = setting.find('=');
        std::string_view category = trim(setting.substr(0, eq));
        uint8_t level;
        if (eq == std::string_view::npos || category.empty() ||
            !parse_level(trim(setting.substr(eq + 1)), level)) {
            out.malformed = true;
            return;
        }
        out.settings.push_back({std::string(component), std::string(category), level});
    });
}

}  // namespace

bool names_equal(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z')
            x = char(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z')
            y = char(y - 'A' + 'a');
        if (x != y)
            return false;
    }
    return true;
}

ParsedSettings parse_level_settings(std::string_view text) {
    ParsedSettings out;
    for_each_piece(text, ';', [&](std::string_view group) {
        if (!trim(group).empty())
            parse_group(group, out);
    });
    return out;
}

}  // namespace qvtr
