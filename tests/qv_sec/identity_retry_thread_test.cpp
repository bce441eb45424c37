// The buffer-size protocol's second call: the module answers major status 6
// with the size it needs, and the call with a buffer of that size succeeds.
// The test module answers every call of a routine alike, so its first answer
// is held blocked inside the module while the test changes what the second
// call will answer.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "cancellable_thread.h"
#include "identity_fixture.h"
#include "test_support.h"

namespace {

class IdentityRetry : public qvtest::HandBuiltContextFixture {
protected:
    // Runs sec_get_client_identity for one form while `routine` first fails
    // with status 6 and then answers `answer`.
    qv_int32_t run(int routine, const std::string &answer, char **name, sec_buffer_t id, sec_status_desc &st) {
        qvtest_mpm_behaviour_t &b = mpm_.behaviour(routine);
        b.maj_stat = 6;
        b.block = 1;
        qv_int32_t rc = -1;
        qvtest::CancellableThread caller([&] { rc = sec_get_client_identity(&st, &token_, name, nullptr, id); });
        bool blocked = qvtest::wait_until([&] { return mpm_.blocked() == 1; });
        EXPECT_TRUE(blocked);
        // The first call has taken its copy of the behaviour; the second
        // will read this one.
        b.maj_stat = 0;
        b.block = 0;
        std::memset(b.name, 0, sizeof b.name);
        std::memcpy(b.name, answer.data(), answer.size());
        b.name_len = -1;
        mpm_.release();
        EXPECT_TRUE(caller.join());
        return rc;
    }
};

// The second answer reaches the caller: a 255-byte name and a typed id (an
// empty answer is refused by the same check as a first one, identity_test's).
TEST_F(IdentityRetry, AnswerFromTheSecondCall) {
    for (int routine : {QVTEST_MPM_GET_CLIENT_NAME, QVTEST_MPM_GET_CLIENT_ID}) {
        mpm_.reset();
        char *name = nullptr;
        sec_buffer_desc id{0, nullptr};
        sec_status_desc st{};
        bool by_name = routine == QVTEST_MPM_GET_CLIENT_NAME;
        const std::string answer = by_name ? std::string(255, 'n') : "xyz";
        ASSERT_EQ(run(routine, answer, by_name ? &name : nullptr, by_name ? nullptr : &id, st), 0);
        EXPECT_EQ(mpm_.calls(routine), 2u);
        EXPECT_EQ(st.maj_stat, 0u);
        EXPECT_EQ(by_name ? std::string(name) : qvtest::to_hex(static_cast<uint8_t *>(id.value), id.length),
                  by_name ? answer : "830200010002" "78797a");
        sec_release_name(name);
        sec_release_buffer(&id);
    }
}

}  // namespace
