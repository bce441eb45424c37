// Mechanism lists, mnemonic strings, the client's offer, the imposed
// mechanisms of the process (kept in its environment) and the server's
// reconciliation of the client's offer.
#include "mechanism_list.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "byte_io.h"
#include "errors.h"
#include "library_init.h"
#include "mpm.h"
#include "trace.h"

namespace {

constexpr uint8_t kListVersionWritten = 1;
constexpr uint8_t kListVersionMax = 2;
constexpr size_t kListHeader = 2;

// The environment strings handed to putenv() must outlive the call. One
// static array per kind of string, rewritten in place by every later call,
// is not enough: other threads read QV_SEC_IMP_MECHS through getenv() while
// it is being set, and an array that is zeroed and then refilled shows them
// the variable unset or half-written. A service token made in that moment
// accepts unauthenticated clients, and an offer names mechanisms that are not
// imposed: a downgrade. So each string is built in a scratch array that the
// environment never points to, and what putenv() installs is a copy that is
// never written again; readers see the old whole string or the new one.
// One copy is kept per distinct string for the life of the process (a
// reader may still hold any earlier one), so setting the same value again
// costs nothing; a process sets few distinct values. Building, interning
// and putenv() run under g_imposed_mutex, so concurrent setters are applied
// one after the other.
constexpr size_t kVarNameMax = 64;
constexpr size_t kVarValueMax = 256;
char g_varval[kVarNameMax + 1 + kVarValueMax];
char g_empty_varval[kVarNameMax + 2];
pthread_mutex_t g_imposed_mutex = PTHREAD_MUTEX_INITIALIZER;

// The installed strings, never destroyed: the environment may point into
// them until the process ends, exit handlers included. nullptr when the
// copy cannot be made. Called with g_imposed_mutex held.
char *interned(const char *s) {
    try {
        static auto *strings = new std::set<std::string, std::less<>>;
        return const_cast<char *>(strings->emplace(s).first->c_str());
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

qv_int32_t no_memory_for_environment() { return sec_report(SEC_S_NO_MEMORY, MSG_2650_073); }

// sec__create_varval's work, with g_imposed_mutex held.
qv_int32_t create_varval_locked(const char *var, const char *value, char **varstrp) {
    std::memset(g_varval, 0, sizeof g_varval);
    *varstrp = nullptr;
    if (var == nullptr || *var == '\0') return 0;
    if (std::strlen(var) > kVarNameMax) return sec_report(SEC_S_CONFIG, MSG_2650_074, var);
    // Every caller edits the imposed mechanisms: that name is always written.
    std::strcpy(g_varval, kEnvImposedMechs);
    std::strcat(g_varval, "=");
    if (value != nullptr && *value != '\0') {
        if (std::strlen(value) > kVarValueMax) return sec_report(SEC_S_CONFIG, MSG_2650_075, var);
        std::strcat(g_varval, value);
    }
    *varstrp = interned(g_varval);
    return *varstrp != nullptr ? 0 : no_memory_for_environment();
}

// sec__create_empty_varval's work, with g_imposed_mutex held.
qv_int32_t create_empty_varval_locked(const char *var, char **varstrp) {
    std::memset(g_empty_varval, 0, sizeof g_empty_varval);
    *varstrp = nullptr;
    if (var == nullptr || *var == '\0') return 0;
    qv_int32_t rc = 0;
    size_t len = std::strlen(var);
    if (len > kVarNameMax) {
        // Reported, yet the (cut) string is still built and returned.
        rc = sec_report(SEC_S_CONFIG, MSG_2650_074, var);
        len = kVarNameMax;
    }
    std::memcpy(g_empty_varval, var, len);
    g_empty_varval[len] = '=';
    *varstrp = interned(g_empty_varval);
    return *varstrp != nullptr ? rc : no_memory_for_environment();
}

// The caller's array that sec__translate_mech_codes fills.
constexpr size_t kMnemonicStringSize = 256;

// Walks the white-space separated mnemonics of a string.
class MnemonicScanner {
public:
    explicit MnemonicScanner(const char *s) : p_(s) {}
    bool next(std::string_view &out) {
        while (*p_ && std::isspace(static_cast<unsigned char>(*p_))) ++p_;
        if (!*p_) return false;
        const char *start = p_;
        while (*p_ && !std::isspace(static_cast<unsigned char>(*p_))) ++p_;
        out = std::string_view(start, static_cast<size_t>(p_ - start));
        return true;
    }

private:
    const char *p_;
};

qv_int32_t report_overlong(std::string_view mnemonic) {
    std::string copy(mnemonic);
    return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_076, copy.c_str());
}

const sec_mpm_entry_desc *entry_named(std::string_view name) {
    for (int i = 0; i < SEC_STATE.mpms.count && i < SEC_MPM_MAX_ENTRIES; ++i) {
        const sec_mpm_entry_desc &e = SEC_STATE.mpms.entries[i];
        if (e.name != nullptr && name == e.name) return &e;
    }
    return nullptr;
}

const sec_mpm_entry_desc *entry_coded(qv_uint32_t code) {
    for (int i = 0; i < SEC_STATE.mpms.count && i < SEC_MPM_MAX_ENTRIES; ++i) {
        if (SEC_STATE.mpms.entries[i].code == code) return &SEC_STATE.mpms.entries[i];
    }
    return nullptr;
}

void append_unique(MechCodes &codes, qv_uint32_t code) {
    if (std::find(codes.begin(), codes.end(), code) == codes.end()) codes.push_back(code);
}

// Mnemonics to codes against the module table (caller holds the state lock).
// Repeated mechanisms keep their first place. Unknown mnemonics fail with 8
// when forced and are skipped otherwise; an over-long one always fails.
qv_int32_t translate_mnemonics(bool force, const char *mstring, MechCodes &codes) {
    MnemonicScanner scan(mstring);
    std::string_view m;
    while (scan.next(m)) {
        if (m.size() > kMaxMnemonicLength) return report_overlong(m);
        if (m == kMnemonicNone) {
            append_unique(codes, kMechNone);
        } else if (const sec_mpm_entry_desc *e = entry_named(m)) {
            append_unique(codes, e->code);
        } else if (force) {
            std::string copy(m);
            return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_080, copy.c_str());
        }
    }
    return 0;
}

// Codes to mnemonics, one blank between them; unknown codes vanish. Names
// that would not fit the caller's 256 characters are left out rather than
// written past its end (the configuration does not bound mnemonic length).
std::string translate_codes(const MechCodes &codes) {
    std::string out;
    for (qv_uint32_t code : codes) {
        const char *name = kMnemonicNone;
        if (code != kMechNone) {
            const sec_mpm_entry_desc *e = entry_coded(code);
            if (e == nullptr || e->name == nullptr) continue;
            name = e->name;
        }
        size_t need = std::strlen(name) + (out.empty() ? 0 : 1);
        if (out.size() + need >= kMnemonicStringSize) continue;
        if (!out.empty()) out += ' ';
        out += name;
    }
    return out;
}

// Installs QV_SEC_IMP_MECHS=mnemonics; g_imposed_mutex held.
qv_int32_t put_imposed_locked(const std::string &mnemonics) {
    char *varval = nullptr;
    qv_int32_t rc = create_varval_locked(kEnvImposedMechs, mnemonics.c_str(), &varval);
    if (rc != 0) return rc;
    if (varval != nullptr && putenv(varval) != 0) return no_memory_for_environment();
    return 0;
}

qv_int32_t put_imposed(const std::string &mnemonics) {
    SecMutexGuard serialised(&g_imposed_mutex);
    return put_imposed_locked(mnemonics);
}

qv_int32_t put_imposed_empty() {
    SecMutexGuard serialised(&g_imposed_mutex);
    char *varval = nullptr;
    // Only a failed copy matters here: the name is ours and short.
    if (create_empty_varval_locked(kEnvImposedMechs, &varval) == SEC_S_NO_MEMORY) return SEC_S_NO_MEMORY;
    if (varval != nullptr && putenv(varval) != 0) return no_memory_for_environment();
    return 0;
}

std::vector<uint8_t> mech_list_bytes(const MechCodes &codes) {
    ByteWriter w;
    w.u8(SEC_BUF_MECH_LIST);
    w.u8(kListVersionWritten);
    for (qv_uint32_t code : codes) w.u32be(code);
    return w.data();
}

void clear_list(sec_buffer_t b) {
    b->length = 0;
    b->value = nullptr;
}

// The client's offer: the configured mechanisms that are imposed, in file
// order; or the preferred one first and then every configured one.
qv_int32_t build_offer(const char *preferred, const char *imposed, MechCodes &offer) {
    SecMutexGuard hold(&SEC_STATE.lock);
    qv_int32_t rc = static_cast<qv_int32_t>(sec__read_reserve_select(nullptr));
    if (rc != 0) return rc;
    const sec_config_rec_desc *recs = SEC_STATE.config.cfg_recs;
    if (imposed != nullptr) {
        MechCodes allowed;
        rc = translate_mnemonics(false, imposed, allowed);
        if (rc != 0) return rc;
        for (const sec_config_rec_desc *r = recs; r; r = r->next) {
            if (std::find(allowed.begin(), allowed.end(), r->code) != allowed.end()) offer.push_back(r->code);
        }
        return 0;
    }
    // The preferred code goes first. It is skipped at its own place only
    // when it directly follows the code appended before it (so for records
    // A, B, P, C with P preferred the offer is P, A, B, P, C): peers see this
    // exact offer, so it is kept.
    bool have_preferred = false;
    qv_uint32_t compare = 0;
    if (preferred != nullptr) {
        for (const sec_config_rec_desc *r = recs; r; r = r->next) {
            if (std::strcmp(r->name, preferred) == 0) {
                offer.push_back(r->code);
                compare = r->code;
                have_preferred = true;
                break;
            }
        }
    }
    for (const sec_config_rec_desc *r = recs; r; r = r->next) {
        if (have_preferred && r->code == compare) continue;
        offer.push_back(r->code);
        compare = r->code;
    }
    return 0;
}

qv_int32_t get_auth_methods(sec_buffer_t mbuff, qv_int32_t *mcount) {
    clear_list(mbuff);
    *mcount = 0;
    const char *preferred = sec_env_value(kEnvPreferredMech);
    const char *imposed = sec_env_value(kEnvImposedMechs);
    MechCodes offer;
    // Asking for no authentication needs no configuration at all.
    if (imposed != nullptr || preferred == nullptr || std::strcmp(preferred, kMnemonicNone) != 0) {
        qv_int32_t rc = build_offer(preferred, imposed, offer);
        if (rc != 0) return rc;
    }
    qv_int32_t rc = sec_give_mech_list(offer, mbuff, "sec_get_auth_methods");
    if (rc == 0) *mcount = static_cast<qv_int32_t>(offer.size());
    return rc;
}

qv_int32_t add_imposed_mechs(sec_buffer_t mbuff) {
    MechCodes add;
    qv_int32_t rc = sec_read_mech_list(mbuff, add);
    if (rc != 0 || add.empty()) return rc;
    std::string mnemonics;
    // Held from reading the current value to installing the new one, so
    // that concurrent additions all survive. Taken after SEC_STATE.lock (the
    // lock order) and kept after it is released.
    std::optional<SecMutexGuard> serialised;
    {
        SecMutexGuard hold(&SEC_STATE.lock);
        rc = static_cast<qv_int32_t>(sec__read_reserve_select(nullptr));
        if (rc != 0) return rc;
        serialised.emplace(&g_imposed_mutex);
        MechCodes working;
        if (const char *current = sec_env_value(kEnvImposedMechs)) {
            rc = translate_mnemonics(false, current, working);
            if (rc != 0) return rc;
        }
        for (qv_uint32_t code : add) append_unique(working, code);
        mnemonics = translate_codes(working);
    }
    return put_imposed_locked(mnemonics);
}

qv_int32_t set_imposed_mechs(sec_buffer_t mbuff) {
    MechCodes codes;
    qv_int32_t rc = sec_read_mech_list(mbuff, codes);
    if (rc != 0) return rc;
    if (codes.empty()) return put_imposed_empty();
    std::string mnemonics;
    {
        SecMutexGuard hold(&SEC_STATE.lock);
        rc = static_cast<qv_int32_t>(sec__read_reserve_select(nullptr));
        if (rc != 0) return rc;
        mnemonics = translate_codes(codes);
    }
    return put_imposed(mnemonics);
}

qv_int32_t reconcile(sec_buffer_t cl_mechs, sec_buffer_t sh_mechs) {
    MechCodes offered;
    qv_int32_t rc = sec_read_mech_list(cl_mechs, offered);
    if (rc != 0) return rc;
    if (offered.empty()) return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_006);
    MechCodes shared;
    {
        SecMutexGuard hold(&SEC_STATE.lock);
        rc = static_cast<qv_int32_t>(sec__read_reserve_select(nullptr));
        if (rc != 0) return rc;
        // The client's order decides; codes this server has not configured
        // (including "none") are dropped.
        for (qv_uint32_t code : offered) {
            for (const sec_config_rec_desc *r = SEC_STATE.config.cfg_recs; r; r = r->next) {
                if (r->code == code) {
                    shared.push_back(code);
                    break;
                }
            }
        }
    }
    if (!give_buffer(mech_list_bytes(shared), sh_mechs)) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    return 0;
}

}  // namespace

