#include <gtest/gtest.h>

#include <cstring>
#include <thread>

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

int thread_error_id() {
    cu_error_t *e = nullptr;
    cu_get_error_1(&e);
    int id = e->cu_error_id;
    cu_rel_error_1(e);
    return id;
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

// Two modules fail in turn (22, then 3): the first failure is the one given
// back, with its status record and its error record.
TEST_F(ErrorCapture, FirstFailureOfASeriesIsKept) {
    sec_status_desc st{};
    sec__error_clear(&st);

    sec_report(22, MSG_2650_020);
    st = status_of(0, 0, "");
    EXPECT_EQ(sec__error_capture(22, &st), 0);

    cu_set_no_error_1();
    st = status_of(7, 2, "mpm_start_sec_context");
    EXPECT_EQ(sec__error_capture(3, &st), 0);

    qv_int32_t rc = -1;
    sec__error_retrieve(&rc, &st);
    EXPECT_EQ(rc, 22);
    EXPECT_EQ(st.maj_stat, 0u);
    EXPECT_STREQ(st.desc, "");
    cu_error_t *e = nullptr;
    cu_get_error_1(&e);
    EXPECT_EQ(e->cu_error_id, 22);
    EXPECT_EQ(e->cu_msg_num, MSG_2650_020);
    cu_rel_error_1(e);

    // Detached by retrieve: a second retrieve finds nothing and leaves rc.
    rc = -1;
    sec__error_retrieve(&rc, &st);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(st.maj_stat, 0u);
}

TEST_F(ErrorCapture, StatusOfTheFirstFailureComesBack) {
    sec_status_desc st = status_of(5, 9, "mpm_login_as_service");
    sec__error_capture(3, &st);
    sec_status_desc later = status_of(6, 10, "mpm_start");
    sec__error_capture(3, &later);
    qv_int32_t rc = 0;
    sec_status_desc out = status_of(1, 1, "junk");
    sec__error_retrieve(&rc, &out);
    EXPECT_EQ(rc, 3);
    EXPECT_EQ(out.maj_stat, 5u);
    EXPECT_EQ(out.min_stat, 105u);
    EXPECT_EQ(out.mech_code, 9u);
    EXPECT_STREQ(out.desc, "mpm_login_as_service");
}

// A failure followed by a success: clear forgets it and zeroes the status.
TEST_F(ErrorCapture, ClearAfterSuccessForgets) {
    sec_status_desc st = status_of(5, 9, "mpm_start");
    sec__error_capture(3, &st);
    sec__error_clear(&st);
    EXPECT_EQ(st.maj_stat, 0u);
    EXPECT_EQ(pthread_getspecific(sec__error_key), nullptr);
    qv_int32_t rc = 0;
    sec__error_retrieve(&rc, &st);
    EXPECT_EQ(rc, 0);
}

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
        *id_out = thread_error_id();
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
    EXPECT_EQ(thread_error_id(), 0);
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
