// Splits printf-style message texts into literal runs and conversions. The
// same parser reads the default text (to learn the arguments' types) and the
// text that is rendered (default or catalogue), so both agree on numbering.
#include <cstring>

#include "cu_internal.h"

namespace qvcu {
namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }
// strchr finds the terminator for '\0', which a text may hold.
bool one_of(const char *set, char ch) { return ch != '\0' && std::strchr(set, ch) != nullptr; }

// Reads a decimal number at text[j...], saturating far above any limit we use.
unsigned read_number(std::string_view text, size_t &j) {
    unsigned value = 0;
    while (j < text.size() && is_digit(text[j])) {
        if (value < 1000000) value = value * 10 + unsigned(text[j] - '0');
        ++j;
    }
    return value;
}

// "N$" at text[j...]: the argument number, or 0 (j unchanged) when absent.
// Sets bad when the number is out of range.
unsigned read_position(std::string_view text, size_t &j, bool &bad) {
    size_t k = j;
    if (k >= text.size() || !is_digit(text[k])) return 0;
    unsigned n = read_number(text, k);
    if (k >= text.size() || text[k] != '$') return 0;
    if (n == 0 || n > kMaxArgs) bad = true;
    j = k + 1;
    return n;
}

bool read_flag(char ch, Conversion &c) {
    switch (ch) {
    case '-': c.minus = true; return true;
    case '+': c.plus = true; return true;
    case ' ': c.space = true; return true;
    case '#': c.hash = true; return true;
    case '0': c.zero = true; return true;
    default: return false;
    }
}

void read_length(std::string_view text, size_t &j, Conversion &c) {
    if (j >= text.size()) return;
    char ch = text[j];
    if ((ch == 'h' || ch == 'l') && j + 1 < text.size() && text[j + 1] == ch) {
        c.length[0] = c.length[1] = ch;
        j += 2;
    } else if (one_of("hljztLq", ch)) {
        c.length[0] = ch;
        ++j;
    }
}

// Parses the conversion that starts at text[start] == '%'. cursor is the
// argument number the previous conversion used; it is advanced only when the
// conversion is valid. Returns the index after the conversion.
size_t parse_conversion(std::string_view text, size_t start, unsigned &cursor, Conversion &c) {
    size_t j = start + 1;
    bool bad = false;
    unsigned next = cursor;
    auto plain_arg = [&]() { return ++next; };

    unsigned position = read_position(text, j, bad);
    while (j < text.size() && read_flag(text[j], c)) ++j;

    if (j < text.size() && text[j] == '*') {
        ++j;
        unsigned m = read_position(text, j, bad);
        c.width_arg = m ? (next = m) : plain_arg();
    } else if (j < text.size() && is_digit(text[j])) {
        unsigned w = read_number(text, j);
        if (w > unsigned(kMaxFieldWidth)) bad = true;
        c.width = int(w > unsigned(kMaxFieldWidth) ? kMaxFieldWidth : w);
    }
    // The message table has "%08#x": a '#' after the width is taken as the
    // flag it was meant to be, giving what "%#08x" gives.
    while (j < text.size() && text[j] == '#') {
        c.hash = true;
        ++j;
    }
    if (j < text.size() && text[j] == '.') {
        ++j;
        if (j < text.size() && text[j] == '*') {
            ++j;
            unsigned m = read_position(text, j, bad);
            c.prec_arg = m ? (next = m) : plain_arg();
        } else {
            unsigned p = read_number(text, j);
            if (p > unsigned(kMaxFieldWidth)) bad = true;
            c.precision = int(p > unsigned(kMaxFieldWidth) ? kMaxFieldWidth : p);
        }
    }
    read_length(text, j, c);
    if (j >= text.size() || !one_of("diouxXcspfFeEgGaAn", text[j])) {
        c.text = text.substr(start, j - start);
        c.valid = false;
        return j;
    }
    c.conv = text[j++];
    // The message table has "%2$016xll" for a 64-bit value: a trailing "ll"
    // after an integer conversion with no length modifier is its length
    // modifier, so the caller passes a 64-bit value and no "ll" is printed.
    if (c.length[0] == 0 && one_of("diouxX", c.conv) &&
        text.substr(j, 2) == "ll") {
        c.length[0] = c.length[1] = 'l';
        j += 2;
    }
    c.arg = position ? (next = position) : plain_arg();
    if (next > kMaxArgs || c.width_arg > kMaxArgs || c.prec_arg > kMaxArgs) bad = true;
    c.text = text.substr(start, j - start);
    c.valid = !bad;
    if (c.valid) cursor = next;
    return j;
}

}  // namespace

std::vector<Piece> parse_message_text(std::string_view text) {
    std::vector<Piece> pieces;
    unsigned cursor = 0;
    size_t i = 0;
    while (i < text.size()) {
        size_t pct = text.find('%', i);
        if (pct == std::string_view::npos) pct = text.size();
        if (pct > i) pieces.push_back(Piece{true, text.substr(i, pct - i), {}});
        if (pct == text.size()) break;
        if (pct + 1 < text.size() && text[pct + 1] == '%') {
            pieces.push_back(Piece{true, text.substr(pct + 1, 1), {}});
            i = pct + 2;
            continue;
        }
        Piece p;
        p.literal = false;
        size_t end = parse_conversion(text, pct, cursor, p.conversion);
        if (!p.conversion.valid) {
            // Only the '%' is taken: what follows is shown as ordinary text.
            p.conversion.text = text.substr(pct, 1);
            end = pct + 1;
        }
        pieces.push_back(p);
        i = end;
    }
    return pieces;
}

VaType va_type_of(const Conversion &c) {
    std::string_view len(c.length);
    switch (c.conv) {
    case 'd': case 'i':
        if (len.empty() || len == "h" || len == "hh") return VaType::Int;
        if (len == "l") return VaType::Long;
        if (len == "ll" || len == "q") return VaType::LongLong;
        if (len == "j") return VaType::IntMax;
        if (len == "z") return VaType::Size;
        if (len == "t") return VaType::PtrDiff;
        return VaType::Unusable;
    case 'o': case 'u': case 'x': case 'X':
        if (len.empty() || len == "h" || len == "hh") return VaType::UInt;
        if (len == "l") return VaType::ULong;
        if (len == "ll" || len == "q") return VaType::ULongLong;
        if (len == "j") return VaType::UIntMax;
        if (len == "z") return VaType::Size;
        if (len == "t") return VaType::PtrDiff;
        return VaType::Unusable;
    case 'c':
        return len.empty() ? VaType::Int : VaType::Unusable;
    case 's':
        return len.empty() ? VaType::String : VaType::Unusable;
    case 'p':
        return len.empty() ? VaType::Pointer : VaType::Unusable;
    case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A':
        // %Lf reads a long double, which the record cannot keep.
        return (len.empty() || len == "l") ? VaType::Double : VaType::Unusable;
    default:  // %n writes through its argument: never honoured
        return VaType::Unusable;
    }
}

}  // namespace qvcu
