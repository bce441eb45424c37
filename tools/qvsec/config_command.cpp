// qvsec config check [FILE]: the administrator's first stop. What the library
// accepts is decided by the library's own reader (sec__validate_config_file,
// sec__get_config_rec, sec__parse_config_rec), so the check and the library
// cannot disagree; this file only adds why a line is refused, what an
// accepted line probably did not mean, whether each module loads, and
// whether the environment variables fit the file.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "commands.h"
#include "config.h"
#include "library_init.h"
#include "qv_tr.h"

const char *const kConfigUsage =
    "usage: qvsec config check [FILE]\n"
    "  Checks FILE, or the configuration file the library would read (the search\n"
    "  order is printed), as the library reads it: every refused line with its\n"
    "  field and reason, lines that are accepted but probably not meant, each\n"
    "  module file (exists, readable, loads, exports mpm_init), and the variables\n"
    "  QV_SEC_MECH, QV_SEC_IMP_MECHS, QV_TRACE and QV_TRACE_FILE when set.\n"
    "  Errors and warnings go to standard error, the report to standard output.\n"
    "Exit status: 0 no finding, 1 errors (or a usage error), 2 warnings only.\n";

namespace {

constexpr size_t kMnemonicMax = 16;
constexpr int kTableMax = SEC_MPM_MAX_ENTRIES;

class Findings {
public:
    explicit Findings(FILE *out = stderr) : out_(out) {}
    void error(const std::string &where, const std::string &text) {
        std::fprintf(out_, "%s: error: %s\n", where.c_str(), text.c_str());
        ++errors_;
    }
    void warning(const std::string &where, const std::string &text) {
        std::fprintf(out_, "%s: warning: %s\n", where.c_str(), text.c_str());
        ++warnings_;
    }
    // The library's own message for a refusal, as a daemon would log it.
    void library(const std::string &where, const std::string &message) {
        std::fprintf(out_, "%s: %s\n", where.c_str(), message.c_str());
    }
    int errors() const { return errors_; }
    int warnings() const { return warnings_; }
    int exit_status() const { return errors_ > 0 ? kExitFailed : warnings_ > 0 ? 2 : kExitOk; }

private:
    FILE *out_;
    int errors_ = 0;
    int warnings_ = 0;
};

std::string plural(int n, const char *word) { return std::to_string(n) + " " + word + (n == 1 ? "" : "s"); }

std::string flag_letters(qv_uint32_t flags) {
    std::string s;
    if (flags & SEC_CFG_FLAG_I) s += 'i';
    if (flags & SEC_CFG_FLAG_U) s += 'u';
    return s.empty() ? "-" : s;
}

// Warns about a file that a set-user-id program would refuse to read or
// load: one another user could change. A file that cannot be examined is
// left to the checks that read or load it.
void warn_if_others_control(Findings &f, const char *what, const std::string &path) {
    struct stat sb;
    if (::stat(path.c_str(), &sb) != 0 || !S_ISREG(sb.st_mode)) return;
    unsigned reasons = sec__file_distrust(&sb, ::geteuid());
    char text[512];
    if (reasons & kSecFileOthersMayWrite) {
        std::snprintf(text, sizeof text, "%s %s is writable by its group or by others (mode %04o)", what,
                      path.c_str(), static_cast<unsigned>(sb.st_mode & 07777));
        f.warning("qvsec", text);
    }
    if (reasons & kSecFileForeignOwner) {
        const struct passwd *pw = ::getpwuid(sb.st_uid);
        std::snprintf(text, sizeof text, "%s %s is owned by %s (uid %u), neither root nor you", what, path.c_str(),
                      pw != nullptr ? pw->pw_name : "an unknown user", static_cast<unsigned>(sb.st_uid));
        f.warning("qvsec", text);
    }
}

// ---- The file as a whole ----

// Why the file cannot be used at all, or "" when it can be read; text
// receives its bytes.
std::string file_problem(const std::string &path, std::string &text) {
    if (path.empty()) return "the path is empty (QV_SEC_CONFIG is set to the empty string: unset it or name a file)";
    struct stat sb;
    if (::stat(path.c_str(), &sb) != 0) {
        int e = errno;
        if (e == ENOENT) return "the file does not exist";
        if (e == EACCES) return "the file cannot be examined: a directory on its path may not be searched";
        if (e == ENOTDIR) return "a component of the path is not a directory";
        return std::string("the file cannot be examined: ") + std::strerror(e);
    }
    if (S_ISDIR(sb.st_mode)) return "the path names a directory, not a file";
    if (!S_ISREG(sb.st_mode)) return "the path names a device, FIFO or socket, not a regular file";
    SecOwnedFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0) {
        int e = errno;
        char why[160];
        std::snprintf(why, sizeof why, "the file cannot be read by this user (mode %04o, owner uid %u): %s",
                      static_cast<unsigned>(sb.st_mode & 07777), static_cast<unsigned>(sb.st_uid),
                      std::strerror(e));
        return why;
    }
    if (sb.st_size >= INT_MAX) return "the file is too large to be a configuration file";
    text.assign(static_cast<size_t>(sb.st_size), '\0');
    if (::read(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        return "the file could not be read whole";
    bool blank = true;
    for (char c : text) blank = blank && std::isspace(static_cast<unsigned char>(c));
    if (blank)
        return "the file is empty or holds only blank space: the library needs at least one line (a comment "
               "will do)";
    return "";
}

// ---- One line ----

struct Line {
    int number;
    std::string text;  // without its newline, leading white space skipped
};

// The lines that hold a record or a comment, as the library delimits them.
std::vector<Line> record_lines(const std::string &text) {
    std::vector<Line> lines;
    int number = 1;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t nl = text.find('\n', pos);
        std::string raw = text.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos);
        size_t first = 0;
        while (first < raw.size() && std::isspace(static_cast<unsigned char>(raw[first]))) ++first;
        if (first < raw.size()) lines.push_back({number, raw.substr(first)});
        if (nl == std::string::npos) break;
        pos = nl + 1;
        ++number;
    }
    return lines;
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// The blank-separated fields of a line, and whether a blank or tab follows
// the last one.
std::vector<std::string> fields_of(const std::string &line, bool *blank_after_last,
                                   std::vector<size_t> *starts = nullptr) {
    std::vector<std::string> fields;
    size_t i = 0;
    *blank_after_last = false;
    while (i < line.size()) {
        size_t end = i;
        while (end < line.size() && !is_blank(line[end])) ++end;
        fields.push_back(line.substr(i, end - i));
        if (starts != nullptr) starts->push_back(i);
        *blank_after_last = end < line.size();
        i = end;
        while (i < line.size() && is_blank(line[i])) ++i;
    }
    return fields;
}

std::string number_problem(const char *what, const std::string &field) {
    errno = 0;
    char *end = nullptr;
    unsigned long v = std::strtoul(field.c_str(), &end, 0);
    (void)v;
    std::string head = std::string(what) + " '" + field + "' ";
    if (errno == ERANGE) return head + "is too large";
    if (end != field.c_str() && *end != '\0' && field.size() > 1 && field[0] == '0' && field[1] != 'x' &&
        field[1] != 'X' && std::isdigit(static_cast<unsigned char>(*end)))
        return head + "is not a valid octal number (a leading 0 means octal: write it without the 0)";
    if (end == field.c_str() || *end != '\0')
        return head + "is not a number (decimal, 0x hexadecimal, or octal with a leading 0)";
    return "";
}

// Why the library refused a line; "" when no reason of ours applies.
std::string line_problem(const std::string &line) {
    char c = line[0];
    if (c == '#') return "";  // a comment
    if (!std::isalnum(static_cast<unsigned char>(c)))
        return std::string("a line must begin with its priority (a number) or with '#' (a comment); this one "
                           "begins with '") + c + "'";
    bool blank_after = false;
    std::vector<std::string> f = fields_of(line, &blank_after);
    if (f.size() < 4)
        return "the line has " + plural(static_cast<int>(f.size()), "field") +
               "; a record needs priority, mnemonic, code and path, then optional flags";
    if (std::string p = number_problem("field 1 (priority)", f[0]); !p.empty()) return p;
    if (!std::isalpha(static_cast<unsigned char>(f[1][0])))
        return "field 2 (mnemonic) '" + f[1] + "' must begin with a letter";
    if (std::string p = number_problem("field 3 (code)", f[2]); !p.empty()) return p;
    if (f.size() == 4 && !blank_after) {
        std::string why = "field 4 (path) ends the line: the library requires a blank, a tab or a flags field "
                          "after the path (for instance ' i', or ' -' for no flags)";
        if (!f[3].empty() && f[3].back() == '\r') why += "; the line ends in a carriage return";
        return why;
    }
    return "";
}

struct Record {
    int line;
    qv_uint32_t priority, code;
    std::string name, path;
};

// Warnings about a line the library accepted.
void check_accepted(Findings &f, const std::string &where, const std::string &line, const Record &r) {
    bool blank_after = false;
    std::vector<size_t> starts;
    std::vector<std::string> fields = fields_of(line, &blank_after, &starts);
    std::string flags = fields.size() > 4 ? fields[4] : "";
    if (flags.find('/') != std::string::npos || flags.find('.') != std::string::npos) {
        f.warning(where, "the path seems to hold a blank: the library reads '" + r.path + "' as the path and '" +
                             flags + "' as flags; a path may not contain blanks");
    } else if (flags != "-") {
        for (char c : flags) {
            if (c == 'i' || c == 'I' || c == 'u' || c == 'U') continue;
            f.warning(where, c == '\r' ? std::string("the line ends in a carriage return, read as a flag and ignored")
                                       : std::string("flag letter '") + c +
                                             "' is not known and is ignored (known: i, u)");
        }
    }
    if (fields.size() > 5) {
        f.warning(where, "'" + line.substr(starts[5]) + "' after the flags field is ignored");
    }
    if (r.name.size() > kMnemonicMax)
        f.warning(where, "mnemonic '" + r.name + "' is " + std::to_string(r.name.size()) +
                             " characters; a mechanism is named by at most 16: QV_SEC_IMP_MECHS and "
                             "sec_create_mech_buffer refuse it (2650-076) and a context reports at most 16");
    if (r.path[0] != '/')
        f.warning(where, "module path '" + r.path + "' is not absolute: the library's check of the file depends on "
                         "each process's working directory, and a name without '/' is searched for by the loader");
    if (r.name == "none") f.warning(where, "mnemonic 'none' is reserved for unauthenticated contexts (code 0)");
    if (r.code == 0) f.warning(where, "code 0 is reserved for unauthenticated contexts ('none')");
}

// Conflicts the library refuses (it stops at the first; all are named here).
void check_conflicts(Findings &f, const std::string &path, const std::vector<Record> &recs) {
    for (size_t i = 0; i < recs.size(); ++i) {
        for (size_t j = 0; j < i; ++j) {
            const Record &a = recs[j], &b = recs[i];
            std::string where = path + ":" + std::to_string(b.line), other = " as line " + std::to_string(a.line);
            char code[16];
            std::snprintf(code, sizeof code, "0x%08x", b.code);
            if (a.code == b.code) {
                f.error(where, std::string("code ") + code + " is already used by '" + a.name + "'" + other);
            } else if (a.name == b.name) {
                f.error(where, "mnemonic '" + b.name + "' is already used" + other);
            } else if (a.priority == b.priority) {
                f.error(where, "priority " + std::to_string(b.priority) + " is the same" + other +
                                   " ('" + a.name + "'); every line needs its own");
            } else {
                continue;
            }
            break;
        }
    }
}

// Warnings about the records together.
void check_together(Findings &f, const std::string &path, const std::vector<Record> &recs) {
    for (size_t i = 1; i < recs.size(); ++i) {
        if (recs[i].priority >= recs[i - 1].priority) continue;  // equal ones are refused above
        f.warning(path + ":" + std::to_string(recs[i].line),
                  "priority " + std::to_string(recs[i].priority) + " is not above line " +
                      std::to_string(recs[i - 1].line) + "'s " + std::to_string(recs[i - 1].priority) +
                      ": the library offers mechanisms in line order and does not sort by priority");
        break;
    }
    for (size_t i = 0; i < recs.size(); ++i) {
        for (size_t j = 0; j < i; ++j) {
            if (recs[i].path != recs[j].path) continue;
            f.warning(path + ":" + std::to_string(recs[i].line),
                      "module " + recs[i].path + " is also line " + std::to_string(recs[j].line) + "'s");
            break;
        }
    }
    if (static_cast<int>(recs.size()) > kTableMax)
        f.error(path, "the file lists " + plural(static_cast<int>(recs.size()), "mechanism") + "; a process can use at most " +
                          std::to_string(kTableMax) + " (the library refuses the next with 2650-019 at sec_start)");
}

// ---- Modules ----

void check_module(Findings &f, const std::string &where, const std::string &path) {
    std::string head = "module " + path + ": ";
    struct stat sb;
    if (::stat(path.c_str(), &sb) != 0) {
        int e = errno;
        f.error(where, head + (e == ENOENT ? std::string("does not exist") : std::strerror(e)) +
                           " (the library fails at the first client with 2650-050)");
        return;
    }
    if (!S_ISREG(sb.st_mode)) return f.error(where, head + "is not a regular file");
    if (sb.st_size == 0) return f.error(where, head + "is empty (2650-050)");
    if (::access(path.c_str(), R_OK) != 0) return f.error(where, head + "cannot be read: " + std::strerror(errno));
    void *object = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (object == nullptr) {
        const char *why = ::dlerror();
        return f.error(where, head + "cannot be loaded (2650-051): " + (why ? why : "no reason given"));
    }
    bool has_init = ::dlsym(object, "mpm_init") != nullptr;
    ::dlclose(object);
    if (!has_init) return f.error(where, head + "does not export mpm_init: not a mechanism module (2650-052)");
    std::printf("module %s: loads, exports mpm_init\n", path.c_str());
    warn_if_others_control(f, "module", path);
}

// ---- Environment ----

std::string configured_names(const std::vector<Record> &recs) {
    std::string s;
    for (const Record &r : recs) s += (s.empty() ? "" : ", ") + r.name;
    return s.empty() ? "none configured" : "configured: " + s;
}

bool configured(const std::vector<Record> &recs, const std::string &name) {
    for (const Record &r : recs)
        if (r.name == name) return true;
    return false;
}

void check_mechanism_variables(Findings &f, const std::vector<Record> &recs) {
    const char *preferred = std::getenv("QV_SEC_MECH");
    const char *imposed = std::getenv("QV_SEC_IMP_MECHS");
    bool imposing = imposed != nullptr && *imposed != '\0';
    if (preferred != nullptr && *preferred == '\0') {
        f.warning("QV_SEC_MECH", "is set but empty, which counts as not set");
    } else if (preferred != nullptr && !imposing) {
        std::string p = preferred;
        if (p == "none") {
            f.warning("QV_SEC_MECH", "'none' makes the client offer no mechanism: an unauthenticated context, "
                                     "which a service refuses to reconcile (2650-006)");
        } else if (!configured(recs, p)) {
            std::string why = p.find_first_of(", \t") != std::string::npos
                                  ? " (it holds one mnemonic; a list is read as one name)"
                                  : "";
            f.warning("QV_SEC_MECH", "'" + p + "' is not a configured mechanism" + why + " (" +
                                         configured_names(recs) +
                                         "): the library ignores it and offers every configured one");
        }
    }
    if (!imposing) return;
    int usable = 0;
    bool none = false;
    const char *p = imposed;
    while (*p != '\0') {
        while (*p != '\0' && std::isspace(static_cast<unsigned char>(*p))) ++p;
        const char *start = p;
        while (*p != '\0' && !std::isspace(static_cast<unsigned char>(*p))) ++p;
        std::string m(start, p);
        if (m.empty()) break;
        if (m.size() > kMnemonicMax) {
            f.error("QV_SEC_IMP_MECHS", "'" + m + "' is longer than 16 characters: the library refuses the whole "
                                        "variable (2650-076, return code 8)");
        } else if (m == "none") {
            none = true;
        } else if (configured(recs, m)) {
            ++usable;
        } else {
            f.warning("QV_SEC_IMP_MECHS",
                      "'" + m + "' is not a configured mechanism and is ignored" +
                          (m.find(',') != std::string::npos ? " (mnemonics are separated by blanks, not commas)" : "") +
                          " (" + configured_names(recs) + ")");
        }
    }
    if (usable == 0 && !none)
        f.error("QV_SEC_IMP_MECHS", "names no configured mechanism: clients offer nothing and services refuse "
                                    "the empty offer (2650-006)");
    else if (usable == 0)
        f.warning("QV_SEC_IMP_MECHS", "allows only 'none': every context is unauthenticated");
    if (preferred != nullptr && *preferred != '\0')
        f.warning("QV_SEC_MECH", "is ignored while QV_SEC_IMP_MECHS is set");
}

// The categories the library registers for its component "_SEA".
const char *const kTraceCategories[] = {"Errors", "Info", "API", "Buffer", "SVCTKN", "CTXTKN"};

bool same_name(const std::string &a, const char *b) { return strcasecmp(a.c_str(), b) == 0; }

std::string trimmed(const std::string &s) {
    size_t a = s.find_first_not_of(" \t\r\n"), b = s.find_last_not_of(" \t\r\n");
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

std::vector<std::string> split(const std::string &s, char sep) {
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t cut; (cut = s.find(sep, start)) != std::string::npos; start = cut + 1) out.push_back(s.substr(start, cut - start));
    out.push_back(s.substr(start));
    return out;
}

// QV_TRACE's syntax, checked setting by setting with the trace library's own
// parser (tr_set_levels_1 applies what QV_TRACE already set in this process).
void check_trace_levels(Findings &f, const std::string &value) {
    bool names_library = false;
    for (const std::string &group : split(value, ';')) {
        if (trimmed(group).empty()) continue;
        size_t colon = group.find(':');
        std::string component = trimmed(group.substr(0, colon == std::string::npos ? group.size() : colon));
        if (colon == std::string::npos || component.empty()) {
            f.error("QV_TRACE", "'" + trimmed(group) + "' is not component:category=level (e.g. _SEA:API=8)");
            continue;
        }
        // Categories are checked only where the group names the library's
        // component alone: "*" reaches other components' categories too.
        bool library = same_name(component, "_SEA");
        names_library = names_library || library || component == "*";
        for (const std::string &setting : split(group.substr(colon + 1), ',')) {
            if (trimmed(setting).empty()) continue;
            if (tr_set_levels_1((component + ":" + setting).c_str()) != TR_OK) {
                f.error("QV_TRACE", "'" + trimmed(setting) + "' in '" + trimmed(group) +
                                        "' is not category=level with a level from 0 to 255; it is ignored");
                continue;
            }
            std::string category = trimmed(setting.substr(0, setting.find('=')));
            bool known = category == "*" || !library;
            for (const char *c : kTraceCategories) known = known || same_name(category, c);
            if (!known)
                f.warning("QV_TRACE", "category '" + category +
                                          "' is not one of the library's (Errors, Info, API, Buffer, SVCTKN, "
                                          "CTXTKN): it sets nothing");
        }
    }
    if (!names_library) f.warning("QV_TRACE", "sets no level of the library's component _SEA");
}

void check_trace_file(Findings &f, const std::string &path) {
    struct stat sb;
    if (::lstat(path.c_str(), &sb) == 0) {
        if (S_ISLNK(sb.st_mode))
            return f.error("QV_TRACE_FILE", path + " is a symbolic link: the trace library does not follow it and "
                                                   "records nothing");
        if (!S_ISREG(sb.st_mode)) return f.error("QV_TRACE_FILE", path + " is not a regular file");
        if (::access(path.c_str(), W_OK) != 0)
            return f.error("QV_TRACE_FILE", path + " is not writable by this user: " + std::strerror(errno));
        return;
    }
    if (errno != ENOENT) return f.error("QV_TRACE_FILE", path + ": " + std::strerror(errno));
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    if (::access(dir.c_str(), W_OK | X_OK) != 0)
        f.error("QV_TRACE_FILE", path + " cannot be created: directory " + dir + ": " + std::strerror(errno));
}

void check_trace_variables(Findings &f) {
    const char *levels = std::getenv("QV_TRACE");
    const char *file = std::getenv("QV_TRACE_FILE");
    bool have_levels = levels != nullptr && *levels != '\0', have_file = file != nullptr && *file != '\0';
    if (have_levels) check_trace_levels(f, levels);
    if (have_file) check_trace_file(f, file);
    if (have_levels && !have_file) f.warning("QV_TRACE", "is set but QV_TRACE_FILE is not: records are dropped");
    if (have_file && !have_levels) f.warning("QV_TRACE_FILE", "is set but QV_TRACE is not: nothing is recorded");
}

// ---- The whole check ----

void print_table(const std::vector<Record> &recs, const std::vector<qv_uint32_t> &flags) {
    std::printf("%-10s %-16s %-10s %-6s %s\n", "priority", "mnemonic", "code", "flags", "path");
    for (size_t i = 0; i < recs.size(); ++i)
        std::printf("%-10u %-16s 0x%08x %-6s %s\n", recs[i].priority, recs[i].name.c_str(), recs[i].code,
                    flag_letters(flags[i]).c_str(), recs[i].path.c_str());
}

int check(const std::string &given) {
    // The empty path is what the library uses when QV_SEC_CONFIG is empty.
    const std::string path = given.empty() ? "(empty path)" : given;
    Findings f;
    warn_if_others_control(f, "configuration file", given);
    // The library's verdict on the whole file, and its message.
    sec_config_rec_t lib_recs = nullptr;
    qv_int32_t count = 0, failed_line = 0;
    qv_uint32_t rc = sec__validate_config_file(given.c_str(), &lib_recs, &count, &failed_line);
    std::string verdict = rc != 0 ? current_error_message() : "";
    sec__free_config_recs(lib_recs);

    std::vector<Record> recs;
    std::vector<qv_uint32_t> flags;
    std::string text;
    if (std::string problem = file_problem(given, text); !problem.empty()) {
        if (rc != 0) f.library(path, verdict);
        f.error(path, problem);
    } else {
        if (rc != 0) f.library(failed_line > 0 ? path + ":" + std::to_string(failed_line) : path, verdict);
        // The library reads the file as one C string.
        if (size_t nul = text.find('\0'); nul != std::string::npos) {
            int line = 1 + static_cast<int>(std::count(text.begin(), text.begin() + static_cast<long>(nul), '\n'));
            f.warning(path + ":" + std::to_string(line), "a NUL byte: the library reads nothing after it");
            text.resize(nul);
        }
        for (const Line &line : record_lines(text)) {
            std::string where = path + ":" + std::to_string(line.number);
            // Each line through the library's own record reader and parser.
            std::string copy = line.text;
            char *cursor = copy.data(), *next = nullptr;
            sec_config_rec_t rec = nullptr;
            qv_int32_t lrc = static_cast<qv_int32_t>(sec__get_config_rec(&cursor, &next));
            if (lrc == 0) lrc = sec__parse_config_rec(cursor, &rec);
            if (lrc != 0) {
                std::string why = line_problem(line.text);
                f.error(where, why.empty() ? "the library refuses this line: " + current_error_message() : why);
                continue;
            }
            if (rec == nullptr) continue;  // a comment
            Record r{line.number, rec->priority, rec->code, rec->name, rec->path};
            flags.push_back(rec->flags);
            sec__free_config_recs(rec);
            check_accepted(f, where, line.text, r);
            recs.push_back(r);
        }
        check_conflicts(f, path, recs);
        check_together(f, path, recs);
        // A refusal whose reason none of the checks above found.
        if (rc != 0 && f.errors() == 0) f.error(path, "refused by the library");
        if (rc == 0) {
            std::printf("%s: valid, %s\n", path.c_str(), plural(count, "mechanism").c_str());
            if (!recs.empty()) print_table(recs, flags);
        }
        std::vector<std::string> seen;
        for (const Record &r : recs) {
            bool again = false;
            for (const std::string &s : seen) again = again || s == r.path;
            if (again) continue;
            seen.push_back(r.path);
            check_module(f, path + ":" + std::to_string(r.line), r.path);
        }
        check_mechanism_variables(f, recs);
    }
    check_trace_variables(f);
    std::printf("%s: %s, %s\n", path.c_str(), plural(f.errors(), "error").c_str(),
                plural(f.warnings(), "warning").c_str());
    return f.exit_status();
}

// Where the library looks for its file, and which it took.
void print_search_order(const char *chosen) {
    const char *env = std::getenv("QV_SEC_CONFIG");
    struct stat sb;
    std::printf("configuration search order:\n");
    std::printf("  1. QV_SEC_CONFIG: %s%s%s\n", env == nullptr ? "not set" : "'", env == nullptr ? "" : env,
                env == nullptr ? "" : "' (used as it stands, even when no such file exists)");
    std::printf("  2. %s: %s\n", kSecConfigPrimary, ::stat(kSecConfigPrimary, &sb) == 0 ? "exists" : "absent");
    std::printf("  3. %s: used when neither of the above\n", kSecConfigFallback);
    std::printf("chosen: %s\n", *chosen != '\0' ? chosen : "the empty string");
}

}  // namespace

int run_config(const Args &args) {
    if (args.empty() || args[0] != "check" || args.size() > 2) {
        std::fputs(kConfigUsage, stderr);
        return kExitFailed;
    }
    sec_init_once();
    const char *fname = SEC_STATE.config.fname;
    if (args.size() == 2) {
        std::printf("checking %s (given; the library would read %s)\n", args[1].c_str(),
                    fname != nullptr ? fname : "nothing");
        return check(args[1]);
    }
    if (fname == nullptr) {
        std::fprintf(stderr, "qvsec: no configuration file path could be determined\n");
        return kExitFailed;
    }
    print_search_order(fname);
    return check(fname);
}
