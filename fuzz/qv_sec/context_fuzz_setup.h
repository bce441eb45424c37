// What the context fuzzers share: the test modules configured as mechanisms
// A and B through a temporary configuration file named in QV_SEC_CONFIG
// before the library's first call, a client and a server service token, and
// control of module A's behaviour. The modules are looked up in the
// fuzzer's build tree (every fuzz and test build makes them) or in the
// sibling default build tree; QV_FUZZ_TEST_MPM_DIR names another directory.
// Without them no input could get past the module lookup, so the fuzzer
// stops at once rather than run checks that cannot fail.
#pragma once

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../../tests/support/test_mpm_control.h"
#include "../fuzz_support.h"
#include "qv_sec_internal.h"

namespace ctxfuzz {

inline constexpr qv_uint32_t kCodeA = 0x00010002u;
inline constexpr qv_uint32_t kCodeB = 0x51u;

struct Setup {
    sec_token_t client_svc = nullptr;
    sec_token_t server_svc = nullptr;
    // Module A's control block, and its routines that put it back to its
    // defaults and count what it holds.
    qvtest_mpm_control_t *control = nullptr;
    void (*reset_module)() = nullptr;
    long (*live_handles)() = nullptr;
    long (*live_buffers)() = nullptr;

    qvtest_mpm_behaviour_t *behaviour(int routine) const { return &control->behaviour[routine]; }
};

inline std::string module_dir() {
    if (const char *d = std::getenv("QV_FUZZ_TEST_MPM_DIR")) return d;
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string dir = n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string("./x");
    dir.erase(dir.rfind('/'));
    struct stat sb;
    for (const char *rel : {"/../lib/qvsec", "/../../build/lib/qvsec"}) {
        if (stat((dir + rel + "/libqvtest_mpm.so").c_str(), &sb) == 0) return dir + rel;
    }
    return dir + "/../lib/qvsec";
}

inline const Setup &setup() {
    static Setup s = [] {
        Setup r;
        std::string dir = module_dir();
        std::string a = dir + "/libqvtest_mpm.so", b = dir + "/libqvtest_mpm2.so";
        char cfg[] = "/tmp/qvsec-fuzz-XXXXXX";
        int fd = mkstemp(cfg);
        if (fd < 0) abort();
        std::string text = "1 qvtest " + std::to_string(kCodeA) + " " + a + " i\n2 qvtest2 " + std::to_string(kCodeB) +
                           " " + b + " i\n";
        if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) abort();
        close(fd);
        setenv("QV_SEC_CONFIG", cfg, 1);
        static std::string cfg_path = cfg;
        atexit([] { unlink(cfg_path.c_str()); });

        void *h = dlopen(a.c_str(), RTLD_NOW);
        if (h == nullptr) {
            std::fprintf(stderr, "test module not found in %s: %s\n", dir.c_str(), dlerror());
            abort();
        }
        r.control = reinterpret_cast<qvtest_mpm_control_t *(*)()>(dlsym(h, "qvtest_mpm_control"))();
        r.reset_module = reinterpret_cast<void (*)()>(dlsym(h, "qvtest_mpm_reset"));
        r.live_handles = reinterpret_cast<long (*)()>(dlsym(h, "qvtest_mpm_live_handles"));
        r.live_buffers = reinterpret_cast<long (*)()>(dlsym(h, "qvtest_mpm_live_buffers"));
        sec_status_desc st{};
        if (sec_start(&st, 0, &r.client_svc) != 0 || sec_start(&st, 0, &r.server_svc) != 0) abort();
        return r;
    }();
    return s;
}

// The setup with module A back to its defaults, as every input starts.
inline const Setup &fresh_setup() {
    const Setup &s = setup();
    s.reset_module();
    return s;
}

// sec_start_sec_context on the client's service token with the shared list
// `list` (NULL: module A's code alone).
inline qv_int32_t start_client(const Setup &s, sec_buffer_t list, sec_token_t *ctx, sec_buffer_t first) {
    static const uint8_t a_only[] = {0x81, 1, 0x00, 0x01, 0x00, 0x02};
    sec_buffer_desc own{sizeof a_only, const_cast<uint8_t *>(a_only)};
    sec_status_desc st{};
    char svc[] = "fuzz", host[] = "host";
    return sec_start_sec_context(&st, s.client_svc, list != nullptr ? list : &own, svc, host, 0, ctx, first);
}

// A client and a server context that a real one-round exchange over module
// A established, made once and kept for every input (nothing an input does
// to them may end them).
struct ContextPair {
    sec_token_t client = nullptr;
    sec_token_t server = nullptr;
};

inline const ContextPair &established_pair() {
    static ContextPair c = [] {
        const Setup &s = fresh_setup();
        ContextPair r;
        if (qvtest_mpm_behaviour_t *b = s.behaviour(QVTEST_MPM_START_SEC_CONTEXT)) b->continue_rounds = 1;
        sec_status_desc st{};
        sec_buffer_desc first{0, nullptr}, answer{0, nullptr}, last{0, nullptr};
        if (start_client(s, nullptr, &r.client, &first) != 1 ||
            sec_receive_sec_context(&st, s.server_svc, &first, &r.server, &answer) != 0 ||
            sec_complete_sec_context(&st, &answer, &r.client, &last) != 0) {
            std::fprintf(stderr, "no context pair over the test module\n");
            abort();
        }
        free(first.value);
        free(answer.value);
        free(last.value);
        s.reset_module();
        return r;
    }();
    return c;
}

// Stops the fuzzer when module A holds more handles or buffers than before
// the input: a leak on some path.
struct LeakCheck {
    explicit LeakCheck(const Setup &s) : s_(s), handles_(s.live_handles()), buffers_(s.live_buffers()) {}
    void check(long handed_out = 0) const {
        qvfuzz::check(s_.live_handles() == handles_ && s_.live_buffers() == buffers_ + handed_out);
    }
    const Setup &s_;
    const long handles_, buffers_;
};

// A caller's output buffer must be either empty or a CCDB.
inline void check_ccdb_output(const sec_buffer_desc &b) {
    if (b.length == 0) {
        if (b.value != nullptr) __builtin_trap();
        return;
    }
    if (b.length < 6 || b.value == nullptr || static_cast<const uint8_t *>(b.value)[0] != SEC_BUF_CCDB) __builtin_trap();
}

}  // namespace ctxfuzz
