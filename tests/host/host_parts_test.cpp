// The "host" module's replay cache and configuration reader.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <unistd.h>

#include "host_mech.h"
#include "test_support.h"

namespace {

using namespace qvhostmech;
using Key = std::array<uint8_t, ReplayCache::kKeyBytes>;

Key key(uint32_t n) {
    Key k{};
    std::memcpy(k.data() + 10, &n, sizeof n);
    return k;
}

TEST(HostReplayCache, KeepsUntilExpiryThenPrunesAndRefusesWhenFull) {
    ReplayCache c(3);
    using R = ReplayCache::Result;
    EXPECT_EQ(c.insert(key(1), 100, 0), R::kFresh);
    EXPECT_EQ(c.insert(key(1), 100, 50), R::kReplayed);
    EXPECT_EQ(c.insert(key(1), 100, 100), R::kReplayed);  // still valid in its last second
    EXPECT_EQ(c.insert(key(2), 200, 100), R::kFresh);
    EXPECT_EQ(c.insert(key(3), 300, 100), R::kFresh);
    EXPECT_EQ(c.insert(key(4), 300, 100), R::kFull);
    EXPECT_EQ(c.size(), 3u);
    // Time passes: the first entry goes, and room is made.
    EXPECT_EQ(c.insert(key(4), 400, 101), R::kFresh);
    EXPECT_EQ(c.insert(key(1), 500, 102), R::kFull);  // 2, 3, 4 still held
    EXPECT_EQ(c.insert(key(5), 600, 301), R::kFresh);  // 2 and 3 went
    EXPECT_EQ(c.size(), 2u);
}

// Threads offering the same keys: each key is fresh exactly once.
TEST(HostReplayCache, EachKeyFreshOnceAcrossThreads) {
    ReplayCache c(100000);
    std::atomic<int> fresh{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (uint32_t i = 0; i < 2000; ++i)
                if (c.insert(key(i), 1000 + i % 7, i % 5) == ReplayCache::Result::kFresh) fresh++;
        });
    for (auto &t : threads) t.join();
    EXPECT_EQ(fresh.load(), 2000);
}

TEST(HostConfig, Lines) {
    struct Row {
        const char *text;
        const char *why;  // empty: accepted
    } rows[] = {
        {"# all\nsocket /s\ntrusted /t\nservices /v\nhost n-1.x\nskew 0\nlifetime 86400\ntimeout-ms 1\n"
         "replay-cache-max 5\nsame-users a b\n\n",
         ""},
        {"skew 3601\n", "line 1: bad value for skew"},
        {"\nlifetime 0\n", "line 2: bad value for lifetime"},
        {"lifetime 12x\n", "line 1: bad value for lifetime"},
        {"socket run/hostd.sock\n", "line 1: bad value for socket"},
        {"host a b\n", "line 1: expected one value after host"},
        {"host bad/name\n", "line 1: bad value for host"},
        {"same-users ok bad/name\n", "line 1: not a host name: bad/name"},
        {"colour blue\n", "line 1: unknown key colour"},
    };
    for (const Row &r : rows) {
        HostConfig c;
        std::string why;
        EXPECT_EQ(parse_host_config(r.text, c, why), r.why[0] == '\0') << r.text;
        EXPECT_EQ(why, r.why) << r.text;
    }
    HostConfig c;
    std::string why;
    EXPECT_FALSE(parse_host_config(std::string_view("skew 1\0\n", 8), c, why));
    EXPECT_EQ(why, "line 1: NUL byte");
    ASSERT_TRUE(parse_host_config("skew 7\nsame-users a b\nhost me\n", c, why));
    EXPECT_EQ(c.skew, 7);
    EXPECT_EQ(c.same_users, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(config_host(c), "me");
    EXPECT_EQ(c.lifetime, 120u);  // unset keys keep their defaults
}

// A configuration others may change is refused at mpm_start.
TEST(HostConfig, UnsafeFileRefusedAtStart) {
    qvtest::TempDir tmp;
    const std::string path = tmp.write("host.conf", "skew 5\n");
    setenv("QVSEC_HOST_CONF", path.c_str(), 1);
    qv_uint32_t minor = 0;
    void *svc = nullptr;
    ASSERT_EQ(mpm_start(&minor, 0, &svc), kOk);
    mpm_end(&minor, 0, svc);
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    EXPECT_EQ(mpm_start(&minor, 0, &svc), kConfig);
    setenv("QVSEC_HOST_CONF", (tmp.path() + "/missing").c_str(), 1);
    EXPECT_EQ(mpm_start(&minor, 0, &svc), kConfig);
    unsetenv("QVSEC_HOST_CONF");
}

}  // namespace

