// sec_start, sec_end and sec_setup_socket over configured test modules, and
// the module table they build: reservation, selection and the 8-entry limit.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <regex>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "messages.h"
#include "mpm_test_fixture.h"

namespace {

using qvtest::last_message;
using qvtest::TestMpm;

class ServiceToken : public qvtest::MpmFixture {
protected:
    TestMpm mpm_;
    TestMpm mpm2_{qvtest::kTestMpm2};
};

std::vector<unsigned> selected_codes() {
    sec_mpm_entry_t *list = nullptr;
    pthread_mutex_lock(&SEC_STATE.lock);
    EXPECT_EQ(sec__read_reserve_select(&list), 0u);
    pthread_mutex_unlock(&SEC_STATE.lock);
    std::vector<unsigned> codes;
    for (sec_mpm_entry_t *p = list; p && *p; ++p) codes.push_back((*p)->code);
    free(list);
    return codes;
}

std::vector<unsigned> table_codes() {
    std::vector<unsigned> codes;
    for (int i = 0; i < SEC_STATE.mpms.count; ++i) codes.push_back(SEC_STATE.mpms.entries[i].code);
    return codes;
}

TEST_F(ServiceToken, TableKeepsEveryCodeAndSelectsTheListedOnes) {
    configure(line(1, "one", 1, "a.so") + line(2, "two", 2, "b.so") + line(3, "three", 3, "c.so"));
    EXPECT_EQ(selected_codes(), (std::vector<unsigned>{1, 2, 3}));
    // A new file gives code 3 a new name and path: the entry keeps its first.
    configure(line(5, "drei", 3, "z.so") + line(4, "four", 4, "d.so"));
    EXPECT_EQ(selected_codes(), (std::vector<unsigned>{3, 4}));
    EXPECT_EQ(table_codes(), (std::vector<unsigned>{1, 2, 3, 4}));
    sec_mpm_entry_t three = sec__get_mpm_entry(3);
    ASSERT_NE(three, nullptr);
    EXPECT_STREQ(three->name, "three");
    EXPECT_EQ(sec__get_mpm_entry(1)->state, SEC_MPM_S_RESERVED | SEC_MPM_S_NOT_CONFIGURED);
    EXPECT_EQ(sec__get_mpm_entry(99), nullptr);
}

TEST_F(ServiceToken, NinthCodeIsAConfigurationError) {
    std::string text;
    for (int i = 1; i <= 8; ++i) text += line(i, ("m" + std::to_string(i)).c_str(), i, "x.so");
    configure(text);
    EXPECT_EQ(selected_codes().size(), 8u);
    configure(line(9, "m9", 9, "x.so"));
    pthread_mutex_lock(&SEC_STATE.lock);
    EXPECT_EQ(sec__read_reserve_select(nullptr), 21u);
    pthread_mutex_unlock(&SEC_STATE.lock);
    EXPECT_EQ(last_message(), MSG_2650_019);
    EXPECT_EQ(SEC_STATE.mpms.count, 8);
    sec_status_desc st{};
    sec_token_t tok = &st;
    EXPECT_EQ(sec_start(&st, 0, &tok), 21);
    EXPECT_EQ(tok, nullptr);
}

TEST_F(ServiceToken, MechanismDataIsFoundOrCreated) {
    configure(line(1, "one", 1, qvtest::kTestMpm) + line(2, "two", 2, qvtest::kTestMpm2));
    sec_status_desc st{};
    sec_token_t tok = nullptr;
    ASSERT_EQ(sec_start(&st, SEC_F_DEFER_MPM_START, &tok), 0);
    auto *svc = static_cast<sec_svc_token_t>(tok);
    sec_mech_data_t m1 = nullptr, again = nullptr, m2 = nullptr;
    pthread_mutex_lock(&svc->lock);
    ASSERT_EQ(sec__check_mech_data(svc, sec__get_mpm_entry(1), &m1), 0u);
    ASSERT_EQ(sec__check_mech_data(svc, sec__get_mpm_entry(1), &again), 0u);
    pthread_mutex_unlock(&svc->lock);
    EXPECT_EQ(m1, again);
    ASSERT_EQ(sec__check_mech_data2(svc, 2, &m2), 0u);
    EXPECT_EQ(svc->mdata_list, m2);  // newest first
    EXPECT_EQ(m2->next, m1);
    EXPECT_EQ(m2->state, 0u);
    EXPECT_EQ(sec__check_mech_data2(svc, 77, &m2), 8u);
    EXPECT_EQ(last_message(), MSG_2650_070);
    EXPECT_EQ(sec_end(&st, 0, tok), 0);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_END), 0u);  // never started
}

