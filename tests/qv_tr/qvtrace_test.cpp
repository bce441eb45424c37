// The qvtrace tool, run as a program: its lines, its damage reports and its
// exit status.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstring>

#include "test_support.h"
#include "trace_format.h"

namespace {

using qvtr::PayloadKind;

struct ToolRun {
    int status = -1;  // exit status, or -1
    std::string out, err;
};

ToolRun run_qvtrace(const std::vector<std::string> &args) {
    qvtest::TempDir dir;
    std::string out = dir.path() + "/out", err = dir.path() + "/err";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<char *> argv{const_cast<char *>(QVTRACE_PATH)};
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid;
    ToolRun run;
    int rc = posix_spawn(&pid, QVTRACE_PATH, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        ADD_FAILURE() << "cannot start " << QVTRACE_PATH;
        return run;
    }
    int status = 0;
    if (!qvtest::wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; },
                            std::chrono::seconds(60))) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        ADD_FAILURE() << "qvtrace did not finish";
        return run;
    }
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = qvtest::read_file(out);
    run.err = qvtest::read_file(err);
    return run;
}

std::string header() {
    std::string out(qvtr::kFileHeaderSize, '\0');
    qvtr::encode_file_header(std::span(reinterpret_cast<uint8_t *>(out.data()), out.size()));
    return out;
}

std::string record(std::string_view comp, uint32_t id, PayloadKind kind,
                   const std::vector<std::string> &items, uint32_t nanoseconds = 123456789) {
    std::vector<qvtr::Item> list;
    for (const std::string &s : items)
        list.push_back({reinterpret_cast<const uint8_t *>(s.data()), s.size()});
    qvtr::RecordHeader h;
    h.component = comp;
    h.id = id;
    h.pid = 4242;
    h.tid = 4343;
    h.seconds = 1795342503;  // 2026-11-22 10:15:03 UTC
    h.nanoseconds = nanoseconds;
    h.kind = kind;
    std::string out(qvtr::encoded_record_size(comp, list), '\0');
    qvtr::encode_record(std::span(reinterpret_cast<uint8_t *>(out.data()), out.size()), h, list);
    return out;
}

TEST(Qvtrace, PrintsOneLinePerRecord) {
    qvtest::TempDir dir;
    std::string file = header() +
        record("_SEA", 11, PayloadKind::none, {}, 5) +
        record("_SEA", 12, PayloadKind::data, {std::string("\x00\x00\x00\x0b", 4), "", "\xff\x10"}) +
        record("_SEA", 1, PayloadKind::strings,
               {std::string("sec_start\0", 10), "", std::string("t\tq\"\\\x01\xc3\xa9 end\0", 13)}) +
        header() +
        record("a b\n", 0, PayloadKind::strings, {});
    std::string path = dir.write("small.trc", file);
    ToolRun run = run_qvtrace({path});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out,
              "2026-11-22 10:15:03.000000005 UTC _SEA id=11 pid=4242 tid=4343\n"
              "2026-11-22 10:15:03.123456789 UTC _SEA id=12 pid=4242 tid=4343 0000000b (empty) ff10\n"
              "2026-11-22 10:15:03.123456789 UTC _SEA id=1 pid=4242 tid=4343 \"sec_start\" (null) "
              "\"t\\tq\\\"\\\\\\x01\\xc3\\xa9 end\"\n"
              "2026-11-22 10:15:03.123456789 UTC a\\x20b\\n id=0 pid=4242 tid=4343\n");
}

TEST(Qvtrace, ReportsDamageAndGoesOn) {
    qvtest::TempDir dir;
    std::string r1 = record("_SEA", 1, PayloadKind::none, {});
    std::string r2 = record("_SEA", 2, PayloadKind::none, {});
    std::string r3 = record("_SEA", 3, PayloadKind::data, {"abc"});
    std::string garbage = "\x01\x02QVTR junk";
    std::string file = header() + r1 + garbage + r2 + r3.substr(0, r3.size() - 2);
    ToolRun run = run_qvtrace({dir.write("damaged.trc", file)});
    size_t garbage_at = 8 + r1.size(), torn_at = garbage_at + garbage.size() + r2.size();
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out,
              "2026-11-22 10:15:03.123456789 UTC _SEA id=1 pid=4242 tid=4343\n"
              "damaged record at offset " + std::to_string(garbage_at) + "\n"
              "2026-11-22 10:15:03.123456789 UTC _SEA id=2 pid=4242 tid=4343\n"
              "damaged record at offset " + std::to_string(torn_at) + "\n");
    EXPECT_NE(run.err.find("2 damaged"), std::string::npos) << run.err;
}

TEST(Qvtrace, UsageAndUnreadableFiles) {
    qvtest::TempDir dir;
    std::string newer = header();
    newer[7] = 9;
    struct Case {
        std::vector<std::string> args;
        int status;
        const char *out_starts;
        const char *err_has;
    } cases[] = {
        {{"--help"}, 0, "usage: qvtrace FILE\n", ""},
        {{}, 2, "", "usage: qvtrace FILE"},
        {{"a", "b"}, 2, "", "usage: qvtrace FILE"},
        {{dir.path() + "/missing"}, 2, "", "/missing: No such file or directory"},
        {{dir.path()}, 2, "", "Is a directory"},
        {{dir.write("newer.trc", newer)}, 2, "", "unsupported trace file version 9"},
        {{dir.write("text.txt", "plain text\n")}, 1, "damaged record at offset 0\n",
         "no trace file header at offset 0"},
        {{dir.write("empty.trc", "")}, 0, "", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.args.empty() ? "(no arguments)" : c.args[0]);
        ToolRun run = run_qvtrace(c.args);
        EXPECT_EQ(run.status, c.status);
        EXPECT_EQ(run.out.substr(0, std::strlen(c.out_starts)), c.out_starts);
        if (*c.out_starts == '\0') {
            EXPECT_EQ(run.out, "");
        }
        if (*c.err_has) {
            EXPECT_NE(run.err.find(c.err_has), std::string::npos) << run.err;
        } else {
            EXPECT_EQ(run.err, "");
        }
    }
}

}  // namespace
