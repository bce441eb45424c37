// A full two-round context establishment between a client and a server plus
// one seal and open, through the library, against the same module calls made
// directly on the test module (its mpm_* routines found with dlsym). Prints
// nanoseconds per establishment for both and their ratio: the library's own
// share (tokens, CCDBs, seal buffers, checks, locks) against the module's.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <string>
#include <unistd.h>

#include "bench_config.h"
#include "qv_sec.h"
#include "qv_sec_mpm.h"
#include "test_mpm_control.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRuns = 5;
constexpr long kIterations = 20'000;

struct Module {
    decltype(&mpm_start) start;
    decltype(&mpm_end) end;
    decltype(&mpm_start_sec_context) start_ctx;
    decltype(&mpm_receive_sec_context) receive_ctx;
    decltype(&mpm_complete_sec_context) complete_ctx;
    decltype(&mpm_prepare_data) prepare;
    decltype(&mpm_process_data) process;
    decltype(&mpm_release_buffer) release;
    decltype(&mpm_end_context) end_ctx;
    qvtest_mpm_control_t *control;
};

template <typename F>
F find(void *h, const char *name) {
    void *p = dlsym(h, name);
    if (p == nullptr) {
        std::fprintf(stderr, "%s missing in the test module\n", name);
        std::exit(1);
    }
    return reinterpret_cast<F>(p);
}

// Two rounds: the client's start and first completion, and the server's
// first answer, ask for more.
void script(qvtest_mpm_control_t *c) {
    c->behaviour[QVTEST_MPM_START_SEC_CONTEXT].continue_rounds = 1;
    c->behaviour[QVTEST_MPM_COMPLETE_SEC_CONTEXT].continue_rounds = 1;
    c->behaviour[QVTEST_MPM_RECEIVE_SEC_CONTEXT].continue_rounds = 1;
}

sec_buffer_desc g_msg{16, const_cast<char *>("sixteen bytes...")};

bool through_library(sec_token_t csvc, sec_token_t ssvc, sec_buffer_t list, qvtest_mpm_control_t *control) {
    script(control);
    sec_status_desc st;
    sec_token_t cctx = nullptr, sctx = nullptr;
    sec_buffer_desc c1{}, s1{}, c2{}, s2{}, c3{}, sealed{}, opened{};
    char svc[] = "svc", host[] = "host";
    bool ok = sec_start_sec_context(&st, csvc, list, svc, host, 0, &cctx, &c1) == 1 &&
              sec_receive_sec_context(&st, ssvc, &c1, &sctx, &s1) == 1 &&
              sec_complete_sec_context(&st, &s1, &cctx, &c2) == 1 &&
              sec_receive_sec_context(&st, ssvc, &c2, &sctx, &s2) == 0 &&
              sec_complete_sec_context(&st, &s2, &cctx, &c3) == 0 &&
              sec_prepare_data(&st, cctx, SEC_F_PROTECT_MODE1, &g_msg, &sealed) == 0 &&
              sec_process_data(&st, sctx, &sealed, &opened) == 0 && opened.length == g_msg.length;
    for (sec_buffer_desc *b : {&c1, &s1, &c2, &s2, &c3, &sealed, &opened}) free(b->value);
    sec_end_context(&st, cctx, nullptr);
    sec_end_context(&st, sctx, nullptr);
    return ok;
}

