// The qvtrace tool, run as a program: its lines, its damage reports and its
// exit status.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstring>

#include "child_process.h"
#include "qv_tr.h"
#include "test_support.h"
#include "trace_format.h"

namespace {

using qvtr::PayloadKind;

using qvtest::ToolRun;

ToolRun run_qvtrace(const std::vector<std::string> &args) { return qvtest::run_tool(QVTRACE_PATH, args); }

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

// A write the file system cuts short (the file size limit here, a full
// disk elsewhere) and writes that fail outright: the writer goes on, and
// the reader finds every whole record around the torn one.
TEST(Qvtrace, ReadsAroundAShortWrite) {
    qvtest::TempDir dir;
    std::string path = dir.path() + "/short.trc";
    std::string big(100, 'x');
    int rc = qvtest::run_in_child([&] {
        signal(SIGXFSZ, SIG_IGN);
        setenv("QV_TRACE_FILE", path.c_str(), 1);
        if (tr_record_id_1("_SEA", 1) != TR_OK)
            return 1;
        struct stat sb;
        struct rlimit old;
        if (stat(path.c_str(), &sb) != 0 || getrlimit(RLIMIT_FSIZE, &old) != 0)
            return 2;
        struct rlimit tight = old;
        tight.rlim_cur = rlim_t(sb.st_size) + 20;
        if (setrlimit(RLIMIT_FSIZE, &tight) != 0)
            return 3;
        if (tr_record_data_1("_SEA", 2, 1, big.data(), big.size()) != TR_E_FILE)  // 20 bytes land
            return 4;
        if (tr_record_id_1("_SEA", 3) != TR_E_FILE)  // nothing lands
            return 5;
        if (setrlimit(RLIMIT_FSIZE, &old) != 0)
            return 6;
        return tr_record_id_1("_SEA", 4) == TR_OK ? 0 : 7;
    });
    ASSERT_EQ(rc, 0);
    ToolRun run = run_qvtrace({path});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find(" _SEA id=1 "), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("damaged record at offset"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find(" _SEA id=4 "), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find(" _SEA id=2 "), std::string::npos) << run.out;

    // A full device: every write fails, the caller only sees the code.
    rc = qvtest::run_in_child([] {
        setenv("QV_TRACE_FILE", "/dev/full", 1);
        return tr_record_id_1("_SEA", 1) == TR_E_FILE && tr_record_strings_1("_SEA", 2, 1, "s") == TR_E_FILE ? 0 : 1;
    });
    EXPECT_EQ(rc, 0);
}

}  // namespace