TEST_F(ServiceToken, StartsTheFirstModuleAndEndsIt) {
    configure("# two modules\n" + line(1, "one", 0x101, qvtest::kTestMpm) + line(2, "two", 0x102, qvtest::kTestMpm2));
    sec_status_desc st{};
    sec_token_t tok = nullptr;
    ASSERT_EQ(sec_start(&st, 0x44, &tok), 0);
    ASSERT_NE(tok, nullptr);
    auto *svc = static_cast<sec_svc_token_t>(tok);
    EXPECT_EQ(svc->magic, SEC_SVC_TOKEN_MAGIC);
    EXPECT_EQ(std::memcmp(&svc->magic, "vres", 4), 0);
    EXPECT_EQ(svc->sflags, 0x44u);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_START), 1u);
    EXPECT_EQ(mpm_.record(QVTEST_MPM_START).args[0], 0x44u);
    EXPECT_EQ(mpm2_.calls(QVTEST_MPM_START), 0u);  // only the first is started
    ASSERT_NE(svc->mdata_list, nullptr);
    EXPECT_EQ(svc->mdata_list->state, 1u);
    EXPECT_EQ(svc->mdata_list->mpm->code, 0x101u);
    void *handle = svc->mdata_list->mtoken;
    EXPECT_NE(handle, nullptr);

    // The second module is started by whoever needs it, as sec_start does.
    sec_mech_data_t m2;
    pthread_mutex_lock(&svc->lock);
    ASSERT_EQ(sec__check_mech_data(svc, sec__get_mpm_entry(0x102), &m2), 0u);
    ASSERT_EQ(sec__mpm_start(m2->mpm, &st, svc->sflags, &m2->mtoken), 0u);
    m2->state |= 1;
    pthread_mutex_unlock(&svc->lock);

    long handles = mpm_.live_handles();
    EXPECT_EQ(sec_end(&st, 0x55, tok), 0);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_END), 1u);
    EXPECT_EQ(mpm2_.calls(QVTEST_MPM_END), 1u);
    EXPECT_EQ(mpm_.record(QVTEST_MPM_END).args[0], 0x55u);
    EXPECT_EQ(mpm_.record(QVTEST_MPM_END).args[1], reinterpret_cast<uintptr_t>(handle));
    EXPECT_EQ(mpm_.live_handles(), handles - 1);
}

TEST_F(ServiceToken, DeferredStartStartsNothing) {
    configure(line(1, "one", 0x101, qvtest::kTestMpm));
    sec_status_desc st{};
    sec_token_t tok = nullptr;
    ASSERT_EQ(sec_start(&st, SEC_F_DEFER_MPM_START, &tok), 0);
    EXPECT_EQ(static_cast<sec_svc_token_t>(tok)->mdata_list, nullptr);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_START), 0u);
    EXPECT_EQ(sec__get_mpm_entry(0x101)->state, SEC_MPM_S_RESERVED);  // not even loaded
    EXPECT_EQ(sec_end(&st, 0, tok), 0);
}

TEST_F(ServiceToken, NoModuleConfigured) {
    configure("# nothing here\n");
    sec_status_desc st{};
    sec_token_t tok = nullptr;
    ASSERT_EQ(sec_start(&st, 0, &tok), 0);
    EXPECT_EQ(static_cast<sec_svc_token_t>(tok)->mdata_list, nullptr);
    EXPECT_EQ(sec_end(&st, 0, tok), 0);
}

