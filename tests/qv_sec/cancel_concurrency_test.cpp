// Threads cancelled inside library calls with every trace category on: the
// process goes on (no std::terminate from a destructor that writes a trace
// record or gives a module's output back), every lock is free afterwards,
// and whatever the modules made for the cancelled call is ended by the
// caller's clean-up, so their live-handle and live-buffer counters come back.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <thread>

#include "cancellable_thread.h"
#include "child_process.h"
#include "context_test_harness.h"
#include "qv_tr.h"

namespace {

using namespace ctxtest;
using namespace std::chrono_literals;
using qvtest::CancellableThread;

// The trace file is chosen once per process, at the first record.
const std::string kTraceFile = "/tmp/qvsec-cancel-trace-" + std::to_string(getpid());
[[maybe_unused]] const int kTraceFileSet = [] {
    unlink(kTraceFile.c_str());
    setenv("QV_TRACE_FILE", kTraceFile.c_str(), 1);
    atexit([] { unlink(kTraceFile.c_str()); });
    return 0;
}();

bool mutex_free(pthread_mutex_t *m) {
    if (pthread_mutex_trylock(m) != 0) return false;
    pthread_mutex_unlock(m);
    return true;
}

// What a cancelled call leaves to its caller, ended by the caller's clean-up
// as an application's cancellation handler would. Runs during the unwind,
// and also at a normal end, where cancellation is held off: the ends write
// trace records.
struct Held {
    sec_token_t svc = nullptr, cctx = nullptr, sctx = nullptr;
    sec_buffer_desc out{0, nullptr}, sealed{0, nullptr};
    int fds[2] = {-1, -1};
    Held() = default;
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;
    ~Held() {
        int old;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
        sec_status_desc st{};
        if (cctx != nullptr) sec_end_context(&st, cctx, nullptr);
        if (sctx != nullptr) sec_end_context(&st, sctx, nullptr);
        if (svc != nullptr) sec_end(&st, 0, svc);
        free(out.value);
        free(sealed.value);
        for (int fd : fds)
            if (fd >= 0) close(fd);
        pthread_setcancelstate(old, nullptr);
    }
};

class CancelTraced : public ContextFixture {
protected:
    void SetUp() override {
        ContextFixture::SetUp();
        ASSERT_EQ(tr_set_levels_1("_SEA:*=8"), 0);
        ASSERT_TRUE(sec_trace_on_all());
    }
    void TearDown() override {
        m_.release();
        tr_set_levels_1("_SEA:*=0");
        ContextFixture::TearDown();
    }
public:
    static bool sec_trace_on_all() {
        for (int c = 0; c < 6; ++c)
            if (sec__trace_detail_levels[c] < 8) return false;
        return true;
    }
    // No lock of the library is held: the state lock, both service tokens'
    // mutexes, the module entry's lock.
    void expect_locks_free() {
        EXPECT_TRUE(mutex_free(&SEC_STATE.lock));
        EXPECT_TRUE(mutex_free(&client_svc()->lock));
        EXPECT_TRUE(mutex_free(&server_svc()->lock));
        EXPECT_TRUE(lock_is_free(sec__get_mpm_entry(kCodeA)));
    }

