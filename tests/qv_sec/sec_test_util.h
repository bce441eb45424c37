// The library's tests read the thread's error record by these short names,
// and a status record as one line.
#pragma once

#include <cstdio>
#include <cstring>
#include <string>

#include "current_error.h"
#include "qv_sec.h"

using qvtest::last_error_text;
using qvtest::last_message;

// "maj min mech desc" (numbers in decimal, the code in hex): one comparison
// for a whole status record.
inline std::string status_text(const sec_status_desc &st) {
    char head[64];
    std::snprintf(head, sizeof head, "%u %u 0x%x ", st.maj_stat, st.min_stat, st.mech_code);
    return head + std::string(st.desc, strnlen(st.desc, sizeof st.desc));
}
