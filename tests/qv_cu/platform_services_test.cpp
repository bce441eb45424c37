// Code-set conversion, the node ID and the time counter: results for good,
// unconvertible and malformed input and for bad arguments.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

#include "cu_internal.h"
#include "test_support.h"

namespace {

using namespace std::string_literals;

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
    EXPECT_EQ(in_len, in.size());
    if (rc == 0) {
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
    struct {
        const char *codeset;
        int direction;
        std::string in;
        int rc;
        std::string out;
    } cases[] = {
        {"ISO-8859-1", CU_ICONV_TO_UTF8, "caf\xe9\0"s, 0, "caf\xc3\xa9\0"s},
        {"ISO-8859-1", CU_ICONV_FROM_UTF8, "caf\xc3\xa9\0"s, 0, "caf\xe9\0"s},
        {"ISO-8859-1", CU_ICONV_TO_UTF8, ""s, 0, ""s},
        {"UCS-4", CU_ICONV_FROM_UTF8, "ab"s, 0, "\0\0\0a\0\0\0b"s},
        {"UTF-8", CU_ICONV_TO_UTF8, "ab\xff\xfe"s, CU_E_CONVERT, ""},        // invalid bytes
        {"ISO-8859-1", CU_ICONV_FROM_UTF8, "ab\xc3"s, CU_E_CONVERT, ""},     // incomplete
        {"ISO-8859-1", CU_ICONV_FROM_UTF8, "\xe2\x82\xac"s, CU_E_CONVERT, ""},  // no euro sign
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
}

TEST(NodeId, ParseFileContents) {
    struct {
        const char *contents;
        int rc;
        uint64_t id;
    } cases[] = {
        {"0123456789abcdef", 0, 0x0123456789abcdefULL},
        {"  FEDCBA9876543210\n", 0, 0xfedcba9876543210ULL},
        {"\t0000000000000000\r\n\n", 0, 0},
        {"0123456789abcde", CU_E_BADFORMAT, 0},
        {"0123456789abcdef0", CU_E_BADFORMAT, 0},
        {"0123456789abcdeg", CU_E_BADFORMAT, 0},
        {"01234567 89abcdef", CU_E_BADFORMAT, 0},
        {"\n", CU_E_BADFORMAT, 0},
    };
    for (const auto &c : cases) {
        uint64_t id = 0x5555;
        EXPECT_EQ(qvcu::parse_node_id(c.contents, &id), c.rc) << c.contents;
        EXPECT_EQ(id, c.rc == 0 ? c.id : 0x5555u) << c.contents;
    }
}

TEST(NodeId, Sources) {
    qvtest::TempDir dir;
    std::string env = dir.write("env_id", "1111111111111111\n");
    std::string good = dir.write("default_id", "2222222222222222\n");
    std::string mid = dir.write("machine-id", "0123456789abcdef0123456789abcdef\n");
    std::string upper = dir.write("machine-id-upper", "0123456789ABCDEF0123456789ABCDEF");
    std::string other = dir.write("machine-id-other", "0123456789abcdef0123456789abcdee\n");
    std::string bad = dir.write("bad_id", "not a node id\n");
    std::string big = dir.write("big_id", std::string(10000, '0'));
    std::string bad_mid = dir.write("bad-machine-id", "0123456789abcdef\n");
    std::string missing = dir.path() + "/missing";
    auto from = [&](const std::string &e, const std::string &d, const std::string &m, uint64_t *id) {
        *id = 7;
        return qvcu::node_id_from(e.c_str(), d.c_str(), m.c_str(), id);
    };
    struct {
        const char *name;
        std::string env, def, machine;
        int rc;
        uint64_t id;  // 0: derived from the machine ID
    } cases[] = {
        {"environment file first", env, good, mid, 0, 0x1111111111111111ULL},
        {"then the default file", missing, good, mid, 0, 0x2222222222222222ULL},
        {"no environment file named", "", good, mid, 0, 0x2222222222222222ULL},
        // A malformed file that exists is an error, not a reason to fall back.
        {"malformed env file", bad, good, mid, CU_E_BADFORMAT, 7},
        {"malformed default file", missing, bad, mid, CU_E_BADFORMAT, 7},
        {"oversized file", big, good, mid, CU_E_BADFORMAT, 7},
        {"unreadable (a directory)", dir.path(), good, mid, CU_E_INTERNAL, 7},
        {"malformed machine id", missing, missing, bad_mid, CU_E_BADFORMAT, 7},
        {"nothing at all", missing, missing, missing, CU_E_NOTFOUND, 7},
    };
    uint64_t id = 0;
    for (const auto &c : cases) {
        EXPECT_EQ(from(c.env, c.def, c.machine, &id), c.rc) << c.name;
        EXPECT_EQ(id, c.id) << c.name;
    }
    // The machine-ID fallback is stable, ignores the digits' case, depends on
    // every digit, and is not simply the leading digits.
    uint64_t a = 0, b = 0;
    ASSERT_EQ(qvcu::node_id_from(nullptr, missing.c_str(), mid.c_str(), &a), 0);
    EXPECT_NE(a, 0x0123456789abcdefULL);
    ASSERT_EQ(from("", missing, upper, &b), 0);
    EXPECT_EQ(a, b);
    ASSERT_EQ(from("", missing, other, &b), 0);
    EXPECT_NE(a, b);

    // The exported routine honours the environment.
    std::string file = dir.write("node_id", "00000000deadbeef\n");
    setenv("QV_NODE_ID_FILE", file.c_str(), 1);
    qv_uint64_t node = 0;
    EXPECT_EQ(cu_get_node_id_1(&node), 0);
    EXPECT_EQ(node, 0xdeadbeefULL);
    EXPECT_EQ(cu_get_node_id_1(nullptr), CU_E_BADARG);
    unsetenv("QV_NODE_ID_FILE");
}

TEST(TimeCounter, FollowsTheClockAndConvertsExactly) {
    // That values never repeat is checked across threads in concurrency_test.
    qv_uint64_t rate = 0, ctr = 0;
    ASSERT_EQ(cu_get_procspeed_1(&rate), 0);
    EXPECT_EQ(rate, 1000000000u);
    time_t before = time(nullptr);
    ASSERT_EQ(cu_get_ctr_1(&ctr), 0);
    cu_timeinfo_t ti{};
    ASSERT_EQ(cu_cvt_time_1(ctr, rate, &ti), 0);
    EXPECT_GE(ti.cu_sec + 1, qv_uint64_t(before));
    EXPECT_LE(ti.cu_sec, qv_uint64_t(time(nullptr)) + 1);

    struct {
        qv_uint64_t ctr, rate, sec, nsec;
    } cases[] = {
        {1234567890123456789ULL, 1000000000ULL, 1234567890ULL, 123456789ULL},
        {10, 3, 3, 333333333},
        {UINT64_MAX, 1000, UINT64_MAX / 1000, 615000000},
        {UINT64_MAX, UINT64_MAX, 1, 0},
        {UINT64_MAX - 1, UINT64_MAX, 0, 999999999},  // remainder * 1e9 needs 128 bits
    };
    for (const auto &c : cases) {
        ASSERT_EQ(cu_cvt_time_1(c.ctr, c.rate, &ti), 0);
        EXPECT_EQ(ti.cu_sec, c.sec) << c.ctr << "/" << c.rate;
        EXPECT_EQ(ti.cu_nsec, c.nsec) << c.ctr << "/" << c.rate;
    }
    EXPECT_EQ(cu_get_ctr_1(nullptr), CU_E_BADARG);
    EXPECT_EQ(cu_get_procspeed_1(nullptr), CU_E_BADARG);
    EXPECT_EQ(cu_cvt_time_1(5, 0, &ti), CU_E_BADARG);
    EXPECT_EQ(cu_cvt_time_1(5, 1, nullptr), CU_E_BADARG);
}

}  // namespace
