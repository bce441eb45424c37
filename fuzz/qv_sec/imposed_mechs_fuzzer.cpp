// Arbitrary mechanism-list buffers given to sec_set_imposed_mechs,
// sec_add_imposed_mechs and, as a shared list, to sec_start_sec_context.
// The first input byte scripts the call: bits 0-1 the routine (0 set, 1 add,
// 2 and 3 start a context), bit 2 QV_SEC_IMP_MECHS beforehand "qvtest2"
// instead of unset. The rest is the list.
//
// Checks against a model of the list rules and of the configuration (A is
// "qvtest", B "qvtest2"): the return code of a malformed list (7, or 9 for
// a version above 2); on success the variable names the buffer's known
// codes in the buffer's order (set) or the earlier ones followed by the new
// ones (add), "none" for code 0, unknown codes dropped; on failure the
// variable is unchanged. A context start gives a context and a CCDB or
// neither, and leaves nothing of the module's behind.
#include <algorithm>

#include "context_fuzz_setup.h"

using namespace ctxfuzz;

namespace {

const char *mnemonic(qv_uint32_t code) {
    if (code == 0) return "none";
    if (code == ctxfuzz::kCodeA) return "qvtest";
    if (code == ctxfuzz::kCodeB) return "qvtest2";
    return nullptr;
}

// Codes to the variable's value: one blank between names; names that would
// not fit its 255 characters are left out.
std::string value_of(const std::vector<qv_uint32_t> &codes) {
    std::string v;
    for (qv_uint32_t c : codes) {
        const char *m = mnemonic(c);
        if (m == nullptr) continue;
        size_t need = std::strlen(m) + (v.empty() ? 0 : 1);
        if (v.size() + need >= 256) continue;
        if (!v.empty()) v += ' ';
        v += m;
    }
    return v;
}

std::string current() {
    const char *v = getenv("QV_SEC_IMP_MECHS");
    return v != nullptr ? v : "<unset>";
}

}  // namespace

QV_SEC_FUZZ_TARGET(4096) {
    if (size == 0) return;
    const Setup &s = fresh_setup();
    const uint8_t script = data[0];
    const int routine = script & 0x3;
    const bool had_b = script & 0x4;
    if (had_b)
        setenv("QV_SEC_IMP_MECHS", "qvtest2", 1);
    else
        unsetenv("QV_SEC_IMP_MECHS");
    const std::string before = current();

    std::vector<uint8_t> list(data + 1, data + size);
    sec_buffer_desc in{static_cast<qv_int32_t>(list.size()), list.empty() ? nullptr : list.data()};
    int list_rc = 0;
    if (list.size() < 2 || list[0] != SEC_BUF_MECH_LIST)
        list_rc = SEC_S_BAD_BUFFER;
    else if (list[1] > 2)
        list_rc = SEC_S_BAD_VERSION;
    else if ((list.size() - 2) % 4 != 0)
        list_rc = SEC_S_BAD_BUFFER;
    std::vector<qv_uint32_t> codes;
    for (size_t i = 2; list_rc == 0 && i + 4 <= list.size(); i += 4)
        codes.push_back(qvfuzz::be32(&list[i]));

    LeakCheck leaks(s);
    if (routine == 0 || routine == 1) {
        qv_int32_t rc = routine == 0 ? sec_set_imposed_mechs(&in) : sec_add_imposed_mechs(&in);
        if (rc != list_rc) __builtin_trap();
        std::string want = before;
        if (rc == 0 && routine == 0) {
            want = value_of(codes);
        } else if (rc == 0 && !codes.empty()) {
            std::vector<qv_uint32_t> working;
            if (had_b) working.push_back(kCodeB);
            for (qv_uint32_t c : codes)
                if (std::find(working.begin(), working.end(), c) == working.end()) working.push_back(c);
            want = value_of(working);
        }
        if (current() != want) __builtin_trap();
    } else {
        sec_status_desc st{};
        sec_token_t ctx = nullptr;
        sec_buffer_desc first{0, nullptr};
        qv_int32_t rc = start_client(s, &in, &ctx, &first);
        check_ccdb_output(first);
        if ((rc > 2) != (ctx == nullptr)) __builtin_trap();
        if (list_rc != 0 && rc != list_rc) __builtin_trap();
        free(first.value);
        sec_end_context(&st, ctx, nullptr);
        if (current() != before) __builtin_trap();
    }
    leaks.check();
    unsetenv("QV_SEC_IMP_MECHS");
}
