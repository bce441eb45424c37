#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <utime.h>
#include <vector>

#include "child_process.h"
#include "config.h"
#include "errors.h"
#include "library_init.h"
#include "sec_test_util.h"
#include "test_support.h"

namespace {

struct Rec {
    qv_uint32_t priority;
    std::string name;
    qv_uint32_t code;
    std::string path;
    qv_uint32_t flags;
    bool operator==(const Rec &) const = default;
};

std::vector<Rec> records() {
    std::vector<Rec> out;
    for (sec_config_rec_t r = SEC_STATE.config.cfg_recs; r; r = r->next)
        out.push_back({r->priority, r->name, r->code, r->path, r->flags});
    return out;
}


class ConfigReader : public ::testing::Test {
protected:
    void SetUp() override {
        sec_init_once();
        saved_fname_ = SEC_STATE.config.fname;
        reset();
    }
    void TearDown() override {
        reset();
        if (SEC_STATE.config.fname != saved_fname_) free(SEC_STATE.config.fname);
        SEC_STATE.config.fname = saved_fname_;
    }
    void reset() {
        sec__free_config_recs(SEC_STATE.config.cfg_recs);
        SEC_STATE.config.cfg_recs = nullptr;
        SEC_STATE.config.count = 0;
        SEC_STATE.config.rtime = 0;
    }
    void use_file(const std::string &contents) {
        std::string path = dir_.write("qvsec.cfg", contents);
        if (SEC_STATE.config.fname != saved_fname_) free(SEC_STATE.config.fname);
        SEC_STATE.config.fname = strdup(path.c_str());
    }
    // Sets the file's modification time relative to now.
    void set_mtime(time_t when) {
        struct utimbuf t{when, when};
        ASSERT_EQ(utime(SEC_STATE.config.fname, &t), 0);
    }
    qvtest::TempDir dir_;
    char *saved_fname_ = nullptr;
};

struct Case {
    const char *what;
    const char *text;
    int rc;
    int message;  // -1: none
    std::vector<Rec> recs;
};

const Case kCases[] = {
    {"one record with flags", "1 unix 0x1 /lib/unix.so i\n", 0, -1, {{1, "unix", 1, "/lib/unix.so", 1}}},
    {"octal and hex numbers", "010 krb 0x0A /k.so U\n", 0, -1, {{8, "krb", 10, "/k.so", 2}}},
    {"path ended by a blank", "3 a 7 /a.so \n", 0, -1, {{3, "a", 7, "/a.so", 0}}},
    {"path ended by a tab", "3\ta\t7\t/a.so\t\n", 0, -1, {{3, "a", 7, "/a.so", 0}}},
    {"runs of blanks and tabs", "  3 \t a  \t7   /a.so   iu  trailing words\n", 0, -1, {{3, "a", 7, "/a.so", 3}}},
    {"flags x i u", "1 a 1 /a xiu\n", 0, -1, {{1, "a", 1, "/a", 3}}},
    {"flags other letters ignored", "1 a 1 /a zzz\n", 0, -1, {{1, "a", 1, "/a", 0}}},
    {"hash inside a record is ordinary", "1 a#b 1 /p#q i\n", 0, -1, {{1, "a#b", 1, "/p#q", 1}}},
    {"comments and blank lines", "# head\n\n   # indented\n1 a 1 /a i\n\n# tail\n", 0, -1, {{1, "a", 1, "/a", 1}}},
    {"only comments", "# nothing\n# configured\n", 0, -1, {}},
    {"file order kept, not priority order", "9 z 3 /z i\n1 a 4 /a i\n", 0, -1,
     {{9, "z", 3, "/z", 1}, {1, "a", 4, "/a", 1}}},
    {"last record without newline", "1 a 1 /a i", 0, -1, {{1, "a", 1, "/a", 1}}},
    {"number truncated to 32 bits", "1 a 0x1ffffffff /a i\n", 0, -1, {{1, "a", 0xffffffff, "/a", 1}}},
    {"empty file", "", 21, MSG_2650_019, {}},
    {"only white space", " \n\t\n", 21, MSG_2650_019, {}},
    {"path last on its line", "1 a 1 /a.so\n2 b 2 /b.so i\n", 21, MSG_2650_019, {}},
    {"path last in the file", "1 a 1 /a.so", 21, MSG_2650_019, {}},
    {"priority 08 is bad octal", "08 a 1 /a i\n", 21, MSG_2650_019, {}},
    {"mnemonic must start with a letter", "1 9a 1 /a i\n", 21, MSG_2650_019, {}},
    {"code not a number", "1 a x1 /a i\n", 21, MSG_2650_019, {}},
    {"code out of range", "1 a 0x1ffffffffffffffff /a i\n", 21, MSG_2650_019, {}},
    {"record starts with punctuation", "-1 a 1 /a i\n", 21, MSG_2650_019, {}},
    {"bad record after good one", "1 a 1 /a i\n!\n", 21, MSG_2650_019, {}},
    {"three fields", "1 a 1 \n", 21, MSG_2650_019, {}},
    {"same code 0x1 and 01", "1 a 0x1 /a i\n2 b 01 /b i\n", 21, MSG_2650_085, {}},
    {"same mnemonic", "1 a 1 /a i\n2 a 2 /b i\n", 21, MSG_2650_085, {}},
    {"same priority", "5 a 1 /a i\n5 b 2 /b i\n", 21, MSG_2650_084, {}},
};

TEST_F(ConfigReader, AcceptsAndRejects) {
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        reset();
        use_file(c.text);
        cu_set_no_error_1();
        EXPECT_EQ(static_cast<int>(sec__read_config()), c.rc);
        EXPECT_EQ(last_message(), c.message);
        EXPECT_EQ(records(), c.recs);
        if (c.rc == 0) {
            EXPECT_EQ(SEC_STATE.config.count, static_cast<int>(c.recs.size()));
            EXPECT_NE(SEC_STATE.config.rtime, 0);
        } else {
            EXPECT_EQ(SEC_STATE.config.rtime, 0);
        }
    }
}

