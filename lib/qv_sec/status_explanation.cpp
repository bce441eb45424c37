// Words for people about a failure: what a return code, a message or a
// module's status means, its usual causes and what to check. Modules explain
// their own statuses through the optional routine mpm_explain_status.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "byte_io.h"
#include "context_token.h"
#include "errors.h"
#include "library_init.h"
#include "mpm.h"
#include "qv_sec_mpm.h"

namespace {

struct CodeText {
    qv_int32_t code;
    const char *meaning;
    const char *causes;  // nullptr: none worth naming
    const char *check;
};

const CodeText kCodes[] = {
    {SEC_S_OK, "success", nullptr, nullptr},
    {SEC_S_CONTINUE, "the context exchange must continue",
     nullptr, "send the output buffer to the peer and pass its answer to the next call"},
    {SEC_S_UNAUTHENTICATED, "the context is complete but unauthenticated",
     "the client asked for no authentication (QV_SEC_MECH=none, or an empty offer), or the server's module forced it",
     "a service must check the context's attributes before trusting the client; QV_SEC_IMP_MECHS without \"none\" "
     "refuses such contexts"},
    {SEC_S_MPM_FAILURE, "a routine of a mechanism module failed; the status record holds the module's major and "
     "minor status, its mechanism code and the routine's name",
     nullptr, "the module's status: qvsec explain --mech MECH MAJOR MINOR, or sec_explain_status with the "
     "status record"},
    {SEC_S_BAD_ARGUMENT, "the caller passed an invalid argument",
     "a NULL pointer, a negative length, or flags that may not be combined",
     "the message names the routine and the argument's position"},
    {SEC_S_BAD_TOKEN, "the service, context or identity-context token is not valid here",
     "a token already ended or released, a token of the wrong kind, or memory overwritten",
     "that the token came from sec_start or a context routine and was not ended before"},
    {SEC_S_NO_MEMORY, "memory could not be allocated", "the process reached its memory limit",
     "the process's limits (ulimit -v) and its use of memory"},
    {SEC_S_BAD_BUFFER, "a buffer is not of the expected type or is damaged",
     "a buffer from another routine, a truncated or altered transfer, or one not made by this library",
     "that the bytes reach the peer unchanged and whole"},
    {SEC_S_BAD_MECHANISM, "a mechanism code or mnemonic is unknown or not acceptable",
     "the peers have no mechanism in common, an empty offer reached the server, a mnemonic in QV_SEC_IMP_MECHS or "
     "sec_create_mech_buffer is not configured or longer than 16 characters",
     "qvsec config check on both sides, and QV_SEC_MECH / QV_SEC_IMP_MECHS"},
    {SEC_S_BAD_VERSION, "a buffer or ACL entry has a version this library does not read",
     "a peer or file from a newer release", "the releases of both peers"},
    {SEC_S_SOCKET, "a socket operation failed", "the socket path is not writable or the descriptor is not a socket",
     "the path and descriptor given to sec_setup_socket"},
    {SEC_S_AUTH_ERROR, "authentication failed or was refused",
     "an unauthenticated client at a service that refuses them, or a context that is not authenticated",
     "the client's mechanisms and the service's QV_SEC_IMP_MECHS"},
    {SEC_S_NO_ACL_ENTRIES, "the ACL has no entry for the client's mechanism",
     nullptr, "the ACL's entries for the mechanism the client used"},
    {SEC_S_CONFIG, "the configuration file or an environment variable that configures the library is not usable",
     "the file is missing, unreadable, empty or malformed; two lines share a code, mnemonic or priority; more than "
     "8 mechanisms; an environment value too long",
     "qvsec config check: it names the file, the line, the field and the reason"},
    {SEC_S_BAD_MPM, "a mechanism module cannot be used or broke the module protocol",
     "the module file is missing, not a shared object for this system, lacks mpm_init or a routine that was needed",
     "qvsec config check (it loads every configured module)"},
    {SEC_S_INTERNAL, "an internal error of the library", nullptr, "a trace of the failing run (QV_TRACE)"},
    {SEC_S_MPM_NO_SIGNATURE, "the mechanism cannot sign or verify with this context",
     "an identity context, or a mechanism without signatures", "which kind of context is used"},
    {SEC_S_CODESET, "a string could not be converted between the process's code set and UTF-8",
     "bytes that are not valid in the locale's code set", "the locale (LANG, LC_ALL) of the process"},
    {SEC_S_NOT_DES_KEY, "the key buffer holds no DES key", "a key not made by sec_generate_key, or changed since",
     "the key file"},
    {SEC_S_MSG_VERIFY_FAILED, "the message token does not verify",
     "another key, or the message changed after it was signed", "that both sides use the same key"},
    {SEC_S_CRYPTO_FAILURE, "the library's cryptography failed", nullptr, "the random source of the system"},
    {SEC_S_AMBIGUOUS_CIDB, "the CIDB names an identity that is ambiguous on this host",
     "a CIDB made on another host with a host-local identity", "where the CIDB was made"},
    {SEC_S_BAD_SIGNATURE, "the mechanism found the signature bad", "changed data, another context, or a replay",
     "that the data and signature are those the peer sent, in order"},
    {SEC_S_USER_NOT_VALID, "the user name is not the client's", nullptr, "the name asked about"},
    {SEC_S_NO_PRIVSET, "the identity context holds no privilege set", nullptr,
     "that the identity context was made with a mapped identity"},
};

const CodeText *code_text(qv_int32_t code) {
    for (const CodeText &c : kCodes)
        if (c.code == code) return &c;
    return nullptr;
}

// What a message adds to its return code's explanation.
struct MessageNote {
    int number;
    const char *note;
};

const MessageNote kNotes[] = {
    {MSG_2650_019, "the configuration file could not be used: it is missing, unreadable, not a regular file, empty "
                   "or holds a malformed line (for instance a path that ends the line without a flags field), or "
                   "it lists more than 8 mechanisms. qvsec config check names which"},
    {MSG_2650_001, "made by the application from the status record of a failed module routine: explain the "
                   "major and minor status with the mechanism"},
    {MSG_2650_999, "made by the application from the status record of a failed module routine: explain the "
                   "major and minor status with the mechanism"},
    {MSG_2650_084, "two lines of the configuration file have the same priority; every line needs its own"},
    {MSG_2650_085, "two lines of the configuration file have the same mechanism code or mnemonic"},
    {MSG_2650_020, "a module lacks a routine that was called, or the module file cannot be used"},
    {MSG_2650_050, "the module file named in the configuration does not exist, cannot be examined or is empty"},
    {MSG_2650_051, "the module file exists but the dynamic loader refused it; the dlerror text says why (wrong "
                   "architecture, missing library, unresolved symbol)"},
    {MSG_2650_052, "the module loaded but does not export mpm_init: it is not a mechanism module"},
    {MSG_2650_006, "a service received an empty mechanism offer (the client asked for no mechanism: QV_SEC_MECH=none "
                   "or QV_SEC_IMP_MECHS naming nothing configured), or a CCDB names a mechanism the service has not "
                   "configured"},
    {MSG_2650_028, "the client's and the service's mechanism differ in the middle of an exchange"},
    {MSG_2650_030, "the service refuses unauthenticated clients and the client offered none of its mechanisms"},
    {MSG_2650_070, "no configured module has the mechanism code that was asked for"},
    {MSG_2650_076, "a mnemonic longer than 16 characters was given (QV_SEC_IMP_MECHS, sec_create_mech_buffer)"},
    {MSG_2650_080, "the mnemonic is not configured in this process's configuration file"},
    {MSG_2650_086, "a module asked for an unauthenticated context but QV_SEC_IMP_MECHS does not contain \"none\""},
    {MSG_2650_074, "an environment variable's name is too long"},
    {MSG_2650_075, "the value given for QV_SEC_IMP_MECHS is longer than 256 characters"},
    {MSG_2650_024, "the module returned \"continue\" without output for the peer: a fault of the module"},
    {MSG_2650_025, "the module ended the exchange without the output the peer still waits for: a fault of the "
                   "module"},
    {MSG_2650_029, "the module asked for an unauthenticated context after the first round: a fault of the module"},
};

// The row of a table keyed by message number, or nullptr.
template <typename Row, size_t N>
const Row *row_for(const Row (&table)[N], int number) {
    for (const Row &r : table)
        if (r.number == number) return &r;
    return nullptr;
}

// The return code each message is issued with (the first when several).
struct MessageCode {
    int number;
    qv_int32_t code;
};

const MessageCode kMessageCodes[] = {
    {MSG_2650_002, SEC_S_BAD_ARGUMENT},   {MSG_2650_003, SEC_S_BAD_TOKEN},     {MSG_2650_004, SEC_S_NO_MEMORY},
    {MSG_2650_005, SEC_S_BAD_BUFFER},     {MSG_2650_006, SEC_S_BAD_MECHANISM}, {MSG_2650_007, SEC_S_BAD_VERSION},
    {MSG_2650_008, SEC_S_SOCKET},         {MSG_2650_010, SEC_S_AUTH_ERROR},    {MSG_2650_019, SEC_S_CONFIG},
    {MSG_2650_020, SEC_S_BAD_MPM},        {MSG_2650_022, SEC_S_AUTH_ERROR},    {MSG_2650_023, SEC_S_INTERNAL},
    {MSG_2650_024, SEC_S_BAD_MPM},        {MSG_2650_025, SEC_S_BAD_MPM},       {MSG_2650_026, SEC_S_BAD_MPM},
    {MSG_2650_027, SEC_S_BAD_BUFFER},     {MSG_2650_028, SEC_S_BAD_MECHANISM}, {MSG_2650_029, SEC_S_BAD_MPM},
    {MSG_2650_030, SEC_S_AUTH_ERROR},     {MSG_2650_031, SEC_S_BAD_ARGUMENT},  {MSG_2650_032, SEC_S_NO_MEMORY},
    {MSG_2650_033, SEC_S_INTERNAL},       {MSG_2650_034, SEC_S_INTERNAL},      {MSG_2650_035, SEC_S_NO_ACL_ENTRIES},
    {MSG_2650_038, SEC_S_BAD_BUFFER},     {MSG_2650_045, SEC_S_NOT_DES_KEY},   {MSG_2650_046, SEC_S_CRYPTO_FAILURE},
    {MSG_2650_047, SEC_S_BAD_BUFFER},     {MSG_2650_048, SEC_S_MSG_VERIFY_FAILED},
    {MSG_2650_049, SEC_S_MSG_VERIFY_FAILED}, {MSG_2650_050, SEC_S_BAD_MPM}, {MSG_2650_051, SEC_S_BAD_MPM},
    {MSG_2650_052, SEC_S_BAD_MPM},        {MSG_2650_060, SEC_S_BAD_ARGUMENT},  {MSG_2650_061, SEC_S_BAD_TOKEN},
    {MSG_2650_062, SEC_S_BAD_TOKEN},      {MSG_2650_063, SEC_S_BAD_TOKEN},     {MSG_2650_064, SEC_S_NO_MEMORY},
    {MSG_2650_065, SEC_S_NO_PRIVSET},     {MSG_2650_066, SEC_S_BAD_ARGUMENT},  {MSG_2650_067, SEC_S_BAD_MPM},
    {MSG_2650_068, SEC_S_INTERNAL},       {MSG_2650_069, SEC_S_BAD_ARGUMENT},  {MSG_2650_070, SEC_S_BAD_MECHANISM},
    {MSG_2650_071, SEC_S_INTERNAL},       {MSG_2650_072, SEC_S_INTERNAL},      {MSG_2650_073, SEC_S_NO_MEMORY},
    {MSG_2650_074, SEC_S_CONFIG},         {MSG_2650_075, SEC_S_CONFIG},        {MSG_2650_076, SEC_S_BAD_MECHANISM},
    {MSG_2650_077, SEC_S_INTERNAL},       {MSG_2650_079, SEC_S_CODESET},       {MSG_2650_080, SEC_S_BAD_MECHANISM},
    {MSG_2650_081, SEC_S_BAD_BUFFER},     {MSG_2650_082, SEC_S_BAD_TOKEN},     {MSG_2650_083, SEC_S_BAD_BUFFER},
    {MSG_2650_084, SEC_S_CONFIG},         {MSG_2650_085, SEC_S_CONFIG},        {MSG_2650_086, SEC_S_BAD_MECHANISM},
    {MSG_2650_087, SEC_S_AMBIGUOUS_CIDB}, {MSG_CLIENT_INITIATES_UNAUTH, SEC_S_UNAUTHENTICATED},
    {MSG_SERVER_FORCES_UNAUTH, SEC_S_UNAUTHENTICATED}, {MSG_CONTINUE, SEC_S_CONTINUE},
    {MSG_2650_001, SEC_S_MPM_FAILURE},    {MSG_2650_999, SEC_S_MPM_FAILURE},
};

void append_code(std::string &out, qv_int32_t code) {
    const CodeText *c = code_text(code);
    out += "return code " + std::to_string(code) + ": ";
    out += std::string(c->meaning) + "\n";
    if (c->causes != nullptr) out += std::string("  usual causes: ") + c->causes + "\n";
    if (c->check != nullptr) out += std::string("  check: ") + c->check + "\n";
}

// The module's own words for its status, or "" when it gives none: the
// routine is optional, and a module that cannot be loaded says nothing.
std::string module_words(sec_mpm_entry_t entry, qv_uint32_t major, qv_uint32_t minor) {
    void *fn = nullptr;
    // Looked up by name: the routine is not one of the table's.
    char name[] = "mpm_explain_status";
    sec_mpm_routine_t found = nullptr;
    if (sec__mpm_start_routine(entry, name, &found) != 0) return {};
    fn = reinterpret_cast<void *>(found);
    struct CallEnd {
        sec_mpm_entry_t e;
        ~CallEnd() { sec__mpm_end_routine(e); }
    } end{entry};
    char text[512] = {};
    qv_uint32_t ignored = 0;
    if (reinterpret_cast<decltype(&::mpm_explain_status)>(fn)(&ignored, major, minor, text, sizeof text) != 0)
        return {};
    text[sizeof text - 1] = '\0';
    return text;
}

void append_module_status(std::string &out, const sec_status_desc &st) {
    {
        // The table as the current file gives it; a file that cannot be read
        // leaves the table as it stands, which may still know the code.
        SecMutexGuard hold(&SEC_STATE.lock);
        sec__read_reserve_select(nullptr);
    }
    sec_mpm_entry_t entry = sec__get_mpm_entry(st.mech_code);
    char head[160];
    std::snprintf(head, sizeof head, "mechanism 0x%08x (%s)", st.mech_code,
                  entry != nullptr && entry->name != nullptr ? entry->name : "not configured here");
    out += head;
    if (st.desc[0] != '\0') out += std::string(", routine ") + std::string(st.desc, strnlen(st.desc, sizeof st.desc));
    out += ": major status " + std::to_string(st.maj_stat) + ", minor status " + std::to_string(st.min_stat) + "\n";
    std::string words = entry != nullptr ? module_words(entry, st.maj_stat, st.min_stat) : std::string();
    if (!words.empty()) {
        out += std::string("  ") + entry->name + ": " + words + "\n";
    } else {
        out += "  the module gives no explanation of this status: see the mechanism's documentation\n";
    }
}

bool give_text(const std::string &s, sec_buffer_t text) {
    // The NUL is part of the block, not of the length.
    if (!give_buffer(std::span<const uint8_t>(reinterpret_cast<const uint8_t *>(s.c_str()), s.size() + 1), text))
        return false;
    text->length = static_cast<qv_int32_t>(s.size());
    return true;
}

// Builds the text with build(std::string &) and hands it to the caller,
// keeping the caller's error record.
template <typename Build>
qv_int32_t explain_into(sec_buffer_t text, Build build) {
    text->length = 0;
    text->value = nullptr;
    SecErrorKeeper keep(nullptr);
    return sec_guard([&] {
        std::string out;
        build(out);
        return give_text(out, text) ? 0 : SEC_S_NO_MEMORY;
    });
}

}  // namespace

extern "C" {

// No trace records: these routines report on failures and are not among the
// traced operations. They leave the caller's error record as it was, so that
// explaining a failure does not replace the failure's own detail.
qv_int32_t sec_explain_status(qv_int32_t rc, const sec_status_desc *st, sec_buffer_t text) {
    sec_init_once();
    if (code_text(rc) == nullptr)
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_explain_status", 1, static_cast<unsigned>(rc));
    if (text == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_explain_status", 3, 0u);
    return explain_into(text, [&](std::string &out) {
        append_code(out, rc);
        // Major statuses 0 and 1 are not failures.
        if (st != nullptr && st->maj_stat > MPM_S_CONTINUE) append_module_status(out, *st);
    });
}

qv_int32_t sec_explain_message(qv_int32_t number, sec_buffer_t text) {
    sec_init_once();
    const MessageCode *issued = row_for(kMessageCodes, number);
    if (issued == nullptr)
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_explain_message", 1, static_cast<unsigned>(number));
    if (text == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, "sec_explain_message", 2, 0u);
    return explain_into(text, [&](std::string &out) {
        if (const MessageNote *n = row_for(kNotes, number)) out += std::string("message: ") + n->note + "\n";
        append_code(out, issued->code);
    });
}

}  // extern "C"
