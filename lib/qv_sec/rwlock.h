// The readers-writer lock's read path, inline so that a call into a module
// takes and releases its read lock without a function call or the mutex.
//
// How the lock works. `count` is the number of readers holding the lock, -1
// while a writer holds it, 0 when it is free; `writers` is the number of
// threads waiting to become the writer. Both are read without the mutex, so
// every access to them is atomic (sequentially consistent unless noted), and
// whoever reads them elsewhere must read them atomically too.
//
// - A reader that finds no writer holding (count >= 0) and none waiting
//   (writers == 0) counts itself in with a compare-and-swap on `count` and
//   never touches the mutex; otherwise it waits on r_cond under the mutex
//   until both hold, and counts itself in the same way.
// - A reader leaves with an atomic decrement. The one that brings `count` to
//   0 while a writer waits takes the mutex to signal w_cond.
// - A writer, under the mutex, adds itself to `writers`, then sets `count`
//   from 0 to -1 with a compare-and-swap, waiting on w_cond while it fails.
//   `writers` changes only under the mutex, and so does `count` from -1 to 0,
//   so readers waiting on r_cond are woken as before: by the broadcast of the
//   writer that unlocks or of the last waiting writer that is cancelled.
//
// Mutual exclusion: readers enter only by moving `count` from a value >= 0
// to the next, a writer only by moving it from 0 to -1, all by
// compare-and-swap on the one word, so a writer never holds with a reader.
//
// No lost wakeup for a waiting writer. The writer adds itself to `writers`
// and then reads `count` (the compare-and-swap); a leaving reader decrements
// `count` and then reads `writers`. Both pairs are sequentially consistent,
// so in their single total order one of two things happens:
// - the reader's read of `writers` comes after the writer's increment: the
//   reader sees the writer and signals w_cond holding the mutex. The writer
//   holds the mutex from its increment until it sleeps in pthread_cond_wait,
//   so the signal finds it asleep, or comes before its compare-and-swap,
//   which then sees the decrement;
// - it comes before: then the reader's decrement comes before the writer's
//   increment and so before the writer's read of `count`, which sees it.
// Either way the writer sees the lock free, or is woken to look again. If
// `count` is not 0 when it looks, a reader still holds, and the same holds
// for that reader's own decrement later. Readers that entered between a
// writer's increment and its look had read `writers` as 0 before the
// increment: they are counted, and their exit is covered the same way.
#pragma once

#include <atomic>

#include "qv_sec_internal.h"

inline std::atomic_ref<int> sec_rwlock_count(sec_rwlock_t l) { return std::atomic_ref<int>(l->count); }
inline std::atomic_ref<int> sec_rwlock_writers(sec_rwlock_t l) { return std::atomic_ref<int>(l->writers); }

// Counts the caller in as a reader unless a writer holds or waits for the
// lock; false when it does.
inline bool sec_rwlock_try_read(sec_rwlock_t l) {
    auto count = sec_rwlock_count(l);
    int c = count.load(std::memory_order_relaxed);  // a first guess: the compare-and-swap checks it
    while (c >= 0 && sec_rwlock_writers(l).load() == 0) {
        if (count.compare_exchange_weak(c, c + 1)) return true;
    }
    return false;
}

// The waiting half of the read lock and the signal of the last reader out;
// in rwlock.cpp.
void sec_rwlock_read_slow(sec_rwlock_t l);
void sec_rwlock_wake_writer(sec_rwlock_t l);

inline void sec_rwlock_read(sec_rwlock_t l) {
    if (!sec_rwlock_try_read(l)) sec_rwlock_read_slow(l);
}

inline void sec_rwlock_unlock_read(sec_rwlock_t l) {
    if (sec_rwlock_count(l).fetch_sub(1) == 1 && sec_rwlock_writers(l).load() > 0) sec_rwlock_wake_writer(l);
}
