// Short forms of the thread's error record for the library's tests.
#pragma once

#include <string>

#include "current_error.h"

// The message number of the thread's error record, or -1 when it holds none.
inline int last_message() {
    qvtest::CurrentError e = qvtest::current_error();
    return e.id != 0 && e.id != -1 ? e.msg_num : -1;
}

// The formatted text of the thread's error record ("" when it holds none).
inline std::string last_error_text() {
    qvtest::CurrentError e = qvtest::current_error();
    return e.id != 0 && e.id != -1 ? e.text : std::string();
}
