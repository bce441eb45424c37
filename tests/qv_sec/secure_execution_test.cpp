// The library in a set-user-id root program started by an unprivileged user
// who controls its environment: a configuration or module file that user
// could have written is never read or loaded, and the trace and node-id
// variables choose no file. Needs root (to install the program) and setpriv (util-linux).
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "child_process.h"
#include "qv_cu.h"
#include "test_mpm.h"
#include "test_support.h"

namespace {

constexpr uid_t kNobody = 65534;
constexpr const char *kSetpriv = "/usr/bin/setpriv";

bool exists(const std::string &path) {
    struct stat sb;
    return lstat(path.c_str(), &sb) == 0;
}

// Writes contents to path owned by uid with the given mode.
void install(const std::string &path, const std::string &contents, uid_t uid, mode_t mode) {
    FILE *f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr) << path;
    ASSERT_EQ(std::fwrite(contents.data(), 1, contents.size(), f), contents.size());
    std::fclose(f);
    ASSERT_EQ(chown(path.c_str(), uid, uid), 0);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

// Whether another user can reach path: every directory above it searchable
// by others.
bool others_can_reach(std::string path) {
    while (path.size() > 1) {
        path.erase(path.rfind('/'));
        if (path.empty()) path = "/";
        struct stat sb;
        if (stat(path.c_str(), &sb) != 0 || !(sb.st_mode & S_IXOTH)) return false;
    }
    return true;
}

TEST(SecureExecution, FilesAnotherUserCouldWriteAreRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to install a set-user-id test program";
    if (access(kSetpriv, X_OK) != 0) GTEST_SKIP() << kSetpriv << " (util-linux) is not installed";

    qvtest::TempDir dir;
    for (const std::string &p : {dir.path(), std::string(QVSEC_PROBE_PATH)}) {
        if (!others_can_reach(p)) GTEST_SKIP() << "another user cannot reach " << p;
    }
    const std::string top = dir.path(), attic = top + "/attic", vault = top + "/vault";
    ASSERT_EQ(chmod(top.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(attic.c_str(), 0755), 0);  // the unprivileged user's own directory
    ASSERT_EQ(chown(attic.c_str(), kNobody, kNobody), 0);
    ASSERT_EQ(mkdir(vault.c_str(), 0755), 0);  // root's: only a privileged process writes here
    const std::string probe = top + "/probe";
    install(probe, qvtest::read_file(QVSEC_PROBE_PATH), 0, 04755);

    const std::string module = qvtest::read_file(qvtest::module_path(qvtest::kTestMpm));
    const std::string good = top + "/good.so", writable = top + "/writable.so", foreign = attic + "/foreign.so";
    install(good, module, 0, 0755);
    install(writable, module, 0, 0775);
    install(foreign, module, kNobody, 0755);
    auto config = [&](const std::string &name, const std::string &so, uid_t uid, mode_t mode) {
        install(top + "/" + name, "1 qvtest 0x7f000001 " + so + " \n", uid, mode);
        return top + "/" + name;
    };
    // A trace file path that leads, through a link the user planted, into
    // root's directory.
    ASSERT_EQ(symlink((vault + "/planted").c_str(), (attic + "/trace").c_str()), 0);

    struct Case {
        const char *what;
        std::string config;
        bool module_runs;
        const char *out;
    } cases[] = {
        {"trusted files (the control)", config("c1", good, 0, 0644), true, "secure=1 rc=0"},
        {"module owned by the user", config("c2", foreign, 0, 0644), false, "secure=1 rc=0"},
        {"module writable by its group", config("c3", writable, 0, 0644), false, "secure=1 rc=0"},
        {"configuration owned by the user", config("c4", good, kNobody, 0644), false, "secure=1 rc=21"},
        {"configuration writable by others", config("c5", good, 0, 0666), false, "secure=1 rc=21"},
    };
    // A file only root may read, offered as the node id file.
    install(vault + "/secret", "00000000deadbeef\n", 0, 0600);
    unsetenv("QV_NODE_ID_FILE");
    qv_uint64_t node = 0;
    int node_rc = cu_get_node_id_1(&node);
    char node_text[64];
    std::snprintf(node_text, sizeof node_text, " api=0 node=%d:%016llx\n", node_rc, static_cast<unsigned long long>(node));

    const std::string marker = vault + "/mpm_init-ran";
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        unlink(marker.c_str());
        qvtest::ToolRun run = qvtest::run_tool(
            kSetpriv, {"--reuid=65534", "--regid=65534", "--clear-groups", probe},
            {{"QV_SEC_CONFIG", c.config}, {"QV_TRACE", "*:*=8"}, {"QV_TRACE_FILE", attic + "/trace"},
             {"QVTEST_MPM_INIT_MARKER", marker}, {"QV_NODE_ID_FILE", vault + "/secret"}});
        if (run.out.rfind("secure=0", 0) == 0) GTEST_SKIP() << "set-user-id has no effect here (nosuid mount?)";
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.out, c.out + std::string(node_text)) << run.err;
        EXPECT_EQ(exists(marker), c.module_runs);
        EXPECT_FALSE(exists(vault + "/planted"));
    }
}

}  // namespace
