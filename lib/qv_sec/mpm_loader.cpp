// Loading a module: stat, dlopen(RTLD_NOW), mpm_init. Runs with the entry's
// write lock held, so no call into the module is under way. A failed load
// leaves the entry reserved and unloaded; the next call tries again.
#include <cerrno>
#include <dlfcn.h>
#include <string>
#include <sys/stat.h>

#include "errors.h"
#include "mpm.h"

namespace {

constexpr const char *kNoLoaderMessage = "<no error message>";

std::string loader_message() {
    const char *text = dlerror();
    return text != nullptr ? text : kNoLoaderMessage;
}

}  // namespace

extern "C" {

qv_uint32_t sec__load_mpm(sec_mpm_entry_t entry) {
    if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_record(TRC_MPM_LOAD_START, entry);
    const char *path = entry->path != nullptr ? entry->path : "";

    // An empty file is refused before dlopen, with errno as it stands.
    struct stat sb;
    if (::stat(path, &sb) != 0 || sb.st_size == 0) {
        int err = errno;
        if (sec_trace_on(SEC_TRC_ERRORS)) sec_mpm_trace_string(TRC_MPM_STAT_FAILED, entry, path);
        return sec_report(SEC_S_BAD_MPM, MSG_2650_050, path, err);
    }

    dlerror();
    void *object = dlopen(path, RTLD_NOW);
    if (object == nullptr) {
        int err = errno;
        std::string text = loader_message();
        if (sec_trace_on(SEC_TRC_ERRORS)) sec_mpm_trace_string(TRC_MPM_DLOPEN_FAILED, entry, path, text.c_str());
        return sec_report(SEC_S_BAD_MPM, MSG_2650_051, path, err, text.c_str());
    }
    entry->object = object;
    if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_record(TRC_MPM_DLOPEN_DONE, entry);

    void *init = dlsym(object, kMpmInitName);
    if (init == nullptr) {
        int err = errno;
        std::string text = loader_message();
        dlclose(object);
        entry->object = nullptr;
        if (sec_trace_on(SEC_TRC_ERRORS)) sec_mpm_trace_string(TRC_MPM_ROUTINE_MISSING, entry, kMpmInitName);
        return sec_report(SEC_S_BAD_MPM, MSG_2650_052, path, err, text.c_str());
    }
    if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_string(TRC_MPM_ROUTINE_FOUND, entry, kMpmInitName);

    // Addresses remembered for an earlier module in this slot are stale.
    sec_mpm_forget_routines(entry);
    reinterpret_cast<sec_mpm_init_routine_t>(init)();
    if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_record(TRC_MPM_INIT_RETURNED, entry);
    sec_mpm_state_set(*entry, SEC_MPM_S_LOADED);
    return 0;
}

}  // extern "C"
