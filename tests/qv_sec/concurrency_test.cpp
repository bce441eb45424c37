// The library under several threads: the readers-writer lock of the module
// entries (writer preference, and exclusion and the repair of its counters
// under stress with promote, demote and cancelled waiters), module calls while a module loads,
// threads cancelled inside library calls, contexts built by many threads on
// shared service tokens, and the per-thread captured failure. Every wait is
// bounded, so a lock that is never released fails a test instead of hanging
// it. Run under ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "cancellable_thread.h"
#include "child_process.h"
#include "context_test_harness.h"
#include "errors.h"
#include "qv_tr.h"

namespace {

using namespace std::chrono_literals;
using namespace ctxtest;
using qvtest::wait_until;
using Worker = qvtest::CancellableThread;

// ---- The readers-writer lock ----

class RwLock : public ::testing::Test {
protected:
    void SetUp() override { sec__lock_init(&lock_); }
    void TearDown() override { sec__lock_destroy(&lock_); }
    // Readers change `count` without the mutex, so it is read atomically.
    std::pair<int, int> counters() {
        pthread_mutex_lock(&lock_.mutex);
        std::pair<int, int> c{std::atomic_ref<int>(lock_.count).load(), std::atomic_ref<int>(lock_.writers).load()};
        pthread_mutex_unlock(&lock_.mutex);
        return c;
    }
    sec_rwlock_desc lock_;
};

// What the threads of a stress test share. `data` is a plain variable that
// only writers change and readers read: any overlap of a writer with another
// holder is a data race that ThreadSanitizer reports, beside the counters.
struct Sections {
    std::atomic<int> readers{0}, writers{0};
    std::atomic<long> writes{0};  // write sections begun
    long data = 0;
    std::atomic<bool> broken{false};

