// The library's own sec_idm_get_groups, checked against the group file read
// here independently, and the mapping step (sec__get_mapped_identity) that
// feeds it the mapped name a module reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <grp.h>
#include <pwd.h>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>

#include "messages.h"
#include "identity_fixture.h"
#include "sec_test_util.h"

namespace {

struct Groups {
    int count = -1;
    sec_buffer_t array = nullptr;
    ~Groups() {
        for (int i = 0; i < count; ++i) free(array[i].value);
        free(array);
    }
    std::multiset<std::string> names() const {
        std::multiset<std::string> s;
        for (int i = 0; i < count; ++i) {
            auto *v = static_cast<const char *>(array[i].value);
            EXPECT_EQ(array[i].length, static_cast<qv_int32_t>(strlen(v) + 1));
            s.insert(v);
        }
        return s;
    }
};

std::string current_user(gid_t &gid) {
    passwd *pw = getpwuid(getuid());
    if (pw == nullptr) return "";
    gid = pw->pw_gid;
    return pw->pw_name;
}

// The user's groups from /etc/group: the primary one and every group that
// lists the user as a member.
std::set<std::string> groups_from_file(const std::string &user, gid_t primary) {
    std::set<std::string> out;
    std::ifstream f("/etc/group");
    std::string line;
    while (std::getline(f, line)) {
        std::stringstream fields(line);
        std::string name, pass, gid, members;
        std::getline(fields, name, ':');
        std::getline(fields, pass, ':');
        std::getline(fields, gid, ':');
        std::getline(fields, members);
        if (!gid.empty() && static_cast<gid_t>(std::stoul(gid)) == primary) out.insert(name);
        std::stringstream list(members);
        std::string m;
        while (std::getline(list, m, ','))
            if (m == user) out.insert(name);
    }
    return out;
}

TEST(IdentityMapping, GroupsOfTheCurrentUser) {
    gid_t primary = 0;
    std::string user = current_user(primary);
    ASSERT_FALSE(user.empty());
    std::set<std::string> expected = groups_from_file(user, primary);
    if (expected.empty()) GTEST_SKIP() << "groups not in /etc/group";
    // With the NUL counted, as modules report names, and without it.
    for (qv_int32_t extra : {1, 0}) {
        SCOPED_TRACE(extra);
        std::string buf = user + '\0' + "trailing";
        sec_buffer_desc name{static_cast<qv_int32_t>(user.size()) + extra, buf.data()};
        Groups g;
        ASSERT_EQ(sec_idm_get_groups(&name, &g.count, &g.array), 0);
        std::multiset<std::string> got = g.names();
        EXPECT_EQ(std::set<std::string>(got.begin(), got.end()), expected);
    }
}

TEST(IdentityMapping, UnknownUserHasNoGroups) {
    char user[] = "qv-no-such-user-7f3a";
    sec_buffer_desc name{static_cast<qv_int32_t>(sizeof user), user};
    Groups g;
    ASSERT_EQ(sec_idm_get_groups(&name, &g.count, &g.array), 0);
    EXPECT_EQ(g.count, 0);
    EXPECT_EQ(g.array, nullptr);
}

// The mapping step over the test module.
class MappedIdentity : public qvtest::ModuleEntryFixture {
protected:
    MappedIdentity() : ModuleEntryFixture(0x303) {}
};

TEST_F(MappedIdentity, NameAndItsGroups) {
    gid_t primary = 0;
    std::string user = current_user(primary);
    std::strcpy(mpm_.behaviour(QVTEST_MPM_GET_MAPPED_NAME).name, user.c_str());
    sec_status_desc st{};
    sec_privset_info_desc ps{};
    int handle = 0;
    ASSERT_EQ(sec__get_mapped_identity(&st, entry_, &handle, &ps), 0);
    EXPECT_EQ(mpm_.record(QVTEST_MPM_GET_MAPPED_NAME).args[0], reinterpret_cast<uintptr_t>(&handle));
    ASSERT_NE(ps.mname, nullptr);
    EXPECT_EQ(std::string(ps.mname), user);
    Groups g;
    g.count = ps.gcount;
    g.array = ps.groups;
    std::multiset<std::string> got = g.names();
    std::set<std::string> expected = groups_from_file(user, primary);
    if (!expected.empty()) {
        EXPECT_EQ(std::set<std::string>(got.begin(), got.end()), expected);
    }
    free(ps.mname);
}

TEST_F(MappedIdentity, NoMappingAndModuleFailure) {
    mpm_.behaviour(QVTEST_MPM_GET_MAPPED_NAME).name_len = 0;
    sec_status_desc st{};
    sec_privset_info_desc ps{};
    ps.gcount = 7;
    ASSERT_EQ(sec__get_mapped_identity(&st, entry_, nullptr, &ps), 0);
    EXPECT_EQ(ps.mname, nullptr);
    EXPECT_EQ(ps.gcount, 0);
    EXPECT_EQ(ps.groups, nullptr);

    mpm_.reset();
    mpm_.behaviour(QVTEST_MPM_GET_MAPPED_NAME).maj_stat = 9;
    EXPECT_EQ(sec__get_mapped_identity(&st, entry_, nullptr, &ps), 3);
    EXPECT_STREQ(st.desc, "mpm_get_mapped_name");
    EXPECT_EQ(ps.mname, nullptr);

    EXPECT_EQ(sec__get_mapped_identity(&st, nullptr, nullptr, &ps), 23);
    EXPECT_EQ(last_message(), MSG_2650_071);
}

}  // namespace
