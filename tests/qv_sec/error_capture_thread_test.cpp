#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "current_error.h"
#include "errors.h"
#include "library_init.h"

namespace {

sec_status_desc status_of(qv_uint32_t maj, qv_uint32_t code, const char *routine) {
    sec_status_desc st{};
    st.maj_stat = maj;
    st.min_stat = maj + 100;
    st.mech_code = code;
    std::strncpy(st.desc, routine, sizeof st.desc - 1);
    return st;
}

class ErrorCapture : public ::testing::Test {
protected:
    void SetUp() override {
        sec_init_once();
        ASSERT_EQ(sec__error_ok, 1);
        sec_status_desc scratch{};
        sec__error_clear(&scratch);
        cu_set_no_error_1();
    }
};

TEST_F(ErrorCapture, ClearWithNothingKeptLeavesStatus) {
    sec_status_desc st = status_of(5, 9, "mpm_start");
    sec__error_clear(&st);
    EXPECT_EQ(st.maj_stat, 5u);
    EXPECT_STREQ(st.desc, "mpm_start");
}

// Captured failures are per thread: two threads at once keep their own, and
// a thread that exits holding one has it freed (checked by the leak checkers).
TEST_F(ErrorCapture, PerThread) {
    auto worker = [](qv_int32_t code, qv_uint32_t maj, qv_int32_t *rc_out, sec_status_desc *st_out, int *id_out) {
        sec_report(code, MSG_2650_019);
        sec_status_desc st = status_of(maj, maj, "mpm_start");
        sec__error_capture(code, &st);
        cu_set_no_error_1();
        sec__error_retrieve(rc_out, st_out);
        *id_out = qvtest::current_error().id;
        // Leave one captured on exit for the key destructor.
        sec__error_capture(code, &st);
    };
    qv_int32_t rc1 = 0, rc2 = 0;
    sec_status_desc st1{}, st2{};
    int id1 = 0, id2 = 0;
    std::thread t1(worker, 21, 1u, &rc1, &st1, &id1);
    std::thread t2(worker, 22, 2u, &rc2, &st2, &id2);
    t1.join();
    t2.join();
    EXPECT_EQ(rc1, 21);
    EXPECT_EQ(rc2, 22);
    EXPECT_EQ(st1.maj_stat, 1u);
    EXPECT_EQ(st2.maj_stat, 2u);
    EXPECT_EQ(id1, 21);
    EXPECT_EQ(id2, 22);
    EXPECT_EQ(qvtest::current_error().id, 0);
}

TEST_F(ErrorCapture, SwitchedOffWithoutKey) {
    sec__error_ok = 0;
    sec_status_desc st = status_of(5, 9, "mpm_start");
    EXPECT_EQ(sec__error_capture(3, &st), 0);
    qv_int32_t rc = 77;
    sec__error_retrieve(&rc, &st);
    EXPECT_EQ(rc, 77);
    EXPECT_EQ(st.maj_stat, 25u);
    EXPECT_EQ(st.mech_code, 0u);
    sec__error_ok = 1;
}

}  // namespace
