// qvsec explain: a return code, a message number or a mechanism's status in
// words, through the library's sec_explain_status / sec_explain_message.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "commands.h"
#include "library_init.h"
#include "mpm.h"

const char *const kExplainUsage =
    "usage: qvsec explain CODE\n"
    "       qvsec explain 2650-NNN\n"
    "       qvsec explain --mech MECH MAJOR MINOR\n"
    "  CODE         a return code of the library, e.g. 21\n"
    "  2650-NNN     a message number, as at the head of a message, e.g. 2650-019\n"
    "  MECH         a configured mnemonic (e.g. local) or a mechanism code (e.g. 0x1)\n"
    "  MAJOR MINOR  the mechanism's major and minor status (maj_stat, min_stat of\n"
    "               the status record), decimal or 0x hexadecimal\n"
    "Exit status: 0 explained, 1 unknown code, message or mechanism, 2 usage error.\n";

namespace {

// A whole-field unsigned 32-bit number, decimal, 0x hexadecimal or octal.
bool parse_u32(const std::string &s, qv_uint32_t *out) {
    if (s.empty() || s[0] == '-') return false;
    errno = 0;
    char *end = nullptr;
    unsigned long v = std::strtoul(s.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > 0xffffffffUL) return false;
    *out = static_cast<qv_uint32_t>(v);
    return true;
}

int print_and_release(qv_int32_t rc, sec_buffer_desc &text) {
    if (rc != 0) {
        std::fprintf(stderr, "qvsec: %s\n", current_error_message().c_str());
        return kExitFailed;
    }
    std::fwrite(text.value, 1, static_cast<size_t>(text.length), stdout);
    sec_release_buffer(&text);
    return kExitOk;
}

// "2650-NNN": the message whose text begins with that number.
int explain_message(const std::string &id) {
    for (int i = 0; i < SEC_MSG_COUNT; ++i) {
        const char *t = cu_mesgtbl_qvsec_msg[i];
        if (std::strncmp(t, id.c_str(), id.size()) != 0 || t[id.size()] != ' ') continue;
        std::printf("%s%s", t, t[std::strlen(t) - 1] == '\n' ? "" : "\n");
        sec_buffer_desc text{};
        qv_int32_t rc = sec_explain_message(i, &text);
        if (rc == SEC_S_BAD_ARGUMENT) {
            std::printf("the library does not issue this message itself\n");
            return kExitOk;
        }
        return print_and_release(rc, text);
    }
    std::fprintf(stderr, "qvsec: %s is not a message of the library\n", id.c_str());
    return kExitFailed;
}

// A mechanism named by code or by a mnemonic of the configuration.
bool mechanism_code(const std::string &mech, qv_uint32_t *code) {
    if (parse_u32(mech, code)) return true;
    sec_init_once();
    SecMutexGuard hold(&SEC_STATE.lock);
    if (sec__read_reserve_select(nullptr) != 0) {
        std::fprintf(stderr, "qvsec: %s\n", current_error_message().c_str());
        std::fprintf(stderr, "qvsec: the configuration cannot be read; name the mechanism by its code "
                             "(see qvsec config check)\n");
        return false;
    }
    for (int i = 0; i < SEC_STATE.mpms.count && i < SEC_MPM_MAX_ENTRIES; ++i) {
        const sec_mpm_entry_desc &e = SEC_STATE.mpms.entries[i];
        if (e.name != nullptr && mech == e.name && (e.state & SEC_MPM_S_NOT_CONFIGURED) == 0) {
            *code = e.code;
            return true;
        }
    }
    std::fprintf(stderr, "qvsec: no mechanism named '%s' in %s\n", mech.c_str(),
                 SEC_STATE.config.fname != nullptr ? SEC_STATE.config.fname : "the configuration");
    return false;
}

int explain_mechanism(const Args &args) {
    sec_status_desc st{};
    if (!parse_u32(args[2], &st.maj_stat) || !parse_u32(args[3], &st.min_stat)) {
        std::fputs(kExplainUsage, stderr);
        return kExitUsage;
    }
    if (!mechanism_code(args[1], &st.mech_code)) return kExitFailed;
    // The statuses the library passes on as return codes of their own.
    qv_int32_t rc = SEC_S_MPM_FAILURE;
    if (st.maj_stat == SEC_S_MPM_NO_SIGNATURE || st.maj_stat == SEC_S_BAD_SIGNATURE ||
        st.maj_stat == SEC_S_USER_NOT_VALID)
        rc = static_cast<qv_int32_t>(st.maj_stat);
    sec_buffer_desc text{};
    return print_and_release(sec_explain_status(rc, &st, &text), text);
}

}  // namespace

int run_explain(const Args &args) {
    if (args.size() == 4 && args[0] == "--mech") return explain_mechanism(args);
    if (args.size() != 1) {
        std::fputs(kExplainUsage, stderr);
        return kExitUsage;
    }
    const std::string &what = args[0];
    if (what.rfind("2650-", 0) == 0) return explain_message(what);
    qv_uint32_t code = 0;
    if (!parse_u32(what, &code) || code > 0x7fffffff) {
        std::fputs(kExplainUsage, stderr);
        return kExitUsage;
    }
    sec_buffer_desc text{};
    qv_int32_t rc = sec_explain_status(static_cast<qv_int32_t>(code), nullptr, &text);
    if (rc == SEC_S_BAD_ARGUMENT) {
        std::fprintf(stderr, "qvsec: %s is not a return code of the library\n", what.c_str());
        return kExitFailed;
    }
    return print_and_release(rc, text);
}
