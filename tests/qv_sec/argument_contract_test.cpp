// The argument and token contract of the exported routines, one row per
// routine and situation: a missing argument, a token that is not one, a
// service token not started, a context not complete or unauthenticated.
// Each row gives the return code and the message number; every row must
// also leave the status record cleared, hand out nothing, and call no module
// routine.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "context_test_harness.h"
#include "current_error.h"

namespace {

using namespace ctxtest;

char kSvc[] = "svc";
char kHost[] = "host";
char kEmpty[] = "";

// The tokens a row can hand to a routine, made afresh for each row.
struct Env {
    sec_token_t svc = nullptr;          // a started service token
    sec_token_t server_svc = nullptr;
    sec_svc_token_desc unstarted{};     // the magic without the started bit
    qv_uint32_t junk[16] = {0x12345678, 2, 3};
    sec_token_t pending = nullptr;      // a client context waiting for the server
    sec_token_t client_done = nullptr;  // a complete client context
    sec_token_t server_done = nullptr;  // a complete, authenticated server context
    sec_token_t unauth_client = nullptr, unauth_server = nullptr;
    sec_token_t made = nullptr;         // where a routine would put a new context
    sec_status_desc st{};
    bool status_given = false;
    Out out;
    View list{mech_list({kCodeA})};
    View ccdb_in{ccdb(kCodeA, 1, 1, text("c"))};
    View user_id{Bytes{SEC_BUF_TYPED_ID, 2} + be32(kCodeB) + text("alice")};
    char *name = nullptr, *mname = nullptr;
    sec_buffer_desc id{0, nullptr};

