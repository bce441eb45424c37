// Renders an arbitrary catalogue text against arguments typed by an arbitrary
// default text, as cu_get_errmsg_1 does for a record whose catalogue message
// was translated by someone else. Input: default text, a NUL byte, the
// catalogue text. Argument values are taken from the input's first bytes.
#include <string_view>

#include "../fuzz_support.h"
#include "cu_internal.h"

QV_FUZZ_TARGET(SIZE_MAX) {
    std::string_view input(reinterpret_cast<const char *>(data), size);
    size_t nul = input.find('\0');
    std::string default_text(input.substr(0, nul));
    std::string_view catalogue_text = nul == std::string_view::npos ? std::string_view() : input.substr(nul + 1);

    std::vector<qvcu::VaType> types = qvcu::argument_types(default_text);
    std::vector<cu_arg_t> args(types.size());
    std::vector<std::string> strings(types.size());
    for (size_t i = 0; i < types.size(); ++i) {
        uint64_t v = 0;
        for (size_t k = 0; k < 8 && k + i < size; ++k) v = (v << 8) | data[(k + i) % size];
        args[i].cu_arg_type = qvcu::record_type(types[i]);
        switch (args[i].cu_arg_type) {
        case CU_ARG_INT: args[i].cu_arg_value.cu_arg_long = int32_t(v); break;
        case CU_ARG_UINT: args[i].cu_arg_value.cu_arg_ulong = uint32_t(v); break;
        case CU_ARG_DOUBLE: {
            double d;
            std::memcpy(&d, &v, sizeof d);  // NaNs, infinities and denormals too
            args[i].cu_arg_value.cu_arg_double = d;
            break;
        }
        case CU_ARG_STRING:
            strings[i] = std::string(default_text.substr(0, v % 16));
            args[i].cu_arg_value.cu_arg_string = (v & 0x100) ? nullptr : strings[i].data();
            break;
        case CU_ARG_POINTER: args[i].cu_arg_value.cu_arg_pointer = reinterpret_cast<void *>(v); break;
        default: args[i].cu_arg_value.cu_arg_ulong = v; break;
        }
    }
    std::string from_catalogue = qvcu::render_message(catalogue_text, args);
    std::string from_default = qvcu::render_message(default_text, args);
    // Records copy and free whatever they hold.
    cu_error_t rec{};
    rec.cu_msg_default = default_text.data();
    rec.cu_arg_cnt = uint32_t(args.size());
    rec.cu_args = args.data();
    qvcu::free_record(qvcu::copy_record(&rec));
}
