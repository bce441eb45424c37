// The module table, the loading of modules and the dispatch of calls into
// them: what the files mpm_table.cpp, mpm_loader.cpp, mpm_dispatch.cpp and
// mpm_routines.cpp share.
#pragma once

#include <cstring>
#include <pthread.h>

#include "cancel_state.h"
#include "qv_sec_internal.h"
#include "trace.h"

// The module routines in the library's order; kMpmRoutineNames gives each
// one's exported name.
enum sec_mpm_routine_id : int {
    MPM_START,
    MPM_END,
    MPM_SET_CTX_ATTRIBUTE,
    MPM_SERVICE_CLEANUP,
    MPM_START_SEC_CONTEXT,
    MPM_GET_TARGET_NAME,
    MPM_COMPLETE_SEC_CONTEXT,
    MPM_GET_CTX_LIFETIME,
    MPM_GET_CTX_FLAGS,
    MPM_PREPARE_DATA,
    MPM_PROCESS_DATA,
    MPM_END_CONTEXT,
    MPM_LOGIN_AS_SERVICE,
    MPM_LOGIN_AS_USER,
    MPM_RENEW_IDENTITY,
    MPM_RECEIVE_SEC_CONTEXT,
    MPM_GET_CLIENT_NAME,
    MPM_GET_MAPPED_NAME,
    MPM_GET_CLIENT_ID,
    MPM_RELEASE_BUFFER,
    MPM_CREATE_ID_CONTEXT,
    MPM_SIGN_DATA_V,
    MPM_VERIFY_DATA_V,
    MPM_GET_CTX_MPM,
    MPM_USER_VALID,
    MPM_ROUTINE_COUNT
};

inline constexpr const char *kMpmRoutineNames[MPM_ROUTINE_COUNT] = {
    "mpm_start",           "mpm_end",
    "mpm_set_ctx_attribute", "mpm_service_cleanup",
    "mpm_start_sec_context", "mpm_get_target_name",
    "mpm_complete_sec_context", "mpm_get_ctx_lifetime",
    "mpm_get_ctx_flags",   "mpm_prepare_data",
    "mpm_process_data",    "mpm_end_context",
    "mpm_login_as_service", "mpm_login_as_user",
    "mpm_renew_identity",  "mpm_receive_sec_context",
    "mpm_get_client_name", "mpm_get_mapped_name",
    "mpm_get_client_id",   "mpm_release_buffer",
    "mpm_create_id_context", "mpm_sign_data_v",
    "mpm_verify_data_v",   "mpm_get_ctx_mpm",
    "mpm_user_valid",
};
inline constexpr const char *kMpmInitName = "mpm_init";

// Bits of an entry's state. Bits 0x1 and 0x80000000 change under
// SEC_STATE.lock, bit 0x2 under the entry's write lock; readers of other
// locks see the word through atomic accesses.
inline qv_uint32_t sec_mpm_state(const sec_mpm_entry_desc &e) { return __atomic_load_n(&e.state, __ATOMIC_ACQUIRE); }
inline void sec_mpm_state_store(sec_mpm_entry_desc &e, qv_uint32_t v) { __atomic_store_n(&e.state, v, __ATOMIC_RELEASE); }
inline void sec_mpm_state_set(sec_mpm_entry_desc &e, qv_uint32_t bits) {
    __atomic_fetch_or(&e.state, bits, __ATOMIC_ACQ_REL);
}
inline void sec_mpm_state_clear(sec_mpm_entry_desc &e, qv_uint32_t bits) {
    __atomic_fetch_and(&e.state, ~bits, __ATOMIC_ACQ_REL);
}

// A loaded module is never unloaded, so a routine's address stays valid once
// found. Each table entry remembers the addresses found in its module; a
// missing routine is not remembered and is looked up (and reported) again on
// every call. Forgotten when the entry's module is (re)loaded.
void sec_mpm_forget_routines(sec_mpm_entry_t entry);

// Looks routine `id` up in the entry's module, loading the module when
// needed. On 0 *fn is the routine's address and the caller holds the entry's
// read lock, to be released with sec_mpm_end_call.
qv_uint32_t sec_mpm_find_routine(sec_mpm_entry_t entry, sec_mpm_routine_id id, void **fn);

// Ends a call found by sec_mpm_find_routine: stamps the entry's ltime and
// releases the read lock (what sec__mpm_end_routine does, without going
// through the exported name). Runs from destructors and clean-up handlers,
// so it never acts on a cancellation.
void sec_mpm_end_call(sec_mpm_entry_t entry);

// Holds a pthread mutex for a scope; released by the destructor also when a
// cancellation unwinds the scope.
class SecMutexGuard {
public:
    explicit SecMutexGuard(pthread_mutex_t *m) : m_(m) { pthread_mutex_lock(m_); }
    ~SecMutexGuard() { pthread_mutex_unlock(m_); }
    SecMutexGuard(const SecMutexGuard &) = delete;
    SecMutexGuard &operator=(const SecMutexGuard &) = delete;

private:
    pthread_mutex_t *m_;
};

// The trace records of the module table: the entry's name and the calling
// thread's id, then `extra` (address, length) pairs. Callers test the
// category's level first, so disabled tracing costs one byte test.
void sec_mpm_trace_record(qv_uint32_t id, sec_mpm_entry_t entry, int npairs = 0, const void *a = nullptr,
                          size_t alen = 0, const void *b = nullptr, size_t blen = 0);
// Same with the lock's count and writers, read under the lock's mutex.
void sec_mpm_trace_lock(qv_uint32_t id, sec_mpm_entry_t entry);
// Same with the entry's state.
void sec_mpm_trace_state(qv_uint32_t id, sec_mpm_entry_t entry);
// Same with a string (routine name, path), or a path and a loader text.
void sec_mpm_trace_string(qv_uint32_t id, sec_mpm_entry_t entry, const char *s, const char *s2 = nullptr);

// Trace record ids of the module table.
enum : qv_uint32_t {
    TRC_MPM_READ_LOCKED = kTraceMpmReadLocked,
    TRC_MPM_READ_UNLOCKED = kTraceMpmReadUnlocked,
    TRC_MPM_LOAD_FAILED_UNLOCKED = kTraceMpmLoadFailedUnlocked,
    TRC_MPM_PROMOTED = kTraceMpmPromoted,
    TRC_MPM_DEMOTED = kTraceMpmDemoted,
    TRC_MPM_STATE = kTraceMpmState,
    TRC_MPM_LOADED_BY_OTHER = kTraceMpmLoadedByOther,
    TRC_MPM_ROUTINE_FOUND = kTraceMpmRoutineFound,
    TRC_MPM_ROUTINE_MISSING = kTraceMpmRoutineMissing,
    TRC_MPM_STAT_FAILED = kTraceMpmStatFailed,
    TRC_MPM_DLOPEN_FAILED = kTraceMpmDlopenFailed,
    TRC_MPM_LOAD_START = kTraceMpmLoadStart,
    TRC_MPM_DLOPEN_DONE = kTraceMpmDlopenDone,
    TRC_MPM_INIT_RETURNED = kTraceMpmInitReturned,
};
