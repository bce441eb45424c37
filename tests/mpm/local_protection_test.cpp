// Sealed messages and signatures of the "local" module: both protection
// modes in both directions, and the refusal of changed, replayed, reordered
// and reflected messages.
#include <gtest/gtest.h>

#include <algorithm>

#include "child_process.h"
#include "local_module.h"

namespace qvtest {
namespace {

class LocalProtection : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0u, client.attach(sp.fd[0]));
        ASSERT_EQ(0u, server.attach(sp.fd[1]));
        ModBuffer hello(m), reply(m), none(m);
        qv_uint32_t minor, rflags;
        ASSERT_EQ(1u, m.mpm_start_sec_context(&minor, svc.handle(), nullptr, nullptr, 0, client.slot(), hello.get()));
        ASSERT_EQ(0u, m.mpm_receive_sec_context(&minor, svc.handle(), hello.get(), server.slot(), reply.get(), &rflags));
        ASSERT_EQ(0u, m.mpm_complete_sec_context(&minor, reply.get(), client.get(), none.get()));
    }

    std::vector<uint8_t> seal(void *ctx, const std::vector<uint8_t> &data, qv_uint32_t mode) {
        std::vector<uint8_t> copy = data;
        sec_buffer_desc in = in_buffer(copy);
        ModBuffer out(m);
        qv_uint32_t minor;
        EXPECT_EQ(0u, m.mpm_prepare_data(&minor, ctx, mode, &in, out.get()));
        return out.bytes();
    }
    qv_uint32_t open(void *ctx, std::vector<uint8_t> sealed, std::vector<uint8_t> *plain = nullptr) {
        sec_buffer_desc in = in_buffer(sealed);
        ModBuffer out(m);
        minor = 0;
        qv_uint32_t s = m.mpm_process_data(&minor, ctx, &in, out.get());
        if (s != 0) {
            EXPECT_EQ(0, out.length());
        }
        if (plain != nullptr) *plain = out.bytes();
        return s;
    }

    LocalModule m;
    SocketPair sp;
    Service svc{m};
    Context client{m}, server{m};
    qv_uint32_t minor = 0;
};

TEST_F(LocalProtection, BothModesBothDirections) {
    const std::vector<uint8_t> message = {'s', 'e', 'c', 'r', 'e', 't', ' ', 'd', 'a', 't', 'a'};
    for (qv_uint32_t mode : {kIntegrity, kConfidentiality}) {
        for (bool from_client : {true, false}) {
            void *tx = from_client ? client.get() : server.get();
            void *rx = from_client ? server.get() : client.get();
            std::vector<uint8_t> sealed = seal(tx, message, mode);
            ASSERT_EQ(message.size() + 26, sealed.size());
            EXPECT_EQ(1, sealed[0]);
            EXPECT_EQ(mode == kIntegrity ? 1 : 2, sealed[1]);
            bool visible = std::search(sealed.begin(), sealed.end(), message.begin(), message.end()) != sealed.end();
            EXPECT_EQ(mode == kIntegrity, visible);
            std::vector<uint8_t> plain;
            ASSERT_EQ(0u, open(rx, sealed, &plain));
            EXPECT_EQ(message, plain);
        }
    }
    // Sequence numbers count per direction, across modes.
    std::vector<uint8_t> third = seal(client.get(), {}, kIntegrity);
    ASSERT_EQ(26u, third.size());
    EXPECT_EQ(2, third[9]);
    EXPECT_EQ(0u, open(server.get(), third));
}

TEST_F(LocalProtection, EveryChangedByteIsDetected) {
    for (qv_uint32_t mode : {kIntegrity, kConfidentiality}) {
        const std::vector<uint8_t> sealed = seal(client.get(), {1, 2, 3, 4, 5}, mode);
        for (size_t at = 0; at < sealed.size(); ++at) {
            SCOPED_TRACE(at);
            std::vector<uint8_t> bad = sealed;
            bad[at] ^= 0x04;
            qv_uint32_t s = open(server.get(), bad);
            EXPECT_EQ(kBadMessage, s);
            // Version, mode and tag bytes have their own reasons.
            EXPECT_EQ(at == 0 ? 3u : at == 1 ? 6u : 7u, minor);
        }
        for (size_t n = 0; n < sealed.size(); ++n) {
            std::vector<uint8_t> cut(sealed.begin(), sealed.begin() + static_cast<long>(n));
            EXPECT_EQ(kBadMessage, open(server.get(), cut));
        }
        // None of that moved the receiver on: the genuine message is next.
        EXPECT_EQ(0u, open(server.get(), sealed));
    }
}

