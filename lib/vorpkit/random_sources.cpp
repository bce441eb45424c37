// The entropy sources of the random generators: the processor clock that the
// true-random generator samples, and the operating system's generator that
// supplies a round's entropy when the clock shows none.
#include <atomic>
#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include "random_internal.h"

namespace vorp::rng {

namespace {

std::atomic<clock_t (*)()> g_clock{&::clock};
std::atomic<void (*)(uint8_t *, size_t)> g_os_random{&system_random};

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// Calls read_some(buf, want) until n bytes arrived, retrying after a signal;
// returns how many arrived.
template <class ReadSome>
size_t fill(uint8_t *buf, size_t n, ReadSome read_some) {
    size_t done = 0;
    while (done < n) {
        ssize_t r = read_some(buf + done, n - done);
        if (r > 0)
            done += static_cast<size_t>(r);
        else if (r < 0 && errno == EINTR)
            continue;
        else
            break;
    }
    return done;
}

}  // namespace

void system_random(uint8_t *buf, size_t n) {
    int saved_errno = errno;
    size_t done = fill(buf, n, [](uint8_t *p, size_t k) { return ::getrandom(p, k, 0); });
    if (done < n) {
        Fd fd(::open("/dev/urandom", O_RDONLY | O_CLOEXEC));
        if (fd.get() >= 0)
            done += fill(buf + done, n - done, [&fd](uint8_t *p, size_t k) { return ::read(fd.get(), p, k); });
    }
    // Handing out bytes known to be predictable (they may become keys) would
    // be worse than stopping.
    if (done < n) std::abort();
    errno = saved_errno;
}

EntropySources entropy_sources() {
    return {g_clock.load(std::memory_order_relaxed), g_os_random.load(std::memory_order_relaxed)};
}

EntropySources replace_entropy_sources(EntropySources s) {
    return {g_clock.exchange(s.clock), g_os_random.exchange(s.os_random)};
}

}  // namespace vorp::rng