pthread_mutex_t &sec_imposed_mechs_mutex() { return g_imposed_mutex; }

const char *sec_env_value(const char *name) {
    const char *v = std::getenv(name);
    return (v != nullptr && *v != '\0') ? v : nullptr;
}

qv_int32_t sec_read_mech_list(const sec_buffer_desc *list, MechCodes &codes) {
    codes.clear();
    ByteReader r = ByteReader::of(*list);
    uint8_t type = 0, version = 0;
    if (!r.u8(type) || type != SEC_BUF_MECH_LIST || !r.u8(version)) return sec_report(SEC_S_BAD_BUFFER, MSG_2650_005);
    if (version > kListVersionMax) return sec_report(SEC_S_BAD_VERSION, MSG_2650_007);
    if (r.remaining() % 4 != 0) return sec_report(SEC_S_BAD_BUFFER, MSG_2650_005);
    qv_uint32_t code = 0;
    while (r.u32be(code)) codes.push_back(code);
    return 0;
}

qv_int32_t sec_give_mech_list(const MechCodes &codes, sec_buffer_t out, const char *routine) {
    std::vector<uint8_t> bytes = mech_list_bytes(codes);
    if (!give_buffer(bytes, out)) {
        return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, routine, static_cast<int>(bytes.size()));
    }
    return 0;
}

