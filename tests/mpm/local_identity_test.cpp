// Who the client is, as the "local" module tells the library: names with the
// buffer-size protocol, the client id, user validation, identity contexts,
// service and user login.
#include <gtest/gtest.h>

#include "local_module.h"

namespace qvtest {
namespace {

class LocalIdentity : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(user_name(geteuid()).empty()) << "the test's user needs a passwd entry";
        p.establish(nullptr);
        client = p.client.get(), server = p.server.get(), svc = p.svc.handle();
    }

    LocalModule m;
    Pair p{m};
    void *client = nullptr, *server = nullptr, *svc = nullptr;
};

// Every context that knows the client answers alike: the accepted one, the
// client's own (it gave its socket, so it names the service's user), and
// identity contexts made from a context, from the network name and from the
// name by uid.
TEST_F(LocalIdentity, NamesIdAndUserValidity) {
    qv_uint32_t mn;
    const std::string user = user_name(geteuid()), name = user_at_host(geteuid());
    std::string by_uid = "#" + std::to_string(geteuid()) + "@" + this_host();
    Context from_ctx(m), from_name(m), numeric(m);
    ASSERT_EQ(0u, m.mpm_create_id_context(&mn, MPM_IDCTX_FROM_CONTEXT, server, from_ctx.slot()));
    ASSERT_EQ(0u, m.mpm_create_id_context(&mn, MPM_IDCTX_FROM_NAME, const_cast<char *>(name.c_str()), from_name.slot()));
    ASSERT_EQ(0u, m.mpm_create_id_context(&mn, MPM_IDCTX_FROM_NAME, by_uid.data(), numeric.slot()));
    const std::string id = ask_name(m.mpm_get_client_id, server);
    std::vector<uint8_t> want = {1};
    push_be32(want, geteuid());
    push_be32(want, getegid());
    want.insert(want.end(), name.end() - static_cast<long>(this_host().size()), name.end());
    EXPECT_EQ(to_hex(want), to_hex(reinterpret_cast<const uint8_t *>(id.data()), id.size()));
    std::string numeric_user = "#" + std::to_string(geteuid()), other = "#" + std::to_string(geteuid() + 1);
    for (void *ctx : {server, client, from_ctx.get(), from_name.get(), numeric.get()}) {
        EXPECT_EQ(name + '\0', ask_name(m.mpm_get_client_name, ctx));
        EXPECT_EQ(user + '\0', ask_name(m.mpm_get_mapped_name, ctx));
        EXPECT_EQ(id, ask_name(m.mpm_get_client_id, ctx));
        EXPECT_EQ(0u, m.mpm_user_valid(&mn, ctx, const_cast<char *>(user.c_str())));
        EXPECT_EQ(0u, m.mpm_user_valid(&mn, ctx, numeric_user.data()));
        EXPECT_EQ(36u, m.mpm_user_valid(&mn, ctx, const_cast<char *>("no-such-user-qv")));
        EXPECT_EQ(1u, mn);
        EXPECT_EQ(36u, m.mpm_user_valid(&mn, ctx, other.data()));
        EXPECT_EQ(2u, mn);
        EXPECT_EQ(kBadArgument, m.mpm_user_valid(&mn, ctx, const_cast<char *>("")));
    }
    for (void *ctx : {from_ctx.get(), from_name.get(), numeric.get()}) {
        qv_uint32_t flags;
        ASSERT_EQ(0u, m.mpm_get_ctx_flags(&mn, ctx, &flags));
        EXPECT_EQ(0x40u, flags);
    }

    // Too small a buffer: status 6 and the size needed, then the answer.
    char small[2];
    qv_int32_t len = sizeof small;
    ASSERT_EQ(6u, m.mpm_get_client_name(&mn, server, &len, small));
    EXPECT_EQ(static_cast<qv_int32_t>(name.size() + 1), len);
    std::vector<char> exact(static_cast<size_t>(len));
    EXPECT_EQ(0u, m.mpm_get_client_name(&mn, server, &len, exact.data()));
    len = -1;
    EXPECT_EQ(kBadArgument, m.mpm_get_client_id(&mn, server, &len, small));

    // Identity contexts protect nothing.
    std::vector<uint8_t> data = {1};
    sec_buffer_desc in = in_buffer(data);
    ModBuffer out(m);
    EXPECT_EQ(kWrongState, m.mpm_prepare_data(&mn, from_ctx.get(), kIntegrity, &in, out.get()));
    iovec v{data.data(), 1};
    EXPECT_EQ(24u, m.mpm_sign_data_v(&mn, from_ctx.get(), 1, &v, out.get()));
    EXPECT_EQ(24u, m.mpm_verify_data_v(&mn, from_ctx.get(), &in, 1, &v));

    struct Bad {
        qv_uint32_t mode;
        std::string in;
        qv_uint32_t status;
    } bad[] = {
        {MPM_IDCTX_FROM_NAME, user + "@another-host.example", kUnknownName},
        {MPM_IDCTX_FROM_NAME, user, kUnknownName},
        {MPM_IDCTX_FROM_NAME, "no-such-user-qv@" + this_host(), kUnknownName},
        {MPM_IDCTX_FROM_NAME, "#12x@" + this_host(), kUnknownName},
        {MPM_IDCTX_FROM_NAME, "", kBadArgument},
        {MPM_IDCTX_FROM_NAME, std::string(4096, 'u'), kUnknownName},  // the longest name read
        {MPM_IDCTX_FROM_NAME, std::string(4097, 'u'), kBadArgument},
        {3, name, kBadArgument},
    };
    for (Bad &b : bad) {
        SCOPED_TRACE(b.in);
        Context c(m);
        EXPECT_EQ(b.status, m.mpm_create_id_context(&mn, b.mode, b.in.data(), c.slot()));
        EXPECT_EQ(nullptr, c.get());
    }
}

