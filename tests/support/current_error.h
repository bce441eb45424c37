// The calling thread's error record, as an application reads it. Header
// only: the test program links whichever copy of libqv_cu it tests.
#pragma once

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

}  // namespace qvtest
