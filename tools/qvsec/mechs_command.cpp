// qvsec mechs [--load]: the configured mechanisms, whether each has a place in
// the module table, and with --load whether its module loads and which
// module routines it exports.
#include <cstdio>
#include <dlfcn.h>
#include <string>
#include <vector>

#include "commands.h"
#include "errors.h"
#include "library_init.h"
#include "module_routines.h"
#include "mpm.h"

namespace {

struct Mechanism {
    qv_uint32_t priority, code, flags;
    std::string name, path;
    sec_mpm_entry_t entry;  // NULL: no room in the table
    std::string table_error;
};

std::string flag_letters(qv_uint32_t flags) {
    std::string s;
    if (flags & SEC_CFG_FLAG_I) s += 'i';
    if (flags & SEC_CFG_FLAG_U) s += 'u';
    return s.empty() ? "-" : s;
}

// Reads the configuration and reserves table entries as the library does,
// but reports every record, not only those before the first failure.
bool read_mechanisms(std::vector<Mechanism> &out) {
    SecMutexGuard guard(&SEC_STATE.lock);
    if (sec__read_config() != 0) {
        std::fprintf(stderr, "%s: %s\n", SEC_STATE.config.fname ? SEC_STATE.config.fname : "(no configuration file)",
                     current_error_message().c_str());
        return false;
    }
    for (sec_config_rec_t r = SEC_STATE.config.cfg_recs; r != nullptr; r = r->next) {
        Mechanism m{r->priority, r->code, r->flags, r->name, r->path, nullptr, {}};
        if (sec__reserve_mpm(r, &m.entry) != 0) m.table_error = current_error_message();
        out.push_back(m);
    }
    return true;
}

// Loads the entry's module through the library's own loader; prints the
// outcome and returns whether it loaded.
bool report_load(const Mechanism &m) {
    if (m.entry == nullptr) {
        std::printf("  load: not attempted, no room in the module table\n");
        return false;
    }
    sec__lock_write(&m.entry->lock);
    qv_uint32_t rc = (m.entry->state & SEC_MPM_S_LOADED) ? 0 : sec__load_mpm(m.entry);
    std::string message = rc != 0 ? current_error_message() : "";
    std::vector<const char *> found, missing;
    if (rc == 0) {
        for (const char *name : kMpmRoutineNames) (dlsym(m.entry->object, name) ? found : missing).push_back(name);
    }
    sec__unlock_write(&m.entry->lock);

    if (rc != 0) {
        std::printf("  load: failed\n  %s\n", message.c_str());
        cu_error_t *err = nullptr;
        bool no_init = cu_get_error_1(&err) == 0 && err != nullptr && err->cu_msg_num == MSG_2650_052;
        cu_rel_error_1(err);
        if (no_init) std::printf("  mpm_init: missing\n");
        return false;
    }
    std::printf("  load: ok\n  mpm_init: present\n  routines (%zu of %d):", found.size(), MPM_ROUTINE_COUNT);
    for (const char *n : found) std::printf(" %s", n);
    std::printf("\n");
    // Each missing routine with what the application loses: a routine is
    // looked up only when called, so the load itself never fails for it.
    for (const char *n : missing) std::printf("  missing %s: %s\n", n, mpm_routine_use(n)->consequence);
    return true;
}

}  // namespace

int run_mechs(const Args &args) {
    bool load = false;
    for (const std::string &a : args) {
        if (a != "--load") {
            std::fprintf(stderr, "usage: qvsec mechs [--load]\n");
            return kExitUsage;
        }
        load = true;
    }
    sec_init_once();
    std::vector<Mechanism> mechs;
    if (!read_mechanisms(mechs)) return kExitFailed;
    std::printf("%s: %zu mechanism%s\n", SEC_STATE.config.fname, mechs.size(), mechs.size() == 1 ? "" : "s");
    if (mechs.empty()) return kExitOk;
    std::printf("%-10s %-16s %-10s %-6s %-6s %s\n", "priority", "mnemonic", "code", "flags", "table", "path");
    bool ok = true;
    for (const Mechanism &m : mechs) {
        std::printf("%-10u %-16s 0x%08x %-6s %-6s %s\n", m.priority, m.name.c_str(), m.code,
                    flag_letters(m.flags).c_str(), m.entry ? "yes" : "no", m.path.c_str());
        if (m.entry == nullptr) {
            std::printf("  %s\n", m.table_error.c_str());
            ok = false;
        }
        if (load && !report_load(m)) ok = false;
    }
    return ok ? kExitOk : kExitFailed;
}