bool sec_unauthenticated_refused() {
    const char *imposed = sec_env_value(kEnvImposedMechs);
    return imposed != nullptr && !sec__contains_mech_none(const_cast<char *>(imposed));
}

extern "C" {

qv_int32_t sec__translate_mech_mnemonics(sec_boolean_t force, char *mstring, sec_buffer_t mbuff,
                                         qv_int32_t *mcount) {
    *mcount = 0;
    if (mstring == nullptr || *mstring == '\0') return 0;
    return sec_guard([&] {
        MechCodes codes;
        qv_int32_t rc = translate_mnemonics(force != 0, mstring, codes);
        if (rc != 0) {
            clear_list(mbuff);
            return rc;
        }
        rc = sec_give_mech_list(codes, mbuff, "sec__translate_mech_mnemonics");
        if (rc == 0) *mcount = static_cast<qv_int32_t>(codes.size());
        return rc;
    });
}

qv_int32_t sec__translate_mech_codes(sec_buffer_t mbuff, qv_int32_t mcount, char *mstring) {
    // Reads at most the codes the buffer really holds.
    ByteReader r = ByteReader::of(*mbuff);
    std::span<const uint8_t> header;
    MechCodes codes;
    qv_uint32_t code = 0;
    if (r.take(kListHeader, header)) {
        while (static_cast<qv_int32_t>(codes.size()) < mcount && r.u32be(code)) codes.push_back(code);
    }
    std::string s = translate_codes(codes);
    if (!s.empty()) std::memcpy(mstring, s.c_str(), s.size() + 1);
    return 0;
}

sec_boolean_t sec__contains_mech_none(char *mstring) {
    if (mstring == nullptr) return 0;
    MnemonicScanner scan(mstring);
    std::string_view m;
    while (scan.next(m)) {
        if (m.size() > kMaxMnemonicLength) {
            report_overlong(m);
            return 0;
        }
        if (m == kMnemonicNone) return 1;
    }
    return 0;
}

qv_int32_t sec__create_varval(char *var, char *value, char **varstrp) {
    SecMutexGuard serialised(&g_imposed_mutex);
    return create_varval_locked(var, value, varstrp);
}

qv_int32_t sec__create_empty_varval(char *var, char **varstrp) {
    SecMutexGuard serialised(&g_imposed_mutex);
    return create_empty_varval_locked(var, varstrp);
}

qv_int32_t sec_get_auth_methods(sec_buffer_t mbuff, qv_int32_t *mcount) {
    sec_init_once();
    sec_trace_api_entry(kTraceGetAuthMethods, mbuff, mcount);
    qv_int32_t rc;
    if (mbuff == nullptr) {
        rc = sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_get_auth_methods", 1, 0u);
    } else if (mcount == nullptr) {
        // The second parameter is reported in the older message form.
        rc = sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, "sec_get_auth_methods()");
    } else {
        rc = sec_guard([&] { return get_auth_methods(mbuff, mcount); });
        if (rc != 0) {
            free(mbuff->value);
            clear_list(mbuff);
            *mcount = 0;
        }
    }
    sec_trace_api_exit(kTraceGetAuthMethods, rc, nullptr);
    return rc;
}

