// Reading back the calling thread's error record in the library's tests.
#pragma once

#include <string>

#include "qv_cu.h"

// The message number of the thread's error record, or -1 when it holds none.
inline int last_message() {
    cu_error_t *e = nullptr;
    cu_get_error_1(&e);
    int n = e->cu_error_id ? e->cu_msg_num : -1;
    cu_rel_error_1(e);
    return n;
}

// The formatted text of the thread's error record ("" when it holds none).
inline std::string last_error_text() {
    cu_error_t *e = nullptr;
    cu_get_error_1(&e);
    std::string text;
    char *msg = nullptr;
    if (e->cu_error_id && cu_get_errmsg_1(e, &msg) == 0 && msg) text = msg;
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(e);
    return text;
}
