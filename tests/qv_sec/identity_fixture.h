// What the identity tests share: CIDB bytes built by hand, a privilege set
// in one line, and a context token built by hand around the test module.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "context_test_harness.h"
#include "mpm_test_fixture.h"

namespace qvtest {

using ctxtest::operator+;

// CIDB bytes built by hand from the layout: this test's node ID, a name
// field (length with the NUL, then the bytes and the NUL), and the header of
// an authenticated CIDB of version 1.
inline const ctxtest::Bytes kCidbNode{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
inline ctxtest::Bytes be16(unsigned v) { return {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)}; }
inline ctxtest::Bytes cidb_field(const std::string &s) {
    return be16(static_cast<unsigned>(s.size() + 1)) + ctxtest::text(s) + ctxtest::Bytes{0};
}
inline ctxtest::Bytes cidb_head(qv_uint32_t mech, qv_uint32_t flags, const ctxtest::Bytes &node = kCidbNode) {
    return ctxtest::Bytes{SEC_BUF_CIDB, 1} + node + ctxtest::be32(mech) + ctxtest::be32(flags) +
           ctxtest::Bytes{0, 0, 0, 0};
}

// A privilege set as one line, "name|mapped name|group/length,...", with "-"
// for a NULL name: what a table row states in one column.
inline std::string privset_text(const sec_privset_info_desc &ps) {
    auto str = [](const void *p) { return p != nullptr ? std::string(static_cast<const char *>(p)) : std::string("-"); };
    std::string s = str(ps.name) + "|" + str(ps.mname) + "|";
    for (int i = 0; i < ps.gcount && ps.groups != nullptr; ++i)
        s += (i > 0 ? "," : "") + str(ps.groups[i].value) + "/" + std::to_string(ps.groups[i].length);
    return s;
}

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
