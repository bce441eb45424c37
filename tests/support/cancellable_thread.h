// A POSIX thread that a test can cancel, and whose end is awaited with a
// time limit: a thread stuck in the code under test fails the test instead
// of hanging it.
#pragma once

#include <pthread.h>

#include <atomic>
#include <functional>

namespace qvtest {

class CancellableThread {
public:
    explicit CancellableThread(std::function<void()> body);
    ~CancellableThread();
    CancellableThread(const CancellableThread &) = delete;
    CancellableThread &operator=(const CancellableThread &) = delete;

    // Whether body returned (false after a cancellation).
    bool done() const { return done_.load(); }
    void cancel();
    // Joins within limit_seconds; returns false (and reports a test failure)
    // when the thread is still running then. Returns true at once when
    // already joined.
    bool join(int limit_seconds = 10);
    // Whether the thread ended by cancellation (valid after join).
    bool cancelled() const { return cancelled_; }

private:
    static void *run(void *self);
    std::function<void()> body_;
    pthread_t tid_{};
    std::atomic<bool> done_{false};
    bool joined_ = false;
    bool cancelled_ = false;
};

}  // namespace qvtest