    // One library call of each kind the table below cancels, with what it
    // makes held for the clean-up.
public:
    void login(Held &) {
        char name[] = "qvsvc";
        sec_status_desc st{};
        sec_login_as_service(&st, name, server_svc_);
    }
    void start_on_socket(Held &h) {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, h.fds), 0);
        ASSERT_EQ(sec_setup_socket(client_svc_, h.fds[0], SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND, nullptr, &h.cctx), 0);
        start_client(h);
    }
    void start_client(Held &h) {
        View l(mech_list({kCodeA}));
        sec_status_desc st{};
        char svc[] = "svc", host[] = "host";
        sec_start_sec_context(&st, client_svc_, l.get(), svc, host, 0, &h.cctx, &h.out);
    }
    void receive(Held &h) {
        View c(ccdb(kCodeA, 1, 0, text("token")));
        sec_status_desc st{};
        sec_receive_sec_context(&st, server_svc_, c.get(), &h.sctx, &h.out);
    }
    void start_service(Held &h) {
        sec_status_desc st{};
        sec_start(&st, 0, &h.svc);
    }
    // Blocked after the module made its identity context: the clean-up of
    // the cancelled call must end it.
    void id_from_context(Held &h) {
        sec_status_desc st{};
        sec_create_id_context(&st, server_svc_, SEC_F_IDCTX_SECCTX, ex_.server_ctx, &h.sctx);
    }
    // Blocked starting the module for a service that deferred it, under the
    // service token's mutex.
    void id_from_cidb(Held &h) {
        sec_status_desc st{};
        ASSERT_EQ(sec_start(&st, SEC_F_DEFER_MPM_START, &h.svc), 0);
        View c(Bytes{SEC_BUF_CIDB, 1, 0, 0, 0, 0, 0, 0, 0, 0} + be32(kCodeA) + be32(0x200) + Bytes{0, 0, 0, 0, 0, 2, 'a', 0});
        sec_create_id_context(&st, h.svc, SEC_F_IDCTX_CIDB, c.get(), &h.sctx);
    }
    void seal(Held &) {
        View m(text("message"));
        sec_status_desc st{};
        sec_buffer_desc sealed{0, nullptr};
        sec_prepare_data(&st, ex_.client_ctx, SEC_F_PROTECT_MODE1, m.get(), &sealed);
        free(sealed.value);
    }
};