bool direct(const Module &m, void *csvc, void *ssvc) {
    script(m.control);
    qv_uint32_t min = 0, rflags = 0;
    void *cctx = nullptr, *sctx = nullptr;
    sec_buffer_desc c1{}, s1{}, c2{}, s2{}, c3{}, sealed{}, opened{};
    char svc[] = "svc", host[] = "host";
    bool ok = m.start_ctx(&min, csvc, svc, host, 0, &cctx, &c1) == 1 &&
              m.receive_ctx(&min, ssvc, &c1, &sctx, &s1, &rflags) == 1 &&
              m.complete_ctx(&min, &s1, cctx, &c2) == 1 && m.receive_ctx(&min, ssvc, &c2, &sctx, &s2, &rflags) == 0 &&
              m.complete_ctx(&min, &s2, cctx, &c3) == 0 && m.prepare(&min, cctx, SEC_F_PROTECT_MODE1, &g_msg, &sealed) == 0 &&
              m.process(&min, sctx, &sealed, &opened) == 0 && opened.length == g_msg.length;
    for (sec_buffer_desc *b : {&c1, &s1, &c2, &s2, &c3, &sealed, &opened}) m.release(&min, b);
    m.end_ctx(&min, cctx);
    m.end_ctx(&min, sctx);
    return ok;
}

template <typename F>
double ns_per_iteration(F body) {
    for (long i = 0; i < kIterations / 10; ++i) body();  // warm up
    auto start = Clock::now();
    for (long i = 0; i < kIterations; ++i) {
        if (!body()) {
            std::fprintf(stderr, "an establishment failed\n");
            std::exit(1);
        }
    }
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / kIterations;
}

}  // namespace

int main() {
    const std::string cfg = use_test_module_config();
    if (cfg.empty()) return 1;

    void *h = dlopen(QVBENCH_TEST_MPM, RTLD_NOW);
    if (h == nullptr) {
        std::fprintf(stderr, "cannot open %s\n", QVBENCH_TEST_MPM);
        return 1;
    }
    Module m{find<decltype(m.start)>(h, "mpm_start"),
             find<decltype(m.end)>(h, "mpm_end"),
             find<decltype(m.start_ctx)>(h, "mpm_start_sec_context"),
             find<decltype(m.receive_ctx)>(h, "mpm_receive_sec_context"),
             find<decltype(m.complete_ctx)>(h, "mpm_complete_sec_context"),
             find<decltype(m.prepare)>(h, "mpm_prepare_data"),
             find<decltype(m.process)>(h, "mpm_process_data"),
             find<decltype(m.release)>(h, "mpm_release_buffer"),
             find<decltype(m.end_ctx)>(h, "mpm_end_context"),
             find<qvtest_mpm_control_t *(*)()>(h, "qvtest_mpm_control")()};

    sec_status_desc st{};
    sec_token_t csvc = nullptr, ssvc = nullptr;
    if (sec_start(&st, 0, &csvc) != 0 || sec_start(&st, 0, &ssvc) != 0) return 1;
    unsigned char list_bytes[] = {0x81, 1, 0x00, 0x01, 0x00, 0x02};
    sec_buffer_desc list{sizeof list_bytes, list_bytes};
    qv_uint32_t min = 0;
    void *mc = nullptr, *ms = nullptr;
    m.start(&min, 0, &mc);
    m.start(&min, 0, &ms);

    // Alternate the two so that both see the same machine load.
    double lib = 1e300, dir = 1e300;
    for (int r = 0; r < kRuns; ++r) {
        double d = ns_per_iteration([&] { return direct(m, mc, ms); });
        double l = ns_per_iteration([&] { return through_library(csvc, ssvc, &list, m.control); });
        dir = d < dir ? d : dir;
        lib = l < lib ? l : lib;
    }
    std::printf("two-round establishment + seal/open (best of %d runs of %ld)\n", kRuns, kIterations);
    std::printf("%-10s %14s\n", "", "ns each");
    std::printf("%-10s %14.0f\n", "module", dir);
    std::printf("%-10s %14.0f\n", "library", lib);
    std::printf("ratio library/module: %.2f (library's own share %.0f ns, %.0f%%)\n", lib / dir, lib - dir,
                100.0 * (lib - dir) / lib);

    m.end(&min, 0, mc);
    m.end(&min, 0, ms);
    sec_end(&st, 0, csvc);
    sec_end(&st, 0, ssvc);
    unlink(cfg.c_str());
    return 0;
}