TEST_F(LocalIdentity, ServiceAndUserLogin) {
    qv_uint32_t mn;
    std::string id = ask_name(m.mpm_get_client_id, server);
    std::vector<uint8_t> bytes(id.begin(), id.end());
    sec_buffer_desc in = in_buffer(bytes);
    EXPECT_EQ(0u, m.mpm_login_as_user(&mn, &in, nullptr, 0, svc));
    std::vector<uint8_t> other = bytes;
    other[4] ^= 1;
    in = in_buffer(other);
    EXPECT_EQ(kNotPermitted, m.mpm_login_as_user(&mn, &in, nullptr, 0, svc));
    std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + 8);
    in = in_buffer(cut);
    EXPECT_EQ(kBadToken, m.mpm_login_as_user(&mn, &in, nullptr, 0, svc));

    std::string long_name(256, 's');
    EXPECT_EQ(kBadArgument, m.mpm_login_as_service(&mn, long_name.data(), svc));
    EXPECT_EQ(kBadArgument, m.mpm_login_as_service(&mn, const_cast<char *>(""), svc));
    EXPECT_EQ(0u, m.mpm_login_as_service(&mn, const_cast<char *>("svc"), svc));
    qv_int32_t lifetime = 0;
    EXPECT_EQ(0u, m.mpm_renew_identity(&mn, svc, &lifetime));
    EXPECT_EQ(0x7fffffff, lifetime);
    EXPECT_EQ(0u, m.mpm_service_cleanup(&mn, svc, 0));

    char name[8];
    qv_int32_t len = sizeof name;
    EXPECT_EQ(6u, m.mpm_get_target_name(&mn, svc, const_cast<char *>("svc"), const_cast<char *>("node1"),
                                        &len, name));
    EXPECT_EQ(10, len);
    char fits[10];
    EXPECT_EQ(0u, m.mpm_get_target_name(&mn, svc, const_cast<char *>("svc"), const_cast<char *>("node1"),
                                        &len, fits));
    EXPECT_STREQ("svc@node1", fits);
}

}  // namespace
}  // namespace qvtest
