// The trace file: records encoded and read back, damage found and skipped by
// the reader, and the file that the record routines write.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "internal.h"
#include "qv_tr.h"
#include "child_process.h"
#include "test_support.h"
#include "trace_test_util.h"

namespace {

using qvtr::Item;
using qvtr::PayloadKind;
using qvtr::RecordHeader;
using trtest::decode;
using trtest::records_of;
using Kind = qvtr::TraceEvent::Kind;

std::string header_bytes() {
    std::string out(qvtr::kFileHeaderSize, '\0');
    qvtr::encode_file_header(std::span(reinterpret_cast<uint8_t *>(out.data()), out.size()));
    return out;
}

std::string record_bytes(const RecordHeader &h, const std::vector<std::string> &items) {
    std::vector<Item> list;
    for (const std::string &s : items)
        list.push_back({reinterpret_cast<const uint8_t *>(s.data()), s.size()});
    size_t size = qvtr::encoded_record_size(h.component, list);
    EXPECT_NE(size, 0u);
    std::string out(size, '\0');
    qvtr::encode_record(std::span(reinterpret_cast<uint8_t *>(out.data()), size), h, list);
    return out;
}

RecordHeader make_header(std::string_view comp, uint32_t id, PayloadKind kind) {
    RecordHeader h;
    h.component = comp;
    h.id = id;
    h.pid = 4242;
    h.tid = 4343;
    h.seconds = 1795342503;
    h.nanoseconds = 123456789;
    h.kind = kind;
    return h;
}

TEST(TraceFormat, Crc32KnownAnswer) {
    const std::string check = "123456789";
    EXPECT_EQ(qvtr::crc32({reinterpret_cast<const uint8_t *>(check.data()), check.size()}),
              0xCBF43926u);
    EXPECT_EQ(qvtr::crc32({}), 0u);
}

TEST(TraceFormat, KnownRecordBytes) {
    std::string rec = record_bytes(make_header("_T", 7, PayloadKind::strings), {std::string("a\0", 2)});
    EXPECT_EQ(qvtest::to_hex(reinterpret_cast<const uint8_t *>(rec.data()), rec.size()),
              "51565452" "00000034" "02" "02" "0000" "00000007" "00001092" "000010f7"
              "000000006b02c0a7" "075bcd15" "00000001" "5f54" "00000002" "6100"
              "b5a2432b");  // checksum as computed by zlib
    EXPECT_EQ(qvtest::to_hex(reinterpret_cast<const uint8_t *>(header_bytes().data()), 8),
              "5156544600000001");
}

TEST(TraceFormat, RoundTripEveryPayloadKind) {
    std::string big(1 << 20, '\0');
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = char(i * 131 + 7);
    const std::string long_name(255, 'n');
    struct Case {
        std::string comp;
        uint32_t id;
        PayloadKind kind;
        std::vector<std::string> items;
    } cases[] = {
        {"_SEA", 11, PayloadKind::none, {}},
        {"_SEA", 12, PayloadKind::data, {}},
        {"_SEA", 0xFFFFFFFF, PayloadKind::data, {"", std::string("\0\x01\xff", 3), "xyz"}},
        {"_SEA", 1, PayloadKind::strings, {std::string("sec_start\0", 10), "", std::string("\0", 1)}},
        {"_SEA", 6, PayloadKind::data, {big, "tail"}},
        {long_name, 2, PayloadKind::strings, {std::string("x\0", 2)}},
    };
    std::string file = header_bytes();
    for (const Case &c : cases)
        file += record_bytes(make_header(c.comp, c.id, c.kind), c.items);

    for (size_t chunk : {size_t(0), size_t(1000), size_t(65536)}) {
        SCOPED_TRACE(chunk);
        uint64_t damage = 99;
        auto events = decode(file, chunk, &damage);
        EXPECT_EQ(damage, 0u);
        ASSERT_EQ(events.size(), std::size(cases) + 1);
        EXPECT_EQ(events[0].kind, Kind::header);
        for (size_t i = 0; i < std::size(cases); ++i) {
            const auto &d = events[i + 1];
            EXPECT_EQ(d.kind, Kind::record);
            EXPECT_EQ(d.component, cases[i].comp);
            EXPECT_EQ(d.id, cases[i].id);
            EXPECT_EQ(d.payload, cases[i].kind);
            EXPECT_EQ(d.items, cases[i].items);
            EXPECT_EQ(d.pid, 4242u);
            EXPECT_EQ(d.tid, 4343u);
            EXPECT_EQ(d.seconds, 1795342503u);
            EXPECT_EQ(d.nanoseconds, 123456789u);
        }
    }
}

TEST(TraceFormat, SizeLimits) {
    std::vector<Item> none;
    EXPECT_EQ(qvtr::encoded_record_size("", none), 0u);
    EXPECT_EQ(qvtr::encoded_record_size(std::string(256, 'c'), none), 0u);
    EXPECT_EQ(qvtr::encoded_record_size("C", none), qvtr::kMinRecordSize);
    static const uint8_t byte = 0;
    // The largest item that fits exactly, and one byte more.
    size_t room = qvtr::kMaxRecordSize - qvtr::kMinRecordSize - qvtr::kItemLengthSize;
    std::vector<Item> fits{{&byte, room}};
    std::vector<Item> too_big{{&byte, room + 1}};
    std::vector<Item> wraps{{&byte, 8}, {&byte, SIZE_MAX - 4}};
    EXPECT_EQ(qvtr::encoded_record_size("C", fits), qvtr::kMaxRecordSize);
    EXPECT_EQ(qvtr::encoded_record_size("C", too_big), 0u);
    EXPECT_EQ(qvtr::encoded_record_size("C", wraps), 0u);
}

// Damage anywhere costs only the bytes it touches: the reader reports where
// it starts and picks up the next whole record, whatever the chunking.
TEST(TraceReader, DamageIsReportedAndSkipped) {
    const std::string hdr = header_bytes();
    const std::string r1 = record_bytes(make_header("_A", 1, PayloadKind::none), {});
    const std::string r2 = record_bytes(make_header("_A", 2, PayloadKind::data), {"abcdef"});
    const std::string r3 = record_bytes(make_header("_A", 3, PayloadKind::strings), {std::string("s\0", 2)});
    std::string flipped = r2;
    flipped[flipped.size() - 6] ^= 0x40;
    std::string bad_kind = r2;
    bad_kind[8] = 7;
    std::string long_length = r2;
    long_length[6] = 0x7f;  // length beyond what the file holds
    const std::string garbage = "QVTR\x00\x00\x00\x30garbage QVTF and more";
    struct Case {
        const char *name;
        std::string file;
        std::vector<uint32_t> ids;       // records read, in order
        std::vector<uint64_t> damaged;   // offsets reported
    } cases[] = {
        {"clean", hdr + r1 + r2 + r3, {1, 2, 3}, {}},
        {"empty file", "", {}, {}},
        {"header only", hdr, {}, {}},
        {"truncated last record", hdr + r1 + r2 + r3.substr(0, r3.size() - 1), {1, 2},
         {hdr.size() + r1.size() + r2.size()}},
        {"only the magic of the last record", hdr + r1 + r2.substr(0, 4), {1}, {hdr.size() + r1.size()}},
        {"truncated header", hdr.substr(0, 5), {}, {0}},
        {"garbage in the middle", hdr + r1 + garbage + r2 + r3, {1, 2, 3}, {hdr.size() + r1.size()}},
        {"flipped payload bit", hdr + r1 + flipped + r3, {1, 3}, {hdr.size() + r1.size()}},
        {"unknown payload kind", hdr + r1 + bad_kind + r3, {1, 3}, {hdr.size() + r1.size()}},
        {"length past the end", hdr + r1 + long_length + r3, {1, 3}, {hdr.size() + r1.size()}},
        {"record cut short by the next", hdr + r1.substr(0, 20) + r2 + r3, {2, 3}, {hdr.size()}},
        {"second header between records", hdr + r1 + hdr + r2, {1, 2}, {}},
        {"no header", r1 + r2, {2}, {0}},
        {"damage at both ends", garbage + hdr + r1 + r2.substr(0, 9), {1},
         {0, garbage.size() + hdr.size() + r1.size()}},
    };
    for (const Case &c : cases) {
        for (size_t chunk : {size_t(0), size_t(1), size_t(7), size_t(64)}) {
            SCOPED_TRACE(std::string(c.name) + " chunk " + std::to_string(chunk));
            std::vector<uint32_t> ids;
            std::vector<uint64_t> damaged;
            uint64_t count = 0;
            for (const auto &d : decode(c.file, chunk, &count)) {
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

TEST(TraceFile, WritesHeaderOnceAndWholeRecords) {
    qvtest::TempDir dir;
    std::string path = dir.path() + "/trace";
    struct timespec before;
    clock_gettime(CLOCK_REALTIME, &before);
    {
        qvtr::TraceFile file(path);
        ASSERT_TRUE(file.is_open());
        static const uint8_t data[] = {1, 2, 3};
        std::vector<Item> items{{data, 3}};
        EXPECT_EQ(file.write_record("_W", 1, PayloadKind::data, items), TR_OK);
        EXPECT_EQ(file.write_record("", 2, PayloadKind::none, {}), TR_E_ARGUMENT);
    }
    {
        qvtr::TraceFile again(path);  // the file is not empty: no second header
        EXPECT_EQ(again.write_record("_W", 3, PayloadKind::none, {}), TR_OK);
    }
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    auto events = decode(qvtest::read_file(path));
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].kind, Kind::header);
    EXPECT_EQ(events[1].id, 1u);
    EXPECT_EQ(events[1].items, (std::vector<std::string>{"\x01\x02\x03"}));
    EXPECT_EQ(events[1].pid, uint32_t(getpid()));
    EXPECT_EQ(events[1].tid, uint32_t(gettid()));
    EXPECT_GE(events[1].seconds, uint64_t(before.tv_sec));
    EXPECT_LE(events[1].seconds, uint64_t(before.tv_sec) + 60);
    EXPECT_EQ(events[2].id, 3u);

    qvtr::TraceFile unusable(dir.path() + "/missing/trace");
    EXPECT_FALSE(unusable.is_open());
    EXPECT_EQ(unusable.write_record("_W", 1, PayloadKind::none, {}), TR_E_FILE);
}

// The record routines read QV_TRACE_FILE once per process, so each case runs
// in a child of its own. The child's exit status is its first failed check.
using qvtest::run_in_child;

TEST(RecordRoutines, NoFileWithoutQvTraceFile) {
    qvtest::TempDir dir;
    for (const char *value : {static_cast<const char *>(nullptr), ""}) {
        int rc = run_in_child([&] {
            if (chdir(dir.path().c_str()) != 0)
                return 1;
            if (value)
                setenv("QV_TRACE_FILE", value, 1);
            else
                unsetenv("QV_TRACE_FILE");
            errno = 1234;
            if (tr_record_id_1("_N", 1) != TR_OK || errno != 1234)
                return 2;
            if (tr_record_data_1("_N", 2, 1, "ab", size_t{2}) != TR_OK)
                return 3;
            if (tr_record_strings_1("_N", 3, 1, "x") != TR_OK)
                return 4;
            return 0;
        });
        EXPECT_EQ(rc, 0);
        EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    }
}

TEST(RecordRoutines, WriteEveryKindToQvTraceFile) {
    qvtest::TempDir dir;
    std::string path = dir.path() + "/t.trc";
    std::string big(100000, 'b');
    int rc = run_in_child([&] {
        setenv("QV_TRACE_FILE", path.c_str(), 1);
        uint32_t word = 0x0a0b0c0d;
        errno = 77;
        if (tr_record_id_1("_SEA", 11) != TR_OK || errno != 77)
            return 1;
        if (tr_record_data_1("_SEA", 12, 3, &word, sizeof word, "", size_t{0}, big.data(),
                             big.size()) != TR_OK)
            return 2;
        if (tr_record_strings_1("_SEA", 13, 3, "sec_start", static_cast<const char *>(nullptr),
                                "") != TR_OK)
            return 3;
        if (tr_record_data_1("_SEA", 14, 1, static_cast<const void *>(nullptr), size_t{1}) !=
            TR_E_ARGUMENT)
            return 4;
        if (tr_record_id_1(nullptr, 1) != TR_E_ARGUMENT ||
            tr_record_data_1("_SEA", 1, 0xFFFFFFFF) != TR_E_ARGUMENT)
            return 5;
        // Not registered: written all the same.
        if (tr_record_strings_1("_NOT_REGISTERED", 15, 0) != TR_OK)
            return 6;
        if (tr_record_id_1(std::string(256, 'c').c_str(), 16) != TR_E_ARGUMENT)
            return 7;
        // The descriptor does not leak into programs the process runs.
        for (const auto &fd : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ec;
            if (std::filesystem::read_symlink(fd.path(), ec) == path &&
                !(fcntl(std::stoi(fd.path().filename()), F_GETFD) & FD_CLOEXEC))
                return 8;
        }
        return 0;
    });
    ASSERT_EQ(rc, 0);
    auto records = records_of(decode(qvtest::read_file(path)));
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].id, 11u);
    EXPECT_EQ(records[0].payload, PayloadKind::none);
    EXPECT_EQ(records[1].payload, PayloadKind::data);
    EXPECT_EQ(records[1].items, (std::vector<std::string>{"\x0d\x0c\x0b\x0a", "", big}));
    EXPECT_EQ(records[2].payload, PayloadKind::strings);
    EXPECT_EQ(records[2].items,
              (std::vector<std::string>{std::string("sec_start\0", 10), "", std::string(1, '\0')}));
    EXPECT_EQ(records[3].component, "_NOT_REGISTERED");
    EXPECT_TRUE(records[3].items.empty());
}

// A link planted where the trace file is expected is not followed: the
// records are dropped and the file it points to is not created.
TEST(RecordRoutines, SymbolicLinkIsNotFollowed) {
    qvtest::TempDir dir;
    std::string target = dir.path() + "/target", link = dir.path() + "/trace";
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    int rc = run_in_child([&] {
        setenv("QV_TRACE_FILE", link.c_str(), 1);
        return tr_record_id_1("_SEA", 1) == TR_E_FILE ? 0 : 1;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_FALSE(std::filesystem::exists(target));
}

}  // namespace
