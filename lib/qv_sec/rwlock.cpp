// The readers-writer lock of the module table entries: one mutex, a condition
// for readers and one for writers. Writers have preference: a reader waits
// while any writer holds or waits for the lock. Readers that find no writer
// take and leave the lock without the mutex (rwlock.h explains how, and why
// no wakeup is lost). Every wait runs under a cancellation clean-up handler
// that repairs the counters and releases the mutex, so a cancelled waiter
// leaves the lock consistent.
#include "rwlock.h"

#include <cstring>

namespace {

void reader_cleanup(void *mutex) { sec__waiting_reader_cleanup(static_cast<pthread_mutex_t *>(mutex)); }
void writer_cleanup(void *lock) { sec__waiting_writer_cleanup(static_cast<sec_rwlock_t>(lock)); }

// Waits as a reader and counts the caller in; the mutex is held on entry and
// released on return (also when the wait is cancelled). Whether a writer
// holds or waits changes only under the mutex, so a broadcast of r_cond
// cannot slip between the test and the wait.
void wait_and_take_read(sec_rwlock_t l) {
    pthread_cleanup_push(reader_cleanup, &l->mutex);
    while (!sec_rwlock_try_read(l)) pthread_cond_wait(&l->r_cond, &l->mutex);
    pthread_cleanup_pop(1);
}

// Waits for the lock to be free and takes it, for a caller already counted in
// `writers`; the mutex is held on entry and released on return. The clean-up
// handler runs on both paths: it withdraws the caller from `writers` and,
// when a cancelled last waiting writer leaves a lock nobody writes, lets the
// readers in.
void wait_and_take_write(sec_rwlock_t l) {
    auto count = sec_rwlock_count(l);
    pthread_cleanup_push(writer_cleanup, l);
    int free_lock = 0;
    while (!count.compare_exchange_strong(free_lock, -1)) {
        pthread_cond_wait(&l->w_cond, &l->mutex);
        free_lock = 0;
    }
    pthread_cleanup_pop(1);
}

// Hands a lock that nobody holds any more to the next writer, or else to every
// waiting reader.
void wake_after_release(sec_rwlock_t l) {
    if (sec_rwlock_writers(l).load() > 0) {
        pthread_cond_signal(&l->w_cond);
    } else {
        pthread_cond_broadcast(&l->r_cond);
    }
}

}  // namespace

void sec_rwlock_read_slow(sec_rwlock_t l) {
    pthread_mutex_lock(&l->mutex);
    wait_and_take_read(l);
}

void sec_rwlock_wake_writer(sec_rwlock_t l) {
    pthread_mutex_lock(&l->mutex);
    pthread_cond_signal(&l->w_cond);
    pthread_mutex_unlock(&l->mutex);
}

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
    int writers = sec_rwlock_writers(l).fetch_sub(1) - 1;
    int count = sec_rwlock_count(l).load();
    if (writers == 0 && count >= 0) pthread_cond_broadcast(&l->r_cond);
    // A cancelled writer may have been woken for a lock that is free: pass
    // the wakeup on to another waiting writer rather than lose it.
    if (writers > 0 && count == 0) pthread_cond_signal(&l->w_cond);
    pthread_mutex_unlock(&l->mutex);
}

void sec__lock_read(sec_rwlock_t l) { sec_rwlock_read(l); }

void sec__unlock_read(sec_rwlock_t l) { sec_rwlock_unlock_read(l); }

void sec__lock_write(sec_rwlock_t l) {
    pthread_mutex_lock(&l->mutex);
    sec_rwlock_writers(l).fetch_add(1);
    wait_and_take_write(l);
}

void sec__unlock_write(sec_rwlock_t l) {
    pthread_mutex_lock(&l->mutex);
    sec_rwlock_count(l).store(0);
    wake_after_release(l);
    pthread_mutex_unlock(&l->mutex);
}

int sec__trylock_write(sec_rwlock_t l) {
    // Ignores waiting writers on purpose: it may take the lock ahead of them.
    // Taking a free lock needs no wakeup, so the mutex is not needed either.
    int free_lock = 0;
    return sec_rwlock_count(l).compare_exchange_strong(free_lock, -1) ? 0 : -1;
}

void sec__lock_promote(sec_rwlock_t l) {
    // Not atomic: the caller's read lock is given up before it can take the
    // write lock, so another writer may get in first. The caller joins the
    // waiting writers before it gives up its read lock, so that no reader
    // slips in between on the path that bypasses the mutex.
    pthread_mutex_lock(&l->mutex);
    sec_rwlock_writers(l).fetch_add(1);
    auto count = sec_rwlock_count(l);
    int c = count.load();
    while (c > 0 && !count.compare_exchange_weak(c, c - 1)) {
    }
    if (c == 1) pthread_cond_signal(&l->w_cond);
    wait_and_take_write(l);
}

void sec__lock_demote(sec_rwlock_t l) {
    // Not atomic either: waiting writers go first, then the caller reads.
    pthread_mutex_lock(&l->mutex);
    sec_rwlock_count(l).store(0);
    wake_after_release(l);
    wait_and_take_read(l);
}

}  // extern "C"
