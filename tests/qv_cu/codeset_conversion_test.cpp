// Code-set conversion both ways, output growth, stateful encodings and the
// documented results for input that cannot be converted.
#include <gtest/gtest.h>

#include <string>

#include "qv_cu.h"

namespace {

struct Converted {
    int rc;
    std::string out;
};

Converted convert(const char *codeset, int direction, const std::string &in) {
    cu_iconv_t *h = nullptr;
    int rc = cu_iconv_open_1(codeset, direction, &h);
    if (rc != 0) return {rc, {}};
    std::string copy = in;
    size_t in_len = copy.size(), out_len = 12345;
    char *out = reinterpret_cast<char *>(1);
    rc = cu_iconv_str_1(h, 0, copy.data(), &in_len, &out, &out_len);
    Converted r{rc, {}};
    if (rc == 0) {
        EXPECT_EQ(in_len, in.size());
        EXPECT_EQ(out[out_len], '\0');  // one NUL beyond the counted bytes
        r.out.assign(out, out_len);
    } else {
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(out_len, 0u);
    }
    free(out);
    cu_iconv_close_1(h);
    return r;
}

TEST(CodesetConversion, Table) {
    using namespace std::string_literals;
    struct {
        const char *codeset;
        int direction;
        std::string in;
        int rc;
        std::string out;
    } cases[] = {
        {"ISO-8859-1", CU_ICONV_TO_UTF8, "caf\xe9\0"s, 0, "caf\xc3\xa9\0"s},
        {"ISO-8859-1", CU_ICONV_FROM_UTF8, "caf\xc3\xa9\0"s, 0, "caf\xe9\0"s},
        {"UTF-8", CU_ICONV_TO_UTF8, "abc\0"s, 0, "abc\0"s},  // length + 1 keeps the NUL
        {"ANSI_X3.4-1968", CU_ICONV_FROM_UTF8, "abc\0"s, 0, "abc\0"s},
        {"ISO-8859-1", CU_ICONV_TO_UTF8, ""s, 0, ""s},
        {"UTF-8", CU_ICONV_TO_UTF8, "ab\xff\xfe"s, CU_E_CONVERT, ""},        // invalid bytes
        {"ISO-8859-1", CU_ICONV_FROM_UTF8, "ab\xc3"s, CU_E_CONVERT, ""},     // incomplete
        {"ISO-8859-1", CU_ICONV_FROM_UTF8, "\xe2\x82\xac"s, CU_E_CONVERT, ""},  // no euro sign
        {"ANSI_X3.4-1968", CU_ICONV_TO_UTF8, "\x80"s, CU_E_CONVERT, ""},
        {"no-such-codeset", CU_ICONV_TO_UTF8, "x"s, CU_E_CONVERT, ""},
        // A stateful encoding ends back in its initial shift state.
        {"ISO-2022-JP", CU_ICONV_FROM_UTF8, "\xe6\x97\xa5\xe6\x9c\xac"s, 0, "\x1b$BF|K\\\x1b(B"s},
    };
    for (const auto &c : cases) {
        Converted r = convert(c.codeset, c.direction, c.in);
        EXPECT_EQ(r.rc, c.rc) << c.codeset << " " << c.direction;
        EXPECT_EQ(r.out, c.out) << c.codeset << " " << c.direction;
    }
}

TEST(CodesetConversion, OutputGrowsForLargeExpansion) {
    // Every byte doubles, and a multi-megabyte input needs many regrowths.
    std::string latin(3 << 20, '\xfc');
    Converted utf8 = convert("ISO-8859-1", CU_ICONV_TO_UTF8, latin);
    ASSERT_EQ(utf8.rc, 0);
    ASSERT_EQ(utf8.out.size(), latin.size() * 2);
    EXPECT_EQ(utf8.out.substr(0, 4), "\xc3\xbc\xc3\xbc");
    Converted back = convert("ISO-8859-1", CU_ICONV_FROM_UTF8, utf8.out);
    ASSERT_EQ(back.rc, 0);
    EXPECT_TRUE(back.out == latin);
    Converted ucs4 = convert("UCS-4", CU_ICONV_FROM_UTF8, "abc");
    EXPECT_EQ(ucs4.rc, 0);
    EXPECT_EQ(ucs4.out.size(), 12u);
}

TEST(CodesetConversion, BadArguments) {
    cu_iconv_t *h = reinterpret_cast<cu_iconv_t *>(1);
    EXPECT_EQ(cu_iconv_open_1(nullptr, 0, &h), CU_E_BADARG);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(cu_iconv_open_1("UTF-8", 2, &h), CU_E_BADARG);
    EXPECT_EQ(cu_iconv_open_1("UTF-8", 0, nullptr), CU_E_BADARG);
    ASSERT_EQ(cu_iconv_open_1("UTF-8", 1, &h), 0);
    char in[] = "x";
    size_t in_len = 1, out_len = 0;
    char *out = nullptr;
    EXPECT_EQ(cu_iconv_str_1(nullptr, 0, in, &in_len, &out, &out_len), CU_E_BADARG);
    EXPECT_EQ(cu_iconv_str_1(h, 0, in, nullptr, &out, &out_len), CU_E_BADARG);
    EXPECT_EQ(cu_iconv_str_1(h, 0, in, &in_len, nullptr, &out_len), CU_E_BADARG);
    EXPECT_EQ(cu_iconv_str_1(h, 0, in, &in_len, &out, nullptr), CU_E_BADARG);
    EXPECT_EQ(cu_iconv_str_1(h, 0, nullptr, &in_len, &out, &out_len), CU_E_BADARG);
    in_len = 0;
    EXPECT_EQ(cu_iconv_str_1(h, 0, nullptr, &in_len, &out, &out_len), 0);
    EXPECT_EQ(out_len, 0u);
    free(out);
    EXPECT_EQ(cu_iconv_close_1(h), 0);
    EXPECT_EQ(cu_iconv_close_1(nullptr), 0);
}

}  // namespace
