// The library's own sec_idm_get_groups and each lookup failure it meets.
// This program defines its own sec_idm_get_groups, which hides the
// library's (the library still reaches its own), and getpwnam_r and
// getgrgid_r, which fail with an injected error when asked. (What
// sec_create_cidb carries is the end-to-end test's, with the real module.)
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>

#include <cstring>
#include <string>
#include <vector>

#include "qv_sec.h"
#include "messages.h"
#include "sec_test_util.h"

namespace {

int g_calls = 0;
int g_pw_error = 0, g_gr_error = 0;  // injected into the next lookups

template <typename Fn>
Fn next(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int sec_idm_get_groups(sec_buffer_t, int *gcount, sec_buffer_t *groups) {
    ++g_calls;
    *gcount = 1;
    *groups = static_cast<sec_buffer_t>(calloc(1, sizeof(sec_buffer_desc)));
    (*groups)[0] = {6, strdup("qvgrp")};
    return 0;
}

extern "C" int getpwnam_r(const char *name, passwd *pw, char *buf, size_t n, passwd **out) {
    static auto real = next<int (*)(const char *, passwd *, char *, size_t, passwd **)>("getpwnam_r");
    if (g_pw_error == 0) return real(name, pw, buf, n, out);
    *out = nullptr;
    return g_pw_error;
}

extern "C" int getgrgid_r(gid_t gid, group *gr, char *buf, size_t n, group **out) {
    static auto real = next<int (*)(gid_t, group *, char *, size_t, group **)>("getgrgid_r");
    if (g_gr_error == 0) return real(gid, gr, buf, n, out);
    *out = nullptr;
    return g_gr_error;
}

namespace {

// The library's own definition, which this program's hides.
int library_groups(sec_buffer_t name, int *gcount, sec_buffer_t *groups) {
    void *lib = dlopen("libqv_sec.so.1", RTLD_NOW | RTLD_NOLOAD);
    auto own = reinterpret_cast<decltype(&sec_idm_get_groups)>(dlsym(lib, "sec_idm_get_groups"));
    dlclose(lib);
    EXPECT_NE(own, &sec_idm_get_groups);
    return own(name, gcount, groups);
}

TEST(IdentityMapping, LibraryLookupFailures) {
    std::string me = getpwuid(geteuid())->pw_name;
    struct Row {
        const char *what;
        std::string user;
        qv_int32_t length;  // -1: with the NUL
        int pw_error, gr_error;
        int rc, msg;
        bool groups;
    } rows[] = {
        {"this user", me, -1, 0, 0, 0, -1, true},
        {"the length without the NUL", me, static_cast<qv_int32_t>(me.size()), 0, 0, 0, -1, true},
        {"no such user: no groups", "qv-no-such-user-7f3a", -1, 0, 0, 0, -1, false},
        {"user lookup out of memory", me, -1, ENOMEM, 0, 6, MSG_2650_004, false},
        {"user lookup fails", me, -1, EIO, 0, 23, MSG_2650_034, false},
        // A shorter list would drop the groups an access entry denies.
        {"group lookup out of memory", me, -1, 0, ENOMEM, 6, MSG_2650_004, false},
        {"group lookup fails", me, -1, 0, EIO, 23, MSG_2650_034, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        std::string buf = row.user + '\0' + "trailing";
        sec_buffer_desc name{row.length >= 0 ? row.length : static_cast<qv_int32_t>(row.user.size() + 1), buf.data()};
        int count = -1;
        sec_buffer_t groups = reinterpret_cast<sec_buffer_t>(&buf);
        cu_set_no_error_1();
        g_pw_error = row.pw_error;
        g_gr_error = row.gr_error;
        int rc = library_groups(&name, &count, &groups);
        g_pw_error = g_gr_error = 0;
        EXPECT_EQ(rc, row.rc);
        EXPECT_EQ(last_message(), row.msg);
        EXPECT_EQ(count > 0 && groups != nullptr, row.groups);
        if (!row.groups) {
            EXPECT_EQ(count, 0);
            EXPECT_EQ(groups, nullptr);
        }
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(groups[i].length, static_cast<qv_int32_t>(strlen(static_cast<char *>(groups[i].value)) + 1));
            EXPECT_EQ(sec_release_buffer(&groups[i]), 0);  // the library's own release, as a caller frees them
        }
        free(groups);
    }
    EXPECT_EQ(g_calls, 0);
}

}  // namespace
