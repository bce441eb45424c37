// Reader of the configuration file. Each line holds
//   priority  mnemonic  code  path  [flags]
// separated by blanks or tabs. The format is strict in ways administrators'
// files depend on: the first four fields end only at a blank or a tab, so a
// line whose path is the last thing on it is malformed; numbers are read like
// strtoul with base 0 and must fill their field; every failure but a
// duplicate gives the one message 2650-019.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "config.h"
#include "errors.h"
#include "mpm.h"

namespace {

qv_int32_t config_error() { return sec_report(SEC_S_CONFIG, MSG_2650_019); }

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Splits off one field that must be ended by a blank or a tab: NUL-terminates
// it in place, moves *p past the separators that follow and returns its
// start, or nullptr when the line ends first.
char *take_blank_ended_field(char **p) {
    char *start = *p;
    char *end = start;
    while (*end != '\0' && !is_blank(*end)) ++end;
    if (*end == '\0') return nullptr;
    *end++ = '\0';
    while (is_blank(*end)) ++end;
    *p = end;
    return start;
}

// The whole field as an unsigned number; the result is truncated to 32 bits.
bool parse_number(const char *field, qv_uint32_t *out) {
    errno = 0;
    char *end = nullptr;
    unsigned long v = std::strtoul(field, &end, 0);
    if (errno == ERANGE || end == field || *end != '\0') return false;
    *out = static_cast<qv_uint32_t>(v);
    return true;
}

qv_uint32_t parse_flags(const char *p) {
    qv_uint32_t flags = 0;
    for (; *p != '\0' && !is_blank(*p); ++p) {
        if (*p == 'i' || *p == 'I') flags |= SEC_CFG_FLAG_I;
        if (*p == 'u' || *p == 'U') flags |= SEC_CFG_FLAG_U;
    }
    return flags;
}

struct RecordDeleter {
    void operator()(sec_config_rec_t rec) const {
        rec->next = nullptr;
        sec__free_config_recs(rec);
    }
};
using RecordPtr = std::unique_ptr<sec_config_rec_desc, RecordDeleter>;

// The record already in the list that rec conflicts with, and the message.
qv_int32_t check_conflicts(sec_config_rec_t head, sec_config_rec_t rec) {
    for (sec_config_rec_t old = head; old != nullptr; old = old->next) {
        if (old->code == rec->code || std::strcmp(old->name, rec->name) == 0) {
            return sec_report(SEC_S_CONFIG, MSG_2650_085, rec->name, rec->code, old->name, old->code);
        }
        if (old->priority == rec->priority) {
            return sec_report(SEC_S_CONFIG, MSG_2650_084, rec->name, rec->code, old->name, old->code,
                              static_cast<int>(rec->priority));
        }
    }
    return 0;
}

// The size of the open file, which is the one that will be read. The caller's
// len comes from a stat by name a moment earlier; a file replaced in between
// would otherwise be read as a prefix of the new one, which may well parse.
// In secure-execution mode a file that a less privileged user could have
// written is refused before a byte of it is read.
qv_uint32_t size_of_open_file(int fd, qv_int32_t *len) {
    struct stat sb;
    if (::fstat(fd, &sb) != 0) return config_error();
    if (sec__secure_execution() && sec__file_distrust(&sb, ::geteuid()) != 0) return config_error();
    if (sb.st_size < 0 || sb.st_size >= INT_MAX) return config_error();
    *len = static_cast<qv_int32_t>(sb.st_size);
    return 0;
}

// Reads the open file fname in one read() and parses it. On failure
// *fail_at points, in *original (when given), at the start of the record that
// failed. The list is complete or not returned at all.
qv_uint32_t read_and_parse(const char *fname, sec_config_rec_t *recs, qv_int32_t *count, std::string *original,
                           char **fail_at) {
    // O_NONBLOCK: a FIFO named as the configuration is refused (it has no
    // size to read) instead of holding the process until someone writes.
    SecOwnedFd file(fname ? ::open(fname, O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1);
    if (file.get() < 0) return config_error();
    *recs = nullptr;
    *count = 0;
    qv_int32_t len = 0;
    if (qv_uint32_t rc = size_of_open_file(file.get(), &len)) return rc;
    std::unique_ptr<char, decltype(&free)> text(static_cast<char *>(calloc(static_cast<size_t>(len) + 1, 1)), &free);
    if (!text) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    if (::read(file.get(), text.get(), static_cast<size_t>(len)) != len) return config_error();
    if (original != nullptr) original->assign(text.get(), static_cast<size_t>(len));

    sec_config_rec_t head = nullptr;
    sec_config_rec_t tail = nullptr;
    char *cursor = text.get();
    while (cursor != nullptr) {
        char *start = cursor;
        while (is_space(*start)) ++start;
        if (original != nullptr) *fail_at = original->data() + (start - text.get());
        char *next = nullptr;
        sec_config_rec_t rec = nullptr;
        qv_int32_t rc = static_cast<qv_int32_t>(sec__get_config_rec(&cursor, &next));
        if (rc == 0) rc = sec__parse_config_rec(cursor, &rec);
        if (rc != 0) {
            sec__free_config_recs(head);
            *count = 0;
            return rc;
        }
        if (rec != nullptr) {
            rc = check_conflicts(head, rec);
            if (rc != 0) {
                // The count of records accepted so far stays visible, the
                // list is not returned. The accepted records cannot be reached
                // by anyone any more, so they are freed rather than leaked.
                sec__free_config_recs(rec);
                sec__free_config_recs(head);
                return rc;
            }
            rec->prev = tail;
            if (tail) tail->next = rec; else head = rec;
            tail = rec;
            ++*count;
        }
        cursor = next;
    }
    *recs = head;
    *fail_at = nullptr;
    return 0;
}

}  // namespace

extern "C" {

void sec__free_config_recs(sec_config_rec_t head) {
    while (head != nullptr) {
        sec_config_rec_t next = head->next;
        free(head->name);
        free(head->path);
        std::memset(head, 0, sizeof *head);
        free(head);
        head = next;
    }
}

qv_uint32_t sec__check_cfg_file(qv_int32_t *mtime, qv_int32_t *size) {
    struct stat sb;
    const char *fname = SEC_STATE.config.fname;
    if (fname == nullptr || ::stat(fname, &sb) != 0) return config_error();
    *mtime = static_cast<qv_int32_t>(sb.st_mtime);
    *size = static_cast<qv_int32_t>(sb.st_size);
    return 0;
}

qv_uint32_t sec__get_config_rec(char **cursor, char **next) {
    char *p = *cursor;
    if (p == nullptr) {
        *next = nullptr;
        return 0;
    }
    while (is_space(*p)) ++p;
    if (*p == '\0' || (*p != '#' && !std::isalnum(static_cast<unsigned char>(*p)))) {
        *cursor = nullptr;
        return config_error();
    }
    *cursor = p;
    char *newline = std::strchr(p, '\n');
    if (newline == nullptr) {
        *next = nullptr;
        return 0;
    }
    *newline = '\0';
    char *q = newline + 1;
    while (is_space(*q)) ++q;
    *next = (*q == '\0') ? nullptr : q;
    return 0;
}

qv_int32_t sec__parse_config_rec(char *line, sec_config_rec_t *rec) {
    *rec = nullptr;
    if (line[0] == '#') return 0;
    RecordPtr r(static_cast<sec_config_rec_t>(calloc(1, sizeof(sec_config_rec_desc))));
    if (!r) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);

    char *p = line;
    char *priority = take_blank_ended_field(&p);
    char *name = priority ? take_blank_ended_field(&p) : nullptr;
    char *code = name ? take_blank_ended_field(&p) : nullptr;
    char *path = code ? take_blank_ended_field(&p) : nullptr;
    if (path == nullptr || !parse_number(priority, &r->priority) ||
        !std::isalpha(static_cast<unsigned char>(name[0])) || !parse_number(code, &r->code)) {
        return config_error();
    }
    r->flags = parse_flags(p);
    r->name = strdup(name);
    r->path = strdup(path);
    if (r->name == nullptr || r->path == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    // Reported with the utility library's own return value, which is the code.
    if (r->path[0] == '\0') return config_error();
    *rec = r.release();
    return 0;
}

// len is what sec__check_cfg_file saw; the file is read at the size of what
// was opened (see size_of_open_file).
qv_uint32_t sec__read_config_file(qv_int32_t /*len*/, sec_config_rec_t *recs, qv_int32_t *count) {
    char *fail_at = nullptr;
    return read_and_parse(SEC_STATE.config.fname, recs, count, nullptr, &fail_at);
}

qv_uint32_t sec__validate_config_file(const char *path, sec_config_rec_t *recs, qv_int32_t *count,
                                      qv_int32_t *line) {
    *recs = nullptr;
    *count = 0;
    *line = 0;
    std::string original;
    char *fail_at = nullptr;
    qv_uint32_t rc = read_and_parse(path, recs, count, &original, &fail_at);
    if (rc != 0 && fail_at != nullptr) {
        size_t offset = static_cast<size_t>(fail_at - original.data());
        *line = 1 + static_cast<qv_int32_t>(std::count(original.begin(), original.begin() + offset, '\n'));
    }
    return rc;
}

qv_uint32_t sec__read_config(void) {
    sec_config_desc &config = SEC_STATE.config;
    sec_mpm_desc &mpms = SEC_STATE.mpms;
    for (int i = 0; i < mpms.count && i < SEC_MPM_MAX_ENTRIES; ++i) {
        sec_mpm_state_set(mpms.entries[i], SEC_MPM_S_NOT_CONFIGURED);
    }
    qv_int32_t mtime = 0, size = 0;
    qv_uint32_t rc = sec__check_cfg_file(&mtime, &size);
    if (rc != 0) return rc;
    if (config.rtime == 0) {
        rc = sec__read_config_file(size, &config.cfg_recs, &config.count);
    } else {
        // The last read is stamped with the wall clock, not the file's time:
        // an edit within the same second as the read waits for a later edit.
        if (mtime <= config.rtime) return 0;
        sec_config_rec_t recs = nullptr;
        qv_int32_t count = 0;
        rc = sec__read_config_file(size, &recs, &count);
        if (rc != 0) return rc;
        sec__free_config_recs(config.cfg_recs);
        config.cfg_recs = recs;
        config.count = count;
    }
    if (rc != 0) return rc;
    config.rtime = static_cast<qv_int32_t>(time(nullptr));
    return 0;
}

}  // extern "C"
