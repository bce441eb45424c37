// A client accepted through the real "local" module, carried to other
// processes as CIDB bytes only. The service exports the client's CIDB with
// and without the mapping, host-local and not; fresh processes that never saw
// the context build identity contexts from the bytes and ask for the name,
// mapped name, groups (the library's own sec_idm_get_groups, checked against
// /etc/group) and user validity. The same processes run on another node ID
// (host-local CIDBs refused with 31), in a Latin-1 locale, and in a locale
// whose code set has no converter (26 from every conversion). qvsec cidb
// show decodes the same bytes.
#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "messages.h"
#include "qv_sec_internal.h"
#include "sec_buffer.h"
#include "sec_test_util.h"
#include "test_mpm.h"

namespace {

constexpr const char *kNode = "0123456789abcdef", *kOtherNode = "fedcba9876543210";
const char *const kFiles[] = {"name", "mapped", "local", "mapped_local"};
const qv_uint32_t kFileFlags[] = {0, SEC_F_CIDB_MAPPING, SEC_F_CIDB_HOST_LOCAL,
                                  SEC_F_CIDB_MAPPING | SEC_F_CIDB_HOST_LOCAL};

// The user's groups as /etc/group lists them: the primary group and every
// group that names the user as a member.
std::set<std::string> groups_from_file() {
    passwd *pw = getpwuid(geteuid());
    std::set<std::string> out;
    std::ifstream f("/etc/group");
    std::string line;
    while (pw != nullptr && std::getline(f, line)) {
        std::stringstream fields(line);
        std::string name, pass, gid, members, m;
        std::getline(fields, name, ':');
        std::getline(fields, pass, ':');
        std::getline(fields, gid, ':');
        std::getline(fields, members);
        if (!gid.empty() && static_cast<gid_t>(std::stoul(gid)) == pw->pw_gid) out.insert(name);
        std::stringstream list(members);
        while (std::getline(list, m, ','))
            if (m == pw->pw_name) out.insert(name);
    }
    return out;
}

// The identity context's groups (the size protocol is identity_test's), or
// none when it has no privilege set.
std::set<std::string> client_groups(sec_token_t id, bool mapped) {
    std::vector<sec_buffer_desc> buf(256);
    qv_int32_t count = static_cast<qv_int32_t>(buf.size() * sizeof(sec_buffer_desc));
    sec_buffer_t groups = nullptr;
    EXPECT_EQ(sec_get_client_groups(id, reinterpret_cast<char *>(buf.data()), &count, &groups),
              mapped ? 0 : SEC_S_NO_PRIVSET);
    std::set<std::string> out;
    for (qv_int32_t i = 0; mapped && i < count; ++i) {
        out.insert(static_cast<char *>(buf[i].value));
        EXPECT_EQ(buf[i].length, static_cast<qv_int32_t>(strlen(static_cast<char *>(buf[i].value)) + 1));
        free(buf[i].value);
    }
    return out;
}

// One process's view of the CIDBs in QVTEST_CIDB_DIR; QVTEST_KIND says which
// host or locale it plays. Run by IdentityEndToEnd.CidbToOtherProcesses.
TEST(IdentityEndToEndChild, FromBytes) {
    const char *dir = getenv("QVTEST_CIDB_DIR");
    if (dir == nullptr) GTEST_SKIP() << "run by IdentityEndToEnd.CidbToOtherProcesses";
    const std::string kind = getenv("QVTEST_KIND");
    ASSERT_NE(setlocale(LC_ALL, ""), nullptr);
    sec_status_desc st{};
    sec_token_t svc = nullptr;
    ASSERT_EQ(sec_start(&st, 0, &svc), 0);
    struct Row {
        int file;
        qv_uint32_t flags;
        bool mapped;  // whether the identity context has the mapping step done
    } rows[] = {
        {0, 0, true}, {0, SEC_F_IDCTX_NO_MAP, false}, {1, SEC_F_IDCTX_NO_MAP, true},
        {1, SEC_F_IDCTX_FORCE_MAP, true}, {2, 0, true}, {3, SEC_F_IDCTX_NO_MAP, true},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(kFiles[row.file]) + " flags " + std::to_string(row.flags));
        const std::string bytes = qvtest::read_file(std::string(dir) + "/" + kFiles[row.file]);
        qvtest::BufferView cidb(std::vector<uint8_t>(bytes.begin(), bytes.end()));
        const bool host_local = row.file >= 2;
        qv_int32_t want = kind == "nocvt" ? SEC_S_CODESET : kind == "other" && host_local ? SEC_S_AMBIGUOUS_CIDB : 0;
        sec_token_t id = nullptr;
        ASSERT_EQ(sec_create_id_context(&st, svc, SEC_F_IDCTX_CIDB | row.flags, cidb.get(), &id), want);
        if (want != 0) {
            EXPECT_EQ(id, nullptr);
            EXPECT_EQ(last_message(), want == SEC_S_CODESET ? MSG_2650_079 : MSG_2650_087);
            if (want == SEC_S_AMBIGUOUS_CIDB) {
                EXPECT_EQ(qvtest::current_error_args(), "1," + std::to_string(0x0123456789abcdefull));
            }
            continue;
        }
        char *name = nullptr, *mname = nullptr;
        ASSERT_EQ(sec_get_client_identity(&st, id, &name, &mname, nullptr), 0);
        EXPECT_EQ(std::string(name), qvtest::user_at_host(geteuid()));
        EXPECT_EQ(mname != nullptr ? std::string(mname) : "<none>",
                  row.mapped ? qvtest::user_name(geteuid()) : "<none>");
        sec_release_name(name);
        sec_release_name(mname);
        // Without the mapping step there is no privilege set to ask.
        EXPECT_EQ(client_groups(id, row.mapped), row.mapped ? groups_from_file() : std::set<std::string>{});
        // Back to a CIDB: the same bytes, but for the host-local bit that an
        // identity context cannot vouch for.
        qvtest::SecBuffer again;
        ASSERT_EQ(sec_create_cidb(&st, SEC_F_CIDB_MAPPING | SEC_F_CIDB_HOST_LOCAL, id, again.get()), 0);
        if (row.file == 3) {
            EXPECT_EQ(qvtest::to_hex(again.bytes()), qvtest::to_hex(cidb.bytes).replace(33, 1, "2"));
        }
        std::string me = qvtest::user_name(geteuid()), nobody = "qv-no-such-user";
        EXPECT_EQ(sec_user_valid(&st, id, me.data()), 0);
        EXPECT_EQ(sec_user_valid(&st, id, nobody.data()), SEC_S_USER_NOT_VALID);
        EXPECT_EQ(st.maj_stat, 36u);
        EXPECT_STREQ(st.desc, "mpm_user_valid");
        EXPECT_EQ(sec_end_context(&st, id, nullptr), 0);
    }
    EXPECT_EQ(sec_end(&st, 0, svc), 0);

