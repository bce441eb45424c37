// `qvsec config check`, `qvsec mechs`, help and version, run as programs:
// exit statuses, what goes to which stream, and the warnings about files a
// user other than root or the caller could change.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "child_process.h"
#include "test_mpm.h"
#include "test_support.h"

namespace {

constexpr uid_t kNobody = 65534;

bool contains(const std::string &s, const std::string &part) { return s.find(part) != std::string::npos; }

TEST(QvsecTool, SuccessAndRefusalPaths) {
    qvtest::TempDir dir;
    auto file = [&](const std::string &name, const std::string &text, mode_t mode = 0644) {
        std::string path = dir.write(name, text);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return path;
    };
    auto config = [&](const std::string &name, const std::string &module, mode_t mode = 0644) {
        return file(name, "1 qvtest 0x7f000001 " + module + " i\n", mode);
    };
    const std::string module = qvtest::module_path(qvtest::kTestMpm);
    const std::string good = config("good.cfg", module);
    const std::string open_cfg = config("open.cfg", module, 0666);
    const std::string shared_module = file("shared.so", qvtest::read_file(module), 0775);
    const std::string shared_cfg = config("shared.cfg", shared_module);
    const std::string no_init = config("noinit.cfg", qvtest::module_path(qvtest::kTestMpmNoInit));
    const std::string bad = file("bad.cfg", "# first\n1 a 1 /a.so\n");
    const std::string missing = dir.path() + "/missing.cfg";

    struct Case {
        std::vector<std::string> args;
        std::string config;  // QV_SEC_CONFIG ("" leaves it unset)
        int status;
        std::string out_has, err_has;  // "" for err_has: standard error stays empty
    } cases[] = {
        {{"--version"}, "", 0, "qvsec 1.0.0\n", ""},
        {{"config", "--help"}, "", 0, "usage: qvsec config check [FILE]\n", ""},
        {{"mechs", "-h"}, "", 0, "usage: qvsec mechs [--load]\n", ""},
        {{"mac", "--help"}, "", 0, "qvsec mac verify KEYFILE FILE TOKENFILE\n", ""},
        {{"config", "check", good}, "", 0, "valid, 1 mechanism\n", ""},
        {{"config", "check"}, good, 0, good + ": valid", ""},
        {{"config", "check", open_cfg}, "", 0, "valid", "is writable by its group or by others (mode 0666)"},
        {{"config", "check", shared_cfg}, "", 0, "valid", "module " + shared_module + " is writable"},
        {{"config", "check", bad}, "", 1, "", bad + ":2: 2650-019"},
        {{"config", "check", missing}, "", 1, "", "2650-019"},
        {{"config"}, "", 2, "", "usage: qvsec config check"},
        {{"mechs"}, good, 0, "1 mechanism", ""},
        {{"mechs", "--load"}, good, 0, "load: ok", ""},
        {{"mechs", "--load"}, no_init, 1, "mpm_init: missing", ""},
        {{"mechs"}, missing, 1, "", "2650-019"},
        {{"mechs", "--all"}, good, 2, "", "usage: qvsec mechs"},
        {{"nosuch"}, "", 2, "", "unknown command 'nosuch'"},
        {{}, "", 2, "", "usage:"},
    };
    for (const Case &c : cases) {
        std::string shown;
        for (const std::string &a : c.args) shown += a + " ";
        SCOPED_TRACE(shown);
        qvtest::ToolRun run = qvtest::run_tool(QVSEC_PATH, c.args, {{"QV_SEC_CONFIG", c.config}});
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_TRUE(contains(run.out, c.out_has)) << run.out;
        if (c.err_has.empty()) {
            EXPECT_EQ(run.err, "");
        } else {
            EXPECT_TRUE(contains(run.err, c.err_has)) << run.err;
        }
    }
}

// A file owned by another unprivileged user is worth a warning even when
// only its owner may write it.
TEST(QvsecTool, WarnsAboutFilesOfAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give a file to another user";
    qvtest::TempDir dir;
    std::string module = dir.write("theirs.so", qvtest::read_file(qvtest::module_path(qvtest::kTestMpm)));
    std::string cfg = dir.write("theirs.cfg", "1 qvtest 0x7f000001 " + module + " i\n");
    ASSERT_EQ(chown(module.c_str(), kNobody, kNobody), 0);
    ASSERT_EQ(chown(cfg.c_str(), kNobody, kNobody), 0);
    qvtest::ToolRun run = qvtest::run_tool(QVSEC_PATH, {"config", "check", cfg});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(contains(run.err, "configuration file " + cfg + " is owned by")) << run.err;
    EXPECT_TRUE(contains(run.err, "module " + module + " is owned by")) << run.err;
    EXPECT_TRUE(contains(run.err, "(uid 65534), neither root nor you")) << run.err;
}

}  // namespace
