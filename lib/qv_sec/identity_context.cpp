// sec_create_id_context: an identity context, a context token that carries
// only who the client is, made from a complete security context or from a
// CIDB received from another process.
#include <string>

#include "context_token.h"
#include "errors.h"
#include "library_init.h"
#include "module_client_name.h"
#include "mpm.h"
#include "trace.h"

namespace {

constexpr const char *kRoutine = "sec_create_id_context";
// The size of a context token, as the allocation failure reports it.
constexpr int kContextTokenSize = 104;

// The identity context being made. Unless handed out, it is destroyed: its
// module identity context (if one was made) ended without disturbing the
// caller's error and status, then its privilege set and the token freed.
class NewIdentity {
public:
    explicit NewIdentity(sec_token_t svc) : c_(sec_ctx_allocate(svc)) {
        if (c_ != nullptr) c_->state = SEC_CTX_S_IDENTITY;
    }
    ~NewIdentity() {
        if (c_ == nullptr) return;
        sec_ctx_end_module_context(c_, nullptr);
        sec_ctx_free(c_);
    }
    NewIdentity(const NewIdentity &) = delete;
    NewIdentity &operator=(const NewIdentity &) = delete;

    sec_ctx_token_desc *operator->() { return c_; }
    explicit operator bool() const { return c_ != nullptr; }
    sec_token_t release() {
        c_->state |= SEC_CTX_S_COMPLETE;
        return std::exchange(c_, nullptr);
    }

private:
    sec_ctx_token_t c_;
};

// A decoded CIDB's privilege set; what the token takes is moved out first.
struct DecodedSet {
    sec_privset_info_desc ps{};
    ~DecodedSet() { sec__free_privset_info(&ps); }
};

void trace_privset(const sec_privset_info_desc &ps) {
    if (sec__trace_detail_levels[SEC_TRC_INFO] <= 1) return;
    std::string groups;
    for (int i = 0; i < ps.gcount && ps.groups != nullptr; ++i) {
        if (i > 0) groups += ' ';
        if (ps.groups[i].value != nullptr) groups += static_cast<const char *>(ps.groups[i].value);
    }
    std::string count = std::to_string(ps.gcount);
    tr_record_strings_1(kTraceComponent, kTracePrivset, 4, ps.name != nullptr ? ps.name : "<nil>",
                        ps.mname != nullptr ? ps.mname : "<nil>", count.c_str(), groups.c_str());
}

qv_int32_t from_security_context(sec_status_t st, qv_uint32_t flags, void *in, NewIdentity &id) {
    if (!sec_ctx_usable(in)) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_061);
    const auto &s = *static_cast<const sec_ctx_token_desc *>(in);
    if (s.state & SEC_CTX_S_IDENTITY) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_062);
    if ((s.state & SEC_CTX_S_AUTHENTICATED) == 0) return 0;
    id->state |= SEC_CTX_S_AUTHENTICATED;
    sec_mpm_entry_t entry = s.mdata.mpm;
    if (entry == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_068);
    id->mdata.mpm = entry;
    if (qv_uint32_t rc = sec__mpm_create_id_context(entry, st, MPM_IDCTX_FROM_CONTEXT, s.mdata.mtoken,
                                                    &id->mdata.mtoken))
        return static_cast<qv_int32_t>(rc);
    SecMallocPtr name;
    if (qv_int32_t rc = sec_module_client_name(entry, s.mdata.mtoken, st, kRoutine, name)) return rc;
    id->privset.name = name.release();
    if ((flags & SEC_F_IDCTX_NO_MAP) == 0) {
        id->state |= SEC_CTX_S_MAPPED;
        if (qv_int32_t rc = sec__get_mapped_identity(st, entry, s.mdata.mtoken, &id->privset)) return rc;
    }
    trace_privset(id->privset);
    return 0;
}

// The module started for the service if it was not yet; the service's
// mutex is held for this step only.
qv_int32_t start_for_service(sec_svc_token_t svc, sec_mpm_entry_t entry, sec_status_t st) {
    SecMutexGuard guard(&svc->lock);
    sec_mech_data_t m = nullptr;
    return sec_svc_started_mech_data(svc, entry, st, &m);
}

qv_int32_t configured_entry(qv_uint32_t mech, sec_mpm_entry_t &entry) {
    {
        SecMutexGuard guard(&SEC_STATE.lock);
        if (qv_uint32_t rc = sec__read_reserve_select(nullptr)) return static_cast<qv_int32_t>(rc);
    }
    entry = sec__get_mpm_entry(mech);
    if (entry == nullptr) return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_070, mech);
    return 0;
}

void take_mapping(DecodedSet &d, sec_privset_info_desc &to) {
    to.mname = std::exchange(d.ps.mname, nullptr);
    to.gcount = std::exchange(d.ps.gcount, 0);
    to.groups = std::exchange(d.ps.groups, nullptr);
}

