#include "library_init.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "cancel_state.h"
#include "errors.h"
#include "trace.h"

extern "C" {

sec_state_desc SEC_STATE;
pthread_once_t sec__init_once_block = PTHREAD_ONCE_INIT;

void sec__cts_init(void) {
    // A cancellation inside (registering the trace component opens the
    // trace file) would make pthread_once run all of this again: the locks
    // initialised twice, the fork handlers installed twice. It is short, so
    // cancellation waits until it is done.
    SecCancelDisabled no_cancel;
    std::memset(&SEC_STATE, 0, sizeof SEC_STATE);
    pthread_mutex_init(&SEC_STATE.lock, nullptr);
    pthread_mutex_lock(&SEC_STATE.lock);
    for (sec_mpm_entry_desc &e : SEC_STATE.mpms.entries) sec__lock_init(&e.lock);

    // QV_SEC_CONFIG is used as it stands, even when no such file exists.
    const char *path = std::getenv("QV_SEC_CONFIG");
    struct stat sb;
    if (path == nullptr) path = ::stat(kSecConfigPrimary, &sb) == 0 ? kSecConfigPrimary : kSecConfigFallback;
    // A failed copy leaves fname NULL, which later reads report as 2650-019.
    SEC_STATE.config.fname = strdup(path);
    pthread_mutex_unlock(&SEC_STATE.lock);
    sec_install_fork_handlers();

    sec__error_ok = pthread_key_create(&sec__error_key, sec__error_cleanup) == 0 ? 1 : 0;
    sec__trace_register_qvsec();
}

}  // extern "C"