// Names of identities made from "<user>@<host>", under a configuration in
// which this host is "me" and "peer" shares its user names.
TEST(HostNames, MappingValidationIdsAndTargets) {
    qvtest::TempDir tmp;
    setenv("QVSEC_HOST_CONF", tmp.write("host.conf", "host me\nsame-users peer\n").c_str(), 1);
    qv_uint32_t minor = 0;
    void *svc = nullptr;
    ASSERT_EQ(mpm_start(&minor, 0, &svc), kOk);
    auto text = [](qv_uint32_t (*get)(qv_uint32_t *, void *, qv_int32_t *, char *), void *ctx) {
        char out[256];
        qv_int32_t len = sizeof out;
        qv_uint32_t m;
        return get(&m, ctx, &len, out) == kOk ? std::string(out, static_cast<size_t>(len)) : std::string("error");
    };
    struct Row {
        const char *name;
        qv_uint32_t made;
        const char *mapped;         // with its NUL when there is one
        qv_uint32_t root_valid, root_minor;
    } rows[] = {
        {"root@peer", kOk, std::string_view("root\0", 5).data(), kOk, 0},
        {"root@me", kOk, std::string_view("root\0", 5).data(), kOk, 0},
        {"root@stranger", kOk, "", kUserNotValid, 3},
        {"#0@peer", kOk, "", kUserNotValid, 3},  // a bare uid never maps
        {"daemon@peer", kOk, std::string_view("daemon\0", 7).data(), kUserNotValid, 2},
        {"root", kUnknownName, "", 0, 0},
        {"root@bad/host", kUnknownName, "", 0, 0},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        void *ctx = nullptr;
        ASSERT_EQ(mpm_create_id_context(&minor, MPM_IDCTX_FROM_NAME, const_cast<char *>(r.name), &ctx), r.made);
        if (r.made != kOk) continue;
        EXPECT_EQ(text(mpm_get_client_name, ctx), std::string(r.name) + '\0');
        EXPECT_EQ(text(mpm_get_mapped_name, ctx), std::string(r.mapped, r.mapped[0] ? strlen(r.mapped) + 1 : 0));
        EXPECT_EQ(mpm_user_valid(&minor, ctx, const_cast<char *>("root")), r.root_valid);
        EXPECT_EQ(minor, r.root_minor);
        mpm_end_context(&minor, ctx);
    }
    void *ctx = nullptr;
    ASSERT_EQ(mpm_create_id_context(&minor, MPM_IDCTX_FROM_NAME, const_cast<char *>("ab@h"), &ctx), kOk);
    const std::string id = text(mpm_get_client_id, ctx);
    EXPECT_EQ(qvtest::to_hex(reinterpret_cast<const uint8_t *>(id.data()), id.size()),
              "01" "0000000000000000" "ffffffff" "02" "6162" "68");
    mpm_end_context(&minor, ctx);
    // Login: this process's own uid on this host only.
    std::vector<uint8_t> own{1, 0, 0, 0, 0, 0, 0, 0, 0};
    for (int s = 24; s >= 0; s -= 8) own.push_back(static_cast<uint8_t>(geteuid() >> s));
    own.insert(own.end(), {0, 'm', 'e'});
    sec_buffer_desc b{static_cast<qv_int32_t>(own.size()), own.data()};
    EXPECT_EQ(mpm_login_as_user(&minor, &b, nullptr, 0, svc), kOk);
    own.back() = 'x';
    EXPECT_EQ(mpm_login_as_user(&minor, &b, nullptr, 0, svc), kNotPermitted);
    char target[64];
    qv_int32_t len = sizeof target;
    EXPECT_EQ(mpm_get_target_name(&minor, svc, const_cast<char *>("svc"), const_cast<char *>(""), &len, target), kOk);
    EXPECT_STREQ(target, "svc@me");
    len = sizeof target;
    EXPECT_EQ(mpm_get_target_name(&minor, svc, const_cast<char *>(""), nullptr, &len, target), kBadArgument);
    // A context slot holding something else than a context of this module.
    void *not_a_context = svc;
    sec_buffer_desc token{0, nullptr}, reply{0, nullptr};
    EXPECT_EQ(mpm_start_sec_context(&minor, svc, const_cast<char *>("svc@h"), nullptr, 0, &not_a_context, &token),
              kBadHandle);
    qv_uint32_t rflags;
    EXPECT_EQ(mpm_receive_sec_context(&minor, svc, &token, &not_a_context, &reply, &rflags), kBadHandle);
    mpm_end(&minor, 0, svc);
    unsetenv("QVSEC_HOST_CONF");
}
