// Trace record ids of the library, taken from the one table that qvtrace
// also reads (trace_records.def), so that the writer and the reader cannot
// drift apart. An exported routine has an entry record (id only, or with the
// arguments at the higher level) and an exit record (id only, with the return
// code, or with the return code and the status record).
#pragma once

#include <cstddef>
#include <initializer_list>

#include "qv_types.h"

struct sec_trace_ids {
    qv_uint32_t entry;
    qv_uint32_t entry_data;
    qv_uint32_t exit;
    qv_uint32_t exit_rc;
    qv_uint32_t exit_status;
};

// The bytes an argument of the layout word type takes in a data record; 0
// for a string, which has no fixed size.
constexpr size_t sec_trace_item_size(char type) {
    switch (type) {
    case 'd': case 'u': case 'x': case 'r': case 'm': case 'w': return 4;
    case 's': case 'b': return 0;
    default: return 8;  // 'p', 't'
    }
}

// Whether the argument sizes of a trace call match a layout of the table:
// as many words as arguments, each of the argument's size.
constexpr bool sec_trace_layout_fits(const char *layout, std::initializer_list<size_t> sizes) {
    auto size = sizes.begin();
    for (const char *p = layout; *p != '\0';) {
        if (*p == ' ') {
            ++p;
            continue;
        }
        char type = 'p';
        for (; *p != '\0' && *p != ' '; ++p)
            if (*p == ':') type = p[1];
        if (size == sizes.end() || sec_trace_item_size(type) != *size) return false;
        ++size;
    }
    return size == sizes.end();
}

// The ids of one routine, typed by its row of the table so that its entry
// record's arguments are checked against the row's layout at compile time.
template <typename Row>
struct sec_trace_routine_ids : sec_trace_ids {};

#define QV_TRACE_RECORD(symbol, id, category, title, layout) inline constexpr qv_uint32_t kTrace##symbol = id;
#define QV_TRACE_API(symbol, routine, entry, entry_data, exit, exit_rc, exit_status, arguments) \
    struct sec_trace_row_##symbol {                                                          \
        static constexpr const char *arguments_layout = arguments;                           \
    };                                                                                       \
    inline constexpr sec_trace_routine_ids<sec_trace_row_##symbol> kTrace##symbol{           \
        {entry, entry_data, exit, exit_rc, exit_status}};
#include "trace_records.def"
#undef QV_TRACE_API
#undef QV_TRACE_RECORD
