// qvsec config check [FILE]
#include <cstdio>
#include <string>

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

int check(const std::string &path) {
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
