// The server side of context establishment: sec_receive_sec_context takes
// each CCDB of a client, binds the context to the mechanism the first one
// names, lets the module accept the client's bytes and wraps the module's
// answer. It also decides whether an unauthenticated client is acceptable.
#include "context_token.h"
#include "errors.h"
#include "library_init.h"
#include "mechanism_list.h"
#include "mpm.h"
#include "trace.h"

namespace {

constexpr const char *kReceiveName = "sec_receive_sec_context";

qv_int32_t bad_args() { return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kReceiveName); }
qv_int32_t bad_buffer() { return sec_report(SEC_S_BAD_BUFFER, MSG_2650_005); }
qv_int32_t refused() { return sec_report(SEC_S_AUTH_ERROR, MSG_2650_030); }

// A token the caller may hand in: one with an exchange in progress, or one
// from sec_setup_socket that was never used.
bool acceptable_token(const void *token) {
    if (!sec_ctx_has_magic(token)) return false;
    auto *c = static_cast<const sec_ctx_token_desc *>(token);
    return c->seq_no != 0 || ((c->state & SEC_CTX_S_SOCKET) && (c->state & 0x1u) == 0);
}

class ServerReceive {
public:
    ServerReceive(sec_status_t st, sec_svc_token_t svc, sec_ctx_token_t c) : st_(st), svc_(svc), c_(c) {}

    qv_int32_t run(sec_buffer_t c_ccdb, sec_buffer_t s_ccdb) {
        sec__trace_buffer(c_ccdb);
        OwnedBuffer body;
        if (qv_int32_t rc = sec__unwrap_mech_ccdb(c_ccdb, &mech_, &version_, &seq_, &cflags_, body.get())) return rc;

        // Only a version-2 CCDB counts rounds, so only it can open the
        // exchange; any other must match the version the exchange began with.
        if (version_ == kContextVersion) {
            c_->seq_no = static_cast<unsigned char>(c_->seq_no + 1);
            if (seq_ != c_->seq_no) return bad_buffer();
        }
        first_ = version_ == kContextVersion && c_->seq_no == 1;
        if (first_) {
            c_->state |= SEC_CTX_S_IN_PROGRESS | SEC_CTX_S_SERVER;
            c_->version = static_cast<qv_uint16_t>(version_);
        } else if (static_cast<qv_uint16_t>(version_) != c_->version) {
            return bad_buffer();
        }

        if (first_) {
            if (mech_ == kMechNone) {
                // The client made an unauthenticated context; nothing is sent back.
                if (sec_svc_state(svc_) & kSvcRefuseUnauth) return refused();
                c_->state &= ~SEC_CTX_S_IN_PROGRESS;
                c_->state |= SEC_CTX_S_COMPLETE;
                return 0;
            }
            if (qv_int32_t rc = bind_module()) return rc;
        } else if (c_->mdata.mpm == nullptr || mech_ != c_->mdata.mpm->code) {
            return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_006);
        }
        return accept(body.get(), s_ccdb);
    }

