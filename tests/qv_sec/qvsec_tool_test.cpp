// The qvsec tool run as a program: config check, mechs, mac, help and
// version. One row per outcome: the exit status, what goes to which stream,
// the library's message number for every refusal, and the warnings about
// files a user other than root or the caller could change.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "child_process.h"
#include "qv_sec_internal.h"
#include "test_mpm.h"
#include "test_support.h"

namespace {

constexpr uid_t kNobody = 65534;

TEST(QvsecTool, SuccessAndRefusalPaths) {
    qvtest::TempDir dir;
    auto run = [](const std::vector<std::string> &args, const std::string &config = "") {
        return qvtest::run_tool(QVSEC_PATH, args, {{"QV_SEC_CONFIG", config}});
    };
    auto file = [&](const std::string &name, const std::string &text, mode_t mode = 0644) {
        std::string path = dir.write(name, text);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return path;
    };
    auto config = [&](const std::string &name, const std::string &module, mode_t mode = 0644) {
        return file(name, "1 qvtest 0x7f000001 " + module + " u\n", mode);
    };
    const std::string module = qvtest::module_path(qvtest::kTestMpm);
    const std::string good = config("good.cfg", module), open_cfg = config("open.cfg", module, 0666);
    const std::string shared_module = file("shared.so", qvtest::read_file(module), 0775);
    const std::string shared_cfg = config("shared.cfg", shared_module);
    const std::string no_init = config("noinit.cfg", qvtest::module_path(qvtest::kTestMpmNoInit));
    const std::string no_file = config("nofile.cfg", dir.path() + "/absent.so");
    const std::string bad = file("bad.cfg", "# first\n1 a 1 /a.so\n");
    const std::string missing = dir.path() + "/missing.cfg";
    std::string nine;
    for (int i = 1; i <= 9; ++i) nine += std::to_string(i) + " m" + std::to_string(i) + " " + std::to_string(i) + " /x.so\n";
    const std::string full = file("nine.cfg", nine);

    // Keys and tokens made before the table, checked here.
    const std::string key = dir.path() + "/key", other = dir.path() + "/other", token = dir.path() + "/token";
    const std::string msg = dir.write("msg", "transfer 100 to account 42\n"), empty = dir.write("empty", "");
    for (const std::string &k : {key, other}) ASSERT_EQ(run({"mac", "keygen", k}).status, 0);
    const std::string key_bytes = qvtest::read_file(key);
    ASSERT_EQ(key_bytes.size(), 8u);
    EXPECT_NE(qvtest::read_file(other), key_bytes);
    auto *k = reinterpret_cast<const unsigned char *>(key_bytes.data());
    EXPECT_EQ(sec__des_check_key_parity(k), 1);
    EXPECT_EQ(sec__des_is_weak_key(k), 0);
    struct stat st{};
    ASSERT_EQ(stat(key.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(run({"mac", "sign", key, msg, token}).status, 0);
    const std::string token_bytes = qvtest::read_file(token);
    ASSERT_EQ(token_bytes.size(), 24u);
    qvtest::ToolRun hex = run({"mac", "sign", key, msg});
    EXPECT_EQ(hex.out, qvtest::to_hex(reinterpret_cast<const uint8_t *>(token_bytes.data()), 24) + "\n");
    const std::string token_hex = dir.write("token.hex", hex.out);
    std::string bad_key = key_bytes;
    bad_key[0] = static_cast<char>(bad_key[0] ^ 1);
    const std::string odd_key = dir.write("badkey", bad_key), short_key = dir.write("shortkey", bad_key.substr(0, 7));
    const std::string short_token = dir.write("short", token_bytes.substr(0, 23));
    const std::string changed = dir.write("changed", "transfer 900 to account 42\n");
    const std::string empty_token = dir.path() + "/empty.token";

    struct Case {
        std::vector<std::string> args;
        std::string config;  // QV_SEC_CONFIG ("" leaves it unset)
        int status;
        std::string out_has, err_has;  // "" for err_has: standard error stays empty
        std::string out_lacks = "\x01";
    };
    std::vector<Case> cases = {
        {{"--version"}, "", 0, "qvsec 1.0.0\n", ""},
        {{"--help"}, "", 0, "mac keygen|sign|verify", ""},
        {{"config", "--help"}, "", 0, "usage: qvsec config check [FILE]\n", ""},
        {{"mechs", "-h"}, "", 0, "usage: qvsec mechs [--load]\n", ""},
        {{"mac", "help"}, "", 0, "qvsec mac verify KEYFILE FILE TOKENFILE\n", ""},
        {{}, "", 2, "", "usage:"},
        {{"nosuch"}, "", 2, "", "unknown command 'nosuch'"},
        // config check
        {{"config", "check", good}, "", 0, "valid, 1 mechanism\npriority", ""},
        {{"config", "check"}, good, 0, good + ": valid", ""},
        {{"config", "check", good}, "", 0, " 0x7f000001 u ", ""},
        {{"config", "check", open_cfg}, "", 0, "valid", "is writable by its group or by others (mode 0666)"},
        {{"config", "check", shared_cfg}, "", 0, "valid", "module " + shared_module + " is writable"},
        {{"config", "check", bad}, "", 1, "", bad + ":2: 2650-019"},
        {{"config", "check", missing}, "", 1, "", missing + ": 2650-019"},
        {{"config"}, "", 2, "", "usage: qvsec config check"},
        {{"config", "check", good, "x"}, "", 2, "", "usage: qvsec config check"},
        // mechs
        {{"mechs"}, good, 0, "1 mechanism", ""},
        {{"mechs", "--load"}, good, 0, "load: ok", ""},
        {{"mechs", "--load"}, no_init, 1, "mpm_init: missing", ""},
        {{"mechs", "--load"}, no_file, 1, "load: failed", "", "mpm_init"},
        {{"mechs"}, full, 1, "", full + ": 2650-019"},  // more than the table holds
        {{"mechs"}, missing, 1, "", "2650-019"},
        {{"mechs", "--all"}, good, 2, "", "usage: qvsec mechs"},
        // mac
        {{"mac", "verify", key, msg, token}, "", 0, msg + ": verified\n", ""},
        {{"mac", "verify", key, msg, token_hex}, "", 0, msg + ": verified\n", ""},
        {{"mac", "verify", other, msg, token}, "", 1, "", "2650-048"},
        {{"mac", "verify", key, changed, token}, "", 1, "", "2650-049"},
        {{"mac", "verify", key, msg, short_token}, "", 1, "", short_token + ": 2650-047"},
        {{"mac", "verify", odd_key, msg, token}, "", 1, "", odd_key + ": 2650-045"},
        {{"mac", "sign", odd_key, msg}, "", 1, "", "2650-045"},
        {{"mac", "sign", short_key, msg}, "", 1, "", "2650-045"},
        {{"mac", "sign", key, missing}, "", 1, "", "cannot open: No such file or directory"},
        {{"mac", "verify", missing, msg, token}, "", 1, "", "cannot open: No such file or directory"},
        {{"mac", "keygen", key}, "", 1, "", "File exists"},
        {{"mac", "sign", key, empty, empty_token}, "", 0, "", "empty"},
        {{"mac", "verify", key, empty, empty_token}, "", 0, "nothing to verify", ""},
        {{"mac"}, "", 2, "", "usage: qvsec mac keygen KEYFILE"},
        {{"mac", "keygen", "a", "b"}, "", 2, "", "usage: qvsec mac keygen KEYFILE"},
        {{"mac", "sign", "k", "f", "t", "x"}, "", 2, "", "usage: qvsec mac keygen KEYFILE"},
        {{"mac", "verify", "k", "f"}, "", 2, "", "usage: qvsec mac keygen KEYFILE"},
    };
    // A file owned by another unprivileged user is worth a warning even when
    // only its owner may write it.
    if (geteuid() == 0) {
        std::string theirs = file("theirs.so", qvtest::read_file(module), 0755);
        std::string theirs_cfg = config("theirs.cfg", theirs);
        for (const std::string &p : {theirs, theirs_cfg}) EXPECT_EQ(chown(p.c_str(), kNobody, kNobody), 0);
        cases.push_back({{"config", "check", theirs_cfg}, "", 0, "valid",
                         "configuration file " + theirs_cfg + " is owned by"});
        cases.push_back({{"config", "check", theirs_cfg}, "", 0, "valid",
                         "module " + theirs + " is owned by"});
    }
    for (const Case &c : cases) {
        std::string shown;
        for (const std::string &a : c.args) shown += a + " ";
        SCOPED_TRACE(shown);
        qvtest::ToolRun r = run(c.args, c.config);
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_NE(r.out.find(c.out_has), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find(c.out_lacks), std::string::npos) << r.out;
        if (c.err_has.empty()) {
            EXPECT_EQ(r.err, "");
        } else {
            EXPECT_NE(r.err.find(c.err_has), std::string::npos) << r.err;
        }
    }
    EXPECT_EQ(qvtest::read_file(key), key_bytes);  // never replaced
    EXPECT_EQ(qvtest::read_file(empty_token), "");
}

}  // namespace
