// Fork handlers: the child of a multithreaded process gets the library's
// locks in a state it can use. Before the fork the forking thread takes, in
// the library's lock order, SEC_STATE.lock, the imposed-mechanisms mutex
// and the internal mutex of every module table entry's readers-writer lock;
// all are held only for short spells, never across a call into a module, so
// the fork waits briefly at most. The parent releases them after the fork;
// the child releases them and resets each entry's lock to free, because the
// threads that held it as readers or as the loading writer do not exist in
// the child. A load that was under way stays undone (its loaded bit is set
// only when it completes), so the child's first call loads the module again.
#include "library_init.h"
#include "mechanism_list.h"
#include "rwlock.h"

namespace {

void take_all() {
    pthread_mutex_lock(&SEC_STATE.lock);
    pthread_mutex_lock(&sec_imposed_mechs_mutex());
    for (sec_mpm_entry_desc &e : SEC_STATE.mpms.entries) pthread_mutex_lock(&e.lock.mutex);
}

void release_in_parent() {
    for (int i = SEC_MPM_MAX_ENTRIES - 1; i >= 0; --i) pthread_mutex_unlock(&SEC_STATE.mpms.entries[i].lock.mutex);
    pthread_mutex_unlock(&sec_imposed_mechs_mutex());
    pthread_mutex_unlock(&SEC_STATE.lock);
}

void reset_in_child() {
    for (sec_mpm_entry_desc &e : SEC_STATE.mpms.entries) {
        // Waiters of the conditions were other threads; start them afresh.
        pthread_cond_init(&e.lock.r_cond, nullptr);
        pthread_cond_init(&e.lock.w_cond, nullptr);
        sec_rwlock_writers(&e.lock).store(0);
        sec_rwlock_count(&e.lock).store(0);
        pthread_mutex_unlock(&e.lock.mutex);
    }
    pthread_mutex_unlock(&sec_imposed_mechs_mutex());
    pthread_mutex_unlock(&SEC_STATE.lock);
}

}  // namespace

void sec_install_fork_handlers() { pthread_atfork(take_all, release_in_parent, reset_in_child); }