    sec_status_t status() {
        status_given = true;
        return &st;
    }
};

struct Row {
    const char *routine;
    const char *situation;
    std::function<int(Env &)> call;
    int rc;
    int msg;
    const char *in_text = nullptr;  // a message argument the text must hold
};

const char *kPos1 = "Positional parameter number: 1";

std::vector<Row> rows() {
    sec_buffer_desc empty{0, kSvc};  // bytes, but none counted
    sec_buffer_desc no_bytes{3, nullptr};
    return {
        // sec_start_sec_context
        {"sec_start_sec_context", "no status", [](Env &e) {
             return sec_start_sec_context(nullptr, e.svc, e.list.get(), kSvc, kHost, 0, &e.made, e.out.get()); },
         4, MSG_2650_060, "sec_start_sec_context"},
        {"sec_start_sec_context", "no service token", [](Env &e) {
             return sec_start_sec_context(e.status(), nullptr, e.list.get(), kSvc, kHost, 0, &e.made, e.out.get()); },
         4, MSG_2650_002, "sec_start_sec_context"},
        {"sec_start_sec_context", "no target name", [](Env &e) {
             return sec_start_sec_context(e.status(), e.svc, e.list.get(), nullptr, kHost, 0, &e.made, e.out.get()); },
         4, MSG_2650_002},
        {"sec_start_sec_context", "no host", [](Env &e) {
             return sec_start_sec_context(e.status(), e.svc, e.list.get(), kSvc, nullptr, 0, &e.made, e.out.get()); },
         4, MSG_2650_002},
        {"sec_start_sec_context", "no token pointer", [](Env &e) {
             return sec_start_sec_context(e.status(), e.svc, e.list.get(), kSvc, kHost, 0, nullptr, e.out.get()); },
         4, MSG_2650_002},
        {"sec_start_sec_context", "no output", [](Env &e) {
             return sec_start_sec_context(e.status(), e.svc, e.list.get(), kSvc, kHost, 0, &e.made, nullptr); },
         4, MSG_2650_002},
        // Found after the token is made: the token goes again.
        {"sec_start_sec_context", "no list", [](Env &e) {
             return sec_start_sec_context(e.status(), e.svc, nullptr, kSvc, kHost, 0, &e.made, e.out.get()); },
         4, MSG_2650_002, "sec_start_sec_context"},
        {"sec_start_sec_context", "not a service token", [](Env &e) {
             return sec_start_sec_context(e.status(), e.junk, e.list.get(), kSvc, kHost, 0, &e.made, e.out.get()); },
         5, MSG_2650_003},
        {"sec_start_sec_context", "service not started", [](Env &e) {
             return sec_start_sec_context(e.status(), &e.unstarted, e.list.get(), kSvc, kHost, 0, &e.made,
                                          e.out.get()); },
         5, MSG_2650_003},
        // sec_complete_sec_context
        {"sec_complete_sec_context", "no status", [](Env &e) {
             return sec_complete_sec_context(nullptr, e.ccdb_in.get(), &e.pending, e.out.get()); },
         4, MSG_2650_060, "sec_complete_sec_context"},
        {"sec_complete_sec_context", "no answer", [](Env &e) {
             return sec_complete_sec_context(e.status(), nullptr, &e.pending, e.out.get()); },
         4, MSG_2650_002, "sec_complete_sec_context"},
        {"sec_complete_sec_context", "empty answer", [empty](Env &e) mutable {
             return sec_complete_sec_context(e.status(), &empty, &e.pending, e.out.get()); },
         4, MSG_2650_002},
        {"sec_complete_sec_context", "answer without bytes", [no_bytes](Env &e) mutable {
             return sec_complete_sec_context(e.status(), &no_bytes, &e.pending, e.out.get()); },
         4, MSG_2650_002},
        {"sec_complete_sec_context", "no token pointer", [](Env &e) {
             return sec_complete_sec_context(e.status(), e.ccdb_in.get(), nullptr, e.out.get()); },
         4, MSG_2650_002},
        {"sec_complete_sec_context", "no token", [](Env &e) {
             return sec_complete_sec_context(e.status(), e.ccdb_in.get(), &e.made, e.out.get()); },
         4, MSG_2650_002},
        {"sec_complete_sec_context", "no output", [](Env &e) {
             return sec_complete_sec_context(e.status(), e.ccdb_in.get(), &e.pending, nullptr); },
         4, MSG_2650_002},
        {"sec_complete_sec_context", "already complete", [](Env &e) {
             return sec_complete_sec_context(e.status(), e.ccdb_in.get(), &e.client_done, e.out.get()); },
         5, MSG_2650_003},
        {"sec_complete_sec_context", "a server context", [](Env &e) {
             return sec_complete_sec_context(e.status(), e.ccdb_in.get(), &e.server_done, e.out.get()); },
         5, MSG_2650_003},
        // sec_receive_sec_context takes the older message for every argument.
        {"sec_receive_sec_context", "no status", [](Env &e) {
             return sec_receive_sec_context(nullptr, e.server_svc, e.ccdb_in.get(), &e.made, e.out.get()); },
         4, MSG_2650_002, "sec_receive_sec_context"},
        {"sec_receive_sec_context", "no service token", [](Env &e) {
             return sec_receive_sec_context(e.status(), nullptr, e.ccdb_in.get(), &e.made, e.out.get()); },
         4, MSG_2650_002},
        {"sec_receive_sec_context", "no input", [](Env &e) {
             return sec_receive_sec_context(e.status(), e.server_svc, nullptr, &e.made, e.out.get()); },
         4, MSG_2650_002},
        {"sec_receive_sec_context", "no token pointer", [](Env &e) {
             return sec_receive_sec_context(e.status(), e.server_svc, e.ccdb_in.get(), nullptr, e.out.get()); },
         4, MSG_2650_002},
        {"sec_receive_sec_context", "no output", [](Env &e) {
             return sec_receive_sec_context(e.status(), e.server_svc, e.ccdb_in.get(), &e.made, nullptr); },
         4, MSG_2650_002},
        {"sec_receive_sec_context", "service not started", [](Env &e) {
             return sec_receive_sec_context(e.status(), &e.unstarted, e.ccdb_in.get(), &e.made, e.out.get()); },
         5, MSG_2650_003},
        // sec_get_client_identity
        {"sec_get_client_identity", "no status", [](Env &e) {
             return sec_get_client_identity(nullptr, e.server_done, &e.name, &e.mname, &e.id); },
         4, MSG_2650_060, kPos1},
        {"sec_get_client_identity", "no token", [](Env &e) {
             return sec_get_client_identity(e.status(), nullptr, &e.name, &e.mname, &e.id); },
         4, MSG_2650_002, "sec_get_client_identity"},
        {"sec_get_client_identity", "not a context token", [](Env &e) {
             return sec_get_client_identity(e.status(), e.junk, &e.name, &e.mname, &e.id); },
         5, MSG_2650_003},
        {"sec_get_client_identity", "a service token", [](Env &e) {
             return sec_get_client_identity(e.status(), e.server_svc, &e.name, &e.mname, &e.id); },
         5, MSG_2650_003},
        {"sec_get_client_identity", "not complete", [](Env &e) {
             return sec_get_client_identity(e.status(), e.pending, &e.name, &e.mname, &e.id); },
         5, MSG_2650_003},
        {"sec_get_client_identity", "unauthenticated", [](Env &e) {
             return sec_get_client_identity(e.status(), e.unauth_server, &e.name, &e.mname, &e.id); },
         12, MSG_2650_010},
        {"sec_get_client_identity", "unauthenticated, mapped name only", [](Env &e) {
             return sec_get_client_identity(e.status(), e.unauth_server, nullptr, &e.mname, nullptr); },
         12, MSG_2650_010},
        // sec_login_as_service
        {"sec_login_as_service", "no status", [](Env &e) { return sec_login_as_service(nullptr, kSvc, e.svc); },
         4, MSG_2650_002, "sec_login_as_service"},
        {"sec_login_as_service", "no name", [](Env &e) { return sec_login_as_service(e.status(), nullptr, e.svc); },
         4, MSG_2650_002},
        {"sec_login_as_service", "empty name", [](Env &e) { return sec_login_as_service(e.status(), kEmpty, e.svc); },
         4, MSG_2650_002},
        {"sec_login_as_service", "no token", [](Env &e) { return sec_login_as_service(e.status(), kSvc, nullptr); },
         4, MSG_2650_002},
        {"sec_login_as_service", "not a service token",
         [](Env &e) { return sec_login_as_service(e.status(), kSvc, e.junk); }, 5, MSG_2650_003},
        {"sec_login_as_service", "a context token",
         [](Env &e) { return sec_login_as_service(e.status(), kSvc, e.client_done); }, 5, MSG_2650_003},
        {"sec_login_as_service", "service not started",
         [](Env &e) { return sec_login_as_service(e.status(), kSvc, &e.unstarted); }, 5, MSG_2650_003},
        // sec_renew_identity
        {"sec_renew_identity", "no status", [](Env &e) { return sec_renew_identity(nullptr, 3600, e.svc); },
         4, MSG_2650_002, "sec_renew_identity"},
        {"sec_renew_identity", "no token", [](Env &e) { return sec_renew_identity(e.status(), 3600, nullptr); },
         4, MSG_2650_002},
        {"sec_renew_identity", "not a service token",
         [](Env &e) { return sec_renew_identity(e.status(), 3600, e.junk); }, 5, MSG_2650_003},
        // sec_login_as_user
        {"sec_login_as_user", "no status",
         [](Env &e) { return sec_login_as_user(nullptr, e.svc, e.user_id.get(), nullptr, 0); },
         4, MSG_2650_002, "sec_login_as_user"},
        {"sec_login_as_user", "no token",
         [](Env &e) { return sec_login_as_user(e.status(), nullptr, e.user_id.get(), nullptr, 0); },
         4, MSG_2650_002},
        {"sec_login_as_user", "no identity",
         [](Env &e) { return sec_login_as_user(e.status(), e.svc, nullptr, nullptr, 0); },
         4, MSG_2650_002, "sec_login_as_user"},
        {"sec_login_as_user", "not a service token",
         [](Env &e) { return sec_login_as_user(e.status(), e.junk, e.user_id.get(), nullptr, 0); },
         5, MSG_2650_003},
        {"sec_login_as_user", "service not started",
         [](Env &e) { return sec_login_as_user(e.status(), &e.unstarted, e.user_id.get(), nullptr, 0); },
         5, MSG_2650_003},
        // sec_generate_key
        {"sec_generate_key", "no key", [](Env &) { return sec_generate_key(nullptr); },
         4, MSG_2650_002, "sec_generate_key"},
    };
}

// sec_idm_get_groups names the position of the argument it refuses.
std::vector<Row> group_rows() {
    static char user[] = "root";
    static char blank[] = "\0x";
    static sec_buffer_desc good{5, user}, no_value{5, nullptr}, negative{-1, user}, empty{2, blank};
    static int count;
    static sec_buffer_t groups;
    auto row = [](const char *what, sec_buffer_t name, int *c, sec_buffer_t *g, const char *pos) {
        return Row{"sec_idm_get_groups", what, [=](Env &) { return sec_idm_get_groups(name, c, g); }, 4,
                   MSG_2650_060, pos};
    };
    return {
        row("no name", nullptr, &count, &groups, kPos1),
        row("name without bytes", &no_value, &count, &groups, kPos1),
        row("negative length", &negative, &count, &groups, kPos1),
        row("empty name", &empty, &count, &groups, kPos1),
        row("no count", &good, nullptr, &groups, "Positional parameter number: 2"),
        row("no groups", &good, &count, nullptr, "Positional parameter number: 3"),
    };
}

class ArgumentContract : public ContextFixture {
protected:
    // Every module call but the ending of a context the failure destroyed.
    unsigned long module_calls() const {
        unsigned long n = 0;
        for (int r = 0; r < QVTEST_MPM_ROUTINES; ++r)
            if (r != QVTEST_MPM_END_CONTEXT) n += m_.calls(r) + m2_.calls(r);
        return n;
    }

