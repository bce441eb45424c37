// Signing data vectors on one side of a context and verifying them on the
// other: the signature buffer's bytes, changed data and signatures, another
// mechanism's signature, empty vectors and the module's failures passed on.
// The fixture's tear-down checks that no module handle or buffer is left
// behind.
#include <gtest/gtest.h>

#include <functional>

#include "context_test_harness.h"
#include "sec_test_util.h"

namespace {

using namespace ctxtest;

// What the test module signs with: FNV-1a over the vector's bytes,
// big-endian.
Bytes module_signature(const std::vector<Bytes> &parts) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (const Bytes &p : parts)
        for (uint8_t b : p) h = (h ^ b) * 0x100000001b3ull;
    Bytes out(8);
    for (int i = 7; i >= 0; --i, h >>= 8) out[static_cast<size_t>(i)] = static_cast<uint8_t>(h);
    return out;
}

Bytes seal_header(qv_uint32_t mech, uint8_t version = 2) { return Bytes{SEC_BUF_SEAL, version} + be32(mech); }

// A vector over byte strings that outlive it.
std::vector<iovec> vector_of(std::vector<Bytes> &parts) {
    std::vector<iovec> v;
    for (Bytes &p : parts) v.push_back(iovec{p.empty() ? nullptr : p.data(), p.size()});
    return v;
}

class Signing : public ContextFixture {
protected:
    void SetUp() override {
        ContextFixture::SetUp();
        establish(mech_list({kCodeA}));
        ASSERT_EQ(ex_.client_rc, 0);
        ASSERT_EQ(ex_.server_rc, 0);
        v_ = vector_of(parts_);
        ASSERT_EQ(sign(ex_.client_ctx, good_), 0) << last_error_text();
    }
    qv_int32_t sign(sec_token_t ctx, Out &sig) {
        return sec_sign_data_v(&st_, ctx, static_cast<qv_int32_t>(v_.size()), v_.data(), sig.get());
    }
    qv_int32_t verify(sec_token_t ctx, sec_buffer_t sig) {
        return sec_verify_data_v(&st_, ctx, sig, static_cast<qv_int32_t>(v_.size()), v_.data());
    }

    std::vector<Bytes> parts_{text("first part"), {}, text("third")};
    std::vector<iovec> v_;
    sec_status_desc st_{};
    Out good_;  // the client's signature of parts_
};

TEST_F(Signing, ClientSignsAndServerVerifies) {
    EXPECT_EQ(good_.bytes(), seal_header(kCodeA) + module_signature(parts_));
    // Through the wire: the server verifies a copy, and so does the signer.
    View wire(good_.bytes());
    st_.maj_stat = 99;
    EXPECT_EQ(verify(ex_.server_ctx, wire.get()), 0) << last_error_text();
    EXPECT_EQ(st_.maj_stat, 0u);
    const qvtest_mpm_call_t &vrec = m_.record(QVTEST_MPM_VERIFY_DATA_V);
    EXPECT_EQ(Bytes(vrec.in, vrec.in + vrec.in_len), module_signature(parts_));
    EXPECT_EQ(wire.bytes, good_.bytes());  // only read
    EXPECT_EQ(verify(ex_.client_ctx, good_.get()), 0);
    // The server signs back.
    Out back;
    ASSERT_EQ(sign(ex_.server_ctx, back), 0);
    EXPECT_EQ(verify(ex_.client_ctx, back.get()), 0);
}

