// The buffer-size protocol's second call: the module answers major status 6
// with the size it needs, and the call with a buffer of that size succeeds.
// The test module answers every call of a routine alike, so its first answer
// is held blocked inside the module while the test changes what the second
// call will answer.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "cancellable_thread.h"
#include "messages.h"
#include "identity_fixture.h"

namespace {

class IdentityRetry : public qvtest::HandBuiltContextFixture {
protected:
    // Runs sec_get_client_identity for one form while `routine` first fails
    // with status 6 and then answers `answer` (name_len as given).
    qv_int32_t run(int routine, const std::string &answer, qv_int32_t name_len, char **name, char **mname,
                   sec_buffer_t id, sec_status_desc &st) {
        qvtest_mpm_behaviour_t &b = mpm_.behaviour(routine);
        b.maj_stat = 6;
        b.block = 1;
        qv_int32_t rc = -1;
        // The error record is the calling thread's: read it there.
        qvtest::CancellableThread caller([&] {
            rc = sec_get_client_identity(&st, &token_, name, mname, id);
            message_ = qvtest::last_message();
        });
        bool blocked = qvtest::wait_until([&] { return mpm_.blocked() == 1; });
        EXPECT_TRUE(blocked);
        // The first call has taken its copy of the behaviour; the second
        // will read this one.
        b.maj_stat = 0;
        b.block = 0;
        std::memset(b.name, 0, sizeof b.name);
        std::memcpy(b.name, answer.data(), answer.size());
        b.name_len = name_len;
        mpm_.release();
        EXPECT_TRUE(caller.join());
        return rc;
    }

    int message_ = -1;
};

TEST_F(IdentityRetry, NameFromTheSecondCall) {
    std::string name(255, 'n');
    char *out = nullptr;
    sec_status_desc st{};
    ASSERT_EQ(run(QVTEST_MPM_GET_CLIENT_NAME, name, -1, &out, nullptr, nullptr, st), 0);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_GET_CLIENT_NAME), 2u);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::string(out), name);
    EXPECT_EQ(st.maj_stat, 0u);
    sec_release_name(out);
}

TEST_F(IdentityRetry, TypedIdFromTheSecondCall) {
    sec_buffer_desc id{0, nullptr};
    sec_status_desc st{};
    ASSERT_EQ(run(QVTEST_MPM_GET_CLIENT_ID, "xyz", -1, nullptr, nullptr, &id, st), 0);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_GET_CLIENT_ID), 2u);
    ASSERT_EQ(id.length, 9);
    const auto *p = static_cast<const unsigned char *>(id.value);
    EXPECT_EQ(std::vector<unsigned char>(p, p + 9),
              (std::vector<unsigned char>{0x83, 0x02, 0x00, 0x01, 0x00, 0x02, 'x', 'y', 'z'}));
    sec_release_buffer(&id);
}

TEST_F(IdentityRetry, EmptySecondAnswer) {
    char *name = reinterpret_cast<char *>(0x10);
    sec_status_desc st{};
    EXPECT_EQ(run(QVTEST_MPM_GET_CLIENT_NAME, "", 0, &name, nullptr, nullptr, st), 22);
    EXPECT_EQ(message_, MSG_2650_067);
    EXPECT_EQ(name, nullptr);
}

}  // namespace
