#include <gtest/gtest.h>

#include <nl_types.h>

#include <map>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "errors.h"
#include "library_init.h"
#include "sec_test_util.h"
#include "test_support.h"

namespace {

// Builds an error record for message n with sample arguments typed from the
// conversions of its default text.
struct SampleRecord {
    cu_error_t rec{};
    std::vector<cu_arg_t> args;
    std::vector<std::string> strings;

    explicit SampleRecord(int n) {
        const std::string text = cu_mesgtbl_qvsec_msg[n];
        std::map<int, cu_arg_t> by_position;
        int next = 1;
        strings.reserve(8);
        for (size_t i = text.find('%'); i != std::string::npos; i = text.find('%', i + 1)) {
            // %[N$][flags and width]conversion[ll]
            size_t j = i + 1;
            int pos = next;
            size_t digits = j;
            while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) ++digits;
            if (digits > j && digits < text.size() && text[digits] == '$') {
                pos = std::stoi(text.substr(j, digits - j));
                j = digits + 1;
            }
            while (j < text.size() && std::strchr("-+ #0123456789", text[j])) ++j;
            next = pos + 1;
            char c = text[j];
            cu_arg_t a{};
            if (c == 's') {
                strings.push_back("str" + std::to_string(pos));
                a.cu_arg_type = CU_ARG_STRING;
                a.cu_arg_value.cu_arg_string = strings.back().data();
            } else if (c == 'd') {
                a.cu_arg_type = CU_ARG_INT;
                a.cu_arg_value.cu_arg_long = -pos;
            } else if (text.compare(j + 1, 2, "ll") == 0) {
                a.cu_arg_type = CU_ARG_ULONG;
                a.cu_arg_value.cu_arg_ulong = 0x0123456789abcdefULL;
            } else {
                a.cu_arg_type = CU_ARG_UINT;
                a.cu_arg_value.cu_arg_ulong = 0xa0u + static_cast<unsigned>(pos);
            }
            by_position[pos] = a;
            i = j;
        }
        for (auto &[pos, a] : by_position) args.push_back(a);
        rec.cu_error_id = 1;
        rec.cu_msg_cat = const_cast<char *>("qvtest-absent.cat");
        rec.cu_msg_set = 1;
        rec.cu_msg_num = n;
        rec.cu_msg_default = const_cast<char *>(cu_mesgtbl_qvsec_msg[n]);
        rec.cu_arg_cnt = static_cast<qv_uint32_t>(args.size());
        rec.cu_args = args.data();
    }

    std::string render() {
        char *msg = nullptr;
        EXPECT_EQ(cu_get_errmsg_1(&rec, &msg), 0);
        std::string s = msg ? msg : "";
        cu_rel_errmsg_1(msg);
        return s;
    }
};

TEST(MessageTable, EveryMessageFormatsCompletely) {
    ASSERT_STREQ(cu_mesgtbl_qvsec_msg[0], "Reserved: DO NOT USE!");
    ASSERT_STREQ(cu_mesgtbl_qvsec_msg[SEC_MSG_COUNT - 1] + 0, cu_mesgtbl_qvsec_msg[78]);
    for (int n = 0; n < SEC_MSG_COUNT; ++n) {
        SCOPED_TRACE(n);
        std::string out = SampleRecord(n).render();
        EXPECT_FALSE(out.empty());
        EXPECT_EQ(out.find('%'), std::string::npos) << out;
    }
}

TEST(MessageTable, ReportedThroughTheLibrary) {
    sec_report(SEC_S_INTERNAL, MSG_2650_034, "alpha", 5, "beta");
    EXPECT_EQ(last_error_text(),
              "2650-034 libqv_sec Internal failure detected.\n\tFunction name: alpha\n"
              "\tReturn code from function: 5\n\tRoutine calling the function: beta\n"
              "Contact Tarvo Customer Support and report this incident.\n");
    // A number outside the table is rendered with the text that says so.
    sec_report(SEC_S_INTERNAL, 79);
    EXPECT_EQ(last_error_text(), "Bad message id for message set qvsec_msg");
}

// The catalogue built from the table holds every text byte for byte.
TEST(MessageTable, GeneratedCatalogueMatchesTable) {
    std::string path = qvtest::binary_dir() + "/share/qvsec/qvsec.cat";
    nl_catd cat = catopen(path.c_str(), 0);
    ASSERT_NE(cat, reinterpret_cast<nl_catd>(-1)) << path;
    for (int n = 1; n < SEC_MSG_COUNT; ++n) {
        EXPECT_STREQ(catgets(cat, 1, n, "<missing>"), cu_mesgtbl_qvsec_msg[n]) << n;
    }
    catclose(cat);
}

// Explaining a failure: the return code's class, a module's status for a
// mechanism this process has not configured, the argument checks, and the
// caller's error record left as it was.
TEST(MessageTable, ExplainedInWords) {
    sec_status_desc module{8, 88, 0x7e000001, "mpm_receive_sec_context"};
    sec_status_desc continuing{1, 0, 0x7e000001, ""};
    struct Case {
        qv_int32_t rc;
        const sec_status_desc *st;
        int message;  // >= 0: explain this message instead
        qv_int32_t result;
        const char *has, *lacks;
    } cases[] = {
        {21, nullptr, -1, 0, "return code 21: ", "\nmechanism 0x"},
        {3, &module, -1, 0, "mpm_receive_sec_context: major status 8, minor status 88\n  the module gives no", "\x01"},
        {0, &continuing, -1, 0, "return code 0: success\n", "mechanism"},
        {11, nullptr, -1, 4, "", ""},  // not a return code of the library
        {-1, nullptr, -1, 4, "", ""},
        {0, nullptr, MSG_2650_019, 0, "\nreturn code 21: ", "\x01"},
        {0, nullptr, MSG_2650_087, 0, "return code 31: ", "message:"},
        {0, nullptr, MSG_2650_009, 4, "", ""},  // not issued by the library
        {0, nullptr, SEC_MSG_COUNT, 4, "", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.rc) + " " + std::to_string(c.message));
        sec_report(SEC_S_BAD_TOKEN, MSG_2650_061);
        sec_buffer_desc text{5, nullptr};
        qv_int32_t rc = c.message >= 0 ? sec_explain_message(c.message, &text) : sec_explain_status(c.rc, c.st, &text);
        ASSERT_EQ(rc, c.result);
        if (rc != 0) {
            EXPECT_EQ(last_message(), MSG_2650_060);
            continue;
        }
        std::string out(static_cast<const char *>(text.value));
        EXPECT_EQ(text.length, static_cast<qv_int32_t>(out.size()));
        EXPECT_NE(out.find(c.has), std::string::npos) << out;
        EXPECT_EQ(out.find(c.lacks), std::string::npos) << out;
        EXPECT_EQ(last_message(), MSG_2650_061);  // the caller's record is kept
        sec_release_buffer(&text);
    }
    EXPECT_EQ(sec_explain_status(21, nullptr, nullptr), SEC_S_BAD_ARGUMENT);
    EXPECT_EQ(sec_explain_message(MSG_2650_019, nullptr), SEC_S_BAD_ARGUMENT);
}

}  // namespace
