// Node ID: the file's 16 hex digits, the order of the sources, the machine-ID
// fallback, and malformed or unreadable sources.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "cu_internal.h"
#include "test_support.h"

namespace {

constexpr const char *kMachineId = "0123456789abcdef0123456789abcdef\n";

TEST(NodeId, ParseFileContents) {
    struct {
        const char *contents;
        int rc;
        uint64_t id;
    } cases[] = {
        {"0123456789abcdef", 0, 0x0123456789abcdefULL},
        {"  FEDCBA9876543210\n", 0, 0xfedcba9876543210ULL},
        {"\t0000000000000000\r\n\n", 0, 0},
        {"0123456789abcde", CU_E_BADFORMAT, 0},
        {"0123456789abcdef0", CU_E_BADFORMAT, 0},
        {"0123456789abcdeg", CU_E_BADFORMAT, 0},
        {"0x0123456789abcd", CU_E_BADFORMAT, 0},
        {"01234567 89abcdef", CU_E_BADFORMAT, 0},
        {"", CU_E_BADFORMAT, 0},
        {"\n", CU_E_BADFORMAT, 0},
    };
    for (const auto &c : cases) {
        uint64_t id = 0x5555;
        EXPECT_EQ(qvcu::parse_node_id(c.contents, &id), c.rc) << c.contents;
        EXPECT_EQ(id, c.rc == 0 ? c.id : 0x5555u) << c.contents;
    }
}

TEST(NodeId, SourcesInOrder) {
    qvtest::TempDir dir;
    std::string env = dir.write("env_id", "1111111111111111\n");
    std::string def = dir.write("default_id", "2222222222222222\n");
    std::string mid = dir.write("machine-id", kMachineId);
    std::string missing = dir.path() + "/missing";
    uint64_t id = 0;

    EXPECT_EQ(qvcu::node_id_from(env.c_str(), def.c_str(), mid.c_str(), &id), 0);
    EXPECT_EQ(id, 0x1111111111111111ULL);
    EXPECT_EQ(qvcu::node_id_from(missing.c_str(), def.c_str(), mid.c_str(), &id), 0);
    EXPECT_EQ(id, 0x2222222222222222ULL);
    EXPECT_EQ(qvcu::node_id_from("", def.c_str(), mid.c_str(), &id), 0);
    EXPECT_EQ(id, 0x2222222222222222ULL);

    // The machine-ID fallback is stable, depends on the machine ID, and is
    // not simply its leading digits.
    uint64_t a = 0, b = 0, c = 0;
    EXPECT_EQ(qvcu::node_id_from(nullptr, missing.c_str(), mid.c_str(), &a), 0);
    EXPECT_EQ(qvcu::node_id_from(nullptr, missing.c_str(), mid.c_str(), &b), 0);
    EXPECT_EQ(a, b);
    EXPECT_NE(a, 0x0123456789abcdefULL);
    std::string upper = dir.write("machine-id-upper", "0123456789ABCDEF0123456789ABCDEF");
    EXPECT_EQ(qvcu::node_id_from(nullptr, missing.c_str(), upper.c_str(), &c), 0);
    EXPECT_EQ(a, c);
    std::string other = dir.write("machine-id-other", "0123456789abcdef0123456789abcdee\n");
    EXPECT_EQ(qvcu::node_id_from(nullptr, missing.c_str(), other.c_str(), &c), 0);
    EXPECT_NE(a, c);
}

TEST(NodeId, BadSources) {
    qvtest::TempDir dir;
    std::string bad = dir.write("bad_id", "not a node id\n");
    std::string big = dir.write("big_id", std::string(10000, '0'));
    std::string good = dir.write("good_id", "3333333333333333");
    std::string mid = dir.write("machine-id", kMachineId);
    std::string bad_mid = dir.write("bad-machine-id", "0123456789abcdef\n");
    std::string missing = dir.path() + "/missing";
    uint64_t id = 7;
    struct {
        const char *name;
        std::string env, def, machine;
        int rc;
    } cases[] = {
        // A malformed file that exists is an error, not a reason to fall back.
        {"malformed env file", bad, good, mid, CU_E_BADFORMAT},
        {"malformed default file", missing, bad, mid, CU_E_BADFORMAT},
        {"oversized file", big, good, mid, CU_E_BADFORMAT},
        {"unreadable (a directory)", dir.path(), good, mid, CU_E_INTERNAL},
        {"malformed machine id", missing, missing, bad_mid, CU_E_BADFORMAT},
        {"nothing at all", missing, missing, missing, CU_E_NOTFOUND},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(qvcu::node_id_from(c.env.c_str(), c.def.c_str(), c.machine.c_str(), &id), c.rc) << c.name;
        EXPECT_EQ(id, 7u) << c.name;
    }
}

TEST(NodeId, ExportedRoutineHonoursTheEnvironment) {
    qvtest::TempDir dir;
    std::string file = dir.write("node_id", "00000000deadbeef\n");
    const char *old = getenv("QV_NODE_ID_FILE");
    std::string saved = old ? old : "";
    setenv("QV_NODE_ID_FILE", file.c_str(), 1);
    qv_uint64_t id = 0;
    EXPECT_EQ(cu_get_node_id_1(&id), 0);
    EXPECT_EQ(id, 0xdeadbeefULL);
    EXPECT_EQ(cu_get_node_id_1(nullptr), CU_E_BADARG);
    if (old) setenv("QV_NODE_ID_FILE", saved.c_str(), 1); else unsetenv("QV_NODE_ID_FILE");
}

}  // namespace
