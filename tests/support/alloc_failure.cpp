#include "alloc_failure.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QV_SWEEP 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define QV_SWEEP 0
#endif
#endif
#ifndef QV_SWEEP
#define QV_SWEEP 1
#endif

namespace {
std::atomic<long> g_countdown{-1};  // allocations left before they fail; -1: never fail
std::atomic<bool> g_failed{false};  // whether the current run saw a failure
std::atomic<long> g_live{0};        // blocks allocated and not yet freed
std::atomic<const void *> g_watched{nullptr};  // the block watch_free waits for
size_t g_watched_size = 0;
unsigned char g_freed[64];
std::atomic<size_t> g_freed_size{0};
}  // namespace

#if QV_SWEEP
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);

static bool fail_now() {
    long left = g_countdown.load(std::memory_order_relaxed);
    if (left < 0) return false;
    if (left == 0) {
        g_failed = true;
        return true;
    }
    g_countdown.store(left - 1, std::memory_order_relaxed);
    return false;
}
static void *counted(void *p) {
    if (p != nullptr) ++g_live;
    return p;
}
void *malloc(size_t n) { return fail_now() ? nullptr : counted(__libc_malloc(n)); }
void *calloc(size_t n, size_t s) { return fail_now() ? nullptr : counted(__libc_calloc(n, s)); }
void *realloc(void *p, size_t n) {
    if (p == nullptr) return malloc(n);
    if (n == 0) {
        --g_live;
        return __libc_realloc(p, 0);
    }
    return fail_now() ? nullptr : __libc_realloc(p, n);
}
void free(void *p) {
    if (p != nullptr) --g_live;
    if (p != nullptr && p == g_watched.load()) {
        std::memcpy(g_freed, p, g_watched_size);
        g_freed_size = g_watched_size;
        g_watched = nullptr;
    }
    __libc_free(p);
}
}
#endif

namespace qvtest {

bool failing_allocator_active() {
    if (!QV_SWEEP) return false;
    // Under valgrind the replacement is not called: a forced failure shows it.
    void *(*volatile probe)(size_t) = malloc;
    g_countdown = 0;
    void *p = probe(1);
    g_countdown = -1;
    free(p);
    return p == nullptr;
}

void watch_free(const void *p, size_t n) {
    g_watched_size = n < sizeof g_freed ? n : sizeof g_freed;
    g_freed_size = 0;
    g_watched = p;
}

std::string freed_bytes() { return std::string(reinterpret_cast<const char *>(g_freed), g_freed_size); }

void alloc_failure_sweep(const std::function<int()> &step, const std::function<void(int, bool)> &check,
                         const std::function<void()> &warm) {
    if (!failing_allocator_active()) GTEST_SKIP() << "the failing allocator is not in use";
    if (warm) warm();
    for (long n = 0; n < 100000; ++n) {
        g_failed = false;
        long live = g_live;
        g_countdown = n;
        int rc = step();
        g_countdown = -1;
        bool failed = g_failed;
        check(rc, failed);
        EXPECT_EQ(g_live.load(), live) << "blocks leaked when allocation " << n << " failed"
                                       << (failed ? "" : " (no failure)");
        if (!failed) {
            EXPECT_GT(n, 0) << "the step allocated nothing: the sweep tested nothing";
            return;
        }
        if (::testing::Test::HasFailure()) return;  // one report, not one per n
    }
    FAIL() << "no run completed without a failed allocation";
}

}  // namespace qvtest
