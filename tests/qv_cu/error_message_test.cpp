// The thread's error record (deep copies in and out, clearing, bad
// arguments) and its rendering: texts compared with the C library's snprintf
// of the same text and arguments, the table's odd conversions and hostile
// catalogue texts with hand-written results.
#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <sys/types.h>

#include "cu_internal.h"
#include "current_error.h"

namespace {

TEST(ErrorRecord, CopiesInAndOut) {
    char cat[] = "qvtest-absent.cat", text[] = "routine %1$s failed with %2$d", name[] = "sec_start";
    EXPECT_EQ(cu_set_error_1(23, "ffdc", cat, 1, 38, text, name, -4), 23);
    // The caller's buffers may change afterwards without touching the record.
    for (char *s : {cat, text, name}) std::memset(s, 'x', std::strlen(s));
    qvtest::CurrentError now = qvtest::current_error();
    EXPECT_EQ(now.id, 23);
    EXPECT_EQ(now.msg_num, 38);
    EXPECT_EQ(now.text, "routine sec_start failed with -4");

    // A copy changed by its caller leaves the thread's record as it was.
    cu_error_t *copy = nullptr;
    ASSERT_EQ(cu_get_error_1(&copy), 0);
    EXPECT_STREQ(copy->cu_ffdc_id, "ffdc");
    copy->cu_error_id = 99;
    copy->cu_args[0].cu_arg_value.cu_arg_string[0] = 'X';
    copy->cu_msg_default[0] = '#';
    EXPECT_EQ(qvtest::current_error().text, "routine sec_start failed with -4");
    // pset takes its own copy: the caller's record can go straight away.
    EXPECT_EQ(cu_pset_error_1(copy), 0);
    cu_rel_error_1(copy);
    EXPECT_EQ(qvtest::current_error().id, 99);
    EXPECT_EQ(qvtest::current_error().text, "#outine Xec_start failed with -4");

    // Only the arguments that exist are copied.
    cu_error_t no_array{};
    no_array.cu_error_id = 8;
    no_array.cu_msg_default = const_cast<char *>("code %x");
    no_array.cu_arg_cnt = 2;
    EXPECT_EQ(cu_pset_error_1(&no_array), 0);
    EXPECT_EQ(qvtest::current_error().text, "code %x");

    EXPECT_EQ(cu_pset_error_1(nullptr), 0);
    EXPECT_EQ(qvtest::current_error().id, 0);
    cu_set_error_1(5, nullptr, cat, 1, 4, "about to be cleared");
    EXPECT_EQ(cu_set_no_error_1(), 0);
    EXPECT_EQ(qvtest::current_error().id, 0);
    EXPECT_EQ(qvtest::current_error().text, "");

    EXPECT_EQ(cu_get_error_1(nullptr), CU_E_BADARG);
    char *msg = reinterpret_cast<char *>(1);
    EXPECT_EQ(cu_get_errmsg_1(nullptr, &msg), CU_E_BADARG);
    EXPECT_EQ(msg, nullptr);
    EXPECT_EQ(cu_get_errmsg_1(&no_array, nullptr), CU_E_BADARG);
}

__attribute__((format(printf, 1, 2))) std::string reference(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    char buf[1024];
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    return buf;
}

struct Case {
    const char *text;
    std::function<void()> set;
    std::string expected;
};

#define SET(text, ...) [] { cu_set_error_1(7, nullptr, nullptr, 1, 1, text, __VA_ARGS__); }
#define PRINTF_CASE(text, ...) Case{text, SET(text, __VA_ARGS__), reference(text, __VA_ARGS__)}

TEST(MessageFormat, Rendering) {
    const Case cases[] = {
        PRINTF_CASE("errno = %d.", -5),
        PRINTF_CASE("%s and %s", "left", "right"),
        PRINTF_CASE("%1$s %2$d 0x%3$x", "rtn", 3, 0xdeadbeefu),
        PRINTF_CASE("%2$s before %1$s", "a", "b"),
        PRINTF_CASE("%1$s %1$s %1$s", "x"),
        PRINTF_CASE("[%5d] [%-5d] [%05d] [%+d] [% d] [%.4d]", 42, 42, 42, 42, 42, 42),
        PRINTF_CASE("[%0+5d] [%0 d]", 42, 7),  // flags after a zero
        PRINTF_CASE("[%.3s] [%10.2s] [%-6s]", "abcdef", "xyz", "ab"),
        PRINTF_CASE("%x %X %o %#o %#x %#X", 255u, 255u, 8u, 8u, 255u, 0xabu),
        PRINTF_CASE("%u %d", 4294967295u, INT_MIN),
        PRINTF_CASE("%ld %lu %lld %llu", LONG_MIN, ULONG_MAX, -1LL, 18446744073709551615ULL),
        PRINTF_CASE("%jd %zu %zd %tx %llx", (intmax_t)-9, (size_t)123, (ssize_t)-4, (ptrdiff_t)255,
                    0x0123456789abcdefULL),
        PRINTF_CASE("%hd %hhu %hx", 70000, 300, 0x12345),
        PRINTF_CASE("%f %.2e %g %10.3f %-9.1f| %a", 1.5, 12345.678, 0.0001, -3.14159, 2.25, 1.0),
        PRINTF_CASE("%p %p", (void *)0x1234, (void *)nullptr),
        PRINTF_CASE("%c%c%3c", 'o', 'k', '!'),
        PRINTF_CASE("100%% done in %d%%", 5),
        PRINTF_CASE("%*d|%-*d|%.*f|%*s", 5, 42, 4, 7, 2, 3.14159, -6, "ab"),
        PRINTF_CASE("%2$*1$d|%3$.*1$s", 6, 42, "abcdefgh"),
        // A NULL string prints as the C library does.
        {"%s|%-8s|", SET("%s|%-8s|", (const char *)nullptr, (const char *)nullptr), "(null)|(null)  |"},
        // A plain conversion takes the argument after the previous one's.
        {"%s %1$s %s", SET("%s %1$s %s", "a", "b"), "a a b"},
        {"%2$s %s %1$s", SET("%2$s %s %1$s", "a", "b", "c"), "b c a"},
        // "%08#x" is %#08x: the '#' after the width is a flag.
        {"%08#x", SET("layer: %08#x %08#x %08#x %s.", 0xabu, 0u, 0xffffffffu, "mpm_end"),
         "layer: 0x0000ab 00000000 0xffffffff mpm_end."},
        // "%2$016xll" reads a 64-bit value and prints 16 digits, no "ll".
        {"%2$016xll", SET("code 0x%1$08x, node %2$016xll\n", 0x12u, 0xfedcba9876543210ULL),
         "code 0x00000012, node fedcba9876543210\n"},
        // Unusable conversions stay as written, and so do their arguments.
        {"%n", SET("a%nb", (int *)nullptr), "a%nb"},
        {"%y", SET("%y %d", 5), "%y %d"},
        {"gap", SET("%1$s %3$d", "one", 2, 3), "one %3$d"},
        {"trailing %", SET("50%", 0), "50%"},
        {"no text", [] { cu_set_error_1(3, nullptr, nullptr, 1, 5, nullptr); }, ""},
    };
    for (const Case &c : cases) {
        c.set();
        EXPECT_EQ(qvtest::current_error().text, c.expected) << c.text;
    }
}

// Beyond what the rendering table reaches: types in conflict, compatible
// types, the rarer length modifiers and out-of-range positions.
TEST(MessageFormat, ArgumentTypesFromDefaultText) {
    using qvcu::VaType;
    struct {
        const char *text;
        std::vector<VaType> types;
    } cases[] = {
        {"%1$d %1$s", {}},                          // one argument, two types
        {"%1$d %1$x %2$lld %2$llx", {VaType::Int, VaType::LongLong}},
        {"%s %y %d", {VaType::String}},             // after a malformed conversion
        {"%jx %zx %tx %qx", {VaType::UIntMax, VaType::Size, VaType::PtrDiff, VaType::ULongLong}},
        {"%Lf %d", {}},
        {"%129$d", {}},
        {"%0$d", {}},
    };
    for (const auto &c : cases) EXPECT_EQ(qvcu::argument_types(c.text), c.types) << c.text;
}

// Catalogue texts are rendered against arguments typed by the default text.
TEST(MessageFormat, HostileCatalogueTexts) {
    cu_arg_t args[4] = {};
    args[0].cu_arg_type = CU_ARG_INT;
    args[0].cu_arg_value.cu_arg_long = 7;
    args[1].cu_arg_type = CU_ARG_STRING;
    args[1].cu_arg_value.cu_arg_string = const_cast<char *>("abc");
    args[2].cu_arg_type = CU_ARG_LONG;
    args[2].cu_arg_value.cu_arg_long = -1;
    args[3].cu_arg_type = 99;  // not a type
    struct {
        const char *text;
        const char *expected;
    } cases[] = {
        {"%3$d and %5$s", "-1 and %5$s"},         // beyond the arguments: as written
        {"%0$d|%1$|%", "%0$d|%1$|%"},
        {"%1$s", "7"},                            // an int printed by its own type
        {"%1$05s", "    7"},                      // ... with the width, but none of the flags
        {"%2$d|%2$-6d|", "abc|abc   |"},          // a string by its own type
        {"%1$f %1$p", "7 7"},
        {"%2$p", "abc"},
        {"%1$n", "%1$n"},
        {"%4$d", "%4$d"},                         // an argument of no known type
        {"%*5$d|%.*2$d", "%*5$d|%.*2$d"},         // '*' from a missing or non-integer argument
        {"%1$99999d", "%1$99999d"},               // wider than the renderer allows
        {"%1$lld %1$hhd %1$05x", "7 7 00007"},
        {"%3$x %3$lx %3$hx %3$d", "ffffffffffffffff ffffffffffffffff ffff -1"},
        {"%1$q %1$", "%1$q %1$"},
        {"%1$+s %1$#c", "7 \a"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(qvcu::render_message(c.text, args), c.expected) << c.text;
    EXPECT_EQ(qvcu::render_message("%1$d %2$s", {}), "%1$d %2$s");
}

}  // namespace
