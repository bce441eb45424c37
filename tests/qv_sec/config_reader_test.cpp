// The configuration file reader: what each line gives or why the file is
// refused, when the file is read again, and files that are not regular.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <utime.h>

#include <ctime>
#include <string>
#include <vector>

#include "child_process.h"
#include "config.h"
#include "messages.h"
#include "mpm_test_fixture.h"

namespace {

using qvtest::current_error_args;
using qvtest::last_message;

struct Rec {
    qv_uint32_t priority;
    std::string name;
    qv_uint32_t code;
    std::string path;
    qv_uint32_t flags;
    bool operator==(const Rec &) const = default;
};

std::vector<Rec> records(sec_config_rec_t r = SEC_STATE.config.cfg_recs) {
    std::vector<Rec> out;
    for (; r; r = r->next) out.push_back({r->priority, r->name, r->code, r->path, r->flags});
    return out;
}

class ConfigReader : public qvtest::MpmFixture {
protected:
    // Sets the file's modification time.
    void set_mtime(time_t when) {
        struct utimbuf t{when, when};
        ASSERT_EQ(utime(SEC_STATE.config.fname, &t), 0);
    }
};

// A refusal has one row per rule here; more lines that one rule refuses
// (bad octal, a number out of range, punctuation first, a path last on its
// line) are the configuration-check fuzzer's seeds, where the library must
// refuse exactly the lines that the tool's own diagnosis finds wrong.
TEST_F(ConfigReader, AcceptsAndRejects) {
    struct Case {
        const char *what;
        const char *text;
        int rc;
        int message;  // -1: none
        std::vector<Rec> recs;
        const char *args = "";
    } cases[] = {
        {"one record with flags", "1 unix 0x1 /lib/unix.so i\n", 0, -1, {{1, "unix", 1, "/lib/unix.so", 1}}},
        {"octal and hex numbers", "010 krb 0x0A /k.so U\n", 0, -1, {{8, "krb", 10, "/k.so", 2}}},
        {"runs of blanks and tabs", "  3 \t a  \t7   /a.so   iu  trailing words\n", 0, -1, {{3, "a", 7, "/a.so", 3}}},
        {"flags x I u", "1 a 1 /a xIu\n", 0, -1, {{1, "a", 1, "/a", 3}}},
        {"hash inside a record is ordinary", "1 a#b 1 /p#q zzz\n", 0, -1, {{1, "a#b", 1, "/p#q", 0}}},
        {"comments and blank lines", "# head\n\n   # indented\n1 a 1 /a i\n\n# tail\n", 0, -1, {{1, "a", 1, "/a", 1}}},
        {"only comments", "# nothing\n# configured\n", 0, -1, {}},
        {"file order kept, not priority order", "9 z 3 /z i\n1 a 4 /a i", 0, -1,
         {{9, "z", 3, "/z", 1}, {1, "a", 4, "/a", 1}}},
        {"number truncated to 32 bits", "1 a 0x1ffffffff /a i\n", 0, -1, {{1, "a", 0xffffffff, "/a", 1}}},
        {"empty file", "", 21, MSG_2650_019, {}},
        {"path last in the file", "1 a 1 /a.so", 21, MSG_2650_019, {}},
        {"mnemonic must start with a letter", "1 9a 1 /a i\n", 21, MSG_2650_019, {}},
        {"code not a number", "1 a x1 /a i\n", 21, MSG_2650_019, {}},
        {"bad record after good one", "1 a 1 /a i\n!\n", 21, MSG_2650_019, {}},
        {"three fields", "1 a 1 \n", 21, MSG_2650_019, {}},
        {"same code 0x1 and 01", "1 a 0x1 /a i\n2 b 01 /b i\n", 21, MSG_2650_085, {}, "b,1,a,1"},
        {"same mnemonic", "1 a 1 /a i\n2 a 2 /b i\n", 21, MSG_2650_085, {}, "a,2,a,1"},
        {"same priority", "5 a 1 /a i\n5 b 2 /b i\n", 21, MSG_2650_084, {}, "b,2,a,1,5"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        configure(c.text);
        cu_set_no_error_1();
        EXPECT_EQ(static_cast<int>(sec__read_config()), c.rc);
        EXPECT_EQ(last_message(), c.message);
        EXPECT_EQ(current_error_args(), c.args);
        EXPECT_EQ(records(), c.recs);
        // A record accepted before a duplicate is counted but not returned.
        if (c.rc == 0 || c.message == MSG_2650_085) {
            EXPECT_EQ(SEC_STATE.config.count, static_cast<int>(c.recs.size()) + (c.rc != 0));
        }
        EXPECT_EQ(SEC_STATE.config.rtime != 0, c.rc == 0);
    }
    configure("");
    free(SEC_STATE.config.fname);
    SEC_STATE.config.fname = strdup((dir_.path() + "/absent.cfg").c_str());
    EXPECT_EQ(sec__read_config(), 21u);
    EXPECT_EQ(last_message(), MSG_2650_019);
}

TEST_F(ConfigReader, RereadOnlyAfterLaterModification) {
    const std::vector<Rec> a{{1, "a", 1, "/a", 1}}, ab{{1, "a", 1, "/a", 1}, {2, "b", 2, "/b", 2}};
    configure("1 a 1 /a i\n");
    time_t now = time(nullptr);
    set_mtime(now - 100);
    ASSERT_EQ(sec__read_config(), 0u);
    const qv_int32_t rtime = SEC_STATE.config.rtime;
    ASSERT_GE(rtime, now);

    // Changed, but stamped no later than the last read: not read again.
    dir_.write("qvsec.cfg", "1 b 2 /b i\n");
    set_mtime(rtime);
    ASSERT_EQ(sec__read_config(), 0u);
    EXPECT_EQ(records(), a);

    // A failed reread keeps the old records and is tried again next time.
    dir_.write("qvsec.cfg", "1 a 1 /a\n");
    set_mtime(rtime + 5);
    EXPECT_EQ(sec__read_config(), 21u);
    EXPECT_EQ(records(), a);
    EXPECT_EQ(SEC_STATE.config.count, 1);
    EXPECT_EQ(SEC_STATE.config.rtime, rtime);
    dir_.write("qvsec.cfg", "1 a 1 /a i\n2 b 2 /b u\n");
    set_mtime(rtime + 6);
    EXPECT_EQ(sec__read_config(), 0u);
    EXPECT_EQ(records(), ab);
    EXPECT_EQ(SEC_STATE.config.count, 2);

    // The size a caller took from the name a moment earlier may belong to a
    // file since replaced: the file is read whole as it was opened, never cut
    // to a prefix of the new one, nor refused for having shrunk.
    for (qv_int32_t seen : {11, 80}) {
        SCOPED_TRACE(seen);
        sec_config_rec_t recs = nullptr;
        qv_int32_t count = 0;
        ASSERT_EQ(sec__read_config_file(seen, &recs, &count), 0u);
        EXPECT_EQ(records(recs), ab);
        EXPECT_EQ(count, 2);
        sec__free_config_recs(recs);
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

}  // namespace
