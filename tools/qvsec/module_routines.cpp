#include "module_routines.h"

#include <cstring>

// One row per routine, in the library's order (see mpm.h).
const MpmRoutineUse kMpmRoutineUses[MPM_ROUTINE_COUNT] = {
    /* mpm_start */ {"sec_start leaves the mechanism unstarted, and sec_start_sec_context, sec_receive_sec_context, "
                     "sec_login_as_service, sec_login_as_user and sec_renew_identity fail with return code 22 "
                     "(2650-020) for it", true},
    /* mpm_end */ {"sec_end reports a failure and leaks the module's service handle", true},
    /* mpm_set_ctx_attribute */ {"sec_start_sec_context and sec_receive_sec_context on a context prepared by "
                                 "sec_setup_socket fail with return code 22 (2650-020); a client then silently "
                                 "falls back to the next mechanism of the list", true},
    /* mpm_service_cleanup */ {"nothing: the library never calls it", false},
    /* mpm_start_sec_context */ {"sec_start_sec_context cannot use the mechanism (return code 22, 2650-020, or "
                                 "the next mechanism of the list)", true},
    /* mpm_get_target_name */ {"nothing: the library never calls it", false},
    /* mpm_complete_sec_context */ {"sec_complete_sec_context fails with return code 22 (2650-020): a mechanism of "
                                    "more than one round cannot complete", true},
    /* mpm_get_ctx_lifetime */ {"sec_get_ctx_lifetime and sec_get_ctx_attribute (lifetime) fail with return code "
                                "22 (2650-020)", true},
    /* mpm_get_ctx_flags */ {"sec_get_ctx_attribute (flags) and sec_create_cidb fail with return code 22 "
                             "(2650-020)", true},
    /* mpm_prepare_data */ {"sec_prepare_data fails with return code 22 (2650-020)", true},
    /* mpm_process_data */ {"sec_process_data fails with return code 22 (2650-020)", true},
    /* mpm_end_context */ {"sec_end_context and every failed context routine leak the module's context handle",
                           true},
    /* mpm_login_as_service */ {"sec_login_as_service fails, and so do sec_start_sec_context, "
                                "sec_receive_sec_context and sec_renew_identity of a service that logged in "
                                "(return code 22, 2650-020)", false},
    /* mpm_login_as_user */ {"sec_login_as_user fails with return code 22 (2650-020)", false},
    /* mpm_renew_identity */ {"sec_renew_identity fails with return code 22 (2650-020)", false},
    /* mpm_receive_sec_context */ {"sec_receive_sec_context fails with return code 22 (2650-020): no service "
                                   "can accept the mechanism", true},
    /* mpm_get_client_name */ {"sec_get_client_identity (network name), sec_create_cidb, sec_create_id_context and "
                               "sec_sec_verify_perm_from_ctx "
                               "fail with return code 22 (2650-020)", true},
    /* mpm_get_mapped_name */ {"sec_get_client_identity (mapped name), sec_create_cidb with the mapped-name flag, "
                               "sec_create_id_context and sec_sec_verify_perm_from_ctx fail with return code 22 (2650-020)", true},
    /* mpm_get_client_id */ {"sec_get_client_identity (typed id buffer) fails with return code 22 (2650-020)", true},
    /* mpm_release_buffer */ {"nothing fails, but every sec_start_sec_context, sec_complete_sec_context, "
                              "sec_receive_sec_context, sec_prepare_data and sec_sign_data_v leaks the module's "
                              "output", true},
    /* mpm_create_id_context */ {"sec_create_id_context fails with return code 22 (2650-020)", false},
    /* mpm_sign_data_v */ {"sec_sign_data_v fails with return code 22 (2650-020)", false},
    /* mpm_verify_data_v */ {"sec_verify_data_v fails with return code 22 (2650-020)", false},
    /* mpm_get_ctx_mpm */ {"nothing: the library never calls it", false},
    /* mpm_user_valid */ {"sec_user_valid fails with return code 22 (2650-020)", false},
};

const MpmRoutineUse *mpm_routine_use(const char *name) {
    for (int i = 0; i < MPM_ROUTINE_COUNT; ++i)
        if (std::strcmp(kMpmRoutineNames[i], name) == 0) return &kMpmRoutineUses[i];
    return nullptr;
}