    void read() {
        ++readers;
        if (writers.load() != 0) broken = true;
        volatile long seen = data;
        (void)seen;
        --readers;
    }
    void write() {
        if (++writers != 1 || readers.load() != 0) broken = true;
        ++writes;
        data += 1;
        --writers;
    }
};

// Readers (mostly on the path that bypasses the mutex), writers, promote and
// demote, and try-write from several threads at once. Besides exclusion it
// checks writer preference: a reader that saw a writer waiting before it
// asked for the lock gets it only after some writer has been through.
TEST_F(RwLock, MixedStressKeepsExclusionAndWriterPreference) {
    Sections s;
    std::atomic<bool> overtaken{false};
    std::atomic<long> promotes{0};
    auto body = [&](unsigned seed) {
        std::minstd_rand rng(seed);
        auto end = std::chrono::steady_clock::now() + 200ms;
        while (std::chrono::steady_clock::now() < end) {
            unsigned op = rng() % 20;
            if (op < 13) {
                long before = s.writes.load();
                bool writer_waiting = std::atomic_ref<int>(lock_.writers).load() > 0;
                sec__lock_read(&lock_);
                if (writer_waiting && s.writes.load() == before) overtaken = true;
                s.read();
                if (op == 0) std::this_thread::yield();  // let writers queue up behind
                sec__unlock_read(&lock_);
            } else if (op < 16) {
                sec__lock_write(&lock_);
                s.write();
                sec__unlock_write(&lock_);
            } else if (op < 18) {
                sec__lock_read(&lock_);
                s.read();
                sec__lock_promote(&lock_);
                s.write();
                sec__lock_demote(&lock_);
                s.read();
                sec__unlock_read(&lock_);
                ++promotes;
            } else if (sec__trylock_write(&lock_) == 0) {
                s.write();
                sec__unlock_write(&lock_);
            }
        }
    };
    std::vector<std::unique_ptr<Worker>> crew;
    for (unsigned i = 0; i < 4; ++i) crew.push_back(std::make_unique<Worker>([&body, i] { body(i + 1); }));
    for (auto &w : crew) w->join();
    EXPECT_FALSE(s.broken.load()) << "a writer overlapped another holder";
    EXPECT_FALSE(overtaken.load()) << "a reader got in ahead of a writer it saw waiting";
    EXPECT_EQ(counters(), std::make_pair(0, 0));
    EXPECT_GT(s.writes.load(), 0);
    EXPECT_GT(promotes.load(), 0);
}

void unlock_read_cleanup(void *l) { sec__unlock_read(static_cast<sec_rwlock_t>(l)); }
void unlock_write_cleanup(void *l) { sec__unlock_write(static_cast<sec_rwlock_t>(l)); }

// Holds the lock for a moment at a cancellation point, with the handler that
// releases it, as a call into a module does.
void hold(sec_rwlock_t l, bool write) {
    pthread_cleanup_push(write ? unlock_write_cleanup : unlock_read_cleanup, l);
    usleep(200);
    pthread_cleanup_pop(1);
}

// Threads cancelled while they wait (as readers, writers, promoters or
// demoters) or while they hold the lock, amid readers and writers that go on
// working: the counters are repaired and nobody is left waiting.
TEST_F(RwLock, CancellationAmidStressLeavesLockConsistent) {
    Sections s;
    std::atomic<bool> stop{false};
    auto churn = [&](unsigned seed) {
        std::minstd_rand rng(seed);
        while (!stop) {
            if (rng() % 8 == 0) {
                sec__lock_write(&lock_);
                s.write();
                sec__unlock_write(&lock_);
            } else {
                sec__lock_read(&lock_);
                s.read();
                sec__unlock_read(&lock_);
            }
        }
    };
    Worker c1([&] { churn(1); }), c2([&] { churn(2); });
    // Each victim ends holding nothing, whether it finishes or is cancelled.
    const std::function<void()> victims[] = {
        [&] { sec__lock_read(&lock_); hold(&lock_, false); },
        [&] { sec__lock_write(&lock_); hold(&lock_, true); },
        [&] { sec__lock_read(&lock_); sec__lock_promote(&lock_); hold(&lock_, true); },
        [&] { sec__lock_write(&lock_); sec__lock_demote(&lock_); hold(&lock_, false); },
    };
    std::minstd_rand rng(7);
    auto end = std::chrono::steady_clock::now() + 200ms;
    int rounds = 0;
    for (; std::chrono::steady_clock::now() < end; ++rounds) {
        // Holding a read lock makes writers (and readers behind them) wait.
        bool held = rng() % 2 == 0;
        if (held) sec__lock_read(&lock_);
        Worker a(victims[rng() % 4]), b(victims[rng() % 4]);
        usleep(rng() % 500);
        a.cancel();
        if (rng() % 2) b.cancel();
        if (held) sec__unlock_read(&lock_);
        a.join();
        b.join();
    }
    stop = true;
    c1.join();
    c2.join();
    EXPECT_FALSE(s.broken.load());
    EXPECT_EQ(counters(), std::make_pair(0, 0));
    EXPECT_GT(rounds, 0);
}

// ---- Module calls while a module loads ----

constexpr unsigned kCode = 0x20002;

class MpmConcurrency : public qvtest::MpmFixture {
protected:
    void TearDown() override {
        mpm_.release();  // never leave a thread blocked in the module
        MpmFixture::TearDown();
    }
    static void lifetime_call(sec_mpm_entry_t e) {
        sec_status_desc st{};
        qv_int32_t lifetime = 0;
        EXPECT_EQ(sec__mpm_get_ctx_lifetime(e, &st, nullptr, &lifetime), 0u);
    }
    static void flags_call(sec_mpm_entry_t e) {
        sec_status_desc st{};
        qv_uint32_t flags = 0;
        EXPECT_EQ(sec__mpm_get_ctx_flags(e, &st, nullptr, &flags), 0u);
    }
    static bool writer_waiting(sec_mpm_entry_t e) {
        pthread_mutex_lock(&e->lock.mutex);
        bool waiting = e->lock.writers == 1;
        pthread_mutex_unlock(&e->lock.mutex);
        return waiting;
    }
    qvtest::TestMpm mpm_;
};

TEST_F(MpmConcurrency, ManyFirstCallsLoadTheModuleOnce) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    mpm_.behaviour(QVTEST_MPM_INIT).block = 1;  // hold the load open while the others arrive
    std::vector<std::unique_ptr<Worker>> callers;
    for (int i = 0; i < 8; ++i) callers.push_back(std::make_unique<Worker>([e] { lifetime_call(e); }));
    ASSERT_TRUE(wait_until([&] { return mpm_.blocked() == 1; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_GET_CTX_LIFETIME), 0u);
    mpm_.release();
    for (auto &c : callers) EXPECT_TRUE(c->join());
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_INIT), 1u);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_GET_CTX_LIFETIME), 8u);
    EXPECT_TRUE(lock_is_free(e));
}

