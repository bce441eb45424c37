// What both modules' context exchanges share: the context a start or receive
// routine works on, the start of mpm_receive_sec_context, and
// mpm_get_client_id over each module's own id layout.
#include <memory>

#include "mech_common.h"

namespace qvmech {

Status context_for_exchange(void **slot, NewContext &nc) {
    if (*slot == nullptr) {
        nc.owned = std::make_unique<Context>();
        nc.ctx = nc.owned.get();
        return kOk;
    }
    nc.ctx = as_context(*slot);
    if (nc.ctx == nullptr) return kBadHandle;
    if (nc.ctx->role != Role::kUnset || nc.ctx->phase != Phase::kNew) return kWrongState;
    return kOk;
}

Status begin_receive(void *svc_tkn, sec_buffer_t cbuff, void **ctx_tkn, sec_buffer_t sbuff, qv_uint32_t *rflags,
                     Service *&svc, std::unique_ptr<Context> &owned) {
    if (cbuff == nullptr || ctx_tkn == nullptr || sbuff == nullptr) return kBadArgument;
    sbuff->length = 0;
    sbuff->value = nullptr;
    if (rflags != nullptr) *rflags = 0;
    if (!crypto_ready()) return kCryptoUnavailable;
    svc = as_service(svc_tkn);
    if (svc == nullptr) return kBadHandle;
    NewContext nc;
    if (Status s = context_for_exchange(ctx_tkn, nc); s != kOk) return s;
    owned = std::move(nc.owned);
    if (!owned) owned.reset(nc.ctx);
    *ctx_tkn = nullptr;
    return kOk;
}

}  // namespace qvmech

using namespace qvmech;

extern "C" qv_uint32_t mpm_get_client_id(qv_uint32_t *min_stat, void *token, qv_int32_t *id_len, char *id) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        PeerIdentity peer;
        if (Status s = client_of(token, peer); s != kOk) return s;
        return answer(client_id_bytes(peer), id_len, id);
    });
}
