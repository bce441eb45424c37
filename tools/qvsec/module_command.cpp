// qvsec module check PATH: drives a mechanism module through the library, in
// this process, the way a client and a service use it, and reports every
// departure from the module contract (docs/writing-a-module.md) with the
// routine at fault and the application calls that suffer from it.
//
// The library is pointed at the module with a configuration file of one
// record (mechanism code kCheckCode), so no installed configuration takes
// part. The drive runs in a child process: a module that crashes or hangs is
// reported with the step it was in, instead of taking the checker down. Its
// findings come back over a pipe, one line each.
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "commands.h"
#include "module_routines.h"
#include "mpm.h"
#include "qv_sec.h"

// Present when a sanitizer's allocator stands in for malloc's arenas, whose
// statistics then stay still.
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

// Free in every shipped configuration: the top of the code space, far from
// the small codes that sites number their mechanisms with.
constexpr qv_uint32_t kCheckCode = 0x7fff0c01;
constexpr const char *kCheckName = "modcheck";
constexpr int kMaxRounds = 20;
constexpr int kTimeoutSeconds = 120;

// Lines of the child's report: kind letter, blank, text.
enum Kind : char { kStep = 'S', kOk = 'O', kNote = 'N', kDeparture = 'D' };

class Report {
public:
    explicit Report(int fd) : fd_(fd) {}
    void line(Kind kind, const std::string &text) {
        std::string l = std::string(1, kind) + " " + text;
        for (char &ch : l)
            if (ch == '\n') ch = ' ';
        l += '\n';
        if (write(fd_, l.data(), l.size()) < 0) _exit(3);
    }
    void step(const std::string &s) { line(kStep, s); }
    void ok(const std::string &s) { line(kOk, s); }
    void note(const std::string &s) { line(kNote, s); }
    // A departure of `routine`; `consequence` says who suffers.
    void departure(const std::string &routine, const std::string &what, const std::string &consequence) {
        line(kDeparture, routine + ": " + what + ". Consequence: " + consequence + ".");
    }

private:
    int fd_;
};

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

