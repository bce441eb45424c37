// Arbitrary bytes as a stored ACL, edited and checked. The first bytes pick
// an edit (add or delete), the entry's type and mechanism and its
// identifier; the rest is the ACL, loaded with sec_create_acl_from_data
// into a buffer of exactly its size so that a read past it is caught. A
// failed edit must leave the buffer's bytes as they were; an entry just
// added must be deletable, and an entry just deleted gone; checks of the
// ACL before and after must not fail for any reason but damage.
#include "../fuzz_support.h"
#include "qv_sec.h"

namespace {

std::vector<uint8_t> bytes_of(const sec_acl_buffer_desc &a) {
    auto *p = static_cast<const uint8_t *>(a.value);
    return p != nullptr ? std::vector<uint8_t>(p, p + a.length) : std::vector<uint8_t>();
}

void check(sec_acl_buffer_desc &acl, qv_uint32_t mech, const std::string &id) {
    const char *groups[] = {id.c_str(), "g"};
    sec_acl_client_desc client{mech, mech != 0 ? id.c_str() : nullptr, id.c_str(), 2, groups};
    if (mech == 0) client = sec_acl_client_desc{0, nullptr, nullptr, 0, nullptr};
    qv_uint32_t granted = 1;
    qv_int32_t rc = sec_check_acl_client(&acl, nullptr, &client, 0xffffffff, &granted);
    if ((rc != 0 && rc != SEC_S_BAD_BUFFER) || (rc != 0 && granted != 0)) __builtin_trap();
}

}  // namespace

QV_SEC_FUZZ_TARGET(1 << 16) {
    if (size < 3) return;
    const bool add = data[0] & 1;
    const qv_uint32_t type = 1 + (data[0] >> 1 & 3);
    const qv_uint32_t mechs[] = {0, 1, 2, 0x10002};
    const qv_uint32_t mech = mechs[data[1] & 3];
    const qv_uint32_t perm = data[1] | 1u;
    const size_t n = std::min<size_t>(data[2] & 15, size - 3);
    std::string id(reinterpret_cast<const char *>(data + 3), n);
    id = id.c_str();  // up to its first NUL
    if (id.empty()) id = "x";
    data += 3 + n;
    size -= 3 + n;

    sec_acl_buffer_desc acl{0, nullptr};
    if (sec_create_acl_from_data(static_cast<qv_int32_t>(size), const_cast<uint8_t *>(data), &acl) != 0)
        __builtin_trap();
    check(acl, mech, id);
    sec_acle_t entry = nullptr;
    if (sec_create_acle(mech, perm, type, id.data(), &entry) != 0) __builtin_trap();

    const std::vector<uint8_t> before = bytes_of(acl);
    qv_int32_t rc = add ? sec_add_acle_to_acl(entry, 0, &acl) : sec_del_acle_from_acl(entry, 0, &acl);
    if (rc != 0) {
        if (bytes_of(acl) != before) __builtin_trap();
    } else {
        check(acl, mech, id);
        if (add && sec_del_acle_from_acl(entry, 0, &acl) != 0) __builtin_trap();
        if (sec_del_acle_from_acl(entry, 0, &acl) != SEC_S_NO_ACL_ENTRIES) __builtin_trap();
        check(acl, mech, id);
    }
    sec_release_acle(&entry);
    // A buffer whose magic is damaged is not released by the library.
    if (sec_release_acl(&acl) != 0) free(acl.value);
}
