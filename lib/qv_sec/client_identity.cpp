// sec_get_client_identity and sec_release_name: who the client of a context
// is, as its network name, its mapped local name and its typed id buffer.
#include <cstdlib>
#include <cstring>

#include "byte_io.h"
#include "errors.h"
#include "library_init.h"
#include "mpm_answer.h"
#include "trace.h"

namespace {

constexpr const char *kRoutine = "sec_get_client_identity";

// What one call produces. Nothing reaches the caller until every requested
// part exists, so a failure leaves no half-written output behind and the
// parts made so far are freed here.
struct Identity {
    SecMallocPtr name;
    SecMallocPtr mname;
    SecMallocPtr id;
    qv_int32_t id_length = 0;
};

qv_uint32_t mech_code(const sec_ctx_token_desc &t) { return t.mdata.mpm != nullptr ? t.mdata.mpm->code : 0; }

qv_int32_t copy_name(const char *s, SecMallocPtr &out) {
    size_t n = std::strlen(s) + 1;
    out.reset(static_cast<char *>(std::malloc(n)));
    if (!out) return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, kRoutine, static_cast<int>(n));
    std::memcpy(out.get(), s, n);
    return 0;
}

// Asks the context's module with the buffer-size protocol; running out of
// memory is reported with the message the caller chose for it.
qv_int32_t ask_module(const sec_ctx_token_desc &t, sec_status_t st, SecMpmQuery query, const char *routine,
                      bool name_message, SecMpmAnswer &answer) {
    // An authenticated security context always names its module; one that
    // does not is damaged.
    if (t.mdata.mpm == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_068);
    size_t wanted = 0;
    qv_int32_t rc = sec_query_mpm(query, routine, kRoutine, t.mdata.mpm, st, t.mdata.mtoken, &answer, &wanted);
    if (rc == SEC_S_NO_MEMORY) {
        return name_message ? sec_report(SEC_S_NO_MEMORY, MSG_2650_032, kRoutine, static_cast<int>(wanted))
                            : sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    }
    return rc;
}

qv_int32_t network_name(const sec_ctx_token_desc &t, sec_status_t st, bool identity, Identity &out) {
    if (identity) {
        if (t.privset.name == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_072, mech_code(t));
        return copy_name(t.privset.name, out.name);
    }
    SecMpmAnswer a;
    if (qv_int32_t rc = ask_module(t, st, sec__mpm_get_client_name, "mpm_get_client_name", true, a)) return rc;
    if (a.length == 0) return sec_report(SEC_S_BAD_MPM, MSG_2650_067, mech_code(t));
    out.name = std::move(a.bytes);
    return 0;
}

// A client without a local mapping has no mapped name; that is not an error.
qv_int32_t mapped_name(const sec_ctx_token_desc &t, sec_status_t st, bool identity, Identity &out) {
    if (identity) {
        if ((t.state & SEC_CTX_S_MAPPED) != 0 && t.privset.mname != nullptr)
            return copy_name(t.privset.mname, out.mname);
        return 0;
    }
    SecMpmAnswer a;
    if (qv_int32_t rc = ask_module(t, st, sec__mpm_get_mapped_name, "mpm_get_mapped_name", true, a)) return rc;
    out.mname = std::move(a.bytes);
    return 0;
}

// Header (type 0x83, version 2, mechanism code) and the module's id bytes.
qv_int32_t typed_id(const sec_ctx_token_desc &t, sec_status_t st, bool identity, Identity &out) {
    if (identity) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_082);
    SecMpmAnswer a;
    if (qv_int32_t rc = ask_module(t, st, sec__mpm_get_client_id, "mpm_get_client_id", false, a)) return rc;
    // This routine reports an empty client id with 2650-068, which names
    // missing module data rather than an empty identity; callers match on it.
    if (a.length == 0) return sec_report(SEC_S_BAD_MPM, MSG_2650_068, mech_code(t));
    // The typed buffer's length is 32 bits, header included.
    if (a.length > INT32_MAX - sec__buff_tvm_len)
        return sec_report(SEC_S_BAD_MPM, MSG_2650_034, "mpm_get_client_id", static_cast<int>(a.length), kRoutine);
    const size_t header = static_cast<size_t>(sec__buff_tvm_len);
    const size_t total = header + static_cast<size_t>(a.length);
    SecMallocPtr buf(static_cast<char *>(std::malloc(total)));
    if (!buf) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    ByteWriter w;
    w.u8(SEC_BUF_TYPED_ID);
    w.u8(2);
    w.u32be(mech_code(t));
    std::memcpy(buf.get(), w.data().data(), header);
    std::memcpy(buf.get() + header, a.bytes.get(), static_cast<size_t>(a.length));
    out.id = std::move(buf);
    out.id_length = static_cast<qv_int32_t>(total);
    return 0;
}

qv_int32_t collect(sec_status_t st, sec_token_t ctoken, bool want_name, bool want_mname, bool want_id,
                   Identity &out) {
    if (ctoken == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kRoutine);
    const auto &t = *static_cast<const sec_ctx_token_desc *>(ctoken);
    if (t.magic != SEC_CTX_TOKEN_MAGIC || (t.state & SEC_CTX_S_COMPLETE) == 0)
        return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);
    if ((t.state & SEC_CTX_S_AUTHENTICATED) == 0) return sec_report(SEC_S_AUTH_ERROR, MSG_2650_010);
    const bool identity = (t.state & SEC_CTX_S_IDENTITY) != 0;
    if (want_name) {
        if (qv_int32_t rc = network_name(t, st, identity, out)) return rc;
    }
    if (want_mname) {
        if (qv_int32_t rc = mapped_name(t, st, identity, out)) return rc;
    }
    if (want_id) {
        if (qv_int32_t rc = typed_id(t, st, identity, out)) return rc;
    }
    return 0;
}

qv_int32_t get_client_identity(sec_status_t st, sec_token_t ctoken, qv_char_t **name, qv_char_t **mname,
                               sec_buffer_t id) {
    if (st == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 1, 0u);
    *st = sec_status_desc{};
    Identity out;
    qv_int32_t rc = sec_guard([&] { return collect(st, ctoken, name != nullptr, mname != nullptr, id != nullptr, out); });
    // On failure every requested output is empty; what was made is freed
    // with `out`.
    if (name != nullptr) *name = rc == 0 ? out.name.release() : nullptr;
    if (mname != nullptr) *mname = rc == 0 ? out.mname.release() : nullptr;
    if (id != nullptr) {
        id->length = rc == 0 ? out.id_length : 0;
        id->value = rc == 0 ? out.id.release() : nullptr;
    }
    return rc;
}

}  // namespace

extern "C" {

qv_int32_t sec_get_client_identity(sec_status_t st, sec_token_t ctoken, qv_char_t **name, qv_char_t **mname,
                                   sec_buffer_t id) {
    sec_init_once();
    sec_trace_api_entry(kTraceGetClientIdentity, st, ctoken, name, mname, id);
    qv_int32_t rc = get_client_identity(st, ctoken, name, mname, id);
    sec_trace_api_exit(kTraceGetClientIdentity, rc, st);
    return rc;
}

qv_int32_t sec_release_name(char *name) {
    std::free(name);
    return 0;
}

}  // extern "C"