// Each row changes the signature or the data and verifies on the server:
// one row per outcome and per check of the library's (what the module makes
// of other bytes is the test module's business, and arbitrary signatures
// are the verify-signature fuzzer's).
TEST_F(Signing, Verification) {
    const Bytes body = module_signature(parts_);
    struct Case {
        const char *what;
        std::function<void(Bytes &sig, std::vector<Bytes> &parts)> change;
        int rc;
        int message;       // -1: the module's failure, in the status record
        bool module_asked;
    } cases[] = {
        {"a byte of the data", [](Bytes &, std::vector<Bytes> &p) { p[2][0] ^= 1; }, SEC_S_BAD_SIGNATURE, -1, true},
        {"an element dropped", [](Bytes &, std::vector<Bytes> &p) { p.pop_back(); }, SEC_S_BAD_SIGNATURE, -1, true},
        {"nothing behind the header", [](Bytes &s, std::vector<Bytes> &) { s.resize(6); }, SEC_S_BAD_SIGNATURE, -1,
         true},
        {"any version byte", [](Bytes &s, std::vector<Bytes> &) { s[1] = 0x7f; }, 0, -1, true},
        {"another mechanism", [&](Bytes &s, std::vector<Bytes> &) { s = seal_header(kCodeB) + body; },
         SEC_S_BAD_MECHANISM, MSG_2650_028, false},
        {"not a seal buffer", [&](Bytes &s, std::vector<Bytes> &) { s[0] = SEC_BUF_CCDB; }, SEC_S_BAD_BUFFER,
         MSG_2650_005, false},
        {"short header", [](Bytes &s, std::vector<Bytes> &) { s.resize(5); }, SEC_S_BAD_BUFFER, MSG_2650_005, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Bytes s = good_.bytes();
        std::vector<Bytes> parts = parts_;
        c.change(s, parts);
        std::vector<iovec> v = vector_of(parts);
        View in(s);
        unsigned long calls = m_.calls(QVTEST_MPM_VERIFY_DATA_V);
        cu_set_no_error_1();
        EXPECT_EQ(sec_verify_data_v(&st_, ex_.server_ctx, in.get(), static_cast<qv_int32_t>(v.size()), v.data()),
                  c.rc);
        EXPECT_EQ(last_message(), c.message);
        EXPECT_EQ(m_.calls(QVTEST_MPM_VERIFY_DATA_V) - calls, c.module_asked ? 1u : 0u);
        EXPECT_EQ(status_text(st_), c.rc == SEC_S_BAD_SIGNATURE ? "34 0 0x10002 mpm_verify_data_v" : "0 0 0x0 ");
    }
    // A good verification after failures starts from a clear status record.
    EXPECT_EQ(verify(ex_.server_ctx, good_.get()), 0);
    EXPECT_EQ(status_text(st_), "0 0 0x0 ");
}

TEST_F(Signing, EmptyVectors) {
    // Signing nothing gives an empty signature without asking the module.
    Out sig;
    sig.d = sec_buffer_desc{3, nullptr};
    EXPECT_EQ(sec_sign_data_v(&st_, ex_.client_ctx, 0, nullptr, sig.get()), 0);
    EXPECT_TRUE(sig.empty());
    EXPECT_EQ(m_.calls(QVTEST_MPM_SIGN_DATA_V), 1u);
    // An empty signature is refused even for an empty vector.
    EXPECT_EQ(sec_verify_data_v(&st_, ex_.server_ctx, sig.get(), 0, nullptr), SEC_S_BAD_BUFFER);
    EXPECT_EQ(last_message(), MSG_2650_083);
    // A vector of empty elements is signed by the module.
    iovec empties[2] = {{nullptr, 0}, {nullptr, 0}};
    ASSERT_EQ(sec_sign_data_v(&st_, ex_.client_ctx, 2, empties, sig.get()), 0);
    EXPECT_EQ(sig.bytes(), seal_header(kCodeA) + module_signature({}));
    EXPECT_EQ(sec_verify_data_v(&st_, ex_.server_ctx, sig.get(), 2, empties), 0);
    // An empty vector goes to the module on verification, with whatever
    // signature came: here the header alone, an empty inner signature.
    View header(seal_header(kCodeA));
    EXPECT_EQ(sec_verify_data_v(&st_, ex_.server_ctx, header.get(), 0, nullptr), SEC_S_BAD_SIGNATURE);
    EXPECT_EQ(m_.record(QVTEST_MPM_VERIFY_DATA_V).in_len, 0);
    EXPECT_EQ(m_.record(QVTEST_MPM_VERIFY_DATA_V).args[2], 0u);

    // Only the elements inside the count are looked at, and without a module
    // an empty vector is still signed: there is nothing to ask.
    iovec bad[3] = {{nullptr, 0}, {const_cast<char *>("x"), 1}, {nullptr, 4}};
    sec_release_buffer(sig.get());  // the routine empties its output without freeing it
    EXPECT_EQ(sec_sign_data_v(&st_, ex_.client_ctx, 2, bad, sig.get()), 0);
    sec_ctx_token_desc no_module = *static_cast<sec_ctx_token_t>(ex_.client_ctx);
    no_module.mdata.mpm = nullptr;
    Out none;
    EXPECT_EQ(sec_sign_data_v(&st_, &no_module, 0, nullptr, none.get()), 0);
    EXPECT_TRUE(none.empty());
}

TEST_F(Signing, ModuleFailuresArePassedOn) {
    struct Case {
        int routine;
        qv_uint32_t maj;
        int rc;
    } cases[] = {
        {QVTEST_MPM_SIGN_DATA_V, 24, SEC_S_MPM_NO_SIGNATURE},   {QVTEST_MPM_SIGN_DATA_V, 34, SEC_S_MPM_FAILURE},
        {QVTEST_MPM_VERIFY_DATA_V, 24, SEC_S_MPM_NO_SIGNATURE}, {QVTEST_MPM_VERIFY_DATA_V, 36, SEC_S_MPM_FAILURE},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.maj);
        m_.behaviour(c.routine).maj_stat = c.maj;
        m_.behaviour(c.routine).min_stat = 7;
        bool signing = c.routine == QVTEST_MPM_SIGN_DATA_V;
        Out sig;
        EXPECT_EQ(signing ? sign(ex_.client_ctx, sig) : verify(ex_.server_ctx, good_.get()), c.rc);
        EXPECT_TRUE(sig.empty());
        const std::string routine = signing ? "mpm_sign_data_v" : "mpm_verify_data_v";
        EXPECT_EQ(status_text(st_), std::to_string(c.maj) + " 7 0x10002 " + routine);
        m_.behaviour(c.routine).maj_stat = 0;
    }
}

}  // namespace
