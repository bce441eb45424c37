// The client side of context establishment. sec_start_sec_context tries the
// mechanisms of the shared list in order until a module accepts and wraps
// its first token in a CCDB; sec_complete_sec_context feeds each answer of
// the server to that module and wraps the module's reply.
#include "context_token.h"
#include "errors.h"
#include "library_init.h"
#include "mechanism_list.h"
#include "mpm.h"
#include "trace.h"

namespace {

constexpr const char *kStartName = "sec_start_sec_context";
constexpr const char *kCompleteName = "sec_complete_sec_context";

qv_int32_t bad_token() { return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003); }
qv_int32_t bad_buffer() { return sec_report(SEC_S_BAD_BUFFER, MSG_2650_005); }

unsigned char continue_flag(qv_uint32_t maj) { return maj == MPM_S_CONTINUE ? SEC_CCDB_F_CONTINUE : 0; }

// Whether this thread holds a captured failure of the current series.
bool failure_captured() { return sec__error_ok && pthread_getspecific(sec__error_key) != nullptr; }

// Forgets the captured failure without touching the caller's status record.
void drop_captured(sec_status_t st) {
    sec_status_desc keep = *st;
    sec__error_clear(st);
    *st = keep;
}

// Ends the module context that entry made (or began) for c, keeping the
// caller's error, so that the next module starts from an empty handle slot.
void end_attempt(sec_mpm_entry_t entry, sec_ctx_token_t c, sec_status_t st) {
    SecErrorKeeper keep(st);
    sec__mpm_end_context(entry, st, c->mdata.mtoken);
    c->mdata.mtoken = nullptr;
    c->mdata.mpm = nullptr;
}

class ClientStart {
public:
    ClientStart(sec_status_t st, sec_svc_token_t svc, sec_ctx_token_t c, char *trg_svc, char *trg_host,
                qv_uint32_t flags)
        : st_(st), svc_(svc), c_(c), trg_svc_(trg_svc), trg_host_(trg_host), flags_(flags) {}

    // Walks the list; on 0, 1 or 2 the CCDB to send is in *c_ccdb.
    qv_int32_t run(const MechCodes &codes, sec_buffer_t c_ccdb) {
        sec__error_clear(st_);
        unauthenticated_ = codes.empty();
        qv_int32_t rc = 0;
        for (qv_uint32_t code : codes) {
            bool stop = false;
            rc = attempt(code, stop);
            if (stop) break;
        }
        if (unauthenticated_) return unauthenticated(c_ccdb);
        // The caller sees the failure of the first mechanism that failed.
        if (rc > 1 && failure_captured()) sec__error_retrieve(&rc, st_);
        if (rc <= 1) ccdb_.give_to(c_ccdb);
        return rc;
    }

private:
    // One mechanism. stop is set when the walk ends here: an unknown code, or
    // a module that accepted.
    qv_int32_t attempt(qv_uint32_t code, bool &stop) {
        sec_mpm_entry_t entry = sec__get_mpm_entry(code);
        if (entry == nullptr) {
            // The rest of the list is not tried, and earlier failures are
            // not what the caller sees.
            sec__error_clear(st_);
            stop = true;
            return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_006);
        }
        sec_mech_data_t rec = nullptr;
        qv_int32_t rc = sec_ctx_prepare_module(svc_, entry, st_, kMechClientLogin, &rec);
        if (rc != 0) {
            sec__error_capture(rc, st_);
            return rc;
        }
        // The module is recorded before it may write a handle into the
        // context: a thread cancelled inside the module then leaves a
        // context that sec_end_context ends in the module, not one that
        // holds a handle of no known module.
        c_->mdata.mpm = entry;
        if (c_->state & SEC_CTX_S_SOCKET) {
            rc = static_cast<qv_int32_t>(sec__mpm_set_ctx_attribute(entry, st_, rec->mtoken, MPM_ATTR_SOCKET_INFO,
                                                                    &c_->sinfo, &c_->mdata.mtoken));
            if (rc != 0) {
                sec__error_capture(rc, st_);
                // A handle the module made before failing is not handed to
                // the next module.
                if (c_->mdata.mtoken != nullptr) end_attempt(entry, c_, st_);
                c_->mdata.mpm = nullptr;
                return rc;
            }
        }
        MpmOutput out(entry);
        rc = static_cast<qv_int32_t>(sec__mpm_start_sec_context(entry, st_, rec->mtoken, flags_, trg_svc_, trg_host_,
                                                                &c_->mdata.mtoken, out.get()));
        if (rc != 0) {
            sec__error_capture(rc, st_);
            end_attempt(entry, c_, st_);
            if (st_->maj_stat == SEC_S_UNAUTHENTICATED) unauthenticated_ = true;
            return rc;
        }
        stop = true;
        qv_uint32_t maj = st_->maj_stat;
        sec__error_clear(st_);
        if (unauthenticated_) {
            // An earlier module asked for an unauthenticated context and that
            // decides the outcome: this module's context goes unused.
            out.release();
            end_attempt(entry, c_, st_);
            return 0;
        }
        c_->state |= SEC_CTX_S_AUTHENTICATED;
        return accepted(entry, code, maj, out);
    }

    qv_int32_t accepted(sec_mpm_entry_t entry, qv_uint32_t code, qv_uint32_t maj, MpmOutput &out) {
        if (out.empty()) {
            out.release();
            if (maj == MPM_S_CONTINUE) {
                end_attempt(entry, c_, st_);
                return sec_report(SEC_S_BAD_MPM, MSG_2650_024);
            }
            c_->state |= SEC_CTX_S_COMPLETE;
            return 0;
        }
        c_->seq_no = static_cast<unsigned char>(c_->seq_no + 1);
        qv_int32_t rc = sec__wrap_mech_ccdb(out.get(), code, c_->version, c_->seq_no, continue_flag(maj), ccdb_.get());
        if (rc != 0) {
            SecErrorKeeper keep(st_);
            out.release();
            end_attempt(entry, c_, st_);
            return rc;
        }
        out.release();
        if (maj == MPM_S_CONTINUE) {
            c_->state |= SEC_CTX_S_IN_PROGRESS;
            return 1;
        }
        c_->state |= SEC_CTX_S_COMPLETE;
        return 0;
    }

    qv_int32_t unauthenticated(sec_buffer_t c_ccdb) {
        if (c_->state & SEC_CTX_S_REFUSE_UNAUTH) {
            drop_captured(st_);
            return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_086);
        }
        sec__error_clear(st_);
        c_->seq_no = static_cast<unsigned char>(c_->seq_no + 1);
        OwnedBuffer ccdb;
        if (qv_int32_t rc = sec__wrap_mech_ccdb(nullptr, kMechNone, c_->version, c_->seq_no, 0, ccdb.get())) return rc;
        c_->state |= SEC_CTX_S_COMPLETE;
        ccdb.give_to(c_ccdb);
        return sec_report(SEC_S_UNAUTHENTICATED, MSG_CLIENT_INITIATES_UNAUTH);
    }

    sec_status_t st_;
    sec_svc_token_t svc_;
    sec_ctx_token_t c_;
    char *trg_svc_;
    char *trg_host_;
    qv_uint32_t flags_;
    bool unauthenticated_ = false;
    OwnedBuffer ccdb_;
};

