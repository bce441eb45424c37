// Entry and exit trace records of the context and signing routines: ids only
// at API level 1, the data forms at level 8 (the exit with the status record,
// or with the return code alone when there is none), read back from the trace
// file through the trace reader.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "context_test_harness.h"
#include "trace.h"
#include "trace_format.h"

namespace {

using namespace ctxtest;
using Ids = std::vector<uint32_t>;

// The trace file is chosen once per process, at the first record.
const std::string kTraceFile = "/tmp/qvsec-api-trace-" + std::to_string(getpid());
[[maybe_unused]] const int kTraceFileSet = [] {
    unlink(kTraceFile.c_str());
    setenv("QV_TRACE_FILE", kTraceFile.c_str(), 1);
    atexit([] { unlink(kTraceFile.c_str()); });
    return 0;
}();

std::string trace_bytes() {
    std::ifstream f(kTraceFile, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// The ids of the library's records that start at or after byte `from`.
Ids library_record_ids(size_t from) {
    const std::string b = trace_bytes();
    Ids ids;
    qvtr::TraceReader reader;
    reader.parse({reinterpret_cast<const uint8_t *>(b.data()), b.size()}, 0, true, [&](const qvtr::TraceEvent &ev) {
        if (ev.kind == qvtr::TraceEvent::Kind::record && ev.offset >= from && ev.record.component == kTraceComponent)
            ids.push_back(ev.record.id);
    });
    return ids;
}

class ApiTrace : public ContextFixture {
protected:
    void TearDown() override {
        sec__trace_detail_levels[SEC_TRC_API] = 0;
        ContextFixture::TearDown();
    }
    // One two-round exchange, a seal and open, the lifetime, and the end of
    // both contexts, traced at `level`; the record ids written.
    Ids traced_exchange(unsigned char level) {
        script_rounds(m_, 2);
        size_t from = trace_bytes().size();
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
        return library_record_ids(from);
    }
    // A signature and its verification traced at `level`: the ids written.
    Ids traced_signing(unsigned char level, sec_status_t st) {
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

TEST_F(ApiTrace, ContextIdsAtLevelOne) {
    EXPECT_EQ(traced_exchange(1), (Ids{
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

TEST_F(ApiTrace, ContextDataFormsAtLevelEight) {
    EXPECT_EQ(traced_exchange(8), (Ids{61, 64, 71, 74, 66, 69, 71, 74, 66, 69, 86, 89, 91, 94, 81, 4, 96, 99, 96, 99}));
    // Without a status record the exit carries the return code alone.
    size_t from = trace_bytes().size();
    sec__trace_detail_levels[SEC_TRC_API] = 8;
    EXPECT_EQ(sec_end_context(nullptr, nullptr, nullptr), 4);
    EXPECT_EQ(sec_get_ctx_lifetime(nullptr, nullptr, nullptr), 4);
    sec__trace_detail_levels[SEC_TRC_API] = 0;
    EXPECT_EQ(library_record_ids(from), (Ids{96, 98, 81, 3}));
}

TEST_F(ApiTrace, SigningAtEachLevel) {
    establish(mech_list({kCodeA}));
    ASSERT_EQ(ex_.client_rc, 0);
    sec_status_desc st{};
    EXPECT_EQ(traced_signing(1, &st), (Ids{130, 132, 135, 137}));
    EXPECT_EQ(traced_signing(8, &st), (Ids{131, 134, 136, 139}));
    EXPECT_EQ(traced_signing(8, nullptr), (Ids{131, 133, 136, 138}));
}

// The privilege set an identity context takes from a security context is
// traced above INFO detail 1 only: name, mapped name ("<nil>" when none),
// group count and the groups joined by blanks.
TEST_F(ApiTrace, IdentityContextPrivilegeSetAboveInfoOne) {
    establish(mech_list({kCodeA}));
    ASSERT_EQ(ex_.server_rc, 0);
    m_.behaviour(QVTEST_MPM_GET_MAPPED_NAME).name_len = 0;
    for (unsigned char level : {1, 2}) {
        SCOPED_TRACE(level);
        size_t from = trace_bytes().size();
        sec__trace_detail_levels[SEC_TRC_INFO] = level;
        sec_status_desc st{};
        sec_token_t id = nullptr;
        EXPECT_EQ(sec_create_id_context(&st, server_svc_, SEC_F_IDCTX_SECCTX, ex_.server_ctx, &id), 0);
        sec__trace_detail_levels[SEC_TRC_INFO] = 0;
        EXPECT_EQ(sec_end_context(&st, id, nullptr), 0);
        std::vector<std::string> seen;
        const std::string b = trace_bytes();
        qvtr::TraceReader reader;
        reader.parse({reinterpret_cast<const uint8_t *>(b.data()), b.size()}, 0, true, [&](const qvtr::TraceEvent &ev) {
            if (ev.kind != qvtr::TraceEvent::Kind::record || ev.offset < from || ev.record.id != kTracePrivset) return;
            for (auto item : ev.items) seen.emplace_back(reinterpret_cast<const char *>(item.data()));
        });
        const std::vector<std::string> expected = {"qvtest_client@example", "<nil>", "0", ""};
        EXPECT_EQ(seen, level == 1 ? std::vector<std::string>{} : expected);
    }
}

}  // namespace