TEST_F(LocalProtection, ReplayedReorderedAndReflectedMessages) {
    std::vector<uint8_t> m0 = seal(client.get(), {'a'}, kConfidentiality);
    std::vector<uint8_t> m1 = seal(client.get(), {'b'}, kIntegrity);
    std::vector<uint8_t> m2 = seal(client.get(), {'c'}, kConfidentiality);
    EXPECT_EQ(kOutOfOrder, open(server.get(), m1));
    EXPECT_EQ(0u, open(server.get(), m0));
    EXPECT_EQ(kReplayed, open(server.get(), m0));
    EXPECT_EQ(kOutOfOrder, open(server.get(), m2));
    EXPECT_EQ(0u, open(server.get(), m1));
    EXPECT_EQ(0u, open(server.get(), m2));
    EXPECT_EQ(kReplayed, open(server.get(), m1));
    // A message sent back to its sender does not pass as the peer's.
    EXPECT_EQ(kBadMessage, open(client.get(), m0));
    EXPECT_EQ(7u, minor);
}

TEST_F(LocalProtection, MessagesOfAnotherContextAreRefused) {
    SocketPair sp2;
    Context c2(m), s2(m);
    ASSERT_EQ(0u, c2.attach(sp2.fd[0]));
    ASSERT_EQ(0u, s2.attach(sp2.fd[1]));
    ModBuffer hello(m), reply(m), none(m);
    qv_uint32_t mn, rflags;
    ASSERT_EQ(1u, m.mpm_start_sec_context(&mn, svc.handle(), nullptr, nullptr, 0, c2.slot(), hello.get()));
    ASSERT_EQ(0u, m.mpm_receive_sec_context(&mn, svc.handle(), hello.get(), s2.slot(), reply.get(), &rflags));
    ASSERT_EQ(0u, m.mpm_complete_sec_context(&mn, reply.get(), c2.get(), none.get()));
    EXPECT_EQ(kBadMessage, open(server.get(), seal(c2.get(), {'x'}, kIntegrity)));
}

TEST_F(LocalProtection, BadArguments) {
    std::vector<uint8_t> data = {1, 2};
    sec_buffer_desc in = in_buffer(data);
    ModBuffer out(m);
    qv_uint32_t mn;
    for (qv_uint32_t mode : {0u, kIntegrity | kConfidentiality, 0x1u})
        EXPECT_EQ(kBadArgument, m.mpm_prepare_data(&mn, client.get(), mode, &in, out.get()));
    sec_buffer_desc negative{-1, data.data()};
    EXPECT_EQ(kBadArgument, m.mpm_prepare_data(&mn, client.get(), kIntegrity, &negative, out.get()));
    sec_buffer_desc null_value{2, nullptr};
    EXPECT_EQ(kBadArgument, m.mpm_process_data(&mn, server.get(), &null_value, out.get()));
    EXPECT_EQ(kBadArgument, m.mpm_prepare_data(&mn, client.get(), kIntegrity, &in, nullptr));
    EXPECT_EQ(kBadHandle, m.mpm_prepare_data(&mn, svc.handle(), kIntegrity, &in, out.get()));
}

// After fork the child holds a copy of the keys and sequence numbers: it
// must not seal, sign, open or verify with them (it would reuse the parent's
// nonces, and both would accept the peer's next message). The parent goes on.
TEST_F(LocalProtection, ContextsRefuseWorkInAForkedChild) {
    std::vector<uint8_t> from_server = seal(server.get(), {'s'}, kConfidentiality);
    int child = run_in_child([&] {
        std::vector<uint8_t> data = {1, 2, 3};
        sec_buffer_desc in = in_buffer(data), sealed = in_buffer(from_server);
        ModBuffer out(m);
        qv_uint32_t mn;
        iovec v{data.data(), data.size()};
        qv_uint32_t got[] = {
            m.mpm_prepare_data(&mn, client.get(), kConfidentiality, &in, out.get()),
            m.mpm_prepare_data(&mn, client.get(), kIntegrity, &in, out.get()),
            m.mpm_process_data(&mn, client.get(), &sealed, out.get()),
            m.mpm_sign_data_v(&mn, client.get(), 1, &v, out.get()),
            m.mpm_verify_data_v(&mn, server.get(), &in, 1, &v),
        };
        // Exit status: 0, or the 1-based number of the call that was not refused.
        for (size_t i = 0; i < std::size(got); ++i)
            if (got[i] != kOtherProcess) return static_cast<int>(i + 1);
        return out.length() == 0 ? 0 : 100;
    });
    EXPECT_EQ(0, child);
    std::vector<uint8_t> plain;
    EXPECT_EQ(0u, open(client.get(), from_server, &plain));
    EXPECT_EQ(0u, open(server.get(), seal(client.get(), {'c'}, kIntegrity)));
}