qv_int32_t start_context(sec_status_t st, sec_token_t stoken, sec_buffer_t smechs, char *trg_svc, char *trg_host,
                         qv_uint32_t flags, sec_token_t *ctokenp, sec_buffer_t c_ccdb) {
    if (stoken == nullptr || trg_svc == nullptr || trg_host == nullptr || ctokenp == nullptr || c_ccdb == nullptr)
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kStartName);
    *c_ccdb = sec_buffer_desc{0, nullptr};
    auto *svc = static_cast<sec_svc_token_t>(stoken);
    sec__trace_service_token(svc);
    if (!sec_svc_usable(svc)) return bad_token();

    sec_ctx_token_t c;
    if (*ctokenp != nullptr) {
        // Only a token from sec_setup_socket that was never used.
        c = static_cast<sec_ctx_token_t>(*ctokenp);
        sec__trace_context_token(c);
        if (!sec_ctx_has_magic(c) || c->state != SEC_CTX_S_SOCKET || c->seq_no != 0) return bad_token();
    } else {
        c = sec_ctx_allocate(stoken);
        if (c == nullptr)
            return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, kStartName, static_cast<int>(sizeof *c));
        *ctokenp = c;
    }
    c->state |= SEC_CTX_S_CLIENT;
    c->version = kContextVersion;

    if (smechs == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kStartName);
    if (smechs->length == 0 || smechs->value == nullptr) return bad_buffer();
    sec__trace_buffer(smechs);
    if (sec_unauthenticated_refused()) c->state |= SEC_CTX_S_REFUSE_UNAUTH;
    MechCodes codes;
    if (qv_int32_t rc = sec_read_mech_list(smechs, codes)) return rc;
    return ClientStart(st, svc, c, trg_svc, trg_host, flags).run(codes, c_ccdb);
}