size_t heap_in_use() {
    if (__sanitizer_get_current_allocated_bytes != nullptr) return __sanitizer_get_current_allocated_bytes();
    struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

// Whether free() takes p back: tried in a child of its own, which aborts
// when p is not memory from malloc, so nothing here is harmed.
bool freeable(void *p) {
    pid_t pid = fork();
    if (pid == 0) {
        // The C library's complaint is the expected outcome, not news.
        int null = open("/dev/null", O_WRONLY);
        if (null >= 0) dup2(null, STDERR_FILENO);
        free(p);
        _exit(0);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct Buffer {
    sec_buffer_desc b{0, nullptr};
    ~Buffer() { reset(); }
    void reset() { sec_release_buffer(&b); }
    sec_buffer_t p() { return &b; }
    std::string bytes() const { return b.value ? std::string(static_cast<char *>(b.value), b.length) : ""; }
};

class Drive {
public:
    Drive(Report &r, void *object) : r_(r) {
        for (int i = 0; i < MPM_ROUTINE_COUNT; ++i) has_[i] = dlsym(object, kMpmRoutineNames[i]) != nullptr;
    }
    int run();

private:
    bool has(sec_mpm_routine_id id) const { return has_[id]; }
    // What the last failing call left in st_, in words.
    std::string failure(qv_int32_t rc) const {
        if (st_.desc[0] != '\0')
            return format("%s returned major status %u (minor %u), return code %d", st_.desc, st_.maj_stat,
                          st_.min_stat, rc);
        std::string text = current_error_message();
        if (!text.empty() && text.back() == '.') text.pop_back();
        return format("return code %d: %s", rc, text.c_str());
    }
    std::string routine_of(const char *fallback) const { return st_.desc[0] ? st_.desc : fallback; }
    void failed(const char *call, const char *routine, qv_int32_t rc, const std::string &consequence) {
        r_.departure(routine_of(routine), std::string(call) + " failed: " + failure(rc), consequence);
    }
    bool authenticated(sec_token_t t) {
        char name[SEC_C_CTX_MPM_NAME_SIZE] = {};
        return sec_get_ctx_attribute(&st_, t, SEC_C_CTX_MPM_NAME, name) == 0 && std::strcmp(name, "none") != 0;
    }
    bool prepare(sec_token_t &c, sec_token_t &s);
    bool establish(sec_token_t &c, sec_token_t &s, bool quiet = false);
    void end(sec_token_t &t, const char *side);
    void tampered_first_token();
    void attributes(sec_token_t t, const char *side);
    bool names(sec_token_t s, std::string &name);
    void seal(sec_token_t from, sec_token_t to, const char *way, qv_uint32_t mode);
    void sign(sec_token_t from, sec_token_t to, const char *way);
    void identity_contexts(sec_token_t s, const std::string &name);
    void leaks(sec_token_t c, sec_token_t s);
    template <typename F>
    void measure(const char *what, const char *routines, F once);

    Report &r_;
    bool has_[MPM_ROUTINE_COUNT] = {};
    sec_status_desc st_{};
    sec_token_t svc_ = nullptr;
    sec_buffer_desc mechs_{0, nullptr};
    int fds_[2] = {-1, -1};
    bool foreign_output_ = false;  // mpm_process_data's output cannot be freed
};

// A fresh pair of contexts, on a socket pair when the module takes the
// socket (as every context that sec_setup_socket prepared gives it).
bool Drive::prepare(sec_token_t &c, sec_token_t &s) {
    c = s = nullptr;
    if (!has(MPM_SET_CTX_ATTRIBUTE)) return true;
    const qv_uint32_t flags = SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND;
    return sec_setup_socket(svc_, fds_[0], flags, nullptr, &c) == 0 &&
           sec_setup_socket(svc_, fds_[1], flags, nullptr, &s) == 0;
}

bool Drive::establish(sec_token_t &c, sec_token_t &s, bool quiet) {
    if (!prepare(c, s)) {
        r_.departure("(library)", "sec_setup_socket failed: " + current_error_message(), "nothing could be checked");
        return false;
    }
    Buffer cc, sc;
    char svc[] = "qvcheck", host[] = "localhost";
    qv_int32_t rc = sec_start_sec_context(&st_, svc_, &mechs_, svc, host, 0, &c, cc.p());
    if (rc == SEC_S_UNAUTHENTICATED) {
        r_.departure("mpm_start_sec_context", "returned major status 2, which asks the library for an "
                                              "unauthenticated context",
                     "sec_start_sec_context returns 2 and the client goes on without authentication; a failure "
                     "must be any other status but 1");
        return false;
    }
    if (rc > 1) {
        failed("sec_start_sec_context", "mpm_start_sec_context", rc, "no client can establish a context");
        return false;
    }
    bool client_done = rc == 0, server_done = false;
    for (int round = 0; round < kMaxRounds && cc.b.length > 0; ++round) {
        qv_int32_t rs = sec_receive_sec_context(&st_, svc_, cc.p(), &s, sc.p());
        cc.reset();
        if (rs > 1) {
            failed("sec_receive_sec_context", "mpm_receive_sec_context", rs, "no service can accept a client");
            return false;
        }
        server_done = rs == 0;
        if (client_done) break;
        if (sc.b.length == 0) break;
        rc = sec_complete_sec_context(&st_, sc.p(), &c, cc.p());
        sc.reset();
        if (rc > 1) {
            failed("sec_complete_sec_context", "mpm_complete_sec_context", rc, "no client can complete a context");
            return false;
        }
        client_done = rc == 0;
    }
    if (!client_done || !server_done) {
        r_.departure("mpm_receive_sec_context",
                     format("the exchange did not finish (client %s, service %s)", client_done ? "done" : "waiting",
                            server_done ? "done" : "waiting"),
                     "a side that returned 1 waits for a message that never comes");
        return false;
    }
    if (!authenticated(s)) {
        r_.departure("mpm_receive_sec_context", "the service's context is unauthenticated after a normal exchange "
                                                "(major status 2)",
                     "sec_receive_sec_context returns 0 for a client nobody authenticated");
        return false;
    }
    if (!quiet) r_.ok("context established through the library");
    return true;
}

void Drive::end(sec_token_t &t, const char *side) {
    st_ = sec_status_desc{};
    sec_end_context(&st_, t, nullptr);
    if (st_.maj_stat != 0)
        r_.departure("mpm_end_context", format("failed on the %s's context: %s", side, failure(0).c_str()),
                     "sec_end_context reports the failure in its status record");
    t = nullptr;
}

// A first token that no module could accept, truncated or with its first
// byte changed: the service must fail, not make the client unauthenticated.
void Drive::tampered_first_token() {
    for (int how = 0; how < 2; ++how) {
        sec_token_t c = nullptr, s = nullptr;
        if (!prepare(c, s)) return;
        Buffer cc, sc;
        char svc[] = "qvcheck", host[] = "localhost";
        if (sec_start_sec_context(&st_, svc_, &mechs_, svc, host, 0, &c, cc.p()) <= 1 &&
            cc.b.length > sec__buff_tvms_len) {
            auto *p = static_cast<unsigned char *>(cc.b.value);
            if (how == 0) p[sec__buff_tvms_len] ^= 0xff;
            else cc.b.length = sec__buff_tvms_len + 1;
            qv_int32_t rs = sec_receive_sec_context(&st_, svc_, cc.p(), &s, sc.p());
            if (rs == 0 && !authenticated(s))
                r_.departure("mpm_receive_sec_context",
                             format("answered a %s first token with major status 2", how ? "truncated" : "changed"),
                             "in the first round 2 asks for an unauthenticated context: sec_receive_sec_context "
                             "returns 0 and the service accepts whoever sent garbage. Return another failure status");
        }
        end(c, "client");
        end(s, "service");
    }
}

void Drive::attributes(sec_token_t t, const char *side) {
    qv_uint32_t flags = 0;
    qv_int32_t lifetime = 0;
    qv_int32_t rc = sec_get_ctx_attribute(&st_, t, SEC_C_CTX_FLAGS, &flags);
    if (rc != 0) failed("sec_get_ctx_attribute (flags)", "mpm_get_ctx_flags", rc, "applications cannot read the flags");
    rc = sec_get_ctx_lifetime(&st_, t, &lifetime);
    if (rc != 0) failed("sec_get_ctx_lifetime", "mpm_get_ctx_lifetime", rc, "applications cannot read the lifetime");
    else r_.ok(format("%s context: flags 0x%08x, lifetime %d s", side, flags, lifetime));
}

// Each name asked for alone, so that a failure names its routine even when
// the library fails before the module is called.
bool Drive::names(sec_token_t s, std::string &name) {
    char *n = nullptr, *m = nullptr;
    Buffer id;
    std::string said;
    struct {
        sec_mpm_routine_id routine;
        char **name;
        char **mname;
        sec_buffer_t id;
    } asks[] = {{MPM_GET_CLIENT_NAME, &n, nullptr, nullptr}, {MPM_GET_MAPPED_NAME, nullptr, &m, nullptr},
                {MPM_GET_CLIENT_ID, nullptr, nullptr, id.p()}};
    for (auto &a : asks) {
        if (!has(a.routine)) continue;  // reported with the missing routines
        qv_int32_t rc = sec_get_client_identity(&st_, s, a.name, a.mname, a.id);
        if (rc != 0) failed("sec_get_client_identity", kMpmRoutineNames[a.routine], rc,
                            kMpmRoutineUses[a.routine].consequence);
    }
    if (n != nullptr) name = n;
    r_.ok(format("client name \"%s\", mapped name %s%s%s, id of %d bytes", n ? n : "(none)", m ? "\"" : "",
                 m ? m : "(none)", m ? "\"" : "", id.b.length > 0 ? id.b.length - sec__buff_tvm_len : 0));
    sec_release_name(n);
    sec_release_name(m);
    return !name.empty();
}

void Drive::seal(sec_token_t from, sec_token_t to, const char *way, qv_uint32_t mode) {
    const std::string text = format("qvsec module check, %s, mode 0x%x", way, mode);
    sec_buffer_desc in{static_cast<qv_int32_t>(text.size()), const_cast<char *>(text.data())};
    Buffer sealed, out;
    qv_int32_t rc = sec_prepare_data(&st_, from, mode, &in, sealed.p());
    if (rc != 0) return failed("sec_prepare_data", "mpm_prepare_data", rc, "no data can be sealed");
    rc = sec_process_data(&st_, to, sealed.p(), out.p());
    if (rc != 0) return failed("sec_process_data", "mpm_process_data", rc, "no sealed data can be opened");
    if (out.bytes() != text)
        r_.departure("mpm_process_data", "returned other bytes than mpm_prepare_data was given",
                     "the application reads wrong data");
    if (out.b.value != nullptr && !freeable(out.b.value)) {
        r_.departure("mpm_process_data", "its output is not memory from malloc (sodium_malloc, mmap, a static or "
                                         "an alias of the input?)",
                     "the application releases it with sec_release_buffer, which calls free(): the process "
                     "aborts (free(): invalid pointer) or corrupts its heap");
        out.b = {0, nullptr};
        foreign_output_ = true;
        return;
    }
    out.reset();
    r_.ok(format("sealing %s, mode 0x%x: opened to the same bytes", way, mode));

    // The same sealed bytes changed in transit, then replayed.
    std::string copy = sealed.bytes();
    copy.back() = static_cast<char>(copy.back() ^ 1);
    sec_buffer_desc changed{static_cast<qv_int32_t>(copy.size()), copy.data()};
    for (sec_buffer_t input : {&changed, sealed.p()}) {
        rc = sec_process_data(&st_, to, input, out.p());
        const char *what = input == &changed ? "sealed data changed in transit" : "sealed data replayed";
        if (rc == 0) r_.note(format("mpm_process_data accepted %s (%s)", what, way));
        else if (out.b.value != nullptr)
            r_.departure("mpm_process_data", format("left an output buffer behind when it refused %s", what),
                         "applications do not release the output of a failed sec_process_data: it leaks");
        out.reset();
    }
}

void Drive::sign(sec_token_t from, sec_token_t to, const char *way) {
    char data[] = "qvsec module check: signed data";
    iovec vec{data, sizeof data - 1};
    Buffer sig;
    qv_int32_t rc = sec_sign_data_v(&st_, from, 1, &vec, sig.p());
    if (rc != 0) return failed("sec_sign_data_v", "mpm_sign_data_v", rc, "no data can be signed");
    rc = sec_verify_data_v(&st_, to, sig.p(), 1, &vec);
    if (rc != 0) return failed("sec_verify_data_v", "mpm_verify_data_v", rc, "no signature verifies");
    data[0] ^= 1;
    rc = sec_verify_data_v(&st_, to, sig.p(), 1, &vec);
    if (rc == 0)
        r_.departure("mpm_verify_data_v", format("accepted a signature over other data (%s)", way),
                     "sec_verify_data_v vouches for data changed in transit");
    else r_.ok(format("signing %s: good signature verified, changed data refused (%d)", way, rc));
}

void Drive::identity_contexts(sec_token_t s, const std::string &name) {
    if (!has(MPM_CREATE_ID_CONTEXT)) {
        r_.note("no mpm_create_id_context: " + std::string(kMpmRoutineUses[MPM_CREATE_ID_CONTEXT].consequence));
        return;
    }
    Buffer cidb;
    qv_int32_t rc = sec_create_cidb(&st_, 0, s, cidb.p());
    if (rc != 0) return failed("sec_create_cidb", "mpm_get_client_name", rc, "no CIDB can be made");
    const qv_uint32_t no_map = SEC_F_IDCTX_NO_MAP;
    struct {
        qv_uint32_t flags;
        void *in;
        const char *from;
    } ways[] = {{SEC_F_IDCTX_SECCTX | no_map, s, "a security context"}, {SEC_F_IDCTX_CIDB | no_map, &cidb.b, "a CIDB"}};
    for (auto &w : ways) {
        sec_token_t id = nullptr;
        rc = sec_create_id_context(&st_, svc_, w.flags, w.in, &id);
        if (rc != 0) {
            failed("sec_create_id_context", "mpm_create_id_context", rc,
                   std::string("no identity context can be made from ") + w.from);
            continue;
        }
        char *n = nullptr;
        if (sec_get_client_identity(&st_, id, &n, nullptr, nullptr) != 0 || n == nullptr || name != n)
            r_.departure("mpm_create_id_context", std::string("an identity context made from ") + w.from +
                                                      " names another client",
                         "services that pass identities on see the wrong client");
        else r_.ok(std::string("identity context from ") + w.from);
        sec_release_name(n);
        end(id, "identity");
    }
}

// Heap growth over repeated operations, after a warm-up: what grows in
// every half of the run is a leak, not a cache filling.
template <typename F>
void Drive::measure(const char *what, const char *routines, F once) {
    constexpr int kWarmUp = 4, kHalf = 8;
    for (int i = 0; i < kWarmUp; ++i) if (!once()) return;
    size_t a = heap_in_use();
    for (int i = 0; i < kHalf; ++i) if (!once()) return;
    size_t b = heap_in_use();
    for (int i = 0; i < kHalf; ++i) if (!once()) return;
    size_t c = heap_in_use();
    if (b > a && c > b)
        r_.departure(routines, format("%s leaks about %zu bytes each time", what, (c - a) / (2 * kHalf)),
                     "a long-running service runs out of memory");
}

void Drive::leaks(sec_token_t c, sec_token_t s) {
    measure("a context established and ended", "mpm_release_buffer or mpm_end_context", [&] {
        sec_token_t x = nullptr, y = nullptr;
        bool ok = establish(x, y, true);
        sec_status_desc scratch{};
        sec_end_context(&scratch, x, nullptr);
        sec_end_context(&scratch, y, nullptr);
        return ok;
    });
    char data[] = "leak check";
    if (!foreign_output_) measure("sealing and opening", "mpm_release_buffer, mpm_prepare_data or mpm_process_data", [&] {
        sec_buffer_desc in{sizeof data - 1, data};
        Buffer sealed, out;
        return sec_prepare_data(&st_, c, SEC_F_PROTECT_MODE1, &in, sealed.p()) == 0 &&
               sec_process_data(&st_, s, sealed.p(), out.p()) == 0;
    });
    if (!has(MPM_SIGN_DATA_V)) return;
    measure("signing", "mpm_release_buffer or mpm_sign_data_v", [&] {
        iovec vec{data, sizeof data - 1};
        Buffer sig;
        return sec_sign_data_v(&st_, c, 1, &vec, sig.p()) == 0;
    });
}

int Drive::run() {
    r_.step("missing routines");
    for (int i = 0; i < MPM_ROUTINE_COUNT; ++i) {
        if (has_[i]) continue;
        const MpmRoutineUse &use = kMpmRoutineUses[i];
        if (use.essential) r_.departure(kMpmRoutineNames[i], "not exported", use.consequence);
        else r_.note(std::string(kMpmRoutineNames[i]) + " not exported: " + use.consequence);
    }
    r_.step("sec_start");
    if (qv_int32_t rc = sec_start(&st_, 0, &svc_)) {
        failed("sec_start", "mpm_start", rc, "no process can start the security services");
        return 1;
    }
    qv_int32_t count = 0;
    char mnemonic[] = "modcheck";
    if (sec_create_mech_buffer(mnemonic, &count, &mechs_) != 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) != 0) {
        r_.departure("(checker)", "cannot set up: " + current_error_message(), "nothing could be checked");
        return 1;
    }
    if (!has(MPM_START_SEC_CONTEXT) || !has(MPM_RECEIVE_SEC_CONTEXT)) return 1;
    r_.step("context establishment");
    sec_token_t c = nullptr, s = nullptr;
    if (!establish(c, s)) return 1;
    r_.step("context attributes");
    attributes(c, "client");
    attributes(s, "service");
    r_.step("client names");
    std::string name;
    bool named = names(s, name);
    for (qv_uint32_t mode : {SEC_F_PROTECT_MODE1, SEC_F_PROTECT_MODE2}) {
        r_.step(format("sealing, mode 0x%x", mode));
        seal(c, s, "client to service", mode);
        seal(s, c, "service to client", mode);
    }
    if (has(MPM_SIGN_DATA_V) && has(MPM_VERIFY_DATA_V)) {
        r_.step("signing");
        sign(c, s, "client to service");
        sign(s, c, "service to client");
    }
    r_.step("identity contexts");
    if (named) identity_contexts(s, name);
    r_.step("tampered first tokens");
    tampered_first_token();
    r_.step("leak checks");
    leaks(c, s);
    r_.step("ending the contexts");
    end(c, "client");
    end(s, "service");
    r_.step("sec_end");
    st_ = sec_status_desc{};
    if (sec_end(&st_, 0, svc_) != 0 || st_.maj_stat != 0)
        r_.departure(routine_of("mpm_end"), "sec_end failed: " + failure(0), "services cannot end cleanly");
    sec_release_buffer(&mechs_);
    return 0;
}

// In the child: the library, pointed at the module, driven through.
[[noreturn]] void child(int fd, const std::string &config, const std::string &module) {
    Report report(fd);
    setenv("QV_SEC_CONFIG", config.c_str(), 1);
    unsetenv("QV_SEC_MECH");
    unsetenv("QV_SEC_IMP_MECHS");
    report.step("loading");
    void *object = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (object == nullptr) {
        const char *e = dlerror();
        report.departure("(module)", std::string("cannot be loaded: ") + (e ? e : "unknown reason"),
                         "every call fails with return code 22 (2650-051)");
        _exit(1);
    }
    if (dlsym(object, kMpmInitName) == nullptr) {
        report.departure("mpm_init", "not exported", "the library refuses the module: every call fails with "
                                                     "return code 22 (2650-052)");
        _exit(1);
    }
    Drive drive(report, object);
    _exit(drive.run());
}

const char *step_hint(int sig) {
    if (sig == SIGABRT) return " (an abort: often a buffer released twice or freed by the wrong allocator)";
    if (sig == SIGSEGV || sig == SIGBUS) return " (a bad memory access: an input read past its length, or a "
                                                "handle used after it was freed?)";
    return "";
}

int check(const std::string &path) {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr) {
        std::fprintf(stderr, "qvsec: %s: %s\n", path.c_str(), std::strerror(errno));
        return kExitFailed;
    }
    char dir[] = "/tmp/qvsec-module-check.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        std::fprintf(stderr, "qvsec: cannot make a temporary directory: %s\n", std::strerror(errno));
        return kExitFailed;
    }
    const std::string config = std::string(dir) + "/qvsec.cfg";
    FILE *f = std::fopen(config.c_str(), "w");
    if (f != nullptr) {
        std::fprintf(f, "1 %s 0x%08x %s -\n", kCheckName, kCheckCode, resolved);
        std::fclose(f);
    }
    std::printf("module %s, checked as mechanism \"%s\" (code 0x%08x)\n", resolved, kCheckName, kCheckCode);
    std::fflush(stdout);

    int p[2];
    if (f == nullptr || pipe(p) != 0) {
        std::fprintf(stderr, "qvsec: cannot set up the check: %s\n", std::strerror(errno));
        rmdir(dir);
        return kExitFailed;
    }
    pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        child(p[1], config, resolved);
    }
    close(p[1]);
    int departures = 0;
    std::string step = "loading", pending;
    bool hung = false;
    char buf[4096];
    for (;;) {
        pollfd pfd{p[0], POLLIN, 0};
        int n = poll(&pfd, 1, kTimeoutSeconds * 1000);
        if (n == 0) {
            hung = true;
            kill(pid, SIGKILL);
            break;
        }
        ssize_t got = n > 0 ? read(p[0], buf, sizeof buf) : -1;
        if (got <= 0) {
            if (got < 0 && errno == EINTR) continue;
            break;
        }
        pending.append(buf, static_cast<size_t>(got));
        for (size_t nl; (nl = pending.find('\n')) != std::string::npos; pending.erase(0, nl + 1)) {
            std::string l = pending.substr(0, nl);
            if (l.size() < 2) continue;
            std::string text = l.substr(2);
            switch (l[0]) {
            case kStep: step = text; break;
            case kOk: std::printf("ok: %s\n", text.c_str()); break;
            case kNote: std::printf("note: %s\n", text.c_str()); break;
            default: ++departures; std::printf("departure: %s\n", text.c_str()); break;
            }
        }
    }
    close(p[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    unlink(config.c_str());
    rmdir(dir);
    if (hung) {
        ++departures;
        std::printf("departure: the module did not return within %d s during: %s\n", kTimeoutSeconds, step.c_str());
    } else if (WIFSIGNALED(status)) {
        ++departures;
        std::printf("departure: the process died of signal %d (%s) during: %s%s\n", WTERMSIG(status),
                    strsignal(WTERMSIG(status)), step.c_str(), step_hint(WTERMSIG(status)));
    } else if (departures == 0 && (!WIFEXITED(status) || WEXITSTATUS(status) != 0)) {
        ++departures;
        std::printf("departure: the check stopped during: %s\n", step.c_str());
    }
    if (departures == 0) {
        std::printf("result: the module conforms\n");
        return kExitOk;
    }
    std::printf("result: %d departure%s from the module contract\n", departures, departures == 1 ? "" : "s");
    return kExitFailed;
}

}  // namespace

int run_module(const Args &args) {
    if (args.size() != 2 || args[0] != "check") {
        std::fprintf(stderr, "usage: qvsec module check PATH\n");
        return kExitUsage;
    }
    return check(args[1]);
}