qv_int32_t sec_create_mech_buffer(char *mstring, qv_int32_t *mcount, sec_buffer_t mbuff) {
    sec_init_once();
    sec_trace_api_entry(kTraceCreateMechBuffer, mstring, mcount, mbuff);
    qv_int32_t rc;
    if (mstring == nullptr || *mstring == '\0') {
        rc = sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_create_mech_buffer", 1,
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(mstring)));
    } else if (mbuff == nullptr) {
        rc = sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_create_mech_buffer", 3, 0u);
    } else if (mcount == nullptr) {
        rc = sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_create_mech_buffer", 2, 0u);
    } else {
        // Translated against the module table as it stands: the
        // configuration file is not read here.
        SecMutexGuard hold(&SEC_STATE.lock);
        rc = sec__translate_mech_mnemonics(1, mstring, mbuff, mcount);
    }
    sec_trace_api_exit(kTraceCreateMechBuffer, rc, nullptr);
    return rc;
}

qv_int32_t sec_add_imposed_mechs(sec_buffer_t mbuff) {
    sec_init_once();
    sec_trace_api_entry(kTraceAddImposedMechs, mbuff);
    qv_int32_t rc = mbuff == nullptr ? sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_add_imposed_mechs", 1, 0u)
                                     : sec_guard([&] { return add_imposed_mechs(mbuff); });
    sec_trace_api_exit(kTraceAddImposedMechs, rc, nullptr);
    return rc;
}

