// What the context tests share: two configured test modules, a client and a
// server service token, byte helpers for CCDBs and mechanism lists, and a
// driver that runs the exchange between the two sides in one process.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "messages.h"
#include "mpm_test_fixture.h"
#include "qv_sec_internal.h"
#include "sec_buffer.h"

namespace ctxtest {

using Bytes = std::vector<uint8_t>;

// Mechanism codes of the two test modules: A is libqvtest_mpm.so, B
// libqvtest_mpm2.so. A's code has a byte in every position that matters.
inline constexpr qv_uint32_t kCodeA = 0x00010002u;
inline constexpr qv_uint32_t kCodeB = 0x51u;

inline Bytes be32(qv_uint32_t v) {
    return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
            static_cast<uint8_t>(v)};
}

inline Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }

inline Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A version-2 CCDB.
inline Bytes ccdb(qv_uint32_t mech, uint8_t seq, uint8_t flags, const Bytes &body = {}) {
    return Bytes{SEC_BUF_CCDB, 2} + be32(mech) + Bytes{seq, flags} + body;
}

inline Bytes mech_list(const std::vector<qv_uint32_t> &codes, uint8_t version = 1) {
    Bytes b{SEC_BUF_MECH_LIST, version};
    for (qv_uint32_t c : codes) b = b + be32(c);
    return b;
}

using View = qvtest::BufferView;
using Out = qvtest::SecBuffer;

// One exchange in one process: every CCDB that crossed, in order, and the
// last return code of each side.
struct Exchange {
    std::vector<Bytes> wire;  // client, server, client, server, ...
    int client_rc = -1;
    int server_rc = -1;
    sec_token_t client_ctx = nullptr;
    sec_token_t server_ctx = nullptr;
    sec_status_desc client_st{};
    sec_status_desc server_st{};
};

class ContextFixture : public qvtest::MpmFixture {
protected:
    void SetUp() override {
        qvtest::MpmFixture::SetUp();
        unsetenv("QV_SEC_IMP_MECHS");
        unsetenv("QV_SEC_MECH");
        handles0_ = m_.live_handles();
        buffers0_ = m2_.live_buffers() + m_.live_buffers();
        handles2_ = m2_.live_handles();
        configure(line(1, "qvtest", kCodeA, qvtest::kTestMpm) + line(2, "qvtest2", kCodeB, qvtest::kTestMpm2));
        start_services();
    }
    void TearDown() override {
        end_contexts();
        sec_status_desc st{};
        EXPECT_EQ(sec_end(&st, 0, client_svc_), 0);
        EXPECT_EQ(sec_end(&st, 0, server_svc_), 0);
        // Nothing the modules handed out is left behind.
        EXPECT_EQ(m_.live_handles(), handles0_);
        EXPECT_EQ(m2_.live_handles(), handles2_);
        EXPECT_EQ(m_.live_buffers() + m2_.live_buffers(), buffers0_ + opened_by_caller_);
        unsetenv("QV_SEC_IMP_MECHS");
        qvtest::MpmFixture::TearDown();
    }

    void start_services(qv_uint32_t flags = 0) {
        sec_status_desc st{};
        ASSERT_EQ(sec_start(&st, flags, &client_svc_), 0);
        ASSERT_EQ(sec_start(&st, flags, &server_svc_), 0);
    }
    // Restarts the server's service token, e.g. after changing the
    // environment it reads.
    void restart_server() {
        sec_status_desc st{};
        ASSERT_EQ(sec_end(&st, 0, server_svc_), 0);
        server_svc_ = nullptr;
        ASSERT_EQ(sec_start(&st, 0, &server_svc_), 0);
    }
    sec_svc_token_t client_svc() { return static_cast<sec_svc_token_t>(client_svc_); }
    sec_svc_token_t server_svc() { return static_cast<sec_svc_token_t>(server_svc_); }

    // Ends whatever contexts the test left in ex_.
    void end_contexts() {
        sec_status_desc st{};
        EXPECT_EQ(sec_end_context(&st, ex_.client_ctx, nullptr), 0);
        EXPECT_EQ(sec_end_context(&st, ex_.server_ctx, nullptr), 0);
        ex_.client_ctx = ex_.server_ctx = nullptr;
    }

    // Scripts an exchange of `rounds` rounds on module m: the client's start
    // and the server's answers continue until the last round.
    static void script_rounds(qvtest::TestMpm &m, int rounds) {
        m.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
        m.behaviour(QVTEST_MPM_COMPLETE_SEC_CONTEXT).continue_rounds = rounds - 1;
        m.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).continue_rounds = rounds - 1;
    }

    // Runs the exchange with the shared list `list` until one side stops
    // (complete, failed, or nothing more to send) and records it in ex_.
    Exchange &establish(const Bytes &list) {
        View l(list);
        Out out;
        ex_.client_rc = sec_start_sec_context(&ex_.client_st, client_svc_, l.get(), const_cast<char *>("qvtest-svc"),
                                              const_cast<char *>("qvtest-host"), 0, &ex_.client_ctx, out.get());
        Bytes c = out.take();
        while (!c.empty() && ex_.client_rc <= 2) {
            ex_.wire.push_back(c);
            View in(c);
            Out ans;
            ex_.server_rc = sec_receive_sec_context(&ex_.server_st, server_svc_, in.get(), &ex_.server_ctx, ans.get());
            Bytes s = ans.take();
            if (!s.empty()) ex_.wire.push_back(s);
            if (ex_.server_rc > 1 || s.empty() || ex_.client_rc != 1) break;
            View sin(s);
            ex_.client_rc = sec_complete_sec_context(&ex_.client_st, sin.get(), &ex_.client_ctx, out.get());
            c = out.take();
        }
        return ex_;
    }

    // Seals `msg` on one context and opens it on the other; the opened bytes.
    Bytes seal_and_open(sec_token_t from, sec_token_t to, const Bytes &msg, qv_uint32_t mech) {
        sec_status_desc st{};
        View in(msg);
        Out sealed, opened;
        EXPECT_EQ(sec_prepare_data(&st, from, SEC_F_PROTECT_MODE1, in.get(), sealed.get()), 0);
        Bytes s = sealed.bytes();
        // The seal buffer names the mechanism; the module's bytes follow.
        Bytes header = Bytes{SEC_BUF_SEAL, 2} + be32(mech);
        EXPECT_EQ(Bytes(s.begin(), s.begin() + std::min<size_t>(6, s.size())), header);
        EXPECT_NE(Bytes(s.begin() + std::min<size_t>(6, s.size()), s.end()), msg);
        EXPECT_EQ(sec_process_data(&st, to, sealed.get(), opened.get()), 0);
        if (!opened.empty()) opened_by_caller_ += 1;
        return opened.bytes();
    }

    qvtest::TestMpm m_;
    qvtest::TestMpm m2_{qvtest::kTestMpm2};
    sec_token_t client_svc_ = nullptr;
    sec_token_t server_svc_ = nullptr;
    Exchange ex_;
    long handles0_ = 0, handles2_ = 0, buffers0_ = 0;
    // sec_process_data hands the module's output to the caller, who frees
    // it: the module counts those buffers as live.
    long opened_by_caller_ = 0;
};

}  // namespace ctxtest
