// libqv_tr in one thread: the QV_TRACE grammar and the level arrays it
// writes, the trace file format and its reader, the record routines and the
// file they write, the qvtrace tool, and allocation failure in each.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "alloc_failure.h"
#include "child_process.h"
#include "internal.h"
#include "qv_tr.h"
#include "test_support.h"
#include "trace_test_util.h"

namespace {

using namespace trtest;
using qvtest::run_in_child;

// ---- Level settings ----

// Categories with a gap at id 3, so that a stray write shows up there.
const tr_category_description kCategories[] = {
    {0, "Errors", 0, 0}, {1, "Info", 0, 0}, {2, "API", 2, 0}, {4, "Buffer", 0, 1}, {5, "Locked", 4, 6},
};
using Levels = std::array<tr_detail_level_t, 6>;
constexpr tr_detail_level_t U = 0xEE;  // untouched
constexpr Levels kDefaults{0, 0, 2, U, 1, 6};

Levels register_with(const char *comp, const char *qv_trace) {
    if (qv_trace)
        setenv("QV_TRACE", qv_trace, 1);
    static Levels levels;
    levels.fill(U);
    EXPECT_EQ(tr_register_component_1(comp, levels.data(), kCategories, 5), TR_OK);
    unsetenv("QV_TRACE");
    return levels;
}

// The grammar and its application at registration: defaults raised to their
// minimums, then QV_TRACE from left to right; a malformed part is dropped
// and flagged, the rest applies.
TEST(Registration, QvTraceGrammarTable) {
    struct Case {
        const char *qv_trace;
        Levels expected;
        bool malformed;
    } cases[] = {
        {nullptr, kDefaults, false},
        {"_REG:API=8,Buffer=3", {0, 0, 8, U, 3, 6}, false},
        {"_reg:api=8;_REG:BUFFER=3", {0, 0, 8, U, 3, 6}, false},
        {" _REG : API = 8 , Buffer=3 ; ", {0, 0, 8, U, 3, 6}, false},
        {";;_REG:API=8,,", {0, 0, 8, U, 1, 6}, false},
        {"_REG:*=9", {9, 9, 9, U, 9, 9}, false},
        {"_REG:*=0", {0, 0, 0, U, 1, 6}, false},
        {"*:Info=5", {0, 5, 2, U, 1, 6}, false},
        {"_REG:*=7,API=1", {7, 7, 1, U, 7, 7}, false},
        {"_OTHER:*=8;_REG:Errors=4", {4, 0, 2, U, 1, 6}, false},
        {"_REG:Nope=8,Info=2", {0, 2, 2, U, 1, 6}, false},
        {"_REGX:*=8;_RE:*=8", kDefaults, false},
        {"_REG:API=255", {0, 0, 255, U, 1, 6}, false},
        {"_REG:API=256,Info=2", {0, 2, 2, U, 1, 6}, true},
        {"_REG:API=8x,Info=2", {0, 2, 2, U, 1, 6}, true},
        {"_REG:API=,Info=2", {0, 2, 2, U, 1, 6}, true},
        {"_REG:=8,Info=2", {0, 2, 2, U, 1, 6}, true},
        {"_REG;_REG:Info=2", {0, 2, 2, U, 1, 6}, true},
    };
    for (const Case &c : cases) {
        const char *text = c.qv_trace ? c.qv_trace : "";
        EXPECT_EQ(register_with("_REG", c.qv_trace), c.expected) << text;
        EXPECT_EQ(qvtr::parse_level_settings(text).malformed, c.malformed) << text;
    }
    EXPECT_EQ(tr_unregister_component_1("_REG"), TR_OK);
}

TEST(Registration, RunTimeChangesApplyNowAndToLaterRegistrations) {
    Levels a;
    a.fill(U);
    ASSERT_EQ(tr_register_component_1("_RTA", a.data(), kCategories, 5), TR_OK);
    EXPECT_EQ(tr_set_levels_1("_rta:Info=3,Locked=1"), TR_OK);
    EXPECT_EQ(a, (Levels{0, 3, 2, U, 1, 6}));
    EXPECT_EQ(tr_set_levels_1("_RTA:*=0;bad;_RTA:API=9"), TR_E_BAD_SETTING);
    EXPECT_EQ(a, (Levels{0, 0, 9, U, 1, 6}));

    // Remembered for a component registered afterwards, after QV_TRACE. A
    // setting of another category keeps the earlier one.
    EXPECT_EQ(tr_set_levels_1("_RTB:Buffer=5"), TR_OK);
    EXPECT_EQ(tr_set_levels_1("_RTB:Errors=3"), TR_OK);
    EXPECT_EQ(register_with("_RTB", "_RTB:Buffer=2,Errors=1"), (Levels{3, 0, 2, U, 5, 6}));
    // A later "*" replaces the earlier settings of that component.
    EXPECT_EQ(tr_set_levels_1("_RTB:*=4"), TR_OK);
    EXPECT_EQ(tr_unregister_component_1("_RTB"), TR_OK);
    EXPECT_EQ(register_with("_RTB", nullptr), (Levels{4, 4, 4, U, 4, 6}));

    EXPECT_EQ(tr_set_levels_1(""), TR_OK);
    EXPECT_EQ(tr_set_levels_1(nullptr), TR_E_ARGUMENT);
    EXPECT_EQ(tr_unregister_component_1("_RTB"), TR_OK);

    // Registering a name again moves the library to the new array; leaving
    // clears it.
    Levels b;
    b.fill(U);
    ASSERT_EQ(tr_register_component_1("_rta", b.data(), kCategories, 5), TR_OK);
    EXPECT_EQ(tr_set_levels_1("_RTA:Errors=7"), TR_OK);
    EXPECT_EQ(a[0], 0);
    EXPECT_EQ(b[0], 7);
    EXPECT_EQ(tr_unregister_component_1("_RTA"), TR_OK);
    EXPECT_EQ(b, (Levels{0, 0, 0, U, 0, 0}));
}

TEST(Registration, BadArguments) {
    Levels levels;
    levels.fill(U);
    std::string long_name(256, 'c');
    const tr_category_description negative[] = {{0, "A", 1, 0}, {-1, "B", 1, 0}};
    EXPECT_EQ(tr_register_component_1(nullptr, levels.data(), kCategories, 5), TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1("", levels.data(), kCategories, 5), TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1(long_name.c_str(), levels.data(), kCategories, 5), TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1("_BAD", nullptr, kCategories, 5), TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1("_BAD", levels.data(), nullptr, 5), TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1("_BAD", levels.data(), kCategories, -1), TR_E_ARGUMENT);
    EXPECT_EQ(tr_register_component_1("_BAD", levels.data(), negative, 2), TR_E_ARGUMENT);
    EXPECT_EQ(levels[0], U);  // nothing written on failure
    EXPECT_EQ(tr_unregister_component_1("_BAD"), TR_E_NOT_FOUND);
    EXPECT_EQ(tr_unregister_component_1(nullptr), TR_E_ARGUMENT);
    // No categories at all is a valid, if useless, registration.
    EXPECT_EQ(tr_register_component_1("_EMPTY", nullptr, nullptr, 0), TR_OK);
    EXPECT_EQ(tr_unregister_component_1("_EMPTY"), TR_OK);
    long_name.resize(255);
    EXPECT_EQ(tr_register_component_1(long_name.c_str(), levels.data(), kCategories, 1), TR_OK);
    EXPECT_EQ(tr_unregister_component_1(long_name.c_str()), TR_OK);
}

// ---- The file format and its reader ----

TEST(TraceFormat, KnownRecordBytes) {
    std::string rec = record_bytes("_T", 7, PayloadKind::strings, {std::string("a\0", 2)});
    EXPECT_EQ(qvtest::to_hex(reinterpret_cast<const uint8_t *>(rec.data()), rec.size()),
              "51565452" "00000034" "02" "02" "0000" "00000007" "00001092" "000010f7"
              "000000006b02c0a7" "075bcd15" "00000001" "5f54" "00000002" "6100"
              "b5a2432b");  // checksum as computed by zlib
    EXPECT_EQ(qvtest::to_hex(reinterpret_cast<const uint8_t *>(header_bytes().data()), 8), "5156544600000001");
}

// Damage anywhere costs only the bytes it touches: the reader reports where
// it starts and picks up the next whole record, whatever the chunking.
TEST(TraceReader, DamageIsReportedAndSkipped) {
    const std::string hdr = header_bytes();
    const std::string r1 = record_bytes("_A", 1, PayloadKind::none);
    const std::string r2 = record_bytes("_A", 2, PayloadKind::data, {"abcdef"});
    const std::string r3 = record_bytes("_A", 3, PayloadKind::strings, {std::string("s\0", 2)});
    std::string flipped = r2, long_length = r2;
    flipped[flipped.size() - 6] ^= 0x40;
    long_length[6] = 0x7f;  // length beyond what the file holds
    // A second item whose length field the record has no room for, under a
    // right checksum.
    std::string extra_item = r2;
    extra_item[39] = 2;
    qvtr::store_be32(reinterpret_cast<uint8_t *>(extra_item.data()) + extra_item.size() - 4,
                     qvtr::crc32({reinterpret_cast<const uint8_t *>(extra_item.data()), extra_item.size() - 4}));
    const std::string garbage = "QVTR\x00\x00\x00\x30garbage QVTF and more";
    const uint64_t at_r2 = hdr.size() + r1.size();
    struct Case {
        const char *name;
        std::string file;
        std::vector<uint32_t> ids;      // records read, in order
        std::vector<uint64_t> damaged;  // offsets reported
    } cases[] = {
        {"clean", hdr + r1 + r2 + r3, {1, 2, 3}, {}},
        {"empty file", "", {}, {}},
        {"truncated last record", hdr + r1 + r2 + r3.substr(0, r3.size() - 1), {1, 2}, {at_r2 + r2.size()}},
        {"truncated header", hdr.substr(0, 5), {}, {0}},
        {"garbage in the middle", hdr + r1 + garbage + r2 + r3, {1, 2, 3}, {at_r2}},
        {"flipped payload bit", hdr + r1 + flipped + r3, {1, 3}, {at_r2}},
        {"length past the end", hdr + r1 + long_length + r3, {1, 3}, {at_r2}},
        {"item count past the items", hdr + r1 + extra_item + r3, {1, 3}, {at_r2}},
        {"record cut short by the next", hdr + r1.substr(0, 20) + r2 + r3, {2, 3}, {hdr.size()}},
        {"second header between records", hdr + r1 + hdr + r2, {1, 2}, {}},
        {"no header", r1 + r2, {2}, {0}},
    };
    for (const Case &c : cases) {
        for (size_t chunk : {size_t(0), size_t(1), size_t(7), size_t(64)}) {
            SCOPED_TRACE(std::string(c.name) + " chunk " + std::to_string(chunk));
            std::vector<uint32_t> ids;
            std::vector<uint64_t> damaged;
            uint64_t count = 0;
            for (const Decoded &d : decode(c.file, chunk, &count)) {
                if (d.kind == Kind::record)
                    ids.push_back(d.id);
                if (d.kind == Kind::damage)
                    damaged.push_back(d.offset);
            }
            EXPECT_EQ(ids, c.ids);
            EXPECT_EQ(damaged, c.damaged);
            EXPECT_EQ(count, c.damaged.size());
        }
    }
}

// ---- The record routines ----

// They read QV_TRACE_FILE once per process, so each case runs in a child of
// its own, whose exit status is its first failed check.
TEST(RecordRoutines, UnsetOrUnusableFileDropsRecords) {
    qvtest::TempDir dir;
    const std::string link = dir.path() + "/link";
    ASSERT_EQ(symlink((dir.path() + "/target").c_str(), link.c_str()), 0);
    struct Case {
        const char *value;  // nullptr: unset
        int rc;
    } cases[] = {
        {nullptr, TR_OK},
        {"", TR_OK},
        {link.c_str(), TR_E_FILE},  // a planted link is not followed
        {"missing/trace", TR_E_FILE},
        {"/dev/full", TR_E_FILE},  // opened, but every write fails
    };
    for (const Case &c : cases) {
        int rc = run_in_child([&] {
            if (chdir(dir.path().c_str()) != 0)
                return 1;
            if (c.value)
                setenv("QV_TRACE_FILE", c.value, 1);
            else
                unsetenv("QV_TRACE_FILE");
            errno = 1234;
            if (tr_record_id_1("_N", 1) != c.rc || tr_record_data_1("_N", 2, 1, "ab", size_t{2}) != c.rc ||
                tr_record_strings_1("_N", 3, 1, "x") != c.rc)
                return 2;
            return errno == 1234 ? 0 : 3;
        });
        EXPECT_EQ(rc, 0) << (c.value ? c.value : "(unset)");
    }
    // Nothing created: neither a file nor the link's target.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST(RecordRoutines, TwoProcessesAppendEveryKind) {
    qvtest::TempDir dir;
    std::string path = dir.path() + "/t.trc", big(100000, 'b');
    struct timespec before;
    clock_gettime(CLOCK_REALTIME, &before);
    for (int run = 0; run < 2; ++run) {
        int rc = run_in_child([&] {
            setenv("QV_TRACE_FILE", path.c_str(), 1);
            uint32_t word = 0x0a0b0c0d;
            errno = 77;
            EXPECT_EQ(tr_record_id_1("_SEA", 11), TR_OK);
            EXPECT_EQ(errno, 77);
            EXPECT_EQ(tr_record_data_1("_SEA", 12, 3, &word, sizeof word, "", size_t{0}, big.data(), big.size()), TR_OK);
            EXPECT_EQ(tr_record_strings_1("_SEA", 13, 3, "sec_start", static_cast<const char *>(nullptr), ""), TR_OK);
            // Refused whole: nothing of these reaches the file.
            for (int rc : {tr_record_data_1("_SEA", 14, 1, static_cast<const void *>(nullptr), size_t{1}),
                           tr_record_id_1(nullptr, 1), tr_record_data_1("_SEA", 1, 0xFFFFFFFF),
                           tr_record_id_1(std::string(256, 'c').c_str(), 16)})
                EXPECT_EQ(rc, TR_E_ARGUMENT);
            // Not registered: written all the same.
            EXPECT_EQ(tr_record_strings_1("_NOT_REGISTERED", 15, 0), TR_OK);
            // The descriptor does not leak into programs the process runs.
            for (const auto &fd : std::filesystem::directory_iterator("/proc/self/fd")) {
                std::error_code ec;
                if (std::filesystem::read_symlink(fd.path(), ec) == path &&
                    !(fcntl(std::stoi(fd.path().filename()), F_GETFD) & FD_CLOEXEC))
                    ADD_FAILURE() << "no FD_CLOEXEC";
            }
            return testing::Test::HasFailure() ? 1 : 0;
        });
        ASSERT_EQ(rc, 0);
    }
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    auto events = decode(qvtest::read_file(path));
    ASSERT_EQ(events.size(), 9u);  // the second process found the file not empty: one header
    EXPECT_EQ(events[0].kind, Kind::header);
    auto shape = [](const Decoded &d) { return std::make_tuple(d.component, d.id, d.payload, d.items); };
    using Items = std::vector<std::string>;
    const decltype(shape(events[0])) want[] = {
        {"_SEA", 11, PayloadKind::none, {}},
        {"_SEA", 12, PayloadKind::data, Items{"\x0d\x0c\x0b\x0a", "", big}},
        {"_SEA", 13, PayloadKind::strings, Items{std::string("sec_start\0", 10), "", std::string(1, '\0')}},
        {"_NOT_REGISTERED", 15, PayloadKind::strings, {}},
    };
    for (size_t first : {1, 5}) {
        const Decoded *r = &events[first];
        for (size_t i = 0; i < std::size(want); ++i)
            EXPECT_EQ(shape(r[i]), want[i]) << "record " << first + i;
        // The child's own ids (its only thread's id is its process id) and time.
        EXPECT_NE(r[0].pid, uint32_t(getpid()));
        EXPECT_EQ(r[0].tid, r[0].pid);
        EXPECT_GE(r[0].seconds, uint64_t(before.tv_sec));
        EXPECT_LE(r[0].seconds, uint64_t(before.tv_sec) + 60);
    }
    EXPECT_NE(events[1].pid, events[5].pid);
}

// A write the file system cuts short (the file size limit here, a full disk
// elsewhere) and one that fails outright: the writer goes on, and the reader
// finds every whole record around the torn one.
TEST(RecordRoutines, ShortWriteCostsOnlyItsRecord) {
    qvtest::TempDir dir;
    std::string path = dir.path() + "/short.trc", big(100, 'x');
    int rc = run_in_child([&] {
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
    uint64_t damage = 0;
    std::vector<uint32_t> ids;
    for (const Decoded &d : records_of(decode(qvtest::read_file(path), 0, &damage)))
        ids.push_back(d.id);
    EXPECT_EQ(ids, (std::vector<uint32_t>{1, 4}));
    EXPECT_EQ(damage, 1u);
}

// ---- qvtrace ----

qvtest::ToolRun run_qvtrace(const std::vector<std::string> &args) { return qvtest::run_tool(QVTRACE_PATH, args); }

TEST(Qvtrace, PrintsOneLinePerRecordAndEachDamage) {
    qvtest::TempDir dir;
    const std::string garbage = "\x01\x02QVTR junk", r1 = record_bytes("_SEA", 11, PayloadKind::none, {}, 5);
    const std::string r2 = record_bytes("_SEA", 12, PayloadKind::data, {std::string("\x00\x00\x00\x0b", 4), "", "\xff\x10"});
    const std::string r3 = record_bytes("_SEA", 1, PayloadKind::strings,
                                        {std::string("sec_start\0", 10), "", std::string("t\tq\"\\\x01\xc3\xa9 end\0", 13)});
    const std::string r4 = record_bytes("a b\n", 0, PayloadKind::strings);
    const std::string torn = record_bytes("_SEA", 3, PayloadKind::data, {"abc"});
    std::string file = header_bytes() + r1 + r2 + garbage + r3 + header_bytes() + r4 + torn.substr(0, torn.size() - 2);
    const size_t garbage_at = 8 + r1.size() + r2.size(), torn_at = file.size() - torn.size() + 2;
    qvtest::ToolRun run = run_qvtrace({"--raw", dir.write("small.trc", file)});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out,
              "2026-11-22 10:15:03.000000005 UTC _SEA id=11 pid=4242 tid=4343\n"
              "2026-11-22 10:15:03.123456789 UTC _SEA id=12 pid=4242 tid=4343 0000000b (empty) ff10\n"
              "damaged record at offset " + std::to_string(garbage_at) + "\n"
              "2026-11-22 10:15:03.123456789 UTC _SEA id=1 pid=4242 tid=4343 \"sec_start\" (null) "
              "\"t\\tq\\\"\\\\\\x01\\xc3\\xa9 end\"\n"
              "2026-11-22 10:15:03.123456789 UTC a\\x20b\\n id=0 pid=4242 tid=4343\n"
              "damaged record at offset " + std::to_string(torn_at) + "\n");
    EXPECT_NE(run.err.find("2 damaged"), std::string::npos) << run.err;
}

std::string le(uint64_t v, size_t n) {
    std::string out;
    for (size_t i = 0; i < n; ++i) out += char(v >> (8 * i));
    return out;
}
const std::string kNul("\0", 1);

// The library's records by name, with mechanism mnemonics from the
// configuration; what does not fit its id's layout stays raw.
TEST(Qvtrace, NamesTheLibrarysRecords) {
    qvtest::TempDir dir;
    std::string cfg = dir.write("qvsec.cfg", "1 krb 65538 /x/krb.so i\n2 unix 81 /x/unix.so u\n");
    const std::string ptr = le(0x7ffe0010, 8), four = le(0x2000000, 4), rc3 = le(3, 4);
    const std::string list = std::string("\x81\x01\x00\x01\x00\x02\x00\x00\x00\x99", 10);
    const std::string ccdb = std::string("\x82\x02\x00\x00\x00\x51\x01\x01secret", 14);
    const std::string cidb = std::string("\x87\x01", 2) + std::string(7, '\0') + "\x05" +
                             std::string("\x00\x01\x00\x02\x00\x40\x00\x00", 8);
    struct Row {
        std::string comp;
        uint32_t id;
        PayloadKind kind;
        std::vector<std::string> items;
        const char *shown;  // after "pid=4242 tid=4343"
    } rows[] = {
        {"_SEA", 11, PayloadKind::none, {}, " sec_start entry"},
        {"_SEA", 12, PayloadKind::data, {ptr, four, le(0, 8)}, " sec_start entry st=0x7ffe0010 flags=0x2000000 stokenp=NULL"},
        {"_SEA", 64, PayloadKind::data, {rc3, le(8, 4), le(88, 4), le(0x10002, 4), "mpm_start\t" + kNul},
         " sec_start_sec_context exit rc=3 (module failure, see the status) maj=8 min=88 "
         "mech=krb(0x00010002) desc=\"mpm_start\\t\""},
        {"_SEA", 146, PayloadKind::strings, {"al ice" + kNul}, " sec_user_valid entry username=\"al ice\""},
        {"_SEA", 1, PayloadKind::strings, {"sec_create_acle" + kNul}, " sec_create_acle exit"},
        {"_SEA", 3, PayloadKind::data, {"", rc3}, " (null) exit rc=3 (module failure, see the status)"},
        {"_SEA", 4, PayloadKind::data, {"sec_x" + kNul, le(2, 4), le(0, 4), le(0, 4), le(0, 4), kNul},
         " sec_x exit rc=2 (complete, unauthenticated) maj=0 min=0 mech=none desc=\"\""},
        {"_SEA", 5, PayloadKind::data, {ccdb.substr(0, 4)}, " buffer head=\"CCDB\" v2"},
        {"_SEA", 6, PayloadKind::data, {le(10, 4), list},
         " buffer length=10 buffer=\"mechanism list\" v1 mechanisms=krb(0x00010002),0x00000099"},
        {"_SEA", 6, PayloadKind::data, {le(3, 4), list.substr(0, 3)}, " buffer length=3 buffer=\"mechanism list\" v1 mechanisms=(none) stray=1"},
        {"_SEA", 6, PayloadKind::data, {le(14, 4), ccdb}, " buffer length=14 buffer=\"CCDB\" v2 mech=unix(0x00000051) seq=1 flags=0x01 body=6"},
        {"_SEA", 6, PayloadKind::data, {le(7, 4), ccdb.substr(0, 7)}, " buffer length=7 buffer=\"CCDB\" cut short at 7 bytes"},
        {"_SEA", 6, PayloadKind::data, {le(6, 4), std::string("\x86\x02\x00\x00\x00\x00", 6)}, " buffer length=6 buffer=\"seal buffer\" v2 mech=none body=0"},
        {"_SEA", 6, PayloadKind::data, {le(18, 4), cidb},
         " buffer length=18 buffer=\"CIDB\" v1 node=0x0000000000000005 mech=krb(0x00010002) flags=0x00400000 length=18"},
        {"_SEA", 6, PayloadKind::data, {le(2, 4), "\x42\x01"}, " buffer length=2 buffer=untyped, 2 bytes"},
        {"_SEA", 6, PayloadKind::data, {le(0, 4), ""}, " buffer length=0 buffer=(empty)"},
        {"_SEA", 174, PayloadKind::data, {"krb" + kNul, le(0xbeef, 4), "/x/krb.so" + kNul, "no such" + kNul},
         " module load failed module=\"krb\" thread=0xbeef path=\"/x/krb.so\" error=\"no such\""},
        {"_SEA", 8, PayloadKind::none, {}, " bad context token"},
        // Not the layout of the id, an unknown id, another component: raw.
        {"_SEA", 12, PayloadKind::data, {ptr, le(1, 8), ptr}, " 1000fe7f00000000 0100000000000000 1000fe7f00000000"},
        {"_SEA", 5, PayloadKind::strings, {"abc" + kNul}, " \"abc\""},
        {"_XYZ", 11, PayloadKind::none, {}, ""},
    };
    std::string file = header_bytes(), expected;
    for (const Row &r : rows) {
        file += record_bytes(r.comp, r.id, r.kind, r.items);
        expected += "2026-11-22 10:15:03.123456789 UTC " + r.comp + " id=" + std::to_string(r.id) +
                    " pid=4242 tid=4343" + r.shown + "\n";
    }
    std::string trace = dir.write("named.trc", file);
    qvtest::ToolRun run = run_qvtrace({"--config", cfg, trace});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, expected);
    // Without the configuration the codes stand alone.
    run = run_qvtrace({"--config", dir.path() + "/none.cfg", trace});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("none.cfg: not a readable configuration file"), std::string::npos) << run.err;
    run = qvtest::run_tool(QVTRACE_PATH, {trace}, {{"QV_SEC_CONFIG", dir.path() + "/none.cfg"}});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("mechanisms=0x00010002,0x00000099\n"), std::string::npos) << run.out;
}