TEST_F(MpmConcurrency, LoadWaitsForCallsUnderWayAndHoldsBackNewOnes) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    lifetime_call(e);  // loaded
    mpm_.behaviour(QVTEST_MPM_GET_CTX_LIFETIME).block = 1;
    Worker r1([e] { lifetime_call(e); }), r2([e] { lifetime_call(e); });
    ASSERT_TRUE(wait_until([&] { return mpm_.blocked() == 2; }));
    // Make the entry need a load again, as a first call finds it.
    __atomic_fetch_and(&e->state, ~SEC_MPM_S_LOADED, __ATOMIC_SEQ_CST);
    Worker loader([e] { flags_call(e); });
    ASSERT_TRUE(wait_until([&] { return writer_waiting(e); }));
    Worker late([e] { flags_call(e); });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(loader.done());
    EXPECT_FALSE(late.done()) << "a new call got in ahead of a waiting load";
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_INIT), 1u);
    mpm_.release();
    EXPECT_TRUE(wait_until([&] { return r1.done() && r2.done() && loader.done() && late.done(); }));
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_INIT), 2u);  // loaded again, once
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_GET_CTX_FLAGS), 2u);
    EXPECT_TRUE(lock_is_free(e));
}

// A thread cancelled inside mpm_init leaves the entry's lock free and the
// entry to be loaded by the next call (a cancelled routine call is
// CancelTraced's).
TEST_F(MpmConcurrency, CancelledInsideTheLoadLeavesTheLockFree) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    mpm_.behaviour(QVTEST_MPM_INIT).block = 1;
    Worker victim([e] { lifetime_call(e); });
    ASSERT_TRUE(wait_until([&] { return mpm_.blocked() == 1; }));
    EXPECT_FALSE(lock_is_free(e));
    victim.cancel();
    EXPECT_TRUE(victim.join());
    EXPECT_TRUE(victim.cancelled());
    EXPECT_TRUE(lock_is_free(e));
    mpm_.behaviour(QVTEST_MPM_INIT).block = 0;
    lifetime_call(e);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_INIT), 2u);
}

// ---- Contexts and cancellation ----

// Several threads build, use and end contexts under the same two service
// tokens at once, over two mechanisms whose modules are started for the
// services on first use.
TEST_F(ContextFixture, ThreadsShareTheServiceTokens) {
    constexpr int kThreads = 4, kContexts = 50;
    std::atomic<int> failures{0};
    std::atomic<long> opened{0};
    std::vector<std::thread> pool;
    for (int t = 0; t < kThreads; ++t) {
        pool.emplace_back([&, t] {
            Bytes list = mech_list({t % 2 ? kCodeB : kCodeA});
            for (int i = 0; i < kContexts; ++i) {
                sec_status_desc st{};
                sec_token_t cctx = nullptr, sctx = nullptr;
                View l(list), m(text("thread " + std::to_string(t)));
                Out c, s, sealed, out;
                char svc[] = "svc", host[] = "host";
                bool ok = sec_start_sec_context(&st, client_svc_, l.get(), svc, host, 0, &cctx, c.get()) == 0 &&
                          sec_receive_sec_context(&st, server_svc_, c.get(), &sctx, s.get()) == 0 &&
                          sec_prepare_data(&st, cctx, SEC_F_PROTECT_MODE1, m.get(), sealed.get()) == 0 &&
                          sec_process_data(&st, sctx, sealed.get(), out.get()) == 0 && out.bytes() == m.bytes;
                if (!out.empty()) opened += 1;
                ok = ok && sec_end_context(&st, cctx, nullptr) == 0 && sec_end_context(&st, sctx, nullptr) == 0;
                if (!ok) failures += 1;
            }
        });
    }
    for (auto &th : pool) th.join();
    EXPECT_EQ(failures.load(), 0);
    opened_by_caller_ += opened.load();
    EXPECT_EQ(m2_.calls(QVTEST_MPM_START), 2u);  // once per service token
    EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT) + m2_.calls(QVTEST_MPM_END_CONTEXT),
              static_cast<unsigned long>(2 * kThreads * kContexts));
}

