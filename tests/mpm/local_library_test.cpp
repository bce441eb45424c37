// The "local" module through the library: sec_setup_socket gives each side
// its end of a socket pair, then the context is started, received and
// completed, data sealed and opened, signed and verified, the client named,
// and both contexts ended. Once with allocation working, then with the
// n-th allocation failing for every n.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstring>
#include <functional>

#include "alloc_failure.h"
#include "local_module.h"
#include "qv_cu.h"
#include "qv_sec_internal.h"

namespace qvtest {
namespace {

enum Buf { kHello, kReply, kNone, kSealed, kPlain, kSig, kId, kBufs };
enum StageId : size_t { kSetupClient, kSetupServer, kStart, kReceive, kComplete, kSeal, kOpen, kSign, kVerify,
                        kIdentity, kEndClient, kEndServer, kStages };

class LocalThroughLibrary : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        static TempDir dir;
        std::string cfg = dir.write("qvsec.cfg", "1 local 0x00000001 " + module_path("mpm_local.so") + " i\n");
        setenv("QV_SEC_CONFIG", cfg.c_str(), 1);
        unsetenv("QV_SEC_IMP_MECHS");
    }
    void SetUp() override {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd));
        ASSERT_EQ(0, sec_start(&st, 0, &svc));
        qv_int32_t count = 0;
        ASSERT_EQ(0, sec_create_mech_buffer(const_cast<char *>("local"), &count, &mechs));
    }
    void TearDown() override {
        end_all();
        EXPECT_EQ(0, sec_end(&st, 0, svc));
        sec_release_buffer(&mechs);
        close(fd[0]);
        close(fd[1]);
    }

    // Each stage: the code it succeeds with, the call, and its outputs.
    struct Stage {
        const char *name;
        qv_int32_t want;
        std::function<qv_int32_t()> call;
        std::vector<sec_buffer_desc *> out;
    };
    qv_int32_t end(sec_token_t &t) {
        qv_int32_t rc = sec_end_context(&st, t, nullptr);
        if (rc == 0) t = nullptr;
        return rc;
    }
    const Stage stages[kStages] = {
        {"setup client", 0, [this] { return sec_setup_socket(svc, fd[0], kBound, nullptr, &c); }, {}},
        {"setup server", 0, [this] { return sec_setup_socket(svc, fd[1], kBound, nullptr, &s); }, {}},
        // Mutual: the service's user must be allowed to serve "svc".
        {"start", 1, [this] { return sec_start_sec_context(&st, svc, &mechs, target, host, 0x2, &c, &b[kHello]); },
         {&b[kHello]}},
        {"receive", 0, [this] { return sec_receive_sec_context(&st, svc, &b[kHello], &s, &b[kReply]); }, {&b[kReply]}},
        {"complete", 0, [this] { return sec_complete_sec_context(&st, &b[kReply], &c, &b[kNone]); }, {&b[kNone]}},
        {"seal", 0, [this] { return sec_prepare_data(&st, c, SEC_F_PROTECT_MODE2, &message, &b[kSealed]); },
         {&b[kSealed]}},
        {"open", 0, [this] { return sec_process_data(&st, s, &b[kSealed], &b[kPlain]); }, {&b[kPlain]}},
        {"sign", 0, [this] { return sec_sign_data_v(&st, c, 1, &vec, &b[kSig]); }, {&b[kSig]}},
        {"verify", 0, [this] { return sec_verify_data_v(&st, s, &b[kSig], 1, &vec); }, {}},
        {"identity", 0, [this] { return sec_get_client_identity(&st, s, &name, &mname, &b[kId]); }, {&b[kId]}},
        {"end client", 0, [this] { return end(c); }, {}},
        {"end server", 0, [this] { return end(s); }, {}},
    };

    // Runs the stages from `from` up to upto; the first code other than the
    // stage's success, else 0. failed is the stage that ended the run.
    qv_int32_t life(size_t upto = kStages, size_t from = 0) {
        for (failed = from; failed < upto; ++failed)
            if (qv_int32_t rc = stages[failed].call(); rc != stages[failed].want) return rc;
        return 0;
    }
    void end_all() {
        sec_status_desc scratch{};
        for (sec_token_t t : {c, s}) {
            EXPECT_EQ(0, sec_end_context(&scratch, t, nullptr));
        }
        c = s = nullptr;
        for (sec_buffer_desc &buf : b) sec_release_buffer(&buf);
        sec_release_name(name);
        sec_release_name(mname);
        name = mname = nullptr;
    }

    // Ends what a run made and clears the thread's error records, which are
    // not leaks.
    void forget() {
        end_all();
        sec__error_clear(&st);
        cu_set_no_error_1();
    }

    static constexpr qv_uint32_t kBound = SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND;
    int fd[2] = {-1, -1};
    sec_status_desc st{};
    sec_token_t svc = nullptr, c = nullptr, s = nullptr;
    sec_buffer_desc mechs{0, nullptr}, b[kBufs] = {};
    char target[4] = "svc", host[10] = "localhost", data[12] = "signed data";
    char *name = nullptr, *mname = nullptr;
    sec_buffer_desc message{2, data};
    iovec vec{data, sizeof data - 1};
    size_t failed = 0;
};

