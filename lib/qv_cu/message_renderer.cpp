// Renders a message text with a record's arguments. The text may come from a
// catalogue, which is outside input: it may name an argument that does not
// exist or convert an argument as a type it does not have. Such conversions
// never read anything but the argument's own value:
//  - an argument number beyond the record's arguments (or a '*' width or
//    precision that is not an integer argument) leaves the conversion text
//    as it stands, so the reader sees what the translator wrote;
//  - an argument of another type than the conversion's is printed by its own
//    type (%lld, %llu, %g, %s or %p), keeping only the '-' flag and width.
#include <cstdint>
#include <cstdio>
#include <string>

#include "cu_internal.h"

namespace qvcu {
namespace {

enum class ArgClass { Integer, Double, String, Pointer, Bad };

ArgClass class_of(const cu_arg_t &a) {
    switch (a.cu_arg_type) {
    case CU_ARG_INT: case CU_ARG_UINT: case CU_ARG_LONG: case CU_ARG_ULONG:
        return ArgClass::Integer;
    case CU_ARG_DOUBLE: return ArgClass::Double;
    case CU_ARG_STRING: return ArgClass::String;
    case CU_ARG_POINTER: return ArgClass::Pointer;
    default: return ArgClass::Bad;
    }
}

ArgClass class_of(const Conversion &c) {
    switch (va_type_of(c)) {
    case VaType::Double: return ArgClass::Double;
    case VaType::String: return ArgClass::String;
    case VaType::Pointer: return ArgClass::Pointer;
    case VaType::Unusable: return ArgClass::Bad;
    default: return ArgClass::Integer;
    }
}

unsigned bits_of(const cu_arg_t &a) {
    return (a.cu_arg_type == CU_ARG_INT || a.cu_arg_type == CU_ARG_UINT) ? 32 : 64;
}

// The value's low `bits` bits, sign- or zero-extended.
int64_t signed_value(uint64_t raw, unsigned bits) {
    if (bits >= 64) return int64_t(raw);
    uint64_t m = uint64_t(1) << (bits - 1);
    raw &= (m << 1) - 1;
    return int64_t((raw ^ m) - m);
}
uint64_t unsigned_value(uint64_t raw, unsigned bits) {
    return bits >= 64 ? raw : raw & ((uint64_t(1) << bits) - 1);
}

template <class T>
void append_printf(std::string &out, const std::string &format, T value) {
    int n = std::snprintf(nullptr, 0, format.c_str(), value);
    if (n <= 0) return;
    size_t at = out.size();
    out.resize(at + size_t(n) + 1);
    std::snprintf(out.data() + at, size_t(n) + 1, format.c_str(), value);
    out.resize(at + size_t(n));
}

struct Field {
    bool minus, plus, space, hash, zero;
    int width, precision;
};

// A printf format for one value; flags a conversion does not define are
// dropped, since their effect is undefined.
std::string make_format(const Field &f, char conv, const char *length) {
    bool numeric = std::string_view("diouxXfFeEgGaA").find(conv) != std::string_view::npos;
    bool is_signed = std::string_view("difFeEgGaA").find(conv) != std::string_view::npos;
    bool alt = std::string_view("oxXfFeEgGaA").find(conv) != std::string_view::npos;
    std::string s = "%";
    if (f.minus) s += '-';
    if (f.plus && is_signed) s += '+';
    if (f.space && is_signed) s += ' ';
    if (f.hash && alt) s += '#';
    if (f.zero && numeric) s += '0';
    if (f.width >= 0) s += std::to_string(f.width);
    if (f.precision >= 0 && conv != 'c' && conv != 'p') s += '.' + std::to_string(f.precision);
    s += length;
    s += conv;
    return s;
}

// The argument printed by its own type, for a conversion of another type.
void append_natural(std::string &out, const cu_arg_t &a, Field f) {
    f = Field{f.minus, false, false, false, false, f.width, -1};
    const auto &v = a.cu_arg_value;
    switch (a.cu_arg_type) {
    case CU_ARG_INT: case CU_ARG_LONG:
        append_printf(out, make_format(f, 'd', "ll"), (long long)v.cu_arg_long);
        break;
    case CU_ARG_UINT: case CU_ARG_ULONG:
        append_printf(out, make_format(f, 'u', "ll"), (unsigned long long)v.cu_arg_ulong);
        break;
    case CU_ARG_DOUBLE:
        append_printf(out, make_format(f, 'g', ""), v.cu_arg_double);
        break;
    case CU_ARG_STRING:
        append_printf(out, make_format(f, 's', ""), v.cu_arg_string ? v.cu_arg_string : "(null)");
        break;
    default:
        append_printf(out, make_format(f, 'p', ""), v.cu_arg_pointer);
        break;
    }
}

void append_integer(std::string &out, const Conversion &c, const cu_arg_t &a, const Field &f) {
    unsigned bits = bits_of(a);
    std::string_view len(c.length);
    // hh and h narrow the value as printf does; a wider modifier than the
    // argument's own type cannot widen it.
    if (len == "hh" && bits > 8) bits = 8;
    if (len == "h" && bits > 16) bits = 16;
    uint64_t raw = a.cu_arg_value.cu_arg_ulong;
    if (c.conv == 'c') {
        append_printf(out, make_format(f, 'c', ""), int(unsigned_value(raw, 8)));
    } else if (c.conv == 'd' || c.conv == 'i') {
        append_printf(out, make_format(f, c.conv, "ll"), (long long)signed_value(raw, bits));
    } else {
        append_printf(out, make_format(f, c.conv, "ll"), (unsigned long long)unsigned_value(raw, bits));
    }
}

// A '*' width or precision: the integer argument's value, or nullopt.
std::optional<int64_t> star_value(unsigned n, std::span<const cu_arg_t> args) {
    if (n == 0 || n > args.size() || class_of(args[n - 1]) != ArgClass::Integer) return std::nullopt;
    const cu_arg_t &a = args[n - 1];
    if (a.cu_arg_type == CU_ARG_UINT || a.cu_arg_type == CU_ARG_INT)
        return signed_value(a.cu_arg_value.cu_arg_ulong, 32);  // printf reads an int
    return a.cu_arg_value.cu_arg_long;
}

// Renders one valid conversion; false when it must be shown as written.
bool append_conversion(std::string &out, const Conversion &c, std::span<const cu_arg_t> args) {
    if (c.arg == 0 || c.arg > args.size() || c.conv == 'n') return false;
    const cu_arg_t &a = args[c.arg - 1];
    if (class_of(a) == ArgClass::Bad) return false;
    Field f{c.minus, c.plus, c.space, c.hash, c.zero, c.width, c.precision};
    if (c.width_arg) {
        auto w = star_value(c.width_arg, args);
        if (!w || *w > kMaxFieldWidth || *w < -kMaxFieldWidth) return false;
        if (*w < 0) f.minus = true;  // as printf: a negative width is a '-' flag
        f.width = int(*w < 0 ? -*w : *w);
    }
    if (c.prec_arg) {
        auto p = star_value(c.prec_arg, args);
        if (!p || *p > kMaxFieldWidth) return false;
        f.precision = *p < 0 ? -1 : int(*p);  // negative: as if omitted
    }
    if (class_of(c) != class_of(a)) {
        append_natural(out, a, f);
        return true;
    }
    const auto &v = a.cu_arg_value;
    switch (class_of(a)) {
    case ArgClass::Integer:
        append_integer(out, c, a, f);
        break;
    case ArgClass::Double:
        append_printf(out, make_format(f, c.conv, ""), v.cu_arg_double);
        break;
    case ArgClass::String:
        append_printf(out, make_format(f, 's', ""), v.cu_arg_string ? v.cu_arg_string : "(null)");
        break;
    default:
        append_printf(out, make_format(f, 'p', ""), v.cu_arg_pointer);
        break;
    }
    return true;
}

}  // namespace

std::string render_message(std::string_view text, std::span<const cu_arg_t> args) {
    std::string out;
    out.reserve(text.size() + 16 * args.size());
    for (const Piece &p : parse_message_text(text)) {
        if (p.literal || !p.conversion.valid || !append_conversion(out, p.conversion, args))
            out.append(p.literal ? p.text : p.conversion.text);
    }
    return out;
}

}  // namespace qvcu
