// qvsec config check [FILE]
#include <cstdio>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "commands.h"
#include "config.h"
#include "library_init.h"

namespace {

std::string flag_letters(qv_uint32_t flags) {
    std::string s;
    if (flags & SEC_CFG_FLAG_I) s += 'i';
    if (flags & SEC_CFG_FLAG_U) s += 'u';
    return s.empty() ? "-" : s;
}

// Warns about a file that a set-user-id program would refuse to read or
// load: one another user could change. Said in every mode, so that an
// administrator hears of it before a privileged program fails on it. A file
// that cannot be examined is left to the checks that read or load it.
void warn_if_others_control(const char *what, const std::string &path) {
    struct stat sb;
    if (::stat(path.c_str(), &sb) != 0) return;
    unsigned reasons = sec__file_distrust(&sb, ::geteuid());
    if (reasons & kSecFileOthersMayWrite)
        std::fprintf(stderr, "qvsec: warning: %s %s is writable by its group or by others (mode %04o)\n", what,
                     path.c_str(), static_cast<unsigned>(sb.st_mode & 07777));
    if (reasons & kSecFileForeignOwner) {
        const struct passwd *pw = ::getpwuid(sb.st_uid);
        std::fprintf(stderr, "qvsec: warning: %s %s is owned by %s (uid %u), neither root nor you\n", what,
                     path.c_str(), pw != nullptr ? pw->pw_name : "an unknown user", static_cast<unsigned>(sb.st_uid));
    }
}

int check(const std::string &path) {
    warn_if_others_control("configuration file", path);
    sec_config_rec_t recs = nullptr;
    qv_int32_t count = 0, line = 0;
    qv_uint32_t rc = sec__validate_config_file(path.c_str(), &recs, &count, &line);
    if (rc != 0) {
        if (line > 0) {
            std::fprintf(stderr, "%s:%d: %s\n", path.c_str(), line, current_error_message().c_str());
        } else {
            std::fprintf(stderr, "%s: %s\n", path.c_str(), current_error_message().c_str());
        }
        return kExitFailed;
    }
    std::printf("%s: valid, %d mechanism%s\n", path.c_str(), count, count == 1 ? "" : "s");
    if (count > 0) {
        std::printf("%-10s %-16s %-10s %-6s %s\n", "priority", "mnemonic", "code", "flags", "path");
        for (sec_config_rec_t r = recs; r != nullptr; r = r->next) {
            std::printf("%-10u %-16s 0x%08x %-6s %s\n", r->priority, r->name, r->code, flag_letters(r->flags).c_str(),
                        r->path);
        }
    }
    for (sec_config_rec_t r = recs; r != nullptr; r = r->next) warn_if_others_control("module", r->path);
    sec__free_config_recs(recs);
    return kExitOk;
}

}  // namespace

int run_config(const Args &args) {
    if (args.empty() || args[0] != "check" || args.size() > 2) {
        std::fprintf(stderr, "usage: qvsec config check [FILE]\n");
        return kExitUsage;
    }
    if (args.size() == 2) return check(args[1]);
    sec_init_once();
    const char *fname = SEC_STATE.config.fname;
    if (fname == nullptr) {
        std::fprintf(stderr, "qvsec: no configuration file path could be determined\n");
        return kExitFailed;
    }
    return check(fname);
}