// Setting the imposed mechanisms, even to the value they already have, never
// shows other threads the variable unset or torn: every service token
// started meanwhile refuses unauthenticated clients, and every offer holds
// the imposed mechanism alone.
TEST_F(ContextFixture, ImposedMechanismsStaySetWhileBeingSet) {
    const Bytes offer_a = mech_list({kCodeA});
    View only_a(offer_a);
    ASSERT_EQ(sec_set_imposed_mechs(only_a.get()), 0);
    std::atomic<bool> stop{false};
    std::atomic<long> tokens{0}, accepting{0}, wrong_offers{0};
    std::vector<std::thread> pool;
    for (int i = 0; i < 5; ++i) {
        pool.emplace_back([&, i] {
            while (!stop) {
                View l(offer_a);
                if (i == 0) {
                    sec_set_imposed_mechs(l.get());
                } else if (i == 1) {
                    sec_add_imposed_mechs(l.get());
                } else {
                    sec_status_desc st{};
                    sec_token_t t = nullptr;
                    if (sec_start(&st, SEC_F_DEFER_MPM_START, &t) == 0) {
                        tokens += 1;
                        if ((static_cast<sec_svc_token_t>(t)->state & SEC_SVC_S_REFUSE_UNAUTH) == 0) accepting += 1;
                        sec_end(&st, 0, t);
                    }
                    Out offer;
                    qv_int32_t n = 0;
                    if (sec_get_auth_methods(offer.get(), &n) == 0 && offer.bytes() != offer_a) wrong_offers += 1;
                }
            }
        });
    }
    auto end = std::chrono::steady_clock::now() + 2s;
    while (std::chrono::steady_clock::now() < end && tokens < 20000) std::this_thread::sleep_for(10ms);
    stop = true;
    for (auto &t : pool) t.join();
    EXPECT_GT(tokens.load(), 100);
    EXPECT_EQ(accepting.load(), 0) << "of " << tokens.load() << " service tokens";
    EXPECT_EQ(wrong_offers.load(), 0);
}

// Additions made at the same moment all survive: each thread's code ends up
// in the variable, whichever thread read it first.
TEST_F(ContextFixture, SimultaneousAdditionsAllSurvive) {
    View a(mech_list({kCodeA})), b(mech_list({kCodeB}));
    for (int round = 0; round < 500; ++round) {
        unsetenv("QV_SEC_IMP_MECHS");
        std::atomic<int> ready{0};
        auto add = [&ready](View &l) {
            for (++ready; ready < 2;) {
            }
            sec_add_imposed_mechs(l.get());
        };
        std::thread ta(add, std::ref(a)), tb(add, std::ref(b));
        ta.join();
        tb.join();
        const std::string v = getenv("QV_SEC_IMP_MECHS") ? getenv("QV_SEC_IMP_MECHS") : "";
        ASSERT_TRUE(v == "qvtest qvtest2" || v == "qvtest2 qvtest") << "round " << round << ": " << v;
    }
}

