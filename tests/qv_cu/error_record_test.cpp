// The calling thread's error record: deep copies in and out, clearing, and
// the documented results for bad arguments.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "qv_cu.h"

namespace {

struct RecordDeleter {
    void operator()(cu_error_t *e) const { cu_rel_error_1(e); }
};
using Record = std::unique_ptr<cu_error_t, RecordDeleter>;

Record get_record() {
    cu_error_t *e = nullptr;
    EXPECT_EQ(cu_get_error_1(&e), 0);
    return Record(e);
}

std::string message_of(const cu_error_t *e) {
    char *msg = nullptr;
    EXPECT_EQ(cu_get_errmsg_1(e, &msg), 0);
    std::string s = msg ? msg : "<null>";
    cu_rel_errmsg_1(msg);
    return s;
}

TEST(ErrorRecord, SetKeepsDeepCopiesOfEverything) {
    char cat[] = "qvtest-absent.cat";
    char text[] = "routine %1$s failed with %2$d";
    char name[] = "sec_start";
    EXPECT_EQ(cu_set_error_1(23, nullptr, cat, 1, 38, text, name, -4), 23);
    // The caller's buffers may change afterwards without touching the record.
    std::memset(cat, 'x', sizeof cat - 1);
    std::memset(text, 'x', sizeof text - 1);
    std::memset(name, 'x', sizeof name - 1);

    Record e = get_record();
    EXPECT_EQ(e->cu_error_id, 23);
    EXPECT_EQ(e->cu_ffdc_id, nullptr);
    EXPECT_STREQ(e->cu_msg_cat, "qvtest-absent.cat");
    EXPECT_EQ(e->cu_msg_set, 1);
    EXPECT_EQ(e->cu_msg_num, 38);
    EXPECT_STREQ(e->cu_msg_default, "routine %1$s failed with %2$d");
    ASSERT_EQ(e->cu_arg_cnt, 2u);
    EXPECT_EQ(e->cu_args[0].cu_arg_type, CU_ARG_STRING);
    EXPECT_STREQ(e->cu_args[0].cu_arg_value.cu_arg_string, "sec_start");
    EXPECT_EQ(e->cu_args[1].cu_arg_type, CU_ARG_INT);
    EXPECT_EQ(e->cu_args[1].cu_arg_value.cu_arg_long, -4);
    EXPECT_EQ(message_of(e.get()), "routine sec_start failed with -4");
}

TEST(ErrorRecord, NoErrorGivesAnEmptyRecord) {
    cu_set_error_1(5, nullptr, "qvtest-absent.cat", 1, 4, "a message about to be cleared");
    EXPECT_EQ(cu_set_no_error_1(), 0);
    Record e = get_record();
    EXPECT_EQ(e->cu_error_id, 0);
    EXPECT_EQ(e->cu_msg_cat, nullptr);
    EXPECT_EQ(e->cu_msg_default, nullptr);
    EXPECT_EQ(e->cu_arg_cnt, 0u);
    EXPECT_EQ(message_of(e.get()), "");
}

TEST(ErrorRecord, CopiesAreIndependentOfTheThreadRecord) {
    cu_set_error_1(6, "ffdc", "qvtest-absent.cat", 1, 36, "%1$s: %2$d bytes", "malloc", 64);
    Record copy = get_record();
    // Changing the copy leaves the thread's record as it was.
    copy->cu_error_id = 99;
    copy->cu_args[0].cu_arg_value.cu_arg_string[0] = 'X';
    copy->cu_msg_default[0] = '#';
    Record again = get_record();
    EXPECT_EQ(again->cu_error_id, 6);
    EXPECT_STREQ(again->cu_ffdc_id, "ffdc");
    EXPECT_EQ(message_of(again.get()), "malloc: 64 bytes");

    // pset takes a copy: the caller's record can be released straight away.
    Record saved = get_record();
    cu_set_error_1(4, nullptr, "qvtest-absent.cat", 1, 3, "other %s", "routine");
    EXPECT_EQ(cu_pset_error_1(saved.get()), 0);
    saved.reset();
    Record restored = get_record();
    EXPECT_EQ(restored->cu_error_id, 6);
    EXPECT_EQ(message_of(restored.get()), "malloc: 64 bytes");

    EXPECT_EQ(cu_pset_error_1(nullptr), 0);
    EXPECT_EQ(get_record()->cu_error_id, 0);
}

TEST(ErrorRecord, PsetCopiesOnlyTheArgumentsThatExist) {
    cu_error_t err{};
    err.cu_error_id = 8;
    err.cu_msg_default = const_cast<char *>("code %x");
    err.cu_arg_cnt = 2;  // but no array
    EXPECT_EQ(cu_pset_error_1(&err), 0);
    Record e = get_record();
    EXPECT_EQ(e->cu_arg_cnt, 0u);
    EXPECT_EQ(e->cu_args, nullptr);
    EXPECT_EQ(message_of(e.get()), "code %x");
}

TEST(ErrorRecord, BadArgumentsAreRefused) {
    EXPECT_EQ(cu_get_error_1(nullptr), CU_E_BADARG);
    char *msg = reinterpret_cast<char *>(1);
    EXPECT_EQ(cu_get_errmsg_1(nullptr, &msg), CU_E_BADARG);
    EXPECT_EQ(msg, nullptr);
    cu_error_t err{};
    EXPECT_EQ(cu_get_errmsg_1(&err, nullptr), CU_E_BADARG);
    cu_rel_error_1(nullptr);
    cu_rel_errmsg_1(nullptr);
}

}  // namespace
