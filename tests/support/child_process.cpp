#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "test_support.h"

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#else
#define RUNNING_ON_VALGRIND 0
#endif

extern char **environ;

namespace qvtest {

int wait_bounded(int pid, std::chrono::milliseconds limit) {
    int status = 0;
    bool done = wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit);
    if (!done) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        ADD_FAILURE() << "child " << pid << " did not finish in time";
        return -1;
    }
    if (!WIFEXITED(status)) {
        ADD_FAILURE() << "child " << pid << " ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
        return -1;
    }
    return WEXITSTATUS(status);
}

int run_in_child(const std::function<int()> &body, std::chrono::milliseconds limit) {
    pid_t pid = fork();
    if (pid < 0) {
        ADD_FAILURE() << "fork failed";
        return -1;
    }
    if (pid == 0) {
        int rc = 125;
        try {
            rc = body();
        } catch (...) {
        }
        // Under valgrind the child's exit would run a leak check over the
        // parent's heap, whose blocks belonged to threads that the child does
        // not have: every child would "leak". Ending through exec of a shell
        // that exits with the child's result skips that check; the parent's
        // own run still checks its heap, and errors found in the child are
        // still reported in the log.
        if (RUNNING_ON_VALGRIND) {
            std::string code = "exit " + std::to_string(rc);
            execl("/bin/sh", "sh", "-c", code.c_str(), static_cast<char *>(nullptr));
        }
        _exit(rc);
    }
    return wait_bounded(pid, limit);
}

std::string self_exe() {
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    return n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string("/proc/self/exe");
}

int spawn_tool(const std::string &program, const std::vector<std::string> &args, const std::string &out,
               const std::string &err, const std::map<std::string, std::string> &env, const std::string &in) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (err.empty()) {
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
    } else {
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }

    std::vector<std::string> envs;
    std::set<std::string> replaced;
    for (const auto &[k, v] : env) {
        replaced.insert(k);
        if (!v.empty()) envs.push_back(k + "=" + v);
    }
    for (char **e = environ; *e != nullptr; ++e) {
        std::string s = *e;
        if (replaced.count(s.substr(0, s.find('='))) == 0) envs.push_back(s);
    }
    std::vector<char *> argv, envp;
    std::vector<std::string> all = args;
    all.insert(all.begin(), program);
    for (std::string &a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (std::string &e : envs) envp.push_back(e.data());
    envp.push_back(nullptr);

    pid_t pid = -1;
    if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) {
        ADD_FAILURE() << "cannot start " << program;
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

ToolRun run_tool(const std::string &program, const std::vector<std::string> &args,
                 const std::map<std::string, std::string> &env, const std::string &stdin_text,
                 std::chrono::milliseconds limit) {
    TempDir dir;
    std::string in = dir.write("stdin", stdin_text), out = dir.path() + "/stdout", err = dir.path() + "/stderr";
    ToolRun r;
    int pid = spawn_tool(program, args, out, err, env, in);
    if (pid < 0) return r;
    r.status = wait_bounded(pid, limit);
    r.out = read_file(out);
    r.err = read_file(err);
    return r;
}

}  // namespace qvtest
