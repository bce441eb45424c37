#include <gtest/gtest.h>

#include <nl_types.h>

#include <regex>
#include <string>
#include <vector>

#include "errors.h"
#include "library_init.h"
#include "sec_test_util.h"
#include "test_support.h"

namespace {

// Every conversion in the table is one the renderer knows: an optional
// position, flags and width, then s, d, u, x or X, with ll before u and x.
TEST(MessageTable, EveryConversionIsWellFormed) {
    ASSERT_STREQ(cu_mesgtbl_qvsec_msg[0], "Reserved: DO NOT USE!");
    const std::regex conversion("%([0-9]+\\$)?[-+ #0-9]*(s|d|ll[uxX]|[uxX])");
    for (int n = 0; n < SEC_MSG_COUNT; ++n) {
        const std::string rest = std::regex_replace(cu_mesgtbl_qvsec_msg[n], conversion, "");
        EXPECT_EQ(rest.find('%'), std::string::npos) << n << ": " << cu_mesgtbl_qvsec_msg[n];
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
