// What the identity and ACL tests share: a context token built by hand
// around the test module.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "context_test_harness.h"
#include "mpm_test_fixture.h"

namespace qvtest {

// A completed, authenticated server-side context token built by hand around
// the test module's context handle; teardown checks that every module handle
// and buffer was given back.
class HandBuiltContextFixture : public MpmFixture {
protected:
    static constexpr qv_uint32_t kCode = 0x00010002;
    static constexpr qv_uint32_t kEstablished = SEC_CTX_S_COMPLETE | SEC_CTX_S_SERVER | SEC_CTX_S_AUTHENTICATED;

    void SetUp() override {
        MpmFixture::SetUp();
        entry_ = reserve(kCode, kTestMpm);
        handles_ = mpm_.live_handles();
        buffers_ = mpm_.live_buffers();
        // The module's context handle, made as acceptance makes it.
        sec_status_desc st{};
        sec_buffer_desc in{4, const_cast<char *>("ccdb")}, out{0, nullptr};
        qv_uint32_t rflags = 0;
        ASSERT_EQ(sec__mpm_receive_sec_context(entry_, &st, nullptr, &in, &token_.mdata.mtoken, &out, &rflags), 0u);
        sec__mpm_release_buffer(entry_, &out);
        token_.magic = SEC_CTX_TOKEN_MAGIC;
        token_.state = kEstablished;
        token_.version = 2;
        token_.mdata.mpm = entry_;
        token_.mdata.state = 0x1;
        mpm_.reset();
    }
    void TearDown() override {
        mpm_.release();
        sec_status_desc st{};
        EXPECT_EQ(sec__mpm_end_context(entry_, &st, token_.mdata.mtoken), 0u);
        EXPECT_EQ(mpm_.live_handles(), handles_);
        EXPECT_EQ(mpm_.live_buffers(), buffers_);
        MpmFixture::TearDown();
    }

    TestMpm mpm_;
    sec_mpm_entry_t entry_ = nullptr;
    long handles_ = 0, buffers_ = 0;

    sec_ctx_token_desc token_{};
};

}  // namespace qvtest
