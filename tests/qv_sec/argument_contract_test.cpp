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

// One row: the routine, the situation, the return code and message number,
// then the call's arguments (e is the row's Env).
#define ROW(routine, situation, rc, msg, ...) \
    Row { #routine, situation, []([[maybe_unused]] Env &e) { return routine(__VA_ARGS__); }, rc, msg }

// A row whose message must also hold text (the position refused, say).
Row at(Row r, const char *text) {
    r.in_text = text;
    return r;
}

sec_buffer_desc g_empty{0, kSvc};  // bytes, but none counted
sec_buffer_desc g_no_bytes{3, nullptr};

std::vector<Row> rows() {
    return {
        // sec_start_sec_context
        ROW(sec_start_sec_context, "no status", 4, MSG_2650_060,
            nullptr, e.svc, e.list.get(), kSvc, kHost, 0, &e.made, e.out.get()),
        ROW(sec_start_sec_context, "no service token", 4, MSG_2650_002,
            e.status(), nullptr, e.list.get(), kSvc, kHost, 0, &e.made, e.out.get()),
        ROW(sec_start_sec_context, "no target name", 4, MSG_2650_002,
            e.status(), e.svc, e.list.get(), nullptr, kHost, 0, &e.made, e.out.get()),
        ROW(sec_start_sec_context, "no host", 4, MSG_2650_002,
            e.status(), e.svc, e.list.get(), kSvc, nullptr, 0, &e.made, e.out.get()),
        ROW(sec_start_sec_context, "no token pointer", 4, MSG_2650_002,
            e.status(), e.svc, e.list.get(), kSvc, kHost, 0, nullptr, e.out.get()),
        ROW(sec_start_sec_context, "no output", 4, MSG_2650_002,
            e.status(), e.svc, e.list.get(), kSvc, kHost, 0, &e.made, nullptr),
        ROW(sec_start_sec_context, "no list", 4, MSG_2650_002,
            e.status(), e.svc, nullptr, kSvc, kHost, 0, &e.made, e.out.get()),
        ROW(sec_start_sec_context, "not a service token", 5, MSG_2650_003,
            e.status(), e.junk, e.list.get(), kSvc, kHost, 0, &e.made, e.out.get()),
        ROW(sec_start_sec_context, "service not started", 5, MSG_2650_003,
            e.status(), &e.unstarted, e.list.get(), kSvc, kHost, 0, &e.made, e.out.get()),
        // sec_complete_sec_context
        ROW(sec_complete_sec_context, "no status", 4, MSG_2650_060, nullptr, e.ccdb_in.get(), &e.pending, e.out.get()),
        ROW(sec_complete_sec_context, "no answer", 4, MSG_2650_002, e.status(), nullptr, &e.pending, e.out.get()),
        ROW(sec_complete_sec_context, "empty answer", 4, MSG_2650_002, e.status(), &g_empty, &e.pending, e.out.get()),
        ROW(sec_complete_sec_context, "answer without bytes", 4, MSG_2650_002,
            e.status(), &g_no_bytes, &e.pending, e.out.get()),
        ROW(sec_complete_sec_context, "no token pointer", 4, MSG_2650_002,
            e.status(), e.ccdb_in.get(), nullptr, e.out.get()),
        ROW(sec_complete_sec_context, "no token", 4, MSG_2650_002, e.status(), e.ccdb_in.get(), &e.made, e.out.get()),
        ROW(sec_complete_sec_context, "no output", 4, MSG_2650_002, e.status(), e.ccdb_in.get(), &e.pending, nullptr),
        ROW(sec_complete_sec_context, "already complete", 5, MSG_2650_003,
            e.status(), e.ccdb_in.get(), &e.client_done, e.out.get()),
        ROW(sec_complete_sec_context, "a server context", 5, MSG_2650_003,
            e.status(), e.ccdb_in.get(), &e.server_done, e.out.get()),
        // sec_receive_sec_context
        ROW(sec_receive_sec_context, "no status", 4, MSG_2650_002,
            nullptr, e.server_svc, e.ccdb_in.get(), &e.made, e.out.get()),
        ROW(sec_receive_sec_context, "no service token", 4, MSG_2650_002,
            e.status(), nullptr, e.ccdb_in.get(), &e.made, e.out.get()),
        ROW(sec_receive_sec_context, "no input", 4, MSG_2650_002,
            e.status(), e.server_svc, nullptr, &e.made, e.out.get()),
        ROW(sec_receive_sec_context, "no token pointer", 4, MSG_2650_002,
            e.status(), e.server_svc, e.ccdb_in.get(), nullptr, e.out.get()),
        ROW(sec_receive_sec_context, "no output", 4, MSG_2650_002,
            e.status(), e.server_svc, e.ccdb_in.get(), &e.made, nullptr),
        ROW(sec_receive_sec_context, "service not started", 5, MSG_2650_003,
            e.status(), &e.unstarted, e.ccdb_in.get(), &e.made, e.out.get()),
        // sec_get_client_identity
        ROW(sec_get_client_identity, "no status", 4, MSG_2650_060, nullptr, e.server_done, &e.name, &e.mname, &e.id),
        ROW(sec_get_client_identity, "no token", 4, MSG_2650_002, e.status(), nullptr, &e.name, &e.mname, &e.id),
        ROW(sec_get_client_identity, "not a context token", 5, MSG_2650_003,
            e.status(), e.junk, &e.name, &e.mname, &e.id),
        ROW(sec_get_client_identity, "a service token", 5, MSG_2650_003,
            e.status(), e.server_svc, &e.name, &e.mname, &e.id),
        ROW(sec_get_client_identity, "not complete", 5, MSG_2650_003, e.status(), e.pending, &e.name, &e.mname, &e.id),
        ROW(sec_get_client_identity, "unauthenticated", 12, MSG_2650_010,
            e.status(), e.unauth_server, &e.name, &e.mname, &e.id),
        ROW(sec_get_client_identity, "unauthenticated, mapped name only", 12,
            MSG_2650_010, e.status(), e.unauth_server, nullptr, &e.mname, nullptr),
        // sec_login_as_service
        ROW(sec_login_as_service, "no status", 4, MSG_2650_002, nullptr, kSvc, e.svc),
        ROW(sec_login_as_service, "no name", 4, MSG_2650_002, e.status(), nullptr, e.svc),
        ROW(sec_login_as_service, "empty name", 4, MSG_2650_002, e.status(), kEmpty, e.svc),
        ROW(sec_login_as_service, "no token", 4, MSG_2650_002, e.status(), kSvc, nullptr),
        ROW(sec_login_as_service, "not a service token", 5, MSG_2650_003, e.status(), kSvc, e.junk),
        ROW(sec_login_as_service, "a context token", 5, MSG_2650_003, e.status(), kSvc, e.client_done),
        ROW(sec_login_as_service, "service not started", 5, MSG_2650_003, e.status(), kSvc, &e.unstarted),
        // sec_renew_identity
        ROW(sec_renew_identity, "no status", 4, MSG_2650_002, nullptr, 3600, e.svc),
        ROW(sec_renew_identity, "no token", 4, MSG_2650_002, e.status(), 3600, nullptr),
        ROW(sec_renew_identity, "not a service token", 5, MSG_2650_003, e.status(), 3600, e.junk),
        // sec_login_as_user
        ROW(sec_login_as_user, "no status", 4, MSG_2650_002, nullptr, e.svc, e.user_id.get(), nullptr, 0),
        ROW(sec_login_as_user, "no token", 4, MSG_2650_002, e.status(), nullptr, e.user_id.get(), nullptr, 0),
        ROW(sec_login_as_user, "no identity", 4, MSG_2650_002, e.status(), e.svc, nullptr, nullptr, 0),
        ROW(sec_login_as_user, "not a service token", 5, MSG_2650_003, e.status(), e.junk, e.user_id.get(), nullptr, 0),
        ROW(sec_login_as_user, "service not started", 5, MSG_2650_003,
            e.status(), &e.unstarted, e.user_id.get(), nullptr, 0),
        // sec_create_cidb
        at(ROW(sec_create_cidb, "no status", 4, MSG_2650_060, nullptr, 1, e.server_done, e.out.get()),
           "Positional parameter number: 1"),
        at(ROW(sec_create_cidb, "no token", 4, MSG_2650_060, e.status(), 1, nullptr, e.out.get()),
           "Positional parameter number: 3"),
        at(ROW(sec_create_cidb, "no output", 4, MSG_2650_060, e.status(), 1, e.server_done, nullptr),
           "Positional parameter number: 4"),
        ROW(sec_create_cidb, "not a context token", 5, MSG_2650_061, e.status(), 1, e.junk, e.out.get()),
        ROW(sec_create_cidb, "a service token", 5, MSG_2650_061, e.status(), 1, e.server_svc, e.out.get()),
        ROW(sec_create_cidb, "not complete", 5, MSG_2650_061, e.status(), 1, e.pending, e.out.get()),
        // sec_create_id_context
        at(ROW(sec_create_id_context, "no status", 4, MSG_2650_060, nullptr, e.svc, SEC_F_IDCTX_SECCTX, e.server_done,
               &e.made), "Positional parameter number: 1"),
        at(ROW(sec_create_id_context, "no service token", 4, MSG_2650_060, e.status(), nullptr, SEC_F_IDCTX_SECCTX,
               e.server_done, &e.made), "Positional parameter number: 2"),
        ROW(sec_create_id_context, "not a service token", 5, MSG_2650_003, e.status(), e.junk, SEC_F_IDCTX_SECCTX,
            e.server_done, &e.made),
        ROW(sec_create_id_context, "service not started", 5, MSG_2650_003, e.status(), &e.unstarted,
            SEC_F_IDCTX_SECCTX, e.server_done, &e.made),
        ROW(sec_create_id_context, "neither source", 4, MSG_2650_066, e.status(), e.svc, 0, e.server_done, &e.made),
        ROW(sec_create_id_context, "both sources", 4, MSG_2650_066, e.status(), e.svc, 0x3, e.server_done, &e.made),
        ROW(sec_create_id_context, "forced and no mapping", 4, MSG_2650_069, e.status(), e.svc, 0x31, e.server_done,
            &e.made),
        at(ROW(sec_create_id_context, "no input", 4, MSG_2650_060, e.status(), e.svc, SEC_F_IDCTX_SECCTX, nullptr,
               &e.made), "Positional parameter number: 4"),
        at(ROW(sec_create_id_context, "no token pointer", 4, MSG_2650_060, e.status(), e.svc, SEC_F_IDCTX_SECCTX,
               e.server_done, nullptr), "Positional parameter number: 5"),
        ROW(sec_create_id_context, "context not complete", 5, MSG_2650_061, e.status(), e.svc, SEC_F_IDCTX_SECCTX,
            e.pending, &e.made),
        ROW(sec_create_id_context, "empty CIDB", 7, MSG_2650_005, e.status(), e.svc, SEC_F_IDCTX_CIDB, &g_empty,
            &e.made),
        // sec_generate_key
        ROW(sec_generate_key, "no key", 4, MSG_2650_002, nullptr),
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
        row("no name", nullptr, &count, &groups, "Positional parameter number: 1"),
        row("name without bytes", &no_value, &count, &groups, "Positional parameter number: 1"),
        row("negative length", &negative, &count, &groups, "Positional parameter number: 1"),
        row("empty name", &empty, &count, &groups, "Positional parameter number: 1"),
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
        // The argument messages name the routine, and some the position.
        if (r.msg == MSG_2650_002 || r.msg == MSG_2650_060) {
            EXPECT_NE(err.text.find(r.routine), std::string::npos) << err.text;
        }
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
