// Allocation failure: every allocation of a routine fails in turn from the
// n-th on. Each run must end in success or the documented no-memory result,
// the thread's record must stay usable, and nothing may leak.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "alloc_failure.h"
#include "current_error.h"
#include "qv_cu.h"

namespace {

const char *kText = "%1$s failed: %2$d (%3$s)";

// The first catalogue lookup creates the catalogue cache, which lives for
// the process: let that happen before counting. check sees the routine's
// result, which must be 0 or CU_E_NOMEM.
void sweep(const std::function<int()> &step, const std::function<void(int)> &check) {
    qvtest::alloc_failure_sweep(
        step,
        [&](int rc, bool) {
            EXPECT_TRUE(rc == 0 || rc == CU_E_NOMEM) << rc;
            check(rc);
        },
        [] {
            cu_error_t warm{};
            warm.cu_msg_cat = const_cast<char *>("qvtest-absent.cat");
            char *m = nullptr;
            cu_get_errmsg_1(&warm, &m);
            cu_rel_errmsg_1(m);
        });
}

TEST(AllocFailure, ErrorRecords) {
    cu_set_error_1(1, nullptr, nullptr, 0, 0, "the thread's first record");
    cu_set_no_error_1();
    sweep([] { return cu_set_error_1(23, "ffdc", "qvtest-absent.cat", 1, 38, kText, "alpha", 5, "beta") - 23; },
          [](int) {
              EXPECT_EQ(qvtest::current_error().id, 23);  // the id survives even a bare record
              std::string m = qvtest::current_error().text;
              EXPECT_TRUE(m == "alpha failed: 5 (beta)" || m.empty()) << m;
              cu_set_no_error_1();
          });

    cu_set_error_1(6, "ffdc", "qvtest-absent.cat", 1, 36, kText, "gamma", 7, "delta");
    cu_error_t *saved = nullptr;
    sweep([&] {
              int rc = cu_get_error_1(&saved);
              EXPECT_EQ(saved == nullptr, rc != 0);
              return rc;
          },
          [&](int) {
              EXPECT_EQ(qvtest::current_error().text, "gamma failed: 7 (delta)");
              cu_rel_error_1(saved);
              saved = nullptr;
          });
    ASSERT_EQ(cu_get_error_1(&saved), 0);
    sweep([saved] { return cu_pset_error_1(saved); },
          [saved](int rc) {
              EXPECT_EQ(qvtest::current_error().id, 6);
              EXPECT_EQ(qvtest::current_error().text, rc == 0 ? "gamma failed: 7 (delta)" : "");
              cu_pset_error_1(saved);  // a full record again, as before the step
          });
    char *m = nullptr;
    sweep([saved, &m] { return cu_get_errmsg_1(saved, &m); },
          [&m](int rc) {
              EXPECT_STREQ(m, rc == 0 ? "gamma failed: 7 (delta)" : nullptr);
              cu_rel_errmsg_1(m);
              m = nullptr;
          });
    cu_rel_error_1(saved);
}

TEST(AllocFailure, CodesetConversion) {
    cu_iconv_t *h = nullptr;
    ASSERT_EQ(cu_iconv_open_1("ISO-8859-1", CU_ICONV_TO_UTF8, &h), 0);
    std::string in(5000, '\xe9');
    char *out = nullptr;
    size_t out_len = 0;
    sweep([&] {
              size_t in_len = in.size();
              return cu_iconv_str_1(h, 0, in.data(), &in_len, &out, &out_len);
          },
          [&](int rc) {
              EXPECT_EQ(out_len, rc == 0 ? 10000u : 0u);
              free(out);
              out = nullptr;
          });
    cu_iconv_close_1(h);
}

}  // namespace
