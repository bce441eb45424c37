// The calling thread's error record, as an application reads it. Header
// only: the test program links whichever copy of libqv_cu it tests.
#pragma once

#include <cstdio>
#include <string>

#include "qv_cu.h"

namespace qvtest {

struct CurrentError {
    int id = -1;         // the record's error id; -1 when it cannot be read
    int msg_num = 0;     // the message number in the catalogue
    std::string text;    // the formatted message
};

inline CurrentError current_error() {
    CurrentError out;
    cu_error_t *e = nullptr;
    if (cu_get_error_1(&e) != 0 || e == nullptr) return out;
    out.id = e->cu_error_id;
    out.msg_num = static_cast<int>(e->cu_msg_num);
    char *m = nullptr;
    if (cu_get_errmsg_1(e, &m) == 0 && m != nullptr) out.text = m;
    cu_rel_errmsg_1(m);
    cu_rel_error_1(e);
    return out;
}

// The message number of the thread's error record, -1 when it holds none.
inline int last_message() {
    CurrentError e = current_error();
    return e.id != 0 && e.id != -1 ? e.msg_num : -1;
}

// The formatted text of the thread's error record ("" when it holds none).
inline std::string last_error_text() {
    CurrentError e = current_error();
    return e.id != 0 && e.id != -1 ? e.text : std::string();
}

// The arguments of the thread's error record joined by commas (strings as
// they are, numbers in decimal): which routine, position or value a message
// names, without repeating the message's text.
inline std::string current_error_args() {
    std::string out;
    cu_error_t *e = nullptr;
    if (cu_get_error_1(&e) != 0 || e == nullptr) return out;
    for (qv_uint32_t i = 0; e->cu_args != nullptr && i < e->cu_arg_cnt; ++i) {
        const cu_arg_t &a = e->cu_args[i];
        char num[32];
        if (i > 0) out += ',';
        if (a.cu_arg_type == CU_ARG_STRING) {
            out += a.cu_arg_value.cu_arg_string != nullptr ? a.cu_arg_value.cu_arg_string : "(null)";
            continue;
        }
        if (a.cu_arg_type == CU_ARG_INT || a.cu_arg_type == CU_ARG_LONG)
            std::snprintf(num, sizeof num, "%lld", static_cast<long long>(a.cu_arg_value.cu_arg_long));
        else
            std::snprintf(num, sizeof num, "%llu", static_cast<unsigned long long>(a.cu_arg_value.cu_arg_ulong));
        out += num;
    }
    cu_rel_error_1(e);
    return out;
}

}  // namespace qvtest
