// The "local" module through the library, across two processes: a service
// that accepts a client on a UNIX-domain socket, both sides' sockets given to
// the library with sec_setup_socket, the exchange of CCDBs, sealed data,
// signatures and the client's identity. The context routines are looked up
// at run time, so that this program builds against a library that does not
// have them yet; it then skips.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>

#include <cstdlib>

#include "local_module.h"
#include "qv_sec.h"

namespace qvtest {
namespace {

using StartCtx = qv_int32_t (*)(sec_status_t, sec_token_t, sec_buffer_t, char *, char *, qv_uint32_t, sec_token_t *,
                                sec_buffer_t);
using CompleteCtx = qv_int32_t (*)(sec_status_t, sec_buffer_t, sec_token_t *, sec_buffer_t);
using ReceiveCtx = qv_int32_t (*)(sec_status_t, sec_token_t, sec_buffer_t, sec_token_t *, sec_buffer_t);
using PrepareData = qv_int32_t (*)(sec_status_t, sec_token_t, qv_uint32_t, sec_buffer_t, sec_buffer_t);
using ProcessData = qv_int32_t (*)(sec_status_t, sec_token_t, sec_buffer_t, sec_buffer_t);
using EndCtx = qv_int32_t (*)(sec_status_t, sec_token_t, sec_buffer_t);
using ClientIdentity = qv_int32_t (*)(sec_status_t, sec_token_t, qv_char_t **, qv_char_t **, sec_buffer_t);
using SignData = qv_int32_t (*)(sec_status_t, sec_token_t, qv_int32_t, struct iovec *, sec_buffer_t);
using VerifyData = qv_int32_t (*)(sec_status_t, sec_token_t, sec_buffer_t, qv_int32_t, struct iovec *);
using Release = qv_int32_t (*)(sec_buffer_t);

struct Api {
    StartCtx start = lookup<StartCtx>("sec_start_sec_context");
    CompleteCtx complete = lookup<CompleteCtx>("sec_complete_sec_context");
    ReceiveCtx receive = lookup<ReceiveCtx>("sec_receive_sec_context");
    PrepareData prepare = lookup<PrepareData>("sec_prepare_data");
    ProcessData process = lookup<ProcessData>("sec_process_data");
    EndCtx end = lookup<EndCtx>("sec_end_context");
    ClientIdentity identity = lookup<ClientIdentity>("sec_get_client_identity");
    SignData sign = lookup<SignData>("sec_sign_data_v");
    VerifyData verify = lookup<VerifyData>("sec_verify_data_v");
    Release release = lookup<Release>("sec_release_buffer");
    bool complete_api() const {
        return start && complete && receive && prepare && process && end && identity && sign && verify && release;
    }
    template <typename F>
    static F lookup(const char *name) {
        return reinterpret_cast<F>(dlsym(RTLD_DEFAULT, name));
    }
};

struct Buffer {
    sec_buffer_desc b{0, nullptr};
    const Api &api;
    explicit Buffer(const Api &a) : api(a) {}
    ~Buffer() { api.release(&b); }
    std::vector<uint8_t> bytes() const {
        auto *p = static_cast<const uint8_t *>(b.value);
        return b.length > 0 ? std::vector<uint8_t>(p, p + b.length) : std::vector<uint8_t>();
    }
};

constexpr qv_uint32_t kBoundLocal = 0x01000000 | 0x10000000;

// The service's half, in the child. Exit code 0 when every step went as
// expected, else the number of the step that did not.
int serve(const Api &api, int listen_fd) {
    int fd = accept(listen_fd, nullptr, nullptr);
    if (fd < 0) return 10;
    sec_status_desc st;
    sec_token_t stoken = nullptr, ctoken = nullptr;
    if (sec_start(&st, 0, &stoken) != 0) return 11;
    if (sec_setup_socket(stoken, fd, kBoundLocal, nullptr, &ctoken) != 0) return 12;
    std::vector<uint8_t> frame;
    if (!recv_frame(fd, frame)) return 13;
    sec_buffer_desc in = in_buffer(frame);
    Buffer reply(api);
    if (api.receive(&st, stoken, &in, &ctoken, &reply.b) != 0) return 14;
    if (!send_frame(fd, reply.bytes())) return 15;

    char *name = nullptr, *mname = nullptr;
    Buffer id(api);
    if (api.identity(&st, ctoken, &name, &mname, &id.b) != 0) return 16;
    passwd *pw = getpwuid(geteuid());
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    bool names_ok = pw != nullptr && std::string(name) == std::string(pw->pw_name) + "@" + host &&
                    std::string(mname) == pw->pw_name && id.b.length == 6 + 9 + static_cast<int>(strlen(host));
    free(name);
    free(mname);
    if (!names_ok) return 17;

    // A sealed message, then the same message changed in transit.
    if (!recv_frame(fd, frame)) return 18;
    std::vector<uint8_t> changed = frame;
    changed.back() ^= 1;
    in = in_buffer(changed);
    Buffer plain(api);
    if (api.process(&st, ctoken, &in, &plain.b) != SEC_S_MPM_FAILURE || st.maj_stat != 14) return 19;
    in = in_buffer(frame);
    if (api.process(&st, ctoken, &in, &plain.b) != 0) return 20;
    if (plain.bytes() != std::vector<uint8_t>{'h', 'i'}) return 21;
    in = in_buffer(frame);
    Buffer again(api);
    if (api.process(&st, ctoken, &in, &again.b) != SEC_S_MPM_FAILURE || st.maj_stat != 15) return 22;

    // A signature, good and over a changed vector.
    if (!recv_frame(fd, frame)) return 23;
    in = in_buffer(frame);
    char data[] = "signed data";
    iovec v{data, sizeof data - 1};
    data[0] = 'S';
    if (api.verify(&st, ctoken, &in, 1, &v) != SEC_S_BAD_SIGNATURE) return 24;
    data[0] = 's';
    if (api.verify(&st, ctoken, &in, 1, &v) != 0) return 25;

    if (api.end(&st, ctoken, nullptr) != 0 || sec_end(&st, 0, stoken) != 0) return 26;
    close(fd);
    return 0;
}

TEST(LocalThroughLibrary, TwoProcesses) {
    Api api;
    if (!api.complete_api()) GTEST_SKIP() << "the library has no context routines yet";
    TempDir dir;
    std::string cfg = dir.write("qvsec.cfg", "1 local 0x00000001 " + module_path("mpm_local.so") + " i\n");
    setenv("QV_SEC_CONFIG", cfg.c_str(), 1);
    unsetenv("QV_SEC_IMP_MECHS");
    std::string path = dir.path() + "/svc.sock";
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::strncpy(sa.sun_path, path.c_str(), sizeof sa.sun_path - 1);

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int lfd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (bind(lfd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 || listen(lfd, 1) != 0) _exit(9);
        _exit(serve(api, lfd));
    }
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_TRUE(wait_until([&] { return connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0; }));

    sec_status_desc st;
    sec_token_t stoken = nullptr, ctoken = nullptr;
    ASSERT_EQ(0, sec_start(&st, 0, &stoken));
    ASSERT_EQ(0, sec_setup_socket(stoken, fd, kBoundLocal, nullptr, &ctoken));
    Buffer mechs(api), ccdb(api), none(api);
    qv_int32_t count = 0;
    ASSERT_EQ(0, sec_create_mech_buffer(const_cast<char *>("local"), &count, &mechs.b));
    ASSERT_EQ(1, api.start(&st, stoken, &mechs.b, const_cast<char *>("svc"), const_cast<char *>("localhost"), 0,
                           &ctoken, &ccdb.b))
        << st.desc << " " << st.maj_stat << "/" << st.min_stat;
    ASSERT_TRUE(send_frame(fd, ccdb.bytes()));
    std::vector<uint8_t> reply;
    ASSERT_TRUE(recv_frame(fd, reply));
    sec_buffer_desc in = in_buffer(reply);
    ASSERT_EQ(0, api.complete(&st, &in, &ctoken, &none.b)) << st.desc << " " << st.maj_stat << "/" << st.min_stat;
    EXPECT_EQ(0, none.b.length);

    std::vector<uint8_t> hi = {'h', 'i'};
    sec_buffer_desc hin = in_buffer(hi);
    Buffer sealed(api), sig(api);
    ASSERT_EQ(0, api.prepare(&st, ctoken, 0x00200000, &hin, &sealed.b));
    ASSERT_TRUE(send_frame(fd, sealed.bytes()));
    char data[] = "signed data";
    iovec v{data, sizeof data - 1};
    ASSERT_EQ(0, api.sign(&st, ctoken, 1, &v, &sig.b));
    ASSERT_TRUE(send_frame(fd, sig.bytes()));

    int status = -1;
    bool done = wait_until([&] { return waitpid(child, &status, WNOHANG) == child; }, std::chrono::seconds(30));
    if (!done) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    EXPECT_TRUE(done);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(0, api.end(&st, ctoken, nullptr));
    EXPECT_EQ(0, sec_end(&st, 0, stoken));
    close(fd);
}

}  // namespace
}  // namespace qvtest