    // Fills env with fresh tokens of every kind.
    void prepare(Env &e) {
        e.svc = client_svc_;
        e.server_svc = server_svc_;
        e.unstarted.magic = SEC_SVC_TOKEN_MAGIC;
        pthread_mutex_init(&e.unstarted.lock, nullptr);
        Exchange &done = establish(mech_list({kCodeA}));
        ASSERT_EQ(done.client_rc, 0);
        e.client_done = done.client_ctx;
        e.server_done = done.server_ctx;
        ex_ = Exchange{};
        Exchange &unauth = establish(mech_list({}));
        ASSERT_EQ(unauth.server_rc, 0);
        e.unauth_client = unauth.client_ctx;
        e.unauth_server = unauth.server_ctx;
        ex_ = Exchange{};
        m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
        Out out;
        ASSERT_EQ(sec_start_sec_context(&e.st, client_svc_, e.list.get(), kSvc, kHost, 0, &e.pending, out.get()), 1);
        std::memset(&e.st, 0x5a, sizeof e.st);
    }

    static void finish(Env &e) {
        sec_status_desc st{};
        for (sec_token_t t : {e.pending, e.client_done, e.server_done, e.unauth_client, e.unauth_server, e.made})
            EXPECT_EQ(sec_end_context(&st, t, nullptr), 0);
        pthread_mutex_destroy(&e.unstarted.lock);
    }