// Chosen before the first trace record.
[[maybe_unused]] const std::string kTraceFile = qvtest::trace_file_of_process("concurrency");

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

// Threads cancelled inside library calls with every trace category on: the
// process goes on (no std::terminate from a destructor that writes a trace
// record or gives a module's output back), every lock is free afterwards,
// and whatever the modules made for the cancelled call is ended by the
// caller's clean-up, so their live-handle and live-buffer counters come back.
class CancelTraced : public ContextFixture {
protected:
    void SetUp() override {
        ContextFixture::SetUp();
        ASSERT_EQ(tr_set_levels_1("_SEA:*=8"), 0);
        for (int c = 0; c < 6; ++c) ASSERT_GE(sec__trace_detail_levels[c], 8);
    }
    void TearDown() override {
        m_.release();
        tr_set_levels_1("_SEA:*=0");
        ContextFixture::TearDown();
    }
    bool locks_free() {
        return mutex_free(&SEC_STATE.lock) && mutex_free(&client_svc()->lock) && mutex_free(&server_svc()->lock) &&
               lock_is_free(sec__get_mpm_entry(kCodeA)) &&
               (sec__get_mpm_entry(kCodeB) == nullptr || lock_is_free(sec__get_mpm_entry(kCodeB)));
    }
};

// Each row blocks one module routine, cancels the thread waiting in it, and
// checks that the locks are free and every module handle and buffer was
// given back.
TEST_F(CancelTraced, CancelledInsideModuleRoutines) {
    char svc[] = "svc", host[] = "host", name[] = "qvsvc";
    struct Row {
        const char *name;
        int routine;
        std::function<void(Held &, sec_status_t)> call;
        bool established;  // runs on a complete context
        bool deferred;     // the routine runs with cancellation held off: it acts after the routine
        bool under_mutex;  // the library holds the service token's mutex around the routine
    };
    auto start_client = [&](Held &h, sec_status_t st) {
        View l(mech_list({kCodeA}));
        sec_start_sec_context(st, client_svc_, l.get(), svc, host, 0, &h.cctx, &h.out);
    };
    auto seal = [&](Held &h, sec_status_t st) {
        View m(text("message"));
        sec_prepare_data(st, ex_.client_ctx, SEC_F_PROTECT_MODE1, m.get(), &h.sealed);
    };
    const Row rows[] = {
        {"service login", QVTEST_MPM_LOGIN_AS_SERVICE,
         [&](Held &, sec_status_t st) { sec_login_as_service(st, name, server_svc_); }, false, false, true},
        {"service start", QVTEST_MPM_START, [&](Held &h, sec_status_t st) { sec_start(st, 0, &h.svc); }, false, false,
         true},
        // The module made a context handle for the socket before the start
        // blocked: it must be ended by the clean-up, not lost.
        {"client start on a socket", QVTEST_MPM_START_SEC_CONTEXT,
         [&](Held &h, sec_status_t st) {
             ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, h.fds), 0);
             ASSERT_EQ(sec_setup_socket(client_svc_, h.fds[0], SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND, nullptr,
                                        &h.cctx),
                       0);
             start_client(h, st);
         },
         false, false, false},
        {"server receive", QVTEST_MPM_RECEIVE_SEC_CONTEXT,
         [&](Held &h, sec_status_t st) {
             View c(ccdb(kCodeA, 1, 0, text("token")));
             sec_receive_sec_context(st, server_svc_, c.get(), &h.sctx, &h.out);
         },
         false, false, false},
        {"seal", QVTEST_MPM_PREPARE_DATA, seal, true, false, false},
        // Blocked after the module made its identity context: the clean-up
        // of the cancelled call must end it.
        {"identity context, module's made", QVTEST_MPM_GET_CLIENT_NAME,
         [&](Held &h, sec_status_t st) {
             sec_create_id_context(st, server_svc_, SEC_F_IDCTX_SECCTX, ex_.server_ctx, &h.sctx);
         },
         true, false, false},
        // Blocked starting the module for a service that deferred it, under
        // the service token's mutex.
        {"identity context from a CIDB", QVTEST_MPM_START,
         [&](Held &h, sec_status_t st) {
             ASSERT_EQ(sec_start(st, SEC_F_DEFER_MPM_START, &h.svc), 0);
             View c(Bytes{SEC_BUF_CIDB, 1, 0, 0, 0, 0, 0, 0, 0, 0} + be32(kCodeA) + be32(0x200) +
                    Bytes{0, 0, 0, 0, 0, 2, 'a', 0});
             sec_create_id_context(st, h.svc, SEC_F_IDCTX_CIDB, c.get(), &h.sctx);
         },
         false, false, true},
        // Given back from a destructor: acting on the cancellation inside the
        // module would end the process, and cutting the call short would
        // lose the buffer.
        {"giving the output back", QVTEST_MPM_RELEASE_BUFFER, seal, true, true, false},
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
        Worker victim([&row] {
            Held held;
            sec_status_desc st{};
            row.call(held, &st);
            pthread_testcancel();  // where the caller meets a deferred cancellation
        });
        ASSERT_TRUE(wait_until([&] { return m_.blocked() == 1; }));
        victim.cancel();
        if (row.deferred) {
            std::this_thread::sleep_for(20ms);
            EXPECT_EQ(m_.blocked(), 1);
            m_.release();
        }
        ASSERT_TRUE(victim.join());
        EXPECT_TRUE(victim.cancelled());
        EXPECT_TRUE(locks_free());
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
    View both(mech_list({kCodeA, kCodeB}));
    sec_start(&st, seed % 4 == 1 ? SEC_F_DEFER_MPM_START : 0, &h.svc);
    if (seed % 4 == 1) {
        sec_login_as_service(&st, name, h.svc);
    } else if (sec_start_sec_context(&st, h.svc, both.get(), svc, host, 0, &h.cctx, &h.out) == 0 &&
               sec_receive_sec_context(&st, server, &h.out, &h.sctx, &h.sealed) == 0) {
        View m(text("message"));
        sec_buffer_desc sealed{0, nullptr};
        sec_prepare_data(&st, h.cctx, SEC_F_PROTECT_MODE1, m.get(), &sealed);
        free(sealed.value);
    }
    sec_end(&st, 0, h.svc);  // frees the token whatever the modules answer; if cancelled, Held ends it
    h.svc = nullptr;
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
            Worker worker([server, seed] {
                for (unsigned i = seed;; ++i) worker_round(server, i);
            });
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
            worker.cancel();
            if (!worker.join()) return 1;  // a hang
        }
        if (!locks_free()) return 2;
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