qv_int32_t from_cidb(sec_status_t st, sec_svc_token_t svc, qv_uint32_t flags, void *in, NewIdentity &id) {
    auto *buf = static_cast<sec_buffer_t>(in);
    if (buf->length == 0 || buf->value == nullptr) return sec_report(SEC_S_BAD_BUFFER, MSG_2650_005);
    qv_uint32_t mech = 0, cidb_flags = 0;
    int version = 0;
    qv_uint64_t node = 0;
    DecodedSet d;
    if (qv_int32_t rc = sec__unwrap_cid_buff(buf, &mech, &version, &node, &cidb_flags, &d.ps)) return rc;
    if ((cidb_flags & SEC_CIDB_F_AUTHENTICATED) == 0) return 0;
    if (cidb_flags & SEC_CIDB_F_HOST_LOCAL) {
        qv_uint64_t here = 0;
        // Without this host's own ID the CIDB cannot be shown to be local.
        if (int rc = cu_get_node_id_1(&here)) {
            if (rc == CU_E_NOMEM) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
            return sec_report(SEC_S_INTERNAL, MSG_2650_077, "cu_get_node_id_1", rc, kRoutine);
        }
        if (here != node) return sec_report(SEC_S_AMBIGUOUS_CIDB, MSG_2650_087, mech, node);
    }
    id->state |= SEC_CTX_S_AUTHENTICATED;
    sec_mpm_entry_t entry = nullptr;
    if (qv_int32_t rc = configured_entry(mech, entry)) return rc;
    if (qv_int32_t rc = start_for_service(svc, entry, st)) return rc;
    id->mdata.mpm = entry;
    if (qv_uint32_t rc = sec__mpm_create_id_context(entry, st, MPM_IDCTX_FROM_NAME, d.ps.name, &id->mdata.mtoken))
        return static_cast<qv_int32_t>(rc);

    id->privset.name = std::exchange(d.ps.name, nullptr);
    const bool carried = (cidb_flags & SEC_CIDB_F_MAPPING) != 0;
    if (flags & SEC_F_IDCTX_NO_MAP) {
        if (carried) {
            take_mapping(d, id->privset);
            id->state |= SEC_CTX_S_MAPPED;
        }
        return 0;
    }
    id->state |= SEC_CTX_S_MAPPED;
    if (carried && (flags & SEC_F_IDCTX_FORCE_MAP) == 0) {
        take_mapping(d, id->privset);
        return 0;
    }
    return sec__get_mapped_identity(st, entry, id->mdata.mtoken, &id->privset);
}

qv_int32_t create(sec_status_t st, sec_token_t stoken, qv_uint32_t flags, void *in, sec_token_t *context) {
    if (st == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 1, 0u);
    *st = sec_status_desc{};
    if (stoken == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 2, 0u);
    if (!sec_svc_usable(stoken)) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);
    const bool secctx = (flags & SEC_F_IDCTX_SECCTX) != 0, cidb = (flags & SEC_F_IDCTX_CIDB) != 0;
    if (secctx == cidb) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_066);
    if ((flags & SEC_F_IDCTX_FORCE_MAP) && (flags & SEC_F_IDCTX_NO_MAP))
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_069);
    if (in == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 4, 0u);
    if (context == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kRoutine, 5, 0u);
    *context = nullptr;

    NewIdentity id(stoken);
    // This failure is reported with the text of 2650-064, given the
    // routine's name and the token's size.
    if (!id) return sec_report(SEC_S_NO_MEMORY, MSG_2650_064, kRoutine, kContextTokenSize);
    qv_int32_t rc = secctx ? from_security_context(st, flags, in, id)
                           : from_cidb(st, static_cast<sec_svc_token_t>(stoken), flags, in, id);
    if (rc != 0) return rc;
    *context = id.release();
    return 0;
}

}  // namespace

qv_int32_t sec_module_client_name(sec_mpm_entry_t entry, void *mtoken, sec_status_t st, const char *caller,
                                  SecMallocPtr &name) {
    SecMpmAnswer a;
    size_t wanted = 0;
    qv_int32_t rc = sec_query_mpm(sec__mpm_get_client_name, "mpm_get_client_name", caller, entry, st, mtoken, &a,
                                  &wanted);
    if (rc == SEC_S_NO_MEMORY) return sec_report(rc, MSG_2650_032, caller, static_cast<int>(wanted));
    if (rc != 0) return rc;
    if (a.length == 0) return sec_report(SEC_S_BAD_MPM, MSG_2650_067, entry->code);
    name = std::move(a.bytes);
    return 0;
}

extern "C" {

qv_int32_t sec_create_id_context(sec_status_t st, sec_token_t stoken, qv_uint32_t flags, void *in,
                                 sec_token_t *context) {
    sec_init_once();
    sec_trace_api_entry(kTraceCreateIdContext, st, stoken, flags, in, context);
    qv_int32_t rc = sec_guard([&] { return create(st, stoken, flags, in, context); });
    sec_trace_api_exit(kTraceCreateIdContext, rc, st);
    return rc;
}

}  // extern "C"
