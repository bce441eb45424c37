// sec_create_cidb: a complete context's client identity as a CIDB, for a
// process that never saw the context.
#include "context_token.h"
#include "errors.h"
#include "library_init.h"
#include "module_client_name.h"
#include "trace.h"

namespace {

constexpr const char *kRoutine = "sec_create_cidb";
constexpr int kCidbVersion = 1;

// The privilege set written into the CIDB. What this call asked the module
// for is owned here; what an identity context lends is only pointed to.
struct CidbIdentity {
    sec_privset_info_desc ps{};
    SecMallocPtr name;              // asked from the module
    sec_privset_info_desc mapped{};  // from the mapping step
    ~CidbIdentity() { sec__free_privset_info(&mapped); }
};

qv_int32_t network_name(const sec_ctx_token_desc &t, sec_status_t st, CidbIdentity &id) {
    const qv_uint32_t code = t.mdata.mpm->code;
    if (t.state & SEC_CTX_S_IDENTITY) {
        if (t.privset.name == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_072, code);
        id.ps.name = t.privset.name;
        return 0;
    }
    if (qv_int32_t rc = sec_module_client_name(t.mdata.mpm, t.mdata.mtoken, st, kRoutine, id.name)) return rc;
    id.ps.name = id.name.get();
    // The module must still answer for the context's flags, though the CIDB
    // does not carry them.
    qv_uint32_t ignored = 0;
    return static_cast<qv_int32_t>(sec__mpm_get_ctx_flags(t.mdata.mpm, st, t.mdata.mtoken, &ignored));
}

qv_int32_t mapping(const sec_ctx_token_desc &t, sec_status_t st, CidbIdentity &id) {
    const qv_uint32_t lent = SEC_CTX_S_IDENTITY | SEC_CTX_S_MAPPED;
    if ((t.state & lent) == lent) {
        id.ps.mname = t.privset.mname;
        id.ps.gcount = t.privset.gcount;
        id.ps.groups = t.privset.groups;
        return 0;
    }
    if (qv_int32_t rc = sec__get_mapped_identity(st, t.mdata.mpm, t.mdata.mtoken, &id.mapped)) return rc;
    id.ps.mname = id.mapped.mname;
    id.ps.gcount = id.mapped.gcount;
    id.ps.groups = id.mapped.groups;
    return 0;
}

qv_int32_t create(sec_status_t st, qv_uint32_t flags, sec_token_t token, sec_buffer_t cidb) {
    if (st == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 1, 0u);
    *st = sec_status_desc{};
    if (token == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 3, 0u);
    if (cidb == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 4, 0u);
    cidb->length = 0;
    cidb->value = nullptr;
    if (!sec_ctx_usable(token)) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_061);
    const auto &t = *static_cast<const sec_ctx_token_desc *>(token);
    if ((t.state & SEC_CTX_S_AUTHENTICATED) == 0) return sec__wrap_cid_buff(0, kCidbVersion, 0, nullptr, cidb);
    if (t.mdata.mpm == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_071);

    CidbIdentity id;
    qv_uint32_t cidb_flags = SEC_CIDB_F_AUTHENTICATED;
    if (qv_int32_t rc = network_name(t, st, id)) return rc;
    // Only a security context can vouch that its client is local to this host.
    if ((t.state & SEC_CTX_S_IDENTITY) == 0) cidb_flags |= flags & SEC_F_CIDB_HOST_LOCAL;
    if (flags & SEC_F_CIDB_MAPPING) {
        cidb_flags |= SEC_CIDB_F_MAPPING;
        if (qv_int32_t rc = mapping(t, st, id)) return rc;
    }
    return sec__wrap_cid_buff(t.mdata.mpm->code, kCidbVersion, cidb_flags, &id.ps, cidb);
}

}  // namespace

extern "C" {

qv_int32_t sec_create_cidb(sec_status_t st, qv_uint32_t flags, sec_token_t token, sec_buffer_t cidb) {
    sec_init_once();
    sec_trace_api_entry(kTraceCreateCidb, st, flags, token, cidb);
    qv_int32_t rc = sec_guard([&] { return create(st, flags, token, cidb); });
    sec_trace_api_exit(kTraceCreateCidb, rc, st);
    return rc;
}

}  // extern "C"
