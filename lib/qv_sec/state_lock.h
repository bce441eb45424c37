// Scoped holders of the library's mutexes. Their destructors also run when
// the holding thread is cancelled (cancellation unwinds C++ frames), so a
// cancelled thread never keeps a lock.
#pragma once

#include <pthread.h>

#include "qv_sec.h"

class MutexHold {
public:
    explicit MutexHold(pthread_mutex_t &m) : m_(m) { pthread_mutex_lock(&m_); }
    ~MutexHold() { pthread_mutex_unlock(&m_); }
    MutexHold(const MutexHold &) = delete;
    MutexHold &operator=(const MutexHold &) = delete;

private:
    pthread_mutex_t &m_;
};

// SEC_STATE.lock: the configuration records and the module table.
class StateLock : public MutexHold {
public:
    StateLock() : MutexHold(SEC_STATE.lock) {}
};
