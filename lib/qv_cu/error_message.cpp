// cu_get_errmsg_1: a record's message, from the catalogue when it has one,
// else from the record's default text.
#include <cstdlib>
#include <cstring>
#include <new>

#include "cu_internal.h"

extern "C" {

int cu_get_errmsg_1(const cu_error_t *err, char **msg) {
    if (msg == nullptr) return CU_E_BADARG;
    *msg = nullptr;
    if (err == nullptr) return CU_E_BADARG;
    try {
        std::optional<std::string> translated =
            qvcu::catalogue_text(err->cu_msg_cat, err->cu_msg_set, err->cu_msg_num);
        std::string_view text = translated ? std::string_view(*translated)
                                : err->cu_msg_default ? std::string_view(err->cu_msg_default)
                                                      : std::string_view();
        std::span<const cu_arg_t> args;
        if (err->cu_args != nullptr) args = {err->cu_args, err->cu_arg_cnt};
        std::string out = qvcu::render_message(text, args);
        char *copy = static_cast<char *>(malloc(out.size() + 1));
        if (copy == nullptr) return CU_E_NOMEM;
        std::memcpy(copy, out.c_str(), out.size() + 1);
        *msg = copy;
        return 0;
    } catch (const std::bad_alloc &) {
        return CU_E_NOMEM;
    }
}

void cu_rel_errmsg_1(char *msg) { free(msg); }

}  // extern "C"