TEST_F(ConfigReader, DuplicateMessageArguments) {
    use_file("1 a 0x1 /a i\n2 b 01 /b i\n");
    ASSERT_EQ(sec__read_config(), 21u);
    EXPECT_EQ(last_error_text(),
              "2650-085 libqv_sec: configuration error: the MPM defined with mnemonic b\n"
              "\tand code 0x00000001 has the same mnemonic or code as the MPM defined with\n"
              "\tmnemonic a and code 0x00000001.\n");
    // The record accepted before the conflict is counted but not returned.
    EXPECT_EQ(SEC_STATE.config.count, 1);
    EXPECT_EQ(SEC_STATE.config.cfg_recs, nullptr);
}

TEST_F(ConfigReader, SamePriorityMessage) {
    use_file("5 a 1 /a i\n5 b 2 /b i\n");
    ASSERT_EQ(sec__read_config(), 21u);
    EXPECT_EQ(last_error_text(),
              "2650-084 libqv_sec: configuration error: the MPM defined with mnemonic b\n"
              "\tand code 0x00000002 has the same priority as the MPM defined with mnemonic a\n"
              "\tand code 0x00000001: 5\n");
}

TEST_F(ConfigReader, MissingFile) {
    free(SEC_STATE.config.fname);
    SEC_STATE.config.fname = strdup((dir_.path() + "/absent.cfg").c_str());
    EXPECT_EQ(sec__read_config(), 21u);
    EXPECT_EQ(last_message(), MSG_2650_019);
}

TEST_F(ConfigReader, RereadOnlyAfterLaterModification) {
    use_file("1 a 1 /a i\n");
    time_t now = time(nullptr);
    set_mtime(now - 100);
    ASSERT_EQ(sec__read_config(), 0u);
    ASSERT_GE(SEC_STATE.config.rtime, now);

    // Changed, but stamped no later than the last read: not read again.
    use_file("1 b 2 /b i\n");
    set_mtime(SEC_STATE.config.rtime);
    ASSERT_EQ(sec__read_config(), 0u);
    EXPECT_EQ(records(), (std::vector<Rec>{{1, "a", 1, "/a", 1}}));

    // Modified after the last read: the new records replace the old ones.
    set_mtime(SEC_STATE.config.rtime + 1);
    ASSERT_EQ(sec__read_config(), 0u);
    EXPECT_EQ(records(), (std::vector<Rec>{{1, "b", 2, "/b", 1}}));
}