    // The conversions themselves, in this process's locale.
    struct Conversion {
        const char *kind;
        bool to_utf8;
        std::string in;
        qv_int32_t rc;
        std::string out;
    } conversions[] = {
        {"latin1", true, std::string("caf\xe9", 5), 0, std::string("caf\xc3\xa9", 6)},
        {"latin1", false, std::string("caf\xc3\xa9", 6), 0, std::string("caf\xe9", 5)},
        {"latin1", false, std::string("\xe2\x82\xac", 4), SEC_S_CODESET, ""},  // no euro sign in Latin-1
        {"nocvt", false, std::string("abc", 4), SEC_S_CODESET, ""},
    };
    for (const Conversion &c : conversions) {
        if (kind != c.kind) continue;
        SCOPED_TRACE(c.in);
        std::string in = c.in;
        size_t in_len = in.size(), out_len = 99;
        char *out = reinterpret_cast<char *>(1);
        qv_int32_t rc = c.to_utf8 ? sec__convert_to_utf8(in.data(), &in_len, &out, &out_len)
                                  : sec__convert_from_utf8(in.data(), &in_len, &out, &out_len);
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(rc == 0 ? std::string(out, out_len) : std::string(out == nullptr ? "" : "?"), c.out);
        if (rc != 0) {
            EXPECT_EQ(last_message(), MSG_2650_079);
        }
        free(out);
    }
}

class IdentityEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(qvtest::user_name(geteuid()).empty()) << "the test's user needs a passwd entry";
        node_ = dir_.write("node_id", std::string(kNode) + "\n");
        other_node_ = dir_.write("other_node_id", std::string(kOtherNode) + "\n");
        setenv("QV_NODE_ID_FILE", node_.c_str(), 1);
        setenv("QV_SEC_CONFIG",
               dir_.write("qvsec.cfg", "1 local 0x00000001 " + qvtest::module_path("mpm_local.so") + " i\n").c_str(),
               1);
        unsetenv("QV_SEC_IMP_MECHS");
    }
    qvtest::TempDir dir_;
    std::string node_, other_node_;
};

