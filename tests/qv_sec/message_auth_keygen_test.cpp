// sec_generate_key: well-formed keys that differ from call to call and from
// process to process, and that work with the token routines.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

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
    for (int round = 0; round < 4; ++round) {
        int fds[2][2];
        pid_t pids[2];
        for (int c = 0; c < 2; ++c) {
            ASSERT_EQ(pipe(fds[c]), 0);
            pids[c] = fork();
            ASSERT_GE(pids[c], 0);
            if (pids[c] == 0) {
                close(fds[c][0]);
                alarm(60);  // a child that hangs dies, and the parent reads end of file
                sec_buffer_desc key{0, nullptr};
                if (sec_generate_key(&key) != 0 || key.length != 8) _exit(1);
                ssize_t n = write(fds[c][1], key.value, 8);
                _exit(n == 8 ? 0 : 1);
            }
            close(fds[c][1]);
        }
        for (int c = 0; c < 2; ++c) {
            unsigned char buf[8];
            size_t got = 0;
            while (got < sizeof buf) {
                ssize_t n = read(fds[c][0], buf + got, sizeof buf - got);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                got += static_cast<size_t>(n);
            }
            close(fds[c][0]);
            int status = 0;
            ASSERT_EQ(waitpid(pids[c], &status, 0), pids[c]);
            ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
            ASSERT_EQ(got, sizeof buf);
            EXPECT_EQ(sec__des_check_key_parity(buf), 1);
            EXPECT_TRUE(keys.insert(qvtest::to_hex(buf, 8)).second) << "two processes made the same key";
        }
    }
    // And none equals one made here.
    EXPECT_EQ(keys.count(generate_hex()), 0u);
}

}  // namespace
