// Entry and exit trace records of sec_sign_data_v and sec_verify_data_v:
// ids only at API level 1, the data forms at level 8 (the exit with the
// status record, or with the return code alone when there is none), read
// back from the trace file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "context_test_harness.h"
#include "trace.h"

namespace {

using namespace ctxtest;

// The trace file is chosen once per process, at the first record.
const std::string kTraceFile = "/tmp/qvsec-signing-trace-" + std::to_string(getpid());
[[maybe_unused]] const int kTraceFileSet = [] {
    unlink(kTraceFile.c_str());
    setenv("QV_TRACE_FILE", kTraceFile.c_str(), 1);
    atexit([] { unlink(kTraceFile.c_str()); });
    return 0;
}();

uint32_t be32_from(const std::string &b, size_t i) {
    return static_cast<uint32_t>(static_cast<uint8_t>(b[i])) << 24 | static_cast<uint8_t>(b[i + 1]) << 16 |
           static_cast<uint8_t>(b[i + 2]) << 8 | static_cast<uint8_t>(b[i + 3]);
}

std::string trace_bytes() {
    std::ifstream f(kTraceFile, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// The ids of the library's records after `from` bytes: a record is a 4-byte
// magic, its 4-byte length, ... the id at offset 12 and the component's name
// (its length at offset 9) at offset 40.
std::vector<uint32_t> library_record_ids(size_t from) {
    const std::string b = trace_bytes();
    auto at32 = [&b](size_t i) { return be32_from(b, i); };
    std::vector<uint32_t> ids;
    for (size_t at = from; at + 44 <= b.size();) {
        if (at32(at) == 0x51565446u) {  // a file header
            at += 8;
            continue;
        }
        uint32_t len = at32(at + 4);
        if (at32(at) != 0x51565452u || len < 44 || at + len > b.size()) break;
        if (static_cast<uint8_t>(b[at + 9]) == 4 && b.compare(at + 40, 4, kTraceComponent) == 0)
            ids.push_back(at32(at + 12));
        at += len;
    }
    return ids;
}

class SigningTrace : public ContextFixture {
protected:
    void SetUp() override {
        ContextFixture::SetUp();
        establish(mech_list({kCodeA}));
        ASSERT_EQ(ex_.client_rc, 0);
    }
    void TearDown() override {
        sec__trace_detail_levels[SEC_TRC_API] = 0;
        ContextFixture::TearDown();
    }
    // A signature and its verification traced at `level`: the ids written.
    std::vector<uint32_t> traced(unsigned char level, sec_status_t st) {
        char data[] = "traced";
        iovec v{data, sizeof data - 1};
        Out sig;
        sec_status_desc own{};
        EXPECT_EQ(sec_sign_data_v(&own, ex_.client_ctx, 1, &v, sig.get()), 0);
        size_t from = trace_bytes().size();
        sec__trace_detail_levels[SEC_TRC_API] = level;
        Out again;
        sec_sign_data_v(st, ex_.client_ctx, 1, &v, again.get());
        sec_verify_data_v(st, ex_.server_ctx, sig.get(), 1, &v);
        sec__trace_detail_levels[SEC_TRC_API] = 0;
        return library_record_ids(from);
    }
};

TEST_F(SigningTrace, EntryAndExitAtEachLevel) {
    sec_status_desc st{};
    EXPECT_EQ(traced(1, &st), (std::vector<uint32_t>{130, 132, 135, 137}));
    EXPECT_EQ(traced(8, &st), (std::vector<uint32_t>{131, 134, 136, 139}));
    EXPECT_EQ(traced(8, nullptr), (std::vector<uint32_t>{131, 133, 136, 138}));
}

}  // namespace
