// qvsec: the administrator's tool for the security library.
#include <cstdio>
#include <cstring>
#include <iterator>

#include "commands.h"
#include "qv_cu.h"
#include "qv_sec.h"

namespace {

const Command kCommands[] = {
    {"config", "config check [FILE]",
     "check a configuration file, its modules and the environment (default: the file the library would read)",
     run_config, kConfigUsage},
    {"mechs", "mechs [--load]",
     "list the configured mechanisms; with --load, load each module and list the routines it exports", run_mechs},
    {"mac", "mac keygen|sign|verify ...", "make a shared DES key, sign a file with it or verify a file's token", run_mac, kMacUsage},
    {"cidb", "cidb show [FILE|-]", "decode a CIDB (a client identity) from a file or standard input", run_cidb},
    {"acl", "acl show|add|del|check ...", "show, edit or check an ACL file", run_acl, kAclUsage},
    {"module", "module check PATH",
     "drive a mechanism module through the library and report each departure from the module contract",
     run_module},
    {"explain", "explain CODE|2650-NNN|--mech ...", "say what a return code, a message or a mechanism's status means",
     run_explain, kExplainUsage},
    {"host", "host keygen|show|trust|revoke ...",
     "make or show the host daemon's key; add or remove keys of the trusted-hosts file", run_host, kHostUsage},
};

void usage(FILE *out) {
    std::fprintf(out, "usage:\n");
    for (const Command &c : kCommands) std::fprintf(out, "  qvsec %-28s %s\n", c.usage, c.summary);
}

}  // namespace

std::string current_error_message() {
    cu_error_t *err = nullptr;
    if (cu_get_error_1(&err) != 0 || err == nullptr) return "unknown error (no error record)";
    char *msg = nullptr;
    std::string text = "unknown error";
    if (err->cu_error_id != 0 && cu_get_errmsg_1(err, &msg) == 0 && msg != nullptr) text = msg;
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(err);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

bool asks_for_help(const char *arg) {
    return !std::strcmp(arg, "-h") || !std::strcmp(arg, "--help") || !std::strcmp(arg, "help");
}

int main(int argc, char **argv) {
    if (argc < 2 || asks_for_help(argv[1])) {
        usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? kExitUsage : kExitOk;
    }
    if (!std::strcmp(argv[1], "--version")) {
        // The library's own version: the tool reports what it runs with.
        std::printf("qvsec %s\n", sec_version());
        return kExitOk;
    }
    for (const Command &c : kCommands) {
        if (std::strcmp(argv[1], c.name) != 0) continue;
        // Help asked for on purpose goes to standard output, with success.
        if (argc == 3 && asks_for_help(argv[2])) {
            if (c.help != nullptr)
                std::fputs(c.help, stdout);
            else
                std::printf("usage: qvsec %s\n  %s\n", c.usage, c.summary);
            return kExitOk;
        }
        return c.run(Args(argv + 2, argv + argc));
    }
    std::fprintf(stderr, "qvsec: unknown command '%s'\n", argv[1]);
    usage(stderr);
    return kExitUsage;
}
