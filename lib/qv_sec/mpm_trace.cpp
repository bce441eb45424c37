// Trace records of the module table and dispatch: each carries the entry's
// mnemonic and the thread id, then what the record is about.
#include <cstring>

#include "mpm.h"

namespace {

const char *entry_name(sec_mpm_entry_t e) { return e->name != nullptr ? e->name : ""; }

qv_uint32_t thread_id() { return static_cast<qv_uint32_t>(reinterpret_cast<uintptr_t>(pthread_self())); }

}  // namespace

void sec_mpm_trace_record(qv_uint32_t id, sec_mpm_entry_t entry, int npairs, const void *a, size_t alen,
                          const void *b, size_t blen) {
    const char *name = entry_name(entry);
    qv_uint32_t tid = thread_id();
    tr_record_data_1(kTraceComponent, id, 2 + npairs, name, std::strlen(name) + 1, &tid, sizeof tid, a, alen, b,
                     blen);
}

void sec_mpm_trace_lock(qv_uint32_t id, sec_mpm_entry_t entry) {
    int counters[2];
    {
        SecMutexGuard guard(&entry->lock.mutex);
        counters[0] = __atomic_load_n(&entry->lock.count, __ATOMIC_SEQ_CST);
        counters[1] = __atomic_load_n(&entry->lock.writers, __ATOMIC_SEQ_CST);
    }
    sec_mpm_trace_record(id, entry, 2, &counters[0], sizeof counters[0], &counters[1], sizeof counters[1]);
}

void sec_mpm_trace_state(qv_uint32_t id, sec_mpm_entry_t entry) {
    qv_uint32_t state = sec_mpm_state(*entry);
    sec_mpm_trace_record(id, entry, 1, &state, sizeof state);
}

void sec_mpm_trace_string(qv_uint32_t id, sec_mpm_entry_t entry, const char *s, const char *s2) {
    if (s == nullptr) s = "";
    if (s2 == nullptr) {
        sec_mpm_trace_record(id, entry, 1, s, std::strlen(s) + 1);
    } else {
        sec_mpm_trace_record(id, entry, 2, s, std::strlen(s) + 1, s2, std::strlen(s2) + 1);
    }
}
