// Learns from a default text which C type the caller passes for each message
// argument, so that cu_set_error_1 reads its variable arguments correctly.
#include <algorithm>

#include "cu_internal.h"

namespace qvcu {
namespace {

// Two conversions naming the same argument must agree on the C type it was
// passed as; the signed and unsigned forms of one type read alike.
VaType merge(VaType have, VaType seen) {
    if (have == VaType::None || have == seen) return seen;
    auto unsigned_of = [](VaType t) {
        switch (t) {
        case VaType::Int: return VaType::UInt;
        case VaType::Long: return VaType::ULong;
        case VaType::LongLong: return VaType::ULongLong;
        case VaType::IntMax: return VaType::UIntMax;
        default: return t;
        }
    };
    if (unsigned_of(have) == unsigned_of(seen)) return have;
    return VaType::Unusable;
}

}  // namespace

std::vector<VaType> argument_types(std::string_view default_text) {
    std::vector<VaType> types(kMaxArgs + 1, VaType::None);  // [0] unused
    unsigned limit = kMaxArgs;
    unsigned last_arg = 0;
    for (const Piece &p : parse_message_text(default_text)) {
        if (p.literal) continue;
        const Conversion &c = p.conversion;
        if (!c.valid) {
            // The caller may have passed a value for this one: the plain
            // numbering after it, and so every later argument, is uncertain.
            limit = std::min(limit, last_arg);
            continue;
        }
        if (c.width_arg) types[c.width_arg] = merge(types[c.width_arg], VaType::Int);
        if (c.prec_arg) types[c.prec_arg] = merge(types[c.prec_arg], VaType::Int);
        types[c.arg] = merge(types[c.arg], va_type_of(c));
        last_arg = c.arg;
    }
    // Arguments after an unknown one cannot be located in the va_list.
    unsigned n = 0;
    while (n < limit && types[n + 1] != VaType::None && types[n + 1] != VaType::Unusable) ++n;
    return {types.begin() + 1, types.begin() + 1 + n};
}

cu_arg_type_t record_type(VaType t) {
    switch (t) {
    case VaType::Int: return CU_ARG_INT;
    case VaType::UInt: return CU_ARG_UINT;
    case VaType::Long: case VaType::LongLong: case VaType::IntMax: case VaType::PtrDiff:
        return CU_ARG_LONG;
    case VaType::ULong: case VaType::ULongLong: case VaType::UIntMax: case VaType::Size:
        return CU_ARG_ULONG;
    case VaType::Double: return CU_ARG_DOUBLE;
    case VaType::String: return CU_ARG_STRING;
    default: return CU_ARG_POINTER;
    }
}

}  // namespace qvcu
