// Thread behaviour: each thread keeps its own error record, a thread's record
// is freed when it exits (checked by the leak checkers), one conversion
// handle serves several threads at once, and counter values never repeat.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "current_error.h"
#include "qv_cu.h"
#include "test_support.h"

namespace {

constexpr int kThreads = 4;

void run_threads(const std::function<void(int)> &body) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(body, t);
    for (auto &th : threads) th.join();
}

TEST(Concurrency, RecordsAreThreadLocal) {
    std::atomic<int> set_count{0};
    std::vector<std::string> seen(kThreads);
    run_threads([&](int t) {
        std::string name = "thread-" + std::to_string(t);
        cu_set_error_1(10 + t, nullptr, nullptr, 1, 51, "%1$s: %2$d", name.c_str(), t);
        ++set_count;
        // Every thread has set its record before any reads its own back.
        qvtest::wait_until([&] { return set_count.load() == kThreads; });
        seen[size_t(t)] = qvtest::current_error().text;
        // Replacing the record frees the old one; the last goes with the thread.
        cu_error_t *e = nullptr;
        if (cu_get_error_1(&e) == 0) cu_pset_error_1(e);
        cu_rel_error_1(e);
    });
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(seen[size_t(t)], "thread-" + std::to_string(t) + ": " + std::to_string(t));
    EXPECT_EQ(qvtest::current_error().text, "");
}

TEST(Concurrency, SharedConversionHandle) {
    cu_iconv_t *to_utf8 = nullptr;
    ASSERT_EQ(cu_iconv_open_1("ISO-8859-1", CU_ICONV_TO_UTF8, &to_utf8), 0);
    std::atomic<int> failures{0};
    run_threads([&](int t) {
        std::string in(1000, char(0xe0 + t));
        for (int i = 0; i < 200; ++i) {
            size_t in_len = in.size(), out_len = 0;
            char *out = nullptr;
            if (cu_iconv_str_1(to_utf8, 0, in.data(), &in_len, &out, &out_len) != 0 || out_len != 2000 ||
                (unsigned char)out[1] != 0xa0 + t)
                ++failures;
            free(out);
        }
    });
    EXPECT_EQ(failures.load(), 0);
    cu_iconv_close_1(to_utf8);
}

TEST(Concurrency, CounterValuesNeverRepeat) {
    constexpr int kReads = 5000;
    std::vector<std::vector<qv_uint64_t>> values(kThreads);
    run_threads([&](int t) {
        for (int i = 0; i < kReads; ++i) {
            qv_uint64_t c = 0;
            cu_get_ctr_1(&c);
            values[size_t(t)].push_back(c);
        }
    });
    std::set<qv_uint64_t> all;
    for (const auto &v : values) {
        EXPECT_TRUE(std::is_sorted(v.begin(), v.end()));
        all.insert(v.begin(), v.end());
    }
    EXPECT_EQ(all.size(), size_t(kThreads * kReads));
}

}  // namespace
