// Owns a file descriptor (-1: none). close() is a cancellation point, and a
// destructor must not be cut short by a cancellation that is unwinding the
// thread, so it closes with cancellation disabled.
#pragma once

#include <pthread.h>
#include <unistd.h>

class SecOwnedFd {
public:
    explicit SecOwnedFd(int fd) : fd_(fd) {}
    SecOwnedFd(const SecOwnedFd &) = delete;
    SecOwnedFd &operator=(const SecOwnedFd &) = delete;
    ~SecOwnedFd() {
        if (fd_ < 0) return;
        int old;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
        ::close(fd_);
        pthread_setcancelstate(old, nullptr);
    }
    int get() const { return fd_; }
    // Gives up ownership without closing.
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};
