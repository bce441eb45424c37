// The mapping step of identity contexts and CIDBs: the client's mapped local
// name from its module and that name's groups from the identity-mapping
// routine sec_idm_get_groups, which is called by its exported name so that a
// program's own definition replaces the library's.
#include <cstdlib>

#include "errors.h"
#include "mpm_answer.h"

extern "C" {

qv_int32_t sec__get_mapped_identity(sec_status_t st, sec_mpm_entry_t entry, void *mtoken, sec_privset_info_t ps) {
    return sec_guard([&]() -> qv_int32_t {
        constexpr const char *kRoutine = "sec__get_mapped_identity";
        ps->mname = nullptr;
        ps->gcount = 0;
        ps->groups = nullptr;
        if (entry == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_071);
        SecMpmAnswer a;
        size_t wanted = 0;
        qv_int32_t rc = sec_query_mpm(sec__mpm_get_mapped_name, "mpm_get_mapped_name", kRoutine, entry, st, mtoken,
                                      &a, &wanted);
        if (rc == SEC_S_NO_MEMORY) return sec_report(rc, MSG_2650_032, kRoutine, static_cast<int>(wanted));
        if (rc != 0 || a.length == 0) return rc;  // no mapping is not an error
        sec_buffer_desc mapped{a.length, a.bytes.get()};
        int gcount = 0;
        sec_buffer_t groups = nullptr;
        rc = sec_idm_get_groups(&mapped, &gcount, &groups);
        if (rc != 0) return rc;
        ps->mname = a.bytes.release();
        ps->gcount = gcount;
        ps->groups = groups;
        return 0;
    });
}

}  // extern "C"