struct Signed {
    std::vector<uint8_t> sig;
    qv_uint32_t status;
};

TEST_F(LocalProtection, Signatures) {
    std::string a = "first part ", b = "second part";
    auto sign = [&](void *ctx, std::vector<iovec> v) {
        ModBuffer sig(m);
        qv_uint32_t mn;
        Signed r;
        r.status = m.mpm_sign_data_v(&mn, ctx, static_cast<qv_int32_t>(v.size()), v.data(), sig.get());
        r.sig = sig.bytes();
        return r;
    };
    auto verify = [&](void *ctx, std::vector<uint8_t> sig, std::vector<iovec> v) {
        sec_buffer_desc in = in_buffer(sig);
        minor = 0;
        return m.mpm_verify_data_v(&minor, ctx, &in, static_cast<qv_int32_t>(v.size()), v.data());
    };
    std::vector<iovec> whole = {{a.data(), a.size()}, {b.data(), b.size()}};
    Signed s0 = sign(client.get(), whole);
    ASSERT_EQ(0u, s0.status);
    ASSERT_EQ(41u, s0.sig.size());
    // A changed vector, or the same bytes split otherwise, fails with 34 and
    // does not move the verifier on.
    std::string joined = a + b;
    std::string changed = joined;
    changed[5] ^= 1;
    const std::vector<std::vector<iovec>> forgeries = {
        {{changed.data(), a.size()}, {changed.data() + a.size(), b.size()}},
        {{joined.data(), joined.size()}},
        {{joined.data(), joined.size()}, {nullptr, 0}},
        {{joined.data(), 3}, {joined.data() + 3, joined.size() - 3}},
        {{a.data(), a.size()}, {nullptr, 0}, {b.data(), b.size()}},
    };
    for (const std::vector<iovec> &v : forgeries) {
        EXPECT_EQ(34u, verify(server.get(), s0.sig, v));
        EXPECT_EQ(7u, minor);
    }
    EXPECT_EQ(0u, verify(server.get(), s0.sig, whole));
    // Replayed and reordered signatures.
    EXPECT_EQ(34u, verify(server.get(), s0.sig, whole));
    EXPECT_EQ(8u, minor);
    // A signature over one split does not verify for another.
    std::string ali = "user=ali", ce = "ce;role=admin", alice = "user=alice;role=admin";
    Signed split = sign(client.get(), {{ali.data(), ali.size()}, {ce.data(), ce.size()}});
    EXPECT_EQ(34u, verify(server.get(), split.sig, {{alice.data(), alice.size()}, {nullptr, 0}}));
    EXPECT_EQ(7u, minor);
    EXPECT_EQ(0u, verify(server.get(), split.sig, {{ali.data(), ali.size()}, {ce.data(), ce.size()}}));
    Signed s1 = sign(client.get(), whole), s2 = sign(client.get(), {});
    EXPECT_EQ(34u, verify(server.get(), s2.sig, {}));
    EXPECT_EQ(9u, minor);
    EXPECT_EQ(0u, verify(server.get(), s1.sig, whole));
    EXPECT_EQ(0u, verify(server.get(), s2.sig, {}));
    // The service's own signatures go the other way with other keys.
    Signed back = sign(server.get(), whole);
    EXPECT_EQ(34u, verify(server.get(), back.sig, whole));
    EXPECT_EQ(0u, verify(client.get(), back.sig, whole));
    // Malformed signatures.
    std::vector<uint8_t> sig = sign(client.get(), whole).sig;
    for (size_t n : {0u, 1u, 40u}) {
        EXPECT_EQ(34u, verify(server.get(), std::vector<uint8_t>(sig.begin(), sig.begin() + static_cast<long>(n)), whole));
        EXPECT_EQ(1u, minor);
    }
    std::vector<uint8_t> longer = sig;
    longer.push_back(0);
    EXPECT_EQ(34u, verify(server.get(), longer, whole));
    EXPECT_EQ(4u, minor);
    std::vector<uint8_t> version = sig;
    version[0] = 1;  // signatures of the concatenation only
    EXPECT_EQ(34u, verify(server.get(), version, whole));
    EXPECT_EQ(3u, minor);
    EXPECT_EQ(0u, verify(server.get(), sig, whole));
    // A vector element with a length and no bytes.
    EXPECT_EQ(kBadArgument, sign(client.get(), {{nullptr, 1}}).status);
}

}  // namespace
}  // namespace qvtest
