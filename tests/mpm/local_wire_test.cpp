// The "local" module's rule of who may serve a target name, linked
// directly so that the services file can be one the test writes (the
// module's own path is fixed at build time).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "local_mech.h"
#include "test_support.h"

namespace qvlocal {
namespace {

// Who may answer a client that requires mutual authentication for a target:
// root, the client's own user, and the users the services file lists for the
// service or, when it lists none, the user of the service's name. The file
// counts only when root owns it and only root can write it.
TEST(LocalWire, ServiceUsersRule) {
    if (geteuid() != 0) GTEST_SKIP() << "the services file must be owned by root: the test writes one as root";
    constexpr uint32_t kDaemon = 1, kNobody = 65534;
    enum Kind { kNone, kText, kGroupWritable, kOtherOwner, kSymlink, kDirectory };
    struct Case {
        const char *what;
        Kind kind;
        const char *text, *target;
        uint32_t service_uid, client_uid;
        Status status;
        qv_uint32_t minor;
    } cases[] = {
        {"no file, stranger", kNone, "", "svc", kDaemon, kNobody, kServiceNotAllowed, kMinorUserNotAllowed},
        {"no file, root", kNone, "", "svc", 0, kNobody, kOk, 0},
        {"no file, the client's own user", kNone, "", "svc", kDaemon, kDaemon, kOk, 0},
        {"no file, user of the service's name", kNone, "", "daemon", kDaemon, kNobody, kOk, 0},
        {"no file, name with host", kNone, "", "daemon@node1", kDaemon, kNobody, kOk, 0},
        {"listed", kText, "svc daemon\n", "svc", kDaemon, kNobody, kOk, 0},
        {"listed by uid, with comments", kText, "# who\n\n  svc\t#65534 \nother daemon\n", "svc", kNobody, 0, kOk, 0},
        {"another service's user", kText, "svc daemon\nother nobody\n", "svc", kNobody, 0, kServiceNotAllowed,
         kMinorUserNotAllowed},
        {"a list replaces the name rule", kText, "daemon nobody\n", "daemon", kDaemon, 0, kServiceNotAllowed,
         kMinorUserNotAllowed},
        {"unknown user listed", kText, "svc no-such-user-qv\n", "svc", kDaemon, 0, kServiceNotAllowed,
         kMinorUserNotAllowed},
        {"three fields", kText, "svc daemon extra\n", "svc", kDaemon, 0, kServiceNotAllowed,
         kMinorServicesFileUnusable},
        {"one field", kText, "svc\n", "svc", kDaemon, 0, kServiceNotAllowed, kMinorServicesFileUnusable},
        {"group-writable", kGroupWritable, "svc daemon\n", "svc", kDaemon, 0, kServiceNotAllowed,
         kMinorServicesFileUnusable},
        {"owned by another user", kOtherOwner, "svc daemon\n", "svc", kDaemon, 0, kServiceNotAllowed,
         kMinorServicesFileUnusable},
        {"symbolic link", kSymlink, "svc daemon\n", "svc", kDaemon, 0, kServiceNotAllowed,
         kMinorServicesFileUnusable},
        {"directory", kDirectory, "", "svc", kDaemon, 0, kServiceNotAllowed, kMinorServicesFileUnusable},
        {"unusable file, root still serves", kGroupWritable, "", "svc", 0, kNobody, kOk, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        qvtest::TempDir dir;
        std::string path = dir.path() + "/local-services";
        if (c.kind != kNone && c.kind != kDirectory) {
            std::string real = dir.write("real", c.text);
            ASSERT_EQ(0, chmod(real.c_str(), c.kind == kGroupWritable ? 0664 : 0644));
            if (c.kind == kOtherOwner) {
                ASSERT_EQ(0, chown(real.c_str(), kNobody, kNobody));
            }
            ASSERT_EQ(0, c.kind == kSymlink ? symlink(real.c_str(), path.c_str()) : rename(real.c_str(), path.c_str()));
        }
        if (c.kind == kDirectory) {
            ASSERT_EQ(0, mkdir(path.c_str(), 0755));
        }
        qv_uint32_t minor = 0;
        EXPECT_EQ(c.status, service_user_allowed(path.c_str(), c.target, c.service_uid, c.client_uid, &minor));
        EXPECT_EQ(c.minor, minor);
    }
}

}  // namespace
}  // namespace qvlocal
