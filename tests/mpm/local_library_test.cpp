// The "local" module through the library, across two processes: a service
// that accepts a client on a UNIX-domain socket, both sides' sockets given to
// the library with sec_setup_socket, the exchange of CCDBs, sealed data,
// signatures and the client's identity.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>

#include <cstdlib>

#include "local_module.h"
#include "qv_sec.h"

namespace qvtest {
namespace {

// A buffer the library hands out, released at the end of the scope.
struct Buffer {
    sec_buffer_desc b{0, nullptr};
    ~Buffer() { sec_release_buffer(&b); }
    std::vector<uint8_t> bytes() const {
        auto *p = static_cast<const uint8_t *>(b.value);
        return b.length > 0 ? std::vector<uint8_t>(p, p + b.length) : std::vector<uint8_t>();
    }
};

constexpr qv_uint32_t kBoundLocal = 0x01000000 | 0x10000000;

// The service's half, in the child. Exit code 0 when every step went as
// expected, else the number of the step that did not.
int serve(int listen_fd) {
    int fd = accept(listen_fd, nullptr, nullptr);
    if (fd < 0) return 10;
    sec_status_desc st;
    sec_token_t stoken = nullptr, ctoken = nullptr;
    if (sec_start(&st, 0, &stoken) != 0) return 11;
    if (sec_setup_socket(stoken, fd, kBoundLocal, nullptr, &ctoken) != 0) return 12;
    std::vector<uint8_t> frame;
    if (!recv_frame(fd, frame)) return 13;
    sec_buffer_desc in = in_buffer(frame);
    Buffer reply;
    if (sec_receive_sec_context(&st, stoken, &in, &ctoken, &reply.b) != 0) return 14;
    if (!send_frame(fd, reply.bytes())) return 15;

    char *name = nullptr, *mname = nullptr;
    Buffer id;
    if (sec_get_client_identity(&st, ctoken, &name, &mname, &id.b) != 0) return 16;
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
    Buffer plain;
    if (sec_process_data(&st, ctoken, &in, &plain.b) != SEC_S_MPM_FAILURE || st.maj_stat != 14) return 19;
    in = in_buffer(frame);
    if (sec_process_data(&st, ctoken, &in, &plain.b) != 0) return 20;
    if (plain.bytes() != std::vector<uint8_t>{'h', 'i'}) return 21;
    in = in_buffer(frame);
    Buffer again;
    if (sec_process_data(&st, ctoken, &in, &again.b) != SEC_S_MPM_FAILURE || st.maj_stat != 15) return 22;

    // A signature, good and over a changed vector.
    if (!recv_frame(fd, frame)) return 23;
    in = in_buffer(frame);
    char data[] = "signed data";
    iovec v{data, sizeof data - 1};
    data[0] = 'S';
    if (sec_verify_data_v(&st, ctoken, &in, 1, &v) != SEC_S_BAD_SIGNATURE) return 24;
    data[0] = 's';
    if (sec_verify_data_v(&st, ctoken, &in, 1, &v) != 0) return 25;

    if (sec_end_context(&st, ctoken, nullptr) != 0 || sec_end(&st, 0, stoken) != 0) return 26;
    close(fd);
    return 0;
}

TEST(LocalThroughLibrary, TwoProcesses) {
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
        _exit(serve(lfd));
    }
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_TRUE(wait_until([&] { return connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0; }));

    sec_status_desc st;
    sec_token_t stoken = nullptr, ctoken = nullptr;
    ASSERT_EQ(0, sec_start(&st, 0, &stoken));
    ASSERT_EQ(0, sec_setup_socket(stoken, fd, kBoundLocal, nullptr, &ctoken));
    Buffer mechs, ccdb, none;
    qv_int32_t count = 0;
    ASSERT_EQ(0, sec_create_mech_buffer(const_cast<char *>("local"), &count, &mechs.b));
    // Mutual authentication: the service must be a user allowed to serve "svc".
    ASSERT_EQ(1, sec_start_sec_context(&st, stoken, &mechs.b, const_cast<char *>("svc"),
                                       const_cast<char *>("localhost"), 0x2, &ctoken, &ccdb.b))
        << st.desc << " " << st.maj_stat << "/" << st.min_stat;
    ASSERT_TRUE(send_frame(fd, ccdb.bytes()));
    std::vector<uint8_t> reply;
    ASSERT_TRUE(recv_frame(fd, reply));
    sec_buffer_desc in = in_buffer(reply);
    ASSERT_EQ(0, sec_complete_sec_context(&st, &in, &ctoken, &none.b))
        << st.desc << " " << st.maj_stat << "/" << st.min_stat;
    EXPECT_EQ(0, none.b.length);
    // The client learns who the service is through the same routine.
    char *service = nullptr;
    ASSERT_EQ(0, sec_get_client_identity(&st, ctoken, &service, nullptr, nullptr));
    passwd *pw = getpwuid(geteuid());
    ASSERT_NE(nullptr, pw);
    EXPECT_EQ(std::string(pw->pw_name) + "@", std::string(service).substr(0, strlen(pw->pw_name) + 1));
    sec_release_name(service);

    std::vector<uint8_t> hi = {'h', 'i'};
    sec_buffer_desc hin = in_buffer(hi);
    Buffer sealed, sig;
    ASSERT_EQ(0, sec_prepare_data(&st, ctoken, 0x00200000, &hin, &sealed.b));
    ASSERT_TRUE(send_frame(fd, sealed.bytes()));
    char data[] = "signed data";
    iovec v{data, sizeof data - 1};
    ASSERT_EQ(0, sec_sign_data_v(&st, ctoken, 1, &v, &sig.b));
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
    EXPECT_EQ(0, sec_end_context(&st, ctoken, nullptr));
    EXPECT_EQ(0, sec_end(&st, 0, stoken));
    close(fd);
}

}  // namespace
}  // namespace qvtest
