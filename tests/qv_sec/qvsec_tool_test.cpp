// The qvsec tool run as a program: config check, mechs, mac, help and
// version. One row per outcome: the exit status, what goes to which stream,
// the library's message number for every refusal, and the warnings about
// files a user other than root or the caller could change.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "child_process.h"
#include "messages.h"
#include "qv_sec_internal.h"
#include "test_mpm.h"
#include "test_support.h"

namespace {

constexpr uid_t kNobody = 65534;

TEST(QvsecTool, SuccessAndRefusalPaths) {
    qvtest::TempDir dir;
    // The variables config check looks at are unset unless a row sets them.
    using Env = std::map<std::string, std::string>;
    auto run = [](const std::vector<std::string> &args, const std::string &config = "", const Env &env = {}) {
        Env all = {{"QV_SEC_CONFIG", config}, {"QV_SEC_MECH", ""}, {"QV_SEC_IMP_MECHS", ""}, {"QV_TRACE", ""},
                   {"QV_TRACE_FILE", ""}};
        for (const auto &[k, v] : env) all[k] = v;
        return qvtest::run_tool(QVSEC_PATH, args, all);
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
    const std::string local = file("local.cfg", "1 local 1 " + qvtest::module_path("mpm_local.so") + " i\n");
    const std::string not_elf = config("notelf.cfg", qvtest::module_path(qvtest::kTestMpmNotElf));
    const std::string flags = file("flags.cfg", "1 qvtest 0x7f000001 " + module + " ix trailing\n");
    const std::string order = file("order.cfg", "2 qvtest 0x7f000001 " + module + " i\n1 averyveryverylongmnemonic 2 " +
                                                    module + " -\n");
    const std::string spaced = file("spaced.cfg", "1 qvtest 0x7f000001 /opt/my mods/a.so i\n");
    const std::string unreadable = config("unreadable.cfg", module, 0);
    const std::string trace = dir.path() + "/t.trc", no_trace = "/nonexistent/t.trc";

    // Keys and tokens made before the table, checked here.
    const std::string key = dir.path() + "/key", other = dir.path() + "/other", token = dir.path() + "/token";
    const std::string msg = dir.write("msg", "transfer 100 to account 42\n"), empty = dir.write("empty", "");
    for (const std::string &k : {key, other}) ASSERT_EQ(run({"mac", "keygen", k}).status, 0);
    const std::string key_bytes = qvtest::read_file(key);
    ASSERT_EQ(key_bytes.size(), 8u);
    EXPECT_NE(qvtest::read_file(other), key_bytes);
    struct stat st{};
    ASSERT_EQ(stat(key.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(run({"mac", "sign", key, msg, token}).status, 0);
    const std::string token_bytes = qvtest::read_file(token);
    ASSERT_EQ(token_bytes.size(), 24u);
    qvtest::ToolRun hex = run({"mac", "sign", key, msg});
    EXPECT_EQ(hex.out, qvtest::to_hex(reinterpret_cast<const uint8_t *>(token_bytes.data()), 24) + "\n");
    const std::string short_token = dir.write("short", token_bytes.substr(0, 23));
    const std::string empty_token = dir.path() + "/empty.token";

    struct Case {
        std::vector<std::string> args;
        std::string config;  // QV_SEC_CONFIG ("" leaves it unset)
        int status;
        std::string out_has, err_has;  // "" for err_has: standard error stays empty
        std::string out_lacks = "\x01";
        Env env = {};
    };
    std::vector<Case> cases = {
        {{"--version"}, "", 0, "qvsec 1.0.0\n", ""},
        {{"--help"}, "", 0, "mac keygen|sign|verify", ""},
        {{"config", "--help"}, "", 0, "usage: qvsec config check [FILE]\n", ""},
        {{"mechs", "-h"}, "", 0, "usage: qvsec mechs [--load]\n", ""},
        {{}, "", 2, "", "usage:"},
        {{"nosuch"}, "", 2, "", "unknown command 'nosuch'"},
        // config check
        {{"config", "check", good}, "", 0, "valid, 1 mechanism\npriority", ""},
        {{"config", "check"}, good, 0, good + ": valid", ""},
        {{"config", "check", open_cfg}, "", 2, "valid", "is writable by its group or by others (mode 0666)"},
        {{"config", "check", shared_cfg}, "", 2, "valid", "module " + shared_module + " is writable"},
        {{"config", "check", missing}, "", 1, "", missing + ": 2650-019"},
        {{"config"}, "", 1, "", "usage: qvsec config check"},
        // config check: the search order, each refusal's reason, what is
        // accepted but rarely meant, the modules and the environment.
        {{"config", "check"}, good, 0, "\nchosen: " + good + "\n", ""},
        {{"config", "check", missing}, "", 1, "", missing + ": error: the file does not exist\n"},
        {{"config", "check", dir.path()}, "", 1, "", dir.path() + ": error: the path names a directory"},
        {{"config", "check", bad}, "", 1, "", bad + ":2: error: field 4 (path) ends the line"},
        {{"config", "check", flags}, "", 2, "valid", flags + ":1: warning: flag letter 'x' is not known"},
        {{"config", "check", order}, "", 2, "valid", order + ":2: warning: priority 1 is not above line 1's 2"},
        {{"config", "check", order}, "", 2, "valid", order + ":2: warning: module " + module + " is also line 1's",
         "mpm_init\nmodule "},  // a module shared by two lines is loaded once
        {{"config", "check", spaced}, "", 1, "valid", "warning: the path seems to hold a blank: the library reads '/opt/my'"},
        {{"config", "check", no_init}, "", 1, "valid", "error: module " + qvtest::module_path(qvtest::kTestMpmNoInit) +
                                                          ": does not export mpm_init"},
        {{"config", "check", not_elf}, "", 1, "valid", ": cannot be loaded (2650-051): "},
        {{"config", "check", good}, "", 2, "valid", "QV_SEC_IMP_MECHS: warning: allows only 'none'", "\x01",
         {{"QV_SEC_IMP_MECHS", "none"}}},
        {{"config", "check", good}, "", 1, "valid", "QV_TRACE: error: 'junk' is not component:category=level",
         "\x01", {{"QV_TRACE", "junk;_SEA:API=1"}, {"QV_TRACE_FILE", trace}}},
        {{"config", "check", good}, "", 2, "valid", "QV_SEC_MECH: warning: 'bogus' is not a configured mechanism",
         "\x01", {{"QV_SEC_MECH", "bogus"}}},
        {{"config", "check", good}, "", 1, "valid", "(mnemonics are separated by blanks, not commas)", "\x01",
         {{"QV_SEC_IMP_MECHS", "qvtest,x"}}},
        {{"config", "check", good}, "", 2, "valid", "QV_TRACE: warning: category 'Bufer' is not one of the library's",
         "\x01", {{"QV_TRACE", "_SEA:Bufer=1"}, {"QV_TRACE_FILE", trace}}},
        {{"config", "check", good}, "", 1, "valid", "QV_TRACE_FILE: error: " + no_trace + " cannot be created",
         "\x01", {{"QV_TRACE", "_SEA:*=1"}, {"QV_TRACE_FILE", no_trace}}},
        {{"config", "check", good}, "", 2, "valid", "QV_TRACE: warning: is set but QV_TRACE_FILE is not", "\x01",
         {{"QV_TRACE", "_SEA:API=1"}}},
        // explain
        {{"explain", "2650-019"}, "", 0, "\nmessage: ", ""},
        {{"explain", "--mech", "local", "8", "88"}, local, 0,
         "\n  local: no socket was given to the mechanism: call sec_setup_socket", ""},
        {{"explain", "--mech", "nosuch", "8", "88"}, good, 1, "", "no mechanism named 'nosuch' in " + good},
        {{"explain", "99"}, "", 1, "", "99 is not a return code of the library"},
        {{"explain"}, "", 2, "", "usage: qvsec explain CODE"},
        // mechs
        {{"mechs"}, good, 0, "1 mechanism", ""},
        {{"mechs", "--load"}, good, 0, "load: ok", ""},
        {{"mechs", "--load"}, no_init, 1, "mpm_init: missing", ""},
        {{"mechs", "--load"}, no_file, 1, "load: failed", "", "mpm_init"},
        {{"mechs"}, full, 1, "", full + ": 2650-019"},  // more than the table holds
        {{"mechs", "--all"}, good, 2, "", "usage: qvsec mechs"},
        // mac
        {{"mac", "verify", key, msg, token}, "", 0, msg + ": verified\n", ""},
        {{"mac", "verify", other, msg, token}, "", 1, "", "2650-048"},
        {{"mac", "verify", key, msg, short_token}, "", 1, "", short_token + ": 2650-047"},
        {{"mac", "sign", key, missing}, "", 1, "", "cannot open: No such file or directory"},
        {{"mac", "keygen", key}, "", 1, "", "File exists"},
        {{"mac", "sign", key, empty, empty_token}, "", 0, "", "empty"},
        {{"mac", "verify", key, empty, empty_token}, "", 0, "nothing to verify", ""},
        {{"mac"}, "", 2, "", "usage: qvsec mac keygen KEYFILE"},
        // mechs --load names what each missing routine disables; module check
        {{"mechs", "--load"}, good, 0, "routines (25 of 25)", "", "missing"},
        {{"mechs", "--load"}, config("noflags.cfg", qvtest::module_path(qvtest::kTestMpmNoFlags)), 0,
         "  missing mpm_get_ctx_flags: sec_get_ctx_attribute (flags) and sec_create_cidb fail with return code 22", ""},
        {{"module"}, "", 2, "", "usage: qvsec module check PATH"},
        {{"module", "check", missing}, "", 1, "", missing + ": No such file or directory"},
    };
    // A file owned by another unprivileged user is worth a warning even when
    // only its owner may write it.
    if (geteuid() != 0) {
        cases.push_back({{"config", "check", unreadable}, "", 1, "", unreadable + ": error: the file cannot be read"});
    } else {
        std::string theirs = file("theirs.so", qvtest::read_file(module), 0755);
        std::string theirs_cfg = config("theirs.cfg", theirs);
        for (const std::string &p : {theirs, theirs_cfg}) EXPECT_EQ(chown(p.c_str(), kNobody, kNobody), 0);
        cases.push_back({{"config", "check", theirs_cfg}, "", 2, "valid",
                         "configuration file " + theirs_cfg + " is owned by"});
        cases.push_back({{"config", "check", theirs_cfg}, "", 2, "valid",
                         "module " + theirs + " is owned by"});
    }
    for (const Case &c : cases) {
        std::string shown;
        for (const std::string &a : c.args) shown += a + " ";
        SCOPED_TRACE(shown);
        qvtest::ToolRun r = run(c.args, c.config, c.env);
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_NE(r.out.find(c.out_has), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find(c.out_lacks), std::string::npos) << r.out;
        if (c.err_has.empty()) {
            EXPECT_EQ(r.err, "");
        } else {
            EXPECT_NE(r.err.find(c.err_has), std::string::npos) << r.err;
        }
    }
    // QV_SEC_CONFIG set to the empty string, which the tool's runner cannot
    // pass as such.
    qvtest::ToolRun empty_path = qvtest::run_tool("/usr/bin/env", {"QV_SEC_CONFIG=", QVSEC_PATH, "config", "check"});
    EXPECT_EQ(empty_path.status, 1);
    EXPECT_NE(empty_path.err.find("(empty path): error: the path is empty"), std::string::npos) << empty_path.err;
    EXPECT_EQ(qvtest::read_file(key), key_bytes);  // never replaced
    EXPECT_EQ(qvtest::read_file(empty_token), "");
}

}  // namespace