    void check(const Row &r) {
        SCOPED_TRACE(std::string(r.routine) + ": " + r.situation);
        Env e;
        prepare(e);
        unsigned long calls = module_calls();
        cu_set_no_error_1();
        EXPECT_EQ(r.call(e), r.rc);
        qvtest::CurrentError err = qvtest::current_error();
        EXPECT_NE(err.id, 0);
        EXPECT_EQ(err.msg_num, r.msg);
        if (r.in_text != nullptr) {
            EXPECT_NE(err.text.find(r.in_text), std::string::npos) << err.text;
        }
        if (e.status_given) {
            EXPECT_EQ(e.st.maj_stat, 0u);
        }
        EXPECT_EQ(module_calls(), calls);
        EXPECT_EQ(e.made, nullptr);
        EXPECT_TRUE(e.out.empty());
        EXPECT_EQ(e.name, nullptr);
        EXPECT_EQ(e.mname, nullptr);
        EXPECT_EQ(e.id.value, nullptr);
        EXPECT_EQ(e.unstarted.state, 0u);
        EXPECT_EQ(e.junk[1], 2u);
        finish(e);
    }
};

TEST_F(ArgumentContract, EveryRoutineRefusesWhatItCannotUse) {
    for (const Row &r : rows()) check(r);
}

TEST_F(ArgumentContract, GroupLookupNamesTheRefusedArgument) {
    for (const Row &r : group_rows()) check(r);
}

}  // namespace
