// A program that maps identities itself defines sec_idm_get_groups; the
// library must then call the program's function, not its own.
#include <gtest/gtest.h>

#include <cstring>
#include <dlfcn.h>
#include <string>

#include "identity_fixture.h"

namespace {

std::string g_seen_name;
qv_int32_t g_seen_length = -1;
int g_calls = 0;
int g_result = 0;

}  // namespace

// This program's identity mapping: every user is in "staff" and "ops".
extern "C" int sec_idm_get_groups(sec_buffer_t mapped_name, int *gcount, sec_buffer_t *groups) {
    ++g_calls;
    g_seen_length = mapped_name->length;
    g_seen_name.assign(static_cast<const char *>(mapped_name->value));
    if (g_result != 0) return g_result;
    *gcount = 2;
    *groups = static_cast<sec_buffer_t>(calloc(2, sizeof(sec_buffer_desc)));
    (*groups)[0] = {5, strdup("staff")};
    (*groups)[1] = {3, strdup("ops")};
    return 0;
}

namespace {

class MappingOverride : public qvtest::ModuleEntryFixture {
protected:
    MappingOverride() : ModuleEntryFixture(0x404) {}
    void SetUp() override {
        ModuleEntryFixture::SetUp();
        g_calls = 0;
        g_result = 0;
    }
};

TEST_F(MappingOverride, LibraryCallsTheProgramsDefinition) {
    sec_status_desc st{};
    sec_privset_info_desc ps{};
    ASSERT_EQ(sec__get_mapped_identity(&st, entry_, nullptr, &ps), 0);
    EXPECT_EQ(g_calls, 1);
    EXPECT_EQ(g_seen_name, "qvtest_user");
    EXPECT_EQ(g_seen_length, 12);  // the module's byte count, NUL included
    EXPECT_STREQ(ps.mname, "qvtest_user");
    ASSERT_EQ(ps.gcount, 2);
    EXPECT_STREQ(static_cast<char *>(ps.groups[0].value), "staff");
    EXPECT_STREQ(static_cast<char *>(ps.groups[1].value), "ops");
    for (int i = 0; i < ps.gcount; ++i) free(ps.groups[i].value);
    free(ps.groups);
    free(ps.mname);
}

TEST_F(MappingOverride, ProgramsErrorIsPassedOnUnchanged) {
    g_result = 77;
    sec_status_desc st{};
    sec_privset_info_desc ps{};
    EXPECT_EQ(sec__get_mapped_identity(&st, entry_, nullptr, &ps), 77);
    EXPECT_EQ(g_calls, 1);
    EXPECT_EQ(ps.mname, nullptr);  // released again
    EXPECT_EQ(ps.gcount, 0);
    EXPECT_EQ(ps.groups, nullptr);
}

TEST_F(MappingOverride, LibrarysOwnDefinitionStaysInTheLibrary) {
    void *lib = dlopen("libqv_sec.so.1", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(lib, nullptr);
    auto own = reinterpret_cast<int (*)(sec_buffer_t, int *, sec_buffer_t *)>(dlsym(lib, "sec_idm_get_groups"));
    ASSERT_NE(own, nullptr);
    EXPECT_NE(own, &sec_idm_get_groups);
    char user[] = "qv-no-such-user-7f3a";
    sec_buffer_desc name{static_cast<qv_int32_t>(sizeof user), user};
    int count = -1;
    sec_buffer_t groups = nullptr;
    EXPECT_EQ(own(&name, &count, &groups), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(g_calls, 0);
    dlclose(lib);
}

}  // namespace
