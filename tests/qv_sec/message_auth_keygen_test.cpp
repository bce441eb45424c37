// sec_generate_key: well-formed keys that differ from call to call and from
// process to process, and that work with the token routines.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "child_process.h"
#include "qv_sec.h"
#include "sec_test_util.h"
#include "test_support.h"

namespace {

std::string generate_hex() {
    sec_buffer_desc key{-3, nullptr};
    EXPECT_EQ(sec_generate_key(&key), 0) << last_error_text();
    EXPECT_EQ(key.length, 8);
    if (key.length != 8 || key.value == nullptr) return {};
    std::string hex = qvtest::to_hex(static_cast<uint8_t *>(key.value), 8);
    free(key.value);
    return hex;
}

TEST(MessageAuthKeygen, KeysAreOddParityStrongAndDistinct) {
    std::set<std::string> seen;
    for (int i = 0; i < 64; ++i) {
        sec_buffer_desc key{0, nullptr};
        ASSERT_EQ(sec_generate_key(&key), 0) << last_error_text();
        ASSERT_EQ(key.length, 8);
        ASSERT_NE(key.value, nullptr);
        auto *k = static_cast<unsigned char *>(key.value);
        EXPECT_EQ(sec__des_check_key_parity(k), 1);
        EXPECT_EQ(sec__des_is_weak_key(k), 0);
        EXPECT_TRUE(seen.insert(qvtest::to_hex(k, 8)).second) << "repeated key";
        free(key.value);
    }
}

// Two children forked from the same parent start from identical memory; the
// keys they make must still differ.
TEST(MessageAuthKeygen, ForkedProcessesMakeDifferentKeys) {
    std::set<std::string> keys;
    for (int child = 0; child < 8; ++child) {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        // Eight bytes fit in the pipe: the child writes them and exits.
        EXPECT_EQ(qvtest::run_in_child([&] {
                      sec_buffer_desc key{0, nullptr};
                      if (sec_generate_key(&key) != 0 || key.length != 8) return 1;
                      return write(fds[1], key.value, 8) == 8 ? 0 : 1;
                  }),
                  0);
        close(fds[1]);
        unsigned char buf[8];
        ASSERT_EQ(read(fds[0], buf, sizeof buf), 8);
        close(fds[0]);
        EXPECT_EQ(sec__des_check_key_parity(buf), 1);
        EXPECT_TRUE(keys.insert(qvtest::to_hex(buf, 8)).second) << "two processes made the same key";
    }
    // And none equals one made here.
    EXPECT_EQ(keys.count(generate_hex()), 0u);
}

}  // namespace
