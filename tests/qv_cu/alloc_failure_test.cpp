// Allocation failure: every allocation of a routine fails in turn from the
// n-th on. Each run must end in success or the documented no-memory result,
// the thread's record must stay usable, and nothing may leak (the leak
// checkers see to that). The sanitizers bring their own allocator, so there
// the sweep is skipped.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "qv_cu.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QV_SWEEP 0
#else
#define QV_SWEEP 1
#endif

namespace {
long g_countdown = -1;  // allocations left before they fail; -1: never fail
bool g_failed = false;  // whether the last sweep step saw a failure
long g_live = 0;        // blocks allocated and not yet freed
}  // namespace

#if QV_SWEEP
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);

static bool fail_now() {
    if (g_countdown < 0) return false;
    if (g_countdown == 0) return g_failed = true;
    --g_countdown;
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
    __libc_free(p);
}
}
#endif

namespace {

// Runs step with allocations failing from the n-th on, for n = 0, 1, ...
// until a run sees no failure. check runs with allocation restored and must
// release what step handed out and put back the state before step, so that
// every block allocated in the run has been freed again.
void sweep(const std::function<int()> &step, const std::function<void(int)> &check) {
    if (!QV_SWEEP) GTEST_SKIP() << "the sanitizer's allocator is in use";
    // Under valgrind (or another allocator) the replacement is not called.
    void *(*volatile probe)(size_t) = malloc;
    g_countdown = 0;
    void *p = probe(1);
    g_countdown = -1;
    free(p);
    if (p != nullptr) GTEST_SKIP() << "the failing allocator is not in use";
    // The first catalogue lookup creates the catalogue cache, which lives for
    // the process: let that happen before counting.
    cu_error_t warm{};
    warm.cu_msg_cat = const_cast<char *>("qvtest-absent.cat");
    char *m = nullptr;
    cu_get_errmsg_1(&warm, &m);
    cu_rel_errmsg_1(m);
    for (long n = 0; n < 1000; ++n) {
        g_failed = false;
        long live = g_live;
        g_countdown = n;
        int rc = step();
        g_countdown = -1;
        check(rc);
        EXPECT_EQ(g_live, live) << "blocks leaked when allocation " << n << " failed" << (g_failed ? "" : " (no failure)");
        if (!g_failed) {
            EXPECT_GT(n, 0) << "the step allocated nothing: the failing allocator is not in use";
            return;
        }
    }
    FAIL() << "no run completed without a failed allocation";
}

std::string message_now() {
    cu_error_t *e = nullptr;
    EXPECT_EQ(cu_get_error_1(&e), 0);
    char *m = nullptr;
    EXPECT_EQ(cu_get_errmsg_1(e, &m), 0);
    std::string s = m;
    cu_rel_errmsg_1(m);
    cu_rel_error_1(e);
    return s;
}

int current_id() {
    cu_error_t *e = nullptr;
    EXPECT_EQ(cu_get_error_1(&e), 0);
    int id = e->cu_error_id;
    cu_rel_error_1(e);
    return id;
}

const char *kText = "%1$s failed: %2$d (%3$s)";

TEST(AllocFailure, SetError) {
    cu_set_error_1(1, nullptr, nullptr, 0, 0, "the thread's first record");
    cu_set_no_error_1();
    sweep([] { return cu_set_error_1(23, "ffdc", "qvtest-absent.cat", 1, 38, kText, "alpha", 5, "beta"); },
          [](int rc) {
              EXPECT_EQ(rc, 23);
              EXPECT_EQ(current_id(), 23);  // the id survives even a bare record
              std::string m = message_now();
              EXPECT_TRUE(m == "alpha failed: 5 (beta)" || m.empty()) << m;
              cu_set_no_error_1();
          });
}

TEST(AllocFailure, GetAndPsetError) {
    cu_set_error_1(6, "ffdc", "qvtest-absent.cat", 1, 36, kText, "gamma", 7, "delta");
    sweep([] {
              cu_error_t *e = reinterpret_cast<cu_error_t *>(1);
              int rc = cu_get_error_1(&e);
              if (rc != 0) {
                  EXPECT_EQ(e, nullptr);
              }
              cu_rel_error_1(rc == 0 ? e : nullptr);
              return rc;
          },
          [](int rc) {
              EXPECT_TRUE(rc == 0 || rc == CU_E_NOMEM) << rc;
              EXPECT_EQ(message_now(), "gamma failed: 7 (delta)");
          });
    cu_error_t *saved = nullptr;
    ASSERT_EQ(cu_get_error_1(&saved), 0);
    sweep([saved] { return cu_pset_error_1(saved); },
          [saved](int rc) {
              EXPECT_TRUE(rc == 0 || rc == CU_E_NOMEM) << rc;
              EXPECT_EQ(current_id(), 6);
              if (rc == 0) {
                  EXPECT_EQ(message_now(), "gamma failed: 7 (delta)");
              }
              cu_pset_error_1(saved);  // a full record again, as before the step
          });
    cu_rel_error_1(saved);
}

TEST(AllocFailure, FormatMessage) {
    cu_set_error_1(6, nullptr, "qvtest_absent.cat", 1, 36, kText, "eps", 9, "zeta");
    cu_error_t *e = nullptr;
    ASSERT_EQ(cu_get_error_1(&e), 0);
    char *m = nullptr;
    sweep([e, &m] { return cu_get_errmsg_1(e, &m); },
          [&m](int rc) {
              EXPECT_TRUE(rc == 0 || rc == CU_E_NOMEM) << rc;
              EXPECT_STREQ(m, rc == 0 ? "eps failed: 9 (zeta)" : nullptr);
              cu_rel_errmsg_1(m);
              m = nullptr;
          });
    cu_rel_error_1(e);
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
              EXPECT_TRUE(rc == 0 || rc == CU_E_NOMEM) << rc;
              EXPECT_EQ(out_len, rc == 0 ? 10000u : 0u);
              free(out);
              out = nullptr;
          });
    cu_iconv_close_1(h);
}

}  // namespace