// ---- The captured failure of a thread ----

// Captured failures are per thread: two threads at once keep their own, and
// a thread that exits holding one has it freed (checked by the leak checkers).
TEST(ErrorCapture, PerThread) {
    sec_init_once();
    cu_set_no_error_1();
    auto worker = [](qv_int32_t code, qv_int32_t *rc_out, sec_status_desc *st_out, int *id_out) {
        sec_report(code, MSG_2650_019);
        sec_status_desc st{static_cast<qv_uint32_t>(code), 0, 0, "mpm_start"};
        sec__error_capture(code, &st);
        cu_set_no_error_1();
        sec__error_retrieve(rc_out, st_out);
        *id_out = qvtest::current_error().id;
        sec__error_capture(code, &st);  // left captured on exit, for the key's destructor
    };
    qv_int32_t rc1 = 0, rc2 = 0;
    sec_status_desc st1{}, st2{};
    int id1 = 0, id2 = 0;
    std::thread t1(worker, 21, &rc1, &st1, &id1), t2(worker, 22, &rc2, &st2, &id2);
    t1.join();
    t2.join();
    EXPECT_EQ(std::make_tuple(rc1, st1.maj_stat, id1), std::make_tuple(21, 21u, 21));
    EXPECT_EQ(std::make_tuple(rc2, st2.maj_stat, id2), std::make_tuple(22, 22u, 22));
    EXPECT_EQ(qvtest::current_error().id, 0);  // this thread's own is untouched
    // Clearing with nothing captured leaves the status record alone.
    sec_status_desc st{5, 0, 0, "mpm_start"};
    sec__error_clear(&st);
    EXPECT_EQ(st.maj_stat, 5u);
}

