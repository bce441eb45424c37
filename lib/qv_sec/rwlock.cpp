// The readers-writer lock of the module table entries: one mutex, a condition
// for readers and one for writers. Writers have preference: a reader waits
// while any writer holds or waits for the lock. Every wait runs under a
// cancellation clean-up handler that repairs the counters and releases the
// mutex, so a cancelled waiter leaves the lock consistent.
#include "qv_sec.h"

#include <cstring>

namespace {

void reader_cleanup(void *mutex) { sec__waiting_reader_cleanup(static_cast<pthread_mutex_t *>(mutex)); }
void writer_cleanup(void *lock) { sec__waiting_writer_cleanup(static_cast<sec_rwlock_t>(lock)); }

// Waits as a reader and counts the caller in; the mutex is held on entry and
// released on return (also when the wait is cancelled).
void wait_and_take_read(sec_rwlock_t l) {
    pthread_cleanup_push(reader_cleanup, &l->mutex);
    while (l->count < 0 || l->writers > 0) pthread_cond_wait(&l->r_cond, &l->mutex);
    l->count += 1;
    pthread_cleanup_pop(1);
}

// Joins the waiting writers, waits for the lock to be free and takes it; the
// mutex is held on entry and released on return. The clean-up handler runs on
// both paths: it withdraws the caller from `writers` and, when a cancelled
// last waiting writer leaves a lock nobody writes, lets the readers in.
void wait_and_take_write(sec_rwlock_t l) {
    l->writers += 1;
    pthread_cleanup_push(writer_cleanup, l);
    while (l->count != 0) pthread_cond_wait(&l->w_cond, &l->mutex);
    l->count = -1;
    pthread_cleanup_pop(1);
}

// Hands a lock that nobody holds any more to the next writer, or else to every
// waiting reader.
void wake_after_release(sec_rwlock_t l) {
    if (l->writers > 0) {
        pthread_cond_signal(&l->w_cond);
    } else {
        pthread_cond_broadcast(&l->r_cond);
    }
}

}  // namespace

extern "C" {

void sec__simple_init(pthread_mutex_t *mutex) { pthread_mutex_init(mutex, nullptr); }

void sec__lock_init(sec_rwlock_t l) {
    pthread_mutex_init(&l->mutex, nullptr);
    pthread_cond_init(&l->w_cond, nullptr);
    pthread_cond_init(&l->r_cond, nullptr);
    l->writers = 0;
    l->count = 0;
}

void sec__lock_destroy(sec_rwlock_t l) {
    pthread_mutex_destroy(&l->mutex);
    pthread_cond_destroy(&l->r_cond);
    pthread_cond_destroy(&l->w_cond);
    std::memset(static_cast<void *>(l), 0, sizeof *l);
}

void sec__waiting_reader_cleanup(pthread_mutex_t *mutex) { pthread_mutex_unlock(mutex); }

void sec__waiting_writer_cleanup(sec_rwlock_t l) {
    l->writers -= 1;
    if (l->writers == 0 && l->count >= 0) pthread_cond_broadcast(&l->r_cond);
    pthread_mutex_unlock(&l->mutex);
}

void sec__lock_read(sec_rwlock_t l) {
    pthread_mutex_lock(&l->mutex);
    wait_and_take_read(l);
}

void sec__unlock_read(sec_rwlock_t l) {
    pthread_mutex_lock(&l->mutex);
    l->count -= 1;
    // Only threads counted in `writers` wait on w_cond, so with none the
    // signal would wake nobody; skipping it keeps the common unlock short.
    if (l->count == 0 && l->writers > 0) pthread_cond_signal(&l->w_cond);
    pthread_mutex_unlock(&l->mutex);
}

void sec__lock_write(sec_rwlock_t l) {
    pthread_mutex_lock(&l->mutex);
    wait_and_take_write(l);
}

void sec__unlock_write(sec_rwlock_t l) {
    pthread_mutex_lock(&l->mutex);
    l->count = 0;
    wake_after_release(l);
    pthread_mutex_unlock(&l->mutex);
}

int sec__trylock_write(sec_rwlock_t l) {
    // Ignores waiting writers on purpose: it may take the lock ahead of them.
    pthread_mutex_lock(&l->mutex);
    int rc = -1;
    if (l->count == 0) {
        l->count = -1;
        rc = 0;
    }
    pthread_mutex_unlock(&l->mutex);
    return rc;
}

void sec__lock_promote(sec_rwlock_t l) {
    // Not atomic: the caller's read lock is given up before it queues as a
    // writer, so another writer may get in first.
    pthread_mutex_lock(&l->mutex);
    if (l->count > 0) {
        l->count -= 1;
        if (l->count == 0) pthread_cond_signal(&l->w_cond);
    }
    wait_and_take_write(l);
}

void sec__lock_demote(sec_rwlock_t l) {
    // Not atomic either: waiting writers go first, then the caller reads.
    pthread_mutex_lock(&l->mutex);
    l->count = 0;
    wake_after_release(l);
    wait_and_take_read(l);
}

}  // extern "C"