qv_int32_t sec_set_imposed_mechs(sec_buffer_t mbuff) {
    sec_init_once();
    sec_trace_api_entry(kTraceSetImposedMechs, mbuff);
    qv_int32_t rc = mbuff == nullptr ? sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_set_imposed_mechs", 1, 0u)
                                     : sec_guard([&] { return set_imposed_mechs(mbuff); });
    sec_trace_api_exit(kTraceSetImposedMechs, rc, nullptr);
    return rc;
}

qv_int32_t sec_clear_imposed_mechs(void) {
    sec_init_once();
    sec_trace_api_entry(kTraceClearImposedMechs);
    qv_int32_t rc = sec_env_value(kEnvImposedMechs) != nullptr ? put_imposed_empty() : 0;
    sec_trace_api_exit(kTraceClearImposedMechs, rc, nullptr);
    return rc;
}

qv_int32_t sec_reconcile_auth_methods(sec_buffer_t cl_mechs, sec_buffer_t sh_mechs) {
    sec_init_once();
    sec_trace_api_entry(kTraceReconcileAuthMethods, cl_mechs, sh_mechs);
    qv_int32_t rc;
    if (cl_mechs == nullptr || sh_mechs == nullptr) {
        rc = sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, "sec_reconcile_auth_methods()");
    } else {
        clear_list(sh_mechs);
        rc = sec_guard([&] { return reconcile(cl_mechs, sh_mechs); });
    }
    sec_trace_api_exit(kTraceReconcileAuthMethods, rc, nullptr);
    return rc;
}

}  // extern "C"
