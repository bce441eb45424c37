// Single ACL entries: making one, reading its identifier back, releasing
// entries and entry lists.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

#include "acl_arguments.h"
#include "acl_format.h"
#include "errors.h"
#include "library_init.h"

namespace {

qv_int32_t create_acle(qv_uint32_t mech, qv_uint32_t perm, qv_uint32_t type, char *id, sec_acle_t *acle) {
    constexpr const char *kRoutine = "sec_create_acle";
    // The entry holds the type in 16 bits; a larger one would be stored as
    // another type.
    if (type > 0xffff) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_031, kRoutine, 3, type);
    const bool with_id = acl::type_has_id(type);
    size_t id_length = 0;
    if (with_id) {
        if (id == nullptr || id[0] == '\0') return sec_acl_bad_argument(kRoutine, 4, id);
        id_length = std::strlen(id);
        // The entry's length, and any ACL holding it, must fit 31 bits.
        if (id_length > INT32_MAX - acl::kEntryHeadLen - 1 - acl::kHeadLen - acl::kSubHeadLen)
            return sec_acl_bad_argument(kRoutine, 4, id);
    }
    if (acle == nullptr) return sec_acl_bad_argument(kRoutine, 5, acle);
    const size_t size = with_id ? acl::kEntryHeadLen + id_length + 1 : acl::kEntryHeadLen;
    auto *e = static_cast<uint8_t *>(std::calloc(1, size));
    if (e == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, kRoutine, static_cast<int>(size));
    acl::put_be32(e, static_cast<uint32_t>(size));
    acl::put_be32(e + acl::kAcleMech, mech);
    acl::put_be32(e + acl::kAclePerm, perm);
    acl::put_be16(e + acl::kAcleType, static_cast<uint16_t>(type));
    if (with_id) std::memcpy(e + acl::kIdOffset, id, id_length);
    *acle = reinterpret_cast<sec_acle_t>(e);
    return 0;
}

qv_int32_t display_acle_id(sec_acle_t entry, sec_buffer_t id) {
    constexpr const char *kRoutine = "sec_display_acle_id";
    // The identifier ends at its NUL or, in an entry without one, at the
    // entry's end.
    size_t n = 0;
    if (entry != nullptr) {
        uint32_t len = acl::entry_length(entry);
        n = len > acl::kIdOffset ? strnlen(acl::entry_id(entry), len - acl::kIdOffset) : 0;
    }
    if (n == 0) return sec_acl_bad_argument(kRoutine, 1, entry);
    if (id == nullptr) return sec_acl_bad_argument(kRoutine, 2, id);
    auto *copy = static_cast<char *>(std::malloc(n + 1));
    // This routine reports running out of memory with the argument message
    // (naming the output, position 2, and the size it could not allocate).
    if (copy == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_031, kRoutine, 2, static_cast<unsigned>(n + 1));
    std::memcpy(copy, acl::entry_id(entry), n);
    copy[n] = '\0';
    id->length = static_cast<qv_int32_t>(n + 1);
    id->value = copy;
    return 0;
}

void wipe_and_free(void *p) {
    if (p == nullptr) return;
    explicit_bzero(p, malloc_usable_size(p));
    std::free(p);
}

}  // namespace

extern "C" {

qv_int32_t sec__acle_id_lenmin(sec_acle_t a, sec_acle_t b) {
    uint32_t la = acl::entry_length(a), lb = acl::entry_length(b);
    return static_cast<qv_int32_t>((la > lb ? la : lb) - acl::kEntryHeadLen);
}

qv_int32_t sec_create_acle(qv_uint32_t mech, qv_uint32_t perm, qv_uint32_t type, char *id, sec_acle_t *acle) {
    sec_init_once();
    qv_int32_t rc = create_acle(mech, perm, type, id, acle);
    sec__trace_routine_end("sec_create_acle", rc, nullptr);
    return rc;
}

qv_int32_t sec_display_acle_id(sec_acle_t entry, sec_buffer_t id) {
    sec_init_once();
    qv_int32_t rc = display_acle_id(entry, id);
    sec__trace_routine_end("sec_display_acle_id", rc, nullptr);
    return rc;
}

qv_int32_t sec_release_acle(sec_acle_t *entry) {
    sec_init_once();
    qv_int32_t rc = 0;
    if (entry == nullptr || *entry == nullptr) {
        // Reported under the name of the editing routine, which programs
        // match on.
        rc = sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_031, "sec_del_acle_from_acl", 1, 0u);
    } else {
        wipe_and_free(*entry);
        *entry = nullptr;
    }
    sec__trace_routine_end("sec_release_acle", rc, nullptr);
    return rc;
}

qv_int32_t sec_release_acle_list(sec_acle_list_t *list) {
    sec_init_once();
    if (list != nullptr && *list != nullptr) {
        wipe_and_free((*list)->elements);
        wipe_and_free(*list);
        *list = nullptr;
    }
    sec__trace_routine_end("sec_release_acle_list", 0, nullptr);
    return 0;
}

}  // extern "C"
