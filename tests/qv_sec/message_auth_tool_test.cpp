// `qvsec mac`, run as a program: key files, tokens in both forms, the
// library's messages for every refusal, and the exit statuses.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

#include "qv_sec.h"
#include "child_process.h"
#include "test_support.h"

namespace {

using Result = qvtest::ToolRun;

class MacTool : public ::testing::Test {
protected:
    qvtest::TempDir dir;
    std::string path(const std::string &name) const { return dir.path() + "/" + name; }

    Result qvsec(const std::vector<std::string> &args) const { return qvtest::run_tool(QVSEC_PATH, args); }

    // A new key file and a message file "msg".
    std::string keygen(const std::string &name = "key") const {
        Result r = qvsec({"mac", "keygen", path(name)});
        EXPECT_EQ(r.status, 0) << r.err;
        return path(name);
    }
};

bool contains(const std::string &s, const std::string &part) { return s.find(part) != std::string::npos; }

TEST_F(MacTool, KeygenWritesAPrivateKeyAndNeverReplacesOne) {
    std::string key = keygen();
    struct stat st{};
    ASSERT_EQ(stat(key.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    std::string bytes = qvtest::read_file(key);
    ASSERT_EQ(bytes.size(), 8u);
    auto *k = reinterpret_cast<const unsigned char *>(bytes.data());
    EXPECT_EQ(sec__des_check_key_parity(k), 1);
    EXPECT_EQ(sec__des_is_weak_key(k), 0);

    Result again = qvsec({"mac", "keygen", key});
    EXPECT_EQ(again.status, 1);
    EXPECT_TRUE(contains(again.err, "File exists")) << again.err;
    EXPECT_EQ(qvtest::read_file(key), bytes);

    EXPECT_NE(qvtest::read_file(keygen("key2")), bytes);
}

TEST_F(MacTool, SignAndVerifyInBothTokenForms) {
    std::string key = keygen(), msg = dir.write("msg", "transfer 100 to account 42\n");
    Result raw = qvsec({"mac", "sign", key, msg, path("token")});
    ASSERT_EQ(raw.status, 0) << raw.err;
    std::string token = qvtest::read_file(path("token"));
    ASSERT_EQ(token.size(), 24u);

    Result hex = qvsec({"mac", "sign", key, msg});
    ASSERT_EQ(hex.status, 0) << hex.err;
    EXPECT_EQ(hex.out, qvtest::to_hex(reinterpret_cast<const uint8_t *>(token.data()), 24) + "\n");
    dir.write("token.hex", hex.out);

    for (const char *t : {"token", "token.hex"}) {
        Result v = qvsec({"mac", "verify", key, msg, path(t)});
        EXPECT_EQ(v.status, 0) << t << ": " << v.err;
        EXPECT_EQ(v.out, msg + ": verified\n");
    }
}

TEST_F(MacTool, RefusalsCarryTheLibraryMessage) {
    std::string key = keygen(), other = keygen("other"), msg = dir.write("msg", "hello");
    ASSERT_EQ(qvsec({"mac", "sign", key, msg, path("token")}).status, 0);
    std::string token = qvtest::read_file(path("token"));
    dir.write("changed", "hellp");
    dir.write("short", token.substr(0, 23));
    std::string bad_key = qvtest::read_file(key);
    bad_key[0] = static_cast<char>(bad_key[0] ^ 1);
    dir.write("badkey", bad_key);
    dir.write("shortkey", bad_key.substr(0, 7));

    struct Case {
        std::vector<std::string> args;
        std::string message;
    } cases[] = {
        {{"verify", other, msg, path("token")},
         "2650-048 The key provided does not match the key used to sign the input message."},
        {{"verify", key, path("changed"), path("token")}, "2650-049 The digest provided does not match the input message."},
        {{"verify", key, msg, path("short")}, "2650-047 The signature buffer is not valid."},
        {{"verify", path("badkey"), msg, path("token")}, "2650-045 The key buffer does not contain a DES key."},
        {{"sign", path("badkey"), msg}, "2650-045 The key buffer does not contain a DES key."},
        {{"sign", path("shortkey"), msg}, "2650-045 The key buffer does not contain a DES key."},
        {{"sign", key, path("missing")}, "cannot open: No such file or directory"},
        {{"verify", path("missing"), msg, path("token")}, "cannot open: No such file or directory"},
    };
    for (Case &c : cases) {
        c.args.insert(c.args.begin(), "mac");
        Result r = qvsec(c.args);
        SCOPED_TRACE(c.args[1] + " " + c.message);
        EXPECT_EQ(r.status, 1);
        EXPECT_TRUE(contains(r.err, c.message)) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

TEST_F(MacTool, EmptyMessageHasNoToken) {
    std::string key = keygen(), empty = dir.write("empty", "");
    Result s = qvsec({"mac", "sign", key, empty, path("token")});
    EXPECT_EQ(s.status, 0);
    EXPECT_TRUE(contains(s.err, "empty")) << s.err;
    EXPECT_EQ(qvtest::read_file(path("token")), "");
    Result v = qvsec({"mac", "verify", key, empty, path("token")});
    EXPECT_EQ(v.status, 0);
    EXPECT_EQ(v.out, empty + ": empty message, nothing to verify\n");
}

TEST_F(MacTool, UsageErrors) {
    for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
             {"mac"}, {"mac", "keygen"}, {"mac", "keygen", "a", "b"}, {"mac", "sign", "k"},
             {"mac", "sign", "k", "f", "t", "x"}, {"mac", "verify", "k", "f"}, {"mac", "frob", "k"}}) {
        Result r = qvsec(args);
        EXPECT_EQ(r.status, 2) << args.size();
        EXPECT_TRUE(contains(r.err, "usage: qvsec mac keygen KEYFILE")) << r.err;
    }
    Result help = qvsec({"--help"});
    EXPECT_TRUE(contains(help.out, "mac keygen|sign|verify")) << help.out;
}

}  // namespace
