// The high-resolution counter: nanoseconds of the real-time clock, used for
// trace timestamps and to make socket paths unique. Two calls in the same
// process never return the same value: a counter read that would not exceed
// the last one handed out returns the last one plus one, so values stay
// unique and ordered even when the clock is stepped back.
#include <time.h>

#include <atomic>

#include "qv_cu.h"

namespace {

constexpr qv_uint64_t kTicksPerSecond = 1000000000ULL;
std::atomic<qv_uint64_t> g_last{0};

}  // namespace

extern "C" {

int cu_get_ctr_1(qv_uint64_t *ctr) {
    if (ctr == nullptr) return CU_E_BADARG;
    struct timespec ts;
    if (clock_gettime(CLOCK_REALTIME, &ts) != 0) return CU_E_INTERNAL;
    qv_uint64_t now = qv_uint64_t(ts.tv_sec) * kTicksPerSecond + qv_uint64_t(ts.tv_nsec);
    qv_uint64_t last = g_last.load(std::memory_order_relaxed);
    qv_uint64_t next;
    do {
        next = now > last ? now : last + 1;
    } while (!g_last.compare_exchange_weak(last, next, std::memory_order_relaxed));
    *ctr = next;
    return 0;
}

int cu_get_procspeed_1(qv_uint64_t *ticks_per_second) {
    if (ticks_per_second == nullptr) return CU_E_BADARG;
    *ticks_per_second = kTicksPerSecond;
    return 0;
}

int cu_cvt_time_1(qv_uint64_t ctr, qv_uint64_t ticks_per_second, cu_timeinfo_t *ti) {
    if (ti == nullptr || ticks_per_second == 0) return CU_E_BADARG;
    ti->cu_sec = ctr / ticks_per_second;
    // remainder < ticks_per_second, so the product fits in 128 bits exactly
    unsigned __int128 rem = ctr % ticks_per_second;
    ti->cu_nsec = qv_uint64_t(rem * 1000000000U / ticks_per_second);
    return 0;
}

}  // extern "C"
