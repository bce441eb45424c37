// Message catalogues built here with gencat: a message the catalogue has is
// shown in its words, anything else in the default text; the catalogue is
// found through NLSPATH and, with no setting, at the installed location
// beside the library.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "current_error.h"
#include "qv_cu.h"
#include "test_support.h"

namespace {

// Builds catalogue `out` from gencat source text; false when gencat fails.
bool build_catalogue(const qvtest::TempDir &dir, const std::string &out, const std::string &source) {
    std::string src = dir.write("source.msg", source);
    std::string cmd = "/usr/bin/gencat '" + out + "' '" + src + "'";
    return system(cmd.c_str()) == 0;
}

std::string render(const char *catalogue, int set, int number, const char *default_text, int n,
                   const char *s) {
    cu_set_error_1(4, nullptr, catalogue, set, number, default_text, n, s);
    return qvtest::current_error().text;
}

const char *kSource =
    "$set 1\n"
    "5 Translated five: %2$s then %1$d\\n\n"
    "7 Out of range %3$s and %1$s, %2$d\n"
    "8 Plain %s here\n";

TEST(MessageCatalog, FoundThroughNlspath) {
    if (access("/usr/bin/gencat", X_OK) != 0) GTEST_SKIP() << "no gencat";
    qvtest::TempDir dir;
    ASSERT_TRUE(build_catalogue(dir, dir.path() + "/qvtest_nls.cat", kSource));
    setenv("NLSPATH", (dir.path() + "/%N").c_str(), 1);
    const char *def = "default %1$d %2$s";
    struct {
        const char *catalogue;
        int set, number;
        std::string expected;
    } cases[] = {
        {"qvtest_nls.cat", 1, 5, "Translated five: abc then 42\n"},
        {"qvtest_nls.cat", 1, 7, "Out of range %3$s and 42, abc"},  // no third argument
        {"qvtest_nls.cat", 1, 8, "Plain 42 here"},  // %s on an int prints the int
        {"qvtest_nls.cat", 1, 6, "default 42 abc"},   // not in the catalogue
        {"qvtest_none.cat", 1, 5, "default 42 abc"},  // no such catalogue
        {nullptr, 1, 5, "default 42 abc"},
    };
    for (int round = 0; round < 2; ++round)  // the second round uses the cached handle
        for (const auto &c : cases)
            EXPECT_EQ(render(c.catalogue, c.set, c.number, def, 42, "abc"), c.expected)
                << (c.catalogue ? c.catalogue : "NULL") << " " << c.set << "/" << c.number;
    unsetenv("NLSPATH");
}

TEST(MessageCatalog, FoundAtTheInstalledLocation) {
    if (access("/usr/bin/gencat", X_OK) != 0) GTEST_SKIP() << "no gencat";
    // The library looks in share/qvsec/ beside the directory that holds it.
    Dl_info info{};
    ASSERT_NE(dladdr(reinterpret_cast<void *>(&cu_get_errmsg_1), &info), 0);
    ASSERT_NE(info.dli_fname, nullptr);
    std::filesystem::path lib_dir = std::filesystem::absolute(info.dli_fname).parent_path();
    std::filesystem::path share = lib_dir / ".." / "share" / "qvsec";
    bool made = std::filesystem::create_directories(share);
    std::string name = "qvtest_installed_" + std::to_string(getpid()) + ".cat";
    qvtest::TempDir dir;
    unsetenv("NLSPATH");
    ASSERT_TRUE(build_catalogue(dir, (share / name).string(), kSource));
    EXPECT_EQ(render(name.c_str(), 1, 5, "default %1$d %2$s", 7, "x"), "Translated five: x then 7\n");
    EXPECT_EQ(render(name.c_str(), 1, 9, "default %1$d %2$s", 7, "x"), "default 7 x");
    std::filesystem::remove(share / name);
    if (made) {
        std::error_code ec;
        std::filesystem::remove(share, ec);
        std::filesystem::remove(share.parent_path(), ec);
    }
}

}  // namespace