TEST_F(IdentityEndToEnd, CidbToOtherProcesses) {
    // Client and service in this process, on the two ends of a socket pair.
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    sec_status_desc st{};
    sec_token_t svc = nullptr, cctx = nullptr, sctx = nullptr;
    ASSERT_EQ(sec_start(&st, 0, &svc), 0);
    ASSERT_EQ(sec_setup_socket(svc, sv[0], SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND, nullptr, &cctx), 0);
    ASSERT_EQ(sec_setup_socket(svc, sv[1], SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND, nullptr, &sctx), 0);
    qvtest::SecBuffer mechs, ccdb, reply, none;
    qv_int32_t count = 0;
    ASSERT_EQ(sec_create_mech_buffer(const_cast<char *>("local"), &count, mechs.get()), 0);
    char target[] = "svc", host[] = "localhost";
    ASSERT_EQ(sec_start_sec_context(&st, svc, mechs.get(), target, host, 0, &cctx, ccdb.get()), 1) << st.desc;
    ASSERT_EQ(sec_receive_sec_context(&st, svc, ccdb.get(), &sctx, reply.get()), 0) << st.desc;
    ASSERT_EQ(sec_complete_sec_context(&st, reply.get(), &cctx, none.get()), 0) << st.desc;
    std::vector<uint8_t> mapped_local;
    for (int i = 0; i < 4; ++i) {
        qvtest::SecBuffer b;
        ASSERT_EQ(sec_create_cidb(&st, kFileFlags[i], sctx, b.get()), 0);
        std::vector<uint8_t> bytes = b.bytes();
        dir_.write(kFiles[i], std::string(bytes.begin(), bytes.end()));
        if (i == 3) mapped_local = bytes;
    }
    EXPECT_EQ(sec_end_context(&st, cctx, nullptr), 0);
    EXPECT_EQ(sec_end_context(&st, sctx, nullptr), 0);
    EXPECT_EQ(sec_end(&st, 0, svc), 0);
    close(sv[0]);
    close(sv[1]);

    // The administrator's view of the same bytes, on this host and another.
    const std::set<std::string> groups = groups_from_file();
    const std::string shown = "version: 1\nnode ID: " + std::string(kNode) +
                              " (this host)\nmechanism: 0x00000001 (local)\n"
                              "flags: 0x00400600 authenticated host-local mapping\nnetwork name: " +
                              qvtest::user_at_host(geteuid()) + "\nmapped name: " + qvtest::user_name(geteuid()) +
                              "\ngroups (" +
                              std::to_string(groups.size()) + "):";
    std::string cut(mapped_local.begin(), mapped_local.begin() + 30);
    struct Tool {
        std::vector<std::string> args;
        std::string in, node;
        int status;
        std::string out, err;
    } tools[] = {
        {{"cidb", "show", dir_.path() + "/mapped_local"}, "", node_, 0, shown, ""},
        {{"cidb", "show", "-"}, std::string(mapped_local.begin(), mapped_local.end()), other_node_, 0,
         "(another host)", ""},
        {{"cidb", "show"}, cut, node_, 1, "", "qvsec: (stdin): corrupt CIDB at byte offset 22: network name\n"},
        {{"cidb", "show", "-"}, std::string("\x87\x01", 2) + std::string(16, '\0'), node_, 0,
         "mechanism: 0x00000000 (none)\nclient: unauthenticated\n", ""},
        {{"cidb", "list"}, "", node_, 2, "", "usage: qvsec cidb show [FILE|-]\n"},
    };
    for (const Tool &t : tools) {
        SCOPED_TRACE(t.args.back());
        auto r = qvtest::run_tool(QVSEC_PATH, t.args, {{"QV_NODE_ID_FILE", t.node}}, t.in);
        EXPECT_EQ(r.status, t.status) << r.err;
        EXPECT_NE(r.out.find(t.out), std::string::npos) << r.out;
        EXPECT_NE(r.err.find(t.err), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), t.status == 0 ? 0 : 1) << r.err;
    }

    // Locales built here, so the test does not depend on what the host has:
    // Latin-1, and a code set without a converter.
    for (auto [name, charmap] : {std::pair{"qvtest_latin1", "ISO-8859-1"}, std::pair{"qvtest_nocvt", "BS_VIEWDATA"}}) {
        auto made = qvtest::run_tool("/usr/bin/localedef",
                                     {"--no-warnings=ascii", "-i", "en_US", "-f", charmap,
                                      dir_.path() + "/" + name});
        ASSERT_TRUE(made.status == 0 || made.status == 1) << made.err;
    }
    for (auto [kind, locale, node] : {std::tuple{"same", "C.UTF-8", node_}, std::tuple{"other", "C.UTF-8", other_node_},
                                      std::tuple{"latin1", "qvtest_latin1", node_},
                                      std::tuple{"nocvt", "qvtest_nocvt", node_}}) {
        SCOPED_TRACE(kind);
        auto child = qvtest::run_tool(qvtest::self_exe(), {"--gtest_filter=IdentityEndToEndChild.*"},
                                      {{"QVTEST_CIDB_DIR", dir_.path()}, {"QVTEST_KIND", kind}, {"LC_ALL", locale},
                                       {"LOCPATH", dir_.path()}, {"QV_NODE_ID_FILE", node}});
        EXPECT_EQ(child.status, 0) << child.out << child.err;
        EXPECT_EQ(child.out.find("[  SKIPPED ]"), std::string::npos) << child.out;
    }
}

}  // namespace
