#include "cancellable_thread.h"

#include <gtest/gtest.h>

#include <ctime>
#include <stdexcept>

namespace qvtest {

CancellableThread::CancellableThread(std::function<void()> body) : body_(std::move(body)) {
    if (pthread_create(&tid_, nullptr, &CancellableThread::run, this) != 0)
        throw std::runtime_error("pthread_create failed");
}

CancellableThread::~CancellableThread() {
    if (!joined_) join();
}

void CancellableThread::cancel() {
    if (!joined_) pthread_cancel(tid_);
}

bool CancellableThread::join(int limit_seconds) {
    if (joined_) return true;
    timespec limit;
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += limit_seconds;
    void *result = nullptr;
    joined_ = true;
    if (pthread_timedjoin_np(tid_, &result, &limit) != 0) {
        ADD_FAILURE() << "thread did not finish within " << limit_seconds << " s";
        pthread_detach(tid_);
        return false;
    }
    cancelled_ = result == PTHREAD_CANCELED;
    return true;
}

void *CancellableThread::run(void *self) {
    auto *t = static_cast<CancellableThread *>(self);
    t->body_();
    t->done_ = true;
    return nullptr;
}

}  // namespace qvtest
