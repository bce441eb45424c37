// Whole ACL buffers: one made from stored bytes, and the release of one.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "acl_format.h"
#include "errors.h"
#include "library_init.h"

namespace {

qv_int32_t create_acl_from_data(qv_int32_t length, void *data, sec_acl_buffer_t acl) {
    constexpr const char *kRoutine = "sec_create_acl_from_data";
    if (length < 0) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_031, kRoutine, 1, static_cast<unsigned>(length));
    if (data == nullptr && length > 0) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_031, kRoutine, 2, 0u);
    if (acl == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_031, kRoutine, 3, 0u);
    // No bytes make the empty ACL, which every routine accepts as it is.
    if (length == 0) {
        *acl = sec_acl_buffer_desc{0, nullptr};
        return 0;
    }
    void *copy = std::malloc(static_cast<size_t>(length));
    if (copy == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, kRoutine, length);
    std::memcpy(copy, data, static_cast<size_t>(length));
    *acl = sec_acl_buffer_desc{length, copy};
    return 0;
}

qv_int32_t release_acl(sec_acl_buffer_t acl) {
    if (acl == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_031, "sec_release_acl", 1, 0u);
    if (acl->length == 0 || acl->value == nullptr) return 0;
    if (acl->length < 4 || acl::be32(acl::bytes_of(acl->value)) != SEC_ACL_HEAD_MAGIC)
        return sec_report(SEC_S_NO_MEMORY, MSG_2650_038);
    // ACLs hold names and permission bits, no secrets: the bytes are not
    // wiped, here or when an edit replaces a buffer.
    std::free(acl->value);
    *acl = sec_acl_buffer_desc{0, nullptr};
    return 0;
}

}  // namespace

extern "C" {

qv_int32_t sec_create_acl_from_data(qv_int32_t length, void *data, sec_acl_buffer_t acl) {
    sec_init_once();
    qv_int32_t rc = create_acl_from_data(length, data, acl);
    sec__trace_routine_end("sec_create_acl_from_data", rc, nullptr);
    return rc;
}

qv_int32_t sec_release_acl(sec_acl_buffer_t acl) {
    sec_init_once();
    qv_int32_t rc = release_acl(acl);
    sec__trace_routine_end("sec_release_acl", rc, nullptr);
    return rc;
}

}  // extern "C"