TEST(Qvtrace, UsageAndUnreadableFiles) {
    qvtest::TempDir dir;
    std::string newer = header_bytes();
    newer[7] = 9;
    struct Case {
        std::vector<std::string> args;
        int status;
        const char *out_starts;
        const char *err_has;
    } cases[] = {
        {{"--help"}, 0, "usage: qvtrace [--raw] [--config CFG] FILE\n", ""},
        {{}, 2, "", "usage: qvtrace"},
        {{dir.path() + "/missing"}, 2, "", "/missing: No such file or directory"},
        {{dir.write("newer.trc", newer)}, 2, "", "unsupported trace file version 9"},
        {{dir.write("text.txt", "plain text\n")}, 1, "damaged record at offset 0\n", "no trace file header at offset 0"},
        {{dir.write("empty.trc", "")}, 0, "", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.args.empty() ? "(no arguments)" : c.args[0]);
        qvtest::ToolRun run = run_qvtrace(c.args);
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

// ---- Allocation failure ----

// Every allocation of a routine fails in turn. A run ends in success or
// TR_E_NO_MEMORY; a failed run writes no level, keeps no setting and writes
// no byte of a record; nothing leaks. Names are long enough that copying
// them allocates.
constexpr const char *kLong = "_ALLOCATION_SWEEP_COMPONENT";

TEST(TrAllocFailure, LevelRoutines) {
    static Levels lv;
    const char *kChange = "_ALLOCATION_SWEEP_COMPONENT:Info=4;_ALLOCATION_SWEEP_OTHER:Errors=5";
    const char *kBack = "_ALLOCATION_SWEEP_COMPONENT:Info=0;_ALLOCATION_SWEEP_OTHER:Errors=0";
    // The registry and the capacity of its lists live for the process.
    auto warm = [kBack] {
        tr_register_component_1(kLong, lv.data(), kCategories, 5);
        register_with("_ALLOCATION_SWEEP_OTHER", kBack);
        tr_set_levels_1(kBack);
        tr_unregister_component_1("_ALLOCATION_SWEEP_OTHER");
        tr_unregister_component_1(kLong);
        lv.fill(U);
        setenv("QV_TRACE", "_ALLOCATION_SWEEP_COMPONENT:API=8,Buffer=3", 1);
    };
    qvtest::alloc_failure_sweep([] { return tr_register_component_1(kLong, lv.data(), kCategories, 5); },
                                [](int rc, bool) {
                                    Levels untouched;
                                    untouched.fill(U);
                                    EXPECT_EQ(lv, rc == TR_OK ? (Levels{0, 0, 8, U, 3, 6}) : untouched);
                                    EXPECT_EQ(tr_unregister_component_1(kLong), rc == TR_OK ? TR_OK : TR_E_NOT_FOUND);
                                    EXPECT_TRUE(rc == TR_OK || rc == TR_E_NO_MEMORY) << rc;
                                    lv.fill(U);
                                },
                                warm);
    unsetenv("QV_TRACE");
    ASSERT_EQ(tr_register_component_1(kLong, lv.data(), kCategories, 5), TR_OK);
    qvtest::alloc_failure_sweep([kChange] { return tr_set_levels_1(kChange); },
                                [kBack](int rc, bool) {
                                    // A failed change reaches neither the registered nor a later component.
                                    Levels other = register_with("_ALLOCATION_SWEEP_OTHER", nullptr);
                                    EXPECT_EQ(tr_unregister_component_1("_ALLOCATION_SWEEP_OTHER"), TR_OK);
                                    EXPECT_TRUE(rc == TR_OK || rc == TR_E_NO_MEMORY) << rc;
                                    EXPECT_EQ(lv[1], rc == TR_OK ? 4 : 0);
                                    EXPECT_EQ(other[0], rc == TR_OK ? 5 : 0);
                                    tr_set_levels_1(kBack);
                                });
    EXPECT_EQ(tr_unregister_component_1(kLong), TR_OK);
}

// Records: the file is opened first (it lives for the process), then the
// records that need the heap: a long payload and many strings.
TEST(TrAllocFailure, RecordRoutines) {
    if (!qvtest::failing_allocator_active())
        GTEST_SKIP() << "the failing allocator is not in use";
    qvtest::TempDir dir;
    const std::string path = dir.path() + "/sweep.trc", big(3000, 'b');
    int rc = run_in_child([&] {
        setenv("QV_TRACE_FILE", path.c_str(), 1);
        auto file_size = [&] {
            struct stat st {};
            stat(path.c_str(), &st);
            return st.st_size;
        };
        off_t size = 0;
        auto check = [&](int rc, bool) {
            off_t now = file_size();
            EXPECT_EQ(rc == TR_OK, now > size) << rc;
            EXPECT_TRUE(rc == TR_OK || rc == TR_E_NO_MEMORY) << rc;
            size = now;
        };
        qvtest::alloc_failure_sweep([&] { return tr_record_data_1(kLong, 1, 2, big.data(), big.size(), "x", size_t{1}); },
                                    check, [&] {
                                        tr_record_id_1(kLong, 0);
                                        size = file_size();
                                    });
        qvtest::alloc_failure_sweep(
            [] {
                return tr_record_strings_1(kLong, 2, 17, "a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m",
                                           "n", "o", "p", "q");
            },
            check);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(rc, 0);
    uint64_t damage = 9;
    std::vector<uint32_t> ids;
    for (const Decoded &d : records_of(decode(qvtest::read_file(path), 0, &damage)))
        ids.push_back(d.id);
    EXPECT_EQ(ids, (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(damage, 0u);
}

}  // namespace
