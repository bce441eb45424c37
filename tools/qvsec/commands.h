// Subcommands of the qvsec tool. Each takes the arguments after its own name
// and returns the process exit status.
#pragma once

#include <string>
#include <vector>

using Args = std::vector<std::string>;

struct Command {
    const char *name;
    const char *usage;    // one line, after "qvsec "
    const char *summary;  // what it does
    int (*run)(const Args &args);
    const char *help = nullptr;  // the full usage when one line is not enough
};

int run_config(const Args &args);
int run_mechs(const Args &args);
int run_mac(const Args &args);
int run_cidb(const Args &args);
int run_acl(const Args &args);
int run_module(const Args &args);
int run_explain(const Args &args);
int run_host(const Args &args);

// The usage of `qvsec mac`, one line per form.
extern const char *const kMacUsage;
// The usage of `qvsec acl`.
extern const char *const kAclUsage;
// The usage of `qvsec config` and `qvsec explain`.
extern const char *const kConfigUsage;
extern const char *const kExplainUsage;
// The usage of `qvsec host`.
extern const char *const kHostUsage;

// The formatted text of the calling thread's error record (catalogue or
// default text), without a trailing newline.
std::string current_error_message();

// Exit statuses shared by the subcommands.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
