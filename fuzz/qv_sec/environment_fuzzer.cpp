// Arbitrary values of the mechanism variables QV_SEC_MECH and
// QV_SEC_IMP_MECHS, as sec_get_auth_methods and sec_start read them. The
// first input byte says which are set (bit 0 QV_SEC_MECH, bit 1
// QV_SEC_IMP_MECHS); the rest holds their values separated by a NUL byte.
//
// Checks against a model of the offer over the configuration of
// context_fuzz_setup.h (records A "qvtest", then B "qvtest2"): with imposed
// mechanisms, the configured ones among them in file order (an over-long
// mnemonic fails with 8); otherwise the preferred one first, then the
// records; "none" alone offers nothing. A service token refuses
// unauthenticated clients exactly when imposed mechanisms are given and
// "none" is not among them.
#include <algorithm>
#include <iterator>
#include <sstream>

#include "context_fuzz_setup.h"

using namespace ctxfuzz;

namespace {

// The blank-separated words of s.
std::vector<std::string> words(const std::string &s) {
    std::istringstream in(s);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

bool has(const std::vector<std::string> &w, const char *m) { return std::find(w.begin(), w.end(), m) != w.end(); }

// The walk stops at the first over-long mnemonic, before any later "none".
bool names_none(const std::vector<std::string> &w) {
    for (const std::string &x : w) {
        if (x.size() > 16) return false;
        if (x == "none") return true;
    }
    return false;
}

}  // namespace

QV_SEC_FUZZ_TARGET(4096) {
    if (size == 0) return;
    const Setup &s = fresh_setup();
    std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
    size_t nul = rest.find('\0');
    std::string mech = rest.substr(0, nul);
    std::string imposed = nul == std::string::npos ? "" : rest.substr(nul + 1);
    imposed.resize(strnlen(imposed.c_str(), imposed.size()));
    if (data[0] & 1) setenv("QV_SEC_MECH", mech.c_str(), 1);
    else unsetenv("QV_SEC_MECH");
    if (data[0] & 2) setenv("QV_SEC_IMP_MECHS", imposed.c_str(), 1);
    else unsetenv("QV_SEC_IMP_MECHS");
    const bool mech_given = (data[0] & 1) && !mech.empty();
    const bool imposed_given = (data[0] & 2) && !imposed.empty();
    const std::vector<std::string> imp = words(imposed);

    std::vector<qv_uint32_t> want;
    int want_rc = 0;
    if (imposed_given) {
        for (const std::string &x : imp)
            if (x.size() > 16) want_rc = SEC_S_BAD_MECHANISM;
        if (has(imp, "qvtest")) want.push_back(kCodeA);
        if (has(imp, "qvtest2")) want.push_back(kCodeB);
    } else if (mech_given && mech == "none") {
    } else if (mech_given && mech == "qvtest") {
        want = {kCodeA, kCodeB};
    } else if (mech_given && mech == "qvtest2") {
        want = {kCodeB, kCodeA, kCodeB};
    } else {
        want = {kCodeA, kCodeB};
    }

    LeakCheck leaks(s);
    sec_buffer_desc offer{0, nullptr};
    qv_int32_t count = -1;
    qv_int32_t rc = sec_get_auth_methods(&offer, &count);
    if (rc != want_rc) __builtin_trap();
    if (rc != 0) {
        if (offer.length != 0 || offer.value != nullptr || count != 0) __builtin_trap();
    } else {
        const auto *p = static_cast<const uint8_t *>(offer.value);
        if (count != static_cast<qv_int32_t>(want.size()) || offer.length != 2 + 4 * count || p[0] != 0x81 || p[1] != 1)
            __builtin_trap();
        for (size_t i = 0; i < want.size(); ++i)
            if (qvfuzz::be32(p + 2 + 4 * i) != want[i]) __builtin_trap();
    }
    free(offer.value);

    sec_status_desc st{};
    sec_token_t svc = nullptr;
    if (sec_start(&st, SEC_F_DEFER_MPM_START, &svc) != 0) __builtin_trap();
    bool refuses = static_cast<sec_svc_token_t>(svc)->state & SEC_SVC_S_REFUSE_UNAUTH;
    if (refuses != (imposed_given && !names_none(imp))) __builtin_trap();
    sec_end(&st, 0, svc);
    leaks.check();
    unsetenv("QV_SEC_MECH");
    unsetenv("QV_SEC_IMP_MECHS");
}