TEST_F(ConfigReader, FailedRereadKeepsOldRecords) {
    use_file("1 a 1 /a i\n");
    ASSERT_EQ(sec__read_config(), 0u);
    qv_int32_t rtime = SEC_STATE.config.rtime;
    use_file("1 a 1 /a\n");
    set_mtime(rtime + 5);
    EXPECT_EQ(sec__read_config(), 21u);
    EXPECT_EQ(records(), (std::vector<Rec>{{1, "a", 1, "/a", 1}}));
    EXPECT_EQ(SEC_STATE.config.count, 1);
    EXPECT_EQ(SEC_STATE.config.rtime, rtime);
    // And it is tried again on the next call.
    use_file("1 a 1 /a i\n2 b 2 /b u\n");
    set_mtime(rtime + 6);
    EXPECT_EQ(sec__read_config(), 0u);
    EXPECT_EQ(SEC_STATE.config.count, 2);
}

// The size a caller took from the name a moment earlier may belong to a file
// that has since been replaced: the file is read whole as it was opened,
// never cut to a prefix of the new one, nor refused for having shrunk.
TEST_F(ConfigReader, ReadsTheOpenedFileWhateverSizeWasSeenBefore) {
    const std::string text = "1 a 1 /a i\n2 b 2 /b u\n";
    use_file(text);
    const std::vector<Rec> both{{1, "a", 1, "/a", 1}, {2, "b", 2, "/b", 2}};
    for (qv_int32_t seen : {11, static_cast<qv_int32_t>(text.size()) + 40}) {
        SCOPED_TRACE(seen);
        sec_config_rec_t recs = nullptr;
        qv_int32_t count = 0;
        ASSERT_EQ(sec__read_config_file(seen, &recs, &count), 0u);
        std::swap(recs, SEC_STATE.config.cfg_recs);
        EXPECT_EQ(records(), both);
        EXPECT_EQ(count, 2);
        reset();
    }
}

// A FIFO has nothing to read: refused at once, not waited on for a writer.
TEST_F(ConfigReader, FifoIsRefusedWithoutWaiting) {
    std::string fifo = dir_.path() + "/fifo.cfg";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    int rc = qvtest::run_in_child(
        [&] {
            SEC_STATE.config.fname = strdup(fifo.c_str());  // the child's copy; it exits
            return static_cast<int>(sec__read_config());
        },
        std::chrono::seconds(10));
    EXPECT_EQ(rc, 21);
}

TEST_F(ConfigReader, MarksEntriesNotConfigured) {
    use_file("1 a 1 /a i\n");
    SEC_STATE.mpms.count = 2;
    SEC_STATE.mpms.entries[0].state = SEC_MPM_S_RESERVED;
    SEC_STATE.mpms.entries[1].state = SEC_MPM_S_RESERVED | SEC_MPM_S_LOADED;
    ASSERT_EQ(sec__read_config(), 0u);
    EXPECT_EQ(SEC_STATE.mpms.entries[0].state, SEC_MPM_S_RESERVED | SEC_MPM_S_NOT_CONFIGURED);
    EXPECT_EQ(SEC_STATE.mpms.entries[1].state, SEC_MPM_S_RESERVED | SEC_MPM_S_LOADED | SEC_MPM_S_NOT_CONFIGURED);
    EXPECT_EQ(SEC_STATE.mpms.entries[2].state, 0u);
    SEC_STATE.mpms = sec_mpm_desc{};
}

TEST(ConfigRecord, GetRecordCursor) {
    char text[] = "  \n# c\n\n  1 a 1 /a i\n\n";
    char *cursor = text, *next = nullptr;
    ASSERT_EQ(sec__get_config_rec(&cursor, &next), 0u);
    EXPECT_STREQ(cursor, "# c");
    cursor = next;
    ASSERT_EQ(sec__get_config_rec(&cursor, &next), 0u);
    EXPECT_STREQ(cursor, "1 a 1 /a i");
    EXPECT_EQ(next, nullptr);

    char *none = nullptr;
    next = text;
    EXPECT_EQ(sec__get_config_rec(&none, &next), 0u);
    EXPECT_EQ(next, nullptr);

    char bad[] = "\n\n*";
    cursor = bad;
    EXPECT_EQ(sec__get_config_rec(&cursor, &next), 21u);
    EXPECT_EQ(cursor, nullptr);
}

}  // namespace
