// Child processes with a bounded wait: a test never hangs on a child, and a
// child that does not finish in time is killed and reported.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qvtest {

// Forks; the child runs body and exits with its result (an escaping
// exception exits 125). Returns the child's exit status, or -1 (after
// reporting a test failure) when it was killed by a signal or did not finish
// within limit, in which case it is killed.
int run_in_child(const std::function<int()> &body, std::chrono::milliseconds limit = std::chrono::seconds(30));

// Waits for pid as run_in_child does.
int wait_bounded(int pid, std::chrono::milliseconds limit = std::chrono::seconds(30));

// The running test program's own file (not "/proc/self/exe", which a
// program run under valgrind cannot exec).
std::string self_exe();

// A program's run: exit status (-1 when it did not exit), standard output
// and standard error.
struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

// Starts program with args (argv[0] is the program), the environment of the
// test plus env (an empty value removes the variable), standard input from
// the file in, output to the file out and error to err (empty: to out).
// Returns its pid, or -1 after reporting a test failure.
int spawn_tool(const std::string &program, const std::vector<std::string> &args, const std::string &out,
               const std::string &err = "", const std::map<std::string, std::string> &env = {},
               const std::string &in = "/dev/null");

// Runs program as spawn_tool does, standard input from /dev/null (or from
// stdin_text), and waits for it within limit.
ToolRun run_tool(const std::string &program, const std::vector<std::string> &args,
                 const std::map<std::string, std::string> &env = {}, const std::string &stdin_text = "",
                 std::chrono::milliseconds limit = std::chrono::seconds(60));

}  // namespace qvtest
