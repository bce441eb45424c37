// Configuration files through `qvsec config check`'s line diagnosis
// (compiled in with the subcommand's source) and the library's own record
// reader and parser. The two must agree line by line: every line the library
// refuses gets a reason, and no line it accepts is called wrong.
#include "../../tools/qvsec/config_command.cpp"
#include "../fuzz_support.h"

// The subcommand's error text comes from main.cpp, which is not built here.
std::string current_error_message() { return {}; }

QV_FUZZ_TARGET(1 << 16) {
    static FILE *quiet = std::fopen("/dev/null", "w");  // the warnings of check_accepted
    std::string text(reinterpret_cast<const char *>(data), size);
    text.resize(text.find('\0') == std::string::npos ? size : text.find('\0'));  // the library's C string
    Findings f(quiet);
    for (const Line &line : record_lines(text)) {
        std::string copy = line.text;
        char *cursor = copy.data(), *next = nullptr;
        sec_config_rec_t rec = nullptr;
        qv_int32_t rc = static_cast<qv_int32_t>(sec__get_config_rec(&cursor, &next));
        if (rc == 0) rc = sec__parse_config_rec(cursor, &rec);
        if ((rc != 0) != !line_problem(line.text).empty()) __builtin_trap();
        if (rec == nullptr) continue;
        check_accepted(f, "fuzz", line.text, Record{line.number, rec->priority, rec->code, rec->name, rec->path});
        sec__free_config_recs(rec);
    }
}
