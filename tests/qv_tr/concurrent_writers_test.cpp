// Many threads and several processes appending to one trace file at once:
// every record must come back whole, in each thread's own order.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <thread>

#include "child_process.h"
#include "qv_tr.h"
#include "test_support.h"
#include "trace_test_util.h"

namespace {

constexpr uint32_t kRecordsPerThread = 800;

// Sizes cross the library's stack-buffer limit and reach several kilobytes.
size_t payload_size(uint32_t seq) { return (seq * 997u) % 9000u; }

std::string payload(uint32_t writer, uint32_t seq) {
    std::string out(payload_size(seq), '\0');
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = char(writer * 31 + seq * 7 + i);
    return out;
}

std::string tag(uint32_t writer, uint32_t seq) {
    return std::string(reinterpret_cast<const char *>(&writer), 4) +
           std::string(reinterpret_cast<const char *>(&seq), 4);
}

// Forks a process that sets QV_TRACE_FILE and writes from `threads` threads;
// writer numbers are first_writer.. onwards.
pid_t start_writer_process(const std::string &path, uint32_t first_writer, uint32_t threads) {
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    setenv("QV_TRACE_FILE", path.c_str(), 1);
    std::atomic<int> failures{0};
    std::vector<std::thread> pool;
    for (uint32_t t = 0; t < threads; ++t) {
        pool.emplace_back([&, writer = first_writer + t] {
            for (uint32_t seq = 0; seq < kRecordsPerThread; ++seq) {
                std::string head = tag(writer, seq), body = payload(writer, seq);
                if (tr_record_data_1("_CONC", seq, 2, head.data(), head.size(), body.data(),
                                     body.size()) != TR_OK)
                    ++failures;
            }
        });
    }
    for (std::thread &t : pool)
        t.join();
    _exit(failures == 0 ? 0 : 1);
}

void expect_all_records(const std::string &path, uint32_t writers) {
    uint64_t damage = 0;
    auto events = trtest::decode(qvtest::read_file(path), 0, &damage);
    EXPECT_EQ(damage, 0u);
    std::map<uint32_t, uint32_t> next_seq;  // writer -> expected seq
    std::map<uint32_t, uint64_t> thread_of;  // writer -> pid<<32 | tid
    size_t records = 0;
    for (const auto &d : trtest::records_of(events)) {
        ++records;
        ASSERT_EQ(d.items.size(), 2u);
        ASSERT_EQ(d.items[0].size(), 8u);
        uint32_t writer, seq;
        std::memcpy(&writer, d.items[0].data(), 4);
        std::memcpy(&seq, d.items[0].data() + 4, 4);
        ASSERT_LT(writer, writers);
        EXPECT_EQ(seq, next_seq[writer]) << "writer " << writer;
        next_seq[writer] = seq + 1;
        EXPECT_EQ(d.id, seq);
        EXPECT_TRUE(d.items[1] == payload(writer, seq)) << "writer " << writer << " seq " << seq;
        uint64_t thread = uint64_t(d.pid) << 32 | d.tid;
        auto known = thread_of.emplace(writer, thread);
        EXPECT_EQ(known.first->second, thread);
    }
    EXPECT_EQ(records, size_t(writers) * kRecordsPerThread);
}

// Two processes of three threads each: threads of one process and
// processes race for the file alike.
TEST(ConcurrentWriters, TwoProcessesWithThreads) {
    qvtest::TempDir dir;
    std::string path = dir.path() + "/processes.trc";
    pid_t a = start_writer_process(path, 0, 3);
    pid_t b = start_writer_process(path, 3, 3);
    EXPECT_EQ(qvtest::wait_bounded(a, std::chrono::seconds(120)), 0);
    EXPECT_EQ(qvtest::wait_bounded(b, std::chrono::seconds(120)), 0);
    expect_all_records(path, 6);
}

// Registration, run-time changes and unregistration from several threads:
// the level bytes only ever hold values that some setting allows.
TEST(ConcurrentLevels, ChangesWhileRegistering) {
    static tr_detail_level_t levels[2][3];
    const tr_category_description cats[] = {{0, "A", 0, 0}, {1, "B", 0, 2}, {2, "C", 1, 0}};
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> pool;
    for (int c = 0; c < 2; ++c) {
        pool.emplace_back([&, c] {
            const char *name = c ? "_LVB" : "_LVA";
            while (!stop) {
                if (tr_register_component_1(name, levels[c], cats, 3) != TR_OK)
                    ++bad;
                int rc = tr_unregister_component_1(name);
                if (rc != TR_OK)
                    ++bad;
            }
        });
    }
    pool.emplace_back([&] {
        for (int i = 0; !stop; ++i)
            if (tr_set_levels_1(i % 2 ? "_LVA:*=5;_LVB:A=3" : "*:B=0,C=7") != TR_OK)
                ++bad;
    });
    pool.emplace_back([&] {
        while (!stop)
            for (auto &component : levels)
                for (tr_detail_level_t &slot : component) {
                    unsigned v = __atomic_load_n(&slot, __ATOMIC_RELAXED);
                    if (v != 0 && v != 1 && v != 2 && v != 3 && v != 5 && v != 7)
                        ++bad;
                }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    stop = true;
    for (std::thread &t : pool)
        t.join();
    EXPECT_EQ(bad, 0);
}

}  // namespace
