// Loading a module: stat, dlopen(RTLD_NOW), mpm_init. Runs with the entry's
// write lock held, so no call into the module is under way. A failed load
// leaves the entry reserved and unloaded; the next call tries again.
#include <cerrno>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "config.h"
#include "errors.h"
#include "mpm.h"

namespace {

constexpr const char *kNoLoaderMessage = "<no error message>";

std::string loader_message() {
    const char *text = dlerror();
    return text != nullptr ? text : kNoLoaderMessage;
}

// Secure-execution mode: the module is opened once, its owner and mode are
// checked on the open descriptor, and the loader is given that very file
// through /proc/self/fd, so a file swapped in after the check is never
// loaded. A refused file is reported like a file that cannot be examined,
// with errno EPERM.
void *open_checked_module(sec_mpm_entry_t entry, const char *path, qv_uint32_t *rc) {
    SecOwnedFd file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));  // a FIFO does not hold us
    struct stat sb;
    int err = file.get() < 0 || ::fstat(file.get(), &sb) != 0 ? errno : 0;
    if (err == 0 && sec__file_distrust(&sb, ::geteuid()) != 0) err = EPERM;
    if (err != 0 || sb.st_size == 0) {
        if (sec_trace_on(SEC_TRC_ERRORS)) sec_mpm_trace_string(TRC_MPM_STAT_FAILED, entry, path);
        *rc = sec_report(SEC_S_BAD_MPM, MSG_2650_050, path, err);
        return nullptr;
    }
    char by_descriptor[32];
    std::snprintf(by_descriptor, sizeof by_descriptor, "/proc/self/fd/%d", file.get());
    dlerror();
    void *object = dlopen(by_descriptor, RTLD_NOW);
    err = errno;
    if (object == nullptr) {
        std::string text = loader_message();
        if (sec_trace_on(SEC_TRC_ERRORS)) sec_mpm_trace_string(TRC_MPM_DLOPEN_FAILED, entry, path, text.c_str());
        *rc = sec_report(SEC_S_BAD_MPM, MSG_2650_051, path, err, text.c_str());
    }
    return object;
}

// stat, then dlopen by name. An empty file is refused before dlopen, with
// errno as it stands.
void *open_module(sec_mpm_entry_t entry, const char *path, qv_uint32_t *rc) {
    struct stat sb;
    if (::stat(path, &sb) != 0 || sb.st_size == 0) {
        int err = errno;
        if (sec_trace_on(SEC_TRC_ERRORS)) sec_mpm_trace_string(TRC_MPM_STAT_FAILED, entry, path);
        *rc = sec_report(SEC_S_BAD_MPM, MSG_2650_050, path, err);
        return nullptr;
    }
    dlerror();
    void *object = dlopen(path, RTLD_NOW);
    if (object == nullptr) {
        int err = errno;
        std::string text = loader_message();
        if (sec_trace_on(SEC_TRC_ERRORS)) sec_mpm_trace_string(TRC_MPM_DLOPEN_FAILED, entry, path, text.c_str());
        *rc = sec_report(SEC_S_BAD_MPM, MSG_2650_051, path, err, text.c_str());
    }
    return object;
}

}  // namespace

extern "C" {

qv_uint32_t sec__load_mpm(sec_mpm_entry_t entry) {
    if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_record(TRC_MPM_LOAD_START, entry);
    const char *path = entry->path != nullptr ? entry->path : "";
    qv_uint32_t rc = 0;
    void *object = sec__secure_execution() ? open_checked_module(entry, path, &rc) : open_module(entry, path, &rc);
    if (object == nullptr) return rc;
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