// ---- Service login ----

// Service login from several threads on one service token: exactly one
// logs in, the others are refused, and each module is started and logged in
// to once (the one sec_start started is not started again).
using ServiceLoginThreads = qvtest::MpmFixture;

TEST_F(ServiceLoginThreads, OneLoginPerToken) {
    qvtest::TestMpm m1, m2(qvtest::kTestMpm2);
    configure(line(1, "one", 0x101, qvtest::kTestMpm) + line(2, "two", 0x102, qvtest::kTestMpm2));
    long handles = m1.live_handles() + m2.live_handles();
    sec_status_desc st{};
    sec_token_t token = nullptr;
    ASSERT_EQ(sec_start(&st, 0x20, &token), 0);

    constexpr int kThreads = 6;
    std::atomic<int> ok{0}, refused{0}, other{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            sec_status_desc mine{};
            char name[] = "qvsvc";
            qv_int32_t rc = sec_login_as_service(&mine, name, token);
            (rc == 0 ? ok : rc == 5 ? refused : other)++;
            // Renewal may run beside the login: it sees either state.
            sec_renew_identity(&mine, 60, token);
        });
    }
    for (auto &t : threads) t.join();
    EXPECT_EQ(ok.load(), 1);
    EXPECT_EQ(refused.load(), kThreads - 1);
    EXPECT_EQ(other.load(), 0);
    // The module the login started got the token's flags; both got the
    // service's name.
    EXPECT_EQ(m2.record(QVTEST_MPM_START).args[0], 0x20u);
    for (qvtest::TestMpm *m : {&m1, &m2}) {
        EXPECT_EQ(std::make_pair(m->calls(QVTEST_MPM_START), m->calls(QVTEST_MPM_LOGIN_AS_SERVICE)),
                  std::make_pair(1ul, 1ul));
        EXPECT_STREQ(m->record(QVTEST_MPM_LOGIN_AS_SERVICE).str[0], "qvsvc");
    }
    EXPECT_EQ(sec_end(&st, 0, token), 0);
    EXPECT_EQ(m1.live_handles() + m2.live_handles(), handles);
}

// Contexts accepted while the service logs in: the acceptance reads the
// token's state as the login changes it (checked by ThreadSanitizer), and
// each acceptance sees the token usable.
TEST_F(ServiceLoginThreads, LoginRacesAccepts) {
    qvtest::TestMpm m1;
    configure(line(1, "one", 0x101, qvtest::kTestMpm));
    for (int round = 0; round < 20; ++round) {
        sec_status_desc st{};
        sec_token_t token = nullptr;
        ASSERT_EQ(sec_start(&st, SEC_F_DEFER_MPM_START, &token), 0);
        std::atomic<int> failures{0};
        std::vector<std::thread> accepts;
        for (int i = 0; i < 2; ++i) {
            accepts.emplace_back([&] {
                for (int k = 0; k < 20; ++k) {
                    // An unauthenticated client: the acceptance reads the
                    // token's state and nothing else.
                    View c(ccdb(0, 1, 0));
                    Out s;
                    sec_status_desc mine{};
                    sec_token_t ctx = nullptr;
                    if (sec_receive_sec_context(&mine, token, c.get(), &ctx, s.get()) != 0) failures += 1;
                    sec_end_context(&mine, ctx, nullptr);
                }
            });
        }
        char name[] = "qvsvc";
        EXPECT_EQ(sec_login_as_service(&st, name, token), 0);
        for (auto &t : accepts) t.join();
        EXPECT_EQ(failures.load(), 0);
        EXPECT_EQ(sec_end(&st, 0, token), 0);
    }
}

}  // namespace