TEST_F(LocalThroughLibrary, ContextLife) {
    ASSERT_EQ(0, life(kEndClient)) << stages[failed].name << ": " << st.desc;
    EXPECT_EQ(0, b[kNone].length);
    auto *p = static_cast<const char *>(b[kPlain].value);
    EXPECT_EQ("si", std::string(p, p + b[kPlain].length));
    const std::string who = user_at_host(geteuid());
    EXPECT_EQ(who, name);
    EXPECT_EQ(who.substr(0, who.find('@')), mname);
    // The client learns who the service is through the same routine.
    char *service = nullptr;
    ASSERT_EQ(0, sec_get_client_identity(&st, c, &service, nullptr, nullptr));
    EXPECT_STREQ(name, service);
    sec_release_name(service);
    EXPECT_EQ(0, life(kStages, kEndClient));
}

// With the n-th allocation failing: the failing call returns the no-memory
// code (the library's own, or the module's status 12), writes no output,
// and ends a context whose establishment it broke; any other call can be
// made again once memory is back; nothing stays allocated.
TEST_F(LocalThroughLibrary, AllocationFailureAtEveryStep) {
    alloc_failure_sweep(
        [&] { return life(); },
        [&](int rc, bool) {
            if (failed < kStages) {
                // (No SCOPED_TRACE: its first use allocates for good.)
                const Stage &stage = stages[failed];
                EXPECT_TRUE(rc == SEC_S_NO_MEMORY || (rc == SEC_S_MPM_FAILURE && st.maj_stat == 12))
                    << stage.name << ": rc " << rc << ", status " << st.maj_stat << "/" << st.min_stat;
                bool empty = name == nullptr && mname == nullptr;
                for (const sec_buffer_desc *out : stage.out) empty = empty && out->length == 0 && out->value == nullptr;
                if (failed == kSetupClient || failed == kStart || failed == kComplete) empty = empty && c == nullptr;
                if (failed == kSetupServer || failed == kReceive) empty = empty && s == nullptr;
                EXPECT_TRUE(empty || failed > kIdentity) << stage.name << " left output behind";
                // With memory back the call succeeds, and the life goes on.
                // A seal or signature that failed for memory left the
                // module's sequence number where it was: the peer still
                // takes the next message.
                if (failed != kStart && failed != kReceive && failed != kComplete) {
                    EXPECT_EQ(stage.want, stage.call()) << stage.name;
                    const size_t stage_failed = failed;
                    EXPECT_EQ(0, life(kStages, failed + 1)) << stages[stage_failed].name << ", then "
                                                            << stages[failed].name << " " << st.maj_stat;
                }
            }
            forget();
        },
        [&] {
            EXPECT_EQ(0, life());
            forget();
        });
}

}  // namespace
}  // namespace qvtest
