// One dispatched module call (sec__mpm_get_ctx_lifetime: read lock, routine
// lookup, call, time stamp, unlock) against a direct call of the same routine
// through its address, with 1 and 2 threads calling at once. Prints
// nanoseconds per call and the difference and ratio. The machine may be
// shared, so each figure is the median of several rounds, and the overhead
// is also given as the smallest of the rounds (the least disturbed one).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <dlfcn.h>
#include <thread>
#include <vector>

#include "qv_sec_internal.h"
#include "qv_sec_mpm.h"

namespace {

using Clock = std::chrono::steady_clock;
using LifetimeFn = decltype(&mpm_get_ctx_lifetime);

constexpr long kCalls = 2'000'000;
constexpr int kRounds = 7;

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

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
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

    std::printf("%-8s %12s %12s %12s %8s %12s\n", "threads", "direct ns", "dispatch ns", "overhead ns", "ratio",
                "least over");
    for (int threads : {1, 2}) {
        std::vector<double> d, m, over;
        for (int r = 0; r < kRounds; ++r) {
            d.push_back(per_call(threads, direct));
            m.push_back(per_call(threads, dispatched));
            over.push_back(m.back() - d.back());
        }
        double dm = median(d), mm = median(m);
        std::printf("%-8d %12.1f %12.1f %12.1f %8.2f %12.1f\n", threads, dm, mm, median(over), mm / dm,
                    *std::min_element(over.begin(), over.end()));
    }
    return 0;
}