private:
    // First round: the module the CCDB names, started (and logged in) for
    // the service, told about the socket of a socket-prepared context.
    qv_int32_t bind_module() {
        sec_mpm_entry_t entry = sec__get_mpm_entry(mech_);
        if (entry == nullptr) return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_006);
        c_->mdata.mpm = entry;
        sec_mech_data_t rec = nullptr;
        if (qv_int32_t rc = sec_ctx_prepare_module(svc_, entry, st_, kMechServerLogin, &rec)) return rc;
        if (c_->state & SEC_CTX_S_SOCKET) {
            if (qv_uint32_t rc = sec__mpm_set_ctx_attribute(entry, st_, rec->mtoken, MPM_ATTR_SOCKET_INFO,
                                                            &c_->sinfo, &c_->mdata.mtoken))
                return static_cast<qv_int32_t>(rc);
        }
        c_->mdata.next = rec;
        return 0;
    }

    qv_int32_t accept(sec_buffer_t body, sec_buffer_t s_ccdb) {
        sec_mpm_entry_t entry = c_->mdata.mpm;
        if (c_->mdata.next == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_023);
        MpmOutput out(entry);
        qv_uint32_t rflags = 0;  // the module's flags output is not used
        auto rc = static_cast<qv_int32_t>(sec__mpm_receive_sec_context(entry, st_, c_->mdata.next->mtoken, body,
                                                                       &c_->mdata.mtoken, out.get(), &rflags));
        bool wants_unauth = (rc == 0 || rc == SEC_S_MPM_FAILURE) && st_->maj_stat == SEC_S_UNAUTHENTICATED;
        if (rc != 0 && !wants_unauth) return rc;
        if (wants_unauth) return module_wants_unauthenticated(s_ccdb);

        qv_uint32_t maj = st_->maj_stat;
        if (!out.empty()) {
            OwnedBuffer ccdb;
            rc = sec__wrap_mech_ccdb(out.get(), mech_, c_->version, c_->seq_no,
                                     maj == MPM_S_CONTINUE ? SEC_CCDB_F_CONTINUE : 0, ccdb.get());
            if (rc != 0) {
                SecErrorKeeper keep(st_);
                sec_ctx_end_module_context(c_, st_);
                out.release();
                return rc;
            }
            out.release();
            ccdb.give_to(s_ccdb);
        } else if (maj == MPM_S_CONTINUE) {
            sec_ctx_end_module_context(c_, st_);
            return sec_report(SEC_S_BAD_MPM, MSG_2650_024);
        } else if (c_->version > 1 && (cflags_ & SEC_CCDB_F_CONTINUE)) {
            sec_ctx_end_module_context(c_, st_);
            return sec_report(SEC_S_BAD_MPM, MSG_2650_025);
        }
        c_->state |= SEC_CTX_S_AUTHENTICATED;
        if (maj == MPM_S_CONTINUE) return 1;
        c_->state &= ~SEC_CTX_S_IN_PROGRESS;
        c_->state |= SEC_CTX_S_COMPLETE;
        return 0;
    }

    // The module asks for an unauthenticated context, which it may do only
    // in the first round. A client that still waits is told with an empty
    // CCDB for mechanism 0.
    qv_int32_t module_wants_unauthenticated(sec_buffer_t s_ccdb) {
        if (!first_) return sec_report(SEC_S_BAD_MPM, MSG_2650_029);
        if (sec_svc_state(svc_) & kSvcRefuseUnauth) return refused();
        if (cflags_ & SEC_CCDB_F_CONTINUE) {
            OwnedBuffer ccdb;
            if (qv_int32_t rc = sec__wrap_mech_ccdb(nullptr, kMechNone, c_->version, 1, 0, ccdb.get())) return rc;
            ccdb.give_to(s_ccdb);
        }
        c_->state |= SEC_CTX_S_COMPLETE;
        return 0;
    }

    sec_status_t st_;
    sec_svc_token_t svc_;
    sec_ctx_token_t c_;
    qv_uint32_t mech_ = 0;
    int version_ = 0;
    unsigned char seq_ = 0;
    unsigned char cflags_ = 0;
    bool first_ = false;
};

qv_int32_t receive_context(sec_status_t st, sec_token_t stoken, sec_buffer_t c_ccdb, sec_token_t *ctokenp,
                           sec_buffer_t s_ccdb, bool &accepted) {
    if (stoken == nullptr || c_ccdb == nullptr || ctokenp == nullptr || s_ccdb == nullptr) return bad_args();
    *s_ccdb = sec_buffer_desc{0, nullptr};
    auto *svc = static_cast<sec_svc_token_t>(stoken);
    sec__trace_service_token(svc);
    if (!sec_svc_usable(svc)) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);

    sec_ctx_token_t c;
    if (*ctokenp == nullptr) {
        c = sec_ctx_allocate(stoken);
        if (c == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
        *ctokenp = c;
    } else {
        c = static_cast<sec_ctx_token_t>(*ctokenp);
        sec__trace_context_token(c);
        // A token that fails here may not be one at all: it is left alone.
        if (!acceptable_token(c)) return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);
    }
    accepted = true;
    return ServerReceive(st, svc, c).run(c_ccdb, s_ccdb);
}

}  // namespace

extern "C" {

qv_int32_t sec_receive_sec_context(sec_status_t st, sec_token_t stoken, sec_buffer_t c_ccdb, sec_token_t *ctokenp,
                                   sec_buffer_t s_ccdb) {
    sec_init_once();
    sec_trace_api_entry(kTraceReceiveSecContext, st, stoken, c_ccdb, ctokenp, s_ccdb);
    // A failure destroys the context: one this call made or accepted, or a
    // valid one the caller handed in with bad arguments.
    bool accepted = ctokenp != nullptr && acceptable_token(*ctokenp);
    qv_int32_t rc;
    if (st == nullptr) {
        // This routine reports every bad argument in the older message form.
        rc = bad_args();
    } else {
        *st = sec_status_desc{};
        rc = sec_guard([&] { return receive_context(st, stoken, c_ccdb, ctokenp, s_ccdb, accepted); });
    }
    if (rc > SEC_S_CONTINUE && accepted && *ctokenp != nullptr) sec_ctx_discard(ctokenp, st);
    sec_trace_api_exit(kTraceReceiveSecContext, rc, st);
    return rc;
}

}  // extern "C"