// Each row blocks one module routine, cancels the thread waiting in it, and
// checks that the locks are free; the fixture then checks that every module
// handle and buffer was given back.
TEST_F(CancelTraced, CancelledInsideModuleRoutines) {
    struct Row {
        const char *name;
        int routine;
        void (CancelTraced::*call)(Held &);
        bool established;  // runs on a complete context
        bool deferred;     // the routine runs with cancellation held off: it acts after the routine
        bool under_mutex;  // the library holds the service token's mutex around the routine
    };
    const Row rows[] = {
        {"service login", QVTEST_MPM_LOGIN_AS_SERVICE, &CancelTraced::login, false, false, true},
        {"service start", QVTEST_MPM_START, &CancelTraced::start_service, false, false, true},
        {"client start", QVTEST_MPM_START_SEC_CONTEXT, &CancelTraced::start_client, false, false, false},
        // The module made a context handle for the socket before the start
        // blocked: it must be ended by the clean-up, not lost.
        {"client start on a socket", QVTEST_MPM_START_SEC_CONTEXT, &CancelTraced::start_on_socket, false, false, false},
        {"server receive", QVTEST_MPM_RECEIVE_SEC_CONTEXT, &CancelTraced::receive, false, false, false},
        {"seal", QVTEST_MPM_PREPARE_DATA, &CancelTraced::seal, true, false, false},
        {"identity context, module's made", QVTEST_MPM_GET_CLIENT_NAME, &CancelTraced::id_from_context, true, false,
         false},
        {"identity context from a CIDB", QVTEST_MPM_START, &CancelTraced::id_from_cidb, false, false, true},
        // Given back from a destructor: acting on the cancellation inside the
        // module would end the process, and cutting the call short would
        // lose the buffer.
        {"giving the output back", QVTEST_MPM_RELEASE_BUFFER, &CancelTraced::seal, true, true, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
#if defined(__SANITIZE_THREAD__)
        // ThreadSanitizer loses the unlock made while a thread cancelled in
        // an intercepted sleep unwinds, and then reports every later lock of
        // that mutex.
        if (row.under_mutex) continue;
#endif
        long handles = m_.live_handles(), buffers = m_.live_buffers();
        if (row.established) {
            ASSERT_EQ(establish(mech_list({kCodeA})).client_rc, 0);
        }
        m_.behaviour(row.routine).block = 1;
        CancellableThread victim([this, &row] {
            Held held;
            (this->*row.call)(held);
            pthread_testcancel();  // where the caller meets a deferred cancellation
        });
        ASSERT_TRUE(qvtest::wait_until([&] { return m_.blocked() == 1; }));
        victim.cancel();
        if (row.deferred) {
            std::this_thread::sleep_for(20ms);
            EXPECT_EQ(m_.blocked(), 1);
            m_.release();
        }
        ASSERT_TRUE(victim.join());
        EXPECT_TRUE(victim.cancelled());
        expect_locks_free();
        m_.reset();
        if (row.established) end_contexts();
        EXPECT_EQ(m_.live_handles(), handles);
        EXPECT_EQ(m_.live_buffers(), buffers);
    }
}

// One worker's mix of calls, each making and ending its own tokens.
void worker_round(sec_token_t server, unsigned seed) {
    sec_status_desc st{};
    char svc[] = "svc", host[] = "host", name[] = "qvsvc";
    Held h;
    switch (seed % 4) {
    case 0:
        sec_start(&st, 0, &h.svc);
        break;
    case 1:
        sec_start(&st, SEC_F_DEFER_MPM_START, &h.svc);
        sec_login_as_service(&st, name, h.svc);
        break;
    case 2: {
        sec_start(&st, 0, &h.svc);
        View l(mech_list({kCodeA, kCodeB}));
        if (sec_start_sec_context(&st, h.svc, l.get(), svc, host, 0, &h.cctx, &h.out) != 0) break;
        if (sec_receive_sec_context(&st, server, &h.out, &h.sctx, &h.sealed) != 0) break;
        View m(text("message"));
        sec_buffer_desc sealed{0, nullptr};
        sec_prepare_data(&st, h.cctx, SEC_F_PROTECT_MODE1, m.get(), &sealed);
        free(sealed.value);
        char data[] = "signed";
        struct iovec v = {data, sizeof data};
        sec_buffer_desc signature{0, nullptr};
        if (sec_sign_data_v(&st, h.cctx, 1, &v, &signature) == 0) sec_verify_data_v(&st, h.sctx, &signature, 1, &v);
        free(signature.value);
        break;
    }
    default: {
        View both(mech_list({kCodeA, kCodeB}));
        sec_set_imposed_mechs(both.get());
        sec_buffer_desc offer{0, nullptr};
        qv_int32_t n = 0;
        sec_get_auth_methods(&offer, &n);
        free(offer.value);
        sec_start(&st, 0, &h.svc);
        sec_renew_identity(&st, 60, h.svc);
        break;
    }
    }
    if (h.svc != nullptr) {
        sec_end(&st, 0, h.svc);  // frees the token whatever the modules answer
        h.svc = nullptr;
    }
}

// Many cancellations at random moments of a mix of calls. Run in a child, so
// that an abort is reported as such; the child's exit status says what went
// wrong. QV_CANCEL_ROUNDS sets the number of cancellations.
TEST_F(CancelTraced, RandomCancellationsEndCleanly) {
    const char *env = std::getenv("QV_CANCEL_ROUNDS");
    const int rounds = env != nullptr ? std::atoi(env) : 300;
    long handles = m_.live_handles() + m2_.live_handles(), buffers = m_.live_buffers() + m2_.live_buffers();
    sec_token_t server = server_svc_;
    auto body = [&] {
        std::mt19937 random(12345);
        for (int r = 0; r < rounds; ++r) {
            unsigned seed = random();
            CancellableThread worker([server, seed] {
                for (unsigned i = seed;; ++i) worker_round(server, i);
            });
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
            worker.cancel();
            if (!worker.join()) return 1;  // a hang
        }
        if (!mutex_free(&SEC_STATE.lock) || !mutex_free(&server_svc()->lock)) return 2;
        if (!lock_is_free(sec__get_mpm_entry(kCodeA)) || !lock_is_free(sec__get_mpm_entry(kCodeB))) return 2;
        if (m_.live_handles() + m2_.live_handles() != handles) return 3;
        if (m_.live_buffers() + m2_.live_buffers() != buffers) return 4;
        return 0;
    };
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer does not follow threads started after a fork.
    EXPECT_EQ(body(), 0);
#else
    EXPECT_EQ(qvtest::run_in_child(body, std::chrono::seconds(120)), 0)
        << "1: a cancelled thread hung, 2: a lock stayed held, 3: a module handle leaked, 4: a module buffer leaked";
#endif
}

}  // namespace