TEST_F(ServiceToken, FailingFirstModuleStillGivesAToken) {
    struct Case {
        const char *what;
        const char *file;
        qv_uint32_t maj;
    } cases[] = {{"module fails to start", qvtest::kTestMpm, 9}, {"module cannot be loaded", "missing.so", 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        qvtest::clear_mpm_table();
        mpm_.reset();
        mpm_.behaviour(QVTEST_MPM_START).maj_stat = c.maj;
        configure(line(1, "one", 0x101, c.file));
        sec_status_desc st{};
        sec_token_t tok = nullptr;
        ASSERT_EQ(sec_start(&st, 0, &tok), 0);
        ASSERT_NE(tok, nullptr);
        EXPECT_EQ(last_message(), -1);  // the failure's error record is dropped
        EXPECT_EQ(st.maj_stat, c.maj);
        EXPECT_STREQ(st.desc, c.maj ? "mpm_start" : "");
        auto *svc = static_cast<sec_svc_token_t>(tok);
        ASSERT_NE(svc->mdata_list, nullptr);
        EXPECT_EQ(svc->mdata_list->state, 0u);
        EXPECT_EQ(sec_end(&st, 0, tok), 0);
        EXPECT_EQ(mpm_.calls(QVTEST_MPM_END), 0u);
    }
}

TEST_F(ServiceToken, EndReportsTheLastModulesResult) {
    configure(line(1, "one", 0x101, qvtest::kTestMpm) + line(2, "two", 0x102, qvtest::kTestMpm2));
    sec_status_desc st{};
    sec_token_t tok = nullptr;
    ASSERT_EQ(sec_start(&st, 0, &tok), 0);
    auto *svc = static_cast<sec_svc_token_t>(tok);
    sec_mech_data_t m2;
    pthread_mutex_lock(&svc->lock);
    ASSERT_EQ(sec__check_mech_data(svc, sec__get_mpm_entry(0x102), &m2), 0u);
    ASSERT_EQ(sec__mpm_start(m2->mpm, &st, 0, &m2->mtoken), 0u);
    m2->state |= 1;
    pthread_mutex_unlock(&svc->lock);
    // The list is newest first: module two ends first, module one last.
    mpm2_.behaviour(QVTEST_MPM_END).maj_stat = 5;
    EXPECT_EQ(sec_end(&st, 0, tok), 0);
    EXPECT_STREQ(st.desc, "mpm_end");  // the earlier failure's detail stays
    EXPECT_EQ(st.maj_stat, 0u);
}

TEST_F(ServiceToken, EndFailsWithTheLastModule) {
    configure(line(1, "one", 0x101, qvtest::kTestMpm));
    sec_status_desc st{};
    sec_token_t tok = nullptr;
    ASSERT_EQ(sec_start(&st, 0, &tok), 0);
    mpm_.behaviour(QVTEST_MPM_END).maj_stat = 5;
    mpm_.behaviour(QVTEST_MPM_END).min_stat = 6;
    EXPECT_EQ(sec_end(&st, 0, tok), 3);
    EXPECT_EQ(st.maj_stat, 5u);
    EXPECT_EQ(st.min_stat, 6u);
    EXPECT_EQ(st.mech_code, 0x101u);
}

TEST_F(ServiceToken, ArgumentChecks) {
    configure("# none\n");
    sec_status_desc st{};
    sec_token_t tok = nullptr;
    struct Case {
        const char *what;
        std::function<qv_int32_t()> call;
        qv_int32_t rc;
        int message;
    } cases[] = {
        {"start without status", [&] { return sec_start(nullptr, 0, &tok); }, 4, MSG_2650_060},
        {"start without token pointer", [&] { return sec_start(&st, 0, nullptr); }, 4, MSG_2650_002},
        {"end without status", [&] { return sec_end(nullptr, 0, nullptr); }, 4, MSG_2650_060},
        {"end of no token", [&] { return sec_end(&st, 0, nullptr); }, 0, -1},
        {"end of a bad token", [&] { return sec_end(&st, 0, &st); }, 5, MSG_2650_003},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        cu_set_no_error_1();
        std::memset(&st, 0xff, sizeof st);
        EXPECT_EQ(c.call(), c.rc);
        EXPECT_EQ(last_message(), c.message);
    }
    EXPECT_EQ(st.maj_stat, 0u);  // zeroed before the token was looked at
}

class SetupSocket : public qvtest::MpmFixture {
protected:
    void SetUp() override {
        MpmFixture::SetUp();
        configure("# none\n");
        sec_status_desc st{};
        ASSERT_EQ(sec_start(&st, 0, &svc_), 0);
        local_ = socket(AF_UNIX, SOCK_STREAM, 0);
        inet_ = socket(AF_INET, SOCK_STREAM, 0);
    }
    void TearDown() override {
        close(local_);
        close(inet_);
        sec_status_desc st{};
        sec_end(&st, 0, svc_);
        MpmFixture::TearDown();
    }
    static void discard(sec_token_t ctx) {
        auto *c = static_cast<sec_ctx_token_t>(ctx);
        if (c == nullptr) return;
        if (c->sinfo.path != nullptr) unlink(c->sinfo.path);
        free(c->sinfo.path);
        free(c);
    }
    sec_token_t svc_ = nullptr;
    int local_ = -1, inet_ = -1;
};

TEST_F(SetupSocket, BadArguments) {
    std::string prefix = dir_.path() + "/";
    std::string too_long(69, 'p');
    std::string longest = "/nonexistent-directory/";
    longest.resize(68, 'p');
    sec_status_desc bogus{};
    struct Case {
        const char *what;
        sec_token_t stoken;
        int fd;
        qv_uint32_t flags;
        const char *arg;
        bool ctokenp;
        qv_int32_t rc;
        int message;
    } cases[] = {
        {"no service token", nullptr, local_, SEC_F_LOCAL_SOCKET, prefix.c_str(), true, 4, MSG_2650_002},
        {"no context pointer", svc_, local_, SEC_F_LOCAL_SOCKET, prefix.c_str(), false, 4, MSG_2650_002},
        {"negative descriptor", svc_, -1, SEC_F_LOCAL_SOCKET, prefix.c_str(), true, 10, MSG_2650_008},
        {"both kinds", svc_, local_, SEC_F_LOCAL_SOCKET | SEC_F_NETWORK_SOCKET, prefix.c_str(), true, 4,
         MSG_2650_002},
        {"neither kind", svc_, local_, 0, prefix.c_str(), true, 4, MSG_2650_002},
        {"no prefix", svc_, local_, SEC_F_LOCAL_SOCKET, nullptr, true, 4, MSG_2650_002},
        {"empty prefix", svc_, local_, SEC_F_LOCAL_SOCKET, "", true, 4, MSG_2650_002},
        {"69-character prefix", svc_, local_, SEC_F_LOCAL_SOCKET, too_long.c_str(), true, 4, MSG_2650_002},
        {"bad service token", &bogus, local_, SEC_F_LOCAL_SOCKET, prefix.c_str(), true, 5, MSG_2650_003},
        {"local flag on a network socket", svc_, inet_, SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND, nullptr, true, 10,
         MSG_2650_008},
        {"68-character prefix in a missing directory", svc_, local_, SEC_F_LOCAL_SOCKET, longest.c_str(), true, 10,
         MSG_2650_008},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        sec_token_t ctx = &bogus;
        cu_set_no_error_1();
        EXPECT_EQ(sec_setup_socket(c.stoken, c.fd, c.flags, const_cast<char *>(c.arg), c.ctokenp ? &ctx : nullptr),
                  c.rc);
        EXPECT_EQ(last_message(), c.message);
        if (c.rc == 10 && c.fd >= 0) {
            EXPECT_EQ(ctx, nullptr);  // discarded after it was made
        }
    }
}

TEST_F(SetupSocket, LocalSocketIsBoundToAUniquePath) {
    std::string prefix = dir_.path() + "/";
    sec_token_t ctx = nullptr;
    ASSERT_EQ(sec_setup_socket(svc_, local_, SEC_F_LOCAL_SOCKET, prefix.data(), &ctx), 0);
    auto *c = static_cast<sec_ctx_token_t>(ctx);
    EXPECT_EQ(std::memcmp(&c->magic, "tnoc", 4), 0);
    EXPECT_EQ(c->magic, SEC_CTX_TOKEN_MAGIC);
    EXPECT_EQ(c->state, SEC_CTX_S_SOCKET);
    EXPECT_EQ(c->svc_token, svc_);
    EXPECT_EQ(c->sinfo.fd, local_);
    EXPECT_EQ(c->sinfo.type, SEC_F_LOCAL_SOCKET | 0x80000000u);
    ASSERT_NE(c->sinfo.path, nullptr);
    char expected_head[64];
    std::snprintf(expected_head, sizeof expected_head, "sec%x%x", static_cast<unsigned>(getpid()),
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(pthread_self())));
    std::string path = c->sinfo.path;
    ASSERT_EQ(path.compare(0, prefix.size(), prefix), 0);
    std::string tail = path.substr(prefix.size());
    EXPECT_EQ(tail.compare(0, std::strlen(expected_head), expected_head), 0) << tail;
    EXPECT_TRUE(std::regex_match(tail.substr(std::strlen(expected_head)), std::regex("[0-9a-f]{16}"))) << tail;
    struct sockaddr_un bound{};
    socklen_t len = sizeof bound;
    ASSERT_EQ(getsockname(local_, reinterpret_cast<sockaddr *>(&bound), &len), 0);
    EXPECT_STREQ(bound.sun_path, c->sinfo.path);
    discard(ctx);
}

TEST_F(SetupSocket, SocketsTheLibraryDoesNotBind) {
    struct Case {
        const char *what;
        int fd;
        qv_uint32_t flags;
    } cases[] = {{"local, already bound", local_, SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND},
                 {"network", inet_, SEC_F_NETWORK_SOCKET}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        sec_token_t ctx = nullptr;
        ASSERT_EQ(sec_setup_socket(svc_, c.fd, c.flags, nullptr, &ctx), 0);
        auto *t = static_cast<sec_ctx_token_t>(ctx);
        EXPECT_EQ(t->sinfo.type, c.flags);
        EXPECT_EQ(t->sinfo.path, nullptr);
        EXPECT_EQ(t->state, SEC_CTX_S_SOCKET);
        discard(ctx);
    }
}

TEST_F(SetupSocket, BindRefusesAPathThatDoesNotFit) {
    std::string prefix(100, 'p');
    char *path = nullptr;
    EXPECT_EQ(sec__bind_unix_socket(local_, prefix.data(), &path), 4u);
    EXPECT_EQ(path, nullptr);
}

}  // namespace