qv_int32_t complete_context(sec_status_t st, sec_buffer_t s_ccdb, sec_token_t *ctokenp, sec_buffer_t c_ccdb) {
    if (ctokenp == nullptr || *ctokenp == nullptr || s_ccdb == nullptr || s_ccdb->length == 0 ||
        s_ccdb->value == nullptr || c_ccdb == nullptr)
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kCompleteName);
    *c_ccdb = sec_buffer_desc{0, nullptr};
    auto *c = static_cast<sec_ctx_token_t>(*ctokenp);
    sec__trace_context_token(c);
    if (!sec_ctx_has_magic(c) || (c->state & SEC_CTX_S_CLIENT) == 0 || (c->state & SEC_CTX_S_COMPLETE) != 0 ||
        c->seq_no == 0)
        return bad_token();

    sec__trace_buffer(s_ccdb);
    qv_uint32_t mech = 0;
    int version = 0;
    unsigned char seq = 0, sflags = 0;
    OwnedBuffer body;
    if (qv_int32_t rc = sec__unwrap_mech_ccdb(s_ccdb, &mech, &version, &seq, &sflags, body.get())) return rc;
    // The server answers with the number of the CCDB it received.
    if (version == kContextVersion && seq != c->seq_no) return bad_buffer();

    if (mech == kMechNone) {
        // The server forces an unauthenticated context.
        sec_ctx_end_module_context(c, st);
        if (c->state & SEC_CTX_S_REFUSE_UNAUTH) return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_086);
        c->state &= ~(SEC_CTX_S_IN_PROGRESS | SEC_CTX_S_AUTHENTICATED);
        c->state |= SEC_CTX_S_COMPLETE;
        c->mdata.mpm = nullptr;
        return sec_report(SEC_S_UNAUTHENTICATED, MSG_SERVER_FORCES_UNAUTH);
    }
    sec_mpm_entry_t entry = c->mdata.mpm;
    if (entry == nullptr || mech != entry->code) return sec_report(SEC_S_BAD_MECHANISM, MSG_2650_006);

    MpmOutput out(entry);
    qv_int32_t rc =
        static_cast<qv_int32_t>(sec__mpm_complete_sec_context(entry, st, body.get(), c->mdata.mtoken, out.get()));
    if (rc != 0) return rc;
    qv_uint32_t maj = st->maj_stat;

    if (!out.empty()) {
        if (c->seq_no == kMaxSeqNo) {
            sec_ctx_end_module_context(c, st);
            return sec_report(SEC_S_BAD_MPM, MSG_2650_026, entry->name);
        }
        c->seq_no = static_cast<unsigned char>(c->seq_no + 1);
        OwnedBuffer ccdb;
        rc = sec__wrap_mech_ccdb(out.get(), mech, version, c->seq_no, continue_flag(maj), ccdb.get());
        if (rc != 0) {
            SecErrorKeeper keep(st);
            out.release();
            return rc;
        }
        out.release();
        ccdb.give_to(c_ccdb);
        if (maj == MPM_S_CONTINUE) return 1;
    } else if (maj == MPM_S_CONTINUE) {
        sec_ctx_end_module_context(c, st);
        return sec_report(SEC_S_BAD_MPM, MSG_2650_024);
    } else if (sflags & SEC_CCDB_F_CONTINUE) {
        sec_ctx_end_module_context(c, st);
        return sec_report(SEC_S_BAD_MPM, MSG_2650_025);
    }
    c->state &= ~SEC_CTX_S_IN_PROGRESS;
    c->state |= SEC_CTX_S_COMPLETE;
    return 0;
}

// A failure above 2 destroys the context, also a token the caller passed in
// (sec_setup_socket's), once it is known to be a context token at all.
void discard_on_failure(qv_int32_t rc, sec_token_t *ctokenp, sec_status_t st) {
    if (rc > SEC_S_UNAUTHENTICATED && ctokenp != nullptr && sec_ctx_has_magic(*ctokenp))
        sec_ctx_discard(ctokenp, st);
}

}  // namespace

extern "C" {

qv_int32_t sec_start_sec_context(sec_status_t st, sec_token_t stoken, sec_buffer_t smechs, char *trg_svc,
                                 char *trg_host, qv_uint32_t flags, sec_token_t *ctokenp, sec_buffer_t c_ccdb) {
    sec_init_once();
    sec_trace_api_entry(kTraceStartSecContext, st, stoken, smechs, trg_svc, trg_host, flags, ctokenp, c_ccdb);
    qv_int32_t rc;
    if (st == nullptr) {
        rc = sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kStartName, 1, 0);
    } else {
        *st = sec_status_desc{};
        rc = sec_guard([&] { return start_context(st, stoken, smechs, trg_svc, trg_host, flags, ctokenp, c_ccdb); });
    }
    discard_on_failure(rc, ctokenp, st);
    sec_trace_api_exit(kTraceStartSecContext, rc, st);
    return rc;
}

qv_int32_t sec_complete_sec_context(sec_status_t st, sec_buffer_t s_ccdb, sec_token_t *ctokenp, sec_buffer_t c_ccdb) {
    sec_init_once();
    sec_trace_api_entry(kTraceCompleteSecContext, st, s_ccdb, ctokenp, c_ccdb);
    qv_int32_t rc;
    if (st == nullptr) {
        rc = sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_060, kCompleteName, 1, 0);
    } else {
        *st = sec_status_desc{};
        rc = sec_guard([&] { return complete_context(st, s_ccdb, ctokenp, c_ccdb); });
    }
    discard_on_failure(rc, ctokenp, st);
    sec_trace_api_exit(kTraceCompleteSecContext, rc, st);
    return rc;
}

}  // extern "C"
