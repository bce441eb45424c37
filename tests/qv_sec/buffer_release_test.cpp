// sec_release_buffer wipes what it frees: the whole block, whatever length
// the caller's record still claims.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "alloc_failure.h"
#include "qv_sec.h"

namespace {

TEST(ReleaseBuffer, WipesTheWholeBlockBeforeFreeingIt) {
    if (!qvtest::failing_allocator_active()) GTEST_SKIP() << "needs the test allocator to see freed blocks";
    struct Case {
        const char *what;
        qv_int32_t length;
    } cases[] = {{"length as allocated", 48}, {"length shortened by the caller", 5}, {"length zeroed", 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        void *block = std::malloc(48);
        ASSERT_NE(block, nullptr);
        std::memset(block, 0xa5, 48);
        sec_buffer_desc buf{c.length, block};
        qvtest::watch_free(block, 48);
        EXPECT_EQ(sec_release_buffer(&buf), 0);
        EXPECT_EQ(qvtest::freed_bytes(), std::string(48, '\0'));
        EXPECT_EQ(buf.value, nullptr);
        EXPECT_EQ(buf.length, 0);
    }
}

}  // namespace
