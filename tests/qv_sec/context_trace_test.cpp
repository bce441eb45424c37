// Entry and exit trace records of the context routines: ids only at API
// level 1, the data forms at level 8, read back from the trace file.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <unistd.h>

#include "context_test_harness.h"
#include "trace.h"

namespace {

using namespace ctxtest;

// The trace file is chosen once per process, at the first record.
const std::string kTraceFile = "/tmp/qvsec-context-trace-" + std::to_string(getpid());
[[maybe_unused]] const int kTraceFileSet = [] {
    unlink(kTraceFile.c_str());
    setenv("QV_TRACE_FILE", kTraceFile.c_str(), 1);
    atexit([] { unlink(kTraceFile.c_str()); });
    return 0;
}();

uint32_t be32_at(const std::string &b, size_t at) {
    return static_cast<uint32_t>(static_cast<uint8_t>(b[at])) << 24 | static_cast<uint8_t>(b[at + 1]) << 16 |
           static_cast<uint8_t>(b[at + 2]) << 8 | static_cast<uint8_t>(b[at + 3]);
}

// The ids of the "_SEA" records written after `from` bytes of the file.
std::vector<uint32_t> record_ids(size_t from) {
    std::ifstream f(kTraceFile, std::ios::binary);
    std::string b((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    std::vector<uint32_t> ids;
    size_t at = from;
    while (at + 44 <= b.size()) {
        uint32_t magic = be32_at(b, at);
        if (magic == 0x51565446u) {  // a file header
            at += 8;
            continue;
        }
        uint32_t len = be32_at(b, at + 4);
        if (magic != 0x51565452u || len < 44 || at + len > b.size()) break;
        size_t name_len = static_cast<uint8_t>(b[at + 9]);
        if (b.compare(at + 40, name_len, "_SEA") == 0 && name_len == 4) ids.push_back(be32_at(b, at + 12));
        at += len;
    }
    return ids;
}

size_t file_size() {
    std::ifstream f(kTraceFile, std::ios::binary | std::ios::ate);
    return f ? static_cast<size_t>(f.tellg()) : 0;
}

class ContextTrace : public ContextFixture {
protected:
    void TearDown() override {
        sec__trace_detail_levels[SEC_TRC_API] = 0;
        ContextFixture::TearDown();
    }
    // One two-round exchange, a seal and open, the lifetime, and the end of
    // both contexts, traced at `level`; the record ids written.
    std::vector<uint32_t> traced_exchange(unsigned char level) {
        script_rounds(m_, 2);
        size_t from = file_size();
        sec__trace_detail_levels[SEC_TRC_API] = level;
        establish(mech_list({kCodeA}));
        sec_status_desc st{};
        Bytes msg = text("m");
        View in(msg);
        Out sealed, opened;
        qv_int32_t lifetime = 0;
        sec_prepare_data(&st, ex_.client_ctx, SEC_F_PROTECT_MODE1, in.get(), sealed.get());
        sec_process_data(&st, ex_.server_ctx, sealed.get(), opened.get());
        if (!opened.empty()) opened_by_caller_ += 1;
        sec_get_ctx_lifetime(&st, ex_.client_ctx, &lifetime);
        end_contexts();
        sec__trace_detail_levels[SEC_TRC_API] = 0;
        return record_ids(from);
    }
};

TEST_F(ContextTrace, IdsAtLevelOne) {
    EXPECT_EQ(traced_exchange(1), (std::vector<uint32_t>{
                                      60, 62,  // start
                                      70, 72,  // receive
                                      65, 67,  // complete
                                      70, 72,  // receive
                                      65, 67,  // complete
                                      85, 87,  // prepare
                                      90, 92,  // process
                                      80, 1,   // lifetime: the common routine-end record
                                      95, 97,  // end (client)
                                      95, 97,  // end (server)
                                  }));
}

TEST_F(ContextTrace, DataFormsAtLevelEight) {
    EXPECT_EQ(traced_exchange(8), (std::vector<uint32_t>{61, 64, 71, 74, 66, 69, 71, 74, 66, 69, 86, 89, 91, 94,
                                                         81, 4, 96, 99, 96, 99}));
    // Without a status record the exit carries the return code alone.
    size_t from = file_size();
    sec__trace_detail_levels[SEC_TRC_API] = 8;
    EXPECT_EQ(sec_end_context(nullptr, nullptr, nullptr), 4);
    EXPECT_EQ(sec_get_ctx_lifetime(nullptr, nullptr, nullptr), 4);
    sec__trace_detail_levels[SEC_TRC_API] = 0;
    EXPECT_EQ(record_ids(from), (std::vector<uint32_t>{96, 98, 81, 3}));
}

}  // namespace
