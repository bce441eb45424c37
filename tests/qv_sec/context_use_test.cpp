// The routines of a complete context: attributes, lifetime, sealing and
// opening data, and teardown, with each routine's own argument checks and
// messages.
#include <gtest/gtest.h>

#include <sys/uio.h>

#include <cstdint>
#include <functional>

#include "context_test_harness.h"
#include "sec_test_util.h"

namespace {

using namespace ctxtest;

class ContextUse : public ContextFixture {
protected:
    void SetUp() override {
        ContextFixture::SetUp();
        establish(mech_list({kCodeA}));
        ASSERT_EQ(ex_.client_rc, 0);
        ASSERT_EQ(ex_.server_rc, 0);
        ctx_ = ex_.client_ctx;
    }
    sec_status_desc st_{};
    sec_token_t ctx_ = nullptr;
};

TEST_F(ContextUse, AttributesOfAnAuthenticatedContext) {
    m_.behaviour(QVTEST_MPM_GET_CTX_LIFETIME).value = 3600;
    m_.behaviour(QVTEST_MPM_GET_CTX_FLAGS).value = 0x5;
    qv_int32_t lifetime = 0;
    qv_uint32_t flags = 0;
    char name[SEC_C_CTX_MPM_NAME_SIZE] = {};
    EXPECT_EQ(sec_get_ctx_attribute(&st_, ctx_, SEC_C_CTX_LIFETIME, &lifetime), 0);
    EXPECT_EQ(lifetime, 3600);
    EXPECT_EQ(sec_get_ctx_attribute(&st_, ctx_, SEC_C_CTX_FLAGS, &flags), 0);
    EXPECT_EQ(flags, 0x205u);
    EXPECT_EQ(sec_get_ctx_attribute(&st_, ctx_, SEC_C_CTX_MPM_NAME, name), 0);
    EXPECT_STREQ(name, "qvtest");
    EXPECT_EQ(m_.record(QVTEST_MPM_GET_CTX_FLAGS).args[0],
              reinterpret_cast<uintptr_t>(static_cast<sec_ctx_token_t>(ctx_)->mdata.mtoken));
    lifetime = 5;
    EXPECT_EQ(sec_get_ctx_lifetime(&st_, ctx_, &lifetime), 0);
    EXPECT_EQ(lifetime, 3600);
    EXPECT_EQ(sec_get_ctx_lifetime(&st_, ctx_, nullptr), 0);

    // A module failure is passed on and nothing is written.
    m_.behaviour(QVTEST_MPM_GET_CTX_FLAGS).maj_stat = 0x60;
    flags = 0xabc;
    EXPECT_EQ(sec_get_ctx_attribute(&st_, ctx_, SEC_C_CTX_FLAGS, &flags), SEC_S_MPM_FAILURE);
    EXPECT_EQ(flags, 0xabcu);
    EXPECT_STREQ(st_.desc, "mpm_get_ctx_flags");
    m_.behaviour(QVTEST_MPM_GET_CTX_LIFETIME).maj_stat = 0x61;
    EXPECT_EQ(sec_get_ctx_lifetime(&st_, ctx_, &lifetime), SEC_S_MPM_FAILURE);
    EXPECT_STREQ(st_.desc, "mpm_get_ctx_lifetime");
    // Every routine starts from a clear status record.
    EXPECT_EQ(sec_get_ctx_attribute(&st_, ctx_, SEC_C_CTX_NOTHING, &flags), 0);
    EXPECT_EQ(st_.maj_stat, 0u);
}

TEST_F(ContextUse, AttributeArgumentAndTokenChecks) {
    qv_uint32_t v = 0;
    EXPECT_EQ(sec_get_ctx_attribute(nullptr, ctx_, SEC_C_CTX_FLAGS, &v), 4);
    EXPECT_EQ(last_message(), MSG_2650_060);
    for (qv_uint32_t attr : {0u, 5u, 0xffffffffu}) {
        EXPECT_EQ(sec_get_ctx_attribute(&st_, ctx_, attr, &v), 4);
        EXPECT_EQ(last_message(), MSG_2650_002);
    }
    EXPECT_EQ(sec_get_ctx_attribute(&st_, ctx_, SEC_C_CTX_FLAGS, nullptr), 4);
    EXPECT_EQ(sec_get_ctx_attribute(&st_, nullptr, SEC_C_CTX_FLAGS, &v), 4);
    EXPECT_NE(last_error_text().find("sec_get_ctx_attribute"), std::string::npos);

    sec_ctx_token_desc incomplete = *static_cast<sec_ctx_token_t>(ctx_);
    incomplete.state &= ~SEC_CTX_S_COMPLETE;
    sec_ctx_token_desc wrong = *static_cast<sec_ctx_token_t>(ctx_);
    wrong.magic = SEC_SVC_TOKEN_MAGIC;
    for (sec_ctx_token_desc *t : {&incomplete, &wrong}) {
        EXPECT_EQ(sec_get_ctx_attribute(&st_, t, SEC_C_CTX_FLAGS, &v), SEC_S_BAD_TOKEN);
        EXPECT_EQ(last_message(), MSG_2650_003);
        qv_int32_t lifetime = 0;
        EXPECT_EQ(sec_get_ctx_lifetime(&st_, t, &lifetime), SEC_S_BAD_TOKEN);
    }
    qv_int32_t lifetime = 0;
    EXPECT_EQ(sec_get_ctx_lifetime(nullptr, ctx_, &lifetime), 4);
    EXPECT_EQ(last_message(), MSG_2650_002);
    EXPECT_NE(last_error_text().find("sec_get_ctx_lifetime"), std::string::npos);
    EXPECT_EQ(sec_get_ctx_lifetime(&st_, nullptr, &lifetime), 4);
}

TEST_F(ContextUse, PrepareDataChecks) {
    View in(text("data"));
    Out out;
    sec_buffer_desc empty{0, nullptr};
    sec_buffer_desc unsealable{INT32_MAX - 5, in.d.value};  // claims far more than it holds
    sec_ctx_token_desc identity = *static_cast<sec_ctx_token_t>(ctx_);
    identity.state |= SEC_CTX_S_IDENTITY;
    sec_ctx_token_desc incomplete = *static_cast<sec_ctx_token_t>(ctx_);
    incomplete.state &= ~SEC_CTX_S_COMPLETE;
    struct Case {
        const char *what;
        sec_status_t st;
        sec_token_t ctx;
        qv_uint32_t flags;
        sec_buffer_t in;
        int rc;
        int msg;
    } cases[] = {
        {"no status", nullptr, ctx_, SEC_F_PROTECT_MODE1, in.get(), 4, MSG_2650_002},
        {"no token", &st_, nullptr, SEC_F_PROTECT_MODE1, in.get(), 4, MSG_2650_002},
        {"incomplete", &st_, &incomplete, SEC_F_PROTECT_MODE1, in.get(), 5, MSG_2650_061},
        {"identity context", &st_, &identity, SEC_F_PROTECT_MODE1, in.get(), 5, MSG_2650_062},
        {"no mode", &st_, ctx_, 0, in.get(), 4, MSG_2650_002},
        {"both modes", &st_, ctx_, 0x00300000, in.get(), 4, MSG_2650_002},
        {"other bits only", &st_, ctx_, 0x0040ffff, in.get(), 4, MSG_2650_002},
        {"no input", &st_, ctx_, SEC_F_PROTECT_MODE2, nullptr, 4, MSG_2650_002},
        {"empty input", &st_, ctx_, SEC_F_PROTECT_MODE2, &empty, 7, MSG_2650_027},
        {"input whose seal cannot fit", &st_, ctx_, SEC_F_PROTECT_MODE2, &unsealable, 7, MSG_2650_027},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        out.d.length = 99;  // cleared only once the checks reach it
        EXPECT_EQ(sec_prepare_data(c.st, c.ctx, c.flags, c.in, out.get()), c.rc);
        EXPECT_EQ(last_message(), c.msg);
        EXPECT_EQ(out.d.value, nullptr);
        if (c.msg == MSG_2650_002) {
            EXPECT_NE(last_error_text().find("sec_prepare_data"), std::string::npos);
        }
    }
    EXPECT_EQ(sec_prepare_data(&st_, ctx_, SEC_F_PROTECT_MODE1, in.get(), nullptr), 4);
    EXPECT_EQ(m_.calls(QVTEST_MPM_PREPARE_DATA), 0u);
}

TEST_F(ContextUse, PrepareDataPassesOnlyTheModeBits) {
    View in(text("data"));
    Out out;
    ASSERT_EQ(sec_prepare_data(&st_, ctx_, SEC_F_PROTECT_MODE2 | 0x8000000f, in.get(), out.get()), 0);
    EXPECT_EQ(m_.record(QVTEST_MPM_PREPARE_DATA).args[1], SEC_F_PROTECT_MODE2);
    EXPECT_EQ(out.bytes(), (Bytes{0x86, 2} + be32(kCodeA) + text("QVTP") + Bytes{'d' ^ 0x5a, 'a' ^ 0x5a, 't' ^ 0x5a,
                                                                               'a' ^ 0x5a}));
    // The module's output went back to it.
    EXPECT_EQ(m_.calls(QVTEST_MPM_RELEASE_BUFFER), 3u);  // two establishment answers, one seal
    // A module failure leaves nothing behind.
    m_.behaviour(QVTEST_MPM_PREPARE_DATA).maj_stat = 0x70;
    out.take();
    out.d.length = 5;  // whatever the caller had is not looked at
    EXPECT_EQ(sec_prepare_data(&st_, ctx_, SEC_F_PROTECT_MODE1, in.get(), out.get()), SEC_S_MPM_FAILURE);
    EXPECT_TRUE(out.empty());
    EXPECT_STREQ(st_.desc, "mpm_prepare_data");
}

// A module that claims an output too long for a header to be added: the
// caller gets code 7 and nothing, the module gets its buffer back.
TEST_F(ContextUse, OversizedModuleOutputIsRefusedAndReleased) {
    View in(text("data"));
    struct iovec element{in.d.value, 4};
    struct Case {
        int routine;
        std::function<qv_int32_t(sec_buffer_t)> call;
    } cases[] = {
        {QVTEST_MPM_PREPARE_DATA,
         [&](sec_buffer_t out) { return sec_prepare_data(&st_, ctx_, SEC_F_PROTECT_MODE1, in.get(), out); }},
        {QVTEST_MPM_SIGN_DATA_V, [&](sec_buffer_t out) { return sec_sign_data_v(&st_, ctx_, 1, &element, out); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.routine);
        long buffers = m_.live_buffers();
        m_.behaviour(c.routine).output_len = 4;
        for (qv_int32_t claim : {INT32_MAX, INT32_MAX - 5}) {
            m_.behaviour(c.routine).claim_len = claim;
            Out out;
            EXPECT_EQ(c.call(out.get()), SEC_S_BAD_BUFFER);
            EXPECT_EQ(last_message(), MSG_2650_005);
            EXPECT_TRUE(out.empty());
            EXPECT_EQ(m_.live_buffers(), buffers);
        }
    }
}

TEST_F(ContextUse, ProcessDataChecks) {
    Out sealed;
    View in(text("data"));
    ASSERT_EQ(sec_prepare_data(&st_, ex_.server_ctx, SEC_F_PROTECT_MODE1, in.get(), sealed.get()), 0);
    Out out;
    // The status record's absence is reported under the sibling's name.
    EXPECT_EQ(sec_process_data(nullptr, ctx_, sealed.get(), out.get()), 4);
    EXPECT_NE(last_error_text().find("sec_prepare_data"), std::string::npos);
    EXPECT_EQ(sec_process_data(&st_, nullptr, sealed.get(), out.get()), 4);
    EXPECT_NE(last_error_text().find("sec_process_data"), std::string::npos);
    EXPECT_EQ(sec_process_data(&st_, ctx_, nullptr, out.get()), 4);
    EXPECT_NE(last_error_text().find("sec_process_data"), std::string::npos);
    EXPECT_EQ(sec_process_data(&st_, ctx_, sealed.get(), nullptr), 4);
    sec_ctx_token_desc identity = *static_cast<sec_ctx_token_t>(ctx_);
    identity.state |= SEC_CTX_S_IDENTITY;
    EXPECT_EQ(sec_process_data(&st_, &identity, sealed.get(), out.get()), SEC_S_BAD_TOKEN);
    EXPECT_EQ(last_message(), MSG_2650_062);

    struct Case {
        const char *what;
        Bytes in;
        int rc;
        int msg;
    } cases[] = {
        {"empty", {}, SEC_S_BAD_BUFFER, MSG_2650_027},
        {"five bytes", Bytes{0x86, 2, 0, 1, 0}, SEC_S_BAD_BUFFER, MSG_2650_005},
        {"not a seal buffer", Bytes{0x82, 2} + be32(kCodeA) + text("QVTP"), SEC_S_BAD_BUFFER, MSG_2650_005},
        {"other mechanism", Bytes{0x86, 2} + be32(kCodeB) + text("QVTP"), SEC_S_BAD_MECHANISM, MSG_2650_028},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        View v(c.in);
        EXPECT_EQ(sec_process_data(&st_, ctx_, v.get(), out.get()), c.rc);
        EXPECT_EQ(last_message(), c.msg);
    }
    EXPECT_EQ(m_.calls(QVTEST_MPM_PROCESS_DATA), 0u);
    // The version byte is not checked; the module gets the bytes behind the header.
    View v(Bytes{0x86, 9} + be32(kCodeA) + text("QVTP") + Bytes{'a' ^ 0x5a});
    EXPECT_EQ(sec_process_data(&st_, ctx_, v.get(), out.get()), 0);
    EXPECT_EQ(out.take(), text("a"));
    opened_by_caller_ += 1;
    const qvtest_mpm_call_t &rec = m_.record(QVTEST_MPM_PROCESS_DATA);
    EXPECT_EQ(Bytes(rec.in, rec.in + rec.in_len), text("QVTP") + Bytes{'a' ^ 0x5a});
    // A header alone gives the module an empty buffer, which it refuses.
    View bare(Bytes{0x86, 2} + be32(kCodeA));
    EXPECT_EQ(sec_process_data(&st_, ctx_, bare.get(), out.get()), SEC_S_MPM_FAILURE);
    EXPECT_STREQ(st_.desc, "mpm_process_data");
}

TEST_F(ContextUse, SealedByOneMechanismOpenedByAnother) {
    // A second pair over B: its seal buffer names B.
    Exchange first = ex_;
    ex_ = Exchange{};
    establish(mech_list({kCodeB}));
    ASSERT_EQ(ex_.client_rc, 0);
    View in(text("b data"));
    Out sealed, out;
    ASSERT_EQ(sec_prepare_data(&st_, ex_.client_ctx, SEC_F_PROTECT_MODE1, in.get(), sealed.get()), 0);
    EXPECT_EQ(sec_process_data(&st_, first.server_ctx, sealed.get(), out.get()), SEC_S_BAD_MECHANISM);
    EXPECT_EQ(last_message(), MSG_2650_028);
    EXPECT_EQ(out.d.value, nullptr);
    end_contexts();
    ex_ = first;
}

TEST_F(ContextUse, EndContextChecks) {
    Out buff;
    buff.d.value = malloc(8);
    buff.d.length = 8;
    EXPECT_EQ(sec_end_context(nullptr, nullptr, buff.get()), 4);
    EXPECT_EQ(last_message(), MSG_2650_060);
    EXPECT_EQ(buff.d.length, 8);
    sec_ctx_token_desc wrong{};
    EXPECT_EQ(sec_end_context(&st_, &wrong, buff.get()), SEC_S_BAD_TOKEN);
    EXPECT_EQ(last_message(), MSG_2650_003);
    EXPECT_EQ(buff.d.length, 8);
    // No token: the buffer is released all the same.
    EXPECT_EQ(sec_end_context(&st_, nullptr, buff.get()), 0);
    EXPECT_TRUE(buff.empty());

    // A failing module end is reported but the context still ends.
    m_.behaviour(QVTEST_MPM_END_CONTEXT).maj_stat = 0x71;
    EXPECT_EQ(sec_end_context(&st_, ex_.client_ctx, nullptr), 0);
    EXPECT_STREQ(st_.desc, "mpm_end_context");
    ex_.client_ctx = nullptr;
}

TEST_F(ContextUse, IncompleteContextsMayBeEnded) {
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
    Bytes list = mech_list({kCodeA});
    View l(list);
    Out out;
    sec_token_t ctx = nullptr;
    char s[] = "s", h[] = "h";
    ASSERT_EQ(sec_start_sec_context(&st_, client_svc_, l.get(), s, h, 0, &ctx, out.get()), 1);
    EXPECT_EQ(sec_end_context(&st_, ctx, out.get()), 0);
    EXPECT_TRUE(out.empty());
}

}  // namespace
