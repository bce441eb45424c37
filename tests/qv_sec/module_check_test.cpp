// qvsec module check on the modules that conform (the skeleton, "local", the
// scriptable test module) and on variants of the skeleton that each carry
// one mistake module authors make: the exit status, and for each mistake the
// departure that names the routine and what the application loses by it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "child_process.h"
#include "test_mpm.h"

namespace {

TEST(ModuleCheck, ConformingModulesPassAndEachMistakeIsNamed) {
    const std::string kKey = "a teaching key";
    struct Case {
        std::string module, key;
        int status;
        std::vector<std::string> says;
    };
    const std::vector<Case> cases = {
        {"skeleton_module.so", kKey, 0,
         {"ok: sealing service to client, mode 0x200000", "ok: identity context from a CIDB", "the module conforms"}},
        {"mpm_local.so", kKey, 0, {"ok: client name", "the module conforms"}},
        {qvtest::kTestMpm, kKey, 0, {"note: mpm_process_data accepted sealed data replayed", "the module conforms"}},
        // Status 2 for a failure: an unauthenticated success on either side.
        {"skeleton_status2.so", kKey, 1,
         {"departure: mpm_receive_sec_context: answered a changed first token with major status 2",
          "answered a truncated first token", "the service accepts whoever sent garbage", "2 departures"}},
        {"skeleton_status2.so", "", 1,
         {"departure: mpm_start_sec_context: returned major status 2", "the client goes on without authentication"}},
        // Without the key the skeleton fails as it should: a departure, but
        // with an honest failure status.
        {"skeleton_module.so", "", 1, {"departure: mpm_start_sec_context: sec_start_sec_context failed: "
                                       "mpm_start_sec_context returned major status 16 (minor 0), return code 3"}},
        {"skeleton_foreign_alloc.so", kKey, 1,
         {"departure: mpm_process_data: its output is not memory from malloc",
          "sec_release_buffer, which calls free()", "4 departures"}},
        {"skeleton_no_set_attr.so", kKey, 1,
         {"departure: mpm_set_ctx_attribute: not exported", "prepared by sec_setup_socket fail with return code 22",
          "1 departure"}},
        {"skeleton_no_mapped.so", kKey, 1,
         {"departure: mpm_get_mapped_name: not exported", "sec_get_client_identity (mapped name)", "1 departure"}},
        {"skeleton_no_release.so", kKey, 1,
         {"departure: mpm_release_buffer: not exported", "a context established and ended leaks",
          "sealing and opening leaks", "signing leaks"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.module + (c.key.empty() ? " without a key" : ""));
        qvtest::ToolRun run = qvtest::run_tool(QVSEC_PATH, {"module", "check", qvtest::module_path(c.module)},
                                               {{"QV_SKELETON_KEY", c.key}});
        EXPECT_EQ(run.status, c.status) << run.out << run.err;
        for (const std::string &s : c.says) EXPECT_NE(run.out.find(s), std::string::npos) << s << "\n" << run.out;
        if (c.status == 0) {
            EXPECT_EQ(run.out.find("departure"), std::string::npos) << run.out;
        }
        EXPECT_EQ(run.err, "");
    }
}

}  // namespace
