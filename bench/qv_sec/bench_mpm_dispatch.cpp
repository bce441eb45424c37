// One dispatched module call (sec__mpm_get_ctx_lifetime: read lock, routine
// lookup, call, time stamp, unlock) against a direct call of the same routine
// through its address, with 1 and 2 threads calling at once. Prints
// nanoseconds per call and the difference and ratio.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <dlfcn.h>
#include <thread>
#include <vector>

#include "qv_sec.h"
#include "qv_sec_mpm.h"

namespace {

using Clock = std::chrono::steady_clock;
using LifetimeFn = decltype(&mpm_get_ctx_lifetime);

constexpr long kCalls = 2'000'000;

// Nanoseconds per call, each of `threads` threads making kCalls calls.
template <typename F>
double per_call(int threads, F body) {
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> pool;
    std::vector<double> ns(threads);
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            for (long i = 0; i < kCalls / 20; ++i) body();  // warm up
            ++ready;
            while (!go) std::this_thread::yield();
            auto start = Clock::now();
            for (long i = 0; i < kCalls; ++i) body();
            ns[t] = std::chrono::duration<double, std::nano>(Clock::now() - start).count() / kCalls;
        });
    }
    while (ready < threads) std::this_thread::yield();
    go = true;
    for (auto &th : pool) th.join();
    double sum = 0;
    for (double v : ns) sum += v;
    return sum / threads;
}

}  // namespace

int main() {
    sec_config_rec_desc rec{};
    rec.code = 0x7001;
    rec.name = const_cast<char *>("bench");
    rec.path = const_cast<char *>(QVBENCH_MODULE);
    sec_mpm_entry_t entry = nullptr;
    sec__get_mpm_entry(0);  // runs the library's initialisation
    pthread_mutex_lock(&SEC_STATE.lock);
    qv_uint32_t rc = sec__reserve_mpm(&rec, &entry);
    pthread_mutex_unlock(&SEC_STATE.lock);
    void *object = dlopen(QVBENCH_MODULE, RTLD_NOW);
    if (rc != 0 || object == nullptr) {
        std::fprintf(stderr, "cannot set up the bench module %s\n", QVBENCH_MODULE);
        return 1;
    }
    auto direct_fn = reinterpret_cast<LifetimeFn>(dlsym(object, "mpm_get_ctx_lifetime"));
    static int token;

    auto direct = [&] {
        qv_uint32_t min_stat;
        qv_int32_t lifetime;
        volatile qv_uint32_t maj = direct_fn(&min_stat, &token, &lifetime);
        (void)maj;
    };
    auto dispatched = [&] {
        sec_status_desc st;
        qv_int32_t lifetime;
        volatile qv_uint32_t r = sec__mpm_get_ctx_lifetime(entry, &st, &token, &lifetime);
        (void)r;
    };

    std::printf("%-8s %12s %12s %12s %8s\n", "threads", "direct ns", "dispatch ns", "overhead ns", "ratio");
    for (int threads : {1, 2}) {
        double d = per_call(threads, direct);
        double m = per_call(threads, dispatched);
        std::printf("%-8d %12.1f %12.1f %12.1f %8.2f\n", threads, d, m, m - d, m / d);
    }
    return 0;
}
