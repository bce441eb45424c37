// Finding a module routine for a call: the entry's read lock is taken for the
// whole call, the module is loaded on first use (promote, load, demote), and
// the routine's address is looked up. The caller releases the lock with
// sec__mpm_end_routine.
#include <atomic>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <dlfcn.h>

#include "errors.h"
#include "mpm.h"
#include "rwlock.h"

namespace {

// Addresses found in each entry's module, by routine. Written with atomics
// under the entry's read lock (several readers may store the same address),
// cleared under its write lock when a module is loaded into the entry.
std::atomic<void *> g_routines[SEC_MPM_MAX_ENTRIES][MPM_ROUTINE_COUNT];

// The entry's index in the table, or -1 for a record elsewhere (which then
// gets no remembered addresses).
int entry_index(sec_mpm_entry_t entry) {
    auto base = reinterpret_cast<uintptr_t>(&SEC_STATE.mpms.entries[0]);
    auto p = reinterpret_cast<uintptr_t>(entry);
    if (p < base) return -1;
    uintptr_t off = p - base;
    if (off % sizeof(sec_mpm_entry_desc) != 0 || off / sizeof(sec_mpm_entry_desc) >= SEC_MPM_MAX_ENTRIES)
        return -1;
    return static_cast<int>(off / sizeof(sec_mpm_entry_desc));
}

// The entry's lock as this thread holds it; whatever is held is released if
// the scope is left early, including by a cancellation.
class EntryLock {
public:
    explicit EntryLock(sec_mpm_entry_t e) : e_(e) {}
    ~EntryLock() { release(); }
    EntryLock(const EntryLock &) = delete;
    EntryLock &operator=(const EntryLock &) = delete;

    void read() {
        sec_rwlock_read(&e_->lock);
        mode_ = kRead;
    }
    // A cancelled promote or demote holds nothing, so the mode is cleared
    // first.
    void promote() {
        mode_ = kNone;
        sec__lock_promote(&e_->lock);
        mode_ = kWrite;
    }
    void demote() {
        mode_ = kNone;
        sec__lock_demote(&e_->lock);
        mode_ = kRead;
    }
    void release() {
        if (mode_ == kRead) sec_rwlock_unlock_read(&e_->lock);
        if (mode_ == kWrite) sec__unlock_write(&e_->lock);
        mode_ = kNone;
    }
    // The read lock stays held, for the caller to release.
    void keep() { mode_ = kNone; }

private:
    enum Mode { kNone, kRead, kWrite };
    sec_mpm_entry_t e_;
    Mode mode_ = kNone;
};

// Called with the read lock held and the module not loaded; returns with the
// read lock held and the module loaded, or with nothing held and the load's
// failure.
qv_uint32_t load_under_write_lock(sec_mpm_entry_t entry, EntryLock &lock) {
    if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_state(TRC_MPM_STATE, entry);
    lock.promote();
    if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_lock(TRC_MPM_PROMOTED, entry);
    // Promotion is not atomic: another thread may have loaded the module
    // while this one waited for the write lock.
    if ((sec_mpm_state(*entry) & SEC_MPM_S_LOADED) == 0) {
        qv_uint32_t rc = sec__load_mpm(entry);
        if (rc != 0) {
            lock.release();
            if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_lock(TRC_MPM_LOAD_FAILED_UNLOCKED, entry);
            return rc;
        }
    } else if (sec_trace_on(SEC_TRC_INFO)) {
        sec_mpm_trace_state(TRC_MPM_LOADED_BY_OTHER, entry);
    }
    lock.demote();
    if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_lock(TRC_MPM_DEMOTED, entry);
    return 0;
}

// id is the routine's index in the table, or -1 for a name outside it.
qv_uint32_t find_routine(sec_mpm_entry_t entry, int id, const char *name, void **fn) {
    EntryLock lock(entry);
    lock.read();
    if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_lock(TRC_MPM_READ_LOCKED, entry);
    if ((sec_mpm_state(*entry) & SEC_MPM_S_LOADED) == 0) {
        if (qv_uint32_t rc = load_under_write_lock(entry, lock)) return rc;
    }

    int index = id >= 0 ? entry_index(entry) : -1;
    void *found = index >= 0 ? g_routines[index][id].load(std::memory_order_acquire) : nullptr;
    if (found == nullptr) {
        found = dlsym(entry->object, name);
        if (found != nullptr && index >= 0) g_routines[index][id].store(found, std::memory_order_release);
    }
    if (found != nullptr) {
        if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_string(TRC_MPM_ROUTINE_FOUND, entry, name);
        *fn = found;
        lock.keep();
        return 0;
    }

    lock.release();
    if (sec_trace_on(SEC_TRC_INFO)) sec_mpm_trace_lock(TRC_MPM_READ_UNLOCKED, entry);
    if (sec_trace_on(SEC_TRC_ERRORS)) sec_mpm_trace_string(TRC_MPM_ROUTINE_MISSING, entry, name);
    return sec_report(SEC_S_BAD_MPM, MSG_2650_020);
}

}  // namespace

void sec_mpm_forget_routines(sec_mpm_entry_t entry) {
    int index = entry_index(entry);
    if (index < 0) return;
    for (auto &slot : g_routines[index]) slot.store(nullptr, std::memory_order_relaxed);
}

qv_uint32_t sec_mpm_find_routine(sec_mpm_entry_t entry, sec_mpm_routine_id id, void **fn) {
    return find_routine(entry, id, kMpmRoutineNames[id], fn);
}

void sec_mpm_end_call(sec_mpm_entry_t entry) {
    // Concurrent calls all stamp the time; writing only when the second
    // changed keeps the entry's cache line quiet between them.
    time_t now = time(nullptr);
    if (__atomic_load_n(&entry->ltime, __ATOMIC_RELAXED) != now) __atomic_store_n(&entry->ltime, now, __ATOMIC_RELAXED);
    sec_rwlock_unlock_read(&entry->lock);
    if (sec_trace_on(SEC_TRC_INFO)) {
        // The record is written with write(), a cancellation point.
        SecCancelDisabled no_cancel;
        sec_mpm_trace_lock(TRC_MPM_READ_UNLOCKED, entry);
    }
}

extern "C" {

qv_uint32_t sec__mpm_start_routine(sec_mpm_entry_t entry, char *func_name, sec_mpm_routine_t *func) {
    int id = -1;
    for (int i = 0; i < MPM_ROUTINE_COUNT; ++i) {
        if (std::strcmp(func_name, kMpmRoutineNames[i]) == 0) {
            id = i;
            break;
        }
    }
    void *fn = nullptr;
    qv_uint32_t rc = find_routine(entry, id, func_name, &fn);
    if (rc == 0) *func = reinterpret_cast<sec_mpm_routine_t>(fn);
    return rc;
}

void sec__mpm_end_routine(sec_mpm_entry_t entry) { sec_mpm_end_call(entry); }

}  // extern "C"
