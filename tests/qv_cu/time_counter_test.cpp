// The counter follows the real-time clock in nanoseconds, never repeats, and
// converts exactly into seconds and nanoseconds.
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>

#include "qv_cu.h"

namespace {

TEST(TimeCounter, FollowsTheClockAndIncreases) {
    qv_uint64_t rate = 0, prev = 0, ctr = 0;
    ASSERT_EQ(cu_get_procspeed_1(&rate), 0);
    EXPECT_EQ(rate, 1000000000u);
    time_t before = time(nullptr);
    for (int i = 0; i < 10000; ++i) {
        ASSERT_EQ(cu_get_ctr_1(&ctr), 0);
        ASSERT_GT(ctr, prev);
        prev = ctr;
    }
    time_t after = time(nullptr);
    cu_timeinfo_t ti{};
    ASSERT_EQ(cu_cvt_time_1(ctr, rate, &ti), 0);
    EXPECT_GE(ti.cu_sec + 1, qv_uint64_t(before));
    EXPECT_LE(ti.cu_sec, qv_uint64_t(after) + 1);
}

TEST(TimeCounter, ConversionIsExact) {
    struct {
        qv_uint64_t ctr, rate, sec, nsec;
    } cases[] = {
        {1234567890123456789ULL, 1000000000ULL, 1234567890ULL, 123456789ULL},
        {10, 3, 3, 333333333},
        {0, 1, 0, 0},
        {UINT64_MAX, 1000, UINT64_MAX / 1000, 615000000},
        {UINT64_MAX, UINT64_MAX, 1, 0},
        {UINT64_MAX - 1, UINT64_MAX, 0, 999999999},  // remainder * 1e9 needs 128 bits
        {2500000, 1000000, 2, 500000000},
    };
    for (const auto &c : cases) {
        cu_timeinfo_t ti{};
        ASSERT_EQ(cu_cvt_time_1(c.ctr, c.rate, &ti), 0);
        EXPECT_EQ(ti.cu_sec, c.sec) << c.ctr << "/" << c.rate;
        EXPECT_EQ(ti.cu_nsec, c.nsec) << c.ctr << "/" << c.rate;
    }
}

TEST(TimeCounter, BadArguments) {
    cu_timeinfo_t ti{};
    EXPECT_EQ(cu_get_ctr_1(nullptr), CU_E_BADARG);
    EXPECT_EQ(cu_get_procspeed_1(nullptr), CU_E_BADARG);
    EXPECT_EQ(cu_cvt_time_1(5, 0, &ti), CU_E_BADARG);
    EXPECT_EQ(cu_cvt_time_1(5, 1, nullptr), CU_E_BADARG);
}

}  // namespace
